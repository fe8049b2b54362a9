// The capture host: the USB camera class driver, the stream class driver and
// the USB bus driver as far as the camera driver uses them, played against an
// emulated camera. This file holds the host's calls (one table for the whole
// process), the registry of live cameras, the start and end of a camera, and
// the device and stream requests. The isochronous pipe is in iso_pump.cc.

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>

#include "core/packet_dispatch.h"
#include "host/hosted_device.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"

namespace {

using State = HostedCamera::State;

// ---------------------------------------------------------------- process-wide state

// The driver as its entry declared it.
struct LoadedDriver {
  bool Loaded = false;
  uint32_t ContextSize = 0;
  uint32_t FrameContextSize = 0;
  PHW_RECEIVE_DEVICE_SRB ReceivePacket = nullptr;
};

std::mutex g_mutex;  // guards everything below
LoadedDriver g_driver;
std::set<State*> g_devices;
std::map<DeviceContext*, State*> g_byContext;
std::set<IRP*> g_irps;  // built and not yet completed
const HostCalls* g_previousCalls = nullptr;
bool g_installed = false;
int g_driverObject;  // stands for the driver object and the service path
char16_t g_registryPath[] = u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\DCamUSBMora";

State* FindByExtension(void* extension) {
  std::lock_guard<std::mutex> hold(g_mutex);
  State* state = static_cast<State*>(extension);
  return g_devices.count(state) ? state : nullptr;
}

State* FindByContext(DeviceContext* context) {
  std::lock_guard<std::mutex> hold(g_mutex);
  auto found = g_byContext.find(context);
  return found == g_byContext.end() ? nullptr : found->second;
}

State* FindByDeviceObject(PDEVICE_OBJECT object) {
  if (object == nullptr) return nullptr;
  std::lock_guard<std::mutex> hold(g_mutex);
  for (State* state : g_devices) {
    if (object == &state->ClassDevice || object == &state->PhysicalDevice) return state;
  }
  return nullptr;
}

// ---------------------------------------------------------------- descriptors

// Offset of the interface descriptor (number, setting) in a configuration,
// or -1.
long FindInterface(const std::vector<uint8_t>& bytes, uint8_t number, uint8_t setting) {
  size_t at = 0;
  while (at + 2 <= bytes.size()) {
    const uint8_t length = bytes[at];
    if (length < 2 || at + length > bytes.size()) break;
    if (bytes[at + 1] == USB_INTERFACE_DESCRIPTOR_TYPE && length >= 9 && bytes[at + 2] == number &&
        bytes[at + 3] == setting) {
      return long(at);
    }
    at += length;
  }
  return -1;
}

// The endpoint descriptors after the interface descriptor at `at`.
std::vector<USB_ENDPOINT_DESCRIPTOR> EndpointsAfter(const std::vector<uint8_t>& bytes, long at) {
  std::vector<USB_ENDPOINT_DESCRIPTOR> endpoints;
  if (at < 0) return endpoints;
  size_t pos = size_t(at) + bytes[size_t(at)];
  while (pos + 2 <= bytes.size()) {
    const uint8_t length = bytes[pos];
    if (length < 2 || pos + length > bytes.size()) break;
    if (bytes[pos + 1] == USB_INTERFACE_DESCRIPTOR_TYPE) break;
    if (bytes[pos + 1] == USB_ENDPOINT_DESCRIPTOR_TYPE && length >= 7) {
      USB_ENDPOINT_DESCRIPTOR endpoint;
      std::memcpy(&endpoint, &bytes[pos], sizeof endpoint);
      endpoints.push_back(endpoint);
    }
    pos += length;
  }
  return endpoints;
}

}  // namespace

int64_t HostClock() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.QuadPart;
}

uint16_t FillInterfacePipes(const std::vector<uint8_t>& configuration, uint8_t interfaceNumber,
                            uint8_t alternateSetting, USBD_INTERFACE_INFORMATION* info,
                            size_t capacityBytes) {
  const long at = FindInterface(configuration, interfaceNumber, alternateSetting);
  const std::vector<USB_ENDPOINT_DESCRIPTOR> endpoints = EndpointsAfter(configuration, at);
  const size_t head = offsetof(USBD_INTERFACE_INFORMATION, Pipes);
  const size_t room =
      capacityBytes > head ? (capacityBytes - head) / sizeof(USBD_PIPE_INFORMATION) : 0;
  if (at >= 0) {
    info->Class = configuration[size_t(at) + 5];
    info->SubClass = configuration[size_t(at) + 6];
    info->Protocol = configuration[size_t(at) + 7];
  }
  info->InterfaceHandle = info;
  info->NumberOfPipes = uint32_t(std::min(endpoints.size(), room));
  // The slots past the setting's pipes read as empty, the first one too when
  // the setting has none: its packet size is then 0.
  for (size_t i = 0; i < room; ++i) {
    USBD_PIPE_INFORMATION& pipe = info->Pipes[i];
    pipe = USBD_PIPE_INFORMATION{};
    if (i >= endpoints.size()) continue;
    const USB_ENDPOINT_DESCRIPTOR& endpoint = endpoints[i];
    pipe.MaximumPacketSize =
        uint16_t(EmulatedCamera::PacketBytesPerInterval(endpoint.wMaxPacketSize));
    pipe.EndpointAddress = endpoint.bEndpointAddress;
    pipe.Interval = endpoint.bInterval;
    pipe.PipeType = endpoint.bmAttributes & 3;
    pipe.PipeHandle = &info->Pipes[i];
    pipe.MaximumTransferSize = 64 * 1024;
  }
  return room > 0 ? info->Pipes[0].MaximumPacketSize : 0;
}

