// Configuration and bandwidth: the settings read first, the idle and
// streaming alternate settings, the pipe configuration, and the raw frame
// length the host must provide for.

#include "core/interface_configuration.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"
#include "tests/fake_capture_host.h"

namespace {

// The interface information the host hands over: header and two pipes.
struct InterfaceRecord {
  USBD_INTERFACE_INFORMATION info;
  USBD_PIPE_INFORMATION extraPipe;
};

InterfaceRecord MakeInterface() {
  InterfaceRecord record = {};
  record.info.Length = sizeof record;
  record.info.NumberOfPipes = 2;
  record.info.Pipes[0].MaximumPacketSize = 0x1234;
  record.extraPipe.MaximumPacketSize = 0x0F0F;
  return record;
}

class ConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    device_->PhysicalDeviceObject = reinterpret_cast<DEVICE_OBJECT*>(&pdo_);
    BindDeviceRegistryKey(device_->PhysicalDeviceObject, key_);
    host_.context = device_.context;
  }
  void TearDown() override {
    if (device_->SavedInterface != nullptr) ExFreePool(device_->SavedInterface);
    device_->SavedInterface = nullptr;
    UnbindDeviceRegistryKey(device_->PhysicalDeviceObject);
    std::string report;
    EXPECT_TRUE(KernelCheckBalanced(&report)) << report;
    ResetRegistry();
  }

  void Set(const char16_t* name, uint32_t value) { SetRegistryDword(key_, name, value); }

  NTSTATUS Configure(USB_CONFIGURATION_DESCRIPTOR* configuration, InterfaceRecord* record,
                     USBCAMD_Pipe_Config_Descriptor* pipes = nullptr, uint32_t pipeCount = 0,
                     uint16_t bcdDevice = 0x0200) {
    USB_DEVICE_DESCRIPTOR descriptor = {};
    descriptor.bcdDevice = bcdDevice;
    return CamConfigureEx(nullptr, device_.context, &record->info, configuration, pipeCount, pipes,
                          &descriptor);
  }
  // A configuration of one interface without endpoints.
  NTSTATUS ConfigurePlain(USBCAMD_Pipe_Config_Descriptor* pipes = nullptr, uint32_t count = 0) {
    InterfaceRecord record = MakeInterface();
    plain_ = ConfigurationBuilder();
    plain_.Interface(0, 0, 0);
    return Configure(plain_.Finish(), &record, pipes, count);
  }

  char pdo_ = 0;
  std::u16string key_ = DeviceSoftwareKeyPath(3);
  TestDevice device_;
  FakeCaptureHost host_;
  ConfigurationBuilder plain_;
};

TEST_F(ConfigurationTest, TheWalkFindsTheSettingWithTheSmallestIsochronousPacket) {
  struct Case {
    const char* name;
    ConfigurationBuilder builder;
    size_t totalLength;  // 0: all of it
    uint8_t idle;
  };
  std::vector<Case> cases(4);
  // Setting 0 has no endpoints, though an isochronous endpoint of 16 bytes
  // stands behind it: it is skipped all the same. 128 twice: the first wins.
  cases[0] = {"smallest first wins, endpointless setting skipped", {}, 0, 2};
  cases[0].builder.Interface(1, 0, 0).Other(5).Endpoint(16).Interface(1, 1, 1).Endpoint(512);
  cases[0].builder.Interface(1, 2, 2).Other(7).Endpoint(64, 2).Endpoint(128);
  cases[0].builder.Interface(1, 3, 1).Endpoint(128).Interface(1, 4, 1).Endpoint(1023);
  // A bulk endpoint only: the walk runs into the next interface and finds
  // nothing for setting 1.
  cases[1] = {"bulk endpoints do not count", {}, 0, 2};
  cases[1].builder.Interface(1, 0, 1).Endpoint(900).Interface(1, 1, 1).Endpoint(8, 2);
  cases[1].builder.Interface(1, 2, 1).Endpoint(700);
  // The last endpoint lies partly beyond wTotalLength: it is not read.
  cases[2] = {"no reading past wTotalLength", {}, 0, 0};
  cases[2].builder.Interface(1, 0, 1).Endpoint(600).Interface(1, 1, 1).Endpoint(100);
  cases[2].totalLength = cases[2].builder.bytes.size() - 3;
  // A descriptor of length 0 ends the walk of its setting.
  cases[3] = {"a zero bLength stops", {}, 0, 0};
  cases[3].builder.Interface(1, 0, 1).Endpoint(600).Interface(1, 1, 1);
  cases[3].builder.bytes.insert(cases[3].builder.bytes.end(), {0, 5, 0x81, 1, 10, 0, 1});
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    device_->IdleAlternateSetting = 0xEE;
    InterfaceRecord record = MakeInterface();
    record.info.AlternateSetting = 9;
    ASSERT_EQ(Configure(c.builder.Finish(c.totalLength), &record), STATUS_SUCCESS);
    EXPECT_EQ(device_->IdleAlternateSetting, c.idle);
    EXPECT_EQ(device_->InterfaceNumber, 1);
    EXPECT_EQ(record.info.AlternateSetting, 0) << "the host opens setting 0";
  }
}

