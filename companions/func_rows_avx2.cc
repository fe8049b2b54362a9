// AVX2 rows of the format-conversion library. Each gives the same bytes as
// its portable row (func_rows.h) and is chosen only when the processor
// reports AVX2; the file builds without -mavx2, through target attributes.

#include "companions/func_rows.h"

#ifdef MR740_FUNC_HAVE_AVX2

#include <immintrin.h>

#define FUNC_AVX2 __attribute__((target("avx2")))

namespace {

// Two signed 16-bit multipliers as one pmaddwd operand word: `lo` for the
// even 16-bit lane, `hi` for the odd one.
FUNC_AVX2 inline __m256i MaddPair(int32_t lo, int32_t hi) {
  return _mm256_set1_epi32(static_cast<int32_t>(
      (static_cast<uint32_t>(static_cast<uint16_t>(hi)) << 16) | static_cast<uint16_t>(lo)));
}

FUNC_AVX2 inline __m256i Load(const uint8_t* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// Y of 16 pixels whose R, G, B stand in 16-bit lanes (see FuncLumaOf).
FUNC_AVX2 inline __m256i Luma16(__m256i r, __m256i g, __m256i b) {
  __m256i sum = _mm256_add_epi16(_mm256_mullo_epi16(r, _mm256_set1_epi16(FuncYr)),
                                 _mm256_mullo_epi16(g, _mm256_set1_epi16(FuncYg)));
  sum = _mm256_add_epi16(sum, _mm256_mullo_epi16(b, _mm256_set1_epi16(FuncYb)));
  sum = _mm256_add_epi16(sum, _mm256_set1_epi16(static_cast<int16_t>(FuncYOffset)));
  return _mm256_srli_epi16(sum, 8);
}

// 16 YUYV pairs from the colours of their even (e) and odd (o) pixels, as
// FuncPackPair: 64 bytes at dst. The chroma sums wrap in 16 bits on the way
// but end inside 0..65535, so the result is exact.
FUNC_AVX2 inline void StorePairs16(__m256i re, __m256i ge, __m256i be, __m256i ro, __m256i go,
                                   __m256i bo, uint8_t* dst) {
  __m256i ye = Luma16(re, ge, be), yo = Luma16(ro, go, bo);
  __m256i rs = _mm256_add_epi16(re, ro), gs = _mm256_add_epi16(ge, go),
          bs = _mm256_add_epi16(be, bo);
  const __m256i offset = _mm256_set1_epi16(static_cast<int16_t>(FuncChromaOffset));
  __m256i cb = _mm256_add_epi16(_mm256_mullo_epi16(bs, _mm256_set1_epi16(FuncCbB)), offset);
  cb = _mm256_sub_epi16(cb, _mm256_mullo_epi16(gs, _mm256_set1_epi16(FuncCbG)));
  cb = _mm256_srli_epi16(_mm256_sub_epi16(cb, _mm256_mullo_epi16(rs, _mm256_set1_epi16(FuncCbR))),
                         8);
  __m256i cr = _mm256_add_epi16(_mm256_mullo_epi16(rs, _mm256_set1_epi16(FuncCrR)), offset);
  cr = _mm256_sub_epi16(cr, _mm256_mullo_epi16(gs, _mm256_set1_epi16(FuncCrG)));
  cr = _mm256_srli_epi16(_mm256_sub_epi16(cr, _mm256_mullo_epi16(bs, _mm256_set1_epi16(FuncCrB))),
                         8);
  __m256i w0 = _mm256_or_si256(ye, _mm256_slli_epi16(cb, 8));  // Y0 Cb
  __m256i w1 = _mm256_or_si256(yo, _mm256_slli_epi16(cr, 8));  // Y1 Cr
  __m256i lo = _mm256_unpacklo_epi16(w0, w1);                  // pairs 0-3 | 8-11
  __m256i hi = _mm256_unpackhi_epi16(w0, w1);                  // pairs 4-7 | 12-15
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm256_permute2x128_si256(lo, hi, 0x20));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 32),
                      _mm256_permute2x128_si256(lo, hi, 0x31));
}

// A vector step does the 16 pairs from pair i on; its loads reach from byte
// 2i - 2 to byte 2i + 33 of the three rows, so it fits from pair 1 to pair
// (width - 34) / 2. The steps run from pair 1; a last step at the last pair
// that fits covers what is left but for the last pair or two, overlapping
// the step before (the output does not feed the input, so pairs done twice
// come out the same). The first pair, the last ones and the odd pixel go
// to the portable code.
constexpr int BayerFirstVectorPair = 1;
inline int BayerLastVectorPair(int width) { return (width - 34) / 2; }

