// The emulated MR740 camera: the controller with its register file, its
// serial bus and the bit-banged software bus, the sensors behind it, the lens
// motor, the USB identity and the isochronous stream, with fault controls for
// the reliability tests. It stands where the real camera stands: the capture
// host forwards the driver's vendor requests to ControlTransfer one to one,
// builds the interface information from the descriptors, and pulls the
// stream's packets in virtual time.
//
// The camera is a program model, not driver code: it uses classes and the
// standard library. None of its public calls throws; an allocation failure
// inside a request answers STATUS_INSUFFICIENT_RESOURCES.
//
// Thread safety: every public call takes one mutex inside the camera, so
// control transfers may come from several threads while another pulls
// packets. Callbacks handed to the camera (frame source, fault filters) run
// with that mutex held and must not call back into the camera.
//
// Wire conventions kept by the stream (the driver's packet routine relies on
// them):
//   - one packet per USB (micro)frame: every 1 ms at full speed, every 125 us
//     at high speed; a packet of length 0 where the camera has nothing to say;
//   - a non-empty packet starts with a header: byte 0 its length (the payload
//     starts there), byte 1 the flags (0x02 last packet of the frame, 0x20
//     button down or, on a camera whose lens has a home switch, the switch
//     closed), byte 2 the low byte of the frame number, further bytes 0;
//   - a frame is: one header-only packet (flags without 0x02: the packet the
//     driver skips after a frame end), the data packets, and one header-only
//     packet flagged 0x02. So the frame length the driver counts is exactly
//     the data bytes.

#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "core/host_contract.h"
#include "platform/ntstatus.h"

// ---------------------------------------------------------------- configuration

enum class EmulatedSensorKind : uint8_t {
  OV7670,  // 8-bit registers, bus address 0x42, YUYV (or Bayer) up to 640 x 480
  OV2640,  // 8-bit registers in two banks, bus address 0x60, Bayer/YUYV/4:2:0 up to 1600 x 1200
  MI2020,  // 16-bit registers and data, bus address 0x7A, up to 1600 x 1200
  MI2021,  // as MI2020, bus address 0x78, chip version 0x1580; fitted on revision-2 chips
};

// Matches the driver's LensKind byte.
enum class EmulatedLensKind : uint8_t {
  None = 0,          // no motor
  NoHomeSwitch = 1,  // motor, no home switch; register 7 bit 0 stays the button
  HomeSwitch = 2,    // motor with a home switch at the far (forward) end of travel
};

// How the pixels of a frame lie on the wire.
enum class WireFrameLayout : uint8_t {
  Bayer,   // one byte a pixel, B G / G R with blue at the top-left
  Yuyv,    // Y0 Cb Y1 Cr per pixel pair
  Yuv420,  // planar: Y plane, then Cb and Cr planes at half width and height
};

struct EmulatedSensorConfig {
  EmulatedSensorKind kind = EmulatedSensorKind::OV2640;
  // Bus address (the 8-bit write form the driver uses); -1: the sensor's own.
  int busAddress = -1;
  // Whether a read of this sensor needs the controller's two-step read (the
  // description then sets ReadDelay): 1 yes, 0 no, -1 the sensor's own need
  // (OV2640 and MI2020 yes, OV7670 and MI2021 no). When it does, a one-step
  // read (request 2 without 0x8000) answers the controller's read latch, that
  // is the byte of the last completed two-step read.
  int needsTwoStepRead = -1;
  // Time from the first step of a two-step read until the byte is in the
  // latch, in 100 ns units, measured on the kernel layer's clock. A second
  // step that comes earlier fetches the old latch. 0: at once.
  int64_t readLatency100ns = 0;
};

struct FrameSource;

