// The driver's own development route for cameras without the image processor
// library. It joins with the resamplers and the sensor repairs; until then the
// route leaves WorkBuffer as it is.

#include "pipeline/frame_pipeline.h"

void ConvertRawToPicture(DeviceContext*, uint8_t*, uint8_t*, uint32_t, uint32_t, uint32_t,
                         uint32_t) {}
