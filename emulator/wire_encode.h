// A colour picture as the sensor puts it on the wire. The scenes draw in RGB
// at wire size; these routines give the bytes of each wire layout:
//   - Bayer: one byte a pixel, B G on even lines and G R on odd ones, so blue
//     at the top-left (even line, even column) and red at odd line, odd
//     column;
//   - YUYV: Y0 Cb Y1 Cr per pixel pair, the chroma of a pair from the mean of
//     its two colours (rounded down); an odd last pixel of a line is Y Cb;
//   - 4:2:0: the Y plane, then the Cb and the Cr planes at half width and
//     height rounded up, the chroma of each 2 x 2 block from the mean of its
//     colours (rounded down; a block cut by the frame's edge repeats its last
//     column or line).
// Colours become YCbCr by BT.601 in studio range, in 1/256 fixed point:
//   Y  = 16  + (( 66 R + 129 G +  25 B + 128) >> 8)   0.257 * 256 = 65.8 -> 66,
//                                                     0.504 * 256 = 129.0, 0.098 * 256 = 25.1
//   Cb = 128 + ((-38 R -  74 G + 112 B + 128) >> 8)   0.148 * 256 = 37.9, 0.291 * 256 = 74.5,
//                                                     0.439 * 256 = 112.4
//   Cr = 128 + ((112 R -  94 G -  18 B + 128) >> 8)   0.368 * 256 = 94.2, 0.071 * 256 = 18.2
// (the right shift of a negative sum rounds towards minus infinity), clamped
// to 0..255. The coefficients of Cb and of Cr each add up to 0, so grey stays
// at 128 and an offset added to R, G and B alike moves only Y.
//
// Emulator code: runs with the camera's mutex held, inside Render.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "emulator/emulated_camera.h"

namespace emu {

uint8_t WireLuma(int r, int g, int b);
uint8_t WireCb(int r, int g, int b);
uint8_t WireCr(int r, int g, int b);

// `rgb` holds width x height pixels, three bytes each (R, G, B), lines
// without gaps. `wire` becomes WireFrameBytes(width, height, layout) bytes.
void EncodeWireFrame(const uint8_t* rgb, uint32_t width, uint32_t height, WireFrameLayout layout,
                     std::vector<uint8_t>* wire);

// The byte that carries pixel (x, y) itself: the Bayer sample, or the luma
// of a YUYV or 4:2:0 frame. SIZE_MAX for a pixel outside the frame.
size_t WirePixelOffset(uint32_t width, uint32_t height, WireFrameLayout layout, uint32_t x,
                       uint32_t y);

}  // namespace emu
