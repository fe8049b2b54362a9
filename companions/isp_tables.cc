// The image processor's tables: property clamping, the integer sine table,
// colour temperature to channel gains, the gamma curve, the luma table and
// the colour matrix. All are built off the per-pixel path, only when a value
// they depend on changes (ISPFunc_RawToImg keeps them in the state). Integer
// only; fixed-point constants show their derivation.
#include <cstdint>

#include "companions/isp_library.h"

namespace {

int32_t Clamp(int32_t value, int32_t low, int32_t high) {
  return value < low ? low : (value > high ? high : value);
}

int64_t Clamp64(int64_t value, int64_t low, int64_t high) {
  return value < low ? low : (value > high ? high : value);
}

// Round-half-up division of a signed 64-bit value by 2^shift.
int64_t RoundShift(int64_t value, int shift) {
  return (value + (int64_t{1} << (shift - 1))) >> shift;
}

// round(16384 * sin(d degrees)) for d = 0..90.
const int16_t SineQ14[91] = {
    0,     286,   572,   857,   1143,  1428,  1713,  1997,  2280,  2563,  2845,  3126,  3406,
    3686,  3964,  4240,  4516,  4790,  5063,  5334,  5604,  5872,  6138,  6402,  6664,  6924,
    7182,  7438,  7692,  7943,  8192,  8438,  8682,  8923,  9162,  9397,  9630,  9860,  10087,
    10311, 10531, 10749, 10963, 11174, 11381, 11585, 11786, 11982, 12176, 12365, 12551, 12733,
    12911, 13085, 13255, 13421, 13583, 13741, 13894, 14044, 14189, 14330, 14466, 14598, 14726,
    14849, 14968, 15082, 15191, 15296, 15396, 15491, 15582, 15668, 15749, 15826, 15897, 15964,
    16026, 16083, 16135, 16182, 16225, 16262, 16294, 16322, 16344, 16362, 16374, 16382, 16384};

// White balance by colour temperature, every 500 K from 2500 K to 10000 K.
// Derivation: the chromaticity (x, y) of a black body at T from the cubic
// fits of the Planckian locus (Kim et al.), XYZ with Y = 1, linear sRGB by
// the sRGB matrix, then gain = (channel / green at 6500 K) / (channel / green
// at T), times 4096. A warm light thus gets red below 1.0 and blue above.
// E.g. 3000 K: red/green 1.972 and blue/green 0.3065 of 6500 K's, so red gain
// 4096 / 1.972 = 2077 and blue gain 4096 / 0.3065 = 13363.
struct KelvinGains {
  int32_t Kelvin;
  int32_t Red;
  int32_t Blue;
};
const KelvinGains KelvinTable[] = {
    {2500, 1623, 23602}, {3000, 2077, 13363}, {3500, 2478, 9498}, {4000, 2835, 7464},
    {4500, 3157, 6238},  {5000, 3440, 5427},  {5500, 3688, 4852}, {6000, 3905, 4425},
    {6500, 4096, 4096},  {7000, 4264, 3836},  {7500, 4412, 3627}, {8000, 4544, 3455},
    {8500, 4662, 3311},  {9000, 4767, 3189},  {9500, 4862, 3085}, {10000, 4948, 2996},
};
constexpr int32_t KelvinStep = 500;
constexpr int32_t KelvinRows = sizeof(KelvinTable) / sizeof(KelvinTable[0]);

// BT.601 studio range from full-range RGB, Q16: Y = 219/255 of (0.299,
// 0.587, 0.114), Cb and Cr = 224/255 of the colour-difference weights, e.g.
// 0.299 * 219 / 255 * 65536 = 16829.0 -> 16829. Each chroma row sums to 0 so
// that grey gives 128 exactly (-0.290993 * 65536 = -19070.5 -> -19070).
const int64_t RgbToYcc[3][3] = {
    {16829, 33039, 6416},
    {-9714, -19070, 28784},
    {28784, -24103, -4681},
};
// Its inverse, Q16, from studio (Y - 16, Cb - 128, Cr - 128) to full RGB:
// 255 / 219 = 1.164384 -> 76309; 1.596027 -> 104597; -0.391762 -> -25675;
// -0.812968 -> -53279; 2.017232 -> 132201.
const int64_t YccToRgb[3][3] = {
    {76309, 0, 104597},
    {76309, -25675, -53279},
    {76309, 132201, 0},
};

// log2(x) in Q16 for x >= 1, by normalising into [1, 2) and squaring out
// one fraction bit at a time.
int64_t Log2Q16(uint32_t x) {
  int32_t whole = 31 - __builtin_clz(x);
  uint64_t m = (uint64_t{x} << 30) >> whole;  // Q30 in [1, 2)
  int64_t result = int64_t{whole} << 16;
  for (int bit = 15; bit >= 0; --bit) {
    m = (m * m) >> 30;
    if (m >= (uint64_t{2} << 30)) {
      m >>= 1;
      result |= int64_t{1} << bit;
    }
  }
  return result;
}

// 2^(-2^-i) in Q30 for i = 1..16: round(2^30 * 2^(-2^-i)), e.g.
// i = 1: 2^30 / sqrt(2) = 759250124.99 -> 759250125.
const uint32_t HalvingPowersQ30[16] = {
    759250125,  902905651,  984625594,  1028218693, 1050733751, 1062175491, 1067942999, 1070838486,
    1072289173, 1073015252, 1073378477, 1073560135, 1073650976, 1073696399, 1073719111, 1073730468};

// 2^(-a) in Q30 for a >= 0 in Q16.
uint64_t Exp2NegQ30(int64_t a) {
  int64_t whole = a >> 16;
  if (whole >= 30) return 0;
  uint64_t result = uint64_t{1} << 30;
  for (int i = 0; i < 16; ++i) {
    if (a & (int64_t{1} << (15 - i))) result = (result * HalvingPowersQ30[i]) >> 30;
  }
  return result >> whole;
}

}  // namespace

