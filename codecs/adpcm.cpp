#include "codecs/adpcm.h"

#include <algorithm>
#include <cstdlib>

namespace kv {

namespace {

constexpr int16_t kImaSteps[89] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,    21,    23,    25,    28,
    31,    34,    37,    41,    45,    50,    55,    60,    66,    73,    80,    88,    97,    107,   118,
    130,   143,   157,   173,   190,   209,   230,   253,   279,   307,   337,   371,   408,   449,   494,
    544,   598,   658,   724,   796,   876,   963,   1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,
    2272,  2499,  2749,  3024,  3327,  3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,
    9493,  10442, 11487, 12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};

constexpr int8_t kImaIndex4[8] = {-1, -1, -1, -1, 2, 4, 6, 8};
// FFmpeg's tables for the narrow widths, by the code without its sign bit.
constexpr int8_t kImaIndex2[2] = {-1, 2};
constexpr int8_t kImaIndex3[4] = {-1, -1, 1, 2};

inline int32_t Clamp16(int32_t v) { return v < -32768 ? -32768 : v > 32767 ? 32767 : v; }

inline int32_t ClampIndex(int32_t i, int32_t top) { return i < 0 ? 0 : i > top ? top : i; }

// ---- IMA block framing ----

// Bytes of one group of a channel's stream and the frames it holds.
struct ImaGroup {
  uint32_t bytes;
  uint32_t frames;
};
ImaGroup ImaGroupOf(int bits) {
  switch (bits) {
    case 2: return {4, 16};
    case 3: return {12, 32};
    default: return {4, 8};
  }
}

// Byte `j` of channel `c`'s code stream: 4-byte groups, channels in turn.
inline std::size_t ImaStreamByte(std::size_t j, int channels, int c) {
  return 4u * channels + (j >> 2) * 4u * channels + 4u * c + (j & 3);
}

// The reference steps by table: for every step index and code the signed
// difference (shift and add, as the IMA/DVI reference computes it) and the
// next step index.
struct ImaTable {
  int32_t diff[89][16];
  uint8_t next[89][16];
};
constexpr ImaTable MakeImaTable() {
  ImaTable t{};
  for (int i = 0; i < 89; ++i)
    for (unsigned code = 0; code < 16; ++code) {
      const int32_t step = kImaSteps[i];
      int32_t diff = step >> 3;
      if (code & 1) diff += step >> 2;
      if (code & 2) diff += step >> 1;
      if (code & 4) diff += step;
      t.diff[i][code] = (code & 8) ? -diff : diff;
      const int next = i + kImaIndex4[code & 7];
      t.next[i][code] = static_cast<uint8_t>(next < 0 ? 0 : next > kImaMaxStepIndex ? kImaMaxStepIndex : next);
    }
  return t;
}
constexpr ImaTable kIma = MakeImaTable();

inline int16_t Ima4(int32_t& predictor, int32_t& index, unsigned code) {
  predictor = Clamp16(predictor + kIma.diff[index][code]);
  index = kIma.next[index][code];
  return static_cast<int16_t>(predictor);
}

}  // namespace

int16_t kvImaDecode4(ImaState& s, unsigned code) { return Ima4(s.predictor, s.stepIndex, code & 15); }

int16_t kvImaDecodeNarrow(ImaState& s, unsigned code, int bits) {
  const int shift = bits - 1;
  const unsigned magnitude = code & ((1u << shift) - 1);
  const int32_t step = kImaSteps[s.stepIndex];
  const int32_t diff = ((2 * static_cast<int32_t>(magnitude) + 1) * step) >> shift;
  s.predictor = Clamp16((code >> shift) & 1 ? s.predictor - diff : s.predictor + diff);
  const int adjust = bits == 2 ? kImaIndex2[magnitude] : kImaIndex3[magnitude];
  s.stepIndex = ClampIndex(s.stepIndex + adjust, kImaMaxStepIndex);
  return static_cast<int16_t>(s.predictor);
}

uint32_t kvImaBlockFrames(std::size_t bytes, int channels, int bits) {
  if (channels <= 0 || bytes < 4u * channels) return 0;
  if (bits == 4) {
    const uint64_t n = uint64_t{bytes / channels} * 2 - 7;
    return static_cast<uint32_t>(std::min<uint64_t>(n, UINT32_MAX));
  }
  const ImaGroup g = ImaGroupOf(bits);
  const uint64_t groups = (bytes - 4u * channels) / (uint64_t{g.bytes} * channels);
  return static_cast<uint32_t>(std::min<uint64_t>(1 + groups * g.frames, UINT32_MAX));
}

