// Kernel services on the host's threads. Events, timed waits and the fast
// mutex share one lock and one condition variable: the driver has few of them
// and waits rarely, so simplicity wins over a wait queue per object.
//
// Every call that may let a waiting thread go on (an event signalled, a mutex
// released, a delay, a clock move, a thread started or ended) counts as
// activity. An unsatisfied timed wait in virtual time lets the clock jump only
// once that count has stood still for a while: until then some other thread
// is still at work and may yet signal it.

#include "platform/kernel.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/handles.h"
#include "platform/kernel_control.h"

struct KTHREAD {
  uint64_t Id;
  KPRIORITY Priority;  // accessed atomically
};

namespace {

// 100 ns units between 1601-01-01 and 1970-01-01.
constexpr int64_t kUnixEpochInSystemTime = 116444736000000000LL;
// Where virtual time starts: 2026-01-01 00:00:00 (1767225600 s after 1970).
constexpr int64_t kVirtualClockStart = kUnixEpochInSystemTime + 1767225600LL * 10000000LL;
// An unsatisfied timed wait in virtual time jumps the clock after this many
// slices of real time in a row in which nothing happened in the kernel layer,
// when every system thread waits for something that has not come; the host's
// own threads are not known here, and the quiet time is left for them. If a
// system thread is still at work (or blocked outside this layer, in the host)
// the clock jumps only after the longer quiet time.
constexpr int kAutoAdvanceQuietSlices = 4;
constexpr int kAutoAdvanceQuietSlicesBusy = 40;
constexpr std::chrono::microseconds kAutoAdvanceSlice{250};
// Longest piece of a real-time wait or delay, so that the conversion to
// nanoseconds cannot overflow; the wait simply goes round again.
constexpr int64_t kLongestRealSlice = 10000000LL * 3600;  // one hour
// Signals remembered for LastSetEventPriority.
constexpr size_t kEventSetRing = 256;

int64_t SaturatingAdd(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return b > 0 ? INT64_MAX : INT64_MIN;
  return sum;
}

// The length of a relative time (negative) as a positive count of ticks.
int64_t RelativeTicks(int64_t relative) { return relative == INT64_MIN ? INT64_MAX : -relative; }

struct EventSetRecord {
  const KEVENT* event;
  KPRIORITY priority;
};

struct SystemThread {
  std::thread thread;
  std::atomic<bool> returned{false};
  std::atomic<bool> terminated{false};
};

struct ThreadState {
  std::mutex lock;
  std::list<SystemThread> threads;
  std::atomic<uint32_t> running{0};
  uint64_t failAt = 0;  // creation number that fails, 0 none
  bool failEvery = false;
  uint64_t creationCount = 0;
};

ThreadState& Threads() {
  static ThreadState state;
  return state;
}

thread_local SystemThread* t_systemThread = nullptr;

// A thread blocked in the kernel layer, on an event or a fast mutex.
struct Waiter {
  const KEVENT* event;
  const FAST_MUTEX* mutex;
  bool timed;
  int64_t deadline;
  bool systemThread;
};

struct WaitState {
  std::mutex lock;
  std::condition_variable changed;
  std::list<Waiter> waiters;
  EventSetRecord eventSets[kEventSetRing] = {};
  uint64_t eventSetCount = 0;
};

WaitState& Waits() {
  static WaitState state;
  return state;
}

int32_t AtomicLoad(const int32_t* cell) { return __atomic_load_n(cell, __ATOMIC_ACQUIRE); }
void AtomicStore(int32_t* cell, int32_t value) { __atomic_store_n(cell, value, __ATOMIC_RELEASE); }

// Under the wait lock: whether every system thread is blocked in a wait that
// nothing has satisfied yet, so none of them can still signal anything.
bool SystemThreadsAllWaitingLocked(const WaitState& waits, int64_t clock) {
  uint32_t waiting = 0;
  for (const Waiter& waiter : waits.waiters) {
    if (!waiter.systemThread) continue;
    if (waiter.event && AtomicLoad(&waiter.event->State)) return false;
    if (waiter.mutex && __atomic_load_n(&waiter.mutex->Owner, __ATOMIC_ACQUIRE) == 0) return false;
    if (waiter.timed && clock >= waiter.deadline) return false;
    ++waiting;
  }
  return waiting >= Threads().running.load();
}

int64_t EarliestDeadlineLocked(const WaitState& waits) {
  int64_t earliest = INT64_MAX;
  for (const Waiter& waiter : waits.waiters) {
    if (waiter.timed) earliest = std::min(earliest, waiter.deadline);
  }
  return earliest;
}

std::atomic<int> g_clockMode{static_cast<int>(KernelClockMode::Real)};
std::atomic<int64_t> g_virtualClock{kVirtualClockStart};
std::atomic<bool> g_autoAdvance{true};
std::atomic<int64_t> g_delayTotal{0};
std::atomic<uint64_t> g_nextThreadId{1};
std::atomic<uint64_t> g_activity{0};

std::atomic<uint64_t> g_mutexAcquires{0};
std::atomic<uint64_t> g_mutexReleases{0};
std::atomic<uint64_t> g_threadsStarted{0};
std::atomic<uint64_t> g_threadsReturned{0};
std::atomic<uint64_t> g_threadsTerminated{0};

bool IsVirtual() {
  return g_clockMode.load(std::memory_order_relaxed) == static_cast<int>(KernelClockMode::Virtual);
}

int64_t RealSystemTime() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return kUnixEpochInSystemTime +
         std::chrono::duration_cast<std::chrono::nanoseconds>(since).count() / 100;
}

