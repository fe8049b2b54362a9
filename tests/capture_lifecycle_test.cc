// The capture lifecycle: start-up in its order and each way it can fail, the
// worker's start and stop commands against the emulated OV2640 camera, the
// command-replacement rule, and teardown leaving nothing behind.

#include "core/capture_lifecycle.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "core/interface_configuration.h"
#include "core/packet_dispatch.h"
#include "emulator/emulated_camera.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"
#include "tests/fake_capture_host.h"

namespace {

const std::string kRepository = MR740_SOURCE_DIR;
const std::u16string kDeviceKey = DeviceSoftwareKeyPath(1);  // the OV2640 camera's

using Lines = std::vector<std::string>;

// The OV2640 camera's description in the registry, its scripts on drive C,
// the emulated camera behind the fake host, and the device configured as the
// host would configure it. Torn down at the end unless a test did it.
class CameraRig {
 public:
  explicit CameraRig(bool highSpeed = true, const std::function<void()>& describe = nullptr) {
    ResetRegistry();
    std::string error;
    EXPECT_TRUE(LoadRegistryFile(kRepository + "/cameras/ov2640-camera/ov2640-camera.reg", &error))
        << error;
    if (describe) describe();
    MapDosDrive('C', kRepository);
    EmulatedCameraConfig config;
    config.sensors = {EmulatedSensorConfig{EmulatedSensorKind::OV2640}};
    config.bcdDevice = 0x0200;
    config.highSpeed = highSpeed;
    camera = std::make_unique<EmulatedCamera>(config);
    host.camera = camera.get();
    host.context = device.context;
    device->PhysicalDeviceObject = reinterpret_cast<DEVICE_OBJECT*>(&pdo_);
    BindDeviceRegistryKey(device->PhysicalDeviceObject, kDeviceKey);

    configuration_ = camera->ConfigurationDescriptorBytes();
    USB_DEVICE_DESCRIPTOR descriptor = camera->DeviceDescriptor();
    struct {
      USBD_INTERFACE_INFORMATION info;
      USBD_PIPE_INFORMATION extraPipe;
    } record = {};
    record.info.Length = sizeof record;
    record.info.NumberOfPipes = 1;
    EXPECT_EQ(CamConfigureEx(nullptr, device.context, &record.info,
                             reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(configuration_.data()),
                             0, nullptr, &descriptor),
              STATUS_SUCCESS);
    for (uint8_t i = 0; i < camera->AlternateSettingCount(); ++i) {
      host.packetSize[i] = uint16_t(
          EmulatedCamera::PacketBytesPerInterval(camera->AlternateSettingMaxPacketSize(i)));
    }
    threadsBefore = SystemThreadsRunning();
  }
  ~CameraRig() {
    if (!tornDown_) TearDown();
    UnbindDeviceRegistryKey(device->PhysicalDeviceObject);
    MapDosDrive('C', "");
    ResetRegistry();
  }

  // SRB_UNINITIALIZE_DEVICE, then the host's CamUnInitialize; afterwards no
  // thread, pool block or held mutex of the camera is left.
  void TearDown() {
    tornDown_ = true;
    host.vendorStatus = nullptr;
    HW_STREAM_REQUEST_BLOCK srb = {};
    srb.Command = SRB_UNINITIALIZE_DEVICE;
    AdapterPacketHandler(&srb);
    EXPECT_EQ(CamUnInitialize(nullptr, device.context), STATUS_SUCCESS);
    EXPECT_EQ(device->WorkBuffer, nullptr);
    EXPECT_EQ(device->SavedInterface, nullptr);
    EXPECT_TRUE(JoinSystemThreads());
    std::string report;
    EXPECT_TRUE(KernelCheckBalanced(&report)) << report;
    EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), 0u);
  }

  std::string IdleSelect() const {
    return "select " + std::to_string(device.context->InterfaceNumber) + " " +
           std::to_string(device.context->IdleAlternateSetting);
  }
  bool WaitForWorker() {
    return FakeCaptureHost::WaitUntil([this] {
      return LoadShared(device->WorkerCommand) == 0 &&
             KeReadStateEvent(&device->WorkerEvents[WorkerWakeEvent]) == 0;
    });
  }

  // Starts the camera, waits for the worker's first look at its mailbox (the
  // interface rests on its idle setting; until then the worker may still
  // write SavedInterface), and allocates RGB24 640x480.
  void StartAndAllocate() {
    ASSERT_EQ(CamInitialize(nullptr, device.context), STATUS_SUCCESS);
    const std::string idle = IdleSelect();
    ASSERT_TRUE(FakeCaptureHost::WaitUntil([this, idle] { return host.Count(idle) >= 1; }));
    KS_DATAFORMAT_VIDEOINFOHEADER format = {};
    format.DataFormat.FormatSize = sizeof format;
    format.VideoInfoHeader.bmiHeader = {0, 640, 480, 0, 24, CompressionRGB24};
    uint32_t rawFrameLength = 0;
    ASSERT_EQ(CamAllocateBandwidthEx(nullptr, device.context, &rawFrameLength, &format, 0),
              STATUS_SUCCESS);
  }

  DebugPrintCapture quiet;  // the scripts' lines stay out of the test output
  FakeCaptureHost host;
  TestDevice device;
  std::unique_ptr<EmulatedCamera> camera;
  uint32_t threadsBefore = 0;

 private:
  char pdo_ = 0;
  bool tornDown_ = false;
  std::vector<uint8_t> configuration_;
};

