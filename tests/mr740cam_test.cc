// mr740cam's camera commands and picture files: PNG pictures that libpng
// reads back with the right size and colour, YUV4MPEG2 videos laid out as
// players expect, clear refusals of bad arguments and bad descriptions, and
// a capture through driver, host and emulated camera into files.

#include <gtest/gtest.h>
#include <png.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tools/camera_info_tool.h"
#include "tools/capture_tool.h"
#include "tools/picture_files.h"
#include "tools/registry_tool.h"
#include "tools/script_tool.h"

namespace {

namespace fs = std::filesystem;

std::vector<uint8_t> FileBytes(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class PictureFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / ("mr740-pictures-" + std::to_string(::getpid()));
    fs::create_directories(folder_);
  }
  void TearDown() override { fs::remove_all(folder_); }

  // Reads a PNG with libpng's own reader, as top-down RGB.
  static bool ReadPng(const fs::path& path, std::vector<uint8_t>* rgb, uint32_t* w, uint32_t* h) {
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) return false;
    image.format = PNG_FORMAT_RGB;
    rgb->resize(PNG_IMAGE_SIZE(image));
    *w = image.width;
    *h = image.height;
    return png_image_finish_read(&image, nullptr, rgb->data(), 0, nullptr) != 0;
  }

  fs::path folder_;
};

// BT.601 studio range, the colours of the standard's tables: 75 % bars are
// not needed, the full primaries are Y/Cb/Cr 81/90/240 (red), 145/54/34
// (green), 41/240/110 (blue), 235/128/128 (white), 16/128/128 (black).
struct Colour {
  const char* name;
  uint8_t r, g, b;
  uint8_t y, cb, cr;
};
constexpr Colour kColours[] = {
    {"red", 255, 0, 0, 81, 90, 240},       {"green", 0, 255, 0, 145, 54, 34},
    {"blue", 0, 0, 255, 41, 240, 110},     {"white", 255, 255, 255, 235, 128, 128},
    {"black", 0, 0, 0, 16, 128, 128},
};

// A 4 x 2 frame of each format whose top row is `top` and bottom row
// `bottom`, laid out as the driver delivers it.
std::vector<uint8_t> TwoRowFrame(PictureFormat format, const Colour& top, const Colour& bottom) {
  std::vector<uint8_t> frame;
  switch (format) {
    case PictureFormat::RGB24:  // bottom-up BGR
      for (const Colour* c : {&bottom, &top}) {
        for (int x = 0; x < 4; ++x) frame.insert(frame.end(), {c->b, c->g, c->r});
      }
      break;
    case PictureFormat::YUY2:
      for (const Colour* c : {&top, &bottom}) {
        for (int pair = 0; pair < 2; ++pair) frame.insert(frame.end(), {c->y, c->cb, c->y, c->cr});
      }
      break;
    case PictureFormat::I420:  // one chroma row for both lines: top and bottom share it
      frame = {top.y, top.y, top.y, top.y, bottom.y, bottom.y, bottom.y, bottom.y,
               top.cb, top.cb, top.cr, top.cr};
      break;
  }
  return frame;
}

TEST_F(PictureFiles, PngPicturesOfEveryFormatShowTheirColoursTopRowFirst) {
  for (PictureFormat format : {PictureFormat::RGB24, PictureFormat::YUY2, PictureFormat::I420}) {
    for (const Colour& colour : kColours) {
      SCOPED_TRACE(std::string(PictureFormatName(format)) + " " + colour.name);
      // I420 shares chroma between the two lines, so both rows are one colour.
      const Colour& bottom = format == PictureFormat::I420 ? colour : kColours[4];
      const std::vector<uint8_t> frame = TwoRowFrame(format, colour, bottom);
      const PictureLayout layout{format, 4, 2};
      ASSERT_EQ(frame.size(), PictureFrameBytes(layout));
      const fs::path path = folder_ / "picture.png";
      std::string error;
      ASSERT_TRUE(WritePngPicture(path.string(), frame.data(), frame.size(), layout, &error))
          << error;
      std::vector<uint8_t> rgb;
      uint32_t w = 0, h = 0;
      ASSERT_TRUE(ReadPng(path, &rgb, &w, &h));
      ASSERT_EQ(w, 4u);
      ASSERT_EQ(h, 2u);
      // The tables' YCbCr values are rounded: two levels of tolerance.
      for (int x = 0; x < 4; ++x) {
        EXPECT_NEAR(rgb[3 * x + 0], colour.r, 2) << "x " << x;
        EXPECT_NEAR(rgb[3 * x + 1], colour.g, 2) << "x " << x;
        EXPECT_NEAR(rgb[3 * x + 2], colour.b, 2) << "x " << x;
        EXPECT_NEAR(rgb[12 + 3 * x + 0], bottom.r, 2) << "bottom x " << x;
        EXPECT_NEAR(rgb[12 + 3 * x + 1], bottom.g, 2) << "bottom x " << x;
        EXPECT_NEAR(rgb[12 + 3 * x + 2], bottom.b, 2) << "bottom x " << x;
      }
    }
  }
}

