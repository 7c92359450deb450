// GSM 06.10 in the block names of the standard (preprocessing, LPC
// analysis, short-term analysis, long-term prediction, RPE coding and their
// inverses). The standard fixes every rounding, so the arithmetic below is
// kept to its 16-bit operators and nothing is rearranged for speed where
// that could change a bit.
#include "codecs/gsm610.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kv {

namespace {

constexpr int32_t kMinWord = -32768;
constexpr int32_t kMaxWord = 32767;

inline int16_t Sat(int32_t v) { return static_cast<int16_t>(std::clamp(v, kMinWord, kMaxWord)); }
inline int16_t Add(int32_t a, int32_t b) { return Sat(a + b); }
inline int16_t Sub(int32_t a, int32_t b) { return Sat(a - b); }
// Products of two Q15 words; -1 times -1 is the one that would not fit.
inline int16_t Mult(int32_t a, int32_t b) {
  return a == kMinWord && b == kMinWord ? static_cast<int16_t>(kMaxWord) : static_cast<int16_t>((a * b) >> 15);
}
inline int16_t MultR(int32_t a, int32_t b) {
  return a == kMinWord && b == kMinWord ? static_cast<int16_t>(kMaxWord)
                                        : static_cast<int16_t>((a * b + 16384) >> 15);
}
inline int16_t Abs(int32_t a) { return a < 0 ? (a == kMinWord ? static_cast<int16_t>(kMaxWord) : static_cast<int16_t>(-a)) : static_cast<int16_t>(a); }
inline int32_t LAdd(int64_t a, int64_t b) {
  return static_cast<int32_t>(std::clamp<int64_t>(a + b, INT32_MIN, INT32_MAX));
}
// Left shifts that bring a non-zero 32-bit value to the form 01xx.. or 10xx..
inline int Norm(int32_t a) {
  if (a < 0) {
    if (a <= -1073741824) return 0;
    a = ~a;
  }
  return std::countl_zero(static_cast<uint32_t>(a)) - 1;
}
// Shifts of a word by a signed count, as the standard's asl/asr define them
// for counts past the word.
inline int16_t Asr(int32_t a, int n) {
  if (n >= 16) return static_cast<int16_t>(-(a < 0));
  if (n <= -16) return 0;
  if (n < 0) return static_cast<int16_t>(a << -n);
  return static_cast<int16_t>(a >> n);
}
inline int16_t Asl(int32_t a, int n) {
  if (n >= 16) return 0;
  if (n <= -16) return static_cast<int16_t>(-(a < 0));
  if (n < 0) return Asr(a, -n);
  return static_cast<int16_t>(a << n);
}
// num / denom in Q15 for 0 <= num <= denom.
inline int16_t Div(int32_t num, int32_t denom) {
  if (num == 0) return 0;
  int32_t q = 0;
  for (int k = 0; k < 15; ++k) {
    q <<= 1;
    num <<= 1;
    if (num >= denom) {
      num -= denom;
      ++q;
    }
  }
  return static_cast<int16_t>(q);
}

// Long-term gain levels: decision (DLB) and reconstruction (QLB).
constexpr int16_t kDlb[4] = {6554, 16384, 26214, 32767};
constexpr int16_t kQlb[4] = {3277, 11469, 21299, 32767};
// The RPE weighting filter.
constexpr int16_t kH[11] = {-134, -374, 0, 2054, 5741, 8192, 5741, 2054, 0, -374, -134};
// Normalised inverse mantissas and mantissas of the block amplitude.
constexpr int16_t kNrFac[8] = {29128, 26215, 23832, 21846, 20165, 18725, 17476, 16384};
constexpr int16_t kFac[8] = {18431, 20479, 22527, 24575, 26623, 28671, 30719, 32767};
// LAR quantiser: A, B, the smallest and largest code per coefficient, and
// the inverse of A for the decoder.
constexpr int16_t kLarA[8] = {20480, 20480, 20480, 20480, 13964, 15360, 8534, 9036};
constexpr int16_t kLarB[8] = {0, 0, 2048, -2560, 94, -1792, -341, -1144};
constexpr int16_t kLarMic[8] = {-32, -32, -16, -16, -8, -8, -4, -4};
constexpr int16_t kLarMac[8] = {31, 31, 15, 15, 7, 7, 3, 3};
constexpr int16_t kLarInvA[8] = {13107, 13107, 13107, 13107, 19223, 17476, 31454, 29708};
constexpr int kLarBits[8] = {6, 6, 5, 5, 4, 4, 3, 3};

// ---------------------------------------------------------------- shared

void DecodeLars(const uint8_t (&larc)[8], int16_t (&larpp)[8]) {
  for (int i = 0; i < 8; ++i) {
    int16_t t = static_cast<int16_t>(Add(larc[i], kLarMic[i]) << 10);
    t = Sub(t, kLarB[i] * 2);
    t = MultR(kLarInvA[i], t);
    larpp[i] = Add(t, t);
  }
}

// The four interpolations of the LARs over the frame's sample ranges.
void InterpolateLars(int part, const int16_t (&last)[8], const int16_t (&now)[8], int16_t (&larp)[8]) {
  for (int i = 0; i < 8; ++i) {
    switch (part) {
      case 0: larp[i] = Add(Add(last[i] >> 2, now[i] >> 2), last[i] >> 1); break;
      case 1: larp[i] = Add(last[i] >> 1, now[i] >> 1); break;
      case 2: larp[i] = Add(Add(last[i] >> 2, now[i] >> 2), now[i] >> 1); break;
      default: larp[i] = now[i]; break;
    }
  }
}

// LAR to reflection coefficient.
void LarsToReflection(int16_t (&larp)[8]) {
  for (int16_t& v : larp) {
    const int16_t t = Abs(v);
    const int16_t r = t < 11059 ? static_cast<int16_t>(t << 1) : t < 20070 ? static_cast<int16_t>(t + 11059) : Add(t >> 2, 26112);
    v = v < 0 ? static_cast<int16_t>(-r) : r;
  }
}

constexpr int kPartStart[5] = {0, 13, 27, 40, 160};

void ApcmExpMant(int xmaxc, int& exp, int& mant) {
  exp = xmaxc > 15 ? (xmaxc >> 3) - 1 : 0;
  mant = xmaxc - (exp << 3);
  if (mant == 0) {
    exp = -4;
    mant = 7;
  } else {
    while (mant <= 7) {
      mant = mant << 1 | 1;
      --exp;
    }
    mant -= 8;
  }
}

// Pulses back to the 40 samples of the subframe's excitation.
void RpeDecode(int xmaxc, int mc, const uint8_t (&xmc)[13], int16_t (&ep)[40]) {
  int exp = 0, mant = 0;
  ApcmExpMant(xmaxc, exp, mant);
  const int16_t fac = kFac[mant];
  const int shift = 6 - exp;
  const int16_t round = Asl(1, shift - 1);
  std::memset(ep, 0, sizeof ep);
  for (int i = 0; i < 13; ++i) {
    const int16_t t = static_cast<int16_t>(((xmc[i] << 1) - 7) << 12);
    ep[mc + 3 * i] = Asr(Add(MultR(fac, t), round), shift);
  }
}

// ---------------------------------------------------------------- bit framing

// Visits the 76 fields of a frame in stream order with their widths.
template <typename F>
void ForEachField(GsmParameters& p, F&& f) {
  for (int i = 0; i < 8; ++i) f(p.larc[i], kLarBits[i]);
  for (int s = 0; s < 4; ++s) {
    f(p.nc[s], 7);
    f(p.bc[s], 2);
    f(p.mc[s], 2);
    f(p.xmaxc[s], 6);
    for (uint8_t& x : p.xmc[s]) f(x, 3);
  }
}

}  // namespace

