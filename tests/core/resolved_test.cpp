#include "core/resolved.h"

#include <gtest/gtest.h>

#include <initializer_list>

#include "core/settings.h"

namespace kv {
namespace {

struct Resolve : ::testing::Test {
  void SetUp() override {
    ResetSettings();
    wave = Create<Waveform>(c, "Cello C3");
    wave->length = 1000;
    wave->rootKey = 48;
    wave->loopType = 1;
    wave->loopRelease = 1;
    wave->loopStart = 100;
    wave->loopEnd = 900;
    wave->loopPitch = 0.25f;
    inst = Create<Instrument>(c, "Cello");
    layer = AddLayer(*inst);
    region = AddRegion(*layer, wave->id, MakeRange(0, 127), MakeRange(0, 127), 255);
  }
  Collection c;
  Waveform* wave = nullptr;
  Instrument* inst = nullptr;
  Layer* layer = nullptr;
  Region* region = nullptr;
};

TEST_F(Resolve, EachOverrideBitPullsOnlyItsOwnField) {
  // Region values unlike the wave's in every field it can override.
  region->rootKey = 72;
  region->loopType = 2;
  region->loopRelease = 0;
  region->loopStart = 200;
  region->loopEnd = 800;
  region->loopPitch = -1;
  for (int bit : std::initializer_list<int>{0, kOverrideRootKey, kOverrideLoopType, kOverrideLoopRelease,
                                            kOverrideLoopStart, kOverrideLoopEnd, kOverrideLoopPitch}) {
    region->overrideMask = static_cast<uint8_t>(bit);
    const ResolvedRegion r = ResolveRegion(*region);
    EXPECT_EQ(r.pitch.rootKey, bit == kOverrideRootKey ? 72 : 48) << bit;
    EXPECT_EQ(r.loop.type, bit == kOverrideLoopType ? 2 : 1) << bit;
    EXPECT_EQ(r.loop.release, bit == kOverrideLoopRelease ? 0 : 1) << bit;
    EXPECT_EQ(r.loop.start, bit == kOverrideLoopStart ? 200 : 100) << bit;
    EXPECT_EQ(r.loop.end, bit == kOverrideLoopEnd ? 800 : 900) << bit;
    EXPECT_EQ(r.loop.pitch, bit == kOverrideLoopPitch ? -1 : 0.25f) << bit;
  }
}

TEST_F(Resolve, WaveTuningAndVolumeOrTheirDefaultsWithoutAWave) {
  wave->fineTune = -12;
  wave->volume = -3.5f;
  EXPECT_EQ(ResolveRegion(*region).pitch.waveFineTune, -12);
  EXPECT_FLOAT_EQ(ResolveRegion(*region).amplitude.waveVolume, -3.5f);

  Region* bare = AddRegion(*layer, kNoWave, MakeRange(0, 10), MakeRange(0, 127), 255);
  bare->rootKey = 72;  // without its bit, not the region's own
  const ResolvedRegion r = ResolveRegion(*bare);
  EXPECT_EQ(r.pitch.rootKey, 60);
  EXPECT_EQ(r.pitch.waveFineTune, 0);
  EXPECT_EQ(r.amplitude.waveVolume, 0.0f);
  bare->overrideMask = kOverrideRootKey;
  EXPECT_EQ(ResolveRegion(*bare).pitch.rootKey, 72);
}

TEST_F(Resolve, LevelsInheritRegionOverLayerOverInstrument) {
  inst->art.Set(kRowResonance, 6);   // at the instrument only
  inst->art.Set(kRowCutoff, 500);    // overridden at the layer
  layer->art.Set(kRowCutoff, 900);
  inst->art.Set(kRowMasterTune, 1);  // overridden again at the region
  layer->art.Set(kRowMasterTune, 2);
  region->art.Set(kRowMasterTune, 3);
  region->art.value[kRowResonance] = 18;  // a stale value without its bit

  const ResolvedRegion r = ResolveRegion(*region);
  EXPECT_FLOAT_EQ(r.filter.resonance, 6);
  EXPECT_FLOAT_EQ(r.filter.cutoff, 900);
  EXPECT_FLOAT_EQ(r.pitch.masterTune, 3);
  EXPECT_FLOAT_EQ(r.amplitude.velocityToVolume, CatalogueRow(kRowVelToVolume)->def);  // set nowhere
  // The presence bits stay the region's own.
  EXPECT_TRUE(r.art.IsSet(kRowMasterTune));
  EXPECT_FALSE(r.art.IsSet(kRowCutoff));
}

TEST_F(Resolve, TriggerCompletedByTheLayerWhereTheRegionIsSilent) {
  for (auto [p, v] : {std::pair{kRowExclusionGroup, 5.0f}, {kRowTriggerDelay, 0.5f}, {kRowLoKey, 30.0f}}) {
    layer->trigger.Put(p, v);
    layer->trigger.MarkSet(p);
  }
  region->trigger.Put(kRowTriggerDelay, 0.25f);
  region->trigger.MarkSet(kRowTriggerDelay);

  const TriggerRecord t = ResolveRegion(*region).trigger;
  EXPECT_EQ(t.exclusionGroup, 5);
  EXPECT_FLOAT_EQ(t.delay, 0.25f);
  EXPECT_EQ(t.loKey, 0);  // the region's own range stands
}

TEST_F(Resolve, GroupsReadTheRowsTheyAreNamedFor) {
  inst->art.Set(kRowFEnvToCutoff, 24);
  layer->art.Set(kRowXLfoToPan, 0.5f);
  region->art.Set(kRowSend4, 0.7f);
  region->art.Set(kRowCc94ToSend4, 0.2f);
  region->art.Set(kRowEq2Gain, -4);

  const ResolvedRegion r = ResolveRegion(*region);
  EXPECT_FLOAT_EQ(r.sends.level[3], 0.7f);
  EXPECT_FLOAT_EQ(r.sends.controller[3], 0.2f);
  EXPECT_FLOAT_EQ(r.sends.level[2], 0);
  EXPECT_FLOAT_EQ(r.eq[1].gain, -4);
  EXPECT_FLOAT_EQ(r.env[kEnvF].depth[0], 24);
  EXPECT_FLOAT_EQ(r.lfo[kLfoX].depth[4], 0.5f);
}

}  // namespace
}  // namespace kv
