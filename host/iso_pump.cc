// The isochronous pipe of a hosted camera: packets pulled from the camera's
// bus as far as the kernel clock allows, each one through the driver's
// packet routine, the payload gathered into the stream's raw frame buffer,
// and at each frame's end the driver's frame routine filling the client's
// buffer.
//
// Pacing: the camera's bus has its own clock, which moves only as packets
// are pulled. The pump grants it the kernel clock's progress since its last
// step, never more (at most a quarter second at once), so the bus cannot run
// ahead of the driver's worker: in virtual time the worker's pauses move the
// kernel clock, and the pump moves it only by a timed wait on an event that
// nothing signals, which the kernel layer lets pass once the other threads
// are quiet. With the real clock the wait is a real one.

#include <algorithm>
#include <cstring>

#include "host/hosted_device.h"

namespace {

// Bus time of one step of the pump: a few milliseconds, some dozens of
// packets at high speed.
constexpr int64_t PaceStep100ns = 40000;  // 4 ms
// The most bus time one step may catch up after the clock jumped.
constexpr int64_t MaxGrant100ns = 2500000;  // 250 ms

uint8_t g_emptyPacket[1];

}  // namespace

void HostedCamera::State::ResetAssembly() {
  RawBytes = 0;
  PacketsInFrame = 0;
  FrameBegun = false;
  FrameCut = false;
  CurrentStill = false;
  NextStill = false;
  // The bus starts from now on the kernel clock.
  ClockSynced = true;
  LastClock = HostClock();
  BusGranted = Camera->BusTime();
}

int64_t HostedCamera::State::PumpStep() {
  const int64_t now = HostClock();
  if (!ClockSynced) {
    ClockSynced = true;
    LastClock = now;
    BusGranted = Camera->BusTime();
    return 0;
  }
  const int64_t grant = std::clamp<int64_t>(now - LastClock, 0, MaxGrant100ns);
  LastClock = now;
  BusGranted += grant;
  Packets.clear();
  Camera->NextIsoPackets(BusGranted, &Packets);
  const bool reading = !IsoPipeStopped && Table != nullptr &&
                       (Streams[0].State == KSSTATE_RUN || Streams[1].State == KSSTATE_RUN);
  for (std::vector<uint8_t>& packet : Packets) {
    if (reading) ProcessPacket(packet);
  }
  // A bus that could not run (a setting without endpoints) is owed nothing.
  const int64_t bus = Camera->BusTime();
  if (bus + Camera->IsoInterval100ns() < BusGranted) BusGranted = bus;
  return grant;
}

void HostedCamera::State::ProcessPacket(std::vector<uint8_t>& packet) {
  ++PacketCount;
  HostStream& video = Streams[0];
  if (!FrameBegun) {
    FrameBegun = true;
    if (Table->CamNewVideoFrameEx != nullptr) {
      uint32_t length = video.RawFrameLength;
      Table->CamNewVideoFrameEx(Context, FrameContext.data(), 0, &length);
    }
  }
  uint8_t* bytes = packet.empty() ? g_emptyPacket : packet.data();
  USBD_ISO_PACKET_DESCRIPTOR descriptor{0, uint32_t(packet.size()), 0};
  BOOLEAN frameComplete = FALSE;
  uint32_t flags = 0, offset = 0;
  uint32_t payload =
      Table->CamProcessUSBPacketEx(&PhysicalDevice, Context, FrameContext.data(), nullptr, nullptr,
                                   &descriptor, bytes, &frameComplete, &flags, &offset);
  if (flags & USBCAMD_PROCESSPACKETEX_NextFrameIsStill) NextStill = true;
  if (flags & USBCAMD_PROCESSPACKETEX_DropPacket) {
    ++DroppedPackets;
  } else {
    if (flags & USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill) CurrentStill = true;
    ++PacketsInFrame;
    // The payload as the driver places it, never past the packet nor past
    // the raw frame buffer: a frame too long is cut.
    const size_t available = offset < packet.size() ? packet.size() - offset : 0;
    size_t take = std::min<size_t>(payload, available);
    const size_t room = video.RawBuffer.size() - std::min<size_t>(RawBytes, video.RawBuffer.size());
    if (take > room) {
      if (!FrameCut) {
        FrameCut = true;
        ++FramesCut;
      }
      take = room;
    }
    if (take > 0) {
      std::memcpy(video.RawBuffer.data() + RawBytes, packet.data() + offset, take);
      RawBytes += uint32_t(take);
    }
  }
  if (frameComplete) CompleteFrame();
}

