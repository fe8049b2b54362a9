// The frame path: guards, byte counts, frame cycle, drops, routes, conversion
// and the frame-rate meter.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#include "core/companions.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"

namespace {

uint8_t ReadZero(void*, uint8_t) { return 0; }
void WriteNothing(void*, uint8_t*, uint32_t) {}
NTSTATUS RunNothing(void*, const char*) { return STATUS_SUCCESS; }
NTSTATUS WritePairsNothing(void*, const uint8_t*, uint32_t) { return STATUS_SUCCESS; }

// A camera with its companions started for one output size, developing by the
// image processor (Bayer on the wire at output size) unless told otherwise.
struct FramePathTest : ::testing::Test {
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
    ISPFunc_Init(&device->IspHandle, device.context, nullptr, u"OV2640", 1, ReadZero,
                 WriteNothing, RunNothing, ReadZero, WritePairsNothing);
    uint32_t wireW, wireH;
    ISPFunc_StartCapture(device->IspHandle, device.context, 2, width, height, &wireW, &wireH);
    device->FrameLengthOk = 1;
    ResetFrameRateMeter(device.context);
    output.assign(OutputBytes(), 0x55);
  }

  // Releases the companions; a test that starts the camera again in a loop
  // stops it first.
  void Stop() {
    if (device->IspHandle) ISPFunc_Exit(device->IspHandle, device.context, nullptr);
    if (device->SpefHandle) SPEF_Exit(device->SpefHandle);
    if (device->FuncHandle) FUNC_Exit(device->FuncHandle);
    device->IspHandle = device->SpefHandle = device->FuncHandle = 0;
  }

  void TearDown() override { Stop(); }

  uint32_t OutputBytes() const {
    const uint32_t pixels = device.context->ImageWidth * device.context->ImageHeight;
    switch (device.context->CurrentCompression) {
      case CompressionRGB24:
        return pixels * 3;
      case CompressionI420:
        return pixels * 3 / 2;
      default:
        return pixels * 2;
    }
  }

  // A flat Bayer frame of one level.
  std::vector<uint8_t> FlatRaw(uint8_t level) const {
    return std::vector<uint8_t>(size_t(device.context->ImageWidth) * device.context->ImageHeight * 2,
                                level);
  }

  uint32_t Frame(std::vector<uint8_t>& raw, uint32_t initialBytes = 0xFEEDu) {
    uint32_t bytes = initialBytes;
    EXPECT_EQ(CamProcessRawVideoFrameEx(nullptr, device.context, nullptr, output.data(),
                                        uint32_t(output.size()), raw.data(), uint32_t(raw.size()),
                                        0, &bytes, uint32_t(raw.size()), 0),
              STATUS_SUCCESS);
    return bytes;
  }

  static uint64_t Sum(const std::vector<uint8_t>& bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), uint64_t(0));
  }

  TestDevice device;
  std::vector<uint8_t> work;
  std::vector<uint8_t> output;
};

TEST_F(FramePathTest, BlankFrameIsPaintedWithoutAByteCount) {
  Start(CompressionRGB24, 160, 120);
  device->BlankFrameActive = 1;
  device->BlankFrameCount = 2;
  output.assign(11, 0);
  std::vector<uint8_t> raw = FlatRaw(200);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(device->BlankFrameActive, 1) << "frame " << i;
    EXPECT_EQ(Frame(raw), 0xFEEDu) << "BytesReturned is not written on the blank path";
  }
  EXPECT_EQ(output, std::vector<uint8_t>({7, 128, 7, 128, 7, 128, 7, 128, 7, 128, 7}));
  EXPECT_EQ(device->BlankFrameActive, 0);
  EXPECT_EQ(device->FrameCounter, 0u);
}

