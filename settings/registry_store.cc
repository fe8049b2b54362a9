// The registry store. Every operation opens the keys it needs and closes
// them before it returns; the registry serialises the rest.

#include "settings/registry_store.h"

#include <cstring>

const WCHAR ServiceKeyName[] = u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\DCamUSBMora";

namespace {

// Room the full-information record needs besides the data and the name.
constexpr uint32_t QueryRecordSlack = 86;

uint32_t WideLength(const WCHAR* text) {
  uint32_t length = 0;
  while (text[length] != 0) ++length;
  return length;
}

NTSTATUS CreateOneKey(HANDLE parent, ACCESS_MASK access, UNICODE_STRING* name, HANDLE* key) {
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, name, OBJ_CASE_INSENSITIVE, parent, nullptr);
  return ZwCreateKey(key, access, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE, nullptr);
}

}  // namespace

NTSTATUS CreateRegistrySubKey(HANDLE parent, ACCESS_MASK access, const WCHAR* path, HANDLE* key) {
  // The walk writes terminators into a copy of the path: the caller's text
  // may be a constant.
  WCHAR text[512];
  uint32_t length = WideLength(path);
  if (length >= sizeof text / sizeof text[0]) return STATUS_OBJECT_NAME_INVALID;
  std::memcpy(text, path, (length + 1) * sizeof(WCHAR));

  // Create each level on the way, from the start of the path, so that a\b\c
  // is three creates of a, a\b and a\b\c. The first character never ends a
  // level.
  for (uint32_t i = 1; i < length; ++i) {
    if (text[i] != u'\\') continue;
    text[i] = 0;
    UNICODE_STRING level;
    RtlInitUnicodeString(&level, text);
    HANDLE levelKey = nullptr;
    NTSTATUS status = CreateOneKey(parent, access, &level, &levelKey);
    text[i] = u'\\';
    if (!NT_SUCCESS(status)) return status;
    ZwClose(levelKey);
  }
  UNICODE_STRING whole;
  RtlInitUnicodeString(&whole, text);
  return CreateOneKey(parent, access, &whole, key);
}

NTSTATUS QueryRegistryValue(HANDLE key, const WCHAR* name, void* buffer, uint32_t* length) {
  uint32_t wanted = *length;
  uint32_t recordBytes = wanted + 2 * (WideLength(name) + 1) + QueryRecordSlack;
  auto* record = static_cast<KEY_VALUE_FULL_INFORMATION*>(
      ExAllocatePoolWithTag(PagedPool, recordBytes, PoolTagWdm));
  if (record == nullptr) return STATUS_INSUFFICIENT_RESOURCES;

  UNICODE_STRING valueName;
  RtlInitUnicodeString(&valueName, name);
  ULONG resultLength = 0;
  NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValueFullInformation, record, recordBytes,
                                    &resultLength);
  if (NT_SUCCESS(status)) {
    // A stored value longer than the caller's buffer is cut to it: the
    // store never writes past its destination.
    uint32_t copy = record->DataLength < wanted ? record->DataLength : wanted;
    std::memcpy(buffer, reinterpret_cast<const uint8_t*>(record) + record->DataOffset, copy);
    *length = record->DataLength;
  }
  ExFreePool(record);
  return status;
}

uint32_t ReadRegistryDword(HANDLE key, const WCHAR* name, uint32_t defaultValue) {
  uint32_t value[2] = {defaultValue, 0};
  uint32_t length = sizeof value;
  QueryRegistryValue(key, name, value, &length);
  return value[0];
}

void WriteRegistryDword(HANDLE key, const WCHAR* name, uint32_t value) {
  UNICODE_STRING valueName;
  RtlInitUnicodeString(&valueName, name);
  ZwSetValueKey(key, &valueName, 0, REG_DWORD, &value, sizeof value);
}

BOOLEAN WriteServiceDword(const WCHAR* path, const WCHAR* name, const uint32_t* value) {
  NTSTATUS status = RtlWriteRegistryValue(RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL, path, name,
                                          REG_DWORD, value, sizeof *value);
  return NT_SUCCESS(status) ? TRUE : FALSE;
}

NTSTATUS OpenDeviceKey(DeviceContext* context, HANDLE* key) {
  return IoOpenDeviceRegistryKey(context->PhysicalDeviceObject, PLUGPLAY_REGKEY_DRIVER,
                                 DeviceKeyAccess, key);
}

NTSTATUS OpenSensorRootKey(DeviceContext* context, HANDLE* rootKey) {
  HANDLE deviceKey = nullptr;
  NTSTATUS status = OpenDeviceKey(context, &deviceKey);
  if (!NT_SUCCESS(status)) return status;
  if (context->SensorName[0] == 0) {
    *rootKey = deviceKey;
    return status;
  }
  // SensorName is a fixed field; a name that fills it has no terminator.
  WCHAR name[SensorNameChars + 1];
  std::memcpy(name, context->SensorName, sizeof context->SensorName);
  name[SensorNameChars] = 0;
  status = CreateRegistrySubKey(deviceKey, SubKeyAccess, name, rootKey);
  ZwClose(deviceKey);
  return status;
}

NTSTATUS OpenSensorSubKey(DeviceContext* context, const WCHAR* path, HANDLE* key) {
  HANDLE root = nullptr;
  NTSTATUS status = OpenSensorRootKey(context, &root);
  if (!NT_SUCCESS(status)) return status;
  status = CreateRegistrySubKey(root, SubKeyAccess, path, key);
  ZwClose(root);
  return status;
}
