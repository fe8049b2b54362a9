// The MI2020 and MI2021: 2-megapixel system-on-chip sensors with 16-bit
// registers and 16-bit data. The MI2020 sits at bus address 0x7A and needs the
// two-step read; the MI2021 sits at 0x78, answers one-step reads and is
// fitted on revision-2 controllers (request 3 with 0x0500 quads, request 8).
//
// Pixel array 1600 x 1200. Direct registers (16-bit address; all others keep
// what is written, power-on 0):
//
// | Reg    | Meaning                                                            | Power-on |
// |--------|--------------------------------------------------------------------|----------|
// | 0x0000 | Chip version, read only: MI2020 0x1519, MI2021 0x1580               |          |
// | 0x0005 | Bits 5-0: clock divider - 1, multiplies the frame period            | 0x0000   |
// | 0x0009 | Integration time in lines (256 is nominal)                          | 0x0100   |
// | 0x000D | Bit 0: reset to power-on (self-clearing)                            | 0x0000   |
// | 0x0020 | Read mode: bit 0 vertical flip, bit 1 mirror                        | 0x0000   |
// | 0x002F | Global gain in sixteenths (16 is unity)                             | 0x0010   |
// | 0x0034 | Brightness, two's complement offset in levels                       | 0x0000   |
// | 0x338C | Address of the MCU variable that 0x3390 reaches                     | 0x0000   |
// | 0x3390 | Data of that MCU variable                                           |          |
//
// MCU variables, by the address written to 0x338C. Bit 15 of that address set
// means 8-bit access (only the low byte is written or read); the variable is
// the address with bit 15 clear, so 0xA103 and 0x2103 are the same one:
//
// | Var    | Meaning                                                            | Power-on |
// |--------|--------------------------------------------------------------------|----------|
// | 0x2103 | seq.cmd: 1 go to context A (preview), 2 go to context B (capture),  | reads 0  |
// |        | 5 and 6 refresh (accepted, nothing to do); reads 0 when done        |          |
// | 0x2104 | seq.state, read only: 3 in context A, 7 in context B                |          |
// | 0x2511 | Tuning byte (SetSensorTuningByte writes 0xA511): signed offset added | 0x00     |
// |        | to the brightness                                                   |          |
// | 0x2703 | Context A output width                                              | 800      |
// | 0x2705 | Context A output height                                             | 600      |
// | 0x2707 | Context B output width                                              | 1600     |
// | 0x2709 | Context B output height                                             | 1200     |
// | 0x2717 | Context A read mode: bit 0 2x2 binning (readout 800 x 600, twice    | 0x0001   |
// |        | the frame rate: 30/s against 15/s)                                  |          |
// | 0x272D | Context B read mode, the same                                       | 0x0000   |
// | 0x2755 | Context A output format: 0 YUYV, 1 raw Bayer, 2 planar 4:2:0        | 0x0000   |
// | 0x2757 | Context B output format, the same                                   | 0x0000   |
//
// The output is the readout scaled to the context's width and height (0 or
// larger than the readout: the readout size). Power-on context: A.
//
// Dialects on the serial bus:
//   - 16-bit register, 16-bit data: request 3 index 0x0500 quads; request 3
//     with the register's high byte in wIndex and the bytes register low,
//     data high, data low (more data pairs go to the following registers);
//     request 8 form 3; the software bus (two address bytes, then data high
//     and low).
//   - 16-bit register, 8-bit data: request 3 with the register's high byte in
//     wIndex and the two bytes register low, data (the register takes the
//     byte as its value); request 3 index 0x0400 entries; request 8 form 2
//     answers the low byte.
//   - 8-bit register, 16-bit data ("two-part value"): register R (not 0xF0)
//     is direct register 0x00RR. A write of R latches the high byte, and the
//     following write of 0xF0 (the description's RegisterAddrLo) writes the
//     low byte and the whole value. A read of R answers the high byte and
//     latches the low one, which a read of 0xF0 answers. Request 3 index
//     0x0300 entries and request 8 form 1 carry the whole value at once.
//
// Examples a mode section writes (revision 2 shown with WRITEEX):
//   800 x 600 YUYV, context A: WRITEEX 7A 338C 2703, WRITEEX 7A 3390 0320,
//     WRITEEX 7A 338C 2705, WRITEEX 7A 3390 0258, WRITEEX 7A 338C A103,
//     WRITEEX 7A 3390 0001.
//   1600 x 1200 Bayer, context B: 338C 2757 / 3390 0001, then 338C A103 /
//     3390 0002.
//   640 x 480 Bayer, context A: 338C 2703 / 3390 0280, 338C 2705 / 3390 01E0,
//     338C 2755 / 3390 0001, 338C A103 / 3390 0001.
// Identification for detection (8-bit reads): 0x00 = 0x15, then 0xF0 = 0x19
// (MI2020) or 0x80 (MI2021).

