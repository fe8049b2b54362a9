// The script's commands: the requests each one sends, its log lines, its
// failures, WAIT's polls and bound, and the scope of DEFINE names.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "script/script_engine.h"
#include "tests/device_fixture.h"
#include "tests/vendor_recorder.h"

namespace {

using Lines = std::vector<std::string>;

// The camera and host a case starts from.
struct Camera {
  uint32_t revision2 = 0;
  uint32_t addrLo = 0;
  int32_t readDelay = 0;
  std::map<uint16_t, uint8_t> registers;
  std::deque<uint8_t> reads;
  size_t failNth = 0;  // this request fails
};

class ScriptCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> serial{0};
    folder_ = std::filesystem::temp_directory_path() /
              ("mr740-commands-" + std::to_string(getpid()) + "-" + std::to_string(serial++));
    std::filesystem::create_directories(folder_);
    ASSERT_TRUE(MapDosDrive('C', folder_.string()));
    clockMode_ = GetKernelClockMode();
    SetKernelClockMode(KernelClockMode::Virtual);
  }
  void TearDown() override {
    MapDosDrive('C', "");
    SetKernelClockMode(clockMode_);
    std::filesystem::remove_all(folder_);
  }
  // Runs `body` as section A of a fresh script.
  NTSTATUS Run(const std::string& body, const Camera& setup = Camera()) {
    std::ofstream(folder_ / "s.txt", std::ios::binary) << "[A]\r\n" << body;
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
    return ExecuteScriptFile(device.context, u"C:\\s.txt", "A");
  }

  TestDevice device;
  VendorRecorder host;
  DebugPrintCapture log;
  std::filesystem::path folder_;
  KernelClockMode clockMode_ = KernelClockMode::Real;
};

// `count` body lines made by `line(i)`.
std::string Body(int count, std::string (*line)(int)) {
  std::string text;
  for (int i = 0; i < count; ++i) text += line(i) + "\r\n";
  return text;
}
std::string Pair(int i) { return std::to_string(i) + " 1"; }
std::string Value(int i) { return std::to_string(i); }
// The bytes the first `count` lines of Pair send: register i, data 1.
std::string PairBytes(int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    char pair[8];
    std::snprintf(pair, sizeof pair, i == 0 ? "%02X 01" : " %02X 01", i);
    bytes += pair;
  }
  return bytes;
}

