// ETSI GSM 06.10 full-rate speech: 160 samples at 8000 Hz to 260 bits and
// back, by the standard's fixed-point steps (every quantity it keeps in 16
// bits is an int16_t here and saturates or wraps where the standard's
// operators do). Two framings: the 33-byte frame with its 0xD nibble, bits
// most significant first, and the WAVE pair, two frames in 65 bytes with
// no nibble, bits least significant first. Neither side allocates.
#pragma once

#include <cstdint>
#include <span>

namespace kv {

inline constexpr int kGsmFrameSamples = 160;
inline constexpr int kGsmFrameBytes = 33;
inline constexpr int kGsmPairBytes = 65;  // two frames, 320 samples

// The parameters of one frame, as the bit stream holds them.
struct GsmParameters {
  uint8_t larc[8];    // log area ratios, 6, 6, 5, 5, 4, 4, 3, 3 bits
  uint8_t nc[4];      // long-term lag, 7 bits
  uint8_t bc[4];      // long-term gain, 2 bits
  uint8_t mc[4];      // grid position, 2 bits
  uint8_t xmaxc[4];   // block amplitude, 6 bits
  uint8_t xmc[4][13]; // the pulses, 3 bits
};

struct GsmDecoderState {
  int16_t drp[160] = {};      // reconstructed residual: 120 past samples, then the subframe
  int16_t larpp[2][8] = {};   // decoded log area ratios of this frame and the last
  int16_t v[9] = {};          // synthesis lattice
  int16_t nrp = 40;           // the last valid lag
  int16_t msr = 0;            // de-emphasis
  int8_t j = 0;               // which larpp is the current frame's
};

struct GsmEncoderState {
  int16_t dp[280] = {};       // reconstructed residual: 120 past samples, then the frame
  int16_t larpp[2][8] = {};
  int16_t u[8] = {};          // analysis lattice
  int32_t z2 = 0;             // offset compensation
  int16_t z1 = 0;
  int16_t mp = 0;             // pre-emphasis
  int8_t j = 0;
};

// Parameters to 160 samples.
void kvGsmDecodeParameters(GsmDecoderState& state, const GsmParameters& p, std::span<int16_t, 160> out);
// 160 samples to parameters.
void kvGsmEncodeParameters(GsmEncoderState& state, std::span<const int16_t, 160> in, GsmParameters& p);

// The 33-byte frame. False, with nothing decoded, when its top nibble is not
// 0xD: the caller names the stream corrupt.
bool kvGsmUnpackFrame(std::span<const uint8_t, 33> frame, GsmParameters& p);
void kvGsmPackFrame(const GsmParameters& p, std::span<uint8_t, 33> frame);
// The 65-byte pair: frame 0 in bits 0-259, frame 1 in bits 260-519.
void kvGsmUnpackPair(std::span<const uint8_t, 65> pair, GsmParameters& first, GsmParameters& second);
void kvGsmPackPair(const GsmParameters& first, const GsmParameters& second, std::span<uint8_t, 65> pair);

// Whole frames in one call; the decoders return false on a bad nibble.
bool kvGsmDecodeFrame(GsmDecoderState& state, std::span<const uint8_t, 33> frame, std::span<int16_t, 160> out);
void kvGsmDecodePair(GsmDecoderState& state, std::span<const uint8_t, 65> pair, std::span<int16_t, 320> out);
void kvGsmEncodeFrame(GsmEncoderState& state, std::span<const int16_t, 160> in, std::span<uint8_t, 33> frame);
void kvGsmEncodePair(GsmEncoderState& state, std::span<const int16_t, 320> in, std::span<uint8_t, 65> pair);

}  // namespace kv