void IspClampSettings(const uint32_t* record, IspSettings* s) {
  uint32_t v[IspPropertyCount] = {};
  if (record != nullptr) {
    for (uint32_t i = 0; i < IspPropertyCount; ++i) v[i] = record[i];
  }
  // Brightness and Hue are signed values carried in u32.
  s->Brightness = Clamp(static_cast<int32_t>(v[IspBrightness]), -128, 127);
  s->Contrast = v[IspContrast] == 0
                    ? IspNeutralContrast
                    : static_cast<int32_t>(v[IspContrast] > 255 ? 255 : v[IspContrast]);
  s->Saturation = v[IspSaturation] == 0
                      ? IspNeutralSaturation
                      : static_cast<int32_t>(v[IspSaturation] > 255 ? 255 : v[IspSaturation]);
  s->Sharpness = static_cast<int32_t>(v[IspSharpness] > 15 ? 15 : v[IspSharpness]);
  uint32_t kelvin = v[IspWhiteBalance];
  s->Kelvin = kelvin == 0 ? 0 : (kelvin < 2500 ? 2500 : (kelvin > 10000 ? 10000 : kelvin));
  s->Hue = Clamp(static_cast<int32_t>(v[IspHue]), -180, 180);
  uint32_t gamma = v[IspGamma];
  s->Gamma = gamma == 0 ? IspNeutralGamma
                        : static_cast<int32_t>(gamma < 50 ? 50 : (gamma > 300 ? 300 : gamma));
  s->BackLight = static_cast<int32_t>(v[IspBackLight] > 2 ? 2 : v[IspBackLight]);
  s->ColorEnable = v[IspColorEnable] != 0 ? 1 : 0;
}

int32_t IspSinQ14(int32_t degrees) {
  int32_t d = degrees % 360;
  if (d < 0) d += 360;
  if (d <= 90) return SineQ14[d];
  if (d <= 180) return SineQ14[180 - d];
  if (d <= 270) return -SineQ14[d - 180];
  return -SineQ14[360 - d];
}

int32_t IspCosQ14(int32_t degrees) { return IspSinQ14(degrees + 90); }

void IspKelvinToGains(int32_t kelvin, int32_t* redGain, int32_t* blueGain) {
  int32_t k = Clamp(kelvin, KelvinTable[0].Kelvin, KelvinTable[KelvinRows - 1].Kelvin);
  int32_t row = (k - KelvinTable[0].Kelvin) / KelvinStep;
  if (row >= KelvinRows - 1) {
    *redGain = KelvinTable[KelvinRows - 1].Red;
    *blueGain = KelvinTable[KelvinRows - 1].Blue;
    return;
  }
  // Straight line between the two neighbouring rows.
  int32_t into = k - KelvinTable[row].Kelvin;
  const KelvinGains& a = KelvinTable[row];
  const KelvinGains& b = KelvinTable[row + 1];
  *redGain = a.Red + (b.Red - a.Red) * into / KelvinStep;
  *blueGain = a.Blue + (b.Blue - a.Blue) * into / KelvinStep;
}

