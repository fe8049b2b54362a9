// The image signal processor library (USBMORA0): its handle, capture start
// and stop, orientation and custom properties. The frame routine,
// ISPFunc_RawToImg, is in isp_develop.cc.
//
// The handle is the address of the IspState, allocated from pool with the
// tag "Isp0". Every call takes the handle first; a null handle does nothing
// and answers STATUS_INVALID_HANDLE (the prpmanf calls answer 0 bytes).
#include "companions/isp_library.h"

#include <cstring>

CompanionHandleTable IspLiveHandles;

IspState* IspStateOf(uint64_t handle) {
  if (!IsLiveHandle(&IspLiveHandles, handle)) return nullptr;
  return reinterpret_cast<IspState*>(static_cast<uintptr_t>(handle));
}

namespace {

uint32_t ReadWireRegisterWord(IspState* state, void* context, uint8_t lowRegister,
                              uint8_t highRegister) {
  uint32_t low = state->ReadControllerByte(context, lowRegister);
  uint32_t high = state->ReadControllerByte(context, highRegister);
  return low | (high << 8);
}

}  // namespace

// Start-up (StartImageLibraries): may allocate, does not call back.
NTSTATUS ISPFunc_Init(uint64_t* ispHandle, void* context, PDEVICE_OBJECT physicalDeviceObject,
                      const WCHAR* sensorName, uint8_t highSpeed, ReadByteRoutine readSensorByte,
                      WritePacketRoutine writeSensorPacket,
                      ExecuteSectionRoutine executeScriptSection,
                      ReadByteRoutine readControllerByte, WritePairsRoutine writeControllerPairs) {
  (void)context;
  (void)physicalDeviceObject;
  if (ispHandle == nullptr) return STATUS_INVALID_PARAMETER;
  *ispHandle = 0;
  void* block = ExAllocatePoolWithTag(NonPagedPool, sizeof(IspState), IspPoolTag);
  if (block == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  std::memset(block, 0, sizeof(IspState));
  IspState* state = static_cast<IspState*>(block);
  state->Signature = IspStateSignature;
  if (sensorName != nullptr) {
    for (uint32_t i = 0; i < 16 && sensorName[i] != 0; ++i) state->SensorName[i] = sensorName[i];
  }
  state->HighSpeed = highSpeed;
  state->ReadSensorByte = readSensorByte;
  state->WriteSensorPacket = writeSensorPacket;
  state->ExecuteScriptSection = executeScriptSection;
  state->ReadControllerByte = readControllerByte;
  state->WriteControllerPairs = writeControllerPairs;
  IspSelectRowRoutines(&state->Rows);
  for (uint32_t i = 0; i < IspRowCacheSlots; ++i) state->CachedRow[i] = -1;
  state->WhiteGains =
      static_cast<uint32_t>(IspUnityGain) | (static_cast<uint32_t>(IspUnityGain) << 16);
  const uint64_t handle = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(state));
  if (!AddLiveHandle(&IspLiveHandles, handle)) {
    ExFreePoolWithTag(state, IspPoolTag);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  *ispHandle = handle;
  return STATUS_SUCCESS;
}

// CamUnInitialize: releases everything of the library.
NTSTATUS ISPFunc_Exit(uint64_t ispHandle, void* context, PDEVICE_OBJECT physicalDeviceObject) {
  (void)context;
  (void)physicalDeviceObject;
  IspState* state = IspStateOf(ispHandle);
  if (state == nullptr || !RemoveLiveHandle(&IspLiveHandles, ispHandle)) {
    return STATUS_INVALID_HANDLE;
  }
  state->Signature = 0;
  ExFreePoolWithTag(state, IspPoolTag);
  return STATUS_SUCCESS;
}

// Worker thread, capture start. Reads the wire frame from the controller's
// frame-window registers (it may block on those vendor requests). A width or
// height of 0, a frame above 1600 x 1200 or no register routine means the
// registers are not programmed: the wire frame is then the output size in
// Bayer. A YUYV wire frame is taken an even number of pixels wide.
NTSTATUS ISPFunc_StartCapture(uint64_t ispHandle, void* context, uint32_t mode, uint32_t width,
                              uint32_t height, uint32_t* wireWidth, uint32_t* wireHeight) {
  (void)mode;
  IspState* state = IspStateOf(ispHandle);
  if (state == nullptr) return STATUS_INVALID_HANDLE;
  uint32_t w = 0, h = 0;
  uint8_t layout = IspWireLayoutBayer;
  if (state->ReadControllerByte != nullptr) {
    w = ReadWireRegisterWord(state, context, IspWireWidthLowRegister, IspWireWidthHighRegister);
    h = ReadWireRegisterWord(state, context, IspWireHeightLowRegister, IspWireHeightHighRegister);
    layout = state->ReadControllerByte(context, IspWireLayoutRegister) == IspWireLayoutYuyv
                 ? IspWireLayoutYuyv
                 : IspWireLayoutBayer;
    if (layout == IspWireLayoutYuyv) w &= ~1u;
  }
  uint64_t geometry = 0;
  if (w != 0 && h != 0 && w <= IspWireMaxWidth && h <= IspWireMaxHeight) {
    geometry = IspGeometryValid | (uint64_t{layout} << 32) | (uint64_t{h} << 16) | w;
  } else {
    w = width;
    h = height;
  }
  IspStoreShared(&state->WireGeometry, geometry);
  IspStoreShared(&state->CaptureWidth, width);
  IspStoreShared(&state->CaptureHeight, height);
  IspStoreShared(&state->AwbRestart, 1u);
  if (wireWidth != nullptr) *wireWidth = w;
  if (wireHeight != nullptr) *wireHeight = h;
  return STATUS_SUCCESS;
}

// Worker thread, capture stop: the wire geometry is forgotten, so frames
// developed after it (none, normally) take the output size in Bayer.
NTSTATUS ISPFunc_StopCapture(uint64_t ispHandle, void* context) {
  (void)context;
  IspState* state = IspStateOf(ispHandle);
  if (state == nullptr) return STATUS_INVALID_HANDLE;
  IspStoreShared(&state->WireGeometry, uint64_t{0});
  IspStoreShared(&state->CaptureWidth, 0u);
  IspStoreShared(&state->CaptureHeight, 0u);
  return STATUS_SUCCESS;
}

// Stream state changes of the capture stream (packet path). The state is
// remembered; going to stop also restarts automatic white balance, so a new
// stream does not begin with the last scene's smoothed gains. A state above
// 3 (run) is refused.
NTSTATUS ISPFunc_StreamStateNotify(uint64_t ispHandle, void* context, uint32_t streamState) {
  (void)context;
  IspState* state = IspStateOf(ispHandle);
  if (state == nullptr) return STATUS_INVALID_HANDLE;
  if (streamState > 3) return STATUS_INVALID_PARAMETER;
  IspStoreShared(&state->StreamState, streamState);
  if (streamState == 0) IspStoreShared(&state->AwbRestart, 1u);
  return STATUS_SUCCESS;
}

// Frame path or worker thread; a plain store, taken by the next frame.
NTSTATUS ISPFunc_Rotate(uint64_t ispHandle, void* context, uint32_t mirror, uint32_t flip) {
  (void)context;
  IspState* state = IspStateOf(ispHandle);
  if (state == nullptr) return STATUS_INVALID_HANDLE;
  uint32_t orientation =
      (mirror != 0 ? IspOrientationMirror : 0) | (flip != 0 ? IspOrientationFlip : 0);
  IspStoreShared(&state->Orientation, orientation);
  return STATUS_SUCCESS;
}

void IspGetWireGeometry(IspState* state, uint32_t width, uint32_t height, uint32_t* wireWidth,
                        uint32_t* wireHeight, uint8_t* layout) {
  uint64_t geometry = IspLoadShared(&state->WireGeometry);
  if ((geometry & IspGeometryValid) == 0) {
    *wireWidth = width;
    *wireHeight = height;
    *layout = IspWireLayoutBayer;
    return;
  }
  *wireWidth = static_cast<uint32_t>(geometry & 0xFFFF);
  *wireHeight = static_cast<uint32_t>((geometry >> 16) & 0xFFFF);
  *layout = static_cast<uint8_t>((geometry >> 32) & 0xFF);
}

namespace {

// The u32 a custom property carries, or null when the request is too short.
uint32_t* PropertyWord(STREAM_PROPERTY_DESCRIPTOR* descriptor, uint32_t* id) {
  if (descriptor == nullptr || descriptor->Property == nullptr ||
      descriptor->PropertyInfo == nullptr || descriptor->PropertyOutputSize < 4) {
    return nullptr;
  }
  *id = descriptor->Property->Id;
  return static_cast<uint32_t*>(descriptor->PropertyInfo);
}

}  // namespace

// Property path. Ids 32 (version), 50 (mean luma of the last frame), 55
// (white balance gains in force) and 57 (automatic white balance smoothing).
uint32_t ISPFunc_prpmanf_GetCustomProperty(uint64_t ispHandle, void* context,
                                           STREAM_PROPERTY_DESCRIPTOR* descriptor) {
  (void)context;
  IspState* state = IspStateOf(ispHandle);
  uint32_t id = 0;
  uint32_t* word = PropertyWord(descriptor, &id);
  if (state == nullptr || word == nullptr) return 0;
  uint32_t value;
  switch (id) {
    case IspPropertyVersion:
      value = IspLibraryVersion;
      break;
    case IspPropertyMeanLuma:
      value = IspLoadShared(&state->MeanLuma);
      break;
    case IspPropertyWhiteGains:
      value = IspLoadShared(&state->WhiteGains);
      break;
    case IspPropertyAwbSmoothing:
      value = IspLoadShared(&state->AwbSmoothing);
      break;
    default:
      return 0;
  }
  std::memcpy(word, &value, sizeof(value));
  return sizeof(value);
}

// Property path. Id 57 only; a smoothing above 7 is taken as 7.
uint32_t ISPFunc_prpmanf_SetCustomProperty(uint64_t ispHandle, void* context,
                                           STREAM_PROPERTY_DESCRIPTOR* descriptor) {
  (void)context;
  IspState* state = IspStateOf(ispHandle);
  uint32_t id = 0;
  uint32_t* word = PropertyWord(descriptor, &id);
  if (state == nullptr || word == nullptr) return 0;
  if (id != IspPropertyAwbSmoothing) return 0;
  uint32_t value;
  std::memcpy(&value, word, sizeof(value));
  IspStoreShared(&state->AwbSmoothing, value > IspAwbSmoothingMax ? IspAwbSmoothingMax : value);
  return sizeof(value);
}