// The 16 pairs from pair i of a B G row.
FUNC_AVX2 inline void BayerBgStep(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                  uint8_t* dstYuyv, int i) {
  const __m256i low = _mm256_set1_epi16(0x00FF);
  int x = 2 * i;
  __m256i c0 = Load(row + x), a0 = Load(above + x), d0 = Load(below + x);
  __m256i ce = _mm256_and_si256(c0, low), co = _mm256_srli_epi16(c0, 8);
  __m256i coLeft = _mm256_srli_epi16(Load(row + x - 2), 8);    // row[x - 1]
  __m256i ceRight = _mm256_and_si256(Load(row + x + 2), low);  // row[x + 2]
  __m256i ae = _mm256_and_si256(a0, low), ao = _mm256_srli_epi16(a0, 8);
  __m256i aoLeft = _mm256_srli_epi16(Load(above + x - 2), 8);
  __m256i de = _mm256_and_si256(d0, low), dOdd = _mm256_srli_epi16(d0, 8);
  __m256i doLeft = _mm256_srli_epi16(Load(below + x - 2), 8);
  // Blue site (even x): G from the four crosses, R from the four diagonals.
  __m256i be = ce;
  __m256i ge = _mm256_srli_epi16(
      _mm256_add_epi16(_mm256_add_epi16(coLeft, co), _mm256_add_epi16(ae, de)), 2);
  __m256i re = _mm256_srli_epi16(
      _mm256_add_epi16(_mm256_add_epi16(aoLeft, ao), _mm256_add_epi16(doLeft, dOdd)), 2);
  // Green site (odd x): B from left and right, R from above and below.
  __m256i go = co;
  __m256i bo = _mm256_srli_epi16(_mm256_add_epi16(ce, ceRight), 1);
  __m256i ro = _mm256_srli_epi16(_mm256_add_epi16(ao, dOdd), 1);
  StorePairs16(re, ge, be, ro, go, bo, dstYuyv + 2 * x);
}

// The 16 pairs from pair i of a G R row.
FUNC_AVX2 inline void BayerGrStep(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                  uint8_t* dstYuyv, int i) {
  const __m256i low = _mm256_set1_epi16(0x00FF);
  int x = 2 * i;
  __m256i c0 = Load(row + x), a0 = Load(above + x), d0 = Load(below + x);
  __m256i ce = _mm256_and_si256(c0, low), co = _mm256_srli_epi16(c0, 8);
  __m256i coLeft = _mm256_srli_epi16(Load(row + x - 2), 8);
  __m256i ceRight = _mm256_and_si256(Load(row + x + 2), low);
  __m256i ae = _mm256_and_si256(a0, low), ao = _mm256_srli_epi16(a0, 8);
  __m256i aeRight = _mm256_and_si256(Load(above + x + 2), low);
  __m256i de = _mm256_and_si256(d0, low), dOdd = _mm256_srli_epi16(d0, 8);
  __m256i deRight = _mm256_and_si256(Load(below + x + 2), low);
  // Green site (even x): R from left and right, B from above and below.
  __m256i ge = ce;
  __m256i re = _mm256_srli_epi16(_mm256_add_epi16(coLeft, co), 1);
  __m256i be = _mm256_srli_epi16(_mm256_add_epi16(ae, de), 1);
  // Red site (odd x): G from the four crosses, B from the four diagonals.
  __m256i ro = co;
  __m256i go = _mm256_srli_epi16(
      _mm256_add_epi16(_mm256_add_epi16(ce, ceRight), _mm256_add_epi16(ao, dOdd)), 2);
  __m256i bo = _mm256_srli_epi16(
      _mm256_add_epi16(_mm256_add_epi16(ae, aeRight), _mm256_add_epi16(de, deRight)), 2);
  StorePairs16(re, ge, be, ro, go, bo, dstYuyv + 2 * x);
}

}  // namespace

FUNC_AVX2 void BayerBgToYuyvRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                     uint8_t* dstYuyv, int width) {
  int pairs = width / 2;
  int last = BayerLastVectorPair(width);
  int i = BayerFirstVectorPair < pairs ? BayerFirstVectorPair : pairs;
  BayerBgToYuyvPairs_C(above, row, below, dstYuyv, width, 0, i, false);
  if (last >= BayerFirstVectorPair) {
    for (;; i += 16) {
      if (i > last) i = last;
      BayerBgStep(above, row, below, dstYuyv, i);
      if (i == last) break;
    }
    i = last + 16;
  }
  BayerBgToYuyvPairs_C(above, row, below, dstYuyv, width, i, pairs, true);
}

