// Text helpers for item names and fixed text fields. Inside the program all
// text is UTF-8; limits count bytes and never split a character.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kv {

enum class TextEncoding : int;

// The longest prefix of `text` of at most `maxBytes` bytes that ends on a
// character boundary.
std::string_view Utf8Prefix(std::string_view text, std::size_t maxBytes);

// Copies into a fixed nul-terminated field, cut at a character boundary.
void CopyText(char* field, std::size_t fieldSize, std::string_view text);
template <std::size_t N>
void CopyText(char (&field)[N], std::string_view text) {
  CopyText(field, N, text);
}

// Cuts characters at or below blank from both ends.
std::string_view TrimBlank(std::string_view text);

// Decodes `length` units (0: up to the first nul) of text in `encoding` to UTF-8.
std::string DecodeText(const char* text, std::size_t length, TextEncoding encoding);

bool IsValidUtf8(std::string_view text);
std::string Windows1252ToUtf8(std::string_view text);
// Encodes for an 8-bit file field: Windows-1252, unmappable characters as "_".
std::string Utf8ToWindows1252(std::string_view text);

// Case-blind compare folding ASCII letters.
bool EqualsNoCase(std::string_view a, std::string_view b);

}  // namespace kv
