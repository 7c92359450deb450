// Standard MIDI and RIFF-MIDI files: the corpus read and written back byte for
// byte, mido, rifftree and TiMidity++ on what we write, and the stream shapes
// the chunk walkers have to survive.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/text.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/mid.h"
#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

std::string Be16(uint32_t v) { return {static_cast<char>(v >> 8), static_cast<char>(v)}; }
std::string Be32(uint32_t v) { return Be16(v >> 16) + Be16(v & 0xFFFF); }
std::string Le32(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}
std::string Chunk(const std::string& id, const std::string& body) { return id + Be32(body.size()) + body; }
std::string Header(int format, int tracks, int division) {
  return Chunk("MThd", Be16(format) + Be16(tracks) + Be16(division));
}
std::string Meta(int type, const std::string& text, int delta = 0) {
  return std::string(1, static_cast<char>(delta)) + "\xFF" + static_cast<char>(type) +
         static_cast<char>(text.size()) + text;
}
const std::string kEnd = std::string("\x00\xFF\x2F\x00", 4);
const std::string kNote = std::string("\x00\x90\x3C\x40\x60\x80\x3C\x00", 8);
std::string RiffChunk(const std::string& id, const std::string& body) {
  std::string s = id + Le32(body.size()) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
std::string Rmid(const std::string& body) { return "RIFF" + Le32(4 + body.size()) + "RMID" + body; }

int MidRow() { return FindWriterRow("mid", 0x40); }
int RmiRow() { return FindWriterRow("rmi", 0x40); }

struct Loaded {
  std::unique_ptr<Collection> c = std::make_unique<Collection>();
  Song* song = nullptr;
  std::vector<Track*> tracks;
  bool ok = false;
};

Loaded Load(const fs::path& path) {
  Loaded l;
  ClearError();
  l.ok = ImportFile(*l.c, path, false);
  const auto songs = l.c->All<Song>();
  if (songs.size() == 1) {
    l.song = songs[0];
    for (ItemId id : l.song->children)
      if (auto* t = l.c->FindAs<Track>(id)) l.tracks.push_back(t);
  }
  return l;
}
Loaded LoadBytes(const test::TempDir& dir, const std::string& bytes, const std::string& name = "t.mid") {
  test::WriteFile(dir / name, bytes);
  return Load(dir / name);
}

std::string Save(Song& song, int row, const fs::path& path) {
  EXPECT_TRUE(ExportItem(&song, row, path, ExportRequest{}, true)) << ErrorContext << ": " << ErrorMessage;
  return test::ReadFile(path);
}

std::vector<std::string> Names(const Loaded& l) {
  std::vector<std::string> out;
  for (Track* t : l.tracks) out.emplace_back(t->Name());
  return out;
}

// The boxes a load shows, captured.
std::vector<std::string>* g_boxes = nullptr;
class BoxCapture {
 public:
  BoxCapture() : enabled_(MessageBoxesEnabled) {
    g_boxes = &texts;
    MessageBoxesEnabled = 1;
    SetBoxPresenter([](const std::string& text, const std::string&, BoxButtons) {
      g_boxes->push_back(text);
      return kBoxOk;
    });
  }
  ~BoxCapture() {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = enabled_;
    g_boxes = nullptr;
  }
  std::vector<std::string> texts;

 private:
  uint8_t enabled_;
};

TEST(MidCorpus, EveryFileLoadsAsMidoSaysAndSavesByteForByte) {
  if (!test::NeedCorpus()) return;
  test::TempDir dir;
  int files = 0;
  for (const test::ManifestEntry& row : test::Manifest()) {
    if (row.path.rfind("midi/", 0) != 0) continue;
    SCOPED_TRACE(row.path);
    const fs::path path = test::CorpusDir() / row.path;
    const bool rmi = path.extension() == ".rmi";
    const std::string mido = rmi ? "mido 1.2.10 on the data chunk" : "mido 1.2.10";
    Loaded l = [&] {
      // The DLS bank inside the RIFF-MIDI file loads with the song, quietly.
      BoxCapture boxes;
      Loaded loaded = Load(path);
      const bool withDls = row.path.find("with-dls") != std::string::npos;
      EXPECT_EQ(boxes.texts.size(), 0u);
      EXPECT_EQ(loaded.c->Count(ItemType::Instrument), withDls ? 3u : 0u);
      return loaded;
    }();
    ASSERT_TRUE(l.ok) << ErrorContext << ": " << ErrorMessage;
    ASSERT_NE(l.song, nullptr);
    EXPECT_EQ(std::to_string(l.song->format), test::Fact(row.facts, mido, "format")) << row.facts;
    EXPECT_EQ(std::to_string(l.tracks.size()), test::Fact(row.facts, mido, "tracks"));
    EXPECT_EQ(std::to_string(l.song->division), test::Fact(row.facts, mido, "ticks_per_quarter"));
    const std::string saved = Save(*l.song, MidRow(), dir / "out.mid");
    if (!rmi) {
      EXPECT_TRUE(saved == test::ReadFile(path)) << "the saved file differs from the original";
    } else if (row.path == "midi/rmi-plain-data-first.rmi") {
      EXPECT_TRUE(saved == test::ReadFile(test::CorpusDir() / "midi/freedink-dance-format0.mid"));
      EXPECT_STREQ(l.song->name, "Dance");
      EXPECT_NE(std::string(l.song->copyright), "");
    } else {
      EXPECT_EQ(l.song->division, 192);
      EXPECT_STREQ(l.song->name, "Corpus RMI");
    }
    ++files;
  }
  EXPECT_GE(files, 9);
}

TEST(MidCorpus, NotesOfOurFilesCountAsMidoCountsTheOriginals) {
  if (!test::NeedCorpus()) return;
  const std::string python = test::MidoPython();
  if (python.empty()) return;
  test::TempDir dir;
  const fs::path script = dir / "notes.py";
  test::WriteFile(script,
                  "import mido, sys\n"
                  "m = mido.MidiFile(sys.argv[1])\n"
                  "print(sum(1 for t in m.tracks for x in t if x.type == 'note_on' and x.velocity > 0))\n");
  for (const test::ManifestEntry& row : test::Manifest()) {
    if (row.path.rfind("midi/", 0) != 0) continue;
    SCOPED_TRACE(row.path);
    Loaded l = Load(test::CorpusDir() / row.path);
    ASSERT_NE(l.song, nullptr);
    for (int r : {MidRow(), RmiRow()}) {
      const fs::path out = dir / (r == MidRow() ? "n.mid" : "n.rmi");
      Save(*l.song, r, out);
      // mido reads RIFF-MIDI only through its data chunk; ours holds the same SMF.
      fs::path smf = out;
      if (r == RmiRow()) {
        const std::string bytes = test::ReadFile(out);
        ASSERT_EQ(bytes.compare(12, 4, "data"), 0);
        const uint32_t size = static_cast<uint8_t>(bytes[16]) | static_cast<uint8_t>(bytes[17]) << 8 |
                              static_cast<uint8_t>(bytes[18]) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(bytes[19])) << 24;
        smf = dir / "data.mid";
        test::WriteFile(smf, bytes.substr(20, size));
      }
      std::string count;
      ASSERT_EQ(test::RunCommand(python + " '" + script.string() + "' '" + smf.string() + "' 2>&1", &count), 0)
          << count;
      const bool rmi = row.path.ends_with(".rmi");
      EXPECT_EQ(count, test::Fact(row.facts, rmi ? "mido 1.2.10 on the data chunk" : "mido 1.2.10", "note_on(vel>0)") + "\n");
    }
  }
}

