// The image processor's frame routine with fuzzed wire geometry (as the
// controller's registers report it), output size, property values,
// orientation, custom properties and frame content. Every buffer is exactly
// as large as the call needs, so a read or write outside it is caught.
// Sizes stay small except for one input in 256, which may go up to the
// largest frame, 1600 x 1200, so that a replay of thousands stays quick.
//
// Input: flags, a byte that asks for large sizes (0xA5), four size words,
// nine property words, a custom property word, then the frame content
// (repeated to fill the frame).

#include <cstdint>
#include <cstring>
#include <vector>

#include "companions/isp_library.h"
#include "core/companions.h"

namespace {

struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  uint8_t Byte() { return at < size ? data[at++] : 0; }
  uint16_t Word() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
  uint32_t Long() { return Word() | (static_cast<uint32_t>(Word()) << 16); }
};

struct Controller {
  uint8_t registers[256];
};

uint8_t ReadController(void* context, uint8_t reg) {
  return static_cast<Controller*>(context)->registers[reg];
}

void Fill(std::vector<uint8_t>* buffer, const uint8_t* content, size_t length, uint8_t seed) {
  for (size_t i = 0; i < buffer->size(); ++i) {
    (*buffer)[i] = length != 0 ? content[i % length] : static_cast<uint8_t>(seed + i * 7);
  }
}

void Develop(uint64_t handle, Controller* controller, const uint32_t* record, uint32_t width,
             uint32_t height, size_t rawBytes, const uint8_t* content, size_t length,
             uint8_t seed) {
  std::vector<uint8_t> raw(rawBytes);
  Fill(&raw, content, length, seed);
  std::vector<uint8_t> out(size_t{width} * height * 2);
  NTSTATUS status =
      ISPFunc_RawToImg(handle, controller, 2, record, out.data(), raw.data(), width, height);
  bool valid = width != 0 && height != 0 && width <= IspMaxWidth && height <= IspMaxHeight &&
               (width & 1) == 0;
  if ((status == STATUS_SUCCESS) != valid) __builtin_trap();
  if (status != STATUS_SUCCESS) return;
  // The picture keeps to the studio range.
  for (size_t i = 0; i < out.size(); i += 2) {
    if (out[i] < 16 || out[i] > 235 || out[i + 1] < 16 || out[i + 1] > 240) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in{data, size};
  uint8_t flags = in.Byte();
  bool large = in.Byte() == 0xA5;
  bool programmed = (flags & 2) != 0;
  bool rawRegisters = (flags & 0x01) != 0;  // register words as they came, maybe too large

  uint32_t wireWidth = in.Word(), wireHeight = in.Word();
  uint32_t width = in.Word(), height = in.Word();
  if (large) {
    wireWidth %= IspMaxWidth + 1;
    wireHeight %= IspMaxHeight + 1;
    width %= IspMaxWidth + 3;  // now and then too wide
    height %= IspMaxHeight + 3;
  } else if (!rawRegisters) {
    wireWidth %= 131;
    wireHeight %= 99;
  }
  if (!large) {
    width %= 133;
    height %= 101;
  }
  if (rawRegisters && !large && (wireWidth > 200 || wireHeight > 200) &&
      wireWidth <= IspWireMaxWidth && wireHeight <= IspWireMaxHeight) {
    wireWidth %= 131;  // a large frame by accident: keep the replay quick
  }
  uint32_t record[IspPropertyCount];
  for (uint32_t& value : record) value = in.Long();
  uint32_t smoothing = in.Long();
  const uint8_t* content = data + in.at;
  size_t length = in.at < size ? size - in.at : 0;

  Controller controller = {};
  if (programmed) {
    controller.registers[IspWireWidthLowRegister] = wireWidth & 0xFF;
    controller.registers[IspWireWidthHighRegister] = (wireWidth >> 8) & 0xFF;
    controller.registers[IspWireHeightLowRegister] = wireHeight & 0xFF;
    controller.registers[IspWireHeightHighRegister] = (wireHeight >> 8) & 0xFF;
    controller.registers[IspWireLayoutRegister] =
        static_cast<uint8_t>((flags >> 4) & 3);  // 0, 1 or junk
  }

  uint64_t handle = 0;
  if (ISPFunc_Init(&handle, &controller, nullptr, u"FUZZ", 1, nullptr, nullptr, nullptr,
                   ReadController, nullptr) != STATUS_SUCCESS) {
    return 0;
  }
  KSPROPERTY property = {};
  property.Id = IspPropertyAwbSmoothing;
  STREAM_PROPERTY_DESCRIPTOR descriptor = {&property, 0, &smoothing, sizeof(property), 4};
  ISPFunc_prpmanf_SetCustomProperty(handle, &controller, &descriptor);
  ISPFunc_Rotate(handle, &controller, flags & 4, flags & 8);

  // What the library will take the wire frame to be.
  uint8_t layoutRegister = programmed ? static_cast<uint8_t>((flags >> 4) & 3) : 0;
  bool wireYuyv = layoutRegister == IspWireLayoutYuyv;
  uint32_t registerWidth = programmed ? (wireYuyv ? wireWidth & ~1u : wireWidth) : 0;
  uint32_t registerHeight = programmed ? wireHeight : 0;
  bool known = registerWidth != 0 && registerHeight != 0 && registerWidth <= IspWireMaxWidth &&
               registerHeight <= IspWireMaxHeight;

  uint32_t reportedWidth = 0, reportedHeight = 0;
  ISPFunc_StartCapture(handle, &controller, 2, width, height, &reportedWidth, &reportedHeight);
  if (known && (reportedWidth != registerWidth || reportedHeight != registerHeight)) {
    __builtin_trap();
  }
  size_t rawBytes =
      known ? size_t{registerWidth} * registerHeight * (wireYuyv ? 2 : 1) : size_t{width} * height;
  Develop(handle, &controller, record, width, height, rawBytes, content, length, flags);
  if (flags & 0x80) {
    // A second frame after a stop: the output size in Bayer.
    ISPFunc_StopCapture(handle, &controller);
    record[IspSharpness] ^= 0xF;
    Develop(handle, &controller, record, width, height, size_t{width} * height, content, length,
            static_cast<uint8_t>(flags + 1));
  } else {
    Develop(handle, &controller, nullptr, width, height, rawBytes, content, length, flags);
  }
  uint32_t value = 0;
  for (uint32_t id : {IspPropertyMeanLuma, IspPropertyWhiteGains, IspPropertyVersion}) {
    property.Id = id;
    descriptor.PropertyInfo = &value;
    ISPFunc_prpmanf_GetCustomProperty(handle, &controller, &descriptor);
  }
  ISPFunc_Exit(handle, &controller, nullptr);
  return 0;
}
