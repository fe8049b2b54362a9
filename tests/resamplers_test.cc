// The YUY2 resamplers against plain per-pixel definitions: box means for the
// shrinkers, bilinear weights with the last sample repeated for the growers
// (one rounding down at the end), a pixel table for the 1280 to 1024
// decimation.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "pipeline/frame_pipeline.h"
#include "pipeline/resample_rows.h"

namespace {

using Picture = std::vector<uint8_t>;

Picture RandomPicture(uint32_t width, uint32_t height, uint32_t seed) {
  std::mt19937 random(seed);
  Picture p(size_t(width) * height * 2);
  for (uint8_t &b : p) b = uint8_t(random());
  return p;
}

// Luma of pixel x and the chroma (0 Cb, 1 Cr) of pair j, in row y.
uint8_t Luma(const Picture &p, uint32_t width, uint32_t x, uint32_t y) {
  return p[(size_t(y) * width + x) * 2];
}
uint8_t Chroma(const Picture &p, uint32_t width, uint32_t j, uint32_t c, uint32_t y) {
  return p[size_t(y) * width * 2 + 4 * j + 1 + 2 * c];
}

// Box mean over factor x factor source pixels (luma) and factor source pairs
// by factor rows (chroma).
Picture ShrinkReference(const Picture &s, uint32_t width, uint32_t height, uint32_t factor) {
  const uint32_t sw = width * factor;
  Picture out(size_t(width) * height * 2);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      uint32_t sum = 0;
      for (uint32_t r = 0; r < factor; ++r)
        for (uint32_t i = 0; i < factor; ++i) sum += Luma(s, sw, x * factor + i, y * factor + r);
      out[(size_t(y) * width + x) * 2] = uint8_t(sum / (factor * factor));
    }
    for (uint32_t j = 0; j < width / 2; ++j) {
      for (uint32_t c = 0; c < 2; ++c) {
        uint32_t sum = 0;
        for (uint32_t r = 0; r < factor; ++r)
          for (uint32_t i = 0; i < factor; ++i)
            sum += Chroma(s, sw, j * factor + i, c, y * factor + r);
        out[size_t(y) * width * 2 + 4 * j + 1 + 2 * c] = uint8_t(sum / (factor * factor));
      }
    }
  }
  return out;
}

// Linear interpolation at 1/factor steps: output sample i lies at source
// position i / factor; weights (factor - i % factor, i % factor) on the
// sample there and the next one, the next one being the last when there is
// none. Luma by pixel, chroma by pair, rows alike. One division at the end.
Picture GrowReference(const Picture &s, uint32_t width, uint32_t height, uint32_t factor) {
  const uint32_t sw = width / factor, sh = height / factor;
  auto tap = [&](uint32_t i, uint32_t count, uint32_t *at, uint32_t *next, uint32_t *weightNext) {
    *at = i / factor;
    *next = *at + 1 < count ? *at + 1 : count - 1;
    *weightNext = i % factor;
  };
  Picture out(size_t(width) * height * 2);
  for (uint32_t y = 0; y < height; ++y) {
    uint32_t r0, r1, wr;
    tap(y, sh, &r0, &r1, &wr);
    auto mix = [&](auto sample, uint32_t i, uint32_t count) {
      uint32_t c0, c1, wc;
      tap(i, count, &c0, &c1, &wc);
      const uint32_t sum = (factor - wr) * ((factor - wc) * sample(c0, r0) + wc * sample(c1, r0)) +
                           wr * ((factor - wc) * sample(c0, r1) + wc * sample(c1, r1));
      return uint8_t(sum / (factor * factor));
    };
    for (uint32_t x = 0; x < width; ++x) {
      out[(size_t(y) * width + x) * 2] =
          mix([&](uint32_t c, uint32_t r) { return Luma(s, sw, c, r); }, x, sw);
    }
    for (uint32_t j = 0; j < width / 2; ++j) {
      for (uint32_t c = 0; c < 2; ++c) {
        out[size_t(y) * width * 2 + 4 * j + 1 + 2 * c] =
            mix([&](uint32_t p, uint32_t r) { return Chroma(s, sw, p, c, r); }, j, sw / 2);
      }
    }
  }
  return out;
}

struct Size {
  uint32_t width, height;
};

