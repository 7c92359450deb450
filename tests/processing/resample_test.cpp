// The "Resample" page as the frame runs it, and `kelvo --op resample` on a
// real looped file: lengths and loops as libsndfile reads them back, the
// samples next to sox's very-high-quality rate, and the seam of the loop.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "click_ratio.h"
#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "core/resample.h"
#include "formats/import.h"
#include "processing/resample_page.h"
#include "processing/wizard.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
constexpr const char* kTrimo = "wav/hydrogen-trimo-c3-smpl.wav";

Waveform* Tone(Collection& c, const char* name, uint32_t frames, uint32_t rate) {
  auto* w = Create<Waveform>(c, name);
  w->length = frames;
  w->sampleRate = rate;
  w->bits = 16;
  w->samples16 = std::make_unique<int16_t[]>(frames + 1);
  for (uint32_t i = 0; i < frames; ++i) w->samples16[i] = static_cast<int16_t>(8000 * std::sin(i * 0.05));
  return w;
}

class ResamplePageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetOperationSettings();
    MessageBoxesEnabled = 0;
    SetSkippedBoxesQuiet(true);
  }
  void TearDown() override { ResetOperationSettings(); }
  // The page opened on `waves` as a window would open it.
  void Open(ProcessingWizard& w, std::initializer_list<Waveform*> waves) {
    for (Waveform* wave : waves) w.items.push_back(wave);
    w.operationName = "Resample";
    ASSERT_TRUE(w.Open());
    ASSERT_NE(w.CurrentRow(), nullptr);
  }
  Collection c;
};

TEST_F(ResamplePageTest, OneWaveCouplesItsFieldsAndSeveralGoByRate) {
  Waveform* a = Tone(c, "a", 45093, 44100);
  {
    ProcessingWizard w(c);
    Open(w, {a});
    EXPECT_EQ(w.Control(0).number, 45093);  // the wave's own length and rate
    EXPECT_EQ(w.Control(1).number, 44100);
    ASSERT_EQ(w.pageTexts.size(), 1u);
    EXPECT_EQ(w.pageTexts[0], kResampleHint);
    w.SetControl(1, SettingValue{48000, {}});
    EXPECT_EQ(w.Control(0).number, 49081);  // 49080.8 + 0.499
    w.SetControl(0, SettingValue{22546, {}});
    EXPECT_EQ(w.Control(1).number, 22050);  // 22049.5 + 0.499
    w.SetControl(0, SettingValue{0, {}});  // emptied: the other empties too
    EXPECT_EQ(w.Control(1).number, 0);
    w.Finish();
    EXPECT_EQ(w.failed, 1u);  // "Invalid length or frequency specified", shown
    EXPECT_EQ(w.modified, 0u);
  }
  {
    // Back to the same rate: nothing happens and nothing counts.
    ProcessingWizard w(c);
    Open(w, {a});
    w.Finish();
    EXPECT_EQ(w.modified, 0u);
    EXPECT_EQ(w.failed, 0u);
    EXPECT_NE(a->samples16, nullptr);
  }
  {
    // Longer than its rate: the ratio comes from the lengths, and the rate
    // is taken as typed.
    ProcessingWizard w(c);
    Open(w, {a});
    w.SetControl(1, SettingValue{48000, {}});
    w.Finish();
    EXPECT_EQ(w.modified, 1u);
    EXPECT_EQ(a->length, 49081u);
    EXPECT_EQ(a->sampleRate, 48000u);
  }
  // Several waves: 44100 to start with; "Only downsample" skips the waves
  // at or below the new rate.
  Waveform* low = Tone(c, "low", 1000, 22050);
  Waveform* high = Tone(c, "high", 960, 96000);
  {
    ProcessingWizard w(c);
    Open(w, {a, low, high});
    EXPECT_EQ(w.Control(1).number, 44100);
    w.SetControl(3, SettingValue{1, {}});
    w.Finish();
    EXPECT_EQ(w.modified, 2u);
    EXPECT_EQ(a->sampleRate, 44100u);
    EXPECT_EQ(a->length, 45093u);  // trunc(49081 * 0.91875)
    EXPECT_EQ(low->sampleRate, 22050u);
    EXPECT_EQ(high->sampleRate, 44100u);
    EXPECT_EQ(high->length, 441u);
  }
  {
    ProcessingWizard w(c);
    Open(w, {a, low});
    w.SetControl(1, SettingValue{0, {}});
    ClearError();
    w.Finish();
    EXPECT_EQ(w.failed, 1u);
  }
  EXPECT_FALSE(kvResample2(*a, *a, 0.0, 10, 1, 1));
  EXPECT_STREQ(ErrorMessage, "Invalid length or frequency specified");
}

// ---- the corpus through the command line ----

