// ISPFunc_RawToImg: one raw frame of the wire size into a YUYV picture of
// the output size, with the nine property values and the orientation.
//
// Frame path (the host's frame thread): no allocation, no callback, no
// blocking. Every buffer lives in the IspState allocated at ISPFunc_Init.
#include <cstring>

#include "companions/isp_library.h"

namespace {

// Row index y reflected into 0..size-1 keeping its parity (row -1 reads
// row 1), as the Bayer pattern needs.
uint32_t ReflectRow(int64_t y, uint32_t size) {
  if (size <= 1) return 0;
  if (y < 0) return static_cast<uint32_t>(-y < static_cast<int64_t>(size) ? -y : 0);
  if (y >= size) {
    int64_t r = 2 * static_cast<int64_t>(size) - 2 - y;
    return static_cast<uint32_t>(r < 0 ? 0 : r);
  }
  return static_cast<uint32_t>(y);
}

// ---------------------------------------------------------------- tables

// Brings the colour matrix and the luma table up to date with this frame's
// settings and gains; each is rebuilt only when a value it depends on moved.
void UpdateTables(IspState* state, const IspSettings* s, uint8_t layout, int32_t redGain,
                  int32_t blueGain) {
  const IspSettings* old = &state->Settings;
  bool valid = state->SettingsValid;
  bool lumaChanged = !valid || old->Brightness != s->Brightness || old->Contrast != s->Contrast ||
                     old->Gamma != s->Gamma || old->BackLight != s->BackLight;
  bool chromaChanged = !valid || old->Saturation != s->Saturation || old->Hue != s->Hue ||
                       old->ColorEnable != s->ColorEnable;
  if (lumaChanged) {
    if (s->Gamma != IspNeutralGamma && state->GammaCurveValue != s->Gamma) {
      IspBuildGammaCurve(s->Gamma, state->GammaCurve);
      state->GammaCurveValue = s->Gamma;
    }
    state->LumaIsClamp = IspBuildLumaTable(s, state->GammaCurve, state->LumaTable);
  }
  if (chromaChanged || lumaChanged || state->MatrixLayout != layout ||
      state->MatrixRedGain != redGain || state->MatrixBlueGain != blueGain) {
    IspBuildRowCoefficients(layout, redGain, blueGain, s, &state->Coefficients);
    // With a full luma table the rows keep all of 0..255 for it; when the
    // table is only the studio clamp, the rows clamp and the table is skipped.
    if (!state->LumaIsClamp) {
      state->Coefficients.YMin = 0;
      state->Coefficients.YMax = 255;
    }
    state->MatrixLayout = layout;
    state->MatrixRedGain = redGain;
    state->MatrixBlueGain = blueGain;
  }
  state->Settings = *s;
  state->SettingsValid = true;
}

// The white balance gains of this frame: from the colour temperature, or
// grey world on the frame itself (smoothed over frames when asked).
void ChooseGains(IspState* state, const IspSettings* s, const IspFrameStatistics* statistics,
                 uint8_t layout, int32_t* redGain, int32_t* blueGain) {
  int32_t autoRed, autoBlue;
  uint32_t meanLuma;
  IspGreyWorldGains(statistics, layout, &autoRed, &autoBlue, &meanLuma);
  IspStoreShared(&state->MeanLuma, meanLuma);
  bool restart = __atomic_exchange_n(&state->AwbRestart, 0u, __ATOMIC_RELAXED) != 0;
  if (s->Kelvin != 0) {
    IspKelvinToGains(s->Kelvin, redGain, blueGain);
    state->AwbRedGain = 0;  // automatic starts afresh when it comes back
    state->AwbBlueGain = 0;
  } else {
    uint32_t smoothing = IspLoadShared(&state->AwbSmoothing);
    if (restart || state->AwbRedGain == 0 || smoothing == 0) {
      state->AwbRedGain = autoRed;
      state->AwbBlueGain = autoBlue;
    } else {
      // Move 1/2^smoothing of the way (floor: it settles within one step).
      state->AwbRedGain += (autoRed - state->AwbRedGain) >> smoothing;
      state->AwbBlueGain += (autoBlue - state->AwbBlueGain) >> smoothing;
    }
    *redGain = state->AwbRedGain;
    *blueGain = state->AwbBlueGain;
  }
  IspStoreShared(&state->WhiteGains,
                 static_cast<uint32_t>(*redGain) | (static_cast<uint32_t>(*blueGain) << 16));
}

// ---------------------------------------------------------------- per row

// Luma table and mirror of one finished YUYV row. Mirroring keeps each pixel
// pair's chroma (both pixels of a pair stay together) and swaps its lumas.
void FinishRow(const IspState* state, uint8_t* row, uint32_t width, bool mirror) {
  if (!state->LumaIsClamp) {
    const uint8_t* table = state->LumaTable;
    for (uint32_t x = 0; x < width; ++x) row[2 * x] = table[row[2 * x]];
  }
  if (mirror) {
    uint32_t pairs = width / 2;
    for (uint32_t p = 0; p < pairs / 2; ++p) {
      uint8_t* a = row + 4 * p;
      uint8_t* b = row + 4 * (pairs - 1 - p);
      uint8_t left[4] = {a[2], a[1], a[0], a[3]};
      uint8_t right[4] = {b[2], b[1], b[0], b[3]};
      std::memcpy(a, right, 4);
      std::memcpy(b, left, 4);
    }
    if (pairs & 1) {
      uint8_t* middle = row + 4 * (pairs / 2);
      uint8_t y0 = middle[0];
      middle[0] = middle[2];
      middle[2] = y0;
    }
  }
}

uint8_t* DestinationRow(uint8_t* destination, uint32_t y, uint32_t width, uint32_t height,
                        bool flip) {
  uint32_t row = flip ? height - 1 - y : y;
  return destination + static_cast<size_t>(row) * width * 2;
}

// ---------------------------------------------------------------- equal size

void DevelopBayerSameSize(IspState* state, const uint8_t* raw, uint8_t* destination, uint32_t width,
                          uint32_t height, bool mirror, bool flip) {
  IspBayerRowRoutine developRow = state->Rows.DevelopBayerRow;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* above = raw + static_cast<size_t>(ReflectRow(int64_t{y} - 1, height)) * width;
    const uint8_t* row = raw + static_cast<size_t>(y) * width;
    const uint8_t* below = raw + static_cast<size_t>(ReflectRow(int64_t{y} + 1, height)) * width;
    uint8_t* out = DestinationRow(destination, y, width, height, flip);
    developRow(above, row, below, width, y & 1, &state->Coefficients, out);
    FinishRow(state, out, width, mirror);
  }
}

