// What the emulated sensor looks at: deterministic synthetic scenes a person
// can recognise, or a picture from a file, with the camera's own defects.
//
// A SceneSource is a FrameSource (emulated_camera.h): hand it to the camera
// with EmulatedCameraConfig::frameSource or EmulatedCamera::SetFrameSource.
// For every frame it
//   1. draws the scene in RGB at wire size, each wire pixel showing the point
//      of the sensor's array at its centre within the frame's field (mirror
//      and flip read the field right to left and bottom to top);
//   2. with a motor lens fitted, blurs it by the lens's distance from the
//      focus position (see FocusTarget);
//   3. brings it to the frame's light: level x lightScale256 / 256 (exposure
//      times gain), divided by the darkness, plus the brightness offset,
//      clamped to 0..255;
//   4. encodes it in the wire layout (wire_encode.h);
//   5. adds the defects of the streaming sensor that the driver repairs, and
//      the stuck samples of the dead pixels.
// Everything is integer arithmetic: the same request gives the same bytes on
// every machine. A source keeps no state from frame to frame beyond caches
// (the scaled picture file, the last picture before the light), so frames
// may be drawn in any order.
//
// Scenes (the array's size sets their geometry, so they look the same on
// every sensor):
//   ColourBars   eight 75 % colour bars over the top two thirds, growing
//                brighter from half level at the top down to full level, and
//                a grey ramp from 0 on the left to 255 on the right below.
//   MovingObject a square with an orange and navy checkerboard and a white
//                rim, a quarter of the array's height across, bouncing off
//                the array's edges over a graded backdrop.
//   Face         a skin-coloured oval, 2 wide to 3 high (0.30 x 0.45 of the
//                array's height), with dark hair, eyes and a red mouth, over
//                a blue-grey wall and dark blue shoulders; it sways from side
//                to side and bobs a little. The skin colour R 210, G 164,
//                B 140 gives Y 166, Cb 111, Cr 150: Cb below 128, Cr above,
//                and within the tolerance of the driver's first three skin
//                colours (Cb 108 / Cr 152 +-16, 102 / 162 +-12,
//                116 / 144 +-12). No other colour of the scene comes within
//                the tolerance of any of the four, so the oval is the only
//                skin blob.
//                Its shape holds a 2 : 3 window more than two thirds skin
//                that covers over 300 cells of the driver's 160 x 120 grid.
//   FocusTarget  a Siemens star of 48 black and white sectors (R = G = B =
//                0 and 255) on mid grey, its radius 0.45 of the array's
//                height, centred, so it fills the window where the driver
//                measures sharpness.
//   Image        a PNG or binary PPM (P6) file, stretched to the field: the
//                whole picture shows in every frame, by box averaging where
//                it shrinks and by repeating pixels where it grows.
//
// Lens blur (every scene; it is what the focus target is for): with a motor
// lens, each step of the lens away from the focus position adds
// blurPerStep16 sixteenths of a [1 2 1] / 4 pass to a blur applied along the
// lines and the columns, that is blurPerStep16 / 32 square wire pixels to the
// blur's variance (a radius of sqrt(d x blurPerStep16 / 32) pixels for d
// steps: 2 pixels at 32 steps with the default 4), up to 36 square pixels.
// Binomial passes, not a plain box: a box's contrast at a fixed detail size
// falls to zero and rises again as the box widens, which would give the
// sharpness measure false peaks; a [1 2 1] pass only ever lowers the contrast
// of every detail, so the driver's measure falls with the distance and is
// highest at the focus position. Without a lens there is no blur.
//
// Sensor defects (on when `sensorDefects` is set), in wire coordinates, after
// encoding; each is what one of the driver's repairs undoes:
//   - "MI2020" with a Bayer wire 800 or 1600 wide: the last four columns and
//     the last two lines carry no picture (bytes 0). The driver rebuilds the
//     last eight columns of each line from the first four of them, and the
//     last two lines from the four above.
//   - "OV2640" with a Bayer wire 1280 wide: the last three columns carry no
//     picture (bytes 0); the driver copies columns 1274 and 1275 over them.
//   - "OV7670" with a YUYV wire: the first line carries no picture (bytes 0,
//     a green line when shown); the driver copies the second line over it.
// "MI2021" has none of them.
//
// Dead pixels are stuck samples at wire positions (x, y), whatever mirror or
// flip: the Bayer byte, or the luma byte of a YUYV or 4:2:0 frame, always
// holds the stuck value, in the dark too; a position outside the frame is
// ignored. The driver takes a sample for dead when it differs by at least
// its threshold from the samples of its own colour two columns left and
// right and two lines up and down (in a YUYV frame the luma two pixels
// either side), and it looks only at columns 2 to width - 3 (an even column
// at most width - 4) and lines 2 to height - 3. So put each one there,
// with no other dead pixel of the same stuck value two columns or two lines
// away (they would hide each other), and stuck far from the scene around it:
// 255 on a dark part, 0 on a bright one. The focus target's grey corners and
// the colour bars' black bar suit both.
//
// Darkness divides the scene's light by `darkDivisor`, or takes all of it
// away with `lightsOff` (the picture is then at the brightness offset: Bayer
// 0, YUYV Y 16, Cb and Cr 128, with no offset), for the frames from
// `darkFromFrame` up to, not including, `darkUntilFrame`. The driver blanks
// pictures whose mean luma (YUY2) or mean byte (RGB24) is below its registry
// threshold.
//
// Text form (ParseSceneText), items separated by commas, no spaces:
//   bars | object | face | focus | image=PATH   the scene (default bars); a
//                          PATH cannot hold a comma
//   speed=N                motion in 1/640 of the array's width per frame,
//                          0..1000 (default 4; 0 stands still)
//   dead=X:Y:V             a dead pixel at wire column X, line Y, stuck at V
//                          (0..255); repeat the item for more
//   dark=N[@F[-T]]         light divided by N (1..256), from frame F (default
//                          0) up to frame T (excluded; default for ever)
//   dark=off[@F[-T]]       no light at all, for those frames
//   focus=P                the lens position where the picture is sharpest
//                          (default: the camera's lensFocusPosition)
//   blur=N                 blur a lens step in 1/16 of a [1 2 1] pass,
//                          0..256 (default 4; 0 keeps the picture sharp)
//   defects=on|off         the sensor defects above (default on)
//   button=F               press the button when frame F begins
//   button=F-T             press it at frame F and release it at frame T
//   orient=0|1             the orientation input (bit 4 of controller
//                          register 0)
// Example: "face,speed=6,dead=10:20:255,dark=8@48-96,button=30-40".
// The button and orientation items are inputs of the camera, not of the
// picture: ApplySceneInputs hands them to it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "emulator/emulated_camera.h"

