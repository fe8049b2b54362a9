// The format catalogue: the records against the values of the camera's
// format table, the two streams, the format check and the intersection the
// host asks for before it opens a pin.

#include "core/format_catalogue.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "tests/device_fixture.h"

namespace {

std::string GuidText(const GUID& guid) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", guid.Data1,
                guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3],
                guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
  return text;
}

constexpr const char* Rgb24Guid = "E436EB7D-524F-11CE-9F53-0020AF0BA770";
constexpr const char* Yuy2Guid = "32595559-0000-0010-8000-00AA00389B71";
constexpr const char* I420Guid = "30323449-0000-0010-8000-00AA00389B71";
constexpr const char* VideoGuid = "73646976-0000-0010-8000-00AA00389B71";
constexpr const char* VideoInfoGuid = "05589F80-C356-11CE-BF01-00AA0055595A";

TEST(FormatCatalogue, RowsCarryTheValuesOfTheFormatTable) {
  struct Row {
    uint32_t index;
    const char16_t *formatKey, *sizeKey;
    const char* subtype;
    uint32_t compression;
    int32_t width, height;
    uint16_t bits;
    uint32_t image;
    int64_t minInterval, maxInterval;
    int32_t minBits, maxBits;
    uint32_t bitRate;
  } rows[] = {
      {0, u"RGB24", u"160", Rgb24Guid, 0xE436EB7D, 160, 120, 24, 57600, 333333, 5000000, 921600,
       13824000, 13824000},
      {5, u"RGB24", u"1280C", Rgb24Guid, 0xE436EB7D, 1280, 800, 24, 3072000, 333333, 5000000,
       49152000, 737280000, 737280000},
      {9, u"RGB24", u"1600", Rgb24Guid, 0xE436EB7D, 1600, 1200, 24, 5760000, 333333, 5000000,
       92160000, 1382400000, 1382400000},
      {15, u"RGB24", u"484", Rgb24Guid, 0xE436EB7D, 484, 240, 24, 348480, 333333, 5000000, 5575680,
       83635200, 83635200},
      {22, u"YUYV", u"1280B", Yuy2Guid, 0x32595559, 1280, 768, 16, 1966080, 333333, 5000000,
       31457280, 471859200, 235929600},
      {32, u"YUYV", u"1440", Yuy2Guid, 0x32595559, 1440, 1152, 16, 3317760, 333333, 5000000,
       53084160, 796262400, 398131200},
      {33, u"YUYV", u"720", Yuy2Guid, 0x32595559, 720, 576, 16, 829440, 333333, 5000000, 13271040,
       199065600, 99532800},
      {34, u"I420", u"160", I420Guid, 0x30323449, 160, 120, 12, 28800, 300000, 1249999, 1843200,
       7603200, 5529600},
      {35, u"I420", u"320", I420Guid, 0x30323449, 320, 240, 12, 115200, 1200000, 4999998, 1843200,
       7372800, 5529600},
      {36, u"I420", u"640", I420Guid, 0x30323449, 640, 480, 12, 460800, 1200000, 4999998, 7372800,
       29491200, 22118400},
      {37, u"I420", u"128", I420Guid, 0x30323449, 128, 96, 12, 18432, 1200000, 4999998, 294912,
       1179648, 884736},
      {38, u"I420", u"176", I420Guid, 0x30323449, 176, 144, 12, 38016, 1200000, 4999998, 608256,
       2433024, 1824768},
      {39, u"I420", u"352", I420Guid, 0x30323449, 352, 288, 12, 152064, 1200000, 4999998, 2433024,
       9732096, 7299072},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.index);
    const FormatCatalogueRow& entry = FormatCatalogue[row.index];
    EXPECT_EQ(std::u16string(entry.FormatKey), row.formatKey);
    EXPECT_EQ(std::u16string(entry.SizeKey), row.sizeKey);
    const KS_DATARANGE_VIDEO& r = *entry.DataRange;
    const KS_BITMAPINFOHEADER& h = r.VideoInfoHeader.bmiHeader;
    EXPECT_EQ(GuidText(r.DataRange.SubFormat), row.subtype);
    EXPECT_EQ(std::make_tuple(h.biCompression, h.biWidth, h.biHeight, h.biBitCount, h.biSizeImage),
              std::make_tuple(row.compression, row.width, row.height, row.bits, row.image));
    EXPECT_EQ(
        std::make_tuple(r.ConfigCaps.MinFrameInterval, r.ConfigCaps.MaxFrameInterval,
                        r.ConfigCaps.MinBitsPerSecond, r.ConfigCaps.MaxBitsPerSecond,
                        r.VideoInfoHeader.dwBitRate),
        std::make_tuple(row.minInterval, row.maxInterval, row.minBits, row.maxBits, row.bitRate));
  }

  // What every record shares.
  uint32_t perSubtype[3] = {};
  for (uint32_t i = 0; i < FormatCatalogueRows; ++i) {
    SCOPED_TRACE(i);
    const KS_DATARANGE_VIDEO& r = *FormatCatalogue[i].DataRange;
    const KS_VIDEO_STREAM_CONFIG_CAPS& caps = r.ConfigCaps;
    const KS_BITMAPINFOHEADER& h = r.VideoInfoHeader.bmiHeader;
    const std::string subtype = GuidText(r.DataRange.SubFormat);
    perSubtype[subtype == Rgb24Guid ? 0 : subtype == Yuy2Guid ? 1 : 2] += 1;
    EXPECT_EQ(std::make_tuple(r.DataRange.FormatSize, r.DataRange.Flags, r.DataRange.Reserved,
                              r.DataRange.SampleSize),
              std::make_tuple(296u, 0u, 0u, h.biSizeImage));
    EXPECT_EQ(GuidText(r.DataRange.MajorFormat), VideoGuid);
    EXPECT_EQ(GuidText(r.DataRange.Specifier), VideoInfoGuid);
    EXPECT_EQ(GuidText(caps.guid), VideoInfoGuid);
    EXPECT_EQ(std::make_tuple(r.bFixedSizeSamples, r.bTemporalCompression, r.StreamDescriptionFlags,
                              r.MemoryAllocationFlags, caps.VideoStandard),
              std::make_tuple(1, 1, 2u, 0u, 0u));
    for (const KS_SIZE& size : {caps.InputSize, caps.MinCroppingSize, caps.MaxCroppingSize,
                                caps.MinOutputSize, caps.MaxOutputSize}) {
      EXPECT_EQ(std::make_pair(size.cx, size.cy), std::make_pair(h.biWidth, h.biHeight));
    }
    EXPECT_EQ(std::vector<int32_t>({caps.CropGranularityX, caps.CropGranularityY, caps.CropAlignX,
                                    caps.CropAlignY, caps.OutputGranularityX,
                                    caps.OutputGranularityY, caps.StretchTapsX, caps.StretchTapsY,
                                    caps.ShrinkTapsX, caps.ShrinkTapsY}),
              std::vector<int32_t>({1, 1, 1, 1, 1, 1, 0, 0, 0, 0}));
    const KS_RECT zeroRect = {};
    EXPECT_EQ(std::memcmp(&r.VideoInfoHeader.rcSource, &zeroRect, sizeof zeroRect), 0);
    EXPECT_EQ(std::memcmp(&r.VideoInfoHeader.rcTarget, &zeroRect, sizeof zeroRect), 0);
    EXPECT_EQ(std::make_tuple(r.VideoInfoHeader.dwBitErrorRate, r.VideoInfoHeader.AvgTimePerFrame,
                              h.biSize, h.biPlanes, h.biXPelsPerMeter | h.biYPelsPerMeter,
                              h.biClrUsed | h.biClrImportant),
              std::make_tuple(0u, int64_t(333333), 40u, uint16_t(1), 0, 0u));
    EXPECT_GT(h.biHeight, 0);
  }
  EXPECT_EQ(std::vector<uint32_t>(perSubtype, perSubtype + 3), std::vector<uint32_t>({16, 18, 6}));
}

