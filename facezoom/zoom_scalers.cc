// Rational zoom scalers. For now the window is always the whole frame (see
// zoom_planning.cc), so there is nothing to scale back; the face-tracking work
// fills this in.

#include "facezoom/zoom.h"

void ScaleZoomWindow(uint32_t, uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t, const ZoomRect*,
                     const ZoomRect*) {}
