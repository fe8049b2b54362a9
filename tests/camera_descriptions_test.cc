// The camera descriptions under cameras/: registry files with the keys the driver
// reads, scripts that pass the checker and hold the sections their registry asks
// for, and on the emulated camera each mode sends the wire its keys promise.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "core/device_context.h"
#include "core/host_contract.h"
#include "core/interface_configuration.h"
#include "emulator/emulated_camera.h"
#include "host/control_only_host.h"
#include "pipeline/frame_pipeline.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "script/mode_selection.h"
#include "script/script_engine.h"
#include "script/sensor_detection.h"
#include "script/vendor_request.h"
#include "tests/device_fixture.h"
#include "tests/kernel_test_clock.h"
#include "tools/script_tool.h"

namespace {

namespace fs = std::filesystem;

const fs::path kRepository = MR740_SOURCE_DIR;
const fs::path kCameras = kRepository / "cameras";

constexpr const char* kFormats[] = {"RGB24", "YUYV", "I420"};
constexpr const char* kProperties[] = {"Brightness",  "Contrast",     "Hue",
                                       "Saturation",  "Sharpness",    "Gamma",
                                       "ColorEnable", "WhiteBalance", "BackLight"};
constexpr const char* kPageSettings[] = {
    "AutoFocusEnable", "Flicker_50HZ", "LightCond", "QualityOpt",   "Zoom",    "ZoomLast",
    "FaceTracking",    "MirrorPage",   "FlipPage",  "SPEFCategory", "SPEFList"};

// The size keys of the format catalogue and the picture each stands for.
struct SizeKey {
  const char* name;
  uint32_t width, height;
};
constexpr SizeKey kSizeKeys[] = {
    {"160", 160, 120},    {"320", 320, 240},    {"640", 640, 480},    {"800", 800, 600},
    {"1024", 1024, 768},  {"1280C", 1280, 800}, {"1280B", 1280, 768}, {"1280A", 1280, 960},
    {"1280", 1280, 1024}, {"1600", 1600, 1200}, {"128", 128, 96},     {"176", 176, 144},
    {"352", 352, 288},    {"704", 704, 576},    {"1408", 1408, 1152}, {"484", 484, 240},
    {"1440", 1440, 1152}, {"720", 720, 576},
};

const SizeKey* FindSizeKey(const std::string& name) {
  for (const SizeKey& key : kSizeKeys) {
    if (name == key.name) return &key;
  }
  return nullptr;
}

struct Model {
  const char* regFile;  // below cameras/
  uint32_t instance;
  const char* sensor;
  const char* script;
  EmulatedSensorKind kind;
  uint16_t bcdDevice;
  EmulatedLensKind lens;
  // Mode keys with a non-zero Enabled, as "[HighSpeed\|FullSpeed\]FORMAT\SIZE".
  const char* modes;
  // DWORD values as "KEY\NAME=VALUE" below the device key. The sensor's bus
  // address and identification bytes are not listed: the rig's detection on
  // the emulated sensor checks them.
  const char* values;
};

const std::vector<Model>& Models() {
  static const std::vector<Model> models = {
      {"ov7670-webcam/ov7670-webcam.reg", 0, "OV7670", "C:\\Cameras\\ov7670-webcam\\OV7670.txt",
       EmulatedSensorKind::OV7670, 0x0100, EmulatedLensKind::None,
       "YUYV\\640 YUYV\\320 YUYV\\352 YUYV\\176 YUYV\\160 YUYV\\1280A RGB24\\640 RGB24\\320 "
       "RGB24\\352 RGB24\\176 RGB24\\160 I420\\640 I420\\320 I420\\160",
       "StillPin=2 PollingShutterKey=100 SensorDetect\\NumOfSensor=1 "
       "SensorDetect\\Sensor00\\ReadDelay=0 SensorDetect\\Sensor00\\IDLength=2 "
       "OV7670\\PropertySetting\\ISPType=0 OV7670\\InitialSetting\\YUYV\\640\\ControlMethod=0x0201 "
       "OV7670\\InitialSetting\\YUYV\\640\\Enabled=40"},
      {"ov2640-camera/ov2640-camera.reg", 1, "OV2640", "C:\\Cameras\\ov2640-camera\\OV2640.txt",
       EmulatedSensorKind::OV2640, 0x0200, EmulatedLensKind::None,
       "RGB24\\640 RGB24\\320 RGB24\\800 RGB24\\352 RGB24\\160 RGB24\\1024 RGB24\\1280A "
       "RGB24\\1600 YUYV\\640 YUYV\\320 YUYV\\800 YUYV\\1024 YUYV\\1600 I420\\640 I420\\320 "
       "I420\\160",
       "StillPin=0 DeadPixelRGB24=48 BlackBodyDarkRGB24=12 BlackBodyDarkYUYV=24 "
       "SensorDetect\\NumOfSensor=1 SensorDetect\\Sensor00\\ReadDelay=10000 "
       "SensorDetect\\Sensor00\\IDLength=4 SensorDetect\\Sensor00\\PageSelect\\PageSelectLen=1 "
       "OV2640\\PropertySetting\\ISPType=0 "
       "OV2640\\InitialSetting\\RGB24\\1024\\ControlMethod=0x0102 "
       "OV2640\\InitialSetting\\RGB24\\1600\\ControlMethod=0x0101"},
      {"mi2020-camera/mi2020-camera.reg", 2, "MI2020", "C:\\Cameras\\mi2020-camera\\MI2020.txt",
       EmulatedSensorKind::MI2020, 0x0100, EmulatedLensKind::HomeSwitch,
       "HighSpeed\\RGB24\\640 HighSpeed\\RGB24\\320 HighSpeed\\RGB24\\800 HighSpeed\\RGB24\\1600 "
       "HighSpeed\\YUYV\\640 HighSpeed\\YUYV\\320 HighSpeed\\YUYV\\800 FullSpeed\\RGB24\\320 "
       "FullSpeed\\RGB24\\160 FullSpeed\\YUYV\\320 FullSpeed\\YUYV\\160",
       "SensorDetect\\NumOfSensor=1 SensorDetect\\Sensor00\\RegisterAddrLo=0xF0 "
       "SensorDetect\\Sensor00\\ReadDelay=20000 MI2020\\PropertySetting\\ISPType=0x00020000 "
       "MI2020\\PropertySetting\\InitPos=40"},
      {"mi2021-camera/mi2021-camera.reg", 3, "MI2021", "C:\\Cameras\\mi2021-camera\\MI2021.txt",
       EmulatedSensorKind::MI2021, 0x0200, EmulatedLensKind::NoHomeSwitch,
       "RGB24\\640 RGB24\\320 RGB24\\800 RGB24\\1280A RGB24\\1600 YUYV\\640 YUYV\\320 YUYV\\160 "
       "YUYV\\800 YUYV\\1600 I420\\640 I420\\320",
       "ForceHighSpeed=1 SensorDetect\\NumOfSensor=1 SensorDetect\\Sensor00\\RegisterAddrLo=0xF0 "
       "SensorDetect\\Sensor00\\ReadDelay=0 MI2021\\PropertySetting\\ISPType=0x00010001"},
  };
  return models;
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  for (size_t start = 0, end; start < text.size(); start = end + 1) {
    end = std::min(text.find(' ', start), text.size());
    words.push_back(text.substr(start, end - start));
  }
  return words;
}

std::u16string DeviceKey(const Model& model) { return DeviceSoftwareKeyPath(model.instance); }
std::u16string KeyBelow(const Model& model, const std::string& relative) {
  return relative.empty() ? DeviceKey(model) : DeviceKey(model) + u"\\" + U16(relative);
}
uint32_t Dword(const std::u16string& key, const char* name, uint32_t absent = 0) {
  uint32_t value = absent;
  GetRegistryDword(key, U16(name), &value);
  return value;
}
std::string String(const std::u16string& key, const char* name) {
  std::u16string value;
  GetRegistryString(key, U16(name), &value);
  return NarrowAscii(value);
}

// A mode key found in the registry, with the values the driver reads.
struct ModeKey {
  std::string tree, format, size;  // tree: "", "HighSpeed\" or "FullSpeed\"
  uint32_t enabled = 0, controlMethod = 0, frameRate = 0, alternateSetting = 0;
};

std::vector<ModeKey> ModeKeys(const Model& model) {
  const std::u16string initial = KeyBelow(model, std::string(model.sensor) + "\\InitialSetting");
  std::vector<std::string> trees = {""};
  if (Dword(initial, "SeparateCtrl") != 0) trees = {"HighSpeed\\", "FullSpeed\\"};
  std::vector<ModeKey> keys;
  for (const std::string& tree : trees) {
    for (const char* format : kFormats) {
      std::vector<std::u16string> sizes;
      const std::u16string formatKey = initial + u"\\" + U16(tree + format);
      if (!ListRegistrySubKeys(formatKey, &sizes)) continue;
      for (const std::u16string& size : sizes) {
        const std::u16string path = formatKey + u"\\" + size;
        keys.push_back({tree, format, NarrowAscii(size), Dword(path, "Enabled"),
                        Dword(path, "ControlMethod"), Dword(path, "FrameRate", 1000),
                        Dword(path, "AlternateSetting", 1)});
      }
    }
  }
  return keys;
}

std::string ReadBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ToCase(std::string text, int (*change)(int)) {
  for (char& c : text) c = char(change(static_cast<unsigned char>(c)));
  return text;
}
std::string Lower(const std::string& text) { return ToCase(text, ::tolower); }
std::string Upper(const std::string& text) { return ToCase(text, ::toupper); }

// The host file a Windows path on drive C stands for, found level by level
// without regard to case as the file layer looks it up; empty when missing.
fs::path ResolveOnDriveC(const std::string& windowsPath) {
  if (windowsPath.size() < 3 || Lower(windowsPath.substr(0, 3)) != "c:\\") return {};
  fs::path at = kRepository;
  for (size_t start = 3; start <= windowsPath.size();) {
    size_t end = std::min(windowsPath.find('\\', start), windowsPath.size());
    const std::string level = Lower(windowsPath.substr(start, end - start));
    fs::path found;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(at, error)) {
      if (Lower(entry.path().filename().string()) == level) found = entry.path();
    }
    if (found.empty()) return {};
    at = found;
    start = end + 1;
  }
  return fs::is_regular_file(at) ? at : fs::path();
}

