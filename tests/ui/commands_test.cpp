// The collection commands on the main collection, as the window and the
// driver run them.
#include <gtest/gtest.h>

#include "core/app.h"
#include "core/items.h"
#include "core/settings.h"
#include "ui/commands.h"

namespace kv {
namespace {

class Commands : public ::testing::Test {
 protected:
  Collection& c = MainCollection();
  void SetUp() override {
    ResetSettings();
    c.Clear();
  }
  void TearDown() override { c.Clear(); }
  Waveform* Wave(const char* name, uint32_t frames = 100) {
    auto* w = Create<Waveform>(c, name);
    w->length = frames;
    w->samples16 = std::make_unique<int16_t[]>(frames);
    return w;
  }
};

TEST_F(Commands, AutocreateMakesAnInstrumentPerUnusedWave) {
  Waveform* used = Wave("used");
  Wave("kick");
  Wave("snare");
  auto* inst = Create<Instrument>(c, "existing");
  AddRegion(*AddLayer(*inst), used->id, MakeRange(0, 127), MakeRange(0, 127), 255);
  EXPECT_EQ(AutocreateInstruments(c), 2);
  EXPECT_EQ(LastStatusText(), "Created 2 new instruments.");
  std::vector<Instrument*> all = c.All<Instrument>();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_STREQ(all[1]->name, "kick");
  EXPECT_EQ(all[1]->location, 1u);  // the first free location after the existing 0
  EXPECT_EQ(all[2]->location, 2u);
  // Nothing left unused: a box, no instrument.
  EXPECT_EQ(AutocreateInstruments(c), 0);
  EXPECT_EQ(c.Count(ItemType::Instrument), 3u);
}

TEST_F(Commands, NewInstrumentTakesTheFirstFreeProgramWithALayer) {
  auto* a = Create<Instrument>(c, "a");
  a->location = 0;
  auto* b = Create<Instrument>(c, "b");
  b->location = 2;
  Instrument* fresh = AddNewInstrument(c);
  EXPECT_EQ(fresh->location, 1u);
  EXPECT_STREQ(fresh->name, "New instrument");
  EXPECT_EQ(fresh->children.size(), 1u);
}

TEST_F(Commands, NewRegionFillsTheFreeRangeWithTheNextWave) {
  Waveform* w1 = Wave("w1");
  Waveform* w2 = Wave("w2");
  auto* inst = Create<Instrument>(c, "i");
  Layer* layer = AddLayer(*inst);
  Region* low = AddRegion(*layer, w1->id, MakeRange(0, 59), MakeRange(0, 127), 255);
  low->art.Set(14, -3.0f);
  Region* added = AddNewRegion(*layer);
  ASSERT_NE(added, nullptr);
  EXPECT_EQ(added->trigger.loKey, 60);
  EXPECT_EQ(added->trigger.hiKey, 127);
  // The wave after the one below, and the articulation copied from it.
  EXPECT_EQ(RegionWaveform(*added), w2);
  EXPECT_TRUE(added->art.IsSet(14));
  // A collection without waves gets no region.
  c.Clear();
  auto* lone = Create<Instrument>(c, "lone");
  EXPECT_EQ(AddNewRegion(*AddLayer(*lone)), nullptr);
}

TEST_F(Commands, CloneOfAWaveCopiesItsSamples) {
  Waveform* w = Wave("Bass", 10);
  w->samples16[3] = 1234;
  auto* copy = dynamic_cast<Waveform*>(CloneSelected(*w));
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->name, "Copy of Bass");
  ASSERT_TRUE(copy->samples16);
  EXPECT_EQ(copy->samples16[3], 1234);
  EXPECT_NE(copy->samples16.get(), w->samples16.get());
}

TEST_F(Commands, CollectionCommandsReportTheirResults) {
  Wave("a");
  Wave("unused");
  ASSERT_TRUE(RunCollectionCommand(138));
  EXPECT_EQ(LastStatusText(), "Done: Deleted 2 unused waveforms (0 KB freed)");
  ASSERT_TRUE(RunCollectionCommand(138));
  EXPECT_EQ(LastStatusText(), "No unused waveforms found");
  ASSERT_TRUE(RunCollectionCommand(155));
  EXPECT_EQ(LastStatusText(), "No waveforms split");
  ASSERT_TRUE(RunCollectionCommand(128));
  EXPECT_EQ(LastStatusText(), "Done: Collection cleared.");
  EXPECT_FALSE(RunCollectionCommand(4242));
}

TEST_F(Commands, ConfirmDiscardAsksOnlyWhenThereIsSomethingToLose) {
  Settings().load.bConfirm = 0;
  EXPECT_TRUE(ConfirmDiscard("Confirm clearing collection!", false));
  Settings().load.bConfirm = 1;
  // No waveforms: nothing to lose.
  EXPECT_TRUE(ConfirmDiscard("Confirm clearing collection!", false));
}

}  // namespace
}  // namespace kv
