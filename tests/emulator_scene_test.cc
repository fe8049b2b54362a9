// The emulated camera's scenes: wire bytes of each layout, geometry, light,
// dead pixels and sensor defects against the driver's repairs, the focus
// target against the driver's measure, picture files, the text form.

#include <gtest/gtest.h>
#include <png.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "emulator/emulated_camera.h"
#include "emulator/scene.h"
#include "tests/emulator_test_helpers.h"

namespace {

using emutest::MeanLuma;
using L = WireFrameLayout;

FrameRequest Request(uint32_t w, uint32_t h, L layout, uint32_t aw = 640, uint32_t ah = 480) {
  FrameRequest r;
  std::tie(r.width, r.height, r.layout) = std::tuple(w, h, layout);
  r.arrayWidth = r.fieldWidth = aw;
  r.arrayHeight = r.fieldHeight = ah;
  return r;
}

std::shared_ptr<SceneSource> Scene(const std::string& scene) {
  SceneConfig config;
  std::string error;
  std::shared_ptr<SceneSource> source;
  if (ParseSceneText(scene, &config, &error)) source = SceneSource::Make(config, &error);
  if (!source) ADD_FAILURE() << scene << ": " << error;
  return source;
}

std::vector<uint8_t> Render(const std::shared_ptr<SceneSource>& source, const FrameRequest& r) {
  std::vector<uint8_t> frame;
  if (source) source->Render(r, &frame);
  return frame;
}

// A temporary folder for picture files, removed at the end.
struct TempFolder {
  std::string path = ::testing::TempDir() + "mr740-scene-XXXXXX";
  TempFolder() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string File(const std::string& name, const std::string& bytes) const {
    if (FILE* f = std::fopen((path + "/" + name).c_str(), "wb")) {
      std::fwrite(bytes.data(), 1, bytes.size(), f);
      std::fclose(f);
    }
    return path + "/" + name;
  }
  std::string Png(const std::string& name, uint32_t w, uint32_t h, uint32_t format,
                  const std::vector<uint8_t>& pixels) const {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    std::tie(image.width, image.height, image.format) = std::tuple(w, h, format);
    EXPECT_NE(
        png_image_write_to_file(&image, (path + "/" + name).c_str(), 0, pixels.data(), 0, nullptr),
        0);
    return path + "/" + name;
  }
};

std::string Ppm(uint32_t w, uint32_t h, uint32_t maxval, const std::vector<uint8_t>& samples) {
  std::string s = "P6\n# made by the scene test\n" + std::to_string(w) + " " + std::to_string(h) +
                  "\n" + std::to_string(maxval) + "\n";
  s.append(samples.begin(), samples.end());
  return s;
}

TEST(EmulatedScene, WireLayoutsPutKnownColoursInTheirPlaces) {
  // Four 2 x 2 blocks red, green / blue, white against a floating-point
  // BT.601 studio-range reference, each byte within one level.
  const uint8_t colours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
  auto ycc = [&](int block, int component) {
    const double r = colours[block][0], g = colours[block][1], b = colours[block][2];
    return component == 0   ? 16 + (65.481 * r + 128.553 * g + 24.966 * b) / 255
           : component == 1 ? 128 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255
                            : 128 + (112.0 * r - 93.786 * g - 18.214 * b) / 255;
  };
  std::vector<uint8_t> samples;
  std::vector<double> bayer, yuyv, yuv420;
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      const int block = (y / 2) * 2 + x / 2;
      samples.insert(samples.end(), colours[block], colours[block] + 3);
      // Blue at even line and column, red at odd and odd, green elsewhere.
      bayer.push_back(colours[block][(y % 2 == 0) ? (x % 2 == 0 ? 2 : 1) : (x % 2 == 0 ? 1 : 0)]);
      yuyv.insert(yuyv.end(), {ycc(block, 0), ycc(block, x % 2 == 0 ? 1 : 2)});
      yuv420.push_back(ycc(block, 0));
    }
  }
  for (int b = 0; b < 8; ++b) yuv420.push_back(ycc(b % 4, 1 + b / 4));
  TempFolder folder;
  auto source = Scene("image=" + folder.File("blocks.ppm", Ppm(4, 4, 255, samples)));
  for (const auto& [layout, expected] :
       {std::pair{L::Bayer, bayer}, std::pair{L::Yuyv, yuyv}, std::pair{L::Yuv420, yuv420}}) {
    const std::vector<uint8_t> f = Render(source, Request(4, 4, layout, 1600, 1200));
    ASSERT_EQ(f.size(), expected.size()) << "layout " << int(layout);
    for (size_t i = 0; i < f.size(); ++i) {
      EXPECT_NEAR(f[i], expected[i], 1.0) << "layout " << int(layout) << " byte " << i;
    }
  }
}

