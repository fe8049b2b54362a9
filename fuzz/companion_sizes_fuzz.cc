// The image entry points of the format-conversion and effects libraries with
// sizes and content from the input, up to 1600 x 1200. Every buffer has
// exactly the size the call needs, so a read or write past it is caught by
// AddressSanitizer; the vector rows are checked against the portable rows on
// the same input.
//
// Input: byte 0 picks the size class (0xFF with byte 1 0xA5: up to
// 1600 x 1200; low nibble 0: up to 320 x 240; else up to 64 x 48), bytes 2-5
// the picture size, byte 6 how the raw size relates to it (same, twice, half,
// four times, a quarter, or free from bytes 7-10), bytes 11-12 the effect's
// category and list. The rest is picture content, repeated as needed.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "companions/func_rows.h"
#include "companions/spef_effects.h"
#include "core/companions.h"

namespace {

constexpr uint32_t MaxWidth = 1600, MaxHeight = 1200;

uint32_t Bounded(uint32_t value, uint32_t limit) {
  return value == 0 ? 1 : (value > limit ? limit : value);
}

void Fill(std::vector<uint8_t>& buffer, const uint8_t* content, size_t contentSize) {
  for (size_t i = 0; i < buffer.size(); ++i) {
    buffer[i] = contentSize != 0 ? content[i % contentSize] : static_cast<uint8_t>(i * 37);
  }
}

void Check(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 13) return 0;
  uint32_t maxW = 64, maxH = 48;
  if (data[0] == 0xFF && data[1] == 0xA5) {
    maxW = MaxWidth;
    maxH = MaxHeight;
  } else if ((data[0] & 15) == 0) {
    maxW = 320;
    maxH = 240;
  }
  uint32_t w = 1 + (static_cast<uint32_t>(data[2] | data[3] << 8) % maxW);
  uint32_t h = 1 + (static_cast<uint32_t>(data[4] | data[5] << 8) % maxH);
  uint32_t rawW = w, rawH = h;
  switch (data[6] % 6) {
    case 1:
      rawW = w * 2;
      rawH = h * 2;
      break;
    case 2:
      rawW = w / 2;
      rawH = h / 2;
      break;
    case 3:
      rawW = w * 4;
      rawH = h * 4;
      break;
    case 4:
      rawW = w / 4;
      rawH = h / 4;
      break;
    case 5:
      rawW = static_cast<uint32_t>(data[7] | data[8] << 8) % (maxW + 1);
      rawH = static_cast<uint32_t>(data[9] | data[10] << 8) % (maxH + 1);
      break;
    default:
      break;
  }
  // Zero raw sizes stay zero (the library paints black); others are bounded.
  if (rawW != 0) rawW = Bounded(rawW, MaxWidth);
  if (rawH != 0) rawH = Bounded(rawH, MaxHeight);
  const uint8_t* content = data + 13;
  size_t contentSize = size - 13;

  uint64_t best = FUNC_Init(), portable = FUNC_Init();
  FuncUsePortableRows(portable);
  // The effects record is 2.3 MB: one for the whole run.
  static const uint64_t spef = SPEF_Init(u"\\??\\C:\\Camera");

  size_t pixels = static_cast<size_t>(w) * h;
  std::vector<uint8_t> raw(static_cast<size_t>(rawW) * rawH);
  Fill(raw, content, contentSize);
  std::vector<uint8_t> yuyv(2 * pixels), check(2 * pixels);
  FUNC_RawToYuv(best, raw.empty() ? nullptr : raw.data(), rawW, rawH, yuyv.data(), w, h);
  FUNC_RawToYuv(portable, raw.empty() ? nullptr : raw.data(), rawW, rawH, check.data(), w, h);
  Check(yuyv == check);

  if (spef != 0) {
    auto* record = reinterpret_cast<SpefRecord*>(spef);
    record->Category = data[11] % 4;
    record->List = data[12] % 8;
    SPEF_PropertySet(spef, w, h);
    check = yuyv;
    SPEF_ConvertFrame(spef, yuyv.data(), w, h);
    for (uint32_t i = 0; i < SpefEffectCount; ++i) {
      if (SpefEffects[i].Category == record->Category && SpefEffects[i].List == record->List) {
        SpefApplyEffect(&SpefPortableRows, SpefPrivateOf(spef), i, check.data(), w, h);
      }
    }
    Check(yuyv == check);
  }

  // Converted pictures, and raw content taken as YUYV.
  std::vector<uint8_t> source(2 * pixels);
  Fill(source, content, contentSize);
  for (const std::vector<uint8_t>* picture : {&yuyv, &source}) {
    std::vector<uint8_t> bgr(3 * pixels), bgrCheck(3 * pixels);
    FUNC_YuvToBmp(best, picture->data(), w, h, bgr.data());
    FUNC_YuvToBmp(portable, picture->data(), w, h, bgrCheck.data());
    Check(bgr == bgrCheck);
    size_t i420Size = pixels + 2 * static_cast<size_t>(w / 2) * (h / 2);
    std::vector<uint8_t> i420(i420Size), i420Check(i420Size);
    FUNC_YuvToI420(best, picture->data(), w, h, i420.data());
    FUNC_YuvToI420(portable, picture->data(), w, h, i420Check.data());
    Check(i420 == i420Check);
  }

  FUNC_Exit(portable);
  FUNC_Exit(best);
  return 0;
}
