// The frame path: guards, byte counts, frame cycle, drops, routes, conversion
// and the frame-rate meter.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <tuple>
#include <vector>

#include "core/companions.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"
#include "tests/kernel_test_clock.h"

namespace {

uint8_t ReadZero(void*, uint8_t) { return 0; }
void WriteNothing(void*, uint8_t*, uint32_t) {}
NTSTATUS RunNothing(void*, const char*) { return STATUS_SUCCESS; }
NTSTATUS WritePairsNothing(void*, const uint8_t*, uint32_t) { return STATUS_SUCCESS; }

bool All(const std::vector<uint8_t>& bytes, size_t count, uint8_t value) {
  return std::all_of(bytes.begin(), bytes.begin() + count,
                     [value](uint8_t b) { return b == value; });
}

// A camera with its companions started for one output size, developing by the
// image processor (Bayer on the wire at output size) unless told otherwise.
struct FramePathTest : ::testing::Test {
  // Starts again from a clean record; stops the companions of a previous start.
  void Start(uint32_t compression, uint32_t width, uint32_t height, uint8_t pipeline = 1) {
    Stop();
    std::memset(device.context, 0, sizeof(DeviceContext));
    for (KEVENT& event : device->WorkerEvents) KeInitializeEvent(&event, NotificationEvent, FALSE);
    device.SetMode(compression, width, height, 0, 1, pipeline);
    work.assign(WorkBufferBytes, 0);
    device->WorkBuffer = work.data();
    device->PropertyRecords.ColorEnable.Value = 1;
    device->SpefCategory = 99;
    device->FuncHandle = FUNC_Init();
    device->SpefHandle = SPEF_Init(u"\\??\\C:\\Camera");
    ISPFunc_Init(&device->IspHandle, device.context, nullptr, u"OV2640", 1, ReadZero, WriteNothing,
                 RunNothing, ReadZero, WritePairsNothing);
    uint32_t wireW, wireH;
    ISPFunc_StartCapture(device->IspHandle, device.context, 2, width, height, &wireW, &wireH);
    device->FrameLengthOk = 1;
    ResetFrameRateMeter(device.context);
    const uint32_t pixels = width * height;
    const uint32_t halves = compression == CompressionRGB24  ? 6
                            : compression == CompressionI420 ? 3
                                                             : 4;
    output.assign(pixels * halves / 2, 0x55);
    raw.assign(size_t(pixels) * 2, 0);
  }
  void Stop() {
    if (device->IspHandle) ISPFunc_Exit(device->IspHandle, device.context, nullptr);
    if (device->SpefHandle) SPEF_Exit(device->SpefHandle);
    if (device->FuncHandle) FUNC_Exit(device->FuncHandle);
    device->IspHandle = device->SpefHandle = device->FuncHandle = 0;
  }
  void TearDown() override { Stop(); }

  // Develops `raw` filled with `level` (or as it stands, for -1).
  uint32_t Frame(int level = -1) {
    if (level >= 0) std::fill(raw.begin(), raw.end(), uint8_t(level));
    uint32_t bytes = 0xFEEDu;
    EXPECT_EQ(CamProcessRawVideoFrameEx(nullptr, device.context, nullptr, output.data(),
                                        uint32_t(output.size()), raw.data(), uint32_t(raw.size()),
                                        0, &bytes, uint32_t(raw.size()), 0),
              STATUS_SUCCESS);
    return bytes;
  }
  static uint64_t Sum(std::vector<uint8_t>::const_iterator from, size_t count) {
    return std::accumulate(from, from + count, uint64_t(0));
  }

  TestDevice device;
  std::vector<uint8_t> work, output, raw;
};

TEST_F(FramePathTest, BlankFrameIsPaintedWithoutAByteCount) {
  Start(CompressionRGB24, 160, 120);
  device->BlankFrameActive = 1;
  device->BlankFrameCount = 2;
  output.assign(11, 0);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(device->BlankFrameActive, 1) << "frame " << i;
    EXPECT_EQ(Frame(200), 0xFEEDu) << "BytesReturned is not written on the blank path";
  }
  EXPECT_EQ(output, std::vector<uint8_t>({7, 128, 7, 128, 7, 128, 7, 128, 7, 128, 7}));
  EXPECT_EQ(device->BlankFrameActive, 0);
  EXPECT_EQ(device->FrameCounter, 0u);
}

