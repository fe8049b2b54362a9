// The format-conversion library's handle: a small pool block that holds the
// rows chosen for this processor at FUNC_Init.

#include "companions/handle_table.h"
#include "companions/func_rows.h"
#include "core/companions.h"

namespace {

// Marks a live state block, so that a stale or foreign handle is not used.
constexpr uint32_t FuncSignature = 0x434E5546;  // "FUNC"

struct FuncState {
  uint32_t Signature;
  const FuncRowSet* Rows;
  FuncScratch Scratch;
};

// The state block and, after it, the three working rows.
constexpr size_t ScratchRowBytes = 2 * (static_cast<size_t>(FuncScratchCapacity) + 2);
constexpr size_t StateBytes = sizeof(FuncState) + 3 * ScratchRowBytes;

// Handles given out and not yet released.
CompanionHandleTable LiveHandles;

FuncState* StateOf(uint64_t funcHandle) {
  if (!IsLiveHandle(&LiveHandles, funcHandle)) return nullptr;
  auto* state = reinterpret_cast<FuncState*>(static_cast<uintptr_t>(funcHandle));
  return state->Signature == FuncSignature ? state : nullptr;
}

}  // namespace

const FuncRowSet FuncPortableRows = {BayerBgToYuyvRow_C, BayerGrToYuyvRow_C, BayerCellsToYuyvRow_C,
                                     YuyvToBgr24Row_C, YuyvToI420Row_C};

#ifdef MR740_FUNC_HAVE_AVX2
static const FuncRowSet FuncAvx2Rows = {BayerBgToYuyvRow_AVX2, BayerGrToYuyvRow_AVX2,
                                        BayerCellsToYuyvRow_AVX2, YuyvToBgr24Row_AVX2,
                                        YuyvToI420Row_AVX2};
#endif

bool FuncCpuHasAvx2() {
#ifdef MR740_FUNC_HAVE_AVX2
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2");
#else
  return false;
#endif
}

const FuncRowSet* FuncBestRows() {
#ifdef MR740_FUNC_HAVE_AVX2
  if (FuncCpuHasAvx2()) return &FuncAvx2Rows;
#endif
  return &FuncPortableRows;
}

const FuncRowSet* FuncRowsOf(uint64_t funcHandle) {
  FuncState* state = StateOf(funcHandle);
  return state != nullptr ? state->Rows : FuncBestRows();
}

const FuncScratch* FuncScratchOf(uint64_t funcHandle) {
  FuncState* state = StateOf(funcHandle);
  return state != nullptr ? &state->Scratch : nullptr;
}

void FuncUsePortableRows(uint64_t funcHandle) {
  FuncState* state = StateOf(funcHandle);
  if (state != nullptr) state->Rows = &FuncPortableRows;
}

// Start-up (first step of CamInitialize); allocates the state block with the
// working rows of the resampling route (about 50 KB). Returns 0 when the
// pool is out of memory or 64 handles are already live; the conversions
// still work with a null handle, they then pick their rows at every call.
uint64_t FUNC_Init() {
  auto* state =
      static_cast<FuncState*>(ExAllocatePoolWithTag(NonPagedPool, StateBytes, FuncPoolTag));
  if (state == nullptr) return 0;
  state->Signature = FuncSignature;
  state->Rows = FuncBestRows();
  uint8_t* rows = reinterpret_cast<uint8_t*>(state + 1);
  for (int i = 0; i < 3; ++i) state->Scratch.Rows[i] = rows + i * ScratchRowBytes;
  state->Scratch.Capacity = FuncScratchCapacity;
  uint64_t handle = reinterpret_cast<uintptr_t>(state);
  if (!AddLiveHandle(&LiveHandles, handle)) {
    ExFreePoolWithTag(state, FuncPoolTag);
    return 0;
  }
  return handle;
}

// Shut-down (last step of CamUnInitialize).
void FUNC_Exit(uint64_t funcHandle) {
  FuncState* state = StateOf(funcHandle);
  if (state == nullptr || !RemoveLiveHandle(&LiveHandles, funcHandle)) return;
  state->Signature = 0;
  ExFreePoolWithTag(state, FuncPoolTag);
}
