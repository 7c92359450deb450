// A region as it plays: its articulation over its layer's over its
// instrument's over the catalogue defaults, the wave values the region
// overrides applied, the trigger its layer completes, and the rows gathered
// into named groups. Writers, instrument operations and the synthesizer read a
// region through ResolveRegion instead of walking the levels themselves.
#pragma once

#include <cstdint>

#include "core/articulation.h"
#include "core/items.h"

namespace kv {

struct PitchView {
  int rootKey = 60;         // the region's override, else the wave's
  int waveFineTune = 0;     // cents, the wave's own tuning (217)
  float masterTune = 0.0f;  // semitones
  float keyToPitch = 1.0f;  // semitones per key
  float bendRange = 2.0f;   // semitones
  float random = 0.0f;      // semitones
};

struct AmplitudeView {
  float masterVolume = 0.0f;  // dB
  float waveVolume = 0.0f;    // dB, the wave's own (218)
  float velocityToVolume = 96.0f;
  float keyToVolume = 0.0f;   // dB per octave from middle C
  float wheelToVolume = 0.0f;
  float aftertouchToVolume = 0.0f;
};

struct FilterView {
  int type = 0;               // 0 none
  float cutoff = 8000.0f;     // Hz at mid velocity and middle C
  float velocityToCutoff = 0.0f;  // semitones
  float keyToCutoff = 0.0f;       // semitones per octave
  float wheelToCutoff = 0.0f;
  float aftertouchToCutoff = 0.0f;
  float resonance = 0.0f;     // dB
  float velocityToResonance = 0.0f;
  float wheelToResonance = 0.0f;
  float aftertouchToResonance = 0.0f;
};

struct PanView {
  float position = 0.0f;  // -1 left .. 1 right
  float cc10 = 1.0f;
  float keyToPan = 0.0f;  // per octave from middle C
  float random = 0.0f;
};

struct SendView {
  float level[4] = {};
  float controller[4] = {1.0f, 1.0f, 1.0f, 1.0f};  // CC 91-94 depth
};

struct LoopView {
  int type = 0;  // 0 none, 1 forward, 2 reverse, 3 alternating
  int release = 0;
  float start = 0.0f;
  float end = kLoopEndDefault;  // first frame after the loop
  float pitch = 0.0f;
  // Whether a real loop plays: a type and an end past the start.
  bool Plays() const { return type != 0 && end > start; }
};

struct ResolvedRegion {
  const Region* region = nullptr;
  const Layer* layer = nullptr;            // null for a region outside a layer
  const Instrument* instrument = nullptr;  // null without one
  const Waveform* wave = nullptr;          // null for a model or a missing wave

  Articulation art;       // every row effective; presence bits the region's own
  TriggerRecord trigger;  // the region's, completed by its layer's
  LoopView loop;
  int32_t startOffset = 0;  // frames
  int32_t endOffset = 0;    // frames, 0 or below

  PitchView pitch;
  AmplitudeView amplitude;
  FilterView filter;
  PanView pan;
  SendView sends;
  LfoGroup lfo[kLfoCount];  // P, V, F, X
  EnvGroup env[kEnvCount];  // V, P, F, X
  EqBand eq[kEqBands];
};

ResolvedRegion ResolveRegion(const Region& region);

}  // namespace kv
