// The channel effects: exact numbers of each effect on short signals, the
// reverb against CMT's Freeverb (through sox's LADSPA host) and the tremolo against sox, the flushing of
// silent tails, and whole corpus songs with their effects.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <numeric>
#include <random>
#include <vector>

#include "core/app.h"
#include "core/items.h"
#include "core/param_catalogue.h"
#include "core/params.h"
#include "formats/import.h"
#include "support/render.h"
#include "support/testsupport.h"
#include "synth/channel_fx.h"
#include "synth/compile.h"
#include "synth/engine.h"
#include "synth/kv_math.h"
#include "synth/player.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
constexpr int kBlock = 2 * kSynthBlock;

ChannelFxConfig Config(uint8_t type, std::initializer_list<uint8_t> flags, std::initializer_list<float> values) {
  ChannelFxConfig c;
  c.type = type;
  std::copy(flags.begin(), flags.end(), c.flag);
  std::copy(values.begin(), values.end(), c.value);
  return c;
}

struct Slot {
  explicit Slot(float r = 44100.0f) : rate(r) { pool.Reserve(FxPoolFloats(1, r)); }
  void Set(const ChannelFxConfig& c) { configure(state, c, rate, pool); }
  // Runs `send` (stereo, whole blocks) through the slot. A send effect starts
  // each block on an empty bus; the others see the send as the dry signal.
  std::vector<float> Run(const std::vector<float>& send, bool sendIsDry = false) {
    std::vector<float> out(send.size());
    alignas(16) float dry[kBlock], bus[kBlock];
    for (std::size_t at = 0; at + kBlock <= send.size(); at += kBlock) {
      bool silent = true;
      for (int i = 0; i < kBlock; ++i) silent = silent && send[at + i] == 0.0f;
      std::copy_n(&send[at], kBlock, bus);
      if (sendIsDry)
        std::copy_n(&send[at], kBlock, dry);
      else
        std::fill_n(dry, kBlock, 1e9f);  // anything: the bus is empty
      const bool wrote = process(state, dry, bus, !sendIsDry, silent && !sendIsDry);
      if (wrote || sendIsDry) std::copy_n(dry, kBlock, &out[at]);
    }
    return out;
  }
  float rate;
  FxLinePool pool;
  ChannelFxState state;
};

std::vector<float> Impulse(std::size_t frames, float left, float right = 0.0f) {
  std::vector<float> v(2 * frames, 0.0f);
  v[0] = left;
  v[1] = right;
  return v;
}

TEST(ChannelFxConfig, ValuesLimitedToTheirRowsByType) {
  ChannelFx fx;
  fx.type = kFxTypeChorus;
  const float nan = std::nanf("");
  // Rate, Depth, Voice count, Feedback, -, Octave doubling, Flanger.
  const float raw[7] = {nan, 1.0f, 0.0f, 2.0f, 5.0f, 1.0f, 1.0f};
  std::copy(std::begin(raw), std::end(raw), fx.param);
  ChannelFxConfig c = MakeChannelFxConfig(fx);
  EXPECT_EQ(c.type, kFxTypeChorus);
  EXPECT_EQ(c.flag[kChorusVoices], 1);  // voice count at least 1
  EXPECT_EQ(c.flag[kChorusOctave], 1);
  EXPECT_EQ(c.flag[kChorusFlanger], 1);
  EXPECT_EQ(c.value[kChorusRate], 0.3f);  // NaN: the default
  EXPECT_EQ(c.value[kChorusDepth], 0.02f);
  EXPECT_EQ(c.value[kChorusFeedback], 1.0f);

  fx = ChannelFx{};
  fx.type = kFxTypePhaser;
  const float phaser[7] = {9, 20, 0.5f, 1, 0, 1, 0};  // Shape, Rate, Depth, Delay, Feedback, Stereo
  std::copy(std::begin(phaser), std::end(phaser), fx.param);
  c = MakeChannelFxConfig(fx);
  EXPECT_EQ(c.flag[kPhaserStereo], 1);
  EXPECT_EQ(c.flag[kPhaserShape], 7);
  EXPECT_EQ(c.value[kPhaserRate], 12.0f);
  EXPECT_EQ(c.value[kPhaserDelay], 0.001f);
  EXPECT_EQ(c.value[kPhaserFeedback], 0.01f);

  fx.type = 9;
  EXPECT_EQ(MakeChannelFxConfig(fx).type, 0);

  // A slot that a reader creates by type alone starts from that type's defaults.
  Collection owner;
  Instrument& inst = *Create<Instrument>(owner, "slots");
  params::Set(inst, FxTypeParam(1), kFxTypeReverb);
  c = MakeChannelFxConfig(inst.fx[1]);
  EXPECT_EQ(c.value[kReverbRoom], 0.5f);
  EXPECT_EQ(c.value[kReverbGateHold], 0.2f);
}