TEST(MidParse, TheChunksThatExistAreTheTracks) {
  test::TempDir dir;
  // The header says one track; three follow, with junk chunks between.
  const std::string three = Header(1, 1, 96) + Chunk("MTrk", kNote + kEnd) + Chunk("JUNK", "abc") +
                            Chunk("MTrk", kNote + kEnd) + Chunk("XXXX", "") + Chunk("MTrk", kNote + kEnd);
  Loaded l = LoadBytes(dir, three);
  ASSERT_TRUE(l.ok) << ErrorMessage;
  ASSERT_EQ(l.tracks.size(), 3u);
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Track 01", "Track 01", "Track 02"}));
  const std::string saved = Save(*l.song, MidRow(), dir / "3.mid");
  EXPECT_EQ(saved.substr(10, 2), Be16(3));
  EXPECT_EQ(saved.size(), three.size() - 8 - 3 - 8);

  // A chunk whose size runs past the file ends the walk; what it holds of a
  // track is kept.
  l = LoadBytes(dir, Header(0, 1, 96) + Chunk("MTrk", kNote + kEnd) + "MTrk" + Be32(1000) + kNote);
  ASSERT_TRUE(l.ok);
  ASSERT_EQ(l.tracks.size(), 2u);
  EXPECT_EQ(l.tracks[1]->Events().size(), kNote.size());
  l = LoadBytes(dir, Header(0, 1, 96) + "JUNK" + Be32(0xFFFFFFF0) + Chunk("MTrk", kNote + kEnd));
  ASSERT_TRUE(l.ok);
  EXPECT_EQ(l.tracks.size(), 0u);

  // A header and nothing else is an empty song (which the import's tidying
  // then removes); bodies of four bytes or less are skipped but counted.
  {
    test::WriteFile(dir / "empty.mid", Header(1, 0, 480));
    FileRef file;
    ASSERT_TRUE(file.OpenRead(dir / "empty.mid"));
    Collection c;
    ASSERT_TRUE(mid_Read(c, file, 0));
    ASSERT_EQ(c.All<Song>().size(), 1u);
    EXPECT_EQ(c.All<Song>()[0]->division, 480);
    EXPECT_EQ(c.Count(ItemType::Track), 0u);
  }
  // A skipped first chunk of a format 1 file still made the control track's
  // mark, and nothing took it back.
  l = LoadBytes(dir, Header(1, 2, 96) + Chunk("MTrk", kEnd) + Chunk("MTrk", kNote + kEnd));
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Track 02"}));

  // No header, or a track before the header.
  for (const std::string& bad : {Chunk("MTrk", kNote + kEnd) + Chunk("JUNK", "x"), std::string("MThd")}) {
    FileRef file;
    test::WriteFile(dir / "bad.mid", bad);
    ASSERT_TRUE(file.OpenRead(dir / "bad.mid"));
    Collection c;
    EXPECT_FALSE(mid_Read(c, file, 0));
    EXPECT_STREQ(ErrorContext, "mid_Parse");
    EXPECT_STREQ(ErrorMessage, "Invalid or corrupt Midi file");
  }
  // A track before the header is not the song's.
  test::WriteFile(dir / "late.mid", Chunk("MTrk", kNote + kEnd) + Header(0, 1, 96) + Chunk("MTrk", kNote + kEnd));
  FileRef file;
  ASSERT_TRUE(file.OpenRead(dir / "late.mid"));
  Collection c;
  ASSERT_TRUE(mid_Read(c, file, 0));
  ASSERT_EQ(c.Count(ItemType::Track), 1u);
  EXPECT_STREQ(c.All<Track>()[0]->name, "Master Track");
}

