// The driver's own route: each YUY2 resampler at its largest size, the whole
// route for 1600 x 1200 and 1024 x 768, and a dead pixel scan pass and repair,
// each beside a memcpy of the same output size in the same run. Before timing
// each checks sampled output pixels against the plain definition (box mean,
// bilinear weights, the decimation's pixel table) and notes a checksum that
// must not change while timing.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/companions.h"
#include "core/device_context.h"
#include "pipeline/frame_pipeline.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint32_t Checksum(const Bytes& bytes, size_t length) {
  uint32_t hash = 2166136261u;
  for (size_t i = 0; i < length; i += 61) hash = (hash ^ bytes[i]) * 16777619u;
  return hash;
}

// A busy YUY2 picture: ramps and a texture, so the means are not trivial.
Bytes TestPicture(uint32_t width, uint32_t height) {
  Bytes p(size_t(width) * height * 2);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t i = 0; i < width * 2; ++i)
      p[size_t(y) * width * 2 + i] = uint8_t((i * 3 + y * 5 + ((i * y) >> 3)) & 0xFF);
  return p;
}

uint8_t At(const Bytes& p, uint32_t width, uint32_t x, uint32_t y, uint32_t byte) {
  return p[(size_t(y) * width + x) * 2 + byte];
}

enum class Kind { Shrink2, Shrink4, Grow2, Grow4, Decimate };

struct Resampler {
  Kind kind;
  uint32_t sourceWidth, sourceHeight, width, height;
};

void Run(const Resampler& r, const Bytes& source, Bytes& out) {
  switch (r.kind) {
    case Kind::Shrink2:
      ShrinkYuy2By2(out.data(), source.data(), r.width, r.height);
      break;
    case Kind::Shrink4:
      ShrinkYuy2By4(out.data(), source.data(), r.width, r.height);
      break;
    case Kind::Grow2:
      GrowYuy2By2(out.data(), source.data(), r.width, r.height);
      break;
    case Kind::Grow4:
      GrowYuy2By4(out.data(), source.data(), r.width, r.height);
      break;
    case Kind::Decimate:
      Resample1280To1024(source.data(), out.data(), r.sourceWidth, r.sourceHeight, r.width,
                         r.height);
      break;
  }
}

// The luma of output pixel (x, y) by the definition of each resampler.
uint32_t ExpectedLuma(const Resampler& r, const Bytes& s, uint32_t x, uint32_t y) {
  const uint32_t sw = r.sourceWidth;
  switch (r.kind) {
    case Kind::Shrink2:
    case Kind::Shrink4: {
      const uint32_t f = r.kind == Kind::Shrink2 ? 2 : 4;
      uint32_t sum = 0;
      for (uint32_t j = 0; j < f; ++j)
        for (uint32_t i = 0; i < f; ++i) sum += At(s, sw, x * f + i, y * f + j, 0);
      return sum / (f * f);
    }
    case Kind::Grow2:
    case Kind::Grow4: {
      const uint32_t f = r.kind == Kind::Grow2 ? 2 : 4;
      const uint32_t c0 = x / f, c1 = c0 + 1 < sw ? c0 + 1 : sw - 1, wc = x % f;
      const uint32_t r0 = y / f, r1 = r0 + 1 < r.sourceHeight ? r0 + 1 : r.sourceHeight - 1,
                     wr = y % f;
      return ((f - wr) * ((f - wc) * At(s, sw, c0, r0, 0) + wc * At(s, sw, c1, r0, 0)) +
              wr * ((f - wc) * At(s, sw, c0, r1, 0) + wc * At(s, sw, c1, r1, 0))) /
             (f * f);
    }
    case Kind::Decimate: {
      static const uint32_t from[8] = {0, 1, 2, 3, 5, 6, 7, 8};
      return At(s, sw, x / 8 * 10 + from[x % 8], y + y / 4, 0);
    }
  }
  return 0;
}