// Runs `check` with the vector rows (where the processor has them) and with
// the portable rows: both must give the reference's bytes.
template <typename Check>
void ForEachRowSet(Check check) {
  for (bool vectors : {true, false}) {
    SCOPED_TRACE(vectors ? "vector rows" : "portable rows");
    AllowResamplerVectors(vectors);
    check();
  }
  AllowResamplerVectors(true);
}

TEST(Resamplers, ShrinkersAreBoxMeansOfTheirSourcePixels) {
  ForEachRowSet([] {
    const Size sizes[] = {{2, 1}, {4, 2}, {8, 6}, {36, 4}, {160, 120}, {176, 144}};
    for (uint32_t factor : {2u, 4u}) {
      for (const Size &size : sizes) {
        const uint32_t seed = factor * 1000 + size.width;
        const Picture source = RandomPicture(size.width * factor, size.height * factor, seed);
        Picture out(size_t(size.width) * size.height * 2, 0xEE);
        if (factor == 2) ShrinkYuy2By2(out.data(), source.data(), size.width, size.height);
        if (factor == 4) ShrinkYuy2By4(out.data(), source.data(), size.width, size.height);
        EXPECT_EQ(out, ShrinkReference(source, size.width, size.height, factor))
            << "by " << factor << " to " << size.width << "x" << size.height << " seed " << seed;
      }
    }
  });
}

TEST(Resamplers, ShrinkByFourOfAllWhiteStaysWhite) {
  ForEachRowSet([] {
    const Picture source(64 * 8 * 2, 255);
    Picture out(16 * 2 * 2, 0);
    ShrinkYuy2By4(out.data(), source.data(), 16, 2);
    EXPECT_EQ(out, Picture(out.size(), 255));  // 16 x 255 = 4080, >> 4 = 255
  });
}

TEST(Resamplers, GrowersInterpolateWithOneRoundingAtTheEnd) {
  ForEachRowSet([] {
    const Size sizes2[] = {{4, 2}, {8, 4}, {16, 6}, {160, 120}, {484, 240}};
    const Size sizes4[] = {{8, 4}, {16, 8}, {32, 12}, {160, 120}, {176, 144}};
    for (uint32_t factor : {2u, 4u}) {
      for (const Size &size : factor == 2 ? sizes2 : sizes4) {
        const uint32_t seed = factor * 7000 + size.width;
        const Picture source = RandomPicture(size.width / factor, size.height / factor, seed);
        Picture out(size_t(size.width) * size.height * 2, 0xEE);
        if (factor == 2) GrowYuy2By2(out.data(), source.data(), size.width, size.height);
        if (factor == 4) GrowYuy2By4(out.data(), source.data(), size.width, size.height);
        EXPECT_EQ(out, GrowReference(source, size.width, size.height, factor))
            << "by " << factor << " to " << size.width << "x" << size.height << " seed " << seed;
      }
    }
  });
}

// Hand-worked bytes: the first row and column keep source values, the last
// pair repeats its luma and chroma, the last source row repeats twice, and a
// mean over two rows and two columns rounds once: (10 + 21 + 13 + 28) >> 2 =
// 18, where a mean of the row means would give (15 + 20) >> 1 = 17.
TEST(Resamplers, GrowByTwoKeepsTheFirstRowAndColumnAndRepeatsTheLast) {
  // Source 4 x 2: two pairs a row.
  const Picture source = {
      10, 100, 21, 200, 30, 110, 41, 210,  // row 0
      13, 102, 28, 203, 33, 112, 44, 216,  // row 1
  };
  Picture out(8 * 4 * 2, 0);
  GrowYuy2By2(out.data(), source.data(), 8, 4);
  const Picture row0 = {10, 100, 15, 200, 21, 105, 25, 205, 30, 110, 35, 210, 41, 110, 41, 210};
  const Picture row1 = {11, 101, 18, 201, 24, 106, 28, 207, 31, 111, 37, 213, 42, 111, 42, 213};
  const Picture row2 = {13, 102, 20, 203, 28, 107, 30, 209, 33, 112, 38, 216, 44, 112, 44, 216};
  EXPECT_EQ(Picture(out.begin(), out.begin() + 16), row0);
  EXPECT_EQ(Picture(out.begin() + 16, out.begin() + 32), row1);
  EXPECT_EQ(Picture(out.begin() + 32, out.begin() + 48), row2);
  EXPECT_EQ(Picture(out.begin() + 48, out.end()), row2) << "last source row repeats";
}

