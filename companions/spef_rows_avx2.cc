// AVX2 rows of the special-effects library: the same bytes as the portable
// rows, 16 pixels (32 bytes) an iteration, the rest handed to the portable
// row. Chosen only when the processor reports AVX2.

#include "companions/spef_effects.h"

#ifdef MR740_SPEF_HAVE_AVX2

#include <immintrin.h>

#define SPEF_AVX2 __attribute__((target("avx2")))

SPEF_AVX2 void SpefConstantChromaRow_AVX2(uint8_t* yuyv, int pixels, uint8_t cb, uint8_t cr) {
  const __m256i keepY = _mm256_set1_epi32(0x00FF00FF);
  const __m256i chroma = _mm256_set1_epi32(static_cast<int32_t>((static_cast<uint32_t>(cr) << 24) |
                                                                (static_cast<uint32_t>(cb) << 8)));
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

#endif  // MR740_SPEF_HAVE_AVX2
