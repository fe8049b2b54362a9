// FUNC_RawToYuv: a raw Bayer frame (B G / G R, blue at the top-left) to a
// YUYV picture, at the same size or resampled.
//
// Same size: bilinear demosaic (each pixel keeps its own colour, the two
// missing ones are the means of the nearest two or four sites that carry
// them, rounded down), mirrored at the edges so that the Bayer phase holds;
// then BT.601 studio-range YCbCr, Y per pixel and Cb/Cr from the mean colour
// of each pair. Row by row through the row set of the handle.
//
// Raw at least twice as large on both axes (the sensor sends 2x or 4x the
// picture): area average over whole Bayer cells. Each 2 x 2 cell is one
// colour sample (its B, the mean of its two G, its R) centred in the cell; an
// output pixel averages the cells its area covers (means round down), so a
// 2x wire gives one cell per pixel (a row function of its own) and a 4x wire
// four. No aliasing of the mosaic, exact on flat colour.
//
// Otherwise (the sensor sends 1/2 or 1/4 of the picture, or a ratio under
// 2): bilinear interpolation, pixel centres aligned (output pixel x samples
// raw x' = (x + 0.5) rawWidth / width - 0.5, clamped to the picture), weights
// in 1/256 steps, rounded. With a handle each raw row in use is demosaiced
// at raw size into YUYV by the same-size rows and resampled along the row
// (Y on the pixel grid, Cb and Cr on the pair grid), once while the output
// rows move over it; an output row blends the two raw rows around it.
// Without a handle, or beyond its working rows (wider than 8192 pixels), the
// colours are demosaiced and interpolated pixel by pixel in RGB (slower; the
// same up to rounding and the chroma grid).
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

void BayerCellsToYuyvRow_C(const uint8_t* top, const uint8_t* bottom, uint8_t* dstYuyv, int width) {
  auto cell = [&](int x) {
    return FuncRgb{bottom[2 * x + 1], static_cast<uint32_t>(top[2 * x + 1] + bottom[2 * x]) >> 1,
                   top[2 * x]};
  };
  int x = 0;
  for (; x + 1 < width; x += 2) FuncPackPair(cell(x), cell(x + 1), dstYuyv + 2 * x);
  if (x < width) FuncPackLone(cell(x), dstYuyv + 2 * x);
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

// The start of span i when `cells` are shared out over `outputs` spans,
// floor(i x cells / outputs), stepped along without a division.
struct SpanStepper {
  uint64_t Start, Rest, Step, StepRest, Outputs;
};

SpanStepper FirstSpan(uint64_t cells, uint64_t outputs) {
  return SpanStepper{0, 0, cells / outputs, cells % outputs, outputs};
}

inline void NextSpan(SpanStepper* s) {
  s->Start += s->Step;
  s->Rest += s->StepRest;
  if (s->Rest >= s->Outputs) {
    s->Rest -= s->Outputs;
    ++s->Start;
  }
}

// The mean of `sum` over `n`, rounded down as the camera's means are; a
// shift when n is a power of two.
inline uint32_t MeanOf(uint64_t sum, uint64_t n) {
  if ((n & (n - 1)) == 0) return static_cast<uint32_t>(sum >> __builtin_ctzll(n));
  return static_cast<uint32_t>(sum / n);
}

// Mean colour of the Bayer cells [cx0, cx1) x [cy0, cy1).
FuncRgb CellAverage(const uint8_t* raw, size_t stride, uint64_t cx0, uint64_t cx1, uint64_t cy0,
                    uint64_t cy1) {
  uint64_t sb = 0, sg = 0, sr = 0;
  for (uint64_t cy = cy0; cy < cy1; ++cy) {
    const uint8_t* top = raw + stride * (2 * cy);
    const uint8_t* bottom = top + stride;
    for (uint64_t cx = cx0; cx < cx1; ++cx) {
      size_t x = 2 * cx;
      sb += top[x];
      sg += top[x + 1] + bottom[x];
      sr += bottom[x + 1];
    }
  }
  uint64_t n = (cx1 - cx0) * (cy1 - cy0);
  return FuncRgb{MeanOf(sr, n), MeanOf(sg, 2 * n), MeanOf(sb, n)};
}

// Each output pixel the mean of kx x ky whole cells. Inlined into its
// callers so that constant ratios unroll.
__attribute__((always_inline)) inline void AreaIntegerRatio(const uint8_t* raw, size_t stride,
                                                            uint8_t* dst, uint32_t width,
                                                            uint32_t height, uint32_t kx,
                                                            uint32_t ky) {
  uint32_t n = kx * ky;
  size_t dstStride = 2 * static_cast<size_t>(width);
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* band = raw + stride * (2 * static_cast<size_t>(ky) * y);
    uint8_t* out = dst + dstStride * y;
    FuncRgb pixel[2] = {};
    for (uint32_t x = 0; x < width; ++x) {
      uint32_t sb = 0, sg = 0, sr = 0;
      const uint8_t* cell = band + 2 * static_cast<size_t>(kx) * x;
      for (uint32_t cy = 0; cy < ky; ++cy, cell += 2 * stride) {
        const uint8_t* bottom = cell + stride;
        for (uint32_t cx = 0; cx < 2 * kx; cx += 2) {
          sb += cell[cx];
          sg += cell[cx + 1] + bottom[cx];
          sr += bottom[cx + 1];
        }
      }
      pixel[x & 1] = FuncRgb{MeanOf(sr, n), MeanOf(sg, 2 * n), MeanOf(sb, n)};
      if ((x & 1) != 0) FuncPackPair(pixel[0], pixel[1], out + 2 * static_cast<size_t>(x - 1));
    }
    if ((width & 1) != 0) FuncPackLone(pixel[0], out + 2 * static_cast<size_t>(width - 1));
  }
}

