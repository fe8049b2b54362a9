// Dark frame blanking. It joins with the picture cleaning work; until then no
// picture is blanked for darkness.

#include "pipeline/frame_pipeline.h"

void BlankDarkFrameRgb(DeviceContext*, uint8_t*, uint32_t, uint32_t) {}
void BlankDarkFrameYuyv(DeviceContext*, uint8_t*, uint32_t, uint32_t) {}
