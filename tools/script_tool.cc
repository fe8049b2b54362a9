// The script checker and converter. The checker does not parse the script
// itself: it lets the driver's engine read the file, so that what it reports
// is what the driver would do with it, and only turns the engine's byte
// offsets back into line numbers and words for the reader.

#include "host/control_only_host.h"
#include "tools/script_tool.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/device_context.h"
#include "core/host_contract.h"
#include "platform/files_control.h"
#include "platform/handles.h"
#include "platform/kernel_control.h"
#include "script/script_engine.h"

namespace {

// Far more than any camera's script; a larger file is surely something else.
constexpr uintmax_t ScriptFileMaxBytes = 16 * 1024 * 1024;

// A wanted section the reader never enters: the file's text is upper case by
// the time it becomes a section name.
constexpr char NoSection[] = "no section has this lower-case name";

const char* const ScriptToolCommands[] = {"check-script", "scramble-script", "unscramble-script"};

// ---------------------------------------------------------------- files

// Reads a whole file. False, with a note on `err`, when it cannot be read or
// is too large to be a script.
bool ReadWholeFile(const char* path, std::string* bytes, FILE* err) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    std::fprintf(err, "mr740cam: %s: %s\n", path,
                 std::filesystem::exists(path, error) ? "not a file" : "no such file");
    return false;
  }
  const uintmax_t size = std::filesystem::file_size(path, error);
  if (error || size > ScriptFileMaxBytes) {
    std::fprintf(err, "mr740cam: %s: too large for a camera script\n", path);
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(err, "mr740cam: %s: cannot be read\n", path);
    return false;
  }
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad()) {
    std::fprintf(err, "mr740cam: %s: cannot be read\n", path);
    return false;
  }
  return true;
}

// Writes `bytes` to a temporary file beside `path` and renames it into place.
bool WriteFileAtomically(const char* path, const std::string& bytes, FILE* err) {
  static int serial = 0;
  const std::string temporary =
      std::string(path) + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(serial++);
  bool written = false;
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    if (out) {
      out.write(bytes.data(), std::streamsize(bytes.size()));
      out.flush();
      written = out.good();
    }
  }
  std::error_code error;
  if (written) std::filesystem::rename(temporary, path, error);
  if (!written || error) {
    std::filesystem::remove(temporary, error);
    std::fprintf(err, "mr740cam: %s: cannot be written\n", path);
    return false;
  }
  return true;
}

// The line a byte offset lies on, counted from 1 by the CR LF line ends
// before it.
uint32_t LineNumberAt(const std::string& text, uint64_t offset) {
  uint32_t line = 1;
  const size_t end = offset < text.size() ? size_t(offset) : text.size();
  for (size_t i = 0; i + 1 < end; ++i) {
    if (text[i] == '\r' && text[i + 1] == '\n') ++line;
  }
  return line;
}

uint32_t CountLines(const std::string& text) {
  uint32_t lines = 0;
  size_t start = 0;
  for (size_t i = 0; i + 1 < text.size(); ++i) {
    if (text[i] == '\r' && text[i + 1] == '\n') {
      ++lines;
      start = i + 2;
    }
  }
  return lines + (start < text.size() ? 1 : 0);
}

// The words of the line at `offset` as the engine splits them: cut at the
// first CR (or zero byte) within the line buffer, commas as blanks, upper
// case.
std::vector<std::string> WordsAt(const std::string& text, uint64_t offset) {
  std::vector<std::string> words;
  if (offset >= text.size()) return words;
  std::string word;
  for (size_t i = size_t(offset); i < text.size() && i < offset + ScriptLineBytes; ++i) {
    char c = text[i];
    if (c == '\r' || c == '\0') break;
    if (c == ',' || c == ' ' || c == '\t' || uint8_t(c) == 0xFF) {
      if (!word.empty()) words.push_back(word);
      word.clear();
      continue;
    }
    if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
    word.push_back(c);
  }
  if (!word.empty()) words.push_back(word);
  return words;
}

// ---------------------------------------------------------------- the fake camera

