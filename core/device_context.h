// DeviceContext: the one flat record of a camera. The host allocates it,
// zero-filled, at the size the driver declares, and passes it to every
// callback; each subsystem owns a run of its fields and every routine receives
// the whole record. Apart from the frame work buffer, the saved interface copy
// and the companions' own state, everything a camera needs lies here.
//
// Fields are shared between the host's paths, the worker thread, the shutter
// key monitor and the idle thread without a lock: each is a single byte or
// aligned word written by one side and read by the other. Such fields are read
// and written with LoadShared and StoreShared, which make the access atomic
// (and so well defined) without adding any ordering the design doesn't have.
#pragma once

#include <cstdint>

#include "core/host_contract.h"
#include "facezoom/face_detector.h"
#include "facezoom/zoom.h"
#include "platform/kernel.h"
#include "settings/image_properties.h"

// Values of Signature once the device is configured.
constexpr uint32_t DeviceSignature = 2145;

// Size of WorkBuffer: the largest picture, 1600 x 1200, at three bytes a pixel.
constexpr uint32_t WorkBufferBytes = 1600 * 1200 * 3;

constexpr uint32_t DeadPixelPasses = 4;
constexpr uint32_t DeadPixelMaxEntries = 65536;
constexpr uint32_t FrameTimeRingSize = 40;
constexpr uint32_t FocusStepTableSize = 12;
constexpr uint32_t SensorNameChars = 16;
constexpr uint32_t FormatCatalogueRows = 40;
constexpr uint32_t ModeSectionNameBytes = 32;

// Worker thread commands.
enum WorkerCommandCode : uint8_t {
  WorkerNone = 0,
  WorkerStartCapture = 1,
  WorkerStopCapture = 2,
  WorkerLensStartUp = 3,
  WorkerLensToInitialPosition = 4,
  WorkerFocusStep = 5,
  WorkerBandwidthAllocated = 128,
};

// Indices of the event arrays.
enum WorkerEventIndex { WorkerWakeEvent = 0, WorkerDoneEvent = 1, WorkerStopEvent = 2 };
enum ThreadEventIndex { ThreadDoneEvent = 0, ThreadStopEvent = 1 };

struct DeviceContext {
  // -------- identity and page settings
  uint32_t Signature;
  uint32_t FeatureFlags;  // bit 0 focus on, bit 1 single-jump search, bit 4 draw focus frame
  uint32_t FlickerMode;   // 0 60 Hz, 1 50 Hz, 2 automatic
  uint32_t LightCondition;
  uint32_t QualityOption;
  uint32_t MirrorPage;
  uint32_t FlipPage;
  uint32_t SpefParameterIndex;
  uint32_t SpefCategory;
  uint32_t SpefList;

  // -------- sensor and streaming mode
  WCHAR SensorName[SensorNameChars];
  const char* ModeSection;
  uint8_t IsFullSpeed;
  int32_t SelSuspendTimeout;
  uint32_t FrameInterval;
  uint32_t StreamAlternateSetting;
  uint8_t IdleAlternateSetting;
  uint32_t ControlMethod;  // low byte ScaleMode, next byte WireFormat
  uint32_t IspType;        // low byte RawPipelineKind, third byte LensKind

  // -------- frame accounting
  uint32_t FrameCounter;  // 0 to 23 on the raw frame path
  uint32_t FramesToDrop;
  uint32_t ScriptFrameNumber;

  // -------- dead pixel map
  uint8_t DeadPixelMapReady;
  uint32_t DeadPixelRGB24;
  uint32_t DeadPixelYUYV;
  uint32_t DeadPixelPass;
  uint32_t DeadPixelCount[DeadPixelPasses];
  uint32_t DeadPixelOffsets[DeadPixelPasses][DeadPixelMaxEntries];

  // -------- lens and focus
  uint32_t FocusState;
  uint32_t MotorPhase;
  uint32_t FocusWindowSize;
  uint32_t FocusSearchCount;
  int32_t LensPosition;
  int32_t FocusBestPosition;
  int32_t LensInitPosition;
  uint32_t FocusSharpness;
  uint32_t FocusLastSharpness;
  uint32_t FocusSweepPeak;
  uint32_t Refresh;
  uint8_t LensMoveCancel;
  uint8_t LensShutterKeyDown;
  uint32_t FocusStepTable[FocusStepTableSize];
  uint32_t FocusStepSingle;

  // -------- vendor property scratch and the current format
  uint8_t PropertyI2CAddr;
  uint8_t PropertyRegister;
  uint16_t PropertyRegister16;
  uint32_t CurrentCompression;
  uint32_t ImageWidth;
  uint32_t ImageHeight;
  int32_t ReadDelay;
  uint32_t SensorI2CAddr;
  uint32_t RegisterAddrLo;

  // -------- image properties
  PropertyRecordSet PropertyRecords;

  // -------- companion handles and script switches
  uint64_t FuncHandle;
  uint8_t ScriptScrambled;
  uint32_t EngineerMode;  // bit value 2: deliver bad-length frames; 4: write FrameRateNumber
  uint8_t FrameLengthOk;
  uint32_t FrameBytes;
  uint8_t InitScriptsFresh;
  uint8_t ModeScriptsCurrent;
  uint8_t DarkFrameMeasured;
  uint32_t BlackBodyDarkRGB24;
  uint32_t BlackBodyDarkYUYV;
  uint32_t DarkMeanRGB24;
  uint32_t DarkMeanYUYV;

