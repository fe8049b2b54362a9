// mr740cam capture.

#include "tools/capture_tool.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/device_context.h"
#include "core/packet_dispatch.h"
#include "tools/camera_session.h"
#include "tools/picture_files.h"

namespace {

const char kUsage[] =
    "usage: mr740cam capture [--out FILE.png|FILE.y4m] [--camera MODEL|FILE.reg|NNNN]\n"
    "                        [--format RGB24|YUY2|I420] [--size WxH] [--frames N | --seconds S]\n"
    "                        [--still] [--scene TEXT] [--usb-trace FILE]\n";

// Bus time a frame may take before the capture gives up: far beyond any
// frame interval the catalogue offers (half a second at the slowest).
constexpr int64_t kFrameTimeout100ns = 50000000;
// Frames let go by after a start before the first one kept.
constexpr int kWarmUpFrames = 2;

struct CaptureOptions {
  CameraSessionOptions session;
  std::string out = "capture.png";
  std::string format;  // empty: any
  uint32_t width = 0;  // 0: any
  uint32_t height = 0;
  uint64_t frames = 0;  // 0: by the file kind
  double seconds = 0;
  bool still = false;
};

bool EndsWith(const std::string& text, const char* end) {
  const size_t n = std::strlen(end);
  return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

bool ParseCount(const char* text, uint64_t* value) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long n = std::strtoull(text, &end, 10);
  if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || n == 0 || n > 1000000) {
    return false;
  }
  *value = n;
  return true;
}

// 0: parsed; 2: usage error (reported).
int ParseOptions(int argc, char** argv, CaptureOptions* options, FILE* err) {
  for (int i = 2; i < argc; ++i) {
    const int taken = TakeCameraSessionOption(argc, argv, &i, &options->session, err);
    if (taken < 0) return 2;
    if (taken > 0) continue;
    const std::string arg = argv[i];
    if (arg == "--still") {
      options->still = true;
      continue;
    }
    if (arg != "--out" && arg != "--format" && arg != "--size" && arg != "--frames" &&
        arg != "--seconds") {
      std::fprintf(err, "mr740cam: unknown option %s\n%s", arg.c_str(), kUsage);
      return 2;
    }
    if (i + 1 >= argc || argv[i + 1][0] == '\0') {
      std::fprintf(err, "mr740cam: %s needs a value\n", arg.c_str());
      return 2;
    }
    const char* value = argv[++i];
    if (arg == "--out") {
      options->out = value;
    } else if (arg == "--format") {
      PictureFormat format;
      if (!PictureFormatFromName(value, &format)) {
        std::fprintf(err, "mr740cam: --format %s: the formats are RGB24, YUY2 and I420\n", value);
        return 2;
      }
      options->format = PictureFormatName(format);
    } else if (arg == "--size") {
      unsigned w = 0, h = 0;
      char tail = 0;
      if (std::sscanf(value, "%ux%u%c", &w, &h, &tail) != 2 || w == 0 || h == 0 || w > 16384 ||
          h > 16384) {
        std::fprintf(err, "mr740cam: --size %s: write the size as WxH, e.g. 640x480\n", value);
        return 2;
      }
      options->width = w;
      options->height = h;
    } else if (arg == "--frames") {
      if (!ParseCount(value, &options->frames)) {
        std::fprintf(err, "mr740cam: --frames %s: a count from 1 to 1000000\n", value);
        return 2;
      }
    } else if (arg == "--seconds") {
      char* end = nullptr;
      const double seconds = std::strtod(value, &end);
      if (*end != '\0' || !(seconds > 0) || seconds > 36000) {
        std::fprintf(err, "mr740cam: --seconds %s: a time above 0, up to 36000\n", value);
        return 2;
      }
      options->seconds = seconds;
    }
  }
  if (!EndsWith(options->out, ".png") && !EndsWith(options->out, ".y4m")) {
    std::fprintf(err, "mr740cam: --out %s: the file must end in .png (a picture) or .y4m (a video)\n",
                 options->out.c_str());
    return 2;
  }
  if (options->frames && options->seconds > 0) {
    std::fprintf(err, "mr740cam: give --frames or --seconds, not both\n");
    return 2;
  }
  if (options->still && EndsWith(options->out, ".y4m")) {
    std::fprintf(err, "mr740cam: --still takes one picture: write it to a .png file\n");
    return 2;
  }
  return 0;
}

bool Matches(const KS_DATARANGE_VIDEO& range, const CaptureOptions& options) {
  const KS_BITMAPINFOHEADER& bitmap = range.VideoInfoHeader.bmiHeader;
  if (!options.format.empty() && FormatSubtypeName(bitmap.biCompression) != options.format) {
    return false;
  }
  if (options.width &&
      (uint32_t(bitmap.biWidth) != options.width || uint32_t(bitmap.biHeight) != options.height)) {
    return false;
  }
  return true;
}