std::vector<fs::path> FilesUnderCameras(const std::string& suffix) {
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(kCameras)) {
    const std::string name = Lower(entry.path().filename().string());
    if (entry.is_regular_file() && name.size() > suffix.size() &&
        name.substr(name.size() - suffix.size()) == suffix) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

// The text of a script as the driver reads it: descrambled when its first
// byte marks the scrambled form.
std::string ScriptText(const fs::path& path) {
  std::string bytes = ReadBytes(path);
  if (!bytes.empty() && uint8_t(bytes[0]) == ScriptScrambledMark) {
    for (char& c : bytes) c = char(DescrambleScriptByte(uint8_t(c)));
  }
  return bytes;
}

// Section names of a script, upper case, from its header lines.
std::set<std::string> SectionsOf(const fs::path& path) {
  const std::string text = ScriptText(path);
  std::set<std::string> sections;
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find("\r\n", start), text.size());
    const std::string line = text.substr(start, end - start);
    const size_t first = line.find_first_not_of(" \t");
    if (first != std::string::npos && line[first] == '[') {
      const size_t stop = line.find_first_of(" \t", first);
      const std::string word = line.substr(first, stop == std::string::npos ? stop : stop - first);
      sections.insert(Upper(word.substr(1, word.size() - 2)));
    }
    start = end + 2;
  }
  return sections;
}

