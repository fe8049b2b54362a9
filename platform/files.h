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

constexpr uint64_t FILE_OPENED = 1;
constexpr uint64_t FILE_CREATED = 2;

// Opens or creates the file named by `attributes` (an absolute "\??\X:\..."
// name; the root must be null). With FILE_OPEN_IF a missing file comes into
// being empty; with FILE_OPEN it gives STATUS_OBJECT_NAME_NOT_FOUND. Other
// dispositions give STATUS_NOT_SUPPORTED: files are only read here. Names
// compare as the host's file system compares them; with OBJ_CASE_INSENSITIVE
// a folder or file that is missing under its exact name is looked for among
// the entries that differ from it only in ASCII case, level by level (camera
// descriptions are written on a system that ignores case), and only when none
// matches does FILE_OPEN_IF create the file, under the name as given.
// ioStatus->Information is FILE_OPENED or FILE_CREATED.
// A missing folder gives STATUS_OBJECT_PATH_NOT_FOUND, an unmapped drive
// STATUS_OBJECT_PATH_NOT_FOUND, a malformed name STATUS_OBJECT_NAME_INVALID
// (another prefix, no drive, an empty, "." or ".." component, a character a
// file name cannot hold), a folder or anything but a regular file
// STATUS_ACCESS_DENIED. allocationSize, fileAttributes, shareAccess,
// createOptions and the extended attributes are accepted and not used: reads
// are always synchronous and nothing is ever written.
NTSTATUS ZwCreateFile(HANDLE* fileHandle, ACCESS_MASK desiredAccess, OBJECT_ATTRIBUTES* attributes,
                      IO_STATUS_BLOCK* ioStatus, LARGE_INTEGER* allocationSize,
                      ULONG fileAttributes, ULONG shareAccess, ULONG createDisposition,
                      ULONG createOptions, void* eaBuffer, ULONG eaLength);

// Reads up to `length` bytes at `*byteOffset` (null: at the file's current
// position, which then moves on). Bytes read go to ioStatus->Information; a
// read that meets the end of the file brings what there is, with success. At
// or past the end of the file: STATUS_END_OF_FILE with no bytes. `event`,
// `apcRoutine`, `apcContext` and `key` must be null and an offset must not be
// negative (else STATUS_INVALID_PARAMETER); the read is synchronous. A handle
// opened without FILE_READ_DATA or GENERIC_READ gives STATUS_ACCESS_DENIED.
// Reads on different handles, and reads at explicit offsets on one handle, may
// run at the same time; closing a handle while another thread reads through
// it is the caller's fault, as in the kernel.
NTSTATUS ZwReadFile(HANDLE fileHandle, HANDLE event, void* apcRoutine, void* apcContext,
                    IO_STATUS_BLOCK* ioStatus, void* buffer, ULONG length,
                    LARGE_INTEGER* byteOffset, ULONG* key);
