// Mode selection: the open stream's format, size and quality option give the
// script section that sets the sensor up for the mode, and the mode's key
// below InitialSetting gives how the data is transported and scaled.
//
// The rows of ModeTable are shared by every camera of the driver and never
// written. A camera whose description keeps separate trees per USB speed
// gets its section name, with its own "FS\" or "HS\", composed into its own
// ModeSectionName; every other camera points ModeSection straight at the
// shared row, past its "HS\".
#include "script/mode_selection.h"

#include <cstring>

#include "script/script_engine.h"
#include "settings/registry_store.h"

// clang-format off
const char ModeTable[ModeTableRows][ModeSectionNameBytes] = {
    // RGB24
    "HS\\RGB24\\160", "HS\\RGB24\\160_QUALITY", "HS\\RGB24\\160_FRAMERATE",
    "HS\\RGB24\\320", "HS\\RGB24\\320_QUALITY", "HS\\RGB24\\320_FRAMERATE",
    "HS\\RGB24\\640", "HS\\RGB24\\640_QUALITY", "HS\\RGB24\\640_FRAMERATE",
    "HS\\RGB24\\800", "HS\\RGB24\\800_QUALITY", "HS\\RGB24\\800_FRAMERATE",
    "HS\\RGB24\\1024", "HS\\RGB24\\1024_QUALITY", "HS\\RGB24\\1024_FRAMERATE",
    "HS\\RGB24\\1280C", "HS\\RGB24\\1280C_QUALITY", "HS\\RGB24\\1280C_FRAMERATE",
    "HS\\RGB24\\1280B", "HS\\RGB24\\1280B_QUALITY", "HS\\RGB24\\1280B_FRAMERATE",
    "HS\\RGB24\\1280A", "HS\\RGB24\\1280A_QUALITY", "HS\\RGB24\\1280A_FRAMERATE",
    "HS\\RGB24\\1280", "HS\\RGB24\\1280_QUALITY", "HS\\RGB24\\1280_FRAMERATE",
    "HS\\RGB24\\1600", "HS\\RGB24\\1600_QUALITY", "HS\\RGB24\\1600_FRAMERATE",
    "HS\\RGB24\\128", "HS\\RGB24\\128_QUALITY", "HS\\RGB24\\128_FRAMERATE",
    "HS\\RGB24\\176", "HS\\RGB24\\176_QUALITY", "HS\\RGB24\\176_FRAMERATE",
    "HS\\RGB24\\352", "HS\\RGB24\\352_QUALITY", "HS\\RGB24\\352_FRAMERATE",
    "HS\\RGB24\\704", "HS\\RGB24\\704_QUALITY", "HS\\RGB24\\704_FRAMERATE",
    "HS\\RGB24\\1408", "HS\\RGB24\\1408_QUALITY", "HS\\RGB24\\1408_FRAMERATE",
    "HS\\RGB24\\484", "HS\\RGB24\\484_QUALITY", "HS\\RGB24\\484_FRAMERATE",
    // YUYV
    "HS\\YUYV\\160", "HS\\YUYV\\160_QUALITY", "HS\\YUYV\\160_FRAMERATE",
    "HS\\YUYV\\320", "HS\\YUYV\\320_QUALITY", "HS\\YUYV\\320_FRAMERATE",
    "HS\\YUYV\\640", "HS\\YUYV\\640_QUALITY", "HS\\YUYV\\640_FRAMERATE",
    "HS\\YUYV\\800", "HS\\YUYV\\800_QUALITY", "HS\\YUYV\\800_FRAMERATE",
    "HS\\YUYV\\1024", "HS\\YUYV\\1024_QUALITY", "HS\\YUYV\\1024_FRAMERATE",
    "HS\\YUYV\\1280C", "HS\\YUYV\\1280C_QUALITY", "HS\\YUYV\\1280C_FRAMERATE",
    "HS\\YUYV\\1280B", "HS\\YUYV\\1280B_QUALITY", "HS\\YUYV\\1280B_FRAMERATE",
    "HS\\YUYV\\1280A", "HS\\YUYV\\1280A_QUALITY", "HS\\YUYV\\1280A_FRAMERATE",
    "HS\\YUYV\\1280", "HS\\YUYV\\1280_QUALITY", "HS\\YUYV\\1280_FRAMERATE",
    "HS\\YUYV\\1600", "HS\\YUYV\\1600_QUALITY", "HS\\YUYV\\1600_FRAMERATE",
    "HS\\YUYV\\128", "HS\\YUYV\\128_QUALITY", "HS\\YUYV\\128_FRAMERATE",
    "HS\\YUYV\\176", "HS\\YUYV\\176_QUALITY", "HS\\YUYV\\176_FRAMERATE",
    "HS\\YUYV\\352", "HS\\YUYV\\352_QUALITY", "HS\\YUYV\\352_FRAMERATE",
    "HS\\YUYV\\704", "HS\\YUYV\\704_QUALITY", "HS\\YUYV\\704_FRAMERATE",
    "HS\\YUYV\\1408", "HS\\YUYV\\1408_QUALITY", "HS\\YUYV\\1408_FRAMERATE",
    "HS\\YUYV\\484", "HS\\YUYV\\484_QUALITY", "HS\\YUYV\\484_FRAMERATE",
    "HS\\YUYV\\1440", "HS\\YUYV\\1440_QUALITY", "HS\\YUYV\\1440_FRAMERATE",
    "HS\\YUYV\\720", "HS\\YUYV\\720_QUALITY", "HS\\YUYV\\720_FRAMERATE",
    // I420
    "HS\\I420\\160", "HS\\I420\\160_QUALITY", "HS\\I420\\160_FRAMERATE",
    "HS\\I420\\320", "HS\\I420\\320_QUALITY", "HS\\I420\\320_FRAMERATE",
    "HS\\I420\\640", "HS\\I420\\640_QUALITY", "HS\\I420\\640_FRAMERATE",
    "HS\\I420\\128", "HS\\I420\\128_QUALITY", "HS\\I420\\128_FRAMERATE",
    "HS\\I420\\176", "HS\\I420\\176_QUALITY", "HS\\I420\\176_FRAMERATE",
    "HS\\I420\\352", "HS\\I420\\352_QUALITY", "HS\\I420\\352_FRAMERATE",
};
// clang-format on

