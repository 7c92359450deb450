#include "core/articulation.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace kv {
namespace {

constexpr uint64_t Without(int bit) { return ~(uint64_t{1} << bit); }

// --- Setter -------------------------------------------------------------------

TEST(ArticulationSet, LimitsAfterRoundingByKind) {
  Articulation a;
  EXPECT_FLOAT_EQ(a.Set(kRowCutoff, 5), 8);      // below the minimum
  EXPECT_FLOAT_EQ(a.Set(kRowEqBase, 3), 2);      // EQ mode: limited, not rounded
  EXPECT_FLOAT_EQ(a.Set(kRowFilterType, 1.6f), 1.6f);
  EXPECT_FLOAT_EQ(a.Set(kRowCutoff, 1234.56f), 1234.6f);
  EXPECT_TRUE(a.IsSet(kRowCutoff));
  EXPECT_TRUE(a.IsSet(kRowEqBase));
  EXPECT_FALSE(a.IsSet(kRowResonance));
}

TEST(ArticulationSet, TimeRoundsToMillisecondsBelowTenSeconds) {
  Articulation a;
  const int t = EnvRow(kEnvV, kEnvA1Time);
  EXPECT_FLOAT_EQ(a.Set(t, 12.3456f), 12.35f);
  EXPECT_FLOAT_EQ(a.Set(t, 1.23456f), 1.235f);
  EXPECT_FLOAT_EQ(a.Set(t, 9.9996f), 10.0f);
  EXPECT_FLOAT_EQ(a.Set(t, 250), 100);
}

TEST(ArticulationSet, HalfAwayFromZero) {
  Articulation a;
  EXPECT_FLOAT_EQ(a.Set(kRowMasterTune, 0.125f), 0.13f);
  EXPECT_FLOAT_EQ(a.Set(kRowMasterTune, -0.125f), -0.13f);
  EXPECT_FLOAT_EQ(a.Set(kRowPan, -0.0005f), -0.001f);  // a fraction
  EXPECT_FLOAT_EQ(a.Set(EnvRow(kEnvV, kEnvSustain), 0.12345f), 0.1235f);
  EXPECT_FLOAT_EQ(a.Set(LfoRow(kLfoP, kLfoShape), 64.7f), 64.7f);  // discrete kinds are not rounded
}

TEST(ArticulationSet, NanIsStoredAndMarked) {
  Articulation a;
  a.Set(kRowMasterVolume, std::nanf(""));
  EXPECT_TRUE(std::isnan(a.value[kRowMasterVolume]));
  EXPECT_TRUE(a.IsSet(kRowMasterVolume));
}

TEST(ArticulationSet, ResetRestoresDefaultsAndClearsBits) {
  Articulation a;
  a.Set(kRowCutoff, 100);
  a.Set(EnvRow(kEnvX, kEnvShutdown), 3);
  a.Reset();
  EXPECT_FALSE(a.AnySet());
  EXPECT_FLOAT_EQ(a.value[kRowCutoff], 8000);
  EXPECT_FLOAT_EQ(a.value[kRowVelToVolume], 96);
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvV, kEnvShutdown)], 0.015f);
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvP, kEnvSustain)], 1);
  EXPECT_FLOAT_EQ(a.value[kRowEqBase + 3], 0.71f);
}

TEST(ArticulationPresence, RangesAndEnvelopes) {
  Articulation a;
  EXPECT_FALSE(a.AnyInRange(0, kArticulationCount));
  a.Set(EnvRow(kEnvF, kEnvA1Vel), 2);  // a factor, not a level or time
  EXPECT_TRUE(a.AnyInRange(EnvRow(kEnvF, 0), EnvRow(kEnvF, kEnvRows)));
  EXPECT_FALSE(a.AnyInRange(0, EnvRow(kEnvF, kEnvA1Vel)));
  EXPECT_FALSE(a.AnyOfEnvelope(kEnvF));
  a.Set(EnvRow(kEnvF, kEnvR3Level), 0.5f);
  EXPECT_TRUE(a.AnyOfEnvelope(kEnvF));
  EXPECT_FALSE(a.AnyOfEnvelope(kEnvX));
  a.Set(EnvRow(kEnvX, kEnvA1Time), 0.5f);
  EXPECT_TRUE(a.AnyOfEnvelope(kEnvX));
}

TEST(ArticulationPresence, InheritFillsOnlyClearRows) {
  Articulation parent, child;
  parent.Set(kRowCutoff, 500);
  parent.Set(kRowResonance, 6);
  child.Set(kRowResonance, 3);
  EXPECT_TRUE(child.Inherit(parent));
  EXPECT_FLOAT_EQ(child.value[kRowCutoff], 500);
  EXPECT_FALSE(child.IsSet(kRowCutoff));
  EXPECT_FLOAT_EQ(child.value[kRowResonance], 3);
  EXPECT_FALSE(child.Inherit(parent));  // nothing left to change
}

TEST(ArticulationPresence, PruneDropsTypedValuesEqualToParent) {
  Articulation parent, child;
  parent.Set(kRowCutoff, 500);
  child.Set(kRowCutoff, 500);  // typed in by the user, but the same
  child.Set(kRowResonance, 3);
  EXPECT_TRUE(child.Prune(parent));
  EXPECT_FALSE(child.IsSet(kRowCutoff));
  EXPECT_TRUE(child.IsSet(kRowResonance));
  EXPECT_FALSE(child.Prune(parent));
}

// Inherit and Prune work on several rows at once; every row, including the
// last one and those beside the 64-bit word edges, must follow the row rule.
TEST(ArticulationPresence, InheritAndPruneFollowTheRowRuleOnEveryRow) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    Articulation parent, child;
    for (int i = 0; i < kArticulationCount; ++i) {
      parent.value[i] = static_cast<float>(random() % 4);
      child.value[i] = static_cast<float>(random() % 4);
      if (random() % 3 == 0) child.MarkSet(i);
    }
    const Articulation before = child;
    Articulation inherited = child;
    const bool changed = inherited.Inherit(parent);
    bool expectChanged = false;
    for (int i = 0; i < kArticulationCount; ++i) {
      const float expected = before.IsSet(i) ? before.value[i] : parent.value[i];
      ASSERT_EQ(inherited.value[i], expected) << "row " << i;
      expectChanged |= expected != before.value[i];
    }
    ASSERT_EQ(changed, expectChanged);

    Articulation pruned = child;
    const bool cleared = pruned.Prune(parent);
    bool expectCleared = false;
    for (int i = 0; i < kArticulationCount; ++i) {
      const bool drop = before.IsSet(i) && before.value[i] == parent.value[i];
      ASSERT_EQ(pruned.IsSet(i), before.IsSet(i) && !drop) << "row " << i;
      ASSERT_EQ(pruned.value[i], before.value[i]);
      expectCleared |= drop;
    }
    ASSERT_EQ(cleared, expectCleared);
  }
  // NaN is never equal to itself, so a set NaN survives pruning.
  Articulation parent, child;
  parent.value[kRowCutoff] = std::nanf("");
  child.value[kRowCutoff] = std::nanf("");
  child.MarkSet(kRowCutoff);
  EXPECT_FALSE(child.Prune(parent));
}