int64_t Now() { return IsVirtual() ? g_virtualClock.load() : RealSystemTime(); }

void NoteActivity() { g_activity.fetch_add(1, std::memory_order_relaxed); }

// Wakes everyone who waits on an event, a mutex, a thread or the clock.
void NotifyWaiters() {
  NoteActivity();
  WaitState& waits = Waits();
  std::lock_guard<std::mutex> guard(waits.lock);
  waits.changed.notify_all();
}

// Moves the virtual clock forward to `time`; never backwards, since another
// thread may have moved it further meanwhile.
void RaiseVirtualClock(int64_t time) {
  int64_t current = g_virtualClock.load();
  while (current < time && !g_virtualClock.compare_exchange_weak(current, time)) {
  }
}

void AddToVirtualClock(int64_t ticks) {
  int64_t current = g_virtualClock.load();
  while (!g_virtualClock.compare_exchange_weak(current, SaturatingAdd(current, ticks))) {
  }
}

// The absolute deadline of a timeout as the driver gives it.
int64_t DeadlineOf(const LARGE_INTEGER* timeout) {
  if (timeout->QuadPart >= 0) return timeout->QuadPart;
  return SaturatingAdd(Now(), RelativeTicks(timeout->QuadPart));
}

KTHREAD& CurrentThread() {
  static thread_local KTHREAD thread{0, 0};
  if (thread.Id == 0) thread.Id = g_nextThreadId.fetch_add(1);
  return thread;
}

KPRIORITY PriorityOf(const KTHREAD* thread) {
  return __atomic_load_n(&thread->Priority, __ATOMIC_RELAXED);
}

// A pool tag as its four characters, as they read in a debugger.
std::string TagText(uint32_t tag) {
  std::string text(4, '.');
  for (int i = 0; i < 4; ++i) {
    unsigned char c = static_cast<unsigned char>(tag >> (8 * i));
    if (c >= 0x20 && c < 0x7F) text[i] = static_cast<char>(c);
  }
  return text;
}

// ---------------------------------------------------------------- pool

struct PoolHeader {
  uint64_t magic;
  uint64_t bytes;
  uint32_t tag;
  uint32_t pad;
  uint64_t serial;  // order of allocation, for the leak report
};
static_assert(sizeof(PoolHeader) % 16 == 0, "pool blocks stay 16-byte aligned");
constexpr uint64_t kPoolMagic = 0x4C4F4F504F303437ULL;  // "740OPOOL"

struct PoolState {
  std::mutex lock;
  std::map<uint32_t, PoolTagStats> tags;
  // Every live block: a free of anything else is caught before its header is
  // read, and the leak report can name each block.
  std::unordered_map<const PoolHeader*, uint64_t> live;
  uint64_t failAt = 0;  // allocation number that fails, 0 none
  bool failEvery = false;
  uint64_t allocationCount = 0;
  uint64_t serial = 0;
};

