// The USB trace files: the pcap file Wireshark decodes, and the text form kept whole,
// checked against the published pcap and usbmon layouts byte by byte (offsets written out here,
// not taken from the writer).

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/capture_host.h"

namespace {

namespace fs = std::filesystem;

class UsbTraceFile : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = fs::temp_directory_path() / ("mr740-usb-trace-" + std::to_string(::getpid()));
    fs::create_directories(folder_);
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::string Path(const char* name) const { return (folder_ / name).string(); }

  static std::vector<uint8_t> Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  fs::path folder_;
};

using UsbTraceFileThreads = UsbTraceFile;

uint32_t Le32(const uint8_t* at) {
  return uint32_t(at[0]) | uint32_t(at[1]) << 8 | uint32_t(at[2]) << 16 | uint32_t(at[3]) << 24;
}
uint16_t Le16(const uint8_t* at) { return uint16_t(at[0] | at[1] << 8); }

// A request as the host reports it: time, request, value, index, in, data
// stage, requested length, data, status.
using Rec = UsbControlRecord;

// One pcap record: its usbmon header and what follows it.
struct PcapRecord {
  const uint8_t* event;  // the 64-byte usbmon header
  uint32_t captured;     // bytes after the header
  const uint8_t* data;
};

std::vector<PcapRecord> Records(const std::vector<uint8_t>& file) {
  std::vector<PcapRecord> records;
  size_t at = 24;
  while (at + 16 <= file.size()) {
    const uint32_t included = Le32(&file[at + 8]);
    EXPECT_EQ(Le32(&file[at + 12]), included) << "original length of record " << records.size();
    EXPECT_GE(included, 64u);
    if (at + 16 + included > file.size() || included < 64) {
      ADD_FAILURE() << "record " << records.size() << " runs past the file";
      break;
    }
    const uint8_t* event = &file[at + 16];
    records.push_back({event, included - 64, event + 64});
    EXPECT_EQ(Le32(event + 36), included - 64) << "len_cap of record " << records.size() - 1;
    at += 16 + included;
  }
  EXPECT_EQ(at, file.size());
  return records;
}

TEST_F(UsbTraceFile, PcapHasTheUsbmonLinkTypeAndDecodesFieldByField) {
  const int64_t unix2020 = 15778368000000000;                 // 2020-01-01 in 100 ns since 1970
  const int64_t t = 116444736000000000 + unix2020 + 1234560;  // + 0.123456 s
  {
    std::string error;
    std::unique_ptr<UsbTrace> trace = OpenUsbTrace(Path("trace.pcap"), &error);
    ASSERT_TRUE(trace) << error;
    trace->Control(Rec{t, 3, 0x4200, 0x0017, false, true, 3, {0x11, 0x61, 0xC3}, STATUS_SUCCESS});
    trace->Control(Rec{t, 2, 0x0000, 0x0004, true, true, 1, {0x04}, STATUS_SUCCESS});
    trace->Control(Rec{t, 1, 0x6001, 0x8000, false, false, 0, {}, STATUS_UNSUCCESSFUL});
    trace->Control(Rec{t, 6, 0x0003, 0, true, true, 64, {}, STATUS_DEVICE_NOT_CONNECTED});
    trace->Stream({t, 1, 4, 0x0C00, STATUS_SUCCESS});
  }
  const std::vector<uint8_t> file = Bytes(Path("trace.pcap"));
  ASSERT_GE(file.size(), 24u);
  // The classic pcap global header, little-endian, microsecond stamps, version
  // 2.4, LINKTYPE_USB_LINUX_MMAPPED (220).
  EXPECT_EQ(std::vector<uint32_t>(
                {Le32(&file[0]), Le32(&file[4]), Le32(&file[8]), Le32(&file[12]), Le32(&file[20])}),
            std::vector<uint32_t>({0xA1B2C3D4u, 0x00040002u, 0, 0, 220}));
  EXPECT_GE(Le32(&file[16]), 64u + 64u);
  const std::vector<PcapRecord> records = Records(file);
  ASSERT_EQ(records.size(), 10u);
  EXPECT_EQ(Le32(&file[24]), 1577836800u) << "record seconds";
  EXPECT_EQ(Le32(&file[28]), 123456u) << "record microseconds";

  // Per record: type, endpoint, setup packet (none on completions), status, URB length, data.
  using Setup = std::vector<uint8_t>;
  const int32_t inProgress = -EINPROGRESS;
  const std::tuple<char, uint8_t, Setup, int32_t, uint32_t, std::vector<uint8_t>> expected[] = {
      // Burst write: vendor OUT, the data on the submission.
      {'S', 0x00, {0x40, 3, 0x00, 0x42, 0x17, 0x00, 3, 0}, inProgress, 3, {0x11, 0x61, 0xC3}},
      {'C', 0x00, {}, 0, 3, {}},
      // One-byte read: vendor IN, the data on the completion.
      {'S', 0x80, {0xC0, 2, 0x00, 0x00, 0x04, 0x00, 1, 0}, inProgress, 1, {}},
      {'C', 0x80, {}, 0, 1, {0x04}},
      // Write without data stage that the camera stalls.
      {'S', 0x00, {0x40, 1, 0x01, 0x60, 0x00, 0x80, 0, 0}, inProgress, 0, {}},
      {'C', 0x00, {}, -EPIPE, 0, {}},
      // A block read on a camera that has gone.
      {'S', 0x80, {0xC0, 6, 0x03, 0x00, 0x00, 0x00, 64, 0}, inProgress, 64, {}},
      {'C', 0x80, {}, -ENODEV, 0, {}},
      // The stream on alternate setting 4: SET_INTERFACE to interface 1.
      {'S', 0x00, {0x01, 11, 0x04, 0x00, 0x01, 0x00, 0, 0}, inProgress, 0, {}},
      {'C', 0x00, {}, 0, 0, {}},
  };
  for (size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE("record " + std::to_string(i));
    const uint8_t* e = records[i].event;
    const auto& [type, endpoint, setup, status, length, data] = expected[i];
    // Type, control transfer, endpoint, device 2, bus 1, setup flag; 2020-01-01 0.123456 s.
    EXPECT_EQ(std::vector<uint32_t>({e[8], e[9], e[10], e[11], Le16(e + 12), e[14], Le32(e + 16),
                                     Le32(e + 20), Le32(e + 24), Le32(e + 28), Le32(e + 32)}),
              std::vector<uint32_t>({uint8_t(type), 2, endpoint, 2, 1, setup.empty() ? '-' : 0u,
                                     1577836800u, 0, 123456, uint32_t(status), length}));
    EXPECT_EQ(setup.empty() ? setup : Setup(e + 40, e + 48), setup);
    EXPECT_EQ(std::vector<uint8_t>(records[i].data, records[i].data + records[i].captured), data);
    EXPECT_EQ(data.empty() ? 0 : e[15], 0) << "data flag: data present";
    // Submission and completion of one transfer share the URB id, and no other transfer has it.
    EXPECT_EQ(i > 0 && std::memcmp(e, records[i - 1].event, 8) == 0, i % 2 == 1);
  }
}

