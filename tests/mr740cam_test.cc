// mr740cam: PNG pictures that libpng reads back with the right size and
// colour, YUV4MPEG2 videos laid out as players expect; the registry commands,
// whose values one run writes and the next finds; the script checker and
// converter; clear refusals of bad arguments and bad descriptions; and a
// capture through driver, host and emulated camera into files.

#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "core/host_contract.h"
#include "platform/files_control.h"
#include "platform/handles.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tools/camera_catalog.h"
#include "tools/camera_info_tool.h"
#include "tools/capture_tool.h"
#include "tools/picture_files.h"
#include "tools/registry_tool.h"
#include "tools/script_tool.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

std::string FileText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The text of a temporary file, which is closed.
std::string TakeText(FILE* file) {
  std::string text(size_t(std::ftell(file)), '\0');
  std::rewind(file);
  text.resize(std::fread(text.data(), 1, text.size(), file));
  std::fclose(file);
  return text;
}

// Pixels of a PNG file as read back by libpng's own reader, top-down RGB.
std::vector<uint8_t> ReadPng(const std::string& path, uint32_t* width, uint32_t* height) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) return {};
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> rgb(PNG_IMAGE_SIZE(image));
  *width = image.width, *height = image.height;
  if (!png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr)) return {};
  return rgb;
}

// A fresh temporary folder per test, a registry file in it, no file handle left.
class Mr740cam : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> serial{0};
    ResetRegistry();
    folder_ = fs::temp_directory_path() /
              ("mr740cam-" + std::to_string(::getpid()) + "-" + std::to_string(serial++));
    fs::create_directories(folder_);
    registry_ = (folder_ / "state" / "registry.reg").string();
    filesBefore_ = OpenPlatformHandles(HandleKind::File);
  }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::File), filesBefore_) << "a file handle leaked";
    DetachRegistryFile();
    UnmapAllDosDrives();
    ResetRegistry();
    fs::remove_all(folder_);
  }

  // One run of the tool as main runs it: a fresh registry, then the command.
  int Run(std::vector<std::string> args, std::string* out = nullptr, std::string* err = nullptr) {
    ResetRegistry();
    args.insert(args.begin(), "mr740cam");
    const char* command = args.size() > 1 ? args[1].c_str() : "";
    const bool registry = IsRegistryToolCommand(command), capture = IsCaptureToolCommand(command),
               info = IsCameraInfoToolCommand(command);
    if (registry || capture || info) args.insert(args.begin() + 2, {"--registry", registry_});
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    int argc = int(args.size());
    FILE* outFile = std::tmpfile();
    FILE* errFile = std::tmpfile();
    int status = 1;
    if (!registry && !capture && !info) {
      status = RunScriptToolWithOutput(argc, argv.data(), outFile, errFile);
    } else if (OpenToolRegistry(TakeRegistryFileOption(&argc, argv.data()), errFile)) {
      status = registry  ? RunRegistryTool(argc, argv.data(), outFile, errFile)
               : capture ? RunCaptureTool(argc, argv.data(), outFile, errFile)
                         : RunCameraInfoTool(argc, argv.data(), outFile, errFile);
      FlushRegistryFile();
    }
    DetachRegistryFile();
    const std::string outText = TakeText(outFile), errText = TakeText(errFile);
    if (out) *out = outText;
    if (err) *err = errText;
    return status;
  }
  std::string In(const std::string& name) const { return (folder_ / name).string(); }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name, std::ios::binary) << text;
    return In(name);
  }

  fs::path folder_;
  std::string registry_;
  uint32_t filesBefore_ = 0;
};

using PictureFiles = Mr740cam;
using RegistryTool = Mr740cam;
using ScriptTool = Mr740cam;

// BT.601 studio range, the colours of the standard's tables.
struct Colour {
  const char* name;
  uint8_t r, g, b;
  uint8_t y, cb, cr;
};
constexpr Colour kColours[] = {
    {"red", 255, 0, 0, 81, 90, 240},   {"green", 0, 255, 0, 145, 54, 34},
    {"blue", 0, 0, 255, 41, 240, 110}, {"white", 255, 255, 255, 235, 128, 128},
    {"black", 0, 0, 0, 16, 128, 128},
};

