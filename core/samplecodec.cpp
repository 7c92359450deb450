#include "core/samplecodec.h"

#include <array>
#include <bit>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

// The build's default -O2 on GCC uses the "very cheap" vectoriser, which skips
// any loop that needs a remainder; these loops are the hot path of every load.
// Nothing here reads floating-point exception flags, and without trapping
// math GCC may turn the clamping selects into vector code.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("tree-vectorize", "vect-cost-model=dynamic", "no-trapping-math")
#endif

namespace kv {

namespace {

inline void Store16(uint8_t* p, uint16_t v, bool bigEndian) {
  if (bigEndian) v = __builtin_bswap16(v);
  std::memcpy(p, &v, 2);
}

inline void Store32(uint8_t* p, uint32_t v, bool bigEndian) {
  if (bigEndian) v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}

constexpr int16_t MuLawExpand(uint8_t code) {
  int u = ~code & 0xFF;
  int t = ((u & 0x0F) << 3) + 0x84;
  t <<= (u & 0x70) >> 4;
  return static_cast<int16_t>((u & 0x80) ? 0x84 - t : t - 0x84);
}

constexpr int16_t ALawExpand(uint8_t code) {
  int a = code ^ 0x55;
  int t = (a & 0x0F) << 4;
  int seg = (a & 0x70) >> 4;
  if (seg == 0) {
    t += 8;
  } else {
    t += 0x108;
    t <<= seg - 1;
  }
  return static_cast<int16_t>((a & 0x80) ? t : -t);
}

template <int16_t (*Fn)(uint8_t)>
constexpr std::array<int16_t, 256> MakeTable() {
  std::array<int16_t, 256> t{};
  for (int i = 0; i < 256; ++i) t[i] = Fn(static_cast<uint8_t>(i));
  return t;
}

constexpr std::array<int16_t, 256> kMuLaw = MakeTable<MuLawExpand>();
constexpr std::array<int16_t, 256> kALaw = MakeTable<ALawExpand>();

constexpr int kSegmentEnd[8] = {0xFF, 0x1FF, 0x3FF, 0x7FF, 0xFFF, 0x1FFF, 0x3FFF, 0x7FFF};

inline int Segment(int magnitude) {
  int n = 0;
  while (n < 8 && magnitude > kSegmentEnd[n]) ++n;
  return n;
}

// trunc((f + 1) * scale + 0.5) limited to 0..top, in double: the float sum
// would round before the truncation and move some samples by one step.
inline int64_t Quantise(float f, double scale, double top) {
  double v = (static_cast<double>(f) + 1.0) * scale + 0.5;
  v = v > 0.0 ? v : 0.0;  // also takes NaN to 0
  v = v < top ? v : top;
  return static_cast<int64_t>(v);
}


// Float to 16-bit by the rule trunc((f + 1) * 32768 + 0.5) - 32768, clipped,
// in float and integer steps the vectoriser takes. f * 32768 is exact, and
// clamping it first to the ends gives the same ends (NaN goes to the bottom,
// as in the double formula). The rounding is then floor(x + 0.5) done
// exactly: the truncated value plus the exact fraction compared with +-0.5,
// where the plain float sum would round some values across a step.
inline int16_t FloatTo16(float f) {
  float x = f * 32768.0f;
  x = x > -32768.0f ? x : -32768.0f;
  x = x < 32767.0f ? x : 32767.0f;
  const int32_t t = static_cast<int32_t>(x);
  const float frac = x - static_cast<float>(t);
  return static_cast<int16_t>(t + (frac >= 0.5f ? 1 : 0) - (frac < -0.5f ? 1 : 0));
}

#if defined(__x86_64__)
// Four three-byte samples per shuffle: each lands in the top of a 32-bit
// lane, exactly as the scalar loop builds its word. SSSE3 is chosen at run
// time; every x86-64 machine of the last fifteen years has it.
template <bool BigEndian>
__attribute__((target("ssse3"))) std::size_t Pcm24Ssse3(const uint8_t* s, float* d, std::size_t n, uint32_t flip) {
  const __m128i shuffle = BigEndian ? _mm_setr_epi8(-1, 2, 1, 0, -1, 5, 4, 3, -1, 8, 7, 6, -1, 11, 10, 9)
                                    : _mm_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11);
  const __m128i flips = _mm_set1_epi32(static_cast<int32_t>(flip));
  const __m128 scale = _mm_set1_ps(kScale32);
  std::size_t i = 0;
  // A 16-byte load at 3 * i stays inside the data while i + 6 <= n; two per
  // round keep both shuffle ports busy.
  for (; i + 10 <= n; i += 8) {
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 3 * i));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 3 * i + 12));
    __m128i wa = _mm_xor_si128(_mm_shuffle_epi8(a, shuffle), flips);
    __m128i wb = _mm_xor_si128(_mm_shuffle_epi8(b, shuffle), flips);
    _mm_storeu_ps(d + i, _mm_mul_ps(_mm_cvtepi32_ps(wa), scale));
    _mm_storeu_ps(d + i + 4, _mm_mul_ps(_mm_cvtepi32_ps(wb), scale));
  }
  for (; i + 6 <= n; i += 4) {
    __m128i raw = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 3 * i));
    __m128i words = _mm_xor_si128(_mm_shuffle_epi8(raw, shuffle), flips);
    _mm_storeu_ps(d + i, _mm_mul_ps(_mm_cvtepi32_ps(words), scale));
  }
  return i;
}

