// The image signal processor library (ISPFunc_) against a floating-point BT.601
// reference: development, the nine property values, orientation, wire
// geometry, handle and pool discipline, custom properties and the vector rows.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "companions/isp_library.h"
#include "core/companions.h"
#include "platform/kernel_control.h"

namespace {

using Record = std::array<uint32_t, IspPropertyCount>;

// Brightness, Contrast, Saturation, Sharpness, WhiteBalance, Hue, Gamma,
// BackLight, ColorEnable.
constexpr Record NeutralRecord = {0, 64, 64, 0, 6500, 0, 100, 0, 1};

struct Rgb {
  double r, g, b;
};

// BT.601 studio range from full-range RGB.
struct Ycc {
  double y, cb, cr;
};
Ycc ReferenceYcc(Rgb c) {
  double y = 0.299 * c.r + 0.587 * c.g + 0.114 * c.b;
  return {16.0 + 219.0 * y / 255.0, 128.0 + 224.0 * (c.b - y) / (1.772 * 255.0),
          128.0 + 224.0 * (c.r - y) / (1.402 * 255.0)};
}

// The camera behind the five callbacks: a controller of 256 registers, and a
// count of every call into the sensor and the script.
struct FakeCamera {
  uint8_t controller[256] = {};
  int controllerReads = 0, otherCalls = 0;
};
FakeCamera* Cam(void* context) { return static_cast<FakeCamera*>(context); }
uint8_t ReadController(void* c, uint8_t reg) {
  return ++Cam(c)->controllerReads, Cam(c)->controller[reg];
}
uint8_t ReadSensor(void* c, uint8_t) { return ++Cam(c)->otherCalls, 0; }
void WriteSensor(void* c, uint8_t*, uint32_t) { ++Cam(c)->otherCalls; }
NTSTATUS RunSection(void* c, const char*) { return ++Cam(c)->otherCalls, STATUS_SUCCESS; }
NTSTATUS WritePairs(void* c, const uint8_t*, uint32_t) {
  return ++Cam(c)->otherCalls, STATUS_SUCCESS;
}

// One library instance on a fake camera.
struct Session {
  FakeCamera camera;
  uint64_t handle = 0;
  Session() {
    EXPECT_EQ(ISPFunc_Init(&handle, &camera, nullptr, u"OV7670", 1, ReadSensor, WriteSensor,
                           RunSection, ReadController, WritePairs),
              STATUS_SUCCESS);
  }
  ~Session() { ISPFunc_Exit(handle, &camera, nullptr); }
  // Programs the wire frame into the controller, starts, answers the wire size taken.
  std::pair<uint32_t, uint32_t> Start(uint32_t wireWidth, uint32_t wireHeight, uint8_t layout,
                                      uint32_t width, uint32_t height) {
    uint8_t* c = camera.controller;
    c[IspWireWidthLowRegister] = wireWidth & 0xFF;
    c[IspWireWidthHighRegister] = (wireWidth >> 8) & 0xFF;
    c[IspWireHeightLowRegister] = wireHeight & 0xFF;
    c[IspWireHeightHighRegister] = (wireHeight >> 8) & 0xFF;
    c[IspWireLayoutRegister] = layout;
    uint32_t w = 0, h = 0;
    EXPECT_EQ(ISPFunc_StartCapture(handle, &camera, 2, width, height, &w, &h), STATUS_SUCCESS);
    return {w, h};
  }
  std::vector<uint8_t> Develop(const std::vector<uint8_t>& raw, uint32_t width, uint32_t height,
                               const Record& record) {
    std::vector<uint8_t> out(size_t{width} * height * 2, 0xEE);
    EXPECT_EQ(
        ISPFunc_RawToImg(handle, &camera, 2, record.data(), out.data(), raw.data(), width, height),
        STATUS_SUCCESS);
    return out;
  }
};

// A Bayer frame (B G / G R) of a picture given per pixel in RGB.
std::vector<uint8_t> MakeBayer(uint32_t width, uint32_t height,
                               const std::function<Rgb(uint32_t, uint32_t)>& picture) {
  std::vector<uint8_t> raw(size_t{width} * height);
  for (uint32_t i = 0; i < width * height; ++i) {
    const uint32_t x = i % width, y = i / width;
    Rgb c = picture(x, y);
    raw[i] = uint8_t(
        std::lround((y & 1) == 0 ? ((x & 1) == 0 ? c.b : c.g) : ((x & 1) == 0 ? c.g : c.r)));
  }
  return raw;
}
std::vector<uint8_t> UniformBayer(uint32_t width, uint32_t height, Rgb colour) {
  return MakeBayer(width, height, [&](uint32_t, uint32_t) { return colour; });
}
std::vector<uint8_t> UniformYuyv(uint32_t width, uint32_t height, uint8_t y, uint8_t cb,
                                 uint8_t cr) {
  std::vector<uint8_t> frame;
  for (size_t i = 0; i < size_t{width} * height / 2; ++i) frame.insert(frame.end(), {y, cb, y, cr});
  return frame;
}

// Y, Cb and Cr of a pixel of a YUYV picture (`part` 0, 1, 2).
uint8_t At(const std::vector<uint8_t>& p, uint32_t width, uint32_t x, uint32_t y, int part = 0) {
  return part == 0 ? p[(size_t{y} * width + x) * 2]
                   : p[(size_t{y} * width + (x & ~1u)) * 2 + 2 * part - 1];
}

// Means of Y, Cb and Cr over a rectangle [x0, x1) x [y0, y1).
Ycc MeanOver(const std::vector<uint8_t>& p, uint32_t width, uint32_t x0, uint32_t x1, uint32_t y0,
             uint32_t y1) {
  double sum[3] = {};
  for (uint32_t y = y0; y < y1; ++y) {
    for (uint32_t x = x0; x < x1; ++x) {
      for (int part = 0; part < 3; ++part) sum[part] += At(p, width, x, y, part);
    }
  }
  double n = double(x1 - x0) * (y1 - y0);
  return {sum[0] / n, sum[1] / n, sum[2] / n};
}

struct Ratio {
  uint32_t wireWidth, wireHeight, width, height;
};
// Equal size, 2x, 1/2 (two taps), 1/4 (four), odd ratios enlarging one way
// and shrinking the other, and a large frame at 1.25 (two or three taps).
const Ratio kRatios[] = {{128, 96, 128, 96},  {64, 48, 128, 96}, {256, 192, 128, 96},
                         {512, 384, 128, 96}, {98, 74, 130, 62}, {1280, 960, 1024, 768}};

// The largest difference over a YUYV picture from the BT.601 values of `colour`.
int WorstError(const std::vector<uint8_t>& out, uint32_t w, uint32_t h, Rgb colour) {
  const Ycc e = ReferenceYcc(colour);
  const double expected[3] = {e.y, e.cb, e.cr};
  int worst = 0;
  for (uint32_t i = 0; i < w * h * 3; ++i) {
    const int got = At(out, w, i / 3 % w, i / 3 / w, i % 3);
    worst = std::max(worst, std::abs(got - int(std::lround(expected[i % 3]))));
  }
  return worst;
}

// At every ratio a uniform patch develops to its BT.601 values within one
// code value, and a picture dark but in its bottom-right quarter keeps that
// boundary at the same relative place (within the filters' reach).
TEST(IspDevelop, UniformPatchesGiveBt601ValuesAndEdgesStayAtEveryRatio) {
  const Rgb colours[] = {{255, 0, 0}, {0, 255, 0},     {0, 0, 255},
                         {0, 0, 0},   {255, 255, 255}, {210, 150, 120}};
  Session session;
  for (const Ratio& ratio : kRatios) {
    const uint32_t ww = ratio.wireWidth, wh = ratio.wireHeight, w = ratio.width, h = ratio.height;
    SCOPED_TRACE(testing::Message() << ww << "x" << wh << " -> " << w << "x" << h);
    session.Start(ww, wh, IspWireLayoutBayer, w, h);
    for (const Rgb& colour : colours) {
      // The largest frame is slow under the sanitizers: one colour is enough.
      if (ww == 1280 && colour.r != 210) continue;
      SCOPED_TRACE(testing::Message()
                   << "colour " << colour.r << "," << colour.g << "," << colour.b);
      EXPECT_LE(WorstError(session.Develop(UniformBayer(ww, wh, colour), w, h, NeutralRecord), w, h,
                           colour),
                1);
    }
    if (&ratio - kRatios >= 4) continue;  // edges on the first four ratios
    std::vector<uint8_t> raw = MakeBayer(ww, wh, [&](uint32_t x, uint32_t y) {
      return x >= ww / 2 && y >= wh / 2 ? Rgb{240, 240, 240} : Rgb{10, 10, 10};
    });
    std::vector<uint8_t> out = session.Develop(raw, w, h, NeutralRecord);
    // Demosaic and the filters reach about two wire pixels either side.
    const uint32_t margin = 3 + 2 * ((w + ww - 1) / ww);
    for (uint32_t y = 0; y < h; ++y) {
      for (uint32_t x = 0; x < w; ++x) {
        const bool darkSide = x + margin < w / 2 || y + margin < h / 2;
        const bool brightSide = x >= w / 2 + margin && y >= h / 2 + margin;
        const uint8_t luma = At(out, w, x, y);
        ASSERT_TRUE(!darkSide || luma <= 30) << x << "," << y << ": " << int(luma);
        ASSERT_TRUE(!brightSide || luma >= 215) << x << "," << y << ": " << int(luma);
      }
    }
  }
}

// At neutral settings a YUYV wire frame of legal studio values passes
// through, and doubled in both directions a uniform patch keeps its values.
TEST(IspDevelop, YuyvWireFramePassesThroughAtNeutralSettings) {
  std::mt19937 random(740);
  std::vector<uint8_t> raw(96 * 20 * 2);
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = uint8_t(16 + random() % ((i & 1) ? 225 : 220));
  Session session;
  session.Start(96, 20, IspWireLayoutYuyv, 96, 20);
  EXPECT_EQ(session.Develop(raw, 96, 20, NeutralRecord), raw) << "seed 740";
  session.Start(24, 24, IspWireLayoutYuyv, 48, 48);
  EXPECT_EQ(session.Develop(UniformYuyv(24, 24, 81, 90, 240), 48, 48, NeutralRecord),
            UniformYuyv(48, 48, 81, 90, 240));
}

// The chart the property cases look at: a grey ramp across the top half, an
// orange patch bottom left, a grey patch bottom right.
constexpr uint32_t ChartWidth = 128, ChartHeight = 64;
Rgb ChartPixel(uint32_t x, uint32_t y) {
  if (y < ChartHeight / 2) {
    double v = 20.0 + 215.0 * x / (ChartWidth - 1);
    return {v, v, v};
  }
  return x < ChartWidth / 2 ? Rgb{220, 140, 60} : Rgb{128, 128, 128};
}

struct ChartMeasure {
  // Mean luma at the dark end, a quarter of the way, the middle and the
  // bright end of the ramp.
  double rampLow, rampQuarter, rampMid, rampHigh;
  Ycc orange, grey;
};
ChartMeasure Measure(const std::vector<uint8_t>& p) {
  auto ramp = [&](uint32_t x) { return MeanOver(p, ChartWidth, x, x + 8, 4, 28).y; };
  return {ramp(4),
          ramp(36),
          ramp(60),
          ramp(116),
          MeanOver(p, ChartWidth, 8, 56, 40, 60),
          MeanOver(p, ChartWidth, 72, 120, 40, 60)};
}

uint32_t Signed(int32_t v) { return static_cast<uint32_t>(v); }

// Expected values come from the meanings in core/companions.h worked out in
// floating point on the neutral picture (0 read as neutral: the all-zero
// record below).
TEST(IspProperties, EachValueMovesThePictureTheRightWay) {
  using M = const ChartMeasure&;
  auto near = [](double actual, double expected, double tolerance) {
    return std::fabs(actual - expected) <= tolerance;
  };
  // The orange patch's chroma scaled by `cb` and `cr` about 128.
  auto chroma = [&](M n, M m, double cb, double cr) {
    return near(m.orange.cb - 128, cb * (n.orange.cb - 128), 1.5) &&
           near(m.orange.cr - 128, cr * (n.orange.cr - 128), 1.5);
  };
  auto gamma = [](double y, double power) { return 16 + 219 * std::pow((y - 16) / 219, power); };
  struct Case {
    const char* name;
    uint32_t index, value;
    std::function<bool(M n, M m)> holds;
  };
  const Case cases[] = {
      {"brightness +40 adds 40 to luma", IspBrightness, 40,
       [&](M n, M m) {
         return near(m.rampMid, n.rampMid + 40, 1) && near(m.rampLow, n.rampLow + 40, 1);
       }},
      {"out of range values are clamped: brightness 1000 is 127", IspBrightness, 1000,
       [&](M n, M m) { return near(m.rampLow, n.rampLow + 127, 1); }},
      {"contrast 128 doubles the distance from mid grey", IspContrast, 128,
       [&](M n, M m) {
         return near(m.rampQuarter, 126 + 2 * (n.rampQuarter - 126), 1.5) &&
                m.rampHigh - m.rampLow > n.rampHigh - n.rampLow;
       }},
      {"saturation 128 doubles chroma", IspSaturation, 128,
       [&](M n, M m) { return chroma(n, m, 2, 2) && near(m.orange.y, n.orange.y, 0); }},
      {"colour enable 0 gives monochrome", IspColorEnable, 0,
       [&](M n, M m) {
         return m.orange.cb == 128 && m.orange.cr == 128 && near(m.orange.y, n.orange.y, 0);
       }},
      {"hue 180 inverts chroma", IspHue, 180, [&](M n, M m) { return chroma(n, m, -1, -1); }},
      {"hue 90 turns (Cb, Cr) a quarter", IspHue, 90,
       [&](M n, M m) {
         return near(m.orange.cb - 128, -(n.orange.cr - 128), 1.5) &&
                near(m.orange.cr - 128, n.orange.cb - 128, 1.5);
       }},
      {"gamma 200 lifts mid tones by the square root", IspGamma, 200,
       [&](M n, M m) {
         return near(m.rampMid, gamma(n.rampMid, 0.5), 2) &&
                near(m.rampHigh, gamma(n.rampHigh, 0.5), 2) &&
                near(m.rampLow, gamma(n.rampLow, 0.5), 2);
       }},
      {"backlight 2 lifts the shadows, not the highlights", IspBackLight, 2,
       [&](M n, M m) {
         return m.rampLow > n.rampLow + 20 && m.rampHigh < n.rampHigh + 6 &&
                m.rampHigh >= n.rampHigh;
       }},
      {"a cool light setting turns grey red", IspWhiteBalance, 9000,
       [&](M, M m) { return m.grey.cb < 124 && m.grey.cr > 132; }},
  };
  Session session;
  std::vector<uint8_t> raw = MakeBayer(ChartWidth, ChartHeight, ChartPixel);
  const ChartMeasure neutral =
      Measure(session.Develop(raw, ChartWidth, ChartHeight, NeutralRecord));
  for (const Case& c : cases) {
    Record record = NeutralRecord;
    record[c.index] = c.value;
    EXPECT_TRUE(c.holds(neutral, Measure(session.Develop(raw, ChartWidth, ChartHeight, record))))
        << c.name;
  }
}

// Sharpness overshoots both sides of an edge and leaves flat areas and the
// replicated picture edge alone. An all-zero record (what the driver hands
// over before its controls are loaded, and what a null record reads as)
// gives neutral luma in monochrome: contrast, saturation and gamma read 0 as
// neutral, white balance is automatic on a grey that grey world leaves alone.
TEST(IspProperties, SharpnessEdgesAndAllZeroRecord) {
  const uint32_t width = 64, height = 16;
  std::vector<uint8_t> raw = MakeBayer(width, height, [](uint32_t x, uint32_t) {
    return x < 32 ? Rgb{60, 60, 60} : Rgb{180, 180, 180};
  });
  Session session;
  Record sharp = NeutralRecord;
  sharp[IspSharpness] = 15;
  std::vector<uint8_t> plain = session.Develop(raw, width, height, NeutralRecord);
  std::vector<uint8_t> out = session.Develop(raw, width, height, sharp);
  const int dark = At(plain, width, 8, 8), bright = At(plain, width, 56, 8);
  int lowest = 255, highest = 0;
  for (uint32_t x = 26; x < 38; ++x) {
    lowest = std::min<int>(lowest, At(out, width, x, 8));
    highest = std::max<int>(highest, At(out, width, x, 8));
  }
  EXPECT_TRUE(lowest < dark - 10 && highest > bright + 10) << lowest << " " << highest;
  EXPECT_EQ(std::tuple(At(out, width, 8, 8), At(out, width, 56, 8), At(out, width, 8, 0)),
            std::tuple(dark, bright, dark));

  // Grey in steps of whole Bayer quads, so that every channel sees the same mean.
  raw = MakeBayer(width, height, [](uint32_t x, uint32_t y) {
    double v = 16.0 + 6.0 * (x / 2) + 2.0 * (y / 2);
    return Rgb{v, v, v};
  });
  std::vector<uint8_t> grey = session.Develop(raw, width, height, NeutralRecord);
  for (size_t i = 1; i < grey.size(); i += 2) grey[i] = 128;
  EXPECT_EQ(session.Develop(raw, width, height, Record{}), grey);
  std::vector<uint8_t> none(grey.size());
  ASSERT_EQ(ISPFunc_RawToImg(session.handle, &session.camera, 2, nullptr, none.data(), raw.data(),
                             width, height),
            STATUS_SUCCESS);
  EXPECT_EQ(none, grey);
}

// A grey scene under a reddish light comes out grey; so does the same grey
// in YUYV off the wire (Y 113, Cb 112, Cr 151 is 150, 100, 80 in BT.601),
// balanced through the YCbCr -> RGB -> YCbCr matrix, landing where the Bayer
// frame did.
TEST(IspProperties, AutomaticWhiteBalanceGreysATintedScene) {
  const uint32_t width = 64, height = 48;
  std::vector<uint8_t> raw = UniformBayer(width, height, {150, 100, 80});
  Session session;
  Record automatic = NeutralRecord;
  automatic[IspWhiteBalance] = 0;
  auto mean = [&](const std::vector<uint8_t>& frame, const Record& record) {
    return MeanOver(session.Develop(frame, width, height, record), width, 0, width, 0, height);
  };
  Ycc fixed = mean(raw, NeutralRecord), balanced = mean(raw, automatic);
  EXPECT_GT(fixed.cr, 140) << "the tint shows at a fixed 6500 K";
  EXPECT_NEAR(balanced.cb, 128, 1);
  EXPECT_NEAR(balanced.cr, 128, 1);
  session.Start(width, height, IspWireLayoutYuyv, width, height);
  Ycc wire = mean(UniformYuyv(width, height, 113, 112, 151), automatic);
  EXPECT_NEAR(wire.cb, 128, 1.5);
  EXPECT_NEAR(wire.cr, 128, 1.5);
  EXPECT_NEAR(wire.y, balanced.y, 1.5);
}

// Equal size and enlarged from an odd wire width; 33 pixel pairs a row, so
// the middle pair stays in place.
TEST(IspOrientation, MirrorAndFlipReverseGradients) {
  const uint32_t width = 66, height = 32;
  for (auto [wireWidth, wireHeight] : {std::pair{66u, 32u}, {33u, 16u}}) {
    SCOPED_TRACE(wireWidth);
    Session session;
    session.Start(wireWidth, wireHeight, IspWireLayoutBayer, width, height);
    std::vector<uint8_t> raw = MakeBayer(wireWidth, wireHeight, [&](uint32_t x, uint32_t y) {
      return Rgb{40.0 + 3 * x, 30.0 + 2 * x + 4 * y, 200.0 - 5 * y};
    });
    std::vector<uint8_t> plain = session.Develop(raw, width, height, NeutralRecord), want = plain;
    for (uint32_t mirror = 0; mirror < 2; ++mirror) {
      for (uint32_t flip = 0; flip < 2; ++flip) {
        ASSERT_EQ(ISPFunc_Rotate(session.handle, &session.camera, mirror, flip), STATUS_SUCCESS);
        for (uint32_t i = 0; i < width * height; ++i) {
          const uint32_t x = i % width, y = i / width;
          const uint32_t sx = mirror ? width - 1 - x : x, sy = flip ? height - 1 - y : y;
          want[2 * i] = At(plain, width, sx, sy);
          want[2 * i + 1] = At(plain, width, sx, sy, 1 + (x & 1));  // the pair's Cb, Cr
        }
        EXPECT_EQ(session.Develop(raw, width, height, NeutralRecord), want)
            << "mirror " << mirror << " flip " << flip;
      }
    }
  }
}

// Output size 320 x 240 throughout. StartCapture reads only the controller.
TEST(IspGeometry, StartCaptureLearnsTheWireFrameFromTheController) {
  struct Case {
    const char* name;
    uint32_t registerWidth, registerHeight;
    uint8_t layout;
    uint32_t expectWidth, expectHeight;
  };
  const uint8_t B = IspWireLayoutBayer, Y = IspWireLayoutYuyv;
  const Case cases[] = {
      {"programmed Bayer", 640, 480, B, 640, 480},
      {"programmed YUYV", 160, 120, Y, 160, 120},
      {"YUYV is taken an even width", 161, 120, Y, 160, 120},
      {"width 0: the output size", 0, 480, B, 320, 240},
      {"largest frame", 1600, 1200, B, 1600, 1200},
      {"too wide: the output size", 1601, 1200, B, 320, 240},
      {"too high: the output size", 1600, 1201, B, 320, 240},
      {"high bytes count", 0x0500, 0x03C0, B, 1280, 960},
  };
  for (const Case& c : cases) {
    Session session;
    EXPECT_EQ(session.Start(c.registerWidth, c.registerHeight, c.layout, 320, 240),
              std::pair(c.expectWidth, c.expectHeight))
        << c.name;
    EXPECT_GT(session.camera.controllerReads, 0) << "context handed back as given";
    EXPECT_EQ(session.camera.otherCalls, 0);
  }
}

// A capture stopped after YUYV develops the next frame as Bayer of the output
// size (as one never started does: the property tests).
TEST(IspGeometry, StoppedCaptureDevelopsTheOutputSizeInBayer) {
  const uint32_t width = 32, height = 16;
  const Rgb colour = {200, 100, 50};
  Session session;
  session.Start(8, 8, IspWireLayoutYuyv, width, height);
  ASSERT_EQ(ISPFunc_StopCapture(session.handle, &session.camera), STATUS_SUCCESS);
  std::vector<uint8_t> raw = UniformBayer(width, height, colour);
  EXPECT_LE(WorstError(session.Develop(raw, width, height, NeutralRecord), width, height, colour),
            1);
}

// A null handle does nothing in any call; bad frame arguments on a good
// handle are refused and leave the destination untouched.
TEST(IspHandle, NullHandleAndBadFrameArgumentsAreRefused) {
  std::vector<uint8_t> raw(1602 * 2 * 2, 77), out(64 * 16 * 2, 0x5A);
  const std::vector<uint8_t> untouched = out;
  uint32_t w = 7, h = 9;
  const uint32_t* neutral = NeutralRecord.data();
  for (NTSTATUS status : {ISPFunc_RawToImg(0, nullptr, 2, neutral, out.data(), raw.data(), 64, 16),
                          ISPFunc_StartCapture(0, nullptr, 2, 64, 16, &w, &h),
                          ISPFunc_StopCapture(0, nullptr), ISPFunc_StreamStateNotify(0, nullptr, 3),
                          ISPFunc_Rotate(0, nullptr, 1, 1), ISPFunc_Exit(0, nullptr, nullptr)}) {
    EXPECT_EQ(status, STATUS_INVALID_HANDLE);
  }
  EXPECT_EQ(std::pair(w, h), std::pair(7u, 9u));
  KSPROPERTY property = {};
  property.Id = IspPropertyVersion;
  uint32_t data = 0;
  STREAM_PROPERTY_DESCRIPTOR descriptor = {&property, 0, &data, sizeof(property), sizeof(data)};
  EXPECT_EQ(ISPFunc_prpmanf_GetCustomProperty(0, nullptr, &descriptor), 0u);
  EXPECT_EQ(ISPFunc_prpmanf_SetCustomProperty(0, nullptr, &descriptor), 0u);
  // One of each: a size the output cannot hold, one past the limit, no frame.
  Session session;
  auto develop = [&](const uint8_t* from, uint32_t width, uint32_t height) {
    return ISPFunc_RawToImg(session.handle, &session.camera, 2, neutral, out.data(), from, width,
                            height);
  };
  EXPECT_EQ(develop(raw.data(), 33, 16), STATUS_INVALID_PARAMETER) << "odd width";
  EXPECT_EQ(develop(raw.data(), 1602, 2), STATUS_INVALID_PARAMETER) << "too wide";
  EXPECT_EQ(develop(nullptr, 32, 16), STATUS_INVALID_PARAMETER) << "no raw frame";
  EXPECT_EQ(out, untouched);
}

// A name longer than the 16 characters kept is taken safely; a failed
// allocation gives no handle.
TEST(IspHandle, PoolBlockIsReturnedAtExitAndAFailedInitGivesNoHandle) {
  const uint64_t before = PoolLiveBlocks(IspPoolTag);
  FakeCamera camera;
  auto init = [&](uint64_t* handle, const char16_t* name, uint32_t highSpeed) {
    return ISPFunc_Init(handle, &camera, nullptr, name, highSpeed, ReadSensor, WriteSensor,
                        RunSection, ReadController, WritePairs);
  };
  uint64_t handle = 0;
  ASSERT_EQ(init(&handle, u"MI2020 and a name longer than sixteen", 0), STATUS_SUCCESS);
  ASSERT_NE(handle, 0u);
  EXPECT_EQ(PoolLiveBlocks(IspPoolTag), before + 1);
  EXPECT_EQ(ISPFunc_Exit(handle, &camera, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(PoolLiveBlocks(IspPoolTag), before);
  handle = 0x1234;
  PoolFailAllocation(1);
  EXPECT_EQ(init(&handle, u"OV7670", 1), STATUS_INSUFFICIENT_RESOURCES);
  PoolFailAllocation(0);
  EXPECT_EQ(handle, 0u);
  EXPECT_EQ(PoolLiveBlocks(IspPoolTag), before);
}

// The bytes answered for a custom property; `size` is the caller's buffer.
uint32_t GetCustom(Session& s, uint32_t id, uint32_t* value, uint32_t size = 4) {
  KSPROPERTY property = {};
  property.Id = id;
  STREAM_PROPERTY_DESCRIPTOR d = {&property, 0, value, sizeof(property), size};
  return ISPFunc_prpmanf_GetCustomProperty(s.handle, &s.camera, &d);
}
uint32_t SetCustom(Session& s, uint32_t id, uint32_t value, uint32_t size = 4) {
  KSPROPERTY property = {};
  property.Id = id;
  STREAM_PROPERTY_DESCRIPTOR d = {&property, 0, &value, sizeof(property), size};
  return ISPFunc_prpmanf_SetCustomProperty(s.handle, &s.camera, &d);
}

// The version is read only; smoothing is clamped to 7; a buffer under 4
// bytes and an id not served answer nothing.
TEST(IspCustomProperties, ServedIdsAnswerFourBytesOthersNone) {
  Session session;
  uint32_t value = 0;
  EXPECT_EQ(GetCustom(session, IspPropertyVersion, &value), 4u);
  EXPECT_EQ(value, 0x00010000u);
  EXPECT_EQ(SetCustom(session, IspPropertyVersion, 5), 0u);
  EXPECT_EQ(SetCustom(session, IspPropertyAwbSmoothing, 99), 4u);
  EXPECT_EQ(GetCustom(session, IspPropertyAwbSmoothing, &value), 4u);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(SetCustom(session, IspPropertyAwbSmoothing, 1, 3), 0u);
  EXPECT_EQ(GetCustom(session, IspPropertyAwbSmoothing, &value, 2), 0u);
  for (uint32_t id : {31u, 33u, 80u}) {
    value = 0xDEAD;
    EXPECT_EQ(std::tuple(GetCustom(session, id, &value), value, SetCustom(session, id, 1)),
              std::tuple(0u, 0xDEADu, 0u))
        << id;
  }
  EXPECT_EQ(ISPFunc_prpmanf_GetCustomProperty(session.handle, &session.camera, nullptr), 0u);
}

// The white gains and the mean luma of the last frame are reported; with
// smoothing the automatic balance moves part way each frame, and a stream
// stop restarts it. The frame path never calls back into the camera.
TEST(IspCustomProperties, StatisticsOfTheLastFrameAndSmoothedWhiteBalance) {
  Session session;
  Record automatic = NeutralRecord;
  automatic[IspWhiteBalance] = 0;
  ASSERT_EQ(SetCustom(session, IspPropertyAwbSmoothing, 2), 4u);
  uint32_t gains = 0, luma = 0;
  auto redGain = [&]() {
    return GetCustom(session, IspPropertyWhiteGains, &gains), double(gains & 0xFFFF) / 4096;
  };
  session.Start(32, 32, IspWireLayoutBayer, 32, 32);
  const int readsAfterStart = session.camera.controllerReads;
  session.Develop(UniformBayer(32, 32, {100, 100, 100}), 32, 32, automatic);
  EXPECT_DOUBLE_EQ(redGain(), 1.0);
  // Red twice green: grey world wants 0.5; a quarter of the way is 0.875.
  std::vector<uint8_t> red = UniformBayer(32, 32, {200, 100, 100});
  session.Develop(red, 32, 32, automatic);
  EXPECT_NEAR(redGain(), 0.875, 0.001);
  ASSERT_EQ(ISPFunc_StreamStateNotify(session.handle, &session.camera, 0), STATUS_SUCCESS);
  session.Develop(red, 32, 32, automatic);
  EXPECT_NEAR(redGain(), 0.5, 0.001);
  EXPECT_EQ(ISPFunc_StreamStateNotify(session.handle, &session.camera, 4),
            STATUS_INVALID_PARAMETER);
  // At a fixed 3000 K the red gain is below one and the blue gain above.
  const Rgb colour = {100, 150, 200};
  Record record = NeutralRecord;
  record[IspWhiteBalance] = 3000;
  record[IspSharpness] = 4;
  session.Develop(UniformBayer(32, 32, colour), 32, 32, record);
  ASSERT_EQ(GetCustom(session, IspPropertyMeanLuma, &luma), 4u);
  EXPECT_NEAR(luma, ReferenceYcc(colour).y, 1);
  ASSERT_EQ(GetCustom(session, IspPropertyWhiteGains, &gains), 4u);
  EXPECT_TRUE((gains & 0xFFFF) < 4096u && (gains >> 16) > 4096u) << std::hex << gains;
  EXPECT_EQ(std::pair(session.camera.controllerReads, session.camera.otherCalls),
            std::pair(readsAfterStart, 0));
}

TEST(IspRows, VectorRowsGiveThePortableBytes) {
#if defined(ISP_HAVE_X86_ROWS)
  const uint32_t seed = 7401;
  std::mt19937 random(seed);
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  struct Form {
    const char* name;
    IspRowRoutines rows;
    bool available;
  };
  const Form forms[] = {
      {"SSSE3",
       {IspDevelopBayerRow_SSSE3, IspDemosaicBayerRow_SSSE3, IspConvertRgbRow_SSSE3},
       IspCpuHasSsse3()},
      {"AVX2",
       {IspDevelopBayerRow_AVX2, IspDemosaicBayerRow_AVX2, IspConvertRgbRow_AVX2},
       IspCpuHasAvx2()},
  };
  // Around every step length and its edges; odd widths for the demosaic.
  const uint32_t widths[] = {1,  2,  3,  4,  15, 16, 17, 18, 19, 20,  31,  32,
                             33, 34, 35, 36, 63, 64, 66, 67, 98, 642, 1600};
  IspSettings neutral;
  IspClampSettings(NeutralRecord.data(), &neutral);
  auto any16 = [&] { return static_cast<int16_t>(random() % 65536 - 32768); };
  for (uint32_t round = 0; round < 8; ++round) {
    // The neutral matrix, then one the library builds, then random
    // coefficients over the whole 16-bit range.
    IspRowCoefficients k;
    IspBuildRowCoefficients(IspWireLayoutBayer, IspUnityGain, IspUnityGain, &neutral, &k);
    if (round == 1) {
      Record record = NeutralRecord;
      record[IspSaturation] = 1 + random() % 255;
      record[IspHue] = Signed(static_cast<int32_t>(random() % 361) - 180);
      record[IspWhiteBalance] = 2500 + random() % 7501;
      IspSettings settings;
      IspClampSettings(record.data(), &settings);
      int32_t red = IspUnityGain, blue = IspUnityGain;
      IspKelvinToGains(settings.Kelvin, &red, &blue);
      IspBuildRowCoefficients(IspWireLayoutBayer, red, blue, &settings, &k);
    } else if (round >= 2) {
      for (int16_t* row : {k.Y, k.Cb, k.Cr}) row[0] = any16(), row[1] = any16(), row[2] = any16();
      k.YBias16 = any16(), k.CbBias16 = any16(), k.CrBias16 = any16();
      if (round & 1) k.YMin = 0, k.YMax = 255;
    }
    for (uint32_t width : widths) {
      for (uint32_t misalign = 0; misalign < 2; ++misalign) {
        // Each row exactly as long as it must be, so that a read past its end
        // is caught by the sanitizer.
        std::vector<uint8_t> rows[3];
        for (auto& row : rows) {
          row.resize(width + misalign);
          for (auto& b : row) b = static_cast<uint8_t>(random());
        }
        const uint8_t *a = rows[0].data() + misalign, *r = rows[1].data() + misalign,
                      *b = rows[2].data() + misalign;
        auto tail = [&](const std::vector<uint8_t>& v) {
          return std::vector<uint8_t>(v.begin() + misalign, v.end());
        };
        for (uint32_t oddRow = 0; oddRow < 2; ++oddRow) {
          std::vector<uint8_t> planes[3], out[3], fused(2 * width), converted(2 * width);
          for (int p = 0; p < 3; ++p) planes[p].resize(width), out[p].resize(width + misalign);
          IspDemosaicBayerRow_C(a, r, b, width, oddRow, planes[0].data(), planes[1].data(),
                                planes[2].data());
          if ((width & 1) == 0) {
            IspDevelopBayerRow_C(a, r, b, width, oddRow, &k, fused.data());
            IspConvertRgbRow_C(rows[0].data(), rows[1].data(), rows[2].data(), width, &k,
                               converted.data());
          }
          for (const Form& form : forms) {
            if (!form.available) continue;
            SCOPED_TRACE(testing::Message() << form.name << " width " << width << " odd row "
                                            << oddRow << " round " << round);
            form.rows.DemosaicRow(a, r, b, width, oddRow, out[0].data() + misalign,
                                  out[1].data() + misalign, out[2].data() + misalign);
            for (int p = 0; p < 3; ++p) ASSERT_EQ(tail(out[p]), planes[p]) << "demosaic " << p;
            if ((width & 1) != 0) continue;
            std::vector<uint8_t> yuyv(2 * width + misalign);
            form.rows.DevelopBayerRow(a, r, b, width, oddRow, &k, yuyv.data() + misalign);
            ASSERT_EQ(tail(yuyv), fused) << "fused row";
            form.rows.ConvertRgbRow(rows[0].data(), rows[1].data(), rows[2].data(), width, &k,
                                    yuyv.data() + misalign);
            ASSERT_EQ(tail(yuyv), converted) << "planes to YUYV";
          }
        }
      }
    }
  }
#else
  GTEST_SKIP() << "no vector rows on this processor";
#endif
}

}  // namespace
