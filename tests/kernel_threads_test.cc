// The kernel layer across threads: a worker loop that must not lose a wake-up, fast mutex
// exclusion, timed waits in virtual time, per-thread priorities and the
// shutdown balance.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "platform/kernel.h"
#include "platform/kernel_control.h"
#include "tests/kernel_test_clock.h"

namespace {

constexpr KPRIORITY kSignalPriority = 12;
constexpr KPRIORITY kEndingPriority = 13;

void StartThread(PKSTART_ROUTINE routine, void* context) {
  HANDLE handle = nullptr;
  ASSERT_EQ(
      PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context),
      STATUS_SUCCESS);
  ZwClose(handle);
}

// Virtual time; each test chooses auto-advance. No thread outlives its test.
class KernelThreads : public ::testing::Test {
 protected:
  void SetUp() override {
    SetKernelClockMode(KernelClockMode::Virtual);
    SetKernelClockAutoAdvance(false);
    SetKernelClock(kStart);
  }
  void TearDown() override {
    EXPECT_TRUE(JoinSystemThreads());
    SetKernelClockAutoAdvance(true);
    SetKernelClockMode(KernelClockMode::Real);
  }
};

// The driver's worker mailbox: a command word, wake, stop and done events, and an acknowledgement
// the poster waits for at the end of each burst of posts.
struct Mailbox {
  KEVENT wake, stop, done, ack;
  std::atomic<uint32_t> command{0};
  std::atomic<uint32_t> syncPoint{0};
  uint32_t carriedOut = 0;  // worker only; read after done
  uint32_t lastSeen = 0;
  KPRIORITY priorityAtStart = -1;
};

void WorkerLoop(void* context) {
  Mailbox* box = static_cast<Mailbox*>(context);
  box->priorityAtStart = CurrentThreadPriority();
  for (;;) {
    KeWaitForSingleObject(&box->wake, Executive, KernelMode, FALSE, nullptr);
    if (KeReadStateEvent(&box->stop)) break;
    // Cleared before the command is read: a post after this point signals again.
    KeClearEvent(&box->wake);
    const uint32_t command = box->command.load();
    if (command == box->lastSeen) continue;
    box->lastSeen = command;
    ++box->carriedOut;
    if (command == box->syncPoint.load()) {
      KeSetPriorityThread(KeGetCurrentThread(), kSignalPriority);
      KeSetEvent(&box->ack, 0, FALSE);
    }
  }
  KeSetPriorityThread(KeGetCurrentThread(), kEndingPriority);
  KeSetEvent(&box->done, 0, FALSE);
  PsTerminateSystemThread(STATUS_SUCCESS);
}

