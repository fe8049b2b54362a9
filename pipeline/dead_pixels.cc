// The dead pixel map. The scans and the repair join with the picture
// cleaning work; until then frames pass unrepaired.

#include "pipeline/frame_pipeline.h"

void RepairDeadPixelsBayer(DeviceContext*, uint8_t*, uint32_t, uint32_t) {}
void RepairDeadPixelsYuyv(DeviceContext*, uint8_t*, uint32_t, uint32_t) {}
