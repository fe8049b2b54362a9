// The emulated camera's faults: failed requests by number and by filter, a
// failed alternate setting, the unplugged camera, and spoiled packets, each
// against a twin camera that runs the same stream without the fault.

#include <gtest/gtest.h>

#include <thread>
#include <tuple>
#include <vector>

#include "emulator/emulated_camera.h"
#include "tests/emulator_test_helpers.h"

namespace {

using namespace emutest;

// The OV2640 powers on at UXGA YUYV, far too big for a small setting.
const std::vector<RegisterWrite> kOv2640Small = {{0x60, 0x5A, 0x28}, {0x60, 0x5B, 0x1E}};

TEST(EmulatedFaults, NthRequestFailsAloneAndHasNoEffect) {
  EmulatedCamera cam;
  uint8_t value = 0;
  ASSERT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);  // requests before the arming don't count
  cam.FailNthRequest(2, STATUS_CANCELLED);
  std::vector<NTSTATUS> answers;
  std::vector<uint8_t> registers;
  for (uint8_t i = 1; i <= 3; ++i) answers.push_back(Write(cam, 0, uint8_t(0x40 + i), i));
  for (uint8_t i = 1; i <= 3; ++i) registers.push_back(cam.PeekControllerRegister(0x40 + i));
  EXPECT_EQ(answers, (std::vector<NTSTATUS>{STATUS_SUCCESS, STATUS_CANCELLED, STATUS_SUCCESS}));
  EXPECT_EQ(registers, (std::vector<uint8_t>{1, 0, 3}));
}

