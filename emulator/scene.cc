// The scenes in front of the emulated sensor: drawing in array coordinates,
// the lens blur, the light, the wire encoding, the sensor's defects and the
// dead pixels (what each does is told in scene.h).
//
// Array coordinates are kept in 1/16 of an array pixel, so a scene keeps its
// shape when the frame shows a small window of a large array or the whole
// array at a few pixels. Every length of a scene is a fraction of the array's
// height (or width, for motion), so each sensor sees the same picture.

#include "emulator/scene.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "emulator/wire_encode.h"

namespace {

struct Rgb {
  uint8_t r, g, b;
};

constexpr uint32_t kMaxArraySide = 16384;

// 72 [1 2 1] / 4 passes: a variance of 36 square pixels.
constexpr int64_t kMaxBlurPasses16 = 72 * 16;

// ---------------------------------------------------------------- geometry

// The array coordinate, in 1/16 pixel, of the centre of wire position `i` of
// `count`, for a field of `length` pixels from `start`. Reversed (mirror,
// flip), wire position i shows what position count - 1 - i shows unreversed.
int64_t ArrayCoordinate16(uint32_t i, uint32_t count, uint32_t start, uint32_t length,
                          bool reversed) {
  if (count == 0 || length == 0) return 16 * int64_t(start);
  if (reversed) i = count - 1 - i;
  return 16 * int64_t(start) + int64_t((uint64_t(2 * i + 1) * length * 8) / count);
}

// A position going back and forth over 0..travel by `step` a frame, starting
// at `phase` and moving up. Exact for any frame number: only the frame
// number's remainder by the period matters.
int64_t Bounce(uint64_t frame, int64_t step, int64_t travel, int64_t phase) {
  if (travel <= 0) return 0;
  const uint64_t period = 2 * uint64_t(travel);
  const uint64_t p =
      ((frame % period) * uint64_t(std::max<int64_t>(step, 0)) + uint64_t(phase)) % period;
  return int64_t(p <= uint64_t(travel) ? p : period - p);
}

// Whether (dx, dy) lies inside the ellipse of half axes a and b, all in
// 1/16 pixel. Past the bounding box no product is needed; inside it each
// term is at most a^2 b^2, which fits 64 bits for arrays up to 16384 high.
bool InEllipse(int64_t dx, int64_t dy, int64_t a, int64_t b) {
  if (a <= 0 || b <= 0 || dx < -a || dx > a || dy < -b || dy > b) return false;
  return dx * dx * b * b + dy * dy * a * a <= a * a * b * b;
}

Rgb Mix(Rgb a, Rgb b, int64_t t, int64_t span) {
  if (span <= 0) return a;
  t = std::clamp<int64_t>(t, 0, span);
  return Rgb{uint8_t((a.r * (span - t) + b.r * t) / span),
             uint8_t((a.g * (span - t) + b.g * t) / span),
             uint8_t((a.b * (span - t) + b.b * t) / span)};
}

// ---------------------------------------------------------------- scenes

struct SceneFrame {
  int64_t w16 = 16, h16 = 16;  // the array in 1/16 pixel
  uint64_t frame = 0;
  uint32_t speed = 0;
  // Horizontal motion a frame, in 1/16 pixel: speed / 640 of the width.
  int64_t Step16() const { return int64_t(speed) * w16 / 640; }
};

// Colour bars: 75 % bars, half level on the top line rising to full level
// where the bars end, over a grey ramp.
constexpr Rgb kBars75[8] = {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0},
                            {191, 0, 191},   {191, 0, 0},   {0, 0, 191},   {0, 0, 0}};

Rgb ColourBarsAt(const SceneFrame& s, int64_t u, int64_t v) {
  const int64_t barsEnd = s.h16 * 2 / 3;
  if (v < barsEnd) {
    const Rgb c = kBars75[std::clamp<int64_t>(u * 8 / s.w16, 0, 7)];
    const int64_t factor = 128 + 128 * v / std::max<int64_t>(barsEnd, 1);  // 1/256
    return Rgb{uint8_t(c.r * factor >> 8), uint8_t(c.g * factor >> 8), uint8_t(c.b * factor >> 8)};
  }
  const uint8_t grey = uint8_t(std::clamp<int64_t>(u * 256 / s.w16, 0, 255));
  return Rgb{grey, grey, grey};
}

