// Zoom window planning. For now every level shows the whole frame: the plan
// leaves the frame and the sizes as they are, which is what level 0 does, and
// the tracked level is not moved. The face-tracking work fills these in.

#include "core/device_context.h"
#include "facezoom/zoom.h"

void PlanZoomWindow(uint32_t, int32_t, int32_t, uint32_t, uint8_t*, uint32_t*, uint32_t*,
                    uint32_t*, uint32_t*, ZoomRect*, ZoomRect*) {}

void PlanZoomWindowRaw(uint32_t level, int32_t x, int32_t y, uint8_t* buffer,
                       uint32_t* sourceWidth, uint32_t* sourceHeight, uint32_t* outputWidth,
                       uint32_t* outputHeight, ZoomRect* cropRect, ZoomRect* viewRect) {
  PlanZoomWindow(level, x, y, 1, buffer, sourceWidth, sourceHeight, outputWidth, outputHeight,
                 cropRect, viewRect);
}

void PlanZoomWindowYuy2(uint32_t level, int32_t x, int32_t y, uint8_t* buffer,
                        uint32_t* sourceWidth, uint32_t* sourceHeight, uint32_t* outputWidth,
                        uint32_t* outputHeight, ZoomRect* cropRect, ZoomRect* viewRect) {
  PlanZoomWindow(level, x, y, 2, buffer, sourceWidth, sourceHeight, outputWidth, outputHeight,
                 cropRect, viewRect);
}

void UpdateZoomWindow(DeviceContext*, uint32_t, uint32_t, uint32_t, uint32_t) {}
