// The emulated camera of each camera description.

#include "tools/camera_models.h"

#include <cctype>
#include <cstdlib>

#include "platform/registry_control.h"

namespace {

std::string Ascii(const std::u16string& text) {
  std::string out;
  for (char16_t c : text) out += c < 0x80 ? char(c) : '?';
  return out;
}

}  // namespace

const std::vector<CameraModel>& BuiltInCameraModels() {
  // Sensor, controller revision and lens as each description's comments
  // state them: the OV7670 webcam and the MI2020 camera sit on revision-1
  // controllers, the MI2020 has a motor lens with a home switch, the MI2021
  // one without.
  static const std::vector<CameraModel> models = {
      {"ov7670-webcam", 0, EmulatedSensorKind::OV7670, 0x0100, true, EmulatedLensKind::None},
      {"ov2640-camera", 1, EmulatedSensorKind::OV2640, 0x0200, true, EmulatedLensKind::None},
      {"mi2020-camera", 2, EmulatedSensorKind::MI2020, 0x0100, true,
       EmulatedLensKind::HomeSwitch},
      {"mi2021-camera", 3, EmulatedSensorKind::MI2021, 0x0200, true,
       EmulatedLensKind::NoHomeSwitch},
  };
  return models;
}

const CameraModel* FindBuiltInCameraModel(const std::string& name) {
  for (const CameraModel& model : BuiltInCameraModels()) {
    if (model.name == name) return &model;
  }
  return nullptr;
}

EmulatedCameraConfig EmulatedCameraConfigFor(const CameraModel& model) {
  EmulatedCameraConfig config;
  config.sensors = {EmulatedSensorConfig{model.sensor}};
  config.bcdDevice = model.bcdDevice;
  config.highSpeed = model.highSpeed;
  config.lens = model.lens;
  return config;
}

bool SensorKindFromName(const std::string& name, EmulatedSensorKind* kind) {
  static const struct {
    const char* name;
    EmulatedSensorKind kind;
  } kSensors[] = {{"OV7670", EmulatedSensorKind::OV7670},
                  {"OV2640", EmulatedSensorKind::OV2640},
                  {"MI2020", EmulatedSensorKind::MI2020},
                  {"MI2021", EmulatedSensorKind::MI2021}};
  for (const auto& sensor : kSensors) {
    if (name == sensor.name) {
      *kind = sensor.kind;
      return true;
    }
  }
  return false;
}

bool DescriptionInstance(const std::string& regText, uint32_t* instance) {
  // Key names are case-insensitive in a .reg file.
  std::string upper = regText;
  for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
  const std::string marker = "\\CONTROL\\CLASS\\{6BDD1FC6-810F-11D0-BEC7-08002BE2092F}\\";
  for (size_t at = upper.find(marker); at != std::string::npos;
       at = upper.find(marker, at + 1)) {
    size_t digits = at + marker.size();
    size_t end = digits;
    while (end < upper.size() && std::isdigit(static_cast<unsigned char>(upper[end]))) ++end;
    if (end == digits || end - digits > 4) continue;
    if (end < upper.size() && upper[end] != ']' && upper[end] != '\\') continue;
    *instance = uint32_t(std::strtoul(upper.substr(digits, end - digits).c_str(), nullptr, 10));
    return true;
  }
  return false;
}

bool DescribeInstalledCamera(uint32_t instance, const std::string& name, CameraModel* model,
                             std::string* error) {
  const std::u16string device = DeviceSoftwareKeyPath(instance);
  const std::string where = "device key " + Ascii(device);
  if (!RegistryKeyExists(device)) {
    *error = "no camera description is installed at " + where;
    return false;
  }
  std::u16string sensorName;
  if (!GetRegistryString(device + u"\\SensorDetect\\Sensor00", u"SensorName", &sensorName)) {
    *error = "the description at " + where +
             " names no sensor (SensorDetect\\Sensor00, value SensorName)";
    return false;
  }
  CameraModel found;
  found.name = name;
  found.instance = instance;
  if (!SensorKindFromName(Ascii(sensorName), &found.sensor)) {
    *error = "the description at " + where + " names sensor " + Ascii(sensorName) +
             ", which the emulated camera does not have (OV7670, OV2640, MI2020, MI2021)";
    return false;
  }
  for (const CameraModel& builtIn : BuiltInCameraModels()) {
    if (builtIn.sensor == found.sensor) {
      found.bcdDevice = builtIn.bcdDevice;
      found.highSpeed = builtIn.highSpeed;
      break;
    }
  }
  uint32_t ispType = 0;
  if (GetRegistryDword(device + u"\\" + sensorName + u"\\PropertySetting", u"ISPType",
                       &ispType)) {
    const uint8_t lens = uint8_t(ispType >> 16);
    found.lens = lens == 1   ? EmulatedLensKind::NoHomeSwitch
                 : lens == 2 ? EmulatedLensKind::HomeSwitch
                             : EmulatedLensKind::None;
  }
  *model = found;
  return true;
}
