// The MR740 controller: its 256 registers on bus address 0, its 64 KiB
// memory, the serial bus master that turns register requests into accesses
// of the sensors, and the vendor requests of the control pipe.
//
// Controller registers with a meaning (all others keep what is written and
// read back; power-on 0 except register 4):
//
// | Reg  | Bits | Meaning                                                           |
// |------|------|-------------------------------------------------------------------|
// | 0    | 1,2,3,7 | Lens coils (outputs where register 6 enables them)              |
// | 0    | 4    | Orientation input: reads the input, writes are ignored             |
// | 4    | 2    | Reads 1 at full speed; other bits as written (power-on: config)    |
// | 6    | all  | Output enables of register 0's bits                                |
// | 7    | 0    | Input: the button (1 down), or with a home-switch lens the switch  |
// |      |      | (0 closed); writes are ignored                                     |
// | 7    | 5, 6 | Software bus clock and data: written values are the outputs, reads |
// |      |      | give the line levels (the target may hold data low)                |
// | 13   | 5, 6 | Software bus clock and data driven as outputs (else released high) |
// | 0x20-0x24 | all | Wire width, height, layout for the image library (kept only)   |
//
// Requests (anything else stalls: STATUS_UNSUCCESSFUL):
//   1  out, no data: write wValue's low byte to register wIndex of bus
//      wValue >> 8; with wIndex bit 15 the first step of a two-step read: the
//      byte read goes to the read latch (after the sensor's read latency).
//   2  in, 1 byte: bus 0: the register. Bit 15 of wIndex: the read latch. A
//      sensor that needs two steps answers a one-step read with the latch.
//   3  out, n bytes: wIndex 0-255 burst from that register; 0x0200 pairs;
//      0x0300 entries register, data high, data low; 0x0400 entries register
//      high, register low, data; 0x0500 (revision 2) quads. Bus 0 takes
//      bursts and pairs only.
//   5  wValue 1 start / 0 stop streaming.
//   6  in: 64 bytes of memory from wValue; out with wIndex 0 at a 64-byte
//      boundary: 64 bytes to memory; out with wIndex 1 off a boundary, no
//      data: accepted, nothing written.
//   7  restart: answers, then the controller leaves the bus to enumerate again.
//   8  (revision 2) in: wValue low byte the form: 1 register 8-bit, data 16;
//      2 register 16-bit, data 8; 3 both 16. Data low byte first.
//   11 end of start-up: noted.

#include <algorithm>
#include <cstring>

#include "emulator/camera_state.h"
#include "platform/kernel.h"

using namespace emu;

namespace {

int64_t ClockNow() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.QuadPart;
}

struct Request {
  EmulatedCamera::State* state;
  const ControlRequestInfo& info;
  uint8_t* buffer;
  uint32_t* length;

  uint8_t Bus() const { return uint8_t(info.value >> 8); }
  // The bytes of an out data stage (none without one).
  uint32_t DataLength() const { return length ? *length : 0; }
  bool NoDataOut() const { return !info.getData && DataLength() == 0; }
  bool In(uint32_t bytes) const {
    return info.getData && length != nullptr && *length >= bytes && buffer != nullptr;
  }
  NTSTATUS Answer(const uint8_t* bytes, uint32_t count) const {
    std::memcpy(buffer, bytes, count);
    *length = count;
    return STATUS_SUCCESS;
  }
};

// The latch takes the byte a first step started once the sensor is ready.
void SettleLatch(EmulatedCamera::State* s) {
  if (s->latchPending && ClockNow() >= s->latchReadyTime) {
    s->readLatch = s->latchNext;
    s->latchPending = false;
  }
}

