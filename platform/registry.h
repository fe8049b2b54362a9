// The registry as the driver calls it: keys opened by path (created when
// missing), values of type REG_DWORD, REG_SZ and REG_BINARY, the device's
// software key and its driver key name, and absolute writes to the service
// key. Key names compare without regard to case. Key handles close with
// ZwClose.
#pragma once

#include <cstdint>

#include "platform/kernel.h"

struct DEVICE_OBJECT;

typedef uint32_t ACCESS_MASK;
constexpr ACCESS_MASK KEY_ALL_ACCESS = 0xF003F;
constexpr ACCESS_MASK KEY_READ = 0x20019;

constexpr ULONG REG_NONE = 0;
constexpr ULONG REG_SZ = 1;
constexpr ULONG REG_BINARY = 3;
constexpr ULONG REG_DWORD = 4;

constexpr ULONG REG_OPTION_NON_VOLATILE = 0;
constexpr ULONG REG_CREATED_NEW_KEY = 1;
constexpr ULONG REG_OPENED_EXISTING_KEY = 2;

constexpr ULONG OBJ_CASE_INSENSITIVE = 0x40;
constexpr ULONG OBJ_KERNEL_HANDLE = 0x200;

constexpr ULONG PLUGPLAY_REGKEY_DEVICE = 1;
constexpr ULONG PLUGPLAY_REGKEY_DRIVER = 2;

constexpr ULONG RTL_REGISTRY_ABSOLUTE = 0;
constexpr ULONG RTL_REGISTRY_OPTIONAL = 0x80000000;

struct UNICODE_STRING {
  USHORT Length;         // bytes, without a terminating zero
  USHORT MaximumLength;  // bytes
  WCHAR* Buffer;
};

// Points `string` at the zero-terminated `source` (null gives an empty string).
void RtlInitUnicodeString(UNICODE_STRING* string, const WCHAR* source);

struct OBJECT_ATTRIBUTES {
  ULONG Length;
  HANDLE RootDirectory;  // key the name is relative to, or null for an absolute path
  UNICODE_STRING* ObjectName;
  ULONG Attributes;
  void* SecurityDescriptor;
  void* SecurityQualityOfService;
};

void InitializeObjectAttributes(OBJECT_ATTRIBUTES* attributes, UNICODE_STRING* name,
                                ULONG attributeFlags, HANDLE root, void* securityDescriptor);

enum KEY_VALUE_INFORMATION_CLASS : int32_t {
  KeyValueBasicInformation = 0,
  KeyValueFullInformation = 1,
  KeyValuePartialInformation = 2,
};

struct KEY_VALUE_PARTIAL_INFORMATION {
  ULONG TitleIndex;
  ULONG Type;
  ULONG DataLength;
  UCHAR Data[1];
};

// The value's name (NameLength bytes, no terminator) follows the fixed words;
// the data follows the name at DataOffset from the start of the record,
// rounded up to a multiple of 4.
struct KEY_VALUE_FULL_INFORMATION {
  ULONG TitleIndex;
  ULONG Type;
  ULONG DataOffset;
  ULONG DataLength;
  ULONG NameLength;
  WCHAR Name[1];
};

enum DEVICE_REGISTRY_PROPERTY : int32_t {
  DevicePropertyDeviceDescription = 0,
  DevicePropertyHardwareID = 1,
  DevicePropertyCompatibleIDs = 2,
  DevicePropertyBootConfiguration = 3,
  DevicePropertyBootConfigurationTranslated = 4,
  DevicePropertyClassName = 5,
  DevicePropertyClassGuid = 6,
  DevicePropertyDriverKeyName = 7,
};

// Opens the key named by `attributes` (relative to its RootDirectory, or an
// absolute "\REGISTRY\MACHINE\..." path), creating it and every missing level.
NTSTATUS ZwCreateKey(HANDLE* keyHandle, ACCESS_MASK desiredAccess, OBJECT_ATTRIBUTES* attributes,
                     ULONG titleIndex, UNICODE_STRING* keyClass, ULONG createOptions,
                     ULONG* disposition);
// Reads a value as KEY_VALUE_PARTIAL_INFORMATION or KEY_VALUE_FULL_INFORMATION.
// `length` too small for the fixed words gives STATUS_BUFFER_TOO_SMALL (nothing
// written), too small for the whole record STATUS_BUFFER_OVERFLOW (the fixed
// words written, and of the full record as much of the name as fits);
// `resultLength` then holds the size needed. A value that doesn't exist gives
// STATUS_OBJECT_NAME_NOT_FOUND. The basic record is not served.
NTSTATUS ZwQueryValueKey(HANDLE keyHandle, UNICODE_STRING* valueName,
                         KEY_VALUE_INFORMATION_CLASS informationClass, void* information,
                         ULONG length, ULONG* resultLength);
NTSTATUS ZwSetValueKey(HANDLE keyHandle, UNICODE_STRING* valueName, ULONG titleIndex, ULONG type,
                       const void* data, ULONG dataSize);
// Writes a value below an absolute path ("\REGISTRY\MACHINE\..."), creating
// the key when missing.
NTSTATUS RtlWriteRegistryValue(ULONG relativeTo, const WCHAR* path, const WCHAR* valueName,
                               ULONG valueType, const void* valueData, ULONG valueLength);
// Opens the software (driver) key of a device.
NTSTATUS IoOpenDeviceRegistryKey(DEVICE_OBJECT* deviceObject, ULONG devInstKeyType,
                                 ACCESS_MASK desiredAccess, HANDLE* keyHandle);
// Serves DevicePropertyDriverKeyName only: the path of the device's software
// key below "\REGISTRY\MACHINE\SYSTEM\CurrentControlSet\Control\Class\"
// ("{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\0000"), zero-terminated;
// `resultLength` gets its size in bytes with the terminator. A software key
// bound elsewhere gives its whole absolute path. A buffer too small gives
// STATUS_BUFFER_TOO_SMALL and is left alone, another property
// STATUS_INVALID_PARAMETER_2, a device without a software key
// STATUS_OBJECT_NAME_NOT_FOUND.
NTSTATUS IoGetDeviceProperty(DEVICE_OBJECT* deviceObject, DEVICE_REGISTRY_PROPERTY property,
                             ULONG bufferLength, void* buffer, ULONG* resultLength);