void BM_Resampler(benchmark::State& state, Resampler r) {
  const Bytes source = TestPicture(r.sourceWidth, r.sourceHeight);
  Bytes out(size_t(r.width) * r.height * 2);
  Run(r, source, out);
  for (uint32_t y = 0; y < r.height; y += 37) {
    for (uint32_t x = 0; x < r.width; x += 53) {
      if (At(out, r.width, x, y, 0) != ExpectedLuma(r, source, x, y)) {
        state.SkipWithError("output differs from the definition");
        return;
      }
    }
  }
  const uint32_t reference = Checksum(out, out.size());
  for (auto _ : state) {
    Run(r, source, out);
    benchmark::ClobberMemory();
  }
  if (Checksum(out, out.size()) != reference) state.SkipWithError("output changed while timing");
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(out.size()));
  state.counters["checksum"] = reference;
}

// The 1280 to 1024 decimation as the frame path runs it: in place, on a
// picture that is reloaded before each run (the reload is not timed).
void BM_DecimationInPlace(benchmark::State& state) {
  const Bytes source = TestPicture(1280, 960);
  Bytes buffer = source;
  uint32_t reference = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(buffer.data(), source.data(), source.size());
    state.ResumeTiming();
    Resample1280To1024(buffer.data(), buffer.data(), 1280, 960, 1024, 768);
    benchmark::ClobberMemory();
  }
  reference = Checksum(buffer, 1024 * 768 * 2);
  state.SetBytesProcessed(int64_t(state.iterations()) * 1024 * 768 * 2);
  state.counters["checksum"] = reference;
}

void BM_Memcpy(benchmark::State& state) {
  const size_t bytes = size_t(state.range(0));
  Bytes source(bytes, 1), destination(bytes);
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}

BENCHMARK_CAPTURE(BM_Resampler, ShrinkYuy2By2_3200x2400_to_1600x1200,
                  Resampler{Kind::Shrink2, 3200, 2400, 1600, 1200})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Resampler, ShrinkYuy2By4_6400x4800_to_1600x1200,
                  Resampler{Kind::Shrink4, 6400, 4800, 1600, 1200})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Resampler, GrowYuy2By2_800x600_to_1600x1200,
                  Resampler{Kind::Grow2, 800, 600, 1600, 1200})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Resampler, GrowYuy2By4_400x300_to_1600x1200,
                  Resampler{Kind::Grow4, 400, 300, 1600, 1200})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_Resampler, Resample1280To1024_two_buffers,
                  Resampler{Kind::Decimate, 1280, 960, 1024, 768})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecimationInPlace)->Unit(benchmark::kMicrosecond);
// Output sizes (1600 x 1200 and 1024 x 768 YUY2, 1600 x 1200 Bayer), and the
// sources the shrinkers read (3200 x 2400 and 6400 x 4800 YUY2): a shrinker
// reads four or sixteen times its output and is bound by that read.
BENCHMARK(BM_Memcpy)
    ->Arg(1600 * 1200 * 2)
    ->Arg(1024 * 768 * 2)
    ->Arg(1600 * 1200)
    ->Arg(3200 * 2400 * 2)
    ->Arg(6400 * 4800 * 2)
    ->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------- the whole route