FUNC_AVX2 void BayerGrToYuyvRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                     uint8_t* dstYuyv, int width) {
  int pairs = width / 2;
  int last = BayerLastVectorPair(width);
  int i = BayerFirstVectorPair < pairs ? BayerFirstVectorPair : pairs;
  BayerGrToYuyvPairs_C(above, row, below, dstYuyv, width, 0, i, false);
  if (last >= BayerFirstVectorPair) {
    for (;; i += 16) {
      if (i > last) i = last;
      BayerGrStep(above, row, below, dstYuyv, i);
      if (i == last) break;
    }
    i = last + 16;
  }
  BayerGrToYuyvPairs_C(above, row, below, dstYuyv, width, i, pairs, true);
}

namespace {

// Byte k (0 to 3) of each 4-byte group of two 32-byte vectors, as 16 words
// in order.
FUNC_AVX2 inline __m256i ByteOfGroups(__m256i a, __m256i b, int k) {
  const __m256i low = _mm256_set1_epi32(0xFF);
  __m256i ka = _mm256_and_si256(_mm256_srlv_epi32(a, _mm256_set1_epi32(8 * k)), low);
  __m256i kb = _mm256_and_si256(_mm256_srlv_epi32(b, _mm256_set1_epi32(8 * k)), low);
  return _mm256_permute4x64_epi64(_mm256_packus_epi32(ka, kb), 0xD8);
}

// The 16 pairs from output pixel x: raw bytes 2x to 2x + 63 of both rows.
// In each 4-byte group of the top row: B and G of the even pixel's cell,
// then of the odd one's; of the bottom row: G and R likewise.
FUNC_AVX2 inline void BayerCellsStep(const uint8_t* top, const uint8_t* bottom, uint8_t* dstYuyv,
                                     int x) {
  __m256i t0 = Load(top + 2 * x), t1 = Load(top + 2 * x + 32);
  __m256i b0 = Load(bottom + 2 * x), b1 = Load(bottom + 2 * x + 32);
  __m256i be = ByteOfGroups(t0, t1, 0), bo = ByteOfGroups(t0, t1, 2);
  __m256i ge =
      _mm256_srli_epi16(_mm256_add_epi16(ByteOfGroups(t0, t1, 1), ByteOfGroups(b0, b1, 0)), 1);
  __m256i go =
      _mm256_srli_epi16(_mm256_add_epi16(ByteOfGroups(t0, t1, 3), ByteOfGroups(b0, b1, 2)), 1);
  __m256i re = ByteOfGroups(b0, b1, 1), ro = ByteOfGroups(b0, b1, 3);
  StorePairs16(re, ge, be, ro, go, bo, dstYuyv + 2 * x);
}

}  // namespace

// 32 output pixels a step, the last step moved back to end at the row's end
// (overlapping); an odd width's last pixel and rows under 32 pixels go to the
// portable row.
FUNC_AVX2 void BayerCellsToYuyvRow_AVX2(const uint8_t* top, const uint8_t* bottom, uint8_t* dstYuyv,
                                        int width) {
  if (width < 32) {
    BayerCellsToYuyvRow_C(top, bottom, dstYuyv, width);
    return;
  }
  int last = (width - 32) & ~1;
  for (int x = 0;; x += 32) {
    if (x > last) x = last;
    BayerCellsStep(top, bottom, dstYuyv, x);
    if (x == last) break;
  }
  if ((width & 1) != 0) {
    BayerCellsToYuyvRow_C(top + 2 * (width - 1), bottom + 2 * (width - 1),
                          dstYuyv + 2 * (width - 1), 1);
  }
}

