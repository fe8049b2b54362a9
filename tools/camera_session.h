// One emulated camera run by the driver through the capture host, as the
// camera commands of mr740cam (capture, info, formats) use it: the camera's
// description found or installed in the tool's registry, the emulated camera
// that matches it, an optional scene and USB trace, and the started device.
//
// The tool's registry must be open (OpenToolRegistry) before Open, and the
// kernel clock in the mode the caller wants (the tool runs virtual time).
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "emulator/emulated_camera.h"
#include "host/capture_host.h"
#include "tools/camera_models.h"

struct CameraSessionOptions {
  // A built-in model (mr740cam cameras), a ".reg" file of a camera
  // description, or the number of an installed device key ("0004"). Empty:
  // the default camera.
  std::string camera;
  std::string scene;     // the emulator's scene text (emulator/scene.h); empty: test pattern
  std::string usbTrace;  // a trace file (".pcap" for Wireshark); empty: none
};

class CameraSession {
 public:
  CameraSession() = default;
  // Stops the device (uninitialisation), then the camera, then the trace.
  ~CameraSession();
  CameraSession(const CameraSession&) = delete;
  CameraSession& operator=(const CameraSession&) = delete;

  // Finds the description (a built-in model is installed from the tool's
  // copy when its device key or its scripts are missing), builds the camera,
  // and starts the device. False with a message on `err`.
  bool Open(const CameraSessionOptions& options, FILE* err);
  // Stops the device now; false when its threads do not end.
  bool Close(FILE* err);

  HostedCamera& Host() { return *host_; }
  EmulatedCamera& Camera() { return *camera_; }
  const CameraModel& Model() const { return model_; }

 private:
  bool FindDescription(const std::string& camera, FILE* err);

  CameraModel model_;
  std::unique_ptr<UsbTrace> trace_;
  std::unique_ptr<EmulatedCamera> camera_;
  std::unique_ptr<HostedCamera> host_;
};

// Takes one of the options every camera command shares at argv[*i]:
// --camera MODEL|FILE.reg|NNNN, --scene TEXT, --usb-trace FILE (moving *i
// past its value). 1 when taken, 0 when argv[*i] is another option, -1 with
// a message on `err` when its value is missing.
int TakeCameraSessionOption(int argc, char** argv, int* i, CameraSessionOptions* options,
                            FILE* err);

// Runs `body` in virtual time (captures take no real seconds) and puts the
// clock mode back after it.
class VirtualTimeScope {
 public:
  VirtualTimeScope();
  ~VirtualTimeScope();
  VirtualTimeScope(const VirtualTimeScope&) = delete;
  VirtualTimeScope& operator=(const VirtualTimeScope&) = delete;

 private:
  int previous_;
};

// The name of a subtype as the tool shows it, from a format's biCompression:
// "RGB24", "YUY2", "I420", or the word in hexadecimal.
std::string FormatSubtypeName(uint32_t compression);
// One line for a format: "YUY2 640x480 16 bits 614400 bytes 333333-5000000
// (30.0-2.0 fps)".
std::string DescribeFormat(const KS_DATARANGE_VIDEO& range);