// Moving object: a textured square bouncing diagonally.
struct MovingObjectPlace {
  int64_t left = 0, top = 0, side = 1, rim = 1;
};

MovingObjectPlace PlaceMovingObject(const SceneFrame& s) {
  MovingObjectPlace p;
  p.side = std::max<int64_t>(s.h16 / 4, 16);
  p.rim = std::max<int64_t>(p.side / 16, 1);
  const int64_t step = s.Step16();
  p.left = Bounce(s.frame, step, s.w16 - p.side, 0);
  p.top = Bounce(s.frame, step * 3 / 4, s.h16 - p.side, (s.h16 - p.side) / 3);
  return p;
}

constexpr Rgb kBackdropTop = {30, 60, 90};
constexpr Rgb kBackdropBottom = {60, 110, 120};
constexpr Rgb kOrange = {240, 140, 20};
constexpr Rgb kNavy = {20, 30, 90};
constexpr Rgb kRim = {240, 240, 240};

Rgb MovingObjectAt(const SceneFrame& s, const MovingObjectPlace& p, int64_t u, int64_t v) {
  const int64_t lx = u - p.left, ly = v - p.top;
  if (lx < 0 || ly < 0 || lx >= p.side || ly >= p.side) {
    return Mix(kBackdropTop, kBackdropBottom, v, s.h16);
  }
  if (lx < p.rim || ly < p.rim || lx >= p.side - p.rim || ly >= p.side - p.rim) return kRim;
  // An 8 x 8 checkerboard that moves with the square.
  return ((lx * 8 / p.side + ly * 8 / p.side) & 1) ? kNavy : kOrange;
}

// Face: a skin oval (2 : 3) with hair, eyes and mouth, over a wall and
// shoulders. Colours, with their wire chroma (Cb, Cr); the driver's skin
// colours all have Cb below 128 and Cr of 128 or more, within 8 to 16 of
// (108, 152), (102, 162), (116, 144) or (120, 136):
//   skin      210 164 140   (111, 150)  skin for the first three
//   hair       40  36  48   (133, 129)  Cb above 128: never skin
//   eyes       40  36  48
//   mouth     190  40  60   (114, 192)  too red for any of them
//   wall      100 120 150 .. 70 90 120  (144, 117)
//   shirt      30  50 110   (157, 115)
constexpr Rgb kSkin = {210, 164, 140};
constexpr Rgb kHair = {40, 36, 48};
constexpr Rgb kMouth = {190, 40, 60};
constexpr Rgb kWallTop = {100, 120, 150};
constexpr Rgb kWallBottom = {70, 90, 120};
constexpr Rgb kShirt = {30, 50, 110};

struct FacePlace {
  int64_t cx = 0, cy = 0, a = 1, b = 1;
};

FacePlace PlaceFace(const SceneFrame& s) {
  FacePlace f;
  f.a = std::max<int64_t>(s.h16 * 3 / 20, 16);  // half width 0.15 of the height
  f.b = f.a * 3 / 2;                            // half height 0.225
  const int64_t margin = f.a * 7 / 5;
  const int64_t step = s.Step16();
  // Sways over the width, starting in the middle; bobs over a tenth of the
  // height at a quarter of the speed.
  const int64_t travel = s.w16 - 2 * margin;
  f.cx = travel > 0 ? margin + Bounce(s.frame, step, travel, travel / 2) : s.w16 / 2;
  f.cy = s.h16 * 2 / 5 + Bounce(s.frame, step / 4, s.h16 / 10, s.h16 / 20);
  return f;
}

