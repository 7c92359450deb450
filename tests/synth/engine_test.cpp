// The engine played by command words with a test voice kind whose output is a
// constant, so every figure the mixer and the channel controls produce can be
// checked exactly.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <memory>
#include <thread>
#include <vector>

#include "synth/engine.h"
#include "synth/kv_math.h"

namespace kv {
namespace {

// A voice that outputs 1.0 on both sides; it counts its blocks (so a live
// swap can be seen to keep them), and dies on the block after a shutdown
// request or, with `diesOnRelease`, after its key is released.
struct TestState {
  uint32_t blocks;
  uint32_t inits;
  bool diesOnRelease;
};

VoiceKind TestKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(sizeof(TestState));
  k.init = [](VoiceRecord& v, const SynthZone& zone, float, bool update) {
    auto& s = VoiceState<TestState>(v);
    if (!update) s.blocks = 0;
    ++s.inits;
    s.diesOnRelease = zone.loopType == 1;  // tests mark such zones this way
    v.head.amplitude = 1.0f;
  };
  k.render = [](VoiceRecord& v, float* block, float) {
    auto& s = VoiceState<TestState>(v);
    for (int i = 0; i < 2 * kSynthBlock; ++i) block[i] = 1.0f;
    ++s.blocks;
    return !(v.head.shutdown || (s.diesOnRelease && v.head.keyReleased));
  };
  return k;
}

SynthZone Zone(ItemId id, int lo = 0, int hi = 127, int trigger = 0) {
  SynthZone z;
  z.kind = VoiceKindId::Test;
  z.id = id;
  z.loKey = static_cast<uint8_t>(lo);
  z.hiKey = static_cast<uint8_t>(hi);
  z.trigger = static_cast<uint8_t>(trigger);
  z.exclusionMode = 1;
  return z;
}

std::unique_ptr<SynthInstrument> Instrument(InstrumentKey key, std::vector<SynthZone> zones) {
  auto inst = std::make_unique<SynthInstrument>();
  inst->key = key;
  inst->zones = std::move(zones);
  inst->maxZonesPerNote = static_cast<uint32_t>(inst->zones.size());
  return inst;
}

class Engine : public ::testing::Test {
 protected:
  void SetUp() override { SetVoiceKind(VoiceKindId::Test, TestKind()); }
  // 44100 Hz, 16 channels, master gain 1, one worker unless asked.
  std::unique_ptr<SynthEngine> Make(int polyphony = 16, int workers = 1) {
    auto e = std::make_unique<SynthEngine>(16, polyphony, 1.0f, 44100, workers);
    return e;
  }
  bool Render(SynthEngine& e) { return e.RenderBlock(out_); }
  alignas(16) float out_[2 * kSynthBlock] = {};

