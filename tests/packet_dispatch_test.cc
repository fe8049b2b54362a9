// Adapter packet dispatch: the host calls each request makes, streams and
// formats, power, idle, run notifications, properties, the interface query,
// the entry and the order of teardown.

#include "core/packet_dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "companions/isp_library.h"
#include "core/capture_lifecycle.h"
#include "core/companions.h"
#include "core/format_catalogue.h"
#include "core/interface_configuration.h"
#include "pipeline/frame_pipeline.h"
#include "platform/kernel_control.h"
#include "platform/registry_control.h"
#include "tests/device_fixture.h"
#include "tests/fake_capture_host.h"

namespace {

using Lines = std::vector<std::string>;

class DispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetRegistry();
    host_.context = device_.context;
    // The camera offers three rows of the catalogue.
    for (uint32_t i = 0; i < 3; ++i) device_->FormatList[i] = FormatCatalogue[i].DataRange;
    device_->FormatCount = 3;
    device_->StreamCount = 2;
    // A format as a client opens a stream with it, from an offered range.
    good_.DataFormat = FormatCatalogue[1].DataRange->DataRange;
    good_.DataFormat.FormatSize = sizeof good_;
    good_.VideoInfoHeader = FormatCatalogue[1].DataRange->VideoInfoHeader;
    bad_ = good_;
    bad_.VideoInfoHeader.bmiHeader.biWidth += 2;
  }
  void TearDown() override {
    std::string report;
    EXPECT_TRUE(KernelCheckBalanced(&report)) << report;
    ResetRegistry();
  }

  // A request with its status preset to a value no handler gives.
  HW_STREAM_REQUEST_BLOCK Srb(uint32_t command, uint32_t stream = 0, void* data = nullptr) {
    HW_STREAM_REQUEST_BLOCK srb = {};
    srb.Command = command;
    srb.Status = 0x1234;
    srb.HwDeviceExtension = &extension_;
    srb.CommandData.Buffer = data;
    stream_ = {};
    stream_.StreamNumber = stream;
    srb.StreamObject = &stream_;
    return srb;
  }
  // Through the adapter's handler.
  HW_STREAM_REQUEST_BLOCK Send(uint32_t command, uint32_t stream = 0, void* data = nullptr) {
    HW_STREAM_REQUEST_BLOCK srb = Srb(command, stream, data);
    AdapterPacketHandler(&srb);
    return srb;
  }
  // Through the stream's control handler: whether it completed the request.
  BOOLEAN Control(HW_STREAM_REQUEST_BLOCK* srb) {
    BOOLEAN completed = 7;
    StreamControlPacketHandler(srb, device_.context, &completed);
    return completed;
  }

  FakeCaptureHost host_;
  TestDevice device_;
  HW_STREAM_OBJECT stream_ = {};
  int extension_ = 0;
  KS_DATAFORMAT_VIDEOINFOHEADER good_, bad_;
};

