// The camera's public calls: each takes the camera's mutex and hands over to
// the part concerned. Faults and the unplugged state are decided here, before
// a request reaches the controller.

#include "emulator/emulated_camera.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "emulator/camera_state.h"

using Lock = std::lock_guard<std::mutex>;

EmulatedCamera::EmulatedCamera(const EmulatedCameraConfig& config)
    : state_(std::make_unique<State>(config)) {}

EmulatedCamera::~EmulatedCamera() = default;

NTSTATUS EmulatedCamera::ControlTransfer(uint8_t request, uint16_t value, uint16_t index,
                                         void* buffer, uint32_t* length, bool getData) noexcept {
  try {
    State& s = *state_;
    Lock hold(s.mutex);
    ControlRequestInfo info;
    info.sequence = ++s.requestCount;
    info.request = request;
    info.value = value;
    info.index = index;
    info.getData = getData;
    info.hasDataStage = length != nullptr;
    info.length = length ? *length : 0;
    auto* bytes = static_cast<uint8_t*>(buffer);
    if (info.hasDataStage && !getData && bytes != nullptr && info.length > 0) {
      info.data.assign(bytes, bytes + info.length);
    }
    NTSTATUS status;
    if (!s.plugged) {
      status = STATUS_DEVICE_NOT_CONNECTED;
    } else if (!s.FaultForRequest(info, &status)) {
      status = s.VendorRequest(info, bytes, length);
    }
    if (s.logging) {
      if (s.log.size() >= emu::kRequestLogLimit) s.log.erase(s.log.begin());
      info.status = status;
      if (status == STATUS_SUCCESS && getData && length && bytes) {
        info.data.assign(bytes, bytes + *length);
      }
      s.log.push_back(std::move(info));
    }
    return status;
  } catch (...) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
}

USB_DEVICE_DESCRIPTOR EmulatedCamera::DeviceDescriptor() const noexcept {
  Lock hold(state_->mutex);
  return state_->DeviceDescriptor();
}

std::vector<uint8_t> EmulatedCamera::DeviceDescriptorBytes() const noexcept {
  const USB_DEVICE_DESCRIPTOR d = DeviceDescriptor();
  const auto* raw = reinterpret_cast<const uint8_t*>(&d);
  return std::vector<uint8_t>(raw, raw + sizeof d);
}

std::vector<uint8_t> EmulatedCamera::ConfigurationDescriptorBytes() const noexcept {
  Lock hold(state_->mutex);
  return state_->ConfigurationBytes();
}

bool EmulatedCamera::IsHighSpeed() const noexcept {
  Lock hold(state_->mutex);
  return state_->highSpeed;
}

uint8_t EmulatedCamera::StreamingInterfaceNumber() const noexcept {
  return state_->config.interfacesBeforeStreaming;
}

size_t EmulatedCamera::AlternateSettingCount() const noexcept {
  Lock hold(state_->mutex);
  return state_->AlternateSettings().size();
}

uint16_t EmulatedCamera::AlternateSettingMaxPacketSize(uint8_t alternateSetting) const noexcept {
  Lock hold(state_->mutex);
  return state_->MaxPacketOf(alternateSetting);
}

uint32_t EmulatedCamera::PacketBytesPerInterval(uint16_t wMaxPacketSize) noexcept {
  return uint32_t(wMaxPacketSize & 0x7FF) * (1 + ((wMaxPacketSize >> 11) & 3));
}

NTSTATUS EmulatedCamera::SelectAlternateSetting(uint8_t alternateSetting) noexcept {
  State& s = *state_;
  Lock hold(s.mutex);
  if (!s.plugged) return STATUS_DEVICE_NOT_CONNECTED;
  if (s.selectFaultArmed) {
    s.selectFaultArmed = false;
    return s.selectFaultStatus;
  }
  if (alternateSetting >= s.AlternateSettings().size()) return STATUS_INVALID_PARAMETER;
  s.alternateSetting = alternateSetting;
  s.AbandonFrame();
  return STATUS_SUCCESS;
}

