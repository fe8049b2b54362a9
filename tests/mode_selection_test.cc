// Mode selection: which script section and which mode key a stream's format,
// size, quality option and bus speed give, and the order and status of the
// sections a capture start runs.

#include "script/mode_selection.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/device_context.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"
#include "tests/vendor_recorder.h"

namespace {

using Lines = std::vector<std::string>;

class ModeSelection : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    camera.Bind();
    ASSERT_TRUE(drive.mapped);
    SetRegistryString(camera.Key("InitialSetting"), u"Script", u"C:\\modes.txt");
    WriteScript("");
  }
  void TearDown() override { ResetRegistry(); }
  void WriteScript(const std::string& text) { drive.Write("modes.txt", text); }
  // The sections asked for, in order, from the script engine's log.
  Lines SectionsRun() {
    Lines sections;
    for (const std::string& line : log.Lines()) {
      if (line.rfind("Execute [", 0) == 0) sections.push_back(line.substr(9, line.size() - 11));
    }
    log.Clear();
    return sections;
  }
  void Select(DeviceContext* c, uint32_t compression, uint32_t width, uint32_t height,
              uint32_t quality) {
    c->CurrentCompression = compression;
    c->ImageWidth = width;
    c->ImageHeight = height;
    c->QualityOption = quality;
    SelectMode(c);
  }

  BoundDevice camera{0};
  DeviceContext* c = camera.device.context;
  VendorRecorder host;
  DebugPrintCapture log;
  TempDriveC drive{"modes"};
  VirtualClock clock;
};

TEST_F(ModeSelection, SectionAndModeKeyFollowFormatSizeQualityAndSpeed) {
  const uint32_t RGB = CompressionRGB24, YUY = CompressionYUY2, I42 = CompressionI420;
  struct Case {
    uint32_t compression, width, height, quality;
    bool fullSpeed;
    uint32_t separate;
    const char* section;
    const char* modeKey;  // below InitialSetting
  } cases[] = {
      {YUY, 1280, 800, 1, false, 0, "YUYV\\1280C", "YUYV\\1280C"},
      {YUY, 1280, 800, 1, true, 0, "YUYV\\1280C", "YUYV\\1280C"},
      {RGB, 1280, 1024, 0, true, 1, "FS\\RGB24\\1280_QUALITY", "FullSpeed\\RGB24\\1280"},
      {RGB, 640, 480, 2, false, 1, "HS\\RGB24\\640_FRAMERATE", "HighSpeed\\RGB24\\640"},
      {RGB, 640, 480, 2, true, 0, "RGB24\\640_FRAMERATE", "RGB24\\640"},
      {RGB, 1280, 960, 0, false, 0, "RGB24\\1280A_QUALITY", "RGB24\\1280A"},
      {RGB, 1280, 768, 7, false, 0, "RGB24\\1280B", "RGB24\\1280B"},
      {YUY, 1280, 720, 1, false, 0, "YUYV\\1280C", "YUYV\\1280C"},
      {YUY, 720, 576, 1, false, 0, "YUYV\\720", "YUYV\\720"},
      {YUY, 1440, 1152, 2, true, 1, "FS\\YUYV\\1440_FRAMERATE", "FullSpeed\\YUYV\\1440"},
      {RGB, 484, 240, 0, true, 1, "FS\\RGB24\\484_QUALITY", "FullSpeed\\RGB24\\484"},
      {I42, 352, 288, 2, false, 0, "I420\\352_FRAMERATE", "I420\\352"},
      {I42, 160, 120, 0, false, 1, "HS\\I420\\160_QUALITY", "HighSpeed\\I420\\160"},
      {RGB, 128, 96, 3, false, 0, "RGB24\\128", "RGB24\\128"},
  };
  const char* tableStart = &ModeTable[0][0];
  uint32_t n = 0;
  for (const Case& test : cases) {
    SCOPED_TRACE(test.section);
    ++n;
    SetRegistryDword(camera.Key("InitialSetting"), u"SeparateCtrl", test.separate);
    const std::string key = std::string("InitialSetting\\") + test.modeKey;
    camera.Set(key, "ControlMethod", 0x0200 + n);
    camera.Set(key, "FrameRate", 400000 + n);
    camera.Set(key, "AlternateSetting", 1 + n);
    c->IsFullSpeed = test.fullSpeed ? 1 : 0;
    Select(c, test.compression, test.width, test.height, test.quality);
    ASSERT_NE(c->ModeSection, nullptr);
    EXPECT_STREQ(c->ModeSection, test.section);
    EXPECT_EQ(c->ControlMethod, 0x0200 + n);
    EXPECT_EQ(c->FrameInterval, 400000 + n);
    EXPECT_EQ(c->StreamAlternateSetting, 1 + n);
    // Without separate trees the shared row is used past its prefix; with
    // them the camera's own copy carries its speed.
    if (test.separate == 0) {
      EXPECT_TRUE(c->ModeSection >= tableStart && c->ModeSection < tableStart + sizeof ModeTable);
    } else {
      EXPECT_EQ(c->ModeSection, c->ModeSectionName);
    }
    // Nothing is run or sent.
    EXPECT_TRUE(host.Calls().empty());
    EXPECT_TRUE(SectionsRun().empty());
  }
  for (const auto& row : ModeTable) EXPECT_EQ(std::string(row).substr(0, 3), "HS\\");
}

