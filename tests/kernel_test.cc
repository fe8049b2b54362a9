// The kernel layer on one thread: event states, timed waits and delays in
// virtual time, the system time, pool accounting and fault injection, the leak
// report, the balance check, the debug print capture, status names, and the
// driver faults that abort (recursive fast mutex, bad pool frees).

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

#include "platform/kernel.h"
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
  struct Case { EVENT_TYPE type; LONG stateAfterWait; NTSTATUS secondWait; };
  const Case cases[] = {{NotificationEvent, 1, STATUS_SUCCESS},
                        {SynchronizationEvent, 0, STATUS_TIMEOUT}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "type " << c.type);
    KEVENT event{};
    KeInitializeEvent(&event, c.type, FALSE);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
    KeClearEvent(&event);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
    KeSetEvent(&event, 0, FALSE);
    EXPECT_EQ(WaitFor(&event, -10), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), c.stateAfterWait);
    EXPECT_EQ(WaitFor(&event, -10), c.secondWait);
  }
  // A zero-filled event, as the host hands the device record over, is a clear
  // notification event even before its Initialize call.
  KEVENT raw{};
  KeSetEvent(&raw, 0, FALSE);
  EXPECT_EQ(WaitFor(&raw, 0), STATUS_SUCCESS);
  EXPECT_EQ(WaitFor(&raw, 0), STATUS_SUCCESS);
}

TEST_F(KernelClock, UnsatisfiedTimedWaitEndsExactlyAtItsDeadline) {
  struct Case { const char* name; int64_t timeout; int64_t clockAfter; };
  const Case cases[] = {
      {"relative 1 ms", -10000, kStart + 10000},
      {"absolute, 5 s ahead", kStart + 50000000, kStart + 50000000},
      {"absolute, already past", kStart - 1, kStart},
      {"absolute zero: test and return", 0, kStart},
      {"longest relative: no overflow", INT64_MIN, INT64_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SetKernelClock(kStart);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(WaitFor(&event, c.timeout), STATUS_TIMEOUT);
    EXPECT_EQ(Clock(), c.clockAfter);
  }
  // A signalled event ends the wait at once and leaves the clock alone.
  SetKernelClock(kStart);
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, TRUE);
  EXPECT_EQ(WaitFor(&event, -20000000), STATUS_SUCCESS);
  EXPECT_EQ(Clock(), kStart);
  EXPECT_EQ(KernelDelayTotal(), 0);
}

TEST_F(KernelClock, DelayAdvancesClockByItsIntervalWithoutSleeping) {
  struct Case { const char* name; int64_t interval; int64_t advance; };
  const Case cases[] = {
      {"relative 200 ms, the worker's pause", -2000000, 2000000},
      {"absolute, 3 ms ahead", kStart + 30000, 30000},
      {"absolute, in the past", kStart - 30000, 0},
      {"zero", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    SetKernelClock(kStart);
    ResetKernelDelayTotal();
    LARGE_INTEGER interval;
    interval.QuadPart = c.interval;
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &interval), STATUS_SUCCESS);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(100));
    EXPECT_EQ(Clock(), kStart + c.advance);
    EXPECT_EQ(KernelDelayTotal(), c.advance);
  }
}

TEST_F(KernelClock, SystemTimeIsVirtualOrTheWallClock) {
  SetKernelClock(0x1D0FFFFFFF0LL);
  EXPECT_EQ(Clock(), 0x1D0FFFFFFF0LL);
  AdvanceKernelClock(0x20);
  EXPECT_EQ(Clock(), 0x1D100000010LL);  // the low word wraps as the meter sees it

  SetKernelClockMode(KernelClockMode::Real);
  EXPECT_EQ(GetKernelClockMode(), KernelClockMode::Real);
  // Independent reference: seconds since 1970 from the C library, moved to 1601.
  const int64_t wall = (static_cast<int64_t>(std::time(nullptr)) + 11644473600LL) * 10000000LL;
  EXPECT_NEAR(static_cast<double>(Clock()), static_cast<double>(wall), 2e7);  // within 2 s
}

// ---------------------------------------------------------------- pool

