// Dark frame blanking: measured at the second frame of each 24-frame cycle,
// the verdict stands until the next measurement.

#include <gtest/gtest.h>

#include <vector>

#include "pipeline/frame_pipeline.h"
#include "tests/device_fixture.h"

namespace {

using Picture = std::vector<uint8_t>;

bool IsBlankRgb(const Picture& p) {
  if (p[0] != 1) return false;
  for (size_t i = 1; i < p.size(); ++i)
    if (p[i] != 0) return false;
  return true;
}

bool IsBlankYuyv(const Picture& p) {
  for (size_t i = 0; i < p.size(); ++i)
    if (p[i] != (i % 2 ? 128 : 16)) return false;
  return true;
}

// A picture whose byte mean (RGB24) or luma mean (YUY2) is exactly `mean`:
// values mean - 3 and mean + 3 alternate by pixel.
Picture PictureOfMean(bool rgb, uint32_t width, uint32_t height, uint8_t mean) {
  Picture p(size_t(width) * height * (rgb ? 3 : 2));
  const uint32_t bytesPerPixel = rgb ? 3 : 2;
  for (size_t i = 0; i < p.size(); ++i) {
    const size_t pixel = i / bytesPerPixel;
    const bool luma = rgb || i % 2 == 0;
    p[i] = luma ? uint8_t(pixel % 2 ? mean + 3 : mean - 3) : 200;
  }
  return p;
}

// Frames of a capture: frame f runs with FrameCounter f % 24. The picture at
// the measurement of frame 1 has `firstMean`; all later ones are bright.
// Returns the frames that came out blanked.
std::vector<int> BlankedFrames(bool rgb, uint32_t threshold, uint8_t firstMean, int frames) {
  const uint32_t width = 8, height = 6;
  TestDevice device;
  (rgb ? device->BlackBodyDarkRGB24 : device->BlackBodyDarkYUYV) = threshold;
  std::vector<int> blanked;
  for (int f = 0; f < frames; ++f) {
    device->FrameCounter = uint32_t(f % 24);
    Picture p = PictureOfMean(rgb, width, height, f <= 1 ? firstMean : 180);
    if (rgb) {
      BlankDarkFrameRgb(device.context, p.data(), width, height);
    } else {
      BlankDarkFrameYuyv(device.context, p.data(), width, height);
    }
    if (rgb ? IsBlankRgb(p) : IsBlankYuyv(p)) blanked.push_back(f);
  }
  return blanked;
}

std::vector<int> Range(int first, int last) {
  std::vector<int> r;
  for (int f = first; f <= last; ++f) r.push_back(f);
  return r;
}

TEST(DarkFrame, ALowMeanBlanksExactlyTwentyFourFrames) {
  const struct {
    const char* name;
    uint32_t threshold;
    uint8_t mean;
    std::vector<int> blanked;
  } cases[] = {
      {"mean 19 below threshold 20: frames 1 to 24", 20, 19, Range(1, 24)},
      {"mean equal to the threshold: never", 20, 20, {}},
      {"threshold 0: never", 0, 10, {}},
  };
  for (bool rgb : {true, false}) {
    for (const auto& c : cases) {
      EXPECT_EQ(BlankedFrames(rgb, c.threshold, c.mean, 60), c.blanked)
          << c.name << (rgb ? " (RGB24)" : " (YUY2)");
    }
  }
}

// The first frame of a capture has FrameCounter 0 and no measurement yet: a
// low mean left by the last capture does not blank it.
TEST(DarkFrame, TheFirstFrameOfACaptureIsNeverBlanked) {
  TestDevice device;
  device->BlackBodyDarkRGB24 = 50;
  device->DarkMeanRGB24 = 3;  // from an earlier capture
  device->DarkFrameMeasured = 0;
  device->FrameCounter = 0;
  Picture p = PictureOfMean(true, 4, 2, 10);
  const Picture before = p;
  BlankDarkFrameRgb(device.context, p.data(), 4, 2);
  EXPECT_EQ(p, before);
}

// Only the luma bytes count in YUY2: chroma of 255 with luma 10 is dark.
TEST(DarkFrame, YuyvMeasuresLumaOnly) {
  TestDevice device;
  device->BlackBodyDarkYUYV = 11;
  device->FrameCounter = 1;
  Picture p = {10, 255, 10, 255, 10, 255, 12, 255};  // luma sum 42 / 4 = 10
  BlankDarkFrameYuyv(device.context, p.data(), 4, 1);
  EXPECT_EQ(device->DarkMeanYUYV, 10u);
  EXPECT_EQ(p, (Picture{16, 128, 16, 128, 16, 128, 16, 128}));
}

// 1600 x 1200 of 255 sums to 1,468,800,000 and fits the 32-bit word.
TEST(DarkFrame, TheLargestPictureIsMeasuredWithoutOverflow) {
  TestDevice device;
  device->BlackBodyDarkRGB24 = 255;
  device->FrameCounter = 1;
  Picture p(1600 * 1200 * 3, 255);
  BlankDarkFrameRgb(device.context, p.data(), 1600, 1200);
  EXPECT_EQ(device->DarkMeanRGB24, 255u);
  EXPECT_EQ(p[0], 255) << "255 is not below 255";
}

}  // namespace