// While the worker starts or stops capture frames go untouched; otherwise a
// frame is developed and counted even when it failed the length test, and its
// byte count is given when it passed or engineer mode bit 2 asks.
TEST_F(FramePathTest, ByteCountFollowsTheWorkerTheLengthTestAndEngineerMode) {
  enum { Untouched, Empty, Full };
  const std::tuple<uint8_t, uint8_t, uint32_t, int> cases[] = {
      {1, 1, 0, Untouched}, {2, 1, 0, Untouched}, {3, 1, 0, Untouched}, {128, 1, 0, Untouched},
      {4, 1, 0, Full},      {5, 1, 0, Full},      {0, 1, 0, Full},      {0, 0, 0, Empty},
      {0, 0, 2, Full},      {0, 0, 4, Empty},     {0, 0, 6, Full},      {0, 1, 4, Full}};
  for (auto [command, lengthOk, engineer, result] : cases) {
    SCOPED_TRACE(testing::Message() << int(command) << " " << int(lengthOk) << " " << engineer);
    Start(CompressionRGB24, 160, 120);
    device->WorkerCommand = command;
    if (command != 0) KeSetEvent(&device->WorkerEvents[WorkerWakeEvent], 0, FALSE);
    device->FrameLengthOk = lengthOk;
    device->EngineerMode = engineer;
    EXPECT_EQ(Frame(90), result == Full ? output.size() : result == Empty ? 0u : 0xFEEDu);
    EXPECT_EQ(device->FrameCounter, result == Untouched ? 0u : 1u);
    EXPECT_EQ(device->FrameTimeSamples, result == Untouched ? -1 : 0);
    EXPECT_EQ(output[0] != 0x55, result != Untouched);
  }
}

TEST_F(FramePathTest, FrameCounterCyclesThroughTwentyFourFrames) {
  Start(CompressionI420, 160, 120);
  for (int i = 0; i < 24; ++i) Frame(90);
  EXPECT_EQ(device->FrameCounter, 24u);
  Frame();
  EXPECT_EQ(device->FrameCounter, 1u);
}

TEST_F(FramePathTest, DroppedFramesRepeatTheLastPicture) {
  Start(CompressionRGB24, 160, 120);
  Frame(220);
  const std::vector<uint8_t> bright = output;
  device->FramesToDrop = 3;
  for (int i = 0; i < 3; ++i) {
    output.assign(output.size(), 0);
    EXPECT_EQ(Frame(30), output.size());
    EXPECT_EQ(output, bright) << "dropped frame " << i;
  }
  EXPECT_EQ(device->FramesToDrop, 0u);
  EXPECT_EQ(device->FrameTimeSamples, 3) << "the meter runs for dropped frames";
  Frame(30);
  EXPECT_LT(Sum(output.begin(), output.size()), Sum(bright.begin(), bright.size()));
}

TEST_F(FramePathTest, YuyvFromTheImageProcessorGoesStraightToTheOutput) {
  Start(CompressionYUY2, 160, 120);
  std::fill(work.begin(), work.end(), 0xA5);
  EXPECT_EQ(Frame(128), output.size());
  EXPECT_TRUE(All(work, 160 * 120 * 2, 0xA5));
  EXPECT_NE(output[0], 0x55);
}

TEST_F(FramePathTest, RgbOutputIsABottomUpBitmapOfTheWorkBuffer) {
  Start(CompressionRGB24, 160, 120);
  std::fill(raw.begin(), raw.begin() + 160 * 60, 230);  // bright top half, dark bottom half
  Frame();
  EXPECT_LT(Sum(output.begin(), 160 * 3 * 10), Sum(output.end() - 160 * 3 * 10, 160 * 3 * 10))
      << "the bitmap's first rows are the picture's bottom";
}

TEST_F(FramePathTest, UnknownFormatsAndShortBuffersLeaveTheOutputAlone) {
  const struct {
    uint32_t compression, width, height, outputBytes, bytesReturned;
  } cases[] = {{0x3231564E /* NV12 */, 160, 120, 160 * 120 * 2, 160 * 120 * 2},
               {CompressionRGB24, 320, 240, 320 * 240 * 3 - 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.width);
    Start(c.compression, c.width, c.height);
    output.assign(c.outputBytes, 0x55);
    EXPECT_EQ(Frame(200), c.bytesReturned);
    EXPECT_TRUE(All(output, output.size(), 0x55));
  }
}

TEST_F(FramePathTest, StillByKeyFiresWithTheNextFrame) {
  // Trigger, key, release count; the trigger and StillFromKey after the frame.
  const std::tuple<uint32_t, uint8_t, uint32_t, uint32_t, uint8_t> cases[] = {
      {1, 1, 0, 2, 1},
      {1, 1, 7, 2, 0},
      {1, 0, 0xFFFFFFFF, 2, 0},
      {1, 0, 7, 1, 0xCC},
      {0, 1, 0, 0, 0xCC}};
  for (auto [trigger, key, releaseCount, triggerAfter, fromKey] : cases) {
    SCOPED_TRACE(testing::Message() << trigger << int(key) << " " << releaseCount);
    Start(CompressionYUY2, 160, 120);
    device->StillPin = 2;
    device->StillTriggerState = trigger;
    device->ShutterKeyState = key;
    device->ShutterReleaseCount = releaseCount;
    device->StillFromKey = 0xCC;
    Frame(100);
    EXPECT_EQ(std::make_pair(device->StillTriggerState, device->StillFromKey),
              std::make_pair(triggerAfter, fromKey));
  }
}

