// The file layer as the script reader uses it: object names onto host paths, open-if, reads at
// explicit offsets, case-insensitive lookup, fault injection, and no handle left open.

#include "platform/files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/files_control.h"
#include "platform/handles.h"
#include "platform/registry_control.h"

namespace {

namespace fs = std::filesystem;

// ZwCreateFile as the script reader calls it.
NTSTATUS OpenAsDriver(const std::u16string& name, HANDLE* handle, ULONG disposition = FILE_OPEN_IF,
                      ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                      ACCESS_MASK access = FILE_READ_DATA, IO_STATUS_BLOCK* io = nullptr) {
  std::u16string copy = name;
  UNICODE_STRING text{USHORT(copy.size() * 2), USHORT(copy.size() * 2), copy.data()};
  OBJECT_ATTRIBUTES oa;
  InitializeObjectAttributes(&oa, &text, attributes, nullptr, nullptr);
  IO_STATUS_BLOCK ignored;
  return ZwCreateFile(handle, access, &oa, io ? io : &ignored, nullptr, FILE_ATTRIBUTE_NORMAL,
                      FILE_SHARE_READ, disposition, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

NTSTATUS ReadAt(HANDLE handle, int64_t offset, void* buffer, ULONG length, uint64_t* got) {
  IO_STATUS_BLOCK io{-1, 99};
  LARGE_INTEGER at;
  at.QuadPart = offset;
  NTSTATUS status =
      ZwReadFile(handle, nullptr, nullptr, nullptr, &io, buffer, length, &at, nullptr);
  *got = io.Information;
  if (status != STATUS_INVALID_PARAMETER) {
    EXPECT_EQ(io.Status, status);
  }
  return status;
}

// Everything the driver reads back of a file, 128 bytes at a time.
std::string ReadWhole(HANDLE handle) {
  std::string text;
  char buffer[128];
  uint64_t got = 0;
  while (NT_SUCCESS(ReadAt(handle, int64_t(text.size()), buffer, sizeof buffer, &got)) && got) {
    text.append(buffer, got);
  }
  return text;
}

// Drive T onto a fresh folder, drive Q unmapped; other letters, which other suites (or
// MR740_DRIVE_C) may have mapped, stay.
class Files : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> serial{0};
    root_ = (fs::temp_directory_path() /
             ("mr740-files-" + std::to_string(::getpid()) + "-" + std::to_string(serial++)))
                .string();
    fs::create_directories(root_);
    ASSERT_TRUE(MapDosDrive('T', root_));
    ASSERT_TRUE(MapDosDrive('Q', ""));
    openBefore_ = OpenPlatformHandles(HandleKind::File);
  }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::File), openBefore_) << "a file handle leaked";
    MapDosDrive('T', "");
    FileFailRead(0, STATUS_SUCCESS);
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  void Write(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(root_ + path).parent_path());
    std::ofstream(root_ + path, std::ios::binary) << bytes;
  }
  std::string HostText(const std::string& path) {
    std::ifstream in(root_ + path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::string root_;
  uint32_t openBefore_ = 0;
};

using FilesThreads = Files;

TEST_F(Files, ObjectNamesMapOntoHostPathsOrAreRefusedAsMalformed) {
  // The host path below T:, or refused (Q: is not mapped).
  const std::pair<std::u16string, const char*> cases[] = {
      {u"\\??\\T:\\Cameras\\OV7670\\Cam.txt", "/Cameras/OV7670/Cam.txt"},
      {u"\\??\\t:\\a.txt", "/a.txt"},
      {u"\\??\\T:\\caf\u00E9.txt", "/caf\xC3\xA9.txt"},
      {u"\\??\\Q:\\a.txt", nullptr},
      {u"\\??\\T:\\a\\..\\..\\b", nullptr},
      {u"\\??\\T:\\a/../b", nullptr},
      {u"\\??\\T:\\a\\\\b", nullptr},
      {u"\\??\\T:\\a*.txt", nullptr},
      {u"T:\\a.txt", nullptr},
  };
  EXPECT_FALSE(MapDosDrive('1', root_));
  for (const auto& [name, hostPath] : cases) {
    SCOPED_TRACE(NarrowAscii(name));
    std::string path = "unchanged";
    EXPECT_EQ(HostPathOfObjectName(name, &path), hostPath != nullptr);
    EXPECT_EQ(path, hostPath ? root_ + hostPath : "unchanged");
  }
}

TEST_F(Files, CreateFileOpensCreatesOrRefusesByNameAndFindsOtherCase) {
  Write("/Cameras/OV7670/Cam.txt", "script");
  fs::create_directories(root_ + "/Empty");
  Write("/cams/a.txt", "lower");
  Write("/cams/A.TXT", "upper");
  Write("/cams/A.txt", "mixed");
  fs::create_directories(root_ + "/CAMS");  // exact folder for an upper-case name
  constexpr ULONG CI = OBJ_CASE_INSENSITIVE;
  const NTSTATUS ok = STATUS_SUCCESS, noPath = STATUS_OBJECT_PATH_NOT_FOUND;
  const uint64_t opened = FILE_OPENED, created = FILE_CREATED;
  // Name (below T: unless it names its drive), disposition, attributes, status; on success the
  // information, and the host file that must then hold the contents read.
  using Case =
      std::tuple<std::u16string, ULONG, ULONG, NTSTATUS, uint64_t, std::string, std::string>;
  const Case cases[] = {
      {u"Cameras\\OV7670\\Cam.txt", FILE_OPEN_IF, CI, ok, opened, "/Cameras/OV7670/Cam.txt",
       "script"},
      {u"Empty\\New.txt", FILE_OPEN_IF, CI, ok, created, "/Empty/New.txt", ""},
      {u"Empty\\Other.txt", FILE_OPEN, CI, STATUS_OBJECT_NAME_NOT_FOUND, 0, "", ""},
      {u"Missing\\Cam.txt", FILE_OPEN_IF, CI, noPath, 0, "", ""},
      {u"Empty", FILE_OPEN_IF, CI, STATUS_ACCESS_DENIED, 0, "", ""},
      {u"Cam.txt", FILE_OVERWRITE_IF, CI, STATUS_NOT_SUPPORTED, 0, "", ""},
      // Other case: found at every level when the name asks for it ...
      {u"CAMERAS\\ov7670\\cam.TXT", FILE_OPEN_IF, CI, ok, opened, "/Cameras/OV7670/Cam.txt",
       "script"},
      // ... and not when it does not.
      {u"CAMERAS\\OV7670\\Cam.txt", FILE_OPEN_IF, 0, noPath, 0, "", ""},
      // The exact name first, else the smallest match: "A.TXT" < "A.txt" < "a.txt".
      {u"cams\\a.txt", FILE_OPEN_IF, CI, ok, opened, "/cams/a.txt", "lower"},
      {u"cams\\a.TXT", FILE_OPEN_IF, CI, ok, opened, "/cams/A.TXT", "upper"},
      {u"CAMS\\a.txt", FILE_OPEN_IF, CI, ok, created, "/CAMS/a.txt", ""},  // exact folder wins
  };
  for (const auto& [name, disposition, attributes, status, information, hostFile, contents] :
       cases) {
    SCOPED_TRACE(NarrowAscii(name));
    const std::u16string full = name.find(u':') != name.npos ? name : u"\\??\\T:\\" + name;
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK io{-1, 99};
    EXPECT_EQ(OpenAsDriver(full, &handle, disposition, attributes, FILE_READ_DATA, &io), status);
    if (!NT_SUCCESS(status)) {
      EXPECT_EQ(handle, nullptr);
      continue;
    }
    EXPECT_EQ(std::make_pair(io.Status, io.Information), std::make_pair(ok, information));
    EXPECT_EQ(ReadWhole(handle), contents);  // an empty file reads as ended at once
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(HostText(hostFile), contents);
  }
  // Nothing appeared where an open failed.
  std::vector<std::string> top;
  for (const auto& entry : fs::directory_iterator(root_)) top.push_back(entry.path().filename());
  std::sort(top.begin(), top.end());
  EXPECT_EQ(top, (std::vector<std::string>{"CAMS", "Cameras", "Empty", "cams"}));
  EXPECT_FALSE(fs::exists(root_ + "/Empty/Other.txt"));
}

TEST_F(Files, ReadsBringTheBytesAtTheirOffsetAndEndOfFileAtOrPastTheEnd) {
  std::string text;
  for (int i = 0; i < 300; ++i) text.push_back(char('A' + i % 26));
  Write("/Cam.txt", text);
  HANDLE handle = nullptr;
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &handle), STATUS_SUCCESS);
  // Offset, length, status, bytes read; a short last read keeps the rest of the buffer.
  const std::tuple<int64_t, ULONG, NTSTATUS, uint64_t> cases[] = {
      {0, 128, STATUS_SUCCESS, 128},
      {256, 128, STATUS_SUCCESS, 44},
      {300, 128, STATUS_END_OF_FILE, 0},
      {int64_t(1) << 40, 128, STATUS_END_OF_FILE, 0},
      {-1, 128, STATUS_INVALID_PARAMETER, 0}};
  for (const auto& [offset, length, status, bytes] : cases) {
    SCOPED_TRACE(offset);
    std::vector<char> buffer(length + 1, '#');
    uint64_t got = 0;
    EXPECT_EQ(ReadAt(handle, offset, buffer.data(), length, &got), status);
    if (status == STATUS_INVALID_PARAMETER) continue;
    EXPECT_EQ(got, bytes);
    std::string expected = text.substr(std::min<size_t>(offset, 300), got);
    expected.resize(buffer.size(), '#');
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), expected);
  }
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