struct OwnCamera {
  OwnCamera(uint32_t compression, uint8_t wireFormat, uint32_t w, uint32_t h)
      : context(static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)))),
        work(WorkBufferBytes) {
    context->CurrentCompression = compression;
    context->ImageWidth = w;
    context->ImageHeight = h;
    context->ControlMethod = uint32_t(wireFormat) << 8;
    context->WorkBuffer = work.data();
    context->FuncHandle = FUNC_Init();
    context->DeadPixelRGB24 = 60;
    context->DeadPixelYUYV = 60;
    const char16_t name[] = u"OV2640";
    std::memcpy(context->SensorName, name, sizeof name);
    raw.resize(OwnRouteRawBytes(context));
    for (size_t i = 0; i < raw.size(); ++i) raw[i] = uint8_t((i * 7 + i / 4093 * 3) & 0xFF);
    for (size_t i = 0; i < raw.size(); i += 9973) raw[i] = 255;  // some dead samples
    pristine = raw;
  }
  ~OwnCamera() {
    FUNC_Exit(context->FuncHandle);
    std::free(context);
  }
  // One frame as DevelopFrame runs the own route, the frame counter cycling.
  void Frame() {
    const uint32_t w = context->ImageWidth, h = context->ImageHeight;
    if (w == 1024) {
      ConvertRawToPicture(context, work.data(), raw.data(), 1280, 960, 1280, 960);
      Resample1280To1024(work.data(), work.data(), 1280, 960, 1024, h);
    } else {
      ConvertRawToPicture(context, work.data(), raw.data(), w, h, w, h);
    }
    context->FrameCounter = (context->FrameCounter + 1) % FrameCycleLength;
  }
  DeviceContext* context;
  Bytes work, raw, pristine;
};

void BM_OwnRoute(benchmark::State& state, uint8_t wireFormat) {
  const uint32_t w = uint32_t(state.range(0)), h = uint32_t(state.range(1));
  OwnCamera camera(wireFormat == 1 ? CompressionRGB24 : CompressionYUY2, wireFormat, w, h);
  camera.Frame();
  const size_t pictureBytes = size_t(w) * h * 2;
  const uint32_t reference = Checksum(camera.work, pictureBytes);
  if (reference == Checksum(Bytes(pictureBytes, 0), pictureBytes)) {
    state.SkipWithError("no picture");
    return;
  }
  for (auto _ : state) {
    camera.Frame();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pictureBytes));
  state.counters["checksum"] = reference;
}
BENCHMARK_CAPTURE(BM_OwnRoute, Bayer, uint8_t(1))
    ->Args({1600, 1200})
    ->Args({1024, 768})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_OwnRoute, Yuyv, uint8_t(2))
    ->Args({1600, 1200})
    ->Args({1024, 768})
    ->Unit(benchmark::kMicrosecond);

// ---------------------------------------------------------------- dead pixels

// One scan pass of a 1600 x 1200 Bayer frame (a quarter of its samples), and
// the repair of the map it and the other passes found. Bytes are the frame's.
void BM_DeadPixelScanPass(benchmark::State& state) {
  OwnCamera camera(CompressionRGB24, 1, 1600, 1200);
  for (auto _ : state) {
    camera.context->DeadPixelPass = 1;
    ScanDeadPixelsBayer(camera.context, camera.raw.data(), 1600, 1200);
  }
  if (camera.context->DeadPixelCount[1] == 0) state.SkipWithError("no dead samples found");
  state.counters["found"] = camera.context->DeadPixelCount[1];
  state.SetBytesProcessed(int64_t(state.iterations()) * 1600 * 1200);
}
BENCHMARK(BM_DeadPixelScanPass)->Unit(benchmark::kMicrosecond);

void BM_DeadPixelRepair(benchmark::State& state) {
  OwnCamera camera(CompressionRGB24, 1, 1600, 1200);
  for (uint32_t pass = 0; pass < 4; ++pass) {
    camera.context->DeadPixelPass = pass;
    ScanDeadPixelsBayer(camera.context, camera.raw.data(), 1600, 1200);
  }
  camera.context->DeadPixelMapReady = 1;
  camera.context->FrameCounter = 5;  // no scan, repair only
  const uint32_t entries = camera.context->DeadPixelCount[0] + camera.context->DeadPixelCount[1] +
                           camera.context->DeadPixelCount[2] + camera.context->DeadPixelCount[3];
  for (auto _ : state) {
    RepairDeadPixelsBayer(camera.context, camera.raw.data(), 1600, 1200);
    benchmark::ClobberMemory();
  }
  state.counters["entries"] = entries;
  state.SetBytesProcessed(int64_t(state.iterations()) * 1600 * 1200);
}
BENCHMARK(BM_DeadPixelRepair)->Unit(benchmark::kMicrosecond);

}  // namespace
