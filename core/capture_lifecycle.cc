// Bringing a camera up and down, and the capture start and stop requests.

#include "core/capture_lifecycle.h"

NTSTATUS CamInitialize(PDEVICE_OBJECT, DeviceContext*) { return STATUS_NOT_IMPLEMENTED; }
NTSTATUS CamUnInitialize(PDEVICE_OBJECT, DeviceContext*) { return STATUS_SUCCESS; }
NTSTATUS CamStartCaptureEx(PDEVICE_OBJECT, DeviceContext*, uint32_t) { return STATUS_SUCCESS; }
NTSTATUS CamStopCaptureEx(PDEVICE_OBJECT, DeviceContext*, uint32_t) { return STATUS_SUCCESS; }
NTSTATUS CamStartCapture(PDEVICE_OBJECT, DeviceContext*) { return STATUS_SUCCESS; }
NTSTATUS CamStopCapture(PDEVICE_OBJECT, DeviceContext*) { return STATUS_SUCCESS; }
void BeginCaptureRun(DeviceContext*) {}
void EndCaptureRun(DeviceContext*) {}
