// SSSE3 forms of the image processor's rows: the fused Bayer row, the Bayer
// row into planes and the RGB planes into YUYV, sixteen pixels a step.
// The demosaic works in bytes with the byte mean; pair sums come from a
// multiply-add against 64s; the matrix works in 16-bit lanes with high-half
// products, as in the AVX2 forms. Every routine gives the bytes of its
// portable form (isp_rows.cc). Compiled for SSSE3 routine by routine and
// chosen at run time. Frame path: no allocation, no blocking.
#include "companions/isp_library.h"

#if defined(ISP_HAVE_X86_ROWS)

#include <immintrin.h>

#include <cstring>

#define ISP_SSSE3 __attribute__((target("ssse3")))

namespace {

constexpr uint32_t Step = 16;

ISP_SSSE3 inline __m128i Load(const uint8_t* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
ISP_SSSE3 inline void Store(uint8_t* p, __m128i v) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

// The constants of one row. "own" is the colour of the row's colour sites
// (B on a B G row, R on a G R row), "other" the opposite colour.
struct RowVectors {
  __m128i sixtyFours;
  __m128i yOwn, yGreen, yOther, yBias;
  __m128i cbOwn, cbGreen, cbOther, cbBias;
  __m128i crOwn, crGreen, crOther, crBias;
  __m128i low, high;
  __m128i greenSites;
  bool clamp;  // the final clamp can change a byte
};

ISP_SSSE3 inline __m128i Select(__m128i mask, __m128i ifSet, __m128i ifClear) {
  return _mm_or_si128(_mm_and_si128(mask, ifSet), _mm_andnot_si128(mask, ifClear));
}

ISP_SSSE3 inline __m128i GreenSites(uint32_t oddRow) {
  // Odd bytes on a B G row, even bytes on a G R row.
  return _mm_set1_epi16(oddRow ? 0x00FF : static_cast<int16_t>(0xFF00));
}

ISP_SSSE3 inline void MakeRowVectors(const IspRowCoefficients* k, uint32_t oddRow, RowVectors* v) {
  int own = oddRow ? 0 : 2;  // coefficient order is R, G, B
  int other = oddRow ? 2 : 0;
  // Multiply-add of a byte pair by 64 and 64: the pair's sum x 64.
  v->sixtyFours = _mm_set1_epi8(64);
  v->yOwn = _mm_set1_epi16(k->Y[own]);
  v->yGreen = _mm_set1_epi16(k->Y[1]);
  v->yOther = _mm_set1_epi16(k->Y[other]);
  v->yBias = _mm_set1_epi16(k->YBias16);
  v->cbOwn = _mm_set1_epi16(k->Cb[own]);
  v->cbGreen = _mm_set1_epi16(k->Cb[1]);
  v->cbOther = _mm_set1_epi16(k->Cb[other]);
  v->cbBias = _mm_set1_epi16(k->CbBias16);
  v->crOwn = _mm_set1_epi16(k->Cr[own]);
  v->crGreen = _mm_set1_epi16(k->Cr[1]);
  v->crOther = _mm_set1_epi16(k->Cr[other]);
  v->crBias = _mm_set1_epi16(k->CrBias16);
  // Bytes alternate luma, chroma: the luma clamp and 16..240.
  v->low = _mm_set1_epi16(static_cast<int16_t>(k->YMin | (16 << 8)));
  v->high = _mm_set1_epi16(static_cast<int16_t>(k->YMax | (240 << 8)));
  v->greenSites = GreenSites(oddRow);
  v->clamp = IspRgbRowNeedsClamp(k);
}

// Demosaic of 16 pixels from row[0] on (row[0] an even column), reading
// row[-1] .. row[16] and the same columns above and below.
ISP_SSSE3 inline void DemosaicStep(__m128i greenSites, const uint8_t* above, const uint8_t* row,
                                   const uint8_t* below, __m128i* own, __m128i* green,
                                   __m128i* other) {
  __m128i c = Load(row);
  __m128i horizontal = _mm_avg_epu8(Load(row - 1), Load(row + 1));
  __m128i vertical = _mm_avg_epu8(Load(above), Load(below));
  __m128i cross = _mm_avg_epu8(horizontal, vertical);
  __m128i corners = _mm_avg_epu8(_mm_avg_epu8(Load(above - 1), Load(above + 1)),
                                 _mm_avg_epu8(Load(below - 1), Load(below + 1)));
  *green = Select(greenSites, c, cross);
  *own = Select(greenSites, horizontal, c);
  *other = Select(greenSites, vertical, corners);
}

// Luma, Q4 >> 4, of pixels whose channels sit in the high bytes (x 256).
ISP_SSSE3 inline __m128i Luma(const RowVectors& v, __m128i own, __m128i green, __m128i other) {
  __m128i sum = _mm_adds_epu16(_mm_mulhi_epu16(own, v.yOwn), _mm_mulhi_epu16(green, v.yGreen));
  sum = _mm_adds_epu16(sum, _mm_mulhi_epu16(other, v.yOther));
  return _mm_srli_epi16(_mm_adds_epu16(sum, v.yBias), 4);
}

// Chroma of pixel pairs from their sums (already x 64).
ISP_SSSE3 inline __m128i Chroma(__m128i own, __m128i green, __m128i other, __m128i kOwn,
                                __m128i kGreen, __m128i kOther, __m128i bias) {
  __m128i sum = _mm_adds_epi16(_mm_mulhrs_epi16(own, kOwn), _mm_mulhrs_epi16(green, kGreen));
  sum = _mm_adds_epi16(sum, _mm_mulhrs_epi16(other, kOther));
  return _mm_srai_epi16(_mm_adds_epi16(sum, bias), 4);
}

// The matrix for 16 pixels of three channels into 32 bytes of YUYV.
ISP_SSSE3 inline void ColourStep(const RowVectors& v, __m128i own, __m128i green, __m128i other,
                                 uint8_t* out) {
  // Pair sums x 64, pairs 0..7.
  __m128i ownSum = _mm_maddubs_epi16(own, v.sixtyFours);
  __m128i greenSum = _mm_maddubs_epi16(green, v.sixtyFours);
  __m128i otherSum = _mm_maddubs_epi16(other, v.sixtyFours);
  __m128i cb = Chroma(ownSum, greenSum, otherSum, v.cbOwn, v.cbGreen, v.cbOther, v.cbBias);
  __m128i cr = Chroma(ownSum, greenSum, otherSum, v.crOwn, v.crGreen, v.crOther, v.crBias);

  // Luma a pixel pair per 16-bit lane: even pixels (low bytes) and odd
  // pixels (high bytes), each moved into the high byte (x 256).
  const __m128i highBytes = _mm_set1_epi16(static_cast<int16_t>(0xFF00));
  __m128i lumaEven =
      Luma(v, _mm_slli_epi16(own, 8), _mm_slli_epi16(green, 8), _mm_slli_epi16(other, 8));
  __m128i lumaOdd = Luma(v, _mm_and_si128(own, highBytes), _mm_and_si128(green, highBytes),
                         _mm_and_si128(other, highBytes));
  // Bytes Y0 Cb Y1 Cr per pair.
  __m128i luma = _mm_packus_epi16(lumaEven, lumaOdd);  // even lumas | odd lumas
  __m128i chroma = _mm_packus_epi16(cb, cr);           // Cb | Cr
  __m128i withCb = _mm_unpacklo_epi8(luma, chroma);    // Y0 Cb per pair
  __m128i withCr = _mm_unpackhi_epi8(luma, chroma);    // Y1 Cr per pair
  __m128i a = _mm_unpacklo_epi16(withCb, withCr);      // pairs 0..3
  __m128i b = _mm_unpackhi_epi16(withCb, withCr);      // pairs 4..7
  if (v.clamp) {
    a = _mm_min_epu8(_mm_max_epu8(a, v.low), v.high);
    b = _mm_min_epu8(_mm_max_epu8(b, v.low), v.high);
  }
  Store(out, a);
  Store(out + 16, b);
}

// Padded copies of columns start - 1 .. start + 16 of the three rows, for
// the steps at the ends of a row where neighbours are reflected.
struct PaddedRows {
  uint8_t above[Step + 2];
  uint8_t row[Step + 2];
  uint8_t below[Step + 2];
};
inline void PadRows(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint32_t width,
                    int32_t start, PaddedRows* padded) {
  IspPadColumns(above, width, start - 1, Step + 2, padded->above);
  IspPadColumns(row, width, start - 1, Step + 2, padded->row);
  IspPadColumns(below, width, start - 1, Step + 2, padded->below);
}

// Where the last step of a row starts: even (the lanes' colour order needs
// it) and reaching the last pixel.
inline uint32_t LastStart(uint32_t width) { return (width - Step + 1) & ~1u; }

ISP_SSSE3 void DevelopPadded(const RowVectors& v, const uint8_t* above, const uint8_t* row,
                             const uint8_t* below, uint32_t width, uint32_t start, uint32_t from,
                             uint32_t pixels, uint8_t* out) {
  PaddedRows padded;
  PadRows(above, row, below, width, static_cast<int32_t>(start), &padded);
  __m128i own, green, other;
  DemosaicStep(v.greenSites, padded.above + 1, padded.row + 1, padded.below + 1, &own, &green,
               &other);
  uint8_t developed[2 * Step];
  ColourStep(v, own, green, other, developed);
  std::memcpy(out + 2 * (start + from), developed + 2 * from, 2 * pixels);
}

// The first and the last pair of an even row of at least 16 pixels in one
// step: lanes 0..7 take columns 0..7, lanes 8..15 columns width - 8 ..
// width - 1, each end with its reflected neighbour. The lanes next to the
// seam see a wrong neighbour, but only the two outer pairs are kept.
inline void PadEnds(const uint8_t* source, uint32_t width, uint8_t* padded) {
  padded[0] = source[1];
  std::memcpy(padded + 1, source, 8);
  std::memcpy(padded + 1 + 8, source + width - 8, 8);
  padded[Step + 1] = source[width - 2];
}

ISP_SSSE3 void DevelopEnds(const RowVectors& v, const uint8_t* above, const uint8_t* row,
                           const uint8_t* below, uint32_t width, uint8_t* out) {
  PaddedRows padded;
  PadEnds(above, width, padded.above);
  PadEnds(row, width, padded.row);
  PadEnds(below, width, padded.below);
  __m128i own, green, other;
  DemosaicStep(v.greenSites, padded.above + 1, padded.row + 1, padded.below + 1, &own, &green,
               &other);
  uint8_t developed[2 * Step];
  ColourStep(v, own, green, other, developed);
  std::memcpy(out, developed, 4);
  std::memcpy(out + 2 * (width - 2), developed + 2 * (Step - 2), 4);
}

ISP_SSSE3 void DemosaicPadded(__m128i greenSites, const uint8_t* above, const uint8_t* row,
                              const uint8_t* below, uint32_t width, uint32_t start, uint32_t from,
                              uint32_t pixels, uint8_t* ownPlane, uint8_t* greenPlane,
                              uint8_t* otherPlane) {
  PaddedRows padded;
  PadRows(above, row, below, width, static_cast<int32_t>(start), &padded);
  __m128i own, green, other;
  DemosaicStep(greenSites, padded.above + 1, padded.row + 1, padded.below + 1, &own, &green,
               &other);
  uint8_t bytes[3][Step];
  Store(bytes[0], own);
  Store(bytes[1], green);
  Store(bytes[2], other);
  std::memcpy(ownPlane + start + from, bytes[0] + from, pixels);
  std::memcpy(greenPlane + start + from, bytes[1] + from, pixels);
  std::memcpy(otherPlane + start + from, bytes[2] + from, pixels);
}

}  // namespace

ISP_SSSE3 void IspDevelopBayerRow_SSSE3(const uint8_t* above, const uint8_t* row,
                                        const uint8_t* below, uint32_t width, uint32_t oddRow,
                                        const IspRowCoefficients* k, uint8_t* out) {
  RowVectors v;
  MakeRowVectors(k, oddRow, &v);
  if (width < Step + 3) {
    // A short row: padded steps only, the second one ending at the row's end.
    DevelopPadded(v, above, row, below, width, 0, 0, width < Step ? width : Step, out);
    if (width > Step) {
      uint32_t start = LastStart(width);
      DevelopPadded(v, above, row, below, width, start, 0, width - start, out);
    }
    return;
  }
  // Steps from pixel 2 on, the last one moved back to end at or before pixel
  // width - 3 (overlapping the one before: the same bytes again). The first
  // and the last pair see reflected neighbours: padded steps.
  uint32_t last = (width - Step - 1) & ~1u;
  for (uint32_t step = 2;; step += Step) {
    uint32_t x = step < last ? step : last;
    __m128i own, green, other;
    DemosaicStep(v.greenSites, above + x, row + x, below + x, &own, &green, &other);
    ColourStep(v, own, green, other, out + 2 * x);
    if (x == last) break;
  }
  DevelopEnds(v, above, row, below, width, out);
}

ISP_SSSE3 void IspDemosaicBayerRow_SSSE3(const uint8_t* above, const uint8_t* row,
                                         const uint8_t* below, uint32_t width, uint32_t oddRow,
                                         uint8_t* red, uint8_t* green, uint8_t* blue) {
  uint8_t* ownPlane = oddRow ? red : blue;
  uint8_t* otherPlane = oddRow ? blue : red;
  const __m128i greenSites = GreenSites(oddRow);
  if (width < Step + 3) {
    DemosaicPadded(greenSites, above, row, below, width, 0, 0, width < Step ? width : Step,
                   ownPlane, green, otherPlane);
    if (width > Step) {
      uint32_t start = LastStart(width);
      DemosaicPadded(greenSites, above, row, below, width, start, 0, width - start, ownPlane, green,
                     otherPlane);
    }
    return;
  }
  uint32_t last = (width - Step - 1) & ~1u;
  for (uint32_t step = 2;; step += Step) {
    uint32_t x = step < last ? step : last;
    __m128i own, g, other;
    DemosaicStep(greenSites, above + x, row + x, below + x, &own, &g, &other);
    Store(ownPlane + x, own);
    Store(green + x, g);
    Store(otherPlane + x, other);
    if (x == last) break;
  }
  DemosaicPadded(greenSites, above, row, below, width, 0, 0, 2, ownPlane, green, otherPlane);
  uint32_t start = LastStart(width);
  DemosaicPadded(greenSites, above, row, below, width, start, width - 2 - start, 2, ownPlane, green,
                 otherPlane);
}

ISP_SSSE3 void IspConvertRgbRow_SSSE3(const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                                      uint32_t width, const IspRowCoefficients* k, uint8_t* out) {
  if (width < Step) {
    IspConvertRgbRow_C(red, green, blue, width, k, out);
    return;
  }
  // As a B G row: "own" is blue, "other" red. The last step moves back to
  // end at the row's end (width is even, so it starts on a pair).
  RowVectors v;
  MakeRowVectors(k, 0, &v);
  for (uint32_t step = 0;; step += Step) {
    uint32_t x = step < width - Step ? step : width - Step;
    ColourStep(v, Load(blue + x), Load(green + x), Load(red + x), out + 2 * x);
    if (x == width - Step) break;
  }
}

bool IspCpuHasSsse3() {
  static const bool has = __builtin_cpu_supports("ssse3");
  return has;
}

#endif
