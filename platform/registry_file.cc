// The registry's text form, the registry editor's ".reg" files: reading a file
// into one batch of edits (checked whole before any of it touches the tree),
// writing a snapshot of the tree in a stable order, and saving a file of the
// host so that a crash at any moment leaves either the old or the new file.
//
// The text is decoded to UTF-16 first, as the registry's names are; lines are
// parsed as views into it. Written text is UTF-8 with CR LF line ends.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/registry.h"
#include "platform/registry_control.h"

namespace {

constexpr std::u16string_view kHeader = u"Windows Registry Editor Version 5.00";
constexpr std::u16string_view kMachinePath = u"\\REGISTRY\\MACHINE";
constexpr char kMachineName[] = "HKEY_LOCAL_MACHINE";
// Written lines, the continuation backslash included, stay within this.
constexpr size_t kMaxColumns = 80;

std::atomic<bool> stopBeforeRename{false};

// ---------------------------------------------------------------- characters

bool IsHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

char16_t FoldAscii(char16_t c) { return c >= u'a' && c <= u'z' ? char16_t(c - 0x20) : c; }

bool SameAsciiName(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (FoldAscii(a[i]) != FoldAscii(b[i])) return false;
  }
  return true;
}

bool StartsWithName(std::u16string_view text, std::u16string_view prefix) {
  return text.size() >= prefix.size() && SameAsciiName(text.substr(0, prefix.size()), prefix);
}

