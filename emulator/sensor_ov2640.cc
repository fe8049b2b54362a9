// The OV2640: a 2-megapixel sensor with 8-bit registers in two banks at bus
// address 0x60. It is slow to answer a read: its description needs the
// two-step read (a ReadDelay), or reads give the controller's stale latch.
//
// Pixel array 1600 x 1200. Register 0xFF selects the bank in both banks:
// bit 0 set is the sensor bank, clear the DSP bank (power-on: DSP bank).
// Registers the emulation gives a meaning (all others keep what is written,
// per bank, power-on 0):
//
// Sensor bank (0xFF = 0x01):
// | Reg  | Name   | Meaning                                                         | Power-on |
// |------|--------|-----------------------------------------------------------------|----------|
// | 0x00 | GAIN   | Analogue gain: 16 + GAIN sixteenths                              | 0x00     |
// | 0x04 | REG04  | Bit 7 mirror, bit 6 vertical flip, bits 1-0 exposure bits 1-0    | 0x00     |
// | 0x0A | PIDH   | Product id high, read only                                       | 0x26     |
// | 0x0B | PIDL   | Product id low, read only                                        | 0x42     |
// | 0x10 | AEC    | Exposure bits 9-2 (lines; 256 is nominal)                        | 0x40     |
// | 0x11 | CLKRC  | Bits 5-0: clock divider - 1, multiplies the frame period         | 0x00     |
// | 0x12 | COM7   | Bit 7 reset of both banks (self-clearing). Bits 6-4 readout:     | 0x00     |
// |      |        | 0 UXGA 1600x1200 at 15/s, 4 SVGA 800x600 at 30/s, 1 CIF 400x300  |          |
// |      |        | at 60/s (binned: the whole array); other values UXGA             |          |
// | 0x1C | MIDH   | Manufacturer id high, read only                                  | 0x7F     |
// | 0x1D | MIDL   | Manufacturer id low, read only                                   | 0xA2     |
// | 0x45 | REG45  | Bits 5-0: exposure bits 15-10                                    | 0x00     |
//
// DSP bank (0xFF = 0x00):
// | Reg  | Name     | Meaning                                                       | Power-on |
// |------|----------|---------------------------------------------------------------|----------|
// | 0x05 | R_BYPASS | Bit 0: raw Bayer out (colour processing bypassed)              | 0x00     |
// | 0x5A | ZMOW     | Output width / 4, bits 7-0                                     | 0x00     |
// | 0x5B | ZMOH     | Output height / 4, bits 7-0                                    | 0x00     |
// | 0x5C | ZMHH     | Bits 1-0: output width / 4, bits 9-8; bit 2: height / 4 bit 8  | 0x00     |
// | 0x9B | BRIGHT   | Brightness, two's complement offset in levels                  | 0x00     |
// | 0xDA | IMAGE_MODE | Bits 3-2: 00 YUYV, 01 raw Bayer, 11 planar 4:2:0,            | 0x00     |
// |      |          | 10 RGB (not emulated: YUYV)                                     |          |
//
// The output size is the readout scaled to ZMOW x 4 by ZMOH x 4 (0 in either:
// the readout size; never larger than the readout). Layout: Bayer when
// R_BYPASS bit 0 is set or IMAGE_MODE says raw. Examples a mode section
// writes (DSP bank):
//   1600 x 1200 Bayer (COM7 0x00): R_BYPASS 0x01, ZMOW 0x90, ZMOH 0x2C, ZMHH 0x05.
//   1280 x 960 Bayer (COM7 0x00):  R_BYPASS 0x01, ZMOW 0x40, ZMOH 0xF0, ZMHH 0x01.
//   640 x 480 Bayer (COM7 0x40):   R_BYPASS 0x01, ZMOW 0xA0, ZMOH 0x78, ZMHH 0x00.
//   320 x 240 YUYV (COM7 0x40):    R_BYPASS 0x00, IMAGE_MODE 0x00, ZMOW 0x50, ZMOH 0x3C.
//   176 x 144 4:2:0 (COM7 0x10):   IMAGE_MODE 0x0C, ZMOW 0x2C, ZMOH 0x24.
// Identification for detection: PageSelect 0xFF = 0x01, then 0x0A = 0x26,
// 0x0B = 0x42.

#include <algorithm>
#include <cstring>

#include "emulator/sensor.h"

