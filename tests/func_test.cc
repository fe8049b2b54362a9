// The format-conversion library: Bayer to YUYV (same size and resampled),
// YUYV to the bottom-up RGB24 frame and to I420, checked against a
// floating-point BT.601 studio-range reference; the vector rows against the
// portable ones; the handle's pool accounting.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include "companions/func_rows.h"
#include "core/companions.h"
#include "platform/kernel_control.h"

namespace {

struct Rgb8 {
  int R, G, B;
};

// BT.601, studio range, in floating point.
struct YuvRef {
  double Y, Cb, Cr;
};
YuvRef ReferenceYuv(double r, double g, double b) {
  double ey = 0.299 * r + 0.587 * g + 0.114 * b;
  return {16 + 219 * ey / 255, 128 + 224 * (b - ey) / (1.772 * 255),
          128 + 224 * (r - ey) / (1.402 * 255)};
}
double Clamp255(double v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }
Rgb8 ReferenceRgb(int y, int cb, int cr) {
  double ey = (y - 16) * 255.0 / 219, pb = (cb - 128) * 255.0 / 224, pr = (cr - 128) * 255.0 / 224;
  double r = ey + 1.402 * pr, b = ey + 1.772 * pb, g = (ey - 0.299 * r - 0.114 * b) / 0.587;
  return {static_cast<int>(std::lround(Clamp255(r))), static_cast<int>(std::lround(Clamp255(g))),
          static_cast<int>(std::lround(Clamp255(b)))};
}

// Eight SMPTE-like bars at 75 %: white, yellow, cyan, green, magenta, red,
// blue, black.
const Rgb8 kBars[8] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                       {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};

// The site colour of a B G / G R mosaic at (x, y).
uint8_t Site(Rgb8 c, uint32_t x, uint32_t y) {
  if ((y & 1) == 0) return static_cast<uint8_t>((x & 1) == 0 ? c.B : c.G);
  return static_cast<uint8_t>((x & 1) == 0 ? c.G : c.R);
}

// A Bayer frame of `picture(x)` at each column.
template <typename Picture>
std::vector<uint8_t> MakeBayer(uint32_t w, uint32_t h, Picture picture) {
  std::vector<uint8_t> raw(static_cast<size_t>(w) * h);
  for (uint32_t i = 0; i < w * h; ++i) raw[i] = Site(picture(i % w), i % w, i / w);
  return raw;
}

// Y, Cb, Cr of pixel x of a YUYV row (Cb/Cr of its pair). The last pixel of
// an odd width has no Cr: -1.
struct Yuv8 {
  int Y, Cb, Cr;
};
Yuv8 PixelOf(const std::vector<uint8_t>& yuyv, uint32_t w, uint32_t x, uint32_t y) {
  const uint8_t* pair = &yuyv[2 * (static_cast<size_t>(y) * w + (x & ~1u))];
  bool lone = (w & 1) != 0 && x == w - 1;
  return {yuyv[2 * (static_cast<size_t>(y) * w + x)], pair[1], lone ? -1 : pair[3]};
}

// The 8-bit Y/Cb/Cr coefficients and their rounding stay within 1 of the
// reference. Reports a failure and answers false when not.
bool ExpectNear(Yuv8 got, YuvRef want, const char* what) {
  const bool near = std::fabs(got.Y - want.Y) <= 1 && std::fabs(got.Cb - want.Cb) <= 1 &&
                    (got.Cr < 0 || std::fabs(got.Cr - want.Cr) <= 1);
  EXPECT_TRUE(near) << what << ": got " << got.Y << " " << got.Cb << " " << got.Cr << ", want "
                    << want.Y << " " << want.Cb << " " << want.Cr;
  return near;
}
YuvRef Want(Rgb8 c) { return ReferenceYuv(c.R, c.G, c.B); }

struct FuncHandle {
  uint64_t Handle = FUNC_Init();
  ~FuncHandle() { FUNC_Exit(Handle); }
};

// A grey ramp is linear, and bilinear demosaic reproduces a linear ramp
// exactly away from the edges: a neighbour taken from the wrong column or
// row shows up as a wrong grey or as colour. Chroma comes from the pair's
// mean; on a horizontal ramp that mean is still grey.
TEST(FuncRawToYuv, GreyRampsSurviveTheDemosaicAlongBothAxes) {
  FuncHandle func;
  const uint32_t w = 96, h = 20;
  for (int vertical = 0; vertical < 2; ++vertical) {
    std::vector<uint8_t> raw(w * h), yuyv(2 * w * h);
    for (uint32_t i = 0; i < w * h; ++i)
      raw[i] = static_cast<uint8_t>(vertical ? 20 + 9 * (i / w) : 10 + 2 * (i % w));
    FUNC_RawToYuv(func.Handle, raw.data(), w, h, yuyv.data(), w, h);
    for (uint32_t y = 1; y + 1 < h; ++y) {
      for (uint32_t x = 2; x + 2 < w; ++x) {
        SCOPED_TRACE(testing::Message() << "vertical " << vertical << " x " << x << " y " << y);
        double grey = raw[y * w + x];
        ExpectNear(PixelOf(yuyv, w, x, y), ReferenceYuv(grey, grey, grey), "ramp");
      }
    }
  }
}

// Flat patches of bar colours keep their BT.601 values at every ratio
// (RGB24 and I420 are checked exactly on their own below). At 64 pixels wide, a
// picture red in its left half and blue in its right keeps the halves where
// they were (a wrong column mapping mixes or swaps them); they blend near the
// middle, more so from a small raw frame, whose colour comes in pairs. With a
// handle the upscaling goes through its working rows; without one pixel by
// pixel.
TEST(FuncRawToYuv, ResamplingKeepsColoursAndTheLayoutOfThePicture) {
  struct Case {
    uint32_t rawW, rawH, w, h;
  };
  // Half, twice, a quarter, uneven ratios (to an odd size, from a tiny frame)
  // and the same size.
  const Case cases[] = {{128, 96, 64, 48}, {32, 24, 64, 48}, {256, 192, 64, 48},
                        {30, 22, 61, 47},  {5, 3, 17, 9},    {64, 48, 64, 48}};
  const Rgb8 red = kBars[5], blue = kBars[6];
  FuncHandle func;
  for (uint64_t handle : {func.Handle, uint64_t{0}}) {
    for (const Case& k : cases) {
      SCOPED_TRACE(testing::Message() << k.rawW << "x" << k.rawH << " -> " << k.w << "x" << k.h
                                      << (handle ? " with" : " without") << " a handle");
      std::vector<uint8_t> yuyv(2 * k.w * k.h);
      for (const Rgb8& c : {kBars[0], kBars[3], kBars[5], kBars[6], kBars[7]}) {
        SCOPED_TRACE(testing::Message() << "colour " << c.R << "," << c.G << "," << c.B);
        std::vector<uint8_t> raw = MakeBayer(k.rawW, k.rawH, [&](uint32_t) { return c; });
        FUNC_RawToYuv(handle, raw.data(), k.rawW, k.rawH, yuyv.data(), k.w, k.h);
        for (uint32_t i = 0, bad = 0; i < k.w * k.h && bad < 3; ++i) {
          bad += !ExpectNear(PixelOf(yuyv, k.w, i % k.w, i / k.w), Want(c), "flat patch");
        }
      }
      if (k.w != 64) continue;
      std::vector<uint8_t> raw =
          MakeBayer(k.rawW, k.rawH, [&](uint32_t x) { return x < k.rawW / 2 ? red : blue; });
      FUNC_RawToYuv(handle, raw.data(), k.rawW, k.rawH, yuyv.data(), k.w, k.h);
      for (uint32_t y = 0; y < k.h; ++y) {
        for (uint32_t x : {2, 16}) ExpectNear(PixelOf(yuyv, 64, x, y), Want(red), "left half");
        for (uint32_t x : {48, 61}) ExpectNear(PixelOf(yuyv, 64, x, y), Want(blue), "right half");
      }
    }
  }
}

// Growing blends the two raw pixels around each output pixel: a steep grey
// ramp stays a straight ramp, 3 greys a pixel at four times (raw x' = x / 4 -
// 0.375). Taking the nearest raw pixel instead would step by 12 every four
// pixels. Along both axes, with and without a handle.
TEST(FuncRawToYuv, GrowingInterpolatesBetweenRawPixels) {
  FuncHandle func;
  const uint32_t rawW = 16, rawH = 16, w = 64, h = 64;
  for (uint64_t handle : {func.Handle, uint64_t{0}}) {
    for (int vertical = 0; vertical < 2; ++vertical) {
      SCOPED_TRACE(testing::Message() << (vertical ? "vertical" : "horizontal")
                                      << (handle ? " with" : " without") << " a handle");
      std::vector<uint8_t> raw(rawW * rawH), yuyv(2 * w * h);
      for (uint32_t i = 0; i < rawW * rawH; ++i)
        raw[i] = static_cast<uint8_t>(10 + 12 * (vertical ? i / rawW : i % rawW));
      FUNC_RawToYuv(handle, raw.data(), rawW, rawH, yuyv.data(), w, h);
      // Away from the edges, where the demosaic mirrors.
      for (uint32_t a = 12; a < w - 12; ++a) {
        const double grey = 5.5 + 3 * a;
        const uint32_t x = vertical ? 2 * a % w : a, y = vertical ? a : 2 * a % h;
        SCOPED_TRACE(testing::Message() << "x " << x << " y " << y);
        ExpectNear(PixelOf(yuyv, w, x, y), ReferenceYuv(grey, grey, grey), "ramp");
      }
    }
  }
}

TEST(FuncRawToYuv, BadSizesPaintBlackOrDoNothing) {
  FuncHandle func;
  std::vector<uint8_t> out(2 * 5 * 3, 0xEE), black(out.size(), 128);
  for (size_t i = 0; i < black.size(); i += 2) black[i] = 16;
  uint8_t raw[4] = {1, 2, 3, 4};
  FUNC_RawToYuv(func.Handle, raw, 0, 2, out.data(), 5, 3);
  EXPECT_EQ(out, black);
  std::fill(out.begin(), out.end(), 0xEE);
  FUNC_RawToYuv(func.Handle, nullptr, 2, 2, out.data(), 5, 3);
  EXPECT_EQ(out, black);
  std::fill(out.begin(), out.end(), 0xEE);
  FUNC_RawToYuv(func.Handle, raw, 2, 2, out.data(), 0, 3);
  FUNC_RawToYuv(func.Handle, raw, 2, 2, nullptr, 5, 3);
  FUNC_YuvToBmp(func.Handle, nullptr, 5, 3, out.data());
  FUNC_YuvToI420(func.Handle, out.data(), 5, 0, out.data());
  EXPECT_EQ(out, std::vector<uint8_t>(out.size(), 0xEE));
}

// One pair per (Y, Cb, Cr) in steps of 7, the out-of-range ones included;
// each row of the picture has its own Y, so a row stored top-down shows.
TEST(FuncYuvToBmp, MatchesTheFloatReferenceOverTheWholeCubeBottomUp) {
  FuncHandle func;
  std::vector<uint8_t> yuyv;
  for (int y = 0; y < 256; y += 7)
    for (int u = 0; u < 256; u += 7)
      for (int v = 0; v < 256; v += 7)
        yuyv.insert(yuyv.end(), {uint8_t(y), uint8_t(u), uint8_t(255 - y), uint8_t(v)});
  const uint32_t h = 37, w = static_cast<uint32_t>(yuyv.size() / 2 / h);
  std::vector<uint8_t> bgr(3 * w * h);
  FUNC_YuvToBmp(func.Handle, yuyv.data(), w, h, bgr.data());
  for (uint32_t i = 0, bad = 0; i < w * h && bad < 5; ++i) {
    const uint8_t* p = &yuyv[2 * (i & ~1u)];
    const Rgb8 want = ReferenceRgb((i & 1) ? p[2] : p[0], p[1], p[3]);
    const uint8_t* got = &bgr[3 * ((h - 1 - i / w) * w + i % w)];
    const bool near = std::abs(got[0] - want.B) <= 1 && std::abs(got[1] - want.G) <= 1 &&
                      std::abs(got[2] - want.R) <= 1;
    bad += !near;
    EXPECT_TRUE(near) << "Y " << int((i & 1) ? p[2] : p[0]) << " Cb " << int(p[1]) << " Cr "
                      << int(p[3]) << ": got " << int(got[2]) << "," << int(got[1]) << ","
                      << int(got[0]);
  }
}

// Every value tells its place: Y = row x 16 + column, Cb and Cr carry the
// pair and row, and the two rows of a chroma sample differ by an odd amount
// so that the round-down shows.
TEST(FuncYuvToI420, PlanesAreLaidOutYThenCbThenCrWithRoundDownMeans) {
  struct Case {
    uint32_t w, h;
  };
  FuncHandle func;
  for (const Case& k : {Case{64, 4}, {5, 3}, {7, 1}, {1, 1}}) {
    SCOPED_TRACE(testing::Message() << k.w << "x" << k.h);
    std::vector<uint8_t> yuyv(2 * k.w * k.h);
    for (uint32_t i = 0, x, y; i < k.w * k.h; ++i) {
      x = i % k.w, y = i / k.w;
      yuyv[2 * i] = static_cast<uint8_t>(y * 16 + x);
      yuyv[2 * i + 1] = static_cast<uint8_t>((x & 1) ? 100 + x + y : 20 + x + y);  // Cr / Cb
    }
    // Each chroma sample is the mean of 20 + at and 21 + at rounded down (Cr:
    // 101 + at, 102 + at), at the x + y of its top-left pixel; nothing past the end.
    const size_t cw = k.w / 2, ch = k.h / 2;
    std::vector<uint8_t> out(k.w * k.h + 2 * cw * ch + 16, 0xEE), want = out;
    for (uint32_t i = 0; i < k.w * k.h; ++i) want[i] = uint8_t(i / k.w * 16 + i % k.w);
    for (uint32_t c = 0; c < cw * ch; ++c) {
      const uint32_t at = 2 * (c % cw) + 2 * (c / cw);
      want[k.w * k.h + c] = uint8_t(20 + at);
      want[k.w * k.h + cw * ch + c] = uint8_t(101 + at);
    }
    FUNC_YuvToI420(func.Handle, yuyv.data(), k.w, k.h, out.data());
    EXPECT_EQ(out, want);
  }
}

// The vector rows give the bytes of the portable ones on every width, with
// buffers that end where the allocation ends (an overread is caught by
// AddressSanitizer) and start unaligned. The whole-picture routines, vector
// against portable, run in the companion_sizes fuzz target.
TEST(FuncRows, VectorRowsMatchPortableRowsOnOddWidthsAndBufferEnds) {
  if (!FuncCpuHasAvx2()) GTEST_SKIP() << "no AVX2 on this processor";
  const uint32_t seed = 740;
  std::mt19937 random(seed);
  auto fill = [&](std::vector<uint8_t>& v) {
    for (auto& b : v) b = static_cast<uint8_t>(random());
  };
  std::vector<int> widths;
  for (int w = 1; w <= 80; ++w) widths.push_back(w);
  for (int w : {127, 128, 129, 641, 1600, 1601}) widths.push_back(w);
  for (int w : widths) {
    SCOPED_TRACE(testing::Message() << "width " << w << " seed " << seed);
    // Rows start one byte in (unaligned); the last ends the allocation.
    std::vector<uint8_t> rows(3 * w + 1), cells(4 * w + 1), yuyv(4 * w);
    fill(rows), fill(cells), fill(yuyv);
    const uint8_t *above = rows.data() + 1, *row = above + w, *below = row + w;
    std::vector<uint8_t> want(2 * w), got(2 * w);
    for (auto [c, avx2] :
         {std::pair<FuncBayerRow, FuncBayerRow>{BayerBgToYuyvRow_C, BayerBgToYuyvRow_AVX2},
          {BayerGrToYuyvRow_C, BayerGrToYuyvRow_AVX2}}) {
      c(above, row, below, want.data(), w), avx2(above, row, below, got.data(), w);
      EXPECT_EQ(want, got) << (c == BayerBgToYuyvRow_C ? "B G row" : "G R row");
    }
    // Cells: two raw rows of twice the width.
    BayerCellsToYuyvRow_C(cells.data() + 1, cells.data() + 1 + 2 * w, want.data(), w);
    BayerCellsToYuyvRow_AVX2(cells.data() + 1, cells.data() + 1 + 2 * w, got.data(), w);
    EXPECT_EQ(want, got) << "cell row";
    want.resize(3 * w), got.resize(3 * w);
    YuyvToBgr24Row_C(yuyv.data() + 2 * w, want.data(), w);
    YuyvToBgr24Row_AVX2(yuyv.data() + 2 * w, got.data(), w);
    EXPECT_EQ(want, got) << "BGR24 row";
    want.assign(2 * w + 2 * (w / 2), 0), got = want;
    for (auto [fn, p] :
         {std::pair<FuncYuyvToI420Row, std::vector<uint8_t>*>{YuyvToI420Row_C, &want},
          {YuyvToI420Row_AVX2, &got}}) {
      uint8_t* d = p->data();
      fn(yuyv.data(), yuyv.data() + 2 * w, d, d + w, d + 2 * w, d + 2 * w + w / 2, w);
    }
    EXPECT_EQ(want, got) << "I420 rows";
  }
}

TEST(FuncLibrary, HandleComesFromItsOwnPoolTagAndGoesBackAtExit) {
  ASSERT_EQ(PoolLiveBlocks(FuncPoolTag), 0u);
  uint64_t handle = FUNC_Init();
  ASSERT_NE(handle, 0u);
  EXPECT_EQ(PoolLiveBlocks(FuncPoolTag), 1u);
  FUNC_Exit(handle);
  EXPECT_EQ(PoolLiveBlocks(FuncPoolTag), 0u);
  // Released: a second Exit and a call through it touch nothing of it.
  FUNC_Exit(handle);
  std::vector<uint8_t> yuyvIn(2 * 8, 128), bgrOut(3 * 8);
  FUNC_YuvToBmp(handle, yuyvIn.data(), 8, 1, bgrOut.data());
  EXPECT_EQ(PoolLiveBlocks(FuncPoolTag), 0u);
  // Out of pool: no handle (conversions without one: the resampling tests).
  PoolFailAllocation(1);
  handle = FUNC_Init();
  PoolFailAllocation(0);
  EXPECT_EQ(handle, 0u);
  EXPECT_EQ(PoolLiveBlocks(FuncPoolTag), 0u);
  FUNC_Exit(0);
}

}  // namespace