TEST_F(FramePathTest, FocusMeasurementPostsAFocusStep) {
  const std::tuple<uint32_t, uint32_t, bool> cases[] = {
      {1, 1, 1}, {1, 2, 1}, {1, 0, 0}, {0, 1, 0}, {0x10, 2, 0}};
  for (auto [featureFlags, lensKind, posted] : cases) {
    SCOPED_TRACE(testing::Message() << featureFlags << "/" << lensKind);
    Start(CompressionYUY2, 160, 120);
    device->FeatureFlags = featureFlags;
    device->IspType = 1 | lensKind << 16;
    Frame(100);
    EXPECT_EQ(device->WorkerCommand, posted ? WorkerFocusStep : WorkerNone);
    EXPECT_EQ(KeReadStateEvent(&device->WorkerEvents[WorkerWakeEvent]), posted ? 1 : 0);
    if (posted) {
      // A pending focus step leaves the frame path running.
      EXPECT_EQ(Frame(), output.size());
      EXPECT_EQ(device->FrameCounter, 2u);
    }
  }
}

TEST(FramePath, WireSizeFollowsTheScaleMode) {
  const std::tuple<uint8_t, uint32_t, uint32_t> cases[] = {
      {0, 640, 480},   {1, 640, 480}, {2, 1280, 960}, {3, 320, 240},
      {4, 2560, 1920}, {5, 160, 120}, {6, 640, 480},  {255, 640, 480}};
  for (auto [scale, wireW, wireH] : cases) {
    TestDevice device;
    device.SetMode(CompressionRGB24, 640, 480, scale, 1, 0);
    uint32_t w, h;
    GetWireSize(device.context, &w, &h);
    EXPECT_EQ(std::make_pair(w, h), std::make_pair(wireW, wireH)) << int(scale);
  }
}

// The meter averages the last 40 intervals and reports frames per second
// times 100 from the 21st interval on, in engineer mode only.
TEST(FrameRateMeter, ReportsInEngineerModeAfterTwentyOneIntervals) {
  VirtualClock clock;
  ResetRegistry();
  DEVICE_OBJECT* pdo = reinterpret_cast<DEVICE_OBJECT*>(0x740);
  const std::u16string key =
      u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\{6bdd1fc6}\\0007";
  ASSERT_TRUE(BindDeviceRegistryKey(pdo, key));
  // Start just below a wrap of the clock's low word: intervals must not care.
  SetKernelClock((int64_t(0x1D0) << 32) + 0xFFFFFFFFLL - 3000000);
  uint32_t value = 0;
  // `frames` frames, `interval` (100 ns units) after each other.
  auto frames = [](TestDevice& device, int count, int64_t interval) {
    for (int frame = 0; frame < count; ++frame) {
      AdvanceKernelClock(interval);
      UpdateFrameRateMeter(device.context);
    }
  };
  // Nothing outside engineer mode, nor when all frames come at one instant
  // (which would divide by zero).
  for (uint32_t engineer : {0u, 4u}) {
    TestDevice device;
    device->PhysicalDeviceObject = pdo;
    device->EngineerMode = engineer;
    ResetFrameRateMeter(device.context);
    frames(device, 30, engineer == 0 ? 333333 : 0);
    EXPECT_FALSE(GetRegistryDword(key, u"FrameRateNumber", &value)) << engineer;
  }

  TestDevice device;
  device->PhysicalDeviceObject = pdo;
  device->EngineerMode = 4;
  ResetFrameRateMeter(device.context);
  EXPECT_EQ(device->FrameTimeSamples, -1);
  frames(device, 21, 333333);  // 30 frames a second
  EXPECT_EQ(device->FrameTimeSamples, 20) << "the first frame only starts the clock";
  EXPECT_FALSE(GetRegistryDword(key, u"FrameRateNumber", &value)) << "20 intervals are too few";
  frames(device, 1, 333333);
  EXPECT_TRUE(GetRegistryDword(key, u"FrameRateNumber", &value));
  EXPECT_EQ(value, 3000u);  // 21 x 10^8 / ((21 x 333333 + 5) / 10) = 3000.004
  // Forty intervals later only the new rate counts: 25 frames a second.
  frames(device, 40, 400000);
  EXPECT_EQ(std::make_pair(device->FrameTimeSamples, device->FrameTimeSum),
            std::make_pair(40, 40u * 400000u));
  EXPECT_TRUE(GetRegistryDword(key, u"FrameRateNumber", &value));
  EXPECT_EQ(value, 2500u);
  UnbindDeviceRegistryKey(pdo);
}

}  // namespace