  static MidiWord On(int ch, int key, int vel = 100) { return MakeMidiWord(0x90, ch, key, vel); }
  static MidiWord Off(int ch, int key) { return MakeMidiWord(0x80, ch, key, 0); }
  static MidiWord Cc(int ch, int cc, int v) { return MakeMidiWord(0xB0, ch, cc, v); }
  static int Notes(const SynthEngine& e, int ch) { return static_cast<int>(e.Channel(ch).notes.size()); }
  // Zone ids of the voices sounding on a channel.
  static std::vector<ItemId> ZonesOf(const SynthEngine& e, int ch) {
    std::vector<ItemId> ids;
    for (uint32_t v = 0; v < e.VoiceCount(); ++v)
      if (e.Voice(v).channel == ch) ids.push_back(e.Voice(v).zoneId);
    return ids;
  }
};

TEST(SynthMath, SineAndPanLaw) {
  float worst = 0.0f;
  for (int i = 0; i <= 4096; ++i) {
    const float t = static_cast<float>(i) / 4096.0f;
    worst = std::max(worst, std::fabs(kvSinTurns(t) - static_cast<float>(std::sin(2.0 * M_PI * t))));
  }
  EXPECT_LT(worst, 2e-7f);
  float l, r;
  kvPanGains(-1.0f, l, r);
  EXPECT_EQ(l, 1.0f);
  EXPECT_EQ(r, 0.0f);
  kvPanGains(0.0f, l, r);
  EXPECT_FLOAT_EQ(l, 0.70710677f);
  EXPECT_FLOAT_EQ(r, 0.70710677f);
  kvPanGains(1.0f, l, r);
  EXPECT_EQ(l, 0.0f);
  EXPECT_EQ(r, 1.0f);
  kvPanGains(-7.0f, l, r);  // clamped
  EXPECT_EQ(l, 1.0f);
}

TEST_F(Engine, StampsAndTime) {
  EXPECT_EQ(SynthEngine::StampForSeconds(44100, 1.0), 689u);   // floor(44100) / 64
  EXPECT_EQ(SynthEngine::StampForSeconds(48000, 0.0009), 0u);  // 43 frames
  EXPECT_EQ(SynthEngine::StampForMs(44100, 1000), 689u);
  EXPECT_EQ(SynthEngine::StampForMs(44100, 2), 1u);  // (88200 + 500) / 1000 / 64
  auto e = Make();
  for (int i = 0; i < 689; ++i) Render(*e);
  EXPECT_NEAR(e->TimeSeconds(), 689.0 * 64 / 44100, 1e-12);
  EXPECT_EQ(e->TimeMs(), 689u * 64 * 1000 / 44100);
  e->Seek(2.0, false);
  EXPECT_EQ(e->BlockCounter(), 1378u);
}

TEST_F(Engine, OneCentredVoiceAtVolume100) {
  auto e = Make();
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1)}), false));
  e->Dispatch(MakeMidiWord(0xC0, 0, 0));
  e->Dispatch(On(0, 60));
  ASSERT_TRUE(Render(*e));
  const float want = (100.0f / 127.0f) * (100.0f / 127.0f) * 0.70710677f;
  for (int i = 0; i < 2 * kSynthBlock; ++i) ASSERT_FLOAT_EQ(out_[i], want) << i;
  EXPECT_EQ(e->VoiceCount(), 1u);
  // Note off: the test voice dies on its key release only when asked to.
  e->Dispatch(Off(0, 60));
  Render(*e);
  EXPECT_EQ(e->VoiceCount(), 1u);
  e->Dispatch(Cc(0, 120, 0));  // All Sounds Off: gone at once
  EXPECT_EQ(e->VoiceCount(), 0u);
  EXPECT_FALSE(Render(*e));
  EXPECT_EQ(out_[0], 0.0f);
}

TEST_F(Engine, ChannelControllerFigures) {
  auto e = Make();
  // Portamento time from CC 5 and 37.
  e->Dispatch(Cc(0, 5, 0));
  e->Dispatch(Cc(0, 37, 0));
  EXPECT_FLOAT_EQ(e->Channel(0).portamentoTime, 0.005f * std::exp(6.1035156e-5f * 6.4f * 0.6931472f));
  e->Dispatch(Cc(0, 5, 127));
  e->Dispatch(Cc(0, 37, 127));
  EXPECT_NEAR(e->Channel(0).portamentoTime, 0.005f * std::pow(2.0f, 6.4f), 1e-4f);
  // Pan without and with LSB.
  for (auto [msb, want] : {std::pair{0, -64.0f / 63.0f}, {64, 1.0f / 63.0f}, {127, 64.0f / 63.0f}}) {
    e->Dispatch(Cc(1, 10, msb));
    EXPECT_FLOAT_EQ(e->Channel(1).pan, want) << msb;
  }
  e->Dispatch(Cc(1, 42, 0));
  e->Dispatch(Cc(1, 10, 64));
  EXPECT_FLOAT_EQ(e->Channel(1).pan, 0.00012208521f);
  e->Dispatch(Cc(1, 10, 0));
  EXPECT_FLOAT_EQ(e->Channel(1).pan, -8192.0f * 0.00012208521f);
  // Volume and expression: (v * e)^2, 14-bit once an LSB came.
  e->Dispatch(Cc(2, 7, 127));
  e->Dispatch(Cc(2, 11, 64));
  EXPECT_FLOAT_EQ(e->Channel(2).volume, (64.0f / 127.0f) * (64.0f / 127.0f));
  e->Dispatch(Cc(2, 39, 127));
  const float v14 = (127 * 128 + 127) * 6.200012e-5f;
  EXPECT_FLOAT_EQ(e->Channel(2).volume, (v14 * 64.0f / 127.0f) * (v14 * 64.0f / 127.0f));
  // Bend: 0, centre and top.
  for (auto [lsb, msb, want] : {std::tuple{0, 0, -1.0f}, {0, 64, 0.0f}, {127, 127, 1.0f}}) {
    e->Dispatch(MakeMidiWord(0xE0, 3, lsb, msb));
    EXPECT_FLOAT_EQ(e->Channel(3).bend, want);
  }
  // RPNs: nothing is selected until CC 100 arrives.
  e->Dispatch(Cc(4, 101, 0));
  e->Dispatch(Cc(4, 6, 12));
  EXPECT_EQ(e->Channel(4).bendRange, kBendRangeUnset);
  e->Dispatch(Cc(4, 100, 0));
  e->Dispatch(Cc(4, 6, 12));
  e->Dispatch(Cc(4, 38, 50));
  EXPECT_FLOAT_EQ(e->Channel(4).bendRange, 12.5f);
  e->Dispatch(Cc(4, 100, 1));
  e->Dispatch(Cc(4, 6, 96));
  e->Dispatch(Cc(4, 38, 0));
  EXPECT_FLOAT_EQ(e->Channel(4).fineTune, 32 * 128 * 0.00012207031f);
  e->Dispatch(Cc(4, 100, 2));
  e->Dispatch(Cc(4, 6, 60));
  EXPECT_EQ(e->Channel(4).coarseTune, -4);
  e->Dispatch(Cc(4, 96, 0));  // increments of coarse tune move the MSB only
  EXPECT_EQ(e->Channel(4).coarseTune, -3);
  e->Dispatch(Cc(4, 101, 127));
  e->Dispatch(Cc(4, 100, 127));
  e->Dispatch(Cc(4, 6, 0));
  EXPECT_EQ(e->Channel(4).bendRange, kBendRangeUnset);
  EXPECT_EQ(e->Channel(4).coarseTune, 0);
  EXPECT_EQ(e->Channel(4).fineTune, 0.0f);
}

