// Vendor requests to the MR740: the wrappers, the two-step read, and the
// small routines the image library calls back through.

#include "script/vendor_request.h"

#include <cstring>

namespace {

// One request under the mutex. `length` null: no data stage.
NTSTATUS SendLocked(DeviceContext* context, uint8_t request, uint16_t value, uint16_t index,
                    void* buffer, uint32_t* length, BOOLEAN getData) {
  ExAcquireFastMutex(&context->VendorMutex);
  NTSTATUS status = USBCAMD_ControlVendorCommand(context, request, value, index, buffer, length,
                                                 getData, nullptr, nullptr);
  ExReleaseFastMutex(&context->VendorMutex);
  return status;
}

uint16_t BusValue(uint8_t bus) { return uint16_t(bus << 8); }

NTSTATUS WriteList(DeviceContext* context, uint8_t bus, uint16_t index, const uint8_t* buffer,
                   uint32_t byteCount) {
  uint32_t length = byteCount;
  // The host only reads an out buffer; the cast serves its one signature.
  return SendLocked(context, VendorWriteList, BusValue(bus), index, const_cast<uint8_t*>(buffer),
                    &length, FALSE);
}

NTSTATUS ReadWide(DeviceContext* context, uint8_t bus, uint8_t form, uint16_t registerIndex,
                  uint8_t* value, uint32_t bytes) {
  uint32_t length = bytes;
  return SendLocked(context, VendorWideRead, uint16_t(BusValue(bus) | form), registerIndex, value,
                    &length, TRUE);
}

}  // namespace

NTSTATUS ReadRegister(DeviceContext* context, uint8_t bus, uint8_t registerIndex, uint8_t* value) {
  uint32_t length = 1;
  ExAcquireFastMutex(&context->VendorMutex);
  NTSTATUS status;
  if (bus == 0 || context->ReadDelay == 0) {
    status = USBCAMD_ControlVendorCommand(context, VendorRead, BusValue(bus), registerIndex, value,
                                          &length, TRUE, nullptr, nullptr);
  } else {
    // Sensors behind a slow bus need the read started, a pause, then the
    // byte fetched; both steps and the pause are one unit under the mutex.
    uint16_t index = uint16_t(VendorIndexTwoStepRead | registerIndex);
    status = USBCAMD_ControlVendorCommand(context, VendorWriteOrStartRead, BusValue(bus), index,
                                          nullptr, nullptr, FALSE, nullptr, nullptr);
    if (!NT_SUCCESS(status)) {
      ExReleaseFastMutex(&context->VendorMutex);
      return status;
    }
    LARGE_INTEGER pause;
    pause.QuadPart = -int64_t(context->ReadDelay);
    KeDelayExecutionThread(KernelMode, FALSE, &pause);
    status = USBCAMD_ControlVendorCommand(context, VendorRead, BusValue(bus), index, value,
                                          &length, TRUE, nullptr, nullptr);
  }
  ExReleaseFastMutex(&context->VendorMutex);
  return status;
}

NTSTATUS WriteRegister(DeviceContext* context, uint8_t bus, uint8_t registerIndex,
                       const uint8_t* data) {
  return SendLocked(context, VendorWriteOrStartRead, uint16_t(BusValue(bus) | *data),
                    registerIndex, nullptr, nullptr, FALSE);
}

NTSTATUS WriteRegisterPairs(DeviceContext* context, uint8_t bus, const uint8_t* buffer,
                            uint32_t count) {
  return WriteList(context, bus, VendorIndexPairs, buffer, 2 * count);
}

NTSTATUS WriteRegisterBurst(DeviceContext* context, uint8_t bus, uint8_t registerIndex,
                            const uint8_t* buffer, uint32_t byteCount) {
  return WriteList(context, bus, registerIndex, buffer, byteCount);
}

NTSTATUS WriteTriplesForm3(DeviceContext* context, uint8_t bus, const uint8_t* buffer,
                           uint32_t count) {
  return WriteList(context, bus, VendorIndexTriplesForm3, buffer, 3 * count);
}

