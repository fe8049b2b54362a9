#include "host/control_only_host.h"

HostCalls ControlOnlyHostCalls(ControlVendorCommandRoutine controlVendorCommand) {
  HostCalls calls{};
  calls.DriverEntry = [](void*, void*, uint32_t, uint32_t, PHW_RECEIVE_DEVICE_SRB) {
    return STATUS_NOT_SUPPORTED;
  };
  calls.AdapterReceivePacket = [](PHW_STREAM_REQUEST_BLOCK, const USBCAMD_DEVICE_DATA*,
                                  PDEVICE_OBJECT*, BOOLEAN) -> DeviceContext* { return nullptr; };
  calls.InitializeNewInterface = [](DeviceContext*, const USBCAMD_DEVICE_DATA2*, uint32_t,
                                    uint32_t) { return STATUS_NOT_SUPPORTED; };
  calls.ControlVendorCommand = controlVendorCommand;
  calls.SelectAlternateInterface = [](DeviceContext*, USBD_INTERFACE_INFORMATION*) {
    return STATUS_NOT_SUPPORTED;
  };
  calls.DeviceNotification = [](uint32_t, void*, PHW_STREAM_REQUEST_BLOCK) {};
  calls.StreamNotification = [](uint32_t, HW_STREAM_OBJECT*, PHW_STREAM_REQUEST_BLOCK) {};
  calls.ParseConfigurationDescriptorEx =
      [](USB_CONFIGURATION_DESCRIPTOR*, void*, int32_t, int32_t, int32_t, int32_t,
         int32_t) -> USB_INTERFACE_DESCRIPTOR* { return nullptr; };
  return calls;
}
