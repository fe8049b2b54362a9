// A camera record for tests: one zero-filled block, as the host gives it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/device_context.h"

struct TestDevice {
  TestDevice() : context(static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)))) {
    for (KEVENT& event : context->WorkerEvents) KeInitializeEvent(&event, NotificationEvent, FALSE);
  }
  ~TestDevice() { std::free(context); }
  TestDevice(const TestDevice&) = delete;
  TestDevice& operator=(const TestDevice&) = delete;

  DeviceContext* operator->() { return context; }

  // Output size and formats in one go.
  void SetMode(uint32_t compression, uint32_t width, uint32_t height, uint8_t scaleMode,
               uint8_t wireFormat, uint8_t rawPipelineKind) {
    context->CurrentCompression = compression;
    context->ImageWidth = width;
    context->ImageHeight = height;
    context->ControlMethod = uint32_t(scaleMode) | uint32_t(wireFormat) << 8;
    context->IspType = (context->IspType & ~0xFFu) | rawPipelineKind;
  }

  DeviceContext* context;
};
