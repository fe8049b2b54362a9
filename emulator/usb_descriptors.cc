// The camera's USB identity: its device descriptor and its one configuration.
// The configuration holds `interfacesBeforeStreaming` vendor-specific
// interfaces without endpoints, then the streaming interface (class 14
// subclass 2, or vendor-specific when so configured) with one alternate
// setting per configured packet size. Each setting with a packet size has one
// isochronous IN endpoint, 0x81; alternate setting 0 of a class 14 interface
// also carries a class-specific header descriptor before any endpoint, as a
// video streaming interface does.

#include <cstring>

#include "emulator/camera_state.h"

namespace {

constexpr uint8_t kDeviceDescriptorType = 1;
constexpr uint8_t kConfigurationDescriptorType = 2;
constexpr uint8_t kClassSpecificInterfaceType = 0x24;
constexpr uint8_t kVideoClass = 14;
constexpr uint8_t kVideoStreamingSubclass = 2;
constexpr uint8_t kVendorSpecific = 0xFF;
constexpr uint8_t kStreamEndpoint = 0x81;
constexpr uint8_t kIsochronousAsynchronous = 0x05;  // bits 0-1: isochronous; bits 2-3: asynchronous

const std::vector<uint16_t> kFullSpeedSettings = {0, 128, 384, 640, 896, 1023};
const std::vector<uint16_t> kHighSpeedSettings = {0, 128, 512, 1024, 0x0C00, 0x1400};

template <typename T>
void Append(std::vector<uint8_t>* bytes, const T& descriptor) {
  const auto* raw = reinterpret_cast<const uint8_t*>(&descriptor);
  bytes->insert(bytes->end(), raw, raw + sizeof(T));
}

}  // namespace

std::vector<uint16_t> EmulatedCamera::State::AlternateSettings() const {
  if (!config.alternateSettings.empty()) return config.alternateSettings;
  return highSpeed ? kHighSpeedSettings : kFullSpeedSettings;
}

uint16_t EmulatedCamera::State::MaxPacketOf(uint8_t setting) const {
  const std::vector<uint16_t> settings = AlternateSettings();
  return setting < settings.size() ? settings[setting] : 0;
}

USB_DEVICE_DESCRIPTOR EmulatedCamera::State::DeviceDescriptor() const {
  USB_DEVICE_DESCRIPTOR d;
  std::memset(&d, 0, sizeof d);
  d.bLength = sizeof d;
  d.bDescriptorType = kDeviceDescriptorType;
  d.bcdUSB = 0x0200;
  d.bDeviceClass = 0;  // each interface says its own
  d.bMaxPacketSize0 = 64;
  d.idVendor = config.idVendor;
  d.idProduct = config.idProduct;
  d.bcdDevice = config.bcdDevice;
  d.iManufacturer = 1;
  d.iProduct = 2;
  d.bNumConfigurations = 1;
  return d;
}

std::vector<uint8_t> EmulatedCamera::State::ConfigurationBytes() const {
  std::vector<uint8_t> bytes;
  USB_CONFIGURATION_DESCRIPTOR c;
  std::memset(&c, 0, sizeof c);
  c.bLength = sizeof c;
  c.bDescriptorType = kConfigurationDescriptorType;
  c.bNumInterfaces = uint8_t(config.interfacesBeforeStreaming + 1);
  c.bConfigurationValue = 1;
  c.bmAttributes = 0x80;  // bus powered
  c.MaxPower = 250;       // 500 mA in 2 mA units
  Append(&bytes, c);

  USB_INTERFACE_DESCRIPTOR i;
  std::memset(&i, 0, sizeof i);
  i.bLength = sizeof i;
  i.bDescriptorType = USB_INTERFACE_DESCRIPTOR_TYPE;
  for (uint8_t n = 0; n < config.interfacesBeforeStreaming; ++n) {
    i.bInterfaceNumber = n;
    i.bInterfaceClass = kVendorSpecific;
    i.bInterfaceSubClass = kVendorSpecific;
    Append(&bytes, i);
  }

  const bool video = config.streamingInterfaceClass14;
  const std::vector<uint16_t> settings = AlternateSettings();
  for (size_t n = 0; n < settings.size(); ++n) {
    i.bInterfaceNumber = config.interfacesBeforeStreaming;
    i.bAlternateSetting = uint8_t(n);
    i.bNumEndpoints = settings[n] ? 1 : 0;
    i.bInterfaceClass = video ? kVideoClass : kVendorSpecific;
    i.bInterfaceSubClass = video ? kVideoStreamingSubclass : kVendorSpecific;
    Append(&bytes, i);
    if (video && n == 0) {
      // A minimal class-specific header: length, type, subtype.
      const uint8_t header[3] = {3, kClassSpecificInterfaceType, 0x01};
      bytes.insert(bytes.end(), header, header + 3);
    }
    if (settings[n]) {
      USB_ENDPOINT_DESCRIPTOR e;
      std::memset(&e, 0, sizeof e);
      e.bLength = sizeof e;
      e.bDescriptorType = USB_ENDPOINT_DESCRIPTOR_TYPE;
      e.bEndpointAddress = kStreamEndpoint;
      e.bmAttributes = kIsochronousAsynchronous;
      e.wMaxPacketSize = settings[n];
      e.bInterval = 1;
      Append(&bytes, e);
    }
  }
  const uint16_t total = uint16_t(bytes.size());
  bytes[2] = uint8_t(total);
  bytes[3] = uint8_t(total >> 8);
  return bytes;
}
