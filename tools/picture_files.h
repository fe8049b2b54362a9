// Picture files from the frames a stream delivers: PNG for single pictures
// and stills, YUV4MPEG2 (.y4m) for video, which common players (mpv, ffplay,
// VLC) play as it is.
//
// A frame is laid out as the driver delivers it (core/companions.h):
//   RGB24  a bottom-up BGR bitmap, stride 3 x width, the last row first;
//   YUY2   Y0 Cb Y1 Cr per pixel pair, stride 2 x width;
//   I420   the Y plane, then the Cb plane, then the Cr plane, the chroma
//          planes at half width and half height (rounded up).
// YUV is BT.601 in studio range (Y 16..235, Cb and Cr 16..240), as the
// driver converts.
//
// Files are written beside their target and renamed into place, so a file is
// either whole or untouched. These routines run in the tool, not the driver:
// they allocate and use floating point.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

enum class PictureFormat : uint8_t { RGB24, YUY2, I420 };

struct PictureLayout {
  PictureFormat format = PictureFormat::RGB24;
  uint32_t width = 0;
  uint32_t height = 0;
};

// "RGB24", "YUY2", "I420".
const char* PictureFormatName(PictureFormat format);
// The reverse, case-insensitive; "YUYV" is YUY2 too.
bool PictureFormatFromName(const std::string& name, PictureFormat* format);
// From the biCompression word of a video format (0 is RGB24, as BI_RGB).
bool PictureFormatFromCompression(uint32_t compression, PictureFormat* format);

// Bytes of one frame of that layout.
size_t PictureFrameBytes(const PictureLayout& layout);

// The frame as top-down RGB rows, three bytes a pixel. `frame` holds
// PictureFrameBytes(layout) bytes.
std::vector<uint8_t> FrameToRgb(const uint8_t* frame, const PictureLayout& layout);

// Writes one frame as an 8-bit RGB PNG file. False with a message when the
// frame is short, the layout empty or the file cannot be written.
bool WritePngPicture(const std::string& path, const uint8_t* frame, size_t frameBytes,
                     const PictureLayout& layout, std::string* error);

// Reads an 8-bit RGB or RGBA PNG back as top-down RGB rows (for tests and
// checks). False with a message when it is no such file.
bool ReadPngRgb(const std::string& path, std::vector<uint8_t>* rgb, uint32_t* width,
                uint32_t* height, std::string* error);

// A YUV4MPEG2 video: header "YUV4MPEG2 W<w> H<h> F30:1 Ip A1:1 C<c>\n", then
// "FRAME\n" and the planes of each frame. I420 frames are written as they are
// (C420, chroma centred between the lines, as JPEG and MPEG-1 site it); YUY2
// frames are split into planes (C422); RGB24 frames are converted to BT.601
// planes at full resolution (C444).
class Y4mWriter {
 public:
  Y4mWriter() = default;
  ~Y4mWriter();  // an unfinished file is removed
  Y4mWriter(const Y4mWriter&) = delete;
  Y4mWriter& operator=(const Y4mWriter&) = delete;

  bool Open(const std::string& path, const PictureLayout& layout, std::string* error);
  bool WriteFrame(const uint8_t* frame, size_t frameBytes, std::string* error);
  // Completes the file and renames it into place.
  bool Close(std::string* error);

  uint64_t Frames() const { return frames_; }
  // The colour space word of the header for a stream format: "420", "422",
  // "444".
  static const char* ColourSpace(PictureFormat format);

 private:
  FILE* file_ = nullptr;
  std::string path_;
  std::string temporary_;
  PictureLayout layout_;
  uint64_t frames_ = 0;
  std::vector<uint8_t> planes_;
};
