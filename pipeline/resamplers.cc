// Geometry resamplers of the driver's own route: YUY2 pictures by two and by
// four in both directions, and the 1280 to 1024 decimation.
//
// Pixel pairs are the four bytes Y0 Cb Y1 Cr; a row is twice the width in
// bytes, rows follow without gaps. The growers interpolate linearly, chroma
// included, and only look forward: the first output row and column hold source
// values. Every weighted mean is taken as one sum of (horizontal weight x
// vertical weight x byte) shifted down once at the end, never a mean of means.
//
// The whole-picture routines here pick the row routines once per picture
// (resample_rows.h) and fill what no source pair covers.
//
// Context: frame path, on buffers the caller owns. Integer only, no
// allocation.

#include <cstring>

#include "pipeline/frame_pipeline.h"
#include "pipeline/resample_rows.h"

namespace {

// The byte pair of video black, for output that no source pixel covers.
constexpr uint8_t BlackLuma = 16;
constexpr uint8_t BlackChroma = 128;

// Fills the bytes of an output row from `written` to `total` by repeating its
// last pixel pair, or with black when nothing was written. Only widths that
// are not a multiple of the resampler's period of output pixels leave such a
// tail (none of the catalogue's sizes do).
void FillRowTail(uint8_t *row, uint32_t written, uint32_t total) {
  for (uint32_t i = written; i < total; ++i) {
    if (written >= 4) {
      row[i] = row[written - 4 + (i - written) % 4];
    } else {
      row[i] = (i & 1) ? BlackChroma : BlackLuma;
    }
  }
}

// Output rows from `first` to `height` - 1 repeat row `first` - 1, or are
// black when there is none.
void FillLastRows(uint8_t *destination, uint32_t first, uint32_t width, uint32_t height) {
  const size_t stride = size_t(width) * 2;
  for (uint32_t y = first; y < height; ++y) {
    uint8_t *row = destination + stride * y;
    if (first > 0) {
      std::memcpy(row, destination + stride * (first - 1), stride);
    } else {
      FillRowTail(row, 0, uint32_t(stride));
    }
  }
}

// ---------------------------------------------------------------- growing
//
// One output row of a grower from source rows `a` and `b` with vertical
// weights WeightA and WeightB (WeightB 0: row `a` alone). Each source byte is
// first taken as its vertical sum WeightA x a + WeightB x b, then the output
// byte as the horizontal weighted sum of those, shifted down by Shift, the
// log2 of all weights together: the same single sum of (horizontal weight x
// vertical weight x byte) with one rounding at the end. The last pair of a
// row has no next pair: its forward weights fall on its own Y1, Cb and Cr,
// which repeats them. `pairs` source pairs make 8 (half steps) or 16 (quarter
// steps) output bytes each.

template <uint32_t WeightA, uint32_t WeightB>
struct VerticalSum {
  const uint8_t *a;
  const uint8_t *b;
  uint32_t operator()(size_t i) const {
    if constexpr (WeightB == 0) {
      return WeightA * a[i];
    } else {
      return WeightA * a[i] + WeightB * b[i];
    }
  }
};

// Eight output bytes as one word, the first in the lowest byte, stored in
// memory order.
inline void StoreEight(uint8_t *out, uint32_t b0, uint32_t b1, uint32_t b2, uint32_t b3,
                       uint32_t b4, uint32_t b5, uint32_t b6, uint32_t b7) {
  uint8_t bytes[8] = {uint8_t(b0), uint8_t(b1), uint8_t(b2), uint8_t(b3),
                      uint8_t(b4), uint8_t(b5), uint8_t(b6), uint8_t(b7)};
  std::memcpy(out, bytes, 8);
}

// Half steps, total horizontal weight 2 (a lone byte counts twice).
template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
inline void GrowPairHalf(uint8_t *out, uint32_t y0, uint32_t cb, uint32_t y1, uint32_t cr,
                         uint32_t y2, uint32_t cbNext, uint32_t crNext) {
  StoreEight(out, (2 * y0) >> Shift, (2 * cb) >> Shift, (y0 + y1) >> Shift, (2 * cr) >> Shift,
             (2 * y1) >> Shift, (cb + cbNext) >> Shift, (y1 + y2) >> Shift, (cr + crNext) >> Shift);
}

// Quarter steps, total horizontal weight 4.
template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
inline void GrowPairQuarter(uint8_t *out, uint32_t y0, uint32_t cb, uint32_t y1, uint32_t cr,
                            uint32_t y2, uint32_t cbNext, uint32_t crNext) {
  StoreEight(out, (4 * y0) >> Shift, (4 * cb) >> Shift, (3 * y0 + y1) >> Shift, (4 * cr) >> Shift,
             (2 * (y0 + y1)) >> Shift, (3 * cb + cbNext) >> Shift, (y0 + 3 * y1) >> Shift,
             (3 * cr + crNext) >> Shift);
  StoreEight(out + 8, (4 * y1) >> Shift, (2 * (cb + cbNext)) >> Shift, (3 * y1 + y2) >> Shift,
             (2 * (cr + crNext)) >> Shift, (2 * (y1 + y2)) >> Shift, (cb + 3 * cbNext) >> Shift,
             (y1 + 3 * y2) >> Shift, (cr + 3 * crNext) >> Shift);
}

// The rows from pair `k` on; the last pair repeats.
template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
void GrowRowHalf(uint8_t *out, const uint8_t *a, const uint8_t *b, uint32_t k, uint32_t pairs) {
  if (k >= pairs) return;
  out += 8 * size_t(k);
  const VerticalSum<WeightA, WeightB> v{a, b};
  size_t at = 4 * size_t(k);
  uint32_t y0 = v(at), cb = v(at + 1), y1 = v(at + 2), cr = v(at + 3);
  for (++k; k < pairs; ++k, out += 8) {
    at = 4 * size_t(k);
    const uint32_t y2 = v(at), cbNext = v(at + 1), y3 = v(at + 2), crNext = v(at + 3);
    GrowPairHalf<WeightA, WeightB, Shift>(out, y0, cb, y1, cr, y2, cbNext, crNext);
    y0 = y2, cb = cbNext, y1 = y3, cr = crNext;
  }
  GrowPairHalf<WeightA, WeightB, Shift>(out, y0, cb, y1, cr, y1, cb, cr);
}

template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
void GrowRowQuarter(uint8_t *out, const uint8_t *a, const uint8_t *b, uint32_t k, uint32_t pairs) {
  if (k >= pairs) return;
  out += 16 * size_t(k);
  const VerticalSum<WeightA, WeightB> v{a, b};
  size_t at = 4 * size_t(k);
  uint32_t y0 = v(at), cb = v(at + 1), y1 = v(at + 2), cr = v(at + 3);
  for (++k; k < pairs; ++k, out += 16) {
    at = 4 * size_t(k);
    const uint32_t y2 = v(at), cbNext = v(at + 1), y3 = v(at + 2), crNext = v(at + 3);
    GrowPairQuarter<WeightA, WeightB, Shift>(out, y0, cb, y1, cr, y2, cbNext, crNext);
    y0 = y2, cb = cbNext, y1 = y3, cr = crNext;
  }
  GrowPairQuarter<WeightA, WeightB, Shift>(out, y0, cb, y1, cr, y1, cb, cr);
}

}  // namespace

