// CCITT ADPCM: ITU-T G.721 (32 kbit/s, 4 bits), G.723 (24 and 40 kbit/s, 3
// and 5 bits) and G.726 (16 to 40 kbit/s, 2 to 5 bits) on linear samples.
// One decoder per code width, the standard's fixed-point steps, a state set
// up once per wave; the encoder is the standard's and shares the decoder's
// state. The kernels take codes, not bytes: CodeReader/CodeWriter
// (codecs/codepack.h) frame them in either bit order.
#pragma once

#include <cstdint>
#include <span>

namespace kv {

// The peers each deviate from the Recommendation in a detail of their own;
// a state can follow one of them, for tests that name the deviation and for
// files that must decode as that peer decodes them. Itu is the standard and
// what every reader and writer here uses.
enum class G72xDialect : int8_t {
  Itu,         // ITU-T G.726 (Sun's reference code, which sox's and libsndfile's derive from)
  Sox,         // sox 14.4: FMULT takes a zero coefficient's exponent as 1, not 0
  Libsndfile,  // libsndfile 1.2: FMULT without the rounding term 48 (0x30)
  Ffmpeg,      // FFmpeg 5.1: MIX floors (YL + DIF * AL) / 64, the 40 kbit/s zeros leak by 2^-8 not 2^-9,
               // and the output is limited to +-65535 before it wraps to 16 bits
};

struct G72xState {
  int32_t yl = 34816;  // locked step size multiplier
  int16_t yu = 544;    // unlocked step size multiplier
  int16_t dms = 0;     // short and long term energy estimates
  int16_t dml = 0;
  int16_t ap = 0;      // speed control
  int16_t a[2] = {};   // pole coefficients
  int16_t b[6] = {};   // zero coefficients
  int16_t pk[2] = {};  // signs of the last two partial reconstructions
  int16_t dq[6] = {32, 32, 32, 32, 32, 32};  // quantised differences, in the 11-bit float form
  int16_t sr[2] = {32, 32};                  // reconstructed signal, the same form
  int8_t td = 0;       // tone detected
  int8_t bits = 4;     // code width 2..5
  G72xDialect dialect = G72xDialect::Itu;

  bool operator==(const G72xState&) const = default;
};

// A fresh state for codes of `bits` bits (2 to 5).
void kvG72xInit(G72xState& state, int bits, G72xDialect dialect = G72xDialect::Itu);
// One code (its low `bits` bits) to a 16-bit sample: the 14-bit
// reconstruction shifted up by two.
int16_t kvG72xDecode(G72xState& state, unsigned code);
// One 16-bit sample (its top 14 bits) to a code.
unsigned kvG72xEncode(G72xState& state, int16_t sample);

// Runs of samples, codes packed in bytes most (or least) significant bit
// first; the count is out.size() for the decoder (missing bytes read as 0)
// and in.size() for the encoder, whose out must hold
// kvPackedCodeBytes(in.size(), bits) bytes.
void kvDecodeG72x(std::span<const uint8_t> in, G72xState& state, bool msbFirst, std::span<int16_t> out);
void kvEncodeG72x(std::span<const int16_t> in, G72xState& state, bool msbFirst, std::span<uint8_t> out);

}  // namespace kv
