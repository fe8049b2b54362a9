// The kernel layer on one thread: events, waits and delays in virtual time, the system time,
// pool accounting, faults and leaks, the balance check, debug print capture, status names, and
// the driver faults that abort.

#include "platform/kernel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "platform/kernel_control.h"
#include "tests/kernel_test_clock.h"

namespace {

// Tags of this file's own blocks, so that blocks other tests hold do not count.
constexpr ULONG kTagA = 0x41747354;  // "TstA"
constexpr ULONG kTagB = 0x42747354;  // "TstB"

class KernelClock : public ::testing::Test {
 protected:
  void SetUp() override {
    SetKernelClockMode(KernelClockMode::Virtual);
    SetKernelClockAutoAdvance(true);
    SetKernelClock(kStart);
    ResetKernelDelayTotal();
  }
  void TearDown() override {
    SetKernelClockAutoAdvance(true);
    SetKernelClockMode(KernelClockMode::Real);
  }
};

TEST_F(KernelClock, EventsGivePreviousStateAndOnlySynchronizationResetsOnWait) {
  // Event type, state after a satisfied wait, and the second wait's result.
  const std::tuple<EVENT_TYPE, LONG, NTSTATUS> cases[] = {
      {NotificationEvent, 1, STATUS_SUCCESS}, {SynchronizationEvent, 0, STATUS_TIMEOUT}};
  for (const auto& [type, stateAfterWait, secondWait] : cases) {
    SCOPED_TRACE(testing::Message() << "type " << type);
    KEVENT event{};
    KeInitializeEvent(&event, type, FALSE);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
    KeClearEvent(&event);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
    KeSetEvent(&event, 0, FALSE);
    EXPECT_EQ(WaitFor(&event, -10), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), stateAfterWait);
    EXPECT_EQ(WaitFor(&event, -10), secondWait);
  }
  // A zero-filled event, as the host hands the device record over, is a clear notification
  // event even before its Initialize call.
  KEVENT raw{};
  KeSetEvent(&raw, 0, FALSE);
  EXPECT_EQ(WaitFor(&raw, 0), STATUS_SUCCESS);
  EXPECT_EQ(WaitFor(&raw, 0), STATUS_SUCCESS);
}

TEST_F(KernelClock, UnsatisfiedWaitsAndDelaysEndExactlyAtTheirDeadlineWithoutSleeping) {
  // A wait on a clear event, or a delay; its interval; the clock after it; only delays count
  // in the delay total.
  const std::tuple<const char*, bool, int64_t, int64_t> cases[] = {
      {"wait, relative 1 ms", false, -10000, kStart + 10000},
      {"wait, absolute 5 s ahead", false, kStart + 50000000, kStart + 50000000},
      {"wait, absolute already past", false, kStart - 1, kStart},
      {"wait, absolute zero: test and return", false, 0, kStart},
      {"wait, longest relative: no overflow", false, INT64_MIN, INT64_MAX},
      {"delay, relative 200 ms, the worker's pause", true, -2000000, kStart + 2000000},
      {"delay, absolute in the past", true, kStart - 30000, kStart},
  };
  for (const auto& [name, delay, interval, clockAfter] : cases) {
    SCOPED_TRACE(name);
    SetKernelClock(kStart);
    ResetKernelDelayTotal();
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER at;
    at.QuadPart = interval;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(delay ? KeDelayExecutionThread(KernelMode, FALSE, &at) : WaitFor(&event, interval),
              delay ? STATUS_SUCCESS : STATUS_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(100));
    EXPECT_EQ(Clock(), clockAfter);
    EXPECT_EQ(KernelDelayTotal(), delay ? clockAfter - kStart : 0);
  }
  // A signalled event ends the wait at once and leaves the clock alone.
  SetKernelClock(kStart);
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, TRUE);
  EXPECT_EQ(WaitFor(&event, -20000000), STATUS_SUCCESS);
  EXPECT_EQ(Clock(), kStart);
}

TEST_F(KernelClock, SystemTimeIsVirtualOrTheWallClock) {
  SetKernelClock(0x1D0FFFFFFF0LL);
  AdvanceKernelClock(0x20);
  EXPECT_EQ(Clock(), 0x1D100000010LL);  // the low word wraps as the meter sees it
  SetKernelClockMode(KernelClockMode::Real);
  // Independent reference: seconds since 1970 from the C library, moved to 1601.
  const int64_t wall = (static_cast<int64_t>(std::time(nullptr)) + 11644473600LL) * 10000000LL;
  EXPECT_NEAR(static_cast<double>(Clock()), static_cast<double>(wall), 2e7);  // within 2 s
}

// ---------------------------------------------------------------- pool

TEST(KernelPool, NthAllocationFailsAndTheOthersWork) {
  // The allocation to fail, whether all after it fail too, and which of five in a row succeed.
  const std::tuple<uint64_t, bool, std::vector<bool>> cases[] = {
      {3, false, {true, true, false, true, true}},
      {0, false, {true, true, true, true, true}},
  };
  for (const auto& [nth, every, succeeds] : cases) {
    SCOPED_TRACE(testing::Message() << "nth " << nth << " every " << every);
    PoolFailAllocation(nth, every);
    std::vector<void*> blocks;
    std::vector<bool> got;
    for (size_t i = 0; i < succeeds.size(); ++i) {
      void* block = ExAllocatePoolWithTag(NonPagedPool, 16, kTagA);
      got.push_back(block != nullptr);
      if (block) blocks.push_back(block);
    }
    EXPECT_EQ(got, succeeds);
    PoolFailAllocation(0);
    for (void* block : blocks) ExFreePoolWithTag(block, kTagA);
  }
  EXPECT_EQ(PoolLiveBlocks(kTagA), 0u);
  // A size that cannot be had fails cleanly instead of wrapping round.
  EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, SIZE_MAX - 8, kTagA), nullptr);
}

