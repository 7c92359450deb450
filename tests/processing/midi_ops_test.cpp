// The song operations: the table, the exact numbers and texts of the pages,
// and every corpus song through the --op path, checked by mido.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/midi_events.h"
#include "formats/modules/mid.h"
#include "formats/registry.h"
#include "processing/midi_ops.h"
#include "processing/wizard.h"
#include "support/testsupport.h"
#include "ui/processing_cli.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// Every box's text, as a window would have shown it.
std::string g_boxes;
int RecordBox(const std::string& text, const std::string& title, BoxButtons) {
  g_boxes += title + ": " + text + "\n";
  return kBoxOk;
}
const std::string& LastBoxText() { return g_boxes; }

struct SongOps : ::testing::Test {
  void SetUp() override {
    ResetOperationSettings();
    saved = MessageBoxesEnabled;
    MessageBoxesEnabled = 1;
    SetBoxPresenter(RecordBox);
    g_boxes.clear();
  }
  void TearDown() override {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = saved;
  }
  uint8_t saved = 0;
  Song* MakeSong(std::vector<Bytes> tracks, uint16_t division = 96, uint16_t format = 1) {
    Song* song = Create<Song>(c, "Tune");
    song->division = division;
    song->format = format;
    for (Bytes& b : tracks) {
      Track* t = Create<Track>(c, "T");
      t->SetEvents(std::move(b));
      t->parentId = song->id;
      AddChild(*song, t->id);
    }
    return song;
  }
  Track* TrackAt(const Song& s, std::size_t i) { return c.FindAs<Track>(s.children[i]); }
  // Runs an operation by its key on `items` as --op does; the exit code.
  int Op(std::vector<Item*> items, const char* key, std::vector<std::string> settings = {}) {
    return RunOperationRequests(c, items, {OperationRequest{key, settings}}, stdout);
  }
  Collection c;
};

TEST_F(SongOps, TableRowsAndAvailability) {
  uint32_t n = 0;
  const WizardOperation* rows = OperationTable(6, &n);
  ASSERT_EQ(n, 8u);
  const struct {
    const char* name;
    uint32_t page;
    bool songsOnly;
  } want[] = {{"Change tick rate", 380, true},
              {"Compact MIDI file size", 387, false},
              {"Convert MIDI format", 381, true},
              {"Filter MIDI messages", 382, false},
              {"Fix compatibility issues & improve portability", 385, false},
              {"Replace Note-On with velocity 0 with Note-Off", 386, false},
              {"Transpose notes", 383, false},
              {"Trim start and/or length", 384, false}};
  Song* song = MakeSong({{0x00, 0xFF, 0x2F, 0x00}});
  ProcessingWizard onTrack(c), onSong(c), onWave(c);
  onTrack.items.push_back(TrackAt(*song, 0));
  onSong.items.push_back(song);
  onWave.items.push_back(Create<Waveform>(c, "w"));
  for (uint32_t i = 0; i < n; ++i) {
    EXPECT_STREQ(rows[i].name, want[i].name);
    EXPECT_EQ(rows[i].page, want[i].page);
    EXPECT_EQ(rows[i].flags, i == 5 ? kOpNoPage : 0) << rows[i].name;
    EXPECT_EQ(rows[i].available(onTrack), !want[i].songsOnly) << rows[i].name;
    EXPECT_TRUE(rows[i].available(onSong));
    EXPECT_FALSE(rows[i].available(onWave));
  }
  EXPECT_STREQ(AvailabilityName(rows[0].available), "song or collection with songs");
  // A song selection opens the song wizard and lists the rows a track may take.
  onTrack.kind = 8;
  ASSERT_TRUE(onTrack.Open());
  EXPECT_EQ(onTrack.kind, 6);
  EXPECT_EQ(onTrack.ListedRows(), (std::vector<int>{1, 3, 4, 5, 6, 7}));
}

