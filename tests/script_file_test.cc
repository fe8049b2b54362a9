// The script file: sections, the rules of a line, number forms, the scrambled
// form, paths, the registry's Script value and the checker's observer.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/files_control.h"
#include "platform/handles.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "script/script_engine.h"
#include "tests/device_fixture.h"
#include "tests/vendor_recorder.h"

namespace {

using Lines = std::vector<std::string>;

// A camera with a recording host, a virtual clock and drive C mapped onto a
// fresh temporary folder.
class ScriptFile : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> serial{0};
    folder_ = std::filesystem::temp_directory_path() /
              ("mr740-script-" + std::to_string(getpid()) + "-" + std::to_string(serial++));
    std::filesystem::create_directories(folder_);
    ASSERT_TRUE(MapDosDrive('C', folder_.string()));
    clockMode_ = GetKernelClockMode();
    SetKernelClockMode(KernelClockMode::Virtual);
    filesOpen_ = OpenPlatformHandles(HandleKind::File);
    poolBlocks_ = PoolLiveBlocks(PoolTagWdm);
  }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::File), filesOpen_) << "a script file left open";
    EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), poolBlocks_) << "a file name left in pool";
    MapDosDrive('C', "");
    SetKernelClockMode(clockMode_);
    std::filesystem::remove_all(folder_);
  }
  void Write(const std::string& name, const std::string& bytes) {
    std::ofstream(folder_ / name, std::ios::binary) << bytes;
  }
  NTSTATUS Run(const std::string& text, const char* section) {
    Write("s.txt", text);
    host.Clear();
    return ExecuteScriptFile(device.context, u"C:\\s.txt", section);
  }

  TestDevice device;
  VendorRecorder host;
  DebugPrintCapture log;
  std::filesystem::path folder_;
  KernelClockMode clockMode_ = KernelClockMode::Real;
  uint32_t filesOpen_ = 0;
  uint64_t poolBlocks_ = 0;
};

