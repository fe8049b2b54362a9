// Row routines of the geometry resamplers: the portable forms, which are the
// reference, and the AVX2 forms, which give the same bytes and are chosen once
// per picture when the processor has them. A row routine takes the output of
// one source row (growers: the two or four output rows it makes) from pair or
// chunk `first` to the end of the row; the AVX2 forms do what they can in
// 32-byte steps and hand the last few pairs to the portable form.
//
// Pixel pairs are the four bytes Y0 Cb Y1 Cr. `pairs` counts source pairs for
// the growers and output pairs for the shrinkers.
//
// Context: frame path. Integer only, no state, no allocation.
#pragma once

#include <cstddef>
#include <cstdint>

// Grow by two: `even` from source row `a` alone; `odd` from rows `a` and `b`
// when `b` is not null.
typedef void (*GrowRowsByTwoRoutine)(uint8_t *even, uint8_t *odd, const uint8_t *a,
                                     const uint8_t *b, uint32_t first, uint32_t pairs);
// Grow by four: the four output rows at `out`, `stride` apart, from rows `a`
// and `b`; only the first when `b` is null.
typedef void (*GrowRowsByFourRoutine)(uint8_t *out, size_t stride, const uint8_t *a,
                                      const uint8_t *b, uint32_t first, uint32_t pairs);
// Shrink by two: one output row from source rows `s` and `t`.
typedef void (*ShrinkRowByTwoRoutine)(uint8_t *out, const uint8_t *s, const uint8_t *t,
                                      uint32_t first, uint32_t pairs);
// Shrink by four: one output row from the four source rows at `rows`,
// `sourceStride` apart.
typedef void (*ShrinkRowByFourRoutine)(uint8_t *out, const uint8_t *rows, size_t sourceStride,
                                       uint32_t first, uint32_t pairs);
// 1280 to 1024: whole chunks of 20 source bytes into 16 output bytes. `out`
// may equal `source` or lie before it: each step reads before it writes.
typedef void (*DecimateRowRoutine)(uint8_t *out, const uint8_t *source, uint32_t first,
                                   uint32_t chunks);

struct ResampleRowSet {
  GrowRowsByTwoRoutine GrowRowsByTwo;
  GrowRowsByFourRoutine GrowRowsByFour;
  ShrinkRowByTwoRoutine ShrinkRowByTwo;
  ShrinkRowByFourRoutine ShrinkRowByFour;
  DecimateRowRoutine DecimateRow;
};

void GrowRowsByTwo_C(uint8_t *even, uint8_t *odd, const uint8_t *a, const uint8_t *b,
                     uint32_t first, uint32_t pairs);
void GrowRowsByFour_C(uint8_t *out, size_t stride, const uint8_t *a, const uint8_t *b,
                      uint32_t first, uint32_t pairs);
void ShrinkRowByTwo_C(uint8_t *out, const uint8_t *s, const uint8_t *t, uint32_t first,
                      uint32_t pairs);
void ShrinkRowByFour_C(uint8_t *out, const uint8_t *rows, size_t sourceStride, uint32_t first,
                       uint32_t pairs);
void DecimateRow_C(uint8_t *out, const uint8_t *source, uint32_t first, uint32_t chunks);

#if defined(__x86_64__) || defined(__i386__)
#define MR740_RESAMPLE_HAVE_AVX2 1
void GrowRowsByTwo_AVX2(uint8_t *even, uint8_t *odd, const uint8_t *a, const uint8_t *b,
                        uint32_t first, uint32_t pairs);
void GrowRowsByFour_AVX2(uint8_t *out, size_t stride, const uint8_t *a, const uint8_t *b,
                         uint32_t first, uint32_t pairs);
void ShrinkRowByTwo_AVX2(uint8_t *out, const uint8_t *s, const uint8_t *t, uint32_t first,
                         uint32_t pairs);
void ShrinkRowByFour_AVX2(uint8_t *out, const uint8_t *rows, size_t sourceStride, uint32_t first,
                          uint32_t pairs);
void DecimateRow_AVX2(uint8_t *out, const uint8_t *source, uint32_t first, uint32_t chunks);
bool ResampleCpuHasAvx2();
#endif

// The row set for the next picture: AVX2 when the processor has it and
// vectors are allowed, else the portable set.
const ResampleRowSet *ChooseResampleRows();
// Lets tests run the portable rows on a processor that has AVX2. Not for use
// while pictures are being resampled on another thread.
void AllowResamplerVectors(bool allowed);
