// The handles a companion library has given out and not yet released. A call
// with any other value is refused before its memory is touched, so a handle
// used after its Exit, or released twice, does nothing. Slots are 0 when free
// and are accessed atomically: any thread, never blocks, never allocates.
#pragma once

#include <cstdint>

constexpr int CompanionMaxLiveHandles = 64;

struct CompanionHandleTable {
  uint64_t Slots[CompanionMaxLiveHandles];
};

// False when all slots are taken.
bool AddLiveHandle(CompanionHandleTable* table, uint64_t handle);
// False when the handle is not live.
bool RemoveLiveHandle(CompanionHandleTable* table, uint64_t handle);
bool IsLiveHandle(const CompanionHandleTable* table, uint64_t handle);
