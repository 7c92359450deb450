// Pure sample conversion kernels: coded PCM to the two memory forms (16-bit
// and float, both interleaved) and back. No allocation, no I/O, no state, so
// format modules and codecs call them directly on their own buffers.
//
// Every kernel takes the sample count from `out` (decoders) or `in`
// (encoders); the other span must be at least as large as that count needs.
// Endianness and signedness are arguments, so a caller never swaps first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kv {

// 2^-15 and 2^-31: the scale factors of the 16-bit and 32-bit integer forms.
inline constexpr float kScale16 = 3.0517578e-5f;
inline constexpr float kScale32 = 4.656613e-10f;

// Whether the processor runs AVX2 code: the kernels pick their SIMD path by it.
bool HaveAvx2();

// ---- byte sizes ----

// Bytes of `count` samples of 12-bit and 20-bit packed data.
constexpr uint64_t kvPacked12Bytes(uint64_t count) { return (count * 12 + 7) / 8; }
constexpr uint64_t kvPacked20Bytes(uint64_t count) { return (count * 20 + 7) / 8; }

// ---- to the 16-bit form ----

void kvDecodePcm8(std::span<const uint8_t> in, std::span<int16_t> out, bool isUnsigned);
// Two samples in three bytes; an odd count ends with a pair that has only its first sample.
void kvDecodePcm12(std::span<const uint8_t> in, std::span<int16_t> out, bool bigEndian, bool isUnsigned);
void kvDecodePcm16(std::span<const uint8_t> in, std::span<int16_t> out, bool bigEndian, bool isUnsigned);
// The same on data already read into the 16-bit buffer.
void kvDecodePcm16InPlace(std::span<int16_t> data, bool bigEndian, bool isUnsigned);
// Running sum of the bytes, wrapping at 8 bits, then as 8-bit data.
void kvDecodeDelta8(std::span<const uint8_t> in, std::span<int16_t> out, bool isUnsigned);
// Running sum wrapping at 16 bits, then as 16-bit data; in place.
void kvDecodeDelta16InPlace(std::span<int16_t> data, bool bigEndian, bool isUnsigned);
// ITU-T G.711 expansion.
void kvDecodeMuLaw(std::span<const uint8_t> in, std::span<int16_t> out);
void kvDecodeALaw(std::span<const uint8_t> in, std::span<int16_t> out);
int16_t kvMuLawToLinear(uint8_t code);
int16_t kvALawToLinear(uint8_t code);

// ---- to float ----

// A bit stream of 20-bit values. Samples come in with their sign inverted:
// this coding stores them so.
void kvDecodePcm20(std::span<const uint8_t> in, std::span<float> out, bool bigEndian, bool isUnsigned);
void kvDecodePcm24(std::span<const uint8_t> in, std::span<float> out, bool bigEndian, bool isUnsigned);
void kvDecodePcm32(std::span<const uint8_t> in, std::span<float> out, bool bigEndian, bool isUnsigned);
// 32-bit integers read straight into the float buffer, converted where they lie.
void kvDecodePcm32InPlace(std::span<float> data, bool bigEndian, bool isUnsigned);
void kvDecodeFloat32InPlace(std::span<float> data, bool bigEndian);
void kvDecodeFloat64(std::span<const uint8_t> in, std::span<float> out, bool bigEndian);

// ---- between the memory forms ----

void kv16ToFloat(std::span<const int16_t> in, std::span<float> out);
// Rounds to nearest (half upward) and clips; no dither.
void kvFloatTo16(std::span<const float> in, std::span<int16_t> out);
int16_t kvFloatSampleTo16(float f);

// ---- out of the memory forms ----

void kvEncodePcm8(std::span<const int16_t> in, std::span<uint8_t> out, bool isUnsigned);
void kvEncodePcm16(std::span<const int16_t> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned);
void kvEncodePcm24(std::span<const float> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned);
void kvEncodePcm32(std::span<const float> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned);
void kvEncodeFloat32(std::span<const float> in, std::span<uint8_t> out, bool bigEndian);
void kvEncodeFloat64(std::span<const float> in, std::span<uint8_t> out, bool bigEndian);
// Sign-magnitude segment codes of the 16-bit value, without the G.711 bias.
void kvEncodeMuLaw(std::span<const int16_t> in, std::span<uint8_t> out);
void kvEncodeALaw(std::span<const int16_t> in, std::span<uint8_t> out);
uint8_t kvLinearToMuLaw(int16_t s);
uint8_t kvLinearToALaw(int16_t s);
// The 8-bit (16-bit) form, then each value minus the one before, from 0.
void kvEncodeDelta8(std::span<const int16_t> in, std::span<uint8_t> out, bool isUnsigned);
void kvEncodeDelta16(std::span<const int16_t> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned);

// ---- channel layout ----

// All left samples then all right ones <-> frames of two. `frames` per channel.
void kvInterleave(std::span<const int16_t> sequential, std::span<int16_t> out);
void kvInterleave(std::span<const float> sequential, std::span<float> out);
void kvDeinterleave(std::span<const int16_t> interleaved, std::span<int16_t> out);
void kvDeinterleave(std::span<const float> interleaved, std::span<float> out);

// Mono to stereo by duplication; stereo to mono by the average (16-bit: the
// sum halved towards zero). Counts are taken from `out`.
void kvMonoToStereo(std::span<const int16_t> mono, std::span<int16_t> stereo);
void kvMonoToStereo(std::span<const float> mono, std::span<float> stereo);
void kvStereoToMono(std::span<const int16_t> stereo, std::span<int16_t> mono);
void kvStereoToMono(std::span<const float> stereo, std::span<float> mono);

}  // namespace kv