namespace {

// ---------------------------------------------------------------- requests

struct Request {
  HW_STREAM_REQUEST_BLOCK Srb{};
  Request(State* device, uint32_t command) {
    Srb.SizeOfThisPacket = sizeof(HW_STREAM_REQUEST_BLOCK);
    Srb.Command = command;
    Srb.Status = STATUS_SUCCESS;
    Srb.HwDeviceExtension = device;
  }
  bool Completed() const { return (Srb.Flags & SrbHostCompleted) != 0; }
};

// Sends a device request to the driver's adapter packet handler. A request
// the driver neither completed nor left to the host fails.
NTSTATUS SendDeviceRequest(Request* request) {
  PHW_RECEIVE_DEVICE_SRB handler;
  {
    std::lock_guard<std::mutex> hold(g_mutex);
    handler = g_driver.ReceivePacket;
  }
  if (handler == nullptr) return STATUS_DEVICE_NOT_CONNECTED;
  handler(&request->Srb);
  if (!request->Completed()) {
    DbgPrint("capture host: request 0x%X was not completed\n", request->Srb.Command);
    return STATUS_UNSUCCESSFUL;
  }
  return request->Srb.Status;
}

// Selects a setting of the streaming interface on the camera and fills the
// interface record with its pipes; reports the change to the trace.
NTSTATUS SelectSetting(State* device, USBD_INTERFACE_INFORMATION* info, size_t capacityBytes) {
  std::lock_guard<std::mutex> hold(device->Select);
  const uint8_t setting = info->AlternateSetting;
  NTSTATUS status = STATUS_INVALID_PARAMETER;
  uint16_t packetSize = 0;
  if (info->InterfaceNumber != device->Camera->StreamingInterfaceNumber()) {
    status = STATUS_INVALID_PARAMETER;
  } else if (!device->Camera->IsPlugged()) {
    status = STATUS_DEVICE_NOT_CONNECTED;
  } else {
    status = device->Camera->SelectAlternateSetting(setting);
    if (NT_SUCCESS(status)) {
      packetSize = FillInterfacePipes(device->ConfigurationBytes, info->InterfaceNumber, setting,
                                      info, capacityBytes);
    }
  }
  if (device->Config.trace != nullptr) {
    UsbStreamRecord record;
    record.time100ns = HostClock();
    record.interfaceNumber = info->InterfaceNumber;
    record.alternateSetting = setting;
    record.maximumPacketSize = NT_SUCCESS(status) ? packetSize : 0;
    record.status = status;
    device->Config.trace->Stream(record);
  }
  return status;
}

// The host's own part of SRB_INITIALIZE_DEVICE: configuration, the setting
// the driver asks for, then the driver's initialisation.
NTSTATUS HostInitialize(State* device) {
  if (device->Table == nullptr || device->Table->CamConfigureEx == nullptr ||
      device->Table->CamInitialize == nullptr) {
    DbgPrint("capture host: the driver gave no second-form callback table\n");
    return STATUS_NOT_SUPPORTED;
  }
  auto* info = reinterpret_cast<USBD_INTERFACE_INFORMATION*>(device->InterfaceStorage.data());
  const size_t capacity = device->InterfaceStorage.size() * sizeof(uint64_t);
  USBCAMD_Pipe_Config_Descriptor pipes[4] = {};
  NTSTATUS status = device->Table->CamConfigureEx(
      &device->PhysicalDevice, device->Context, info,
      reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(device->ConfigurationBytes.data()), 4,
      pipes, &device->DeviceDescriptor);
  if (!NT_SUCCESS(status)) return status;
  status = SelectSetting(device, info, capacity);
  if (!NT_SUCCESS(status)) {
    // Configuration without an interface releases the driver's copy of it.
    device->Table->CamConfigureEx(
        &device->PhysicalDevice, device->Context, nullptr,
        reinterpret_cast<USB_CONFIGURATION_DESCRIPTOR*>(device->ConfigurationBytes.data()), 4,
        pipes, &device->DeviceDescriptor);
    return status;
  }
  status = device->Table->CamInitialize(&device->PhysicalDevice, device->Context);
  if (!NT_SUCCESS(status) && device->Table->CamUnInitialize != nullptr) {
    // What the failed start made stays until this.
    device->Table->CamUnInitialize(&device->PhysicalDevice, device->Context);
  }
  return status;
}

// The host's handling of a device request the driver hands over.
void HostHandle(State* device, PHW_STREAM_REQUEST_BLOCK srb) {
  switch (srb->Command) {
    case SRB_INITIALIZE_DEVICE:
      srb->Status = HostInitialize(device);
      break;
    case SRB_UNINITIALIZE_DEVICE:
      if (device->Table != nullptr && device->Table->CamUnInitialize != nullptr) {
        device->Table->CamUnInitialize(&device->PhysicalDevice, device->Context);
      }
      break;
    case SRB_SURPRISE_REMOVAL:
      device->Removed = true;
      break;
    case SRB_OPEN_STREAM: {
      HW_STREAM_OBJECT* object = srb->StreamObject;
      const KSDATAFORMAT* format = srb->CommandData.OpenFormat;
      if (object == nullptr || object->StreamNumber >= HostStreamSlots || format == nullptr ||
          format->FormatSize < sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)) {
        srb->Status = STATUS_INVALID_PARAMETER;
        break;
      }
      HostStream& stream = device->Streams[object->StreamNumber];
      std::memcpy(&stream.Format, format, sizeof stream.Format);
      stream.Open = true;
      stream.State = KSSTATE_STOP;
      stream.FramesCompleted = 0;
      break;
    }
    case SRB_CLOSE_STREAM:
      if (srb->StreamObject != nullptr && srb->StreamObject->StreamNumber < HostStreamSlots) {
        device->Streams[srb->StreamObject->StreamNumber].Open = false;
      }
      break;
    default:
      break;
  }
}

// ---------------------------------------------------------------- the host's calls

