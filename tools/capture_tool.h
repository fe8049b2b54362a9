// mr740cam capture: pictures and videos from an emulated camera, run by the
// driver through the capture host, in virtual time.
//
//   mr740cam capture [--out FILE] [--camera MODEL|FILE.reg|NNNN]
//                    [--format RGB24|YUY2|I420] [--size WxH]
//                    [--frames N | --seconds S] [--still] [--scene TEXT]
//                    [--usb-trace FILE]
//
// FILE ending in ".png" (the default, capture.png) gets one picture: the last
// of the frames captured (one unless --frames or --seconds says more), or
// with --still the picture of the still pin, taken by a software trigger, or
// where the driver refuses that, by a press of the camera's button.
// FILE ending in ".y4m" gets a YUV4MPEG2 video of --frames N frames, or of
// --seconds S at the format's frame rate (one second when neither is given).
// The format is the camera's first offered one unless --format or --size
// picks another of those it offers.
//
// Exit status: 0 written, 1 the camera or a file failed, 2 a usage error
// (also a format the camera does not offer).
#pragma once

#include <cstdio>

bool IsCaptureToolCommand(const char* name);

// Runs "capture" (argv[1]) with its options. The tool's registry must be
// open (OpenToolRegistry). Reports go to `out`, errors and progress to `err`.
int RunCaptureTool(int argc, char** argv, FILE* out, FILE* err);