Rgb FaceAt(const SceneFrame& s, const FacePlace& f, int64_t u, int64_t v) {
  const int64_t dx = u - f.cx, dy = v - f.cy;
  if (InEllipse(dx, dy, f.a, f.b)) {
    if (dy < -f.b * 7 / 10) return kHair;  // the fringe
    const int64_t eyeDx = f.a * 2 / 5, eyeDy = -f.b / 5;
    if (InEllipse(std::abs(dx) - eyeDx, dy - eyeDy, f.a / 6, f.b / 12)) return kHair;
    if (InEllipse(dx, dy - f.b / 2, f.a * 2 / 5, f.b / 14)) return kMouth;
    return kSkin;
  }
  // Hair around the top half of the face.
  if (dy < f.b / 4 && InEllipse(dx, dy, f.a * 28 / 25, f.b * 28 / 25)) return kHair;
  // Shoulders, widening downwards from just below the chin.
  const int64_t shoulderTop = f.cy + f.b * 19 / 20;
  if (v >= shoulderTop && std::abs(dx) < 2 * f.a + (v - shoulderTop)) return kShirt;
  return Mix(kWallTop, kWallBottom, v, s.h16);
}

// Focus target: a Siemens star of 48 sectors. The sector of a point is found
// from the 24 sector edges of the upper half plane, at angles k x 180 / 24
// degrees, as integer unit vectors (cos, sin) x 16384, rounded:
//   cos(7.5) x 16384 = 16243.7 -> 16244, sin(7.5) x 16384 = 2138.5 -> 2139, ...
// A point of the lower half turns by 180 degrees into the upper one; that
// moves it by 24 sectors and keeps the colour, since 24 is even.
constexpr int32_t kStarEdges[24][2] = {
    {16384, 0},     {16244, 2139},  {15826, 4240},  {15137, 6270},   {14189, 8192},
    {12998, 9974},  {11585, 11585}, {9974, 12998},  {8192, 14189},   {6270, 15137},
    {4240, 15826},  {2139, 16244},  {0, 16384},     {-2139, 16244},  {-4240, 15826},
    {-6270, 15137}, {-8192, 14189}, {-9974, 12998}, {-11585, 11585}, {-12998, 9974},
    {-14189, 8192}, {-15137, 6270}, {-15826, 4240}, {-16244, 2139}};

constexpr Rgb kStarGrey = {128, 128, 128};
constexpr Rgb kStarBlack = {0, 0, 0};
constexpr Rgb kStarWhite = {255, 255, 255};

