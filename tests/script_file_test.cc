// The script file and its commands: sections, line rules, numbers, the scrambled
// form, paths, the Script value, the observer, each command's requests and log
// lines, WAIT's bound and the scope of DEFINE names.

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
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

// The camera and host a run starts from.
struct Camera {
  uint32_t revision2 = 0, addrLo = 0;
  int32_t readDelay = 0;
  std::map<uint16_t, uint8_t> registers;
  std::deque<uint8_t> reads;
  size_t failNth = 0;  // this request fails
};

// A camera with a recording host, a virtual clock and drive C on a fresh folder.
class ScriptFile : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(drive.mapped); }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::File), filesOpen_) << "a script file left open";
    EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), poolBlocks_) << "a file name left in pool";
  }
  void Write(const std::string& name, const std::string& bytes) { drive.Write(name, bytes); }
  NTSTATUS Run(const std::string& text, const char* section, const Camera& setup = Camera()) {
    Write("s.txt", text);
    device->IsRevision2Chip = setup.revision2;
    device->RegisterAddrLo = setup.addrLo;
    device->ReadDelay = setup.readDelay;
    host.registers = setup.registers;
    host.readQueue = setup.reads;
    host.status = nullptr;
    host.Clear();
    if (setup.failNth != 0) host.FailNth(setup.failNth, STATUS_DEVICE_NOT_CONNECTED);
    log.Clear();
    ResetKernelDelayTotal();
    return ExecuteScriptFile(device.context, u"C:\\s.txt", section);
  }
  NTSTATUS RunA(const std::string& body, const Camera& setup = Camera()) {
    return Run("[A]\r\n" + body, "A", setup);
  }
  // Runs s.txt from an open handle with an observer.
  NTSTATUS Observe(const char* section, const ScriptObserver* observer, void* self) {
    HANDLE handle = nullptr;
    EXPECT_TRUE(OpenHostFileForReading((drive.folder / "s.txt").string(), &handle));
    const NTSTATUS status = RunScriptFile(device.context, handle, section, observer, self);
    ZwClose(handle);
    return status;
  }

  TempDriveC drive{"script"};
  VirtualClock clock;
  uint32_t filesOpen_ = OpenPlatformHandles(HandleKind::File);
  uint64_t poolBlocks_ = PoolLiveBlocks(PoolTagWdm);
  TestDevice device;
  VendorRecorder host;
  DebugPrintCapture log;
};

using ScriptCommands = ScriptFile;

// `count` body lines "i 1" (register i, data 1), or "i" when `values`.
std::string Body(int count, bool values = false) {
  std::string text;
  for (int i = 0; i < count; ++i) text += std::to_string(i) + (values ? "\r\n" : " 1\r\n");
  return text;
}

