// The scene's short text form for command lines (the grammar is in scene.h):
// comma-separated items, a scene word or key=value.

#include <charconv>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "emulator/scene.h"

namespace {

// A whole decimal number within [low, high]; no sign for unsigned kinds.
template <typename T>
bool ParseNumber(std::string_view text, T low, T high, T* value) {
  if (text.empty()) return false;
  T v{};
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size()) return false;
  if (v < low || v > high) return false;
  *value = v;
  return true;
}

// "F" or "F-T": a frame, or a range of frames with T after F.
bool ParseFrameRange(std::string_view text, uint64_t* from, std::optional<uint64_t>* until) {
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) {
    until->reset();
    return ParseNumber<uint64_t>(text, 0, UINT64_MAX - 1, from);
  }
  uint64_t to = 0;
  if (!ParseNumber<uint64_t>(text.substr(0, dash), 0, UINT64_MAX - 1, from) ||
      !ParseNumber<uint64_t>(text.substr(dash + 1), 0, UINT64_MAX, &to) || to <= *from) {
    return false;
  }
  *until = to;
  return true;
}

bool ParseSwitch(std::string_view text, bool* on) {
  if (text == "on" || text == "1") {
    *on = true;
    return true;
  }
  if (text == "off" || text == "0") {
    *on = false;
    return true;
  }
  return false;
}

struct SceneWord {
  std::string_view word;
  SceneKind kind;
};

constexpr SceneWord kSceneWords[] = {{"bars", SceneKind::ColourBars},
                                     {"object", SceneKind::MovingObject},
                                     {"face", SceneKind::Face},
                                     {"focus", SceneKind::FocusTarget}};

// One item into `c`; false with the reason in `why`.
bool ParseItem(std::string_view item, SceneConfig* c, bool* sceneSeen, std::string* why) {
  const size_t eq = item.find('=');
  const std::string_view key = item.substr(0, eq);
  const std::string_view value =
      eq == std::string_view::npos ? std::string_view() : item.substr(eq + 1);
  const bool hasValue = eq != std::string_view::npos;

  for (const SceneWord& w : kSceneWords) {
    if (key != w.word) continue;
    if (hasValue && key == "focus") break;  // focus=P is the lens item
    if (hasValue) {
      *why = "a scene word takes no value";
      return false;
    }
    if (*sceneSeen) {
      *why = "a second scene";
      return false;
    }
    *sceneSeen = true;
    c->kind = w.kind;
    return true;
  }
  if (!hasValue) {
    *why = "unknown item";
    return false;
  }

  if (key == "image") {
    if (*sceneSeen) {
      *why = "a second scene";
      return false;
    }
    if (value.empty()) {
      *why = "no file named";
      return false;
    }
    *sceneSeen = true;
    c->kind = SceneKind::Image;
    c->imagePath = std::string(value);
    return true;
  }
  if (key == "speed") {
    if (ParseNumber<uint32_t>(value, 0, 1000, &c->speed)) return true;
    *why = "speed is a whole number 0..1000";
    return false;
  }
  if (key == "dead") {
    const size_t a = value.find(':');
    const size_t b = a == std::string_view::npos ? a : value.find(':', a + 1);
    DeadPixel d;
    uint32_t v = 0;
    if (b != std::string_view::npos &&
        ParseNumber<uint32_t>(value.substr(0, a), 0, UINT32_MAX, &d.x) &&
        ParseNumber<uint32_t>(value.substr(a + 1, b - a - 1), 0, UINT32_MAX, &d.y) &&
        ParseNumber<uint32_t>(value.substr(b + 1), 0, 255, &v)) {
      d.value = uint8_t(v);
      c->deadPixels.push_back(d);
      return true;
    }
    *why = "a dead pixel is X:Y:VALUE, VALUE 0..255";
    return false;
  }
  if (key == "dark") {
    const size_t at = value.find('@');
    const std::string_view level = value.substr(0, at);
    uint64_t from = 0;
    std::optional<uint64_t> until;
    if (at != std::string_view::npos && !ParseFrameRange(value.substr(at + 1), &from, &until)) {
      *why = "darkness frames are @F or @F-T with T after F";
      return false;
    }
    if (level == "off") {
      c->lightsOff = true;
      c->darkDivisor = 1;
    } else if (ParseNumber<uint32_t>(level, 1, 256, &c->darkDivisor)) {
      c->lightsOff = false;
    } else {
      *why = "darkness is a divisor 1..256 or off";
      return false;
    }
    c->darkFromFrame = from;
    c->darkUntilFrame = until.value_or(UINT64_MAX);
    return true;
  }
  if (key == "focus") {
    int32_t p = 0;
    if (ParseNumber<int32_t>(value, INT32_MIN, INT32_MAX, &p)) {
      c->focusPosition = p;
      return true;
    }
    *why = "the focus position is a whole number";
    return false;
  }
  if (key == "blur") {
    if (ParseNumber<uint32_t>(value, 0, 256, &c->blurPerStep16)) return true;
    *why = "blur is a whole number 0..256 (sixteenths of a [1 2 1] pass a lens step)";
    return false;
  }
  if (key == "defects") {
    if (ParseSwitch(value, &c->sensorDefects)) return true;
    *why = "defects is on or off";
    return false;
  }
  if (key == "button") {
    uint64_t from = 0;
    std::optional<uint64_t> until;
    if (!ParseFrameRange(value, &from, &until)) {
      *why = "the button is pressed at frame F or from F to T, T after F";
      return false;
    }
    c->buttonEvents.push_back(SceneButtonEvent{from, true});
    if (until) c->buttonEvents.push_back(SceneButtonEvent{*until, false});
    return true;
  }
  if (key == "orient") {
    bool high = false;
    if (ParseSwitch(value, &high)) {
      c->orientationInput = high;
      return true;
    }
    *why = "orient is 0 or 1";
    return false;
  }
  *why = "unknown item";
  return false;
}

}  // namespace

bool ParseSceneText(const std::string& text, SceneConfig* config, std::string* error) noexcept {
  try {
    SceneConfig parsed;
    bool sceneSeen = false;
    std::string_view rest(text);
    while (!text.empty()) {
      const size_t comma = rest.find(',');
      const std::string_view item = rest.substr(0, comma);
      std::string why = "empty item";
      if (item.empty() || !ParseItem(item, &parsed, &sceneSeen, &why)) {
        if (error) *error = "scene: \"" + std::string(item) + "\": " + why;
        return false;
      }
      if (comma == std::string_view::npos) break;
      rest = rest.substr(comma + 1);
    }
    *config = std::move(parsed);
    return true;
  } catch (...) {
    if (error) {
      try {
        *error = "scene: out of memory";
      } catch (...) {
      }
    }
    return false;
  }
}
