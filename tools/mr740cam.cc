// mr740cam: the driver run against an emulated camera through the capture
// host, for people: pictures and videos (capture), what the driver makes of a
// camera (info, formats), the camera descriptions (cameras, registry) and the
// camera scripts (script).

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tools/camera_catalog.h"
#include "tools/camera_info_tool.h"
#include "tools/capture_tool.h"
#include "tools/registry_tool.h"
#include "tools/script_tool.h"

namespace {

void Usage(FILE* to) {
  std::fputs(
      "usage: mr740cam capture [--out FILE.png|FILE.y4m] [--camera MODEL|FILE.reg|NNNN]\n"
      "                        [--format RGB24|YUY2|I420] [--size WxH]\n"
      "                        [--frames N | --seconds S] [--still] [--scene TEXT]\n"
      "  Captures from the emulated camera (default: the OV7670 webcam) through the\n"
      "  driver: one PNG picture (default capture.png), a still from the still pin,\n"
      "  or a YUV4MPEG2 video (.y4m; one second unless --frames or --seconds).\n"
      "usage: mr740cam info | formats [--camera MODEL|FILE.reg|NNNN]\n"
      "  The detected sensor, the bus speed and the offered formats, best first.\n"
      "usage: mr740cam cameras\n"
      "  Lists the built-in camera descriptions.\n"
      "usage: mr740cam registry load FILE.reg ... | export FILE.reg [KEY] | show [KEY] |\n"
      "                         set KEY NAME dword:N|TEXT | install [MODEL] | path\n"
      "  The registry the driver keeps its settings in, and camera descriptions.\n"
      "usage: mr740cam script check FILE | scramble IN OUT | unscramble IN OUT\n"
      "  Reports what the driver would reject in a camera script, line by line, or\n"
      "  converts a script between its plain and its scrambled form.\n"
      "Options of every command:\n"
      "  --registry FILE   the driver's registry, kept across runs (default\n"
      "                    $MR740_REGISTRY, else $XDG_STATE_HOME/mr740/registry.reg)\n"
      "  --log FILE        the driver's debug print lines (default: none shown)\n"
      "Options of capture, info and formats:\n"
      "  --usb-trace FILE  every control request and stream change between driver\n"
      "                    and camera: text lines, or a pcap file when FILE ends in\n"
      "                    .pcap (tshark -r FILE, Wireshark)\n"
      "  --scene TEXT      what the camera sees, e.g. face,speed=6 (default: bars)\n",
      to);
}

// Removes "NAME VALUE" from argv; returns the value, empty when absent.
// False when the option is there without a value.
bool TakeOption(int* argc, char** argv, const char* name, std::string* value) {
  int kept = 1;
  bool ok = true;
  for (int i = 1; i < *argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) {
      if (i + 1 < *argc) {
        *value = argv[++i];
      } else {
        ok = false;
      }
      continue;
    }
    argv[kept++] = argv[i];
  }
  *argc = kept;
  argv[kept] = nullptr;
  return ok;
}

void LogLine(void* context, const char* line) { std::fputs(line, static_cast<FILE*>(context)); }

void IgnoreLine(void*, const char*) {}

int Run(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "help") == 0 || std::strcmp(argv[1], "--help") == 0) {
    Usage(stdout);
    return 0;
  }
  if (IsScriptToolCommand(argv[1])) return RunScriptTool(argc, argv);
  const std::string registryFile = TakeRegistryFileOption(&argc, argv);
  if (argc == 2 && std::strcmp(argv[1], "cameras") == 0) {
    for (const std::string& model : EmbeddedCameraModels()) {
      std::printf("%s%s\n", model.c_str(), model == DefaultCameraModel ? " (default)" : "");
    }
    return 0;
  }
  const bool registry = IsRegistryToolCommand(argv[1]);
  const bool capture = IsCaptureToolCommand(argv[1]);
  const bool info = IsCameraInfoToolCommand(argv[1]);
  if (!registry && !capture && !info) {
    std::fprintf(stderr, "mr740cam: unknown command %s\n", argv[1]);
    Usage(stderr);
    return 2;
  }
  if (!OpenToolRegistry(registryFile, stderr)) return 1;
  if (registry) return RunRegistryTool(argc, argv, stdout, stderr);
  const int status = capture ? RunCaptureTool(argc, argv, stdout, stderr)
                             : RunCameraInfoTool(argc, argv, stdout, stderr);
  std::string error;
  if (!FlushRegistryFile(&error)) {
    std::fprintf(stderr, "mr740cam: %s\n", error.c_str());
    return status == 0 ? 1 : status;
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  std::string logFile;
  if (!TakeOption(&argc, argv, "--log", &logFile)) {
    std::fputs("mr740cam: --log needs a file\n", stderr);
    return 2;
  }
  FILE* log = nullptr;
  if (!logFile.empty()) {
    log = std::fopen(logFile.c_str(), "w");
    if (!log) {
      std::fprintf(stderr, "mr740cam: cannot write the log %s\n", logFile.c_str());
      return 1;
    }
    SetDebugPrintSink(LogLine, log);
  } else {
    // The driver talks a lot; without --log its lines are not shown.
    SetDebugPrintSink(IgnoreLine, nullptr);
  }
  const int status = Run(argc, argv);
  SetDebugPrintSink(nullptr, nullptr);
  if (log) std::fclose(log);
  return status;
}