TEST(ArticulationPresence, MergedRecordTakesNearestLevel) {
  Articulation inst, layer, region;
  inst.Set(kRowCutoff, 500);
  inst.Set(kRowResonance, 6);
  layer.Set(kRowResonance, 9);
  region.Set(kRowMasterVolume, -3);
  const Articulation m = MergedArticulation(region, layer, inst);
  EXPECT_FLOAT_EQ(m.value[kRowCutoff], 500);
  EXPECT_FLOAT_EQ(m.value[kRowResonance], 9);
  EXPECT_FLOAT_EQ(m.value[kRowMasterVolume], -3);
  EXPECT_FLOAT_EQ(m.value[kRowBendToPitch], 2);
}

TEST(ArticulationGroups, PhaseMembersTakeThePitchRowsAndKeepTheirPan) {
  Articulation master, member;
  master.Set(kRowMasterTune, 0.3f);
  master.Set(kRowPan, -1.0f);
  master.Set(kRowMasterVolume, -6.0f);
  master.Set(LfoRow(kLfoP, kLfoFrequency), 7.0f);
  master.Set(EnvRow(kEnvP, kEnvA2Time), 0.5f);  // P-ENV, reaching no pitch
  master.Set(LfoRow(kLfoX, kLfoFrequency), 3.0f);
  master.Set(kRowXLfoToPitch, 0.5f);
  member.Set(kRowPan, 1.0f);
  member.Set(kRowKeyToPitch, 0.5f);
  member.MatchPitchOf(master);
  EXPECT_FLOAT_EQ(member.value[kRowMasterTune], 0.3f);
  EXPECT_TRUE(member.IsSet(kRowMasterTune));
  EXPECT_FLOAT_EQ(member.value[kRowKeyToPitch], 1.0f);  // the master's default, unmarked
  EXPECT_FALSE(member.IsSet(kRowKeyToPitch));
  EXPECT_FLOAT_EQ(member.value[LfoRow(kLfoP, kLfoFrequency)], 7.0f);
  EXPECT_FLOAT_EQ(member.value[LfoRow(kLfoX, kLfoFrequency)], 3.0f);
  EXPECT_FALSE(member.IsSet(EnvRow(kEnvP, kEnvA2Time)));
  EXPECT_FLOAT_EQ(member.value[kRowPan], 1.0f);
  EXPECT_FALSE(member.IsSet(kRowMasterVolume));

  // An X-LFO that also pans stays the member's own, and a P-ENV that
  // reaches pitch comes along.
  master.Set(kRowXLfoToPan, 0.5f);
  master.Set(kRowPEnvToPitch, 2.0f);
  Articulation other;
  other.MatchPitchOf(master);
  EXPECT_FALSE(other.IsSet(LfoRow(kLfoX, kLfoFrequency)));
  EXPECT_FLOAT_EQ(other.value[EnvRow(kEnvP, kEnvA2Time)], 0.5f);
}

TEST(ArticulationGroups, LfoShapeSplitAndDepthRows) {
  Articulation a;
  LfoGroup g;
  g.shape = 3;
  g.unipolar = true;
  g.frequency = 2.5f;
  g.delay = 0.25f;
  g.ramp = 1;
  g.depthCount = 5;
  for (int j = 0; j < 5; ++j) g.depth[j] = 0.1f * (j + 1);
  a.WriteLfo(kLfoX, g);
  EXPECT_FLOAT_EQ(a.value[LfoRow(kLfoX, kLfoShape)], 67);  // "Noise+"
  EXPECT_FLOAT_EQ(a.value[kRowXLfoToPitch], 0.1f);
  EXPECT_FLOAT_EQ(a.value[kRowXLfoToPan], 0.5f);
  const LfoGroup back = a.ReadLfo(kLfoX);
  EXPECT_EQ(back.shape, 3);
  EXPECT_TRUE(back.unipolar);
  EXPECT_FALSE(back.inverted);
  EXPECT_EQ(back.depthCount, 5);
  EXPECT_FLOAT_EQ(back.depth[3], 0.4f);
  EXPECT_EQ(a.ReadLfo(kLfoV).depthCount, 4);
  a.Set(LfoRow(kLfoV, kLfoShape), 130);
  EXPECT_TRUE(a.ReadLfo(kLfoV).inverted);
  EXPECT_EQ(a.ReadLfo(kLfoV).shape, 2);
}

TEST(ArticulationGroups, EnvelopeAndEqRoundTrip) {
  Articulation a;
  EnvGroup g = a.ReadEnvelope(kEnvF);
  EXPECT_EQ(g.depthCount, 2);
  EXPECT_EQ(a.ReadEnvelope(kEnvV).depthCount, 0);
  EXPECT_EQ(a.ReadEnvelope(kEnvX).depthCount, 1);
  g.row[kEnvSustain] = 0.25f;
  g.depth[0] = 24;
  a.WriteEnvelope(kEnvF, g);
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvF, kEnvSustain)], 0.25f);
  EXPECT_FLOAT_EQ(a.value[kRowFEnvToCutoff], 24);
  a.WriteEq(2, EqBand{2, 6000, -3, 1.5f});
  EXPECT_FLOAT_EQ(a.value[kRowEq3Mode], 2);
  EXPECT_FLOAT_EQ(a.value[kRowEq3Gain], -3);
  EXPECT_EQ(a.ReadEq(2).mode, 2);
  EXPECT_FLOAT_EQ(a.ReadEq(2).q, 1.5f);
}

// --- Catalogue -------------------------------------------------------------------

