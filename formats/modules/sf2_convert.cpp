// SoundFont generators and modulators <-> the articulation model. The reader
// sums a zone's generators, gathers its modulators into fixed slots and turns
// both into model rows by one formula per row; the writer inverts each one.
#include <algorithm>
#include <cmath>
#include <initializer_list>

#include "core/articulation.h"
#include "core/param_catalogue.h"
#include "core/units.h"
#include "formats/modules/sf2_format.h"

namespace kv::sf2 {

namespace {

// dB per step of the initial attenuation and of the modulators onto it. The
// standard says centibels, but players take a step as 0.04 dB, as the
// hardware did, and banks are voiced for that.
constexpr double kAttenuationStepDb = 0.04;
// The velocity modulator is the exception: players give its 960 steps the
// full 96 dB, so that the default velocity curve is 40 log10(v / 127), the
// model's own default depth.
constexpr double kVelocityStepDb = 0.1;
// The key at which a key number source adds nothing: a bipolar source
// crosses zero at key 64, a unipolar one starts from zero at key 0.
constexpr double kBipolarKeyReference = 64.0;
constexpr double kUnipolarKeyReference = 0.0;

double CentsToSemitones(double cents) { return cents * 0.01; }

// Modulator sources without their curve bits.
constexpr uint16_t kVelUni = 0x0002, kVelBi = 0x0202, kVelNeg = 0x0102;
constexpr uint16_t kKeyUni = 0x0003, kKeyBi = 0x0203;
constexpr uint16_t kCc1 = 0x0081, kPressure = 0x000D, kWheel = 0x020E, kCc10 = 0x028A;
constexpr uint16_t kCc91 = 0x00DB, kCc93 = 0x00DD;
// The default pitch wheel modulator scales by this amount source (wheel range).
constexpr uint16_t kWheelRangeSrc = 0x0010;

struct EnvSource {
  int delay, attack, hold, decay, sustain, release, keyHold, keyDecay;
  int slotBase;
  double sustainScale;
};
constexpr EnvSource kVolEnv = {kDelayVolEnv, kAttackVolEnv, kHoldVolEnv, kDecayVolEnv, kSustainVolEnv,
                               kReleaseVolEnv, kKeyToVolEnvHold, kKeyToVolEnvDecay, kSlotVolEnv, 960.0};
constexpr EnvSource kModEnv = {kDelayModEnv, kAttackModEnv, kHoldModEnv, kDecayModEnv, kSustainModEnv,
                               kReleaseModEnv, kKeyToModEnvHold, kKeyToModEnvDecay, kSlotModEnv, 1000.0};

std::array<SlotDef, kSlotCount> BuildSlots() {
  std::array<SlotDef, kSlotCount> t{};
  auto def = [](uint16_t src, int gen) { return SlotDef{src, static_cast<uint16_t>(gen)}; };
  for (const EnvSource* s : {&kVolEnv, &kModEnv}) {
    const int stages[kEnvSlotStages] = {s->delay, s->attack, s->hold, s->decay, s->release};
    const int keyStages[kEnvSlotKeyStages] = {s->delay, s->attack, s->release};
    for (int i = 0; i < kEnvSlotStages; ++i) {
      t[s->slotBase + kEnvSlotVelUni + i] = def(kVelUni, stages[i]);
      t[s->slotBase + kEnvSlotVelBi + i] = def(kVelBi, stages[i]);
    }
    for (int i = 0; i < kEnvSlotKeyStages; ++i) {
      t[s->slotBase + kEnvSlotKeyUni + i] = def(kKeyUni, keyStages[i]);
      t[s->slotBase + kEnvSlotKeyBi + i] = def(kKeyBi, keyStages[i]);
    }
  }
  t[kSlotVelToAttenuation] = def(kVelNeg, kInitialAttenuation);
  t[kSlotKeyUniToAttenuation] = def(kKeyUni, kInitialAttenuation);
  t[kSlotKeyBiToAttenuation] = def(kKeyBi, kInitialAttenuation);
  t[kSlotModWheelToAttenuation] = def(kCc1, kInitialAttenuation);
  t[kSlotPressureToAttenuation] = def(kPressure, kInitialAttenuation);
  t[kSlotModWheelToModLfoVolume] = def(kCc1, kModLfoToVolume);
  t[kSlotPressureToModLfoVolume] = def(kPressure, kModLfoToVolume);
  t[kSlotVelBiToModLfoVolume] = def(kVelBi, kModLfoToVolume);
  t[kSlotWheelToFineTune] = def(kWheel, kFineTune);
  t[kSlotModWheelToModLfoPitch] = def(kCc1, kModLfoToPitch);
  t[kSlotVelBiToModLfoPitch] = def(kVelBi, kModLfoToPitch);
  t[kSlotPressureToModLfoPitch] = def(kPressure, kModLfoToPitch);
  t[kSlotModWheelToVibLfoPitch] = def(kCc1, kVibLfoToPitch);
  t[kSlotVelBiToVibLfoPitch] = def(kVelBi, kVibLfoToPitch);
  t[kSlotPressureToVibLfoPitch] = def(kPressure, kVibLfoToPitch);
  t[kSlotVelUniToModEnvPitch] = def(kVelUni, kModEnvToPitch);
  t[kSlotVelBiToModEnvPitch] = def(kVelBi, kModEnvToPitch);
  t[kSlotVelToCutoff] = def(kVelNeg, kInitialFilterFc);
  t[kSlotKeyUniToCutoff] = def(kKeyUni, kInitialFilterFc);
  t[kSlotKeyBiToCutoff] = def(kKeyBi, kInitialFilterFc);
  t[kSlotModWheelToCutoff] = def(kCc1, kInitialFilterFc);
  t[kSlotPressureToCutoff] = def(kPressure, kInitialFilterFc);
  t[kSlotModWheelToModLfoCutoff] = def(kCc1, kModLfoToFilterFc);
  t[kSlotPressureToModLfoCutoff] = def(kPressure, kModLfoToFilterFc);
  t[kSlotVelBiToModLfoCutoff] = def(kVelBi, kModLfoToFilterFc);
  t[kSlotVelUniToModEnvCutoff] = def(kVelUni, kModEnvToFilterFc);
  t[kSlotVelBiToModEnvCutoff] = def(kVelBi, kModEnvToFilterFc);
  t[kSlotKeyBiToPan] = def(kKeyBi, kPan);
  t[kSlotCc10ToPan] = def(kCc10, kPan);
  t[kSlotCc91ToReverb] = def(kCc91, kReverbSend);
  t[kSlotCc93ToChorus] = def(kCc93, kChorusSend);
  t[kSlotVelBiToFilterQ] = def(kVelBi, kInitialFilterQ);
  t[kSlotModWheelToFilterQ] = def(kCc1, kInitialFilterQ);
  t[kSlotPressureToFilterQ] = def(kPressure, kInitialFilterQ);
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
  // the default that kRowBendToPitch already stands for.
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
    case kSlotVelToAttenuation: return 960;
    case kSlotModWheelToVibLfoPitch: case kSlotPressureToVibLfoPitch: return 50;
    case kSlotVelToCutoff: return -2400;
    case kSlotCc10ToPan: return 500;
    case kSlotCc91ToReverb: case kSlotCc93ToChorus: return 200;
    default: return 0;
  }
}

uint16_t SlotSourceWord(int slot) {
  // Velocity to attenuation keeps the standard's concave curve, so that an
  // instrument-level modulator replaces the default instead of adding to it.
  if (slot == kSlotVelToAttenuation) return 0x0502;
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
  double s = kv::TimecentsToSeconds(t);
  if (s > 24.0) {
    s = std::round(s * 10.0) / 10.0;
  } else if (s > 2.0) {
    s = std::round(s * 100.0) / 100.0;
  }
  return s;
}

int32_t SecondsToTimecents(double seconds, int gen) {
  if (!(seconds > 0.0)) return -12000;
  return RoundClamp(kv::SecondsToTimecents(seconds), gen);
}

double CentsToHz(int32_t cents) { return AbsoluteCentsToHz(cents); }

int32_t HzToCents(double hz) {
  if (!(hz > 0.0)) return -16000;
  return RoundHalfAway(HzToAbsoluteCents(hz));
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
  e.put(kRowBendToPitch, ts({kSlotWheelToFineTune}), [&] { return M[kSlotWheelToFineTune] * 0.01 + 2.0; });

  // Vibrato LFO: the P-LFO.
  {
    const bool t = tg({kVibLfoToPitch, kDelayVibLfo, kFreqVibLfo}) ||
                   ts({kSlotModWheelToVibLfoPitch, kSlotVelBiToVibLfoPitch, kSlotPressureToVibLfoPitch});
    e.put(kRowPLfoToPitch, tg({kVibLfoToPitch}), [&] { return G[kVibLfoToPitch] * 0.01; });
    e.put(kRowModWheelToPLfoPitch, ts({kSlotModWheelToVibLfoPitch}),
          [&] { return M[kSlotModWheelToVibLfoPitch] * 0.01; });
    e.put(kRowAftertouchToPLfoPitch, ts({kSlotPressureToVibLfoPitch}),
          [&] { return M[kSlotPressureToVibLfoPitch] * 0.01; });
    e.put(kRowVelToPLfoPitch, ts({kSlotVelBiToVibLfoPitch}), [&] { return M[kSlotVelBiToVibLfoPitch] * 0.01; });
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
      double (*toModel)(double);
    };
    const Target targets[3] = {
        {kLfoX,
         {kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch, kRowVelToXLfoPitch},
         kModLfoToPitch,
         {kSlotModWheelToModLfoPitch, kSlotPressureToModLfoPitch, kSlotVelBiToModLfoPitch},
         CentsToSemitones},
        {kLfoV,
         {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume, kRowVelToVLfoVolume},
         kModLfoToVolume,
         {kSlotModWheelToModLfoVolume, kSlotPressureToModLfoVolume, kSlotVelBiToModLfoVolume},
         CentibelsToDb},
        {kLfoF,
         {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff},
         kModLfoToFilterFc,
         {kSlotModWheelToModLfoCutoff, kSlotPressureToModLfoCutoff, kSlotVelBiToModLfoCutoff},
         CentsToSemitones},
    };
    const bool timing = tg({kDelayModLfo, kFreqModLfo});
    for (const Target& t : targets) {
      const double d[4] = {t.toModel(G[t.gen]), t.toModel(M[t.slots[0]]), t.toModel(M[t.slots[1]]),
                           t.toModel(M[t.slots[2]])};
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
  double masterVolume = -kAttenuationStepDb * G[kInitialAttenuation];
  double keyToVolume = 0.0;
  if (M[kSlotKeyBiToAttenuation] != 0) {
    keyToVolume = M[kSlotKeyBiToAttenuation] * kAttenuationStepDb * 0.1875;
    masterVolume -= keyToVolume / 3.0;
  } else if (M[kSlotKeyUniToAttenuation] != 0) {
    keyToVolume = M[kSlotKeyUniToAttenuation] * kAttenuationStepDb * 0.09375;
    masterVolume += keyToVolume * 5.0;
  }
  const double resonance = CentibelsToDb(G[kInitialFilterQ]);
  if (filterOn) masterVolume -= resonance / 2.0;
  e.put(kRowMasterVolume, tg({kInitialAttenuation}) || ts({kSlotKeyUniToAttenuation, kSlotKeyBiToAttenuation}) || tf,
        [&] { return masterVolume; });
  e.put(kRowVelToVolume, ts({kSlotVelToAttenuation}), [&] { return M[kSlotVelToAttenuation] * kVelocityStepDb; });
  e.put(kRowKeyToVolume, ts({kSlotKeyUniToAttenuation, kSlotKeyBiToAttenuation}), [&] { return keyToVolume; });
  e.put(kRowModWheelToVolume, ts({kSlotModWheelToAttenuation}),
        [&] { return M[kSlotModWheelToAttenuation] * kAttenuationStepDb; });
  e.put(kRowAftertouchToVolume, ts({kSlotPressureToAttenuation}),
        [&] { return M[kSlotPressureToAttenuation] * kAttenuationStepDb; });
  e.put(kRowFilterType, tf, [&] { return filterOn ? 2 : 0; });
  if (filterOn) {
    // The velocity slot's source is the standard's negative velocity: its
    // amount is the fall from the highest velocity to the lowest.
    FormatCutoff format{cutoffHz, M[kSlotVelToCutoff] * -0.01, 0.0};
    double referenceKey = 0.0;
    if (M[kSlotKeyBiToCutoff] != 0) {
      format.keyPerOctave = M[kSlotKeyBiToCutoff] * 0.001875;
      referenceKey = kBipolarKeyReference;
    } else if (M[kSlotKeyUniToCutoff] != 0) {
      format.keyPerOctave = M[kSlotKeyUniToCutoff] * 0.0009375;
      referenceKey = kUnipolarKeyReference;
    }
    const ModelCutoff cutoff = CutoffToModel(format, referenceKey);
    e.put(kRowCutoff, tf || ts({kSlotVelToCutoff, kSlotKeyUniToCutoff, kSlotKeyBiToCutoff}),
          [&] { return RoundCutoff(cutoff.hz); });
    e.put(kRowVelToCutoff, tf || ts({kSlotVelToCutoff}), [&] { return cutoff.velocityDepth; });
    e.put(kRowKeyToCutoff, tf || ts({kSlotKeyUniToCutoff, kSlotKeyBiToCutoff}), [&] { return cutoff.keyDepth; });
    e.put(kRowModWheelToCutoff, tf || ts({kSlotModWheelToCutoff}), [&] { return M[kSlotModWheelToCutoff] * 0.01; });
    e.put(kRowAftertouchToCutoff, tf || ts({kSlotPressureToCutoff}), [&] { return M[kSlotPressureToCutoff] * 0.01; });
    e.put(kRowResonance, tf, [&] { return resonance; });
    e.put(kRowVelToResonance, tf || ts({kSlotVelBiToFilterQ}), [&] { return CentibelsToDb(M[kSlotVelBiToFilterQ]); });
    e.put(kRowModWheelToResonance, tf || ts({kSlotModWheelToFilterQ}),
          [&] { return CentibelsToDb(M[kSlotModWheelToFilterQ]); });
    e.put(kRowAftertouchToResonance, tf || ts({kSlotPressureToFilterQ}),
          [&] { return CentibelsToDb(M[kSlotPressureToFilterQ]); });
  }

  // Pan and sends.
  e.put(kRowPan, tg({kPan}), [&] { return G[kPan] * 0.002; });
  e.put(kRowCc10ToPan, ts({kSlotCc10ToPan}), [&] { return M[kSlotCc10ToPan] * 0.002; });
  e.put(kRowKeyToPan, ts({kSlotKeyBiToPan}), [&] { return M[kSlotKeyBiToPan] * 0.000375; });
  if (sends.reverb >= 0) {
    e.put(kRowSend1 + 2 * sends.reverb, tg({kReverbSend}), [&] { return G[kReverbSend] * 0.001; });
  }
  if (sends.chorus >= 0) {
    e.put(kRowSend1 + 2 * sends.chorus, tg({kChorusSend}), [&] { return G[kChorusSend] * 0.001; });
  }

  // Envelopes.
  auto envelope = [&](int k, const EnvSource& s, bool place) {
    const int b = s.slotBase;
    // Velocity to one stage's time, the bipolar source over the unipolar one.
    auto vel = [&](int stage) {
      const int32_t bi = M[b + kEnvSlotVelBi + stage], uni = M[b + kEnvSlotVelUni + stage];
      if (bi != 0) return std::pow(std::exp2(bi / 1200.0), 2.0);
      if (uni != 0) return std::pow(std::exp2(uni / 1200.0), 1.5);
      return 1.0;
    };
    // Returns the factor per octave; `mul` takes the time change at mid-C
    // that a unipolar key source brings.
    auto key = [&](int stage, double& mul) {
      const int32_t bi = M[b + kEnvSlotKeyBi + stage], uni = M[b + kEnvSlotKeyUni + stage];
      mul = 1.0;
      if (bi != 0) return std::pow(std::exp2(bi / 1200.0), 0.1875);
      if (uni != 0) {
        const double base = std::exp2(uni / 1200.0);
        mul = std::pow(base, 0.46875);
        return std::pow(base, 0.09375);
      }
      return 1.0;
    };
    auto velGiven = [&](int stage) {
      return touched.HasSlot(b + kEnvSlotVelUni + stage) || touched.HasSlot(b + kEnvSlotVelBi + stage);
    };
    auto keyGiven = [&](int stage) {
      return touched.HasSlot(b + kEnvSlotKeyUni + stage) || touched.HasSlot(b + kEnvSlotKeyBi + stage);
    };
    double mulDelay, mulAttack, mulRelease;
    const double keyDelay = key(kSlotKeyDelay, mulDelay);
    const double keyAttack = key(kSlotKeyAttack, mulAttack);
    const double keyRelease = key(kSlotKeyRelease, mulRelease);
    const double sustain = std::clamp(1.0 - G[s.sustain] / s.sustainScale, 0.0, 1.0);
    auto row = [&](int offset) { return EnvRow(k, offset); };
    auto T = [&](std::initializer_list<int> gens, bool slotGiven) {
      if (place || slotGiven) return true;
      for (int n : gens)
        if (touched.HasGen(n)) return true;
      return false;
    };
    e.put(row(kEnvA1Time), T({s.delay}, keyGiven(kSlotKeyDelay)),
          [&] { return TimecentsToSeconds(G[s.delay]) * mulDelay; });
    e.put(row(kEnvA1Vel), T({}, velGiven(kSlotDelay)), [&] { return vel(kSlotDelay); });
    e.put(row(kEnvA1Key), T({}, keyGiven(kSlotKeyDelay)), [&] { return keyDelay; });
    e.put(row(kEnvA2Time), T({s.attack}, keyGiven(kSlotKeyAttack)),
          [&] { return TimecentsToSeconds(G[s.attack]) * mulAttack; });
    e.put(row(kEnvA2Vel), T({}, velGiven(kSlotAttack)), [&] { return vel(kSlotAttack); });
    e.put(row(kEnvA2Key), T({}, keyGiven(kSlotKeyAttack)), [&] { return keyAttack; });
    e.put(row(kEnvD1Time), T({s.hold}, false), [&] { return TimecentsToSeconds(G[s.hold]); });
    e.put(row(kEnvD1Vel), T({}, velGiven(kSlotHold)), [&] { return vel(kSlotHold); });
    e.put(row(kEnvD1Key), T({s.keyHold}, false), [&] { return std::exp2(-G[s.keyHold] / 100.0); });
    // The standard's decay is the time of the whole range; the model's is the
    // time it takes to reach the sustain level.
    e.put(row(kEnvD2Time), T({s.decay, s.sustain}, false),
          [&] { return TimecentsToSeconds(G[s.decay]) * (1.0 - sustain); });
    e.put(row(kEnvD2Vel), T({}, velGiven(kSlotDecay)), [&] { return vel(kSlotDecay); });
    e.put(row(kEnvD2Key), T({s.keyDecay}, false), [&] { return std::exp2(-G[s.keyDecay] / 100.0); });
    e.put(row(kEnvSustain), T({s.sustain}, false), [&] { return sustain; });
    e.put(row(kEnvR1Rate), T({s.release}, keyGiven(kSlotKeyRelease)),
          [&] { return TimecentsToSeconds(G[s.release]) * mulRelease; });
    e.put(row(kEnvRelVel), T({}, velGiven(kSlotRelease)), [&] { return vel(kSlotRelease); });
    e.put(row(kEnvRelKey), T({}, keyGiven(kSlotKeyRelease)), [&] { return keyRelease; });
  };
  envelope(kEnvV, kVolEnv, false);

  // Modulation envelope: to the P-ENV when it moves the pitch, to the F-ENV
  // when it moves an active filter.
  double pEnvToPitch = G[kModEnvToPitch] * 0.01, velToPEnvPitch = 0.0;
  if (M[kSlotVelBiToModEnvPitch] != 0) {
    velToPEnvPitch = M[kSlotVelBiToModEnvPitch] * 0.01;
  } else if (M[kSlotVelUniToModEnvPitch] != 0) {
    velToPEnvPitch = M[kSlotVelUniToModEnvPitch] * 0.005;
    pEnvToPitch += velToPEnvPitch;
  }
  double fEnvToCutoff = G[kModEnvToFilterFc] * 0.01, velToFEnvCutoff = 0.0;
  if (M[kSlotVelBiToModEnvCutoff] != 0) {
    velToFEnvCutoff = M[kSlotVelBiToModEnvCutoff] * 0.01;
  } else if (M[kSlotVelUniToModEnvCutoff] != 0) {
    velToFEnvCutoff = M[kSlotVelUniToModEnvCutoff] * 0.005;
    fEnvToCutoff += velToFEnvCutoff;
  }
  const bool tp = tg({kModEnvToPitch}) || ts({kSlotVelUniToModEnvPitch, kSlotVelBiToModEnvPitch});
  const bool tcut = tg({kModEnvToFilterFc}) || ts({kSlotVelUniToModEnvCutoff, kSlotVelBiToModEnvCutoff}) || tf;
  e.put(kRowPEnvToPitch, tp, [&] { return pEnvToPitch; });
  e.put(kRowVelToPEnvPitch, tp, [&] { return velToPEnvPitch; });
  if (pEnvToPitch != 0 || velToPEnvPitch != 0) envelope(kEnvP, kModEnv, tp && !baseline);
  if (filterOn) {
    e.put(kRowFEnvToCutoff, tcut, [&] { return fEnvToCutoff; });
    e.put(kRowVelToFEnvCutoff, tcut, [&] { return velToFEnvCutoff; });
    if (fEnvToCutoff != 0 || velToFEnvCutoff != 0) envelope(kEnvF, kModEnv, tcut && !baseline);
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
  slot(kSlotWheelToFineTune, (v(kRowBendToPitch) - 2.0) * 100.0);

  gen(kVibLfoToPitch, v(kRowPLfoToPitch) * 100.0);
  slot(kSlotModWheelToVibLfoPitch, v(kRowModWheelToPLfoPitch) * 100.0);
  slot(kSlotPressureToVibLfoPitch, v(kRowAftertouchToPLfoPitch) * 100.0);
  slot(kSlotVelBiToVibLfoPitch, v(kRowVelToPLfoPitch) * 100.0);
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
  if (hasDepth({kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch, kRowVelToXLfoPitch})) {
    modLfo = kLfoX;
  } else if (hasDepth({kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume, kRowVelToVLfoVolume})) {
    modLfo = kLfoV;
  } else if (hasDepth({kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff})) {
    modLfo = kLfoF;
  }
  if (modLfo >= 0) {
    gen(kFreqModLfo, HzToCents(v(LfoRow(modLfo, kLfoFrequency))));
    z.g[kDelayModLfo] = SecondsToTimecents(v(LfoRow(modLfo, kLfoDelay)), kDelayModLfo);
  }
  gen(kModLfoToPitch, v(kRowXLfoToPitch) * 100.0);
  slot(kSlotModWheelToModLfoPitch, v(kRowModWheelToXLfoPitch) * 100.0);
  slot(kSlotPressureToModLfoPitch, v(kRowAftertouchToXLfoPitch) * 100.0);
  slot(kSlotVelBiToModLfoPitch, v(kRowVelToXLfoPitch) * 100.0);
  gen(kModLfoToVolume, DbToCentibels(v(kRowVLfoToVolume)));
  slot(kSlotModWheelToModLfoVolume, DbToCentibels(v(kRowModWheelToVLfoVolume)));
  slot(kSlotPressureToModLfoVolume, DbToCentibels(v(kRowAftertouchToVLfoVolume)));
  slot(kSlotVelBiToModLfoVolume, DbToCentibels(v(kRowVelToVLfoVolume)));

  // Volume: undo the reader's corrections of the master volume.
  double masterVolume = v(kRowMasterVolume);
  if (v(kRowKeyToVolume) != 0) {
    slot(kSlotKeyBiToAttenuation, v(kRowKeyToVolume) / (kAttenuationStepDb * 0.1875));
    masterVolume += v(kRowKeyToVolume) / 3.0;
  }
  slot(kSlotVelToAttenuation, v(kRowVelToVolume) / kVelocityStepDb);
  slot(kSlotModWheelToAttenuation, v(kRowModWheelToVolume) / kAttenuationStepDb);
  slot(kSlotPressureToAttenuation, v(kRowAftertouchToVolume) / kAttenuationStepDb);

  const bool filterOn = a.value[kRowFilterType] != 0;
  if (filterOn) {
    // Key tracking goes to the bipolar key slot.
    const FormatCutoff cutoff = CutoffFromModel({v(kRowCutoff), v(kRowVelToCutoff), v(kRowKeyToCutoff)}, kBipolarKeyReference);
    const double f = cutoff.hz;
    slot(kSlotVelToCutoff, -cutoff.velocitySpan * 100.0);
    if (cutoff.keyPerOctave != 0) slot(kSlotKeyBiToCutoff, cutoff.keyPerOctave / 0.001875);
    // A cutoff at the top of the model's range may have reached past it.
    // With resonance it is the SoundFont idiom of an open filter that is on
    // only for its Q: undoing the velocity correction from the clipped value
    // would close it to half. Without, it came from a real cutoff near the
    // top, which undoing the correction gives back.
    const bool open = v(kRowCutoff) >= CatalogueRow(kRowCutoff)->max && v(kRowResonance) > 0;
    gen(kInitialFilterFc, open || f >= 19900.0 ? 13500 : HzToCents(f));
    gen(kInitialFilterQ, DbToCentibels(v(kRowResonance)));
    gen(kModLfoToFilterFc, v(kRowFLfoToCutoff) * 100.0);
    slot(kSlotModWheelToModLfoCutoff, v(kRowModWheelToFLfoCutoff) * 100.0);
    slot(kSlotPressureToModLfoCutoff, v(kRowAftertouchToFLfoCutoff) * 100.0);
    slot(kSlotVelBiToModLfoCutoff, v(kRowVelToFLfoCutoff) * 100.0);
    // The reader's compensation undone as it was made: a resonance below
    // zero is written as none, but it lowered the master volume all the same.
    masterVolume += v(kRowResonance) * 0.5;
    slot(kSlotModWheelToCutoff, v(kRowModWheelToCutoff) * 100.0);
    slot(kSlotPressureToCutoff, v(kRowAftertouchToCutoff) * 100.0);
    slot(kSlotVelBiToFilterQ, DbToCentibels(v(kRowVelToResonance)));
    slot(kSlotModWheelToFilterQ, DbToCentibels(v(kRowModWheelToResonance)));
    slot(kSlotPressureToFilterQ, DbToCentibels(v(kRowAftertouchToResonance)));
  }
  // Below zero is a gain, which only a preset zone may add; the writer lifts
  // the instrument's zones and puts the rest there.
  z.g[kInitialAttenuation] = std::clamp(RoundHalfAway(-masterVolume / kAttenuationStepDb), -1440, 1440);

  gen(kPan, v(kRowPan) * 500.0);
  slot(kSlotCc10ToPan, v(kRowCc10ToPan) / 0.002);
  slot(kSlotKeyBiToPan, v(kRowKeyToPan) / 0.000375);
  if (sends.reverb >= 0) gen(kReverbSend, v(kRowSend1 + 2 * sends.reverb) * 1000.0);
  if (sends.chorus >= 0) gen(kChorusSend, v(kRowSend1 + 2 * sends.chorus) * 1000.0);

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
    // By slot stage: delay, attack, hold, decay, release; for the key,
    // delay, attack, release.
    const int velRows[kEnvSlotStages] = {kEnvA1Vel, kEnvA2Vel, kEnvD1Vel, kEnvD2Vel, kEnvRelVel};
    for (int i = 0; i < kEnvSlotStages; ++i) slot(b + kEnvSlotVelBi + i, 600.0 * logOf(r(velRows[i])));
    const int keyRows[kEnvSlotKeyStages] = {kEnvA1Key, kEnvA2Key, kEnvRelKey};
    for (int i = 0; i < kEnvSlotKeyStages; ++i) slot(b + kEnvSlotKeyBi + i, 1200.0 * logOf(r(keyRows[i])) / 0.1875);
  };
  envelope(kEnvV, kVolEnv);

  const bool pitchEnv = v(kRowPEnvToPitch) != 0 || v(kRowVelToPEnvPitch) != 0;
  const bool cutoffEnv = filterOn && (v(kRowFEnvToCutoff) != 0 || v(kRowVelToFEnvCutoff) != 0);
  if (pitchEnv) {
    envelope(kEnvP, kModEnv);
  } else if (cutoffEnv) {
    envelope(kEnvF, kModEnv);
  }
  if (pitchEnv) {
    gen(kModEnvToPitch, v(kRowPEnvToPitch) * 100.0);
    slot(kSlotVelBiToModEnvPitch, v(kRowVelToPEnvPitch) * 100.0);
  }
  if (cutoffEnv) {
    gen(kModEnvToFilterFc, v(kRowFEnvToCutoff) * 100.0);
    slot(kSlotVelBiToModEnvCutoff, v(kRowVelToFEnvCutoff) * 100.0);
  }
  return z;
}

}  // namespace kv::sf2
