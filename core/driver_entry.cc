// The driver's entry: the only routine the platform calls by name. The camera
// declares its record, a frame context of four bytes, and the one routine
// every device request of the stream class arrives at.

#include "core/device_context.h"
#include "core/packet_dispatch.h"

namespace {
constexpr uint32_t FrameContextBytes = 4;
}

NTSTATUS DriverEntry(void* driverObject, void* registryPath) {
  return USBCAMD_DriverEntry(driverObject, registryPath, sizeof(DeviceContext), FrameContextBytes,
                             AdapterPacketHandler);
}
