// The inside of a hosted camera, shared by the capture host's own files
// (capture_host.cc: the host's calls, start, requests, streams; iso_pump.cc:
// the isochronous pipe and the frame completion). Not for other users.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "host/capture_host.h"

// The host's device objects. A camera has two: the class device object the
// stream class owns (the I/O requests of the driver go there), and the
// physical device object of the USB device, bound to the camera's software
// key and passed to every callback as the bus device object.
struct DEVICE_OBJECT {
  uint32_t Magic;
  HostedCamera::State* Device;
};
constexpr uint32_t DeviceObjectMagic = 0x48435344;  // "DSCH"

// Set in a request block's Flags when the request has been completed, by
// the driver's notification or by the host's own handling.
constexpr uint32_t SrbHostCompleted = 0x80000000u;

// One stream of a camera as the host keeps it.
struct HostStream {
  HW_STREAM_OBJECT Object{};
  bool Open = false;
  KS_DATAFORMAT_VIDEOINFOHEADER Format{};
  KSSTATE State = KSSTATE_STOP;
  uint32_t RawFrameLength = 0;
  std::vector<uint8_t> RawBuffer;  // allocated at each bandwidth allocation
  uint64_t FramesCompleted = 0;    // client buffers completed since the open
  // The client buffer waiting for a frame, and the frame when it came.
  uint8_t* Buffer = nullptr;
  uint32_t BufferSize = 0;
  bool Delivered = false;
  HostFrame Frame;
};

constexpr uint32_t HostStreamSlots = 2;

struct HostedCamera::State {
  HostedCameraConfig Config;
  EmulatedCamera* Camera = nullptr;
  DEVICE_OBJECT ClassDevice{DeviceObjectMagic, nullptr};
  DEVICE_OBJECT PhysicalDevice{DeviceObjectMagic, nullptr};

  DeviceContext* Context = nullptr;  // zero-filled, of the size the driver declared
  std::vector<uint64_t> FrameContext;
  const USBCAMD_DEVICE_DATA2* Table = nullptr;  // the second form, once given
  uint32_t ControlFlags = 0;

  // The camera's descriptors as the bus reports them; the host's copy of the
  // streaming interface's information (room for the widest setting).
  std::vector<uint8_t> ConfigurationBytes;
  USB_DEVICE_DESCRIPTOR DeviceDescriptor{};
  std::vector<uint64_t> InterfaceStorage;

  // What SRB_GET_STREAM_INFO gave.
  uint32_t StreamCount = 0;
  std::vector<KS_DATARANGE_VIDEO> Formats[HostStreamSlots];
  std::vector<KSPROPERTY_SET> PropertySets;

  // Stream operations and the pump run under this lock; the driver's worker
  // never takes it.
  std::mutex Io;
  // Alternate setting changes come from the host's thread and the driver's
  // worker: one at a time.
  std::mutex Select;
  // Signalled by every alternate setting change the driver asks for; the
  // start waits on it for the worker's first look (see HostedCamera::Start).
  KEVENT SettingSelected{};
  HostStream Streams[HostStreamSlots];

  std::atomic<bool> IsoPipeStopped{false};
  std::atomic<bool> Removed{false};  // SRB_SURPRISE_REMOVAL was sent
  std::atomic<bool> Uninitialized{false};  // SRB_UNINITIALIZE_DEVICE was sent

  // Frame assembly on the isochronous pipe (under Io).
  uint32_t RawBytes = 0;
  uint32_t PacketsInFrame = 0;
  bool FrameBegun = false;
  bool FrameCut = false;
  bool CurrentStill = false;
  bool NextStill = false;
  // Pacing: bus time granted against the kernel clock (under Io).
  bool ClockSynced = false;
  int64_t LastClock = 0;
  int64_t BusGranted = 0;
  KEVENT PaceEvent{};  // never signalled: its timed wait lets the clock move
  std::vector<std::vector<uint8_t>> Packets;

  std::atomic<uint64_t> PacketCount{0}, DroppedPackets{0}, FramesCompleted{0},
      FramesDelivered{0}, FramesCut{0};

  // The host's side of the isochronous pipe (iso_pump.cc).
  void ResetAssembly();
  // Pulls the packets of the bus time the kernel clock allows since the last
  // step and runs them through the driver. Returns the bus time granted.
  int64_t PumpStep();
  void ProcessPacket(std::vector<uint8_t>& packet);
  void CompleteFrame();
};

// The kernel clock, in 100 ns units.
int64_t HostClock();
// Bytes of the streaming pipe's packets a setting allows, and its pipes in
// the interface record `info` of `capacityBytes` bytes. Returns the first
// pipe's MaximumPacketSize (0 for a setting without endpoints).
uint16_t FillInterfacePipes(const std::vector<uint8_t>& configuration, uint8_t interfaceNumber,
                            uint8_t alternateSetting, USBD_INTERFACE_INFORMATION* info,
                            size_t capacityBytes);
