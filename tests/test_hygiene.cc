// Every test leaves the kernel clock as the process starts with it: real.
// A test that switches to the virtual clock and forgets to switch back makes
// later tests, in whatever order they run, wait on a clock nobody advances.
#include <gtest/gtest.h>

#include "platform/kernel_control.h"

namespace {

class ClockModeGuard : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo& test) override {
    if (GetKernelClockMode() == KernelClockMode::Real) return;
    SetKernelClockMode(KernelClockMode::Real);
    ADD_FAILURE() << test.test_suite_name() << "." << test.name()
                  << " left the kernel clock virtual";
  }
};

const bool kInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new ClockModeGuard);
  return true;
}();

}  // namespace