// 16 pixels (32 source bytes, 48 output bytes) an iteration. The byte
// shuffles work inside each 128-bit lane: lane 0 holds pixels 0-7, lane 1
// pixels 8-15, and every step below keeps that split.
FUNC_AVX2 void YuyvToBgr24Row_AVX2(const uint8_t* srcYuyv, uint8_t* dstBgr, int width) {
  constexpr char Z = static_cast<char>(0x80);
  // (Y, Cb) and (Y, Cr) of pixels 0-3 and 4-7 of a lane, as 16-bit words.
  const __m256i yuA = _mm256_setr_epi8(0, Z, 1, Z, 2, Z, 1, Z, 4, Z, 5, Z, 6, Z, 5, Z,  //
                                       0, Z, 1, Z, 2, Z, 1, Z, 4, Z, 5, Z, 6, Z, 5, Z);
  const __m256i yuB = _mm256_setr_epi8(8, Z, 9, Z, 10, Z, 9, Z, 12, Z, 13, Z, 14, Z, 13, Z,  //
                                       8, Z, 9, Z, 10, Z, 9, Z, 12, Z, 13, Z, 14, Z, 13, Z);
  const __m256i yvA = _mm256_setr_epi8(0, Z, 3, Z, 2, Z, 3, Z, 4, Z, 7, Z, 6, Z, 7, Z,  //
                                       0, Z, 3, Z, 2, Z, 3, Z, 4, Z, 7, Z, 6, Z, 7, Z);
  const __m256i yvB = _mm256_setr_epi8(8, Z, 11, Z, 10, Z, 11, Z, 12, Z, 15, Z, 14, Z, 15, Z,  //
                                       8, Z, 11, Z, 10, Z, 11, Z, 12, Z, 15, Z, 14, Z, 15, Z);
  // Output bytes k = 3p + c of a lane's 8 pixels (c 0 B, 1 G, 2 R), from
  // rg = R0-7 G0-7 and bb = B0-7: first bytes 0-15, then bytes 16-23.
  const __m256i rgLo = _mm256_setr_epi8(Z, 8, 0, Z, 9, 1, Z, 10, 2, Z, 11, 3, Z, 12, 4, Z,  //
                                        Z, 8, 0, Z, 9, 1, Z, 10, 2, Z, 11, 3, Z, 12, 4, Z);
  const __m256i bbLo = _mm256_setr_epi8(0, Z, Z, 1, Z, Z, 2, Z, Z, 3, Z, Z, 4, Z, Z, 5,  //
                                        0, Z, Z, 1, Z, Z, 2, Z, Z, 3, Z, Z, 4, Z, Z, 5);
  const __m256i rgHi = _mm256_setr_epi8(13, 5, Z, 14, 6, Z, 15, 7, Z, Z, Z, Z, Z, Z, Z, Z,  //
                                        13, 5, Z, 14, 6, Z, 15, 7, Z, Z, Z, Z, Z, Z, Z, Z);
  const __m256i bbHi = _mm256_setr_epi8(Z, Z, 6, Z, Z, 7, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z,  //
                                        Z, Z, 6, Z, Z, 7, Z, Z, Z, Z, Z, Z, Z, Z, Z, Z);
  const __m256i bias = MaddPair(16, 128);  // subtracted: Y - 16, C - 128
  const __m256i cR = MaddPair(FuncRgbY, FuncRgbRv);
  const __m256i cGu = MaddPair(FuncRgbY, -FuncRgbGu);
  const __m256i cGv = MaddPair(0, -FuncRgbGv);
  const __m256i cB = MaddPair(FuncRgbY, FuncRgbBu);
  const __m256i round = _mm256_set1_epi32(FuncRgbRound);

  // The last step starts at the last even pixel that leaves 16 in the row,
  // overlapping the one before; an odd width's last pixel, and a row under
  // 16 pixels, go to the portable row.
  if (width < 16) {
    YuyvToBgr24Row_C(srcYuyv, dstBgr, width);
    return;
  }
  int last = (width - 16) & ~1;
  for (int x = 0;; x += 16) {
    if (x > last) x = last;
    __m256i s = Load(srcYuyv + 2 * x);
    __m256i yuLo = _mm256_sub_epi16(_mm256_shuffle_epi8(s, yuA), bias);
    __m256i yuHi = _mm256_sub_epi16(_mm256_shuffle_epi8(s, yuB), bias);
    __m256i yvLo = _mm256_sub_epi16(_mm256_shuffle_epi8(s, yvA), bias);
    __m256i yvHi = _mm256_sub_epi16(_mm256_shuffle_epi8(s, yvB), bias);
    __m256i rLo =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(yvLo, cR), round), FuncRgbShift);
    __m256i rHi =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(yvHi, cR), round), FuncRgbShift);
    __m256i gLo = _mm256_srai_epi32(
        _mm256_add_epi32(
            _mm256_add_epi32(_mm256_madd_epi16(yuLo, cGu), _mm256_madd_epi16(yvLo, cGv)), round),
        FuncRgbShift);
    __m256i gHi = _mm256_srai_epi32(
        _mm256_add_epi32(
            _mm256_add_epi32(_mm256_madd_epi16(yuHi, cGu), _mm256_madd_epi16(yvHi, cGv)), round),
        FuncRgbShift);
    __m256i bLo =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(yuLo, cB), round), FuncRgbShift);
    __m256i bHi =
        _mm256_srai_epi32(_mm256_add_epi32(_mm256_madd_epi16(yuHi, cB), round), FuncRgbShift);
    __m256i r16 = _mm256_packs_epi32(rLo, rHi);  // pixels 0-7 | 8-15, saturated
    __m256i g16 = _mm256_packs_epi32(gLo, gHi);
    __m256i b16 = _mm256_packs_epi32(bLo, bHi);
    __m256i rg = _mm256_packus_epi16(r16, g16);  // R0-7 G0-7 | R8-15 G8-15, clamped
    __m256i bb = _mm256_packus_epi16(b16, b16);
    __m256i outLo = _mm256_or_si256(_mm256_shuffle_epi8(rg, rgLo), _mm256_shuffle_epi8(bb, bbLo));
    __m256i outHi = _mm256_or_si256(_mm256_shuffle_epi8(rg, rgHi), _mm256_shuffle_epi8(bb, bbHi));
    uint8_t* d = dstBgr + 3 * x;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d), _mm256_castsi256_si128(outLo));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 16), _mm256_castsi256_si128(outHi));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 24), _mm256_extracti128_si256(outLo, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(d + 40), _mm256_extracti128_si256(outHi, 1));
    if (x == last) break;
  }
  if ((width & 1) != 0) YuyvToBgr24Row_C(srcYuyv + 2 * (width - 1), dstBgr + 3 * (width - 1), 1);
}