PoolState& Pool() {
  static PoolState state;
  return state;
}

[[noreturn]] void PoolFault(const char* what, const void* block) {
  DbgPrint("pool: %s (%p)\n", what, block);
  std::abort();
}

void FreePoolBlock(void* block, bool checkTag, ULONG tag) {
  if (!block) {
    DbgPrint("pool: free of a null block\n");
    return;
  }
  PoolHeader* header = static_cast<PoolHeader*>(block) - 1;
  PoolState& pool = Pool();
  const char* fault = nullptr;
  {
    std::lock_guard<std::mutex> guard(pool.lock);
    auto it = pool.live.find(header);
    if (it == pool.live.end()) {
      fault = "free of a block that is not live";
    } else if (header->magic != kPoolMagic) {
      fault = "free of a block whose header was overwritten";
    } else if (checkTag && header->tag != tag) {
      fault = "free with a tag that is not the block's";
    } else {
      pool.live.erase(it);
      PoolTagStats& stats = pool.tags[header->tag];
      stats.liveBlocks -= 1;
      stats.liveBytes -= header->bytes;
      header->magic = 0;
    }
  }
  if (fault) PoolFault(fault, block);
  std::free(header);
}

// ---------------------------------------------------------------- debug print

struct PrintState {
  std::mutex lock;
  DebugPrintSink sink = nullptr;
  void* context = nullptr;
  std::vector<DebugPrintCapture::State*> captures;  // live captures, oldest first
};

PrintState& Print() {
  static PrintState state;
  return state;
}

// ---------------------------------------------------------------- threads

// Joins the threads that have left their routine and forgets them, so that a
// host which starts an idle thread again and again does not pile them up.
void ReapReturnedThreadsLocked(ThreadState& state) {
  for (auto it = state.threads.begin(); it != state.threads.end();) {
    if (it->returned.load()) {
      if (it->thread.joinable()) it->thread.join();
      it = state.threads.erase(it);
    } else {
      ++it;
    }
  }
}

void RunSystemThread(SystemThread* record, PKSTART_ROUTINE start, void* context) {
  t_systemThread = record;
  start(context);
  record->returned.store(true);
  g_threadsReturned.fetch_add(1);
  Threads().running.fetch_sub(1);
  NotifyWaiters();
}

}  // namespace

// ---------------------------------------------------------------- events

void KeInitializeEvent(KEVENT* event, EVENT_TYPE type, BOOLEAN state) {
  __atomic_store_n(&event->Type, static_cast<int32_t>(type), __ATOMIC_RELAXED);
  AtomicStore(&event->State, state ? 1 : 0);
}

LONG KeSetEvent(KEVENT* event, KPRIORITY, BOOLEAN) {
  const KPRIORITY priority = PriorityOf(&CurrentThread());
  NoteActivity();
  WaitState& waits = Waits();
  std::lock_guard<std::mutex> guard(waits.lock);
  LONG previous = AtomicLoad(&event->State);
  AtomicStore(&event->State, 1);
  waits.eventSets[waits.eventSetCount++ % kEventSetRing] = EventSetRecord{event, priority};
  waits.changed.notify_all();
  return previous;
}

// Nobody waits for an event to become clear, so no one needs waking.
void KeClearEvent(KEVENT* event) { AtomicStore(&event->State, 0); }

LONG KeReadStateEvent(KEVENT* event) { return AtomicLoad(&event->State); }