TEST(Catalogue, EveryRowStandsAtItsNumberWithinItsRange) {
  for (int i = 0; i < kFirstFxParam; ++i) {
    const ParameterRow* r = CatalogueRow(i);
    ASSERT_NE(r, nullptr) << i;
    EXPECT_EQ(r->index, i);
    if (r->kind == kKindText) continue;
    EXPECT_LE(r->min, r->def) << i;
    EXPECT_LE(r->def, r->max) << i;
  }
  EXPECT_EQ(CatalogueRow(-1), nullptr);
  EXPECT_EQ(CatalogueRow(kParamCount), nullptr);
}

TEST(Catalogue, EffectSlotsHaveTheirTypeTables) {
  // Non-empty places among rows 2-8 for each effect type.
  const int expected[kFxTypeCount] = {0, 6, 6, 6, 2, 5, 2, 6, 3};
  for (int s = 0; s < kFxSlots; ++s) {
    const int base = kFirstFxParam + kFxRowsPerSlot * s;
    const ParameterRow* type = CatalogueRow(base);
    ASSERT_NE(type, nullptr);
    EXPECT_STREQ(type->name, "Channel FX type");
    EXPECT_EQ(type->kind, kKindFxType);
    for (int t = 0; t < kFxTypeCount; ++t) {
      int count = 0;
      for (int p = 1; p < kFxRowsPerSlot; ++p)
        if (const ParameterRow* r = CatalogueRow(base + p, t)) {
          ++count;
          EXPECT_EQ(r->index, base + p);
          EXPECT_LE(r->min, r->def);
          EXPECT_LE(r->def, r->max);
        }
      EXPECT_EQ(count, expected[t]) << "type " << t;
    }
  }
  const ParameterRow* r = CatalogueRow(kFirstFxParam + 8 + 2, 1);  // slot 1, chorus depth
  ASSERT_NE(r, nullptr);
  EXPECT_STREQ(r->name, "Depth");
  EXPECT_EQ(r->unit, kUnitMs);
  EXPECT_FLOAT_EQ(r->max, 0.02f);
  EXPECT_EQ(CatalogueRow(kFirstFxParam + 5, 1), nullptr);  // the chorus's empty place
  EXPECT_STREQ(CatalogueRow(kFirstFxParam + 6, 6)->name, "Soft clip");
  EXPECT_FLOAT_EQ(CatalogueRow(kFirstFxParam + 6, 7)->def, 1);  // phaser stereo mode on
  EXPECT_STREQ(CatalogueRow(kFirstFxParam + 6, 3)->name, "Use LPF instead of than HPF");
}

TEST(Catalogue, TextsStandAtTheirNumbers) {
  struct Expect {
    int row;
    const char* name;
    const char* help;
  };
  const Expect rows[] = {
      {1, "Key to Pitch", "Semitones per key, centered on Root key"},
      {21, "Aftertrouch to V-LFO to Volume", ""},
      {51, "Pan position", "-100.0% is full left | 0.0% is centered | +100.0% is full right"},
      {63, "Send channel 3 level", ""},
      {64, "CC94 to Send channel 3 level", ""},
      {65, "P-LFO Wave Shape", ""},
      {70, "V-LFO Frequency", ""},
      {77, "F-LFO Wave Shape", ""},
      {80, "F-LFO Ramp/fade-in Time", ""},
      {81, "V-ENV Initial Level", ""},
      {83, "V-ENV Velocity to Attack 1 Time", "Time-quotient max/min velocity"},
      {97, "V-ENV Sustain", "Decay 2 Level"},
      {98, "V-ENV Release 1 Rate", "Note: Time = Rate * Delta-Level"},
      {106, "V-ENV Release Mode", "Ignore note-off | One-shot mode"},
      {107, "Shutdown Rate", "On note or key-exclusion, time from full volume to silent"},
      {108, "P-ENV Initial Level", ""},
      {134, "", ""},
      {157, "F-ENV Release 3 Level", ""},
      {178, "X-ENV Sustain", "Decay 2 Level"},
      {184, "X-ENV Sustain", "Decay 2 Level"},
      {186, "X-ENV Key number to total Release Time", "Time-multiplier per octave"},
      {191, "Trigger hi-ley", "Highest key played"},
      {193, "Trigger hi-velocity", "Highest velocity payed"},
      {219, "Preferred data format for saving",
       "To create files with mixed data types use \"Auto\" as data format when saving"},
      {222, "Waveform end address offset", "NB; only negative values of zero allowed"},
      {224, "Region is \"phase master\"", "Phase master controls the pitch of the phase group"},
      {228, "MIDI Program Change number", "Here numbered 0..127, some say 1..128"},
  };
  for (const Expect& e : rows) {
    const ParameterRow* r = CatalogueRow(e.row);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->name, e.name) << e.row;
    EXPECT_STREQ(r->help, e.help) << e.row;
  }
}

TEST(Catalogue, BlockRangesAndKinds) {
  EXPECT_FLOAT_EQ(CatalogueRow(EnvRow(kEnvV, kEnvInitial))->min, 0);
  for (int k : {kEnvP, kEnvF, kEnvX}) {
    EXPECT_FLOAT_EQ(CatalogueRow(EnvRow(k, kEnvSustain))->min, -1) << k;
    EXPECT_TRUE(CatalogueRow(EnvRow(k, kEnvShutdown))->flags & kRowHidden);
    EXPECT_FLOAT_EQ(CatalogueRow(EnvRow(k, kEnvShutdown))->def, 0.015f);
  }
  for (int k = 0; k < kEnvCount; ++k) {
    EXPECT_FLOAT_EQ(CatalogueRow(EnvRow(k, kEnvA2Vel))->min, 0.015625f);
    EXPECT_FLOAT_EQ(CatalogueRow(EnvRow(k, kEnvRelKey))->max, 4);
    EXPECT_EQ(CatalogueRow(EnvRow(k, kEnvReleaseMode))->kind, kKindReleaseMode);
    EXPECT_FLOAT_EQ(CatalogueRow(EnvRow(k, kEnvD2Time))->max, 100);
  }
  for (int n = 0; n < kLfoCount; ++n) {
    EXPECT_EQ(CatalogueRow(LfoRow(n, kLfoShape))->kind, kKindLfoShape);
    EXPECT_FLOAT_EQ(CatalogueRow(LfoRow(n, kLfoFrequency))->min, 0.01f);
    EXPECT_FLOAT_EQ(CatalogueRow(LfoRow(n, kLfoDelay))->max, 10);
    EXPECT_FLOAT_EQ(CatalogueRow(LfoRow(n, kLfoRamp))->max, 100);
  }
  EXPECT_EQ(CatalogueRow(kRowFilterType)->kind, kKindFilterType);
  EXPECT_EQ(CatalogueRow(kRowEqBase + 4)->kind, kKindEqMode);
  EXPECT_EQ(CatalogueRow(kRowLoKey)->kind, kKindKey);
  EXPECT_EQ(CatalogueRow(kRowName)->kind, kKindText);
}