// A 4 x 2 frame whose top row is `top` and bottom row `bottom`, laid out as
// the driver delivers it: RGB24 bottom-up BGR; I420 with one chroma row for
// both lines, which take the top's.
std::vector<uint8_t> TwoRowFrame(PictureFormat format, const Colour& top, const Colour& bottom) {
  std::vector<uint8_t> frame;
  switch (format) {
    case PictureFormat::RGB24:
      for (const Colour* c : {&bottom, &top}) {
        for (int x = 0; x < 4; ++x) frame.insert(frame.end(), {c->b, c->g, c->r});
      }
      break;
    case PictureFormat::YUY2:
      for (const Colour* c : {&top, &bottom}) {
        for (int pair = 0; pair < 2; ++pair) frame.insert(frame.end(), {c->y, c->cb, c->y, c->cr});
      }
      break;
    case PictureFormat::I420:
      frame = {top.y,    top.y,    top.y,  top.y,  bottom.y, bottom.y,
               bottom.y, bottom.y, top.cb, top.cb, top.cr,   top.cr};
      break;
  }
  return frame;
}

// PNG pictures of every format show their colours top row first (the
// tables' values are rounded: two levels of tolerance); YUV4MPEG2 videos of
// two red-over-blue frames have the header and planes players read (from
// RGB within one level, the others exact), and show only when whole.
TEST_F(PictureFiles, PngPicturesAndY4mVideosOfEveryFormat) {
  struct Case {
    PictureFormat format;
    const char* header;
    std::vector<uint8_t> planes;  // of one frame: Y, then Cb, then Cr
  } const cases[] = {
      {PictureFormat::I420, "C420", {81, 81, 81, 81, 41, 41, 41, 41, 90, 90, 240, 240}},
      {PictureFormat::YUY2,
       "C422",
       {81, 81, 81, 81, 41, 41, 41, 41, 90, 90, 240, 240, 240, 240, 110, 110}},
      {PictureFormat::RGB24, "C444", {81,  81,  81,  81,  41,  41,  41,  41,  90,  90,  90,  90,
                                      240, 240, 240, 240, 240, 240, 240, 240, 110, 110, 110, 110}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(PictureFormatName(c.format));
    const PictureLayout layout{c.format, 4, 2};
    std::string error;
    for (const Colour& colour : kColours) {
      SCOPED_TRACE(colour.name);
      const Colour& bottom = c.format == PictureFormat::I420 ? colour : kColours[4];
      const std::vector<uint8_t> frame = TwoRowFrame(c.format, colour, bottom);
      ASSERT_EQ(frame.size(), PictureFrameBytes(layout));
      ASSERT_TRUE(WritePngPicture(In("picture.png"), frame.data(), frame.size(), layout, &error))
          << error;
      uint32_t width = 0, height = 0;
      const std::vector<uint8_t> rgb = ReadPng(In("picture.png"), &width, &height);
      ASSERT_TRUE(rgb.size() == 24 && width == 4 && height == 2);
      for (int i = 0; i < 24; ++i) {
        const Colour& p = i < 12 ? colour : bottom;
        EXPECT_NEAR(rgb[i], i % 3 == 0 ? p.r : i % 3 == 1 ? p.g : p.b, 2) << "byte " << i;
      }
    }
    const std::vector<uint8_t> frame = TwoRowFrame(c.format, kColours[0], kColours[2]);
    const std::string path = In(std::string(PictureFormatName(c.format)) + ".y4m");
    {
      Y4mWriter writer;
      ASSERT_TRUE(writer.Open(path, layout, &error)) << error;
      for (int n = 0; n < 2; ++n)
        ASSERT_TRUE(writer.WriteFrame(frame.data(), frame.size(), &error));
      EXPECT_FALSE(fs::exists(path));
      ASSERT_TRUE(writer.Close(&error)) << error;
      EXPECT_EQ(writer.Frames(), 2u);
    }
    const std::string bytes = FileText(path);
    const std::string frameText = "FRAME\n" + std::string(c.planes.begin(), c.planes.end());
    const std::string expected =
        "YUV4MPEG2 W4 H2 F30:1 Ip A1:1 " + std::string(c.header) + "\n" + frameText + frameText;
    ASSERT_EQ(bytes.size(), expected.size());
    for (size_t i = 0; i < bytes.size(); ++i) {
      EXPECT_NEAR(uint8_t(bytes[i]), uint8_t(expected[i]), c.format == PictureFormat::RGB24) << i;
    }
  }
}

TEST_F(PictureFiles, AShortFrameOrAnUnfinishedVideoLeavesNoFile) {
  const std::vector<uint8_t> frame(100, 16);
  std::string error;
  EXPECT_FALSE(WritePngPicture(In("short.png"), frame.data(), frame.size(),
                               {PictureFormat::RGB24, 160, 120}, &error));
  EXPECT_NE(error.find("57600"), std::string::npos) << error;
  {
    Y4mWriter writer;
    ASSERT_TRUE(writer.Open(In("unfinished.y4m"), {PictureFormat::I420, 4, 2}, &error)) << error;
    ASSERT_TRUE(writer.WriteFrame(frame.data(), 12, &error));
    EXPECT_FALSE(writer.WriteFrame(frame.data(), 11, &error)) << "a short frame";
  }
  EXPECT_TRUE(fs::is_empty(folder_));
}

const char kCamera[] =
    "Windows Registry Editor Version 5.00\r\n\r\n"
    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
    "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0000\\InitialSetting]\r\n"
    "\"Script\"=\"C:\\\\Cameras\\\\OV7670.txt\"\r\n"
    "\"SeparateCtrl\"=dword:00000000\r\n";

TEST_F(RegistryTool, ValuesOfOneRunAreThereInTheNext) {
  const std::string key =
      "HKLM\\SYSTEM\\CurrentControlSet\\Control\\Class\\{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}"
      "\\0000";
  ASSERT_EQ(Run({"registry", "load", Write("camera.reg", kCamera)}), 0);
  ASSERT_EQ(Run({"registry", "set", key + "\\PropertySetting", "LensPos", "dword:2a"}), 0);
  ASSERT_EQ(Run({"registry", "set", key, "SensorName", "OV7670"}), 0);
  std::string out;
  ASSERT_EQ(Run({"registry", "show", key}, &out), 0);  // a later run, as after a restart
  for (const char* value : {"\"Script\"=\"C:\\\\Cameras\\\\OV7670.txt\"",
                            "\"LensPos\"=dword:0000002a", "\"SensorName\"=\"OV7670\""}) {
    EXPECT_NE(out.find(value), std::string::npos) << value << " in:\n" << out;
  }
  // Export gives a file that loads into an empty registry as the same tree.
  ASSERT_EQ(Run({"registry", "export", In("out.reg"), key}), 0);
  ResetRegistry();
  std::string error;
  ASSERT_TRUE(LoadRegistryFile(In("out.reg"), &error)) << error;
  uint32_t lens = 0;
  EXPECT_TRUE(GetRegistryDword(DeviceSoftwareKeyPath(0) + u"\\PropertySetting", u"LensPos", &lens));
  EXPECT_EQ(lens, 42u);
}

TEST_F(RegistryTool, EveryBuiltInCameraInstallsWithScriptsWhereItsDescriptionLooks) {
  std::vector<std::string> models = EmbeddedCameraModels();
  ASSERT_EQ(models.size(), 4u);
  EXPECT_NE(std::find(models.begin(), models.end(), DefaultCameraModel), models.end());
  struct Case {
    std::string model;  // empty: the default
    uint32_t instance;
    std::u16string sensor;
    std::string script;  // relative to cameras/
  } const cases[] = {
      {"", 0, u"OV7670", "ov7670-webcam/OV7670.txt"},
      {"ov2640-camera", 1, u"OV2640", "ov2640-camera/OV2640.txt"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    std::vector<std::string> args = {"registry", "install"};
    if (!c.model.empty()) args.push_back(c.model);
    ASSERT_EQ(Run(args), 0);
    // A later run finds the description, and its script through drive C.
    ResetRegistry();
    std::string error;
    ASSERT_TRUE(AttachRegistryFile(registry_, &error)) << error;
    std::u16string script;
    EXPECT_TRUE(GetRegistryString(
        DeviceSoftwareKeyPath(c.instance) + u"\\" + c.sensor + u"\\InitialSetting", u"Script",
        &script));
    DetachRegistryFile();
    ASSERT_TRUE(MapDosDrive('C', ToolDriveFolder(registry_)));
    std::string hostPath;
    ASSERT_TRUE(HostPathOfObjectName(u"\\??\\" + script, &hostPath)) << NarrowAscii(script);
    const std::string installed = FileText(hostPath);
    EXPECT_FALSE(installed.empty());
    EXPECT_EQ(installed, FileText(std::string(MR740_SOURCE_DIR) + "/cameras/" + c.script));
  }
}

// Refused before any camera starts: usage errors (status 2) and descriptions
// that cannot be used (status 1), one of each kind, with a word that names
// the fault.
TEST_F(Mr740cam, BadArgumentsAndBadDescriptionsAreRefusedWithTheirReason) {
  const std::string head = "Windows Registry Editor Version 5.00\n\n";
  const std::string classKey =
      "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\"
      "{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\";
  Write("broken.reg", head + classKey + "0007]\n\"StillPin\"=dword:zz\n");
  Write("nokey.reg", head + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Something]\n\"A\"=dword:00000001\n");
  Write("noscript.reg", head + classKey + "0009\\SensorDetect\\Sensor00]\n" +
                            "\"SensorName\"=\"OV7670\"\n\n" + classKey +
                            "0009\\OV7670\\InitialSetting]\n" +
                            "\"Script\"=\"C:\\\\Cameras\\\\mine\\\\MINE.txt\"\n");
  Write("nosensor.reg",
        head + classKey + "0008\\SensorDetect\\Sensor00]\n\"SensorName\"=\"XY9000\"\n");
  const std::string badLoad = Write(
      "bad.reg", head +
                     "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Load]\n\"A\"=dword:1\n\"B\"=dword:2\n"
                     "\"Broken\"=dword:xyz\n");
  const std::string script = Write("cam.txt", "[A]\r\n");
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* word;  // names the fault in the error
  } const cases[] = {
      {{"capture", "--size", "640"}, 2, "WxH"},
      {{"capture", "--format", "MJPG"}, 2, "MJPG"},
      {{"capture", "--frames", "0"}, 2, "--frames 0"},
      {{"capture", "--frames", "3", "--seconds", "1"}, 2, "not both"},
      {{"capture", "--out", "picture.jpg"}, 2, "picture.jpg"},
      {{"capture", "--still", "--out", "x.y4m"}, 2, "--still"},
      {{"capture", "--out"}, 2, "needs a value"},
      {{"capture", "--bogus"}, 2, "unknown option"},
      {{"capture", "--camera", "no-such-camera"}, 1, "no camera"},
      {{"info", "--camera", "0042"}, 1, "0042"},
      {{"capture", "--camera", In("missing.reg")}, 1, "missing.reg"},
      {{"capture", "--camera", In("broken.reg")}, 1, "broken.reg"},
      {{"capture", "--camera", In("nokey.reg")}, 1, "describes no camera"},
      {{"capture", "--camera", In("nosensor.reg")}, 1, "XY9000"},
      {{"capture", "--camera", In("noscript.reg")}, 1, "MINE.txt"},
      {{"capture", "--scene", "nonsense=1"}, 1, "--scene"},
      {{"registry", "load", badLoad}, 1, "bad.reg:6:"},
      {{"registry", "set", "HKEY_CURRENT_USER\\X", "A", "dword:1"}, 2, "no key"},
      {{"registry", "set", "HKLM\\X", "A", "dword:123456789"}, 2, "eight hexadecimal"},
      {{"registry", "show", "HKLM\\NoSuchKey"}, 1, "no key"},
      {{"registry", "frobnicate"}, 2, "usage"},
      {{"registry", "install", "no-such-camera"}, 1, "no built-in camera"},
      {{}, 2, ""},
      {{"check-script"}, 2, ""},
      {{"check-script", In("missing.txt")}, 2, ""},
      {{"scramble-script", script, In("no folder/out.txt")}, 2, ""},
      {{"script", "frobnicate", script}, 2, "script check FILE"},
  };
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& arg : c.args) joined += arg + " ";
    SCOPED_TRACE(joined);
    std::string out, err;
    EXPECT_EQ(Run(c.args, &out, &err), c.status) << err;
    EXPECT_FALSE(err.empty());
    EXPECT_NE(err.find(c.word), std::string::npos) << err;
    EXPECT_TRUE(out.empty()) << out;
  }
  EXPECT_FALSE(fs::exists(In("capture.png")));
  // Nothing of a failed load or of a refused description reached the tool's file.
  std::string out;
  ASSERT_EQ(Run({"registry", "show"}, &out), 0);
  for (const char* left : {"Mr740Load", "XY9000", "MINE.txt"}) {
    EXPECT_EQ(out.find(left), std::string::npos) << left << " in:\n" << out;
  }
}

