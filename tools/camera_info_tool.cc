// mr740cam info and mr740cam formats.

#include "tools/camera_info_tool.h"

#include <cstring>
#include <string>
#include <vector>

#include "core/device_context.h"
#include "tools/camera_session.h"

namespace {

std::string Ascii(const WCHAR* text, size_t chars) {
  std::string out;
  for (size_t i = 0; i < chars && text[i] != 0; ++i) out += text[i] < 0x80 ? char(text[i]) : '?';
  return out;
}

}  // namespace

bool IsCameraInfoToolCommand(const char* name) {
  return std::strcmp(name, "info") == 0 || std::strcmp(name, "formats") == 0;
}

int RunCameraInfoTool(int argc, char** argv, FILE* out, FILE* err) {
  const bool formatsOnly = std::strcmp(argv[1], "formats") == 0;
  CameraSessionOptions options;
  for (int i = 2; i < argc; ++i) {
    const int taken = TakeCameraSessionOption(argc, argv, &i, &options, err);
    if (taken < 0) return 2;
    if (taken == 0) {
      std::fprintf(err,
                   "mr740cam: unknown option %s\nusage: mr740cam %s [--camera "
                   "MODEL|FILE.reg|NNNN] [--scene TEXT] [--usb-trace FILE]\n",
                   argv[i], argv[1]);
      return 2;
    }
  }
  VirtualTimeScope virtualTime;
  CameraSession session;
  if (!session.Open(options, err)) return 1;
  HostedCamera& host = session.Host();
  const std::vector<KS_DATARANGE_VIDEO> formats = host.Formats(0);
  if (!formatsOnly) {
    const DeviceContext* context = host.Context();
    std::fprintf(out, "camera:  %s\n", session.Model().name.c_str());
    std::fprintf(out, "sensor:  %s\n",
                 context ? Ascii(context->SensorName, SensorNameChars).c_str() : "?");
    std::fprintf(out, "bus:     %s\n",
                 context && context->IsFullSpeed ? "full speed (12 Mbit/s)"
                                                 : "high speed (480 Mbit/s)");
    std::fprintf(out, "still:   %s\n", host.StreamCount() > 1 ? "still pin" : "none");
    std::fprintf(out, "formats: %zu, best first\n", formats.size());
  }
  for (const KS_DATARANGE_VIDEO& range : formats) {
    std::fprintf(out, "%s%s\n", formatsOnly ? "" : "  ", DescribeFormat(range).c_str());
  }
  return session.Close(err) ? 0 : 1;
}