TEST(Catalogue, NamesUniqueExceptTheKnownRepeats) {
  // Rows that repeat another row's name on purpose: the fourth send, the
  // X-LFO block, the X-ENV's offset 22 and the hidden shutdown places.
  const std::set<int> repeats = {kRowSend4,        kRowXLfoShape,    kRowXLfoFrequency, kRowXLfoDelay,   kRowXLfoRamp,
                                 kRowXEnvR3Level,  kRowPEnvShutdown, kRowFEnvShutdown,  kRowXEnvShutdown};
  std::map<std::string, int> seen;
  for (int i = 0; i < kFirstFxParam; ++i) {
    if (repeats.count(i)) continue;
    const auto [it, fresh] = seen.emplace(CatalogueRow(i)->name, i);
    EXPECT_TRUE(fresh) << "row " << i << " repeats row " << it->second << ": " << it->first;
  }
}

TEST(Catalogue, SharedLfoAndEnvelopeTexts) {
  const uint64_t noSeparate = Without(kFeatSeparateLfos) & Without(kFeatPitchModLfos);
  EXPECT_STREQ(LookupRow(kRowPLfoToPitch, noSeparate)->name, "M-LFO to Pitch");
  EXPECT_STREQ(LookupRow(kRowModWheelToXLfoPitch, noSeparate)->name, "Mod wheel to M-LFO to Pitch");
  EXPECT_STREQ(LookupRow(kRowAftertouchToVLfoVolume, noSeparate)->name, "Aftertrouch to M-LFO to Volume");
  EXPECT_STREQ(LookupRow(kRowXLfoToPan, noSeparate)->name, "M-LFO to Pan position");
  EXPECT_STREQ(LookupRow(kRowPLfoShape, noSeparate)->name, "M-LFO Wave Shape");
  EXPECT_STREQ(LookupRow(kRowXLfoRamp, noSeparate)->name, "M-LFO Ramp/fade-in Time");
  EXPECT_STREQ(LookupRow(kRowCutoff, noSeparate)->name, "Filter Cutoff frequency");
  // A pitch LFO of its own keeps the P-LFO texts.
  const uint64_t pitchAndMod = Without(kFeatSeparateLfos);
  EXPECT_STREQ(LookupRow(kRowPLfoToPitch, pitchAndMod)->name, "P-LFO to Pitch");
  EXPECT_STREQ(LookupRow(kRowPLfoRamp, pitchAndMod)->name, "P-LFO Ramp/fade-in Time");
  EXPECT_STREQ(LookupRow(kRowXLfoToPitch, pitchAndMod)->name, "M-LFO to Pitch");
  EXPECT_STREQ(LookupRow(kRowVLfoShape, pitchAndMod)->name, "M-LFO Wave Shape");
  EXPECT_STREQ(LookupRow(kRowPLfoToPitch)->name, "P-LFO to Pitch");

  const uint64_t sharedEnv = Without(kFeatSeparateEnvs);
  EXPECT_STREQ(LookupRow(kRowPEnvToPitch, sharedEnv)->name, "M-ENV to Pitch");
  EXPECT_STREQ(LookupRow(kRowXEnvToPan, sharedEnv)->name, "M-ENV to Pan position");
  EXPECT_STREQ(LookupRow(kRowPEnvInitial, sharedEnv)->name, "M-ENV Initial Level");
  EXPECT_STREQ(LookupRow(EnvRow(kEnvX, kEnvSustain), sharedEnv)->name, "M-ENV Sustain");
  EXPECT_STREQ(LookupRow(kRowVEnvInitial, sharedEnv)->name, "V-ENV Initial Level");
  EXPECT_FLOAT_EQ(LookupRow(kRowPEnvInitial, sharedEnv)->min, -1);

  EXPECT_EQ(LookupRow(kRowLoopStart)->kind, kKindReal3);
  EXPECT_EQ(LookupRow(kRowLoopEnd, Without(kFeatFractionalLoops))->kind, kKindInteger);
  EXPECT_STREQ(LookupRow(kRowLoopEnd, Without(kFeatFractionalLoops))->name, "Loop end point");
}

TEST(Catalogue, ParameterSetsAndEnumerations) {
  const auto presets = ParameterSetPresets();
  ASSERT_EQ(presets.size(), 22u);
  EXPECT_EQ(presets.front().mask, ~uint64_t{0});
  EXPECT_STREQ(presets.back().name, "Minimal for portability");
  EXPECT_EQ(FindPreset(0xB6F7F2C460Cull)->name, std::string("SoundFont 2.01 (.SF2)"));
  EXPECT_EQ(FindPreset(0x1234), nullptr);
  int named = 0;
  for (int b = 0; b < kFeatureCount; ++b) named += FeatureName(b)[0] != 0;
  EXPECT_EQ(named, 43);
  EXPECT_STREQ(FeatureName(4), "");
  EXPECT_STREQ(FeatureName(43), "Volume: Mod wheel/Aftertouch to Volume");

  EXPECT_STREQ(EnumValueName(kKindLfoShape, 67), "Noise+");
  EXPECT_STREQ(EnumValueName(kKindLfoShape, 5), "Saw-Down");
  EXPECT_EQ(EnumValueName(kKindLfoShape, 130), nullptr);
  EXPECT_STREQ(EnumValueName(kKindTriggerType, 17), "Alternate Gr.16");
  EXPECT_STREQ(EnumValueName(kKindFilterType, 12), "Band-Reject 12 dB/oct");
  EXPECT_EQ(EnumValueName(kKindFilterType, 13), nullptr);
  EXPECT_TRUE(EnumValueOffered(kKindFilterType, 4, kAllFeatures));
  EXPECT_FALSE(EnumValueOffered(kKindFilterType, 4, Without(kFeatMoreFilterTypes)));
  EXPECT_TRUE(EnumValueOffered(kKindFilterType, 2, Without(kFeatMoreFilterTypes)));
}

// --- Value text -------------------------------------------------------------------