// ---------------------------------------------------------------- portable
// rows

void GrowRowsByTwo_C(uint8_t *even, uint8_t *odd, const uint8_t *a, const uint8_t *b,
                     uint32_t first, uint32_t pairs) {
  // Half a step (1, 1 over 2 in each direction): shift 1 for one row, 2 for
  // two rows.
  GrowRowHalf<1, 0, 1>(even, a, a, first, pairs);
  if (b != nullptr) GrowRowHalf<1, 1, 2>(odd, a, b, first, pairs);
}

void GrowRowsByFour_C(uint8_t *out, size_t stride, const uint8_t *a, const uint8_t *b,
                      uint32_t first, uint32_t pairs) {
  // Total horizontal weight 4 (shift 2); vertical 1, 0 adds nothing, 3, 1
  // and 1, 3 add shift 2, 1, 1 adds shift 1.
  GrowRowQuarter<1, 0, 2>(out, a, a, first, pairs);
  if (b == nullptr) return;
  GrowRowQuarter<3, 1, 4>(out + stride, a, b, first, pairs);
  GrowRowQuarter<1, 1, 3>(out + 2 * stride, a, b, first, pairs);
  GrowRowQuarter<1, 3, 4>(out + 3 * stride, a, b, first, pairs);
}

void ShrinkRowByTwo_C(uint8_t *out, const uint8_t *s, const uint8_t *t, uint32_t first,
                      uint32_t pairs) {
  s += 8 * size_t(first), t += 8 * size_t(first), out += 4 * size_t(first);
  for (uint32_t k = first; k < pairs; ++k, s += 8, t += 8, out += 4) {
    out[0] = uint8_t((s[0] + s[2] + t[0] + t[2]) >> 2);
    out[1] = uint8_t((s[1] + s[5] + t[1] + t[5]) >> 2);
    out[2] = uint8_t((s[4] + s[6] + t[4] + t[6]) >> 2);
    out[3] = uint8_t((s[3] + s[7] + t[3] + t[7]) >> 2);
  }
}

