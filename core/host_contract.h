// The contract between the driver and its capture host (the USB camera class
// driver, the stream class driver and the USB bus driver): the request block,
// the stream object, the property descriptor, the video format records, the
// USB descriptors and interface information, the two forms of the callback
// table the driver gives the host, and the host's calls as one table that the
// host layer (or a test double) fills.
//
// The layouts here are this system's own; names follow the platform's
// published ones so that a reader of either recognises the other.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kernel.h"

struct DeviceContext;
struct DEVICE_OBJECT;  // the host's; the driver only passes pointers along
typedef DEVICE_OBJECT* PDEVICE_OBJECT;
struct IRP;
typedef IRP* PIRP;

struct GUID {
  uint32_t Data1;
  uint16_t Data2;
  uint16_t Data3;
  uint8_t Data4[8];
};

// ---------------------------------------------------------------- formats

constexpr uint32_t CompressionRGB24 = 0xE436EB7D;  // first word of the RGB24 media subtype
constexpr uint32_t CompressionYUY2 = 0x32595559;   // "YUY2" little-endian
constexpr uint32_t CompressionI420 = 0x30323449;   // "I420" little-endian

struct KS_BITMAPINFOHEADER {
  uint32_t biSize;
  int32_t biWidth;
  int32_t biHeight;
  uint16_t biPlanes;
  uint16_t biBitCount;
  uint32_t biCompression;
  uint32_t biSizeImage;
  int32_t biXPelsPerMeter;
  int32_t biYPelsPerMeter;
  uint32_t biClrUsed;
  uint32_t biClrImportant;
};

struct KS_RECT {
  int32_t left, top, right, bottom;
};

struct KS_VIDEOINFOHEADER {
  KS_RECT rcSource;
  KS_RECT rcTarget;
  uint32_t dwBitRate;
  uint32_t dwBitErrorRate;
  int64_t AvgTimePerFrame;
  KS_BITMAPINFOHEADER bmiHeader;
};

struct KSDATAFORMAT {
  uint32_t FormatSize;
  uint32_t Flags;
  uint32_t SampleSize;
  uint32_t Reserved;
  GUID MajorFormat;
  GUID SubFormat;
  GUID Specifier;
};

// A video format as a stream is opened with it: the data format followed by
// the video info header.
struct KS_DATAFORMAT_VIDEOINFOHEADER {
  KSDATAFORMAT DataFormat;
  KS_VIDEOINFOHEADER VideoInfoHeader;
};

// ---------------------------------------------------------------- properties

struct KSPROPERTY {
  GUID Set;
  uint32_t Id;
  uint32_t Flags;
};

constexpr uint32_t KSPROPERTY_TYPE_GET = 0x00000001;
constexpr uint32_t KSPROPERTY_TYPE_SET = 0x00000002;

// A property request as it reaches the driver: `Property` points at the
// property (set, id, flags) followed by the rest of the caller's input;
// `PropertyInfo` is the caller's data buffer of `PropertyOutputSize` bytes.
struct STREAM_PROPERTY_DESCRIPTOR {
  KSPROPERTY* Property;
  uint32_t PropertySetID;
  void* PropertyInfo;
  uint32_t PropertyInputSize;
  uint32_t PropertyOutputSize;
};

// ---------------------------------------------------------------- requests

// Device request codes.
constexpr uint32_t SRB_GET_STREAM_INFO = 0x100;
constexpr uint32_t SRB_OPEN_STREAM = 0x101;
constexpr uint32_t SRB_CLOSE_STREAM = 0x102;
constexpr uint32_t SRB_OPEN_DEVICE_INSTANCE = 0x103;
constexpr uint32_t SRB_CLOSE_DEVICE_INSTANCE = 0x104;
constexpr uint32_t SRB_GET_DEVICE_PROPERTY = 0x105;
constexpr uint32_t SRB_SET_DEVICE_PROPERTY = 0x106;
constexpr uint32_t SRB_INITIALIZE_DEVICE = 0x107;
constexpr uint32_t SRB_CHANGE_POWER_STATE = 0x108;
constexpr uint32_t SRB_UNINITIALIZE_DEVICE = 0x109;
constexpr uint32_t SRB_UNKNOWN_DEVICE_COMMAND = 0x10A;
constexpr uint32_t SRB_PAGING_OUT_DRIVER = 0x10B;
constexpr uint32_t SRB_GET_DATA_INTERSECTION = 0x10C;
constexpr uint32_t SRB_INITIALIZATION_COMPLETE = 0x10D;
constexpr uint32_t SRB_SURPRISE_REMOVAL = 0x10E;
constexpr uint32_t SRB_NOTIFY_IDLE_STATE = 0x111;

