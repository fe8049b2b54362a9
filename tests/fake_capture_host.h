// A capture host that logs every call the driver makes into it as a line of
// text, parses descriptors as the bus driver does, selects alternate settings,
// answers the interface query and sends vendor requests to an emulated camera
// if given. One per test; runs the kernel on the virtual clock while it lives.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/host_contract.h"
#include "emulator/emulated_camera.h"
#include "platform/kernel_control.h"
#include "tests/kernel_test_clock.h"

class FakeCaptureHost {
 public:
  FakeCaptureHost() : previousCalls_(GetHostCalls()) {
    Instance() = this;
    static const HostCalls calls = MakeCalls();
    SetHostCalls(&calls);
  }
  ~FakeCaptureHost() {
    SetHostCalls(previousCalls_);
    Instance() = nullptr;
  }
  FakeCaptureHost(const FakeCaptureHost&) = delete;
  FakeCaptureHost& operator=(const FakeCaptureHost&) = delete;

  DeviceContext* context = nullptr;
  EmulatedCamera* camera = nullptr;  // vendor requests go here when set
  // Checked before the camera (null: STATUS_SUCCESS); on the caller's thread.
  std::function<NTSTATUS(uint8_t request, uint16_t value)> vendorStatus;
  NTSTATUS selectStatus = STATUS_SUCCESS;
  std::map<uint8_t, uint16_t> packetSize;  // of each setting's first pipe
  // The interface query: offered, and completed later on another thread.
  bool offerInterface = true, queryPending = false;
  USBCAMD_INTERFACE offered = {};
  IRP lastQuery = {};
  // Run when the host finishes a packet itself, before it returns.
  std::function<void(PHW_STREAM_REQUEST_BLOCK)> onHostedPacket;

  // What the driver did.
  void* entryDriverObject = nullptr;
  PHW_RECEIVE_DEVICE_SRB entryReceive = nullptr;
  const USBCAMD_DEVICE_DATA2* newInterfaceTable = nullptr;

  std::vector<std::string> Log() {
    std::lock_guard<std::mutex> hold(lock_);
    return log_;
  }
  void ClearLog() {
    std::lock_guard<std::mutex> hold(lock_);
    log_.clear();
  }
  size_t Count(const std::string& line) {
    const std::vector<std::string> log = Log();
    return size_t(std::count(log.begin(), log.end(), line));
  }
  // Index of the first line equal to `line` from `from` on, or -1.
  int Find(const std::string& line, size_t from = 0) {
    std::vector<std::string> log = Log();
    auto at = std::find(log.begin() + std::min(from, log.size()), log.end(), line);
    return at == log.end() ? -1 : int(at - log.begin());
  }