TEST(ChannelFxDelay, ImpulseResponseTapsTailAndFilter) {
  Slot s;
  // 10 ms at 44100: D = 441, S = trunc(0.75 * 441 + 0.5) = 331.
  s.Set(Config(kFxTypeDelay, {0}, {0.01f, 0.5f, 0.25f, 0.3f, 0.0f}));
  float L, R;
  kvPanGains(0.3f, L, R);
  const float x0 = 2.0f * 0.70710677f, g = 0.5f, u = g, v = (g - 1.0f) * 0.75f + 1.0f;
  std::vector<float> out = s.Run(Impulse(2048, 1.0f, 0.5f));
  std::vector<float> want(out.size(), 0.0f);
  auto at = [&](int frame, float left, float right) {
    want[2 * frame] += left;
    want[2 * frame + 1] += right;
  };
  at(331, x0 * v * L, x0 * v * R);
  at(441, x0 * u * R, x0 * u * L);
  at(441 + 331, x0 * g * v * L, x0 * g * v * R);
  at(882, x0 * g * u * R, x0 * g * u * L);
  at(882 + 331, x0 * g * g * v * L, x0 * g * g * v * R);
  at(1323, x0 * g * g * u * R, x0 * g * g * u * L);
  at(1323 + 331, x0 * g * g * g * v * L, x0 * g * g * g * v * R);
  at(1764, x0 * g * g * g * u * R, x0 * g * g * g * u * L);
  for (std::size_t i = 0; i < out.size(); ++i) ASSERT_NEAR(out[i], want[i], 1e-6f) << "value " << i;
  // Tail: ln(1e-6) / ln(0.5) = 19.93 loop lengths of 441, plus the line.
  EXPECT_EQ(s.state.tail, static_cast<uint64_t>(441.0 * (std::log(1e-6f) / std::log(0.5f))) + 512);

  // Tap distance 0: both taps at D, the long one halved.
  s.Set(Config(kFxTypeDelay, {0}, {0.01f, 0.5f, 0.0f, 0.3f, 0.0f}));
  ResetChannelFx(s.state);
  out = s.Run(Impulse(1024, 1.0f));
  EXPECT_NEAR(out[2 * 441], x0 * (0.25f * R + 0.5f * L), 1e-6f);
  EXPECT_NEAR(out[2 * 441 + 1], x0 * (0.25f * L + 0.5f * R), 1e-6f);
  // Tap distance 1: the short tap at 1 frame, at full level.
  s.Set(Config(kFxTypeDelay, {0}, {0.01f, 0.5f, 1.0f, 0.3f, 0.0f}));
  ResetChannelFx(s.state);
  out = s.Run(Impulse(1024, 1.0f));
  EXPECT_NEAR(out[2], x0 * L, 1e-6f);
  // Feedback 1: 20000 loop lengths.
  s.Set(Config(kFxTypeDelay, {0}, {0.01f, 1.0f, 0.5f, 0.3f, 0.0f}));
  EXPECT_EQ(s.state.tail, 441u * 20000u + 512u);
  // A right-only send reaches nothing.
  ResetChannelFx(s.state);
  out = s.Run(Impulse(2048, 0.0f, 1.0f));
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return x == 0.0f; }));

  // Filters: none at cutoff 0 or a low pass at Nyquist; a high pass above it
  // still runs, at half the rate.
  s.Set(Config(kFxTypeDelay, {1}, {0.01f, 0.5f, 0.5f, 0.3f, 22050.0f}));
  EXPECT_EQ(s.state.delay.filtered, 0);
  s.Set(Config(kFxTypeDelay, {0}, {0.01f, 0.5f, 0.5f, 0.3f, 24000.0f}));
  EXPECT_EQ(s.state.delay.filtered, 1);
  EXPECT_NEAR(s.state.delay.filter.pole.b1, std::exp(-6.2831853f * 0.5f), 1e-6f);
  s.Set(Config(kFxTypeDelay, {1}, {0.01f, 0.5f, 0.5f, 0.3f, 1000.0f}));
  const float a1 = std::exp(-6.2831853f * 1000.0f / 44100.0f);
  EXPECT_NEAR(s.state.delay.filter.pole.a0, 1.0f - a1, 1e-6f);
  EXPECT_NEAR(s.state.delay.filter.pole.b1, a1, 1e-6f);
}

