// G.722's sub-band ADPCM (block names of the Recommendation in comments):
// the adaptive predictor both bands share, each band's quantiser
// adaptation, and the QMF on both sides.
#include "codecs/g722.h"

#include <algorithm>
#include <cstring>

namespace kv {

namespace {

inline int32_t Clip(int32_t v, int32_t lo, int32_t hi) { return std::clamp(v, lo, hi); }
inline int16_t Clip16(int32_t v) { return static_cast<int16_t>(std::clamp(v, -32768, 32767)); }

// ILB: the mantissa of 2^(x/2048) over 32 steps.
constexpr int16_t kInvLog[32] = {2048, 2093, 2139, 2186, 2233, 2282, 2332, 2383, 2435, 2489, 2543,
                                 2599, 2656, 2714, 2774, 2834, 2896, 2960, 3025, 3091, 3158, 3228,
                                 3298, 3371, 3444, 3520, 3597, 3676, 3756, 3838, 3922, 4008};
// Upper band: inverse quantiser (QQ2 times the sign) and log-scale steps (WH).
constexpr int16_t kHighInv[4] = {-926, -202, 926, 202};
constexpr int16_t kHighStep[2] = {798, -214};
// Lower band: log-scale steps by 4-bit code (WL through RL42).
constexpr int16_t kLowStep[16] = {-60, 3042, 1198, 538, 334, 172, 58, -30, 3042, 1198, 538, 334, 172, 58, -30, -60};
// Lower band inverse quantisers for 4, 5 and 6-bit codes (QQ4, QQ5, QQ6 signed).
constexpr int16_t kLowInv4[16] = {0, -2557, -1612, -1121, -786, -530, -323, -150, 2557, 1612, 1121, 786, 530, 323, 150, 0};
constexpr int16_t kLowInv5[32] = {-35,  -35,  -2919, -2195, -1765, -1458, -1219, -1023, -858, -714, -587,
                                  -473, -370, -276,  -190,  -110,  2919,  2195,  1765,  1458, 1219, 1023,
                                  858,  714,  587,   473,   370,   276,   190,   110,   35,   -35};
constexpr int16_t kLowInv6[64] = {-17,   -17,   -17,   -17,   -3101, -2738, -2376, -2088, -1873, -1689, -1535,
                                  -1399, -1279, -1170, -1072, -982,  -899,  -822,  -750,  -682,  -618,  -558,
                                  -501,  -447,  -396,  -347,  -300,  -254,  -211,  -170,  -130,  -91,   3101,
                                  2738,  2376,  2088,  1873,  1689,  1535,  1399,  1279,  1170,  1072,  982,
                                  899,   822,   750,   682,   618,   558,   501,   447,   396,   347,   300,
                                  254,   211,   170,   130,   91,    54,    17,    -54,   -17};
// The encoder's lower-band decision levels (Q6 magnitudes).
constexpr int16_t kLowLevels[29] = {35,  72,  110, 150, 190, 233, 276,  323,  370,  422,  473,  530,  587,  650, 714,
                                    786, 858, 940, 1023, 1121, 1219, 1339, 1458, 1612, 1765, 1980, 2195, 2557, 2919};
// QMF coefficients.
constexpr int16_t kQmf[12] = {3, -11, 12, 32, -210, 951, 3876, -805, 362, -156, 53, -11};

// PARREC, UPPOL2, UPPOL1, UPZERO, FILTEZ, RECONS, FILTEP and PREDIC for one
// band, from the quantised difference `d`.
void Predict(G722Band& band, int32_t d) {
  const int8_t sign = band.sz + d < 0;
  const int32_t sg0 = sign != band.signs[0] ? 1 : -1;
  const int32_t sg1 = sign == band.signs[1] ? 1 : -1;
  band.signs[1] = band.signs[0];
  band.signs[0] = sign;

  band.a[1] = static_cast<int16_t>(
      Clip((sg0 * Clip(band.a[0], -8191, 8191) >> 5) + (sg1 * 128) + (band.a[1] * 127 >> 7), -12288, 12288));
  const int32_t limit = 15360 - band.a[1];
  band.a[0] = static_cast<int16_t>(Clip(-192 * sg0 + (band.a[0] * 255 >> 8), -limit, limit));

  for (int i = 0; i < 6; ++i) {
    const int32_t leak = band.b[i] * 255 >> 8;
    band.b[i] = static_cast<int16_t>(d == 0 ? leak : leak + ((band.dq[i] ^ d) < 0 ? -128 : 128));
  }
  for (int i = 5; i > 0; --i) band.dq[i] = band.dq[i - 1];
  band.dq[0] = Clip16(d * 2);

  band.sz = 0;
  for (int i = 5; i >= 0; --i) band.sz += band.b[i] * band.dq[i] >> 15;

  const int16_t r = Clip16((band.s + d) * 2);
  band.s = Clip16(band.sz + (band.a[0] * r >> 15) + (band.a[1] * band.rPrev >> 15));
  band.rPrev = r;
}

// SCALEL / SCALEH: the log scale to a linear one.
inline int16_t LinearScale(int32_t logScale) {
  const int32_t m = kInvLog[(logScale >> 6) & 31];
  const int shift = logScale >> 11;
  return static_cast<int16_t>(shift < 0 ? m >> -shift : m << shift);
}

void UpdateLow(G722Band& band, int code4) {
  Predict(band, band.scale * kLowInv4[code4] >> 10);
  band.logScale = static_cast<int16_t>(Clip((band.logScale * 127 >> 7) + kLowStep[code4], 0, 18432));
  band.scale = LinearScale(band.logScale - (8 << 11));
}

void UpdateHigh(G722Band& band, int32_t d, int code) {
  Predict(band, d);
  band.logScale = static_cast<int16_t>(Clip((band.logScale * 127 >> 7) + kHighStep[code & 1], 0, 22528));
  band.scale = LinearScale(band.logScale - (10 << 11));
}

// Appends a pair to the delay line and filters its last 24 values.
inline void Qmf(G722State& s, int16_t first, int16_t second, int32_t& out0, int32_t& out1) {
  s.qmf[s.qmfAt++] = first;
  s.qmf[s.qmfAt++] = second;
  const int16_t* x = s.qmf + s.qmfAt - 24;
  int32_t a = 0, b = 0;
  for (int i = 0; i < 12; ++i) {
    b += x[2 * i] * kQmf[i];
    a += x[2 * i + 1] * kQmf[11 - i];
  }
  out0 = a;
  out1 = b;
  if (s.qmfAt >= static_cast<int>(std::size(s.qmf))) {
    std::memmove(s.qmf, s.qmf + s.qmfAt - 22, 22 * sizeof(int16_t));
    s.qmfAt = 22;
  }
}

}  // namespace

void kvG722Init(G722State& state, int bits) {
  state = G722State{};
  state.low.scale = 8;
  state.high.scale = 2;
  state.bits = static_cast<int8_t>(std::clamp(bits, 6, 8));
}

void kvDecodeG722(G722State& st, std::span<const uint8_t> in, std::span<int16_t> out) {
  const int skip = 8 - st.bits;
  const int16_t* table = skip == 0 ? kLowInv6 : skip == 1 ? kLowInv5 : kLowInv4;
  const unsigned lowMask = (1u << (6 - skip)) - 1;
  for (std::size_t j = 0; j < in.size(); ++j) {
    const int high = in[j] >> 6;
    const int low = (in[j] >> skip) & lowMask;
    const int32_t rlow = Clip((st.low.scale * table[low] >> 10) + st.low.s, -16384, 16383);
    UpdateLow(st.low, low >> (2 - skip));
    const int32_t dhigh = st.high.scale * kHighInv[high] >> 10;
    const int32_t rhigh = Clip(dhigh + st.high.s, -16384, 16383);
    UpdateHigh(st.high, dhigh, high);
    int32_t x0, x1;
    Qmf(st, static_cast<int16_t>(rlow + rhigh), static_cast<int16_t>(rlow - rhigh), x0, x1);
    out[2 * j] = Clip16(x0 >> 11);
    out[2 * j + 1] = Clip16(x1 >> 11);
  }
}

namespace {

inline uint8_t EncodePair(G722State& st, int16_t first, int16_t second) {
  int32_t x0, x1;
  Qmf(st, first, second, x0, x1);
  const int32_t xlow = (x0 + x1) >> 14;
  const int32_t xhigh = (x0 - x1) >> 14;

  // Upper band: the sign and whether the difference passes 141/256 of the scale.
  const int32_t dh = Clip16(xhigh - st.high.s);
  const int32_t magH = dh < 0 ? ~dh : dh;
  const int high = (magH < (141 * st.high.scale >> 8)) + 2 * (dh >= 0);

  // Lower band: the first decision level the magnitude doesn't pass.
  const int32_t dl = Clip16(xlow - st.low.s);
  const int32_t magL = ((dl < 0 ? ~dl : dl) + 1) << 10;
  int i = magL > kLowLevels[8] * st.low.scale ? 9 : 0;
  while (i < 29 && magL > kLowLevels[i] * st.low.scale) ++i;
  const int low = (dl < 0 ? (i < 2 ? 63 : 33) : 61) - i;

  UpdateHigh(st.high, st.high.scale * kHighInv[high] >> 10, high);
  UpdateLow(st.low, low >> 2);
  return static_cast<uint8_t>(high << 6 | low);
}

}  // namespace

void kvEncodeG722(G722State& st, std::span<const int16_t> in, std::span<uint8_t> out) {
  const std::size_t pairs = in.size() / 2;
  for (std::size_t j = 0; j < pairs; ++j) out[j] = EncodePair(st, in[2 * j], in[2 * j + 1]);
  if (in.size() & 1) out[pairs] = EncodePair(st, in.back(), in.back());
}

}  // namespace kv
