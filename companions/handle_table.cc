#include "companions/handle_table.h"

bool AddLiveHandle(CompanionHandleTable* table, uint64_t handle) {
  for (uint64_t& slot : table->Slots) {
    uint64_t expected = 0;
    if (__atomic_compare_exchange_n(&slot, &expected, handle, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      return true;
    }
  }
  return false;
}

bool RemoveLiveHandle(CompanionHandleTable* table, uint64_t handle) {
  for (uint64_t& slot : table->Slots) {
    uint64_t expected = handle;
    if (__atomic_compare_exchange_n(&slot, &expected, 0, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      return true;
    }
  }
  return false;
}

bool IsLiveHandle(const CompanionHandleTable* table, uint64_t handle) {
  if (handle == 0) return false;
  for (const uint64_t& slot : table->Slots) {
    if (__atomic_load_n(&slot, __ATOMIC_ACQUIRE) == handle) return true;
  }
  return false;
}