NTSTATUS RequestWrite(const Request& r) {
  auto* s = r.state;
  if (!r.NoDataOut()) return kStallStatus;
  const uint8_t reg = uint8_t(r.info.index);
  if (r.info.index & 0x8000) {
    // First step of a two-step read.
    if (r.Bus() == 0) {
      s->readLatch = s->ReadControllerRegister(reg);
      s->latchPending = false;
      return STATUS_SUCCESS;
    }
    auto* sensor = s->SensorAt(r.Bus());
    uint8_t value = 0;
    if (sensor == nullptr || !sensor->model->Read8(reg, &value)) return kStallStatus;
    s->latchNext = value;
    s->latchPending = true;
    s->latchReadyTime = ClockNow() + sensor->readLatency;
    SettleLatch(s);
    return STATUS_SUCCESS;
  }
  if (r.info.index > 0xFF) return kStallStatus;
  if (r.Bus() == 0) {
    s->WriteControllerRegister(reg, uint8_t(r.info.value));
    return STATUS_SUCCESS;
  }
  auto* sensor = s->SensorAt(r.Bus());
  if (sensor == nullptr || !sensor->model->Write8(reg, uint8_t(r.info.value))) {
    return kStallStatus;
  }
  return STATUS_SUCCESS;
}

NTSTATUS RequestRead(const Request& r) {
  auto* s = r.state;
  if (!r.In(1)) return kStallStatus;
  const uint8_t reg = uint8_t(r.info.index);
  uint8_t value = 0;
  if (r.info.index & 0x8000) {
    SettleLatch(s);
    value = s->readLatch;
  } else if (r.info.index > 0xFF) {
    return kStallStatus;
  } else if (r.Bus() == 0) {
    value = s->ReadControllerRegister(reg);
  } else {
    auto* sensor = s->SensorAt(r.Bus());
    if (sensor == nullptr) return kStallStatus;
    if (sensor->needsTwoStepRead) {
      // The sensor is not ready within one request: what comes back is
      // whatever the latch holds.
      SettleLatch(s);
      value = s->readLatch;
    } else {
      if (!sensor->model->Read8(reg, &value)) return kStallStatus;
      s->readLatch = value;
    }
  }
  return r.Answer(&value, 1);
}

NTSTATUS RequestWriteList(const Request& r) {
  auto* s = r.state;
  if (r.info.getData || r.length == nullptr) return kStallStatus;
  const uint32_t n = r.DataLength();
  if (n != 0 && r.buffer == nullptr) return kStallStatus;
  const uint8_t* b = r.buffer;
  const uint16_t form = r.info.index;
  auto* sensor = r.Bus() == 0 ? nullptr : s->SensorAt(r.Bus());
  if (r.Bus() != 0 && sensor == nullptr) return kStallStatus;
  Sensor* model = sensor ? sensor->model.get() : nullptr;

  if (form <= 0xFF) {
    if (model == nullptr) {
      for (uint32_t i = 0; i < n; ++i) s->WriteControllerRegister(uint8_t(form + i), b[i]);
      return STATUS_SUCCESS;
    }
    return model->WriteBurst(uint8_t(form), b, n) ? STATUS_SUCCESS : kStallStatus;
  }
  switch (form) {
    case 0x0200:
      if (n % 2) return kStallStatus;
      for (uint32_t i = 0; i < n; i += 2) {
        if (model == nullptr) {
          s->WriteControllerRegister(b[i], b[i + 1]);
        } else if (!model->Write8(b[i], b[i + 1])) {
          return kStallStatus;
        }
      }
      return STATUS_SUCCESS;
    case 0x0300:
    case 0x0400:
      if (n % 3 || model == nullptr) return kStallStatus;
      for (uint32_t i = 0; i < n; i += 3) {
        const bool ok = form == 0x0300
                            ? model->Write8Wide(b[i], uint16_t(b[i + 1] << 8 | b[i + 2]))
                            : model->Write16Short(uint16_t(b[i] << 8 | b[i + 1]), b[i + 2]);
        if (!ok) return kStallStatus;
      }
      return STATUS_SUCCESS;
    case 0x0500:
      if (!s->IsRevision2() || n % 4 || model == nullptr) return kStallStatus;
      for (uint32_t i = 0; i < n; i += 4) {
        if (!model->Write16(uint16_t(b[i] << 8 | b[i + 1]), uint16_t(b[i + 2] << 8 | b[i + 3]))) {
          return kStallStatus;
        }
      }
      return STATUS_SUCCESS;
    default:
      return kStallStatus;
  }
}

