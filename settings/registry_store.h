// The registry store: the routines every part of the driver reads and writes
// its settings with. Each operation opens what it needs and closes it again;
// no key handle outlives one operation. A missing value always means its
// default and is never an error; opening a sub key creates it when missing.
#pragma once

#include <cstdint>

#include "core/device_context.h"
#include "platform/registry.h"

// Access for sub keys, and what the device key is opened with.
constexpr ACCESS_MASK SubKeyAccess = KEY_ALL_ACCESS;
constexpr ACCESS_MASK DeviceKeyAccess = 0x20000;

// Opens (creating as needed) the key at `path` below `parent`, one level at a
// time: a\b\c creates a, a\b and a\b\c. The first character is never taken
// for a separator. Stops at the first level that fails and returns its
// status. On success the caller owns `*key` and closes it with ZwClose.
NTSTATUS CreateRegistrySubKey(HANDLE parent, ACCESS_MASK access, const WCHAR* path, HANDLE* key);

// Reads a value of any type into `buffer`. `*length` sizes the query; after a
// successful read it holds the size of the stored data, and at most `*length`
// bytes (as it was on entry) are copied: a longer value is cut. On failure the
// buffer is untouched.
NTSTATUS QueryRegistryValue(HANDLE key, const WCHAR* name, void* buffer, uint32_t* length);

// The 32-bit value, or `defaultValue` when it cannot be read.
uint32_t ReadRegistryDword(HANDLE key, const WCHAR* name, uint32_t defaultValue);

// Sets a REG_DWORD value; nobody learns of a failure.
void WriteRegistryDword(HANDLE key, const WCHAR* name, uint32_t value);

// Sets a REG_DWORD value below the absolute key `path` (created when
// missing). True when the status is not negative.
BOOLEAN WriteServiceDword(const WCHAR* path, const WCHAR* name, const uint32_t* value);

// Opens the device's software key.
NTSTATUS OpenDeviceKey(DeviceContext* context, HANDLE* key);

// Opens the sensor root: the sub key named SensorName of the device key, or
// the device key itself while SensorName is empty.
NTSTATUS OpenSensorRootKey(DeviceContext* context, HANDLE* rootKey);

// Opens `path` below the sensor root (for example L"InitialSetting").
NTSTATUS OpenSensorSubKey(DeviceContext* context, const WCHAR* path, HANDLE* key);

// The service key of the driver.
extern const WCHAR ServiceKeyName[];
