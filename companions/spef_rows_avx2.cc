// AVX2 rows of the special-effects library: the same bytes as the portable
// rows, 16 pixels (32 bytes) an iteration, the rest handed to the portable
// row. Chosen only when the processor reports AVX2.

#include "companions/spef_effects.h"

#ifdef MR740_SPEF_HAVE_AVX2

#include <immintrin.h>

#define SPEF_AVX2 __attribute__((target("avx2")))

SPEF_AVX2 void SpefConstantChromaRow_AVX2(uint8_t* yuyv, int pixels, uint8_t cb, uint8_t cr) {
  const __m256i keepY = _mm256_set1_epi32(0x00FF00FF);
  const __m256i chroma = _mm256_set1_epi32(
      static_cast<int32_t>((static_cast<uint32_t>(cr) << 24) | (static_cast<uint32_t>(cb) << 8)));
  int x = 0;
  for (; x + 16 <= pixels; x += 16) {
    auto* p = reinterpret_cast<__m256i*>(yuyv + 2 * x);
    _mm256_storeu_si256(p, _mm256_or_si256(_mm256_and_si256(_mm256_loadu_si256(p), keepY), chroma));
  }
  if (x < pixels) SpefConstantChromaRow_C(yuyv + 2 * x, pixels - x, cb, cr);
}

// Byte lanes alternate Y and C: clamp each to its studio range, then take it
// from 251 (Y) or from 256, which is 0 in wrapping byte arithmetic (C).
SPEF_AVX2 void SpefNegativeRow_AVX2(uint8_t* yuyv, int pixels) {
  const __m256i lo = _mm256_set1_epi8(16);
  const __m256i hi = _mm256_set1_epi16(static_cast<int16_t>((240 << 8) | 235));
  const __m256i sum = _mm256_set1_epi16(251);
  int x = 0;
  for (; x + 16 <= pixels; x += 16) {
    auto* p = reinterpret_cast<__m256i*>(yuyv + 2 * x);
    __m256i v = _mm256_min_epu8(_mm256_max_epu8(_mm256_loadu_si256(p), lo), hi);
    _mm256_storeu_si256(p, _mm256_sub_epi8(sum, v));
  }
  if (x < pixels) SpefNegativeRow_C(yuyv + 2 * x, pixels - x);
}

// 32 pixels an iteration: the even bytes of 64, packed, lanes put in order.
SPEF_AVX2 void SpefLoadLumaRow_AVX2(const uint8_t* yuyv, int width, uint8_t* row) {
  const __m256i low = _mm256_set1_epi16(0x00FF);
  int x = 0;
  for (; x + 32 <= width; x += 32) {
    __m256i a =
        _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(yuyv + 2 * x)), low);
    __m256i b = _mm256_and_si256(
        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(yuyv + 2 * x + 32)), low);
    __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xD8);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(row + x), packed);
  }
  for (; x < width; ++x) row[x] = yuyv[2 * x];
  row[-1] = row[0];
  row[width] = row[width - 1];
}

namespace {

SPEF_AVX2 inline __m256i Widen(const uint8_t* p) {
  return _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

// 16 luma values in 16-bit lanes, clamped to 16..235, as YUYV bytes with
// chroma 128: 32 bytes at dst.
SPEF_AVX2 inline void StoreGrey16(__m256i luma, uint8_t* dst) {
  luma = _mm256_min_epi16(_mm256_max_epi16(luma, _mm256_set1_epi16(16)), _mm256_set1_epi16(235));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst),
                      _mm256_or_si256(luma, _mm256_set1_epi16(static_cast<int16_t>(0x8000))));
}

}  // namespace

// The sums stay within 16 bits for gains up to 64: 126 + 255 x 64 and
// 235 - 510 x 64.
SPEF_AVX2 void SpefEmbossRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                  uint8_t* yuyv, int width, int32_t gain) {
  const __m256i g = _mm256_set1_epi16(static_cast<int16_t>(gain));
  const __m256i grey = _mm256_set1_epi16(126);
  int x = 0;
  for (; x + 16 <= width; x += 16) {
    __m256i d = _mm256_sub_epi16(Widen(below + x + 1), Widen(above + x - 1));
    StoreGrey16(_mm256_add_epi16(grey, _mm256_mullo_epi16(d, g)), yuyv + 2 * x);
  }
  if (x < width) SpefEmbossRow_C(above + x, row + x, below + x, yuyv + 2 * x, width - x, gain);
}

SPEF_AVX2 void SpefSketchRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                  uint8_t* yuyv, int width, int32_t gain) {
  const __m256i g = _mm256_set1_epi16(static_cast<int16_t>(gain));
  const __m256i white = _mm256_set1_epi16(235);
  int x = 0;
  for (; x + 16 <= width; x += 16) {
    __m256i gx = _mm256_abs_epi16(_mm256_sub_epi16(Widen(row + x + 1), Widen(row + x - 1)));
    __m256i gy = _mm256_abs_epi16(_mm256_sub_epi16(Widen(below + x), Widen(above + x)));
    __m256i edge = _mm256_mullo_epi16(_mm256_add_epi16(gx, gy), g);
    StoreGrey16(_mm256_sub_epi16(white, edge), yuyv + 2 * x);
  }
  if (x < width) SpefSketchRow_C(above + x, row + x, below + x, yuyv + 2 * x, width - x, gain);
}

#endif  // MR740_SPEF_HAVE_AVX2
