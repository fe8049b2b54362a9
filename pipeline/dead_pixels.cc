// The dead pixel map: samples that differ strongly from all four nearest
// neighbours of their own colour are taken for dead and replaced, on every
// frame, by the mean of four neighbours.
//
// The search runs on the raw frame, one quarter of it every 24 frames (when
// FrameCounter is 0), so the four passes take 96 frames; each pass rebuilds
// only its own list and the other three stay in use. The map is byte offsets
// into the raw frame, kept in the device record (nothing allocated), and is
// rebuilt for each capture: capture start clears DeadPixelMapReady and
// DeadPixelPass.
//
// Two forms: Bayer (one byte a pixel; same colour two bytes to the side and
// two lines up and down) and YUYV (two bytes a pixel; same component four
// bytes to the side and two lines up and down). The scans keep a margin of two
// rows and two or three columns, so every neighbour the repair reads lies
// inside the frame.
//
// Context: frame path only, no lock.

#include <cstring>

#include "pipeline/frame_pipeline.h"

namespace {

inline uint32_t Difference(uint8_t a, uint8_t b) { return a > b ? a - b : b - a; }

// Start of a scan pass: the first pass of a capture starts from nothing, a
// later one drops only the list it is about to rebuild. Returns the pass.
uint32_t BeginScanPass(DeviceContext* context) {
  uint32_t pass = context->DeadPixelPass;
  if (pass == 0) {
    std::memset(context->DeadPixelCount, 0, sizeof context->DeadPixelCount);
    std::memset(context->DeadPixelOffsets, 0, sizeof context->DeadPixelOffsets);
    return 0;
  }
  if (pass >= DeadPixelPasses) pass = context->DeadPixelPass = 0;
  context->DeadPixelCount[pass] = 0;
  std::memset(context->DeadPixelOffsets[pass], 0, sizeof context->DeadPixelOffsets[pass]);
  return pass;
}

// Tests `samples` samples of `rows` rows, `step` bytes apart in a row and
// `stride` bytes from row to row, starting at `first`. `d` is the distance of
// the side neighbours, `v` of those two lines up and down. A sample is dead
// when it differs by at least `threshold` from s[d], s[-d], s[-v] and s[+v],
// tested in that order; when it is close to s[d] the next sample, which would
// fail on this very pair, is skipped. Stops when the pass's list is full.
void ScanPass(DeviceContext* context, uint32_t pass, const uint8_t* raw, size_t first,
              int64_t rows, int64_t samples, size_t step, size_t stride, size_t d, size_t v,
              uint32_t threshold) {
  uint32_t& count = context->DeadPixelCount[pass];
  uint32_t* list = context->DeadPixelOffsets[pass];
  for (int64_t r = 0; r < rows; ++r) {
    const size_t rowStart = first + stride * size_t(r);
    for (int64_t i = 0; i < samples; ++i) {
      const size_t at = rowStart + step * size_t(i);
      const uint8_t* s = raw + at;
      if (Difference(s[0], s[d]) < threshold) {
        ++i;  // the next sample would fail against this one
        continue;
      }
      if (Difference(s[0], s[-ptrdiff_t(d)]) < threshold) continue;
      if (Difference(s[0], s[-ptrdiff_t(v)]) < threshold) continue;
      if (Difference(s[0], s[v]) < threshold) continue;
      list[count] = uint32_t(at);
      if (++count >= DeadPixelMaxEntries) return;
    }
  }
}

// Replaces each listed sample by the mean of the samples two `width`s up and
// down and four bytes to the side, in list order (a repaired sample may feed
// the next). Entries that do not fit a frame of `frameBytes` (left by a frame
// of another size) are passed over.
void RepairListed(DeviceContext* context, uint8_t* raw, uint32_t width, size_t frameBytes) {
  if (!context->DeadPixelMapReady) return;
  const size_t up = size_t(width) * 2;
  for (uint32_t pass = 0; pass < DeadPixelPasses; ++pass) {
    uint32_t count = context->DeadPixelCount[pass];
    if (count > DeadPixelMaxEntries) count = DeadPixelMaxEntries;
    const uint32_t* list = context->DeadPixelOffsets[pass];
    for (uint32_t i = 0; i < count; ++i) {
      const size_t o = list[i];
      if (o < up || o < 4 || o + up >= frameBytes || o + 4 >= frameBytes) continue;
      const uint32_t sum = raw[o - up] + raw[o + up] + raw[o - 4] + raw[o + 4];
      raw[o] = uint8_t(sum / 4);
    }
  }
}

}  // namespace

// Bayer: passes 0 and 1 take the even columns of the upper and lower half,
// passes 2 and 3 the odd columns.
void ScanDeadPixelsBayer(DeviceContext* context, const uint8_t* raw, uint32_t width,
                         uint32_t height) {
  const uint32_t pass = BeginScanPass(context);
  const int64_t samples = int64_t(width / 2) - 2;
  const int64_t rows = int64_t(height / 2) - 2;
  const int64_t half = (int64_t(height) - 4) / 2;
  const int64_t firstRow = (pass == 1 || pass == 3) ? half + 2 : 2;
  const size_t firstColumn = pass < 2 ? 2 : 3;
  if (samples > 0 && rows > 0 && half >= 0) {
    ScanPass(context, pass, raw, size_t(firstRow) * width + firstColumn, rows, samples, 2, width,
             2, size_t(width) * 2, context->DeadPixelRGB24);
  }
  context->DeadPixelPass = pass + 1;
}

// YUYV: each pass takes one of the four bytes of the pixel pair (Y0, U, Y1,
// V) over the whole frame.
void ScanDeadPixelsYuyv(DeviceContext* context, const uint8_t* raw, uint32_t width,
                        uint32_t height) {
  const uint32_t pass = BeginScanPass(context);
  const int64_t samples = int64_t(width / 2) - 2;
  const int64_t rows = int64_t(height) - 4;
  const size_t line = size_t(width) * 2;
  if (samples > 0 && rows > 0) {
    ScanPass(context, pass, raw, 2 * line + 4 + pass, rows, samples, 4, line, 4, 2 * line,
             context->DeadPixelYUYV);
  }
  context->DeadPixelPass = pass + 1;
}

void RepairDeadPixelsBayer(DeviceContext* context, uint8_t* raw, uint32_t width, uint32_t height) {
  if (context->FrameCounter == 0 && context->DeadPixelRGB24 != 0) {
    ScanDeadPixelsBayer(context, raw, width, height);
    context->DeadPixelMapReady = 1;
  }
  RepairListed(context, raw, width, size_t(width) * height);
}

void RepairDeadPixelsYuyv(DeviceContext* context, uint8_t* raw, uint32_t width, uint32_t height) {
  if (context->FrameCounter == 0 && context->DeadPixelYUYV != 0) {
    ScanDeadPixelsYuyv(context, raw, width, height);
    context->DeadPixelMapReady = 1;
  }
  RepairListed(context, raw, width, size_t(width) * height * 2);
}
