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
  r.payload = CamProcessUSBPacketEx(nullptr, device.context, nullptr, nullptr, nullptr, &descriptor,
                                    bytes.data(), &r.frameComplete, &r.packetFlag,
                                    &r.validDataOffset);
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
  EXPECT_EQ(last.payload, 0u);
  EXPECT_EQ(last.frameComplete, 1);
  EXPECT_EQ(device->BlankPacketCountdown, 500u);
  EXPECT_EQ(device->FrameBytes, 0u) << "the blank phase counts nothing";
  // While the frame path has not yet cleared the phase, the count starts again.
  EXPECT_EQ(SendPacket(device, 600).frameComplete, 0);
  EXPECT_EQ(device->BlankPacketCountdown, 499u);
}

TEST(PacketAssembly, PacketsAreDroppedWhileTheWorkerReprograms) {
  struct Case {
    uint8_t command;
    bool dropped;
  } cases[] = {{0, false}, {1, true}, {2, true}, {3, true}, {4, false}, {5, false}, {128, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(int(c.command));
    TestDevice device;
    device->WorkerCommand = c.command;
    device->FrameBytes = 100;
    PacketResult r = SendPacket(device, 512, 12, PacketFlagButtonDown);
    EXPECT_EQ((r.packetFlag & USBCAMD_PROCESSPACKETEX_DropPacket) != 0, c.dropped);
    EXPECT_EQ(r.payload, c.dropped ? 0u : 500u);
    EXPECT_EQ(r.validDataOffset, c.dropped ? 0u : 12u);
    EXPECT_EQ(device->FrameBytes, c.dropped ? 100u : 600u);
  }
}

TEST(PacketAssembly, PayloadSizeNeverGoesBelowZeroAndAnEmptyPacketIsDropped) {
  struct Case {
    uint32_t length;
    uint8_t header;
    uint32_t payload;
  } cases[] = {{12, 12, 0}, {13, 12, 1}, {5, 200, 0}, {1, 1, 0}, {1, 255, 0}, {3072, 12, 3060}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.length << "/" << int(c.header));
    TestDevice device;
    PacketResult r = SendPacket(device, c.length, c.header);
    EXPECT_EQ(r.payload, c.payload);
    EXPECT_EQ(r.validDataOffset, c.header);
    EXPECT_EQ(device->FrameBytes, c.payload);
  }
  TestDevice device;
  SendPacket(device, 1000);
  PacketResult r = SendPacket(device, 0);
  EXPECT_EQ(r.packetFlag, USBCAMD_PROCESSPACKETEX_DropPacket);
  EXPECT_EQ(r.payload, 0u);
  EXPECT_EQ(device->FrameBytes, 988u);
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

// Sends a frame whose payload before the last packet is `frameBytes`, and
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
  const uint32_t RGB = CompressionRGB24, YUY = CompressionYUY2, I42 = CompressionI420;
  struct Case {
    uint32_t compression;
    uint32_t w, h;
    uint8_t scale, wire, pipeline;
    uint32_t length;
    bool ok;
  } cases[] = {
      // Bayer, same size: a whole frame or two lines short.
      {RGB, 640, 480, 0, 1, 0, 307200, true}, {RGB, 640, 480, 0, 1, 0, 305920, true},
      {RGB, 640, 480, 0, 1, 0, 307199, false}, {RGB, 640, 480, 0, 0, 0, 307200, true},
      {YUY, 640, 480, 1, 1, 0, 305920, true}, {I42, 320, 240, 0, 1, 0, 76800, true},
      // Bayer, wire twice the output.
      {RGB, 320, 240, 2, 1, 0, 307200, true}, {RGB, 320, 240, 2, 1, 0, 305920, true},
      {RGB, 352, 288, 2, 1, 0, 307200, true}, {RGB, 352, 288, 2, 1, 0, 305920, true},
      {RGB, 352, 288, 2, 1, 0, 4 * 288 * 352, true}, {RGB, 176, 144, 2, 1, 0, 307200, true},
      {RGB, 1024, 768, 2, 1, 0, 1228800, true}, {RGB, 1024, 768, 2, 1, 0, 1226240, true},
      {I42, 1024, 768, 2, 1, 0, 1228800, false}, {RGB, 800, 600, 2, 1, 0, 1228800, false},
      // Bayer, wire half and a quarter of the output.
      {RGB, 640, 480, 3, 1, 0, 76800, true}, {RGB, 640, 480, 3, 1, 0, 76160, true},
      {RGB, 640, 480, 3, 1, 0, 76801, false}, {RGB, 640, 480, 5, 1, 0, 19200, true},
      {RGB, 640, 480, 5, 1, 0, 18880, true},
      // Bayer, wire four times the output.
      {RGB, 160, 120, 4, 1, 0, 307200, true}, {RGB, 160, 120, 4, 1, 0, 305920, true},
      // A scale mode above 5 counts as same size.
      {RGB, 640, 480, 9, 1, 0, 307200, true}, {RGB, 640, 480, 9, 1, 0, 614400, false},
      // YUYV.
      {YUY, 640, 480, 0, 0, 0, 614400, true}, {YUY, 640, 480, 0, 2, 0, 614400, true},
      {YUY, 640, 480, 0, 2, 0, 612480, false}, {RGB, 640, 480, 0, 2, 0, 614400, true},
      {I42, 640, 480, 0, 2, 0, 614400, true}, {YUY, 320, 240, 2, 2, 0, 614400, true},
      {YUY, 352, 288, 2, 2, 0, 614400, true}, {YUY, 176, 144, 2, 2, 0, 614400, true},
      {YUY, 176, 144, 2, 2, 0, 8 * 144 * 176, true}, {YUY, 640, 480, 3, 2, 0, 153600, true},
      {YUY, 650, 481, 3, 2, 0, 156324, true}, {YUY, 640, 480, 4, 2, 0, 32 * 640 * 480, true},
      {YUY, 640, 480, 5, 2, 0, 38400, true}, {YUY, 640, 480, 5, 2, 0, 38401, false},
      // No test: 4:2:0 on the wire, I420 following the output, other formats.
      {RGB, 640, 480, 0, 3, 0, 1, true}, {YUY, 640, 480, 0, 3, 0, 12345, true},
      {I42, 640, 480, 0, 0, 0, 7, true}, {0x12345678, 640, 480, 0, 1, 0, 7, true},
      {RGB, 640, 480, 0, 4, 0, 7, true},
      // The image processor: the width alone decides.
      {RGB, 800, 600, 0, 1, 1, 12345, true}, {RGB, 641, 480, 0, 1, 1, 1, true},
      {RGB, 1280, 960, 0, 1, 1, 1228800, true}, {RGB, 1280, 960, 0, 1, 1, 1226240, true},
      {RGB, 1600, 1200, 0, 1, 1, 1920000, true}, {RGB, 1600, 1200, 0, 1, 1, 76800, true},
      {RGB, 1600, 1200, 0, 1, 1, 1228801, false}, {YUY, 640, 480, 0, 2, 1, 1310720, true},
      {YUY, 640, 480, 0, 2, 1, 38400, true}, {YUY, 640, 480, 0, 2, 1, 614401, false},
      {YUY, 320, 240, 0, 2, 1, 153600, true}, {YUY, 320, 240, 0, 2, 1, 614400, true},
      {YUY, 320, 240, 0, 2, 1, 8 * 240 * 320, true}, {YUY, 320, 240, 0, 2, 1, 19200, true},
      {YUY, 320, 240, 0, 2, 1, 1228800, false},
  };
  for (const Case& c : cases) {
    TestDevice device;
    device.SetMode(c.compression, c.w, c.h, c.scale, c.wire, c.pipeline);
    EXPECT_EQ(FramePasses(device, c.length), c.ok)
        << std::hex << c.compression << std::dec << " " << c.w << "x" << c.h << " scale "
        << int(c.scale) << " wire " << int(c.wire) << " pipeline " << int(c.pipeline)
        << " length " << c.length;
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
  // each frame follows a frame end and is skipped, so the release is seen by
  // the second packet of frame 12.
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
  struct Case {
    uint32_t polling, releaseCount;
  } cases[] = {{0, 0xFFFFFFFF}, {100, 20}, {30, 66}, {2000, 1}, {5000, 1}};
  for (const Case& c : cases) {
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
