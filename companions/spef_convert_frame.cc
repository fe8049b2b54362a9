// The frame path of the special-effects library: the portable rows, the
// neighbourhood effects, and the driver that applies one effect to a picture.
// No allocation, no blocking; the neighbourhood effects use the three luma
// rows of the private block.

#include <climits>

#include "companions/spef_effects.h"

void SpefConstantChromaRow_C(uint8_t* yuyv, int pixels, uint8_t cb, uint8_t cr) {
  int x = 0;
  for (; x + 1 < pixels; x += 2) {
    yuyv[2 * x + 1] = cb;
    yuyv[2 * x + 3] = cr;
  }
  if (x < pixels) yuyv[2 * x + 1] = cb;
}

// Y := 251 - clamp(Y, 16, 235); C := 256 - clamp(C, 16, 240).
void SpefNegativeRow_C(uint8_t* yuyv, int pixels) {
  for (int i = 0; i < 2 * pixels; i += 2) {
    uint32_t y = yuyv[i], c = yuyv[i + 1];
    y = y < 16 ? 16 : (y > 235 ? 235 : y);
    c = c < 16 ? 16 : (c > 240 ? 240 : c);
    yuyv[i] = static_cast<uint8_t>(251 - y);
    yuyv[i + 1] = static_cast<uint8_t>(256 - c);
  }
}

const SpefRowSet SpefPortableRows = {SpefConstantChromaRow_C, SpefNegativeRow_C, SpefLoadLumaRow_C,
                                     SpefEmbossRow_C, SpefSketchRow_C};

#ifdef MR740_SPEF_HAVE_AVX2
static const SpefRowSet SpefAvx2Rows = {SpefConstantChromaRow_AVX2, SpefNegativeRow_AVX2,
                                        SpefLoadLumaRow_AVX2, SpefEmbossRow_AVX2,
                                        SpefSketchRow_AVX2};
#endif

const SpefRowSet* SpefBestRows() {
#ifdef MR740_SPEF_HAVE_AVX2
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return &SpefAvx2Rows;
#endif
  return &SpefPortableRows;
}

namespace {

inline uint8_t ClampStudioLuma(int32_t v) {
  return static_cast<uint8_t>(v < 16 ? 16 : (v > 235 ? 235 : v));
}

}  // namespace

void SpefLumaTableRow_C(uint8_t* yuyv, int pixels, const uint8_t* tableY) {
  for (int i = 0; i < 2 * pixels; i += 2) yuyv[i] = tableY[yuyv[i]];
}

void SpefChromaTableRow_C(uint8_t* yuyv, int pixels, const uint8_t* tableU, const uint8_t* tableV) {
  int x = 0;
  for (; x + 1 < pixels; x += 2) {
    yuyv[2 * x + 1] = tableU[yuyv[2 * x + 1]];
    yuyv[2 * x + 3] = tableV[yuyv[2 * x + 3]];
  }
  if (x < pixels) yuyv[2 * x + 1] = tableU[yuyv[2 * x + 1]];
}

void SpefLoadLumaRow_C(const uint8_t* yuyv, int width, uint8_t* row) {
  for (int x = 0; x < width; ++x) row[x] = yuyv[2 * x];
  row[-1] = row[0];
  row[width] = row[width - 1];
}

void SpefEmbossRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* yuyv,
                     int width, int32_t gain) {
  (void)row;
  for (int x = 0; x < width; ++x) {
    int32_t d = static_cast<int32_t>(below[x + 1]) - static_cast<int32_t>(above[x - 1]);
    yuyv[2 * x] = ClampStudioLuma(126 + d * gain);
    yuyv[2 * x + 1] = 128;
  }
}

void SpefSketchRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* yuyv,
                     int width, int32_t gain) {
  for (int x = 0; x < width; ++x) {
    int32_t gx = static_cast<int32_t>(row[x + 1]) - static_cast<int32_t>(row[x - 1]);
    int32_t gy = static_cast<int32_t>(below[x]) - static_cast<int32_t>(above[x]);
    int32_t edge = (gx < 0 ? -gx : gx) + (gy < 0 ? -gy : gy);
    yuyv[2 * x] = ClampStudioLuma(235 - edge * gain);
    yuyv[2 * x + 1] = 128;
  }
}

