// The registry beyond the in-memory tree: the full value record, a device's
// driver key name, the ".reg" text form, atomic saves and the file kept across restarts.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"
#include "platform/registry_control.h"

namespace {

namespace fs = std::filesystem;

const std::u16string kBase = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Test";
const std::string kHeader = "Windows Registry Editor Version 5.00\r\n\r\n";
const std::string kBaseLine = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test]\r\n";

UNICODE_STRING Counted(std::u16string_view text) {
  return UNICODE_STRING{static_cast<USHORT>(text.size() * 2), static_cast<USHORT>(text.size() * 2),
                        const_cast<WCHAR*>(text.data())};
}

NTSTATUS CreateKey(HANDLE root, const std::u16string& path, HANDLE* key) {
  UNICODE_STRING name = Counted(path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, root, nullptr);
  return ZwCreateKey(key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr);
}

NTSTATUS SetDword(HANDLE key, const std::u16string& name, uint32_t value) {
  UNICODE_STRING valueName = Counted(name);
  return ZwSetValueKey(key, &valueName, 0, REG_DWORD, &value, 4);
}

// Sets one DWORD through the driver's calls: create (or open) the key, set, close.
bool DriverSetDword(const std::u16string& path, const std::u16string& name, uint32_t value) {
  HANDLE key = nullptr;
  if (CreateKey(nullptr, path, &key) != STATUS_SUCCESS) return false;
  NTSTATUS status = SetDword(key, name, value);
  ZwClose(key);
  return status == STATUS_SUCCESS;
}

DEVICE_OBJECT* FakeDevice(int index) {
  static char devices[4];
  return reinterpret_cast<DEVICE_OBJECT*>(&devices[index]);
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Every key and value below `key` in order, each with its full path.
using Flat = std::vector<std::tuple<std::u16string, std::u16string, ULONG, std::vector<uint8_t>>>;
void Flatten(const RegistryKeySnapshot& key, const std::u16string& path, Flat* out) {
  const std::u16string full = path + u"\\" + key.name;
  out->emplace_back(full, u"", ~0u, std::vector<uint8_t>{});  // the key itself
  for (const auto& v : key.values) out->emplace_back(full, v.name, v.type, v.data);
  for (const auto& sub : key.subKeys) Flatten(sub, full, out);
}

// UTF-16LE bytes of an ASCII text and its terminating zero.
std::vector<uint8_t> Wide(const std::string& text) {
  std::vector<uint8_t> bytes;
  for (char c : text) bytes.insert(bytes.end(), {uint8_t(c), 0});
  bytes.insert(bytes.end(), {0, 0});
  return bytes;
}

class RegistryFileFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    handlesBefore_ = OpenPlatformHandles(HandleKind::RegistryKey);
    static int serial = 0;
    folder_ = fs::temp_directory_path() /
              ("mr740_registry_" + std::to_string(::getpid()) + "_" + std::to_string(++serial));
    fs::create_directories(folder_);
  }
  void TearDown() override {
    ResetRegistry();
    EXPECT_EQ(OpenPlatformHandles(HandleKind::RegistryKey), handlesBefore_) << "key handle leaked";
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  uint32_t handlesBefore_ = 0;
  fs::path folder_;
};

using RegistryFullRecord = RegistryFileFixture;
using RegistryDeviceProperty = RegistryFileFixture;
using RegistryFileFormat = RegistryFileFixture;
using RegistryFileErrors = RegistryFileFixture;
using RegistryFileSave = RegistryFileFixture;
using RegistryFilePersistence = RegistryFileFixture;
using RegistryFileThreads = RegistryFileFixture;