// The sections the driver asks for by fixed name.
std::set<std::string> FixedSectionNames() {
  std::set<std::string> names = {
      "INIT",           "FS\\INIT",      "HS\\INIT",     "POWER_DOWN",   "FS\\POWER_DOWN",
      "HS\\POWER_DOWN", "INIT_PREVIEW",  "INIT_CAPTURE", "FLICKER_50HZ", "FLICKER_AUTO",
      "FLICKER_60HZ",   "NORMAL_LIGHT",  "LOW_LIGHT",    "BACK_LIGHT",   "FS\\NORMAL_LIGHT",
      "FS\\LOW_LIGHT",  "FS\\BACK_LIGHT"};
  for (const char* horiz : {"HORIZ_NOR_", "HORIZ_INV_"}) {
    for (const char* verti : {"VERTI_NOR", "VERTI_INV"}) names.insert(std::string(horiz) + verti);
  }
  for (const char* prefix : {"", "FS\\", "HS\\"}) {
    for (const char* axis : {"HORIZ_NOR", "HORIZ_INV", "VERTI_NOR", "VERTI_INV"}) {
      names.insert(std::string(prefix) + axis);
    }
  }
  for (const char* property : kProperties) {
    if (std::string(property) == "ColorEnable") continue;
    names.insert("AUTO_" + Upper(property) + "_ON");
    names.insert("AUTO_" + Upper(property) + "_OFF");
  }
  return names;
}

