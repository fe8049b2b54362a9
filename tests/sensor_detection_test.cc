// Sensor detection and start-up configuration: the bus speed, the probing
// state and the candidates as they go out on the wire, the image libraries'
// start, and the format list each camera ranks from its own description.

#include "script/sensor_detection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/companions.h"
#include "core/format_catalogue.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"
#include "tests/vendor_recorder.h"

namespace {

using Lines = std::vector<std::string>;

// The wire of the probing state, with what register 4 gave for register 0.
Lines ProbingLines(const char* registerZero) {
  return {"2 0000 0004 in 1", std::string("1 00") + registerZero + " 0000 out",
          "1 0010 0010 out",  "1 0008 00C0 out",
          "1 0001 00C1 out",  "1 0001 00C2 out",
          "1 0020 0006 out",  "1 006A 000D out"};
}

constexpr int64_t ProbeSettle = 500000;  // 50 ms

class SensorDetection : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    camera.Bind();
    ResetKernelDelayTotal();
  }
  void TearDown() override { ResetRegistry(); }
  // A list of address and data pairs below `key`, with its length in `countName`.
  using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;
  void SetList(const std::string& key, const char* countName, const Pairs& list) {
    camera.Set(key, countName, uint32_t(list.size()));
    for (size_t i = 0; i < list.size(); ++i) {
      char entry[64];
      std::snprintf(entry, sizeof entry, "%s\\%02zx", key.c_str(), i);
      camera.Set(entry, "Address", list[i].first);
      camera.Set(entry, "Data", list[i].second);
    }
  }
  // A candidate: Sensor<index> with its name, bus address and identification.
  void AddCandidate(uint32_t index, const char* name, uint32_t bus, const Pairs& ids) {
    const std::string key = "SensorDetect\\Sensor0" + std::to_string(index);
    SetRegistryString(camera.Key(key), u"SensorName", U16(name));
    camera.Set(key, "I2CAddr", bus);
    SetList(key, "IDLength", ids);
  }
  std::string SensorName() {
    std::u16string name(c->SensorName, c->SensorName + SensorNameChars);
    return NarrowAscii(name.substr(0, name.find(u'\0')));
  }
  Lines LinesAfterProbing() {
    Lines lines = host.Lines();
    return Lines(lines.begin() + std::min<size_t>(8, lines.size()), lines.end());
  }

  BoundDevice camera{0};
  DeviceContext* c = camera.device.context;
  VendorRecorder host;
  DebugPrintCapture log;
  VirtualClock clock;
};

TEST_F(SensorDetection, BusSpeedComesFromRegisterFourAndForceHighSpeedRestartsAFullSpeedDevice) {
  struct Case {
    uint8_t registerFour;
    uint32_t forceHighSpeed;
    uint8_t fullSpeed;
    bool restart;  // a restart request follows, and start-up fails
  } cases[] = {{0x00, 0, 0, false}, {0x04, 0, 1, false}, {0xFB, 1, 0, false},
               {0x00, 1, 0, false}, {0x04, 1, 1, true},  {0xFF, 2, 1, true}};
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::Message() << int(test.registerFour) << " force " << test.forceHighSpeed);
    camera.Set("", "ForceHighSpeed", test.forceHighSpeed);
    host.registers[0x0004] = test.registerFour;
    host.Clear();
    c->IsFullSpeed = 7;
    EXPECT_EQ(CheckBusSpeed(c), test.restart ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS);
    EXPECT_EQ(c->IsFullSpeed, test.fullSpeed);
    Lines wire = {"2 0000 0004 in 1"};
    if (test.restart) wire.push_back("7 0000 0000 out");
    EXPECT_EQ(host.Lines(), wire);
  }
}

