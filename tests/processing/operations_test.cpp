// Exact numbers of the in-place edits, one group per operation, run through
// the wizard's rows where a row exists so that the page's settings count.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "processing/edit.h"
#include "processing/loops.h"
#include "processing/names.h"
#include "processing/statistics.h"
#include "processing/volume.h"
#include "processing/wizard.h"

namespace kv {
namespace {

Waveform* Wave16(Collection& c, std::vector<int16_t> samples, int channels = 1) {
  auto* w = Create<Waveform>(c, "w16");
  w->channels = static_cast<uint8_t>(channels);
  w->length = static_cast<uint32_t>(samples.size() / channels);
  w->sampleRate = 44100;
  w->bits = 16;
  w->samples16 = std::make_unique<int16_t[]>(samples.size());
  std::copy(samples.begin(), samples.end(), w->samples16.get());
  return w;
}

Waveform* WaveF(Collection& c, std::vector<float> samples, int channels = 1) {
  auto* w = Create<Waveform>(c, "wf");
  w->channels = static_cast<uint8_t>(channels);
  w->length = static_cast<uint32_t>(samples.size() / channels);
  w->sampleRate = 1000;
  w->bits = 32;
  w->samplesF = std::make_unique<float[]>(samples.size());
  std::copy(samples.begin(), samples.end(), w->samplesF.get());
  return w;
}

std::vector<float> Floats(const Waveform& w) { return {w.samplesF.get(), w.samplesF.get() + w.SampleCount()}; }
std::vector<int16_t> Shorts(const Waveform& w) { return {w.samples16.get(), w.samples16.get() + w.SampleCount()}; }

const WizardOperation& Row(const char* key) {
  uint32_t n = 0;
  const WizardOperation* rows = OperationTable(0, &n);
  for (uint32_t i = 0; i < n; ++i)
    if (std::strcmp(rows[i].key, key) == 0) return rows[i];
  ADD_FAILURE() << key;
  return rows[0];
}

struct Ops : ::testing::Test {
  void SetUp() override {
    ResetOperationSettings();
    MessageBoxesEnabled = 0;
    SetSkippedBoxesQuiet(true);
  }
  // Runs a row directly on `waves`, with `range` when given; returns `modified`.
  uint32_t Run(const char* key, std::vector<Waveform*> waves, int32_t first = -1, int32_t end = -1) {
    ProcessingWizard w(c);
    for (Waveform* wave : waves) w.items.push_back(wave);
    if (first >= 0) {
      w.useRange = true;
      w.rangeStart = first;
      w.rangeEnd = end;
    }
    w.run(Row(key).name, true);
    lastTexts = w.pageTexts;
    lastFailed = w.failed;
    return w.modified;
  }
  void Set(const char* key, int control, double value) {
    SettingValue v;
    v.number = value;
    OperationSetting(Row(key).controls[control]) = v;
  }
  void SetText(const char* key, int control, const std::string& text) {
    SettingValue v;
    v.text = text;
    OperationSetting(Row(key).controls[control]) = v;
  }
  Collection c;
  std::vector<std::string> lastTexts;
  uint32_t lastFailed = 0;
};

TEST_F(Ops, AdjustVolume) {
  Waveform* w = Wave16(c, {16384, -16384, 32767, 100});
  w->readCallback = gen_ImpWave;  // as if read from a file
  EXPECT_EQ(Run("adjust-volume", {w}), 1u);  // the default, -10 dB
  ASSERT_TRUE(w->samplesF);
  EXPECT_FALSE(w->samples16);
  EXPECT_EQ(w->readCallback, nullptr);
  EXPECT_EQ(w->bits, 16);
  EXPECT_NEAR(w->samplesF[0], 0.5 * 0.31622777, 1e-7);
  EXPECT_EQ(Samples16(*w)[0], 5181);  // as saved
  EXPECT_EQ(Samples16(*w)[1], -5181);

  // 0 dB counts and changes nothing, not even the sample form.
  Waveform* same = Wave16(c, {1000, -1000});
  same->readCallback = gen_ImpWave;
  Set("adjust-volume", 0, 0.0);
  EXPECT_EQ(Run("adjust-volume", {same}), 1u);
  EXPECT_EQ(Shorts(*same), (std::vector<int16_t>{1000, -1000}));
  EXPECT_EQ(same->readCallback, gen_ImpWave);

  // A range past the end changes nothing, not even the sample form.
  EXPECT_TRUE(applyGain(*same, -6.0f, 10, 20));
  EXPECT_TRUE(same->samples16);
  // A wave without frames has nothing to change and isn't counted.
  Waveform* empty = Wave16(c, {});
  EXPECT_EQ(Run("adjust-volume", {empty}), 0u);
  EXPECT_EQ(LastStatusText(), "No items were modified by Adjust volume");

  // +12 dB clamps; a range limits the frames.
  Waveform* f = WaveF(c, {0.5f, 0.5f, 0.1f, 0.1f, 0.1f, 0.1f}, 2);
  Set("adjust-volume", 0, 12.0);
  EXPECT_EQ(Run("adjust-volume", {f}, 1, 2), 1u);
  const float g = static_cast<float>(std::exp(12.0 / 20 * 2.3025851));
  EXPECT_EQ(Floats(*f), (std::vector<float>{0.5f, 0.5f, 0.1f * g, 0.1f * g, 0.1f, 0.1f}));
  EXPECT_EQ(Run("adjust-volume", {f}), 1u);
  EXPECT_EQ(f->samplesF[0], 1.0f);
  // The setting stays for the next run.
  EXPECT_EQ(OperationSetting(Row("adjust-volume").controls[0]).number, 12.0);
}

TEST_F(Ops, FadeModesAtNineFrames) {
  // 16-bit: 30000 and -32768 faded over 9 frames, by the rounding rule.
  const int16_t expected[4][2][3] = {
      {{3000, 15000, 27000}, {-3277, -16384, -29491}},
      {{1229, 7789, 21637}, {-1342, -8508, -23634}},
      {{27000, 15000, 3000}, {-29491, -16384, -3277}},
      {{21637, 7789, 1229}, {-23634, -8508, -1342}},
  };
  for (int mode = 0; mode < 4; ++mode) {
    SCOPED_TRACE(mode);
    Set("fade", 0, mode);
    std::vector<int16_t> data;
    for (int k = 0; k < 11; ++k) {
      data.push_back(30000);
      data.push_back(-32768);
    }
    Waveform* w = Wave16(c, data, 2);
    EXPECT_EQ(Run("fade", {w}, 1, 10), 1u);
    ASSERT_TRUE(w->samples16);  // 16-bit stays 16-bit
    EXPECT_EQ(w->samples16[0], 30000);  // outside the range
    EXPECT_EQ(w->samples16[21], -32768);
    const int frames[3] = {1, 5, 9};
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(w->samples16[2 * frames[i]], expected[mode][0][i]);
      EXPECT_EQ(w->samples16[2 * frames[i] + 1], expected[mode][1][i]);
    }
    // Float: the sample times the gain.
    Waveform* f = WaveF(c, std::vector<float>(9, 1.0f));
    EXPECT_EQ(Run("fade", {f}, 0, 9), 1u);
    const double first[4] = {0.1, 0.0409586077, 0.9, 0.721246399};
    const double last[4] = {0.9, 0.721246399, 0.1, 0.0409586077};
    EXPECT_NEAR(f->samplesF[0], first[mode], 1e-7);
    EXPECT_NEAR(f->samplesF[8], last[mode], 1e-7);
    EXPECT_EQ(f->samplesF[4], static_cast<float>(FadeGain(mode, 5, 9)));
  }
  EXPECT_STREQ(kFadeModeLabels[3], "Using an logaritmically decreasing fade out");
  EXPECT_EQ(Row("fade").controls[0].defaultValue, 1.0);
}

TEST_F(Ops, InvertSign) {
  Waveform* w = Wave16(c, {-32768, 0, 32767, 5});
  EXPECT_EQ(Run("invert", {w}, 0, 3), 1u);
  EXPECT_EQ(Shorts(*w), (std::vector<int16_t>{32767, -1, -32768, 5}));
  Waveform* f = WaveF(c, {0.5f, 0.0f, -1.0f});
  EXPECT_EQ(invertRange(*f, -1, -1), EditResult::Changed);
  EXPECT_EQ(f->samplesF[0], -0.5f);
  EXPECT_TRUE(std::signbit(f->samplesF[1]));
  EXPECT_EQ(f->samplesF[2], 1.0f);
  // A wave holding both forms is edited in its float form; the rounded
  // 16-bit copy goes.
  Waveform* both = WaveF(c, {0.30001f, -0.5f});
  ASSERT_NE(Samples16(*both), nullptr);
  EXPECT_EQ(invertRange(*both, -1, -1), EditResult::Changed);
  EXPECT_FALSE(both->samples16);
  EXPECT_EQ(both->samplesF[0], -0.30001f);
  // An empty or negative range changes nothing.
  EXPECT_EQ(invertRange(*w, 3, 3), EditResult::Unchanged);
  EXPECT_EQ(invertRange(*w, 9, 12), EditResult::Unchanged);
  EXPECT_EQ(Shorts(*w)[3], 5);
}

TEST_F(Ops, MaximizeModes) {
  // min -0.25, max 0.5, mean 0.2.
  const std::vector<float> data{-0.25f, 0.5f, 0.25f, 0.3f};
  Waveform* m1 = WaveF(c, data);
  EXPECT_EQ(maximizeAmplitude(*m1, 1), EditResult::Changed);
  EXPECT_EQ(Floats(*m1), (std::vector<float>{-0.5f, 1.0f, 0.5f, 0.6f}));
  Waveform* m0 = WaveF(c, data);
  EXPECT_EQ(maximizeAmplitude(*m0, 0), EditResult::Changed);
  EXPECT_NEAR(m0->samplesF[0], -1.0f, 1e-6);
  EXPECT_NEAR(m0->samplesF[1], 1.0f, 1e-6);
  EXPECT_NEAR(m0->samplesF[2], 1.0f / 3, 1e-6);
  Waveform* m2 = WaveF(c, data);
  EXPECT_EQ(maximizeAmplitude(*m2, 2), EditResult::Changed);
  EXPECT_NEAR(m2->samplesF[0], -1.0f, 1e-6);  // the farthest from the mean
  EXPECT_NEAR(m2->samplesF[1], 2.0f / 3, 1e-6);
  EXPECT_NEAR(m2->samplesF[3], 0.2222222f, 1e-6);
  // Already at full scale: unchanged, and the data stays 16-bit.
  Waveform* full = Wave16(c, {-32768, 1000});
  EXPECT_EQ(maximizeAmplitude(*full, 1), EditResult::Unchanged);
  EXPECT_TRUE(full->samples16);
  EXPECT_FALSE(full->samplesF);
  Waveform* silent = Wave16(c, {0, 0, 0});
  EXPECT_EQ(Run("maximize", {silent, full, WaveF(c, data)}), 1u);
  EXPECT_TRUE(silent->samples16);
  // The row is mode 1.
  EXPECT_EQ(c.All<Waveform>().back()->samplesF[1], 1.0f);
}

TEST_F(Ops, RemoveDcOffset) {
  // 16-bit: the mean truncated (101.75 -> 101), subtracted.
  Waveform* w = Wave16(c, {100, 101, 102, 104});
  EXPECT_EQ(Run("remove-dc", {w}), 1u);
  EXPECT_EQ(Shorts(*w), (std::vector<int16_t>{-1, 0, 1, 3}));
  // Towards zero: -1.5 gives -1. Saturation at both ends.
  Waveform* t = Wave16(c, {-1, -2});
  EXPECT_EQ(removeDcOffset(*t), EditResult::Changed);
  EXPECT_EQ(Shorts(*t), (std::vector<int16_t>{0, -1}));
  Waveform* s = Wave16(c, {30000, -32768, -32768, -32768});
  EXPECT_EQ(removeDcOffset(*s), EditResult::Changed);  // mean -17076
  EXPECT_EQ(Shorts(*s), (std::vector<int16_t>{32767, -15692, -15692, -15692}));
  Waveform* small = Wave16(c, {1, 0, 1, 1});  // mean 0.75 truncates to 0
  EXPECT_EQ(removeDcOffset(*small), EditResult::Unchanged);
  // Float: the exact mean, clamped.
  Waveform* f = WaveF(c, {1.0f, -0.5f, -0.5f, -1.0f});  // mean -0.25
  EXPECT_EQ(removeDcOffset(*f), EditResult::Changed);
  EXPECT_EQ(Floats(*f), (std::vector<float>{1.0f, -0.25f, -0.25f, -0.75f}));
  Waveform* zero = WaveF(c, {0.5f, -0.5f});
  EXPECT_EQ(removeDcOffset(*zero), EditResult::Unchanged);
}

TEST_F(Ops, ReverseAndSwapKeepFramesTogether) {
  Waveform* st = Wave16(c, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 2);
  EXPECT_EQ(Run("reverse", {st}, 1, 4), 1u);
  EXPECT_EQ(Shorts(*st), (std::vector<int16_t>{1, 2, 7, 8, 5, 6, 3, 4, 9, 10}));
  Waveform* f = WaveF(c, {1, 2, 3, 4, 5});
  EXPECT_EQ(reverseRange(*f, -1, -1), EditResult::Changed);
  EXPECT_EQ(Floats(*f), (std::vector<float>{5, 4, 3, 2, 1}));
  Waveform* fs = WaveF(c, {1, 2, 3, 4, 5, 6}, 2);
  EXPECT_EQ(reverseRange(*fs, 0, 99), EditResult::Changed);
  EXPECT_EQ(Floats(*fs), (std::vector<float>{5, 6, 3, 4, 1, 2}));

  Waveform* mono = Wave16(c, {1, 2});
  EXPECT_EQ(Run("swap", {st, mono, fs}), 2u);
  EXPECT_EQ(Shorts(*st), (std::vector<int16_t>{2, 1, 8, 7, 6, 5, 4, 3, 10, 9}));
  EXPECT_EQ(Floats(*fs), (std::vector<float>{6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(Shorts(*mono), (std::vector<int16_t>{1, 2}));
}

TEST_F(Ops, SmoothModesWithEdges) {
  const std::vector<float> x{0, 1, 0, 1, 0};
  const std::vector<float> whole[4] = {
      {0, 0.5f, 0.5f, 0.5f, 0}, {0, 0, 1, 0, 0}, {0.5f, 0.5f, 0.5f, 0.5f, 0}, {0, 0.5f, 0.5f, 0.5f, 0.5f}};
  for (int mode = 0; mode < 4; ++mode) {
    SCOPED_TRACE(mode);
    Set("smooth", 0, mode);
    Waveform* w = WaveF(c, x);
    EXPECT_EQ(Run("smooth", {w}, 0, 5), 1u);
    EXPECT_EQ(Floats(*w), whole[mode]);
  }
  // Inside the wave, modes 2 and 3 read the frame behind or before the range.
  Waveform* r2 = WaveF(c, x);
  EXPECT_EQ(smoothRange(*r2, 2, 1, 3), EditResult::Changed);
  EXPECT_EQ(Floats(*r2), (std::vector<float>{0, 0.5f, 0.5f, 1, 0}));
  Waveform* r3 = WaveF(c, x);
  EXPECT_EQ(smoothRange(*r3, 3, 2, 4), EditResult::Changed);
  EXPECT_EQ(Floats(*r3), (std::vector<float>{0, 1, 0.5f, 0.5f, 0}));
  // Per channel, on 16-bit data made float; a one-frame wave reads nothing outside.
  Waveform* st = Wave16(c, {0, 16384, 16384, 0, 0, 16384}, 2);
  EXPECT_EQ(smoothRange(*st, 0, -1, -1), EditResult::Changed);
  ASSERT_TRUE(st->samplesF);
  EXPECT_EQ(Floats(*st), (std::vector<float>{0, 0.5f, 0.25f, 0.25f, 0, 0.5f}));
  Waveform* one = WaveF(c, {0.5f});
  EXPECT_EQ(smoothRange(*one, 2, -1, -1), EditResult::Changed);
  EXPECT_EQ(smoothRange(*one, 3, -1, -1), EditResult::Changed);
  EXPECT_EQ(one->samplesF[0], 0.5f);
  EXPECT_EQ(smoothRange(*one, 0, -1, -1), EditResult::Unchanged);
}

TEST_F(Ops, StatisticsTexts) {
  Waveform* st = Wave16(c, {16384, -32768, -8192, 32767, 4096, 0, 0, 0}, 2);
  EXPECT_EQ(Run("statistics", {st}), 0u);
  const std::vector<std::string> expected16 = {
      "Wavesamples:\t8 / 0.00 s",
      "Mean:\t0.094\t-0.000",
      "RMS:\t0.286 / -10.82 dB\t0.707 / -3.00 dB",
      "Min..max:\t-0.250..0.500 / -8192..16384\t-1.000..1.000 / -32768..32767",
      "Max level:\t0.500 / -6.00 dB / 16384\t1.000 / 0.00 dB / 32768",
      "Max delta:\t0.750 / 24576\t2.000 / 65535",
      "Zero crossings:\t2\t1",
  };
  EXPECT_EQ(lastTexts, expected16);

  Waveform* f = WaveF(c, {0.5f, -0.25f});
  Waveform* silent = WaveF(c, {0.0f, 0.0f});
  EXPECT_EQ(Run("statistics", {silent}), 0u);
  EXPECT_EQ(lastTexts[4], "Max level:\t-");
  EXPECT_EQ(lastTexts[2], "RMS:\t0.000 / -96.00 dB");
  EXPECT_EQ(Run("statistics", {f}), 0u);
  const std::vector<std::string> expectedF = {
      "Wavesamples:\t2 / 0.00 s",  "Mean:\t0.125",
      "RMS:\t0.395 / -8.03 dB",    "Min..max:\t-0.250000..0.500000",
      "Max level:\t0.500 / -6.00 dB", "Max delta:\t0.750000",
      "Zero crossings:\t1",
  };
  EXPECT_EQ(lastTexts, expectedF);
  EXPECT_EQ(LevelDb(1.5259e-5), -96.0);
  EXPECT_EQ(LevelDb(0.25), -12.0);
  EXPECT_EQ(LevelDb(0.70710678), -3.0);
}

TEST_F(Ops, NamesAndLoops) {
  Waveform* w = Wave16(c, std::vector<int16_t>(50, 0));
  w->SetName("aXbXc");
  SetText("search-replace", 0, "X");
  SetText("search-replace", 1, "XX");
  EXPECT_EQ(Run("search-replace", {w}), 1u);
  EXPECT_EQ(w->Name(), "aXXbXXc");  // the scan goes on behind the inserted text
  SetText("search-replace", 0, "c");
  SetText("search-replace", 1, "  ");
  EXPECT_EQ(Run("search-replace", {w}), 1u);
  EXPECT_EQ(w->Name(), "aXXbXX");  // trailing blanks cut
  EXPECT_FALSE(replaceInName(*w, "zz", "y"));
  EXPECT_TRUE(replaceInName(*w, "aXXbXX", ""));
  EXPECT_EQ(w->Name(), "unnamed");
  SetText("search-replace", 0, "");
  EXPECT_EQ(Run("search-replace", {w}), 0u);
  EXPECT_EQ(lastFailed, 1u);
  EXPECT_EQ(w->Name(), "unnamed");

  w->sourcePath = "/samples/Grand Piano C4.wav";
  Waveform* bare = Wave16(c, {1});
  bare->SetName("keep");
  EXPECT_EQ(Run("names-from-files", {w, bare}), 2u);  // every waveform counts
  EXPECT_EQ(w->Name(), "Grand Piano C4");
  EXPECT_EQ(bare->Name(), "keep");

  // The loop follows the selection, its end bounded by the length; regions
  // playing the wave follow.
  auto* inst = Create<Instrument>(c, "I");
  Region* region = AddRegion(*AddLayer(*inst), w->id, MakeRange(0, 127), MakeRange(0, 127), 255);
  region->startOffset = 30;
  EXPECT_EQ(Run("loop-to-selection", {w}, 5, 100), 1u);
  EXPECT_EQ(w->loopType, 1);
  EXPECT_EQ(w->loopStart, 5.0f);
  EXPECT_EQ(w->loopEnd, 50.0f);
  EXPECT_EQ(region->startOffset, 5);
  EXPECT_EQ(setLoopToSelection(*w, 5, 100), EditResult::Unchanged);
  EXPECT_EQ(setLoopToSelection(*w, 50, 60), EditResult::Unchanged);  // start outside the wave
}

}  // namespace
}  // namespace kv