int HexDigit(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// 1 to `maxDigits` hexadecimal digits and nothing else.
bool ParseHexNumber(std::u16string_view text, size_t maxDigits, uint32_t* value) {
  if (text.empty() || text.size() > maxDigits) return false;
  uint32_t result = 0;
  for (char16_t c : text) {
    const int digit = HexDigit(c);
    if (digit < 0) return false;
    result = result << 4 | uint32_t(digit);
  }
  *value = result;
  return true;
}

bool IsBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r'; }

std::u16string_view Trim(std::u16string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

// Appends UTF-16 text as UTF-8; false on half of a surrogate pair.
bool AppendUtf8(std::u16string_view text, std::string* out) {
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (IsHighSurrogate(char16_t(c))) {
      if (i + 1 >= text.size() || !IsLowSurrogate(text[i + 1])) return false;
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    } else if (IsLowSurrogate(char16_t(c))) {
      return false;
    }
    if (c < 0x80) {
      out->push_back(char(c));
    } else if (c < 0x800) {
      out->push_back(char(0xC0 | c >> 6));
      out->push_back(char(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out->push_back(char(0xE0 | c >> 12));
      out->push_back(char(0x80 | (c >> 6 & 0x3F)));
      out->push_back(char(0x80 | (c & 0x3F)));
    } else {
      out->push_back(char(0xF0 | c >> 18));
      out->push_back(char(0x80 | (c >> 12 & 0x3F)));
      out->push_back(char(0x80 | (c >> 6 & 0x3F)));
      out->push_back(char(0x80 | (c & 0x3F)));
    }
  }
  return true;
}

// For messages: UTF-8 of a name, cut to a readable length.
std::string Shown(std::u16string_view text) {
  std::string shown;
  if (!AppendUtf8(text.substr(0, 40), &shown)) return std::string(1, '?');
  if (text.size() > 40) shown += "...";
  return shown;
}

// ---------------------------------------------------------------- decoding

struct DecodeError {
  size_t line = 0;
  const char* what = nullptr;
};

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool DecodeUtf8(std::string_view bytes, std::u16string* out, DecodeError* error) {
  out->reserve(bytes.size());
  size_t line = 1;
  for (size_t i = 0; i < bytes.size();) {
    const uint8_t lead = uint8_t(bytes[i]);
    if (lead < 0x80) {
      out->push_back(lead);
      line += lead == '\n';
      ++i;
      continue;
    }
    uint32_t c;
    size_t length;
    uint32_t least;
    if ((lead & 0xE0) == 0xC0) {
      c = lead & 0x1F, length = 2, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      c = lead & 0x0F, length = 3, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      c = lead & 0x07, length = 4, least = 0x10000;
    } else {
      *error = {line, "invalid UTF-8"};
      return false;
    }
    if (i + length > bytes.size()) {
      *error = {line, "invalid UTF-8"};
      return false;
    }
    for (size_t k = 1; k < length; ++k) {
      const uint8_t next = uint8_t(bytes[i + k]);
      if ((next & 0xC0) != 0x80) {
        *error = {line, "invalid UTF-8"};
        return false;
      }
      c = c << 6 | (next & 0x3F);
    }
    if (c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
      *error = {line, "invalid UTF-8"};
      return false;
    }
    if (c >= 0x10000) {
      c -= 0x10000;
      out->push_back(char16_t(0xD800 + (c >> 10)));
      out->push_back(char16_t(0xDC00 + (c & 0x3FF)));
    } else {
      out->push_back(char16_t(c));
    }
    i += length;
  }
  return true;
}

// UTF-16LE after its byte order mark; surrogates must come in pairs.
bool DecodeUtf16(std::string_view bytes, std::u16string* out, DecodeError* error) {
  out->reserve(bytes.size() / 2);
  size_t line = 1;
  auto unit = [&](size_t i) { return char16_t(uint8_t(bytes[i]) | uint8_t(bytes[i + 1]) << 8); };
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const char16_t c = unit(i);
    if (IsHighSurrogate(c) && i + 3 < bytes.size() && IsLowSurrogate(unit(i + 2))) {
      out->push_back(c);
      out->push_back(unit(i + 2));
      i += 2;
      continue;
    }
    if (IsHighSurrogate(c) || IsLowSurrogate(c)) {
      *error = {line, "half of a surrogate pair in UTF-16"};
      return false;
    }
    out->push_back(c);
    line += c == u'\n';
  }
  if (bytes.size() % 2 != 0) {
    *error = {line, "odd number of bytes in a UTF-16 file"};
    return false;
  }
  return true;
}

// ---------------------------------------------------------------- parsing

struct Line {
  std::u16string_view text;
  size_t number;
};

enum class KeyState { None, Open, Deleted };

struct Parser {
  const std::string& file;
  std::vector<Line> lines;
  size_t next = 0;  // index of the next line to read
  std::vector<RegistryEdit> edits;
  std::vector<size_t> editLines;  // the line of each edit, for messages
  std::u16string key;             // absolute path of the current key
  KeyState keyState = KeyState::None;
  std::string error;

  bool Fail(size_t line, const std::string& what) {
    error = file + ":" + std::to_string(line) + ": " + what;
    return false;
  }
  void Add(RegistryEdit edit, size_t line) {
    edits.push_back(std::move(edit));
    editLines.push_back(line);
  }
};

// A key line "[HKEY_LOCAL_MACHINE\...]" or "[-...]", already trimmed.
bool ParseKeyLine(Parser& p, std::u16string_view line, size_t number) {
  if (line.size() < 2 || line.back() != u']')
    return p.Fail(number, "key line without a closing ']'");
  std::u16string_view inner = line.substr(1, line.size() - 2);
  const bool remove = !inner.empty() && inner.front() == u'-';
  if (remove) inner.remove_prefix(1);
  const size_t slash = inner.find(u'\\');
  const std::u16string_view root = inner.substr(0, slash);
  if (!SameAsciiName(root, u"HKEY_LOCAL_MACHINE") && !SameAsciiName(root, u"HKLM")) {
    return p.Fail(number, "unknown root key \"" + Shown(root) + "\" (only HKEY_LOCAL_MACHINE)");
  }
  std::u16string path(kMachinePath);
  size_t depth = 1;  // levels below \REGISTRY
  if (slash != std::u16string_view::npos) {
    std::u16string_view rest = inner.substr(slash + 1);
    while (true) {
      const size_t end = rest.find(u'\\');
      const std::u16string_view level = rest.substr(0, end);
      if (level.empty()) return p.Fail(number, "empty key name in the path");
      if (level.size() > RegistryMaxKeyNameChars) {
        return p.Fail(number, "key name longer than " + std::to_string(RegistryMaxKeyNameChars) +
                                  " characters");
      }
      if (level.find(u'\0') != std::u16string_view::npos) {
        return p.Fail(number, "zero character in a key name");
      }
      if (++depth > RegistryMaxKeyDepth) {
        return p.Fail(number,
                      "key path deeper than " + std::to_string(RegistryMaxKeyDepth) + " levels");
      }
      path += u'\\';
      path += level;
      if (end == std::u16string_view::npos) break;
      rest.remove_prefix(end + 1);
    }
  }
  if (remove && depth == 1) return p.Fail(number, "HKEY_LOCAL_MACHINE itself cannot be deleted");
  RegistryEdit edit;
  edit.kind = remove ? RegistryEdit::DeleteKey : RegistryEdit::CreateKey;
  edit.path = path;
  p.Add(std::move(edit), number);
  p.key = std::move(path);
  p.keyState = remove ? KeyState::Deleted : KeyState::Open;
  return true;
}

// A quoted text at `*at` with the escapes \\ and \"; `*at` moves past the
// closing quote. Null on success, else what is wrong.
const char* ParseQuoted(std::u16string_view line, size_t* at, std::u16string* text) {
  size_t i = *at + 1;  // past the opening quote
  while (true) {
    if (i >= line.size()) return "no closing quote";
    const char16_t c = line[i++];
    if (c == u'"') break;
    if (c == u'\\') {
      if (i >= line.size()) return "no closing quote";
      const char16_t escaped = line[i++];
      if (escaped != u'\\' && escaped != u'"')
        return "unknown escape (only \\\\ and \\\" are known)";
      text->push_back(escaped);
      continue;
    }
    text->push_back(c);
  }
  *at = i;
  return nullptr;
}

// The bytes of hex: and hex(N): lists, "01,02,...", continued on the following
// lines after a trailing backslash. `segment` is the part after the colon.
bool ParseHexList(Parser& p, std::u16string_view segment, size_t number,
                  std::vector<uint8_t>* bytes) {
  while (true) {
    const bool continued = !segment.empty() && segment.back() == u'\\';
    if (continued) segment = Trim(segment.substr(0, segment.size() - 1));
    if (!segment.empty()) {
      size_t start = 0;
      while (true) {
        const size_t comma = segment.find(u',', start);
        const std::u16string_view item = Trim(segment.substr(start, comma - start));
        const bool lastItem = comma == std::u16string_view::npos;
        if (item.empty()) {
          // Only a comma before the continuation may end a line.
          if (!(lastItem && continued && start > 0)) {
            return p.Fail(number,
                          lastItem ? "the list ends with a comma" : "empty byte in the list");
          }
        } else {
          uint32_t byte = 0;
          if (!ParseHexNumber(item, 2, &byte)) {
            return p.Fail(number, "bad byte \"" + Shown(item) + "\" (two hexadecimal digits)");
          }
          bytes->push_back(uint8_t(byte));
        }
        if (lastItem) break;
        start = comma + 1;
      }
    }
    if (bytes->size() > RegistryMaxValueBytes) {
      return p.Fail(number,
                    "value longer than " + std::to_string(RegistryMaxValueBytes) + " bytes");
    }
    if (!continued) return true;
    if (p.next >= p.lines.size())
      return p.Fail(number, "the list continues past the end of the file");
    segment = Trim(p.lines[p.next].text);
    number = p.lines[p.next].number;
    ++p.next;
    // A cut-off file shows here: the continuation line is gone.
    if (segment.empty()) return p.Fail(number, "blank line where the list was to continue");
  }
}

// A value line "Name"=... or @=..., already trimmed.
bool ParseValueLine(Parser& p, std::u16string_view line, size_t number) {
  if (p.keyState == KeyState::None) return p.Fail(number, "value line before any key line");
  if (p.keyState == KeyState::Deleted) return p.Fail(number, "value line below a deleted key");
  RegistryEdit edit;
  edit.path = p.key;
  size_t at = 0;
  if (line.front() == u'@') {
    at = 1;
  } else if (const char* what = ParseQuoted(line, &at, &edit.name)) {
    return p.Fail(number, std::string("value name: ") + what);
  }
  if (edit.name.size() > RegistryMaxValueNameChars) {
    return p.Fail(number, "value name longer than " + std::to_string(RegistryMaxValueNameChars) +
                              " characters");
  }
  while (at < line.size() && IsBlank(line[at])) ++at;
  if (at >= line.size() || line[at] != u'=')
    return p.Fail(number, "expected '=' after the value name");
  ++at;
  while (at < line.size() && IsBlank(line[at])) ++at;
  const std::u16string_view data = line.substr(at);

  if (data == u"-") {
    edit.kind = RegistryEdit::DeleteValue;
  } else if (!data.empty() && data.front() == u'"') {
    std::u16string text;
    size_t end = 0;
    if (const char* what = ParseQuoted(data, &end, &text)) {
      return p.Fail(number, std::string("string: ") + what);
    }
    if (end != data.size()) return p.Fail(number, "text after the closing quote");
    edit.kind = RegistryEdit::SetValue;
    edit.type = REG_SZ;
    edit.data.reserve((text.size() + 1) * 2);
    for (char16_t c : text) {
      edit.data.push_back(uint8_t(c));
      edit.data.push_back(uint8_t(c >> 8));
    }
    edit.data.push_back(0);
    edit.data.push_back(0);
  } else if (StartsWithName(data, u"dword:")) {
    uint32_t value = 0;
    if (!ParseHexNumber(data.substr(6), 8, &value)) {
      return p.Fail(number, "dword: takes 1 to 8 hexadecimal digits");
    }
    edit.kind = RegistryEdit::SetValue;
    edit.type = REG_DWORD;
    edit.data = {uint8_t(value), uint8_t(value >> 8), uint8_t(value >> 16), uint8_t(value >> 24)};
  } else if (StartsWithName(data, u"hex:") || StartsWithName(data, u"hex(")) {
    std::u16string_view list;
    uint32_t type = REG_BINARY;
    if (data[3] == u':') {
      list = data.substr(4);
    } else {
      const size_t close = data.find(u')');
      if (close == std::u16string_view::npos ||
          !ParseHexNumber(data.substr(4, close - 4), 8, &type)) {
        return p.Fail(number, "hex(N): takes a type of 1 to 8 hexadecimal digits");
      }
      if (close + 1 >= data.size() || data[close + 1] != u':') {
        return p.Fail(number, "expected ':' after hex(N)");
      }
      list = data.substr(close + 2);
    }
    edit.kind = RegistryEdit::SetValue;
    edit.type = type;
    if (!ParseHexList(p, Trim(list), number, &edit.data)) return false;
  } else {
    return p.Fail(number, "unknown value form (expected \"text\", dword:, hex:, hex(N): or -)");
  }
  p.Add(std::move(edit), number);
  return true;
}

bool ParseLines(Parser& p) {
  // The first line that is not blank is the header; nothing but blank lines
  // is an empty file.
  while (p.next < p.lines.size() && Trim(p.lines[p.next].text).empty()) ++p.next;
  if (p.next == p.lines.size()) return true;
  const Line& header = p.lines[p.next++];
  if (Trim(header.text) != kHeader) {
    return p.Fail(header.number,
                  "expected \"Windows Registry Editor Version 5.00\" as the first line");
  }
  while (p.next < p.lines.size()) {
    const Line& line = p.lines[p.next++];
    const std::u16string_view text = Trim(line.text);
    if (text.empty() || text.front() == u';') continue;
    if (text.front() == u'[') {
      if (!ParseKeyLine(p, text, line.number)) return false;
    } else if (text.front() == u'"' || text.front() == u'@') {
      if (!ParseValueLine(p, text, line.number)) return false;
    } else {
      return p.Fail(line.number, "not a key, value or comment line");
    }
  }
  return true;
}

bool LoadText(std::string_view bytes, const std::string& file, std::string* error) {
  std::u16string text;
  DecodeError bad;
  bool decoded;
  if (bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFF && uint8_t(bytes[1]) == 0xFE) {
    decoded = DecodeUtf16(bytes.substr(2), &text, &bad);
  } else if (bytes.size() >= 2 && uint8_t(bytes[0]) == 0xFE && uint8_t(bytes[1]) == 0xFF) {
    decoded = false;
    bad = {1, "UTF-16 big-endian is not read (UTF-8 or UTF-16LE)"};
  } else {
    if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    decoded = DecodeUtf8(bytes, &text, &bad);
  }
  if (!decoded) {
    if (error != nullptr) *error = file + ":" + std::to_string(bad.line) + ": " + bad.what;
    return false;
  }

  Parser p{file};
  const std::u16string_view all = text;
  for (size_t start = 0, number = 1; start <= all.size(); ++number) {
    size_t end = all.find(u'\n', start);
    if (end == std::u16string_view::npos) end = all.size();
    p.lines.push_back(Line{all.substr(start, end - start), number});
    start = end + 1;
  }
  if (!ParseLines(p)) {
    if (error != nullptr) *error = p.error;
    return false;
  }
  size_t failed = 0;
  if (!ApplyRegistryEdits(p.edits, &failed)) {
    if (error != nullptr) {
      *error = file + ":" + std::to_string(p.editLines[failed]) + ": not accepted by the registry";
    }
    return false;
  }
  return true;
}

// ---------------------------------------------------------------- writing

// A REG_SZ that reads back from a quoted string: one terminating zero, no
// other zero, no line break, whole surrogate pairs.
bool IsPlainString(const std::vector<uint8_t>& data, std::u16string* text) {
  if (data.size() < 2 || data.size() % 2 != 0) return false;
  const size_t units = data.size() / 2 - 1;
  if (data[units * 2] != 0 || data[units * 2 + 1] != 0) return false;
  text->resize(units);
  for (size_t i = 0; i < units; ++i) {
    const char16_t c = char16_t(data[2 * i] | data[2 * i + 1] << 8);
    if (c == 0 || c == u'\n' || c == u'\r') return false;
    (*text)[i] = c;
  }
  for (size_t i = 0; i < units; ++i) {
    if (IsHighSurrogate((*text)[i])) {
      if (i + 1 >= units || !IsLowSurrogate((*text)[i + 1])) return false;
      ++i;
    } else if (IsLowSurrogate((*text)[i])) {
      return false;
    }
  }
  return true;
}

// Appends `text` in quotes with its backslashes and quotes escaped.
bool AppendQuoted(std::u16string_view text, std::string* out) {
  out->push_back('"');
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != u'\\' && text[i] != u'"') continue;
    if (!AppendUtf8(text.substr(start, i - start), out)) return false;
    if (i < text.size()) {
      out->push_back('\\');
      out->push_back(char(text[i]));
    }
    start = i + 1;
  }
  out->push_back('"');
  return true;
}