struct EmulatedCameraConfig {
  // Sensors on the serial bus. The first one is the one that streams.
  std::vector<EmulatedSensorConfig> sensors{EmulatedSensorConfig{}};
  // bcdDevice of the device descriptor: 0x0200 or above is a revision-2
  // controller (request 3 with 0x0500 quads and request 8 exist only there);
  // below, a revision-1 controller (16-bit sensors are read through the
  // software bus).
  uint16_t bcdDevice = 0x0200;
  uint16_t idVendor = 0x0740;
  uint16_t idProduct = 0x0740;
  bool highSpeed = true;
  // Whether the streaming interface is class 14 subclass 2. Without it the
  // interface is vendor-specific (0xFF/0xFF) and the driver falls back on the
  // bcdDevice rules for its alternate settings.
  bool streamingInterfaceClass14 = true;
  // Vendor-specific interfaces without endpoints before the streaming one,
  // which then has this interface number.
  uint8_t interfacesBeforeStreaming = 0;
  // wMaxPacketSize of the isochronous IN endpoint of each alternate setting of
  // the streaming interface, setting 0 first; 0 means a setting without
  // endpoints. At high speed bits 11-12 are the extra transactions per
  // microframe. Empty: the defaults, {0, 128, 384, 640, 896, 1023} at full
  // speed and {0, 128, 512, 1024, 0x0C00 (2 x 1024), 0x1400 (3 x 1024)} at
  // high speed.
  std::vector<uint16_t> alternateSettings;
  // Header length of every non-empty stream packet, 2 to 255.
  uint8_t packetHeaderLength = 4;
  // Every frame comes two lines short (the last two lines are not sent).
  bool framesTwoLinesShort = false;
  // Power-on value of controller register 4; bit 2 is set by the camera when
  // it runs at full speed, whatever this says.
  uint8_t register4 = 0x00;
  // The lens: positions are full steps, 0 (rear end stop) to lensMaxPosition
  // (forward end stop). The home switch is closed at lensHomeSwitchAt and
  // beyond, so a walk forward finds it and a walk back opens it again.
  EmulatedLensKind lens = EmulatedLensKind::None;
  int32_t lensMaxPosition = 150;
  int32_t lensHomeSwitchAt = 140;
  int32_t lensStartPosition = 60;
  int32_t lensFocusPosition = 100;  // where the picture is sharpest
  // What the sensor sees; null: the built-in test pattern.
  std::shared_ptr<FrameSource> frameSource;
};

// ---------------------------------------------------------------- frame content

// Everything a frame source needs to draw one frame as the sensor sends it.
struct FrameRequest {
  uint32_t width = 0;   // wire width in pixels
  uint32_t height = 0;  // wire height in lines (the whole frame, even if sent short)
  WireFrameLayout layout = WireFrameLayout::Bayer;
  uint64_t frameIndex = 0;  // frames begun since the camera was made
  int64_t time100ns = 0;    // bus time at which the frame begins
  const char* sensorName = "";
  // The sensor's pixel array and the part of it the frame shows (before
  // mirror and flip), in array pixels. The frame is that field scaled to
  // width x height.
  uint32_t arrayWidth = 0;
  uint32_t arrayHeight = 0;
  uint32_t fieldLeft = 0;
  uint32_t fieldTop = 0;
  uint32_t fieldWidth = 0;
  uint32_t fieldHeight = 0;
  bool mirror = false;  // columns read right to left
  bool flip = false;    // lines read bottom to top
  // Exposure in lines against the sensor's nominal exposure, gain in 1/16
  // (16 is unity), brightness as a signed offset in 8-bit levels.
  uint32_t exposure = 0;
  uint32_t nominalExposure = 1;
  uint32_t gain16 = 16;
  int32_t brightness = 0;
  // exposure / nominalExposure x gain16 / 16 x 256, capped at 65535: the
  // light level of the picture, 256 for a normally exposed scene.
  uint32_t lightScale256 = 256;
  // The lens: whether a motor lens is fitted, its position and the position
  // at which the picture is sharpest.
  bool lensFitted = false;
  int32_t lensPosition = 0;
  int32_t lensFocusPosition = 0;
};

// Bytes of one whole frame of that size and layout on the wire: Bayer one a
// pixel, YUYV two, 4:2:0 the Y plane plus two planes at half size (rounded
// up).
size_t WireFrameBytes(uint32_t width, uint32_t height, WireFrameLayout layout);

// The picture in front of the sensor. Render draws one frame in the request's
// wire layout; it must leave WireFrameBytes(width, height, layout) bytes in
// `wireBytes` (a shorter result is padded with zeros, a longer one cut). It
// runs with the camera's mutex held, at the start of each frame, and must not
// call back into the camera.
struct FrameSource {
  virtual ~FrameSource() = default;
  virtual void Render(const FrameRequest& request, std::vector<uint8_t>* wireBytes) = 0;
};

// The built-in picture: eight colour bars with a vertical gradient and a white
// square in the top-left quarter of the sensor's array, so that scaling,
// mirror and flip show. Exposure, gain and brightness change its levels, and
// with a motor lens the bar edges blur by the distance from the focus
// position. Deterministic: the same request gives the same bytes.
struct TestPatternSource : FrameSource {
  void Render(const FrameRequest& request, std::vector<uint8_t>* wireBytes) override;
};

// ---------------------------------------------------------------- faults