TEST_F(ScriptFile, SectionsAndLineRulesDecideWhatRuns) {
  const std::string split =
      "WRITE 0 1 1\r\n[A]\r\nWRITE 0 2 2\r\n[B]\r\nWRITE 0 3 3\r\n[A]\r\nWRITE 0 4 4\r\n";
  const std::string padded127 = "WRITE 0 1 1" + std::string(116, ' ') + "\r\nWRITE 0 2 2\r\n";
  const std::string noCr128 =
      "WRITE 0 1 1\r\nWRITE 0 2 2" + std::string(117, ' ') + "\r\nWRITE 0 3 3\r\n";
  struct Case {
    const char* name;
    std::string text;
    const char* section;
    NTSTATUS status;
    Lines requests;
  } cases[] = {
      {"run for A", "[A]\r\nWRITE 0 6 32\r\n", "A", STATUS_SUCCESS, {"1 0020 0006 out"}},
      {"lower-case a finds nothing", "[A]\r\nWRITE 0 6 32\r\n", "a", STATUS_SUCCESS, {}},
      {"B is missing", "[A]\r\nWRITE 0 6 32\r\n", "B", STATUS_SUCCESS, {}},
      {"split section runs in file order",
       split,
       "A",
       STATUS_SUCCESS,
       {"1 0002 0002 out", "1 0004 0004 out"}},
      {"lines before the first header", split, "", STATUS_SUCCESS, {"1 0001 0001 out"}},
      {"null runs every line",
       split,
       nullptr,
       STATUS_SUCCESS,
       {"1 0001 0001 out", "1 0002 0002 out", "1 0003 0003 out", "1 0004 0004 out"}},
      {"commas", "[A]\r\nwrite,0,1,2\r\n", "A", STATUS_SUCCESS, {"1 0002 0001 out"}},
      {"mixed separators",
       "[A]\r\n\t WRITE ,\t0 , 1\t2 extra words\r\n",
       "A",
       STATUS_SUCCESS,
       {"1 0002 0001 out"}},
      {"header with blanks and lower case",
       "  [a] text\r\n\r\n \t\r\nWRITE 0 1 2\r\n",
       "A",
       STATUS_SUCCESS,
       {"1 0002 0001 out"}},
      {"comment in column 1",
       "[A]\r\n;WRITE 0 1 2\r\nWRITE 0 3 4\r\n",
       "A",
       STATUS_SUCCESS,
       {"1 0004 0003 out"}},
      {"; in column 2 is a command",
       "[A]\r\nWRITE 0 1 1\r\n ;WRITE 0 3 4\r\nWRITE 0 5 5\r\n",
       "A",
       STATUS_INVALID_PARAMETER,
       {"1 0001 0001 out"}},
      {"; in column 2 of another section",
       "[A]\r\n ;X\r\n[B]\r\nWRITE 0 5 5\r\n",
       "B",
       STATUS_SUCCESS,
       {"1 0005 0005 out"}},
      {"header of 29 characters",
       "[ABCDEFGHIJKLMNOPQRSTUVWXYZ012]\r\nWRITE 0 1 1\r\n",
       "ABCDEFGHIJKLMNOPQRSTUVWXYZ012",
       STATUS_SUCCESS,
       {"1 0001 0001 out"}},
      {"longer header cut to 29",
       "[ABCDEFGHIJKLMNOPQRSTUVWXYZ0123]\r\nWRITE 0 1 1\r\n",
       "ABCDEFGHIJKLMNOPQRSTUVWXYZ012",
       STATUS_SUCCESS,
       {"1 0001 0001 out"}},
      {"longer header not under its name",
       "[ABCDEFGHIJKLMNOPQRSTUVWXYZ0123]\r\nWRITE 0 1 1\r\n",
       "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123",
       STATUS_SUCCESS,
       {}},
      {"127 characters and the CR",
       padded127,
       nullptr,
       STATUS_SUCCESS,
       {"1 0001 0001 out", "1 0002 0002 out"}},
      {"no CR in 128 bytes ends the run", noCr128, nullptr, STATUS_SUCCESS, {"1 0001 0001 out"}},
      {"last line without CR",
       "WRITE 0 1 1\r\nWRITE 0 2 2",
       nullptr,
       STATUS_SUCCESS,
       {"1 0001 0001 out"}},
      {"a zero byte hides the CR",
       std::string("WRITE 0 1 1\r\nWRITE 0 2 2\0\r\nWRITE 0 3 3\r\n", 38),
       nullptr,
       STATUS_SUCCESS,
       {"1 0001 0001 out"}},
      {"a word of 40 makes 31 and 9",
       "WRITE 0 " + std::string(38, '0') + "12\r\n",
       nullptr,
       STATUS_SUCCESS,
       {"1 000C 0000 out"}},
      {"unknown keyword",
       "WRITE 0 1 1\r\nPOKE 0 1 1\r\nWRITE 0 2 2\r\n",
       nullptr,
       STATUS_INVALID_PARAMETER,
       {"1 0001 0001 out"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Run(c.text, c.section), c.status);
    EXPECT_EQ(host.Lines(), c.requests);
  }
}

TEST_F(ScriptFile, NumbersAreDecimalHexadecimalOrNames) {
  ScriptDefineTable defines;
  defines.DefineCount = 3;
  std::strcpy(defines.ScriptDefines[0].Name, "AH");
  defines.ScriptDefines[0].Value = 7;
  std::strcpy(defines.ScriptDefines[1].Name, "GAIN");
  defines.ScriptDefines[1].Value = 0x40;
  std::strcpy(defines.ScriptDefines[2].Name, "GAIN");
  defines.ScriptDefines[2].Value = 0x41;
  struct Case {
    const char* word;
    const ScriptDefineTable* table;
    int32_t ok;
    uint32_t value;
  } cases[] = {
      {"010", nullptr, 1, 10},
      {"10", nullptr, 1, 10},
      {"0AH", nullptr, 1, 10},
      {"10H", nullptr, 1, 16},
      {"0FFH", nullptr, 1, 255},
      {"12HXY", nullptr, 1, 0x12},
      {"4294967295", nullptr, 1, 0xFFFFFFFF},
      {"4294967296", nullptr, 1, 0},
      {"1FFFFFFFFH", nullptr, 1, 0xFFFFFFFF},
      {"0X12", nullptr, 0, 99},
      {"1F", nullptr, 0, 99},
      {"0aH", nullptr, 0, 99},
      {"1GH", nullptr, 0, 99},
      {"A", &defines, 0, 99},
      {"AH", nullptr, 0, 99},
      {"AH", &defines, 1, 7},
      {"GAIN", &defines, 1, 0x40},
      {"GAI", &defines, 0, 99},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.word);
    uint32_t value = 99;
    EXPECT_EQ(ParseNumber(c.table, c.word, &value), c.ok);
    EXPECT_EQ(value, c.value);
  }
}

