// Exact numbers of the length and channel edits: where the loop goes after a
// cut or an insert, the 16-bit rounding of mono averages, split names, the
// stereo pairing and the mix, with their failure texts.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "processing/channels.h"
#include "processing/length.h"
#include "processing/wizard.h"

namespace kv {
namespace {

Waveform* Wave16(Collection& c, const char* name, std::vector<int16_t> s, int channels = 1) {
  auto* w = Create<Waveform>(c, name);
  w->channels = static_cast<uint8_t>(channels);
  w->length = static_cast<uint32_t>(s.size() / channels);
  w->sampleRate = 44100;
  w->bits = 16;
  w->samples16 = std::make_unique<int16_t[]>(s.size() + 1);
  std::copy(s.begin(), s.end(), w->samples16.get());
  return w;
}

Waveform* WaveF(Collection& c, const char* name, std::vector<float> s, int channels = 1) {
  auto* w = Create<Waveform>(c, name);
  w->channels = static_cast<uint8_t>(channels);
  w->length = static_cast<uint32_t>(s.size() / channels);
  w->sampleRate = 44100;
  w->bits = 32;
  w->samplesF = std::make_unique<float[]>(s.size() + 1);
  std::copy(s.begin(), s.end(), w->samplesF.get());
  return w;
}

// 0, 1, 2, ... n - 1.
std::vector<int16_t> Ramp(int n) {
  std::vector<int16_t> s(n);
  std::iota(s.begin(), s.end(), int16_t{0});
  return s;
}

std::vector<int16_t> Shorts(const Waveform& w) { return {w.samples16.get(), w.samples16.get() + w.SampleCount()}; }
std::vector<float> Floats(const Waveform& w) { return {w.samplesF.get(), w.samplesF.get() + w.SampleCount()}; }

const WizardOperation& Row(const char* key) {
  uint32_t n = 0;
  const WizardOperation* rows = OperationTable(0, &n);
  for (uint32_t i = 0; i < n; ++i)
    if (std::strcmp(rows[i].key, key) == 0) return rows[i];
  ADD_FAILURE() << key;
  return rows[0];
}

// The last error box a wizard run showed (it clears the error texts after).
std::string g_lastBox;
int RecordBox(const std::string& text, const std::string& title, BoxButtons) {
  g_lastBox = title + ": " + text;
  return 1;
}

struct Length : ::testing::Test {
  void SetUp() override {
    ResetOperationSettings();
    MessageBoxesEnabled = 1;
    SetBoxPresenter(RecordBox);
    App().refresh = false;
    ClearError();
  }
  void TearDown() override {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = 0;
  }
  void Set(const char* key, int control, double number, const std::string& text = {}) {
    SettingValue v;
    v.number = number;
    v.text = text;
    OperationSetting(Row(key).controls[control]) = v;
  }
  // Runs a row on `waves` as the window's Finish does; returns `modified`.
  uint32_t Run(const char* key, std::vector<Waveform*> waves, int32_t first = -1, int32_t end = -1) {
    ProcessingWizard w(c);
    for (Waveform* wave : waves) w.items.push_back(wave);
    w.useRange = first >= 0;
    w.rangeStart = first;
    w.rangeEnd = end;
    w.run(Row(key).name, true);
    failed = w.failed;
    return w.modified;
  }
  // The error of a direct call, else the box of the last wizard run.
  std::string Error() const {
    return ErrorContext[0] ? std::string(ErrorContext) + ": " + ErrorMessage : g_lastBox;
  }
  Collection c;
  uint32_t failed = 0;
};

struct LoopCase {
  float start, end;
  float wantStart, wantEnd;
  uint8_t wantType;
};

TEST_F(Length, CutMovesTheLoopAndKeepsTheRest) {
  // Frames [40, 60) of 100 go.
  const LoopCase cases[] = {
      {10, 30, 10, 30, 1},  // before
      {45, 55, 40, 41, 1},  // inside: start to a, end to a + 1
      {70, 90, 50, 70, 1},  // after
      {30, 80, 30, 60, 1},  // spanning
      {50, 90, 40, 70, 1},  // from inside to after
      {20, 60, 20, 41, 1},  // ending at b, which is not below it
      {40, 50, 40, 41, 1},  // starting at a, which is not above it
      {70, 70, 50, 50, 0},  // an end not above the start turns the loop off
  };
  for (const LoopCase& k : cases) {
    SCOPED_TRACE(testing::Message() << k.start << ".." << k.end);
    Collection local;
    Waveform* w = Wave16(local, "w", Ramp(100));
    w->loopType = 1;
    w->loopStart = k.start;
    w->loopEnd = k.end;
    ASSERT_EQ(cutFrames(*w, 40, 60), EditResult::Changed);
    EXPECT_EQ(w->length, 80u);
    EXPECT_EQ(w->loopStart, k.wantStart);
    EXPECT_EQ(w->loopEnd, k.wantEnd);
    EXPECT_EQ(w->loopType, k.wantType);
    std::vector<int16_t> want = Ramp(40);
    for (int16_t i = 60; i < 100; ++i) want.push_back(i);
    EXPECT_EQ(Shorts(*w), want);
  }

  // The whole wave is never cut; b is bounded by the length. An unlooped
  // wave's default end stays the default.
  Waveform* w = Wave16(c, "whole", Ramp(100));
  EXPECT_EQ(Run("cut", {w}, 0, 100), 0u);
  EXPECT_EQ(Run("cut", {w}, 0, 500), 0u);
  EXPECT_EQ(w->length, 100u);
  EXPECT_EQ(Run("cut", {w}, 90, 500), 1u);
  EXPECT_EQ(w->length, 90u);
  EXPECT_EQ(w->loopEnd, kLoopEndDefault);
  ASSERT_EQ(insertFrames(*w, 0, nullptr, 0, 5), EditResult::Changed);
  EXPECT_EQ(w->loopEnd, kLoopEndDefault);

  // A tail of fewer than 64536 frames only shortens the length; 64536 move the data.
  Waveform* big = Wave16(c, "big", std::vector<int16_t>(200000, 7));
  const int16_t* buffer = big->samples16.get();
  ASSERT_EQ(cutFrames(*big, 200000 - 64535, -1), EditResult::Changed);
  EXPECT_EQ(big->samples16.get(), buffer);
  EXPECT_EQ(big->length, 200000u - 64535u);
  ASSERT_EQ(cutFrames(*big, big->length - 64536, -1), EditResult::Changed);
  EXPECT_NE(big->samples16.get(), buffer);
  EXPECT_EQ(big->length, 200000u - 64535u - 64536u);
}

TEST_F(Length, TrimCutsTheTailThenTheHead) {
  Waveform* w = Wave16(c, "w", Ramp(100));
  w->loopType = 1;
  w->loopStart = 10;
  w->loopEnd = 90;
  EXPECT_EQ(Run("trim", {w}, 20, 70), 1u);
  std::vector<int16_t> want(50);
  std::iota(want.begin(), want.end(), int16_t{20});
  EXPECT_EQ(Shorts(*w), want);
  // Tail [70, 100): the end 90 goes to 71; head [0, 20): 10 goes to 0, 71 to 51.
  EXPECT_EQ(w->loopStart, 0.0f);
  EXPECT_EQ(w->loopEnd, 51.0f);
  EXPECT_EQ(w->loopType, 1);
  // A selection of the whole wave has nothing to cut.
  EXPECT_EQ(Run("trim", {w}, 0, 50), 0u);
}

TEST_F(Length, InsertMovesLoopPointsAtOrAfterThePosition) {
  const LoopCase cases[] = {
      {10, 30, 10, 30, 1},  // before
      {40, 60, 50, 70, 1},  // a start at the position moves
      {20, 40, 20, 40, 1},  // an end at the position stays
      {30, 50, 30, 60, 1},  // spanning
      {50, 80, 60, 90, 1},  // after
  };
  for (const LoopCase& k : cases) {
    SCOPED_TRACE(testing::Message() << k.start << ".." << k.end);
    Collection local;
    Waveform* w = Wave16(local, "w", Ramp(100));
    w->loopType = 1;
    w->loopStart = k.start;
    w->loopEnd = k.end;
    ASSERT_EQ(insertFrames(*w, 40, nullptr, 0, 10), EditResult::Changed);
    EXPECT_EQ(w->length, 110u);
    EXPECT_EQ(w->loopStart, k.wantStart);
    EXPECT_EQ(w->loopEnd, k.wantEnd);
    std::vector<int16_t> want = Ramp(40);
    want.resize(50, 0);
    for (int16_t i = 40; i < 100; ++i) want.push_back(i);
    EXPECT_EQ(Shorts(*w), want);
  }

  // Past the end: the gap is silence. A short source is followed by silence,
  // and float on one side makes the result float.
  Waveform* w = Wave16(c, "w", {100, -200});
  Waveform* f = WaveF(c, "f", {0.5f, -0.25f});
  ASSERT_EQ(insertFrames(*w, 4, f, 1, 3, "Insert another waveform"), EditResult::Changed);
  ASSERT_FALSE(w->samples16);
  EXPECT_EQ(Floats(*w), (std::vector<float>{100 / 32768.0f, -200 / 32768.0f, 0, 0, -0.25f, 0, 0}));

  // Through the page: the default 10000 frames at the wave's end; count 0
  // inserts the whole source; a stereo source is averaged for a mono wave.
  Waveform* m = Wave16(c, "m", {1, 2, 3});
  EXPECT_EQ(Run("insert-silence", {m}), 1u);
  EXPECT_EQ(m->length, 10003u);
  Waveform* st = Wave16(c, "st", {-3, 0, 10, 20}, 2);
  Set("insert-wave", 0, 0, "st");
  Set("insert-wave", 2, 3);  // the wave's start
  EXPECT_EQ(Run("insert-wave", {m}), 1u);
  EXPECT_EQ(m->length, 10005u);
  EXPECT_EQ(m->samples16[0], -1);
  EXPECT_EQ(m->samples16[1], 15);
  EXPECT_EQ(m->samples16[2], 1);
  EXPECT_EQ(c.Count(ItemType::Waveform), 4u);  // no converted copy left behind

  // Another rate is converted on a copy first (count 0: all of the copy),
  // which goes again; no source at all is refused.
  st->sampleRate = 22050;
  EXPECT_EQ(Run("insert-wave", {m}), 1u);
  EXPECT_EQ(m->length, 10009u);
  ASSERT_NE(m->samplesF, nullptr);  // the resampled copy is float
  EXPECT_EQ(st->sampleRate, 22050u);
  EXPECT_EQ(c.Count(ItemType::Waveform), 4u);
  Set("insert-wave", 0, 0, "<none>");
  EXPECT_EQ(Run("insert-wave", {m}), 0u);
  EXPECT_EQ(Error(), "Insert another waveform: No 2nd waveform selected");
}

TEST_F(Length, AppendJoinsThePicksWithTheFirstLoop) {
  Waveform* a = Wave16(c, "A", {1, 2, 3});
  a->loopType = 1;
  a->loopStart = 1;
  a->loopEnd = 3;
  Waveform* b = WaveF(c, "B", {0.5f, 0.25f});
  b->loopType = 2;
  b->loopStart = 0;
  b->loopEnd = 2;
  Set("append", 0, 0, "B");  // 1: B, 2: the selected wave (A), 3 and 4: none
  EXPECT_EQ(Run("append", {a}), 1u);
  EXPECT_EQ(Floats(*a), (std::vector<float>{0.5f, 0.25f, 1 / 32768.0f, 2 / 32768.0f, 3 / 32768.0f}));
  EXPECT_EQ(a->loopType, 2);
  EXPECT_EQ(a->loopEnd, 2.0f);

  for (int i = 0; i < 4; ++i) Set("append", i, 0, "<none>");
  EXPECT_EQ(Run("append", {a}), 0u);
  EXPECT_EQ(Error(), "Append/combine waveforms: You must select at least one waveform...");
  Waveform* none[4] = {};
  EXPECT_EQ(appendWaves(*a, none), EditResult::Failed);
  EXPECT_EQ(Error(), "Append waves: All null waveforms");
  EXPECT_EQ(a->length, 5u);
}

TEST_F(Length, MonoModesNamesAndPhase) {
  struct Case {
    int mode;
    std::vector<int16_t> want;
  };
  // (-3 + 0) / 2 is -1: the sum is halved towards zero.
  const std::vector<int16_t> lr = {-3, 0, 5, 4, -5, -4};
  for (const Case& k : {Case{0, {-1, 4, -4}}, Case{1, {-3, 5, -5}}, Case{2, {0, 4, -4}}}) {
    Waveform* w = Wave16(c, "w", lr, 2);
    Set("to-mono", 0, k.mode);
    EXPECT_EQ(Run("to-mono", {w}), 1u);
    EXPECT_EQ(w->channels, 1);
    EXPECT_EQ(Shorts(*w), k.want) << k.mode;
  }
  // Mode 4: a mismatch stays stereo and counts; equal channels become one.
  Set("to-mono", 0, 4);
  Waveform* differ = Wave16(c, "d", lr, 2);
  Waveform* same = Wave16(c, "s", {7, 7, -9, -9}, 2);
  EXPECT_EQ(Run("to-mono", {differ, same}), 2u);
  EXPECT_EQ(differ->channels, 2);
  EXPECT_EQ(Shorts(*same), (std::vector<int16_t>{7, -9}));

  // Phase fix: the right channel cancels the left, so it is negated first
  // (ones' complement on 16-bit: ~-100 is 99).
  Set("to-mono", 0, 0);
  Set("to-mono", 1, 1);
  Waveform* inverted = Wave16(c, "i", {100, -100, -200, 200}, 2);
  Waveform* invertedF = WaveF(c, "if", {0.5f, -0.5f, 0.25f, -0.25f}, 2);
  Waveform* inPhase = Wave16(c, "p", {100, 90, -200, -210}, 2);
  EXPECT_EQ(Run("to-mono", {inverted, invertedF, inPhase}), 3u);
  EXPECT_EQ(Shorts(*inverted), (std::vector<int16_t>{99, -200}));
  EXPECT_EQ(Floats(*invertedF), (std::vector<float>{0.5f, 0.25f}));
  EXPECT_EQ(Shorts(*inPhase), (std::vector<int16_t>{95, -205}));

  // Split: " S" goes from a longer name, "-S" alone stays.
  Set("to-mono", 0, 3);
  Collection split;
  Waveform* piano = Wave16(split, "Piano S", lr, 2);
  Waveform* tiny = WaveF(split, "-S", {0.5f, -0.5f}, 2);
  ProcessingWizard w(split);
  w.items.push_back(piano);
  w.items.push_back(tiny);
  EXPECT_TRUE(w.run("Convert to mono", true));
  EXPECT_TRUE(App().refresh);
  std::vector<std::string> names;
  for (Waveform* wave : split.All<Waveform>()) names.emplace_back(wave->Name());
  EXPECT_EQ(names, (std::vector<std::string>{"Piano -L", "-S -L", "Piano -R", "-S -R"}));
  const std::vector<Waveform*> waves = split.All<Waveform>();
  EXPECT_EQ(Shorts(*waves[0]), (std::vector<int16_t>{-3, 5, -5}));
  EXPECT_EQ(Shorts(*waves[2]), (std::vector<int16_t>{0, 4, -4}));
  EXPECT_EQ(Floats(*waves[3]), (std::vector<float>{-0.5f}));

  EXPECT_EQ(convertToMono(*waves[0], 7, false), EditResult::Failed);
  EXPECT_EQ(Error(), "->Mono: Invalid algorithm");
}

TEST_F(Length, StereoPairsTwoMonoWaves) {
  Waveform* left = Wave16(c, "L", {1, 2, 3});
  left->rootKey = 60;
  Waveform* right = WaveF(c, "R", {0.5f, 0.25f, -0.5f, 0.125f, 1.0f});
  right->rootKey = 63;
  right->bits = 24;
  Set("to-stereo", 0, 3);  // this wave left, the next mono wave (R) right
  EXPECT_EQ(Run("to-stereo", {left}), 1u);
  EXPECT_EQ(left->length, 5u);
  EXPECT_EQ(left->rootKey, 61);
  EXPECT_EQ(left->bits, 24);
  EXPECT_EQ(Floats(*left), (std::vector<float>{1 / 32768.0f, 0.5f, 2 / 32768.0f, 0.25f, 3 / 32768.0f, -0.5f, 0,
                                                0.125f, 0, 1.0f}));
  EXPECT_EQ(right->channels, 1);  // the second wave is only read

  Waveform* dup = Wave16(c, "D", {5, -6});
  Set("to-stereo", 0, 4);
  Set("to-stereo", 1, 0, "D");
  Waveform* other = Wave16(c, "O", {9});
  EXPECT_EQ(Run("to-stereo", {other}), 1u);
  EXPECT_EQ(Shorts(*other), (std::vector<int16_t>{5, 9, -6, 0}));
  EXPECT_EQ(convertToStereo(*dup, 2, nullptr), EditResult::Changed);
  EXPECT_EQ(Shorts(*dup), (std::vector<int16_t>{0, 5, 0, -6}));

  Waveform* mono = Wave16(c, "M", {1});
  EXPECT_EQ(convertToStereo(*mono, 3, nullptr), EditResult::Failed);
  EXPECT_EQ(Error(), "->Stereo: No 2nd waveform specified");
  EXPECT_EQ(convertToStereo(*mono, 3, dup), EditResult::Failed);
  EXPECT_EQ(Error(), "->Stereo: 2nd waveform is not mono");
  EXPECT_EQ(convertToStereo(*mono, 5, dup), EditResult::Failed);
  EXPECT_EQ(Error(), "->Stereo: Invalid algorithm");
  EXPECT_EQ(mono->channels, 1);
}

TEST_F(Length, MixWithOffsetClampAndCommaPoint) {
  Waveform* a = WaveF(c, "a", {0.5f, -0.5f, 0.25f});
  a->rootKey = 60;
  a->fineTune = -3;
  Waveform* b = Wave16(c, "b", {16384, -16384, 32767, 0}, 2);
  b->rootKey = 63;
  b->fineTune = 0;
  Set("mix", 1, 0, "0,5");  // b
  Set("mix", 2, 0, "0.1");  // c
  Set("mix", 4, 0, "b");    // wave2; wave1 is the selected wave
  EXPECT_EQ(Run("mix", {a}), 1u);
  ASSERT_EQ(a->channels, 2);
  ASSERT_EQ(a->length, 3u);
  const double half = 0.5 * (32767 / 32768.0);
  const std::vector<float> want = {
      static_cast<float>(0.5 + 0.25 + 0.1),  static_cast<float>(0.5 - 0.25 + 0.1),
      static_cast<float>(-0.5 + half + 0.1), static_cast<float>(-0.5 + 0.1),
      static_cast<float>(0.25 + 0.1),        static_cast<float>(0.25 + 0.1)};
  EXPECT_EQ(Floats(*a), want);
  EXPECT_EQ(a->rootKey, 61);
  EXPECT_EQ(a->fineTune, -1);  // (-3 + 0) / 2 towards zero

  Set("mix", 2, 0, "2");  // everything clamps at 1
  EXPECT_EQ(Run("mix", {a}), 1u);
  for (float v : Floats(*a)) EXPECT_EQ(v, 1.0f);

  Set("mix", 0, 0, "x");
  EXPECT_EQ(Run("mix", {a}), 0u);
  EXPECT_EQ(kvMix(*a, a, nullptr, 1, 1, 0), EditResult::Failed);
  EXPECT_EQ(Error(), "kvMix: A null wave was supplied");
}

}  // namespace
}  // namespace kv