// ---------------------------------------------------------------- decoder

void kvGsmDecodeParameters(GsmDecoderState& s, const GsmParameters& p, std::span<int16_t, 160> out) {
  int16_t wt[160];
  int16_t* const drp = s.drp + 120;
  for (int sub = 0; sub < 4; ++sub) {
    int16_t erp[40];
    RpeDecode(p.xmaxc[sub], p.mc[sub], p.xmc[sub], erp);
    // Long-term synthesis; a lag outside 40..120 repeats the last one.
    const int16_t nr = p.nc[sub] < 40 || p.nc[sub] > 120 ? s.nrp : p.nc[sub];
    s.nrp = nr;
    const int16_t brp = kQlb[p.bc[sub]];
    for (int k = 0; k < 40; ++k) drp[k] = Add(erp[k], MultR(brp, drp[k - nr]));
    std::memcpy(wt + 40 * sub, drp, 40 * sizeof(int16_t));
    std::memmove(s.drp, s.drp + 40, 120 * sizeof(int16_t));
  }

  // Short-term synthesis over the four ranges of interpolated LARs.
  int16_t(&now)[8] = s.larpp[s.j];
  s.j ^= 1;
  const int16_t(&last)[8] = s.larpp[s.j];
  DecodeLars(p.larc, now);
  for (int part = 0; part < 4; ++part) {
    int16_t rrp[8];
    InterpolateLars(part, last, now, rrp);
    LarsToReflection(rrp);
    for (int k = kPartStart[part]; k < kPartStart[part + 1]; ++k) {
      int16_t sri = wt[k];
      for (int i = 7; i >= 0; --i) {
        sri = Sub(sri, MultR(rrp[i], s.v[i]));
        s.v[i + 1] = Add(s.v[i], MultR(rrp[i], sri));
      }
      s.v[0] = sri;
      out[k] = sri;
    }
  }

  // De-emphasis, then back to 16 bits with the low three cleared.
  int16_t msr = s.msr;
  for (int16_t& x : out) {
    msr = Add(x, MultR(msr, 28180));
    x = static_cast<int16_t>(Add(msr, msr) & 0xFFF8);
  }
  s.msr = msr;
}

