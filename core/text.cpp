#include "core/text.h"

#include <cstdint>
#include <cstring>

#include "core/items.h"

namespace kv {

namespace {

// Windows-1252 code points of bytes 0x80-0x9F; 0 marks an unassigned byte.
constexpr char16_t kCp1252High[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Decodes one UTF-8 character at text[i]; returns its length, 0 if invalid.
std::size_t DecodeUtf8(std::string_view text, std::size_t i, uint32_t& cp) {
  auto b = [&](std::size_t k) { return static_cast<uint8_t>(text[k]); };
  uint8_t c = b(i);
  std::size_t len;
  if (c < 0x80) { cp = c; return 1; }
  if ((c & 0xE0) == 0xC0) { len = 2; cp = c & 0x1F; }
  else if ((c & 0xF0) == 0xE0) { len = 3; cp = c & 0x0F; }
  else if ((c & 0xF8) == 0xF0) { len = 4; cp = c & 0x07; }
  else return 0;
  if (i + len > text.size()) return 0;
  for (std::size_t k = 1; k < len; ++k) {
    if ((b(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b(i + k) & 0x3F);
  }
  static constexpr uint32_t kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return len;
}

}  // namespace

std::string_view Utf8Prefix(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return text;
  std::size_t end = maxBytes;
  // Step back over continuation bytes so that no character is split.
  while (end > 0 && (static_cast<uint8_t>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

void CopyText(char* field, std::size_t fieldSize, std::string_view text) {
  if (fieldSize == 0) return;
  std::string_view cut = Utf8Prefix(text, fieldSize - 1);
  std::size_t nul = cut.find('\0');
  if (nul != std::string_view::npos) cut = cut.substr(0, nul);
  std::memcpy(field, cut.data(), cut.size());
  field[cut.size()] = 0;
}

std::string_view TrimBlank(std::string_view text) {
  std::size_t b = 0, e = text.size();
  while (b < e && static_cast<uint8_t>(text[b]) <= ' ') ++b;
  while (e > b && static_cast<uint8_t>(text[e - 1]) <= ' ') --e;
  return text.substr(b, e - b);
}

bool IsValidUtf8(std::string_view text) {
  uint32_t cp;
  for (std::size_t i = 0; i < text.size();) {
    std::size_t n = DecodeUtf8(text, i, cp);
    if (!n) return false;
    i += n;
  }
  return true;
}

std::string Windows1252ToUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    uint8_t c = static_cast<uint8_t>(ch);
    uint32_t cp = c;
    if (c >= 0x80 && c < 0xA0) cp = kCp1252High[c - 0x80] ? kCp1252High[c - 0x80] : 0xFFFD;
    AppendUtf8(out, cp);
  }
  return out;
}

std::string Utf8ToWindows1252(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  uint32_t cp;
  for (std::size_t i = 0; i < text.size();) {
    std::size_t n = DecodeUtf8(text, i, cp);
    if (!n) { out += '_'; ++i; continue; }
    i += n;
    if (cp < 0x80 || (cp >= 0xA0 && cp <= 0xFF)) { out += static_cast<char>(cp); continue; }
    char mapped = '_';
    for (int k = 0; k < 32; ++k)
      if (kCp1252High[k] == cp) mapped = static_cast<char>(0x80 + k);
    out += mapped;
  }
  return out;
}

std::string DecodeText(const char* text, std::size_t length, TextEncoding encoding) {
  if (!text) return {};
  if (encoding == TextEncoding::Utf16) {
    std::string out;
    const auto* bytes = reinterpret_cast<const uint8_t*>(text);
    auto unit = [&](std::size_t k) { return static_cast<uint32_t>(bytes[2 * k] | (bytes[2 * k + 1] << 8)); };
    for (std::size_t k = 0; length == 0 || k < length; ++k) {
      uint32_t u = unit(k);
      if (u == 0) break;
      if (u >= 0xD800 && u < 0xDC00 && (length == 0 || k + 1 < length)) {
        uint32_t lo = unit(k + 1);
        if (lo >= 0xDC00 && lo < 0xE000) {
          AppendUtf8(out, 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00));
          ++k;
          continue;
        }
      }
      AppendUtf8(out, (u >= 0xD800 && u < 0xE000) ? 0xFFFD : u);
    }
    return out;
  }
  std::size_t n = length ? strnlen(text, length) : std::strlen(text);
  std::string_view raw(text, n);
  if (encoding == TextEncoding::Foreign && !IsValidUtf8(raw)) return Windows1252ToUtf8(raw);
  return std::string(raw);
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 32);
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 32);
    if (x != y) return false;
  }
  return true;
}

}  // namespace kv
