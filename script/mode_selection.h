// Mode selection: an open stream's format, size and quality option give the
// script section that sets the sensor up for the mode and the mode's registry
// values (how the data is transported and scaled); the sections of a mode run
// in their fixed order.
#pragma once

#include <cstdint>

#include "core/device_context.h"

// The mode table: one row per format, size and quality suffix, each a section
// name stored with the high-speed prefix ("HS\RGB24\640_QUALITY"). Rows are
// shared by all cameras and never changed.
constexpr uint32_t ModeTableRows = 120;
extern const char ModeTable[ModeTableRows][ModeSectionNameBytes];

// Sets ModeSection, ControlMethod, FrameInterval and StreamAlternateSetting
// from CurrentCompression, ImageWidth, ImageHeight, QualityOption and the
// mode's registry key. Runs no script and sends no request. A format and
// width pair outside the table keeps the old mode. Host's thread or a
// property call.
void SelectMode(DeviceContext* context);

// Runs the INIT sections (unless they have just run), INIT_PREVIEW or
// INIT_CAPTURE, the mode's section, the flicker section and the light
// section; the result is the light section's status. Does nothing with a
// ScaleMode of 0 or above 5. Worker thread or a property call.
NTSTATUS RunModeSections(DeviceContext* context);
