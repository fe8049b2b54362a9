// Any bytes as a camera script, run against a recording host on the virtual
// clock: nothing may crash, leak a file handle or pool, or hang. WAIT is
// bounded by the engine; the host fails every request after a fixed number,
// so that a script of many long WAITs still ends soon.
//
// Input: one byte of camera settings (bit 0 revision 2 chip, bit 1 a two-step
// read delay), one byte RegisterAddrLo, then the script file.

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "platform/files_control.h"
#include "platform/handles.h"
#include "platform/kernel_control.h"
#include "script/script_engine.h"
#include "tests/vendor_recorder.h"

namespace {

constexpr size_t RequestsPerRun = 20000;

struct Scene {
  Scene() {
    SetDebugPrintSink([](void*, const char*) {}, nullptr);
    SetKernelClockMode(KernelClockMode::Virtual);
    folder =
        std::filesystem::temp_directory_path() / ("mr740-script-fuzz-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    MapDosDrive('F', folder.string());
  }
  ~Scene() {
    MapDosDrive('F', "");
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  std::filesystem::path folder;
  VendorRecorder host;
};

Scene& Shared() {
  static Scene scene;
  return scene;
}

// Goes on after every failed line, so the skipping of failed blocks is run too.
const ScriptObserver GoOn = {
    [](void*, const char* section, uint64_t) {
      if (std::strlen(section) > ScriptSectionMaxChars) std::abort();
    },
    [](void*, uint64_t, ScriptFault, const char*) -> BOOLEAN { return TRUE; },
};

void Check(NTSTATUS status) {
  if (status != STATUS_SUCCESS && status != STATUS_INVALID_PARAMETER) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Scene& scene = Shared();
  const uint8_t settings = size > 0 ? data[0] : 0;
  const uint8_t addrLo = size > 1 ? data[1] : 0;
  const size_t skip = size < 2 ? size : 2;
  {
    std::ofstream file(scene.folder / "fuzz.txt", std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(data + skip), std::streamsize(size - skip));
  }

  auto* context = static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)));
  context->IsRevision2Chip = settings & 1;
  context->ReadDelay = (settings & 2) ? 5000 : 0;
  context->RegisterAddrLo = addrLo;
  std::shared_ptr<size_t> sent = std::make_shared<size_t>(0);
  scene.host.status = [sent](const VendorCall&) {
    return ++*sent > RequestsPerRun ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS;
  };
  const uint32_t filesBefore = OpenPlatformHandles(HandleKind::File);
  const uint64_t poolBefore = PoolLiveBlocks(PoolTagWdm);

  const char* sections[] = {nullptr, "INIT"};
  for (const char* section : sections) {
    *sent = 0;
    scene.host.Clear();
    Check(ExecuteScriptFile(context, u"F:\\fuzz.txt", section));
  }
  *sent = 0;
  scene.host.Clear();
  HANDLE handle = nullptr;
  if (OpenHostFileForReading((scene.folder / "fuzz.txt").string(), &handle)) {
    Check(RunScriptFile(context, handle, nullptr, &GoOn, nullptr));
    ZwClose(handle);
  }

  if (OpenPlatformHandles(HandleKind::File) != filesBefore) std::abort();
  if (PoolLiveBlocks(PoolTagWdm) != poolBefore) std::abort();
  scene.host.Clear();
  std::free(context);
  return 0;
}
