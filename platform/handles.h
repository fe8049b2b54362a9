// The kernel's handle table: thread, registry key and file handles all close
// with ZwClose. Each service of the platform layer registers its objects here
// with the routine that releases them.
#pragma once

#include <cstdint>

#include "platform/kernel.h"

enum class HandleKind : uint32_t { Thread = 1, RegistryKey = 2, File = 3 };

typedef void (*HandleCloseRoutine)(void* object);

// Makes a new handle for `object`; ZwClose calls `close(object)` once.
HANDLE CreatePlatformHandle(HandleKind kind, void* object, HandleCloseRoutine close);
// The object behind a live handle of that kind, or null.
void* ReferencePlatformHandle(HANDLE handle, HandleKind kind);
// Live handles of one kind: a handle left open after an operation is a leak.
uint32_t OpenPlatformHandles(HandleKind kind);
