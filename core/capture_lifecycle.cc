// Bringing a camera up and down, and the capture start and stop requests the
// host makes. The slow parts of a start or stop run on the worker thread
// (worker_thread.cc); these routines only post its command.

#include "core/capture_lifecycle.h"

#include "core/companions.h"
#include "pipeline/frame_pipeline.h"
#include "script/script_engine.h"
#include "script/sensor_detection.h"
#include "script/vendor_request.h"
#include "settings/registry_store.h"

namespace {

// ShutterReleaseCount before any key press was seen.
constexpr uint32_t ShutterReleaseIdle = 0xFFFFFFFF;
// After a capture stop the shutter key monitor stands still for about this
// long, while the worker powers the sensor down.
constexpr uint32_t ShutterHoldMilliseconds = 2000;

void FreeSavedInterface(DeviceContext* context) {
  if (context->SavedInterface == nullptr) return;
  ExFreePool(context->SavedInterface);
  context->SavedInterface = nullptr;
}

// Writes one value of the device key; a key that cannot be opened is
// reported to the caller, who mostly doesn't look.
NTSTATUS WriteDeviceDword(DeviceContext* context, const WCHAR* name, uint32_t value) {
  HANDLE key = nullptr;
  NTSTATUS status = OpenDeviceKey(context, &key);
  if (!NT_SUCCESS(status)) return status;
  WriteRegistryDword(key, name, value);
  ZwClose(key);
  return STATUS_SUCCESS;
}

// Runs `section`, then its speed-specific form ("FS\..." or "HS\...").
// Stops at the first negative status and returns it.
NTSTATUS RunStartUpSections(DeviceContext* context) {
  NTSTATUS status = ExecuteScriptSection(context, "INIT");
  if (status < 0) return status;
  return ExecuteScriptSection(context, context->IsFullSpeed ? "FS\\INIT" : "HS\\INIT");
}

// The event a system thread of this camera signals as it ends. Should the
// thread never come to run, the event stands signalled, so that
// SRB_UNINITIALIZE_DEVICE finds nothing to wait for rather than waiting for
// ever.
void MarkThreadAbsent(KEVENT* doneEvent) { KeSetEvent(doneEvent, 0, FALSE); }

}  // namespace

NTSTATUS CamInitialize(PDEVICE_OBJECT, DeviceContext* context) {
  context->FuncHandle = FUNC_Init();
  ExInitializeFastMutex(&context->VendorMutex);
  context->IspHandle = 0;
  context->WorkBuffer = nullptr;

  // No worker exists yet: a teardown after a failed start-up must not wait
  // for its done event. Step 16 creates the worker's events afresh.
  KeInitializeEvent(&context->WorkerEvents[WorkerDoneEvent], NotificationEvent, TRUE);

  NTSTATUS status = CheckBusSpeed(context);
  if (NT_SUCCESS(status)) status = DetectSensor(context);
  if (NT_SUCCESS(status)) status = StartImageLibraries(context);
  if (NT_SUCCESS(status)) status = RunStartUpSections(context);
  if (!NT_SUCCESS(status)) {
    FreeSavedInterface(context);
    return status;
  }

  // End of start-up: the controller's own request, no data stage.
  ExAcquireFastMutex(&context->VendorMutex);
  USBCAMD_ControlVendorCommand(context, VendorEndOfStartUp, 0, 0, nullptr, nullptr, FALSE,
                               nullptr, nullptr);
  ExReleaseFastMutex(&context->VendorMutex);

  context->InitScriptsFresh = 1;
  context->ModeScriptsCurrent = 0;
  StoreShared(context->StreamOpen, 0);

  BuildFormatList(context);
  // The image-property model (LoadImagePropertyModel) is loaded here.

  StoreShared(context->IdleState, 0);
  StoreShared(context->IdleArmed, 0);

  // The page settings (LoadFeatureSettings) are loaded here.

  context->ImageWidth = 0;
  context->ImageHeight = 0;
  NTSTATUS result = STATUS_SUCCESS;
  if (context->PollingShutterKey != 0) result = WriteDeviceDword(context, u"ImageWidth", 0);

  context->FacePhase = 0;
  context->FaceFound = 0;

  if (context->PollingShutterKey != 0) {
    KeInitializeEvent(&context->ShutterThreadEvents[ThreadDoneEvent], NotificationEvent, FALSE);
    KeInitializeEvent(&context->ShutterThreadEvents[ThreadStopEvent], NotificationEvent, FALSE);
    StoreShared(context->ShutterPollHold, 0);
    // The shutter key monitor thread (ShutterMonitorThread) is started here.
    // Until it exists nothing runs, and its done event says so.
    MarkThreadAbsent(&context->ShutterThreadEvents[ThreadDoneEvent]);
  }

  StoreShared(context->ShutterReleaseCount, ShutterReleaseIdle);

  for (KEVENT& event : context->WorkerEvents) KeInitializeEvent(&event, NotificationEvent, FALSE);
  StoreShared(context->WorkerCommand, WorkerNone);
  // A lens camera's start-up command stands before the worker's first look
  // at its mailbox, so that the worker leaves the alternate setting alone.
  // Posting it before the thread starts (rather than relying on the worker's
  // 200 ms pause) keeps that true however the threads are scheduled.
  context->FocusState = 0;
  if (LensKind(context) != 0) PostWorkerCommand(context, WorkerLensStartUp);
  HANDLE thread = nullptr;
  if (NT_SUCCESS(PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                      WorkerThread, context))) {
    // The worker is stopped by its events; its handle is not kept.
    ZwClose(thread);
  } else {
    MarkThreadAbsent(&context->WorkerEvents[WorkerDoneEvent]);
  }

  return result;
}

