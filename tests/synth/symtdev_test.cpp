// The synthesizer as a device: loading the instrument being edited, blocks
// cut to the sizes a back-end asks for, the status text, and shedding notes
// when the render can't keep up (with a clock the test drives).
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "core/error.h"
#include "core/items.h"
#include "synth/symtdev.h"

namespace kv {
namespace {

// Wave zones played by a voice of constant output 2.0, so clipping shows.
VoiceKind LoudKind() {
  VoiceKind k;
  k.recordSize = VoiceRecordBytes(8);
  k.init = [](VoiceRecord& v, const SynthZone&, float, bool) { v.head.amplitude = 1.0f; };
  k.render = [](VoiceRecord& v, float* block, float) {
    for (int i = 0; i < 2 * kSynthBlock; ++i) block[i] = 2.0f;
    return !v.head.shutdown;
  };
  return k;
}

Instrument* MakeInstrument(Collection& c, uint32_t program) {
  auto* inst = Create<Instrument>(c, "Lead");
  inst->location = MakeLocation(0, 0, program, false);
  auto* wave = Create<Waveform>(c, "Tone");
  wave->length = 1000;
  wave->sampleRate = 44100;
  wave->samples16 = std::make_unique<int16_t[]>(1000);
  Layer* layer = AddLayer(*inst);
  AddRegion(*layer, wave->id, kNoRange, kNoRange, 60);
  return inst;
}

uint64_t g_now = 0;
uint64_t g_step = 0;
uint64_t TestClock() { return g_now += g_step; }

TEST(SymtDev, LoadsPlaysAndReports) {
  SetVoiceKind(VoiceKindId::Wave, LoudKind());
  Collection c;
  Instrument* inst = MakeInstrument(c, 0);

  SymtDev none(nullptr);
  EXPECT_FALSE(none.Load(*inst, false));
  EXPECT_STREQ(ErrorContext, "SymtDev::Load");
  EXPECT_STREQ(ErrorMessage, "Synth not initialized!");

  SymtDev dev(std::make_unique<SynthEngine>(16, 8, 1.0f, 44100, 1));
  std::vector<float> out(2 * 100, 7.0f);
  dev.Render(out.data(), 100);  // not live yet: silence, no block
  EXPECT_EQ(out[0], 0.0f);
  EXPECT_EQ(dev.Engine()->BlockCounter(), 0u);

  ASSERT_TRUE(dev.Load(*inst, false)) << ErrorMessage;
  EXPECT_EQ(dev.Engine()->live.load(), 1);
  ASSERT_NE(dev.Engine()->FindInstrument(inst->location), nullptr);
  EXPECT_EQ(dev.StatusText(), "");

  dev.Engine()->QueueAtBlock(MakeMidiWord(0x90, 0, 60, 100), 0);
  dev.Engine()->QueueAtBlock(MakeMidiWord(0x90, 0, 64, 100), 0);
  // 100 frames take two blocks; the 28 frames left over come first next time.
  dev.Render(out.data(), 100);
  EXPECT_EQ(dev.Engine()->BlockCounter(), 2u);
  EXPECT_EQ(out[0], 1.0f);  // clipped to 1
  dev.Render(out.data(), 28);
  EXPECT_EQ(dev.Engine()->BlockCounter(), 2u);
  EXPECT_EQ(dev.StatusText(), "2 regions -CLIPPING-");
  EXPECT_EQ(dev.StatusText(), "2 regions");  // reading cleared the mark

  // Loading another instrument alone starts from silence.
  Instrument* other = MakeInstrument(c, 5);
  ASSERT_TRUE(dev.Load(*other, false));
  EXPECT_EQ(dev.Engine()->VoiceCount(), 0u);
  EXPECT_EQ(dev.Engine()->FindInstrument(inst->location), nullptr);
  ASSERT_TRUE(dev.Load(*inst, true));  // kept beside it
  EXPECT_NE(dev.Engine()->FindInstrument(other->location), nullptr);
  EXPECT_NE(dev.Engine()->FindInstrument(inst->location), nullptr);
  ResetVoiceKinds();
}

TEST(SymtDev, NotesAreShedWhenRenderingFallsBehind) {
  SetVoiceKind(VoiceKindId::Wave, LoudKind());
  Collection c;
  Instrument* inst = MakeInstrument(c, 0);
  SymtDev dev(std::make_unique<SynthEngine>(16, 32, 1.0f, 64000, 1), TestClock);
  ASSERT_TRUE(dev.Load(*inst, false));
  for (int k = 0; k < 20; ++k) dev.Engine()->QueueAtBlock(MakeMidiWord(0x90, 0, 40 + k, 100), 0);
  // A block lasts 1 ms at 64 kHz. Taking 0.92 ms sheds softly, three notes:
  // min(int(0.12 / 0.05) + 1, (20 + 2) / 4).
  alignas(16) float out[2 * kSynthBlock];
  g_step = 920000;
  dev.Render(out, kSynthBlock);
  int shutting = 0;
  for (uint32_t g = 0; g < dev.Engine()->GroupCapacity(); ++g) shutting += dev.Engine()->Group(g).shutting;
  EXPECT_EQ(shutting, 3);
  EXPECT_EQ(dev.Engine()->GroupCount(), 20u);
  // Taking 1.52 ms kills: min(int(0.72 / 0.05) + 1, (17 + 2) / 4) = 4 of
  // the 17 left after the three faded.
  g_step = 1520000;
  dev.Render(out, kSynthBlock);
  EXPECT_EQ(dev.Engine()->GroupCount(), 13u);
  ResetVoiceKinds();
}

}  // namespace
}  // namespace kv
