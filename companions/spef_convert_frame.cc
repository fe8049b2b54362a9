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

void SpefTableRow_C(uint8_t* yuyv, int pixels, const uint8_t (*tables)[256]) {
  const uint8_t* ty = tables[0];
  const uint8_t* tu = tables[1];
  const uint8_t* tv = tables[2];
  int x = 0;
  for (; x + 1 < pixels; x += 2) {
    uint8_t* p = yuyv + 2 * x;
    p[0] = ty[p[0]];
    p[1] = tu[p[1]];
    p[2] = ty[p[2]];
    p[3] = tv[p[3]];
  }
  if (x < pixels) {
    uint8_t* p = yuyv + 2 * x;
    p[0] = ty[p[0]];
    p[1] = tu[p[1]];
  }
}

const SpefRowSet SpefPortableRows = {SpefConstantChromaRow_C, SpefNegativeRow_C};

#ifdef MR740_SPEF_HAVE_AVX2
static const SpefRowSet SpefAvx2Rows = {SpefConstantChromaRow_AVX2, SpefNegativeRow_AVX2};
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

// The luma of one YUYV row into `row[0..width)`, with the edge pixels
// repeated into row[-1] and row[width].
void LoadLuma(const uint8_t* yuyv, int width, uint8_t* row) {
  for (int x = 0; x < width; ++x) row[x] = yuyv[2 * x];
  row[-1] = row[0];
  row[width] = row[width - 1];
}

void EmbossRow(const uint8_t* above, const uint8_t* below, uint8_t* yuyv, int width, int32_t gain) {
  for (int x = 0; x < width; ++x) {
    int32_t d = static_cast<int32_t>(below[x + 1]) - static_cast<int32_t>(above[x - 1]);
    yuyv[2 * x] = ClampStudioLuma(126 + d * gain);
    yuyv[2 * x + 1] = 128;
  }
}

void SketchRow(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* yuyv,
               int width, int32_t gain) {
  for (int x = 0; x < width; ++x) {
    int32_t gx = static_cast<int32_t>(row[x + 1]) - static_cast<int32_t>(row[x - 1]);
    int32_t gy = static_cast<int32_t>(below[x]) - static_cast<int32_t>(above[x]);
    int32_t edge = (gx < 0 ? -gx : gx) + (gy < 0 ? -gy : gy);
    yuyv[2 * x] = ClampStudioLuma(235 - edge * gain);
    yuyv[2 * x + 1] = 128;
  }
}

// Rows are written in place from the top; each row's original luma is kept
// in the private rows before it is overwritten, so that the row below still
// sees it.
void ApplyNeighbourhood(SpefPrivate* priv, SpefKind kind, int32_t gain, uint8_t* picture,
                        int width, int height) {
  size_t stride = 2 * static_cast<size_t>(width);
  uint8_t* above = priv->Rows[0] + 1;
  uint8_t* row = priv->Rows[1] + 1;
  uint8_t* below = priv->Rows[2] + 1;
  LoadLuma(picture, width, row);
  const uint8_t* previous = row;  // the top row repeats upwards
  for (int y = 0; y < height; ++y) {
    uint8_t* line = picture + stride * y;
    const uint8_t* next = row;  // the bottom row repeats downwards
    if (y + 1 < height) {
      LoadLuma(line + stride, width, below);
      next = below;
    }
    if (kind == SpefKindEmboss) {
      EmbossRow(previous, next, line, width, gain);
    } else {
      SketchRow(previous, row, next, line, width, gain);
    }
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
      for (uint32_t r = 0; r < rowCount; ++r) rows->ConstantChroma(picture + stride * r, rowPixels, cb, cr);
      break;
    }
    case SpefKindNegative:
      for (uint32_t r = 0; r < rowCount; ++r) rows->Negative(picture + stride * r, rowPixels);
      break;
    case SpefKindTable:
      for (uint32_t r = 0; r < rowCount; ++r) {
        SpefTableRow_C(picture + stride * r, rowPixels, priv->Tables[effectIndex]);
      }
      break;
    case SpefKindEmboss:
    case SpefKindSketch:
      if (width <= SpefMaxRowWidth) {
        ApplyNeighbourhood(priv, effect.Kind, static_cast<int32_t>(effect.Parameters[0]), picture,
                           static_cast<int>(width), static_cast<int>(height));
      }
      break;
    case SpefKindNone:
      break;
  }
}