TEST_F(FramePathTest, FramesArriveUntouchedWhileTheWorkerReprograms) {
  struct Case {
    uint8_t command;
    bool developed;
  } cases[] = {{1, false}, {2, false}, {3, false}, {128, false}, {4, true}, {5, true}};
  for (const Case& c : cases) {
    Start(CompressionYUY2, 160, 120);
    device->WorkerCommand = c.command;
    KeSetEvent(&device->WorkerEvents[WorkerWakeEvent], 0, FALSE);
    std::vector<uint8_t> raw = FlatRaw(200);
    uint32_t bytes = Frame(raw);
    EXPECT_EQ(bytes, c.developed ? OutputBytes() : 0xFEEDu) << int(c.command);
    EXPECT_EQ(device->FrameCounter, c.developed ? 1u : 0u) << int(c.command);
    EXPECT_EQ(device->FrameTimeSamples, c.developed ? 0 : -1) << int(c.command);
    EXPECT_EQ(output[0] != 0x55, c.developed) << int(c.command);
    Stop();
  }
}

TEST_F(FramePathTest, ByteCountFollowsTheLengthTestAndEngineerMode) {
  struct Case {
    uint8_t lengthOk;
    uint32_t engineer;
    bool full;
  } cases[] = {{1, 0, true}, {0, 0, false}, {0, 2, true}, {0, 4, false}, {0, 6, true}, {1, 4, true}};
  for (const Case& c : cases) {
    Start(CompressionRGB24, 160, 120);
    device->FrameLengthOk = c.lengthOk;
    device->EngineerMode = c.engineer;
    std::vector<uint8_t> raw = FlatRaw(90);
    EXPECT_EQ(Frame(raw), c.full ? OutputBytes() : 0u) << int(c.lengthOk) << " " << c.engineer;
    EXPECT_EQ(device->FrameCounter, 1u) << "a bad frame still advances the cycle";
    EXPECT_NE(output[0], 0x55) << "a bad frame is still developed";
    Stop();
  }
}

TEST_F(FramePathTest, FrameCounterCyclesThroughTwentyFourFrames) {
  Start(CompressionI420, 160, 120);
  std::vector<uint8_t> raw = FlatRaw(90);
  for (int i = 0; i < 24; ++i) Frame(raw);
  EXPECT_EQ(device->FrameCounter, 24u);
  Frame(raw);
  EXPECT_EQ(device->FrameCounter, 1u);
}

TEST_F(FramePathTest, DroppedFramesRepeatTheLastPicture) {
  Start(CompressionRGB24, 160, 120);
  std::vector<uint8_t> bright = FlatRaw(220);
  std::vector<uint8_t> dark = FlatRaw(30);
  Frame(bright);
  const std::vector<uint8_t> brightPicture = output;
  device->FramesToDrop = 3;
  for (int i = 0; i < 3; ++i) {
    output.assign(output.size(), 0);
    EXPECT_EQ(Frame(dark), OutputBytes());
    EXPECT_EQ(output, brightPicture) << "dropped frame " << i;
  }
  EXPECT_EQ(device->FramesToDrop, 0u);
  EXPECT_EQ(device->FrameTimeSamples, 3) << "the meter runs for dropped frames";
  Frame(dark);
  EXPECT_LT(Sum(output), Sum(brightPicture));
}

TEST_F(FramePathTest, YuyvFromTheImageProcessorGoesStraightToTheOutput) {
  Start(CompressionYUY2, 160, 120);
  std::fill(work.begin(), work.end(), 0xA5);
  std::vector<uint8_t> raw = FlatRaw(128);
  EXPECT_EQ(Frame(raw), OutputBytes());
  EXPECT_TRUE(std::all_of(work.begin(), work.begin() + 160 * 120 * 2, [](uint8_t b) { return b == 0xA5; }));
  EXPECT_NE(output[0], 0x55);
}