namespace emu {
namespace {

constexpr uint8_t kBankSelect = 0xFF;
// Sensor bank.
constexpr uint8_t kGain = 0x00, kReg04 = 0x04, kPidh = 0x0A, kPidl = 0x0B, kAec = 0x10,
                  kClkrc = 0x11, kCom7 = 0x12, kMidh = 0x1C, kMidl = 0x1D, kReg45 = 0x45;
// DSP bank.
constexpr uint8_t kBypass = 0x05, kZmow = 0x5A, kZmoh = 0x5B, kZmhh = 0x5C, kBright = 0x9B,
                  kImageMode = 0xDA;

constexpr int kDsp = 0, kSensorBank = 1;

class Ov2640 : public Sensor {
 public:
  Ov2640() { Reset(); }

  const char* Name() const override { return "OV2640"; }
  uint8_t DefaultBusAddress() const override { return 0x60; }
  bool DefaultNeedsTwoStepRead() const override { return true; }
  uint32_t AddressBytes() const override { return 1; }
  uint32_t DataBytes() const override { return 1; }

  void Reset() override {
    std::memset(regs_, 0, sizeof regs_);
    bank_ = kDsp;
    regs_[kSensorBank][kPidh] = 0x26;
    regs_[kSensorBank][kPidl] = 0x42;
    regs_[kSensorBank][kMidh] = 0x7F;
    regs_[kSensorBank][kMidl] = 0xA2;
    regs_[kSensorBank][kAec] = 0x40;
  }

  bool Write8(uint8_t reg, uint8_t value) override {
    if (reg == kBankSelect) {
      bank_ = value & 1;
      regs_[kDsp][kBankSelect] = regs_[kSensorBank][kBankSelect] = value;
      return true;
    }
    if (bank_ == kSensorBank) {
      if (reg == kPidh || reg == kPidl || reg == kMidh || reg == kMidl) return true;
      if (reg == kCom7 && (value & 0x80)) {
        Reset();
        return true;
      }
    }
    regs_[bank_][reg] = value;
    return true;
  }

  bool Read8(uint8_t reg, uint8_t* value) override {
    *value = regs_[bank_][reg];
    return true;
  }

  SensorOutput Output() const override {
    const uint8_t* s = regs_[kSensorBank];
    const uint8_t* d = regs_[kDsp];
    SensorOutput out;
    out.arrayWidth = 1600;
    out.arrayHeight = 1200;
    out.fieldWidth = 1600;
    out.fieldHeight = 1200;
    uint32_t readoutW = 1600, readoutH = 1200;
    int64_t period = 666667;  // 1/15 s
    switch ((s[kCom7] >> 4) & 7) {
      case 4:
        readoutW = 800, readoutH = 600, period = 333333;
        break;
      case 1:
        readoutW = 400, readoutH = 300, period = 166667;
        break;
      default:
        break;
    }
    uint32_t w = (uint32_t(d[kZmow]) | uint32_t(d[kZmhh] & 3) << 8) * 4;
    uint32_t h = (uint32_t(d[kZmoh]) | uint32_t((d[kZmhh] >> 2) & 1) << 8) * 4;
    if (w == 0 || h == 0) {
      w = readoutW;
      h = readoutH;
    }
    out.width = std::min(w, readoutW);
    out.height = std::min(h, readoutH);
    const uint32_t mode = (d[kImageMode] >> 2) & 3;
    if ((d[kBypass] & 1) || mode == 1) {
      out.layout = WireFrameLayout::Bayer;
    } else if (mode == 3) {
      out.layout = WireFrameLayout::Yuv420;
    } else {
      out.layout = WireFrameLayout::Yuyv;
      out.width &= ~1u;
    }
    out.mirror = (s[kReg04] & 0x80) != 0;
    out.flip = (s[kReg04] & 0x40) != 0;
    out.exposure = uint32_t(s[kReg45] & 0x3F) << 10 | uint32_t(s[kAec]) << 2 | (s[kReg04] & 3);
    out.nominalExposure = 256;
    out.gain16 = 16 + s[kGain];
    out.brightness = int8_t(d[kBright]);
    out.framePeriod100ns = period * ((s[kClkrc] & 0x3F) + 1);
    return out;
  }

  bool Peek(uint16_t reg, uint16_t* value) const override {
    if (reg > 0x1FF) return false;
    *value = regs_[reg >> 8][reg & 0xFF];
    return true;
  }

 private:
  uint8_t regs_[2][256];
  int bank_ = kDsp;
};

}  // namespace

std::unique_ptr<Sensor> MakeOv2640Sensor() { return std::make_unique<Ov2640>(); }

}  // namespace emu
