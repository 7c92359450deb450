// A minute of the peers' polyphony stress pattern, fed to the engine as
// command words: 16 channels of 8-key chords re-struck every 2 s under a
// sustain pedal, 50 bends a second, modulation and expression sweeps. After
// every block the engine's books must balance, every steal must take the note
// a brute-force scan names, and one worker must render what all of them do.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <tuple>
#include <vector>

#include "core/sanitizers.h"
#include "support/synth_stress.h"
#include "synth/engine.h"

namespace kv {
namespace {

using test::Event;

// The engine's books after a block.
void CheckInvariants(const SynthEngine& e) {
  ASSERT_LE(e.GroupCount(), e.GroupCapacity());
  ASSERT_LE(e.VoiceCount(), e.VoiceCapacity());
  std::vector<int> voicesSeen(e.VoiceCount(), 0);
  uint32_t inUse = 0, listed = 0;
  for (uint32_t g = 0; g < e.GroupCapacity(); ++g) {
    const NoteGroup& group = e.Group(g);
    if (!group.inUse) continue;
    ++inUse;
    uint32_t count = 0;
    for (uint32_t v = group.firstVoice; v != kNoVoice; v = e.Voice(v).nextInGroup) {
      ASSERT_LT(v, e.VoiceCount());
      ASSERT_EQ(e.Voice(v).group, g);
      ASSERT_EQ(e.Voice(v).channel, group.channel);
      ++voicesSeen[v];
      ++count;
    }
    ASSERT_EQ(count, group.voiceCount);
    ASSERT_GT(count, 0u);
  }
  for (int c = 0; c < e.ChannelCount(); ++c)
    for (uint32_t g : e.Channel(c).notes) {
      ASSERT_TRUE(e.Group(g).inUse);
      ASSERT_EQ(e.Group(g).channel, c);
      ++listed;
    }
  ASSERT_EQ(inUse, e.GroupCount());
  ASSERT_EQ(listed, inUse);
  for (int seen : voicesSeen) ASSERT_EQ(seen, 1);
}

// The note stealing must take: the smallest trunc(65536 * loudest voice),
// the first in pool order on ties.
uint32_t BruteForceQuietest(const SynthEngine& e) {
  uint32_t best = kNoVoice;
  int64_t bestValue = 0;
  for (uint32_t g = 0; g < e.GroupCapacity(); ++g) {
    if (!e.Group(g).inUse) continue;
    float loudest = 0;
    for (uint32_t v = 0; v < e.VoiceCount(); ++v)
      if (e.Voice(v).group == g) loudest = std::max(loudest, e.Voice(v).lastGain);
    const auto value = static_cast<int64_t>(loudest * 65536.0f);
    if (best == kNoVoice || value < bestValue) best = g, bestValue = value;
  }
  return best;
}

void RunStress(int polyphony, double seconds) {
  SetVoiceKind(VoiceKindId::Test, test::FadeKind());
  SynthEngine one(16, polyphony, -1.0f, 44100, 1);
  SynthEngine all(16, polyphony, -1.0f, 44100, 0);
  for (SynthEngine* e : {&one, &all}) test::AddStressInstruments(*e);
  const std::vector<Event> events = test::StressPattern(seconds);
  std::size_t next = 0;
  alignas(16) float a[2 * kSynthBlock], b[2 * kSynthBlock];
  const auto blocks = static_cast<uint32_t>(seconds * 44100 / kSynthBlock) + 2;
  uint32_t steals = 0, peakVoices = 0;
  float worst = 0;
  for (uint32_t block = 1; block <= blocks; ++block) {
    // Words due in this block go straight to dispatch in the single-worker
    // engine, so that each steal can be checked; the other takes them
    // through its ring.
    while (next < events.size() && SynthEngine::StampForSeconds(44100, events[next].seconds) <= block) {
      const MidiWord w = events[next].word;
      const bool noteOn = WordStatus(w) == 0x90 && WordData2(w) > 0;
      if (noteOn && one.GroupCount() == one.GroupCapacity()) {
        const uint32_t victim = BruteForceQuietest(one);
        ASSERT_EQ(one.QuietestNote(false), victim);
        one.Dispatch(w);
        ++steals;
        // The freed record is the one the new note took.
        ASSERT_TRUE(one.Group(victim).inUse);
        ASSERT_EQ(one.Group(victim).key, WordData1(w));
      } else {
        one.Dispatch(w);
      }
      all.QueueAtBlock(w, 0);
      ++next;
    }
    one.RenderBlock(a);
    all.RenderBlock(b);
    ASSERT_NO_FATAL_FAILURE(CheckInvariants(one));
    ASSERT_TRUE(all.BooksBalance());
    for (int i = 0; i < 2 * kSynthBlock; ++i) worst = std::max(worst, std::fabs(a[i] - b[i]));
    peakVoices = std::max(peakVoices, one.VoiceCount());
  }
  EXPECT_LT(worst, 1e-5f);
  EXPECT_GT(steals, static_cast<uint32_t>(seconds));
  EXPECT_GT(peakVoices, static_cast<uint32_t>(polyphony));
  std::printf("polyphony %d: %u steals, up to %u voices, workers %d, largest difference %.3g\n", polyphony, steals,
              peakVoices, all.WorkerCount(), static_cast<double>(worst));
}

// The checked builds run ten times slower: a few seconds of the pattern
// there, the whole minute in the plain build.
constexpr double kSeconds = KV_SANITIZER_ALLOCATOR ? 6 : 60;

TEST(SynthStress, AMinuteOfChordsAtPolyphony128) { RunStress(128, kSeconds); }
TEST(SynthStress, AMinuteOfChordsAtPolyphony32) { RunStress(32, kSeconds); }

}  // namespace
}  // namespace kv