// ---------------------------------------------------------------- any size

// One wire row, demosaiced (Bayer) or unpacked (YUYV, chroma given to both
// pixels of its pair), then resampled to the output width in Q4. The cached
// row `keepRow` (a row still in use, or -1) is not evicted for it.
const uint16_t* HorizontalRow(IspState* state, const uint8_t* raw, uint32_t wireWidth,
                              uint32_t wireHeight, uint8_t layout, uint32_t sourceRow,
                              uint32_t width, int32_t keepRow) {
  for (uint32_t slot = 0; slot < IspRowCacheSlots; ++slot) {
    if (state->CachedRow[slot] == static_cast<int32_t>(sourceRow)) {
      return &state->RowCache[slot][0][0];
    }
  }
  uint32_t slot = state->NextSlot;
  if (state->CachedRow[slot] == keepRow && keepRow >= 0) slot = (slot + 1) % IspRowCacheSlots;
  state->NextSlot = (slot + 1) % IspRowCacheSlots;
  state->CachedRow[slot] = static_cast<int32_t>(sourceRow);

  uint8_t* planes[3] = {state->SourcePlanes[0], state->SourcePlanes[1], state->SourcePlanes[2]};
  if (layout == IspWireLayoutYuyv) {
    const uint8_t* in = raw + static_cast<size_t>(sourceRow) * wireWidth * 2;
    for (uint32_t x = 0; x + 1 < wireWidth; x += 2) {
      planes[0][x] = in[2 * x];
      planes[0][x + 1] = in[2 * x + 2];
      planes[1][x] = planes[1][x + 1] = in[2 * x + 1];
      planes[2][x] = planes[2][x + 1] = in[2 * x + 3];
    }
  } else {
    const uint8_t* above =
        raw + static_cast<size_t>(ReflectRow(int64_t{sourceRow} - 1, wireHeight)) * wireWidth;
    const uint8_t* row = raw + static_cast<size_t>(sourceRow) * wireWidth;
    const uint8_t* below =
        raw + static_cast<size_t>(ReflectRow(int64_t{sourceRow} + 1, wireHeight)) * wireWidth;
    state->Rows.DemosaicRow(above, row, below, wireWidth, sourceRow & 1, planes[0], planes[1],
                            planes[2]);
  }

  const IspAxisTaps* taps = &state->TapsX;
  uint16_t* outs[3] = {state->RowCache[slot][0], state->RowCache[slot][1],
                       state->RowCache[slot][2]};
  if (wireWidth != width && taps->MaxCount <= 2) {
    // Q12 x 8 bits -> Q4, the three planes together.
    for (uint32_t x = 0; x < width; ++x) {
      uint32_t i = taps->First[x], j = taps->Second[x];
      uint32_t wi = taps->FirstWeight[x], wj = taps->SecondWeight[x];
      outs[0][x] = static_cast<uint16_t>((wi * planes[0][i] + wj * planes[0][j] + 128) >> 8);
      outs[1][x] = static_cast<uint16_t>((wi * planes[1][i] + wj * planes[1][j] + 128) >> 8);
      outs[2][x] = static_cast<uint16_t>((wi * planes[2][i] + wj * planes[2][j] + 128) >> 8);
    }
    return &state->RowCache[slot][0][0];
  }
  for (uint32_t c = 0; c < 3; ++c) {
    uint16_t* out = outs[c];
    const uint8_t* in = planes[c];
    if (wireWidth == width) {
      for (uint32_t x = 0; x < width; ++x) out[x] = static_cast<uint16_t>(in[x] << 4);
      continue;
    }
    for (uint32_t x = 0; x < width; ++x) {
      const uint8_t* source = in + taps->First[x];
      const uint16_t* weight = taps->Weight + taps->Offset[x];
      uint32_t sum = 0;
      for (uint32_t t = 0; t < taps->Count[x]; ++t) sum += weight[t] * source[t];
      out[x] = static_cast<uint16_t>((sum + 128) >> 8);  // Q12 x 8 bits -> Q4
    }
  }
  return &state->RowCache[slot][0][0];
}

