// The software serial bus target: the driver's bit-banged read of a 16-bit
// register, request by request as the driver makes it.

#include <gtest/gtest.h>

#include <vector>

#include "emulator/emulated_camera.h"
#include "tests/emulator_test_helpers.h"

namespace {

using namespace emutest;

// The driver's software bus, written out from its description: every line
// change is a read of the controller register, the bit changed, and a write
// back, on bus 0. The pauses of 5 ms are left out: the target keeps no time.
struct DriverSoftBus {
  EmulatedCamera& cam;
  int requests = 0;

  uint8_t ReadReg(uint8_t reg) {
    uint8_t value = 0;
    Read(cam, 0, reg, &value);
    ++requests;
    return value;
  }
  void WriteReg(uint8_t reg, uint8_t value) { Write(cam, 0, reg, value), ++requests; }
  void SetBits(uint8_t reg, uint8_t mask) { WriteReg(reg, ReadReg(reg) | mask); }
  void ClearBits(uint8_t reg, uint8_t mask) { WriteReg(reg, ReadReg(reg) & ~mask); }
  void SetClock() { SetBits(7, 0x20); }
  void ClearClock() { ClearBits(7, 0x20); }
  void SetData() { SetBits(7, 0x40); }
  void ClearData() { ClearBits(7, 0x40); }
  void Start() { SetData(), SetClock(), ClearData(), ClearClock(); }
  void Stop() { ClearData(), SetClock(), SetData(); }
  uint8_t SendByte(uint8_t byte) {
    for (int bit = 7; bit >= 0; --bit) {
      ((byte >> bit) & 1) ? SetData() : ClearData();
      SetClock(), ClearClock();
    }
    SetData(), SetClock();
    const uint8_t ack = ReadReg(7) & 0x40;
    ClearClock();
    return ack;
  }
  uint8_t ReceiveByte() {
    ClearBits(13, 0x40);
    uint8_t byte = 0;
    for (int bit = 0; bit < 8; ++bit) {
      SetClock();
      byte = uint8_t(byte << 1 | ((ReadReg(7) & 0x40) ? 1 : 0));
      ClearClock();
    }
    return byte;
  }
  uint16_t ReadRegister16(uint8_t address, uint8_t high, uint8_t low, uint8_t acks[4]) {
    SetBits(13, 0x60), SetClock(), SetData(), Start();
    acks[0] = SendByte(address);
    acks[1] = SendByte(high);
    acks[2] = SendByte(low);
    Start();
    acks[3] = SendByte(address | 1);
    const uint8_t hi = ReceiveByte();
    SetBits(13, 0x60), ClearClock(), ClearData(), SetClock(), ClearClock();
    const uint8_t lo = ReceiveByte();
    SetData(), SetClock(), ClearClock(), Stop();
    return uint16_t(hi * 256 + lo);
  }
};

EmulatedCameraConfig Mi2020OnRevision1() { return WithSensor(EmulatedSensorKind::MI2020, 0x0100); }

TEST(EmulatedSoftBus, DriverReadOfASixteenBitRegisterReturnsTheSensorsValue) {
  struct Case {
    uint16_t reg, setTo, expected;  // setTo: written first through the burst; 0: leave
  } const cases[] = {
      {0x0000, 0, 0x1519},       // chip version
      {0x1234, 0xA55A, 0xA55A},  // alternating bits
      {0x8001, 0xFFFF, 0xFFFF},
  };
  EmulatedCamera cam(Mi2020OnRevision1());
  // The state the driver's detection leaves: lines driven low.
  ASSERT_EQ(Write(cam, 0, 13, 0x6A), STATUS_SUCCESS);
  ASSERT_EQ(Write(cam, 0, 7, 0x00), STATUS_SUCCESS);
  for (const Case& c : cases) {
    if (c.setTo != 0) {
      ASSERT_EQ(Send(cam, 3, 0x7A00, uint16_t(c.reg >> 8),
                     {uint8_t(c.reg), uint8_t(c.setTo >> 8), uint8_t(c.setTo)}),
                STATUS_SUCCESS);
    }
    DriverSoftBus bus{cam};
    uint8_t acks[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(bus.ReadRegister16(0x7A, uint8_t(c.reg >> 8), uint8_t(c.reg), acks), c.expected)
        << std::hex << c.reg;
    EXPECT_EQ(std::vector<uint8_t>(acks, acks + 4), std::vector<uint8_t>(4, 0)) << "acknowledged";
    EXPECT_TRUE(bus.requests > 300 && bus.requests < 400) << bus.requests;
  }
}

TEST(EmulatedSoftBus, McuVariablesReadThroughTheDataRegisterAndAnAbsentAddressIsNotAcknowledged) {
  EmulatedCamera cam(Mi2020OnRevision1());
  // WRITEEX 7A 338C 2703 on revision 1, then the variable's value.
  ASSERT_EQ(Send(cam, 3, 0x7A00, 0x33, {0x8C, 0x27, 0x03}), STATUS_SUCCESS);
  DriverSoftBus bus{cam};
  uint8_t acks[4] = {0, 0, 0, 0};
  EXPECT_EQ(bus.ReadRegister16(0x7A, 0x33, 0x90, acks), 800) << "context A width at power-on";
  EXPECT_EQ(bus.ReadRegister16(0x7A, 0x33, 0x8C, acks), 0x2703);
  // The MI2021's address on a camera that carries an MI2020.
  EXPECT_EQ(bus.ReadRegister16(0x78, 0x00, 0x00, acks), 0xFFFF);
  EXPECT_EQ(std::vector<uint8_t>(acks, acks + 4), std::vector<uint8_t>(4, 0x40));
  // The next transfer to the right address works: the start resets the target.
  EXPECT_EQ(bus.ReadRegister16(0x7A, 0x00, 0x00, acks), 0x1519);
}

}  // namespace
