// One bounds-checked cursor over a file for the chunk readers of the RIFF and
// IFF families. Every read either delivers all it was asked for or returns
// false, so a truncated or lying file ends a parse cleanly instead of running
// past the end. Sizes are bounded by the file's real size before anything is
// allocated for them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/fileref.h"

namespace kv {

class ByteCursor {
 public:
  explicit ByteCursor(FileRef& file) : file_(file), size_(file.Size()), pos_(file.Tell()) {}

  FileRef& File() { return file_; }
  uint64_t FileSize() const { return size_; }
  uint64_t Tell() const { return pos_; }
  // Bytes from the cursor to the end of the file.
  uint64_t Left() const { return pos_ < size_ ? size_ - pos_ : 0; }
  // Bytes from `from` to the end of the file.
  uint64_t LeftFrom(uint64_t from) const { return from < size_ ? size_ - from : 0; }

  bool Seek(uint64_t pos) {
    if (pos > size_) return false;
    if (pos != pos_ || dirty_) {
      if (!file_.Seek(pos)) return false;
      dirty_ = false;
    }
    pos_ = pos;
    return true;
  }
  // After someone else moved the descriptor: the next read seeks first.
  void Invalidate() { dirty_ = true; }
  bool Skip(uint64_t n) { return n <= Left() && Seek(pos_ + n); }

  bool Bytes(void* out, std::size_t n) {
    if (n > Left()) return false;
    if (n == 0) return true;
    if (dirty_ && !file_.Seek(pos_)) return false;
    dirty_ = false;
    if (!file_.ReadExact(out, n)) {
      dirty_ = true;  // the descriptor's position is unknown after a failed read
      return false;
    }
    pos_ += n;
    return true;
  }
  // Reads up to `n` bytes (fewer at the end of the file); returns the count.
  std::size_t BytesUpTo(void* out, std::size_t n) {
    const uint64_t left = Left();
    const std::size_t take = left < n ? static_cast<std::size_t>(left) : n;
    return Bytes(out, take) ? take : 0;
  }

  bool U8(uint8_t& v) { return Bytes(&v, 1); }
  bool I8(int8_t& v) { return Bytes(&v, 1); }
  bool U16le(uint16_t& v) { return Int(v, false); }
  bool U16be(uint16_t& v) { return Int(v, true); }
  bool I16le(int16_t& v) { return Int(v, false); }
  bool I16be(int16_t& v) { return Int(v, true); }
  bool U32le(uint32_t& v) { return Int(v, false); }
  bool U32be(uint32_t& v) { return Int(v, true); }
  bool I32le(int32_t& v) { return Int(v, false); }
  bool U64le(uint64_t& v) { return Int(v, false); }
  // A four-character code as it stands in the file.
  bool FourCC(char (&id)[5]) {
    id[4] = 0;
    return Bytes(id, 4);
  }

 private:
  template <typename T>
  bool Int(T& v, bool bigEndian) {
    uint8_t b[sizeof(T)];
    if (!Bytes(b, sizeof b)) return false;
    uint64_t x = 0;
    for (std::size_t i = 0; i < sizeof b; ++i) {
      const std::size_t shift = 8 * (bigEndian ? sizeof b - 1 - i : i);
      x |= uint64_t{b[i]} << shift;
    }
    v = static_cast<T>(x);
    return true;
  }

  FileRef& file_;
  uint64_t size_;
  uint64_t pos_;
  bool dirty_ = true;
};

// Little- and big-endian field access for packed on-disk records read whole.
inline uint16_t GetU16le(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint16_t GetU16be(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t GetU32le(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint32_t GetU32be(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}
inline uint64_t GetU64le(const uint8_t* p) { return GetU32le(p) | (uint64_t{GetU32le(p + 4)} << 32); }

// Output of the writers: one memory block filled front to back. With no
// buffer it only counts, so a writer runs once to size the block and once to
// fill it, and the two can never disagree.
class BlockWriter {
 public:
  BlockWriter() = default;
  BlockWriter(uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::size_t Size() const { return pos_; }
  bool Counting() const { return data_ == nullptr; }
  // Room for `n` bytes the caller fills itself; null while counting.
  uint8_t* Reserve(std::size_t n) {
    uint8_t* p = data_ && pos_ + n <= size_ ? data_ + pos_ : nullptr;
    pos_ += n;
    return p;
  }
  void Bytes(const void* src, std::size_t n) {
    if (uint8_t* p = Reserve(n)) std::memcpy(p, src, n);
  }
  void Fill(uint8_t value, std::size_t n) {
    if (uint8_t* p = Reserve(n)) std::memset(p, value, n);
  }
  void Id(const char* id) { Bytes(id, 4); }
  void U8(uint8_t v) { Bytes(&v, 1); }
  void U16le(uint16_t v) { Int(v, 2, false); }
  void U32le(uint32_t v) { Int(v, 4, false); }
  void U64le(uint64_t v) { Int(v, 8, false); }
  void U16be(uint16_t v) { Int(v, 2, true); }
  void U32be(uint32_t v) { Int(v, 4, true); }
  // Patches a size field written earlier.
  void PatchU32le(std::size_t at, uint32_t v) { Patch(at, v, 4, false); }
  void PatchU32be(std::size_t at, uint32_t v) { Patch(at, v, 4, true); }
  void PatchU64le(std::size_t at, uint64_t v) { Patch(at, v, 8, false); }

 private:
  void Int(uint64_t v, int n, bool bigEndian) {
    if (uint8_t* p = Reserve(n)) Store(p, v, n, bigEndian);
  }
  void Patch(std::size_t at, uint64_t v, int n, bool bigEndian) {
    if (data_ && at + n <= size_) Store(data_ + at, v, n, bigEndian);
  }
  static void Store(uint8_t* p, uint64_t v, int n, bool bigEndian) {
    for (int i = 0; i < n; ++i) p[bigEndian ? n - 1 - i : i] = static_cast<uint8_t>(v >> (8 * i));
  }

  uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t pos_ = 0;
};

}  // namespace kv
