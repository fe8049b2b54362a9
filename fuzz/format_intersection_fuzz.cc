// Random data ranges and formats of random sizes through the format check
// and the intersection: nothing may read past what the caller handed over,
// write past the caller's buffer, or report more bytes than fit in it.
//
// Input: the camera's offered list (a count, then that many row numbers),
// then operations until the input runs out. Each operation builds the
// caller's memory either from raw input bytes or from a catalogue record
// with a few bytes changed, in a heap block of exactly the size the caller
// claims, so that the sanitizers see any read beyond it.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/device_context.h"
#include "core/format_catalogue.h"

namespace {

struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool More() const { return at < size; }
  uint8_t Byte() { return at < size ? data[at++] : 0; }
  uint16_t Word() { return uint16_t(Byte() | Byte() << 8); }
};

// The caller's range or format: `bytes` long, its FormatSize at most that.
std::vector<uint8_t> CallerMemory(Reader& in) {
  const uint8_t kind = in.Byte();
  std::vector<uint8_t> memory;
  if (kind & 1) {
    // A catalogue record, cut or extended, with changed bytes.
    const KS_DATARANGE_VIDEO* record = FormatCatalogue[in.Byte() % FormatCatalogueRows].DataRange;
    uint32_t bytes = sizeof(KS_DATARANGE_VIDEO);
    if (kind & 2) bytes = 4 + in.Word() % 400;
    memory.assign(bytes, 0);
    std::memcpy(memory.data(), record, bytes < sizeof *record ? bytes : sizeof *record);
    for (uint32_t changes = (kind >> 2) & 7; changes > 0; --changes) {
      const uint16_t at = in.Word();
      memory[at % bytes] = in.Byte();
    }
  } else {
    const uint32_t bytes = 4 + in.Word() % 400;
    memory.assign(bytes, 0);
    for (uint8_t& byte : memory) byte = in.Byte();
  }
  // The host hands the size over in FormatSize; a smaller claim is the
  // caller's to make, a larger one would be the host lying.
  uint32_t formatSize = 0;
  std::memcpy(&formatSize, memory.data(), sizeof formatSize);
  if (formatSize > memory.size() || (kind & 0x20)) formatSize = uint32_t(memory.size());
  std::memcpy(memory.data(), &formatSize, sizeof formatSize);
  // Exactly as long as claimed, so that the sanitizers see a read past it.
  memory.resize(formatSize < 4 ? 4 : formatSize);
  memory.shrink_to_fit();
  return memory;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader in{data, size};
  auto* context = static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)));
  context->FormatCount = in.Byte() % (FormatCatalogueRows + 1);
  for (uint32_t i = 0; i < context->FormatCount; ++i) {
    context->FormatList[i] = FormatCatalogue[in.Byte() % FormatCatalogueRows].DataRange;
  }

  for (int operations = 0; in.More() && operations < 64; ++operations) {
    const uint8_t op = in.Byte();
    const uint32_t stream = op & 0x80 ? in.Byte() : (op >> 4) & 1;
    std::vector<uint8_t> caller = CallerMemory(in);
    if ((op & 1) == 0) {
      CheckFormat(context, reinterpret_cast<const KSDATAFORMAT*>(caller.data()), stream);
      continue;
    }
    const uint32_t bufferBytes = in.Word() % 320;
    std::vector<uint8_t> buffer(bufferBytes);
    buffer.shrink_to_fit();
    STREAM_DATA_INTERSECT_INFO info = {stream, caller.data(), bufferBytes ? buffer.data() : nullptr,
                                       bufferBytes};
    HW_STREAM_REQUEST_BLOCK srb = {};
    srb.Command = SRB_GET_DATA_INTERSECTION;
    srb.CommandData.IntersectInfo = &info;
    const std::vector<uint8_t> before = caller;
    const NTSTATUS status = IntersectFormat(context, &srb);
    if (srb.Status != status) std::abort();
    if (status == STATUS_SUCCESS && srb.ActualBytesTransferred > bufferBytes) std::abort();
    if (status == STATUS_SUCCESS &&
        reinterpret_cast<const KSDATAFORMAT*>(buffer.data())->FormatSize !=
            srb.ActualBytesTransferred) {
      std::abort();
    }
    if (caller != before) std::abort();  // the caller's range is only read
  }
  std::free(context);
  return 0;
}
