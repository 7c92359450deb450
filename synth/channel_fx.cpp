#include "synth/channel_fx.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "core/param_catalogue.h"
#include "synth/kv_math.h"
#include "synth/synth_types.h"

namespace kv {

namespace {

constexpr int kFrames = 64;
static_assert(kFrames == kSynthBlock, "effects run on the engine's block");
constexpr float kInvFrames = 1.0f / 64.0f;
constexpr float kTwoPi = 6.2831853f;

// Before every store that feeds back: pushes a denormal to zero even where
// the processor's flush-to-zero mode is off.
inline float Settle(float x) { return (x + 1e-18f) - 1e-18f; }

// Catalogue places of a slot's rows feeding each flag byte and value, by
// type; -1 for an unused one.
struct FxMap {
  int8_t flag[3];
  int8_t value[5];
};
constexpr FxMap kMaps[kFxTypeCount] = {
    {{-1, -1, -1}, {-1, -1, -1, -1, -1}},
    {{2, 5, 6}, {0, 1, 3, -1, -1}},     // chorus
    {{5, -1, -1}, {0, 1, 2, 3, 4}},     // reverb
    {{5, -1, -1}, {0, 1, 2, 3, 4}},     // delay
    {{0, -1, -1}, {1, -1, -1, -1, -1}}, // tremolo
    {{-1, -1, -1}, {0, 1, 2, 3, 4}},    // compressor
    {{5, -1, -1}, {0, -1, -1, -1, -1}}, // overdrive
    {{5, 0, -1}, {1, 2, 3, 4, -1}},     // phaser
    {{-1, -1, -1}, {0, 1, 2, -1, -1}},  // transient shaper
};

float Limited(const ChannelFx& fx, int place) {
  const ParameterRow* row = CatalogueRow(FxParam(0, place), fx.type);
  if (!row) return 0.0f;
  const float v = fx.param[place];
  if (std::isnan(v)) return row->def;
  return std::clamp(v, row->min, row->max);
}

uint32_t PowerAbove(double n, uint32_t least) {
  uint32_t size = least;
  while (static_cast<double>(size) <= n && size < (1u << 30)) size <<= 1;
  return size;
}

// ---------------------------------------------------------------- lines

void ClearLine(FxLine& line) {
  if (line.data) std::fill(line.data, line.data + line.mask + 1, 0.0f);
  line.write = 0;
}

void FreeLine(FxLine& line, FxLinePool& pool) {
  if (line.data) pool.Give(line.data, line.mask + 1);
  line = FxLine{};
}

// A line of `size` floats: the old one when it has that size already.
bool FitLine(FxLine& line, uint32_t size, FxLinePool& pool) {
  if (line.data && line.mask + 1 == size) return true;
  FreeLine(line, pool);
  line.data = pool.Take(size);
  if (!line.data) return false;
  line.mask = size - 1;
  line.write = 0;
  return true;
}

inline float ReadBack(const FxLine& line, uint32_t distance) { return line.data[(line.write - distance) & line.mask]; }
inline void Push(FxLine& line, float x) {
  line.data[line.write] = Settle(x);
  line.write = (line.write + 1) & line.mask;
}

template <typename F>
void ForEachLine(ChannelFxState& s, F&& f) {
  switch (s.type) {
    case kFxTypeChorus:
      for (FxLine& l : s.chorus.line) f(l);
      break;
    case kFxTypeReverb:
      for (auto& side : s.reverb.comb)
        for (FxLine& l : side) f(l);
      for (auto& side : s.reverb.allpass)
        for (FxLine& l : side) f(l);
      break;
    case kFxTypeDelay:
      f(s.delay.line);
      break;
    default:
      break;
  }
}

void FreeLines(ChannelFxState& s, FxLinePool& pool) {
  ForEachLine(s, [&](FxLine& l) { FreeLine(l, pool); });
}

// Lines and every store that could ring on.
void ClearMemory(ChannelFxState& s) {
  ForEachLine(s, [](FxLine& l) { ClearLine(l); });
  if (s.type == kFxTypeReverb) std::memset(s.reverb.store, 0, sizeof s.reverb.store);
  if (s.type == kFxTypeDelay) {
    OnePole& p = s.delay.filter.pole;
    p.x1[0] = p.x1[1] = p.y1[0] = p.y1[1] = 0.0f;
  }
}

// ---------------------------------------------------------------- set-up per type

bool SetupChorus(ChannelFxState& s, const ChannelFxConfig& c, float rate, FxLinePool& pool, bool fresh) {
  ChorusState& st = s.chorus;
  const uint32_t voices = std::clamp<uint32_t>(c.flag[kChorusVoices], 1, 8);
  const float d = rate * c.value[kChorusDepth];
  const float b = c.flag[kChorusFlanger] ? d + 4.0f : rate * 0.025f;
  st.depth = d;
  st.base = b;
  st.feedback = c.value[kChorusFeedback] / static_cast<float>(voices);
  st.scale = 1.0f / std::sqrt(static_cast<float>(voices));
  st.voices = voices;
  const float n = std::ceil(b + d) + 2.0f;
  const uint32_t size = PowerAbove(n, 4);
  const float step = c.value[kChorusRate] * 64.0f / rate;
  for (uint32_t v = 0; v < 8; ++v)
    st.step[v] = c.flag[kChorusOctave] ? step / static_cast<float>(1u << v) : step;
  if (fresh) {
    const float vf = static_cast<float>(voices);
    for (int ch = 0; ch < 2; ++ch)
      for (uint32_t v = 0; v < 8; ++v) {
        float p = c.flag[kChorusOctave]
                      ? ch * 0.5f
                      : (static_cast<float>(voices >> 1) + 0.5f) * static_cast<float>(ch) / vf + static_cast<float>(v) / vf;
        p -= std::floor(p);
        st.phase[ch][v] = p;
        st.sinOld[ch][v] = st.sinNew[ch][v] = kvSinTurns(p);
      }
  }
  for (FxLine& l : st.line)
    if (!FitLine(l, size, pool)) return false;
  s.tail = FxTailFrames(st.feedback, n, size - 1);
  return true;
}

bool SetupReverb(ChannelFxState& s, const ChannelFxConfig& c, float rate, FxLinePool& pool, bool fresh) {
  static constexpr float kComb[8] = {1116, 1188, 1277, 1356, 1422, 1491, 1557, 1617};
  static constexpr float kAllpass[4] = {556, 441, 341, 225};
  ReverbState& st = s.reverb;
  st.room = c.value[kReverbRoom] * 0.28f + 0.7f;
  st.damping = c.value[kReverbDamping] * 0.4f;
  st.gate = c.flag[kReverbGate];
  st.attackRate = c.value[kReverbGateAttack];
  st.holdTime = c.value[kReverbGateHold];
  st.decayRate = c.value[kReverbGateDecay];
  st.controlRate = rate / 64.0f;
  if (fresh) {
    st.stage = 4;
    st.gain = 0.0f;
  }
  const float scale = rate / 44100.0f;
  uint64_t combTail = 0, allpassTail = 0;
  for (int ch = 0; ch < 2; ++ch) {
    const float spread = ch ? 11.5f : -11.5f;
    for (int i = 0; i < 8; ++i) {
      const uint32_t n = std::max<uint32_t>(static_cast<uint32_t>((kComb[i] + spread) * scale), 1);
      FxLine& l = st.comb[ch][i];
      if (!FitLine(l, PowerAbove(n, 4), pool)) return false;
      l.distance = n;
      combTail = std::max(combTail, FxTailFrames(st.room, static_cast<float>(n), l.mask));
    }
    uint64_t sum = 0;
    for (int i = 0; i < 4; ++i) {
      const uint32_t n = std::max<uint32_t>(static_cast<uint32_t>((kAllpass[i] + spread) * scale), 1);
      FxLine& l = st.allpass[ch][i];
      if (!FitLine(l, PowerAbove(n, 4), pool)) return false;
      l.distance = n;
      sum += FxTailFrames(0.5f, static_cast<float>(n), l.mask);
    }
    allpassTail = std::max(allpassTail, sum);
  }
  st.blockwise = 1;
  for (int ch = 0; ch < 2; ++ch) {
    for (const FxLine& l : st.comb[ch]) st.blockwise = st.blockwise && l.distance >= kFrames;
    for (const FxLine& l : st.allpass[ch]) st.blockwise = st.blockwise && l.distance >= kFrames;
  }
  s.tail = combTail + allpassTail + 4;
  return true;
}

bool SetupDelay(ChannelFxState& s, const ChannelFxConfig& c, float rate, FxLinePool& pool) {
  DelayState& st = s.delay;
  const float time = c.value[kDelayTime];
  const float w = 1.0f - c.value[kDelayTapDistance];
  st.longTap = std::max<uint32_t>(static_cast<uint32_t>(rate * time + 0.5f), 1);
  st.shortTap = std::max<uint32_t>(static_cast<uint32_t>(w * rate * time + 0.5f), 1);
  kvPanGains(c.value[kDelayTapPanning], st.left, st.right);
  const float g = c.value[kDelayFeedback];
  st.feedback = g;
  st.longLevel = w == 1.0f ? g * 0.5f : g;
  st.shortLevel = (g - 1.0f) * w + 1.0f;
  const float cutoff = c.value[kDelayCutoff];
  const bool lowPass = c.flag[kDelayLowPass] != 0;
  st.filtered = !(cutoff <= 0.0f || (lowPass && cutoff >= rate * 0.5f));
  if (st.filtered) {
    // Kept across a change of the same type: the filter's memory is part of the tail.
    const OnePole keep = st.filter.pole;
    SetupFilter(st.filter, lowPass ? 1 : 5, std::min(cutoff / rate, 0.5f), 0.0f, false);
    std::copy(std::begin(keep.x1), std::end(keep.x1), st.filter.pole.x1);
    std::copy(std::begin(keep.y1), std::end(keep.y1), st.filter.pole.y1);
  }
  const uint32_t size = PowerAbove(static_cast<double>(st.longTap), 1);
  if (!FitLine(st.line, size, pool)) return false;
  s.tail = FxTailFrames(g, rate * time, size - 1);
  return true;
}

void SetupTremolo(ChannelFxState& s, const ChannelFxConfig& c, float rate, bool fresh) {
  TremoloState& st = s.tremolo;
  const int shape = std::min<int>(c.flag[kTremoloShape], 7);
  SetupLfo(st.lfo, shape | 0x40, c.value[kTremoloRate], 0.0f, 0.0f, rate / 64.0f, fresh);
  st.firstPhase = shape == 0 ? 0.25f : (shape == 1 ? 0.5f : 0.0f);
  if (fresh) {
    st.lfo.phase = st.firstPhase;
    st.last = StepLfo(st.lfo);
  }
}

void SetupCompressor(ChannelFxState& s, const ChannelFxConfig& c, float rate) {
  CompressorState& st = s.compressor;
  st.attack = std::exp(-1.0f / (rate * c.value[kCompAttack]));
  st.release = std::exp(-1.0f / (rate * c.value[kCompRelease]));
  st.slope = 1.0f / c.value[kCompRatio] - 1.0f;
  st.threshold = c.value[kCompThreshold];
  st.makeUp = st.threshold * 0.25f * st.slope;
  st.inputGain = c.value[kCompInputGain];
  st.bypass = st.threshold >= 0.0f || st.slope >= 0.0f;
  if (st.bypass) st.follower = 0.0f;
}

void SetupOverdrive(ChannelFxState& s, const ChannelFxConfig& c) {
  OverdriveState& st = s.overdrive;
  const float drive = c.value[kDriveAmount];
  st.soft = c.flag[kDriveSoft];
  if (st.soft) {
    st.h = std::pow(10.0f, drive / 20.0f);
    st.q = std::pow(10.0f, -drive / 40.0f);
  } else {
    st.h = -drive <= -96.0f ? 0.0f : std::pow(10.0f, -drive / 20.0f);
    float db = drive * 0.5f;
    if (drive > 24.0f) db += (drive - 24.0f) * 0.5f;
    st.q = std::pow(10.0f, db / 20.0f);
  }
}

void PhaserTargets(const PhaserState& st, float& left, float& right) {
  LfoState at = st.lfo;
  left = 1.0f + LfoValue(at) * st.depth;
  at.phase = st.lfo.phase + st.offset;
  at.phase -= std::floor(at.phase);
  right = 1.0f + LfoValue(at) * st.depth;
}

void SetupPhaser(ChannelFxState& s, const ChannelFxConfig& c, float rate, bool fresh) {
  PhaserState& st = s.phaser;
  const int shape = std::min<int>(c.flag[kPhaserShape], 7);
  const float n = std::trunc(rate * c.value[kPhaserDelay] + 0.5f);
  st.stages = static_cast<uint32_t>(std::clamp(n, 1.0f, static_cast<float>(kPhaserMaxStages)));
  st.depth = std::min(c.value[kPhaserDepth], 0.99f);
  st.feedback = c.value[kPhaserFeedback];
  st.offset = !c.flag[kPhaserStereo] ? 0.0f : (shape <= 2 ? 0.25f : 0.5f);
  SetupLfo(st.lfo, shape, c.value[kPhaserRate], 0.0f, 0.0f, rate / 64.0f, fresh);
  if (fresh) PhaserTargets(st, st.lastT[0], st.lastT[1]);
}

float Coefficient(float f, float rate) { return 1.0f - std::exp(-kTwoPi * f / rate); }

void RestFollowers(ShaperState& st) {
  std::fill(std::begin(st.e1), std::end(st.e1), 1e-5f);
  std::fill(std::begin(st.e2), std::end(st.e2), 1e-5f);
}

void SetupShaper(ChannelFxState& s, const ChannelFxConfig& c, float rate, bool fresh) {
  ShaperState& st = s.shaper;
  const float a = c.value[kShaperAttack], d = c.value[kShaperDecay], focus = c.value[kShaperFocus];
  st.bypass = a == 0.0f && d == 0.0f;
  const float p = std::pow(40.0f, a), q = std::pow(6.0f, d);
  st.rise[0] = Coefficient(10.0f * std::max(1.0f / p, 1.0f), rate);
  st.fall[0] = Coefficient(2.5f, rate);
  st.rise[1] = Coefficient(10.0f * std::max(p, 1.0f), rate);
  st.fall[1] = Coefficient(2.5f, rate);
  st.rise[2] = Coefficient(144.0f, rate);
  st.fall[2] = Coefficient(1.8f * std::max(q, 1.0f), rate);
  st.rise[3] = Coefficient(144.0f, rate);
  st.fall[3] = Coefficient(1.8f * std::max(1.0f / q, 1.0f), rate);
  st.sign = a > 0.0f ? 1.0f : -1.0f;
  st.base = std::pow(3.0f, -a);
  VoiceFilter hp;
  SetupFilter(hp, 5, 160.0f / rate, 0.0f, false);
  if (fresh) {
    st.highPass = hp.pole;
  } else {
    st.highPass.a0 = hp.pole.a0;
    st.highPass.a1 = hp.pole.a1;
    st.highPass.b1 = hp.pole.b1;
  }
  const bool peaked = focus != 0.0f;
  if (peaked) {
    EqSection eq;
    SetupEq(eq, 0, focus / rate, 12.0f, 0.2f);
    if (st.peaked && !fresh) {
      std::copy(std::begin(st.peak.x1), std::end(st.peak.x1), eq.x1);
      std::copy(std::begin(st.peak.x2), std::end(st.peak.x2), eq.x2);
      std::copy(std::begin(st.peak.y1), std::end(st.peak.y1), eq.y1);
      std::copy(std::begin(st.peak.y2), std::end(st.peak.y2), eq.y2);
    }
    st.peak = eq;
  }
  st.peaked = peaked;
  if (fresh) RestFollowers(st);
}

// ---------------------------------------------------------------- processing per type

void ZeroBlock(float* p) { std::fill(p, p + 2 * kFrames, 0.0f); }

// The silent-block count of the send effects with a tail. False when the
// block is skipped: the lines are flushed and the send stays silent.
bool EnterSendBlock(ChannelFxState& s, float* dry, float* send, bool busEmpty, bool sendEmpty) {
  if (sendEmpty) {
    if (s.flushed) return false;
    s.silent += kFrames;
    if (s.silent >= s.tail) {
      ClearMemory(s);
      s.flushed = 1;
      return false;
    }
    ZeroBlock(send);
  } else {
    s.silent = 0;
    s.flushed = 0;
  }
  if (busEmpty) ZeroBlock(dry);
  s.framesRun += kFrames;
  return true;
}

inline float SoftLimit(float x) {
  const float m = std::fabs(x);
  if (m <= 0.5f) return x;
  const float y = m >= 1.5f ? 1.0f : m - (m - 0.5f) * (m - 0.5f) * 0.5f;
  return x < 0.0f ? -y : y;
}

void RunChorus(ChorusState& st, float* dry, const float* send) {
  const uint32_t voices = st.voices;
  for (int ch = 0; ch < 2; ++ch)
    for (uint32_t v = 0; v < voices; ++v) {
      float p = st.phase[ch][v] + st.step[v];
      p -= std::floor(p);
      st.phase[ch][v] = p;
      st.sinOld[ch][v] = st.sinNew[ch][v];
      st.sinNew[ch][v] = kvSinTurns(p);
    }
  const float d = st.depth, b = st.base, f = st.feedback, scale = st.scale;
  for (int ch = 0; ch < 2; ++ch) {
    FxLine& line = st.line[ch];
    const float* so = st.sinOld[ch];
    const float* sn = st.sinNew[ch];
    for (int n = 0; n < kFrames; ++n) {
      const float frac = static_cast<float>(n) * kInvFrames;
      float sum = 0.0f;
      for (uint32_t v = 0; v < voices; ++v) {
        const float m = so[v] + (sn[v] - so[v]) * frac;
        const float pos = m * d + b;
        const auto i = static_cast<uint32_t>(pos);
        const float t = pos - static_cast<float>(i);
        const float a = ReadBack(line, i - 1), s0 = ReadBack(line, i), s1 = ReadBack(line, i + 1),
                    s2 = ReadBack(line, i + 2);
        sum += ((((s1 + s1 + a - (s0 * 5.0f + s2) * 0.5f) + ((s0 - s1) * 3.0f - a + s2) * 0.5f * t) * t) +
                (s1 - a) * 0.5f) * t + s0;
      }
      dry[2 * n + ch] += sum * scale;
      float x = send[2 * n + ch];
      if (f > 0.0f) x = SoftLimit(f * sum + x);
      Push(line, x);
    }
  }
}

// One block of the gate's envelope; the gain at the block's end.
void EnterGateStage(ReverbState& st, int stage) {
  st.stage = stage;
  switch (stage) {
    case 0: {
      const float blocks = st.attackRate * st.controlRate * std::fabs(1.0f - st.gain);
      if (blocks < 1.0f) {
        st.gain = 1.0f;
        EnterGateStage(st, 1);
        return;
      }
      st.blocksLeft = static_cast<uint32_t>(blocks);
      st.step = (1.0f - st.gain) / static_cast<float>(st.blocksLeft);
      return;
    }
    case 1:
      st.blocksLeft = 1u << 31;
      return;
    case 2: {
      const float blocks = st.holdTime * st.controlRate;
      if (blocks < 1.0f) {
        EnterGateStage(st, 3);
        return;
      }
      st.blocksLeft = static_cast<uint32_t>(blocks);
      return;
    }
    case 3: {
      const float blocks = st.decayRate * st.controlRate * std::fabs(st.gain);
      if (blocks < 1.0f) {
        st.gain = 0.0f;
        st.stage = 4;
        return;
      }
      st.blocksLeft = static_cast<uint32_t>(blocks);
      st.step = -st.gain / static_cast<float>(st.blocksLeft);
      return;
    }
    default:
      st.stage = 4;
      return;
  }
}

void StepGate(ReverbState& st, bool sendEmpty) {
  if (!sendEmpty && st.stage >= 2) EnterGateStage(st, 0);
  if (sendEmpty && st.stage == 1) EnterGateStage(st, 2);
  switch (st.stage) {
    case 0:
    case 3:
      st.gain += st.step;
      if (--st.blocksLeft == 0) {
        st.gain = st.stage == 0 ? 1.0f : 0.0f;
        EnterGateStage(st, st.stage + 1);
      }
      break;
    case 1:
    case 2:
      if (--st.blocksLeft == 0) EnterGateStage(st, st.stage + 1);
      break;
    default:
      break;
  }
}

// A comb or allpass at least a block long reads nothing this block writes,
// so each line can run through the whole block in one pass: the same
// arithmetic in the same order as frame by frame, with the indexing hoisted.
// Four combs side by side: their damping stores are four independent
// chains, which the processor can overlap.
void CombBlock4(FxLine* l, float* store, float r, float c, const float* x, float* acc) {
  float* d[4];
  uint32_t m[4], w[4], rd[4];
  float st[4];
  for (int k = 0; k < 4; ++k) {
    d[k] = l[k].data;
    m[k] = l[k].mask;
    w[k] = l[k].write;
    rd[k] = l[k].write - l[k].distance;
    st[k] = store[k];
  }
  for (int n = 0; n < kFrames; ++n) {
    const auto u = static_cast<uint32_t>(n);
    float a = acc[n];
    for (int k = 0; k < 4; ++k) {
      const float y = d[k][(rd[k] + u) & m[k]];
      a += y;
      st[k] = Settle((st[k] - y) * c + y);
      d[k][(w[k] + u) & m[k]] = Settle(st[k] * r + x[n]);
    }
    acc[n] = a;
  }
  for (int k = 0; k < 4; ++k) {
    store[k] = st[k];
    l[k].write = (w[k] + kFrames) & m[k];
  }
}

void AllpassBlock(FxLine& l, float* acc) {
  float* d = l.data;
  const uint32_t m = l.mask, w = l.write, rd = l.write - l.distance;
  for (int n = 0; n < kFrames; ++n) {
    const float y = d[(rd + static_cast<uint32_t>(n)) & m];
    d[(w + static_cast<uint32_t>(n)) & m] = Settle(y * 0.5f + acc[n]);
    acc[n] = y - acc[n];
  }
  l.write = (w + kFrames) & m;
}

void RunReverb(ChannelFxState& s, float* dry, const float* send, bool sendEmpty) {
  ReverbState& st = s.reverb;
  float gain0 = 1.0f, gainStep = 0.0f;
  if (st.gate) {
    const float last = st.gain;
    StepGate(st, sendEmpty);
    gain0 = last;
    gainStep = (st.gain - last) * kInvFrames;
  }
  // Only the left send feeds both sides.
  float x[kFrames];
  for (int n = 0; n < kFrames; ++n) x[n] = 2.0f * send[2 * n] * 0.014849242f;
  const float r = st.room, c = st.damping;
  for (int ch = 0; ch < 2; ++ch) {
    FxLine* combs = st.comb[ch];
    FxLine* passes = st.allpass[ch];
    float* store = st.store[ch];
    float acc[kFrames] = {};
    if (st.blockwise) {
      CombBlock4(combs, store, r, c, x, acc);
      CombBlock4(combs + 4, store + 4, r, c, x, acc);
      for (int i = 0; i < 4; ++i) AllpassBlock(passes[i], acc);
    } else {
      for (int n = 0; n < kFrames; ++n) {
        float a = 0.0f;
        for (int i = 0; i < 8; ++i) {
          FxLine& l = combs[i];
          const float y = ReadBack(l, l.distance);
          a += y;
          store[i] = Settle((store[i] - y) * c + y);
          Push(l, store[i] * r + x[n]);
        }
        for (int i = 0; i < 4; ++i) {
          FxLine& l = passes[i];
          const float y = ReadBack(l, l.distance);
          Push(l, y * 0.5f + a);
          a = y - a;
        }
        acc[n] = a;
      }
    }
    if (st.gate)
      for (int n = 0; n < kFrames; ++n) acc[n] *= gain0 + gainStep * static_cast<float>(n);
    for (int n = 0; n < kFrames; ++n) dry[2 * n + ch] += acc[n];
  }
  if (st.gate && st.stage == 4) {
    ClearMemory(s);
    s.flushed = 1;
  }
}

void RunDelay(DelayState& st, float* dry, const float* send) {
  FxLine& line = st.line;
  const float ul = st.longLevel * st.right, ur = st.longLevel * st.left;
  const float vl = st.shortLevel * st.left, vr = st.shortLevel * st.right;
  const float g = st.feedback;
  for (int n = 0; n < kFrames; ++n) {
    const float s = ReadBack(line, st.shortTap), l = ReadBack(line, st.longTap);
    dry[2 * n] += l * ul + s * vl;
    dry[2 * n + 1] += l * ur + s * vr;
    float x = l * g + 2.0f * send[2 * n] * 0.70710677f;
    if (st.filtered) x = RunOnePole(st.filter.pole, x, 0);
    Push(line, x);
  }
}

bool RunTremolo(TremoloState& st, float* dry, const float* send, bool busEmpty, bool sendEmpty) {
  if (sendEmpty) {
    st.lfo.phase = st.firstPhase;
    st.last = StepLfo(st.lfo);
    return !busEmpty;
  }
  if (busEmpty) ZeroBlock(dry);
  const float last = st.last, next = StepLfo(st.lfo);
  const float step = (next - last) * kInvFrames;
  st.last = next;
  for (int n = 0; n < kFrames; ++n) {
    const float gain = last + step * static_cast<float>(n) - 1.0f;
    dry[2 * n] += gain * send[2 * n];
    dry[2 * n + 1] += gain * send[2 * n + 1];
  }
  return true;
}

bool RunCompressor(CompressorState& st, float* dry, const float* send, bool busEmpty, bool sendEmpty) {
  if (st.bypass || busEmpty) {
    st.follower = 0.0f;
    return !busEmpty;
  }
  float e = 0.0f;
  if (!sendEmpty) {
    // The control level of the whole block is that of its first frame.
    const float peak = std::max(std::fabs(send[0]), std::fabs(send[1]));
    const float level = peak > 0.0f ? 20.0f * std::log10(peak) : -96.0f;
    e = std::max(0.0f, st.inputGain + level - st.threshold);
  }
  float follower = st.follower;
  const float fixed = st.inputGain + st.makeUp;
  for (int n = 0; n < kFrames; ++n) {
    follower = (follower - e) * (e > follower ? st.attack : st.release) + e;
    const float db = follower * st.slope + fixed;
    const float gain = db <= -96.0f ? 0.0f : std::exp(db * 0.115129255f);
    dry[2 * n] *= gain;
    dry[2 * n + 1] *= gain;
  }
  st.follower = Settle(follower);
  return true;
}

bool RunOverdrive(const OverdriveState& st, float* dry, const float* send, bool busEmpty, bool sendEmpty) {
  if (busEmpty || sendEmpty) return false;
  const float h = st.h, q = st.q;
  if (st.soft) {
    for (int i = 0; i < 2 * kFrames; ++i) {
      const float x = send[i];
      dry[i] += (std::atan(x * h) * 0.63661975f - x) * q;
    }
  } else {
    for (int i = 0; i < 2 * kFrames; ++i) {
      const float x = send[i];
      dry[i] += std::clamp(x, -h, h) * q - x;
    }
  }
  return true;
}

bool RunPhaser(PhaserState& st, float* dry, const float* send, bool busEmpty, bool sendEmpty) {
  if (busEmpty) ZeroBlock(dry);
  const float comp = std::pow(1.0f + st.feedback, -0.2f);
  float next[2];
  PhaserTargets(st, next[0], next[1]);
  StepLfo(st.lfo);
  const uint32_t stages = st.stages;
  const float fb = st.feedback;
  for (int ch = 0; ch < 2; ++ch) {
    const float t0 = st.lastT[ch], dt = (next[ch] - t0) * kInvFrames;
    float* xp = st.xprev[ch];
    float* yp = st.yprev[ch];
    float last = st.last[ch];
    for (int n = 0; n < kFrames; ++n) {
      const float t = t0 + dt * static_cast<float>(n);
      const float a = (1.0f - t) / (1.0f + t);
      float x = std::clamp(fb * last + (sendEmpty ? 0.0f : send[2 * n + ch]), -2.0f, 2.0f);
      for (uint32_t k = 0; k < stages; ++k) {
        const float y = Settle((x - yp[k]) * a + xp[k]);
        xp[k] = x;
        yp[k] = y;
        x = y;
      }
      last = x;
      dry[2 * n + ch] += x * comp;
    }
    st.last[ch] = last;
    st.lastT[ch] = next[ch];
  }
  return true;
}

bool RunShaper(ShaperState& st, float* dry, const float* send, bool busEmpty, bool sendEmpty) {
  if (busEmpty) {
    RestFollowers(st);
    return false;
  }
  if (st.bypass) return true;
  for (int n = 0; n < kFrames; ++n) {
    float m = sendEmpty ? 0.0f : (send[2 * n] + send[2 * n + 1]) * 0.70710677f;
    m = RunOnePole(st.highPass, m, 0);
    if (st.peaked) m = RunEq(st.peak, m, 0);
    const float d = std::fabs(m) + 1e-5f;
    float value[4];
    for (int k = 0; k < 4; ++k) {
      st.e1[k] += (d - st.e1[k]) * (d >= st.e1[k] ? st.rise[k] : st.fall[k]);
      if (st.e1[k] > st.e2[k])
        st.e2[k] = st.e1[k];
      else
        st.e2[k] += (st.e1[k] - st.e2[k]) * st.fall[k];
      value[k] = st.e2[k];
    }
    float u = value[1] / value[0];
    if ((u - 1.0f) * st.sign < 0.0f) u = 1.0f;
    const float w = value[3] / value[2];
    const float g = w * u * st.base - 1.0f;
    if (!sendEmpty) {
      dry[2 * n] += g * send[2 * n];
      dry[2 * n + 1] += g * send[2 * n + 1];
    }
  }
  st.highPass.y1[0] = Settle(st.highPass.y1[0]);
  return true;
}

bool IsDenormal(float x) { return x != 0.0f && std::fabs(x) < 1.17549435e-38f; }

}  // namespace

// ---------------------------------------------------------------- public

ChannelFxConfig MakeChannelFxConfig(const ChannelFx& fx) {
  ChannelFxConfig c;
  if (fx.type == 0 || fx.type >= kFxTypeCount) return c;
  c.type = fx.type;
  const FxMap& map = kMaps[fx.type];
  for (int i = 0; i < 3; ++i)
    if (map.flag[i] >= 0) c.flag[i] = static_cast<uint8_t>(Limited(fx, map.flag[i]));
  for (int i = 0; i < 5; ++i)
    if (map.value[i] >= 0) c.value[i] = Limited(fx, map.value[i]);
  return c;
}

uint64_t FxTailFrames(float g, float length, uint32_t mask) {
  float x;
  if (g >= 1.0f)
    x = 20000.0f;
  else if (g <= 0.0f || std::isnan(g))
    x = 0.0f;
  else
    x = std::log(1e-6f) / std::log(g);
  const double frames = static_cast<double>(length) * static_cast<double>(x);
  return static_cast<uint64_t>(std::max(frames, 0.0)) + mask + 1;
}

ChannelFxState::ChannelFxState() { std::memset(static_cast<void*>(&chorus), 0, sizeof(ChannelFxState) - offsetof(ChannelFxState, chorus)); }

void configure(ChannelFxState& s, const ChannelFxConfig& c, float rate, FxLinePool& pool) {
  const bool fresh = c.type != s.type || !s.active;
  if (c.type != s.type || !s.active) {
    FreeLines(s, pool);
    s = ChannelFxState();
    s.type = c.type < kFxTypeCount ? c.type : 0;
  }
  if (s.type == 0) return;
  if (!(rate > 0.0f)) rate = 44100.0f;
  bool ok = true;
  switch (s.type) {
    case kFxTypeChorus: ok = SetupChorus(s, c, rate, pool, fresh); break;
    case kFxTypeReverb: ok = SetupReverb(s, c, rate, pool, fresh); break;
    case kFxTypeDelay: ok = SetupDelay(s, c, rate, pool); break;
    case kFxTypeTremolo: SetupTremolo(s, c, rate, fresh); break;
    case kFxTypeCompressor: SetupCompressor(s, c, rate); break;
    case kFxTypeOverdrive: SetupOverdrive(s, c); break;
    case kFxTypePhaser: SetupPhaser(s, c, rate, fresh); break;
    case kFxTypeShaper: SetupShaper(s, c, rate, fresh); break;
    default: break;
  }
  if (!ok) {
    // Bypassed until the next configure, which starts it clear.
    FreeLines(s, pool);
    s.active = 0;
    return;
  }
  s.active = 1;
  if (fresh) s.flushed = 1;  // new lines are clear
}

bool process(ChannelFxState& s, float* dry, float* send, bool busEmpty, bool sendEmpty) {
  if (!s.active) return !busEmpty;
  switch (s.type) {
    case kFxTypeChorus:
      if (!EnterSendBlock(s, dry, send, busEmpty, sendEmpty)) return !busEmpty;
      RunChorus(s.chorus, dry, send);
      return true;
    case kFxTypeReverb:
      if (!EnterSendBlock(s, dry, send, busEmpty, sendEmpty)) return !busEmpty;
      RunReverb(s, dry, send, sendEmpty);
      return true;
    case kFxTypeDelay:
      if (!EnterSendBlock(s, dry, send, busEmpty, sendEmpty)) return !busEmpty;
      RunDelay(s.delay, dry, send);
      return true;
    case kFxTypeTremolo: s.framesRun += kFrames; return RunTremolo(s.tremolo, dry, send, busEmpty, sendEmpty);
    case kFxTypeCompressor: s.framesRun += kFrames; return RunCompressor(s.compressor, dry, send, busEmpty, sendEmpty);
    case kFxTypeOverdrive: s.framesRun += kFrames; return RunOverdrive(s.overdrive, dry, send, busEmpty, sendEmpty);
    case kFxTypePhaser: s.framesRun += kFrames; return RunPhaser(s.phaser, dry, send, busEmpty, sendEmpty);
    case kFxTypeShaper: s.framesRun += kFrames; return RunShaper(s.shaper, dry, send, busEmpty, sendEmpty);
    default: return !busEmpty;
  }
}

void ResetChannelFx(ChannelFxState& s) {
  switch (s.type) {
    case kFxTypeChorus:
    case kFxTypeReverb:
    case kFxTypeDelay:
      ClearMemory(s);
      s.flushed = 1;
      s.silent = 0;
      if (s.type == kFxTypeReverb) {
        s.reverb.stage = 4;
        s.reverb.gain = 0.0f;
      }
      break;
    case kFxTypeCompressor: s.compressor.follower = 0.0f; break;
    case kFxTypeShaper: RestFollowers(s.shaper); break;
    case kFxTypePhaser:
      std::memset(s.phaser.xprev, 0, sizeof s.phaser.xprev);
      std::memset(s.phaser.yprev, 0, sizeof s.phaser.yprev);
      s.phaser.last[0] = s.phaser.last[1] = 0.0f;
      break;
    default: break;
  }
}

bool ChannelFxHoldsDenormal(const ChannelFxState& state) {
  auto& s = const_cast<ChannelFxState&>(state);
  bool found = false;
  ForEachLine(s, [&](FxLine& l) {
    if (l.data)
      for (uint32_t i = 0; i <= l.mask; ++i) found = found || IsDenormal(l.data[i]);
  });
  auto any = [&](const float* p, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) found = found || IsDenormal(p[i]);
  };
  switch (s.type) {
    case kFxTypeReverb: any(&s.reverb.store[0][0], 16); break;
    case kFxTypeDelay: any(s.delay.filter.pole.y1, 2); break;
    case kFxTypePhaser:
      any(&s.phaser.yprev[0][0], 2 * kPhaserMaxStages);
      any(s.phaser.last, 2);
      break;
    case kFxTypeCompressor: any(&s.compressor.follower, 1); break;
    default: break;
  }
  return found;
}

