// Adapter packet dispatch.

#include "core/packet_dispatch.h"

const USBCAMD_DEVICE_DATA CameraDeviceData = {};
const USBCAMD_DEVICE_DATA2 CameraDeviceData2 = {};
const KSPROPERTY_SET DevicePropertySets[DevicePropertySetCount] = {};
const GUID PROPSETID_VIDCAP_VIDEOPROCAMP = {};
const GUID PROPSETID_VIDCAP_VIDEOCONTROL = {};
const GUID VendorControlSet = {};
const GUID VendorIdentitySet = {};
const GUID VendorEffectSet = {};
const GUID GUID_USBCAMD_INTERFACE = {};

void AdapterPacketHandler(PHW_STREAM_REQUEST_BLOCK) {}
void StreamControlPacketHandler(PHW_STREAM_REQUEST_BLOCK, DeviceContext*, BOOLEAN*) {}
void StreamDataPacketHandler(PHW_STREAM_REQUEST_BLOCK, DeviceContext*, BOOLEAN*) {}
void NotifyStreamState(DeviceContext*, KSSTATE) {}
void RoutePropertyRequest(BOOLEAN, PDEVICE_OBJECT, DeviceContext*, PHW_STREAM_REQUEST_BLOCK) {}
NTSTATUS QueryCamInterface(DeviceContext*) { return STATUS_NOT_SUPPORTED; }
void ChangePowerState(DeviceContext*, PHW_STREAM_REQUEST_BLOCK) {}
