// The camera descriptions built into mr740cam: every .reg file and script
// under cameras/, so that the tool can install a camera with no checkout at
// hand. A model is a folder of cameras/ holding a .reg file.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

struct EmbeddedCameraFile {
  const char* path;  // relative to cameras/, with "/" separators
  const unsigned char* bytes;
  size_t size;
};

extern const EmbeddedCameraFile EmbeddedCameraFiles[];
extern const size_t EmbeddedCameraFileCount;

// The model the tool uses when no camera is named.
inline constexpr char DefaultCameraModel[] = "ov7670-webcam";

// Names of the built-in models, sorted.
std::vector<std::string> EmbeddedCameraModels();

// Installs model `model` (empty: the default): loads its .reg file into the
// registry and writes its scripts below `driveFolder`/Cameras/`model`/, where
// the description's "C:\Cameras\..." paths find them once drive C is mapped
// onto `driveFolder`. False with a message on `err` for an unknown model or a
// file that cannot be written.
bool InstallEmbeddedCamera(const std::string& model, const std::string& driveFolder, FILE* err);