TEST(ValueText, UnitsAndNames) {
  const ParamDisplay notes;
  const ParamDisplay numbers{false, 4};
  EXPECT_EQ(ValueText(*CatalogueRow(kRowPan), -0.5f, notes), "-50%");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowWaveFineTune), 25, notes), "25%");  // cents: not scaled
  EXPECT_EQ(ValueText(*CatalogueRow(EnvRow(kEnvV, kEnvShutdown)), 0.015f, notes), "15 ms");
  EXPECT_EQ(ValueText(*CatalogueRow(EnvRow(kEnvV, kEnvA1Time)), 12.35f, notes), "12.35 s");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowCutoff), 8000, notes), "8000 Hz");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowFilterType), 2, notes), "Low-Pass 12 dB/oct");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowLoKey), 60, notes), "C4");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowLoKey), 61, ParamDisplay{true, 5}), "C#5");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowLoKey), 0, notes), "C-1");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowLoKey), 60, numbers), "60");
  EXPECT_EQ(ValueText(*CatalogueRow(EnvRow(kEnvV, kEnvSustain)), 0, notes), "-inf dB");
  EXPECT_EQ(ValueText(*CatalogueRow(EnvRow(kEnvV, kEnvSustain)), 1, notes), "0 dB");
  EXPECT_EQ(ValueText(*CatalogueRow(kRowDrumKit), 1, notes), "On");
}

TEST(ValueText, ParsesWhatItShows) {
  const ParamDisplay d;
  float v = 0;
  ASSERT_TRUE(ParseValueText(*CatalogueRow(kRowLoKey), "c#4", d, &v));
  EXPECT_FLOAT_EQ(v, 61);
  ASSERT_TRUE(ParseValueText(*CatalogueRow(kRowLoKey), "Db4", d, &v));
  EXPECT_FLOAT_EQ(v, 61);
  ASSERT_TRUE(ParseValueText(*CatalogueRow(kRowLoKey), "72", d, &v));
  EXPECT_FLOAT_EQ(v, 72);
  EXPECT_FALSE(ParseValueText(*CatalogueRow(kRowLoKey), "H4", d, &v));
  EXPECT_FALSE(ParseValueText(*CatalogueRow(kRowLoKey), "C10", d, &v));
  ASSERT_TRUE(ParseValueText(*CatalogueRow(LfoRow(kLfoV, kLfoShape)), "noise+", d, &v));
  EXPECT_FLOAT_EQ(v, 67);
  ASSERT_TRUE(ParseValueText(*CatalogueRow(EnvRow(kEnvV, kEnvA1Time)), "250 ms", d, &v));
  EXPECT_FLOAT_EQ(v, 0.25f);
  ASSERT_TRUE(ParseValueText(*CatalogueRow(kRowCutoff), "1.5 kHz", d, &v));
  EXPECT_FLOAT_EQ(v, 1500);
  EXPECT_FALSE(ParseValueText(*CatalogueRow(kRowCutoff), "loud", d, &v));
  EXPECT_FALSE(ParseValueText(*CatalogueRow(kRowName), "x", d, &v));

  // Text shown for a stored value reads back as the same stored value.
  struct Case {
    int row;
    float value;
  };
  const Case cases[] = {{kRowPan, 0.333f},
                        {kRowCc10ToPan, 1},
                        {kRowCutoff, 123.4f},
                        {EnvRow(kEnvV, kEnvShutdown), 0.015f},
                        {EnvRow(kEnvV, kEnvSustain), 0.5f},
                        {EnvRow(kEnvP, kEnvSustain), -0.25f},
                        {EnvRow(kEnvF, kEnvA2Vel), 0.016f},
                        {kRowMasterVolume, -6.5f},
                        {kRowWaveRootKey, 0},
                        {kRowWaveRootKey, 127},
                        {kRowNoteExclusion, 1},
                        {kRowFilterType, 11},
                        {LfoRow(kLfoF, kLfoFrequency), 12.35f}};
  for (const Case& c : cases) {
    const ParameterRow& row = *CatalogueRow(c.row);
    const std::string text = ValueText(row, c.value, d);
    ASSERT_TRUE(ParseValueText(row, text, d, &v)) << c.row << " " << text;
    EXPECT_FLOAT_EQ(NormaliseForRow(row, v), c.value) << c.row << " " << text;
  }
}

// --- Average -------------------------------------------------------------------

TEST(Average, FilterTypeByCountAndCutoffOfTheFilteredOnly) {
  Articulation a, b, out;
  a.Set(kRowFilterType, 2);
  a.Set(kRowCutoff, 1000);
  a.Set(kRowResonance, 6);
  b.Set(kRowCutoff, 3000);  // unfiltered: its cutoff must not count
  const Articulation* list[] = {&a, &b};
  AverageArticulations(list, out);
  EXPECT_FLOAT_EQ(out.value[kRowFilterType], 2);
  EXPECT_FLOAT_EQ(out.value[kRowCutoff], 1000);
  EXPECT_FLOAT_EQ(out.value[kRowResonance], 6);
  EXPECT_FLOAT_EQ(out.value[kRowMasterVolume], 0);

  // Three records, one filtered: no majority, so no filter and plain means.
  Articulation c;
  const Articulation* three[] = {&a, &b, &c};
  AverageArticulations(three, out);
  EXPECT_FLOAT_EQ(out.value[kRowFilterType], 0);
  EXPECT_FLOAT_EQ(out.value[kRowCutoff], 4000);  // (1000 + 3000 + 8000) / 3
}

TEST(Average, MeansRoundedAndEverythingSet) {
  Articulation a, b, c, out;
  a.Set(kRowMasterTune, 1);
  b.Set(kRowMasterTune, 1);
  c.Set(kRowMasterTune, 2);
  const Articulation* list[] = {&a, &b, &c};
  AverageArticulations(list, out);
  EXPECT_FLOAT_EQ(out.value[kRowMasterTune], 1.33f);  // 1.333 by the mean, 0.01 by the row's kind
  for (int i = 0; i < kArticulationCount; ++i) EXPECT_TRUE(out.IsSet(i)) << i;

  const Articulation* one[] = {&c};
  Articulation single;
  AverageArticulations(one, single);
  EXPECT_FLOAT_EQ(single.value[kRowMasterTune], 2);
  EXPECT_TRUE(single.IsSet(kRowCutoff));
}

