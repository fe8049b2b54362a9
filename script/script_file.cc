// The script file: where it is, how it is read line by line, sections, and
// the lexical rules of words and numbers. The commands themselves are in
// script_commands.cc.
//
// A run may come from any thread at passive level (the worker thread,
// start-up, a property call, the frame path for orientation, the image
// library). It blocks on file reads, on vendor requests and on script delays.
// It allocates one thing, the counted file name, and frees it before the first
// read; everything else, the DEFINE table included, lives on the caller's
// stack, so two runs never share state.

#include <cstdarg>
#include <cstring>

#include "platform/files.h"
#include "platform/kernel.h"
#include "platform/registry.h"
#include "script/script_engine.h"
#include "settings/registry_store.h"

namespace {

constexpr char CarriageReturn = '\r';

// A byte 0xFF ends a word as the end of the line does.
bool IsWordEnd(char c) { return c == '\0' || c == ' ' || c == '\t' || uint8_t(c) == 0xFF; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'A' && c <= 'F'); }

uint32_t WideLength(const WCHAR* text, uint32_t limit) {
  uint32_t length = 0;
  while (length < limit && text[length] != 0) ++length;
  return length;
}

// Reads the Script value of InitialSetting below the sensor root into `path`
// (ScriptValueBytes, plus a zero behind them so that a value that fills the
// buffer is still terminated).
NTSTATUS ReadScriptPath(DeviceContext* context, WCHAR path[ScriptValueBytes / 2 + 1]) {
  std::memset(path, 0, ScriptValueBytes + sizeof(WCHAR));
  HANDLE key = nullptr;
  NTSTATUS status = OpenSensorSubKey(context, u"InitialSetting", &key);
  if (!NT_SUCCESS(status)) return status;
  uint32_t length = ScriptValueBytes;
  status = QueryRegistryValue(key, u"Script", path, &length);
  ZwClose(key);
  if (!NT_SUCCESS(status)) return status;
  // A value that is there but empty names no file: the run cannot go on.
  return path[0] == 0 ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// Takes the section name from a header word: what lies between the "[" and
// the word's last character, whatever that is. A word holds at most 31
// characters, so a name holds at most 29; a longer header lost its "]" to the
// next word when the line was split.
void SetCurrentSection(ScriptRun* run, const char* headerWord) {
  size_t length = std::strlen(headerWord);
  size_t nameLength = length >= 2 ? length - 2 : 0;
  if (nameLength > ScriptSectionMaxChars) nameLength = ScriptSectionMaxChars;
  std::memcpy(run->CurrentSection, headerWord + 1, nameLength);
  run->CurrentSection[nameLength] = '\0';
}

// The fault the observer is told, and whether it asks to go on.
BOOLEAN ObserverGoesOn(ScriptRun* run, uint64_t offset, ScriptFault fault, const char* keyword) {
  if (run->Observer == nullptr || run->Observer->LineFailed == nullptr) return FALSE;
  return run->Observer->LineFailed(run->ObserverContext, offset, fault, keyword);
}

bool IsBlockKeyword(const char* keyword) {
  return std::strcmp(keyword, "BEG_BLK_WR") == 0 || std::strcmp(keyword, "BEG_BLK_W2B") == 0 ||
         std::strcmp(keyword, "BEG_CNT_WR") == 0;
}

}  // namespace

// ---------------------------------------------------------------- scrambled form

// Bytes 0 to 45 of a scrambled file stand for the digits, "[" to the back
// quote, the blank, the small letters, the comma, CR and LF. Every other byte
// stands for itself.
uint8_t DescrambleScriptByte(uint8_t byte) {
  if (byte <= 9) return uint8_t(byte + 0x30);
  if (byte <= 15) return uint8_t(byte + 0x51);
  if (byte == 16) return ' ';
  if (byte <= 42) return uint8_t(byte + 0x50);
  if (byte == 43) return ',';
  if (byte == 44) return '\r';
  if (byte == 45) return '\n';
  return byte;
}

