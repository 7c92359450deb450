// The sample voice on ramp waves whose value is their frame number, so the
// output tells where playback is: loops of each type, the release stage,
// the break at key release, the loop's pitch shift, a live swap, delays, and
// the first block's level.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "synth/engine.h"
#include "synth/wave_voice.h"

namespace kv {
namespace {

// Frames 0..n-1 holding their own index, padded as the cache pads: one frame
// before, three after.
struct RampWave {
  std::vector<float> buffer;
  explicit RampWave(int n) : buffer(static_cast<std::size_t>(n) + 4, 0.0f) {
    for (int i = 0; i < n; ++i) buffer[static_cast<std::size_t>(i) + 1] = static_cast<float>(i);
  }
  CachedWave Cached(float rate = 44100.0f) const {
    return {buffer.data() + 1, static_cast<uint32_t>(buffer.size() - 4), rate, false};
  }
};

SynthZone WaveZone(const RampWave& wave, int loopType = 0, float loopStart = 0, float loopEnd = 0) {
  SynthZone z;
  z.kind = VoiceKindId::Wave;
  z.wave = wave.Cached();
  z.loopType = static_cast<uint8_t>(loopType);
  z.loopStart = loopStart;
  z.loopEnd = loopEnd;
  // A V-ENV that holds: no envelope shape in the way of the positions.
  z.art.value[EnvRow(kEnvV, kEnvSustain)] = 1.0f;
  return z;
}

class WaveVoice : public ::testing::Test {
 protected:
  void SetUp() override { ResetVoiceKinds(); }
  void Start(const SynthZone& zone, int key = 60, int velocity = 127) {
    record_ = std::make_unique<VoiceRecord>();
    SynthVoice& h = record_->head;
    h = SynthVoice{};
    h.key = static_cast<float>(key);
    h.velocity = static_cast<float>(velocity) / 127.0f;
    h.bendRange = kBendRangeUnset;
    h.delay = zone.delay;
    h.amplitude = 1.0f;
    kind_ = GetVoiceKind(VoiceKindId::Wave);
    kind_.init(*record_, zone, rate_, false);
  }
  // Left channel of n blocks; `alive` tells whether the voice lived through them.
  std::vector<float> Play(int blocks, bool* alive = nullptr) {
    std::vector<float> out;
    bool living = true;
    for (int b = 0; b < blocks && living; ++b) {
      alignas(16) float block[2 * kSynthBlock];
      living = kind_.render(*record_, block, rate_);
      for (int i = 0; i < kSynthBlock; ++i) out.push_back(block[2 * i]);
    }
    if (alive) *alive = living;
    return out;
  }
  static std::vector<float> Seq(std::initializer_list<std::pair<int, int>> runs) {
    std::vector<float> v;
    for (auto [from, to] : runs)
      for (int i = from; from <= to ? i <= to : i >= to; i += from <= to ? 1 : -1) v.push_back(static_cast<float>(i));
    return v;
  }
  static std::vector<float> Head(const std::vector<float>& v, std::size_t n) {
    return std::vector<float>(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(std::min(n, v.size())));
  }
  float rate_ = 44100.0f;
  std::unique_ptr<VoiceRecord> record_;
  VoiceKind kind_;
};

TEST_F(WaveVoice, LoopTypesPlayTheirCourse) {
  RampWave wave(40);
  Start(WaveZone(wave, 1, 10, 20));
  EXPECT_EQ(Head(Play(1), 40), Seq({{0, 19}, {10, 19}, {10, 19}}));
  // Backward: forward once to the loop end, then backwards round the loop.
  Start(WaveZone(wave, 2, 10, 20));
  EXPECT_EQ(Head(Play(1), 42), Seq({{0, 19}, {20, 10}, {19, 10}, {19, 19}}));
  // Alternating turns at both ends.
  Start(WaveZone(wave, 3, 10, 20));
  EXPECT_EQ(Head(Play(1), 41), Seq({{0, 19}, {20, 10}, {11, 20}}));
  // A loop whose start is its end is dropped: the sample plays through, and
  // the voice ends with it.
  bool alive = true;
  Start(WaveZone(wave, 1, 15, 15));
  const auto through = Play(2, &alive);
  EXPECT_FALSE(alive);
  EXPECT_EQ(Head(through, 40), Seq({{0, 39}}));
  EXPECT_EQ(through[40], 0.0f);
}

TEST_F(WaveVoice, TheReleaseStageAndTheBreak) {
  RampWave wave(60);
  // Loop release: at key release the loop plays to its end once more, then
  // the rest of the data to the end.
  SynthZone z = WaveZone(wave, 1, 10, 20);
  z.loopRelease = 1;
  Start(z);
  auto before = Play(1);  // 64 frames: 0..19, then round the loop
  EXPECT_EQ(before[63], 13.0f);  // 20 + 44 frames into a loop of 10
  record_->head.keyReleased = true;
  bool alive = true;
  const auto after = Play(2, &alive);
  EXPECT_EQ(Head(after, 47), Seq({{14, 19}, {20, 59}, {0, 0}}));
  EXPECT_FALSE(alive);

  // Alternating with a break, released while moving backwards: back to the
  // loop start, forward to the loop end, then out to the end.
  z.loopType = 3;
  Start(z);
  // 0..19, 20..10, 11..20, 19..10, 11..20, 19..17: moving backwards at the
  // block's end.
  Play(1);
  record_->head.keyReleased = true;
  const auto out = Play(2);
  EXPECT_EQ(Head(out, 57), Seq({{16, 10}, {11, 19}, {20, 59}, {0, 0}}));
}

TEST_F(WaveVoice, LoopPitchShiftsAfterTheFirstJumpOnly) {
  RampWave wave(80);
  SynthZone z = WaveZone(wave, 1, 10, 30);
  z.loopPitch = 12.0f;  // an octave while looping
  z.loopRelease = 1;
  Start(z);
  const auto out = Play(1);
  // 0..29 at one frame a frame, then the loop at two.
  EXPECT_EQ(Head(out, 30), Seq({{0, 29}}));
  EXPECT_EQ(out[30], 10.0f);
  EXPECT_EQ(out[31], 12.0f);
  EXPECT_EQ(out[39], 28.0f);
  EXPECT_EQ(out[40], 10.0f);
  // Released: the release stage plays at the note's own pitch again.
  record_->head.keyReleased = true;
  const auto rest = Play(2);
  std::size_t at = 0;
  while (at < rest.size() && rest[at] < 30.0f) ++at;
  ASSERT_LT(at + 3, rest.size());
  EXPECT_EQ(rest[at + 1] - rest[at], 1.0f);
  EXPECT_EQ(rest[at + 2] - rest[at + 1], 1.0f);
}

TEST_F(WaveVoice, PitchRateAndInterpolation) {
  // Twelve semitones up on a wave at half the engine's rate: one frame a frame.
  RampWave wave(200);
  SynthZone z = WaveZone(wave);
  z.wave.sampleRate = 22050.0f;
  z.art.value[kRowMasterTune] = 12.0f;
  Start(z);
  EXPECT_EQ(Head(Play(1), 64), Seq({{0, 63}}));
  // Catmull-Rom reproduces a quadratic between its frames: a quarter-rate
  // playback of k^2 gives (k/4)^2.
  std::vector<float> square(404, 0.0f);
  for (int k = 0; k < 400; ++k) square[static_cast<std::size_t>(k) + 1] = static_cast<float>(k * k);
  SynthZone q = WaveZone(wave);
  q.wave = {square.data() + 1, 400, 44100.0f / 4.0f, false};
  Start(q);
  const auto out = Play(2);
  for (int i = 4; i < 128; ++i) EXPECT_NEAR(out[static_cast<std::size_t>(i)], (i / 4.0f) * (i / 4.0f), 1e-3f) << i;
}

TEST_F(WaveVoice, ALiveSwapKeepsThePosition) {
  RampWave wave(500);
  Start(WaveZone(wave));
  Play(2);  // 128 frames in
  SynthZone changed = WaveZone(wave);
  changed.startOffset = 100;  // still before the voice's place
  kind_.init(*record_, changed, rate_, true);
  EXPECT_EQ(Play(1)[0], 128.0f);
  SynthZone past = WaveZone(wave);
  past.startOffset = 300;  // beyond it: the voice starts over at the new start
  kind_.init(*record_, past, rate_, true);
  EXPECT_EQ(Play(1)[0], 300.0f);
}

TEST_F(WaveVoice, DelayLevelsAndDeath) {
  RampWave wave(100000);
  SynthZone z = WaveZone(wave, 1, 0, 1000);
  z.delay = 0.1f;
  Start(z);
  int silent = 0;
  for (int b = 0; b < 100; ++b) {
    alignas(16) float block[2 * kSynthBlock];
    ASSERT_TRUE(kind_.render(*record_, block, rate_));
    if (record_->head.amplitude == 0.0f) ++silent;
  }
  EXPECT_EQ(silent, 69);  // 0.1 s / (64 / 44100 s)

  // The first block starts at the note's level; velocity 1 with the full
  // velocity depth is far below it, and a negative depth turns that round.
  z.delay = 0;
  Start(z, 60, 127);
  EXPECT_FLOAT_EQ(record_->head.amplitude, 1.0f);
  Start(z, 60, 1);
  EXPECT_NEAR(std::log(record_->head.amplitude) / 0.115129255f, std::log10(1.0f / 127) * 0.41666666f * 96, 1e-3);
  z.art.value[kRowVelToVolume] = -96.0f;
  Start(z, 60, 127);
  EXPECT_EQ(record_->head.amplitude, 0.0f);  // x = 0: t = -1, -96 dB

  // A V-ENV with every level at zero has no sustain: it dies when its
  // stages are done, loop or not.
  SynthZone quiet = WaveZone(wave, 1, 0, 1000);
  for (int level : {kEnvInitial, kEnvA1Level, kEnvA2Level, kEnvD1Level, kEnvSustain, kEnvR1Level, kEnvR2Level,
                    kEnvR3Level})
    quiet.art.value[EnvRow(kEnvV, level)] = 0.0f;
  Start(quiet);
  bool alive = true;
  Play(100, &alive);
  EXPECT_FALSE(alive);
  // Release mode 1 ignores the key release: the loop sounds on.
  SynthZone held = WaveZone(wave, 1, 0, 1000);
  held.art.value[EnvRow(kEnvV, kEnvReleaseMode)] = 1.0f;
  Start(held);
  record_->head.keyReleased = true;
  Play(200, &alive);
  EXPECT_TRUE(alive);
  EXPECT_FLOAT_EQ(record_->head.amplitude, 1.0f);
}

}  // namespace
}  // namespace kv
