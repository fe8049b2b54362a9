// The registry: one in-memory tree of keys under \REGISTRY, each key holding
// its sub keys by upper-cased name and its values in the order they were
// first written. One mutex guards the tree, the device bindings, the fault
// injection state and the bookkeeping of the attached file; every call of the
// driver takes it once.
//
// A key handle holds a shared reference to its key, so a key stays usable for
// as long as a handle is open on it, even across ResetRegistry.
//
// The attached file: every change counts up `changeCount`; a change that finds
// the last save old enough saves the tree after the registry's lock is let go.
// Saves are serialised by a second mutex, `fileLock`, always taken before the
// registry's lock and held from the choice of what to save until the file is
// renamed, so an older tree never lands after a newer one. A driver call only
// tries that mutex: while another thread saves, its change stays pending.

#include <atomic>
#include <chrono>
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"
#include "platform/registry_control.h"

namespace {

struct RegistryValue {
  std::u16string name;  // as first written
  ULONG type;
  std::vector<uint8_t> data;
};

struct RegistryKey {
  std::u16string name;  // as first written
  size_t depth = 0;     // levels below \REGISTRY
  // Sub keys by upper-cased name: this is also the order the registry lists them in.
  std::map<std::u16string, std::shared_ptr<RegistryKey>> children;
  std::vector<RegistryValue> values;
};

struct KeyHandleObject {
  std::shared_ptr<RegistryKey> key;
};

using SteadyClock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kDefaultSaveInterval{1000};

struct RegistryState {
  std::mutex lock;
  std::shared_ptr<RegistryKey> root;  // \REGISTRY
  std::map<DEVICE_OBJECT*, std::u16string> deviceKeys;
  uint64_t callCount = 0;
  uint64_t failAt = 0;  // call number that fails, 0 for none
  bool failEvery = false;
  NTSTATUS failStatus = STATUS_SUCCESS;

  // The attached file. Taken before `lock`, never after it.
  std::mutex fileLock;
  std::string filePath;         // empty when nothing is attached
  uint64_t changeCount = 0;     // changes of the tree, ever
  uint64_t savedChangeCount = 0;  // changes the file holds
  bool saveBegun = false;       // a save of this attachment has begun
  SteadyClock::time_point lastSave;
  SteadyClock::duration saveInterval = kDefaultSaveInterval;
  uint64_t fileSaves = 0;
  std::string fileError;
};

// Set while the calling thread holds `fileLock`, so that a change it makes
// (a load into the tree during attach) does not try the mutex again.
thread_local bool holdingFileLock = false;

std::shared_ptr<RegistryKey> MakeEmptyTree() {
  auto root = std::make_shared<RegistryKey>();
  root->name = u"REGISTRY";
  auto machine = std::make_shared<RegistryKey>();
  machine->name = u"MACHINE";
  machine->depth = 1;
  root->children[u"MACHINE"] = machine;
  return root;
}

// Never destroyed: system threads may still touch the registry while the
// process exits.
RegistryState& State() {
  static RegistryState* state = [] {
    auto* s = new RegistryState;
    s->root = MakeEmptyTree();
    return s;
  }();
  return *state;
}

// Upper case as the registry compares names: ASCII and the Latin-1 letters.
char16_t FoldChar(char16_t c) {
  if (c >= u'a' && c <= u'z') return static_cast<char16_t>(c - 0x20);
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<char16_t>(c - 0x20);
  if (c == 0xFF) return 0x178;
  return c;
}

std::u16string FoldName(std::u16string_view name) {
  std::u16string folded(name);
  for (char16_t& c : folded) c = FoldChar(c);
  return folded;
}

bool SameName(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (FoldChar(a[i]) != FoldChar(b[i])) return false;
  }
  return true;
}

// Counts one registry call of the driver and tells the status it must fail
// with, or STATUS_SUCCESS. Called with the lock held.
NTSTATUS CountRegistryCall(RegistryState& state) {
  ++state.callCount;
  if (state.failAt == 0) return STATUS_SUCCESS;
  if (state.callCount == state.failAt) {
    if (!state.failEvery) state.failAt = 0;
    return state.failStatus;
  }
  if (state.failEvery && state.callCount > state.failAt) return state.failStatus;
  return STATUS_SUCCESS;
}

// The text of a counted string, or a status for a malformed one.
NTSTATUS ReadCountedString(const UNICODE_STRING* string, std::u16string_view* text) {
  if (string == nullptr || string->Length == 0) {
    *text = std::u16string_view();
    return STATUS_SUCCESS;
  }
  if (string->Buffer == nullptr) return STATUS_INVALID_PARAMETER;
  if (string->Length % 2 != 0) return STATUS_OBJECT_NAME_INVALID;
  *text = std::u16string_view(string->Buffer, string->Length / 2);
  return STATUS_SUCCESS;
}

