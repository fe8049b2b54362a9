// Raw frame processing: a finished raw frame becomes the picture the host
// hands to the application.
//
// Context: host's frame thread, once per finished raw frame. Takes no lock and
// allocates nothing; the guards on the worker's wake event are the only
// synchronisation with a reprogramming worker. Cannot fail towards the host:
// the frame's fate is told by the byte count.

#include <cstring>

#include "core/capture_lifecycle.h"
#include "core/companions.h"
#include "lens/lens_focus.h"
#include "pipeline/frame_pipeline.h"
#include "platform/registry.h"
#include "script/orientation.h"
#include "settings/registry_store.h"

namespace {

constexpr uint32_t MaxPicturePixels = 1600 * 1200;

// Bytes of the picture the stream delivers, or 0 for a format without
// conversion.
uint32_t OutputPictureBytes(const DeviceContext* context) {
  const uint32_t pixels = context->ImageWidth * context->ImageHeight;
  switch (context->CurrentCompression) {
    case CompressionRGB24:
      return pixels * 3;
    case CompressionYUY2:
      return pixels * 2;
    case CompressionI420:
      return pixels + pixels / 2;
    default:
      return 0;
  }
}

// Whether the buffers can hold this frame's pictures. The host sizes its
// buffers from the format it opened the stream with, so this fails only when
// host and driver disagree; the frame is then not developed rather than
// written past a buffer.
bool PictureFitsBuffers(const DeviceContext* context, uint32_t frameLength) {
  if (!context->WorkBuffer) return false;
  const uint64_t pixels = uint64_t(context->ImageWidth) * context->ImageHeight;
  if (pixels == 0 || pixels > MaxPicturePixels) return false;
  return OutputPictureBytes(context) <= frameLength;
}

// Whether the raw frame buffer holds what the driver's own route reads: the
// wire frame of the mode (the fixed 1280 x 960 frame at width 1024). The host
// sizes its raw buffer from the mode's frame size, so this fails only for a
// mode whose wire frame is larger than its own frame size says (width 1024
// with a scale mode that gives fewer than 1280 x 960 pixels); the frame is then
// not developed rather than read past the buffer. The image processor route
// reads what the library asks for and is not tested here.
bool RawFrameFitsBuffer(const DeviceContext* context, uint32_t rawFrameLength) {
  if (RawPipelineKind(context) == 1) return true;
  return OwnRouteRawBytes(context) <= rawFrameLength;
}

void PaintBlankFrame(uint8_t* output, uint32_t length) {
  for (uint32_t i = 0; i + 1 < length; i += 2) {
    output[i] = BlankPatternLuma;
    output[i + 1] = BlankPatternChroma;
  }
  if (length & 1) output[length - 1] = BlankPatternLuma;
}

// The nine control values in the order the image library takes them.
void BuildPropertyRecord(const DeviceContext* context, uint32_t record[IspPropertyCount]) {
  const PropertyRecordSet& p = context->PropertyRecords;
  record[0] = p.Brightness.Value;
  record[1] = p.Contrast.Value;
  record[2] = p.Saturation.Value;
  record[3] = p.Sharpness.Value;
  record[4] = p.WhiteBalance.Value;
  record[5] = p.Hue.Value;
  record[6] = p.Gamma.Value;
  record[7] = p.BackLight.Value;
  record[8] = p.ColorEnable.Value;
}

// The image processor route: repair the raw frame by its wire layout, then let
// the library develop it.
void DevelopWithImageProcessor(DeviceContext* context, uint8_t* output, uint8_t* raw,
                               uint32_t wireWidth, uint32_t wireHeight) {
  const uint8_t wireFormat = WireFormat(context);
  const uint32_t compression = context->CurrentCompression;
  if (wireFormat == 1 || (wireFormat == 0 && compression == CompressionRGB24)) {
    RepairDeadPixelsBayer(context, raw, wireWidth, wireHeight);
  } else if (wireFormat == 2 || (wireFormat == 0 && compression == CompressionYUY2)) {
    RepairDeadPixelsYuyv(context, raw, wireWidth, wireHeight);
  }
  uint32_t record[IspPropertyCount];
  BuildPropertyRecord(context, record);
  uint8_t* destination = compression == CompressionYUY2 ? output : context->WorkBuffer;
  ISPFunc_RawToImg(context->IspHandle, context, 2, record, destination, raw, context->ImageWidth,
                   context->ImageHeight);
}

// The driver's own route. Width 1024 always comes from a 1280 x 960 sensor
// frame, whatever the scale mode says.
void DevelopWithOwnRoute(DeviceContext* context, uint8_t* raw, uint32_t wireWidth,
                         uint32_t wireHeight) {
  uint8_t* work = context->WorkBuffer;
  if (context->ImageWidth == 1024) {
    ConvertRawToPicture(context, work, raw, 1280, 960, 1280, 960);
    Resample1280To1024(work, work, 1280, 960, 1024, context->ImageHeight);
  } else {
    ConvertRawToPicture(context, work, raw, context->ImageWidth, context->ImageHeight, wireWidth,
                        wireHeight);
  }
}

// Effect, conversion to the stream's format, and the dark-frame check.
void ConvertToOutputFormat(DeviceContext* context, uint8_t* output) {
  const uint32_t w = context->ImageWidth;
  const uint32_t h = context->ImageHeight;
  uint8_t* work = context->WorkBuffer;
  switch (context->CurrentCompression) {
    case CompressionRGB24:
      SPEF_ConvertFrame(context->SpefHandle, work, w, h);
      FUNC_YuvToBmp(context->FuncHandle, work, w, h, output);
      BlankDarkFrameRgb(context, output, w, h);
      break;
    case CompressionYUY2:
      if (RawPipelineKind(context) == 1) {
        // Developed straight into the output: no whole-frame copy.
        SPEF_ConvertFrame(context->SpefHandle, output, w, h);
      } else {
        SPEF_ConvertFrame(context->SpefHandle, work, w, h);
        std::memcpy(output, work, size_t(w) * h * 2);
      }
      BlankDarkFrameYuyv(context, output, w, h);
      break;
    case CompressionI420:
      SPEF_ConvertFrame(context->SpefHandle, work, w, h);
      FUNC_YuvToI420(context->FuncHandle, work, w, h, output);
      break;
    default:
      break;
  }
}

void WriteFrameRateNumber(DeviceContext* context, uint32_t value) {
  HANDLE key = nullptr;
  if (!NT_SUCCESS(IoOpenDeviceRegistryKey(context->PhysicalDeviceObject, PLUGPLAY_REGKEY_DRIVER,
                                          KEY_ALL_ACCESS, &key))) {
    return;
  }
  WriteRegistryDword(key, u"FrameRateNumber", value);
  ZwClose(key);
}

uint32_t ReadFrameClock() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.u.LowPart;
}

}  // namespace