void ShrinkRowByFour_C(uint8_t *out, const uint8_t *rows, size_t sourceStride, uint32_t first,
                       uint32_t pairs) {
  for (uint32_t k = first; k < pairs; ++k) {
    uint32_t y0 = 0, cb = 0, y1 = 0, cr = 0;
    for (uint32_t r = 0; r < 4; ++r) {
      const uint8_t *s = rows + sourceStride * r + 16 * size_t(k);
      y0 += s[0] + s[2] + s[4] + s[6];
      cb += s[1] + s[5] + s[9] + s[13];
      y1 += s[8] + s[10] + s[12] + s[14];
      cr += s[3] + s[7] + s[11] + s[15];
    }
    uint8_t *o = out + 4 * size_t(k);
    o[0] = uint8_t(y0 >> 4);
    o[1] = uint8_t(cb >> 4);
    o[2] = uint8_t(y1 >> 4);
    o[3] = uint8_t(cr >> 4);
  }
}

void DecimateRow_C(uint8_t *out, const uint8_t *source, uint32_t first, uint32_t chunks) {
  const uint8_t *s = source + 20 * size_t(first);
  uint8_t *o = out + 16 * size_t(first);
  for (uint32_t c = first; c < chunks; ++c, s += 20, o += 16) {
    // Bytes 0 to 7 as they are; bytes 9 to 16 with each neighbouring two
    // swapped (10 9 12 11 14 13 16 15). Both words are read before either is
    // written.
    uint64_t head, tail;
    std::memcpy(&head, s, 8);
    std::memcpy(&tail, s + 9, 8);
    tail = ((tail >> 8) & 0x00FF00FF00FF00FFull) | ((tail << 8) & 0xFF00FF00FF00FF00ull);
    std::memcpy(o, &head, 8);
    std::memcpy(o + 8, &tail, 8);
  }
}

namespace {

constexpr ResampleRowSet PortableRows = {GrowRowsByTwo_C, GrowRowsByFour_C, ShrinkRowByTwo_C,
                                         ShrinkRowByFour_C, DecimateRow_C};
#ifdef MR740_RESAMPLE_HAVE_AVX2
constexpr ResampleRowSet Avx2Rows = {GrowRowsByTwo_AVX2, GrowRowsByFour_AVX2, ShrinkRowByTwo_AVX2,
                                     ShrinkRowByFour_AVX2, DecimateRow_AVX2};
#endif

bool VectorsAllowed = true;

}  // namespace

const ResampleRowSet *ChooseResampleRows() {
#ifdef MR740_RESAMPLE_HAVE_AVX2
  if (VectorsAllowed && ResampleCpuHasAvx2()) return &Avx2Rows;
#endif
  return &PortableRows;
}

void AllowResamplerVectors(bool allowed) { VectorsAllowed = allowed; }

// ---------------------------------------------------------------- shrinking

void ShrinkYuy2By2(uint8_t *destination, const uint8_t *source, uint32_t width, uint32_t height) {
  const ResampleRowSet *rows = ChooseResampleRows();
  const size_t sourceStride = size_t(width) * 4;  // 2 x width pixels
  const size_t stride = size_t(width) * 2;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t *s = source + sourceStride * 2 * y;
    rows->ShrinkRowByTwo(destination + stride * y, s, s + sourceStride, 0, width / 2);
  }
}

void ShrinkYuy2By4(uint8_t *destination, const uint8_t *source, uint32_t width, uint32_t height) {
  const ResampleRowSet *rows = ChooseResampleRows();
  const size_t sourceStride = size_t(width) * 8;  // 4 x width pixels
  const size_t stride = size_t(width) * 2;
  for (uint32_t y = 0; y < height; ++y) {
    rows->ShrinkRowByFour(destination + stride * y, source + sourceStride * 4 * y, sourceStride, 0,
                          width / 2);
  }
}

// ---------------------------------------------------------------- growing

