// Interface configuration and bandwidth.

#include "core/interface_configuration.h"

NTSTATUS CamConfigureEx(PDEVICE_OBJECT, DeviceContext*, USBD_INTERFACE_INFORMATION*,
                        USB_CONFIGURATION_DESCRIPTOR*, uint32_t, USBCAMD_Pipe_Config_Descriptor*,
                        USB_DEVICE_DESCRIPTOR*) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS CamConfigure(PDEVICE_OBJECT, DeviceContext*, USBD_INTERFACE_INFORMATION*,
                      USB_CONFIGURATION_DESCRIPTOR*, int32_t*, int32_t*) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS CamAllocateBandwidthEx(PDEVICE_OBJECT, DeviceContext*, uint32_t*, void*, uint32_t) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS CamAllocateBandwidth(PDEVICE_OBJECT, DeviceContext*, uint32_t*, void*) {
  return STATUS_NOT_IMPLEMENTED;
}
NTSTATUS CamFreeBandwidthEx(PDEVICE_OBJECT, DeviceContext*, uint32_t) { return STATUS_SUCCESS; }
NTSTATUS CamFreeBandwidth(PDEVICE_OBJECT, DeviceContext*) { return STATUS_SUCCESS; }
uint32_t GetRawFrameSize(const DeviceContext*, uint32_t, uint32_t) { return 0; }
