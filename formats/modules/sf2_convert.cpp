// SoundFont generators and modulators <-> the articulation model. The reader
// sums a zone's generators, gathers its modulators into fixed slots and turns
// both into model rows by one formula per row; the writer inverts each one.
#include <algorithm>
#include <cmath>
#include <initializer_list>

#include "core/articulation.h"
#include "core/param_catalogue.h"
#include "formats/modules/sf2_format.h"

namespace kv::sf2 {

namespace {

constexpr double kLn2 = 0.69314718055994530942;

// Modulator sources without their curve bits.
constexpr uint16_t kVelUni = 0x0002, kVelBi = 0x0202, kVelNeg = 0x0102;
constexpr uint16_t kKeyUni = 0x0003, kKeyBi = 0x0203;
constexpr uint16_t kCc1 = 0x0081, kPressure = 0x000D, kWheel = 0x020E, kCc10 = 0x028A;
constexpr uint16_t kCc91 = 0x00DB, kCc93 = 0x00DD;
// The default pitch wheel modulator scales by this amount source (wheel range).
constexpr uint16_t kWheelRangeSrc = 0x0010;

std::array<SlotDef, kSlotCount> BuildSlots() {
  std::array<SlotDef, kSlotCount> t{};
  const int volEnv[5] = {kDelayVolEnv, kAttackVolEnv, kHoldVolEnv, kDecayVolEnv, kReleaseVolEnv};
  const int volKey[3] = {kDelayVolEnv, kAttackVolEnv, kReleaseVolEnv};
  const int modEnv[5] = {kDelayModEnv, kAttackModEnv, kHoldModEnv, kDecayModEnv, kReleaseModEnv};
  const int modKey[3] = {kDelayModEnv, kAttackModEnv, kReleaseModEnv};
  for (int i = 0; i < 5; ++i) {
    t[i] = {kVelUni, static_cast<uint16_t>(volEnv[i])};
    t[8 + i] = {kVelBi, static_cast<uint16_t>(volEnv[i])};
    t[16 + i] = {kVelUni, static_cast<uint16_t>(modEnv[i])};
    t[24 + i] = {kVelBi, static_cast<uint16_t>(modEnv[i])};
  }
  for (int i = 0; i < 3; ++i) {
    t[5 + i] = {kKeyUni, static_cast<uint16_t>(volKey[i])};
    t[13 + i] = {kKeyBi, static_cast<uint16_t>(volKey[i])};
    t[21 + i] = {kKeyUni, static_cast<uint16_t>(modKey[i])};
    t[29 + i] = {kKeyBi, static_cast<uint16_t>(modKey[i])};
  }
  t[32] = {kVelNeg, kInitialAttenuation};
  t[33] = {kKeyUni, kInitialAttenuation};
  t[34] = {kKeyBi, kInitialAttenuation};
  t[35] = {kCc1, kInitialAttenuation};
  t[36] = {kPressure, kInitialAttenuation};
  t[37] = {kCc1, kModLfoToVolume};
  t[38] = {kPressure, kModLfoToVolume};
  t[39] = {kVelBi, kModLfoToVolume};
  t[40] = {kWheel, kFineTune};
  t[41] = {kCc1, kModLfoToPitch};
  t[42] = {kVelBi, kModLfoToPitch};
  t[43] = {kPressure, kModLfoToPitch};
  t[44] = {kCc1, kVibLfoToPitch};
  t[45] = {kVelBi, kVibLfoToPitch};
  t[46] = {kPressure, kVibLfoToPitch};
  t[47] = {kVelUni, kModEnvToPitch};
  t[48] = {kVelBi, kModEnvToPitch};
  t[49] = {kVelNeg, kInitialFilterFc};
  t[50] = {kKeyUni, kInitialFilterFc};
  t[51] = {kKeyBi, kInitialFilterFc};
  t[52] = {kCc1, kInitialFilterFc};
  t[53] = {kPressure, kInitialFilterFc};
  t[54] = {kCc1, kModLfoToFilterFc};
  t[55] = {kPressure, kModLfoToFilterFc};
  t[56] = {kVelBi, kModLfoToFilterFc};
  t[57] = {kVelUni, kModEnvToFilterFc};
  t[58] = {kVelBi, kModEnvToFilterFc};
  t[59] = {kKeyBi, kPan};
  t[60] = {kCc10, kPan};
  t[61] = {kCc91, kReverbSend};
  t[62] = {kCc93, kChorusSend};
  t[63] = {kVelBi, kInitialFilterQ};
  t[64] = {kCc1, kInitialFilterQ};
  t[65] = {kPressure, kInitialFilterQ};
  return t;
}

int32_t RoundClamp(double v, int gen) {
  int lo, hi;
  GenBounds(gen, lo, hi);
  if (!(v == v)) return GenDefault(gen);  // NaN
  v = std::clamp(v, static_cast<double>(lo), static_cast<double>(hi));
  return RoundHalfAway(v);
}

int32_t RoundSlot(double v) {
  if (!(v == v)) return 0;
  return RoundHalfAway(std::clamp(v, -32768.0, 32767.0));
}

double RoundCutoff(double f) {
  if (f < 100.0) return std::round(f * 100.0) / 100.0;
  if (f < 1000.0) return std::round(f);
  return std::round(f / 10.0) * 10.0;
}

// Writes one row: when something it depends on was given at this level, or,
// for the baseline, whenever it differs from the model's default.
struct Emitter {
  Articulation& out;
  bool baseline;
  // The value is computed only when it will be stored: a region touches a
  // handful of rows, and most of the formulas call exp2 or pow.
  template <typename Value>
  void put(int row, bool touched, Value&& value) {
    if (!baseline && !touched) return;
    const ParameterRow* r = CatalogueRow(row);
    if (!r) return;
    const float v = static_cast<float>(value());
    if (baseline && NormaliseForRow(*r, v) == r->def) return;
    out.Set(row, v);
  }
};

struct EnvSource {
  int delay, attack, hold, decay, sustain, release, keyHold, keyDecay;
  int slotBase;
  double sustainScale;
};
constexpr EnvSource kVolEnv = {kDelayVolEnv, kAttackVolEnv, kHoldVolEnv, kDecayVolEnv, kSustainVolEnv,
                               kReleaseVolEnv, kKeyToVolEnvHold, kKeyToVolEnvDecay, 0, 960.0};
constexpr EnvSource kModEnv = {kDelayModEnv, kAttackModEnv, kHoldModEnv, kDecayModEnv, kSustainModEnv,
                               kReleaseModEnv, kKeyToModEnvHold, kKeyToModEnvDecay, 16, 1000.0};

}  // namespace

// ---- tables ----

int GenDefault(int gen) {
  switch (gen) {
    case kInitialFilterFc: return 13500;
    case kDelayModLfo: case kDelayVibLfo: case kDelayModEnv: case kAttackModEnv: case kHoldModEnv:
    case kDecayModEnv: case kReleaseModEnv: case kDelayVolEnv: case kAttackVolEnv: case kHoldVolEnv:
    case kDecayVolEnv: case kReleaseVolEnv:
      return -12000;
    case kKeyRange: case kVelRange: return 0x7F00;
    case kKeynum: case kVelocity: case kOverridingRootKey: return -1;
    case kScaleTuning: return 100;
    default: return 0;
  }
}

void GenBounds(int gen, int& lo, int& hi) {
  lo = -32768;
  hi = 32767;
  switch (gen) {
    case kModLfoToPitch: case kVibLfoToPitch: case kModEnvToPitch: case kModLfoToFilterFc:
    case kModEnvToFilterFc:
      lo = -12000; hi = 12000; break;
    case kInitialFilterFc: lo = 1500; hi = 13500; break;
    case kInitialFilterQ: lo = 0; hi = 960; break;
    case kModLfoToVolume: lo = -960; hi = 960; break;
    case kChorusSend: case kReverbSend: lo = 0; hi = 1000; break;
    case kPan: lo = -500; hi = 500; break;
    case kDelayModLfo: case kDelayVibLfo: case kDelayModEnv: case kHoldModEnv: case kDelayVolEnv:
    case kHoldVolEnv:
      lo = -12000; hi = 5000; break;
    case kFreqModLfo: case kFreqVibLfo: lo = -16000; hi = 4500; break;
    case kAttackModEnv: case kDecayModEnv: case kReleaseModEnv: case kAttackVolEnv: case kDecayVolEnv:
    case kReleaseVolEnv:
      lo = -12000; hi = 8000; break;
    case kSustainModEnv: lo = 0; hi = 1000; break;
    case kSustainVolEnv: case kInitialAttenuation: lo = 0; hi = 1440; break;
    case kKeyToModEnvHold: case kKeyToModEnvDecay: case kKeyToVolEnvHold: case kKeyToVolEnvDecay:
      lo = -1200; hi = 1200; break;
    case kCoarseTune: lo = -120; hi = 120; break;
    case kFineTune: lo = -99; hi = 99; break;
    case kScaleTuning: lo = 0; hi = 1200; break;
    case kExclusiveClass: lo = 0; hi = 127; break;
    case kOverridingRootKey: lo = -1; hi = 127; break;
    default: break;
  }
}

bool InstrumentOnlyGen(int gen) {
  switch (gen) {
    case kStartAddrsOffset: case kEndAddrsOffset: case kStartloopAddrsOffset: case kEndloopAddrsOffset:
    case kStartAddrsCoarse: case kEndAddrsCoarse: case kStartloopAddrsCoarse: case kKeynum: case kVelocity:
    case kEndloopAddrsCoarse: case kSampleModes: case kExclusiveClass: case kOverridingRootKey:
      return true;
    default:
      return false;
  }
}

const std::array<SlotDef, kSlotCount>& SlotTable() {
  static const std::array<SlotDef, kSlotCount> table = BuildSlots();
  return table;
}

int FindSlot(uint16_t src, uint16_t dest, uint16_t amountSrc, int& amount) {
  const uint16_t key = src & 0x3FF;
  // The standard's own pitch wheel modulator, scaled by the wheel range: it is
  // the default that row 2 already stands for.
  if (key == kWheel && dest == kFineTune && (amountSrc & 0x3FF) == kWheelRangeSrc) return -1;
  const auto& table = SlotTable();
  for (int pass = 0; pass < 2; ++pass) {
    const uint16_t want = pass == 0 ? key : static_cast<uint16_t>(key ^ 0x100);
    for (int s = 0; s < kSlotCount; ++s) {
      if (table[s].dest == dest && table[s].src == want && (table[s].src | table[s].dest)) {
        if (pass == 1) amount = -amount;
        return s;
      }
    }
  }
  return -1;
}

int SlotDefault(int slot) {
  switch (slot) {
    case 32: return 960;
    case 44: case 46: return 50;
    case 49: return -2400;
    case 60: return 500;
    case 61: case 62: return 200;
    default: return 0;
  }
}

uint16_t SlotSourceWord(int slot) {
  // Velocity to attenuation keeps the standard's concave curve, so that an
  // instrument-level modulator replaces the default instead of adding to it.
  if (slot == 32) return 0x0502;
  return SlotTable()[slot].src;
}

ZoneValues DefaultZone() {
  // Built once: every zone of every bank starts from it.
  static const ZoneValues defaults = [] {
    ZoneValues z;
    for (int n = 0; n < kGenCount; ++n) z.g[n] = GenDefault(n);
    for (int s = 0; s < kSlotCount; ++s) z.m[s] = SlotDefault(s);
    return z;
  }();
  return defaults;
}

int32_t RoundHalfAway(double v) {
  return static_cast<int32_t>(v < 0 ? -std::floor(-v + 0.5) : std::floor(v + 0.5));
}

double TimecentsToSeconds(int32_t t) {
  if (t <= -12000) return 0.0;
  double s = std::exp2(t / 1200.0);
  if (s > 24.0) {
    s = std::round(s * 10.0) / 10.0;
  } else if (s > 2.0) {
    s = std::round(s * 100.0) / 100.0;
  }
  return s;
}

int32_t SecondsToTimecents(double seconds, int gen) {
  if (!(seconds > 0.0)) return -12000;
  return RoundClamp(1200.0 * std::log2(seconds), gen);
}

double CentsToHz(int32_t cents) { return 8.176 * std::exp2(cents / 1200.0); }

int32_t HzToCents(double hz) {
  if (!(hz > 0.0)) return -16000;
  return RoundHalfAway(1200.0 * std::log2(hz / 8.176));
}

// ---- reading ----

void GensToArticulation(const ZoneValues& sum, const ZoneValues& touched, bool baseline, const SendSlots& sends,
                        Articulation& out) {
  const auto& G = sum.g;
  const auto& M = sum.m;
  Emitter e{out, baseline};
  auto tg = [&](std::initializer_list<int> gens) {
    for (int n : gens)
      if (touched.HasGen(n)) return true;
    return false;
  };
  auto ts = [&](std::initializer_list<int> slots) {
    for (int s : slots)
      if (touched.HasSlot(s)) return true;
    return false;
  };

  // Pitch.
  e.put(kRowMasterTune, tg({kFineTune, kCoarseTune}), [&] { return G[kFineTune] * 0.01 + G[kCoarseTune]; });
  e.put(kRowKeyToPitch, tg({kScaleTuning}), [&] { return G[kScaleTuning] * 0.01; });
  e.put(kRowBendToPitch, ts({40}), [&] { return M[40] * 0.01 + 2.0; });

  // Vibrato LFO: the P-LFO.
  {
    const bool t = tg({kVibLfoToPitch, kDelayVibLfo, kFreqVibLfo}) || ts({44, 45, 46});
    e.put(3, tg({kVibLfoToPitch}), [&] { return G[kVibLfoToPitch] * 0.01; });
    e.put(4, ts({44}), [&] { return M[44] * 0.01; });
    e.put(5, ts({46}), [&] { return M[46] * 0.01; });
    e.put(6, ts({45}), [&] { return M[45] * 0.01; });
    e.put(LfoRow(kLfoP, kLfoShape), t, [&] { return 1; });
    e.put(LfoRow(kLfoP, kLfoFrequency), t, [&] { return CentsToHz(G[kFreqVibLfo]); });
    e.put(LfoRow(kLfoP, kLfoDelay), t, [&] { return TimecentsToSeconds(G[kDelayVibLfo]); });
  }

  // Modulation LFO: placed on each of X (pitch), V (volume), F (cutoff) that
  // it drives.
  {
    struct Target {
      int lfo;
      int rows[4];
      int gen;
      int slots[3];  // MW, AT, velocity
      double scale;
    };
    const Target targets[3] = {
        {kLfoX, {7, 8, 9, 10}, kModLfoToPitch, {41, 43, 42}, 0.01},
        {kLfoV, {19, 20, 21, 22}, kModLfoToVolume, {37, 38, 39}, 0.1},
        {kLfoF, {29, 30, 31, 32}, kModLfoToFilterFc, {54, 55, 56}, 0.01},
    };
    const bool timing = tg({kDelayModLfo, kFreqModLfo});
    for (const Target& t : targets) {
      const double d[4] = {G[t.gen] * t.scale, M[t.slots[0]] * t.scale, M[t.slots[1]] * t.scale,
                           M[t.slots[2]] * t.scale};
      const bool td = tg({t.gen}) || ts({t.slots[0], t.slots[1], t.slots[2]});
      e.put(t.rows[0], tg({t.gen}), [&] { return d[0]; });
      for (int i = 0; i < 3; ++i) e.put(t.rows[i + 1], ts({t.slots[i]}), [&] { return d[i + 1]; });
      if (d[0] != 0 || d[1] != 0 || d[2] != 0 || d[3] != 0) {
        e.put(LfoRow(t.lfo, kLfoShape), td || timing, [&] { return 1; });
        e.put(LfoRow(t.lfo, kLfoFrequency), td || timing, [&] { return CentsToHz(G[kFreqModLfo]); });
        e.put(LfoRow(t.lfo, kLfoDelay), td || timing, [&] { return TimecentsToSeconds(G[kDelayModLfo]); });
      }
    }
  }

  // Filter and volume.
  const double cutoffHz = G[kInitialFilterFc] >= 13500 ? 20000.0 : CentsToHz(G[kInitialFilterFc]);
  const bool filterOn = !(cutoffHz >= 19900.0 && G[kInitialFilterQ] <= 0);
  const bool tf = tg({kInitialFilterFc, kInitialFilterQ});
  double r14 = -0.04 * G[kInitialAttenuation];
  double r16 = 0.0;
  if (M[34] != 0) {
    r16 = M[34] * 0.04 * 0.1875;
    r14 -= r16 / 3.0;
  } else if (M[33] != 0) {
    r16 = M[33] * 0.04 * 0.09375;
    r14 += r16 * 5.0;
  }
  const double r35 = G[kInitialFilterQ] * 0.1;
  if (filterOn) r14 -= r35 / 2.0;
  e.put(kRowMasterVolume, tg({kInitialAttenuation}) || ts({33, 34}) || tf, [&] { return r14; });
  e.put(15, ts({32}), [&] { return M[32] * 0.04; });
  e.put(16, ts({33, 34}), [&] { return r16; });
  e.put(17, ts({35}), [&] { return M[35] * 0.04; });
  e.put(18, ts({36}), [&] { return M[36] * 0.04; });
  e.put(kRowFilterType, tf, [&] { return filterOn ? 2 : 0; });
  if (filterOn) {
    double f = cutoffHz;
    double r25 = M[49] * -0.01;
    if (r25 != 0) {
      f *= std::exp(r25 * 0.5 * kLn2 / 12.0);
      r25 *= 0.5;
    }
    double r26 = 0.0;
    if (M[51] != 0) {
      r26 = M[51] * 0.001875;
      f *= std::exp(r26 * (-1.0 / 3.0) * kLn2 / 12.0);
    } else if (M[50] != 0) {
      r26 = M[50] * 0.0009375;
      f *= std::exp(r26 * 5.0 * kLn2 / 12.0);
    }
    e.put(kRowCutoff, tf || ts({49, 50, 51}), [&] { return RoundCutoff(f); });
    e.put(25, tf || ts({49}), [&] { return r25; });
    e.put(26, tf || ts({50, 51}), [&] { return r26; });
    e.put(27, tf || ts({52}), [&] { return M[52] * 0.01; });
    e.put(28, tf || ts({53}), [&] { return M[53] * 0.01; });
    e.put(kRowResonance, tf, [&] { return r35; });
    e.put(36, tf || ts({63}), [&] { return M[63] * 0.1; });
    e.put(37, tf || ts({64}), [&] { return M[64] * 0.1; });
    e.put(38, tf || ts({65}), [&] { return M[65] * 0.1; });
  }

  // Pan and sends.
  e.put(51, tg({kPan}), [&] { return G[kPan] * 0.002; });
  e.put(52, ts({60}), [&] { return M[60] * 0.002; });
  e.put(53, ts({59}), [&] { return M[59] * 0.000375; });
  if (sends.reverb >= 0) e.put(57 + 2 * sends.reverb, tg({kReverbSend}), [&] { return G[kReverbSend] * 0.001; });
  if (sends.chorus >= 0) e.put(57 + 2 * sends.chorus, tg({kChorusSend}), [&] { return G[kChorusSend] * 0.001; });

  // Envelopes.
  auto envelope = [&](int k, const EnvSource& s, bool place) {
    const int b = s.slotBase;
    auto vel = [&](int uni, int bi) {
      if (M[b + bi] != 0) return std::pow(std::exp2(M[b + bi] / 1200.0), 2.0);
      if (M[b + uni] != 0) return std::pow(std::exp2(M[b + uni] / 1200.0), 1.5);
      return 1.0;
    };
    // Returns the factor per octave; `mul` takes the time change at mid-C
    // that a unipolar key source brings.
    auto key = [&](int uni, int bi, double& mul) {
      mul = 1.0;
      if (M[b + bi] != 0) return std::pow(std::exp2(M[b + bi] / 1200.0), 0.1875);
      if (M[b + uni] != 0) {
        const double base = std::exp2(M[b + uni] / 1200.0);
        mul = std::pow(base, 0.46875);
        return std::pow(base, 0.09375);
      }
      return 1.0;
    };
    double mulDelay, mulAttack, mulRelease;
    const double kDelay = key(5, 13, mulDelay);
    const double kAttack = key(6, 14, mulAttack);
    const double kRelease = key(7, 15, mulRelease);
    const double sustain = std::clamp(1.0 - G[s.sustain] / s.sustainScale, 0.0, 1.0);
    auto row = [&](int offset) { return EnvRow(k, offset); };
    auto T = [&](std::initializer_list<int> gens, std::initializer_list<int> slots) {
      if (place) return true;
      for (int n : gens)
        if (touched.HasGen(n)) return true;
      for (int sl : slots)
        if (touched.HasSlot(b + sl)) return true;
      return false;
    };
    e.put(row(kEnvA1Time), T({s.delay}, {5, 13}), [&] { return TimecentsToSeconds(G[s.delay]) * mulDelay; });
    e.put(row(kEnvA1Vel), T({}, {0, 8}), [&] { return vel(0, 8); });
    e.put(row(kEnvA1Key), T({}, {5, 13}), [&] { return kDelay; });
    e.put(row(kEnvA2Time), T({s.attack}, {6, 14}), [&] { return TimecentsToSeconds(G[s.attack]) * mulAttack; });
    e.put(row(kEnvA2Vel), T({}, {1, 9}), [&] { return vel(1, 9); });
    e.put(row(kEnvA2Key), T({}, {6, 14}), [&] { return kAttack; });
    e.put(row(kEnvD1Time), T({s.hold}, {}), [&] { return TimecentsToSeconds(G[s.hold]); });
    e.put(row(kEnvD1Vel), T({}, {2, 10}), [&] { return vel(2, 10); });
    e.put(row(kEnvD1Key), T({s.keyHold}, {}), [&] { return std::exp2(-G[s.keyHold] / 100.0); });
    // The standard's decay is the time of the whole range; the model's is the
    // time it takes to reach the sustain level.
    e.put(row(kEnvD2Time), T({s.decay, s.sustain}, {}),
          [&] { return TimecentsToSeconds(G[s.decay]) * (1.0 - sustain); });
    e.put(row(kEnvD2Vel), T({}, {3, 11}), [&] { return vel(3, 11); });
    e.put(row(kEnvD2Key), T({s.keyDecay}, {}), [&] { return std::exp2(-G[s.keyDecay] / 100.0); });
    e.put(row(kEnvSustain), T({s.sustain}, {}), [&] { return sustain; });
    e.put(row(kEnvR1Rate), T({s.release}, {7, 15}), [&] { return TimecentsToSeconds(G[s.release]) * mulRelease; });
    e.put(row(kEnvRelVel), T({}, {4, 12}), [&] { return vel(4, 12); });
    e.put(row(kEnvRelKey), T({}, {7, 15}), [&] { return kRelease; });
  };
  envelope(kEnvV, kVolEnv, false);

  // Modulation envelope: to the P-ENV when it moves the pitch, to the F-ENV
  // when it moves an active filter.
  double r11 = G[kModEnvToPitch] * 0.01, r12 = 0.0;
  if (M[48] != 0) {
    r12 = M[48] * 0.01;
  } else if (M[47] != 0) {
    r12 = M[47] * 0.005;
    r11 += r12;
  }
  double r33 = G[kModEnvToFilterFc] * 0.01, r34 = 0.0;
  if (M[58] != 0) {
    r34 = M[58] * 0.01;
  } else if (M[57] != 0) {
    r34 = M[57] * 0.005;
    r33 += r34;
  }
  const bool tp = tg({kModEnvToPitch}) || ts({47, 48});
  const bool tcut = tg({kModEnvToFilterFc}) || ts({57, 58}) || tf;
  e.put(11, tp, [&] { return r11; });
  e.put(12, tp, [&] { return r12; });
  if (r11 != 0 || r12 != 0) envelope(kEnvP, kModEnv, tp && !baseline);
  if (filterOn) {
    e.put(33, tcut, [&] { return r33; });
    e.put(34, tcut, [&] { return r34; });
    if (r33 != 0 || r34 != 0) envelope(kEnvF, kModEnv, tcut && !baseline);
  }
}

// ---- writing ----

ZoneValues ArticulationToGens(const Articulation& merged, const SendSlots& sends, uint64_t features) {
  constexpr uint64_t kSf201 = 0xB6F7F2C460Cull;
  Articulation a = merged;
  ReduceArticulation(a, features & kSf201);
  auto v = [&](int row) { return static_cast<double>(a.value[row]); };

  ZoneValues z = DefaultZone();
  auto gen = [&](int n, double value) { z.g[n] = RoundClamp(value, n); };
  auto slot = [&](int s, double value) { z.m[s] = RoundSlot(value); };

  const int cents = RoundHalfAway(std::clamp(v(kRowMasterTune), -120.0, 120.0) * 100.0);
  z.g[kCoarseTune] = cents / 100;
  z.g[kFineTune] = cents % 100;
  gen(kScaleTuning, v(kRowKeyToPitch) * 100.0);
  slot(40, (v(kRowBendToPitch) - 2.0) * 100.0);

  gen(kVibLfoToPitch, v(3) * 100.0);
  slot(44, v(4) * 100.0);
  slot(46, v(5) * 100.0);
  slot(45, v(6) * 100.0);
  gen(kFreqVibLfo, HzToCents(v(LfoRow(kLfoP, kLfoFrequency))));
  z.g[kDelayVibLfo] = SecondsToTimecents(v(LfoRow(kLfoP, kLfoDelay)), kDelayVibLfo);

  // One modulation LFO: its timing from the first of X, V, F that has depth
  // (after the reduction they share it anyway).
  auto hasDepth = [&](std::initializer_list<int> rows) {
    for (int r : rows)
      if (a.value[r] != 0) return true;
    return false;
  };
  int modLfo = -1;
  if (hasDepth({7, 8, 9, 10})) {
    modLfo = kLfoX;
  } else if (hasDepth({19, 20, 21, 22})) {
    modLfo = kLfoV;
  } else if (hasDepth({29, 30, 31, 32})) {
    modLfo = kLfoF;
  }
  if (modLfo >= 0) {
    gen(kFreqModLfo, HzToCents(v(LfoRow(modLfo, kLfoFrequency))));
    z.g[kDelayModLfo] = SecondsToTimecents(v(LfoRow(modLfo, kLfoDelay)), kDelayModLfo);
  }
  gen(kModLfoToPitch, v(7) * 100.0);
  slot(41, v(8) * 100.0);
  slot(43, v(9) * 100.0);
  slot(42, v(10) * 100.0);
  gen(kModLfoToVolume, v(19) * 10.0);
  slot(37, v(20) * 10.0);
  slot(38, v(21) * 10.0);
  slot(39, v(22) * 10.0);

  // Volume: undo the reader's corrections of row 14.
  double r14 = v(kRowMasterVolume);
  if (v(16) != 0) {
    slot(34, v(16) / (0.04 * 0.1875));
    r14 += v(16) / 3.0;
  }
  slot(32, v(15) / 0.04);
  slot(35, v(17) / 0.04);
  slot(36, v(18) / 0.04);

  const bool filterOn = a.value[kRowFilterType] != 0;
  if (filterOn) {
    double f = v(kRowCutoff);
    const double r25 = v(25) * 2.0;
    if (r25 != 0) f /= std::exp(r25 * 0.5 * kLn2 / 12.0);
    slot(49, -r25 * 100.0);
    const double r26 = v(26);
    if (r26 != 0) {
      slot(51, r26 / 0.001875);
      f /= std::exp(r26 * (-1.0 / 3.0) * kLn2 / 12.0);
    }
    // A cutoff at the top of the model's range may have reached past it.
    // With resonance it is the SoundFont idiom of an open filter that is on
    // only for its Q: undoing the velocity correction from the clipped value
    // would close it to half. Without, it came from a real cutoff near the
    // top, which undoing the correction gives back.
    const bool open = v(kRowCutoff) >= CatalogueRow(kRowCutoff)->max && v(kRowResonance) > 0;
    gen(kInitialFilterFc, open || f >= 19900.0 ? 13500 : HzToCents(f));
    gen(kInitialFilterQ, v(kRowResonance) * 10.0);
    gen(kModLfoToFilterFc, v(29) * 100.0);
    slot(54, v(30) * 100.0);
    slot(55, v(31) * 100.0);
    slot(56, v(32) * 100.0);
    // The reader's compensation undone as it was made: a resonance below
    // zero is written as none, but it lowered row 14 all the same.
    r14 += v(kRowResonance) * 0.5;
    slot(52, v(27) * 100.0);
    slot(53, v(28) * 100.0);
    slot(63, v(36) * 10.0);
    slot(64, v(37) * 10.0);
    slot(65, v(38) * 10.0);
  }
  // Below zero is a gain, which only a preset zone may add; the writer lifts
  // the instrument's zones and puts the rest there.
  z.g[kInitialAttenuation] = std::clamp(RoundHalfAway(-r14 / 0.04), -1440, 1440);

  gen(kPan, v(51) * 500.0);
  slot(60, v(52) / 0.002);
  slot(59, v(53) / 0.000375);
  if (sends.reverb >= 0) gen(kReverbSend, v(57 + 2 * sends.reverb) * 1000.0);
  if (sends.chorus >= 0) gen(kChorusSend, v(57 + 2 * sends.chorus) * 1000.0);

  auto envelope = [&](int k, const EnvSource& s) {
    auto r = [&](int offset) { return v(EnvRow(k, offset)); };
    auto logOf = [](double x) { return x > 0 ? std::log2(x) : 0.0; };
    const int b = s.slotBase;
    z.g[s.delay] = SecondsToTimecents(r(kEnvA1Time), s.delay);
    z.g[s.attack] = SecondsToTimecents(r(kEnvA2Time), s.attack);
    z.g[s.hold] = SecondsToTimecents(r(kEnvD1Time), s.hold);
    const double sustain = std::clamp(r(kEnvSustain), 0.0, 1.0);
    gen(s.sustain, s.sustainScale * (1.0 - sustain));
    const double held = 1.0 - z.g[s.sustain] / s.sustainScale;
    z.g[s.decay] = held < 1.0 ? SecondsToTimecents(r(kEnvD2Time) / (1.0 - held), s.decay) : -12000;
    z.g[s.release] = SecondsToTimecents(r(kEnvR1Rate), s.release);
    gen(s.keyHold, -100.0 * logOf(r(kEnvD1Key)));
    gen(s.keyDecay, -100.0 * logOf(r(kEnvD2Key)));
    const int velRows[5] = {kEnvA1Vel, kEnvA2Vel, kEnvD1Vel, kEnvD2Vel, kEnvRelVel};
    for (int i = 0; i < 5; ++i) slot(b + 8 + i, 600.0 * logOf(r(velRows[i])));
    const int keyRows[3] = {kEnvA1Key, kEnvA2Key, kEnvRelKey};
    for (int i = 0; i < 3; ++i) slot(b + 13 + i, 1200.0 * logOf(r(keyRows[i])) / 0.1875);
  };
  envelope(kEnvV, kVolEnv);

  const bool pitchEnv = v(11) != 0 || v(12) != 0;
  const bool cutoffEnv = filterOn && (v(33) != 0 || v(34) != 0);
  if (pitchEnv) {
    envelope(kEnvP, kModEnv);
  } else if (cutoffEnv) {
    envelope(kEnvF, kModEnv);
  }
  if (pitchEnv) {
    gen(kModEnvToPitch, v(11) * 100.0);
    slot(48, v(12) * 100.0);
  }
  if (cutoffEnv) {
    gen(kModEnvToFilterFc, v(33) * 100.0);
    slot(58, v(34) * 100.0);
  }
  return z;
}

}  // namespace kv::sf2