TEST_F(RegistryFullRecord, DataFollowsTheNameOnAFourByteBoundaryAndShortBuffersAreSized) {
  // Fixed words at 0, 4, 8, 12, 16: TitleIndex, Type, DataOffset, DataLength,
  // NameLength; the name at 20. "Pos" is 6 bytes, 26 rounds up to 28; "Blob"
  // is 8 bytes, 28 already; the default value has no name, data at 20.
  ASSERT_TRUE(SetRegistryValue(kBase, u"Pos", REG_DWORD, {0x78, 0x56, 0x34, 0x12}));
  ASSERT_TRUE(SetRegistryBinary(kBase, u"Blob", {0x11, 0x22, 0x33, 0x44, 0x55}));
  ASSERT_TRUE(SetRegistryDword(kBase, u"", 7));
  struct Case {
    std::u16string name;
    ULONG length;
    NTSTATUS status;
    ULONG needed, dataOffset, dataLength;
    size_t nameBytesCopied;  // when the fixed words are written
    bool dataCopied;
  };
  const Case cases[] = {
      {u"Pos", 0, STATUS_BUFFER_TOO_SMALL, 32, 28, 4, 0, false},
      {u"Pos", 19, STATUS_BUFFER_TOO_SMALL, 32, 28, 4, 0, false},
      {u"Pos", 20, STATUS_BUFFER_OVERFLOW, 32, 28, 4, 0, false},
      {u"Pos", 23, STATUS_BUFFER_OVERFLOW, 32, 28, 4, 3, false},
      {u"Pos", 31, STATUS_BUFFER_OVERFLOW, 32, 28, 4, 6, false},
      {u"Pos", 32, STATUS_SUCCESS, 32, 28, 4, 6, true},
      {u"Blob", 33, STATUS_SUCCESS, 33, 28, 5, 8, true},
      {u"", 24, STATUS_SUCCESS, 24, 20, 4, 0, true},
  };
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.name.size()) + " characters, length " + std::to_string(c.length));
    UNICODE_STRING name = Counted(c.name);
    // One byte in, so the record is not aligned; everything past `length` must survive.
    std::vector<uint8_t> buffer(1 + 64, 0xCC);
    ULONG needed = 0;
    EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValueFullInformation,
                              c.length == 0 ? nullptr : buffer.data() + 1, c.length, &needed),
              c.status);
    EXPECT_EQ(needed, c.needed);
    const uint8_t* record = buffer.data() + 1;
    std::vector<uint32_t> words(5);
    std::memcpy(words.data(), record, 20);
    if (c.status != STATUS_BUFFER_TOO_SMALL) {
      const ULONG type = c.name == u"Blob" ? REG_BINARY : REG_DWORD, nameBytes = c.name.size() * 2;
      EXPECT_EQ(words, (std::vector<uint32_t>{0, type, c.dataOffset, c.dataLength, nameBytes}));
      EXPECT_EQ(std::memcmp(record + 20, c.name.data(), c.nameBytesCopied), 0);
    }
    if (c.dataCopied) {
      std::vector<uint8_t> data(record + c.dataOffset, record + c.dataOffset + c.dataLength);
      RegistryValueEntry stored;
      ASSERT_TRUE(GetRegistryValue(kBase, c.name, &stored));
      EXPECT_EQ(data, stored.data);
    }
    const size_t written = c.status == STATUS_BUFFER_TOO_SMALL ? 0
                           : c.status == STATUS_SUCCESS        ? c.needed
                                                               : 20 + c.nameBytesCopied;
    for (size_t i = written; i < 64; ++i) ASSERT_EQ(record[i], 0xCC) << "byte " << i;
    EXPECT_EQ(buffer[0], 0xCC);
  }
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryDeviceProperty, DriverKeyNameIsTheClassRelativePathEndingInTheInstance) {
  const std::u16string expected = u"{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0003";
  EXPECT_EQ(DeviceSoftwareKeyPath(3),
            u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\" + expected);
  EXPECT_EQ(DeviceSoftwareKeyPath(12).substr(DeviceSoftwareKeyPath(12).size() - 5), u"\\0012");
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(0), DeviceSoftwareKeyPath(3)));
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(1), kBase + u"\\0007"));
  const ULONG bytes = (43 + 1) * 2;  // 38 of the GUID, a backslash, four digits, the zero
  struct Case {
    const char* label;
    DEVICE_OBJECT* device;
    DEVICE_REGISTRY_PROPERTY property;
    ULONG length;
    NTSTATUS status;
    std::u16string text;  // expected on success
  };
  const Case cases[] = {
      {"the driver's 512 bytes", FakeDevice(0), DevicePropertyDriverKeyName, 512, STATUS_SUCCESS,
       expected},
      {"exactly fits", FakeDevice(0), DevicePropertyDriverKeyName, bytes, STATUS_SUCCESS, expected},
      {"one byte short", FakeDevice(0), DevicePropertyDriverKeyName, bytes - 1,
       STATUS_BUFFER_TOO_SMALL, u""},
      {"bound outside the class key", FakeDevice(1), DevicePropertyDriverKeyName, 512,
       STATUS_SUCCESS, kBase + u"\\0007"},
      {"another property", FakeDevice(0), DevicePropertyClassGuid, 512, STATUS_INVALID_PARAMETER_2,
       u""},
      {"unbound device", FakeDevice(2), DevicePropertyDriverKeyName, 512,
       STATUS_OBJECT_NAME_NOT_FOUND, u""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    std::vector<char16_t> buffer(256, u'#');
    ULONG result = 0;
    EXPECT_EQ(IoGetDeviceProperty(c.device, c.property, c.length, buffer.data(), &result),
              c.status);
    if (!NT_SUCCESS(c.status)) {
      EXPECT_TRUE(c.status != STATUS_BUFFER_TOO_SMALL || result == bytes) << result;
      EXPECT_EQ(buffer[0], u'#');
      continue;
    }
    EXPECT_EQ(result, (c.text.size() + 1) * 2);
    EXPECT_EQ(std::u16string(buffer.data()), c.text);
  }
}

