// The special-effects library's handle and its calls outside the frame path.
//
// The handle is the address of one pool block: the SpefRecord the driver
// reads and writes (category and list words, five parameter words, name
// slots), followed by this library's private block (spef_effects.h). Every
// call with handle 0, or with a handle that is not a live record (released,
// or never given out), does nothing; at most 64 records live at once.

#include <cstring>

#include "companions/handle_table.h"
#include "companions/spef_effects.h"

namespace {

constexpr uint32_t SpefSignature = 0x46455053;  // "SPEF"
// The private block starts at the first 16-byte boundary after the record.
constexpr size_t PrivateOffset = (sizeof(SpefRecord) + 15) & ~static_cast<size_t>(15);
constexpr size_t BlockBytes = PrivateOffset + sizeof(SpefPrivate);

// Handles given out and not yet released.
CompanionHandleTable LiveHandles;

SpefRecord* RecordOf(uint64_t handle) {
  return reinterpret_cast<SpefRecord*>(static_cast<uintptr_t>(handle));
}

void WriteName(SpefRecord* record, uint32_t category, uint32_t list, uint32_t n, const char* name) {
  if (name == nullptr) return;
  // Slot ((category x 64 + list) x 10 + n + 2) of the record is entry
  // ((category x 64 + list) x 10 + n) of Names, which starts at slot 2.
  char* slot = record->Names[(category * SpefListsPerCategory + list) * SpefNamesPerEffect + n];
  size_t length = strnlen(name, SpefNameSlotBytes - 1);
  memcpy(slot, name, length);
  slot[length] = 0;
}

// Looks up the record's category and list words, sets the parameter words
// and puts the effect in force for the next frame.
void PickUpEffect(uint64_t handle) {
  SpefPrivate* priv = SpefPrivateOf(handle);
  if (priv == nullptr) return;
  SpefRecord* record = RecordOf(handle);
  uint32_t category = record->Category, list = record->List;
  uint32_t active = 0;
  for (uint32_t i = 0; i < SpefEffectCount; ++i) {
    if (SpefEffects[i].Category == category && SpefEffects[i].List == list) {
      active = i + 1;
      break;
    }
  }
  for (uint32_t p = 0; p < 5; ++p) {
    record->Parameters[p] = active != 0 ? SpefEffects[active - 1].Parameters[p] : 0;
  }
  __atomic_store_n(&priv->ActiveEffect, active, __ATOMIC_RELEASE);
}

}  // namespace

SpefPrivate* SpefPrivateOf(uint64_t spefHandle) {
  if (!IsLiveHandle(&LiveHandles, spefHandle)) return nullptr;
  auto* priv = reinterpret_cast<SpefPrivate*>(static_cast<uintptr_t>(spefHandle) + PrivateOffset);
  return priv->Signature == SpefSignature ? priv : nullptr;
}

// Start-up (StartImageLibraries). `folder` names where the camera's files
// lie; this library keeps no files of its own and does not look at it.
// Allocates and fills the record: all name slots zero but those of the
// catalogue, category 99 (no effect) in force until the first pick-up.
// Returns 0 when the pool is out of memory or 64 records are already live.
uint64_t SPEF_Init(const WCHAR* folder) {
  (void)folder;
  void* block = ExAllocatePoolWithTag(NonPagedPool, BlockBytes, SpefPoolTag);
  if (block == nullptr) return 0;
  memset(block, 0, BlockBytes);
  auto* record = static_cast<SpefRecord*>(block);
  auto* priv = reinterpret_cast<SpefPrivate*>(static_cast<uint8_t*>(block) + PrivateOffset);
  record->Category = 99;
  for (uint32_t i = 0; i < SpefEffectCount; ++i) {
    const SpefEffect& effect = SpefEffects[i];
    WriteName(record, effect.Category, effect.List, 0, effect.Name);
    for (uint32_t p = 0; p < 5; ++p) {
      WriteName(record, effect.Category, effect.List, p + 1, effect.ParameterNames[p]);
    }
    if (effect.Category < SpefCategoryCount) {
      WriteName(record, effect.Category, effect.List, 9, SpefCategoryNames[effect.Category]);
    }
    if (effect.Kind == SpefKindTable) {
      effect.BuildTables(effect.Parameters, priv->Tables[i][0], priv->Tables[i][1],
                         priv->Tables[i][2]);
      for (int v = 0; v < 256; ++v) {
        if (priv->Tables[i][0][v] != v) priv->TableTouches[i] |= SpefTouchesLuma;
        if (priv->Tables[i][1][v] != v || priv->Tables[i][2][v] != v) {
          priv->TableTouches[i] |= SpefTouchesChroma;
        }
      }
    }
  }
  priv->Signature = SpefSignature;
  priv->ActiveEffect = 0;
  uint64_t handle = reinterpret_cast<uintptr_t>(block);
  if (!AddLiveHandle(&LiveHandles, handle)) {
    ExFreePoolWithTag(block, SpefPoolTag);
    return 0;
  }
  return handle;
}

// Shut-down (CamUnInitialize).
void SPEF_Exit(uint64_t spefHandle) {
  SpefPrivate* priv = SpefPrivateOf(spefHandle);
  if (priv == nullptr || !RemoveLiveHandle(&LiveHandles, spefHandle)) return;
  priv->Signature = 0;
  ExFreePoolWithTag(RecordOf(spefHandle), SpefPoolTag);
}

// Worker's start step: picks up the record's category and list. The size is
// not needed ahead of the frames.
void SPEF_StartCapture(uint64_t spefHandle, uint32_t width, uint32_t height) {
  (void)width;
  (void)height;
  PickUpEffect(spefHandle);
}

// Worker's stop step: nothing to release; the effect stays in force.
void SPEF_StopCapture(uint64_t spefHandle) { (void)spefHandle; }

// Property path, after the effect property changed: as SPEF_StartCapture.
void SPEF_PropertySet(uint64_t spefHandle, uint32_t width, uint32_t height) {
  (void)width;
  (void)height;
  PickUpEffect(spefHandle);
}

// Frame path: applies the effect in force to the YUYV picture in place. No
// allocation, no blocking.
void SPEF_ConvertFrame(uint64_t spefHandle, uint8_t* picture, uint32_t width, uint32_t height) {
  SpefPrivate* priv = SpefPrivateOf(spefHandle);
  if (priv == nullptr || picture == nullptr) return;
  uint32_t active = __atomic_load_n(&priv->ActiveEffect, __ATOMIC_ACQUIRE);
  if (active == 0 || active > SpefEffectCount) return;
  SpefApplyEffect(SpefBestRows(), priv, active - 1, picture, width, height);
}