  // Waits (yielding, in real time, at most 20 s) until `done` holds.
  static bool WaitUntil(const std::function<bool()>& done) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
      if (std::chrono::steady_clock::now() > limit) return false;
      std::this_thread::yield();
    }
    return true;
  }

  static std::string Hex(uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "%0*X", digits, value);
    return text;
  }

 private:
  static FakeCaptureHost*& Instance() {
    static FakeCaptureHost* instance = nullptr;
    return instance;
  }
  static void Record(const std::string& line) {
    std::lock_guard<std::mutex> hold(Instance()->lock_);
    Instance()->log_.push_back(line);
  }

  static HostCalls MakeCalls() {
    HostCalls calls = {};
    calls.DriverEntry = [](void* driverObject, void*, uint32_t size, uint32_t frameContext,
                           PHW_RECEIVE_DEVICE_SRB receive) -> NTSTATUS {
      Record("entry " + std::to_string(size) + " " + std::to_string(frameContext));
      Instance()->entryDriverObject = driverObject;
      Instance()->entryReceive = receive;
      return STATUS_SUCCESS;
    };
    calls.AdapterReceivePacket = [](PHW_STREAM_REQUEST_BLOCK srb, const USBCAMD_DEVICE_DATA* data,
                                    PDEVICE_OBJECT* deviceObject,
                                    BOOLEAN complete) -> DeviceContext* {
      FakeCaptureHost* self = Instance();
      std::string line = "receive " + Hex(srb->Command, 3) + (data ? " table" : " none");
      if (deviceObject != nullptr) {
        *deviceObject = reinterpret_cast<DEVICE_OBJECT*>(0xB05);  // the bus device object
        line += " device";
      }
      Record(line + (complete ? " hosted" : ""));
      if (complete && self->onHostedPacket) self->onHostedPacket(srb);
      return self->context;
    };
    calls.InitializeNewInterface = [](DeviceContext*, const USBCAMD_DEVICE_DATA2* data,
                                      uint32_t version, uint32_t flags) -> NTSTATUS {
      Instance()->newInterfaceTable = data;
      Record("newinterface " + Hex(version, 3) + " " + std::to_string(flags));
      return STATUS_SUCCESS;
    };
    calls.ControlVendorCommand = [](DeviceContext*, uint8_t request, uint16_t value, uint16_t index,
                                    void* buffer, uint32_t* length, BOOLEAN getData,
                                    PCOMMAND_COMPLETE_FUNCTION, void*) -> NTSTATUS {
      FakeCaptureHost* self = Instance();
      Record("vendor " + std::to_string(request) + " " + Hex(value, 4) + " " + Hex(index, 4));
      const NTSTATUS status =
          self->vendorStatus ? self->vendorStatus(request, value) : STATUS_SUCCESS;
      if (status != STATUS_SUCCESS) return status;
      if (self->camera != nullptr) {
        return self->camera->ControlTransfer(request, value, index, buffer, length, getData);
      }
      if (getData && buffer != nullptr && length != nullptr) std::memset(buffer, 0, *length);
      return STATUS_SUCCESS;
    };
    calls.SelectAlternateInterface = [](DeviceContext*,
                                        USBD_INTERFACE_INFORMATION* interface) -> NTSTATUS {
      FakeCaptureHost* self = Instance();
      const uint8_t setting = interface->AlternateSetting;
      NTSTATUS status = self->selectStatus;
      if (status >= 0 && self->camera != nullptr) {
        const NTSTATUS selected = self->camera->SelectAlternateSetting(setting);
        if (selected < 0) status = selected;
      }
      if (status >= 0) {
        auto size = self->packetSize.find(setting);
        interface->Pipes[0].MaximumPacketSize = size == self->packetSize.end() ? 0 : size->second;
      }
      // Logged last: a test that sees the line knows the record is left alone.
      Record("select " + std::to_string(interface->InterfaceNumber) + " " +
             std::to_string(setting));
      return status;
    };
    calls.DeviceNotification = [](uint32_t type, void*, PHW_STREAM_REQUEST_BLOCK srb) {
      Record("finish " + std::to_string(type) + " " + Hex(srb->Command, 3));
    };
    calls.StreamNotification = [](uint32_t type, HW_STREAM_OBJECT*, PHW_STREAM_REQUEST_BLOCK srb) {
      Record("stream-finish " + std::to_string(type) + " " + std::to_string(srb->Command));
    };
    calls.ParseConfigurationDescriptorEx = &Parse;
    calls.BuildSynchronousFsdRequest = [](uint8_t major, PDEVICE_OBJECT, KEVENT* event,
                                          IO_STATUS_BLOCK* iosb) -> PIRP {
      Record("build " + Hex(major, 2));
      IRP* irp = new IRP();
      irp->IoStatus.Status = STATUS_SUCCESS;  // the driver presets its own
      irp->UserEvent = event;
      irp->UserIosb = iosb;
      return irp;
    };
    calls.CallDriver = [](PDEVICE_OBJECT, PIRP irp) -> NTSTATUS {
      FakeCaptureHost* self = Instance();
      Record("call");
      self->lastQuery = *irp;
      NTSTATUS status = irp->IoStatus.Status;
      if (self->offerInterface && irp->Stack.MinorFunction == IRP_MN_QUERY_INTERFACE) {
        std::memcpy(irp->Stack.Parameters.QueryInterface.Interface, &self->offered,
                    sizeof self->offered);
        status = STATUS_SUCCESS;
      }
      irp->UserIosb->Status = status;
      KEVENT* event = irp->UserEvent;
      delete irp;
      if (self->queryPending) {
        // Completes on another thread, a moment later.
        std::thread([event] { KeSetEvent(event, 0, FALSE); }).detach();
        return STATUS_PENDING;
      }
      KeSetEvent(event, 0, FALSE);
      return status;
    };
    calls.CancelIrp = [](PIRP) -> BOOLEAN {
      Record("cancel");
      return TRUE;
    };
    return calls;
  }

  // The bus driver's search: descriptors from `start` on, by bLength, up to
  // wTotalLength, the first interface descriptor that matches (-1: any).
  static USB_INTERFACE_DESCRIPTOR* Parse(USB_CONFIGURATION_DESCRIPTOR* configuration, void* start,
                                         int32_t number, int32_t alternate, int32_t cls,
                                         int32_t subClass, int32_t protocol) {
    auto* base = reinterpret_cast<uint8_t*>(configuration);
    const size_t total = configuration->wTotalLength;
    auto fits = [](int32_t wanted, uint8_t value) { return wanted == -1 || wanted == value; };
    for (size_t at = size_t(static_cast<uint8_t*>(start) - base); at + 2 <= total && base[at] != 0;
         at += base[at]) {
      if (base[at + 1] != USB_INTERFACE_DESCRIPTOR_TYPE || at + 9 > total) continue;
      auto* d = reinterpret_cast<USB_INTERFACE_DESCRIPTOR*>(base + at);
      if (fits(number, d->bInterfaceNumber) && fits(alternate, d->bAlternateSetting) &&
          fits(cls, d->bInterfaceClass) && fits(subClass, d->bInterfaceSubClass) &&
          fits(protocol, d->bInterfaceProtocol)) {
        return d;
      }
    }
    return nullptr;
  }

  std::mutex lock_;
  std::vector<std::string> log_;
  const HostCalls* previousCalls_;
  VirtualClock clock_;
};