// Splits a key path into its levels. Empty levels, zero characters and names
// over 255 characters are invalid.
NTSTATUS SplitKeyPath(std::u16string_view path, std::vector<std::u16string_view>* levels) {
  levels->clear();
  if (path.empty()) return STATUS_SUCCESS;
  size_t start = 0;
  while (true) {
    size_t end = path.find(u'\\', start);
    std::u16string_view level =
        path.substr(start, end == std::u16string_view::npos ? std::u16string_view::npos
                                                            : end - start);
    if (level.empty() || level.size() > RegistryMaxKeyNameChars) return STATUS_OBJECT_NAME_INVALID;
    if (level.find(u'\0') != std::u16string_view::npos) return STATUS_OBJECT_NAME_INVALID;
    levels->push_back(level);
    if (end == std::u16string_view::npos) return STATUS_SUCCESS;
    start = end + 1;
  }
}

// Splits an absolute path "\REGISTRY\..." into the levels below \REGISTRY.
NTSTATUS SplitAbsolutePath(std::u16string_view path, std::vector<std::u16string_view>* levels) {
  if (path.empty() || path[0] != u'\\') return STATUS_OBJECT_NAME_INVALID;
  NTSTATUS status = SplitKeyPath(path.substr(1), levels);
  if (!NT_SUCCESS(status)) return status;
  if (levels->empty()) return STATUS_OBJECT_NAME_INVALID;
  if (!SameName((*levels)[0], u"REGISTRY")) return STATUS_OBJECT_PATH_NOT_FOUND;
  levels->erase(levels->begin());
  return STATUS_SUCCESS;
}

// Walks `levels` down from `key`, creating what is missing when `create` is
// set. Returns null when a level is missing and nothing may be created, or
// when the path would go deeper than RegistryMaxKeyDepth.
std::shared_ptr<RegistryKey> WalkKeyPath(std::shared_ptr<RegistryKey> key,
                                         const std::vector<std::u16string_view>& levels,
                                         bool create, bool* createdLast) {
  if (createdLast != nullptr) *createdLast = false;
  if (key->depth + levels.size() > RegistryMaxKeyDepth) return nullptr;
  for (std::u16string_view level : levels) {
    std::u16string folded = FoldName(level);
    auto it = key->children.find(folded);
    if (it != key->children.end()) {
      key = it->second;
      if (createdLast != nullptr) *createdLast = false;
      continue;
    }
    if (!create) return nullptr;
    auto child = std::make_shared<RegistryKey>();
    child->name = std::u16string(level);
    child->depth = key->depth + 1;
    key->children.emplace(std::move(folded), child);
    key = std::move(child);
    if (createdLast != nullptr) *createdLast = true;
  }
  return key;
}

// The key at an absolute path, created when `create` is set; null for a
// malformed path or, without `create`, a missing key. Called with the lock held.
std::shared_ptr<RegistryKey> FindAbsoluteKey(RegistryState& state, std::u16string_view path,
                                             bool create, bool* created = nullptr) {
  if (created != nullptr) *created = false;
  std::vector<std::u16string_view> levels;
  if (!NT_SUCCESS(SplitAbsolutePath(path, &levels))) return nullptr;
  return WalkKeyPath(state.root, levels, create, created);
}

RegistryValue* FindValue(RegistryKey& key, std::u16string_view name) {
  for (RegistryValue& value : key.values) {
    if (SameName(value.name, name)) return &value;
  }
  return nullptr;
}

// Stores a value; tells whether anything changed (a new value, another type
// or other bytes).
bool StoreValue(RegistryKey& key, std::u16string_view name, ULONG type, const uint8_t* data,
                size_t size) {
  RegistryValue* value = FindValue(key, name);
  if (value == nullptr) {
    key.values.push_back(RegistryValue{std::u16string(name), type, {}});
    value = &key.values.back();
  } else if (value->type == type && value->data.size() == size &&
             (size == 0 || std::memcmp(value->data.data(), data, size) == 0)) {
    return false;
  }
  value->type = type;
  value->data.assign(data, data + size);
  return true;
}

// Counts a change of the tree and tells whether the attached file is due for
// a save. Called with the lock held.
bool NoteChange(RegistryState& state) {
  ++state.changeCount;
  if (state.filePath.empty()) return false;
  return !state.saveBegun || SteadyClock::now() - state.lastSave >= state.saveInterval;
}

// Saves the attached file when a change is pending and, unless `force`, the
// last save is old enough. Called with `fileLock` held and the registry's lock
// free. Never throws.
bool SaveAttachedFileLocked(RegistryState& state, bool force, std::string* error) {
  std::string path;
  uint64_t upTo = 0;
  {
    std::lock_guard<std::mutex> guard(state.lock);
    if (state.filePath.empty() || state.changeCount == state.savedChangeCount) return true;
    const SteadyClock::time_point now = SteadyClock::now();
    if (!force && state.saveBegun && now - state.lastSave < state.saveInterval) return true;
    path = state.filePath;
    upTo = state.changeCount;
    state.saveBegun = true;
    state.lastSave = now;
    ++state.fileSaves;
  }
  std::string reason;
  bool saved = false;
  try {
    saved = SaveRegistryFile(path, &reason);
  } catch (const std::exception& e) {
    reason = path + ": " + e.what();
  } catch (...) {
    reason = path + ": save failed";
  }
  std::lock_guard<std::mutex> guard(state.lock);
  if (saved) {
    // Changes made while the file was written may or may not be in it: only
    // those counted before count as saved.
    if (upTo > state.savedChangeCount) state.savedChangeCount = upTo;
    state.fileError.clear();
  } else {
    state.fileError = reason;
    if (error != nullptr) *error = reason;
  }
  return saved;
}

