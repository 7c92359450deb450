// Averaging of articulation records, the envelope fold and the reduction of
// a record to what a parameter set can express.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

#include "core/articulation.h"

namespace kv {
namespace {

double Round3(double v) {
  const double y = v * 1000.0;
  return (y < 0 ? -std::floor(-y + 0.5) : std::floor(y + 0.5)) / 1000.0;
}

bool SameBits(float a, float b) { return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b); }

// One envelope segment's time and its velocity and key factors.
struct Segment {
  double t = 0;
  double vel = 1;
  double key = 1;
};

// Times add up; the factors are time-weighted means, or plain means when no
// segment has time.
Segment Merge(const Segment* s, int n) {
  if (n <= 0) return Segment{};
  if (n == 1) return s[0];
  Segment r;
  r.t = 0;
  for (int i = 0; i < n; ++i) r.t += s[i].t;
  double v = 0, k = 0;
  for (int i = 0; i < n; ++i) {
    const double w = r.t > 0 ? s[i].t : 1.0;
    v += s[i].vel * w;
    k += s[i].key * w;
  }
  const double total = r.t > 0 ? r.t : n;
  r.vel = v / total;
  r.key = k / total;
  return r;
}

// The four pre-release segments: Attack 1, Attack 2, Decay 1, Decay 2.
constexpr int kSegTime[4] = {kEnvA1Time, kEnvA2Time, kEnvD1Time, kEnvD2Time};
constexpr int kSegLevel[4] = {kEnvA1Level, kEnvA2Level, kEnvD1Level, kEnvSustain};

Segment SegmentOf(const float* row, int s) {
  return Segment{row[kSegTime[s]], row[kSegTime[s] + 1], row[kSegTime[s] + 2]};
}
void PutSegment(float* row, int s, const Segment& g) {
  row[kSegTime[s]] = static_cast<float>(g.t);
  row[kSegTime[s] + 1] = static_cast<float>(g.vel);
  row[kSegTime[s] + 2] = static_cast<float>(g.key);
}

int Round10(float v) { return static_cast<int>(std::lround(10.0 * v)); }

// Writes through the setter only where the value changes, so that rows the
// reduction leaves alone keep their presence bits.
void Put(Articulation& a, int i, double v) {
  const float f = NormaliseForRow(*CatalogueRow(i), static_cast<float>(v));
  if (!SameBits(a.value[i], f)) a.Set(i, f);
}

// A copy of another row with its presence: a row taken over from one that the
// reduction has cleared is cleared too.
void CopyRow(Articulation& a, int dst, int src) {
  a.value[dst] = a.value[src];
  a.IsSet(src) ? a.MarkSet(dst) : a.MarkUnset(dst);
}

void ClearTo(Articulation& a, std::initializer_list<int> rows, float v) {
  for (int i : rows) a.Clear(i, v);
}

void SwapRows(Articulation& a, int i, int j) {
  const bool si = a.IsSet(i), sj = a.IsSet(j);
  std::swap(a.value[i], a.value[j]);
  si ? a.MarkSet(j) : a.MarkUnset(j);
  sj ? a.MarkSet(i) : a.MarkUnset(i);
}

void SwapEqBands(Articulation& a, int b1, int b2) {
  for (int o = 0; o < 4; ++o) SwapRows(a, kRowEqBase + 4 * b1 + o, kRowEqBase + 4 * b2 + o);
}

bool EqActive(const Articulation& a, int b, int mode) {
  const int r = kRowEqBase + 4 * b;
  return ValueAsInt(a.value[r]) == mode && a.value[r + 2] != 0.0f;
}

// Largest swing of an LFO's depth with each of its modifiers applied.
double LfoStrength(const Articulation& a, int depthRow) {
  const double d = a.value[depthRow];
  double s = std::fabs(d);
  for (int m = 1; m <= 3; ++m) s = std::max(s, std::fabs(d + a.value[depthRow + m]));
  return s;
}

constexpr int kLfoFirstDepth[kLfoCount] = {kRowPLfoToPitch, kRowVLfoToVolume, kRowFLfoToCutoff, kRowXLfoToPitch};
// The depth rows whose sign an inverted shape turns round.
constexpr int kInvertRows[kLfoCount][4] = {
    {kRowPLfoToPitch, kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch, -1},
    {kRowVLfoToVolume, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume, -1},
    {kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, -1},
    {kRowXLfoToPan, kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch}};

void ReduceLfos(Articulation& a, uint64_t f) {
  // 1. Inverted shapes become negated depths; shapes and ramps as allowed.
  for (int n = 0; n < kLfoCount; ++n) {
    const int shapeRow = LfoRow(n, kLfoShape);
    const int shape = ValueAsInt(a.value[shapeRow]);
    if (LfoInverted(shape)) {
      for (int r : kInvertRows[n])
        if (r >= 0) Put(a, r, -a.value[r]);
      Put(a, shapeRow, shape & 0x7F);
    }
    if (!HasFeature(f, kFeatLfoShapes)) a.Clear(shapeRow, 0);
    if (!HasFeature(f, kFeatLfoRamp)) {
      const int ramp = LfoRow(n, kLfoRamp);
      if (a.value[ramp] != 0.0f) Put(a, LfoRow(n, kLfoDelay), a.value[LfoRow(n, kLfoDelay)] + a.value[ramp] / 2.0);
      a.Clear(ramp, 0);
    }
  }
  // 2. No modifiers of LFO depth.
  if (!HasFeature(f, kFeatLfoModulators))
    ClearTo(a,
            {kRowModWheelToPLfoPitch, kRowAftertouchToPLfoPitch, kRowVelToPLfoPitch, kRowModWheelToXLfoPitch,
             kRowAftertouchToXLfoPitch, kRowVelToXLfoPitch, kRowModWheelToVLfoVolume, kRowAftertouchToVLfoVolume,
             kRowVelToVLfoVolume, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff},
            0);

  // 3. One LFO timing for all.
  if (HasFeature(f, kFeatSeparateLfos)) return;
  const bool keyPan = HasFeature(f, kFeatKeyToVolumePan);
  if (!keyPan) a.Clear(kRowXLfoToPan, 0);
  auto strength = [&](int n) {
    double s = LfoStrength(a, kLfoFirstDepth[n]);
    if (n == kLfoX && keyPan) s += 12.0 * std::fabs(a.value[kRowXLfoToPan]);
    return s;
  };
  const bool pitchLfo = HasFeature(f, kFeatPitchModLfos);
  auto moveXToP = [&] {
    if (pitchLfo || !(strength(kLfoX) > strength(kLfoP)) || LfoStrength(a, kRowXLfoToPitch) == 0.0) return;
    // The P-LFO takes over the X-LFO's pitch modulation with its timing,
    // since the depths mean nothing at another rate.
    for (int o = 0; o < 4; ++o) {
      CopyRow(a, kRowPLfoToPitch + o, kRowXLfoToPitch + o);
      CopyRow(a, LfoRow(kLfoP, o), LfoRow(kLfoX, o));
    }
    ClearTo(a, {kRowXLfoToPitch, kRowModWheelToXLfoPitch, kRowAftertouchToXLfoPitch, kRowVelToXLfoPitch}, 0);
  };
  moveXToP();
  int winner = pitchLfo ? kLfoV : kLfoP;
  double best = strength(winner);
  for (int n = winner + 1; n < kLfoCount; ++n) {
    const double s = strength(n);
    if (s > best) best = s, winner = n;
  }
  const LfoGroup w = a.ReadLfo(winner);
  const float wShape = a.value[LfoRow(winner, kLfoShape)];
  for (int n = 0; n < kLfoCount; ++n) {
    if (n == winner || (pitchLfo && n == kLfoP)) continue;
    const LfoGroup g = a.ReadLfo(n);
    const bool differs = !SameBits(a.value[LfoRow(n, kLfoShape)], wShape) ||
                         std::lround(10.0 * g.frequency) != std::lround(10.0 * w.frequency) ||
                         std::lround(2.0 * (g.delay + g.ramp + 0.5)) != std::lround(2.0 * (w.delay + w.ramp + 0.5));
    if (differs)
      for (int r : LfoDepthRows(n)) a.Clear(r, 0);
    for (int o = 0; o < 4; ++o) CopyRow(a, LfoRow(n, o), LfoRow(winner, o));
  }
  // Dropping a P-LFO that ran at another rate can leave the X-LFO the
  // stronger pitch modulation; it moves now rather than on the next pass.
  moveXToP();
}

void ReduceEnvelope(Articulation& a, int k, uint64_t f) {
  auto row = [k](int o) { return EnvRow(k, o); };
  // a. Velocity and key factors the set lacks. Pinned again at the end, since
  //    the merges of c and d mix factors of neighbouring segments.
  auto pinFactors = [&] {
    if (!HasFeature(f, kFeatVelToAttack1)) a.Clear(row(kEnvA1Vel), 1);
    if (!HasFeature(f, kFeatVelToAttack2)) a.Clear(row(kEnvA2Vel), 1);
    if (!HasFeature(f, kFeatVelToDecay)) ClearTo(a, {row(kEnvD1Vel), row(kEnvD2Vel)}, 1);
    if (!HasFeature(f, kFeatVelToRelease)) a.Clear(row(kEnvRelVel), 1);
    if (!HasFeature(f, kFeatKeyToEnvTimes)) ClearTo(a, {row(kEnvA1Key), row(kEnvA2Key), row(kEnvRelKey)}, 1);
  };
  pinFactors();

  // b. Release 2 and 3 folded into Release 1; the rate is chosen so that the
  //    whole release keeps its time.
  if (!HasFeature(f, kFeatThreeReleases)) {
    const double r2t = a.value[row(kEnvR2Time)], r3t = a.value[row(kEnvR3Time)];
    const double t = r2t + (r3t != 0 ? r3t : 0);
    double e = r3t != 0 ? a.value[row(kEnvR3Level)] : a.value[row(kEnvR2Level)];
    if (t != 0) {
      if (k == kEnvV) e = 0;
      const double s = a.value[row(kEnvSustain)], l = a.value[row(kEnvR1Level)];
      const double rate = a.value[row(kEnvR1Rate)];
      const double seg = (l == s ? 0.0 : rate * std::fabs(l - s)) + t;
      Put(a, row(kEnvR1Rate), e == s ? rate : seg / std::fabs(e - s));
      Put(a, row(kEnvR1Level), e);
      ClearTo(a, {row(kEnvR2Level), row(kEnvR3Level)}, static_cast<float>(e));
    } else {
      a.MarkUnset(row(kEnvR2Level));
      a.MarkUnset(row(kEnvR3Level));
    }
    ClearTo(a, {row(kEnvR2Time), row(kEnvR3Time)}, 0);
  }

  // c. Plain DAHDSR form unless the set has both six stages and free levels.
  if (!(HasFeature(f, kFeatSixStages) && HasFeature(f, kFeatMoreLevels))) {
    EnvGroup g = a.ReadEnvelope(k);
    if (!IsPlainEnvelope(g)) {
      const float gainDb = FoldToDahdsr(g, k != kEnvV);
      for (int o = 0; o < kEnvRows; ++o) Put(a, row(o), g.row[o]);
      const std::span<const int> depths = EnvDepthRows(k);
      for (std::size_t j = 0; j < depths.size(); ++j) Put(a, depths[j], g.depth[j]);
      if (k == kEnvV && gainDb != 0.0f) Put(a, kRowMasterVolume, a.value[kRowMasterVolume] + gainDb);
      // Rows that step b folded away stay cleared, whatever the rescaling did.
      if (!HasFeature(f, kFeatThreeReleases))
        for (int o : {kEnvR2Time, kEnvR2Level, kEnvR3Time, kEnvR3Level}) a.MarkUnset(row(o));
    }
    const float sustain = a.value[row(kEnvSustain)];
    if (a.value[row(kEnvR1Level)] >= sustain && sustain > 0) Put(a, row(kEnvReleaseMode), 1);
    if (a.value[row(kEnvR1Level)] != 0.0f) Put(a, row(kEnvR1Level), 0);
  }

  // d. Four stages: Attack 1 into Attack 2, Decay 1 into Decay 2.
  if (!HasFeature(f, kFeatSixStages)) {
    for (int s : {0, 2}) {
      const float* v = a.value + kEnvBase + kEnvRows * k;
      Segment pair[2] = {SegmentOf(v, s), SegmentOf(v, s + 1)};
      // Nothing to carry from a first segment that is already neutral.
      if (pair[0].t == 0 && pair[0].vel == 1 && pair[0].key == 1) continue;
      const Segment m = Merge(pair, 2);
      Put(a, row(kSegTime[s + 1]), m.t);
      Put(a, row(kSegTime[s + 1] + 1), m.vel);
      Put(a, row(kSegTime[s + 1] + 2), m.key);
      a.Clear(row(kSegTime[s]), 0);
      ClearTo(a, {row(kSegTime[s] + 1), row(kSegTime[s] + 2)}, 1);
    }
  }
  pinFactors();
}

double EnvStrength(const Articulation& a, int k, bool keyPan) {
  switch (k) {
    case kEnvP:
      return std::max(std::fabs(a.value[kRowPEnvToPitch]),
                      std::fabs(a.value[kRowPEnvToPitch] + a.value[kRowVelToPEnvPitch]));
    case kEnvF:
      return std::max(std::fabs(a.value[kRowFEnvToCutoff]),
                      std::fabs(a.value[kRowFEnvToCutoff] + a.value[kRowVelToFEnvCutoff]));
    case kEnvX: return keyPan ? 12.0 * std::fabs(a.value[kRowXEnvToPan]) : 0.0;
    default: return 0.0;
  }
}

void ReduceModEnvelopes(Articulation& a, uint64_t f) {
  static constexpr int kModEnvs[] = {kEnvP, kEnvF, kEnvX};
  if (!HasFeature(f, kFeatModVolEnvs)) {
    for (int k : kModEnvs)
      for (int o = 0; o < kEnvRows; ++o) a.ResetValue(EnvRow(k, o));
    ClearTo(a, {kRowPEnvToPitch, kRowVelToPEnvPitch, kRowFEnvToCutoff, kRowVelToFEnvCutoff, kRowXEnvToPan}, 0);
    return;
  }
  if (HasFeature(f, kFeatSeparateEnvs)) return;
  const bool keyPan = HasFeature(f, kFeatKeyToVolumePan);
  int winner = kEnvP;
  double best = EnvStrength(a, kEnvP, keyPan);
  for (int k : {kEnvF, kEnvX}) {
    const double s = EnvStrength(a, k, keyPan);
    if (s > best) best = s, winner = k;
  }
  const EnvGroup w = a.ReadEnvelope(winner);
  for (int k : kModEnvs) {
    if (k == winner) continue;
    if (!SameEnvelopeShape(a.ReadEnvelope(k), w))
      for (int r : EnvDepthRows(k)) a.Clear(r, 0);
    for (int o = 0; o < kEnvRows; ++o) CopyRow(a, EnvRow(k, o), EnvRow(winner, o));
  }
}

void SortEqBands(Articulation& a) {
  // Low shelf towards band 1, high shelf towards band 3; a band already
  // holding its place is not displaced.
  if (EqActive(a, 0, 2) && !EqActive(a, 2, 2)) SwapEqBands(a, 0, 2);
  if (EqActive(a, 2, 1) && !EqActive(a, 0, 1)) SwapEqBands(a, 2, 0);
  if (EqActive(a, 1, 2) && !EqActive(a, 2, 2)) SwapEqBands(a, 1, 2);
  if (EqActive(a, 1, 1) && !EqActive(a, 0, 1)) SwapEqBands(a, 1, 0);
}

}  // namespace

