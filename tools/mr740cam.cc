// mr740cam: captures pictures through the driver's frame path.
//
// Until the capture host and the emulated camera join, `capture` plays the
// camera itself: it sends a colour-bar Bayer frame as isochronous packets with
// the controller's header through the packet routine, gathers the payload the
// way the host does, develops it through the raw frame routine and writes the
// picture as a PNG file.

#include <png.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/companions.h"
#include "core/device_context.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"
#include "tools/camera_catalog.h"
#include "tools/registry_tool.h"
#include "tools/script_tool.h"

namespace {

struct Options {
  std::string out = "capture.png";
  std::string log;
  uint32_t width = 640;
  uint32_t height = 480;
};

void Usage() {
  std::fprintf(stderr,
               "usage: mr740cam capture [--out FILE.png] [--size WxH] [--log FILE]\n"
               "  Sends a colour-bar frame through the driver's packet and frame paths\n"
               "  and writes the developed picture as a PNG file.\n"
               "usage: mr740cam check-script FILE\n"
               "  Reports, line by line, what the driver would reject in a camera script.\n"
               "usage: mr740cam scramble-script IN OUT | unscramble-script IN OUT\n"
               "  Converts a script between its plain and its scrambled form.\n"
               "usage: mr740cam registry load FILE.reg ... | export FILE.reg [KEY] | show [KEY] |\n"
               "                         set KEY NAME dword:N|TEXT | install [MODEL] | path\n"
               "  The registry the driver keeps its settings in, and camera descriptions.\n"
               "usage: mr740cam cameras\n"
               "  Lists the built-in camera descriptions.\n"
               "Every command takes --registry FILE (default $MR740_REGISTRY, else\n"
               "$XDG_STATE_HOME/mr740/registry.reg): the driver's registry, kept across runs.\n");
}

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 2; i < argc; ++i) {
    std::string arg = argv[i];
    auto next = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "mr740cam: %s needs a value\n", name);
        return nullptr;
      }
      return argv[++i];
    };
    if (arg == "--out") {
      const char* v = next("--out");
      if (!v) return false;
      options->out = v;
    } else if (arg == "--log") {
      const char* v = next("--log");
      if (!v) return false;
      options->log = v;
    } else if (arg == "--size") {
      const char* v = next("--size");
      unsigned w = 0, h = 0;
      if (!v || std::sscanf(v, "%ux%u", &w, &h) != 2 || w < 128 || h < 96 || w > 1600 ||
          h > 1200 || (w % 8) != 0 || (h % 2) != 0) {
        std::fprintf(stderr, "mr740cam: --size wants WxH from 128x96 to 1600x1200, W a multiple of 8\n");
        return false;
      }
      options->width = w;
      options->height = h;
    } else {
      std::fprintf(stderr, "mr740cam: unknown option %s\n", arg.c_str());
      return false;
    }
  }
  return true;
}

// Eight vertical bars in the Bayer order B G / G R, with a gentle vertical
// gradient so that the rows differ.
std::vector<uint8_t> MakeColourBars(uint32_t width, uint32_t height) {
  static const uint8_t kBars[8][3] = {{235, 235, 235}, {235, 235, 16}, {16, 235, 235},
                                      {16, 235, 16},   {235, 16, 235}, {235, 16, 16},
                                      {16, 16, 235},   {16, 16, 16}};
  std::vector<uint8_t> raw(size_t(width) * height);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      const uint8_t* rgb = kBars[x * 8 / width];
      int channel = (y & 1) == 0 ? ((x & 1) == 0 ? 2 : 1) : ((x & 1) == 0 ? 1 : 0);
      int value = rgb[channel] * (3 * int(height) + int(y)) / (4 * int(height));
      raw[size_t(y) * width + x] = uint8_t(value);
    }
  }
  return raw;
}

uint8_t ReadNothing(void*, uint8_t) { return 0; }
void WriteNothing(void*, uint8_t*, uint32_t) {}
NTSTATUS RunNothing(void*, const char*) { return STATUS_SUCCESS; }
NTSTATUS WritePairsNothing(void*, const uint8_t*, uint32_t) { return STATUS_SUCCESS; }

bool WritePng(const std::string& path, const uint8_t* bottomUpBgr, uint32_t width,
              uint32_t height) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    std::fclose(file);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_bgr(png);
  png_write_info(png, info);
  for (uint32_t y = 0; y < height; ++y) {
    png_write_row(png, bottomUpBgr + size_t(height - 1 - y) * width * 3);
  }
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  return std::fclose(file) == 0;
}

void LogToFile(void* context, const char* line) { std::fputs(line, static_cast<FILE*>(context)); }