void DevelopResampled(IspState* state, const uint8_t* raw, uint32_t wireWidth, uint32_t wireHeight,
                      uint8_t layout, uint8_t* destination, uint32_t width, uint32_t height,
                      bool mirror, bool flip) {
  if (state->TapsX.SourceSize != wireWidth || state->TapsX.OutputSize != width) {
    IspBuildAxisTaps(wireWidth, width, &state->TapsX);
  }
  if (state->TapsY.SourceSize != wireHeight || state->TapsY.OutputSize != height) {
    IspBuildAxisTaps(wireHeight, height, &state->TapsY);
  }
  for (uint32_t slot = 0; slot < IspRowCacheSlots; ++slot) state->CachedRow[slot] = -1;
  const size_t planeStride = IspMaxWidth;  // between the planes of a cached row

  const IspAxisTaps* taps = &state->TapsY;
  for (uint32_t y = 0; y < height; ++y) {
    uint32_t first = taps->First[y];
    uint32_t count = taps->Count[y];
    const uint16_t* weight = taps->Weight + taps->Offset[y];
    if (count == 1) {
      const uint16_t* h =
          HorizontalRow(state, raw, wireWidth, wireHeight, layout, first, width, -1);
      for (uint32_t c = 0; c < 3; ++c) {
        for (uint32_t x = 0; x < width; ++x) {
          state->OutputPlanes[c][x] = static_cast<uint8_t>((h[c * planeStride + x] + 8) >> 4);
        }
      }
    } else if (count == 2) {
      // Q12 weights x Q4 values -> Q16; rounded to 8 bits. The cache holds
      // both rows.
      const uint16_t* h0 =
          HorizontalRow(state, raw, wireWidth, wireHeight, layout, first, width, -1);
      const uint16_t* h1 = HorizontalRow(state, raw, wireWidth, wireHeight, layout, first + 1,
                                         width, static_cast<int32_t>(first));
      uint32_t w0 = weight[0], w1 = weight[1];
      for (uint32_t c = 0; c < 3; ++c) {
        const uint16_t* a = h0 + c * planeStride;
        const uint16_t* b = h1 + c * planeStride;
        uint8_t* o = state->OutputPlanes[c];
        for (uint32_t x = 0; x < width; ++x) {
          uint32_t v = (w0 * a[x] + w1 * b[x] + 32768) >> 16;
          o[x] = static_cast<uint8_t>(v > 255 ? 255 : v);
        }
      }
    } else {
      for (uint32_t t = 0; t < count; ++t) {
        const uint16_t* h =
            HorizontalRow(state, raw, wireWidth, wireHeight, layout, first + t, width, -1);
        uint32_t w = weight[t];
        for (uint32_t c = 0; c < 3; ++c) {
          uint32_t* acc = state->Accumulator[c];
          const uint16_t* in = h + c * planeStride;
          if (t == 0) {
            for (uint32_t x = 0; x < width; ++x) acc[x] = w * in[x];
          } else {
            for (uint32_t x = 0; x < width; ++x) acc[x] += w * in[x];
          }
        }
      }
      for (uint32_t c = 0; c < 3; ++c) {
        for (uint32_t x = 0; x < width; ++x) {
          // Q12 weights x Q4 values -> Q16; rounded to 8 bits.
          uint32_t v = (state->Accumulator[c][x] + 32768) >> 16;
          state->OutputPlanes[c][x] = static_cast<uint8_t>(v > 255 ? 255 : v);
        }
      }
    }
    uint8_t* out = DestinationRow(destination, y, width, height, flip);
    // RGB from a Bayer frame, YCbCr from a YUYV one.
    IspPlanarRowRoutine convert =
        layout == IspWireLayoutYuyv ? IspConvertYccRow : state->Rows.ConvertRgbRow;
    convert(state->OutputPlanes[0], state->OutputPlanes[1], state->OutputPlanes[2], width,
            &state->Coefficients, out);
    FinishRow(state, out, width, mirror);
  }
}