// --- Average -------------------------------------------------------------------

void AverageArticulations(std::span<const Articulation* const> records, Articulation& out) {
  const std::size_t n = records.size();
  if (n == 0) return;
  if (n == 1) {
    const Articulation src = *records[0];
    for (int i = 0; i < kArticulationCount; ++i) out.Set(i, src.value[i]);
    return;
  }
  auto meanOver = [&](int i, auto&& pick) {
    double sum = 0;
    std::size_t count = 0;
    for (const Articulation* r : records)
      if (pick(*r)) sum += r->value[i], ++count;
    return count ? Round3(sum / static_cast<double>(count)) : 0.0;
  };
  auto all = [](const Articulation&) { return true; };

  // Means first, into a scratch record so that `out` may be one of the inputs.
  Articulation avg;
  for (int i = 0; i < kArticulationCount; ++i) avg.Set(i, static_cast<float>(meanOver(i, all)));

  const std::size_t m = (n + 1) / 2;
  for (int lfo = 0; lfo < kLfoCount; ++lfo) {
    const int row = LfoRow(lfo, kLfoShape);
    std::size_t counts[8] = {}, unipolar = 0, inverted = 0;
    for (const Articulation* r : records) {
      const int s = ValueAsInt(r->value[row]);
      if ((s & kLfoShapeMask) < 8) ++counts[s & kLfoShapeMask];
      unipolar += (s & kLfoUnipolar) != 0;
      inverted += LfoInverted(s);
    }
    int shape = 0;
    for (int s = 1; s < 8; ++s)
      if (counts[s] > counts[shape]) shape = s;
    if (unipolar > m) shape |= kLfoUnipolar;
    if (inverted > m) shape |= 0x80;
    avg.Set(row, static_cast<float>(shape));
  }

  for (int k = 0; k < kEnvCount; ++k) {
    const int row = EnvRow(k, kEnvReleaseMode);
    std::size_t ones = 0;
    for (const Articulation* r : records) ones += r->value[row] != 0.0f;
    avg.Set(row, ones >= m ? 1.0f : 0.0f);
  }

  avg.Set(kRowFilterType, 0);
  for (int type = 1; type <= 12; ++type) {
    std::size_t count = 0;
    for (const Articulation* r : records) count += ValueAsInt(r->value[kRowFilterType]) == type;
    if (count < m) continue;
    avg.Set(kRowFilterType, static_cast<float>(type));
    auto filtered = [](const Articulation& r) { return r.value[kRowFilterType] != 0.0f; };
    avg.Set(kRowCutoff, static_cast<float>(meanOver(kRowCutoff, filtered)));
    avg.Set(kRowResonance, static_cast<float>(meanOver(kRowResonance, filtered)));
    break;
  }

  for (int b = 0; b < kEqBands; ++b) {
    const int r0 = kRowEqBase + 4 * b;
    auto active = [r0](const Articulation& r) { return r.value[r0 + 2] != 0.0f; };
    std::size_t count = 0, shelves = 0;
    for (const Articulation* r : records)
      if (active(*r)) ++count, shelves += r->value[r0] != 0.0f;
    if (count >= m) {
      for (int o = 1; o <= 3; ++o) avg.Set(r0 + o, static_cast<float>(meanOver(r0 + o, active)));
    }
    // Band 1 takes a low shelf, bands 2 and 3 a high shelf.
    const bool shelf = count > 0 && shelves * 2 >= count;
    avg.Set(r0, shelf ? (b == 0 ? 1.0f : 2.0f) : 0.0f);
  }
  out = avg;
}

