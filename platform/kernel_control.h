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
// deadline by itself. On by default. The waiter first lets the other threads
// run: the clock jumps only after the kernel layer has seen no activity (no
// event signalled, mutex released, delay, clock move or thread start or end)
// for about a millisecond of real time, and then only to the earliest deadline
// of all timed waiters, so timeouts still come in the order of their deadlines.
void SetKernelClockAutoAdvance(bool on);
// Virtual mode: blocks until at least `count` threads are in a timed wait in
// virtual time, so that a test which moves the clock by hand knows their
// deadlines are fixed, or until `timeoutMs` of real time went by. Returns
// whether they are.
bool WaitForVirtualTimedWaiters(uint32_t count, uint32_t timeoutMs = 10000);
// Sum of all delays requested since the last reset, in 100 ns units, in either
// mode (an absolute one counts as the time that was left to it): lets a test
// check that a pause was asked for.
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
// Writes one debug print line per live block, oldest first
// ("pool leak: tag 'Wdm ' 64 bytes\n"; a tag byte that is not printable shows
// as '.') and returns the number of live blocks. The tool calls it at exit.
uint64_t PoolReportLeaks();
// Freeing a block that is not live (never allocated, or freed already), a block
// whose header was overwritten, or ExFreePoolWithTag with another tag than the
// block's is a driver fault: it is reported through the debug print and aborts.

// ---------------------------------------------------------------- debug print

typedef void (*DebugPrintSink)(void* context, const char* line);
// Sends every DbgPrint line to `sink`; null restores the default (stderr).
void SetDebugPrintSink(DebugPrintSink sink, void* context);

// Collects debug print lines for a test while it lives, and restores the
// previous sink when it goes. Each line is kept as printed, with its "\n".
// Captures nest; one that goes while a later one still lives hands its own
// previous sink on to that later one.
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
// none was set). Every thread starts at 0.
KPRIORITY CurrentThreadPriority();
// The priority the signalling thread had when it last called KeSetEvent on
// `event`, looked up among the last 256 signals of any event; -1 when none of
// them was of this event. Lets a test check that a thread raised itself before
// waking another one, or before signalling its done event.
KPRIORITY LastSetEventPriority(const KEVENT* event);
// Makes the Nth PsCreateSystemThread from now fail with
// STATUS_INSUFFICIENT_RESOURCES (1 = the next one); 0 turns it off. With
// `every` set, that one and every later creation fail.
void FailSystemThreadCreation(uint64_t nth, bool every = false);

// ---------------------------------------------------------------- balance

// Calls that must pair up, counted since the process started, in the manner of
// a capture framework that counts its callbacks: every fast mutex acquired is
// released, every system thread started returns from its routine.
struct KernelCounters {
  uint64_t mutexAcquires;
  uint64_t mutexReleases;
  uint64_t threadsStarted;
  uint64_t threadsReturned;
  // Threads that called PsTerminateSystemThread (once each).
  uint64_t threadsTerminated;
};
KernelCounters GetKernelCounters();
// Fast mutexes acquired and not yet released, over all mutexes: 0 whenever no
// thread holds one.
int64_t FastMutexBalance();
// The host and the tests call it at shutdown, after JoinSystemThreads: checks
// that no pool block of `poolTag` is live (0: of any tag; one tag, because
// other tests may hold blocks of their own), no system thread is still in its
// routine and no fast mutex is held. Appends one line per fault to `report`
// when it is not null, and returns true when all is balanced. Takes no lock for
// long; cheap enough for every test's tear-down.
bool KernelCheckBalanced(std::string* report, ULONG poolTag = PoolTagWdm);
