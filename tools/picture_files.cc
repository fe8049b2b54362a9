// PNG pictures and YUV4MPEG2 videos from stream frames.

#include "tools/picture_files.h"

#include <png.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>

namespace {

uint8_t Clamp8(float value) {
  return uint8_t(std::lround(std::clamp(value, 0.0f, 255.0f)));
}

// BT.601 studio range to full-range RGB.
void YuvToRgb(int y, int cb, int cr, uint8_t* rgb) {
  const float luma = 255.0f / 219.0f * float(y - 16);
  const float u = 255.0f / 224.0f * float(cb - 128);
  const float v = 255.0f / 224.0f * float(cr - 128);
  // Kr 0.299, Kb 0.114: R = Y + 1.402 V, G = Y - 0.344136 U - 0.714136 V,
  // B = Y + 1.772 U.
  rgb[0] = Clamp8(luma + 1.402f * v);
  rgb[1] = Clamp8(luma - 0.344136f * u - 0.714136f * v);
  rgb[2] = Clamp8(luma + 1.772f * u);
}

// Full-range RGB to BT.601 studio range.
void RgbToYuv(const uint8_t* rgb, uint8_t* y, uint8_t* cb, uint8_t* cr) {
  const float r = rgb[0], g = rgb[1], b = rgb[2];
  const float luma = 0.299f * r + 0.587f * g + 0.114f * b;
  *y = Clamp8(16.0f + 219.0f / 255.0f * luma);
  *cb = Clamp8(128.0f + 224.0f / 255.0f * (b - luma) / 1.772f);
  *cr = Clamp8(128.0f + 224.0f / 255.0f * (r - luma) / 1.402f);
}

std::string Temporary(const std::string& path) { return path + ".part"; }

bool Commit(const std::string& temporary, const std::string& path, std::string* error) {
  std::error_code failure;
  std::filesystem::rename(temporary, path, failure);
  if (failure) {
    std::filesystem::remove(temporary, failure);
    *error = "cannot write " + path + ": " + failure.message();
    return false;
  }
  return true;
}

bool CheckFrame(size_t frameBytes, const PictureLayout& layout, std::string* error) {
  if (layout.width == 0 || layout.height == 0) {
    *error = "a picture needs a width and a height";
    return false;
  }
  if (frameBytes < PictureFrameBytes(layout)) {
    *error = "the frame holds " + std::to_string(frameBytes) + " bytes, a " +
             PictureFormatName(layout.format) + " frame of " + std::to_string(layout.width) +
             "x" + std::to_string(layout.height) + " needs " +
             std::to_string(PictureFrameBytes(layout));
    return false;
  }
  return true;
}

}  // namespace

const char* PictureFormatName(PictureFormat format) {
  switch (format) {
    case PictureFormat::RGB24:
      return "RGB24";
    case PictureFormat::YUY2:
      return "YUY2";
    case PictureFormat::I420:
      return "I420";
  }
  return "?";
}

bool PictureFormatFromName(const std::string& name, PictureFormat* format) {
  std::string upper = name;
  for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
  if (upper == "RGB24") {
    *format = PictureFormat::RGB24;
  } else if (upper == "YUY2" || upper == "YUYV") {
    *format = PictureFormat::YUY2;
  } else if (upper == "I420") {
    *format = PictureFormat::I420;
  } else {
    return false;
  }
  return true;
}

bool PictureFormatFromCompression(uint32_t compression, PictureFormat* format) {
  switch (compression) {
    case 0:           // BI_RGB
    case 0xE436EB7D:  // the first word of MEDIASUBTYPE_RGB24
      *format = PictureFormat::RGB24;
      return true;
    case 0x32595559:  // "YUY2"
      *format = PictureFormat::YUY2;
      return true;
    case 0x30323449:  // "I420"
      *format = PictureFormat::I420;
      return true;
  }
  return false;
}

size_t PictureFrameBytes(const PictureLayout& layout) {
  const size_t w = layout.width, h = layout.height;
  switch (layout.format) {
    case PictureFormat::RGB24:
      return w * h * 3;
    case PictureFormat::YUY2:
      return w * h * 2;
    case PictureFormat::I420:
      return w * h + 2 * ((w + 1) / 2) * ((h + 1) / 2);
  }
  return 0;
}

std::vector<uint8_t> FrameToRgb(const uint8_t* frame, const PictureLayout& layout) {
  const uint32_t w = layout.width, h = layout.height;
  std::vector<uint8_t> rgb(size_t(w) * h * 3);
  for (uint32_t y = 0; y < h; ++y) {
    uint8_t* out = rgb.data() + size_t(y) * w * 3;
    switch (layout.format) {
      case PictureFormat::RGB24: {
        const uint8_t* row = frame + size_t(h - 1 - y) * w * 3;
        for (uint32_t x = 0; x < w; ++x) {
          out[3 * x + 0] = row[3 * x + 2];
          out[3 * x + 1] = row[3 * x + 1];
          out[3 * x + 2] = row[3 * x + 0];
        }
        break;
      }
      case PictureFormat::YUY2: {
        const uint8_t* row = frame + size_t(y) * w * 2;
        for (uint32_t x = 0; x < w; ++x) {
          const uint8_t* pair = row + (x / 2) * 4;
          YuvToRgb(row[2 * x], pair[1], pair[3], out + 3 * x);
        }
        break;
      }
      case PictureFormat::I420: {
        const size_t cw = (w + 1) / 2, ch = (h + 1) / 2;
        const uint8_t* luma = frame + size_t(y) * w;
        const uint8_t* cb = frame + size_t(w) * h + (y / 2) * cw;
        const uint8_t* cr = frame + size_t(w) * h + cw * ch + (y / 2) * cw;
        for (uint32_t x = 0; x < w; ++x) YuvToRgb(luma[x], cb[x / 2], cr[x / 2], out + 3 * x);
        break;
      }
    }
  }
  return rgb;
}

