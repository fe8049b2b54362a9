// Interface configuration and bandwidth: what the host learns of the camera
// before anything else, and the switch between the idle and the streaming
// alternate setting around each capture.
//
// CamConfigureEx and CamConfigure run on the host's thread inside
// SRB_INITIALIZE_DEVICE; the bandwidth routines on the host's stream thread.
// All of them may block on the registry and the host; only configuration
// allocates (the SavedInterface copy).

#include "core/interface_configuration.h"

#include <cstddef>
#include <cstring>

#include "script/mode_selection.h"
#include "settings/registry_store.h"

namespace {

// USB class and subclass of the video streaming interface.
constexpr int32_t VideoInterfaceClass = 14;
constexpr int32_t VideoStreamingSubClass = 2;

// Devices up to this bcdDevice have no class-14 interface and stream on
// alternate setting 1 at all times.
constexpr uint16_t LastSingleSettingRevision = 0x0102;
constexpr uint16_t Revision2 = 0x0200;

// Buffer for the device's driver key name: 256 characters.
constexpr uint32_t DriverKeyNameBytes = 512;
constexpr uint32_t InstanceNumberDigits = 4;

constexpr uint32_t PipeConfigEntries = 4;

// How the host is to treat the interface's pipes, by StreamCount: with a
// still pin the first pipe carries both streams.
const USBCAMD_Pipe_Config_Descriptor PipeConfigOneStream[PipeConfigEntries] = {
    {USBCAMD_VIDEO_STREAM, USBCAMD_DATA_PIPE},
    {0, USBCAMD_DONT_CARE_PIPE},
    {0, USBCAMD_DONT_CARE_PIPE},
    {0, 0},
};
const USBCAMD_Pipe_Config_Descriptor PipeConfigTwoStreams[PipeConfigEntries] = {
    {USBCAMD_VIDEO_STILL_STREAM, USBCAMD_MULTIPLEX_PIPE},
    {0, USBCAMD_DONT_CARE_PIPE},
    {0, USBCAMD_DONT_CARE_PIPE},
    {0, 0},
};

// Replaces SavedInterface by a copy of `interface` (Length bytes). A Length
// shorter than the record's fixed part still gets a whole record, zero
// behind the copied bytes, so that later reads of the first pipe stay inside.
NTSTATUS SaveInterfaceCopy(DeviceContext* context, const USBD_INTERFACE_INFORMATION* interface) {
  if (context->SavedInterface != nullptr) {
    ExFreePool(context->SavedInterface);
    context->SavedInterface = nullptr;
  }
  size_t bytes = interface->Length;
  size_t allocation = bytes < sizeof(USBD_INTERFACE_INFORMATION)
                          ? sizeof(USBD_INTERFACE_INFORMATION)
                          : bytes;
  auto* copy = static_cast<USBD_INTERFACE_INFORMATION*>(
      ExAllocatePoolWithTag(NonPagedPool, allocation, PoolTagWdm));
  if (copy == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  std::memset(copy, 0, allocation);
  std::memcpy(copy, interface, bytes);
  context->SavedInterface = copy;
  return STATUS_SUCCESS;
}

void FreeInterfaceCopy(DeviceContext* context) {
  if (context->SavedInterface == nullptr) return;
  ExFreePool(context->SavedInterface);
  context->SavedInterface = nullptr;
}

// The instance number at the end of the driver key name ("...\0003"): the
// last four characters, taken as decimal digits whatever they are. The name
// is what the platform gives; the camera never relies on it being well formed.
uint32_t ReadInstanceNumber(const WCHAR* name, uint32_t capacity) {
  uint32_t length = 0;
  while (length < capacity && name[length] != 0) ++length;
  uint32_t first = length > InstanceNumberDigits ? length - InstanceNumberDigits : 0;
  uint32_t number = 0;
  for (uint32_t i = first; i < length; ++i) {
    number = number * 10 + static_cast<uint32_t>(static_cast<int32_t>(name[i]) - u'0');
  }
  return number;
}

void WritePrpKeyNumber(DeviceContext* context) {
  WCHAR name[DriverKeyNameBytes / sizeof(WCHAR)] = {};
  ULONG resultLength = 0;
  IoGetDeviceProperty(context->PhysicalDeviceObject, DevicePropertyDriverKeyName,
                      DriverKeyNameBytes, name, &resultLength);
  uint32_t number = ReadInstanceNumber(name, DriverKeyNameBytes / sizeof(WCHAR));
  WriteServiceDword(ServiceKeyName, u"PrpKeyNumber", &number);
}

// Finds the idle setting: the alternate setting of the streaming interface
// whose isochronous endpoint has the smallest wMaxPacketSize; the first of
// equals wins. Settings without endpoints never qualify. The descriptors are
// walked by bLength and never read past wTotalLength.
void FindIdleAlternateSetting(DeviceContext* context,
                              USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor) {
  const auto* base = reinterpret_cast<const uint8_t*>(configurationDescriptor);
  const uint32_t total = configurationDescriptor->wTotalLength;
  uint32_t best = 0xFFFF;
  // bAlternateSetting is one byte: a parser that never says "no more" stops
  // there.
  for (int32_t n = 0; n <= 0xFF; ++n) {
    USB_INTERFACE_DESCRIPTOR* setting = USBD_ParseConfigurationDescriptorEx(
        configurationDescriptor, configurationDescriptor, -1, n, VideoInterfaceClass,
        VideoStreamingSubClass, -1);
    if (setting == nullptr) break;
    if (setting->bNumEndpoints == 0) continue;
    const auto* at = reinterpret_cast<const uint8_t*>(setting);
    if (at < base || at >= base + total) continue;
    uint32_t position = static_cast<uint32_t>(at - base) + setting->bLength;
    while (position + 2 <= total) {
      uint8_t length = base[position];
      uint8_t type = base[position + 1];
      if (length == 0 || type == USB_INTERFACE_DESCRIPTOR_TYPE) break;
      if (type == USB_ENDPOINT_DESCRIPTOR_TYPE &&
          position + sizeof(USB_ENDPOINT_DESCRIPTOR) <= total) {
        USB_ENDPOINT_DESCRIPTOR endpoint;
        std::memcpy(&endpoint, base + position, sizeof endpoint);
        // The transfer type, bits 0 and 1, is 1 for an isochronous endpoint.
        if ((endpoint.bmAttributes & 3) == 1) {
          if (endpoint.wMaxPacketSize < best) {
            best = endpoint.wMaxPacketSize;
            context->IdleAlternateSetting = static_cast<uint8_t>(n);
          }
          break;
        }
      }
      position += length;
    }
  }
}

// The first pipe's packet size in the saved copy, 0 when it has no pipe.
uint32_t FirstPipePacketSize(const USBD_INTERFACE_INFORMATION* interface) {
  if (interface->Length < offsetof(USBD_INTERFACE_INFORMATION, Pipes) + sizeof(uint16_t)) return 0;
  return interface->Pipes[0].MaximumPacketSize;
}

void WriteImageWidthForMonitor(DeviceContext* context) {
  if (context->PollingShutterKey == 0) return;
  HANDLE key = nullptr;
  if (!NT_SUCCESS(OpenDeviceKey(context, &key))) return;
  WriteRegistryDword(key, u"ImageWidth", context->ImageWidth);
  ZwClose(key);
}

}  // namespace

NTSTATUS CamConfigureEx(PDEVICE_OBJECT, DeviceContext* context,
                        USBD_INTERFACE_INFORMATION* interface,
                        USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor,
                        uint32_t pipeConfigListSize, USBCAMD_Pipe_Config_Descriptor* pipeConfig,
                        USB_DEVICE_DESCRIPTOR* deviceDescriptor) {
  // The settings that must be known before anything else. A key that cannot
  // be opened reads as all zeros.
  HANDLE key = nullptr;
  OpenDeviceKey(context, &key);
  context->InitAlternateSetting = static_cast<uint8_t>(ReadRegistryDword(key, u"InitAlternateSetting", 0));
  context->StillPin = ReadRegistryDword(key, u"StillPin", 0);
  context->StreamCount = context->StillPin != 0 ? 2 : 1;
  uint32_t selSuspend = ReadRegistryDword(key, u"SelSuspend", 0);
  context->SelSuspendTimeout =
      selSuspend == 1 ? SelSuspendDefaultTimeout : static_cast<int32_t>(selSuspend);

  const USBCAMD_Pipe_Config_Descriptor* table =
      context->StreamCount == 2 ? PipeConfigTwoStreams : PipeConfigOneStream;
  for (uint32_t i = 0; pipeConfig != nullptr && i < pipeConfigListSize && i < PipeConfigEntries;
       ++i) {
    pipeConfig[i] = table[i];
  }

  context->ScriptFrameNumber = ReadRegistryDword(key, u"ScriptFrameNumber", 0);
  context->DeadPixelRGB24 = ReadRegistryDword(key, u"DeadPixelRGB24", 0);
  context->DeadPixelYUYV = ReadRegistryDword(key, u"DeadPixelYUYV", 0);
  context->BlackBodyDarkRGB24 = ReadRegistryDword(key, u"BlackBodyDarkRGB24", 0);
  context->BlackBodyDarkYUYV = ReadRegistryDword(key, u"BlackBodyDarkYUYV", 0);
  context->InvertImage = ReadRegistryDword(key, u"InvertImage", 0);
  context->InvertFrameNumber = ReadRegistryDword(key, u"InvertFrameNumber", 0);
  context->EngineerMode = ReadRegistryDword(key, u"EngineerMode", 0);
  context->PollingShutterKey = ReadRegistryDword(key, u"PollingShutterKey", 0);

  WritePrpKeyNumber(context);
  if (key != nullptr) ZwClose(key);

  if (deviceDescriptor == nullptr) {
    context->IdleAlternateSetting = 1;
  } else {
    uint16_t bcdDevice = deviceDescriptor->bcdDevice;
    context->IsRevision2Chip = bcdDevice >= Revision2 ? 1 : 0;
    USB_INTERFACE_DESCRIPTOR* streaming =
        configurationDescriptor == nullptr
            ? nullptr
            : USBD_ParseConfigurationDescriptorEx(configurationDescriptor,
                                                  configurationDescriptor, -1, -1,
                                                  VideoInterfaceClass, VideoStreamingSubClass, -1);
    if (streaming != nullptr) {
      context->InterfaceNumber = streaming->bInterfaceNumber;
      FindIdleAlternateSetting(context, configurationDescriptor);
      if (interface != nullptr) interface->AlternateSetting = 0;
    } else {
      context->InterfaceNumber = 0;
      if (bcdDevice > LastSingleSettingRevision) {
        context->IdleAlternateSetting = 0;
        if (interface != nullptr) interface->AlternateSetting = context->InitAlternateSetting;
      } else {
        context->IdleAlternateSetting = 1;
        if (interface != nullptr) interface->AlternateSetting = 1;
      }
    }
  }

  context->Signature = DeviceSignature;
  if (interface == nullptr) {
    FreeInterfaceCopy(context);
    return STATUS_SUCCESS;
  }
  return SaveInterfaceCopy(context, interface);
}

NTSTATUS CamConfigure(PDEVICE_OBJECT, DeviceContext* context,
                      USBD_INTERFACE_INFORMATION* interface,
                      USB_CONFIGURATION_DESCRIPTOR*, int32_t* dataPipeIndex,
                      int32_t* syncPipeIndex) {
  context->Signature = DeviceSignature;
  if (interface == nullptr) {
    FreeInterfaceCopy(context);
    return STATUS_SUCCESS;
  }
  NTSTATUS status = SaveInterfaceCopy(context, interface);
  if (dataPipeIndex != nullptr) *dataPipeIndex = 0;
  if (syncPipeIndex != nullptr) *syncPipeIndex = 2;
  return status;
}

uint32_t GetRawFrameSize(const DeviceContext* context, uint32_t width, uint32_t height) {
  // Wire bytes per two pixels.
  uint32_t b = 2;
  switch (WireFormat(context)) {
    case 0:
      if (context->CurrentCompression == CompressionYUY2) b = 4;
      else if (context->CurrentCompression == CompressionI420) b = 3;
      break;
    case 2: b = 4; break;
    case 3: b = 3; break;
    default: break;
  }
  const uint32_t w = width;
  const uint32_t h = height;
  switch (ScaleMode(context)) {
    case 0:
    case 1: return h * b * w / 2;
    case 2: return h * b * w * 4 / 2;
    case 3: return (h * w / 4) * b / 2;
    case 4: return h * b * w * 16 / 2;
    case 5: return (h * w / 16) * b / 2;
    default: return 0;  // no such transport: an invalid mode setting
  }
}

NTSTATUS CamAllocateBandwidthEx(PDEVICE_OBJECT, DeviceContext* context, uint32_t* rawFrameLength,
                                void* format, uint32_t streamNumber) {
  if (streamNumber != 0) {
    // The still stream runs on the capture stream's pipe.
    *rawFrameLength = StillRawFrameLength;
    return STATUS_SUCCESS;
  }
  StoreShared(context->WorkerCommand, WorkerBandwidthAllocated);
  *rawFrameLength = 0;

  const KS_BITMAPINFOHEADER& header =
      static_cast<KS_DATAFORMAT_VIDEOINFOHEADER*>(format)->VideoInfoHeader.bmiHeader;
  // The worker compares the format and size while a start runs: shared.
  StoreShared(context->ImageWidth, static_cast<uint32_t>(header.biWidth));
  StoreShared(context->ImageHeight, static_cast<uint32_t>(header.biHeight));
  WriteImageWidthForMonitor(context);

  context->FaceRect.Left = 0;
  context->FaceRect.Right = static_cast<int32_t>(static_cast<uint16_t>(context->ImageWidth)) - 1;
  context->FaceRect.Top = 0;
  context->FaceRect.Bottom = static_cast<int32_t>(static_cast<uint16_t>(context->ImageHeight)) - 1;

  if (header.biBitCount == 24 &&
      (header.biCompression == CompressionRGB24 || header.biCompression == 0)) {
    StoreShared(context->CurrentCompression, CompressionRGB24);
  } else if (header.biBitCount == 16 && header.biCompression == CompressionYUY2) {
    StoreShared(context->CurrentCompression, CompressionYUY2);
  } else if (header.biBitCount == 12 && header.biCompression == CompressionI420) {
    StoreShared(context->CurrentCompression, CompressionI420);
  }

  SelectMode(context);

  // A ScaleMode without a frame size is a broken mode key: refuse before the
  // interface leaves its idle setting.
  uint32_t frameSize = GetRawFrameSize(context, static_cast<uint32_t>(header.biWidth),
                                       static_cast<uint32_t>(header.biHeight));
  if (ScaleMode(context) > 5) return STATUS_INVALID_PARAMETER;

  USBD_INTERFACE_INFORMATION* saved = context->SavedInterface;
  if (saved == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  saved->InterfaceNumber = context->InterfaceNumber;
  saved->AlternateSetting = static_cast<uint8_t>(context->StreamAlternateSetting);
  if (USBCAMD_SelectAlternateInterface(context, saved) < 0) return STATUS_INSUFFICIENT_RESOURCES;

  uint32_t m = FirstPipePacketSize(saved);
  if (m != 0) *rawFrameLength = (m + frameSize - 1) / m * m;

  StoreShared(context->StillEventPending, 0);
  return STATUS_SUCCESS;
}

NTSTATUS CamAllocateBandwidth(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                              uint32_t* rawFrameLength, void* format) {
  return CamAllocateBandwidthEx(busDeviceObject, context, rawFrameLength, format, 0);
}

NTSTATUS CamFreeBandwidthEx(PDEVICE_OBJECT, DeviceContext* context, uint32_t streamNumber) {
  if (streamNumber != 0) return STATUS_SUCCESS;
  StoreShared(context->ImageWidth, 0);
  StoreShared(context->ImageHeight, 0);
  WriteImageWidthForMonitor(context);
  USBD_INTERFACE_INFORMATION* saved = context->SavedInterface;
  if (saved == nullptr) return STATUS_SUCCESS;
  saved->InterfaceNumber = context->InterfaceNumber;
  saved->AlternateSetting = context->IdleAlternateSetting;
  return USBCAMD_SelectAlternateInterface(context, saved);
}

NTSTATUS CamFreeBandwidth(PDEVICE_OBJECT busDeviceObject, DeviceContext* context) {
  return CamFreeBandwidthEx(busDeviceObject, context, 0);
}
