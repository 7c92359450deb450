// Fixed-width codes of 2 to 8 bits packed in a byte stream, most or least
// significant bit first: the framing of the CCITT, Rockwell and IMA 2/3-bit
// codecs. Readers never run past their span (missing bits read as 0) and
// neither allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kv {

// Bytes that `codes` codes of `bits` bits fill, the last one padded.
constexpr uint64_t kvPackedCodeBytes(uint64_t codes, int bits) { return (codes * static_cast<uint64_t>(bits) + 7) / 8; }
// Whole codes that `bytes` bytes hold.
constexpr uint64_t kvPackedCodeCount(uint64_t bytes, int bits) { return bits > 0 ? bytes * 8 / static_cast<uint64_t>(bits) : 0; }

class CodeReader {
 public:
  CodeReader(std::span<const uint8_t> bytes, int bits, bool msbFirst)
      : p_(bytes.data()), end_(bytes.data() + bytes.size()), bits_(bits), mask_((1u << bits) - 1), msb_(msbFirst) {}

  unsigned Next() {
    if (have_ < bits_) {
      const uint32_t byte = p_ < end_ ? *p_++ : 0;
      if (msb_) acc_ = (acc_ << 8) | byte;
      else acc_ |= byte << have_;
      have_ += 8;
    }
    have_ -= bits_;
    if (msb_) return (acc_ >> have_) & mask_;
    const unsigned code = acc_ & mask_;
    acc_ >>= bits_;
    return code;
  }
  // Skips `n` codes.
  void Skip(uint64_t n) {
    while (n--) Next();
  }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
  uint32_t acc_ = 0;
  int have_ = 0;
  int bits_;
  unsigned mask_;
  bool msb_;
};

class CodeWriter {
 public:
  CodeWriter(std::span<uint8_t> out, int bits, bool msbFirst)
      : p_(out.data()), end_(out.data() + out.size()), bits_(bits), msb_(msbFirst) {}

  void Put(unsigned code) {
    code &= (1u << bits_) - 1;
    if (msb_) acc_ = (acc_ << bits_) | code;
    else acc_ |= code << have_;
    have_ += bits_;
    while (have_ >= 8) {
      have_ -= 8;
      Emit(msb_ ? static_cast<uint8_t>(acc_ >> have_) : static_cast<uint8_t>(acc_));
      if (!msb_) acc_ >>= 8;
    }
  }
  // Writes the bits of a last, partial byte, padded with zeros.
  void Flush() {
    if (have_ > 0) Emit(msb_ ? static_cast<uint8_t>(acc_ << (8 - have_)) : static_cast<uint8_t>(acc_));
    have_ = 0;
    acc_ = 0;
  }
  std::size_t Written() const { return written_; }

 private:
  void Emit(uint8_t byte) {
    if (p_ < end_) *p_++ = byte;
    ++written_;
  }

  uint8_t* p_;
  uint8_t* end_;
  uint32_t acc_ = 0;
  int have_ = 0;
  int bits_;
  bool msb_;
  std::size_t written_ = 0;
};

}  // namespace kv
