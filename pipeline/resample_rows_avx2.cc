// AVX2 rows of the geometry resamplers. Each gives the same bytes as its
// portable row (resample_rows.h) and is chosen only when the processor reports
// AVX2; the file builds without -mavx2, through target attributes.
//
// The weighted means are byte shuffles into (left, right) byte pairs followed
// by a multiply-add with the horizontal weights (pmaddubsw), which gives the
// horizontal sums in 16-bit lanes; the vertical weights are then additions of
// those sums and one shift at the end, as in the portable rows. The largest
// sum, 16 x 255 = 4080, fits a lane.

#include "pipeline/resample_rows.h"

#ifdef MR740_RESAMPLE_HAVE_AVX2

#include <immintrin.h>

#define RESAMPLE_AVX2 __attribute__((target("avx2")))

namespace {

RESAMPLE_AVX2 inline __m256i LoadHalves(const uint8_t *low, const uint8_t *high) {
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(low))),
      _mm_loadu_si128(reinterpret_cast<const __m128i *>(high)), 1);
}

RESAMPLE_AVX2 inline __m256i Load(const uint8_t *p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}

RESAMPLE_AVX2 inline void Store(uint8_t *p, __m256i v) {
  _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), v);
}

// A shuffle control or weight vector from the 16 bytes of each lane, each
// lane's indices moved by its own offset (-1 stays -1: a zero byte).
struct LaneBytes {
  int8_t b[16];
};

RESAMPLE_AVX2 inline __m256i Control(const LaneBytes &pattern, int8_t low, int8_t high) {
  alignas(32) int8_t bytes[32];
  for (int i = 0; i < 16; ++i) {
    bytes[i] = pattern.b[i] < 0 ? int8_t(-1) : int8_t(pattern.b[i] + low);
    bytes[16 + i] = pattern.b[i] < 0 ? int8_t(-1) : int8_t(pattern.b[i] + high);
  }
  return _mm256_load_si256(reinterpret_cast<const __m256i *>(bytes));
}

RESAMPLE_AVX2 inline __m256i Weights(const LaneBytes &weights) { return Control(weights, 0, 0); }

// The 16-bit horizontal sums of a shuffle: (left x weight + right x weight).
RESAMPLE_AVX2 inline __m256i Sums(__m256i source, __m256i control, __m256i weights) {
  return _mm256_maddubs_epi16(_mm256_shuffle_epi8(source, control), weights);
}

// 16 + 16 lanes shifted down, to 32 bytes. The pack works per 128-bit lane,
// so `low` holds output bytes 0-7 and 16-23, `high` bytes 8-15 and 24-31.
RESAMPLE_AVX2 inline void StoreShifted(uint8_t *out, __m256i low, __m256i high, int shift) {
  const __m128i count = _mm_cvtsi32_si128(shift);
  Store(out, _mm256_packus_epi16(_mm256_srl_epi16(low, count), _mm256_srl_epi16(high, count)));
}

// ---------------------------------------------------------------- growing
//
// Half steps: the eight output bytes of pair P = (Y0 Cb Y1 Cr) at byte o,
// whose next pair N starts at o + 4, as (left, right) pairs of total weight 2:
//   Y0 Y0, Cb Cb, Y0 Y1, Cr Cr, Y1 Y1, Cb Cb', Y1 Y2, Cr Cr'.
constexpr LaneBytes HalfStepPairs = {{0, 0, 1, 1, 0, 2, 3, 3, 2, 2, 1, 5, 2, 4, 3, 7}};
constexpr LaneBytes HalfStepWeights = {{1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}};

// Quarter steps: the sixteen output bytes of a pair, of total weight 4, in
// two halves.
constexpr LaneBytes QuarterStepPairsLow = {{0, 0, 1, 1, 0, 2, 3, 3, 0, 2, 1, 5, 0, 2, 3, 7}};
constexpr LaneBytes QuarterStepWeightsLow = {{4, 0, 4, 0, 3, 1, 4, 0, 2, 2, 3, 1, 1, 3, 3, 1}};
constexpr LaneBytes QuarterStepPairsHigh = {{2, 2, 1, 5, 2, 4, 3, 7, 2, 4, 1, 5, 2, 4, 3, 7}};
constexpr LaneBytes QuarterStepWeightsHigh = {{4, 0, 2, 2, 3, 1, 2, 2, 2, 2, 1, 3, 1, 3, 1, 3}};