// Every mode section name of the driver's mode table, with and without a
// speed prefix.
bool IsModeSectionName(const std::string& name) {
  for (const auto& row : ModeTable) {
    const std::string plain = std::string(row).substr(3);
    if (name == plain || name == "HS\\" + plain || name == "FS\\" + plain) return true;
  }
  return false;
}

// A wire frame's width, height and layout.
using Wire = std::tuple<uint32_t, uint32_t, int>;

uint32_t CompressionOf(const std::string& format) {
  return format == "RGB24"  ? CompressionRGB24
         : format == "YUYV" ? CompressionYUY2
                            : CompressionI420;
}

// ScaleMode 2..5 as a factor on each side: x2, /2, x4, /4; others 1.
constexpr uint32_t kScaleUp[6] = {1, 1, 2, 1, 4, 1}, kScaleDown[6] = {1, 1, 1, 2, 1, 4};
uint32_t ScaleOf(uint32_t controlMethod) {
  return (controlMethod & 0xFF) < 6 ? controlMethod & 0xFF : 1;
}

// The wire the frame path expects for an output size: the size by ScaleMode,
// except that the driver's own route makes width 1024 from a fixed 1280 x
// 960 frame; the layout by WireFormat, or by the output format for 0.
Wire PromisedWire(const SizeKey& size, const std::string& format, uint32_t controlMethod,
                  uint32_t rawPipelineKind) {
  const uint32_t s = ScaleOf(controlMethod), wireFormat = (controlMethod >> 8) & 0xFF;
  const bool yuyv = wireFormat == 2 || (wireFormat == 0 && format == "YUYV");
  const int layout = int(yuyv ? WireFrameLayout::Yuyv : WireFrameLayout::Bayer);
  if (size.width == 1024 && rawPipelineKind != 1) return {1280, 960, layout};
  return {size.width * kScaleUp[s] / kScaleDown[s], size.height * kScaleUp[s] / kScaleDown[s],
          layout};
}

// The capture host of these tests: vendor requests go to one emulated camera.
EmulatedCamera* currentCamera = nullptr;

NTSTATUS ForwardVendorRequest(DeviceContext*, uint8_t request, uint16_t value, uint16_t index,
                              void* buffer, uint32_t* bufferLength, BOOLEAN getData,
                              PCOMMAND_COMPLETE_FUNCTION, void*) {
  return currentCamera->ControlTransfer(request, value, index, buffer, bufferLength,
                                        getData != FALSE);
}

// One model's camera on one bus speed: the emulated camera behind the host,
// virtual time, drive C on the repository, the device bound to its software
// key.
struct CameraRig {
  std::unique_ptr<EmulatedCamera> camera;
  TestDevice device;
  DebugPrintCapture log;
  const HostCalls* previousCalls = GetHostCalls();
  VirtualClock clock;

  CameraRig(const Model& model, bool highSpeed) {
    EmulatedCameraConfig config;
    config.sensors = {EmulatedSensorConfig{model.kind}};
    config.bcdDevice = model.bcdDevice;
    config.highSpeed = highSpeed;
    config.lens = model.lens;
    camera = std::make_unique<EmulatedCamera>(config);
    currentCamera = camera.get();
    static const HostCalls calls = ControlOnlyHostCalls(&ForwardVendorRequest);
    SetHostCalls(&calls);
    MapDosDrive('C', kRepository.string());
    static char pdo;
    device->PhysicalDeviceObject = reinterpret_cast<DEVICE_OBJECT*>(&pdo);
    BindDeviceRegistryKey(device->PhysicalDeviceObject, DeviceKey(model));
    ExInitializeFastMutex(&device->VendorMutex);
    device->IsRevision2Chip = model.bcdDevice >= 0x0200 ? 1 : 0;
  }
  ~CameraRig() {
    UnbindDeviceRegistryKey(device->PhysicalDeviceObject);
    MapDosDrive('C', "");
    SetHostCalls(previousCalls);
    currentCamera = nullptr;
  }
  DeviceContext* context() { return device.context; }

