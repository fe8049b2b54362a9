// The driver's entry.

#include "core/packet_dispatch.h"

NTSTATUS DriverEntry(void*, void*) { return STATUS_SUCCESS; }
