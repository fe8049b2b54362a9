// The in-memory registry as the driver calls it: keys, values, device and
// service keys, fault injection, handle accounting and concurrent writers.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"
#include "platform/registry_control.h"

namespace {

using Bytes = std::vector<uint8_t>;
const std::u16string kBase = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Test";
HANDLE const kUntouched = reinterpret_cast<HANDLE>(0x1234);

// A counted string over `text`; the length, not a terminator, delimits it.
UNICODE_STRING Counted(std::u16string_view text) {
  return UNICODE_STRING{static_cast<USHORT>(text.size() * 2), static_cast<USHORT>(text.size() * 2),
                        const_cast<WCHAR*>(text.data())};
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

DEVICE_OBJECT* FakeDevice(int index) {
  static char devices[4];
  return reinterpret_cast<DEVICE_OBJECT*>(&devices[index]);
}

class RegistryFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    handlesBefore_ = OpenPlatformHandles(HandleKind::RegistryKey);
  }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::RegistryKey), handlesBefore_) << "key handle leaked";
    ResetRegistry();
  }
  uint32_t handlesBefore_ = 0;
};

using RegistryKeys = RegistryFixture;
using RegistryValues = RegistryFixture;
using RegistryDevice = RegistryFixture;
using RegistryFaults = RegistryFixture;
using RegistryThreads = RegistryFixture;

