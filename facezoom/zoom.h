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
