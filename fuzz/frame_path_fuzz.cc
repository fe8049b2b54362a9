// Random packet sequences through the packet path and random frames through
// the frame path, with random modes: nothing may crash, hang or touch memory
// outside the host's buffers.
//
// Input: a settings block, then operations until the input runs out.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/companions.h"
#include "core/device_context.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"

namespace {

struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  bool More() const { return at < size; }
  uint8_t Byte() { return at < size ? data[at++] : 0; }
  uint16_t Word() { return uint16_t(Byte() | Byte() << 8); }
};

struct Size {
  uint32_t w, h;
};
constexpr Size kSizes[] = {{128, 96},  {160, 120}, {176, 144}, {320, 240},
                           {352, 288}, {640, 480}, {1024, 768}, {800, 600}};
constexpr uint32_t kCompressions[] = {CompressionRGB24, CompressionYUY2, CompressionI420, 0};

uint8_t ReadZero(void*, uint8_t) { return 0; }
void WriteNothing(void*, uint8_t*, uint32_t) {}
NTSTATUS RunNothing(void*, const char*) { return STATUS_SUCCESS; }
NTSTATUS WritePairsNothing(void*, const uint8_t*, uint32_t) { return STATUS_SUCCESS; }

struct Companions {
  uint64_t func;
  uint64_t spef;
  std::vector<uint8_t> work;
};

Companions& Shared() {
  static Companions companions = [] {
    SetDebugPrintSink([](void*, const char*) {}, nullptr);
    Companions c;
    c.func = FUNC_Init();
    c.spef = SPEF_Init(u"\\??\\C:\\Camera");
    c.work.assign(WorkBufferBytes, 0);
    return c;
  }();
  return companions;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Companions& shared = Shared();
  Reader in{data, size};
  auto* context = static_cast<DeviceContext*>(std::calloc(1, sizeof(DeviceContext)));
  for (KEVENT& event : context->WorkerEvents) KeInitializeEvent(&event, NotificationEvent, FALSE);

  const Size size0 = kSizes[in.Byte() % (sizeof kSizes / sizeof kSizes[0])];
  context->ImageWidth = size0.w;
  context->ImageHeight = size0.h;
  context->CurrentCompression = kCompressions[in.Byte() % 4];
  context->ControlMethod = in.Word();  // any scale mode, any wire format
  context->IspType = uint32_t(in.Byte() % 3) | uint32_t(in.Byte() % 3) << 16;
  context->StillPin = in.Byte() % 3;
  context->EngineerMode = in.Byte() & 6;
  context->PollingShutterKey = in.Word();
  context->FeatureFlags = in.Byte();
  context->SpefCategory = in.Byte() % 4;
  context->SpefList = in.Byte() % 8;
  for (uint32_t* value = &context->PropertyRecords.Brightness.Value;
       value <= &context->PropertyRecords.BackLight.Value; value += 4) {
    *value = in.Word();
  }
  context->PropertyRecords.ColorEnable.Value = in.Byte() & 1;
  context->WorkBuffer = shared.work.data();
  context->FuncHandle = shared.func;
  context->SpefHandle = shared.spef;
  ISPFunc_Init(&context->IspHandle, context, nullptr, u"OV2640", 1, ReadZero, WriteNothing,
               RunNothing, ReadZero, WritePairsNothing);
  uint32_t wireW, wireH;
  ISPFunc_StartCapture(context->IspHandle, context, 2, size0.w, size0.h, &wireW, &wireH);
  ISPFunc_Rotate(context->IspHandle, context, in.Byte() & 1, in.Byte() & 1);
  SPEF_StartCapture(shared.spef, size0.w, size0.h);

  // The host's buffers: a raw frame as large as the biggest wire frame the
  // mode can send, and the picture of the format (sometimes one byte short).
  const uint32_t pixels = size0.w * size0.h;
  std::vector<uint8_t> raw(std::max<size_t>(size_t(pixels) * 2, 1280 * 960 * 2));
  uint32_t raw_fill = 0;
  std::vector<uint8_t> packet(2048);
  int frames = 0;

  while (in.More() && frames < 4) {
    switch (in.Byte() % 5) {
      case 0:
      case 1: {  // a packet
        const uint32_t length = in.Word() % 1100;
        packet[0] = in.Byte();
        packet[1] = in.Byte();
        context->WorkerCommand = in.Byte() % 8 == 0 ? 1 : 0;
        USBD_ISO_PACKET_DESCRIPTOR descriptor = {0, length, 0};
        BOOLEAN complete = 0;
        uint32_t flag = 0, offset = 0;
        uint32_t take = CamProcessUSBPacketEx(nullptr, context, nullptr, nullptr, nullptr,
                                              &descriptor, packet.data(), &complete, &flag, &offset);
        if (take > 0 && (offset + take > length || offset + take > packet.size())) std::abort();
        if (!(flag & USBCAMD_PROCESSPACKETEX_DropPacket)) raw_fill += take;
        break;
      }
      case 2: {  // a finished frame
        const uint32_t compression = context->CurrentCompression;
        uint32_t bytes = pixels * 2;
        if (compression == CompressionRGB24) bytes = pixels * 3;
        if (compression == CompressionI420) bytes = pixels * 3 / 2;
        if (in.Byte() % 8 == 0) bytes -= 1;
        std::vector<uint8_t> output(bytes);
        for (uint32_t i = 0; i < 64 && i < raw.size(); ++i) raw[i] = in.Byte();
        context->WorkerCommand = in.Byte() % 6;
        if (in.Byte() & 1) {
          KeSetEvent(&context->WorkerEvents[WorkerWakeEvent], 0, FALSE);
        } else {
          KeClearEvent(&context->WorkerEvents[WorkerWakeEvent]);
        }
        context->FramesToDrop = in.Byte() % 3;
        uint32_t returned = 0;
        CamProcessRawVideoFrameEx(nullptr, context, nullptr, output.data(), bytes, raw.data(),
                                  uint32_t(raw.size()), 0, &returned, raw_fill, 0);
        if (returned != 0 && returned != bytes) std::abort();
        raw_fill = 0;
        ++frames;
        break;
      }
      case 3:  // a stream open
        context->BlankFrameActive = 1;
        context->BlankFrameCount = 0;
        context->BlankPacketCountdown = in.Byte();
        break;
      default:
        context->StillTriggerState = in.Byte() % 3;
        context->ShutterKeyState = in.Byte() & 1;
        context->ShutterReleaseCount = in.Byte() == 0 ? 0xFFFFFFFF : in.Byte();
        break;
    }
  }

  ISPFunc_Exit(context->IspHandle, context, nullptr);
  std::free(context);
  return 0;
}
