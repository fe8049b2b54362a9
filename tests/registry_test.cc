// The registry as the driver calls it and as the tools keep it: keys, values, device and service
// keys, the value records, fault injection, the ".reg" text form, the file, concurrent writers.

#include "platform/registry.h"

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
#include "platform/registry_control.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using Listing = std::vector<std::tuple<std::u16string, ULONG, Bytes>>;
const std::u16string kBase = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Test";
const std::string kHeader = "Windows Registry Editor Version 5.00\r\n\r\n";
const std::string kBaseLine = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test]\r\n";
HANDLE const kUntouched = reinterpret_cast<HANDLE>(0x1234);

// A counted string over `text`; the length, not a terminator, delimits it.
UNICODE_STRING Counted(std::u16string_view text) {
  const USHORT bytes = static_cast<USHORT>(text.size() * 2);
  return UNICODE_STRING{bytes, bytes, const_cast<WCHAR*>(text.data())};
}

NTSTATUS CreateKey(HANDLE root, const std::u16string& path, HANDLE* key,
                   ULONG* disposition = nullptr) {
  UNICODE_STRING name = Counted(path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, root, nullptr);
  return ZwCreateKey(key, KEY_ALL_ACCESS, &attributes, 0, nullptr, REG_OPTION_NON_VOLATILE,
                     disposition);
}

NTSTATUS SetValue(HANDLE key, const std::u16string& name, ULONG type, const void* data,
                  ULONG size) {
  UNICODE_STRING valueName = Counted(name);
  return ZwSetValueKey(key, &valueName, 0, type, data, size);
}

NTSTATUS SetDword(HANDLE key, const std::u16string& name, uint32_t value) {
  return SetValue(key, name, REG_DWORD, &value, 4);
}

// Reads a value through the partial record (TitleIndex, Type, DataLength, data).
NTSTATUS QueryValue(HANDLE key, const std::u16string& name, ULONG* type, Bytes* data) {
  UNICODE_STRING valueName = Counted(name);
  Bytes buffer(1024);
  ULONG needed = 0, length = 0;
  NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer.data(),
                                    ULONG(buffer.size()), &needed);
  if (!NT_SUCCESS(status)) return status;
  std::memcpy(type, buffer.data() + 4, 4);
  std::memcpy(&length, buffer.data() + 8, 4);
  data->assign(buffer.begin() + 12, buffer.begin() + 12 + length);
  return status;
}

// Sets one DWORD through the driver's calls: create (or open) the key, set, close.
bool DriverSetDword(const std::u16string& path, const std::u16string& name, uint32_t value) {
  HANDLE key = nullptr;
  if (CreateKey(nullptr, path, &key) != STATUS_SUCCESS) return false;
  NTSTATUS status = SetDword(key, name, value);
  ZwClose(key);
  return status == STATUS_SUCCESS;
}

// A DWORD as the control side reads it; -1 when there is none.
int64_t Dword(const std::u16string& path, const std::u16string& name) {
  uint32_t value = 0;
  return GetRegistryDword(path, name, &value) ? int64_t{value} : -1;
}

// The values of a key as the control side lists them, in order.
Listing Listed(const std::u16string& path) {
  std::vector<RegistryValueEntry> values;
  EXPECT_TRUE(ListRegistryValues(path, &values));
  Listing listed;
  for (const auto& v : values) listed.emplace_back(v.name, v.type, v.data);
  return listed;
}

