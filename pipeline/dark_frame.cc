// Dark frame blanking: once every 24 frames (at FrameCounter 1, the second
// frame of a cycle) the mean brightness of the finished picture is measured,
// and while it lies below the registry threshold every picture is replaced by
// a uniform dark one. The verdict stands until the next measurement; capture
// start clears DarkFrameMeasured (not the means), so the first frame of a
// capture is never blanked. RGB24 and YUY2 output only.
//
// Context: end of the frame path, on the output buffer. No lock, nothing
// allocated. At 1600 x 1200 RGB24 the sum of 5,760,000 bytes is at most
// 1,468,800,000 and fits the 32-bit word.

#include <cstring>

#include "pipeline/frame_pipeline.h"

void BlankDarkFrameRgb(DeviceContext* context, uint8_t* picture, uint32_t width, uint32_t height) {
  const uint32_t n = width * height * 3;
  if (n == 0) return;
  if (context->FrameCounter == 1 && context->BlackBodyDarkRGB24 != 0) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < n; ++i) sum += picture[i];
    context->DarkMeanRGB24 = sum / n;
    context->DarkFrameMeasured = 1;
  }
  if (context->DarkFrameMeasured && context->DarkMeanRGB24 < context->BlackBodyDarkRGB24) {
    std::memset(picture, 0, n);
    picture[0] |= 1;
  }
}

void BlankDarkFrameYuyv(DeviceContext* context, uint8_t* picture, uint32_t width,
                        uint32_t height) {
  const uint32_t n = width * height;
  if (n == 0) return;
  if (context->FrameCounter == 1 && context->BlackBodyDarkYUYV != 0) {
    uint32_t sum = 0;
    for (uint32_t i = 0; i < n; ++i) sum += picture[2 * size_t(i)];  // luma at even offsets
    context->DarkMeanYUYV = sum / n;
    context->DarkFrameMeasured = 1;
  }
  if (context->DarkFrameMeasured && context->DarkMeanYUYV < context->BlackBodyDarkYUYV) {
    // Video black: luma 16, chroma 128.
    for (uint32_t i = 0; i < n; ++i) {
      picture[2 * size_t(i)] = 16;
      picture[2 * size_t(i) + 1] = 128;
    }
  }
}