TEST(MidParse, DefaultNamesAndTheTickZeroScan) {
  test::TempDir dir;
  Loaded l = LoadBytes(dir, Header(0, 1, 96) + Chunk("MTrk", kNote + kEnd));
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Master Track"}));

  // Text names a track until a track name overrides it; a name at tick 1 is
  // not looked at, nor anything after it.
  const std::string named = Meta(0x01, "Text one") + Meta(0x01, "Text two") + Meta(0x03, "Named") +
                            Meta(0x03, "Later") + kEnd;
  const std::string textOnly = Meta(0x01, "Text one") + Meta(0x01, "Text two") + kEnd;
  const std::string late = Meta(0x21, "\x02") + Meta(0x00, Be16(7)) + Meta(0x03, "Tick one", 1) + kEnd;
  const std::string badSeq = Meta(0x00, "\x05") + Meta(0x00, Be16(9)) + Meta(0x21, "\x03") + Meta(0x21, "\x04") +
                             Meta(0x02, "(c) nobody") + kEnd;
  l = LoadBytes(dir, Header(1, 4, 96) + Chunk("MTrk", named) + Chunk("MTrk", textOnly) + Chunk("MTrk", late) +
                         Chunk("MTrk", badSeq));
  ASSERT_EQ(l.tracks.size(), 4u);
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Named", "Text one", "Track 02", "Track 03"}));
  EXPECT_EQ(l.tracks[2]->channelGroup, 2);
  EXPECT_EQ(l.tracks[2]->sequenceNumber, 7);
  // A sequence number of the wrong length ends the search for one.
  EXPECT_EQ(l.tracks[3]->sequenceNumber, 0);
  EXPECT_EQ(l.tracks[3]->channelGroup, 3);
  // A file's copyright meta never reaches the song.
  EXPECT_STREQ(l.song->copyright, "");

  // Running status after a meta event runs on the meta status: "\x40\x01B"
  // is a meta event of type 0x40, and a name read after it is still at tick 0.
  const std::string running = std::string("\x00\x91\x3C\x40", 4) + Meta(0x06, "A") + std::string("\x00\x03\x04", 3) +
                              "Late" + kEnd;
  l = LoadBytes(dir, Header(0, 1, 96) + Chunk("MTrk", running));
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Late"}));
  EXPECT_EQ(l.tracks[0]->EventCount(), 4u);
}

