// Sensor detection and start-up configuration: the USB speed, which of the
// candidate sensors listed in the camera's description is fitted, the image
// libraries for it, and the formats the pins offer. Everything here runs
// once, on the thread of CamInitialize, before the worker and the shutter
// key monitor exist; it blocks on vendor requests, delays and the registry.
#include "script/sensor_detection.h"

#include <cstdio>
#include <cstring>

#include "core/companions.h"
#include "core/format_catalogue.h"
#include "script/script_engine.h"
#include "script/vendor_request.h"
#include "settings/registry_store.h"

namespace {

// Lists of the description name their entries "00", "01", ... with two
// hexadecimal digits, and the candidates "Sensor00", ...: no list can hold
// more than 256. A larger count is cut to that.
constexpr uint32_t MaxListEntries = 256;

// The controller's probing state: bus 0 register, value. Register 0 takes
// 0x20 only when bit 0 of register 4 is set.
struct ControllerSetting {
  uint8_t Register;
  uint8_t Value;
};
constexpr ControllerSetting ProbingState[] = {
    {0x10, 0x10}, {0xC0, 0x08}, {0xC1, 0x01}, {0xC2, 0x01}, {0x06, 0x20}, {0x0D, 0x6A},
};

constexpr int64_t ProbeSettleDelay = 50 * 10000;  // 50 ms in 100 ns units
constexpr uint32_t DetectAttempts = 4;
constexpr uint32_t DefaultRegisterAddrLo = 240;

void Delay(int64_t units) {
  LARGE_INTEGER interval;
  interval.QuadPart = -units;
  KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

uint32_t CappedCount(uint32_t count) { return count < MaxListEntries ? count : MaxListEntries; }

void EntryName(WCHAR* name, const char* prefix, uint32_t index) {
  char text[16];
  std::snprintf(text, sizeof text, "%s%02x", prefix, index);
  uint32_t i = 0;
  for (; text[i] != 0; ++i) name[i] = WCHAR(text[i]);
  name[i] = 0;
}

// Reads Address and Data of entry `index` below `parent`; a missing key or
// value reads as 0.
void ReadEntry(HANDLE parent, uint32_t index, uint32_t* address, uint32_t* data) {
  WCHAR name[16];
  EntryName(name, "", index);
  HANDLE entry = nullptr;
  *address = 0;
  *data = 0;
  if (!NT_SUCCESS(CreateRegistrySubKey(parent, SubKeyAccess, name, &entry))) return;
  *address = ReadRegistryDword(entry, u"Address", 0);
  *data = ReadRegistryDword(entry, u"Data", 0);
  ZwClose(entry);
}

// Writes the entries of list `listName` below `candidate` (`countName` of
// them) to `bus`. Only an unplugged device ends it early; other failures are
// ignored.
NTSTATUS WriteEntryList(DeviceContext* context, HANDLE candidate, const WCHAR* listName,
                        const WCHAR* countName, uint8_t bus) {
  HANDLE list = nullptr;
  if (!NT_SUCCESS(CreateRegistrySubKey(candidate, SubKeyAccess, listName, &list))) {
    return STATUS_SUCCESS;
  }
  const uint32_t count = CappedCount(ReadRegistryDword(list, countName, 0));
  NTSTATUS status = STATUS_SUCCESS;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t address = 0, data = 0;
    ReadEntry(list, i, &address, &data);
    const uint8_t byte = uint8_t(data);
    if (WriteRegister(context, bus, uint8_t(address), &byte) == STATUS_DEVICE_NOT_CONNECTED) {
      status = STATUS_DEVICE_NOT_CONNECTED;
      break;
    }
  }
  ZwClose(list);
  return status;
}

// One attempt at a candidate: its controller setup, its bus address, its
// pauses, its page selection and its identification registers. Sets
// *matched when every identification byte agrees.
NTSTATUS TryCandidate(DeviceContext* context, HANDLE candidate, uint32_t attempt, bool* matched) {
  *matched = false;
  NTSTATUS status = WriteEntryList(context, candidate, u"InitMR740", u"NumOfReg", 0);
  if (status != STATUS_SUCCESS) return status;

  const uint8_t bus = uint8_t(ReadRegistryDword(candidate, u"I2CAddr", 0));
  // A sensor slow to wake gets its InitDelay once, not at every attempt.
  if (attempt == 0) {
    const uint32_t initDelay = ReadRegistryDword(candidate, u"InitDelay", 0);
    if (initDelay != 0) Delay(initDelay);
  }
  // The two-step reads below already need the candidate's pause.
  StoreShared(context->ReadDelay, int32_t(ReadRegistryDword(candidate, u"ReadDelay", 0)));

  status = WriteEntryList(context, candidate, u"PageSelect", u"PageSelectLen", bus);
  if (status != STATUS_SUCCESS) return status;

  const uint32_t idLength = CappedCount(ReadRegistryDword(candidate, u"IDLength", 0));
  uint8_t byte = 0;  // a failed read leaves the last byte read
  for (uint32_t i = 0; i < idLength; ++i) {
    uint32_t address = 0, data = 0;
    ReadEntry(candidate, i, &address, &data);
    if (ReadRegister(context, bus, uint8_t(address), &byte) == STATUS_DEVICE_NOT_CONNECTED) {
      return STATUS_DEVICE_NOT_CONNECTED;
    }
    // All 32 bits take part: a Data above 255 never matches.
    if (uint32_t(byte) != data) return STATUS_SUCCESS;
  }
  *matched = true;
  return STATUS_SUCCESS;
}

// Takes the fitted candidate's name, bus address and low-byte register.
void TakeCandidate(DeviceContext* context, HANDLE candidate) {
  // At most 15 characters, so that the name keeps a terminator.
  uint32_t length = (SensorNameChars - 1) * sizeof(WCHAR);
  std::memset(context->SensorName, 0, sizeof context->SensorName);
  QueryRegistryValue(candidate, u"SensorName", context->SensorName, &length);
  context->SensorName[SensorNameChars - 1] = 0;
  context->SensorI2CAddr = ReadRegistryDword(candidate, u"I2CAddr", 0);
  context->RegisterAddrLo = ReadRegistryDword(candidate, u"RegisterAddrLo", DefaultRegisterAddrLo);
}

}  // namespace