void kvDecodeImaBlock(std::span<const uint8_t> block, int channels, int bits, uint32_t frames, std::span<int16_t> out,
                      int outChannels) {
  if (frames == 0 || channels <= 0) return;
  const int keep = std::min(channels, outChannels);
  const uint8_t* b = block.data();
  const std::size_t size = block.size();
  auto byteAt = [&](std::size_t i) -> uint32_t { return i < size ? b[i] : 0; };
  // Stereo 4-bit blocks, whole: both channels' groups side by side, two
  // chains of dependent steps the processor can run at once.
  if (bits == 4 && channels == 2 && outChannels == 2 && (frames - 1) % 8 == 0 && 8 + (frames - 1) <= size) {
    int32_t p0 = static_cast<int16_t>(b[0] | (b[1] << 8)), i0 = std::min<int32_t>(b[2], kImaMaxStepIndex);
    int32_t p1 = static_cast<int16_t>(b[4] | (b[5] << 8)), i1 = std::min<int32_t>(b[6], kImaMaxStepIndex);
    int16_t* o = out.data();
    o[0] = static_cast<int16_t>(p0);
    o[1] = static_cast<int16_t>(p1);
    o += 2;
    for (const uint8_t* g = b + 8; g < b + 8 + (frames - 1); g += 8) {
      uint32_t l = g[0] | (uint32_t{g[1]} << 8) | (uint32_t{g[2]} << 16) | (uint32_t{g[3]} << 24);
      uint32_t r = g[4] | (uint32_t{g[5]} << 8) | (uint32_t{g[6]} << 16) | (uint32_t{g[7]} << 24);
      for (int n = 0; n < 8; ++n, l >>= 4, r >>= 4, o += 2) {
        o[0] = Ima4(p0, i0, l & 15);
        o[1] = Ima4(p1, i1, r & 15);
      }
    }
    return;
  }
  for (int c = 0; c < keep; ++c) {
    int16_t* o = out.data() + c;
    ImaState s;
    s.predictor = static_cast<int16_t>(byteAt(4u * c) | (byteAt(4u * c + 1) << 8));
    s.stepIndex = std::min<int32_t>(static_cast<int32_t>(byteAt(4u * c + 2)), kImaMaxStepIndex);
    o[0] = static_cast<int16_t>(s.predictor);
    o += outChannels;
    const uint32_t codes = frames - 1;
    if (bits == 4) {
      int32_t predictor = s.predictor, index = s.stepIndex;
      uint32_t k = 0;
      // Whole groups of 4 bytes (8 codes) straight from the block while they
      // lie inside it, then code by code.
      const std::size_t stride = 4u * channels;
      std::size_t at = 4u * channels + 4u * c;
      for (; k + 8 <= codes && at + 4 <= size; k += 8, at += stride) {
        uint32_t group = b[at] | (uint32_t{b[at + 1]} << 8) | (uint32_t{b[at + 2]} << 16) | (uint32_t{b[at + 3]} << 24);
        for (int n = 0; n < 8; ++n, group >>= 4) {
          *o = Ima4(predictor, index, group & 15);
          o += outChannels;
        }
      }
      for (std::size_t j = (at - 4u * channels - 4u * c) / stride * 4; k < codes; ++j) {
        const uint32_t byte = byteAt(ImaStreamByte(j, channels, c));
        *o = Ima4(predictor, index, byte & 0x0F);
        o += outChannels;
        if (++k == codes) break;
        *o = Ima4(predictor, index, byte >> 4);
        o += outChannels;
        ++k;
      }
    } else {
      // Least significant bit first through the channel's bytes.
      uint32_t acc = 0;
      int have = 0;
      std::size_t j = 0;
      const unsigned mask = (1u << bits) - 1;
      for (uint32_t k = 0; k < codes; ++k) {
        if (have < bits) {
          acc |= byteAt(ImaStreamByte(j++, channels, c)) << have;
          have += 8;
        }
        const unsigned code = acc & mask;
        acc >>= bits;
        have -= bits;
        o[0] = kvImaDecodeNarrow(s, code, bits);
        o += outChannels;
      }
    }
  }
}

// ---------------------------------------------------------------- MS ADPCM

