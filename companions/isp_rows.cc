// Portable row routines of the image processor: demosaic of a Bayer row
// (B G / G R), the colour matrix into YUYV, and the fused form of both that
// the vector forms must match byte for byte. Frame path: no
// allocation, no blocking.
#include <cstdint>
#include <cstring>

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

inline int32_t Mean(int32_t a, int32_t b) { return (a + b + 1) >> 1; }

// Demosaic of one pixel (see IspBayerRowRoutine). Sites: B on even rows at
// even columns, G elsewhere on even rows; G on odd rows at even columns, R
// elsewhere. "own" is the colour of this row's colour sites (B on even rows,
// R on odd rows), "other" the colour of the other row kind.
inline void DemosaicPixel(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint32_t x, uint32_t width, uint32_t oddRow, int32_t* own, int32_t* green,
                          int32_t* other) {
  uint32_t l = LeftOf(x, width);
  uint32_t r = RightOf(x, width);
  int32_t horizontal = Mean(row[l], row[r]);
  int32_t vertical = Mean(above[x], below[x]);
  bool greenSite = ((x & 1) != 0) != (oddRow != 0);
  if (greenSite) {
    *green = row[x];
    *own = horizontal;
    *other = vertical;
  } else {
    *green = Mean(horizontal, vertical);
    *own = row[x];
    *other = Mean(Mean(above[l], above[r]), Mean(below[l], below[r]));
  }
}

inline void DemosaicPixelRgb(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                             uint32_t x, uint32_t width, uint32_t oddRow, int32_t* red,
                             int32_t* green, int32_t* blue) {
  int32_t own, other;
  DemosaicPixel(above, row, below, x, width, oddRow, &own, green, &other);
  *red = oddRow ? own : other;
  *blue = oddRow ? other : own;
}

// The 32-bit matrix of the planar rows.
inline void StorePair(int32_t c0a, int32_t c1a, int32_t c2a, int32_t c0b, int32_t c1b, int32_t c2b,
                      const IspRowCoefficients* k, uint8_t* out) {
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

// The 16-bit matrix of the fused rows, step for step as the vector units
// take it: unsigned high-half products for luma, rounded high-half products
// and saturating sums for chroma.
inline int32_t Saturate16(int32_t v) { return v < -32768 ? -32768 : (v > 32767 ? 32767 : v); }

inline int32_t LumaQ4(int32_t value, int16_t coefficient) {
  return static_cast<int32_t>((static_cast<uint32_t>(value << 8) *
                               static_cast<uint32_t>(static_cast<uint16_t>(coefficient))) >>
                              16);
}

inline uint8_t Luma16(int32_t own, int32_t green, int32_t other, const int16_t* c, int ownIndex,
                      int otherIndex, const IspRowCoefficients* k) {
  int32_t sum = LumaQ4(own, c[ownIndex]) + LumaQ4(green, c[1]) + LumaQ4(other, c[otherIndex]) +
                static_cast<uint16_t>(k->YBias16);
  if (sum > 65535) sum = 65535;
  return static_cast<uint8_t>(ClampInt(ClampInt(sum >> 4, 0, 255), k->YMin, k->YMax));
}

inline int32_t ChromaQ4(int32_t pairSum, int16_t coefficient) {
  return (pairSum * 64 * coefficient + 16384) >> 15;
}

inline uint8_t Chroma16(int32_t ownSum, int32_t greenSum, int32_t otherSum, const int16_t* c,
                        int ownIndex, int otherIndex, int16_t bias) {
  int32_t sum = Saturate16(ChromaQ4(ownSum, c[ownIndex]) + ChromaQ4(greenSum, c[1]));
  sum = Saturate16(sum + ChromaQ4(otherSum, c[otherIndex]));
  sum = Saturate16(sum + bias);
  return static_cast<uint8_t>(ClampInt(sum >> 4, 16, 240));
}

// Pairs [firstPair, endPair) of the fused row.
void DevelopBayerPairs(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                       uint32_t width, uint32_t oddRow, uint32_t firstPair, uint32_t endPair,
                       const IspRowCoefficients* k, uint8_t* out) {
  // Coefficient order is R, G, B; "own" is B on even rows and R on odd rows.
  int ownIndex = oddRow ? 0 : 2;
  int otherIndex = oddRow ? 2 : 0;
  for (uint32_t pair = firstPair; pair < endPair; ++pair) {
    uint32_t x = 2 * pair;
    int32_t own0, green0, other0, own1, green1, other1;
    DemosaicPixel(above, row, below, x, width, oddRow, &own0, &green0, &other0);
    DemosaicPixel(above, row, below, x + 1, width, oddRow, &own1, &green1, &other1);
    uint8_t* o = out + 4 * pair;
    o[0] = Luma16(own0, green0, other0, k->Y, ownIndex, otherIndex, k);
    o[2] = Luma16(own1, green1, other1, k->Y, ownIndex, otherIndex, k);
    o[1] = Chroma16(own0 + own1, green0 + green1, other0 + other1, k->Cb, ownIndex, otherIndex,
                    k->CbBias16);
    o[3] = Chroma16(own0 + own1, green0 + green1, other0 + other1, k->Cr, ownIndex, otherIndex,
                    k->CrBias16);
  }
}

}  // namespace

void IspDevelopBayerRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                          uint8_t* out) {
  DevelopBayerPairs(above, row, below, width, oddRow, 0, width / 2, k, out);
}

void IspDemosaicBayerRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                           uint32_t width, uint32_t oddRow, uint8_t* red, uint8_t* green,
                           uint8_t* blue) {
  for (uint32_t x = 0; x < width; ++x) {
    int32_t r, g, b;
    DemosaicPixelRgb(above, row, below, x, width, oddRow, &r, &g, &b);
    red[x] = static_cast<uint8_t>(r);
    green[x] = static_cast<uint8_t>(g);
    blue[x] = static_cast<uint8_t>(b);
  }
}

void IspConvertRgbRow_C(const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                        uint32_t width, const IspRowCoefficients* k, uint8_t* out) {
  // As a B G row: "own" is blue (index 2), "other" red (index 0).
  for (uint32_t x = 0; x + 1 < width; x += 2) {
    uint8_t* o = out + 2 * x;
    o[0] = Luma16(blue[x], green[x], red[x], k->Y, 2, 0, k);
    o[2] = Luma16(blue[x + 1], green[x + 1], red[x + 1], k->Y, 2, 0, k);
    int32_t b = blue[x] + blue[x + 1], g = green[x] + green[x + 1], r = red[x] + red[x + 1];
    o[1] = Chroma16(b, g, r, k->Cb, 2, 0, k->CbBias16);
    o[3] = Chroma16(b, g, r, k->Cr, 2, 0, k->CrBias16);
  }
}

void IspConvertYccRow(const uint8_t* y, const uint8_t* cb, const uint8_t* cr, uint32_t width,
                      const IspRowCoefficients* k, uint8_t* out) {
  for (uint32_t x = 0; x + 1 < width; x += 2) {
    StorePair(y[x], cb[x], cr[x], y[x + 1], cb[x + 1], cr[x + 1], k, out + 2 * x);
  }
}

void IspPadColumns(const uint8_t* row, uint32_t width, int32_t first, uint32_t count,
                   uint8_t* padded) {
  int32_t w = static_cast<int32_t>(width);
  int32_t end = first + static_cast<int32_t>(count);
  // The columns inside the row in one copy, then the few outside it.
  int32_t inFirst = first < 0 ? 0 : first;
  int32_t inEnd = end > w ? w : end;
  if (inEnd > inFirst) {
    std::memcpy(padded + (inFirst - first), row + inFirst, static_cast<size_t>(inEnd - inFirst));
  }
  for (int32_t c = first; c < end; ++c) {
    if (c >= 0 && c < w) {
      c = inEnd - 1;  // skip the copied run
      continue;
    }
    int32_t source;
    if (c == -1 && w > 1) {
      source = 1;
    } else if (c == w && w > 1) {
      source = w - 2;
    } else {
      source = c < 0 ? 0 : w - 1;
    }
    padded[c - first] = row[source];
  }
}

bool IspRgbRowNeedsClamp(const IspRowCoefficients* k) {
  // Luma rises with every channel (its coefficients are taken unsigned):
  // its ends are all channels 0 and all 255.
  int32_t lowest = static_cast<uint16_t>(k->YBias16) >> 4;
  int32_t top = static_cast<uint16_t>(k->YBias16);
  for (int i = 0; i < 3; ++i) top += LumaQ4(255, k->Y[i]);
  int32_t highest = (top > 65535 ? 65535 : top) >> 4;
  if (lowest < k->YMin || highest > k->YMax) return true;
  // Each chroma term is monotonic in its pair sum (0..510): the ends are
  // each term at its own extreme, as long as no sum saturates.
  const int16_t* rows[2] = {k->Cb, k->Cr};
  const int16_t biases[2] = {k->CbBias16, k->CrBias16};
  for (int r = 0; r < 2; ++r) {
    int32_t low = 0, high = 0;
    for (int i = 0; i < 3; ++i) {
      int32_t a = ChromaQ4(0, rows[r][i]), b = ChromaQ4(510, rows[r][i]);
      low += a < b ? a : b;
      high += a < b ? b : a;
    }
    if (low < -32768 || high > 32767) return true;  // a sum could saturate
    if (low + biases[r] < -32768 || high + biases[r] > 32767) return true;
    if ((low + biases[r]) >> 4 < 16 || (high + biases[r]) >> 4 > 240) return true;
  }
  return false;
}

void IspPortableRowRoutines(IspRowRoutines* routines) {
  routines->DevelopBayerRow = IspDevelopBayerRow_C;
  routines->DemosaicRow = IspDemosaicBayerRow_C;
  routines->ConvertRgbRow = IspConvertRgbRow_C;
}

void IspSelectRowRoutines(IspRowRoutines* routines) {
  IspPortableRowRoutines(routines);
#if defined(ISP_HAVE_X86_ROWS)
  if (IspCpuHasAvx2()) {
    routines->DevelopBayerRow = IspDevelopBayerRow_AVX2;
    routines->DemosaicRow = IspDemosaicBayerRow_AVX2;
    routines->ConvertRgbRow = IspConvertRgbRow_AVX2;
  } else if (IspCpuHasSsse3()) {
    routines->DevelopBayerRow = IspDevelopBayerRow_SSSE3;
    routines->DemosaicRow = IspDemosaicBayerRow_SSSE3;
    routines->ConvertRgbRow = IspConvertRgbRow_SSSE3;
  }
#endif
}
