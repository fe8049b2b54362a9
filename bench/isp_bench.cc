// The image processor's frame routine, ISPFunc_RawToImg: a Bayer frame of
// the output size developed to YUYV at neutral and at busy settings, with the
// vector rows and with the portable one, a few scaled frames, and a memcpy of
// the same output size as the yardstick. Before timing, each case develops
// its frame with the portable row as well and the checksums must agree.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "companions/isp_library.h"
#include "core/companions.h"

namespace {

constexpr uint32_t NeutralRecord[IspPropertyCount] = {0, 64, 64, 0, 6500, 0, 100, 0, 1};
// Every value away from neutral: luma table, sharpening, automatic white
// balance, hue and saturation all at work.
constexpr uint32_t BusyRecord[IspPropertyCount] = {10, 80, 90, 4, 0, 10, 120, 1, 1};

uint8_t ReadWireRegister(void* context, uint8_t reg) {
  return static_cast<const uint8_t*>(context)[reg];
}

// FNV-1a over the whole picture.
uint32_t Checksum(const std::vector<uint8_t>& bytes) {
  uint32_t hash = 2166136261u;
  for (uint8_t b : bytes) hash = (hash ^ b) * 16777619u;
  return hash;
}

struct Developer {
  uint8_t controller[256] = {};
  uint64_t handle = 0;
  Developer(uint32_t wireWidth, uint32_t wireHeight, uint32_t width, uint32_t height,
            bool portable) {
    controller[IspWireWidthLowRegister] = wireWidth & 0xFF;
    controller[IspWireWidthHighRegister] = wireWidth >> 8;
    controller[IspWireHeightLowRegister] = wireHeight & 0xFF;
    controller[IspWireHeightHighRegister] = wireHeight >> 8;
    ISPFunc_Init(&handle, controller, nullptr, u"OV2640", 1, nullptr, nullptr, nullptr,
                 ReadWireRegister, nullptr);
    if (portable) IspPortableRowRoutines(&reinterpret_cast<IspState*>(handle)->Rows);
    uint32_t w, h;
    ISPFunc_StartCapture(handle, controller, 2, width, height, &w, &h);
  }
  ~Developer() { ISPFunc_Exit(handle, controller, nullptr); }
};

// A scene with smooth colour gradients and some fine detail.
std::vector<uint8_t> MakeRaw(uint32_t width, uint32_t height) {
  std::vector<uint8_t> raw(size_t{width} * height);
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      uint32_t base = (x * 200 / width + y * 55 / height) & 0xFF;
      uint32_t detail = ((x / 3 + y / 5) & 7) * 4;
      raw[size_t{y} * width + x] =
          static_cast<uint8_t>((base + detail + ((x ^ y) & 1) * 20) & 0xFF);
    }
  }
  return raw;
}

void BM_IspRawToImg(benchmark::State& state, const uint32_t* record, bool portable) {
  const uint32_t wireWidth = static_cast<uint32_t>(state.range(0));
  const uint32_t wireHeight = static_cast<uint32_t>(state.range(1));
  const uint32_t width = static_cast<uint32_t>(state.range(2));
  const uint32_t height = static_cast<uint32_t>(state.range(3));
  std::vector<uint8_t> raw = MakeRaw(wireWidth, wireHeight);
  std::vector<uint8_t> out(size_t{width} * height * 2);
  std::vector<uint8_t> reference(out.size());
  Developer developer(wireWidth, wireHeight, width, height, portable);
  Developer check(wireWidth, wireHeight, width, height, true);
  ISPFunc_RawToImg(developer.handle, nullptr, 2, record, out.data(), raw.data(), width, height);
  ISPFunc_RawToImg(check.handle, nullptr, 2, record, reference.data(), raw.data(), width, height);
  uint32_t sum = Checksum(out);
  if (sum != Checksum(reference)) {
    state.SkipWithError("vector rows differ from the portable row");
    return;
  }
  for (auto _ : state) {
    ISPFunc_RawToImg(developer.handle, nullptr, 2, record, out.data(), raw.data(), width, height);
    benchmark::ClobberMemory();
  }
  state.counters["checksum"] = sum;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(out.size()));
}

void BM_MemcpyOutputSize(benchmark::State& state) {
  const size_t bytes = size_t(state.range(2)) * size_t(state.range(3)) * 2;
  std::vector<uint8_t> source(bytes, 0x5A), destination(bytes);
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), bytes);
    benchmark::ClobberMemory();
  }
  if (destination != source) state.SkipWithError("memcpy lost bytes");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(bytes));
}

void SameSizes(benchmark::internal::Benchmark* b) {
  b->Args({640, 480, 640, 480})->Args({1280, 960, 1280, 960})->Args({1600, 1200, 1600, 1200});
  b->Unit(benchmark::kMicrosecond);
}
void ScaledSizes(benchmark::internal::Benchmark* b) {
  b->Args({1280, 960, 1024, 768})->Args({320, 240, 640, 480})->Args({1280, 960, 640, 480});
  b->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_MemcpyOutputSize)->Apply(SameSizes);
BENCHMARK_CAPTURE(BM_IspRawToImg, neutral, NeutralRecord, false)->Apply(SameSizes);
BENCHMARK_CAPTURE(BM_IspRawToImg, neutral_portable, NeutralRecord, true)->Apply(SameSizes);
BENCHMARK_CAPTURE(BM_IspRawToImg, busy, BusyRecord, false)->Apply(SameSizes);
BENCHMARK(BM_MemcpyOutputSize)->Apply(ScaledSizes);
BENCHMARK_CAPTURE(BM_IspRawToImg, neutral_scaled, NeutralRecord, false)->Apply(ScaledSizes);

}  // namespace
