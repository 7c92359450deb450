#include "synth/voice_mod.h"

#include <algorithm>
#include <cmath>

#include "synth/kv_math.h"

namespace kv {

namespace {

constexpr float kDbToNeper = 0.115129255f;  // ln(10) / 20
constexpr float kSustainBlocks = 2147483648.0f;
constexpr float kHeldScale = 6.103702e-5f;  // 2 / 32767

// Row numbers of an envelope's articulation values.
enum Row {
  kInitial = 0,
  kA1Time = 1,
  kA1Level = 4,
  kA2Time = 5,
  kA2Level = 8,
  kD1Time = 9,
  kD1Level = 12,
  kD2Time = 13,
  kSustain = 16,
  kR1Rate = 17,
  kR1Level = 18,
  kR2Time = 19,
  kR2Level = 20,
  kR3Time = 21,
  kR3Level = 22,
  kVelToRelease = 23,
  kKeyToRelease = 24,
  kReleaseMode = 25,
  kShutdownRate = 26,
};

// Level (1 = 0 dB, 0 = -96 dB) to linear gain; -96 dB and below is silence.
float DbFormToGain(float level) {
  const float db = (level - 1.0f) * 96.0f;
  if (db <= -96.0f) return 0.0f;
  return std::exp(db * kDbToNeper);
}

float GainToDbForm(float gain) {
  if (gain <= 0.0f) return 0.0f;
  return (20.0f * std::log10(gain)) / 96.0f + 1.0f;
}

// ratio^exponent; a ratio of 1 (no scaling) skips the pow, and a ratio that is
// not positive has no meaning, so it scales nothing either.
float TimeFactor(float ratio, float exponent) {
  if (ratio == 1.0f || !(ratio > 0.0f)) return 1.0f;
  return std::pow(ratio, exponent);
}

bool Bit(uint8_t bits, int s) { return (bits >> s) & 1u; }

uint32_t RoundSteps(float t) {
  // Added in double: past 2^23 a float sum would round ties to even.
  const double sum = static_cast<double>(t) + 0.5;
  if (!(sum >= 1.0)) return 0;
  if (sum >= 4294967295.0) return 0xFFFFFFFFu;
  return static_cast<uint32_t>(sum);
}

// Lays stages into consecutive slots.
struct Layout {
  EnvelopeState& env;
  float controlRate;
  int count = 0;
  float lastTarget;
  bool lastGain = false;
  float prevLevel;