TEST_F(ModeSelection, PairsOutsideTheTableKeepTheOldMode) {
  camera.Set("InitialSetting\\RGB24\\640", "ControlMethod", 0x0101);
  camera.Set("InitialSetting\\RGB24\\640", "FrameRate", 333333);
  camera.Set("InitialSetting\\RGB24\\640", "AlternateSetting", 4);
  Select(c, CompressionRGB24, 640, 480, 0);
  ASSERT_STREQ(c->ModeSection, "RGB24\\640_QUALITY");
  const char* before = c->ModeSection;
  const uint32_t RGB = CompressionRGB24, YUY = CompressionYUY2, I42 = CompressionI420;
  const uint32_t cases[][3] = {{RGB, 720, 576}, {RGB, 1440, 1152}, {I42, 1280, 1024},
                               {I42, 800, 600}, {I42, 720, 576},   {0x12345678, 640, 480},
                               {0, 640, 480},   {YUY, 641, 480},   {YUY, 0, 0}};
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << test[0] << std::dec << " " << test[1]);
    Select(c, test[0], test[1], test[2], 0);
    EXPECT_EQ(c->ModeSection, before);
    EXPECT_EQ(c->ControlMethod, 0x0101u);
    EXPECT_EQ(c->FrameInterval, 333333u);
    EXPECT_EQ(c->StreamAlternateSetting, 4u);
  }
}

TEST_F(ModeSelection, AModeWithoutKeyGetsTheDefaultsAndItsEmptyKey) {
  c->ControlMethod = 0x0305;
  Select(c, CompressionYUY2, 176, 144, 1);
  EXPECT_STREQ(c->ModeSection, "YUYV\\176");
  EXPECT_EQ(c->ControlMethod, 0u);
  EXPECT_EQ(c->FrameInterval, 1000u);
  EXPECT_EQ(c->StreamAlternateSetting, 1u);
  EXPECT_TRUE(RegistryKeyExists(camera.Key("InitialSetting\\YUYV\\176")));

  // ScaleMode 0, and any above 5, runs nothing at all.
  for (uint32_t controlMethod : {0x0000u, 0x0200u, 0x0106u, 0x02FFu}) {
    c->ControlMethod = controlMethod;
    EXPECT_EQ(RunModeSections(c), STATUS_SUCCESS);
    EXPECT_TRUE(SectionsRun().empty());
  }
  EXPECT_TRUE(host.Calls().empty());
}

// The fixed order; INIT is left out on the first capture after start-up
// (and stays "fresh" only through a page reload, which runs flicker and
// light alone).
TEST_F(ModeSelection, SectionsRunInTheirFixedOrder) {
  struct Case {
    const char* what;
    uint8_t initFresh, modeCurrent, fullSpeed;
    uint32_t width, height, flicker, light;
    const char* sections;
    uint8_t initFreshAfter;
  } cases[] = {
      {"preview at high speed", 0, 0, 0, 800, 600, 1, 0,
       "INIT; HS\\INIT; INIT_PREVIEW; YUYV\\800_QUALITY; FLICKER_50HZ; NORMAL_LIGHT", 0},
      {"capture at full speed", 0, 0, 1, 1024, 768, 2, 1,
       "INIT; FS\\INIT; INIT_CAPTURE; YUYV\\1024_QUALITY; FLICKER_AUTO; FS\\LOW_LIGHT", 0},
      {"first capture after start-up", 1, 0, 0, 640, 480, 0, 2,
       "INIT_PREVIEW; YUYV\\640_QUALITY; FLICKER_60HZ; BACK_LIGHT", 0},
      {"back light at full speed, odd flicker", 0, 0, 1, 320, 240, 9, 2,
       "INIT; FS\\INIT; INIT_PREVIEW; YUYV\\320_QUALITY; FLICKER_60HZ; FS\\BACK_LIGHT", 0},
      {"page reload: flicker and light only", 0, 1, 0, 640, 480, 1, 0, "FLICKER_50HZ; NORMAL_LIGHT",
       0},
      {"page reload keeps the fresh INIT", 1, 1, 1, 640, 480, 0, 3, "FLICKER_60HZ", 1},
  };
  for (const char* size : {"320", "640", "800", "1024"}) {
    camera.Set(std::string("InitialSetting\\YUYV\\") + size, "ControlMethod", 0x0201);
  }
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    c->IsFullSpeed = test.fullSpeed;
    Select(c, CompressionYUY2, test.width, test.height, 0);
    c->InitScriptsFresh = test.initFresh;
    c->ModeScriptsCurrent = test.modeCurrent;
    c->FlickerMode = test.flicker;
    c->LightCondition = test.light;
    EXPECT_EQ(RunModeSections(c), STATUS_SUCCESS);
    EXPECT_EQ(Joined(SectionsRun()), test.sections);
    EXPECT_EQ(c->ModeScriptsCurrent, 0);
    EXPECT_EQ(c->InitScriptsFresh, test.initFreshAfter);
  }
}