NTSTATUS HostDriverEntry(void*, void*, uint32_t deviceContextSize, uint32_t frameContextSize,
                         PHW_RECEIVE_DEVICE_SRB receivePacket) {
  if (receivePacket == nullptr || deviceContextSize == 0) return STATUS_INVALID_PARAMETER;
  std::lock_guard<std::mutex> hold(g_mutex);
  g_driver.Loaded = true;
  g_driver.ContextSize = deviceContextSize;
  g_driver.FrameContextSize = frameContextSize;
  g_driver.ReceivePacket = receivePacket;
  return STATUS_SUCCESS;
}

DeviceContext* HostAdapterReceivePacket(PHW_STREAM_REQUEST_BLOCK srb,
                                        const USBCAMD_DEVICE_DATA* deviceData,
                                        PDEVICE_OBJECT* deviceObject, BOOLEAN needsCompletion) {
  State* device = srb != nullptr ? FindByExtension(srb->HwDeviceExtension) : nullptr;
  if (device == nullptr) return nullptr;
  if (deviceObject != nullptr) *deviceObject = &device->PhysicalDevice;
  if (deviceData != nullptr && needsCompletion) {
    HostHandle(device, srb);
    srb->Flags |= SrbHostCompleted;
  }
  return device->Context;
}

NTSTATUS HostInitializeNewInterface(DeviceContext* context, const USBCAMD_DEVICE_DATA2* deviceData,
                                    uint32_t, uint32_t camControlFlag) {
  State* device = FindByContext(context);
  if (device == nullptr || deviceData == nullptr) return STATUS_INVALID_PARAMETER;
  device->Table = deviceData;
  device->ControlFlags = camControlFlag;
  return STATUS_SUCCESS;
}

NTSTATUS HostControlVendorCommand(DeviceContext* context, uint8_t request, uint16_t value,
                                  uint16_t index, void* buffer, uint32_t* bufferLength,
                                  BOOLEAN getData, PCOMMAND_COMPLETE_FUNCTION commandComplete,
                                  void* commandContext) {
  State* device = FindByContext(context);
  if (device == nullptr) return STATUS_DEVICE_NOT_CONNECTED;
  UsbControlRecord record;
  record.request = request;
  record.value = value;
  record.index = index;
  record.getData = getData != FALSE;
  record.hasDataStage = bufferLength != nullptr;
  record.requestedLength = bufferLength != nullptr ? *bufferLength : 0;
  if (!record.getData && bufferLength != nullptr && buffer != nullptr) {
    const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
    record.data.assign(bytes, bytes + *bufferLength);
  }
  const NTSTATUS status = device->Camera->ControlTransfer(request, value, index, buffer,
                                                          bufferLength, getData != FALSE);
  if (device->Config.trace != nullptr) {
    if (record.getData && bufferLength != nullptr && buffer != nullptr && NT_SUCCESS(status)) {
      const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
      record.data.assign(bytes, bytes + std::min(*bufferLength, record.requestedLength));
    }
    record.time100ns = HostClock();
    record.status = status;
    device->Config.trace->Control(record);
  }
  if (commandComplete != nullptr) commandComplete(context, commandContext, status);
  return status;
}

NTSTATUS HostSelectAlternateInterface(DeviceContext* context, USBD_INTERFACE_INFORMATION* info) {
  State* device = FindByContext(context);
  if (device == nullptr) return STATUS_DEVICE_NOT_CONNECTED;
  if (info == nullptr || info->Length < sizeof(USBD_INTERFACE_INFORMATION)) {
    return STATUS_INVALID_PARAMETER;
  }
  const NTSTATUS status = SelectSetting(device, info, info->Length);
  KeSetEvent(&device->SettingSelected, 0, FALSE);
  return status;
}

void HostDeviceNotification(uint32_t, void*, PHW_STREAM_REQUEST_BLOCK srb) {
  if (srb != nullptr) srb->Flags |= SrbHostCompleted;
}

void HostStreamNotification(uint32_t, HW_STREAM_OBJECT*, PHW_STREAM_REQUEST_BLOCK srb) {
  if (srb != nullptr) srb->Flags |= SrbHostCompleted;
}

USB_INTERFACE_DESCRIPTOR* HostParseConfigurationDescriptorEx(
    USB_CONFIGURATION_DESCRIPTOR* configuration, void* startPosition, int32_t interfaceNumber,
    int32_t alternateSetting, int32_t interfaceClass, int32_t interfaceSubClass,
    int32_t interfaceProtocol) {
  if (configuration == nullptr) return nullptr;
  uint8_t* begin = reinterpret_cast<uint8_t*>(configuration);
  uint8_t* end = begin + configuration->wTotalLength;
  uint8_t* at = startPosition != nullptr ? static_cast<uint8_t*>(startPosition) : begin;
  if (at < begin || at >= end) return nullptr;
  while (at + 2 <= end) {
    const uint8_t length = at[0];
    if (length < 2 || at + length > end) break;
    if (at[1] == USB_INTERFACE_DESCRIPTOR_TYPE && length >= sizeof(USB_INTERFACE_DESCRIPTOR)) {
      auto* found = reinterpret_cast<USB_INTERFACE_DESCRIPTOR*>(at);
      if ((interfaceNumber == -1 || found->bInterfaceNumber == interfaceNumber) &&
          (alternateSetting == -1 || found->bAlternateSetting == alternateSetting) &&
          (interfaceClass == -1 || found->bInterfaceClass == interfaceClass) &&
          (interfaceSubClass == -1 || found->bInterfaceSubClass == interfaceSubClass) &&
          (interfaceProtocol == -1 || found->bInterfaceProtocol == interfaceProtocol)) {
        return found;
      }
    }
    at += length;
  }
  return nullptr;
}

// ---- the extra interface

void InterfaceNoOp(void*) {}
NTSTATUS NoDeviceEvents(DeviceContext*, uint32_t, void*, uint32_t, void*, void*, BOOLEAN) {
  return STATUS_NOT_SUPPORTED;
}
NTSTATUS NoBulkPipe(DeviceContext*, uint16_t, void*, uint32_t, void*, void*) {
  return STATUS_NOT_SUPPORTED;
}
NTSTATUS NoBulkCancel(DeviceContext*, uint32_t) { return STATUS_NOT_SUPPORTED; }