TEST_F(ConfigurationTest, WithoutAVideoInterfaceTheRevisionDecidesTheSettings) {
  // bcdDevice (0: no device descriptor); the idle setting, the setting given
  // back to the host to open (5: InitAlternateSetting), revision 2, interface.
  const std::tuple<uint16_t, uint8_t, uint8_t, uint32_t, uint8_t> cases[] = {
      {0x0100, 1, 1, 0, 0}, {0x0102, 1, 1, 0, 0}, {0x0103, 0, 5, 0, 0},
      {0x01FF, 0, 5, 0, 0}, {0x0200, 0, 5, 1, 0}, {0, 1, 9, 0, 7}};
  Set(u"InitAlternateSetting", 5);
  for (auto [bcdDevice, idle, opened, revision2, interface] : cases) {
    SCOPED_TRACE(bcdDevice);
    ConfigurationBuilder b;
    b.Interface(0, 0, 1, 0xFF, 0xFF).Endpoint(64);
    InterfaceRecord record = MakeInterface();
    record.info.AlternateSetting = 9;
    device_->InterfaceNumber = 7;
    device_->IsRevision2Chip = 0;
    USB_DEVICE_DESCRIPTOR descriptor = {};
    descriptor.bcdDevice = bcdDevice;
    ASSERT_EQ(CamConfigureEx(nullptr, device_.context, &record.info, b.Finish(), 0, nullptr,
                             bcdDevice ? &descriptor : nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::make_tuple(device_->IdleAlternateSetting, record.info.AlternateSetting,
                              device_->IsRevision2Chip, device_->InterfaceNumber),
              std::make_tuple(idle, opened, revision2, interface));
  }
}

TEST_F(ConfigurationTest, TheTwelveValuesAreReadAndSelSuspendOneMeansSixtySeconds) {
  const struct {
    const char16_t* name;
    uint32_t value;
    uint32_t DeviceContext::*field;
  } values[] = {{u"ScriptFrameNumber", 0x030201, &DeviceContext::ScriptFrameNumber},
                {u"DeadPixelRGB24", 11, &DeviceContext::DeadPixelRGB24},
                {u"DeadPixelYUYV", 12, &DeviceContext::DeadPixelYUYV},
                {u"BlackBodyDarkRGB24", 13, &DeviceContext::BlackBodyDarkRGB24},
                {u"BlackBodyDarkYUYV", 14, &DeviceContext::BlackBodyDarkYUYV},
                {u"InvertImage", 3, &DeviceContext::InvertImage},
                {u"InvertFrameNumber", 4, &DeviceContext::InvertFrameNumber},
                {u"EngineerMode", 6, &DeviceContext::EngineerMode},
                {u"PollingShutterKey", 250, &DeviceContext::PollingShutterKey}};
  for (const auto& v : values) Set(v.name, v.value);
  Set(u"InitAlternateSetting", 0x102);  // kept as one byte
  const std::pair<uint32_t, int32_t> cases[] = {{0, 0}, {1, 600000000}, {2, 2}, {600, 600}};
  for (auto [selSuspend, timeout] : cases) {
    Set(u"SelSuspend", selSuspend);
    ASSERT_EQ(ConfigurePlain(), STATUS_SUCCESS);
    EXPECT_EQ(device_->SelSuspendTimeout, timeout) << selSuspend;
  }
  for (const auto& v : values) {
    EXPECT_EQ(device_.context->*v.field, v.value) << std::string(v.name, v.name + 8);
  }
  EXPECT_EQ(device_->InitAlternateSetting, 2);
  EXPECT_EQ(device_->Signature, 2145u);
}

TEST_F(ConfigurationTest, PipesAreConfiguredForOneOrTwoStreams) {
  const uint8_t U = 0xAA;  // untouched
  // StillPin, list size (only four exist); streams, association and flags per entry.
  const std::tuple<uint32_t, uint32_t, uint32_t, std::vector<uint8_t>> cases[] = {
      {0, 4, 1, {1, 1, 0, 8, 0, 8, 0, 0, U, U, U, U}},
      {2, 4, 2, {3, 2, 0, 8, 0, 8, 0, 0, U, U, U, U}},
      {1, 2, 2, {3, 2, 0, 8, U, U, U, U, U, U, U, U}},
      {0, 6, 1, {1, 1, 0, 8, 0, 8, 0, 0, U, U, U, U}}};
  for (const auto& [stillPin, listSize, streamCount, expected] : cases) {
    SCOPED_TRACE(stillPin * 10 + listSize);
    Set(u"StillPin", stillPin);
    USBCAMD_Pipe_Config_Descriptor pipes[6];
    std::memset(pipes, U, sizeof pipes);
    ASSERT_EQ(ConfigurePlain(pipes, listSize), STATUS_SUCCESS);
    EXPECT_EQ(device_->StreamCount, streamCount);
    const uint8_t* bytes = reinterpret_cast<uint8_t*>(pipes);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + 12), expected);
  }
}