NTSTATUS KeWaitForSingleObject(void* object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                               LARGE_INTEGER* timeout) {
  KEVENT* event = static_cast<KEVENT*>(object);
  WaitState& waits = Waits();
  const bool timed = timeout != nullptr;
  const int64_t deadline = timed ? DeadlineOf(timeout) : 0;

  std::unique_lock<std::mutex> guard(waits.lock);
  const Waiter waiter{event, nullptr, timed, deadline, t_systemThread != nullptr};
  auto self = waits.waiters.insert(waits.waiters.end(), waiter);
  // A thread entering a wait was at work until now; and whoever counts the
  // timed waiters learns of it.
  NoteActivity();
  if (timed) waits.changed.notify_all();
  auto finish = [&](NTSTATUS status) {
    waits.waiters.erase(self);
    NoteActivity();
    return status;
  };
  uint64_t seenActivity = g_activity.load(std::memory_order_relaxed);
  int quietSlices = 0;

  for (;;) {
    // The state is only ever set under the lock, so a set cannot slip in
    // between this test and the wait below.
    if (AtomicLoad(&event->State)) {
      if (__atomic_load_n(&event->Type, __ATOMIC_RELAXED) == SynchronizationEvent) {
        AtomicStore(&event->State, 0);
      }
      return finish(STATUS_SUCCESS);
    }
    if (!timed) {
      waits.changed.wait(guard);
      continue;
    }
    if (!IsVirtual()) {
      int64_t left = deadline - RealSystemTime();
      if (left <= 0) return finish(STATUS_TIMEOUT);
      const int64_t slice = std::min(left, kLongestRealSlice);
      waits.changed.wait_for(guard, std::chrono::nanoseconds(slice * 100));
      continue;
    }
    if (g_virtualClock.load() >= deadline) return finish(STATUS_TIMEOUT);
    if (!g_autoAdvance.load()) {
      waits.changed.wait(guard);
      continue;
    }
    const uint64_t activity = g_activity.load(std::memory_order_relaxed);
    if (activity != seenActivity) {
      seenActivity = activity;
      quietSlices = 0;
    }
    const bool othersAtWork = !SystemThreadsAllWaitingLocked(waits, g_virtualClock.load());
    if (quietSlices < kAutoAdvanceQuietSlices ||
        (othersAtWork && quietSlices < kAutoAdvanceQuietSlicesBusy)) {
      ++quietSlices;
      waits.changed.wait_for(guard, kAutoAdvanceSlice);
      continue;
    }
    // Nothing happened while the others ran: the earliest deadline has come,
    // which is this wait's own or one before it.
    RaiseVirtualClock(EarliestDeadlineLocked(waits));
    NoteActivity();
    waits.changed.notify_all();
  }
}

// ---------------------------------------------------------------- fast mutex

// `Owner` is the lock word: 0 free, else the owner's thread id. So a
// zero-filled mutex is a free one, and `Count` only mirrors it for a debugger.

void ExInitializeFastMutex(FAST_MUTEX* mutex) {
  __atomic_store_n(&mutex->Owner, 0, __ATOMIC_RELEASE);
  AtomicStore(&mutex->Count, 1);
  __atomic_store_n(&mutex->Contention, 0, __ATOMIC_RELAXED);
}

void ExAcquireFastMutex(FAST_MUTEX* mutex) {
  const uint64_t self = CurrentThread().Id;
  if (__atomic_load_n(&mutex->Owner, __ATOMIC_ACQUIRE) == self) {
    DbgPrint("fast mutex %p acquired again by its owner: deadlock\n", static_cast<void*>(mutex));
    std::abort();
  }
  WaitState& waits = Waits();
  for (;;) {
    uint64_t expected = 0;
    if (__atomic_compare_exchange_n(&mutex->Owner, &expected, self, false, __ATOMIC_ACQUIRE,
                                    __ATOMIC_RELAXED)) {
      break;
    }
    __atomic_add_fetch(&mutex->Contention, 1, __ATOMIC_RELAXED);
    std::unique_lock<std::mutex> guard(waits.lock);
    auto waiter = waits.waiters.insert(waits.waiters.end(),
                                       Waiter{nullptr, mutex, false, 0, t_systemThread != nullptr});
    waits.changed.wait(guard,
                       [mutex] { return __atomic_load_n(&mutex->Owner, __ATOMIC_ACQUIRE) == 0; });
    waits.waiters.erase(waiter);
  }
  AtomicStore(&mutex->Count, 0);
  g_mutexAcquires.fetch_add(1, std::memory_order_relaxed);
}

void ExReleaseFastMutex(FAST_MUTEX* mutex) {
  if (__atomic_load_n(&mutex->Owner, __ATOMIC_ACQUIRE) != CurrentThread().Id) {
    DbgPrint("fast mutex %p released by a thread that does not own it\n",
             static_cast<void*>(mutex));
    std::abort();
  }
  g_mutexReleases.fetch_add(1, std::memory_order_relaxed);
  AtomicStore(&mutex->Count, 1);
  NoteActivity();
  WaitState& waits = Waits();
  // Freed under the lock: a contender tests `Owner` under it before it
  // sleeps, so it either sees the mutex free or gets this wake-up.
  std::lock_guard<std::mutex> guard(waits.lock);
  __atomic_store_n(&mutex->Owner, 0, __ATOMIC_RELEASE);
  waits.changed.notify_all();
}

