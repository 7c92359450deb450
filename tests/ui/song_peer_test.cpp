// Whole songs rendered by us and by FluidSynth with the same bank: the
// loudness course, the long-term spectrum and the note timing must agree.
// The measuring is tests/support/compare_render.py (numpy and soundfile).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "core/sanitizers.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::map<std::string, double> Figures(const std::string& line) {
  std::map<std::string, double> f;
  std::istringstream in(line);
  std::string item;
  while (in >> item)
    if (const auto eq = item.find('='); eq != std::string::npos) f[item.substr(0, eq)] = std::stod(item.substr(eq + 1));
  return f;
}

// Songs still apart from FluidSynth, with the figure measured. FluidR3's
// dance tune and ultimate_run are 5.6-6.3 dB louder here between 630 Hz and
// 2 kHz (filtered zones: the state-variable filter here against FluidSynth's
// biquad); the last 20 s of LavendersBlue on FluidR3 best align at 11 ms,
// its first 20 s at 1 ms, so the notes don't drift but the last onsets are
// softer attacks that line up differently.
struct Open {
  double bandLow = 3.0, lag = 3.0;
};
const std::map<std::string, Open> kOpen = {
    {"FluidR3_GM midi/freedink-dance-format0.mid", {6.8, 3.0}},
    {"FluidR3_GM midi/rmi-plain-data-first.rmi", {6.8, 3.0}},
    {"FluidR3_GM midi/openttd-ultimate_run-ppqn480.mid", {6.1, 3.0}},
    {"FluidR3_GM midi/pianobooster-02-LavendersBlue.mid", {3.0, 12.0}},
};

TEST(SongPeer, CorpusSongsSoundAsFluidSynthRendersThem) {
  if (!test::NeedCorpus() || !test::NeedTool("fluidsynth")) return;
  const std::string python = test::SoundfilePython();
  if (!test::Need(!python.empty(), "python3 with soundfile and numpy")) return;
  const std::string mido = test::MidoPython();
  if (mido.empty()) return;
  const fs::path script = fs::path(KELVO_SOURCE_DIR) / "tests" / "support" / "compare_render.py";
  TempDir dir;
  test::WriteFile(dir / "first.py",
                  "import mido, sys\n"
                  "t = 0\n"
                  "for m in mido.MidiFile(sys.argv[1]):\n"
                  "    t += m.time\n"
                  "    if m.type == 'note_on' and m.velocity > 0:\n"
                  "        print('%.6f' % t)\n"
                  "        break\n");
  int checked = 0;
  // The sanitizer builds, many times slower, hear the songs through one bank.
  const int banks = KV_SANITIZER_ALLOCATOR ? 1 : 2;
  for (const char* bank : {"/usr/share/sounds/sf2/TimGM6mb.sf2", "/usr/share/sounds/sf2/FluidR3_GM.sf2"}) {
    if (checked == 9 * banks) break;
    if (!test::Need(fs::exists(bank), bank)) return;
    for (const test::ManifestEntry& row : test::Manifest()) {
      if (row.path.rfind("midi/", 0) != 0) continue;
      // FluidSynth can't read RIFF-MIDI: it gets the song the data chunk holds.
      std::string smf = row.path;
      if (row.path.ends_with(".rmi"))
        smf = row.path.find("plain") != std::string::npos ? "midi/freedink-dance-format0.mid"
                                                            : "midi/openttd-train_filled_with_cash.mid";
      const std::string name = fs::path(bank).stem().string() + " " + row.path;
      SCOPED_TRACE(name);
      std::string lead, log;
      ASSERT_EQ(test::RunCommand(mido + " '" + (dir / "first.py").string() + "' '" + (test::CorpusDir() / smf).string() + "'",
                                 &lead),
                0);
      ASSERT_EQ(test::RunCommand("cd '" + dir.path().string() + "' && KELVO_SETTINGS='" + (dir / "s.ini").string() + "' '" +
                                     KELVO_EXE + "' -NOMSG '" + (test::CorpusDir() / row.path).string() +
                                     "' --save ours.wav --set mid2wav.bDeleteSilence=0 --set mid2wav.bNormalizePeak=0 --set mid2wav.bEffects=0"
                                     " --set mid2wav.wszGMBank=" + bank + " 2>&1",
                                 &log),
                0)
          << log;
      ASSERT_EQ(test::RunCommand("fluidsynth -ni -R 0 -C 0 -F '" + (dir / "theirs.wav").string() + "' -r 48000 '" + bank +
                                     "' '" + (test::CorpusDir() / smf).string() + "' 2>&1",
                                 &log),
                0)
          << log;
      std::string out;
      ASSERT_EQ(test::RunCommand(python + " '" + script.string() + "' '" + (dir / "ours.wav").string() + "' '" +
                                     (dir / "theirs.wav").string() + "' " + lead,
                                 &out),
                0)
          << out;
      std::printf("%-60s %s", name.c_str(), out.c_str());
      const auto f = Figures(out);
      const auto open = kOpen.find(name);
      const Open limits = open == kOpen.end() ? Open{} : open->second;
      ASSERT_EQ(f.count("lag_last"), 1u) << out;
      // 1 s loudness after one offset: within 3 dB in 90 % of the windows
      // (measured 94-100 %).
      EXPECT_GE(f.at("loud_share"), 0.9);
      // The long-term spectrum up to 2 kHz within 3 dB per third-octave band.
      // Above, FluidSynth runs every zone through a low-pass that the
      // SoundFont's default velocity modulator pulls down from 20 kHz, while
      // a zone at the default cutoff plays unfiltered here; its figure is
      // printed, not held.
      EXPECT_LE(f.at("band_low"), limits.bandLow);
      // No drift: notes fall together at the start and at the end (measured
      // within 1 ms).
      EXPECT_LE(std::fabs(f.at("lag_first")), 3.0);
      EXPECT_LE(std::fabs(f.at("lag_last")), limits.lag);
      ++checked;
    }
  }
  EXPECT_EQ(checked, 9 * banks);
}

}  // namespace
}  // namespace kv