// A script for the checker, and the lines of its report: each fault line
// begins with "LINE: [SECTION] " and the words that name the fault.
struct CheckCase {
  const char* what;
  std::string script;
  Lines faults;
  const char* summary;
};

std::string CrLf(std::initializer_list<const char*> lines) {
  std::string text;
  for (const char* line : lines) text += std::string(line) + "\r\n";
  return text;
}

std::vector<CheckCase> CheckCases() {
  const std::string longLine = "WRITE 0 1 2 ;" + std::string(120, 'x');
  return {
      {"a clean script, with a WAIT the fake camera never satisfies",
       CrLf({"; OV7670", "[INIT]", "DEFINE COM7 12H", "WRITE 42H COM7 80H", "DELAY 10000",
             "WAIT 42H 0AH 76H 0FFH 10000", "BITS_OP 42H 11H 1 3", "BITS_OP_16 42H 1 2 3 4 1",
             "BEG_BLK_WR 42H", "  12H 34H", "", "END_BLK_WR", "BEG_CNT_WR 0 20H", "1", "0FFH",
             "END_CNT_WR", "[HS\\INIT]", "write,0,1,2", "WRITEEX 78H 338CH 0A511H"}),
       {},
       "19 lines, 2 sections, 0 faults"},
      {"unknown keywords, before the first header too, and ';' behind a blank",
       CrLf({"WRIT 0 1 2", "[INIT]", "WRITE 0 1 2", " ; not a comment"}),
       {"1: [] unknown keyword \"WRIT\"", "4: [INIT] unknown keyword \";\""},
       "4 lines, 1 sections, 2 faults"},
      {"a malformed number, too few operands, a name of another section",
       CrLf({"[A]", "DEFINE REG 12H", "[B]", "WRITE 0 1F 2", "WRITE 0 1", "WRITE 0 REG 1"}),
       {"4: [B] WRITE: malformed number \"1F\"", "5: [B] WRITE: too few operands",
        "6: [B] WRITE: name \"REG\" is not defined"},
       "6 lines, 2 sections, 3 faults"},
      {"a fault in a block body, and a block without its end keyword",
       CrLf({"[A]", "BEG_BLK_W2B 60H", "12H", "END_BLK_W2B", "BEG_BLK_WR 60H", "12H 34H"}),
       {"3: [A] in the BEG_BLK_W2B body: too few operands",
        "5: [A] BEG_BLK_WR: the file ends before END_BLK_WR"},
       "6 lines, 1 sections, 2 faults"},
      {"a line with no CR in 128 bytes hides the rest of the file",
       CrLf({"[A]", "WRITE 0 1 2", longLine.c_str(), "WRIT 1", "[B]"}),
       {"3: [A] no CR within 128 bytes"},
       "5 lines, 1 sections, 1 faults"},
      {"a last line without CR LF",
       CrLf({"[A]", "WRITE 0 1 2"}) + "WRITE 0 1 3",
       {"3: [A] the last line has no CR LF"},
       "3 lines, 1 sections, 1 faults"},
      {"an empty file", "", {}, "0 lines, 0 sections, 0 faults"},
  };
}