void AreaDownscale(const FuncRowSet* rows, const uint8_t* raw, uint32_t rawWidth,
                   uint32_t rawHeight, uint8_t* dst, uint32_t width, uint32_t height) {
  uint64_t cellsX = rawWidth / 2, cellsY = rawHeight / 2;
  size_t stride = rawWidth, dstStride = 2 * static_cast<size_t>(width);
  if (cellsX == width && cellsY == height) {  // one cell a pixel
    for (uint32_t y = 0; y < height; ++y) {
      const uint8_t* top = raw + stride * (2 * static_cast<size_t>(y));
      rows->BayerCellRow(top, top + stride, dst + dstStride * y, static_cast<int>(width));
    }
    return;
  }
  if (cellsX % width == 0 && cellsY % height == 0) {  // kx x ky cells a pixel
    uint32_t kx = static_cast<uint32_t>(cellsX / width),
             ky = static_cast<uint32_t>(cellsY / height);
    if (kx == 2 && ky == 2) {  // the 4x wire, its loops unrolled
      AreaIntegerRatio(raw, stride, dst, width, height, 2, 2);
    } else {
      AreaIntegerRatio(raw, stride, dst, width, height, kx, ky);
    }
    return;
  }
  SpanStepper rowSpan = FirstSpan(cellsY, height);
  for (uint32_t y = 0; y < height; ++y) {
    uint64_t cy0 = rowSpan.Start;
    NextSpan(&rowSpan);
    uint64_t cy1 = rowSpan.Start;
    uint8_t* out = dst + dstStride * y;
    SpanStepper span = FirstSpan(cellsX, width);
    FuncRgb pixel[2] = {};
    for (uint32_t x = 0; x < width; ++x) {
      uint64_t cx0 = span.Start;
      NextSpan(&span);
      pixel[x & 1] = CellAverage(raw, stride, cx0, span.Start, cy0, cy1);
      if ((x & 1) != 0) FuncPackPair(pixel[0], pixel[1], out + 2 * static_cast<size_t>(x - 1));
    }
    if ((width & 1) != 0) FuncPackLone(pixel[0], out + 2 * static_cast<size_t>(width - 1));
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

// Sample positions of consecutive output indices on a raw axis, in 1/256
// pixel, as SamplePosition but stepped along without a division: the
// numerator (2i + 1) x raw x 128 grows by raw x 256 a step.
struct PositionStepper {
  SpanStepper Span;
  int64_t Last;
};

PositionStepper FirstPosition(uint32_t raw, uint32_t out, uint32_t samples) {
  PositionStepper p{FirstSpan(256 * static_cast<uint64_t>(raw), out),
                    (static_cast<int64_t>(samples) - 1) * 256};
  p.Span.Start = static_cast<uint64_t>(raw) * 128 / out;
  p.Span.Rest = static_cast<uint64_t>(raw) * 128 % out;
  return p;
}

inline uint32_t NextPosition(PositionStepper* p) {
  int64_t v = static_cast<int64_t>(p->Span.Start) - 128;
  NextSpan(&p->Span);
  v = v < 0 ? 0 : (v > p->Last ? p->Last : v);
  return static_cast<uint32_t>(v);
}

inline uint8_t Lerp(uint32_t a, uint32_t b, uint32_t f) {
  return static_cast<uint8_t>((a * (256 - f) + b * f + 128) >> 8);
}

// Raw row r demosaiced into a working row, an odd width's last pixel given
// its full pair (its own Cb and Cr) so that the pair grid has no gap.
void DemosaicRawRow(const FuncRowSet* rows, const uint8_t* raw, int rawWidth, int rawHeight, int r,
                    uint8_t* out) {
  size_t stride = static_cast<size_t>(rawWidth);
  const uint8_t* above = raw + stride * FuncReflect(r - 1, rawHeight);
  const uint8_t* row = raw + stride * r;
  const uint8_t* below = raw + stride * FuncReflect(r + 1, rawHeight);
  ((r & 1) != 0 ? rows->BayerGrRow : rows->BayerBgRow)(above, row, below, out, rawWidth);
  if ((rawWidth & 1) != 0) {
    FuncRgb last = FuncBayerPixel(above, row, below, rawWidth, rawWidth - 1, (r & 1) != 0);
    FuncPackPair(last, last, out + 2 * static_cast<size_t>(rawWidth - 1));
  }
}

// PositionStepper in 32 bits, for the working rows' sizes (raw and output
// widths up to 8192: positions below 2^22).
struct RowStepper {
  uint32_t Start, Rest, Step, StepRest, Outputs;
  int32_t Last;
};

RowStepper FirstRowPosition(uint32_t raw, uint32_t out, uint32_t samples) {
  return RowStepper{raw * 128 / out,
                    raw * 128 % out,
                    256 * raw / out,
                    256 * raw % out,
                    out,
                    (static_cast<int32_t>(samples) - 1) * 256};
}

inline uint32_t NextRowPosition(RowStepper* p) {
  int32_t v = static_cast<int32_t>(p->Start) - 128;
  p->Start += p->Step;
  p->Rest += p->StepRest;
  if (p->Rest >= p->Outputs) {
    p->Rest -= p->Outputs;
    ++p->Start;
  }
  return static_cast<uint32_t>(v < 0 ? 0 : (v > p->Last ? p->Last : v));
}

// One demosaiced raw row (YUYV, rawWidth pixels, full last pair) resampled
// along the row to `width` pixels: Y on the pixel grid, Cb and Cr on the
// pair grid. Both widths within the working rows.
void ResampleAlongRow(const uint8_t* in, uint32_t rawWidth, uint8_t* out, uint32_t width) {
  uint32_t rawPairs = (rawWidth + 1) / 2, lastPixel = rawWidth - 1, lastPair = rawPairs - 1;
  RowStepper luma = FirstRowPosition(rawWidth, width, rawWidth);
  RowStepper chroma = FirstRowPosition(rawWidth, width, rawPairs);
  auto lumaAt = [&](uint32_t sx) {
    uint32_t x0 = sx >> 8, x1 = x0 < lastPixel ? x0 + 1 : x0;
    return Lerp(in[2 * x0], in[2 * x1], sx & 255);
  };
  uint32_t x = 0;
  for (; x + 1 < width; x += 2, out += 4) {
    uint32_t sc = NextRowPosition(&chroma);
    uint32_t q0 = sc >> 8, q1 = q0 < lastPair ? q0 + 1 : q0, f = sc & 255;
    out[0] = lumaAt(NextRowPosition(&luma));
    out[1] = Lerp(in[4 * q0 + 1], in[4 * q1 + 1], f);
    out[2] = lumaAt(NextRowPosition(&luma));
    out[3] = Lerp(in[4 * q0 + 3], in[4 * q1 + 3], f);
  }
  if (x < width) {
    uint32_t sc = NextRowPosition(&chroma);
    uint32_t q0 = sc >> 8, q1 = q0 < lastPair ? q0 + 1 : q0;
    out[0] = lumaAt(NextRowPosition(&luma));
    out[1] = Lerp(in[4 * q0 + 1], in[4 * q1 + 1], sc & 255);
  }
}

// Each raw row in use is demosaiced and resampled along the row once, into
// one of two working rows of output width; an output row is then the blend
// of the two, byte by byte.
void ResampleThroughRows(const FuncRowSet* rows, const FuncScratch* scratch, const uint8_t* raw,
                         uint32_t rawWidth, uint32_t rawHeight, uint8_t* dst, uint32_t width,
                         uint32_t height) {
  int rw = static_cast<int>(rawWidth), rh = static_cast<int>(rawHeight);
  size_t rowBytes = 2 * static_cast<size_t>(width);
  uint8_t* cached[2] = {scratch->Rows[0], scratch->Rows[1]};
  int cachedRow[2] = {-1, -1};
  uint8_t* demosaiced = scratch->Rows[2];
  // The working row of raw row r, made if needed without touching `keep`'s.
  auto resampledRow = [&](int r, int keep) -> const uint8_t* {
    for (int i = 0; i < 2; ++i) {
      if (cachedRow[i] == r) return cached[i];
    }
    int slot = cachedRow[0] == keep ? 1 : 0;
    DemosaicRawRow(rows, raw, rw, rh, r, demosaiced);
    ResampleAlongRow(demosaiced, rawWidth, cached[slot], width);
    cachedRow[slot] = r;
    return cached[slot];
  };
  PositionStepper rowPosition = FirstPosition(rawHeight, height, rawHeight);
  for (uint32_t y = 0; y < height; ++y) {
    uint32_t sy = NextPosition(&rowPosition);
    int y0 = static_cast<int>(sy >> 8);
    int y1 = y0 + 1 < rh ? y0 + 1 : y0;
    uint32_t fy = sy & 255;
    const uint8_t* top = resampledRow(y0, y1);
    const uint8_t* bottom = resampledRow(y1, y0);
    uint8_t* out = dst + rowBytes * y;
    for (size_t i = 0; i < rowBytes; ++i) out[i] = Lerp(top[i], bottom[i], fy);
  }
}

}  // namespace

// Frame path (the driver's own raw route): see the head of this file.
void FUNC_RawToYuv(uint64_t funcHandle, const uint8_t* raw, uint32_t rawWidth, uint32_t rawHeight,
                   uint8_t* destination, uint32_t width, uint32_t height) {
  if (destination == nullptr || !FuncPictureSizeValid(width, height)) return;
  if (raw == nullptr || !FuncPictureSizeValid(rawWidth, rawHeight)) {
    PaintBlack(destination, static_cast<size_t>(width) * height);
    return;
  }
  if (rawWidth == width && rawHeight == height) {
    DemosaicSameSize(FuncRowsOf(funcHandle), raw, static_cast<int>(width), static_cast<int>(height),
                     destination);
  } else if (rawWidth / 2 >= width && rawHeight / 2 >= height) {
    AreaDownscale(FuncRowsOf(funcHandle), raw, rawWidth, rawHeight, destination, width, height);
  } else {
    const FuncScratch* scratch = FuncScratchOf(funcHandle);
    if (scratch != nullptr && rawWidth <= scratch->Capacity && width <= scratch->Capacity) {
      ResampleThroughRows(FuncRowsOf(funcHandle), scratch, raw, rawWidth, rawHeight, destination,
                          width, height);
    } else {
      BilinearResample(raw, rawWidth, rawHeight, destination, width, height);
    }
  }
}