TEST(FormatCatalogue, TwoStreamsOfferEveryFormatWithTheHostsTwoPropertySets) {
  const char* pins[] = {"FB6C4281-0353-11D1-905F-0000C0CC16BA",
                        "FB6C428A-0353-11D1-905F-0000C0CC16BA"};
  for (uint32_t s = 0; s < CatalogueStreams; ++s) {
    SCOPED_TRACE(s);
    const HW_STREAM_INFORMATION& stream = StreamTable[s];
    EXPECT_EQ(
        std::make_tuple(stream.NumberOfPossibleInstances, stream.DataFlow, stream.DataAccessible,
                        stream.NumberOfFormatArrayEntries, stream.NumStreamEventArrayEntries,
                        stream.MediumsCount, stream.BridgeStream),
        std::make_tuple(1u, 2, 1, 40u, 0u, 0u, 0));
    EXPECT_EQ(GuidText(*stream.Category), pins[s]);
    EXPECT_EQ(GuidText(*stream.Name), pins[s]);
    EXPECT_EQ(stream.StreamEventsArray, nullptr);
    ASSERT_EQ(stream.NumStreamPropArrayEntries, 2u);
    const KSPROPERTY_SET* sets = stream.StreamPropertiesArray;
    EXPECT_EQ(GuidText(*sets[0].Set), "1D58C920-AC9B-11CF-A5D6-28DB04C10000");
    EXPECT_EQ(GuidText(*sets[1].Set), "C6E13344-30AC-11D0-A18C-00A0C9118956");
    const uint32_t items[2][2] = {{3, 24}, {0, 48}};  // property id, size
    for (int i = 0; i < 2; ++i) {
      ASSERT_EQ(sets[i].PropertiesCount, 1u);
      const KSPROPERTY_ITEM& item = sets[i].PropertyItem[0];
      EXPECT_EQ(std::make_tuple(item.PropertyId, item.MinProperty, item.MinData, item.GetSupported,
                                item.SetSupported),
                std::make_tuple(items[i][0], items[i][1], items[i][1], true, false));
    }
  }
  EXPECT_NE(StreamTable[0].StreamFormatsArray, StreamTable[1].StreamFormatsArray);
  EXPECT_EQ(
      std::vector<std::string>(
          {GuidText(PINNAME_VIDEO_CAPTURE), GuidText(PINNAME_VIDEO_STILL),
           GuidText(KSDATAFORMAT_TYPE_VIDEO), GuidText(KSDATAFORMAT_SPECIFIER_VIDEOINFO),
           GuidText(MEDIASUBTYPE_RGB24), GuidText(MEDIASUBTYPE_YUY2), GuidText(MEDIASUBTYPE_I420)}),
      std::vector<std::string>(
          {pins[0], pins[1], VideoGuid, VideoInfoGuid, Rgb24Guid, Yuy2Guid, I420Guid}));
}