TEST(EmulatedFaults, FiltersAndTheAlternateSettingFailAsOftenAsAsked) {
  EmulatedCamera cam;
  cam.FailRequestsMatching([](const ControlRequestInfo& r) { return r.request == 5; },
                           STATUS_IO_DEVICE_ERROR, 2);
  cam.FailRequestsMatching(
      [](const ControlRequestInfo& r) { return r.request == 2 && (r.value >> 8) == 0x60; },
      STATUS_DEVICE_DATA_ERROR);
  EXPECT_EQ(cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false), STATUS_IO_DEVICE_ERROR);
  EXPECT_FALSE(cam.IsStreaming());
  EXPECT_EQ(Write(cam, 0, 0x40, 1), STATUS_SUCCESS);
  EXPECT_EQ(cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_TRUE(cam.IsStreaming());
  // The read filter stays armed: every second step fails, first steps pass.
  uint8_t value = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ReadTwoStep(cam, 0x60, 0x0A, &value), STATUS_DEVICE_DATA_ERROR);
  }
  EXPECT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);
  cam.ClearRequestFaults();
  EXPECT_EQ(ReadTwoStep(cam, 0x60, 0x0A, &value), STATUS_SUCCESS);
  cam.FailNextSelectAlternateSetting(STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(cam.SelectAlternateSetting(3), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(cam.CurrentAlternateSetting(), 0) << "left as it was";
  EXPECT_EQ(cam.SelectAlternateSetting(3), STATUS_SUCCESS);
  EXPECT_EQ(cam.CurrentAlternateSetting(), 3);
}

TEST(EmulatedFaults, UnpluggedCameraAnswersNothingAndStopsItsStream) {
  EmulatedCamera cam;
  ASSERT_TRUE(WriteAll(cam, kOv2640Small));
  ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
  std::vector<uint8_t> packet;
  ASSERT_TRUE(cam.NextPacket(&packet));
  cam.Unplug();
  EXPECT_FALSE(cam.IsPlugged());
  EXPECT_FALSE(cam.IsStreaming());
  // request, value, index, in, data length (-1: no data stage)
  const std::tuple<uint8_t, uint16_t, uint16_t, bool, int> cases[] = {
      {1, 0x0020, 6, false, -1}, {2, 0, 4, true, 1}, {6, 0, 0, true, 64}, {9, 0, 0, false, -1}};
  for (const auto& [request, value, index, in, size] : cases) {
    uint8_t buffer[64] = {};
    uint32_t length = size < 0 ? 0 : uint32_t(size);
    EXPECT_EQ(cam.ControlTransfer(request, value, index, buffer, size < 0 ? nullptr : &length, in),
              STATUS_DEVICE_NOT_CONNECTED)
        << "request " << int(request);
  }
  EXPECT_FALSE(cam.NextPacket(&packet));
  std::vector<std::vector<uint8_t>> packets;
  EXPECT_EQ(cam.NextIsoPackets(cam.BusTime() + 100000, &packets), 0u);
  EXPECT_EQ(cam.SelectAlternateSetting(1), STATUS_DEVICE_NOT_CONNECTED);
}

// Two identical cameras streaming the same mode: one spoiled, one clean.
std::vector<std::vector<uint8_t>> Packets(EmulatedCamera& cam, size_t count) {
  EXPECT_TRUE(WriteAll(cam, {{0x42, 0x12, 0x10}, {0x42, 0x72, 0x11}}));
  EXPECT_EQ(StartStream(cam, 3), STATUS_SUCCESS);
  std::vector<std::vector<uint8_t>> packets;
  cam.NextIsoPackets(cam.BusTime() + int64_t(count) * cam.IsoInterval100ns(), &packets);
  return packets;
}

TEST(EmulatedFaults, SpoiledPacketsDifferFromTheCleanStreamOnlyWhereAsked) {
  using V = std::vector<uint8_t>;
  using R = StreamPacketRole;
  using F = PacketFaultKind;
  // name, fault, role, parameter, times, the spoiled form of a clean packet
  const std::tuple<const char*, F, R, uint32_t, uint64_t, V (*)(V)> cases[] = {
      {"drop the end of a frame", F::Drop, R::FrameEnd, 0, 1, [](V) { return V(); }},
      {"cut data packets to 10 bytes", F::Truncate, R::FrameData, 10, 3,
       [](V p) { return p.resize(10), p; }},
      {"invert the flags of a frame end", F::CorruptByte, R::FrameEnd, 1, 1,
       [](V p) { return p[1] = uint8_t(~p[1]), p; }},
      {"start header claims 3 bytes more", F::HeaderBeyondPacket, R::FrameStart, 3, 2,
       [](V p) { return p[0] = uint8_t(p.size() + 3), p; }},
  };
  for (const auto& [name, kind, role, parameter, times, spoil] : cases) {
    SCOPED_TRACE(name);
    EmulatedCamera clean(WithSensor(EmulatedSensorKind::OV7670));
    EmulatedCamera spoiled(WithSensor(EmulatedSensorKind::OV7670));
    spoiled.AddPacketFault(
        kind, [role = role](const StreamPacketInfo& p) { return p.role == role; }, parameter,
        times);
    // Two frames of 160 x 120 YUYV at 1024 bytes a microframe, and idle time.
    const auto a = Packets(clean, 800), b = Packets(spoiled, 800);
    ASSERT_TRUE(a.size() == 800 && b.size() == 800);
    uint64_t differing = 0;
    for (size_t i = 0; i < a.size(); ++i) {
      if (a[i] == b[i]) continue;
      ++differing;
      ASSERT_FALSE(a[i].empty());
      const R was = (a[i][1] & 0x02)         ? R::FrameEnd
                    : a[i].size() == a[i][0] ? R::FrameStart
                                             : R::FrameData;
      EXPECT_EQ(was, role) << "packet " << i;
      EXPECT_EQ(b[i], spoil(a[i])) << "packet " << i;
    }
    EXPECT_EQ(differing, times);
  }
}

TEST(EmulatedCameraThreads, RequestsFromSeveralThreadsWhilePacketsArePulled) {
  EmulatedCamera cam;
  ASSERT_TRUE(WriteAll(cam, kOv2640Small));
  ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
  const int rounds = 2000;
  std::vector<int> mismatches(2, 0);
  auto writer = [&](int id) {
    const uint8_t reg = uint8_t(0x40 + id);
    for (int i = 0; i < rounds; ++i) {
      Write(cam, 0, reg, uint8_t(i));
      uint8_t value = 0;
      Read(cam, 0, reg, &value);
      if (value != uint8_t(i)) ++mismatches[id];
    }
  };
  uint64_t frames = 0;
  std::thread puller([&]() {
    std::vector<uint8_t> packet;
    for (int i = 0; i < 4 * rounds; ++i) {
      if (!cam.NextPacket(&packet)) break;
      if (!packet.empty() && (packet[1] & 0x02)) ++frames;
    }
  });
  std::thread a(writer, 0), b(writer, 1);
  a.join();
  b.join();
  puller.join();
  EXPECT_EQ(mismatches, std::vector<int>(2, 0));
  EXPECT_GT(frames, 0u);
  EXPECT_EQ(cam.RequestCount(), uint64_t(4 * rounds + 3));
}

}  // namespace
