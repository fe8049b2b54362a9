// The built-in test pattern and the wire frame sizes.
//
// The pattern is drawn in the sensor's array coordinates, so a frame that
// shows a window of the array, or scales it, shows the part of the pattern
// there: eight vertical colour bars, darker towards the top (three quarters
// of the level on the first line, full level on the last), and a white
// square in the top-left quarter. Mirror and flip read the array right to
// left and bottom to top, as the sensor does. Levels follow the light scale
// (exposure times gain) and the brightness offset, clamped to 0..255. With a
// motor lens each bar edge becomes a linear ramp whose half width grows by
// arrayWidth / 800 array pixels for each step away from the focus position.
//
// Colours to bytes: Bayer samples B G / G R by the wire position (blue on
// even lines and even columns); YUYV and 4:2:0 use BT.601 with studio range,
//   Y  = 16 + (66 R + 129 G + 25 B + 128) >> 8
//   Cb = 128 + (-38 R - 74 G + 112 B + 128) >> 8
//   Cr = 128 + (112 R - 94 G - 18 B + 128) >> 8
// with the chroma of a pixel pair (YUYV) or 2 x 2 block (4:2:0) taken from
// the mean of its colours.

#include <algorithm>
#include <array>
#include <cstdlib>

#include "emulator/emulated_camera.h"

namespace {

using Rgb = std::array<int, 3>;

constexpr Rgb kBars[8] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235}, {16, 235, 16},
                          {235, 16, 235},  {235, 16, 16},  {16, 16, 235},  {16, 16, 16}};
constexpr int kWhite = 235;

uint8_t Clamp(int v) { return uint8_t(std::clamp(v, 0, 255)); }

int LumaOf(const Rgb& c) { return 16 + ((66 * c[0] + 129 * c[1] + 25 * c[2] + 128) >> 8); }
int CbOf(const Rgb& c) { return 128 + ((-38 * c[0] - 74 * c[1] + 112 * c[2] + 128) >> 8); }
int CrOf(const Rgb& c) { return 128 + ((112 * c[0] - 94 * c[1] - 18 * c[2] + 128) >> 8); }

// The array coordinate that wire position `i` of `count` shows, for a field
// of `fieldLength` from `fieldStart`, read backwards when `reversed`.
uint32_t ArrayCoordinate(uint32_t i, uint32_t count, uint32_t fieldStart, uint32_t fieldLength,
                         bool reversed) {
  if (count == 0 || fieldLength == 0) return fieldStart;
  uint32_t u = uint32_t((uint64_t(2 * i + 1) * fieldLength) / (2 * uint64_t(count)));
  if (u >= fieldLength) u = fieldLength - 1;
  if (reversed) u = fieldLength - 1 - u;
  return fieldStart + u;
}

// The colour of the bars at array column `x`, with edges blurred over
// `blur` array pixels either side.
Rgb BarColour(uint32_t x, uint32_t arrayWidth, uint32_t blur) {
  const uint32_t bar = std::min<uint32_t>(x * 8 / std::max<uint32_t>(arrayWidth, 1), 7);
  if (blur == 0) return kBars[bar];
  // Nearest edge between two bars.
  const int64_t edgeRight = int64_t(bar + 1) * arrayWidth / 8;
  const int64_t edgeLeft = int64_t(bar) * arrayWidth / 8;
  const int64_t toRight = edgeRight - int64_t(x);
  const int64_t toLeft = int64_t(x) - edgeLeft;
  uint32_t left = bar, right = bar;
  int64_t offset = 0;  // position relative to the edge, negative on its left
  if (toRight <= toLeft && bar < 7) {
    right = bar + 1;
    offset = -toRight;
  } else if (bar > 0) {
    left = bar - 1;
    offset = toLeft;
  }
  if (left == right || offset <= -int64_t(blur) || offset >= int64_t(blur)) return kBars[bar];
  // Weight of the right-hand bar rises from 0 to 1 across [-blur, blur].
  const int64_t weight = offset + blur;
  const int64_t span = 2 * int64_t(blur);
  Rgb c;
  for (int k = 0; k < 3; ++k) {
    c[k] = int((kBars[left][k] * (span - weight) + kBars[right][k] * weight) / span);
  }
  return c;
}

}  // namespace

size_t WireFrameBytes(uint32_t width, uint32_t height, WireFrameLayout layout) {
  const size_t pixels = size_t(width) * height;
  switch (layout) {
    case WireFrameLayout::Bayer:
      return pixels;
    case WireFrameLayout::Yuyv:
      return 2 * pixels;
    case WireFrameLayout::Yuv420:
      return pixels + 2 * (size_t(width + 1) / 2) * (size_t(height + 1) / 2);
  }
  return pixels;
}

