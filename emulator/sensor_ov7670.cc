// The OV7670: a VGA sensor with 8-bit registers at bus address 0x42. A
// one-step read works (its description needs no ReadDelay).
//
// Pixel array 640 x 480. Registers the emulation gives a meaning (all others
// keep what is written and read back, power-on 0):
//
// | Reg  | Name   | Meaning                                                        | Power-on |
// |------|--------|----------------------------------------------------------------|----------|
// | 0x00 | GAIN   | Analogue gain: 16 + GAIN sixteenths (0 is unity, 16 twice)      | 0x00     |
// | 0x04 | COM1   | Bits 1-0: exposure bits 1-0                                     | 0x00     |
// | 0x07 | AECHH  | Bits 5-0: exposure bits 15-10                                   | 0x00     |
// | 0x0A | PID    | Product id, read only                                           | 0x76     |
// | 0x0B | VER    | Version, read only                                              | 0x73     |
// | 0x10 | AECH   | Exposure bits 9-2 (exposure in lines; 256 is nominal)           | 0x40     |
// | 0x11 | CLKRC  | Bits 5-0: clock divider - 1; frame period 1/30 s x (it + 1)     | 0x00     |
// | 0x12 | COM7   | Bit 7 reset (self-clearing). Size: bit 5 CIF 352x288, bit 4     | 0x00     |
// |      |        | QVGA 320x240, bit 3 QCIF 176x144, none VGA 640x480 (first set   |          |
// |      |        | bit wins). Bits 2,0 output: 00 YUYV, 01 or 11 raw Bayer,        |          |
// |      |        | 10 RGB (not emulated: YUYV is sent)                             |          |
// | 0x1C | MIDH   | Manufacturer id high, read only                                 | 0x7F     |
// | 0x1D | MIDL   | Manufacturer id low, read only                                  | 0xA2     |
// | 0x1E | MVFP   | Bit 5 mirror (columns right to left), bit 4 vertical flip       | 0x00     |
// | 0x55 | BRIGHT | Brightness, two's complement offset in levels (not the          | 0x00     |
// |      |        | sign-magnitude of the datasheet)                                |          |
// | 0x72 | DCWCTR | Down-sampling: bits 1-0 horizontal, bits 5-4 vertical, each    | 0x00     |
// |      |        | 0 = 1, 1 = 1/2, 2 = 1/4, 3 = 1/8 of the size chosen by COM7     |          |
//
// VGA and QVGA show the whole array; CIF and QCIF a centred 586 x 480 window
// (11:9). A YUYV width is made even. Examples a mode section writes:
//   640 x 480 YUYV: COM7 0x00, DCWCTR 0x00.   640 x 480 Bayer: COM7 0x01.
//   320 x 240 YUYV: COM7 0x10.                160 x 120 YUYV: COM7 0x10, DCWCTR 0x11.
//   352 x 288 YUYV: COM7 0x20.                176 x 144 YUYV: COM7 0x08.
// Identification for detection: 0x0A = 0x76, 0x0B = 0x73.

#include <cstring>

#include "emulator/sensor.h"

namespace emu {
namespace {

constexpr uint8_t kGain = 0x00, kCom1 = 0x04, kAechh = 0x07, kPid = 0x0A, kVer = 0x0B, kAech = 0x10,
                  kClkrc = 0x11, kCom7 = 0x12, kMidh = 0x1C, kMidl = 0x1D, kMvfp = 0x1E,
                  kBright = 0x55, kDcw = 0x72;

constexpr int64_t kFramePeriod30 = 333333;  // 1/30 s in 100 ns units

class Ov7670 : public Sensor {
 public:
  Ov7670() { Reset(); }

  const char* Name() const override { return "OV7670"; }
  uint8_t DefaultBusAddress() const override { return 0x42; }
  bool DefaultNeedsTwoStepRead() const override { return false; }
  uint32_t AddressBytes() const override { return 1; }
  uint32_t DataBytes() const override { return 1; }

  void Reset() override {
    std::memset(regs_, 0, sizeof regs_);
    regs_[kPid] = 0x76;
    regs_[kVer] = 0x73;
    regs_[kMidh] = 0x7F;
    regs_[kMidl] = 0xA2;
    regs_[kAech] = 0x40;
  }

  bool Write8(uint8_t reg, uint8_t value) override {
    if (reg == kPid || reg == kVer || reg == kMidh || reg == kMidl) return true;
    if (reg == kCom7 && (value & 0x80)) {
      Reset();
      return true;
    }
    regs_[reg] = value;
    return true;
  }

  bool Read8(uint8_t reg, uint8_t* value) override {
    *value = regs_[reg];
    return true;
  }

  SensorOutput Output() const override {
    SensorOutput out;
    out.arrayWidth = 640;
    out.arrayHeight = 480;
    const uint8_t com7 = regs_[kCom7];
    uint32_t w = 640, h = 480;
    bool cifWindow = false;
    if (com7 & 0x20) {
      w = 352, h = 288, cifWindow = true;
    } else if (com7 & 0x10) {
      w = 320, h = 240;
    } else if (com7 & 0x08) {
      w = 176, h = 144, cifWindow = true;
    }
    if (cifWindow) {
      // 11:9 of 480 lines is 586.7 columns.
      out.fieldWidth = 586;
      out.fieldLeft = (640 - 586) / 2;
    } else {
      out.fieldWidth = 640;
    }
    out.fieldHeight = 480;
    const uint8_t dcw = regs_[kDcw];
    w >>= (dcw & 3);
    h >>= ((dcw >> 4) & 3);
    out.layout = (com7 & 0x01) ? WireFrameLayout::Bayer : WireFrameLayout::Yuyv;
    if (out.layout == WireFrameLayout::Yuyv) w &= ~1u;
    out.width = w;
    out.height = h;
    out.mirror = (regs_[kMvfp] & 0x20) != 0;
    out.flip = (regs_[kMvfp] & 0x10) != 0;
    out.exposure =
        uint32_t(regs_[kAechh] & 0x3F) << 10 | uint32_t(regs_[kAech]) << 2 | (regs_[kCom1] & 3);
    out.nominalExposure = 256;
    out.gain16 = 16 + regs_[kGain];
    out.brightness = int8_t(regs_[kBright]);
    out.framePeriod100ns = kFramePeriod30 * ((regs_[kClkrc] & 0x3F) + 1);
    return out;
  }

  bool Peek(uint16_t reg, uint16_t* value) const override {
    if (reg > 0xFF) return false;
    *value = regs_[reg];
    return true;
  }

 private:
  uint8_t regs_[256];
};

}  // namespace

std::unique_ptr<Sensor> MakeOv7670Sensor() { return std::make_unique<Ov7670>(); }

}  // namespace emu