// ---------------------------------------------------------------- check and intersection

// A camera offering `rows` of the table, in that order.
void Offer(DeviceContext* c, const std::vector<uint32_t>& rows) {
  c->FormatCount = uint32_t(rows.size());
  for (size_t i = 0; i < rows.size(); ++i) c->FormatList[i] = FormatCatalogue[rows[i]].DataRange;
}

// The format a client proposes for a row: its head and video info header.
KS_DATAFORMAT_VIDEOINFOHEADER FormatOf(uint32_t row) {
  const KS_DATARANGE_VIDEO& range = *FormatCatalogue[row].DataRange;
  KS_DATAFORMAT_VIDEOINFOHEADER format;
  format.DataFormat = range.DataRange;
  format.DataFormat.FormatSize = sizeof format;
  format.VideoInfoHeader = range.VideoInfoHeader;
  return format;
}

TEST(FormatCatalogue, CheckFormatTakesOfferedFormatsAtAnyFrameInterval) {
  TestDevice device;
  Offer(device.context, {2, 18, 35, 9});  // RGB24 640, YUYV 640, I420 320, RGB24 1600
  using Format = KS_DATAFORMAT_VIDEOINFOHEADER;
#define CHANGE(what) [](Format& f) { (void)f; what; }
  struct Case {
    const char* what;
    uint32_t row;
    void (*change)(Format&);
    uint32_t stream;
    bool accepted;
  } cases[] = {
      {"offered RGB24", 2, CHANGE(), 0, true},
      {"still pin", 35, CHANGE(), 1, true},
      {"third pin", 2, CHANGE(), 2, false},
      {"interval 0", 18, CHANGE(f.VideoInfoHeader.AvgTimePerFrame = 0), 0, true},
      {"interval far above the limit", 9, CHANGE(f.VideoInfoHeader.AvgTimePerFrame = 1LL << 40), 0,
       true},
      {"negative height", 2, CHANGE(f.VideoInfoHeader.bmiHeader.biHeight = -480), 0, false},
      {"other image size", 2, CHANGE(f.VideoInfoHeader.bmiHeader.biSizeImage += 1), 0, false},
      {"other width", 18, CHANGE(f.VideoInfoHeader.bmiHeader.biWidth = 320), 0, false},
      {"YUY2 subtype on the RGB24 size", 2, CHANGE(f.DataFormat.SubFormat = MEDIASUBTYPE_YUY2), 0,
       false},
      {"other specifier", 2, CHANGE(f.DataFormat.Specifier.Data4[7] ^= 1), 0, false},
      {"other major format", 2, CHANGE(f.DataFormat.MajorFormat.Data1 ^= 1), 0, false},
      {"a table row the camera does not offer", 36, CHANGE(), 0, false},
      {"too short to hold its header", 2, CHANGE(f.DataFormat.FormatSize = 151), 0, false},
  };
#undef CHANGE
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    KS_DATAFORMAT_VIDEOINFOHEADER format = FormatOf(test.row);
    test.change(format);
    EXPECT_EQ(CheckFormat(device.context, &format.DataFormat, test.stream) != FALSE, test.accepted);
  }
  device->FormatCount = 0;
  KS_DATAFORMAT_VIDEOINFOHEADER format = FormatOf(2);
  EXPECT_FALSE(CheckFormat(device.context, &format.DataFormat, 0)) << "nothing offered";
}