NTSTATUS RequestStreaming(const Request& r) {
  if (!r.NoDataOut() || r.info.index != 0) return kStallStatus;
  if (r.info.value == 1) {
    r.state->StartStreaming();
  } else if (r.info.value == 0) {
    r.state->StopStreaming();
  } else {
    return kStallStatus;
  }
  return STATUS_SUCCESS;
}

NTSTATUS RequestMemory(const Request& r) {
  auto* s = r.state;
  const uint16_t address = r.info.value;
  const bool aligned = (address & (kMemoryBlockBytes - 1)) == 0;
  if (r.info.getData) {
    if (r.info.index != 0 || !r.In(kMemoryBlockBytes)) return kStallStatus;
    uint8_t block[kMemoryBlockBytes];
    for (uint32_t i = 0; i < kMemoryBlockBytes; ++i) {
      block[i] = s->memory[(address + i) % kMemoryBytes];
    }
    return r.Answer(block, kMemoryBlockBytes);
  }
  if (r.info.index == 0 && aligned && r.DataLength() == kMemoryBlockBytes && r.buffer) {
    std::memcpy(&s->memory[address], r.buffer, kMemoryBlockBytes);
    return STATUS_SUCCESS;
  }
  if (r.info.index == 1 && !aligned && r.length == nullptr) return STATUS_SUCCESS;
  return kStallStatus;
}

NTSTATUS RequestRestart(const Request& r) {
  if (!r.NoDataOut() || r.info.value != 0 || r.info.index != 0) return kStallStatus;
  r.state->restartRequested = true;
  r.state->plugged = false;
  r.state->StopStreaming();
  return STATUS_SUCCESS;
}

NTSTATUS RequestWideRead(const Request& r) {
  auto* s = r.state;
  if (!s->IsRevision2() || !r.info.getData) return kStallStatus;
  auto* sensor = r.Bus() == 0 ? nullptr : s->SensorAt(r.Bus());
  if (sensor == nullptr) return kStallStatus;
  Sensor* model = sensor->model.get();
  const uint16_t reg = r.info.index;
  uint16_t wide = 0;
  uint8_t narrow = 0;
  switch (r.info.value & 0xFF) {
    case 1:
      if (reg > 0xFF || !r.In(2) || !model->Read8Wide(uint8_t(reg), &wide)) return kStallStatus;
      break;
    case 2: {
      if (!r.In(1) || !model->Read16Short(reg, &narrow)) return kStallStatus;
      return r.Answer(&narrow, 1);
    }
    case 3:
      if (!r.In(2) || !model->Read16(reg, &wide)) return kStallStatus;
      break;
    default:
      return kStallStatus;
  }
  const uint8_t bytes[2] = {uint8_t(wide), uint8_t(wide >> 8)};
  return r.Answer(bytes, 2);
}

NTSTATUS RequestEndOfStartup(const Request& r) {
  if (!r.NoDataOut() || r.info.value != 0 || r.info.index != 0) return kStallStatus;
  r.state->startupEnded = true;
  return STATUS_SUCCESS;
}

struct RequestRow {
  uint8_t request;
  NTSTATUS (*handler)(const Request&);
};

constexpr RequestRow kRequests[] = {
    {1, RequestWrite},  {2, RequestRead},    {3, RequestWriteList}, {5, RequestStreaming},
    {6, RequestMemory}, {7, RequestRestart}, {8, RequestWideRead},  {11, RequestEndOfStartup},
};

}  // namespace