TEST(SynthCrossfade, GainsAtTheWindowEdges) {
  SynthZone z;
  z.loKey = 58;
  z.hiKey = 75;
  z.keyFadeIn = 4;
  z.keyFadeOut = 6;
  z.keyFadeCurve = 1;  // linear
  z.loVel = 10;
  z.velFadeIn = 9;
  z.velFadeCurve = 1;
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 58, 127), 1.0f / 5.0f);
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 61, 127), 4.0f / 5.0f);
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 62, 127), 1.0f);
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 69, 127), 1.0f);
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 70, 127), 6.0f / 7.0f);
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 75, 127), 1.0f / 7.0f);
  // Key and velocity fades multiply; equal power takes square roots.
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 58, 10), 1.0f / 5.0f * 1.0f / 10.0f);
  z.keyFadeCurve = 0;
  z.velFadeCurve = 0;
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 58, 14), std::sqrt(1.0f / 5.0f) * std::sqrt(5.0f / 10.0f));
  // Both velocity edges in one narrow window.
  z.hiVel = 12;
  z.velFadeOut = 2;
  EXPECT_FLOAT_EQ(SynthEngine::CrossfadeFor(z, 62, 11), std::sqrt(2.0f / 10.0f) * std::sqrt(2.0f / 3.0f));
}

TEST_F(Engine, RampsGlideOnlyWhileANoteSounds) {
  auto e = Make();
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1)}), false));
  e->Dispatch(Cc(0, 7, 127));
  EXPECT_FLOAT_EQ(e->Channel(0).volume, 1.0f);  // jumped: no note
  e->Dispatch(On(0, 60));
  e->Dispatch(Cc(0, 7, 0));
  // steps = |0 - 1| * trunc(44100 * 0.000390625) * (1 / 96) -> at least 1.
  EXPECT_EQ(e->Channel(0).ramp[kRampVolume].steps, 1u);
  e->Dispatch(Cc(0, 10, 0));  // pan to -64/63 at rate factor 0.5: trunc(64/63 * 17 * 0.5) = 8 steps
  EXPECT_EQ(e->Channel(0).ramp[kRampPan].steps, 8u);
  for (int i = 0; i < 7; ++i) Render(*e);
  EXPECT_FLOAT_EQ(e->Channel(0).pan, -64.0f / 63.0f * 7.0f / 8.0f);
  Render(*e);
  EXPECT_EQ(e->Channel(0).pan, -64.0f / 63.0f);
  EXPECT_EQ(e->Channel(0).activeRamps, 0);
}

