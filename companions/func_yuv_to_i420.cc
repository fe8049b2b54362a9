// FUNC_YuvToI420: a YUYV picture to I420, the Y plane (width x height), then
// Cb, then Cr ((width / 2) x (height / 2) each). A chroma sample is the mean
// of the two rows' samples of its pair, rounded down ((a + b) >> 1). With an
// odd width the last column has no chroma sample of its own, with an odd
// height the last row; both keep their Y.
//
// Frame path: no allocation, no blocking.

#include "companions/func_rows.h"
#include "core/companions.h"

void YuyvToI420Row_C(const uint8_t* srcA, const uint8_t* srcB, uint8_t* dstYA, uint8_t* dstYB,
                     uint8_t* dstU, uint8_t* dstV, int width) {
  int x = 0;
  for (; x + 1 < width; x += 2) {
    const uint8_t* a = srcA + 2 * x;
    const uint8_t* b = srcB + 2 * x;
    dstYA[x] = a[0];
    dstYA[x + 1] = a[2];
    dstYB[x] = b[0];
    dstYB[x + 1] = b[2];
    dstU[x / 2] = static_cast<uint8_t>((a[1] + b[1]) >> 1);
    dstV[x / 2] = static_cast<uint8_t>((a[3] + b[3]) >> 1);
  }
  if (x < width) {
    dstYA[x] = srcA[2 * x];
    dstYB[x] = srcB[2 * x];
  }
}

void YuyvToYRow_C(const uint8_t* srcYuyv, uint8_t* dstY, int width) {
  for (int x = 0; x < width; ++x) dstY[x] = srcYuyv[2 * x];
}

void FUNC_YuvToI420(uint64_t funcHandle, const uint8_t* source, uint32_t width, uint32_t height,
                    uint8_t* destination) {
  if (source == nullptr || destination == nullptr || !FuncPictureSizeValid(width, height)) return;
  FuncYuyvToI420Row row = FuncRowsOf(funcHandle)->YuyvToI420Row;
  size_t srcStride = 2 * static_cast<size_t>(width), yStride = width, cStride = width / 2;
  uint8_t* planeY = destination;
  uint8_t* planeU = planeY + yStride * height;
  uint8_t* planeV = planeU + cStride * (height / 2);
  uint32_t y = 0;
  for (; y + 1 < height; y += 2) {
    row(source + srcStride * y, source + srcStride * (y + 1), planeY + yStride * y,
        planeY + yStride * (y + 1), planeU + cStride * (y / 2), planeV + cStride * (y / 2),
        static_cast<int>(width));
  }
  if (y < height)
    YuyvToYRow_C(source + srcStride * y, planeY + yStride * y, static_cast<int>(width));
}
