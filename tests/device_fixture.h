// A camera record for tests: one zero-filled block, as the host gives it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/device_context.h"
#include "platform/registry_control.h"

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

// A test device bound to the software key of camera `instance`, with its
// vendor mutex ready.
struct BoundDevice {
  explicit BoundDevice(uint32_t instance) : key(DeviceSoftwareKeyPath(instance)) {
    device->PhysicalDeviceObject = reinterpret_cast<DEVICE_OBJECT*>(&pdo);
    ExInitializeFastMutex(&device->VendorMutex);
    Bind();
  }
  ~BoundDevice() { UnbindDeviceRegistryKey(device->PhysicalDeviceObject); }
  // Again after a registry reset, which forgets the bindings.
  void Bind() { BindDeviceRegistryKey(device->PhysicalDeviceObject, key); }
  std::u16string Key(const std::string& relative) const {
    return relative.empty() ? key : key + u"\\" + U16(relative);
  }
  void Set(const std::string& relative, const char* name, uint32_t value) const {
    SetRegistryDword(Key(relative), U16(name), value);
  }

  char pdo = 0;
  std::u16string key;
  TestDevice device;
};
