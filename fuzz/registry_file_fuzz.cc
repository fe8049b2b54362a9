// Arbitrary bytes as a ".reg" file: the load either fails and leaves the tree
// as it was, or succeeds; then the saved text must load again and save to the
// very same text.
//
// Input: the file's bytes as they are; or, when the first byte is a control
// character other than tab, LF and CR (no text file starts with one), bytes
// that each pick a piece of a line from a table, after the first line, so
// that random input gets deep into the key and value lines.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/registry_control.h"

namespace {

constexpr const char* kPieces[] = {
    "\r\n", "\n", "\r", " ", ";", "[", "]", "\"", "@", "=", "-", ",", "\\", "\\\"", "text",
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\A", "[HKLM\\SOFTWARE\\Mr740Fuzz", "[-HKLM\\SOFTWARE\\Mr740Fuzz",
    "\\Sub", "\\b", "\"V\"", "\"v\"", "dword:", "0000001e", "ffffffff", "hex:", "hex(2):",
    "hex(b):", "hex(0):", "00,", "ff,", "7", "\\\r\n  ", "\xC3\x84", "\xF0\x9F\x98\x80",
};

std::string PiecesText(const uint8_t* data, size_t size) {
  std::string text = "Windows Registry Editor Version 5.00\r\n\r\n";
  for (size_t i = 0; i < size; ++i) text += kPieces[data[i] % (sizeof kPieces / sizeof kPieces[0])];
  return text;
}

// A small tree the input merges into, so a failed load has something to keep.
void PlantMarker() {
  SetRegistryDword(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Fuzz", u"Marker", 42);
  SetRegistryString(u"\\REGISTRY\\MACHINE\\SOFTWARE\\Mr740Fuzz\\Sub", u"", u"kept");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ResetRegistry();
  PlantMarker();
  const std::string before = SaveRegistryText();
  if (before.empty()) std::abort();

  std::string error;
  std::string pieces;
  std::string_view input;
  if (size > 0 && data[0] < 0x20 && data[0] != '\t' && data[0] != '\n' && data[0] != '\r') {
    pieces = PiecesText(data + 1, size - 1);
    input = pieces;
  } else {
    input = std::string_view(reinterpret_cast<const char*>(data), size);
  }
  if (!LoadRegistryText(input, "fuzz.reg", &error)) {
    // "fuzz.reg:LINE: what", and nothing changed.
    if (error.compare(0, 9, "fuzz.reg:") != 0) std::abort();
    if (SaveRegistryText() != before) std::abort();
    return 0;
  }
  const std::string saved = SaveRegistryText(u"\\REGISTRY\\MACHINE", &error);
  if (saved.empty()) std::abort();  // whatever loads can be written

  ResetRegistry();
  if (!LoadRegistryText(saved, "saved.reg", &error)) std::abort();
  if (SaveRegistryText() != saved) std::abort();
  ResetRegistry();
  return 0;
}