TEST(EmulatedScene, MirrorFlipAndFieldPickTheirPartOfThePicture) {
  // Luma of a 4:2:0 frame is each pixel's own: a reversed read shows as
  // reversed bytes exactly.
  TempFolder folder;
  std::vector<uint8_t> noise(5 * 3 * 3);
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = uint8_t(i * 37 % 251);
  const std::string picture = "image=" + folder.File("odd.ppm", Ppm(5, 3, 255, noise));
  const std::tuple<std::string, bool, bool> cases[] = {
      {"bars", true, true}, {"face", true, false}, {picture, false, true}};  // mirror, flip
  const uint32_t w = 40, h = 30;
  for (const auto& [scene, mirror, flip] : cases) {
    auto source = Scene(scene);
    FrameRequest r = Request(w, h, L::Yuv420);
    r.frameIndex = 25;  // the face off the middle
    const std::vector<uint8_t> plain = Render(source, r);
    r.mirror = mirror, r.flip = flip;
    const std::vector<uint8_t> turned = Render(source, r);
    ASSERT_EQ(turned.size(), plain.size());
    EXPECT_NE(turned, plain) << scene;
    int wrong = 0;
    for (uint32_t i = 0; i < w * h; ++i) {
      const uint32_t x = i % w, y = i / w;
      wrong += turned[i] != plain[(flip ? h - 1 - y : y) * w + (mirror ? w - 1 - x : x)];
    }
    EXPECT_EQ(wrong, 0) << scene << " mirror " << mirror << " flip " << flip;
  }
  // The left half of the array at half the width is the left half of the
  // whole array's frame.
  {
    const char* scene = "face";
    auto source = Scene(scene);
    const std::vector<uint8_t> whole = Render(source, Request(64, 24, L::Bayer));
    FrameRequest r = Request(32, 24, L::Bayer);
    r.fieldWidth = 320;
    std::vector<uint8_t> left;
    for (uint32_t y = 0; y < 24; ++y) left.insert(left.end(), &whole[y * 64], &whole[y * 64 + 32]);
    EXPECT_EQ(Render(source, r), left) << scene;
  }
}

TEST(EmulatedScene, PictureLevelsFollowTheLightAndItsSizeTheFrame) {
  // A grey of 100 at 6 x 4 on a Bayer wire, every byte the lit level; and 4 x
  // 2 columns 0, 100, 200, 50 shrunk by averaging and grown by repeating.
  TempFolder folder;
  const std::string grey = "image=" + folder.File("grey.ppm", Ppm(1, 1, 255, {100, 100, 100}));
  std::vector<uint8_t> samples;
  for (int y = 0; y < 2; ++y) {
    for (uint8_t v : {0, 100, 200, 50}) samples.insert(samples.end(), {v, v, v});
  }
  const std::string cols = "image=" + folder.File("cols.ppm", Ppm(4, 2, 255, samples));
  using V = std::vector<uint8_t>;
  const std::tuple<const std::string&, uint32_t, uint32_t, int32_t, V> cases[] = {
      // scene, width, light, brightness, frame
      {grey, 6, 256, 0, V(24, 100)},  {grey, 6, 512, 0, V(24, 200)},
      {grey, 6, 256, -120, V(24, 0)}, {grey, 6, 384, -30, V(24, 120)},
      {cols, 2, 256, 0, {50, 125}},   {cols, 8, 256, 0, {0, 0, 100, 100, 200, 200, 50, 50}}};
  for (const auto& [scene, width, light, brightness, expected] : cases) {
    FrameRequest r = Request(width, uint32_t(expected.size() / width), L::Bayer);
    r.lightScale256 = light, r.brightness = brightness;
    EXPECT_EQ(Render(Scene(scene), r), expected) << width << " " << light << " " << brightness;
  }
}