// ---------------------------------------------------------------- threads

NTSTATUS PsCreateSystemThread(HANDLE* threadHandle, ULONG, void*, HANDLE, void*,
                              PKSTART_ROUTINE start, void* context) {
  ThreadState& state = Threads();
  SystemThread* record;
  {
    std::lock_guard<std::mutex> guard(state.lock);
    ++state.creationCount;
    if (state.failAt != 0 && (state.creationCount == state.failAt ||
                              (state.failEvery && state.creationCount > state.failAt))) {
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    ReapReturnedThreadsLocked(state);
    state.threads.emplace_back();
    record = &state.threads.back();
    state.running.fetch_add(1);
    g_threadsStarted.fetch_add(1);
    try {
      record->thread = std::thread(RunSystemThread, record, start, context);
    } catch (const std::system_error&) {
      state.running.fetch_sub(1);
      g_threadsStarted.fetch_sub(1);
      state.threads.pop_back();
      return STATUS_INSUFFICIENT_RESOURCES;
    }
  }
  NotifyWaiters();
  if (threadHandle) *threadHandle = CreatePlatformHandle(HandleKind::Thread, record, nullptr);
  return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS) {
  if (t_systemThread && !t_systemThread->terminated.exchange(true)) {
    g_threadsTerminated.fetch_add(1);
  }
  return STATUS_SUCCESS;
}

PKTHREAD KeGetCurrentThread() { return &CurrentThread(); }

KPRIORITY KeSetPriorityThread(PKTHREAD thread, KPRIORITY priority) {
  return __atomic_exchange_n(&thread->Priority, priority, __ATOMIC_RELAXED);
}

uint32_t SystemThreadsRunning() { return Threads().running.load(); }

bool JoinSystemThreads(uint32_t timeoutMs) {
  // A system thread would wait for itself.
  if (t_systemThread) return false;
  ThreadState& state = Threads();
  auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  {
    WaitState& waits = Waits();
    std::unique_lock<std::mutex> guard(waits.lock);
    if (!waits.changed.wait_until(guard, giveUp, [&state] { return state.running.load() == 0; })) {
      return false;
    }
  }
  std::lock_guard<std::mutex> guard(state.lock);
  ReapReturnedThreadsLocked(state);
  return true;
}

KPRIORITY CurrentThreadPriority() { return PriorityOf(&CurrentThread()); }

KPRIORITY LastSetEventPriority(const KEVENT* event) {
  WaitState& waits = Waits();
  std::lock_guard<std::mutex> guard(waits.lock);
  const uint64_t kept = std::min<uint64_t>(waits.eventSetCount, kEventSetRing);
  for (uint64_t i = 1; i <= kept; ++i) {
    const EventSetRecord& record = waits.eventSets[(waits.eventSetCount - i) % kEventSetRing];
    if (record.event == event) return record.priority;
  }
  return -1;
}

void FailSystemThreadCreation(uint64_t nth, bool every) {
  ThreadState& state = Threads();
  std::lock_guard<std::mutex> guard(state.lock);
  state.failAt = nth == 0 ? 0 : state.creationCount + nth;
  state.failEvery = every;
}

// ---------------------------------------------------------------- time

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, LARGE_INTEGER* interval) {
  const bool relative = interval->QuadPart < 0;
  int64_t ticks = relative ? RelativeTicks(interval->QuadPart) : interval->QuadPart - Now();
  if (ticks < 0) ticks = 0;
  g_delayTotal.fetch_add(ticks);
  if (IsVirtual()) {
    if (relative) {
      AddToVirtualClock(ticks);
    } else {
      RaiseVirtualClock(interval->QuadPart);
    }
    NotifyWaiters();
    std::this_thread::yield();
  } else {
    NoteActivity();
    auto end = std::chrono::steady_clock::now();
    while (ticks > 0) {
      int64_t slice = std::min(ticks, kLongestRealSlice);
      end += std::chrono::nanoseconds(slice * 100);
      std::this_thread::sleep_until(end);
      ticks -= slice;
    }
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

void AdvanceKernelClock(int64_t ticks) {
  AddToVirtualClock(std::max<int64_t>(ticks, 0));
  NotifyWaiters();
}

void SetKernelClockAutoAdvance(bool on) {
  g_autoAdvance.store(on);
  NotifyWaiters();
}

bool WaitForVirtualTimedWaiters(uint32_t count, uint32_t timeoutMs) {
  WaitState& waits = Waits();
  std::unique_lock<std::mutex> guard(waits.lock);
  return waits.changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), [&waits, count] {
    if (!IsVirtual()) return false;
    uint32_t timed = 0;
    for (const Waiter& waiter : waits.waiters) timed += waiter.timed;
    return timed >= count;
  });
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
  if (bytes > SIZE_MAX - sizeof(PoolHeader)) return nullptr;
  void* memory = std::malloc(sizeof(PoolHeader) + bytes);
  if (!memory) return nullptr;
  PoolHeader* header = static_cast<PoolHeader*>(memory);
  header->magic = kPoolMagic;
  header->bytes = bytes;
  header->tag = tag;
  header->pad = 0;
  std::lock_guard<std::mutex> guard(pool.lock);
  header->serial = ++pool.serial;
  pool.live.emplace(header, header->serial);
  PoolTagStats& stats = pool.tags[tag];
  stats.tag = tag;
  stats.liveBlocks += 1;
  stats.liveBytes += bytes;
  stats.totalAllocations += 1;
  return header + 1;
}