// The lines that start with `prefix`.
Lines Starting(const Lines& lines, const std::string& prefix) {
  Lines kept;
  for (const std::string& line : lines) {
    if (line.rfind(prefix, 0) == 0) kept.push_back(line);
  }
  return kept;
}
Lines FormatLines(const Lines& lines) { return Starting(lines, "Format : "); }

TEST(CameraStartUpThreads, StartUpEndsWithRequestElevenAndAnIdleWorker) {
  CameraRig rig;
  ASSERT_EQ(CamInitialize(nullptr, rig.device.context), STATUS_SUCCESS);
  DeviceContext* c = rig.device.context;
  EXPECT_EQ(std::u16string(c->SensorName), u"OV2640");
  EXPECT_NE(c->WorkBuffer, nullptr);
  EXPECT_GT(c->FormatCount, 0u);
  EXPECT_EQ(
      std::make_tuple(c->ShutterReleaseCount, c->InitScriptsFresh, c->StreamOpen, c->ImageWidth),
      std::make_tuple(0xFFFFFFFFu, uint8_t(1), uint8_t(0), 0u));
  EXPECT_TRUE(rig.camera->StartupEnded());

  // The bus speed is read before anything is written, and request 11 is the
  // last request of start-up: the INIT sections ran before it.
  const Lines vendor = Starting(rig.host.Log(), "vendor ");
  ASSERT_GT(vendor.size(), 20u) << "detection and the INIT sections send requests";
  EXPECT_EQ(vendor.front().substr(0, 9), "vendor 2 ");
  EXPECT_EQ(vendor.back(), "vendor 11 0000 0000");

  // The worker pauses, then rests the interface on its idle setting.
  const std::string idle = rig.IdleSelect();
  EXPECT_TRUE(FakeCaptureHost::WaitUntil([&] { return rig.host.Count(idle) == 1; }));
  EXPECT_EQ(SystemThreadsRunning(), rig.threadsBefore + 1);

  // The teardown's order and its ConnectionState are checked with the
  // dispatch; here the stop reaches the running worker at signal priority.
  rig.TearDown();
  EXPECT_EQ(LastSetEventPriority(&c->WorkerEvents[WorkerStopEvent]), SignalPriority);
}

TEST(CameraStartUpThreads, EachFailedStepEndsStartUpAndFreesTheInterfaceCopy) {
  struct Case {
    const char* name;
    bool highSpeed;
    std::function<void()> describe;
    NTSTATUS status;
  } cases[] = {
      {"unplugged during detection", true, nullptr, STATUS_DEVICE_NOT_CONNECTED},
      {"high speed forced on a full-speed device", false,
       [] { SetRegistryDword(kDeviceKey, u"ForceHighSpeed", 1); }, STATUS_INSUFFICIENT_RESOURCES},
      {"no candidate answers", true,
       [] { SetRegistryDword(kDeviceKey + u"\\SensorDetect\\Sensor00\\00", u"Data", 0x55); },
       STATUS_INSUFFICIENT_RESOURCES},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CameraRig rig(c.highSpeed, c.describe);
    ASSERT_NE(rig.device->SavedInterface, nullptr);
    if (c.status == STATUS_DEVICE_NOT_CONNECTED) {
      EmulatedCamera* camera = rig.camera.get();
      rig.host.vendorStatus = [camera](uint8_t request, uint16_t) {
        if (request == 1) camera->Unplug();  // on the first write
        return STATUS_SUCCESS;
      };
    }
    EXPECT_EQ(CamInitialize(nullptr, rig.device.context), c.status);
    EXPECT_EQ(rig.device->SavedInterface, nullptr);
    EXPECT_EQ(rig.host.Count("vendor 11 0000 0000"), 0u);
    EXPECT_EQ(SystemThreadsRunning(), rig.threadsBefore) << "no worker after a failure";
    EXPECT_EQ(rig.camera->RestartRequested(), !c.highSpeed);
  }
}

