#include "core/params.h"

#include <gtest/gtest.h>

#include "core/items.h"

namespace kv {
namespace {

struct ParamsFixture : ::testing::Test {
  Collection c;
  Waveform* wave = nullptr;
  Instrument* inst = nullptr;
  Layer* layer = nullptr;
  Region* region = nullptr;
  void SetUp() override {
    wave = Create<Waveform>(c, "Pad");
    wave->length = 5000;
    inst = Create<Instrument>(c, "Pad");
    layer = AddLayer(*inst);
    region = AddRegion(*layer, wave->id, MakeRange(0, 127), MakeRange(0, 127), 255);
  }
};

TEST_F(ParamsFixture, ArticulationSetRoundsAndInheritedValuesFollow) {
  params::Set(*inst, kRowCutoff, 5);
  EXPECT_FLOAT_EQ(params::Get(*inst, kRowCutoff), 8);
  EXPECT_TRUE(params::IsSet(*inst, kRowCutoff));
  // Levels below that don't set the row see the instrument's value at once.
  EXPECT_FLOAT_EQ(params::Get(*layer, kRowCutoff), 8);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowCutoff), 8);
  EXPECT_FALSE(params::IsSet(*region, kRowCutoff));

  params::Set(*region, kRowCutoff, 440.04f);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowCutoff), 440);
  params::Set(*inst, kRowCutoff, 1000);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowCutoff), 440);  // its own value stands
}

TEST_F(ParamsFixture, InstrumentResetWalksDown) {
  params::Set(*inst, kRowResonance, 12);
  params::Set(*layer, kRowResonance, 6);
  params::Reset(*layer, kRowResonance);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowResonance), 12);
  params::Reset(*inst, kRowResonance);
  EXPECT_FALSE(params::IsSet(*inst, kRowResonance));
  EXPECT_FLOAT_EQ(params::Get(*layer, kRowResonance), 0);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowResonance), 0);
}

TEST_F(ParamsFixture, TriggerAndOverrideRows) {
  params::Set(*layer, kRowExclusionGroup, 70000);
  EXPECT_FLOAT_EQ(params::Get(*layer, kRowExclusionGroup), 65535);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowExclusionGroup), 65535);  // inherited
  EXPECT_FALSE(params::IsSet(*region, kRowExclusionGroup));
  params::Set(*region, kRowTriggerDelay, 1.23456f);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowTriggerDelay), 1.235f);

  params::Set(*region, kRowRootKeyOverride, 200);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowRootKeyOverride), 127);
  EXPECT_TRUE(params::IsSet(*region, kRowRootKeyOverride));
  params::Reset(*region, kRowRootKeyOverride);
  EXPECT_FALSE(params::IsSet(*region, kRowRootKeyOverride));
  EXPECT_FLOAT_EQ(params::Get(*region, kRowRootKeyOverride), wave->rootKey);
  params::Set(*region, kRowEndOffset, 5);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowEndOffset), 0);  // only zero or below
}

TEST_F(ParamsFixture, RowsOfOtherLevelsAnswerThroughTheirOwner) {
  params::Set(*region, kRowWaveRootKey, 64);
  EXPECT_EQ(wave->rootKey, 64);
  params::Set(*region, kRowWaveVolume, -3.456f);
  EXPECT_FLOAT_EQ(wave->volume, -3.46f);
  params::Set(*layer, kRowProgram, 12);
  EXPECT_EQ(LocationProgram(inst->location), 12u);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowProgram), 12);
  EXPECT_EQ(params::Descriptor(*wave, kRowCutoff), nullptr);
  EXPECT_EQ(params::Descriptor(*inst, kRowLoKey), nullptr);
}

TEST_F(ParamsFixture, EffectSlotsFollowTheirType) {
  const int slot1 = kFirstFxParam + kFxRowsPerSlot;
  EXPECT_EQ(params::Descriptor(*inst, slot1 + 1), nullptr);  // no effect yet
  params::Set(*inst, slot1, 3);                              // delay
  EXPECT_FLOAT_EQ(params::Get(*inst, slot1 + 1), 0.8f);      // its default delay time
  const ParameterRow* row = params::Descriptor(*region, slot1 + 1);
  ASSERT_NE(row, nullptr);
  EXPECT_STREQ(row->name, "Delay time");
  params::Set(*inst, slot1 + 1, 9);
  EXPECT_FLOAT_EQ(params::Get(*inst, slot1 + 1), 4);
  EXPECT_TRUE(params::IsSet(*inst, slot1));
  params::Set(*inst, slot1 + 7, 1);  // an empty place of the delay: ignored
  EXPECT_FLOAT_EQ(inst->fx[1].param[6], 0);
  params::Reset(*inst, slot1);
  EXPECT_EQ(inst->fx[1].type, 0);
}

TEST_F(ParamsFixture, TextsWithUnitsAndParameterSet) {
  const ParamDisplay d;
  EXPECT_TRUE(params::SetText(*region, kRowLoKey, "C3", d));
  EXPECT_EQ(region->trigger.loKey, 48);
  EXPECT_EQ(params::GetText(*region, kRowLoKey, d), "C3");
  EXPECT_EQ(params::GetText(*region, kRowLoKey, ParamDisplay{false, 4}), "48");
  EXPECT_TRUE(params::SetText(*layer, kRowPan, "-25%", d));
  EXPECT_FLOAT_EQ(params::Get(*layer, kRowPan), -0.25f);
  EXPECT_FALSE(params::SetText(*layer, kRowPan, "left", d));
  EXPECT_FALSE(params::SetText(*inst, kRowName, "Name", d));  // text rows are the item's own
  EXPECT_STREQ(params::Descriptor(*inst, kRowPLfoShape, 0)->name, "M-LFO Wave Shape");
  EXPECT_FLOAT_EQ(params::Default(*region, kRowWaveRootKey), 60);
  EXPECT_FLOAT_EQ(params::Default(*inst, kRowVelToVolume), 96);
}

TEST_F(ParamsFixture, PropagatedEditMovesChildrenThatSetTheRow) {
  params::Set(*region, kRowMasterVolume, -6);
  params::Set(*layer, kRowMasterVolume, -2);
  params::SetPropagating(*layer, kRowMasterVolume, 1);
  EXPECT_FLOAT_EQ(params::Get(*region, kRowMasterVolume), -3);
  Region* other = AddRegion(*layer, wave->id, MakeRange(0, 10), MakeRange(0, 127), 255);
  params::SetPropagating(*layer, kRowMasterVolume, 2);
  EXPECT_FLOAT_EQ(params::Get(*other, kRowMasterVolume), 2);  // inherited, not shifted
  EXPECT_FLOAT_EQ(params::Get(*region, kRowMasterVolume), -2);
}

}  // namespace
}  // namespace kv
