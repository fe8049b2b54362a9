// Geometry resamplers of the driver's own route: YUY2 pictures by two and by
// four in both directions, and the 1280 to 1024 decimation.
//
// Pixel pairs are the four bytes Y0 Cb Y1 Cr; a row is twice the width in
// bytes, rows follow without gaps. The growers interpolate linearly, chroma
// included, and only look forward: the first output row and column hold source
// values. Every weighted mean is taken as one sum of (horizontal weight x
// vertical weight x byte) shifted down once at the end, never a mean of means.
//
// Context: frame path, on buffers the caller owns. Integer only, no state, no
// allocation.

#include <cstring>

#include "pipeline/frame_pipeline.h"

namespace {

// The byte pair of video black, for output that no source pixel covers.
constexpr uint8_t BlackLuma = 16;
constexpr uint8_t BlackChroma = 128;

// Fills the bytes of an output row from `written` to `total` by repeating its
// last pixel pair, or with black when nothing was written. Only widths that
// are not a multiple of the resampler's period of output pixels leave such a
// tail (none of the catalogue's sizes do).
void FillRowTail(uint8_t* row, uint32_t written, uint32_t total) {
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
void FillLastRows(uint8_t* destination, uint32_t first, uint32_t width, uint32_t height) {
  const size_t stride = size_t(width) * 2;
  for (uint32_t y = first; y < height; ++y) {
    uint8_t* row = destination + stride * y;
    if (first > 0) {
      std::memcpy(row, destination + stride * (first - 1), stride);
    } else {
      FillRowTail(row, 0, uint32_t(stride));
    }
  }
}

// ---------------------------------------------------------------- growing
//
// The horizontal result of one source pair, before any shift: each output byte
// as a sum whose weights add up to the same total, 2 for the half steps and 4
// for the quarter steps (a lone byte counts twice or four times). `p` is the
// pair, `n` the next pair of the row; for the last pair of a row `n` is a
// stand-in pair (Y1, Cb, Y1, Cr) that turns every forward weight into a repeat.

constexpr uint32_t Half = 2;     // total horizontal weight of GrowYuy2By2
constexpr uint32_t Quarter = 4;  // total horizontal weight of GrowYuy2By4

inline void HorizontalHalf(const uint8_t* p, const uint8_t* n, uint32_t h[8]) {
  h[0] = 2u * p[0];         // Y0
  h[1] = 2u * p[1];         // Cb
  h[2] = p[0] + p[2];       // Y0, Y1: 1, 1
  h[3] = 2u * p[3];         // Cr
  h[4] = 2u * p[2];         // Y1
  h[5] = p[1] + n[1];       // Cb, Cb': 1, 1
  h[6] = p[2] + n[0];       // Y1, Y2: 1, 1
  h[7] = p[3] + n[3];       // Cr, Cr': 1, 1
}

inline void HorizontalQuarter(const uint8_t* p, const uint8_t* n, uint32_t h[16]) {
  h[0] = 4u * p[0];             // Y0
  h[1] = 4u * p[1];             // Cb
  h[2] = 3u * p[0] + p[2];      // Y0, Y1: 3, 1
  h[3] = 4u * p[3];             // Cr
  h[4] = 2u * (p[0] + p[2]);    // Y0, Y1: 1, 1
  h[5] = 3u * p[1] + n[1];      // Cb, Cb': 3, 1
  h[6] = p[0] + 3u * p[2];      // Y0, Y1: 1, 3
  h[7] = 3u * p[3] + n[3];      // Cr, Cr': 3, 1
  h[8] = 4u * p[2];             // Y1
  h[9] = 2u * (p[1] + n[1]);    // Cb, Cb': 1, 1
  h[10] = 3u * p[2] + n[0];     // Y1, Y2: 3, 1
  h[11] = 2u * (p[3] + n[3]);   // Cr, Cr': 1, 1
  h[12] = 2u * (p[2] + n[0]);   // Y1, Y2: 1, 1
  h[13] = p[1] + 3u * n[1];     // Cb, Cb': 1, 3
  h[14] = p[2] + 3u * n[0];     // Y1, Y2: 1, 3
  h[15] = p[3] + 3u * n[3];     // Cr, Cr': 1, 3
}

// One output row from source rows `a` and `b` with vertical weights WeightA
// and WeightB; Shift is log2 of (total horizontal weight x (WeightA +
// WeightB)). `pairs` source pairs make Out bytes each.
template <uint32_t Out, uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
void GrowRow(uint8_t* out, const uint8_t* a, const uint8_t* b, uint32_t pairs) {
  uint32_t ha[Out];
  uint32_t hb[Out];
  auto horizontal = [](const uint8_t* p, const uint8_t* n, uint32_t* h) {
    if constexpr (Out == 8) {
      HorizontalHalf(p, n, h);
    } else {
      HorizontalQuarter(p, n, h);
    }
  };
  for (uint32_t k = 0; k < pairs; ++k) {
    const uint8_t* pa = a + 4 * size_t(k);
    const uint8_t* pb = b + 4 * size_t(k);
    const bool last = k + 1 == pairs;
    const uint8_t standInA[4] = {pa[2], pa[1], pa[2], pa[3]};
    const uint8_t standInB[4] = {pb[2], pb[1], pb[2], pb[3]};
    horizontal(pa, last ? standInA : pa + 4, ha);
    if constexpr (WeightB != 0) horizontal(pb, last ? standInB : pb + 4, hb);
    uint8_t* o = out + Out * size_t(k);
    for (uint32_t i = 0; i < Out; ++i) {
      uint32_t sum = WeightA * ha[i];
      if constexpr (WeightB != 0) sum += WeightB * hb[i];
      o[i] = uint8_t(sum >> Shift);
    }
  }
}

}  // namespace

// ---------------------------------------------------------------- shrinking

void ShrinkYuy2By2(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height) {
  const size_t sourceStride = size_t(width) * 4;  // 2 x width pixels
  const size_t stride = size_t(width) * 2;
  const uint32_t pairs = width / 2;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* s = source + sourceStride * 2 * y;
    const uint8_t* t = s + sourceStride;
    uint8_t* o = destination + stride * y;
    for (uint32_t k = 0; k < pairs; ++k, s += 8, t += 8, o += 4) {
      o[0] = uint8_t((s[0] + s[2] + t[0] + t[2]) >> 2);
      o[1] = uint8_t((s[1] + s[5] + t[1] + t[5]) >> 2);
      o[2] = uint8_t((s[4] + s[6] + t[4] + t[6]) >> 2);
      o[3] = uint8_t((s[3] + s[7] + t[3] + t[7]) >> 2);
    }
  }
}

