// Speed of the format-conversion and special-effects libraries at 640x480,
// 1280x960 and 1600x1200, beside a memcpy of the same output size and, where
// it has one, libyuv's nearest routine. Before timing, each benchmark checks
// that its output equals the portable rows' output (a fast but wrong vector
// path fails the run) and reports the output's checksum.
//
//   FUNC_RawToYuv (same size)  ~ libyuv ARGBToYUY2: libyuv has no Bayer
//                                routine here; this is the colour conversion
//                                alone, from a 4-byte-a-pixel source.
//   FUNC_YuvToBmp              ~ libyuv YUY2ToARGB then ARGBToRGB24 (flipped)
//   FUNC_YuvToI420             ~ libyuv YUY2ToI420
//   SPEF_ConvertFrame          ~ libyuv ARGBGray (monochrome of ARGB)

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "companions/func_rows.h"
#include "companions/spef_effects.h"
#include "core/companions.h"

#ifdef MR740_HAVE_LIBYUV
#include <libyuv.h>
#endif

namespace {

struct Size {
  uint32_t W, H;
};
const Size kSizes[] = {{640, 480}, {1280, 960}, {1600, 1200}};

void SizeArgs(benchmark::internal::Benchmark* b) {
  for (const Size& s : kSizes) b->Args({s.W, s.H});
}

// A camera-like scene: smooth colour gradients with some noise, as a B G / G R
// mosaic and as YUYV.
std::vector<uint8_t> SceneBayer(uint32_t w, uint32_t h) {
  std::mt19937 random(740);
  std::vector<uint8_t> raw(static_cast<size_t>(w) * h);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      uint32_t r = 255 * x / w, g = 255 * y / h, b = 255 - (r + g) / 2;
      uint32_t site = (y & 1) == 0 ? ((x & 1) == 0 ? b : g) : ((x & 1) == 0 ? g : r);
      int v = static_cast<int>(site) + static_cast<int>(random() % 9) - 4;
      raw[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
    }
  return raw;
}

std::vector<uint8_t> SceneYuyv(uint32_t w, uint32_t h) {
  std::vector<uint8_t> raw = SceneBayer(w, h), yuyv(2 * static_cast<size_t>(w) * h);
  FUNC_RawToYuv(0, raw.data(), w, h, yuyv.data(), w, h);
  return yuyv;
}

uint64_t Checksum(const std::vector<uint8_t>& v) {
  uint64_t hash = 1469598103934665603ull;  // FNV-1a
  for (uint8_t b : v) hash = (hash ^ b) * 1099511628211ull;
  return hash;
}

// Fails the benchmark unless the best rows' output equals the portable rows'.
bool SameAsPortable(benchmark::State& state, const std::vector<uint8_t>& best,
                    const std::vector<uint8_t>& portable) {
  if (best != portable) {
    state.SkipWithError("vector rows differ from the portable rows");
    return false;
  }
  state.counters["checksum"] = static_cast<double>(Checksum(best) & 0xFFFFFF);
  return true;
}

void Report(benchmark::State& state, size_t outputBytes) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(outputBytes));
}

struct Handles {
  uint64_t Best = FUNC_Init();
  uint64_t Portable = FUNC_Init();
  Handles() { FuncUsePortableRows(Portable); }
  ~Handles() {
    FUNC_Exit(Best);
    FUNC_Exit(Portable);
  }
};

void BM_Memcpy(benchmark::State& state, int bytesPerTwoPixels) {
  size_t bytes = static_cast<size_t>(state.range(0)) * state.range(1) * bytesPerTwoPixels / 2;
  std::vector<uint8_t> src(bytes, 1), dst(bytes);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), bytes);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  Report(state, bytes);
}
BENCHMARK_CAPTURE(BM_Memcpy, yuyv_size, 4)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Memcpy, rgb24_size, 6)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_Memcpy, i420_size, 3)->Apply(SizeArgs);