class ResampleCorpus : public ::testing::Test {
 protected:
  test::TempDir dir;
  void SetUp() override {
    MessageBoxesEnabled = 0;
    SetSkippedBoxesQuiet(true);
  }
  int Kelvo(const std::string& args, std::string* said = nullptr) {
    std::string out;
    const int code = test::RunCommand("cd '" + dir.path().string() + "' && KELVO_SETTINGS=settings.ini '" +
                                          KELVO_EXE + "' -NOMSG " + args + " 2>&1",
                                      &out);
    if (said) *said = out;
    return code;
  }
  // Frames and the first loop ("start-end") as libsndfile reads the file.
  std::string Facts(const std::string& name) {
    std::string said, loop;
    if (test::RunCommand("sndfile-info '" + (dir / name).string() + "'", &said) != 0 ||
        test::RunCommand("sndfile-info --instrument '" + (dir / name).string() + "'", &loop) != 0)
      ADD_FAILURE() << "sndfile-info can't read " << name << ": " << said;
    static const std::regex kFrames(R"(Frames\s+:\s+(\d+))"), kLoop(R"(Start :\s+(\d+)\s+End :\s+(\d+))");
    std::smatch f, l;
    std::string text = std::regex_search(said, f, kFrames) ? f[1].str() : "?";
    return text + " " + (std::regex_search(loop, l, kLoop) ? l[1].str() + "-" + l[2].str() : "none");
  }
  std::vector<float> F32(const fs::path& path) {
    const fs::path raw = path.string() + ".f32";
    std::vector<float> out;
    if (!test::RunPeer("sox", "'" + path.string() + "' -t f32 '" + raw.string() + "'")) return out;
    const std::string bytes = test::ReadFile(raw);
    out.resize(bytes.size() / 4);
    std::memcpy(out.data(), bytes.data(), out.size() * 4);
    return out;
  }
};

TEST_F(ResampleCorpus, TrimoLengthsAndLoopsAsLibsndfileReadsThem) {
  if (!test::NeedCorpus() || !test::NeedTool("sndfile-info")) return;
  fs::copy_file(test::CorpusDir() / kTrimo, dir / "in.wav");
  ASSERT_EQ(Kelvo("in.wav --op resample rate=48000 --save up.wav"), 0);
  EXPECT_EQ(Facts("up.wav"), "49081 3886-22244");  // the one-wave path
  ASSERT_EQ(Kelvo("in.wav --op resample rate=22050 algorithm=cubic --save down.wav"), 0);
  EXPECT_EQ(Facts("down.wav"), "22546 1785-10218");

  // resampleToRate gives the truncated length.
  Collection c;
  ASSERT_TRUE(ImportFile(c, dir / "in.wav", false)) << ErrorMessage;
  Waveform* w = c.All<Waveform>().at(0);
  ASSERT_TRUE(w->EnsureData());
  const double sourceClicks = test::ClickRatioDb(*w);
  auto* at48 = Create<Waveform>(c, "48");
  ASSERT_TRUE(resampleToRate(*at48, *w, 48000, 8, &c));
  EXPECT_EQ(at48->length, 49080u);
  EXPECT_EQ(at48->loopStart, 3886.0f);
  EXPECT_EQ(at48->loopEnd, 22244.0f);
  // At 22050 Hz the loop clicks no more than the source's.
  ASSERT_TRUE(resampleToRate(*w, *w, 22050, 8, &c));
  EXPECT_EQ(w->loopStart, 1785.0f);
  EXPECT_EQ(w->loopEnd, 10218.0f);
  EXPECT_LE(test::ClickRatioDb(*w), sourceClicks);
}

TEST_F(ResampleCorpus, TwentyFourBitFilterAgreesWithSoxVeryHigh) {
  if (!test::NeedCorpus() || !test::NeedTool("sox")) return;
  const std::string in = (test::CorpusDir() / kTrimo).string();
  ASSERT_TRUE(test::RunPeer("sox", "'" + in + "' -e floating-point -b 32 '" + (dir / "f.wav").string() + "'"));
  ASSERT_TRUE(test::RunPeer("sox", "'" + (dir / "f.wav").string() + "' '" + (dir / "sox.wav").string() +
                                       "' rate -v 48000"));
  // By rate, as sox goes: the one-wave path's ratio of lengths differs in
  // the sixth digit, which over a second is a fifth of a frame.
  Collection c;
  ASSERT_TRUE(ImportFile(c, dir / "f.wav", false)) << ErrorMessage;
  Waveform* w = c.All<Waveform>().at(0);
  ASSERT_TRUE(resampleToRate(*w, *w, 48000, 7, &c));
  ASSERT_NE(w->samplesF, nullptr);
  const std::vector<float> ours(w->samplesF.get(), w->samplesF.get() + w->SampleCount());
  const std::vector<float> theirs = F32(dir / "sox.wav");
  ASSERT_GT(theirs.size(), 90000u);
  const std::size_t n = std::min(ours.size(), theirs.size());
  double diff = 0, energy = 0;
  for (std::size_t i = 0; i < n; ++i) {
    diff += (double{ours[i]} - theirs[i]) * (double{ours[i]} - theirs[i]);
    energy += double{theirs[i]} * theirs[i];
  }
  const double dB = 10 * std::log10(diff / energy);
  RecordProperty("difference_dB", std::to_string(dB));
  EXPECT_LE(dB, -70.0);
}

}  // namespace
}  // namespace kv