void HostedCamera::State::CompleteFrame() {
  ++FramesCompleted;
  const bool still = CurrentStill;
  HostStream& video = Streams[0];
  // The still pin rides on the capture pin's pipe: a still frame goes to it
  // when it runs with a buffer waiting.
  uint32_t target = 0;
  if (still && StreamCount > 1 && Streams[1].Open && Streams[1].State == KSSTATE_RUN &&
      Streams[1].Buffer != nullptr && !Streams[1].Delivered) {
    target = 1;
  }
  HostStream& out = Streams[target];
  if (out.Buffer != nullptr && out.State == KSSTATE_RUN && !out.Delivered &&
      !video.RawBuffer.empty()) {
    uint32_t bytesReturned = 0;
    Table->CamProcessRawVideoFrameEx(&PhysicalDevice, Context, FrameContext.data(), out.Buffer,
                                     out.BufferSize, video.RawBuffer.data(), video.RawFrameLength,
                                     PacketsInFrame, &bytesReturned, RawBytes, target);
    if (bytesReturned > 0) {
      out.Delivered = true;
      out.Frame.bytes = bytesReturned;
      out.Frame.still = still || target == 1;
      out.Frame.index = out.FramesCompleted++;
      out.Frame.time100ns = HostClock();
      ++FramesDelivered;
    }
  }
  RawBytes = 0;
  PacketsInFrame = 0;
  FrameBegun = false;
  FrameCut = false;
  CurrentStill = NextStill;
  NextStill = false;
}

NTSTATUS HostedCamera::ReadFrame(uint32_t number, uint8_t* buffer, uint32_t size, HostFrame* frame,
                                 int64_t timeout100ns) {
  State* device = state_.get();
  if (number >= HostStreamSlots || buffer == nullptr) return STATUS_INVALID_PARAMETER;
  if (device->Uninitialized || device->Removed) return STATUS_DEVICE_NOT_CONNECTED;
  HostStream& stream = device->Streams[number];
  {
    std::lock_guard<std::mutex> hold(device->Io);
    if (!stream.Open || stream.State != KSSTATE_RUN) return STATUS_INVALID_DEVICE_STATE;
    if (stream.Buffer != nullptr) return STATUS_INVALID_DEVICE_STATE;  // one reader a stream
    if (size < stream.Format.VideoInfoHeader.bmiHeader.biSizeImage) return STATUS_BUFFER_TOO_SMALL;
    stream.Buffer = buffer;
    stream.BufferSize = size;
    stream.Delivered = false;
  }
  int64_t elapsed = 0;
  for (;;) {
    {
      std::lock_guard<std::mutex> hold(device->Io);
      if (!stream.Delivered) {
        if (device->Removed || !device->Camera->IsPlugged()) {
          if (stream.Buffer == buffer) stream.Buffer = nullptr;
          return STATUS_DEVICE_NOT_CONNECTED;
        }
        if (stream.State != KSSTATE_RUN || stream.Buffer != buffer) {
          if (stream.Buffer == buffer) stream.Buffer = nullptr;
          return STATUS_INVALID_DEVICE_STATE;
        }
        elapsed += device->PumpStep();
      }
      if (stream.Delivered) {
        if (frame != nullptr) *frame = stream.Frame;
        stream.Buffer = nullptr;
        stream.Delivered = false;
        return STATUS_SUCCESS;
      }
      if (elapsed >= timeout100ns) {
        stream.Buffer = nullptr;
        return STATUS_TIMEOUT;
      }
    }
    LARGE_INTEGER wait;
    wait.QuadPart = -PaceStep100ns;
    KeWaitForSingleObject(&device->PaceEvent, Executive, KernelMode, FALSE, &wait);
  }
}
