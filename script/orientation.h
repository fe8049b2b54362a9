// Image orientation: mirror and flip brought about by the camera's script,
// after the page settings, the camera's fixed inversion and the orientation
// input of the controller.
#pragma once

#include "core/device_context.h"

// Brings the sensor to the wanted orientation. `atCaptureStart` is true at
// the worker's start step, `fromFramePath` on every frame. False when a script
// section failed.
BOOLEAN UpdateImageOrientation(DeviceContext* context, BOOLEAN atCaptureStart,
                               BOOLEAN fromFramePath);