// --- Envelope shape ----------------------------------------------------------

bool IsPlainEnvelope(const EnvGroup& g) {
  return g.row[kEnvInitial] == 0 && g.row[kEnvA1Level] == 0 && g.row[kEnvA2Level] == 1 &&
         g.row[kEnvD1Level] == 1 && g.row[kEnvSustain] >= 0 && g.row[kEnvR1Level] >= 0;
}

float FoldToDahdsr(EnvGroup& g, bool bipolar) {
  float* r = g.row;
  const double start = r[kEnvInitial];
  double level[4];
  for (int s = 0; s < 4; ++s) level[s] = r[kSegLevel[s]];

  // The first segment that reaches the peak becomes the attack.
  int p = 0;
  double peak = level[0];
  for (int s = 1; s < 4; ++s)
    if (bipolar ? std::fabs(level[s]) > std::fabs(peak) : level[s] > peak) peak = level[s], p = s;
  if (peak == 0) return 0.0f;  // flat at zero: nothing to scale to

  Segment seg[4];
  for (int s = 0; s < 4; ++s) seg[s] = SegmentOf(r, s);

  Segment delay, attack, hold, decay;
  int holdFrom;
  if (start == peak) {
    // Starts at its peak: an instant attack, the time at the peak is hold.
    holdFrom = 0;
  } else {
    int d = 0;
    while (d < p && level[d] == start) ++d;
    delay = Merge(seg, d);
    attack = Merge(seg + d, p + 1 - d);
    holdFrom = p + 1;
  }
  // Decay 2 always stays the decay: it is the way into the sustain.
  int h = holdFrom;
  while (h < 3 && level[h] == peak) ++h;
  hold = Merge(seg + holdFrom, h - holdFrom);
  decay = Merge(seg + h, 4 - h);

  const double scale = 1.0 / peak;
  r[kEnvInitial] = 0;
  PutSegment(r, 0, delay);
  r[kEnvA1Level] = 0;
  PutSegment(r, 1, attack);
  r[kEnvA2Level] = 1;
  PutSegment(r, 2, hold);
  r[kEnvD1Level] = 1;
  PutSegment(r, 3, decay);
  r[kEnvSustain] = static_cast<float>(level[3] * scale);
  for (int o : {kEnvR1Level, kEnvR2Level, kEnvR3Level}) r[o] = static_cast<float>(r[o] * scale);
  for (int j = 0; j < g.depthCount; ++j) g.depth[j] = static_cast<float>(g.depth[j] * peak);
  return peak == 1.0 ? 0.0f : static_cast<float>(20.0 * std::log10(std::fabs(peak)));
}