// ---------------------------------------------------------------- sharpening

// Unsharp mask on the finished luma: Y + (Y - blur) x Sharpness / 4, blur
// the 3 x 3 binomial (1 2 1)^2 / 16, edges replicated. Works down the
// picture in place, keeping the original luma of the rows above, at and
// below the current one in the state. Plain loops over whole rows, which
// the compiler turns into vector code.
void SharpenLuma(IspState* state, uint8_t* picture, uint32_t width, uint32_t height,
                 int32_t strength) {
  const size_t stride = static_cast<size_t>(width) * 2;
  uint8_t* rows[3] = {state->SharpenRows[0], state->SharpenRows[1], state->SharpenRows[2]};
  uint16_t* columns = state->SharpenColumns + 1;  // one spare entry either side
  for (uint32_t x = 0; x < width; ++x) rows[1][x] = picture[2 * x];
  std::memcpy(rows[0], rows[1], width);  // above the first row: itself
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* out = picture + y * stride;
    const uint8_t* above = rows[0];
    const uint8_t* current = rows[1];
    uint8_t* below = rows[2];
    if (y + 1 < height) {
      const uint8_t* next = out + stride;  // not yet sharpened
      for (uint32_t x = 0; x < width; ++x) below[x] = next[2 * x];
    } else {
      std::memcpy(below, current, width);
    }
    for (uint32_t x = 0; x < width; ++x) {
      columns[x] = static_cast<uint16_t>(above[x] + 2 * current[x] + below[x]);
    }
    columns[-1] = columns[0];
    columns[width] = columns[width - 1];
    for (uint32_t x = 0; x < width; ++x) {
      int32_t blur =
          (columns[static_cast<int32_t>(x) - 1] + 2 * columns[x] + columns[x + 1] + 8) >> 4;
      int32_t c = current[x];
      int32_t v = c + (((c - blur) * strength + 2) >> 2);
      out[2 * x] = static_cast<uint8_t>(v < 16 ? 16 : (v > 235 ? 235 : v));
    }
    // The rows move up by one.
    uint8_t* oldest = rows[0];
    rows[0] = rows[1];
    rows[1] = rows[2];
    rows[2] = oldest;
  }
}

}  // namespace