TEST(MidParse, FormatTwoTracksArePatterns) {
  test::TempDir dir;
  const std::string t = kNote + kEnd;
  // Sequence numbers by chunk index, one overridden by its own meta.
  Loaded l = LoadBytes(dir, Header(2, 3, 96) + Chunk("MTrk", Meta(0x00, Be16(0)) + t) + Chunk("MTrk", t) +
                                Chunk("MTrk", Meta(0x00, Be16(12)) + t));
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Pattern 00", "Pattern 01", "Pattern 12"}));
  // Several tracks with number 0 are counted as tracks.
  l = LoadBytes(dir, Header(2, 3, 96) + Chunk("MTrk", t) + Chunk("MTrk", Meta(0x00, Be16(0)) + t) +
                         Chunk("MTrk", Meta(0x03, "Kept") + Meta(0x00, Be16(0)) + t) +
                         Chunk("MTrk", Meta(0x00, Be16(0)) + t));
  EXPECT_EQ(Names(l), (std::vector<std::string>{"Track 00", "Track 01", "Kept", "Track 03"}));
}

TEST(MidWrite, TrackBytesGoOutAsStored) {
  test::TempDir dir;
  // No End of Track, running status across a meta event, a key signature with
  // mode byte 255 (players accept it; mido refuses the whole file).
  const std::string odd = std::string("\x00\x90\x3C\x40\x00", 5);
  const std::string key = Meta(0x59, std::string("\x00\xFF", 2)) + kNote + kEnd;
  const std::string file = Header(1, 2, 0xE728) + Chunk("MTrk", odd) + Chunk("MTrk", key);
  Loaded l = LoadBytes(dir, file);
  ASSERT_EQ(l.tracks.size(), 2u);
  EXPECT_EQ(l.song->division, 0xE728);
  EXPECT_EQ(Save(*l.song, MidRow(), dir / "o.mid"), file);

  // Nothing to write.
  Collection empty;
  FileRef out;
  ASSERT_TRUE(out.OpenWrite(dir / "none.mid"));
  ExportRequest request;
  EXPECT_FALSE(mid_Exp(empty, out, request));
  EXPECT_STREQ(ErrorContext, "mid_Exp");
  EXPECT_STREQ(ErrorMessage, "The file format can not save this item");
  EXPECT_FALSE(rmid_Exp(empty, out, request));
  EXPECT_STREQ(ErrorContext, "rmid_Exp");
  EXPECT_STREQ(ErrorMessage, "The file format can not save this item");
}