TEST_F(ScriptCommands, EachCommandSendsItsRequests) {
  const Camera plain;
  Camera rev2;
  rev2.revision2 = 1;
  Camera ab;
  ab.registers[0x0007] = 0xAB;
  Camera pair;
  pair.registers = {{0x6001, 0x12}, {0x6002, 0x34}};
  Camera lo;
  lo.addrLo = 0xF0;
  Camera slowBus;
  slowBus.readDelay = 5000;
  slowBus.reads = {0x00, 0x80};
  Camera third;
  third.failNth = 3;
  struct Case {
    const char* name;
    std::string body;
    const Camera& setup;
    NTSTATUS status;
    Lines requests;
    int64_t delay;
  } cases[] = {
      {"write", "WRITE 0 6 32\r\n", plain, STATUS_SUCCESS, {"1 0020 0006 out"}, 0},
      {"write's low byte", "WRITE 60H 12H 1FFH\r\n", plain, STATUS_SUCCESS, {"1 60FF 0012 out"}, 0},
      {"bits_op",
       "BITS_OP 0 7 10H 30H\r\n",
       ab,
       STATUS_SUCCESS,
       {"2 0000 0007 in 1", "1 009B 0007 out"},
       0},
      {"bits_op mask 0",
       "BITS_OP 0 7 1 0\r\n",
       ab,
       STATUS_SUCCESS,
       {"2 0000 0007 in 1", "1 00AB 0007 out"},
       0},
      {"bits_op_16 seq 0",
       "BITS_OP_16 60H 1 2 0 0 0\r\n",
       pair,
       STATUS_SUCCESS,
       {"2 6000 0001 in 1", "2 6000 0002 in 1", "1 6012 0001 out", "1 6034 0002 out"},
       0},
      {"bits_op_16 seq 1",
       "BITS_OP_16 60H 1 2 0 0 1\r\n",
       pair,
       STATUS_SUCCESS,
       {"2 6000 0001 in 1", "2 6000 0002 in 1", "1 6012 0001 out", "1 6034 0002 out"},
       0},
      // 0x1234 -> 0x0100 | 0x0034; read the other way 0x3412 -> 0x0100 | 0x0012.
      {"bits_op_16 seq 0 merged",
       "BITS_OP_16 60H 1 2 100H 0FF00H 0\r\n",
       pair,
       STATUS_SUCCESS,
       {"2 6000 0001 in 1", "2 6000 0002 in 1", "1 6001 0001 out", "1 6034 0002 out"},
       0},
      {"bits_op_16 seq 1 merged",
       "BITS_OP_16 60H 1 2 100H 0FF00H 1\r\n",
       pair,
       STATUS_SUCCESS,
       {"2 6000 0001 in 1", "2 6000 0002 in 1", "1 6012 0001 out", "1 6001 0002 out"},
       0},
      {"bits_op_16 seq 2",
       "BITS_OP_16 60H 1 2 0 0 2\r\n",
       pair,
       STATUS_INVALID_PARAMETER,
       {"2 6000 0001 in 1"},
       0},
      {"write2b",
       "WRITE2B 7AH 35H 1234H\r\n",
       lo,
       STATUS_SUCCESS,
       {"3 7A00 0200 out [35 12 F0 34]"},
       0},
      {"writeex revision 2",
       "WRITEEX 78H 338CH 0A511H\r\n",
       rev2,
       STATUS_SUCCESS,
       {"3 7800 0500 out [33 8C A5 11]"},
       0},
      {"writeex",
       "WRITEEX 78H 338CH 0A511H\r\n",
       plain,
       STATUS_SUCCESS,
       {"3 7800 0033 out [8C A5 11]"},
       0},
      {"write2a",
       "WRITE2A 78H 1234H 56H\r\n",
       plain,
       STATUS_SUCCESS,
       {"3 7800 0012 out [34 56]"},
       0},
      {"block of three and a blank line",
       "BEG_BLK_WR 0\r\n1 2\r\n\r\n3,4\r\n5 6\r\nEND_BLK_WR\r\n",
       plain,
       STATUS_SUCCESS,
       {"3 0000 0200 out [01 02 03 04 05 06]"},
       0},
      {"empty block",
       "beg_blk_wr 0\r\nend_blk_wr\r\n",
       plain,
       STATUS_SUCCESS,
       {"3 0000 0200 out []"},
       0},
      {"block of 32 pairs",
       "BEG_BLK_WR 0\r\n" + Body(32, Pair) + "END_BLK_WR\r\n",
       plain,
       STATUS_SUCCESS,
       {"3 0000 0200 out [" + PairBytes(32) + "]"},
       0},
      {"33 pairs",
       "BEG_BLK_WR 0\r\n" + Body(33, Pair) + "END_BLK_WR\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {},
       0},
      {"block_w2b",
       "BEG_BLK_W2B 7AH\r\n35H 1234H\r\n36H,0ABCDH\r\nEND_BLK_W2B\r\n",
       lo,
       STATUS_SUCCESS,
       {"3 7A00 0200 out [35 12 F0 34 36 AB F0 CD]"},
       0},
      {"17 block_w2b lines",
       "BEG_BLK_W2B 0\r\n" + Body(17, Pair) + "END_BLK_W2B\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {},
       0},
      {"continuous",
       "BEG_CNT_WR 60H 10H\r\n1\r\n0FFH extra\r\n12H,34H\r\nend_cnt_wr\r\n",
       plain,
       STATUS_SUCCESS,
       {"3 6000 0010 out [01 FF 12]"},
       0},
      {"continuous comma",
       "BEG_CNT_WR 60H 10H\r\n1,2\r\nEND_CNT_WR\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {},
       0},
      {"33 continuous bytes",
       "BEG_CNT_WR 0 0\r\n" + Body(33, Value) + "END_CNT_WR\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {},
       0},
      {"file ends in a block",
       "WRITE 0 1 1\r\nBEG_BLK_WR 0\r\n1 2\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {"1 0001 0001 out"},
       0},
      {"no comment in a body",
       "BEG_BLK_WR 0\r\n;1 2\r\nEND_BLK_WR\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {},
       0},
      {"no header in a body",
       "BEG_BLK_WR 0\r\n[A]\r\nEND_BLK_WR\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {},
       0},
      {"delay", "DELAY 10000\r\n", plain, STATUS_SUCCESS, {}, 10000},
      {"delay 0", "DELAY 0\r\nWRITE 0 1 1\r\n", plain, STATUS_SUCCESS, {"1 0001 0001 out"}, 0},
      {"wait mask 0", "WAIT 0 4 0 0 10000\r\n", plain, STATUS_SUCCESS, {"2 0000 0004 in 1"}, 10000},
      {"wait two-step",
       "WAIT 60H 12H 80H 80H 100\r\n",
       slowBus,
       STATUS_SUCCESS,
       {"1 6000 8012 out", "2 6000 8012 in 1", "1 6000 8012 out", "2 6000 8012 in 1"},
       2 * (5000 + 100)},
      {"bits_op two-step",
       "BITS_OP 60H 12H 1 0\r\n",
       slowBus,
       STATUS_SUCCESS,
       {"1 6000 8012 out", "2 6000 8012 in 1", "1 6001 0012 out"},
       5000},
      {"define",
       "DEFINE GAIN 40H\r\nWRITE 60H 12H GAIN\r\n",
       plain,
       STATUS_SUCCESS,
       {"1 6040 0012 out"},
       0},
      {"first define stays",
       "DEFINE G 1\r\nDEFINE G 2\r\nWRITE 0 1 G\r\n",
       plain,
       STATUS_SUCCESS,
       {"1 0001 0001 out"},
       0},
      {"define from a define",
       "DEFINE C 5\r\nDEFINE D C\r\nWRITE 0 D C\r\n",
       plain,
       STATUS_SUCCESS,
       {"1 0005 0005 out"},
       0},
      {"define of itself", "DEFINE E E\r\nWRITE 0 1 1\r\n", plain, STATUS_INVALID_PARAMETER, {}, 0},
      {"malformed define not counted",
       "WRITE 0 1 1\r\nDEFINE X 0Z\r\nWRITE 0 1 X\r\n",
       plain,
       STATUS_INVALID_PARAMETER,
       {"1 0001 0001 out"},
       0},
      {"malformed operand", "WRITE 0 1 0X12\r\n", plain, STATUS_INVALID_PARAMETER, {}, 0},
      {"too few words", "BITS_OP_16 0 1 2 3 4\r\n", plain, STATUS_INVALID_PARAMETER, {}, 0},
      {"failed request ends the run",
       "WRITE 0 1 1\r\nWRITE 0 2 2\r\nWRITE 0 3 3\r\nWRITE 0 4 4\r\n",
       third,
       STATUS_INVALID_PARAMETER,
       {"1 0001 0001 out", "1 0002 0002 out", "1 0003 0003 out"},
       0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Run(c.body, c.setup), c.status);
    EXPECT_EQ(host.Lines(), c.requests);
    EXPECT_EQ(KernelDelayTotal(), c.delay);
  }
}