constexpr char kHexDigits[] = "0123456789abcdef";

// The bytes as "xx,xx,...", folded after a comma with a backslash and a line
// break so that no line passes kMaxColumns; continuation lines start with two
// spaces. `lineStart` is where the current line began in `out`.
void AppendHexList(const std::vector<uint8_t>& data, size_t lineStart, std::string* out) {
  size_t column = out->size() - lineStart;
  for (size_t i = 0; i < data.size(); ++i) {
    // "xx," and a possible backslash after it must fit.
    if (column + 4 > kMaxColumns) {
      out->append("\\\r\n  ");
      column = 2;
    }
    out->push_back(kHexDigits[data[i] >> 4]);
    out->push_back(kHexDigits[data[i] & 15]);
    if (i + 1 < data.size()) out->push_back(',');
    column += 3;
  }
}

bool NameCanBeWritten(std::u16string_view name) {
  return name.find(u'\n') == std::u16string_view::npos;
}

bool AppendValue(const RegistryValueEntry& value, std::string* out, std::string* error) {
  const size_t lineStart = out->size();
  if (!NameCanBeWritten(value.name)) {
    *error = "value name with a line break: \"" + Shown(value.name) + "\"";
    return false;
  }
  if (value.name.empty()) {
    out->push_back('@');
  } else if (!AppendQuoted(value.name, out)) {
    *error = std::string("value name with half of a surrogate pair");
    return false;
  }
  out->push_back('=');
  std::u16string text;
  if (value.type == REG_SZ && IsPlainString(value.data, &text)) {
    AppendQuoted(text, out);
  } else if (value.type == REG_DWORD && value.data.size() == 4) {
    char digits[16];
    const uint32_t word = uint32_t(value.data[0]) | uint32_t(value.data[1]) << 8 |
                          uint32_t(value.data[2]) << 16 | uint32_t(value.data[3]) << 24;
    std::snprintf(digits, sizeof digits, "dword:%08x", word);
    out->append(digits);
  } else {
    if (value.type == REG_BINARY) {
      out->append("hex:");
    } else {
      char prefix[24];
      std::snprintf(prefix, sizeof prefix, "hex(%x):", static_cast<unsigned>(value.type));
      out->append(prefix);
    }
    AppendHexList(value.data, lineStart, out);
  }
  out->append("\r\n");
  return true;
}

