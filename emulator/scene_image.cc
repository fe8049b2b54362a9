// Picture files for the Image scene: PNG through libpng's simplified reader,
// binary PPM (P6) by hand. Configuration time only; never on the stream.

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "emulator/scene.h"

namespace {

constexpr uint32_t kMaxSide = 16384;
constexpr uint64_t kMaxPixels = uint64_t(32) << 20;

struct FileCloser {
  void operator()(std::FILE* f) const {
    if (f) std::fclose(f);
  }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool SizeAllowed(uint64_t width, uint64_t height) {
  return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide &&
         width * height <= kMaxPixels;
}

std::string SizeText(uint64_t width, uint64_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

bool LoadPng(const std::string& path, SceneImage* image, std::string* error) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) {
    *error = path + ": not a PNG file it can read (" + png.message + ")";
    png_image_free(&png);
    return false;
  }
  if (!SizeAllowed(png.width, png.height)) {
    *error = path + ": picture of " + SizeText(png.width, png.height) +
             " pixels; at most 16384 a side and 32 Mi in all";
    png_image_free(&png);
    return false;
  }
  png.format = PNG_FORMAT_RGB;
  SceneImage loaded;
  loaded.width = png.width;
  loaded.height = png.height;
  loaded.rgb.resize(PNG_IMAGE_SIZE(png));
  const png_color black = {0, 0, 0};
  if (!png_image_finish_read(&png, &black, loaded.rgb.data(), 0, nullptr)) {
    *error = path + ": PNG file damaged (" + png.message + ")";
    png_image_free(&png);
    return false;
  }
  *image = std::move(loaded);
  return true;
}

// The PPM header: "P6", width, height, maxval, each after white space and
// comments (# to the end of the line), then one white space byte.
bool ReadPpmNumber(std::FILE* f, uint64_t* value) {
  int c = std::fgetc(f);
  for (;;) {
    while (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f') {
      c = std::fgetc(f);
    }
    if (c != '#') break;
    while (c != '\n' && c != '\r' && c != EOF) c = std::fgetc(f);
  }
  if (c < '0' || c > '9') return false;
  uint64_t v = 0;
  while (c >= '0' && c <= '9') {
    v = v * 10 + uint64_t(c - '0');
    if (v > 0xFFFFFFFFu) return false;
    c = std::fgetc(f);
  }
  // The byte after the number must be white space (the last one ends the
  // header and is taken with it).
  if (!(c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f')) return false;
  *value = v;
  return true;
}

bool LoadPpm(const std::string& path, std::FILE* f, SceneImage* image, std::string* error) {
  uint64_t width = 0, height = 0, maxval = 0;
  if (!ReadPpmNumber(f, &width) || !ReadPpmNumber(f, &height) || !ReadPpmNumber(f, &maxval)) {
    *error = path + ": PPM header damaged (expected P6, width, height and maximum value)";
    return false;
  }
  if (!SizeAllowed(width, height)) {
    *error = path + ": picture of " + SizeText(width, height) +
             " pixels; at least 1 x 1, at most 16384 a side and 32 Mi in all";
    return false;
  }
  if (maxval < 1 || maxval > 65535) {
    *error = path + ": PPM maximum value " + std::to_string(maxval) + " outside 1..65535";
    return false;
  }
  const size_t bytesPerSample = maxval > 255 ? 2 : 1;
  const size_t samples = size_t(width * height * 3);
  std::vector<uint8_t> raw(samples * bytesPerSample);
  if (std::fread(raw.data(), 1, raw.size(), f) != raw.size()) {
    *error = path + ": PPM file cut short (" + SizeText(width, height) + " pixels announced)";
    return false;
  }
  SceneImage loaded;
  loaded.width = uint32_t(width);
  loaded.height = uint32_t(height);
  loaded.rgb.resize(samples);
  for (size_t i = 0; i < samples; ++i) {
    const uint64_t v = bytesPerSample == 2 ? (uint64_t(raw[2 * i]) << 8 | raw[2 * i + 1]) : raw[i];
    loaded.rgb[i] = uint8_t((std::min(v, maxval) * 255 + maxval / 2) / maxval);
  }
  *image = std::move(loaded);
  return true;
}

}  // namespace

bool LoadSceneImage(const std::string& path, SceneImage* image, std::string* error) noexcept {
  std::string message;
  bool ok = false;
  try {
    File f(std::fopen(path.c_str(), "rb"));
    if (!f) {
      message = path + ": cannot open (" + std::strerror(errno) + ")";
    } else {
      unsigned char magic[8] = {};
      const size_t got = std::fread(magic, 1, sizeof magic, f.get());
      static const unsigned char kPngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
      if (got == 8 && std::memcmp(magic, kPngSignature, 8) == 0) {
        f.reset();
        ok = LoadPng(path, image, &message);
      } else if (got >= 3 && magic[0] == 'P' && magic[1] == '6' &&
                 std::strchr(" \t\r\n\v\f#", magic[2]) != nullptr && magic[2] != 0) {
        std::fseek(f.get(), 2, SEEK_SET);
        ok = LoadPpm(path, f.get(), image, &message);
      } else if (got >= 2 && magic[0] == 'P' && magic[1] >= '1' && magic[1] <= '5') {
        message = path + ": a PPM/PGM/PBM of type P" + char(magic[1]) +
                  "; only binary colour PPM (P6) and PNG are read";
      } else {
        message = path + ": neither a PNG nor a binary PPM (P6) file";
      }
    }
  } catch (...) {
    message = path + ": out of memory";
    ok = false;
  }
  if (!ok && error) {
    try {
      *error = message;
    } catch (...) {
    }
  }
  return ok;
}