// ---------------------------------------------------------------- the pool

std::size_t FxPoolFloats(int channels, float sampleRate) {
  const double scale = std::max(static_cast<double>(sampleRate), 8000.0) / 44100.0;
  const double reverb = 2.0 * (8 * PowerAbove(1629 * scale, 16) + PowerAbove(568 * scale, 16) +
                               2 * PowerAbove(453 * scale, 16) + PowerAbove(237 * scale, 16));
  const double chorus = 2.0 * PowerAbove(0.045 * 44100 * scale + 3, 16);
  const double delay = PowerAbove(1.5 * 44100 * scale + 1, 16);
  const double total = std::max(channels, 1) * (reverb + chorus + delay);
  return std::min<std::size_t>(PowerAbove(total - 1, 1u << 16), std::size_t{1} << 26);
}

uint32_t FxLinePool::Next(uint32_t unit) const {
  uint32_t v;
  std::memcpy(&v, &arena_[std::size_t{unit} << kMinOrder], 4);
  return v;
}

uint32_t FxLinePool::Prev(uint32_t unit) const {
  uint32_t v;
  std::memcpy(&v, &arena_[(std::size_t{unit} << kMinOrder) + 1], 4);
  return v;
}

void FxLinePool::SetLinks(uint32_t unit, uint32_t prev, uint32_t next) {
  std::memcpy(&arena_[std::size_t{unit} << kMinOrder], &next, 4);
  std::memcpy(&arena_[(std::size_t{unit} << kMinOrder) + 1], &prev, 4);
}

