// The script checker and converter of mr740cam, called as the command line
// calls them, on files in a temporary folder.

#include "tools/script_tool.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "core/host_contract.h"
#include "platform/handles.h"
#include "platform/kernel_control.h"

namespace {

namespace fs = std::filesystem;

struct ToolResult {
  int status = -1;
  std::vector<std::string> out;  // lines of the report
  std::string err;
};

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadStream(FILE* stream) {
  std::fflush(stream);
  std::rewind(stream);
  std::string text;
  char buffer[4096];
  for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, stream)) > 0;) {
    text.append(buffer, got);
  }
  std::fclose(stream);
  return text;
}

ToolResult RunTool(std::vector<std::string> args) {
  args.insert(args.begin(), "mr740cam");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  FILE* out = std::tmpfile();
  FILE* err = std::tmpfile();
  ToolResult result;
  result.status = RunScriptToolWithOutput(int(args.size()), argv.data(), out, err);
  result.out = SplitLines(ReadStream(out));
  result.err = ReadStream(err);
  return result;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class ScriptTool : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> serial{0};
    folder_ = (fs::temp_directory_path() /
               ("mr740-script-tool-" + std::to_string(::getpid()) + "-" + std::to_string(serial++)))
                  .string();
    fs::create_directories(folder_);
    filesBefore_ = OpenPlatformHandles(HandleKind::File);
  }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::File), filesBefore_) << "a file handle leaked";
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  std::string Write(const std::string& name, const std::string& bytes) {
    std::string path = folder_ + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  // The report lines before the summary, without the file name in front.
  static std::vector<std::string> Faults(const ToolResult& result, const std::string& path) {
    std::vector<std::string> faults;
    for (size_t i = 0; i + 1 < result.out.size(); ++i) {
      const std::string& line = result.out[i];
      faults.push_back(line.compare(0, path.size() + 1, path + ":") == 0
                           ? line.substr(path.size() + 1)
                           : "unexpected: " + line);
    }
    return faults;
  }
  std::string folder_;
  uint32_t filesBefore_ = 0;
};

std::string Lines(std::initializer_list<const char*> lines) {
  std::string text;
  for (const char* line : lines) text += std::string(line) + "\r\n";
  return text;
}

struct CheckCase {
  const char* what;
  std::string script;
  std::vector<std::string> faults;  // "LINE: [SECTION] message"
  const char* summary;
};