TEST_F(SongOps, TickRateCarriesItsRoundingAndSkipsFrameDivisions) {
  // 96 -> 480: a delta of 1 gives 5; 96 -> 100 carries the rounding error.
  Song* song = MakeSong({{0x01, 0x90, 60, 100, 0x00, 0xFF, 0x2F, 0x00}});
  EXPECT_EQ(Op({song}, "tick-rate", {"to=480"}), 0);
  EXPECT_EQ(song->division, 480);
  EXPECT_EQ(TrackAt(*song, 0)->Events(), (Bytes{0x05, 0x90, 60, 100, 0x00, 0xFF, 0x2F, 0x00}));
  Bytes out;
  RescaleTrackTicks(Bytes{0x01, 0xC0, 1, 0x01, 0xC0, 2, 0x01, 0xC0, 3, 0x01, 0xC0, 4}, 1.5, out);
  EXPECT_EQ(out, (Bytes{0x02, 0xC0, 1, 0x01, 2, 0x02, 3, 0x01, 4, 0x00, 0xFF, 0x2F, 0x00}));
  // The present rate and a frame-based division leave the song alone.
  const Bytes before = TrackAt(*song, 0)->Events();
  EXPECT_EQ(Op({song}, "tick-rate", {"to=480"}), 0);
  song->division = 0xE728;  // 25 frames of 40 ticks
  EXPECT_EQ(Op({song}, "tick-rate", {"to=96"}), 0);
  EXPECT_EQ(song->division, 0xE728);
  EXPECT_EQ(TrackAt(*song, 0)->Events(), before);
  EXPECT_NE(LastStatusText().find("No items were modified"), std::string::npos);
}

TEST_F(SongOps, TransposeFilterAndNoteOffEdges) {
  // Key 120 + 12 leaves 0..127: the note and its Note Off go, their deltas
  // passed on; channel index 9 stays when spared.
  const Bytes notes = {0x00, 0x90, 120, 100, 0x00, 0x99, 120, 100, 0x10, 0x80, 120, 0, 0x00, 0x89, 120, 0,
                       0x00, 0xFF, 0x2F, 0x00};
  Song* song = MakeSong({notes});
  EXPECT_EQ(Op({song}, "transpose", {"semitones=12", "nodrums=on"}), 0);
  EXPECT_EQ(TrackAt(*song, 0)->Events(), (Bytes{0x00, 0x99, 120, 100, 0x10, 0x89, 120, 0, 0x00, 0xFF, 0x2F, 0x00}));
  EXPECT_EQ(Op({song}, "transpose", {"semitones=128"}), 1);
  EXPECT_STREQ(ErrorMessage, "");  // shown and cleared by the frame
  ProcessingWizard w(c);
  w.items.push_back(song);
  OperationSetting(OperationTable(6)[6].controls[0]).number = 128;
  w.run("Transpose notes", true);
  EXPECT_EQ(w.failed, 1u);
  EXPECT_NE(LastBoxText().find("The transpose value must be in the range of -127..127 semi-tones!"), std::string::npos);

  // Filter: 5 to 3 is refused; 2..2 keeps channel index 1 and the rest.
  EXPECT_EQ(Op({song}, "filter", {"from=5", "to=3"}), 1);
  EXPECT_NE(LastBoxText().find("Invalid channel range"), std::string::npos);
  Song* mixed = MakeSong({{0x00, 0xF0, 0x02, 0x7E, 0xF7, 0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20, 0x00, 0xFF, 0x01,
                           0x01, 'x', 0x00, 0xFF, 0x03, 0x01, 'n', 0x05, 0xA1, 60, 9, 0x05, 0xD1, 9, 0x05, 0x92, 60,
                           1, 0x05, 0x91, 60, 1, 0x00, 0xFF, 0x2F, 0x00}});
  EXPECT_EQ(Op({mixed}, "filter", {"sysex=on", "meta=on", "aftertouch=on", "from=2", "to=2"}), 0);
  EXPECT_EQ(TrackAt(*mixed, 0)->Events(), (Bytes{0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20, 0x00, 0xFF, 0x03, 0x01,
                                                 'n', 0x14, 0x91, 60, 1, 0x00, 0xFF, 0x2F, 0x00}));

  // Velocity 0 becomes a Note Off with the same delta and channel; running
  // status is spelled out again where the status byte changes.
  Song* offs = MakeSong({{0x00, 0x93, 60, 100, 0x7F, 60, 0, 0x00, 0xFF, 0x2F, 0x00}});
  EXPECT_EQ(Op({offs}, "note-off"), 0);
  EXPECT_EQ(TrackAt(*offs, 0)->Events(), (Bytes{0x00, 0x93, 60, 100, 0x7F, 0x83, 60, 0, 0x00, 0xFF, 0x2F, 0x00}));
  EXPECT_EQ(Op({offs}, "note-off"), 0);
  EXPECT_NE(LastStatusText().find("No items were modified"), std::string::npos);
}