bool HaveSsse3() {
  static const bool have = __builtin_cpu_supports("ssse3");
  return have;
}

// Byte order of 32-bit words reversed in place, four words per shuffle.
__attribute__((target("ssse3"))) std::size_t Swap32Ssse3(float* d, std::size_t n) {
  const __m128i shuffle = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + i));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(d + i + 4));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_shuffle_epi8(a, shuffle));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i + 4), _mm_shuffle_epi8(b, shuffle));
  }
  return i;
}

// The same eight lanes at a time where the processor has AVX2. A plain
// function rather than a lambda: lambdas do not inherit the target attribute.
__attribute__((target("avx2"))) static inline __m256i RoundEightAvx2(const float* p) {
  const __m256 x = _mm256_min_ps(_mm256_max_ps(_mm256_mul_ps(_mm256_loadu_ps(p), _mm256_set1_ps(32768.0f)),
                                               _mm256_set1_ps(-32768.0f)),
                                 _mm256_set1_ps(32767.0f));
  __m256i t = _mm256_cvttps_epi32(x);
  const __m256 frac = _mm256_sub_ps(x, _mm256_cvtepi32_ps(t));
  t = _mm256_sub_epi32(t, _mm256_castps_si256(_mm256_cmp_ps(frac, _mm256_set1_ps(0.5f), _CMP_GE_OQ)));
  return _mm256_add_epi32(t, _mm256_castps_si256(_mm256_cmp_ps(frac, _mm256_set1_ps(-0.5f), _CMP_LT_OQ)));
}

__attribute__((target("avx2"))) std::size_t FloatTo16Avx2(const float* s, int16_t* d, std::size_t n) {
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    // The pack works within 128-bit halves; the permute puts them in order.
    __m256i packed = _mm256_packs_epi32(RoundEightAvx2(s + i), RoundEightAvx2(s + i + 8));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(d + i), _mm256_permute4x64_epi64(packed, 0xD8));
  }
  return i;
}

