// The lens motor and autofocus: the sharpness measure on the frame path and
// the hill-climbing search on the worker thread.
#pragma once

#include <cstdint>

#include "core/device_context.h"

// Measures the sharpness of the centre of a YUYV picture into FocusSharpness.
// Frame path: no blocking, no allocation.
void MeasureFocus(DeviceContext* context, const uint8_t* picture, uint32_t width,
                  uint32_t height);