bool WritePngPicture(const std::string& path, const uint8_t* frame, size_t frameBytes,
                     const PictureLayout& layout, std::string* error) {
  if (!CheckFrame(frameBytes, layout, error)) return false;
  const std::vector<uint8_t> rgb = FrameToRgb(frame, layout);
  const std::string temporary = Temporary(path);
  FILE* file = std::fopen(temporary.c_str(), "wb");
  if (!file) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!png || !info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    std::fclose(file);
    std::remove(temporary.c_str());
    *error = "cannot write " + path + ": the PNG encoder failed";
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, layout.width, layout.height, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (uint32_t y = 0; y < layout.height; ++y) {
    png_write_row(png, rgb.data() + size_t(y) * layout.width * 3);
  }
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  if (std::fclose(file) != 0) {
    std::remove(temporary.c_str());
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return Commit(temporary, path, error);
}

bool ReadPngRgb(const std::string& path, std::vector<uint8_t>* rgb, uint32_t* width,
                uint32_t* height, std::string* error) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, path.c_str())) {
    *error = path + ": " + image.message;
    return false;
  }
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
    *error = path + ": " + image.message;
    png_image_free(&image);
    return false;
  }
  *width = image.width;
  *height = image.height;
  *rgb = std::move(pixels);
  return true;
}

// ---------------------------------------------------------------- Y4M

Y4mWriter::~Y4mWriter() {
  if (file_) {
    std::fclose(file_);
    std::remove(temporary_.c_str());
  }
}

const char* Y4mWriter::ColourSpace(PictureFormat format) {
  switch (format) {
    case PictureFormat::I420:
      return "420";
    case PictureFormat::YUY2:
      return "422";
    case PictureFormat::RGB24:
      return "444";
  }
  return "444";
}

bool Y4mWriter::Open(const std::string& path, const PictureLayout& layout, std::string* error) {
  if (file_) {
    *error = "a video is open already";
    return false;
  }
  if (layout.width == 0 || layout.height == 0) {
    *error = "a video needs a width and a height";
    return false;
  }
  temporary_ = Temporary(path);
  file_ = std::fopen(temporary_.c_str(), "wb");
  if (!file_) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  path_ = path;
  layout_ = layout;
  frames_ = 0;
  char header[96];
  const int n = std::snprintf(header, sizeof header, "YUV4MPEG2 W%u H%u F30:1 Ip A1:1 C%s\n",
                              layout.width, layout.height, ColourSpace(layout.format));
  if (std::fwrite(header, 1, size_t(n), file_) != size_t(n)) {
    *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool Y4mWriter::WriteFrame(const uint8_t* frame, size_t frameBytes, std::string* error) {
  if (!file_) {
    *error = "no video is open";
    return false;
  }
  if (!CheckFrame(frameBytes, layout_, error)) return false;
  const size_t w = layout_.width, h = layout_.height, pixels = w * h;
  const uint8_t* planes = frame;
  size_t bytes = PictureFrameBytes(layout_);
  switch (layout_.format) {
    case PictureFormat::I420:
      break;  // already the planes of C420
    case PictureFormat::YUY2: {
      // Y0 Cb Y1 Cr to a Y plane and Cb and Cr planes at half width.
      const size_t cw = (w + 1) / 2;
      planes_.resize(pixels + 2 * cw * h);
      uint8_t* luma = planes_.data();
      uint8_t* cb = luma + pixels;
      uint8_t* cr = cb + cw * h;
      for (size_t y = 0; y < h; ++y) {
        const uint8_t* row = frame + y * w * 2;
        for (size_t x = 0; x < w; ++x) luma[y * w + x] = row[2 * x];
        for (size_t x = 0; x < cw; ++x) {
          cb[y * cw + x] = row[4 * x + 1];
          cr[y * cw + x] = row[4 * x + 3];
        }
      }
      planes = planes_.data();
      bytes = planes_.size();
      break;
    }
    case PictureFormat::RGB24: {
      planes_.resize(pixels * 3);
      uint8_t* luma = planes_.data();
      uint8_t* cb = luma + pixels;
      uint8_t* cr = cb + pixels;
      for (size_t y = 0; y < h; ++y) {
        const uint8_t* row = frame + (h - 1 - y) * w * 3;  // bottom-up BGR
        for (size_t x = 0; x < w; ++x) {
          const uint8_t rgb[3] = {row[3 * x + 2], row[3 * x + 1], row[3 * x]};
          const size_t at = y * w + x;
          RgbToYuv(rgb, luma + at, cb + at, cr + at);
        }
      }
      planes = planes_.data();
      bytes = planes_.size();
      break;
    }
  }
  if (std::fwrite("FRAME\n", 1, 6, file_) != 6 || std::fwrite(planes, 1, bytes, file_) != bytes) {
    *error = "cannot write " + path_ + ": " + std::strerror(errno);
    return false;
  }
  ++frames_;
  return true;
}

bool Y4mWriter::Close(std::string* error) {
  if (!file_) {
    *error = "no video is open";
    return false;
  }
  const bool written = std::fclose(file_) == 0;
  file_ = nullptr;
  if (!written) {
    std::remove(temporary_.c_str());
    *error = "cannot write " + path_ + ": " + std::strerror(errno);
    return false;
  }
  return Commit(temporary_, path_, error);
}
