// The driver's own route: the route each wire layout takes, the sensor
// repairs, the width 484 step, and the raw buffer the frame path asks for.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "core/companions.h"
#include "pipeline/frame_pipeline.h"
#include "tests/device_fixture.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 random(seed);
  Bytes b(n);
  for (uint8_t& x : b) x = uint8_t(random());
  return b;
}

void SetSensor(DeviceContext* context, const char16_t* name) {
  std::memset(context->SensorName, 0, sizeof context->SensorName);
  for (uint32_t i = 0; name[i] && i + 1 < SensorNameChars; ++i) context->SensorName[i] = name[i];
}

struct OwnRoute : ::testing::Test {
  void SetUp() override { device->FuncHandle = FUNC_Init(); }
  void TearDown() override { FUNC_Exit(device->FuncHandle); }

  // Runs the route for output width x height; the wire size follows the scale
  // mode. Returns the picture; `raw` is left as the route left it.
  Bytes Convert(Bytes& raw, uint32_t width, uint32_t height, uint32_t wireWidth,
                uint32_t wireHeight, uint8_t fill = 0xA5) {
    Bytes picture(size_t(width) * height * 2, fill);
    ConvertRawToPicture(device.context, picture.data(), raw.data(), width, height, wireWidth,
                        wireHeight);
    return picture;
  }

  Bytes Developed(const Bytes& raw, uint32_t wireWidth, uint32_t wireHeight, uint32_t width,
                  uint32_t height) {
    Bytes picture(size_t(width) * height * 2, 0);
    FUNC_RawToYuv(device->FuncHandle, raw.data(), wireWidth, wireHeight, picture.data(), width,
                  height);
    return picture;
  }

  TestDevice device;
};

enum class Expect { Developed, Shrunk2, Shrunk4, Grown2, Grown4, Copied, Untouched };

// The route by WireFormat, the output format, the scale mode and face
// tracking (at zoom level 0, where planning and scaling do nothing).
TEST_F(OwnRoute, EachWireLayoutTakesItsRoute) {
  const struct {
    uint8_t wireFormat;
    uint32_t compression;
    uint8_t scaleMode;
    uint8_t tracking;
    uint32_t width, height;
    Expect expect;
  } cases[] = {
      {1, CompressionYUY2, 0, 0, 64, 48, Expect::Developed},
      {0, CompressionRGB24, 2, 0, 64, 48, Expect::Developed},
      {1, CompressionI420, 3, 1, 64, 48, Expect::Developed},
      {1, CompressionRGB24, 0, 1, 160, 120, Expect::Developed},  // zoom on the picture
      {2, CompressionRGB24, 0, 0, 64, 48, Expect::Copied},
      {0, CompressionYUY2, 2, 0, 64, 48, Expect::Shrunk2},
      {2, CompressionYUY2, 4, 0, 32, 24, Expect::Shrunk4},
      {2, CompressionYUY2, 3, 0, 64, 48, Expect::Grown2},
      {2, CompressionYUY2, 5, 0, 64, 48, Expect::Grown4},
      {2, CompressionYUY2, 2, 1, 64, 48, Expect::Shrunk2},  // tracked: wire size, then resample
      {2, CompressionYUY2, 5, 1, 64, 48, Expect::Grown4},
      {3, CompressionYUY2, 0, 0, 64, 48, Expect::Untouched},
      {0, CompressionI420, 0, 0, 64, 48, Expect::Untouched},
      {7, CompressionRGB24, 0, 0, 64, 48, Expect::Untouched},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "wire " << int(c.wireFormat) << " scale "
                                      << int(c.scaleMode) << " tracking " << int(c.tracking));
    device.SetMode(c.compression, c.width, c.height, c.scaleMode, c.wireFormat, 0);
    device->FaceTrackingOn = c.tracking;
    uint32_t ww, wh;
    GetWireSize(device.context, &ww, &wh);
    const size_t bytesPerPixel = c.expect == Expect::Developed ? 1 : 2;
    Bytes raw = RandomBytes(size_t(ww) * wh * bytesPerPixel, c.width + c.scaleMode);
    const Bytes original = raw;
    const Bytes picture = Convert(raw, c.width, c.height, ww, wh);

    Bytes expected(picture.size(), 0);
    switch (c.expect) {
      case Expect::Developed:
        expected = Developed(original, ww, wh, c.width, c.height);
        break;
      case Expect::Shrunk2:
        ShrinkYuy2By2(expected.data(), original.data(), c.width, c.height);
        break;
      case Expect::Shrunk4:
        ShrinkYuy2By4(expected.data(), original.data(), c.width, c.height);
        break;
      case Expect::Grown2:
        GrowYuy2By2(expected.data(), original.data(), c.width, c.height);
        break;
      case Expect::Grown4:
        GrowYuy2By4(expected.data(), original.data(), c.width, c.height);
        break;
      case Expect::Copied:
        expected = original;
        break;
      case Expect::Untouched:
        expected.assign(picture.size(), 0xA5);
        break;
    }
    EXPECT_EQ(picture, expected);
  }
}