TEST_F(FramePathTest, RgbOutputIsABottomUpBitmapOfTheWorkBuffer) {
  Start(CompressionRGB24, 160, 120);
  std::vector<uint8_t> raw = FlatRaw(0);
  // Bright top half, dark bottom half.
  std::fill(raw.begin(), raw.begin() + 160 * 60, 230);
  Frame(raw);
  uint64_t firstRows = std::accumulate(output.begin(), output.begin() + 160 * 3 * 10, uint64_t(0));
  uint64_t lastRows = std::accumulate(output.end() - 160 * 3 * 10, output.end(), uint64_t(0));
  EXPECT_LT(firstRows, lastRows) << "the bitmap's first rows are the picture's bottom";
}

TEST_F(FramePathTest, UnknownOutputFormatLeavesTheOutputAlone) {
  Start(0x3231564E /* NV12 */, 160, 120);
  output.assign(160 * 120 * 2, 0x55);
  std::vector<uint8_t> raw = FlatRaw(200);
  EXPECT_EQ(Frame(raw), output.size());
  EXPECT_TRUE(std::all_of(output.begin(), output.end(), [](uint8_t b) { return b == 0x55; }));
}

TEST_F(FramePathTest, OutputBufferSmallerThanThePictureIsNeverWrittenPast) {
  Start(CompressionRGB24, 320, 240);
  output.assign(320 * 240 * 3 - 1, 0x55);
  std::vector<uint8_t> raw = FlatRaw(200);
  EXPECT_EQ(Frame(raw), 0u);
  EXPECT_TRUE(std::all_of(output.begin(), output.end(), [](uint8_t b) { return b == 0x55; }));
}

TEST_F(FramePathTest, StillByKeyFiresWithTheNextFrame) {
  struct Case {
    uint32_t trigger, key, releaseCount;
    uint32_t expectTrigger;
    uint8_t expectFromKey;
  } cases[] = {
      {1, 1, 0, 2, 1},          {1, 1, 7, 2, 0},          {1, 0, 0xFFFFFFFF, 2, 0},
      {1, 0, 7, 1, 0xCC},       {0, 1, 0, 0, 0xCC},
  };
  for (const Case& c : cases) {
    Start(CompressionYUY2, 160, 120);
    device->StillPin = 2;
    device->StillTriggerState = c.trigger;
    device->ShutterKeyState = c.key;
    device->ShutterReleaseCount = c.releaseCount;
    device->StillFromKey = 0xCC;
    std::vector<uint8_t> raw = FlatRaw(100);
    Frame(raw);
    EXPECT_EQ(device->StillTriggerState, c.expectTrigger);
    EXPECT_EQ(device->StillFromKey, c.expectFromKey);
    Stop();
  }
}

TEST_F(FramePathTest, FocusMeasurementPostsAFocusStep) {
  struct Case {
    uint32_t featureFlags;
    uint32_t lensKind;
    bool posted;
  } cases[] = {{1, 1, true}, {1, 2, true}, {1, 0, false}, {0, 1, false}, {0x10, 2, false}};
  for (const Case& c : cases) {
    Start(CompressionYUY2, 160, 120);
    device->FeatureFlags = c.featureFlags;
    device->IspType = 1 | c.lensKind << 16;
    std::vector<uint8_t> raw = FlatRaw(100);
    Frame(raw);
    EXPECT_EQ(device->WorkerCommand, c.posted ? WorkerFocusStep : WorkerNone);
    EXPECT_EQ(KeReadStateEvent(&device->WorkerEvents[WorkerWakeEvent]), c.posted ? 1 : 0);
    if (c.posted) {
      // A pending focus step leaves the frame path running.
      EXPECT_EQ(Frame(raw), OutputBytes());
      EXPECT_EQ(device->FrameCounter, 2u);
    }
    Stop();
  }
}

TEST(FramePath, WireSizeFollowsTheScaleMode) {
  struct Case {
    uint8_t scale;
    uint32_t w, h;
  } cases[] = {{0, 640, 480}, {1, 640, 480}, {2, 1280, 960}, {3, 320, 240},
               {4, 2560, 1920}, {5, 160, 120}, {6, 640, 480}, {255, 640, 480}};
  for (const Case& c : cases) {
    TestDevice device;
    device.SetMode(CompressionRGB24, 640, 480, c.scale, 1, 0);
    uint32_t w, h;
    GetWireSize(device.context, &w, &h);
    EXPECT_EQ(w, c.w) << int(c.scale);
    EXPECT_EQ(h, c.h) << int(c.scale);
  }
}

