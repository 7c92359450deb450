// The live player: a seek restores what the song set before that point, the
// timer keeps events a lookahead ahead of the engine and no further, and
// stopping silences every channel.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/items.h"
#include "synth/engine.h"
#include "synth/midi_player.h"

namespace kv {
namespace {

Song* SongOf(Collection& c, std::vector<uint8_t> track) {
  auto* song = Create<Song>(c, "Song");
  song->format = 0;
  song->division = 96;  // a tick is 1/192 s at the default tempo
  auto* t = Create<Track>(c, "T");
  t->parentId = song->id;
  AddChild(*song, t->id);
  t->SetEvents(track);
  return song;
}

// No General MIDI bank here: the songs play with what they have.
struct Quiet {
  Quiet() {
    MessageBoxesEnabled = 0;
    SetSkippedBoxesQuiet(true);
  }
} quiet;

void Render(SynthEngine& engine, int blocks) {
  alignas(16) float block[2 * kSynthBlock];
  for (int i = 0; i < blocks; ++i) engine.RenderBlock(block);
}

TEST(MidiPlayer, SeekRestoresProgramControllersAndBend) {
  Collection c;
  // Tick 0: volume 30, pan 10, bank 1 and program 5 on channel 2; tick 96
  // (0.5 s): CC 121 on channel 3 wipes its volume 20; tick 192: bend.
  // Then a note at 2 s.
  Song* song = SongOf(c, {0x00, 0xB2, 7, 30, 0x00, 0xB2, 10, 10, 0x00, 0xB2, 0, 1, 0x00, 0xC2, 5,  //
                          0x00, 0xB3, 7, 20, 0x60, 0xB3, 121, 0, 0x60, 0xE2, 0x00, 0x50,              //
                          0x82, 0x40, 0x92, 60, 100, 0x60, 0x82, 60, 0, 0x00, 0xFF, 0x2F, 0x00});
  SynthEngine engine(16, 8, 1.0f, 48000, 1);
  MidiPlayer player(engine);
  ASSERT_TRUE(player.Load(c, *song));
  player.Seek(1.5);
  EXPECT_NEAR(player.Position(), 1.5, 64.0 / 48000);
  Render(engine, 2);
  const MidiChannelState& two = engine.ChannelState(2);
  EXPECT_EQ(two.volume, 30);
  EXPECT_EQ(two.pan, 10);
  EXPECT_EQ(two.key & 0x7F, 5u);
  EXPECT_EQ((two.key >> 14) & 0x7F, 1u);  // bank MSB
  EXPECT_NEAR(engine.Channel(2).bend, 0.25, 2e-4);
  EXPECT_EQ(engine.ChannelState(3).volume, 100);  // reset by CC 121 before the seek point
  // The note ahead is not queued yet, and not sounding.
  EXPECT_FALSE(player.KeyDown(2, 60));
  EXPECT_EQ(engine.VoiceCount(), 0u);
}

TEST(MidiPlayer, TimerQueuesOneLookaheadAheadAndStopsPastTheEnd) {
  Collection c;
  // Notes every quarter second (48 ticks) for 2 s, on channel 0.
  std::vector<uint8_t> track;
  for (int i = 0; i < 8; ++i) {
    const uint8_t key = static_cast<uint8_t>(60 + i);
    track.insert(track.end(), {static_cast<uint8_t>(i ? 0x18 : 0x00), 0x90, key, 100, 0x18, 0x80, key, 0});
  }
  track.insert(track.end(), {0x00, 0xFF, 0x2F, 0x00});
  Song* song = SongOf(c, track);
  SynthEngine engine(16, 8, 1.0f, 48000, 1);
  MidiPlayer player(engine);
  ASSERT_TRUE(player.Load(c, *song));
  EXPECT_DOUBLE_EQ(player.Length(), 1.875);  // the last note ends at 360 ticks
  const uint64_t before = engine.DrainedCount();
  player.Play(0);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  // Nothing renders, so the clock stays at 0: only the first note (and its
  // end at 0.125 s is past 0.1 s) can be in the ring.
  Render(engine, 1);
  EXPECT_EQ(engine.DrainedCount() - before, 1u);
  EXPECT_TRUE(player.KeyDown(0, 60));
  // Rendering to the end lets the player stop by itself.
  for (int i = 0; i < 2100 * 48 / 64 && player.Playing(); ++i) {
    Render(engine, 1);
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  EXPECT_FALSE(player.Playing());
  EXPECT_GT(player.Position(), 1.875);
  player.Stop();
}

TEST(MidiPlayer, RefusesWhatIsNotASong) {
  Collection c;
  auto* wave = Create<Waveform>(c, "W");
  SynthEngine engine(16, 8, 1.0f, 48000, 1);
  MidiPlayer player(engine);
  EXPECT_FALSE(player.Load(c, *wave));
  EXPECT_STREQ(ErrorMessage, "Can't play non-MIDI items");
}

}  // namespace
}  // namespace kv