std::vector<CheckCase> CheckCases() {
  const std::string longLine = "WRITE 0 1 2 ;" + std::string(120, 'x');
  std::string manyPairs = "[BIG]\r\nBEG_BLK_WR 60H\r\n";
  for (int i = 0; i < 33; ++i) manyPairs += std::to_string(i) + " 1\r\n";
  manyPairs += "END_BLK_WR\r\n";
  return {
      {"a clean script, with a WAIT the fake camera never satisfies",
       Lines({"; OV7670", "[INIT]", "DEFINE COM7 12H", "WRITE 42H COM7 80H", "DELAY 10000",
              "WAIT 42H 0AH 76H 0FFH 10000", "BITS_OP 42H 11H 1 3", "BITS_OP_16 42H 1 2 3 4 1",
              "BEG_BLK_WR 42H", "  12H 34H", "", "END_BLK_WR", "BEG_CNT_WR 0 20H", "1", "0FFH",
              "END_CNT_WR", "[HS\\INIT]", "write,0,1,2", "WRITEEX 78H 338CH 0A511H"}),
       {},
       "19 lines, 2 sections, 0 faults"},
      {"unknown keywords, before the first header too, and ';' behind a blank",
       Lines({"WRIT 0 1 2", "[INIT]", "WRITE 0 1 2", " ; not a comment", "DELAYS 10"}),
       {"1: [] unknown keyword \"WRIT\"",
        "4: [INIT] unknown keyword \";\" (a comment needs its ';' in the first column)",
        "5: [INIT] unknown keyword \"DELAYS\""},
       "5 lines, 1 sections, 3 faults"},
      {"malformed numbers and too few operands",
       Lines({"[A]", "WRITE 0 1F 2", "WRITE 0 0X12 2", "WRITE 0 1", "DELAY"}),
       {"2: [A] WRITE: malformed number \"1F\" (decimal digits, or hexadecimal digits "
        "followed by H)",
        "3: [A] WRITE: malformed number \"0X12\" (decimal digits, or hexadecimal digits "
        "followed by H)",
        "4: [A] WRITE: too few operands", "5: [A] DELAY: too few operands"},
       "5 lines, 1 sections, 4 faults"},
      {"a name defined in another section, or in a later line",
       Lines({"[A]", "DEFINE REG 12H", "WRITE 0 REG 1", "[B]", "WRITE 0 REG 1", "WRITE 0 LATER 1",
              "DEFINE LATER 1"}),
       {"5: [B] WRITE: name \"REG\" is not defined earlier in this section",
        "6: [B] WRITE: name \"LATER\" is not defined earlier in this section"},
       "7 lines, 2 sections, 2 faults"},
      {"a split section keeps its names",
       Lines({"[A]", "DEFINE R 1", "[B]", "[A]", "WRITE 0 R 1"}),
       {},
       "5 lines, 2 sections, 0 faults"},
      {"BITS_OP_16 with SEQ 2",
       Lines({"[A]", "BITS_OP_16 42H 1 2 3 4 2"}),
       {"2: [A] BITS_OP_16: SEQ must be 0 or 1"},
       "2 lines, 1 sections, 1 faults"},
      {"a block without its end keyword",
       Lines({"[A]", "WRITE 0 1 2", "BEG_BLK_WR 60H", "12H 34H", "56H 78H"}),
       {"3: [A] BEG_BLK_WR: the file ends before END_BLK_WR, so the driver sends nothing for "
        "this block"},
       "5 lines, 1 sections, 1 faults"},
      {"faults in block bodies, and the run goes on behind the block",
       Lines({"[A]", "BEG_BLK_W2B 60H", "12H", "END_BLK_W2B", "BEG_CNT_WR 0 1", "1,2", "END_CNT_WR",
              "BEG_BLK_WR 0", "; no comment here", "END_BLK_WR", "WRIT"}),
       {"3: [A] in the BEG_BLK_W2B body: too few operands",
        "6: [A] in the BEG_CNT_WR body: malformed number (a comma does not part values here: one "
        "value a line)",
        "9: [A] in the BEG_BLK_WR body: a name that is not defined earlier in this section",
        "11: [A] unknown keyword \"WRIT\""},
       "11 lines, 1 sections, 4 faults"},
      {"too many block lines",
       manyPairs,
       {"35: [BIG] in the BEG_BLK_WR body: more than 32 register pairs"},
       "36 lines, 1 sections, 1 faults"},
      {"a line with no CR in 128 bytes hides the rest of the file",
       Lines({"[A]", "WRITE 0 1 2", longLine.c_str(), "WRIT 1", "[B]"}),
       {"3: [A] no CR within 128 bytes: the driver stops reading the file here and runs none of "
        "the rest"},
       "5 lines, 1 sections, 1 faults"},
      {"a last line without CR LF",
       Lines({"[A]", "WRITE 0 1 2"}) + "WRITE 0 1 3",
       {"3: [A] the last line has no CR LF: the driver does not run it"},
       "3 lines, 1 sections, 1 faults"},
      {"an empty file", "", {}, "0 lines, 0 sections, 0 faults"},
  };
}

TEST_F(ScriptTool, CheckReportsWhatTheDriverWouldRejectLineByLine) {
  for (const CheckCase& c : CheckCases()) {
    SCOPED_TRACE(c.what);
    const std::string path = Write("cam.txt", c.script);
    ToolResult result = RunTool({"check-script", path});
    EXPECT_EQ(result.status, c.faults.empty() ? 0 : 1) << result.err;
    EXPECT_EQ(Faults(result, path), c.faults);
    ASSERT_FALSE(result.out.empty());
    EXPECT_EQ(result.out.back(), c.summary);
  }
}