void FxLinePool::Push(uint32_t unit, int order) {
  const uint32_t head = head_[order];
  SetLinks(unit, kNone, head);
  if (head != kNone) std::memcpy(&arena_[(std::size_t{head} << kMinOrder) + 1], &unit, 4);
  head_[order] = unit;
  freeOrder_[unit] = static_cast<uint8_t>(order + 1);
}

void FxLinePool::Unlink(uint32_t unit, int order) {
  const uint32_t prev = Prev(unit), next = Next(unit);
  if (prev != kNone)
    std::memcpy(&arena_[std::size_t{prev} << kMinOrder], &next, 4);
  else
    head_[order] = next;
  if (next != kNone) std::memcpy(&arena_[(std::size_t{next} << kMinOrder) + 1], &prev, 4);
  freeOrder_[unit] = 0;
}

void FxLinePool::Reserve(std::size_t floats) {
  std::size_t size = std::size_t{1} << kMinOrder;
  while (size < floats && size < (std::size_t{1} << 30)) size <<= 1;
  topOrder_ = std::countr_zero(size);
  // Left untouched until lines are taken, so the unused part costs no memory.
  arena_ = std::make_unique_for_overwrite<float[]>(size);
  freeOrder_ = std::make_unique<uint8_t[]>(size >> kMinOrder);
  capacity_ = size;
  inUse_ = 0;
  std::fill(std::begin(head_), std::end(head_), kNone);
  Push(0, topOrder_);
}