TEST_F(ConfigurationTest, PrpKeyNumberIsTheLastFourCharactersTakenAsDigits) {
  const std::pair<std::u16string, uint32_t> cases[] = {
      {DeviceSoftwareKeyPath(3), 3},
      {DeviceSoftwareKeyPath(1207), 1207},
      // No check that they are digits: 1, 2, 'x' (120 - 48 = 72), 4.
      {u"\\REGISTRY\\MACHINE\\SOFTWARE\\Cams\\Cam12x4", 1 * 1000 + 2 * 100 + 72 * 10 + 4},
  };
  for (const auto& [key, expected] : cases) {
    BindDeviceRegistryKey(device_->PhysicalDeviceObject, key);
    ASSERT_EQ(ConfigurePlain(), STATUS_SUCCESS);
    uint32_t number = 0;
    ASSERT_TRUE(GetRegistryDword(ServiceKeyPath, u"PrpKeyNumber", &number));
    EXPECT_EQ(number, expected);
  }
}

TEST_F(ConfigurationTest, TheInterfaceIsCopiedWholeAndAFailedCopyIsReported) {
  InterfaceRecord record = MakeInterface();
  ConfigurationBuilder b;
  b.Interface(0, 0, 0);
  ASSERT_EQ(Configure(b.Finish(), &record), STATUS_SUCCESS);
  ASSERT_NE(device_->SavedInterface, nullptr);
  ASSERT_NE(device_->SavedInterface, &record.info);
  EXPECT_EQ(std::memcmp(device_->SavedInterface, &record, sizeof record), 0);
  EXPECT_EQ(PoolLiveBytes(PoolTagWdm), sizeof record);

  // A second configuration replaces the copy; without an interface it goes.
  ASSERT_EQ(Configure(b.Finish(), &record), STATUS_SUCCESS);
  EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), 1u);
  USB_DEVICE_DESCRIPTOR descriptor = {};
  ASSERT_EQ(CamConfigureEx(nullptr, device_.context, nullptr, b.Finish(), 0, nullptr, &descriptor),
            STATUS_SUCCESS);
  EXPECT_EQ(device_->SavedInterface, nullptr);
  EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), 0u);

  // The first form reads nothing and names pipe 0 for data, 2 for sync.
  int32_t data = -1, sync = -1;
  PoolFailAllocation(1);
  EXPECT_EQ(CamConfigure(nullptr, device_.context, &record.info, b.Finish(), &data, &sync),
            STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(device_->SavedInterface, nullptr);
  device_->Signature = 0;
  EXPECT_EQ(CamConfigure(nullptr, device_.context, &record.info, b.Finish(), &data, &sync),
            STATUS_SUCCESS);
  EXPECT_EQ(data, 0);
  EXPECT_EQ(sync, 2);
  EXPECT_EQ(device_->Signature, 2145u);
  EXPECT_EQ(CamConfigure(nullptr, device_.context, nullptr, b.Finish(), &data, &sync),
            STATUS_SUCCESS);
  EXPECT_EQ(device_->SavedInterface, nullptr);
}