uint8_t EmulatedCamera::CurrentAlternateSetting() const noexcept {
  Lock hold(state_->mutex);
  return state_->alternateSetting;
}

int64_t EmulatedCamera::IsoInterval100ns() const noexcept {
  Lock hold(state_->mutex);
  return state_->IsoInterval();
}

int64_t EmulatedCamera::BusTime() const noexcept {
  Lock hold(state_->mutex);
  return state_->busTime;
}

bool EmulatedCamera::NextPacket(std::vector<uint8_t>* packet) noexcept {
  try {
    Lock hold(state_->mutex);
    return state_->MakePacket(packet);
  } catch (...) {
    packet->clear();
    return false;
  }
}

size_t EmulatedCamera::NextIsoPackets(int64_t until100ns,
                                      std::vector<std::vector<uint8_t>>* packets,
                                      size_t maxPackets) noexcept {
  size_t made = 0;
  try {
    Lock hold(state_->mutex);
    std::vector<uint8_t> packet;
    while (made < maxPackets && state_->busTime < until100ns) {
      if (!state_->MakePacket(&packet)) break;
      packets->push_back(packet);
      ++made;
    }
  } catch (...) {
  }
  return made;
}

bool EmulatedCamera::IsStreaming() const noexcept {
  Lock hold(state_->mutex);
  return state_->streaming;
}

WireFrameInfo EmulatedCamera::CurrentWireFrame() const noexcept {
  Lock hold(state_->mutex);
  return state_->WireFrame();
}

uint64_t EmulatedCamera::FramesBegun() const noexcept {
  Lock hold(state_->mutex);
  return state_->framesBegun;
}

uint64_t EmulatedCamera::FramesCompleted() const noexcept {
  Lock hold(state_->mutex);
  return state_->framesCompleted;
}

void EmulatedCamera::SetFrameSource(std::shared_ptr<FrameSource> source) noexcept {
  Lock hold(state_->mutex);
  state_->source = std::move(source);
}

bool EmulatedCamera::WireRegistersAgree() const noexcept {
  Lock hold(state_->mutex);
  return state_->WireRegistersAgree();
}

void EmulatedCamera::SetButton(bool down) noexcept {
  Lock hold(state_->mutex);
  state_->buttonDown = down;
}

void EmulatedCamera::ScheduleButton(uint64_t atFrame, bool down) noexcept {
  try {
    Lock hold(state_->mutex);
    state_->buttonSchedule.emplace_back(atFrame, down);
  } catch (...) {
  }
}

void EmulatedCamera::SetOrientationInput(bool high) noexcept {
  Lock hold(state_->mutex);
  state_->orientationHigh = high;
}

int32_t EmulatedCamera::LensPosition() const noexcept {
  Lock hold(state_->mutex);
  return state_->lens.Position();
}

void EmulatedCamera::SetLensPosition(int32_t position) noexcept {
  Lock hold(state_->mutex);
  state_->lens.SetPosition(position);
}

bool EmulatedCamera::LensHomeSwitchClosed() const noexcept {
  Lock hold(state_->mutex);
  return state_->lens.HomeSwitchClosed();
}

uint64_t EmulatedCamera::LensStalls() const noexcept {
  Lock hold(state_->mutex);
  return state_->lens.Stalls();
}

uint8_t EmulatedCamera::PeekControllerRegister(uint8_t reg) const noexcept {
  Lock hold(state_->mutex);
  return state_->ReadControllerRegister(reg);
}

bool EmulatedCamera::PeekSensorRegister(uint8_t busAddress, uint16_t reg,
                                        uint16_t* value) const noexcept {
  Lock hold(state_->mutex);
  const auto* fitted = state_->SensorAt(busAddress);
  return fitted != nullptr && fitted->model->Peek(reg, value);
}