  // -------- orientation
  uint8_t OrientationInput;
  uint32_t OrientationCountdown;
  uint32_t InvertFrameNumber;
  uint32_t InvertImage;
  uint32_t HorizMode;
  uint32_t VertMode;
  uint32_t HorizApplied;
  uint32_t VertApplied;
  uint8_t RotateHoriz;
  uint8_t RotateVert;

  // -------- shutter key monitor
  uint32_t PollingShutterKey;
  uint32_t ShutterKeyState;
  uint32_t ShutterPollHold;
  uint32_t ShutterReleaseCount;
  KEVENT ShutterThreadEvents[2];  // ThreadDoneEvent, ThreadStopEvent

  // -------- worker thread
  uint8_t WorkerCommand;  // WorkerCommandCode
  uint8_t InitAlternateSetting;
  KEVENT WorkerEvents[3];  // WorkerWakeEvent, WorkerDoneEvent, WorkerStopEvent

  // -------- handles, buffers, locks
  uint64_t IspHandle;
  uint8_t* WorkBuffer;  // WorkBufferBytes, from start-up to CamUnInitialize
  FAST_MUTEX VendorMutex;

  // -------- stream and still state
  uint8_t SkipNextPacket;
  uint32_t StreamCount;
  uint8_t StillEventPending;
  uint32_t StillTriggerState;  // 0 idle, 1 armed, 2 fire with the next frame
  uint32_t StillPin;
  uint8_t StillFromKey;
  uint8_t StreamOpen;
  USBD_INTERFACE_INFORMATION* SavedInterface;

  // -------- host objects and idle state
  USBCAMD_INTERFACE CamInterface;
  PDEVICE_OBJECT ClassDeviceObject;
  PDEVICE_OBJECT PhysicalDeviceObject;
  void* IdleCallbackInfo;
  uint8_t IdleArmed;
  uint8_t IdleState;
  KEVENT IdleEvents[2];  // ThreadDoneEvent, ThreadStopEvent
  int64_t IdleTimeout;
  PIRP IdleIrp;
  uint8_t IgnoreNextRun;

  // -------- face tracking and zoom
  int8_t FaceChroma[FaceGridRows][FaceGridColumns][2];  // Cb, Cr
  uint8_t SkinMask[FaceGridRows][FaceGridColumns];
  int32_t BlobRight[FaceGridRows][FaceGridColumns];
  int32_t BlobLeft[FaceGridRows][FaceGridColumns];
  int32_t BlobBottom[FaceGridRows][FaceGridColumns];
  int32_t BlobTop[FaceGridRows][FaceGridColumns];
  int32_t BlobArea[FaceGridRows][FaceGridColumns];
  FaceBox FaceCandidates[4];
  FaceBox FaceRect;
  uint8_t FacePhase;
  uint8_t FaceFound;
  uint8_t FaceTrackingOn;
  uint32_t Zoom;
  uint32_t ZoomLast;
  int32_t ZoomX;
  int32_t ZoomY;

  // -------- interface and frame-rate meter
  uint8_t InterfaceNumber;
  uint32_t LastFrameTime;
  int32_t FrameTimeSamples;  // -1 before the first interval exists
  uint32_t FrameTimeSum;
  uint32_t FrameTimeIndex;
  uint32_t FrameTimeRing[FrameTimeRingSize];

  // -------- last group
  uint64_t SpefHandle;
  uint32_t IsRevision2Chip;
  uint8_t BlankFrameActive;
  uint32_t BlankFrameCount;
  uint32_t BlankPacketCountdown;

  // -------- this camera's own copies of what a driver-wide table would hold
  // The formats both pins offer, best first, as BuildFormatList ranked them
  // from this camera's description: two cameras with different descriptions
  // each offer their own.
  const KS_DATARANGE_VIDEO* FormatList[FormatCatalogueRows];
  uint32_t FormatCount;
  // The mode's section name with this camera's speed prefix; ModeSection
  // points here or at a shared row of the mode table, which is never changed.
  char ModeSectionName[ModeSectionNameBytes];
};

// The bytes of ControlMethod and IspType as the pipeline reads them.
inline uint8_t ScaleMode(const DeviceContext* context) {
  return static_cast<uint8_t>(context->ControlMethod);
}
inline uint8_t WireFormat(const DeviceContext* context) {
  return static_cast<uint8_t>(context->ControlMethod >> 8);
}
inline uint8_t RawPipelineKind(const DeviceContext* context) {
  return static_cast<uint8_t>(context->IspType);
}
inline uint8_t LensKind(const DeviceContext* context) {
  return static_cast<uint8_t>(context->IspType >> 16);
}

// Atomic access to a field shared between threads without a lock.
template <typename T>
inline T LoadShared(const T& field) {
  return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
template <typename T, typename V>
inline void StoreShared(T& field, V value) {
  __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELEASE);
}