TEST_F(SensorDetection, ProbingStateGoesOutEvenWithoutCandidates) {
  struct Case {
    uint8_t registerFour;
    const char* registerZero;
    bool listed;  // NumOfSensor 0 written rather than missing
  };
  for (const Case& test : {Case{0x00, "00", false}, Case{0x01, "20", true}, Case{0x05, "20", false},
                           Case{0xFE, "00", true}}) {
    SCOPED_TRACE(test.registerFour);
    if (test.listed) camera.Set("SensorDetect", "NumOfSensor", 0);
    host.registers[0x0004] = test.registerFour;
    host.Clear();
    ResetKernelDelayTotal();
    c->SensorName[0] = u'X';
    EXPECT_EQ(DetectSensor(c), STATUS_SUCCESS);
    EXPECT_EQ(host.Lines(), ProbingLines(test.registerZero));
    EXPECT_EQ(KernelDelayTotal(), ProbeSettle);
    EXPECT_EQ(SensorName(), "");
    EXPECT_TRUE(RegistryKeyExists(camera.Key("SensorDetect")));
  }
}

// The first candidate never answers right: four full attempts, each with the
// controller set up again, its InitDelay once, its own ReadDelay in its
// reads; then the fallback without identification is taken without a read.
TEST_F(SensorDetection, FallbackCandidateIsTakenAfterFourAttemptsOfTheFirst) {
  camera.Set("SensorDetect", "NumOfSensor", 2);
  AddCandidate(0, "OV9999", 0x30, {{0x0A, 0x99}, {0x0B, 0x11}});
  const std::string first = "SensorDetect\\Sensor00";
  camera.Set(first, "InitDelay", 12345);
  camera.Set(first, "ReadDelay", 5000);
  SetList(first + "\\InitMR740", "NumOfReg", {{0x55, 0x12}, {0x156, 0x1FE}});  // low bytes used
  SetList(first + "\\PageSelect", "PageSelectLen", {{0xFF, 0x01}});
  AddCandidate(1, "FALLBACK", 0x42, {});
  camera.Set("SensorDetect\\Sensor01", "ReadDelay", 7000);
  host.registers[0x300A] = 0x98;

  EXPECT_EQ(DetectSensor(c), STATUS_SUCCESS);
  Lines expected;
  for (int attempt = 0; attempt < 4; ++attempt) {
    for (const char* line : {"1 0012 0055 out", "1 00FE 0056 out", "1 3001 00FF out",
                             "1 3000 800A out", "2 3000 800A in 1"}) {
      expected.push_back(line);
    }
  }
  EXPECT_EQ(LinesAfterProbing(), expected);
  EXPECT_EQ(SensorName(), "FALLBACK");
  EXPECT_EQ(c->SensorI2CAddr, 0x42u);
  EXPECT_EQ(c->RegisterAddrLo, 240u);
  EXPECT_EQ(c->ReadDelay, 7000);
  // 50 ms, the first candidate's InitDelay once, and the two-step reads'
  // pauses (four of 5000).
  EXPECT_EQ(KernelDelayTotal(), ProbeSettle + 12345 + 4 * 5000);
}

TEST_F(SensorDetection, IdentificationComparesTheByteReadWithAllOfData) {
  struct Case {
    std::vector<std::pair<uint32_t, uint32_t>> ids;
    std::map<uint16_t, uint8_t> answers;  // bus 0x21 registers
    size_t reads;                         // identification reads on the wire; 4 attempts fail
    bool found;
  } cases[] = {
      {{{0x0A, 0x76}, {0x0B, 0x73}}, {{0x210A, 0x76}, {0x210B, 0x73}}, 2, true},
      {{{0x0A, 0x76}, {0x0B, 0x73}}, {{0x210A, 0x76}, {0x210B, 0x72}}, 8, false},
      {{{0x0A, 0x76}, {0x0B, 0x73}}, {{0x210A, 0x75}, {0x210B, 0x73}}, 4, false},
      {{{0x0A, 0x176}}, {{0x210A, 0x76}}, 4, false},
      {{{0x0A, 0xFFFFFFFF}}, {{0x210A, 0xFF}}, 4, false},
      {{{0x10A, 0x00}}, {{0x210A, 0x00}}, 1, true},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(testing::PrintToString(test.ids));
    ResetRegistry();
    camera.Bind();
    camera.Set("SensorDetect", "NumOfSensor", 1);
    AddCandidate(0, "MI2021", 0x21, test.ids);
    camera.Set("SensorDetect\\Sensor00", "RegisterAddrLo", 0x1F1);
    host.registers = test.answers;
    host.Clear();
    EXPECT_EQ(DetectSensor(c), test.found ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES);
    size_t reads = 0;
    for (const std::string& line : LinesAfterProbing()) reads += line.rfind("2 2100", 0) == 0;
    EXPECT_EQ(reads, test.reads);
    EXPECT_EQ(SensorName(), test.found ? "MI2021" : "");
    if (test.found) {
      EXPECT_EQ(c->SensorI2CAddr, 0x21u);
      EXPECT_EQ(c->RegisterAddrLo, 0x1F1u);  // stored whole, used as its low byte
    }
  }
}

