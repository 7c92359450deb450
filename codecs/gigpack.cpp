#include "codecs/gigpack.h"

#include <algorithm>
#include <cstring>

namespace kv {

namespace {

struct ModeShape {
  int bits;    // per value
  int header;  // bytes per channel
};

// Mode table of a wave width; a mode without an entry ends the wave.
bool Shape(int mode, bool bits24, ModeShape& s) {
  static constexpr ModeShape k16[] = {{16, 0}, {8, 4}};
  static constexpr ModeShape k24[] = {{16, 0}, {8, 4}, {24, 0}, {16, 12}, {12, 12}, {8, 12}};
  if (mode < 0) return false;
  if (bits24) {
    if (mode > 5) return false;
    s = k24[mode];
  } else {
    if (mode > 1) return false;
    s = k16[mode];
  }
  return true;
}

int BlockFrames(bool bits24) { return bits24 ? kGigPackBlock24 : kGigPackBlock16; }

int16_t Get16(const uint8_t* p) { return static_cast<int16_t>(p[0] | (p[1] << 8)); }
int32_t Get24(const uint8_t* p) {
  const int32_t x = p[0] | (p[1] << 8) | (p[2] << 16);
  return (x & 0x800000) ? x - 0x1000000 : x;
}
int32_t Get12Lo(const uint8_t* p) {
  const int32_t x = p[0] | ((p[1] & 0x0F) << 8);
  return (x & 0x800) ? x - 0x1000 : x;
}
int32_t Get12Hi(const uint8_t* p) {
  const int32_t x = (p[1] >> 4) | (p[2] << 4);
  return (x & 0x800) ? x - 0x1000 : x;
}
// The low 24 bits as a signed value: the decoder's sums wrap as the stored
// three bytes do.
int32_t Wrap24(int64_t v) {
  const uint32_t u = static_cast<uint32_t>(v) & 0xFFFFFFu;
  return (u & 0x800000u) ? static_cast<int32_t>(u) - 0x1000000 : static_cast<int32_t>(u);
}

// One block's layout: the modes, and where it ends.
struct Block {
  int mode[2] = {0, 0};
  ModeShape shape[2];
  uint64_t frames = 0;  // in this block
  uint64_t start = 0;   // first byte after the mode bytes
  uint64_t next = 0;    // first byte of the next block
  bool last = false;
};

// The block at `pos`; false when the data ends or a mode ends the wave.
bool NextBlock(std::span<const uint8_t> data, uint64_t pos, int channels, bool bits24, Block& b) {
  if (pos + static_cast<uint64_t>(channels) > data.size()) return false;
  for (int c = 0; c < channels; ++c) {
    b.mode[c] = data[pos + c];
    if (!Shape(b.mode[c], bits24, b.shape[c])) return false;
  }
  b.start = pos + channels;
  uint64_t body = 0;
  kvGigPackBlockSize(data.data() + pos, channels, bits24, data.size() - b.start, b.frames, body, b.last);
  b.next = b.start + body;
  return true;
}

// Third-order state of the 24-bit modes.
struct Third {
  // Wider than the values: only the low 24 bits of y count, and sums of
  // adds and negations keep those whatever the width.
  int64_t y, dy, ddy, dddy;
  explicit Third(const uint8_t* h) : y(Get24(h)), dy(y - Get24(h + 3)), ddy(Get24(h + 6)), dddy(Get24(h + 9)) {}
  int32_t Step(int32_t d) {
    dddy -= d;
    ddy -= dddy;
    dy = -dy - ddy;
    y += dy;
    return Wrap24(y);
  }
};

// Decodes one channel of a 24-bit block: `src` its values, `hdr` its header.
void Channel24(int mode, const uint8_t* hdr, const uint8_t* src, uint64_t n, int32_t* out, int step) {
  switch (mode) {
    case 0:
      for (uint64_t i = 0; i < n; ++i) out[i * step] = Get16(src + 2 * i) * 256;
      break;
    case 1:
      for (uint64_t i = 0; i < n; ++i) out[i * step] = static_cast<int8_t>(src[i]) * 65536;
      break;
    case 2:
      for (uint64_t i = 0; i < n; ++i) out[i * step] = Get24(src + 3 * i);
      break;
    case 3: {
      Third t(hdr);
      for (uint64_t i = 0; i < n; ++i) out[i * step] = t.Step(Get16(src + 2 * i));
      break;
    }
    case 4: {
      Third t(hdr);
      for (uint64_t i = 0; i < n; ++i) {
        const uint8_t* p = src + 3 * (i / 2);
        out[i * step] = t.Step((i & 1) ? Get12Hi(p) : Get12Lo(p));
      }
      break;
    }
    case 5: {
      Third t(hdr);
      for (uint64_t i = 0; i < n; ++i) out[i * step] = t.Step(static_cast<int8_t>(src[i]));
      break;
    }
    default:
      break;
  }
}

// Bytes a channel's values take in a block of n frames; the left side of a
// 24-bit stereo block with an odd 12-bit count keeps the whole last triple.
uint64_t ValueBytes(const ModeShape& s, uint64_t n, bool padTriple) {
  if (s.bits == 12) return padTriple ? (n + 1) / 2 * 3 : (n * 12 + 7) / 8;
  return n * s.bits / 8;
}

template <typename T, bool kBits24>
void Decode(std::span<const uint8_t> data, int channels, std::span<T> out) {
  channels = std::clamp(channels, 1, 2);
  const uint64_t total = out.size() / channels;
  uint64_t done = 0, pos = 0;
  Block b;
  // A block's bytes are copied to a zeroed buffer first, so that a block cut
  // short by the end of the data reads zeros, never past it.
  static constexpr std::size_t kMaxBlock = kBits24 ? 2 * (12 + 3 * kGigPackBlock24) : 2 * (4 + 2 * kGigPackBlock16);
  uint8_t buf[kMaxBlock + 8];
  while (done < total && NextBlock(data, pos, channels, kBits24, b)) {
    const uint64_t n = std::min<uint64_t>(b.frames, total - done);
    const std::size_t have = static_cast<std::size_t>(std::min<uint64_t>(b.next - b.start, kMaxBlock));
    std::memcpy(buf, data.data() + b.start, have);
    std::memset(buf + have, 0, sizeof buf - have);
    const uint8_t* hdr[2] = {buf, buf + b.shape[0].header};
    const uint8_t* values = buf + b.shape[0].header + (channels == 2 ? b.shape[1].header : 0);
    T* dst = out.data() + done * channels;
    if constexpr (kBits24) {
      Channel24(b.mode[0], hdr[0], values, n, dst, channels);
      if (channels == 2) {
        const uint64_t leftBytes = b.last ? ValueBytes(b.shape[0], b.frames, true)
                                          : static_cast<uint64_t>(kGigPackBlock24) * b.shape[0].bits / 8;
        if (leftBytes < kMaxBlock) Channel24(b.mode[1], hdr[1], values + leftBytes, n, dst + 1, 2);
      }
    } else {
      // 16-bit frames interleave the channels, each value 2 or 1 bytes.
      const int width[2] = {b.mode[0] ? 1 : 2, channels == 2 ? (b.mode[1] ? 1 : 2) : 0};
      const int stride = width[0] + width[1];
      for (int c = 0; c < channels; ++c) {
        const uint8_t* src = values + (c ? width[0] : 0);
        T* o = dst + c;
        if (b.mode[c] == 0) {
          for (uint64_t i = 0; i < n; ++i) o[i * channels] = Get16(src + i * stride);
        } else {
          int32_t y = Get16(hdr[c]), dy = Get16(hdr[c] + 2);
          for (uint64_t i = 0; i < n; ++i) {
            dy -= static_cast<int8_t>(src[i * stride]);
            y -= dy;
            o[i * channels] = static_cast<int16_t>(y);
          }
        }
      }
    }
    done += n;
    if (b.last) break;
    pos = b.next;
  }
  std::fill(out.begin() + static_cast<std::ptrdiff_t>(done * channels), out.end(), T{0});
}

void Put16(std::vector<uint8_t>& out, int32_t v) {
  out.push_back(static_cast<uint8_t>(v));
  out.push_back(static_cast<uint8_t>(v >> 8));
}
void Put24(std::vector<uint8_t>& out, int32_t v) {
  Put16(out, v);
  out.push_back(static_cast<uint8_t>(v >> 16));
}

// The 8-bit mode's header: the sample before the first and the first
// difference, extrapolated from the first two so that a steady slope costs
// no delta; plain (first, 0) where that leaves 16 bits.
void Header16(const int16_t* in, int step, int n, int32_t& y, int32_t& dy) {
  y = in[0];
  dy = 0;
  if (n < 2) return;
  const int32_t before = 2 * in[0] - in[step];
  if (before < -32768 || before > 32767) return;
  y = before;
  dy = before - in[0];
}

// Second-order deltas of the 8-bit mode; false when one doesn't fit.
bool Deltas16(const int16_t* in, int step, int n, int32_t y, int32_t dy, int8_t* d) {
  for (int i = 0; i < n; ++i) {
    const int32_t v = in[i * step];
    const int32_t ndy = y - v;
    const int32_t delta = dy - ndy;
    if (delta < -128 || delta > 127) return false;
    d[i] = static_cast<int8_t>(delta);
    dy = ndy;
    y = v;
  }
  return true;
}

// The third-order header (h0..h3): a virtual history before the first
// sample that continues its first slope, or (first, first, 0, 0) where that
// history leaves 24 bits.
struct Header24 {
  int32_t h[4];
};
Header24 MakeHeader24(const int32_t* in, int n) {
  Header24 hd{{in[0], in[0], 0, 0}};
  if (n < 2) return hd;
  const int64_t c = int64_t{in[1]} - in[0];
  const int64_t h0 = int64_t{in[0]} - c, h1 = h0 - c, h2 = -2 * c;
  auto fits = [](int64_t v) { return v >= -(1 << 23) && v < (1 << 23); };
  if (fits(h0) && fits(h1) && fits(h2)) hd = {{static_cast<int32_t>(h0), static_cast<int32_t>(h1), static_cast<int32_t>(h2), 0}};
  return hd;
}

// Third-order deltas after the header; returns the widest one.
int32_t Deltas24(const int32_t* in, int n, const Header24& hd, int32_t* d) {
  int64_t y = hd.h[0], dy = int64_t{hd.h[0]} - hd.h[1], ddy = hd.h[2], dddy = hd.h[3], widest = 0;
  for (int i = 0; i < n; ++i) {
    const int64_t v = in[i];
    const int64_t ndy = v - y;
    const int64_t nddy = -dy - ndy;
    const int64_t ndddy = ddy - nddy;
    const int64_t delta = dddy - ndddy;
    d[i] = static_cast<int32_t>(std::clamp<int64_t>(delta, INT32_MIN, INT32_MAX));
    widest = std::max(widest, delta < 0 ? -delta - 1 : delta);
    y = v;
    dy = ndy;
    ddy = nddy;
    dddy = ndddy;
  }
  return static_cast<int32_t>(std::min<int64_t>(widest, INT32_MAX));
}

}  // namespace

bool kvGigPackBlockSize(const uint8_t* modes, int channels, bool bits24, uint64_t remaining, uint64_t& frames,
                        uint64_t& body, bool& last) {
  uint64_t full = 0, headers = 0, bits = 0;
  const int blockFrames = BlockFrames(bits24);
  for (int c = 0; c < channels; ++c) {
    ModeShape s;
    if (!Shape(modes[c], bits24, s)) return false;
    full += static_cast<uint64_t>(blockFrames) * s.bits / 8 + s.header;
    headers += s.header;
    bits += s.bits;
  }
  // The last block is the one the data doesn't pass; its frames are what
  // its bytes hold.
  last = remaining <= full;
  if (last) {
    frames = remaining > headers ? std::min<uint64_t>((remaining - headers) * 8 / bits, blockFrames) : 0;
    body = remaining;
  } else {
    frames = blockFrames;
    body = full;
  }
  return true;
}

uint64_t kvGigPackFrames(std::span<const uint8_t> data, int channels, bool bits24) {
  channels = std::clamp(channels, 1, 2);
  uint64_t frames = 0, pos = 0;
  Block b;
  while (NextBlock(data, pos, channels, bits24, b)) {
    frames += b.frames;
    if (b.last) break;
    pos = b.next;
  }
  return frames;
}

void kvGigPackDecode16(std::span<const uint8_t> data, int channels, std::span<int16_t> out) {
  Decode<int16_t, false>(data, channels, out);
}

void kvGigPackDecode24(std::span<const uint8_t> data, int channels, std::span<int32_t> out) {
  Decode<int32_t, true>(data, channels, out);
}

void kvGigPackEncode16(std::span<const int16_t> in, int channels, std::vector<uint8_t>& out, int forceMode) {
  channels = std::clamp(channels, 1, 2);
  const std::size_t frames = in.size() / channels;
  int8_t deltas[2][kGigPackBlock16];
  for (std::size_t at = 0; at < frames; at += kGigPackBlock16) {
    const int n = static_cast<int>(std::min<std::size_t>(kGigPackBlock16, frames - at));
    const int16_t* src = in.data() + at * channels;
    int mode[2] = {0, 0};
    int32_t y[2] = {0, 0}, dy[2] = {0, 0};
    for (int c = 0; c < channels; ++c) {
      Header16(src + c, channels, n, y[c], dy[c]);
      mode[c] = forceMode != 0 && Deltas16(src + c, channels, n, y[c], dy[c], deltas[c]) ? 1 : 0;
    }
    for (int c = 0; c < channels; ++c) out.push_back(static_cast<uint8_t>(mode[c]));
    for (int c = 0; c < channels; ++c)
      if (mode[c]) {
        Put16(out, y[c]);
        Put16(out, dy[c]);
      }
    for (int i = 0; i < n; ++i)
      for (int c = 0; c < channels; ++c) {
        if (mode[c]) out.push_back(static_cast<uint8_t>(deltas[c][i]));
        else Put16(out, src[i * channels + c]);
      }
  }
}

void kvGigPackEncode24(std::span<const int32_t> in, int channels, std::vector<uint8_t>& out, int forceMode) {
  channels = std::clamp(channels, 1, 2);
  const std::size_t frames = in.size() / channels;
  int32_t deltas[2][kGigPackBlock24];
  int32_t values[2][kGigPackBlock24];
  for (std::size_t at = 0; at < frames; at += kGigPackBlock24) {
    const int n = static_cast<int>(std::min<std::size_t>(kGigPackBlock24, frames - at));
    int mode[2] = {2, 2};
    Header24 hd[2];
    for (int c = 0; c < channels; ++c) {
      for (int i = 0; i < n; ++i) values[c][i] = Wrap24(in[(at + i) * channels + c]);
      hd[c] = MakeHeader24(values[c], n);
      const int32_t widest = Deltas24(values[c], n, hd[c], deltas[c]);
      const int fits = widest < 128 ? 5 : widest < 2048 ? 4 : widest < 32768 ? 3 : 2;
      // The smallest mode that is exact, or the one asked for if it is.
      mode[c] = (forceMode >= 2 && forceMode <= 5 && (forceMode == 2 || forceMode <= fits)) ? forceMode : fits;
    }
    for (int c = 0; c < channels; ++c) out.push_back(static_cast<uint8_t>(mode[c]));
    for (int c = 0; c < channels; ++c)
      if (mode[c] != 2)
        for (int32_t h : hd[c].h) Put24(out, h);
    for (int c = 0; c < channels; ++c) {
      const int32_t* v = values[c];
      const int32_t* d = deltas[c];
      switch (mode[c]) {
        case 2:
          for (int i = 0; i < n; ++i) Put24(out, v[i]);
          break;
        case 3:
          for (int i = 0; i < n; ++i) Put16(out, d[i]);
          break;
        case 4: {
          for (int i = 0; i + 1 < n; i += 2) {
            out.push_back(static_cast<uint8_t>(d[i]));
            out.push_back(static_cast<uint8_t>(((d[i] >> 8) & 0x0F) | ((d[i + 1] & 0x0F) << 4)));
            out.push_back(static_cast<uint8_t>(d[i + 1] >> 4));
          }
          if (n & 1) {
            // A lone last value: two bytes, or the whole triple on the left
            // of a stereo block, where the right side starts after it.
            out.push_back(static_cast<uint8_t>(d[n - 1]));
            out.push_back(static_cast<uint8_t>((d[n - 1] >> 8) & 0x0F));
            if (channels == 2 && c == 0) out.push_back(0);
          }
          break;
        }
        case 5:
          for (int i = 0; i < n; ++i) out.push_back(static_cast<uint8_t>(d[i]));
          break;
        default:
          break;
      }
    }
  }
}

}  // namespace kv