// Stream request codes.
constexpr uint32_t SRB_READ_DATA = 0;
constexpr uint32_t SRB_WRITE_DATA = 1;
constexpr uint32_t SRB_GET_STREAM_STATE = 2;
constexpr uint32_t SRB_SET_STREAM_STATE = 3;
constexpr uint32_t SRB_SET_STREAM_PROPERTY = 4;
constexpr uint32_t SRB_GET_STREAM_PROPERTY = 5;
constexpr uint32_t SRB_PROPOSE_DATA_FORMAT = 10;
constexpr uint32_t SRB_SET_DATA_FORMAT = 13;
constexpr uint32_t SRB_GET_DATA_FORMAT = 14;

enum KSSTATE : int32_t { KSSTATE_STOP = 0, KSSTATE_ACQUIRE = 1, KSSTATE_PAUSE = 2, KSSTATE_RUN = 3 };

enum DEVICE_POWER_STATE : int32_t {
  PowerDeviceUnspecified = 0,
  PowerDeviceD0 = 1,
  PowerDeviceD1 = 2,
  PowerDeviceD2 = 3,
  PowerDeviceD3 = 4,
  PowerDeviceMaximum = 5,
};

struct HW_STREAM_REQUEST_BLOCK;
typedef HW_STREAM_REQUEST_BLOCK* PHW_STREAM_REQUEST_BLOCK;

// The routines a stream object carries for its data and control requests.
typedef void (*PSTREAM_PACKET_HANDLER)(PHW_STREAM_REQUEST_BLOCK srb, DeviceContext* context,
                                       BOOLEAN* completed);

struct HW_STREAM_OBJECT {
  uint32_t SizeOfThisPacket;
  uint32_t StreamNumber;
  void* HwStreamExtension;
  PSTREAM_PACKET_HANDLER ReceiveDataPacket;
  PSTREAM_PACKET_HANDLER ReceiveControlPacket;
};

struct PORT_CONFIGURATION_INFORMATION {
  uint32_t SizeOfThisPacket;
  void* HwDeviceExtension;
  PDEVICE_OBJECT ClassDeviceObject;
  PDEVICE_OBJECT PhysicalDeviceObject;
  PDEVICE_OBJECT RealPhysicalDeviceObject;
  uint32_t NumberOfPowerStates;
};

// ---------------------------------------------------------------- data ranges

struct KS_SIZE {
  int32_t cx;
  int32_t cy;
};

// What a video format range allows: sizes, cropping, scaling, frame intervals
// (100 ns units) and bit rates. 128 bytes.
struct KS_VIDEO_STREAM_CONFIG_CAPS {
  GUID guid;
  uint32_t VideoStandard;
  KS_SIZE InputSize;
  KS_SIZE MinCroppingSize;
  KS_SIZE MaxCroppingSize;
  int32_t CropGranularityX;
  int32_t CropGranularityY;
  int32_t CropAlignX;
  int32_t CropAlignY;
  KS_SIZE MinOutputSize;
  KS_SIZE MaxOutputSize;
  int32_t OutputGranularityX;
  int32_t OutputGranularityY;
  int32_t StretchTapsX;
  int32_t StretchTapsY;
  int32_t ShrinkTapsX;
  int32_t ShrinkTapsY;
  int64_t MinFrameInterval;
  int64_t MaxFrameInterval;
  int32_t MinBitsPerSecond;
  int32_t MaxBitsPerSecond;
};
static_assert(sizeof(KS_VIDEO_STREAM_CONFIG_CAPS) == 128, "config caps are 128 bytes");

// A data range has the layout of a data format head.
typedef KSDATAFORMAT KSDATARANGE;