NTSTATUS ReallocateBandwidth(State* device, uint32_t number);

// A format change of a stream. With bandwidth allocated the capture goes
// through stop, release, allocation and start with the new format. The
// driver calls it inside SRB_SET_DATA_FORMAT, which the host sends holding
// the stream lock.
NTSTATUS HostSetVideoFormat(DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb) {
  State* device = FindByContext(context);
  if (device == nullptr) return STATUS_DEVICE_NOT_CONNECTED;
  if (srb == nullptr || srb->StreamObject == nullptr ||
      srb->StreamObject->StreamNumber >= HostStreamSlots || srb->CommandData.OpenFormat == nullptr ||
      srb->CommandData.OpenFormat->FormatSize < sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)) {
    return STATUS_INVALID_PARAMETER;
  }
  const uint32_t number = srb->StreamObject->StreamNumber;
  HostStream& stream = device->Streams[number];
  std::memcpy(&stream.Format, srb->CommandData.OpenFormat, sizeof stream.Format);
  if (stream.State == KSSTATE_STOP) return STATUS_SUCCESS;
  return ReallocateBandwidth(device, number);
}

NTSTATUS HostSetIsoPipeState(DeviceContext* context, uint32_t pipeStateFlags) {
  State* device = FindByContext(context);
  if (device == nullptr) return STATUS_DEVICE_NOT_CONNECTED;
  // Bit 0: stop the stream; clear: start it.
  device->IsoPipeStopped = (pipeStateFlags & 1) != 0;
  return STATUS_SUCCESS;
}

// ---- I/O requests

PIRP HostBuildSynchronousFsdRequest(uint8_t majorFunction, PDEVICE_OBJECT, KEVENT* event,
                                    IO_STATUS_BLOCK* ioStatusBlock) {
  IRP* irp = new (std::nothrow) IRP{};
  if (irp == nullptr) return nullptr;
  irp->Stack.MajorFunction = majorFunction;
  irp->UserEvent = event;
  irp->UserIosb = ioStatusBlock;
  std::lock_guard<std::mutex> hold(g_mutex);
  g_irps.insert(irp);
  return irp;
}

void CompleteIrp(IRP* irp, NTSTATUS status) {
  irp->IoStatus.Status = status;
  if (irp->UserIosb != nullptr) *irp->UserIosb = irp->IoStatus;
  KEVENT* event = irp->UserEvent;
  delete irp;
  if (event != nullptr) KeSetEvent(event, 0, FALSE);
}

bool TakeIrp(IRP* irp) {
  std::lock_guard<std::mutex> hold(g_mutex);
  return g_irps.erase(irp) != 0;
}

NTSTATUS HostCallDriver(PDEVICE_OBJECT deviceObject, PIRP irp) {
  if (irp == nullptr || !TakeIrp(irp)) return STATUS_INVALID_PARAMETER;
  NTSTATUS status = irp->IoStatus.Status;  // what nobody answers keeps its preset
  State* device = FindByDeviceObject(deviceObject);
  const IO_STACK_LOCATION& stack = irp->Stack;
  if (device != nullptr && stack.MajorFunction == IRP_MJ_PNP &&
      stack.MinorFunction == IRP_MN_QUERY_INTERFACE &&
      stack.Parameters.QueryInterface.InterfaceType != nullptr &&
      std::memcmp(stack.Parameters.QueryInterface.InterfaceType, &GUID_USBCAMD_INTERFACE,
                  sizeof(GUID)) == 0 &&
      stack.Parameters.QueryInterface.Size >= sizeof(USBCAMD_INTERFACE) &&
      stack.Parameters.QueryInterface.Interface != nullptr) {
    USBCAMD_INTERFACE answer{};
    answer.Size = sizeof(USBCAMD_INTERFACE);
    answer.Version = stack.Parameters.QueryInterface.Version;
    answer.Context = device;
    answer.InterfaceReference = InterfaceNoOp;
    answer.InterfaceDereference = InterfaceNoOp;
    answer.USBCAMD_WaitOnDeviceEvent = NoDeviceEvents;
    answer.USBCAMD_BulkReadWrite = NoBulkPipe;
    answer.USBCAMD_SetVideoFormat = HostSetVideoFormat;
    answer.USBCAMD_SetIsoPipeState = HostSetIsoPipeState;
    answer.USBCAMD_CancelBulkReadWrite = NoBulkCancel;
    std::memcpy(stack.Parameters.QueryInterface.Interface, &answer, sizeof answer);
    status = STATUS_SUCCESS;
  }
  CompleteIrp(irp, status);
  return status;
}

BOOLEAN HostCancelIrp(PIRP irp) {
  if (irp == nullptr || !TakeIrp(irp)) return FALSE;
  irp->Cancel = TRUE;
  CompleteIrp(irp, STATUS_CANCELLED);
  return TRUE;
}

const HostCalls g_calls = {
    HostDriverEntry,
    HostAdapterReceivePacket,
    HostInitializeNewInterface,
    HostControlVendorCommand,
    HostSelectAlternateInterface,
    HostDeviceNotification,
    HostStreamNotification,
    HostParseConfigurationDescriptorEx,
    HostBuildSynchronousFsdRequest,
    HostCallDriver,
    HostCancelIrp,
};

// Installs the host's calls while a camera lives and loads the driver once.
NTSTATUS LoadDriver(std::string* error) {
  bool load;
  {
    std::lock_guard<std::mutex> hold(g_mutex);
    if (GetHostCalls() != &g_calls) {
      if (g_devices.empty()) g_previousCalls = GetHostCalls();
      SetHostCalls(&g_calls);
      g_installed = true;
    }
    load = !g_driver.Loaded;
  }
  if (load) {
    const NTSTATUS status = DriverEntry(&g_driverObject, g_registryPath);
    std::lock_guard<std::mutex> hold(g_mutex);
    if (!NT_SUCCESS(status) || !g_driver.Loaded) {
      if (error) {
        *error = std::string("the driver's entry failed: ") +
                 NtStatusName(NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status);
      }
      return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
    }
  }
  return STATUS_SUCCESS;
}

