#include "platform/handles.h"

#include <mutex>
#include <unordered_map>

namespace {

struct HandleEntry {
  HandleKind kind;
  void* object;
  HandleCloseRoutine close;
};

struct HandleTable {
  std::mutex lock;
  std::unordered_map<uintptr_t, HandleEntry> entries;
  uintptr_t next = 4;  // handles are multiples of four, never null
};

HandleTable& Table() {
  static HandleTable table;
  return table;
}

}  // namespace

HANDLE CreatePlatformHandle(HandleKind kind, void* object, HandleCloseRoutine close) {
  HandleTable& table = Table();
  std::lock_guard<std::mutex> guard(table.lock);
  uintptr_t value = table.next;
  table.next += 4;
  table.entries[value] = HandleEntry{kind, object, close};
  return reinterpret_cast<HANDLE>(value);
}

void* ReferencePlatformHandle(HANDLE handle, HandleKind kind) {
  HandleTable& table = Table();
  std::lock_guard<std::mutex> guard(table.lock);
  auto it = table.entries.find(reinterpret_cast<uintptr_t>(handle));
  if (it == table.entries.end() || it->second.kind != kind) return nullptr;
  return it->second.object;
}

uint32_t OpenPlatformHandles(HandleKind kind) {
  HandleTable& table = Table();
  std::lock_guard<std::mutex> guard(table.lock);
  uint32_t count = 0;
  for (const auto& entry : table.entries) count += entry.second.kind == kind;
  return count;
}

NTSTATUS ZwClose(HANDLE handle) {
  HandleTable& table = Table();
  HandleEntry entry;
  {
    std::lock_guard<std::mutex> guard(table.lock);
    auto it = table.entries.find(reinterpret_cast<uintptr_t>(handle));
    if (it == table.entries.end()) return STATUS_INVALID_HANDLE;
    entry = it->second;
    table.entries.erase(it);
  }
  if (entry.close) entry.close(entry.object);
  return STATUS_SUCCESS;
}
