// FUNC_RawToYuv: a raw Bayer frame (B G / G R, blue at the top-left) to a
// YUYV picture, at the same size or resampled.
//
// Same size: bilinear demosaic (each pixel keeps its own colour, the two
// missing ones are the means of the nearest two or four sites that carry
// them), mirrored at the edges so that the Bayer phase holds; then BT.601
// studio-range YCbCr, Y per pixel and Cb/Cr from the mean colour of each
// pair. Row by row through the row set of the handle.
//
// Raw at least twice as large on both axes (the sensor sends 2x or 4x the
// picture): area average over whole Bayer cells. Each 2 x 2 cell is one
// colour sample (its B, the mean of its two G, its R) centred in the cell; an
// output pixel averages the cells its area covers (rounded to nearest), so a
// 2x wire gives one cell per pixel and a 4x wire four. No aliasing of the
// mosaic, exact on flat colour.
//
// Otherwise (the sensor sends 1/2 or 1/4 of the picture, or a ratio under
// 2): bilinear interpolation of the demosaiced raw picture, pixel centres
// aligned (the output pixel x samples raw x' = (x + 0.5) rawWidth / width -
// 0.5, clamped to the picture), weights in 1/256 steps. The demosaiced
// colours of the two columns in use are kept while the sample point moves
// along the row, so each raw pixel is demosaiced about once per output row.
//
// Frame path: no allocation, no blocking. Zero sizes or null buffers do
// nothing; a raw frame of zero size paints the picture black (Y 16, Cb/Cr
// 128).

#include "companions/func_rows.h"
#include "core/companions.h"

// ---------------------------------------------------------------- rows

void BayerBgToYuyvPairs_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint8_t* dstYuyv, int width, int firstPair, int endPair,
                          bool withOddPixel) {
  for (int i = firstPair; i < endPair; ++i) {
    int x = 2 * i;
    FuncPackPair(FuncBayerPixel(above, row, below, width, x, false),
                 FuncBayerPixel(above, row, below, width, x + 1, false), dstYuyv + 2 * x);
  }
  if (withOddPixel && (width & 1) != 0) {
    int x = width - 1;
    FuncPackLone(FuncBayerPixel(above, row, below, width, x, false), dstYuyv + 2 * x);
  }
}

void BayerGrToYuyvPairs_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint8_t* dstYuyv, int width, int firstPair, int endPair,
                          bool withOddPixel) {
  for (int i = firstPair; i < endPair; ++i) {
    int x = 2 * i;
    FuncPackPair(FuncBayerPixel(above, row, below, width, x, true),
                 FuncBayerPixel(above, row, below, width, x + 1, true), dstYuyv + 2 * x);
  }
  if (withOddPixel && (width & 1) != 0) {
    int x = width - 1;
    FuncPackLone(FuncBayerPixel(above, row, below, width, x, true), dstYuyv + 2 * x);
  }
}

void BayerBgToYuyvRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                        uint8_t* dstYuyv, int width) {
  BayerBgToYuyvPairs_C(above, row, below, dstYuyv, width, 0, width / 2, true);
}

void BayerGrToYuyvRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                        uint8_t* dstYuyv, int width) {
  BayerGrToYuyvPairs_C(above, row, below, dstYuyv, width, 0, width / 2, true);
}

// ---------------------------------------------------------------- paths

