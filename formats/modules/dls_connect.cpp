// DLS connection blocks <-> the articulation model. Every block the Part's
// table names has a slot; the reader gathers a list's blocks into the slots
// and turns them into rows by one formula per row, the writer inverts each.
#include <algorithm>
#include <cmath>
#include <initializer_list>

#include "core/articulation.h"
#include "core/param_catalogue.h"
#include "core/units.h"
#include "formats/modules/dls_format.h"

namespace kv::dls {

namespace {

// A time per octave of keys: the key source spans 128 keys, an octave 12.
constexpr double kKeysPerSpan = 128.0 / 12.0;
// The model centres key tracking on middle C; the file's key source starts
// at key 0, five octaves below.
constexpr double kOctavesBelowMiddleC = 5.0;
// Pan blocks hold half of the model's value: full left is -50 %.
constexpr double kPanUnit = kLevelUnit * 0.5;

enum Slot : int {
  sLfoFreq, sLfoDelay, sVibFreq, sVibDelay,
  sEg1Delay, sEg1Attack, sEg1Hold, sEg1Decay, sEg1Sustain, sEg1Release, sEg1Shutdown,
  sEg1VelAttack, sEg1KeyHold, sEg1KeyDecay,
  sEg2Delay, sEg2Attack, sEg2Hold, sEg2Decay, sEg2Sustain, sEg2Release,
  sEg2VelAttack, sEg2KeyHold, sEg2KeyDecay,
  sCutoff, sQ,
  sLfoCutoff, sLfoCutoffMw, sLfoCutoffAt, sLfoCutoffVel,
  sEg2Cutoff, sVelCutoff, sKeyCutoff, sMwCutoff, sAtCutoff,
  sLfoGain, sLfoGainMw, sLfoGainAt, sLfoGainVel,
  sVelGain, sKeyGain, sMwGain, sAtGain,
  sTune, sKeyPitch, sBend,
  sVibPitch, sVibPitchMw, sVibPitchAt, sVibPitchVel,
  sLfoPitch, sLfoPitchMw, sLfoPitchAt, sLfoPitchVel,
  sEg2Pitch,
  sPan, sCc10Pan, sKeyPan, sLfoPan, sEg2Pan,
  sReverb, sCc91Reverb, sChorus, sCc93Chorus,
  kSlotCount
};

struct SlotDef {
  uint16_t source, control, destination, transform;
};

constexpr SlotDef kSlots[kSlotCount] = {
    {kSrcNone, kSrcNone, kDstLfoFrequency, 0},
    {kSrcNone, kSrcNone, kDstLfoDelay, 0},
    {kSrcNone, kSrcNone, kDstVibFrequency, 0},
    {kSrcNone, kSrcNone, kDstVibDelay, 0},
    {kSrcNone, kSrcNone, kDstEg1Delay, 0},
    {kSrcNone, kSrcNone, kDstEg1Attack, 0},
    {kSrcNone, kSrcNone, kDstEg1Hold, 0},
    {kSrcNone, kSrcNone, kDstEg1Decay, 0},
    {kSrcNone, kSrcNone, kDstEg1Sustain, 0},
    {kSrcNone, kSrcNone, kDstEg1Release, 0},
    {kSrcNone, kSrcNone, kDstEg1Shutdown, 0},
    {kSrcVelocity, kSrcNone, kDstEg1Attack, 0},
    {kSrcKey, kSrcNone, kDstEg1Hold, 0},
    {kSrcKey, kSrcNone, kDstEg1Decay, 0},
    {kSrcNone, kSrcNone, kDstEg2Delay, 0},
    {kSrcNone, kSrcNone, kDstEg2Attack, 0},
    {kSrcNone, kSrcNone, kDstEg2Hold, 0},
    {kSrcNone, kSrcNone, kDstEg2Decay, 0},
    {kSrcNone, kSrcNone, kDstEg2Sustain, 0},
    {kSrcNone, kSrcNone, kDstEg2Release, 0},
    {kSrcVelocity, kSrcNone, kDstEg2Attack, 0},
    {kSrcKey, kSrcNone, kDstEg2Hold, 0},
    {kSrcKey, kSrcNone, kDstEg2Decay, 0},
    {kSrcNone, kSrcNone, kDstCutoff, 0},
    {kSrcNone, kSrcNone, kDstQ, 0},
    {kSrcLfo, kSrcNone, kDstCutoff, kTrnSourceBipolar},
    {kSrcLfo, kSrcCc1, kDstCutoff, kTrnSourceBipolar},
    {kSrcLfo, kSrcChannelPressure, kDstCutoff, kTrnSourceBipolar},
    {kSrcLfo, kSrcVelocity, kDstCutoff, kTrnSourceBipolar},
    {kSrcEg2, kSrcNone, kDstCutoff, 0},
    {kSrcVelocity, kSrcNone, kDstCutoff, 0},
    {kSrcKey, kSrcNone, kDstCutoff, 0},
    {kSrcCc1, kSrcNone, kDstCutoff, 0},
    {kSrcChannelPressure, kSrcNone, kDstCutoff, 0},
    {kSrcLfo, kSrcNone, kDstGain, kTrnSourceBipolar},
    {kSrcLfo, kSrcCc1, kDstGain, kTrnSourceBipolar},
    {kSrcLfo, kSrcChannelPressure, kDstGain, kTrnSourceBipolar},
    {kSrcLfo, kSrcVelocity, kDstGain, kTrnSourceBipolar},
    {kSrcVelocity, kSrcNone, kDstGain, kTrnVelocityCurve},
    {kSrcKey, kSrcNone, kDstGain, 0},
    {kSrcCc1, kSrcNone, kDstGain, 0},
    {kSrcChannelPressure, kSrcNone, kDstGain, 0},
    {kSrcNone, kSrcNone, kDstPitch, 0},
    {kSrcKey, kSrcNone, kDstPitch, 0},
    {kSrcPitchWheel, kSrcNone, kDstPitch, 0},
    {kSrcVibrato, kSrcNone, kDstPitch, kTrnSourceBipolar},
    {kSrcVibrato, kSrcCc1, kDstPitch, kTrnSourceBipolar},
    {kSrcVibrato, kSrcChannelPressure, kDstPitch, kTrnSourceBipolar},
    {kSrcVibrato, kSrcVelocity, kDstPitch, kTrnSourceBipolar},
    {kSrcLfo, kSrcNone, kDstPitch, kTrnSourceBipolar},
    {kSrcLfo, kSrcCc1, kDstPitch, kTrnSourceBipolar},
    {kSrcLfo, kSrcChannelPressure, kDstPitch, kTrnSourceBipolar},
    {kSrcLfo, kSrcVelocity, kDstPitch, kTrnSourceBipolar},
    {kSrcEg2, kSrcNone, kDstPitch, 0},
    {kSrcNone, kSrcNone, kDstPan, 0},
    {kSrcCc10, kSrcNone, kDstPan, kTrnSourceBipolar},
    {kSrcKey, kSrcNone, kDstPan, 0},
    {kSrcLfo, kSrcNone, kDstPan, kTrnSourceBipolar},
    {kSrcEg2, kSrcNone, kDstPan, 0},
    {kSrcNone, kSrcNone, kDstReverb, 0},
    {kSrcCc91, kSrcNone, kDstReverb, 0},
    {kSrcNone, kSrcNone, kDstChorus, 0},
    {kSrcCc93, kSrcNone, kDstChorus, 0},
};

int FindSlot(const Connection& c) {
  for (int s = 0; s < kSlotCount; ++s)
    if (kSlots[s].source == c.source && kSlots[s].control == c.control && kSlots[s].destination == c.destination)
      return s;
  return -1;
}

// Blocks that say what every DLS synthesizer does anyway: the channel
// volume and expression curves, tuning and bend range by RPN. Reading them
// loses nothing.
bool StandardBehaviour(const Connection& c) {
  if (c.destination == kDstGain && (c.source == kSrcCc7 || c.source == kSrcCc11) && c.control == kSrcNone) return true;
  if (c.destination == kDstPitch && c.control == kSrcNone && (c.source == kSrcRpn1 || c.source == kSrcRpn2)) return true;
  if (c.destination == kDstPitch && c.source == kSrcPitchWheel && c.control == kSrcRpn0) return true;
  return false;
}

// Key source factors: the time multiplier per octave from the change over
// the whole key span, and back.
double KeyFactor(int32_t scale) { return std::exp2(scale / kTimeUnit / kKeysPerSpan); }
int32_t KeyScale(double factor) {
  return factor > 0 ? static_cast<int32_t>(std::lround(std::clamp(std::log2(factor) * kKeysPerSpan * kTimeUnit, -2.1e9, 2.1e9)))
                    : 0;
}
// Velocity: the time quotient between the highest and the lowest velocity.
double VelocityFactor(int32_t scale) { return std::exp2(scale / kTimeUnit); }
int32_t VelocityScale(double factor) {
  return factor > 0 ? static_cast<int32_t>(std::lround(std::clamp(std::log2(factor) * kTimeUnit, -2.1e9, 2.1e9))) : 0;
}

int32_t Scaled(double value, double unit) {
  if (!(value == value)) return 0;
  return static_cast<int32_t>(std::lround(std::clamp(value * unit, -2147483647.0, 2147483647.0)));
}

struct EnvDests {
  int delay, attack, hold, decay, sustain, release;
  int velAttack, keyHold, keyDecay;
};
constexpr EnvDests kEg1 = {sEg1Delay, sEg1Attack, sEg1Hold, sEg1Decay, sEg1Sustain, sEg1Release,
                           sEg1VelAttack, sEg1KeyHold, sEg1KeyDecay};
constexpr EnvDests kEg2 = {sEg2Delay, sEg2Attack, sEg2Hold, sEg2Decay, sEg2Sustain, sEg2Release,
                           sEg2VelAttack, sEg2KeyHold, sEg2KeyDecay};

}  // namespace

uint64_t LevelMask(int level) {
  switch (level) {
    case 1: return kMaskLevel1;
    case 2: return kMaskLevel2;
    case 3: return kMaskLevel2Plus;
    default: return kMaskLevel2PlusPlus;
  }
}

double TimeToSeconds(int32_t scale) {
  if (scale == kZeroTime) return 0.0;
  return std::exp2(scale / kTimeUnit);
}

int32_t SecondsToTime(double seconds) {
  if (!(seconds > 0.0)) return kZeroTime;
  return static_cast<int32_t>(std::lround(std::clamp(std::log2(seconds) * kTimeUnit, -2147483647.0, 2147483647.0)));
}

double PitchToHz(int32_t scale) { return 440.0 * std::exp2((scale / kCentUnit - 6900.0) / 1200.0); }

int32_t HzToPitch(double hz) {
  if (!(hz > 0.0)) return Scaled(-12000.0, kCentUnit);
  return Scaled(1200.0 * std::log2(hz / 440.0) + 6900.0, kCentUnit);
}

bool ConnectionsUseReverb(std::span<const Connection> blocks) {
  return std::any_of(blocks.begin(), blocks.end(), [](const Connection& c) { return c.destination == kDstReverb; });
}
bool ConnectionsUseChorus(std::span<const Connection> blocks) {
  return std::any_of(blocks.begin(), blocks.end(), [](const Connection& c) { return c.destination == kDstChorus; });
}

// ---- reading ----

ReadResult ConnectionsToArticulation(std::span<const Connection> blocks, bool level1, const SendSlots& sends,
                                     Articulation& out) {
  ReadResult result;
  int32_t v[kSlotCount] = {};
  bool has[kSlotCount] = {};
  for (const Connection& c : blocks) {
    const int s = FindSlot(c);
    if (s < 0) {
      if (!StandardBehaviour(c)) ++result.unknown;
      continue;
    }
    v[s] = c.scale;
    has[s] = true;
  }
  auto any = [&](std::initializer_list<int> slots) {
    for (int s : slots)
      if (has[s]) return true;
    return false;
  };
  auto set = [&](int row, bool given, double value) {
    if (given) out.Set(row, static_cast<float>(value));
  };
  auto semis = [&](int s) { return v[s] / kSemitoneUnit; };
  auto db = [&](int s) { return v[s] / kDbUnit; };

  // Pitch.
  set(kRowMasterTune, has[sTune], semis(sTune));
  set(kRowKeyToPitch, has[sKeyPitch], semis(sKeyPitch) / 128.0);
  set(kRowBendToPitch, has[sBend], semis(sBend));

  // The vibrato: level 2's own LFO, or level 1's one LFO where it moves the
  // pitch.
  {
    const int depth[4] = {level1 ? sLfoPitch : sVibPitch, level1 ? sLfoPitchMw : sVibPitchMw,
                          level1 ? sLfoPitchAt : sVibPitchAt, level1 ? sLfoPitchVel : sVibPitchVel};
    const int rows[4] = {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch, kRowVelToPLfoPitch};
    const int freq = level1 ? sLfoFreq : sVibFreq, delay = level1 ? sLfoDelay : sVibDelay;
    for (int i = 0; i < 4; ++i) set(rows[i], has[depth[i]], semis(depth[i]));
    if (any({depth[0], depth[1], depth[2], depth[3]})) {
      set(LfoRow(kLfoP, kLfoFrequency), has[freq], PitchToHz(v[freq]));
      set(LfoRow(kLfoP, kLfoDelay), has[delay], TimeToSeconds(v[delay]));
    }
  }

  // The modulation LFO, placed on each of X (pitch, pan), V (volume) and F
  // (cutoff) that it drives.
  const bool filterOn = has[sCutoff] && v[sCutoff] != kFilterOff;
  {
    struct Target {
      int lfo;
      int rows[4];
      int slots[4];
      double unit;
      bool active;
    };
    const Target targets[3] = {
        {kLfoX,
         {kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch, kRowVelToXLfoPitch},
         {sLfoPitch, sLfoPitchMw, sLfoPitchAt, sLfoPitchVel},
         kSemitoneUnit,
         !level1},
        {kLfoV,
         {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume, kRowVelToVLfoVolume},
         {sLfoGain, sLfoGainMw, sLfoGainAt, sLfoGainVel},
         kDbUnit,
         true},
        {kLfoF,
         {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff},
         {sLfoCutoff, sLfoCutoffMw, sLfoCutoffAt, sLfoCutoffVel},
         kSemitoneUnit,
         filterOn},
    };
    for (const Target& t : targets) {
      if (!t.active) continue;
      bool driven = false;
      for (int i = 0; i < 4; ++i) {
        set(t.rows[i], has[t.slots[i]], v[t.slots[i]] / t.unit);
        driven |= has[t.slots[i]];
      }
      if (t.lfo == kLfoX && has[sLfoPan]) {
        set(kRowXLfoToPan, true, v[sLfoPan] / kPanUnit);
        driven = true;
      }
      if (!driven) continue;
      set(LfoRow(t.lfo, kLfoFrequency), has[sLfoFreq], PitchToHz(v[sLfoFreq]));
      set(LfoRow(t.lfo, kLfoDelay), has[sLfoDelay], TimeToSeconds(v[sLfoDelay]));
    }
  }

  // Volume. The key tracking is centred on middle C in the model, on key 0
  // in the file.
  if (has[sVelGain]) out.Set(kRowVelToVolume, static_cast<float>(-db(sVelGain)));
  if (has[sKeyGain]) {
    const double perOctave = db(sKeyGain) / kKeysPerSpan;
    out.Set(kRowKeyToVolume, static_cast<float>(perOctave));
    out.Set(kRowMasterVolume, static_cast<float>(out.value[kRowMasterVolume] + perOctave * kOctavesBelowMiddleC));
  }
  set(kRowModWheelToVolume, has[sMwGain], db(sMwGain));
  set(kRowAftertouchToVolume, has[sAtGain], db(sAtGain));

  // Filter.
  if (filterOn) {
    FormatCutoff format{PitchToHz(v[sCutoff]), has[sVelCutoff] ? semis(sVelCutoff) : 0.0,
                        has[sKeyCutoff] ? semis(sKeyCutoff) / kKeysPerSpan : 0.0};
    const ModelCutoff cutoff = CutoffToModel(format, 0.0);
    out.Set(kRowFilterType, 2);
    out.Set(kRowCutoff, static_cast<float>(cutoff.hz));
    set(kRowVelToCutoff, has[sVelCutoff], cutoff.velocityDepth);
    set(kRowKeyToCutoff, has[sKeyCutoff], cutoff.keyDepth);
    set(kRowModWheelToCutoff, has[sMwCutoff], semis(sMwCutoff));
    set(kRowAftertouchToCutoff, has[sAtCutoff], semis(sAtCutoff));
    set(kRowResonance, has[sQ], db(sQ));
  } else if (has[sCutoff]) {
    out.Set(kRowFilterType, 0);
  }

  // Pan, centred like the volume.
  if (has[sPan] || has[sKeyPan]) {
    const double perOctave = has[sKeyPan] ? v[sKeyPan] / kPanUnit / kKeysPerSpan : 0.0;
    const double base = has[sPan] ? v[sPan] / kPanUnit : out.value[kRowPan];
    out.Set(kRowPan, static_cast<float>(base + perOctave * kOctavesBelowMiddleC));
    set(kRowKeyToPan, has[sKeyPan], perOctave);
  }
  set(kRowCc10ToPan, has[sCc10Pan], v[sCc10Pan] / kPanUnit);

  // Sends.
  if (sends.reverb >= 0) {
    set(kRowSend1 + 2 * sends.reverb, has[sReverb], v[sReverb] / kLevelUnit);
    set(kRowSend1 + 2 * sends.reverb + 1, has[sCc91Reverb], v[sCc91Reverb] / kLevelUnit);
  }
  if (sends.chorus >= 0) {
    set(kRowSend1 + 2 * sends.chorus, has[sChorus], v[sChorus] / kLevelUnit);
    set(kRowSend1 + 2 * sends.chorus + 1, has[sCc93Chorus], v[sCc93Chorus] / kLevelUnit);
  }

  // Envelopes.
  auto envelope = [&](int k, const EnvDests& d, bool all) {
    auto row = [&](int offset) { return EnvRow(k, offset); };
    auto seconds = [&](int s) { return has[s] ? TimeToSeconds(v[s]) : 0.0; };
    const double velAttack = has[d.velAttack] ? VelocityFactor(v[d.velAttack]) : 1.0;
    const double keyHold = has[d.keyHold] ? KeyFactor(v[d.keyHold]) : 1.0;
    const double keyDecay = has[d.keyDecay] ? KeyFactor(v[d.keyDecay]) : 1.0;
    const double sustain = has[d.sustain] ? std::clamp(v[d.sustain] / kLevelUnit, 0.0, 1.0) : 1.0;
    set(row(kEnvA1Time), all || has[d.delay], seconds(d.delay));
    set(row(kEnvA2Time), all || has[d.attack] || has[d.velAttack], seconds(d.attack) * std::sqrt(velAttack));
    set(row(kEnvA2Vel), all || has[d.velAttack], velAttack);
    set(row(kEnvD1Time), all || has[d.hold] || has[d.keyHold],
        seconds(d.hold) * std::pow(keyHold, kOctavesBelowMiddleC));
    set(row(kEnvD1Key), all || has[d.keyHold], keyHold);
    // The file's decay is the time of the whole range; the model's the time
    // it takes to reach the sustain level.
    set(row(kEnvD2Time), all || has[d.decay] || has[d.keyDecay] || has[d.sustain],
        seconds(d.decay) * std::pow(keyDecay, kOctavesBelowMiddleC) * (1.0 - sustain));
    set(row(kEnvD2Key), all || has[d.keyDecay], keyDecay);
    set(row(kEnvSustain), all || has[d.sustain], sustain);
    set(row(kEnvR1Rate), all || has[d.release], seconds(d.release));
  };
  envelope(kEnvV, kEg1, false);
  if (has[sEg1Shutdown]) out.Set(EnvRow(kEnvV, kEnvShutdown), static_cast<float>(TimeToSeconds(v[sEg1Shutdown])));

  // EG2 becomes the P-ENV, the F-ENV and the X-ENV by the depths present.
  const bool eg2Given = any({sEg2Delay, sEg2Attack, sEg2Hold, sEg2Decay, sEg2Sustain, sEg2Release, sEg2VelAttack,
                             sEg2KeyHold, sEg2KeyDecay});
  if (has[sEg2Pitch]) {
    out.Set(kRowPEnvToPitch, static_cast<float>(semis(sEg2Pitch)));
    envelope(kEnvP, kEg2, eg2Given);
  }
  if (has[sEg2Cutoff] && filterOn) {
    out.Set(kRowFEnvToCutoff, static_cast<float>(semis(sEg2Cutoff)));
    envelope(kEnvF, kEg2, eg2Given);
  }
  if (has[sEg2Pan]) {
    out.Set(kRowXEnvToPan, static_cast<float>(v[sEg2Pan] / kPanUnit));
    envelope(kEnvX, kEg2, eg2Given);
  }
  return result;
}

// ---- writing ----

WrittenArticulation ArticulationToConnections(const Articulation& merged, int level, const SendSlots& sends,
                                              uint64_t features) {
  const bool level1 = level <= 1;
  Articulation a = merged;
  ReduceArticulation(a, LevelMask(level) & features);
  for (int k = 0; k < kEnvX; ++k) {
    EnvGroup g = a.ReadEnvelope(k);
    if (IsPlainEnvelope(g)) continue;
    const float gain = FoldToDahdsr(g, k != kEnvV);
    a.WriteEnvelope(k, g);
    if (k == kEnvV) a.value[kRowMasterVolume] += gain;
  }
  const float* v = a.value;

  WrittenArticulation w;
  auto put = [&](int slot, int32_t scale, uint16_t transform) {
    w.blocks.push_back({kSlots[slot].source, kSlots[slot].control, kSlots[slot].destination, transform, scale});
  };
  auto putSlot = [&](int slot, int32_t scale) { put(slot, scale, kSlots[slot].transform); };
  auto nonzero = [&](int slot, double value, double unit) {
    const int32_t s = Scaled(value, unit);
    if (s != 0) putSlot(slot, s);
  };
  auto depthOf = [&](std::initializer_list<int> rows) {
    for (int r : rows)
      if (v[r] != 0) return true;
    return false;
  };

  // The master volume goes to the wsmp, with the key tracking's centring.
  double gain = v[kRowMasterVolume];
  const double tune = v[kRowMasterTune];
  if (v[kRowKeyToPitch] != 1.0f) {
    nonzero(sTune, tune, kSemitoneUnit);
  } else {
    w.tuneSemitones = tune;
  }
  if (v[kRowKeyToPitch] != 1.0f) putSlot(sKeyPitch, Scaled(v[kRowKeyToPitch] * 128.0, kSemitoneUnit));
  if (!level1 && v[kRowBendToPitch] != 2.0f) putSlot(sBend, Scaled(v[kRowBendToPitch], kSemitoneUnit));

  // LFOs: level 2 has the vibrato beside the modulation LFO; level 1's one
  // LFO carries both pitch depths.
  const int lfoTiming = depthOf({kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch,
                                 kRowVelToXLfoPitch, kRowXLfoToPan})
                            ? kLfoX
                        : depthOf({kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume,
                                   kRowVelToVLfoVolume})
                            ? kLfoV
                        : v[kRowFilterType] != 0 && depthOf({kRowFLfoToCutoff, kRowModWheelToFLfoCutoff,
                                                              kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff})
                            ? kLfoF
                            : -1;
  const bool vibrato = depthOf({kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch,
                                kRowVelToPLfoPitch});
  auto lfoTimingBlocks = [&](int lfo, int freqSlot, int delaySlot) {
    const double hz = std::clamp<double>(v[LfoRow(lfo, kLfoFrequency)], 0.1, 20.0);
    const double delay = std::clamp<double>(v[LfoRow(lfo, kLfoDelay)], 0.01, 10.0);
    // Defaults are 5 Hz and 0.01 s; model values are floats.
    if (std::fabs(hz - 5.0) > 1e-4) putSlot(freqSlot, HzToPitch(hz));
    if (std::fabs(delay - 0.01) > 1e-6) putSlot(delaySlot, SecondsToTime(delay));
  };
  const int pitchDepth[4] = {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch, kRowVelToPLfoPitch};
  const int xDepth[4] = {kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch, kRowVelToXLfoPitch};
  if (level1) {
    // After the reduction all LFOs share one timing.
    if (vibrato) {
      lfoTimingBlocks(kLfoP, sLfoFreq, sLfoDelay);
    } else if (lfoTiming >= 0) {
      lfoTimingBlocks(lfoTiming, sLfoFreq, sLfoDelay);
    }
    const int slots[4] = {sLfoPitch, sLfoPitchMw, sLfoPitchAt, sLfoPitchVel};
    for (int i = 0; i < 4; ++i) nonzero(slots[i], v[pitchDepth[i]] + v[xDepth[i]], kSemitoneUnit);
  } else {
    if (vibrato) lfoTimingBlocks(kLfoP, sVibFreq, sVibDelay);
    if (lfoTiming >= 0) lfoTimingBlocks(lfoTiming, sLfoFreq, sLfoDelay);
    const int vib[4] = {sVibPitch, sVibPitchMw, sVibPitchAt, sVibPitchVel};
    const int mod[4] = {sLfoPitch, sLfoPitchMw, sLfoPitchAt, sLfoPitchVel};
    for (int i = 0; i < 4; ++i) nonzero(vib[i], v[pitchDepth[i]], kSemitoneUnit);
    for (int i = 0; i < 4; ++i) nonzero(mod[i], v[xDepth[i]], kSemitoneUnit);
  }
  {
    const int rows[4] = {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume, kRowVelToVLfoVolume};
    const int slots[4] = {sLfoGain, sLfoGainMw, sLfoGainAt, sLfoGainVel};
    for (int i = 0; i < 4; ++i) nonzero(slots[i], v[rows[i]], kDbUnit);
  }

  // Volume.
  if (v[kRowVelToVolume] != 96.0f) {
    put(sVelGain, Scaled(-v[kRowVelToVolume], kDbUnit), level1 ? kTrnConcave1 : kTrnVelocityCurve);
  }
  if (v[kRowKeyToVolume] != 0) {
    putSlot(sKeyGain, Scaled(v[kRowKeyToVolume] * kKeysPerSpan, kDbUnit));
    gain -= v[kRowKeyToVolume] * kOctavesBelowMiddleC;
  }
  nonzero(sMwGain, v[kRowModWheelToVolume], kDbUnit);
  nonzero(sAtGain, v[kRowAftertouchToVolume], kDbUnit);
  w.gainDb = gain;

  // Filter: absent is off.
  const bool filterOn = !level1 && v[kRowFilterType] != 0;
  if (filterOn) {
    const FormatCutoff f = CutoffFromModel({v[kRowCutoff], v[kRowVelToCutoff], v[kRowKeyToCutoff]}, 0.0);
    const double floor = level1 ? kCutoffFloorLevel1 : kCutoffFloorLevel2;
    const double cents = std::max(1200.0 * std::log2(std::max(f.hz, 1e-3) / 440.0) + 6900.0, floor);
    putSlot(sCutoff, Scaled(cents, kCentUnit));
    if (v[kRowResonance] > 0) putSlot(sQ, Scaled(v[kRowResonance], kDbUnit));
    nonzero(sVelCutoff, f.velocitySpan, kSemitoneUnit);
    nonzero(sKeyCutoff, f.keyPerOctave * kKeysPerSpan, kSemitoneUnit);
    nonzero(sMwCutoff, v[kRowModWheelToCutoff], kSemitoneUnit);
    nonzero(sAtCutoff, v[kRowAftertouchToCutoff], kSemitoneUnit);
    const int rows[4] = {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff};
    const int slots[4] = {sLfoCutoff, sLfoCutoffMw, sLfoCutoffAt, sLfoCutoffVel};
    for (int i = 0; i < 4; ++i) nonzero(slots[i], v[rows[i]], kSemitoneUnit);
  }

  // Pan, centred like the volume.
  {
    const double base = v[kRowPan] - v[kRowKeyToPan] * kOctavesBelowMiddleC;
    nonzero(sPan, base, kPanUnit);
    if (v[kRowCc10ToPan] != 1.0f) putSlot(sCc10Pan, Scaled(v[kRowCc10ToPan], kPanUnit));
    nonzero(sKeyPan, v[kRowKeyToPan] * kKeysPerSpan, kPanUnit);
    nonzero(sLfoPan, v[kRowXLfoToPan], kPanUnit);
  }

  // Sends.
  if (sends.reverb >= 0) {
    nonzero(sReverb, v[kRowSend1 + 2 * sends.reverb], kLevelUnit);
    if (v[kRowSend1 + 2 * sends.reverb + 1] != 1.0f)
      putSlot(sCc91Reverb, Scaled(v[kRowSend1 + 2 * sends.reverb + 1], kLevelUnit));
  }
  if (sends.chorus >= 0) {
    nonzero(sChorus, v[kRowSend1 + 2 * sends.chorus], kLevelUnit);
    if (v[kRowSend1 + 2 * sends.chorus + 1] != 1.0f)
      putSlot(sCc93Chorus, Scaled(v[kRowSend1 + 2 * sends.chorus + 1], kLevelUnit));
  }

  // Envelopes.
  auto envelope = [&](int k, const EnvDests& d, bool eg1) {
    auto r = [&](int offset) { return static_cast<double>(v[EnvRow(k, offset)]); };
    auto time = [&](int slot, double seconds) {
      if (seconds > 0) putSlot(slot, SecondsToTime(seconds));
    };
    auto factor = [](double f) { return f > 0 ? f : 1.0; };
    const double velAttack = factor(r(kEnvA2Vel)), keyHold = factor(r(kEnvD1Key)), keyDecay = factor(r(kEnvD2Key));
    const double sustain = std::clamp(r(kEnvSustain), 0.0, 1.0);
    if (!level1) time(d.delay, r(kEnvA1Time));
    time(d.attack, r(kEnvA2Time) / std::sqrt(velAttack));
    if (velAttack != 1.0) putSlot(d.velAttack, VelocityScale(velAttack));
    if (!level1) time(d.hold, r(kEnvD1Time) / std::pow(keyHold, kOctavesBelowMiddleC));
    if (!level1 && keyHold != 1.0) putSlot(d.keyHold, KeyScale(keyHold));
    if (sustain < 1.0) time(d.decay, r(kEnvD2Time) / (1.0 - sustain) / std::pow(keyDecay, kOctavesBelowMiddleC));
    if (keyDecay != 1.0) putSlot(d.keyDecay, KeyScale(keyDecay));
    if (sustain != 1.0) putSlot(d.sustain, Scaled(sustain, kLevelUnit));
    time(d.release, r(kEnvR1Rate));
    if (eg1 && !level1) {
      const double shutdown = r(kEnvShutdown);
      if (std::fabs(shutdown - 0.015) > 1e-6) putSlot(sEg1Shutdown, SecondsToTime(shutdown));
    }
  };
  envelope(kEnvV, kEg1, true);

  // EG2: the first of P, F, X that has a depth; after the reduction they
  // share one shape anyway.
  const bool pEnv = v[kRowPEnvToPitch] != 0;
  const bool fEnv = filterOn && v[kRowFEnvToCutoff] != 0;
  const bool xEnv = !level1 && v[kRowXEnvToPan] != 0;
  const int eg2 = pEnv ? kEnvP : fEnv ? kEnvF : xEnv ? kEnvX : -1;
  if (eg2 >= 0) {
    envelope(eg2, kEg2, false);
    nonzero(sEg2Pitch, v[kRowPEnvToPitch], kSemitoneUnit);
    if (fEnv) nonzero(sEg2Cutoff, v[kRowFEnvToCutoff], kSemitoneUnit);
    if (xEnv) nonzero(sEg2Pan, v[kRowXEnvToPan], kPanUnit);
  }
  return w;
}

}  // namespace kv::dls