TEST_F(ScriptTool, CheckOfTheScrambledFormReportsTheSameFaults) {
  for (const CheckCase& c : CheckCases()) {
    SCOPED_TRACE(c.what);
    // Scripts that begin with a blank keep their line numbers.
    const std::string plain = Write("plain.txt", " " + c.script);
    const std::string scrambled = folder_ + "/scrambled.txt";
    ToolResult conversion = RunTool({"scramble-script", plain, scrambled});
    ASSERT_EQ(conversion.status, 0) << conversion.err;
    EXPECT_EQ(conversion.err, "");
    ToolResult fromPlain = RunTool({"check-script", plain});
    ToolResult fromScrambled = RunTool({"check-script", scrambled});
    EXPECT_EQ(fromScrambled.status, fromPlain.status);
    EXPECT_EQ(Faults(fromScrambled, scrambled), Faults(fromPlain, plain));
    EXPECT_EQ(fromScrambled.out.back(), fromPlain.out.back());
  }
}

TEST_F(ScriptTool, ScrambleAndUnscrambleGiveBackTheText) {
  struct Case {
    std::string plain;
    std::string back;  // after scramble and unscramble
    bool noted;        // a blank line was put in front, and stderr says so
  } cases[] = {
      {" [INIT]\r\nwrite,0,1,2\r\n[HS\\INIT]\r\nDELAY 10000 ; `^_\r\n",
       " [INIT]\r\nwrite,0,1,2\r\n[HS\\INIT]\r\nDELAY 10000 ; `^_\r\n", false},
      {"[INIT]\r\n\tWRITE\t0 1 2\r\n", " \r\n[INIT]\r\n WRITE 0 1 2\r\n", true},
      {"\t[A]\r\n", " [A]\r\n", false},
      {"", " \r\n", true},
      {" caf\xE9 \xFF.txt\r\n", " caf\xE9 \xFF.txt\r\n", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.plain);
    const std::string plain = Write("plain.txt", c.plain);
    const std::string scrambled = folder_ + "/scrambled.txt";
    const std::string back = folder_ + "/back.txt";
    ToolResult there = RunTool({"scramble-script", plain, scrambled});
    ASSERT_EQ(there.status, 0) << there.err;
    EXPECT_EQ(there.err.find("blank line was put in front") != std::string::npos, c.noted)
        << there.err;
    const std::string bytes = ReadFile(scrambled);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(uint8_t(bytes[0]), 0x10);
    EXPECT_EQ(bytes.size(), c.back.size());
    ToolResult again = RunTool({"unscramble-script", scrambled, back});
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(ReadFile(back), c.back);
  }
  // The scrambled bytes themselves, from the table of the file format.
  const std::string plain = Write("plain.txt", " a0[z,\r\nAB");
  ASSERT_EQ(RunTool({"scramble-script", plain, folder_ + "/s.txt"}).status, 0);
  const char expected[] = {0x10, 0x11, 0x00, 0x0A, 0x2A, 0x2B, 0x2C, 0x2D, 'A', 'B'};
  EXPECT_EQ(ReadFile(folder_ + "/s.txt"), std::string(expected, sizeof expected));
}

