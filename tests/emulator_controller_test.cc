// The emulated controller: its vendor requests in their wire forms, its
// registers, the serial bus dialects of the sensors and their read forms.

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "emulator/emulated_camera.h"
#include "platform/kernel_control.h"
#include "tests/emulator_test_helpers.h"
#include "tests/kernel_test_clock.h"

namespace {

using namespace emutest;
using K = EmulatedSensorKind;

// Forms the other tests do not use.
TEST(EmulatedController, RequestsAnswerInTheirWireForms) {
  const NTSTATUS ok = STATUS_SUCCESS, bad = STATUS_UNSUCCESSFUL;
  // name, request, value, index, in, data length (-1: no data stage), status
  const std::tuple<const char*, uint8_t, uint16_t, uint16_t, bool, int, NTSTATUS> cases[] = {
      {"write to an empty bus address", 1, 0x5011, 0x12, false, -1, bad},
      {"write with data", 1, 0x0020, 6, false, 1, bad},
      {"write above 255", 1, 0x0020, 0x0106, false, -1, bad},
      {"read without data", 2, 0x0000, 4, true, -1, bad},
      {"read as out", 2, 0x0000, 4, false, 1, bad},
      {"pair list with no pairs", 3, 0x6000, 0x0200, false, 0, ok},
      {"list form unknown", 3, 0x6000, 0x0600, false, 4, bad},
      {"streaming value 2", 5, 2, 0, false, -1, bad},
      {"memory read too short", 6, 0x0040, 0, true, 63, bad},
      {"memory write on a boundary, index 1", 6, 0x0040, 1, false, -1, bad},
      {"memory write off a boundary with data", 6, 0x0041, 0, false, 64, bad},
      {"wide read form 1", 8, 0x6001, 0x12, true, 2, ok},
      {"wide read form 4", 8, 0x6004, 0x12, true, 2, bad},
      {"wide read of the controller", 8, 0x0001, 0x0012, true, 2, bad},
      {"request 0", 0, 0, 0, false, -1, bad},
      {"request 4", 4, 0, 0, false, -1, bad},
      {"request 12", 12, 0, 0, false, -1, bad},
      {"request 255", 255, 0, 0, false, -1, bad},
  };
  for (const auto& [name, request, value, index, in, size, status] : cases) {
    EmulatedCamera cam;  // OV2640 at 0x60 on a revision-2 chip
    uint8_t buffer[64] = {};
    uint32_t length = size < 0 ? 0 : uint32_t(size);
    EXPECT_EQ(cam.ControlTransfer(request, value, index, buffer, size < 0 ? nullptr : &length, in),
              status)
        << name;
  }
}

TEST(EmulatedController, WritesReachTheRegisterTheyName) {
  EmulatedCamera cam;
  ASSERT_EQ(cam.ControlTransfer(1, 0x0020, 6, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_EQ(cam.PeekControllerRegister(6), 0x20);
  // 0xAB to register 0x12 of bus 0x60 (the OV2640 starts in its DSP bank).
  ASSERT_EQ(cam.ControlTransfer(1, 0x60AB, 0x0012, nullptr, nullptr, false), STATUS_SUCCESS);
  uint16_t value = 0;
  ASSERT_TRUE(cam.PeekSensorRegister(0x60, 0x0012, &value));
  EXPECT_EQ(value, 0xAB);
  // A pair list and a burst on bus 0 write controller registers.
  ASSERT_EQ(Send(cam, 3, 0x0000, 0x0200, {0x20, 0x80, 0x21, 0x02, 0x24, 0x01}), STATUS_SUCCESS);
  ASSERT_EQ(Send(cam, 3, 0x0000, 0x0022, {0xE0, 0x01}), STATUS_SUCCESS);
  // An odd pair list is refused and writes nothing.
  EXPECT_EQ(Send(cam, 3, 0x0000, 0x0200, {0x30, 0x01, 0x31}), STATUS_UNSUCCESSFUL);
  std::vector<uint8_t> registers;
  for (uint8_t r : {0x20, 0x21, 0x22, 0x23, 0x24, 0x30})
    registers.push_back(cam.PeekControllerRegister(r));
  EXPECT_EQ(registers, (std::vector<uint8_t>{0x80, 0x02, 0xE0, 0x01, 0x01, 0x00}));
  EXPECT_FALSE(cam.StartupEnded());
  ASSERT_EQ(cam.ControlTransfer(11, 0, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_TRUE(cam.StartupEnded()) << "request 11 ends the start-up";
}

TEST(EmulatedController, InputBitsOfTheControllerRegistersFollowTheCamera) {
  auto read = [](EmulatedCamera& cam, uint8_t reg) {
    uint8_t value = 0xEE;
    EXPECT_EQ(Read(cam, 0, reg, &value), STATUS_SUCCESS);
    return value;
  };
  // Register 4 bit 2 is set at full speed, whatever the configuration says.
  for (const auto& [highSpeed, register4, expected] : {std::tuple{true, 0x00, 0x00},
                                                       {false, 0x00, 0x04},
                                                       {false, 0x05, 0x05},
                                                       {true, 0x04, 0x00}}) {
    EmulatedCameraConfig config;
    config.highSpeed = highSpeed;
    config.register4 = uint8_t(register4);
    EmulatedCamera cam(config);
    EXPECT_EQ(read(cam, 4), expected) << "high speed " << highSpeed << ", r4 " << register4;
  }
  EmulatedCamera cam;
  // Register 0 bit 4 is the orientation input; a write of that bit does nothing.
  ASSERT_EQ(Write(cam, 0, 0, 0x30), STATUS_SUCCESS);
  EXPECT_EQ(read(cam, 0), 0x20);
  cam.SetOrientationInput(true);
  EXPECT_EQ(read(cam, 0), 0x30);
  // Register 7 bit 0 is the button; the software bus lines read high while
  // nothing drives them, and as written once they are driven.
  EXPECT_EQ(read(cam, 7), 0x60);
  cam.SetButton(true);
  EXPECT_EQ(read(cam, 7), 0x61);
  ASSERT_EQ(Write(cam, 0, 13, 0x6A), STATUS_SUCCESS);
  ASSERT_EQ(Write(cam, 0, 7, 0x00), STATUS_SUCCESS);
  EXPECT_EQ(read(cam, 7), 0x01);
}

// The slow sensors answer a one-step read, or a second step without a
// first, with the byte of the last read; the fast ones with the register.
TEST(EmulatedController, SlowSensorsAnswerTheByteOfTheLastTwoStepRead) {
  struct Case {
    EmulatedSensorKind kind;
    uint16_t bcdDevice;
    uint8_t bus, page, first, firstData, second, secondData;  // page 0: none
    bool slow;
  };  // the controller's own registers never need two steps
  const Case cases[] = {{K::OV7670, 0x0100, 0x42, 0, 0x0A, 0x76, 0x0B, 0x73, false},
                        {K::OV2640, 0x0200, 0x60, 0x01, 0x0A, 0x26, 0x0B, 0x42, true},
                        {K::MI2020, 0x0100, 0x7A, 0, 0x00, 0x15, 0xF0, 0x19, true},
                        {K::MI2021, 0x0200, 0x78, 0, 0x00, 0x15, 0xF0, 0x80, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(int(c.kind));
    EmulatedCamera cam(WithSensor(c.kind, c.bcdDevice));
    ASSERT_EQ(c.page ? Write(cam, c.bus, 0xFF, c.page) : STATUS_SUCCESS, STATUS_SUCCESS);
    uint8_t value = 0xEE;
    ASSERT_EQ(Read(cam, c.bus, c.first, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, c.slow ? 0x00 : c.firstData) << "one step: the power-on latch is empty";
    ASSERT_EQ(ReadTwoStep(cam, c.bus, c.first, &value), STATUS_SUCCESS);
    ASSERT_EQ(value, c.firstData);
    uint32_t length = 1;
    ASSERT_EQ(
        cam.ControlTransfer(2, uint16_t(c.bus << 8), 0x8000 | c.second, &value, &length, true),
        STATUS_SUCCESS);
    EXPECT_EQ(value, c.firstData) << "a second step without a first: the last read's byte";
    ASSERT_EQ(Read(cam, c.bus, c.second, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, c.slow ? c.firstData : c.secondData) << "one step";
    ASSERT_EQ(ReadTwoStep(cam, c.bus, c.second, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, c.secondData);
    ASSERT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 0x00);
    EXPECT_EQ(ReadTwoStep(cam, uint8_t(c.bus ^ 0x02), 0x00, &value), STATUS_UNSUCCESSFUL)
        << "another candidate's address does not answer";
  }
}

TEST(EmulatedController, SecondStepBeforeTheSensorIsReadyFetchesTheOldByte) {
  VirtualClock clock;
  SetKernelClock(116444736000000000LL);
  EmulatedCameraConfig config;
  config.sensors = {EmulatedSensorConfig{K::OV2640, -1, -1, 5000}};
  EmulatedCamera cam(config);
  ASSERT_EQ(Write(cam, 0x60, 0xFF, 0x01), STATUS_SUCCESS);
  uint32_t length = 1;
  uint8_t value = 0xEE;
  for (int pause : {0, 5000}) {
    ASSERT_EQ(cam.ControlTransfer(1, 0x6000, 0x800A, nullptr, nullptr, false), STATUS_SUCCESS);
    AdvanceKernelClock(pause);
    ASSERT_EQ(cam.ControlTransfer(2, 0x6000, 0x800A, &value, &length, true), STATUS_SUCCESS);
    EXPECT_EQ(value, pause ? 0x26 : 0x00) << "pause " << pause << " (0: the power-on latch)";
  }
}

TEST(EmulatedController, SixteenBitSensorsTakeEveryDialect) {
  const std::vector<uint8_t> quad = {0x33, 0x8C, 0xA5, 0x11};
  const uint16_t r1 = 0x0100, r2 = 0x0200;
  // name, sensor, bcdDevice, wIndex, data, register written, its value (0xFFFF: refused)
  const std::tuple<const char*, K, uint16_t, uint16_t, std::vector<uint8_t>, uint16_t, uint16_t>
      cases[] = {
          // WRITEEX 78H 338CH 0A511H: quads on revision 2, on revision 1 a burst
          // with the register's high byte in wIndex.
          {"quad", K::MI2021, r2, 0x0500, quad, 0x338C, 0xA511},
          {"burst", K::MI2021, r1, 0x0033, {0x8C, 0xA5, 0x11}, 0x338C, 0xA511},
          {"short data", K::MI2021, r1, 0x0012, {0x34, 0x56}, 0x1234, 0x0056},
          // WRITE2B with RegisterAddrLo 0xF0.
          {"two-part value", K::MI2021, r2, 0x0200, {0x35, 0x12, 0xF0, 0x34}, 0x0035, 0x1234},
          {"three-byte, 8-bit register", K::MI2021, r2, 0x0300, {0x20, 0x00, 0x03}, 0x0020, 0x0003},
          {"three-byte, 16-bit register",
           K::MI2021,
           r2,
           0x0400,
           {0x12, 0x34, 0x56},
           0x1234,
           0x0056},
          {"quad on revision 1", K::MI2021, r1, 0x0500, quad, 0, 0xFFFF},
          {"quad to an 8-bit sensor", K::OV7670, r2, 0x0500, quad, 0, 0xFFFF},
      };
  for (const auto& [name, kind, bcdDevice, index, data, reg, expected] : cases) {
    EmulatedCamera cam(WithSensor(kind, bcdDevice));
    const uint8_t bus = kind == K::OV7670 ? 0x42 : 0x78;
    EXPECT_EQ(Send(cam, 3, uint16_t(bus << 8), index, data),
              expected == 0xFFFF ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS)
        << name;
    uint16_t value = 0;
    if (expected == 0xFFFF) continue;
    EXPECT_TRUE(cam.PeekSensorRegister(bus, reg, &value) && value == expected)
        << name << ": " << value;
  }
}

TEST(EmulatedController, WideReadsGiveTheLowByteFirst) {
  EmulatedCamera cam(WithSensor(K::MI2021));
  // SetSensorTuningByte's writes: 0xA511 to 0x338C, the value to 0x3390.
  WriteVariable(cam, 0x78, 0xA511, 0x00F4);
  uint16_t variable = 0;
  ASSERT_TRUE(cam.PeekSensorVariable(0x78, 0xA511, &variable));
  EXPECT_EQ(variable, 0xF4);
  ASSERT_EQ(WriteQuad(cam, 0x78, 0x1234, 0xBEEF), STATUS_SUCCESS);
  ASSERT_EQ(WriteQuad(cam, 0x78, 0x0020, 0x0102), STATUS_SUCCESS);
  const std::tuple<uint16_t, uint16_t, std::vector<uint8_t>> cases[] = {
      // value, index, answer
      {0x7803, 0x3390, {0xF4, 0x00}},  // the variable 0x338C names
      {0x7803, 0x0000, {0x80, 0x15}},  // chip version 0x1580
      {0x7803, 0x1234, {0xEF, 0xBE}}, {0x7802, 0x1234, {0xEF}}, {0x7801, 0x0020, {2, 1}},
  };
  for (const auto& [value, index, answer] : cases) {
    uint8_t bytes[2] = {0xEE, 0xEE};
    uint32_t length = uint32_t(answer.size());
    ASSERT_EQ(cam.ControlTransfer(8, value, index, bytes, &length, true), STATUS_SUCCESS);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + length), answer)
        << std::hex << value << " " << index;
  }
  // Request 8 does not exist on revision 1.
  EmulatedCamera old(WithSensor(K::MI2020, 0x0100));
  uint8_t bytes[2];
  uint32_t length = 2;
  EXPECT_EQ(old.ControlTransfer(8, 0x7A03, 0x0000, bytes, &length, true), STATUS_UNSUCCESSFUL);
}

TEST(EmulatedController, TwoPartValuesGoThroughTheLowBytePort) {
  EmulatedCamera cam(WithSensor(K::MI2020, 0x0100));
  auto peek = [&](uint16_t reg) {
    uint16_t value = 0xEEEE;
    EXPECT_TRUE(cam.PeekSensorRegister(0x7A, reg, &value));
    return value;
  };
  // The high byte to the register, then the low byte to 0xF0.
  ASSERT_EQ(Write(cam, 0x7A, 0x34, 0x12), STATUS_SUCCESS);
  EXPECT_EQ(peek(0x34), 0x0000) << "nothing before the low byte";
  ASSERT_EQ(Write(cam, 0x7A, 0xF0, 0x56), STATUS_SUCCESS);
  EXPECT_EQ(peek(0x34), 0x1256);
  // Reading the register gives its high byte, then 0xF0 the low one.
  uint8_t high = 0, low = 0;
  ASSERT_EQ(ReadTwoStep(cam, 0x7A, 0x34, &high), STATUS_SUCCESS);
  ASSERT_EQ(ReadTwoStep(cam, 0x7A, 0xF0, &low), STATUS_SUCCESS);
  EXPECT_EQ(high << 8 | low, 0x1256);
  // A reset through register 0x0D brings back the power-on values.
  ASSERT_EQ(Send(cam, 3, 0x7A00, 0x0000, {0x0D, 0x00, 0x01}), STATUS_SUCCESS);
  EXPECT_EQ(peek(0x34), 0x0000);
  EXPECT_EQ(peek(0x09), 0x0100);
}

TEST(EmulatedController, MemoryBlocksKeepWhatIsWritten) {
  EmulatedCamera cam;
  std::vector<uint8_t> block(64), back(64, 0);
  for (size_t i = 0; i < block.size(); ++i) block[i] = uint8_t(3 * i + 1);
  ASSERT_EQ(Send(cam, 6, 0x1240, 0, block), STATUS_SUCCESS);
  uint32_t length = 64;
  ASSERT_EQ(cam.ControlTransfer(6, 0x1240, 0, back.data(), &length, true), STATUS_SUCCESS);
  EXPECT_EQ(back, block);
  // A read off a boundary spans two blocks; the erased memory reads 0xFF.
  ASSERT_EQ(cam.ControlTransfer(6, 0x1260, 0, back.data(), &length, true), STATUS_SUCCESS);
  EXPECT_TRUE(std::equal(block.begin() + 32, block.end(), back.begin()));
  EXPECT_EQ(back[32], 0xFF);
  // The unaligned form carries no data and writes nothing.
  ASSERT_EQ(cam.ControlTransfer(6, 0x1241, 1, block.data(), nullptr, false), STATUS_SUCCESS);
  EXPECT_EQ(cam.PeekMemory(0x1240, 64), block);
}

TEST(EmulatedController, RestartLeavesTheBusUntilTheCameraComesBack) {
  EmulatedCameraConfig config;
  config.highSpeed = false;
  EmulatedCamera cam(config);
  ASSERT_EQ(Write(cam, 0, 0x30, 0x55), STATUS_SUCCESS);
  ASSERT_EQ(cam.ControlTransfer(7, 0, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_TRUE(cam.RestartRequested());
  uint8_t value4 = 0xEE, value30 = 0xEE;
  EXPECT_EQ(Read(cam, 0, 4, &value4), STATUS_DEVICE_NOT_CONNECTED);
  cam.Reconnect(true);
  ASSERT_EQ(Read(cam, 0, 4, &value4), STATUS_SUCCESS);
  ASSERT_EQ(Read(cam, 0, 0x30, &value30), STATUS_SUCCESS);
  EXPECT_EQ(value4 | value30, 0) << "back at high speed, registers from power-on";
}

}  // namespace
