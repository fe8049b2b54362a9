// Adapter packet dispatch: every request the stream class sends to the
// device arrives at AdapterPacketHandler, requests on an open stream at
// StreamControlPacketHandler. The driver steps in where the camera has
// something of its own to add and leaves the rest to the host.
#pragma once

#include "core/device_context.h"
#include "core/host_contract.h"

// The driver's entry: declares the record's size, a frame context of 4
// bytes and AdapterPacketHandler to the host.
NTSTATUS DriverEntry(void* driverObject, void* registryPath);

// The two callback tables: the first form goes with every
// USBCAMD_AdapterReceivePacket that carries a table, the second once to
// USBCAMD_InitializeNewInterface.
extern const USBCAMD_DEVICE_DATA CameraDeviceData;
extern const USBCAMD_DEVICE_DATA2 CameraDeviceData2;

// The five property sets the device offers, in the order the host lists them.
constexpr uint32_t DevicePropertySetCount = 5;
extern const KSPROPERTY_SET DevicePropertySets[DevicePropertySetCount];

extern const GUID PROPSETID_VIDCAP_VIDEOPROCAMP;
extern const GUID PROPSETID_VIDCAP_VIDEOCONTROL;
extern const GUID VendorControlSet;
extern const GUID VendorIdentitySet;
extern const GUID VendorEffectSet;
extern const GUID GUID_USBCAMD_INTERFACE;

void AdapterPacketHandler(PHW_STREAM_REQUEST_BLOCK srb);
void StreamControlPacketHandler(PHW_STREAM_REQUEST_BLOCK srb, DeviceContext* context,
                                BOOLEAN* completed);
void StreamDataPacketHandler(PHW_STREAM_REQUEST_BLOCK srb, DeviceContext* context,
                             BOOLEAN* completed);
void NotifyStreamState(DeviceContext* context, KSSTATE state);
void RoutePropertyRequest(BOOLEAN isSet, PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                          PHW_STREAM_REQUEST_BLOCK srb);
NTSTATUS QueryCamInterface(DeviceContext* context);
void ChangePowerState(DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb);