TEST_F(RegistryKeys, CreateMakesEveryMissingLevelAndReportsTheLastOne) {
  struct Case {
    const char* label;
    std::vector<std::u16string> existing;  // below kBase, created first
    bool relative;                         // relative to kBase, else absolute
    std::u16string path;
    NTSTATUS status;
    ULONG disposition;
    std::vector<std::u16string> mustExist, baseChildren;  // below kBase
  };
  const std::u16string longName(255, u'k');
  std::u16string deepest = u"d";  // kBase is three levels below \REGISTRY
  for (size_t level = 4; level < RegistryMaxKeyDepth; ++level) deepest += u"\\d";
  const NTSTATUS ok = STATUS_SUCCESS, bad = STATUS_OBJECT_NAME_INVALID;
  const ULONG made = REG_CREATED_NEW_KEY, opened = REG_OPENED_EXISTING_KEY;
  const Case cases[] = {
      {"absolute, three new levels", {}, false, kBase + u"\\a\\b\\c", ok, made,
       {u"a", u"a\\b", u"a\\b\\c"}, {u"a"}},
      {"absolute, existing key", {u"a\\b"}, false, kBase + u"\\a\\b", ok, opened, {u"a\\b"},
       {u"a"}},
      {"absolute, other case", {u"Alpha"}, false,
       u"\\registry\\machine\\software\\MR740TEST\\ALPHA", ok, opened, {u"alpha"}, {u"Alpha"}},
      {"relative, one level", {}, true, u"x", ok, made, {u"x"}, {u"x"}},
      {"relative, below a level in other case", {u"a"}, true, u"A\\b\\c", ok, made,
       {u"a\\b\\c"}, {u"a"}},
      {"relative, last level exists", {u"a\\b"}, true, u"a\\B", ok, opened, {u"a\\b"}, {u"a"}},
      {"relative, empty name opens the key itself", {}, true, u"", ok, opened, {}, {}},
      {"longest name", {}, true, longName, ok, made, {longName}, {longName}},
      {"name over 255 characters", {}, true, longName + u"k", bad, 0, {}, {}},
      {"deepest key", {}, true, deepest, ok, made, {deepest}, {u"d"}},
      {"one level deeper", {}, true, deepest + u"\\d", bad, 0, {}, {}},
      {"empty level", {}, true, u"a\\\\b", bad, 0, {}, {}},
      {"trailing backslash", {}, true, u"a\\", bad, 0, {}, {}},
      {"leading backslash on a relative path", {}, true, u"\\a", bad, 0, {}, {}},
      {"zero inside a name", {}, true, std::u16string(u"a\0b", 3), bad, 0, {}, {}},
      {"outside \\REGISTRY", {}, false, u"\\Machine\\x", STATUS_OBJECT_PATH_NOT_FOUND, 0, {}, {}},
      {"no root and no leading backslash", {}, false, u"REGISTRY\\MACHINE", bad, 0, {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ResetRegistry();
    ASSERT_TRUE(CreateRegistryKeyPath(kBase));
    for (const auto& path : c.existing) ASSERT_TRUE(CreateRegistryKeyPath(kBase + u"\\" + path));
    HANDLE base = nullptr;
    ASSERT_EQ(CreateKey(nullptr, kBase, &base), STATUS_SUCCESS);
    HANDLE key = kUntouched;
    ULONG disposition = 99;
    EXPECT_EQ(CreateKey(c.relative ? base : nullptr, c.path, &key, &disposition), c.status);
    if (NT_SUCCESS(c.status)) {
      EXPECT_EQ(disposition, c.disposition);
      EXPECT_NE(ReferencePlatformHandle(key, HandleKind::RegistryKey), nullptr);
      EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    } else {
      EXPECT_EQ(key, kUntouched);
      EXPECT_EQ(disposition, 99u);
    }
    for (const auto& path : c.mustExist) {
      EXPECT_TRUE(RegistryKeyExists(kBase + u"\\" + path)) << NarrowAscii(path);
    }
    std::vector<std::u16string> children;
    ASSERT_TRUE(ListRegistrySubKeys(kBase, &children));
    EXPECT_EQ(children, c.baseChildren);
    EXPECT_EQ(ZwClose(base), STATUS_SUCCESS);
  }
}

TEST_F(RegistryKeys, HandlesOnOneKeyShareItAndOutliveEachOther) {
  HANDLE first = nullptr, second = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase + u"\\PropertySetting", &first), STATUS_SUCCESS);
  ASSERT_EQ(CreateKey(nullptr, kBase + u"\\propertysetting", &second), STATUS_SUCCESS);
  EXPECT_NE(first, second);
  ASSERT_EQ(SetDword(first, u"LensPos", 42), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(first), STATUS_SUCCESS);
  ULONG type = 0;
  Bytes data;
  ASSERT_EQ(QueryValue(second, u"LensPos", &type, &data), STATUS_SUCCESS);
  EXPECT_EQ(data, (Bytes{42, 0, 0, 0}));
  EXPECT_EQ(QueryValue(first, u"LensPos", &type, &data), STATUS_INVALID_HANDLE);
  // A reset leaves the open handle working on a key no longer in the tree.
  ResetRegistry();
  EXPECT_EQ(SetDword(second, u"LensPos", 43), STATUS_SUCCESS);
  EXPECT_FALSE(RegistryKeyExists(kBase + u"\\PropertySetting"));
  EXPECT_EQ(ZwClose(second), STATUS_SUCCESS);
}

