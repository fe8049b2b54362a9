// The driver's own route on random modes: every output size of the format
// catalogue with every scale mode, wire format, output format, sensor name,
// face tracking, dead pixel and dark frame thresholds, and random content.
// The raw frame and the picture are allocated at exactly the sizes the route
// may touch (the wire frame of the mode; the picture at output size, or the
// 1280 x 960 work picture at width 1024), so any access outside them is
// caught by AddressSanitizer.
//
// Input: one settings block of 12 bytes, then content bytes that seed the
// raw frame. Frames of more than 400,000 wire or output pixels are taken only
// from inputs of 16 KiB or more and run once, those of more than five million
// (scale mode 4 at the larger sizes) only from inputs of 60,000 bytes or more:
// this keeps the replay's random inputs fast while the corpus and long inputs
// still reach every size.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/companions.h"
#include "core/device_context.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"

namespace {

struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  uint8_t Byte() { return at < size ? data[at++] : 0; }
};

struct Size {
  uint32_t w, h;
};
// The output sizes of the format catalogue.
constexpr Size kSizes[] = {{160, 120},  {320, 240},  {640, 480},   {800, 600},   {1024, 768},
                           {1280, 800}, {1280, 768}, {1280, 960},  {1280, 1024}, {1600, 1200},
                           {128, 96},   {176, 144},  {352, 288},   {704, 576},   {1408, 1152},
                           {484, 240},  {1440, 1152}, {720, 576}};
constexpr uint32_t kCompressions[] = {CompressionRGB24, CompressionYUY2, CompressionI420, 0};
const char16_t* const kSensors[] = {u"", u"MI2020", u"OV2640", u"OV7670", u"MI2021"};
constexpr uint64_t kLargePixels = 400000;
constexpr size_t kLargeInput = 16384;
constexpr uint64_t kHugePixels = 5000000;
constexpr size_t kHugeInput = 60000;

uint64_t FuncHandle() {
  static const uint64_t handle = [] {
    SetDebugPrintSink([](void*, const char*) {}, nullptr);
    return FUNC_Init();
  }();
  return handle;
}

void SetSensor(DeviceContext* context, const char16_t* name) {
  for (uint32_t i = 0; name[i] && i + 1 < SensorNameChars; ++i) context->SensorName[i] = name[i];
}

// Fills `bytes` from the input's content bytes, repeated and stirred so that
// long frames do not repeat with a short period.
void FillContent(std::vector<uint8_t>& bytes, const uint8_t* content, size_t length,
                 uint8_t flavour) {
  uint32_t state = 0x9E3779B9u ^ flavour;
  for (size_t i = 0; i < bytes.size(); ++i) {
    state ^= state << 13, state ^= state >> 17, state ^= state << 5;
    const uint8_t from = length ? content[i % length] : 0;
    switch (flavour % 4) {
      case 0:
        bytes[i] = from;
        break;
      case 1:
        bytes[i] = uint8_t(state);
        break;
      case 2:
        bytes[i] = (state & 0xFF) < 8 ? uint8_t(state >> 8) : from;  // sparse specks
        break;
      default:
        bytes[i] = uint8_t(((i / 2) ^ (i >> 11)) & 1 ? 255 : 0);  // checkerboards
        break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in{data, size};
  auto* context = static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)));
  if (!context) return 0;

  const Size s = kSizes[in.Byte() % (sizeof kSizes / sizeof kSizes[0])];
  context->ImageWidth = s.w;
  context->ImageHeight = s.h;
  context->CurrentCompression = kCompressions[in.Byte() % 4];
  const uint8_t scaleMode = in.Byte() % 7;
  const uint8_t wireFormat = in.Byte() % 5;
  context->ControlMethod = uint32_t(scaleMode) | uint32_t(wireFormat) << 8;
  SetSensor(context, kSensors[in.Byte() % 5]);
  const uint8_t flags = in.Byte();
  context->FaceTrackingOn = flags & 1;
  context->Zoom = context->ZoomLast = 0;
  context->DeadPixelRGB24 = (flags & 2) ? in.Byte() : 0;
  context->DeadPixelYUYV = (flags & 4) ? in.Byte() : 0;
  context->BlackBodyDarkRGB24 = in.Byte();
  context->BlackBodyDarkYUYV = in.Byte();
  const uint8_t framesWanted = 1 + in.Byte() % 3;
  const uint8_t flavour = in.Byte();
  context->FuncHandle = FuncHandle();

  // What DevelopFrame hands the route.
  const bool fixed1024 = s.w == 1024;
  uint32_t width = s.w, height = s.h, wireWidth = 1280, wireHeight = 960;
  if (fixed1024) {
    width = 1280, height = 960;
  } else {
    GetWireSize(context, &wireWidth, &wireHeight);
  }
  const uint64_t rawBytes = OwnRouteRawBytes(context);
  const uint64_t pixels = std::max<uint64_t>(uint64_t(wireWidth) * wireHeight,
                                             uint64_t(width) * height);
  if ((pixels > kLargePixels && size < kLargeInput) || (pixels > kHugePixels && size < kHugeInput)) {
    std::free(context);
    return 0;
  }
  const uint8_t frames = pixels > kLargePixels ? 1 : framesWanted;

  std::vector<uint8_t> raw(rawBytes ? rawBytes : 1);
  std::vector<uint8_t> picture(size_t(width) * height * 2);
  std::vector<uint8_t> output(size_t(s.w) * s.h * 3);
  for (uint8_t f = 0; f < frames; ++f) {
    FillContent(raw, data + in.at, size - std::min(size, in.at), uint8_t(flavour + f));
    context->FrameCounter = f;  // 0: a dead pixel scan; 1: a dark frame measurement
    ConvertRawToPicture(context, picture.data(), raw.data(), width, height, wireWidth,
                        wireHeight);
    if (fixed1024) {
      Resample1280To1024(picture.data(), picture.data(), 1280, 960, 1024, s.h);
    }
    // The conversion stage's picture cleaning, on output buffers of the
    // stream's exact size.
    if (context->CurrentCompression == CompressionRGB24) {
      std::memcpy(output.data(), picture.data(), std::min(output.size(), picture.size()));
      BlankDarkFrameRgb(context, output.data(), s.w, s.h);
    } else if (context->CurrentCompression == CompressionYUY2) {
      std::vector<uint8_t> yuyv(picture.begin(), picture.begin() + size_t(s.w) * s.h * 2);
      BlankDarkFrameYuyv(context, yuyv.data(), s.w, s.h);
    }
  }
  std::free(context);
  return 0;
}