enum class SceneKind : uint8_t { ColourBars, MovingObject, Face, FocusTarget, Image };

struct DeadPixel {
  uint32_t x = 0;  // wire column
  uint32_t y = 0;  // wire line
  uint8_t value = 255;
};

struct SceneButtonEvent {
  uint64_t frame = 0;  // as EmulatedCamera::ScheduleButton counts
  bool down = true;
};

struct SceneConfig {
  SceneKind kind = SceneKind::ColourBars;
  std::string imagePath;  // Image: a PNG or binary PPM (P6) file
  uint32_t speed = 4;     // 1/640 of the array's width per frame, at most 1000
  std::vector<DeadPixel> deadPixels;
  uint32_t darkDivisor = 1;  // 1 to 256
  bool lightsOff = false;
  uint64_t darkFromFrame = 0;
  uint64_t darkUntilFrame = UINT64_MAX;
  // Where the picture is sharpest; unset: the camera's lensFocusPosition.
  std::optional<int32_t> focusPosition;
  // Blur a lens step, in 1/16 of a [1 2 1] pass (see above), 0 to 256.
  uint32_t blurPerStep16 = 4;
  bool sensorDefects = true;
  // Camera inputs (ApplySceneInputs).
  std::vector<SceneButtonEvent> buttonEvents;
  std::optional<bool> orientationInput;
};

struct SceneImage {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgb;  // width x height x (R, G, B), lines without gaps
};

class SceneSource : public FrameSource {
 public:
  // Null, with a message in `error` (if given), when the configuration cannot
  // be used: a value out of range, or a picture file that is missing or not a
  // PNG or P6 PPM it can read. Loads the picture file at once.
  static std::shared_ptr<SceneSource> Make(const SceneConfig& config, std::string* error) noexcept;

  // Runs on the camera's stream with its mutex held (see FrameSource). Never
  // throws: if memory runs out the frame is left empty (the camera pads it
  // with zeros).
  void Render(const FrameRequest& request, std::vector<uint8_t>* wireBytes) override;

  const SceneConfig& Config() const { return config_; }

  // Public for std::make_shared; use Make.
  explicit SceneSource(const SceneConfig& config) : config_(config) {}

 private:
  void RenderUnchecked(const FrameRequest& request, std::vector<uint8_t>* wireBytes);
  void DrawImage(const FrameRequest& request, std::vector<uint8_t>* rgb);

  // What the picture before the light depends on.
  struct PictureKey {
    uint32_t width = 0, height = 0, arrayWidth = 0, arrayHeight = 0;
    uint32_t fieldLeft = 0, fieldTop = 0, fieldWidth = 0, fieldHeight = 0;
    bool mirror = false, flip = false;
    int64_t blurPasses16 = 0;
    uint64_t frame = 0;  // 0 for a scene that does not move
    bool operator==(const PictureKey& other) const;
  };

  SceneConfig config_;
  SceneImage image_;
  // One source may serve several cameras, so the caches have their own lock:
  // the picture file scaled to the last wire size, and the last picture
  // before the light (drawn and blurred), which a still scene and a still
  // lens use again.
  std::mutex cacheMutex_;
  uint32_t cachedWidth_ = 0;
  uint32_t cachedHeight_ = 0;
  std::vector<uint8_t> cachedRgb_;
  bool pictureCached_ = false;
  PictureKey pictureKey_;
  std::vector<uint8_t> picture_;
};

// The same as SceneSource::Make, as the camera's frame source type.
std::shared_ptr<FrameSource> MakeSceneSource(const SceneConfig& config,
                                             std::string* error) noexcept;

// Reads the text form above into `config`, starting from the defaults. False
// with a message naming the item when the text is not understood; `config`
// is then left as it was.
bool ParseSceneText(const std::string& text, SceneConfig* config, std::string* error) noexcept;

// Hands the button events and the orientation input of `config` to the
// camera: ScheduleButton for each event, SetOrientationInput if set.
void ApplySceneInputs(const SceneConfig& config, EmulatedCamera* camera) noexcept;

// Reads a PNG or a binary PPM (P6) file into `image`, by its first bytes.
// PNG: any colour type and depth, transparency laid on black. PPM: maxval 1
// to 65535, samples scaled to 0..255 (rounded). At most 16384 pixels a side
// and 32 Mi pixels. False with a message when the file is missing, cut short,
// or not one of these; `image` is then left as it was.
bool LoadSceneImage(const std::string& path, SceneImage* image, std::string* error) noexcept;