bool SameEnvelopeShape(const EnvGroup& a, const EnvGroup& b) {
  const float* x = a.row;
  const float* y = b.row;
  if (x[kEnvReleaseMode] != y[kEnvReleaseMode]) return false;
  if (Round10(x[kEnvA1Time] + x[kEnvA2Time]) != Round10(y[kEnvA1Time] + y[kEnvA2Time])) return false;
  if (Round10(x[kEnvD1Time] + x[kEnvD2Time]) != Round10(y[kEnvD1Time] + y[kEnvD2Time])) return false;
  if (Round10(x[kEnvR1Rate] + x[kEnvR2Time] + x[kEnvR3Time]) != Round10(y[kEnvR1Rate] + y[kEnvR2Time] + y[kEnvR3Time]))
    return false;
  for (int o = 0; o < kEnvRows; ++o) {
    switch (o) {
      case kEnvA1Time: case kEnvA2Time: case kEnvD1Time: case kEnvD2Time:
      case kEnvR1Rate: case kEnvR2Time: case kEnvR3Time: case kEnvReleaseMode:
        continue;
      default:
        break;
    }
    const double steps = o == kEnvSustain ? 100.0 : 20.0;  // 0.01 for the sustain, 0.05 elsewhere
    if (std::lround(x[o] * steps) != std::lround(y[o] * steps)) return false;
  }
  return true;
}

