// Kernel services as the driver calls them: notification events, system
// threads and their priorities, the fast mutex, delays, the system time, pool
// memory with tag accounting, and the debug print.
//
// Every object the driver embeds in DeviceContext (KEVENT, FAST_MUTEX) is
// plain data that is valid when zero-filled, before and after its
// Initialize call: the host hands the driver a zero-filled record and never
// runs a constructor on it.
//
// Time is in 100 ns units throughout. A negative interval or timeout is
// relative, as the driver always gives them; a positive one is an absolute
// system time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/ntstatus.h"

typedef uint8_t BOOLEAN;
typedef uint8_t UCHAR;
typedef uint16_t USHORT;
typedef uint32_t ULONG;
typedef int32_t LONG;
typedef uint64_t ULONGLONG;
typedef int64_t LONGLONG;
typedef char16_t WCHAR;
typedef void* HANDLE;
typedef int32_t KPRIORITY;
typedef int32_t KPROCESSOR_MODE;

constexpr BOOLEAN FALSE = 0;
constexpr BOOLEAN TRUE = 1;
constexpr KPROCESSOR_MODE KernelMode = 0;

union LARGE_INTEGER {
  struct {
    uint32_t LowPart;
    int32_t HighPart;
  } u;
  int64_t QuadPart;
};

// The outcome of an I/O request: its status and a count (bytes read; for a
// file create FILE_OPENED or FILE_CREATED).
struct IO_STATUS_BLOCK {
  NTSTATUS Status;
  uint64_t Information;
};

// ---------------------------------------------------------------- events

enum EVENT_TYPE : int32_t { NotificationEvent = 0, SynchronizationEvent = 1 };
enum KWAIT_REASON : int32_t { Executive = 0 };

struct KEVENT {
  int32_t State;  // 1 signalled, 0 not; accessed atomically
  int32_t Type;   // EVENT_TYPE
};

void KeInitializeEvent(KEVENT* event, EVENT_TYPE type, BOOLEAN state);
// Signals the event and wakes its waiters; returns the previous state.
LONG KeSetEvent(KEVENT* event, KPRIORITY increment, BOOLEAN wait);
void KeClearEvent(KEVENT* event);
LONG KeReadStateEvent(KEVENT* event);
// Waits for a KEVENT. `timeout` null waits for ever. Returns STATUS_SUCCESS
// when signalled (a synchronization event is then reset), STATUS_TIMEOUT when
// the time ran out first.
NTSTATUS KeWaitForSingleObject(void* object, KWAIT_REASON reason, KPROCESSOR_MODE mode,
                               BOOLEAN alertable, LARGE_INTEGER* timeout);

// ---------------------------------------------------------------- fast mutex

// Not recursive: a thread that acquires a fast mutex it already owns is a
// driver fault; the platform reports it through the debug print and aborts
// rather than deadlocking silently.
struct FAST_MUTEX {
  int32_t Count;     // 1 free, 0 owned; accessed atomically
  int32_t Contention;
  uint64_t Owner;    // platform thread id of the owner, 0 when free
};

void ExInitializeFastMutex(FAST_MUTEX* mutex);
void ExAcquireFastMutex(FAST_MUTEX* mutex);
void ExReleaseFastMutex(FAST_MUTEX* mutex);

// ---------------------------------------------------------------- threads

struct KTHREAD;
typedef KTHREAD* PKTHREAD;
typedef void (*PKSTART_ROUTINE)(void* context);

constexpr ULONG THREAD_ALL_ACCESS = 0x001FFFFF;

// Starts a system thread running `start(context)`. The handle is closed with
// ZwClose; the thread runs on after that.
NTSTATUS PsCreateSystemThread(HANDLE* threadHandle, ULONG desiredAccess, void* objectAttributes,
                              HANDLE processHandle, void* clientId, PKSTART_ROUTINE start,
                              void* context);
// Ends the calling system thread. Here it marks the thread ended and returns;
// the driver calls it as the last statement of its thread routine.
NTSTATUS PsTerminateSystemThread(NTSTATUS exitStatus);
PKTHREAD KeGetCurrentThread();
// Sets the priority of a thread, returning the old one. Only the calling
// thread's own KTHREAD is ever passed.
KPRIORITY KeSetPriorityThread(PKTHREAD thread, KPRIORITY priority);
NTSTATUS ZwClose(HANDLE handle);

// ---------------------------------------------------------------- time

// Blocks the calling thread for `interval` (negative: relative).
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE mode, BOOLEAN alertable, LARGE_INTEGER* interval);
// The system time, in 100 ns units since 1601-01-01. The driver's frame-rate
// meter reads its low 32 bits.
void KeQuerySystemTime(LARGE_INTEGER* currentTime);

// ---------------------------------------------------------------- pool

enum POOL_TYPE : int32_t { NonPagedPool = 0, PagedPool = 1 };

// The driver's pool tag "Wdm ", as the 32-bit little-endian word it is.
constexpr ULONG PoolTagWdm = 0x206D6457;

void* ExAllocatePoolWithTag(POOL_TYPE type, size_t bytes, ULONG tag);
void ExFreePool(void* block);
void ExFreePoolWithTag(void* block, ULONG tag);

// ---------------------------------------------------------------- debug print

// printf-like; each call is one line of the driver's log (the format carries
// its own "\n"). Lines go to the sink set by SetDebugPrintSink.
ULONG DbgPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));
