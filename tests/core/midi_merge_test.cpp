// Tracks merged into one: the order at equal ticks, the single End of Track,
// and the corpus against mido's merge_tracks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "core/midi_events.h"
#include "core/midi_merge.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

Bytes Merge(const std::vector<Bytes>& tracks) {
  std::vector<std::span<const uint8_t>> spans(tracks.begin(), tracks.end());
  Bytes out;
  MergeTrackBodies(spans, out);
  return out;
}

TEST(MidiMerge, EqualTicksKeepTrackOrderAndOneEndCloses) {
  // Track 0: tempo at 0, note on at 10 (running status after it), End at 30.
  // Track 1: program at 0, note at 10, End at 50 with no event before it.
  // Track 2: cut short inside an event: what is whole stays.
  const Bytes a = {0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20, 0x0A, 0x90, 60, 100, 0x00, 62, 100, 0x14, 0xFF, 0x2F, 0x00};
  const Bytes b = {0x00, 0xC1, 0x05, 0x0A, 0x91, 64, 90, 0x28, 0xFF, 0x2F, 0x00};
  const Bytes c = {0x05, 0xB2, 0x07, 0x64, 0x00, 0x92};
  const Bytes want = {0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20, 0x00, 0xC1, 0x05, 0x05, 0xB2, 0x07, 0x64,
                      0x05, 0x90, 60, 100, 0x00, 62, 100, 0x00, 0x91, 64, 90, 0x28, 0xFF, 0x2F, 0x00};
  EXPECT_EQ(Merge({a, b, c}), want);
  // Nothing to merge still gives a closed track; sources stay as they were.
  EXPECT_EQ(Merge({}), (Bytes{0x00, 0xFF, 0x2F, 0x00}));
  EXPECT_EQ(Merge({Bytes{0x7F, 0xFF, 0x2F, 0x00}}), (Bytes{0x7F, 0xFF, 0x2F, 0x00}));
}

TEST(MidiMerge, SongsOfTheCorpusMergeAsMidoMergesThem) {
  if (!test::NeedCorpus()) return;
  const std::string python = test::MidoPython();
  if (python.empty()) return;
  test::TempDir dir;
  test::WriteFile(dir / "merge.py",
                  "import mido, sys\n"
                  "m = mido.MidiFile(sys.argv[1], clip=True)\n"
                  "t = mido.merge_tracks(m.tracks) if sys.argv[2] == 'merge' else m.tracks[0]\n"
                  "tick = 0\n"
                  "for msg in t:\n"
                  "    tick += msg.time\n"
                  "    print(tick, ' '.join('%02x' % b for b in msg.bytes()))\n");
  int files = 0;
  for (const auto& entry : fs::directory_iterator(test::CorpusDir() / "midi")) {
    const fs::path file = entry.path();
    if (file.extension() != ".mid" && file.extension() != ".kar") continue;
    const std::string smf = test::ReadFile(file);
    std::vector<Bytes> tracks;
    for (std::size_t at = 14; at + 8 <= smf.size();) {
      const uint32_t size = uint32_t(uint8_t(smf[at + 4])) << 24 | uint32_t(uint8_t(smf[at + 5])) << 16 |
                            uint32_t(uint8_t(smf[at + 6])) << 8 | uint8_t(smf[at + 7]);
      if (smf.compare(at, 4, "MTrk") == 0) tracks.emplace_back(smf.begin() + at + 8, smf.begin() + at + 8 + size);
      at += 8 + size;
    }
    const Bytes merged = Merge(tracks);
    EXPECT_EQ(CountTrackEvents(merged) + tracks.size() - 1,
              [&] { uint32_t n = 0; for (auto& t : tracks) n += CountTrackEvents(t); return n; }())
        << file;
    std::string out = smf.substr(0, 8) + std::string("\0\0\0\1\0", 5) + smf.substr(13, 1);
    out[12] = smf[12];
    out += "MTrk";
    for (int shift : {24, 16, 8, 0}) out += static_cast<char>(merged.size() >> shift);
    out.append(merged.begin(), merged.end());
    test::WriteFile(dir / "merged.mid", out);
    std::string theirs, ours;
    EXPECT_EQ(test::RunCommand(python + " '" + (dir / "merge.py").string() + "' '" + file.string() + "' merge", &theirs), 0);
    EXPECT_EQ(test::RunCommand(python + " '" + (dir / "merge.py").string() + "' '" + (dir / "merged.mid").string() + "' one", &ours), 0);
    EXPECT_EQ(ours, theirs) << file;
    ++files;
  }
  EXPECT_GE(files, 6);
}

}  // namespace
}  // namespace kv