TEST(CameraStartUpThreads, ALensStartUpIsPostedBeforeTheWorkersFirstLook) {
  // LensKind 1: the worker finds command 3 after its pause and leaves the
  // interface's setting alone.
  CameraRig rig(true, [] {
    SetRegistryDword(kDeviceKey + u"\\OV2640\\PropertySetting", u"ISPType", 0x00010000);
  });
  ASSERT_EQ(CamInitialize(nullptr, rig.device.context), STATUS_SUCCESS);
  EXPECT_EQ(LensKind(rig.device.context), 1);
  EXPECT_TRUE(rig.WaitForWorker());
  EXPECT_EQ(Starting(rig.host.Log(), "select "), Lines{});
}

TEST(CaptureCycleThreads, StartStopStartDrivesTheStreamingSwitchAndTheCompanions) {
  CameraRig rig;
  DebugPrintCapture capture;
  rig.StartAndAllocate();
  DeviceContext* c = rig.device.context;
  for (bool start : {true, false, true}) {
    SCOPED_TRACE(start);
    rig.host.ClearLog();
    c->FrameCounter = 9;
    ASSERT_EQ((start ? CamStartCaptureEx : CamStopCaptureEx)(nullptr, c, 0), STATUS_SUCCESS);
    EXPECT_EQ(c->StreamOpen, uint32_t(start)) << "ahead of the worker";
    ASSERT_TRUE(rig.WaitForWorker());
    EXPECT_EQ(rig.host.Count(start ? "vendor 5 0001 0000" : "vendor 5 0000 0000"), 1u);
    EXPECT_EQ(rig.camera->IsStreaming(), start);
    EXPECT_EQ(c->FrameCounter, start ? 0u : 9u);
    uint32_t open = 9;
    ASSERT_TRUE(GetRegistryDword(kDeviceKey, u"StreamOpen", &open));
    EXPECT_EQ(open, uint32_t(start));
  }
  EXPECT_EQ(FormatLines(capture.Lines()),
            Lines({"Format : RGB24 :  640 x  480\n", "Format : RGB24 :  640 x  480\n"}));
  EXPECT_EQ(c->FrameTimeSamples, -1);

  // Stopped again: thirty refused switches do not stop the next start.
  ASSERT_EQ(CamStopCaptureEx(nullptr, c, 0), STATUS_SUCCESS);
  ASSERT_TRUE(rig.WaitForWorker());
  rig.host.vendorStatus = [](uint8_t request, uint16_t) {
    return request == 5 ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
  };
  rig.host.ClearLog();
  ResetKernelDelayTotal();
  ASSERT_EQ(CamStartCaptureEx(nullptr, c, 0), STATUS_SUCCESS);
  ASSERT_TRUE(rig.WaitForWorker());
  EXPECT_EQ(rig.host.Count("vendor 5 0001 0000"), 30u);
  EXPECT_GE(KernelDelayTotal(), 30 * 2000000LL) << "200 ms before every try";
  EXPECT_EQ(FormatLines(capture.Lines()).size(), 3u) << "the start went on";
  EXPECT_EQ(FastMutexBalance(), 0);
  EXPECT_EQ(CamFreeBandwidthEx(nullptr, c, 0), STATUS_SUCCESS);
}

// Changes the picture width when the first start pass logs its format, as a
// host reallocating meanwhile would.
struct WidthChanger {
  DeviceContext* context;
  Lines lines;
  bool changed = false;
  static void Sink(void* self, const char* line) {
    auto* changer = static_cast<WidthChanger*>(self);
    changer->lines.push_back(line);
    if (!changer->changed && changer->lines.back().rfind("Format : ", 0) == 0) {
      changer->changed = true;
      changer->context->ImageWidth = 320;
    }
  }
};

TEST(CaptureCycleThreads, AFormatChangeDuringAStartRunsTheStartAgain) {
  CameraRig rig;
  rig.StartAndAllocate();
  WidthChanger changer{rig.device.context, {}};
  SetDebugPrintSink(&WidthChanger::Sink, &changer);
  ASSERT_EQ(CamStartCaptureEx(nullptr, rig.device.context, 0), STATUS_SUCCESS);
  const bool idle = rig.WaitForWorker();
  SetDebugPrintSink(nullptr, nullptr);
  ASSERT_TRUE(idle);
  EXPECT_EQ(FormatLines(changer.lines),
            Lines({"Format : RGB24 :  640 x  480\n", "Format : RGB24 :  320 x  480\n"}));
}

