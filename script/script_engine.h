// The camera's script: a CR LF text file, plain or byte-wise scrambled, cut
// into named sections of register commands. A run opens the file, walks it
// line by line from the first byte to the last with one read per line,
// executes the lines of the wanted section and closes it. Nothing is loaded
// whole, nothing is cached, and DEFINE names last for one run.
//
// Commands: DEFINE, WRITE, DELAY, WAIT, BITS_OP, BITS_OP_16, WRITEEX, WRITE2B,
// WRITE2A, and the blocks BEG_BLK_WR .. END_BLK_WR, BEG_BLK_W2B .. END_BLK_W2B
// and BEG_CNT_WR .. END_CNT_WR. A failing line ends the run with
// STATUS_INVALID_PARAMETER; what the lines before it sent stays sent.
#pragma once

#include <cstdint>

#include "core/device_context.h"

constexpr uint32_t ScriptLineBytes = 128;    // a line with its CR must fit
constexpr uint32_t ScriptWordBytes = 32;     // 31 characters and a zero
constexpr uint32_t ScriptWordCount = 7;      // words read of a line
constexpr uint32_t ScriptSectionBytes = 32;  // CurrentSection
constexpr uint32_t ScriptSectionMaxChars = 29;
constexpr uint32_t ScriptDefineEntries = 256;
constexpr uint32_t ScriptPathMaxChars = 59;  // path of the Script value, without "\??\"
constexpr uint32_t ScriptValueBytes = 120;   // buffer the Script value is read into
constexpr uint8_t ScriptScrambledMark = 0x10;

// Bodies: BEG_BLK_WR holds 32 pairs, BEG_BLK_W2B 16 lines of 16-bit values,
// BEG_CNT_WR 32 data bytes. A longer body fails its line.
constexpr uint32_t ScriptBlockBufferBytes = 64;
constexpr uint32_t ScriptDataBufferBytes = 32;

// WAIT gives up, failing its line, once it has polled ScriptWaitMaxPolls
// times or paused ScriptWaitMaxPause (5 s in 100 ns units) in all without the
// register reaching its value. A sensor that has not settled by then will not.
constexpr uint32_t ScriptWaitMaxPolls = 10000;
constexpr int64_t ScriptWaitMaxPause = 50000000;

struct ScriptDefine {
  char Name[ScriptWordBytes];
  uint32_t Value;
};

// The DEFINE table of one run.
struct ScriptDefineTable {
  ScriptDefine ScriptDefines[ScriptDefineEntries];
  int32_t DefineCount;
};

// Why a line failed, or why a run ended early. Told to an observer only; the
// driver's own callers see STATUS_INVALID_PARAMETER for every failed line.
enum ScriptFault : uint32_t {
  ScriptFaultNone = 0,
  ScriptFaultUnknownKeyword,    // first word is no command
  ScriptFaultTooFewWords,       // a command without all its operands
  ScriptFaultMalformedNumber,   // an operand that is no number
  ScriptFaultUndefinedName,     // a name not defined earlier in this run
  ScriptFaultBadSequence,       // BITS_OP_16 with SEQ other than 0 or 1
  ScriptFaultBodyWithoutEnd,    // the file ends inside a block body
  ScriptFaultBodyLineWithoutCr, // a body line with no CR in 128 bytes
  ScriptFaultBodyTooLong,       // more body lines than the block buffer holds
  ScriptFaultRequestFailed,     // a vendor request returned non-zero
  ScriptFaultDelayFailed,       // a delay returned non-zero
  ScriptFaultWaitGaveUp,        // WAIT's register never reached its value
  ScriptFaultLineWithoutCr,     // no CR in 128 bytes: the run ends there, as a success
};

// Watches a run, for the script checker. Every slot may be null. With an
// observer that asks to go on, a failed line is reported and skipped (a
// failed block up to its end keyword) instead of ending the run.
struct ScriptObserver {
  // A section header at `offset`.
  void (*SectionHeader)(void* observerContext, const char* section, uint64_t offset);
  // A line failed; `keyword` is the first word of the command. `offset` is
  // the line the fault showed on: the command's own line, or for a block the
  // body line at fault (the end of the file for a body without its end
  // keyword, the end keyword's line when the block's request failed).
  // TRUE goes on.
  BOOLEAN (*LineFailed)(void* observerContext, uint64_t offset, ScriptFault fault,
                        const char* keyword);
};