void ExFreePool(void* block) { FreePoolBlock(block, false, 0); }

void ExFreePoolWithTag(void* block, ULONG tag) { FreePoolBlock(block, true, tag); }

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
  struct Leak {
    uint64_t serial;
    uint32_t tag;
    uint64_t bytes;
  };
  std::vector<Leak> leaks;
  {
    PoolState& pool = Pool();
    std::lock_guard<std::mutex> guard(pool.lock);
    for (const auto& entry : pool.live) {
      leaks.push_back(Leak{entry.second, entry.first->tag, entry.first->bytes});
    }
  }
  std::sort(leaks.begin(), leaks.end(),
            [](const Leak& a, const Leak& b) { return a.serial < b.serial; });
  for (const Leak& leak : leaks) {
    DbgPrint("pool leak: tag '%s' %llu bytes\n", TagText(leak.tag).c_str(),
             static_cast<unsigned long long>(leak.bytes));
  }
  return leaks.size();
}

// ---------------------------------------------------------------- balance

KernelCounters GetKernelCounters() {
  KernelCounters counters;
  counters.mutexAcquires = g_mutexAcquires.load();
  counters.mutexReleases = g_mutexReleases.load();
  counters.threadsStarted = g_threadsStarted.load();
  counters.threadsReturned = g_threadsReturned.load();
  counters.threadsTerminated = g_threadsTerminated.load();
  return counters;
}

int64_t FastMutexBalance() {
  // Releases first: a release is counted after its acquire, so this order
  // never shows a balance below zero.
  const uint64_t releases = g_mutexReleases.load();
  return static_cast<int64_t>(g_mutexAcquires.load() - releases);
}

bool KernelCheckBalanced(std::string* report, ULONG poolTag) {
  char line[160];
  bool balanced = true;
  auto fault = [&](const char* text) {
    balanced = false;
    if (report) report->append(text);
  };
  const uint64_t blocks = PoolLiveBlocks(poolTag);
  if (blocks != 0) {
    std::snprintf(line, sizeof line, "pool: %llu blocks of %llu bytes live with tag '%s'\n",
                  static_cast<unsigned long long>(blocks),
                  static_cast<unsigned long long>(PoolLiveBytes(poolTag)),
                  poolTag == 0 ? "*" : TagText(poolTag).c_str());
    fault(line);
  }
  const uint64_t returned = g_threadsReturned.load();
  const uint64_t started = g_threadsStarted.load();
  if (started != returned) {
    std::snprintf(line, sizeof line, "threads: %llu system threads have not returned\n",
                  static_cast<unsigned long long>(started - returned));
    fault(line);
  }
  const int64_t held = FastMutexBalance();
  if (held != 0) {
    std::snprintf(line, sizeof line, "fast mutex: %lld acquired and not released\n",
                  static_cast<long long>(held));
    fault(line);
  }
  return balanced;
}

