// The in-memory registry as the driver calls it: key creation, value sizing,
// device keys, the service key, fault injection, handle accounting and
// concurrent writers.

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/handles.h"
#include "platform/registry.h"
#include "platform/registry_control.h"

namespace {

const std::u16string kBase = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Test";

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

// Reads a value through the partial record; `type` and `data` are filled on success.
NTSTATUS QueryValue(HANDLE key, const std::u16string& name, ULONG* type,
                    std::vector<uint8_t>* data) {
  UNICODE_STRING valueName = Counted(name);
  std::vector<uint8_t> buffer(256);
  ULONG needed = 0;
  NTSTATUS status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer.data(),
                                    static_cast<ULONG>(buffer.size()), &needed);
  if (status == STATUS_BUFFER_OVERFLOW) {
    buffer.resize(needed);
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer.data(),
                             static_cast<ULONG>(buffer.size()), &needed);
  }
  if (!NT_SUCCESS(status)) return status;
  ULONG length = 0;
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
    std::vector<std::u16string> mustExist;  // below kBase
    std::vector<std::u16string> baseChildren;
  };
  const std::u16string longName(255, u'k');
  // kBase is three levels below \REGISTRY.
  std::u16string deepest = u"d";
  for (size_t level = 4; level < RegistryMaxKeyDepth; ++level) deepest += u"\\d";
  const Case cases[] = {
      {"absolute, three new levels", {}, false, kBase + u"\\a\\b\\c", STATUS_SUCCESS,
       REG_CREATED_NEW_KEY, {u"a", u"a\\b", u"a\\b\\c"}, {u"a"}},
      {"absolute, existing key", {u"a\\b"}, false, kBase + u"\\a\\b", STATUS_SUCCESS,
       REG_OPENED_EXISTING_KEY, {u"a\\b"}, {u"a"}},
      {"absolute, other case", {u"Alpha"}, false, u"\\registry\\machine\\software\\MR740TEST\\ALPHA",
       STATUS_SUCCESS, REG_OPENED_EXISTING_KEY, {u"alpha"}, {u"Alpha"}},
      {"relative, one level", {}, true, u"x", STATUS_SUCCESS, REG_CREATED_NEW_KEY, {u"x"}, {u"x"}},
      {"relative, below an existing level in other case", {u"a"}, true, u"A\\b\\c", STATUS_SUCCESS,
       REG_CREATED_NEW_KEY, {u"a\\b\\c"}, {u"a"}},
      {"relative, last level exists", {u"a\\b"}, true, u"a\\B", STATUS_SUCCESS,
       REG_OPENED_EXISTING_KEY, {u"a\\b"}, {u"a"}},
      {"relative, empty name opens the key itself", {}, true, u"", STATUS_SUCCESS,
       REG_OPENED_EXISTING_KEY, {}, {}},
      {"longest name", {}, true, longName, STATUS_SUCCESS, REG_CREATED_NEW_KEY, {longName},
       {longName}},
      {"name over 255 characters", {}, true, longName + u"k", STATUS_OBJECT_NAME_INVALID, 0, {}, {}},
      {"deepest key", {}, true, deepest, STATUS_SUCCESS, REG_CREATED_NEW_KEY, {deepest}, {u"d"}},
      {"one level deeper", {}, true, deepest + u"\\d", STATUS_OBJECT_NAME_INVALID, 0, {}, {}},
      {"empty level", {}, true, u"a\\\\b", STATUS_OBJECT_NAME_INVALID, 0, {}, {}},
      {"trailing backslash", {}, true, u"a\\", STATUS_OBJECT_NAME_INVALID, 0, {}, {}},
      {"leading backslash on a relative path", {}, true, u"\\a", STATUS_OBJECT_NAME_INVALID, 0, {},
       {}},
      {"zero inside a name", {}, true, std::u16string(u"a\0b", 3), STATUS_OBJECT_NAME_INVALID, 0,
       {}, {}},
      {"absolute path outside \\REGISTRY", {}, false, u"\\Machine\\x", STATUS_OBJECT_PATH_NOT_FOUND,
       0, {}, {}},
      {"no root and no leading backslash", {}, false, u"REGISTRY\\MACHINE",
       STATUS_OBJECT_NAME_INVALID, 0, {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ResetRegistry();
    ASSERT_TRUE(CreateRegistryKeyPath(kBase));
    for (const auto& path : c.existing) ASSERT_TRUE(CreateRegistryKeyPath(kBase + u"\\" + path));
    HANDLE base = nullptr;
    ASSERT_EQ(CreateKey(nullptr, kBase, &base), STATUS_SUCCESS);

    HANDLE key = reinterpret_cast<HANDLE>(0x1234);
    ULONG disposition = 99;
    EXPECT_EQ(CreateKey(c.relative ? base : nullptr, c.path, &key, &disposition), c.status);
    if (NT_SUCCESS(c.status)) {
      EXPECT_EQ(disposition, c.disposition);
      EXPECT_NE(ReferencePlatformHandle(key, HandleKind::RegistryKey), nullptr);
      EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    } else {
      EXPECT_EQ(key, reinterpret_cast<HANDLE>(0x1234));
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
  HANDLE first = nullptr;
  HANDLE second = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase + u"\\PropertySetting", &first), STATUS_SUCCESS);
  ASSERT_EQ(CreateKey(nullptr, kBase + u"\\propertysetting", &second), STATUS_SUCCESS);
  EXPECT_NE(first, second);
  ASSERT_EQ(SetDword(first, u"LensPos", 42), STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(first), STATUS_SUCCESS);

  ULONG type = 0;
  std::vector<uint8_t> data;
  ASSERT_EQ(QueryValue(second, u"LensPos", &type, &data), STATUS_SUCCESS);
  EXPECT_EQ(data, (std::vector<uint8_t>{42, 0, 0, 0}));
  // A closed handle is gone for good.
  EXPECT_EQ(QueryValue(first, u"LensPos", &type, &data), STATUS_INVALID_HANDLE);

  // A reset leaves the open handle working on a key no longer in the tree.
  ResetRegistry();
  EXPECT_EQ(SetDword(second, u"LensPos", 43), STATUS_SUCCESS);
  EXPECT_FALSE(RegistryKeyExists(kBase + u"\\PropertySetting"));
  EXPECT_EQ(ZwClose(second), STATUS_SUCCESS);
}

TEST_F(RegistryValues, QuerySizesThePartialRecordByTheBufferLength) {
  // The record is TitleIndex, Type, DataLength (three 32-bit words), then the data.
  const std::vector<uint8_t> stored = {0x11, 0x22, 0x33, 0x44, 0x55};
  ASSERT_TRUE(SetRegistryBinary(kBase, u"Blob", stored));
  struct Case {
    ULONG length;
    NTSTATUS status;
    bool headerFilled;
    bool dataCopied;
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
    std::vector<uint8_t> buffer(1 + 64 + 1, 0xCC);
    ULONG needed = 0;
    EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation,
                              c.length == 0 ? nullptr : buffer.data() + 1, c.length, &needed),
              c.status);
    EXPECT_EQ(needed, 17u);
    uint32_t words[3];
    std::memcpy(words, buffer.data() + 1, 12);
    if (c.headerFilled) {
      EXPECT_EQ(words[0], 0u);
      EXPECT_EQ(words[1], REG_BINARY);
      EXPECT_EQ(words[2], 5u);
    } else {
      EXPECT_EQ(words[0], 0xCCCCCCCCu);
    }
    for (size_t i = 0; i < stored.size(); ++i) {
      EXPECT_EQ(buffer[1 + 12 + i], c.dataCopied ? stored[i] : 0xCC) << i;
    }
    EXPECT_EQ(buffer[0], 0xCC);
    EXPECT_EQ(buffer[1 + 17], 0xCC);
  }
  ULONG untouched = 0xDEAD;
  UNICODE_STRING missing = Counted(u"Blobs");
  uint8_t record[32];
  EXPECT_EQ(ZwQueryValueKey(key, &missing, KeyValuePartialInformation, record, sizeof record,
                            &untouched),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(untouched, 0xDEADu);
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryValues, DwordStringAndBinaryRoundTripBothWays) {
  std::vector<uint8_t> large(300);
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<uint8_t>(i * 7 + 1);
  struct Case {
    std::u16string name;
    ULONG type;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      // REG_DWORD is little-endian.
      {u"FrameRate", REG_DWORD, {0x78, 0x56, 0x34, 0x12}},
      // "OV76" and its terminating zero, two bytes a character.
      {u"SensorName", REG_SZ, {'O', 0, 'V', 0, '7', 0, '6', 0, 0, 0}},
      {u"Empty", REG_BINARY, {}},
      {u"PhysTable", REG_BINARY, large},
  };
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase + u"\\InitialSetting", &key), STATUS_SUCCESS);
  for (const Case& c : cases) {
    SCOPED_TRACE(NarrowAscii(c.name));
    ASSERT_EQ(SetValue(key, c.name, c.type, c.bytes.data(), static_cast<ULONG>(c.bytes.size())),
              STATUS_SUCCESS);
    ULONG type = 0;
    std::vector<uint8_t> data;
    ASSERT_EQ(QueryValue(key, c.name, &type, &data), STATUS_SUCCESS);
    EXPECT_EQ(type, c.type);
    EXPECT_EQ(data, c.bytes);
    RegistryValueEntry entry;
    ASSERT_TRUE(GetRegistryValue(kBase + u"\\InitialSetting", c.name, &entry));
    EXPECT_EQ(entry.type, c.type);
    EXPECT_EQ(entry.data, c.bytes);
  }
  uint32_t frameRate = 0;
  EXPECT_TRUE(GetRegistryDword(kBase + u"\\InitialSetting", u"FrameRate", &frameRate));
  EXPECT_EQ(frameRate, 0x12345678u);
  std::u16string sensor;
  EXPECT_TRUE(GetRegistryString(kBase + u"\\InitialSetting", u"SensorName", &sensor));
  EXPECT_EQ(sensor, u"OV76");

  // And from the control side to the driver's calls.
  ASSERT_TRUE(SetRegistryDword(kBase + u"\\InitialSetting", u"SeparateCtrl", 0xA1B2C3D4));
  ASSERT_TRUE(SetRegistryString(kBase + u"\\InitialSetting", u"Script", u"C:\\mr740.scr"));
  ULONG type = 0;
  std::vector<uint8_t> data;
  ASSERT_EQ(QueryValue(key, u"SeparateCtrl", &type, &data), STATUS_SUCCESS);
  EXPECT_EQ(type, REG_DWORD);
  EXPECT_EQ(data, (std::vector<uint8_t>{0xD4, 0xC3, 0xB2, 0xA1}));
  ASSERT_EQ(QueryValue(key, u"Script", &type, &data), STATUS_SUCCESS);
  EXPECT_EQ(type, REG_SZ);
  EXPECT_EQ(data.size(), 13u * 2);  // twelve characters and the terminator
  EXPECT_EQ(data[0], 'C');
  EXPECT_EQ(data[2 * 11], 'r');
  EXPECT_EQ(data[2 * 12], 0);
  // A string is not a DWORD, a four-byte binary is.
  uint32_t dword = 7;
  EXPECT_FALSE(GetRegistryDword(kBase + u"\\InitialSetting", u"Script", &dword));
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
  ASSERT_EQ(values.size(), 3u);
  EXPECT_EQ(values[0].name, u"CurrentValue");
  EXPECT_EQ(values[0].data, (std::vector<uint8_t>{4, 0, 0, 0}));
  EXPECT_EQ(values[1].name, u"CurrentFlag");
  EXPECT_EQ(values[1].type, REG_BINARY);
  EXPECT_EQ(values[1].data, (std::vector<uint8_t>{9, 8}));
  EXPECT_EQ(values[2].name, u"");
  EXPECT_EQ(values[2].data, (std::vector<uint8_t>{3, 0, 0, 0}));

  ULONG type = 0;
  std::vector<uint8_t> data;
  ASSERT_EQ(QueryValue(key, u"currentVALUE", &type, &data), STATUS_SUCCESS);
  EXPECT_EQ(data, (std::vector<uint8_t>{4, 0, 0, 0}));
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryValues, ServiceKeyWritesGoToTheAbsolutePath) {
  const uint32_t one = 1;
  const uint32_t zero = 0;
  const ULONG relativeTo = RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL;
  EXPECT_EQ(RtlWriteRegistryValue(relativeTo, ServiceKeyPath, u"ConnectionState", REG_DWORD, &one, 4),
            STATUS_SUCCESS);
  EXPECT_EQ(RtlWriteRegistryValue(relativeTo, ServiceKeyPath, u"PrpKeyNumber", REG_DWORD, &one, 4),
            STATUS_SUCCESS);
  EXPECT_EQ(RtlWriteRegistryValue(relativeTo, ServiceKeyPath, u"ConnectionState", REG_DWORD, &zero,
                                  4),
            STATUS_SUCCESS);
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
  EXPECT_EQ(RtlWriteRegistryValue(1, u"Services\\X", u"V", REG_DWORD, &one, 4),
            STATUS_INVALID_PARAMETER);
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
    HANDLE key = reinterpret_cast<HANDLE>(0x1234);
    EXPECT_EQ(IoOpenDeviceRegistryKey(c.pdo, c.keyType, 0x20000, &key), c.status);
    if (!NT_SUCCESS(c.status)) {
      EXPECT_EQ(key, reinterpret_cast<HANDLE>(0x1234));
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
  HANDLE key = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &key), STATUS_SUCCESS);
  HANDLE closed = nullptr;
  ASSERT_EQ(CreateKey(nullptr, kBase, &closed), STATUS_SUCCESS);
  ASSERT_EQ(ZwClose(closed), STATUS_SUCCESS);
  UNICODE_STRING name = Counted(u"Value");
  UNICODE_STRING odd = {3, 4, const_cast<WCHAR*>(u"ab")};
  UNICODE_STRING noBuffer = {4, 4, nullptr};
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, key, nullptr);
  uint8_t record[32];
  ULONG needed = 0;
  uint32_t dword = 0;
  HANDLE out = nullptr;
  struct Case {
    const char* label;
    std::function<NTSTATUS()> call;
    NTSTATUS status;
  };
  const Case cases[] = {
      {"create without a handle pointer",
       [&] { return ZwCreateKey(nullptr, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr); },
       STATUS_INVALID_PARAMETER},
      {"create without attributes",
       [&] { return ZwCreateKey(&out, KEY_ALL_ACCESS, nullptr, 0, nullptr, 0, nullptr); },
       STATUS_INVALID_PARAMETER},
      {"create below a closed handle", [&] { return CreateKey(closed, u"x", &out); },
       STATUS_INVALID_HANDLE},
      {"create with an odd name length",
       [&] {
         OBJECT_ATTRIBUTES a;
         InitializeObjectAttributes(&a, &odd, 0, key, nullptr);
         return ZwCreateKey(&out, KEY_ALL_ACCESS, &a, 0, nullptr, 0, nullptr);
       },
       STATUS_OBJECT_NAME_INVALID},
      {"query a closed handle",
       [&] {
         return ZwQueryValueKey(closed, &name, KeyValuePartialInformation, record, 32, &needed);
       },
       STATUS_INVALID_HANDLE},
      {"query without a result length",
       [&] { return ZwQueryValueKey(key, &name, KeyValuePartialInformation, record, 32, nullptr); },
       STATUS_INVALID_PARAMETER},
      {"query the basic record",
       [&] { return ZwQueryValueKey(key, &name, KeyValueBasicInformation, record, 32, &needed); },
       STATUS_NOT_IMPLEMENTED},
      {"query an unknown record",
       [&] {
         return ZwQueryValueKey(key, &name, static_cast<KEY_VALUE_INFORMATION_CLASS>(77), record,
                                32, &needed);
       },
       STATUS_INVALID_PARAMETER},
      {"query a name without a buffer",
       [&] {
         return ZwQueryValueKey(key, &noBuffer, KeyValuePartialInformation, record, 32, &needed);
       },
       STATUS_INVALID_PARAMETER},
      {"set without data", [&] { return ZwSetValueKey(key, &name, 0, REG_DWORD, nullptr, 4); },
       STATUS_INVALID_PARAMETER},
      {"set a closed handle", [&] { return ZwSetValueKey(closed, &name, 0, REG_DWORD, &dword, 4); },
       STATUS_INVALID_HANDLE},
      {"set more than a megabyte",
       [&] {
         return ZwSetValueKey(key, &name, 0, REG_BINARY, record,
                              static_cast<ULONG>(RegistryMaxValueBytes + 1));
       },
       STATUS_INVALID_PARAMETER},
      {"write without a path",
       [&] { return RtlWriteRegistryValue(0, nullptr, u"V", REG_DWORD, &dword, 4); },
       STATUS_INVALID_PARAMETER},
      {"open a device key without a handle pointer",
       [&] { return IoOpenDeviceRegistryKey(FakeDevice(0), PLUGPLAY_REGKEY_DRIVER, 0, nullptr); },
       STATUS_INVALID_PARAMETER},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(c.call(), c.status);
  }
  std::vector<RegistryValueEntry> values;
  ASSERT_TRUE(ListRegistryValues(kBase, &values));
  EXPECT_TRUE(values.empty());
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