class Progress {
 public:
  Progress(FILE* err, uint64_t total) : err_(err), total_(total), shown_(total >= 60) {}
  void Frame(uint64_t done) {
    if (shown_ && (done % 10 == 0 || done == total_)) {
      std::fprintf(err_, "\rmr740cam: frame %llu of %llu", (unsigned long long)done,
                   (unsigned long long)total_);
      std::fflush(err_);
    }
  }
  ~Progress() {
    if (shown_) std::fputc('\n', err_);
  }

 private:
  FILE* err_;
  uint64_t total_;
  bool shown_;
};

// KSPROPERTY_VIDEOCONTROL_MODE_S.
struct VideoControlMode {
  KSPROPERTY Property;
  uint32_t StreamIndex;
  int32_t Mode;
};

constexpr uint32_t KSPROPERTY_VIDEOCONTROL_MODE = 3;
constexpr int32_t KS_VideoControlFlag_Trigger = 8;

class StreamRun {
 public:
  StreamRun(HostedCamera& host, uint32_t stream) : host_(host), stream_(stream) {}
  NTSTATUS Start(const KS_DATAFORMAT_VIDEOINFOHEADER& format) {
    NTSTATUS status = host_.OpenStream(stream_, format);
    if (status != STATUS_SUCCESS) return status;
    open_ = true;
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
      status = host_.SetStreamState(stream_, state);
      if (status != STATUS_SUCCESS) return status;
      state_ = state;
    }
    return STATUS_SUCCESS;
  }
  ~StreamRun() {
    // Down the states one by one, as a client leaves them.
    for (KSSTATE state : {KSSTATE_PAUSE, KSSTATE_ACQUIRE, KSSTATE_STOP}) {
      if (state < state_) {
        host_.SetStreamState(stream_, state);
        state_ = state;
      }
    }
    if (open_) host_.CloseStream(stream_);
  }

 private:
  HostedCamera& host_;
  uint32_t stream_;
  bool open_ = false;
  KSSTATE state_ = KSSTATE_STOP;
};

