// The software serial bus target. It sees the two lines as the controller's
// port makes them (open drain: a line is low when the controller drives it
// low or the target pulls it low) and behaves as an I2C target: a start or
// stop is a data edge while the clock is high; bits are taken at the rising
// clock edge and the target changes its own data drive only while the clock
// is low, after a falling edge. A transfer is the address byte (bit 0: read),
// then on a write the register address bytes and data bytes in the sensor's
// framing, or on a read the data bytes from the register pointer, which a
// repeated start keeps.

#include "emulator/softbus.h"

namespace emu {

void SoftBusTarget::Reset() {
  device_ = nullptr;
  phase_ = Phase::Idle;
  pullLow_ = false;
  clock_ = data_ = true;
  bits_ = 0;
  pointer_ = 0;
  addressBytesSeen_ = 0;
  dataHalf_ = readHalf_ = false;
}

void SoftBusTarget::Update(bool hostClock, bool hostData) {
  const bool data = hostData && !pullLow_;
  if (data != data_) {
    data_ = data;
    if (clock_) {
      if (data) {
        OnStop();
      } else {
        OnStart();
      }
    }
  }
  if (hostClock != clock_) {
    clock_ = hostClock;
    if (clock_) {
      OnClockRise(data_);
    } else {
      OnClockFall();
    }
  }
  // The target changes its drive only while the clock is low, so this is no
  // start or stop.
  data_ = hostData && !pullLow_;
}

void SoftBusTarget::OnStart() {
  ++starts_;
  phase_ = Phase::Address;
  bits_ = 0;
  shift_ = 0;
  pullLow_ = false;
  addressBytesSeen_ = 0;
  dataHalf_ = false;
  readHalf_ = false;
}

void SoftBusTarget::OnStop() {
  phase_ = Phase::Idle;
  pullLow_ = false;
}

void SoftBusTarget::OnClockRise(bool data) {
  switch (phase_) {
    case Phase::Address:
    case Phase::Receive:
      shift_ = uint8_t(shift_ << 1 | (data ? 1 : 0));
      ++bits_;
      break;
    case Phase::HostAck:
      hostAcked_ = !data;
      break;
    default:
      break;
  }
}

void SoftBusTarget::OnClockFall() {
  switch (phase_) {
    case Phase::Address:
      if (bits_ < 8) break;
      device_ = lookup_ ? lookup_(shift_ & 0xFE) : nullptr;
      if (device_ == nullptr) {
        phase_ = Phase::Ignore;
        break;
      }
      ++addressed_;
      reading_ = (shift_ & 1) != 0;
      pullLow_ = true;
      phase_ = Phase::TargetAck;
      break;
    case Phase::Receive:
      if (bits_ < 8) break;
      TakeReceivedByte(shift_);
      pullLow_ = true;
      phase_ = Phase::TargetAck;
      break;
    case Phase::TargetAck:
      pullLow_ = false;
      if (reading_) {
        outByte_ = NextTransmitByte();
        bitPos_ = 7;
        pullLow_ = ((outByte_ >> 7) & 1) == 0;
        phase_ = Phase::Transmit;
      } else {
        bits_ = 0;
        shift_ = 0;
        phase_ = Phase::Receive;
      }
      break;
    case Phase::Transmit:
      if (bitPos_ == 0) {
        pullLow_ = false;
        phase_ = Phase::HostAck;
      } else {
        --bitPos_;
        pullLow_ = ((outByte_ >> bitPos_) & 1) == 0;
      }
      break;
    case Phase::HostAck:
      if (hostAcked_) {
        outByte_ = NextTransmitByte();
        bitPos_ = 7;
        pullLow_ = ((outByte_ >> 7) & 1) == 0;
        phase_ = Phase::Transmit;
      } else {
        pullLow_ = false;
        phase_ = Phase::Ignore;
      }
      break;
    default:
      break;
  }
}

void SoftBusTarget::TakeReceivedByte(uint8_t byte) {
  const uint32_t addressBytes = device_->AddressBytes();
  if (addressBytesSeen_ < addressBytes) {
    pointer_ = addressBytesSeen_ == 0 ? byte : uint16_t(pointer_ << 8 | byte);
    ++addressBytesSeen_;
    readHalf_ = false;
    return;
  }
  if (device_->DataBytes() == 1) {
    if (addressBytes == 1) {
      device_->Write8(uint8_t(pointer_), byte);
    } else {
      device_->Write16Short(pointer_, byte);
    }
    ++pointer_;
    return;
  }
  if (!dataHalf_) {
    dataHigh_ = byte;
    dataHalf_ = true;
    return;
  }
  const uint16_t value = uint16_t(dataHigh_ << 8 | byte);
  if (addressBytes == 1) {
    device_->Write8Wide(uint8_t(pointer_), value);
  } else {
    device_->Write16(pointer_, value);
  }
  dataHalf_ = false;
  ++pointer_;
}

uint8_t SoftBusTarget::NextTransmitByte() {
  if (device_ == nullptr) return 0xFF;
  const bool wideAddress = device_->AddressBytes() == 2;
  if (device_->DataBytes() == 1) {
    uint8_t value = 0xFF;
    if (wideAddress) {
      device_->Read16Short(pointer_, &value);
    } else {
      device_->Read8(uint8_t(pointer_), &value);
    }
    ++pointer_;
    return value;
  }
  if (!readHalf_) {
    uint16_t value = 0xFFFF;
    if (wideAddress) {
      device_->Read16(pointer_, &value);
    } else {
      device_->Read8Wide(uint8_t(pointer_), &value);
    }
    readLow_ = uint8_t(value);
    readHalf_ = true;
    return uint8_t(value >> 8);
  }
  readHalf_ = false;
  ++pointer_;
  return readLow_;
}

}  // namespace emu