// ---------------------------------------------------------------- encoder

namespace {

void Preprocess(GsmEncoderState& st, std::span<const int16_t, 160> in, int16_t (&so)[160]) {
  int16_t z1 = st.z1;
  int32_t z2 = st.z2;
  int16_t mp = st.mp;
  for (int k = 0; k < 160; ++k) {
    const int16_t x = static_cast<int16_t>((in[k] >> 3) << 2);
    // Offset compensation: a high-pass whose state is 31 bits wide.
    const int32_t s1 = x - z1;
    z1 = x;
    int64_t s2 = int64_t{s1} << 15;
    const int16_t msp = static_cast<int16_t>(z2 >> 15);
    const int16_t lsp = static_cast<int16_t>(z2 - (int32_t{msp} << 15));
    s2 += MultR(lsp, 32735);
    z2 = LAdd(int64_t{msp} * 32735, s2);
    const int32_t rounded = LAdd(z2, 16384);
    // Pre-emphasis.
    const int16_t prev = MultR(mp, -28180);
    mp = static_cast<int16_t>(rounded >> 15);
    so[k] = Add(mp, prev);
  }
  st.z1 = z1;
  st.z2 = z2;
  st.mp = mp;
}

// Autocorrelation to quantised LARs. The signal is scaled down for the
// correlation and back up after it, losing its low bits as the standard's does.
void LpcAnalysis(int16_t (&s)[160], uint8_t (&larc)[8]) {
  int16_t smax = 0;
  for (int16_t x : s) smax = std::max(smax, Abs(x));
  const int scale = smax == 0 ? 0 : 4 - Norm(int32_t{smax} << 16);
  if (scale > 0) {
    const int16_t factor = static_cast<int16_t>(16384 >> (scale - 1));
    for (int16_t& x : s) x = MultR(x, factor);
  }
  int64_t acf[9] = {};
  for (int k = 0; k < 9; ++k) {
    int64_t sum = 0;
    for (int i = k; i < 160; ++i) sum += int32_t{s[i]} * s[i - k];
    acf[k] = sum << 1;
  }
  if (scale > 0)
    for (int16_t& x : s) x = static_cast<int16_t>(x << scale);

  // Schur recursion to reflection coefficients.
  int16_t r[8] = {};
  if (acf[0] != 0) {
    const int n0 = Norm(static_cast<int32_t>(acf[0]));
    int16_t p[9], kk[9];
    for (int i = 0; i < 9; ++i) p[i] = kk[i] = static_cast<int16_t>((acf[i] << n0) >> 16);
    for (int n = 0; n < 8; ++n) {
      const int16_t t = Abs(p[1]);
      if (p[0] < t) break;  // the rest stay 0
      r[n] = Div(t, p[0]);
      if (p[1] > 0) r[n] = static_cast<int16_t>(-r[n]);
      if (n == 7) break;
      p[0] = Add(p[0], MultR(p[1], r[n]));
      for (int m = 1; m <= 7 - n; ++m) {
        p[m] = Add(p[m + 1], MultR(kk[m], r[n]));
        kk[m] = Add(kk[m], MultR(p[m + 1], r[n]));
      }
    }
  }

  // Reflection coefficients to log area ratios, then their codes.
  for (int i = 0; i < 8; ++i) {
    int16_t t = Abs(r[i]);
    if (t < 22118) t = static_cast<int16_t>(t >> 1);
    else if (t < 31130) t = static_cast<int16_t>(t - 11059);
    else t = static_cast<int16_t>((t - 26112) << 2);
    const int16_t lar = r[i] < 0 ? static_cast<int16_t>(-t) : t;
    int16_t q = Add(Add(Mult(kLarA[i], lar), kLarB[i]), 256);
    q = static_cast<int16_t>(q >> 9);
    larc[i] = static_cast<uint8_t>(q > kLarMac[i] ? kLarMac[i] - kLarMic[i] : q < kLarMic[i] ? 0 : q - kLarMic[i]);
  }
}

void ShortTermAnalysis(GsmEncoderState& st, const uint8_t (&larc)[8], int16_t (&s)[160]) {
  int16_t(&now)[8] = st.larpp[st.j];
  st.j ^= 1;
  const int16_t(&last)[8] = st.larpp[st.j];
  DecodeLars(larc, now);
  for (int part = 0; part < 4; ++part) {
    int16_t rp[8];
    InterpolateLars(part, last, now, rp);
    LarsToReflection(rp);
    for (int k = kPartStart[part]; k < kPartStart[part + 1]; ++k) {
      int16_t di = s[k];
      int16_t sav = di;
      for (int i = 0; i < 8; ++i) {
        const int16_t ui = st.u[i];
        st.u[i] = sav;
        sav = Add(ui, MultR(rp[i], di));
        di = Add(di, MultR(rp[i], ui));
      }
      s[k] = di;
    }
  }
}

// The lag and gain of one subframe of residual `d` against the past
// reconstructed residual before `dp`.
void LtpParameters(const int16_t* d, const int16_t* dp, uint8_t& bcOut, uint8_t& ncOut) {
  int16_t dmax = 0;
  for (int k = 0; k < 40; ++k) dmax = std::max(dmax, Abs(d[k]));
  const int t = dmax == 0 ? 0 : Norm(int32_t{dmax} << 16);
  const int scal = t > 6 ? 0 : 6 - t;
  int16_t wt[40];
  for (int k = 0; k < 40; ++k) wt[k] = static_cast<int16_t>(d[k] >> scal);

  int64_t lmax = 0;
  int nc = 40;
  for (int lambda = 40; lambda <= 120; ++lambda) {
    int64_t sum = 0;
    const int16_t* past = dp - lambda;
    for (int k = 0; k < 40; ++k) sum += int32_t{wt[k]} * past[k];
    if (sum > lmax) {
      nc = lambda;
      lmax = sum;
    }
  }
  ncOut = static_cast<uint8_t>(nc);
  lmax = (lmax << 1) >> (6 - scal);

  int64_t power = 0;
  for (int k = 0; k < 40; ++k) {
    const int32_t x = dp[k - nc] >> 3;
    power += x * x;
  }
  power <<= 1;
  if (lmax <= 0) {
    bcOut = 0;
    return;
  }
  if (lmax >= power) {
    bcOut = 3;
    return;
  }
  const int n = Norm(static_cast<int32_t>(power));
  const int16_t r = static_cast<int16_t>((lmax << n) >> 16);
  const int16_t sp = static_cast<int16_t>((power << n) >> 16);
  int bc = 0;
  while (bc <= 2 && r > Mult(sp, kDlb[bc])) ++bc;
  bcOut = static_cast<uint8_t>(bc);
}

// Weighting filter, grid selection and APCM quantisation of one
// subframe's long-term residual `e`; `e` becomes its reconstruction.
void RpeEncode(int16_t (&e)[40], uint8_t& xmaxcOut, uint8_t& mcOut, uint8_t (&xmc)[13]) {
  int16_t x[40];
  for (int k = 0; k < 40; ++k) {
    int32_t sum = 4096;
    for (int i = 0; i < 11; ++i) {
      const int at = k + i - 5;
      if (at >= 0 && at < 40) sum += int32_t{e[at]} * kH[i];
    }
    x[k] = Sat(sum >> 13);
  }

  int mc = 0;
  int32_t best = 0;
  for (int m = 0; m < 4; ++m) {
    int32_t energy = 0;
    for (int i = 0; i < 13; ++i) {
      const int32_t v = x[m + 3 * i] >> 2;
      energy += v * v;
    }
    energy <<= 1;
    if (m == 0 || energy > best) {
      best = energy;
      mc = m;
    }
  }
  int16_t xm[13];
  int16_t xmax = 0;
  for (int i = 0; i < 13; ++i) {
    xm[i] = x[mc + 3 * i];
    xmax = std::max(xmax, Abs(xm[i]));
  }

  // The amplitude's exponent: how many of the shifts 9..14 leave it non-zero.
  int exp = 0;
  int16_t t = static_cast<int16_t>(xmax >> 9);
  bool stop = false;
  for (int i = 0; i < 6; ++i) {
    stop = stop || t <= 0;
    t = static_cast<int16_t>(t >> 1);
    if (!stop) ++exp;
  }
  const int xmaxc = Add(xmax >> (exp + 5), exp << 3);
  int mant = 0;
  ApcmExpMant(xmaxc, exp, mant);
  const int16_t nrfac = kNrFac[mant];
  for (int i = 0; i < 13; ++i) {
    const int16_t v = static_cast<int16_t>(xm[i] << (6 - exp));
    xmc[i] = static_cast<uint8_t>((Mult(v, nrfac) >> 12) + 4);
  }
  xmaxcOut = static_cast<uint8_t>(xmaxc);
  mcOut = static_cast<uint8_t>(mc);
  RpeDecode(xmaxc, mc, xmc, e);
}

}  // namespace

