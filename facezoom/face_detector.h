// The skin-blob face detector: finds the largest face-shaped patch of skin
// colour in the picture and keeps one box around it.
#pragma once

#include <cstdint>

// A box in the order Left, Right, Top, Bottom (the horizontal limits first).
// Its area is (Right - Left) x (Bottom - Top), without adding 1.
struct FaceBox {
  int32_t Left;
  int32_t Right;
  int32_t Top;
  int32_t Bottom;
};

// The detector's fixed grid.
constexpr uint32_t FaceGridColumns = 160;
constexpr uint32_t FaceGridRows = 120;

struct DeviceContext;

// Looks for the face in one YUY2 picture (row stride 2 x width) and keeps its
// box in FaceRect. Only reads the picture.
void TrackFace(DeviceContext* context, const uint8_t* frame, uint32_t width, uint32_t height);