TEST_F(RegistryValues, QuerySizesThePartialRecordByTheBufferLength) {
  // The record is TitleIndex, Type, DataLength (three 32-bit words), then the data.
  const Bytes stored = {0x11, 0x22, 0x33, 0x44, 0x55};
  ASSERT_TRUE(SetRegistryBinary(kBase, u"Blob", stored));
  struct Case {
    ULONG length;
    NTSTATUS status;
    bool headerFilled, dataCopied;
  };
  const Case cases[] = {
      {0, STATUS_BUFFER_TOO_SMALL, false, false},  {11, STATUS_BUFFER_TOO_SMALL, false, false},
      {12, STATUS_BUFFER_OVERFLOW, true, false},   {16, STATUS_BUFFER_OVERFLOW, true, false},
      {17, STATUS_SUCCESS, true, true},            {64, STATUS_SUCCESS, true, true},
  };
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  UNICODE_STRING name = Counted(u"blob");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    // One byte in, so the record is not aligned; the guard bytes must survive.
    Bytes buffer(1 + 64 + 1, 0xCC);
    ULONG needed = 0;
    EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation,
                              c.length == 0 ? nullptr : buffer.data() + 1, c.length, &needed),
              c.status);
    EXPECT_EQ(needed, 17u);
    std::vector<uint32_t> words(3);
    std::memcpy(words.data(), buffer.data() + 1, 12);
    const std::vector<uint32_t> header = {0, REG_BINARY, 5}, guard(3, 0xCCCCCCCCu);
    EXPECT_EQ(words, c.headerFilled ? header : guard);
    for (size_t i = 0; i < stored.size(); ++i) {
      EXPECT_EQ(buffer[1 + 12 + i], c.dataCopied ? stored[i] : 0xCC) << i;
    }
    EXPECT_EQ(buffer[0], 0xCC);
    EXPECT_EQ(buffer[1 + 17], 0xCC);
  }
  ULONG untouched = 0xDEAD;
  UNICODE_STRING missing = Counted(u"Blobs");
  uint8_t record[32];
  EXPECT_EQ(ZwQueryValueKey(key, &missing, KeyValuePartialInformation, record, 32, &untouched),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(untouched, 0xDEADu);
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryValues, DwordStringAndBinaryRoundTripBothWays) {
  const std::u16string path = kBase + u"\\InitialSetting";
  Bytes large(300);
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<uint8_t>(i * 7 + 1);
  Bytes script;  // "C:\mr740.scr" and its terminator, two bytes a character
  for (char ch : std::string("C:\\mr740.scr")) script.insert(script.end(), {uint8_t(ch), 0});
  script.insert(script.end(), {0, 0});
  struct Case {
    std::u16string name;
    ULONG type;
    Bytes bytes;
    bool driverWrites;  // else the control side writes
  };
  const Case cases[] = {
      {u"FrameRate", REG_DWORD, {0x78, 0x56, 0x34, 0x12}, true},  // little-endian
      {u"SensorName", REG_SZ, {'O', 0, 'V', 0, '7', 0, '6', 0, 0, 0}, true},
      {u"Empty", REG_BINARY, {}, true},
      {u"PhysTable", REG_BINARY, large, true},
      {u"SeparateCtrl", REG_DWORD, {0xD4, 0xC3, 0xB2, 0xA1}, false},
      {u"Script", REG_SZ, script, false},
  };
  ASSERT_TRUE(SetRegistryDword(path, u"SeparateCtrl", 0xA1B2C3D4));
  ASSERT_TRUE(SetRegistryString(path, u"Script", u"C:\\mr740.scr"));
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, path, &key), STATUS_SUCCESS);
  for (const Case& c : cases) {
    SCOPED_TRACE(NarrowAscii(c.name));
    if (c.driverWrites) {
      ASSERT_EQ(SetValue(key, c.name, c.type, c.bytes.data(), ULONG(c.bytes.size())),
                STATUS_SUCCESS);
    }
    ULONG type = 0;
    Bytes data;
    ASSERT_EQ(QueryValue(key, c.name, &type, &data), STATUS_SUCCESS);
    EXPECT_EQ(type, c.type);
    EXPECT_EQ(data, c.bytes);
    RegistryValueEntry entry;
    ASSERT_TRUE(GetRegistryValue(path, c.name, &entry));
    EXPECT_EQ(entry.type, c.type);
    EXPECT_EQ(entry.data, c.bytes);
  }
  std::u16string sensor;
  EXPECT_TRUE(GetRegistryString(path, u"SensorName", &sensor));
  EXPECT_EQ(sensor, u"OV76");
  // A string is not a DWORD, a four-byte binary is.
  uint32_t dword = 7;
  EXPECT_FALSE(GetRegistryDword(path, u"Script", &dword));
  EXPECT_EQ(dword, 7u);
  ASSERT_TRUE(SetRegistryBinary(kBase, u"Four", {1, 0, 0, 0}));
  EXPECT_TRUE(GetRegistryDword(kBase, u"Four", &dword));
  EXPECT_EQ(dword, 1u);
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryValues, NamesCompareWithoutCaseAndKeepTheirFirstSpelling) {
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(key, u"CurrentValue", 1), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(key, u"CurrentFlag", 2), STATUS_SUCCESS);
  ASSERT_EQ(SetDword(key, u"", 3), STATUS_SUCCESS);  // the key's default value
  ASSERT_EQ(SetDword(key, u"CURRENTVALUE", 4), STATUS_SUCCESS);
  const uint8_t two[2] = {9, 8};
  ASSERT_EQ(SetValue(key, u"currentflag", REG_BINARY, two, 2), STATUS_SUCCESS);
  std::vector<RegistryValueEntry> values;
  ASSERT_TRUE(ListRegistryValues(kBase, &values));
  std::vector<std::tuple<std::u16string, ULONG, Bytes>> listed;
  for (const auto& v : values) listed.emplace_back(v.name, v.type, v.data);
  EXPECT_EQ(listed, (std::vector<std::tuple<std::u16string, ULONG, Bytes>>{
                        {u"CurrentValue", REG_DWORD, {4, 0, 0, 0}},
                        {u"CurrentFlag", REG_BINARY, {9, 8}},
                        {u"", REG_DWORD, {3, 0, 0, 0}}}));
  ULONG type = 0;
  Bytes data;
  ASSERT_EQ(QueryValue(key, u"currentVALUE", &type, &data), STATUS_SUCCESS);
  EXPECT_EQ(data, (Bytes{4, 0, 0, 0}));
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryValues, ServiceKeyWritesGoToTheAbsolutePath) {
  const ULONG relativeTo = RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL;
  auto write = [&](ULONG to, const char16_t* path, const char16_t* name, uint32_t value) {
    return RtlWriteRegistryValue(to, path, name, REG_DWORD, &value, 4);
  };
  EXPECT_EQ(write(relativeTo, ServiceKeyPath, u"ConnectionState", 1), STATUS_SUCCESS);
  EXPECT_EQ(write(relativeTo, ServiceKeyPath, u"PrpKeyNumber", 1), STATUS_SUCCESS);
  EXPECT_EQ(write(relativeTo, ServiceKeyPath, u"ConnectionState", 0), STATUS_SUCCESS);
  const std::u16string services = u"\\Registry\\Machine\\SYSTEM\\CurrentControlSet\\Services";
  std::vector<std::u16string> children;
  ASSERT_TRUE(ListRegistrySubKeys(services, &children));
  EXPECT_EQ(children, std::vector<std::u16string>{u"DCamUSBMora"});
  uint32_t value = 99;
  EXPECT_TRUE(GetRegistryDword(services + u"\\dcamusbmora", u"connectionstate", &value));
  EXPECT_EQ(value, 0u);
  EXPECT_TRUE(GetRegistryDword(services + u"\\DCamUSBMora", u"PrpKeyNumber", &value));
  EXPECT_EQ(value, 1u);
  // Only absolute paths are served.
  EXPECT_EQ(write(1, u"Services\\X", u"V", 1), STATUS_INVALID_PARAMETER);
}

