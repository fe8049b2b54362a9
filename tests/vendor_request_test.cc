// Vendor requests on the wire: each wrapper's request, value, index,
// direction and data stage, the two-step read and its pause, and the mutex
// that keeps a two-step read whole against other threads.

#include "script/vendor_request.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/kernel_control.h"
#include "tests/device_fixture.h"
#include "tests/kernel_test_clock.h"
#include "tests/vendor_recorder.h"

namespace {

using Lines = std::vector<std::string>;

class VendorRequests : public ::testing::Test {
 protected:
  void SetUp() override {
    SetKernelClockMode(KernelClockMode::Virtual);
    SetKernelClock(kStart);
    ExInitializeFastMutex(&device->VendorMutex);
  }
  void TearDown() override { SetKernelClockMode(KernelClockMode::Real); }

  TestDevice device;
  VendorRecorder host;
};

TEST_F(VendorRequests, EachWrapperSendsItsWireForm) {
  static uint8_t bytes[200] = {0x33, 0x8C, 0xA5, 0x11, 0x01, 0x02};
  static uint8_t in[64], ab = 0xAB;
  device->SensorI2CAddr = 0x42;
  using Call = NTSTATUS (*)(DeviceContext*);
#define SEND(call) [](DeviceContext* c) -> NTSTATUS { return call; }
  struct Case {
    Call call;
    std::string wire;  // whole, or with `length` its head only
    uint32_t length = 0;
  } const cases[] = {
      {SEND(WriteRegister(c, 0x60, 0x12, &ab)), "1 60AB 0012 out"},
      {SEND(WriteRegisterPairs(c, 0x7A, bytes, 3)), "3 7A00 0200 out [33 8C A5 11 01 02]"},
      {SEND(WriteRegisterPairs(c, 0x7A, bytes, 0)), "3 7A00 0200 out []"},
      {SEND(WriteRegisterBurst(c, 0x78, 0x33, bytes + 1, 3)), "3 7800 0033 out [8C A5 11]"},
      {SEND(WriteTriplesForm3(c, 0x42, bytes, 2)), "3 4200 0300 out [33 8C A5 11 01 02]"},
      {SEND(WriteTriplesForm4(c, 0x42, bytes, 1)), "3 4200 0400 out [33 8C A5]"},
      {SEND(WriteQuads(c, 0x78, bytes, 1)), "3 7800 0500 out [33 8C A5 11]"},
      {SEND(ReadMemoryBlock(c, 0x0141, in)), "6 0141 0000 in 64"},
      {SEND(WriteMemoryBlock(c, 0x0040, bytes)), "6 0040 0000 out [33 8C A5 11 01 02 00", 64},
      // Off a 64-byte boundary: no data stage at all.
      {SEND(WriteMemoryBlock(c, 0x0041, bytes)), "6 0041 0001 out"},
      {SEND(ReadWideForm1(c, 0x78, 0x90, in)), "8 7801 0090 in 2"},
      {SEND(ReadWideForm2(c, 0x78, 0x3390, in)), "8 7802 3390 in 1"},
      {SEND(ReadWideForm3(c, 0x78, 0x3390, in)), "8 7803 3390 in 2"},
      {SEND(SendControllerRestart(c)), "7 0000 0000 out"},
      {SEND(WriteControllerPairs(c, bytes, 2)), "3 0000 0200 out [33 8C A5 11]"},
      // On a plain sensor a length of 100 is no read mark: it is 100 pairs.
      {SEND((WriteSensorPacket(c, bytes, 100), STATUS_SUCCESS)), "3 4200 0200 out [33 8C", 200},
  };
#undef SEND
  for (const Case& c : cases) {
    SCOPED_TRACE(c.wire);
    host.Clear();
    EXPECT_EQ(c.call(device.context), STATUS_SUCCESS);
    const std::vector<VendorCall> calls = host.Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(c.length ? calls[0].Text().substr(0, c.wire.size()) : calls[0].Text(), c.wire);
    EXPECT_EQ(calls[0].length, c.length ? c.length : calls[0].length);
  }
}

TEST_F(VendorRequests, ReadTakesOneOrTwoStepsByBusAndReadDelay) {
  struct Case {
    int32_t readDelay;
    uint8_t bus, reg;
    Lines wire;
    int64_t pause;
  } cases[] = {
      {0, 0x60, 0x12, {"2 6000 0012 in 1"}, 0},
      {5000, 0x60, 0x12, {"1 6000 8012 out", "2 6000 8012 in 1"}, 5000},
      {5000, 0, 4, {"2 0000 0004 in 1"}, 0},  // the controller never takes two steps
      {10000000, 0x21, 0xFF, {"1 2100 80FF out", "2 2100 80FF in 1"}, 10000000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.readDelay);
    host.Clear();
    host.registers[uint16_t(c.bus << 8 | c.reg)] = 0x5A;
    device->ReadDelay = c.readDelay;
    uint8_t value = 0;
    const int64_t before = Clock();
    EXPECT_EQ(ReadRegister(device.context, c.bus, c.reg, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 0x5A);
    EXPECT_EQ(host.Lines(), c.wire);
    EXPECT_EQ(host.Calls().back().time - host.Calls().front().time, c.pause);
    EXPECT_EQ(Clock() - before, c.pause);
  }
}

TEST_F(VendorRequests, FailedFirstStepEndsTheReadAndFailedReadsGiveZeroToTheLibrary) {
  device->ReadDelay = 5000;
  device->SensorI2CAddr = 0x60;
  host.registers[0x6012] = 0x77;
  host.registers[0x0004] = 0x66;
  host.FailNth(1, STATUS_DEVICE_NOT_CONNECTED);
  uint8_t value = 0;
  EXPECT_EQ(ReadRegister(device.context, 0x60, 0x12, &value), STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(host.Lines(), Lines{"1 6000 8012 out"});

  struct Case {
    size_t failing;  // which request fails, 0 none
    uint8_t (*read)(void*, uint8_t);
    uint8_t reg, expected;
  } cases[] = {{0, ReadSensorByte, 0x12, 0x77},
               {2, ReadSensorByte, 0x12, 0},
               {0, ReadControllerByte, 4, 0x66},
               {1, ReadControllerByte, 4, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << int(c.reg) << " failing " << c.failing);
    host.status = nullptr;
    if (c.failing) host.FailNth(c.failing, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(c.read(device.context, c.reg), c.expected);
  }
}

TEST(VendorHelpers, StringsWidenWithSignAndNarrowToTheLowByte) {
  const uint8_t bytes[] = {'O', 'V', 0x80, 0xFF, '7'};
  WCHAR wide[6] = {9, 9, 9, 9, 9, 9};
  WidenString(wide, bytes, 1);  // a length of 1 copies nothing
  EXPECT_EQ(wide[0], 9);
  WidenString(wide, bytes, 10);
  EXPECT_EQ(std::u16string(wide, 6), std::u16string(u"OV\xFF80\xFFFF\x0037\x0009"));

  const WCHAR source[] = {u'S', 0x1234, 0xFF41};
  uint8_t narrow[4] = {7, 7, 7, 7};
  NarrowString(narrow, source, 0);
  EXPECT_EQ(narrow[0], 7);
  NarrowString(narrow, source, 3);
  EXPECT_EQ(std::vector<uint8_t>(narrow, narrow + 4), (std::vector<uint8_t>{'S', 0x34, 0x41, 7}));

  for (uint32_t item = 0; item < 12; ++item) {
    EXPECT_EQ(SensorPropertyHook(nullptr, item, 1, 2),
              item <= 8 ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED)
        << item;
  }
}

// Two threads read sensor registers in two steps while a third writes: the
// mutex must keep each pair of steps together on the wire.
TEST(VendorRequestThreads, TwoStepReadsStayWholeUnderContention) {
  TestDevice device;
  VendorRecorder host;
  ExInitializeFastMutex(&device->VendorMutex);
  device->ReadDelay = 10;
  constexpr int kRounds = 200;
  auto reader = [&](uint8_t bus) {
    for (int i = 0; i < kRounds; ++i) {
      uint8_t value;
      ReadRegister(device.context, bus, uint8_t(i), &value);
    }
  };
  std::thread a(reader, 0x60), b(reader, 0x42);
  std::thread c([&] {
    for (int i = 0; i < kRounds; ++i) {
      uint8_t data = uint8_t(i);
      WriteRegister(device.context, 0, 0x20, &data);
    }
  });
  a.join();
  b.join();
  c.join();
  const std::vector<VendorCall> calls = host.Calls();
  ASSERT_EQ(calls.size(), size_t(kRounds * 5));
  for (size_t i = 0; i < calls.size(); ++i) {
    if (calls[i].request != 1 || !(calls[i].index & 0x8000)) continue;
    ASSERT_LT(i + 1, calls.size());
    EXPECT_EQ(calls[i + 1].request, 2) << "at " << i;
    EXPECT_EQ(calls[i + 1].value, calls[i].value) << "at " << i;
    EXPECT_EQ(calls[i + 1].index, calls[i].index) << "at " << i;
  }
  EXPECT_EQ(FastMutexBalance(), 0);
}

}  // namespace