void GrowYuy2By2(uint8_t *destination, const uint8_t *source, uint32_t width, uint32_t height) {
  const ResampleRowSet *rows = ChooseResampleRows();
  const uint32_t sourceWidth = width / 2;
  const uint32_t sourceHeight = height / 2;
  const size_t sourceStride = size_t(sourceWidth) * 2;
  const size_t stride = size_t(width) * 2;
  const uint32_t pairs = sourceWidth / 2;
  for (uint32_t r = 0; r < sourceHeight; ++r) {
    const uint8_t *a = source + sourceStride * r;
    const uint8_t *b = r + 1 < sourceHeight ? a + sourceStride : nullptr;
    uint8_t *even = destination + stride * (2 * size_t(r));
    uint8_t *odd = even + stride;
    if (pairs > 0) rows->GrowRowsByTwo(even, odd, a, b, 0, pairs);
    FillRowTail(even, 8 * pairs, uint32_t(stride));
    if (b != nullptr) {
      FillRowTail(odd, 8 * pairs, uint32_t(stride));
    } else {
      std::memcpy(odd, even, stride);  // the last source row repeats
    }
  }
  FillLastRows(destination, 2 * sourceHeight, width, height);
}

void GrowYuy2By4(uint8_t *destination, const uint8_t *source, uint32_t width, uint32_t height) {
  const ResampleRowSet *rows = ChooseResampleRows();
  const uint32_t sourceWidth = width / 4;
  const uint32_t sourceHeight = height / 4;
  const size_t sourceStride = size_t(sourceWidth) * 2;
  const size_t stride = size_t(width) * 2;
  const uint32_t pairs = sourceWidth / 2;
  const uint32_t written = 16 * pairs;
  for (uint32_t r = 0; r < sourceHeight; ++r) {
    const uint8_t *a = source + sourceStride * r;
    const uint8_t *b = r + 1 < sourceHeight ? a + sourceStride : nullptr;
    uint8_t *o = destination + stride * (4 * size_t(r));
    if (pairs > 0) rows->GrowRowsByFour(o, stride, a, b, 0, pairs);
    FillRowTail(o, written, uint32_t(stride));
    for (uint32_t i = 1; i < 4; ++i) {
      if (b != nullptr) {
        FillRowTail(o + i * stride, written, uint32_t(stride));
      } else {
        std::memcpy(o + i * stride, o, stride);  // the last source row repeats
      }
    }
  }
  FillLastRows(destination, 4 * sourceHeight, width, height);
}

// ---------------------------------------------------------------- 1280 to 1024

// Output byte of a chunk -> source byte of its ten source pixels: luma of
// pixels 0, 1, 2, 3, 5, 6, 7, 8 and chroma of pairs 0 to 3, so that pixels 4
// and 9 and pair 4 are dropped.
constexpr uint8_t DecimationSource[16] = {0, 1, 2, 3, 4, 5, 6, 7, 10, 9, 12, 11, 14, 13, 16, 15};

// Decimation by 5 to 4 on both axes, without averaging. In place the write
// position never passes the read position: a chunk is read whole before it is
// written, output row r starts at 2 x width x r and its source row no earlier.
// Rows come in groups of four, after each of which one source row is skipped;
// a row is chunks of 20 source bytes into 16 output bytes. Output beyond
// `height` rows or 2 x `width` bytes a row, and source beyond 2 x
// `sourceWidth` bytes a row, is neither written nor read.
void Resample1280To1024(const uint8_t *source, uint8_t *destination, uint32_t sourceWidth, uint32_t,
                        uint32_t width, uint32_t height) {
  if (width == 0 || height == 0) return;
  const ResampleRowSet *rows = ChooseResampleRows();
  const size_t sourceStride = size_t(sourceWidth) * 2;
  const size_t stride = size_t(width) * 2;
  const uint32_t chunks = (width - 1) / 8 + 1;
  // Chunks whose 20 source bytes and 16 output bytes lie wholly in their rows.
  uint32_t whole = chunks;
  if (whole > width / 8) whole = width / 8;
  if (whole > sourceWidth / 10) whole = sourceWidth / 10;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t *s = source + sourceStride * (size_t(y) + y / 4);
    uint8_t *o = destination + stride * y;
    rows->DecimateRow(o, s, 0, whole);
    // A part chunk at the end of a row whose width is no multiple of 8.
    for (uint32_t c = whole; c < chunks; ++c) {
      uint8_t out[16];
      uint32_t n = 0;
      for (; n < 16; ++n) {
        const size_t at = 16 * size_t(c) + n;
        const size_t from = 20 * size_t(c) + DecimationSource[n];
        if (at >= stride || from >= sourceStride) break;
        out[n] = s[from];
      }
      std::memcpy(o + 16 * size_t(c), out, n);
    }
  }
}
