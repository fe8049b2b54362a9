// Colour pictures to wire bytes: Bayer, YUYV and planar 4:2:0 (layouts and
// the BT.601 constants in wire_encode.h).

#include "emulator/wire_encode.h"

#include <algorithm>

namespace emu {

namespace {

uint8_t Clamp8(int v) { return uint8_t(std::clamp(v, 0, 255)); }

}  // namespace

uint8_t WireLuma(int r, int g, int b) {
  return Clamp8(16 + ((66 * r + 129 * g + 25 * b + 128) >> 8));
}

uint8_t WireCb(int r, int g, int b) {
  return Clamp8(128 + ((-38 * r - 74 * g + 112 * b + 128) >> 8));
}

uint8_t WireCr(int r, int g, int b) {
  return Clamp8(128 + ((112 * r - 94 * g - 18 * b + 128) >> 8));
}

void EncodeWireFrame(const uint8_t* rgb, uint32_t width, uint32_t height, WireFrameLayout layout,
                     std::vector<uint8_t>* wire) {
  wire->assign(WireFrameBytes(width, height, layout), 0);
  if (wire->empty()) return;
  const size_t w = width, h = height;
  uint8_t* out = wire->data();
  auto pixel = [&](size_t x, size_t y) { return rgb + 3 * (y * w + x); };

  switch (layout) {
    case WireFrameLayout::Bayer:
      for (size_t y = 0; y < h; ++y) {
        // Blue (2) then green (1) on even lines, green then red (0) on odd ones.
        const int evenColumn = (y & 1) == 0 ? 2 : 1;
        const int oddColumn = (y & 1) == 0 ? 1 : 0;
        const uint8_t* line = pixel(0, y);
        for (size_t x = 0; x < w; ++x) {
          *out++ = line[3 * x + ((x & 1) == 0 ? evenColumn : oddColumn)];
        }
      }
      break;

    case WireFrameLayout::Yuyv:
      for (size_t y = 0; y < h; ++y) {
        const uint8_t* line = pixel(0, y);
        size_t x = 0;
        for (; x + 1 < w; x += 2) {
          const uint8_t* a = line + 3 * x;
          const uint8_t* b = a + 3;
          const int r = (a[0] + b[0]) >> 1, g = (a[1] + b[1]) >> 1, bl = (a[2] + b[2]) >> 1;
          *out++ = WireLuma(a[0], a[1], a[2]);
          *out++ = WireCb(r, g, bl);
          *out++ = WireLuma(b[0], b[1], b[2]);
          *out++ = WireCr(r, g, bl);
        }
        if (x < w) {  // an odd last pixel keeps its luma and its blue difference
          const uint8_t* a = line + 3 * x;
          *out++ = WireLuma(a[0], a[1], a[2]);
          *out++ = WireCb(a[0], a[1], a[2]);
        }
      }
      break;

    case WireFrameLayout::Yuv420: {
      const size_t cw = (w + 1) / 2, ch = (h + 1) / 2;
      uint8_t* cb = out + w * h;
      uint8_t* cr = cb + cw * ch;
      for (size_t y = 0; y < h; ++y) {
        const uint8_t* line = pixel(0, y);
        for (size_t x = 0; x < w; ++x) {
          out[y * w + x] = WireLuma(line[3 * x], line[3 * x + 1], line[3 * x + 2]);
        }
      }
      for (size_t by = 0; by < ch; ++by) {
        const size_t y0 = 2 * by, y1 = std::min(2 * by + 1, h - 1);
        for (size_t bx = 0; bx < cw; ++bx) {
          const size_t x0 = 2 * bx, x1 = std::min(2 * bx + 1, w - 1);
          int mean[3];
          for (int k = 0; k < 3; ++k) {
            mean[k] =
                (pixel(x0, y0)[k] + pixel(x1, y0)[k] + pixel(x0, y1)[k] + pixel(x1, y1)[k]) >> 2;
          }
          cb[by * cw + bx] = WireCb(mean[0], mean[1], mean[2]);
          cr[by * cw + bx] = WireCr(mean[0], mean[1], mean[2]);
        }
      }
      break;
    }
  }
}

size_t WirePixelOffset(uint32_t width, uint32_t height, WireFrameLayout layout, uint32_t x,
                       uint32_t y) {
  if (x >= width || y >= height) return SIZE_MAX;
  const size_t index = size_t(y) * width + x;
  return layout == WireFrameLayout::Yuyv ? 2 * index : index;
}

}  // namespace emu