// Bytes of a bitmap: rows of width x bits rounded up to whole 32-bit words.
uint32_t DibBytes(int64_t width, int64_t height, int64_t bits) {
  const int64_t rowWords = (width * bits + 31) / 32;
  return uint32_t(rowWords * 4 * (height < 0 ? -height : height));
}

struct Intersection {
  NTSTATUS status;
  uint32_t actual;
  std::vector<uint8_t> buffer;
};

Intersection Intersect(DeviceContext* c, const void* range, uint32_t bufferBytes,
                       uint32_t stream = 0) {
  Intersection result;
  result.buffer.assign(bufferBytes + 8, 0xA5);
  STREAM_DATA_INTERSECT_INFO info = {stream, range, result.buffer.data(), bufferBytes};
  HW_STREAM_REQUEST_BLOCK srb = {};
  srb.Command = SRB_GET_DATA_INTERSECTION;
  srb.CommandData.IntersectInfo = &info;
  result.status = IntersectFormat(c, &srb);
  EXPECT_EQ(srb.Status, result.status);
  result.actual = srb.ActualBytesTransferred;
  return result;
}

TEST(FormatCatalogue, IntersectionHandsBackTheCallersRangeClamped) {
  TestDevice device;
  Offer(device.context, {0, 2, 13, 18, 27, 35, 34});
  struct Case {
    const char* what;
    uint32_t row;
    int64_t interval;
    uint16_t bits;  // 0: the record's
    int64_t expectedInterval;
    uint32_t expectedBitRate;
  } cases[] = {
      {"RGB24 slower than allowed", 2, 10000000, 0, 5000000, 14745600},
      {"RGB24 just at the limit", 0, 5000000, 0, 5000000, 13824000},
      {"RGB24 one above the limit", 13, 5000001, 0, 5000000, 19464192},
      {"I420 below its least interval is left alone", 35, 333333, 0, 333333, 5529600},
      {"I420 160 has its own limit", 34, 1250000, 0, 1249999, 1843200},
      {"a negative interval is below any limit", 18, -1, 0, -1, 73728000},
      {"32 bits a pixel on RGB24", 2, 333333, 32, 333333, 221184000},
      {"15 bits a pixel pads its rows", 27, 333333, 15, 333333, 6082560},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    KS_DATARANGE_VIDEO range = *FormatCatalogue[test.row].DataRange;
    range.VideoInfoHeader.AvgTimePerFrame = test.interval;
    if (test.bits != 0) range.VideoInfoHeader.bmiHeader.biBitCount = test.bits;
    const KS_DATARANGE_VIDEO before = range;

    const Intersection query = Intersect(device.context, &range, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.actual, 152u);

    const Intersection result = Intersect(device.context, &range, 200);
    ASSERT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.actual, 152u);
    EXPECT_EQ(std::memcmp(&range, &before, sizeof range), 0) << "the caller's range changed";
    KS_DATAFORMAT_VIDEOINFOHEADER format;
    std::memcpy(&format, result.buffer.data(), sizeof format);
    const KS_BITMAPINFOHEADER& h = format.VideoInfoHeader.bmiHeader;
    const uint32_t image = DibBytes(h.biWidth, h.biHeight, h.biBitCount);
    EXPECT_EQ(format.VideoInfoHeader.AvgTimePerFrame, test.expectedInterval);
    EXPECT_EQ(format.VideoInfoHeader.dwBitRate, test.expectedBitRate);
    // Everything else is the caller's, with its sizes made right.
    KS_DATAFORMAT_VIDEOINFOHEADER expected;
    expected.DataFormat = range.DataRange;
    expected.DataFormat.FormatSize = 152;
    expected.DataFormat.SampleSize = image;
    expected.VideoInfoHeader = range.VideoInfoHeader;
    expected.VideoInfoHeader.AvgTimePerFrame = test.expectedInterval;
    expected.VideoInfoHeader.dwBitRate = test.expectedBitRate;
    expected.VideoInfoHeader.bmiHeader.biSizeImage = image;
    EXPECT_EQ(std::memcmp(&format, &expected, sizeof format), 0);
    for (size_t i = 152; i < result.buffer.size(); ++i) {
      ASSERT_EQ(result.buffer[i], 0xA5) << "byte " << i << " written past the format";
    }
  }
}

