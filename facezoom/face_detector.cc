// The skin-blob face detector. For now it finds nothing and leaves FaceRect
// as it is; the face-tracking work fills it in.

#include "core/device_context.h"
#include "facezoom/face_detector.h"

void TrackFace(DeviceContext*, const uint8_t*, uint32_t, uint32_t) {}