namespace {
constexpr int32_t kMsAdaptation[16] = {230, 230, 230, 230, 307, 409, 512, 614, 768, 614, 512, 409, 307, 230, 230, 230};
}

uint32_t kvMsAdpcmBlockFrames(std::size_t bytes, int channels) {
  if (channels <= 0 || bytes < 7u * channels) return 0;
  const uint64_t n = 2 + 2 * uint64_t{(bytes - 7u * channels) / channels};
  return static_cast<uint32_t>(std::min<uint64_t>(n, UINT32_MAX));
}

bool kvDecodeMsAdpcmBlock(std::span<const uint8_t> block, int channels, std::span<const MsAdpcmCoefficients> table,
                          uint32_t frames, std::span<int16_t> out, int outChannels) {
  if (frames == 0 || channels <= 0) return true;
  const uint8_t* b = block.data();
  const std::size_t size = block.size();
  auto byteAt = [&](std::size_t i) -> uint32_t { return i < size ? b[i] : 0; };
  auto wordAt = [&](std::size_t i) { return static_cast<int16_t>(byteAt(i) | (byteAt(i + 1) << 8)); };
  const std::size_t ch = static_cast<std::size_t>(channels);
  for (std::size_t c = 0; c < ch; ++c)
    if (byteAt(c) >= table.size()) return false;
  const int keep = std::min(channels, outChannels);

  // Up to two channels are kept; the others are decoded nowhere, but the
  // codes of all are walked, as they interleave.
  int32_t delta[2] = {}, s1[2] = {}, s2[2] = {}, c1[2] = {}, c2[2] = {};
  for (int c = 0; c < keep; ++c) {
    const MsAdpcmCoefficients& k = table[byteAt(c)];
    c1[c] = k.first;
    c2[c] = k.second;
    delta[c] = wordAt(ch + 2 * c);
    s1[c] = wordAt(3 * ch + 2 * c);
    s2[c] = wordAt(5 * ch + 2 * c);
    out[c] = static_cast<int16_t>(s2[c]);
    if (frames > 1) out[outChannels + c] = static_cast<int16_t>(s1[c]);
  }
  if (frames <= 2) return true;

  const uint64_t codes = uint64_t{frames - 2} * ch;
  const std::size_t at = 7 * ch;
  int16_t* o = out.data() + 2 * outChannels;
  auto step = [&](int c, uint32_t code) {
    const int32_t d = delta[c];
    // libsndfile keeps the delta in 16 bits: a product past 32767 wraps.
    const int32_t next = static_cast<int16_t>((kMsAdaptation[code] * d) >> 8);
    delta[c] = next < 16 ? 16 : next;
    const int32_t signedCode = static_cast<int32_t>(code) - static_cast<int32_t>((code & 8) << 1);
    const int32_t sample = Clamp16(signedCode * d + ((s1[c] * c1[c] + s2[c] * c2[c]) >> 8));
    s2[c] = s1[c];
    s1[c] = sample;
    return static_cast<int16_t>(sample);
  };
  // The common layouts straight from the bytes while they lie in the block.
  if (ch <= 2 && outChannels == static_cast<int>(ch) && at + codes / 2 <= size) {
    const uint8_t* p = b + at;
    if (ch == 1) {
      uint64_t k = 0;
      for (; k + 2 <= codes; k += 2, ++p) {
        o[0] = step(0, *p >> 4);
        o[1] = step(0, *p & 0x0F);
        o += 2;
      }
      if (k < codes) *o = step(0, *p >> 4);
    } else {
      for (uint64_t f = 0; f < codes / 2; ++f, ++p, o += 2) {
        o[0] = step(0, *p >> 4);
        o[1] = step(1, *p & 0x0F);
      }
    }
    return true;
  }
  std::size_t c = 0;
  for (uint64_t k = 0; k < codes; ++k) {
    const uint32_t byte = byteAt(at + k / 2);
    const uint32_t code = (k & 1) ? (byte & 0x0F) : (byte >> 4);
    if (static_cast<int>(c) < keep) o[c] = step(static_cast<int>(c), code);
    if (++c == ch) {
      c = 0;
      o += outChannels;
    }
  }
  return true;
}

// ---------------------------------------------------------------- Dialogic