// --- Reduce --------------------------------------------------------------------

void ReduceArticulation(Articulation& a, uint64_t f) {
  ReduceLfos(a, f);                                   // steps 1-3
  for (int k = 0; k < kEnvCount; ++k) ReduceEnvelope(a, k, f);  // step 4
  if (!HasFeature(f, kFeatVelToModEnvDepth)) ClearTo(a, {kRowVelToPEnvPitch, kRowVelToFEnvCutoff}, 0);  // step 5
  ReduceModEnvelopes(a, f);                           // step 6

  // 7. Pitch and volume modulation.
  if (!HasFeature(f, kFeatBendToPitch)) a.Clear(kRowBendToPitch, 2);
  if (!HasFeature(f, kFeatKeyToPitch)) a.Clear(kRowKeyToPitch, 1);
  if (!HasFeature(f, kFeatRandomPitch)) a.Clear(kRowRandomPitch, 0);
  if (!HasFeature(f, kFeatKeyToVolumePan)) a.Clear(kRowKeyToVolume, 0);
  if (!HasFeature(f, kFeatModToVolume)) ClearTo(a, {kRowModWheelToVolume, kRowAftertouchToVolume}, 0);

  // 8. Filter.
  if (HasFeature(f, kFeatLowPassFilter)) {
    const int type = ValueAsInt(a.value[kRowFilterType]);
    if (!HasFeature(f, kFeatMoreFilterTypes) && type != 0 && type != 2) Put(a, kRowFilterType, 2);
    if (!HasFeature(f, kFeatModToCutoff)) ClearTo(a, {kRowModWheelToCutoff, kRowAftertouchToCutoff}, 0);
    if (!HasFeature(f, kFeatKeyVelToCutoff)) ClearTo(a, {kRowVelToCutoff, kRowKeyToCutoff}, 0);
  } else {
    ClearTo(a, {kRowFilterType, kRowVelToCutoff, kRowKeyToCutoff, kRowModWheelToCutoff, kRowAftertouchToCutoff,
                kRowFLfoToCutoff, kRowModWheelToFLfoCutoff, kRowAftertouchToFLfoCutoff, kRowVelToFLfoCutoff,
                kRowFEnvToCutoff, kRowVelToFEnvCutoff},
            0);
  }

  // 9. EQ.
  if (HasFeature(f, kFeatEq)) SortEqBands(a);
  else ClearTo(a, {kRowEq1Gain, kRowEq2Gain, kRowEq3Gain}, 0);

  // 10. Mixer.
  if (!HasFeature(f, kFeatKeyToVolumePan)) ClearTo(a, {kRowKeyToPan, kRowXLfoToPan}, 0);
  if (!HasFeature(f, kFeatChannelDepths))
    ClearTo(a, {kRowCc10ToPan, kRowCc91ToSend1, kRowCc92ToSend2, kRowCc93ToSend3, kRowCc94ToSend4}, 1);
}

}  // namespace kv
