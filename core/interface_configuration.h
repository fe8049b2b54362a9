// Interface configuration and bandwidth: the device settings that must be
// known first, the choice of the idle and streaming alternate settings, the
// pipe configuration the host follows, and the switch between idle and
// streaming setting at the start and end of each capture, which also fixes
// the output format and the exact raw frame length.
#pragma once

#include <cstdint>

#include "core/device_context.h"
#include "core/host_contract.h"

// Value of SelSuspend that stands for 60 s.
constexpr int32_t SelSuspendDefaultTimeout = 600000000;
// RawFrameLength of the still stream, which runs on the capture stream's pipe.
constexpr uint32_t StillRawFrameLength = 115200;

NTSTATUS CamConfigureEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                        USBD_INTERFACE_INFORMATION* interface,
                        USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor,
                        uint32_t pipeConfigListSize, USBCAMD_Pipe_Config_Descriptor* pipeConfig,
                        USB_DEVICE_DESCRIPTOR* deviceDescriptor);
NTSTATUS CamConfigure(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                      USBD_INTERFACE_INFORMATION* interface,
                      USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor,
                      int32_t* dataPipeIndex, int32_t* syncPipeIndex);

// `format` is the stream's KS_DATAFORMAT_VIDEOINFOHEADER.
NTSTATUS CamAllocateBandwidthEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                uint32_t* rawFrameLength, void* format, uint32_t streamNumber);
NTSTATUS CamAllocateBandwidth(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                              uint32_t* rawFrameLength, void* format);
NTSTATUS CamFreeBandwidthEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                            uint32_t streamNumber);
NTSTATUS CamFreeBandwidth(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);

// Bytes of one frame on the wire for an output of width x height under the
// current WireFormat, ScaleMode and CurrentCompression; 0 for a ScaleMode
// above 5, which has no frame size.
uint32_t GetRawFrameSize(const DeviceContext* context, uint32_t width, uint32_t height);