namespace {
constexpr int16_t kOkiSteps[49] = {16,  17,  19,  21,  23,  25,  28,  31,  34,  37,  41,  45,  50,   55,   60,   66,  73,
                                   80,  88,  97,  107, 118, 130, 143, 157, 173, 190, 209, 230,  253,  279,  307,  337,
                                   371, 408, 449, 494, 544, 598, 658, 724, 796, 876, 963, 1060, 1166, 1282, 1411, 1552};
constexpr int kOkiMaxStepIndex = 48;

// The magnitude a code adds, at 16-bit scale: ((2c + 1) * step) >> 3, the
// product form every open decoder (sox, libsndfile, FFmpeg) uses.
inline int32_t OkiDelta(int32_t step, unsigned code) { return (((2 * static_cast<int32_t>(code & 7) + 1) * step) >> 3) * 16; }
}  // namespace

int16_t kvDialogicDecode(DialogicState& s, unsigned code) {
  const int32_t d = OkiDelta(kOkiSteps[s.stepIndex], code);
  s.predictor = Clamp16(code & 8 ? s.predictor - d : s.predictor + d);
  s.stepIndex = ClampIndex(s.stepIndex + kImaIndex4[code & 7], kOkiMaxStepIndex);
  return static_cast<int16_t>(s.predictor);
}

namespace {

// The predictor a code leads to, or INT32_MIN when it would reach a limit:
// the encoder keeps inside OKI's 12-bit range, where every decoder (16-bit
// as here, sox and libsndfile, or 12-bit as the chip and FFmpeg) agrees.
inline int32_t OkiNext(const DialogicState& s, unsigned code) {
  const int32_t d = OkiDelta(kOkiSteps[s.stepIndex], code);
  const int32_t v = code & 8 ? s.predictor - d : s.predictor + d;
  return v < -2048 * 16 || v > 2047 * 16 ? INT32_MIN : v;
}

// The code for `x0` with the least squared error over it and, when given,
// the best code for the next sample `x1`.
unsigned DialogicChoose(const DialogicState& s, int32_t x0, const int16_t* x1) {
  unsigned best = 0;
  int64_t bestCost = INT64_MAX;
  for (unsigned code = 0; code < 16; ++code) {
    const int32_t v = OkiNext(s, code);
    if (v == INT32_MIN) continue;
    const int64_t e0 = x0 - v;
    int64_t cost = e0 * e0;
    if (cost >= bestCost) continue;
    if (x1) {
      DialogicState t = s;
      kvDialogicDecode(t, code);
      int64_t next = INT64_MAX;
      for (unsigned c1 = 0; c1 < 16; ++c1) {
        const int32_t w = OkiNext(t, c1);
        if (w == INT32_MIN) continue;
        next = std::min(next, (int64_t{*x1} - w) * (int64_t{*x1} - w));
      }
      cost += next == INT64_MAX ? 0 : next;
    }
    if (cost < bestCost) {
      bestCost = cost;
      best = code;
    }
  }
  return best;
}

}  // namespace

unsigned kvDialogicEncode(DialogicState& s, int16_t sample) {
  const unsigned code = DialogicChoose(s, sample, nullptr);
  kvDialogicDecode(s, code);
  return code;
}

void kvDecodeDialogic(std::span<const uint8_t> in, DialogicState& s, std::span<int16_t> out) {
  const std::size_t n = out.size();
  std::size_t i = 0;
  for (const uint8_t byte : in) {
    if (i >= n) break;
    out[i++] = kvDialogicDecode(s, byte >> 4);
    if (i >= n) break;
    out[i++] = kvDialogicDecode(s, byte & 0x0F);
  }
}

void kvEncodeDialogic(std::span<const int16_t> in, DialogicState& s, std::span<uint8_t> out) {
  const std::size_t n = in.size();
  auto encode = [&](std::size_t i) {
    const unsigned code = DialogicChoose(s, in[i], i + 1 < n ? &in[i + 1] : nullptr);
    kvDialogicDecode(s, code);
    return code;
  };
  for (std::size_t i = 0, o = 0; i < n; i += 2, ++o) {
    unsigned byte = encode(i) << 4;
    if (i + 1 < n) byte |= encode(i + 1);
    out[o] = static_cast<uint8_t>(byte);
  }
}

// ---------------------------------------------------------------- Yamaha

namespace {
constexpr int32_t kYamahaScale[8] = {230, 230, 230, 230, 307, 409, 512, 614};

inline int32_t YamahaDelta(int32_t step, unsigned code) { return (2 * static_cast<int32_t>(code & 7) + 1) * step / 8; }
}  // namespace