// One control request as the fault filters and the request log see it.
struct ControlRequestInfo {
  uint64_t sequence = 0;  // 1 for the first request the camera received
  uint8_t request = 0;
  uint16_t value = 0;
  uint16_t index = 0;
  bool getData = false;
  bool hasDataStage = false;
  uint32_t length = 0;
  std::vector<uint8_t> data;         // bytes sent (out requests)
  NTSTATUS status = STATUS_SUCCESS;  // the answer (in the log)
};

enum class StreamPacketRole : uint8_t { Empty, FrameStart, FrameData, FrameEnd };

struct StreamPacketInfo {
  uint64_t sequence = 0;       // packets handed out since the camera was made, 0 first
  uint64_t frameIndex = 0;     // frame the packet belongs to (meaningless for Empty)
  uint32_t packetInFrame = 0;  // 0 for the frame's start packet
  StreamPacketRole role = StreamPacketRole::Empty;
  uint32_t length = 0;
};

enum class PacketFaultKind : uint8_t {
  Drop,                // the packet arrives with length 0, as a lost one does
  Truncate,            // only the first `parameter` bytes arrive
  CorruptByte,         // byte `parameter` of the packet is inverted (if it exists)
  CorruptPayload,      // every payload byte is inverted
  HeaderBeyondPacket,  // byte 0 says length + max(parameter, 1), at most 255
};

// ---------------------------------------------------------------- the camera

// What the sensor sends now, as its registers set it.
struct WireFrameInfo {
  uint32_t width = 0;
  uint32_t height = 0;
  WireFrameLayout layout = WireFrameLayout::Bayer;
  size_t frameBytes = 0;  // bytes the stream carries per frame (two lines short if so set)
  int64_t framePeriod100ns = 0;
  bool mirror = false;
  bool flip = false;
};

class EmulatedCamera {
 public:
  explicit EmulatedCamera(const EmulatedCameraConfig& config = EmulatedCameraConfig());
  ~EmulatedCamera();
  EmulatedCamera(const EmulatedCamera&) = delete;
  EmulatedCamera& operator=(const EmulatedCamera&) = delete;

  // ------------------------------------------------ control pipe

  // One vendor request, with the arguments of USBCAMD_ControlVendorCommand:
  // `length` null means no data stage; `getData` true is device to host, and
  // then *length becomes the bytes answered. A request the controller does
  // not know, a wrong direction or data stage, or a device on the serial bus
  // that does not answer fails with STATUS_UNSUCCESSFUL (a stall); after an
  // unplug every request fails with STATUS_DEVICE_NOT_CONNECTED.
  NTSTATUS ControlTransfer(uint8_t request, uint16_t value, uint16_t index, void* buffer,
                           uint32_t* length, bool getData) noexcept;

  // ------------------------------------------------ USB identity

  USB_DEVICE_DESCRIPTOR DeviceDescriptor() const noexcept;
  std::vector<uint8_t> DeviceDescriptorBytes() const noexcept;
  // The whole configuration: configuration descriptor, interfaces, endpoints,
  // in USB layout (little-endian words).
  std::vector<uint8_t> ConfigurationDescriptorBytes() const noexcept;
  bool IsHighSpeed() const noexcept;
  uint8_t StreamingInterfaceNumber() const noexcept;
  size_t AlternateSettingCount() const noexcept;
  // wMaxPacketSize of the setting's isochronous endpoint as the descriptor
  // gives it; 0 for a setting without endpoints or out of range.
  uint16_t AlternateSettingMaxPacketSize(uint8_t alternateSetting) const noexcept;
  // Bytes one (micro)frame may carry for a wMaxPacketSize: the size in bits
  // 0-10 times one plus the extra transactions in bits 11-12.
  static uint32_t PacketBytesPerInterval(uint16_t wMaxPacketSize) noexcept;
  // SET_INTERFACE of the streaming interface. STATUS_INVALID_PARAMETER for a
  // setting that does not exist. A frame in progress is abandoned.
  NTSTATUS SelectAlternateSetting(uint8_t alternateSetting) noexcept;
  uint8_t CurrentAlternateSetting() const noexcept;

  // ------------------------------------------------ stream