TEST(Rmid, TextsComeOnlyAfterTheDataAndGoOutPadded) {
  test::TempDir dir;
  const std::string smf = Header(0, 1, 96) + Chunk("MTrk", std::string("\x00\x90\x3C\x40\x00", 5));  // 27 bytes
  const std::string info =
      RiffChunk("LIST", "INFO" + RiffChunk("INAM", std::string("Tune\0", 5)) + RiffChunk("IART", std::string("Me\0", 3)));
  Loaded first = LoadBytes(dir, Rmid(RiffChunk("LIST", "INFO" + RiffChunk("INAM", std::string("Lost\0", 5))) +
                                     RiffChunk("data", smf)),
                           "a.rmi");
  ASSERT_TRUE(first.ok) << ErrorMessage;
  EXPECT_STREQ(first.song->name, "a");
  Loaded l = LoadBytes(dir, Rmid(RiffChunk("data", smf) + info + RiffChunk("DISP", Le32(1) + "Shown name")), "b.rmi");
  ASSERT_TRUE(l.ok);
  EXPECT_STREQ(l.song->name, "Shown name");
  EXPECT_STREQ(l.song->artist, "Me");

  l.song->SetName("Tune");
  CopyText(l.song->comment, "Odd");
  const std::string out = Save(*l.song, RmiRow(), dir / "o.rmi");
  // The data size is even with its pad, and the pad byte is 1.
  ASSERT_EQ(out.substr(12, 4), "data");
  EXPECT_EQ(out.substr(16, 4), Le32(28));
  EXPECT_EQ(out.substr(20, 27), smf);
  EXPECT_EQ(out[47], '\x01');
  const std::string want_list = "INFO" + std::string("IART") + Le32(4) + std::string("Me\0\0", 4) + "ICMT" + Le32(4) +
                                std::string("Odd\0", 4) + "INAM" + Le32(6) + std::string("Tune\0\0", 6) + "ISFT" +
                                Le32(20) + std::string("Kelvo Studio v12.5\0\0", 20);
  EXPECT_EQ(out.substr(48, 8), "LIST" + Le32(want_list.size()));
  EXPECT_EQ(out.substr(56), want_list);
  EXPECT_EQ(out.substr(0, 8), "RIFF" + Le32(out.size() - 8));

  FileRef file;
  test::WriteFile(dir / "w.rmi", "RIFF" + Le32(4) + "WAVE");
  ASSERT_TRUE(file.OpenRead(dir / "w.rmi"));
  Collection c;
  EXPECT_FALSE(rmid_Imp(c, file, 0));
  EXPECT_STREQ(ErrorContext, "rmid_Imp");
  EXPECT_STREQ(ErrorMessage, "Not a RIFF-RMID file");
}

TEST(Rmid, DeeplyNestedListsEndTheWalkWithoutExhaustingTheStack) {
  test::TempDir dir;
  // About a megabyte of LISTs, each inside the one before.
  constexpr int kDepth = 87000;
  std::string body;
  body.reserve(kDepth * 12 + 64);
  for (int i = 0; i < kDepth; ++i) body += "LIST" + Le32((kDepth - i) * 12 - 8) + "INFO";
  Loaded l = LoadBytes(dir, Rmid(RiffChunk("data", Header(0, 1, 96) + Chunk("MTrk", kNote + kEnd)) + body), "deep.rmi");
  EXPECT_TRUE(l.ok);
  EXPECT_NE(l.song, nullptr);
}

TEST(RmidPeers, RifftreeAndTimidityReadOurFileAsTheMidiFile) {
  if (!test::NeedCorpus() || !test::NeedTool("rifftree") || !test::NeedTool("timidity")) return;
  test::TempDir dir;
  Loaded l = Load(test::CorpusDir() / "midi/pianobooster-02-LavendersBlue.mid");
  ASSERT_NE(l.song, nullptr);
  CopyText(l.song->artist, "Somebody");
  Save(*l.song, RmiRow(), dir / "song.rmi");
  Save(*l.song, MidRow(), dir / "song.mid");
  std::string tree;
  ASSERT_EQ(test::RunCommand("rifftree '" + (dir / "song.rmi").string() + "' 2>&1", &tree), 0) << tree;
  std::string flat;
  for (char ch : tree)
    if (ch != ' ' && ch != '\n') flat += ch;
  EXPECT_EQ(flat, "RIFF(RMID)->data;LIST(INFO)->IART;INAM;ISFT;") << tree;

  const std::string bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(fs::exists(bank), bank + " (timgm6mb-soundfont)")) return;
  std::string renders[2];
  for (int i = 0; i < 2; ++i) {
    const fs::path in = dir / (i ? "song.rmi" : "song.mid"), wav = dir / (i ? "rmi.wav" : "mid.wav");
    std::string log;
    ASSERT_EQ(test::RunCommand("timidity -c /dev/null -x 'soundfont " + bank + "' -Ow -o '" + wav.string() + "' '" +
                                   in.string() + "' 2>&1",
                               &log),
              0)
        << log;
    renders[i] = test::ReadFile(wav);
  }
  EXPECT_GT(renders[0].size(), 100000u);
  EXPECT_TRUE(renders[0] == renders[1]) << "TiMidity++ renders our RIFF-MIDI file unlike the MIDI file";
}

}  // namespace
}  // namespace kv
