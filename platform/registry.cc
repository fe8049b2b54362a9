// The registry: one in-memory tree of keys under \REGISTRY, each key holding
// its sub keys by upper-cased name and its values in the order they were
// first written. One mutex guards the tree, the device bindings and the fault
// injection state; every call of the driver takes it once.
//
// A key handle holds a shared reference to its key, so a key stays usable for
// as long as a handle is open on it, even across ResetRegistry.

#include <cstddef>
#include <cstring>
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

struct RegistryState {
  std::mutex lock;
  std::shared_ptr<RegistryKey> root;  // \REGISTRY
  std::map<DEVICE_OBJECT*, std::u16string> deviceKeys;
  uint64_t callCount = 0;
  uint64_t failAt = 0;  // call number that fails, 0 for none
  bool failEvery = false;
  NTSTATUS failStatus = STATUS_SUCCESS;
};

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
                                             bool create) {
  std::vector<std::u16string_view> levels;
  if (!NT_SUCCESS(SplitAbsolutePath(path, &levels))) return nullptr;
  return WalkKeyPath(state.root, levels, create, nullptr);
}

RegistryValue* FindValue(RegistryKey& key, std::u16string_view name) {
  for (RegistryValue& value : key.values) {
    if (SameName(value.name, name)) return &value;
  }
  return nullptr;
}

void StoreValue(RegistryKey& key, std::u16string_view name, ULONG type, const uint8_t* data,
                size_t size) {
  RegistryValue* value = FindValue(key, name);
  if (value == nullptr) {
    key.values.push_back(RegistryValue{std::u16string(name), type, {}});
    value = &key.values.back();
  }
  value->type = type;
  value->data.assign(data, data + size);
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

NTSTATUS ZwCreateKey(HANDLE* keyHandle, ACCESS_MASK desiredAccess, OBJECT_ATTRIBUTES* attributes,
                     ULONG titleIndex, UNICODE_STRING* keyClass, ULONG createOptions,
                     ULONG* disposition) {
  (void)desiredAccess;
  (void)titleIndex;
  (void)keyClass;
  (void)createOptions;
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
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
  return STATUS_SUCCESS;
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
  // Only the partial record is kept here; the basic and full records are not.
  if (informationClass == KeyValueBasicInformation || informationClass == KeyValueFullInformation) {
    return STATUS_NOT_IMPLEMENTED;
  }
  if (informationClass != KeyValuePartialInformation) return STATUS_INVALID_PARAMETER;

  std::u16string_view name;
  status = ReadCountedString(valueName, &name);
  if (!NT_SUCCESS(status)) return status;
  const RegistryValue* value = FindValue(*key, name);
  if (value == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;

  constexpr size_t header = offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data);
  const size_t needed = header + value->data.size();
  *resultLength = static_cast<ULONG>(needed);
  if (length < header) return STATUS_BUFFER_TOO_SMALL;

  // The caller's buffer need not be aligned: fields are copied byte-wise.
  auto* out = static_cast<uint8_t*>(information);
  const ULONG titleIndex = 0;
  const ULONG dataLength = static_cast<ULONG>(value->data.size());
  std::memcpy(out + offsetof(KEY_VALUE_PARTIAL_INFORMATION, TitleIndex), &titleIndex, 4);
  std::memcpy(out + offsetof(KEY_VALUE_PARTIAL_INFORMATION, Type), &value->type, 4);
  std::memcpy(out + offsetof(KEY_VALUE_PARTIAL_INFORMATION, DataLength), &dataLength, 4);
  if (length < needed) return STATUS_BUFFER_OVERFLOW;
  if (!value->data.empty()) std::memcpy(out + header, value->data.data(), value->data.size());
  return STATUS_SUCCESS;
}

NTSTATUS ZwSetValueKey(HANDLE keyHandle, UNICODE_STRING* valueName, ULONG titleIndex, ULONG type,
                       const void* data, ULONG dataSize) {
  (void)titleIndex;
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
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
  StoreValue(*key, name, type, static_cast<const uint8_t*>(data), dataSize);
  return STATUS_SUCCESS;
}

NTSTATUS RtlWriteRegistryValue(ULONG relativeTo, const WCHAR* path, const WCHAR* valueName,
                               ULONG valueType, const void* valueData, ULONG valueLength) {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
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
  std::shared_ptr<RegistryKey> key = WalkKeyPath(state.root, levels, true, nullptr);
  if (key == nullptr) return STATUS_OBJECT_NAME_INVALID;
  StoreValue(*key, name, valueType, static_cast<const uint8_t*>(valueData), valueLength);
  return STATUS_SUCCESS;
}

NTSTATUS IoOpenDeviceRegistryKey(DEVICE_OBJECT* deviceObject, ULONG devInstKeyType,
                                 ACCESS_MASK desiredAccess, HANDLE* keyHandle) {
  (void)desiredAccess;
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  NTSTATUS status = CountRegistryCall(state);
  if (!NT_SUCCESS(status)) return status;
  if (deviceObject == nullptr || keyHandle == nullptr) return STATUS_INVALID_PARAMETER;
  // Only the software key of a device is kept here.
  if (devInstKeyType != PLUGPLAY_REGKEY_DRIVER) return STATUS_INVALID_PARAMETER;
  auto binding = state.deviceKeys.find(deviceObject);
  if (binding == state.deviceKeys.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
  std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, binding->second, true);
  if (key == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  *keyHandle = OpenKeyHandle(std::move(key));
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------- controls

void ResetRegistry() {
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  state.root = MakeEmptyTree();
  state.deviceKeys.clear();
  state.callCount = 0;
  state.failAt = 0;
  state.failEvery = false;
  state.failStatus = STATUS_SUCCESS;
}

bool BindDeviceRegistryKey(DEVICE_OBJECT* pdo, const std::u16string& absolutePath) {
  if (pdo == nullptr) return false;
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  if (FindAbsoluteKey(state, absolutePath, true) == nullptr) return false;
  state.deviceKeys[pdo] = absolutePath;
  return true;
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
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  std::shared_ptr<RegistryKey> key = FindAbsoluteKey(state, path, true);
  if (key == nullptr) return false;
  StoreValue(*key, name, type, data.data(), data.size());
  return true;
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
  RegistryState& state = State();
  std::lock_guard<std::mutex> guard(state.lock);
  return FindAbsoluteKey(state, path, true) != nullptr;
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