void kvGsmEncodeParameters(GsmEncoderState& st, std::span<const int16_t, 160> in, GsmParameters& p) {
  int16_t so[160];
  Preprocess(st, in, so);
  LpcAnalysis(so, p.larc);
  ShortTermAnalysis(st, p.larc, so);
  int16_t* dp = st.dp + 120;
  for (int sub = 0; sub < 4; ++sub) {
    const int16_t* d = so + 40 * sub;
    LtpParameters(d, dp, p.bc[sub], p.nc[sub]);
    const int16_t bp = kQlb[p.bc[sub]];
    int16_t dpp[40], e[40];
    for (int k = 0; k < 40; ++k) {
      dpp[k] = MultR(bp, dp[k - p.nc[sub]]);
      e[k] = Sub(d[k], dpp[k]);
    }
    RpeEncode(e, p.xmaxc[sub], p.mc[sub], p.xmc[sub]);
    for (int k = 0; k < 40; ++k) dp[k] = Add(e[k], dpp[k]);
    dp += 40;
  }
  std::memmove(st.dp, st.dp + 160, 120 * sizeof(int16_t));
}

// ---------------------------------------------------------------- framing

bool kvGsmUnpackFrame(std::span<const uint8_t, 33> frame, GsmParameters& p) {
  if ((frame[0] >> 4) != 0xD) return false;
  int at = 4;
  ForEachField(p, [&](uint8_t& v, int bits) {
    unsigned x = 0;
    for (int b = 0; b < bits; ++b, ++at) x = x << 1 | ((frame[at >> 3] >> (7 - (at & 7))) & 1);
    v = static_cast<uint8_t>(x);
  });
  return true;
}