TEST_F(SongOps, CompactDropsRepeatsOnlyOfStateMessages) {
  const Bytes t = {0x00, 0xB0, 7, 100, 0x01, 0xB0, 7, 100,  // the second volume goes, its delta passed on
                   0x00, 0xB0, 6, 1, 0x00, 0xB0, 6, 1,      // data entry stays
                   0x00, 0xC0, 5, 0x00, 0xC0, 5, 0x02, 0xE0, 0, 64, 0x00, 0xE0, 0, 64, 0x00, 0xB0, 121, 0,
                   0x00, 0xB0, 7, 100,                      // after a reset it counts again
                   0x00, 0x80, 60, 64, 0x00, 0xFF, 0x2F, 0x00};
  Song* song = MakeSong({t});
  EXPECT_EQ(Op({song}, "compact", {"duplicates=on", "noteon=on"}), 0);
  EXPECT_EQ(TrackAt(*song, 0)->Events(),
            (Bytes{0x00, 0xB0, 7, 100, 0x01, 6, 1, 0x00, 6, 1, 0x00, 0xC0, 5, 0x02, 0xE0, 0, 64, 0x00, 0xB0, 121, 0,
                   0x00, 7, 100, 0x00, 0x90, 60, 0, 0x00, 0xFF, 0x2F, 0x00}));
}

TEST_F(SongOps, FixAddsBankLsbAndProgramAndZeroesUnknownBanks) {
  // Channel 0: CC0 1 + program 38 (a GS variation: stays), then CC0 99 +
  // program 5 (unknown: its bank byte zeroed); channel 1 a note without a
  // program: program 0 placed before it with its delta.
  const Bytes t = {0x00, 0xB0, 0, 1, 0x00, 0xC0, 38, 0x00, 0xB0, 0, 99, 0x00, 0xC0, 5, 0x10, 0x91, 60, 100,
                   0x00, 0xFF, 0x2F, 0x00};
  Song* song = MakeSong({t});
  EXPECT_EQ(Op({song}, "fix-compatibility"), 0);
  EXPECT_EQ(TrackAt(*song, 0)->Events(),
            (Bytes{0x00, 0xB0, 0, 1, 0x00, 32, 0, 0x00, 0xC0, 38, 0x00, 0xB0, 0, 0, 0x00, 32, 0, 0x00, 0xC0, 5, 0x10,
                   0xC1, 0, 0x00, 0x91, 60, 100, 0x00, 0xFF, 0x2F, 0x00}));
  // An instrument of the collection at bank 99 keeps the bytes.
  Song* again = MakeSong({t});
  Create<Instrument>(c, "Odd")->location = MakeLocation(99, 0, 5, false);
  EXPECT_EQ(Op({again}, "fix-compatibility", {"banklsb=off", "program=off"}), 0);
  EXPECT_EQ(TrackAt(*again, 0)->Events()[10], 99);
  EXPECT_TRUE(InStandardSet(MakeLocation(2, 0, 102, false)));
  EXPECT_FALSE(InStandardSet(MakeLocation(2, 0, 101, false)));
  // Lasergun ends bank 2; Funk Gt.2 and Elec Perc. are variations too.
  EXPECT_TRUE(InStandardSet(MakeLocation(2, 0, 127, false)));
  EXPECT_TRUE(InStandardSet(MakeLocation(16, 0, 28, false)));
  EXPECT_TRUE(InStandardSet(MakeLocation(9, 0, 118, false)));
  EXPECT_FALSE(InStandardSet(MakeLocation(9, 0, 117, false)));
  EXPECT_TRUE(InStandardSet(MakeLocation(0, 0, 25, true)));
  EXPECT_FALSE(InStandardSet(MakeLocation(0, 1, 0, false)));
}