// The scalar FloatTo16 four lanes at a time; SSE2 is the x86-64 baseline.
// MAXPS gives its second operand for NaN, so NaN goes to the bottom as there.
std::size_t FloatTo16Sse2(const float* s, int16_t* d, std::size_t n) {
  const __m128 scale = _mm_set1_ps(32768.0f), lo = _mm_set1_ps(-32768.0f), hi = _mm_set1_ps(32767.0f);
  const __m128 half = _mm_set1_ps(0.5f), minusHalf = _mm_set1_ps(-0.5f);
  auto four = [&](const float* p) {
    __m128 x = _mm_min_ps(_mm_max_ps(_mm_mul_ps(_mm_loadu_ps(p), scale), lo), hi);
    __m128i t = _mm_cvttps_epi32(x);
    __m128 frac = _mm_sub_ps(x, _mm_cvtepi32_ps(t));
    t = _mm_sub_epi32(t, _mm_castps_si128(_mm_cmpge_ps(frac, half)));    // mask -1: one up
    return _mm_add_epi32(t, _mm_castps_si128(_mm_cmplt_ps(frac, minusHalf)));  // one down
  };
  std::size_t i = 0;
  for (; i + 8 <= n; i += 8)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i), _mm_packs_epi32(four(s + i), four(s + i + 4)));
  return i;
}
#endif

template <bool BigEndian>
void Pcm16(const uint8_t* s, int16_t* d, std::size_t n, uint16_t flip) {
  for (std::size_t i = 0; i < n; ++i) {
    uint16_t v;
    std::memcpy(&v, s + 2 * i, 2);
    if constexpr (BigEndian) v = __builtin_bswap16(v);
    d[i] = static_cast<int16_t>(v ^ flip);
  }
}

// Reads four bytes per three-byte sample, so the last sample is done apart.
template <bool BigEndian>
void Pcm24(const uint8_t* s, float* d, std::size_t n, uint32_t flip) {
  auto word = [](uint32_t v) { return BigEndian ? __builtin_bswap32(v) & 0xFFFFFF00u : v << 8; };
  std::size_t i = 0;
#if defined(__x86_64__)
  if (HaveSsse3()) i = Pcm24Ssse3<BigEndian>(s, d, n, flip);
#endif
  for (; i + 1 < n; ++i) {
    uint32_t v;
    std::memcpy(&v, s + 3 * i, 4);
    d[i] = static_cast<float>(static_cast<int32_t>(word(v) ^ flip)) * kScale32;
  }
  if (i < n) {
    const uint8_t* p = s + 3 * i;
    const uint32_t v = BigEndian ? uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8
                                 : uint32_t{p[2]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[0]} << 8;
    d[i] = static_cast<float>(static_cast<int32_t>(v ^ flip)) * kScale32;
  }
}

template <bool BigEndian>
void Pcm32(const uint8_t* s, float* d, std::size_t n, uint32_t flip) {
  for (std::size_t i = 0; i < n; ++i) {
    uint32_t v;
    std::memcpy(&v, s + 4 * i, 4);
    if constexpr (BigEndian) v = __builtin_bswap32(v);
    d[i] = static_cast<float>(static_cast<int32_t>(v ^ flip)) * kScale32;
  }
}

}  // namespace

bool HaveAvx2() {
  static const bool have = __builtin_cpu_supports("avx2");
  return have;
}

// ---- to the 16-bit form ----

void kvDecodePcm8(std::span<const uint8_t> in, std::span<int16_t> out, bool isUnsigned) {
  const uint8_t* s = in.data();
  int16_t* d = out.data();
  const std::size_t n = out.size();
  const uint8_t flip = isUnsigned ? 0x80 : 0;
  for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<int16_t>(static_cast<uint16_t>((s[i] ^ flip) << 8));
}

void kvDecodePcm12(std::span<const uint8_t> in, std::span<int16_t> out, bool bigEndian, bool isUnsigned) {
  const uint8_t* s = in.data();
  int16_t* d = out.data();
  const std::size_t n = out.size();
  const uint16_t flip = isUnsigned ? 0x8000 : 0;
  std::size_t i = 0;
  for (; i + 1 < n; i += 2, s += 3) {
    uint16_t a, b;
    if (bigEndian) {
      a = static_cast<uint16_t>(s[0] << 8 | (s[1] & 0xF0));
      b = static_cast<uint16_t>((s[1] << 8 | s[2]) << 4);
    } else {
      a = static_cast<uint16_t>((s[1] << 8 | s[0]) << 4);
      b = static_cast<uint16_t>(s[2] << 8 | (s[1] & 0xF0));
    }
    d[i] = static_cast<int16_t>(a ^ flip);
    d[i + 1] = static_cast<int16_t>(b ^ flip);
  }
  if (i < n) {  // the last pair holds only its first sample, in two bytes
    uint16_t a = bigEndian ? static_cast<uint16_t>(s[0] << 8 | (s[1] & 0xF0))
                           : static_cast<uint16_t>((s[1] << 8 | s[0]) << 4);
    d[i] = static_cast<int16_t>(a ^ flip);
  }
}