// The driver's usual round: open the device key, create a property key below
// it, write the value, read it back, close innermost first. Four registry calls.
NTSTATUS SavePropertyValue(uint32_t value) {
  HANDLE device = nullptr;
  NTSTATUS status = IoOpenDeviceRegistryKey(FakeDevice(2), PLUGPLAY_REGKEY_DRIVER, 0x20000, &device);
  if (!NT_SUCCESS(status)) return status;
  HANDLE property = nullptr;
  status = CreateKey(device, u"PropertySetting\\Brightness", &property);
  if (NT_SUCCESS(status)) {
    status = SetDword(property, u"CurrentValue", value);
    ULONG type = 0;
    std::vector<uint8_t> data;
    if (NT_SUCCESS(status)) status = QueryValue(property, u"CurrentValue", &type, &data);
    ZwClose(property);
  }
  ZwClose(device);
  return status;
}

TEST_F(RegistryFaults, EachCallFailsInTurnAndTheNextRoundWorks) {
  const std::u16string deviceKey = kBase + u"\\Device";
  const std::u16string propertyKey = deviceKey + u"\\PropertySetting\\Brightness";
  ASSERT_TRUE(BindDeviceRegistryKey(FakeDevice(2), deviceKey));
  ASSERT_TRUE(SetRegistryDword(propertyKey, u"CurrentValue", 1));

  uint64_t before = RegistryCallCount();
  ASSERT_EQ(SavePropertyValue(2), STATUS_SUCCESS);
  EXPECT_EQ(RegistryCallCount() - before, 4u);

  for (uint64_t nth = 1;; ++nth) {
    SCOPED_TRACE(nth);
    ASSERT_LE(nth, 5u);
    uint32_t kept = 0;
    ASSERT_TRUE(GetRegistryDword(propertyKey, u"CurrentValue", &kept));
    RegistryFailOperation(nth, STATUS_INSUFFICIENT_RESOURCES);
    NTSTATUS status = SavePropertyValue(100 + static_cast<uint32_t>(nth));
    uint32_t value = 0;
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
    // The fault is spent: the next round goes through.
    EXPECT_EQ(SavePropertyValue(200), STATUS_SUCCESS);
  }

  // With `every`, the chosen call and all after it fail until turned off.
  RegistryFailOperation(2, STATUS_ACCESS_DENIED, true);
  EXPECT_EQ(SavePropertyValue(3), STATUS_ACCESS_DENIED);
  EXPECT_EQ(SavePropertyValue(3), STATUS_ACCESS_DENIED);
  RegistryFailOperation(0, STATUS_SUCCESS);
  EXPECT_EQ(SavePropertyValue(3), STATUS_SUCCESS);
}

