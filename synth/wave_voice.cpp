// The sample voice: a cached wave played through up to three loop stages,
// with four envelopes, four LFOs, a filter and up to three EQ sections.
// Sources, sums and coefficients move once a block; only fetch, advance,
// filter and EQ run per frame, in a loop chosen once a block.
#include "synth/wave_voice.h"

#include <cmath>
#include <cstring>

#include "core/param_ids.h"
#include "synth/engine.h"
#include "synth/voice_filter.h"
#include "synth/voice_mod.h"

namespace kv {

namespace {

// Active-source bits.
enum : uint8_t { kPLfo = 1, kVLfo = 2, kFLfo = 4, kXLfo = 8, kPEnv = 16, kFEnv = 32, kXEnv = 64 };

struct LoopStage {
  double end;
  uint8_t repeats;  // 255: for ever
  uint8_t type;     // 1 forward, 2 backward, 3 alternating
  uint8_t breaks;   // the loop may be left at key release
};

struct WaveState {
  const float* frames;  // at the start offset
  int32_t start;        // the start offset, frames into the cached wave
  uint32_t length;      // frames from the start offset to the end
  double baseIncrement;
  double increment;
  double position;  // frames from the start offset
  double stageStart, stageEnd;
  float cachedPitch;
  float loopRatio;
  uint32_t repeatsLeft;
  uint8_t stereo, released, backward, stageIndex, stageCount, loopType, breaks;
  uint8_t loopPitch;  // bit 0 armed, bit 1 shifted
  uint8_t ended;
  uint8_t active;
  LoopStage stages[3];

  EnvelopeState env[4];  // V, P, F, X
  LfoState lfo[4];       // P, V, F, X

  float basePitch, pLfoDepth, pLfoWheel, pLfoTouch, pEnvDepth, xLfoPitch, xLfoWheel, xLfoTouch;
  float baseVolume, wheelVolume, touchVolume, vLfoDepth, vLfoWheel, vLfoTouch;
  float panOffset, xLfoPan, xEnvPan;
  float fEnvDepth, cutoffOffset, wheelCutoff, touchCutoff, fLfoDepth, fLfoWheel, fLfoTouch;
  float resonance, wheelResonance, touchResonance;