void kvDecodePcm16(std::span<const uint8_t> in, std::span<int16_t> out, bool bigEndian, bool isUnsigned) {
  const uint16_t flip = isUnsigned ? 0x8000 : 0;
  if (bigEndian) {
    Pcm16<true>(in.data(), out.data(), out.size(), flip);
  } else {
    Pcm16<false>(in.data(), out.data(), out.size(), flip);
  }
}

void kvDecodePcm16InPlace(std::span<int16_t> data, bool bigEndian, bool isUnsigned) {
  if (!bigEndian && !isUnsigned) return;
  uint16_t* d = reinterpret_cast<uint16_t*>(data.data());
  const std::size_t n = data.size();
  const uint16_t flip = isUnsigned ? 0x8000 : 0;  // adding 0x8000 with wrap is a flip of the top bit
  if (bigEndian) {
    for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<uint16_t>(__builtin_bswap16(d[i]) ^ flip);
  } else {
    for (std::size_t i = 0; i < n; ++i) d[i] = static_cast<uint16_t>(d[i] ^ flip);
  }
}

void kvDecodeDelta8(std::span<const uint8_t> in, std::span<int16_t> out, bool isUnsigned) {
  const uint8_t* s = in.data();
  int16_t* d = out.data();
  const std::size_t n = out.size();
  const uint8_t flip = isUnsigned ? 0x80 : 0;
  uint8_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) {
    sum = static_cast<uint8_t>(sum + s[i]);
    d[i] = static_cast<int16_t>(static_cast<uint16_t>((sum ^ flip) << 8));
  }
}

void kvDecodeDelta16InPlace(std::span<int16_t> data, bool bigEndian, bool isUnsigned) {
  uint16_t* d = reinterpret_cast<uint16_t*>(data.data());
  const std::size_t n = data.size();
  const uint16_t flip = isUnsigned ? 0x8000 : 0;
  uint16_t sum = 0;
  for (std::size_t i = 0; i < n; ++i) {
    uint16_t v = bigEndian ? __builtin_bswap16(d[i]) : d[i];
    sum = static_cast<uint16_t>(sum + v);
    d[i] = static_cast<uint16_t>(sum ^ flip);
  }
}

void kvDecodeMuLaw(std::span<const uint8_t> in, std::span<int16_t> out) {
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = kMuLaw[in[i]];
}

void kvDecodeALaw(std::span<const uint8_t> in, std::span<int16_t> out) {
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = kALaw[in[i]];
}

int16_t kvMuLawToLinear(uint8_t code) { return kMuLaw[code]; }
int16_t kvALawToLinear(uint8_t code) { return kALaw[code]; }

// ---- to float ----