NTSTATUS CamUnInitialize(PDEVICE_OBJECT physicalDeviceObject, DeviceContext* context) {
  (void)physicalDeviceObject;
  // The page settings (SaveFeatureSettings) are saved here.
  if (context->WorkBuffer != nullptr) {
    ExFreePool(context->WorkBuffer);
    context->WorkBuffer = nullptr;
  }
  ISPFunc_Exit(context->IspHandle, context, context->PhysicalDeviceObject);
  SPEF_Exit(context->SpefHandle);
  FreeSavedInterface(context);
  FUNC_Exit(context->FuncHandle);
  return STATUS_SUCCESS;
}

NTSTATUS CamStartCaptureEx(PDEVICE_OBJECT, DeviceContext* context, uint32_t streamNumber) {
  if (streamNumber != 0 || LoadShared(context->StreamOpen) != 0) return STATUS_SUCCESS;
  PostWorkerCommand(context, WorkerStartCapture);
  StoreShared(context->StreamOpen, 1);
  WriteDeviceDword(context, u"StreamOpen", 1);
  StoreShared(context->FrameCounter, 0);
  StoreShared(context->DeadPixelMapReady, 0);
  StoreShared(context->DeadPixelPass, 0);
  StoreShared(context->DarkFrameMeasured, 0);
  StoreShared(context->FramesToDrop, 0);
  return STATUS_SUCCESS;
}

NTSTATUS CamStopCaptureEx(PDEVICE_OBJECT, DeviceContext* context, uint32_t streamNumber) {
  if (streamNumber != 0 || LoadShared(context->StreamOpen) == 0) return STATUS_SUCCESS;
  uint32_t period = context->PollingShutterKey;
  if (period != 0) {
    StoreShared(context->ShutterPollHold,
                period >= ShutterHoldMilliseconds ? 1 : ShutterHoldMilliseconds / period);
  }
  PostWorkerCommand(context, WorkerStopCapture);
  StoreShared(context->StreamOpen, 0);
  WriteDeviceDword(context, u"StreamOpen", 0);
  return STATUS_SUCCESS;
}

NTSTATUS CamStartCapture(PDEVICE_OBJECT busDeviceObject, DeviceContext* context) {
  return CamStartCaptureEx(busDeviceObject, context, 0);
}

NTSTATUS CamStopCapture(PDEVICE_OBJECT busDeviceObject, DeviceContext* context) {
  return CamStopCaptureEx(busDeviceObject, context, 0);
}

void BeginCaptureRun(DeviceContext* context) {
  if (RawPipelineKind(context) == 1) {
    // ISPFunc_StartCapture tells the library of the run itself: the host's
    // run notification that follows stays away from it.
    StoreShared(context->IgnoreNextRun, 1);
    uint32_t width = context->ImageWidth;
    uint32_t height = context->ImageHeight;
    ISPFunc_StartCapture(context->IspHandle, context, 2, context->ImageWidth,
                         context->ImageHeight, &width, &height);
  }
  auto* effect = reinterpret_cast<SpefRecord*>(context->SpefHandle);
  if (effect != nullptr) {
    effect->Category = context->SpefCategory;
    effect->List = context->SpefList;
  }
  SPEF_StartCapture(context->SpefHandle, context->ImageWidth, context->ImageHeight);

  const char* name = "Format : XXXX ";
  switch (context->CurrentCompression) {
    case CompressionI420: name = "Format : I420 "; break;
    case CompressionYUY2: name = "Format : YUY2 "; break;
    case CompressionRGB24: name = "Format : RGB24"; break;
    default: break;
  }
  DbgPrint("%s : %4d x %4d\n", name, static_cast<int>(context->ImageWidth),
           static_cast<int>(context->ImageHeight));
  ResetFrameRateMeter(context);
}

void EndCaptureRun(DeviceContext* context) {
  if (RawPipelineKind(context) == 1) ISPFunc_StopCapture(context->IspHandle, context);
  SPEF_StopCapture(context->SpefHandle);
  ResetFrameRateMeter(context);
}