namespace {

constexpr uint32_t SpeedPrefixChars = 3;  // "HS\" and "FS\"
constexpr uint32_t QualitySuffixes = 3;   // none, _QUALITY, _FRAMERATE

// One size of the table. Height 0 stands for any height not listed for the
// width: only 1280 has more than one size, and its "1280C" takes the rest.
struct ModeSize {
  uint32_t Width;
  uint32_t Height;
};

// RGB24 has the first 16 of these, YUYV all 18, in table order.
constexpr ModeSize WideSizes[] = {
    {160, 0},    {320, 0},    {640, 0},     {800, 0},  {1024, 0}, {1280, 0},
    {1280, 768}, {1280, 960}, {1280, 1024}, {1600, 0}, {128, 0},  {176, 0},
    {352, 0},    {704, 0},    {1408, 0},    {484, 0},  {1440, 0}, {720, 0},
};
constexpr ModeSize I420Sizes[] = {{160, 0}, {320, 0}, {640, 0}, {128, 0}, {176, 0}, {352, 0}};

struct ModeFormat {
  uint32_t Compression;
  uint32_t FirstRow;
  const ModeSize* Sizes;
  uint32_t SizeCount;
};

constexpr ModeFormat ModeFormats[] = {
    {CompressionRGB24, 0, WideSizes, 16},
    {CompressionYUY2, 16 * QualitySuffixes, WideSizes, 18},
    {CompressionI420, (16 + 18) * QualitySuffixes, I420Sizes, 6},
};
static_assert((16 + 18 + 6) * QualitySuffixes == ModeTableRows, "every row has its format");

// Index of the size for width x height in the format's list, or -1.
int32_t FindModeSize(const ModeFormat& format, uint32_t width, uint32_t height) {
  int32_t anyHeight = -1;
  for (uint32_t i = 0; i < format.SizeCount; ++i) {
    const ModeSize& size = format.Sizes[i];
    if (size.Width != width) continue;
    if (size.Height == height) return int32_t(i);
    if (size.Height == 0) anyHeight = int32_t(i);
  }
  return anyHeight;
}

// 0 selects the _QUALITY row, 2 the _FRAMERATE row, anything else the plain one.
uint32_t QualityColumn(uint32_t qualityOption) {
  if (qualityOption == 0) return 1;
  if (qualityOption == 2) return 2;
  return 0;
}

// Reads the mode's values from `modeKeyPath` below `tree`, or gives the
// defaults when the key cannot be had.
void ReadModeValues(DeviceContext* context, HANDLE tree, const WCHAR* modeKeyPath) {
  uint32_t controlMethod = 0, frameRate = 1000, alternateSetting = 1;
  HANDLE modeKey = nullptr;
  if (tree != nullptr &&
      NT_SUCCESS(CreateRegistrySubKey(tree, SubKeyAccess, modeKeyPath, &modeKey))) {
    controlMethod = ReadRegistryDword(modeKey, u"ControlMethod", 0);
    frameRate = ReadRegistryDword(modeKey, u"FrameRate", 1000);
    alternateSetting = ReadRegistryDword(modeKey, u"AlternateSetting", 1);
    ZwClose(modeKey);
  }
  StoreShared(context->ControlMethod, controlMethod);
  StoreShared(context->FrameInterval, frameRate);
  StoreShared(context->StreamAlternateSetting, alternateSetting);
}

}  // namespace

