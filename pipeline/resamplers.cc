// Geometry resamplers of the driver's own route. They join with that route.

#include "pipeline/frame_pipeline.h"

void Resample1280To1024(const uint8_t*, uint8_t*, uint32_t, uint32_t, uint32_t, uint32_t) {}
