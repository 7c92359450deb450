// The fixed-point steps of ITU-T G.726 (which G.721 and G.723 are subsets
// of) in the block names of the Recommendation. Quantities the standard keeps
// in 16 bits are int16_t here and wrap as they do in the reference coders.
#include "codecs/g72x.h"

#include <algorithm>
#include <cstdlib>

#include "codecs/codepack.h"

namespace kv {

namespace {

// Per width: quantizer decision levels (QUAN), the log of the reconstructed
// magnitude by code (RECONST), the scale factor multiplier W (FUNCTW, times
// 32 as FILTD wants it) and F (FUNCTF). Codes are sign and magnitude; the
// tables run over all 2^bits codes.
struct Tables {
  const int16_t* levels;
  int levelCount;
  const int16_t* dqln;
  const int32_t* w;
  const int16_t* f;
};

constexpr int16_t kLevels2[] = {261};
constexpr int16_t kDqln2[] = {116, 365, 365, 116};
constexpr int32_t kW2[] = {-704, 14048, 14048, -704};
constexpr int16_t kF2[] = {0, 0xE00, 0xE00, 0};

constexpr int16_t kLevels3[] = {8, 218, 331};
constexpr int16_t kDqln3[] = {-2048, 135, 273, 373, 373, 273, 135, -2048};
constexpr int32_t kW3[] = {-128, 960, 4384, 18624, 18624, 4384, 960, -128};
constexpr int16_t kF3[] = {0, 0x200, 0x400, 0xE00, 0xE00, 0x400, 0x200, 0};

constexpr int16_t kLevels4[] = {-124, 80, 178, 246, 300, 349, 400};
constexpr int16_t kDqln4[] = {-2048, 4, 135, 213, 273, 323, 373, 425, 425, 373, 323, 273, 213, 135, 4, -2048};
constexpr int32_t kW4[] = {-384, 576, 1312, 2048, 3584, 6336, 11360, 35904,
                           35904, 11360, 6336, 3584, 2048, 1312, 576, -384};
constexpr int16_t kF4[] = {0, 0, 0, 0x200, 0x200, 0x200, 0x600, 0xE00, 0xE00, 0x600, 0x200, 0x200, 0x200, 0, 0, 0};

constexpr int16_t kLevels5[] = {-122, -16, 68, 139, 198, 250, 298, 339, 378, 413, 445, 475, 502, 528, 553};
constexpr int16_t kDqln5[] = {-2048, -66, 28,  104, 169, 224, 274, 318, 358, 395, 429, 459, 488, 514, 539, 566,
                              566,   539, 514, 488, 459, 429, 395, 358, 318, 274, 224, 169, 104, 28,  -66, -2048};
constexpr int32_t kW5[] = {448,   448,   768,   1248,  1280,  1312,  1856,  3200, 4512, 5728, 7008,
                           8960,  11456, 14080, 16928, 22272, 22272, 16928, 14080, 11456, 8960, 7008,
                           5728,  4512,  3200,  1856,  1312,  1280,  1248,  768,  448,  448};
constexpr int16_t kF5[] = {0,     0,     0,     0,     0,     0x200, 0x200, 0x200, 0x200, 0x200, 0x400,
                           0x600, 0x800, 0xA00, 0xC00, 0xC00, 0xC00, 0xC00, 0xA00, 0x800, 0x600, 0x400,
                           0x200, 0x200, 0x200, 0x200, 0x200, 0,     0,     0,     0,     0};

const Tables& TablesFor(int bits) {
  static constexpr Tables kTables[4] = {{kLevels2, 1, kDqln2, kW2, kF2},
                                        {kLevels3, 3, kDqln3, kW3, kF3},
                                        {kLevels4, 7, kDqln4, kW4, kF4},
                                        {kLevels5, 15, kDqln5, kW5, kF5}};
  return kTables[std::clamp(bits, 2, 5) - 2];
}

// The number of bits of `v` (0 for 0 or less), at most 15: the standard's
// search over the powers of two.
inline int Bits15(int32_t v) { return v <= 0 ? 0 : std::min(15, 32 - __builtin_clz(static_cast<uint32_t>(v))); }

// FMULT: a 14-bit coefficient times a value in the 11-bit float form (sign,
// 4-bit exponent, 6-bit mantissa), as the Recommendation rounds it.
// Without branches: the mantissa is AnMAG normalised to 6 bits, and the
// product's shift, either way, is a shift of a 64-bit value right.
template <G72xDialect D>
inline int32_t FMult(int32_t an, int32_t srn) {
  const int32_t anmag = an > 0 ? an : ((-an) & 0x1FFF);
  const int bits = D == G72xDialect::Sox && anmag == 0 ? 1 : Bits15(anmag);
  const int32_t anmant = anmag == 0 ? 32 : (anmag << 6) >> bits;
  const int wanexp = bits + ((srn >> 6) & 0xF) - 19;  // -19 .. 11
  constexpr int kRound = D == G72xDialect::Libsndfile ? 0 : 0x30;
  const uint32_t wanmant = static_cast<uint32_t>(anmant * (srn & 0x3F) + kRound) >> 4;
  const int32_t retval = static_cast<int32_t>(((uint64_t{wanmant} << 19) >> (19 - wanexp)) & 0x7FFF);
  const int32_t sign = (an ^ srn) >> 31;  // -1 when the signs differ
  return (retval ^ sign) - sign;
}

// ACCUM: the zero predictor's sum (SEZI) and the whole estimate (SEI).
template <G72xDialect D>
inline void Estimate(const G72xState& s, int16_t& sezi, int16_t& sei) {
  int32_t zero = 0;
  for (int i = 0; i < 6; ++i) zero += FMult<D>(s.b[i] >> 2, s.dq[i]);
  sezi = static_cast<int16_t>(zero);
  sei = static_cast<int16_t>(sezi + FMult<D>(s.a[1] >> 2, s.sr[1]) + FMult<D>(s.a[0] >> 2, s.sr[0]));
}

inline void EstimateOf(const G72xState& s, int16_t& sezi, int16_t& sei) {
  switch (s.dialect) {
    case G72xDialect::Sox: Estimate<G72xDialect::Sox>(s, sezi, sei); break;
    case G72xDialect::Libsndfile: Estimate<G72xDialect::Libsndfile>(s, sezi, sei); break;
    default: Estimate<G72xDialect::Itu>(s, sezi, sei); break;
  }
}

// MIX: the step size from the locked and unlocked multipliers.
inline int32_t StepSize(const G72xState& s) {
  if (s.dialect == G72xDialect::Ffmpeg) return (s.yl + (s.yu - (s.yl >> 6)) * (s.ap >= 256 ? 64 : s.ap >> 2)) >> 6;
  if (s.ap >= 256) return s.yu;
  int32_t y = s.yl >> 6;
  const int32_t dif = s.yu - y;
  const int32_t al = s.ap >> 2;
  if (dif > 0) y += (dif * al) >> 6;
  else if (dif < 0) y += (dif * al + 0x3F) >> 6;
  return y;
}

// LOG, SUBTB and QUAN: the code for the difference `d`.
inline unsigned Quantize(int32_t d, int32_t y, const Tables& t) {
  const int16_t dqm = static_cast<int16_t>(std::abs(d));
  const int16_t expon = static_cast<int16_t>(Bits15(dqm >> 1));
  const int16_t mant = static_cast<int16_t>(((dqm << 7) >> expon) & 0x7F);
  const int16_t dl = static_cast<int16_t>((expon << 7) + mant);
  const int16_t dln = static_cast<int16_t>(dl - (y >> 2));
  // The number of decision levels at or below DLN (the table rises).
  int i = 0;
  for (int k = 0; k < t.levelCount; ++k) i += dln >= t.levels[k];
  const int size = t.levelCount;
  if (d < 0) return static_cast<unsigned>((size << 1) + 1 - i);
  if (i == 0) return static_cast<unsigned>((size << 1) + 1);
  return static_cast<unsigned>(i);
}

// ADDA and ANTILOG: the quantised difference in sign and magnitude form.
inline int32_t Reconstruct(bool sign, int32_t dqln, int32_t y) {
  const int16_t dql = static_cast<int16_t>(dqln + (y >> 2));
  if (dql < 0) return sign ? -0x8000 : 0;
  const int16_t dex = static_cast<int16_t>((dql >> 7) & 15);
  const int16_t dqt = static_cast<int16_t>(128 + (dql & 127));
  // DEX stays below 15 while Y is limited to 5120; a shift the other way
  // gives 0, as the reference code does on the machines it runs on.
  const int16_t dq = static_cast<int16_t>(dex > 14 ? 0 : (dqt << 7) >> (14 - dex));
  return sign ? dq - 0x8000 : dq;
}

// A value in the 11-bit float form of the state's delay lines.
inline int16_t ToFloat11(int32_t mag, bool negative) {
  if (mag == 0) return negative ? static_cast<int16_t>(0xFC20) : 0x20;
  const int32_t expon = Bits15(mag);
  const int32_t v = (expon << 6) + ((mag << 6) >> expon);
  return static_cast<int16_t>(negative ? v - 0x400 : v);
}

void Update(G72xState& s, int32_t y, int32_t wi, int32_t fi, int32_t dq, int32_t sr, int32_t dqsez) {
  const int16_t pk0 = dqsez < 0 ? 1 : 0;
  const int16_t mag = static_cast<int16_t>(dq & 0x7FFF);

  // TRANS
  const int16_t ylint = static_cast<int16_t>(s.yl >> 15);
  const int16_t ylfrac = static_cast<int16_t>((s.yl >> 10) & 0x1F);
  const int16_t thr1 = static_cast<int16_t>((32 + ylfrac) << ylint);
  const int16_t thr2 = static_cast<int16_t>(ylint > 9 ? 31 << 10 : thr1);
  const int16_t dqthr = static_cast<int16_t>((thr2 + (thr2 >> 1)) >> 1);
  const bool tr = s.td != 0 && mag > dqthr;

  // FUNCTW, FILTD, LIMB
  s.yu = static_cast<int16_t>(std::clamp<int32_t>(static_cast<int16_t>(y + ((wi - y) >> 5)), 544, 5120));
  // FILTE
  s.yl += s.yu + ((-s.yl) >> 6);

  int16_t a2p = 0;
  if (tr) {
    s.a[0] = s.a[1] = 0;
    for (int16_t& b : s.b) b = 0;
  } else {
    const int16_t pks1 = static_cast<int16_t>(pk0 ^ s.pk[0]);  // UPA2
    a2p = static_cast<int16_t>(s.a[1] - (s.a[1] >> 7));
    if (dqsez != 0) {
      const int16_t fa1 = static_cast<int16_t>(pks1 ? s.a[0] : -s.a[0]);
      if (fa1 < -8191) a2p = static_cast<int16_t>(a2p - 0x100);
      else if (fa1 > 8191) a2p = static_cast<int16_t>(a2p + 0xFF);
      else a2p = static_cast<int16_t>(a2p + (fa1 >> 5));
      if (pk0 ^ s.pk[1]) {  // LIMC
        if (a2p <= -12160) a2p = -12288;
        else if (a2p >= 12416) a2p = 12288;
        else a2p = static_cast<int16_t>(a2p - 0x80);
      } else if (a2p <= -12416) {
        a2p = -12288;
      } else if (a2p >= 12160) {
        a2p = 12288;
      } else {
        a2p = static_cast<int16_t>(a2p + 0x80);
      }
    }
    s.a[1] = a2p;  // TRIGB
    // UPA1
    s.a[0] = static_cast<int16_t>(s.a[0] - (s.a[0] >> 8));
    if (dqsez != 0) s.a[0] = static_cast<int16_t>(pks1 == 0 ? s.a[0] + 192 : s.a[0] - 192);
    // LIMD
    const int16_t a1ul = static_cast<int16_t>(15360 - a2p);
    if (s.a[0] < -a1ul) s.a[0] = static_cast<int16_t>(-a1ul);
    else if (s.a[0] > a1ul) s.a[0] = a1ul;
    // UPB
    const int leak = s.bits == 5 && s.dialect != G72xDialect::Ffmpeg ? 9 : 8;
    for (int i = 0; i < 6; ++i) {
      s.b[i] = static_cast<int16_t>(s.b[i] - (s.b[i] >> leak));
      if (dq & 0x7FFF) s.b[i] = static_cast<int16_t>((dq ^ s.dq[i]) >= 0 ? s.b[i] + 128 : s.b[i] - 128);
    }
  }

  for (int i = 5; i > 0; --i) s.dq[i] = s.dq[i - 1];
  // FLOAT A
  s.dq[0] = ToFloat11(mag, dq < 0);
  s.sr[1] = s.sr[0];
  // FLOAT B
  if (sr == 0) s.sr[0] = 0x20;
  else if (sr > 0) s.sr[0] = ToFloat11(sr, false);
  else if (sr > -32768) s.sr[0] = ToFloat11(-sr, true);
  else s.sr[0] = static_cast<int16_t>(0xFC20);

  s.pk[1] = s.pk[0];
  s.pk[0] = pk0;

  // TONE
  if (tr) s.td = 0;
  else s.td = a2p < -11776 ? 1 : 0;

  // FILTA, FILTB, SUBTC
  s.dms = static_cast<int16_t>(s.dms + ((fi - s.dms) >> 5));
  s.dml = static_cast<int16_t>(s.dml + (((fi << 2) - s.dml) >> 7));
  if (tr) s.ap = 256;
  else if (y < 1536 || s.td == 1 || std::abs((s.dms << 2) - s.dml) >= (s.dml >> 3))
    s.ap = static_cast<int16_t>(s.ap + ((0x200 - s.ap) >> 4));
  else
    s.ap = static_cast<int16_t>(s.ap + ((-s.ap) >> 4));
}

// The steps shared by both directions once the code is known. Returns the
// reconstructed signal (14 bits).
inline int32_t Step(G72xState& s, unsigned code, int32_t se, int32_t sez, int32_t y, const Tables& t) {
  const int bits = s.bits;
  const bool sign = (code >> (bits - 1)) & 1;
  const int32_t dq = Reconstruct(sign, t.dqln[code], y);
  const int32_t magMask = bits == 5 ? 0x7FFF : 0x3FFF;
  const int16_t sr = static_cast<int16_t>(dq < 0 ? se - (dq & magMask) : se + dq);
  const int16_t dqsez = static_cast<int16_t>(sr - se + sez);
  Update(s, y, t.w[code], t.f[code], dq, sr, dqsez);
  return sr;
}

}  // namespace

void kvG72xInit(G72xState& state, int bits, G72xDialect dialect) {
  state = G72xState{};
  state.bits = static_cast<int8_t>(std::clamp(bits, 2, 5));
  state.dialect = dialect;
}

int16_t kvG72xDecode(G72xState& s, unsigned code) {
  const Tables& t = TablesFor(s.bits);
  code &= (1u << s.bits) - 1;
  int16_t sezi, sei;
  EstimateOf(s, sezi, sei);
  const int16_t sez = static_cast<int16_t>(sezi >> 1);
  const int16_t se = static_cast<int16_t>(sei >> 1);
  const int32_t y = StepSize(s);
  const int32_t sr = Step(s, code, se, sez, y, t);
  if (s.dialect == G72xDialect::Ffmpeg) return static_cast<int16_t>(std::clamp(sr * 4, -65535, 65535));
  return static_cast<int16_t>(static_cast<uint32_t>(sr) << 2);
}

unsigned kvG72xEncode(G72xState& s, int16_t sample) {
  const Tables& t = TablesFor(s.bits);
  const int32_t sl = sample >> 2;
  int16_t sezi, sei;
  EstimateOf(s, sezi, sei);
  const int16_t sez = static_cast<int16_t>(sezi >> 1);
  const int16_t se = static_cast<int16_t>(sei >> 1);
  const int16_t d = static_cast<int16_t>(sl - se);
  const int32_t y = StepSize(s);
  unsigned code = Quantize(d, y, t);
  // The 2-bit quantizer has no zero level: its "1's complement of 0" is the
  // small negative code, which a positive difference must not take.
  if (s.bits == 2 && code == 3 && d >= 0) code = 0;
  code &= (1u << s.bits) - 1;
  Step(s, code, se, sez, y, t);
  return code;
}

void kvDecodeG72x(std::span<const uint8_t> in, G72xState& state, bool msbFirst, std::span<int16_t> out) {
  CodeReader codes(in, state.bits, msbFirst);
  for (int16_t& o : out) o = kvG72xDecode(state, codes.Next());
}

void kvEncodeG72x(std::span<const int16_t> in, G72xState& state, bool msbFirst, std::span<uint8_t> out) {
  CodeWriter codes(out, state.bits, msbFirst);
  for (const int16_t v : in) codes.Put(kvG72xEncode(state, v));
  codes.Flush();
}

}  // namespace kv
