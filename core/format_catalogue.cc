// The stream and format catalogue: the two streams the camera offers (video
// capture and still capture), the one table of 40 video formats both share,
// and the format check and intersection the packet handler calls. The table
// is the same for every camera and is never written; which rows a camera
// offers, and in which order, is its FormatList (BuildFormatList).
#include "core/format_catalogue.h"

#include <cstring>

namespace {

constexpr GUID TypeVideo = {
    0x73646976, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID SpecifierVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};
constexpr GUID SubtypeRgb24 = {
    0xE436EB7D, 0x524F, 0x11CE, {0x9F, 0x53, 0x00, 0x20, 0xAF, 0x0B, 0xA7, 0x70}};
constexpr GUID SubtypeYuy2 = {
    0x32595559, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
constexpr GUID SubtypeI420 = {
    0x30323449, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};

enum Subtype { RGB24, YUY2, I420 };

constexpr int64_t FrameInterval30 = 333333;  // 100 ns units: 30 frames a second

// One format record: only size, subtype, the interval limits and the bit
// rates differ between rows. Nothing can be cropped or scaled by a client,
// so every size of the caps is the record's own.
constexpr KS_DATARANGE_VIDEO MakeRange(Subtype subtype, int32_t width, int32_t height,
                                       uint16_t bitCount, uint32_t sizeImage,
                                       int64_t minFrameInterval, int64_t maxFrameInterval,
                                       int32_t minBitsPerSecond, int32_t maxBitsPerSecond,
                                       uint32_t bitRate) {
  const GUID& subFormat = subtype == RGB24  ? SubtypeRgb24
                          : subtype == YUY2 ? SubtypeYuy2
                                            : SubtypeI420;
  // RGB24 carries the first word of its subtype, not BI_RGB: it is the value
  // CurrentCompression holds.
  const uint32_t compression = subtype == RGB24  ? CompressionRGB24
                               : subtype == YUY2 ? CompressionYUY2
                                                 : CompressionI420;
  const KS_SIZE size = {width, height};
  KS_DATARANGE_VIDEO range = {};
  range.DataRange = {sizeof(KS_DATARANGE_VIDEO), 0, sizeImage, 0, TypeVideo, subFormat,
                     SpecifierVideoInfo};
  range.bFixedSizeSamples = 1;
  range.bTemporalCompression = 1;
  range.StreamDescriptionFlags = KS_VIDEOSTREAM_CAPTURE;
  range.MemoryAllocationFlags = 0;
  KS_VIDEO_STREAM_CONFIG_CAPS& caps = range.ConfigCaps;
  caps.guid = SpecifierVideoInfo;
  caps.VideoStandard = 0;
  caps.InputSize = caps.MinCroppingSize = caps.MaxCroppingSize = size;
  caps.MinOutputSize = caps.MaxOutputSize = size;
  caps.CropGranularityX = caps.CropGranularityY = 1;
  caps.CropAlignX = caps.CropAlignY = 1;
  caps.OutputGranularityX = caps.OutputGranularityY = 1;
  caps.MinFrameInterval = minFrameInterval;
  caps.MaxFrameInterval = maxFrameInterval;
  caps.MinBitsPerSecond = minBitsPerSecond;
  caps.MaxBitsPerSecond = maxBitsPerSecond;
  KS_VIDEOINFOHEADER& info = range.VideoInfoHeader;
  info.dwBitRate = bitRate;
  info.dwBitErrorRate = 0;
  info.AvgTimePerFrame = FrameInterval30;
  info.bmiHeader = {
      sizeof(KS_BITMAPINFOHEADER), width, height, 1, bitCount, compression, sizeImage, 0, 0, 0, 0};
  return range;
}

// The 40 formats in table order:
// subtype, width, height, bits a pixel, image bytes, frame interval limits,
// bits a second (least, most) and the bit rate of the video info header.
// The I420 rows keep their own interval limits and rates.
constexpr KS_DATARANGE_VIDEO FormatRanges[FormatCatalogueRows] = {
    MakeRange(RGB24, 160, 120, 24, 57600, 333333, 5000000, 921600, 13824000, 13824000),
    MakeRange(RGB24, 320, 240, 24, 230400, 333333, 5000000, 3686400, 55296000, 55296000),
    MakeRange(RGB24, 640, 480, 24, 921600, 333333, 5000000, 14745600, 221184000, 221184000),
    MakeRange(RGB24, 800, 600, 24, 1440000, 333333, 5000000, 23040000, 345600000, 345600000),
    MakeRange(RGB24, 1024, 768, 24, 2359296, 333333, 5000000, 37748736, 566231040, 566231040),
    MakeRange(RGB24, 1280, 800, 24, 3072000, 333333, 5000000, 49152000, 737280000, 737280000),
    MakeRange(RGB24, 1280, 768, 24, 2949120, 333333, 5000000, 47185920, 707788800, 707788800),
    MakeRange(RGB24, 1280, 960, 24, 3686400, 333333, 5000000, 58982400, 884736000, 884736000),
    MakeRange(RGB24, 1280, 1024, 24, 3932160, 333333, 5000000, 62914560, 943718400, 943718400),
    MakeRange(RGB24, 1600, 1200, 24, 5760000, 333333, 5000000, 92160000, 1382400000, 1382400000),
    MakeRange(RGB24, 128, 96, 24, 36864, 333333, 5000000, 589824, 8847360, 8847360),
    MakeRange(RGB24, 176, 144, 24, 76032, 333333, 5000000, 1216512, 18247680, 18247680),
    MakeRange(RGB24, 352, 288, 24, 304128, 333333, 5000000, 4866048, 72990720, 72990720),
    MakeRange(RGB24, 704, 576, 24, 1216512, 333333, 5000000, 19464192, 291962880, 291962880),
    MakeRange(RGB24, 1408, 1152, 24, 4866048, 333333, 5000000, 77856768, 1167851520, 1167851520),
    MakeRange(RGB24, 484, 240, 24, 348480, 333333, 5000000, 5575680, 83635200, 83635200),
    MakeRange(YUY2, 160, 120, 16, 38400, 333333, 5000000, 614400, 9216000, 4608000),
    MakeRange(YUY2, 320, 240, 16, 153600, 333333, 5000000, 2457600, 36864000, 18432000),
    MakeRange(YUY2, 640, 480, 16, 614400, 333333, 5000000, 9830400, 147456000, 73728000),
    MakeRange(YUY2, 800, 600, 16, 960000, 333333, 5000000, 15360000, 230400000, 115200000),
    MakeRange(YUY2, 1024, 768, 16, 1572864, 333333, 5000000, 25165824, 377487360, 188743680),
    MakeRange(YUY2, 1280, 800, 16, 2048000, 333333, 5000000, 32768000, 491520000, 245760000),
    MakeRange(YUY2, 1280, 768, 16, 1966080, 333333, 5000000, 31457280, 471859200, 235929600),
    MakeRange(YUY2, 1280, 960, 16, 2457600, 333333, 5000000, 39321600, 589824000, 294912000),
    MakeRange(YUY2, 1280, 1024, 16, 2621440, 333333, 5000000, 41943040, 629145600, 314572800),
    MakeRange(YUY2, 1600, 1200, 16, 3840000, 333333, 5000000, 61440000, 921600000, 460800000),
    MakeRange(YUY2, 128, 96, 16, 24576, 333333, 5000000, 393216, 5898240, 2949120),
    MakeRange(YUY2, 176, 144, 16, 50688, 333333, 5000000, 811008, 12165120, 6082560),
    MakeRange(YUY2, 352, 288, 16, 202752, 333333, 5000000, 3244032, 48660480, 24330240),
    MakeRange(YUY2, 704, 576, 16, 811008, 333333, 5000000, 12976128, 194641920, 97320960),
    MakeRange(YUY2, 1408, 1152, 16, 3244032, 333333, 5000000, 51904512, 778567680, 389283840),
    MakeRange(YUY2, 484, 240, 16, 232320, 333333, 5000000, 3717120, 55756800, 27878400),
    MakeRange(YUY2, 1440, 1152, 16, 3317760, 333333, 5000000, 53084160, 796262400, 398131200),
    MakeRange(YUY2, 720, 576, 16, 829440, 333333, 5000000, 13271040, 199065600, 99532800),
    MakeRange(I420, 160, 120, 12, 28800, 300000, 1249999, 1843200, 7603200, 5529600),
    MakeRange(I420, 320, 240, 12, 115200, 1200000, 4999998, 1843200, 7372800, 5529600),
    MakeRange(I420, 640, 480, 12, 460800, 1200000, 4999998, 7372800, 29491200, 22118400),
    MakeRange(I420, 128, 96, 12, 18432, 1200000, 4999998, 294912, 1179648, 884736),
    MakeRange(I420, 176, 144, 12, 38016, 1200000, 4999998, 608256, 2433024, 1824768),
    MakeRange(I420, 352, 288, 12, 152064, 1200000, 4999998, 2433024, 9732096, 7299072),
};

constexpr bool ImageSizesAgree() {
  for (const KS_DATARANGE_VIDEO& range : FormatRanges) {
    const KS_BITMAPINFOHEADER& header = range.VideoInfoHeader.bmiHeader;
    if (uint64_t(header.biWidth) * uint64_t(header.biHeight) * header.biBitCount / 8 !=
        header.biSizeImage) {
      return false;
    }
  }
  return true;
}
static_assert(ImageSizesAgree(), "biSizeImage is width x height x bits / 8 in every row");

// Both pins list all 40 as compiled; SRB_GET_STREAM_INFO gives the host the
// camera's own FormatList instead.
const KS_DATARANGE_VIDEO* const CaptureFormats[FormatCatalogueRows] = {
    &FormatRanges[0],  &FormatRanges[1],  &FormatRanges[2],  &FormatRanges[3],  &FormatRanges[4],
    &FormatRanges[5],  &FormatRanges[6],  &FormatRanges[7],  &FormatRanges[8],  &FormatRanges[9],
    &FormatRanges[10], &FormatRanges[11], &FormatRanges[12], &FormatRanges[13], &FormatRanges[14],
    &FormatRanges[15], &FormatRanges[16], &FormatRanges[17], &FormatRanges[18], &FormatRanges[19],
    &FormatRanges[20], &FormatRanges[21], &FormatRanges[22], &FormatRanges[23], &FormatRanges[24],
    &FormatRanges[25], &FormatRanges[26], &FormatRanges[27], &FormatRanges[28], &FormatRanges[29],
    &FormatRanges[30], &FormatRanges[31], &FormatRanges[32], &FormatRanges[33], &FormatRanges[34],
    &FormatRanges[35], &FormatRanges[36], &FormatRanges[37], &FormatRanges[38], &FormatRanges[39],
};
const KS_DATARANGE_VIDEO* const StillFormats[FormatCatalogueRows] = {
    &FormatRanges[0],  &FormatRanges[1],  &FormatRanges[2],  &FormatRanges[3],  &FormatRanges[4],
    &FormatRanges[5],  &FormatRanges[6],  &FormatRanges[7],  &FormatRanges[8],  &FormatRanges[9],
    &FormatRanges[10], &FormatRanges[11], &FormatRanges[12], &FormatRanges[13], &FormatRanges[14],
    &FormatRanges[15], &FormatRanges[16], &FormatRanges[17], &FormatRanges[18], &FormatRanges[19],
    &FormatRanges[20], &FormatRanges[21], &FormatRanges[22], &FormatRanges[23], &FormatRanges[24],
    &FormatRanges[25], &FormatRanges[26], &FormatRanges[27], &FormatRanges[28], &FormatRanges[29],
    &FormatRanges[30], &FormatRanges[31], &FormatRanges[32], &FormatRanges[33], &FormatRanges[34],
    &FormatRanges[35], &FormatRanges[36], &FormatRanges[37], &FormatRanges[38], &FormatRanges[39],
};

// Stream properties the host serves itself: the allocator framing and the
// dropped-frame count. No code of the driver looks at them.
constexpr GUID KSPROPSETID_Connection = {
    0x1D58C920, 0xAC9B, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
constexpr GUID PROPSETID_VIDCAP_DROPPEDFRAMES = {
    0xC6E13344, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
constexpr uint32_t KSPROPERTY_CONNECTION_ALLOCATORFRAMING = 3;
constexpr uint32_t KSPROPERTY_DROPPEDFRAMES_CURRENT = 0;

const KSPROPERTY_ITEM ConnectionItems[] = {
    {KSPROPERTY_CONNECTION_ALLOCATORFRAMING, TRUE, FALSE, 24, 24},
};
const KSPROPERTY_ITEM DroppedFramesItems[] = {
    {KSPROPERTY_DROPPEDFRAMES_CURRENT, TRUE, FALSE, 48, 48},
};
const KSPROPERTY_SET StreamPropertySets[] = {
    {&KSPROPSETID_Connection, 1, ConnectionItems},
    {&PROPSETID_VIDCAP_DROPPEDFRAMES, 1, DroppedFramesItems},
};

// The bitmap header lies 48 bytes into a video info header.
constexpr uint32_t InfoBitmapOffset = offsetof(KS_VIDEOINFOHEADER, bmiHeader);
// The intersection's format: head (64) + video info header before its
// bitmap header (48) = 112, then biSize bytes of bitmap header.
constexpr uint32_t FormatBytesBeforeBitmap = sizeof(KSDATAFORMAT) + InfoBitmapOffset;
static_assert(FormatBytesBeforeBitmap == 112, "a format is biSize + 112 bytes");

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

bool SameFormatKind(const KSDATAFORMAT& a, const KSDATAFORMAT& b) {
  return SameGuid(a.MajorFormat, b.MajorFormat) && SameGuid(a.SubFormat, b.SubFormat) &&
         SameGuid(a.Specifier, b.Specifier);
}

}  // namespace

const GUID PINNAME_VIDEO_CAPTURE = {
    0xFB6C4281, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}};
const GUID PINNAME_VIDEO_STILL = {
    0xFB6C428A, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}};
const GUID KSDATAFORMAT_TYPE_VIDEO = TypeVideo;
const GUID KSDATAFORMAT_SPECIFIER_VIDEOINFO = SpecifierVideoInfo;
const GUID MEDIASUBTYPE_RGB24 = SubtypeRgb24;
const GUID MEDIASUBTYPE_YUY2 = SubtypeYuy2;
const GUID MEDIASUBTYPE_I420 = SubtypeI420;

const FormatCatalogueRow FormatCatalogue[FormatCatalogueRows] = {
    {u"RGB24", u"160", &FormatRanges[0]},   {u"RGB24", u"320", &FormatRanges[1]},
    {u"RGB24", u"640", &FormatRanges[2]},   {u"RGB24", u"800", &FormatRanges[3]},
    {u"RGB24", u"1024", &FormatRanges[4]},  {u"RGB24", u"1280C", &FormatRanges[5]},
    {u"RGB24", u"1280B", &FormatRanges[6]}, {u"RGB24", u"1280A", &FormatRanges[7]},
    {u"RGB24", u"1280", &FormatRanges[8]},  {u"RGB24", u"1600", &FormatRanges[9]},
    {u"RGB24", u"128", &FormatRanges[10]},  {u"RGB24", u"176", &FormatRanges[11]},
    {u"RGB24", u"352", &FormatRanges[12]},  {u"RGB24", u"704", &FormatRanges[13]},
    {u"RGB24", u"1408", &FormatRanges[14]}, {u"RGB24", u"484", &FormatRanges[15]},
    {u"YUYV", u"160", &FormatRanges[16]},   {u"YUYV", u"320", &FormatRanges[17]},
    {u"YUYV", u"640", &FormatRanges[18]},   {u"YUYV", u"800", &FormatRanges[19]},
    {u"YUYV", u"1024", &FormatRanges[20]},  {u"YUYV", u"1280C", &FormatRanges[21]},
    {u"YUYV", u"1280B", &FormatRanges[22]}, {u"YUYV", u"1280A", &FormatRanges[23]},
    {u"YUYV", u"1280", &FormatRanges[24]},  {u"YUYV", u"1600", &FormatRanges[25]},
    {u"YUYV", u"128", &FormatRanges[26]},   {u"YUYV", u"176", &FormatRanges[27]},
    {u"YUYV", u"352", &FormatRanges[28]},   {u"YUYV", u"704", &FormatRanges[29]},
    {u"YUYV", u"1408", &FormatRanges[30]},  {u"YUYV", u"484", &FormatRanges[31]},
    {u"YUYV", u"1440", &FormatRanges[32]},  {u"YUYV", u"720", &FormatRanges[33]},
    {u"I420", u"160", &FormatRanges[34]},   {u"I420", u"320", &FormatRanges[35]},
    {u"I420", u"640", &FormatRanges[36]},   {u"I420", u"128", &FormatRanges[37]},
    {u"I420", u"176", &FormatRanges[38]},   {u"I420", u"352", &FormatRanges[39]},
};

const HW_STREAM_INFORMATION StreamTable[CatalogueStreams] = {
    {1, KSPIN_DATAFLOW_OUT, TRUE, FormatCatalogueRows, CaptureFormats, 2, StreamPropertySets, 0,
     nullptr, &PINNAME_VIDEO_CAPTURE, &PINNAME_VIDEO_CAPTURE, 0, nullptr, FALSE},
    {1, KSPIN_DATAFLOW_OUT, TRUE, FormatCatalogueRows, StillFormats, 2, StreamPropertySets, 0,
     nullptr, &PINNAME_VIDEO_STILL, &PINNAME_VIDEO_STILL, 0, nullptr, FALSE},
};

// Packet path (SRB_OPEN_STREAM, SRB_SET_DATA_FORMAT). The format is the
// host's: a head whose FormatSize covers the video info header behind it.
BOOLEAN CheckFormat(const DeviceContext* context, const KSDATAFORMAT* format,
                    uint32_t streamNumber) {
  if (streamNumber > 1 || format == nullptr) return FALSE;
  if (format->FormatSize < sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)) return FALSE;
  const auto* proposed = reinterpret_cast<const KS_DATAFORMAT_VIDEOINFOHEADER*>(format);
  const KS_BITMAPINFOHEADER& header = proposed->VideoInfoHeader.bmiHeader;
  const uint32_t count =
      context->FormatCount < FormatCatalogueRows ? context->FormatCount : FormatCatalogueRows;
  for (uint32_t i = 0; i < count; ++i) {
    const KS_DATARANGE_VIDEO* offered = context->FormatList[i];
    if (offered == nullptr) continue;
    const KS_BITMAPINFOHEADER& mine = offered->VideoInfoHeader.bmiHeader;
    // Any frame interval is taken here.
    if (SameFormatKind(offered->DataRange, *format) && mine.biWidth == header.biWidth &&
        mine.biHeight == header.biHeight && mine.biSizeImage == header.biSizeImage) {
      return TRUE;
    }
  }
  return FALSE;
}

