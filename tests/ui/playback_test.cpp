// The live path end to end on the null device: the player's timer, its
// lookahead and the engine's ring must put every note where the offline
// render puts it, at the same loudness.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/settings.h"
#include "core/wavestore.h"
#include "ui/commands.h"
#include "support/render.h"
#include "support/testsupport.h"
#include "synth/player.h"
#include "ui/playback_cli.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// Frames where the level first rises above `threshold` after each quiet gap
// of 0.1 s or more.
std::vector<std::size_t> Onsets(const std::vector<float>& stereo, float threshold) {
  std::vector<std::size_t> onsets;
  std::size_t quiet = 48000;
  for (std::size_t i = 0; i < stereo.size() / 2; ++i) {
    const float level = std::max(std::fabs(stereo[2 * i]), std::fabs(stereo[2 * i + 1]));
    if (level > threshold) {
      if (quiet >= 4800) onsets.push_back(i);
      quiet = 0;
    } else {
      ++quiet;
    }
  }
  return onsets;
}

double RmsDb(const std::vector<float>& stereo, std::size_t from, std::size_t frames) {
  double sum = 0;
  for (std::size_t i = 2 * from; i < 2 * (from + frames) && i < stereo.size(); ++i) sum += stereo[i] * stereo[i];
  return 10 * std::log10(sum / (2.0 * frames) + 1e-30);
}

TEST(Playback, NullDeviceMatchesTheOfflineRender) {
  const fs::path bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(fs::exists(bank), "timgm6mb-soundfont")) return;
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  ResetSettings();
  test::TempDir dir;
  // Short piano notes 0.4 s apart after a lead-in; 960 ticks a second.
  test::SmfTrack t;
  t.Event(0, {0xC0, 0});
  uint32_t gap = 288;
  for (int i = 0; i < 5; ++i) {
    t.Event(gap, {0x90, 60 + 2 * i, 100});
    t.Event(96, {0x80, 60 + 2 * i, 0});
    gap = 288;
  }
  test::WriteFile(dir.path() / "song.mid", t.File(96));
  ASSERT_TRUE(OpenFile(dir.path() / "song.mid", OpenMode::Replace, false)) << ErrorMessage;
  ASSERT_TRUE(OpenFile(bank, OpenMode::Merge, false)) << ErrorMessage;
  Collection& c = MainCollection();
  ASSERT_EQ(c.All<Song>().size(), 1u);
  Song* song = c.All<Song>().front();

  Waveform* offline = RenderSongToWave(c, *song);
  ASSERT_NE(offline, nullptr) << ErrorMessage;
  const float* data = SamplesFloat(*offline);
  ASSERT_NE(data, nullptr);
  const std::vector<float> a(data, data + 2 * std::size_t{offline->length});

  std::vector<float> b;
  PlaybackOptions live;
  live.play = true;
  live.device = "null";
  live.capture = &b;
  ASSERT_EQ(RunPlaybackOptions(live, c, song), 0) << ErrorMessage;

  const auto onA = Onsets(a, 1e-3f), onB = Onsets(b, 2.5e-3f);
  ASSERT_EQ(onA.size(), 5u);
  ASSERT_EQ(onB.size(), 5u);
  // The live capture starts before the song; the offline one at its first note.
  for (std::size_t i = 1; i < 5; ++i) {
    const auto da = static_cast<long>(onA[i] - onA[0]), db = static_cast<long>(onB[i] - onB[0]);
    EXPECT_LE(std::labs(da - db), 128) << "note " << i << ": " << da << " frames offline, " << db << " live";
  }
  // Loudness of the whole, over the same stretch: the audition gain is 2.5
  // times the render's (7.96 dB), and nothing else may differ.
  const std::size_t frames = std::min(a.size() / 2 - onA[0], b.size() / 2 - onB[0]);
  const double diff = RmsDb(b, onB[0], frames) - RmsDb(a, onA[0], frames);
  std::printf("live - offline: %.3f dB\n", diff);
  EXPECT_NEAR(diff, 20 * std::log10(2.5), 0.5);
}

}  // namespace
}  // namespace kv