  VoiceFilter filter;
  uint8_t eqCount;
  EqSection eq[3];
};

constexpr float kDbToNeper = 0.115129255f;  // ln(10) / 20

float Row(const SynthZone& z, int row) { return z.art.value[row]; }

float Amplitude(float db) { return db <= -96.0f ? 0.0f : std::exp(db * kDbToNeper); }

// Catmull-Rom through x0..x3 at fraction f between x1 and x2.
inline float CatmullRom(float x0, float x1, float x2, float x3, float f) {
  const float c1 = 0.5f * (x2 - x0);
  const float c2 = x0 - 2.5f * x1 + 2.0f * x2 - 0.5f * x3;
  const float c3 = -0.5f * x0 + 1.5f * x1 - 1.5f * x2 + 0.5f * x3;
  return ((c3 * f + c2) * f + c1) * f + x1;
}

void EnterLoopStage(WaveState& s, int index) {
  const LoopStage& st = s.stages[index];
  s.stageIndex = static_cast<uint8_t>(index);
  s.stageStart = index == 0 ? 0.0 : s.stages[index - 1].end;
  s.stageEnd = st.end;
  s.loopType = st.type;
  s.breaks = st.breaks;
  s.repeatsLeft = st.repeats == 255 ? (st.breaks && s.released ? 1u : 255u) : st.repeats;
}

void SetupLoops(WaveState& s, const SynthZone& z) {
  s.stageCount = 1;
  s.stages[0] = {static_cast<double>(s.length), 1, 1, 0};
  s.loopPitch = 0;
  s.loopRatio = 1.0f;
  if (z.loopType != 0) {
    const double a = std::max(static_cast<double>(z.loopStart) - s.start, 0.0);
    const double b = std::min(static_cast<double>(z.loopEnd) - s.start, static_cast<double>(s.length));
    if (a < b) {
      s.stages[0].end = a;
      s.stages[1] = {b, 255, z.loopType, z.loopRelease};
      s.stageCount = 2;
      if (z.loopPitch != 0.0f) {
        s.loopPitch = 1;
        s.loopRatio = std::exp2(z.loopPitch / 12.0f);
      }
      if (z.loopRelease) {
        s.stages[2] = {static_cast<double>(s.length), 1, 1, 0};
        s.stageCount = 3;
      }
    }
  }
}

// Moves the position on by one frame's increment through the loop stages;
// true once the sample has ended.
inline bool Advance(WaveState& s) {
  s.position += s.increment;
  for (;;) {
    if (!s.backward ? s.position < s.stageEnd : s.position >= s.stageStart) return false;
    if (s.repeatsLeft != 255 && --s.repeatsLeft == 0) {
      if (s.stageIndex + 1 >= s.stageCount) {
        s.position = s.stageEnd + 1;
        s.repeatsLeft = 1;
        return true;
      }
      EnterLoopStage(s, s.stageIndex + 1);
      if (s.loopPitch & 2) {
        s.increment /= s.loopRatio;
        s.loopPitch = 1;
      }
      continue;
    }
    const double span = s.stageEnd - s.stageStart;
    if (!s.backward) {
      if (s.loopType == 1) {
        s.position -= span;
      } else {
        s.backward = 1;
        s.increment = -s.increment;
        s.position = s.stageEnd - (s.position - s.stageEnd);
      }
    } else {
      if (s.loopType == 2) {
        s.position += span;
      } else {
        s.backward = 0;
        s.position = s.stageStart - (s.position - s.stageStart);
        s.increment = -s.increment;
      }
    }
    if (s.loopPitch & 1) {
      s.increment *= s.loopRatio;
      s.loopPitch = 2;
    }
  }
}

template <bool Stereo, int Structure, int EqCount>
void RenderFrames(WaveState& s, float* out) {
  // Filter and EQ state in locals for the block: kept in memory, every store
  // to `out` (or to a byte of the voice) would force them to be reloaded.
  VoiceFilter filter = s.filter;
  EqSection eq[EqCount > 0 ? EqCount : 1];
  for (int e = 0; e < EqCount; ++e) eq[e] = s.eq[e];
  for (int i = 0; i < kSynthBlock; ++i) {
    float l = 0.0f, r = 0.0f;
    if (!s.ended) {
      const auto index = static_cast<int64_t>(s.position);
      const float f = static_cast<float>(s.position - static_cast<double>(index));
      if constexpr (Stereo) {
        const float* p = s.frames + 2 * index;
        l = CatmullRom(p[-2], p[0], p[2], p[4], f);
        r = CatmullRom(p[-1], p[1], p[3], p[5], f);
      } else {
        const float* p = s.frames + index;
        l = CatmullRom(p[-1], p[0], p[1], p[2], f);
      }
      if (Advance(s)) s.ended = 1;
      l = RunFilter<Structure>(filter, l, 0);
      if constexpr (Stereo) r = RunFilter<Structure>(filter, r, 1);
      for (int e = 0; e < EqCount; ++e) {
        l = RunEq(eq[e], l, 0);
        if constexpr (Stereo) r = RunEq(eq[e], r, 1);
      }
      if constexpr (!Stereo) r = l;
    }
    out[2 * i] = l;
    out[2 * i + 1] = r;
  }
  s.filter = filter;
  for (int e = 0; e < EqCount; ++e) s.eq[e] = eq[e];
}

using FrameLoop = void (*)(WaveState&, float*);

template <bool Stereo, int Structure>
constexpr FrameLoop kByEq[4] = {RenderFrames<Stereo, Structure, 0>, RenderFrames<Stereo, Structure, 1>,
                                RenderFrames<Stereo, Structure, 2>, RenderFrames<Stereo, Structure, 3>};

template <bool Stereo>
constexpr const FrameLoop* kByStructure[5] = {kByEq<Stereo, 0>, kByEq<Stereo, 1>, kByEq<Stereo, 2>,
                                              kByEq<Stereo, 3>, kByEq<Stereo, 4>};

FrameLoop ChooseLoop(const WaveState& s) {
  const int structure = s.filter.structure <= 4 ? s.filter.structure : 0;
  return s.stereo ? kByStructure<true>[structure][s.eqCount] : kByStructure<false>[structure][s.eqCount];
}

void InitWave(VoiceRecord& voice, const SynthZone& z, float rate, bool update) {
  SynthVoice& h = voice.head;
  WaveState& s = VoiceState<WaveState>(voice);
  const float controlRate = rate / kSynthBlock;
  const float velocity = h.velocity * 127.0f;
  const float v = (velocity - 64.0f) / 63.0f;
  const float o = (h.key - 60.0f) / 12.0f;
  const bool fresh = !update;

  // Envelopes: V always, the others where they reach their target.
  s.active = 0;
  if (Row(z, kRowPEnvToPitch) + v * Row(z, kRowVelToPEnvPitch) != 0.0f) s.active |= kPEnv;
  if (Row(z, kRowFEnvToCutoff) + v * Row(z, kRowVelToFEnvCutoff) != 0.0f) s.active |= kFEnv;
  if (Row(z, kRowXEnvToPan) != 0.0f) s.active |= kXEnv;
  for (int k = 0; k < kEnvCount; ++k) {
    if (k != kEnvV && !(s.active & (kPEnv << (k - 1)))) continue;
    EnvelopeState built;
    BuildEnvelope(built, &z.art.value[EnvRow(k, 0)], k == kEnvV, z.trigger == 1, v, o, controlRate);
    if (fresh) {
      s.env[k] = built;
    } else {
      // A live edit reshapes the stages ahead; where the envelope is stays.
      EnvelopeState& e = s.env[k];
      std::memcpy(e.time, built.time, sizeof e.time);
      std::memcpy(e.target, built.target, sizeof e.target);
      e.rateFlags = built.rateFlags;
      e.gainStages = built.gainStages;
      e.releaseStage = built.releaseStage;
      e.shutdownTime = built.shutdownTime;
    }
  }

  // LFOs: those with a frequency and something to move.
  s.pLfoDepth = Row(z, kRowPLfoToPitch) + v * Row(z, kRowVelToPLfoPitch);
  s.pLfoWheel = Row(z, kRowModWheelToPLfoPitch);
  s.pLfoTouch = Row(z, kRowAftertouchToPLfoPitch);
  s.vLfoDepth = Row(z, kRowVLfoToVolume) + v * Row(z, kRowVelToVLfoVolume);
  s.vLfoWheel = Row(z, kRowModWheelToVLfoVolume);
  s.vLfoTouch = Row(z, kRowAftertouchToVLfoVolume);
  s.fLfoDepth = Row(z, kRowFLfoToCutoff) + v * Row(z, kRowVelToFLfoCutoff);
  s.fLfoWheel = Row(z, kRowModWheelToFLfoCutoff);
  s.fLfoTouch = Row(z, kRowAftertouchToFLfoCutoff);
  s.xLfoPitch = Row(z, kRowXLfoToPitch) + v * Row(z, kRowVelToXLfoPitch);
  s.xLfoWheel = Row(z, kRowModWheelToXLfoPitch);
  s.xLfoTouch = Row(z, kRowAftertouchToXLfoPitch);
  s.xLfoPan = Row(z, kRowXLfoToPan);
  const float depths[4][4] = {{s.pLfoDepth, s.pLfoWheel, s.pLfoTouch, 0.0f},
                              {s.vLfoDepth, s.vLfoWheel, s.vLfoTouch, 0.0f},
                              {s.fLfoDepth, s.fLfoWheel, s.fLfoTouch, 0.0f},
                              {s.xLfoPitch, s.xLfoWheel, s.xLfoTouch, s.xLfoPan}};
  for (int n = 0; n < kLfoCount; ++n) {
    const float frequency = Row(z, LfoRow(n, kLfoFrequency));
    const bool moves = depths[n][0] != 0.0f || depths[n][1] != 0.0f || depths[n][2] != 0.0f || depths[n][3] != 0.0f;
    if (frequency <= 0.0f || !moves) continue;
    s.active |= static_cast<uint8_t>(kPLfo << n);
    SetupLfo(s.lfo[n], static_cast<int>(Row(z, LfoRow(n, kLfoShape))), frequency, Row(z, LfoRow(n, kLfoDelay)),
             Row(z, LfoRow(n, kLfoRamp)), controlRate, fresh);
  }

  // Pitch.
  s.basePitch = (h.key - 60.0f) * Row(z, kRowKeyToPitch) + Row(z, kRowMasterTune);
  if (Row(z, kRowRandomPitch) != 0.0f)
    s.basePitch += (static_cast<float>(kvRandom15()) * 6.103702e-5f - 1.0f) * Row(z, kRowRandomPitch);
  s.pEnvDepth = Row(z, kRowPEnvToPitch) + v * Row(z, kRowVelToPEnvPitch);
  if (h.bendRange == kBendRangeUnset || Row(z, kRowBendToPitch) == 0.0f) h.bendRange = Row(z, kRowBendToPitch);
  if (fresh) s.cachedPitch = NAN;

  // Volume, with the velocity transform: a negative depth turns the range round.
  float x = h.velocity, d = Row(z, kRowVelToVolume);
  if (d < 0.0f) {
    d = -d;
    x = 1.0f - x;
  }
  const float t = x >= 0.0039810715f ? std::log10(x) * 0.41666666f : -1.0f;
  s.baseVolume = Row(z, kRowMasterVolume) + t * d + o * Row(z, kRowKeyToVolume);
  s.wheelVolume = Row(z, kRowModWheelToVolume);
  s.touchVolume = Row(z, kRowAftertouchToVolume);

  // Filter.
  s.cutoffOffset = v * Row(z, kRowVelToCutoff) + o * Row(z, kRowKeyToCutoff);
  s.wheelCutoff = Row(z, kRowModWheelToCutoff);
  s.touchCutoff = Row(z, kRowAftertouchToCutoff);
  s.resonance = v * Row(z, kRowVelToResonance) + Row(z, kRowResonance);
  s.wheelResonance = Row(z, kRowModWheelToResonance);
  s.touchResonance = Row(z, kRowAftertouchToResonance);
  s.fEnvDepth = Row(z, kRowFEnvToCutoff) + v * Row(z, kRowVelToFEnvCutoff);
  const int filterType = static_cast<int>(Row(z, kRowFilterType));
  if (fresh || s.filter.type != filterType) {
    s.filter = VoiceFilter{};
    if (filterType == 0 || !SetupFilter(s.filter, filterType, Row(z, kRowCutoff) / rate, std::max(s.resonance, 0.0f), true))
      s.filter.structure = 0;
  }

  // Sample and loops.
  const double oldAbsolute = fresh ? 0.0 : s.position + s.start;
  s.start = std::max(z.startOffset, 0);
  const int64_t length = int64_t{z.wave.length} - s.start + std::min(z.endOffset, 0);
  s.length = length > 0 ? static_cast<uint32_t>(length) : 0;
  s.stereo = z.wave.stereo ? 1 : 0;
  s.frames = z.wave.frames ? z.wave.frames + static_cast<std::ptrdiff_t>(s.start) * (s.stereo ? 2 : 1) : nullptr;
  s.baseIncrement = static_cast<double>(z.wave.sampleRate) / rate;
  h.stereo = s.stereo != 0;
  SetupLoops(s, z);
  if (fresh) {
    s.released = 0;
    s.backward = 0;
    s.ended = s.length == 0 || !s.frames;
    s.position = 0.0;
    s.increment = s.baseIncrement;
    EnterLoopStage(s, 0);
  } else {
    // The voice goes on where it is when that is inside the new sample.
    const double position = oldAbsolute - s.start;
    s.position = position > 0.0 && position < s.length ? position : 0.0;
    s.backward = 0;
    s.increment = std::fabs(s.increment);
    int stage = 0;
    while (stage + 1 < s.stageCount && s.position >= s.stages[stage].end) ++stage;
    EnterLoopStage(s, stage);
    s.cachedPitch = NAN;
  }

  // EQ sections with a gain, in order.
  s.eqCount = 0;
  for (int b = 0; b < kEqBands; ++b) {
    const float gain = Row(z, kRowEqBase + 4 * b + 2);
    if (gain == 0.0f) continue;
    SetupEq(s.eq[s.eqCount++], static_cast<int>(Row(z, kRowEqBase + 4 * b)), Row(z, kRowEqBase + 4 * b + 1) / rate, gain,
            Row(z, kRowEqBase + 4 * b + 3));
  }

  // Pan.
  s.panOffset = o * Row(z, kRowKeyToPan);
  if (Row(z, kRowRandomPan) != 0.0f)
    s.panOffset += (static_cast<float>(kvRandom15()) * 6.103702e-5f - 1.0f) * Row(z, kRowRandomPan);
  s.xEnvPan = Row(z, kRowXEnvToPan);

  if (fresh) {
    // The first block starts at the note's own level instead of fading in
    // from silence.
    h.livePan = ((s.active & kXLfo) ? LfoValue(s.lfo[kLfoX]) * s.xLfoPan : 0.0f) + s.panOffset;
    const float venv = StepEnvelope(s.env[kEnvV]);
    h.amplitude = Amplitude((venv - 1.0f) * 96.0f + s.baseVolume);
  }
}

bool RenderWave(VoiceRecord& voice, float* block, float rate) {
  SynthVoice& h = voice.head;
  WaveState& s = VoiceState<WaveState>(voice);

  if (h.keyReleased) {
    ReleaseEnvelope(s.env[kEnvV]);
    for (int k = 1; k < kEnvCount; ++k)
      if (s.active & (kPEnv << (k - 1))) ReleaseEnvelope(s.env[k]);
    if (s.breaks) {
      if (s.backward) {
        s.loopType = 1;
        s.repeatsLeft = 2;
      } else {
        s.repeatsLeft = 1;
      }
    }
    s.released = 1;
    h.keyReleased = false;
  }

  if (h.shutdown) {
    EnvelopeState& e = s.env[kEnvV];
    const bool fadingFastEnough = e.stage >= kEnvShutdownStage && e.stepsLeft <= e.value * e.shutdownTime + 1.0f;
    if (!fadingFastEnough) {
      e.time[kEnvShutdownStage] = e.shutdownTime;
      e.target[kEnvShutdownStage] = 0.0f;
      e.rateFlags |= 1u << kEnvShutdownStage;
      e.gainStages &= static_cast<uint8_t>(~(1u << kEnvShutdownStage));
      EnterEnvelopeStage(e, kEnvShutdownStage);
    }
    h.shutdown = false;
  }

  if (h.delay > 0.0f) {
    h.delay -= kSynthBlock / rate;
    std::memset(block, 0, sizeof(float) * 2 * kSynthBlock);
    h.amplitude = 0.0f;
    return true;
  }

  const float venv = StepEnvelope(s.env[kEnvV]);
  const float penv = (s.active & kPEnv) ? StepEnvelope(s.env[kEnvP]) : 0.0f;
  const float fenv = (s.active & kFEnv) ? StepEnvelope(s.env[kEnvF]) : 0.0f;
  const float xenv = (s.active & kXEnv) ? StepEnvelope(s.env[kEnvX]) : 0.0f;
  const float plfo = (s.active & kPLfo) ? StepLfo(s.lfo[kLfoP]) : 0.0f;
  const float vlfo = (s.active & kVLfo) ? StepLfo(s.lfo[kLfoV]) : 0.0f;
  const float flfo = (s.active & kFLfo) ? StepLfo(s.lfo[kLfoF]) : 0.0f;
  const float xlfo = (s.active & kXLfo) ? StepLfo(s.lfo[kLfoX]) : 0.0f;
  const float mod = h.modulation, touch = h.pressure;

  const float pitch = s.basePitch + h.pitchOffset + h.bend * h.bendRange +
                      (s.pLfoDepth + mod * s.pLfoWheel + touch * s.pLfoTouch) * plfo +
                      (s.xLfoPitch + mod * s.xLfoWheel + touch * s.xLfoTouch) * xlfo + penv * s.pEnvDepth;
  if (s.filter.structure) {
    const float c = (s.fLfoDepth + mod * s.fLfoWheel + touch * s.fLfoTouch) * flfo + s.cutoffOffset +
                    mod * s.wheelCutoff + touch * s.touchCutoff + fenv * s.fEnvDepth;
    const float r = std::max(0.0f, s.resonance + mod * s.wheelResonance + touch * s.touchResonance);
    UpdateFilter(s.filter, c, r);
  }
  float db = (venv - 1.0f) * 96.0f + s.baseVolume + mod * s.wheelVolume + touch * s.touchVolume +
             (s.vLfoDepth + mod * s.vLfoWheel + touch * s.vLfoTouch) * vlfo;
  if (h.soft) db -= 9.0f;
  h.amplitude = Amplitude(std::min(db, 12.0f));
  h.livePan = xlfo * s.xLfoPan + s.panOffset + xenv * s.xEnvPan;

  if (!(pitch == s.cachedPitch)) {
    s.cachedPitch = pitch;
    // A loop's pitch shift is left out until the next jump takes it again.
    s.increment = std::exp2(static_cast<double>(pitch) / 12.0) * s.baseIncrement;
    if (s.backward) s.increment = -s.increment;
    if (s.loopPitch & 2) s.loopPitch = 1;
  }

  ChooseLoop(s)(s, block);

  const EnvelopeState& e = s.env[kEnvV];
  return !s.ended && !(e.stage >= kEnvStageSlots && venv < 0.004f);
}

}  // namespace

VoiceKind WaveVoiceKind() {
  VoiceKind kind;
  kind.recordSize = VoiceRecordBytes(sizeof(WaveState));
  kind.init = InitWave;
  kind.render = RenderWave;
  return kind;
}

static_assert(VoiceRecordBytes(sizeof(WaveState)) <= kVoiceRecordSize, "the sample voice fits its record");

}  // namespace kv