TEST_F(SongOps, FormatsAndTrimOnSmallSongs) {
  // Format 0 -> 1: the control events first, then one track per channel.
  Song* song = MakeSong({{0x00, 0xFF, 0x03, 0x01, 'A', 0x00, 0x92, 60, 1, 0x00, 0x90, 61, 1, 0x10, 0x82, 60, 0,
                          0x00, 0xFF, 0x2F, 0x00}},
                        96, 0);
  EXPECT_EQ(Op({song}, "midi-format", {"format=1"}), 0);
  ASSERT_EQ(song->children.size(), 3u);
  EXPECT_EQ(song->format, 1);
  EXPECT_EQ(TrackAt(*song, 0)->Name(), "Control Track");
  EXPECT_EQ(TrackAt(*song, 1)->Name(), "Track 1");
  EXPECT_EQ(TrackAt(*song, 2)->Events(), (Bytes{0x00, 0x92, 60, 1, 0x10, 0x82, 60, 0, 0x00, 0xFF, 0x2F, 0x00}));
  EXPECT_EQ(Op({song}, "midi-format", {"format=0"}), 0);
  ASSERT_EQ(song->children.size(), 1u);
  EXPECT_EQ(TrackAt(*song, 0)->Name(), "Combined track");
  EXPECT_EQ(TrackAt(*song, 0)->EventCount(), 5u);

  // Trim: the first note at tick 96 is the cut; the program before it moves
  // to 0, the note begun before it goes with its Note Off; a length of 0.75
  // seconds (144 ticks at 120 bpm) ends the note then sounding.
  Song* trim = MakeSong({{0x00, 0xC0, 5, 0x00, 0xC0, 7, 0x20, 0x90, 50, 0, 0x40, 0x91, 62, 90, 0x20, 0x81, 62, 0,
                          0x40, 0x90, 64, 90, 0x83, 0x00, 0xFF, 0x2F, 0x00}},
                        96, 0);
  EXPECT_EQ(Op({trim}, "trim-song", {"length=on", "length-seconds=0.75"}), 0);
  EXPECT_EQ(TrackAt(*trim, 0)->Events(), (Bytes{0x00, 0xC0, 7, 0x00, 0x91, 62, 90, 0x20, 0x81, 62, 0, 0x40, 0x90,
                                                64, 90, 0x30, 0x80, 64, 0, 0x00, 0xFF, 0x2F, 0x00}));
  EXPECT_EQ(Op({trim}, "trim-song", {"length-seconds=0"}), 1);
  EXPECT_NE(LastBoxText().find("The crop length must be larger than 0!"), std::string::npos);
  EXPECT_EQ(OperationSetting(OperationTable(6)[7].controls[4]).number, 1.0);
}

TEST_F(SongOps, MalformedTracksEndAndGrowBoundedly) {
  // Truncated events, a quantity of four continued bytes, a huge length, a
  // tempo of 0: every operation ends, and Fix adds at most two events per
  // channel message.
  const Bytes bad = {0xFF, 0xFF, 0xFF, 0xFF, 0x90, 60, 100, 0x00, 0xFF, 0x51, 0x03, 0, 0, 0, 0x00, 0xB0, 0,
                     5, 0x00, 0xF0, 0xFF, 0xFF, 0xFF, 0x7F, 0x01};
  for (const char* key : {"tick-rate", "compact", "midi-format", "filter", "fix-compatibility", "note-off",
                          "transpose", "trim-song"}) {
    Song* song = MakeSong({bad, {0x00, 0x90}, {}}, 96, 1);
    Op({song}, key, std::strcmp(key, "trim-song") == 0 ? std::vector<std::string>{"length=on"}
                                                       : std::vector<std::string>{});
    for (ItemId id : song->children) {
      const Track* t = c.FindAs<Track>(id);
      EXPECT_EQ(CountTrackEvents(t->Events()), t->EventCount()) << key;
      EXPECT_LT(t->Events().size(), 3 * bad.size() + 64) << key;
    }
  }
}

// ---- the corpus, checked by mido ----

const char* const kCheck = R"PY(
import mido, sys
mode, a, b = sys.argv[1], sys.argv[2], sys.argv[3]
A = mido.MidiFile(a, clip=True)
B = mido.MidiFile(b, clip=True)
def absolute(track):
    t = 0
    out = []
    for m in track:
        t += m.time
        out.append((t, str(m.copy(time=0))))
    return out
def expect(want, got, what):
    if want != got:
        for i, (x, y) in enumerate(zip(want, got)):
            if x != y:
                print(what, 'differs at', i, x, y)
                break
        else:
            print(what, 'lengths', len(want), len(got))
if mode.startswith('transpose'):
    spare = mode == 'transpose-spare'
    for n, (ta, tb) in enumerate(zip(A.tracks, B.tracks)):
        want = []
        t = 0
        for m in ta:
            t += m.time
            m = m.copy(time=0)
            if m.type in ('note_on', 'note_off', 'polytouch') and not (spare and m.channel == 9):
                if m.note + 12 > 127:
                    continue
                m = m.copy(note=m.note + 12)
            want.append((t, str(m)))
        expect(want, absolute(tb), 'track %d' % n)
