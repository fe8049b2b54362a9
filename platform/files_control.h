// Controls of the file layer for the host, the tool and the tests: which host
// folder each drive letter stands for, opening a host file directly, and fault
// injection. The driver never includes this header.
#pragma once

#include <cstdint>
#include <string>

#include "platform/kernel.h"

// Maps drive `letter` (A to Z, either case) onto the host folder `folder`:
// "\??\C:\Cameras\a.txt" then names folder + "/Cameras/a.txt". An empty
// folder removes the mapping. Returns false for a letter outside A to Z.
//
// Default: when the environment variable MR740_DRIVE_C is set (and not
// empty), drive C maps onto the folder it names, from the first use of the
// file layer on (the first call of any routine here or of ZwCreateFile). A
// MapDosDrive or UnmapAllDosDrives after that replaces it; it is never taken
// again.
bool MapDosDrive(char letter, const std::string& folder);
// Removes every mapping, the default of MR740_DRIVE_C included.
void UnmapAllDosDrives();
// The host path a "\??\" object name stands for, or false when the name is
// malformed or its drive is not mapped.
bool HostPathOfObjectName(const std::u16string& objectName, std::string* hostPath);

// Opens an existing host file for reading as a file handle (closed with
// ZwClose), as ZwCreateFile would have. False when it cannot be opened or is
// not a regular file. Not a read: FileReadCount does not move.
bool OpenHostFileForReading(const std::string& hostPath, HANDLE* fileHandle);

// Fault injection: the Nth ZwReadFile from now (1 = the next one) fails with
// `status` and no bytes, leaving the buffer as it was; nth 0 turns it off. It
// fails once and then turns itself off.
void FileFailRead(uint64_t nth, NTSTATUS status);
// ZwReadFile calls since the process started.
uint64_t FileReadCount();