TEST_F(ScriptTool, ConversionRefusesTextItCannotConvertAndWritesNothing) {
  const std::string out = folder_ + "/out.txt";
  const std::string bad = Write("bad.txt", " [A]\r\nWRITE 0 1 2 ! x\r\n\r\nDELAY (10)\r\n");
  ToolResult result = RunTool({"scramble-script", bad, out});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find(bad + ":2: '!' (0x21) has no scrambled form"), std::string::npos)
      << result.err;
  EXPECT_NE(result.err.find(bad + ":4: '(' (0x28) has no scrambled form"), std::string::npos);
  EXPECT_NE(result.err.find(bad + ":4: ')' (0x29) has no scrambled form"), std::string::npos);
  EXPECT_FALSE(fs::exists(out));

  // An existing output stays as it was.
  std::ofstream(out) << "old";
  EXPECT_EQ(RunTool({"scramble-script", bad, out}).status, 1);
  EXPECT_EQ(ReadFile(out), "old");

  const std::string plain = Write("plain.txt", " [A]\r\n");
  result = RunTool({"unscramble-script", plain, out});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("is not scrambled"), std::string::npos);
  EXPECT_EQ(ReadFile(out), "old");

  const std::string scrambled = Write("scrambled.txt", std::string("\x10\x2C\x2D", 3));
  EXPECT_EQ(RunTool({"scramble-script", scrambled, out}).status, 1);
  EXPECT_EQ(ReadFile(out), "old");
  // No temporary file is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 4);
}

TEST_F(ScriptTool, UsageAndFileErrorsExitWithTwo) {
  const std::string script = Write("cam.txt", Lines({"[A]"}));
  struct Case {
    std::vector<std::string> args;
  } cases[] = {
      {{}},
      {{"check-script"}},
      {{"check-script", script, "extra"}},
      {{"check-script", folder_ + "/missing.txt"}},
      {{"check-script", folder_}},
      {{"scramble-script", script}},
      {{"scramble-script", folder_ + "/missing.txt", folder_ + "/out.txt"}},
      {{"scramble-script", script, folder_ + "/no folder/out.txt"}},
      {{"unscramble-script", folder_ + "/missing.txt", folder_ + "/out.txt"}},
      {{"scramble"}},
  };
  for (const Case& c : cases) {
    std::string joined;
    for (const std::string& arg : c.args) joined += arg + " ";
    SCOPED_TRACE(joined);
    ToolResult result = RunTool(c.args);
    EXPECT_EQ(result.status, 2);
    EXPECT_FALSE(result.err.empty());
  }
  EXPECT_TRUE(IsScriptToolCommand("check-script"));
  EXPECT_FALSE(IsScriptToolCommand("capture"));
  EXPECT_FALSE(IsScriptToolCommand(nullptr));
}

void KeepLine(void* context, const char* line) {
  static_cast<std::vector<std::string>*>(context)->push_back(line);
}

TEST_F(ScriptTool, CheckLeavesTheHostCallsClockModeAndDebugPrintAsItFoundThem) {
  const std::string script =
      Write("cam.txt", Lines({"[A]", "DELAY 100000000", "WAIT 0 1 1 1 10000000", "WRIT"}));
  std::vector<std::string> printed;
  SetDebugPrintSink(KeepLine, &printed);
  const HostCalls* callsBefore = GetHostCalls();
  ASSERT_EQ(GetKernelClockMode(), KernelClockMode::Real);
  ToolResult result = RunTool({"check-script", script});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(GetKernelClockMode(), KernelClockMode::Real);
  EXPECT_EQ(GetHostCalls(), callsBefore);
  DbgPrint("after\n");
  SetDebugPrintSink(nullptr, nullptr);
  // The driver's own log lines went to the checker, not to the sink.
  EXPECT_EQ(printed, std::vector<std::string>{"after\n"});
}

TEST_F(ScriptTool, RunScriptToolTakesTheCommandLineAsMainGetsIt) {
  char name[] = "mr740cam";
  char command[] = "unscramble-script";
  std::string in = Write("s.txt", std::string("\x10\x2C\x2D", 3));
  std::string out = folder_ + "/p.txt";
  char* argv[] = {name, command, in.data(), out.data(), nullptr};
  EXPECT_EQ(RunScriptTool(4, argv), 0);
  EXPECT_EQ(ReadFile(out), " \r\n");
}

}  // namespace