TEST(EmulatedScene, DarknessLowersTheMeanForItsFrames) {
  FrameRequest r = Request(64, 48, L::Yuyv);
  const double normal = MeanLuma(Render(Scene("bars"), r));
  // Luma above black (16) divided alike, within a level and a half.
  const double eighth = 16 + (normal - 16) / 8;
  const std::tuple<const char*, uint64_t, double> cases[] = {// scene, frame, mean (<0: normal)
                                                             {"bars,dark=8@10-20", 9, -1},
                                                             {"bars,dark=8@10-20", 10, eighth},
                                                             {"bars,dark=off@10-20", 19, 16},
                                                             {"bars,dark=8@10-20", 20, -1},
                                                             {"bars,dark=1", 0, -1}};
  for (const auto& [scene, frame, mean] : cases) {
    r.frameIndex = frame;
    const std::vector<uint8_t> f = Render(Scene(scene), r);
    EXPECT_NEAR(MeanLuma(f), mean < 0 ? normal : mean, 1.5) << scene << " @" << frame;
    for (size_t i = 0; mean == 16 && i < f.size(); ++i) {
      ASSERT_EQ(f[i], i % 2 ? 128 : 16) << scene << ": lights off, black";
    }
  }
}

TEST(EmulatedScene, DeadPixelsStickWhereTheDriverLooksForThem) {
  // The focus target's grey corners hold a hot and a cold pixel. The driver
  // takes a sample for dead when it differs by at least its threshold from
  // its colour's samples two columns and two lines either side.
  const std::string scene = "focus,dead=4:3:255,dead=9:5:0,dead=500:500:255";
  const std::pair<L, std::string> cases[] = {
      {L::Yuyv, ""}, {L::Yuv420, ""}, {L::Bayer, ",dark=off"}, {L::Yuyv, ",dark=16"}};
  for (const auto& [layout, darkness] : cases) {
    const std::vector<uint8_t> f = Render(Scene(scene + darkness), Request(64, 48, layout));
    ASSERT_EQ(f.size(), WireFrameBytes(64, 48, layout));
    const size_t pixel = layout == L::Yuyv ? 2 : 1, line = pixel * 64;
    for (const auto& [x, y, value] : {std::tuple{4, 3, 255}, std::tuple{9, 5, 0}}) {
      const size_t at = y * line + pixel * x;
      EXPECT_EQ(f[at], value) << int(layout) << darkness;
      // In the dark a cold pixel looks like its neighbours, as it would.
      if (!darkness.empty() && value == 0) continue;
      for (size_t n : {at - 2 * pixel, at + 2 * pixel, at - 2 * line, at + 2 * line}) {
        EXPECT_GE(std::abs(int(f[at]) - int(f[n])), 64)
            << "layout " << int(layout) << darkness << " dead " << x << "," << y;
      }
    }
  }
}

