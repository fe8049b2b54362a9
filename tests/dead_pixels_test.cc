// The dead pixel map: which planted samples each scan pass finds, when they
// are repaired along the 24-frame cycle, and what is left alone.

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "pipeline/frame_pipeline.h"
#include "tests/device_fixture.h"

namespace {

using Frame = std::vector<uint8_t>;

struct Plant {
  uint32_t x, y;  // byte column and row
  uint32_t pass;  // the scan pass whose quarter holds it
};

// Runs frames 0 .. last of a capture on fresh copies of `planted`, the frame
// counter cycling as the frame path drives it, and reports for each planted
// sample the first frame in which it came out repaired to `flat`, or -1.
std::vector<int> FirstRepairedFrame(DeviceContext* context, const Frame& planted, uint32_t width,
                                    uint32_t height, bool yuyv, const std::vector<Plant>& plants,
                                    uint32_t rowBytes, uint8_t flat, int last) {
  std::vector<int> first(plants.size(), -1);
  for (int frame = 0; frame <= last; ++frame) {
    context->FrameCounter = uint32_t(frame % 24);
    Frame raw = planted;
    if (yuyv) {
      RepairDeadPixelsYuyv(context, raw.data(), width, height);
    } else {
      RepairDeadPixelsBayer(context, raw.data(), width, height);
    }
    for (size_t i = 0; i < plants.size(); ++i) {
      const uint8_t value = raw[size_t(plants[i].y) * rowBytes + plants[i].x];
      if (value == flat && first[i] < 0) first[i] = frame;
      if (value != flat && first[i] >= 0) ADD_FAILURE() << "plant " << i << " came back";
    }
  }
  return first;
}

// Passes 0 and 1: even columns of the upper and lower half; 2 and 3: odd
// columns. The scan runs at frame 0, 24, 48, 72 of a capture, so a sample of
// pass p is repaired from frame 24 x p on, and all are gone after 96 frames.
TEST(DeadPixels, BayerSamplesAreRepairedInTheFramesOfTheirPass) {
  const uint32_t width = 24, height = 20;  // halves: rows 2..9 and 10..17
  const std::vector<Plant> plants = {{2, 2, 0}, {20, 9, 0}, {6, 10, 1}, {20, 17, 1},
                                     {3, 2, 2}, {21, 9, 2}, {3, 10, 3}, {11, 17, 3}};
  Frame planted(width * height, 100);
  for (const Plant& p : plants) planted[p.y * width + p.x] = 250;

  TestDevice device;
  device->DeadPixelRGB24 = 40;
  const std::vector<int> first =
      FirstRepairedFrame(device.context, planted, width, height, false, plants, width, 100, 100);
  for (size_t i = 0; i < plants.size(); ++i) {
    EXPECT_EQ(first[i], int(24 * plants[i].pass)) << "plant " << i;
  }
  EXPECT_EQ(device->DeadPixelCount[0] + device->DeadPixelCount[1] + device->DeadPixelCount[2] +
                device->DeadPixelCount[3],
            plants.size());
}

// YUYV: each pass takes one byte of the pixel pair over the whole frame: Y0,
// U, Y1, V.
TEST(DeadPixels, YuyvSamplesAreRepairedInTheFramesOfTheirComponentsPass) {
  const uint32_t width = 12, height = 8, line = width * 2;
  const std::vector<Plant> plants = {{4, 2, 0}, {17, 5, 1}, {10, 3, 2}, {19, 4, 3}};
  Frame planted(line * height);
  for (size_t i = 0; i < planted.size(); ++i) planted[i] = i % 2 ? 128 : 60;
  for (const Plant& p : plants) planted[p.y * line + p.x] = 0;

  TestDevice device;
  device->DeadPixelYUYV = 30;
  std::vector<int> first(plants.size(), -1);
  for (int frame = 0; frame < 96; ++frame) {
    device->FrameCounter = uint32_t(frame % 24);
    Frame raw = planted;
    RepairDeadPixelsYuyv(device.context, raw.data(), width, height);
    for (size_t i = 0; i < plants.size(); ++i) {
      const uint8_t flat = plants[i].x % 2 ? 128 : 60;
      if (raw[plants[i].y * line + plants[i].x] == flat && first[i] < 0) first[i] = frame;
    }
  }
  for (size_t i = 0; i < plants.size(); ++i) {
    EXPECT_EQ(first[i], int(24 * plants[i].pass)) << "plant " << i;
  }
}

// A sample is dead only when it differs by at least the threshold from all
// four same-colour neighbours; equal to the threshold counts.
TEST(DeadPixels, ASampleCloseToAnyOneNeighbourIsLeftAlone) {
  const uint32_t width = 16, height = 12;
  const uint32_t x = 6, y = 4;  // pass 0
  const struct {
    const char* name;
    int dx, dy;      // the neighbour made close, or 0, 0 for none
    uint8_t sample;  // value of the sample among neighbours of 100
    bool listed;
  } cases[] = {
      {"differs from all four", 0, 0, 150, true},
      {"difference equal to the threshold", 0, 0, 130, true},
      {"one below the threshold", 0, 0, 129, false},
      {"close to the right neighbour", 2, 0, 150, false},
      {"close to the left neighbour", -2, 0, 150, false},
      {"close to the one two rows up", 0, -2, 150, false},
      {"close to the one two rows down", 0, 2, 150, false},
  };
  for (const auto& c : cases) {
    Frame raw(width * height, 100);
    raw[y * width + x] = c.sample;
    if (c.dx != 0 || c.dy != 0) raw[(y + c.dy) * width + x + c.dx] = c.sample - 5;
    TestDevice device;
    device->DeadPixelRGB24 = 30;
    ScanDeadPixelsBayer(device.context, raw.data(), width, height);
    EXPECT_EQ(device->DeadPixelCount[0], c.listed ? 1u : 0u) << c.name;
    if (c.listed && device->DeadPixelCount[0] == 1) {
      EXPECT_EQ(device->DeadPixelOffsets[0][0], y * width + x) << c.name;
    }
    EXPECT_EQ(device->DeadPixelPass, 1u);
  }
}

// The repair takes the samples two widths up and down and four bytes to the
// side, whatever the form: in a YUYV frame that is one line up and down.
TEST(DeadPixels, RepairIsTheTruncatedMeanOfFourNeighbours) {
  const uint32_t width = 8, height = 6, line = 16;
  Frame raw(line * height, 0);
  const uint32_t o = 3 * line + 8;
  raw[o - line] = 10, raw[o + line] = 21, raw[o - 4] = 30, raw[o + 4] = 42;
  raw[o] = 255;
  TestDevice device;
  device->DeadPixelMapReady = 1;
  device->FrameCounter = 5;
  device->DeadPixelCount[2] = 1;
  device->DeadPixelOffsets[2][0] = o;
  RepairDeadPixelsYuyv(device.context, raw.data(), width, height);
  EXPECT_EQ(raw[o], (10 + 21 + 30 + 42) / 4);  // 103 / 4 = 25
}

// Without a threshold nothing is scanned and nothing repaired, whatever lists
// an earlier capture left; a later pass drops only its own list, the first
// pass of a capture all four.
TEST(DeadPixels, PassesRebuildOnlyTheirOwnListAfterTheFirst) {
  const uint32_t width = 16, height = 12;
  Frame raw(width * height, 100);
  raw[4 * width + 6] = 200;  // dead, in pass 0's quarter
  TestDevice device;
  for (uint32_t p = 0; p < 4; ++p) device->DeadPixelCount[p] = 7;
  device->DeadPixelOffsets[0][0] = 4 * width + 6;

  device->FrameCounter = 0;
  Frame copy = raw;
  RepairDeadPixelsBayer(device.context, copy.data(), width, height);
  EXPECT_EQ(copy, raw) << "threshold 0: no scan, no repair";
  EXPECT_EQ(device->DeadPixelMapReady, 0);

  device->DeadPixelRGB24 = 50;
  device->DeadPixelPass = 4;  // after pass 3: round to pass 0, only its list
  ScanDeadPixelsBayer(device.context, raw.data(), width, height);
  EXPECT_EQ(device->DeadPixelCount[0], 1u);
  EXPECT_EQ(device->DeadPixelCount[1], 7u);
  EXPECT_EQ(device->DeadPixelPass, 1u);

  device->DeadPixelPass = 0;  // capture start
  ScanDeadPixelsBayer(device.context, raw.data(), width, height);
  EXPECT_EQ(device->DeadPixelCount[0], 1u);
  for (uint32_t p = 1; p < 4; ++p) EXPECT_EQ(device->DeadPixelCount[p], 0u) << p;
}

// A same-colour checkerboard makes every sample dead: pass 0 of a 1280 x 240
// frame tests 638 x 118 = 75,284 of them and stops at 65,536 entries.
TEST(DeadPixels, APassStopsWhenItsListIsFull) {
  const uint32_t width = 1280, height = 240;
  Frame raw(width * height);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x) raw[y * width + x] = ((x / 2 + y / 2) % 2) ? 255 : 0;
  TestDevice device;
  device->DeadPixelRGB24 = 100;
  ScanDeadPixelsBayer(device.context, raw.data(), width, height);
  EXPECT_EQ(device->DeadPixelCount[0], DeadPixelMaxEntries);
  // Row by row from row 2, column 2: entry i is sample i of that order.
  const uint32_t last = DeadPixelMaxEntries - 1;
  EXPECT_EQ(device->DeadPixelOffsets[0][last], (2 + last / 638) * width + 2 + 2 * (last % 638));
}

// Too small for any sample: the pass counts, finds nothing, reads nothing.
TEST(DeadPixels, FramesTooSmallForTheMarginFindNothing) {
  const Frame raw(5 * 5 * 2, 0);
  TestDevice device;
  device->DeadPixelRGB24 = device->DeadPixelYUYV = 1;
  ScanDeadPixelsBayer(device.context, raw.data(), 5, 5);
  ScanDeadPixelsYuyv(device.context, raw.data(), 5, 4);
  EXPECT_EQ(device->DeadPixelCount[0] + device->DeadPixelCount[1], 0u);
  EXPECT_EQ(device->DeadPixelPass, 2u);
}

}  // namespace