TEST_F(Files, ReadRefusesBadHandlesAndArgumentsAndAnInjectedFailureLeavesTheBuffer) {
  Write("/Cam.txt", "0123456789");
  HANDLE handle = nullptr, writeOnly = nullptr;
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &handle), STATUS_SUCCESS);
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &writeOnly, FILE_OPEN_IF, OBJ_CASE_INSENSITIVE,
                         FILE_WRITE_DATA),
            STATUS_SUCCESS);
  char buffer[4] = {'#', '#', '#', '#'};
  LARGE_INTEGER at;
  at.QuadPart = 0;
  KEVENT event{};
  IO_STATUS_BLOCK io{};
  auto read = [&](HANDLE h, KEVENT* e) {
    return ZwReadFile(h, e, nullptr, nullptr, &io, buffer, 4, &at, nullptr);
  };
  EXPECT_EQ(read(nullptr, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_EQ(read(handle, &event), STATUS_INVALID_PARAMETER);  // no asynchronous reads
  EXPECT_EQ(read(writeOnly, nullptr), STATUS_ACCESS_DENIED);
  EXPECT_EQ(ZwClose(writeOnly), STATUS_SUCCESS);
  EXPECT_EQ(read(writeOnly, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_EQ(ZwClose(writeOnly), STATUS_INVALID_HANDLE);

  // The injected failure hits the nth read once, brings no bytes and leaves the buffer.
  const uint64_t before = FileReadCount();
  FileFailRead(2, STATUS_IO_DEVICE_ERROR);
  uint64_t got = 0;
  EXPECT_EQ(ReadAt(handle, 0, buffer, 4, &got), STATUS_SUCCESS);
  std::memset(buffer, '#', 4);
  EXPECT_EQ(ReadAt(handle, 4, buffer, 4, &got), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(std::string(buffer, 4), "####");
  EXPECT_EQ(ReadAt(handle, 4, buffer, 4, &got), STATUS_SUCCESS);
  EXPECT_EQ(std::string(buffer, 4), "4567");
  EXPECT_EQ(FileReadCount() - before, 3u);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);

  // The tool's direct way in: existing regular files only.
  ASSERT_TRUE(OpenHostFileForReading(root_ + "/Cam.txt", &handle));
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  handle = nullptr;
  EXPECT_FALSE(OpenHostFileForReading(root_, &handle));
  EXPECT_EQ(handle, nullptr);
}

// Two threads read two scripts through their own handles while a third opens and closes the
// first over and over: every read brings its own file's bytes.
TEST_F(FilesThreads, ConcurrentReadsOnDifferentHandlesSeeTheirOwnBytes) {
  std::string texts[2];
  for (int i = 0; i < 4096; ++i) {
    texts[0].push_back(char('a' + i % 26));
    texts[1].push_back(char('0' + i % 10));
  }
  Write("/one.txt", texts[0]);
  Write("/two.txt", texts[1]);
  const std::u16string names[2] = {u"\\??\\T:\\ONE.TXT", u"\\??\\T:\\two.txt"};
  std::atomic<int> mismatches{0};
  auto reader = [&](int which) {
    HANDLE handle = nullptr;
    if (OpenAsDriver(names[which], &handle) != STATUS_SUCCESS) {
      ++mismatches;
      return;
    }
    char buffer[128];
    for (int round = 0; round < 400; ++round) {
      const int64_t offset = (round * 97) % 4096;
      uint64_t got = 0;
      if (ReadAt(handle, offset, buffer, 128, &got) != STATUS_SUCCESS ||
          std::string(buffer, got) != texts[which].substr(offset, 128)) {
        ++mismatches;
      }
    }
    ZwClose(handle);
  };
  std::thread opener([&] {
    for (int round = 0; round < 100; ++round) {
      HANDLE handle = nullptr;
      if (OpenAsDriver(names[0], &handle) != STATUS_SUCCESS) ++mismatches;
      ZwClose(handle);
    }
  });
  std::thread first(reader, 0), second(reader, 1);
  first.join();
  second.join();
  opener.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
