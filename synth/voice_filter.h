// The per-sample parts of a sample voice: its filter (one-pole and
// state-variable stages, up to two in series) and up to three EQ sections.
// The processing functions are inline so that the voice's sample loop,
// chosen once a block, compiles into one tight loop per combination.
#pragma once

#include <cmath>
#include <cstdint>

namespace kv {

// Keeps filter state out of the denormal range. Rendering runs with
// flush-to-zero and denormals-are-zero where the processor has them, which
// does the same without two more additions in each filter's feedback path
// (a third of a filtered voice's time); elsewhere the additions do it.
#if defined(__SSE__)
inline float kvFlushDenormal(float x) { return x; }
#else
inline float kvFlushDenormal(float x) { return (x + 1e-18f) - 1e-18f; }
#endif

struct OnePole {
  float a0, a1, b1;
  float x1[2], y1[2];  // per channel
};

struct StateVariable {
  float f, d;
  float low[2], band[2];  // per channel
};

struct VoiceFilter {
  uint8_t type;       // the Filter type parameter, 0 none
  uint8_t structure;  // 0 none, 1 one-pole, 2 state-variable, 3 one-pole then SVF, 4 SVF then SVF
  uint8_t svfOutput;  // 0 low, 1 high, 2 band, 3 notch
  uint8_t highPass;   // one-pole stage is high-pass
  uint8_t oversampled;
  float fn;           // cutoff / sample rate
  float lastC, lastR; // the cutoff shift (semitones) and resonance (dB) the coefficients are for
  OnePole pole;
  StateVariable first;   // structure 4: the stage without resonance
  StateVariable second;  // structure 2, 3 and 4's last stage
};

// Sets the filter up for a Filter type parameter; false (structure 0, no
// filter) for an unknown type. `fn` is cutoff / sample rate.
bool SetupFilter(VoiceFilter& filter, int type, float fn, float resonance, bool oversampled);
// New cutoff shift c (semitones) and resonance r (dB, at least 0);
// nothing is recomputed when both are unchanged.
void UpdateFilter(VoiceFilter& filter, float c, float r);

inline float RunOnePole(OnePole& p, float x, int ch) {
  const float y = kvFlushDenormal(p.a0 * x + p.a1 * p.x1[ch] + p.b1 * p.y1[ch]);
  p.x1[ch] = x;
  p.y1[ch] = y;
  return y;
}

// One state-variable stage, run twice on the same input when oversampled.
inline float RunStateVariable(StateVariable& s, float x, int ch, int output, bool oversampled) {
  float high = 0.0f;
  for (int pass = oversampled ? 2 : 1; pass > 0; --pass) {
    s.low[ch] = kvFlushDenormal(s.low[ch] + s.f * s.band[ch]);
    high = x - s.d * s.band[ch] - s.low[ch];
    s.band[ch] = kvFlushDenormal(s.band[ch] + s.f * high);
  }
  switch (output) {
    case 0: return s.low[ch];
    case 1: return high;
    case 2: return s.band[ch];
    // x - d * band with the band the last pass used: an exact null at the
    // cutoff, which the updated band would miss by a factor f.
    default: return high + s.low[ch];
  }
}

template <int Structure>
inline float RunFilter(VoiceFilter& f, float x, int ch) {
  if constexpr (Structure == 1) {
    return RunOnePole(f.pole, x, ch);
  } else if constexpr (Structure == 2) {
    return RunStateVariable(f.second, x, ch, f.svfOutput, f.oversampled);
  } else if constexpr (Structure == 3) {
    return RunStateVariable(f.second, RunOnePole(f.pole, x, ch), ch, f.svfOutput, f.oversampled);
  } else if constexpr (Structure == 4) {
    return RunStateVariable(f.second, RunStateVariable(f.first, x, ch, f.svfOutput, f.oversampled), ch,
                            f.svfOutput, f.oversampled);
  } else {
    return x;
  }
}

struct EqSection {
  float b0, b1, b2, a1, a2;  // normalised by a0
  float x1[2], x2[2], y1[2], y2[2];
};

// Cookbook peaking (mode 0), low shelf (1) or high shelf (2) at normalised
// frequency f (Hz / sample rate), gain in dB, quality q.
void SetupEq(EqSection& eq, int mode, float f, float gain, float q);

inline float RunEq(EqSection& e, float x, int ch) {
  const float y =
      kvFlushDenormal(e.b0 * x + e.b1 * e.x1[ch] + e.b2 * e.x2[ch] - e.a1 * e.y1[ch] - e.a2 * e.y2[ch]);
  e.x2[ch] = e.x1[ch];
  e.x1[ch] = x;
  e.y2[ch] = e.y1[ch];
  e.y1[ch] = y;
  return y;
}

}  // namespace kv