  // The bus speed and the sensor as the driver finds them at start-up.
  std::string DetectSensor() {
    if (CheckBusSpeed(context()) != STATUS_SUCCESS) return "";
    if (::DetectSensor(context()) != STATUS_SUCCESS) return "";
    log.Clear();
    return NarrowAscii(std::u16string(context()->SensorName));
  }
  // Selects the mode of an output size and format as bandwidth allocation
  // does, and runs its sections as a capture start does.
  NTSTATUS StartMode(uint32_t compression, const SizeKey& size, uint32_t quality) {
    DeviceContext* c = context();
    c->CurrentCompression = compression;
    c->ImageWidth = size.width;
    c->ImageHeight = size.height;
    c->QualityOption = quality;
    SelectMode(c);
    const NTSTATUS status = RunModeSections(c);
    log.Clear();
    return status;
  }
  NTSTATUS Run(const std::string& section) {
    const NTSTATUS status = ExecuteScriptSection(context(), section.c_str());
    log.Clear();
    return status;
  }
};

// Each model's keys, and the sections its script holds against those the
// driver asks for under these keys.
TEST(CameraDescriptions, EveryRegistryFileHasTheKeysTheDriverReadsAndItsScriptTheirSections) {
  ResetRegistry();
  const std::set<std::string> fixed = FixedSectionNames();
  std::set<std::string> everyScript;
  const std::vector<fs::path> regFiles = FilesUnderCameras(".reg");
  ASSERT_EQ(regFiles.size(), Models().size()) << "one description per model under cameras/";
  for (const fs::path& file : regFiles) {
    std::string error;
    EXPECT_TRUE(LoadRegistryFile(file.string(), &error)) << error;
  }
  // All four sit side by side in one registry and agree on the service key.
  EXPECT_EQ(Dword(ServiceKeyPath, "Start"), 3u);
  EXPECT_EQ(Dword(ServiceKeyPath, "Type"), 1u);

  for (const Model& model : Models()) {
    SCOPED_TRACE(model.regFile);
    ASSERT_TRUE(RegistryKeyExists(DeviceKey(model)));
    for (const std::string& expected : Words(model.values)) {
      const size_t name = expected.rfind('\\', expected.find('=')) + 1, equals = expected.find('=');
      uint32_t value = 0xDEADBEEF;
      EXPECT_TRUE(GetRegistryDword(KeyBelow(model, expected.substr(0, name ? name - 1 : 0)),
                                   U16(expected.substr(name, equals - name)), &value))
          << expected;
      EXPECT_EQ(value, std::stoul(expected.substr(equals + 1), nullptr, 0)) << expected;
    }
    const std::string root = model.sensor;
    EXPECT_EQ(String(KeyBelow(model, "SensorDetect\\Sensor00"), "SensorName"), model.sensor);
    const std::string script = String(KeyBelow(model, root + "\\InitialSetting"), "Script");
    EXPECT_EQ(script, model.script);
    EXPECT_LE(script.size(), ScriptPathMaxChars);
    EXPECT_FALSE(ResolveOnDriveC(script).empty()) << script << " is not under the repository";
    const std::set<std::string> sections = SectionsOf(ResolveOnDriveC(script));
    everyScript.insert(sections.begin(), sections.end());
    for (const std::string& section : sections) {
      EXPECT_TRUE(fixed.count(section) || IsModeSectionName(section))
          << "[" << section << "] is no section the driver asks for";
    }
    std::set<std::string> required = {
        "INIT",         "HS\\INIT",     "POWER_DOWN",   "INIT_PREVIEW", "FLICKER_50HZ",
        "FLICKER_AUTO", "FLICKER_60HZ", "NORMAL_LIGHT", "LOW_LIGHT",    "BACK_LIGHT"};
    if (Dword(DeviceKey(model), "ForceHighSpeed") == 0) {
      required.insert({"FS\\NORMAL_LIGHT", "FS\\LOW_LIGHT", "FS\\BACK_LIGHT"});
    }

    // The offered modes, each a transport the driver and the emulator have.
    std::set<std::string> offered;
    for (const ModeKey& key : ModeKeys(model)) {
      if (key.enabled == 0) continue;
      offered.insert(key.tree + key.format + "\\" + key.size);
      SCOPED_TRACE(key.tree + key.format + "\\" + key.size);
      const SizeKey* size = FindSizeKey(key.size);
      EXPECT_NE(size, nullptr);
      // Each mode's own section is looked for where the mode runs, below.
      if (size && size->width > 800) required.insert("INIT_CAPTURE");
      EXPECT_LE(key.enabled, 40u);
      EXPECT_TRUE((key.controlMethod & 0xFF) >= 1 && (key.controlMethod & 0xFF) <= 5);
      const uint32_t wireFormat = (key.controlMethod >> 8) & 0xFF;
      EXPECT_TRUE(wireFormat == 1 || wireFormat == 2) << "a Bayer or YUYV wire";
      EXPECT_TRUE(key.alternateSetting >= 1 && key.alternateSetting <= 5);
      EXPECT_GE(key.frameRate, 166666u);
    }
    const std::vector<std::string> modes = Words(model.modes);
    EXPECT_EQ(offered, std::set<std::string>(modes.begin(), modes.end()));

    // A property set reloads SensorI2CAddr and RegisterAddrLo from
    // PropertySetting: they must be the detected sensor's, or the script
    // lines after it would go elsewhere.
    const std::u16string properties = KeyBelow(model, root + "\\PropertySetting");
    const std::u16string candidate = KeyBelow(model, "SensorDetect\\Sensor00");
    EXPECT_EQ(Dword(properties, "I2CAddr"), Dword(candidate, "I2CAddr"));
    EXPECT_EQ(Dword(properties, "RegisterAddrLo"), Dword(candidate, "RegisterAddrLo", 240));
    for (const char* name : kProperties) {
      SCOPED_TRACE(name);
      const std::u16string key = properties + u"\\" + U16(name);
      ASSERT_TRUE(RegistryKeyExists(key));
      const bool automatic = Dword(key, "Enabled") != 0 && Dword(key, "AutoEnabled") != 0;
      for (const char* state : {"_ON", "_OFF"}) {
        const std::string section = "AUTO_" + Upper(name) + state;
        if (automatic)
          required.insert(section);
        else
          EXPECT_EQ(sections.count(section), 0u) << section << " never runs";
      }
      if (Dword(key, "Enabled") == 0) continue;
      const uint32_t method = Dword(key, "ControlMethod");
      EXPECT_LE(method, 3u);
      uint32_t low = Dword(key, "LogiMinimum"), high = Dword(key, "LogiMaximum");
      if (method == 1) high = (low - Dword(key, "PhysMinimum") + Dword(key, "PhysMaximum")) & 0xFF;
      EXPECT_LE(low, high);
      const uint32_t byDefault = Dword(key, "DefaultValue");
      EXPECT_TRUE(byDefault >= low && byDefault <= high) << "default " << byDefault;
      uint32_t unused = 0;
      EXPECT_TRUE(method == 0 || method == 3 || GetRegistryDword(key, u"RegisterAddr", &unused));
      for (uint32_t v = low; method == 2 && v <= high; ++v) {
        char valueName[12];
        std::snprintf(valueName, sizeof valueName, "%02x", v);
        EXPECT_TRUE(GetRegistryDword(key + u"\\PhysValue", U16(valueName), &unused))
            << "PhysValue " << valueName;
      }
      if (std::string(name) == "ColorEnable") {
        EXPECT_EQ(Dword(key, "AutoEnabled"), 0u) << "no automatic sections exist for it";
      }
    }
    for (const char* page : kPageSettings) {
      uint32_t value = 0;
      EXPECT_TRUE(GetRegistryDword(KeyBelow(model, root), U16(page), &value)) << page;
    }
    for (const std::string& section : required) {
      EXPECT_EQ(sections.count(section), 1u) << "[" << section << "] missing";
    }
    auto all = [&](std::initializer_list<const char*> names) {
      for (const char* n : names) {
        if (!sections.count(n)) return false;
      }
      return true;
    };
    EXPECT_TRUE(all({"HORIZ_NOR_VERTI_NOR", "HORIZ_INV_VERTI_NOR", "HORIZ_NOR_VERTI_INV",
                     "HORIZ_INV_VERTI_INV"}) ||
                all({"HORIZ_NOR", "HORIZ_INV", "VERTI_NOR", "VERTI_INV"}))
        << "no way to mirror and flip";
  }
  for (const std::string& section : fixed) {
    EXPECT_EQ(everyScript.count(section), 1u) << "no script has [" << section << "]";
  }
  ResetRegistry();
}