#include <algorithm>
#include <map>
#include <vector>

#include "emulator/sensor.h"

namespace emu {
namespace {

constexpr uint16_t kChipVersion = 0x0000, kClockDivider = 0x0005, kIntegration = 0x0009,
                   kReset = 0x000D, kReadMode = 0x0020, kGlobalGain = 0x002F, kBrightness = 0x0034,
                   kMcuAddress = 0x338C, kMcuData = 0x3390;

constexpr uint16_t kVarSeqCmd = 0x2103, kVarSeqState = 0x2104, kVarTuning = 0x2511;

// The variables of the two contexts.
struct ContextVariables {
  uint16_t width, height, readMode, format;
};
constexpr ContextVariables kContextA = {0x2703, 0x2705, 0x2717, 0x2755};
constexpr ContextVariables kContextB = {0x2707, 0x2709, 0x272D, 0x2757};

constexpr uint8_t kLowBytePort = 0xF0;

class Mi20xx : public Sensor {
 public:
  explicit Mi20xx(bool mi2021) : mi2021_(mi2021), regs_(65536) { Reset(); }

  const char* Name() const override { return mi2021_ ? "MI2021" : "MI2020"; }
  uint8_t DefaultBusAddress() const override { return mi2021_ ? 0x78 : 0x7A; }
  bool DefaultNeedsTwoStepRead() const override { return !mi2021_; }
  uint32_t AddressBytes() const override { return 2; }
  uint32_t DataBytes() const override { return 2; }

  void Reset() override {
    std::fill(regs_.begin(), regs_.end(), 0);
    regs_[kChipVersion] = mi2021_ ? 0x1580 : 0x1519;
    regs_[kIntegration] = 0x0100;
    regs_[kGlobalGain] = 0x0010;
    vars_.clear();
    vars_[kContextA.width] = 800;
    vars_[kContextA.height] = 600;
    vars_[kContextA.readMode] = 1;
    vars_[kContextB.width] = 1600;
    vars_[kContextB.height] = 1200;
    contextB_ = false;
    pendingValid_ = false;
    readLow_ = 0;
  }

  bool Write16(uint16_t reg, uint16_t value) override {
    switch (reg) {
      case kChipVersion:
        return true;
      case kReset:
        if (value & 1) Reset();
        return true;
      case kMcuData:
        WriteVariable(regs_[kMcuAddress], value);
        return true;
      default:
        regs_[reg] = value;
        return true;
    }
  }

  bool Read16(uint16_t reg, uint16_t* value) override {
    *value = reg == kMcuData ? ReadVariable(regs_[kMcuAddress]) : regs_[reg];
    return true;
  }

  bool Write16Short(uint16_t reg, uint8_t value) override { return Write16(reg, value); }

  bool Read16Short(uint16_t reg, uint8_t* value) override {
    uint16_t wide = 0;
    Read16(reg, &wide);
    *value = uint8_t(wide);
    return true;
  }

  bool Write8(uint8_t reg, uint8_t value) override {
    if (reg == kLowBytePort) {
      if (pendingValid_) Write16(pendingRegister_, uint16_t(pendingHigh_ << 8 | value));
      pendingValid_ = false;
      return true;
    }
    pendingRegister_ = reg;
    pendingHigh_ = value;
    pendingValid_ = true;
    return true;
  }

  bool Read8(uint8_t reg, uint8_t* value) override {
    if (reg == kLowBytePort) {
      *value = readLow_;
      return true;
    }
    uint16_t wide = 0;
    Read16(reg, &wide);
    readLow_ = uint8_t(wide);
    *value = uint8_t(wide >> 8);
    return true;
  }