TEST_F(RegistryThreads, ConcurrentWritersLoseNoValue) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 150;
  const std::u16string shared = kBase + u"\\Shared\\Common";
  std::vector<std::thread> threads;
  std::vector<int> failures(kThreads + 1, 0);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &shared, &failures] {
      for (int i = 0; i < kRounds; ++i) {
        HANDLE key = nullptr;
        if (CreateKey(nullptr, shared, &key) != STATUS_SUCCESS) {
          ++failures[t];
          continue;
        }
        const std::u16string name = U16("T" + std::to_string(t) + "_" + std::to_string(i));
        failures[t] += SetDword(key, name, static_cast<uint32_t>(t * 1000 + i)) != STATUS_SUCCESS;
        failures[t] += SetDword(key, u"Last", static_cast<uint32_t>(t)) != STATUS_SUCCESS;
        ULONG type = 0;
        std::vector<uint8_t> data;
        failures[t] += QueryValue(key, u"last", &type, &data) != STATUS_SUCCESS ||
                       data.size() != 4 || data[0] >= kThreads;
        ZwClose(key);
      }
    });
  }
  // A reader through the control side at the same time.
  threads.emplace_back([&shared, &failures] {
    for (int i = 0; i < kRounds; ++i) {
      std::vector<RegistryValueEntry> values;
      if (ListRegistryValues(shared, &values)) {
        for (const auto& value : values) failures[kThreads] += value.data.size() != 4;
      }
    }
  });
  for (auto& thread : threads) thread.join();
  for (int t = 0; t <= kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;

  std::vector<RegistryValueEntry> values;
  ASSERT_TRUE(ListRegistryValues(shared, &values));
  EXPECT_EQ(values.size(), static_cast<size_t>(kThreads * kRounds + 1));
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kRounds; ++i) {
      uint32_t value = 0;
      ASSERT_TRUE(GetRegistryDword(shared, U16("t" + std::to_string(t) + "_" + std::to_string(i)),
                                   &value));
      EXPECT_EQ(value, static_cast<uint32_t>(t * 1000 + i));
    }
  }
  // Every call was counted: four per round of each writer.
  EXPECT_EQ(RegistryCallCount(), static_cast<uint64_t>(kThreads * kRounds * 4));
}

}  // namespace
