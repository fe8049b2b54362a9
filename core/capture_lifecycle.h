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