TEST(FormatCatalogue, IntersectionFailsWithoutAMatchOrRoom) {
  TestDevice device;
  Offer(device.context, {2, 18});
#define CHANGE(what) [](KS_DATARANGE_VIDEO& r) { (void)r; what; }
  struct Case {
    const char* what;
    uint32_t row;
    void (*change)(KS_DATARANGE_VIDEO&);
    uint32_t bufferBytes, stream;
    NTSTATUS status;
  } cases[] = {
      {"one byte short", 2, CHANGE(), 151, 0, STATUS_BUFFER_TOO_SMALL},
      {"a row not offered", 3, CHANGE(), 152, 0, STATUS_NO_MATCH},
      {"third stream", 2, CHANGE(), 152, 2, STATUS_NO_MATCH},
      {"other height", 2, CHANGE(r.VideoInfoHeader.bmiHeader.biHeight = -480), 152, 0,
       STATUS_NO_MATCH},
      {"caps differ in one byte", 18, CHANGE(r.ConfigCaps.MaxFrameInterval += 1), 152, 0,
       STATUS_NO_MATCH},
      {"variable sample size", 18, CHANGE(r.bFixedSizeSamples = 0), 152, 0, STATUS_NO_MATCH},
      {"other memory flags", 2, CHANGE(r.MemoryAllocationFlags = 1), 152, 0, STATUS_NO_MATCH},
      {"range longer than a record", 2, CHANGE(r.DataRange.FormatSize = 297), 152, 0,
       STATUS_NO_MATCH},
      {"bitmap header longer than the range", 2,
       CHANGE(r.VideoInfoHeader.bmiHeader.biSize = 0xFFFFFFF0), 0, 0, STATUS_INVALID_PARAMETER},
      {"bitmap header too short for its fields", 2, CHANGE(r.VideoInfoHeader.bmiHeader.biSize = 8),
       200, 0, STATUS_INVALID_PARAMETER},
  };
#undef CHANGE
  for (const Case& test : cases) {
    SCOPED_TRACE(test.what);
    KS_DATARANGE_VIDEO range = *FormatCatalogue[test.row].DataRange;
    test.change(range);
    const Intersection result = Intersect(device.context, &range, test.bufferBytes, test.stream);
    EXPECT_EQ(result.status, test.status);
    EXPECT_EQ(result.actual, 0u) << "a size with a failure";
    for (uint8_t byte : result.buffer) ASSERT_EQ(byte, 0xA5) << "a failed intersection wrote";
  }

  // A range that says it is short is read no further than it says, even
  // where its memory ends there.
  for (uint32_t size : {4u, 64u, 100u, 295u}) {
    SCOPED_TRACE(size);
    std::vector<uint8_t> shortRange(size);
    std::memcpy(shortRange.data(), FormatCatalogue[2].DataRange, size);
    std::memcpy(shortRange.data(), &size, sizeof size);
    EXPECT_EQ(Intersect(device.context, shortRange.data(), 152).status, STATUS_NO_MATCH);
  }
}

}  // namespace
