// The capture host: the part of the USB camera class driver and the stream
// class driver that the camera driver relies on, played for real against an
// emulated camera. It loads the driver (its entry declares the record size
// and the adapter packet handler), starts a device with SRB_INITIALIZE_DEVICE
// (the driver's configuration and initialisation run inside it), opens
// streams with a format, walks the stream states, selects alternate settings
// against the camera's descriptors, pumps the isochronous pipe packet by
// packet through the driver's packet routine into a raw frame buffer, and
// completes client buffers through the driver's frame routine. Property
// requests, power changes, idle notifications, uninitialisation and surprise
// removal go through the driver's packet handler as the stream class sends
// them. Several cameras can run in one process.
//
// This is a program model, not driver code: it uses classes and the standard
// library, and never lets an exception reach the driver. Time: the host runs
// on the kernel layer's clock (platform/kernel_control.h), virtual in tests
// and in the tool, real in the start-up benchmark; the camera's bus time
// follows that clock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/host_contract.h"
#include "emulator/emulated_camera.h"

// ---------------------------------------------------------------- tracing

// One control request on the default pipe, as it passed.
struct UsbControlRecord {
  int64_t time100ns = 0;  // kernel clock at completion
  uint8_t request = 0;
  uint16_t value = 0;
  uint16_t index = 0;
  bool getData = false;       // device to host
  bool hasDataStage = false;  // false: the driver passed no length
  uint32_t requestedLength = 0;
  std::vector<uint8_t> data;  // bytes sent, or bytes answered
  NTSTATUS status = STATUS_SUCCESS;
};

// Start or stop of the isochronous stream: a change of the alternate setting
// of the streaming interface.
struct UsbStreamRecord {
  int64_t time100ns = 0;
  uint8_t interfaceNumber = 0;
  uint8_t alternateSetting = 0;
  uint16_t maximumPacketSize = 0;  // 0: the stream stops
  NTSTATUS status = STATUS_SUCCESS;
};

// Where a hosted camera reports what passed between driver and camera. Calls
// come from the driver's threads (host thread, worker); an implementation
// serialises them itself.
class UsbTrace {
 public:
  virtual ~UsbTrace() = default;
  virtual void Control(const UsbControlRecord& record) = 0;
  virtual void Stream(const UsbStreamRecord& record) = 0;
};

// Opens a trace file: a pcap file of the Linux usbmon link type when the path
// ends in ".pcap" (tshark and Wireshark decode the control transfers), else
// readable text lines. Null with a message on `error` when it cannot be
// written.
std::unique_ptr<UsbTrace> OpenUsbTrace(const std::string& path, std::string* error);

// ---------------------------------------------------------------- the hosted camera

struct HostedCameraConfig {
  // The camera on the bus; not owned, it outlives the hosted camera.
  EmulatedCamera* camera = nullptr;
  // Absolute path of the device's software key, where its description lies:
  // "\REGISTRY\MACHINE\SYSTEM\CurrentControlSet\Control\Class\{...}\0000".
  std::u16string deviceKeyPath;
  UsbTrace* trace = nullptr;  // not owned
};

// One completed client buffer.
struct HostFrame {
  uint32_t bytes = 0;  // what the driver's frame routine returned
  bool still = false;  // delivered on the still pin, or flagged still
  uint64_t index = 0;  // frames completed on this stream since it opened
  int64_t time100ns = 0;
};

struct HostStatistics {
  uint64_t packets = 0;          // packets given to the packet routine
  uint64_t droppedPackets = 0;   // packets the driver asked to drop
  uint64_t framesCompleted = 0;  // frame ends the driver reported
  uint64_t framesDelivered = 0;  // client buffers completed with bytes
  uint64_t framesCut = 0;        // frames longer than RawFrameLength, cut
};

class HostedCamera {
 public:
  // Loads the driver into the host once per process (its DriverEntry), then
  // starts the device: SRB_INITIALIZE_DEVICE, with CamConfigureEx and
  // CamInitialize inside, and SRB_INITIALIZATION_COMPLETE. On failure the
  // status of the start and a readable message, and no camera.
  static NTSTATUS Start(const HostedCameraConfig& config, std::unique_ptr<HostedCamera>* camera,
                        std::string* error);
  // Stops the streams, then SRB_UNINITIALIZE_DEVICE (unless removed) and
  // frees the record.
  ~HostedCamera();
  HostedCamera(const HostedCamera&) = delete;
  HostedCamera& operator=(const HostedCamera&) = delete;

  DeviceContext* Context() const;

  // SRB_GET_STREAM_INFO: the number of streams and each one's formats, in
  // the order offered.
  uint32_t StreamCount() const;
  std::vector<KS_DATARANGE_VIDEO> Formats(uint32_t stream) const;
  // SRB_GET_DATA_INTERSECTION with the host's size query first.
  NTSTATUS IntersectFormat(uint32_t stream, const KS_DATARANGE_VIDEO& range,
                           KS_DATAFORMAT_VIDEOINFOHEADER* format);

  // SRB_OPEN_STREAM and the stream's close; the stream object's packet
  // handlers are the driver's from then on.
  NTSTATUS OpenStream(uint32_t stream, const KS_DATAFORMAT_VIDEOINFOHEADER& format);
  NTSTATUS CloseStream(uint32_t stream);
  NTSTATUS ProposeFormat(uint32_t stream, const KS_DATAFORMAT_VIDEOINFOHEADER& format);
  NTSTATUS SetFormat(uint32_t stream, const KS_DATAFORMAT_VIDEOINFOHEADER& format);
  // SRB_SET_STREAM_STATE through the driver's control handler, and the
  // host's own work at each transition: bandwidth on leaving stop, capture
  // start on entering run, capture stop on leaving run, bandwidth release on
  // entering stop.
  NTSTATUS SetStreamState(uint32_t stream, KSSTATE state);

  // Runs the bus until `stream` completes one client buffer of `size` bytes
  // (the format's image size) into `buffer`. STATUS_TIMEOUT after
  // `timeout100ns` of bus time without one; STATUS_DEVICE_NOT_CONNECTED once
  // the camera has left the bus; STATUS_INVALID_DEVICE_STATE when the stream
  // does not run.
  NTSTATUS ReadFrame(uint32_t stream, uint8_t* buffer, uint32_t size, HostFrame* frame,
                     int64_t timeout100ns);

  // SRB_GET_DEVICE_PROPERTY and SRB_SET_DEVICE_PROPERTY: `property` is the
  // property with what follows it (a KSPROPERTY head first), `data` the
  // caller's buffer. The host checks the set is one the device offers.
  NTSTATUS GetProperty(const void* property, uint32_t propertySize, void* data, uint32_t dataSize,
                       uint32_t* bytesReturned);
  NTSTATUS SetProperty(const void* property, uint32_t propertySize, void* data, uint32_t dataSize,
                       uint32_t* bytesReturned);

  NTSTATUS SetPowerState(DEVICE_POWER_STATE state);
  NTSTATUS NotifyIdleState(bool idle);
  // The camera has gone: SRB_SURPRISE_REMOVAL, streams end, and the device
  // is uninitialised.
  void SurpriseRemoval();

  HostStatistics Statistics() const;

  struct State;

 private:
  explicit HostedCamera(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};
