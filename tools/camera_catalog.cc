// Installing a built-in camera description.

#include "tools/camera_catalog.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "platform/registry_control.h"

namespace {

std::string_view ModelOf(std::string_view path) { return path.substr(0, path.find('/')); }

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

}  // namespace

std::vector<std::string> EmbeddedCameraModels() {
  std::vector<std::string> models;
  for (size_t i = 0; i < EmbeddedCameraFileCount; ++i) {
    std::string_view path = EmbeddedCameraFiles[i].path;
    if (EndsWith(path, ".reg")) models.emplace_back(ModelOf(path));
  }
  std::sort(models.begin(), models.end());
  models.erase(std::unique(models.begin(), models.end()), models.end());
  return models;
}

bool InstallEmbeddedCamera(const std::string& model, const std::string& driveFolder, FILE* err) {
  const std::string name = model.empty() ? DefaultCameraModel : model;
  const std::vector<std::string> models = EmbeddedCameraModels();
  if (std::find(models.begin(), models.end(), name) == models.end()) {
    std::fprintf(err, "mr740cam: no built-in camera %s (try: mr740cam cameras)\n", name.c_str());
    return false;
  }
  // Scripts first: a description whose scripts are missing would run nothing.
  for (size_t i = 0; i < EmbeddedCameraFileCount; ++i) {
    const EmbeddedCameraFile& file = EmbeddedCameraFiles[i];
    if (ModelOf(file.path) != name || !EndsWith(file.path, ".txt")) continue;
    std::filesystem::path target = std::filesystem::path(driveFolder) / "Cameras" / file.path;
    std::error_code error;
    std::filesystem::create_directories(target.parent_path(), error);
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(file.bytes), std::streamsize(file.size));
    out.close();
    if (!out) {
      std::fprintf(err, "mr740cam: cannot write %s\n", target.string().c_str());
      return false;
    }
  }
  for (size_t i = 0; i < EmbeddedCameraFileCount; ++i) {
    const EmbeddedCameraFile& file = EmbeddedCameraFiles[i];
    if (ModelOf(file.path) != name || !EndsWith(file.path, ".reg")) continue;
    std::string error;
    std::string_view text(reinterpret_cast<const char*>(file.bytes), file.size);
    if (!LoadRegistryText(text, std::string("cameras/") + file.path, &error)) {
      std::fprintf(err, "mr740cam: %s\n", error.c_str());
      return false;
    }
  }
  return true;
}
