// What every sensor has in common: the dialects an 8-bit sensor builds from
// its plain registers, and the ones a sensor does not speak at all.

#include "emulator/sensor.h"

namespace emu {

bool Sensor::WriteBurst(uint8_t reg, const uint8_t* data, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (!Write8(uint8_t(reg + i), data[i])) return false;
  }
  return true;
}

bool Sensor::Write8Wide(uint8_t reg, uint16_t value) {
  return Write8(reg, uint8_t(value >> 8)) && Write8(uint8_t(reg + 1), uint8_t(value));
}

bool Sensor::Read8Wide(uint8_t reg, uint16_t* value) {
  uint8_t high = 0, low = 0;
  if (!Read8(reg, &high) || !Read8(uint8_t(reg + 1), &low)) return false;
  *value = uint16_t(high << 8 | low);
  return true;
}

bool Sensor::Write16(uint16_t, uint16_t) { return false; }
bool Sensor::Read16(uint16_t, uint16_t*) { return false; }
bool Sensor::Write16Short(uint16_t, uint8_t) { return false; }
bool Sensor::Read16Short(uint16_t, uint8_t*) { return false; }
bool Sensor::PeekVariable(uint16_t, uint16_t*) const { return false; }

std::unique_ptr<Sensor> MakeSensor(EmulatedSensorKind kind) {
  switch (kind) {
    case EmulatedSensorKind::OV7670:
      return MakeOv7670Sensor();
    case EmulatedSensorKind::OV2640:
      return MakeOv2640Sensor();
    case EmulatedSensorKind::MI2020:
      return MakeMi20xxSensor(false);
    case EmulatedSensorKind::MI2021:
      return MakeMi20xxSensor(true);
  }
  return MakeOv2640Sensor();
}

}  // namespace emu