float* FxLinePool::Take(uint32_t size) {
  if (!arena_ || size == 0) return nullptr;
  int order = std::max(std::countr_zero(std::bit_ceil(size)), kMinOrder);
  int from = order;
  while (from <= topOrder_ && head_[from] == kNone) ++from;
  if (from > topOrder_) return nullptr;
  const uint32_t unit = head_[from];
  Unlink(unit, from);
  // Halve until the block fits; the upper halves go to their own lists.
  while (from > order) {
    --from;
    Push(unit + (1u << (from - kMinOrder)), from);
  }
  inUse_ += std::size_t{1} << order;
  float* line = &arena_[std::size_t{unit} << kMinOrder];
  std::fill(line, line + (std::size_t{1} << order), 0.0f);
  return line;
}

void FxLinePool::Give(float* line, uint32_t size) {
  if (!line || !arena_) return;
  int order = std::max(std::countr_zero(std::bit_ceil(size)), kMinOrder);
  auto unit = static_cast<uint32_t>((line - arena_.get()) >> kMinOrder);
  inUse_ -= std::size_t{1} << order;
  // Merge with the buddy while it is free and whole.
  while (order < topOrder_) {
    const uint32_t buddy = unit ^ (1u << (order - kMinOrder));
    if (freeOrder_[buddy] != order + 1) break;
    Unlink(buddy, order);
    unit = std::min(unit, buddy);
    ++order;
  }
  Push(unit, order);
}

}  // namespace kv