void BM_FuncRawToYuv(benchmark::State& state) {
  uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  Handles func;
  std::vector<uint8_t> raw = SceneBayer(w, h), out(2 * static_cast<size_t>(w) * h), ref(out.size());
  FUNC_RawToYuv(func.Best, raw.data(), w, h, out.data(), w, h);
  FUNC_RawToYuv(func.Portable, raw.data(), w, h, ref.data(), w, h);
  if (!SameAsPortable(state, out, ref)) return;
  for (auto _ : state) {
    FUNC_RawToYuv(func.Best, raw.data(), w, h, out.data(), w, h);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_FuncRawToYuv)->Apply(SizeArgs);

void BM_FuncRawToYuvPortable(benchmark::State& state) {
  uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  Handles func;
  std::vector<uint8_t> raw = SceneBayer(w, h), out(2 * static_cast<size_t>(w) * h);
  for (auto _ : state) {
    FUNC_RawToYuv(func.Portable, raw.data(), w, h, out.data(), w, h);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_FuncRawToYuvPortable)->Apply(SizeArgs);

// The resampling routes, wire = picture x num / den on both axes, as the
// driver's scale modes ask (no yardstick of their own: the same-size route
// and the memcpy of YUYV size are it).
void BM_FuncRawToYuvResampled(benchmark::State& state) {
  uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  uint32_t rawW = w * static_cast<uint32_t>(state.range(2)) / static_cast<uint32_t>(state.range(3));
  uint32_t rawH = h * static_cast<uint32_t>(state.range(2)) / static_cast<uint32_t>(state.range(3));
  Handles func;
  std::vector<uint8_t> raw = SceneBayer(rawW, rawH), out(2 * static_cast<size_t>(w) * h),
                       ref(out.size());
  FUNC_RawToYuv(func.Best, raw.data(), rawW, rawH, out.data(), w, h);
  FUNC_RawToYuv(func.Portable, raw.data(), rawW, rawH, ref.data(), w, h);
  if (!SameAsPortable(state, out, ref)) return;
  for (auto _ : state) {
    FUNC_RawToYuv(func.Best, raw.data(), rawW, rawH, out.data(), w, h);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_FuncRawToYuvResampled)
    ->ArgNames({"w", "h", "num", "den"})
    ->Args({640, 480, 2, 1})
    ->Args({640, 480, 4, 1})
    ->Args({640, 480, 1, 2})
    ->Args({640, 480, 1, 4})
    ->Args({1600, 1200, 2, 1})
    ->Args({1600, 1200, 1, 2})
    ->Args({1600, 1200, 1, 4});

void BM_FuncYuvToBmp(benchmark::State& state) {
  uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  Handles func;
  std::vector<uint8_t> yuyv = SceneYuyv(w, h), out(3 * static_cast<size_t>(w) * h), ref(out.size());
  FUNC_YuvToBmp(func.Best, yuyv.data(), w, h, out.data());
  FUNC_YuvToBmp(func.Portable, yuyv.data(), w, h, ref.data());
  if (!SameAsPortable(state, out, ref)) return;
  for (auto _ : state) {
    FUNC_YuvToBmp(func.Best, yuyv.data(), w, h, out.data());
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_FuncYuvToBmp)->Apply(SizeArgs);

void BM_FuncYuvToI420(benchmark::State& state) {
  uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  Handles func;
  std::vector<uint8_t> yuyv = SceneYuyv(w, h), out(static_cast<size_t>(w) * h * 3 / 2),
                       ref(out.size());
  FUNC_YuvToI420(func.Best, yuyv.data(), w, h, out.data());
  FUNC_YuvToI420(func.Portable, yuyv.data(), w, h, ref.data());
  if (!SameAsPortable(state, out, ref)) return;
  for (auto _ : state) {
    FUNC_YuvToI420(func.Best, yuyv.data(), w, h, out.data());
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_FuncYuvToI420)->Apply(SizeArgs);

// SPEF_ConvertFrame in place on a fresh copy is not measurable without the
// copy, so each iteration applies the effect to the same picture again: the
// point effects cost the same whatever the bytes.
void BM_SpefConvertFrame(benchmark::State& state, uint32_t category, uint32_t list) {
  uint32_t w = static_cast<uint32_t>(state.range(0)), h = static_cast<uint32_t>(state.range(1));
  uint64_t spef = SPEF_Init(u"\\??\\C:\\Camera");
  if (spef == 0) {
    state.SkipWithError("no effects record");
    return;
  }
  auto* record = reinterpret_cast<SpefRecord*>(spef);
  record->Category = category;
  record->List = list;
  SPEF_PropertySet(spef, w, h);
  uint32_t effect = 0;
  while (effect < SpefEffectCount &&
         (SpefEffects[effect].Category != category || SpefEffects[effect].List != list)) {
    ++effect;
  }
  std::vector<uint8_t> picture = SceneYuyv(w, h), ref = picture;
  SPEF_ConvertFrame(spef, picture.data(), w, h);
  SpefApplyEffect(&SpefPortableRows, SpefPrivateOf(spef), effect, ref.data(), w, h);
  if (SameAsPortable(state, picture, ref)) {
    for (auto _ : state) {
      SPEF_ConvertFrame(spef, picture.data(), w, h);
      benchmark::DoNotOptimize(picture.data());
    }
    Report(state, picture.size());
  }
  SPEF_Exit(spef);
}
BENCHMARK_CAPTURE(BM_SpefConvertFrame, monochrome, 0, 1)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_SpefConvertFrame, negative, 0, 3)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_SpefConvertFrame, solarise, 1, 0)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_SpefConvertFrame, emboss, 2, 0)->Apply(SizeArgs);
BENCHMARK_CAPTURE(BM_SpefConvertFrame, sketch, 2, 1)->Apply(SizeArgs);

#ifdef MR740_HAVE_LIBYUV

void BM_LibyuvArgbToYuy2(benchmark::State& state) {
  int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  std::vector<uint8_t> yuyv = SceneYuyv(w, h), argb(4 * static_cast<size_t>(w) * h),
                       out(2 * static_cast<size_t>(w) * h);
  libyuv::YUY2ToARGB(yuyv.data(), 2 * w, argb.data(), 4 * w, w, h);
  for (auto _ : state) {
    libyuv::ARGBToYUY2(argb.data(), 4 * w, out.data(), 2 * w, w, h);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_LibyuvArgbToYuy2)->Apply(SizeArgs);

// Two passes through an ARGB frame; a negative height writes bottom-up.
void BM_LibyuvYuy2ToRgb24(benchmark::State& state) {
  int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  std::vector<uint8_t> yuyv = SceneYuyv(w, h), argb(4 * static_cast<size_t>(w) * h),
                       out(3 * static_cast<size_t>(w) * h);
  for (auto _ : state) {
    libyuv::YUY2ToARGB(yuyv.data(), 2 * w, argb.data(), 4 * w, w, -h);
    libyuv::ARGBToRGB24(argb.data(), 4 * w, out.data(), 3 * w, w, h);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_LibyuvYuy2ToRgb24)->Apply(SizeArgs);

void BM_LibyuvYuy2ToI420(benchmark::State& state) {
  int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  std::vector<uint8_t> yuyv = SceneYuyv(w, h), out(static_cast<size_t>(w) * h * 3 / 2);
  uint8_t* y = out.data();
  uint8_t* u = y + static_cast<size_t>(w) * h;
  uint8_t* v = u + static_cast<size_t>(w / 2) * (h / 2);
  for (auto _ : state) {
    libyuv::YUY2ToI420(yuyv.data(), 2 * w, y, w, u, w / 2, v, w / 2, w, h);
    benchmark::DoNotOptimize(out.data());
  }
  Report(state, out.size());
}
BENCHMARK(BM_LibyuvYuy2ToI420)->Apply(SizeArgs);

// Monochrome of an ARGB frame of the same pixel count (twice the bytes).
void BM_LibyuvArgbGray(benchmark::State& state) {
  int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  std::vector<uint8_t> yuyv = SceneYuyv(w, h), argb(4 * static_cast<size_t>(w) * h);
  libyuv::YUY2ToARGB(yuyv.data(), 2 * w, argb.data(), 4 * w, w, h);
  for (auto _ : state) {
    libyuv::ARGBGray(argb.data(), 4 * w, 0, 0, w, h);
    benchmark::DoNotOptimize(argb.data());
  }
  Report(state, argb.size());
}
BENCHMARK(BM_LibyuvArgbGray)->Apply(SizeArgs);

#endif  // MR740_HAVE_LIBYUV

}  // namespace
