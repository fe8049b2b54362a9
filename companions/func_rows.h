// The format-conversion library's insides: its colour arithmetic, the row
// functions its whole-picture drivers call, and the tables that pick a set of
// rows (portable or AVX2) once per call.
//
// Every row function has a portable reference, `..._Row_C`, that handles any
// width including odd ones and the picture edges. A `..._AVX2` row covers the
// same width and gives the same bytes: its vector steps stay where every load
// and store is inside the row, the last step is moved back to end at the
// row's end (overlapping the step before, which rewrites the same bytes), and
// what no step can reach (a mirrored edge, an odd last pixel, a short row)
// goes to the portable code.
//
// Colour: BT.601, studio range (Y 16..235, Cb/Cr 16..240). All arithmetic is
// integer; the constants and their derivations are next to the formulas.
#pragma once

#include <cstdint>

#include "platform/kernel.h"

// The library's pool tag, 'Fnc1' as the little-endian tag word.
constexpr ULONG FuncPoolTag = 0x31636E46;

// ---------------------------------------------------------------- RGB -> YCbCr

// Y  = 16  + 219/255 x ( 0.299 R + 0.587 G + 0.114 B)
// Cb = 128 + 224/255 x (-0.1687 R - 0.3313 G + 0.5 B)
// Cr = 128 + 224/255 x ( 0.5 R - 0.4187 G - 0.0813 B)
// in 8-bit fixed point (x 256), the form the 16-bit vector lanes take exactly:
//   Y:  0.299 x 219/255 x 256 =  65.74 ->  66
//       0.587 x 219/255 x 256 = 129.06 -> 129
//       0.114 x 219/255 x 256 =  25.06 ->  25      (66 + 129 + 25 = 220 ~ 219.9)
//       offset 16 x 256 + 128 (rounding) = 4224
//   Cb: -0.1687 x 224/255 x 256 = -37.95 -> -38
//       -0.3313 x 224/255 x 256 = -74.49 -> -74
//        0.5    x 224/255 x 256 = 112.44 -> 112     (sum 0: grey stays 128)
//   Cr:  112, -0.4187 x 224/255 x 256 = -94.15 -> -94,
//       -0.0813 x 224/255 x 256 = -18.29 -> -18     (sum 0)
// Chroma is taken from the sum of the two pixels of a YUYV pair, so its
// coefficients are halved (112 -> 56, 74 -> 37, 38 -> 19, 94 -> 47, 18 -> 9),
// which is the mean colour of the pair without losing the half step; offset
// 128 x 256 + 128 (rounding) = 32896.
// Ranges: Y sum <= 220 x 255 + 4224 = 60324, Cb/Cr sums within 4336..61456,
// so every value fits an unsigned 16-bit lane and the >> 8 is exact there.
constexpr uint32_t FuncYr = 66, FuncYg = 129, FuncYb = 25, FuncYOffset = 4224;
constexpr uint32_t FuncCbB = 56, FuncCbG = 37, FuncCbR = 19;
constexpr uint32_t FuncCrR = 56, FuncCrG = 47, FuncCrB = 9;
constexpr uint32_t FuncChromaOffset = 32896;

struct FuncRgb {
  uint32_t R, G, B;
};

inline uint8_t FuncLumaOf(FuncRgb c) {
  return static_cast<uint8_t>((FuncYr * c.R + FuncYg * c.G + FuncYb * c.B + FuncYOffset) >> 8);
}

// Writes one YUYV pair (Y0 Cb Y1 Cr) from two pixels.
inline void FuncPackPair(FuncRgb p0, FuncRgb p1, uint8_t* dst) {
  uint32_t rs = p0.R + p1.R, gs = p0.G + p1.G, bs = p0.B + p1.B;
  dst[0] = FuncLumaOf(p0);
  dst[1] =
      static_cast<uint8_t>((FuncCbB * bs + FuncChromaOffset - FuncCbG * gs - FuncCbR * rs) >> 8);
  dst[2] = FuncLumaOf(p1);
  dst[3] =
      static_cast<uint8_t>((FuncCrR * rs + FuncChromaOffset - FuncCrG * gs - FuncCrB * bs) >> 8);
}

// An odd width leaves one pixel at the end of each YUYV row, in two bytes:
// its Y and its Cb (the pair is cut after the Cb). Its chroma is its own.
inline void FuncPackLone(FuncRgb p, uint8_t* dst) {
  uint8_t pair[4];
  FuncPackPair(p, p, pair);
  dst[0] = pair[0];
  dst[1] = pair[1];
}