// The key line, the values and a blank line, then every sub key. `path` is the
// key's path as written, and is given back as it came.
bool AppendKey(const RegistryKeySnapshot& key, std::string* path, std::string* out,
               std::string* error) {
  out->push_back('[');
  out->append(*path);
  out->append("]\r\n");
  for (const RegistryValueEntry& value : key.values) {
    if (!AppendValue(value, out, error)) return false;
  }
  out->append("\r\n");
  for (const RegistryKeySnapshot& sub : key.subKeys) {
    const size_t mark = path->size();
    path->push_back('\\');
    if (!NameCanBeWritten(sub.name) || !AppendUtf8(sub.name, path)) {
      *error = "key name that the text form cannot hold: \"" + Shown(sub.name) + "\"";
      return false;
    }
    if (!AppendKey(sub, path, out, error)) return false;
    path->resize(mark);
  }
  return true;
}

// ---------------------------------------------------------------- host files

std::string Reason(int code) { return std::system_category().message(code); }

bool ReadWholeFile(const std::string& hostPath, std::string* bytes, std::string* error) {
  const int fd = ::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = hostPath + ": " + Reason(errno);
    return false;
  }
  struct stat info;
  if (::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
    ::close(fd);
    *error = hostPath + ": is a folder";
    return false;
  }
  bytes->clear();
  char chunk[65536];
  while (true) {
    const ssize_t got = ::read(fd, chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      *error = hostPath + ": " + Reason(errno);
      ::close(fd);
      return false;
    }
    if (got == 0) break;
    bytes->append(chunk, size_t(got));
  }
  ::close(fd);
  return true;
}