// One video format a stream offers: the range head, the flags, the caps and
// the video info header of the format it stands for. 296 bytes.
struct KS_DATARANGE_VIDEO {
  KSDATARANGE DataRange;
  int32_t bFixedSizeSamples;
  int32_t bTemporalCompression;
  uint32_t StreamDescriptionFlags;
  uint32_t MemoryAllocationFlags;
  KS_VIDEO_STREAM_CONFIG_CAPS ConfigCaps;
  KS_VIDEOINFOHEADER VideoInfoHeader;
};
static_assert(sizeof(KSDATAFORMAT) == 64, "a data format head is 64 bytes");
static_assert(sizeof(KS_VIDEOINFOHEADER) == 88, "a video info header is 88 bytes");
static_assert(sizeof(KS_DATARANGE_VIDEO) == 296, "a video data range is 296 bytes");
static_assert(sizeof(KS_DATAFORMAT_VIDEOINFOHEADER) == 152, "a video format is 152 bytes");

constexpr uint32_t KS_VIDEOSTREAM_CAPTURE = 2;

// ---------------------------------------------------------------- property sets

// One property of a set: its id, the least sizes of the property and data
// buffers, and whether get and set are served.
struct KSPROPERTY_ITEM {
  uint32_t PropertyId;
  BOOLEAN GetSupported;
  BOOLEAN SetSupported;
  uint32_t MinProperty;
  uint32_t MinData;
};

struct KSPROPERTY_SET {
  const GUID* Set;
  uint32_t PropertiesCount;
  const KSPROPERTY_ITEM* PropertyItem;
};

// ---------------------------------------------------------------- streams

constexpr int32_t KSPIN_DATAFLOW_OUT = 2;

// One row of the stream table the driver gives the host.
struct HW_STREAM_INFORMATION {
  uint32_t NumberOfPossibleInstances;
  int32_t DataFlow;
  BOOLEAN DataAccessible;
  uint32_t NumberOfFormatArrayEntries;
  const KS_DATARANGE_VIDEO* const* StreamFormatsArray;
  uint32_t NumStreamPropArrayEntries;
  const KSPROPERTY_SET* StreamPropertiesArray;
  uint32_t NumStreamEventArrayEntries;
  const void* StreamEventsArray;
  const GUID* Category;
  const GUID* Name;
  uint32_t MediumsCount;
  const void* Mediums;
  BOOLEAN BridgeStream;
};

struct HW_STREAM_HEADER {
  uint32_t NumberOfStreams;
  uint32_t SizeOfHwStreamInformation;
  uint32_t NumDevPropArrayEntries;
  const KSPROPERTY_SET* DevicePropertiesArray;
};
// What SRB_GET_STREAM_INFO fills: the header, then NumberOfStreams rows.
struct HW_STREAM_DESCRIPTOR {
  HW_STREAM_HEADER StreamHeader;
  // followed by HW_STREAM_INFORMATION rows
};

struct STREAM_DATA_INTERSECT_INFO {
  uint32_t StreamNumber;
  const void* DataRange;  // the proposed range
  void* DataFormatBuffer;
  uint32_t SizeOfDataFormatBuffer;
};

struct HW_STREAM_REQUEST_BLOCK {
  uint32_t SizeOfThisPacket;
  uint32_t Command;
  NTSTATUS Status;
  HW_STREAM_OBJECT* StreamObject;
  void* HwDeviceExtension;  // the host's device extension, passed back on completion
  union {
    void* Buffer;
    STREAM_PROPERTY_DESCRIPTOR* PropertyInfo;
    PORT_CONFIGURATION_INFORMATION* ConfigInfo;
    HW_STREAM_DESCRIPTOR* StreamBuffer;
    KSDATAFORMAT* OpenFormat;
    STREAM_DATA_INTERSECT_INFO* IntersectInfo;
    KSSTATE StreamState;
    DEVICE_POWER_STATE DeviceState;
    BOOLEAN IdleState;
  } CommandData;
  uint32_t ActualBytesTransferred;
  uint32_t Flags;
};

// ---------------------------------------------------------------- USB