// Only the light section's status reaches the caller; failing sections
// before it do not stop the sequence.
TEST_F(ModeSelection, StatusIsTheLightSectionsWhenOneRuns) {
  struct Case {
    const char* what;
    const char* failing;  // sections whose body is a bad line
    uint8_t modeCurrent;
    uint32_t light;
    NTSTATUS status;
  } cases[] = {
      {"all pass", "", 0, 0, STATUS_SUCCESS},
      {"INIT, preview, mode and flicker fail", "INIT HS\\INIT INIT_PREVIEW RGB24\\320 FLICKER_60HZ",
       0, 0, STATUS_SUCCESS},
      {"light fails", "NORMAL_LIGHT", 0, 0, STATUS_INVALID_PARAMETER},
      {"low light fails", "LOW_LIGHT", 0, 1, STATUS_INVALID_PARAMETER},
      {"no light section: the mode's status", "RGB24\\320", 0, 3, STATUS_INVALID_PARAMETER},
      {"no light section, INIT fails", "INIT FLICKER_60HZ", 0, 3, STATUS_SUCCESS},
      {"page reload, no light section", "RGB24\\320", 1, 3, STATUS_SUCCESS},
  };
  camera.Set("InitialSetting\\RGB24\\320", "ControlMethod", 0x0101);
  Select(c, CompressionRGB24, 320, 240, 1);
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    const std::string failing = std::string(" ") + test.failing + " ";
    std::string script;
    uint32_t reg = 0x40;
    for (const std::string section : {"INIT", "HS\\INIT", "INIT_PREVIEW", "RGB24\\320",
                                      "FLICKER_60HZ", "NORMAL_LIGHT", "LOW_LIGHT"}) {
      char line[32];
      std::snprintf(line, sizeof line, "WRITE 00H %02XH 01H\r\n", reg++);
      script += "[" + section + "]\r\n" +
                (failing.find(" " + section + " ") != std::string::npos ? "BOGUS 1 2\r\n" : line);
    }
    WriteScript(script);
    c->ModeScriptsCurrent = test.modeCurrent;
    c->LightCondition = test.light;
    EXPECT_EQ(RunModeSections(c), test.status);
    EXPECT_EQ(SectionsRun().size(), (test.modeCurrent ? 1u : 5u) + (test.light < 3 ? 1u : 0u))
        << "a failing section stopped the sequence";
  }
}

TEST_F(ModeSelection, TwoCamerasAtDifferentSpeedsGetTheirOwnPrefix) {
  BoundDevice second(1);
  DeviceContext* other = second.device.context;
  camera.Set("InitialSetting", "SeparateCtrl", 1);
  second.Set("InitialSetting", "SeparateCtrl", 1);
  camera.Set("InitialSetting\\FullSpeed\\RGB24\\640", "FrameRate", 666666);
  second.Set("InitialSetting\\HighSpeed\\RGB24\\640", "FrameRate", 333333);
  c->IsFullSpeed = 1;
  other->IsFullSpeed = 0;
  Select(c, CompressionRGB24, 640, 480, 0);
  Select(other, CompressionRGB24, 640, 480, 0);
  EXPECT_STREQ(c->ModeSection, "FS\\RGB24\\640_QUALITY");
  EXPECT_STREQ(other->ModeSection, "HS\\RGB24\\640_QUALITY");
  EXPECT_EQ(c->FrameInterval, 666666u);
  EXPECT_EQ(other->FrameInterval, 333333u);
  // The full-speed camera again: it changes neither what the other runs nor
  // the shared table.
  Select(c, CompressionRGB24, 640, 480, 0);
  EXPECT_STREQ(other->ModeSection, "HS\\RGB24\\640_QUALITY");
  EXPECT_STREQ(ModeTable[2 * 3 + 1], "HS\\RGB24\\640_QUALITY");
}

}  // namespace