// The report of a check: its fault lines without the file name in front, then the summary.
Lines Report(const std::string& out, const std::string& path) {
  Lines lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    lines[i] = lines[i].compare(0, path.size() + 1, path + ":") == 0
                   ? lines[i].substr(path.size() + 1)
                   : "unexpected: " + lines[i];
  }
  return lines;
}

TEST_F(ScriptTool, CheckReportsWhatTheDriverWouldRejectLineByLineInEitherForm) {
  for (const CheckCase& c : CheckCases()) {
    SCOPED_TRACE(c.what);
    const std::string path = Write("cam.txt", c.script);
    std::string out, err;
    EXPECT_EQ(Run({"check-script", path}, &out, &err), c.faults.empty() ? 0 : 1) << err;
    const Lines report = Report(out, path);
    ASSERT_EQ(report.size(), c.faults.size() + 1) << out;
    for (size_t i = 0; i < c.faults.size(); ++i) {
      EXPECT_EQ(report[i].compare(0, c.faults[i].size(), c.faults[i]), 0) << report[i];
    }
    EXPECT_EQ(report.back(), c.summary);
    // The scrambled form reports the same; scripts that begin with a blank
    // keep their line numbers.
    const std::string plain = Write("plain.txt", " " + c.script);
    ASSERT_EQ(Run({"scramble-script", plain, In("scrambled.txt")}, nullptr, &err), 0) << err;
    EXPECT_EQ(err, "");
    std::string fromPlain, fromScrambled;
    const int status = Run({"check-script", plain}, &fromPlain);
    EXPECT_EQ(Run({"check-script", In("scrambled.txt")}, &fromScrambled), status);
    EXPECT_EQ(Report(fromScrambled, In("scrambled.txt")), Report(fromPlain, plain));
  }
}

