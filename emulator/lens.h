// The lens motor: a four-coil stepper on controller register 0 (bits 1, 2, 3
// and 7, each enabled as an output by the same bit of register 6), driven in
// two-phase full steps, with end stops and, on some cameras, a home switch.
#pragma once

#include <cstdint>

#include "emulator/emulated_camera.h"

namespace emu {

class LensMotor {
 public:
  void Configure(const EmulatedCameraConfig& config);
  // The coil outputs as the port drives them now: register 0 and register 6,
  // bits 0x8E.
  void DriveCoils(uint8_t portBits);

  bool Fitted() const { return kind_ != EmulatedLensKind::None; }
  EmulatedLensKind Kind() const { return kind_; }
  int32_t Position() const { return position_; }
  void SetPosition(int32_t position);
  bool HomeSwitchClosed() const {
    return kind_ == EmulatedLensKind::HomeSwitch && position_ >= homeAt_;
  }
  int32_t FocusPosition() const { return focusAt_; }
  uint64_t Stalls() const { return stalls_; }

 private:
  EmulatedLensKind kind_ = EmulatedLensKind::None;
  int32_t maxPosition_ = 150;
  int32_t homeAt_ = 140;
  int32_t focusAt_ = 100;
  int32_t position_ = 0;
  int phaseIndex_ = 0;  // rotor's place in the cycle 3, 6, 12, 9
  uint64_t stalls_ = 0;
};

}  // namespace emu