// The last eight bytes of a line a b c d e f g h become a b a b c d c d; the
// two lines before the last two are copied down and then averaged with the
// lines two further up. Only at output widths 800 and 1600.
TEST_F(OwnRoute, Mi2020RepairRewritesTheLastColumnsAndLines) {
  const uint32_t height = 8;
  for (uint32_t width : {800u, 1600u, 640u}) {
    SCOPED_TRACE(width);
    SetSensor(device.context, u"MI2020");
    device.SetMode(CompressionRGB24, width, height, 0, 1, 0);
    Bytes raw(size_t(width) * height);
    for (uint32_t y = 0; y < height; ++y)
      for (uint32_t x = 0; x < width; ++x) raw[y * width + x] = uint8_t(10 * y + (x % 7));
    for (uint32_t y = 0; y < height; ++y)
      for (uint32_t k = 0; k < 8; ++k) raw[y * width + width - 8 + k] = uint8_t(100 + 10 * y + k);
    const Bytes original = raw;
    Convert(raw, width, height, width, height);
    if (width == 640) {
      EXPECT_EQ(raw, original);
      continue;
    }
    auto at = [&](uint32_t x, uint32_t y) { return raw[y * width + x]; };
    auto was = [&](uint32_t x, uint32_t y) { return original[y * width + x]; };
    // Lines 0 to 3 keep their body, and their tails read a b a b c d c d.
    for (uint32_t y = 0; y < 4; ++y) {
      EXPECT_EQ(at(5, y), was(5, y));
      const uint8_t tail[8] = {uint8_t(100 + 10 * y), uint8_t(101 + 10 * y), uint8_t(100 + 10 * y),
                               uint8_t(101 + 10 * y), uint8_t(102 + 10 * y), uint8_t(103 + 10 * y),
                               uint8_t(102 + 10 * y), uint8_t(103 + 10 * y)};
      EXPECT_EQ(0, std::memcmp(&raw[y * width + width - 8], tail, 8)) << "line " << y;
    }
    // Lines 6 and 7: copies of lines 4 and 5 (tails repaired).
    EXPECT_EQ(at(5, 6), was(5, 4));
    EXPECT_EQ(at(5, 7), was(5, 5));
    EXPECT_EQ(at(width - 6, 6), 140);  // line 4's a
    // Lines 4 and 5: the mean of themselves and lines 2 and 3.
    EXPECT_EQ(at(5, 4), (was(5, 4) + was(5, 2)) / 2);
    EXPECT_EQ(at(5, 5), (was(5, 5) + was(5, 3)) / 2);
    EXPECT_EQ(at(width - 1, 5), (153 + 133) / 2);  // d of lines 5 and 3
  }
}

// At 1280 wide bytes 1277, 1278, 1279 of every line repeat 1275, 1274, 1275.
// Width 1024 reaches the route as the fixed 1280 x 960 frame, so it applies.
TEST_F(OwnRoute, Ov2640RepairRepeatsTheColumnsBeforeTheLastThree) {
  SetSensor(device.context, u"OV2640");
  device.SetMode(CompressionRGB24, 1024, 768, 2, 1, 0);
  Bytes raw = RandomBytes(1280 * 960, 5);
  const Bytes original = raw;
  Bytes picture(WorkBufferBytes);
  ConvertRawToPicture(device.context, picture.data(), raw.data(), 1280, 960, 1280, 960);
  for (uint32_t y : {0u, 479u, 959u}) {
    const uint8_t* line = &raw[y * 1280];
    const uint8_t* was = &original[y * 1280];
    EXPECT_EQ(0, std::memcmp(line, was, 1277)) << y;
    EXPECT_EQ(line[1277], was[1275]) << y;
    EXPECT_EQ(line[1278], was[1274]) << y;
    EXPECT_EQ(line[1279], was[1275]) << y;
  }

  // Another output width, or another name, leaves the frame alone.
  const struct {
    const char16_t* name;
    uint32_t width, height;
    uint8_t scaleMode;
  } others[] = {{u"OV2640", 640, 2, 2}, {u"OV264", 1280, 4, 0}, {u"OV26400", 1280, 4, 0}};
  for (const auto& c : others) {
    SetSensor(device.context, c.name);
    device.SetMode(CompressionRGB24, c.width, c.height, c.scaleMode, 1, 0);
    Bytes other = RandomBytes(1280 * 4, 6);
    const Bytes before = other;
    Convert(other, c.width, c.height, 1280, 4);
    EXPECT_EQ(other, before) << c.width;
  }
}