TEST_F(ScriptFile, ScannerReadsWordsAndDigitsByItsFormat) {
  char a[ScriptWordBytes] = "", b[ScriptWordBytes] = "";
  uint32_t x = 5, y = 5;
  EXPECT_EQ(ScanTokens(" \tAB \t CD  EF", "%s %s", a, b), 2);
  EXPECT_STREQ(a, "AB");
  EXPECT_STREQ(b, "CD");
  EXPECT_EQ(ScanTokens((std::string(31, 'X') + "ABCDEFGHI").c_str(), "%s%s", a, b), 2);
  EXPECT_EQ(std::string(a), std::string(31, 'X'));
  EXPECT_STREQ(b, "ABCDEFGHI");
  EXPECT_EQ(ScanTokens("AB\xFF", "%s %s", a, b), 1);
  EXPECT_STREQ(a, "AB");
  EXPECT_EQ(ScanTokens("12 FF", "%ld %lx", &x, &y), 2);
  EXPECT_EQ(x, 12u);
  EXPECT_EQ(y, 0xFFu);
  EXPECT_EQ(ScanTokens("12", "%ld %ld", &x, &y), 1);
  EXPECT_EQ(ScanTokens("12 ff", "%ld %lx", &x, &y), -1);
  EXPECT_EQ(ScanTokens("1A", "%ld", &x), -1);
  EXPECT_EQ(ScanTokens("12", "%d", &x), -1);
}

// The table of the scrambled form, written out byte by byte.
uint8_t Scrambled(char c) {
  if (c >= '0' && c <= '9') return uint8_t(c - '0');
  if (c >= '[' && c <= '`') return uint8_t(10 + (c - '['));
  if (c == ' ') return 16;
  if (c >= 'a' && c <= 'z') return uint8_t(17 + (c - 'a'));
  if (c == ',') return 43;
  if (c == '\r') return 44;
  if (c == '\n') return 45;
  return uint8_t(c);  // upper-case letters, ";" and the rest stand for themselves
}

TEST_F(ScriptFile, ScrambledTwinSendsTheSameRequestsAndLogsNothing) {
  for (int byte = 0; byte < 256; ++byte) {
    const char expected =
        byte <= 45 ? "0123456789[\\]^_` abcdefghijklmnopqrstuvwxyz,\r\n"[byte] : char(byte);
    EXPECT_EQ(char(DescrambleScriptByte(uint8_t(byte))), expected) << byte;
    const int32_t back = ScrambleScriptByte(uint8_t(byte));
    if (back >= 0) {
      EXPECT_EQ(DescrambleScriptByte(uint8_t(back)), uint8_t(byte)) << byte;
    }
  }
  const std::string plain =
      " [init]\r\n;comment\r\ndefine gain 40h\r\nwrite 60h,12h,gain\r\nbeg_blk_wr 0\r\n1 2\r\n"
      "3,4\r\nend_blk_wr\r\n[other]\r\nwrite 0 1 1\r\n[init]\r\nwriteex 78h 338ch 0a511h\r\n"
      "Bits_op 0 7 10h 30h\r\n";
  std::string twin;
  for (char c : plain) twin += char(Scrambled(c));
  ASSERT_EQ(uint8_t(twin[0]), ScriptScrambledMark);
  for (const char* section : {"INIT", static_cast<const char*>(nullptr)}) {
    log.Clear();
    EXPECT_EQ(Run(plain, section), STATUS_SUCCESS);
    const Lines plainRequests = host.Lines();
    EXPECT_EQ(device->ScriptScrambled, 0);
    EXPECT_FALSE(log.Lines().empty());
    log.Clear();
    EXPECT_EQ(Run(twin, section), STATUS_SUCCESS);
    EXPECT_EQ(host.Lines(), plainRequests);
    EXPECT_EQ(device->ScriptScrambled, 1);
    EXPECT_EQ(log.Lines(), Lines{});
  }
  log.Clear();
  Run(plain, "INIT");
  EXPECT_EQ(log.Lines(),
            (Lines{"Execute [INIT]\n", "WRITE I2CADDR = 60 REGADDR = 12 DATA = 40\n",
                   "BLOCK_WRITE I2CADDR = 00\n", "\tRegAddr = 01 Data = 02\n",
                   "\tRegAddr = 03 Data = 04\n", "WRITEEX 0x78,0x33 [0x8c,0xa5,0x11]\n",
                   "BITS_OP I2CADDR = 00 REGADDR = 07 DATA = 10 MASK = 30\n"}));
}