void kvGsmPackFrame(const GsmParameters& cp, std::span<uint8_t, 33> frame) {
  std::fill(frame.begin(), frame.end(), 0);
  frame[0] = 0xD0;
  int at = 4;
  GsmParameters p = cp;
  ForEachField(p, [&](uint8_t& v, int bits) {
    for (int b = bits - 1; b >= 0; --b, ++at)
      frame[at >> 3] = static_cast<uint8_t>(frame[at >> 3] | ((v >> b) & 1) << (7 - (at & 7)));
  });
}

void kvGsmUnpackPair(std::span<const uint8_t, 65> pair, GsmParameters& first, GsmParameters& second) {
  int at = 0;
  auto take = [&](uint8_t& v, int bits) {
    unsigned x = 0;
    for (int b = 0; b < bits; ++b, ++at) x |= ((pair[at >> 3] >> (at & 7)) & 1u) << b;
    v = static_cast<uint8_t>(x);
  };
  ForEachField(first, take);
  ForEachField(second, take);
}

void kvGsmPackPair(const GsmParameters& first, const GsmParameters& second, std::span<uint8_t, 65> pair) {
  std::fill(pair.begin(), pair.end(), 0);
  int at = 0;
  auto put = [&](uint8_t& v, int bits) {
    for (int b = 0; b < bits; ++b, ++at)
      pair[at >> 3] = static_cast<uint8_t>(pair[at >> 3] | ((v >> b) & 1) << (at & 7));
  };
  GsmParameters a = first, b = second;
  ForEachField(a, put);
  ForEachField(b, put);
}