int Capture(const CaptureOptions& options, FILE* out, FILE* err) {
  VirtualTimeScope virtualTime;
  CameraSession session;
  if (!session.Open(options.session, err)) return 1;
  HostedCamera& host = session.Host();

  const std::vector<KS_DATARANGE_VIDEO> offers = host.Formats(0);
  const KS_DATARANGE_VIDEO* chosen = nullptr;
  for (const KS_DATARANGE_VIDEO& range : offers) {
    if (Matches(range, options)) {
      chosen = &range;
      break;
    }
  }
  if (!chosen) {
    char size[32] = "";
    if (options.width) std::snprintf(size, sizeof size, " %ux%u", options.width, options.height);
    std::fprintf(err, "mr740cam: the camera %s does not offer %s%s; it offers:\n",
                 session.Model().name.c_str(),
                 options.format.empty() ? "any format" : options.format.c_str(), size);
    for (const KS_DATARANGE_VIDEO& range : offers) {
      std::fprintf(err, "  %s\n", DescribeFormat(range).c_str());
    }
    return 2;
  }
  if (options.still && host.StreamCount() < 2) {
    std::fprintf(err, "mr740cam: the camera %s has no still pin\n", session.Model().name.c_str());
    return 2;
  }

  PictureLayout layout;
  const KS_BITMAPINFOHEADER& bitmap = chosen->VideoInfoHeader.bmiHeader;
  if (!PictureFormatFromCompression(bitmap.biCompression, &layout.format)) {
    std::fprintf(err, "mr740cam: the camera offers an unknown subtype %s\n",
                 FormatSubtypeName(bitmap.biCompression).c_str());
    return 1;
  }
  layout.width = uint32_t(bitmap.biWidth);
  layout.height = uint32_t(bitmap.biHeight);

  KS_DATAFORMAT_VIDEOINFOHEADER format;
  std::memset(&format, 0, sizeof format);
  NTSTATUS status = host.IntersectFormat(0, *chosen, &format);
  if (status != STATUS_SUCCESS) {
    std::fprintf(err, "mr740cam: the driver refused the format %s (%s)\n",
                 DescribeFormat(*chosen).c_str(), NtStatusName(status));
    return 1;
  }
  const int64_t interval = format.VideoInfoHeader.AvgTimePerFrame > 0
                               ? format.VideoInfoHeader.AvgTimePerFrame
                               : 333333;
  const bool video = EndsWith(options.out, ".y4m");
  uint64_t frames = options.frames;
  if (options.seconds > 0) {
    frames = std::max<uint64_t>(1, uint64_t(std::llround(options.seconds * 1e7 / double(interval))));
  }
  if (frames == 0) frames = video ? uint64_t(std::llround(1e7 / double(interval))) : 1;

  const uint32_t frameBytes = format.VideoInfoHeader.bmiHeader.biSizeImage;
  if (frameBytes < PictureFrameBytes(layout)) {
    std::fprintf(err, "mr740cam: the format's image size %u is below the picture's %zu bytes\n",
                 frameBytes, PictureFrameBytes(layout));
    return 1;
  }
  std::vector<uint8_t> buffer(frameBytes);

  StreamRun capture(host, 0);
  status = capture.Start(format);
  if (status != STATUS_SUCCESS) {
    std::fprintf(err, "mr740cam: the capture stream did not start (%s)\n", NtStatusName(status));
    return 1;
  }

  std::string error;
  HostFrame frame;
  if (options.still) {
    StreamRun still(host, 1);
    status = still.Start(format);
    if (status != STATUS_SUCCESS) {
      std::fprintf(err, "mr740cam: the still stream did not start (%s)\n", NtStatusName(status));
      return 1;
    }
    VideoControlMode trigger;
    std::memset(&trigger, 0, sizeof trigger);
    trigger.Property.Set = PROPSETID_VIDCAP_VIDEOCONTROL;
    trigger.Property.Id = KSPROPERTY_VIDEOCONTROL_MODE;
    trigger.Property.Flags = KSPROPERTY_TYPE_SET;
    trigger.StreamIndex = 1;
    trigger.Mode = KS_VideoControlFlag_Trigger;
    VideoControlMode data = trigger;
    uint32_t returned = 0;
    status = host.SetProperty(&trigger, sizeof trigger, &data, sizeof data, &returned);
    if (status != STATUS_SUCCESS) {
      // No software trigger: press the camera's button instead. A lens's
      // home switch takes the button's place.
      if (session.Model().lens == EmulatedLensKind::HomeSwitch) {
        std::fprintf(err, "mr740cam: the still trigger was refused (%s), and the camera's button "
                     "is its lens's home switch\n", NtStatusName(status));
        return 1;
      }
      // With a two-stage still the button is held until the still comes
      // (the monitor must read it down); a button still comes when it is let
      // go.
      const uint64_t now = session.Camera().FramesBegun();
      session.Camera().ScheduleButton(now + 1, true);
      if (host.Context()->StillPin != 2) session.Camera().ScheduleButton(now + 4, false);
    }
    status = host.ReadFrame(1, buffer.data(), frameBytes, &frame, kFrameTimeout100ns);
    session.Camera().SetButton(false);
    if (status != STATUS_SUCCESS) {
      std::fprintf(err, "mr740cam: no still picture came (%s)\n", NtStatusName(status));
      return 1;
    }
    if (!WritePngPicture(options.out, buffer.data(), frame.bytes, layout, &error)) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return 1;
    }
    std::fprintf(out, "mr740cam: %ux%u %s still picture from %s written to %s\n", layout.width,
                 layout.height, PictureFormatName(layout.format), session.Model().name.c_str(),
                 options.out.c_str());
    return 0;
  }

  // The first frames after a start may have begun before the sensor took its
  // new mode (a frame of the old size can pass the length test): like any
  // camera application, let them go by.
  for (int n = 0; n < kWarmUpFrames; ++n) {
    status = host.ReadFrame(0, buffer.data(), frameBytes, &frame, kFrameTimeout100ns);
    if (status != STATUS_SUCCESS) {
      std::fprintf(err, "mr740cam: the stream did not start (%s)\n", NtStatusName(status));
      return 1;
    }
  }

  Y4mWriter writer;
  if (video && !writer.Open(options.out, layout, &error)) {
    std::fprintf(err, "mr740cam: %s\n", error.c_str());
    return 1;
  }
  {
    Progress progress(err, frames);
    for (uint64_t n = 1; n <= frames; ++n) {
      status = host.ReadFrame(0, buffer.data(), frameBytes, &frame, kFrameTimeout100ns);
      if (status != STATUS_SUCCESS) {
        std::fprintf(err, "\nmr740cam: frame %llu did not come (%s)\n", (unsigned long long)n,
                     NtStatusName(status));
        return 1;
      }
      if (video && !writer.WriteFrame(buffer.data(), frame.bytes, &error)) {
        std::fprintf(err, "\nmr740cam: %s\n", error.c_str());
        return 1;
      }
      progress.Frame(n);
    }
  }
  if (video) {
    if (!writer.Close(&error)) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return 1;
    }
    std::fprintf(out, "mr740cam: %llu frames of %ux%u %s from %s written to %s\n",
                 (unsigned long long)frames, layout.width, layout.height,
                 PictureFormatName(layout.format), session.Model().name.c_str(),
                 options.out.c_str());
    return 0;
  }
  if (!WritePngPicture(options.out, buffer.data(), frame.bytes, layout, &error)) {
    std::fprintf(err, "mr740cam: %s\n", error.c_str());
    return 1;
  }
  std::fprintf(out, "mr740cam: %ux%u %s picture from %s written to %s\n", layout.width,
               layout.height, PictureFormatName(layout.format), session.Model().name.c_str(),
               options.out.c_str());
  return 0;
}

}  // namespace

bool IsCaptureToolCommand(const char* name) { return std::strcmp(name, "capture") == 0; }

int RunCaptureTool(int argc, char** argv, FILE* out, FILE* err) {
  CaptureOptions options;
  const int usage = ParseOptions(argc, argv, &options, err);
  if (usage != 0) return usage;
  return Capture(options, out, err);
}