TEST_F(PictureFiles, AShortFrameIsRefusedAndLeavesNoFile) {
  const std::vector<uint8_t> frame(100);
  std::string error;
  const fs::path path = folder_ / "short.png";
  EXPECT_FALSE(WritePngPicture(path.string(), frame.data(), frame.size(),
                               {PictureFormat::RGB24, 160, 120}, &error));
  EXPECT_NE(error.find("57600"), std::string::npos) << error;
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(fs::is_empty(folder_));
}

TEST_F(PictureFiles, Y4mVideosHaveTheHeaderAndPlanesPlayersRead) {
  const Colour& red = kColours[0];
  const Colour& blue = kColours[2];
  struct Case {
    PictureFormat format;
    const char* header;
    std::vector<uint8_t> planes;  // of one frame: Y, then Cb, then Cr
  };
  const Case cases[] = {
      {PictureFormat::I420, "YUV4MPEG2 W4 H2 F30:1 Ip A1:1 C420\n",
       {81, 81, 81, 81, 41, 41, 41, 41, 90, 90, 240, 240}},
      {PictureFormat::YUY2, "YUV4MPEG2 W4 H2 F30:1 Ip A1:1 C422\n",
       {81, 81, 81, 81, 41, 41, 41, 41, 90, 90, 240, 240, 240, 240, 110, 110}},
      {PictureFormat::RGB24, "YUV4MPEG2 W4 H2 F30:1 Ip A1:1 C444\n",
       {81, 81, 81, 81, 41, 41, 41, 41, 90, 90, 90, 90, 240, 240, 240, 240,
        240, 240, 240, 240, 110, 110, 110, 110}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(PictureFormatName(c.format));
    const std::vector<uint8_t> frame = TwoRowFrame(c.format, red, blue);
    const fs::path path = folder_ / (std::string(PictureFormatName(c.format)) + ".y4m");
    std::string error;
    {
      Y4mWriter writer;
      ASSERT_TRUE(writer.Open(path.string(), {c.format, 4, 2}, &error)) << error;
      ASSERT_TRUE(writer.WriteFrame(frame.data(), frame.size(), &error)) << error;
      ASSERT_TRUE(writer.WriteFrame(frame.data(), frame.size(), &error)) << error;
      EXPECT_FALSE(fs::exists(path)) << "the video shows only when whole";
      ASSERT_TRUE(writer.Close(&error)) << error;
      EXPECT_EQ(writer.Frames(), 2u);
    }
    const std::vector<uint8_t> bytes = FileBytes(path);
    std::vector<uint8_t> expected(c.header, c.header + std::strlen(c.header));
    for (int n = 0; n < 2; ++n) {
      for (char ch : std::string("FRAME\n")) expected.push_back(uint8_t(ch));
      expected.insert(expected.end(), c.planes.begin(), c.planes.end());
    }
    if (c.format == PictureFormat::RGB24) {
      // Converted from RGB: within one level of the tables.
      ASSERT_EQ(bytes.size(), expected.size());
      for (size_t i = 0; i < bytes.size(); ++i) EXPECT_NEAR(bytes[i], expected[i], 1) << i;
    } else {
      EXPECT_EQ(bytes, expected);
    }
  }
}

TEST_F(PictureFiles, AnUnfinishedVideoLeavesNoFile) {
  const fs::path path = folder_ / "unfinished.y4m";
  std::string error;
  {
    Y4mWriter writer;
    ASSERT_TRUE(writer.Open(path.string(), {PictureFormat::I420, 4, 2}, &error)) << error;
    const std::vector<uint8_t> frame(12, 16);
    ASSERT_TRUE(writer.WriteFrame(frame.data(), frame.size(), &error));
    EXPECT_FALSE(writer.WriteFrame(frame.data(), 11, &error)) << "a short frame";
  }
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(fs::is_empty(folder_));
}

// ---------------------------------------------------------------- the commands

class Mr740camCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    folder_ = fs::temp_directory_path() / ("mr740cam-" + std::to_string(::getpid()));
    fs::create_directories(folder_);
    registry_ = (folder_ / "state" / "registry.reg").string();
  }
  void TearDown() override {
    DetachRegistryFile();
    MapDosDrive('C', "");
    ResetRegistry();
    fs::remove_all(folder_);
  }

  // One run of the tool as main runs it: a fresh registry, then the command.
  int Run(std::vector<std::string> args, std::string* out = nullptr, std::string* err = nullptr) {
    ResetRegistry();
    args.insert(args.begin(), "mr740cam");
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    FILE* outFile = std::tmpfile();
    FILE* errFile = std::tmpfile();
    int status = 1;
    if (OpenToolRegistry(registry_, errFile)) {
      const int argc = int(args.size());
      status = IsCaptureToolCommand(argv[1]) ? RunCaptureTool(argc, argv.data(), outFile, errFile)
                                             : RunCameraInfoTool(argc, argv.data(), outFile, errFile);
      FlushRegistryFile();
    }
    DetachRegistryFile();
    if (out) *out = Contents(outFile);
    if (err) *err = Contents(errFile);
    std::fclose(outFile);
    std::fclose(errFile);
    return status;
  }
  static std::string Contents(FILE* file) {
    std::rewind(file);
    std::string text;
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, file)) > 0;) text.append(chunk, n);
    return text;
  }
  std::string In(const char* name) const { return (folder_ / name).string(); }
  void WriteText(const char* name, const std::string& text) const {
    std::ofstream(folder_ / name, std::ios::binary) << text;
  }

  fs::path folder_;
  std::string registry_;
};

