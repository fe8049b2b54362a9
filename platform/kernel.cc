// Kernel services on the host's threads. Events, timed waits and the fast
// mutex share one lock and one condition variable: the driver has few of them
// and waits rarely, so simplicity wins over a wait queue per object.

#include "platform/kernel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/handles.h"
#include "platform/kernel_control.h"

struct KTHREAD {
  uint64_t Id;
  KPRIORITY Priority;
};

namespace {

// 100 ns units between 1601-01-01 and 1970-01-01.
constexpr int64_t kUnixEpochInSystemTime = 116444736000000000LL;
// Where virtual time starts: 2026-01-01 00:00:00 (1767225600 s after 1970).
constexpr int64_t kVirtualClockStart = kUnixEpochInSystemTime + 1767225600LL * 10000000LL;
// Times an unsatisfied timed wait lets other threads run before virtual time
// jumps to its deadline.
constexpr int kAutoAdvanceYields = 64;

struct WaitState {
  std::mutex lock;
  std::condition_variable changed;
};

WaitState& Waits() {
  static WaitState state;
  return state;
}

std::atomic<int> g_clockMode{static_cast<int>(KernelClockMode::Real)};
std::atomic<int64_t> g_virtualClock{kVirtualClockStart};
std::atomic<bool> g_autoAdvance{true};
std::atomic<int64_t> g_delayTotal{0};
std::atomic<uint64_t> g_nextThreadId{1};

bool IsVirtual() {
  return g_clockMode.load(std::memory_order_relaxed) == static_cast<int>(KernelClockMode::Virtual);
}

int64_t RealSystemTime() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return kUnixEpochInSystemTime +
         std::chrono::duration_cast<std::chrono::nanoseconds>(since).count() / 100;
}

int64_t Now() { return IsVirtual() ? g_virtualClock.load() : RealSystemTime(); }

// Wakes everyone who waits on an event, a mutex or the virtual clock.
void NotifyWaiters() {
  WaitState& waits = Waits();
  std::lock_guard<std::mutex> guard(waits.lock);
  waits.changed.notify_all();
}

void MoveVirtualClockTo(int64_t time) {
  int64_t current = g_virtualClock.load();
  while (current < time && !g_virtualClock.compare_exchange_weak(current, time)) {
  }
  NotifyWaiters();
}

// The absolute deadline of a timeout as the driver gives it.
int64_t DeadlineOf(const LARGE_INTEGER* timeout) {
  return timeout->QuadPart < 0 ? Now() - timeout->QuadPart : timeout->QuadPart;
}

KTHREAD& CurrentThread() {
  static thread_local KTHREAD thread{0, 0};
  if (thread.Id == 0) thread.Id = g_nextThreadId.fetch_add(1);
  return thread;
}

int32_t AtomicLoad(const int32_t* cell) { return __atomic_load_n(cell, __ATOMIC_ACQUIRE); }
void AtomicStore(int32_t* cell, int32_t value) { __atomic_store_n(cell, value, __ATOMIC_RELEASE); }

// ---------------------------------------------------------------- pool

struct PoolHeader {
  uint64_t magic;
  uint64_t bytes;
  uint32_t tag;
  uint32_t pad;
  uint64_t pad2;
};
static_assert(sizeof(PoolHeader) % 16 == 0, "pool blocks stay 16-byte aligned");
constexpr uint64_t kPoolMagic = 0x4C4F4F504F303437ULL;  // "740OPOOL"
constexpr uint64_t kPoolFreedMagic = 0x44454552464F4F50ULL;

struct PoolState {
  std::mutex lock;
  std::map<uint32_t, PoolTagStats> tags;
  uint64_t failAt = 0;  // allocation number that fails, 0 none
  bool failEvery = false;
  uint64_t allocationCount = 0;
};

PoolState& Pool() {
  static PoolState state;
  return state;
}

// ---------------------------------------------------------------- debug print

struct PrintState {
  std::mutex lock;
  DebugPrintSink sink = nullptr;
  void* context = nullptr;
};

PrintState& Print() {
  static PrintState state;
  return state;
}

// ---------------------------------------------------------------- threads

struct SystemThread {
  std::thread thread;
  std::atomic<bool> returned{false};
  std::atomic<bool> terminated{false};
};

struct ThreadState {
  std::mutex lock;
  std::list<SystemThread> threads;
  std::atomic<uint32_t> running{0};
};