TEST(CameraDescriptions, ScriptsPassTheCheckerAreCrLfTextAndTheScrambledOneIsItsSourceScrambled) {
  const std::vector<fs::path> scripts = FilesUnderCameras(".txt");
  ASSERT_GE(scripts.size(), Models().size() + 1) << "four scripts and a plain source";
  for (const fs::path& script : scripts) {
    SCOPED_TRACE(script.string());
    FILE* out = std::tmpfile();
    ASSERT_TRUE(out);
    std::string path = script.string();
    char tool[] = "mr740cam", command[] = "check-script";
    char* argv[] = {tool, command, path.data(), nullptr};
    const int status = RunScriptToolWithOutput(3, argv, out, out);
    std::string report;
    std::rewind(out);
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, out)) report += buffer;
    std::fclose(out);
    EXPECT_EQ(status, 0) << report;
    EXPECT_NE(report.find(" 0 faults"), std::string::npos) << report;
    const std::string text = ScriptText(script);
    ASSERT_FALSE(text.empty());
    size_t lineStart = 0;
    for (size_t i = 0; i < text.size(); ++i) {
      ASSERT_NE(text[i], '\0');
      ASSERT_TRUE(text[i] != '\n' || (i > 0 && text[i - 1] == '\r')) << "a bare LF at " << i;
      if (text[i] != '\r') continue;
      ASSERT_TRUE(i + 1 < text.size() && text[i + 1] == '\n') << "a bare CR at " << i;
      EXPECT_LE(i - lineStart + 1, ScriptLineBytes) << "line at byte " << lineStart;
      lineStart = i + 2;
    }
    EXPECT_EQ(lineStart, text.size()) << "the last line ends in CR LF";
  }
  const std::vector<fs::path> plains = FilesUnderCameras(".plain.txt");
  ASSERT_EQ(plains.size(), 1u) << "one script ships scrambled";
  std::string name = plains[0].filename().string();
  name.replace(name.size() - std::string(".plain.txt").size(), std::string::npos, ".txt");
  const std::string source = ReadBytes(plains[0]);
  const std::string shipped = ReadBytes(plains[0].parent_path() / name);
  ASSERT_EQ(shipped.size(), source.size()) << name;
  ASSERT_FALSE(shipped.empty());
  EXPECT_EQ(uint8_t(shipped[0]), ScriptScrambledMark);
  for (size_t i = 0; i < source.size(); ++i) {
    const int32_t scrambled = ScrambleScriptByte(uint8_t(source[i]));
    ASSERT_GE(scrambled, 0) << "byte " << i << " has no scrambled form";
    ASSERT_EQ(uint8_t(shipped[i]), uint8_t(scrambled)) << name << " byte " << i;
  }
}