// ---------------------------------------------------------------- debug print

namespace {

// The kernel's debug print knows %ws, a zero-terminated 16-bit string, which
// the C library does not. A format that holds one is formatted conversion by
// conversion; the 16-bit characters outside ASCII show as '?'.
void FormatWithWideStrings(char* line, size_t size, const char* format, va_list args) {
  std::string out;
  const char* at = format;
  while (*at != 0) {
    if (*at != '%') {
      out += *at++;
      continue;
    }
    std::string conversionText = "%";
    ++at;
    while (*at != 0 && std::strchr("-+ #0", *at)) conversionText += *at++;
    for (int part = 0; part < 2; ++part) {  // width, then precision
      if (part == 1) {
        if (*at != '.') break;
        conversionText += *at++;
      }
      if (*at == '*') {
        conversionText += std::to_string(va_arg(args, int));
        ++at;
      }
      while (*at >= '0' && *at <= '9') conversionText += *at++;
    }
    std::string length;
    while (*at != 0 && std::strchr("hlLzjtw", *at)) length += *at++;
    const char conversion = *at;
    if (conversion == 0) break;
    ++at;
    char piece[512];
    piece[0] = 0;
    const std::string plain = conversionText + conversion;
    const std::string full = conversionText + length + conversion;
    switch (conversion) {
      case '%':
        out += '%';
        continue;
      case 's':
        if (length == "w") {
          const WCHAR* wide = va_arg(args, const WCHAR*);
          std::string narrow;
          for (; wide != nullptr && *wide != 0; ++wide) narrow += *wide < 0x80 ? char(*wide) : '?';
          std::snprintf(piece, sizeof piece, plain.c_str(), wide ? narrow.c_str() : "(null)");
        } else {
          std::snprintf(piece, sizeof piece, plain.c_str(), va_arg(args, const char*));
        }
        break;
      case 'd':
      case 'i':
      case 'u':
      case 'o':
      case 'x':
      case 'X':
      case 'c':
        if (length == "l") {
          std::snprintf(piece, sizeof piece, full.c_str(), va_arg(args, long));
        } else if (length == "ll" || length == "j") {
          std::snprintf(piece, sizeof piece, full.c_str(), va_arg(args, long long));
        } else if (length == "z" || length == "t") {
          std::snprintf(piece, sizeof piece, full.c_str(), va_arg(args, size_t));
        } else {
          std::snprintf(piece, sizeof piece, full.c_str(), va_arg(args, int));
        }
        break;
      case 'p':
        std::snprintf(piece, sizeof piece, plain.c_str(), va_arg(args, void*));
        break;
      default:  // floating point
        if (length == "L") {
          std::snprintf(piece, sizeof piece, full.c_str(), va_arg(args, long double));
        } else {
          std::snprintf(piece, sizeof piece, plain.c_str(), va_arg(args, double));
        }
        break;
    }
    out += piece;
  }
  std::snprintf(line, size, "%s", out.c_str());
}

}  // namespace

ULONG DbgPrint(const char* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  if (std::strstr(format, "%ws") != nullptr) {
    FormatWithWideStrings(line, sizeof line, format, args);
  } else {
    std::vsnprintf(line, sizeof line, format, args);
  }
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
  print.captures.push_back(state_);
}

DebugPrintCapture::~DebugPrintCapture() {
  {
    PrintState& print = Print();
    std::lock_guard<std::mutex> guard(print.lock);
    if (print.sink == CaptureLine && print.context == state_) {
      print.sink = state_->previousSink;
      print.context = state_->previousContext;
    } else {
      // A later capture still lives: it now goes back to what this one had.
      for (State* later : print.captures) {
        if (later->previousSink == CaptureLine && later->previousContext == state_) {
          later->previousSink = state_->previousSink;
          later->previousContext = state_->previousContext;
        }
      }
    }
    print.captures.erase(std::find(print.captures.begin(), print.captures.end(), state_));
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