void kvDecodePcm20(std::span<const uint8_t> in, std::span<float> out, bool bigEndian, bool isUnsigned) {
  const uint8_t* s = in.data();
  float* d = out.data();
  const std::size_t n = out.size();
  const uint32_t flip = isUnsigned ? 0x80000000u : 0;
  // Negated scale: the inverted sign of this coding.
  const float scale = -kScale32;
  auto emit = [&](std::size_t i, uint32_t v20) {
    d[i] = static_cast<float>(static_cast<int32_t>((v20 << 12) ^ flip)) * scale;
  };
  std::size_t i = 0;
  // Whole groups: two samples in five bytes.
  for (; i + 1 < n; i += 2, s += 5) {
    if (bigEndian) {
      emit(i, uint32_t{s[0]} << 12 | uint32_t{s[1]} << 4 | s[2] >> 4);
      emit(i + 1, uint32_t(s[2] & 0x0F) << 16 | uint32_t{s[3]} << 8 | s[4]);
    } else {
      emit(i, uint32_t{s[0]} | uint32_t{s[1]} << 8 | uint32_t(s[2] & 0x0F) << 16);
      emit(i + 1, uint32_t{s[2]} >> 4 | uint32_t{s[3]} << 4 | uint32_t{s[4]} << 12);
    }
  }
  if (i < n) {  // odd count: the last value in three bytes, half of the last one unused
    if (bigEndian) {
      emit(i, uint32_t{s[0]} << 12 | uint32_t{s[1]} << 4 | s[2] >> 4);
    } else {
      emit(i, uint32_t{s[0]} | uint32_t{s[1]} << 8 | uint32_t(s[2] & 0x0F) << 16);
    }
  }
}

void kvDecodePcm24(std::span<const uint8_t> in, std::span<float> out, bool bigEndian, bool isUnsigned) {
  const uint32_t flip = isUnsigned ? 0x80000000u : 0;
  if (bigEndian) {
    Pcm24<true>(in.data(), out.data(), out.size(), flip);
  } else {
    Pcm24<false>(in.data(), out.data(), out.size(), flip);
  }
}

void kvDecodePcm32(std::span<const uint8_t> in, std::span<float> out, bool bigEndian, bool isUnsigned) {
  const uint32_t flip = isUnsigned ? 0x80000000u : 0;
  if (bigEndian) {
    Pcm32<true>(in.data(), out.data(), out.size(), flip);
  } else {
    Pcm32<false>(in.data(), out.data(), out.size(), flip);
  }
}

void kvDecodePcm32InPlace(std::span<float> data, bool bigEndian, bool isUnsigned) {
  // Element i is read before it is written and never read again.
  kvDecodePcm32({reinterpret_cast<const uint8_t*>(data.data()), data.size() * 4}, data, bigEndian, isUnsigned);
}

void kvDecodeFloat32InPlace(std::span<float> data, bool bigEndian) {
  if (!bigEndian) return;
  float* d = data.data();
  std::size_t i = 0;
#if defined(__x86_64__)
  if (HaveSsse3()) i = Swap32Ssse3(d, data.size());
#endif
  for (; i < data.size(); ++i) {
    uint32_t v;
    std::memcpy(&v, d + i, 4);
    v = __builtin_bswap32(v);
    std::memcpy(d + i, &v, 4);
  }
}

void kvDecodeFloat64(std::span<const uint8_t> in, std::span<float> out, bool bigEndian) {
  const uint8_t* s = in.data();
  for (std::size_t i = 0; i < out.size(); ++i) {
    uint64_t v;
    std::memcpy(&v, s + 8 * i, 8);
    if (bigEndian) v = __builtin_bswap64(v);
    double x;
    std::memcpy(&x, &v, 8);
    out[i] = static_cast<float>(x);
  }
}

// ---- between the memory forms ----

void kv16ToFloat(std::span<const int16_t> in, std::span<float> out) {
  const int16_t* s = in.data();
  float* d = out.data();
  for (std::size_t i = 0; i < out.size(); ++i) d[i] = static_cast<float>(s[i]) * kScale16;
}

void kvFloatTo16(std::span<const float> in, std::span<int16_t> out) {
  const float* s = in.data();
  int16_t* d = out.data();
  const std::size_t n = in.size();
  std::size_t i = 0;
#if defined(__x86_64__)
  if (HaveAvx2()) i = FloatTo16Avx2(s, d, n);
  i += FloatTo16Sse2(s + i, d + i, n - i);
#endif
  for (; i < n; ++i) d[i] = FloatTo16(s[i]);
}

int16_t kvFloatSampleTo16(float f) { return FloatTo16(f); }

// ---- out of the memory forms ----