// Host's thread at bandwidth allocation, or a property call. Blocks on the
// registry; allocates only inside the registry store.
void SelectMode(DeviceContext* context) {
  const ModeFormat* format = nullptr;
  for (const ModeFormat& candidate : ModeFormats) {
    if (candidate.Compression == context->CurrentCompression) format = &candidate;
  }
  if (format == nullptr) return;  // no row: the old mode stays
  const int32_t size = FindModeSize(*format, context->ImageWidth, context->ImageHeight);
  if (size < 0) return;

  const uint32_t plainRow = format->FirstRow + uint32_t(size) * QualitySuffixes;
  const char* row = ModeTable[plainRow + QualityColumn(context->QualityOption)];

  // The mode's key path, "FullSpeed\RGB24\1280" or "RGB24\1280": the plain
  // row without its prefix names the format and size keys.
  WCHAR modeKeyPath[ModeSectionNameBytes + 16];
  uint32_t length = 0;
  HANDLE initial = nullptr;
  uint32_t separate = 0;
  if (NT_SUCCESS(OpenSensorSubKey(context, u"InitialSetting", &initial))) {
    separate = ReadRegistryDword(initial, u"SeparateCtrl", 0);
  } else {
    initial = nullptr;
  }

  const char* section = row + SpeedPrefixChars;
  if (separate != 0) {
    const bool fullSpeed = context->IsFullSpeed != 0;
    char* name = context->ModeSectionName;
    std::memcpy(name, fullSpeed ? "FS\\" : "HS\\", SpeedPrefixChars);
    std::memcpy(name + SpeedPrefixChars, row + SpeedPrefixChars,
                std::strlen(row + SpeedPrefixChars) + 1);
    section = name;
    const char16_t* tree = fullSpeed ? u"FullSpeed\\" : u"HighSpeed\\";
    while (tree[length] != 0) {
      modeKeyPath[length] = tree[length];
      ++length;
    }
  }
  for (const char* c = ModeTable[plainRow] + SpeedPrefixChars; *c != 0; ++c) {
    modeKeyPath[length++] = WCHAR(*c);
  }
  modeKeyPath[length] = 0;

  StoreShared(context->ModeSection, section);
  ReadModeValues(context, initial, modeKeyPath);
  if (initial != nullptr) ZwClose(initial);
}

// Worker thread at capture start, or a property call. Blocks while the
// sections run.
NTSTATUS RunModeSections(DeviceContext* context) {
  const uint8_t scaleMode = ScaleMode(context);
  if (scaleMode == 0 || scaleMode > 5) return STATUS_SUCCESS;
  const bool fullSpeed = context->IsFullSpeed != 0;

  NTSTATUS status = STATUS_SUCCESS;
  if (LoadShared(context->ModeScriptsCurrent) == 0) {
    // Results of the INIT, INIT_PREVIEW/INIT_CAPTURE and flicker sections are
    // not looked at: a camera goes on as far as its script got.
    if (LoadShared(context->InitScriptsFresh) == 0) {
      ExecuteScriptSection(context, "INIT");
      ExecuteScriptSection(context, fullSpeed ? "FS\\INIT" : "HS\\INIT");
    } else {
      StoreShared(context->InitScriptsFresh, 0);
    }
    ExecuteScriptSection(context, context->ImageWidth <= 800 ? "INIT_PREVIEW" : "INIT_CAPTURE");
    const char* section = LoadShared(context->ModeSection);
    // Without a selected mode no section is named; running a null section
    // would run the whole file.
    if (section != nullptr) status = ExecuteScriptSection(context, section);
  } else {
    StoreShared(context->ModeScriptsCurrent, 0);
  }

  switch (context->FlickerMode) {
    case 1:
      ExecuteScriptSection(context, "FLICKER_50HZ");
      break;
    case 2:
      ExecuteScriptSection(context, "FLICKER_AUTO");
      break;
    default:
      ExecuteScriptSection(context, "FLICKER_60HZ");
      break;
  }

  // The high-speed light sections carry no prefix.
  static const char* const LightSections[2][3] = {
      {"NORMAL_LIGHT", "LOW_LIGHT", "BACK_LIGHT"},
      {"FS\\NORMAL_LIGHT", "FS\\LOW_LIGHT", "FS\\BACK_LIGHT"},
  };
  if (context->LightCondition < 3) {
    status =
        ExecuteScriptSection(context, LightSections[fullSpeed ? 1 : 0][context->LightCondition]);
  }
  return status;
}