TEST(ChannelFxReverb, LinesFlushingAndTypeChange) {
  // Line lengths: base -11.5 left, +11.5 right, scaled and truncated.
  const struct {
    float rate;
    uint32_t firstLeft, lastRight, allpassLeft;
  } rows[] = {{44100, 1104, 1628, 213}, {48000, 1202, 1772, 232}, {96000, 2404, 3545, 464}};
  for (const auto& row : rows) {
    Slot s(row.rate);
    s.Set(Config(kFxTypeReverb, {0}, {0.5f, 0.5f, 0.1f, 0.2f, 0.1f}));
    EXPECT_EQ(s.state.reverb.comb[0][0].distance, row.firstLeft) << row.rate;
    EXPECT_EQ(s.state.reverb.comb[1][7].distance, row.lastRight) << row.rate;
    EXPECT_EQ(s.state.reverb.allpass[0][3].distance, row.allpassLeft) << row.rate;
  }

  Slot s;
  s.Set(Config(kFxTypeReverb, {0}, {0.5f, 0.5f, 0.1f, 0.2f, 0.1f}));
  // A right-only send is not heard.
  std::vector<float> out = s.Run(Impulse(4096, 0.0f, 1.0f));
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](float x) { return x == 0.0f; }));
  // One block of input, then silence until the tail is over: after that
  // flush, ten seconds of silent blocks cost no frame at all.
  alignas(16) float dry[kBlock], send[kBlock] = {1.0f};
  ASSERT_TRUE(process(s.state, dry, send, true, false));
  const uint64_t tail = s.state.tail;
  uint64_t blocks = 0;
  while (!s.state.flushed && blocks < 1000000) {
    process(s.state, dry, send, true, true);
    ++blocks;
  }
  EXPECT_EQ(blocks, (tail + 63) / 64);
  const uint64_t ran = s.state.framesRun;
  for (int b = 0; b < 10 * 44100 / 64; ++b) EXPECT_FALSE(process(s.state, dry, send, true, true));
  EXPECT_EQ(s.state.framesRun, ran);
  EXPECT_FALSE(ChannelFxHoldsDenormal(s.state));

  // Reverb to delay in a running slot: the comb lines go back to the pool
  // and the delay starts clear.
  send[0] = 1.0f;
  process(s.state, dry, send, true, false);
  const std::size_t reverbFloats = s.pool.InUse();
  EXPECT_EQ(reverbFloats, 2u * (8 * 2048 + 1024 + 512 + 512 + 256));
  s.Set(Config(kFxTypeDelay, {0}, {0.01f, 0.5f, 0.5f, 0.5f, 0.0f}));
  EXPECT_EQ(s.pool.InUse(), 512u);
  EXPECT_EQ(s.state.flushed, 1);
  for (uint32_t i = 0; i <= s.state.delay.line.mask; ++i) ASSERT_EQ(s.state.delay.line.data[i], 0.0f);
  s.Set(ChannelFxConfig{});
  EXPECT_EQ(s.pool.InUse(), 0u);
}

TEST(ChannelFxChorus, OneVoiceWithoutDepthIsAPureDelay) {
  Slot s(48000.0f);
  s.Set(Config(kFxTypeChorus, {1, 0, 0}, {0.3f, 0.0f, 0.0f}));
  EXPECT_EQ(s.state.chorus.line[0].mask, 2047u);  // above ceil(1200) + 2
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
  std::vector<float> in(2 * 4096);
  for (float& x : in) x = noise(rng);
  const std::vector<float> out = s.Run(in);
  for (int n = 1200; n < 4096; ++n) {
    ASSERT_EQ(out[2 * n], in[2 * (n - 1200)]) << n;
    ASSERT_EQ(out[2 * n + 1], in[2 * (n - 1200) + 1]) << n;
  }
  // Start phases: voices spread over the turn, the right side shifted.
  s.Set(ChannelFxConfig{});
  s.Set(Config(kFxTypeChorus, {4, 0, 0}, {0.3f, 0.004f, 0.5f}));
  EXPECT_FLOAT_EQ(s.state.chorus.phase[0][1], 0.25f);
  EXPECT_FLOAT_EQ(s.state.chorus.phase[1][0], 0.625f);
  EXPECT_FLOAT_EQ(s.state.chorus.phase[1][3], 0.375f);
  EXPECT_FLOAT_EQ(s.state.chorus.feedback, 0.125f);
  EXPECT_FLOAT_EQ(s.state.chorus.scale, 0.5f);
  // Octave doubling halves each next voice's step; the phases stand on a
  // change of settings.
  s.Set(Config(kFxTypeChorus, {4, 1, 0}, {0.3f, 0.004f, 0.5f}));
  EXPECT_FLOAT_EQ(s.state.chorus.phase[0][1], 0.25f);
  EXPECT_FLOAT_EQ(s.state.chorus.step[2], 0.3f * 64.0f / 48000.0f / 4.0f);
  // Flanger: the base just above the depth.
  s.Set(Config(kFxTypeChorus, {2, 0, 1}, {0.3f, 0.001f, 1.0f}));
  EXPECT_FLOAT_EQ(s.state.chorus.base, 52.0f);
  EXPECT_EQ(s.state.chorus.line[0].mask, 127u);  // above 100 + 2
}