namespace {

void PaintBlack(uint8_t* dst, size_t pixels) {
  for (size_t i = 0; i + 1 < pixels; i += 2) {
    dst[2 * i] = 16;
    dst[2 * i + 1] = 128;
    dst[2 * i + 2] = 16;
    dst[2 * i + 3] = 128;
  }
  if ((pixels & 1) != 0) {
    dst[2 * pixels - 2] = 16;
    dst[2 * pixels - 1] = 128;
  }
}

void DemosaicSameSize(const FuncRowSet* rows, const uint8_t* raw, int width, int height,
                      uint8_t* dst) {
  size_t stride = static_cast<size_t>(width);
  for (int y = 0; y < height; ++y) {
    const uint8_t* above = raw + stride * FuncReflect(y - 1, height);
    const uint8_t* row = raw + stride * y;
    const uint8_t* below = raw + stride * FuncReflect(y + 1, height);
    FuncBayerRow fn = (y & 1) != 0 ? rows->BayerGrRow : rows->BayerBgRow;
    fn(above, row, below, dst + 2 * stride * y, width);
  }
}

// Start of the cell span of output index i: floor(i x cells / outputs).
inline uint32_t SpanStart(uint32_t i, uint32_t cells, uint32_t outputs) {
  return static_cast<uint32_t>(static_cast<uint64_t>(i) * cells / outputs);
}

// Mean colour of the Bayer cells [cx0, cx1) x [cy0, cy1), rounded.
FuncRgb CellAverage(const uint8_t* raw, size_t stride, uint32_t cx0, uint32_t cx1, uint32_t cy0,
                    uint32_t cy1) {
  uint64_t sb = 0, sg = 0, sr = 0;
  for (uint32_t cy = cy0; cy < cy1; ++cy) {
    const uint8_t* top = raw + stride * (2 * static_cast<size_t>(cy));
    const uint8_t* bottom = top + stride;
    for (uint32_t cx = cx0; cx < cx1; ++cx) {
      size_t x = 2 * static_cast<size_t>(cx);
      sb += top[x];
      sg += top[x + 1] + bottom[x];
      sr += bottom[x + 1];
    }
  }
  uint64_t n = static_cast<uint64_t>(cx1 - cx0) * (cy1 - cy0);
  return FuncRgb{static_cast<uint32_t>((sr + n / 2) / n), static_cast<uint32_t>((sg + n) / (2 * n)),
                 static_cast<uint32_t>((sb + n / 2) / n)};
}

void AreaDownscale(const uint8_t* raw, uint32_t rawWidth, uint32_t rawHeight, uint8_t* dst,
                   uint32_t width, uint32_t height) {
  uint32_t cellsX = rawWidth / 2, cellsY = rawHeight / 2;
  size_t stride = rawWidth;
  for (uint32_t y = 0; y < height; ++y) {
    uint32_t cy0 = SpanStart(y, cellsY, height), cy1 = SpanStart(y + 1, cellsY, height);
    uint8_t* out = dst + 2 * static_cast<size_t>(width) * y;
    uint32_t x = 0;
    for (; x + 1 < width; x += 2) {
      uint32_t c0 = SpanStart(x, cellsX, width), c1 = SpanStart(x + 1, cellsX, width),
               c2 = SpanStart(x + 2, cellsX, width);
      FuncPackPair(CellAverage(raw, stride, c0, c1, cy0, cy1),
                   CellAverage(raw, stride, c1, c2, cy0, cy1), out + 2 * static_cast<size_t>(x));
    }
    if (x < width) {
      FuncPackLone(CellAverage(raw, stride, SpanStart(x, cellsX, width),
                               SpanStart(x + 1, cellsX, width), cy0, cy1),
                   out + 2 * static_cast<size_t>(x));
    }
  }
}

// Sample position of output index i on a raw axis, in 1/256 pixel:
// (i + 0.5) x raw / out - 0.5, clamped to [0, raw - 1].
inline uint64_t SamplePosition(uint32_t i, uint32_t raw, uint32_t out) {
  int64_t p = static_cast<int64_t>((2 * static_cast<uint64_t>(i) + 1) * raw * 128 / out) - 128;
  if (p < 0) p = 0;
  int64_t last = (static_cast<int64_t>(raw) - 1) * 256;
  return static_cast<uint64_t>(p > last ? last : p);
}

// The demosaiced colours of one raw column on the two rows in use.
struct SampleColumn {
  int64_t X;
  FuncRgb Top, Bottom;
};

struct BayerRows {
  const uint8_t* TopAbove;
  const uint8_t* Top;
  const uint8_t* TopBelow;
  const uint8_t* BottomAbove;
  const uint8_t* Bottom;
  const uint8_t* BottomBelow;
  bool TopOdd, BottomOdd;
  int Width;
};

void FillColumn(const BayerRows& r, int x, SampleColumn* column) {
  column->X = x;
  column->Top = FuncBayerPixel(r.TopAbove, r.Top, r.TopBelow, r.Width, x, r.TopOdd);
  column->Bottom = FuncBayerPixel(r.BottomAbove, r.Bottom, r.BottomBelow, r.Width, x, r.BottomOdd);
}

inline uint32_t Blend(uint32_t tl, uint32_t tr, uint32_t bl, uint32_t br, uint32_t fx,
                      uint32_t fy) {
  uint32_t top = tl * (256 - fx) + tr * fx;
  uint32_t bottom = bl * (256 - fx) + br * fx;
  return (top * (256 - fy) + bottom * fy + 32768) >> 16;
}

void BilinearResample(const uint8_t* raw, uint32_t rawWidth, uint32_t rawHeight, uint8_t* dst,
                      uint32_t width, uint32_t height) {
  int w = static_cast<int>(rawWidth), h = static_cast<int>(rawHeight);
  size_t stride = rawWidth;
  for (uint32_t y = 0; y < height; ++y) {
    uint64_t sy = SamplePosition(y, rawHeight, height);
    int y0 = static_cast<int>(sy >> 8);
    int y1 = y0 + 1 < h ? y0 + 1 : y0;
    uint32_t fy = static_cast<uint32_t>(sy & 255);
    BayerRows rows;
    rows.TopAbove = raw + stride * FuncReflect(y0 - 1, h);
    rows.Top = raw + stride * y0;
    rows.TopBelow = raw + stride * FuncReflect(y0 + 1, h);
    rows.BottomAbove = raw + stride * FuncReflect(y1 - 1, h);
    rows.Bottom = raw + stride * y1;
    rows.BottomBelow = raw + stride * FuncReflect(y1 + 1, h);
    rows.TopOdd = (y0 & 1) != 0;
    rows.BottomOdd = (y1 & 1) != 0;
    rows.Width = w;

    SampleColumn left{-1, {}, {}}, right{-1, {}, {}};
    FuncRgb pixel[2] = {};
    uint8_t* out = dst + 2 * static_cast<size_t>(width) * y;
    for (uint32_t x = 0; x < width; ++x) {
      uint64_t sx = SamplePosition(x, rawWidth, width);
      int x0 = static_cast<int>(sx >> 8);
      int x1 = x0 + 1 < w ? x0 + 1 : x0;
      uint32_t fx = static_cast<uint32_t>(sx & 255);
      if (left.X != x0) {
        if (right.X == x0) {
          left = right;
        } else {
          FillColumn(rows, x0, &left);
        }
      }
      if (right.X != x1) {
        if (x1 == x0) {
          right = left;
        } else {
          FillColumn(rows, x1, &right);
        }
      }
      pixel[x & 1] = FuncRgb{Blend(left.Top.R, right.Top.R, left.Bottom.R, right.Bottom.R, fx, fy),
                             Blend(left.Top.G, right.Top.G, left.Bottom.G, right.Bottom.G, fx, fy),
                             Blend(left.Top.B, right.Top.B, left.Bottom.B, right.Bottom.B, fx, fy)};
      if ((x & 1) != 0) FuncPackPair(pixel[0], pixel[1], out + 2 * static_cast<size_t>(x - 1));
    }
    if ((width & 1) != 0) FuncPackLone(pixel[0], out + 2 * static_cast<size_t>(width - 1));
  }
}

}  // namespace

// Frame path (the driver's own raw route): see the head of this file.
void FUNC_RawToYuv(uint64_t funcHandle, const uint8_t* raw, uint32_t rawWidth, uint32_t rawHeight,
                   uint8_t* destination, uint32_t width, uint32_t height) {
  if (destination == nullptr || width == 0 || height == 0) return;
  // Sizes beyond what an int row index and a 64-bit offset carry are not
  // pictures; they are refused rather than wrapped.
  constexpr uint32_t limit = 1u << 24;
  if (width > limit || height > limit) return;
  if (raw == nullptr || rawWidth == 0 || rawHeight == 0 || rawWidth > limit || rawHeight > limit) {
    PaintBlack(destination, static_cast<size_t>(width) * height);
    return;
  }
  if (rawWidth == width && rawHeight == height) {
    DemosaicSameSize(FuncRowsOf(funcHandle), raw, static_cast<int>(width),
                     static_cast<int>(height), destination);
  } else if (rawWidth / 2 >= width && rawHeight / 2 >= height) {
    AreaDownscale(raw, rawWidth, rawHeight, destination, width, height);
  } else {
    BilinearResample(raw, rawWidth, rawHeight, destination, width, height);
  }
}
