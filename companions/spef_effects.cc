// The effect catalogue of the special-effects library (see spef_effects.h for
// what each effect computes) and the builders of the table-driven effects.

#include "companions/spef_effects.h"

namespace {

inline uint8_t Clamp(int32_t v, int32_t lo, int32_t hi) {
  return static_cast<uint8_t>(v < lo ? lo : (v > hi ? hi : v));
}

void FillIdentity(uint8_t* table) {
  for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(i);
}

// Cool and Warm: chroma moved by P0 - 128 and P1 - 128.
void BuildChromaShift(const uint32_t* p, uint8_t* tableY, uint8_t* tableU, uint8_t* tableV) {
  FillIdentity(tableY);
  int32_t du = static_cast<int32_t>(p[0]) - 128, dv = static_cast<int32_t>(p[1]) - 128;
  for (int i = 0; i < 256; ++i) {
    tableU[i] = Clamp(i + du, 16, 240);
    tableV[i] = Clamp(i + dv, 16, 240);
  }
}

void BuildSolarise(const uint32_t* p, uint8_t* tableY, uint8_t* tableU, uint8_t* tableV) {
  FillIdentity(tableU);
  FillIdentity(tableV);
  for (int i = 0; i < 256; ++i) {
    tableY[i] =
        static_cast<uint32_t>(i) >= p[0] ? Clamp(251 - i, 16, 235) : static_cast<uint8_t>(i);
  }
}

// Level q of L covers luma 16 + 220 q / L up to the next level's start, and
// is shown as 16 + 219 q / (L - 1), rounded: black and white stay.
void BuildPosterise(const uint32_t* p, uint8_t* tableY, uint8_t* tableU, uint8_t* tableV) {
  FillIdentity(tableU);
  FillIdentity(tableV);
  int32_t levels = static_cast<int32_t>(p[0] < 2 ? 2 : (p[0] > 220 ? 220 : p[0]));
  for (int i = 0; i < 256; ++i) {
    int32_t y = Clamp(i, 16, 235) - 16;  // 0..219
    int32_t q = y * levels / 220;
    tableY[i] = static_cast<uint8_t>(16 + (219 * q + (levels - 1) / 2) / (levels - 1));
  }
}

// Gain P0 / 64 about the studio mid grey 126 ((16 + 235) / 2 = 125.5 -> 126).
void BuildHighContrast(const uint32_t* p, uint8_t* tableY, uint8_t* tableU, uint8_t* tableV) {
  FillIdentity(tableU);
  FillIdentity(tableV);
  int32_t gain = static_cast<int32_t>(p[0] > 1024 ? 1024 : p[0]);
  for (int i = 0; i < 256; ++i) tableY[i] = Clamp(126 + (i - 126) * gain / 64, 16, 235);
}

}  // namespace

const char* const SpefCategoryNames[] = {"Colour", "Tone", "Artistic"};
const uint32_t SpefCategoryCount = sizeof(SpefCategoryNames) / sizeof(SpefCategoryNames[0]);

const SpefEffect SpefEffects[] = {
    {0, 0, "None", {}, {}, SpefKindNone, nullptr},
    {0, 1, "Monochrome", {"Cb", "Cr"}, {128, 128}, SpefKindConstantChroma, nullptr},
    {0, 2, "Sepia", {"Cb", "Cr"}, {108, 141}, SpefKindConstantChroma, nullptr},
    {0, 3, "Negative", {"Luma sum", "Chroma sum"}, {251, 256}, SpefKindNegative, nullptr},
    {0, 4, "Cool", {"Cb shift+128", "Cr shift+128"}, {152, 112}, SpefKindTable, BuildChromaShift},
    {0, 5, "Warm", {"Cb shift+128", "Cr shift+128"}, {112, 148}, SpefKindTable, BuildChromaShift},
    {1, 0, "Solarise", {"Threshold"}, {160}, SpefKindTable, BuildSolarise},
    {1, 1, "Posterise", {"Levels"}, {4}, SpefKindTable, BuildPosterise},
    {1, 2, "High contrast", {"Gain x64"}, {128}, SpefKindTable, BuildHighContrast},
    {2, 0, "Emboss", {"Gain"}, {2}, SpefKindEmboss, nullptr},
    {2, 1, "Sketch", {"Gain"}, {2}, SpefKindSketch, nullptr},
};
const uint32_t SpefEffectCount = sizeof(SpefEffects) / sizeof(SpefEffects[0]);
static_assert(sizeof(SpefEffects) / sizeof(SpefEffects[0]) <= SpefEffectCapacity,
              "every effect needs its table slot");
