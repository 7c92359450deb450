// GigaStudio block coding: exact round trips in every mode, the frame walk,
// the modes the encoder must pick, and damaged data.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "codecs/gigpack.h"

namespace kv {
namespace {

// Values whose third-order (24-bit) or second-order (16-bit) deltas are
// random within `width` bits: each mode then has blocks it can hold.
std::vector<int32_t> Walk(std::size_t n, int width, bool bits24, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> pick(-(1 << (width - 1)), (1 << (width - 1)) - 1);
  std::vector<int32_t> v(n);
  const int64_t lo = bits24 ? -(1 << 23) : -32768, hi = bits24 ? (1 << 23) - 1 : 32767;
  int64_t y = 0, dy = 0;
  for (std::size_t i = 0; i < n; ++i) {
    dy = width >= (bits24 ? 24 : 16) ? 0 : dy / 2 + pick(rng) / 4;
    y = width >= (bits24 ? 24 : 16) ? pick(rng) : std::clamp<int64_t>(y + dy, lo / 2, hi / 2);
    v[i] = static_cast<int32_t>(y);
  }
  return v;
}

TEST(GigPack, RoundTripsEveryModeWidthAndChannelCount) {
  for (int channels : {1, 2}) {
    // 16-bit: modes 0 and 1, lengths over a block boundary and odd.
    for (int mode : {-1, 0, 1}) {
      for (std::size_t frames : {std::size_t{0}, std::size_t{1}, std::size_t{2047}, std::size_t{4097}}) {
        const std::vector<int32_t> w = Walk(frames * channels, mode == 0 ? 16 : 6, false, 7 + frames);
        std::vector<int16_t> in(w.begin(), w.end());
        std::vector<uint8_t> coded;
        kvGigPackEncode16(in, channels, coded, mode);
        EXPECT_EQ(kvGigPackFrames(coded, channels, false), frames);
        std::vector<int16_t> out(in.size() + 6 * channels, 99);
        kvGigPackDecode16(coded, channels, out);
        for (std::size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], in[i]) << channels << " " << mode << " " << i;
        for (std::size_t i = in.size(); i < out.size(); ++i) ASSERT_EQ(out[i], 0);
        if (mode == 1 && frames > 1) {
          EXPECT_EQ(coded[0], 1);
        }
      }
    }
    // 24-bit: modes 2-5 and the encoder's choice, odd last blocks (12-bit).
    for (int mode : {-1, 2, 3, 4, 5}) {
      const int width = mode == 2 ? 24 : mode == 3 ? 12 : mode == 4 ? 9 : 5;
      for (std::size_t frames : {std::size_t{1}, std::size_t{255}, std::size_t{513}}) {
        const std::vector<int32_t> in = Walk(frames * channels, mode == -1 ? 14 : width, true, 3 + frames);
        std::vector<uint8_t> coded;
        kvGigPackEncode24(in, channels, coded, mode);
        EXPECT_EQ(kvGigPackFrames(coded, channels, true), frames) << channels << " " << mode;
        std::vector<int32_t> out(in.size());
        kvGigPackDecode24(coded, channels, out);
        EXPECT_EQ(out, in) << channels << " " << mode << " " << frames;
      }
    }
  }
}

TEST(GigPack, EncoderPicksTheSmallestExactMode) {
  // A slow ramp fits 8-bit deltas: never the raw mode.
  std::vector<int16_t> ramp(3000);
  for (std::size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<int16_t>(i * 3);
  std::vector<uint8_t> coded;
  kvGigPackEncode16(ramp, 1, coded);
  EXPECT_EQ(coded[0], 1);
  EXPECT_EQ(coded.size(), 2u + 4 + 2048 + 4 + (3000 - 2048));
  // A full-scale step needs 16 bits.
  std::vector<int16_t> step(10, 0);
  step[5] = 32767;
  coded.clear();
  kvGigPackEncode16(step, 1, coded);
  EXPECT_EQ(coded[0], 0);
  EXPECT_EQ(coded.size(), 1u + 20);

  std::vector<int32_t> ramp24(256);
  for (int i = 0; i < 256; ++i) ramp24[i] = i * 1000 - 100000;
  coded.clear();
  kvGigPackEncode24(ramp24, 1, coded);
  EXPECT_EQ(coded[0], 5);
  EXPECT_EQ(coded.size(), 1u + 12 + 256);
}

TEST(GigPack, DamagedDataEndsInZeros) {
  std::vector<int16_t> in(5000, 1234);
  std::vector<uint8_t> coded;
  kvGigPackEncode16(in, 2, coded, 0);
  // Cut inside the second block: its frames are what the bytes hold.
  coded.resize(2 + 2048 * 4 + 2 + 400);
  EXPECT_EQ(kvGigPackFrames(coded, 2, false), 2048u + 100);
  std::vector<int16_t> out(10000, 7);
  kvGigPackDecode16(coded, 2, out);
  EXPECT_EQ(out[2 * 2148 - 1], 1234);
  EXPECT_EQ(out[2 * 2148], 0);
  // A mode above the table ends the wave.
  coded[2 + 2048 * 4] = 6;
  EXPECT_EQ(kvGigPackFrames(coded, 2, false), 2048u);
  // Nothing at all, or a lone header.
  EXPECT_EQ(kvGigPackFrames({}, 1, true), 0u);
  const uint8_t lone[] = {4, 1, 2};
  EXPECT_EQ(kvGigPackFrames(lone, 1, true), 0u);
  std::vector<int32_t> out24(8, 5);
  kvGigPackDecode24(lone, 1, out24);
  EXPECT_EQ(out24, std::vector<int32_t>(8, 0));
}

}  // namespace
}  // namespace kv