TEST_F(RegistryFileFormat, EachValueFormReadsToItsTypeAndBytes) {
  struct Case {
    std::string line;
    std::u16string name;
    ULONG type;
    std::vector<uint8_t> data;
  };
  const Case cases[] = {
      {"\"FrameRate\"=dword:0000001e", u"FrameRate", REG_DWORD, {0x1e, 0, 0, 0}},
      {"\"Short\"=DWORD:A", u"Short", REG_DWORD, {0x0a, 0, 0, 0}},
      {"@=dword:ffffffff", u"", REG_DWORD, {0xff, 0xff, 0xff, 0xff}},
      {"  \"Spaced\" = dword:12345678  ", u"Spaced", REG_DWORD, {0x78, 0x56, 0x34, 0x12}},
      {"\"Script\"=\"C:\\\\cam\\\\a.scr\"", u"Script", REG_SZ, Wide("C:\\cam\\a.scr")},
      {"\"Q\"=\"say \\\"hi\\\"\"", u"Q", REG_SZ, Wide("say \"hi\"")},
      {"\"Empty\"=\"\"", u"Empty", REG_SZ, {0, 0}},
      // U+00C4 and U+20AC in UTF-8.
      {"\"Euro\"=\"\xC3\x84\xE2\x82\xAC\"", u"Euro", REG_SZ, {0xC4, 0x00, 0xAC, 0x20, 0, 0}},
      {"\"Name \\\"q\\\" \\\\ x\"=dword:1", u"Name \"q\" \\ x", REG_DWORD, {1, 0, 0, 0}},
      {"\"Blob\"=hex:01,02,ff", u"Blob", REG_BINARY, {1, 2, 0xff}},
      {"\"NoBytes\"=hex:", u"NoBytes", REG_BINARY, {}},
      {"\"None\"=hex(0):", u"None", REG_NONE, {}},
      {"\"Expand\"=hex(2):41,00,00,00", u"Expand", 2, {0x41, 0, 0, 0}},
      {"\"Qword\"=hex(b):01,00,00,00,00,00,00,80", u"Qword", 11, {1, 0, 0, 0, 0, 0, 0, 0x80}},
      {"\"Odd\"=hex(deadbeef):7", u"Odd", 0xdeadbeef, {7}},
      {"\"Folded\"=hex:00,01,\\\r\n  02,03,\\\r\n  04", u"Folded", REG_BINARY, {0, 1, 2, 3, 4}},
      {"\"Wrapped\"=hex:\\\r\n  0a", u"Wrapped", REG_BINARY, {0x0a}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    ResetRegistry();
    std::string error;
    ASSERT_TRUE(LoadRegistryText(kHeader + kBaseLine + c.line + "\r\n", "c.reg", &error)) << error;
    std::vector<RegistryValueEntry> values;
    ASSERT_TRUE(ListRegistryValues(kBase, &values));
    ASSERT_EQ(values.size(), 1u);
    EXPECT_TRUE(values[0].name == c.name && values[0].type == c.type);
    EXPECT_EQ(values[0].data, c.data);
  }
}

TEST_F(RegistryFileFormat, KeyLinesDeletionsAndCommentsMergeIntoTheTree) {
  ASSERT_TRUE(SetRegistryDword(kBase + u"\\Old", u"V", 1));
  ASSERT_TRUE(SetRegistryDword(kBase + u"\\Gone\\Before", u"V", 1));
  // UTF-8 with its byte order mark and LF line ends.
  const std::string text =
      "\xEF\xBB\xBFWindows Registry Editor Version 5.00\n"
      "\n"
      "; a camera's description\n"
      "[HKLM\\SOFTWARE\\Mr740Test\\Keep]\n"
      "\"A\"=dword:1\n"
      "\"B\"=dword:2\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\Gone\\Deep]\n"
      "\"X\"=dword:3\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\Gone]\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\NeverThere]\n"
      "[hkey_local_machine\\software\\mr740test\\keep]\n"
      "\"B\"=-\n"
      "\"Missing\"=-\n"
      "\"a\"=dword:5\n";
  std::string error;
  ASSERT_TRUE(LoadRegistryText(text, "cam.reg", &error)) << error;
  // Nothing but blank lines is an empty file.
  ASSERT_TRUE(LoadRegistryText("\xEF\xBB\xBF\r\n \r\n", "blank.reg", &error)) << error;
  std::vector<std::u16string> keys;
  ASSERT_TRUE(ListRegistrySubKeys(kBase, &keys));
  EXPECT_EQ(keys, (std::vector<std::u16string>{u"Keep", u"Old"}));
  std::vector<RegistryValueEntry> values;
  ASSERT_TRUE(ListRegistryValues(kBase + u"\\Keep", &values));
  ASSERT_EQ(values.size(), 1u);
  EXPECT_TRUE(values[0].name == u"A");
  EXPECT_EQ(values[0].data, (std::vector<uint8_t>{5, 0, 0, 0}));
  EXPECT_TRUE(GetRegistryDword(kBase + u"\\Old", u"V", nullptr));
}

TEST_F(RegistryFileFormat, Utf16LittleEndianFileReadsLikeItsUtf8Form) {
  // U+00C4 in a key name, U+1F600 (a surrogate pair) in a string.
  const std::u16string text16 =
      u"Windows Registry Editor Version 5.00\r\n\r\n"
      u"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\\u00C4]\r\n"
      u"\"Face\"=\"\U0001F600!\"\r\n";
  std::string bytes16 = "\xFF\xFE";
  for (char16_t c : text16) {
    bytes16.push_back(char(c & 0xFF));
    bytes16.push_back(char(c >> 8));
  }
  const std::string text8 = kHeader +
                            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\\xC3\x84]\r\n"
                            "\"Face\"=\"\xF0\x9F\x98\x80!\"\r\n";
  std::string error;
  ASSERT_TRUE(LoadRegistryText(bytes16, "cam16.reg", &error)) << error;
  std::u16string face;
  ASSERT_TRUE(GetRegistryString(kBase + u"\\\u00E4", u"face", &face));
  EXPECT_EQ(face, (std::u16string{0xD83D, 0xDE00, u'!'}));
  const std::string saved16 = SaveRegistryText();
  ResetRegistry();
  ASSERT_TRUE(LoadRegistryText(text8, "cam8.reg", &error)) << error;
  EXPECT_EQ(SaveRegistryText(), saved16);
  EXPECT_NE(saved16.find(text8.substr(kHeader.size())), std::string::npos);
}