// After a change that found the file due: saves it, unless another thread is
// saving (then the change stays pending). Called with the registry's lock free.
void SaveAttachedFileIfDue() {
  if (holdingFileLock) return;
  RegistryState& state = State();
  std::unique_lock<std::mutex> file(state.fileLock, std::try_to_lock);
  if (!file.owns_lock()) return;
  holdingFileLock = true;
  try {
    SaveAttachedFileLocked(state, false, nullptr);
  } catch (...) {
    // No memory for the bookkeeping: the change stays pending.
  }
  holdingFileLock = false;
}

bool ValueNameIsValid(std::u16string_view name) { return name.size() <= RegistryMaxValueNameChars; }

void CloseKeyHandle(void* object) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  delete static_cast<KeyHandleObject*>(object);
}

// Makes a handle on `key`. Called with the lock held.
HANDLE OpenKeyHandle(std::shared_ptr<RegistryKey> key) {
  return CreatePlatformHandle(HandleKind::RegistryKey, new KeyHandleObject{std::move(key)},
                              CloseKeyHandle);
}

// The key behind a handle, or null. Called with the lock held, which keeps
// the handle object alive while it is used.
RegistryKey* ReferenceKey(HANDLE handle) {
  auto* object =
      static_cast<KeyHandleObject*>(ReferencePlatformHandle(handle, HandleKind::RegistryKey));
  return object == nullptr ? nullptr : object->key.get();
}

std::shared_ptr<RegistryKey> ReferenceKeyShared(HANDLE handle) {
  auto* object =
      static_cast<KeyHandleObject*>(ReferencePlatformHandle(handle, HandleKind::RegistryKey));
  return object == nullptr ? nullptr : object->key;
}

size_t TerminatedLength(const WCHAR* text) {
  size_t length = 0;
  while (text[length] != 0) ++length;
  return length;
}

}  // namespace

// ---------------------------------------------------------------- driver calls

void RtlInitUnicodeString(UNICODE_STRING* string, const WCHAR* source) {
  if (string == nullptr) return;
  if (source == nullptr) {
    string->Length = 0;
    string->MaximumLength = 0;
    string->Buffer = nullptr;
    return;
  }
  // A counted string holds at most 32766 characters; longer text is cut there.
  size_t bytes = TerminatedLength(source) * sizeof(WCHAR);
  if (bytes > 0xFFFC) bytes = 0xFFFC;
  string->Length = static_cast<USHORT>(bytes);
  string->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
  string->Buffer = const_cast<WCHAR*>(source);
}

void InitializeObjectAttributes(OBJECT_ATTRIBUTES* attributes, UNICODE_STRING* name,
                                ULONG attributeFlags, HANDLE root, void* securityDescriptor) {
  if (attributes == nullptr) return;
  attributes->Length = sizeof(OBJECT_ATTRIBUTES);
  attributes->RootDirectory = root;
  attributes->ObjectName = name;
  attributes->Attributes = attributeFlags;
  attributes->SecurityDescriptor = securityDescriptor;
  attributes->SecurityQualityOfService = nullptr;
}

