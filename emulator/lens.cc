// The lens motor. The coil pattern is the phase: phase bit 0 on port bit 1,
// bit 1 on port bit 2, bit 2 on port bit 3, bit 3 on port bit 7. The two-coil
// patterns 3, 6, 12, 9 follow each other forward (towards the forward end
// stop, higher positions), and in reverse order backward. The rotor follows a
// pattern one phase away; a pattern two phases away (the opposite one) pulls
// it neither way and the step is lost (a stall). Released coils (no bit) or a
// pattern that is no full step (one coil, three, four) leave the rotor where
// it is. At an end stop the rotor's phase follows the coils but the lens does
// not move: the steps slip.

#include "emulator/lens.h"

#include <algorithm>

namespace emu {
namespace {

constexpr uint8_t kCycle[4] = {3, 6, 12, 9};

int PhaseIndex(uint8_t phase) {
  for (int i = 0; i < 4; ++i) {
    if (kCycle[i] == phase) return i;
  }
  return -1;
}

}  // namespace

void LensMotor::Configure(const EmulatedCameraConfig& config) {
  kind_ = config.lens;
  maxPosition_ = std::max(config.lensMaxPosition, 0);
  homeAt_ = config.lensHomeSwitchAt;
  focusAt_ = config.lensFocusPosition;
  stalls_ = 0;
  SetPosition(config.lensStartPosition);
}

void LensMotor::SetPosition(int32_t position) {
  position_ = std::clamp(position, 0, maxPosition_);
  phaseIndex_ = position_ & 3;
}

void LensMotor::DriveCoils(uint8_t portBits) {
  if (kind_ == EmulatedLensKind::None) return;
  const uint8_t phase = uint8_t(((portBits >> 1) & 1) | ((portBits >> 2) & 1) << 1 |
                                ((portBits >> 3) & 1) << 2 | ((portBits >> 7) & 1) << 3);
  const int index = PhaseIndex(phase);
  if (index < 0) return;
  const int turn = (index - phaseIndex_) & 3;
  phaseIndex_ = index;
  if (turn == 1) {
    position_ = std::min(position_ + 1, maxPosition_);
  } else if (turn == 3) {
    position_ = std::max(position_ - 1, 0);
  } else if (turn == 2) {
    ++stalls_;
  }
}

}  // namespace emu