TEST_F(KernelThreads, WorkerLoopLosesNoWakeUpUnderManyPosts) {
  constexpr uint32_t kRounds = 1500;
  // Real time: the waits return when signalled; their 10 s limit is reached only on a lost wake-up.
  constexpr int64_t kGuard = -100000000;
  SetKernelClockMode(KernelClockMode::Real);
  Mailbox box;  // the driver's worker wakes on a notification event
  KeInitializeEvent(&box.wake, NotificationEvent, FALSE);
  KeInitializeEvent(&box.stop, NotificationEvent, FALSE);
  KeInitializeEvent(&box.done, NotificationEvent, FALSE);
  KeInitializeEvent(&box.ack, SynchronizationEvent, FALSE);
  KeSetPriorityThread(KeGetCurrentThread(), kSignalPriority);
  StartThread(WorkerLoop, &box);
  // Bursts of one to four posts, later ones replacing earlier; the last must be carried out.
  uint32_t post = 0;
  for (uint32_t round = 0; round < kRounds; ++round) {
    const uint32_t burst = round % 4 + 1;
    box.syncPoint.store(post + burst);
    for (uint32_t i = 0; i < burst; ++i) {
      KeSetPriorityThread(KeGetCurrentThread(), kSignalPriority);
      box.command.store(++post);
      KeSetEvent(&box.wake, 0, FALSE);
    }
    if (WaitFor(&box.ack, kGuard) != STATUS_SUCCESS) {
      ADD_FAILURE() << "post " << post << " was never carried out";
      break;
    }
  }
  KeSetEvent(&box.stop, 0, FALSE);
  KeSetEvent(&box.wake, 0, FALSE);
  ASSERT_EQ(WaitFor(&box.done, kGuard), STATUS_SUCCESS);
  ASSERT_TRUE(JoinSystemThreads());

  EXPECT_EQ(box.lastSeen, post);
  EXPECT_GE(box.carriedOut, kRounds);
  EXPECT_LE(box.carriedOut, post);
  // Priorities are per thread: the worker began at 0 although the poster had raised itself,
  // and each signal carries its signaller's.
  EXPECT_EQ(box.priorityAtStart, 0);
  EXPECT_EQ(CurrentThreadPriority(), kSignalPriority);
  EXPECT_EQ(LastSetEventPriority(&box.ack), kSignalPriority);
  EXPECT_EQ(LastSetEventPriority(&box.done), kEndingPriority);
  EXPECT_EQ(KeReadStateEvent(&box.ack), 0);  // taken by the last wait
}

struct Contended {
  FAST_MUTEX mutex;
  int inside = 0;    // guarded by the mutex only
  long counter = 0;  // guarded by the mutex only
  std::atomic<int> overlaps{0};
};

constexpr int kRounds = 2000;

void HammerMutex(void* context) {
  Contended* shared = static_cast<Contended*>(context);
  for (int i = 0; i < kRounds; ++i) {
    ExAcquireFastMutex(&shared->mutex);
    if (++shared->inside != 1) shared->overlaps.fetch_add(1);
    ++shared->counter;
    --shared->inside;
    ExReleaseFastMutex(&shared->mutex);
  }
  PsTerminateSystemThread(STATUS_SUCCESS);
}

TEST_F(KernelThreads, FastMutexExcludesOtherThreadsAndItsCountsBalance) {
  constexpr int kThreads = 4;
  for (bool initialised : {true, false}) {
    SCOPED_TRACE(initialised ? "initialised mutex" : "zero-filled mutex");
    Contended shared;
    std::memset(&shared.mutex, 0, sizeof shared.mutex);
    if (initialised) ExInitializeFastMutex(&shared.mutex);
    const KernelCounters before = GetKernelCounters();
    for (int t = 0; t < kThreads; ++t) StartThread(HammerMutex, &shared);
    HammerMutex(&shared);  // the test thread takes part too, as no system thread
    ASSERT_TRUE(JoinSystemThreads());
    const KernelCounters after = GetKernelCounters();
    const uint64_t rounds = uint64_t{kRounds} * (kThreads + 1);
    EXPECT_EQ(std::vector<uint64_t>({uint64_t(shared.overlaps.load()), uint64_t(shared.counter),
                                     after.mutexAcquires - before.mutexAcquires,
                                     after.mutexReleases - before.mutexReleases}),
              std::vector<uint64_t>({0, rounds, rounds, rounds}));
    EXPECT_EQ(FastMutexBalance(), 0);
  }
}

struct TimedWaiter {
  KEVENT event;
  KEVENT* signalAfter = nullptr;  // set once this wait is over
  int64_t timeout = 0;
  NTSTATUS status = -1;
  int64_t clockAtReturn = 0;
};

void WaitOnce(void* context) {
  TimedWaiter* waiter = static_cast<TimedWaiter*>(context);
  waiter->status = WaitFor(&waiter->event, waiter->timeout);
  waiter->clockAtReturn = Clock();
  if (waiter->signalAfter) KeSetEvent(waiter->signalAfter, 0, FALSE);
}