// A cosine whose period is one block, so the first frame of every block is
// its peak: the compressor's control level is the tone's level.
std::vector<float> Tone(float db, int blocks) {
  std::vector<float> v(static_cast<std::size_t>(blocks) * kBlock);
  const float a = std::pow(10.0f, db / 20.0f);
  for (std::size_t n = 0; n < v.size() / 2; ++n) v[2 * n] = v[2 * n + 1] = a * std::cos(6.2831853f * (n % 64) / 64.0f);
  return v;
}

TEST(ChannelFxCompressor, StaticCurveAndBypass) {
  // Threshold -24, ratio 4: slope -0.75, make-up 4.5 dB.
  for (const auto& [level, gainDb] : {std::pair{-30.0f, 4.5f}, {-18.0f, 0.0f}, {-6.0f, -9.0f}}) {
    Slot s;
    s.Set(Config(kFxTypeCompressor, {}, {-24.0f, 4.0f, 0.001f, 0.05f, 0.0f}));
    const std::vector<float> in = Tone(level, 2000);
    const std::vector<float> out = s.Run(in, true);
    const std::size_t n = in.size() - kBlock;  // a peak
    EXPECT_NEAR(20.0 * std::log10(out[n] / in[n]), gainDb, 0.05) << level;
  }
  for (const ChannelFxConfig& c : {Config(kFxTypeCompressor, {}, {-24.0f, 1.0f, 0.001f, 0.05f, 0.0f}),
                                   Config(kFxTypeCompressor, {}, {0.0f, 4.0f, 0.001f, 0.05f, 0.0f})}) {
    Slot s;
    s.Set(c);
    const std::vector<float> in = Tone(-6, 20);
    EXPECT_EQ(s.Run(in, true), in);
  }
}

TEST(ChannelFxOverdrive, TransferCurves) {
  std::vector<float> in(kBlock);
  for (int i = 0; i < kBlock; ++i) in[i] = -1.0f + 2.0f * i / (kBlock - 1);
  Slot hard;
  hard.Set(Config(kFxTypeOverdrive, {0}, {30.0f}));
  // h = -30 dB; q = 15 + 3 dB.
  const double h = std::pow(10.0, -1.5), q = std::pow(10.0, 18.0 / 20.0);
  std::vector<float> out = hard.Run(in, true);
  for (int i = 0; i < kBlock; ++i) EXPECT_NEAR(out[i], std::clamp<double>(in[i], -h, h) * q, 1e-5) << in[i];
  Slot soft;
  soft.Set(Config(kFxTypeOverdrive, {1}, {12.0f}));
  out = soft.Run(in, true);
  const double drive = std::pow(10.0, 12.0 / 20.0), gain = std::pow(10.0, -12.0 / 40.0);
  for (int i = 0; i < kBlock; ++i)
    EXPECT_NEAR(out[i], in[i] + (std::atan(in[i] * drive) * 2.0 / 3.14159265358979 - in[i]) * gain, 1e-5) << in[i];
  // Nothing to change: no output.
  alignas(16) float dry[kBlock] = {}, send[kBlock] = {0.5f};
  EXPECT_FALSE(process(soft.state, dry, send, true, false));
  EXPECT_FALSE(process(soft.state, dry, send, false, true));
  EXPECT_EQ(dry[0], 0.0f);
}

