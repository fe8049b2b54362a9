// The registry store over the platform registry: the level walk of sub key creation, the sized
// value query and its defaults, the sensor root, and no key handle left open.

#include "settings/registry_store.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "platform/handles.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"

namespace {

const std::u16string kDeviceKey =
    u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\{Image}\\0000";

// A DWORD as the control side reads it; -1 when there is none.
int64_t Dword(const std::u16string& path, const std::u16string& name) {
  uint32_t value = 0;
  return GetRegistryDword(path, name, &value) ? int64_t{value} : -1;
}

class RegistryStore : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    handlesBefore_ = OpenPlatformHandles(HandleKind::RegistryKey);
    device->PhysicalDeviceObject = reinterpret_cast<PDEVICE_OBJECT>(&pdo_);
    ASSERT_TRUE(BindDeviceRegistryKey(device->PhysicalDeviceObject, kDeviceKey));
  }
  void TearDown() override {
    EXPECT_EQ(OpenPlatformHandles(HandleKind::RegistryKey), handlesBefore_) << "key handle leaked";
    ResetRegistry();
  }
  HANDLE OpenDevice() {
    HANDLE key = nullptr;
    EXPECT_EQ(OpenDeviceKey(device.context, &key), STATUS_SUCCESS);
    return key;
  }

  TestDevice device;
  char pdo_ = 0;
  uint32_t handlesBefore_ = 0;
};

TEST_F(RegistryStore, SubKeyWalkCreatesEachLevelFromTheStartOfThePath) {
  // Path, and the ZwCreateKey calls of the walk, one a level.
  const std::pair<std::u16string, uint64_t> cases[] = {
      {u"x", 1}, {u"PropertySetting\\Brightness\\PageSelect", 3}};
  for (const auto& [path, creates] : cases) {
    SCOPED_TRACE(NarrowAscii(path));
    HANDLE parent = OpenDevice(), key = nullptr;
    const uint64_t before = RegistryCallCount();
    ASSERT_EQ(CreateRegistrySubKey(parent, SubKeyAccess, path.c_str(), &key), STATUS_SUCCESS);
    EXPECT_EQ(RegistryCallCount() - before, creates);
    // The handle is to the last level: a value set through it lands there.
    WriteRegistryDword(key, u"Marker", 7);
    EXPECT_EQ(Dword(kDeviceKey + u"\\" + path, u"Marker"), 7);
    ZwClose(key);
    ZwClose(parent);
  }
  // A walk stops at the first level that fails; the levels before it stay.
  HANDLE parent = OpenDevice(), key = reinterpret_cast<HANDLE>(0x55);
  RegistryFailOperation(2, STATUS_ACCESS_DENIED);  // the create of p\q
  EXPECT_EQ(CreateRegistrySubKey(parent, SubKeyAccess, u"p\\q\\r", &key), STATUS_ACCESS_DENIED);
  EXPECT_EQ(key, reinterpret_cast<HANDLE>(0x55));
  EXPECT_TRUE(RegistryKeyExists(kDeviceKey + u"\\p"));
  EXPECT_FALSE(RegistryKeyExists(kDeviceKey + u"\\p\\q"));
  ZwClose(parent);
}

TEST_F(RegistryStore, QueryCopiesAtMostTheBufferAndTellsTheStoredLength) {
  SetRegistryDword(kDeviceKey, u"Number", 0x11223344);
  SetRegistryBinary(kDeviceKey, u"FourBytes", {0x78, 0x56, 0x34, 0x12});
  SetRegistryBinary(kDeviceKey, u"Long", std::vector<uint8_t>(10, 0xAB));
  SetRegistryString(kDeviceKey, u"Script", u"C:\\Cam\\a.txt");
  // Name, buffer length, status, length after, and the buffer's first bytes after the call (the
  // rest untouched). A 4-byte value of another type reads like a DWORD; a longer one is cut,
  // never written past the buffer.
  using Case = std::tuple<std::u16string, uint32_t, NTSTATUS, uint32_t, std::vector<uint8_t>>;
  const Case cases[] = {
      {u"Number", 8, STATUS_SUCCESS, 4, {0x44, 0x33, 0x22, 0x11}},
      {u"FourBytes", 4, STATUS_SUCCESS, 4, {0x78, 0x56, 0x34, 0x12}},
      {u"Long", 4, STATUS_SUCCESS, 10, {0xAB, 0xAB, 0xAB, 0xAB}},
      {u"Script", 8, STATUS_SUCCESS, 26, {'C', 0, ':', 0, '\\', 0, 'C', 0}},
      {u"Missing", 8, STATUS_OBJECT_NAME_NOT_FOUND, 8, {}},
  };
  HANDLE key = OpenDevice();
  for (const auto& [name, bufferLength, status, lengthAfter, bytes] : cases) {
    SCOPED_TRACE(NarrowAscii(name));
    std::vector<uint8_t> buffer(12, 0xEE), expected = bytes;
    expected.resize(12, 0xEE);
    uint32_t length = bufferLength;
    EXPECT_EQ(QueryRegistryValue(key, name.c_str(), buffer.data(), &length), status);
    EXPECT_EQ(length, lengthAfter);
    EXPECT_EQ(buffer, expected);
  }
  EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), 0u);
  ZwClose(key);
}

TEST_F(RegistryStore, DwordReadsFallBackToTheirDefault) {
  SetRegistryDword(kDeviceKey, u"FrameRate", 1500);
  HANDLE key = OpenDevice();
  EXPECT_EQ(ReadRegistryDword(key, u"FrameRate", 1000), 1500u);
  EXPECT_EQ(ReadRegistryDword(key, u"framerate", 1000), 1500u);  // names ignore case
  EXPECT_EQ(ReadRegistryDword(key, u"AlternateSetting", 1), 1u);
  RegistryFailOperation(1, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(ReadRegistryDword(key, u"FrameRate", 1000), 1000u);
  PoolFailAllocation(1);
  uint32_t value = 99, length = 4;
  EXPECT_EQ(QueryRegistryValue(key, u"FrameRate", &value, &length), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(value, 99u);
  PoolFailAllocation(1);
  EXPECT_EQ(ReadRegistryDword(key, u"FrameRate", 1000), 1000u);
  ZwClose(key);
}

TEST_F(RegistryStore, SensorRootIsTheNamedSubKeyOrTheDeviceKeyItself) {
  // A name that fills the field has no terminator and still opens.
  for (const std::u16string name : {u"", u"OV7670", u"ABCDEFGHIJKLMNOP"}) {
    SCOPED_TRACE(NarrowAscii(name));
    std::memset(device->SensorName, 0, sizeof device->SensorName);
    std::memcpy(device->SensorName, name.data(), name.size() * 2);
    HANDLE key = nullptr;
    ASSERT_EQ(OpenSensorSubKey(device.context, u"InitialSetting", &key), STATUS_SUCCESS);
    WriteRegistryDword(key, u"SeparateCtrl", 1);
    ZwClose(key);
    const std::u16string root = name.empty() ? kDeviceKey : kDeviceKey + u"\\" + name;
    EXPECT_EQ(Dword(root + u"\\InitialSetting", u"SeparateCtrl"), 1);
  }
  UnbindDeviceRegistryKey(device->PhysicalDeviceObject);
  HANDLE key = nullptr;
  EXPECT_EQ(OpenSensorRootKey(device.context, &key), STATUS_OBJECT_NAME_NOT_FOUND);
}

}  // namespace