// 16 pixels of both rows an iteration: 16 Y bytes to each Y row, 8 to each of
// Cb and Cr.
FUNC_AVX2 void YuyvToI420Row_AVX2(const uint8_t* srcA, const uint8_t* srcB, uint8_t* dstYA,
                                  uint8_t* dstYB, uint8_t* dstU, uint8_t* dstV, int width) {
  constexpr char Z = static_cast<char>(0x80);
  const __m256i pickY = _mm256_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, Z, Z, Z, Z, Z, Z, Z, Z,  //
                                         0, 2, 4, 6, 8, 10, 12, 14, Z, Z, Z, Z, Z, Z, Z, Z);
  const __m256i pickUv = _mm256_setr_epi8(1, 5, 9, 13, 3, 7, 11, 15, Z, Z, Z, Z, Z, Z, Z, Z,  //
                                          1, 5, 9, 13, 3, 7, 11, 15, Z, Z, Z, Z, Z, Z, Z, Z);
  // Dwords U0-3, U4-7, V0-3, V4-7 to the low 128 bits.
  const __m256i gatherUv = _mm256_setr_epi32(0, 4, 1, 5, 2, 3, 6, 7);
  const __m256i one = _mm256_set1_epi8(1);
  // The last step starts at the last even pixel that leaves 16 in the row,
  // overlapping the one before; an odd width's last pixel, and a row under
  // 16 pixels, go to the portable row.
  if (width < 16) {
    YuyvToI420Row_C(srcA, srcB, dstYA, dstYB, dstU, dstV, width);
    return;
  }
  int last = (width - 16) & ~1;
  for (int x = 0;; x += 16) {
    if (x > last) x = last;
    __m256i a = Load(srcA + 2 * x), b = Load(srcB + 2 * x);
    __m256i ya = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(a, pickY), 0x08);
    __m256i yb = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(b, pickY), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dstYA + x), _mm256_castsi256_si128(ya));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dstYB + x), _mm256_castsi256_si128(yb));
    // (a + b) >> 1: the rounded-up mean less the lost half.
    __m256i mean =
        _mm256_sub_epi8(_mm256_avg_epu8(a, b), _mm256_and_si256(_mm256_xor_si256(a, b), one));
    __m128i uv = _mm256_castsi256_si128(
        _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(mean, pickUv), gatherUv));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dstU + x / 2), uv);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dstV + x / 2), _mm_unpackhi_epi64(uv, uv));
    if (x == last) break;
  }
  if ((width & 1) != 0) {
    dstYA[width - 1] = srcA[2 * (width - 1)];
    dstYB[width - 1] = srcB[2 * (width - 1)];
  }
}

#endif  // MR740_FUNC_HAVE_AVX2
