// Bounds-checked peeks for detect functions. A detect function sees the first
// `size` bytes of a file (at most 32 KB) and must never look past them, so
// every helper takes the buffer size and answers "no" instead of reading out
// of range. Header-only: detect code stays allocation-free and inlinable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kv::detect {

// True when bytes [offset, offset + length) lie inside the buffer.
constexpr bool Has(uint32_t size, uint64_t offset, uint64_t length) {
  return offset <= size && length <= size - offset;
}

inline bool Tag(const uint8_t* data, uint32_t size, uint64_t offset, const char* tag, std::size_t length) {
  return Has(size, offset, length) && std::memcmp(data + offset, tag, length) == 0;
}

// Four-character code at `offset`, the common case of chunked formats.
inline bool FourCC(const uint8_t* data, uint32_t size, uint64_t offset, const char (&tag)[5]) {
  return Tag(data, size, offset, tag, 4);
}

// Callers check Has() first; these read without checking.
inline uint16_t U16le(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint16_t U16be(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t U32le(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint32_t U32be(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}
inline uint64_t U64le(const uint8_t* p) { return U32le(p) | (static_cast<uint64_t>(U32le(p + 4)) << 32); }

// First position at or after `from` where `tag` (length bytes) occurs, or -1.
inline int64_t Find(const uint8_t* data, uint32_t size, uint32_t from, const char* tag, std::size_t length) {
  if (length == 0 || from > size || size - from < length) return -1;
  const uint8_t* p = data + from;
  const uint8_t* last = data + size - length;
  while (p <= last) {
    const void* hit = std::memchr(p, static_cast<unsigned char>(tag[0]), static_cast<std::size_t>(last - p) + 1);
    if (!hit) return -1;
    p = static_cast<const uint8_t*>(hit);
    if (std::memcmp(p, tag, length) == 0) return p - data;
    ++p;
  }
  return -1;
}

}  // namespace kv::detect
