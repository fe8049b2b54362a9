// The script's twelve commands: each turns one line (three of them a block of
// lines) into vendor requests, delays or polls. Every operand is read before
// the first request of its line, so a malformed line sends nothing; a block
// sends its one request only after its end keyword.
//
// Runs on the thread of the script's caller and blocks on vendor requests
// (VendorMutex is taken per request, never across a line) and on delays. No
// allocation: the block and data buffers are on the stack.

#include <cstring>

#include "platform/kernel.h"
#include "script/script_engine.h"
#include "script/vendor_request.h"

namespace {

// Script log lines are silent while the script last opened is scrambled.
#define SCRIPT_LOG(run, ...)                                         \
  do {                                                               \
    if ((run)->Context->ScriptScrambled != 1) DbgPrint(__VA_ARGS__); \
  } while (0)

constexpr uint32_t BlockPairsMax = ScriptBlockBufferBytes / 2;    // BEG_BLK_WR
constexpr uint32_t Block2BLinesMax = ScriptBlockBufferBytes / 4;  // BEG_BLK_W2B
constexpr uint32_t ContinuousBytesMax = ScriptDataBufferBytes;    // BEG_CNT_WR

typedef char ScriptWords[ScriptWordCount][ScriptWordBytes];

BOOLEAN Fail(ScriptFault* fault, ScriptFault why) {
  *fault = why;
  return FALSE;
}

uint8_t Low(uint32_t value) { return uint8_t(value & 0xFF); }
uint8_t High(uint32_t value) { return uint8_t((value >> 8) & 0xFF); }

// Reads one operand word; the fault tells a malformed number from a name the
// run has not defined.
BOOLEAN ParseOperand(ScriptRun* run, const char* word, uint32_t* value, ScriptFault* fault) {
  if (ParseNumber(&run->Defines, word, value)) return TRUE;
  return Fail(fault, word[0] >= '0' && word[0] <= '9' ? ScriptFaultMalformedNumber
                                                      : ScriptFaultUndefinedName);
}

// Reads words[1] .. words[count] into values[0] .. values[count - 1].
BOOLEAN ParseOperands(ScriptRun* run, const ScriptWords words, uint32_t count, uint32_t* values,
                      ScriptFault* fault) {
  for (uint32_t i = 0; i < count; ++i) {
    if (!ParseOperand(run, words[i + 1], &values[i], fault)) return FALSE;
  }
  return TRUE;
}

BOOLEAN RequestDone(NTSTATUS status, ScriptFault* fault) {
  return status == STATUS_SUCCESS ? TRUE : Fail(fault, ScriptFaultRequestFailed);
}

// A DELAY or WAIT interval: the operand as a signed 32-bit count of 100 ns,
// negated into a relative 64-bit interval.
int64_t RelativeInterval(uint32_t operand) { return -int64_t(int32_t(operand)); }

BOOLEAN Delay(int64_t interval, ScriptFault* fault) {
  LARGE_INTEGER time;
  time.QuadPart = interval;
  NTSTATUS status = KeDelayExecutionThread(KernelMode, FALSE, &time);
  return status == STATUS_SUCCESS ? TRUE : Fail(fault, ScriptFaultDelayFailed);
}

// ---------------------------------------------------------------- block bodies

enum BodyLine { BodyLineFailed, BodyLineData, BodyLineEnd };

const char* EndKeywordOf(const char* beginKeyword) {
  if (std::strcmp(beginKeyword, "BEG_BLK_WR") == 0) return "END_BLK_WR";
  if (std::strcmp(beginKeyword, "BEG_BLK_W2B") == 0) return "END_BLK_W2B";
  if (std::strcmp(beginKeyword, "BEG_CNT_WR") == 0) return "END_CNT_WR";
  return nullptr;
}

// Cuts the line read at its CR, records its length in the run, turns commas
// into blanks unless `keepCommas` and changes it to upper case.
void PrepareBodyText(ScriptRun* run, char* line, int32_t end, bool keepCommas) {
  run->LineLength = uint32_t(end);
  line[end] = '\0';
  if (!keepCommas) {
    for (int32_t i = 0; i < end; ++i) {
      if (line[i] == ',') line[i] = ' ';
    }
  }
  UpperCaseScriptText(line);
}

// Moves on to the next body line with words and splits it into at most
// `wordsWanted` (1 or 2) words. There is no comment and no header inside a
// body: such a line is data, and fails on its number.
BodyLine ReadBodyLine(ScriptRun* run, const char* endKeyword, bool keepCommas, uint32_t wordsWanted,
                      char words[2][ScriptWordBytes], int32_t* wordCount, ScriptFault* fault) {
  for (;;) {
    run->ScriptOffset += uint64_t(run->LineLength) + 2;
    char line[ScriptLineBytes + 1];
    uint32_t bytesRead = 0;
    NTSTATUS status = ReadScriptBytes(run, line, &bytesRead);
    if (!NT_SUCCESS(status) || bytesRead == 0) {
      Fail(fault, ScriptFaultBodyWithoutEnd);
      return BodyLineFailed;
    }
    const int32_t end = FindScriptLineEnd(line);
    if (end < 0) {
      Fail(fault, ScriptFaultBodyLineWithoutCr);
      return BodyLineFailed;
    }
    PrepareBodyText(run, line, end, keepCommas);
    *wordCount = wordsWanted == 1 ? ScanTokens(line, "%s", words[0])
                                  : ScanTokens(line, "%s %s", words[0], words[1]);
    if (*wordCount <= 0) continue;  // a blank line changes nothing
    if (std::strcmp(words[0], endKeyword) == 0) return BodyLineEnd;
    if (uint32_t(*wordCount) < wordsWanted) {
      Fail(fault, ScriptFaultTooFewWords);
      return BodyLineFailed;
    }
    return BodyLineData;
  }
}

// ---------------------------------------------------------------- commands

BOOLEAN ExecuteDefine(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  ScriptDefineTable* table = &run->Defines;
  // A full table ignores further names; a later use of one then fails.
  if (table->DefineCount >= int32_t(ScriptDefineEntries)) return TRUE;
  ScriptDefine* entry = &table->ScriptDefines[table->DefineCount];
  const size_t nameLength = strnlen(words[1], ScriptWordBytes - 1);
  std::memcpy(entry->Name, words[1], nameLength);
  entry->Name[nameLength] = '\0';
  // Looked up before the entry counts: a value may name an earlier DEFINE,
  // never the one being made.
  if (!ParseOperand(run, words[2], &entry->Value, fault)) return FALSE;
  ++table->DefineCount;
  return TRUE;
}

BOOLEAN ExecuteWrite(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[3];  // I2CADDR REGADDR DATA
  if (!ParseOperands(run, words, 3, op, fault)) return FALSE;
  SCRIPT_LOG(run, "WRITE I2CADDR = %02x REGADDR = %02x DATA = %02x\n", op[0], op[1], op[2]);
  const uint8_t data = Low(op[2]);
  return RequestDone(WriteRegister(run->Context, Low(op[0]), Low(op[1]), &data), fault);
}

BOOLEAN ExecuteDelay(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t count;  // INTERVAL
  if (!ParseOperands(run, words, 1, &count, fault)) return FALSE;
  const int64_t interval = RelativeInterval(count);
  SCRIPT_LOG(run, "DELAY %ld\n", long(interval));
  return Delay(interval, fault);
}

// Polls until (register and MASK) equals DATA, pausing INTERVAL after every
// poll, the last one included. The camera's scripts give WAIT no limit; here
// it gives up, failing its line, after ScriptWaitMaxPolls polls or once its
// pauses add up to ScriptWaitMaxPause, whichever comes first, so a sensor that
// never answers cannot hold the caller's thread for ever.
BOOLEAN ExecuteWait(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[5];  // I2CADDR REGADDR DATA MASK INTERVAL
  if (!ParseOperands(run, words, 5, op, fault)) return FALSE;
  const int64_t interval = RelativeInterval(op[4]);
  const int64_t pause = interval < 0 ? -interval : 0;  // a positive interval is a time gone by
  uint32_t polls = 0;
  int64_t paused = 0;
  for (;;) {
    SCRIPT_LOG(run, "WAIT I2CADDR = %02x REGADDR = %02x DATA = %02x MASK = %02x INTERVAL = %ld\n",
               op[0], op[1], op[2], op[3], long(interval));
    uint8_t value = 0;
    if (!RequestDone(ReadRegister(run->Context, Low(op[0]), Low(op[1]), &value), fault)) {
      return FALSE;
    }
    if (!Delay(interval, fault)) return FALSE;
    ++polls;
    paused += pause;
    if ((uint32_t(value) & op[3]) == op[2]) return TRUE;
    if (polls >= ScriptWaitMaxPolls || paused >= ScriptWaitMaxPause) {
      return Fail(fault, ScriptFaultWaitGaveUp);
    }
  }
}

BOOLEAN ExecuteBitsOp(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[4];  // I2CADDR REGADDR DATA MASK
  if (!ParseOperands(run, words, 4, op, fault)) return FALSE;
  SCRIPT_LOG(run, "BITS_OP I2CADDR = %02x REGADDR = %02x DATA = %02x MASK = %02x\n", op[0], op[1],
             op[2], op[3]);
  uint8_t old = 0;
  if (!RequestDone(ReadRegister(run->Context, Low(op[0]), Low(op[1]), &old), fault)) return FALSE;
  // DATA is not masked: its bits are set whatever MASK says.
  const uint8_t merged = Low(op[2] | (uint32_t(old) & ~op[3]));
  return RequestDone(WriteRegister(run->Context, Low(op[0]), Low(op[1]), &merged), fault);
}

BOOLEAN ExecuteBitsOp16(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[6];  // I2CADDR REGADDR1 REGADDR2 DATA MASK SEQ
  if (!ParseOperands(run, words, 6, op, fault)) return FALSE;
  SCRIPT_LOG(run,
             "BITS_OP_16 I2CADDR = %02x REGADDR1 = %02x REGADDR2 = %02x DATA = %02x MASK = %02x "
             "SEQ = %02x\n",
             op[0], op[1], op[2], op[3], op[4], op[5]);
  DeviceContext* context = run->Context;
  const uint8_t bus = Low(op[0]);
  const uint32_t sequence = op[5];
  uint8_t first = 0;
  uint8_t second = 0;
  if (!RequestDone(ReadRegister(context, bus, Low(op[1]), &first), fault)) return FALSE;
  if (sequence > 1) return Fail(fault, ScriptFaultBadSequence);
  if (!RequestDone(ReadRegister(context, bus, Low(op[2]), &second), fault)) return FALSE;
  // SEQ 0: REGADDR1 holds the high byte; SEQ 1: the low byte.
  const uint32_t old =
      sequence == 0 ? (uint32_t(first) << 8 | second) : (uint32_t(second) << 8 | first);
  const uint32_t merged = op[3] | (old & ~op[4]);
  const uint8_t toFirst = sequence == 0 ? High(merged) : Low(merged);
  const uint8_t toSecond = sequence == 0 ? Low(merged) : High(merged);
  if (!RequestDone(WriteRegister(context, bus, Low(op[1]), &toFirst), fault)) return FALSE;
  return RequestDone(WriteRegister(context, bus, Low(op[2]), &toSecond), fault);
}

// BEG_BLK_WR I2CADDR, then lines REGADDR DATA, then END_BLK_WR: one list of
// register pairs.
BOOLEAN ExecuteBlockWrite(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t bus;
  if (!ParseOperands(run, words, 1, &bus, fault)) return FALSE;
  uint8_t block[ScriptBlockBufferBytes];
  uint32_t pairs = 0;
  for (;;) {
    char body[2][ScriptWordBytes];
    int32_t count = 0;
    BodyLine kind = ReadBodyLine(run, "END_BLK_WR", false, 2, body, &count, fault);
    if (kind == BodyLineFailed) return FALSE;
    if (kind == BodyLineEnd) break;
    if (pairs == BlockPairsMax) return Fail(fault, ScriptFaultBodyTooLong);
    uint32_t reg, data;
    if (!ParseOperand(run, body[0], &reg, fault) || !ParseOperand(run, body[1], &data, fault)) {
      return FALSE;
    }
    block[2 * pairs] = Low(reg);
    block[2 * pairs + 1] = Low(data);
    ++pairs;
  }
  SCRIPT_LOG(run, "BLOCK_WRITE I2CADDR = %02x\n", bus);
  for (uint32_t i = 0; i < pairs; ++i) {
    SCRIPT_LOG(run, "\tRegAddr = %02x Data = %02x\n", block[2 * i], block[2 * i + 1]);
  }
  return RequestDone(WriteRegisterPairs(run->Context, Low(bus), block, pairs), fault);
}

// BEG_BLK_W2B I2CADDR, then lines REGADDR DATA16, then END_BLK_W2B: each line
// two pairs, the register with the high byte and RegisterAddrLo with the low.
BOOLEAN ExecuteBlockWrite2B(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t bus;
  if (!ParseOperands(run, words, 1, &bus, fault)) return FALSE;
  const uint8_t lowRegister = Low(run->Context->RegisterAddrLo);
  uint8_t block[ScriptBlockBufferBytes];
  uint32_t lines = 0;
  for (;;) {
    char body[2][ScriptWordBytes];
    int32_t count = 0;
    BodyLine kind = ReadBodyLine(run, "END_BLK_W2B", false, 2, body, &count, fault);
    if (kind == BodyLineFailed) return FALSE;
    if (kind == BodyLineEnd) break;
    if (lines == Block2BLinesMax) return Fail(fault, ScriptFaultBodyTooLong);
    uint32_t reg, data;
    if (!ParseOperand(run, body[0], &reg, fault) || !ParseOperand(run, body[1], &data, fault)) {
      return FALSE;
    }
    uint8_t* entry = block + 4 * lines;
    entry[0] = Low(reg);
    entry[1] = High(data);
    entry[2] = lowRegister;
    entry[3] = Low(data);
    ++lines;
  }
  SCRIPT_LOG(run, "BLOCK_WRITE2B I2CADDR = %02x\n", bus);
  for (uint32_t i = 0; i < lines; ++i) {
    const uint8_t* entry = block + 4 * i;
    SCRIPT_LOG(run, " BLKW2B : 0x%02X, 0x%04X\n", entry[0], uint32_t(entry[1]) << 8 | entry[3]);
  }
  return RequestDone(WriteRegisterPairs(run->Context, Low(bus), block, 2 * lines), fault);
}

// BEG_CNT_WR I2CADDR REGADDR, then one data word a line, then END_CNT_WR: one
// burst to consecutive registers. A comma is no separator here.
BOOLEAN ExecuteContinuousWrite(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[2];  // I2CADDR REGADDR
  if (!ParseOperands(run, words, 2, op, fault)) return FALSE;
  uint8_t data[ScriptDataBufferBytes];
  uint32_t bytes = 0;
  for (;;) {
    char body[2][ScriptWordBytes];
    int32_t count = 0;
    BodyLine kind = ReadBodyLine(run, "END_CNT_WR", true, 1, body, &count, fault);
    if (kind == BodyLineFailed) return FALSE;
    if (kind == BodyLineEnd) break;
    if (bytes == ContinuousBytesMax) return Fail(fault, ScriptFaultBodyTooLong);
    uint32_t value;
    if (!ParseOperand(run, body[0], &value, fault)) return FALSE;
    data[bytes++] = Low(value);
  }
  SCRIPT_LOG(run, "CONTINUOUS_WRITE I2CADDR = %02x REGADDR = %02x\n", op[0], op[1]);
  for (uint32_t i = 0; i < bytes; ++i) SCRIPT_LOG(run, "\tData = %02x\n", data[i]);
  return RequestDone(WriteRegisterBurst(run->Context, Low(op[0]), Low(op[1]), data, bytes), fault);
}

// A 16-bit value to a 16-bit register: one quad on a revision 2 chip, else a
// burst of three bytes behind the register's high byte. The log line follows
// the request, failed or not.
BOOLEAN ExecuteWriteEx(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[3];  // I2CADDR ADDR16 DATA16
  if (!ParseOperands(run, words, 3, op, fault)) return FALSE;
  DeviceContext* context = run->Context;
  NTSTATUS status;
  if (context->IsRevision2Chip == 1) {
    uint8_t block[4] = {High(op[1]), Low(op[1]), High(op[2]), Low(op[2])};
    status = WriteQuads(context, Low(op[0]), block, 1);
    SCRIPT_LOG(run, "WRITEEX 0x%02x,[0x%04x,0x%04x]\n", op[0], op[1] & 0xFFFF, op[2] & 0xFFFF);
  } else {
    uint8_t data[3] = {Low(op[1]), High(op[2]), Low(op[2])};
    status = WriteRegisterBurst(context, Low(op[0]), High(op[1]), data, 3);
    SCRIPT_LOG(run, "WRITEEX 0x%02x,0x%02x [0x%02x,0x%02x,0x%02x]\n", op[0], High(op[1]), data[0],
               data[1], data[2]);
  }
  return RequestDone(status, fault);
}

// A 16-bit value through RegisterAddrLo: two pairs, the register with the high
// byte and RegisterAddrLo with the low byte.
BOOLEAN ExecuteWrite2B(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[3];  // I2CADDR REGADDR DATA16
  if (!ParseOperands(run, words, 3, op, fault)) return FALSE;
  uint8_t block[4] = {Low(op[1]), High(op[2]), Low(run->Context->RegisterAddrLo), Low(op[2])};
  NTSTATUS status = WriteRegisterPairs(run->Context, Low(op[0]), block, 2);
  SCRIPT_LOG(run, "WRITE2B 0x%02x, [0x%02x,0x%02x] [0x%02x,0x%02x]\n", op[0], block[0], block[1],
             block[2], block[3]);
  return RequestDone(status, fault);
}

// An 8-bit value to a 16-bit register: a burst of two bytes behind the
// register's high byte.
BOOLEAN ExecuteWrite2A(ScriptRun* run, const ScriptWords words, ScriptFault* fault) {
  uint32_t op[3];  // I2CADDR ADDR16 DATA
  if (!ParseOperands(run, words, 3, op, fault)) return FALSE;
  uint8_t data[2] = {Low(op[1]), Low(op[2])};
  NTSTATUS status = WriteRegisterBurst(run->Context, Low(op[0]), High(op[1]), data, 2);
  SCRIPT_LOG(run, "WRITE2A 0x%02x,(0x%02x,0x%02x),0x%02x\n", op[0], High(op[1]), data[0], data[1]);
  return RequestDone(status, fault);
}

struct ScriptCommand {
  const char* Keyword;
  int32_t Words;  // the keyword and its operands
  BOOLEAN (*Execute)(ScriptRun* run, const ScriptWords words, ScriptFault* fault);
};

const ScriptCommand ScriptCommands[] = {
    {"DEFINE", 3, ExecuteDefine},
    {"WRITE", 4, ExecuteWrite},
    {"DELAY", 2, ExecuteDelay},
    {"WAIT", 6, ExecuteWait},
    {"BEG_BLK_WR", 2, ExecuteBlockWrite},
    {"BEG_BLK_W2B", 2, ExecuteBlockWrite2B},
    {"BITS_OP", 5, ExecuteBitsOp},
    {"BITS_OP_16", 7, ExecuteBitsOp16},
    {"BEG_CNT_WR", 3, ExecuteContinuousWrite},
    {"WRITEEX", 4, ExecuteWriteEx},
    {"WRITE2B", 4, ExecuteWrite2B},
    {"WRITE2A", 4, ExecuteWrite2A},
};

}  // namespace

