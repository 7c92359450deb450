// Rockwell ADPCM. Numbers are 16-bit fractions of 1 (32768): a product of
// two is doubled and its top half rounded ("adjusted"), as the modem's
// fixed-point code does; 32-bit sums are limited at every step.
#include "codecs/rockwell.h"

#include <algorithm>
#include <cmath>

#include "codecs/codepack.h"

namespace kv {

namespace {

constexpr int16_t kLevels[3][16] = {
    {-12370, -3709, 3709, 12370},
    {-17629, -11010, -6193, -2008, 2008, 6193, 11010, 17629},
    // 13255 is not the mirror of -13271: the modems' table has it so.
    {-22389, -16949, -13271, -10289, -7720, -5381, -3179, -1052, 1052, 3179, 5381, 7720, 10289, 13255, 16949,
     22389}};
constexpr int16_t kFactors[3][16] = {
    {13107, 6554, 6554, 13107},
    {14336, 10240, 7373, 7373, 7373, 7373, 10240, 14336},
    {19661, 16384, 13107, 9830, 7373, 7373, 7373, 7373, 7373, 7373, 7373, 7373, 9830, 13107, 16384, 19661}};
constexpr int16_t kMaxStep[3] = {21700, 15226, 11989};

constexpr int32_t kTapLeak = 32113;   // 64226 / 65536 once doubled
constexpr int32_t kPoleGain = 393;    // taps 0 and 1
constexpr int32_t kZeroGain = 197;    // taps 2 to 7
constexpr double kDeemphasis = 0.4;
constexpr double kReconstructedScale = 32728.0;

inline int Width(int bits) { return std::clamp(bits, 2, 4) - 2; }

inline int32_t Clip16(int32_t v) { return v < -32768 ? -32768 : v > 32767 ? 32767 : v; }
inline int64_t Clip32(int64_t v) { return v < INT32_MIN ? INT32_MIN : v > INT32_MAX ? INT32_MAX : v; }

// round(a * b / 32768) in the modems' form: the 32-bit product doubled
// (wrapping), its top half plus the bit below it.
inline int16_t RoundProduct(int32_t a, int32_t b) {
  const uint32_t x = static_cast<uint32_t>(a * b) << 1;
  return static_cast<int16_t>((x >> 16) + ((x >> 15) & 1));
}

// The 32-bit accumulator of the predictor: q in the top half plus the doubled
// products of the taps with the ring, limited after every term.
inline int32_t Predict(const RockwellState& s, int32_t q) {
  int64_t sum = static_cast<int64_t>(q) * 65536;
  for (int i = 0; i < 8; ++i) {
    const int32_t product = static_cast<int32_t>(static_cast<uint32_t>(s.taps[i] * s.ring[(s.at + i) & 7]) << 1);
    sum = Clip32(sum + product);
  }
  return static_cast<int32_t>(sum);
}

// The de-emphasised output for a reconstructed value `r` and the filter's
// last value; returns the new value, limited to -1..1.
inline double Deemphasis(double last, int16_t r) { return std::clamp(r / kReconstructedScale + kDeemphasis * last, -1.0, 1.0); }

// The 16-bit sample of the filter's value: y * 32768, rounded as the program
// turns float samples into 16 bits.
inline int16_t ToSample(double y) {
  const double t = std::floor((y + 1.0) * 32768.0 + 0.5);
  return static_cast<int16_t>(std::min<double>(std::max(t, 0.0) - 32768.0, 32767.0));
}

inline int16_t QuantisedValue(const RockwellState& s, unsigned code) {
  return static_cast<int16_t>(Clip16(RoundProduct(kLevels[Width(s.bits)][code], s.step) * 4));
}

// Everything after the reconstruction: the step, the taps and the ring.
void Advance(RockwellState& s, unsigned code, int16_t q, int16_t r) {
  const int w = Width(s.bits);
  const int32_t step = Clip16(RoundProduct(kFactors[w][code], s.step) * 4);
  s.step = std::clamp<int32_t>(step, kRockwellMinStep, kMaxStep[w]);
  for (int i = 0; i < 8; ++i) {
    int32_t tap = RoundProduct(s.taps[i], kTapLeak);
    const int16_t product = RoundProduct(q, s.ring[(s.at + i) & 7]);
    const int32_t gain = i < 2 ? kPoleGain : kZeroGain;
    tap += product < 0 ? -gain : gain;
    s.taps[i] = static_cast<int16_t>(Clip16(tap));
  }
  // The ring turns by one: the new output before the last, the new quantised
  // value two places on, over the oldest output.
  s.at = (s.at + 7) & 7;
  s.ring[s.at] = r;
  s.ring[(s.at + 2) & 7] = q;
}

}  // namespace

std::span<const int16_t> kvRockwellLevels(int bits) { return {kLevels[Width(bits)], std::size_t{1} << std::clamp(bits, 2, 4)}; }
std::span<const int16_t> kvRockwellStepFactors(int bits) {
  return {kFactors[Width(bits)], std::size_t{1} << std::clamp(bits, 2, 4)};
}
int16_t kvRockwellMaxStep(int bits) { return kMaxStep[Width(bits)]; }

void kvRockwellInit(RockwellState& state, int bits) {
  state = RockwellState{};
  state.bits = static_cast<int8_t>(std::clamp(bits, 2, 4));
}

int16_t kvRockwellDecode(RockwellState& s, unsigned code) {
  code &= (1u << s.bits) - 1;
  const int16_t q = QuantisedValue(s, code);
  s.sum = Predict(s, q);
  const int16_t r = static_cast<int16_t>(s.sum >> 16);
  s.emphasis = Deemphasis(s.emphasis, r);
  Advance(s, code, q, r);
  return ToSample(s.emphasis);
}

unsigned kvRockwellEncode(RockwellState& s, int16_t sample) {
  const unsigned codes = 1u << s.bits;
  unsigned best = 0;
  int32_t bestError = INT32_MAX;
  for (unsigned code = 0; code < codes; ++code) {
    const int16_t q = QuantisedValue(s, code);
    const int16_t r = static_cast<int16_t>(Predict(s, q) >> 16);
    const int32_t e = std::abs(ToSample(Deemphasis(s.emphasis, r)) - int32_t{sample});
    if (e < bestError) {
      bestError = e;
      best = code;
    }
  }
  kvRockwellDecode(s, best);
  return best;
}

void kvDecodeRockwell(std::span<const uint8_t> in, RockwellState& state, std::span<int16_t> out) {
  CodeReader codes(in, state.bits, false);
  for (int16_t& o : out) o = kvRockwellDecode(state, codes.Next());
}

void kvEncodeRockwell(std::span<const int16_t> in, RockwellState& state, std::span<uint8_t> out) {
  CodeWriter codes(out, state.bits, false);
  for (const int16_t v : in) codes.Put(kvRockwellEncode(state, v));
  codes.Flush();
}

}  // namespace kv