// The meter averages the last 40 intervals and reports frames per second
// times 100 from the 21st interval on.
TEST(FrameRateMeter, ReportsInEngineerModeAfterTwentyOneIntervals) {
  SetKernelClockMode(KernelClockMode::Virtual);
  ResetRegistry();
  DEVICE_OBJECT* pdo = reinterpret_cast<DEVICE_OBJECT*>(0x740);
  const std::u16string key =
      u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\{6bdd1fc6}\\0007";
  ASSERT_TRUE(BindDeviceRegistryKey(pdo, key));
  // Start just below a wrap of the clock's low word: intervals must not care.
  SetKernelClock((int64_t(0x1D0) << 32) + 0xFFFFFFFFLL - 3000000);

  TestDevice device;
  device->PhysicalDeviceObject = pdo;
  device->EngineerMode = 4;
  ResetFrameRateMeter(device.context);
  EXPECT_EQ(device->FrameTimeSamples, -1);
  uint32_t value = 0;
  for (int frame = 1; frame <= 21; ++frame) {
    AdvanceKernelClock(333333);  // 30 frames a second
    UpdateFrameRateMeter(device.context);
  }
  EXPECT_EQ(device->FrameTimeSamples, 20) << "the first frame only starts the clock";
  EXPECT_FALSE(GetRegistryDword(key, u"FrameRateNumber", &value)) << "20 intervals are too few";
  AdvanceKernelClock(333333);
  UpdateFrameRateMeter(device.context);
  ASSERT_TRUE(GetRegistryDword(key, u"FrameRateNumber", &value));
  EXPECT_EQ(value, 3000u);  // 21 x 10^8 / ((21 x 333333 + 5) / 10) = 3000.004

  // Forty intervals later only the new rate counts: 25 frames a second.
  for (int frame = 0; frame < 40; ++frame) {
    AdvanceKernelClock(400000);
    UpdateFrameRateMeter(device.context);
  }
  EXPECT_EQ(device->FrameTimeSamples, 40);
  EXPECT_EQ(device->FrameTimeSum, 40u * 400000u);
  ASSERT_TRUE(GetRegistryDword(key, u"FrameRateNumber", &value));
  EXPECT_EQ(value, 2500u);
  UnbindDeviceRegistryKey(pdo);
  SetKernelClockMode(KernelClockMode::Real);
}

TEST(FrameRateMeter, WritesNothingOutsideEngineerModeOrWithinOneMicrosecond) {
  SetKernelClockMode(KernelClockMode::Virtual);
  ResetRegistry();
  DEVICE_OBJECT* pdo = reinterpret_cast<DEVICE_OBJECT*>(0x741);
  const std::u16string key = u"\\REGISTRY\\MACHINE\\SYSTEM\\Meter\\0001";
  ASSERT_TRUE(BindDeviceRegistryKey(pdo, key));
  for (uint32_t engineer : {0u, 4u}) {
    TestDevice device;
    device->PhysicalDeviceObject = pdo;
    device->EngineerMode = engineer;
    ResetFrameRateMeter(device.context);
    // Engineer mode 0 at a normal rate; engineer mode 4 with all frames at
    // the same instant, which would divide by zero.
    for (int frame = 0; frame < 30; ++frame) {
      if (engineer == 0) AdvanceKernelClock(333333);
      UpdateFrameRateMeter(device.context);
    }
    uint32_t value;
    EXPECT_FALSE(GetRegistryDword(key, u"FrameRateNumber", &value)) << engineer;
  }
  UnbindDeviceRegistryKey(pdo);
  SetKernelClockMode(KernelClockMode::Real);
}

}  // namespace