bool EmulatedCamera::PeekSensorVariable(uint8_t busAddress, uint16_t address,
                                        uint16_t* value) const noexcept {
  Lock hold(state_->mutex);
  const auto* fitted = state_->SensorAt(busAddress);
  return fitted != nullptr && fitted->model->PeekVariable(address, value);
}

uint64_t EmulatedCamera::RequestCount() const noexcept {
  Lock hold(state_->mutex);
  return state_->requestCount;
}

bool EmulatedCamera::StartupEnded() const noexcept {
  Lock hold(state_->mutex);
  return state_->startupEnded;
}

void EmulatedCamera::SetRequestLogging(bool on) noexcept {
  Lock hold(state_->mutex);
  state_->logging = on;
}

std::vector<ControlRequestInfo> EmulatedCamera::RequestLog() const noexcept {
  try {
    Lock hold(state_->mutex);
    return state_->log;
  } catch (...) {
    return {};
  }
}

void EmulatedCamera::ClearRequestLog() noexcept {
  Lock hold(state_->mutex);
  state_->log.clear();
}

std::vector<uint8_t> EmulatedCamera::PeekMemory(uint16_t address, size_t length) const noexcept {
  try {
    Lock hold(state_->mutex);
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) {
      bytes[i] = state_->memory[(address + i) % emu::kMemoryBytes];
    }
    return bytes;
  } catch (...) {
    return {};
  }
}

void EmulatedCamera::FailNthRequest(uint64_t nth, NTSTATUS status) noexcept {
  if (nth == 0) return;
  try {
    Lock hold(state_->mutex);
    State::RequestFault fault;
    fault.atRequest = state_->requestCount + nth;
    fault.status = status;
    fault.remaining = 1;
    state_->requestFaults.push_back(std::move(fault));
  } catch (...) {
  }
}

void EmulatedCamera::FailRequestsMatching(std::function<bool(const ControlRequestInfo&)> filter,
                                          NTSTATUS status, uint64_t times) noexcept {
  if (!filter || times == 0) return;
  try {
    Lock hold(state_->mutex);
    State::RequestFault fault;
    fault.filter = std::move(filter);
    fault.status = status;
    fault.remaining = times;
    state_->requestFaults.push_back(std::move(fault));
  } catch (...) {
  }
}

void EmulatedCamera::FailNextSelectAlternateSetting(NTSTATUS status) noexcept {
  Lock hold(state_->mutex);
  state_->selectFaultArmed = true;
  state_->selectFaultStatus = status;
}

void EmulatedCamera::ClearRequestFaults() noexcept {
  Lock hold(state_->mutex);
  state_->requestFaults.clear();
  state_->selectFaultArmed = false;
}

void EmulatedCamera::Unplug() noexcept {
  Lock hold(state_->mutex);
  state_->plugged = false;
  state_->StopStreaming();
}

bool EmulatedCamera::IsPlugged() const noexcept {
  Lock hold(state_->mutex);
  return state_->plugged;
}

bool EmulatedCamera::RestartRequested() const noexcept {
  Lock hold(state_->mutex);
  return state_->restartRequested;
}

void EmulatedCamera::Reconnect(bool highSpeed) noexcept {
  Lock hold(state_->mutex);
  state_->highSpeed = highSpeed;
  state_->PowerOn();
  state_->lens.DriveCoils(0);
}

void EmulatedCamera::AddPacketFault(PacketFaultKind kind,
                                    std::function<bool(const StreamPacketInfo&)> match,
                                    uint32_t parameter, uint64_t times) noexcept {
  if (!match || times == 0) return;
  try {
    Lock hold(state_->mutex);
    State::PacketFault fault;
    fault.kind = kind;
    fault.match = std::move(match);
    fault.parameter = parameter;
    fault.remaining = times;
    state_->packetFaults.push_back(std::move(fault));
  } catch (...) {
  }
}

void EmulatedCamera::ClearPacketFaults() noexcept {
  Lock hold(state_->mutex);
  state_->packetFaults.clear();
}
