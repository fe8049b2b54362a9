// The emulated lens motor: coil patterns on controller register 0, end stops,
// the home switch in register 7 and in the packet header, and the driver's
// home search. The picture's blur is checked with the built-in picture.

#include <gtest/gtest.h>

#include <cstdlib>
#include <tuple>
#include <vector>

#include "emulator/emulated_camera.h"
#include "tests/emulator_test_helpers.h"

namespace {

using namespace emutest;

EmulatedCameraConfig LensCamera(EmulatedLensKind kind, int32_t start = 60) {
  EmulatedCameraConfig config = WithSensor(EmulatedSensorKind::OV7670);
  config.lens = kind;
  config.lensStartPosition = start;
  return config;
}

TEST(EmulatedLens, CoilPatternsStepTheMotor) {
  // At 60 the rotor rests on phase 3. Phase bits go to register bits 1, 2, 3
  // and 7: phase 3 is 0x06, 6 is 0x0C, 12 is 0x88, 9 is 0x82.
  struct Case {
    const char* name;
    uint8_t enable;               // register 6
    std::vector<uint8_t> writes;  // register 0
    int32_t moved;
    uint64_t stalls;
  } const cases[] = {
      {"four steps forward", 0x8E, {0x4C, 0xC8, 0xC2, 0x46}, 4, 0},
      {"three steps back from phase 3", 0x8E, {0xC2, 0xC8, 0x4C}, -3, 0},
      {"released coils hold, then a step", 0x8E, {0x40, 0x4C}, 1, 0},
      {"the opposite phase is a stall", 0x8E, {0xC8}, 0, 1},
      {"one coil does nothing", 0x8E, {0x42, 0x4C}, 1, 0},
      {"outputs not enabled", 0x20, {0x4C, 0xC8, 0xC2, 0x46}, 0, 0},
      {"same pattern twice is one step", 0x8E, {0x4C, 0x4C, 0x5C}, 1, 0},
  };
  for (const Case& c : cases) {
    EmulatedCamera cam(LensCamera(EmulatedLensKind::NoHomeSwitch));
    ASSERT_EQ(Write(cam, 0, 6, c.enable), STATUS_SUCCESS);
    for (uint8_t value : c.writes) ASSERT_EQ(Write(cam, 0, 0, value), STATUS_SUCCESS);
    EXPECT_EQ(std::pair(cam.LensPosition(), cam.LensStalls()), std::pair(60 + c.moved, c.stalls))
        << c.name;
  }
  // Enabling the outputs after the pattern is written drives it then.
  EmulatedCamera cam(LensCamera(EmulatedLensKind::NoHomeSwitch));
  ASSERT_EQ(Write(cam, 0, 0, 0x4C), STATUS_SUCCESS);
  ASSERT_EQ(cam.LensPosition(), 60);
  ASSERT_EQ(Write(cam, 0, 6, 0x8E), STATUS_SUCCESS);
  EXPECT_EQ(cam.LensPosition(), 61);
}

// Steps as the driver's MoveLens sends them, outside command 3 (base byte
// 0x40); `phase` is the driver's MotorPhase.
void DriverMove(EmulatedCamera& cam, int steps, uint8_t* phase) {
  const int count = std::abs(steps);
  for (int i = 0; i < count; ++i) {
    if (steps > 0) {
      *phase = *phase == 3 ? 6 : *phase == 6 ? 12 : *phase == 12 ? 9 : *phase == 9 ? 3 : 12;
    } else {
      *phase = *phase == 3 ? 9 : *phase == 9 ? 12 : *phase == 12 ? 6 : *phase == 6 ? 3 : 12;
    }
    uint8_t value = 0x40;
    if (*phase & 1) value |= 0x02;
    if (*phase & 2) value |= 0x04;
    if (*phase & 4) value |= 0x08;
    if (*phase & 8) value |= 0x80;
    Write(cam, 0, 0, value);
  }
}

TEST(EmulatedLens, EndStopsHoldTheLens) {
  for (const auto& [start, steps, end] :
       {std::tuple{2, -6, 0}, {148, 6, 150}, {0, -3, 0}, {150, -4, 146}}) {
    EmulatedCamera cam(LensCamera(EmulatedLensKind::NoHomeSwitch, start));
    ASSERT_EQ(Write(cam, 0, 6, 0x8E), STATUS_SUCCESS);
    uint8_t phase = uint8_t((const uint8_t[]){3, 6, 12, 9}[start % 4]);  // the rotor's phase
    DriverMove(cam, steps, &phase);
    EXPECT_EQ(cam.LensPosition(), end) << start << " by " << steps;
  }
}

TEST(EmulatedLens, HomeSwitchShowsInRegisterSevenAndTheHeader) {
  struct Case {
    EmulatedLensKind kind;
    int32_t position;
    bool button, register7Bit0, headerFlag;
  } const cases[] = {
      {EmulatedLensKind::HomeSwitch, 139, false, true, false},
      {EmulatedLensKind::HomeSwitch, 140, false, false, true},
      // On such a camera the button has no line of its own.
      {EmulatedLensKind::HomeSwitch, 60, true, true, false},
      {EmulatedLensKind::NoHomeSwitch, 150, false, false, false},
      {EmulatedLensKind::NoHomeSwitch, 150, true, true, true},
  };
  for (const Case& c : cases) {
    EmulatedCamera cam(LensCamera(c.kind, c.position));
    cam.SetButton(c.button);
    uint8_t r7 = 0;
    ASSERT_EQ(Read(cam, 0, 7, &r7), STATUS_SUCCESS);
    EXPECT_EQ((r7 & 1) != 0, c.register7Bit0) << int(c.kind) << " at " << c.position;
    EXPECT_EQ(cam.LensHomeSwitchClosed(), c.kind == EmulatedLensKind::HomeSwitch && c.headerFlag);
    ASSERT_EQ(Write(cam, 0x42, 0x12, 0x10), STATUS_SUCCESS);
    ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
    CollectedFrame frame;
    uint64_t pulled = 0;
    ASSERT_TRUE(CollectFrame(cam, &frame, &pulled));
    EXPECT_EQ((frame.flagsOr & 0x20) != 0, c.headerFlag) << int(c.kind) << " at " << c.position;
  }
}

// The driver's home search with the switch read from register 7 (bit 0 clear
// is closed): in from the switch by 20 if it is closed, then forward a step
// at a time until it closes, then back 104, which must open it.
bool DriverFindLensHome(EmulatedCamera& cam, uint8_t* phase) {
  auto closed = [&]() {
    uint8_t r7 = 0xFF;
    Read(cam, 0, 7, &r7);
    return (r7 & 1) == 0;
  };
  if (closed()) {
    DriverMove(cam, -20, phase);
    if (closed()) return false;
  }
  for (int i = 0; i < 150; ++i) {
    DriverMove(cam, 1, phase);
    if (closed()) {
      DriverMove(cam, -104, phase);
      return !closed();
    }
  }
  return false;
}

TEST(EmulatedLens, DriverHomeSearchFindsTheSwitchFromAnywhere) {
  for (int32_t start : {0, 60, 139, 140, 150}) {
    EmulatedCamera cam(LensCamera(EmulatedLensKind::HomeSwitch, start));
    // Lens start-up: the coil bits become outputs and are all set.
    ASSERT_EQ(Write(cam, 0, 6, 0xAE), STATUS_SUCCESS);
    ASSERT_EQ(Write(cam, 0, 0, 0x8E), STATUS_SUCCESS);
    uint8_t phase = 0;  // the driver's MotorPhase after CamInitialize
    EXPECT_TRUE(DriverFindLensHome(cam, &phase)) << "from " << start;
    EXPECT_FALSE(cam.LensHomeSwitchClosed()) << "from " << start;
    // 104 steps back from where the switch closes, give or take the step
    // the first pattern loses.
    EXPECT_NEAR(cam.LensPosition(), 140 - 104, 1) << "from " << start;
  }
}

}  // namespace
