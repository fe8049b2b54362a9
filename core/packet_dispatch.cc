// Adapter packet dispatch: the device requests of the stream class, the
// requests on an open stream, the routing of property requests by set, and
// the two callback tables the host calls the camera through.
//
// Every routine here runs on the host's packet path (a host thread that may
// block); none allocates but QueryCamInterface, at start-up.

#include "core/packet_dispatch.h"

#include <cstring>

#include "core/capture_lifecycle.h"
#include "core/companions.h"
#include "core/format_catalogue.h"
#include "core/interface_configuration.h"
#include "pipeline/frame_pipeline.h"
#include "script/script_engine.h"
#include "settings/registry_store.h"

// ---------------------------------------------------------------- property sets

const GUID PROPSETID_VIDCAP_VIDEOPROCAMP = {
    0xC6E13360, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
const GUID PROPSETID_VIDCAP_VIDEOCONTROL = {
    0x6A2E0670, 0x28E4, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
const GUID VendorControlSet = {
    0x03022B43, 0x4DA0, 0x47C3, {0xB7, 0x7E, 0x7D, 0x0C, 0x64, 0x63, 0xEC, 0xE7}};
const GUID VendorIdentitySet = {
    0x39227057, 0x474F, 0x47D0, {0x9E, 0xDB, 0x2F, 0x27, 0x75, 0x21, 0x4D, 0x4E}};
const GUID VendorEffectSet = {
    0x03022B43, 0x4DA0, 0x47C3, {0xB7, 0x7E, 0x7D, 0x0C, 0x64, 0x63, 0xEC, 0xE8}};
const GUID GUID_USBCAMD_INTERFACE = {
    0x2BCB75C0, 0xB27F, 0x11D1, {0xBA, 0x41, 0x00, 0xA0, 0xC9, 0x0D, 0x2B, 0x05}};

// The sets in the order the host lists them. Their items come with the
// property handlers.
const KSPROPERTY_SET DevicePropertySets[DevicePropertySetCount] = {
    {&VendorEffectSet, 0, nullptr},
    {&PROPSETID_VIDCAP_VIDEOPROCAMP, 0, nullptr},
    {&VendorControlSet, 0, nullptr},
    {&VendorIdentitySet, 0, nullptr},
    {&PROPSETID_VIDCAP_VIDEOCONTROL, 0, nullptr},
};

namespace {

// ---------------------------------------------------------------- callback tables

// Neither form has anything to do at the start of a frame.
void CamNewVideoFrame(DeviceContext*, void*) {}
void CamNewVideoFrameEx(DeviceContext*, void*, uint32_t, uint32_t*) {}
// The camera keeps no state across the host's power transitions of its own.
NTSTATUS CamSaveState(DeviceContext*) { return STATUS_SUCCESS; }
NTSTATUS CamRestoreState(DeviceContext*) { return STATUS_SUCCESS; }

}  // namespace

const USBCAMD_DEVICE_DATA CameraDeviceData = {
    0,
    CamInitialize,
    CamUnInitialize,
    CamProcessUSBPacket,
    CamNewVideoFrame,
    ProcessRawFrame,
    CamStartCapture,
    CamStopCapture,
    CamConfigure,
    CamSaveState,
    CamRestoreState,
    CamAllocateBandwidth,
    CamFreeBandwidth,
};

const USBCAMD_DEVICE_DATA2 CameraDeviceData2 = {
    0,
    CamInitialize,
    CamUnInitialize,
    CamProcessUSBPacketEx,
    CamNewVideoFrameEx,
    CamProcessRawVideoFrameEx,
    CamStartCaptureEx,
    CamStopCaptureEx,
    CamConfigureEx,
    CamSaveState,
    CamRestoreState,
    CamAllocateBandwidthEx,
    CamFreeBandwidthEx,
};

namespace {

// Version of the host's interfaces the camera asks for, and its control
// flags: formats go with their stream, and the device raises events.
constexpr uint32_t CamInterfaceVersion = 0x200;
constexpr uint32_t CamControlFlags =
    USBCAMD_CamControlFlag_AssociatedFormat | USBCAMD_CamControlFlag_EnableDeviceEvents;

// Frames' worth of packets the blank phase of a fresh stream lasts.
constexpr uint32_t OpenBlankPackets = BlankPhasePackets;

// ---------------------------------------------------------------- property routing

// A set's handlers take the camera and the request and answer in the
// request's Status. A null handler: the set is known but not served yet.
typedef void (*PropertyHandler)(DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb);

struct PropertyRoute {
  const GUID* Set;
  PropertyHandler Get;
  PropertyHandler Set_;
};

// In the order the sets are compared.
const PropertyRoute PropertyRoutes[] = {
    {&PROPSETID_VIDCAP_VIDEOPROCAMP, nullptr, nullptr},  // GetProcAmpProperty, SetProcAmpProperty
    {&VendorControlSet, nullptr, nullptr},               // GetVendorProperty, SetVendorProperty
    {&VendorIdentitySet, nullptr, nullptr},  // GetIdentityProperty, SetIdentityProperty
    {&PROPSETID_VIDCAP_VIDEOCONTROL, nullptr,
     nullptr},                              // GetVideoControlProperty, SetVideoControlProperty
    {&VendorEffectSet, nullptr, nullptr},  // GetVendorProperty, SetVendorProperty
};

// ---------------------------------------------------------------- helpers

// The host finishes the packet itself and gives back the camera.
DeviceContext* HostIt(PHW_STREAM_REQUEST_BLOCK srb) {
  return USBCAMD_AdapterReceivePacket(srb, &CameraDeviceData, nullptr, TRUE);
}
DeviceContext* QueryContext(PHW_STREAM_REQUEST_BLOCK srb) {
  return USBCAMD_AdapterReceivePacket(srb, nullptr, nullptr, FALSE);
}
void Finish(PHW_STREAM_REQUEST_BLOCK srb) {
  StreamClassDeviceNotification(DeviceRequestComplete, srb->HwDeviceExtension, srb);
}

// Raises the own priority, signals `stop` (then `wake`, if any) and waits for
// `done`: how a thread of the camera is asked to end.
void EndThread(KEVENT* stop, KEVENT* wake, KEVENT* done) {
  KeSetPriorityThread(KeGetCurrentThread(), SignalPriority);
  KeSetEvent(stop, 0, FALSE);
  if (wake != nullptr) KeSetEvent(wake, 0, FALSE);
  KeWaitForSingleObject(done, Executive, KernelMode, FALSE, nullptr);
}

void WriteConnectionState(uint32_t state) {
  WriteServiceDword(ServiceKeyName, u"ConnectionState", &state);
}

void GetStreamInfo(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  HW_STREAM_DESCRIPTOR* descriptor = srb->CommandData.StreamBuffer;
  if (context != nullptr && descriptor != nullptr) {
    uint32_t streams = context->StreamCount < CatalogueStreams ? context->StreamCount
                                                                : CatalogueStreams;
    descriptor->StreamHeader.NumberOfStreams = streams;
    descriptor->StreamHeader.SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
    auto* rows = reinterpret_cast<HW_STREAM_INFORMATION*>(descriptor + 1);
    for (uint32_t i = 0; i < streams; ++i) {
      rows[i] = StreamTable[i];
      // Both pins offer this camera's formats, best first.
      rows[i].StreamFormatsArray = context->FormatList;
      rows[i].NumberOfFormatArrayEntries = context->FormatCount;
    }
    descriptor->StreamHeader.DevicePropertiesArray = DevicePropertySets;
    descriptor->StreamHeader.NumDevPropArrayEntries = DevicePropertySetCount;
  }
  HostIt(srb);
}

void OpenStream(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  HW_STREAM_OBJECT* stream = srb->StreamObject;
  if (context == nullptr || stream == nullptr) {
    srb->Status = STATUS_INVALID_PARAMETER;
    Finish(srb);
    return;
  }
  // Every open, of either stream and failed or not, starts a blank phase.
  StoreShared(context->BlankFrameActive, 1);
  StoreShared(context->BlankFrameCount, 0);
  StoreShared(context->BlankPacketCountdown, OpenBlankPackets);
  stream->ReceiveDataPacket = StreamDataPacketHandler;
  stream->ReceiveControlPacket = StreamControlPacketHandler;
  if (CheckFormat(context, srb->CommandData.OpenFormat, stream->StreamNumber)) {
    HostIt(srb);
    return;
  }
  srb->Status = STATUS_INVALID_PARAMETER;
  Finish(srb);
}

void DeviceProperty(PHW_STREAM_REQUEST_BLOCK srb, BOOLEAN isSet) {
  PDEVICE_OBJECT busDeviceObject = nullptr;
  DeviceContext* context =
      USBCAMD_AdapterReceivePacket(srb, &CameraDeviceData, &busDeviceObject, FALSE);
  if (context != nullptr) {
    RoutePropertyRequest(isSet, busDeviceObject, context, srb);
  } else {
    srb->Status = STATUS_NOT_SUPPORTED;
  }
  Finish(srb);
}

void InitializeDevice(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  PORT_CONFIGURATION_INFORMATION* config = srb->CommandData.ConfigInfo;
  if (context != nullptr && config != nullptr) {
    context->ClassDeviceObject = config->ClassDeviceObject;
    context->PhysicalDeviceObject = config->RealPhysicalDeviceObject != nullptr
                                        ? config->RealPhysicalDeviceObject
                                        : config->PhysicalDeviceObject;
    USBCAMD_InitializeNewInterface(context, &CameraDeviceData2, CamInterfaceVersion,
                                   CamControlFlags);
  }
  // The host runs CamConfigureEx and CamInitialize in here.
  HostIt(srb);
}

void InitializationComplete(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  srb->Status = context != nullptr ? QueryCamInterface(context) : STATUS_SUCCESS;
  Finish(srb);
  if (context != nullptr && context->SelSuspendTimeout != 0) {
    KeInitializeEvent(&context->IdleEvents[ThreadDoneEvent], NotificationEvent, TRUE);
    KeInitializeEvent(&context->IdleEvents[ThreadStopEvent], NotificationEvent, FALSE);
    context->IdleIrp = nullptr;
    // The idle timer (ArmIdleTimer) is armed here.
  }
  WriteConnectionState(1);
}

// The order keeps every thread of the camera from running on a record that
// is going away: monitor, worker, idle thread, then the host.
void UninitializeDevice(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  if (context != nullptr) {
    if (context->PollingShutterKey != 0) {
      EndThread(&context->ShutterThreadEvents[ThreadStopEvent], nullptr,
                &context->ShutterThreadEvents[ThreadDoneEvent]);
    }
    StoreShared(context->WorkerCommand, WorkerNone);
    EndThread(&context->WorkerEvents[WorkerStopEvent], &context->WorkerEvents[WorkerWakeEvent],
              &context->WorkerEvents[WorkerDoneEvent]);
    // The idle thread is ended here when selective suspend is on.
  }
  HostIt(srb);
  WriteConnectionState(0);
}

void NotifyIdleState(PHW_STREAM_REQUEST_BLOCK srb) {
  // The host finishes the packet: its byte is taken first.
  BOOLEAN idle = srb->CommandData.IdleState;
  DeviceContext* context = HostIt(srb);
  if (context == nullptr || context->SelSuspendTimeout == 0) return;
  if (idle != 0) {
    StoreShared(context->IdleArmed, 1);
    // The idle timer (ArmIdleTimer) is armed here.
  } else {
    StoreShared(context->IdleArmed, 0);
    // An idle request under way (CancelIdle) is called back here.
  }
}

void ChangePowerStatePacket(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  if (context != nullptr) ChangePowerState(context, srb);
  HostIt(srb);
}

void DataIntersection(PHW_STREAM_REQUEST_BLOCK srb) {
  DeviceContext* context = QueryContext(srb);
  srb->Status = context != nullptr ? IntersectFormat(context, srb) : STATUS_NOT_SUPPORTED;
  Finish(srb);
}

}  // namespace

void AdapterPacketHandler(PHW_STREAM_REQUEST_BLOCK srb) {
  switch (srb->Command) {
    case SRB_GET_STREAM_INFO: GetStreamInfo(srb); break;
    case SRB_OPEN_STREAM: OpenStream(srb); break;
    case SRB_GET_DEVICE_PROPERTY: DeviceProperty(srb, FALSE); break;
    case SRB_SET_DEVICE_PROPERTY: DeviceProperty(srb, TRUE); break;
    case SRB_INITIALIZE_DEVICE: InitializeDevice(srb); break;
    case SRB_CHANGE_POWER_STATE: ChangePowerStatePacket(srb); break;
    case SRB_UNINITIALIZE_DEVICE: UninitializeDevice(srb); break;
    case SRB_GET_DATA_INTERSECTION: DataIntersection(srb); break;
    case SRB_INITIALIZATION_COMPLETE: InitializationComplete(srb); break;
    case SRB_NOTIFY_IDLE_STATE: NotifyIdleState(srb); break;
    default: HostIt(srb); break;
  }
}

void ChangePowerState(DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb) {
  switch (srb->CommandData.DeviceState) {
    case PowerDeviceD0:
      if (LoadShared(context->IdleArmed) != 0) {
        StoreShared(context->IdleState, 0);
        // The idle timer (ArmIdleTimer) is armed again here.
      }
      // Script results are not looked at: the device is back either way.
      ExecuteScriptSection(context, "INIT");
      ExecuteScriptSection(context, context->IsFullSpeed ? "FS\\INIT" : "HS\\INIT");
      context->InitScriptsFresh = 1;
      srb->Status = STATUS_SUCCESS;
      break;
    case PowerDeviceD3:
      KeSetEvent(&context->IdleEvents[ThreadStopEvent], 0, FALSE);
      ExecuteScriptSection(context, "POWER_DOWN");
      ExecuteScriptSection(context, context->IsFullSpeed ? "FS\\POWER_DOWN" : "HS\\POWER_DOWN");
      srb->Status = STATUS_SUCCESS;
      break;
    case PowerDeviceUnspecified:
    case PowerDeviceD1:
    case PowerDeviceD2:
    case PowerDeviceMaximum: srb->Status = STATUS_NOT_IMPLEMENTED; break;
    default: break;
  }
}

void StreamControlPacketHandler(PHW_STREAM_REQUEST_BLOCK srb, DeviceContext* context,
                                BOOLEAN* completed) {
  *completed = TRUE;
  srb->Status = STATUS_SUCCESS;
  uint32_t streamNumber = srb->StreamObject != nullptr ? srb->StreamObject->StreamNumber : 0;
  switch (srb->Command) {
    case SRB_PROPOSE_DATA_FORMAT:
      if (!CheckFormat(context, srb->CommandData.OpenFormat, streamNumber)) {
        srb->Status = STATUS_NO_MATCH;
      }
      break;
    case SRB_SET_DATA_FORMAT:
      if (!CheckFormat(context, srb->CommandData.OpenFormat, streamNumber)) {
        srb->Status = STATUS_NO_MATCH;
      } else if (context->CamInterface.Version != 0 &&
                 context->CamInterface.USBCAMD_SetVideoFormat != nullptr) {
        context->CamInterface.USBCAMD_SetVideoFormat(context, srb);
      }
      break;
    case SRB_GET_DATA_FORMAT: srb->Status = STATUS_NOT_IMPLEMENTED; break;
    default:
      *completed = FALSE;
      if (srb->Command == SRB_SET_STREAM_STATE && srb->StreamObject != nullptr &&
          streamNumber == 0) {
        NotifyStreamState(context, srb->CommandData.StreamState);
      }
      return;
  }
  StreamClassStreamNotification(StreamRequestComplete, srb->StreamObject, srb);
}

void StreamDataPacketHandler(PHW_STREAM_REQUEST_BLOCK, DeviceContext*, BOOLEAN*) {}

void NotifyStreamState(DeviceContext* context, KSSTATE state) {
  if (RawPipelineKind(context) != 1) return;
  if (state == KSSTATE_RUN && LoadShared(context->IgnoreNextRun) != 0) {
    // ISPFunc_StartCapture has just told the library of this run.
    StoreShared(context->IgnoreNextRun, 0);
    return;
  }
  ISPFunc_StreamStateNotify(context->IspHandle, context, static_cast<uint32_t>(state));
}

void RoutePropertyRequest(BOOLEAN isSet, PDEVICE_OBJECT, DeviceContext* context,
                          PHW_STREAM_REQUEST_BLOCK srb) {
  STREAM_PROPERTY_DESCRIPTOR* descriptor = srb->CommandData.PropertyInfo;
  if (descriptor != nullptr && descriptor->Property != nullptr) {
    for (const PropertyRoute& route : PropertyRoutes) {
      if (std::memcmp(&descriptor->Property->Set, route.Set, sizeof(GUID)) != 0) continue;
      PropertyHandler handler = isSet ? route.Set_ : route.Get;
      if (handler == nullptr) break;
      handler(context, srb);
      return;
    }
  }
  srb->Status = STATUS_NOT_SUPPORTED;
}

NTSTATUS QueryCamInterface(DeviceContext* context) {
  auto* buffer = static_cast<USBCAMD_INTERFACE*>(
      ExAllocatePoolWithTag(NonPagedPool, sizeof(USBCAMD_INTERFACE), PoolTagWdm));
  if (buffer == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  std::memset(buffer, 0, sizeof *buffer);

  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK ioStatus = {};
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_PNP, context->ClassDeviceObject, &done, &ioStatus);
  if (irp != nullptr) {
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    IO_STACK_LOCATION& stack = irp->Stack;
    stack.MajorFunction = IRP_MJ_PNP;
    stack.MinorFunction = IRP_MN_QUERY_INTERFACE;
    stack.Parameters.QueryInterface.InterfaceType = &GUID_USBCAMD_INTERFACE;
    stack.Parameters.QueryInterface.Size = sizeof(USBCAMD_INTERFACE);
    stack.Parameters.QueryInterface.Version = CamInterfaceVersion;
    stack.Parameters.QueryInterface.Interface = buffer;
    stack.Parameters.QueryInterface.InterfaceSpecificData = nullptr;
    if (IofCallDriver(context->ClassDeviceObject, irp) == STATUS_PENDING) {
      KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
  }
  // The query's status says little; a filled-in interface says it worked.
  if (buffer->USBCAMD_SetIsoPipeState != nullptr) {
    context->CamInterface = *buffer;
  } else {
    context->CamInterface.Version = 0;
  }
  ExFreePool(buffer);
  return STATUS_SUCCESS;
}