namespace {

// The body of ZwCreateKey under the lock; `changed` tells whether a key was made.
NTSTATUS CreateKeyLocked(RegistryState& state, HANDLE* keyHandle, OBJECT_ATTRIBUTES* attributes,
                         ULONG* disposition, bool* changed) {
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  if (keyHandle == nullptr || attributes == nullptr) return STATUS_INVALID_PARAMETER;

  std::u16string_view path;
  status = ReadCountedString(attributes->ObjectName, &path);
  if (!NT_SUCCESS(status)) return status;

  std::shared_ptr<RegistryKey> start;
  std::vector<std::u16string_view> levels;
  if (attributes->RootDirectory != nullptr) {
    start = ReferenceKeyShared(attributes->RootDirectory);
    if (start == nullptr) return STATUS_INVALID_HANDLE;
    status = SplitKeyPath(path, &levels);
  } else {
    start = state.root;
    status = SplitAbsolutePath(path, &levels);
  }
  if (!NT_SUCCESS(status)) return status;

  bool created = false;
  std::shared_ptr<RegistryKey> key = WalkKeyPath(std::move(start), levels, true, &created);
  if (key == nullptr) return STATUS_OBJECT_NAME_INVALID;
  *keyHandle = OpenKeyHandle(std::move(key));
  if (disposition != nullptr) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
  *changed = created;
  return STATUS_SUCCESS;
}

// Copies `size` bytes of a record field; the caller's buffer need not be aligned.
void PutWord(uint8_t* record, size_t offset, ULONG word) { std::memcpy(record + offset, &word, 4); }

NTSTATUS WritePartialRecord(const RegistryValue& value, uint8_t* out, ULONG length,
                            ULONG* resultLength) {
  constexpr size_t header = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
  const size_t needed = header + value.data.size();
  *resultLength = static_cast<ULONG>(needed);
  if (length < header) return STATUS_BUFFER_TOO_SMALL;
  PutWord(out, offsetof(KEY_VALUE_PARTIAL_INFORMATION, TitleIndex), 0);
  PutWord(out, offsetof(KEY_VALUE_PARTIAL_INFORMATION, Type), value.type);
  PutWord(out, offsetof(KEY_VALUE_PARTIAL_INFORMATION, DataLength),
          static_cast<ULONG>(value.data.size()));
  if (length < needed) return STATUS_BUFFER_OVERFLOW;
  if (!value.data.empty()) std::memcpy(out + header, value.data.data(), value.data.size());
  return STATUS_SUCCESS;
}

// The full record: the fixed words, the name, padding to a multiple of 4, the data.
NTSTATUS WriteFullRecord(const RegistryValue& value, uint8_t* out, ULONG length,
                         ULONG* resultLength) {
  constexpr size_t header = offsetof(KEY_VALUE_FULL_INFORMATION, Name);
  const size_t nameBytes = value.name.size() * sizeof(WCHAR);
  const size_t dataOffset = (header + nameBytes + 3) & ~size_t(3);
  const size_t needed = dataOffset + value.data.size();
  *resultLength = static_cast<ULONG>(needed);
  if (length < header) return STATUS_BUFFER_TOO_SMALL;
  PutWord(out, offsetof(KEY_VALUE_FULL_INFORMATION, TitleIndex), 0);
  PutWord(out, offsetof(KEY_VALUE_FULL_INFORMATION, Type), value.type);
  PutWord(out, offsetof(KEY_VALUE_FULL_INFORMATION, DataOffset), static_cast<ULONG>(dataOffset));
  PutWord(out, offsetof(KEY_VALUE_FULL_INFORMATION, DataLength),
          static_cast<ULONG>(value.data.size()));
  PutWord(out, offsetof(KEY_VALUE_FULL_INFORMATION, NameLength), static_cast<ULONG>(nameBytes));
  const size_t nameFits = std::min<size_t>(nameBytes, length - header);
  if (nameFits != 0) std::memcpy(out + header, value.name.data(), nameFits);
  if (length < needed) return STATUS_BUFFER_OVERFLOW;
  std::memset(out + header + nameBytes, 0, dataOffset - header - nameBytes);
  if (!value.data.empty()) std::memcpy(out + dataOffset, value.data.data(), value.data.size());
  return STATUS_SUCCESS;
}

NTSTATUS SetValueLocked(RegistryState& state, HANDLE keyHandle, UNICODE_STRING* valueName,
                        ULONG type, const void* data, ULONG dataSize, bool* changed) {
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  RegistryKey* key = ReferenceKey(keyHandle);
  if (key == nullptr) return STATUS_INVALID_HANDLE;
  if (data == nullptr && dataSize != 0) return STATUS_INVALID_PARAMETER;
  if (dataSize > RegistryMaxValueBytes) return STATUS_INVALID_PARAMETER;
  std::u16string_view name;
  status = ReadCountedString(valueName, &name);
  if (!NT_SUCCESS(status)) return status;
  if (!ValueNameIsValid(name)) return STATUS_INVALID_PARAMETER;
  *changed = StoreValue(*key, name, type, static_cast<const uint8_t*>(data), dataSize);
  return STATUS_SUCCESS;
}

NTSTATUS WriteAbsoluteLocked(RegistryState& state, ULONG relativeTo, const WCHAR* path,
                             const WCHAR* valueName, ULONG valueType, const void* valueData,
                             ULONG valueLength, bool* changed) {
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  // Only absolute paths are served; the optional flag concerns reads alone.
  if ((relativeTo & ~RTL_REGISTRY_OPTIONAL) != RTL_REGISTRY_ABSOLUTE) return STATUS_INVALID_PARAMETER;
  if (path == nullptr) return STATUS_INVALID_PARAMETER;
  if (valueData == nullptr && valueLength != 0) return STATUS_INVALID_PARAMETER;
  if (valueLength > RegistryMaxValueBytes) return STATUS_INVALID_PARAMETER;
  std::u16string_view name;
  if (valueName != nullptr) name = std::u16string_view(valueName, TerminatedLength(valueName));
  if (!ValueNameIsValid(name)) return STATUS_INVALID_PARAMETER;

  std::vector<std::u16string_view> levels;
  status = SplitAbsolutePath(std::u16string_view(path, TerminatedLength(path)), &levels);
  if (!NT_SUCCESS(status)) return status;
  bool created = false;
  std::shared_ptr<RegistryKey> key = WalkKeyPath(state.root, levels, true, &created);
  if (key == nullptr) return STATUS_OBJECT_NAME_INVALID;
  const bool stored =
      StoreValue(*key, name, valueType, static_cast<const uint8_t*>(valueData), valueLength);
  *changed = created || stored;
  return STATUS_SUCCESS;
}

NTSTATUS OpenDeviceKeyLocked(RegistryState& state, DEVICE_OBJECT* deviceObject,
                             ULONG devInstKeyType, HANDLE* keyHandle, bool* changed) {
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  if (deviceObject == nullptr || keyHandle == nullptr) return STATUS_INVALID_PARAMETER;
  // Only the software key of a device is kept here.
  if (devInstKeyType != PLUGPLAY_REGKEY_DRIVER) return STATUS_INVALID_PARAMETER;
  auto binding = state.deviceKeys.find(deviceObject);
  if (binding == state.deviceKeys.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
  // A bound key deleted since (by a loaded file) comes back empty.
  std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, binding->second, true, changed);
  if (key == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  *keyHandle = OpenKeyHandle(std::move(key));
  return STATUS_SUCCESS;
}

// Runs `body` under the registry's lock; when it reports a change that finds
// the attached file due, saves the file after the lock is let go.
template <typename Body>
auto WithChange(Body body) {
  RegistryState& state = State();
  bool saveDue = false;
  auto result = [&] {
    std::lock_guard<std::mutex> guard(state.lock);
    bool changed = false;
    auto inner = body(state, &changed);
    if (changed) saveDue = NoteChange(state);
    return inner;
  }();
  if (saveDue) SaveAttachedFileIfDue();
  return result;
}

}  // namespace

NTSTATUS ZwCreateKey(HANDLE* keyHandle, ACCESS_MASK desiredAccess, OBJECT_ATTRIBUTES* attributes,
                     ULONG titleIndex, UNICODE_STRING* keyClass, ULONG createOptions,
                     ULONG* disposition) {
  (void)desiredAccess;
  (void)titleIndex;
  (void)keyClass;
  (void)createOptions;
  return WithChange([&](RegistryState& state, bool* changed) {
    return CreateKeyLocked(state, keyHandle, attributes, disposition, changed);
  });
}

NTSTATUS ZwQueryValueKey(HANDLE keyHandle, UNICODE_STRING* valueName,
                         KEY_VALUE_INFORMATION_CLASS informationClass, void* information,
                         ULONG length, ULONG* resultLength) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  if (resultLength == nullptr) return STATUS_INVALID_PARAMETER;
  if (information == nullptr && length != 0) return STATUS_INVALID_PARAMETER;
  RegistryKey* key = ReferenceKey(keyHandle);
  if (key == nullptr) return STATUS_INVALID_HANDLE;
  // The driver asks for the full record, its tests also for the partial one;
  // the basic record is not kept here.
  if (informationClass == KeyValueBasicInformation) return STATUS_NOT_IMPLEMENTED;
  if (informationClass != KeyValuePartialInformation &&
      informationClass != KeyValueFullInformation) {
    return STATUS_INVALID_PARAMETER;
  }

