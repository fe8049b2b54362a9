// The emulated camera's USB identity and its isochronous stream: descriptors,
// packets at each alternate setting, frames of each mode, frame rate, button,
// and the sensor state each frame is drawn with.

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "emulator/emulated_camera.h"
#include "tests/emulator_test_helpers.h"

namespace {

using namespace emutest;
using K = EmulatedSensorKind;
using L = WireFrameLayout;

struct Walk {
  bool found = false;
  uint8_t interfaceNumber = 0;
  int idleSetting = -1;
  uint16_t smallest = 0xFFFF;
  size_t settings = 0;
};

// The driver's walk of the configuration: the class 14 subclass 2 interface,
// and among its alternate settings the first with the smallest isochronous
// wMaxPacketSize, skipping settings without endpoints.
Walk WalkConfiguration(const std::vector<uint8_t>& bytes) {
  Walk walk;
  const size_t total = bytes[2] | size_t(bytes[3]) << 8;
  for (size_t pos = 0; pos + 1 < total && bytes[pos] != 0; pos += bytes[pos]) {
    if (bytes[pos + 1] != 4 || bytes[pos + 5] != 14 || bytes[pos + 6] != 2) continue;
    walk.found = true;
    walk.interfaceNumber = bytes[pos + 2];
    ++walk.settings;
    if (bytes[pos + 4] == 0) continue;  // bNumEndpoints
    for (size_t e = pos + bytes[pos]; e + 1 < total && bytes[e] != 0 && bytes[e + 1] != 4;
         e += bytes[e]) {
      if (bytes[e + 1] != 5 || (bytes[e + 3] & 3) != 1) continue;
      const uint16_t size = uint16_t(bytes[e + 4] | bytes[e + 5] << 8);
      if (size < walk.smallest) walk.smallest = size, walk.idleSetting = bytes[pos + 3];
      break;
    }
  }
  return walk;
}

TEST(EmulatedUsbIdentity, DescriptorsCarryTheChipRevisionAndTheStreamingInterface) {
  struct Case {
    const char* name;
    bool highSpeed, class14;
    uint8_t before;
    std::vector<uint16_t> settings;
    int idleSetting;
    uint16_t smallest, bcdDevice;  // the chip revision
  } const cases[] = {
      {"high speed defaults", true, true, 0, {}, 1, 128, 0x0200},
      {"full speed defaults", false, true, 0, {}, 1, 128, 0x0100},
      {"after two others, no endpoints never idle",
       false,
       true,
       2,
       {0, 512, 0, 64, 1023},
       3,
       64,
       0x0103},
      {"vendor-specific interface", true, false, 0, {}, -1, 0xFFFF, 0x0200},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EmulatedCameraConfig config;
    config.highSpeed = c.highSpeed;
    config.streamingInterfaceClass14 = c.class14;
    config.interfacesBeforeStreaming = c.before;
    config.alternateSettings = c.settings;
    config.bcdDevice = c.bcdDevice;
    EmulatedCamera cam(config);
    const std::vector<uint8_t> device = cam.DeviceDescriptorBytes();
    ASSERT_EQ(device.size(), 18u);
    EXPECT_EQ(std::tuple(device[0], device[1], device[12] | device[13] << 8,
                         cam.DeviceDescriptor().bcdDevice),
              std::tuple(18, 1, int(c.bcdDevice), c.bcdDevice));
    const std::vector<uint8_t> bytes = cam.ConfigurationDescriptorBytes();
    ASSERT_GE(bytes.size(), 9u);
    // Type 2, wTotalLength, bNumInterfaces.
    EXPECT_EQ(std::tuple(bytes[1], size_t(bytes[2] | bytes[3] << 8), bytes[4]),
              std::tuple(2, bytes.size(), c.before + 1));
    const Walk walk = WalkConfiguration(bytes);
    EXPECT_EQ(std::tuple(walk.found, walk.idleSetting, walk.smallest),
              std::tuple(c.class14, c.idleSetting, c.smallest));
    EXPECT_TRUE(!c.class14 ||
                (walk.interfaceNumber == c.before && walk.settings == cam.AlternateSettingCount()));
    EXPECT_EQ(cam.StreamingInterfaceNumber(), c.before);
  }
}

// OV7670 at 160 x 120 YUYV: 38400 bytes a frame.
const std::vector<RegisterWrite> kSmallYuyv = {{0x42, 0x12, 0x10}, {0x42, 0x72, 0x11}};

EmulatedCameraConfig Ov7670(bool highSpeed = true, uint8_t headerLength = 4) {
  EmulatedCameraConfig config = WithSensor(K::OV7670);
  config.highSpeed = highSpeed;
  config.packetHeaderLength = headerLength;
  return config;
}

TEST(EmulatedStream, PacketsFitEachAlternateSettingAndCarryTheHeader) {
  struct Case {
    bool highSpeed;
    uint8_t setting, headerLength;
    uint32_t capacity;  // bytes per (micro)frame
  } const cases[] = {
      {false, 1, 4, 128},
      {false, 5, 12, 1023},
      {true, 3, 2, 1024},
      {true, 5, 12, 3072},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "capacity " << c.capacity);
    EmulatedCamera cam(Ov7670(c.highSpeed, c.headerLength));
    ASSERT_TRUE(WriteAll(cam, kSmallYuyv));
    ASSERT_EQ(StartStream(cam, c.setting), STATUS_SUCCESS);
    const uint32_t payload = c.capacity - c.headerLength;
    uint64_t pulled = 0;
    std::vector<uint8_t> packet;
    for (int f = 0; f < 2; ++f) {
      // Packet by packet: start, full data packets, the last shorter, end.
      std::vector<std::vector<uint8_t>> frame;
      while (frame.empty() || !(frame.back()[1] & 0x02)) {
        ASSERT_TRUE(cam.NextPacket(&packet));
        ASSERT_LE(packet.size(), c.capacity);
        ASSERT_LT(++pulled, 100000u);
        if (!packet.empty()) frame.push_back(packet);
      }
      ASSERT_EQ(frame.size(), (38400 + payload - 1) / payload + 2);
      size_t bytes = 0;
      for (size_t i = 0; i < frame.size(); ++i) {
        const std::vector<uint8_t>& p = frame[i];
        const bool edge = i == 0 || i + 1 == frame.size();
        ASSERT_EQ(p[0], c.headerLength);
        EXPECT_EQ(p[1], i + 1 == frame.size() ? 0x02 : 0x00) << "packet " << i;
        EXPECT_TRUE(!(edge || i + 2 < frame.size()) ||
                    p.size() == (edge ? c.headerLength : c.capacity))
            << "packet " << i;
        bytes += p.size() - p[0];
      }
      EXPECT_EQ(bytes, 38400u);
    }
    ASSERT_TRUE(cam.NextPacket(&packet));
    EXPECT_TRUE(packet.empty()) << "between frames the camera sends empty packets";
  }
  // A setting without an endpoint has no stream at all.
  EmulatedCamera cam(Ov7670());
  ASSERT_EQ(cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  std::vector<uint8_t> packet;
  EXPECT_FALSE(cam.NextPacket(&packet));
  EXPECT_EQ(cam.SelectAlternateSetting(6), STATUS_INVALID_PARAMETER);
}

TEST(EmulatedStream, FrameLengthFollowsTheModeTheScriptWrote) {
  struct VariableWrite {
    uint16_t address, value;
  };
  struct Case {
    const char* name;
    EmulatedSensorKind kind;  // the MI2020 on a revision-1 chip, the others on revision 2
    std::vector<RegisterWrite> writes;
    std::vector<VariableWrite> variables;  // MI: quads, on revision 1 bursts, to 0x338C / 0x3390
    uint32_t width, height;
    WireFrameLayout layout;
    size_t bytes;
    bool twoLinesShort = false;
  };
  using V = std::vector<RegisterWrite>;
  using M = std::vector<VariableWrite>;
  const uint8_t ov = 0x60;
  // OV2640: sensor bank SVGA, then the DSP bank.
  auto svga = [&](V more) {
    more.insert(more.begin(), {{ov, 0xFF, 0x01}, {ov, 0x12, 0x40}, {ov, 0xFF, 0x00}});
    return more;
  };
  // DSP bank raw, output size in fours (0x5A, 0x5B, 0x5C high bits).
  // DSP bank raw, output size in fours (0x5A, 0x5B, 0x5C high bits).
  const V uxga = {{ov, 0xFF, 0}, {ov, 5, 1}, {ov, 0x5A, 0x90}, {ov, 0x5B, 0x2C}, {ov, 0x5C, 5}};
  const V sxga = {{ov, 0x05, 0x01}, {ov, 0x5A, 0x40}, {ov, 0x5B, 0xF0}, {ov, 0x5C, 0x01}};
  const V vga = svga({{ov, 0x05, 0x01}, {ov, 0x5A, 0xA0}, {ov, 0x5B, 0x78}});
  // CIF in the sensor bank, 4:2:0 in the DSP bank.
  const V qcif = {{ov, 0xFF, 1},    {ov, 0x12, 0x10}, {ov, 0xFF, 0},
                  {ov, 0xDA, 0x0C}, {ov, 0x5A, 0x2C}, {ov, 0x5B, 0x24}};
  const M miQvga = {{0x2703, 320}, {0x2705, 240}, {0x2755, 1}};
  const M mi420 = {{0x2703, 320}, {0x2705, 240}, {0x2755, 2}};
  const M miCapture = {{0x2757, 1}, {0xA103, 2}}, miUxga = {{0x2703, 1600}, {0x2705, 1200}};
  const Case cases[] = {
      {"OV7670 VGA Bayer", K::OV7670, {{0x42, 0x12, 0x01}}, {}, 640, 480, L::Bayer, 307200},
      {"OV7670 QCIF", K::OV7670, {{0x42, 0x12, 0x08}}, {}, 176, 144, L::Yuyv, 50688},
      {"OV2640 UXGA Bayer", K::OV2640, uxga, {}, 1600, 1200, L::Bayer, 1920000},
      {"OV2640 VGA two lines short", K::OV2640, vga, {}, 640, 480, L::Bayer, 305920, true},
      {"OV2640 QCIF 4:2:0", K::OV2640, qcif, {}, 176, 144, L::Yuv420, 38016},
      {"OV2640 more than the readout", K::OV2640, svga(sxga), {}, 800, 600, L::Bayer, 480000},
      {"MI2021 capture context", K::MI2021, {}, miCapture, 1600, 1200, L::Bayer, 1920000},
      {"MI2021 binned context refuses UXGA", K::MI2021, {}, miUxga, 800, 600, L::Yuyv, 960000},
      {"MI2021 4:2:0", K::MI2021, {}, mi420, 320, 240, L::Yuv420, 115200},
      {"MI2020 through bursts", K::MI2020, {}, miQvga, 320, 240, L::Bayer, 76800},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const bool revision1 = c.kind == K::MI2020;
    EmulatedCameraConfig config = WithSensor(c.kind, revision1 ? 0x0100 : 0x0200);
    config.framesTwoLinesShort = c.twoLinesShort;
    EmulatedCamera cam(config);
    ASSERT_TRUE(WriteAll(cam, c.writes));
    for (const VariableWrite& v : c.variables) {
      if (!revision1) {
        WriteVariable(cam, 0x78, v.address, v.value);
        continue;
      }
      // WRITEEX 7A 338C 2703 on revision 1: request 3, wIndex 0x33.
      for (const auto& [low, word] : {std::pair{0x8C, v.address}, std::pair{0x90, v.value}}) {
        ASSERT_EQ(Send(cam, 3, 0x7A00, 0x33, {uint8_t(low), uint8_t(word >> 8), uint8_t(word)}),
                  STATUS_SUCCESS);
      }
    }
    const WireFrameInfo info = cam.CurrentWireFrame();
    EXPECT_EQ(std::tuple(info.width, info.height, info.layout, info.frameBytes),
              std::tuple(c.width, c.height, c.layout, c.bytes));
    // The stream carries exactly that many bytes a frame.
    ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
    CollectedFrame frame;
    uint64_t pulled = 0;
    ASSERT_TRUE(CollectFrame(cam, &frame, &pulled));
    EXPECT_EQ(frame.bytes.size(), c.bytes);
  }
}

TEST(EmulatedStream, FrameRateFollowsTheClockDividerAndTheBandwidth) {
  struct Case {
    const char* name;
    bool highSpeed;
    uint8_t clockDivider;  // OV7670 CLKRC
    bool vga;              // 640 x 480 YUYV instead of 160 x 120
    int64_t period;        // between frame starts, in 100 ns
  } const cases[] = {
      {"30 per second", true, 0x00, false, 333333},
      {"7.5 per second at full speed", false, 0x03, false, 1333333},
      // 614400 bytes in 1019-byte packets take 603 ms: every 19th frame.
      {"bandwidth bound", false, 0x00, true, 19 * 333333},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EmulatedCamera cam(Ov7670(c.highSpeed));
    ASSERT_TRUE(WriteAll(cam, c.vga ? std::vector<RegisterWrite>{} : kSmallYuyv));
    ASSERT_EQ(Write(cam, 0x42, 0x11, c.clockDivider), STATUS_SUCCESS);
    ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
    uint64_t pulled = 0, first = 0;
    for (int f = 0; f < 4; ++f) {
      CollectedFrame frame;
      ASSERT_TRUE(CollectFrame(cam, &frame, &pulled));
      if (f == 0) first = frame.startPacket;
      const int64_t start = int64_t(frame.startPacket - first) * cam.IsoInterval100ns();
      EXPECT_NEAR(double(start), double(c.period * f), double(cam.IsoInterval100ns()));
    }
    EXPECT_EQ(cam.CurrentWireFrame().framePeriod100ns, 333333 * (c.clockDivider + 1));
  }
}

TEST(EmulatedStream, ButtonShowsInTheHeaderAndRegisterFromItsFrame) {
  EmulatedCamera cam(Ov7670());
  ASSERT_TRUE(WriteAll(cam, kSmallYuyv));
  cam.ScheduleButton(1, true);
  cam.ScheduleButton(3, false);
  ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
  const bool down[] = {false, true, true, false, false};
  uint64_t pulled = 0;
  for (int f = 0; f < 5; ++f) {
    CollectedFrame frame;
    ASSERT_TRUE(CollectFrame(cam, &frame, &pulled));
    uint8_t r7 = 0;
    ASSERT_EQ(Read(cam, 0, 7, &r7), STATUS_SUCCESS);
    EXPECT_EQ(std::tuple((frame.flagsOr & 0x20) != 0, (frame.endFlags & 0x20) != 0, (r7 & 1) != 0),
              std::tuple(down[f], down[f], down[f]))
        << "frame " << f;
  }
}

TEST(EmulatedStream, StreamStopsAndStartsOnRequestFiveAndWireRegistersAgree) {
  EmulatedCamera cam(Ov7670());
  ASSERT_TRUE(WriteAll(cam, kSmallYuyv));
  ASSERT_EQ(cam.SelectAlternateSetting(2), STATUS_SUCCESS);
  std::vector<uint8_t> packet;
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(cam.NextPacket(&packet));
    EXPECT_TRUE(packet.empty()) << "nothing before streaming starts";
  }
  ASSERT_EQ(cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  EXPECT_TRUE(cam.IsStreaming());
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(cam.NextPacket(&packet));
  EXPECT_FALSE(packet.empty());
  ASSERT_EQ(cam.ControlTransfer(5, 0, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  for (int i = 0; i < 400; ++i) {
    ASSERT_TRUE(cam.NextPacket(&packet));
    ASSERT_TRUE(packet.empty()) << "nothing after streaming stops";
  }
  EXPECT_EQ(cam.FramesCompleted(), 0u);
  ASSERT_EQ(cam.ControlTransfer(5, 1, 0, nullptr, nullptr, false), STATUS_SUCCESS);
  CollectedFrame frame;
  uint64_t pulled = 0;
  ASSERT_TRUE(CollectFrame(cam, &frame, &pulled));
  EXPECT_EQ(frame.bytes.size(), 38400u);
  EXPECT_EQ(frame.startPacket, 0u) << "a frame begins at once";
  // The controller's wire registers against the sensor's mode: 160 = 0x00A0,
  // 120 = 0x0078, layout 1 (YUYV).
  EXPECT_FALSE(cam.WireRegistersAgree());
  ASSERT_EQ(
      Send(cam, 3, 0x0000, 0x0200, {0x20, 0xA0, 0x21, 0x00, 0x22, 0x78, 0x23, 0x00, 0x24, 0x01}),
      STATUS_SUCCESS);
  EXPECT_TRUE(cam.WireRegistersAgree());
  ASSERT_EQ(Write(cam, 0, 0x24, 0x00), STATUS_SUCCESS);
  EXPECT_FALSE(cam.WireRegistersAgree()) << "Bayer said, YUYV sent";
}

TEST(EmulatedStream, BuiltInPictureFollowsOrientationAndLens) {
  auto draw = [](uint32_t w, uint32_t h, L layout, std::function<void(FrameRequest*)> change) {
    FrameRequest r;
    std::tie(r.width, r.height, r.layout) = std::tuple(w, h, layout);
    r.arrayWidth = r.fieldWidth = 640;
    r.arrayHeight = r.fieldHeight = 480;
    change(&r);
    std::vector<uint8_t> bytes;
    TestPatternSource().Render(r, &bytes);
    EXPECT_EQ(bytes.size(), WireFrameBytes(w, h, layout));
    return bytes;
  };
  const uint32_t w = 160;
  const std::vector<uint8_t> vga = draw(640, 480, L::Yuyv, [](FrameRequest*) {});
  for (const bool mirror : {true, false}) {
    const std::vector<uint8_t> turned =
        draw(640, 480, L::Yuyv, [&](FrameRequest* r) { (mirror ? r->mirror : r->flip) = true; });
    size_t wrong = 0;
    for (uint32_t y = 0; y < 480; y += 7) {
      for (uint32_t x = 0; x < 640; ++x) {
        const size_t from = mirror ? size_t(y) * 640 + 639 - x : size_t(479 - y) * 640 + x;
        wrong += turned[(size_t(y) * 640 + x) * 2] != vga[from * 2];
      }
    }
    EXPECT_NE(turned, vga);
    EXPECT_EQ(wrong, 0u) << (mirror ? "mirror" : "flip");
  }
  // Seven bar edges a line, each one jump of more than 16 at the focus, and
  // spread over 2 x 60 x 640 / 800 / 4 = 24 pixels sixty steps away.
  for (const auto& [at, fewest, most] : {std::tuple{100, 7, 7}, {40, 0, 2}}) {
    const std::vector<uint8_t> f = draw(w, 120, L::Yuyv, [at = at](FrameRequest* r) {
      r->lensFitted = true, r->lensFocusPosition = 100, r->lensPosition = at;
    });
    int edges = 0;
    for (uint32_t x = 1; x < w; ++x)
      edges += std::abs(f[(100 * w + x) * 2] - f[(100 * w + x) * 2 - 2]) > 16;
    EXPECT_TRUE(edges >= fewest && edges <= most) << "lens at " << at << ": " << edges;
  }
}

struct CountingSource : FrameSource {
  std::vector<FrameRequest> requests;
  void Render(const FrameRequest& request, std::vector<uint8_t>* bytes) override {
    requests.push_back(request);
    bytes->assign(10, 0x5A);  // far too short: the camera pads it
  }
};

TEST(EmulatedStream, FrameSourceSeesTheSensorStateOfEachFrame) {
  // OV7670: exposure AECH x 4 lines against 256 (power-on 0x40), gain
  // 16 + GAIN sixteenths, brightness a two's complement offset.
  // writes; mirror, flip, brightness, gain16, light
  const std::tuple<std::vector<RegisterWrite>, bool, bool, int32_t, uint32_t, uint32_t> cases[] = {
      {{}, false, false, 0, 16, 256},
      {{{0x42, 0x1E, 0x30}, {0x42, 0x55, 0xF0}, {0x42, 0x00, 0x08}}, true, true, -16, 24, 384},
      {{{0x42, 0x10, 0x20}}, false, false, 0, 16, 128},
      {{{0x42, 0x00, 0x10}, {0x42, 0x10, 0x80}}, false, false, 0, 32, 1024}};
  for (const auto& [writes, mirror, flip, brightness, gain16, light] : cases) {
    SCOPED_TRACE(testing::Message() << "gain " << gain16 << " light " << light);
    auto source = std::make_shared<CountingSource>();
    EmulatedCameraConfig config = Ov7670();
    config.frameSource = source;
    config.lens = EmulatedLensKind::NoHomeSwitch;
    config.lensStartPosition = 33;
    EmulatedCamera cam(config);
    ASSERT_TRUE(WriteAll(cam, kSmallYuyv));
    ASSERT_TRUE(WriteAll(cam, writes));
    ASSERT_EQ(StartStream(cam), STATUS_SUCCESS);
    CollectedFrame frame;
    uint64_t pulled = 0;
    ASSERT_TRUE(CollectFrame(cam, &frame, &pulled));
    ASSERT_GE(source->requests.size(), 1u);
    const FrameRequest& r = source->requests[0];
    EXPECT_EQ(std::tuple(r.width, r.height, r.layout), std::tuple(160u, 120u, L::Yuyv));
    EXPECT_STREQ(r.sensorName, "OV7670");
    EXPECT_EQ(std::tuple(r.mirror, r.flip, r.brightness, r.gain16, r.lightScale256),
              std::tuple(mirror, flip, brightness, gain16, light));
    EXPECT_TRUE(r.lensFitted && r.lensPosition == 33 && r.lensFocusPosition == 100)
        << r.lensPosition << " " << r.lensFocusPosition;
    ASSERT_EQ(frame.bytes.size(), 38400u);
    EXPECT_TRUE(frame.bytes[9] == 0x5A && frame.bytes[10] == 0x00) << "padded after the 10 bytes";
  }
}

}  // namespace