// Builds a configuration descriptor: a header, then the descriptors added,
// with wTotalLength covering them.
struct ConfigurationBuilder {
  std::vector<uint8_t> bytes{9, 2, 0, 0, 1, 1, 0, 0x80, 50};

  ConfigurationBuilder& Interface(uint8_t number, uint8_t alternate, uint8_t endpoints,
                                  uint8_t cls = 14, uint8_t subClass = 2) {
    bytes.insert(bytes.end(), {9, 4, number, alternate, endpoints, cls, subClass, 0, 0});
    return *this;
  }
  // bmAttributes 1 isochronous, 2 bulk.
  ConfigurationBuilder& Endpoint(uint16_t maxPacketSize, uint8_t attributes = 1) {
    bytes.insert(bytes.end(),
                 {7, 5, 0x81, attributes, uint8_t(maxPacketSize), uint8_t(maxPacketSize >> 8), 1});
    return *this;
  }
  // A class-specific descriptor of `length` bytes.
  ConfigurationBuilder& Other(uint8_t length) {
    bytes.insert(bytes.end(), {length, 0x24});
    bytes.resize(bytes.size() + length - 2, 0);
    return *this;
  }
  USB_CONFIGURATION_DESCRIPTOR* Finish(size_t totalLength = 0) {
    const size_t total = totalLength != 0 ? totalLength : bytes.size();
    bytes[2] = uint8_t(total);
    bytes[3] = uint8_t(total >> 8);
    return reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(bytes.data());
  }
};