void Register(State* device) {
  std::lock_guard<std::mutex> hold(g_mutex);
  g_devices.insert(device);
  g_byContext[device->Context] = device;
}

void Unregister(State* device) {
  std::lock_guard<std::mutex> hold(g_mutex);
  g_devices.erase(device);
  g_byContext.erase(device->Context);
  if (g_devices.empty() && g_installed && GetHostCalls() == &g_calls) {
    SetHostCalls(g_previousCalls);
    g_installed = false;
  }
}

// ---------------------------------------------------------------- streams

// A stream request through the stream's control handler; what the driver
// leaves (Completed 0) the caller handles.
NTSTATUS SendStreamRequest(State* device, uint32_t number, Request* request, bool* leftToHost) {
  HostStream& stream = device->Streams[number];
  request->Srb.StreamObject = &stream.Object;
  *leftToHost = false;
  if (stream.Object.ReceiveControlPacket == nullptr) {
    *leftToHost = true;
    return STATUS_SUCCESS;
  }
  BOOLEAN completed = TRUE;
  stream.Object.ReceiveControlPacket(&request->Srb, device->Context, &completed);
  if (!completed) {
    *leftToHost = true;
    return STATUS_SUCCESS;
  }
  if (!request->Completed()) {
    DbgPrint("capture host: stream request %u was not completed\n", request->Srb.Command);
    return STATUS_UNSUCCESSFUL;
  }
  return request->Srb.Status;
}

NTSTATUS AllocateBandwidth(State* device, uint32_t number) {
  HostStream& stream = device->Streams[number];
  uint32_t length = 0;
  const NTSTATUS status = device->Table->CamAllocateBandwidthEx(
      &device->PhysicalDevice, device->Context, &length, &stream.Format, number);
  if (!NT_SUCCESS(status)) return status;
  stream.RawFrameLength = length;
  // One raw frame buffer for the whole allocation, not one a frame.
  stream.RawBuffer.assign(length, 0);
  return STATUS_SUCCESS;
}

void ReleaseBandwidth(State* device, uint32_t number) {
  HostStream& stream = device->Streams[number];
  device->Table->CamFreeBandwidthEx(&device->PhysicalDevice, device->Context, number);
  stream.RawFrameLength = 0;
  std::vector<uint8_t>().swap(stream.RawBuffer);
}

NTSTATUS ReallocateBandwidth(State* device, uint32_t number) {
  HostStream& stream = device->Streams[number];
  const bool running = stream.State == KSSTATE_RUN;
  if (running) device->Table->CamStopCaptureEx(&device->PhysicalDevice, device->Context, number);
  ReleaseBandwidth(device, number);
  NTSTATUS status = AllocateBandwidth(device, number);
  if (!NT_SUCCESS(status)) {
    stream.State = KSSTATE_STOP;
    return status;
  }
  if (running) device->Table->CamStartCaptureEx(&device->PhysicalDevice, device->Context, number);
  device->ResetAssembly();
  return STATUS_SUCCESS;
}

// The host's work at a change of stream state (stream lock held).
NTSTATUS ChangeStreamState(State* device, uint32_t number, KSSTATE state) {
  HostStream& stream = device->Streams[number];
  const KSSTATE old = stream.State;
  if (old == state) return STATUS_SUCCESS;
  const USBCAMD_DEVICE_DATA2* table = device->Table;
  if (old == KSSTATE_STOP) {
    const NTSTATUS status = AllocateBandwidth(device, number);
    if (!NT_SUCCESS(status)) return status;
  }
  if (state == KSSTATE_RUN) {
    table->CamStartCaptureEx(&device->PhysicalDevice, device->Context, number);
    if (number == 0) device->ResetAssembly();
  }
  if (old == KSSTATE_RUN) {
    table->CamStopCaptureEx(&device->PhysicalDevice, device->Context, number);
  }
  if (state == KSSTATE_STOP) ReleaseBandwidth(device, number);
  stream.State = state;
  if (state != KSSTATE_RUN && stream.Buffer != nullptr) stream.Buffer = nullptr;
  return STATUS_SUCCESS;
}

NTSTATUS SetStreamStateLocked(State* device, uint32_t number, KSSTATE state) {
  HostStream& stream = device->Streams[number];
  if (!stream.Open) return STATUS_INVALID_DEVICE_STATE;
  Request request(device, SRB_SET_STREAM_STATE);
  request.Srb.CommandData.StreamState = state;
  bool leftToHost = false;
  const NTSTATUS status = SendStreamRequest(device, number, &request, &leftToHost);
  if (!leftToHost) return status;
  return ChangeStreamState(device, number, state);
}

NTSTATUS CloseStreamLocked(State* device, uint32_t number) {
  HostStream& stream = device->Streams[number];
  if (!stream.Open) return STATUS_INVALID_DEVICE_STATE;
  if (stream.State != KSSTATE_STOP) SetStreamStateLocked(device, number, KSSTATE_STOP);
  if (stream.State != KSSTATE_STOP) ChangeStreamState(device, number, KSSTATE_STOP);
  Request request(device, SRB_CLOSE_STREAM);
  request.Srb.StreamObject = &stream.Object;
  const NTSTATUS status = SendDeviceRequest(&request);
  stream.Open = false;
  stream.Object.ReceiveControlPacket = nullptr;
  stream.Object.ReceiveDataPacket = nullptr;
  return status;
}

