// Controls of the registry layer for the host, the tool and the tests: reset,
// binding a device object to its software key, typed access to values by
// absolute path, listing a key, and fault injection. The driver never
// includes this header.
//
// Paths here are absolute ("\REGISTRY\MACHINE\..."), compared without regard
// to case. None of these calls counts as a registry call of the driver or is
// touched by RegistryFailOperation, and none leaves a handle open.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"

// The service key the driver writes its outside-readable state to.
inline constexpr char16_t ServiceKeyPath[] =
    u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\DCamUSBMora";

// Longest name of one key level, in characters.
constexpr size_t RegistryMaxKeyNameChars = 255;
// Deepest key, in levels below \REGISTRY (\REGISTRY\MACHINE is level 1).
constexpr size_t RegistryMaxKeyDepth = 512;
// Longest value name, in characters, and largest value, in bytes.
constexpr size_t RegistryMaxValueNameChars = 16383;
constexpr size_t RegistryMaxValueBytes = 1024 * 1024;

// Empties the tree (leaving \REGISTRY\MACHINE), forgets every device binding,
// turns fault injection off and zeroes the call count. Handles still open keep
// working on the keys they had, which are no longer part of the tree.
void ResetRegistry();

// Binds `pdo` to the software key at `absolutePath`, creating the key with
// every missing level. IoOpenDeviceRegistryKey(pdo, PLUGPLAY_REGKEY_DRIVER)
// opens it from then on. Returns false for a malformed path.
bool BindDeviceRegistryKey(DEVICE_OBJECT* pdo, const std::u16string& absolutePath);
void UnbindDeviceRegistryKey(DEVICE_OBJECT* pdo);
// The path bound to `pdo`, or an empty string.
std::u16string DeviceRegistryKeyPath(DEVICE_OBJECT* pdo);

// One value as stored: its name as first written, its type and its bytes.
struct RegistryValueEntry {
  std::u16string name;
  ULONG type = REG_NONE;
  std::vector<uint8_t> data;
};

// Setters create the key with every missing level and replace the value
// (keeping the case of its name from the first write); they return false only
// for a malformed path or name. Getters never create anything and return
// false when the key or value is missing or is not of the asked form.
bool SetRegistryValue(const std::u16string& path, const std::u16string& name, ULONG type,
                      const std::vector<uint8_t>& data);
bool GetRegistryValue(const std::u16string& path, const std::u16string& name,
                      RegistryValueEntry* value);
bool SetRegistryDword(const std::u16string& path, const std::u16string& name, uint32_t value);
// Any value of exactly four bytes reads as a DWORD, whatever its type.
bool GetRegistryDword(const std::u16string& path, const std::u16string& name, uint32_t* value);
// Stored as REG_SZ with its terminating zero.
bool SetRegistryString(const std::u16string& path, const std::u16string& name,
                       const std::u16string& value);
// A REG_SZ value up to its first zero character.
bool GetRegistryString(const std::u16string& path, const std::u16string& name,
                       std::u16string* value);
bool SetRegistryBinary(const std::u16string& path, const std::u16string& name,
                       const std::vector<uint8_t>& value);
// The bytes of a value of any type.
bool GetRegistryBinary(const std::u16string& path, const std::u16string& name,
                       std::vector<uint8_t>* value);

bool RegistryKeyExists(const std::u16string& path);
// Creates the key with every missing level; false for a malformed path.
bool CreateRegistryKeyPath(const std::u16string& path);
// Names of the sub keys as written, ordered as the registry orders them (by
// upper-cased name). False when the key does not exist.
bool ListRegistrySubKeys(const std::u16string& path, std::vector<std::u16string>* names);
// The values of a key in the order they were first written.
bool ListRegistryValues(const std::u16string& path, std::vector<RegistryValueEntry>* values);

// Fault injection: makes the Nth registry call of the driver from now
// (1 = the next one) fail with `status`, without any effect; with `every`,
// that one and every later call fail. nth 0 turns it off. Registry calls are
// ZwCreateKey, ZwQueryValueKey, ZwSetValueKey, RtlWriteRegistryValue and
// IoOpenDeviceRegistryKey; ZwClose is not one.
void RegistryFailOperation(uint64_t nth, NTSTATUS status, bool every = false);
// Registry calls made since the last ResetRegistry.
uint64_t RegistryCallCount();

// The names of the registry are ASCII in practice: u16 strings from ASCII text
// and back (a character outside ASCII becomes '?').
std::u16string U16(std::string_view ascii);
std::string NarrowAscii(std::u16string_view text);
