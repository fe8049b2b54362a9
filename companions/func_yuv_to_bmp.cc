// FUNC_YuvToBmp: a YUYV picture to the stream's RGB24 frame, a bottom-up BGR
// bitmap (picture row y lands in bitmap row height - 1 - y). Each pixel takes
// the Cb and Cr of its pair as they are (no chroma interpolation); the last
// pixel of an odd width has only a Cb and takes Cr as 128.
//
// Frame path: no allocation, no blocking.

#include "companions/func_rows.h"
#include "core/companions.h"

void YuyvToBgr24Row_C(const uint8_t* srcYuyv, uint8_t* dstBgr, int width) {
  int x = 0;
  for (; x + 1 < width; x += 2) {
    const uint8_t* s = srcYuyv + 2 * x;
    FuncYuvToBgr(s[0], s[1], s[3], dstBgr + 3 * x);
    FuncYuvToBgr(s[2], s[1], s[3], dstBgr + 3 * x + 3);
  }
  if (x < width) FuncYuvToBgr(srcYuyv[2 * x], srcYuyv[2 * x + 1], 128, dstBgr + 3 * x);
}

void FUNC_YuvToBmp(uint64_t funcHandle, const uint8_t* source, uint32_t width, uint32_t height,
                   uint8_t* destination) {
  if (source == nullptr || destination == nullptr || !FuncPictureSizeValid(width, height)) return;
  FuncYuyvToBgrRow row = FuncRowsOf(funcHandle)->YuyvToBgrRow;
  size_t srcStride = 2 * static_cast<size_t>(width), dstStride = 3 * static_cast<size_t>(width);
  for (uint32_t y = 0; y < height; ++y) {
    row(source + srcStride * y, destination + dstStride * (height - 1 - y),
        static_cast<int>(width));
  }
}