ThreadState& Threads() {
  static ThreadState state;
  return state;
}

thread_local SystemThread* t_systemThread = nullptr;

}  // namespace

// ---------------------------------------------------------------- events

void KeInitializeEvent(KEVENT* event, EVENT_TYPE type, BOOLEAN state) {
  event->Type = type;
  AtomicStore(&event->State, state ? 1 : 0);
}

LONG KeSetEvent(KEVENT* event, KPRIORITY, BOOLEAN) {
  WaitState& waits = Waits();
  std::lock_guard<std::mutex> guard(waits.lock);
  LONG previous = AtomicLoad(&event->State);
  AtomicStore(&event->State, 1);
  waits.changed.notify_all();
  return previous;
}

void KeClearEvent(KEVENT* event) { AtomicStore(&event->State, 0); }

LONG KeReadStateEvent(KEVENT* event) { return AtomicLoad(&event->State); }

NTSTATUS KeWaitForSingleObject(void* object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                               LARGE_INTEGER* timeout) {
  KEVENT* event = static_cast<KEVENT*>(object);
  WaitState& waits = Waits();
  const bool hasDeadline = timeout != nullptr;
  const int64_t deadline = hasDeadline ? DeadlineOf(timeout) : 0;
  int yields = 0;

  std::unique_lock<std::mutex> guard(waits.lock);
  for (;;) {
    if (AtomicLoad(&event->State)) {
      if (event->Type == SynchronizationEvent) AtomicStore(&event->State, 0);
      return STATUS_SUCCESS;
    }
    if (!hasDeadline) {
      waits.changed.wait(guard);
      continue;
    }
    if (!IsVirtual()) {
      int64_t left = deadline - RealSystemTime();
      if (left <= 0) return STATUS_TIMEOUT;
      waits.changed.wait_for(guard, std::chrono::nanoseconds(left * 100));
      continue;
    }
    if (g_virtualClock.load() >= deadline) return STATUS_TIMEOUT;
    if (!g_autoAdvance.load()) {
      waits.changed.wait(guard);
      continue;
    }
    if (yields < kAutoAdvanceYields) {
      ++yields;
      guard.unlock();
      std::this_thread::yield();
      guard.lock();
      continue;
    }
    // Nothing signalled the event while others ran: its time has come.
    int64_t current = g_virtualClock.load();
    while (current < deadline && !g_virtualClock.compare_exchange_weak(current, deadline)) {
    }
    waits.changed.notify_all();
  }
}

// ---------------------------------------------------------------- fast mutex

void ExInitializeFastMutex(FAST_MUTEX* mutex) {
  AtomicStore(&mutex->Count, 1);
  mutex->Contention = 0;
  __atomic_store_n(&mutex->Owner, 0, __ATOMIC_RELEASE);
}

void ExAcquireFastMutex(FAST_MUTEX* mutex) {
  const uint64_t self = CurrentThread().Id;
  if (__atomic_load_n(&mutex->Owner, __ATOMIC_ACQUIRE) == self) {
    DbgPrint("fast mutex %p acquired again by its owner: deadlock\n", static_cast<void*>(mutex));
    std::abort();
  }
  WaitState& waits = Waits();
  for (;;) {
    int32_t expected = 1;
    if (__atomic_compare_exchange_n(&mutex->Count, &expected, 0, false, __ATOMIC_ACQUIRE,
                                    __ATOMIC_RELAXED)) {
      break;
    }
    __atomic_add_fetch(&mutex->Contention, 1, __ATOMIC_RELAXED);
    std::unique_lock<std::mutex> guard(waits.lock);
    waits.changed.wait(guard, [mutex] { return AtomicLoad(&mutex->Count) == 1; });
  }
  __atomic_store_n(&mutex->Owner, self, __ATOMIC_RELEASE);
}

void ExReleaseFastMutex(FAST_MUTEX* mutex) {
  if (__atomic_load_n(&mutex->Owner, __ATOMIC_ACQUIRE) != CurrentThread().Id) {
    DbgPrint("fast mutex %p released by a thread that does not own it\n",
             static_cast<void*>(mutex));
    std::abort();
  }
  __atomic_store_n(&mutex->Owner, 0, __ATOMIC_RELEASE);
  WaitState& waits = Waits();
  std::lock_guard<std::mutex> guard(waits.lock);
  AtomicStore(&mutex->Count, 1);
  waits.changed.notify_all();
}

// ---------------------------------------------------------------- threads

