// The three companion image libraries as the driver calls them: the image
// signal processor (ISPFunc_), format conversion (FUNC_) and special effects
// (SPEF_). Each lives behind an opaque 64-bit handle; every call but the Init
// calls takes that handle first. `context` is the camera's DeviceContext,
// passed through untouched and handed back to the five callbacks.
//
// Picture layouts shared by all three:
//  - Bayer: one byte a pixel, rows without gaps, in the order B G / G R:
//    even rows B G B G ..., odd rows G R G R ... (blue at the top-left). The
//    emulated sensors send their raw frames in this order.
//  - YUYV (the host's YUY2): Y0 Cb Y1 Cr per pixel pair, stride 2 x width.
//  - RGB24: a bottom-up BGR bitmap, stride 3 x width (the last picture row
//    first), as a video stream's RGB24 frame is laid out.
//  - I420: the Y plane, then the Cb plane, then the Cr plane, the chroma
//    planes (width / 2) x (height / 2).
// Values follow BT.601 with studio range (Y 16..235, Cb/Cr 16..240).
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/host_contract.h"
#include "platform/kernel.h"

// ---------------------------------------------------------------- callbacks

// The library's way back to the sensor and the controller, handed over at
// ISPFunc_Init. They may block (they send vendor requests) and are called
// only from the library's start, stop and property calls, never from
// ISPFunc_RawToImg.
typedef uint8_t (*ReadByteRoutine)(void* context, uint8_t registerIndex);
typedef void (*WritePacketRoutine)(void* context, uint8_t* buffer, uint32_t length);
typedef NTSTATUS (*ExecuteSectionRoutine)(void* context, const char* sectionName);
typedef NTSTATUS (*WritePairsRoutine)(void* context, const uint8_t* pairs, uint32_t count);

// ---------------------------------------------------------------- USBMORA0: ISPFunc_

// The nine logical property values of one frame, in this order: Brightness,
// Contrast, Saturation, Sharpness, WhiteBalance, Hue, Gamma, BackLight,
// ColorEnable. Their meaning to the library:
//   Brightness    signed, -128..127, added to luma (0 neutral)
//   Contrast      0..255, luma gain Contrast/64 about mid grey (64 neutral; 0 = 64)
//   Saturation    0..255, chroma gain Saturation/64 (64 neutral; 0 = 64)
//   Sharpness     0..15, unsharp-mask strength (0 off)
//   WhiteBalance  colour temperature in kelvin, 2500..10000; 0 = automatic
//                 (grey world over the frame)
//   Hue           signed degrees, -180..180 (0 neutral)
//   Gamma         gamma x 100, 50..300; 0 or 100 = linear
//   BackLight     0..2, lifts the shadows (0 off)
//   ColorEnable   0 monochrome, non-zero colour
// Values out of range are clamped to the range.
constexpr uint32_t IspPropertyCount = 9;

NTSTATUS ISPFunc_Init(uint64_t* ispHandle, void* context, PDEVICE_OBJECT physicalDeviceObject,
                      const WCHAR* sensorName, uint8_t highSpeed, ReadByteRoutine readSensorByte,
                      WritePacketRoutine writeSensorPacket,
                      ExecuteSectionRoutine executeScriptSection,
                      ReadByteRoutine readControllerByte,
                      WritePairsRoutine writeControllerPairs);
NTSTATUS ISPFunc_Exit(uint64_t ispHandle, void* context, PDEVICE_OBJECT physicalDeviceObject);
// Gets ready for frames of width x height: learns the wire frame (its size and
// layout) from the controller and reports it in the two out values.
NTSTATUS ISPFunc_StartCapture(uint64_t ispHandle, void* context, uint32_t mode, uint32_t width,
                              uint32_t height, uint32_t* wireWidth, uint32_t* wireHeight);
