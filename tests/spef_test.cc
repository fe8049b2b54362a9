// The special-effects library: what each effect does to a YUYV picture and
// what it leaves, the record's parameter words and name slots as the driver's
// effect properties read them, handle safety and pool accounting.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "companions/spef_effects.h"
#include "core/companions.h"
#include "platform/kernel_control.h"

namespace {

struct Spef {
  uint64_t Handle = SPEF_Init(u"\\??\\C:\\Camera");
  ~Spef() { SPEF_Exit(Handle); }
  SpefRecord* Record() const { return reinterpret_cast<SpefRecord*>(Handle); }
  // As the driver does after a set of the effect property.
  void Select(uint32_t category, uint32_t list, uint32_t w = 64, uint32_t h = 8) {
    Record()->Category = category;
    Record()->List = list;
    SPEF_PropertySet(Handle, w, h);
  }
};

// Every byte value in both Y and chroma places, out-of-range ones included.
constexpr uint32_t kSeed = 2718;
std::vector<uint8_t> NoisePicture(uint32_t w, uint32_t h) {
  std::mt19937 random(kSeed);
  std::vector<uint8_t> p(2 * w * h);
  for (auto& b : p) b = static_cast<uint8_t>(random());
  return p;
}

int ClampTo(int v, int lo, int hi) { return v < lo ? lo : (v > hi ? hi : v); }

// Point effects: the expected byte of every Y and chroma place, from the
// documented rule, on pictures of even and odd width.
TEST(SpefEffects, PointEffectsChangeWhatTheyShouldAndKeepTheRest) {
  struct Case {
    uint32_t category, list;
    const char* name;
    int (*luma)(int y);
    int (*chroma)(int c, bool isCr);
  };
  // Null: the byte is left as it was.
  const Case cases[] = {
      {0, 0, "None", nullptr, nullptr},
      {0, 1, "Monochrome", nullptr, [](int, bool) { return 128; }},
      {0, 2, "Sepia", nullptr, [](int, bool cr) { return cr ? 141 : 108; }},
      {0, 3, "Negative", [](int y) { return 251 - ClampTo(y, 16, 235); },
       [](int c, bool) { return 256 - ClampTo(c, 16, 240); }},
      {0, 4, "Cool", nullptr, [](int c, bool cr) { return ClampTo(c + (cr ? -16 : 24), 16, 240); }},
      {0, 5, "Warm", nullptr, [](int c, bool cr) { return ClampTo(c + (cr ? 20 : -16), 16, 240); }},
      {1, 0, "Solarise", [](int y) { return y >= 160 ? 251 - ClampTo(y, 16, 235) : y; }, nullptr},
      {1, 1, "Posterise",  // four steps over 16..235
       [](int y) { return 16 + 73 * ((ClampTo(y, 16, 235) - 16) * 4 / 220); }, nullptr},
      {1, 2, "High contrast", [](int y) { return ClampTo(126 + (y - 126) * 2, 16, 235); }, nullptr},
  };
  Spef spef;
  ASSERT_NE(spef.Handle, 0u);
  for (const Case& k : cases) {
    for (uint32_t w : {64u, 37u, 1u}) {
      SCOPED_TRACE(testing::Message() << k.name << " " << w << "x5 seed " << kSeed);
      spef.Select(k.category, k.list, w, 5);
      std::vector<uint8_t> before = NoisePicture(w, 5), after = before, want = before;
      SPEF_ConvertFrame(spef.Handle, after.data(), w, 5);
      for (size_t i = 0; i < want.size(); i += 2) {
        if (k.luma) want[i] = uint8_t(k.luma(before[i]));
        if (k.chroma) want[i + 1] = uint8_t(k.chroma(before[i + 1], (i / 2 % w & 1) != 0));
      }
      EXPECT_EQ(after, want);
    }
  }
}

// Emboss and sketch look at the neighbours: a flat picture embosses to mid
// grey and sketches to white paper; an edge, across or along the rows, leaves
// a line in both, only along the edge. Both are grey (chroma 128).
TEST(SpefEffects, EmbossAndSketchMarkEdgesAndFlattenTheRest) {
  const uint32_t w = 40, h = 8;
  Spef spef;
  for (int across = 0; across < 2; ++across) {
    // across: dark left of column 20, bright from it; else dark above row 4.
    std::vector<uint8_t> picture(2 * w * h);
    for (uint32_t i = 0; i < w * h; ++i) {
      picture[2 * i] = (across ? i % w >= 20 : i / w >= 4) ? 180 : 60;
      picture[2 * i + 1] = static_cast<uint8_t>(i % w & 1 ? 200 : 40);
    }
    for (int sketch = 0; sketch < 2; ++sketch) {
      SCOPED_TRACE(testing::Message() << (sketch ? "sketch" : "emboss")
                                      << (across ? " across the rows" : " along the rows"));
      spef.Select(2, sketch);
      std::vector<uint8_t> p = picture, want(2 * w * h, 128);
      SPEF_ConvertFrame(spef.Handle, p.data(), w, h);
      for (uint32_t i = 0; i < w * h; ++i) {
        const uint32_t x = i % w, y = i / w;
        const bool nearEdge = across ? (x == 19 || x == 20) : (y == 3 || y == 4);
        // On the edge |180 - 60| x 2 sketches black, and a rising edge embosses light.
        want[2 * i] = !nearEdge ? (sketch ? 235 : 126) : (sketch ? 16 : 235);
      }
      EXPECT_EQ(p, want);
    }
  }
  for (uint32_t size : {1u, 17u}) {  // a flat picture of any size, odd ones included
    std::vector<uint8_t> flat(2 * size * size, 99), want(flat.size(), 128);
    for (size_t i = 0; i < want.size(); i += 2) want[i] = 126;
    spef.Select(2, 0);
    SPEF_ConvertFrame(spef.Handle, flat.data(), size, size);
    EXPECT_EQ(flat, want) << size;
  }
}

// No effect: the default category 99, a list the category does not have, a
// list beyond 63. The picture is left byte for byte.
TEST(SpefEffects, UnknownEffectsLeaveThePictureUntouched) {
  Spef spef;
  const std::vector<uint8_t> before = NoisePicture(48, 4);
  for (auto [category, list] : {std::pair{99u, 0u}, {0u, 6u}, {0u, 65u}}) {
    spef.Select(category, list);
    std::vector<uint8_t> p = before;
    SPEF_ConvertFrame(spef.Handle, p.data(), 48, 4);
    EXPECT_EQ(p, before) << category << "/" << list;
    EXPECT_EQ(std::vector<uint32_t>(spef.Record()->Parameters, spef.Record()->Parameters + 5),
              std::vector<uint32_t>(5, 0));
  }
}

// The effect changes only when the library picks up the record's words: at
// SPEF_PropertySet and at SPEF_StartCapture, which also set the parameters.
TEST(SpefEffects, EffectAndParametersChangeOnlyWhenPickedUp) {
  Spef spef;
  std::vector<uint8_t> p(2 * 16, 77);
  spef.Record()->Category = 0;
  spef.Record()->List = 1;  // monochrome, not yet picked up
  SPEF_ConvertFrame(spef.Handle, p.data(), 16, 1);
  EXPECT_EQ(p[1], 77) << "category 99 stays in force until a pick-up";
  SPEF_StartCapture(spef.Handle, 16, 1);
  EXPECT_EQ(std::tuple(spef.Record()->Parameters[0], spef.Record()->Parameters[1]),
            std::tuple(128u, 128u));
  SPEF_ConvertFrame(spef.Handle, p.data(), 16, 1);
  EXPECT_EQ(std::tuple(p[0], p[1]), std::tuple(77, 128));
  spef.Select(1, 0);  // solarise
  EXPECT_EQ(spef.Record()->Parameters[0], 160u);
  SPEF_StopCapture(spef.Handle);
  std::vector<uint8_t> q(2 * 16, 200);
  SPEF_ConvertFrame(spef.Handle, q.data(), 16, 1);
  EXPECT_EQ(q[0], 51) << "the effect stays in force after a stop";
}

// Name slots read as the driver reads them: byte 14 x (((category x 64 +
// list) x 10) + n + 2) from the record's start, zero-terminated; the first
// and last effect of each category, slots without an effect, and the very
// last slot, which exists.
TEST(SpefRecordLayout, NameSlotsSitWhereTheEffectPropertyReadsThem) {
  Spef spef;
  const uint8_t* base = reinterpret_cast<const uint8_t*>(spef.Handle);
  auto name = [&](uint32_t category, uint32_t list, uint32_t n) {
    const char* slot =
        reinterpret_cast<const char*>(base + 14 * (((category * 64 + list) * 10) + n + 2));
    EXPECT_NE(std::memchr(slot, 0, 14), nullptr) << "slot without its terminating zero";
    return std::string(slot, strnlen(slot, 14));
  };
  struct Expected {
    uint32_t category, list;
    std::string display, firstParameter, categoryName;
  };
  const Expected effects[] = {
      {0, 0, "None", "", "Colour"},
      {0, 5, "Warm", "Cb shift+128", "Colour"},
      {1, 0, "Solarise", "Threshold", "Tone"},
      {1, 2, "High contrast", "Gain x64", "Tone"},
      {2, 1, "Sketch", "Gain", "Artistic"},
      {0, 6, "", "", ""},
      {99, 0, "", "", ""},
      {255, 255, "", "", ""},  // the very last slot
  };
  for (const Expected& e : effects) {
    EXPECT_EQ(std::tuple(name(e.category, e.list, 0), name(e.category, e.list, 1),
                         name(e.category, e.list, 9)),
              std::tuple(e.display, e.firstParameter, e.categoryName))
        << e.category << "/" << e.list;
  }
  EXPECT_EQ(spef.Record()->Category, 99u);
}

TEST(SpefLibrary, RecordComesFromItsOwnPoolTagAndGoesBackAtExit) {
  ASSERT_EQ(PoolLiveBlocks(SpefPoolTag), 0u);
  uint64_t handle = SPEF_Init(u"\\??\\C:\\Camera");
  ASSERT_NE(handle, 0u);
  EXPECT_EQ(PoolLiveBlocks(SpefPoolTag), 1u);
  EXPECT_GE(PoolLiveBytes(SpefPoolTag), sizeof(SpefRecord));
  SPEF_Exit(handle);
  EXPECT_EQ(PoolLiveBlocks(SpefPoolTag), 0u);
  // Released or null: a second Exit and calls through it touch nothing.
  for (uint64_t h : {handle, uint64_t{0}}) {
    std::vector<uint8_t> p(2 * 8, 77);
    SPEF_StartCapture(h, 8, 1);
    SPEF_PropertySet(h, 8, 1);
    SPEF_ConvertFrame(h, p.data(), 8, 1);
    SPEF_StopCapture(h);
    SPEF_Exit(h);
    EXPECT_EQ(p, std::vector<uint8_t>(2 * 8, 77)) << h;
  }
  PoolFailAllocation(1);
  handle = SPEF_Init(u"\\??\\C:\\Camera");
  PoolFailAllocation(0);
  EXPECT_EQ(handle, 0u);
  EXPECT_EQ(PoolLiveBlocks(SpefPoolTag), 0u);
}

// The vector rows give the bytes of the portable ones on every length,
// unaligned, ending at the allocation's end.
TEST(SpefRows, VectorRowsMatchPortableRows) {
#ifdef MR740_SPEF_HAVE_AVX2
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
  std::mt19937 random(kSeed);
  for (int pixels = 1; pixels <= 70; ++pixels) {
    SCOPED_TRACE(testing::Message() << pixels << " pixels, seed " << kSeed);
    std::vector<uint8_t> source(2 * pixels + 1);
    for (auto& b : source) b = static_cast<uint8_t>(random());
    std::vector<uint8_t> a = source, b = source;
    SpefNegativeRow_C(a.data() + 1, pixels), SpefNegativeRow_AVX2(b.data() + 1, pixels);
    EXPECT_EQ(a, b) << "negative";
    a = b = source;
    SpefConstantChromaRow_C(a.data() + 1, pixels, 108, 141);
    SpefConstantChromaRow_AVX2(b.data() + 1, pixels, 108, 141);
    EXPECT_EQ(a, b) << "constant chroma";
    // Luma rows with their margins, the first byte of the allocation being
    // the left margin of the row above and the last the right margin below.
    std::vector<uint8_t> luma(3 * (pixels + 2));
    uint8_t *above = luma.data() + 1, *row = above + pixels + 2, *below = row + pixels + 2;
    SpefLoadLumaRow_C(source.data() + 1, pixels, row);
    std::vector<uint8_t> loaded(row - 1, row + pixels + 1);
    SpefLoadLumaRow_AVX2(source.data() + 1, pixels, row);
    EXPECT_EQ(loaded, std::vector<uint8_t>(row - 1, row + pixels + 1)) << "luma load";
    for (uint8_t* r : {above, below}) {
      for (int x = -1; x <= pixels; ++x) r[x] = static_cast<uint8_t>(random());
    }
    for (int32_t gain : {1, 64}) {
      std::vector<uint8_t> c(2 * pixels), v(2 * pixels);
      SpefEmbossRow_C(above, row, below, c.data(), pixels, gain);
      SpefEmbossRow_AVX2(above, row, below, v.data(), pixels, gain);
      EXPECT_EQ(c, v) << "emboss, gain " << gain;
      SpefSketchRow_C(above, row, below, c.data(), pixels, gain);
      SpefSketchRow_AVX2(above, row, below, v.data(), pixels, gain);
      EXPECT_EQ(c, v) << "sketch, gain " << gain;
    }
  }
#else
  GTEST_SKIP() << "no vector rows on this processor";
#endif
}

}  // namespace