// The capture that takes the driver's log during a check. The fake camera
// empties it at every request, so that a WAIT polling thousands of times
// does not pile up its log lines.
DebugPrintCapture* checkLog = nullptr;

NTSTATUS AnswerVendorRequest(DeviceContext*, uint8_t, uint16_t, uint16_t, void* buffer,
                             uint32_t* bufferLength, BOOLEAN getData, PCOMMAND_COMPLETE_FUNCTION,
                             void*) {
  if (checkLog) checkLog->Clear();
  // Every register reads 0.
  if (getData && buffer && bufferLength) std::memset(buffer, 0, *bufferLength);
  return STATUS_SUCCESS;
}

HostCalls MakeFakeHostCalls() { return ControlOnlyHostCalls(&AnswerVendorRequest); }

// Installs the fake camera, virtual time and a debug print capture while it
// lives, and puts back what it found.
struct CheckEnvironment {
  CheckEnvironment() : previousCalls(GetHostCalls()), previousMode(GetKernelClockMode()) {
    static const HostCalls calls = MakeFakeHostCalls();
    SetHostCalls(&calls);
    SetKernelClockMode(KernelClockMode::Virtual);  // DELAY and WAIT cost no real time
    checkLog = &log;
  }
  ~CheckEnvironment() {
    checkLog = nullptr;
    SetKernelClockMode(previousMode);
    SetHostCalls(previousCalls);
  }
  CheckEnvironment(const CheckEnvironment&) = delete;
  CheckEnvironment& operator=(const CheckEnvironment&) = delete;

  const HostCalls* previousCalls;
  KernelClockMode previousMode;
  DebugPrintCapture log;  // the driver's log lines are of no use here
};

// ---------------------------------------------------------------- check-script

struct FoundFault {
  ScriptFault fault;
  std::string keyword;
};

struct CheckState {
  bool collectingSections = true;
  std::vector<std::pair<uint64_t, std::string>> headers;       // in file order
  std::map<std::pair<uint64_t, uint32_t>, FoundFault> faults;  // by offset, then code
};

void RecordSectionHeader(void* context, const char* section, uint64_t offset) {
  auto* state = static_cast<CheckState*>(context);
  if (state->collectingSections) state->headers.emplace_back(offset, section);
}

BOOLEAN RecordFailedLine(void* context, uint64_t offset, ScriptFault fault, const char* keyword) {
  auto* state = static_cast<CheckState*>(context);
  // A request the camera refused or a register that never reached its value
  // depend on the camera, not on the script.
  if (fault == ScriptFaultNone || fault == ScriptFaultRequestFailed ||
      fault == ScriptFaultWaitGaveUp) {
    return TRUE;
  }
  state->faults.emplace(std::make_pair(offset, uint32_t(fault)),
                        FoundFault{fault, keyword ? keyword : ""});
  return TRUE;
}

// The section the reader is in at `offset`: the last header before it.
std::string SectionAt(const CheckState& state, uint64_t offset) {
  std::string section;
  for (const auto& header : state.headers) {
    if (header.first >= offset) break;
    section = header.second;
  }
  return section;
}

const char* EndKeywordOf(const std::string& keyword) {
  if (keyword == "BEG_BLK_WR") return "END_BLK_WR";
  if (keyword == "BEG_BLK_W2B") return "END_BLK_W2B";
  if (keyword == "BEG_CNT_WR") return "END_CNT_WR";
  return "its end keyword";
}

const char* BodyLimitOf(const std::string& keyword) {
  if (keyword == "BEG_BLK_WR") return "32 register pairs";
  if (keyword == "BEG_BLK_W2B") return "16 lines";
  if (keyword == "BEG_CNT_WR") return "32 data bytes";
  return "its buffer";
}

