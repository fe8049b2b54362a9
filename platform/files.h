// Files as the driver opens and reads them: ZwCreateFile on an object name
// "\??\C:\..." and ZwReadFile at an explicit byte offset. A drive letter maps
// onto a folder of the host (platform/files_control.h). File handles close
// with ZwClose.
#pragma once

#include <cstdint>

#include "platform/kernel.h"
#include "platform/registry.h"  // ACCESS_MASK, UNICODE_STRING, OBJECT_ATTRIBUTES

constexpr ACCESS_MASK FILE_READ_DATA = 0x0001;
constexpr ACCESS_MASK FILE_WRITE_DATA = 0x0002;
constexpr ACCESS_MASK SYNCHRONIZE = 0x00100000;
constexpr ACCESS_MASK GENERIC_READ = 0x80000000;

constexpr ULONG FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr ULONG FILE_SHARE_READ = 0x1;
constexpr ULONG FILE_SHARE_WRITE = 0x2;

// Dispositions.
constexpr ULONG FILE_SUPERSEDE = 0;
constexpr ULONG FILE_OPEN = 1;
constexpr ULONG FILE_CREATE = 2;
constexpr ULONG FILE_OPEN_IF = 3;
constexpr ULONG FILE_OVERWRITE = 4;
constexpr ULONG FILE_OVERWRITE_IF = 5;

// Create options.
constexpr ULONG FILE_SYNCHRONOUS_IO_NONALERT = 0x20;
constexpr ULONG FILE_NON_DIRECTORY_FILE = 0x40;

struct IO_STATUS_BLOCK {
  NTSTATUS Status;
  uint64_t Information;  // bytes read; for a create FILE_OPENED or FILE_CREATED
};

constexpr uint64_t FILE_OPENED = 1;
constexpr uint64_t FILE_CREATED = 2;

// Opens or creates the file named by `attributes` (an absolute "\??\X:\..."
// name; the root must be null). With FILE_OPEN_IF a missing file comes into
// being empty. Names compare as the host's file system compares them; with
// OBJ_CASE_INSENSITIVE a name that differs from an existing file only by case
// opens that file. A missing folder gives STATUS_OBJECT_PATH_NOT_FOUND, an
// unmapped drive STATUS_OBJECT_PATH_NOT_FOUND, a malformed name
// STATUS_OBJECT_NAME_INVALID.
NTSTATUS ZwCreateFile(HANDLE* fileHandle, ACCESS_MASK desiredAccess, OBJECT_ATTRIBUTES* attributes,
                      IO_STATUS_BLOCK* ioStatus, LARGE_INTEGER* allocationSize,
                      ULONG fileAttributes, ULONG shareAccess, ULONG createDisposition,
                      ULONG createOptions, void* eaBuffer, ULONG eaLength);

// Reads up to `length` bytes at `*byteOffset` (null: at the file's current
// position). Bytes read go to ioStatus->Information. At or past the end of the
// file: STATUS_END_OF_FILE with no bytes. `event`, `apcRoutine`, `apcContext`
// and `key` must be null; the read is synchronous.
NTSTATUS ZwReadFile(HANDLE fileHandle, HANDLE event, void* apcRoutine, void* apcContext,
                    IO_STATUS_BLOCK* ioStatus, void* buffer, ULONG length,
                    LARGE_INTEGER* byteOffset, ULONG* key);