TEST_F(RegistryFileErrors, MalformedInputNamesItsLineAndChangesNothing) {
  struct Case {
    std::string text;  // after the header and the key line unless `whole`
    bool whole;
    int line;
    std::string what;
  };
  // Lines 1 and 2: header and blank line; 3: the key; 4: a good value; 5: the case.
  const std::string good = "\"Loaded\"=dword:1\r\n";
  const Case cases[] = {
      {"[HKLM\\X]\r\n", true, 1, "expected \"Windows Registry Editor Version 5.00\""},
      {"REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\X]\r\n", true, 1, "expected"},
      {"\r\n\r\n" + kHeader + "\"V\"=dword:1\r\n", true, 5, "value line before any key line"},
      {good + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\X\r\n", false, 5, "without a closing ']'"},
      {good + "[HKEY_CURRENT_USER\\Software]\r\n", false, 5, "unknown root key"},
      {good + "[HKLM\\SOFTWARE\\\\X]\r\n", false, 5, "empty key name"},
      {good + "[HKLM\\" + std::string(256, 'k') + "]\r\n", false, 5, "longer than 255"},
      {good + "[-HKEY_LOCAL_MACHINE]\r\n", false, 5, "cannot be deleted"},
      {good + "[-HKLM\\SOFTWARE\\X]\r\n\"V\"=dword:1\r\n", false, 6, "below a deleted key"},
      {good + "\"V\"=dword:123456789\r\n", false, 5, "1 to 8 hexadecimal digits"},
      {good + "\"V\"=dword:\r\n", false, 5, "1 to 8 hexadecimal digits"},
      {good + "\"V\"=dword:12g4\r\n", false, 5, "1 to 8 hexadecimal digits"},
      {good + "\"V=dword:1\r\n", false, 5, "no closing quote"},
      {good + "\"V\"dword:1\r\n", false, 5, "expected '='"},
      {good + "\"V\"=\"C:\\cam\"\r\n", false, 5, "unknown escape"},
      {good + "\"V\"=\"abc\r\n", false, 5, "no closing quote"},
      {good + "\"V\"=\"abc\" x\r\n", false, 5, "after the closing quote"},
      {good + "\"V\"=hex:1g\r\n", false, 5, "bad byte"},
      {good + "\"V\"=hex:123\r\n", false, 5, "bad byte"},
      {good + "\"V\"=hex:01,,02\r\n", false, 5, "empty byte"},
      {good + "\"V\"=hex:01,02,\r\n", false, 5, "ends with a comma"},
      {good + "\"V\"=hex(zz):01\r\n", false, 5, "hex(N)"},
      {good + "\"V\"=hex(2)01\r\n", false, 5, "expected ':'"},
      {good + "\"V\"=hex:00,01,\\\r\n  02,zz\r\n", false, 6, "bad byte"},
      {good + "\"V\"=hex:00,\\", false, 5, "past the end of the file"},
      {good + "\"V\"=hex:00,\\\r\n\r\n", false, 6, "blank line"},
      {good + "\"V\"=word:1\r\n", false, 5, "unknown value form"},
      {good + "Brightness=5\r\n", false, 5, "not a key, value or comment line"},
      {good + "\r\n\"V\"=\"\xC3\x28\"\r\n", false, 6, "invalid UTF-8"},
      {std::string("\xFF\xFEW\0", 4), true, 1, "expected"},
      {std::string("\xFF\xFEW\0i", 5), true, 1, "odd number of bytes"},
      {std::string("\xFF\xFE\n\0\x3D\xD8", 6), true, 2, "surrogate"},
      {"\xFE\xFFW\0", true, 1, "big-endian"},
  };
  ASSERT_TRUE(SetRegistryDword(kBase, u"Marker", 42));
  const std::string before = SaveRegistryText();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string error;
    const std::string text =
        c.whole ? c.text : kHeader + "[HKLM\\SOFTWARE\\Mr740Test\\Loaded]\r\n" + c.text;
    EXPECT_FALSE(LoadRegistryText(text, "cam.reg", &error));
    const std::string prefix = "cam.reg:" + std::to_string(c.line) + ": ";
    EXPECT_EQ(error.substr(0, prefix.size()), prefix) << error;
    EXPECT_NE(error.find(c.what), std::string::npos) << error;
    EXPECT_EQ(SaveRegistryText(), before);
  }
}