NTSTATUS WriteTriplesForm4(DeviceContext* context, uint8_t bus, const uint8_t* buffer,
                           uint32_t count) {
  return WriteList(context, bus, VendorIndexTriplesForm4, buffer, 3 * count);
}

NTSTATUS WriteQuads(DeviceContext* context, uint8_t bus, const uint8_t* buffer, uint32_t count) {
  return WriteList(context, bus, VendorIndexQuads, buffer, 4 * count);
}

NTSTATUS ReadMemoryBlock(DeviceContext* context, uint16_t blockAddress,
                         uint8_t buffer[MemoryBlockBytes]) {
  uint32_t length = MemoryBlockBytes;
  return SendLocked(context, VendorMemoryBlock, blockAddress, 0, buffer, &length, TRUE);
}

NTSTATUS WriteMemoryBlock(DeviceContext* context, uint16_t blockAddress,
                          const uint8_t buffer[MemoryBlockBytes]) {
  uint32_t length = MemoryBlockBytes;
  uint8_t* data = const_cast<uint8_t*>(buffer);
  if ((blockAddress & 0x3F) == 0) {
    return SendLocked(context, VendorMemoryBlock, blockAddress, 0, data, &length, FALSE);
  }
  // Off a 64-byte boundary the controller takes the request without data;
  // the buffer pointer still goes along.
  return SendLocked(context, VendorMemoryBlock, blockAddress, 1, data, nullptr, FALSE);
}

NTSTATUS ReadWideForm1(DeviceContext* context, uint8_t bus, uint8_t registerIndex,
                       uint8_t value[2]) {
  return ReadWide(context, bus, 1, registerIndex, value, 2);
}

NTSTATUS ReadWideForm2(DeviceContext* context, uint8_t bus, uint16_t registerIndex,
                       uint8_t* value) {
  return ReadWide(context, bus, 2, registerIndex, value, 1);
}

NTSTATUS ReadWideForm3(DeviceContext* context, uint8_t bus, uint16_t registerIndex,
                       uint8_t value[2]) {
  return ReadWide(context, bus, 3, registerIndex, value, 2);
}

NTSTATUS SendControllerRestart(DeviceContext* context) {
  return SendLocked(context, VendorRestart, 0, 0, nullptr, nullptr, FALSE);
}

uint8_t ReadSensorByte(void* context, uint8_t registerIndex) {
  auto* device = static_cast<DeviceContext*>(context);
  uint8_t value = 0;
  if (!NT_SUCCESS(ReadRegister(device, uint8_t(device->SensorI2CAddr), registerIndex, &value))) {
    return 0;
  }
  return value;
}

uint8_t ReadControllerByte(void* context, uint8_t registerIndex) {
  uint8_t value = 0;
  if (!NT_SUCCESS(ReadRegister(static_cast<DeviceContext*>(context), 0, registerIndex, &value))) {
    return 0;
  }
  return value;
}

NTSTATUS WriteControllerPairs(void* context, const uint8_t* pairs, uint32_t count) {
  return WriteRegisterPairs(static_cast<DeviceContext*>(context), 0, pairs, count);
}

void WriteSensorPacket(void* context, uint8_t* buffer, uint32_t length) {
  auto* device = static_cast<DeviceContext*>(context);
  // Plain 8-bit sensors take the packet as `length` pairs of register, data.
  // The status is not the library's business.
  WriteRegisterPairs(device, uint8_t(device->SensorI2CAddr), buffer, length);
}

NTSTATUS SensorPropertyHook(DeviceContext*, uint32_t item, uint64_t, uint64_t) {
  return item <= 8 ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED;
}

void WidenString(WCHAR* target, const uint8_t* source, uint32_t resultBytes) {
  for (uint32_t i = 0; i < resultBytes / 2; ++i) {
    target[i] = WCHAR(int16_t(int8_t(source[i])));
  }
}

void NarrowString(uint8_t* target, const WCHAR* source, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) target[i] = uint8_t(source[i]);
}