void TestPatternSource::Render(const FrameRequest& r, std::vector<uint8_t>* out) {
  const size_t bytes = WireFrameBytes(r.width, r.height, r.layout);
  out->assign(bytes, 0);
  if (bytes == 0) return;
  const uint32_t w = r.width, h = r.height;
  const uint32_t aw = std::max<uint32_t>(r.arrayWidth, 1), ah = std::max<uint32_t>(r.arrayHeight, 1);
  const uint32_t blur =
      r.lensFitted ? uint32_t(std::abs(int64_t(r.lensPosition) - r.lensFocusPosition)) * aw / 800
                   : 0;
  const uint32_t markLeft = aw / 16, markRight = aw / 16 + aw / 8;
  const uint32_t markTop = ah / 12, markBottom = ah / 12 + ah / 6;

  std::vector<Rgb> columns(w);
  std::vector<uint8_t> columnMarked(w);
  for (uint32_t x = 0; x < w; ++x) {
    const uint32_t ax = ArrayCoordinate(x, w, r.fieldLeft, r.fieldWidth, r.mirror);
    columns[x] = BarColour(ax, aw, blur);
    columnMarked[x] = ax >= markLeft && ax < markRight;
  }
  // One line of colours at a time, after gradient, marker and light.
  std::vector<Rgb> line(w), below(w);
  auto shade = [&](uint32_t y, std::vector<Rgb>* row) {
    const uint32_t ay = ArrayCoordinate(y, h, r.fieldTop, r.fieldHeight, r.flip);
    const bool markRow = ay >= markTop && ay < markBottom;
    const int64_t scaleNum = int64_t(3 * ah + ay) * r.lightScale256;
    const int64_t scaleDen = int64_t(4 * ah) * 256;
    for (uint32_t x = 0; x < w; ++x) {
      Rgb c = (markRow && columnMarked[x]) ? Rgb{kWhite, kWhite, kWhite} : columns[x];
      for (int k = 0; k < 3; ++k) {
        c[k] = int(std::clamp<int64_t>(c[k] * scaleNum / scaleDen + r.brightness, 0, 255));
      }
      (*row)[x] = c;
    }
  };

  uint8_t* p = out->data();
  switch (r.layout) {
    case WireFrameLayout::Bayer:
      for (uint32_t y = 0; y < h; ++y) {
        shade(y, &line);
        for (uint32_t x = 0; x < w; ++x) {
          const int channel = (y & 1) == 0 ? ((x & 1) == 0 ? 2 : 1) : ((x & 1) == 0 ? 1 : 0);
          *p++ = Clamp(line[x][channel]);
        }
      }
      break;
    case WireFrameLayout::Yuyv:
      for (uint32_t y = 0; y < h; ++y) {
        shade(y, &line);
        for (uint32_t x = 0; x + 1 < w; x += 2) {
          Rgb mean;
          for (int k = 0; k < 3; ++k) mean[k] = (line[x][k] + line[x + 1][k]) >> 1;
          *p++ = Clamp(LumaOf(line[x]));
          *p++ = Clamp(CbOf(mean));
          *p++ = Clamp(LumaOf(line[x + 1]));
          *p++ = Clamp(CrOf(mean));
        }
        if (w & 1) {  // an odd last pixel keeps its own pair
          *p++ = Clamp(LumaOf(line[w - 1]));
          *p++ = Clamp(CbOf(line[w - 1]));
        }
      }
      break;
    case WireFrameLayout::Yuv420: {
      const uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
      uint8_t* cb = p + size_t(w) * h;
      uint8_t* cr = cb + size_t(cw) * ch;
      for (uint32_t y = 0; y < h; y += 2) {
        shade(y, &line);
        if (y + 1 < h) {
          shade(y + 1, &below);
        } else {
          below = line;
        }
        for (uint32_t x = 0; x < w; ++x) {
          p[size_t(y) * w + x] = Clamp(LumaOf(line[x]));
          if (y + 1 < h) p[size_t(y + 1) * w + x] = Clamp(LumaOf(below[x]));
        }
        for (uint32_t cx = 0; cx < cw; ++cx) {
          const uint32_t x0 = 2 * cx, x1 = std::min(2 * cx + 1, w - 1);
          Rgb mean;
          for (int k = 0; k < 3; ++k) {
            mean[k] = (line[x0][k] + line[x1][k] + below[x0][k] + below[x1][k]) >> 2;
          }
          cb[size_t(y / 2) * cw + cx] = Clamp(CbOf(mean));
          cr[size_t(y / 2) * cw + cx] = Clamp(CrOf(mean));
        }
      }
      break;
    }
  }
}
