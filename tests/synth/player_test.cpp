// Songs flattened into timed command words: the default and changing tempo,
// frame-based divisions, GS rhythm parts, ties between tracks, the trimmed
// lead-in and the instruments a song asks for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "synth/player.h"

namespace kv {
namespace {

std::vector<uint8_t> Bytes(std::initializer_list<int> b) {
  std::vector<uint8_t> v;
  for (int x : b) v.push_back(static_cast<uint8_t>(x));
  return v;
}

Song* MakeSong(Collection& c, uint16_t division, std::initializer_list<std::vector<uint8_t>> tracks) {
  auto* song = Create<Song>(c, "Song");
  song->format = 1;
  song->division = division;
  for (const auto& body : tracks) {
    auto* t = Create<Track>(c, "T");
    t->parentId = song->id;
    AddChild(*song, t->id);
    t->SetEvents(body);
  }
  return song;
}

TEST(SongFlatten, TempoDefaultsAndChanges) {
  Collection c;
  // 96 ticks a quarter; a note at tick 96, a tempo change to 250000 at tick
  // 192, another note at 288; the track ends at 384.
  Song* s = MakeSong(c, 96,
                     {Bytes({0x60, 0x90, 60, 100, 0x60, 0xFF, 0x51, 3, 0x03, 0xD0, 0x90, 0x60, 0x90, 62, 100, 0x60,
                             0xFF, 0x2F, 0})});
  FlatSong flat;
  ASSERT_TRUE(FlattenSong(*s, flat));
  ASSERT_EQ(flat.events.size(), 3u);
  EXPECT_DOUBLE_EQ(flat.events[0].seconds, 0.5);   // one quarter at 500000 us
  EXPECT_DOUBLE_EQ(flat.events[1].seconds, 1.25);  // 0.5 + 0.5 + a quarter at 250000
  EXPECT_DOUBLE_EQ(flat.EndSeconds(), 1.5);
  EXPECT_EQ(flat.events[1].word, MakeMidiWord(0x90, 0, 62, 100));
  TrimLeadIn(flat);
  EXPECT_DOUBLE_EQ(flat.events[0].seconds, 0.0);
  EXPECT_DOUBLE_EQ(flat.events[1].seconds, 0.75);
  EXPECT_DOUBLE_EQ(flat.EndSeconds(), 1.0);

  // 25 frames of 40 ticks: a tick is a thousandth of a second, tempo or not.
  Song* frames = MakeSong(c, static_cast<uint16_t>(((256 - 25) << 8) | 40),
                          {Bytes({0x00, 0xFF, 0x51, 3, 0x01, 0x00, 0x00, 0x83, 0x74, 0x90, 60, 100, 0, 0xFF, 0x2F, 0})});
  ASSERT_TRUE(FlattenSong(*frames, flat));
  EXPECT_NEAR(flat.events[0].seconds, 0.5, 1e-12);  // 500 ticks
  // 29 means 29.97 frames a second.
  Song* drop = MakeSong(c, static_cast<uint16_t>(((256 - 29) << 8) | 100),
                        {Bytes({0x81, 0x00, 0x90, 60, 100, 0, 0xFF, 0x2F, 0})});
  ASSERT_TRUE(FlattenSong(*drop, flat));
  EXPECT_NEAR(flat.events[0].seconds, 128.0 / (29.97 * 100), 1e-12);
}

TEST(SongFlatten, TracksMergeInOrderAndGsRhythmPartsBecomeDrums) {
  Collection c;
  // Track 1 sets the tempo at tick 0 and names the rhythm part on part 11;
  // track 2 plays at tick 0 and at tick 48 with track 1's controller at 48.
  const auto gs = Bytes({0x00, 0xF0, 10, 0x41, 0x10, 0x42, 0x12, 0x40, 0x1A, 0x15, 0x02, 0x0F, 0xF7});
  std::vector<uint8_t> first = Bytes({0x00, 0xFF, 0x51, 3, 0x07, 0xA1, 0x20});
  first.insert(first.end(), gs.begin(), gs.end());
  for (int b : {0x30, 0xB0, 7, 90, 0x00, 0xFF, 0x2F, 0}) first.push_back(static_cast<uint8_t>(b));
  Song* s = MakeSong(c, 96, {first, Bytes({0x00, 0x91, 60, 100, 0x30, 0x81, 60, 0, 0x00, 0xFF, 0x2F, 0})});
  FlatSong flat;
  ASSERT_TRUE(FlattenSong(*s, flat));
  ASSERT_EQ(flat.events.size(), 5u);
  EXPECT_EQ(flat.events[0].word, MakeMidiWord(0xB0, 10, 128, 127));  // part 11 is channel 10
  EXPECT_EQ(flat.events[1].word, MakeMidiWord(0x90, 1, 60, 100));
  EXPECT_EQ(flat.events[2].word, MakeMidiWord(0xB0, 0, 7, 90));  // the earlier track first on a tie
  EXPECT_EQ(flat.events[3].word, MakeMidiWord(0x80, 1, 60, 0));
  EXPECT_DOUBLE_EQ(flat.events[3].seconds, 0.25);

  // The instruments: channel 1 plays before any program change (program 0),
  // channel 10 asks for a kit after the rhythm-part message.
  std::vector<uint8_t> programs = Bytes({0x00, 0xCA, 5, 0x00, 0x9A, 40, 100, 0x00, 0xB2, 0, 8, 0x00, 0xC2, 3, 0x00,
                                         0xC2, 3, 0x00, 0xFF, 0x2F, 0});
  s = MakeSong(c, 96, {first, programs, Bytes({0x00, 0x91, 60, 100, 0x00, 0xFF, 0x2F, 0})});
  ASSERT_TRUE(FlattenSong(*s, flat));
  EXPECT_EQ(NeededInstruments(flat), (std::vector<InstrumentKey>{MakeLocation(0, 0, 5, true),
                                                                  MakeLocation(8, 0, 3, false),
                                                                  MakeLocation(0, 0, 0, false)}));
  Song* empty = MakeSong(c, 96, {});
  EXPECT_FALSE(FlattenSong(*empty, flat));
}

TEST(SongFlatten, FormatTwoPatternsPlayMergedWithTheirTempos) {
  Collection c;
  // The second pattern sets 250000 us a quarter at tick 0; merged, it times
  // the first pattern's note too (as a format 1 song's second track wouldn't).
  Song* s = MakeSong(c, 96, {Bytes({0x60, 0x90, 60, 100, 0x00, 0xFF, 0x2F, 0}),
                             Bytes({0x00, 0xFF, 0x51, 3, 0x03, 0xD0, 0x90, 0x60, 0x91, 62, 100, 0x00, 0xFF, 0x2F, 0})});
  s->format = 2;
  FlatSong flat;
  ASSERT_TRUE(FlattenSong(*s, flat));
  ASSERT_EQ(flat.events.size(), 3u);
  EXPECT_DOUBLE_EQ(flat.events[0].seconds, 0.25);
  EXPECT_DOUBLE_EQ(flat.events[1].seconds, 0.25);
  EXPECT_EQ(flat.events[0].word, MakeMidiWord(0x90, 0, 60, 100));  // the first pattern first on a tie
  s->format = 1;
  ASSERT_TRUE(FlattenSong(*s, flat));
  EXPECT_DOUBLE_EQ(flat.events[0].seconds, 0.5);
}

TEST(SongRender, BrokenTracksFailClearlyOrRenderBounded) {
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  Collection c;
  // A note 0x0FFFFFFF ticks away at one tick a quarter and the slowest tempo:
  // some 140 years, past what a wave can hold. It fails before allocating.
  Song* far = MakeSong(c, 1, {Bytes({0x00, 0xFF, 0x51, 3, 0xFF, 0xFF, 0xFF, 0x00, 0x90, 60, 100, 0xFF, 0xFF, 0xFF, 0x7F,
                                     0x80, 60, 0, 0x00, 0xFF, 0x2F, 0})});
  EXPECT_EQ(RenderSongToWave(c, *far), nullptr);
  EXPECT_STREQ(ErrorMessage, "Failed processing MIDI");
  // Running status before any status byte, and a track cut inside a note:
  // whatever they flatten to, the render ends with the list.
  for (const auto& body : {Bytes({0x00, 60, 100, 0x60, 0x90, 62, 100, 0x60, 0x80, 62, 0}), Bytes({0x00, 0x90, 60, 100, 0x60, 0x80, 60})}) {
    Song* s = MakeSong(c, 96, {body});
    FlatSong flat;
    if (!FlattenSong(*s, flat)) continue;
    EXPECT_LT(flat.EndSeconds(), 2.0);
    if (Waveform* wave = RenderSongToWave(c, *s)) {
      EXPECT_LE(wave->length, 2u * 48000u);
    }
  }
}

}  // namespace
}  // namespace kv