TEST(RawFrameSize, FollowsTheWireFormatAndScaleMode) {
  // Wire format, output, scale mode, size; bytes worked by hand from the bytes
  // per two pixels.
  const std::tuple<uint8_t, uint32_t, uint8_t, uint32_t, uint32_t, uint32_t> cases[] = {
      {1, CompressionYUY2, 0, 640, 480, 307200},  // b 2
      {1, CompressionYUY2, 1, 640, 480, 307200},
      {1, CompressionYUY2, 2, 640, 480, 1228800},   // a quarter-size picture on the wire x4
      {2, CompressionRGB24, 3, 640, 480, 153600},   // (307200 / 4) * 4 / 2
      {1, CompressionRGB24, 4, 320, 240, 1228800},  // 76800 * 2 * 16 / 2
      {3, CompressionRGB24, 5, 484, 240, 10890},    // (116160 / 16) = 7260, * 3 / 2
      {3, CompressionRGB24, 3, 176, 144, 9504},     // 25344 / 4 = 6336, * 3 / 2
      {0, CompressionRGB24, 0, 640, 480, 307200},   // follows the output format: Bayer
      {0, CompressionYUY2, 0, 640, 480, 614400},    // YUYV
      {0, CompressionI420, 0, 640, 480, 460800},    // 4:2:0
      {0, 0x12345678, 0, 640, 480, 307200},         // unknown output: 2
      {7, CompressionYUY2, 0, 640, 480, 307200},    // unknown wire: 2
      {2, CompressionYUY2, 5, 122, 2, 30},          // 244 / 16 = 15, * 4 / 2
      {2, CompressionYUY2, 6, 640, 480, 0},         // no such scale mode
      {2, CompressionYUY2, 255, 640, 480, 0}};
  TestDevice device;
  for (auto [wire, compression, scale, width, height, bytes] : cases) {
    device.SetMode(compression, 0, 0, scale, wire, 0);
    EXPECT_EQ(GetRawFrameSize(device.context, width, height), bytes)
        << int(wire) << "/" << int(scale) << " " << width;
  }
}

// Configured with idle setting 1 (128 bytes) and a streaming setting 3 (1000
// bytes a packet) on interface 2.
class BandwidthTest : public ConfigurationTest {
 protected:
  void SetUp() override {
    ConfigurationTest::SetUp();
    InterfaceRecord record = MakeInterface();
    ConfigurationBuilder b;
    b.Interface(2, 0, 0).Interface(2, 1, 1).Endpoint(128).Interface(2, 3, 1).Endpoint(1000);
    ASSERT_EQ(Configure(b.Finish(), &record), STATUS_SUCCESS);
    ASSERT_EQ(device_->IdleAlternateSetting, 1);
    host_.packetSize = {{1, 128}, {3, 1000}};
  }