TEST_F(DispatchTest, EveryDeviceRequestReachesTheHostAsItsCodeSays) {
  struct {
    HW_STREAM_DESCRIPTOR header;
    HW_STREAM_INFORMATION rows[2];
  } info = {};
  PORT_CONFIGURATION_INFORMATION config = {};
  KSPROPERTY property = {};
  STREAM_PROPERTY_DESCRIPTOR descriptor = {};
  descriptor.Property = &property;
  STREAM_DATA_INTERSECT_INFO intersect = {};
  void* d2 = reinterpret_cast<void*>(uintptr_t(PowerDeviceD2));
  // No worker runs: its done event stands, as after a start-up that failed.
  KeSetEvent(&device_->WorkerEvents[WorkerDoneEvent], 0, FALSE);

  struct Case {
    uint32_t command;
    void* data;
    Lines log;
  } cases[] = {
      {SRB_GET_STREAM_INFO, &info, {"receive 100 none", "receive 100 table hosted"}},
      {SRB_OPEN_STREAM, &good_, {"receive 101 none", "receive 101 table hosted"}},
      {SRB_OPEN_STREAM, &bad_, {"receive 101 none", "finish 1 101"}},
      {SRB_CLOSE_STREAM, nullptr, {"receive 102 table hosted"}},
      {SRB_OPEN_DEVICE_INSTANCE, nullptr, {"receive 103 table hosted"}},
      {SRB_CLOSE_DEVICE_INSTANCE, nullptr, {"receive 104 table hosted"}},
      {SRB_GET_DEVICE_PROPERTY, &descriptor, {"receive 105 table device", "finish 1 105"}},
      {SRB_SET_DEVICE_PROPERTY, &descriptor, {"receive 106 table device", "finish 1 106"}},
      {SRB_INITIALIZE_DEVICE,
       &config,
       {"receive 107 none", "newinterface 200 12", "receive 107 table hosted"}},
      {SRB_CHANGE_POWER_STATE, d2, {"receive 108 none", "receive 108 table hosted"}},
      {SRB_UNINITIALIZE_DEVICE, nullptr, {"receive 109 none", "receive 109 table hosted"}},
      {SRB_UNKNOWN_DEVICE_COMMAND, nullptr, {"receive 10A table hosted"}},
      {SRB_PAGING_OUT_DRIVER, nullptr, {"receive 10B table hosted"}},
      {SRB_GET_DATA_INTERSECTION, &intersect, {"receive 10C none", "finish 1 10C"}},
      {SRB_INITIALIZATION_COMPLETE,
       nullptr,
       {"receive 10D none", "build 1B", "call", "finish 1 10D"}},
      {SRB_SURPRISE_REMOVAL, nullptr, {"receive 10E table hosted"}},
      {SRB_NOTIFY_IDLE_STATE, nullptr, {"receive 111 table hosted"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(FakeCaptureHost::Hex(c.command, 3));
    host_.ClearLog();
    Send(c.command, 0, c.data);
    EXPECT_EQ(host_.Log(), c.log);
  }
  EXPECT_EQ(host_.newInterfaceTable, &CameraDeviceData2);
}

TEST_F(DispatchTest, StreamInformationOffersTheCamerasOwnFormatsAndFiveSets) {
  for (uint32_t streamCount : {1u, 2u}) {
    SCOPED_TRACE(streamCount);
    device_->StreamCount = streamCount;
    struct {
      HW_STREAM_DESCRIPTOR header;
      HW_STREAM_INFORMATION rows[2];
    } info = {};
    std::memset(&info.rows[1], 0xA5, sizeof info.rows[1]);
    Send(SRB_GET_STREAM_INFO, 0, &info.header);
    const auto& header = info.header.StreamHeader;
    EXPECT_EQ(std::make_tuple(header.NumberOfStreams, header.NumDevPropArrayEntries,
                              header.DevicePropertiesArray),
              std::make_tuple(streamCount, 5u, DevicePropertySets));
    for (uint32_t i = 0; i < streamCount; ++i) {
      const HW_STREAM_INFORMATION& row = info.rows[i];
      EXPECT_EQ(
          std::make_tuple(row.StreamFormatsArray, row.NumberOfFormatArrayEntries, row.Name,
                          row.DataFlow),
          std::make_tuple(device_->FormatList, 3u, StreamTable[i].Name, StreamTable[i].DataFlow));
    }
    EXPECT_EQ(reinterpret_cast<uint8_t*>(&info.rows[1])[0] == 0xA5, streamCount == 1);
  }
  // The host lists the sets in this order.
  std::vector<const GUID*> sets;
  for (const KSPROPERTY_SET& set : DevicePropertySets) sets.push_back(set.Set);
  EXPECT_EQ(sets, (std::vector<const GUID*>{&VendorEffectSet, &PROPSETID_VIDCAP_VIDEOPROCAMP,
                                            &VendorControlSet, &VendorIdentitySet,
                                            &PROPSETID_VIDCAP_VIDEOCONTROL}));
  // 2BCB75C0-B27F-11D1-BA41-00A0C90D2B05 in memory order.
  const uint8_t usbcamd[16] = {0xC0, 0x75, 0xCB, 0x2B, 0x7F, 0xB2, 0xD1, 0x11,
                               0xBA, 0x41, 0x00, 0xA0, 0xC9, 0x0D, 0x2B, 0x05};
  EXPECT_EQ(std::memcmp(&GUID_USBCAMD_INTERFACE, usbcamd, 16), 0);
}

TEST_F(DispatchTest, EveryOpenStartsABlankPhaseAndABadFormatIsRefused) {
  // Stream, format, status (0x1234: the host answers).
  const NTSTATUS invalid = STATUS_INVALID_PARAMETER;
  const std::tuple<uint32_t, KS_DATAFORMAT_VIDEOINFOHEADER*, NTSTATUS> cases[] = {
      {0, &good_, 0x1234}, {1, &good_, 0x1234}, {0, &bad_, invalid}, {2, &good_, invalid}};
  for (auto [stream, format, status] : cases) {
    SCOPED_TRACE(testing::Message() << stream << (format == &bad_ ? " bad" : " good"));
    device_->BlankFrameActive = 0;
    device_->BlankFrameCount = 9;
    device_->BlankPacketCountdown = 3;
    EXPECT_EQ(Send(SRB_OPEN_STREAM, stream, &format->DataFormat).Status, status);
    EXPECT_EQ(std::make_tuple(device_->BlankFrameActive, device_->BlankFrameCount,
                              device_->BlankPacketCountdown),
              std::make_tuple(uint8_t(1), 0u, 500u));
    EXPECT_EQ(std::make_pair(stream_.ReceiveControlPacket, stream_.ReceiveDataPacket),
              std::make_pair(&StreamControlPacketHandler, &StreamDataPacketHandler));
  }
}

NTSTATUS CountSetVideoFormat(DeviceContext*, PHW_STREAM_REQUEST_BLOCK srb) {
  ++*static_cast<int*>(srb->HwDeviceExtension);
  return STATUS_SUCCESS;
}

TEST_F(DispatchTest, StreamRequestsCheckTheFormatAndTellTheHostsInterface) {
  // Command, format, interface version; status, completed, SetVideoFormat calls.
  const std::tuple<uint32_t, KS_DATAFORMAT_VIDEOINFOHEADER*, uint16_t, NTSTATUS, BOOLEAN, int>
      cases[] = {{SRB_PROPOSE_DATA_FORMAT, &good_, 0x200, STATUS_SUCCESS, TRUE, 0},
                 {SRB_PROPOSE_DATA_FORMAT, &bad_, 0x200, STATUS_NO_MATCH, TRUE, 0},
                 {SRB_SET_DATA_FORMAT, &good_, 0x200, STATUS_SUCCESS, TRUE, 1},
                 {SRB_SET_DATA_FORMAT, &good_, 0, STATUS_SUCCESS, TRUE, 0},  // no interface
                 {SRB_SET_DATA_FORMAT, &bad_, 0x200, STATUS_NO_MATCH, TRUE, 0},
                 {SRB_GET_DATA_FORMAT, &good_, 0x200, STATUS_NOT_IMPLEMENTED, TRUE, 0},
                 {SRB_READ_DATA, &good_, 0x200, STATUS_SUCCESS, FALSE, 0},
                 {SRB_GET_STREAM_PROPERTY, &good_, 0x200, STATUS_SUCCESS, FALSE, 0}};
  device_->CamInterface.USBCAMD_SetVideoFormat = &CountSetVideoFormat;
  for (auto [command, format, version, status, completed, setVideoFormat] : cases) {
    SCOPED_TRACE(testing::Message()
                 << command << " " << version << (format == &bad_ ? " bad" : ""));
    device_->CamInterface.Version = version;
    host_.ClearLog();
    extension_ = 0;
    HW_STREAM_REQUEST_BLOCK srb = Srb(command, 0, &format->DataFormat);
    EXPECT_EQ(Control(&srb), completed);
    EXPECT_EQ(std::make_pair(srb.Status, extension_), std::make_pair(status, setVideoFormat));
    EXPECT_EQ(host_.Log(),
              completed ? Lines{"stream-finish 3 " + std::to_string(command)} : Lines{});
  }
  // The data handler does nothing at all.
  BOOLEAN completed = 7;
  HW_STREAM_REQUEST_BLOCK srb = Srb(SRB_READ_DATA);
  StreamDataPacketHandler(&srb, device_.context, &completed);
  EXPECT_EQ(completed, 7);
  EXPECT_EQ(srb.Status, 0x1234);
}

// The image library's way back to the camera, answering nothing.
uint8_t NoByte(void*, uint8_t) { return 0; }
void NoPacket(void*, uint8_t*, uint32_t) {}
NTSTATUS NoSection(void*, const char*) { return STATUS_SUCCESS; }
NTSTATUS NoPairs(void*, const uint8_t*, uint32_t) { return STATUS_SUCCESS; }

TEST_F(DispatchTest, TheFirstRunAfterAStartStaysAwayFromTheImageLibrary) {
  uint64_t isp = 0;
  ISPFunc_Init(&isp, device_.context, nullptr, u"OV2640", 1, NoByte, NoPacket, NoSection, NoByte,
               NoPairs);
  ASSERT_NE(IspStateOf(isp), nullptr);
  device_->IspHandle = isp;
  device_->IspType = 1;        // the library develops the frames
  device_->IgnoreNextRun = 1;  // as the worker's start leaves it
  // Stream, state; the library's state and IgnoreNextRun afterwards.
  const std::tuple<uint32_t, KSSTATE, uint32_t, uint8_t> steps[] = {
      {0, KSSTATE_PAUSE, 2, 1},                          // not a run: told
      {1, KSSTATE_RUN, 2, 1},                            // the still stream: nobody told
      {1, KSSTATE_STOP, 2, 1},  {0, KSSTATE_RUN, 2, 0},  // the first run: swallowed
      {0, KSSTATE_RUN, 3, 0},                            // the second: told
      {0, KSSTATE_STOP, 0, 0}};
  for (auto [stream, state, libraryState, ignoreNextRun] : steps) {
    SCOPED_TRACE(testing::Message() << stream << "/" << state);
    HW_STREAM_REQUEST_BLOCK srb = Srb(SRB_SET_STREAM_STATE, stream);
    srb.CommandData.StreamState = state;
    EXPECT_EQ(Control(&srb), FALSE);
    EXPECT_EQ(std::make_pair(IspStateOf(isp)->StreamState, device_->IgnoreNextRun),
              std::make_pair(libraryState, ignoreNextRun));
  }
  // With the driver's own route the library hears nothing.
  device_->IspType = 0;
  NotifyStreamState(device_.context, KSSTATE_RUN);
  EXPECT_EQ(IspStateOf(isp)->StreamState, 0u);
  ISPFunc_Exit(isp, device_.context, nullptr);
}

TEST_F(DispatchTest, PowerStatesBeyondOnAndOffAreRefusedAndTheHostStillCalled) {
  const NTSTATUS ok = STATUS_SUCCESS, refused = STATUS_NOT_IMPLEMENTED, untouched = 0x1234;
  // No state, D0 to D3, the maximum, and beyond.
  const std::pair<int32_t, NTSTATUS> cases[] = {{0, refused},   {1, ok},        {2, refused},
                                                {3, refused},   {4, ok},        {5, refused},
                                                {6, untouched}, {-1, untouched}};
  for (auto [state, status] : cases) {
    SCOPED_TRACE(state);
    host_.ClearLog();
    device_->InitScriptsFresh = 0;
    HW_STREAM_REQUEST_BLOCK srb = Srb(SRB_CHANGE_POWER_STATE);
    srb.CommandData.DeviceState = static_cast<DEVICE_POWER_STATE>(state);
    AdapterPacketHandler(&srb);
    EXPECT_EQ(srb.Status, status);
    EXPECT_EQ(host_.Count("receive 108 table hosted"), 1u);
    EXPECT_EQ(device_->InitScriptsFresh, state == 1 ? 1 : 0);
  }
}

TEST_F(DispatchTest, TheIdleByteIsTakenBeforeTheHostFinishesThePacket) {
  const std::tuple<int32_t, BOOLEAN, uint8_t> cases[] = {
      {0, 1, 5}, {0, 0, 5}, {600000000, 1, 1}, {600000000, 0, 0}};
  // The host reuses a finished packet at once.
  host_.onHostedPacket = [](PHW_STREAM_REQUEST_BLOCK srb) {
    srb->CommandData.IdleState = srb->CommandData.IdleState ? 0 : 1;
  };
  for (auto [selSuspend, idle, armed] : cases) {
    SCOPED_TRACE(testing::Message() << selSuspend << "/" << int(idle));
    device_->SelSuspendTimeout = selSuspend;
    device_->IdleArmed = 5;
    HW_STREAM_REQUEST_BLOCK srb = Srb(SRB_NOTIFY_IDLE_STATE);
    srb.CommandData.IdleState = idle;
    AdapterPacketHandler(&srb);
    EXPECT_EQ(device_->IdleArmed, armed);
  }
}

TEST_F(DispatchTest, PropertiesOfEverySetAreNotServedYet) {
  const GUID unknown = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
  const GUID* sets[] = {&PROPSETID_VIDCAP_VIDEOPROCAMP, &VendorControlSet, &VendorIdentitySet,
                        &PROPSETID_VIDCAP_VIDEOCONTROL, &VendorEffectSet,  &unknown};
  for (const GUID* set : sets) {
    for (uint32_t command : {SRB_GET_DEVICE_PROPERTY, SRB_SET_DEVICE_PROPERTY}) {
      SCOPED_TRACE(testing::Message() << std::hex << set->Data1 << " " << command);
      KSPROPERTY property = {*set, 1, 0};
      STREAM_PROPERTY_DESCRIPTOR descriptor = {};
      descriptor.Property = &property;
      EXPECT_EQ(Send(command, 0, &descriptor).Status, STATUS_NOT_SUPPORTED);
    }
  }
  STREAM_PROPERTY_DESCRIPTOR empty = {};
  HW_STREAM_REQUEST_BLOCK srb = Srb(SRB_GET_DEVICE_PROPERTY, 0, &empty);
  RoutePropertyRequest(FALSE, nullptr, device_.context, &srb);
  EXPECT_EQ(srb.Status, STATUS_NOT_SUPPORTED);
}

TEST_F(DispatchTest, TheInterfaceQueryCopiesTheHostsInterfaceOnlyWhenItIsThere) {
  // Offered, completed later, whether the I/O manager gives a request at all;
  // the interface version the driver ends with.
  const std::tuple<bool, bool, bool, uint16_t> cases[] = {
      {1, 0, 1, 0x200}, {1, 1, 1, 0x200}, {0, 0, 1, 0}, {1, 0, 0, 0}};
  static HostCalls withoutIo;
  for (auto [offer, pending, build, version] : cases) {
    SCOPED_TRACE(testing::Message() << offer << pending << build);
    host_.offerInterface = offer;
    host_.queryPending = pending;
    host_.offered = {};
    host_.offered.Size = 72;
    host_.offered.Version = 0x200;
    host_.offered.USBCAMD_SetIsoPipeState = [](DeviceContext*, uint32_t) { return STATUS_SUCCESS; };
    device_->CamInterface = {};
    device_->CamInterface.Version = 0x7777;
    device_->ClassDeviceObject = reinterpret_cast<DEVICE_OBJECT*>(0xC1A55);
    const HostCalls* calls = GetHostCalls();
    if (!build) {
      withoutIo = *calls;
      withoutIo.BuildSynchronousFsdRequest = nullptr;
      SetHostCalls(&withoutIo);
    }
    EXPECT_EQ(QueryCamInterface(device_.context), STATUS_SUCCESS);
    SetHostCalls(calls);
    EXPECT_EQ(device_->CamInterface.Version, version);
    if (version != 0) {
      EXPECT_EQ(std::memcmp(&device_->CamInterface, &host_.offered, sizeof host_.offered), 0);
    }
    if (build) {
      const IRP& q = host_.lastQuery;
      const auto& query = q.Stack.Parameters.QueryInterface;
      EXPECT_EQ(std::make_tuple(q.Stack.MajorFunction, q.Stack.MinorFunction, query.InterfaceType,
                                query.Size, query.Version, query.InterfaceSpecificData),
                std::make_tuple(uint8_t(IRP_MJ_PNP), uint8_t(IRP_MN_QUERY_INTERFACE),
                                &GUID_USBCAMD_INTERFACE, uint16_t(72), uint16_t(0x200), nullptr));
      EXPECT_EQ(q.IoStatus.Status, STATUS_NOT_SUPPORTED) << "preset before the call";
    }
    EXPECT_EQ(PoolLiveBlocks(PoolTagWdm), 0u);
  }
  PoolFailAllocation(1);
  EXPECT_EQ(QueryCamInterface(device_.context), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(DispatchTest, InitialisationTakesTheRealDeviceObjectAndCompletionSaysConnected) {
  auto* physical = reinterpret_cast<DEVICE_OBJECT*>(0x1000);
  auto* real = reinterpret_cast<DEVICE_OBJECT*>(0x2000);
  auto* cls = reinterpret_cast<DEVICE_OBJECT*>(0x3000);
  for (DEVICE_OBJECT* given : {real, static_cast<DEVICE_OBJECT*>(nullptr)}) {
    PORT_CONFIGURATION_INFORMATION config = {};
    config.ClassDeviceObject = cls;
    config.PhysicalDeviceObject = physical;
    config.RealPhysicalDeviceObject = given;
    Send(SRB_INITIALIZE_DEVICE, 0, &config);
    EXPECT_EQ(std::make_pair(device_->PhysicalDeviceObject, device_->ClassDeviceObject),
              std::make_pair(given ? real : physical, cls));
  }

  device_->SelSuspendTimeout = 600000000;
  EXPECT_EQ(Send(SRB_INITIALIZATION_COMPLETE).Status, STATUS_SUCCESS);
  uint32_t connected = 0;
  ASSERT_TRUE(GetRegistryDword(ServiceKeyPath, u"ConnectionState", &connected));
  EXPECT_EQ(connected, 1u);
  EXPECT_NE(KeReadStateEvent(&device_->IdleEvents[ThreadDoneEvent]), 0);
  EXPECT_EQ(KeReadStateEvent(&device_->IdleEvents[ThreadStopEvent]), 0);
}

TEST_F(DispatchTest, TheEntryDeclaresTheRecordAFourByteFrameContextAndTheHandler) {
  int driverObject = 0;
  EXPECT_EQ(DriverEntry(&driverObject, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(host_.Log(), Lines{"entry " + std::to_string(sizeof(DeviceContext)) + " 4"});
  EXPECT_EQ(std::make_pair(host_.entryReceive, host_.entryDriverObject),
            std::make_pair(&AdapterPacketHandler, static_cast<void*>(&driverObject)));
  // The two forms differ where the host's calls differ.
  EXPECT_EQ(std::make_pair(CameraDeviceData.CamProcessRawVideoFrame, CameraDeviceData.CamConfigure),
            std::make_pair(&ProcessRawFrame, &CamConfigure));
  EXPECT_EQ(
      std::make_pair(CameraDeviceData2.CamProcessRawVideoFrameEx, CameraDeviceData2.CamConfigureEx),
      std::make_pair(&CamProcessRawVideoFrameEx, &CamConfigureEx));
}

// The teardown order: monitor, worker, then the host, then the registry.
TEST(DispatchTeardownThreads, UninitialisationEndsTheWorkerBeforeTheHostLetsGo) {
  ResetRegistry();
  FakeCaptureHost host;
  TestDevice device;
  host.context = device.context;
  device->PollingShutterKey = 100;
  for (KEVENT& event : device->ShutterThreadEvents)
    KeInitializeEvent(&event, NotificationEvent, FALSE);
  KeSetEvent(&device->ShutterThreadEvents[ThreadDoneEvent], 0, FALSE);  // no monitor runs
  HANDLE thread = nullptr;
  ASSERT_EQ(PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                 WorkerThread, device.context),
            STATUS_SUCCESS);
  ZwClose(thread);
  PostWorkerCommand(device.context, WorkerFocusStep);

  bool workerDoneFirst = false;
  host.onHostedPacket = [&](PHW_STREAM_REQUEST_BLOCK) {
    workerDoneFirst = KeReadStateEvent(&device->WorkerEvents[WorkerDoneEvent]) != 0 &&
                      KeReadStateEvent(&device->ShutterThreadEvents[ThreadStopEvent]) != 0;
  };
  SetRegistryDword(ServiceKeyPath, u"ConnectionState", 1);
  HW_STREAM_REQUEST_BLOCK srb = {};
  srb.Command = SRB_UNINITIALIZE_DEVICE;
  AdapterPacketHandler(&srb);
  EXPECT_TRUE(workerDoneFirst);
  EXPECT_EQ(device->WorkerCommand, 0);
  EXPECT_EQ(LastSetEventPriority(&device->ShutterThreadEvents[ThreadStopEvent]), SignalPriority);
  EXPECT_EQ(LastSetEventPriority(&device->WorkerEvents[WorkerDoneEvent]), EndingPriority);
  uint32_t connected = 1;
  ASSERT_TRUE(GetRegistryDword(ServiceKeyPath, u"ConnectionState", &connected));
  EXPECT_EQ(connected, 0u);
  EXPECT_TRUE(JoinSystemThreads());
  ResetRegistry();
}

}  // namespace
