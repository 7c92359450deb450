// Rockwell modem ADPCM (HotFax, QuickLink and the voice modems' "AT#VBS"
// 2, 3 and 4-bit compression): per code a
// level and a step factor from 16-entry tables, an 8-tap adaptive pole and
// zero predictor on one ring of eight history values, and a de-emphasis of
// the output. Codes are packed least significant bit first (CodeReader with
// msbFirst false). No allocation.
#pragma once

#include <cstdint>
#include <span>

namespace kv {

struct RockwellState {
  int16_t taps[8] = {};  // a1 a2 b1..b6
  int16_t ring[8] = {};  // the history: ring[at], ring[at+1] are the last two outputs, then six quantised values
  int32_t at = 0;        // ring position of the last output
  int32_t step = 31;     // Nu: 31 up to the width's largest step
  double emphasis = 0.0; // the de-emphasis filter's last value, -1..1
  int32_t sum = 0;       // the last predictor accumulator, whose top half is the reconstruction
  int8_t bits = 4;
};

// The tables, indexed by code, for a width of 2, 3 or 4 bits.
std::span<const int16_t> kvRockwellLevels(int bits);
std::span<const int16_t> kvRockwellStepFactors(int bits);
int16_t kvRockwellMaxStep(int bits);
inline constexpr int16_t kRockwellMinStep = 31;

void kvRockwellInit(RockwellState& state, int bits);
int16_t kvRockwellDecode(RockwellState& state, unsigned code);
// The code whose decoding comes nearest `sample`; the state moves as the
// decoder's does.
unsigned kvRockwellEncode(RockwellState& state, int16_t sample);

// Runs of samples; codes least significant bit first. Counts as in
// kvDecodeG72x / kvEncodeG72x.
void kvDecodeRockwell(std::span<const uint8_t> in, RockwellState& state, std::span<int16_t> out);
void kvEncodeRockwell(std::span<const int16_t> in, RockwellState& state, std::span<uint8_t> out);

}  // namespace kv
