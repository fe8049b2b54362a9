// The image-property model: the live state of each of the camera's nine
// controls (brightness and its kin).
#pragma once

#include <cstdint>

// The live state of one image property.
struct ImagePropertyState {
  uint32_t Value;         // current logical value
  uint32_t Flag;          // 1 automatic, 2 manual, 0 where no saved mode exists
  uint32_t AutoEnabled;   // copy of the registry value
  uint32_t RegisterAddr;  // copy of the registry value
};

// ColorEnable keeps only its value and register; its flag and auto-enabled
// cell is one static cell shared by all cameras.
struct ColorEnablePropertyState {
  uint32_t Value;
  uint32_t RegisterAddr;
};

// The records in the order the image library receives their values.
struct PropertyRecordSet {
  ImagePropertyState Brightness;
  ImagePropertyState Contrast;
  ImagePropertyState Saturation;
  ImagePropertyState Sharpness;
  ImagePropertyState WhiteBalance;
  ImagePropertyState Hue;
  ImagePropertyState Gamma;
  ImagePropertyState BackLight;
  ColorEnablePropertyState ColorEnable;
};