// For every mode key a capture as the driver starts it, for each quality
// option in turn: the driver's mode selection, then its mode sections, and at
// its stop the power-down sections. The sensor must then send the wire the
// mode's keys promise, the controller's wire registers must say the same, and
// the packet routine's length test and the raw frame buffer must take the
// frame. Orientation, flicker, light and automatic sections must run on the
// camera and leave the wire alone.
TEST(CameraDescriptions, EachModeMakesTheEmulatedSensorSendTheWireItsKeysPromise) {
  const std::set<std::string> fixed = FixedSectionNames();
  for (const Model& model : Models()) {
    SCOPED_TRACE(model.regFile);
    ResetRegistry();
    std::string error;
    ASSERT_TRUE(LoadRegistryFile((kCameras / model.regFile).string(), &error)) << error;
    ASSERT_FALSE(ResolveOnDriveC(model.script).empty()) << "a missing script would be created";
    const uint32_t ispType =
        Dword(KeyBelow(model, std::string(model.sensor) + "\\PropertySetting"), "ISPType");
    const std::vector<ModeKey> keys = ModeKeys(model);
    const bool fullSpeedToo = Dword(DeviceKey(model), "ForceHighSpeed") == 0;
    const std::set<std::string> sections = SectionsOf(ResolveOnDriveC(model.script));

    for (bool highSpeed : {true, false}) {
      if (!highSpeed && !fullSpeedToo) continue;
      SCOPED_TRACE(highSpeed ? "high speed" : "full speed");
      CameraRig rig(model, highSpeed);
      ASSERT_EQ(rig.DetectSensor(), model.sensor);
      ASSERT_EQ(rig.context()->IsFullSpeed, highSpeed ? 0 : 1);
      rig.context()->IspType = ispType;  // as the start-up after detection reads it
      const std::string speed = highSpeed ? "HS\\" : "FS\\";
      bool any = false;
      for (const ModeKey& key : keys) {
        if (key.enabled == 0) continue;
        if (!key.tree.empty() && (key.tree == "HighSpeed\\") != highSpeed) continue;
        // Without trees of their own, the full-speed modes are the high-speed
        // ones after another speed's INIT: one of them shows that this INIT
        // leaves the mode alone.
        if (!highSpeed && key.tree.empty() && any) break;
        const SizeKey& size = *FindSizeKey(key.size);
        const Wire promised = PromisedWire(size, key.format, key.controlMethod, ispType & 0xFF);
        for (uint32_t quality : {1u, 0u, 2u}) {  // plain, _QUALITY, _FRAMERATE
          SCOPED_TRACE(key.tree + key.format + "\\" + key.size + " quality " +
                       std::to_string(quality));
          ASSERT_EQ(rig.StartMode(CompressionOf(key.format), size, quality), STATUS_SUCCESS);
          // The driver found the description's mode key and a section of the script.
          const DeviceContext* c = rig.context();
          EXPECT_EQ(std::make_tuple(c->ControlMethod, c->FrameInterval, c->StreamAlternateSetting),
                    std::make_tuple(key.controlMethod, key.frameRate, key.alternateSetting));
          EXPECT_EQ(sections.count(c->ModeSection), 1u) << "[" << c->ModeSection << "] missing";
          const WireFrameInfo wire = rig.camera->CurrentWireFrame();
          EXPECT_EQ(Wire(wire.width, wire.height, int(wire.layout)), promised);
          EXPECT_TRUE(rig.camera->WireRegistersAgree());
          // The driver's own length test and raw buffer, checked on their own
          // elsewhere, must take what the sensor sends.
          EXPECT_TRUE(IsFrameLengthAccepted(c, uint32_t(wire.frameBytes)))
              << wire.frameBytes << " bytes fail the length test";
          EXPECT_GE(GetRawFrameSize(c, size.width, size.height), wire.frameBytes);
          any = true;
        }
        EXPECT_EQ(rig.Run("POWER_DOWN"), STATUS_SUCCESS);
        EXPECT_EQ(rig.Run(speed + "POWER_DOWN"), STATUS_SUCCESS);
      }
      ASSERT_TRUE(any) << "no mode at this speed";

      // The last mode stays set up; the sections of the running capture.
      const WireFrameInfo before = rig.camera->CurrentWireFrame();
      for (int state = 0; state < 4; ++state) {
        const bool mirror = state & 1, flip = state & 2;
        const std::string horiz = mirror ? "HORIZ_INV" : "HORIZ_NOR";
        const std::string verti = flip ? "VERTI_INV" : "VERTI_NOR";
        for (const std::string& section :
             {horiz + "_" + verti, horiz, speed + horiz, verti, speed + verti}) {
          ASSERT_EQ(rig.Run(section), STATUS_SUCCESS) << "[" << section << "]";
        }
        const WireFrameInfo wire = rig.camera->CurrentWireFrame();
        EXPECT_TRUE(wire.mirror == mirror && wire.flip == flip) << horiz << " " << verti;
        EXPECT_TRUE(wire.width == before.width && wire.height == before.height);
      }
      for (const std::string& section : fixed) {
        const bool otherSpeed = section.rfind(highSpeed ? "FS\\" : "HS\\", 0) == 0;
        if (otherSpeed || section.find("INIT") != std::string::npos ||
            section.find("POWER_DOWN") != std::string::npos || !sections.count(section)) {
          continue;
        }
        EXPECT_EQ(rig.Run(section), STATUS_SUCCESS) << "[" << section << "]";
      }
      const WireFrameInfo after = rig.camera->CurrentWireFrame();
      EXPECT_TRUE(after.width == before.width && after.height == before.height);
      EXPECT_TRUE(rig.camera->WireRegistersAgree());
    }
  }
  ResetRegistry();
}

}  // namespace
