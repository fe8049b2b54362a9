// The software serial bus: an I2C target that watches the two controller
// port lines the driver toggles by hand (register 7 bit 5 clock, bit 6 data;
// register 13 bits 5 and 6 drive them as outputs) and forwards complete
// transfers to the sensor at the addressed bus address.
#pragma once

#include <cstdint>
#include <functional>

#include "emulator/sensor.h"

namespace emu {

class SoftBusTarget {
 public:
  // Finds the device at a bus address (the 8-bit write form); null if none.
  using DeviceLookup = std::function<Sensor*(uint8_t address)>;

  explicit SoftBusTarget(DeviceLookup lookup) : lookup_(std::move(lookup)) {}

  // Power-on: idle, lines released.
  void Reset();
  // The levels the controller drives now (1 for a line it releases). A change
  // of both lines in one register write counts as data first, then clock.
  void Update(bool hostClock, bool hostData);
  // The target pulls the data line low (acknowledge or a 0 bit).
  bool PullsDataLow() const { return pullLow_; }

  // Transfers seen, for tests: completed starts and acknowledged addresses.
  uint64_t Starts() const { return starts_; }
  uint64_t AddressedTransfers() const { return addressed_; }

 private:
  enum class Phase {
    Idle,       // waiting for a start
    Address,    // shifting in the address byte
    TargetAck,  // the target acknowledges in the ninth clock
    Receive,    // shifting in a data byte
    Transmit,   // shifting out a data byte
    HostAck,    // the host acknowledges (or not) in the ninth clock
    Ignore,     // not addressed, or the host said no more: wait for a start
  };

  void OnStart();
  void OnStop();
  void OnClockRise(bool data);
  void OnClockFall();
  void TakeReceivedByte(uint8_t byte);
  uint8_t NextTransmitByte();

  DeviceLookup lookup_;
  Sensor* device_ = nullptr;
  Phase phase_ = Phase::Idle;
  bool reading_ = false;
  bool hostAcked_ = false;
  bool pullLow_ = false;
  bool clock_ = true;  // line levels as last seen
  bool data_ = true;
  uint32_t bits_ = 0;
  uint8_t shift_ = 0;
  uint8_t outByte_ = 0;
  int bitPos_ = 0;
  // Register pointer and the bytes of the current write.
  uint32_t addressBytesSeen_ = 0;
  uint16_t pointer_ = 0;
  uint8_t dataHigh_ = 0;
  bool dataHalf_ = false;
  bool readHalf_ = false;
  uint8_t readLow_ = 0;
  uint64_t starts_ = 0;
  uint64_t addressed_ = 0;
};

}  // namespace emu