// ---------------------------------------------------------------- YCbCr -> RGB

// R = 255/219 (Y-16) + 1.402 x 255/224 (Cr-128)
// G = 255/219 (Y-16) - 0.3441 x 255/224 (Cb-128) - 0.7141 x 255/224 (Cr-128)
// B = 255/219 (Y-16) + 1.772 x 255/224 (Cb-128)
// in 13-bit fixed point (x 8192), so that every coefficient fits a signed
// 16-bit multiplier (pmaddwd):
//   255/219          = 1.16438 x 8192 =  9538.6 ->  9539
//   1.402  x 255/224 = 1.59603 x 8192 = 13074.7 -> 13075
//   0.3441 x 255/224 = 0.39176 x 8192 =  3209.3 ->  3209
//   0.7141 x 255/224 = 0.81297 x 8192 =  6659.8 ->  6660
//   1.772  x 255/224 = 2.01723 x 8192 = 16525.2 -> 16525
//   rounding 0.5 x 8192 = 4096
// The sums are signed 32-bit, shifted right arithmetically by 13 and clamped
// to 0..255 (a negative sum clamps to 0 however the shift rounds it).
constexpr int32_t FuncRgbY = 9539, FuncRgbRv = 13075, FuncRgbGu = 3209, FuncRgbGv = 6660,
                  FuncRgbBu = 16525, FuncRgbRound = 4096;
constexpr int FuncRgbShift = 13;

inline uint8_t FuncClampByte(int32_t v) {
  return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}

inline void FuncYuvToBgr(uint32_t y, uint32_t u, uint32_t v, uint8_t* bgr) {
  int32_t yy = (static_cast<int32_t>(y) - 16) * FuncRgbY + FuncRgbRound;
  int32_t cb = static_cast<int32_t>(u) - 128, cr = static_cast<int32_t>(v) - 128;
  bgr[0] = FuncClampByte((yy + FuncRgbBu * cb) >> FuncRgbShift);
  bgr[1] = FuncClampByte((yy - FuncRgbGu * cb - FuncRgbGv * cr) >> FuncRgbShift);
  bgr[2] = FuncClampByte((yy + FuncRgbRv * cr) >> FuncRgbShift);
}

// ---------------------------------------------------------------- Bayer

// Mirrors a coordinate at the picture's edges (-1 -> 1, n -> n-2), which
// keeps the Bayer phase, and clamps what a one-pixel picture still leaves out.
inline int FuncReflect(int x, int n) {
  if (x < 0) x = -x;
  if (x >= n) x = 2 * n - 2 - x;
  return x < 0 ? 0 : (x >= n ? n - 1 : x);
}

// Bilinear demosaic of one pixel of a B G / G R mosaic: the pixel's own
// colour as it is, the others as the mean of the nearest two or four sites
// that carry them (the means round down). `above` and `below` are the rows
// next to `row` (mirrored at the picture's edges), `oddRow` tells a G R row
// from a B G row.
inline FuncRgb FuncBayerPixel(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                              int width, int x, bool oddRow) {
  int xm = FuncReflect(x - 1, width), xp = FuncReflect(x + 1, width);
  uint32_t own = row[x];
  uint32_t cross = (row[xm] + row[xp] + above[x] + below[x]) >> 2;
  uint32_t diagonal = (above[xm] + above[xp] + below[xm] + below[xp]) >> 2;
  uint32_t across = (row[xm] + row[xp]) >> 1;
  uint32_t upDown = (above[x] + below[x]) >> 1;
  bool oddColumn = (x & 1) != 0;
  if (!oddRow) {
    if (!oddColumn) return FuncRgb{diagonal, cross, own};  // blue site
    return FuncRgb{upDown, own, across};                   // green site on a blue row
  }
  if (!oddColumn) return FuncRgb{across, own, upDown};  // green site on a red row
  return FuncRgb{own, cross, diagonal};                 // red site
}

// ---------------------------------------------------------------- rows

// One row of a same-size demosaic into YUYV. `above`/`below` as above.
typedef void (*FuncBayerRow)(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                             uint8_t* dstYuyv, int width);
// One YUYV row to BGR24.
typedef void (*FuncYuyvToBgrRow)(const uint8_t* srcYuyv, uint8_t* dstBgr, int width);
// Two YUYV rows to two Y rows and one row each of Cb and Cr, chroma the
// round-down mean of the two rows ((a + b) >> 1).
typedef void (*FuncYuyvToI420Row)(const uint8_t* srcA, const uint8_t* srcB, uint8_t* dstYA,
                                  uint8_t* dstYB, uint8_t* dstU, uint8_t* dstV, int width);

void BayerBgToYuyvRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                        uint8_t* dstYuyv, int width);
void BayerGrToYuyvRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                        uint8_t* dstYuyv, int width);
void YuyvToBgr24Row_C(const uint8_t* srcYuyv, uint8_t* dstBgr, int width);
void YuyvToI420Row_C(const uint8_t* srcA, const uint8_t* srcB, uint8_t* dstYA, uint8_t* dstYB,
                     uint8_t* dstU, uint8_t* dstV, int width);
// The Y of one YUYV row (the last row of an odd height has no chroma row).
void YuyvToYRow_C(const uint8_t* srcYuyv, uint8_t* dstY, int width);

// The portable pieces the vector rows hand their edges to: pairs
// [firstPair, endPair) of a row, then, with `withOddPixel`, the last pixel of
// an odd width.
void BayerBgToYuyvPairs_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint8_t* dstYuyv, int width, int firstPair, int endPair,
                          bool withOddPixel);
void BayerGrToYuyvPairs_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint8_t* dstYuyv, int width, int firstPair, int endPair,
                          bool withOddPixel);

#if defined(__x86_64__) || defined(__i386__)
#define MR740_FUNC_HAVE_AVX2 1
void BayerBgToYuyvRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                           uint8_t* dstYuyv, int width);
void BayerGrToYuyvRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                           uint8_t* dstYuyv, int width);
void YuyvToBgr24Row_AVX2(const uint8_t* srcYuyv, uint8_t* dstBgr, int width);
void YuyvToI420Row_AVX2(const uint8_t* srcA, const uint8_t* srcB, uint8_t* dstYA, uint8_t* dstYB,
                        uint8_t* dstU, uint8_t* dstV, int width);
#endif

// One YUYV row of `width` pixels from the Bayer cells of a B G row (`top`)
// and the G R row under it: pixel x is the cell at raw columns 2x and 2x + 1,
// its B, the mean of its two G ((g1 + g2) >> 1) and its R. The
// raw rows are at least 2 x width long.
typedef void (*FuncBayerCellRow)(const uint8_t* top, const uint8_t* bottom, uint8_t* dstYuyv,
                                 int width);
void BayerCellsToYuyvRow_C(const uint8_t* top, const uint8_t* bottom, uint8_t* dstYuyv, int width);
#ifdef MR740_FUNC_HAVE_AVX2
void BayerCellsToYuyvRow_AVX2(const uint8_t* top, const uint8_t* bottom, uint8_t* dstYuyv,
                              int width);
#endif

// The rows one call uses.
struct FuncRowSet {
  FuncBayerRow BayerBgRow;
  FuncBayerRow BayerGrRow;
  FuncBayerCellRow BayerCellRow;
  FuncYuyvToBgrRow YuyvToBgrRow;
  FuncYuyvToI420Row YuyvToI420Row;
};

// Working rows of a handle for the resampling route: three YUYV rows of up
// to `Capacity` pixels and one pair more. Used by one frame at a time (the
// frame path of one camera); a null handle has none.
constexpr uint32_t FuncScratchCapacity = 8192;
struct FuncScratch {
  uint8_t* Rows[3];
  uint32_t Capacity;
};
const FuncScratch* FuncScratchOf(uint64_t funcHandle);

extern const FuncRowSet FuncPortableRows;
// Whether this processor runs the AVX2 rows.
bool FuncCpuHasAvx2();
// The best rows for this processor.
const FuncRowSet* FuncBestRows();
// The rows of a handle: those chosen at FUNC_Init, or the best rows for a
// null handle (the driver does not test FUNC_Init's result).
// Sizes beyond what an int row index and a 64-bit offset carry are not
// pictures: the conversions refuse them rather than wrap.
constexpr uint32_t FuncMaxSide = 1u << 24;
inline bool FuncPictureSizeValid(uint32_t width, uint32_t height) {
  return width != 0 && height != 0 && width <= FuncMaxSide && height <= FuncMaxSide;
}

const FuncRowSet* FuncRowsOf(uint64_t funcHandle);
// Makes a handle use the portable rows, so tests can compare the two paths
// through the whole-picture drivers.
void FuncUsePortableRows(uint64_t funcHandle);
