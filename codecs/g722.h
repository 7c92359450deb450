// ITU-T G.722 wideband ADPCM: 16 kHz audio split by a QMF into two 8 kHz
// sub-bands, the lower coded in 6 bits and the upper in 2, one byte per two
// samples. At 56 and 48 kbit/s the lowest 1 or 2 bits of each byte carry
// no audio and the lower band is decoded from 5 or 4 bits. The arithmetic
// is the Recommendation's fixed point as FFmpeg's adpcm_g722 has it, which
// the files this reads and writes are checked against; neither side
// allocates.
#pragma once

#include <cstdint>
#include <span>

namespace kv {

struct G722Band {
  int32_t sz = 0;          // zero-section prediction
  int32_t dq[6] = {};      // past quantised differences, doubled
  int16_t s = 0;           // signal estimate
  int16_t b[6] = {};       // zero-section coefficients
  int16_t a[2] = {};       // pole-section coefficients
  int16_t rPrev = 0;       // last reconstructed signal, doubled
  int16_t logScale = 0;    // the quantiser scale in the log domain
  int16_t scale = 0;       // and linear
  int8_t signs[2] = {};    // signs of the last two partial reconstructions
};

struct G722State {
  G722Band low;
  G722Band high;
  // The QMF's delay line: 22 past values, then the pairs of this run.
  int16_t qmf[256] = {};
  int qmfAt = 22;
  int8_t bits = 8;         // code word width: 8, 7 or 6
};

// A fresh state for code words of `bits` bits (8, 7 or 6).
void kvG722Init(G722State& state, int bits = 8);
// Each byte to two samples: out.size() must be 2 * in.size().
void kvDecodeG722(G722State& state, std::span<const uint8_t> in, std::span<int16_t> out);
// Each two samples to a byte (mode 8); an odd last sample is paired with
// itself. out.size() must be (in.size() + 1) / 2.
void kvEncodeG722(G722State& state, std::span<const int16_t> in, std::span<uint8_t> out);

}  // namespace kv
