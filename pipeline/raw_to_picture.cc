// The driver's own development route, for cameras without the image
// processor library: the raw frame becomes the YUYV picture at output size.
//
// It rewrites the last columns and lines of frames from sensors known to send
// them bad, hides dead pixels, then takes one of four routes by wire layout
// (Bayer or YUYV) and face tracking. Every route plans the zoom window, which
// cuts the frame in place, converts or resamples to the window's size, and
// scales back to frame size; at zoom level 0 planning and scaling do nothing.
//
// Buffers: `picture` holds the output picture (WorkBuffer, 1600 x 1200 x 3
// bytes); `raw` holds the wire frame, wireWidth x wireHeight pixels in the
// wire's layout (OwnRouteRawBytes), and is written to. The sensor repairs and
// the width 484 step take their line lengths from the output size; each runs
// only when the wire frame is large enough for what it touches.
//
// Context: frame path. Integer only, nothing allocated, no lock.

#include <cstring>

#include "core/companions.h"
#include "facezoom/face_detector.h"
#include "facezoom/zoom.h"
#include "pipeline/frame_pipeline.h"

namespace {

enum class WireLayout { Bayer, Yuyv, Other };

WireLayout ClassifyWire(const DeviceContext* context) {
  const uint8_t wireFormat = WireFormat(context);
  const uint32_t compression = context->CurrentCompression;
  if (wireFormat == 1 || (wireFormat == 0 && compression == CompressionRGB24)) {
    return WireLayout::Bayer;
  }
  if (wireFormat == 2 || (wireFormat == 0 && compression == CompressionYUY2)) {
    return WireLayout::Yuyv;
  }
  return WireLayout::Other;
}

// Wire bytes of two pixels: Bayer 2, YUYV 4, 4:2:0 3, any other wire 2 (the
// frame size the host is told to provide for).
uint32_t WireBytesPerTwoPixels(const DeviceContext* context) {
  switch (WireFormat(context)) {
    case 0:
      if (context->CurrentCompression == CompressionYUY2) return 4;
      if (context->CurrentCompression == CompressionI420) return 3;
      return 2;
    case 2:
      return 4;
    case 3:
      return 3;
    default:
      return 2;
  }
}

uint64_t WireFrameBytes(const DeviceContext* context, uint32_t wireWidth, uint32_t wireHeight) {
  return uint64_t(wireWidth) * wireHeight * WireBytesPerTwoPixels(context) / 2;
}

// SensorName compared as a whole string.
bool SensorIs(const DeviceContext* context, const char16_t* name) {
  for (uint32_t i = 0; i < SensorNameChars; ++i) {
    if (context->SensorName[i] != name[i]) return false;
    if (name[i] == 0) return true;
  }
  return false;
}

// The MI2020 sends bad last columns and lines. In `raw`, lines of `width`
// bytes, `height` lines: the last eight bytes of a line a b c d e f g h become
// a b a b c d c d; lines height - 4 and height - 3 are copied to the last two
// lines, then each becomes the mean of itself and the line two further up.
// Copies keep the Bayer pattern: pairs stay pairs.
void RepairMi2020(uint8_t* raw, uint32_t width, uint32_t height) {
  const size_t line = width;
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* e = raw + line * y + width - 8;
    const uint8_t a = e[0], b = e[1], c = e[2], d = e[3];
    e[2] = a, e[3] = b, e[4] = c, e[5] = d, e[6] = c, e[7] = d;
  }
  std::memcpy(raw + line * (height - 2), raw + line * (height - 4), 2 * line);
  for (uint32_t y = height - 4; y <= height - 3; ++y) {
    uint8_t* row = raw + line * y;
    const uint8_t* up = row - 2 * line;
    for (uint32_t x = 0; x < width; ++x) row[x] = uint8_t((row[x] + up[x]) >> 1);
  }
}

// The OV2640's last three columns at 1280 wide repeat those before them.
constexpr uint32_t Ov2640LineBytes = 1280;
void RepairOv2640(uint8_t* raw, uint32_t height) {
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* row = raw + size_t(Ov2640LineBytes) * y;
    row[1277] = row[1275];
    row[1278] = row[1274];
    row[1279] = row[1275];
  }
}