int16_t kvYamahaDecode(YamahaState& s, unsigned code) {
  const int32_t d = YamahaDelta(s.step, code);
  s.predictor = Clamp16(code & 8 ? s.predictor - d : s.predictor + d);
  s.step = std::clamp((s.step * kYamahaScale[code & 7]) >> 8, 127, 24576);
  return static_cast<int16_t>(s.predictor);
}

unsigned kvYamahaEncode(YamahaState& s, int16_t sample) {
  const int32_t target = sample;
  const unsigned sign = target < s.predictor ? 8 : 0;
  unsigned best = sign;
  int32_t bestError = INT32_MAX;
  for (unsigned m = 0; m < 8; ++m) {
    const int32_t d = YamahaDelta(s.step, m);
    const int32_t v = Clamp16(sign ? s.predictor - d : s.predictor + d);
    const int32_t e = std::abs(target - v);
    if (e < bestError) {
      bestError = e;
      best = sign | m;
    }
  }
  kvYamahaDecode(s, best);
  return best;
}

void kvDecodeYamaha(std::span<const uint8_t> in, YamahaState (&s)[2], int channels, uint64_t frames,
                    std::span<int16_t> out) {
  const uint8_t* p = in.data();
  const std::size_t size = in.size();
  if (channels == 2) {
    const uint64_t n = std::min<uint64_t>(frames, size);
    for (uint64_t f = 0; f < n; ++f) {
      out[2 * f] = kvYamahaDecode(s[0], p[f] & 0x0F);
      out[2 * f + 1] = kvYamahaDecode(s[1], p[f] >> 4);
    }
    return;
  }
  const uint64_t n = std::min<uint64_t>(frames, uint64_t{size} * 2);
  for (uint64_t i = 0; i < n; ++i) out[i] = kvYamahaDecode(s[0], (i & 1) ? p[i / 2] >> 4 : p[i / 2] & 0x0F);
}

namespace {

// The code for `x0` that leaves the smallest squared error over it and the
// best code for the channel's next sample `x1` (when there is one): a step
// of look-ahead, which the step size's adaption rewards over the nearest
// level alone.
unsigned YamahaChoose(const YamahaState& s, int32_t x0, const int16_t* x1) {
  unsigned best = 0;
  int64_t bestCost = INT64_MAX;
  for (unsigned code = 0; code < 16; ++code) {
    YamahaState t = s;
    const int64_t e0 = x0 - kvYamahaDecode(t, code);
    int64_t cost = e0 * e0;
    if (cost >= bestCost) continue;
    if (x1) {
      int64_t next = INT64_MAX;
      for (unsigned c1 = 0; c1 < 16; ++c1) {
        YamahaState u = t;
        const int64_t e1 = *x1 - kvYamahaDecode(u, c1);
        next = std::min(next, e1 * e1);
      }
      cost += next;
    }
    if (cost < bestCost) {
      bestCost = cost;
      best = code;
    }
  }
  return best;
}

unsigned YamahaEncodeAhead(YamahaState& s, int16_t x0, const int16_t* x1) {
  const unsigned code = YamahaChoose(s, x0, x1);
  kvYamahaDecode(s, code);
  return code;
}

}  // namespace

void kvEncodeYamaha(std::span<const int16_t> in, YamahaState (&s)[2], int channels, std::span<uint8_t> out) {
  const std::size_t n = in.size();
  auto next = [&](std::size_t i, std::size_t stride) { return i + stride < n ? &in[i + stride] : nullptr; };
  if (channels == 2) {
    for (std::size_t f = 0; 2 * f + 1 < n; ++f)
      out[f] = static_cast<uint8_t>(YamahaEncodeAhead(s[0], in[2 * f], next(2 * f, 2)) |
                                    (YamahaEncodeAhead(s[1], in[2 * f + 1], next(2 * f + 1, 2)) << 4));
    return;
  }
  for (std::size_t i = 0, o = 0; i < n; i += 2, ++o) {
    unsigned byte = YamahaEncodeAhead(s[0], in[i], next(i, 1));
    if (i + 1 < n) byte |= YamahaEncodeAhead(s[0], in[i + 1], next(i + 1, 1)) << 4;
    out[o] = static_cast<uint8_t>(byte);
  }
}

}  // namespace kv