  bool Write8Wide(uint8_t reg, uint16_t value) override { return Write16(reg, value); }
  bool Read8Wide(uint8_t reg, uint16_t* value) override { return Read16(reg, value); }

  bool WriteBurst(uint8_t registerHigh, const uint8_t* data, size_t length) override {
    if (length < 2) return true;  // an address alone: nothing is written
    uint16_t reg = uint16_t(registerHigh << 8 | data[0]);
    if (length == 2) return Write16Short(reg, data[1]);
    for (size_t i = 1; i + 1 < length; i += 2) {
      Write16(reg++, uint16_t(data[i] << 8 | data[i + 1]));
    }
    return true;
  }

  SensorOutput Output() const override {
    const ContextVariables& c = contextB_ ? kContextB : kContextA;
    SensorOutput out;
    out.arrayWidth = out.fieldWidth = 1600;
    out.arrayHeight = out.fieldHeight = 1200;
    const bool binned = (Variable(c.readMode) & 1) != 0;
    const uint32_t readoutW = binned ? 800 : 1600;
    const uint32_t readoutH = binned ? 600 : 1200;
    uint32_t w = Variable(c.width), h = Variable(c.height);
    out.width = (w == 0 || w > readoutW) ? readoutW : w;
    out.height = (h == 0 || h > readoutH) ? readoutH : h;
    switch (Variable(c.format)) {
      case 1:
        out.layout = WireFrameLayout::Bayer;
        break;
      case 2:
        out.layout = WireFrameLayout::Yuv420;
        break;
      default:
        out.layout = WireFrameLayout::Yuyv;
        out.width &= ~1u;
        break;
    }
    out.mirror = (regs_[kReadMode] & 2) != 0;
    out.flip = (regs_[kReadMode] & 1) != 0;
    out.exposure = regs_[kIntegration];
    out.nominalExposure = 256;
    out.gain16 = regs_[kGlobalGain];
    out.brightness = int16_t(regs_[kBrightness]) + int8_t(Variable(kVarTuning));
    const int64_t base = binned ? 333333 : 666667;  // 30/s binned, 15/s full
    out.framePeriod100ns = base * ((regs_[kClockDivider] & 0x3F) + 1);
    return out;
  }

  bool Peek(uint16_t reg, uint16_t* value) const override {
    *value = reg == kMcuData ? ReadVariable(regs_[kMcuAddress]) : regs_[reg];
    return true;
  }

  bool PeekVariable(uint16_t address, uint16_t* value) const override {
    *value = ReadVariable(address);
    return true;
  }

 private:
  uint16_t Variable(uint16_t key) const {
    auto it = vars_.find(key);
    return it == vars_.end() ? 0 : it->second;
  }

  void WriteVariable(uint16_t address, uint16_t value) {
    const uint16_t key = address & 0x7FFF;
    if (address & 0x8000) value &= 0xFF;
    if (key == kVarSeqCmd) {
      if (value == 1) contextB_ = false;
      if (value == 2) contextB_ = true;
      return;
    }
    if (key == kVarSeqState) return;
    vars_[key] = value;
  }

  uint16_t ReadVariable(uint16_t address) const {
    const uint16_t key = address & 0x7FFF;
    uint16_t value;
    if (key == kVarSeqCmd) {
      value = 0;
    } else if (key == kVarSeqState) {
      value = contextB_ ? 7 : 3;
    } else {
      value = Variable(key);
    }
    return (address & 0x8000) ? uint16_t(value & 0xFF) : value;
  }

  const bool mi2021_;
  std::vector<uint16_t> regs_;
  std::map<uint16_t, uint16_t> vars_;
  bool contextB_ = false;
  bool pendingValid_ = false;
  uint8_t pendingRegister_ = 0;
  uint8_t pendingHigh_ = 0;
  uint8_t readLow_ = 0;
};

}  // namespace

std::unique_ptr<Sensor> MakeMi20xxSensor(bool mi2021) { return std::make_unique<Mi20xx>(mi2021); }

}  // namespace emu
