// The worker thread's mailbox: one command byte and a wake event.

#include "core/capture_lifecycle.h"

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

void WorkerThread(void*) {}