void ShrinkYuy2By4(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height) {
  const size_t sourceStride = size_t(width) * 8;  // 4 x width pixels
  const size_t stride = size_t(width) * 2;
  const uint32_t pairs = width / 2;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* rows = source + sourceStride * 4 * y;
    uint8_t* o = destination + stride * y;
    for (uint32_t k = 0; k < pairs; ++k, o += 4) {
      uint32_t y0 = 0, cb = 0, y1 = 0, cr = 0;
      for (uint32_t r = 0; r < 4; ++r) {
        const uint8_t* s = rows + sourceStride * r + 16 * size_t(k);
        y0 += s[0] + s[2] + s[4] + s[6];
        cb += s[1] + s[5] + s[9] + s[13];
        y1 += s[8] + s[10] + s[12] + s[14];
        cr += s[3] + s[7] + s[11] + s[15];
      }
      o[0] = uint8_t(y0 >> 4);
      o[1] = uint8_t(cb >> 4);
      o[2] = uint8_t(y1 >> 4);
      o[3] = uint8_t(cr >> 4);
    }
  }
}

// ---------------------------------------------------------------- growing

void GrowYuy2By2(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height) {
  const uint32_t sourceWidth = width / 2;
  const uint32_t sourceHeight = height / 2;
  const size_t sourceStride = size_t(sourceWidth) * 2;
  const size_t stride = size_t(width) * 2;
  const uint32_t pairs = sourceWidth / 2;
  for (uint32_t r = 0; r < sourceHeight; ++r) {
    const uint8_t* a = source + sourceStride * r;
    uint8_t* even = destination + stride * (2 * size_t(r));
    uint8_t* odd = even + stride;
    // Half a step (1, 1 over 2 in each direction): shift 1 for one row, 2 for
    // two rows.
    GrowRow<8, 1, 0, 1>(even, a, a, pairs);
    FillRowTail(even, 8 * pairs, uint32_t(stride));
    if (r + 1 < sourceHeight) {
      GrowRow<8, 1, 1, 2>(odd, a, a + sourceStride, pairs);
      FillRowTail(odd, 8 * pairs, uint32_t(stride));
    } else {
      std::memcpy(odd, even, stride);  // the last source row repeats
    }
  }
  FillLastRows(destination, 2 * sourceHeight, width, height);
}

