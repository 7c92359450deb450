// The loop tools: exact numbers of the sanitizer, cross-fade, trim and
// zero-crossing snap; the finder on synthetic tones and real files, its
// cancel and its long-wave warning; the dominant frequency.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/instrument_ops.h"
#include "core/items.h"
#include "core/param_catalogue.h"
#include "core/settings.h"
#include "core/wavestore.h"
#include "formats/import.h"
#include "processing/loops.h"
#include "processing/pitch.h"
#include "processing/wizard.h"
#include "support/click_ratio.h"
#include "support/testsupport.h"

namespace kv {
namespace {

Waveform* Wave16(Collection& c, const char* name, const std::vector<int16_t>& s, int channels = 1) {
  auto* w = Create<Waveform>(c, name);
  w->channels = static_cast<uint8_t>(channels);
  w->length = static_cast<uint32_t>(s.size() / channels);
  w->sampleRate = 44100;
  w->bits = 16;
  w->samples16 = std::make_unique<int16_t[]>(s.size() + 1);
  std::copy(s.begin(), s.end(), w->samples16.get());
  return w;
}

Waveform* WaveF(Collection& c, const char* name, const std::vector<float>& s) {
  auto* w = Create<Waveform>(c, name);
  w->length = static_cast<uint32_t>(s.size());
  w->sampleRate = 44100;
  w->bits = 32;
  w->samplesF = std::make_unique<float[]>(s.size() + 1);
  std::copy(s.begin(), s.end(), w->samplesF.get());
  return w;
}

std::vector<int16_t> Ramp(int n) {
  std::vector<int16_t> s(n);
  for (int i = 0; i < n; ++i) s[i] = static_cast<int16_t>(i);
  return s;
}

void Loop(Waveform* w, int type, float start, float end, int release = 0) {
  w->loopType = static_cast<uint8_t>(type);
  w->loopStart = start;
  w->loopEnd = end;
  w->loopRelease = static_cast<uint8_t>(release);
}

// 1 s at 44.1 kHz of sines (frequency, amplitude), with an optional decay e^(-k t).
std::vector<float> Tone(std::initializer_list<std::pair<double, double>> partials, double decay = 0, int n = 44100) {
  std::vector<float> x(n);
  for (int i = 0; i < n; ++i) {
    const double t = i / 44100.0;
    double v = 0;
    for (auto [f, a] : partials) v += a * std::sin(2 * std::numbers::pi * f * t);
    x[i] = static_cast<float>(v * std::exp(-decay * t));
  }
  return x;
}

std::vector<std::string> g_status;
void Capture(const std::string& text) { g_status.push_back(text); }

class Loops : public ::testing::Test {
 protected:
  Collection c;
  void SetUp() override {
    ResetOperationSettings();
    g_status.clear();
    SetStatusSink(Capture);
    SetCancelPoll(nullptr);
    LongWaveWarning() = true;
  }
  void TearDown() override {
    SetStatusSink(nullptr);
    SetCancelPoll(nullptr);
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = 1;
  }
};

// ---------------------------------------------------------------- sanitizer

TEST_F(Loops, SanitizerEdgeCases) {
  // A reverse loop becomes the forward loop behind it, mirrored.
  Waveform* rev = Wave16(c, "R", Ramp(2500));
  Loop(rev, 2, 1000, 2000);
  ASSERT_TRUE(sanitizeLoop(*rev, true, true, true, false, false));
  EXPECT_EQ(rev->loopType, 1);
  EXPECT_EQ(rev->loopStart, 2000.0f);
  EXPECT_EQ(rev->loopEnd, 3000.0f);
  EXPECT_EQ(rev->length, 3000u);
  EXPECT_EQ(rev->samples16[2000], 1999);
  EXPECT_EQ(rev->samples16[2999], 1000);

  // Short loops repeat: 20 frames twice, 5 frames seven times.
  for (auto [end, want, copies] : {std::tuple{120.0f, 140.0f, 2}, std::tuple{105.0f, 135.0f, 7}}) {
    Waveform* w = Wave16(c, "S", Ramp(300));
    Loop(w, 1, 100, end);
    ASSERT_TRUE(sanitizeLoop(*w, true, true, true, false, false));
    const int loop = static_cast<int>(end) - 100;
    EXPECT_EQ(w->loopStart, 100.0f);
    EXPECT_EQ(w->loopEnd, want);
    EXPECT_EQ(w->length, 300u + (copies - 1) * loop);
    EXPECT_EQ(w->samples16[100 + loop], 100);                   // the first copy
    EXPECT_EQ(w->samples16[static_cast<int>(want)], end);       // what followed the loop
  }
  // Fractions survive: start keeps its own, the end the old length's.
  Waveform* frac = Wave16(c, "F", Ramp(300));
  Loop(frac, 1, 100.25f, 119.75f);  // 19.5 long: 20 whole frames, -0.5 over
  ASSERT_TRUE(sanitizeLoop(*frac, false, false, true, false, false));
  EXPECT_EQ(frac->loopStart, 100.25f);
  EXPECT_EQ(frac->loopEnd, 139.75f);

  // 32 frames before the start are silence; the points move with them.
  Waveform* before = Wave16(c, "B", Ramp(100));
  Loop(before, 1, 10.4f, 50);
  ASSERT_TRUE(sanitizeLoop(*before, false, false, false, false, true));
  EXPECT_EQ(before->length, 122u);
  EXPECT_FLOAT_EQ(before->loopStart, 32.4f);
  EXPECT_EQ(before->samples16[21], 0);
  EXPECT_EQ(before->samples16[22], 0);  // frame 0 of the old wave

  // An empty loop turns off; no loop: false.
  Waveform* empty = Wave16(c, "E", Ramp(10));
  Loop(empty, 1, 5, 5.2f);
  EXPECT_TRUE(sanitizeLoop(*empty, true, true, true, true, true));
  EXPECT_EQ(empty->loopType, 0);
  EXPECT_FALSE(sanitizeLoop(*empty, true, true, true, true, true));
}

TEST_F(Loops, SanitizerRegionsFollow) {
  Waveform* w = Wave16(c, "W", Ramp(2500));
  Loop(w, 3, 1000, 2000);
  auto* inst = Create<Instrument>(c, "I");
  Layer* layer = AddLayer(*inst);
  auto region = [&](float start, float end) {
    Region* r = AddRegion(*layer, w->id, MakeRange(0, 127), MakeRange(0, 127), 60);
    r->overrideMask = kOverrideLoopStart | kOverrideLoopEnd;
    r->loopStart = start;
    r->loopEnd = end;
    return r;
  };
  Region* early = region(500, 900);    // before the old start: kept
  Region* inside = region(1200, 1500);  // within the old loop: overrides dropped
  Region* behind = region(2100, 2200);  // behind the old end: moved by d = 1000
  Region* offsets = region(100, 200);
  offsets->startOffset = 2400;
  ASSERT_TRUE(sanitizeLoop(*w, true, true, false, false, false));
  EXPECT_EQ(w->loopEnd, 3000.0f);
  EXPECT_EQ(early->loopStart, 500.0f);
  EXPECT_TRUE(early->overrideMask & kOverrideLoopStart);
  EXPECT_FALSE(inside->overrideMask & (kOverrideLoopStart | kOverrideLoopEnd));
  EXPECT_EQ(behind->loopStart, 3100.0f);
  EXPECT_EQ(behind->loopEnd, 3200.0f);
  EXPECT_FALSE(behind->overrideMask & kOverrideLoopEnd);  // 3200 lies past the length of 3000
  EXPECT_EQ(offsets->startOffset, 1000);                 // not beyond the new start
}

// ---------------------------------------------------------------- cross-fade

TEST_F(Loops, CrossfadeFormulas) {
  std::vector<float> x(1500);
  for (int i = 0; i < 1500; ++i) x[i] = static_cast<float>(std::sin(i * 0.37) * 0.9);
  Waveform* w = WaveF(c, "X", x);
  Loop(w, 1, 100, 1100);
  // Length 1000 asked; min(start, length, end - start) = 100.
  ASSERT_TRUE(crossfadeLoop(*w, 100, 1100, 1000, true, false));
  const float* y = w->samplesF.get();
  EXPECT_EQ(y[999], x[999]);
  EXPECT_EQ(y[1000], static_cast<float>(double{x[0]} * (1 - 0.99) + double{x[1000]} * 0.99));
  EXPECT_EQ(y[1099], static_cast<float>(double{x[99]} * 1.0 + double{x[1099]} * 0.0));
  // After the end, the loop's start fades out over m = min(100, 400) frames.
  EXPECT_EQ(y[1100], static_cast<float>(double{x[100]} * 0.99 + double{x[1100]} * (1 - 0.99)));
  EXPECT_EQ(y[1200], x[1200]);

  Waveform* e = WaveF(c, "E", x);
  Loop(e, 1, 100, 1100);
  ASSERT_TRUE(crossfadeLoop(*e, 100, 1100, 50, false, true));
  const double u = 1 - std::log10(49.0 / 50 * 9 + 1);
  EXPECT_EQ(e->samplesF[1050], static_cast<float>(double{x[50]} * u + double{x[1050]} * (1 - u)));
  EXPECT_EQ(e->samplesF[1100], x[1100]);  // no reverse part

  // 16-bit waves become float; no loop or no room: false, unchanged.
  Waveform* s = Wave16(c, "S", Ramp(300));
  Loop(s, 1, 0, 200);
  EXPECT_FALSE(crossfadeLoop(*s, 0, 200, 50, true, false));
  EXPECT_TRUE(s->samples16 != nullptr);
  s->loopStart = 50;
  ASSERT_TRUE(crossfadeLoop(*s, 50, 200, 50, true, false));
  EXPECT_FALSE(s->samples16);
  EXPECT_EQ(s->loopEnd, 200.0f);
  EXPECT_EQ(maximumCrossfade(*s), 50);
}

TEST_F(Loops, CrossfadePageLimitsOneWave) {
  Waveform* w = Wave16(c, "W", Ramp(3000));
  Loop(w, 1, 1000.4f, 2500);
  ProcessingWizard one(c);
  one.items.push_back(w);
  uint32_t n = 0;
  const WizardOperation* rows = OperationTable(0, &n);
  const WizardOperation* row = nullptr;
  for (uint32_t i = 0; i < n; ++i)
    if (std::strcmp(rows[i].key, "crossfade") == 0) row = &rows[i];
  ASSERT_NE(row, nullptr);
  OperationSetting(row->controls[0]).text = "1001";
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  one.run(row->name, true);
  EXPECT_EQ(one.modified, 0u);
  EXPECT_EQ(one.failed, 1u);
  EXPECT_TRUE(w->samples16 != nullptr);
  OperationSetting(row->controls[0]).text = "1000";
  ProcessingWizard again(c);
  again.items.push_back(w);
  again.run(row->name, true);
  EXPECT_EQ(again.modified, 1u);
}

// ---------------------------------------------------------------- trim

TEST_F(Loops, TrimAfterLoopMakesTheReleaseWave) {
  const std::string longName(130, 'n');
  Waveform* w = Wave16(c, longName.c_str(), Ramp(1000));
  Loop(w, 1, 100.4f, 400, 1);
  ItemId made = kNoItem;
  EXPECT_EQ(trimAfterLoop(*w, true, false, true, &made), 1);
  EXPECT_EQ(w->length, 432u);  // E = trunc(299.6 + 0.5) + trunc(100.9) = 400, then 32 appended
  EXPECT_EQ(w->loopRelease, 0);
  EXPECT_EQ(w->samples16[400], 100);
  EXPECT_EQ(w->samples16[431], 131);
  Waveform* rel = c.FindWave(made);
  ASSERT_NE(rel, nullptr);
  EXPECT_EQ(rel->Name(), longName.substr(0, 120) + " Release");
  EXPECT_EQ(rel->length, 600u);
  EXPECT_EQ(rel->samples16[0], 400);
  EXPECT_EQ(rel->loopType, 1);
  EXPECT_EQ(rel->loopStart, 0.0f);
  EXPECT_EQ(rel->loopEnd, 600.0f);

  // A region's loop override past the end moves the cut behind it.
  Waveform* r = Wave16(c, "R", Ramp(1000));
  Loop(r, 1, 100, 400);
  Layer* layer = AddLayer(*Create<Instrument>(c, "I"));
  Region* region = AddRegion(*layer, r->id, MakeRange(0, 127), MakeRange(0, 127), 60);
  region->overrideMask = kOverrideLoopEnd;
  region->loopEnd = 700;
  EXPECT_EQ(trimAfterLoop(*r, false, true, false), 0);
  EXPECT_EQ(r->length, 700u);
  // Only 32 frames after the end: no release wave.
  Waveform* s = Wave16(c, "Short", Ramp(432));
  Loop(s, 1, 100, 400);
  EXPECT_EQ(trimAfterLoop(*s, false, false, true), 0);
  EXPECT_EQ(s->length, 400u);
  EXPECT_EQ(c.Count(ItemType::Waveform), 4u);
  // A fractional end past the cut comes back to the new length.
  Waveform* f = Wave16(c, "Frac", Ramp(100));
  Loop(f, 1, 10, 20.4f);
  EXPECT_EQ(trimAfterLoop(*f, false, false, false), 0);
  EXPECT_EQ(f->length, 20u);
  EXPECT_EQ(f->loopEnd, 20.0f);
}

// ---------------------------------------------------------------- zero crossings

TEST_F(Loops, SnapTieGoesLeftAndTheEndKeepsTheSlope) {
  //                    0    1    2     3    4    5    6     7    8   9
  Waveform* w = Wave16(c, "Z", {100, 100, 100, -100, -50, -50, -10, 30, 100, 100});
  const uint64_t features = Settings().features;
  Settings().features &= ~(uint64_t{1} << kFeatFractionalLoops);
  float p = 5;
  // Crossings at 2 (falling, d = 3) and 6 (rising, d = 1): the nearer wins.
  EXPECT_EQ(snapToZeroCrossing(*w, p, 0, 9, 0), 1);
  EXPECT_EQ(p, 6.0f);  // r = 10 / 30 -> 0.25 of the way: frame 6
  p = 4;                // d = 2 either side: 2 and 6, the left one first
  EXPECT_EQ(snapToZeroCrossing(*w, p, 0, 9, 0), -1);
  EXPECT_EQ(p, 3.0f);  // r = 100/100 -> 0.5: the next frame
  p = 4;
  EXPECT_EQ(snapToZeroCrossing(*w, p, 0, 9, 1), 1);  // only a rising one
  EXPECT_EQ(p, 6.0f);
  p = 4;
  Settings().features |= uint64_t{1} << kFeatFractionalLoops;
  EXPECT_EQ(snapToZeroCrossing(*w, p, 0, 9, 0), -1);
  EXPECT_FLOAT_EQ(p, 2.5f);
  Settings().features &= ~(uint64_t{1} << kFeatFractionalLoops);
  p = 9;  // not below high = n - 2
  EXPECT_EQ(snapToZeroCrossing(*w, p, 0, 9, 0), 0);

  // The page: the start snaps first, the end must cross the same way.
  Loop(w, 1, 4, 8);
  EXPECT_EQ(moveLoopToZeroCrossing(*w), EditResult::Changed);
  EXPECT_EQ(w->loopStart, 3.0f);  // falling
  EXPECT_EQ(w->loopEnd, 8.0f);    // no falling crossing after it: unchanged
  Settings().features = features;
}

// ---------------------------------------------------------------- enable/disable

TEST_F(Loops, EnableDisableCounts) {
  Waveform* a = Wave16(c, "A", Ramp(50));
  Waveform* b = Wave16(c, "B", Ramp(60));
  Loop(b, 2, 5, 9, 1);
  Wave16(c, "C", Ramp(70));
  auto run = [&](const char* choice) {
    ProcessingWizard w(c);
    for (Waveform* wave : c.All<Waveform>()) w.items.push_back(wave);
    const WizardOperation* rows = OperationTable(0);
    for (int i = 0; rows[i].name; ++i)
      if (std::strcmp(rows[i].key, "loops") == 0) {
        SettingValue v;
        for (int k = 0; k < 3; ++k)
          if (std::strcmp(rows[i].controls[0].choiceKeys[k], choice) == 0) v.number = k;
        OperationSetting(rows[i].controls[0]) = v;
        w.run(rows[i].name, true);
      }
    return w.modified;
  };
  EXPECT_EQ(run("enable-unlooped"), 2u);
  EXPECT_EQ(a->loopType, 1);
  EXPECT_EQ(a->loopEnd, 50.0f);
  EXPECT_EQ(b->loopType, 2);  // left alone
  EXPECT_EQ(run("enable-all"), 3u);
  EXPECT_EQ(b->loopType, 1);
  EXPECT_EQ(b->loopRelease, 0);
  EXPECT_EQ(b->loopEnd, 60.0f);
  EXPECT_EQ(run("disable"), 3u);
  EXPECT_EQ(b->loopEnd, 60.0f);  // mode 0 and nothing else
  EXPECT_EQ(b->loopType, 0);
}

// ---------------------------------------------------------------- dominant frequency

TEST_F(Loops, DominantFrequency) {
  const std::vector<float> a4 = Tone({{440, 0.5}});
  EXPECT_NEAR(dominantFrequency(a4, 44100, 1, 44100), 440.0, 0.01);
  const std::vector<float> bb4 = Tone({{466.16, 0.5}});
  EXPECT_NEAR(dominantFrequency(bb4, 44100, 1, 44100), 466.16, 0.01);
  // Under a fifth of a second: all frames, zero-padded, the range widened.
  const std::vector<float> blip = Tone({{440, 0.5}}, 0, 8000);
  bool shortRoute = false;
  double bin = 0;
  const PeakList peaks = spectrumPeaks(blip, 8000, 1, 44100, &bin, &shortRoute);
  EXPECT_TRUE(shortRoute);
  EXPECT_DOUBLE_EQ(bin, 44100 * 0.5 / 4096);
  ASSERT_GT(peaks.count, 0);
  EXPECT_NEAR(peaks.frequency[0], 440.0, bin);
  EXPECT_NEAR(dominantFrequency(blip, 8000, 1, 44100), 440.0, 0.5);
  EXPECT_EQ(dominantFrequency(std::vector<float>(5000, 0.0f), 5000, 1, 44100), 0.0);
  EXPECT_EQ(autoLoopMinimumLength(4000, 44100, 441.0), 90);
  EXPECT_EQ(autoLoopMinimumLength(4000, 44100, 0.0), 500);
  EXPECT_EQ(autoLoopMinimumLength(60, 44100, 0.0), 16);
}

// ---------------------------------------------------------------- the finder

struct Found {
  int64_t start, end;
  float gap;
  double click;
};

Found FindOn(Collection& c, const std::vector<float>& x, bool crossfade = false) {
  Waveform* w = WaveF(c, "tone", x);
  EXPECT_TRUE(autoLoop(*w, crossfade, false, false, 0.5, 0.99, 0.75, 1.0));
  const auto s = static_cast<int64_t>(w->loopStart), e = static_cast<int64_t>(w->loopEnd);
  const float xe = e < w->length ? x[e] : 0.0f;
  return {s, e, std::fabs(x[s] - xe), test::ClickRatioDb(*w)};
}

TEST_F(Loops, FinderOnSyntheticTones) {
  // Whole periods: 100 frames at 441 Hz, 2205 (22 and 33 periods) for 440 and 440 + 660 Hz.
  for (auto [tone, period] : {std::pair{Tone({{441, 0.5}}), 100}, std::pair{Tone({{440, 0.5}}), 2205},
                              std::pair{Tone({{440, 0.5}, {660, 0.3}}), 2205}}) {
    const Found f = FindOn(c, tone);
    EXPECT_EQ((f.end - f.start) % period, 0) << f.start << ".." << f.end;
    EXPECT_LE(f.gap, 1e-4f);
    EXPECT_LE(f.click, 1.0);
    EXPECT_EQ(LastLoopSearch().f0 > 0, true);
    EXPECT_GT(LastLoopSearch().score, 0.9999f);
  }
  // A decay: the splice jumps by the level lost over the loop, which only
  // the cross-fade hides.
  const std::vector<float> decaying = Tone({{440, 0.5}, {660, 0.3}}, 1.5);
  EXPECT_GE(FindOn(c, decaying).click, 20.0);
  EXPECT_LE(FindOn(c, decaying, true).click, 1.0);
  EXPECT_EQ(g_status.back(), "Done: Loop found and set!");
}

TEST_F(Loops, FinderFailuresLeaveTheWave) {
  Waveform* silent = WaveF(c, "quiet", std::vector<float>(4000, 0.0f));
  EXPECT_FALSE(autoLoop(*silent, false, false, false, 0.5, 0.99, 0.75, 1.0));
  EXPECT_EQ(silent->loopType, 0);

  // Cancelled at the third poll: the status says so, the wave stays.
  Waveform* w = WaveF(c, "tone", Tone({{440, 0.5}}));
  static int polls;
  polls = 0;
  SetCancelPoll([] { return ++polls == 3; });
  EXPECT_FALSE(autoLoop(*w, true, false, true, 0.5, 0.99, 0.75, 1.0));
  EXPECT_EQ(polls, 3);
  EXPECT_EQ(w->loopType, 0);
  EXPECT_EQ(w->length, 44100u);
  EXPECT_EQ(g_status.back(), "Failed: Loop find cancelled");
  ASSERT_GE(g_status.size(), 3u);
  EXPECT_TRUE(g_status[0].starts_with("Finding loop for: \"tone\" - 0%")) << g_status[0];
  SetCancelPoll(nullptr);

  // The page sets the loop yet counts nothing.
  ProcessingWizard page(c);
  page.items.push_back(w);
  page.run("Auto loop finder", true);
  EXPECT_EQ(page.modified, 0u);
  EXPECT_EQ(w->loopType, 1);
  EXPECT_EQ(LastStatusText(), "No items were modified by Auto loop finder");
}

TEST_F(Loops, LongWaveWarning) {
  Waveform* w = WaveF(c, "Long one", Tone({{441, 0.5}}, 0, kLongWaveFrames));
  static std::string said, title;
  static int answer;
  SetBoxPresenter([](const std::string& text, const std::string& t, BoxButtons buttons) {
    said = text;
    title = t;
    return buttons == BoxButtons::ThreeWay ? answer : 0;
  });
  auto find = [&] { return autoLoop(*w, false, false, false, 0.5, 0.5005, 0.9, 0.9005); };
  answer = kBoxFirst;  // "Abort"
  EXPECT_FALSE(find());
  EXPECT_EQ(w->loopType, 0);
  EXPECT_EQ(title, "Long one");
  EXPECT_EQ(said,
            "Warning!\n\nThe 'Auto loop finder' could take a very long time to process this waveform!\n\n(You can "
            "press Esc at any time to cancel it, and you can see a progress report in the status bar of the main "
            "window)");
  answer = kBoxThird;  // "Don't ask again": searches, and asks no more
  EXPECT_TRUE(find());
  EXPECT_FALSE(LongWaveWarning());
  said.clear();
  answer = kBoxFirst;
  EXPECT_TRUE(find());
  EXPECT_TRUE(said.empty());
  // With boxes off (-NOMSG) the search goes on.
  LongWaveWarning() = true;
  MessageBoxesEnabled = 0;
  w->loopType = 0;
  EXPECT_TRUE(find());
  EXPECT_EQ(w->loopType, 1);
}

// ---------------------------------------------------------------- the corpus

Waveform* Load(Collection& into, const std::string& file) {
  if (!test::NeedCorpus()) return nullptr;
  if (!ImportFile(into, test::CorpusDir() / file, false)) {
    ADD_FAILURE() << file << ": " << ErrorMessage;
    return nullptr;
  }
  std::vector<Waveform*> waves = into.All<Waveform>();
  return waves.empty() ? nullptr : waves[0];
}

TEST_F(Loops, CorpusFinderAndCrossfade) {
  Collection a, b;
  Waveform* trimo = Load(a, "wav/hydrogen-trimo-c3-smpl.wav");
  if (!trimo) return;
  ASSERT_TRUE(autoLoop(*trimo, false, false, false, 0.5, 0.99, 0.75, 1.0));
  EXPECT_GE(LastLoopSearch().score, 0.999f);
  EXPECT_LE(test::ClickRatioDb(*trimo), 0.0);
  EXPECT_LE(trimo->loopEnd, static_cast<float>(trimo->length));

  Waveform* cue = Load(b, "wav/gen-smpl-inst-cue.wav");
  ASSERT_NE(cue, nullptr);
  ASSERT_EQ(cue->loopStart, 1823.0f);
  ASSERT_TRUE(cue->EnsureData());
  EXPECT_GT(test::ClickRatioDb(*cue), 10.0);
  ASSERT_TRUE(crossfadeLoop(*cue, 1823, 5469, maximumCrossfade(*cue), true, false));
  EXPECT_LE(test::ClickRatioDb(*cue), 0.0);
}

TEST_F(Loops, CorpusBankEveryLoopedWave) {
  Collection bank;
  if (!Load(bank, "sf2/TimGM6mb.sf2")) return;
  const uint64_t features = Settings().features;
  Settings().features &= ~(uint64_t{1} << kFeatFractionalLoops);
  auto inside = [](const Waveform& w) {
    return w.loopType == 0 || (w.loopStart >= 0 && w.loopStart < w.loopEnd && w.loopEnd <= static_cast<float>(w.length));
  };
  int looped = 0, moved = 0;
  for (Waveform* w : bank.All<Waveform>()) {
    if (w->loopType == 0 || !w->EnsureData()) continue;
    ++looped;
    SCOPED_TRACE(std::string(w->Name()));
    const float start = w->loopStart, end = w->loopEnd;
    moveLoopToZeroCrossing(*w);
    const int16_t* v = Samples16(*w);
    ASSERT_NE(v, nullptr);
    // A moved point lies next to a sign change: between p - 1 and p, p and
    // p + 1, or on a 0 between opposite signs.
    for (auto [was, now] : {std::pair{start, w->loopStart}, std::pair{end, w->loopEnd}}) {
      if (was == now) continue;
      ++moved;
      const auto p = static_cast<int64_t>(now);
      auto sum = [&](int64_t i) { return w->channels == 2 ? v[2 * i] + v[2 * i + 1] : int{v[i]}; };
      const bool crossing = sum(p - 1) * sum(p) < 0 || sum(p) * sum(p + 1) < 0 ||
                            (sum(p) == 0 && sum(p - 1) * sum(p + 1) < 0);
      EXPECT_TRUE(crossing) << was << " -> " << now;
    }
    EXPECT_TRUE(inside(*w));
    // Every other tool keeps the loop within the length too.
    EXPECT_TRUE(sanitizeLoop(*w, true, true, true, true, true));
    EXPECT_TRUE(inside(*w));
    crossfadeLoop(*w, static_cast<int64_t>(w->loopStart + 0.499f), static_cast<int64_t>(w->loopEnd + 0.499f),
                  maximumCrossfade(*w), true, false);
    EXPECT_TRUE(inside(*w));
    EXPECT_GE(trimAfterLoop(*w, true, true, false), 0);
    EXPECT_TRUE(inside(*w));
  }
  Settings().features = features;
  EXPECT_GT(looped, 100);
  EXPECT_GT(moved, looped / 2);
}

}  // namespace
}  // namespace kv