  // Length of one (micro)frame: 10000 at full speed, 1250 at high speed.
  int64_t IsoInterval100ns() const noexcept;
  // The camera's bus clock: the start of the next packet's (micro)frame.
  int64_t BusTime() const noexcept;
  // The packet of the next (micro)frame, and the bus clock moves on by one
  // interval. False (and no packet) when the current setting has no
  // isochronous endpoint or the camera is unplugged.
  bool NextPacket(std::vector<uint8_t>* packet) noexcept;
  // The packets of all (micro)frames that begin before `until100ns` of bus
  // time, at most `maxPackets`, appended to `packets`. Returns how many.
  size_t NextIsoPackets(int64_t until100ns, std::vector<std::vector<uint8_t>>* packets,
                        size_t maxPackets = SIZE_MAX) noexcept;
  bool IsStreaming() const noexcept;
  WireFrameInfo CurrentWireFrame() const noexcept;
  uint64_t FramesBegun() const noexcept;
  uint64_t FramesCompleted() const noexcept;
  // Null restores the test pattern.
  void SetFrameSource(std::shared_ptr<FrameSource> source) noexcept;
  // Whether controller registers 0x20 to 0x24, which the script writes for
  // the image library, say what the sensor sends (width, height, layout 0
  // Bayer / 1 YUYV; a 4:2:0 wire never agrees).
  bool WireRegistersAgree() const noexcept;

  // ------------------------------------------------ inputs

  // The button: at once, or when frame `atFrame` (counted as FramesBegun
  // counts) begins. It shows in register 7 bit 0 (1 down) and in the header
  // flag 0x20, except on a camera whose lens has a home switch, where both
  // belong to the switch.
  void SetButton(bool down) noexcept;
  void ScheduleButton(uint64_t atFrame, bool down) noexcept;
  // The orientation input, bit 4 of controller register 0.
  void SetOrientationInput(bool high) noexcept;

  // ------------------------------------------------ lens

  int32_t LensPosition() const noexcept;
  void SetLensPosition(int32_t position) noexcept;
  bool LensHomeSwitchClosed() const noexcept;
  // Steps the motor could not take: coil patterns two phases apart.
  uint64_t LensStalls() const noexcept;

  // ------------------------------------------------ inspection

  // A controller register as the driver would read it, without side effects.
  uint8_t PeekControllerRegister(uint8_t reg) const noexcept;
  // A sensor register by bus address: 16-bit address and value for the MI
  // sensors; for the OV2640 bit 8 of `reg` picks the bank (0 DSP, 1 sensor).
  bool PeekSensorRegister(uint8_t busAddress, uint16_t reg, uint16_t* value) const noexcept;
  // MI sensors: an MCU variable by its logical address (as written to 0x338C).
  bool PeekSensorVariable(uint8_t busAddress, uint16_t address, uint16_t* value) const noexcept;
  uint64_t RequestCount() const noexcept;
  // Request 11 (end of start-up) has been received.
  bool StartupEnded() const noexcept;
  // A log of every control request with its answer, off by default.
  void SetRequestLogging(bool on) noexcept;
  std::vector<ControlRequestInfo> RequestLog() const noexcept;
  void ClearRequestLog() noexcept;
  // Bytes of the controller's memory (request 6), 64 KiB, for tests.
  std::vector<uint8_t> PeekMemory(uint16_t address, size_t length) const noexcept;

  // ------------------------------------------------ faults

  // The `nth` request from now (1 = the next) fails with `status` and has no
  // effect.
  void FailNthRequest(uint64_t nth, NTSTATUS status) noexcept;
  // Requests for which `filter` says true fail with `status` and have no
  // effect, at most `times` of them.
  void FailRequestsMatching(std::function<bool(const ControlRequestInfo&)> filter, NTSTATUS status,
                            uint64_t times = UINT64_MAX) noexcept;
  // The next SelectAlternateSetting fails with `status`.
  void FailNextSelectAlternateSetting(NTSTATUS status) noexcept;
  void ClearRequestFaults() noexcept;
  // The camera leaves the bus: every later request answers
  // STATUS_DEVICE_NOT_CONNECTED and the stream stops.
  void Unplug() noexcept;
  bool IsPlugged() const noexcept;
  // Request 7 restarts the controller: it answers, then leaves the bus to
  // enumerate again. Reconnect brings it back from power-on, at the speed
  // given, as after a fresh plug-in (faults and inputs are kept).
  bool RestartRequested() const noexcept;
  void Reconnect(bool highSpeed) noexcept;
  // Packets for which `match` says true are spoiled by `kind`, at most
  // `times` of them. Faults apply in the order they were added.
  void AddPacketFault(PacketFaultKind kind, std::function<bool(const StreamPacketInfo&)> match,
                      uint32_t parameter = 0, uint64_t times = UINT64_MAX) noexcept;
  void ClearPacketFaults() noexcept;

  // The inside, shared by the emulator's own files (emulator/camera_state.h).
  struct State;

 private:
  std::unique_ptr<State> state_;
};
