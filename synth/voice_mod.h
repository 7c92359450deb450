// The modulation sources of a sample voice: four envelopes and four LFOs,
// stepped once a block (the control rate is the sample rate / 64). All state
// is plain data kept inside the voice record.
#pragma once

#include <cstdint>

namespace kv {

// 15-bit pseudo-random numbers (0..32767) for random pitch, pan and
// sample-and-hold: one generator per thread, so voices on different workers
// never contend and no C library lock is taken.
int kvRandom15();

inline constexpr int kEnvStageSlots = 8;  // stage 8 is "past the last"
inline constexpr int kEnvShutdownStage = 7;

struct EnvelopeState {
  uint32_t stepsLeft;
  float value;          // in the present stage's domain
  float step;
  float shutdownTime;   // blocks (V-ENV only)
  int32_t stage;        // 0-7; 8 once past the last
  int32_t releaseStage; // where a key release jumps to; 8 when there is none
  uint8_t gainDomain;   // the value is a linear gain (else the 0..1 dB form)
  uint8_t rateFlags;    // bit s: stage s's time is per unit of level change
  uint8_t gainStages;   // bit s: stage s runs in the gain domain
  float time[kEnvStageSlots];    // blocks
  float target[kEnvStageSlots];  // in the stage's own domain
};

// Builds envelope `rows` (its 27 articulation values in row order, Initial
// Level first) for a note: v = (velocity - 64) / 63, o = (key - 60) / 12.
// `volume` marks the V-ENV, whose attacks run in the gain domain and whose
// times have minima. A release-trigger voice gets no release stages. Enters
// the first stage.
void BuildEnvelope(EnvelopeState& env, const float* rows, bool volume, bool releaseTrigger, float v, float o,
                   float controlRate);
// Enters stage s (converting the value between domains when they differ).
void EnterEnvelopeStage(EnvelopeState& env, int stage);
// One block: the value in the 0..1 dB form (1 full scale, 0 at -96 dB).
float StepEnvelope(EnvelopeState& env);
// Key release: a stage before the release stage jumps to it.
void ReleaseEnvelope(EnvelopeState& env);

struct LfoState {
  uint8_t wave;     // 0-7
  uint8_t mode;     // 0 bipolar, 1 positive only, 2 negative only
  float phase;      // 0..1
  float increment;  // per block
  float offset;
  float scale;
  float skewOrHeld; // skew for the skewed saws, the held value for sample-and-hold
  uint32_t delayBlocks;
  uint32_t rampBlocks;
  float rampGain;
  float rampStep;
};

// Sets an LFO up from its shape byte (low 6 bits wave, high 2 bits mode),
// frequency (Hz), delay and ramp (s). `first` also sets the start phase.
void SetupLfo(LfoState& lfo, int shapeByte, float frequency, float delay, float ramp, float controlRate, bool first);
// The value at the present phase, offset and scaled, without stepping.
float LfoValue(const LfoState& lfo);
// One block: 0 while the delay runs, else the value (times the ramp gain
// while the ramp runs), then the phase moves on.
float StepLfo(LfoState& lfo);

}  // namespace kv