bool WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    done += size_t(wrote);
  }
  return true;
}

// Writes `text` to hostPath + ".tmp", flushes it to the disk, renames it over
// `hostPath` and flushes the folder, so the file is always whole.
bool WriteFileAtomically(const std::string& hostPath, const std::string& text, std::string* error) {
  // Two saves of one file must not share the temporary file.
  static std::mutex writeLock;
  std::lock_guard<std::mutex> guard(writeLock);
  const std::string temporary = hostPath + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    *error = temporary + ": " + Reason(errno);
    return false;
  }
  if (!WriteAll(fd, text) || ::fsync(fd) != 0) {
    *error = temporary + ": " + Reason(errno);
    ::close(fd);
    ::unlink(temporary.c_str());
    return false;
  }
  if (::close(fd) != 0) {
    *error = temporary + ": " + Reason(errno);
    ::unlink(temporary.c_str());
    return false;
  }
  if (stopBeforeRename.load()) {
    *error = hostPath + ": save stopped before the rename";
    return false;
  }
  if (::rename(temporary.c_str(), hostPath.c_str()) != 0) {
    *error = hostPath + ": " + Reason(errno);
    ::unlink(temporary.c_str());
    return false;
  }
  std::string folder = std::filesystem::path(hostPath).parent_path().string();
  if (folder.empty()) folder.push_back('.');
  const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    // Some file systems cannot flush a folder (EINVAL); the file is in place.
    const bool flushed = ::fsync(folderFd) == 0 || errno == EINVAL;
    const int code = errno;
    ::close(folderFd);
    if (!flushed) {
      *error = folder + ": " + Reason(code);
      return false;
    }
  }
  return true;
}

}  // namespace