TEST_F(KernelThreads, TimedWaitEndsWhenSignalledOrWhenTheClockReachesItsDeadline) {
  // Timeout, first advance; then signalled, or else the clock moves one tick more; the result.
  const std::tuple<const char*, int64_t, int64_t, bool, NTSTATUS, int64_t> cases[] = {
      {"relative, signalled one tick early", -1000, 999, true, STATUS_SUCCESS, kStart + 999},
      {"relative, times out on the tick", -1000, 999, false, STATUS_TIMEOUT, kStart + 1000},
      {"absolute, times out on the tick", kStart + 5000, 4999, false, STATUS_TIMEOUT,
       kStart + 5000},
  };
  for (const auto& [name, timeout, firstAdvance, signal, status, clockAtReturn] : cases) {
    SCOPED_TRACE(name);
    SetKernelClock(kStart);
    TimedWaiter waiter;
    KeInitializeEvent(&waiter.event, SynchronizationEvent, FALSE);
    waiter.timeout = timeout;
    StartThread(WaitOnce, &waiter);
    ASSERT_TRUE(WaitForVirtualTimedWaiters(1));  // the deadline is fixed once it waits
    AdvanceKernelClock(firstAdvance);
    signal ? void(KeSetEvent(&waiter.event, 0, FALSE)) : AdvanceKernelClock(1);
    ASSERT_TRUE(JoinSystemThreads());
    EXPECT_EQ(std::make_pair(waiter.status, waiter.clockAtReturn),
              std::make_pair(status, clockAtReturn));
  }
}

TEST_F(KernelThreads, AutoAdvanceMeetsDeadlinesInTheirOrder) {
  // The earlier waiter times out, then signals the later one, which must see that signal before
  // its own deadline: the clock may not jump past a pending earlier deadline. Several rounds,
  // since a wrong order shows only now and then.
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    SetKernelClockAutoAdvance(false);
    SetKernelClock(kStart);
    TimedWaiter early, late;
    KeInitializeEvent(&early.event, NotificationEvent, FALSE);
    KeInitializeEvent(&late.event, NotificationEvent, FALSE);
    early.timeout = -1000;
    late.timeout = -2000;
    early.signalAfter = &late.event;
    // The later one starts first, so that it would be first to jump.
    StartThread(WaitOnce, &late);
    ASSERT_TRUE(WaitForVirtualTimedWaiters(1));
    StartThread(WaitOnce, &early);
    ASSERT_TRUE(WaitForVirtualTimedWaiters(2));
    SetKernelClockAutoAdvance(true);
    ASSERT_TRUE(JoinSystemThreads());
    EXPECT_EQ(std::make_tuple(early.status, early.clockAtReturn, late.status, late.clockAtReturn),
              std::make_tuple(STATUS_TIMEOUT, kStart + 1000, STATUS_SUCCESS, kStart + 1000));
  }
}

void WaitForEvent(void* context) {
  KeWaitForSingleObject(static_cast<KEVENT*>(context), Executive, KernelMode, FALSE, nullptr);
}

TEST_F(KernelThreads, BalanceCheckAndJoinSeeAThreadStillInItsRoutine) {
  constexpr ULONG kTag = 0x54747354;  // "TstT"
  KEVENT release;
  KeInitializeEvent(&release, NotificationEvent, FALSE);
  StartThread(WaitForEvent, &release);
  EXPECT_EQ(SystemThreadsRunning(), 1u);
  std::string report;
  EXPECT_FALSE(KernelCheckBalanced(&report, kTag));
  EXPECT_NE(report.find("threads"), std::string::npos) << report;
  EXPECT_FALSE(JoinSystemThreads(1));
  KeSetEvent(&release, 0, FALSE);
  ASSERT_TRUE(JoinSystemThreads());
  EXPECT_EQ(SystemThreadsRunning(), 0u);
  report.clear();
  EXPECT_TRUE(KernelCheckBalanced(&report, kTag)) << report;
}

}  // namespace