void IspBuildGammaCurve(int32_t gamma, uint8_t curve[256]) {
  int32_t g = Clamp(gamma, 50, 300);
  int64_t log255 = Log2Q16(255);
  curve[0] = 0;
  for (uint32_t t = 1; t < 256; ++t) {
    // log2(t / 255) scaled by 1 / gamma, then back: 255 * 2^(that).
    int64_t exponent = (log255 - Log2Q16(t)) * 100 / g;  // >= 0: the power of 1/2
    uint64_t value = (255 * Exp2NegQ30(exponent) + (uint64_t{1} << 29)) >> 30;
    curve[t] = static_cast<uint8_t>(value > 255 ? 255 : value);
  }
}

bool IspBuildLumaTable(const IspSettings* s, const uint8_t gammaCurve[256], uint8_t table[256]) {
  // Mid grey of the studio range, about which contrast turns: (16 + 235 + 1) / 2.
  constexpr int32_t MidGrey = 126;
  bool tone = s->BackLight != 0 || s->Gamma != IspNeutralGamma;
  for (int32_t y = 0; y < 256; ++y) {
    int32_t v = y;
    if (tone) {
      // Studio luma to 0..255 (255 / 219, rounded), where the curves live.
      int32_t t = y <= 16 ? 0 : Clamp(((y - 16) * 255 + 109) / 219, 0, 255);
      if (s->BackLight != 0) {
        // Shadow lift: t + a t (255 - t)^2 / 255^2 with a = 3/4 per step. It
        // is largest at t = 85 (+28 for 1, +57 for 2), leaves black and white
        // where they are, and stays rising since a <= 1.5 < 3.
        int64_t lift = int64_t{3} * s->BackLight * t * (255 - t) * (255 - t) / (4 * 65025);
        t = Clamp(t + static_cast<int32_t>(lift), 0, 255);
      }
      if (s->Gamma != IspNeutralGamma) t = gammaCurve[t];
      v = 16 + (t * 219 + 127) / 255;
    }
    // Contrast: gain Contrast / 64 about mid grey, rounded (floor of + 1/2).
    v = MidGrey + (((v - MidGrey) * s->Contrast + 32) >> 6);
    v += s->Brightness;
    table[y] = static_cast<uint8_t>(Clamp(v, 16, 235));
  }
  return !tone && s->Contrast == IspNeutralContrast && s->Brightness == 0;
}

void IspBuildRowCoefficients(uint8_t layout, int32_t redGain, int32_t blueGain,
                             const IspSettings* s, IspRowCoefficients* k) {
  // Chroma mixing, Q14 x Q6: rotate (Cb, Cr) by the hue angle, scale by
  // Saturation / 64, or drop it for monochrome.
  int64_t cosine = IspCosQ14(s->Hue);
  int64_t sine = IspSinQ14(s->Hue);
  int64_t gain = s->ColorEnable ? s->Saturation : 0;
  // mix[i][j] in Q20 (Q14 angle x Q6 saturation).
  int64_t mix[2][2] = {{cosine * gain, -sine * gain}, {sine * gain, cosine * gain}};

  // The full matrix in Q16: luma row, then the mixed chroma rows, acting on
  // white-balanced RGB.
  int64_t rgb[3][3];
  for (int j = 0; j < 3; ++j) {
    rgb[0][j] = RgbToYcc[0][j];
    rgb[1][j] = RoundShift(mix[0][0] * RgbToYcc[1][j] + mix[0][1] * RgbToYcc[2][j], 20);
    rgb[2][j] = RoundShift(mix[1][0] * RgbToYcc[1][j] + mix[1][1] * RgbToYcc[2][j], 20);
  }
  const int64_t gains[3] = {redGain, IspUnityGain, blueGain};
  int64_t m[3][3];  // Q12, applied to the source channels
  if (layout == IspWireLayoutYuyv) {
    bool unity = redGain == IspUnityGain && blueGain == IspUnityGain;
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j) {
        if (unity) {
          // No white balance: luma passes untouched and chroma is only mixed,
          // so neutral settings give back the wire's own bytes.
          if (i == 0) {
            m[i][j] = j == 0 ? IspUnityGain : 0;
          } else {
            m[i][j] = j == 0 ? 0 : RoundShift(mix[i - 1][j - 1], 8);
          }
          continue;
        }
        // YCbCr -> RGB, gains, -> mixed YCbCr: sum over c of
        // rgb[i][c] * gain[c] * YccToRgb[c][j], Q16 x Q12 x Q16 -> Q12.
        int64_t sum = 0;
        for (int c = 0; c < 3; ++c) sum += rgb[i][c] * gains[c] * YccToRgb[c][j];
        m[i][j] = RoundShift(sum, 32);
      }
    }
  } else {
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j)
        m[i][j] = RoundShift(rgb[i][j] * gains[j], 16);  // Q16 x Q12 -> Q12
    }
  }
  int16_t* rows[3] = {k->Y, k->Cb, k->Cr};
  for (int i = 0; i < 3; ++i) {
    // Extreme gains times full saturation can leave the range: luma
    // saturates at 8.0, chroma at 4.0 (the fused rows' 16-bit sums).
    int64_t limit = i == 0 ? 32767 : 16383;
    for (int j = 0; j < 3; ++j) rows[i][j] = static_cast<int16_t>(Clamp64(m[i][j], -limit, limit));
  }
  // Biases: the source offsets (none for RGB; 16, 128, 128 for YCbCr), the
  // output offset and the rounding half of the final shift.
  int32_t inOffset[3] = {0, 0, 0};
  if (layout == IspWireLayoutYuyv) {
    inOffset[0] = 16;
    inOffset[1] = 128;
    inOffset[2] = 128;
  }
  int32_t offsetY = 0, offsetCb = 0, offsetCr = 0;
  for (int j = 0; j < 3; ++j) {
    offsetY += k->Y[j] * inOffset[j];
    offsetCb += k->Cb[j] * inOffset[j];
    offsetCr += k->Cr[j] * inOffset[j];
  }
  k->YBias = (16 << 12) - offsetY + (1 << 11);
  // Chroma is worked out on the sum of a pixel pair: twice the offsets, one
  // more bit of shift.
  k->CbBias = (128 << 13) - 2 * offsetCb + (1 << 12);
  k->CrBias = (128 << 13) - 2 * offsetCr + (1 << 12);
  // The same in Q4 for the fused Bayer rows (RGB source, no input offsets):
  // 16 x 16 + 8 and 128 x 16 + 8.
  k->YBias16 = (16 << 4) + 8;
  k->CbBias16 = (128 << 4) + 8;
  k->CrBias16 = (128 << 4) + 8;
  k->YMin = 16;
  k->YMax = 235;
}