namespace {

// Rows are written in place from the top; each row's original luma is kept
// in the private rows before it is overwritten, so that the row below still
// sees it.
void ApplyNeighbourhood(const SpefRowSet* rows, SpefPrivate* priv, SpefNeighbourhoodRow fn,
                        int32_t gain, uint8_t* picture, int width, int height) {
  size_t stride = 2 * static_cast<size_t>(width);
  uint8_t* above = priv->Rows[0] + 1;
  uint8_t* row = priv->Rows[1] + 1;
  uint8_t* below = priv->Rows[2] + 1;
  rows->LoadLuma(picture, width, row);
  const uint8_t* previous = row;  // the top row repeats upwards
  for (int y = 0; y < height; ++y) {
    uint8_t* line = picture + stride * y;
    const uint8_t* next = row;  // the bottom row repeats downwards
    if (y + 1 < height) {
      rows->LoadLuma(line + stride, width, below);
      next = below;
    }
    fn(previous, row, next, line, width, gain);
    // Rotate: this row's luma becomes the one above, the next row's the current.
    uint8_t* spare = above;
    above = row;
    row = below;
    below = spare;
    previous = above;
  }
}

}  // namespace

void SpefApplyEffect(const SpefRowSet* rows, SpefPrivate* priv, uint32_t effectIndex,
                     uint8_t* picture, uint32_t width, uint32_t height) {
  if (picture == nullptr || width == 0 || height == 0 || effectIndex >= SpefEffectCount) return;
  constexpr uint32_t limit = 1u << 24;
  if (width > limit || height > limit) return;
  const SpefEffect& effect = SpefEffects[effectIndex];
  // Point effects see an even-width picture as one long row; an odd width
  // breaks the Y Cb Y Cr rhythm at each row's end, so it goes row by row.
  uint64_t all = static_cast<uint64_t>(width) * height;
  bool asOneRow = (width & 1) == 0 && all <= static_cast<uint64_t>(INT_MAX);
  int rowPixels = asOneRow ? static_cast<int>(all) : static_cast<int>(width);
  uint32_t rowCount = asOneRow ? 1 : height;
  size_t stride = 2 * static_cast<size_t>(rowPixels);
  switch (effect.Kind) {
    case SpefKindConstantChroma: {
      uint8_t cb = static_cast<uint8_t>(effect.Parameters[0]);
      uint8_t cr = static_cast<uint8_t>(effect.Parameters[1]);
      for (uint32_t r = 0; r < rowCount; ++r)
        rows->ConstantChroma(picture + stride * r, rowPixels, cb, cr);
      break;
    }
    case SpefKindNegative:
      for (uint32_t r = 0; r < rowCount; ++r) rows->Negative(picture + stride * r, rowPixels);
      break;
    case SpefKindTable: {
      // Tables that leave luma or chroma as it is are not walked for it.
      const uint8_t(*tables)[256] = priv->Tables[effectIndex];
      uint8_t touches = priv->TableTouches[effectIndex];
      for (uint32_t r = 0; r < rowCount; ++r) {
        uint8_t* line = picture + stride * r;
        if ((touches & SpefTouchesLuma) != 0) SpefLumaTableRow_C(line, rowPixels, tables[0]);
        if ((touches & SpefTouchesChroma) != 0) {
          SpefChromaTableRow_C(line, rowPixels, tables[1], tables[2]);
        }
      }
      break;
    }
    case SpefKindEmboss:
    case SpefKindSketch:
      if (width <= SpefMaxRowWidth) {
        // A gain above 64 could not make a picture any harsher, and keeps
        // the vector rows' 16-bit sums from overflowing.
        uint32_t gain = effect.Parameters[0] > 64 ? 64 : effect.Parameters[0];
        ApplyNeighbourhood(rows, priv, effect.Kind == SpefKindEmboss ? rows->Emboss : rows->Sketch,
                           static_cast<int32_t>(gain), picture, static_cast<int>(width),
                           static_cast<int>(height));
      }
      break;
    case SpefKindNone:
      break;
  }
}