struct USB_DEVICE_DESCRIPTOR {
  uint8_t bLength;
  uint8_t bDescriptorType;
  uint16_t bcdUSB;
  uint8_t bDeviceClass;
  uint8_t bDeviceSubClass;
  uint8_t bDeviceProtocol;
  uint8_t bMaxPacketSize0;
  uint16_t idVendor;
  uint16_t idProduct;
  uint16_t bcdDevice;
  uint8_t iManufacturer;
  uint8_t iProduct;
  uint8_t iSerialNumber;
  uint8_t bNumConfigurations;
} __attribute__((packed));

struct USB_CONFIGURATION_DESCRIPTOR {
  uint8_t bLength;
  uint8_t bDescriptorType;
  uint16_t wTotalLength;
  uint8_t bNumInterfaces;
  uint8_t bConfigurationValue;
  uint8_t iConfiguration;
  uint8_t bmAttributes;
  uint8_t MaxPower;
} __attribute__((packed));

struct USB_INTERFACE_DESCRIPTOR {
  uint8_t bLength;
  uint8_t bDescriptorType;
  uint8_t bInterfaceNumber;
  uint8_t bAlternateSetting;
  uint8_t bNumEndpoints;
  uint8_t bInterfaceClass;
  uint8_t bInterfaceSubClass;
  uint8_t bInterfaceProtocol;
  uint8_t iInterface;
} __attribute__((packed));

struct USB_ENDPOINT_DESCRIPTOR {
  uint8_t bLength;
  uint8_t bDescriptorType;
  uint8_t bEndpointAddress;
  uint8_t bmAttributes;
  uint16_t wMaxPacketSize;
  uint8_t bInterval;
} __attribute__((packed));

constexpr uint8_t USB_INTERFACE_DESCRIPTOR_TYPE = 4;
constexpr uint8_t USB_ENDPOINT_DESCRIPTOR_TYPE = 5;

struct USBD_PIPE_INFORMATION {
  uint16_t MaximumPacketSize;
  uint8_t EndpointAddress;
  uint8_t Interval;
  int32_t PipeType;
  void* PipeHandle;
  uint32_t MaximumTransferSize;
  uint32_t PipeFlags;
};

// The platform's interface information: a header, then NumberOfPipes pipe
// records. `Length` covers all of it.
struct USBD_INTERFACE_INFORMATION {
  uint16_t Length;
  uint8_t InterfaceNumber;
  uint8_t AlternateSetting;
  uint8_t Class;
  uint8_t SubClass;
  uint8_t Protocol;
  uint8_t Reserved;
  void* InterfaceHandle;
  uint32_t NumberOfPipes;
  USBD_PIPE_INFORMATION Pipes[1];
};

struct USBD_ISO_PACKET_DESCRIPTOR {
  uint32_t Offset;
  uint32_t Length;  // bytes received in this packet; 0 for an empty packet
  int32_t Status;
};

// One pipe configuration entry: stream association, then pipe flags.
struct USBCAMD_Pipe_Config_Descriptor {
  uint8_t StreamAssociation;
  uint8_t PipeConfigFlags;
};

constexpr uint8_t USBCAMD_VIDEO_STREAM = 1;
constexpr uint8_t USBCAMD_STILL_STREAM = 2;
constexpr uint8_t USBCAMD_VIDEO_STILL_STREAM = 3;
constexpr uint8_t USBCAMD_DATA_PIPE = 1;
constexpr uint8_t USBCAMD_MULTIPLEX_PIPE = 2;
constexpr uint8_t USBCAMD_SYNC_PIPE = 4;
constexpr uint8_t USBCAMD_DONT_CARE_PIPE = 8;

// Packet flags of the packet routine's PacketFlag out word.
constexpr uint32_t USBCAMD_PROCESSPACKETEX_DropPacket = 0x0002;
constexpr uint32_t USBCAMD_PROCESSPACKETEX_NextFrameIsStill = 0x0004;
constexpr uint32_t USBCAMD_PROCESSPACKETEX_CurrentFrameIsStill = 0x0008;

constexpr uint32_t USBCAMD_CamControlFlag_NoVideoRawProcessing = 0x0001;
constexpr uint32_t USBCAMD_CamControlFlag_NoStillRawProcessing = 0x0002;
constexpr uint32_t USBCAMD_CamControlFlag_AssociatedFormat = 0x0004;
constexpr uint32_t USBCAMD_CamControlFlag_EnableDeviceEvents = 0x0008;

// ---------------------------------------------------------------- extra interface