// The table's byte when the character has one; else the character itself when
// it is no table byte (46 and above). The rest (tab, "!" to "+", "-" and the
// other controls) cannot be written in a scrambled file.
int32_t ScrambleScriptByte(uint8_t character) {
  if (character >= '0' && character <= '9') return character - 0x30;
  if (character >= 0x5B && character <= 0x60) return character - 0x51;
  if (character == ' ') return 16;
  if (character >= 'a' && character <= 'z') return character - 0x50;
  if (character == ',') return 43;
  if (character == '\r') return 44;
  if (character == '\n') return 45;
  if (character >= 46) return character;
  return -1;
}

// ---------------------------------------------------------------- words and numbers

// "%s" copies a word of at most 31 characters; "%ld" and "%lx" read decimal
// and upper-case hexadecimal digits into a uint32_t, wrapping without notice.
// Blanks and tabs are skipped before each conversion; the scan stops with the
// count so far when the line (which a byte 0xFF ends too) or the format is
// used up.
int32_t ScanTokens(const char* line, const char* format, ...) {
  va_list targets;
  va_start(targets, format);
  int32_t count = 0;
  const char* at = line;
  for (const char* f = format; *f != '\0'; ++f) {
    if (*f != '%') continue;  // other text of the format, blanks included
    ++f;
    char conversion = *f;
    if (conversion == 'l') {
      ++f;
      conversion = *f == 'd' ? 'd' : (*f == 'x' ? 'x' : '\0');
    } else if (conversion != 's') {
      conversion = '\0';
    }
    if (conversion == '\0') {
      va_end(targets);
      return -1;
    }
    while (IsBlank(*at)) ++at;
    if (IsWordEnd(*at)) break;  // the line is used up
    if (conversion == 's') {
      char* word = va_arg(targets, char*);
      uint32_t length = 0;
      while (length < ScriptWordBytes - 1 && !IsWordEnd(*at)) word[length++] = *at++;
      word[length] = '\0';
    } else {
      uint32_t* value = va_arg(targets, uint32_t*);
      *value = 0;
      const uint32_t base = conversion == 'd' ? 10 : 16;
      for (; !IsWordEnd(*at); ++at) {
        uint32_t digit;
        if (IsDigit(*at)) {
          digit = uint32_t(*at - '0');
        } else if (base == 16 && *at >= 'A' && *at <= 'F') {
          digit = uint32_t(*at - 'A' + 10);
        } else {
          va_end(targets);
          return -1;
        }
        *value = *value * base + digit;
      }
    }
    ++count;
  }
  va_end(targets);
  return count;
}

// 100 is decimal, 0FFH hexadecimal (cut at its first H, the rest dropped), a
// word that begins with no digit a DEFINE name, the first of its name in the
// table. `*value` is left as it was on failure.
int32_t ParseNumber(const ScriptDefineTable* defines, const char* word, uint32_t* value) {
  if (IsDigit(word[0])) {
    char digits[ScriptWordBytes];
    size_t length = 0;
    const char* hexMark = std::strchr(word, 'H');
    const bool hexadecimal = hexMark != nullptr;
    const size_t end = hexadecimal ? size_t(hexMark - word) : std::strlen(word);
    if (end >= sizeof digits) return 0;
    for (; length < end; ++length) {
      const char c = word[length];
      if (hexadecimal ? !IsHexDigit(c) : !IsDigit(c)) return 0;
      digits[length] = c;
    }
    digits[length] = '\0';
    uint32_t read = 0;
    if (ScanTokens(digits, hexadecimal ? "%lx" : "%ld", &read) != 1) return 0;
    *value = read;
    return 1;
  }
  if (defines == nullptr) return 0;
  for (int32_t i = 0; i < defines->DefineCount && i < int32_t(ScriptDefineEntries); ++i) {
    if (std::strcmp(defines->ScriptDefines[i].Name, word) == 0) {
      *value = defines->ScriptDefines[i].Value;
      return 1;
    }
  }
  return 0;
}

// ---------------------------------------------------------------- lines

