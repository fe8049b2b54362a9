// Inside the image signal processor library (USBMORA0, ISPFunc_): the state
// behind its handle, the colour and tone tables, and the row routines of the
// frame path. The driver sees only core/companions.h; this header is shared by
// the library's own files, its tests, its benchmark and its fuzz target.
//
// How a frame is developed (ISPFunc_RawToImg, frame path):
//  1. Statistics: channel means on a sparse grid of the raw frame; they feed
//     automatic white balance and the mean-luma property.
//  2. Tables: the colour matrix (white balance gains, RGB to BT.601 studio
//     YCbCr, saturation, hue and colour enable folded into one 3x3 integer
//     matrix) and the luma table (backlight, gamma, contrast, brightness) are
//     rebuilt only when a value they depend on changed.
//  3. Geometry: a Bayer frame of the output size goes through one fused row
//     routine (bilinear demosaic + matrix, portable, SSSE3 or AVX2); any other
//     frame is demosaiced (or unpacked from YUYV) a row at a time, resampled
//     horizontally and vertically (box average when shrinking, bilinear when
//     enlarging) and then put through the matrix.
//  4. Per row: luma table, mirror; flip chooses the destination row.
//  5. Unsharp mask on the finished luma when Sharpness is not 0.
#pragma once

#include <cstddef>
#include <cstdint>

#include "companions/handle_table.h"
#include "companions/isp_wire_registers.h"
#include "core/companions.h"
#include "platform/kernel.h"

// Pool tag of the library's state: "Isp0" as the little-endian word the pool
// keeps ('I' 0x49, 's' 0x73, 'p' 0x70, '0' 0x30).
constexpr ULONG IspPoolTag = 0x30707349;

// The output sizes the library develops.
constexpr uint32_t IspMaxWidth = 1600;
constexpr uint32_t IspMaxHeight = 1200;

// Version reported by custom property 32: major in the high half, minor in
// the low half (1.0).
constexpr uint32_t IspLibraryVersion = 0x00010000;

// Custom properties served by ISPFunc_prpmanf_*. Each carries one u32 at the
// start of the descriptor's data buffer (PropertyInfo, at least 4 bytes);
// the calls answer 4 for a served request and 0 for anything else.
constexpr uint32_t IspPropertyVersion = 32;       // get: IspLibraryVersion
constexpr uint32_t IspPropertyMeanLuma = 50;      // get: mean luma (16..235) of the last frame
constexpr uint32_t IspPropertyWhiteGains = 55;    // get: red gain | blue gain << 16, Q12
constexpr uint32_t IspPropertyAwbSmoothing = 57;  // get/set: 0..7, see IspState
constexpr uint32_t IspAwbSmoothingMax = 7;

// Index of each value in the nine-value record of ISPFunc_RawToImg.
enum IspPropertyIndex : uint32_t {
  IspBrightness = 0,
  IspContrast = 1,
  IspSaturation = 2,
  IspSharpness = 3,
  IspWhiteBalance = 4,
  IspHue = 5,
  IspGamma = 6,
  IspBackLight = 7,
  IspColorEnable = 8,
};

// Neutral values: a record of these develops a Bayer colour patch to its
// plain BT.601 value. The all-zero record the driver holds before its
// controls are loaded differs only in white balance (0 = automatic) and
// ColorEnable (0 = monochrome).
constexpr uint32_t IspNeutralContrast = 64;
constexpr uint32_t IspNeutralSaturation = 64;
constexpr uint32_t IspNeutralKelvin = 6500;
constexpr uint32_t IspNeutralGamma = 100;

// Q12 gains (4096 = 1.0) and the limits of automatic white balance.
constexpr int32_t IspUnityGain = 4096;
constexpr int32_t IspAutoGainMin = 1024;   // 0.25
constexpr int32_t IspAutoGainMax = 16384;  // 4.0

// ---------------------------------------------------------------- row routines