TEST(CaptureCycleThreads, ACommandPostedDuringACommandIsTakenUpWhenItEnds) {
  CameraRig rig;
  rig.StartAndAllocate();
  DeviceContext* c = rig.device.context;
  std::atomic<bool> posted{false};
  rig.host.vendorStatus = [c, &posted](uint8_t request, uint16_t value) {
    if (request == 5 && value == 1 && !posted.exchange(true)) PostWorkerCommand(c, 2);
    return STATUS_SUCCESS;
  };
  rig.host.ClearLog();
  ASSERT_EQ(CamStartCaptureEx(nullptr, c, 0), STATUS_SUCCESS);
  ASSERT_TRUE(rig.WaitForWorker());
  const int start = rig.host.Find("vendor 5 0001 0000");
  ASSERT_GE(start, 0);
  EXPECT_GT(rig.host.Find("vendor 5 0000 0000", size_t(start)), start)
      << "the stop posted during the start ran after it";
  EXPECT_FALSE(rig.camera->IsStreaming());
}

TEST(CaptureCycleThreads, StopAndStartRacingTheWorkerLeaveItIdle) {
  CameraRig rig;
  rig.StartAndAllocate();
  DeviceContext* c = rig.device.context;
  // The frame path's view of the worker, read all along.
  std::atomic<bool> done{false};
  std::thread framePath([c, &done] {
    while (!done.load()) (void)IsWorkerReprogramming(c);
  });
  for (int round = 0; round < 5; ++round) {
    CamStartCaptureEx(nullptr, c, 0);
    CamStopCaptureEx(nullptr, c, 0);
    CamStartCaptureEx(nullptr, c, 0);
    if (round % 2 == 1) {
      EXPECT_TRUE(rig.WaitForWorker());
    }
  }
  const bool idle = rig.WaitForWorker();
  done = true;
  framePath.join();
  ASSERT_TRUE(idle);
  EXPECT_EQ(c->StreamOpen, 1);
  EXPECT_GE(rig.host.Count("vendor 5 0001 0000"), 1u);
  EXPECT_EQ(FastMutexBalance(), 0);
}

// Only stream 0 starts and stops, and only once; a stop holds the shutter
// monitor for about two seconds.
TEST(CaptureRequests, StartsStopsAndTheShutterHold) {
  FakeCaptureHost host;
  TestDevice device;
  host.context = device.context;
  KEVENT* wake = &device->WorkerEvents[WorkerWakeEvent];
  // Start or stop, stream; whether a command is posted, which, StreamOpen after.
  const std::tuple<bool, uint32_t, bool, uint8_t, uint8_t> steps[] = {
      {1, 1, 0, 0, 0},                   // start of the still stream
      {0, 0, 0, 0, 0},                   // stop while not open
      {1, 0, 1, 1, 1}, {1, 0, 0, 0, 1},  // start, second start
      {0, 1, 0, 0, 1},                   // stop of the still stream
      {0, 0, 1, 2, 0}};
  for (auto [start, stream, posts, command, streamOpen] : steps) {
    SCOPED_TRACE(testing::Message() << (start ? "start " : "stop ") << stream);
    KeClearEvent(wake);
    device->WorkerCommand = 0;
    device->FramesToDrop = 5;
    (start ? CamStartCaptureEx : CamStopCaptureEx)(nullptr, device.context, stream);
    EXPECT_EQ(KeReadStateEvent(wake) != 0, posts);
    EXPECT_EQ(std::make_tuple(device->WorkerCommand, device->StreamOpen, device->FramesToDrop),
              std::make_tuple(command, streamOpen, posts && start ? 0u : 5u));
  }
  const std::pair<uint32_t, uint32_t> cases[] = {{1000, 2}, {3000, 1}, {250, 8}, {2000, 1},
                                                 {1999, 1}, {100, 20}, {0, 77}};
  for (auto [period, hold] : cases) {
    device->PollingShutterKey = period;
    device->ShutterPollHold = 77;
    device->StreamOpen = 1;
    EXPECT_EQ(CamStopCapture(nullptr, device.context), STATUS_SUCCESS);
    EXPECT_EQ(device->ShutterPollHold, hold) << period;
  }
}

}  // namespace
