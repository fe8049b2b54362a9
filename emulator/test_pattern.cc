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
  const uint32_t aw = std::max<uint32_t>(r.arrayWidth, 1);
  const uint32_t ah = std::max<uint32_t>(r.arrayHeight, 1);
  const uint32_t blur =
      r.lensFitted ? uint32_t(std::abs(int64_t(r.lensPosition) - r.lensFocusPosition)) * aw / 800
                   : 0;
  const uint32_t markLeft = aw / 16, markRight = aw / 16 + aw / 8;
  const uint32_t markTop = ah / 12, markBottom = ah / 12 + ah / 6;

  // The colours of each column, and the same on the lines of the square.
  std::vector<uint8_t> plain(3 * size_t(w)), marked(3 * size_t(w));
  for (uint32_t x = 0; x < w; ++x) {
    const uint32_t ax = ArrayCoordinate(x, w, r.fieldLeft, r.fieldWidth, r.mirror);
    const Rgb c = BarColour(ax, aw, blur);
    const bool inSquare = ax >= markLeft && ax < markRight;
    for (int k = 0; k < 3; ++k) {
      plain[3 * x + k] = uint8_t(c[k]);
      marked[3 * x + k] = uint8_t(inSquare ? kWhite : c[k]);
    }
  }
  // One line of colours at a time: the line's gradient, the light and the
  // brightness make one table from scene level to wire level.
  std::vector<uint8_t> line(3 * size_t(w)), below(3 * size_t(w));
  uint8_t levels[256];
  auto shade = [&](uint32_t y, std::vector<uint8_t>* row) {
    const uint32_t ay = ArrayCoordinate(y, h, r.fieldTop, r.fieldHeight, r.flip);
    const bool markRow = ay >= markTop && ay < markBottom;
    // Gradient times light as a factor in 1/65536.
    const int64_t factor = int64_t(3 * ah + ay) * r.lightScale256 * 65536 / (int64_t(4 * ah) * 256);
    for (int v = 0; v < 256; ++v) levels[v] = Clamp(int(((v * factor) >> 16) + r.brightness));
    const uint8_t* source = markRow ? marked.data() : plain.data();
    uint8_t* target = row->data();
    for (size_t i = 0; i < 3 * size_t(w); ++i) target[i] = levels[source[i]];
  };
  auto luma = [](const uint8_t* c) { return Clamp(LumaOf(Rgb{c[0], c[1], c[2]})); };

  uint8_t* p = out->data();
  switch (r.layout) {
    case WireFrameLayout::Bayer:
      for (uint32_t y = 0; y < h; ++y) {
        shade(y, &line);
        const uint8_t* c = line.data();
        // Blue (2) and green (1) on even lines, green and red (0) on odd ones.
        const int even = (y & 1) == 0 ? 2 : 1, odd = (y & 1) == 0 ? 1 : 0;
        for (uint32_t x = 0; x + 1 < w; x += 2) {
          *p++ = c[3 * x + even];
          *p++ = c[3 * x + 3 + odd];
        }
        if (w & 1) *p++ = c[3 * (w - 1) + even];
      }
      break;
    case WireFrameLayout::Yuyv:
      for (uint32_t y = 0; y < h; ++y) {
        shade(y, &line);
        const uint8_t* c = line.data();
        for (uint32_t x = 0; x + 1 < w; x += 2) {
          const Rgb mean = {(c[3 * x] + c[3 * x + 3]) >> 1, (c[3 * x + 1] + c[3 * x + 4]) >> 1,
                            (c[3 * x + 2] + c[3 * x + 5]) >> 1};
          *p++ = luma(c + 3 * x);
          *p++ = Clamp(CbOf(mean));
          *p++ = luma(c + 3 * x + 3);
          *p++ = Clamp(CrOf(mean));
        }
        if (w & 1) {  // an odd last pixel keeps its own pair
          const uint8_t* last = c + 3 * (w - 1);
          *p++ = luma(last);
          *p++ = Clamp(CbOf(Rgb{last[0], last[1], last[2]}));
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
        const uint8_t* a = line.data();
        const uint8_t* b = below.data();
        for (uint32_t x = 0; x < w; ++x) {
          p[size_t(y) * w + x] = luma(a + 3 * x);
          if (y + 1 < h) p[size_t(y + 1) * w + x] = luma(b + 3 * x);
        }
        for (uint32_t cx = 0; cx < cw; ++cx) {
          const uint32_t x0 = 3 * (2 * cx), x1 = 3 * std::min(2 * cx + 1, w - 1);
          Rgb mean;
          for (int k = 0; k < 3; ++k) {
            mean[k] = (a[x0 + k] + a[x1 + k] + b[x0 + k] + b[x1 + k]) >> 2;
          }
          cb[size_t(y / 2) * cw + cx] = Clamp(CbOf(mean));
          cr[size_t(y / 2) * cw + cx] = Clamp(CrOf(mean));
        }
      }
      break;
    }
  }
}