// The OV7670's first line is replaced by its second, at output width.
TEST_F(OwnRoute, Ov7670FirstLineIsTheSecond) {
  SetSensor(device.context, u"OV7670");
  device.SetMode(CompressionYUY2, 640, 480, 0, 2, 0);
  Bytes raw = RandomBytes(640 * 480 * 2, 7);
  const Bytes picture = Convert(raw, 640, 480, 640, 480);
  EXPECT_EQ(0, std::memcmp(&raw[0], &raw[1280], 1280));
  EXPECT_EQ(picture, raw);
}

// 484 wide: black (0, 128) all round a 320-pixel picture at pixels 82 to 401.
// Per group of six source pixels: luma p0, (p1 + p2) / 2, p3, (p4 + p5) / 2;
// per three source pairs: chroma c0, (c1 + c2) / 2.
TEST_F(OwnRoute, Width484SqueezesThreePixelsIntoTwoInABlackFrame) {
  const uint32_t width = 484, height = 6;
  device.SetMode(CompressionYUY2, width, height, 0, 2, 0);
  Bytes raw = RandomBytes(width * height * 2, 484);
  const Bytes picture = Convert(raw, width, height, width, height);
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* s = &raw[y * 968];
    const uint8_t* o = &picture[y * 968];
    for (uint32_t x = 0; x < width; ++x) {
      const uint8_t luma = o[2 * x];
      const uint8_t chroma = o[2 * x + 1];
      if (x < 82 || x >= 402) {
        ASSERT_EQ(luma, 0) << x;
        ASSERT_EQ(chroma, 128) << x;
        continue;
      }
      const uint32_t g = (x - 82) / 4, k = (x - 82) % 4;
      const uint32_t p = 6 * g;  // first source pixel of the group
      const uint32_t expectLuma = k == 0   ? s[2 * p]
                                  : k == 1 ? (s[2 * (p + 1)] + s[2 * (p + 2)]) / 2
                                  : k == 2 ? s[2 * (p + 3)]
                                           : (s[2 * (p + 4)] + s[2 * (p + 5)]) / 2;
      const uint32_t pair = 3 * g;
      const uint32_t c = (x % 2) ? 2 : 0;  // Cb at even pixels, Cr at odd
      const uint32_t expectChroma =
          k < 2 ? s[4 * pair + 1 + c] : (s[4 * (pair + 1) + 1 + c] + s[4 * (pair + 2) + 1 + c]) / 2;
      ASSERT_EQ(luma, expectLuma) << "line " << y << " pixel " << x;
      ASSERT_EQ(chroma, expectChroma) << "line " << y << " pixel " << x;
    }
  }
}

// The frame path asks the host's raw buffer for the wire frame of the mode,
// and for the fixed 1280 x 960 frame at width 1024.
TEST_F(OwnRoute, RawBytesFollowWireLayoutAndScaleMode) {
  const struct {
    uint32_t compression;
    uint8_t wireFormat, scaleMode;
    uint32_t width, height, bytes;
  } cases[] = {
      {CompressionRGB24, 1, 0, 640, 480, 307200},  {CompressionRGB24, 0, 2, 640, 480, 1228800},
      {CompressionYUY2, 0, 3, 640, 480, 153600},   {CompressionYUY2, 2, 5, 160, 120, 2400},
      {CompressionI420, 0, 0, 320, 240, 115200},   {CompressionI420, 3, 4, 160, 120, 460800},
      {CompressionYUY2, 2, 2, 1024, 768, 2457600}, {CompressionRGB24, 1, 0, 1024, 768, 1228800},
  };
  for (const auto& c : cases) {
    device.SetMode(c.compression, c.width, c.height, c.scaleMode, c.wireFormat, 0);
    EXPECT_EQ(OwnRouteRawBytes(device.context), c.bytes)
        << c.width << " wire " << int(c.wireFormat) << " scale " << int(c.scaleMode);
  }
}

}  // namespace

namespace {

// A raw buffer shorter than the wire frame of the mode is not developed: the
// frame is given no bytes and the picture is not touched.
TEST(OwnRouteFramePath, ARawBufferShorterThanTheWireFrameIsNotDeveloped) {
  TestDevice device;
  device.SetMode(CompressionYUY2, 64, 48, 2, 2, 0);  // wire 128 x 96 YUYV
  std::vector<uint8_t> work(WorkBufferBytes, 0x11);
  device->WorkBuffer = work.data();
  device->FrameLengthOk = 1;
  for (uint32_t rawBytes : {128u * 96 * 2 - 1, 128u * 96 * 2}) {
    std::vector<uint8_t> raw(rawBytes, 0x80);
    std::vector<uint8_t> output(64 * 48 * 2, 0x33);
    uint32_t returned = 0xFEED;
    ProcessRawFrame(nullptr, device.context, nullptr, output.data(), uint32_t(output.size()),
                    raw.data(), rawBytes, 0, &returned);
    const bool fits = rawBytes == 128u * 96 * 2;
    EXPECT_EQ(returned, fits ? output.size() : 0u) << rawBytes;
    EXPECT_EQ(output[0], fits ? 0x80 : 0x33) << rawBytes;
  }
}

}  // namespace
