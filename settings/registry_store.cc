#include "settings/registry_store.h"

void WriteRegistryDword(HANDLE key, const WCHAR* name, uint32_t value) {
  UNICODE_STRING valueName;
  RtlInitUnicodeString(&valueName, name);
  ZwSetValueKey(key, &valueName, 0, REG_DWORD, &value, sizeof value);
}