// The driver's repairs, written out from its rules.
void RepairMi2020(std::vector<uint8_t>* raw, size_t width, size_t height) {
  uint8_t* p = raw->data();
  for (size_t y = 0; y < height; ++y) {
    uint8_t* e = p + y * width + width - 8;  // a b c d e f g h -> a b a b c d c d
    const uint8_t row[8] = {e[0], e[1], e[0], e[1], e[2], e[3], e[2], e[3]};
    std::memcpy(e, row, 8);
  }
  std::memcpy(p + (height - 2) * width, p + (height - 4) * width, 2 * width);
  for (size_t i = (height - 4) * width; i < (height - 2) * width; ++i) {
    p[i] = uint8_t((p[i] + p[i - 2 * width]) / 2);
  }
}

void RepairOv2640(std::vector<uint8_t>* raw, size_t width, size_t height) {
  for (uint8_t* l = raw->data(); l < raw->data() + height * width; l += width) {
    l[1277] = l[1279] = l[1275];
    l[1278] = l[1274];
  }
}

void RepairOv7670(std::vector<uint8_t>* raw, size_t width, size_t) {
  std::memcpy(raw->data(), raw->data() + 2 * width, 2 * width);
}

TEST(EmulatedScene, SensorDefectsAreWhatTheDriversRepairsUndo) {
  // On a flat picture the repaired frame equals the frame with defects off;
  // sensors and sizes without a repair (null) have no defect.
  TempFolder folder;
  const std::string grey = "image=" + folder.File("g.ppm", Ppm(1, 1, 255, {200, 180, 160}));
  using Repair = void (*)(std::vector<uint8_t>*, size_t, size_t);
  const std::tuple<const char*, L, uint32_t, uint32_t, Repair> cases[] = {
      {"MI2020", L::Bayer, 800, 8, RepairMi2020},  {"MI2020", L::Bayer, 640, 8, nullptr},
      {"MI2020", L::Yuyv, 800, 8, nullptr},        {"MI2021", L::Bayer, 800, 8, nullptr},
      {"OV2640", L::Bayer, 1280, 6, RepairOv2640}, {"OV2640", L::Bayer, 1024, 6, nullptr},
      {"OV7670", L::Yuyv, 64, 6, RepairOv7670},    {"OV7670", L::Bayer, 64, 6, nullptr}};
  auto source = Scene(grey), clean = Scene(grey + ",defects=off");
  for (const auto& [sensor, layout, width, height, repair] : cases) {
    FrameRequest r = Request(width, height, layout, 1600, 1200);
    r.sensorName = sensor;
    std::vector<uint8_t> f = Render(source, r);
    const std::vector<uint8_t> expected = Render(clean, r);
    if (repair) {
      EXPECT_NE(f, expected) << sensor << " " << width;
      repair(&f, width, height);
    }
    EXPECT_EQ(f, expected) << sensor << " " << width;
  }
}

// The driver's sharpness measure: the centred square window whose side is
// the smallest power of two with twice the side at least the height, every
// second line and column of it, each place adding its first difference above
// 16 from the luma above, left, right and below.
uint64_t DriverSharpness(const std::vector<uint8_t>& f, int width, int height) {
  int side = 1;
  while (height > 2 && 2 * side < height) side *= 2;
  const int x0 = (width - side) / 2, y0 = (height - side) / 2;
  auto luma = [&](int x, int y) { return int(f[2 * (size_t(y) * width + x)]); };
  uint64_t sum = 0;
  for (int y = y0; y < y0 + side; y += 2) {
    for (int x = x0; x < x0 + side; x += 2) {
      const int l = luma(x, y);
      for (int n : {luma(x, y - 1), luma(x - 1, y), luma(x + 1, y), luma(x, y + 1)}) {
        if (std::abs(l - n) > 16) {
          sum += std::abs(l - n);
          break;
        }
      }
    }
  }
  return sum;
}

