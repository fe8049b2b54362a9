// The frame pipeline: from USB packets to the finished picture.
//
// Packet path (host's USB completion path, every packet): places the payload,
// finds the frame's end, reads the camera's button and tests the frame's
// length. Never copies or reads payload bytes, never blocks or allocates.
//
// Frame path (host's frame thread, every finished raw frame): develops the raw
// frame into one YUYV picture in WorkBuffer (or straight into the output),
// applies the effect, converts to the stream's format, blanks dark frames and
// runs the frame-rate meter. Never fails towards the host, never allocates.
#pragma once

#include <cstdint>

#include "core/device_context.h"
#include "core/host_contract.h"

// ---------------------------------------------------------------- packets

// Packets counted through the blank phase after a stream open; the host is
// told a frame is complete at the one after them.
constexpr uint32_t BlankPhasePackets = 500;

// Packet header of the streaming pipe.
constexpr uint8_t PacketFlagLastOfFrame = 0x02;
constexpr uint8_t PacketFlagButtonDown = 0x20;

uint32_t CamProcessUSBPacketEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                               void* currentFrameContext, USBD_ISO_PACKET_DESCRIPTOR* syncPacket,
                               void* syncBuffer, USBD_ISO_PACKET_DESCRIPTOR* dataPacket,
                               void* dataBuffer, BOOLEAN* frameComplete, uint32_t* packetFlag,
                               uint32_t* validDataOffset);
uint32_t CamProcessUSBPacket(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                             void* currentFrameContext, USBD_ISO_PACKET_DESCRIPTOR* syncPacket,
                             void* syncBuffer, USBD_ISO_PACKET_DESCRIPTOR* dataPacket,
                             void* dataBuffer, BOOLEAN* frameComplete, BOOLEAN* nextFrameIsStill);

// True when `frameBytes` is a length the current mode's sensor sends: the
// frame-end length test.
bool IsFrameLengthAccepted(const DeviceContext* context, uint32_t frameBytes);

// ---------------------------------------------------------------- frames

// Frames in one cycle of FrameCounter: the dead-pixel scan and the dark-frame
// measurement restart with each.
constexpr uint32_t FrameCycleLength = 24;

// The two bytes of the blank picture: near black in YUYV terms.
constexpr uint8_t BlankPatternLuma = 7;
constexpr uint8_t BlankPatternChroma = 128;

NTSTATUS CamProcessRawVideoFrameEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                   void* frameContext, void* frameBuffer, uint32_t frameLength,
                                   void* rawFrameBuffer, uint32_t rawFrameLength,
                                   uint32_t numberOfPackets, uint32_t* bytesReturned,
                                   uint32_t actualRawFrameLength, uint32_t streamNumber);
NTSTATUS ProcessRawFrame(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                         void* frameContext, void* frameBuffer, uint32_t frameLength,
                         void* rawFrameBuffer, uint32_t rawFrameLength, uint32_t numberOfPackets,
                         uint32_t* bytesReturned);
void DevelopFrame(DeviceContext* context, uint8_t* output, uint8_t* raw);

// The wire size the current ScaleMode gives for the output size.
void GetWireSize(const DeviceContext* context, uint32_t* wireWidth, uint32_t* wireHeight);

// Frame-rate meter: one sample of the frame interval, and FrameRateNumber in
// engineer mode. ResetFrameRateMeter runs at capture start and stop.
void UpdateFrameRateMeter(DeviceContext* context);
void ResetFrameRateMeter(DeviceContext* context);

// ---------------------------------------------------------------- the driver's own route

// Turns a raw frame of the wire size into a YUYV picture of the output size.
void ConvertRawToPicture(DeviceContext* context, uint8_t* destination, uint8_t* raw,
                         uint32_t outputWidth, uint32_t outputHeight, uint32_t wireWidth,
                         uint32_t wireHeight);
// Shrinks a 1280-wide YUYV picture to 1024 wide; source and destination may
// be the same buffer.
void Resample1280To1024(const uint8_t* source, uint8_t* destination, uint32_t sourceWidth,
                        uint32_t sourceHeight, uint32_t width, uint32_t height);

// The four routes of the own route, by wire layout and face tracking. They
// take the arguments of ConvertRawToPicture.
void RoutePlainBayer(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                     uint32_t height, uint32_t wireWidth, uint32_t wireHeight);
void RouteTrackedBayer(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                       uint32_t height, uint32_t wireWidth, uint32_t wireHeight);
void RoutePlainYuyv(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                    uint32_t height, uint32_t wireWidth, uint32_t wireHeight);
void RouteTrackedYuyv(DeviceContext* context, uint8_t* picture, uint8_t* source, uint32_t width,
                      uint32_t height, uint32_t wireWidth, uint32_t wireHeight);

// A YUYV picture `sourceWidth` wide to `width` x `height`: one of the four
// resamplers below picked by the widths' ratio, else a plain copy.
void ResampleYuyv(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height,
                  uint32_t sourceWidth);
void ResampleWirePicture(const uint8_t* source, uint32_t sourceWidth, uint32_t sourceHeight,
                         uint8_t* destination, uint32_t width, uint32_t height);

// Bytes of a raw frame that the own route reads for this mode: the wire frame
// of a Bayer or YUYV wire (the fixed 1280 x 960 frame at output width 1024),
// nothing for other wires.
uint32_t OwnRouteRawBytes(const DeviceContext* context);

// ---------------------------------------------------------------- geometry resamplers
//
// YUY2 pictures; `width` and `height` are those of the output, and source and
// destination are different buffers. Each output byte is a weighted mean of
// source bytes rounded down once, at the end.

// Box filter over 2 x 2 pixels: the source is 2 x width by 2 x height.
void ShrinkYuy2By2(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height);
// Box filter over 4 x 4 pixels: the source is 4 x width by 4 x height.
void ShrinkYuy2By4(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height);
// Linear interpolation at half steps: the source is width / 2 by height / 2.
void GrowYuy2By2(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height);
// Linear interpolation at quarter steps: the source is width / 4 by height / 4.
void GrowYuy2By4(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height);

// ---------------------------------------------------------------- picture cleaning

// Dead samples: on the first frame of each 24-frame cycle (with the form's
// threshold set) one scan pass, then on every frame the repair of every listed
// sample. `width` and `height` are the wire size.
void RepairDeadPixelsBayer(DeviceContext* context, uint8_t* raw, uint32_t width, uint32_t height);
void RepairDeadPixelsYuyv(DeviceContext* context, uint8_t* raw, uint32_t width, uint32_t height);
// One scan pass each: DeadPixelPass says which quarter of the frame.
void ScanDeadPixelsBayer(DeviceContext* context, const uint8_t* raw, uint32_t width,
                         uint32_t height);
void ScanDeadPixelsYuyv(DeviceContext* context, const uint8_t* raw, uint32_t width,
                        uint32_t height);
void BlankDarkFrameRgb(DeviceContext* context, uint8_t* picture, uint32_t width, uint32_t height);
void BlankDarkFrameYuyv(DeviceContext* context, uint8_t* picture, uint32_t width, uint32_t height);