// What the row routines need to turn three channels into one YUYV row. For a
// Bayer source the channels are R, G, B (0..255); for a YUYV source Y, Cb, Cr.
//
// RGB rows (every Bayer source) work in 16-bit lanes, so that a vector holds
// twice as many pixels; Q12 coefficients, Q4 results:
//   Y  = clamp(min(65535, sum of (c x 256 x Y[i]) >> 16 + YBias16) >> 4, YMin, YMax)
//        per pixel (luma coefficients taken unsigned: never negative for RGB)
//   Cb = clamp(sat16(sat16(sat16(t0 + t1) + t2) + CbBias16) >> 4, 16, 240)
//        per pair, with t = (s x 64 x Cb[i] + 2^14) >> 15 the rounded
//        s x Cb[i] / 512, s the sum of the pair's two pixels; Cr alike
// (the high-half multiplies of the vector units). Chroma coefficients are
// kept within +-16383 (4.0) so that two terms never overflow 16 bits.
//
// YCbCr rows (a YUYV source, whose matrix may have negative luma terms)
// work in 32 bits:
//   Y  = clamp((Y[0] c0 + Y[1] c1 + Y[2] c2 + YBias) >> 12, YMin, YMax)        per pixel
//   Cb = clamp((Cb[0] s0 + Cb[1] s1 + Cb[2] s2 + CbBias) >> 13, 16, 240)       per pair
// The biases hold the output offset (16 or 128), the input offsets of a YUYV
// source and the rounding half.
struct IspRowCoefficients {
  int16_t Y[3];
  int16_t Cb[3];
  int16_t Cr[3];
  int32_t YBias;
  int32_t CbBias;
  int32_t CrBias;
  int16_t YBias16;
  int16_t CbBias16;
  int16_t CrBias16;
  uint8_t YMin;
  uint8_t YMax;
};

// Demosaic of a Bayer row (B G / G R), with m(a, b) = (a + b + 1) >> 1 (the
// vector units' byte mean): a green site takes the colour of its row from
// m(left, right) and the other colour from m(up, down); a colour site takes
// green from m(m(left, right), m(up, down)) and the opposite colour from the
// corners, m(m(up-left, up-right), m(down-left, down-right)). Neighbours
// outside the row are reflected (column -1 reads column 1).

// One row of a Bayer frame of the output size into YUYV: demosaic and RGB
// matrix, fused. `above` and `below` are the neighbouring rows (the caller
// reflects them at the frame's edges), `oddRow` is 1 for a G R row. `width`
// is even and at least 2.
typedef void (*IspBayerRowRoutine)(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                   uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                                   uint8_t* out);
// One whole Bayer row into three planes R, G, B (`width` at least 1).
typedef void (*IspDemosaicRowRoutine)(const uint8_t* above, const uint8_t* row,
                                      const uint8_t* below, uint32_t width, uint32_t oddRow,
                                      uint8_t* red, uint8_t* green, uint8_t* blue);
// Three planes R, G, B of `width` (even) pixels into one YUYV row.
typedef void (*IspPlanarRowRoutine)(const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                                    uint32_t width, const IspRowCoefficients* k, uint8_t* out);

// The portable forms: the reference the vector forms must match byte for
// byte.
void IspDevelopBayerRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                          uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                          uint8_t* out);
void IspDemosaicBayerRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                           uint32_t width, uint32_t oddRow, uint8_t* red, uint8_t* green,
                           uint8_t* blue);
void IspConvertRgbRow_C(const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                        uint32_t width, const IspRowCoefficients* k, uint8_t* out);
#if defined(__x86_64__) || defined(__i386__)
#define ISP_HAVE_X86_ROWS 1
void IspDevelopBayerRow_SSSE3(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                              uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                              uint8_t* out);
void IspDemosaicBayerRow_SSSE3(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                               uint32_t width, uint32_t oddRow, uint8_t* red, uint8_t* green,
                               uint8_t* blue);
void IspConvertRgbRow_SSSE3(const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                            uint32_t width, const IspRowCoefficients* k, uint8_t* out);
void IspDevelopBayerRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                             uint32_t width, uint32_t oddRow, const IspRowCoefficients* k,
                             uint8_t* out);
void IspDemosaicBayerRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                              uint32_t width, uint32_t oddRow, uint8_t* red, uint8_t* green,
                              uint8_t* blue);
void IspConvertRgbRow_AVX2(const uint8_t* red, const uint8_t* green, const uint8_t* blue,
                           uint32_t width, const IspRowCoefficients* k, uint8_t* out);
bool IspCpuHasSsse3();
bool IspCpuHasAvx2();
#endif

// Whether an RGB row with these coefficients can leave the luma clamp or
// 16..240 (the fused 16-bit formula at its extremes). When it cannot, the
// vector forms leave the final clamp out, which changes no byte.
bool IspRgbRowNeedsClamp(const IspRowCoefficients* k);

// One set of row routines, chosen once at ISPFunc_Init (not per row).
struct IspRowRoutines {
  IspBayerRowRoutine DevelopBayerRow;
  IspDemosaicRowRoutine DemosaicRow;
  IspPlanarRowRoutine ConvertRgbRow;
};
// The portable set, and the fastest set this processor runs.
void IspPortableRowRoutines(IspRowRoutines* routines);
void IspSelectRowRoutines(IspRowRoutines* routines);

// Three planes Y, Cb, Cr of `width` (even) pixels into one YUYV row (YUYV
// sources; portable only).
void IspConvertYccRow(const uint8_t* y, const uint8_t* cb, const uint8_t* cr, uint32_t width,
                      const IspRowCoefficients* k, uint8_t* out);

