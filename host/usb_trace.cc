// The USB trace files of a hosted camera: readable text lines, or a pcap file
// in the Linux usbmon form that Wireshark and tshark decode.
//
// The pcap form follows the published formats: the classic pcap file (a
// 24-byte global header, then a 16-byte header before each record) with link
// type 220, LINKTYPE_USB_LINUX_MMAPPED, whose records begin with the 64-byte
// header of the usbmon binary interface. Every control transfer becomes the
// two events usbmon shows for it: a submission ('S') carrying the setup packet
// (and the data of an OUT transfer) and a completion ('C') carrying the status
// (and the data of an IN transfer). The camera sits at device 2 on bus 1.

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "host/capture_host.h"
#include "platform/ntstatus.h"

namespace {

bool EndsWith(const std::string& text, const char* end) {
  const size_t n = std::strlen(end);
  return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

// ---------------------------------------------------------------- text

class TextUsbTrace : public UsbTrace {
 public:
  explicit TextUsbTrace(FILE* file) : file_(file) {}
  ~TextUsbTrace() override { std::fclose(file_); }

  void Control(const UsbControlRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string line = Time(record.time100ns);
    char head[160];
    std::snprintf(head, sizeof head, " control %-3s request %u value 0x%04x index 0x%04x length ",
                  record.getData ? "in" : "out", record.request, record.value, record.index);
    line += head;
    if (record.hasDataStage) {
      line += std::to_string(record.requestedLength);
      line += " data";
      if (record.data.empty()) line += " -";
      for (uint8_t byte : record.data) {
        char hex[4];
        std::snprintf(hex, sizeof hex, " %02x", byte);
        line += hex;
      }
    } else {
      line += "none";
    }
    line += ' ';
    line += NtStatusName(record.status);
    line += '\n';
    Write(line);
  }

  void Stream(const UsbStreamRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    char text[160];
    if (record.maximumPacketSize == 0) {
      std::snprintf(text, sizeof text, " stream stop interface %u alternate %u %s\n",
                    record.interfaceNumber, record.alternateSetting, NtStatusName(record.status));
    } else {
      std::snprintf(text, sizeof text,
                    " stream start interface %u alternate %u max packet %u %s\n",
                    record.interfaceNumber, record.alternateSetting, record.maximumPacketSize,
                    NtStatusName(record.status));
    }
    Write(Time(record.time100ns) + text);
  }

 private:
  // Seconds since the first record, to the clock's 100 ns.
  std::string Time(int64_t time100ns) {
    if (!started_) {
      started_ = true;
      origin_ = time100ns;
    }
    const int64_t t = time100ns - origin_;
    const int64_t magnitude = t < 0 ? -t : t;
    char text[40];
    std::snprintf(text, sizeof text, "%s%" PRId64 ".%07" PRId64, t < 0 ? "-" : "",
                  magnitude / 10000000, magnitude % 10000000);
    return text;
  }

  void Write(const std::string& line) {
    std::fwrite(line.data(), 1, line.size(), file_);
    std::fflush(file_);  // a trace is read while the camera runs, or after a crash
  }

  std::mutex mutex_;
  FILE* file_;
  bool started_ = false;
  int64_t origin_ = 0;
};

// ---------------------------------------------------------------- pcap

constexpr uint32_t kPcapMagic = 0xA1B2C3D4;  // microsecond time stamps
constexpr uint32_t kLinkTypeUsbLinuxMmapped = 220;
constexpr uint32_t kSnapLength = 65535;
constexpr uint16_t kBus = 1;
constexpr uint8_t kDevice = 2;
constexpr uint8_t kTransferControl = 2;
// 100 ns units from 1601-01-01 to 1970-01-01.
constexpr int64_t kUnixEpoch100ns = 116444736000000000;

// The 64-byte header of one usbmon event (struct mon_bin_hdr with the
// interval, start frame, transfer flags and descriptor count of the mmapped
// form), little-endian as a little-endian host writes it.
struct UsbmonHeader {
  uint64_t id;         // the URB's tag: submission and completion share it
  uint8_t type;        // 'S' submission, 'C' completion
  uint8_t transfer;    // 2: control
  uint8_t endpoint;    // with 0x80 for IN
  uint8_t device;
  uint16_t bus;
  uint8_t setupFlag;   // 0: the setup packet follows; '-': none
  uint8_t dataFlag;    // 0: data follows; '<' IN data not yet there; '>' OUT data not repeated
  int64_t seconds;
  int32_t microseconds;
  int32_t status;      // 0, -EINPROGRESS on submission, or a negative errno
  uint32_t length;     // the URB's length
  uint32_t captured;   // bytes that follow the header
  uint8_t setup[8];    // bmRequestType, bRequest, wValue, wIndex, wLength
  int32_t interval;
  int32_t startFrame;
  uint32_t transferFlags;
  uint32_t descriptors;
};
static_assert(sizeof(UsbmonHeader) == 64, "usbmon's mmapped header is 64 bytes");

void PutLe16(uint8_t* at, uint16_t value) {
  at[0] = uint8_t(value);
  at[1] = uint8_t(value >> 8);
}

void PutLe32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = uint8_t(value >> (8 * i));
}

// The completion status usbmon shows: a stall for every refusal of the
// camera, gone once the camera has left the bus.
int32_t UsbmonStatus(NTSTATUS status) {
  switch (status) {
    case STATUS_SUCCESS:
      return 0;
    case STATUS_DEVICE_NOT_CONNECTED:
      return -ENODEV;
    case STATUS_CANCELLED:
      return -ENOENT;
    case STATUS_TIMEOUT:
      return -ETIMEDOUT;
    default:
      return -EPIPE;
  }
}

class PcapUsbTrace : public UsbTrace {
 public:
  explicit PcapUsbTrace(FILE* file) : file_(file) {}
  ~PcapUsbTrace() override { std::fclose(file_); }

