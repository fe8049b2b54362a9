// Sensor detection and start-up configuration: the USB speed, which of the
// candidate sensors of the camera's description is fitted, the image
// libraries for it, and the list of formats the pins offer. All run once, in
// CamInitialize, before the worker and monitor threads exist.
#pragma once

#include "core/device_context.h"

// IsFullSpeed from controller register 4. With ForceHighSpeed set on a
// full-speed device: restarts the controller and returns
// STATUS_INSUFFICIENT_RESOURCES.
NTSTATUS CheckBusSpeed(DeviceContext* context);

// Puts the controller into its probing state and tries the candidates under
// SensorDetect in index order, four attempts each; the first match sets
// SensorName, SensorI2CAddr, RegisterAddrLo (and ReadDelay). 0 also when no
// candidate is listed; STATUS_INSUFFICIENT_RESOURCES when none answers;
// STATUS_DEVICE_NOT_CONNECTED when the device has gone.
NTSTATUS DetectSensor(DeviceContext* context);

// WorkBuffer, ISPFunc_Init, SPEF_Init, IspType, BlankFrameActive.
// STATUS_INSUFFICIENT_RESOURCES when WorkBuffer cannot be had.
NTSTATUS StartImageLibraries(DeviceContext* context);

// Ranks the catalogue's rows by their Enabled values in the camera's
// description and fills FormatList and FormatCount, best first.
void BuildFormatList(DeviceContext* context);