// The words of a command line that the engine reads as numbers: for each
// keyword the first operand read with ParseNumber and how many are. Words
// beyond them are ignored by the driver.
struct OperandWords {
  const char* keyword;
  size_t first;
  size_t count;
};
const OperandWords CommandOperands[] = {
    {"DEFINE", 2, 1},     {"WRITE", 1, 3},       {"DELAY", 1, 1},   {"WAIT", 1, 5},
    {"BEG_BLK_WR", 1, 1}, {"BEG_BLK_W2B", 1, 1}, {"BITS_OP", 1, 4}, {"BITS_OP_16", 1, 6},
    {"BEG_CNT_WR", 1, 2}, {"WRITEEX", 1, 3},     {"WRITE2B", 1, 3}, {"WRITE2A", 1, 3},
};

// The words the engine read as numbers on the line at `offset`: a command's
// operands, or the words of a body line (one in a BEG_CNT_WR body, two in the
// others).
std::vector<std::string> OperandsAt(const std::string& text, uint64_t offset,
                                    const std::string& keyword) {
  std::vector<std::string> words = WordsAt(text, offset);
  size_t first = 0;
  size_t count = keyword == "BEG_CNT_WR" ? 1 : 2;
  if (!words.empty() && words[0] == keyword) {
    for (const OperandWords& command : CommandOperands) {
      if (keyword == command.keyword) {
        first = command.first;
        count = command.count;
      }
    }
  }
  std::vector<std::string> operands;
  for (size_t i = first; i < words.size() && i < first + count; ++i) operands.push_back(words[i]);
  return operands;
}

// Where a fault is shown: where the engine saw it, except a body without its
// end, which the engine sees at the end of the file and the reader looks for
// at the block's first line.
uint64_t ShownOffset(const std::string& text, uint64_t offset, const FoundFault& found) {
  if (found.fault != ScriptFaultBodyWithoutEnd) return offset;
  uint64_t best = offset;
  uint64_t lineStart = 0;
  for (size_t i = 0; i < text.size() && i < offset; ++i) {
    if (i == lineStart) {
      std::vector<std::string> words = WordsAt(text, i);
      if (!words.empty() && words[0] == found.keyword) best = i;
    }
    if (text[i] == '\r') lineStart = i + 2;
  }
  return best;
}

std::string DescribeFault(const std::string& text, uint64_t offset, const FoundFault& found) {
  const std::string& keyword = found.keyword;
  std::vector<std::string> words = WordsAt(text, offset);
  const bool bodyLine = words.empty() || words[0] != keyword;
  std::string where = bodyLine ? "in the " + keyword + " body: " : keyword + ": ";
  switch (found.fault) {
    case ScriptFaultUnknownKeyword:
      if (keyword.size() && keyword[0] == ';') {
        return "unknown keyword \"" + keyword + "\" (a comment needs its ';' in the first column)";
      }
      return "unknown keyword \"" + keyword + "\"";
    case ScriptFaultTooFewWords:
      return where + "too few operands";
    case ScriptFaultMalformedNumber:
      if (bodyLine && keyword == "BEG_CNT_WR" && !words.empty() &&
          text.find(',', size_t(offset)) < text.find('\r', size_t(offset))) {
        return where + "malformed number (a comma does not part values here: one value a line)";
      }
      for (const std::string& word : OperandsAt(text, offset, keyword)) {
        uint32_t value;
        if (word[0] >= '0' && word[0] <= '9' && !ParseNumber(nullptr, word.c_str(), &value)) {
          return where + "malformed number \"" + word +
                 "\" (decimal digits, or hexadecimal digits followed by H)";
        }
      }
      return where + "malformed number";
    case ScriptFaultUndefinedName: {
      std::vector<std::string> names;
      for (const std::string& word : OperandsAt(text, offset, keyword)) {
        if (!(word[0] >= '0' && word[0] <= '9')) names.push_back(word);
      }
      if (names.size() == 1) {
        return where + "name \"" + names[0] + "\" is not defined earlier in this section";
      }
      return where + "a name that is not defined earlier in this section";
    }
    case ScriptFaultBadSequence:
      return "BITS_OP_16: SEQ must be 0 or 1";
    case ScriptFaultBodyWithoutEnd:
      return keyword + ": the file ends before " + EndKeywordOf(keyword) +
             ", so the driver sends nothing for this block";
    case ScriptFaultBodyLineWithoutCr:
      return "in the " + keyword + " body: a line with no CR within 128 bytes";
    case ScriptFaultBodyTooLong:
      return "in the " + keyword + " body: more than " + BodyLimitOf(keyword);
    case ScriptFaultLineWithoutCr: {
      size_t end = text.size();
      for (size_t i = size_t(offset); i < text.size() && i < offset + ScriptLineBytes; ++i) {
        if (text[i] == '\0') {
          return "a zero byte comes before the line's CR: the driver stops reading the file "
                 "here and runs none of the rest";
        }
        if (text[i] == '\r') end = i;
      }
      if (end == text.size() && text.size() - offset < ScriptLineBytes) {
        return "the last line has no CR LF: the driver does not run it";
      }
      return "no CR within 128 bytes: the driver stops reading the file here and runs none of "
             "the rest";
    }
    case ScriptFaultDelayFailed:
      return "DELAY failed";
    default:
      return where + "fault " + std::to_string(uint32_t(found.fault));
  }
}