int Capture(const Options& options) {
  FILE* log = nullptr;
  if (!options.log.empty()) {
    log = std::fopen(options.log.c_str(), "w");
    if (!log) {
      std::fprintf(stderr, "mr740cam: cannot write the log %s\n", options.log.c_str());
      return 1;
    }
    SetDebugPrintSink(LogToFile, log);
  }

  const uint32_t w = options.width;
  const uint32_t h = options.height;
  // The record is big (the dead pixel map and the face work areas): one
  // zero-filled block, as the host gives it.
  auto* context = static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)));
  std::vector<uint8_t> work(WorkBufferBytes);
  context->WorkBuffer = work.data();
  context->IspType = 1;  // the image processor develops the frames
  context->ControlMethod = 0x0100;  // Bayer on the wire, same size
  context->CurrentCompression = CompressionRGB24;
  context->ImageWidth = w;
  context->ImageHeight = h;
  context->PropertyRecords.ColorEnable.Value = 1;
  context->PropertyRecords.Contrast.Value = 64;
  context->PropertyRecords.Saturation.Value = 64;
  context->SpefCategory = 99;
  context->FuncHandle = FUNC_Init();
  context->SpefHandle = SPEF_Init(u"\\??\\C:\\Camera");
  ISPFunc_Init(&context->IspHandle, context, nullptr, u"OV2640", 1, ReadNothing, WriteNothing,
               RunNothing, ReadNothing, WritePairsNothing);
  uint32_t wireW = 0, wireH = 0;
  ISPFunc_StartCapture(context->IspHandle, context, 2, w, h, &wireW, &wireH);
  if (context->SpefHandle) SPEF_StartCapture(context->SpefHandle, w, h);
  ResetFrameRateMeter(context);

  // Send the frame as 1020-byte packets with a 12-byte header, then the
  // frame's end; gather the payload as the host does.
  const std::vector<uint8_t> frame = MakeColourBars(w, h);
  std::vector<uint8_t> raw(frame.size() + 1024);
  uint32_t gathered = 0;
  bool complete = false;
  const uint32_t headerLength = 12;
  const uint32_t chunk = 1020 - headerLength;
  std::vector<uint8_t> packet(1024);
  size_t sent = 0;
  while (!complete) {
    const uint32_t payload = uint32_t(std::min<size_t>(chunk, frame.size() - sent));
    packet[0] = uint8_t(headerLength);
    // The controller ends a frame with a header-only packet: the frame's
    // length is what came before it.
    packet[1] = payload == 0 ? PacketFlagLastOfFrame : 0;
    std::memcpy(packet.data() + headerLength, frame.data() + sent, payload);
    USBD_ISO_PACKET_DESCRIPTOR descriptor = {0, headerLength + payload, 0};
    BOOLEAN frameComplete = 0;
    uint32_t packetFlag = 0, offset = 0;
    uint32_t take = CamProcessUSBPacketEx(nullptr, context, nullptr, nullptr, nullptr, &descriptor,
                                          packet.data(), &frameComplete, &packetFlag, &offset);
    if (!(packetFlag & USBCAMD_PROCESSPACKETEX_DropPacket) && take) {
      std::memcpy(raw.data() + gathered, packet.data() + offset, take);
      gathered += take;
    }
    sent += payload;
    complete = frameComplete != 0;
  }

  std::vector<uint8_t> picture(size_t(w) * h * 3);
  uint32_t bytes = 0;
  CamProcessRawVideoFrameEx(nullptr, context, nullptr, picture.data(), uint32_t(picture.size()),
                            raw.data(), uint32_t(raw.size()), 0, &bytes, gathered, 0);
  int status = 0;
  if (bytes != picture.size()) {
    std::fprintf(stderr, "mr740cam: the frame was not delivered (%u of %zu bytes)\n", bytes,
                 picture.size());
    status = 1;
  } else if (!WritePng(options.out, picture.data(), w, h)) {
    std::fprintf(stderr, "mr740cam: cannot write %s\n", options.out.c_str());
    status = 1;
  } else {
    std::printf("mr740cam: %ux%u RGB24 picture from %u raw bytes written to %s\n", w, h, gathered,
                options.out.c_str());
  }

  ISPFunc_StopCapture(context->IspHandle, context);
  ISPFunc_Exit(context->IspHandle, context, nullptr);
  SPEF_Exit(context->SpefHandle);
  FUNC_Exit(context->FuncHandle);
  std::free(context);
  if (PoolReportLeaks() != 0) status = 1;
  if (log) {
    SetDebugPrintSink(nullptr, nullptr);
    std::fclose(log);
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && IsScriptToolCommand(argv[1])) return RunScriptTool(argc, argv);
  const std::string registryFile = TakeRegistryFileOption(&argc, argv);
  if (argc == 2 && std::strcmp(argv[1], "cameras") == 0) {
    for (const std::string& model : EmbeddedCameraModels()) {
      std::printf("%s%s\n", model.c_str(), model == DefaultCameraModel ? " (default)" : "");
    }
    return 0;
  }
  if (argc >= 2 && IsRegistryToolCommand(argv[1])) {
    if (!OpenToolRegistry(registryFile, stderr)) return 1;
    return RunRegistryTool(argc, argv, stdout, stderr);
  }
  if (argc < 2 || std::strcmp(argv[1], "capture") != 0) {
    Usage();
    return argc < 2 ? 0 : 2;
  }
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    Usage();
    return 2;
  }
  return Capture(options);
}