TEST_F(RegistryDevice, OpensTheSoftwareKeyBoundToTheDevice) {
  const std::u16string softwareKey =
      u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\{Image}\\0003";
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(0), softwareKey));
  EXPECT_TRUE(RegistryKeyExists(softwareKey));
  struct Case {
    const char* label;
    DEVICE_OBJECT* pdo;
    ULONG keyType;
    NTSTATUS status;
  };
  const Case cases[] = {
      {"bound device", FakeDevice(0), PLUGPLAY_REGKEY_DRIVER, STATUS_SUCCESS},
      {"unbound device", FakeDevice(1), PLUGPLAY_REGKEY_DRIVER, STATUS_OBJECT_NAME_NOT_FOUND},
      {"no device", nullptr, PLUGPLAY_REGKEY_DRIVER, STATUS_INVALID_PARAMETER},
      {"hardware key", FakeDevice(0), PLUGPLAY_REGKEY_DEVICE, STATUS_INVALID_PARAMETER},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    HANDLE key = kUntouched;
    EXPECT_EQ(IoOpenDeviceRegistryKey(c.pdo, c.keyType, 0x20000, &key), c.status);
    if (!NT_SUCCESS(c.status)) {
      EXPECT_EQ(key, kUntouched);
      continue;
    }
    EXPECT_EQ(SetDword(key, u"StreamOpen", 1), STATUS_SUCCESS);
    HANDLE sub = nullptr;
    EXPECT_EQ(CreateKey(key, u"OV7670\\PropertySetting", &sub), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(sub), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
  }
  uint32_t value = 0;
  EXPECT_TRUE(GetRegistryDword(softwareKey, u"StreamOpen", &value));
  EXPECT_EQ(value, 1u);
  EXPECT_TRUE(RegistryKeyExists(softwareKey + u"\\ov7670\\propertysetting"));
  UnbindDeviceRegistryKey(FakeDevice(0));
  HANDLE key = nullptr;
  EXPECT_EQ(IoOpenDeviceRegistryKey(FakeDevice(0), PLUGPLAY_REGKEY_DRIVER, 0x20000, &key),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_FALSE(BindDeviceRegistryKey(FakeDevice(0), u"SYSTEM\\NotAbsolute"));
}

TEST_F(RegistryKeys, BadArgumentsGiveAStatusNotACrash) {
  HANDLE key = nullptr, closed = nullptr, out = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  ASSERT_EQ(CreateKey(nullptr, kBase, &closed), STATUS_SUCCESS);
  ASSERT_EQ(ZwClose(closed), STATUS_SUCCESS);
  UNICODE_STRING name = Counted(u"Value");
  UNICODE_STRING odd = {3, 4, const_cast<WCHAR*>(u"ab")};
  UNICODE_STRING noBuffer = {4, 4, nullptr};
  OBJECT_ATTRIBUTES attributes, oddAttributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, key, nullptr);
  InitializeObjectAttributes(&oddAttributes, &odd, 0, key, nullptr);
  uint8_t record[32];
  ULONG needed = 0;
  uint32_t dword = 0;
  auto query = [&](HANDLE h, UNICODE_STRING* n, int kind, ULONG* result) {
    return ZwQueryValueKey(h, n, static_cast<KEY_VALUE_INFORMATION_CLASS>(kind), record, 32,
                           result);
  };
  const int partial = KeyValuePartialInformation;
  const NTSTATUS inval = STATUS_INVALID_PARAMETER, handle = STATUS_INVALID_HANDLE;
  struct Case {
    const char* label;
    std::function<NTSTATUS()> call;
    NTSTATUS status;
  };
  const Case cases[] = {
      {"create without a handle pointer",
       [&] { return ZwCreateKey(nullptr, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr); },
       inval},
      {"create without attributes",
       [&] { return ZwCreateKey(&out, KEY_ALL_ACCESS, nullptr, 0, nullptr, 0, nullptr); }, inval},
      {"create below a closed handle", [&] { return CreateKey(closed, u"x", &out); }, handle},
      {"create with an odd name length",
       [&] { return ZwCreateKey(&out, KEY_ALL_ACCESS, &oddAttributes, 0, nullptr, 0, nullptr); },
       STATUS_OBJECT_NAME_INVALID},
      {"query a closed handle", [&] { return query(closed, &name, partial, &needed); }, handle},
      {"query without a result length", [&] { return query(key, &name, partial, nullptr); }, inval},
      {"query the basic record",
       [&] { return query(key, &name, KeyValueBasicInformation, &needed); },
       STATUS_NOT_IMPLEMENTED},
      {"query an unknown record", [&] { return query(key, &name, 77, &needed); }, inval},
      {"query a name without a buffer", [&] { return query(key, &noBuffer, partial, &needed); },
       inval},
      {"set without data", [&] { return ZwSetValueKey(key, &name, 0, REG_DWORD, nullptr, 4); },
       inval},
      {"set a closed handle", [&] { return ZwSetValueKey(closed, &name, 0, REG_DWORD, &dword, 4); },
       handle},
      {"set more than a megabyte",
       [&] {
         return ZwSetValueKey(key, &name, 0, REG_BINARY, record, ULONG(RegistryMaxValueBytes + 1));
       },
       inval},
      {"write without a path",
       [&] { return RtlWriteRegistryValue(0, nullptr, u"V", REG_DWORD, &dword, 4); }, inval},
      {"open a device key without a handle pointer",
       [&] { return IoOpenDeviceRegistryKey(FakeDevice(0), PLUGPLAY_REGKEY_DRIVER, 0, nullptr); },
       inval},
  };
  for (const Case& c : cases) EXPECT_EQ(c.call(), c.status) << c.label;
  std::vector<RegistryValueEntry> values;
  ASSERT_TRUE(ListRegistryValues(kBase, &values));
  EXPECT_TRUE(values.empty());
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

// The driver's usual round, four registry calls: open the device key, create a
// property key below it, write the value, read it back; close innermost first.
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

TEST_F(RegistryFaults, EachCallFailsInTurnAndTheNextRoundWorks) {
  const std::u16string propertyKey = kBase + u"\\Device\\PropertySetting\\Brightness";
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(2), kBase + u"\\Device"));
  ASSERT_TRUE(SetRegistryDword(propertyKey, u"CurrentValue", 1));
  uint64_t before = RegistryCallCount();
  ASSERT_EQ(SavePropertyValue(2), STATUS_SUCCESS);
  EXPECT_EQ(RegistryCallCount() - before, 4u);
  for (uint64_t nth = 1;; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LE(nth, 5u);
    uint32_t kept = 0, value = 0;
    ASSERT_TRUE(GetRegistryDword(propertyKey, u"CurrentValue", &kept));
    RegistryFailOperation(nth, STATUS_INSUFFICIENT_RESOURCES);
    NTSTATUS status = SavePropertyValue(100 + static_cast<uint32_t>(nth));
    ASSERT_TRUE(GetRegistryDword(propertyKey, u"CurrentValue", &value));
    if (NT_SUCCESS(status)) {
      EXPECT_EQ(nth, 5u);
      EXPECT_EQ(value, 105u);
      RegistryFailOperation(0, STATUS_SUCCESS);
      break;
    }
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
    // Up to the failed write the value is as it was; a failed read comes after it.
    EXPECT_EQ(value, nth <= 3 ? kept : 100 + nth);
    EXPECT_EQ(OpenPlatformHandles(HandleKind::RegistryKey), handlesBefore_);
    EXPECT_EQ(SavePropertyValue(200), STATUS_SUCCESS) << "the fault is spent";
  }
  // With `every`, the chosen call and all after it fail until turned off.
  RegistryFailOperation(2, STATUS_ACCESS_DENIED, true);
  EXPECT_EQ(SavePropertyValue(3), STATUS_ACCESS_DENIED);
  EXPECT_EQ(SavePropertyValue(3), STATUS_ACCESS_DENIED);
  RegistryFailOperation(0, STATUS_SUCCESS);
  EXPECT_EQ(SavePropertyValue(3), STATUS_SUCCESS);
}

