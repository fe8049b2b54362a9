// The stream and format catalogue: two streams (video capture and still
// capture) and one table of 40 video formats that both share. Which rows a
// camera offers, and in which order, its description decides at start-up
// (BuildFormatList fills the camera's FormatList); the table itself is the
// same for every camera and never changes.
#pragma once

#include <cstdint>

#include "core/device_context.h"
#include "core/host_contract.h"

// One row of the table: the registry keys (below InitialSetting) where the
// row's Enabled rank is found, and the format record offered to the host.
struct FormatCatalogueRow {
  const WCHAR* FormatKey;  // u"RGB24", u"YUYV" or u"I420"
  const WCHAR* SizeKey;    // u"640", u"1280A", ...
  const KS_DATARANGE_VIDEO* DataRange;
};
extern const FormatCatalogueRow FormatCatalogue[FormatCatalogueRows];

// The two stream descriptions as compiled: each lists all 40 formats in table
// order. SRB_GET_STREAM_INFO hands the host copies whose format arrays are the
// camera's FormatList.
constexpr uint32_t CatalogueStreams = 2;
extern const HW_STREAM_INFORMATION StreamTable[CatalogueStreams];

extern const GUID PINNAME_VIDEO_CAPTURE;
extern const GUID PINNAME_VIDEO_STILL;
extern const GUID KSDATAFORMAT_TYPE_VIDEO;
extern const GUID KSDATAFORMAT_SPECIFIER_VIDEOINFO;
extern const GUID MEDIASUBTYPE_RGB24;
extern const GUID MEDIASUBTYPE_YUY2;
extern const GUID MEDIASUBTYPE_I420;

// True when `format` (a data format head followed by a video info header) is
// one of the stream's offered formats: same major format, subformat,
// specifier, width, height and image size. Any frame interval passes.
// `streamNumber` above 1 gives false.
BOOLEAN CheckFormat(const DeviceContext* context, const KSDATAFORMAT* format,
                     uint32_t streamNumber);

// Serves SRB_GET_DATA_INTERSECTION: finds the offered record matching the
// caller's range and fills the caller's buffer with the range, its frame
// interval clamped to the record's. Sets the Srb's Status (and
// ActualBytesTransferred) and returns the same status.
NTSTATUS IntersectFormat(const DeviceContext* context, PHW_STREAM_REQUEST_BLOCK srb);
