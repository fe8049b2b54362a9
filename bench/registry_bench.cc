// The registry's text form at the size of a well-filled camera tree and more:
// 500 keys of 20 values each (DWORD, string and 32-byte binary in turn),
// 10,000 values. Load (parse and merge into an empty tree), save to text, save
// to a file (with its flushes to the disk and the rename), beside a memcpy of
// the text's size; and one value set by the driver per frame while a file is
// attached, which is where the coalescing of saves shows.
//
// Before timing, the text is loaded, saved and compared with itself, and its
// checksum is reported.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/registry.h"
#include "platform/registry_control.h"

namespace {

const std::u16string kRoot = u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Bench";
constexpr int kKeys = 500;
constexpr int kValuesPerKey = 20;
constexpr int64_t kValues = int64_t(kKeys) * kValuesPerKey;

void BuildTree() {
  ResetRegistry();
  std::vector<RegistryEdit> edits;
  edits.reserve(kValues);
  char text[64];
  for (int k = 0; k < kKeys; ++k) {
    std::snprintf(text, sizeof text, "\\Camera%03d\\PropertySetting", k);
    const std::u16string path = kRoot + U16(text);
    for (int v = 0; v < kValuesPerKey; ++v) {
      RegistryEdit edit;
      edit.kind = RegistryEdit::SetValue;
      edit.path = path;
      std::snprintf(text, sizeof text, "Value%02d", v);
      edit.name = U16(text);
      const uint32_t seed = uint32_t(k * 7919 + v * 31);
      if (v % 3 == 0) {
        edit.type = REG_DWORD;
        edit.data = {uint8_t(seed), uint8_t(seed >> 8), uint8_t(seed >> 16), uint8_t(seed >> 24)};
      } else if (v % 3 == 1) {
        edit.type = REG_SZ;
        std::snprintf(text, sizeof text, "C:\\Camera\\%u\\setting.scr", seed);
        for (const char* c = text; *c != 0; ++c)
          edit.data.insert(edit.data.end(), {uint8_t(*c), 0});
        edit.data.insert(edit.data.end(), {0, 0});
      } else {
        edit.type = REG_BINARY;
        for (uint32_t i = 0; i < 32; ++i) edit.data.push_back(uint8_t(seed * 13 + i * 101));
      }
      edits.push_back(std::move(edit));
    }
  }
  ApplyRegistryEdits(edits);
}

// FNV-1a over the whole text: a fast but wrong build shows here.
uint32_t Checksum(const std::string& bytes) {
  uint32_t hash = 2166136261u;
  for (unsigned char c : bytes) hash = (hash ^ c) * 16777619u;
  return hash;
}

// The tree's text, checked to load back into the same text; empty on a fault.
std::string ReferenceText() {
  BuildTree();
  const std::string text = SaveRegistryText(kRoot);
  ResetRegistry();
  std::string error;
  if (text.empty() || !LoadRegistryText(text, "bench.reg", &error)) return std::string();
  return SaveRegistryText(kRoot) == text ? text : std::string();
}

std::string TempFile(const char* name) {
  return (std::filesystem::temp_directory_path() /
          (std::string("mr740_registry_bench_") + std::to_string(::getpid()) + "_" + name))
      .string();
}

void Report(benchmark::State& state, const std::string& text) {
  state.SetItemsProcessed(int64_t(state.iterations()) * kValues);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
  state.counters["checksum"] = double(Checksum(text) & 0xFFFFFF);
}

void BM_RegistryLoadText(benchmark::State& state) {
  const std::string text = ReferenceText();
  if (text.empty()) {
    state.SkipWithError("round trip of the reference text failed");
    return;
  }
  std::string error;
  for (auto _ : state) {
    state.PauseTiming();
    ResetRegistry();
    state.ResumeTiming();
    benchmark::DoNotOptimize(LoadRegistryText(text, "bench.reg", &error));
  }
  if (SaveRegistryText(kRoot) != text) state.SkipWithError("loaded tree differs");
  Report(state, text);
  ResetRegistry();
}
BENCHMARK(BM_RegistryLoadText)->Unit(benchmark::kMillisecond);

void BM_RegistrySaveText(benchmark::State& state) {
  const std::string reference = ReferenceText();
  if (reference.empty()) {
    state.SkipWithError("round trip of the reference text failed");
    return;
  }
  std::string text;
  for (auto _ : state) {
    text = SaveRegistryText(kRoot);
    benchmark::DoNotOptimize(text.data());
  }
  if (text != reference) state.SkipWithError("saved text differs");
  Report(state, reference);
  ResetRegistry();
}
BENCHMARK(BM_RegistrySaveText)->Unit(benchmark::kMillisecond);

void BM_RegistrySaveFile(benchmark::State& state) {
  const std::string reference = ReferenceText();
  const std::string file = TempFile("save.reg");
  std::string error;
  if (reference.empty()) {
    state.SkipWithError("round trip of the reference text failed");
    return;
  }
  for (auto _ : state) {
    if (!SaveRegistryFile(file, &error, kRoot)) {
      state.SkipWithError(error.c_str());
      break;
    }
  }
  ResetRegistry();
  if (!LoadRegistryFile(file, &error) || SaveRegistryText(kRoot) != reference) {
    state.SkipWithError("saved file differs");
  }
  Report(state, reference);
  std::filesystem::remove(file);
  ResetRegistry();
}
BENCHMARK(BM_RegistrySaveFile)->Unit(benchmark::kMillisecond);

void BM_RegistryMemcpyOfText(benchmark::State& state) {
  const std::string reference = ReferenceText();
  std::string copy(reference.size(), '\0');
  for (auto _ : state) {
    std::memcpy(copy.data(), reference.data(), reference.size());
    benchmark::ClobberMemory();
  }
  Report(state, copy);
  ResetRegistry();
}
BENCHMARK(BM_RegistryMemcpyOfText)->Unit(benchmark::kMillisecond);

// The engineering mode's one value a frame, through the driver's calls, with
// the 10,000-value tree attached to a file: at most one save a second.
void BM_RegistryDriverSetWhileAttached(benchmark::State& state) {
  const std::string file = TempFile("attached.reg");
  std::filesystem::remove(file);
  BuildTree();
  std::string error;
  if (!AttachRegistryFile(file, &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  const std::u16string path = kRoot + u"\\Camera000";
  std::u16string name = u"FrameRateNumber";
  UNICODE_STRING valueName{USHORT(name.size() * 2), USHORT(name.size() * 2), name.data()};
  OBJECT_ATTRIBUTES attributes;
  UNICODE_STRING keyName{USHORT(path.size() * 2), USHORT(path.size() * 2),
                         const_cast<WCHAR*>(path.data())};
  InitializeObjectAttributes(&attributes, &keyName, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  uint32_t frames = 0;
  for (auto _ : state) {
    HANDLE key = nullptr;
    ++frames;
    ZwCreateKey(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr);
    ZwSetValueKey(key, &valueName, 0, REG_DWORD, &frames, 4);
    ZwClose(key);
  }
  const uint64_t saves = RegistryFileSaveCount();
  DetachRegistryFile();
  ResetRegistry();
  uint32_t last = 0;
  if (!LoadRegistryFile(file, &error) || !GetRegistryDword(path, name, &last) || last != frames) {
    state.SkipWithError("the last value did not reach the file");
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["saves"] = double(saves);
  std::filesystem::remove(file);
  ResetRegistry();
}
BENCHMARK(BM_RegistryDriverSetWhileAttached)->MinTime(2.0);

}  // namespace