// Width 484: the camera's picture at 320 pixels' width, centred in black.
// `raw` is read as YUYV lines of 968 bytes; three pixels become two.
constexpr uint32_t Width484 = 484;
constexpr uint32_t Line484 = Width484 * 2;
constexpr uint32_t Left484 = 164;      // 82 pixels of black to each side
constexpr uint32_t Groups484 = 80;     // 12 source bytes into 8, per group
constexpr uint32_t Read484 = 12 * Groups484;

void Squeeze484(uint8_t* picture, const uint8_t* raw, uint32_t height) {
  for (uint32_t y = 0; y < height; ++y) {
    uint8_t* o = picture + size_t(Line484) * y;
    for (uint32_t i = 0; i < Line484; i += 2) o[i] = 0, o[i + 1] = 128;
    const uint8_t* s = raw + size_t(Line484) * y;
    o += Left484;
    for (uint32_t g = 0; g < Groups484; ++g, s += 12, o += 8) {
      o[0] = s[0];
      o[1] = s[1];
      o[2] = uint8_t((s[2] + s[4]) / 2);
      o[3] = s[3];
      o[4] = s[6];
      o[5] = uint8_t((s[5] + s[9]) / 2);
      o[6] = uint8_t((s[8] + s[10]) / 2);
      o[7] = uint8_t((s[7] + s[11]) / 2);
    }
  }
}

}  // namespace

uint32_t OwnRouteRawBytes(const DeviceContext* context) {
  uint32_t wireWidth = 1280, wireHeight = 960;
  if (context->ImageWidth != 1024) GetWireSize(context, &wireWidth, &wireHeight);
  const uint64_t bytes = WireFrameBytes(context, wireWidth, wireHeight);
  return bytes > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(bytes);
}

void ResampleYuyv(uint8_t* destination, const uint8_t* source, uint32_t width, uint32_t height,
                  uint32_t sourceWidth) {
  if (2 * width == sourceWidth) {
    ShrinkYuy2By2(destination, source, width, height);
  } else if (4 * width == sourceWidth) {
    ShrinkYuy2By4(destination, source, width, height);
  } else if (width / 2 == sourceWidth) {
    GrowYuy2By2(destination, source, width, height);
  } else if (width / 4 == sourceWidth) {
    GrowYuy2By4(destination, source, width, height);
  } else if (destination != source) {
    // Same size (in place there is nothing to copy).
    std::memcpy(destination, source, size_t(width) * height * 2);
  }
}

void ResampleWirePicture(const uint8_t* source, uint32_t sourceWidth, uint32_t,
                         uint8_t* destination, uint32_t width, uint32_t height) {
  ResampleYuyv(destination, source, width, height, sourceWidth);
}

void RoutePlainBayer(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                     uint32_t height, uint32_t wireWidth, uint32_t wireHeight) {
  const uint32_t frameWidth = width;
  const uint32_t frameHeight = height;
  const uint32_t level = context->ZoomLast;
  ZoomRect cropRect = {}, viewRect = {};
  PlanZoomWindowRaw(level, -1, -1, raw, &wireWidth, &wireHeight, &width, &height, &cropRect,
                    &viewRect);
  FUNC_RawToYuv(context->FuncHandle, raw, wireWidth, wireHeight, picture, width, height);
  ScaleZoomWindow(level, picture, width, height, frameWidth, frameHeight, &cropRect, &viewRect);
}

void RouteTrackedBayer(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                       uint32_t height, uint32_t wireWidth, uint32_t wireHeight) {
  TrackFace(context, picture, width, height);
  const uint32_t frameWidth = width;
  const uint32_t frameHeight = height;
  const uint32_t level = context->Zoom;
  ZoomRect cropRect = {}, viewRect = {};
  PlanZoomWindowRaw(level, context->ZoomX, context->ZoomY, raw, &wireWidth, &wireHeight, &width,
                    &height, &cropRect, &viewRect);
  FUNC_RawToYuv(context->FuncHandle, raw, wireWidth, wireHeight, picture, width, height);
  ScaleZoomWindow(level, picture, width, height, frameWidth, frameHeight, &cropRect, &viewRect);
  UpdateZoomWindow(context, frameWidth, frameHeight, width, height);
}