// ---------------------------------------------------------------- shrinking
//
// By two: each group of eight source bytes (two pairs) gives one output pair
// as the sums Y0 + Y1, Cb + Cb', Y2 + Y3, Cr + Cr' of a row.
constexpr LaneBytes ShrinkByTwoPairs = {{0, 2, 1, 5, 4, 6, 3, 7, 8, 10, 9, 13, 12, 14, 11, 15}};
// By four: sixteen source bytes (four pairs) give one output pair; the four
// luma or chroma bytes of each output byte come as two sums.
constexpr LaneBytes ShrinkByFourPairs = {{0, 2, 4, 6, 1, 5, 9, 13, 8, 10, 12, 14, 3, 7, 11, 15}};

// ---------------------------------------------------------------- 1280 to 1024
//
// One chunk from two loads, at its byte 0 and byte 1: bytes 0-7 from the
// first, bytes 9-16 with neighbours swapped from the second.
constexpr LaneBytes DecimationHead = {{0, 1, 2, 3, 4, 5, 6, 7, -1, -1, -1, -1, -1, -1, -1, -1}};
constexpr LaneBytes DecimationTail = {
    {-1, -1, -1, -1, -1, -1, -1, -1, 9, 8, 11, 10, 13, 12, 15, 14}};

}  // namespace

RESAMPLE_AVX2 void GrowRowsByTwo_AVX2(uint8_t *even, uint8_t *odd, const uint8_t *a,
                                      const uint8_t *b, uint32_t first, uint32_t pairs) {
  // Four pairs a step: the lanes load at pairs k and k + 1, and give pairs k
  // and k + 2 (`low`) and k + 1 and k + 3 (`high`); the step reads up to
  // pair k + 4.
  const __m256i low = Control(HalfStepPairs, 0, 4);
  const __m256i high = Control(HalfStepPairs, 4, 8);
  const __m256i weights = Weights(HalfStepWeights);
  uint32_t k = first;
  for (; k + 5 <= pairs; k += 4) {
    const size_t at = 4 * size_t(k);
    const __m256i sa = LoadHalves(a + at, a + at + 4);
    const __m256i lowA = Sums(sa, low, weights), highA = Sums(sa, high, weights);
    StoreShifted(even + 2 * at, lowA, highA, 1);
    if (b != nullptr) {
      const __m256i sb = LoadHalves(b + at, b + at + 4);
      StoreShifted(odd + 2 * at, _mm256_add_epi16(lowA, Sums(sb, low, weights)),
                   _mm256_add_epi16(highA, Sums(sb, high, weights)), 2);
    }
  }
  GrowRowsByTwo_C(even, odd, a, b, k, pairs);
}

RESAMPLE_AVX2 void GrowRowsByFour_AVX2(uint8_t *out, size_t stride, const uint8_t *a,
                                       const uint8_t *b, uint32_t first, uint32_t pairs) {
  // Two pairs a step: both lanes load at pair k; the first lane gives pair k,
  // the second pair k + 1, in two halves. The load reaches pair k + 3.
  const __m256i low = Control(QuarterStepPairsLow, 0, 4);
  const __m256i high = Control(QuarterStepPairsHigh, 0, 4);
  const __m256i weightsLow = Weights(QuarterStepWeightsLow);
  const __m256i weightsHigh = Weights(QuarterStepWeightsHigh);
  uint32_t k = first;
  for (; k + 4 <= pairs; k += 2) {
    const size_t at = 4 * size_t(k);
    uint8_t *o = out + 4 * at;
    const __m256i sa = LoadHalves(a + at, a + at);
    const __m256i lowA = Sums(sa, low, weightsLow), highA = Sums(sa, high, weightsHigh);
    StoreShifted(o, lowA, highA, 2);
    if (b == nullptr) continue;
    const __m256i sb = LoadHalves(b + at, b + at);
    const __m256i lowB = Sums(sb, low, weightsLow), highB = Sums(sb, high, weightsHigh);
    // Vertical weights 3 1, 1 1 and 1 3 as a + b plus twice a or twice b.
    const __m256i lowSum = _mm256_add_epi16(lowA, lowB);
    const __m256i highSum = _mm256_add_epi16(highA, highB);
    StoreShifted(o + stride, _mm256_add_epi16(lowSum, _mm256_slli_epi16(lowA, 1)),
                 _mm256_add_epi16(highSum, _mm256_slli_epi16(highA, 1)), 4);
    StoreShifted(o + 2 * stride, lowSum, highSum, 3);
    StoreShifted(o + 3 * stride, _mm256_add_epi16(lowSum, _mm256_slli_epi16(lowB, 1)),
                 _mm256_add_epi16(highSum, _mm256_slli_epi16(highB, 1)), 4);
  }
  GrowRowsByFour_C(out, stride, a, b, k, pairs);
}