TEST_F(ScriptTool, ScrambleAndUnscrambleGiveBackTheText) {
  struct Case {
    std::string plain;
    std::string back;  // after scramble and unscramble
    bool noted;        // a blank line was put in front, and stderr says so
  } const cases[] = {
      {"[INIT]\r\n\tWRITE\t0 1 2\r\n", " \r\n[INIT]\r\n WRITE 0 1 2\r\n", true},
      {"", " \r\n", true},
      {" caf\xE9 \xFF.txt\r\n", " caf\xE9 \xFF.txt\r\n", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.plain);
    std::string err;
    ASSERT_EQ(Run({"scramble-script", Write("plain.txt", c.plain), In("s.txt")}, nullptr, &err), 0)
        << err;
    EXPECT_EQ(err.find("blank line was put in front") != std::string::npos, c.noted) << err;
    const std::string bytes = FileText(In("s.txt"));
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(uint8_t(bytes[0]), 0x10);
    EXPECT_EQ(bytes.size(), c.back.size());
    ASSERT_EQ(Run({"unscramble-script", In("s.txt"), In("back.txt")}, nullptr, &err), 0) << err;
    EXPECT_EQ(FileText(In("back.txt")), c.back);
  }
  // The scrambled bytes themselves, from the table of the file format; the
  // newer spelling writes the same.
  const std::string plain = Write("plain.txt", " a0[z,\r\nAB");
  ASSERT_EQ(Run({"scramble-script", plain, In("s.txt")}), 0);
  const char expected[] = {0x10, 0x11, 0x00, 0x0A, 0x2A, 0x2B, 0x2C, 0x2D, 'A', 'B'};
  EXPECT_EQ(FileText(In("s.txt")), std::string(expected, sizeof expected));
  ASSERT_EQ(Run({"script", "scramble", plain, In("new.txt")}), 0);
  EXPECT_EQ(FileText(In("new.txt")), FileText(In("s.txt")));
  // The process's entry takes the command line as main gets it.
  char name[] = "mr740cam", command[] = "unscramble-script";
  std::string in = In("s.txt"), out = In("p.txt");
  char* argv[] = {name, command, in.data(), out.data(), nullptr};
  EXPECT_EQ(RunScriptTool(4, argv), 0);
  EXPECT_EQ(FileText(out), " a0[z,\r\nAB");
}