// Packet path (SRB_GET_DATA_INTERSECTION). The caller's range is read only
// as far as its FormatSize says it reaches. The result is the caller's range
// with its frame interval clamped, not the catalogue's record.
NTSTATUS IntersectFormat(const DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb) {
  const STREAM_DATA_INTERSECT_INFO* info = srb->CommandData.IntersectInfo;
  NTSTATUS status = STATUS_NO_MATCH;
  KS_DATARANGE_VIDEO caller;
  const KS_DATARANGE_VIDEO* match = nullptr;

  if (info == nullptr || info->DataRange == nullptr) {
    status = STATUS_INVALID_PARAMETER;
  } else if (info->StreamNumber <= 1) {
    // Every offered record is sizeof(KS_DATARANGE_VIDEO) long, so a range of
    // any other FormatSize matches none, and one that does can be read whole.
    uint32_t formatSize = 0;
    std::memcpy(&formatSize, info->DataRange, sizeof formatSize);
    if (formatSize == sizeof(KS_DATARANGE_VIDEO)) {
      std::memcpy(&caller, info->DataRange, sizeof caller);
      const uint32_t count =
          context->FormatCount < FormatCatalogueRows ? context->FormatCount : FormatCatalogueRows;
      for (uint32_t i = 0; i < count && match == nullptr; ++i) {
        const KS_DATARANGE_VIDEO* offered = context->FormatList[i];
        if (offered == nullptr) continue;
        if (SameFormatKind(offered->DataRange, caller.DataRange) &&
            offered->DataRange.FormatSize == caller.DataRange.FormatSize &&
            offered->bFixedSizeSamples == caller.bFixedSizeSamples &&
            offered->bTemporalCompression == caller.bTemporalCompression &&
            offered->StreamDescriptionFlags == caller.StreamDescriptionFlags &&
            offered->MemoryAllocationFlags == caller.MemoryAllocationFlags &&
            std::memcmp(&offered->ConfigCaps, &caller.ConfigCaps, sizeof caller.ConfigCaps) == 0 &&
            offered->VideoInfoHeader.bmiHeader.biWidth ==
                caller.VideoInfoHeader.bmiHeader.biWidth &&
            offered->VideoInfoHeader.bmiHeader.biHeight ==
                caller.VideoInfoHeader.bmiHeader.biHeight) {
          match = offered;
        }
      }
    }
  }

  if (match != nullptr) {
    KS_VIDEOINFOHEADER& callerInfo = caller.VideoInfoHeader;
    // The caller's range is the host's and stays untouched: the clamp goes
    // into what is handed back.
    if (callerInfo.AvgTimePerFrame > match->ConfigCaps.MaxFrameInterval) {
      callerInfo.AvgTimePerFrame = match->ConfigCaps.MaxFrameInterval;
      callerInfo.dwBitRate = uint32_t(match->ConfigCaps.MinBitsPerSecond);
    }
    const uint32_t biSize = callerInfo.bmiHeader.biSize;
    // The copy takes biSize bytes of bitmap header from the caller's range,
    // which holds exactly one: a header that claims to be longer would be
    // read from beyond the range, a shorter one leaves no room for the
    // sample size.
    if (biSize != sizeof(KS_BITMAPINFOHEADER)) {
      status = STATUS_INVALID_PARAMETER;
    } else {
      const uint32_t size = biSize + FormatBytesBeforeBitmap;
      if (info->SizeOfDataFormatBuffer == 0) {
        // The host's size query.
        srb->ActualBytesTransferred = size;
        status = STATUS_BUFFER_OVERFLOW;
      } else if (info->SizeOfDataFormatBuffer < size) {
        status = STATUS_BUFFER_TOO_SMALL;
      } else if (info->DataFormatBuffer == nullptr) {
        status = STATUS_INVALID_PARAMETER;
      } else {
        KS_DATAFORMAT_VIDEOINFOHEADER result;
        static_assert(sizeof result == sizeof(KS_BITMAPINFOHEADER) + FormatBytesBeforeBitmap,
                      "the result is head, info header and one bitmap header");
        result.DataFormat = caller.DataRange;
        result.DataFormat.FormatSize = size;
        std::memcpy(&result.VideoInfoHeader, &callerInfo, InfoBitmapOffset + biSize);
        // The device-independent bitmap rule, for every format: rows padded
        // to four bytes, the size positive for either row order.
        KS_BITMAPINFOHEADER& header = result.VideoInfoHeader.bmiHeader;
        const int64_t stride =
            ((int64_t(header.biBitCount) * header.biWidth + 31) >> 3) & ~int64_t(3);
        int64_t sampleSize = stride * header.biHeight;
        if (header.biHeight < 0) sampleSize = -sampleSize;
        header.biSizeImage = uint32_t(sampleSize);
        result.DataFormat.SampleSize = uint32_t(sampleSize);
        std::memcpy(info->DataFormatBuffer, &result, size);
        srb->ActualBytesTransferred = size;
        status = STATUS_SUCCESS;
      }
    }
  }
  srb->Status = status;
  return status;
}
