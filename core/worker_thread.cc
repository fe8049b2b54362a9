// The worker thread: one per camera, started by CamInitialize and ended only
// by SRB_UNINITIALIZE_DEVICE. It takes a one-byte command and a wake event,
// and does the slow part of starting and stopping capture (the streaming
// switch, the mode scripts, the companions) and the lens moves. While the
// wake event stands with a command other than a lens move or a focus step,
// the packet and frame paths leave the frames alone.

#include "core/capture_lifecycle.h"

#include "core/companions.h"
#include "script/mode_selection.h"
#include "script/orientation.h"
#include "script/script_engine.h"
#include "script/vendor_request.h"

namespace {

// Pause before the worker's first look at its command, and between two
// tries of the streaming switch: 200 ms in 100 ns units.
constexpr int64_t WorkerPause = -2000000;
constexpr uint32_t StreamingSwitchTries = 30;

void Pause(int64_t interval) {
  LARGE_INTEGER delay;
  delay.QuadPart = interval;
  KeDelayExecutionThread(KernelMode, FALSE, &delay);
}

bool StopRequested(DeviceContext* context) {
  return KeReadStateEvent(&context->WorkerEvents[WorkerStopEvent]) != 0;
}

// Vendor request 5 with `value` 1 (start) or 0 (stop), tried up to 30 times,
// 200 ms apart, until the controller takes it. The mutex is held across all
// tries, so other vendor requests wait for the switch. Nobody learns of a
// switch that never took.
void SwitchStreaming(DeviceContext* context, uint16_t value) {
  ExAcquireFastMutex(&context->VendorMutex);
  for (uint32_t attempt = 0; attempt < StreamingSwitchTries; ++attempt) {
    Pause(WorkerPause);
    if (USBCAMD_ControlVendorCommand(context, VendorStreaming, value, 0, nullptr, nullptr, FALSE,
                                     nullptr, nullptr) == STATUS_SUCCESS) {
      break;
    }
  }
  ExReleaseFastMutex(&context->VendorMutex);
}

// Command 1. The mode scripts, the saved control values, the orientation and
// the companions are brought to the format and size of the moment; should the
// host change them meanwhile, the whole pass runs again. False when a step
// failed: the companions were then not told.
bool StartStreaming(DeviceContext* context) {
  SwitchStreaming(context, 1);
  uint32_t compression, width, height;
  do {
    compression = LoadShared(context->CurrentCompression);
    width = LoadShared(context->ImageWidth);
    height = LoadShared(context->ImageHeight);
    if (RunModeSections(context) != STATUS_SUCCESS) return false;
    // The saved control values are replayed here (ApplySavedProperties).
    if (!UpdateImageOrientation(context, TRUE, FALSE)) return false;
    BeginCaptureRun(context);
  } while (compression != LoadShared(context->CurrentCompression) ||
           width != LoadShared(context->ImageWidth) || height != LoadShared(context->ImageHeight));
  ISPFunc_Rotate(context->IspHandle, context, context->RotateHoriz, context->RotateVert);
  return true;
}

// Command 2. False when a step failed: the companions were then not told.
bool StopStreaming(DeviceContext* context) {
  SwitchStreaming(context, 0);
  if (ExecuteScriptSection(context, "POWER_DOWN") != STATUS_SUCCESS) return false;
  if (ExecuteScriptSection(context, context->IsFullSpeed ? "FS\\POWER_DOWN" : "HS\\POWER_DOWN") !=
      STATUS_SUCCESS) {
    return false;
  }
  // The control values are saved here (SetPropertyValuesToRegistry).
  EndCaptureRun(context);
  return true;
}

// Carries out one command; false when it ended by failure. Values outside
// 1 to 5 do nothing.
bool CarryOutCommand(DeviceContext* context, uint8_t command) {
  switch (command) {
    case WorkerStartCapture: return StartStreaming(context);
    case WorkerStopCapture: return StopStreaming(context);
    case WorkerLensStartUp:
      // Lens start-up: the home run and the first position of a motor lens.
      return true;
    case WorkerLensToInitialPosition:
      // Lens to its initial position.
      return true;
    case WorkerFocusStep:
      // One autofocus step (FocusStep).
      return true;
    default: return true;
  }
}

void SelectIdleSetting(DeviceContext* context) {
  USBD_INTERFACE_INFORMATION* saved = context->SavedInterface;
  if (saved == nullptr) return;
  saved->InterfaceNumber = context->InterfaceNumber;
  saved->AlternateSetting = context->IdleAlternateSetting;
  USBCAMD_SelectAlternateInterface(context, saved);
}

}  // namespace

void PostWorkerCommand(DeviceContext* context, uint8_t command) {
  KeSetPriorityThread(KeGetCurrentThread(), SignalPriority);
  StoreShared(context->WorkerCommand, command);
  KeSetEvent(&context->WorkerEvents[WorkerWakeEvent], 0, FALSE);
}

bool IsWorkerReprogramming(DeviceContext* context) {
  if (!KeReadStateEvent(&context->WorkerEvents[WorkerWakeEvent])) return false;
  uint8_t command = LoadShared(context->WorkerCommand);
  return command != WorkerLensToInitialPosition && command != WorkerFocusStep;
}

void WorkerThread(void* parameter) {
  auto* context = static_cast<DeviceContext*>(parameter);
  KEVENT* wake = &context->WorkerEvents[WorkerWakeEvent];

  Pause(WorkerPause);
  // Nothing asked for yet (a lens start-up would be): the interface rests on
  // its idle setting until the first capture.
  if (LoadShared(context->WorkerCommand) == WorkerNone) SelectIdleSetting(context);

  KeWaitForSingleObject(wake, Executive, KernelMode, FALSE, nullptr);
  while (!StopRequested(context)) {
    uint8_t command = LoadShared(context->WorkerCommand);
    bool completed = CarryOutCommand(context, command);
    // A command posted while this one ran replaced it: the wake event still
    // stands for it, so take it up next. After a failure it is lost with the
    // failed one.
    if (!completed || LoadShared(context->WorkerCommand) == command) {
      if (StopRequested(context)) break;
      StoreShared(context->WorkerCommand, WorkerNone);
      KeClearEvent(wake);
    }
    KeWaitForSingleObject(wake, Executive, KernelMode, FALSE, nullptr);
  }

  KeSetPriorityThread(KeGetCurrentThread(), EndingPriority);
  KeSetEvent(&context->WorkerEvents[WorkerDoneEvent], 0, FALSE);
  PsTerminateSystemThread(STATUS_SUCCESS);
}