elif mode == 'note-off':
    for n, (ta, tb) in enumerate(zip(A.tracks, B.tracks)):
        want = [(t, s.replace('note_on', 'note_off') if 'note_on' in s and 'velocity=0 ' in s + ' ' else s)
                for t, s in absolute(ta)]
        expect(want, absolute(tb), 'track %d' % n)
elif mode == 'filter':
    for n, (ta, tb) in enumerate(zip(A.tracks, B.tracks)):
        want = []
        t = 0
        for m in ta:
            t += m.time
            if m.type in ('sysex', 'aftertouch', 'polytouch'):
                continue
            if m.is_meta and m.type not in ('set_tempo', 'track_name', 'end_of_track'):
                continue
            want.append((t, str(m.copy(time=0))))
        expect(want, absolute(tb), 'track %d' % n)
elif mode == 'format0':
    expect(absolute(mido.merge_tracks(A.tracks)), absolute(B.tracks[0]), 'merged')
    if len(B.tracks) != 1: print('tracks', len(B.tracks))
elif mode == 'format1':
    for n, t in enumerate(B.tracks):
        if len(set(m.channel for m in t if hasattr(m, 'channel'))) > 1: print('track', n, 'has several channels')
    expect(sorted(absolute(mido.merge_tracks(A.tracks))), sorted(absolute(mido.merge_tracks(B.tracks))), 'merged back')
elif mode == 'same':
    for n, (ta, tb) in enumerate(zip(A.tracks, B.tracks)):
        expect(absolute(ta), absolute(tb), 'track %d' % n)
elif mode.startswith('length'):
    cut = float(mode.split(':')[1])
    tick = max(m.tempo for t in A.tracks for m in t if m.type == 'set_tempo') * 1e-6 / A.ticks_per_beat
    if abs((A.length - cut) - B.length) > tick + 1e-9: print('length', A.length, cut, B.length)
print('checked')
)PY";

struct CorpusSong {
  fs::path path;
  Collection c;
  Song* song = nullptr;
};

bool Load(const fs::path& path, Collection& c, Song*& song) {
  FileRef file;
  if (!file.OpenRead(path) || !mid_Read(c, file, 0)) return false;
  const auto songs = c.All<Song>();
  song = songs.empty() ? nullptr : songs[0];
  return song != nullptr;
}

bool Save(Song& song, const fs::path& path) {
  FileRef out;
  ExportRequest request;
  return out.OpenWrite(path) && mid_Exp(song, out, request);
}

TEST_F(SongOps, CorpusSongsAsMidoSeesThem) {
  if (!test::NeedCorpus()) return;
  const std::string python = test::MidoPython();
  if (python.empty()) return;
  test::TempDir dir;
  test::WriteFile(dir / "check.py", kCheck);
  struct Case {
    const char* mode;
    std::vector<OperationRequest> ops;
  };
  const std::vector<Case> cases = {
      {"transpose", {{"transpose", {"semitones=12", "nodrums=off"}}}},
      {"transpose-spare", {{"transpose", {"semitones=12", "nodrums=on"}}}},
      {"note-off", {{"note-off", {}}}},
      {"filter", {{"filter", {"sysex=on", "meta=on", "aftertouch=on"}}}},
      {"format0", {{"midi-format", {"format=0"}}}},
      {"format1", {{"midi-format", {"format=0"}}, {"midi-format", {"format=1"}}}},
      {"same", {{"tick-rate", {"to=192"}}, {"tick-rate", {"to=384"}}, {"tick-rate", {"to=192"}}}},
      {"length:2.5", {{"trim-song", {"first-note=off", "cut=on", "cut-seconds=2.5"}}}},
  };
  int files = 0;
  for (const auto& entry : fs::directory_iterator(test::CorpusDir() / "midi")) {
    const fs::path file = entry.path();
    if (file.extension() != ".mid" && file.extension() != ".kar") continue;
    for (const Case& k : cases) {
      Collection local;
      Song* song = nullptr;
      ASSERT_TRUE(Load(file, local, song)) << file;
      // The tick rate round trip starts from 192 ticks a quarter.
      if (std::string(k.mode) == "same" && song->division != 192) continue;
      EXPECT_EQ(RunOperationRequests(local, {song}, k.ops, stdout), 0) << file << " " << k.mode;
      const fs::path out = dir / "out.mid";
      ASSERT_TRUE(Save(*song, out));
      std::string said;
      test::RunCommand(python + " '" + (dir / "check.py").string() + "' '" + k.mode + "' '" + file.string() + "' '" +
                           out.string() + "' 2>&1",
                       &said);
      EXPECT_EQ(said, "checked\n") << file << " " << k.mode;
    }
    ++files;
  }
  EXPECT_GE(files, 6);
}