TEST_F(ScriptTool, ConversionRefusesTextItCannotConvertAndWritesNothing) {
  const std::string out = In("out.txt");
  const std::string bad = Write("bad.txt", " [A]\r\nWRITE 0 1 2 ! x\r\n\r\nDELAY (10)\r\n");
  std::string err;
  EXPECT_EQ(Run({"scramble-script", bad, out}, nullptr, &err), 1);
  EXPECT_NE(err.find(bad + ":2: '!'"), std::string::npos) << err;
  EXPECT_FALSE(fs::exists(out));
  Write("out.txt", "old");  // an existing output stays as it was
  EXPECT_EQ(Run({"scramble-script", bad, out}), 1);
  EXPECT_EQ(Run({"unscramble-script", Write("plain.txt", " [A]\r\n"), out}, nullptr, &err), 1);
  EXPECT_NE(err.find("is not scrambled"), std::string::npos);
  const std::string scrambled = Write("scrambled.txt", std::string("\x10\x2C\x2D", 3));
  EXPECT_EQ(Run({"scramble-script", scrambled, out}), 1);
  EXPECT_EQ(FileText(out), "old");
  // No temporary file is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 4);
}

void KeepLine(void* context, const char* line) { static_cast<Lines*>(context)->push_back(line); }

TEST_F(ScriptTool, CheckLeavesTheHostCallsClockModeAndDebugPrintAsItFoundThem) {
  const std::string script =
      Write("cam.txt", CrLf({"[A]", "DELAY 100000000", "WAIT 0 1 1 1 10000000", "WRIT"}));
  Lines printed;
  SetDebugPrintSink(KeepLine, &printed);
  const HostCalls* callsBefore = GetHostCalls();
  ASSERT_EQ(GetKernelClockMode(), KernelClockMode::Real);
  EXPECT_EQ(Run({"script", "check", script}), 1);
  EXPECT_EQ(GetKernelClockMode(), KernelClockMode::Real);
  EXPECT_EQ(GetHostCalls(), callsBefore);
  DbgPrint("after\n");
  SetDebugPrintSink(nullptr, nullptr);
  // The driver's own log lines went to the checker, not to the sink.
  EXPECT_EQ(printed, Lines{"after\n"});
}

