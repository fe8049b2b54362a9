// The sensors behind the emulated controller, as devices on its serial bus.
// Each sensor keeps its register file and answers the register dialects the
// controller's requests turn into; from its mode registers it says what it
// sends on the wire. The register maps are documented in each sensor's file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "emulator/emulated_camera.h"

namespace emu {

// What the sensor sends now, as its registers set it.
struct SensorOutput {
  uint32_t width = 0;
  uint32_t height = 0;
  WireFrameLayout layout = WireFrameLayout::Yuyv;
  uint32_t arrayWidth = 0;
  uint32_t arrayHeight = 0;
  uint32_t fieldLeft = 0;
  uint32_t fieldTop = 0;
  uint32_t fieldWidth = 0;
  uint32_t fieldHeight = 0;
  bool mirror = false;
  bool flip = false;
  uint32_t exposure = 256;
  uint32_t nominalExposure = 256;
  uint32_t gain16 = 16;
  int32_t brightness = 0;
  int64_t framePeriod100ns = 333333;
};

// A device on the serial bus. Every access returns false when the device
// does not acknowledge it (a dialect it does not speak); the controller then
// stalls the request.
class Sensor {
 public:
  virtual ~Sensor() = default;

  virtual const char* Name() const = 0;
  virtual uint8_t DefaultBusAddress() const = 0;
  virtual bool DefaultNeedsTwoStepRead() const = 0;
  // Register address bytes a bus transaction carries before the data (1 or
  // 2), and data bytes per register (1 or 2): the software bus's framing.
  virtual uint32_t AddressBytes() const = 0;
  virtual uint32_t DataBytes() const = 0;
  // Power-on state.
  virtual void Reset() = 0;

  // Plain dialect: 8-bit register, 8-bit data.
  virtual bool Write8(uint8_t reg, uint8_t value) = 0;
  virtual bool Read8(uint8_t reg, uint8_t* value) = 0;
  // Request 3 with a register in wIndex: the register byte then `length`
  // bytes, as they go on the bus. 8-bit sensors take them to consecutive
  // registers.
  virtual bool WriteBurst(uint8_t reg, const uint8_t* data, size_t length);
  // 8-bit register, 16-bit data (entries of request 3 index 0x0300, wide
  // read form 1). 8-bit sensors: the register and the next, high byte first.
  virtual bool Write8Wide(uint8_t reg, uint16_t value);
  virtual bool Read8Wide(uint8_t reg, uint16_t* value);
  // 16-bit register with 16-bit or 8-bit data.
  virtual bool Write16(uint16_t reg, uint16_t value);
  virtual bool Read16(uint16_t reg, uint16_t* value);
  virtual bool Write16Short(uint16_t reg, uint8_t value);
  virtual bool Read16Short(uint16_t reg, uint8_t* value);

  virtual SensorOutput Output() const = 0;
  // Inspection without side effects (see EmulatedCamera::PeekSensorRegister).
  virtual bool Peek(uint16_t reg, uint16_t* value) const = 0;
  virtual bool PeekVariable(uint16_t address, uint16_t* value) const;
};

std::unique_ptr<Sensor> MakeOv7670Sensor();
std::unique_ptr<Sensor> MakeOv2640Sensor();
std::unique_ptr<Sensor> MakeMi20xxSensor(bool mi2021);
std::unique_ptr<Sensor> MakeSensor(EmulatedSensorKind kind);

}  // namespace emu