  std::u16string_view name;
  status = ReadCountedString(valueName, &name);
  if (!NT_SUCCESS(status)) return status;
  const RegistryValue* value = FindValue(*key, name);
  if (value == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  auto* out = static_cast<uint8_t*>(information);
  return informationClass == KeyValueFullInformation
             ? WriteFullRecord(*value, out, length, resultLength)
             : WritePartialRecord(*value, out, length, resultLength);
}

NTSTATUS ZwSetValueKey(HANDLE keyHandle, UNICODE_STRING* valueName, ULONG titleIndex, ULONG type,
                       const void* data, ULONG dataSize) {
  (void)titleIndex;
  return WithChange([&](RegistryState& state, bool* changed) {
    return SetValueLocked(state, keyHandle, valueName, type, data, dataSize, changed);
  });
}

NTSTATUS RtlWriteRegistryValue(ULONG relativeTo, const WCHAR* path, const WCHAR* valueName,
                               ULONG valueType, const void* valueData, ULONG valueLength) {
  return WithChange([&](RegistryState& state, bool* changed) {
    return WriteAbsoluteLocked(state, relativeTo, path, valueName, valueType, valueData,
                               valueLength, changed);
  });
}

NTSTATUS IoOpenDeviceRegistryKey(DEVICE_OBJECT* deviceObject, ULONG devInstKeyType,
                                 ACCESS_MASK desiredAccess, HANDLE* keyHandle) {
  (void)desiredAccess;
  return WithChange([&](RegistryState& state, bool* changed) {
    return OpenDeviceKeyLocked(state, deviceObject, devInstKeyType, keyHandle, changed);
  });
}

NTSTATUS IoGetDeviceProperty(DEVICE_OBJECT* deviceObject, DEVICE_REGISTRY_PROPERTY property,
                             ULONG bufferLength, void* buffer, ULONG* resultLength) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  if (deviceObject == nullptr || resultLength == nullptr) return STATUS_INVALID_PARAMETER;
  if (buffer == nullptr && bufferLength != 0) return STATUS_INVALID_PARAMETER;
  if (property != DevicePropertyDriverKeyName) return STATUS_INVALID_PARAMETER_2;
  auto binding = state.deviceKeys.find(deviceObject);
  if (binding == state.deviceKeys.end()) return STATUS_OBJECT_NAME_NOT_FOUND;