  // The mode key SelectMode reads for a format and size.
  void SetMode(const char16_t* format, const char16_t* size, uint32_t controlMethod) {
    std::u16string mode = key_ + u"\\InitialSetting\\" + format + u"\\" + size;
    SetRegistryDword(mode, u"ControlMethod", controlMethod);
    SetRegistryDword(mode, u"AlternateSetting", 3);
  }

  NTSTATUS Allocate(int32_t width, int32_t height, uint16_t bits, uint32_t compression,
                    uint32_t* rawFrameLength, uint32_t stream = 0) {
    KS_DATAFORMAT_VIDEOINFOHEADER format = {};
    format.DataFormat.FormatSize = sizeof format;
    format.VideoInfoHeader.bmiHeader.biWidth = width;
    format.VideoInfoHeader.bmiHeader.biHeight = height;
    format.VideoInfoHeader.bmiHeader.biBitCount = bits;
    format.VideoInfoHeader.bmiHeader.biCompression = compression;
    return CamAllocateBandwidthEx(nullptr, device_.context, rawFrameLength, &format, stream);
  }
};

TEST_F(BandwidthTest, AllocationSelectsTheModesSettingAndRoundsTheFrameToPackets) {
  // Size, bits, biCompression (0 is RGB24); the mode's ControlMethod, the
  // frame rounded up to 1000-byte packets, the compression taken.
  const std::tuple<uint32_t, uint32_t, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t> cases[] = {
      {640, 480, 24, CompressionRGB24, 0x0100, 308000, CompressionRGB24},  // 307200
      {640, 480, 24, 0, 0x0100, 308000, CompressionRGB24},
      {800, 600, 24, CompressionRGB24, 0x0100, 480000, CompressionRGB24},  // a whole number
      {640, 480, 16, CompressionYUY2, 0x0203, 154000, CompressionYUY2},    // 307200 / 4 * 4 / 2
      {320, 240, 12, CompressionI420, 0x0000, 116000, CompressionI420}};   // 240 * 3 * 320 / 2
  SetMode(u"RGB24", u"640", 0x0100);
  SetMode(u"RGB24", u"800", 0x0100);
  SetMode(u"YUYV", u"640", 0x0203);
  SetMode(u"I420", u"320", 0x0000);
  for (auto [width, height, bits, biCompression, controlMethod, frameLength, compression] : cases) {
    SCOPED_TRACE(testing::Message() << width << " " << bits << " " << biCompression);
    host_.ClearLog();
    device_->CurrentCompression = 0;
    device_->StillEventPending = 1;
    uint32_t rawFrameLength = 1;
    ASSERT_EQ(Allocate(width, height, bits, biCompression, &rawFrameLength), STATUS_SUCCESS);
    EXPECT_EQ(std::make_tuple(device_->CurrentCompression, device_->ControlMethod, rawFrameLength,
                              device_->WorkerCommand, device_->ImageWidth, device_->ImageHeight,
                              device_->StillEventPending),
              std::make_tuple(compression, controlMethod, frameLength, uint8_t(128), width, height,
                              uint8_t(0)));
    const auto& face = device_->FaceRect;
    EXPECT_EQ(std::vector<int32_t>({face.Left, face.Top, face.Right, face.Bottom}),
              std::vector<int32_t>({0, 0, int32_t(width) - 1, int32_t(height) - 1}));
    EXPECT_EQ(host_.Log(), std::vector<std::string>{"select 2 3"});
  }
}

