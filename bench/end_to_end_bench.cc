// The whole camera, end to end: the emulated camera streams, the capture
// host pumps its packets through the driver's packet routine and completes
// client buffers through its frame routine. Frames a second (as items), the
// process's CPU time per frame, and the real time from the device's start to
// its first frame, with the worker's real pauses. Frames a second are counted
// in real time: the host's threads do the work, not the benchmark's.
//
// 640x480 YUY2 and 1600x1200 RGB24, each on a camera whose frames the driver
// develops itself (the OV7670 webcam, the OV2640 camera) and on the MI2021
// camera, whose frames the image library develops; a memcpy of the same
// output size runs beside them.

#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/capture_host.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tools/camera_catalog.h"
#include "tools/camera_models.h"

namespace {

constexpr int64_t kFrameTimeout100ns = 50000000;

// FNV-1a over a sample of the picture: a fast but wrong build shows here.
uint32_t Checksum(const std::vector<uint8_t>& bytes) {
  uint32_t hash = 2166136261u;
  for (size_t i = 0; i < bytes.size(); i += 61) hash = (hash ^ bytes[i]) * 16777619u;
  return hash;
}

// A picture of one value everywhere is what a broken pipeline delivers.
bool HasPicture(const std::vector<uint8_t>& bytes) {
  for (uint8_t b : bytes) {
    if (b != bytes[0]) return true;
  }
  return false;
}

double ProcessCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

// The built-in descriptions, installed once into the process's registry with
// their scripts on a drive C of their own.
void IgnoreLine(void*, const char*) {}

void InstallCameras() {
  static bool installed = [] {
    SetDebugPrintSink(IgnoreLine, nullptr);  // the driver's log would drown the table
    const std::filesystem::path drive =
        std::filesystem::temp_directory_path() / ("mr740-bench-" + std::to_string(::getpid()));
    for (const CameraModel& model : BuiltInCameraModels()) {
      InstallEmbeddedCamera(model.name, drive.string(), stderr);
    }
    MapDosDrive('C', drive.string());
    return true;
  }();
  (void)installed;
}

// One started camera with one running capture stream of the wanted format.
class Rig {
 public:
  Rig(const char* modelName, uint32_t compression, uint32_t w, uint32_t h) {
    InstallCameras();
    const CameraModel* model = FindBuiltInCameraModel(modelName);
    if (!model) {
      error_ = std::string("no model ") + modelName;
      return;
    }
    camera_ = std::make_unique<EmulatedCamera>(EmulatedCameraConfigFor(*model));
    HostedCameraConfig config;
    config.camera = camera_.get();
    config.deviceKeyPath = DeviceSoftwareKeyPath(model->instance);
    NTSTATUS status = HostedCamera::Start(config, &host_, &error_);
    if (status != STATUS_SUCCESS || !host_) {
      error_ = std::string("start: ") + NtStatusName(status) + " " + error_;
      return;
    }
    const KS_DATARANGE_VIDEO* chosen = nullptr;
    const std::vector<KS_DATARANGE_VIDEO> formats = host_->Formats(0);
    for (const KS_DATARANGE_VIDEO& range : formats) {
      const KS_BITMAPINFOHEADER& b = range.VideoInfoHeader.bmiHeader;
      if (b.biCompression == compression && uint32_t(b.biWidth) == w &&
          uint32_t(b.biHeight) == h) {
        chosen = &range;
        break;
      }
    }
    if (!chosen) {
      error_ = std::string(modelName) + " does not offer the format";
      return;
    }
    KS_DATAFORMAT_VIDEOINFOHEADER format{};
    if ((status = host_->IntersectFormat(0, *chosen, &format)) != STATUS_SUCCESS ||
        (status = host_->OpenStream(0, format)) != STATUS_SUCCESS) {
      error_ = std::string("open: ") + NtStatusName(status);
      return;
    }
    open_ = true;
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
      if ((status = host_->SetStreamState(0, state)) != STATUS_SUCCESS) {
        error_ = std::string("run: ") + NtStatusName(status);
        return;
      }
      state_ = state;
    }
    frame_.resize(format.VideoInfoHeader.bmiHeader.biSizeImage);
  }
  ~Rig() {
    if (host_) {
      for (KSSTATE state : {KSSTATE_PAUSE, KSSTATE_ACQUIRE, KSSTATE_STOP}) {
        if (state < state_) host_->SetStreamState(0, state);
      }
      if (open_) host_->CloseStream(0);
    }
    host_.reset();
    JoinSystemThreads(10000);
    camera_.reset();
  }
  const std::string& Error() const { return error_; }
  bool ReadFrame() {
    HostFrame frame;
    return host_->ReadFrame(0, frame_.data(), uint32_t(frame_.size()), &frame,
                            kFrameTimeout100ns) == STATUS_SUCCESS &&
           frame.bytes == frame_.size();
  }
  const std::vector<uint8_t>& Frame() const { return frame_; }