void IspMeasureFrame(const uint8_t* raw, uint32_t wireWidth, uint32_t wireHeight, uint8_t layout,
                     IspFrameStatistics* statistics) {
  std::memset(statistics, 0, sizeof(*statistics));
  if (layout == IspWireLayoutYuyv) {
    for (uint32_t y = 0; y < wireHeight; y += 32) {
      const uint8_t* row = raw + static_cast<size_t>(y) * wireWidth * 2;
      for (uint32_t x = 0; x + 1 < wireWidth; x += 8) {
        const uint8_t* pair = row + 2 * x;
        statistics->Sum[0] += pair[0] + pair[2];
        statistics->Sum[1] += pair[1];
        statistics->Sum[2] += pair[3];
        ++statistics->Samples;
      }
    }
    return;
  }
  for (uint32_t y = 0; y + 1 < wireHeight; y += 32) {
    const uint8_t* even = raw + static_cast<size_t>(y) * wireWidth;
    const uint8_t* odd = even + wireWidth;
    for (uint32_t x = 0; x + 1 < wireWidth; x += 8) {
      statistics->Sum[2] += even[x];               // B
      statistics->Sum[1] += even[x + 1] + odd[x];  // G twice
      statistics->Sum[0] += odd[x + 1];            // R
      ++statistics->Samples;
    }
  }
}