NTSTATUS ReadScriptBytes(ScriptRun* run, char line[ScriptLineBytes + 1], uint32_t* bytesRead) {
  std::memset(line, 0, ScriptLineBytes + 1);
  IO_STATUS_BLOCK io = {};
  LARGE_INTEGER offset;
  offset.QuadPart = int64_t(run->ScriptOffset);
  NTSTATUS status = ZwReadFile(run->File, nullptr, nullptr, nullptr, &io, line, ScriptLineBytes,
                               &offset, nullptr);
  uint32_t count = io.Information > ScriptLineBytes ? ScriptLineBytes : uint32_t(io.Information);
  if (run->Context->ScriptScrambled == 1) {
    // Only the bytes that came: the cleared rest must stay zero, which no
    // scrambled byte stands for.
    for (uint32_t i = 0; i < count; ++i) line[i] = char(DescrambleScriptByte(uint8_t(line[i])));
  }
  *bytesRead = count;
  return status;
}

int32_t FindScriptLineEnd(const char* line) {
  for (uint32_t i = 0; i < ScriptLineBytes && line[i] != '\0'; ++i) {
    if (line[i] == CarriageReturn) return int32_t(i);
  }
  return -1;
}

void UpperCaseScriptText(char* text) {
  for (; *text != '\0'; ++text) {
    if (*text >= 'a' && *text <= 'z') *text = char(*text - 'a' + 'A');
  }
}

// Reads the line at ScriptOffset and executes it when it is a command of the
// wanted section (null: of any section). Moves ScriptOffset to the next line,
// or to 0 at the end of the file.
BOOLEAN ReadScriptLine(ScriptRun* run, const char* wantedSection) {
  char line[ScriptLineBytes + 1];
  uint32_t bytesRead = 0;
  NTSTATUS status = ReadScriptBytes(run, line, &bytesRead);
  if (!NT_SUCCESS(status) && bytesRead == 0) {
    run->ScriptOffset = 0;  // the normal end of the file
    return TRUE;
  }
  const int32_t end = FindScriptLineEnd(line);
  if (end < 0) {
    // A line longer than the buffer, or a last line without CR: the run ends
    // here without complaint, and the rest of the file is not read.
    ObserverGoesOn(run, run->ScriptOffset, ScriptFaultLineWithoutCr, "");
    run->ScriptOffset = 0;
    return TRUE;
  }
  run->LineLength = uint32_t(end);
  line[end] = '\0';
  for (int32_t i = 0; i < end; ++i) {
    if (line[i] == ',') line[i] = ' ';
  }

  if (line[0] != ';') {  // a comment only in the first column
    UpperCaseScriptText(line);
    char words[ScriptWordCount][ScriptWordBytes];
    const int32_t count = ScanTokens(line, "%s %s %s %s %s %s %s", words[0], words[1], words[2],
                                     words[3], words[4], words[5], words[6]);
    if (count > 0 && words[0][0] == '[') {
      SetCurrentSection(run, words[0]);
      if (run->Observer != nullptr && run->Observer->SectionHeader != nullptr) {
        run->Observer->SectionHeader(run->ObserverContext, run->CurrentSection, run->ScriptOffset);
      }
    } else if (count > 0 &&
               (wantedSection == nullptr || std::strcmp(wantedSection, run->CurrentSection) == 0)) {
      ScriptFault fault = ScriptFaultNone;
      if (!ExecuteScriptCommand(run, words, count, &fault)) {
        if (!ObserverGoesOn(run, run->ScriptOffset, fault, words[0])) return FALSE;
        if (IsBlockKeyword(words[0])) {
          SkipScriptBlock(run, words[0]);
          if (run->ScriptOffset == 0) return TRUE;
        }
      }
    }
  }
  run->ScriptOffset += uint64_t(run->LineLength) + 2;
  return TRUE;
}

// ---------------------------------------------------------------- runs