TEST_F(Engine, ReleaseTriggerSustainAndSostenuto) {
  auto e = Make();
  SynthZone body = Zone(1), release = Zone(2, 0, 127, 1);
  body.loopType = 1;  // dies when its key is released
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {body, release}), false));
  // A note off without a note plays the release zone at velocity 64.
  e->Dispatch(Off(0, 50));
  ASSERT_EQ(ZonesOf(*e, 0), (std::vector<ItemId>{2}));
  EXPECT_FLOAT_EQ(e->Voice(0).velocity, 64.0f / 127.0f);
  e->Dispatch(Cc(0, 120, 0));

  // Sustain holds the note; pedal up releases it and fires its release zone.
  e->Dispatch(Cc(0, 64, 127));
  e->Dispatch(On(0, 60));
  e->Dispatch(Off(0, 60));
  Render(*e);
  ASSERT_EQ(ZonesOf(*e, 0), (std::vector<ItemId>{1}));
  EXPECT_TRUE(e->Group(e->Channel(0).notes[0]).heldBySustain);
  EXPECT_TRUE(e->Voice(0).held);
  e->Dispatch(Cc(0, 64, 0));
  EXPECT_TRUE(e->Voice(0).keyReleased);
  Render(*e);  // the body dies; the release zone sounds
  EXPECT_EQ(ZonesOf(*e, 0), (std::vector<ItemId>{2}));
  e->Dispatch(Cc(0, 120, 0));

  // Sostenuto keeps the notes down when it came; a later note is free.
  e->Dispatch(On(0, 60));
  e->Dispatch(Cc(0, 66, 127));
  e->Dispatch(On(0, 62));
  e->Dispatch(Off(0, 60));
  e->Dispatch(Off(0, 62));
  Render(*e);
  EXPECT_EQ(e->VoiceCount(), 2u);  // 60 held, and 62's release zone
  e->Dispatch(Cc(0, 66, 0));
  Render(*e);
  EXPECT_EQ(ZonesOf(*e, 0), (std::vector<ItemId>{2, 2}));
}

TEST_F(Engine, AlternateGroupsRoundRobinPerChannel) {
  auto e = Make();
  // Three zones of group 1 (trigger 2), one of group 2 (trigger 3).
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1, 0, 127, 2), Zone(2, 0, 127, 2), Zone(3, 0, 127, 2),
                                              Zone(4, 0, 127, 3)}),
                               false));
  std::vector<ItemId> played0, played1;
  for (int n = 0; n < 4; ++n) {
    e->Dispatch(On(0, 60));
    auto zones = ZonesOf(*e, 0);
    ASSERT_EQ(zones.size(), 2u) << "one zone of each group";
    played0.push_back(zones[0] == 4 ? zones[1] : zones[0]);
    e->Dispatch(Cc(0, 120, 0));
    if (n < 2) {
      e->Dispatch(On(1, 60));
      auto z1 = ZonesOf(*e, 1);
      played1.push_back(z1[0] == 4 ? z1[1] : z1[0]);
      e->Dispatch(Cc(1, 120, 0));
    }
  }
  EXPECT_EQ(played0, (std::vector<ItemId>{1, 2, 3, 1}));
  EXPECT_EQ(played1, (std::vector<ItemId>{1, 2}));  // channels count apart
}

TEST_F(Engine, ProgramChangesFallBack) {
  auto e = Make();
  ASSERT_TRUE(e->AddInstrument(Instrument(MakeLocation(0, 0, 5, false), {Zone(10)}), false));
  ASSERT_TRUE(e->AddInstrument(Instrument(MakeLocation(8, 0, 5, false), {Zone(11)}), false));
  ASSERT_TRUE(e->AddInstrument(Instrument(MakeLocation(0, 0, 0, true), {Zone(12)}), false));
  auto program = [&](int ch, int msb, int lsb, int p) {
    e->Dispatch(Cc(ch, 0, msb));
    e->Dispatch(Cc(ch, 32, lsb));
    e->Dispatch(MakeMidiWord(0xC0, ch, p));
    e->Dispatch(On(ch, 60));
    auto zones = ZonesOf(*e, ch);
    e->Dispatch(Cc(ch, 120, 0));
    return zones.empty() ? ItemId{0} : zones[0];
  };
  EXPECT_EQ(program(0, 8, 0, 5), 11u);
  EXPECT_EQ(program(0, 8, 3, 5), 11u);  // missing LSB bank
  EXPECT_EQ(program(0, 9, 3, 5), 10u);  // then the MSB
  EXPECT_EQ(program(9, 0, 0, 40), 12u);  // a drum channel falls to program 0
  // The bank stays in the key even though the look-up fell back.
  EXPECT_EQ(LocationMajorBank(e->ChannelState(0).key), 9u);
  EXPECT_EQ(program(1, 0, 0, 77), 0u);  // nothing: no instrument yet, none at key 0 either
}

TEST_F(Engine, CoarseTuneMovesSelectionAndChordsAreCut) {
  auto e = Make(2);  // 8 voices
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1, 0, 63), Zone(2, 64, 127)}), false));
  e->Dispatch(Cc(0, 101, 0));
  e->Dispatch(Cc(0, 100, 2));
  e->Dispatch(Cc(0, 6, 66));  // coarse +2: key 65 selects as 63
  e->Dispatch(On(0, 65));
  EXPECT_EQ(ZonesOf(*e, 0), (std::vector<ItemId>{1}));
  e->Dispatch(Cc(0, 120, 0));
  // Twelve zones on one key, eight voices: the chord is cut.
  std::vector<SynthZone> many;
  for (int i = 0; i < 12; ++i) many.push_back(Zone(100 + i));
  ASSERT_TRUE(e->AddInstrument(Instrument(1, std::move(many)), false));
  e->Dispatch(MakeMidiWord(0xC0, 2, 1));
  e->Dispatch(On(2, 60));
  EXPECT_EQ(e->VoiceCount(), e->VoiceCapacity());
  Render(*e);
}