// On the command line with a bank loaded beside the song: a made-up bank
// select that neither the bank nor the standard set has is zeroed, GS
// variations 1 and 2 of listed programs stay, and the status line tells.
TEST_F(SongOps, FixWithABankLoadedOnTheCommandLine) {
  const fs::path bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(fs::exists(bank), "TimGM6mb.sf2 (timgm6mb-soundfont)")) return;
  test::TempDir dir;
  std::string smf("MThd\0\0\0\6\0\0\0\1\0\x60", 14);
  Bytes body;
  const uint8_t banks[][2] = {{99, 5}, {1, 38}, {2, 102}};
  for (int ch = 0; ch < 3; ++ch)
    body.insert(body.end(), {0x00, uint8_t(0xB0 | ch), 0, banks[ch][0], 0x00, uint8_t(0xC0 | ch), banks[ch][1], 0x00,
                             uint8_t(0x90 | ch), 60, 90, 0x60, uint8_t(0x80 | ch), 60, 0});
  body.insert(body.end(), {0x00, 0xFF, 0x2F, 0x00});
  smf += "MTrk";
  for (int shift : {24, 16, 8, 0}) smf += static_cast<char>(body.size() >> shift);
  smf.append(body.begin(), body.end());
  test::WriteFile(dir / "bank.mid", smf);
  std::string out;
  ASSERT_EQ(test::RunCommand("cd '" + dir.path().string() + "' && XDG_CONFIG_HOME=. '" KELVO_EXE "' -NOMSG bank.mid '" +
                                 bank.string() + "' --op fix-compatibility --save fixed.mid 2>&1",
                             &out),
            0)
      << out;
  EXPECT_NE(out.find("Processed 1 item with Fix compatibility issues & improve portability"), std::string::npos) << out;
  Collection back;
  Song* song = nullptr;
  ASSERT_TRUE(Load(dir / "fixed.mid", back, song));
  std::vector<int> msb;
  MidiEventCursor cursor(back.FindAs<Track>(song->children[0])->Events());
  MidiEvent e;
  while (cursor.Next(e))
    if (e.status == 0xB0 && e.data1 == 0) msb.push_back(e.data2);
  EXPECT_EQ(msb, (std::vector<int>{0, 1, 2}));
}

// FluidSynth renders the rewritten songs sample for sample as the sources:
// compaction, both format changes, the fixes (program 0 is its default) and
// the velocity-0 replacement change nothing a synthesizer plays.
TEST_F(SongOps, RewrittenSongsRenderAsTheSourcesInFluidSynth) {
  if (!test::NeedCorpus() || !test::NeedTool("fluidsynth")) return;
  const fs::path bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(fs::exists(bank), "TimGM6mb.sf2 (timgm6mb-soundfont)")) return;
  test::TempDir dir;
  auto render = [&](const fs::path& song, const fs::path& raw) {
    EXPECT_EQ(test::RunCommand("fluidsynth -ni -q -g 0.5 -r 44100 -T raw -F '" + raw.string() + "' '" +
                               bank.string() + "' '" + song.string() + "' >/dev/null 2>&1"),
              0);
    return test::ReadFile(raw);
  };
  const std::vector<std::vector<OperationRequest>> variants = {
      {{"compact", {"duplicates=on", "noteon=on"}}},
      {{"midi-format", {"format=0"}}},
      {{"midi-format", {"format=0"}}, {"midi-format", {"format=1"}}},
      {{"fix-compatibility", {"banklsb=on", "program=on", "nosysex=off", "noteoff=on"}}},
      {{"note-off", {}}},
  };
  for (const char* name : {"pianobooster-02-LavendersBlue.mid"}) {
    const fs::path source = test::CorpusDir() / "midi" / name;
    const std::string want = render(source, dir / "source.raw");
    ASSERT_GT(want.size(), 100000u) << name;
    for (std::size_t v = 0; v < variants.size(); ++v) {
      Collection local;
      Song* song = nullptr;
      ASSERT_TRUE(Load(source, local, song)) << name;
      EXPECT_EQ(RunOperationRequests(local, {song}, variants[v], stdout), 0);
      ASSERT_TRUE(Save(*song, dir / "out.mid"));
      EXPECT_TRUE(render(dir / "out.mid", dir / "out.raw") == want) << name << " variant " << v;
    }
  }
}

}  // namespace
}  // namespace kv