TEST_F(RegistryFileFormat, SavedTextIsStableReadsBackToTheSameTreeAndFoldsAt80Columns) {
  // A small tree against text written out by hand.
  std::vector<uint8_t> thirty(30);
  for (size_t i = 0; i < thirty.size(); ++i) thirty[i] = uint8_t(i);
  ASSERT_TRUE(SetRegistryDword(kBase, u"FrameRate", 30));
  ASSERT_TRUE(SetRegistryString(kBase, u"Script", u"C:\\cam \"1\".scr"));
  ASSERT_TRUE(SetRegistryValue(kBase, u"", REG_DWORD, {1, 2, 3}));
  ASSERT_TRUE(SetRegistryBinary(kBase + u"\\b", u"Blob", thirty));
  ASSERT_TRUE(CreateRegistryKeyPath(kBase + u"\\A"));
  const std::string expected =
      kHeader + kBaseLine +
      "\"FrameRate\"=dword:0000001e\r\n"
      "\"Script\"=\"C:\\\\cam \\\"1\\\".scr\"\r\n"
      "@=hex(4):01,02,03\r\n"
      "\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\A]\r\n"
      "\r\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\b]\r\n"
      "\"Blob\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,\\\r\n"
      "  16,17,18,19,1a,1b,1c,1d\r\n"
      "\r\n";
  EXPECT_EQ(SaveRegistryText(kBase), expected);

  // Every form, odd names and deep keys survive a save and a load exactly.
  std::vector<uint8_t> large(300);
  for (size_t i = 0; i < large.size(); ++i) large[i] = uint8_t(i * 37 + 5);
  const std::u16string odd = kBase + u"\\Odd \"name\" [x] \u00E9\U0001F600";
  ASSERT_TRUE(SetRegistryBinary(odd, u"Large", large));
  ASSERT_TRUE(SetRegistryBinary(odd, std::u16string(70, u'n'), {1, 2}));  // breaks after "hex:"
  ASSERT_TRUE(SetRegistryValue(odd, u"Line break", REG_SZ, {'a', 0, '\n', 0, 0, 0}));
  ASSERT_TRUE(SetRegistryValue(odd, u"No zero", REG_SZ, {'a', 0}));
  ASSERT_TRUE(SetRegistryValue(odd, u"Odd length", REG_SZ, {'a', 0, 0}));
  ASSERT_TRUE(SetRegistryValue(odd, u"Half pair", REG_SZ, {0x3D, 0xD8, 0, 0}));
  ASSERT_TRUE(SetRegistryValue(odd, u"Empty dword", REG_DWORD, {}));
  ASSERT_TRUE(SetRegistryValue(odd, u"\\\"", 0x12345678, {9}));
  std::u16string deep = kBase;
  for (int level = 0; level < 40; ++level) deep += level % 2 ? u"\\d" : u"\\D";
  ASSERT_TRUE(SetRegistryDword(deep, u"Bottom", 1));

  RegistryKeySnapshot original, reloaded;
  ASSERT_TRUE(SnapshotRegistryKey(u"\\REGISTRY\\MACHINE", &original));
  const std::string saved = SaveRegistryText();
  ASSERT_FALSE(saved.empty());
  for (size_t at = 0, end; at < saved.size(); at = end + 2) {
    end = saved.find("\r\n", at);
    ASSERT_NE(end, std::string::npos);
    EXPECT_TRUE(saved[at] == '[' || end - at <= 80) << saved.substr(at, end - at);
  }
  ResetRegistry();
  std::string error;
  ASSERT_TRUE(LoadRegistryText(saved, "saved.reg", &error)) << error;
  ASSERT_TRUE(SnapshotRegistryKey(u"\\REGISTRY\\MACHINE", &reloaded));
  Flat before, after;
  Flatten(original, u"", &before);
  Flatten(reloaded, u"", &after);
  EXPECT_EQ(before, after);
  EXPECT_EQ(SaveRegistryText(), saved);
}