TEST_F(ScriptFile, SectionsAndLineRulesDecideWhatRuns) {
  const std::string split =
      "WRITE 0 1 1\r\n[A]\r\nWRITE 0 2 2\r\n[B]\r\nWRITE 0 3 3\r\n[A]\r\nWRITE 0 4 4\r\n";
  const std::string w1 = "1 0001 0001 out", w2 = "1 0002 0002 out", w12 = w1 + "; " + w2;
  const std::string header29 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ012", header30 = header29 + "3";
  struct Case {
    const char* name;
    std::string text;
    const char* section;
    NTSTATUS status;
    std::string requests;
  } const cases[] = {
      {"lower-case a finds nothing", split, "a", STATUS_SUCCESS, ""},
      {"split section runs in file order", split, "A", STATUS_SUCCESS, w2 + "; 1 0004 0004 out"},
      {"lines before the first header", split, "", STATUS_SUCCESS, w1},
      {"null runs every line", split, nullptr, STATUS_SUCCESS,
       w12 + "; 1 0003 0003 out; 1 0004 0004 out"},
      {"mixed separators", "[A]\r\n\t WRITE ,\t0 , 1\t2 extra words\r\n", "A", STATUS_SUCCESS,
       "1 0002 0001 out"},
      {"header with blanks and lower case", "  [a] text\r\n\r\n \t\r\nWRITE 0 1 2\r\n", "A",
       STATUS_SUCCESS, "1 0002 0001 out"},
      {"comment in column 1", "[A]\r\n;WRITE 0 1 2\r\nWRITE 0 3 4\r\n", "A", STATUS_SUCCESS,
       "1 0004 0003 out"},
      {"; in column 2 is a command", "[A]\r\nWRITE 0 1 1\r\n ;WRITE 0 3 4\r\nWRITE 0 5 5\r\n", "A",
       STATUS_INVALID_PARAMETER, w1},
      {"; in column 2 of another section", "[A]\r\n ;X\r\n[B]\r\nWRITE 0 5 5\r\n", "B",
       STATUS_SUCCESS, "1 0005 0005 out"},
      {"header of 29 characters", "[" + header29 + "]\r\nWRITE 0 1 1\r\n", header29.c_str(),
       STATUS_SUCCESS, w1},
      {"longer header cut to 29", "[" + header30 + "]\r\nWRITE 0 1 1\r\n", header29.c_str(),
       STATUS_SUCCESS, w1},
      {"longer header not under its name", "[" + header30 + "]\r\nWRITE 0 1 1\r\n",
       header30.c_str(), STATUS_SUCCESS, ""},
      {"127 characters and the CR", "WRITE 0 1 1" + std::string(116, ' ') + "\r\nWRITE 0 2 2\r\n",
       nullptr, STATUS_SUCCESS, w12},
      {"no CR in 128 bytes ends the run",
       "WRITE 0 1 1\r\nWRITE 0 2 2" + std::string(117, ' ') + "\r\nWRITE 0 3 3\r\n", nullptr,
       STATUS_SUCCESS, w1},
      {"last line without CR", "WRITE 0 1 1\r\nWRITE 0 2 2", nullptr, STATUS_SUCCESS, w1},
      {"a zero byte hides the CR",
       std::string("WRITE 0 1 1\r\nWRITE 0 2 2\0\r\nWRITE 0 3 3\r\n", 38), nullptr, STATUS_SUCCESS,
       w1},
      {"a word of 40 makes 31 and 9", "WRITE 0 " + std::string(38, '0') + "12\r\n", nullptr,
       STATUS_SUCCESS, "1 000C 0000 out"},
      {"unknown keyword", "WRITE 0 1 1\r\nPOKE 0 1 1\r\nWRITE 0 2 2\r\n", nullptr,
       STATUS_INVALID_PARAMETER, w1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Run(c.text, c.section), c.status);
    EXPECT_EQ(Joined(host.Lines()), c.requests);
  }
}

