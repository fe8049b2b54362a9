// Controls of the registry layer for the host, the tool and the tests: reset,
// binding a device object to its software key, typed access to values by
// absolute path, listing a key, batches of edits, fault injection, and the
// registry's text form (the registry editor's ".reg" files) with a file the
// tree is kept in. The driver never includes this header.
//
// Paths here are absolute ("\REGISTRY\MACHINE\..."), compared without regard
// to case. None of these calls counts as a registry call of the driver or is
// touched by RegistryFailOperation, and none leaves a handle open.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"

// The service key the driver writes its outside-readable state to.
inline constexpr char16_t ServiceKeyPath[] =
    u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\DCamUSBMora";

// Where the software keys of cameras stand: the image device class.
inline constexpr char16_t DeviceClassKeyPath[] =
    u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\";
inline constexpr char16_t ImageDeviceClassGuid[] = u"{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}";

// The software key of the camera with instance number `instance`: the class
// key, the class GUID and the number in four decimal digits (more above 9999),
// "...\Class\{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\0003".
std::u16string DeviceSoftwareKeyPath(uint32_t instance);

// Longest name of one key level, in characters.
constexpr size_t RegistryMaxKeyNameChars = 255;
// Deepest key, in levels below \REGISTRY (\REGISTRY\MACHINE is level 1).
constexpr size_t RegistryMaxKeyDepth = 512;
// Longest value name, in characters, and largest value, in bytes.
constexpr size_t RegistryMaxValueNameChars = 16383;
constexpr size_t RegistryMaxValueBytes = 1024 * 1024;

// Empties the tree (leaving \REGISTRY\MACHINE), forgets every device binding,
// turns fault injection off, zeroes the call count, and detaches the file the
// tree is kept in without saving it (waiting for a save under way). Handles
// still open keep working on the keys they had, which are no longer part of
// the tree.
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

// A key with everything below it, as stored.
struct RegistryKeySnapshot {
  std::u16string name;                      // as first written
  std::vector<RegistryValueEntry> values;   // in the order first written
  std::vector<RegistryKeySnapshot> subKeys;  // in the registry's order
};
// Copies the key at `path` and everything below it in one step under the
// registry's lock; `storedPath`, when given, gets the path as the names are
// stored ("\REGISTRY\MACHINE\SOFTWARE\..."). False when the key does not exist.
bool SnapshotRegistryKey(const std::u16string& path, RegistryKeySnapshot* snapshot,
                         std::u16string* storedPath = nullptr);

// One change of a batch. Paths are absolute; SetValue and CreateKey create
// every missing level, the deletions of something missing do nothing.
struct RegistryEdit {
  enum Kind : uint8_t { CreateKey, DeleteKey, SetValue, DeleteValue };
  Kind kind = CreateKey;
  std::u16string path;
  std::u16string name;  // SetValue, DeleteValue: the value's name ("" the default value)
  ULONG type = REG_NONE;
  std::vector<uint8_t> data;
};
// Checks every edit first and then applies them in order in one step under
// the registry's lock. A malformed path or name, a value too large, a path too
// deep or the deletion of \REGISTRY or \REGISTRY\MACHINE changes nothing: the
// call returns false with `failed` set to the index of the first such edit.
bool ApplyRegistryEdits(const std::vector<RegistryEdit>& edits, size_t* failed = nullptr);

// ---- The text form: ".reg" files as the registry editor writes them.
//
// Read: "Windows Registry Editor Version 5.00" as the first line that is not
// blank (an input of nothing but blank lines is an empty file), then key lines
// "[HKEY_LOCAL_MACHINE\...]" (or "[HKLM\...]"), "[-...]" deleting a key with
// everything below it, value lines "Name"=dword:0000001e, "Name"="text" (with
// the escapes \\ and \"), "Name"=hex:01,02 (REG_BINARY), "Name"=hex(N):...
// (type N in hexadecimal), @=... for the default value, "Name"=- deleting a
// value, and ';' comment lines. A hex list continues on the next line after
// a trailing backslash. UTF-8 with or without its byte order mark, or
// UTF-16LE with FF FE; CR LF or LF line ends.
//
// Written: UTF-8 without byte order mark, CR LF line ends, every key below
// the root (the root too) in the registry's order, each with its values in
// the order they were first written and a blank line after it. A REG_DWORD of
// four bytes is written as dword:, a REG_SZ of plain text (one terminating
// zero, no other zero, no line break) as a quoted string, REG_BINARY as hex:
// and everything else as hex(N):, folded after a comma with a trailing
// backslash so that no line is longer than 80 columns (continuation lines
// indented by two spaces). Writing what was read and reading it again gives the
// same tree and the same text.