TEST(KernelPool, NthAllocationFailsAndTheOthersWork) {
  struct Case {
    uint64_t nth;
    bool every;
    std::vector<bool> succeeds;  // five allocations in a row
  };
  const Case cases[] = {
      {1, false, {false, true, true, true, true}},
      {3, false, {true, true, false, true, true}},
      {2, true, {true, false, false, false, false}},
      {0, false, {true, true, true, true, true}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "nth " << c.nth << " every " << c.every);
    PoolFailAllocation(c.nth, c.every);
    std::vector<void*> blocks;
    for (size_t i = 0; i < c.succeeds.size(); ++i) {
      void* block = ExAllocatePoolWithTag(NonPagedPool, 16, kTagA);
      EXPECT_EQ(block != nullptr, c.succeeds[i]) << "allocation " << i + 1;
      if (block) blocks.push_back(block);
    }
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
  EXPECT_EQ(PoolLiveBlocks(kTagA), 2u);
  EXPECT_EQ(PoolLiveBytes(kTagA), 64u);
  EXPECT_EQ(PoolLiveBlocks(kTagB), 1u);
  EXPECT_EQ(PoolLiveBytes(kTagB), 100u);
  EXPECT_EQ(PoolLiveBlocks(), allBefore + 4);

  std::vector<std::string> leaks;  // this test's lines among those of any live block
  {
    DebugPrintCapture log;
    EXPECT_GE(PoolReportLeaks(), 4u);
    for (const std::string& line : log.Lines()) {
      if (line.find("'Ts") != std::string::npos) leaks.push_back(line);
    }
  }
  const std::vector<std::string> expected = {
      "pool leak: tag 'TstA' 64 bytes\n", "pool leak: tag 'TstB' 100 bytes\n",
      "pool leak: tag 'TstA' 0 bytes\n", "pool leak: tag 'Ts..' 8 bytes\n"};
  EXPECT_EQ(leaks, expected);

  // The shutdown check names what is left of one tag, and a held mutex.
  FAST_MUTEX mutex;
  ExInitializeFastMutex(&mutex);
  ExAcquireFastMutex(&mutex);
  std::string report;
  EXPECT_FALSE(KernelCheckBalanced(&report, kTagA));
  EXPECT_EQ(report,
            "pool: 2 blocks of 64 bytes live with tag 'TstA'\n"
            "fast mutex: 1 acquired and not released\n");
  ExReleaseFastMutex(&mutex);

  ExFreePool(a1);
  ExFreePoolWithTag(a2, kTagA);
  ExFreePool(odd);
  EXPECT_EQ(PoolLiveBytes(kTagA), 0u);
  EXPECT_EQ(PoolLiveBlocks(kTagB), 1u);
  report.clear();
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
    first.Clear();
    EXPECT_TRUE(first.Lines().empty());
  }
  // Ended out of order: the later capture goes back to the tool's sink.
  auto* early = new DebugPrintCapture;
  {
    DebugPrintCapture late;
    delete early;
    DbgPrint("late\n");
    EXPECT_EQ(late.Lines(), std::vector<std::string>{"late\n"});
  }
  DbgPrint("to the tool %d\n", 2);
  SetDebugPrintSink(nullptr, nullptr);
  EXPECT_EQ(outer, (std::vector<std::string>{"to the tool 1\n", "to the tool 2\n"}));
}

TEST(KernelStatus, NtStatusNameNamesKnownCodesAndWritesOthersInHex) {
  struct Case { NTSTATUS status; const char* name; };
  const Case cases[] = {
      {0x00000000, "STATUS_SUCCESS"},         {0x00000102, "STATUS_TIMEOUT"},
      {NTSTATUS(0xC00000BBu), "STATUS_NOT_SUPPORTED"},
      {NTSTATUS(0xC000000Du), "STATUS_INVALID_PARAMETER"},
      {NTSTATUS(0xC000009Au), "STATUS_INSUFFICIENT_RESOURCES"},
      {NTSTATUS(0x80000005u), "STATUS_BUFFER_OVERFLOW"},
      {NTSTATUS(0xC0000016u), "0xC0000016"}, {0x00000001, "0x00000001"},
  };
  for (const Case& c : cases) EXPECT_STREQ(NtStatusName(c.status), c.name);
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
  alignas(16) char stack[64] = {};
  EXPECT_DEATH(ExFreePool(stack + 32), "pool: free of a block that is not live");
  ExFreePool(block);
}

}  // namespace