bool kvGsmDecodeFrame(GsmDecoderState& state, std::span<const uint8_t, 33> frame, std::span<int16_t, 160> out) {
  GsmParameters p;
  if (!kvGsmUnpackFrame(frame, p)) return false;
  kvGsmDecodeParameters(state, p, out);
  return true;
}

void kvGsmDecodePair(GsmDecoderState& state, std::span<const uint8_t, 65> pair, std::span<int16_t, 320> out) {
  GsmParameters a, b;
  kvGsmUnpackPair(pair, a, b);
  kvGsmDecodeParameters(state, a, out.first<160>());
  kvGsmDecodeParameters(state, b, out.last<160>());
}

void kvGsmEncodeFrame(GsmEncoderState& state, std::span<const int16_t, 160> in, std::span<uint8_t, 33> frame) {
  GsmParameters p;
  kvGsmEncodeParameters(state, in, p);
  kvGsmPackFrame(p, frame);
}

void kvGsmEncodePair(GsmEncoderState& state, std::span<const int16_t, 320> in, std::span<uint8_t, 65> pair) {
  GsmParameters a, b;
  kvGsmEncodeParameters(state, in.first<160>(), a);
  kvGsmEncodeParameters(state, in.last<160>(), b);
  kvGsmPackPair(a, b, pair);
}

}  // namespace kv