TEST_F(Engine, StealingTakesTheQuietestNote) {
  auto e = Make(2);
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1)}), false));
  e->Dispatch(On(0, 60));
  e->Dispatch(On(0, 62));
  Render(*e);
  EXPECT_EQ(e->GroupCount(), 2u);
  // Equal notes: the first in pool order goes.
  const uint32_t first = e->QuietestNote(false);
  EXPECT_EQ(e->Group(first).key, 60);
  e->Dispatch(On(0, 64));
  EXPECT_EQ(e->GroupCount(), 2u);
  std::vector<int> keys;
  for (uint32_t g : e->Channel(0).notes) keys.push_back(e->Group(g).key);
  EXPECT_EQ(keys, (std::vector<int>{62, 64}));
  // Shedding softly marks and shuts down; hard kills.
  e->ShedOneNote(true);
  EXPECT_EQ(e->GroupCount(), 2u);
  Render(*e);
  EXPECT_EQ(e->GroupCount(), 1u);
  e->ShedOneNote(false);
  EXPECT_EQ(e->GroupCount(), 0u);
}

TEST_F(Engine, ReplacingKeepsVoicesAndShutsVanishedZones) {
  auto e = Make();
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1, 0, 63), Zone(2, 64, 127)}), false));
  e->live.store(1);
  std::atomic<bool> stop{false};
  // The audio thread: renders while the loader swaps.
  std::thread audio([&] {
    alignas(16) float block[2 * kSynthBlock];
    while (!stop.load()) {
      e->RenderBlock(block);
      std::this_thread::yield();
    }
  });
  e->QueueAtBlock(On(0, 40), 0);
  e->QueueAtBlock(On(0, 80), 0);
  while (e->VoiceCount() < 2) std::this_thread::yield();
  SynthZone changed = Zone(1, 0, 63);
  changed.pan = 0.5f;
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {changed}), true));  // zone 2 is gone
  while (e->VoiceCount() > 1) std::this_thread::yield();
  stop.store(true);
  audio.join();
  ASSERT_EQ(e->VoiceCount(), 1u);
  EXPECT_EQ(e->Voice(0).zoneId, 1u);
  EXPECT_EQ(e->Voice(0).pan, 0.5f);
  // Initialised again in update mode: the blocks it played are kept.
  const auto& state = VoiceState<TestState>(const_cast<VoiceRecord&>(e->Record(0)));
  EXPECT_EQ(state.inits, 2u);
  EXPECT_GT(state.blocks, 1u);
  EXPECT_EQ(e->FindInstrument(0)->zones.size(), 1u);
}

TEST_F(Engine, RingOrderAndManyWriters) {
  auto e = Make();
  ASSERT_TRUE(e->AddInstrument(Instrument(0, {Zone(1)}), false));
  Render(*e);
  Render(*e);  // block counter 2
  e->QueueAtBlock(On(0, 60), 0);  // in the past: plays on the next block
  e->QueueAtBlock(On(0, 61), 10);
  e->QueueAtBlock(On(0, 62), 3);  // behind a later stamp: waits for it
  Render(*e);
  EXPECT_EQ(e->VoiceCount(), 1u);
  while (e->BlockCounter() < 9) Render(*e);
  EXPECT_EQ(e->VoiceCount(), 1u);
  Render(*e);
  EXPECT_EQ(e->VoiceCount(), 3u);

  // Four writers, a hundred thousand words each, every one dispatched once.
  constexpr int kWriters = 4, kEach = 100000;
  e->ResizeRing(kWriters * kEach + 1);
  const uint64_t before = e->DrainedCount();
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w)
    writers.emplace_back([&, w] {
      for (int i = 0; i < kEach; ++i) e->QueueAtBlock(Cc(w, 14, i & 0x7F), 0);
    });
  for (auto& t : writers) t.join();
  Render(*e);
  EXPECT_EQ(e->DrainedCount() - before, static_cast<uint64_t>(kWriters * kEach));
  Render(*e);
  EXPECT_EQ(e->DrainedCount() - before, static_cast<uint64_t>(kWriters * kEach));
}

}  // namespace
}  // namespace kv