// The host's extra interface, 72 bytes, queried with IRP_MN_QUERY_INTERFACE.
// The driver calls only USBCAMD_SetVideoFormat; a non-null
// USBCAMD_SetIsoPipeState is the sign that the query worked.
struct USBCAMD_INTERFACE {
  uint16_t Size;
  uint16_t Version;
  void* Context;
  void (*InterfaceReference)(void* context);
  void (*InterfaceDereference)(void* context);
  NTSTATUS (*USBCAMD_WaitOnDeviceEvent)(DeviceContext* context, uint32_t pipeIndex, void* buffer,
                                        uint32_t bufferLength, void* eventComplete,
                                        void* eventContext, BOOLEAN loadBalance);
  NTSTATUS (*USBCAMD_BulkReadWrite)(DeviceContext* context, uint16_t pipeIndex, void* buffer,
                                    uint32_t bufferLength, void* commandComplete,
                                    void* commandContext);
  NTSTATUS (*USBCAMD_SetVideoFormat)(DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb);
  NTSTATUS (*USBCAMD_SetIsoPipeState)(DeviceContext* context, uint32_t pipeStateFlags);
  NTSTATUS (*USBCAMD_CancelBulkReadWrite)(DeviceContext* context, uint32_t pipeIndex);
};
static_assert(sizeof(USBCAMD_INTERFACE) == 72, "the host's extra interface is 72 bytes");

// ---------------------------------------------------------------- I/O requests

// The few fields of an I/O request the driver fills or reads: a plug-and-play
// interface query sent to the class device object, and the idle request.
constexpr uint8_t IRP_MJ_PNP = 0x1B;
constexpr uint8_t IRP_MN_QUERY_INTERFACE = 0x08;

struct IO_STACK_LOCATION {
  uint8_t MajorFunction;
  uint8_t MinorFunction;
  union {
    struct {
      const GUID* InterfaceType;
      uint16_t Size;
      uint16_t Version;
      void* Interface;
      void* InterfaceSpecificData;
    } QueryInterface;
  } Parameters;
};

struct IRP {
  IO_STATUS_BLOCK IoStatus;
  IO_STACK_LOCATION Stack;  // the next (and only) stack location
  KEVENT* UserEvent;        // signalled when a synchronous request completes
  IO_STATUS_BLOCK* UserIosb;
  BOOLEAN Cancel;
};

// ---------------------------------------------------------------- callback tables

// The first form, given with every USBCAMD_AdapterReceivePacket that carries a
// table. Every slot is required; the host calls them from its own threads, as
// each routine's comment says.
struct USBCAMD_DEVICE_DATA {
  uint32_t Sig;  // 0
  NTSTATUS (*CamInitialize)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
  NTSTATUS (*CamUnInitialize)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
  uint32_t (*CamProcessUSBPacket)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                  void* currentFrameContext, USBD_ISO_PACKET_DESCRIPTOR* syncPacket,
                                  void* syncBuffer, USBD_ISO_PACKET_DESCRIPTOR* dataPacket,
                                  void* dataBuffer, BOOLEAN* frameComplete,
                                  BOOLEAN* nextFrameIsStill);
  void (*CamNewVideoFrame)(DeviceContext* context, void* frameContext);
  NTSTATUS (*CamProcessRawVideoFrame)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                      void* frameContext, void* frameBuffer, uint32_t frameLength,
                                      void* rawFrameBuffer, uint32_t rawFrameLength,
                                      uint32_t numberOfPackets, uint32_t* bytesReturned);
  NTSTATUS (*CamStartCapture)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
  NTSTATUS (*CamStopCapture)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
  NTSTATUS (*CamConfigure)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                           USBD_INTERFACE_INFORMATION* interface,
                           USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor,
                           int32_t* dataPipeIndex, int32_t* syncPipeIndex);
  NTSTATUS (*CamSaveState)(DeviceContext* context);
  NTSTATUS (*CamRestoreState)(DeviceContext* context);
  NTSTATUS (*CamAllocateBandwidth)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                   uint32_t* rawFrameLength, void* format);
  NTSTATUS (*CamFreeBandwidth)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
};

