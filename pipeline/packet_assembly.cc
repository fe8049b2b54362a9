// USB packet assembly. For every isochronous packet the host asks where the
// payload lies, whether to throw the packet away and whether the frame ends
// here. The payload itself is never read: only the two header bytes are.
//
// Context: host's USB completion path, every packet. Takes no lock, never
// blocks, never allocates.

#include "core/capture_lifecycle.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel.h"

namespace {

// Length of the still-trigger countdown, in milliseconds of key polling.
constexpr uint32_t StillReleaseWindowMs = 2000;

// The frame lengths the current mode's sensor may send: a short list, or any.
struct AcceptedLengths {
  bool any;
  uint32_t count;
  uint32_t values[8];
};

void Accept(AcceptedLengths* accepted, uint32_t length) {
  accepted->values[accepted->count++] = length;
}

// With the image processor library the accepted lengths follow the width.
void AcceptImageProcessorLengths(AcceptedLengths* a, uint32_t w, uint32_t h) {
  if (w > 800) {
    Accept(a, h * w);
    Accept(a, (h - 2) * w);
    Accept(a, 76800);
    Accept(a, 307200);
    Accept(a, 614400);
    Accept(a, 1228800);
  } else if (w > 640) {
    a->any = true;
  } else if (w == 640) {
    Accept(a, 38400);
    Accept(a, 307200);
    Accept(a, 614400);
    Accept(a, 1228800);
    Accept(a, 1310720);
  } else {
    Accept(a, 19200);
    Accept(a, 38400);
    Accept(a, 76800);
    Accept(a, 307200);
    Accept(a, 614400);
    Accept(a, 2 * h * w);
    Accept(a, 8 * h * w);
  }
}

// A Bayer frame: one byte per wire pixel, and it may come two lines short.
// 352 and 176 wide pictures come from a 640 x 480 sensor frame, 1024 from a
// 1280 x 960 one.
void AcceptBayerLengths(AcceptedLengths* a, uint32_t w, uint32_t h, uint8_t scaleMode,
                        uint32_t compression) {
  switch (scaleMode) {
    case 2:
      Accept(a, 4 * h * w);
      Accept(a, (2 * h - 2) * 2 * w);
      if (w == 352 || w == 176) {
        Accept(a, 307200);
        Accept(a, 305920);
      }
      if (w == 1024 && compression != CompressionI420) {
        Accept(a, 1228800);
        Accept(a, 1226240);
      }
      break;
    case 3:
      Accept(a, (w / 2) * h / 2);
      Accept(a, (h / 2 - 2) * (w / 2));
      break;
    case 4:
      Accept(a, 16 * h * w);
      Accept(a, (4 * h - 2) * 4 * w);
      break;
    case 5:
      Accept(a, (w / 4) * h / 4);
      Accept(a, (h / 4 - 2) * (w / 4));
      break;
    default:
      Accept(a, h * w);
      Accept(a, (h - 2) * w);
      break;
  }
}

// A YUYV frame: two bytes per wire pixel.
void AcceptYuyvLengths(AcceptedLengths* a, uint32_t w, uint32_t h, uint8_t scaleMode) {
  switch (scaleMode) {
    case 2:
      Accept(a, 8 * h * w);
      if (w == 352 || w == 176) Accept(a, 614400);
      break;
    case 3:
      Accept(a, ((w / 2) * h) & ~1u);
      break;
    case 4:
      Accept(a, 32 * h * w);
      break;
    case 5:
      Accept(a, ((w / 4) * h / 2) & ~1u);
      break;
    default:
      Accept(a, 2 * h * w);
      break;
  }
}

enum class LengthTest : uint8_t { None, Bayer, Yuyv };

// Which test a frame gets, by output format and wire format 0 to 3. Wire
// format 0 follows the output format: RGB24 means raw Bayer, YUY2 means YUYV,
// I420 means 4:2:0, which has no test.
struct LengthTestRow {
  uint32_t compression;
  LengthTest byWireFormat[4];
};

constexpr LengthTestRow kLengthTests[] = {
    {CompressionRGB24, {LengthTest::Bayer, LengthTest::Bayer, LengthTest::Yuyv, LengthTest::None}},
    {CompressionYUY2, {LengthTest::Yuyv, LengthTest::Bayer, LengthTest::Yuyv, LengthTest::None}},
    {CompressionI420, {LengthTest::None, LengthTest::Bayer, LengthTest::Yuyv, LengthTest::None}},
};

LengthTest SelectLengthTest(uint32_t compression, uint8_t wireFormat) {
  if (wireFormat > 3) return LengthTest::None;
  for (const LengthTestRow& row : kLengthTests) {
    if (row.compression == compression) return row.byWireFormat[wireFormat];
  }
  return LengthTest::None;
}

// The camera's button as the packet header reports it, and the still trigger
// it drives.
void TrackStillButton(DeviceContext* context, bool down, uint32_t* packetFlag) {
  uint32_t trigger = LoadShared(context->StillTriggerState);
  if (LensKind(context) == 2) {
    // On this lens the header's button bit is the home switch.
    StoreShared(context->LensShutterKeyDown, down ? 1 : 0);
    if (context->StillPin != 0 && trigger != 0 && !down) {
      *packetFlag |= USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill;
      StoreShared(context->StillTriggerState, 0);
    }
    return;
  }
  if (context->StillPin == 2) {
    if (down && trigger == 0) {
      uint32_t polling = context->PollingShutterKey;
      if (polling != 0) {
        uint32_t count = polling >= StillReleaseWindowMs ? 1 : StillReleaseWindowMs / polling;
        StoreShared(context->ShutterReleaseCount, count);
      }
      StoreShared(context->StillTriggerState, 1);
      trigger = 1;
    }
    if (trigger == 2) {
      *packetFlag |= USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill;
      StoreShared(context->StillTriggerState, 0);
    }
  } else if (context->StillPin == 1) {
    // A press marks the frame in which the button is let go.
    if (trigger != 0 && !down) *packetFlag |= USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill;
    if (down) {
      StoreShared(context->StillEventPending, 1);
      StoreShared(context->StillTriggerState, 1);
    } else {
      StoreShared(context->StillTriggerState, 0);
    }
  }
}

}  // namespace