TEST_F(UsbTraceFile, AnUnwritablePathGivesNoTraceAndSaysWhy) {
  std::string error;
  EXPECT_FALSE(OpenUsbTrace(Path("no-such-folder/trace.pcap"), &error));
  EXPECT_NE(error.find("no-such-folder/trace.pcap"), std::string::npos) << error;
}

// The driver's host thread and worker send requests at once: every record
// lands whole, in either form.
TEST_F(UsbTraceFileThreads, RecordsFromManyThreadsStayWhole) {
  constexpr int kThreads = 4;
  constexpr int kEach = 300;
  for (const char* name : {"threads.pcap", "threads.txt"}) {
    SCOPED_TRACE(name);
    {
      std::string error;
      std::unique_ptr<UsbTrace> trace = OpenUsbTrace(Path(name), &error);
      ASSERT_TRUE(trace) << error;
      std::vector<std::thread> threads;
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&trace, t] {
          for (int i = 0; i < kEach; ++i) {
            const uint32_t length = uint32_t(1 + i % 7);
            trace->Control(Rec{i, 3, uint16_t(t), uint16_t(i), false, true, length,
                               std::vector<uint8_t>(length, uint8_t(t)), STATUS_SUCCESS});
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
    }
    const std::vector<uint8_t> file = Bytes(Path(name));
    if (std::string(name).ends_with(".pcap")) {
      const std::vector<PcapRecord> records = Records(file);
      ASSERT_EQ(records.size(), size_t(2 * kThreads * kEach));
      for (const PcapRecord& record : records) {
        if (record.event[8] != 'S') continue;
        const uint16_t thread = Le16(record.event + 42);
        ASSERT_EQ(record.captured, Le16(record.event + 46));
        for (uint32_t b = 0; b < record.captured; ++b) ASSERT_EQ(record.data[b], thread);
      }
    } else {
      std::istringstream text(std::string(file.begin(), file.end()));
      size_t lines = 0;
      for (std::string line; std::getline(text, line); ++lines) {
        ASSERT_TRUE(line.find(" control out request 3 value 0x000") != std::string::npos &&
                    line.ends_with(" STATUS_SUCCESS"))
            << line;
      }
      EXPECT_EQ(lines, size_t(kThreads * kEach));
    }
  }
}

}  // namespace