// The second form, given once to USBCAMD_InitializeNewInterface and in force
// after that call.
struct USBCAMD_DEVICE_DATA2 {
  uint32_t Sig;  // 0
  NTSTATUS (*CamInitialize)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
  NTSTATUS (*CamUnInitialize)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context);
  uint32_t (*CamProcessUSBPacketEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                    void* currentFrameContext,
                                    USBD_ISO_PACKET_DESCRIPTOR* syncPacket, void* syncBuffer,
                                    USBD_ISO_PACKET_DESCRIPTOR* dataPacket, void* dataBuffer,
                                    BOOLEAN* frameComplete, uint32_t* packetFlag,
                                    uint32_t* validDataOffset);
  void (*CamNewVideoFrameEx)(DeviceContext* context, void* frameContext, uint32_t streamNumber,
                             uint32_t* frameLength);
  NTSTATUS (*CamProcessRawVideoFrameEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                        void* frameContext, void* frameBuffer,
                                        uint32_t frameLength, void* rawFrameBuffer,
                                        uint32_t rawFrameLength, uint32_t numberOfPackets,
                                        uint32_t* bytesReturned, uint32_t actualRawFrameLength,
                                        uint32_t streamNumber);
  NTSTATUS (*CamStartCaptureEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                uint32_t streamNumber);
  NTSTATUS (*CamStopCaptureEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                               uint32_t streamNumber);
  NTSTATUS (*CamConfigureEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                             USBD_INTERFACE_INFORMATION* interface,
                             USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor,
                             uint32_t pipeConfigListSize,
                             USBCAMD_Pipe_Config_Descriptor* pipeConfig,
                             USB_DEVICE_DESCRIPTOR* deviceDescriptor);
  NTSTATUS (*CamSaveState)(DeviceContext* context);
  NTSTATUS (*CamRestoreState)(DeviceContext* context);
  NTSTATUS (*CamAllocateBandwidthEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                     uint32_t* rawFrameLength, void* format,
                                     uint32_t streamNumber);
  NTSTATUS (*CamFreeBandwidthEx)(PDEVICE_OBJECT busDeviceObject, DeviceContext* context,
                                 uint32_t streamNumber);
};

// ---------------------------------------------------------------- the host's calls

typedef void (*PHW_RECEIVE_DEVICE_SRB)(PHW_STREAM_REQUEST_BLOCK srb);
typedef void (*PCOMMAND_COMPLETE_FUNCTION)(DeviceContext* context, void* commandContext,
                                           NTSTATUS status);

constexpr uint32_t DeviceRequestComplete = 1;
constexpr uint32_t StreamRequestComplete = 3;

