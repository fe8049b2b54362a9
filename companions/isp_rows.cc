// Portable row routines of the image processor: bilinear demosaic of a
// Bayer row (B G / G R), the colour matrix into YUYV, and the fused form of
// both that the vector forms must match byte for byte. Frame path: no
// allocation, no blocking.
#include <cstdint>

#include "companions/isp_library.h"

namespace {

inline int32_t ClampInt(int32_t value, int32_t low, int32_t high) {
  return value < low ? low : (value > high ? high : value);
}

// Left and right neighbour of column x, reflected at the row's ends so that
// the neighbour keeps the Bayer phase (column -1 reads column 1).
inline uint32_t LeftOf(uint32_t x, uint32_t width) {
  if (x > 0) return x - 1;
  return width > 1 ? 1 : 0;
}
inline uint32_t RightOf(uint32_t x, uint32_t width) {
  if (x + 1 < width) return x + 1;
  return width > 1 ? width - 2 : 0;
}

// Bilinear demosaic of one pixel. Sites: B on even rows at even columns, G
// elsewhere on even rows; G on odd rows at even columns, R elsewhere. A
// colour site takes green from its four edge neighbours and the opposite
// colour from its four corners; a green site takes each colour from the two
// neighbours that carry it. Means round half up.
inline void DemosaicPixel(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint32_t x, uint32_t width, uint32_t oddRow, int32_t* red,
                          int32_t* green, int32_t* blue) {
  uint32_t l = LeftOf(x, width);
  uint32_t r = RightOf(x, width);
  int32_t centre = row[x];
  int32_t horizontal = row[l] + row[r];
  int32_t vertical = above[x] + below[x];
  bool greenSite = ((x & 1) != 0) != (oddRow != 0);
  // "own": the colour of this row's colour sites (B on even rows, R on odd
  // rows); "other": the colour of the other row kind.
  int32_t own, other;
  if (greenSite) {
    *green = centre;
    own = (horizontal + 1) >> 1;
    other = (vertical + 1) >> 1;
  } else {
    *green = (horizontal + vertical + 2) >> 2;
    own = centre;
    other = (above[l] + above[r] + below[l] + below[r] + 2) >> 2;
  }
  if (oddRow) {
    *red = own;
    *blue = other;
  } else {
    *blue = own;
    *red = other;
  }
}

inline void StorePair(int32_t c0a, int32_t c1a, int32_t c2a, int32_t c0b, int32_t c1b,
                      int32_t c2b, const IspRowCoefficients* k, uint8_t* out) {
  int32_t y0 = (k->Y[0] * c0a + k->Y[1] * c1a + k->Y[2] * c2a + k->YBias) >> 12;
  int32_t y1 = (k->Y[0] * c0b + k->Y[1] * c1b + k->Y[2] * c2b + k->YBias) >> 12;
  int32_t s0 = c0a + c0b, s1 = c1a + c1b, s2 = c2a + c2b;
  int32_t cb = (k->Cb[0] * s0 + k->Cb[1] * s1 + k->Cb[2] * s2 + k->CbBias) >> 13;
  int32_t cr = (k->Cr[0] * s0 + k->Cr[1] * s1 + k->Cr[2] * s2 + k->CrBias) >> 13;
  out[0] = static_cast<uint8_t>(ClampInt(y0, k->YMin, k->YMax));
  out[1] = static_cast<uint8_t>(ClampInt(cb, 16, 240));
  out[2] = static_cast<uint8_t>(ClampInt(y1, k->YMin, k->YMax));
  out[3] = static_cast<uint8_t>(ClampInt(cr, 16, 240));
}

}  // namespace

void IspDevelopBayerPairs_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                            uint32_t width, uint32_t oddRow, uint32_t firstPair, uint32_t endPair,
                            const IspRowCoefficients* k, uint8_t* out) {
  for (uint32_t pair = firstPair; pair < endPair; ++pair) {
    uint32_t x = 2 * pair;
    int32_t r0, g0, b0, r1, g1, b1;
    DemosaicPixel(above, row, below, x, width, oddRow, &r0, &g0, &b0);
    DemosaicPixel(above, row, below, x + 1, width, oddRow, &r1, &g1, &b1);
    StorePair(r0, g0, b0, r1, g1, b1, k, out + 4 * pair);
  }
}

void IspDevelopBayerRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                          uint8_t* out) {
  IspDevelopBayerPairs_C(above, row, below, width, oddRow, 0, width / 2, k, out);
}

void IspDemosaicBayerRow(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                         uint32_t width, uint32_t oddRow, uint8_t* red, uint8_t* green,
                         uint8_t* blue) {
  for (uint32_t x = 0; x < width; ++x) {
    int32_t r, g, b;
    DemosaicPixel(above, row, below, x, width, oddRow, &r, &g, &b);
    red[x] = static_cast<uint8_t>(r);
    green[x] = static_cast<uint8_t>(g);
    blue[x] = static_cast<uint8_t>(b);
  }
}

void IspConvertPlanarRow(const uint8_t* c0, const uint8_t* c1, const uint8_t* c2, uint32_t width,
                         const IspRowCoefficients* k, uint8_t* out) {
  for (uint32_t x = 0; x + 1 < width; x += 2) {
    StorePair(c0[x], c1[x], c2[x], c0[x + 1], c1[x + 1], c2[x + 1], k, out + 2 * x);
  }
}

IspBayerRowRoutine IspSelectBayerRow() {
#if defined(ISP_HAVE_X86_ROWS)
  if (IspCpuHasAvx2()) return IspDevelopBayerRow_AVX2;
  return IspDevelopBayerRow_SSE2;
#else
  return IspDevelopBayerRow_C;
#endif
}