TEST(Average, DiscreteRowsByMajority) {
  Articulation r[3];
  const int shape = LfoRow(kLfoF, kLfoShape);
  r[0].Set(shape, 2 | kLfoUnipolar);
  r[1].Set(shape, 1 | kLfoUnipolar);
  r[2].Set(shape, 2);
  r[0].Set(EnvRow(kEnvV, kEnvReleaseMode), 1);
  r[1].Set(EnvRow(kEnvV, kEnvReleaseMode), 1);
  const Articulation* list[] = {&r[0], &r[1], &r[2]};
  Articulation out;
  AverageArticulations(list, out);
  // Square wins by count; two unipolar of three is not more than m = 2.
  EXPECT_FLOAT_EQ(out.value[shape], 2);
  EXPECT_FLOAT_EQ(out.value[EnvRow(kEnvV, kEnvReleaseMode)], 1);

  // A tie goes to the first shape value.
  Articulation s0, s1;
  s0.Set(shape, 4);
  s1.Set(shape, 1);
  const Articulation* pair[] = {&s0, &s1};
  AverageArticulations(pair, out);
  EXPECT_FLOAT_EQ(out.value[shape], 1);
}

TEST(Average, EqBandsOverActiveRecordsWithModeAsymmetry) {
  Articulation a, b;
  a.WriteEq(0, EqBand{2, 100, 6, 1});
  b.WriteEq(0, EqBand{2, 300, 0, 1});  // inactive: no gain
  a.WriteEq(1, EqBand{1, 1000, -4, 2});
  b.WriteEq(1, EqBand{0, 3000, -2, 1});
  const Articulation* list[] = {&a, &b};
  Articulation out;
  AverageArticulations(list, out);
  const EqBand e1 = out.ReadEq(0), e2 = out.ReadEq(1);
  EXPECT_EQ(e1.mode, 1);  // band 1 takes a low shelf even from high shelves
  EXPECT_FLOAT_EQ(e1.frequency, 100);
  EXPECT_FLOAT_EQ(e1.gain, 6);
  EXPECT_EQ(e2.mode, 2);  // one shelf of two active is half
  EXPECT_FLOAT_EQ(e2.frequency, 2000);
  EXPECT_FLOAT_EQ(e2.gain, -3);
  EXPECT_EQ(out.ReadEq(2).mode, 0);
}

// --- Envelope fold -------------------------------------------------------------

EnvGroup Flat() {
  EnvGroup g = Articulation().ReadEnvelope(kEnvV);
  return g;
}

TEST(EnvelopeFold, ZeroTimeSegmentsGiveThePlainMean) {
  EnvGroup g = Flat();
  g.row[kEnvA1Level] = 0.5f;  // rises: not a delay
  g.row[kEnvA1Vel] = 2;
  g.row[kEnvA2Vel] = 4;
  g.row[kEnvA1Key] = 0.5f;
  g.row[kEnvA2Key] = 1.5f;
  EXPECT_FLOAT_EQ(FoldToDahdsr(g, false), 0);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Time], 0);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Vel], 3);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Key], 1);
  EXPECT_FLOAT_EQ(g.row[kEnvA1Vel], 1);
  EXPECT_TRUE(IsPlainEnvelope(g));
}

TEST(EnvelopeFold, MergedFactorsAreTimeWeighted) {
  EnvGroup g = Flat();
  g.row[kEnvA1Level] = 0.5f;
  g.row[kEnvA1Time] = 1;
  g.row[kEnvA2Time] = 3;
  g.row[kEnvA1Vel] = 2;
  g.row[kEnvA2Vel] = 4;
  FoldToDahdsr(g, false);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Time], 4);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Vel], 3.5f);
  EXPECT_FLOAT_EQ(g.row[kEnvA1Time], 0);
}

TEST(EnvelopeFold, DelayHoldAndDecayKeepTheirTimes) {
  // Stays at 0 for 0.5 s, rises to 0.8 in 1 s, holds 0.2 s at 0.8, falls to
  // 0.4 in 2 s: a V-ENV whose peak is 0.8.
  EnvGroup g = Flat();
  g.row[kEnvA1Time] = 0.5f;
  g.row[kEnvA1Level] = 0;
  g.row[kEnvA2Time] = 1;
  g.row[kEnvA2Level] = 0.8f;
  g.row[kEnvD1Time] = 0.2f;
  g.row[kEnvD1Level] = 0.8f;
  g.row[kEnvD2Time] = 2;
  g.row[kEnvSustain] = 0.4f;
  g.row[kEnvR1Level] = 0.2f;
  const float gain = FoldToDahdsr(g, false);
  EXPECT_NEAR(gain, 20 * std::log10(0.8), 1e-4);
  EXPECT_FLOAT_EQ(g.row[kEnvA1Time], 0.5f);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Time], 1);
  EXPECT_FLOAT_EQ(g.row[kEnvD1Time], 0.2f);
  EXPECT_FLOAT_EQ(g.row[kEnvD2Time], 2);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Level], 1);
  EXPECT_FLOAT_EQ(g.row[kEnvSustain], 0.5f);
  EXPECT_FLOAT_EQ(g.row[kEnvR1Level], 0.25f);
}

TEST(EnvelopeFold, BipolarPeakMovesIntoTheDepth) {
  Articulation a;
  EnvGroup g = a.ReadEnvelope(kEnvP);
  g.row[kEnvA2Level] = -0.5f;
  g.row[kEnvD1Level] = -0.5f;
  g.row[kEnvSustain] = -0.25f;
  g.depth[0] = 12;
  g.depth[1] = 2;
  FoldToDahdsr(g, true);
  EXPECT_FLOAT_EQ(g.row[kEnvA2Level], 1);
  EXPECT_FLOAT_EQ(g.row[kEnvSustain], 0.5f);
  EXPECT_FLOAT_EQ(g.depth[0], -6);
  EXPECT_FLOAT_EQ(g.depth[1], -1);
}

TEST(EnvelopeFold, ShapeComparisonUsesItsRoundings) {
  EnvGroup a = Flat(), b = Flat();
  a.row[kEnvA1Time] = 0.5f;
  b.row[kEnvA2Time] = 0.52f;  // same total attack to 0.1 s
  b.row[kEnvSustain] = 1.004f;
  EXPECT_TRUE(SameEnvelopeShape(a, b));
  b.row[kEnvSustain] = 0.99f;
  EXPECT_FALSE(SameEnvelopeShape(a, b));
  b.row[kEnvSustain] = 1;
  b.row[kEnvR1Level] = 0.02f;  // within 0.05
  EXPECT_TRUE(SameEnvelopeShape(a, b));
  b.row[kEnvReleaseMode] = 1;
  EXPECT_FALSE(SameEnvelopeShape(a, b));
}