TEST(EmulatedScene, FocusTargetIsSharpestAtTheFocusPosition) {
  const std::pair<const char*, int32_t> cases[] = {// scene, where it must be sharpest
                                                   {"focus,focus=70,blur=8", 70},
                                                   {"bars", 100}};
  for (const auto& [scene, focus] : cases) {
    auto source = Scene(scene);
    FrameRequest r = Request(160, 120, L::Yuyv);
    r.lensFocusPosition = 100;
    const std::vector<uint8_t> sharp = Render(source, r);
    r.lensPosition = 0;
    EXPECT_EQ(Render(source, r), sharp) << scene << ": without a lens the motor changes nothing";
    r.lensFitted = true;
    auto measure = [&](int32_t position) {
      r.lensPosition = position;
      return DriverSharpness(Render(source, r), 160, 120);
    };
    for (int side : {-1, 1}) {
      uint64_t previous = measure(focus);
      EXPECT_GT(previous, 0u) << scene;
      for (int d : {1, 2, 4, 8, 16, 32}) {
        const uint64_t sharpness = measure(focus + side * d);
        EXPECT_LT(sharpness, previous) << scene << " at " << side * d;
        previous = sharpness;
      }
    }
  }
}

TEST(EmulatedScene, PictureFilesLoadAndBadOnesAreRefused) {
  // A PNG with alpha comes out on black; 16-bit and small-maxval PPM scale to 8 bits.
  TempFolder f;
  using V = std::vector<uint8_t>;
  const std::tuple<std::string, uint32_t, V> loads[] = {
      {f.Png("a.png", 2, 1, PNG_FORMAT_RGBA, {200, 100, 50, 255, 200, 100, 50, 0}),
       2,
       {200, 100, 50, 0, 0, 0}},
      {f.File("b.ppm", Ppm(1, 1, 65535, {255, 255, 128, 0, 0, 0})), 1, {255, 128, 0}},
      {f.File("c.ppm", Ppm(1, 1, 15, {15, 7, 0})), 1, {255, 119, 0}}};
  for (const auto& [path, width, rgb] : loads) {
    SceneImage image;
    std::string error;
    ASSERT_TRUE(LoadSceneImage(path, &image, &error)) << error;
    EXPECT_EQ(std::tuple(image.width, image.height, image.rgb), std::tuple(width, 1u, rgb)) << path;
  }
  // Missing, not a picture, PPM and PNG cut short, too big.
  const std::string refused[] = {
      f.File("x", "") + ".none", f.File("t.png", "hello, world"),
      f.File("short.ppm", Ppm(2, 2, 255, {1, 2, 3, 4, 5})),
      f.File("cut.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16)),
      f.File("huge.ppm", Ppm(100000, 100000, 255, {}))};
  for (const std::string& path : refused) {
    SceneImage image;
    image.width = 77;
    std::string error, makeError;
    EXPECT_FALSE(LoadSceneImage(path, &image, &error)) << path;
    EXPECT_EQ(image.width, 77u) << path << ": left as it was";
    EXPECT_NE(error.find(path), std::string::npos) << error;
    SceneConfig config;
    config.kind = SceneKind::Image;
    config.imagePath = path;
    EXPECT_TRUE(MakeSceneSource(config, &makeError) == nullptr && !makeError.empty()) << path;
  }
}

// What the other tests do not read back: button events, a path with a
// space, and each text starting from the defaults.
TEST(EmulatedScene, TextFormSetsTheConfiguration) {
  SceneConfig c;
  std::string error;
  ASSERT_TRUE(ParseSceneText("face,dead=10:20:255,button=30-40,button=50", &c, &error)) << error;
  std::vector<std::pair<uint64_t, bool>> button;
  for (const SceneButtonEvent& b : c.buttonEvents) button.emplace_back(b.frame, b.down);
  EXPECT_EQ(button, (decltype(button){{30, true}, {40, false}, {50, true}}));
  ASSERT_TRUE(ParseSceneText("image=/tmp/a b.png,dark=off@5", &c, &error)) << error;
  EXPECT_EQ(std::tuple(c.kind, c.imagePath, c.lightsOff, c.darkFromFrame, c.darkUntilFrame),
            std::tuple(SceneKind::Image, std::string("/tmp/a b.png"), true, 5u, UINT64_MAX));
  EXPECT_TRUE(c.deadPixels.empty() && c.buttonEvents.empty()) << "each text starts afresh";
}

TEST(EmulatedScene, TextAndConfigurationsOutOfRangeAreRefused) {
  // One of each kind of fault: word, second kind, empty item, number out of
  // range, short triple, empty span, backward button, empty path.
  const char* bad[] = {"faces",    "face,bars",  "face,",      "speed=1001",
                       "dead=1:2", "dark=8@9-9", "button=9-3", "image="};
  for (const char* text : bad) {
    SceneConfig c;
    c.speed = 77;
    std::string error;
    EXPECT_FALSE(ParseSceneText(text, &c, &error)) << text;
    EXPECT_EQ(c.speed, 77u) << text << ": left as it was";
    EXPECT_NE(error.find("scene"), std::string::npos) << text << ": " << error;
  }
  const std::pair<const char*, void (*)(SceneConfig*)> cases[] = {
      {"defaults", [](SceneConfig*) {}},
      {"speed", [](SceneConfig* c) { c->speed = 1001; }},
      {"empty dark span", [](SceneConfig* c) { c->darkFromFrame = c->darkUntilFrame = 4; }},
      {"image without a path", [](SceneConfig* c) { c->kind = SceneKind::Image; }}};
  for (const auto& [name, change] : cases) {
    SceneConfig c;
    change(&c);
    std::string error;
    const bool made = SceneSource::Make(c, &error) != nullptr;
    EXPECT_EQ(made, name == cases[0].first) << name;
    EXPECT_EQ(made, error.empty()) << name << ": " << error;
  }
}

// Forwards to a scene and keeps the last request.
struct RecordingSource : FrameSource {
  std::shared_ptr<SceneSource> scene;
  FrameRequest last;
  void Render(const FrameRequest& r, std::vector<uint8_t>* out) override {
    last = r;
    scene->Render(r, out);
  }
};

TEST(EmulatedScene, CameraStreamsTheSceneWithItsDefectsAndTakesItsInputs) {
  // An OV7670 in its 160 x 120 YUYV mode: the frame the driver collects is
  // the scene's, the first line blank and the dead pixel in place.
  auto recorder = std::make_shared<RecordingSource>();
  recorder->scene = Scene("face,dead=20:30:255");
  ASSERT_TRUE(recorder->scene);
  EmulatedCameraConfig config = emutest::WithSensor(EmulatedSensorKind::OV7670);
  config.frameSource = recorder;
  EmulatedCamera camera(config);
  ASSERT_TRUE(emutest::WriteAll(camera, {{0x42, 0x12, 0x10}, {0x42, 0x72, 0x11}}));
  ASSERT_EQ(emutest::StartStream(camera), STATUS_SUCCESS);
  emutest::CollectedFrame frame;
  uint64_t pulled = 0;
  ASSERT_TRUE(emutest::CollectFrame(camera, &frame, &pulled));
  ASSERT_EQ(frame.bytes.size(), 160u * 120 * 2);
  EXPECT_EQ(frame.bytes, Render(recorder->scene, recorder->last));
  EXPECT_EQ(std::count(frame.bytes.begin(), frame.bytes.begin() + 320, 0), 320);
  EXPECT_NE(std::count(frame.bytes.begin() + 320, frame.bytes.begin() + 640, 0), 320);
  EXPECT_EQ(frame.bytes[2 * (30 * 160 + 20)], 255);
  for (const int orient : {1, 0}) {
    SceneConfig c;
    std::string error;
    ASSERT_TRUE(ParseSceneText("bars,orient=" + std::to_string(orient), &c, &error)) << error;
    ApplySceneInputs(c, &camera);
    EXPECT_EQ(camera.PeekControllerRegister(0) & 0x10, orient ? 0x10 : 0) << orient;
  }
}

}  // namespace