TEST(ChannelFxPhaser, StagesAtAFixedCoefficient) {
  // Depth 0: every stage is a one-frame delay; 22 stages at 44100.
  Slot s;
  s.Set(Config(kFxTypePhaser, {0, 0}, {0.5f, 0.0f, 0.0005f, 0.5f}));
  EXPECT_EQ(s.state.phaser.stages, 22u);
  const float c = std::pow(1.5f, -0.2f);
  std::vector<float> out = s.Run(Impulse(256, 1.0f, -1.0f));
  for (int n = 0; n < 256; ++n) {
    // Each pass round the loop: 23 frames (22 stages and the feedback's one) and half the level.
    const float want = n >= 22 && (n - 22) % 23 == 0 ? c * std::pow(0.5f, static_cast<float>((n - 22) / 23)) : 0.0f;
    ASSERT_NEAR(out[2 * n], want, 1e-6f) << n;
    ASSERT_NEAR(out[2 * n + 1], -want, 1e-6f) << n;
  }
  // A square held for the first half turn: t = 1.5, a = -0.2 on both sides
  // without stereo mode. The chain passes all energy, the first value a^N.
  Slot a;
  a.Set(Config(kFxTypePhaser, {0, 2}, {0.01f, 0.5f, 0.0002f, 0.01f}));
  EXPECT_EQ(a.state.phaser.stages, 9u);
  out = a.Run(Impulse(4096, 1.0f));
  const float comp = std::pow(1.01f, -0.2f);
  EXPECT_NEAR(out[0], std::pow(-0.2f, 9.0f) * comp, 1e-9f);
  double energy = 0;
  for (int n = 0; n < 4096; ++n) energy += out[2 * n] * out[2 * n];
  EXPECT_NEAR(energy / (comp * comp), 1.0 / (1.0 - 0.01 * 0.01), 1e-3);
  // Stage counts are limited to 1..48.
  a.Set(Config(kFxTypePhaser, {0, 2}, {0.01f, 0.5f, 0.0f, 0.01f}));
  EXPECT_EQ(a.state.phaser.stages, 1u);
  Slot fast(96000.0f);
  fast.Set(Config(kFxTypePhaser, {1, 0}, {0.5f, 0.5f, 0.001f, 0.5f}));
  EXPECT_EQ(fast.state.phaser.stages, 48u);
  EXPECT_EQ(fast.state.phaser.offset, 0.25f);
}

TEST(ChannelFxShaper, AttackRaisesOrLowersADrumHit) {
  std::vector<float> drum(2 * 8192, 0.0f);
  std::mt19937 rng(5);
  std::normal_distribution<float> noise(0.0f, 0.3f);
  for (int n = 2048; n < 8192; ++n) drum[2 * n] = drum[2 * n + 1] = noise(rng) * std::exp(-(n - 2048) / 2000.0f);
  auto attackGain = [&](float attack) {
    Slot s;
    s.Set(Config(kFxTypeShaper, {}, {attack, 0.0f, 0.0f}));
    const std::vector<float> out = s.Run(drum, true);
    double in = 0, got = 0;
    for (int n = 2048; n < 2048 + 441; ++n) {
      in += drum[2 * n] * drum[2 * n];
      got += out[2 * n] * out[2 * n];
    }
    return std::sqrt(got / in);
  };
  EXPECT_GT(attackGain(0.5f), 1.0);
  EXPECT_LT(attackGain(-0.5f), 1.0);
  Slot off;
  off.Set(Config(kFxTypeShaper, {}, {0.0f, 0.0f, 1000.0f}));
  EXPECT_EQ(off.Run(drum, true), drum);
}

// ---- peers

void WriteWav16(const fs::path& path, const std::vector<float>& frames, int channels, uint32_t rate) {
  std::string b = "RIFF____WAVEfmt ";
  auto u16 = [&](uint32_t v) { b += static_cast<char>(v & 0xFF), b += static_cast<char>((v >> 8) & 0xFF); };
  auto u32 = [&](uint32_t v) { u16(v & 0xFFFF), u16(v >> 16); };
  u32(16), u16(1), u16(static_cast<uint32_t>(channels)), u32(rate), u32(rate * 2 * channels), u16(2 * channels), u16(16);
  b += "data";
  u32(static_cast<uint32_t>(frames.size() * 2));
  for (float x : frames) u16(static_cast<uint16_t>(static_cast<int16_t>(std::lround(std::clamp(x, -1.0f, 1.0f) * 32767.0f))));
  const uint32_t riff = static_cast<uint32_t>(b.size() - 8);
  for (int i = 0; i < 4; ++i) b[4 + i] = static_cast<char>((riff >> (8 * i)) & 0xFF);
  test::WriteFile(path, b);
}