void GrowYuy2By4(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height) {
  const uint32_t sourceWidth = width / 4;
  const uint32_t sourceHeight = height / 4;
  const size_t sourceStride = size_t(sourceWidth) * 2;
  const size_t stride = size_t(width) * 2;
  const uint32_t pairs = sourceWidth / 2;
  const uint32_t written = 16 * pairs;
  for (uint32_t r = 0; r < sourceHeight; ++r) {
    const uint8_t* a = source + sourceStride * r;
    const uint8_t* b = a + sourceStride;
    uint8_t* o = destination + stride * (4 * size_t(r));
    // Total horizontal weight 4 (shift 2); vertical 1, 0 adds nothing, 3, 1
    // and 1, 3 add shift 2, 1, 1 adds shift 1.
    GrowRow<16, 1, 0, 2>(o, a, a, pairs);
    FillRowTail(o, written, uint32_t(stride));
    if (r + 1 < sourceHeight) {
      GrowRow<16, 3, 1, 4>(o + stride, a, b, pairs);
      GrowRow<16, 1, 1, 3>(o + 2 * stride, a, b, pairs);
      GrowRow<16, 1, 3, 4>(o + 3 * stride, a, b, pairs);
      for (uint32_t i = 1; i < 4; ++i) FillRowTail(o + i * stride, written, uint32_t(stride));
    } else {
      for (uint32_t i = 1; i < 4; ++i) std::memcpy(o + i * stride, o, stride);
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
void Resample1280To1024(const uint8_t* source, uint8_t* destination, uint32_t sourceWidth,
                        uint32_t, uint32_t width, uint32_t height) {
  if (width == 0 || height == 0) return;
  const size_t sourceStride = size_t(sourceWidth) * 2;
  const size_t stride = size_t(width) * 2;
  const uint32_t groups = (height - 1) / 4 + 1;
  const uint32_t chunks = (width - 1) / 8 + 1;
  // Chunks whose 20 source bytes and 16 output bytes lie wholly in their rows.
  uint32_t whole = chunks;
  if (whole > width / 8) whole = width / 8;
  if (whole > sourceWidth / 10) whole = sourceWidth / 10;
  for (uint32_t g = 0; g < groups; ++g) {
    for (uint32_t i = 0; i < 4; ++i) {
      const uint32_t y = 4 * g + i;
      if (y >= height) return;
      const uint8_t* s = source + sourceStride * (5 * size_t(g) + i);
      uint8_t* o = destination + stride * y;
      for (uint32_t c = 0; c < whole; ++c, s += 20, o += 16) {
        uint8_t chunk[17];
        std::memcpy(chunk, s, sizeof chunk);
        uint8_t out[16];
        for (uint32_t k = 0; k < 16; ++k) out[k] = chunk[DecimationSource[k]];
        std::memcpy(o, out, sizeof out);
      }
      // A part chunk at the end of a row whose width is no multiple of 8.
      for (uint32_t c = whole; c < chunks; ++c, s += 20, o += 16) {
        uint8_t out[16];
        uint32_t n = 0;
        for (; n < 16; ++n) {
          const size_t at = 16 * size_t(c) + n;
          const size_t from = 20 * size_t(c) + DecimationSource[n];
          if (at >= stride || from >= sourceStride) break;
          out[n] = s[DecimationSource[n]];
        }
        std::memcpy(o, out, n);
      }
    }
  }
}