NTSTATUS RunScriptFile(DeviceContext* context, HANDLE file, const char* sectionName,
                       const ScriptObserver* observer, void* observerContext) {
  ScriptRun run;
  run.Context = context;
  run.File = file;
  run.CurrentSection[0] = '\0';
  run.ScriptOffset = 0;
  run.Defines.DefineCount = 0;
  run.Observer = observer;
  run.ObserverContext = observerContext;
  run.LineLength = 0;
  context->ScriptScrambled = 0;

  // The form is told by the first byte alone.
  uint8_t first = 0;
  IO_STATUS_BLOCK io = {};
  LARGE_INTEGER offset;
  offset.QuadPart = 0;
  NTSTATUS status = ZwReadFile(file, nullptr, nullptr, nullptr, &io, &first, 1, &offset, nullptr);
  if (NT_SUCCESS(status) && io.Information == 1 && first == ScriptScrambledMark) {
    context->ScriptScrambled = 1;
  }
  if (context->ScriptScrambled == 0) {
    DbgPrint("Execute [%s]\n", sectionName != nullptr ? sectionName : "(null)");
  }

  for (;;) {
    if (!ReadScriptLine(&run, sectionName)) return STATUS_INVALID_PARAMETER;
    if (run.ScriptOffset == 0) return STATUS_SUCCESS;
  }
}

NTSTATUS ExecuteScriptFile(DeviceContext* context, const WCHAR* path, const char* sectionName) {
  const uint32_t pathLength = WideLength(path, ScriptPathMaxChars + 1);
  if (pathLength > ScriptPathMaxChars) return STATUS_INVALID_PARAMETER;

  static const WCHAR Prefix[] = u"\\??\\";
  constexpr uint32_t PrefixChars = sizeof Prefix / sizeof Prefix[0] - 1;
  WCHAR nameText[PrefixChars + ScriptPathMaxChars + 1];  // 64 characters
  std::memcpy(nameText, Prefix, PrefixChars * sizeof(WCHAR));
  std::memcpy(nameText + PrefixChars, path, pathLength * sizeof(WCHAR));
  nameText[PrefixChars + pathLength] = 0;

  auto* name = static_cast<UNICODE_STRING*>(
      ExAllocatePoolWithTag(PagedPool, sizeof(UNICODE_STRING), PoolTagWdm));
  if (name == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  RtlInitUnicodeString(name, nameText);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  HANDLE file = nullptr;
  IO_STATUS_BLOCK io = {};
  // FILE_OPEN_IF: a missing script comes into being empty, and its run does
  // nothing.
  NTSTATUS status = ZwCreateFile(&file, FILE_READ_DATA | SYNCHRONIZE, &attributes, &io, nullptr,
                                 FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OPEN_IF,
                                 FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  ExFreePoolWithTag(name, PoolTagWdm);
  if (!NT_SUCCESS(status)) return status;

  status = RunScriptFile(context, file, sectionName, nullptr, nullptr);
  ZwClose(file);
  return status;
}

NTSTATUS ExecuteScriptSection(DeviceContext* context, const char* sectionName) {
  WCHAR path[ScriptValueBytes / 2 + 1];
  NTSTATUS status = ReadScriptPath(context, path);
  if (!NT_SUCCESS(status)) return status;
  return ExecuteScriptFile(context, path, sectionName);
}

NTSTATUS ExecuteScriptSectionForLibrary(void* context, const char* sectionName) {
  return ExecuteScriptSection(static_cast<DeviceContext*>(context), sectionName);
}

void GetScriptDirectory(DeviceContext* context, WCHAR* directory) {
  constexpr uint32_t DirectoryChars = ScriptValueBytes / 2;
  directory[0] = 0;
  WCHAR path[DirectoryChars + 1];
  if (!NT_SUCCESS(ReadScriptPath(context, path))) return;
  uint32_t length = WideLength(path, DirectoryChars);
  for (uint32_t i = length; i > 0; --i) {
    if (path[i - 1] == u'\\') {
      length = i - 1;
      break;
    }
  }
  if (length > DirectoryChars - 1) length = DirectoryChars - 1;
  std::memcpy(directory, path, length * sizeof(WCHAR));
  directory[length] = 0;
}
