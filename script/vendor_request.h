// Vendor requests: everything the driver does to the MR740 controller and the
// sensor behind it, apart from the streaming data, goes out as a vendor
// control request on the default pipe. These wrappers are the one place that
// builds them. Each takes VendorMutex, sends one synchronous request (two for
// a two-step read), releases the mutex and hands back the host's status
// unchanged. None checks its arguments or retries.
//
// A bus address travels in the high byte of wValue: 0 is the controller's own
// registers, any other value a device on its serial bus, normally the sensor.
#pragma once

#include <cstdint>

#include "core/device_context.h"

// bRequest numbers of the controller.
enum VendorRequestCode : uint8_t {
  VendorWriteOrStartRead = 1,  // 8-bit register write; first step of a two-step read
  VendorRead = 2,              // 8-bit register read; second step of a two-step read
  VendorWriteList = 3,         // burst or list writes, told apart by wIndex
  VendorStreaming = 5,         // wValue 1 starts streaming, 0 stops it
  VendorMemoryBlock = 6,       // 64-byte memory block
  VendorRestart = 7,           // restart request to the controller
  VendorWideRead = 8,          // 16-bit register or data reads, form in the low byte of wValue
  VendorEndOfStartUp = 11,     // end of start-up initialisation
};

// wIndex of the list forms of VendorWriteList, and the two-step read mark.
constexpr uint16_t VendorIndexPairs = 0x0200;
constexpr uint16_t VendorIndexTriplesForm3 = 0x0300;
constexpr uint16_t VendorIndexTriplesForm4 = 0x0400;
constexpr uint16_t VendorIndexQuads = 0x0500;
constexpr uint16_t VendorIndexTwoStepRead = 0x8000;
constexpr uint32_t MemoryBlockBytes = 64;

// One 8-bit register. With a sensor bus address and a non-zero ReadDelay the
// read takes two steps with a pause between them, as one unit under the mutex.
NTSTATUS ReadRegister(DeviceContext* context, uint8_t bus, uint8_t registerIndex, uint8_t* value);
NTSTATUS WriteRegister(DeviceContext* context, uint8_t bus, uint8_t registerIndex,
                       const uint8_t* data);
// `count` pairs of register, data.
NTSTATUS WriteRegisterPairs(DeviceContext* context, uint8_t bus, const uint8_t* buffer,
                            uint32_t count);
// `byteCount` bytes to consecutive locations from `registerIndex` on.
NTSTATUS WriteRegisterBurst(DeviceContext* context, uint8_t bus, uint8_t registerIndex,
                            const uint8_t* buffer, uint32_t byteCount);
// `count` three-byte entries, passed through as the caller built them.
NTSTATUS WriteTriplesForm3(DeviceContext* context, uint8_t bus, const uint8_t* buffer,
                           uint32_t count);
NTSTATUS WriteTriplesForm4(DeviceContext* context, uint8_t bus, const uint8_t* buffer,
                           uint32_t count);
// `count` entries of register high, register low, data high, data low.
NTSTATUS WriteQuads(DeviceContext* context, uint8_t bus, const uint8_t* buffer, uint32_t count);
NTSTATUS ReadMemoryBlock(DeviceContext* context, uint16_t blockAddress,
                         uint8_t buffer[MemoryBlockBytes]);
// At an address off a 64-byte boundary the request carries no data.
NTSTATUS WriteMemoryBlock(DeviceContext* context, uint16_t blockAddress,
                          const uint8_t buffer[MemoryBlockBytes]);
// Wide reads: 8-bit register with 16-bit data, 16-bit register with 8-bit
// data, and 16-bit register with 16-bit data.
NTSTATUS ReadWideForm1(DeviceContext* context, uint8_t bus, uint8_t registerIndex,
                       uint8_t value[2]);
NTSTATUS ReadWideForm2(DeviceContext* context, uint8_t bus, uint16_t registerIndex,
                       uint8_t* value);
NTSTATUS ReadWideForm3(DeviceContext* context, uint8_t bus, uint16_t registerIndex,
                       uint8_t value[2]);
NTSTATUS SendControllerRestart(DeviceContext* context);

// The image library's way back to the camera, handed over at ISPFunc_Init
// with the DeviceContext as their context. A failed read gives 0.
uint8_t ReadSensorByte(void* context, uint8_t registerIndex);
uint8_t ReadControllerByte(void* context, uint8_t registerIndex);
NTSTATUS WriteControllerPairs(void* context, const uint8_t* pairs, uint32_t count);
// Writes a packet to the sensor. For the plain 8-bit sensors the buffer is
// `length` pairs of register, data.
void WriteSensorPacket(void* context, uint8_t* buffer, uint32_t length);

// Sensor-specific property handling for the ProcAmp setter when ControlMethod
// is 0. It does nothing: STATUS_SUCCESS for items 0 to 8, STATUS_NOT_SUPPORTED
// for any other.
NTSTATUS SensorPropertyHook(DeviceContext* context, uint32_t item, uint64_t argument1,
                            uint64_t argument2);

// Copies bytes to 16-bit characters, each byte sign-extended. `resultBytes`
// is the size of the result in bytes (18 copies nine characters); 0 and 1 copy
// nothing.
void WidenString(WCHAR* target, const uint8_t* source, uint32_t resultBytes);
// Copies `count` 16-bit characters to bytes, keeping the low byte of each.
void NarrowString(uint8_t* target, const WCHAR* source, uint32_t count);
