// The registry store: the routines every part of the driver reads and writes
// its settings with. No key handle outlives one operation.
#pragma once

#include <cstdint>

#include "core/device_context.h"
#include "platform/registry.h"

// Sets a REG_DWORD value; nobody learns of a failure.
void WriteRegistryDword(HANDLE key, const WCHAR* name, uint32_t value);
