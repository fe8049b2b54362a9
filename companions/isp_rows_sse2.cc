// SSE2 form of the fused Bayer row (demosaic + colour matrix into YUYV),
// eight pixels a step in 16-bit lanes. It gives the bytes of
// IspDevelopBayerPairs_C: the same integer sums, taken in another order.
// The first pair and the tail of the row (where neighbours are reflected)
// go to the portable routine. Frame path: no allocation, no blocking.
#include "companions/isp_library.h"

#if defined(ISP_HAVE_X86_ROWS)

#include <emmintrin.h>

namespace {

inline __m128i Load8(const uint8_t* p) {
  return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)),
                           _mm_setzero_si128());
}

inline __m128i Select(__m128i mask, __m128i ifSet, __m128i ifClear) {
  return _mm_or_si128(_mm_and_si128(mask, ifSet), _mm_andnot_si128(mask, ifClear));
}

// Two 16-bit coefficients repeated: the pattern pmaddwd multiplies an
// interleaved (a, b) lane pair with.
inline __m128i Pair(int16_t a, int16_t b) {
  return _mm_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(static_cast<uint16_t>(b)) << 16) |
                                             static_cast<uint16_t>(a)));
}

}  // namespace

void IspDevelopBayerRow_SSE2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                             uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                             uint8_t* out) {
  // Channel order in the lanes: "own" (this row's colour: B on even rows, R
  // on odd rows), G, "other".
  int ownIndex = oddRow ? 0 : 2;
  int otherIndex = oddRow ? 2 : 0;
  const __m128i zero = _mm_setzero_si128();
  const __m128i yOwnGreen = Pair(k->Y[ownIndex], k->Y[1]);
  const __m128i yOther = Pair(k->Y[otherIndex], 0);
  const __m128i cbOwn = _mm_set1_epi16(k->Cb[ownIndex]);
  const __m128i cbGreen = _mm_set1_epi16(k->Cb[1]);
  const __m128i cbOther = _mm_set1_epi16(k->Cb[otherIndex]);
  const __m128i crOwn = _mm_set1_epi16(k->Cr[ownIndex]);
  const __m128i crGreen = _mm_set1_epi16(k->Cr[1]);
  const __m128i crOther = _mm_set1_epi16(k->Cr[otherIndex]);
  const __m128i yBias = _mm_set1_epi32(k->YBias);
  const __m128i cbBias = _mm_set1_epi32(k->CbBias);
  const __m128i crBias = _mm_set1_epi32(k->CrBias);
  const __m128i low = _mm_set1_epi16(static_cast<int16_t>(k->YMin | (16 << 8)));
  const __m128i high = _mm_set1_epi16(static_cast<int16_t>(k->YMax | (240 << 8)));
  const __m128i one = _mm_set1_epi16(1);
  const __m128i two = _mm_set1_epi16(2);
  // Green sites: odd lanes on a B G row, even lanes on a G R row.
  const __m128i greenLanes =
      oddRow ? _mm_set1_epi32(0x0000FFFF) : _mm_set1_epi32(static_cast<int32_t>(0xFFFF0000u));

  uint32_t x = 2;
  for (; x + 9 <= width; x += 8) {
    __m128i c = Load8(row + x);
    __m128i horizontal = _mm_add_epi16(Load8(row + x - 1), Load8(row + x + 1));
    __m128i vertical = _mm_add_epi16(Load8(above + x), Load8(below + x));
    __m128i corners = _mm_add_epi16(_mm_add_epi16(Load8(above + x - 1), Load8(above + x + 1)),
                                    _mm_add_epi16(Load8(below + x - 1), Load8(below + x + 1)));
    __m128i cross = _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(horizontal, vertical), two), 2);
    __m128i diagonal = _mm_srli_epi16(_mm_add_epi16(corners, two), 2);
    __m128i hMean = _mm_srli_epi16(_mm_add_epi16(horizontal, one), 1);
    __m128i vMean = _mm_srli_epi16(_mm_add_epi16(vertical, one), 1);
    __m128i green = Select(greenLanes, c, cross);
    __m128i own = Select(greenLanes, hMean, c);
    __m128i other = Select(greenLanes, vMean, diagonal);

    __m128i yLow = _mm_add_epi32(
        _mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(own, green), yOwnGreen),
                      _mm_madd_epi16(_mm_unpacklo_epi16(other, zero), yOther)),
        yBias);
    __m128i yHigh = _mm_add_epi32(
        _mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(own, green), yOwnGreen),
                      _mm_madd_epi16(_mm_unpackhi_epi16(other, zero), yOther)),
        yBias);
    __m128i luma = _mm_packs_epi32(_mm_srai_epi32(yLow, 12), _mm_srai_epi32(yHigh, 12));

    // pmaddwd on the plain lanes adds each pixel pair: the pair sums times
    // the coefficient.
    __m128i cb = _mm_add_epi32(_mm_add_epi32(_mm_madd_epi16(own, cbOwn), _mm_madd_epi16(green, cbGreen)),
                               _mm_add_epi32(_mm_madd_epi16(other, cbOther), cbBias));
    __m128i cr = _mm_add_epi32(_mm_add_epi32(_mm_madd_epi16(own, crOwn), _mm_madd_epi16(green, crGreen)),
                               _mm_add_epi32(_mm_madd_epi16(other, crOther), crBias));
    cb = _mm_srai_epi32(cb, 13);
    cr = _mm_srai_epi32(cr, 13);
    __m128i chroma = _mm_packs_epi32(_mm_unpacklo_epi32(cb, cr), _mm_unpackhi_epi32(cb, cr));

    __m128i bytes = _mm_packus_epi16(_mm_unpacklo_epi16(luma, chroma),
                                     _mm_unpackhi_epi16(luma, chroma));
    bytes = _mm_min_epu8(_mm_max_epu8(bytes, low), high);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 2 * x), bytes);
  }
  IspDevelopBayerPairs_C(above, row, below, width, oddRow, 0, 1, k, out);
  IspDevelopBayerPairs_C(above, row, below, width, oddRow, x / 2, width / 2, k, out);
}

#endif