// STATUS_DEVICE_NOT_CONNECTED from any request ends detection at once;
// other failures only spoil the byte read.
TEST_F(SensorDetection, AnUnpluggedDeviceEndsDetectionAtOnce) {
  camera.Set("SensorDetect", "NumOfSensor", 1);
  AddCandidate(0, "OV7670", 0x42, {{0x0A, 0x76}});
  camera.Set("SensorDetect\\Sensor00\\InitMR740", "NumOfReg", 1);
  camera.Set("SensorDetect\\Sensor00\\PageSelect", "PageSelectLen", 1);
  // Requests: 1 the read of register 4, 2 to 8 the probing writes, 9 the
  // InitMR740 write, 10 the page select, 11 the identification read.
  for (size_t nth = 1; nth <= 11; ++nth) {
    SCOPED_TRACE(nth);
    host.registers[0x420A] = 0x76;
    host.Clear();
    host.FailNth(nth, STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(DetectSensor(c), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(host.Calls().size(), nth);
  }
  for (size_t nth : {1u, 2u, 9u, 10u, 11u}) {
    SCOPED_TRACE(nth);
    host.Clear();
    host.FailNth(nth, STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(DetectSensor(c), STATUS_SUCCESS);
    EXPECT_EQ(SensorName(), "OV7670");
    // A failed identification read costs one attempt.
    EXPECT_EQ(host.Calls().size(), nth == 11 ? 14u : 11u);
  }
}

TEST_F(SensorDetection, ImageLibrariesStartWithTheSensorsSettings) {
  auto drive = std::make_unique<TempDriveC>("libs");
  std::filesystem::create_directories(drive->folder / "Cameras");
  ASSERT_TRUE(drive->mapped);
  std::memcpy(c->SensorName, u"OV7670", 14);
  SetRegistryString(camera.Key("OV7670\\InitialSetting"), u"Script", u"C:\\Cameras\\OV7670.txt");
  camera.Set("OV7670\\PropertySetting", "ISPType", 0x00020001);
  const uint64_t poolBytes = PoolLiveBytes(PoolTagWdm);

  ASSERT_EQ(StartImageLibraries(c), STATUS_SUCCESS);
  ASSERT_NE(c->WorkBuffer, nullptr);
  EXPECT_EQ(PoolLiveBytes(PoolTagWdm) - poolBytes, 5760000u);
  EXPECT_NE(c->IspHandle, 0u);
  EXPECT_NE(c->SpefHandle, 0u);
  EXPECT_EQ(c->IspType, 0x00020001u);
  EXPECT_EQ(c->BlankFrameActive, 1);
  const Lines lines = log.Lines();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "SensorName=[OV7670]\n"), lines.end());

  ISPFunc_Exit(c->IspHandle, c, c->PhysicalDeviceObject);
  SPEF_Exit(c->SpefHandle);
  ExFreePool(c->WorkBuffer);
  c->WorkBuffer = nullptr;
  drive.reset();

  // No work buffer, no start.
  PoolFailAllocation(1);
  EXPECT_EQ(StartImageLibraries(c), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(c->WorkBuffer, nullptr);
  PoolFailAllocation(0);
}

// ---------------------------------------------------------------- format list

std::vector<uint32_t> OfferedRows(const DeviceContext* c) {
  std::vector<uint32_t> rows;
  for (uint32_t i = 0; i < c->FormatCount; ++i) {
    uint32_t row = 0;
    while (row < FormatCatalogueRows && FormatCatalogue[row].DataRange != c->FormatList[i]) ++row;
    rows.push_back(row);
  }
  return rows;
}

TEST_F(SensorDetection, FormatListOffersTheHighestRankFirstAndTableOrderWithinARank) {
  struct Case {
    const char* what;
    std::vector<std::pair<const char*, uint32_t>> enabled;  // format\size key, rank
    std::vector<uint32_t> rows;
  } cases[] = {
      {"40 before 1", {{"RGB24\\640", 40}, {"RGB24\\1280C", 1}}, {2, 5}},
      {"1 then 40 in the table", {{"RGB24\\1280A", 1}, {"RGB24\\640", 40}}, {2, 7}},
      {"equal ranks keep table order",
       {{"YUYV\\1024", 5}, {"RGB24\\320", 5}, {"I420\\176", 5}},
       {1, 20, 38}},
      {"0 and above 40 hide", {{"RGB24\\160", 41}, {"YUYV\\720", 0}, {"I420\\352", 2}}, {39}},
      {"none enabled", {}, {}},
      {"every rank",
       {{"YUYV\\720", 40}, {"YUYV\\1440", 39}, {"I420\\160", 3}, {"RGB24\\484", 3}},
       {33, 32, 15, 34}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    ResetRegistry();
    camera.Bind();
    for (const auto& [key, rank] : test.enabled) {
      camera.Set(std::string("InitialSetting\\") + key, "Enabled", rank);
    }
    BuildFormatList(c);
    EXPECT_EQ(OfferedRows(c), test.rows);
  }
}

// The list is the camera's own: with separate trees per speed and a sensor
// sub key, each camera ranks from its own description, and the shared
// tables stay as compiled.
TEST_F(SensorDetection, EachCameraOffersTheFormatsOfItsOwnDescription) {
  BoundDevice second(1);
  DeviceContext* other = second.device.context;
  std::memcpy(c->SensorName, u"MI2020", 14);
  c->IsFullSpeed = 1;
  camera.Set("MI2020\\InitialSetting", "SeparateCtrl", 1);
  camera.Set("MI2020\\InitialSetting\\FullSpeed\\RGB24\\320", "Enabled", 2);
  camera.Set("MI2020\\InitialSetting\\FullSpeed\\YUYV\\160", "Enabled", 3);
  camera.Set("MI2020\\InitialSetting\\HighSpeed\\RGB24\\1600", "Enabled", 40);
  camera.Set("MI2020\\InitialSetting\\RGB24\\640", "Enabled", 40);
  second.Set("InitialSetting\\I420\\640", "Enabled", 1);

  BuildFormatList(c);
  BuildFormatList(other);
  EXPECT_EQ(OfferedRows(c), (std::vector<uint32_t>{16, 1}));
  EXPECT_EQ(OfferedRows(other), (std::vector<uint32_t>{36}));
  c->IsFullSpeed = 0;
  BuildFormatList(c);
  EXPECT_EQ(OfferedRows(c), (std::vector<uint32_t>{9}));
  EXPECT_EQ(OfferedRows(other), (std::vector<uint32_t>{36}));

  for (const HW_STREAM_INFORMATION& stream : StreamTable) {
    EXPECT_EQ(stream.NumberOfFormatArrayEntries, FormatCatalogueRows);
    for (uint32_t row = 0; row < FormatCatalogueRows; ++row) {
      EXPECT_EQ(stream.StreamFormatsArray[row], FormatCatalogue[row].DataRange);
    }
  }
}

}  // namespace