// Columns first .. first + count - 1 of a row, reflected at both ends as the
// demosaic reflects them (column -1 reads 1, column width reads width - 2;
// columns further out read the nearest end): lets the vector forms run their
// edge steps on a padded copy.
void IspPadColumns(const uint8_t* row, uint32_t width, int32_t first, uint32_t count,
                   uint8_t* padded);

// ---------------------------------------------------------------- tables

// Property values after clamping to their ranges (core/companions.h), with
// the "0 means neutral" readings of Contrast, Saturation and Gamma resolved.
struct IspSettings {
  int32_t Brightness;   // -128..127
  int32_t Contrast;     // 1..255, 64 neutral
  int32_t Saturation;   // 1..255, 64 neutral
  int32_t Sharpness;    // 0..15
  int32_t Kelvin;       // 0 automatic, else 2500..10000
  int32_t Hue;          // -180..180
  int32_t Gamma;        // 50..300, 100 linear
  int32_t BackLight;    // 0..2
  int32_t ColorEnable;  // 0 or 1
};
// `record` may be null: it then reads as all zero.
void IspClampSettings(const uint32_t* record, IspSettings* settings);

// sin(degrees) in Q14 for any whole number of degrees.
int32_t IspSinQ14(int32_t degrees);
int32_t IspCosQ14(int32_t degrees);
// Red and blue gains (Q12, green 1.0) that make a grey under a light of the
// given colour temperature come out grey; 6500 K gives 1.0 and 1.0.
void IspKelvinToGains(int32_t kelvin, int32_t* redGain, int32_t* blueGain);
// 255 * (t / 255)^(100 / gamma) for t = 0..255, rounded; integer only.
void IspBuildGammaCurve(int32_t gamma, uint8_t curve[256]);
// The luma table: backlight, gamma, contrast and brightness, ending in the
// studio range clamp. Returns true when the table is that clamp alone.
bool IspBuildLumaTable(const IspSettings* settings, const uint8_t gammaCurve[256],
                       uint8_t table[256]);
// The colour matrix for a source layout, white balance gains and the chroma
// settings (saturation, hue, colour enable).
void IspBuildRowCoefficients(uint8_t layout, int32_t redGain, int32_t blueGain,
                             const IspSettings* settings, IspRowCoefficients* k);

// Channel sums over a sparse grid of the raw frame (every 32nd row, every
// 8th column). Bayer: Sum = R, G, B over `Samples` quads, green counted
// twice a quad. YUYV: Sum = Y (two a pair), Cb, Cr over `Samples` pairs.
struct IspFrameStatistics {
  uint64_t Sum[3];
  uint64_t Samples;
};
void IspMeasureFrame(const uint8_t* raw, uint32_t wireWidth, uint32_t wireHeight, uint8_t layout,
                     IspFrameStatistics* statistics);
// Grey-world gains (Q12, clamped to IspAutoGainMin..IspAutoGainMax; 1.0 for
// a frame too dark to judge, mean green below 8) and the frame's mean studio
// luma.
void IspGreyWorldGains(const IspFrameStatistics* statistics, uint8_t layout, int32_t* redGain,
                       int32_t* blueGain, uint32_t* meanLuma);

// ---------------------------------------------------------------- state

// Resampling taps of one axis: output position i takes Count[i] source
// positions from First[i] on, weighted by Weight[Offset[i] ...] (Q12, summing
// to 4096).
constexpr uint32_t IspMaxTapWeights = 3 * IspMaxWidth;
struct IspAxisTaps {
  uint32_t SourceSize;  // the key the table was built for; 0 = not built
  uint32_t OutputSize;
  uint32_t MaxCount;  // the most taps of any output position
  // When MaxCount is 1 or 2 (enlarging, or shrinking by less than 2): the
  // same taps as two fixed ones, First and Second (Second = First with
  // weight 0 where there is one tap), for a loop without a count.
  uint16_t Second[IspMaxWidth];
  uint16_t FirstWeight[IspMaxWidth];
  uint16_t SecondWeight[IspMaxWidth];
  uint16_t First[IspMaxWidth];
  uint16_t Count[IspMaxWidth];
  uint32_t Offset[IspMaxWidth];
  uint16_t Weight[IspMaxTapWeights];
};
// Builds the taps for `sourceSize` -> `outputSize` (both 1..IspMaxWidth).
void IspBuildAxisTaps(uint32_t sourceSize, uint32_t outputSize, IspAxisTaps* taps);

// Horizontally resampled source rows kept while the vertical filter walks
// down the frame: Q4 values (value x 16), three planes of the output width.
constexpr uint32_t IspRowCacheSlots = 4;