// Energy decay curve (backward integration) of one channel in dB, one value
// every 10 ms, relative to the whole energy.
std::vector<double> DecayCurve(const std::vector<double>& frames, int channel, int channels) {
  const std::size_t n = frames.size() / static_cast<std::size_t>(channels);
  std::vector<double> tail(n + 1, 0.0);
  for (std::size_t i = n; i-- > 0;) {
    const double x = frames[i * static_cast<std::size_t>(channels) + static_cast<std::size_t>(channel)];
    tail[i] = tail[i + 1] + x * x;
  }
  std::vector<double> db;
  for (std::size_t i = 0; i < n; i += 441) db.push_back(10.0 * std::log10(tail[i] / tail[0] + 1e-30));
  return db;
}

// RT60 from the curve's fall between -5 and -35 dB, by least squares.
double Rt60(const std::vector<double>& db) {
  double sx = 0, sy = 0, sxx = 0, sxy = 0;
  int k = 0;
  for (std::size_t i = 0; i < db.size(); ++i)
    if (db[i] <= -5.0 && db[i] >= -35.0) {
      const double x = static_cast<double>(i) * 0.01;
      sx += x, sy += db[i], sxx += x * x, sxy += x * db[i], ++k;
    }
  const double slope = (k * sxy - sx * sy) / (k * sxx - sx * sx);
  return -60.0 / slope;
}

// Our comb and allpass lines sit 11.5 frames either side of the base, where
// Freeverb's are at +0 and +23: both of our sides ring a little shorter, and
// at room 0.5, damping 0.7 the left curve runs up to 1.6 dB ahead between
// -45 and -50 dB. (Set to Freeverb's lengths, the two curves agree within
// 0.1 dB down to -95 dB.)
TEST(ChannelFxPeers, ReverbDecaysAsCmtFreeverb) {
  // sox runs the plugin with float output: a 16-bit file would lift the tail.
  if (!test::NeedTool("sox") || !test::Need(fs::exists("/usr/lib/ladspa/cmt.so"), "cmt (LADSPA)")) return;
  test::TempDir dir;
  const int frames = 5 * 44100;
  std::vector<float> impulse(2 * frames, 0.0f);
  impulse[0] = 1.0f;
  WriteWav16(dir / "impulse.wav", impulse, 2, 44100);
  for (const float room : {0.5f, 0.9f})
    for (const float damping : {0.2f, 0.7f}) {
      SCOPED_TRACE(testing::Message() << "room " << room << " damping " << damping);
      char controls[128];
      std::snprintf(controls, sizeof controls, " 0 %g %g 1 0 1", room, damping);
      std::string log;
      ASSERT_EQ(test::RunCommand("LADSPA_PATH=/usr/lib/ladspa sox '" + (dir / "impulse.wav").string() + "' -b 32 -e float '" +
                                     (dir / "cmt.wav").string() + "' ladspa cmt freeverb3" + controls + " 2>&1",
                                 &log),
                0)
          << log;
      const std::vector<double> theirs = test::ReadWavSamples(dir / "cmt.wav");
      ASSERT_EQ(theirs.size(), impulse.size()) << "sox's output";

      Slot s;
      s.Set(Config(kFxTypeReverb, {0}, {room, damping, 0.1f, 0.2f, 0.1f}));
      const std::vector<float> out = s.Run(impulse);
      const std::vector<double> ours(out.begin(), out.end());
      for (int ch = 0; ch < 2; ++ch) {
        const std::vector<double> a = DecayCurve(ours, ch, 2), b = DecayCurve(theirs, ch, 2);
        int compared = 0;
        for (std::size_t i = 0; i < std::min(a.size(), b.size()) && b[i] > -50.0; ++i, ++compared)
          ASSERT_NEAR(a[i], b[i], b[i] > -45.0 ? 1.0 : 2.0) << "channel " << ch << " at " << i * 10 << " ms";
        EXPECT_GT(compared, 50);
        EXPECT_NEAR(Rt60(a) / Rt60(b), 1.0, 0.05) << "channel " << ch << ": " << Rt60(a) << " s against " << Rt60(b);
      }
    }
}

