// Envelope layouts, stepping and domains; LFO waves, skew, delay and ramp;
// the per-thread random numbers behind sample-and-hold.
#include "synth/voice_mod.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <thread>
#include <vector>

namespace kv {
namespace {

constexpr float kCr = 689.0625f;  // 44100 / 64

using Rows = std::array<float, 27>;
Rows Neutral() {
  Rows r{};
  for (int i : {2, 3, 6, 7, 10, 11, 14, 15, 23, 24}) r[i] = 1.0f;
  return r;
}
// 10 ms attack to full, 100 ms decay to 0.75 held, release rate 0.5 s.
Rows Adsr() {
  Rows r = Neutral();
  r[1] = 0.01f, r[4] = 1.0f, r[8] = 1.0f, r[9] = 0.1f, r[12] = 0.75f, r[16] = 0.75f, r[17] = 0.5f, r[26] = 0.25f;
  return r;
}
double DbForm(double gain) { return 20.0 * std::log10(gain) / 96.0 + 1.0; }
void ExpectSlots(const EnvelopeState& e, std::array<float, 8> target, std::array<float, 8> time) {
  for (int s = 0; s < 8; ++s) {
    EXPECT_FLOAT_EQ(e.target[s], target[s]) << s;
    EXPECT_FLOAT_EQ(e.time[s], time[s]) << s;
  }
}

TEST(VoiceModEnvelope, LayoutsStepsAndRelease) {
  EnvelopeState e;
  BuildEnvelope(e, Adsr().data(), true, false, 0, 0, kCr);
  ExpectSlots(e, {1, 0.75f, 0.75f, 0, 0, 0, 0, 0}, {6.890625f, 68.90625f, 2147483648.0f, 344.53125f, 0, 0, 0, 0});
  EXPECT_EQ(e.gainStages, 0x01);
  EXPECT_EQ(e.rateFlags, 0x08);
  EXPECT_EQ(e.releaseStage, 3);
  EXPECT_FLOAT_EQ(e.shutdownTime, 172.265625f);
  EXPECT_EQ(e.stepsLeft, 7u);
  EXPECT_EQ(e.value, 0.0f);
  EXPECT_NEAR(StepEnvelope(e), DbForm(1.0 / 7), 1e-6);  // the attack rises in gain
  for (int i = 0; i < 6; ++i) StepEnvelope(e);
  // The attack ends at gain 1 exactly, which is 1 in the dB form.
  EXPECT_EQ(StepEnvelope(e), 1.0f + -0.25f / 69.0f);
  EXPECT_EQ(e.gainDomain, 0);
  EXPECT_EQ(e.stepsLeft, 68u);
  for (int i = 0; i < 68; ++i) StepEnvelope(e);
  EXPECT_EQ(StepEnvelope(e), 0.75f);
  EXPECT_EQ(e.stage, 2);
  EXPECT_EQ(e.stepsLeft, 2147483647u);
  ReleaseEnvelope(e);
  EXPECT_EQ(e.stepsLeft, 258u);  // 344.53125 * 0.75 = 258.4
  EXPECT_EQ(e.step, -0.75f / 258.0f);
  for (int i = 0; i < 258; ++i) StepEnvelope(e);
  EXPECT_EQ(StepEnvelope(e), 0.0f);
  EXPECT_EQ(e.stage, 8);

  // Released mid-attack: the gain turns into the dB form.
  BuildEnvelope(e, Adsr().data(), true, false, 0, 0, kCr);
  for (int i = 0; i < 3; ++i) StepEnvelope(e);
  ReleaseEnvelope(e);
  EXPECT_NEAR(e.value, DbForm(3.0 / 7), 1e-6);
  EXPECT_EQ(e.stepsLeft, static_cast<uint32_t>(344.53125 * DbForm(3.0 / 7) + 0.5));

  // Nothing at all: one idle release stage, no sustain, then past the end.
  BuildEnvelope(e, Neutral().data(), true, false, 0, 0, kCr);
  EXPECT_EQ(e.releaseStage, 0);
  EXPECT_FLOAT_EQ(e.time[0], 1.378125f);  // the 2 ms release minimum
  EXPECT_EQ(e.stepsLeft, 0u);
  EXPECT_EQ(StepEnvelope(e), 0.0f);
  EXPECT_EQ(e.stage, 8);

  // Ignoring note-off, or a release-trigger voice: no release stages.
  Rows hold = Adsr();
  hold[25] = 1;
  for (bool trigger : {false, true}) {
    BuildEnvelope(e, (trigger ? Adsr() : hold).data(), true, trigger, 0, 0, kCr);
    EXPECT_EQ(e.releaseStage, 8);
    EXPECT_EQ(e.rateFlags, 0);
    ExpectSlots(e, {1, 0.75f, 0.75f, 0.75f, 0.75f, 0.75f, 0.75f, 0.75f},
                {6.890625f, 68.90625f, 2147483648.0f, 0, 0, 0, 0, 0});
    ReleaseEnvelope(e);
    EXPECT_EQ(e.stage, 0);
  }
}

TEST(VoiceModEnvelope, TimeScalingAndMinima) {
  Rows r = Neutral();
  r[1] = 0.1f, r[2] = 2, r[3] = 4, r[4] = -0.5f;  // A1: 2^(1/2) * 4^(1/2)
  r[5] = 0.2f, r[8] = 0.25f;                      // A2 unscaled
  r[17] = 0.3f, r[18] = -1, r[23] = 4, r[24] = 16;  // releases: 2 * 4
  EnvelopeState e;
  BuildEnvelope(e, r.data(), false, false, 1, 0.5f, kCr);
  // D1 moves in no time; D2 neither moves nor takes time; no level above 0.
  ExpectSlots(e, {-0.5f, 0.25f, 0, -1, 0, 0, 0, 0},
              {0.1f * 1.41421356f * 2 * kCr, 0.2f * kCr, 0, 0.3f * 8 * kCr, 0, 0, 0, 0});
  EXPECT_EQ(e.time[1], 0.2f * kCr);
  EXPECT_EQ(e.gainStages, 0);
  EXPECT_EQ(e.releaseStage, 3);
  EXPECT_EQ(e.shutdownTime, 0.0f);

  // V-ENV from silence: the first stage that opens takes at least 1 ms.
  r = Neutral();
  r[8] = 1, r[12] = 0.5f, r[16] = 0.5f, r[20] = 0.25f, r[22] = 0.25f;
  BuildEnvelope(e, r.data(), true, false, 0, 0, kCr);
  ExpectSlots(e, {1, 0.5f, 0.5f, 0, 0.25f, 0.25f, 0.25f, 0.25f},
              {0.6890625f, 0, 2147483648.0f, 1.378125f, 1.378125f, 0, 0, 0});
  EXPECT_EQ(e.gainStages, 0x01);
  EXPECT_EQ(e.stepsLeft, 1u);
  r[0] = 0.75f, r[4] = 0.75f;  // not from silence: no minimum
  BuildEnvelope(e, r.data(), true, false, 0, 0, kCr);
  EXPECT_EQ(e.time[0], 0.0f);
  EXPECT_EQ(e.target[0], 1.0f);
  EXPECT_FLOAT_EQ(e.value, 0.0630957344f);  // -24 dB as a gain
}

TEST(VoiceModEnvelope, StageEntry) {
  EnvelopeState e{};
  e.gainStages = 0x01;
  e.target[0] = 1, e.time[0] = 2.5f;
  e.target[1] = 1e-40f, e.time[1] = 1;
  e.target[2] = 1, e.time[2] = 2.49f;
  EnterEnvelopeStage(e, 1);
  EXPECT_EQ(e.step, 0.0f);  // the denormal change is flushed
  EXPECT_EQ(e.stepsLeft, 1u);
  EnterEnvelopeStage(e, 2);
  EXPECT_EQ(e.stepsLeft, 2u);
  EXPECT_EQ(e.step, 0.5f);
  e.value = 0.75f;
  EnterEnvelopeStage(e, 0);
  EXPECT_EQ(e.gainDomain, 1);
  EXPECT_FLOAT_EQ(e.value, 0.0630957344f);
  EXPECT_EQ(e.stepsLeft, 3u);
  e.value = 1;
  EnterEnvelopeStage(e, 1);
  EXPECT_EQ(e.value, 1.0f);
  EXPECT_EQ(e.gainDomain, 0);
}

double TestWave(int wave, double p, double held) {
  switch (wave) {
    case 0: return std::sin(2 * M_PI * p);
    case 1: return p < 0.5 ? 4 * p - 1 : 3 - 4 * p;
    case 2: return p < 0.5 ? 1 : -1;
    case 3: return held;
    case 4: return 2 * p - 1;
    case 5: return 1 - 2 * p;
    case 6: return p < 0.5 ? 4 * p - 1 : 1 - 4 * (p - 0.5);  // skew 0.5
    default: return p < 0.5 ? 1 - 4 * p : 4 * (p - 0.5) - 1;
  }
}

TEST(VoiceModLfo, WavesModesSkewDelayRamp) {
  const double start[2][8] = {{0, 0.25, 0, 0, 0.5, 0.5, 0, 0}, {0.75, 0, 0, 0, 0, 0, 0, 0}};
  const double offset[3] = {0, 1, 1}, scale[3] = {1, 0.5, -0.5};
  LfoState l;
  for (int wave = 0; wave < 8; ++wave) {
    for (int mode = 0; mode < 3; ++mode) {
      SetupLfo(l, (mode << 6) | wave, 1, 0, 0, 4, true);  // a quarter turn a block
      const double held = l.skewOrHeld;
      for (int k = 0; k < 4; ++k) {
        const double p = std::fmod(start[mode != 0][wave] + 0.25 * k, 1.0);
        const double want = (TestWave(wave, p, held) + offset[mode]) * scale[mode];
        EXPECT_NEAR(LfoValue(l), want, 1e-6) << wave << " " << mode << " " << k;
        EXPECT_NEAR(StepLfo(l), want, 1e-6) << wave << " " << mode << " " << k;
      }
    }
  }
  SetupLfo(l, 0xC9, 1, 0, 0, 4, true);  // mode 3, wave 9: sine, bipolar
  EXPECT_EQ(l.wave + l.mode, 0);

  SetupLfo(l, 6, 1, 0, 0, 75, true);
  EXPECT_EQ(l.skewOrHeld, 0.5f);
  SetupLfo(l, 6, 0.01f, 0, 0, kCr, true);
  EXPECT_NEAR(l.skewOrHeld, 1 - 0.75 / 689.0625, 1e-6);
  SetupLfo(l, 6, 0.2f, 0, 0, 75, true);  // skew 0.8
  const float at[2] = {0.2f, 0.9f}, up[2] = {-0.5f, 0}, down[2] = {0.5f, 0};
  for (int i = 0; i < 2; ++i) {
    l.phase = at[i], l.wave = 6;
    EXPECT_NEAR(LfoValue(l), up[i], 1e-5);
    l.wave = 7;
    EXPECT_NEAR(LfoValue(l), down[i], 1e-5);
  }

  SetupLfo(l, 2, 1, 0.1f, 0, kCr, true);  // square: 1 at the start
  EXPECT_EQ(l.rampGain, 1.0f);
  for (int i = 0; i < 68; ++i) ASSERT_EQ(StepLfo(l), 0.0f) << i;
  EXPECT_EQ(l.phase, 0.0f);
  EXPECT_EQ(StepLfo(l), 1.0f);
  SetupLfo(l, 2, 2, 0, 0, kCr, false);
  EXPECT_EQ(l.phase, 1.0f / kCr);  // a re-set-up keeps the phase

  SetupLfo(l, 2, 0, 0, 0.0625f, 64, true);  // 4 blocks of ramp
  for (float want : {0.0f, 0.25f, 0.5f, 0.75f, 1.0f, 1.0f}) EXPECT_EQ(StepLfo(l), want);
}

TEST(VoiceModRandom, PerThreadSequenceAndHeldDraws) {
  // A fresh thread starts the generator afresh, whatever other threads draw.
  auto draws = [](int n) {
    std::vector<int> out;
    std::thread([&] {
      for (int i = 0; i < n; ++i) out.push_back(kvRandom15());
    }).join();
    return out;
  };
  const std::vector<int> seq = draws(200);
  for (int i = 0; i < 1000; ++i) kvRandom15();
  EXPECT_EQ(draws(200), seq);
  EXPECT_TRUE(std::all_of(seq.begin(), seq.end(), [](int r) { return r >= 0 && r <= 32767; }));
  EXPECT_NE(seq[0], seq[1]);

  // Sample-and-hold draws once at set-up and once per wrap, nowhere else.
  std::vector<float> got;
  int next = -1;
  std::thread([&] {
    LfoState l;
    SetupLfo(l, 3, 1, 0, 0, 4, true);
    for (int i = 0; i < 5; ++i) got.push_back(StepLfo(l));
    SetupLfo(l, 3, 2, 0, 0, 4, false);
    got.push_back(LfoValue(l));
    next = kvRandom15();
  }).join();
  const float h0 = seq[0] * 6.103702e-5f - 1, h1 = seq[1] * 6.103702e-5f - 1;
  EXPECT_EQ(got, (std::vector<float>{h0, h0, h0, h0, h1, h1}));
  EXPECT_EQ(next, seq[2]);
}

}  // namespace
}  // namespace kv
