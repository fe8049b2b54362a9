// mr740cam info and mr740cam formats: what the driver makes of a camera.
//
//   mr740cam info    [--camera MODEL|FILE.reg|NNNN] [--usb-trace FILE]
//       the camera's model, the sensor the driver detected, the bus speed,
//       the still pin, and the offered formats, best first
//   mr740cam formats [--camera MODEL|FILE.reg|NNNN] [--usb-trace FILE]
//       the offered formats only, one a line: subtype, width x height, bits
//       a pixel, image size, frame intervals (100 ns units) and frame rates
//
// Both start the device (the driver's whole start-up runs, in virtual time)
// and uninitialise it. Exit status 0, 1 when the camera does not start, 2 on
// a usage error.
#pragma once

#include <cstdio>

bool IsCameraInfoToolCommand(const char* name);

// Runs "info" or "formats" (argv[1]). The tool's registry must be open.
int RunCameraInfoTool(int argc, char** argv, FILE* out, FILE* err);