  std::u16string_view name = binding->second;
  const std::u16string_view classKey = DeviceClassKeyPath;
  if (name.size() > classKey.size() && SameName(name.substr(0, classKey.size()), classKey)) {
    name.remove_prefix(classKey.size());
  }
  const size_t needed = (name.size() + 1) * sizeof(WCHAR);
  *resultLength = static_cast<ULONG>(needed);
  if (bufferLength < needed) return STATUS_BUFFER_TOO_SMALL;
  auto* out = static_cast<uint8_t*>(buffer);
  std::memcpy(out, name.data(), name.size() * sizeof(WCHAR));
  std::memset(out + name.size() * sizeof(WCHAR), 0, sizeof(WCHAR));
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------- controls

void ResetRegistry() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> file(state.fileLock);
  RegistrySaveStopBeforeRename(false);
  std::lock_guard<std::mutex> guard(state.lock);
  state.root = MakeEmptyTree();
  state.deviceKeys.clear();
  state.callCount = 0;
  state.failAt = 0;
  state.failEvery = false;
  state.failStatus = STATUS_SUCCESS;
  state.filePath.clear();
  state.savedChangeCount = state.changeCount;
  state.saveBegun = false;
  state.saveInterval = kDefaultSaveInterval;
  state.fileSaves = 0;
  state.fileError.clear();
}

std::u16string DeviceSoftwareKeyPath(uint32_t instance) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%04u", static_cast<unsigned>(instance));
  return std::u16string(DeviceClassKeyPath) + ImageDeviceClassGuid + u"\\" + U16(digits);
}

bool BindDeviceRegistryKey(DEVICE_OBJECT* pdo, const std::u16string& absolutePath) {
  if (pdo == nullptr) return false;
  return WithChange([&](RegistryState& state, bool* changed) {
    if (FindAbsoluteKey(state, absolutePath, true, changed) == nullptr) return false;
    state.deviceKeys[pdo] = absolutePath;
    return true;
  });
}

void UnbindDeviceRegistryKey(DEVICE_OBJECT* pdo) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  state.deviceKeys.erase(pdo);
}

std::u16string DeviceRegistryKeyPath(DEVICE_OBJECT* pdo) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  auto binding = state.deviceKeys.find(pdo);
  return binding == state.deviceKeys.end() ? std::u16string() : binding->second;
}

bool SetRegistryValue(const std::u16string& path, const std::u16string& name, ULONG type,
                      const std::vector<uint8_t>& data) {
  if (!ValueNameIsValid(name) || data.size() > RegistryMaxValueBytes) return false;
  return WithChange([&](RegistryState& state, bool* changed) {
    bool created = false;
    std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, path, true, &created);
    if (key == nullptr) return false;
    const bool stored = StoreValue(*key, name, type, data.data(), data.size());
    *changed = created || stored;
    return true;
  });
}
bool GetRegistryValue(const std::u16string& path, const std::u16string& name,
                      RegistryValueEntry* value) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, path, false);
  if (key == nullptr) return false;
  const RegistryValue* stored = FindValue(*key, name);
  if (stored == nullptr) return false;
  if (value != nullptr) *value = RegistryValueEntry{stored->name, stored->type, stored->data};
  return true;
}

bool SetRegistryDword(const std::u16string& path, const std::u16string& name, uint32_t value) {
  std::vector<uint8_t> bytes(4);
  std::memcpy(bytes.data(), &value, 4);
  return SetRegistryValue(path, name, REG_DWORD, bytes);
}

bool GetRegistryDword(const std::u16string& path, const std::u16string& name, uint32_t* value) {
  RegistryValueEntry entry;
  if (!GetRegistryValue(path, name, &entry) || entry.data.size() != 4) return false;
  if (value != nullptr) std::memcpy(value, entry.data.data(), 4);
  return true;
}

bool SetRegistryString(const std::u16string& path, const std::u16string& name,
                       const std::u16string& value) {
  // Little-endian UTF-16 with its terminating zero, as a REG_SZ is stored.
  std::vector<uint8_t> bytes;
  bytes.reserve((value.size() + 1) * sizeof(char16_t));
  for (char16_t c : value) {
    bytes.push_back(uint8_t(c));
    bytes.push_back(uint8_t(c >> 8));
  }
  bytes.push_back(0);
  bytes.push_back(0);
  return SetRegistryValue(path, name, REG_SZ, bytes);
}

