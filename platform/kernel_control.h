// Controls of the kernel layer for the host, the tool and the tests: the
// clock, pool accounting and fault injection, the debug print sink, and the
// bookkeeping of system threads. The driver never includes this header.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/kernel.h"

// ---------------------------------------------------------------- clock

enum class KernelClockMode {
  // Delays sleep and timed waits wait in real time; the system time is the
  // host's wall clock.
  Real,
  // Virtual time: a delay advances the clock by its interval at once and
  // returns without sleeping; a timed wait returns as soon as its event is
  // signalled or the virtual clock reaches its deadline. The clock moves only
  // through delays, AdvanceKernelClock and, when auto-advance is on, through a
  // timed wait that nothing satisfies (it then jumps to its own deadline after
  // letting other threads run). No test ever waits out a driver delay.
  Virtual,
};

void SetKernelClockMode(KernelClockMode mode);
KernelClockMode GetKernelClockMode();
// Virtual mode only: sets the system time (100 ns units since 1601).
void SetKernelClock(int64_t systemTime);
// Virtual mode only: moves the clock forward and wakes timed waiters whose
// deadline has passed.
void AdvanceKernelClock(int64_t ticks);
// Virtual mode only: whether an unsatisfied timed wait moves the clock to its
// deadline by itself. On by default.
void SetKernelClockAutoAdvance(bool on);
// Sum of all relative delays requested since the last reset, in 100 ns units,
// in either mode: lets a test check that a pause was asked for.
int64_t KernelDelayTotal();
void ResetKernelDelayTotal();

// ---------------------------------------------------------------- pool

struct PoolTagStats {
  uint32_t tag;
  uint64_t liveBlocks;
  uint64_t liveBytes;
  uint64_t totalAllocations;
};

// Live blocks and bytes of one tag, or of all tags for tag 0.
uint64_t PoolLiveBlocks(ULONG tag = 0);
uint64_t PoolLiveBytes(ULONG tag = 0);
std::vector<PoolTagStats> PoolStatistics();
// Makes the Nth allocation from now fail (1 = the next one); 0 turns it off.
// With `every` set, that one and every later allocation fail.
void PoolFailAllocation(uint64_t nth, bool every = false);
// Writes one debug print line per live block ("pool leak: tag 'Wdm ' 64 bytes")
// and returns the number of live blocks. The tool calls it at exit.
uint64_t PoolReportLeaks();

// ---------------------------------------------------------------- debug print

typedef void (*DebugPrintSink)(void* context, const char* line);
// Sends every DbgPrint line to `sink`; null restores the default (stderr).
void SetDebugPrintSink(DebugPrintSink sink, void* context);

// Collects debug print lines for a test while it lives, and restores the
// previous sink when it goes.
struct DebugPrintCapture {
  DebugPrintCapture();
  ~DebugPrintCapture();
  std::vector<std::string> Lines() const;
  void Clear();
  DebugPrintCapture(const DebugPrintCapture&) = delete;
  DebugPrintCapture& operator=(const DebugPrintCapture&) = delete;

  struct State;

 private:
  State* state_;
};

// ---------------------------------------------------------------- threads

// Number of system threads started and not yet returned from their routine.
uint32_t SystemThreadsRunning();
// Waits until every system thread has returned from its routine and reclaims
// them. The host calls it at shutdown; with `timeoutMs` elapsed (real time) it
// gives up and returns false.
bool JoinSystemThreads(uint32_t timeoutMs = 10000);
// The priority last set by KeSetPriorityThread on the calling thread (0 when
// none was set).
KPRIORITY CurrentThreadPriority();