  // `level` is in the 0..1 (dB form) units of the rows; `gain` converts it.
  void Add(float level, float seconds, bool gain, bool rate) {
    if (count >= kEnvStageSlots) return;
    Put(gain ? DbFormToGain(level) : level, seconds * controlRate, gain, rate);
    prevLevel = level;
  }
  // A stage that neither takes time nor moves is left out.
  void AddUnlessIdle(float level, float seconds, bool gain, bool rate) {
    if (seconds == 0.0f && level == prevLevel) return;
    Add(level, seconds, gain, rate);
  }
  void Put(float target, float blocks, bool gain, bool rate) {
    env.target[count] = target;
    env.time[count] = blocks;
    if (gain) env.gainStages |= static_cast<uint8_t>(1u << count);
    if (rate) env.rateFlags |= static_cast<uint8_t>(1u << count);
    lastTarget = target;
    lastGain = gain;
    ++count;
  }
};

}  // namespace

int kvRandom15() {
  thread_local uint32_t state = 22222u;
  state = state * 1103515245u + 12345u;
  return static_cast<int>((state >> 16) & 0x7FFFu);
}

void BuildEnvelope(EnvelopeState& env, const float* rows, bool volume, bool releaseTrigger, float v, float o,
                   float controlRate) {
  const float h = v * 0.5f;
  float r[27];
  std::copy(rows, rows + 27, r);

  // Attack 1, attack 2, decay 1, decay 2: time row, then velocity and key rows.
  const int timeRows[4] = {kA1Time, kA2Time, kD1Time, kD2Time};
  const int levelRows[4] = {kA1Level, kA2Level, kD1Level, kSustain};
  for (int row : timeRows) r[row] *= TimeFactor(r[row + 1], h) * TimeFactor(r[row + 2], o);
  const float releaseFactor = TimeFactor(r[kVelToRelease], h) * TimeFactor(r[kKeyToRelease], o);
  for (int row : {kR1Rate, kR2Time, kR3Time}) r[row] *= releaseFactor;

  const bool ignoreRelease = r[kReleaseMode] == 1.0f;
  if (volume) {
    // A silent start needs a little time to open, or the first block clicks.
    if (r[kInitial] == 0.0f) {
      for (int i = 0; i < 4; ++i) {
        if (r[levelRows[i]] > 0.0f) {
          r[timeRows[i]] = std::max(r[timeRows[i]], 0.001f);
          break;
        }
      }
    }
    if (!ignoreRelease) {
      r[kR1Rate] = std::max(r[kR1Rate], 0.002f);
      if (r[kR2Level] != r[kR1Level]) r[kR2Time] = std::max(r[kR2Time], 0.002f);
      if (r[kR3Level] != r[kR2Level]) r[kR3Time] = std::max(r[kR3Time], 0.002f);
    }
  }

  env.rateFlags = 0;
  env.gainStages = 0;
  Layout lay{env, controlRate};
  lay.lastTarget = r[kInitial];
  lay.prevLevel = r[kInitial];
  for (int i = 0; i < 4; ++i) lay.AddUnlessIdle(r[levelRows[i]], r[timeRows[i]], volume && i < 2, false);
  if (r[kSustain] > 0.0f || r[kR1Level] > 0.0f || r[kR2Level] > 0.0f || r[kR3Level] > 0.0f)
    lay.Put(lay.lastTarget, kSustainBlocks, lay.lastGain, false);

  if (ignoreRelease || releaseTrigger) {
    env.releaseStage = kEnvStageSlots;
  } else {
    env.releaseStage = lay.count;
    lay.AddUnlessIdle(r[kR1Level], r[kR1Rate], false, true);
    if (r[kR2Level] != r[kR1Level]) lay.Add(r[kR2Level], r[kR2Time], false, false);
    if (r[kR3Level] != r[kR2Level]) lay.Add(r[kR3Level], r[kR3Time], false, false);
  }
  // Slots past the last stage hold its target, so passing them changes nothing.
  while (lay.count < kEnvStageSlots) lay.Put(lay.lastTarget, 0.0f, lay.lastGain, false);

  env.shutdownTime = volume ? r[kShutdownRate] * controlRate : 0.0f;
  env.gainDomain = Bit(env.gainStages, 0) ? 1 : 0;
  env.value = env.gainDomain ? DbFormToGain(r[kInitial]) : r[kInitial];
  EnterEnvelopeStage(env, 0);
}

void EnterEnvelopeStage(EnvelopeState& env, int stage) {
  if (stage < 0 || stage >= kEnvStageSlots) {
    env.stage = kEnvStageSlots;
    env.stepsLeft = 0;
    env.step = 0.0f;
    return;
  }
  const uint8_t gain = Bit(env.gainStages, stage) ? 1 : 0;
  if (gain != env.gainDomain) {
    env.value = gain ? DbFormToGain(env.value) : GainToDbForm(env.value);
    env.gainDomain = gain;
  }
  float d = env.target[stage] - env.value;
  float t = env.time[stage];
  if (Bit(env.rateFlags, stage)) t *= std::fabs(d);
  const uint32_t steps = RoundSteps(t);
  // Flushes a denormal change, which would make every later step slow.
  d = (d + 1e-18f) - 1e-18f;
  env.stepsLeft = steps;
  env.step = steps ? d / static_cast<float>(steps) : 0.0f;
  env.stage = stage;
}

float StepEnvelope(EnvelopeState& env) {
  while (env.stepsLeft == 0 && env.stage < kEnvStageSlots) {
    env.value = env.target[env.stage];
    if (env.stage + 1 >= kEnvStageSlots) {
      env.stage = kEnvStageSlots;
      env.step = 0.0f;
      break;
    }
    EnterEnvelopeStage(env, env.stage + 1);
  }
  if (env.stepsLeft) {
    env.value += env.step;
    --env.stepsLeft;
  }
  return env.gainDomain ? GainToDbForm(env.value) : env.value;
}

void ReleaseEnvelope(EnvelopeState& env) {
  if (env.releaseStage < kEnvStageSlots && env.stage < env.releaseStage) EnterEnvelopeStage(env, env.releaseStage);
}

namespace {

float Wave(const LfoState& lfo) {
  const float p = lfo.phase;
  const float s = lfo.skewOrHeld;
  switch (lfo.wave) {
    case 1: return p < 0.5f ? 4.0f * p - 1.0f : 3.0f - 4.0f * p;
    case 2: return p < 0.5f ? 1.0f : -1.0f;
    case 3: return lfo.skewOrHeld;
    case 4: return 2.0f * p - 1.0f;
    case 5: return 1.0f - 2.0f * p;
    case 6: return p < s ? 2.0f * p / s - 1.0f : 1.0f - 2.0f * (p - s) / (1.0f - s);
    case 7: return p < s ? 1.0f - 2.0f * p / s : 2.0f * (p - s) / (1.0f - s) - 1.0f;
    default: return kvSinTurns(p);
  }
}

float DrawHeld() { return static_cast<float>(kvRandom15()) * kHeldScale - 1.0f; }

}  // namespace

void SetupLfo(LfoState& lfo, int shapeByte, float frequency, float delay, float ramp, float controlRate, bool first) {
  const int wave = shapeByte & 0x3F;
  const int mode = (shapeByte >> 6) & 3;
  const bool wasHold = !first && lfo.wave == 3;
  lfo.wave = static_cast<uint8_t>(wave <= 7 ? wave : 0);
  lfo.mode = static_cast<uint8_t>(mode <= 2 ? mode : 0);
  lfo.increment = frequency / controlRate;
  lfo.offset = lfo.mode == 0 ? 0.0f : 1.0f;
  lfo.scale = lfo.mode == 0 ? 1.0f : (lfo.mode == 1 ? 0.5f : -0.5f);
  const float delayBlocks = delay * controlRate;
  const float rampBlocks = ramp * controlRate;
  lfo.delayBlocks = delayBlocks >= 1.0f ? static_cast<uint32_t>(delayBlocks) : 0;
  lfo.rampBlocks = rampBlocks >= 1.0f ? static_cast<uint32_t>(rampBlocks) : 0;
  lfo.rampStep = lfo.rampBlocks ? 1.0f / static_cast<float>(lfo.rampBlocks) : 0.0f;
  lfo.rampGain = lfo.rampBlocks ? 0.0f : 1.0f;
  if (lfo.wave == 3) {
    // A re-set-up keeps the value being held.
    if (first || !wasHold) lfo.skewOrHeld = DrawHeld();
  } else {
    lfo.skewOrHeld = std::max(0.5f, 1.0f - 75.0f * lfo.increment);
  }
  if (first) {
    // Start phases by wave: bipolar, then one-sided.
    static constexpr float kBipolar[8] = {0.0f, 0.25f, 0.0f, 0.0f, 0.5f, 0.5f, 0.0f, 0.0f};
    static constexpr float kUnipolar[8] = {0.75f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    lfo.phase = lfo.mode == 0 ? kBipolar[lfo.wave] : kUnipolar[lfo.wave];
  }
}

float LfoValue(const LfoState& lfo) { return (Wave(lfo) + lfo.offset) * lfo.scale; }

float StepLfo(LfoState& lfo) {
  if (lfo.delayBlocks) {
    --lfo.delayBlocks;
    return 0.0f;
  }
  float value = LfoValue(lfo);
  if (lfo.rampBlocks) {
    value *= lfo.rampGain;
    lfo.rampGain += lfo.rampStep;
    --lfo.rampBlocks;
  }
  lfo.phase += lfo.increment;
  if (lfo.phase >= 1.0f) {
    lfo.phase -= std::floor(lfo.phase);
    if (lfo.wave == 3) lfo.skewOrHeld = DrawHeld();
  }
  return value;
}

}  // namespace kv