TEST(KernelPool, LiveBlocksAndBytesAreCountedPerTagAndLeftOnesReported) {
  const uint64_t allBefore = PoolLiveBlocks();
  void* a1 = ExAllocatePoolWithTag(NonPagedPool, 64, kTagA);
  void* b1 = ExAllocatePoolWithTag(PagedPool, 100, kTagB);
  void* a2 = ExAllocatePoolWithTag(NonPagedPool, 0, kTagA);
  void* odd = ExAllocatePoolWithTag(NonPagedPool, 8, 0x00017354);  // 'T' 's' 0x01 0x00
  ASSERT_TRUE(a1 && b1 && a2 && odd);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a1) % 16, 0u);
  EXPECT_EQ(std::vector<uint64_t>({PoolLiveBlocks(kTagA), PoolLiveBytes(kTagA),
                                   PoolLiveBlocks(kTagB), PoolLiveBytes(kTagB), PoolLiveBlocks()}),
            std::vector<uint64_t>({2, 64, 1, 100, allBefore + 4}));

  {  // the leak report has a line for each live block, an unprintable tag shown as dots
    DebugPrintCapture log;
    EXPECT_GE(PoolReportLeaks(), 4u);
    const std::vector<std::string> lines = log.Lines();
    EXPECT_NE(std::find(lines.begin(), lines.end(), "pool leak: tag 'Ts..' 8 bytes\n"),
              lines.end());
  }

  // The shutdown check names what is left of one tag, and a held mutex.
  FAST_MUTEX mutex;
  ExInitializeFastMutex(&mutex);
  ExAcquireFastMutex(&mutex);
  std::string report;
  EXPECT_FALSE(KernelCheckBalanced(&report, kTagA));
  EXPECT_NE(report.find("'TstA'"), std::string::npos) << report;
  EXPECT_NE(report.find("fast mutex"), std::string::npos) << report;
  ExReleaseFastMutex(&mutex);

  ExFreePool(a1);
  ExFreePoolWithTag(a2, kTagA);
  ExFreePool(odd);
  EXPECT_TRUE(KernelCheckBalanced(&report, kTagA)) << report;
  EXPECT_FALSE(KernelCheckBalanced(nullptr, kTagB));
  ExFreePool(b1);
  EXPECT_TRUE(KernelCheckBalanced(nullptr, kTagB));
}

// ---------------------------------------------------------------- debug print

void CollectInto(void* context, const char* line) {
  static_cast<std::vector<std::string>*>(context)->push_back(line);
}

TEST(KernelDebugPrint, CapturesNestAndRestoreThePreviousSink) {
  std::vector<std::string> outer;
  SetDebugPrintSink(CollectInto, &outer);
  DbgPrint("to the tool %d\n", 1);
  {
    DebugPrintCapture first;
    DbgPrint("first %s\n", "line");
    {
      DebugPrintCapture second;
      DbgPrint("second\n");
      EXPECT_EQ(second.Lines(), std::vector<std::string>{"second\n"});
    }
    DbgPrint("first again\n");
    EXPECT_EQ(first.Lines(), (std::vector<std::string>{"first line\n", "first again\n"}));
  }
  DbgPrint("to the tool %d\n", 2);
  SetDebugPrintSink(nullptr, nullptr);
  EXPECT_EQ(outer, (std::vector<std::string>{"to the tool 1\n", "to the tool 2\n"}));
}

TEST(KernelStatus, NtStatusNameNamesKnownCodesAndWritesOthersInHex) {
  const std::pair<NTSTATUS, std::string> cases[] = {
      {0x00000000, "STATUS_SUCCESS"},
      {0x00000102, "STATUS_TIMEOUT"},
      {NTSTATUS(0x80000005u), "STATUS_BUFFER_OVERFLOW"},
      {NTSTATUS(0xC0000016u), "0xC0000016"},
  };
  for (const auto& [status, name] : cases) EXPECT_EQ(NtStatusName(status), name);
}

// ---------------------------------------------------------------- driver faults

TEST(KernelDeathTest, DriverFaultsAreReportedAndAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  FAST_MUTEX mutex{};  // zero-filled: free even before its Initialize
  EXPECT_DEATH(
      {
        ExAcquireFastMutex(&mutex);
        ExAcquireFastMutex(&mutex);
      },
      "fast mutex .* acquired again by its owner");
  EXPECT_DEATH(ExReleaseFastMutex(&mutex), "released by a thread that does not own it");

  void* block = ExAllocatePoolWithTag(NonPagedPool, 32, kTagA);
  EXPECT_DEATH(ExFreePoolWithTag(block, kTagB), "pool: free with a tag that is not the block's");
  EXPECT_DEATH(
      {
        ExFreePool(block);
        ExFreePool(block);
      },
      "pool: free of a block that is not live");
  ExFreePool(block);
}

}  // namespace
