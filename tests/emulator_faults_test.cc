// The emulated camera's faults: failed requests by number and by filter, a
// failed alternate setting, the unplugged camera, and spoiled packets, each
// against a twin camera that runs the same stream without the fault.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "emulator/emulated_camera.h"
#include "tests/emulator_test_helpers.h"

namespace {

using namespace emutest;

// The OV2640 powers on at UXGA YUYV, far too big for a small setting.
const std::vector<RegisterWrite> kOv2640Small = {{0x60, 0x5A, 0x28}, {0x60, 0x5B, 0x1E}};

TEST(EmulatedFaults, NthRequestFailsAloneAndHasNoEffect) {
  struct Case {
    uint64_t nth;
    NTSTATUS status;
  };
  for (const Case& c : {Case{1, STATUS_IO_DEVICE_ERROR}, Case{2, STATUS_UNSUCCESSFUL},
                        Case{6, STATUS_DEVICE_NOT_CONNECTED}, Case{7, STATUS_CANCELLED}}) {
    EmulatedCamera cam;
    uint8_t value = 0;
    ASSERT_EQ(Read(cam, 0, 4, &value), STATUS_SUCCESS);  // requests before the arming don't count
    cam.FailNthRequest(c.nth, c.status);
    for (uint64_t i = 1; i <= 6; ++i) {
      EXPECT_EQ(Write(cam, 0, uint8_t(0x40 + i), uint8_t(i)),
                i == c.nth ? c.status : STATUS_SUCCESS)
          << "request " << i;
    }
    for (uint64_t i = 1; i <= 6; ++i) {
      EXPECT_EQ(cam.PeekControllerRegister(uint8_t(0x40 + i)), i == c.nth ? 0 : i)
          << "nth " << c.nth << " register " << i;
    }
  }
}

TEST(EmulatedFaults, FilterFailsTheMatchingRequestsAsOftenAsAsked) {
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
}

TEST(EmulatedFaults, AlternateSettingFailsOnceWhenAsked) {
  EmulatedCamera cam;
  cam.FailNextSelectAlternateSetting(STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(cam.SelectAlternateSetting(3), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(cam.CurrentAlternateSetting(), 0);
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
  struct Case {
    uint8_t request;
    uint16_t value, index;
    bool getData;
    int length;
  };
  const Case cases[] = {
      {1, 0x0020, 6, false, -1}, {2, 0, 4, true, 1},    {3, 0x6000, 0x0200, false, 2},
      {5, 0, 0, false, -1},      {6, 0, 0, true, 64},   {7, 0, 0, false, -1},
      {8, 0x6003, 0, true, 2},   {11, 0, 0, false, -1}, {9, 0, 0, false, -1},
  };
  for (const Case& c : cases) {
    uint8_t buffer[64] = {};
    uint32_t length = c.length < 0 ? 0 : uint32_t(c.length);
    uint32_t* lengthPointer = c.length < 0 ? nullptr : &length;
    EXPECT_EQ(cam.ControlTransfer(c.request, c.value, c.index, buffer, lengthPointer, c.getData),
              STATUS_DEVICE_NOT_CONNECTED)
        << "request " << int(c.request);
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
  struct Case {
    const char* name;
    PacketFaultKind kind;
    StreamPacketRole role;
    uint32_t parameter;
    uint64_t times;
  };
  const Case cases[] = {
      {"drop the end of a frame", PacketFaultKind::Drop, StreamPacketRole::FrameEnd, 0, 1},
      {"cut data packets to 10 bytes", PacketFaultKind::Truncate, StreamPacketRole::FrameData, 10,
       3},
      {"invert the flags of a frame end", PacketFaultKind::CorruptByte, StreamPacketRole::FrameEnd,
       1, 1},
      {"invert a data packet's payload", PacketFaultKind::CorruptPayload,
       StreamPacketRole::FrameData, 0, 1},
      {"start header claims 3 bytes more", PacketFaultKind::HeaderBeyondPacket,
       StreamPacketRole::FrameStart, 3, 2},
  };
  for (const Case& c : cases) {
    EmulatedCamera clean(WithSensor(EmulatedSensorKind::OV7670));
    EmulatedCamera spoiled(WithSensor(EmulatedSensorKind::OV7670));
    const StreamPacketRole role = c.role;
    spoiled.AddPacketFault(c.kind, [role](const StreamPacketInfo& p) { return p.role == role; },
                           c.parameter, c.times);
    // Two frames of 160 x 120 YUYV at 1024 bytes a microframe, and idle time.
    const size_t count = 800;
    const auto a = Packets(clean, count);
    const auto b = Packets(spoiled, count);
    ASSERT_EQ(a.size(), count);
    ASSERT_EQ(b.size(), count);
    uint64_t differing = 0;
    for (size_t i = 0; i < count; ++i) {
      if (a[i] == b[i]) continue;
      ++differing;
      const std::vector<uint8_t>& good = a[i];
      const std::vector<uint8_t>& bad = b[i];
      ASSERT_FALSE(good.empty()) << c.name;
      switch (c.kind) {
        case PacketFaultKind::Drop:
          EXPECT_TRUE(bad.empty()) << c.name;
          EXPECT_EQ(good[1], 0x02) << c.name;
          break;
        case PacketFaultKind::Truncate:
          EXPECT_EQ(bad, std::vector<uint8_t>(good.begin(), good.begin() + 10)) << c.name;
          break;
        case PacketFaultKind::CorruptByte:
          ASSERT_EQ(bad.size(), good.size());
          EXPECT_EQ(bad[1], 0xFD) << c.name;
          break;
        case PacketFaultKind::CorruptPayload:
          ASSERT_EQ(bad.size(), good.size());
          EXPECT_TRUE(bad[0] == good[0] && bad[1] == good[1]) << "the header is left";
          for (size_t k = good[0]; k < good.size(); ++k) ASSERT_EQ(bad[k], uint8_t(~good[k]));
          break;
        case PacketFaultKind::HeaderBeyondPacket:
          ASSERT_EQ(bad.size(), good.size());
          EXPECT_EQ(bad[0], good.size() + 3) << c.name;
          break;
      }
    }
    EXPECT_EQ(differing, c.times) << c.name;
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