// Refused before any camera starts: usage errors (status 2) and descriptions
// that cannot be used (status 1), each with a message that names the fault.
TEST_F(Mr740camCommands, BadArgumentsAndBadDescriptionsAreRefusedWithTheirReason) {
  WriteText("broken.reg",
            "Windows Registry Editor Version 5.00\n\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
            "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0007]\n"
            "\"StillPin\"=dword:zz\n");
  WriteText("nokey.reg",
            "Windows Registry Editor Version 5.00\n\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Something]\n\"A\"=dword:00000001\n");
  WriteText("noscript.reg",
            "Windows Registry Editor Version 5.00\n\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
            "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0009\\SensorDetect\\Sensor00]\n"
            "\"SensorName\"=\"OV7670\"\n\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
            "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0009\\OV7670\\InitialSetting]\n"
            "\"Script\"=\"C:\\\\Cameras\\\\mine\\\\MINE.txt\"\n");
  WriteText("nosensor.reg",
            "Windows Registry Editor Version 5.00\n\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
            "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0008\\SensorDetect\\Sensor00]\n"
            "\"SensorName\"=\"XY9000\"\n");
  struct Case {
    std::vector<std::string> args;
    int status;
    std::vector<std::string> message;  // pieces the error must hold
  };
  const Case cases[] = {
      {{"capture", "--size", "640"}, 2, {"--size 640", "WxH"}},
      {{"capture", "--size", "640x480x2"}, 2, {"WxH"}},
      {{"capture", "--size", "0x480"}, 2, {"WxH"}},
      {{"capture", "--format", "MJPG"}, 2, {"MJPG", "RGB24, YUY2 and I420"}},
      {{"capture", "--frames", "0"}, 2, {"--frames 0"}},
      {{"capture", "--frames", "many"}, 2, {"--frames many"}},
      {{"capture", "--seconds", "-1"}, 2, {"--seconds -1"}},
      {{"capture", "--frames", "3", "--seconds", "1"}, 2, {"not both"}},
      {{"capture", "--out", "picture.jpg"}, 2, {"picture.jpg", ".png", ".y4m"}},
      {{"capture", "--still", "--out", "x.y4m"}, 2, {"--still"}},
      {{"capture", "--out"}, 2, {"--out needs a value"}},
      {{"capture", "--camera"}, 2, {"--camera needs a value"}},
      {{"capture", "--bogus"}, 2, {"unknown option --bogus"}},
      {{"formats", "--bogus"}, 2, {"unknown option --bogus"}},
      {{"capture", "--camera", "no-such-camera"}, 1, {"no camera no-such-camera", "ov7670-webcam"}},
      {{"info", "--camera", "0042"}, 1, {"no camera description", "0042"}},
      {{"capture", "--camera", In("missing.reg")}, 1, {"cannot read", "missing.reg"}},
      {{"capture", "--camera", In("broken.reg")}, 1, {"broken.reg"}},
      {{"capture", "--camera", In("nokey.reg")}, 1, {"nokey.reg", "describes no camera"}},
      {{"capture", "--camera", In("nosensor.reg")}, 1, {"XY9000", "does not have"}},
      {{"capture", "--camera", In("noscript.reg")}, 1, {"C:\\Cameras\\mine\\MINE.txt", "neither at"}},
      {{"capture", "--scene", "nonsense=1"}, 1, {"--scene"}},
  };
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& arg : c.args) joined += arg + " ";
    SCOPED_TRACE(joined);
    std::string out, err;
    EXPECT_EQ(Run(c.args, &out, &err), c.status) << err;
    for (const std::string& piece : c.message) {
      EXPECT_NE(err.find(piece), std::string::npos) << "missing \"" << piece << "\" in: " << err;
    }
    EXPECT_TRUE(out.empty()) << out;
  }
  EXPECT_FALSE(fs::exists(In("capture.png")));
}

