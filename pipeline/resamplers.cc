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

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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
  const uint8_t* a;
  const uint8_t* b;
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
inline void StoreEight(uint8_t* out, uint32_t b0, uint32_t b1, uint32_t b2, uint32_t b3,
                       uint32_t b4, uint32_t b5, uint32_t b6, uint32_t b7) {
  uint8_t bytes[8] = {uint8_t(b0), uint8_t(b1), uint8_t(b2), uint8_t(b3),
                      uint8_t(b4), uint8_t(b5), uint8_t(b6), uint8_t(b7)};
  std::memcpy(out, bytes, 8);
}

// Half steps, total horizontal weight 2 (a lone byte counts twice).
template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
inline void GrowPairHalf(uint8_t* out, uint32_t y0, uint32_t cb, uint32_t y1, uint32_t cr,
                         uint32_t y2, uint32_t cbNext, uint32_t crNext) {
  StoreEight(out, (2 * y0) >> Shift, (2 * cb) >> Shift, (y0 + y1) >> Shift, (2 * cr) >> Shift,
             (2 * y1) >> Shift, (cb + cbNext) >> Shift, (y1 + y2) >> Shift,
             (cr + crNext) >> Shift);
}

// Quarter steps, total horizontal weight 4.
template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
inline void GrowPairQuarter(uint8_t* out, uint32_t y0, uint32_t cb, uint32_t y1, uint32_t cr,
                            uint32_t y2, uint32_t cbNext, uint32_t crNext) {
  StoreEight(out, (4 * y0) >> Shift, (4 * cb) >> Shift, (3 * y0 + y1) >> Shift,
             (4 * cr) >> Shift, (2 * (y0 + y1)) >> Shift, (3 * cb + cbNext) >> Shift,
             (y0 + 3 * y1) >> Shift, (3 * cr + crNext) >> Shift);
  StoreEight(out + 8, (4 * y1) >> Shift, (2 * (cb + cbNext)) >> Shift, (3 * y1 + y2) >> Shift,
             (2 * (cr + crNext)) >> Shift, (2 * (y1 + y2)) >> Shift,
             (cb + 3 * cbNext) >> Shift, (y1 + 3 * y2) >> Shift, (cr + 3 * crNext) >> Shift);
}

#if defined(__SSE2__)
// The same sums for two source pairs at a time in 16-bit lanes (at most
// 16 x 255 = 4080), one pair in each 64-bit half. With P = (Y0 Cb Y1 Cr), the
// next pair N = (Y2 Cb' Y3 Cr') and the lane shuffles Q0 = (Y0 Cb Y0 Cr),
// Q1 = (Y1 Cb Y1 Cr), X = (Y2 Cb' Y2 Cr'), every group of four output bytes
// is a sum of these with fixed weights per lane:
//   half steps:    P + Q0;  (2 1 1 1) Q1 + (0 1 1 1) X
//   quarter steps: P + 3 Q0;  (2 3 1 3) Q0 + (2 0 3 0) Q1 + (0 1 0 1) X;
//                  (4 2 3 2) Q1 + (0 2 1 2) X;  (2 1 1 1) Q1 + (2 3 3 3) X
// Reads the source pairs k to k + 2; returns the first pair it did not do.
inline __m128i Weights(int16_t w0, int16_t w1, int16_t w2, int16_t w3) {
  return _mm_setr_epi16(w0, w1, w2, w3, w0, w1, w2, w3);
}

template <uint32_t WeightA, uint32_t WeightB>
inline __m128i VerticalLanes(const uint8_t* a, const uint8_t* b) {
  const __m128i zero = _mm_setzero_si128();
  __m128i v = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(a)), zero);
  if constexpr (WeightA != 1) v = _mm_mullo_epi16(v, _mm_set1_epi16(WeightA));
  if constexpr (WeightB != 0) {
    __m128i w = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(b)), zero);
    if constexpr (WeightB != 1) w = _mm_mullo_epi16(w, _mm_set1_epi16(WeightB));
    v = _mm_add_epi16(v, w);
  }
  return v;
}

#define MR740_SHUFFLE_PAIRS(v, a, b, c, d) \
  _mm_shufflehi_epi16(_mm_shufflelo_epi16(v, _MM_SHUFFLE(d, c, b, a)), _MM_SHUFFLE(d, c, b, a))