// A failed read of register 4 counts as high speed: the byte stays 0.
NTSTATUS CheckBusSpeed(DeviceContext* context) {
  uint32_t forceHighSpeed = 0;
  HANDLE deviceKey = nullptr;
  if (NT_SUCCESS(OpenDeviceKey(context, &deviceKey))) {
    forceHighSpeed = ReadRegistryDword(deviceKey, u"ForceHighSpeed", 0);
    ZwClose(deviceKey);
  }
  uint8_t status = 0;
  ReadRegister(context, 0, 4, &status);
  context->IsFullSpeed = (status & 0x04) ? 1 : 0;
  if (forceHighSpeed != 0 && context->IsFullSpeed) {
    // The controller comes back and enumerates again, at high speed with luck.
    SendControllerRestart(context);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  return STATUS_SUCCESS;
}

NTSTATUS DetectSensor(DeviceContext* context) {
  uint8_t speed = 0;
  if (ReadRegister(context, 0, 4, &speed) == STATUS_DEVICE_NOT_CONNECTED) {
    return STATUS_DEVICE_NOT_CONNECTED;
  }
  const uint8_t first = (speed & 0x01) ? 0x20 : 0x00;
  if (WriteRegister(context, 0, 0x00, &first) == STATUS_DEVICE_NOT_CONNECTED) {
    return STATUS_DEVICE_NOT_CONNECTED;
  }
  for (const ControllerSetting& setting : ProbingState) {
    if (WriteRegister(context, 0, setting.Register, &setting.Value) ==
        STATUS_DEVICE_NOT_CONNECTED) {
      return STATUS_DEVICE_NOT_CONNECTED;
    }
  }
  Delay(ProbeSettleDelay);
  std::memset(context->SensorName, 0, sizeof context->SensorName);

  HANDLE deviceKey = nullptr, detect = nullptr;
  if (!NT_SUCCESS(OpenDeviceKey(context, &deviceKey))) return STATUS_SUCCESS;
  if (!NT_SUCCESS(CreateRegistrySubKey(deviceKey, SubKeyAccess, u"SensorDetect", &detect))) {
    ZwClose(deviceKey);
    return STATUS_SUCCESS;
  }
  // No candidates: every later setting is read straight from the device key.
  const uint32_t candidates = CappedCount(ReadRegistryDword(detect, u"NumOfSensor", 0));
  NTSTATUS result = candidates == 0 ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;

  for (uint32_t index = 0; index < candidates && result == STATUS_INSUFFICIENT_RESOURCES; ++index) {
    WCHAR name[16];
    EntryName(name, "Sensor", index);
    for (uint32_t attempt = 0; attempt < DetectAttempts; ++attempt) {
      HANDLE candidate = nullptr;
      if (!NT_SUCCESS(CreateRegistrySubKey(detect, SubKeyAccess, name, &candidate))) continue;
      bool matched = false;
      const NTSTATUS status = TryCandidate(context, candidate, attempt, &matched);
      if (status == STATUS_DEVICE_NOT_CONNECTED) result = status;
      if (matched) {
        TakeCandidate(context, candidate);
        result = STATUS_SUCCESS;
      }
      ZwClose(candidate);
      if (result != STATUS_INSUFFICIENT_RESOURCES) break;
    }
  }
  ZwClose(detect);
  ZwClose(deviceKey);
  return result;
}

NTSTATUS StartImageLibraries(DeviceContext* context) {
  if (context->WorkBuffer == nullptr) {
    context->WorkBuffer =
        static_cast<uint8_t*>(ExAllocatePoolWithTag(NonPagedPool, WorkBufferBytes, PoolTagWdm));
    if (context->WorkBuffer == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  }
  // The kernel's debug print takes %ws for a 16-bit string; the compiler's
  // printf check does not know it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
  DbgPrint("SensorName=[%ws]\n", context->SensorName);
#pragma GCC diagnostic pop

  ISPFunc_Init(&context->IspHandle, context, context->PhysicalDeviceObject, context->SensorName,
               context->IsFullSpeed ? 0 : 1, ReadSensorByte, WriteSensorPacket,
               ExecuteScriptSectionForLibrary, ReadControllerByte, WriteControllerPairs);

  // "\??\" and the script's folder, which fills at most the other 60.
  static constexpr WCHAR DosDevices[] = u"\\??\\";
  constexpr uint32_t PrefixChars = 4;
  WCHAR folder[64];
  static_assert(PrefixChars + ScriptValueBytes / 2 <= sizeof folder / sizeof folder[0],
                "the folder fits behind the prefix");
  std::memcpy(folder, DosDevices, PrefixChars * sizeof(WCHAR));
  folder[PrefixChars] = 0;
  GetScriptDirectory(context, folder + PrefixChars);
  context->SpefHandle = SPEF_Init(folder);

  uint32_t ispType = 0;
  HANDLE properties = nullptr;
  if (NT_SUCCESS(OpenSensorSubKey(context, u"PropertySetting", &properties))) {
    ispType = ReadRegistryDword(properties, u"ISPType", 0);
    ZwClose(properties);
  }
  context->IspType = ispType;
  StoreShared(context->BlankFrameActive, 1);
  return STATUS_SUCCESS;
}

void BuildFormatList(DeviceContext* context) {
  // The ranks live here, per camera: the catalogue's rows are shared.
  uint32_t enabled[FormatCatalogueRows] = {};
  HANDLE initial = nullptr;
  if (NT_SUCCESS(OpenSensorSubKey(context, u"InitialSetting", &initial))) {
    HANDLE tree = initial;
    if (ReadRegistryDword(initial, u"SeparateCtrl", 0) != 0) {
      const WCHAR* speedTree = context->IsFullSpeed ? u"FullSpeed" : u"HighSpeed";
      if (!NT_SUCCESS(CreateRegistrySubKey(initial, SubKeyAccess, speedTree, &tree))) {
        tree = nullptr;
      }
    }
    for (uint32_t row = 0; row < FormatCatalogueRows && tree != nullptr; ++row) {
      HANDLE formatKey = nullptr, sizeKey = nullptr;
      if (!NT_SUCCESS(CreateRegistrySubKey(tree, SubKeyAccess, FormatCatalogue[row].FormatKey,
                                           &formatKey))) {
        continue;
      }
      if (NT_SUCCESS(CreateRegistrySubKey(formatKey, SubKeyAccess, FormatCatalogue[row].SizeKey,
                                          &sizeKey))) {
        enabled[row] = ReadRegistryDword(sizeKey, u"Enabled", 0);
        ZwClose(sizeKey);
      }
      ZwClose(formatKey);
    }
    if (tree != nullptr && tree != initial) ZwClose(tree);
    ZwClose(initial);
  }

  // Highest rank first, table order within a rank; 0 and ranks above 40 hide.
  uint32_t count = 0;
  for (uint32_t rank = FormatCatalogueRows; rank >= 1; --rank) {
    for (uint32_t row = 0; row < FormatCatalogueRows; ++row) {
      if (enabled[row] == rank) context->FormatList[count++] = FormatCatalogue[row].DataRange;
    }
  }
  for (uint32_t i = count; i < FormatCatalogueRows; ++i) context->FormatList[i] = nullptr;
  StoreShared(context->FormatCount, count);
}