NTSTATUS PsCreateSystemThread(HANDLE* threadHandle, ULONG, void*, HANDLE, void*,
                              PKSTART_ROUTINE start, void* context) {
  ThreadState& state = Threads();
  SystemThread* record;
  {
    std::lock_guard<std::mutex> guard(state.lock);
    state.threads.emplace_back();
    record = &state.threads.back();
  }
  state.running.fetch_add(1);
  record->thread = std::thread([record, start, context] {
    t_systemThread = record;
    start(context);
    record->returned.store(true);
    Threads().running.fetch_sub(1);
    NotifyWaiters();
  });
  if (threadHandle) *threadHandle = CreatePlatformHandle(HandleKind::Thread, record, nullptr);
  return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS) {
  if (t_systemThread) t_systemThread->terminated.store(true);
  return STATUS_SUCCESS;
}

PKTHREAD KeGetCurrentThread() { return &CurrentThread(); }

KPRIORITY KeSetPriorityThread(PKTHREAD thread, KPRIORITY priority) {
  KPRIORITY old = thread->Priority;
  thread->Priority = priority;
  return old;
}

uint32_t SystemThreadsRunning() { return Threads().running.load(); }

bool JoinSystemThreads(uint32_t timeoutMs) {
  ThreadState& state = Threads();
  auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  {
    WaitState& waits = Waits();
    std::unique_lock<std::mutex> guard(waits.lock);
    while (state.running.load() != 0) {
      if (waits.changed.wait_until(guard, giveUp) == std::cv_status::timeout &&
          state.running.load() != 0) {
        return false;
      }
    }
  }
  std::lock_guard<std::mutex> guard(state.lock);
  for (SystemThread& record : state.threads) {
    if (record.thread.joinable()) record.thread.join();
  }
  state.threads.clear();
  return true;
}

KPRIORITY CurrentThreadPriority() { return CurrentThread().Priority; }

// ---------------------------------------------------------------- time

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, LARGE_INTEGER* interval) {
  int64_t ticks = interval->QuadPart < 0 ? -interval->QuadPart : interval->QuadPart - Now();
  if (ticks < 0) ticks = 0;
  g_delayTotal.fetch_add(ticks);
  if (IsVirtual()) {
    MoveVirtualClockTo(g_virtualClock.load() + ticks);
    std::this_thread::yield();
  } else if (ticks > 0) {
    std::this_thread::sleep_for(std::chrono::nanoseconds(ticks * 100));
  }
  return STATUS_SUCCESS;
}

void KeQuerySystemTime(LARGE_INTEGER* currentTime) { currentTime->QuadPart = Now(); }

void SetKernelClockMode(KernelClockMode mode) {
  g_clockMode.store(static_cast<int>(mode));
  NotifyWaiters();
}

KernelClockMode GetKernelClockMode() { return static_cast<KernelClockMode>(g_clockMode.load()); }

void SetKernelClock(int64_t systemTime) {
  g_virtualClock.store(systemTime);
  NotifyWaiters();
}

void AdvanceKernelClock(int64_t ticks) { MoveVirtualClockTo(g_virtualClock.load() + ticks); }

void SetKernelClockAutoAdvance(bool on) {
  g_autoAdvance.store(on);
  NotifyWaiters();
}

int64_t KernelDelayTotal() { return g_delayTotal.load(); }
void ResetKernelDelayTotal() { g_delayTotal.store(0); }

// ---------------------------------------------------------------- pool

void* ExAllocatePoolWithTag(POOL_TYPE, size_t bytes, ULONG tag) {
  PoolState& pool = Pool();
  {
    std::lock_guard<std::mutex> guard(pool.lock);
    ++pool.allocationCount;
    if (pool.failAt != 0 && (pool.allocationCount == pool.failAt ||
                             (pool.failEvery && pool.allocationCount > pool.failAt))) {
      return nullptr;
    }
  }
  void* memory = std::malloc(sizeof(PoolHeader) + bytes);
  if (!memory) return nullptr;
  PoolHeader* header = static_cast<PoolHeader*>(memory);
  header->magic = kPoolMagic;
  header->bytes = bytes;
  header->tag = tag;
  std::lock_guard<std::mutex> guard(pool.lock);
  PoolTagStats& stats = pool.tags[tag];
  stats.tag = tag;
  stats.liveBlocks += 1;
  stats.liveBytes += bytes;
  stats.totalAllocations += 1;
  return header + 1;
}