int CheckScript(const char* path, FILE* out, FILE* err) {
  std::string text;
  if (!ReadWholeFile(path, &text, err)) return 2;
  if (!text.empty() && uint8_t(text[0]) == ScriptScrambledMark) {
    for (char& c : text) c = char(DescrambleScriptByte(uint8_t(c)));
  }
  HANDLE file = nullptr;
  if (!OpenHostFileForReading(path, &file)) {
    std::fprintf(err, "mr740cam: %s: cannot be opened\n", path);
    return 2;
  }

  CheckState state;
  std::vector<std::string> runFailures;
  {
    CheckEnvironment environment;
    // The record is big; the host hands it over zero-filled.
    auto* context = static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)));
    const ScriptObserver observer = {RecordSectionHeader, RecordFailedLine};

    // First the section names, with a run that executes nothing; then the
    // lines before the first header, then every section once.
    NTSTATUS status = RunScriptFile(context, file, NoSection, &observer, &state);
    state.collectingSections = false;
    std::vector<std::string> sections = {""};
    for (const auto& header : state.headers) {
      bool known = false;
      for (const std::string& name : sections) known = known || name == header.second;
      if (!known) sections.push_back(header.second);
    }
    for (const std::string& section : sections) {
      if (!NT_SUCCESS(status)) break;
      status = RunScriptFile(context, file, section.c_str(), &observer, &state);
      if (!NT_SUCCESS(status)) {
        runFailures.push_back("the driver's run of [" + section + "] ended with " +
                              NtStatusName(status));
      }
    }
    std::free(context);
  }
  ZwClose(file);

  // One line per fault, in file order; a fault the engine met in several runs
  // once.
  std::set<std::pair<uint64_t, std::string>> printed;
  for (const auto& entry : state.faults) {
    const uint64_t offset = ShownOffset(text, entry.first.first, entry.second);
    std::string message = DescribeFault(text, offset, entry.second);
    printed.emplace(offset, "[" + SectionAt(state, offset) + "] " + message);
  }
  for (const auto& line : printed) {
    std::fprintf(out, "%s:%u: %s\n", path, LineNumberAt(text, line.first), line.second.c_str());
  }
  for (const std::string& failure : runFailures) {
    std::fprintf(out, "%s: %s\n", path, failure.c_str());
  }

  std::set<std::string> names;
  for (const auto& header : state.headers) names.insert(header.second);
  const size_t faults = printed.size() + runFailures.size();
  std::fprintf(out, "%u lines, %zu sections, %zu faults\n", CountLines(text), names.size(), faults);
  return faults == 0 ? 0 : 1;
}

// ---------------------------------------------------------------- scramble

std::string DescribeCharacter(uint8_t c) {
  char text[24];
  if (c > 0x20 && c < 0x7F) {
    std::snprintf(text, sizeof text, "'%c' (0x%02X)", c, c);
  } else {
    std::snprintf(text, sizeof text, "byte 0x%02X", c);
  }
  return text;
}

