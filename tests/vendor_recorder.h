// For the tests of controller access and scripts: a fake capture host that
// records every vendor request and answers reads from a register file (one per
// test; it uninstalls itself), virtual kernel time, and drive C on a fresh folder.
// Each request is described as a line "R VVVV IIII dir data", for example
// "1 60AB 0012 out" (no data stage), "3 7A00 0200 out [35 12 F0 34]" or
// "2 6000 8012 in 1" (a one-byte data stage towards the host).
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/host_contract.h"
#include "host/control_only_host.h"
#include "platform/files_control.h"
#include "platform/kernel.h"
#include "platform/kernel_control.h"
#include "tests/kernel_test_clock.h"

// Request or log lines as one text.
inline std::string Joined(const std::vector<std::string>& lines,
                          const std::string& between = "; ") {
  std::string text;
  for (size_t i = 0; i < lines.size(); ++i) text += (i ? between : "") + lines[i];
  return text;
}

// Drive C mapped onto a fresh temporary folder while it lives.
struct TempDriveC {
  std::filesystem::path folder;
  explicit TempDriveC(const std::string& tag) {
    static std::atomic<int> serial{0};
    folder = std::filesystem::temp_directory_path() /
             ("mr740-" + tag + "-" + std::to_string(getpid()) + "-" + std::to_string(serial++));
    std::filesystem::create_directories(folder);
    mapped = MapDosDrive('C', folder.string());
  }
  ~TempDriveC() {
    MapDosDrive('C', "");
    std::filesystem::remove_all(folder);
  }
  void Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder / name, std::ios::binary) << bytes;
  }
  bool mapped = false;
};

struct VendorCall {
  uint8_t request = 0;
  uint16_t value = 0;
  uint16_t index = 0;
  bool getData = false;
  bool hasDataStage = false;
  uint32_t length = 0;
  std::vector<uint8_t> data;  // bytes sent (out) or answered (in)
  int64_t time = 0;           // system time when the request arrived

  std::string Text() const {
    char text[48];
    std::snprintf(text, sizeof text, "%u %04X %04X %s", request, value, index,
                  getData ? "in" : "out");
    std::string line = text;
    if (!hasDataStage) return line;
    if (getData) return line + " " + std::to_string(length);
    for (size_t i = 0; i < data.size(); ++i) {
      std::snprintf(text, sizeof text, i == 0 ? " [%02X" : " %02X", data[i]);
      line += text;
    }
    return line + (data.empty() ? " []" : "]");
  }
};

class VendorRecorder {
 public:
  VendorRecorder() {
    Instance() = this;
    static const HostCalls calls = ControlOnlyHostCalls(&Control);
    SetHostCalls(&calls);
  }
  ~VendorRecorder() {
    SetHostCalls(nullptr);
    Instance() = nullptr;
  }
  VendorRecorder(const VendorRecorder&) = delete;
  VendorRecorder& operator=(const VendorRecorder&) = delete;

  // The register file: (bus << 8 | register) -> byte. Writes of request 1 and
  // the pair list of request 3 update it; reads of request 2 answer from it.
  std::map<uint16_t, uint8_t> registers;
  // When not empty, one-byte reads take their answer from here first.
  std::deque<uint8_t> readQueue;
  // Decides the status of a request; null: STATUS_SUCCESS for all.
  std::function<NTSTATUS(const VendorCall&)> status;

  std::vector<VendorCall> Calls() {
    std::lock_guard<std::mutex> hold(lock_);
    return calls_;
  }
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const VendorCall& call : Calls()) lines.push_back(call.Text());
    return lines;
  }
  void Clear() {
    std::lock_guard<std::mutex> hold(lock_);
    calls_.clear();
  }
  // Fails request number `nth` (1 = the next one) with `code`.
  void FailNth(size_t nth, NTSTATUS code) {
    auto left = std::make_shared<size_t>(nth);
    status = [left, code](const VendorCall&) { return --*left == 0 ? code : STATUS_SUCCESS; };
  }

 private:
  static VendorRecorder*& Instance() {
    static VendorRecorder* instance = nullptr;
    return instance;
  }

  static NTSTATUS Control(DeviceContext*, uint8_t request, uint16_t value, uint16_t index,
                          void* buffer, uint32_t* bufferLength, BOOLEAN getData,
                          PCOMMAND_COMPLETE_FUNCTION, void*) {
    VendorRecorder* self = Instance();
    VendorCall call;
    call.request = request;
    call.value = value;
    call.index = index;
    call.getData = getData != FALSE;
    call.hasDataStage = bufferLength != nullptr;
    call.length = bufferLength ? *bufferLength : 0;
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    call.time = now.QuadPart;
    auto* bytes = static_cast<uint8_t*>(buffer);
    if (call.hasDataStage && !call.getData) call.data.assign(bytes, bytes + call.length);
    std::lock_guard<std::mutex> hold(self->lock_);
    NTSTATUS result = self->status ? self->status(call) : STATUS_SUCCESS;
    if (result == STATUS_SUCCESS) self->Apply(call, bytes);
    self->calls_.push_back(call);
    return result;
  }

  void Apply(VendorCall& call, uint8_t* bytes) {
    const uint16_t bus = uint16_t(call.value & 0xFF00);
    if (call.request == 1 && !(call.index & 0x8000)) {
      registers[uint16_t(bus | (call.index & 0xFF))] = uint8_t(call.value);
    } else if (call.request == 3 && call.index == 0x0200) {
      for (uint32_t i = 0; i + 1 < call.length; i += 2) {
        registers[uint16_t(bus | bytes[i])] = bytes[i + 1];
      }
    } else if (call.request == 2 && call.getData && call.length >= 1) {
      bytes[0] = registers[uint16_t(bus | (call.index & 0xFF))];
      if (!readQueue.empty()) {
        bytes[0] = readQueue.front();
        readQueue.pop_front();
      }
      call.data.assign(bytes, bytes + 1);
    } else if (call.getData && bytes != nullptr) {
      std::fill(bytes, bytes + call.length, uint8_t(0));  // other reads answer zeros
    }
  }

  std::mutex lock_;
  std::vector<VendorCall> calls_;
};