BOOLEAN ExecuteScriptCommand(ScriptRun* run, char words[ScriptWordCount][ScriptWordBytes],
                             int32_t wordCount, ScriptFault* fault) {
  *fault = ScriptFaultNone;
  for (const ScriptCommand& command : ScriptCommands) {
    if (std::strcmp(words[0], command.Keyword) != 0) continue;
    if (wordCount < command.Words) return Fail(fault, ScriptFaultTooFewWords);
    return command.Execute(run, words, fault);
  }
  return Fail(fault, ScriptFaultUnknownKeyword);
}

void SkipScriptBlock(ScriptRun* run, const char* keyword) {
  const char* endKeyword = EndKeywordOf(keyword);
  if (endKeyword == nullptr) return;
  const bool keepCommas = std::strcmp(keyword, "BEG_CNT_WR") == 0;
  for (;;) {
    char line[ScriptLineBytes + 1];
    uint32_t bytesRead = 0;
    NTSTATUS status = ReadScriptBytes(run, line, &bytesRead);
    const int32_t end = bytesRead == 0 ? -1 : FindScriptLineEnd(line);
    if (!NT_SUCCESS(status) || end < 0) {
      run->ScriptOffset = 0;  // no end keyword before the end of the file
      return;
    }
    PrepareBodyText(run, line, end, keepCommas);
    char word[ScriptWordBytes];
    if (ScanTokens(line, "%s", word) == 1 && std::strcmp(word, endKeyword) == 0) return;
    run->ScriptOffset += uint64_t(run->LineLength) + 2;
  }
}
