// Mode selection: the script section and registry values of a stream's mode.
#include "script/mode_selection.h"

const char ModeTable[ModeTableRows][ModeSectionNameBytes] = {};

void SelectMode(DeviceContext* context) { (void)context; }

NTSTATUS RunModeSections(DeviceContext* context) {
  (void)context;
  return STATUS_SUCCESS;
}