TEST(Resamplers, GrowByTwoOfOnePairAndOneRowIsOnlyItsLastColumn) {
  const Picture source = {40, 90, 60, 170};
  Picture out(4 * 2 * 2, 0);
  GrowYuy2By2(out.data(), source.data(), 4, 2);
  const Picture row = {40, 90, 50, 170, 60, 90, 60, 170};
  EXPECT_EQ(Picture(out.begin(), out.begin() + 8), row);
  EXPECT_EQ(Picture(out.begin() + 8, out.end()), row);
}

TEST(Resamplers, GrowByFourRepeatsTheLastRowFourTimes) {
  const Picture source = RandomPicture(4, 3, 44);
  Picture out(16 * 12 * 2, 0);
  GrowYuy2By4(out.data(), source.data(), 16, 12);
  const size_t stride = 16 * 2;
  for (uint32_t r = 9; r < 12; ++r) {
    EXPECT_EQ(0, std::memcmp(&out[stride * 8], &out[stride * r], stride)) << r;
  }
  // First row: source bytes at whole steps unchanged.
  EXPECT_EQ(out[0], source[0]);
  EXPECT_EQ(out[1], source[1]);
  EXPECT_EQ(out[3], source[3]);
  EXPECT_EQ(out[8], source[2]);
  // Last pair of the row: Y1, Cb, Cr repeated in output pairs 5 to 7.
  for (uint32_t i = 10; i < 16; i += 2) EXPECT_EQ(out[16 + i], source[6]) << i;
  EXPECT_EQ(out[16 + 13], source[5]);
  EXPECT_EQ(out[16 + 15], source[7]);
}

// Output luma pixel x of a chunk of 8 comes from source pixel 0, 1, 2, 3, 5,
// 6, 7, 8 of the chunk's 10; chroma pair j of 4 from source pair j of 5;
// output row y from source row y + y / 4.
Picture DecimationReference(const Picture &s, uint32_t sourceWidth, uint32_t width,
                            uint32_t height) {
  static const uint32_t lumaFrom[8] = {0, 1, 2, 3, 5, 6, 7, 8};
  Picture out(size_t(width) * height * 2);
  for (uint32_t y = 0; y < height; ++y) {
    const uint32_t sy = y + y / 4;
    for (uint32_t x = 0; x < width; ++x) {
      out[(size_t(y) * width + x) * 2] = Luma(s, sourceWidth, (x / 8) * 10 + lumaFrom[x % 8], sy);
    }
    for (uint32_t j = 0; j < width / 2; ++j) {
      for (uint32_t c = 0; c < 2; ++c) {
        out[size_t(y) * width * 2 + 4 * j + 1 + 2 * c] =
            Chroma(s, sourceWidth, (j / 4) * 5 + j % 4, c, sy);
      }
    }
  }
  return out;
}

TEST(Resamplers, DecimationFrom1280To1024InPlaceEqualsTwoBuffers) {
  ForEachRowSet([] {
    const struct {
      uint32_t sourceWidth, sourceHeight, width, height;
    } cases[] = {
        {1280, 960, 1024, 768}, {20, 10, 16, 8}, {40, 15, 32, 12}, {30, 5, 24, 4}, {30, 5, 20, 4}};
    for (const auto &c : cases) {
      const Picture source = RandomPicture(c.sourceWidth, c.sourceHeight, c.width);
      const Picture expected = DecimationReference(source, c.sourceWidth, c.width, c.height);

      Picture apart(size_t(c.width) * c.height * 2, 0xEE);
      Resample1280To1024(source.data(), apart.data(), c.sourceWidth, c.sourceHeight, c.width,
                         c.height);
      EXPECT_EQ(apart, expected) << c.width;

      Picture inPlace = source;
      Resample1280To1024(inPlace.data(), inPlace.data(), c.sourceWidth, c.sourceHeight, c.width,
                         c.height);
      EXPECT_EQ(0, std::memcmp(inPlace.data(), expected.data(), expected.size())) << c.width;
    }
  });
}

}  // namespace
