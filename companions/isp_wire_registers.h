// The frame-window registers of the MR740 controller (bus address 0) that
// tell the image processor what the bridge sends on the wire. The camera's
// script programs them for each mode, since the bridge itself must know the
// frame to packetise it; the image library reads them back at capture start
// through ReadControllerByte, and the emulated controller keeps them.
#pragma once

#include <cstdint>

// Width and height of the wire frame in pixels, 16 bits each, low byte first.
constexpr uint8_t IspWireWidthLowRegister = 0x20;
constexpr uint8_t IspWireWidthHighRegister = 0x21;
constexpr uint8_t IspWireHeightLowRegister = 0x22;
constexpr uint8_t IspWireHeightHighRegister = 0x23;
// Layout of the wire frame: one of the IspWireLayout values below.
constexpr uint8_t IspWireLayoutRegister = 0x24;

// Bayer: one byte a pixel, B G / G R with blue at the top-left.
constexpr uint8_t IspWireLayoutBayer = 0;
// YUYV: Y0 Cb Y1 Cr per pixel pair.
constexpr uint8_t IspWireLayoutYuyv = 1;

// The largest wire frame the library develops; a larger one read from the
// registers is not trusted (the output size in Bayer is taken instead).
constexpr uint32_t IspWireMaxWidth = 1600;
constexpr uint32_t IspWireMaxHeight = 1200;
