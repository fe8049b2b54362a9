// Helpers for the emulated camera's tests: vendor requests in the driver's
// wire forms, and frames cut from the stream as the driver's packet routine
// cuts them.
#pragma once

#include <cstdint>
#include <vector>

#include "emulator/emulated_camera.h"

namespace emutest {

inline EmulatedCameraConfig WithSensor(EmulatedSensorKind kind, uint16_t bcdDevice = 0x0200) {
  EmulatedCameraConfig config;
  config.sensors = {EmulatedSensorConfig{kind}};
  config.bcdDevice = bcdDevice;
  return config;
}

// Request 1: one 8-bit register write.
inline NTSTATUS Write(EmulatedCamera& cam, uint8_t bus, uint8_t reg, uint8_t value) {
  return cam.ControlTransfer(1, uint16_t(bus << 8 | value), reg, nullptr, nullptr, false);
}

// Request 2: a one-step read.
inline NTSTATUS Read(EmulatedCamera& cam, uint8_t bus, uint8_t reg, uint8_t* value) {
  uint32_t length = 1;
  return cam.ControlTransfer(2, uint16_t(bus << 8), reg, value, &length, true);
}

// Requests 1 and 2 with 0x8000: the two-step read.
inline NTSTATUS ReadTwoStep(EmulatedCamera& cam, uint8_t bus, uint8_t reg, uint8_t* value) {
  NTSTATUS status =
      cam.ControlTransfer(1, uint16_t(bus << 8), uint16_t(0x8000 | reg), nullptr, nullptr, false);
  uint32_t length = 1;
  return status < 0 ? status
                    : cam.ControlTransfer(2, uint16_t(bus << 8), uint16_t(0x8000 | reg), value,
                                          &length, true);
}

// An out request with a data stage.
inline NTSTATUS Send(EmulatedCamera& cam, uint8_t request, uint16_t value, uint16_t index,
                     std::vector<uint8_t> data) {
  uint32_t length = uint32_t(data.size());
  return cam.ControlTransfer(request, value, index, data.data(), &length, false);
}

// WRITEEX on a revision-2 chip: one quad.
inline NTSTATUS WriteQuad(EmulatedCamera& cam, uint8_t bus, uint16_t reg, uint16_t value) {
  return Send(cam, 3, uint16_t(bus << 8), 0x0500,
              {uint8_t(reg >> 8), uint8_t(reg), uint8_t(value >> 8), uint8_t(value)});
}

// An MI sensor's MCU variable through 0x338C / 0x3390.
inline void WriteVariable(EmulatedCamera& cam, uint8_t bus, uint16_t address, uint16_t value) {
  WriteQuad(cam, bus, 0x338C, address), WriteQuad(cam, bus, 0x3390, value);
}

struct RegisterWrite {
  uint8_t bus, reg, value;
};

// Request 1 for each write in turn; false at the first refused.
inline bool WriteAll(EmulatedCamera& cam, const std::vector<RegisterWrite>& writes) {
  for (const RegisterWrite& w : writes) {
    if (Write(cam, w.bus, w.reg, w.value) != STATUS_SUCCESS) return false;
  }
  return true;
}

// Selects `setting` and starts the stream (request 5, value 1).
inline NTSTATUS StartStream(EmulatedCamera& cam, uint8_t setting = 5) {
  NTSTATUS status = cam.SelectAlternateSetting(setting);
  return status < 0 ? status : cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false);
}

// What lies between the header-only start packet and the packet flagged last.
struct CollectedFrame {
  std::vector<uint8_t> bytes;
  uint64_t startPacket = 0;  // packets pulled before the start packet
  uint8_t flagsOr = 0;       // flags of all its packets or-ed together
  uint8_t endFlags = 0;
};

// Pulls packets until one whole frame went by; `pulled` counts every packet
// pulled (kept by the caller across calls). False if the stream ended or
// `limit` packets passed without a whole frame.
inline bool CollectFrame(EmulatedCamera& cam, CollectedFrame* frame, uint64_t* pulled,
                         uint64_t limit = 200000) {
  *frame = CollectedFrame();
  std::vector<uint8_t> packet;
  bool inFrame = false;
  for (uint64_t n = 0; n < limit; ++n) {
    if (!cam.NextPacket(&packet)) return false;
    const uint64_t index = (*pulled)++;
    if (packet.empty()) continue;
    const uint8_t header = packet[0], flags = packet.size() > 1 ? packet[1] : 0;
    if (!inFrame) {
      if (!(inFrame = packet.size() == header && !(flags & 0x02))) continue;
      frame->startPacket = index;
    }
    frame->flagsOr |= flags;
    if (header < packet.size())
      frame->bytes.insert(frame->bytes.end(), packet.begin() + header, packet.end());
    if (flags & 0x02) return frame->endFlags = flags, true;
  }
  return false;
}

// Mean of the bytes at even offsets of a YUYV frame: its mean luma.
inline double MeanLuma(const std::vector<uint8_t>& yuyv) {
  double sum = 0;
  for (size_t i = 0; i < yuyv.size(); i += 2) sum += yuyv[i];
  return yuyv.empty() ? 0 : sum / double(yuyv.size() / 2);
}

}  // namespace emutest