void IspGreyWorldGains(const IspFrameStatistics* statistics, uint8_t layout, int32_t* redGain,
                       int32_t* blueGain, uint32_t* meanLuma) {
  *redGain = IspUnityGain;
  *blueGain = IspUnityGain;
  *meanLuma = 16;
  uint64_t n = statistics->Samples;
  if (n == 0) return;
  // Channel means in Q8 (value x 256).
  int64_t red, green, blue;
  if (layout == IspWireLayoutYuyv) {
    int64_t y = static_cast<int64_t>((statistics->Sum[0] << 8) / (2 * n)) - (16 << 8);
    int64_t cb = static_cast<int64_t>((statistics->Sum[1] << 8) / n) - (128 << 8);
    int64_t cr = static_cast<int64_t>((statistics->Sum[2] << 8) / n) - (128 << 8);
    int64_t ycc[3] = {y, cb, cr};
    int64_t rgb[3];
    for (int i = 0; i < 3; ++i) {
      int64_t sum = 0;
      for (int j = 0; j < 3; ++j) sum += YccToRgb[i][j] * ycc[j];
      rgb[i] = RoundShift(sum, 16);
      if (rgb[i] < 0) rgb[i] = 0;
    }
    red = rgb[0];
    green = rgb[1];
    blue = rgb[2];
    *meanLuma =
        static_cast<uint32_t>(Clamp(static_cast<int32_t>((y + (16 << 8) + 128) >> 8), 0, 255));
  } else {
    red = static_cast<int64_t>((statistics->Sum[0] << 8) / n);
    green = static_cast<int64_t>((statistics->Sum[1] << 8) / (2 * n));
    blue = static_cast<int64_t>((statistics->Sum[2] << 8) / n);
    int64_t luma = (RgbToYcc[0][0] * red + RgbToYcc[0][1] * green + RgbToYcc[0][2] * blue) >> 16;
    *meanLuma = static_cast<uint32_t>(16 + ((luma + 128) >> 8));
  }
  if (green < (8 << 8)) return;
  // Gain = mean green / mean of the channel, Q12; a channel with nothing in
  // it gets the largest gain.
  *redGain =
      red == 0 ? IspAutoGainMax
               : static_cast<int32_t>(Clamp64((green << 12) / red, IspAutoGainMin, IspAutoGainMax));
  *blueGain =
      blue == 0
          ? IspAutoGainMax
          : static_cast<int32_t>(Clamp64((green << 12) / blue, IspAutoGainMin, IspAutoGainMax));
}