// Reads `bytes` and merges them into the tree. A malformed line leaves the
// tree as it was and gives an error "FILE:LINE: what is wrong".
bool LoadRegistryText(std::string_view bytes, const std::string& fileNameForErrors,
                      std::string* error);
// The tree below `root` (at or below \REGISTRY\MACHINE) as text: just the
// first line when the root does not exist. An empty string, with a reason in
// `error`, for a root elsewhere or a name that the text form cannot hold (a
// line break, half of a surrogate pair).
std::string SaveRegistryText(const std::u16string& root = u"\\REGISTRY\\MACHINE",
                             std::string* error = nullptr);

// LoadRegistryText on a file of the host. A file that cannot be read is an
// error "FILE: reason".
bool LoadRegistryFile(const std::string& hostPath, std::string* error);
// Writes the tree below `root` to a file of the host atomically: the text goes
// to hostPath + ".tmp" in the same folder, is flushed to the disk, and is
// renamed over the file, and the folder is flushed. At any moment the file
// holds either its old or its new text, whole; a ".tmp" left by an earlier
// crash is overwritten.
bool SaveRegistryFile(const std::string& hostPath, std::string* error,
                      const std::u16string& root = u"\\REGISTRY\\MACHINE");
// Test hook: saves stop after the temporary file is written and flushed, as a
// crash before the rename would, and fail. ResetRegistry turns it off.
void RegistrySaveStopBeforeRename(bool stop);

// ---- Persistence: the tree of \REGISTRY\MACHINE kept in one file.
//
// AttachRegistryFile merges the file into the tree (a missing file is an
// empty one) and from then on writes the tree back after every change: a key
// created, a value whose type or bytes change, a value or key deleted, by the
// driver's calls or by the controls above. Setting a value to what it already
// holds is no change. Saves are coalesced: a change is saved at once when the
// last save began at least the save interval (1 s of the steady clock) ago,
// otherwise it waits for the next change after that, FlushRegistryFile,
// DetachRegistryFile or the end of the process (a handler registered with
// std::atexit flushes). The save runs on the thread that made the change,
// outside the registry's lock; a change while another thread is saving stays
// pending. A file that does not load leaves nothing attached. Attaching
// another file detaches the first.
bool AttachRegistryFile(const std::string& hostPath, std::string* error);
// Saves a pending change now. True when nothing is attached or nothing pending.
bool FlushRegistryFile(std::string* error = nullptr);
// Flushes and stops keeping the file.
void DetachRegistryFile();
// The attached file, or an empty string.
std::string AttachedRegistryFile();
// Saves of the attached file begun so far (failed ones too), and the reason
// the last one failed (empty after a good one).
uint64_t RegistryFileSaveCount();
std::string RegistryFileLastError();
// Test hook: the least time between two saves of the attached file (default
// 1 s). ResetRegistry sets it back.
void SetRegistrySaveInterval(std::chrono::milliseconds interval);

// Fault injection: makes the Nth registry call of the driver from now
// (1 = the next one) fail with `status`, without any effect; with `every`,
// that one and every later call fail. nth 0 turns it off. Registry calls are
// ZwCreateKey, ZwQueryValueKey, ZwSetValueKey, RtlWriteRegistryValue,
// IoOpenDeviceRegistryKey and IoGetDeviceProperty; ZwClose is not one.
void RegistryFailOperation(uint64_t nth, NTSTATUS status, bool every = false);
// Registry calls made since the last ResetRegistry.
uint64_t RegistryCallCount();

// The names of the registry are ASCII in practice: u16 strings from ASCII text
// and back (a character outside ASCII becomes '?').
std::u16string U16(std::string_view ascii);
std::string NarrowAscii(std::u16string_view text);