 private:
  std::string error_;
  std::unique_ptr<EmulatedCamera> camera_;
  std::unique_ptr<HostedCamera> host_;
  bool open_ = false;
  KSSTATE state_ = KSSTATE_STOP;
  std::vector<uint8_t> frame_;
};

void BM_EndToEnd(benchmark::State& state, const char* model, uint32_t compression, uint32_t w,
                 uint32_t h) {
  SetKernelClockMode(KernelClockMode::Virtual);
  Rig rig(model, compression, w, h);
  if (!rig.Error().empty()) {
    state.SkipWithError(rig.Error().c_str());
    return;
  }
  // The first frames before timing: delivered whole, and a picture.
  for (int i = 0; i < 3; ++i) {
    if (!rig.ReadFrame()) {
      state.SkipWithError("frame not delivered");
      return;
    }
  }
  if (!HasPicture(rig.Frame())) {
    state.SkipWithError("the frame is one value everywhere");
    return;
  }
  state.counters["checksum"] = double(Checksum(rig.Frame()));
  const double cpuBefore = ProcessCpuSeconds();
  for (auto _ : state) {
    if (!rig.ReadFrame()) {
      state.SkipWithError("frame not delivered");
      break;
    }
    benchmark::DoNotOptimize(rig.Frame().data());
  }
  const double cpu = ProcessCpuSeconds() - cpuBefore;
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(rig.Frame().size()));
  state.counters["cpu_ms_per_frame"] =
      state.iterations() ? 1e3 * cpu / double(state.iterations()) : 0.0;
}

void BM_MemcpyOfFrame(benchmark::State& state, uint32_t bytes) {
  std::vector<uint8_t> source(bytes), destination(bytes);
  for (size_t i = 0; i < source.size(); ++i) source[i] = uint8_t(i * 13);
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), source.size());
    benchmark::ClobberMemory();
  }
  if (std::memcmp(destination.data(), source.data(), bytes) != 0) {
    state.SkipWithError("memcpy differs");
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

// Real time from the device's start (SRB_INITIALIZE_DEVICE) until the first
// frame is in the client's buffer: the driver's start-up, the worker's
// capture start with its real pauses, and the first frame on the bus.
void BM_StartToFirstFrame(benchmark::State& state, const char* model, uint32_t compression,
                          uint32_t w, uint32_t h) {
  SetKernelClockMode(KernelClockMode::Real);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    Rig rig(model, compression, w, h);
    if (!rig.Error().empty() || !rig.ReadFrame()) {
      state.SkipWithError(rig.Error().empty() ? "no first frame" : rig.Error().c_str());
      break;
    }
    const auto first = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(first - start).count());
    if (!HasPicture(rig.Frame())) {
      state.SkipWithError("the first frame is one value everywhere");
      break;
    }
  }
  SetKernelClockMode(KernelClockMode::Virtual);
}

constexpr uint32_t kRGB24 = 0xE436EB7D;
constexpr uint32_t kYUY2 = 0x32595559;

BENCHMARK_CAPTURE(BM_EndToEnd, YUY2_640x480_ov7670, "ov7670-webcam", kYUY2, 640, 480)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EndToEnd, YUY2_640x480_mi2021, "mi2021-camera", kYUY2, 640, 480)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MemcpyOfFrame, YUY2_640x480, 640 * 480 * 2);
BENCHMARK_CAPTURE(BM_EndToEnd, RGB24_1600x1200_ov2640, "ov2640-camera", kRGB24, 1600, 1200)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EndToEnd, RGB24_1600x1200_mi2021, "mi2021-camera", kRGB24, 1600, 1200)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_MemcpyOfFrame, RGB24_1600x1200, 1600 * 1200 * 3);
BENCHMARK_CAPTURE(BM_StartToFirstFrame, YUY2_640x480_ov7670, "ov7670-webcam", kYUY2, 640, 480)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