TEST_F(ScriptFile, MissingEmptyOrUnreadableFilesGiveTheirDocumentedResult) {
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\none.txt", "INIT"), STATUS_SUCCESS);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "none.txt"));
  EXPECT_EQ(std::filesystem::file_size(folder_ / "none.txt"), 0u);
  EXPECT_EQ(Run("", nullptr), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\nofolder\\x.txt", "INIT"),
            STATUS_OBJECT_PATH_NOT_FOUND);

  // 59 characters are taken, 60 refused before anything happens.
  const std::u16string name59 = u"C:\\" + std::u16string(56, u'n');
  EXPECT_EQ(ExecuteScriptFile(device.context, name59.c_str(), "INIT"), STATUS_SUCCESS);
  EXPECT_TRUE(std::filesystem::exists(folder_ / std::string(56, 'n')));
  const std::u16string name60 = u"C:\\" + std::u16string(57, u'n');
  EXPECT_EQ(ExecuteScriptFile(device.context, name60.c_str(), "INIT"), STATUS_INVALID_PARAMETER);
  EXPECT_FALSE(std::filesystem::exists(folder_ / std::string(57, 'n')));

  PoolFailAllocation(1);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\s.txt", "INIT"), STATUS_INSUFFICIENT_RESOURCES);
  PoolFailAllocation(0);

  // A read error with no bytes is the end of the file: the probe of the first
  // byte, line 1, then line 2 fails.
  Write("s.txt", "WRITE 0 1 1\r\nWRITE 0 2 2\r\nWRITE 0 3 3\r\n");
  host.Clear();
  FileFailRead(3, STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\s.txt", nullptr), STATUS_SUCCESS);
  FileFailRead(0, STATUS_SUCCESS);
  EXPECT_EQ(host.Lines(), Lines{"1 0001 0001 out"});
  EXPECT_TRUE(host.Calls().size() == 1);
}

TEST_F(ScriptFile, SectionRunFindsTheScriptThroughTheRegistry) {
  ResetRegistry();
  static uint64_t pdo = 0;
  auto* object = reinterpret_cast<DEVICE_OBJECT*>(&pdo);
  const std::u16string deviceKey = u"\\REGISTRY\\MACHINE\\SYSTEM\\MR740TEST\\Camera";
  ASSERT_TRUE(BindDeviceRegistryKey(object, deviceKey));
  device->PhysicalDeviceObject = object;
  Write("s.txt", "[A]\r\nWRITE 0 1 1\r\n");
  WCHAR directory[ScriptValueBytes / 2];

  EXPECT_NE(ExecuteScriptSection(device.context, "A"), STATUS_SUCCESS);  // no Script value
  GetScriptDirectory(device.context, directory);
  EXPECT_EQ(std::u16string(directory), u"");
  SetRegistryString(deviceKey + u"\\InitialSetting", u"Script", u"");
  EXPECT_EQ(ExecuteScriptSection(device.context, "A"), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(host.Lines().empty());

  SetRegistryString(deviceKey + u"\\InitialSetting", u"Script", u"C:\\s.txt");
  EXPECT_EQ(ExecuteScriptSection(device.context, "A"), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptSectionForLibrary(device.context, "A"), STATUS_SUCCESS);
  EXPECT_EQ(host.Lines(), (Lines{"1 0001 0001 out", "1 0001 0001 out"}));
  GetScriptDirectory(device.context, directory);
  EXPECT_EQ(std::u16string(directory), u"C:");

  std::memcpy(device->SensorName, u"OV7660", 14);
  SetRegistryString(deviceKey + u"\\OV7660\\InitialSetting", u"Script", u"s.txt");
  GetScriptDirectory(device.context, directory);
  EXPECT_EQ(std::u16string(directory), u"s.txt");
  SetRegistryString(deviceKey + u"\\OV7660\\InitialSetting", u"Script", u"C:\\Cam\\Sub\\s.txt");
  GetScriptDirectory(device.context, directory);
  EXPECT_EQ(std::u16string(directory), u"C:\\Cam\\Sub");
  UnbindDeviceRegistryKey(object);
  ResetRegistry();
}

struct Heard {
  std::vector<std::pair<std::string, uint64_t>> headers;
  std::vector<std::tuple<uint64_t, ScriptFault, std::string>> faults;
  BOOLEAN goOn = TRUE;
};

const ScriptObserver HeardObserver = {
    [](void* self, const char* section, uint64_t offset) {
      static_cast<Heard*>(self)->headers.emplace_back(section, offset);
    },
    [](void* self, uint64_t offset, ScriptFault fault, const char* keyword) {
      static_cast<Heard*>(self)->faults.emplace_back(offset, fault, keyword);
      return static_cast<Heard*>(self)->goOn;
    },
};

TEST_F(ScriptFile, ObserverHearsHeadersAndFaultsAndMayGoOn) {
  const std::string text =
      "[A]\r\nWRITE 0 1 1\r\nPOKE 1\r\nBEG_BLK_WR 0\r\n1 2\r\nX 3\r\n4 5\r\nEND_BLK_WR\r\n"
      "WRITE 0 2 2\r\n[B]\r\nWRITE 0 3 3\r\n[A]\r\nBEG_CNT_WR 0 10H\r\n1\r\nEND_CNT_WR\r\n"
      "WRITE 0 9\r\nBEG_BLK_W2B 0\r\n35H 1234H\r\n";
  Write("s.txt", text);
  auto at = [&](const char* line) { return uint64_t(text.find(line)); };
  for (BOOLEAN goOn : {TRUE, FALSE}) {
    SCOPED_TRACE(int(goOn));
    host.Clear();
    host.FailNth(3, STATUS_DEVICE_NOT_CONNECTED);  // the CNT block's burst
    Heard heard;
    heard.goOn = goOn;
    HANDLE file = nullptr;
    ASSERT_TRUE(OpenHostFileForReading((folder_ / "s.txt").string(), &file));
    NTSTATUS status = RunScriptFile(device.context, file, "A", &HeardObserver, &heard);
    ZwClose(file);
    if (!goOn) {
      EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
      EXPECT_EQ(host.Lines(), Lines{"1 0001 0001 out"});
      EXPECT_EQ(heard.faults.size(), 1u);
      continue;
    }
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(host.Lines(), (Lines{"1 0001 0001 out", "1 0002 0002 out", "3 0000 0010 out [01]"}));
    using Fault = std::tuple<uint64_t, ScriptFault, std::string>;
    EXPECT_EQ(heard.faults,
              (std::vector<Fault>{{at("POKE"), ScriptFaultUnknownKeyword, "POKE"},
                                  {at("X 3"), ScriptFaultUndefinedName, "BEG_BLK_WR"},
                                  {at("END_CNT_WR"), ScriptFaultRequestFailed, "BEG_CNT_WR"},
                                  {at("WRITE 0 9"), ScriptFaultTooFewWords, "WRITE"},
                                  {text.size(), ScriptFaultBodyWithoutEnd, "BEG_BLK_W2B"}}));
    EXPECT_EQ(heard.headers, (std::vector<std::pair<std::string, uint64_t>>{
                                 {"A", 0}, {"B", at("[B]")}, {"A", at("[A]\r\nBEG_CNT")}}));
  }
  // A line without CR is told, and the run still ends as a success.
  Write("s.txt", "WRITE 0 1 1\r\nWRITE 0 2 2");
  Heard heard;
  heard.goOn = FALSE;
  HANDLE file = nullptr;
  ASSERT_TRUE(OpenHostFileForReading((folder_ / "s.txt").string(), &file));
  EXPECT_EQ(RunScriptFile(device.context, file, nullptr, &HeardObserver, &heard), STATUS_SUCCESS);
  ZwClose(file);
  ASSERT_EQ(heard.faults.size(), 1u);
  EXPECT_EQ(std::get<0>(heard.faults[0]), 13u);
  EXPECT_EQ(std::get<1>(heard.faults[0]), ScriptFaultLineWithoutCr);
}

}  // namespace