TEST_F(RegistryFileSave, AnInterruptedSaveLeavesTheOldFileAndNamesTheTextCannotHoldFail) {
  const fs::path file = folder_ / "camera.reg", none = folder_ / "none.reg";
  std::string error;
  ASSERT_TRUE(SetRegistryDword(kBase, u"LensPos", 1));
  ASSERT_TRUE(SaveRegistryFile(file.string(), &error)) << error;
  const std::string first = ReadFile(file);
  EXPECT_FALSE(fs::exists(file.string() + ".tmp"));

  ASSERT_TRUE(SetRegistryDword(kBase, u"LensPos", 2));
  RegistrySaveStopBeforeRename(true);
  EXPECT_FALSE(SaveRegistryFile(file.string(), &error));
  EXPECT_NE(error.find("before the rename"), std::string::npos) << error;
  RegistrySaveStopBeforeRename(false);
  EXPECT_EQ(ReadFile(file), first);
  EXPECT_TRUE(fs::exists(file.string() + ".tmp"));  // the crash's leftover

  ResetRegistry();
  ASSERT_TRUE(LoadRegistryFile(file.string(), &error)) << error;
  uint32_t lens = 0;
  ASSERT_TRUE(GetRegistryDword(kBase, u"LensPos", &lens));
  EXPECT_EQ(lens, 1u);
  ASSERT_TRUE(SetRegistryDword(kBase, u"LensPos", 3));
  ASSERT_TRUE(SaveRegistryFile(file.string(), &error)) << error;
  EXPECT_FALSE(fs::exists(file.string() + ".tmp"));
  EXPECT_NE(ReadFile(file).find("\"LensPos\"=dword:00000003\r\n"), std::string::npos);

  // What the text form cannot hold fails the save and keeps the file.
  const std::string kept = ReadFile(file);
  ASSERT_TRUE(CreateRegistryKeyPath(kBase + u"\\two\nlines"));
  EXPECT_FALSE(SaveRegistryFile(file.string(), &error));
  EXPECT_NE(error.find("cannot hold"), std::string::npos) << error;
  EXPECT_EQ(ReadFile(file), kept);
  EXPECT_EQ(SaveRegistryText(u"\\REGISTRY\\USER", &error), "");
  EXPECT_EQ(SaveRegistryText(kBase + u"\\Missing"), kHeader);
  EXPECT_FALSE(LoadRegistryFile(none.string(), &error));
  EXPECT_EQ(error.substr(0, none.string().size()), none.string());
}

