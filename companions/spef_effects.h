// The special-effects library's insides: the effect catalogue, the private
// block that follows the SpefRecord in the same pool allocation, and the row
// functions of the frame path.
//
// The catalogue (category, list: name; the five parameter words):
//
//   0 Colour
//     0 None         no change; parameters 0
//     1 Monochrome   Cb, Cr := P0, P1 (128, 128); Y kept
//     2 Sepia        Cb, Cr := P0, P1 (108, 141: the chroma of the sepia
//                    tone RGB 162, 138, 101); Y kept
//     3 Negative     Y := P0 - Y with Y first clamped to 16..235 (P0 251, so
//                    16 <-> 235); Cb, Cr := P1 - C with C first clamped to
//                    16..240 (P1 256, so 16 <-> 240, 128 stays). Pictures in
//                    studio range stay in it.
//     4 Cool         Cb += P0 - 128, Cr += P1 - 128, clamped to 16..240
//                    (P0 152, P1 112: towards blue); Y kept
//     5 Warm         the same with P0 112, P1 148 (towards orange)
//   1 Tone
//     0 Solarise     Y >= P0 (160) becomes 251 - Y; chroma kept
//     1 Posterise    Y (clamped to 16..235) to P0 (4) levels evenly spread
//                    over 16..235; chroma kept
//     2 High contrast Y := 126 + (Y - 126) x P0 / 64 (P0 128, gain 2),
//                    truncated, clamped to 16..235; chroma kept
//   2 Artistic
//     0 Emboss       Y := 126 + (Y(x+1, y+1) - Y(x-1, y-1)) x P0 (P0 2),
//                    clamped to 16..235; Cb, Cr := 128
//     1 Sketch       Y := 235 - (|Y(x+1, y) - Y(x-1, y)| + |Y(x, y+1) -
//                    Y(x, y-1)|) x P0 (P0 2), clamped to 16..235; Cb, Cr := 128
//
// Unused parameter words are 0. Neighbours beyond the picture's edges repeat
// the edge pixel. Names: name 0 is the display name, names 1 to 5 name the
// parameter words in use (empty otherwise), name 9 is the category's name.
// Any other category or list is no effect.
#pragma once

#include <cstdint>

#include "core/companions.h"

// The library's pool tag, 'Spef' as the little-endian tag word.
constexpr ULONG SpefPoolTag = 0x66657053;

enum SpefKind : uint32_t {
  SpefKindNone,
  SpefKindConstantChroma,  // Cb, Cr := P0, P1
  SpefKindNegative,
  SpefKindTable,  // Y, Cb, Cr through tables built at SPEF_Init
  SpefKindEmboss,
  SpefKindSketch,
};

typedef void (*SpefTableBuilder)(const uint32_t* parameters, uint8_t* tableY, uint8_t* tableU,
                                 uint8_t* tableV);

struct SpefEffect {
  uint32_t Category;
  uint32_t List;
  const char* Name;
  const char* ParameterNames[5];
  uint32_t Parameters[5];
  SpefKind Kind;
  SpefTableBuilder BuildTables;  // SpefKindTable only
};

extern const SpefEffect SpefEffects[];
extern const uint32_t SpefEffectCount;
constexpr uint32_t SpefEffectCapacity = 16;
extern const char* const SpefCategoryNames[];
extern const uint32_t SpefCategoryCount;

// The widest picture the neighbourhood effects (emboss, sketch) work on; a
// wider one is left as it is.
constexpr uint32_t SpefMaxRowWidth = 8192;

constexpr uint8_t SpefTouchesLuma = 1, SpefTouchesChroma = 2;

struct SpefPrivate {
  uint32_t Signature;
  // Index + 1 into SpefEffects of the effect in force, 0 for none. Written by
  // SPEF_PropertySet and SPEF_StartCapture, read once per frame; atomic.
  uint32_t ActiveEffect;
  // Y, Cb, Cr tables of each table-driven effect, built once at SPEF_Init,
  // and which of luma and chroma each table changes at all.
  uint8_t Tables[SpefEffectCapacity][3][256];
  uint8_t TableTouches[SpefEffectCapacity];
  // Luma of three picture rows for the neighbourhood effects, one pixel of
  // margin each side. Frame path only.
  uint8_t Rows[3][SpefMaxRowWidth + 2];
};

// The private block of a live handle, null for 0 or a released one.
SpefPrivate* SpefPrivateOf(uint64_t spefHandle);

// ---------------------------------------------------------------- rows

// Each takes `pixels` YUYV pixels starting at a pair boundary; an odd count
// ends on a pixel with Y and Cb only.
typedef void (*SpefConstantChromaRow)(uint8_t* yuyv, int pixels, uint8_t cb, uint8_t cr);
typedef void (*SpefNegativeRow)(uint8_t* yuyv, int pixels);
// The luma of `width` YUYV pixels into row[0..width), the edge pixels
// repeated into row[-1] and row[width].
typedef void (*SpefLoadLumaRow)(const uint8_t* yuyv, int width, uint8_t* row);
// One output row of a neighbourhood effect from the original luma of the
// rows above, at and below it (each with the one-pixel margins).
typedef void (*SpefNeighbourhoodRow)(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                                     uint8_t* yuyv, int width, int32_t gain);

void SpefConstantChromaRow_C(uint8_t* yuyv, int pixels, uint8_t cb, uint8_t cr);
void SpefNegativeRow_C(uint8_t* yuyv, int pixels);
void SpefLumaTableRow_C(uint8_t* yuyv, int pixels, const uint8_t* tableY);
void SpefChromaTableRow_C(uint8_t* yuyv, int pixels, const uint8_t* tableU, const uint8_t* tableV);
void SpefLoadLumaRow_C(const uint8_t* yuyv, int width, uint8_t* row);
void SpefEmbossRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* yuyv,
                     int width, int32_t gain);
void SpefSketchRow_C(const uint8_t* above, const uint8_t* row, const uint8_t* below, uint8_t* yuyv,
                     int width, int32_t gain);

#if defined(__x86_64__) || defined(__i386__)
#define MR740_SPEF_HAVE_AVX2 1
void SpefConstantChromaRow_AVX2(uint8_t* yuyv, int pixels, uint8_t cb, uint8_t cr);
void SpefNegativeRow_AVX2(uint8_t* yuyv, int pixels);
void SpefLoadLumaRow_AVX2(const uint8_t* yuyv, int width, uint8_t* row);
void SpefEmbossRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                        uint8_t* yuyv, int width, int32_t gain);
void SpefSketchRow_AVX2(const uint8_t* above, const uint8_t* row, const uint8_t* below,
                        uint8_t* yuyv, int width, int32_t gain);
#endif

struct SpefRowSet {
  SpefConstantChromaRow ConstantChroma;
  SpefNegativeRow Negative;
  SpefLoadLumaRow LoadLuma;
  SpefNeighbourhoodRow Emboss;
  SpefNeighbourhoodRow Sketch;
};

extern const SpefRowSet SpefPortableRows;
// The best rows for this processor.
const SpefRowSet* SpefBestRows();

// Applies `effect` to a picture with the given rows (SPEF_ConvertFrame uses
// the best rows; tests compare the two sets through this).
void SpefApplyEffect(const SpefRowSet* rows, SpefPrivate* priv, uint32_t effectIndex,
                     uint8_t* picture, uint32_t width, uint32_t height);