// One run over an open script file.
struct ScriptRun {
  DeviceContext* Context;
  HANDLE File;
  char CurrentSection[ScriptSectionBytes];
  uint64_t ScriptOffset;  // where the next line starts; 0 after a line: the end
  ScriptDefineTable Defines;
  const ScriptObserver* Observer;
  void* ObserverContext;
  uint32_t LineLength;  // characters before the CR of the line at ScriptOffset
};

// Runs section `sectionName` of the script the registry names (value
// `Script` of InitialSetting below the sensor root). A section missing from
// the script is no failure.
NTSTATUS ExecuteScriptSection(DeviceContext* context, const char* sectionName);
// The same with the image library's callback form; `context` is the DeviceContext.
NTSTATUS ExecuteScriptSectionForLibrary(void* context, const char* sectionName);

// Runs section `sectionName` (null: every command line of the file) of the
// script at `path`, a Windows path without "\??\" of at most 59 characters. A
// missing file comes into being empty and the run succeeds.
NTSTATUS ExecuteScriptFile(DeviceContext* context, const WCHAR* path, const char* sectionName);

// Runs a section over an already open file: sets up the run, tells plain
// from scrambled, logs "Execute [%s]" and reads to the end. The caller closes
// the file. `observer` may be null.
NTSTATUS RunScriptFile(DeviceContext* context, HANDLE file, const char* sectionName,
                       const ScriptObserver* observer, void* observerContext);

// Reads the line at run->ScriptOffset and executes it when it belongs to
// `wantedSection`. Non-zero to go on, 0 when the line failed.
BOOLEAN ReadScriptLine(ScriptRun* run, const char* wantedSection);

// Executes one command line split into `wordCount` words (upper case). Block
// commands read their bodies from the run's file. TRUE on success; on failure
// `*fault` says why.
BOOLEAN ExecuteScriptCommand(ScriptRun* run, char words[ScriptWordCount][ScriptWordBytes],
                             int32_t wordCount, ScriptFault* fault);

// Reads words from `line` by `format`, which may hold "%s" (char[32] target,
// at most 31 characters), "%ld" (decimal digits) and "%lx" (0-9, A-F) with
// uint32_t* targets; other text of the format is ignored. Returns the number
// of conversions done, or -1 on a bad digit or an unknown conversion.
int32_t ScanTokens(const char* line, const char* format, ...);

// Reads a number word: decimal (100), hexadecimal with an H (0FFH, text after
// the H dropped) or a DEFINE name of `defines` (may be null). 1 on success, 0
// when malformed or unknown.
int32_t ParseNumber(const ScriptDefineTable* defines, const char* word, uint32_t* value);

// The character a byte of a scrambled file stands for, and back: the byte that
// stands for `character` in a scrambled file, or -1 when none does.
uint8_t DescrambleScriptByte(uint8_t byte);
int32_t ScrambleScriptByte(uint8_t character);

// The folder of the script: the Script value cut at its last "\" (which is
// removed), or whole when it has none. `directory` holds ScriptValueBytes / 2
// characters; it is left empty when the value cannot be read.
void GetScriptDirectory(DeviceContext* context, WCHAR* directory);

// Pieces the line reader shares with the block bodies.

// Reads the ScriptLineBytes bytes at run->ScriptOffset into `line`, cleared
// first so that nothing of an earlier line stands behind a short read, with a
// zero at line[ScriptLineBytes]. The bytes that came are descrambled when the
// script is scrambled. Returns the read's status; `*bytesRead` the count.
NTSTATUS ReadScriptBytes(ScriptRun* run, char line[ScriptLineBytes + 1], uint32_t* bytesRead);
// Index of the first CR of `line`, or -1 when a zero byte or the end of the
// ScriptLineBytes comes first.
int32_t FindScriptLineEnd(const char* line);
// Changes a to z to upper case, up to the terminating zero.
void UpperCaseScriptText(char* text);
// With an observer that goes on after a failed block: leaves the run on the
// block's end keyword line, so that the reader continues behind it, or ends
// the run (ScriptOffset 0) when the file has none. `keyword` is the block's
// begin keyword.
void SkipScriptBlock(ScriptRun* run, const char* keyword);
