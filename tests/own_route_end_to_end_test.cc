// The own route end to end: the OV2640 camera, whose frames the driver
// develops itself, streams an emulated scene through the capture host. Dead
// pixels of the sensor are gone from the pictures once the four scan passes
// have run (96 frames), and a dark scene is blanked.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "emulator/scene.h"
#include "host/capture_host.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/kernel_test_clock.h"
#include "tools/camera_catalog.h"
#include "tools/camera_models.h"

namespace {

constexpr int64_t kFrameTimeout100ns = 50000000;
constexpr uint32_t kWidth = 320, kHeight = 240;

void IgnoreLine(void*, const char*) {}

// The OV2640 description (DeadPixelRGB24 48, BlackBodyDarkRGB24 12) streaming
// `sceneText` as RGB24 at 320 x 240, with a same-size Bayer wire.
class Ov2640Capture {
 public:
  explicit Ov2640Capture(const std::string& sceneText) {
    SetDebugPrintSink(IgnoreLine, nullptr);
    drive_ =
        std::filesystem::temp_directory_path() / ("mr740-own-route-" + std::to_string(::getpid()));
    ResetRegistry();
    InstallEmbeddedCamera("ov2640-camera", drive_.string(), stderr);
    MapDosDrive('C', drive_.string());
    const CameraModel* model = FindBuiltInCameraModel("ov2640-camera");
    if (!model) {
      error_ = "no ov2640-camera model";
      return;
    }
    SceneConfig scene;
    if (!ParseSceneText(sceneText, &scene, &error_)) return;
    EmulatedCameraConfig cameraConfig = EmulatedCameraConfigFor(*model);
    cameraConfig.frameSource = MakeSceneSource(scene, &error_);
    if (!cameraConfig.frameSource) return;
    camera_ = std::make_unique<EmulatedCamera>(cameraConfig);
    HostedCameraConfig config;
    config.camera = camera_.get();
    config.deviceKeyPath = DeviceSoftwareKeyPath(model->instance);
    if (HostedCamera::Start(config, &host_, &error_) != STATUS_SUCCESS || !host_) {
      error_ = "start: " + error_;
      return;
    }
    KS_DATAFORMAT_VIDEOINFOHEADER format{};
    bool found = false;
    for (const KS_DATARANGE_VIDEO& range : host_->Formats(0)) {
      const KS_BITMAPINFOHEADER& b = range.VideoInfoHeader.bmiHeader;
      if (b.biCompression == CompressionRGB24 && uint32_t(b.biWidth) == kWidth &&
          uint32_t(b.biHeight) == kHeight) {
        found = host_->IntersectFormat(0, range, &format) == STATUS_SUCCESS;
        break;
      }
    }
    if (!found || host_->OpenStream(0, format) != STATUS_SUCCESS) {
      error_ = "RGB24 320x240 not opened";
      return;
    }
    open_ = true;
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
      if (host_->SetStreamState(0, state) != STATUS_SUCCESS) {
        error_ = "stream state";
        return;
      }
      state_ = state;
    }
    frame_.resize(format.VideoInfoHeader.bmiHeader.biSizeImage);
  }

  ~Ov2640Capture() {
    if (host_) {
      for (KSSTATE state : {KSSTATE_PAUSE, KSSTATE_ACQUIRE, KSSTATE_STOP}) {
        if (state < state_) host_->SetStreamState(0, state);
      }
      if (open_) host_->CloseStream(0);
    }
    host_.reset();
    JoinSystemThreads(10000);
    camera_.reset();
    MapDosDrive('C', "");
    std::error_code ignored;
    std::filesystem::remove_all(drive_, ignored);
    SetDebugPrintSink(nullptr, nullptr);
  }

  const std::string& Error() const { return error_; }

  // The next picture delivered whole (the blank frame after the stream open
  // comes with no byte count and is passed over).
  bool Next() {
    for (int tries = 0; tries < 4; ++tries) {
      HostFrame frame;
      if (host_->ReadFrame(0, frame_.data(), uint32_t(frame_.size()), &frame, kFrameTimeout100ns) !=
          STATUS_SUCCESS) {
        return false;
      }
      if (frame.bytes == frame_.size()) return true;
    }
    return false;
  }
  const std::vector<uint8_t>& Picture() const { return frame_; }

 private:
  VirtualClock clock_;  // first: restored after everything else is gone
  std::filesystem::path drive_;
  std::string error_;
  std::unique_ptr<EmulatedCamera> camera_;
  std::unique_ptr<HostedCamera> host_;
  bool open_ = false;
  KSSTATE state_ = KSSTATE_STOP;
  std::vector<uint8_t> frame_;
};

int LargestDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  int largest = 0;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
    const int d = std::abs(int(a[i]) - int(b[i]));
    if (d > largest) largest = d;
  }
  return largest;
}

// Still colour bars; four samples stuck at 255 inside a bar (75 % bars: no
// sample above 191), one in each quarter the scan passes take: even and odd
// columns, upper and lower half.
constexpr const char* kStillBars = "bars,speed=0";
constexpr const char* kDeadPixels =
    ",dead=140:60:255,dead=140:140:255,dead=141:60:255,dead=141:140:255";

TEST(OwnRouteEndToEndThreads, DeadPixelsAreGoneAfterNinetySixFrames) {
  // The still scene without dead pixels; the scan finds nothing there.
  std::vector<uint8_t> clean;
  {
    Ov2640Capture capture(kStillBars);
    ASSERT_EQ(capture.Error(), "");
    for (int i = 0; i < 12; ++i) ASSERT_TRUE(capture.Next()) << "frame " << i;
    clean = capture.Picture();
  }
  Ov2640Capture capture(std::string(kStillBars) + kDeadPixels);
  ASSERT_EQ(capture.Error(), "");
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(capture.Next()) << "frame " << i;
    if (i == 11) {
      // Only pass 0 has run: three of the specks still show.
      EXPECT_GE(LargestDifference(capture.Picture(), clean), 40) << "frame " << i;
    }
    if (i >= 97) {
      // Every speck replaced by the mean of its neighbours: within a few
      // levels of the clean picture (the bars ramp from line to line).
      EXPECT_LE(LargestDifference(capture.Picture(), clean), 12) << "frame " << i;
    }
  }
}

// With the light off from frame 4 to 28 the picture falls below the
// threshold: it is blanked (first byte 1, all else 0) from the next
// measurement on, for whole cycles of 24 frames, and never before the dark.
TEST(OwnRouteEndToEndThreads, ADarkSceneIsBlanked) {
  Ov2640Capture capture(std::string(kStillBars) + ",dark=off@4-28");
  ASSERT_EQ(capture.Error(), "");
  std::vector<int> blanked;
  for (int i = 0; i < 60; ++i) {
    ASSERT_TRUE(capture.Next()) << "frame " << i;
    const std::vector<uint8_t>& p = capture.Picture();
    bool blank = p[0] == 1;
    for (size_t k = 1; k < p.size() && blank; ++k) blank = p[k] == 0;
    if (blank) blanked.push_back(i);
  }
  ASSERT_FALSE(blanked.empty());
  EXPECT_GE(blanked.front(), 2) << "blanked before the dark";
  EXPECT_EQ(blanked.size() % 24, 0u) << "whole cycles";
  EXPECT_EQ(blanked.back() - blanked.front() + 1, int(blanked.size())) << "one run";
}

}  // namespace