// Packed wire geometry word: width in bits 0..15, height 16..31, layout
// 32..39, bit 63 set when the controller's registers were read.
constexpr uint64_t IspGeometryValid = 1ull << 63;
// Orientation word: bit 0 mirror, bit 1 flip.
constexpr uint32_t IspOrientationMirror = 1;
constexpr uint32_t IspOrientationFlip = 2;

// Signature at the head of a live state, cleared by ISPFunc_Exit.
constexpr uint32_t IspStateSignature = 0x50534955;  // "UISP"

// Everything behind the handle. Allocated once by ISPFunc_Init, so the frame
// path never allocates: every buffer is sized for the largest frame.
//
// Threads: the words marked "shared" are read and written with atomic
// loads and stores, since the worker (start, stop), the property path
// (prpmanf, stream state) and the frame path touch them at the same time.
// Everything under "frame path" belongs to ISPFunc_RawToImg alone.
struct IspState {
  uint32_t Signature;
  // Set once by ISPFunc_Init.
  WCHAR SensorName[17];
  uint8_t HighSpeed;
  ReadByteRoutine ReadSensorByte;
  WritePacketRoutine WriteSensorPacket;
  ExecuteSectionRoutine ExecuteScriptSection;
  ReadByteRoutine ReadControllerByte;
  WritePairsRoutine WriteControllerPairs;

  // Shared.
  uint64_t WireGeometry;  // packed, see IspGeometryValid; 0 = not known
  uint32_t CaptureWidth;  // the output size given to StartCapture
  uint32_t CaptureHeight;
  uint32_t Orientation;  // IspOrientationMirror | IspOrientationFlip
  uint32_t StreamState;  // last KS state notified, 0..3
  // Automatic white balance follows the frame's grey-world gains at once
  // (0) or moves 1/2^n of the way each frame (n = 1..7), which steadies it
  // on a moving scene.
  uint32_t AwbSmoothing;
  uint32_t AwbRestart;  // 1: forget the smoothed gains at the next frame
  uint32_t MeanLuma;    // statistics of the last developed frame
  uint32_t WhiteGains;  // red | blue << 16, Q12, in force at the last frame

  // Frame path.
  IspRowRoutines Rows;
  int32_t AwbRedGain;  // smoothed automatic gains, Q12; 0 = none yet
  int32_t AwbBlueGain;
  bool SettingsValid;
  IspSettings Settings;  // the values the tables below were built for
  int32_t MatrixLayout;  // source layout, gains and chroma of `Coefficients`
  int32_t MatrixRedGain;
  int32_t MatrixBlueGain;
  IspRowCoefficients Coefficients;
  int32_t GammaCurveValue;  // the gamma `GammaCurve` was built for; 0 = none
  uint8_t GammaCurve[256];
  bool LumaIsClamp;  // the luma table is the studio clamp alone
  uint8_t LumaTable[256];
  IspAxisTaps TapsX;
  IspAxisTaps TapsY;
  int32_t CachedRow[IspRowCacheSlots];  // source row held by each slot, -1 none
  uint32_t NextSlot;
  uint16_t RowCache[IspRowCacheSlots][3][IspMaxWidth];
  uint8_t SourcePlanes[3][IspMaxWidth];  // one demosaiced / unpacked wire row
  uint8_t OutputPlanes[3][IspMaxWidth];  // one resampled output row
  uint32_t Accumulator[3][IspMaxWidth];
  uint8_t SharpenRows[3][IspMaxWidth];       // original luma above, at and below the row
  uint16_t SharpenColumns[IspMaxWidth + 2];  // vertical (1 2 1) sums, edges repeated
};

// The handles ISPFunc_Init gave out and ISPFunc_Exit has not taken back.
extern CompanionHandleTable IspLiveHandles;
// The state behind a live handle, or null for any other value.
IspState* IspStateOf(uint64_t handle);

// The shared words of the state are read and written whole, without a lock.
inline uint32_t IspLoadShared(const uint32_t* cell) {
  return __atomic_load_n(cell, __ATOMIC_RELAXED);
}
inline uint64_t IspLoadShared(const uint64_t* cell) {
  return __atomic_load_n(cell, __ATOMIC_RELAXED);
}
inline void IspStoreShared(uint32_t* cell, uint32_t value) {
  __atomic_store_n(cell, value, __ATOMIC_RELAXED);
}
inline void IspStoreShared(uint64_t* cell, uint64_t value) {
  __atomic_store_n(cell, value, __ATOMIC_RELAXED);
}

// Reads the wire frame back from the state: the controller's registers as
// learnt at capture start, or the output size in Bayer when none are known.
void IspGetWireGeometry(IspState* state, uint32_t width, uint32_t height, uint32_t* wireWidth,
                        uint32_t* wireHeight, uint8_t* layout);