void GetWireSize(const DeviceContext* context, uint32_t* wireWidth, uint32_t* wireHeight) {
  const uint32_t w = context->ImageWidth;
  const uint32_t h = context->ImageHeight;
  switch (ScaleMode(context)) {
    case 2:
      *wireWidth = w * 2, *wireHeight = h * 2;
      break;
    case 3:
      *wireWidth = w / 2, *wireHeight = h / 2;
      break;
    case 4:
      *wireWidth = w * 4, *wireHeight = h * 4;
      break;
    case 5:
      *wireWidth = w / 4, *wireHeight = h / 4;
      break;
    default:
      // Same size; a scale mode above 5 is no valid setting and counts as same
      // size here.
      *wireWidth = w, *wireHeight = h;
      break;
  }
}

void ResetFrameRateMeter(DeviceContext* context) {
  context->FrameTimeSamples = -1;
  context->FrameTimeSum = 0;
  context->FrameTimeIndex = 0;
  context->LastFrameTime = ReadFrameClock();
}

// Averages the last 40 frame intervals. The clock is the low word of the
// system time in 100 ns units; its arithmetic wraps.
void UpdateFrameRateMeter(DeviceContext* context) {
  const uint32_t now = ReadFrameClock();
  if (context->FrameTimeSamples >= 0) {
    uint32_t& slot = context->FrameTimeRing[context->FrameTimeIndex % FrameTimeRingSize];
    if (context->FrameTimeSamples >= int32_t(FrameTimeRingSize)) context->FrameTimeSum -= slot;
    slot = now - context->LastFrameTime;
    context->FrameTimeSum += slot;
    context->FrameTimeIndex = (context->FrameTimeIndex + 1) % FrameTimeRingSize;
  }
  context->LastFrameTime = now;
  const int32_t samples = context->FrameTimeSamples + 1;
  context->FrameTimeSamples = samples < int32_t(FrameTimeRingSize) ? samples : FrameTimeRingSize;

  if (!(context->EngineerMode & 4) || context->FrameTimeSamples <= 20) return;
  // (sum + 5) / 10 is the sum in microseconds, rounded; frames per second
  // times 100 is then samples x 10^8 / microseconds. Within one microsecond
  // for 21 frames the divisor is 0 and nothing is written.
  const uint32_t micros = (context->FrameTimeSum + 5) / 10;
  if (micros == 0) return;
  WriteFrameRateNumber(context, uint32_t(context->FrameTimeSamples) * 100000000u / micros);
}