  bool WriteGlobalHeader() {
    uint8_t header[24] = {};
    PutLe32(header, kPcapMagic);
    PutLe16(header + 4, 2);  // version 2.4
    PutLe16(header + 6, 4);
    // thiszone and sigfigs stay 0.
    PutLe32(header + 16, kSnapLength);
    PutLe32(header + 20, kLinkTypeUsbLinuxMmapped);
    return std::fwrite(header, 1, sizeof header, file_) == sizeof header &&
           std::fflush(file_) == 0;
  }

  void Control(const UsbControlRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    uint8_t setup[8];
    setup[0] = record.getData ? 0xC0 : 0x40;  // vendor request to the device, IN or OUT
    setup[1] = record.request;
    PutLe16(setup + 2, record.value);
    PutLe16(setup + 4, record.index);
    PutLe16(setup + 6, uint16_t(record.hasDataStage ? record.requestedLength : 0));
    const uint8_t endpoint = record.getData ? 0x80 : 0x00;
    const uint32_t wanted = record.hasDataStage ? record.requestedLength : 0;
    const uint64_t id = ++transfers_;

    // Submission: the setup packet, and for OUT the bytes sent.
    const bool outData = !record.getData && !record.data.empty();
    Emit(id, 'S', endpoint, setup, -EINPROGRESS, wanted,
         record.getData && wanted != 0 ? '<' : 0, outData ? &record.data : nullptr,
         record.time100ns);
    // Completion: the status, and for IN the bytes answered.
    const bool inData = record.getData && !record.data.empty();
    const uint32_t done = record.getData ? uint32_t(record.data.size())
                                         : (record.status == STATUS_SUCCESS ? wanted : 0);
    Emit(id, 'C', endpoint, nullptr, UsbmonStatus(record.status), done,
         !record.getData && wanted != 0 ? '>' : 0, inData ? &record.data : nullptr,
         record.time100ns);
    std::fflush(file_);
  }

  // A change of the streaming interface's alternate setting is the standard
  // SET_INTERFACE request on the default pipe.
  void Stream(const UsbStreamRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    uint8_t setup[8];
    setup[0] = 0x01;  // standard request to an interface, OUT
    setup[1] = 11;    // SET_INTERFACE
    PutLe16(setup + 2, record.alternateSetting);
    PutLe16(setup + 4, record.interfaceNumber);
    PutLe16(setup + 6, 0);
    const uint64_t id = ++transfers_;
    Emit(id, 'S', 0x00, setup, -EINPROGRESS, 0, 0, nullptr, record.time100ns);
    Emit(id, 'C', 0x00, nullptr, UsbmonStatus(record.status), 0, 0, nullptr, record.time100ns);
    std::fflush(file_);
  }

 private:
  void Emit(uint64_t id, char type, uint8_t endpoint, const uint8_t* setup, int32_t status,
            uint32_t length, uint8_t dataFlag, const std::vector<uint8_t>* data,
            int64_t time100ns) {
    UsbmonHeader header;
    std::memset(&header, 0, sizeof header);
    header.id = id;
    header.type = uint8_t(type);
    header.transfer = kTransferControl;
    header.endpoint = endpoint;
    header.device = kDevice;
    header.bus = kBus;
    header.setupFlag = setup ? 0 : '-';
    header.dataFlag = data ? 0 : dataFlag;
    int64_t since1970 = time100ns - kUnixEpoch100ns;
    if (since1970 < 0) since1970 = time100ns;  // a virtual clock near its origin
    if (since1970 < 0) since1970 = 0;
    header.seconds = since1970 / 10000000;
    header.microseconds = int32_t(since1970 % 10000000 / 10);
    header.status = status;
    header.length = length;
    const uint32_t captured = data ? uint32_t(data->size()) : 0;
    header.captured = captured;
    if (setup) std::memcpy(header.setup, setup, 8);

    uint8_t record[16];
    PutLe32(record, uint32_t(header.seconds));
    PutLe32(record + 4, uint32_t(header.microseconds));
    PutLe32(record + 8, uint32_t(sizeof header) + captured);
    PutLe32(record + 12, uint32_t(sizeof header) + captured);
    std::fwrite(record, 1, sizeof record, file_);
    std::fwrite(&header, 1, sizeof header, file_);
    if (captured) std::fwrite(data->data(), 1, captured, file_);
  }

  std::mutex mutex_;
  FILE* file_;
  uint64_t transfers_ = 0;
};

}  // namespace

std::unique_ptr<UsbTrace> OpenUsbTrace(const std::string& path, std::string* error) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) {
    if (error) *error = "cannot write the USB trace " + path + ": " + std::strerror(errno);
    return nullptr;
  }
  if (EndsWith(path, ".pcap")) {
    auto trace = std::make_unique<PcapUsbTrace>(file);
    if (!trace->WriteGlobalHeader()) {
      if (error) *error = "cannot write the USB trace " + path;
      return nullptr;
    }
    return trace;
  }
  return std::make_unique<TextUsbTrace>(file);
}
