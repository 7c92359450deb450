#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/instrument_ops.h"
#include "core/items.h"
#include "core/settings.h"
#include "core/wavestore.h"

namespace kv {
namespace {

Waveform* Wave(Collection& c, const char* name, uint32_t frames, int channels = 1, int offset = 0) {
  auto* w = Create<Waveform>(c, name);
  w->length = frames;
  w->channels = static_cast<uint8_t>(channels);
  w->sampleRate = 44100;
  w->samples16 = std::make_unique<int16_t[]>(uint64_t{frames} * channels + 1);
  for (uint64_t i = 0; i < uint64_t{frames} * channels; ++i) w->samples16[i] = static_cast<int16_t>(i + offset);
  return w;
}

Region* RegionOn(Layer& layer, Waveform* w, uint8_t lo, uint8_t hi) {
  return AddRegion(layer, w ? w->id : kNoWave, MakeRange(lo, hi), MakeRange(0, 127), 255);
}

struct Ops : ::testing::Test {
  void SetUp() override { ResetSettings(); }
  Collection c;
};

TEST_F(Ops, SplitThenMergeGivesTheStereoWaveBack) {
  Waveform* st = Wave(c, "Choir S", 6, 2);
  auto* inst = Create<Instrument>(c, "Choir");
  RegionOn(*AddLayer(*inst), st, 0, 127);
  inst->FixUp();

  ASSERT_EQ(SplitStereoWaves(c), 1);
  ASSERT_EQ(c.Count(ItemType::Waveform), 2u);
  EXPECT_EQ(st->Name(), "Choir -L");
  EXPECT_EQ(st->channels, 1);
  EXPECT_EQ(st->samples16[1], 2);  // left samples were the even ones
  ASSERT_EQ(inst->children.size(), 2u);
  std::vector<Region*> regions = c.All<Region>();
  ASSERT_EQ(regions.size(), 2u);
  EXPECT_EQ(regions[0]->art.value[kRowPan], -1.0f);
  EXPECT_EQ(regions[1]->art.value[kRowPan], 1.0f);
  EXPECT_EQ(RegionWaveform(*regions[1])->Name(), "Choir -R");
  EXPECT_EQ(SplitStereoWaves(c), 0);

  ASSERT_EQ(MergeStereoPairs(c), 1);
  ASSERT_EQ(c.Count(ItemType::Waveform), 1u);
  EXPECT_EQ(st->channels, 2);
  EXPECT_EQ(st->Name(), "Choir");
  for (uint32_t i = 0; i < 12; ++i) EXPECT_EQ(st->samples16[i], static_cast<int16_t>(i));
  // The right-side region and its layer went; the kept region plays centred.
  EXPECT_EQ(c.Count(ItemType::Region), 1u);
  EXPECT_EQ(c.Count(ItemType::Layer), 1u);
  EXPECT_EQ(c.All<Region>().front()->art.value[kRowPan], 0.0f);
}

TEST_F(Ops, PairsNeedMatchingLengthRateAndRoot) {
  Wave(c, "A-L", 10);
  Wave(c, "A-R", 11);  // length differs
  Wave(c, "B L", 10);
  Waveform* br = Wave(c, "B R", 10);
  br->rootKey = 61;  // root differs
  Wave(c, "C L", 10);
  Wave(c, "CR", 10);  // no separator
  EXPECT_EQ(MergeStereoPairs(c), 0);
  EXPECT_EQ(c.Count(ItemType::Waveform), 6u);
}

TEST_F(Ops, PairsNeedOneLoopAndHalvesThatPlayAlike) {
  Wave(c, "A L", 10)->loopStart = 2;
  Wave(c, "A R", 10)->loopStart = 3;  // loop differs
  Waveform* bl = Wave(c, "B L", 10);
  Waveform* br = Wave(c, "B R", 10);
  auto* inst = Create<Instrument>(c, "B");
  Region* l = RegionOn(*AddLayer(*inst), bl, 0, 127);
  Region* r = RegionOn(*AddLayer(*inst), br, 0, 127);
  l->art.Set(kRowPan, -1.0f);
  r->art.Set(kRowPan, 1.0f);
  const int attack = EnvRow(kEnvV, kEnvA1Time);
  l->art.Set(attack, 0.03f);
  r->art.Set(attack, 0.15f);  // the right half would lose its own attack
  inst->FixUp();
  EXPECT_EQ(MergeStereoPairs(c), 0);
  EXPECT_EQ(c.Count(ItemType::Waveform), 4u);
  EXPECT_EQ(c.Count(ItemType::Region), 2u);

  r->art.Set(attack, 0.03f);
  EXPECT_EQ(MergeStereoPairs(c), 1);
  EXPECT_EQ(c.Count(ItemType::Region), 1u);
}

TEST_F(Ops, DuplicatesNeedIdenticalBitsAndFieldsAndRegionsFollowTheKeptWave) {
  Waveform* a = Wave(c, "A", 100);
  Waveform* b = Wave(c, "B", 100);          // same bits: goes
  Waveform* looped = Wave(c, "C", 100);     // same bits, other loop: stays
  looped->loopType = 1;
  looped->loopEnd = 50;
  Waveform* other = Wave(c, "D", 100, 1, 1);  // other bits: stays
  auto* inst = Create<Instrument>(c, "I");
  Layer* layer = AddLayer(*inst);
  Region* r = RegionOn(*layer, b, 0, 60);
  RegionOn(*layer, other, 61, 127);
  uint64_t freed = 0;
  EXPECT_EQ(RemoveDuplicateWaves(c, &freed), 1);
  EXPECT_EQ(freed, 200u);
  EXPECT_EQ(RegionWaveform(*r), a);
  EXPECT_EQ(c.Count(ItemType::Waveform), 3u);

  EXPECT_EQ(DeleteUnusedWaves(c, &freed), 1);  // "C" is played by nothing
  EXPECT_EQ(c.Count(ItemType::Waveform), 2u);
  EXPECT_EQ(DeleteUnusedWaves(c), 0);
}

TEST_F(Ops, CompactLayersMergesOnlyNonOverlappingAlikeLayers) {
  Waveform* w = Wave(c, "W", 10);
  auto* inst = Create<Instrument>(c, "I");
  RegionOn(*AddLayer(*inst), w, 0, 59);
  RegionOn(*AddLayer(*inst), w, 60, 127);
  Layer* overlapping = AddLayer(*inst);
  RegionOn(*overlapping, w, 50, 70);
  Layer* panned = AddLayer(*inst);
  RegionOn(*panned, w, 0, 10);
  panned->art.Set(kRowPan, 0.5f);
  EXPECT_EQ(CompactLayers(c), 1);
  EXPECT_EQ(inst->children.size(), 3u);
  EXPECT_EQ(c.FindAs<Layer>(inst->children[0])->children.size(), 2u);
  EXPECT_EQ(CompactLayers(c), 0);
}

TEST_F(Ops, SharedTriggerParamsMoveUpRangesStay) {
  Waveform* w = Wave(c, "W", 10);
  auto* inst = Create<Instrument>(c, "I");
  Layer* layer = AddLayer(*inst);
  for (uint8_t lo : {0, 64}) {
    Region* r = RegionOn(*layer, w, lo, static_cast<uint8_t>(lo + 63));
    r->trigger.Put(kRowSustainSwitch, 1);
    r->trigger.MarkSet(kRowSustainSwitch);
  }
  EXPECT_EQ(MoveTriggerParamsUp(c), 1);
  EXPECT_TRUE(layer->trigger.IsSet(kRowSustainSwitch));
  EXPECT_EQ(layer->trigger.Get(kRowSustainSwitch), 1.0f);
  EXPECT_FALSE(layer->trigger.IsSet(kRowLoKey));
  for (Region* r : c.All<Region>()) {
    EXPECT_FALSE(r->trigger.IsSet(kRowSustainSwitch));
    EXPECT_TRUE(r->trigger.IsSet(kRowLoKey));
  }
}

TEST_F(Ops, AgreeingArticulationMovesUp) {
  Waveform* w = Wave(c, "W", 10);
  auto* inst = Create<Instrument>(c, "I");
  Layer* layer = AddLayer(*inst);
  for (uint8_t lo : {0, 64}) RegionOn(*layer, w, lo, static_cast<uint8_t>(lo + 63))->art.Set(kRowPan, 0.25f);
  EXPECT_GT(MoveArticulationUp(c), 0);
  EXPECT_TRUE(inst->art.IsSet(kRowPan) || layer->art.IsSet(kRowPan));
  for (Region* r : c.All<Region>()) {
    EXPECT_FALSE(r->art.IsSet(kRowPan));
    EXPECT_FLOAT_EQ(r->art.value[kRowPan], 0.25f);
  }
}

TEST_F(Ops, AlternatingLoopBecomesForwardByMirroringAndGrowsTheWave) {
  Waveform* w = Wave(c, "W", 2500);
  w->loopType = 3;
  w->loopStart = 1000;
  w->loopEnd = 2000;
  ASSERT_TRUE(sanitizeLoop(*w, true, false, false, false, false));
  EXPECT_EQ(w->loopType, 1);
  EXPECT_EQ(w->loopStart, 1000.0f);
  EXPECT_EQ(w->loopEnd, 3000.0f);
  EXPECT_EQ(w->length, 3000u);
  EXPECT_EQ(w->samples16[2000], 1999);  // frame s+L+i takes frame s+L-1-i
  EXPECT_EQ(w->samples16[2999], 1000);
  ASSERT_TRUE(sanitizeLoop(*w, true, false, false, false, false));  // forward already: nothing to do
  EXPECT_EQ(w->length, 3000u);
  EXPECT_EQ(w->loopEnd, 3000.0f);
}

TEST_F(Ops, Append32CopiesTheLoopStartBehindTheEndOrSilenceAfterARelease) {
  Waveform* w = Wave(c, "W", 110);
  w->loopType = 1;
  w->loopStart = 10;
  w->loopEnd = 100;
  ASSERT_TRUE(sanitizeLoop(*w, false, false, false, true, false));
  EXPECT_EQ(w->length, 132u);
  EXPECT_EQ(w->samples16[100], 10);
  EXPECT_EQ(w->samples16[131], 41);
  ASSERT_TRUE(sanitizeLoop(*w, false, false, false, true, false));  // 32 frames follow now
  EXPECT_EQ(w->length, 132u);

  Waveform* rel = Wave(c, "R", 110);
  rel->loopType = 1;
  rel->loopRelease = 1;
  rel->loopStart = 10;
  rel->loopEnd = 100;
  ASSERT_TRUE(sanitizeLoop(*rel, false, false, false, true, false));
  EXPECT_EQ(rel->length, 132u);
  EXPECT_EQ(rel->samples16[105], 105);  // the release stays
  EXPECT_EQ(rel->samples16[120], 0);
}

}  // namespace
}  // namespace kv
