// Digital zoom: window planning after a zoom level and the tracked face, and
// the rational scalers that fill the output with the window.
#pragma once

#include <cstdint>

// A window in the order Left, Top, Right, Bottom, Right and Bottom one past
// the last pixel. (FaceBox has another order.)
struct ZoomRect {
  int32_t Left;
  int32_t Top;
  int32_t Right;
  int32_t Bottom;
};

struct DeviceContext;

// Plans the zoom window of `level` (fortieths of the frame taken away) at
// (`x`, `y`) in output pixels, both -1 for a centred window; cuts the window
// out of `buffer` in place and returns the new sizes. At level 0 nothing
// changes and the rectangles are not written.
void PlanZoomWindow(uint32_t level, int32_t x, int32_t y, uint32_t bytesPerSample,
                    uint8_t* buffer, uint32_t* sourceWidth, uint32_t* sourceHeight,
                    uint32_t* outputWidth, uint32_t* outputHeight, ZoomRect* cropRect,
                    ZoomRect* viewRect);
// The same for a raw frame of one byte a pixel, and for a YUY2 frame.
void PlanZoomWindowRaw(uint32_t level, int32_t x, int32_t y, uint8_t* buffer,
                       uint32_t* sourceWidth, uint32_t* sourceHeight, uint32_t* outputWidth,
                       uint32_t* outputHeight, ZoomRect* cropRect, ZoomRect* viewRect);
void PlanZoomWindowYuy2(uint32_t level, int32_t x, int32_t y, uint8_t* buffer,
                        uint32_t* sourceWidth, uint32_t* sourceHeight, uint32_t* outputWidth,
                        uint32_t* outputHeight, ZoomRect* cropRect, ZoomRect* viewRect);
// After a tracked frame: one step of level and position towards the face.
void UpdateZoomWindow(DeviceContext* context, uint32_t frameWidth, uint32_t frameHeight,
                      uint32_t cropWidth, uint32_t cropHeight);
// Brings the converted window (`cropWidth` x `cropHeight`) back to frame size,
// in place. At level 0 it returns at once.
void ScaleZoomWindow(uint32_t level, uint8_t* buffer, uint32_t cropWidth, uint32_t cropHeight,
                     uint32_t frameWidth, uint32_t frameHeight, const ZoomRect* cropRect,
                     const ZoomRect* viewRect);