TEST_F(RegistryFilePersistence, DriverChangesSurviveARestart) {
  const fs::path file = folder_ / "registry.reg";
  const std::u16string softwareKey = DeviceSoftwareKeyPath(0);
  std::string error;
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;  // missing: an empty registry
  EXPECT_EQ(AttachedRegistryFile(), file.string());
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(0), softwareKey));

  // The driver's own round: device key, property key below it, value, service value.
  HANDLE device = nullptr, property = nullptr;
  ASSERT_EQ(IoOpenDeviceRegistryKey(FakeDevice(0), PLUGPLAY_REGKEY_DRIVER, 0x20000, &device),
            STATUS_SUCCESS);
  ASSERT_EQ(CreateKey(device, u"PropertySetting\\Brightness", &property), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(property, u"CurrentValue", 77), STATUS_SUCCESS);
  ZwClose(property);
  ZwClose(device);
  const uint32_t one = 1;
  ASSERT_EQ(RtlWriteRegistryValue(RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL, ServiceKeyPath,
                                  u"ConnectionState", REG_DWORD, &one, 4),
            STATUS_SUCCESS);
  DetachRegistryFile();
  EXPECT_EQ(AttachedRegistryFile(), "");
  ASSERT_TRUE(SetRegistryDword(kBase, u"AfterDetach", 1));
  EXPECT_EQ(ReadFile(file).find("AfterDetach"), std::string::npos);

  ResetRegistry();  // the restart
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;
  uint32_t value = 0;
  EXPECT_TRUE(
      GetRegistryDword(softwareKey + u"\\PropertySetting\\Brightness", u"CurrentValue", &value));
  EXPECT_EQ(value, 77u);
  EXPECT_TRUE(GetRegistryDword(ServiceKeyPath, u"ConnectionState", &value));
  EXPECT_EQ(value, 1u);

  // ResetRegistry detaches without saving what is pending.
  SetRegistrySaveInterval(std::chrono::hours(1));
  ASSERT_TRUE(SetRegistryDword(kBase, u"Saved", 1));  // saved at once
  ASSERT_TRUE(DriverSetDword(kBase, u"Pending", 1));   // within the interval
  ResetRegistry();
  EXPECT_EQ(AttachedRegistryFile(), "");
  EXPECT_NE(ReadFile(file).find("\"Saved\"=dword:00000001"), std::string::npos);
  EXPECT_EQ(ReadFile(file).find("Pending"), std::string::npos);

  // A file that does not load attaches nothing and stays as it was.
  const std::string bad = kHeader + "[HKLM\\X]\r\n\"V\"=dword:xyz\r\n";
  WriteFile(file, bad);
  EXPECT_FALSE(AttachRegistryFile(file.string(), &error));
  EXPECT_EQ(error, file.string() + ":4: dword: takes 1 to 8 hexadecimal digits");
  EXPECT_EQ(AttachedRegistryFile(), "");
  EXPECT_EQ(ReadFile(file), bad);
}