void RoutePlainYuyv(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                    uint32_t height, uint32_t wireWidth, uint32_t wireHeight) {
  const uint32_t frameWidth = width;
  const uint32_t frameHeight = height;
  // The OV7670 sends a bad first line: the second line of `width` pixels
  // replaces it.
  if (SensorIs(context, u"OV7670") &&
      uint64_t(width) * 4 <= uint64_t(wireWidth) * wireHeight * 2) {
    std::memcpy(raw, raw + size_t(width) * 2, size_t(width) * 2);
  }
  const uint32_t level = context->ZoomLast;
  ZoomRect cropRect = {}, viewRect = {};
  PlanZoomWindowYuy2(level, -1, -1, raw, &wireWidth, &wireHeight, &width, &height, &cropRect,
                     &viewRect);
  ResampleYuyv(picture, raw, width, height, wireWidth);
  ScaleZoomWindow(level, picture, width, height, frameWidth, frameHeight, &cropRect, &viewRect);
}

// Works wholly at the size of `source`: the given output size is replaced by
// the wire size at once.
void RouteTrackedYuyv(DeviceContext* context, uint8_t* picture, uint8_t* source, uint32_t,
                      uint32_t, uint32_t wireWidth, uint32_t wireHeight) {
  TrackFace(context, source, wireWidth, wireHeight);
  const uint32_t frameWidth = wireWidth;
  const uint32_t frameHeight = wireHeight;
  uint32_t width = wireWidth;
  uint32_t height = wireHeight;
  const uint32_t level = context->Zoom;
  ZoomRect cropRect = {}, viewRect = {};
  PlanZoomWindowYuy2(level, context->ZoomX, context->ZoomY, source, &wireWidth, &wireHeight,
                     &width, &height, &cropRect, &viewRect);
  ResampleYuyv(picture, source, width, height, wireWidth);
  ScaleZoomWindow(level, picture, width, height, frameWidth, frameHeight, &cropRect, &viewRect);
  UpdateZoomWindow(context, frameWidth, frameHeight, width, height);
}

void ConvertRawToPicture(DeviceContext* context, uint8_t* picture, uint8_t* raw, uint32_t width,
                         uint32_t height, uint32_t wireWidth, uint32_t wireHeight) {
  const uint64_t rawBytes = WireFrameBytes(context, wireWidth, wireHeight);
  const bool tracking = context->FaceTrackingOn != 0;

  switch (ClassifyWire(context)) {
    case WireLayout::Bayer:
      if (SensorIs(context, u"MI2020") && (width == 800 || width == 1600) && height >= 6 &&
          uint64_t(width) * height <= rawBytes) {
        RepairMi2020(raw, width, height);
      }
      if (SensorIs(context, u"OV2640") && width == Ov2640LineBytes &&
          uint64_t(Ov2640LineBytes) * height <= rawBytes) {
        RepairOv2640(raw, height);
      }
      RepairDeadPixelsBayer(context, raw, wireWidth, wireHeight);
      if (!tracking) {
        RoutePlainBayer(context, picture, raw, width, height, wireWidth, wireHeight);
      } else {
        // The face detector works on a picture: develop the whole frame first.
        FUNC_RawToYuv(context->FuncHandle, raw, wireWidth, wireHeight, picture, width, height);
        if (width == 160) {
          // At this size the zoom works on the developed picture, in place.
          RouteTrackedYuyv(context, picture, picture, width, height, width, height);
          return;
        }
        RouteTrackedBayer(context, picture, raw, width, height, wireWidth, wireHeight);
      }
      break;
    case WireLayout::Yuyv:
      RepairDeadPixelsYuyv(context, raw, wireWidth, wireHeight);
      if (!tracking) {
        RoutePlainYuyv(context, picture, raw, width, height, wireWidth, wireHeight);
      } else {
        // The zoom works at wire size in `raw`; the step to output size comes
        // last.
        RouteTrackedYuyv(context, raw, raw, wireWidth, wireHeight, wireWidth, wireHeight);
        ResampleWirePicture(raw, wireWidth, wireHeight, picture, width, height);
      }
      break;
    case WireLayout::Other:
      break;
  }

  // A 484 mode is expected to send YUYV; with a wire frame too small for 484
  // wide lines the picture stays as the route left it.
  if (width == Width484 && height > 0 &&
      uint64_t(Line484) * (height - 1) + Read484 <= rawBytes) {
    Squeeze484(picture, raw, height);
  }
}