NTSTATUS ISPFunc_StopCapture(uint64_t ispHandle, void* context);
NTSTATUS ISPFunc_StreamStateNotify(uint64_t ispHandle, void* context, uint32_t state);
// Develops one raw frame into a YUYV picture of width x height at
// `destination`, applying the nine values of `record`. Frame path: no
// allocation, no callback, no blocking.
NTSTATUS ISPFunc_RawToImg(uint64_t ispHandle, void* context, uint32_t mode,
                          const uint32_t* record, uint8_t* destination, const uint8_t* raw,
                          uint32_t width, uint32_t height);
// Mirrors (left to right) and flips (top to bottom) what RawToImg develops.
NTSTATUS ISPFunc_Rotate(uint64_t ispHandle, void* context, uint32_t mirror, uint32_t flip);
// Custom properties: the number of bytes handled, 0 when not supported.
uint32_t ISPFunc_prpmanf_GetCustomProperty(uint64_t ispHandle, void* context,
                                           STREAM_PROPERTY_DESCRIPTOR* descriptor);
uint32_t ISPFunc_prpmanf_SetCustomProperty(uint64_t ispHandle, void* context,
                                           STREAM_PROPERTY_DESCRIPTOR* descriptor);

// ---------------------------------------------------------------- USBMORA1: FUNC_

uint64_t FUNC_Init();
void FUNC_Exit(uint64_t funcHandle);
// Bayer of rawWidth x rawHeight to YUYV of width x height (any of the two
// larger, smaller or equal). `raw` and `destination` are different buffers.
void FUNC_RawToYuv(uint64_t funcHandle, const uint8_t* raw, uint32_t rawWidth, uint32_t rawHeight,
                   uint8_t* destination, uint32_t width, uint32_t height);
// YUYV to the stream's RGB24 frame (bottom-up BGR).
void FUNC_YuvToBmp(uint64_t funcHandle, const uint8_t* source, uint32_t width, uint32_t height,
                   uint8_t* destination);
// YUYV to I420.
void FUNC_YuvToI420(uint64_t funcHandle, const uint8_t* source, uint32_t width, uint32_t height,
                    uint8_t* destination);

// ---------------------------------------------------------------- USBMORA2: SPEF_

// The record behind the effects handle. The driver writes the first two words
// before every SPEF_StartCapture and SPEF_PropertySet; the five parameter
// words and the name slots are read by the vendor effect properties. Names
// are zero-terminated, in 14-byte slots counted from the record's start, so
// slot 0 and 1 are the seven head words; the name n (0 to 9) of effect `list`
// of `category` is in slot ((category x 64 + list) x 10 + n + 2). Every
// category and list a 16-bit selector can name has its slots.
constexpr uint32_t SpefNameSlotBytes = 14;
constexpr uint32_t SpefListsPerCategory = 64;
constexpr uint32_t SpefNamesPerEffect = 10;
constexpr uint32_t SpefNameSlotCount = (255 * SpefListsPerCategory + 255) * SpefNamesPerEffect +
                                       SpefNamesPerEffect;
struct SpefRecord {
  uint32_t Category;
  uint32_t List;
  uint32_t Parameters[5];
  char Names[SpefNameSlotCount][SpefNameSlotBytes];  // starts at slot 2, byte 28
};
static_assert(offsetof(SpefRecord, Names) == 2 * SpefNameSlotBytes,
              "effect names start after the seven head words");

// `folder`: "\??\" and the folder of the camera's files, without a closing
// backslash. Returns the handle, which is the address of the SpefRecord.
uint64_t SPEF_Init(const WCHAR* folder);
void SPEF_Exit(uint64_t spefHandle);
void SPEF_StartCapture(uint64_t spefHandle, uint32_t width, uint32_t height);
void SPEF_StopCapture(uint64_t spefHandle);
// Picks up the record's category and list words.
void SPEF_PropertySet(uint64_t spefHandle, uint32_t width, uint32_t height);
// Applies the current effect to a YUYV picture in place.
void SPEF_ConvertFrame(uint64_t spefHandle, uint8_t* picture, uint32_t width, uint32_t height);
