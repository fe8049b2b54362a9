// The inside of the emulated camera, shared by its parts: the controller
// (controller.cc), the USB identity (usb_descriptors.cc), the stream
// (stream.cc) and the faults (faults.cc). Everything here is guarded by
// `mutex`, which the public calls of EmulatedCamera take.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "emulator/emulated_camera.h"
#include "emulator/lens.h"
#include "emulator/sensor.h"
#include "emulator/softbus.h"

// Controller registers with a meaning of their own.
namespace emu {
constexpr uint8_t kRegPort = 0x00;        // lens coils (1, 2, 3, 7), orientation input (4)
constexpr uint8_t kRegStatus = 0x04;      // bit 2: full speed
constexpr uint8_t kRegPortEnable = 0x06;  // output enables of register 0's bits
constexpr uint8_t kRegLines = 0x07;       // bit 0 button / home switch, bits 5 and 6 software bus
constexpr uint8_t kRegLineEnable = 0x0D;  // bits 5 and 6: software bus lines driven
constexpr uint8_t kCoilBits = 0x8E;
constexpr uint8_t kOrientationBit = 0x10;
constexpr uint8_t kFullSpeedBit = 0x04;
constexpr uint8_t kSoftClockBit = 0x20;
constexpr uint8_t kSoftDataBit = 0x40;
// The answer to a request the controller cannot carry out: a stall.
constexpr NTSTATUS kStallStatus = STATUS_UNSUCCESSFUL;
constexpr size_t kMemoryBytes = 65536;
constexpr uint32_t kMemoryBlockBytes = 64;
constexpr size_t kRequestLogLimit = 1 << 16;
}  // namespace emu

struct EmulatedCamera::State {
  explicit State(const EmulatedCameraConfig& config);

  mutable std::mutex mutex;
  EmulatedCameraConfig config;
  bool highSpeed = true;

  // ------------------------------------------------ controller (controller.cc)
  struct FittedSensor {
    std::unique_ptr<emu::Sensor> model;
    uint8_t address = 0;
    bool needsTwoStepRead = false;
    int64_t readLatency = 0;
  };
  uint8_t regs[256] = {};
  std::vector<uint8_t> memory;
  std::vector<FittedSensor> sensors;
  // The read latch of the serial bus: the byte of the last completed read,
  // and the one a first step has started.
  uint8_t readLatch = 0;
  bool latchPending = false;
  uint8_t latchNext = 0;
  int64_t latchReadyTime = 0;
  emu::SoftBusTarget softBus;
  emu::LensMotor lens;
  bool buttonDown = false;
  bool orientationHigh = false;
  std::vector<std::pair<uint64_t, bool>> buttonSchedule;
  bool plugged = true;
  bool restartRequested = false;
  bool startupEnded = false;
  uint64_t requestCount = 0;
  bool logging = false;
  std::vector<ControlRequestInfo> log;

  void PowerOn();
  NTSTATUS VendorRequest(const ControlRequestInfo& info, uint8_t* buffer, uint32_t* length);
  uint8_t ReadControllerRegister(uint8_t reg) const;
  void WriteControllerRegister(uint8_t reg, uint8_t value);
  FittedSensor* SensorAt(uint8_t address);
  const FittedSensor* SensorAt(uint8_t address) const;
  bool IsRevision2() const { return config.bcdDevice >= 0x0200; }
  // Register 7 bit 0 and the header's 0x20: the button, or the home switch.
  bool LineInputBit() const;
  bool HeaderButtonFlag() const;
  bool SoftClockHost() const;
  bool SoftDataHost() const;

  // ------------------------------------------------ USB identity (usb_descriptors.cc)
  uint8_t alternateSetting = 0;
  std::vector<uint16_t> AlternateSettings() const;
  uint16_t MaxPacketOf(uint8_t alternateSetting) const;
  USB_DEVICE_DESCRIPTOR DeviceDescriptor() const;
  std::vector<uint8_t> ConfigurationBytes() const;

  // ------------------------------------------------ stream (stream.cc)
  enum class FramePhase { Idle, Start, Data, End };
  int64_t busTime = 0;
  bool streaming = false;
  int64_t streamStart = 0;
  int64_t nextFrameTime = 0;
  int64_t framePeriod = 0;
  FramePhase phase = FramePhase::Idle;
  std::vector<uint8_t> frame;
  size_t frameOffset = 0;
  uint64_t frameIndex = 0;
  uint32_t packetInFrame = 0;
  uint64_t framesBegun = 0;
  uint64_t framesCompleted = 0;
  uint64_t packetSequence = 0;
  std::shared_ptr<FrameSource> source;
  TestPatternSource pattern;

  int64_t IsoInterval() const { return highSpeed ? 1250 : 10000; }
  void StartStreaming();
  void StopStreaming();
  void AbandonFrame();
  bool MakePacket(std::vector<uint8_t>* packet);
  void BeginFrame(int64_t time);
  bool StreamingOutput(emu::SensorOutput* output) const;
  WireFrameInfo WireFrame() const;
  bool WireRegistersAgree() const;

  // ------------------------------------------------ faults (faults.cc)
  struct RequestFault {
    uint64_t atRequest = 0;  // the request count that fails; 0: use the filter
    std::function<bool(const ControlRequestInfo&)> filter;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    uint64_t remaining = 0;
  };
  struct PacketFault {
    PacketFaultKind kind = PacketFaultKind::Drop;
    std::function<bool(const StreamPacketInfo&)> match;
    uint32_t parameter = 0;
    uint64_t remaining = 0;
  };
  std::vector<RequestFault> requestFaults;
  std::vector<PacketFault> packetFaults;
  bool selectFaultArmed = false;
  NTSTATUS selectFaultStatus = STATUS_SUCCESS;

  // The status a fault gives this request, if one does.
  bool FaultForRequest(const ControlRequestInfo& info, NTSTATUS* status);
  void ApplyPacketFaults(const StreamPacketInfo& info, std::vector<uint8_t>* packet);
};
