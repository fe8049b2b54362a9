// The frame path from raw frame to finished picture, per output format and
// size, against a memcpy of the same output size; and the packet path per
// packet.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/companions.h"
#include "core/device_context.h"
#include "pipeline/frame_pipeline.h"

namespace {

uint8_t ReadZero(void*, uint8_t) { return 0; }
void WriteNothing(void*, uint8_t*, uint32_t) {}
NTSTATUS RunNothing(void*, const char*) { return STATUS_SUCCESS; }
NTSTATUS WritePairsNothing(void*, const uint8_t*, uint32_t) { return STATUS_SUCCESS; }

uint32_t PictureBytes(uint32_t compression, uint32_t w, uint32_t h) {
  if (compression == CompressionRGB24) return w * h * 3;
  if (compression == CompressionI420) return w * h * 3 / 2;
  return w * h * 2;
}

// FNV-1a over a sample of the picture: a fast but wrong build shows here.
uint32_t Checksum(const std::vector<uint8_t>& bytes) {
  uint32_t hash = 2166136261u;
  for (size_t i = 0; i < bytes.size(); i += 61) hash = (hash ^ bytes[i]) * 16777619u;
  return hash;
}

struct Camera {
  Camera(uint32_t compression, uint32_t w, uint32_t h)
      : context(static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)))),
        work(WorkBufferBytes),
        raw(size_t(w) * h),
        output(PictureBytes(compression, w, h)) {
    for (KEVENT& event : context->WorkerEvents) KeInitializeEvent(&event, NotificationEvent, FALSE);
    context->CurrentCompression = compression;
    context->ImageWidth = w;
    context->ImageHeight = h;
    context->ControlMethod = 0x0100;
    context->IspType = 1;
    context->FrameLengthOk = 1;
    context->WorkBuffer = work.data();
    context->PropertyRecords.ColorEnable.Value = 1;
    context->SpefCategory = 99;
    context->FuncHandle = FUNC_Init();
    context->SpefHandle = SPEF_Init(u"\\??\\C:\\Camera");
    ISPFunc_Init(&context->IspHandle, context, nullptr, u"OV2640", 1, ReadZero, WriteNothing,
                 RunNothing, ReadZero, WritePairsNothing);
    uint32_t ww, wh;
    ISPFunc_StartCapture(context->IspHandle, context, 2, w, h, &ww, &wh);
    SPEF_StartCapture(context->SpefHandle, w, h);
    for (size_t i = 0; i < raw.size(); ++i) raw[i] = uint8_t((i * 7 + i / w * 3) & 0xFF);
  }
  ~Camera() {
    ISPFunc_Exit(context->IspHandle, context, nullptr);
    SPEF_Exit(context->SpefHandle);
    FUNC_Exit(context->FuncHandle);
    std::free(context);
  }
  uint32_t Frame() {
    uint32_t bytes = 0;
    CamProcessRawVideoFrameEx(nullptr, context, nullptr, output.data(), uint32_t(output.size()),
                              raw.data(), uint32_t(raw.size()), 0, &bytes, uint32_t(raw.size()), 0);
    return bytes;
  }
  DeviceContext* context;
  std::vector<uint8_t> work, raw, output;
};

void BM_FramePath(benchmark::State& state, uint32_t compression) {
  const uint32_t w = uint32_t(state.range(0)), h = uint32_t(state.range(1));
  Camera camera(compression, w, h);
  if (camera.Frame() != camera.output.size()) {
    state.SkipWithError("frame not delivered");
    return;
  }
  const uint32_t reference = Checksum(camera.output);
  for (auto _ : state) benchmark::DoNotOptimize(camera.Frame());
  if (Checksum(camera.output) != reference) state.SkipWithError("picture changed between runs");
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(camera.output.size()));
  state.counters["checksum"] = reference;
}

void BM_MemcpyOfOutput(benchmark::State& state, uint32_t compression) {
  const uint32_t w = uint32_t(state.range(0)), h = uint32_t(state.range(1));
  std::vector<uint8_t> source(PictureBytes(compression, w, h), 1), destination(source.size());
  for (auto _ : state) {
    std::memcpy(destination.data(), source.data(), source.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(source.size()));
}

#define FRAME_SIZES ->Args({640, 480})->Args({1280, 960})->Args({1600, 1200})->Unit(benchmark::kMicrosecond)
BENCHMARK_CAPTURE(BM_FramePath, RGB24, CompressionRGB24) FRAME_SIZES;
BENCHMARK_CAPTURE(BM_MemcpyOfOutput, RGB24, CompressionRGB24) FRAME_SIZES;
BENCHMARK_CAPTURE(BM_FramePath, YUY2, CompressionYUY2) FRAME_SIZES;
BENCHMARK_CAPTURE(BM_MemcpyOfOutput, YUY2, CompressionYUY2) FRAME_SIZES;
BENCHMARK_CAPTURE(BM_FramePath, I420, CompressionI420) FRAME_SIZES;
BENCHMARK_CAPTURE(BM_MemcpyOfOutput, I420, CompressionI420) FRAME_SIZES;

// One 640 x 480 Bayer frame in 3060-byte packets, the last one flagged.
void BM_PacketPath(benchmark::State& state) {
  Camera camera(CompressionRGB24, 640, 480);
  camera.context->IspType = 0;
  std::vector<uint8_t> packet(3072, 0);
  packet[0] = 12;
  const uint32_t perFrame = 307200 / 3060 + 1;
  uint64_t frames = 0;
  uint32_t n = 0;
  for (auto _ : state) {
    packet[1] = (n + 1 == perFrame) ? PacketFlagLastOfFrame : 0;
    USBD_ISO_PACKET_DESCRIPTOR descriptor = {0, 3072, 0};
    BOOLEAN complete = 0;
    uint32_t flag, offset;
    benchmark::DoNotOptimize(CamProcessUSBPacketEx(nullptr, camera.context, nullptr, nullptr,
                                                   nullptr, &descriptor, packet.data(), &complete,
                                                   &flag, &offset));
    frames += complete;
    n = (n + 1 == perFrame) ? 0 : n + 1;
  }
  state.counters["frames"] = double(frames);
}
BENCHMARK(BM_PacketPath);

}  // namespace