// The calls the driver makes into the host, as one table the host layer fills
// with SetHostCalls before the driver's entry runs. Every slot is required
// but the three I/O manager calls, which a host without them leaves null.
// The driver reaches them only through the like-named routines below, so it
// never knows whether a real capture host or a test double answers.
struct HostCalls {
  // Driver entry: the driver declares its record size, its frame context size
  // and its adapter packet handler. Called once, from DriverEntry.
  NTSTATUS (*DriverEntry)(void* driverObject, void* registryPath, uint32_t deviceContextSize,
                          uint32_t frameContextSize, PHW_RECEIVE_DEVICE_SRB receivePacket);
  // Gives the record of a request's device. With a table and needsCompletion
  // true the host handles and completes the packet itself; with a device
  // object pointer it also fills in the bus device object.
  DeviceContext* (*AdapterReceivePacket)(PHW_STREAM_REQUEST_BLOCK srb,
                                         const USBCAMD_DEVICE_DATA* deviceData,
                                         PDEVICE_OBJECT* deviceObject, BOOLEAN needsCompletion);
  NTSTATUS (*InitializeNewInterface)(DeviceContext* context, const USBCAMD_DEVICE_DATA2* deviceData,
                                     uint32_t version, uint32_t camControlFlag);
  // One control request on the default pipe. `bufferLength` null: no data
  // stage. `getData` TRUE: device to host. Synchronous when commandComplete is
  // null, as the driver always passes it.
  NTSTATUS (*ControlVendorCommand)(DeviceContext* context, uint8_t request, uint16_t value,
                                   uint16_t index, void* buffer, uint32_t* bufferLength,
                                   BOOLEAN getData, PCOMMAND_COMPLETE_FUNCTION commandComplete,
                                   void* commandContext);
  // Selects InterfaceNumber/AlternateSetting of `interface`; on success the
  // record holds the new setting's pipes. A negative result is failure.
  NTSTATUS (*SelectAlternateInterface)(DeviceContext* context,
                                       USBD_INTERFACE_INFORMATION* interface);
  void (*DeviceNotification)(uint32_t notificationType, void* hwDeviceExtension,
                             PHW_STREAM_REQUEST_BLOCK srb);
  void (*StreamNotification)(uint32_t notificationType, HW_STREAM_OBJECT* streamObject,
                             PHW_STREAM_REQUEST_BLOCK srb);
  // Finds an interface descriptor in a configuration; -1 for any value.
  USB_INTERFACE_DESCRIPTOR* (*ParseConfigurationDescriptorEx)(
      USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor, void* startPosition,
      int32_t interfaceNumber, int32_t alternateSetting, int32_t interfaceClass,
      int32_t interfaceSubClass, int32_t interfaceProtocol);
  // The I/O manager's calls: a synchronous request without a buffer for
  // `deviceObject` (null when none can be had; the caller fills the stack
  // location), sending it (the request is freed when it completes: its status
  // goes to `UserIosb` and `UserEvent` is signalled; STATUS_PENDING when that
  // happens later), and cancelling one.
  PIRP (*BuildSynchronousFsdRequest)(uint8_t majorFunction, PDEVICE_OBJECT deviceObject,
                                     KEVENT* event, IO_STATUS_BLOCK* ioStatusBlock);
  NTSTATUS (*CallDriver)(PDEVICE_OBJECT deviceObject, PIRP irp);
  BOOLEAN (*CancelIrp)(PIRP irp);
};

// Installs the host's calls (null uninstalls). The host layer or a test does
// this before any driver routine runs; it is not changed while the driver runs.
void SetHostCalls(const HostCalls* calls);
const HostCalls* GetHostCalls();

NTSTATUS USBCAMD_DriverEntry(void* driverObject, void* registryPath, uint32_t deviceContextSize,
                             uint32_t frameContextSize, PHW_RECEIVE_DEVICE_SRB receivePacket);
DeviceContext* USBCAMD_AdapterReceivePacket(PHW_STREAM_REQUEST_BLOCK srb,
                                            const USBCAMD_DEVICE_DATA* deviceData,
                                            PDEVICE_OBJECT* deviceObject, BOOLEAN needsCompletion);
NTSTATUS USBCAMD_InitializeNewInterface(DeviceContext* context,
                                        const USBCAMD_DEVICE_DATA2* deviceData, uint32_t version,
                                        uint32_t camControlFlag);
NTSTATUS USBCAMD_ControlVendorCommand(DeviceContext* context, uint8_t request, uint16_t value,
                                      uint16_t index, void* buffer, uint32_t* bufferLength,
                                      BOOLEAN getData, PCOMMAND_COMPLETE_FUNCTION commandComplete,
                                      void* commandContext);
NTSTATUS USBCAMD_SelectAlternateInterface(DeviceContext* context,
                                          USBD_INTERFACE_INFORMATION* interface);
void StreamClassDeviceNotification(uint32_t notificationType, void* hwDeviceExtension,
                                   PHW_STREAM_REQUEST_BLOCK srb);
void StreamClassStreamNotification(uint32_t notificationType, HW_STREAM_OBJECT* streamObject,
                                   PHW_STREAM_REQUEST_BLOCK srb);
USB_INTERFACE_DESCRIPTOR* USBD_ParseConfigurationDescriptorEx(
    USB_CONFIGURATION_DESCRIPTOR* configurationDescriptor, void* startPosition,
    int32_t interfaceNumber, int32_t alternateSetting, int32_t interfaceClass,
    int32_t interfaceSubClass, int32_t interfaceProtocol);
PIRP IoBuildSynchronousFsdRequest(uint8_t majorFunction, PDEVICE_OBJECT deviceObject, KEVENT* event,
                                  IO_STATUS_BLOCK* ioStatusBlock);
NTSTATUS IofCallDriver(PDEVICE_OBJECT deviceObject, PIRP irp);
BOOLEAN IoCancelIrp(PIRP irp);