// --- Reduce --------------------------------------------------------------------

TEST(Reduce, MinimalSetLeavesOneLfoTimingNoFilterNoEq) {
  Articulation a;
  a.Set(kRowPLfoToPitch, 2);
  a.Set(LfoRow(kLfoP, kLfoFrequency), 6);
  a.Set(kRowVLfoToVolume, 6);  // the strongest
  a.Set(LfoRow(kLfoV, kLfoFrequency), 3);
  a.Set(LfoRow(kLfoV, kLfoDelay), 1);
  a.Set(LfoRow(kLfoV, kLfoRamp), 1);
  a.Set(kRowFLfoToCutoff, 1);
  a.Set(LfoRow(kLfoF, kLfoFrequency), 3.02f);  // same rate to 0.1 Hz as V
  a.Set(LfoRow(kLfoF, kLfoDelay), 1.5f);
  a.Set(kRowFilterType, 4);
  a.Set(kRowEq1Gain, 3);
  a.Set(kRowEq2Gain, -3);
  a.Set(kRowEq3Gain, 6);
  ReduceArticulation(a, 0);

  for (int n = 0; n < kLfoCount; ++n) {
    EXPECT_FLOAT_EQ(a.value[LfoRow(n, kLfoFrequency)], 3) << n;
    EXPECT_FLOAT_EQ(a.value[LfoRow(n, kLfoDelay)], 1.5f) << n;  // ramp halved into the delay
    EXPECT_FLOAT_EQ(a.value[LfoRow(n, kLfoRamp)], 0) << n;
    EXPECT_FLOAT_EQ(a.value[LfoRow(n, kLfoShape)], 0) << n;
  }
  EXPECT_FLOAT_EQ(a.value[kRowVLfoToVolume], 6);
  EXPECT_FLOAT_EQ(a.value[kRowPLfoToPitch], 0);  // P ran at another rate
  EXPECT_FLOAT_EQ(a.value[kRowFilterType], 0);
  EXPECT_FLOAT_EQ(a.value[kRowFLfoToCutoff], 0);  // no filter: no filter modulation
  EXPECT_FLOAT_EQ(a.value[kRowEq1Gain], 0);
  EXPECT_FLOAT_EQ(a.value[kRowEq2Gain], 0);
  EXPECT_FLOAT_EQ(a.value[kRowEq3Gain], 0);
  EXPECT_FALSE(a.IsSet(kRowEq1Gain));
  EXPECT_FLOAT_EQ(a.value[kRowBendToPitch], 2);
}

TEST(Reduce, InvertedLfoBecomesNegatedDepths) {
  Articulation a;
  a.Set(LfoRow(kLfoX, kLfoShape), 128 + 1);  // inverted "Triangle"
  a.Set(kRowXLfoToPitch, 3);
  a.Set(kRowXLfoToPan, 0.5f);
  ReduceArticulation(a, kAllFeatures);
  EXPECT_FLOAT_EQ(a.value[LfoRow(kLfoX, kLfoShape)], 1);
  EXPECT_FLOAT_EQ(a.value[kRowXLfoToPitch], -3);
  EXPECT_FLOAT_EQ(a.value[kRowXLfoToPan], -0.5f);
}

TEST(Reduce, ThreeReleasesFoldKeepingTheReleaseTime) {
  Articulation a;
  const int r = kEnvBase;  // V-ENV
  a.Set(r + kEnvSustain, 1);
  a.Set(r + kEnvR1Rate, 1);
  a.Set(r + kEnvR1Level, 0.5f);  // 0.5 s to get here
  a.Set(r + kEnvR2Time, 1);
  a.Set(r + kEnvR2Level, 0);
  ReduceArticulation(a, Without(kFeatThreeReleases));
  EXPECT_FLOAT_EQ(a.value[r + kEnvR1Rate], 1.5f);
  EXPECT_FLOAT_EQ(a.value[r + kEnvR1Level], 0);
  EXPECT_FLOAT_EQ(a.value[r + kEnvR2Time], 0);
  EXPECT_FALSE(a.IsSet(r + kEnvR2Time));
}

TEST(Reduce, PeakBelowOneGoesIntoMasterVolume) {
  Articulation a;
  a.Set(EnvRow(kEnvV, kEnvA2Level), 0.5f);
  a.Set(EnvRow(kEnvV, kEnvD1Level), 0.5f);
  a.Set(EnvRow(kEnvV, kEnvSustain), 0.25f);
  ReduceArticulation(a, Without(kFeatMoreLevels));
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvV, kEnvA2Level)], 1);
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvV, kEnvSustain)], 0.5f);
  EXPECT_FLOAT_EQ(a.value[kRowMasterVolume], -6.02f);
}

TEST(Reduce, OneModulationEnvelopeTakesTheStrongest) {
  Articulation a;
  a.Set(kRowPEnvToPitch, 2);
  a.Set(EnvRow(kEnvP, kEnvA2Time), 1);
  a.Set(kRowFEnvToCutoff, 24);  // the strongest
  a.Set(EnvRow(kEnvF, kEnvD2Time), 2);
  a.Set(EnvRow(kEnvF, kEnvSustain), 0.5f);
  ReduceArticulation(a, Without(kFeatSeparateEnvs));
  EXPECT_FLOAT_EQ(a.value[kRowFEnvToCutoff], 24);
  EXPECT_FLOAT_EQ(a.value[kRowPEnvToPitch], 0);  // other shape: depth dropped
  for (int k : {kEnvP, kEnvX}) {
    EXPECT_FLOAT_EQ(a.value[EnvRow(k, kEnvD2Time)], 2);
    EXPECT_FLOAT_EQ(a.value[EnvRow(k, kEnvSustain)], 0.5f);
    EXPECT_FLOAT_EQ(a.value[EnvRow(k, kEnvA2Time)], 0);
  }
}

TEST(Reduce, EqBandsSortShelvesToTheEnds) {
  Articulation a;
  a.WriteEq(0, EqBand{2, 8000, 3, 1});
  a.WriteEq(1, EqBand{1, 100, 4, 1});
  a.WriteEq(2, EqBand{0, 1000, 5, 1});
  ReduceArticulation(a, kAllFeatures);
  EXPECT_EQ(a.ReadEq(0).mode, 1);
  EXPECT_FLOAT_EQ(a.ReadEq(0).gain, 4);
  EXPECT_EQ(a.ReadEq(1).mode, 0);
  EXPECT_EQ(a.ReadEq(2).mode, 2);
  EXPECT_FLOAT_EQ(a.ReadEq(2).frequency, 8000);
}