// Output pixel i of a box (shrinking) covers source [i s, (i + 1) s) with s =
// source / output; in units of 1/output that is [i source, (i + 1) source),
// and source pixel j is [j output, (j + 1) output): the weights are the
// overlaps, out of `source`. Enlarging (and equal size) is bilinear between
// the two source pixels about the centre (i + 1/2) s - 1/2, edges clamped.
void IspBuildAxisTaps(uint32_t sourceSize, uint32_t outputSize, IspAxisTaps* taps) {
  taps->SourceSize = sourceSize;
  taps->OutputSize = outputSize;
  uint32_t used = 0;
  uint32_t maxCount = 0;
  for (uint32_t i = 0; i < outputSize; ++i) {
    taps->Offset[i] = used;
    uint16_t* weight = taps->Weight + used;
    uint32_t count = 0;
    uint32_t first = 0;
    if (sourceSize > outputSize) {
      uint64_t start = uint64_t{i} * sourceSize;
      uint64_t end = start + sourceSize;
      first = static_cast<uint32_t>(start / outputSize);
      uint32_t last = static_cast<uint32_t>((end - 1) / outputSize);
      uint32_t total = 0, largest = 0;
      for (uint32_t j = first; j <= last; ++j) {
        uint64_t lo = uint64_t{j} * outputSize, hi = lo + outputSize;
        uint64_t overlap = (hi < end ? hi : end) - (lo > start ? lo : start);
        uint32_t w = static_cast<uint32_t>(overlap * 4096 / sourceSize);
        weight[count] = static_cast<uint16_t>(w);
        if (w > weight[largest]) largest = count;
        total += w;
        ++count;
      }
      weight[largest] = static_cast<uint16_t>(weight[largest] + (4096 - total));  // sum exactly 1.0
    } else {
      // Centre in units of 1 / (2 output): (2i + 1) source - output.
      int64_t numerator = static_cast<int64_t>(2 * i + 1) * sourceSize - outputSize;
      int64_t denominator = 2 * static_cast<int64_t>(outputSize);
      int64_t whole = numerator >= 0 ? numerator / denominator : -1;  // numerator > -denominator
      int64_t fraction = numerator - whole * denominator;
      uint32_t w1 = static_cast<uint32_t>(fraction * 4096 / denominator);
      int64_t j0 = whole < 0 ? 0 : whole;
      int64_t j1 = whole + 1 >= sourceSize ? sourceSize - 1 : whole + 1;
      if (whole < 0) w1 = 0;  // left edge: the first pixel alone
      first = static_cast<uint32_t>(j0);
      if (w1 == 0 || j1 == j0) {
        weight[0] = 4096;
        count = 1;
      } else {
        weight[0] = static_cast<uint16_t>(4096 - w1);
        weight[1] = static_cast<uint16_t>(w1);
        count = 2;
      }
    }
    taps->First[i] = static_cast<uint16_t>(first);
    taps->Count[i] = static_cast<uint16_t>(count);
    taps->FirstWeight[i] = weight[0];
    taps->SecondWeight[i] = count > 1 ? weight[1] : 0;
    taps->Second[i] = static_cast<uint16_t>(count > 1 ? first + 1 : first);
    if (count > maxCount) maxCount = count;
    used += count;
  }
  taps->MaxCount = maxCount;
}

NTSTATUS ISPFunc_RawToImg(uint64_t ispHandle, void* context, uint32_t mode, const uint32_t* record,
                          uint8_t* destination, const uint8_t* raw, uint32_t width,
                          uint32_t height) {
  (void)context;
  (void)mode;  // the driver always asks for 2 (YUYV); there is no other output
  IspState* state = IspStateOf(ispHandle);
  if (state == nullptr) return STATUS_INVALID_HANDLE;
  // A YUYV row holds whole pixel pairs: an odd width has no picture.
  if (destination == nullptr || raw == nullptr || width == 0 || height == 0 ||
      width > IspMaxWidth || height > IspMaxHeight || (width & 1) != 0) {
    return STATUS_INVALID_PARAMETER;
  }
  uint32_t wireWidth, wireHeight;
  uint8_t layout;
  IspGetWireGeometry(state, width, height, &wireWidth, &wireHeight, &layout);

  IspSettings settings;
  IspClampSettings(record, &settings);
  IspFrameStatistics statistics;
  IspMeasureFrame(raw, wireWidth, wireHeight, layout, &statistics);
  int32_t redGain, blueGain;
  ChooseGains(state, &settings, &statistics, layout, &redGain, &blueGain);
  UpdateTables(state, &settings, layout, redGain, blueGain);

  uint32_t orientation = IspLoadShared(&state->Orientation);
  bool mirror = (orientation & IspOrientationMirror) != 0;
  bool flip = (orientation & IspOrientationFlip) != 0;
  if (layout == IspWireLayoutBayer && wireWidth == width && wireHeight == height) {
    DevelopBayerSameSize(state, raw, destination, width, height, mirror, flip);
  } else {
    DevelopResampled(state, raw, wireWidth, wireHeight, layout, destination, width, height, mirror,
                     flip);
  }
  if (settings.Sharpness != 0) SharpenLuma(state, destination, width, height, settings.Sharpness);
  return STATUS_SUCCESS;
}