TEST_F(ScriptCommands, LogLinesAreVerbatim) {
  const Camera plain;
  Camera rev2;
  rev2.revision2 = 1;
  Camera lo;
  lo.addrLo = 0xF0;
  Camera failing;
  failing.failNth = 1;
  struct Case {
    std::string body;
    const Camera& setup;
    Lines log;
  } cases[] = {
      {"WRITE 60H 12H 0ABH\r\n", plain, {"WRITE I2CADDR = 60 REGADDR = 12 DATA = ab\n"}},
      {"DELAY 10000\r\n", plain, {"DELAY -10000\n"}},
      {"WAIT 0 4 0 0 100\r\n",
       plain,
       {"WAIT I2CADDR = 00 REGADDR = 04 DATA = 00 MASK = 00 INTERVAL = -100\n"}},
      {"BEG_BLK_WR 60H\r\n1 2\r\n0AH 0BH\r\nEND_BLK_WR\r\n",
       plain,
       {"BLOCK_WRITE I2CADDR = 60\n", "\tRegAddr = 01 Data = 02\n", "\tRegAddr = 0a Data = 0b\n"}},
      {"BEG_BLK_W2B 7AH\r\n35H 1234H\r\nEND_BLK_W2B\r\n",
       lo,
       {"BLOCK_WRITE2B I2CADDR = 7a\n", " BLKW2B : 0x35, 0x1234\n"}},
      {"BITS_OP 0 7 10H 30H\r\n",
       plain,
       {"BITS_OP I2CADDR = 00 REGADDR = 07 DATA = 10 MASK = 30\n"}},
      {"BITS_OP_16 60H 1 2 0 0FF00H 1\r\n",
       plain,
       {"BITS_OP_16 I2CADDR = 60 REGADDR1 = 01 REGADDR2 = 02 DATA = 00 MASK = ff00 SEQ = 01\n"}},
      {"BEG_CNT_WR 60H 10H\r\n1\r\nEND_CNT_WR\r\n",
       plain,
       {"CONTINUOUS_WRITE I2CADDR = 60 REGADDR = 10\n", "\tData = 01\n"}},
      {"WRITEEX 78H 338CH 0A511H\r\n", rev2, {"WRITEEX 0x78,[0x338c,0xa511]\n"}},
      {"WRITEEX 78H 338CH 0A511H\r\n", plain, {"WRITEEX 0x78,0x33 [0x8c,0xa5,0x11]\n"}},
      {"WRITE2B 7AH 35H 1234H\r\n", lo, {"WRITE2B 0x7a, [0x35,0x12] [0xf0,0x34]\n"}},
      {"WRITE2A 78H 1234H 56H\r\n", failing, {"WRITE2A 0x78,(0x12,0x34),0x56\n"}},
      {"DEFINE A 1\r\n", plain, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    Run(c.body, c.setup);
    Lines expected = {"Execute [A]\n"};
    expected.insert(expected.end(), c.log.begin(), c.log.end());
    EXPECT_EQ(log.Lines(), expected);
  }
}

NTSTATUS FaultOf(DeviceContext* context, const std::filesystem::path& file, ScriptFault* fault) {
  static const ScriptObserver observer = {
      nullptr, [](void* self, uint64_t, ScriptFault why, const char*) -> BOOLEAN {
        *static_cast<ScriptFault*>(self) = why;
        return FALSE;
      }};
  HANDLE handle = nullptr;
  if (!OpenHostFileForReading(file.string(), &handle)) return STATUS_UNSUCCESSFUL;
  NTSTATUS status = RunScriptFile(context, handle, "A", &observer, fault);
  ZwClose(handle);
  return status;
}

TEST_F(ScriptCommands, FailedLinesNameTheirFault) {
  const Camera none;
  Camera failing;
  failing.failNth = 1;
  struct Case {
    std::string body;
    const Camera& setup;
    ScriptFault fault;
  } cases[] = {
      {"POKE 1\r\n", none, ScriptFaultUnknownKeyword},
      {"WRITE 0 1\r\n", none, ScriptFaultTooFewWords},
      {"WRITE 0 1 1F\r\n", none, ScriptFaultMalformedNumber},
      {"WRITE 0 1 GAIN\r\n", none, ScriptFaultUndefinedName},
      {"BITS_OP_16 0 1 2 0 0 2\r\n", none, ScriptFaultBadSequence},
      {"BEG_CNT_WR 0 1\r\n1\r\n", none, ScriptFaultBodyWithoutEnd},
      {"BEG_CNT_WR 0 1\r\n" + std::string(130, '1'), none, ScriptFaultBodyLineWithoutCr},
      {"BEG_BLK_W2B 0\r\n" + Body(17, Pair) + "END_BLK_W2B\r\n", none, ScriptFaultBodyTooLong},
      {"WRITE 0 1 1\r\n", failing, ScriptFaultRequestFailed},
      {"WAIT 0 4 1 1 0\r\n", none, ScriptFaultWaitGaveUp},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body.substr(0, 40));
    Run(c.body, c.setup);
    host.Clear();
    if (c.setup.failNth != 0) host.FailNth(c.setup.failNth, STATUS_DEVICE_NOT_CONNECTED);
    ScriptFault fault = ScriptFaultNone;
    EXPECT_EQ(FaultOf(device.context, folder_ / "s.txt", &fault), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(fault, c.fault);
  }
}

TEST_F(ScriptCommands, WaitGivesUpAtItsPollOrPauseBound) {
  // DATA 100H has a bit above the byte read: it is never met.
  struct Case {
    const char* body;
    size_t polls;
  } cases[] = {
      {"WAIT 0 4 1 1 0\r\n", ScriptWaitMaxPolls},
      {"WAIT 0 4 100H 0FFFH 10000\r\n", size_t(ScriptWaitMaxPause / 10000)},
      {"WAIT 0 4 1 1 60000000\r\n", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    EXPECT_EQ(Run(c.body), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(host.Calls().size(), c.polls);
  }
}

TEST_F(ScriptCommands, DefinesLastForOneRunOfOneSection) {
  std::ofstream(folder_ / "d.txt", std::ios::binary)
      << "[A]\r\nDEFINE G 5\r\nWRITE 0 1 G\r\n[B]\r\nWRITE 0 2 G\r\n";
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\d.txt", "A"), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\d.txt", "A"), STATUS_SUCCESS);
  EXPECT_EQ(ExecuteScriptFile(device.context, u"C:\\d.txt", "B"), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(host.Lines(), (Lines{"1 0005 0001 out", "1 0005 0001 out"}));
  EXPECT_EQ(Run("WRITE 0 1 G\r\n"), STATUS_INVALID_PARAMETER);  // the next run knows no G

  // A full table ignores the 257th name, and its uses fail.
  std::string body;
  for (int i = 0; i < 256; ++i)
    body += "DEFINE N" + std::to_string(i) + " " + std::to_string(i) + "\r\n";
  body += "DEFINE LATE 1\r\nWRITE 0 1 N255\r\nWRITE 0 2 LATE\r\n";
  EXPECT_EQ(Run(body), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(host.Lines(), Lines{"1 00FF 0001 out"});
}

}  // namespace
