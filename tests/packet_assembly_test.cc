// The packet path: blank phase, drops, the skipped packet, payload placement,
// the frame-end length test and the button.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"
#include "tests/device_fixture.h"

namespace {

struct PacketResult {
  uint32_t payload;
  BOOLEAN frameComplete;
  uint32_t packetFlag, validDataOffset;
};

// Sends one packet of `length` bytes with the given header length and flags.
PacketResult SendPacket(TestDevice& device, uint32_t length, uint8_t headerLength = 12,
                        uint8_t flags = 0) {
  std::vector<uint8_t> bytes(length > 2 ? length : 2, 0xEE);
  bytes[0] = headerLength;
  bytes[1] = flags;
  USBD_ISO_PACKET_DESCRIPTOR descriptor = {0, length, 0};
  PacketResult r = {0, 0, 0xDEAD, 0xDEAD};
  r.payload =
      CamProcessUSBPacketEx(nullptr, device.context, nullptr, nullptr, nullptr, &descriptor,
                            bytes.data(), &r.frameComplete, &r.packetFlag, &r.validDataOffset);
  return r;
}

// A camera sending RGB24 640x480 as Bayer at output size.
struct VgaDevice : TestDevice {
  VgaDevice() { SetMode(CompressionRGB24, 640, 480, 0, 1, 0); }
};

TEST(PacketAssembly, BlankPhaseCompletesAnEmptyFrameAtThe501stPacket) {
  TestDevice device;
  device->BlankFrameActive = 1;
  device->BlankPacketCountdown = BlankPhasePackets;
  for (int i = 0; i < 500; ++i) {
    PacketResult r = SendPacket(device, 600, 12, PacketFlagLastOfFrame);
    ASSERT_EQ(r.payload | r.frameComplete | r.packetFlag | r.validDataOffset, 0u) << "packet " << i;
  }
  PacketResult last = SendPacket(device, 600);
  EXPECT_EQ(std::make_pair(last.payload, last.frameComplete), std::make_pair(0u, BOOLEAN(1)));
  EXPECT_EQ(device->BlankPacketCountdown, 500u);
  EXPECT_EQ(device->FrameBytes, 0u) << "the blank phase counts nothing";
  // While the frame path has not yet cleared the phase, the count starts again.
  EXPECT_EQ(SendPacket(device, 600).frameComplete, 0);
  EXPECT_EQ(device->BlankPacketCountdown, 499u);
}

// Drops while the worker reprograms or for an empty packet; the payload never
// below zero, whatever length the header claims.
TEST(PacketAssembly, PayloadPlacementDropsAndHeaderLengths) {
  const struct {
    uint32_t command, length, header, payload, dropped;
  } cases[] = {{0, 512, 12, 500, 0},  {1, 512, 12, 0, 1},   {2, 512, 12, 0, 1},
               {3, 512, 12, 0, 1},    {4, 512, 12, 500, 0}, {5, 512, 12, 500, 0},
               {128, 512, 12, 0, 1},  {0, 0, 12, 0, 1},     {0, 12, 12, 0, 0},
               {0, 13, 12, 1, 0},     {0, 12, 13, 0, 0},    {0, 1, 255, 0, 0},
               {0, 3072, 12, 3060, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.command << " " << c.length << "/" << c.header);
    TestDevice device;
    device->WorkerCommand = uint8_t(c.command);
    device->FrameBytes = 100;
    PacketResult r = SendPacket(device, c.length, uint8_t(c.header));
    EXPECT_EQ(r.packetFlag, c.dropped ? USBCAMD_PROCESSPACKETEX_DropPacket : 0u);
    EXPECT_EQ(r.payload, c.payload);
    EXPECT_EQ(r.validDataOffset, c.dropped ? 0u : c.header);
    EXPECT_EQ(device->FrameBytes, 100 + c.payload);
  }
}

TEST(PacketAssembly, PacketAfterAFrameEndIsSkippedAndItsButtonIgnored) {
  VgaDevice device;
  device->StillPin = 1;
  PacketResult end = SendPacket(device, 100, 12, PacketFlagLastOfFrame);
  EXPECT_EQ(end.frameComplete, 1);
  EXPECT_EQ(end.payload, 88u) << "the last packet's payload still goes to the frame";
  PacketResult skipped = SendPacket(device, 100, 12, PacketFlagButtonDown);
  EXPECT_EQ(skipped.payload | skipped.validDataOffset | skipped.packetFlag, 0u);
  EXPECT_EQ(device->StillEventPending, 0) << "the skipped packet's button is not looked at";
  EXPECT_EQ(device->FrameBytes, 0u);
  EXPECT_EQ(SendPacket(device, 100).payload, 88u);
}

// Ends a frame whose payload before the last packet is `frameBytes`, and
// reports whether it passed the length test.
bool FramePasses(TestDevice& device, uint32_t frameBytes) {
  device->FrameBytes = frameBytes;
  device->SkipNextPacket = 0;
  PacketResult r = SendPacket(device, 20, 12, PacketFlagLastOfFrame);
  EXPECT_EQ(r.frameComplete, 1);
  EXPECT_EQ(device->FrameBytes, 0u);
  return device->FrameLengthOk != 0;
}

TEST(PacketAssembly, FrameLengthTestFollowsFormatsAndScaleModes) {
  const uint32_t R = CompressionRGB24, Y = CompressionYUY2, I = CompressionI420;
  // Output format and size, scale mode, wire format, pipeline; lengths that
  // pass and lengths that fail.
  struct Case {
    uint32_t compression, w, h;
    uint8_t scale, wire, pipeline;
    std::vector<uint32_t> pass, fail;
  } cases[] = {
      // Bayer at output size: a whole frame or two lines short.
      {R, 640, 480, 0, 1, 0, {307200, 305920}, {307199}},
      {R, 640, 480, 0, 0, 0, {307200}, {}},
      {Y, 640, 480, 1, 1, 0, {305920}, {}},
      {I, 320, 240, 0, 1, 0, {76800}, {}},
      // Bayer, wire twice, half, four times, a quarter of the output; 9 is same size.
      {R, 320, 240, 2, 1, 0, {307200, 305920}, {}},
      {R, 352, 288, 2, 1, 0, {307200, 305920, 405504}, {}},
      {R, 176, 144, 2, 1, 0, {307200}, {}},
      {R, 1024, 768, 2, 1, 0, {1228800, 1226240}, {}},
      {I, 1024, 768, 2, 1, 0, {}, {1228800}},
      {R, 800, 600, 2, 1, 0, {}, {1228800}},
      {R, 640, 480, 3, 1, 0, {76800, 76160}, {76801}},
      {R, 160, 120, 4, 1, 0, {307200, 305920}, {}},
      {R, 640, 480, 5, 1, 0, {19200, 18880}, {}},
      {R, 640, 480, 9, 1, 0, {307200}, {614400}},
      // YUYV.
      {Y, 640, 480, 0, 0, 0, {614400}, {}},
      {Y, 640, 480, 0, 2, 0, {614400}, {612480}},
      {R, 640, 480, 0, 2, 0, {614400}, {}},
      {I, 640, 480, 0, 2, 0, {614400}, {}},
      {Y, 352, 288, 2, 2, 0, {614400}, {}},
      {Y, 176, 144, 2, 2, 0, {614400, 8 * 144 * 176}, {}},
      {Y, 650, 481, 3, 2, 0, {156324}, {}},
      {Y, 640, 480, 4, 2, 0, {32 * 640 * 480}, {}},
      {Y, 640, 480, 5, 2, 0, {38400}, {38401}},
      // No test: 4:2:0 on the wire, I420 following the output, other formats.
      {R, 640, 480, 0, 3, 0, {1}, {}},
      {Y, 640, 480, 0, 3, 0, {12345}, {}},
      {I, 640, 480, 0, 0, 0, {7}, {}},
      {0x12345678, 640, 480, 0, 1, 0, {7}, {}},
      {R, 640, 480, 0, 4, 0, {7}, {}},
      // The image processor: the width alone decides.
      {R, 800, 600, 0, 1, 1, {12345}, {}},
      {R, 641, 480, 0, 1, 1, {1}, {}},
      {R, 1600, 1200, 0, 1, 1, {1920000, 1916800, 76800}, {1228801}},
      {Y, 640, 480, 0, 2, 1, {1310720, 38400}, {614401}},
      {Y, 320, 240, 0, 2, 1, {153600, 614400, 19200}, {1228800}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << std::hex << c.compression << std::dec << " " << c.w << "x" << c.h << " scale "
                 << int(c.scale) << " wire " << int(c.wire) << " pipeline " << int(c.pipeline));
    for (bool ok : {true, false}) {
      for (uint32_t length : ok ? c.pass : c.fail) {
        TestDevice device;
        device.SetMode(c.compression, c.w, c.h, c.scale, c.wire, c.pipeline);
        EXPECT_EQ(FramePasses(device, length), ok) << length;
      }
    }
  }
}

TEST(PacketAssembly, WrongLengthIsLoggedOnlyInEngineerMode) {
  for (uint32_t engineer : {0u, 2u}) {
    VgaDevice device;
    device->EngineerMode = engineer;
    DebugPrintCapture log;
    EXPECT_FALSE(FramePasses(device, 1234));
    EXPECT_TRUE(FramePasses(device, 307200));
    EXPECT_EQ(log.Lines(), engineer ? std::vector<std::string>{"Length of Frame is 1234\n"}
                                    : std::vector<std::string>{});
  }
}

TEST(PacketAssembly, StillPinOneMarksOnlyTheFrameInWhichTheButtonIsLetGo) {
  VgaDevice device;
  device->StillPin = 1;
  // Button held in frames 2 to 11, four packets a frame; the first packet of
  // each frame is skipped, so the second packet of frame 12 sees the release.
  std::vector<int> flagged;
  for (int f = 0; f < 20; ++f) {
    const uint8_t button = (f >= 2 && f < 12) ? PacketFlagButtonDown : 0;
    for (int p = 0; p < 4; ++p) {
      PacketResult r = SendPacket(device, 100, 12, button | (p == 3 ? PacketFlagLastOfFrame : 0));
      if (r.packetFlag & USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill) flagged.push_back(f);
    }
  }
  EXPECT_EQ(flagged, std::vector<int>({12}));
  EXPECT_EQ(device->StillEventPending, 1);
  EXPECT_EQ(device->StillTriggerState, 0u);
}

TEST(PacketAssembly, StillPinTwoArmsOnPressAndFiresWhenTheFramePathSaysSo) {
  const struct {
    uint32_t polling, releaseCount;
  } cases[] = {{0, 0xFFFFFFFF}, {100, 20}, {30, 66}, {2000, 1}, {5000, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.polling);
    VgaDevice device;
    device->StillPin = 2;
    device->PollingShutterKey = c.polling;
    device->ShutterReleaseCount = 0xFFFFFFFF;
    SendPacket(device, 100, 12, PacketFlagButtonDown);
    EXPECT_EQ(device->StillTriggerState, 1u);
    EXPECT_EQ(device->ShutterReleaseCount, c.releaseCount);
    // Armed: no flag until the frame path moves the trigger to 2.
    EXPECT_EQ(SendPacket(device, 100).packetFlag, 0u);
    device->StillTriggerState = 2;
    EXPECT_EQ(SendPacket(device, 100).packetFlag, USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill);
    EXPECT_EQ(device->StillTriggerState, 0u);
  }
}

TEST(PacketAssembly, LensKindTwoReadsTheHomeSwitchFromTheButtonBit) {
  VgaDevice device;
  device->IspType = 2 << 16;
  device->StillPin = 1;
  SendPacket(device, 100, 12, PacketFlagButtonDown);
  EXPECT_EQ(device->LensShutterKeyDown, 1);
  EXPECT_EQ(device->StillEventPending, 0) << "the lens switch is no still button";
  device->StillTriggerState = 1;
  EXPECT_EQ(SendPacket(device, 100, 12, PacketFlagButtonDown).packetFlag, 0u);
  EXPECT_EQ(SendPacket(device, 100).packetFlag, USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill);
  EXPECT_EQ(device->LensShutterKeyDown, 0);
  EXPECT_EQ(device->StillTriggerState, 0u);
}

TEST(PacketAssembly, FirstFormClearsNextFrameIsStillAndForwards) {
  TestDevice device;
  std::vector<uint8_t> bytes(64, 0);
  bytes[0] = 4;
  USBD_ISO_PACKET_DESCRIPTOR descriptor = {0, 64, 0};
  BOOLEAN complete = 0, nextIsStill = 1;
  EXPECT_EQ(CamProcessUSBPacket(nullptr, device.context, nullptr, nullptr, nullptr, &descriptor,
                                bytes.data(), &complete, &nextIsStill),
            60u);
  EXPECT_EQ(nextIsStill, 0);
  EXPECT_EQ(device->FrameBytes, 60u);
}

}  // namespace