// Stops and closes every stream, for the end of the camera.
void EndStreams(State* device) {
  std::lock_guard<std::mutex> hold(device->Io);
  for (uint32_t number = HostStreamSlots; number-- > 0;) {
    if (device->Streams[number].Open) CloseStreamLocked(device, number);
  }
}

NTSTATUS SendUninitialize(State* device) {
  if (device->Uninitialized) return STATUS_SUCCESS;
  device->Uninitialized = true;
  Request request(device, SRB_UNINITIALIZE_DEVICE);
  return SendDeviceRequest(&request);
}

}  // namespace

// ---------------------------------------------------------------- HostedCamera

NTSTATUS HostedCamera::Start(const HostedCameraConfig& config,
                             std::unique_ptr<HostedCamera>* camera, std::string* error) {
  if (camera != nullptr) camera->reset();
  if (config.camera == nullptr || camera == nullptr) {
    if (error) *error = "no camera on the bus";
    return STATUS_INVALID_PARAMETER;
  }
  NTSTATUS status = LoadDriver(error);
  if (!NT_SUCCESS(status)) return status;

  auto state = std::make_unique<State>();
  State* device = state.get();
  device->Config = config;
  device->Camera = config.camera;
  device->ClassDevice.Device = device;
  device->PhysicalDevice.Device = device;
  KeInitializeEvent(&device->PaceEvent, NotificationEvent, FALSE);
  KeInitializeEvent(&device->SettingSelected, NotificationEvent, FALSE);
  for (uint32_t i = 0; i < HostStreamSlots; ++i) {
    device->Streams[i].Object.SizeOfThisPacket = sizeof(HW_STREAM_OBJECT);
    device->Streams[i].Object.StreamNumber = i;
  }
  uint32_t contextSize, frameContextSize;
  {
    std::lock_guard<std::mutex> hold(g_mutex);
    contextSize = g_driver.ContextSize;
    frameContextSize = g_driver.FrameContextSize;
  }
  device->Context = static_cast<DeviceContext*>(std::calloc(1, contextSize));
  if (device->Context == nullptr) {
    if (error) *error = "no memory for the camera's record";
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  device->FrameContext.assign((frameContextSize + 7) / 8 + 1, 0);

  // The bus's view of the camera: descriptors and the streaming interface
  // with room for the pipes of its widest setting.
  device->ConfigurationBytes = config.camera->ConfigurationDescriptorBytes();
  device->DeviceDescriptor = config.camera->DeviceDescriptor();
  const uint8_t interfaceNumber = config.camera->StreamingInterfaceNumber();
  size_t widest = 1;
  for (size_t setting = 0; setting < config.camera->AlternateSettingCount(); ++setting) {
    const long at = FindInterface(device->ConfigurationBytes, interfaceNumber, uint8_t(setting));
    widest = std::max(widest, EndpointsAfter(device->ConfigurationBytes, at).size());
  }
  const size_t infoBytes = offsetof(USBD_INTERFACE_INFORMATION, Pipes) +
                           widest * sizeof(USBD_PIPE_INFORMATION);
  device->InterfaceStorage.assign((infoBytes + 7) / 8, 0);
  auto* info = reinterpret_cast<USBD_INTERFACE_INFORMATION*>(device->InterfaceStorage.data());
  info->Length = uint16_t(infoBytes);
  info->InterfaceNumber = interfaceNumber;
  info->AlternateSetting = config.camera->CurrentAlternateSetting();
  FillInterfacePipes(device->ConfigurationBytes, interfaceNumber, info->AlternateSetting, info,
                     infoBytes);

  if (!BindDeviceRegistryKey(&device->PhysicalDevice, config.deviceKeyPath)) {
    std::free(device->Context);
    if (error) *error = "the device key path is malformed";
    return STATUS_OBJECT_NAME_INVALID;
  }
  Register(device);
  std::unique_ptr<HostedCamera> hosted(new HostedCamera(std::move(state)));

  PORT_CONFIGURATION_INFORMATION port{};
  port.SizeOfThisPacket = sizeof port;
  port.HwDeviceExtension = device;
  port.ClassDeviceObject = &device->ClassDevice;
  port.PhysicalDeviceObject = &device->PhysicalDevice;
  port.RealPhysicalDeviceObject = &device->PhysicalDevice;
  port.NumberOfPowerStates = 2;
  Request initialize(device, SRB_INITIALIZE_DEVICE);
  initialize.Srb.CommandData.ConfigInfo = &port;
  status = SendDeviceRequest(&initialize);
  if (!NT_SUCCESS(status)) {
    // Nothing of the driver's runs: the record just goes.
    device->Uninitialized = true;
    if (error) *error = std::string("SRB_INITIALIZE_DEVICE failed: ") + NtStatusName(status);
    return status;
  }
  Request complete(device, SRB_INITIALIZATION_COMPLETE);
  status = SendDeviceRequest(&complete);
  if (!NT_SUCCESS(status)) {
    if (error) *error = std::string("SRB_INITIALIZATION_COMPLETE failed: ") + NtStatusName(status);
    return status;
  }
  // The driver's worker takes its first look 200 ms after it starts and, with
  // nothing to do, puts the interface into its idle setting through the same
  // interface record that bandwidth allocation fills. On a real system the
  // first stream open comes long after; here it could come at once, so the
  // start waits for that selection (or 300 ms, when the worker had a command
  // to carry out instead).
  LARGE_INTEGER firstLook;
  firstLook.QuadPart = -3000000;
  KeWaitForSingleObject(&device->SettingSelected, Executive, KernelMode, FALSE, &firstLook);

  // The streams and formats, once, as the stream class asks for them.
  std::vector<uint64_t> buffer(
      (sizeof(HW_STREAM_HEADER) + HostStreamSlots * sizeof(HW_STREAM_INFORMATION)) / 8 + 1, 0);
  auto* descriptor = reinterpret_cast<HW_STREAM_DESCRIPTOR*>(buffer.data());
  Request info_request(device, SRB_GET_STREAM_INFO);
  info_request.Srb.CommandData.StreamBuffer = descriptor;
  status = SendDeviceRequest(&info_request);
  if (!NT_SUCCESS(status)) {
    if (error) *error = std::string("SRB_GET_STREAM_INFO failed: ") + NtStatusName(status);
    return status;
  }
  device->StreamCount = std::min(descriptor->StreamHeader.NumberOfStreams, HostStreamSlots);
  const auto* rows = reinterpret_cast<const HW_STREAM_INFORMATION*>(descriptor + 1);
  for (uint32_t i = 0; i < device->StreamCount; ++i) {
    for (uint32_t f = 0; f < rows[i].NumberOfFormatArrayEntries; ++f) {
      if (rows[i].StreamFormatsArray != nullptr && rows[i].StreamFormatsArray[f] != nullptr) {
        device->Formats[i].push_back(*rows[i].StreamFormatsArray[f]);
      }
    }
  }
  for (uint32_t i = 0; i < descriptor->StreamHeader.NumDevPropArrayEntries; ++i) {
    if (descriptor->StreamHeader.DevicePropertiesArray == nullptr) break;
    device->PropertySets.push_back(descriptor->StreamHeader.DevicePropertiesArray[i]);
  }
  *camera = std::move(hosted);
  return STATUS_SUCCESS;
}

HostedCamera::HostedCamera(std::unique_ptr<State> state) : state_(std::move(state)) {}

HostedCamera::~HostedCamera() {
  State* device = state_.get();
  if (!device->Uninitialized) {
    EndStreams(device);
    SendUninitialize(device);
  }
  Unregister(device);
  UnbindDeviceRegistryKey(&device->PhysicalDevice);
  std::free(device->Context);
}

DeviceContext* HostedCamera::Context() const { return state_->Context; }

uint32_t HostedCamera::StreamCount() const { return state_->StreamCount; }

std::vector<KS_DATARANGE_VIDEO> HostedCamera::Formats(uint32_t stream) const {
  if (stream >= state_->StreamCount) return {};
  return state_->Formats[stream];
}

NTSTATUS HostedCamera::IntersectFormat(uint32_t stream, const KS_DATARANGE_VIDEO& range,
                                       KS_DATAFORMAT_VIDEOINFOHEADER* format) {
  State* device = state_.get();
  if (device->Uninitialized) return STATUS_DEVICE_NOT_CONNECTED;
  if (format == nullptr || stream >= device->StreamCount) return STATUS_INVALID_PARAMETER;
  STREAM_DATA_INTERSECT_INFO intersect{stream, &range, nullptr, 0};
  Request query(device, SRB_GET_DATA_INTERSECTION);
  query.Srb.CommandData.IntersectInfo = &intersect;
  NTSTATUS status = SendDeviceRequest(&query);
  if (status != STATUS_BUFFER_OVERFLOW) return NT_SUCCESS(status) ? STATUS_UNSUCCESSFUL : status;
  const uint32_t size = query.Srb.ActualBytesTransferred;
  if (size < sizeof(KSDATAFORMAT) || size > 64 * 1024) return STATUS_INVALID_PARAMETER;
  std::vector<uint64_t> buffer(size / 8 + 1, 0);
  intersect.DataFormatBuffer = buffer.data();
  intersect.SizeOfDataFormatBuffer = size;
  Request fill(device, SRB_GET_DATA_INTERSECTION);
  fill.Srb.CommandData.IntersectInfo = &intersect;
  status = SendDeviceRequest(&fill);
  if (!NT_SUCCESS(status)) return status;
  *format = KS_DATAFORMAT_VIDEOINFOHEADER{};
  std::memcpy(format, buffer.data(), std::min<size_t>(size, sizeof *format));
  return STATUS_SUCCESS;
}

NTSTATUS HostedCamera::OpenStream(uint32_t number, const KS_DATAFORMAT_VIDEOINFOHEADER& format) {
  State* device = state_.get();
  if (device->Uninitialized || device->Removed) return STATUS_DEVICE_NOT_CONNECTED;
  if (number >= device->StreamCount) return STATUS_INVALID_PARAMETER;
  std::lock_guard<std::mutex> hold(device->Io);
  HostStream& stream = device->Streams[number];
  if (stream.Open) return STATUS_INVALID_DEVICE_STATE;
  KS_DATAFORMAT_VIDEOINFOHEADER copy = format;
  Request request(device, SRB_OPEN_STREAM);
  request.Srb.StreamObject = &stream.Object;
  request.Srb.CommandData.OpenFormat = &copy.DataFormat;
  const NTSTATUS status = SendDeviceRequest(&request);
  if (!NT_SUCCESS(status)) {
    stream.Open = false;
    stream.Object.ReceiveControlPacket = nullptr;
    stream.Object.ReceiveDataPacket = nullptr;
  }
  return status;
}

NTSTATUS HostedCamera::CloseStream(uint32_t number) {
  State* device = state_.get();
  if (number >= HostStreamSlots) return STATUS_INVALID_PARAMETER;
  if (device->Uninitialized) return STATUS_DEVICE_NOT_CONNECTED;
  std::lock_guard<std::mutex> hold(device->Io);
  return CloseStreamLocked(device, number);
}

namespace {

NTSTATUS FormatRequest(State* device, uint32_t number, uint32_t command,
                       const KS_DATAFORMAT_VIDEOINFOHEADER& format) {
  if (device->Uninitialized || device->Removed) return STATUS_DEVICE_NOT_CONNECTED;
  if (number >= HostStreamSlots) return STATUS_INVALID_PARAMETER;
  std::lock_guard<std::mutex> hold(device->Io);
  if (!device->Streams[number].Open) return STATUS_INVALID_DEVICE_STATE;
  KS_DATAFORMAT_VIDEOINFOHEADER copy = format;
  Request request(device, command);
  request.Srb.CommandData.OpenFormat = &copy.DataFormat;
  bool leftToHost = false;
  const NTSTATUS status = SendStreamRequest(device, number, &request, &leftToHost);
  if (!leftToHost) return status;
  // Left to the host: a proposal it takes, a change it makes itself.
  if (command == SRB_SET_DATA_FORMAT) {
    HostStream& stream = device->Streams[number];
    stream.Format = copy;
    if (stream.State != KSSTATE_STOP) return ReallocateBandwidth(device, number);
  }
  return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS HostedCamera::ProposeFormat(uint32_t stream, const KS_DATAFORMAT_VIDEOINFOHEADER& format) {
  return FormatRequest(state_.get(), stream, SRB_PROPOSE_DATA_FORMAT, format);
}

NTSTATUS HostedCamera::SetFormat(uint32_t stream, const KS_DATAFORMAT_VIDEOINFOHEADER& format) {
  return FormatRequest(state_.get(), stream, SRB_SET_DATA_FORMAT, format);
}

NTSTATUS HostedCamera::SetStreamState(uint32_t number, KSSTATE state) {
  State* device = state_.get();
  if (number >= HostStreamSlots) return STATUS_INVALID_PARAMETER;
  if (device->Uninitialized) return STATUS_DEVICE_NOT_CONNECTED;
  if (device->Removed && state != KSSTATE_STOP) return STATUS_DEVICE_NOT_CONNECTED;
  std::lock_guard<std::mutex> hold(device->Io);
  return SetStreamStateLocked(device, number, state);
}

namespace {

NTSTATUS PropertyRequest(State* device, bool set, const void* property, uint32_t propertySize,
                         void* data, uint32_t dataSize, uint32_t* bytesReturned) {
  if (bytesReturned != nullptr) *bytesReturned = 0;
  if (device->Uninitialized || device->Removed) return STATUS_DEVICE_NOT_CONNECTED;
  if (property == nullptr || propertySize < sizeof(KSPROPERTY)) return STATUS_INVALID_PARAMETER;
  std::vector<uint64_t> copy(propertySize / 8 + 1, 0);
  std::memcpy(copy.data(), property, propertySize);
  auto* head = reinterpret_cast<KSPROPERTY*>(copy.data());
  // The stream class serves only the sets (and items) the device lists.
  const KSPROPERTY_SET* listed = nullptr;
  uint32_t index = 0;
  for (; index < device->PropertySets.size(); ++index) {
    const KSPROPERTY_SET& candidate = device->PropertySets[index];
    if (candidate.Set != nullptr && std::memcmp(candidate.Set, &head->Set, sizeof(GUID)) == 0) {
      listed = &candidate;
      break;
    }
  }
  if (listed == nullptr) return STATUS_NOT_SUPPORTED;
  if (listed->PropertiesCount != 0 && listed->PropertyItem != nullptr) {
    const KSPROPERTY_ITEM* item = nullptr;
    for (uint32_t i = 0; i < listed->PropertiesCount; ++i) {
      if (listed->PropertyItem[i].PropertyId == head->Id) item = &listed->PropertyItem[i];
    }
    if (item == nullptr || !(set ? item->SetSupported : item->GetSupported)) {
      return STATUS_NOT_SUPPORTED;
    }
    if (propertySize < item->MinProperty || dataSize < item->MinData) {
      return STATUS_BUFFER_TOO_SMALL;
    }
  }
  STREAM_PROPERTY_DESCRIPTOR descriptor{head, index, data, propertySize, dataSize};
  Request request(device, set ? SRB_SET_DEVICE_PROPERTY : SRB_GET_DEVICE_PROPERTY);
  request.Srb.CommandData.PropertyInfo = &descriptor;
  const NTSTATUS status = SendDeviceRequest(&request);
  if (bytesReturned != nullptr) *bytesReturned = request.Srb.ActualBytesTransferred;
  return status;
}

}  // namespace

NTSTATUS HostedCamera::GetProperty(const void* property, uint32_t propertySize, void* data,
                                   uint32_t dataSize, uint32_t* bytesReturned) {
  return PropertyRequest(state_.get(), false, property, propertySize, data, dataSize,
                         bytesReturned);
}

NTSTATUS HostedCamera::SetProperty(const void* property, uint32_t propertySize, void* data,
                                   uint32_t dataSize, uint32_t* bytesReturned) {
  return PropertyRequest(state_.get(), true, property, propertySize, data, dataSize,
                         bytesReturned);
}

NTSTATUS HostedCamera::SetPowerState(DEVICE_POWER_STATE state) {
  State* device = state_.get();
  if (device->Uninitialized || device->Removed) return STATUS_DEVICE_NOT_CONNECTED;
  Request request(device, SRB_CHANGE_POWER_STATE);
  request.Srb.CommandData.DeviceState = state;
  return SendDeviceRequest(&request);
}

NTSTATUS HostedCamera::NotifyIdleState(bool idle) {
  State* device = state_.get();
  if (device->Uninitialized || device->Removed) return STATUS_DEVICE_NOT_CONNECTED;
  Request request(device, SRB_NOTIFY_IDLE_STATE);
  request.Srb.CommandData.IdleState = idle ? TRUE : FALSE;
  return SendDeviceRequest(&request);
}

void HostedCamera::SurpriseRemoval() {
  State* device = state_.get();
  if (device->Uninitialized) return;
  device->Removed = true;
  Request removal(device, SRB_SURPRISE_REMOVAL);
  SendDeviceRequest(&removal);
  EndStreams(device);
  SendUninitialize(device);
}

HostStatistics HostedCamera::Statistics() const {
  HostStatistics statistics;
  statistics.packets = state_->PacketCount;
  statistics.droppedPackets = state_->DroppedPackets;
  statistics.framesCompleted = state_->FramesCompleted;
  statistics.framesDelivered = state_->FramesDelivered;
  statistics.framesCut = state_->FramesCut;
  return statistics;
}