bool GetRegistryString(const std::u16string& path, const std::u16string& name,
                       std::u16string* value) {
  RegistryValueEntry entry;
  if (!GetRegistryValue(path, name, &entry) || entry.type != REG_SZ) return false;
  std::u16string text(entry.data.size() / sizeof(char16_t), u'\0');
  std::memcpy(text.data(), entry.data.data(), text.size() * sizeof(char16_t));
  size_t end = text.find(u'\0');
  if (end != std::u16string::npos) text.resize(end);
  if (value != nullptr) *value = std::move(text);
  return true;
}

bool SetRegistryBinary(const std::u16string& path, const std::u16string& name,
                       const std::vector<uint8_t>& value) {
  return SetRegistryValue(path, name, REG_BINARY, value);
}

bool GetRegistryBinary(const std::u16string& path, const std::u16string& name,
                       std::vector<uint8_t>* value) {
  RegistryValueEntry entry;
  if (!GetRegistryValue(path, name, &entry)) return false;
  if (value != nullptr) *value = std::move(entry.data);
  return true;
}

bool RegistryKeyExists(const std::u16string& path) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  return FindAbsoluteKey(state, path, false) != nullptr;
}

bool CreateRegistryKeyPath(const std::u16string& path) {
  return WithChange([&](RegistryState& state, bool* changed) {
    return FindAbsoluteKey(state, path, true, changed) != nullptr;
  });
}
bool ListRegistrySubKeys(const std::u16string& path, std::vector<std::u16string>* names) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, path, false);
  if (key == nullptr) return false;
  if (names != nullptr) {
    names->clear();
    for (const auto& child : key->children) names->push_back(child.second->name);
  }
  return true;
}

bool ListRegistryValues(const std::u16string& path, std::vector<RegistryValueEntry>* values) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, path, false);
  if (key == nullptr) return false;
  if (values != nullptr) {
    values->clear();
    for (const RegistryValue& value : key->values) {
      values->push_back(RegistryValueEntry{value.name, value.type, value.data});
    }
  }
  return true;
}

void RegistryFailOperation(uint64_t nth, NTSTATUS status, bool every) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  state.failAt = nth == 0 ? 0 : state.callCount + nth;
  state.failEvery = nth != 0 && every;
  state.failStatus = status;
}

uint64_t RegistryCallCount() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  return state.callCount;
}

std::u16string U16(std::string_view ascii) {
  std::u16string text;
  text.reserve(ascii.size());
  for (char c : ascii) text.push_back(static_cast<char16_t>(static_cast<unsigned char>(c)));
  return text;
}

std::string NarrowAscii(std::u16string_view text) {
  std::string narrow;
  narrow.reserve(text.size());
  for (char16_t c : text) narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  return narrow;
}

// ---------------------------------------------------------------- snapshots and batches

namespace {

void CopyKey(const RegistryKey& key, RegistryKeySnapshot* snapshot) {
  snapshot->name = key.name;
  snapshot->values.clear();
  snapshot->values.reserve(key.values.size());
  for (const RegistryValue& value : key.values) {
    snapshot->values.push_back(RegistryValueEntry{value.name, value.type, value.data});
  }
  snapshot->subKeys.resize(key.children.size());
  size_t i = 0;
  for (const auto& child : key.children) CopyKey(*child.second, &snapshot->subKeys[i++]);
}

// Checks one edit as ApplyRegistryEdits would apply it. `pathChecked`: the
// path is the one of the edit before, already found good.
bool EditIsValid(const RegistryEdit& edit, bool pathChecked) {
  std::vector<std::u16string_view> levels;
  if (!pathChecked || edit.kind == RegistryEdit::DeleteKey) {
    if (!NT_SUCCESS(SplitAbsolutePath(edit.path, &levels))) return false;
    if (levels.size() > RegistryMaxKeyDepth) return false;
  }
  switch (edit.kind) {
    case RegistryEdit::CreateKey:
      return true;
    case RegistryEdit::DeleteKey:
      return levels.size() >= 2;  // not \REGISTRY, not \REGISTRY\MACHINE
    case RegistryEdit::SetValue:
      return ValueNameIsValid(edit.name) && edit.data.size() <= RegistryMaxValueBytes;
    case RegistryEdit::DeleteValue:
      return ValueNameIsValid(edit.name);
  }
  return false;
}

// Applies checked edits; tells whether the tree changed. Called with the lock held.
bool ApplyEditsLocked(RegistryState& state, const std::vector<RegistryEdit>& edits) {
  bool changed = false;
  // A file sets many values of one key in a row: keep the last key found.
  const std::u16string* lastPath = nullptr;
  std::shared_ptr<RegistryKey> lastKey;
  auto keyAt = [&](const std::u16string& path, bool create) {
    if (lastPath != nullptr && *lastPath == path) return lastKey;
    bool created = false;
    std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, path, create, &created);
    changed = changed || created;
    if (key != nullptr) {
      lastPath = &path;
      lastKey = key;
    }
    return key;
  };
  for (const RegistryEdit& edit : edits) {
    switch (edit.kind) {
      case RegistryEdit::CreateKey:
        keyAt(edit.path, true);
        break;
      case RegistryEdit::SetValue: {
        std::shared_ptr<RegistryKey> key = keyAt(edit.path, true);
        if (key != nullptr && StoreValue(*key, edit.name, edit.type, edit.data.data(),
                                         edit.data.size())) {
          changed = true;
        }
        break;
      }
      case RegistryEdit::DeleteValue: {
        std::shared_ptr<RegistryKey> key = keyAt(edit.path, false);
        if (key == nullptr) break;
        for (auto it = key->values.begin(); it != key->values.end(); ++it) {
          if (SameName(it->name, edit.name)) {
            key->values.erase(it);
            changed = true;
            break;
          }
        }
        break;
      }
      case RegistryEdit::DeleteKey: {
        std::vector<std::u16string_view> levels;
        SplitAbsolutePath(edit.path, &levels);
        const std::u16string last = FoldName(levels.back());
        levels.pop_back();
        std::shared_ptr<RegistryKey> parent = WalkKeyPath(state.root, levels, false, nullptr);
        if (parent != nullptr && parent->children.erase(last) != 0) changed = true;
        lastPath = nullptr;
        lastKey.reset();
        break;
      }
    }
  }
  return changed;
}

}  // namespace

