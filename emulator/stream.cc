// The isochronous stream. The sensor begins a frame every frame period from
// the moment streaming starts; the controller sends a frame only from its
// beginning, so a frame that takes longer to send than a period makes it skip
// to the next beginning (the frame rate falls to what the bandwidth allows).
//
// Each (micro)frame of the bus carries one packet of at most the setting's
// bytes per interval. A frame goes out as one header-only packet (the one the
// driver's packet routine skips after the previous frame's end), its data
// packets filled to the limit, and one header-only packet flagged as the
// frame's last; the (micro)frames between frames carry empty packets.

#include <algorithm>
#include <cstring>

#include "emulator/camera_state.h"

using namespace emu;

namespace {

constexpr uint8_t kFlagLastOfFrame = 0x02;
constexpr uint8_t kFlagButtonDown = 0x20;

size_t SentFrameBytes(uint32_t width, uint32_t height, WireFrameLayout layout, bool twoShort) {
  if (twoShort && height > 2) height -= 2;
  return WireFrameBytes(width, height, layout);
}

}  // namespace

void EmulatedCamera::State::StartStreaming() {
  if (streaming) return;
  streaming = true;
  streamStart = busTime;
  nextFrameTime = busTime;
  AbandonFrame();
}

void EmulatedCamera::State::StopStreaming() {
  streaming = false;
  AbandonFrame();
}

void EmulatedCamera::State::AbandonFrame() {
  phase = FramePhase::Idle;
  frame.clear();
  frameOffset = 0;
  packetInFrame = 0;
}

bool EmulatedCamera::State::StreamingOutput(SensorOutput* output) const {
  if (sensors.empty()) return false;
  *output = sensors.front().model->Output();
  return true;
}

WireFrameInfo EmulatedCamera::State::WireFrame() const {
  WireFrameInfo info;
  SensorOutput out;
  if (!StreamingOutput(&out)) return info;
  info.width = out.width;
  info.height = out.height;
  info.layout = out.layout;
  info.frameBytes = SentFrameBytes(out.width, out.height, out.layout, config.framesTwoLinesShort);
  info.framePeriod100ns = out.framePeriod100ns;
  info.mirror = out.mirror;
  info.flip = out.flip;
  return info;
}

bool EmulatedCamera::State::WireRegistersAgree() const {
  SensorOutput out;
  if (!StreamingOutput(&out) || out.layout == WireFrameLayout::Yuv420) return false;
  const uint32_t w = regs[0x20] | uint32_t(regs[0x21]) << 8;
  const uint32_t h = regs[0x22] | uint32_t(regs[0x23]) << 8;
  const uint8_t layout = out.layout == WireFrameLayout::Yuyv ? 1 : 0;
  return w == out.width && h == out.height && regs[0x24] == layout;
}

void EmulatedCamera::State::BeginFrame(int64_t time) {
  SensorOutput out;
  if (!StreamingOutput(&out)) return;
  // Button changes planned for this frame take effect as it begins.
  const uint64_t ordinal = framesBegun;
  std::stable_sort(buttonSchedule.begin(), buttonSchedule.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  size_t used = 0;
  while (used < buttonSchedule.size() && buttonSchedule[used].first <= ordinal) {
    buttonDown = buttonSchedule[used].second;
    ++used;
  }
  buttonSchedule.erase(buttonSchedule.begin(), buttonSchedule.begin() + used);

  FrameRequest request;
  request.width = out.width;
  request.height = out.height;
  request.layout = out.layout;
  request.frameIndex = ordinal;
  request.time100ns = time;
  request.sensorName = sensors.front().model->Name();
  request.arrayWidth = out.arrayWidth;
  request.arrayHeight = out.arrayHeight;
  request.fieldLeft = out.fieldLeft;
  request.fieldTop = out.fieldTop;
  request.fieldWidth = out.fieldWidth;
  request.fieldHeight = out.fieldHeight;
  request.mirror = out.mirror;
  request.flip = out.flip;
  request.exposure = out.exposure;
  request.nominalExposure = std::max<uint32_t>(out.nominalExposure, 1);
  request.gain16 = out.gain16;
  request.brightness = out.brightness;
  const uint64_t light =
      uint64_t(out.exposure) * out.gain16 * 256 / (uint64_t(request.nominalExposure) * 16);
  request.lightScale256 = uint32_t(std::min<uint64_t>(light, 65535));
  request.lensFitted = lens.Fitted();
  request.lensPosition = lens.Position();
  request.lensFocusPosition = lens.FocusPosition();

  FrameSource* drawer = source ? source.get() : &pattern;
  frame.clear();
  drawer->Render(request, &frame);
  frame.resize(SentFrameBytes(out.width, out.height, out.layout, config.framesTwoLinesShort));

  frameIndex = ordinal;
  ++framesBegun;
  framePeriod = std::max<int64_t>(out.framePeriod100ns, IsoInterval());
  phase = FramePhase::Start;
  frameOffset = 0;
  packetInFrame = 0;
}

bool EmulatedCamera::State::MakePacket(std::vector<uint8_t>* packet) {
  packet->clear();
  if (!plugged) return false;
  const uint16_t maxPacket = MaxPacketOf(alternateSetting);
  if (maxPacket == 0) return false;
  const uint32_t capacity = EmulatedCamera::PacketBytesPerInterval(maxPacket);
  const uint32_t header = config.packetHeaderLength;
  const int64_t time = busTime;
  busTime += IsoInterval();

  StreamPacketInfo info;
  info.sequence = packetSequence++;
  if (streaming && capacity > header) {
    if (phase == FramePhase::Idle && time >= nextFrameTime) BeginFrame(time);
  }
  if (streaming && phase != FramePhase::Idle) {
    info.frameIndex = frameIndex;
    info.packetInFrame = packetInFrame++;
    uint8_t flags = HeaderButtonFlag() ? kFlagButtonDown : 0;
    size_t payload = 0;
    switch (phase) {
      case FramePhase::Start:
        info.role = StreamPacketRole::FrameStart;
        phase = frame.empty() ? FramePhase::End : FramePhase::Data;
        break;
      case FramePhase::Data:
        info.role = StreamPacketRole::FrameData;
        payload = std::min<size_t>(capacity - header, frame.size() - frameOffset);
        break;
      default:
        info.role = StreamPacketRole::FrameEnd;
        flags |= kFlagLastOfFrame;
        break;
    }
    packet->assign(header + payload, 0);
    (*packet)[0] = uint8_t(header);
    (*packet)[1] = flags;
    if (header > 2) (*packet)[2] = uint8_t(frameIndex);
    if (payload) std::memcpy(packet->data() + header, frame.data() + frameOffset, payload);
    frameOffset += payload;
    if (info.role == StreamPacketRole::FrameData && frameOffset == frame.size()) {
      phase = FramePhase::End;
    } else if (info.role == StreamPacketRole::FrameEnd) {
      ++framesCompleted;
      // The next frame the controller can catch from its beginning.
      const int64_t since = busTime - streamStart;
      const int64_t k = (since + framePeriod - 1) / framePeriod;
      nextFrameTime = streamStart + k * framePeriod;
      AbandonFrame();
    }
  }
  info.length = uint32_t(packet->size());
  ApplyPacketFaults(info, packet);
  return true;
}