DEVICE_OBJECT* FakeDevice(int index) {
  static char devices[4];
  return reinterpret_cast<DEVICE_OBJECT*>(&devices[index]);
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// UTF-16LE bytes of an ASCII text and its terminating zero.
Bytes Wide(const std::string& text) {
  Bytes bytes;
  for (char c : text) bytes.insert(bytes.end(), {uint8_t(c), 0});
  bytes.insert(bytes.end(), {0, 0});
  return bytes;
}

class Registry : public ::testing::Test {
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

using RegistryThreads = Registry;

// ---------------------------------------------------------------- keys and values

TEST_F(Registry, CreateMakesEveryMissingLevelAndReportsTheLastOne) {
  const std::u16string longName(255, u'k');
  std::u16string deepest = u"d";  // kBase is three levels below \REGISTRY
  for (size_t level = 4; level < RegistryMaxKeyDepth; ++level) deepest += u"\\d";
  const NTSTATUS ok = STATUS_SUCCESS, bad = STATUS_OBJECT_NAME_INVALID;
  const ULONG made = REG_CREATED_NEW_KEY, opened = REG_OPENED_EXISTING_KEY;
  using Keys = std::vector<std::u16string>;
  // Below kBase: a key made first, and the key that must exist after; then kBase's children.
  // The path is relative to kBase or absolute.
  using Case =
      std::tuple<std::u16string, bool, std::u16string, NTSTATUS, ULONG, std::u16string, Keys>;
  const std::u16string other = u"\\registry\\machine\\software\\MR740TEST\\ALPHA";
  const Case cases[] = {
      {u"", false, kBase + u"\\a\\b\\c", ok, made, u"a\\b\\c", {u"a"}},
      {u"a\\b", false, kBase + u"\\a\\b", ok, opened, u"a\\b", {u"a"}},
      {u"Alpha", false, other, ok, opened, u"alpha", {u"Alpha"}},
      {u"a", true, u"A\\b\\c", ok, made, u"a\\b\\c", {u"a"}},
      {u"", true, longName, ok, made, longName, {longName}},
      {u"", true, longName + u"k", bad, 0, u"", {}},
      {u"", true, deepest, ok, made, deepest, {u"d"}},
      {u"", true, deepest + u"\\d", bad, 0, u"", {}},
      {u"", true, u"a\\\\b", bad, 0, u"", {}},
      {u"", false, u"\\Machine\\x", STATUS_OBJECT_PATH_NOT_FOUND, 0, u"", {}},
  };
  for (const auto& [existing, relative, path, status, disposition, exists, children] : cases) {
    SCOPED_TRACE(NarrowAscii(path));
    ResetRegistry();
    ASSERT_TRUE(CreateRegistryKeyPath(existing.empty() ? kBase : kBase + u"\\" + existing));
    HANDLE base = nullptr, key = kUntouched;
    ASSERT_EQ(CreateKey(nullptr, kBase, &base), STATUS_SUCCESS);
    ULONG got = 99;
    EXPECT_EQ(CreateKey(relative ? base : nullptr, path, &key, &got), status);
    if (NT_SUCCESS(status)) {
      EXPECT_EQ(got, disposition);
      EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    } else {
      EXPECT_EQ(std::make_pair(key, got), std::make_pair(kUntouched, ULONG{99}));
    }
    EXPECT_TRUE(exists.empty() || RegistryKeyExists(kBase + u"\\" + exists));
    Keys listed;
    ASSERT_TRUE(ListRegistrySubKeys(kBase, &listed));
    EXPECT_EQ(listed, children);
    EXPECT_EQ(ZwClose(base), STATUS_SUCCESS);
  }
}

TEST_F(Registry, KeyHandlesShareTheirKeyAndValueNamesKeepTheirFirstSpelling) {
  const std::u16string path = kBase + u"\\PropertySetting";
  HANDLE first = nullptr, second = nullptr;
  ASSERT_EQ(CreateKey(nullptr, path, &first), STATUS_SUCCESS);
  ASSERT_EQ(CreateKey(nullptr, kBase + u"\\propertysetting", &second), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(first, u"CurrentValue", 1), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(first, u"CurrentFlag", 2), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(first, u"", 3), STATUS_SUCCESS);  // the key's default value
  EXPECT_EQ(ZwClose(first), STATUS_SUCCESS);
  // The second handle outlives the first and writes over the values whatever their case.
  ASSERT_EQ(SetDword(second, u"CURRENTVALUE", 4), STATUS_SUCCESS);
  const uint8_t two[2] = {9, 8};
  ASSERT_EQ(SetValue(second, u"currentflag", REG_BINARY, two, 2), STATUS_SUCCESS);
  EXPECT_EQ(Listed(path), (Listing{{u"CurrentValue", REG_DWORD, {4, 0, 0, 0}},
                                   {u"CurrentFlag", REG_BINARY, {9, 8}},
                                   {u"", REG_DWORD, {3, 0, 0, 0}}}));
  ULONG type = 0;
  Bytes data;
  EXPECT_EQ(QueryValue(first, u"CurrentValue", &type, &data), STATUS_INVALID_HANDLE);
  EXPECT_EQ(ZwClose(second), STATUS_SUCCESS);
}

TEST_F(Registry, ValueRecordsAreSizedByTheBufferLengthAndNothingIsWrittenPastThem) {
  const Bytes blob = {0x11, 0x22, 0x33, 0x44, 0x55};
  ASSERT_TRUE(SetRegistryBinary(kBase, u"Blob", blob));
  ASSERT_TRUE(SetRegistryValue(kBase, u"Pos", REG_DWORD, {0x78, 0x56, 0x34, 0x12}));
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  // The full record, as the driver reads every value: TitleIndex, Type, DataOffset, DataLength,
  // NameLength, the name at 20, the data on the next four-byte boundary ("Pos": 26 rounds up to
  // 28; "Blob": 28 already).
  const std::tuple<std::u16string, ULONG, NTSTATUS, ULONG, ULONG, ULONG, size_t> full[] = {
      // name, buffer length, status, needed, data offset and length, name bytes copied
      {u"Pos", 19, STATUS_BUFFER_TOO_SMALL, 32, 28, 4, 0},
      {u"Pos", 20, STATUS_BUFFER_OVERFLOW, 32, 28, 4, 0},
      {u"Pos", 31, STATUS_BUFFER_OVERFLOW, 32, 28, 4, 6},
      {u"Pos", 32, STATUS_SUCCESS, 32, 28, 4, 6},
      {u"Blob", 33, STATUS_SUCCESS, 33, 28, 5, 8},
  };
  for (const auto& [name, length, status, needed, dataOffset, dataLength, nameCopied] : full) {
    SCOPED_TRACE(NarrowAscii(name) + " in " + std::to_string(length));
    UNICODE_STRING counted = Counted(name);
    Bytes buffer(1 + 64, 0xCC);
    const uint8_t* record = buffer.data() + 1;
    ULONG got = 0;
    EXPECT_EQ(ZwQueryValueKey(key, &counted, KeyValueFullInformation, &buffer[1], length, &got),
              status);
    EXPECT_EQ(got, needed);
    std::vector<uint32_t> words(5);
    std::memcpy(words.data(), record, 20);
    if (status != STATUS_BUFFER_TOO_SMALL) {
      const ULONG type = name == u"Blob" ? REG_BINARY : REG_DWORD;
      EXPECT_EQ(words,
                (std::vector<uint32_t>{0, type, dataOffset, dataLength, ULONG(name.size() * 2)}));
      EXPECT_EQ(std::memcmp(record + 20, name.data(), nameCopied), 0);
    }
    if (status == STATUS_SUCCESS) {
      RegistryValueEntry stored;
      ASSERT_TRUE(GetRegistryValue(kBase, name, &stored));
      EXPECT_EQ(Bytes(record + dataOffset, record + dataOffset + dataLength), stored.data);
    }
    const size_t written = status == STATUS_BUFFER_TOO_SMALL ? 0
                           : status == STATUS_SUCCESS        ? needed
                                                             : 20 + nameCopied;
    EXPECT_EQ(Bytes(record + written, record + 64), Bytes(64 - written, 0xCC));
    EXPECT_EQ(buffer[0], 0xCC);
  }
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(Registry, DeviceOpensAndNamesTheSoftwareKeyBoundToIt) {
  const std::u16string instance = u"{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\0003";
  const std::u16string softwareKey = DeviceSoftwareKeyPath(3);
  EXPECT_EQ(softwareKey,
            u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\" + instance);
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(0), softwareKey));
  EXPECT_FALSE(BindDeviceRegistryKey(FakeDevice(3), u"SYSTEM\\NotAbsolute"));
  const std::tuple<DEVICE_OBJECT*, ULONG, NTSTATUS> opens[] = {
      {FakeDevice(0), PLUGPLAY_REGKEY_DRIVER, STATUS_SUCCESS},
      {FakeDevice(2), PLUGPLAY_REGKEY_DRIVER, STATUS_OBJECT_NAME_NOT_FOUND},  // unbound
      {FakeDevice(0), PLUGPLAY_REGKEY_DEVICE, STATUS_INVALID_PARAMETER},      // the hardware key
  };
  for (const auto& [device, keyType, status] : opens) {
    HANDLE key = kUntouched, sub = nullptr;
    EXPECT_EQ(IoOpenDeviceRegistryKey(device, keyType, 0x20000, &key), status);
    if (!NT_SUCCESS(status)) {
      EXPECT_EQ(key, kUntouched);
      continue;
    }
    EXPECT_EQ(SetDword(key, u"StreamOpen", 1), STATUS_SUCCESS);
    EXPECT_EQ(CreateKey(key, u"OV7670\\PropertySetting", &sub), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(sub), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
  }
  EXPECT_TRUE(GetRegistryDword(softwareKey, u"StreamOpen", nullptr));
  EXPECT_TRUE(RegistryKeyExists(softwareKey + u"\\ov7670\\propertysetting"));

  // The driver key name, class-relative, and a buffer one byte short of it.
  const ULONG bytes = (43 + 1) * 2;  // 38 of the GUID, a backslash, four digits, the zero
  using Name =
      std::tuple<DEVICE_OBJECT*, DEVICE_REGISTRY_PROPERTY, ULONG, NTSTATUS, std::u16string>;
  const Name names[] = {
      {FakeDevice(0), DevicePropertyDriverKeyName, bytes, STATUS_SUCCESS, instance},
      {FakeDevice(0), DevicePropertyDriverKeyName, bytes - 1, STATUS_BUFFER_TOO_SMALL, u""},
  };
  for (const auto& [device, property, length, status, text] : names) {
    SCOPED_TRACE(length);
    std::vector<char16_t> buffer(256, u'#');
    ULONG result = 0;
    EXPECT_EQ(IoGetDeviceProperty(device, property, length, buffer.data(), &result), status);
    if (!NT_SUCCESS(status)) {
      EXPECT_TRUE(status != STATUS_BUFFER_TOO_SMALL || result == bytes) << result;
      EXPECT_EQ(buffer[0], u'#');
      continue;
    }
    EXPECT_EQ(result, (text.size() + 1) * 2);
    EXPECT_EQ(std::u16string(buffer.data()), text);
  }
}

TEST_F(Registry, BadArgumentsGiveAStatusNotACrash) {
  HANDLE key = nullptr, closed = nullptr, out = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  ASSERT_EQ(CreateKey(nullptr, kBase, &closed), STATUS_SUCCESS);
  ASSERT_EQ(ZwClose(closed), STATUS_SUCCESS);
  UNICODE_STRING name = Counted(u"Value"), odd = {3, 4, const_cast<WCHAR*>(u"ab")};
  OBJECT_ATTRIBUTES attributes, oddAttributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, key, nullptr);
  InitializeObjectAttributes(&oddAttributes, &odd, 0, key, nullptr);
  uint8_t record[32];
  ULONG needed = 0;
  uint32_t dword = 0;
  auto create = [&](HANDLE* to, OBJECT_ATTRIBUTES* a) {
    return ZwCreateKey(to, KEY_ALL_ACCESS, a, 0, nullptr, 0, nullptr);
  };
  const NTSTATUS inval = STATUS_INVALID_PARAMETER;
  const std::pair<std::function<NTSTATUS()>, NTSTATUS> cases[] = {
      {[&] { return create(nullptr, &attributes); }, inval},
      {[&] { return CreateKey(closed, u"x", &out); }, STATUS_INVALID_HANDLE},
      {[&] { return create(&out, &oddAttributes); }, STATUS_OBJECT_NAME_INVALID},
      {[&] {
         return ZwQueryValueKey(key, &name, KEY_VALUE_INFORMATION_CLASS(77), record, 32, &needed);
       },
       inval},
      {[&] { return ZwSetValueKey(key, &name, 0, REG_DWORD, nullptr, 4); }, inval},
      {[&] { return ZwSetValueKey(key, &name, 0, REG_BINARY, record, RegistryMaxValueBytes + 1); },
       inval},
      {[&] { return RtlWriteRegistryValue(1, u"Services\\X", u"V", REG_DWORD, &dword, 4); },
       inval},  // absolute paths only
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(cases[i].first(), cases[i].second) << i;
  EXPECT_EQ(Listed(kBase), Listing{});
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

// The driver's usual round, four registry calls: open the device key, create a property key
// below it, write the value, read it back; close innermost first.
NTSTATUS SavePropertyValue(uint32_t value) {
  HANDLE device = nullptr, property = nullptr;
  NTSTATUS status =
      IoOpenDeviceRegistryKey(FakeDevice(2), PLUGPLAY_REGKEY_DRIVER, 0x20000, &device);
  if (!NT_SUCCESS(status)) return status;
  status = CreateKey(device, u"PropertySetting\\Brightness", &property);
  if (NT_SUCCESS(status)) {
    status = SetDword(property, u"CurrentValue", value);
    ULONG type = 0;
    Bytes data;
    if (NT_SUCCESS(status)) status = QueryValue(property, u"CurrentValue", &type, &data);
    ZwClose(property);
  }
  ZwClose(device);
  return status;
}

TEST_F(Registry, EachCallFailsInTurnAndTheNextRoundWorks) {
  const std::u16string propertyKey = kBase + u"\\Device\\PropertySetting\\Brightness";
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(2), kBase + u"\\Device"));
  ASSERT_TRUE(SetRegistryDword(propertyKey, u"CurrentValue", 1));
  uint64_t before = RegistryCallCount();
  ASSERT_EQ(SavePropertyValue(2), STATUS_SUCCESS);
  EXPECT_EQ(RegistryCallCount() - before, 4u);
  for (uint64_t nth = 1; nth <= 4; ++nth) {
    SCOPED_TRACE(nth);
    const int64_t kept = Dword(propertyKey, u"CurrentValue");
    RegistryFailOperation(nth, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(SavePropertyValue(100 + uint32_t(nth)), STATUS_INSUFFICIENT_RESOURCES);
    // Up to the failed write the value is as it was; a failed read comes after it.
    EXPECT_EQ(Dword(propertyKey, u"CurrentValue"), nth <= 3 ? kept : int64_t(100 + nth));
    EXPECT_EQ(OpenPlatformHandles(HandleKind::RegistryKey), handlesBefore_);
    EXPECT_EQ(SavePropertyValue(200), STATUS_SUCCESS) << "the fault is spent";
  }
  RegistryFailOperation(5, STATUS_INSUFFICIENT_RESOURCES);  // past the round: nothing fails
  EXPECT_EQ(SavePropertyValue(105), STATUS_SUCCESS);
  EXPECT_EQ(Dword(propertyKey, u"CurrentValue"), 105);
  RegistryFailOperation(0, STATUS_SUCCESS);
}

// ---------------------------------------------------------------- the text form

TEST_F(Registry, EachTextValueFormReadsToItsTypeAndBytes) {
  const std::tuple<std::string, std::u16string, ULONG, Bytes> cases[] = {
      {"\"Short\"=DWORD:A", u"Short", REG_DWORD, {0x0a, 0, 0, 0}},
      {"@=dword:ffffffff", u"", REG_DWORD, {0xff, 0xff, 0xff, 0xff}},
      {"  \"Spaced\" = dword:12345678  ", u"Spaced", REG_DWORD, {0x78, 0x56, 0x34, 0x12}},
      {"\"Script\"=\"C:\\\\cam \\\"1\\\".scr\"", u"Script", REG_SZ, Wide("C:\\cam \"1\".scr")},
      // U+00C4 and U+20AC in UTF-8.
      {"\"Euro\"=\"\xC3\x84\xE2\x82\xAC\"", u"Euro", REG_SZ, {0xC4, 0x00, 0xAC, 0x20, 0, 0}},
      {"\"Name \\\"q\\\" \\\\ x\"=dword:1", u"Name \"q\" \\ x", REG_DWORD, {1, 0, 0, 0}},
      {"\"NoBytes\"=hex:", u"NoBytes", REG_BINARY, {}},
      {"\"Odd\"=hex(deadbeef):7", u"Odd", 0xdeadbeef, {7}},
      {"\"Folded\"=hex:\\\r\n  00,01,\\\r\n  02", u"Folded", REG_BINARY, {0, 1, 2}},
  };
  for (const auto& [line, name, type, data] : cases) {
    SCOPED_TRACE(line);
    ResetRegistry();
    std::string error;
    ASSERT_TRUE(LoadRegistryText(kHeader + kBaseLine + line + "\r\n", "c.reg", &error)) << error;
    EXPECT_EQ(Listed(kBase), (Listing{{name, type, data}}));
  }
}

TEST_F(Registry, TextKeyLinesDeletionsAndCommentsMergeIntoTheTree) {
  ASSERT_TRUE(SetRegistryDword(kBase + u"\\Old", u"V", 1));
  ASSERT_TRUE(SetRegistryDword(kBase + u"\\Gone\\Before", u"V", 1));
  const std::string text =  // UTF-8 with its byte order mark and LF line ends
      "\xEF\xBB\xBFWindows Registry Editor Version 5.00\n\n"
      "; a camera's description\n"
      "[HKLM\\SOFTWARE\\Mr740Test\\Keep]\n\"A\"=dword:1\n\"B\"=dword:2\n"
      "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\Gone\\Deep]\n\"X\"=dword:3\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\Gone]\n"
      "[-HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\NeverThere]\n"
      "[hkey_local_machine\\software\\mr740test\\keep]\n\"B\"=-\n\"Missing\"=-\n\"a\"=dword:5\n";
  std::string error;
  ASSERT_TRUE(LoadRegistryText(text, "cam.reg", &error)) << error;
  // Nothing but blank lines is an empty file.
  ASSERT_TRUE(LoadRegistryText("\xEF\xBB\xBF\r\n \r\n", "blank.reg", &error)) << error;
  std::vector<std::u16string> keys;
  ASSERT_TRUE(ListRegistrySubKeys(kBase, &keys));
  EXPECT_EQ(keys, (std::vector<std::u16string>{u"Keep", u"Old"}));
  EXPECT_EQ(Listed(kBase + u"\\Keep"), (Listing{{u"A", REG_DWORD, {5, 0, 0, 0}}}));

  // UTF-16 as another editor saves it: U+00C4 in a key name, U+1F600 (a surrogate pair) in a
  // string, both read as their UTF-8 form writes them.
  const std::u16string text16 =
      u"Windows Registry Editor Version 5.00\r\n\r\n"
      u"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\\u00C4]\r\n\"Face\"=\"\U0001F600!\"\r\n";
  std::string bytes16 = "\xFF\xFE";
  for (char16_t c : text16) bytes16 += {char(c & 0xFF), char(c >> 8)};
  ResetRegistry();
  ASSERT_TRUE(LoadRegistryText(bytes16, "cam16.reg", &error)) << error;
  EXPECT_EQ(SaveRegistryText(kBase),
            kHeader + kBaseLine +
                "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\\xC3\x84]\r\n"
                "\"Face\"=\"\xF0\x9F\x98\x80!\"\r\n\r\n");
}

TEST_F(Registry, MalformedTextNamesItsLineAndChangesNothing) {
  // Text after the header and the key line (line 3), unless whole; then the line named and the
  // word that names the fault. Line 4 is a good value, line 5 the fault.
  const std::string good = "\"Loaded\"=dword:1\r\n";
  const std::tuple<std::string, bool, int, std::string> cases[] = {
      {"[HKLM\\X]\r\n", true, 1, "Windows Registry Editor"},
      {"\r\n\r\n" + kHeader + "\"V\"=dword:1\r\n", true, 5, "before any key"},
      {good + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\X\r\n", false, 5, "']'"},
      {good + "[HKEY_CURRENT_USER\\Software]\r\n", false, 5, "root"},
      {good + "[HKLM\\" + std::string(256, 'k') + "]\r\n", false, 5, "255"},
      {good + "[-HKLM\\SOFTWARE\\X]\r\n\"V\"=dword:1\r\n", false, 6, "deleted key"},
      {good + "\"V\"=dword:123456789\r\n", false, 5, "hexadecimal"},
      {good + "\"V=dword:1\r\n", false, 5, "closing quote"},
      {good + "\"V\"=\"C:\\cam\"\r\n", false, 5, "escape"},
      {good + "\"V\"=hex:00,01,\\\r\n  02,zz\r\n", false, 6, "bad byte"},
      {good + "\"V\"=hex:00,\\", false, 5, "end of the file"},
      {good + "\r\n\"V\"=\"\xC3\x28\"\r\n", false, 6, "UTF-8"},
      {std::string("\xFF\xFEW\0i", 5), true, 1, "odd number of bytes"},
  };
  ASSERT_TRUE(SetRegistryDword(kBase, u"Marker", 42));
  const std::string before = SaveRegistryText();
  for (const auto& [text, whole, line, what] : cases) {
    SCOPED_TRACE(text);
    std::string error;
    EXPECT_FALSE(
        LoadRegistryText(whole ? text : kHeader + "[HKLM\\SOFTWARE\\Mr740Test\\Loaded]\r\n" + text,
                         "cam.reg", &error));
    const std::string prefix = "cam.reg:" + std::to_string(line) + ": ";
    EXPECT_EQ(error.substr(0, prefix.size()), prefix) << error;
    EXPECT_NE(error.find(what), std::string::npos) << error;
    EXPECT_EQ(SaveRegistryText(), before);
  }
}

TEST_F(Registry, SavedTextIsExactFoldsAt80ColumnsAndReadsBack) {
  Bytes thirty(30);
  for (size_t i = 0; i < thirty.size(); ++i) thirty[i] = uint8_t(i);
  ASSERT_TRUE(SetRegistryDword(kBase, u"FrameRate", 30));
  ASSERT_TRUE(SetRegistryString(kBase, u"Script", u"C:\\cam \"1\".scr"));
  ASSERT_TRUE(SetRegistryValue(kBase, u"", REG_DWORD, {1, 2, 3}));
  ASSERT_TRUE(SetRegistryBinary(kBase + u"\\b", u"Blob", thirty));
  ASSERT_TRUE(CreateRegistryKeyPath(kBase + u"\\A"));
  EXPECT_EQ(SaveRegistryText(kBase),
            kHeader + kBaseLine +
                "\"FrameRate\"=dword:0000001e\r\n"
                "\"Script\"=\"C:\\\\cam \\\"1\\\".scr\"\r\n"
                "@=hex(4):01,02,03\r\n\r\n"
                "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\A]\r\n\r\n"
                "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Mr740Test\\b]\r\n"
                "\"Blob\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,"
                "\\\r\n  16,17,18,19,1a,1b,1c,1d\r\n\r\n");

  const std::string saved = SaveRegistryText();
  ResetRegistry();
  std::string error;
  ASSERT_TRUE(LoadRegistryText(saved, "saved.reg", &error)) << error;
  EXPECT_EQ(SaveRegistryText(), saved);
}

// ---------------------------------------------------------------- the file

TEST_F(Registry, AnInterruptedSaveLeavesTheOldFileAndNamesTheTextCannotHoldFail) {
  const fs::path file = folder_ / "camera.reg";
  const std::string tmp = file.string() + ".tmp";
  std::string error;
  ASSERT_TRUE(SetRegistryDword(kBase, u"LensPos", 1));
  ASSERT_TRUE(SaveRegistryFile(file.string(), &error)) << error;
  const std::string first = ReadFile(file);

  ASSERT_TRUE(SetRegistryDword(kBase, u"LensPos", 2));
  RegistrySaveStopBeforeRename(true);
  EXPECT_FALSE(SaveRegistryFile(file.string(), &error));
  RegistrySaveStopBeforeRename(false);
  EXPECT_EQ(ReadFile(file), first);
  EXPECT_TRUE(fs::exists(tmp));  // the crash's leftover

  ResetRegistry();
  ASSERT_TRUE(LoadRegistryFile(file.string(), &error)) << error;
  EXPECT_EQ(Dword(kBase, u"LensPos"), 1);
  ASSERT_TRUE(SetRegistryDword(kBase, u"LensPos", 3));
  ASSERT_TRUE(SaveRegistryFile(file.string(), &error)) << error;
  EXPECT_FALSE(fs::exists(tmp));
  const std::string kept = ReadFile(file);
  EXPECT_NE(kept.find("\"LensPos\"=dword:00000003\r\n"), std::string::npos);

  // What the text form cannot hold fails the save and keeps the file.
  ASSERT_TRUE(CreateRegistryKeyPath(kBase + u"\\two\nlines"));
  EXPECT_FALSE(SaveRegistryFile(file.string(), &error));
  EXPECT_NE(error.find("cannot hold"), std::string::npos) << error;
  EXPECT_EQ(ReadFile(file), kept);
}

TEST_F(Registry, DriverChangesSurviveARestart) {
  const fs::path file = folder_ / "registry.reg";
  const std::u16string softwareKey = DeviceSoftwareKeyPath(0);
  std::string error;
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;  // missing: an empty registry
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(2), softwareKey));
  ASSERT_EQ(SavePropertyValue(77), STATUS_SUCCESS);  // the driver's own round
  const uint32_t one = 1;
  ASSERT_EQ(RtlWriteRegistryValue(RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL, ServiceKeyPath,
                                  u"ConnectionState", REG_DWORD, &one, 4),
            STATUS_SUCCESS);
  DetachRegistryFile();
  EXPECT_EQ(AttachedRegistryFile(), "");

  ResetRegistry();  // the restart
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;
  EXPECT_EQ(Dword(softwareKey + u"\\PropertySetting\\Brightness", u"CurrentValue"), 77);
  EXPECT_EQ(Dword(ServiceKeyPath, u"ConnectionState"), 1);

  // A file that does not load attaches nothing and stays as it was.
  const std::string bad = kHeader + "[HKLM\\X]\r\n\"V\"=dword:xyz\r\n";
  std::ofstream(file, std::ios::binary) << bad;
  EXPECT_FALSE(AttachRegistryFile(file.string(), &error));
  EXPECT_EQ(error.substr(0, file.string().size() + 4), file.string() + ":4: ") << error;
  EXPECT_EQ(AttachedRegistryFile(), "");
  EXPECT_EQ(ReadFile(file), bad);
}

TEST_F(Registry, QuickChangesCoalesceAndUnchangedBytesAreNoChange) {
  const fs::path file = folder_ / "registry.reg";
  std::string error;
  SetRegistrySaveInterval(std::chrono::hours(1));
  ASSERT_TRUE(CreateRegistryKeyPath(kBase));  // before the attach: not a change of the file
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;
  EXPECT_EQ(RegistryFileSaveCount(), 0u);
  EXPECT_FALSE(fs::exists(file));

  ASSERT_TRUE(DriverSetDword(kBase, u"A", 1));  // the first change saves at once
  EXPECT_EQ(RegistryFileSaveCount(), 1u);
  ASSERT_TRUE(DriverSetDword(kBase, u"B", 2));
  ASSERT_TRUE(DriverSetDword(kBase, u"A", 3));
  EXPECT_EQ(RegistryFileSaveCount(), 1u);
  EXPECT_EQ(ReadFile(file).find("\"B\""), std::string::npos);
  ASSERT_TRUE(FlushRegistryFile(&error)) << error;  // one save writes both
  EXPECT_EQ(RegistryFileSaveCount(), 2u);
  EXPECT_NE(ReadFile(file).find("\"A\"=dword:00000003\r\n\"B\"=dword:00000002\r\n"),
            std::string::npos);

  // Nothing pending: no save, not for the same bytes nor for an opened key.
  ASSERT_TRUE(DriverSetDword(kBase, u"a", 3));
  ASSERT_TRUE(SetRegistryDword(kBase, u"B", 2));
  ASSERT_TRUE(FlushRegistryFile(&error));
  EXPECT_EQ(RegistryFileSaveCount(), 2u);

  // Without an interval every change saves, and only a change.
  SetRegistrySaveInterval(std::chrono::milliseconds(0));
  const uint32_t four = 4;
  HANDLE key = nullptr;
  const std::string deletion = kHeader + "[-HKLM\\SOFTWARE\\Mr740Test\\New]\r\n";
  const std::tuple<const char*, std::function<bool()>, uint64_t> cases[] = {
      {"new value", [] { return DriverSetDword(kBase, u"C", 1); }, 3},
      {"same value", [] { return DriverSetDword(kBase, u"C", 1); }, 3},
      {"new key", [&] { return !CreateKey(nullptr, kBase + u"\\New", &key) && !ZwClose(key); }, 4},
      {"service value",
       [&] {
         return !RtlWriteRegistryValue(0, ServiceKeyPath, u"PrpKeyNumber", REG_DWORD, &four, 4);
       },
       5},
      {"deleted by a loaded file", [&] { return LoadRegistryText(deletion, "d.reg", nullptr); }, 6},
  };
  for (const auto& [label, change, saves] : cases) {
    SCOPED_TRACE(label);
    ASSERT_TRUE(change());
    EXPECT_EQ(RegistryFileSaveCount(), saves);
  }
  EXPECT_EQ(RegistryFileLastError(), "");
  EXPECT_EQ(ReadFile(file), SaveRegistryText());
}

// ---------------------------------------------------------------- threads

// Driver writers on one key, and a reader through the control side, at the same time; with a
// file attached and no save interval, every value reaches the file too.
TEST_F(RegistryThreads, ConcurrentWritersLoseNoValueInTheTreeOrTheFile) {
  constexpr int kThreads = 4, kRounds = 60;
  const fs::path file = folder_ / "registry.reg";
  std::string error;
  SetRegistrySaveInterval(std::chrono::milliseconds(0));
  ASSERT_TRUE(AttachRegistryFile(file.string(), &error)) << error;
  const std::u16string shared = kBase + u"\\Shared\\Common";
  auto valueName = [](std::string prefix, int t, int i) {
    return U16(prefix + std::to_string(t) + "_" + std::to_string(i));
  };
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads + 1, 0);
  const uint64_t callsBefore = RegistryCallCount();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        HANDLE key = nullptr;
        if (CreateKey(nullptr, shared, &key) != STATUS_SUCCESS) {
          ++failures[t];
          continue;
        }
        failures[t] +=
            SetDword(key, valueName("T", t, i), uint32_t(t * 1000 + i)) != STATUS_SUCCESS;
        failures[t] += SetDword(key, u"Last", uint32_t(t)) != STATUS_SUCCESS;
        ULONG type = 0;
        Bytes data;
        failures[t] += QueryValue(key, u"last", &type, &data) != STATUS_SUCCESS ||
                       data.size() != 4 || data[0] >= kThreads;
        ZwClose(key);
      }
    });
  }
  threads.emplace_back([&] {  // a reader through the control side at the same time
    for (int i = 0; i < kRounds; ++i) {
      std::vector<RegistryValueEntry> values;
      if (!ListRegistryValues(shared, &values)) continue;
      for (const auto& value : values) failures[kThreads] += value.data.size() != 4;
    }
  });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(kThreads + 1, 0));
  EXPECT_EQ(RegistryCallCount() - callsBefore, uint64_t(kThreads * kRounds * 4));  // four a round
  DetachRegistryFile();
  EXPECT_EQ(RegistryFileLastError(), "");
  for (bool fromFile : {false, true}) {
    SCOPED_TRACE(fromFile ? "from the file" : "in the tree");
    if (fromFile) {
      ResetRegistry();
      ASSERT_TRUE(LoadRegistryFile(file.string(), &error)) << error;
    }
    EXPECT_EQ(Listed(shared).size(), size_t(kThreads * kRounds + 1));
    for (int t = 0; t < kThreads; ++t) {
      for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ(Dword(shared, valueName("t", t, i)), t * 1000 + i);
      }
    }
  }
}

}  // namespace