TEST_F(RegistryThreads, ConcurrentWritersLoseNoValue) {
  constexpr int kThreads = 4, kRounds = 150;
  const std::u16string shared = kBase + u"\\Shared\\Common";
  auto valueName = [](std::string prefix, int t, int i) {
    return U16(prefix + std::to_string(t) + "_" + std::to_string(i));
  };
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads + 1, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        HANDLE key = nullptr;
        if (CreateKey(nullptr, shared, &key) != STATUS_SUCCESS) {
          ++failures[t];
          continue;
        }
        const uint32_t value = uint32_t(t * 1000 + i);
        failures[t] += SetDword(key, valueName("T", t, i), value) != STATUS_SUCCESS;
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
  for (int t = 0; t <= kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
  std::vector<RegistryValueEntry> values;
  ASSERT_TRUE(ListRegistryValues(shared, &values));
  EXPECT_EQ(values.size(), size_t(kThreads * kRounds + 1));
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kRounds; ++i) {
      uint32_t value = 0;
      ASSERT_TRUE(GetRegistryDword(shared, valueName("t", t, i), &value));
      EXPECT_EQ(value, uint32_t(t * 1000 + i));
    }
  }
  // Every call was counted: four per round of each writer.
  EXPECT_EQ(RegistryCallCount(), uint64_t(kThreads * kRounds * 4));
}

}  // namespace