TEST_F(RegistryFilePersistence, QuickChangesCoalesceAndUnchangedBytesAreNoChange) {
  const fs::path file = folder_ / "registry.reg";
  std::string error;
  SetRegistrySaveInterval(std::chrono::hours(1));
  ASSERT_TRUE(CreateRegistryKeyPath(kBase));  // before the attach: not a change of the file
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;
  EXPECT_EQ(RegistryFileSaveCount(), 0u);
  EXPECT_FALSE(fs::exists(file));

  ASSERT_TRUE(DriverSetDword(kBase, u"A", 1));  // the first change saves at once
  EXPECT_EQ(RegistryFileSaveCount(), 1u);
  EXPECT_NE(ReadFile(file).find("\"A\"=dword:00000001"), std::string::npos);
  ASSERT_TRUE(DriverSetDword(kBase, u"B", 2));
  ASSERT_TRUE(DriverSetDword(kBase, u"A", 3));
  EXPECT_EQ(RegistryFileSaveCount(), 1u);
  EXPECT_EQ(ReadFile(file).find("\"B\""), std::string::npos);

  ASSERT_TRUE(FlushRegistryFile(&error)) << error;  // one save writes both
  EXPECT_EQ(RegistryFileSaveCount(), 2u);
  const std::string text = ReadFile(file);
  EXPECT_NE(text.find("\"A\"=dword:00000003\r\n\"B\"=dword:00000002\r\n"), std::string::npos);

  // Nothing pending: no save, not for the same bytes nor for an opened key.
  ASSERT_TRUE(DriverSetDword(kBase, u"a", 3));
  ASSERT_TRUE(SetRegistryDword(kBase, u"B", 2));
  ASSERT_TRUE(FlushRegistryFile(&error));
  EXPECT_EQ(RegistryFileSaveCount(), 2u);

  // Without an interval every change saves, and only a change.
  SetRegistrySaveInterval(std::chrono::milliseconds(0));
  struct Case {
    const char* label;
    std::function<bool()> change;
    uint64_t saves;
  };
  const uint32_t four = 4;
  auto service = [&] {
    return RtlWriteRegistryValue(0, ServiceKeyPath, u"PrpKeyNumber", REG_DWORD, &four, 4) ==
           STATUS_SUCCESS;
  };
  HANDLE key = nullptr;
  const std::string deletion = kHeader + "[-HKLM\\SOFTWARE\\Mr740Test\\New]\r\n";
  const Case cases[] = {
      {"new value", [] { return DriverSetDword(kBase, u"C", 1); }, 3},
      {"same value", [] { return DriverSetDword(kBase, u"C", 1); }, 3},
      {"new key",
       [&] { return !CreateKey(nullptr, kBase + u"\\New", &key) && !ZwClose(key); }, 4},
      {"service value", service, 5},
      {"same service value", service, 5},
      {"deleted by a loaded file", [&] { return LoadRegistryText(deletion, "d.reg", nullptr); }, 6},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ASSERT_TRUE(c.change());
    EXPECT_EQ(RegistryFileSaveCount(), c.saves);
  }
  EXPECT_EQ(RegistryFileLastError(), "");
  EXPECT_EQ(ReadFile(file), SaveRegistryText());
}

TEST_F(RegistryFileThreads, ConcurrentDriverWritersAllReachTheFile) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 20;
  const fs::path file = folder_ / "registry.reg";
  std::string error;
  SetRegistrySaveInterval(std::chrono::milliseconds(0));
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      for (int i = 0; i < kRounds; ++i) {
        const std::u16string key = kBase + U16("\\T" + std::to_string(t));
        failures[t] += !DriverSetDword(key, U16("V" + std::to_string(i)), uint32_t(t * 100 + i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
  DetachRegistryFile();
  EXPECT_EQ(RegistryFileLastError(), "");

  ResetRegistry();
  ASSERT_TRUE(LoadRegistryFile(file.string(), &error)) << error;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kRounds; ++i) {
      uint32_t value = 0;
      ASSERT_TRUE(GetRegistryDword(kBase + U16("\\T" + std::to_string(t)),
                                   U16("V" + std::to_string(i)), &value));
      EXPECT_EQ(value, uint32_t(t * 100 + i));
    }
  }
}

}  // namespace