void kvEncodePcm8(std::span<const int16_t> in, std::span<uint8_t> out, bool isUnsigned) {
  const int16_t* s = in.data();
  uint8_t* d = out.data();
  const uint8_t flip = isUnsigned ? 0x80 : 0;  // (s + 32768) >> 8 is the high byte with its top bit flipped
  for (std::size_t i = 0; i < in.size(); ++i) d[i] = static_cast<uint8_t>((static_cast<uint16_t>(s[i]) >> 8) ^ flip);
}

void kvEncodePcm16(std::span<const int16_t> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned) {
  // The common case is the memory form itself; the others get a loop each so
  // that none carries a per-sample branch.
  const bool swap = bigEndian == (std::endian::native == std::endian::little);
  const uint16_t flip = isUnsigned ? 0x8000 : 0;
  if (!swap && !flip) {
    std::memcpy(out.data(), in.data(), in.size() * 2);
    return;
  }
  uint8_t* d = out.data();
  if (swap) {
    for (std::size_t i = 0; i < in.size(); ++i) Store16(d + 2 * i, static_cast<uint16_t>(in[i]) ^ flip, true);
  } else {
    for (std::size_t i = 0; i < in.size(); ++i) Store16(d + 2 * i, static_cast<uint16_t>(in[i]) ^ flip, false);
  }
}

void kvEncodePcm24(std::span<const float> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned) {
  uint8_t* d = out.data();
  for (std::size_t i = 0; i < in.size(); ++i, d += 3) {
    uint32_t t = static_cast<uint32_t>(Quantise(in[i], 8388608.0, 16777215.0));
    if (!isUnsigned) t -= 0x800000;  // two's complement in the low 24 bits
    if (bigEndian) {
      d[0] = static_cast<uint8_t>(t >> 16);
      d[1] = static_cast<uint8_t>(t >> 8);
      d[2] = static_cast<uint8_t>(t);
    } else {
      d[0] = static_cast<uint8_t>(t);
      d[1] = static_cast<uint8_t>(t >> 8);
      d[2] = static_cast<uint8_t>(t >> 16);
    }
  }
}

void kvEncodePcm32(std::span<const float> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned) {
  for (std::size_t i = 0; i < in.size(); ++i) {
    uint32_t t = static_cast<uint32_t>(Quantise(in[i], 2147483648.0, 4294967295.0));
    if (!isUnsigned) t += 0x80000000u;
    Store32(out.data() + 4 * i, t, bigEndian);
  }
}

void kvEncodeFloat32(std::span<const float> in, std::span<uint8_t> out, bool bigEndian) {
  for (std::size_t i = 0; i < in.size(); ++i) {
    uint32_t v;
    std::memcpy(&v, &in[i], 4);
    Store32(out.data() + 4 * i, v, bigEndian);
  }
}

void kvEncodeFloat64(std::span<const float> in, std::span<uint8_t> out, bool bigEndian) {
  for (std::size_t i = 0; i < in.size(); ++i) {
    double x = in[i];
    uint64_t v;
    std::memcpy(&v, &x, 8);
    if (bigEndian) v = __builtin_bswap64(v);
    std::memcpy(out.data() + 8 * i, &v, 8);
  }
}

uint8_t kvLinearToMuLaw(int16_t s) {
  int magnitude = s < 0 ? ~s : s;
  int n = Segment(magnitude);
  int code = n < 8 ? n * 16 + ((magnitude >> (n + 3)) & 15) : 0x7F;
  return static_cast<uint8_t>(code ^ (s < 0 ? 0x7F : 0xFF));
}

uint8_t kvLinearToALaw(int16_t s) {
  // For -7..-1 the magnitude is negative and lands in segment 0 with all
  // mantissa bits set: those codes decode to the smallest negative step.
  int magnitude = s < 0 ? -8 - s : s;
  int n = Segment(magnitude);
  int code;
  if (n >= 8) {
    code = 0x7F;
  } else {
    code = n * 16 + ((n < 2 ? magnitude >> 4 : magnitude >> (n + 3)) & 15);
  }
  return static_cast<uint8_t>(code ^ (s < 0 ? 0x55 : 0xD5));
}

