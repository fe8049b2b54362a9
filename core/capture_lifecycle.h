// The capture lifecycle: bringing a camera up and down, and the worker thread
// that starts and stops capture and moves the lens.
#pragma once

#include <cstdint>

#include "core/device_context.h"

// The priority a thread takes before it signals an event another thread of the
// driver acts on, and the one a thread about to end takes before its done event.
constexpr KPRIORITY SignalPriority = 12;
constexpr KPRIORITY EndingPriority = 13;

// Posts a command to the worker thread: raises the calling thread's priority
// to 12, stores the command, signals the wake event. Commands are not queued:
// a second post before the worker picked up the first replaces it. Any thread;
// never blocks.
void PostWorkerCommand(DeviceContext* context, uint8_t command);

// True while the worker is carrying out a command during which the frame path
// leaves frames alone: the wake event is signalled with a command other than a
// lens move to the initial position or a focus step.
bool IsWorkerReprogramming(DeviceContext* context);

// Brings the camera up, in order: the format library, the lock, bus speed,
// sensor detection, image libraries, the INIT sections, request 11, the
// format list, the property model, the page settings, the shutter key
// monitor and the worker thread. Host's thread, inside SRB_INITIALIZE_DEVICE.
NTSTATUS CamInitialize(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
// Saves the page settings and releases WorkBuffer, the companions and
// SavedInterface. The threads have ended before (SRB_UNINITIALIZE_DEVICE).
NTSTATUS CamUnInitialize(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);

// Post the start or stop command for stream 0 and return at once; the worker
// does the slow part. The still stream returns at once.
NTSTATUS CamStartCaptureEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                           uint32_t streamNumber);
NTSTATUS CamStopCaptureEx(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                          uint32_t streamNumber);
NTSTATUS CamStartCapture(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
NTSTATUS CamStopCapture(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);

// Tells the companions a capture of the current format and size begins or
// ends, and resets the frame-rate meter. BeginCaptureRun logs the format.
void BeginCaptureRun(DeviceContext* context);
void EndCaptureRun(DeviceContext* context);

// The worker thread's routine; its context is the DeviceContext.
void WorkerThread(void* context);
