// The emulated camera that stands for each camera description: which sensor
// the description's camera carries, its controller revision (bcdDevice), its
// bus speed and its lens. The tool, the tests and the benchmarks build their
// EmulatedCamera from here, so a description and its camera stay one pair.
//
// The built-in models are the descriptions under cameras/ (tools/
// camera_catalog.h). A description installed from elsewhere is matched by
// the sensor its registry names first: it gets the emulated sensor of that
// name, the controller revision a built-in camera with that sensor has, and
// the lens its property settings ask for.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "emulator/emulated_camera.h"

struct CameraModel {
  std::string name;       // folder below cameras/, e.g. "ov7670-webcam"
  uint32_t instance = 0;  // the device key ...\Class\{6BDD1FC6-...}\000N
  EmulatedSensorKind sensor = EmulatedSensorKind::OV7670;
  uint16_t bcdDevice = 0x0200;
  bool highSpeed = true;
  EmulatedLensKind lens = EmulatedLensKind::None;
};

// The four built-in models, in the order of their device keys.
const std::vector<CameraModel>& BuiltInCameraModels();
// The built-in model of that name, or null.
const CameraModel* FindBuiltInCameraModel(const std::string& name);

// The emulated camera for a model: its sensor with the sensor's own bus
// address and read form, the model's bcdDevice, speed and lens, and the
// built-in test pattern (a scene replaces it through frameSource).
EmulatedCameraConfig EmulatedCameraConfigFor(const CameraModel& model);

// The emulated sensor of a sensor name as descriptions write it ("OV7670",
// "OV2640", "MI2020", "MI2021"); false for any other name.
bool SensorKindFromName(const std::string& name, EmulatedSensorKind* kind);

// The device instance a .reg text describes: the number of the first key
// below the image device class ("...\Class\{6BDD1FC6-...}\0004" gives 4).
// False when the text holds no such key.
bool DescriptionInstance(const std::string& regText, uint32_t* instance);

// The model of the description loaded in the registry under device instance
// `instance`: the first candidate of its SensorDetect key names the sensor,
// the LensKind byte of that sensor's PropertySetting\ISPType the lens. False
// with a message when the device key, its sensor name, or an emulated sensor
// of that name is missing.
bool DescribeInstalledCamera(uint32_t instance, const std::string& name, CameraModel* model,
                             std::string* error);
