// AVX2 form of the fused Bayer row (demosaic + colour matrix into YUYV),
// sixteen pixels a step in 16-bit lanes. Compiled for AVX2 routine by
// routine and chosen at run time (IspCpuHasAvx2), so the library still runs
// on a processor without it. The unpack and pack steps work within each
// 128-bit half, and each half holds eight neighbouring pixels, so the bytes
// come out in order. It gives the bytes of
// IspDevelopBayerPairs_C: the same integer sums, taken in another order.
// The first pair and the tail of the row (where neighbours are reflected)
// go to the portable routine. Frame path: no allocation, no blocking.
#include "companions/isp_library.h"

#if defined(ISP_HAVE_X86_ROWS)

#include <immintrin.h>

#define ISP_AVX2 __attribute__((target("avx2")))

namespace {

ISP_AVX2 inline __m256i Load16(const uint8_t* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

ISP_AVX2 inline __m256i Select(__m256i mask, __m256i ifSet, __m256i ifClear) {
  return _mm256_or_si256(_mm256_and_si256(mask, ifSet), _mm256_andnot_si256(mask, ifClear));
}

// Two 16-bit coefficients repeated: the pattern pmaddwd multiplies an
// interleaved (a, b) lane pair with.
ISP_AVX2 inline __m256i Pair(int16_t a, int16_t b) {
  return _mm256_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(static_cast<uint16_t>(b)) << 16) |
                                             static_cast<uint16_t>(a)));
}

}  // namespace

ISP_AVX2 void IspDevelopBayerRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                             uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                             uint8_t* out) {
  // Channel order in the lanes: "own" (this row's colour: B on even rows, R
  // on odd rows), G, "other".
  int ownIndex = oddRow ? 0 : 2;
  int otherIndex = oddRow ? 2 : 0;
  const __m256i zero = _mm256_setzero_si256();
  const __m256i yOwnGreen = Pair(k->Y[ownIndex], k->Y[1]);
  const __m256i yOther = Pair(k->Y[otherIndex], 0);
  const __m256i cbOwn = _mm256_set1_epi16(k->Cb[ownIndex]);
  const __m256i cbGreen = _mm256_set1_epi16(k->Cb[1]);
  const __m256i cbOther = _mm256_set1_epi16(k->Cb[otherIndex]);
  const __m256i crOwn = _mm256_set1_epi16(k->Cr[ownIndex]);
  const __m256i crGreen = _mm256_set1_epi16(k->Cr[1]);
  const __m256i crOther = _mm256_set1_epi16(k->Cr[otherIndex]);
  const __m256i yBias = _mm256_set1_epi32(k->YBias);
  const __m256i cbBias = _mm256_set1_epi32(k->CbBias);
  const __m256i crBias = _mm256_set1_epi32(k->CrBias);
  const __m256i low = _mm256_set1_epi16(static_cast<int16_t>(k->YMin | (16 << 8)));
  const __m256i high = _mm256_set1_epi16(static_cast<int16_t>(k->YMax | (240 << 8)));
  const __m256i one = _mm256_set1_epi16(1);
  const __m256i two = _mm256_set1_epi16(2);
  // Green sites: odd lanes on a B G row, even lanes on a G R row.
  const __m256i greenLanes =
      oddRow ? _mm256_set1_epi32(0x0000FFFF) : _mm256_set1_epi32(static_cast<int32_t>(0xFFFF0000u));

  uint32_t x = 2;
  for (; x + 17 <= width; x += 16) {
    __m256i c = Load16(row + x);
    __m256i horizontal = _mm256_add_epi16(Load16(row + x - 1), Load16(row + x + 1));
    __m256i vertical = _mm256_add_epi16(Load16(above + x), Load16(below + x));
    __m256i corners = _mm256_add_epi16(_mm256_add_epi16(Load16(above + x - 1), Load16(above + x + 1)),
                                    _mm256_add_epi16(Load16(below + x - 1), Load16(below + x + 1)));
    __m256i cross = _mm256_srli_epi16(_mm256_add_epi16(_mm256_add_epi16(horizontal, vertical), two), 2);
    __m256i diagonal = _mm256_srli_epi16(_mm256_add_epi16(corners, two), 2);
    __m256i hMean = _mm256_srli_epi16(_mm256_add_epi16(horizontal, one), 1);
    __m256i vMean = _mm256_srli_epi16(_mm256_add_epi16(vertical, one), 1);
    __m256i green = Select(greenLanes, c, cross);
    __m256i own = Select(greenLanes, hMean, c);
    __m256i other = Select(greenLanes, vMean, diagonal);

    __m256i yLow = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_madd_epi16(_mm256_unpacklo_epi16(own, green), yOwnGreen),
                      _mm256_madd_epi16(_mm256_unpacklo_epi16(other, zero), yOther)),
        yBias);
    __m256i yHigh = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_madd_epi16(_mm256_unpackhi_epi16(own, green), yOwnGreen),
                      _mm256_madd_epi16(_mm256_unpackhi_epi16(other, zero), yOther)),
        yBias);
    __m256i luma = _mm256_packs_epi32(_mm256_srai_epi32(yLow, 12), _mm256_srai_epi32(yHigh, 12));

    // pmaddwd on the plain lanes adds each pixel pair: the pair sums times
    // the coefficient.
    __m256i cb = _mm256_add_epi32(_mm256_add_epi32(_mm256_madd_epi16(own, cbOwn), _mm256_madd_epi16(green, cbGreen)),
                               _mm256_add_epi32(_mm256_madd_epi16(other, cbOther), cbBias));
    __m256i cr = _mm256_add_epi32(_mm256_add_epi32(_mm256_madd_epi16(own, crOwn), _mm256_madd_epi16(green, crGreen)),
                               _mm256_add_epi32(_mm256_madd_epi16(other, crOther), crBias));
    cb = _mm256_srai_epi32(cb, 13);
    cr = _mm256_srai_epi32(cr, 13);
    __m256i chroma = _mm256_packs_epi32(_mm256_unpacklo_epi32(cb, cr), _mm256_unpackhi_epi32(cb, cr));

    __m256i bytes = _mm256_packus_epi16(_mm256_unpacklo_epi16(luma, chroma),
                                     _mm256_unpackhi_epi16(luma, chroma));
    bytes = _mm256_min_epu8(_mm256_max_epu8(bytes, low), high);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 2 * x), bytes);
  }
  IspDevelopBayerPairs_C(above, row, below, width, oddRow, 0, 1, k, out);
  IspDevelopBayerPairs_C(above, row, below, width, oddRow, x / 2, width / 2, k, out);
}

bool IspCpuHasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

#endif