void ExFreePool(void* block) {
  if (!block) {
    DbgPrint("pool: free of a null block\n");
    return;
  }
  PoolHeader* header = static_cast<PoolHeader*>(block) - 1;
  if (header->magic != kPoolMagic) {
    DbgPrint("pool: free of a block that is not live (%p)\n", block);
    std::abort();
  }
  header->magic = kPoolFreedMagic;
  {
    PoolState& pool = Pool();
    std::lock_guard<std::mutex> guard(pool.lock);
    PoolTagStats& stats = pool.tags[header->tag];
    stats.liveBlocks -= 1;
    stats.liveBytes -= header->bytes;
  }
  std::free(header);
}

void ExFreePoolWithTag(void* block, ULONG) { ExFreePool(block); }

uint64_t PoolLiveBlocks(ULONG tag) {
  PoolState& pool = Pool();
  std::lock_guard<std::mutex> guard(pool.lock);
  uint64_t blocks = 0;
  for (const auto& entry : pool.tags) {
    if (tag == 0 || entry.first == tag) blocks += entry.second.liveBlocks;
  }
  return blocks;
}

uint64_t PoolLiveBytes(ULONG tag) {
  PoolState& pool = Pool();
  std::lock_guard<std::mutex> guard(pool.lock);
  uint64_t bytes = 0;
  for (const auto& entry : pool.tags) {
    if (tag == 0 || entry.first == tag) bytes += entry.second.liveBytes;
  }
  return bytes;
}

std::vector<PoolTagStats> PoolStatistics() {
  PoolState& pool = Pool();
  std::lock_guard<std::mutex> guard(pool.lock);
  std::vector<PoolTagStats> all;
  for (const auto& entry : pool.tags) all.push_back(entry.second);
  return all;
}

void PoolFailAllocation(uint64_t nth, bool every) {
  PoolState& pool = Pool();
  std::lock_guard<std::mutex> guard(pool.lock);
  pool.failAt = nth == 0 ? 0 : pool.allocationCount + nth;
  pool.failEvery = every;
}

uint64_t PoolReportLeaks() {
  uint64_t leaked = 0;
  for (const PoolTagStats& stats : PoolStatistics()) {
    if (stats.liveBlocks == 0) continue;
    char tag[5];
    std::memcpy(tag, &stats.tag, 4);
    tag[4] = 0;
    DbgPrint("pool leak: tag '%s' %llu blocks, %llu bytes\n", tag,
             static_cast<unsigned long long>(stats.liveBlocks),
             static_cast<unsigned long long>(stats.liveBytes));
    leaked += stats.liveBlocks;
  }
  return leaked;
}

// ---------------------------------------------------------------- debug print

ULONG DbgPrint(const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  PrintState& print = Print();
  std::lock_guard<std::mutex> guard(print.lock);
  if (print.sink) {
    print.sink(print.context, line);
  } else {
    std::fputs(line, stderr);
  }
  return 0;
}

void SetDebugPrintSink(DebugPrintSink sink, void* context) {
  PrintState& print = Print();
  std::lock_guard<std::mutex> guard(print.lock);
  print.sink = sink;
  print.context = context;
}

struct DebugPrintCapture::State {
  std::mutex lock;
  std::vector<std::string> lines;
  DebugPrintSink previousSink;
  void* previousContext;
};

namespace {
void CaptureLine(void* context, const char* line) {
  auto* state = static_cast<DebugPrintCapture::State*>(context);
  std::lock_guard<std::mutex> guard(state->lock);
  state->lines.emplace_back(line);
}
}  // namespace

DebugPrintCapture::DebugPrintCapture() : state_(new State) {
  PrintState& print = Print();
  std::lock_guard<std::mutex> guard(print.lock);
  state_->previousSink = print.sink;
  state_->previousContext = print.context;
  print.sink = CaptureLine;
  print.context = state_;
}

DebugPrintCapture::~DebugPrintCapture() {
  {
    PrintState& print = Print();
    std::lock_guard<std::mutex> guard(print.lock);
    print.sink = state_->previousSink;
    print.context = state_->previousContext;
  }
  delete state_;
}

std::vector<std::string> DebugPrintCapture::Lines() const {
  std::lock_guard<std::mutex> guard(state_->lock);
  return state_->lines;
}

void DebugPrintCapture::Clear() {
  std::lock_guard<std::mutex> guard(state_->lock);
  state_->lines.clear();
}