template <uint32_t Out, uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
uint32_t GrowPairsSse2(uint8_t* out, const uint8_t* a, const uint8_t* b, uint32_t pairs) {
  uint32_t k = 0;
  for (; k + 3 <= pairs; k += 2, out += 2 * Out) {
    const size_t at = 4 * size_t(k);
    const __m128i p = VerticalLanes<WeightA, WeightB>(a + at, b + at);
    const __m128i n = VerticalLanes<WeightA, WeightB>(a + at + 4, b + at + 4);
    const __m128i q0 = MR740_SHUFFLE_PAIRS(p, 0, 1, 0, 3);
    const __m128i q1 = MR740_SHUFFLE_PAIRS(p, 2, 1, 2, 3);
    const __m128i x = MR740_SHUFFLE_PAIRS(n, 0, 1, 0, 3);
    if constexpr (Out == 8) {
      const __m128i g0 = _mm_srli_epi16(_mm_add_epi16(p, q0), Shift);
      const __m128i g1 = _mm_srli_epi16(
          _mm_add_epi16(_mm_mullo_epi16(q1, Weights(2, 1, 1, 1)),
                        _mm_mullo_epi16(x, Weights(0, 1, 1, 1))),
          Shift);
      const __m128i bytes =
          _mm_packus_epi16(_mm_unpacklo_epi64(g0, g1), _mm_unpackhi_epi64(g0, g1));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
    } else {
      const __m128i g0 =
          _mm_srli_epi16(_mm_add_epi16(p, _mm_mullo_epi16(q0, _mm_set1_epi16(3))), Shift);
      const __m128i g1 = _mm_srli_epi16(
          _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(q0, Weights(2, 3, 1, 3)),
                                      _mm_mullo_epi16(q1, Weights(2, 0, 3, 0))),
                        _mm_mullo_epi16(x, Weights(0, 1, 0, 1))),
          Shift);
      const __m128i g2 = _mm_srli_epi16(
          _mm_add_epi16(_mm_mullo_epi16(q1, Weights(4, 2, 3, 2)),
                        _mm_mullo_epi16(x, Weights(0, 2, 1, 2))),
          Shift);
      const __m128i g3 = _mm_srli_epi16(
          _mm_add_epi16(_mm_mullo_epi16(q1, Weights(2, 1, 1, 1)),
                        _mm_mullo_epi16(x, Weights(2, 3, 3, 3))),
          Shift);
      const __m128i first =
          _mm_packus_epi16(_mm_unpacklo_epi64(g0, g1), _mm_unpacklo_epi64(g2, g3));
      const __m128i second =
          _mm_packus_epi16(_mm_unpackhi_epi64(g0, g1), _mm_unpackhi_epi64(g2, g3));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out), first);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), second);
    }
  }
  return k;
}
#undef MR740_SHUFFLE_PAIRS
#endif

// The rows: the SSE2 form for the pairs it can take (it reads one pair
// ahead), the portable form for the rest and the last pair, and for all of
// the row where SSE2 is missing.
template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
void GrowRowHalf(uint8_t* out, const uint8_t* a, const uint8_t* b, uint32_t pairs) {
  if (pairs == 0) return;
  uint32_t k = 0;
#if defined(__SSE2__)
  k = GrowPairsSse2<8, WeightA, WeightB, Shift>(out, a, b, pairs);
#endif
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
  GrowPairHalf<WeightA, WeightB, Shift>(out, y0, cb, y1, cr, y1, cb, cr);  // the last repeats
}

template <uint32_t WeightA, uint32_t WeightB, uint32_t Shift>
void GrowRowQuarter(uint8_t* out, const uint8_t* a, const uint8_t* b, uint32_t pairs) {
  if (pairs == 0) return;
  uint32_t k = 0;
#if defined(__SSE2__)
  k = GrowPairsSse2<16, WeightA, WeightB, Shift>(out, a, b, pairs);
#endif
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
  GrowPairQuarter<WeightA, WeightB, Shift>(out, y0, cb, y1, cr, y1, cb, cr);  // the last repeats
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
    GrowRowHalf<1, 0, 1>(even, a, a, pairs);
    FillRowTail(even, 8 * pairs, uint32_t(stride));
    if (r + 1 < sourceHeight) {
      GrowRowHalf<1, 1, 2>(odd, a, a + sourceStride, pairs);
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
    GrowRowQuarter<1, 0, 2>(o, a, a, pairs);
    FillRowTail(o, written, uint32_t(stride));
    if (r + 1 < sourceHeight) {
      GrowRowQuarter<3, 1, 4>(o + stride, a, b, pairs);
      GrowRowQuarter<1, 1, 3>(o + 2 * stride, a, b, pairs);
      GrowRowQuarter<1, 3, 4>(o + 3 * stride, a, b, pairs);
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
        // Bytes 0 to 7 as they are; bytes 9 to 16 with each neighbouring two
        // swapped (10 9 12 11 14 13 16 15). Both words are read before either
        // is written.
        uint64_t head, tail;
        std::memcpy(&head, s, 8);
        std::memcpy(&tail, s + 9, 8);
        tail = ((tail >> 8) & 0x00FF00FF00FF00FFull) | ((tail << 8) & 0xFF00FF00FF00FF00ull);
        std::memcpy(o, &head, 8);
        std::memcpy(o + 8, &tail, 8);
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
