// The file layer as the script reader uses it: object names onto host paths,
// open-if, reads at explicit offsets, case-insensitive lookup, fault
// injection, and no handle left open.

#include "platform/files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/files_control.h"
#include "platform/handles.h"
#include "platform/registry_control.h"

namespace {

namespace fs = std::filesystem;

// ZwCreateFile as the script reader calls it.
NTSTATUS OpenAsDriver(const std::u16string& name, HANDLE* handle,
                      ULONG disposition = FILE_OPEN_IF,
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
  NTSTATUS status = ZwReadFile(handle, nullptr, nullptr, nullptr, &io, buffer, length, &at, nullptr);
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

// Drive T onto a fresh folder, drive Q unmapped. No other letter is touched,
// so a mapping another suite (or MR740_DRIVE_C) made stays.
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
  const std::pair<std::u16string, const char*> cases[] = {  // host path below T:, or refused
      {u"\\??\\T:\\Cameras\\OV7670\\Cam.txt", "/Cameras/OV7670/Cam.txt"},
      {u"\\??\\t:\\a.txt", "/a.txt"},
      {u"\\??\\T:\\with blank\\x y.TXT", "/with blank/x y.TXT"},
      {u"\\??\\T:\\caf\u00E9.txt", "/caf\xC3\xA9.txt"},
      {u"\\??\\Q:\\a.txt", nullptr},  // drive not mapped
      {u"\\??\\T:\\..\\etc\\passwd", nullptr},  {u"\\??\\T:\\a\\..\\..\\b", nullptr},
      {u"\\??\\T:\\a\\.\\b", nullptr},          {u"\\??\\T:\\a\\\\b", nullptr},
      {u"\\??\\T:\\a\\", nullptr},              {u"\\??\\T:\\", nullptr},
      {u"\\??\\T:a.txt", nullptr},              {u"\\??\\T:\\a/../b", nullptr},
      {u"\\??\\T:\\a*.txt", nullptr},           {u"\\??\\T:\\a\x01.txt", nullptr},
      {u"\\??\\1:\\a.txt", nullptr},            {u"T:\\a.txt", nullptr},
      {u"\\DosDevices\\T:\\a.txt", nullptr},    {u"\\??\\\\T:\\a.txt", nullptr},
      {std::u16string(u"\\??\\T:\\a") + char16_t(0xD800) + u"b", nullptr},
  };
  EXPECT_FALSE(MapDosDrive('1', root_));
  EXPECT_FALSE(MapDosDrive('[', root_));
  for (const auto& [name, hostPath] : cases) {
    SCOPED_TRACE(NarrowAscii(name));
    std::string path = "unchanged";
    EXPECT_EQ(HostPathOfObjectName(name, &path), hostPath != nullptr);
    EXPECT_EQ(path, hostPath ? root_ + hostPath : "unchanged");
  }
}

TEST_F(Files, CreateFileOpensCreatesOrRefusesByName) {
  Write("/Cameras/OV7670/Cam.txt", "script");
  fs::create_directories(root_ + "/Empty");
  ASSERT_TRUE(MapDosDrive('U', root_ + "/no such folder"));
  constexpr ULONG CI = OBJ_CASE_INSENSITIVE;
  struct Case {  // hostFile: the file that must then exist with `contents`
    std::u16string name;
    ULONG disposition, attributes;
    NTSTATUS status;
    uint64_t information;
    const char *hostFile, *contents;
  } const cases[] = {
      {u"\\??\\T:\\Cameras\\OV7670\\Cam.txt", FILE_OPEN_IF, CI, STATUS_SUCCESS, FILE_OPENED,
       "/Cameras/OV7670/Cam.txt", "script"},
      {u"\\??\\T:\\Cameras\\OV7670\\Cam.txt", FILE_OPEN, CI, STATUS_SUCCESS, FILE_OPENED,
       "/Cameras/OV7670/Cam.txt", "script"},
      {u"\\??\\T:\\Empty\\New.txt", FILE_OPEN_IF, CI, STATUS_SUCCESS, FILE_CREATED,
       "/Empty/New.txt", ""},
      {u"\\??\\T:\\Empty\\Other.txt", FILE_OPEN, CI, STATUS_OBJECT_NAME_NOT_FOUND},
      {u"\\??\\T:\\Missing\\Cam.txt", FILE_OPEN_IF, CI, STATUS_OBJECT_PATH_NOT_FOUND},
      {u"\\??\\T:\\Cameras\\OV7670\\Cam.txt\\x", FILE_OPEN_IF, CI, STATUS_OBJECT_PATH_NOT_FOUND},
      {u"\\??\\Q:\\Cam.txt", FILE_OPEN_IF, CI, STATUS_OBJECT_PATH_NOT_FOUND},
      {u"\\??\\U:\\Cam.txt", FILE_OPEN_IF, CI, STATUS_OBJECT_PATH_NOT_FOUND},
      {u"\\??\\T:\\..\\Cam.txt", FILE_OPEN_IF, CI, STATUS_OBJECT_NAME_INVALID},
      {u"C:\\Cam.txt", FILE_OPEN_IF, CI, STATUS_OBJECT_NAME_INVALID},
      {u"\\??\\T:\\Empty", FILE_OPEN_IF, CI, STATUS_ACCESS_DENIED},
      {u"\\??\\T:\\Cam.txt", FILE_OVERWRITE_IF, CI, STATUS_NOT_SUPPORTED},
      // Other case: found at every level when the name asks for it ...
      {u"\\??\\T:\\CAMERAS\\ov7670\\cam.TXT", FILE_OPEN_IF, CI, STATUS_SUCCESS, FILE_OPENED,
       "/Cameras/OV7670/Cam.txt", "script"},
      // ... and not when it does not: the folder is missing, the file is new.
      {u"\\??\\T:\\CAMERAS\\OV7670\\Cam.txt", FILE_OPEN_IF, 0, STATUS_OBJECT_PATH_NOT_FOUND},
      {u"\\??\\T:\\Cameras\\OV7670\\CAM.TXT", FILE_OPEN_IF, 0, STATUS_SUCCESS, FILE_CREATED,
       "/Cameras/OV7670/CAM.TXT", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(NarrowAscii(c.name));
    HANDLE handle = nullptr;
    IO_STATUS_BLOCK io{-1, 99};
    NTSTATUS status = OpenAsDriver(c.name, &handle, c.disposition, c.attributes, FILE_READ_DATA, &io);
    EXPECT_EQ(status, c.status) << NtStatusName(status);
    if (!NT_SUCCESS(status)) {
      EXPECT_EQ(handle, nullptr);
      continue;
    }
    EXPECT_EQ(io.Status, STATUS_SUCCESS);
    EXPECT_EQ(io.Information, c.information);
    EXPECT_EQ(ReadWhole(handle), c.contents);  // an empty file reads as ended at once
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(HostText(c.hostFile), c.contents);
  }
  // Nothing appeared where an open failed.
  EXPECT_FALSE(fs::exists(root_ + "/Missing"));
  EXPECT_FALSE(fs::exists(root_ + "/Empty/Other.txt"));
  MapDosDrive('U', "");
}

TEST_F(Files, ReadsBringTheBytesAtTheirOffsetAndEndOfFileAtOrPastTheEnd) {
  std::string text;
  for (int i = 0; i < 300; ++i) text.push_back(char('A' + i % 26));
  Write("/Cam.txt", text);
  HANDLE handle = nullptr;
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &handle), STATUS_SUCCESS);
  struct Case { int64_t offset; ULONG length; NTSTATUS status; uint64_t bytes; } const cases[] = {
      {0, 128, STATUS_SUCCESS, 128},
      {256, 128, STATUS_SUCCESS, 44},  // the short last read keeps the rest of the buffer
      {299, 128, STATUS_SUCCESS, 1},
      {300, 128, STATUS_END_OF_FILE, 0},
      {int64_t(1) << 40, 128, STATUS_END_OF_FILE, 0},
      {17, 0, STATUS_SUCCESS, 0},
      {-1, 128, STATUS_INVALID_PARAMETER, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    std::vector<char> buffer(c.length + 1, '#');
    uint64_t got = 0;
    EXPECT_EQ(ReadAt(handle, c.offset, buffer.data(), c.length, &got), c.status);
    if (c.status == STATUS_INVALID_PARAMETER) continue;
    EXPECT_EQ(got, c.bytes);
    EXPECT_EQ(std::string(buffer.data(), got), text.substr(std::min<size_t>(c.offset, 300), got));
    for (size_t i = got; i < buffer.size(); ++i) ASSERT_EQ(buffer[i], '#') << i;
  }
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

TEST_F(Files, ReadRefusesBadHandlesAndArguments) {
  Write("/Cam.txt", "x\r\n");
  HANDLE handle = nullptr, writeOnly = nullptr;
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &handle), STATUS_SUCCESS);
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &writeOnly, FILE_OPEN_IF, OBJ_CASE_INSENSITIVE,
                         FILE_WRITE_DATA),
            STATUS_SUCCESS);
  char buffer[8];
  LARGE_INTEGER at;
  at.QuadPart = 0;
  KEVENT event{};
  ULONG key = 0;
  IO_STATUS_BLOCK io{};
  auto read = [&](HANDLE h, KEVENT* e, IO_STATUS_BLOCK* status, void* into, ULONG* k) {
    return ZwReadFile(h, e, nullptr, nullptr, status, into, 8, &at, k);
  };
  EXPECT_EQ(read(nullptr, nullptr, &io, buffer, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_EQ(read(&event, nullptr, &io, buffer, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_EQ(read(handle, &event, &io, buffer, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(read(handle, nullptr, &io, buffer, &key), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(read(handle, nullptr, nullptr, buffer, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(read(handle, nullptr, &io, nullptr, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(read(writeOnly, nullptr, &io, buffer, nullptr), STATUS_ACCESS_DENIED);
  EXPECT_EQ(ZwClose(writeOnly), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  EXPECT_EQ(read(handle, nullptr, &io, buffer, nullptr), STATUS_INVALID_HANDLE);
  EXPECT_EQ(ZwClose(handle), STATUS_INVALID_HANDLE);

  // The tool's direct way in: existing regular files only.
  ASSERT_TRUE(OpenHostFileForReading(root_ + "/Cam.txt", &handle));
  uint64_t got = 0;
  EXPECT_EQ(ReadAt(handle, 1, buffer, 8, &got), STATUS_SUCCESS);
  EXPECT_EQ(std::string(buffer, got), "\r\n");
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  handle = nullptr;
  EXPECT_FALSE(OpenHostFileForReading(root_ + "/none.txt", &handle));
  EXPECT_FALSE(OpenHostFileForReading(root_, &handle));
  EXPECT_EQ(handle, nullptr);
}

TEST_F(Files, CaseInsensitiveLookupPrefersTheExactNameThenTheSmallestMatch) {
  Write("/cams/a.txt", "lower");
  Write("/cams/A.TXT", "upper");
  Write("/cams/A.txt", "mixed");
  fs::create_directories(root_ + "/CAMS");  // exact folder for an upper-case name
  Write("/Other/Cam.txt", "other");
  const std::pair<std::u16string, const char*> cases[] = {
      {u"\\??\\T:\\cams\\a.txt", "lower"},
      {u"\\??\\T:\\cams\\A.TXT", "upper"},
      {u"\\??\\T:\\cams\\a.TXT", "upper"},  // no exact entry: "A.TXT" < "A.txt" < "a.txt"
      {u"\\??\\T:\\oTHER\\cAM.tXT", "other"},
      {u"\\??\\T:\\CAMS\\a.txt", ""},  // the exact folder wins; the file is new there
  };
  for (const auto& [name, contents] : cases) {
    SCOPED_TRACE(NarrowAscii(name));
    HANDLE handle = nullptr;
    ASSERT_EQ(OpenAsDriver(name, &handle), STATUS_SUCCESS);
    EXPECT_EQ(ReadWhole(handle), contents);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  }
  EXPECT_TRUE(fs::exists(root_ + "/CAMS/a.txt"));
  EXPECT_EQ(std::distance(fs::directory_iterator(root_), fs::directory_iterator()), 3);
}

TEST_F(Files, InjectedReadFailureHitsTheNthReadOnceAndLeavesTheBuffer) {
  Write("/Cam.txt", "0123456789");
  HANDLE handle = nullptr;
  ASSERT_EQ(OpenAsDriver(u"\\??\\T:\\Cam.txt", &handle), STATUS_SUCCESS);
  const uint64_t before = FileReadCount();
  FileFailRead(2, STATUS_IO_DEVICE_ERROR);
  char buffer[4] = {'#', '#', '#', '#'};
  uint64_t got = 0;
  EXPECT_EQ(ReadAt(handle, 0, buffer, 4, &got), STATUS_SUCCESS);
  std::memset(buffer, '#', 4);
  EXPECT_EQ(ReadAt(handle, 4, buffer, 4, &got), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(std::string(buffer, 4), "####");
  EXPECT_EQ(ReadAt(handle, 4, buffer, 4, &got), STATUS_SUCCESS);
  EXPECT_EQ(std::string(buffer, 4), "4567");
  EXPECT_EQ(FileReadCount() - before, 3u);
  FileFailRead(1, STATUS_IO_DEVICE_ERROR);
  FileFailRead(0, STATUS_SUCCESS);  // off again: no read fails
  EXPECT_EQ(ReadAt(handle, 0, buffer, 4, &got), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
}

// Two threads read two scripts through their own handles, a third opens and
// closes a handle on the first over and over: every read brings its own file's
// bytes.
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