void kvEncodeMuLaw(std::span<const int16_t> in, std::span<uint8_t> out) {
  for (std::size_t i = 0; i < in.size(); ++i) out[i] = kvLinearToMuLaw(in[i]);
}

void kvEncodeALaw(std::span<const int16_t> in, std::span<uint8_t> out) {
  for (std::size_t i = 0; i < in.size(); ++i) out[i] = kvLinearToALaw(in[i]);
}

void kvEncodeDelta8(std::span<const int16_t> in, std::span<uint8_t> out, bool isUnsigned) {
  const uint8_t flip = isUnsigned ? 0x80 : 0;
  uint8_t last = 0;
  for (std::size_t i = 0; i < in.size(); ++i) {
    uint8_t v = static_cast<uint8_t>((static_cast<uint16_t>(in[i]) >> 8) ^ flip);
    out[i] = static_cast<uint8_t>(v - last);
    last = v;
  }
}

void kvEncodeDelta16(std::span<const int16_t> in, std::span<uint8_t> out, bool bigEndian, bool isUnsigned) {
  const uint16_t flip = isUnsigned ? 0x8000 : 0;
  uint16_t last = 0;
  for (std::size_t i = 0; i < in.size(); ++i) {
    uint16_t v = static_cast<uint16_t>(static_cast<uint16_t>(in[i]) ^ flip);
    Store16(out.data() + 2 * i, static_cast<uint16_t>(v - last), bigEndian);
    last = v;
  }
}

// ---- channel layout ----

namespace {

template <typename T>
void Interleave(std::span<const T> seq, std::span<T> out) {
  const std::size_t frames = out.size() / 2;
  const T* l = seq.data();
  const T* r = seq.data() + frames;
  T* d = out.data();
  for (std::size_t i = 0; i < frames; ++i) {
    d[2 * i] = l[i];
    d[2 * i + 1] = r[i];
  }
}

template <typename T>
void Deinterleave(std::span<const T> in, std::span<T> out) {
  const std::size_t frames = out.size() / 2;
  const T* s = in.data();
  T* l = out.data();
  T* r = out.data() + frames;
  for (std::size_t i = 0; i < frames; ++i) {
    l[i] = s[2 * i];
    r[i] = s[2 * i + 1];
  }
}

template <typename T>
void MonoToStereo(std::span<const T> mono, std::span<T> stereo) {
  const std::size_t frames = stereo.size() / 2;
  for (std::size_t i = 0; i < frames; ++i) stereo[2 * i] = stereo[2 * i + 1] = mono[i];
}

}  // namespace

void kvInterleave(std::span<const int16_t> s, std::span<int16_t> o) { Interleave(s, o); }
void kvInterleave(std::span<const float> s, std::span<float> o) { Interleave(s, o); }
void kvDeinterleave(std::span<const int16_t> s, std::span<int16_t> o) { Deinterleave(s, o); }
void kvDeinterleave(std::span<const float> s, std::span<float> o) { Deinterleave(s, o); }
void kvMonoToStereo(std::span<const int16_t> m, std::span<int16_t> s) { MonoToStereo(m, s); }
void kvMonoToStereo(std::span<const float> m, std::span<float> s) { MonoToStereo(m, s); }

void kvStereoToMono(std::span<const int16_t> stereo, std::span<int16_t> mono) {
  for (std::size_t i = 0; i < mono.size(); ++i) {
    mono[i] = static_cast<int16_t>((stereo[2 * i] + stereo[2 * i + 1]) / 2);
  }
}

void kvStereoToMono(std::span<const float> stereo, std::span<float> mono) {
  for (std::size_t i = 0; i < mono.size(); ++i) mono[i] = (stereo[2 * i] + stereo[2 * i + 1]) * 0.5f;
}

}  // namespace kv
