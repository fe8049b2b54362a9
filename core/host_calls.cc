// The driver's side of the host's calls: each routine forwards to the table
// the host layer installed. Without a host every call fails as a missing
// device would, so a driver routine run in isolation never jumps through null.

#include "core/host_contract.h"

namespace {
const HostCalls* g_hostCalls = nullptr;
}

void SetHostCalls(const HostCalls* calls) { __atomic_store_n(&g_hostCalls, calls, __ATOMIC_RELEASE); }

const HostCalls* GetHostCalls() { return __atomic_load_n(&g_hostCalls, __ATOMIC_ACQUIRE); }

NTSTATUS USBCAMD_DriverEntry(void* driverObject, void* registryPath, uint32_t deviceContextSize,
                             uint32_t frameContextSize, PHW_RECEIVE_DEVICE_SRB receivePacket) {
  const HostCalls* host = GetHostCalls();
  if (!host) return STATUS_DEVICE_NOT_CONNECTED;
  return host->DriverEntry(driverObject, registryPath, deviceContextSize, frameContextSize,
                           receivePacket);
}

DeviceContext* USBCAMD_AdapterReceivePacket(PHW_STREAM_REQUEST_BLOCK srb,
                                            const USBCAMD_DEVICE_DATA* deviceData,
                                            PDEVICE_OBJECT* deviceObject, BOOLEAN needsCompletion) {
  const HostCalls* host = GetHostCalls();
  if (!host) return nullptr;
  return host->AdapterReceivePacket(srb, deviceData, deviceObject, needsCompletion);
}

NTSTATUS USBCAMD_InitializeNewInterface(DeviceContext* context,
                                        const USBCAMD_DEVICE_DATA2* deviceData, uint32_t version,
                                        uint32_t camControlFlag) {
  const HostCalls* host = GetHostCalls();
  if (!host) return STATUS_DEVICE_NOT_CONNECTED;
  return host->InitializeNewInterface(context, deviceData, version, camControlFlag);
}

NTSTATUS USBCAMD_ControlVendorCommand(DeviceContext* context, uint8_t request, uint16_t value,
                                      uint16_t index, void* buffer, uint32_t* bufferLength,
                                      BOOLEAN getData, PCOMMAND_COMPLETE_FUNCTION commandComplete,
                                      void* commandContext) {
  const HostCalls* host = GetHostCalls();
  if (!host) return STATUS_DEVICE_NOT_CONNECTED;
  return host->ControlVendorCommand(context, request, value, index, buffer, bufferLength, getData,
                                    commandComplete, commandContext);
}

NTSTATUS USBCAMD_SelectAlternateInterface(DeviceContext* context,
                                          USBD_INTERFACE_INFORMATION* interface) {
  const HostCalls* host = GetHostCalls();
  if (!host) return STATUS_DEVICE_NOT_CONNECTED;
  return host->SelectAlternateInterface(context, interface);
}

void StreamClassDeviceNotification(uint32_t notificationType, void* hwDeviceExtension,
                                   PHW_STREAM_REQUEST_BLOCK srb) {
  const HostCalls* host = GetHostCalls();
  if (host) host->DeviceNotification(notificationType, hwDeviceExtension, srb);
}

void StreamClassStreamNotification(uint32_t notificationType, HW_STREAM_OBJECT* streamObject,
                                   PHW_STREAM_REQUEST_BLOCK srb) {
  const HostCalls* host = GetHostCalls();
  if (host) host->StreamNotification(notificationType, streamObject, srb);
}

USB_INTERFACE_DESCRIPTOR* USBD_ParseConfigurationDescriptorEx(
    USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor, void* startPosition,
    int32_t interfaceNumber, int32_t alternateSetting, int32_t interfaceClass,
    int32_t interfaceSubClass, int32_t interfaceProtocol) {
  const HostCalls* host = GetHostCalls();
  if (!host) return nullptr;
  return host->ParseConfigurationDescriptorEx(configurationDescriptor, startPosition,
                                              interfaceNumber, alternateSetting, interfaceClass,
                                              interfaceSubClass, interfaceProtocol);
}

PIRP IoBuildSynchronousFsdRequest(uint8_t majorFunction, PDEVICE_OBJECT deviceObject, KEVENT* event,
                                  IO_STATUS_BLOCK* ioStatusBlock) {
  const HostCalls* host = GetHostCalls();
  if (!host || !host->BuildSynchronousFsdRequest) return nullptr;
  return host->BuildSynchronousFsdRequest(majorFunction, deviceObject, event, ioStatusBlock);
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT deviceObject, PIRP irp) {
  const HostCalls* host = GetHostCalls();
  if (!host || !host->CallDriver) return STATUS_DEVICE_NOT_CONNECTED;
  return host->CallDriver(deviceObject, irp);
}

BOOLEAN IoCancelIrp(PIRP irp) {
  const HostCalls* host = GetHostCalls();
  if (!host || !host->CancelIrp) return FALSE;
  return host->CancelIrp(irp);
}