RESAMPLE_AVX2 void ShrinkRowByTwo_AVX2(uint8_t *out, const uint8_t *s, const uint8_t *t,
                                       uint32_t first, uint32_t pairs) {
  // Eight output pairs (64 source bytes of each row) a step. The pack
  // interleaves the lanes of its two operands; the permute puts them back.
  const __m256i control = Control(ShrinkByTwoPairs, 0, 0);
  const __m256i ones = _mm256_set1_epi8(1);
  uint32_t k = first;
  for (; k + 8 <= pairs; k += 8) {
    const size_t at = 8 * size_t(k);
    const __m256i low =
        _mm256_add_epi16(Sums(Load(s + at), control, ones), Sums(Load(t + at), control, ones));
    const __m256i high = _mm256_add_epi16(Sums(Load(s + at + 32), control, ones),
                                          Sums(Load(t + at + 32), control, ones));
    const __m256i bytes =
        _mm256_packus_epi16(_mm256_srli_epi16(low, 2), _mm256_srli_epi16(high, 2));
    Store(out + 4 * size_t(k), _mm256_permute4x64_epi64(bytes, _MM_SHUFFLE(3, 1, 2, 0)));
  }
  ShrinkRowByTwo_C(out, s, t, k, pairs);
}

RESAMPLE_AVX2 void ShrinkRowByFour_AVX2(uint8_t *out, const uint8_t *rows, size_t sourceStride,
                                        uint32_t first, uint32_t pairs) {
  // Eight output pairs (128 source bytes of each row) a step, in four 32-bit
  // sums of two pairs each; the packs interleave lanes and the permute puts
  // the pairs back in order.
  const __m256i control = Control(ShrinkByFourPairs, 0, 0);
  const __m256i ones = _mm256_set1_epi8(1);
  const __m256i ones16 = _mm256_set1_epi16(1);
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
  uint32_t k = first;
  for (; k + 8 <= pairs; k += 8) {
    __m256i sums[4];
    for (int i = 0; i < 4; ++i) {
      const uint8_t *s = rows + 16 * size_t(k) + 32 * i;
      __m256i acc = Sums(Load(s), control, ones);
      for (size_t r = 1; r < 4; ++r) {
        acc = _mm256_add_epi16(acc, Sums(Load(s + sourceStride * r), control, ones));
      }
      sums[i] = _mm256_srli_epi32(_mm256_madd_epi16(acc, ones16), 4);
    }
    const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(sums[0], sums[1]),
                                              _mm256_packus_epi32(sums[2], sums[3]));
    Store(out + 4 * size_t(k), _mm256_permutevar8x32_epi32(bytes, order));
  }
  ShrinkRowByFour_C(out, rows, sourceStride, k, pairs);
}

RESAMPLE_AVX2 void DecimateRow_AVX2(uint8_t *out, const uint8_t *source, uint32_t first,
                                    uint32_t chunks) {
  // Two chunks a step, one a lane. All four loads come before the store, and
  // the store ends no later than the next step's first read.
  const __m256i head = Control(DecimationHead, 0, 0);
  const __m256i tail = Control(DecimationTail, 0, 0);
  uint32_t c = first;
  for (; c + 2 <= chunks; c += 2) {
    const uint8_t *s = source + 20 * size_t(c);
    const __m256i bytes = _mm256_or_si256(_mm256_shuffle_epi8(LoadHalves(s, s + 20), head),
                                          _mm256_shuffle_epi8(LoadHalves(s + 1, s + 21), tail));
    Store(out + 16 * size_t(c), bytes);
  }
  DecimateRow_C(out, source, c, chunks);
}

bool ResampleCpuHasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

#endif