bool LoadRegistryText(std::string_view bytes, const std::string& fileNameForErrors,
                      std::string* error) {
  try {
    return LoadText(bytes, fileNameForErrors, error);
  } catch (const std::exception& e) {
    if (error != nullptr) *error = fileNameForErrors + ": " + e.what();
    return false;
  }
}

std::string SaveRegistryText(const std::u16string& root, std::string* error) {
  std::string reason;
  try {
    const std::u16string_view rootView = root;
    if (!StartsWithName(rootView, kMachinePath) ||
        (rootView.size() > kMachinePath.size() && rootView[kMachinePath.size()] != u'\\')) {
      reason = std::string("the root must be \\REGISTRY\\MACHINE or below it");
    } else {
      std::string out = "Windows Registry Editor Version 5.00\r\n\r\n";
      RegistryKeySnapshot snapshot;
      std::u16string stored;
      if (!SnapshotRegistryKey(root, &snapshot, &stored)) return out;
      // The stored names of \REGISTRY and MACHINE are fixed.
      std::string path = kMachineName;
      if (AppendUtf8(std::u16string_view(stored).substr(kMachinePath.size()), &path) &&
          NameCanBeWritten(stored) && AppendKey(snapshot, &path, &out, &reason)) {
        return out;
      }
      if (reason.empty()) reason = std::string("key name that the text form cannot hold");
    }
  } catch (const std::exception& e) {
    reason = e.what();
  }
  if (error != nullptr) *error = reason;
  return std::string();
}

bool LoadRegistryFile(const std::string& hostPath, std::string* error) {
  std::string bytes;
  std::string reason;
  try {
    if (!ReadWholeFile(hostPath, &bytes, &reason)) {
      if (error != nullptr) *error = reason;
      return false;
    }
  } catch (const std::exception& e) {
    if (error != nullptr) *error = hostPath + ": " + e.what();
    return false;
  }
  return LoadRegistryText(bytes, hostPath, error);
}

bool SaveRegistryFile(const std::string& hostPath, std::string* error, const std::u16string& root) {
  std::string reason;
  try {
    const std::string text = SaveRegistryText(root, &reason);
    if (!text.empty() && WriteFileAtomically(hostPath, text, &reason)) return true;
    if (text.empty()) reason = hostPath + ": " + reason;
  } catch (const std::exception& e) {
    reason = hostPath + ": " + e.what();
  }
  if (error != nullptr) *error = reason;
  return false;
}

void RegistrySaveStopBeforeRename(bool stop) { stopBeforeRename.store(stop); }
