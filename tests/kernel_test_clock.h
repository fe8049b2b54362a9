// Clock and wait helpers shared by the kernel layer's tests.
#pragma once

#include <cstdint>

#include "platform/kernel.h"
#include "platform/kernel_control.h"

// 2026-03-01 00:00:00 in 100 ns units since 1601.
constexpr int64_t kStart = 116444736000000000LL + 1772323200LL * 10000000LL;

inline int64_t Clock() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.QuadPart;
}

// Virtual kernel time while it lives; the mode before it afterwards.
struct VirtualClock {
  KernelClockMode saved = GetKernelClockMode();
  VirtualClock() { SetKernelClockMode(KernelClockMode::Virtual); }
  ~VirtualClock() { SetKernelClockMode(saved); }
};

// Waits on `event` with a timeout as the driver gives it (negative relative).
inline NTSTATUS WaitFor(KEVENT* event, int64_t timeout) {
  LARGE_INTEGER t;
  t.QuadPart = timeout;
  return KeWaitForSingleObject(event, Executive, KernelMode, FALSE, &t);
}