bool SnapshotRegistryKey(const std::u16string& path, RegistryKeySnapshot* snapshot,
                         std::u16string* storedPath) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  std::vector<std::u16string_view> levels;
  if (!NT_SUCCESS(SplitAbsolutePath(path, &levels))) return false;
  std::shared_ptr<RegistryKey> key = state.root;
  std::u16string stored = u"\\" + key->name;
  for (std::u16string_view level : levels) {
    auto it = key->children.find(FoldName(level));
    if (it == key->children.end()) return false;
    key = it->second;
    stored += u"\\" + key->name;
  }
  if (snapshot != nullptr) CopyKey(*key, snapshot);
  if (storedPath != nullptr) *storedPath = std::move(stored);
  return true;
}

bool ApplyRegistryEdits(const std::vector<RegistryEdit>& edits, size_t* failed) {
  for (size_t i = 0; i < edits.size(); ++i) {
    if (!EditIsValid(edits[i], i > 0 && edits[i].path == edits[i - 1].path)) {
      if (failed != nullptr) *failed = i;
      return false;
    }
  }
  return WithChange([&](RegistryState& state, bool* changed) {
    *changed = ApplyEditsLocked(state, edits);
    return true;
  });
}

// ---------------------------------------------------------------- the attached file

namespace {

// Marks the calling thread as holding `fileLock` for as long as it lives.
struct FileLockHeld {
  FileLockHeld() { holdingFileLock = true; }
  ~FileLockHeld() { holdingFileLock = false; }
};

void FlushAtExit() {
  std::string error;
  if (!FlushRegistryFile(&error)) std::fprintf(stderr, "registry: %s\n", error.c_str());
}

}  // namespace

bool AttachRegistryFile(const std::string& hostPath, std::string* error) {
  RegistryState& state = State();
  try {
    std::lock_guard<std::mutex> file(state.fileLock);
    FileLockHeld held;
    // The file attached before keeps what was pending for it.
    SaveAttachedFileLocked(state, true, nullptr);
    {
      std::lock_guard<std::mutex> guard(state.lock);
      state.filePath.clear();
    }
    std::error_code code;
    const bool exists = std::filesystem::exists(hostPath, code);
    if (code) {
      if (error != nullptr) *error = hostPath + ": " + code.message();
      return false;
    }
    if (exists && !LoadRegistryFile(hostPath, error)) return false;
    {
      std::lock_guard<std::mutex> guard(state.lock);
      state.filePath = hostPath;
      state.savedChangeCount = state.changeCount;
      state.saveBegun = false;
      state.fileSaves = 0;
      state.fileError.clear();
    }
    static std::once_flag exitHandler;
    std::call_once(exitHandler, [] { std::atexit(FlushAtExit); });
    return true;
  } catch (const std::exception& e) {
    if (error != nullptr) *error = hostPath + ": " + e.what();
    return false;
  }
}

bool FlushRegistryFile(std::string* error) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> file(state.fileLock);
  FileLockHeld held;
  return SaveAttachedFileLocked(state, true, error);
}

void DetachRegistryFile() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> file(state.fileLock);
  FileLockHeld held;
  SaveAttachedFileLocked(state, true, nullptr);
  std::lock_guard<std::mutex> guard(state.lock);
  state.filePath.clear();
  state.saveBegun = false;
}

std::string AttachedRegistryFile() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  return state.filePath;
}

uint64_t RegistryFileSaveCount() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  return state.fileSaves;
}

std::string RegistryFileLastError() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  return state.fileError;
}

void SetRegistrySaveInterval(std::chrono::milliseconds interval) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  state.saveInterval = interval;
}