TEST_F(ScriptFile, NumbersAreDecimalHexadecimalOrNames) {
  ScriptDefineTable defines;
  defines.DefineCount = 3;
  const std::pair<const char*, uint32_t> names[] = {{"AH", 7}, {"GAIN", 0x40}, {"GAIN", 0x41}};
  for (int i = 0; i < 3; ++i) {
    std::strcpy(defines.ScriptDefines[i].Name, names[i].first);
    defines.ScriptDefines[i].Value = names[i].second;
  }
  const std::tuple<const char*, const ScriptDefineTable*, int32_t, uint32_t> cases[] = {
      {"010", nullptr, 1, 10},         {"10", nullptr, 1, 10},
      {"0AH", nullptr, 1, 10},         {"10H", nullptr, 1, 16},
      {"0FFH", nullptr, 1, 255},       {"12HXY", nullptr, 1, 0x12},
      {"4294967295", nullptr, 1, ~0u}, {"4294967296", nullptr, 1, 0},
      {"1FFFFFFFFH", nullptr, 1, ~0u}, {"0X12", nullptr, 0, 99},
      {"1F", nullptr, 0, 99},          {"0aH", nullptr, 0, 99},
      {"1GH", nullptr, 0, 99},         {"A", &defines, 0, 99},
      {"AH", nullptr, 0, 99},          {"AH", &defines, 1, 7},
      {"GAIN", &defines, 1, 0x40},     {"GAI", &defines, 0, 99},
  };
  for (const auto& [word, table, ok, expected] : cases) {
    uint32_t value = 99;
    EXPECT_EQ(ParseNumber(table, word, &value), ok) << word;
    EXPECT_EQ(value, expected) << word;
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

TEST_F(ScriptFile, ScrambledTwinSendsTheSameRequestsAndLogsNothing) {
  // The table of the scrambled form: byte N stands for the Nth of these
  // characters; from 46 on, and for upper case and ';', a byte is itself.
  const char table[] = "0123456789[\\]^_` abcdefghijklmnopqrstuvwxyz,\r\n";
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(char(DescrambleScriptByte(uint8_t(byte))), byte <= 45 ? table[byte] : char(byte));
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
  for (char c : plain) {
    const char* at = std::strchr(table, c);
    twin += c != 0 && at ? char(at - table) : c;
  }
  ASSERT_EQ(uint8_t(twin[0]), ScriptScrambledMark);
  for (const char* section : {"INIT", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(Run(plain, section), STATUS_SUCCESS);
    const Lines plainRequests = host.Lines();
    EXPECT_EQ(device->ScriptScrambled, 0);
    EXPECT_FALSE(log.Lines().empty());
    EXPECT_EQ(Run(twin, section), STATUS_SUCCESS);
    EXPECT_EQ(host.Lines(), plainRequests);
    EXPECT_EQ(device->ScriptScrambled, 1);
    EXPECT_EQ(log.Lines(), Lines{});
  }
  Run(plain, "INIT");
  EXPECT_EQ(log.Lines(),
            (Lines{"Execute [INIT]\n", "WRITE I2CADDR = 60 REGADDR = 12 DATA = 40\n",
                   "BLOCK_WRITE I2CADDR = 00\n", "\tRegAddr = 01 Data = 02\n",
                   "\tRegAddr = 03 Data = 04\n", "WRITEEX 0x78,0x33 [0x8c,0xa5,0x11]\n",
                   "BITS_OP I2CADDR = 00 REGADDR = 07 DATA = 10 MASK = 30\n"}));
}

TEST_F(ScriptFile, MissingEmptyOrUnreadableFilesGiveTheirDocumentedResult) {
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\none.txt", "INIT"), STATUS_SUCCESS);
  EXPECT_EQ(std::filesystem::file_size(drive.folder / "none.txt"), 0u);  // opened with open-if
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\nofolder\\x.txt", "INIT"),
            STATUS_OBJECT_PATH_NOT_FOUND);
  // 59 characters are taken, 60 refused before anything happens.
  EXPECT_EQ(ExecuteScriptFile(device.context, (u"C:\\" + std::u16string(56, u'n')).c_str(), "I"),
            STATUS_SUCCESS);
  EXPECT_TRUE(std::filesystem::exists(drive.folder / std::string(56, 'n')));
  EXPECT_EQ(ExecuteScriptFile(device.context, (u"C:\\" + std::u16string(57, u'n')).c_str(), "I"),
            STATUS_INVALID_PARAMETER);
  EXPECT_FALSE(std::filesystem::exists(drive.folder / std::string(57, 'n')));
  PoolFailAllocation(1);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\s.txt", "INIT"), STATUS_INSUFFICIENT_RESOURCES);
  PoolFailAllocation(0);

  // A read error with no bytes is the end of the file: the probe of the first
  // byte, line 1, then line 2 fails.
  Write("s.txt", "WRITE 0 1 1\r\nWRITE 0 2 2\r\nWRITE 0 3 3\r\n");
  FileFailRead(3, STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\s.txt", nullptr), STATUS_SUCCESS);
  FileFailRead(0, STATUS_SUCCESS);
  EXPECT_EQ(host.Lines(), Lines{"1 0001 0001 out"});
}

TEST_F(ScriptFile, SectionRunFindsTheScriptThroughTheRegistry) {
  ResetRegistry();
  BoundDevice camera(0);
  DeviceContext* c = camera.device.context;
  Write("s.txt", "[A]\r\nWRITE 0 1 1\r\n");
  auto directoryIs = [&](const std::u16string& expected) {
    WCHAR directory[ScriptValueBytes / 2];
    GetScriptDirectory(c, directory);
    EXPECT_EQ(std::u16string(directory), expected);
  };
  EXPECT_NE(ExecuteScriptSection(c, "A"), STATUS_SUCCESS);  // no Script value
  directoryIs(u"");
  SetRegistryString(camera.Key("InitialSetting"), u"Script", u"");
  EXPECT_EQ(ExecuteScriptSection(c, "A"), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(host.Lines().empty());
  SetRegistryString(camera.Key("InitialSetting"), u"Script", u"C:\\s.txt");
  EXPECT_EQ(ExecuteScriptSection(c, "A"), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptSectionForLibrary(c, "A"), STATUS_SUCCESS);
  EXPECT_EQ(host.Lines(), (Lines{"1 0001 0001 out", "1 0001 0001 out"}));
  directoryIs(u"C:");
  // A named sensor has its own Script value below its name.
  std::memcpy(c->SensorName, u"OV7660", 14);
  SetRegistryString(camera.Key("OV7660\\InitialSetting"), u"Script", u"s.txt");
  directoryIs(u"s.txt");
  SetRegistryString(camera.Key("OV7660\\InitialSetting"), u"Script", u"C:\\Cam\\Sub\\s.txt");
  directoryIs(u"C:\\Cam\\Sub");
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
  auto at = [&](const char* line) { return uint64_t(text.find(line)); };
  Write("s.txt", text);
  for (BOOLEAN goOn : {TRUE, FALSE}) {
    SCOPED_TRACE(int(goOn));
    host.Clear();
    host.FailNth(3, STATUS_DEVICE_NOT_CONNECTED);  // the CNT block's burst
    Heard heard;
    heard.goOn = goOn;
    const NTSTATUS status = Observe("A", &HeardObserver, &heard);
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
  Heard heard;
  heard.goOn = FALSE;
  Write("s.txt", "WRITE 0 1 1\r\nWRITE 0 2 2");
  EXPECT_EQ(Observe(nullptr, &HeardObserver, &heard), STATUS_SUCCESS);
  ASSERT_EQ(heard.faults.size(), 1u);
  EXPECT_EQ(std::get<0>(heard.faults[0]), 13u);
  EXPECT_EQ(std::get<1>(heard.faults[0]), ScriptFaultLineWithoutCr);
}

// ---------------------------------------------------------------- commands

TEST_F(ScriptCommands, EachCommandSendsItsRequests) {
  const Camera plain, rev2{.revision2 = 1}, ab{.registers = {{0x0007, 0xAB}}},
      pair{.registers = {{0x6001, 0x12}, {0x6002, 0x34}}}, lo{.addrLo = 0xF0},
      slowBus{.readDelay = 5000, .reads = {0x00, 0x80}}, third{.failNth = 3};
  const NTSTATUS ok = STATUS_SUCCESS, bad = STATUS_INVALID_PARAMETER;
  const std::string read12 = "2 6000 0001 in 1; 2 6000 0002 in 1; ", w1 = "1 0001 0001 out";
  const std::string twoStep = "1 6000 8012 out; 2 6000 8012 in 1";
  std::string pairs32;  // the bytes of Body(32): register i, data 1
  for (int i = 0; i < 32; ++i) {
    char text[8];
    std::snprintf(text, sizeof text, i == 0 ? "%02X 01" : " %02X 01", i);
    pairs32 += text;
  }
  struct Case {
    const char* name;
    std::string body;
    const Camera& setup;
    NTSTATUS status;
    std::string requests;
    int64_t delay;
  } const cases[] = {
      {"write's low byte", "WRITE 60H 12H 1FFH\r\n", plain, ok, "1 60FF 0012 out", 0},
      {"bits_op", "BITS_OP 0 7 10H 30H\r\n", ab, ok, "2 0000 0007 in 1; 1 009B 0007 out", 0},
      {"bits_op mask 0", "BITS_OP 0 7 1 0\r\n", ab, ok, "2 0000 0007 in 1; 1 00AB 0007 out", 0},
      {"bits_op_16 seq 0", "BITS_OP_16 60H 1 2 0 0 0\r\n", pair, ok,
       read12 + "1 6012 0001 out; 1 6034 0002 out", 0},
      // 0x1234 -> 0x0100 | 0x0034; read the other way 0x3412 -> 0x0100 | 0x0012.
      {"bits_op_16 seq 0 merged", "BITS_OP_16 60H 1 2 100H 0FF00H 0\r\n", pair, ok,
       read12 + "1 6001 0001 out; 1 6034 0002 out", 0},
      {"bits_op_16 seq 1 merged", "BITS_OP_16 60H 1 2 100H 0FF00H 1\r\n", pair, ok,
       read12 + "1 6012 0001 out; 1 6001 0002 out", 0},
      {"bits_op_16 seq 2", "BITS_OP_16 60H 1 2 0 0 2\r\n", pair, bad, "2 6000 0001 in 1", 0},
      {"write2b", "WRITE2B 7AH 35H 1234H\r\n", lo, ok, "3 7A00 0200 out [35 12 F0 34]", 0},
      {"writeex revision 2", "WRITEEX 78H 338CH 0A511H\r\n", rev2, ok,
       "3 7800 0500 out [33 8C A5 11]", 0},
      {"writeex", "WRITEEX 78H 338CH 0A511H\r\n", plain, ok, "3 7800 0033 out [8C A5 11]", 0},
      {"write2a", "WRITE2A 78H 1234H 56H\r\n", plain, ok, "3 7800 0012 out [34 56]", 0},
      {"block of three and a blank line", "BEG_BLK_WR 0\r\n1 2\r\n\r\n3,4\r\n5 6\r\nEND_BLK_WR\r\n",
       plain, ok, "3 0000 0200 out [01 02 03 04 05 06]", 0},
      {"empty block", "beg_blk_wr 0\r\nend_blk_wr\r\n", plain, ok, "3 0000 0200 out []", 0},
      {"block of 32 pairs", "BEG_BLK_WR 0\r\n" + Body(32) + "END_BLK_WR\r\n", plain, ok,
       "3 0000 0200 out [" + pairs32 + "]", 0},
      {"33 pairs", "BEG_BLK_WR 0\r\n" + Body(33) + "END_BLK_WR\r\n", plain, bad, "", 0},
      {"block_w2b", "BEG_BLK_W2B 7AH\r\n35H 1234H\r\n36H,0ABCDH\r\nEND_BLK_W2B\r\n", lo, ok,
       "3 7A00 0200 out [35 12 F0 34 36 AB F0 CD]", 0},
      {"17 block_w2b lines", "BEG_BLK_W2B 0\r\n" + Body(17) + "END_BLK_W2B\r\n", plain, bad, "", 0},
      {"continuous", "BEG_CNT_WR 60H 10H\r\n1\r\n0FFH extra\r\n12H,34H\r\nend_cnt_wr\r\n", plain,
       ok, "3 6000 0010 out [01 FF 12]", 0},
      {"continuous comma", "BEG_CNT_WR 60H 10H\r\n1,2\r\nEND_CNT_WR\r\n", plain, bad, "", 0},
      {"33 continuous bytes", "BEG_CNT_WR 0 0\r\n" + Body(33, true) + "END_CNT_WR\r\n", plain, bad,
       "", 0},
      {"file ends in a block", "WRITE 0 1 1\r\nBEG_BLK_WR 0\r\n1 2\r\n", plain, bad, w1, 0},
      {"no comment in a body", "BEG_BLK_WR 0\r\n;1 2\r\nEND_BLK_WR\r\n", plain, bad, "", 0},
      {"no header in a body", "BEG_BLK_WR 0\r\n[A]\r\nEND_BLK_WR\r\n", plain, bad, "", 0},
      {"delay", "DELAY 10000\r\n", plain, ok, "", 10000},
      {"delay 0", "DELAY 0\r\nWRITE 0 1 1\r\n", plain, ok, w1, 0},
      {"wait mask 0", "WAIT 0 4 0 0 10000\r\n", plain, ok, "2 0000 0004 in 1", 10000},
      {"wait two-step", "WAIT 60H 12H 80H 80H 100\r\n", slowBus, ok, twoStep + "; " + twoStep,
       2 * (5000 + 100)},
      {"bits_op two-step", "BITS_OP 60H 12H 1 0\r\n", slowBus, ok, twoStep + "; 1 6001 0012 out",
       5000},
      {"define", "DEFINE GAIN 40H\r\nWRITE 60H 12H GAIN\r\n", plain, ok, "1 6040 0012 out", 0},
      {"first define stays", "DEFINE G 1\r\nDEFINE G 2\r\nWRITE 0 1 G\r\n", plain, ok, w1, 0},
      {"define from a define", "DEFINE C 5\r\nDEFINE D C\r\nWRITE 0 D C\r\n", plain, ok,
       "1 0005 0005 out", 0},
      {"define of itself", "DEFINE E E\r\nWRITE 0 1 1\r\n", plain, bad, "", 0},
      {"malformed define not counted", "WRITE 0 1 1\r\nDEFINE X 0Z\r\nWRITE 0 1 X\r\n", plain, bad,
       w1, 0},
      {"malformed operand", "WRITE 0 1 0X12\r\n", plain, bad, "", 0},
      {"too few words", "BITS_OP_16 0 1 2 3 4\r\n", plain, bad, "", 0},
      {"failed request ends the run",
       "WRITE 0 1 1\r\nWRITE 0 2 2\r\nWRITE 0 3 3\r\nWRITE 0 4 4\r\n", third, bad,
       w1 + "; 1 0002 0002 out; 1 0003 0003 out", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(RunA(c.body, c.setup), c.status);
    EXPECT_EQ(Joined(host.Lines()), c.requests);
    EXPECT_EQ(KernelDelayTotal(), c.delay);
  }
}

TEST_F(ScriptCommands, LogLinesAreVerbatim) {
  const Camera plain, rev2{.revision2 = 1}, lo{.addrLo = 0xF0}, failing{.failNth = 1};
  struct Case {
    std::string body;
    const Camera& setup;
    std::string log;  // the lines after "Execute [A]", one after another
  } const cases[] = {
      {"WRITE 60H 12H 0ABH\r\n", plain, "WRITE I2CADDR = 60 REGADDR = 12 DATA = ab\n"},
      {"DELAY 10000\r\n", plain, "DELAY -10000\n"},
      {"WAIT 0 4 0 0 100\r\n", plain,
       "WAIT I2CADDR = 00 REGADDR = 04 DATA = 00 MASK = 00 INTERVAL = -100\n"},
      {"BEG_BLK_WR 60H\r\n1 2\r\n0AH 0BH\r\nEND_BLK_WR\r\n", plain,
       "BLOCK_WRITE I2CADDR = 60\n\tRegAddr = 01 Data = 02\n\tRegAddr = 0a Data = 0b\n"},
      {"BEG_BLK_W2B 7AH\r\n35H 1234H\r\nEND_BLK_W2B\r\n", lo,
       "BLOCK_WRITE2B I2CADDR = 7a\n BLKW2B : 0x35, 0x1234\n"},
      {"BITS_OP 0 7 10H 30H\r\n", plain, "BITS_OP I2CADDR = 00 REGADDR = 07 DATA = 10 MASK = 30\n"},
      {"BITS_OP_16 60H 1 2 0 0FF00H 1\r\n", plain,
       "BITS_OP_16 I2CADDR = 60 REGADDR1 = 01 REGADDR2 = 02 DATA = 00 MASK = ff00 SEQ = 01\n"},
      {"BEG_CNT_WR 60H 10H\r\n1\r\nEND_CNT_WR\r\n", plain,
       "CONTINUOUS_WRITE I2CADDR = 60 REGADDR = 10\n\tData = 01\n"},
      {"WRITEEX 78H 338CH 0A511H\r\n", rev2, "WRITEEX 0x78,[0x338c,0xa511]\n"},
      {"WRITE2B 7AH 35H 1234H\r\n", lo, "WRITE2B 0x7a, [0x35,0x12] [0xf0,0x34]\n"},
      {"WRITE2A 78H 1234H 56H\r\n", failing, "WRITE2A 0x78,(0x12,0x34),0x56\n"},
      {"DEFINE A 1\r\n", plain, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    RunA(c.body, c.setup);
    EXPECT_EQ(Joined(log.Lines(), ""), "Execute [A]\n" + c.log);
  }
}

TEST_F(ScriptCommands, FailedLinesNameTheirFault) {
  const std::pair<std::string, ScriptFault> cases[] = {
      {"POKE 1\r\n", ScriptFaultUnknownKeyword},
      {"WRITE 0 1\r\n", ScriptFaultTooFewWords},
      {"WRITE 0 1 1F\r\n", ScriptFaultMalformedNumber},
      {"WRITE 0 1 GAIN\r\n", ScriptFaultUndefinedName},
      {"BITS_OP_16 0 1 2 0 0 2\r\n", ScriptFaultBadSequence},
      {"BEG_CNT_WR 0 1\r\n1\r\n", ScriptFaultBodyWithoutEnd},
      {"BEG_CNT_WR 0 1\r\n" + std::string(130, '1'), ScriptFaultBodyLineWithoutCr},
      {"BEG_BLK_W2B 0\r\n" + Body(17) + "END_BLK_W2B\r\n", ScriptFaultBodyTooLong},
      {"WRITE 0 1 1\r\n", ScriptFaultRequestFailed},
      {"WAIT 0 4 1 1 0\r\n", ScriptFaultWaitGaveUp},
  };
  for (const auto& [body, expected] : cases) {
    SCOPED_TRACE(body.substr(0, 40));
    Write("s.txt", "[A]\r\n" + body);
    host.Clear();
    if (expected == ScriptFaultRequestFailed) host.FailNth(1, STATUS_DEVICE_NOT_CONNECTED);
    Heard heard;
    heard.goOn = FALSE;
    EXPECT_EQ(Observe("A", &HeardObserver, &heard), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(heard.faults.size(), 1u);
    EXPECT_EQ(std::get<1>(heard.faults[0]), expected);
  }
}

TEST_F(ScriptCommands, WaitGivesUpAtItsPollOrPauseBound) {
  // DATA 100H has a bit above the byte read: it is never met.
  const std::pair<const char*, size_t> cases[] = {
      {"WAIT 0 4 1 1 0\r\n", ScriptWaitMaxPolls},
      {"WAIT 0 4 100H 0FFFH 10000\r\n", size_t(ScriptWaitMaxPause / 10000)},
      {"WAIT 0 4 1 1 60000000\r\n", 1},
  };
  for (const auto& [body, polls] : cases) {
    EXPECT_EQ(RunA(body), STATUS_INVALID_PARAMETER) << body;
    EXPECT_EQ(host.Calls().size(), polls) << body;
  }
}

TEST_F(ScriptCommands, DefinesLastForOneRunOfOneSection) {
  Write("d.txt", "[A]\r\nDEFINE G 5\r\nWRITE 0 1 G\r\n[B]\r\nWRITE 0 2 G\r\n");
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\d.txt", "A"), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\d.txt", "A"), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\d.txt", "B"), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(host.Lines(), (Lines{"1 0005 0001 out", "1 0005 0001 out"}));
  EXPECT_EQ(RunA("WRITE 0 1 G\r\n"), STATUS_INVALID_PARAMETER);  // the next run knows no G
  // A full table ignores the 257th name, and its uses fail.
  std::string body;
  for (int i = 0; i < 256; ++i)
    body += "DEFINE N" + std::to_string(i) + " " + std::to_string(i) + "\r\n";
  body += "DEFINE LATE 1\r\nWRITE 0 1 N255\r\nWRITE 0 2 LATE\r\n";
  EXPECT_EQ(RunA(body), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(host.Lines(), Lines{"1 00FF 0001 out"});
}

}  // namespace