// The whole camera: the OV7670 webcam described, started by the driver in
// the host, streaming through the packet and frame routines into files.
TEST_F(Mr740cam, CaptureWritesAPictureAndAVideoOfTheOfferedFormat) {
  DebugPrintCapture driverLog;  // the driver's start-up lines stay out of the test's output
  std::string out, err;
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
  ASSERT_EQ(Run({"capture", "--format", "RGB24", "--size", "160x120", "--out", png, "--usb-trace",
                 In("trace.txt")},
                &out, &err),
            0)
      << err;
  uint32_t width = 0, height = 0;
  EXPECT_EQ(ReadPng(png, &width, &height).size(), 160u * 120 * 3);
  EXPECT_EQ(std::pair(width, height), std::pair(160u, 120u));
  EXPECT_NE(FileText(In("trace.txt")).find("stream start"), std::string::npos);

  const std::string video = In("small.y4m");
  ASSERT_EQ(
      Run({"capture", "--format", "I420", "--size", "160x120", "--frames", "3", "--out", video},
          &out, &err),
      0)
      << err;
  const std::string bytes = FileText(video);
  const std::string header = "YUV4MPEG2 W160 H120 F30:1 Ip A1:1 C420\n";
  ASSERT_EQ(bytes.size(), header.size() + 3 * (6 + 160 * 120 * 3 / 2));
  EXPECT_EQ(bytes.substr(0, header.size()), header);

  // A format the webcam does not offer: the offers are listed.
  EXPECT_EQ(Run({"capture", "--format", "YUY2", "--size", "1600x1200"}, &out, &err), 2);
  EXPECT_NE(err.find("does not offer YUY2 1600x1200"), std::string::npos) << err;
  EXPECT_NE(err.find("YUY2  640x480"), std::string::npos) << err;
}

}  // namespace