int ScrambleScript(const char* in, const char* outPath, FILE* err) {
  std::string text;
  if (!ReadWholeFile(in, &text, err)) return 2;
  if (!text.empty() && uint8_t(text[0]) == ScriptScrambledMark) {
    std::fprintf(err, "mr740cam: %s is scrambled already (its first byte is 0x10)\n", in);
    return 1;
  }
  for (char& c : text) {
    if (c == '\t') c = ' ';  // a tab has no scrambled form; a blank does the same
  }
  // The driver tells the scrambled form by a first byte 0x10, a blank.
  const bool prepend = text.empty() || text[0] != ' ';
  std::string scrambled;
  scrambled.reserve(text.size() + 3);
  if (prepend) {
    scrambled = {char(ScrambleScriptByte(' ')), char(ScrambleScriptByte('\r')),
                 char(ScrambleScriptByte('\n'))};
  }
  size_t bad = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const int32_t byte = ScrambleScriptByte(uint8_t(text[i]));
    if (byte < 0) {
      if (++bad <= 20) {
        std::fprintf(err, "%s:%u: %s has no scrambled form\n", in, LineNumberAt(text, i),
                     DescribeCharacter(uint8_t(text[i])).c_str());
      }
      continue;
    }
    scrambled.push_back(char(byte));
  }
  if (bad) {
    std::fprintf(err, "mr740cam: %zu characters of %s cannot be scrambled; %s was not written\n",
                 bad, in, outPath);
    return 1;
  }
  if (prepend) {
    std::fprintf(err,
                 "mr740cam: %s does not begin with a blank: a blank line was put in front, so "
                 "its lines are one further down in %s\n",
                 in, outPath);
  }
  return WriteFileAtomically(outPath, scrambled, err) ? 0 : 2;
}

int UnscrambleScript(const char* in, const char* outPath, FILE* err) {
  std::string text;
  if (!ReadWholeFile(in, &text, err)) return 2;
  if (text.empty() || uint8_t(text[0]) != ScriptScrambledMark) {
    std::fprintf(err,
                 "mr740cam: %s is not scrambled (its first byte is not 0x10): it is plain "
                 "already\n",
                 in);
    return 1;
  }
  for (char& c : text) c = char(DescrambleScriptByte(uint8_t(c)));
  return WriteFileAtomically(outPath, text, err) ? 0 : 2;
}

void PrintUsage(FILE* err) {
  std::fprintf(err,
               "usage: mr740cam script check FILE       (or check-script FILE)\n"
               "       mr740cam script scramble IN OUT   (or scramble-script IN OUT)\n"
               "       mr740cam script unscramble IN OUT (or unscramble-script IN OUT)\n");
}

}  // namespace

bool IsScriptToolCommand(const char* name) {
  if (!name) return false;
  if (std::strcmp(name, "script") == 0) return true;
  for (const char* command : ScriptToolCommands) {
    if (std::strcmp(name, command) == 0) return true;
  }
  return false;
}

int RunScriptToolWithOutput(int argc, char** argv, FILE* out, FILE* err) {
  if (argc < 2 || !IsScriptToolCommand(argv[1])) {
    PrintUsage(err);
    return 2;
  }
  std::string command = argv[1];
  if (command == "script") {
    // "script check FILE" is "check-script FILE", and so on.
    const std::string verb = argc >= 3 ? argv[2] : "";
    if (verb != "check" && verb != "scramble" && verb != "unscramble") {
      PrintUsage(err);
      return 2;
    }
    command = verb + "-script";
    ++argv;
    --argc;
  }
  if (command == "check-script") {
    if (argc != 3) {
      PrintUsage(err);
      return 2;
    }
    return CheckScript(argv[2], out, err);
  }
  if (argc != 4) {
    PrintUsage(err);
    return 2;
  }
  return command == "scramble-script" ? ScrambleScript(argv[2], argv[3], err)
                                      : UnscrambleScript(argv[2], argv[3], err);
}

int RunScriptTool(int argc, char** argv) {
  return RunScriptToolWithOutput(argc, argv, stdout, stderr);
}