bool IsFrameLengthAccepted(const DeviceContext* context, uint32_t frameBytes) {
  const uint32_t w = context->ImageWidth;
  const uint32_t h = context->ImageHeight;
  AcceptedLengths accepted = {};
  if (RawPipelineKind(context) == 1) {
    AcceptImageProcessorLengths(&accepted, w, h);
  } else {
    switch (SelectLengthTest(context->CurrentCompression, WireFormat(context))) {
      case LengthTest::None:
        return true;
      case LengthTest::Bayer:
        AcceptBayerLengths(&accepted, w, h, ScaleMode(context), context->CurrentCompression);
        break;
      case LengthTest::Yuyv:
        AcceptYuyvLengths(&accepted, w, h, ScaleMode(context));
        break;
    }
  }
  if (accepted.any) return true;
  for (uint32_t i = 0; i < accepted.count; ++i) {
    if (accepted.values[i] == frameBytes) return true;
  }
  return false;
}

uint32_t CamProcessUSBPacketEx(PDEVICE_OBJECT, DeviceContext* context, void*,
                               USBD_ISO_PACKET_DESCRIPTOR*, void*,
                               USBD_ISO_PACKET_DESCRIPTOR* dataPacket, void* dataBuffer,
                               BOOLEAN* frameComplete, uint32_t* packetFlag,
                               uint32_t* validDataOffset) {
  *packetFlag = 0;
  *validDataOffset = 0;

  // After a stream open the host is told of one empty frame; the frame path
  // paints it blank.
  if (LoadShared(context->BlankFrameActive)) {
    if (context->BlankPacketCountdown-- == 0) {
      *frameComplete = 1;
      context->BlankPacketCountdown = BlankPhasePackets;
    }
    return 0;
  }

  // Nothing reaches the host while a stream comes up or goes down.
  const uint32_t length = dataPacket->Length;
  const uint8_t command = LoadShared(context->WorkerCommand);
  if (length == 0 || (command != WorkerNone && command != WorkerLensToInitialPosition &&
                      command != WorkerFocusStep)) {
    *packetFlag |= USBCAMD_PROCESSPACKETEX_DropPacket;
    return 0;
  }

  const uint8_t* packet = static_cast<const uint8_t*>(dataBuffer);
  const uint32_t headerLength = packet[0];
  // The header length is not checked by the controller: a header that claims
  // more than the packet leaves no payload rather than a negative one.
  const uint32_t payload = headerLength < length ? length - headerLength : 0;
  *validDataOffset = headerLength;

  // The packet after a frame end never belongs to a frame.
  if (context->SkipNextPacket) {
    context->SkipNextPacket = 0;
    *validDataOffset = 0;
    return 0;
  }

  const uint8_t flags = length > 1 ? packet[1] : 0;
  TrackStillButton(context, (flags & PacketFlagButtonDown) != 0, packetFlag);

  if (!(flags & PacketFlagLastOfFrame)) {
    context->FrameBytes += payload;
    return payload;
  }

  // Frame end. FrameBytes doesn't count this last packet's payload yet.
  const bool lengthOk = IsFrameLengthAccepted(context, context->FrameBytes);
  StoreShared(context->FrameLengthOk, lengthOk ? 1 : 0);
  if (!lengthOk && (context->EngineerMode & 2)) {
    DbgPrint("Length of Frame is %d\n", static_cast<int>(context->FrameBytes));
  }
  context->FrameBytes = 0;
  context->SkipNextPacket = 1;
  *frameComplete = 1;
  return payload;
}

uint32_t CamProcessUSBPacket(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                             void* currentFrameContext, USBD_ISO_PACKET_DESCRIPTOR* syncPacket,
                             void* syncBuffer, USBD_ISO_PACKET_DESCRIPTOR* dataPacket,
                             void* dataBuffer, BOOLEAN* frameComplete, BOOLEAN* nextFrameIsStill) {
  *nextFrameIsStill = 0;
  uint32_t packetFlag;
  uint32_t validDataOffset;
  return CamProcessUSBPacketEx(busDeviceObject, context, currentFrameContext, syncPacket,
                               syncBuffer, dataPacket, dataBuffer, frameComplete, &packetFlag,
                               &validDataOffset);
}