// "script check" and its kin are the older "check-script" and its kin.
TEST_F(Mr740camCommands, ScriptCommandsAnswerToBothSpellings) {
  const std::string plain = std::string(MR740_SOURCE_DIR) + "/cameras/mi2021-camera/MI2021.plain.txt";
  struct Case {
    std::vector<std::string> spelling, older;
    const char* output;  // a file both write, or null
  };
  const Case cases[] = {
      {{"script", "check", plain}, {"check-script", plain}, nullptr},
      {{"script", "scramble", plain, In("new.txt")}, {"scramble-script", plain, In("old.txt")},
       "txt"},
  };
  auto run = [this](std::vector<std::string> args, std::string* out, std::string* err) {
    args.insert(args.begin(), "mr740cam");
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    FILE* outFile = std::tmpfile();
    FILE* errFile = std::tmpfile();
    const int status = RunScriptToolWithOutput(int(args.size()), argv.data(), outFile, errFile);
    *out = Contents(outFile);
    *err = Contents(errFile);
    std::fclose(outFile);
    std::fclose(errFile);
    return status;
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.spelling[1]);
    std::string out1, err1, out2, err2;
    EXPECT_EQ(run(c.spelling, &out1, &err1), 0) << err1;
    EXPECT_EQ(run(c.older, &out2, &err2), 0) << err2;
    EXPECT_EQ(out1, out2);
    if (c.output) {
      EXPECT_EQ(FileBytes(In("new.txt")), FileBytes(In("old.txt")));
      EXPECT_FALSE(FileBytes(In("new.txt")).empty());
    }
  }
  std::string out, err;
  EXPECT_EQ(run({"script", "frobnicate", plain}, &out, &err), 2);
  EXPECT_NE(err.find("script check FILE"), std::string::npos) << err;
  EXPECT_EQ(run({"script"}, &out, &err), 2);
}

// ---------------------------------------------------------------- end to end

// The whole camera: the OV7670 webcam described, started by the driver in
// the host, streaming through the packet and frame routines into files.
TEST_F(Mr740camCommands, CaptureWritesAPictureAndAVideoOfTheOfferedFormat) {
  DebugPrintCapture driverLog;  // the driver's start-up lines stay out of the test's output
  std::string out, err;
  // What the camera offers, as formats lists it.
  const int formats = Run({"formats"}, &out, &err);
  if (formats != 0 && err.find("STATUS_NOT_IMPLEMENTED") != std::string::npos) {
    GTEST_SKIP() << "the capture host is a placeholder: " << err;
  }
  ASSERT_EQ(formats, 0) << err;
  EXPECT_NE(out.find("YUY2  160x120 16 bits 38400 bytes"), std::string::npos) << out;
  ASSERT_EQ(Run({"info"}, &out, &err), 0) << err;
  EXPECT_NE(out.find("sensor:  OV7670\n"), std::string::npos) << out;
  EXPECT_NE(out.find("still:   still pin\n"), std::string::npos) << out;

  const std::string png = In("small.png");
  ASSERT_EQ(Run({"capture", "--format", "RGB24", "--size", "160x120", "--out", png,
                 "--usb-trace", In("trace.txt")},
                &out, &err),
            0)
      << err;
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&image, png.c_str()));
  EXPECT_EQ(image.width, 160u);
  EXPECT_EQ(image.height, 120u);
  png_image_free(&image);
  const std::vector<uint8_t> trace = FileBytes(In("trace.txt"));
  EXPECT_NE(std::string(trace.begin(), trace.end()).find("stream start"), std::string::npos);

  const std::string video = In("small.y4m");
  ASSERT_EQ(Run({"capture", "--format", "I420", "--size", "160x120", "--frames", "3", "--out",
                 video},
                &out, &err),
            0)
      << err;
  const std::vector<uint8_t> bytes = FileBytes(video);
  const std::string header = "YUV4MPEG2 W160 H120 F30:1 Ip A1:1 C420\n";
  ASSERT_EQ(bytes.size(), header.size() + 3 * (6 + 160 * 120 * 3 / 2));
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + long(header.size())), header);

  // A format the webcam does not offer: the offers are listed.
  EXPECT_EQ(Run({"capture", "--format", "YUY2", "--size", "1600x1200"}, &out, &err), 2);
  EXPECT_NE(err.find("does not offer YUY2 1600x1200"), std::string::npos) << err;
  EXPECT_NE(err.find("YUY2  640x480"), std::string::npos) << err;
}

}  // namespace