Rgb FocusTargetAt(const SceneFrame& s, int64_t u, int64_t v) {
  int64_t dx = u - s.w16 / 2, dy = v - s.h16 / 2;
  const int64_t radius = s.h16 * 9 / 20;
  if (dx * dx + dy * dy > radius * radius) return kStarGrey;
  if (dy < 0 || (dy == 0 && dx < 0)) {
    dx = -dx;
    dy = -dy;
  }
  // Edges at or before the point's angle: the point is on the left of them
  // (cross product >= 0). They come first in the table, so bisect.
  int lo = 0, hi = 24;
  while (lo < hi) {
    const int mid = (lo + hi) / 2;
    if (int64_t(kStarEdges[mid][0]) * dy - int64_t(kStarEdges[mid][1]) * dx >= 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  return (lo & 1) ? kStarWhite : kStarBlack;
}

void DrawSynthetic(const FrameRequest& r, const SceneConfig& config, uint8_t* rgb) {
  SceneFrame s;
  // Scenes are laid out for arrays of up to 16384 x 16384 (a larger one
  // shows the top-left part of that).
  s.w16 = 16 * int64_t(std::clamp<uint32_t>(r.arrayWidth, 1, kMaxArraySide));
  s.h16 = 16 * int64_t(std::clamp<uint32_t>(r.arrayHeight, 1, kMaxArraySide));
  s.frame = r.frameIndex;
  s.speed = config.speed;
  const MovingObjectPlace object = PlaceMovingObject(s);
  const FacePlace face = PlaceFace(s);

  std::vector<int64_t> columns(r.width);
  for (uint32_t x = 0; x < r.width; ++x) {
    columns[x] = ArrayCoordinate16(x, r.width, r.fieldLeft, r.fieldWidth, r.mirror);
  }
  for (uint32_t y = 0; y < r.height; ++y) {
    const int64_t v = ArrayCoordinate16(y, r.height, r.fieldTop, r.fieldHeight, r.flip);
    uint8_t* line = rgb + 3 * size_t(y) * r.width;
    for (uint32_t x = 0; x < r.width; ++x) {
      const int64_t u = columns[x];
      Rgb c{};
      switch (config.kind) {
        case SceneKind::MovingObject:
          c = MovingObjectAt(s, object, u, v);
          break;
        case SceneKind::Face:
          c = FaceAt(s, face, u, v);
          break;
        case SceneKind::FocusTarget:
          c = FocusTargetAt(s, u, v);
          break;
        default:
          c = ColourBarsAt(s, u, v);
          break;
      }
      line[3 * x] = c.r;
      line[3 * x + 1] = c.g;
      line[3 * x + 2] = c.b;
    }
  }
}

// ---------------------------------------------------------------- picture files

// `image` stretched to width x height: each output pixel is the rounded mean
// of the image pixels its area covers, at least one.
void ScaleImage(const SceneImage& image, uint32_t width, uint32_t height,
                std::vector<uint8_t>* out) {
  out->assign(3 * size_t(width) * height, 0);
  if (image.width == 0 || image.height == 0) return;
  std::vector<uint32_t> x0(width), x1(width);
  for (uint32_t x = 0; x < width; ++x) {
    x0[x] = uint32_t(uint64_t(x) * image.width / width);
    x1[x] = std::max<uint32_t>(uint32_t(uint64_t(x + 1) * image.width / width), x0[x] + 1);
  }
  for (uint32_t y = 0; y < height; ++y) {
    const uint32_t y0 = uint32_t(uint64_t(y) * image.height / height);
    const uint32_t y1 =
        std::max<uint32_t>(uint32_t(uint64_t(y + 1) * image.height / height), y0 + 1);
    uint8_t* line = out->data() + 3 * size_t(y) * width;
    for (uint32_t x = 0; x < width; ++x) {
      uint64_t sum[3] = {0, 0, 0};
      for (uint32_t sy = y0; sy < y1; ++sy) {
        const uint8_t* p = image.rgb.data() + 3 * (size_t(sy) * image.width + x0[x]);
        for (uint32_t sx = x0[x]; sx < x1[x]; ++sx, p += 3) {
          sum[0] += p[0];
          sum[1] += p[1];
          sum[2] += p[2];
        }
      }
      const uint64_t count = uint64_t(y1 - y0) * (x1[x] - x0[x]);
      for (int k = 0; k < 3; ++k) line[3 * x + k] = uint8_t((sum[k] + count / 2) / count);
    }
  }
}

// ---------------------------------------------------------------- lens blur

// The blur's kernel (one axis) for `passes16` sixteenths of a [1 2 1] / 4
// pass: the whole passes, then one pass of [a, 1 - 2a, a] with a = fraction
// / 4 (at a whole pass that is [1 2 1] / 4 again, so the kernel grows
// without jumps). Each such pass lowers the contrast of every spatial
// frequency by a factor between 0 and 1 that falls as it grows, so more blur
// never raises the contrast of any detail. The weights are built at 2^24 in
// integers (rounded at each pass), the tails below 2^-12 cut off, and brought
// to 2^16 in all for the picture.
std::vector<uint32_t> LensBlurKernel(int64_t passes16) {
  std::vector<uint64_t> w{uint64_t(1) << 24};
  auto convolve = [&](uint64_t side, uint64_t middle, int shift) {
    std::vector<uint64_t> next(w.size() + 2, 0);
    const uint64_t half = uint64_t(1) << (shift - 1);
    for (size_t j = 0; j < next.size(); ++j) {
      const uint64_t left = j >= 2 ? w[j - 2] : 0;
      const uint64_t centre = j >= 1 && j - 1 < w.size() ? w[j - 1] : 0;
      const uint64_t right = j < w.size() ? w[j] : 0;
      next[j] = (side * left + middle * centre + side * right + half) >> shift;
    }
    w.swap(next);
    // Cut the tails that no longer weigh anything.
    size_t cut = 0;
    while (2 * cut + 1 < w.size() && w[cut] < (uint64_t(1) << 12)) ++cut;
    if (cut > 0) w = std::vector<uint64_t>(w.begin() + cut, w.end() - cut);
  };
  for (int64_t k = 0; k < passes16 / 16; ++k) convolve(1, 2, 2);
  const uint64_t fraction = uint64_t(passes16 % 16);
  if (fraction > 0) convolve(fraction, 64 - 2 * fraction, 6);
  // To 2^16 in all: the middle weight takes what rounding the others left.
  std::vector<uint32_t> kernel(w.size());
  uint64_t total = 0;
  for (size_t j = 0; j < w.size(); ++j) total += w[j];
  uint32_t others = 0;
  for (size_t j = 0; j < w.size(); ++j) {
    kernel[j] = uint32_t((w[j] * 65536 + total / 2) / total);
    if (j != w.size() / 2) others += kernel[j];
  }
  kernel[w.size() / 2] = 65536 - others;
  return kernel;
}

// The kernel along the lines, then along the columns, of an RGB picture, in
// place; beyond the edges the end pixels repeat. Rounded to the nearest
// level. The kernel is symmetric, so each pair of taps at the same distance
// takes one product, and the columns are done a whole line at a time; this
// keeps a blurred VGA frame within a few times the cost of drawing it even
// in a debug build with sanitizers.
void BlurPicture(uint8_t* rgb, uint32_t width, uint32_t height,
                 const std::vector<uint32_t>& kernel) {
  const size_t reach = kernel.size() / 2;
  const uint32_t* half = kernel.data() + reach;  // half[0] the middle, half[t] at distance t
  if (width == 0 || height == 0) return;
  const size_t w = width, h = height, line = 3 * w;
  std::vector<uint8_t> across(line * h);
  std::vector<uint32_t> sums(line);  // each at most 255 x 2^16
  auto store = [&](uint8_t* out) {
    for (size_t i = 0; i < line; ++i) out[i] = uint8_t((sums[i] + 32768) >> 16);
  };

  // Along the lines, into `across`.
  std::vector<uint8_t> padded(line + 6 * reach);
  for (size_t y = 0; y < h; ++y) {
    const uint8_t* src = rgb + y * line;
    for (size_t i = 0; i < reach; ++i) {
      std::memcpy(&padded[3 * i], src, 3);
      std::memcpy(&padded[3 * (reach + w + i)], src + line - 3, 3);
    }
    std::memcpy(&padded[3 * reach], src, line);
    const uint8_t* p = padded.data() + 3 * reach;
    uint32_t* acc = sums.data();
    for (size_t i = 0; i < line; ++i) acc[i] = half[0] * p[i];
    for (size_t t = 1; t <= reach; ++t) {
      const uint8_t* left = p - 3 * t;
      const uint8_t* right = p + 3 * t;
      const uint32_t k = half[t];
      for (size_t i = 0; i < line; ++i) acc[i] += k * (left[i] + right[i]);
    }
    store(across.data() + y * line);
  }

  // Along the columns, a line of sums at a time, back into `rgb`.
  for (size_t y = 0; y < h; ++y) {
    const uint8_t* middle = across.data() + y * line;
    uint32_t* acc = sums.data();
    for (size_t i = 0; i < line; ++i) acc[i] = half[0] * middle[i];
    for (size_t t = 1; t <= reach; ++t) {
      const uint8_t* up = across.data() + (y >= t ? y - t : 0) * line;
      const uint8_t* down = across.data() + std::min(y + t, h - 1) * line;
      const uint32_t k = half[t];
      for (size_t i = 0; i < line; ++i) acc[i] += k * (up[i] + down[i]);
    }
    store(rgb + y * line);
  }
}

// ---------------------------------------------------------------- defects

void AddSensorDefects(const FrameRequest& r, std::vector<uint8_t>* wire) {
  const char* name = r.sensorName ? r.sensorName : "";
  const size_t w = r.width, h = r.height;
  uint8_t* p = wire->data();
  if (std::strcmp(name, "MI2020") == 0 && r.layout == WireFrameLayout::Bayer &&
      (w == 800 || w == 1600)) {
    for (size_t y = 0; y < h; ++y) std::memset(p + y * w + w - 4, 0, 4);
    if (h >= 2) std::memset(p + (h - 2) * w, 0, 2 * w);
  } else if (std::strcmp(name, "OV2640") == 0 && r.layout == WireFrameLayout::Bayer && w == 1280) {
    for (size_t y = 0; y < h; ++y) std::memset(p + y * w + w - 3, 0, 3);
  } else if (std::strcmp(name, "OV7670") == 0 && r.layout == WireFrameLayout::Yuyv && h > 0) {
    std::memset(p, 0, 2 * w);
  }
}

}  // namespace

// ---------------------------------------------------------------- the source

std::shared_ptr<SceneSource> SceneSource::Make(const SceneConfig& config,
                                               std::string* error) noexcept {
  auto fail = [&](const std::string& message) -> std::shared_ptr<SceneSource> {
    try {
      if (error) *error = "scene: " + message;
    } catch (...) {
    }
    return nullptr;
  };
  try {
    if (config.speed > 1000) return fail("speed above 1000");
    if (config.darkDivisor < 1 || config.darkDivisor > 256) {
      return fail("darkness divisor outside 1..256");
    }
    if (config.darkFromFrame >= config.darkUntilFrame) {
      return fail("darkness ends before it begins");
    }
    if (config.blurPerStep16 > 256) return fail("blur per lens step above 256");
    auto source = std::make_shared<SceneSource>(config);
    if (config.kind == SceneKind::Image) {
      if (config.imagePath.empty()) return fail("no picture file named");
      std::string message;
      if (!LoadSceneImage(config.imagePath, &source->image_, &message)) return fail(message);
    }
    return source;
  } catch (...) {
    return fail("out of memory");
  }
}

std::shared_ptr<FrameSource> MakeSceneSource(const SceneConfig& config,
                                             std::string* error) noexcept {
  return SceneSource::Make(config, error);
}

void SceneSource::Render(const FrameRequest& request, std::vector<uint8_t>* wireBytes) {
  try {
    RenderUnchecked(request, wireBytes);
  } catch (...) {
    wireBytes->clear();
  }
}

// Called with cacheMutex_ held.
void SceneSource::DrawImage(const FrameRequest& r, std::vector<uint8_t>* rgb) {
  if (cachedWidth_ != r.width || cachedHeight_ != r.height || cachedRgb_.empty()) {
    cachedRgb_.clear();
    ScaleImage(image_, r.width, r.height, &cachedRgb_);
    cachedWidth_ = r.width;
    cachedHeight_ = r.height;
  }
  // The picture lies on the field as it is seen unmirrored.
  const size_t w = r.width;
  for (uint32_t y = 0; y < r.height; ++y) {
    const uint32_t sy = r.flip ? r.height - 1 - y : y;
    const uint8_t* from = cachedRgb_.data() + 3 * size_t(sy) * w;
    uint8_t* to = rgb->data() + 3 * size_t(y) * w;
    if (!r.mirror) {
      std::memcpy(to, from, 3 * w);
      continue;
    }
    for (size_t x = 0; x < w; ++x) std::memcpy(to + 3 * x, from + 3 * (w - 1 - x), 3);
  }
}

bool SceneSource::PictureKey::operator==(const PictureKey& o) const {
  return width == o.width && height == o.height && arrayWidth == o.arrayWidth &&
         arrayHeight == o.arrayHeight && fieldLeft == o.fieldLeft && fieldTop == o.fieldTop &&
         fieldWidth == o.fieldWidth && fieldHeight == o.fieldHeight && mirror == o.mirror &&
         flip == o.flip && blurPasses16 == o.blurPasses16 && frame == o.frame;
}

void SceneSource::RenderUnchecked(const FrameRequest& r, std::vector<uint8_t>* wire) {
  if (WireFrameBytes(r.width, r.height, r.layout) == 0) {
    wire->clear();
    return;
  }
  PictureKey key;
  key.width = r.width;
  key.height = r.height;
  key.arrayWidth = r.arrayWidth;
  key.arrayHeight = r.arrayHeight;
  key.fieldLeft = r.fieldLeft;
  key.fieldTop = r.fieldTop;
  key.fieldWidth = r.fieldWidth;
  key.fieldHeight = r.fieldHeight;
  key.mirror = r.mirror;
  key.flip = r.flip;
  if (r.lensFitted && config_.blurPerStep16 > 0) {
    const int64_t focus = config_.focusPosition ? *config_.focusPosition : r.lensFocusPosition;
    const int64_t distance = std::abs(int64_t(r.lensPosition) - focus);
    // Beyond a variance of 36 (6 pixels) no edge keeps a step of more than
    // 16 levels between neighbours, which is all the driver's sharpness
    // measure sees; more blur would only cost time.
    key.blurPasses16 = std::min<int64_t>(distance * config_.blurPerStep16, kMaxBlurPasses16);
  }
  const bool moving =
      (config_.kind == SceneKind::MovingObject || config_.kind == SceneKind::Face) &&
      config_.speed > 0;
  key.frame = moving ? r.frameIndex : 0;

  std::vector<uint8_t> rgb;
  {
    // The picture before the light: drawn and blurred only when the scene,
    // the field or the lens changed since the last frame.
    std::lock_guard<std::mutex> hold(cacheMutex_);
    if (!pictureCached_ || !(key == pictureKey_)) {
      pictureCached_ = false;
      picture_.assign(3 * size_t(r.width) * r.height, 0);
      if (config_.kind == SceneKind::Image) {
        DrawImage(r, &picture_);
      } else {
        DrawSynthetic(r, config_, picture_.data());
      }
      if (key.blurPasses16 > 0) {
        BlurPicture(picture_.data(), r.width, r.height, LensBlurKernel(key.blurPasses16));
      }
      pictureKey_ = key;
      pictureCached_ = true;
    }
    rgb = picture_;
  }

  // Light: exposure x gain, darkness, brightness offset; one table a frame.
  const bool dark = r.frameIndex >= config_.darkFromFrame && r.frameIndex < config_.darkUntilFrame;
  const int64_t divisor = 256 * int64_t(dark ? config_.darkDivisor : 1);
  const bool noLight = dark && config_.lightsOff;
  uint8_t levels[256];
  for (int v = 0; v < 256; ++v) {
    const int64_t lit = noLight ? 0 : int64_t(v) * r.lightScale256 / divisor;
    levels[v] = uint8_t(std::clamp<int64_t>(lit + r.brightness, 0, 255));
  }
  for (uint8_t& c : rgb) c = levels[c];

  emu::EncodeWireFrame(rgb.data(), r.width, r.height, r.layout, wire);
  if (config_.sensorDefects) AddSensorDefects(r, wire);
  for (const DeadPixel& d : config_.deadPixels) {
    const size_t at = emu::WirePixelOffset(r.width, r.height, r.layout, d.x, d.y);
    if (at < wire->size()) (*wire)[at] = d.value;
  }
}

void ApplySceneInputs(const SceneConfig& config, EmulatedCamera* camera) noexcept {
  if (camera == nullptr) return;
  for (const SceneButtonEvent& e : config.buttonEvents) camera->ScheduleButton(e.frame, e.down);
  if (config.orientationInput) camera->SetOrientationInput(*config.orientationInput);
}