TEST(ChannelFxPeers, TremoloFollowsSoxTremolo) {
  if (!test::NeedTool("sox")) return;
  test::TempDir dir;
  // A 441 Hz tone: 100 frames a period, so the envelope is the RMS of each period.
  const int frames = 2 * 44100;
  std::vector<float> tone(frames);
  for (int n = 0; n < frames; ++n) tone[n] = 0.5f * std::sin(6.2831853f * (n % 100) / 100.0f);
  WriteWav16(dir / "tone.wav", tone, 1, 44100);
  std::string log;
  ASSERT_EQ(test::RunCommand("sox '" + (dir / "tone.wav").string() + "' -b 32 -e float '" + (dir / "sox.wav").string() +
                                 "' tremolo 5 100 2>&1",
                             &log),
            0)
      << log;
  const std::vector<double> theirs = test::ReadWavSamples(dir / "sox.wav");
  ASSERT_EQ(theirs.size(), tone.size());
  std::vector<float> stereo(2 * frames);
  for (int n = 0; n < frames; ++n) stereo[2 * n] = stereo[2 * n + 1] = std::round(tone[n] * 32767.0f) / 32767.0f;
  Slot s;
  s.Set(Config(kFxTypeTremolo, {0}, {5.0f}));
  const std::vector<float> out = s.Run(stereo, true);
  auto envelope = [&](auto at) {
    std::vector<double> e;
    for (int p = 0; p + 100 <= frames; p += 100) {
      double sum = 0;
      for (int n = p; n < p + 100; ++n) sum += at(n) * at(n);
      e.push_back(std::sqrt(sum / 100));
    }
    return e;
  };
  const std::vector<double> a = envelope([&](int n) { return static_cast<double>(out[2 * n]); });
  const std::vector<double> b = envelope([&](int n) { return theirs[static_cast<std::size_t>(n)]; });
  auto correlation = [&](int lag) {
    const std::size_t n = a.size() - 100;
    double ma = 0, mb = 0;
    for (std::size_t i = 0; i < n; ++i) ma += a[i], mb += b[i + static_cast<std::size_t>(lag)];
    ma /= n, mb /= n;
    double sab = 0, saa = 0, sbb = 0;
    for (std::size_t i = 0; i < n; ++i) {
      const double x = a[i] - ma, y = b[i + static_cast<std::size_t>(lag)] - mb;
      sab += x * y, saa += x * x, sbb += y * y;
    }
    return sab / std::sqrt(saa * sbb);
  };
  double best = -1;
  for (int lag = 0; lag < 89; ++lag) best = std::max(best, correlation(lag));  // one period of 5 Hz
  EXPECT_GE(best, 0.99);
}

// ---- in the engine

const Instrument* FindForKey(const Collection& c, uint32_t key) {
  for (uint32_t k : {key, key & ~kKeyLsbMask, key & ~(kKeyLsbMask | kKeyMsbMask),
                     (key & kKeyDrum) ? (key & kKeyDrum) : key & kKeyProgramMask})
    for (const Instrument* inst : c.All<Instrument>())
      if ((inst->location & kLocationMask) == k) return inst;
  return nullptr;
}

struct SongRun {
  std::vector<float> out;
  bool finite = true;
  bool denormal = false;
  uint64_t fxFrames = 0;
};

// The first `seconds` of a song, then every note off and a minute of decay.
SongRun RenderSong(const Collection& bank, const FlatSong& song, bool effects, bool noSends, double seconds,
                   int decaySeconds) {
  SynthEngine engine(16 * song.channelGroups, 64, -1.0f, 44100, 1);
  engine.effects.store(effects ? 1 : 0);
  for (uint32_t key : NeededInstruments(song)) {
    const Instrument* inst = FindForKey(bank, key);
    if (!inst) continue;
    auto compiled = std::make_unique<SynthInstrument>();
    if (!CompileInstrument(*inst, engine.Cache(), *compiled)) continue;
    compiled->key = key;
    if (noSends)
      for (SynthZone& z : compiled->zones) {
        std::fill(std::begin(z.sendLevel), std::end(z.sendLevel), 0.0f);
        std::fill(std::begin(z.sendDepth), std::end(z.sendDepth), 0.0f);
      }
    engine.AddInstrument(std::move(compiled), false);
  }
  engine.ResizeRing(8192);
  SongRun run;
  alignas(16) float block[kBlock];
  std::size_t next = 0;
  const int blocks = static_cast<int>(seconds * 44100 / kSynthBlock);
  for (int b = 0; b < blocks + decaySeconds * 44100 / kSynthBlock; ++b) {
    const double t = b * static_cast<double>(kSynthBlock) / 44100;
    if (b < blocks)
      while (next < song.events.size() && song.events[next].seconds <= t) {
        if (song.events[next].word) engine.QueueAtBlock(song.events[next].word, 0);
        ++next;
      }
    if (b == blocks)
      for (int c = 0; c < engine.ChannelCount(); ++c) engine.Dispatch(MakeMidiWord(0xB0, c % 16, 123, 0, c / 16));
    engine.RenderBlock(block);
    for (float x : block) run.finite = run.finite && std::isfinite(x);
    if (b < blocks) run.out.insert(run.out.end(), block, block + kBlock);
  }
  for (int c = 0; c < engine.ChannelCount(); ++c)
    for (int slot = 0; slot < 4; ++slot) {
      run.denormal = run.denormal || ChannelFxHoldsDenormal(engine.FxSlot(c, slot));
      run.fxFrames += engine.FxSlot(c, slot).framesRun;
    }
  return run;
}