EmulatedCamera::State::State(const EmulatedCameraConfig& cfg)
    : config(cfg),
      highSpeed(cfg.highSpeed),
      memory(kMemoryBytes),
      softBus([this](uint8_t address) -> Sensor* {
        FittedSensor* fitted = SensorAt(address);
        return fitted ? fitted->model.get() : nullptr;
      }),
      source(cfg.frameSource) {
  if (config.packetHeaderLength < 2) config.packetHeaderLength = 2;
  for (const EmulatedSensorConfig& sc : config.sensors) {
    FittedSensor fitted;
    fitted.model = MakeSensor(sc.kind);
    fitted.address =
        sc.busAddress >= 0 ? uint8_t(sc.busAddress) : fitted.model->DefaultBusAddress();
    fitted.needsTwoStepRead = sc.needsTwoStepRead >= 0 ? sc.needsTwoStepRead != 0
                                                       : fitted.model->DefaultNeedsTwoStepRead();
    fitted.readLatency = std::max<int64_t>(sc.readLatency100ns, 0);
    sensors.push_back(std::move(fitted));
  }
  lens.Configure(config);
  PowerOn();
}

void EmulatedCamera::State::PowerOn() {
  std::memset(regs, 0, sizeof regs);
  regs[kRegStatus] = config.register4;
  std::fill(memory.begin(), memory.end(), 0xFF);
  for (FittedSensor& fitted : sensors) fitted.model->Reset();
  softBus.Reset();
  readLatch = 0;
  latchPending = false;
  plugged = true;
  restartRequested = false;
  startupEnded = false;
  alternateSetting = 0;
  streaming = false;
  AbandonFrame();
}

EmulatedCamera::State::FittedSensor* EmulatedCamera::State::SensorAt(uint8_t address) {
  for (FittedSensor& fitted : sensors) {
    if (fitted.address == address) return &fitted;
  }
  return nullptr;
}

const EmulatedCamera::State::FittedSensor* EmulatedCamera::State::SensorAt(uint8_t address) const {
  for (const FittedSensor& fitted : sensors) {
    if (fitted.address == address) return &fitted;
  }
  return nullptr;
}

bool EmulatedCamera::State::LineInputBit() const {
  if (lens.Kind() == EmulatedLensKind::HomeSwitch) return !lens.HomeSwitchClosed();
  return buttonDown;
}

bool EmulatedCamera::State::HeaderButtonFlag() const {
  if (lens.Kind() == EmulatedLensKind::HomeSwitch) return lens.HomeSwitchClosed();
  return buttonDown;
}

bool EmulatedCamera::State::SoftClockHost() const {
  return (regs[kRegLineEnable] & kSoftClockBit) ? (regs[kRegLines] & kSoftClockBit) != 0 : true;
}

bool EmulatedCamera::State::SoftDataHost() const {
  return (regs[kRegLineEnable] & kSoftDataBit) ? (regs[kRegLines] & kSoftDataBit) != 0 : true;
}

uint8_t EmulatedCamera::State::ReadControllerRegister(uint8_t reg) const {
  switch (reg) {
    case kRegPort:
      return uint8_t((regs[reg] & ~kOrientationBit) | (orientationHigh ? kOrientationBit : 0));
    case kRegStatus:
      return uint8_t((regs[reg] & ~kFullSpeedBit) | (highSpeed ? 0 : kFullSpeedBit));
    case kRegLines: {
      uint8_t value = regs[reg] & uint8_t(~(1 | kSoftClockBit | kSoftDataBit));
      if (LineInputBit()) value |= 1;
      if (SoftClockHost()) value |= kSoftClockBit;
      if (SoftDataHost() && !softBus.PullsDataLow()) value |= kSoftDataBit;
      return value;
    }
    default:
      return regs[reg];
  }
}

void EmulatedCamera::State::WriteControllerRegister(uint8_t reg, uint8_t value) {
  regs[reg] = value;
  if (reg == kRegPort || reg == kRegPortEnable) {
    lens.DriveCoils(regs[kRegPort] & regs[kRegPortEnable] & kCoilBits);
  } else if (reg == kRegLines || reg == kRegLineEnable) {
    softBus.Update(SoftClockHost(), SoftDataHost());
  }
}

NTSTATUS EmulatedCamera::State::VendorRequest(const ControlRequestInfo& info, uint8_t* buffer,
                                              uint32_t* length) {
  Request request{this, info, buffer, length};
  for (const RequestRow& row : kRequests) {
    if (row.request == info.request) return row.handler(request);
  }
  return kStallStatus;
}
