// Fault injection: requests that fail by count or by filter, and packets that
// are lost, cut, spoiled or given a header longer than themselves. The
// faults are checked in the order they were added; a request fault that has
// fired its number of times is removed.

#include <algorithm>

#include "emulator/camera_state.h"

bool EmulatedCamera::State::FaultForRequest(const ControlRequestInfo& info, NTSTATUS* status) {
  for (size_t i = 0; i < requestFaults.size(); ++i) {
    RequestFault& fault = requestFaults[i];
    const bool hit = fault.atRequest != 0 ? info.sequence == fault.atRequest
                                          : (fault.filter && fault.filter(info));
    if (!hit) continue;
    *status = fault.status;
    if (--fault.remaining == 0) requestFaults.erase(requestFaults.begin() + long(i));
    return true;
  }
  return false;
}

void EmulatedCamera::State::ApplyPacketFaults(const StreamPacketInfo& info,
                                              std::vector<uint8_t>* packet) {
  StreamPacketInfo now = info;
  for (size_t i = 0; i < packetFaults.size();) {
    PacketFault& fault = packetFaults[i];
    if (!fault.match || !fault.match(now)) {
      ++i;
      continue;
    }
    switch (fault.kind) {
      case PacketFaultKind::Drop:
        packet->clear();
        break;
      case PacketFaultKind::Truncate:
        if (packet->size() > fault.parameter) packet->resize(fault.parameter);
        break;
      case PacketFaultKind::CorruptByte:
        if (fault.parameter < packet->size()) (*packet)[fault.parameter] ^= 0xFF;
        break;
      case PacketFaultKind::CorruptPayload:
        if (!packet->empty()) {
          for (size_t b = std::min<size_t>((*packet)[0], packet->size()); b < packet->size(); ++b) {
            (*packet)[b] ^= 0xFF;
          }
        }
        break;
      case PacketFaultKind::HeaderBeyondPacket:
        if (!packet->empty()) {
          const size_t claimed = packet->size() + std::max<uint32_t>(fault.parameter, 1);
          (*packet)[0] = uint8_t(std::min<size_t>(claimed, 255));
        }
        break;
    }
    now.length = uint32_t(packet->size());
    if (--fault.remaining == 0) {
      packetFaults.erase(packetFaults.begin() + long(i));
    } else {
      ++i;
    }
  }
}
