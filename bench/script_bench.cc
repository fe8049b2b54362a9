// One section of a 2,000-line script, as a mode change runs it: the whole file
// is walked line by line with one read per line and the section's commands go
// to a host that answers at once. Reported as lines per second and file bytes
// per second, beside a memcpy of the file's size.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/control_only_host.h"
#include "core/host_contract.h"
#include "platform/files_control.h"
#include "platform/kernel_control.h"
#include "script/script_engine.h"

namespace {

constexpr int ScriptLines = 2000;
constexpr int Sections = 8;
constexpr int LinesPerSection = ScriptLines / Sections;
constexpr int WantedSection = 5;

// FNV-1a over every request the host sees.
struct RequestHash {
  uint64_t value = 1469598103934665603ull;
  uint64_t requests = 0;
  void Add(uint8_t byte) { value = (value ^ byte) * 1099511628211ull; }
  void Add(uint8_t request, uint16_t wValue, uint16_t wIndex, const uint8_t* data, uint32_t n) {
    Add(request);
    Add(uint8_t(wValue >> 8));
    Add(uint8_t(wValue));
    Add(uint8_t(wIndex >> 8));
    Add(uint8_t(wIndex));
    for (uint32_t i = 0; i < n; ++i) Add(data[i]);
    ++requests;
  }
};

RequestHash hostHash;

// Every read answers 0x5A at once.
NTSTATUS AnswerAtOnce(DeviceContext*, uint8_t request, uint16_t value, uint16_t index, void* buffer,
                      uint32_t* length, BOOLEAN getData, PCOMMAND_COMPLETE_FUNCTION, void*) {
  auto* bytes = static_cast<uint8_t*>(buffer);
  const uint32_t n = length != nullptr ? *length : 0;
  if (getData) {
    std::memset(bytes, 0x5A, n);
    hostHash.Add(request, value, index, nullptr, 0);
  } else {
    hostHash.Add(request, value, index, bytes, n);
  }
  return STATUS_SUCCESS;
}

HostCalls MakeHost() { return ControlOnlyHostCalls(&AnswerAtOnce); }

// The script and, for the wanted section, the requests it must give: a
// header, a DEFINE, comments, WRITEs, BITS_OPs and blocks of eight pairs.
struct Script {
  std::string text;
  RequestHash expected;
};

Script MakeScript() {
  Script script;
  for (int s = 0; s < Sections; ++s) {
    const bool wanted = s == WantedSection;
    script.text += "[MODE_" + std::to_string(s) + "]\r\nDEFINE SENSOR 60H\r\n";
    int line = 2;
    while (line < LinesPerSection) {
      const int kind = line % 16;
      const uint8_t reg = uint8_t(line & 0xFF);
      const uint8_t value = uint8_t((line * 7 + s) & 0xFF);
      char text[64];
      if (kind == 3 && line + 10 <= LinesPerSection) {
        script.text += "BEG_BLK_WR SENSOR\r\n";
        uint8_t pairs[16];
        for (int p = 0; p < 8; ++p) {
          pairs[2 * p] = uint8_t(reg + p);
          pairs[2 * p + 1] = uint8_t(value ^ p);
          std::snprintf(text, sizeof text, "  0%02XH, 0%02XH\r\n", pairs[2 * p], pairs[2 * p + 1]);
          script.text += text;
        }
        script.text += "END_BLK_WR\r\n";
        if (wanted) script.expected.Add(3, 0x6000, 0x0200, pairs, 16);
        line += 10;
        continue;
      }
      if (kind == 7) {
        std::snprintf(text, sizeof text, "BITS_OP SENSOR 0%02XH 0%02XH 0F0H\r\n", reg,
                      value & 0xF0);
        if (wanted) {
          script.expected.Add(2, 0x6000, reg, nullptr, 0);
          script.expected.Add(1, uint16_t(0x6000 | (value & 0xF0) | (0x5A & 0x0F)), reg, nullptr,
                              0);
        }
      } else if (kind == 11) {
        std::snprintf(text, sizeof text, "; register %d holds %d on this sensor\r\n", reg, value);
      } else {
        std::snprintf(text, sizeof text, "WRITE SENSOR 0%02XH %d\r\n", reg, value);
        if (wanted) script.expected.Add(1, uint16_t(0x6000 | value), reg, nullptr, 0);
      }
      script.text += text;
      ++line;
    }
  }
  return script;
}

struct Bench {
  Bench()
      : script(MakeScript()),
        context(static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)))) {
    SetDebugPrintSink([](void*, const char*) {}, nullptr);
    static const HostCalls calls = MakeHost();
    SetHostCalls(&calls);
    folder =
        std::filesystem::temp_directory_path() / ("mr740-script-bench-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "camera.txt", std::ios::binary) << script.text;
    MapDosDrive('C', folder.string());
  }
  ~Bench() {
    MapDosDrive('C', "");
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    std::free(context);
  }
  NTSTATUS RunSection() { return ExecuteScriptFile(context, u"C:\\camera.txt", section.c_str()); }
  Script script;
  DeviceContext* context;
  std::filesystem::path folder;
  std::string section = "MODE_" + std::to_string(WantedSection);
};

Bench& Shared() {
  static Bench bench;
  return bench;
}

void BM_ScriptSection(benchmark::State& state) {
  Bench& bench = Shared();
  hostHash = RequestHash();
  if (bench.RunSection() != STATUS_SUCCESS || hostHash.value != bench.script.expected.value ||
      hostHash.requests != bench.script.expected.requests) {
    state.SkipWithError("the section's requests differ from the script's");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(bench.RunSection());
  }
  state.counters["lines_per_second"] = benchmark::Counter(
      double(ScriptLines) * double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["requests"] = double(bench.script.expected.requests);
  state.SetItemsProcessed(int64_t(state.iterations()) * ScriptLines);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bench.script.text.size()));
}
BENCHMARK(BM_ScriptSection)->Unit(benchmark::kMicrosecond);

void BM_ScriptMemcpy(benchmark::State& state) {
  const std::string& text = Shared().script.text;
  std::vector<char> copy(text.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), text.data(), text.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
}
BENCHMARK(BM_ScriptMemcpy);

}  // namespace