TEST(ChannelFxSongs, CorpusSongsStayFiniteAndSendsAtZeroChangeNothing) {
  const fs::path bankPath = "/usr/share/sounds/sf2/FluidR3_GM.sf2";
  if (!test::NeedCorpus() || !test::Need(fs::exists(bankPath), "fluid-soundfont-gm")) return;
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  ResetVoiceKinds();
  Collection bank;
  ASSERT_TRUE(ImportFile(bank, bankPath, false));
  int songs = 0;
  uint64_t fxFrames = 0;
  for (const test::ManifestEntry& row : test::Manifest()) {
    if (row.path.rfind("midi/", 0) != 0) continue;
    SCOPED_TRACE(row.path);
    Collection c;
    ASSERT_TRUE(ImportFile(c, test::CorpusDir() / row.path, false));
    const auto list = c.All<Song>();
    if (list.empty()) continue;
    FlatSong flat;
    ASSERT_TRUE(FlattenSong(*list.front(), flat));
    TrimLeadIn(flat);
    const SongRun wet = RenderSong(bank, flat, true, false, 10.0, 60);
    EXPECT_TRUE(wet.finite);
    EXPECT_FALSE(wet.denormal);
    fxFrames += wet.fxFrames;
    const SongRun on = RenderSong(bank, flat, true, true, 5.0, 0);
    const SongRun off = RenderSong(bank, flat, false, true, 5.0, 0);
    ASSERT_EQ(on.out.size(), off.out.size());
    float apart = 0;
    for (std::size_t i = 0; i < on.out.size(); ++i) apart = std::max(apart, std::fabs(on.out[i] - off.out[i]));
    EXPECT_LE(apart, 1e-6f);
    ++songs;
  }
  EXPECT_GE(songs, 5);
  EXPECT_GT(fxFrames, 0u);  // the effects did run
}

TEST(ChannelFxEngine, ProgramChangesTakeLinesFromThePool) {
  // A channel moving between a reverb instrument and a delay instrument gives
  // its lines back each time; a seek with shut voices leaves every slot flushed.
  SynthEngine engine(2, 8, 1.0f, 44100, 1);
  for (uint32_t program : {0u, 1u}) {
    auto inst = std::make_unique<SynthInstrument>();
    inst->key = program;
    inst->fx[0] = program ? Config(kFxTypeDelay, {0}, {0.5f, 0.5f, 0.5f, 0.5f, 0.0f})
                          : Config(kFxTypeReverb, {0}, {0.5f, 0.5f, 0.1f, 0.2f, 0.1f});
    engine.AddInstrument(std::move(inst), false);
  }
  alignas(16) float out[kBlock];
  engine.Dispatch(MakeMidiWord(0xC0, 0, 0));
  EXPECT_EQ(engine.FxSlot(0, 0).type, kFxTypeReverb);
  EXPECT_EQ(engine.FxPool().InUse(), 2u * (8 * 2048 + 1024 + 512 + 512 + 256));
  engine.Dispatch(MakeMidiWord(0xC0, 0, 1));
  EXPECT_EQ(engine.FxSlot(0, 0).type, kFxTypeDelay);
  EXPECT_EQ(engine.FxPool().InUse(), 32768u);
  engine.Dispatch(MakeMidiWord(0xC0, 1, 0));
  engine.SetSampleRate(96000);
  // The right allpass of 236.5 frames grows past 512 at this rate.
  EXPECT_EQ(engine.FxPool().InUse(), 65536u + (8 * 4096 + 2048 + 1024 + 1024 + 512) + (8 * 4096 + 2048 + 1024 + 1024 + 1024));
  engine.Seek(0, true);
  engine.RenderBlock(out);
  EXPECT_EQ(engine.FxSlot(0, 0).flushed, 1);
  EXPECT_EQ(engine.FxSlot(1, 0).flushed, 1);
}

}  // namespace
}  // namespace kv
