// The emulated controller: its vendor requests in their wire forms, its
// registers, the serial bus dialects of the sensors, and detection of each
// sensor as the driver goes about it.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "emulator/emulated_camera.h"
#include "platform/kernel_control.h"
#include "tests/emulator_test_helpers.h"

namespace {

using namespace emutest;

EmulatedCameraConfig WithSensor(EmulatedSensorKind kind, uint16_t bcdDevice = 0x0200) {
  EmulatedCameraConfig config;
  config.sensors = {EmulatedSensorConfig{kind}};
  config.bcdDevice = bcdDevice;
  return config;
}

TEST(EmulatedController, RequestsAnswerInTheirWireForms) {
  struct Case {
    const char* name;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    bool getData;
    int length;  // -1: no data stage
    NTSTATUS status;
  };
  const Case cases[] = {
      {"write controller register", 1, 0x0020, 6, false, -1, STATUS_SUCCESS},
      {"write sensor register", 1, 0x60AB, 0x0012, false, -1, STATUS_SUCCESS},
      {"first step of a two-step read", 1, 0x6000, 0x8012, false, -1, STATUS_SUCCESS},
      {"write to a bus address with no device", 1, 0x5011, 0x0012, false, -1, STATUS_UNSUCCESSFUL},
      {"write with a data stage", 1, 0x0020, 6, false, 1, STATUS_UNSUCCESSFUL},
      {"write register above 255", 1, 0x0020, 0x0106, false, -1, STATUS_UNSUCCESSFUL},
      {"one-step read", 2, 0x0000, 4, true, 1, STATUS_SUCCESS},
      {"read without a data stage", 2, 0x0000, 4, true, -1, STATUS_UNSUCCESSFUL},
      {"read as an out request", 2, 0x0000, 4, false, 1, STATUS_UNSUCCESSFUL},
      {"pair list with no pairs", 3, 0x6000, 0x0200, false, 0, STATUS_SUCCESS},
      {"list form unknown", 3, 0x6000, 0x0600, false, 4, STATUS_UNSUCCESSFUL},
      {"start streaming", 5, 1, 0, false, -1, STATUS_SUCCESS},
      {"stop streaming", 5, 0, 0, false, -1, STATUS_SUCCESS},
      {"streaming value 2", 5, 2, 0, false, -1, STATUS_UNSUCCESSFUL},
      {"memory block read", 6, 0x0040, 0, true, 64, STATUS_SUCCESS},
      {"memory block read too short", 6, 0x0040, 0, true, 63, STATUS_UNSUCCESSFUL},
      {"memory block write", 6, 0x0040, 0, false, 64, STATUS_SUCCESS},
      {"memory write off a boundary, no data", 6, 0x0041, 1, false, -1, STATUS_SUCCESS},
      {"memory write on a boundary with index 1", 6, 0x0040, 1, false, -1, STATUS_UNSUCCESSFUL},
      {"memory write off a boundary with data", 6, 0x0041, 0, false, 64, STATUS_UNSUCCESSFUL},
      {"wide read form 1", 8, 0x6001, 0x0012, true, 2, STATUS_SUCCESS},
      {"wide read form 4", 8, 0x6004, 0x0012, true, 2, STATUS_UNSUCCESSFUL},
      {"wide read of the controller", 8, 0x0001, 0x0012, true, 2, STATUS_UNSUCCESSFUL},
      {"end of start-up", 11, 0, 0, false, -1, STATUS_SUCCESS},
      {"request 0", 0, 0, 0, false, -1, STATUS_UNSUCCESSFUL},
      {"request 4", 4, 0, 0, false, -1, STATUS_UNSUCCESSFUL},
      {"request 9", 9, 0, 0, true, 1, STATUS_UNSUCCESSFUL},
      {"request 10", 10, 0, 0, false, -1, STATUS_UNSUCCESSFUL},
      {"request 12", 12, 0, 0, false, -1, STATUS_UNSUCCESSFUL},
      {"request 255", 255, 0, 0, false, -1, STATUS_UNSUCCESSFUL},
  };
  for (const Case& c : cases) {
    EmulatedCamera cam;  // OV2640 at 0x60 on a revision-2 chip
    std::vector<uint8_t> buffer(64, 0);
    uint32_t length = c.length < 0 ? 0 : uint32_t(c.length);
    NTSTATUS status = cam.ControlTransfer(c.request, c.value, c.index, buffer.data(),
                                          c.length < 0 ? nullptr : &length, c.getData);
    EXPECT_EQ(status, c.status) << c.name;
  }
}

TEST(EmulatedController, WritesReachTheRegisterTheyName) {
  EmulatedCamera cam;
  // WRITE 0 6 32: request 1, wValue 0x0020, wIndex 6.
  ASSERT_EQ(cam.ControlTransfer(1, 0x0020, 6, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_EQ(cam.PeekControllerRegister(6), 0x20);
  // 0xAB to register 0x12 of bus 0x60: wValue 0x60AB, wIndex 0x0012. The
  // OV2640 starts in its DSP bank.
  ASSERT_EQ(cam.ControlTransfer(1, 0x60AB, 0x0012, nullptr, nullptr, false), STATUS_SUCCESS);
  uint16_t value = 0;
  ASSERT_TRUE(cam.PeekSensorRegister(0x60, 0x0012, &value));
  EXPECT_EQ(value, 0xAB);
  // A pair list on bus 0 writes controller registers; a burst on bus 0 too.
  ASSERT_EQ(Send(cam, 3, 0x0000, 0x0200, {0x20, 0x80, 0x21, 0x02, 0x24, 0x01}), STATUS_SUCCESS);
  ASSERT_EQ(Send(cam, 3, 0x0000, 0x0022, {0xE0, 0x01}), STATUS_SUCCESS);
  EXPECT_EQ(cam.PeekControllerRegister(0x20), 0x80);
  EXPECT_EQ(cam.PeekControllerRegister(0x21), 0x02);
  EXPECT_EQ(cam.PeekControllerRegister(0x22), 0xE0);
  EXPECT_EQ(cam.PeekControllerRegister(0x23), 0x01);
  EXPECT_EQ(cam.PeekControllerRegister(0x24), 0x01);
  // An odd pair list is refused and writes nothing.
  EXPECT_EQ(Send(cam, 3, 0x0000, 0x0200, {0x30, 0x01, 0x31}), STATUS_UNSUCCESSFUL);
  EXPECT_EQ(cam.PeekControllerRegister(0x30), 0x00);
  // End of start-up is noted.
  EXPECT_FALSE(cam.StartupEnded());
  ASSERT_EQ(cam.ControlTransfer(11, 0, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_TRUE(cam.StartupEnded());
}

TEST(EmulatedController, InputBitsOfTheControllerRegistersFollowTheCamera) {
  struct Case {
    bool highSpeed;
    uint8_t register4;
    uint8_t expected4;
  };
  for (const Case& c : {Case{true, 0x00, 0x00}, Case{false, 0x00, 0x04}, Case{true, 0x01, 0x01},
                        Case{false, 0x05, 0x05}, Case{true, 0x04, 0x00}}) {
    EmulatedCameraConfig config;
    config.highSpeed = c.highSpeed;
    config.register4 = c.register4;
    EmulatedCamera cam(config);
    uint8_t value = 0xEE;
    ASSERT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, c.expected4) << "high speed " << c.highSpeed << ", register 4 "
                                  << int(c.register4);
  }

  EmulatedCamera cam;
  uint8_t value = 0;
  // Register 0 bit 4 is the orientation input; a write of that bit does nothing.
  ASSERT_EQ(Write(cam, 0, 0, 0x30), STATUS_SUCCESS);
  ASSERT_EQ(Read(cam, 0, 0, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x20);
  cam.SetOrientationInput(true);
  ASSERT_EQ(Read(cam, 0, 0, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x30);
  // Register 7 bit 0 is the button, 1 while it is down; the software bus
  // lines read high while nothing drives them.
  ASSERT_EQ(Read(cam, 0, 7, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x60);
  cam.SetButton(true);
  ASSERT_EQ(Read(cam, 0, 7, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x61);
  // With the lines driven, they read as written.
  ASSERT_EQ(Write(cam, 0, 13, 0x6A), STATUS_SUCCESS);
  ASSERT_EQ(Write(cam, 0, 7, 0x00), STATUS_SUCCESS);
  ASSERT_EQ(Read(cam, 0, 7, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x01);
}

TEST(EmulatedController, TwoStepReadIsNeededWhereTheSensorIsSlow) {
  struct Case {
    EmulatedSensorKind kind;
    uint8_t bus;
    uint8_t reg;
    uint8_t identity;
    bool oneStepWorks;
  };
  const Case cases[] = {
      {EmulatedSensorKind::OV7670, 0x42, 0x0A, 0x76, true},
      {EmulatedSensorKind::OV2640, 0x60, 0x0A, 0x26, false},
      {EmulatedSensorKind::MI2020, 0x7A, 0x00, 0x15, false},
      {EmulatedSensorKind::MI2021, 0x78, 0x00, 0x15, true},
  };
  for (const Case& c : cases) {
    EmulatedCamera cam(WithSensor(c.kind));
    if (c.kind == EmulatedSensorKind::OV2640) {
      ASSERT_EQ(Write(cam, c.bus, 0xFF, 0x01), STATUS_SUCCESS);
    }
    uint8_t value = 0xEE;
    ASSERT_EQ(Read(cam, c.bus, c.reg, &value), STATUS_SUCCESS);
    if (c.oneStepWorks) {
      EXPECT_EQ(value, c.identity) << int(c.bus);
    } else {
      EXPECT_EQ(value, 0x00) << int(c.bus) << ": the empty latch";
    }
    value = 0xEE;
    ASSERT_EQ(ReadTwoStep(cam, c.bus, c.reg, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, c.identity) << int(c.bus);
  }

  // A second step without a first one fetches the byte of the last read.
  EmulatedCamera cam(WithSensor(EmulatedSensorKind::OV2640));
  ASSERT_EQ(Write(cam, 0x60, 0xFF, 0x01), STATUS_SUCCESS);
  uint8_t value = 0;
  ASSERT_EQ(ReadTwoStep(cam, 0x60, 0x0A, &value), STATUS_SUCCESS);
  ASSERT_EQ(value, 0x26);
  uint32_t length = 1;
  ASSERT_EQ(cam.ControlTransfer(2, 0x6000, 0x800B, &value, &length, true), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x26) << "stale: register 0x0B was never read";
  ASSERT_EQ(Read(cam, 0x60, 0x0B, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x26) << "a one-step read of a slow sensor answers the latch too";
  // Controller registers never need two steps.
  ASSERT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x00);
}

TEST(EmulatedController, SecondStepBeforeTheSensorIsReadyFetchesTheOldByte) {
  const KernelClockMode before = GetKernelClockMode();
  SetKernelClockMode(KernelClockMode::Virtual);
  SetKernelClock(116444736000000000LL);
  EmulatedCameraConfig config;
  config.sensors = {EmulatedSensorConfig{EmulatedSensorKind::OV2640, -1, -1, 5000}};
  EmulatedCamera cam(config);
  ASSERT_EQ(Write(cam, 0x60, 0xFF, 0x01), STATUS_SUCCESS);
  uint32_t length = 1;
  uint8_t value = 0xEE;
  // The first step, then the second at once.
  ASSERT_EQ(cam.ControlTransfer(1, 0x6000, 0x800A, nullptr, nullptr, false), STATUS_SUCCESS);
  ASSERT_EQ(cam.ControlTransfer(2, 0x6000, 0x800A, &value, &length, true), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x00) << "no pause: the latch still holds its power-on byte";
  // With the 500 us pause a two-step read sees the byte.
  ASSERT_EQ(cam.ControlTransfer(1, 0x6000, 0x800A, nullptr, nullptr, false), STATUS_SUCCESS);
  AdvanceKernelClock(5000);
  ASSERT_EQ(cam.ControlTransfer(2, 0x6000, 0x800A, &value, &length, true), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x26);
  SetKernelClockMode(before);
}

TEST(EmulatedController, SixteenBitSensorsTakeEveryDialect) {
  struct Case {
    const char* name;
    uint16_t bcdDevice;
    uint8_t request;
    uint16_t value;
    uint16_t index;
    std::vector<uint8_t> data;
    uint16_t reg;       // register written
    uint16_t expected;  // its value afterwards
  };
  const Case cases[] = {
      // WRITEEX 78H 338CH 0A511H, revision 2: quads.
      {"quad", 0x0200, 3, 0x7800, 0x0500, {0x33, 0x8C, 0xA5, 0x11}, 0x338C, 0xA511},
      // The same on revision 1: register high byte in wIndex.
      {"burst", 0x0100, 3, 0x7800, 0x0033, {0x8C, 0xA5, 0x11}, 0x338C, 0xA511},
      // WRITE2A 78H 1234H 56H.
      {"short data", 0x0100, 3, 0x7800, 0x0012, {0x34, 0x56}, 0x1234, 0x0056},
      // WRITE2B 7AH 35H 1234H with RegisterAddrLo 0xF0, here at 0x78.
      {"two-part value", 0x0200, 3, 0x7800, 0x0200, {0x35, 0x12, 0xF0, 0x34}, 0x0035, 0x1234},
      {"three-byte entry, 8-bit register", 0x0200, 3, 0x7800, 0x0300, {0x20, 0x00, 0x03}, 0x0020,
       0x0003},
      {"three-byte entry, 16-bit register", 0x0200, 3, 0x7800, 0x0400, {0x12, 0x34, 0x56}, 0x1234,
       0x0056},
  };
  for (const Case& c : cases) {
    EmulatedCamera cam(WithSensor(EmulatedSensorKind::MI2021, c.bcdDevice));
    ASSERT_EQ(Send(cam, c.request, c.value, c.index, c.data), STATUS_SUCCESS) << c.name;
    uint16_t value = 0;
    ASSERT_TRUE(cam.PeekSensorRegister(0x78, c.reg, &value)) << c.name;
    EXPECT_EQ(value, c.expected) << c.name;
  }
  // Quads exist only on revision 2.
  EmulatedCamera old(WithSensor(EmulatedSensorKind::MI2021, 0x0100));
  EXPECT_EQ(Send(old, 3, 0x7800, 0x0500, {0x33, 0x8C, 0xA5, 0x11}), STATUS_UNSUCCESSFUL);
  // 8-bit sensors do not speak the 16-bit forms.
  EmulatedCamera ov(WithSensor(EmulatedSensorKind::OV7670));
  EXPECT_EQ(Send(ov, 3, 0x4200, 0x0500, {0x33, 0x8C, 0xA5, 0x11}), STATUS_UNSUCCESSFUL);
}

TEST(EmulatedController, WideReadsGiveTheLowByteFirst) {
  EmulatedCamera cam(WithSensor(EmulatedSensorKind::MI2021));
  // SetSensorTuningByte's writes: 0xA511 to 0x338C, the value to 0x3390.
  ASSERT_EQ(WriteQuad(cam, 0x78, 0x338C, 0xA511), STATUS_SUCCESS);
  ASSERT_EQ(WriteQuad(cam, 0x78, 0x3390, 0x00F4), STATUS_SUCCESS);
  uint16_t variable = 0;
  ASSERT_TRUE(cam.PeekSensorVariable(0x78, 0xA511, &variable));
  EXPECT_EQ(variable, 0xF4);
  ASSERT_EQ(WriteQuad(cam, 0x78, 0x1234, 0xBEEF), STATUS_SUCCESS);
  ASSERT_EQ(WriteQuad(cam, 0x78, 0x0020, 0x0102), STATUS_SUCCESS);

  struct Case {
    uint16_t value;
    uint16_t index;
    uint32_t length;
    std::vector<uint8_t> answer;
  };
  const Case cases[] = {
      {0x7803, 0x3390, 2, {0xF4, 0x00}},  // the variable 0x338C names
      {0x7803, 0x0000, 2, {0x80, 0x15}},  // chip version 0x1580
      {0x7803, 0x1234, 2, {0xEF, 0xBE}},
      {0x7802, 0x1234, 1, {0xEF}},
      {0x7801, 0x0020, 2, {0x02, 0x01}},
  };
  for (const Case& c : cases) {
    uint8_t bytes[2] = {0xEE, 0xEE};
    uint32_t length = c.length;
    ASSERT_EQ(cam.ControlTransfer(8, c.value, c.index, bytes, &length, true), STATUS_SUCCESS)
        << std::hex << c.value << " " << c.index;
    ASSERT_EQ(length, c.length);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + length), c.answer)
        << std::hex << c.value << " " << c.index;
  }
  // Request 8 does not exist on revision 1.
  EmulatedCamera old(WithSensor(EmulatedSensorKind::MI2020, 0x0100));
  uint8_t bytes[2];
  uint32_t length = 2;
  EXPECT_EQ(old.ControlTransfer(8, 0x7A03, 0x0000, bytes, &length, true), STATUS_UNSUCCESSFUL);
}

TEST(EmulatedController, TwoPartValuesGoThroughTheLowBytePort) {
  EmulatedCamera cam(WithSensor(EmulatedSensorKind::MI2020, 0x0100));
  // The high byte to the register, then the low byte to 0xF0.
  ASSERT_EQ(Write(cam, 0x7A, 0x34, 0x12), STATUS_SUCCESS);
  uint16_t value = 0;
  ASSERT_TRUE(cam.PeekSensorRegister(0x7A, 0x0034, &value));
  EXPECT_EQ(value, 0x0000) << "nothing before the low byte";
  ASSERT_EQ(Write(cam, 0x7A, 0xF0, 0x56), STATUS_SUCCESS);
  ASSERT_TRUE(cam.PeekSensorRegister(0x7A, 0x0034, &value));
  EXPECT_EQ(value, 0x1256);
  // Reading the register gives its high byte, then 0xF0 the low one.
  uint8_t high = 0, low = 0;
  ASSERT_EQ(ReadTwoStep(cam, 0x7A, 0x34, &high), STATUS_SUCCESS);
  ASSERT_EQ(ReadTwoStep(cam, 0x7A, 0xF0, &low), STATUS_SUCCESS);
  EXPECT_EQ(high, 0x12);
  EXPECT_EQ(low, 0x56);
  // A reset through register 0x0D brings back the power-on values.
  ASSERT_EQ(Send(cam, 3, 0x7A00, 0x0000, {0x0D, 0x00, 0x01}), STATUS_SUCCESS);
  ASSERT_TRUE(cam.PeekSensorRegister(0x7A, 0x0034, &value));
  EXPECT_EQ(value, 0x0000);
  ASSERT_TRUE(cam.PeekSensorRegister(0x7A, 0x0009, &value));
  EXPECT_EQ(value, 0x0100);
}

// The driver's detection of one candidate: the controller's probing state,
// the candidate's page select, then its identification registers, read in
// one or two steps as its ReadDelay says.
TEST(EmulatedController, EachSensorIsDetectedByItsDescribedIdentity) {
  struct Id {
    uint8_t reg;
    uint8_t data;
  };
  struct Case {
    EmulatedSensorKind kind;
    uint16_t bcdDevice;
    uint8_t bus;
    bool twoStep;
    std::vector<Id> pageSelect;
    std::vector<Id> ids;
  };
  const Case cases[] = {
      {EmulatedSensorKind::OV7670, 0x0100, 0x42, false, {}, {{0x0A, 0x76}, {0x0B, 0x73}}},
      {EmulatedSensorKind::OV2640, 0x0200, 0x60, true, {{0xFF, 0x01}},
       {{0x0A, 0x26}, {0x0B, 0x42}}},
      {EmulatedSensorKind::MI2020, 0x0100, 0x7A, true, {}, {{0x00, 0x15}, {0xF0, 0x19}}},
      {EmulatedSensorKind::MI2021, 0x0200, 0x78, false, {}, {{0x00, 0x15}, {0xF0, 0x80}}},
  };
  for (const Case& c : cases) {
    EmulatedCamera cam(WithSensor(c.kind, c.bcdDevice));
    uint8_t r4 = 0;
    ASSERT_EQ(Read(cam, 0, 4, &r4), STATUS_SUCCESS);
    const Id probing[] = {{0x00, uint8_t((r4 & 1) ? 0x20 : 0)}, {0x10, 0x10}, {0xC0, 0x08},
                          {0xC1, 0x01}, {0xC2, 0x01}, {0x06, 0x20}, {0x0D, 0x6A}};
    for (const Id& w : probing) ASSERT_EQ(Write(cam, 0, w.reg, w.data), STATUS_SUCCESS);
    for (const Id& w : c.pageSelect) ASSERT_EQ(Write(cam, c.bus, w.reg, w.data), STATUS_SUCCESS);
    for (const Id& id : c.ids) {
      uint8_t value = 0xEE;
      NTSTATUS status = c.twoStep ? ReadTwoStep(cam, c.bus, id.reg, &value)
                                  : Read(cam, c.bus, id.reg, &value);
      ASSERT_EQ(status, STATUS_SUCCESS);
      EXPECT_EQ(value, id.data) << "bus " << std::hex << int(c.bus) << " register " << int(id.reg);
    }
    // Another candidate's address does not answer.
    uint8_t value = 0;
    EXPECT_EQ(ReadTwoStep(cam, uint8_t(c.bus ^ 0x02), 0x00, &value), STATUS_UNSUCCESSFUL);
  }
}

TEST(EmulatedController, MemoryBlocksKeepWhatIsWritten) {
  EmulatedCamera cam;
  std::vector<uint8_t> block(64);
  for (size_t i = 0; i < block.size(); ++i) block[i] = uint8_t(3 * i + 1);
  ASSERT_EQ(Send(cam, 6, 0x1240, 0, block), STATUS_SUCCESS);
  std::vector<uint8_t> back(64, 0);
  uint32_t length = 64;
  ASSERT_EQ(cam.ControlTransfer(6, 0x1240, 0, back.data(), &length, true), STATUS_SUCCESS);
  EXPECT_EQ(back, block);
  // A read off a boundary spans two blocks; the erased memory reads 0xFF.
  ASSERT_EQ(cam.ControlTransfer(6, 0x1260, 0, back.data(), &length, true), STATUS_SUCCESS);
  EXPECT_EQ(back[0], block[32]);
  EXPECT_EQ(back[31], block[63]);
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
  uint8_t value = 0;
  EXPECT_EQ(Read(cam, 0, 4, &value), STATUS_DEVICE_NOT_CONNECTED);
  cam.Reconnect(true);
  ASSERT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x00) << "back at high speed";
  ASSERT_EQ(Read(cam, 0, 0x30, &value), STATUS_SUCCESS);
  EXPECT_EQ(value, 0x00) << "registers from power-on";
}

TEST(EmulatedController, RequestLogKeepsEachRequestWithItsAnswer) {
  EmulatedCamera cam;
  cam.SetRequestLogging(true);
  ASSERT_EQ(Write(cam, 0, 0x31, 0x9C), STATUS_SUCCESS);
  uint8_t value = 0;
  ASSERT_EQ(Read(cam, 0, 0x31, &value), STATUS_SUCCESS);
  EXPECT_EQ(cam.ControlTransfer(9, 0, 0, nullptr, nullptr, false), STATUS_UNSUCCESSFUL);
  const std::vector<ControlRequestInfo> log = cam.RequestLog();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0].value, 0x009C);
  EXPECT_EQ(log[1].data, std::vector<uint8_t>{0x9C});
  EXPECT_EQ(log[2].status, STATUS_UNSUCCESSFUL);
  EXPECT_EQ(log[2].sequence, 3u);
  EXPECT_EQ(cam.RequestCount(), 3u);
}

}  // namespace