TEST(Reduce, FullSetChangesNothingPlain) {
  Articulation a;
  a.Set(kRowCutoff, 500);
  a.Set(EnvRow(kEnvV, kEnvA1Time), 0.3f);
  const Articulation before = a;
  ReduceArticulation(a, kAllFeatures);
  EXPECT_EQ(a, before);
  Articulation fresh;
  ReduceArticulation(fresh, 0);
  EXPECT_EQ(fresh, Articulation());  // defaults are already the plainest form
}

Articulation RandomRecord(std::mt19937& rng) {
  Articulation a;
  std::uniform_real_distribution<float> unit(0, 1);
  for (int i = 0; i < kArticulationCount; ++i) {
    if (unit(rng) < 0.5f) continue;
    const ParameterRow& row = *CatalogueRow(i);
    float v;
    switch (row.kind) {
      case kKindLfoShape: {
        static constexpr int kForms[] = {0, 64, 128, 192 - 64};
        v = static_cast<float>(std::uniform_int_distribution<int>(0, 5)(rng) | kForms[rng() % 4]);
        break;
      }
      case kKindFilterType:
      case kKindEqMode:
      case kKindReleaseMode:
        v = static_cast<float>(std::uniform_int_distribution<int>(0, static_cast<int>(row.max))(rng));
        break;
      default:
        // Mostly small, well-behaved values, sometimes the whole range.
        if (unit(rng) < 0.3f) v = row.min + (row.max - row.min) * unit(rng);
        else v = row.def + (unit(rng) - 0.5f) * std::min(2.0f, row.max - row.min);
        break;
    }
    a.Set(i, v);
  }
  return a;
}

TEST(Reduce, IdempotentForEveryPresetAndRandomMasks) {
  std::mt19937 rng(20240611);
  std::vector<uint64_t> masks;
  for (const ParameterSetPreset& p : ParameterSetPresets()) masks.push_back(p.mask);
  for (int i = 0; i < 40; ++i) masks.push_back((uint64_t{rng()} << 32 | rng()) & ((uint64_t{1} << 44) - 1));
  for (int trial = 0; trial < 200; ++trial) {
    const Articulation original = RandomRecord(rng);
    for (uint64_t mask : masks) {
      Articulation once = original;
      ReduceArticulation(once, mask);
      Articulation twice = once;
      ReduceArticulation(twice, mask);
      for (int i = 0; i < kArticulationCount; ++i) {
        ASSERT_EQ(std::bit_cast<uint32_t>(twice.value[i]), std::bit_cast<uint32_t>(once.value[i]))
            << "row " << i << " trial " << trial << " mask 0x" << std::hex << mask << ": " << once.value[i]
            << " then " << twice.value[i];
        ASSERT_EQ(twice.IsSet(i), once.IsSet(i)) << "row " << i << " trial " << trial << " mask 0x" << std::hex << mask;
      }
    }
  }
}

// --- Levels --------------------------------------------------------------------

TEST(Levels, MoveDownFillsOnlyMissingValues) {
  Articulation parent, c0, c1;
  parent.Set(kRowCutoff, 500);
  parent.Set(kRowResonance, 6);
  c1.Set(kRowCutoff, 900);
  Articulation* kids[] = {&c0, &c1};
  MoveArticulationDown(parent, kids);
  EXPECT_FALSE(parent.AnySet());
  EXPECT_FLOAT_EQ(c0.value[kRowCutoff], 500);
  EXPECT_TRUE(c0.IsSet(kRowResonance));
  EXPECT_FLOAT_EQ(c1.value[kRowCutoff], 900);
}

TEST(Levels, MoveUpAveragesEffectiveRecords) {
  Articulation parent, c0, c1;
  parent.Set(kRowResonance, 6);
  c0.Set(kRowCutoff, 1000);
  c1.Set(kRowCutoff, 3000);
  c1.Set(kRowResonance, 2);
  Articulation* kids[] = {&c0, &c1};
  MoveArticulationUp(parent, kids);
  EXPECT_FLOAT_EQ(parent.value[kRowCutoff], 2000);
  EXPECT_FLOAT_EQ(parent.value[kRowResonance], 4);  // c0 took the parent's 6
  EXPECT_FALSE(c0.AnySet());
  EXPECT_FALSE(c1.AnySet());
}

TEST(Levels, MoveUpIfAllEqualPerParameterOrWholeBlock) {
  Articulation parent, c0, c1;
  c0.Set(kRowCutoff, 1000);
  c1.Set(kRowCutoff, 1000);
  c0.Set(kRowResonance, 3);
  c1.Set(kRowResonance, 4);
  Articulation* kids[] = {&c0, &c1};
  EXPECT_FALSE(MoveUpIfAllEqual(parent, kids, false));  // resonance differs: nothing moves
  EXPECT_FALSE(parent.IsSet(kRowCutoff));
  EXPECT_TRUE(MoveUpIfAllEqual(parent, kids, true));
  EXPECT_FLOAT_EQ(parent.value[kRowCutoff], 1000);
  EXPECT_FALSE(c0.IsSet(kRowCutoff));
  EXPECT_TRUE(c0.IsSet(kRowResonance));

  // A child without the row counts with the parent's value.
  Articulation p2, d0, d1;
  p2.Set(kRowMasterVolume, -6);
  d0.Set(kRowMasterVolume, -6);
  Articulation* kids2[] = {&d0, &d1};
  EXPECT_TRUE(MoveUpIfAllEqual(p2, kids2, false));
  EXPECT_FALSE(d0.IsSet(kRowMasterVolume));
}

TEST(Levels, PropagateDeltaOnlyWherePresent) {
  Articulation c0, c1;
  c0.Set(kRowMasterVolume, -3);
  Articulation* kids[] = {&c0, &c1};
  PropagateDelta(kRowMasterVolume, 2, kids);
  EXPECT_FLOAT_EQ(c0.value[kRowMasterVolume], -1);
  EXPECT_FLOAT_EQ(c1.value[kRowMasterVolume], 0);
  EXPECT_FALSE(c1.IsSet(kRowMasterVolume));
}

}  // namespace
}  // namespace kv