void DevelopFrame(DeviceContext* context, uint8_t* output, uint8_t* raw) {
  if (IsWorkerReprogramming(context)) return;

  uint32_t wireWidth;
  uint32_t wireHeight;
  GetWireSize(context, &wireWidth, &wireHeight);

  const bool imageProcessor = RawPipelineKind(context) == 1;
  const uint32_t framesToDrop = LoadShared(context->FramesToDrop);
  if (framesToDrop != 0) {
    // WorkBuffer keeps the last picture and goes through the steps below again.
    StoreShared(context->FramesToDrop, framesToDrop - 1);
  } else if (imageProcessor) {
    DevelopWithImageProcessor(context, output, raw, wireWidth, wireHeight);
  } else {
    DevelopWithOwnRoute(context, raw, wireWidth, wireHeight);
  }

  if ((context->FeatureFlags & 1) && LensKind(context) != 0) {
    const bool inOutput = context->CurrentCompression == CompressionYUY2 && imageProcessor;
    MeasureFocus(context, inOutput ? output : context->WorkBuffer, context->ImageWidth,
                 context->ImageHeight);
    PostWorkerCommand(context, WorkerFocusStep);
  }

  ConvertToOutputFormat(context, output);
  UpdateFrameRateMeter(context);
}

NTSTATUS ProcessRawFrame(PDEVICE_OBJECT, DeviceContext* context, void*, void* frameBuffer,
                         uint32_t frameLength, void* rawFrameBuffer, uint32_t rawFrameLength,
                         uint32_t, uint32_t* bytesReturned) {
  uint8_t* output = static_cast<uint8_t*>(frameBuffer);

  // The first frame after a stream open is painted near black, with no byte
  // count of its own.
  if (LoadShared(context->BlankFrameActive)) {
    PaintBlankFrame(output, frameLength);
    if (context->BlankFrameCount-- == 0) StoreShared(context->BlankFrameActive, 0);
    return STATUS_SUCCESS;
  }

  // While the worker starts or stops capture, frames go untouched to the bin.
  if (IsWorkerReprogramming(context)) return STATUS_SUCCESS;

  // A still asked for by the key fires with this frame.
  const uint32_t releaseCount = LoadShared(context->ShutterReleaseCount);
  if (context->StillPin == 2 && LoadShared(context->StillTriggerState) != 0 &&
      (LoadShared(context->ShutterKeyState) != 0 || releaseCount == 0xFFFFFFFF)) {
    StoreShared(context->StillTriggerState, 2);
    StoreShared(context->StillFromKey, releaseCount == 0 ? 1 : 0);
  }

  UpdateImageOrientation(context, FALSE, TRUE);

  // A frame that failed the length test is still developed; only its byte
  // count says it is not to be shown.
  const bool deliver = LoadShared(context->FrameLengthOk) || (context->EngineerMode & 2);
  *bytesReturned = deliver ? frameLength : 0;

  if (context->FrameCounter >= FrameCycleLength) context->FrameCounter = 0;
  if (PictureFitsBuffers(context, frameLength) && RawFrameFitsBuffer(context, rawFrameLength)) {
    DevelopFrame(context, output, static_cast<uint8_t*>(rawFrameBuffer));
  } else {
    *bytesReturned = 0;
  }
  context->FrameCounter += 1;
  return STATUS_SUCCESS;
}

NTSTATUS CamProcessRawVideoFrameEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                   void* frameContext, void* frameBuffer, uint32_t frameLength,
                                   void* rawFrameBuffer, uint32_t rawFrameLength,
                                   uint32_t numberOfPackets, uint32_t* bytesReturned, uint32_t,
                                   uint32_t) {
  // A raw frame of the still stream takes the same path as one of the capture
  // stream.
  ProcessRawFrame(busDeviceObject, context, frameContext, frameBuffer, frameLength, rawFrameBuffer,
                  rawFrameLength, numberOfPackets, bytesReturned);
  return STATUS_SUCCESS;
}