TEST_F(BandwidthTest, AFormatOfAnotherDepthKeepsThePreviousCompression) {
  const std::pair<uint16_t, uint32_t> cases[] = {
      {16, CompressionRGB24}, {24, CompressionYUY2}, {32, 0}, {12, CompressionYUY2}};
  SetMode(u"YUYV", u"640", 0x0201);
  for (auto [bits, compression] : cases) {
    device_->CurrentCompression = CompressionYUY2;
    uint32_t rawFrameLength = 0;
    ASSERT_EQ(Allocate(640, 480, bits, compression, &rawFrameLength), STATUS_SUCCESS);
    EXPECT_EQ(device_->CurrentCompression, CompressionYUY2) << bits;
  }
}

TEST_F(BandwidthTest, FailuresLeaveTheIdleSettingAndTheMarker) {
  // Scale mode 6 has no frame size; the streaming setting refused.
  const std::tuple<uint32_t, NTSTATUS, NTSTATUS, std::vector<std::string>> cases[] = {
      {0x0106, STATUS_SUCCESS, STATUS_INVALID_PARAMETER, {}},
      {0x0100, STATUS_UNSUCCESSFUL, STATUS_INSUFFICIENT_RESOURCES, {"select 2 3"}}};
  for (const auto& [controlMethod, selectStatus, result, log] : cases) {
    SCOPED_TRACE(controlMethod);
    SetMode(u"RGB24", u"640", controlMethod);
    host_.selectStatus = selectStatus;
    host_.ClearLog();
    uint32_t rawFrameLength = 99;
    EXPECT_EQ(Allocate(640, 480, 24, CompressionRGB24, &rawFrameLength), result);
    EXPECT_EQ(std::make_pair(rawFrameLength, device_->WorkerCommand),
              std::make_pair(0u, uint8_t(128)));
    EXPECT_EQ(host_.Log(), log);
  }
}

TEST_F(BandwidthTest, TheStillStreamNeedsNoBandwidthOfItsOwn) {
  uint32_t rawFrameLength = 0;
  EXPECT_EQ(Allocate(1600, 1200, 24, CompressionRGB24, &rawFrameLength, 1), STATUS_SUCCESS);
  EXPECT_EQ(rawFrameLength, 115200u);
  EXPECT_EQ(device_->WorkerCommand, 0);
  EXPECT_EQ(device_->ImageWidth, 0u);
  EXPECT_EQ(CamFreeBandwidthEx(nullptr, device_.context, 1), STATUS_SUCCESS);
  EXPECT_TRUE(host_.Log().empty());
}

TEST_F(BandwidthTest, TheMonitorsImageWidthFollowsAllocationAndRelease) {
  Set(u"PollingShutterKey", 100);
  device_->PollingShutterKey = 100;
  SetMode(u"RGB24", u"640", 0x0100);
  KS_DATAFORMAT_VIDEOINFOHEADER format = {};
  format.DataFormat.FormatSize = sizeof format;
  format.VideoInfoHeader.bmiHeader = {0, 640, 480, 0, 24, CompressionRGB24};
  uint32_t rawFrameLength = 0, width = 0;
  // The first form is stream 0.
  ASSERT_EQ(CamAllocateBandwidth(nullptr, device_.context, &rawFrameLength, &format),
            STATUS_SUCCESS);
  ASSERT_TRUE(GetRegistryDword(key_, u"ImageWidth", &width));
  EXPECT_EQ(width, 640u);

  host_.ClearLog();
  EXPECT_EQ(CamFreeBandwidth(nullptr, device_.context), STATUS_SUCCESS);
  ASSERT_TRUE(GetRegistryDword(key_, u"ImageWidth", &width));
  EXPECT_EQ(width, 0u);
  EXPECT_EQ(device_->ImageWidth | device_->ImageHeight, 0u);
  EXPECT_EQ(host_.Log(), std::vector<std::string>{"select 2 1"});
  host_.selectStatus = STATUS_UNSUCCESSFUL;
  EXPECT_EQ(CamFreeBandwidthEx(nullptr, device_.context, 0), STATUS_UNSUCCESSFUL);
}

}  // namespace
