// A capture host that carries only control requests: the vendor requests go
// to the given routine, and every other call of the host refuses
// (STATUS_NOT_SUPPORTED, a null result, or nothing). Enough for the script
// engine and the controller access, which need nothing else of the host: the
// script checker, the benchmarks and the tests of those parts use it.
#pragma once

#include "core/host_contract.h"

typedef decltype(HostCalls::ControlVendorCommand) ControlVendorCommandRoutine;

HostCalls ControlOnlyHostCalls(ControlVendorCommandRoutine controlVendorCommand);
