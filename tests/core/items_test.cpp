#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <set>
#include <string>

#include "core/items.h"
#include "core/settings.h"

namespace kv {
namespace {

Region* MakeRegion(Layer& layer, uint8_t lo, uint8_t hi, uint8_t vlo = 0, uint8_t vhi = 127, ItemId wave = kNoWave) {
  return AddRegion(layer, wave, MakeRange(lo, hi), MakeRange(vlo, vhi), 255);
}

struct Fixture : ::testing::Test {
  Collection c;
  Instrument* inst = nullptr;
  Layer* layer = nullptr;
  Waveform* wave = nullptr;
  void SetUp() override {
    c.SetName("Bank");
    wave = Create<Waveform>(c, "Piano C4");
    wave->length = 1000;
    inst = Create<Instrument>(c, "Piano");
    layer = AddLayer(*inst);
  }
};

TEST(ItemMap, HashIsFnv1aOverLowByteFirst) {
  // FNV-1a of the bytes 01 00 00 80, computed by hand from the offset and prime.
  uint64_t h = 0xCBF29CE484222325ull;
  for (uint8_t b : {0x01, 0x00, 0x00, 0x80}) {
    h ^= b;
    h *= 0x100000001B3ull;
  }
  EXPECT_EQ(ItemMap::Hash(0x80000001u), h);
}

TEST(ItemMap, GrowsByDoublingAtLoadFactorOneAndKeepsListOrder) {
  Collection c;
  EXPECT_EQ(c.Map().BucketCount(), 8u);
  std::vector<Waveform*> waves;
  for (int i = 0; i < 20; ++i) waves.push_back(Create<Waveform>(c, ("w" + std::to_string(i)).c_str()));
  EXPECT_EQ(c.Map().Size(), 21u);
  EXPECT_EQ(c.Map().BucketCount(), 32u);
  std::vector<Waveform*> listed = c.All<Waveform>();
  EXPECT_EQ(listed, waves);
  for (Waveform* w : waves) EXPECT_EQ(c.Find(w->id), w);
  EXPECT_EQ(c.Find(kNoItem), nullptr);
}

TEST(Ids, TypeBitsAndProcessWideSerials) {
  Collection a, b;
  auto* w1 = Create<Waveform>(a, "x");
  auto* w2 = Create<Waveform>(b, "y");
  auto* i1 = Create<Instrument>(a, "i");
  EXPECT_EQ(TypeOf(w1->id), ItemType::Waveform);
  EXPECT_EQ(i1->id & 0xE0000000u, 0x80000000u);
  // Scratch and main collections don't share serials.
  EXPECT_NE(SerialOf(w1->id), SerialOf(w2->id));
  EXPECT_EQ(a.Count(ItemType::Waveform), 1u);
}

TEST(Ids, ClearKeepsSerialsGoingAndZeroesCounts) {
  Collection c;
  Create<Waveform>(c, "a");
  auto* inst = Create<Instrument>(c, "i");
  AddRegion(*AddLayer(*inst), kNoWave, kNoRange, kNoRange, 255);
  uint32_t last = LastSerial(ItemType::Waveform);
  c.Clear();
  for (int t = 0; t < 7; ++t) EXPECT_EQ(c.counts[t], 0u) << t;
  EXPECT_EQ(c.Count(ItemType::Collection), 1u);
  EXPECT_STREQ(c.name, "New collection");
  EXPECT_EQ(c.formatIndex, -1);
  auto* next = Create<Waveform>(c, "b");
  EXPECT_EQ(SerialOf(next->id), (last + 1) & kSerialMask);
}

TEST_F(Fixture, DeletingAWaveLeavesAnUnnamedRegion) {
  Region* r = MakeRegion(*layer, 0, 127, 0, 127, wave->id);
  r->FixUp();
  EXPECT_NE(std::string(r->name).find("Piano C4"), std::string::npos);
  DeleteItem(wave);
  layer->FixUp();
  r->FixUp();
  ASSERT_EQ(layer->children.size(), 1u);
  EXPECT_TRUE(r->children.empty());
  EXPECT_NE(std::string(r->name).find("unnamed"), std::string::npos);
  EXPECT_FALSE(r->HasContent());
}

TEST_F(Fixture, IdenticalRegionsLeaveOnlyTheFirst) {
  Region* first = MakeRegion(*layer, 10, 20);
  MakeRegion(*layer, 10, 20);
  layer->FixUp();
  ASSERT_EQ(layer->children.size(), 1u);
  EXPECT_EQ(layer->children[0], first->id);
}

TEST_F(Fixture, LayerSortsAndCutsOverlappingKeys) {
  Region* high = MakeRegion(*layer, 50, 80);
  Region* low = MakeRegion(*layer, 0, 60);
  layer->FixUp();
  ASSERT_EQ(layer->children.size(), 2u);
  EXPECT_EQ(layer->children[0], low->id);
  EXPECT_EQ(high->trigger.loKey, 61);
  EXPECT_TRUE(high->trigger.IsSet(kRowLoKey));
}

TEST_F(Fixture, LayerSplitsVelocityWhenThatIsTheSmallerCut) {
  // Same keys, overlapping velocities: the velocity range of the second is cut.
  MakeRegion(*layer, 0, 127, 0, 80);
  Region* loud = MakeRegion(*layer, 0, 127, 60, 127);
  layer->FixUp();
  ASSERT_EQ(layer->children.size(), 2u);
  EXPECT_EQ(loud->trigger.loVel, 81);
  EXPECT_EQ(loud->trigger.hiVel, 127);
}

TEST_F(Fixture, LayerExclusionIsPushedDownToRegions) {
  Region* a = MakeRegion(*layer, 0, 10);
  Region* b = MakeRegion(*layer, 11, 20);
  b->trigger.exclusionGroup = 7;
  b->trigger.MarkSet(kRowExclusionGroup);
  layer->trigger.exclusionGroup = 3;
  layer->trigger.MarkSet(kRowExclusionGroup);
  layer->FixUp();
  EXPECT_EQ(a->trigger.exclusionGroup, 3);
  EXPECT_TRUE(a->trigger.IsSet(kRowExclusionGroup));
  EXPECT_EQ(b->trigger.exclusionGroup, 7);
  EXPECT_FALSE(layer->trigger.IsSet(kRowExclusionGroup));
  EXPECT_EQ(layer->trigger.exclusionGroup, 0);
}

TEST(CollectionFixUp, ClashingLocationsMoveToTheNextMajorBank) {
  Collection c;
  auto* a = Create<Instrument>(c, "a");
  auto* b = Create<Instrument>(c, "b");
  auto* d = Create<Instrument>(c, "d");
  a->location = b->location = MakeLocation(0, 0, 5, false);
  d->location = MakeLocation(1, 0, 5, false);
  c.FixUp();
  // List order decides: the second takes the next major bank, which pushes
  // the one already there further on.
  EXPECT_EQ(a->location, MakeLocation(0, 0, 5, false));
  EXPECT_EQ(b->location, MakeLocation(1, 0, 5, false));
  EXPECT_EQ(d->location, MakeLocation(2, 0, 5, false));
}

TEST(Names, UniqueNamesCountUpButNotNotes) {
  Collection c;
  Create<Instrument>(c, "Piano A4");
  auto* second = Create<Instrument>(c, "Piano A4");
  MakeUniqueName(*second);
  EXPECT_STREQ(second->name, "Piano A4 1");
  auto* third = Create<Instrument>(c, "Piano A4");
  MakeUniqueName(*third);
  EXPECT_STREQ(third->name, "Piano A4 2");
  // Only upper-case note letters protect the digit; the compare ignores case.
  auto* lower = Create<Instrument>(c, "piano a4");
  MakeUniqueName(*lower);
  EXPECT_STREQ(lower->name, "piano a5");
  Create<Instrument>(c, "Strings 9");
  auto* s = Create<Instrument>(c, "Strings 9");
  MakeUniqueName(*s);
  EXPECT_STREQ(s->name, "Strings 10");
  Create<Instrument>(c, "Bell C#3");
  auto* bell = Create<Instrument>(c, "Bell C#3");
  MakeUniqueName(*bell);
  EXPECT_STREQ(bell->name, "Bell C#3 1");
}

TEST(Names, BatchUniqueNamesMatchOneByOne) {
  const char* names[] = {"Pad", "pad", "Pad 1", "Pad", "Lead A4", "lead a4", "X9", "x9", "X10", "Pad 1"};
  Collection one, batch;
  for (const char* n : names) {
    Create<Waveform>(one, n);
    Create<Waveform>(batch, n);
  }
  for (Waveform* w : one.All<Waveform>()) MakeUniqueName(*w);
  MakeUniqueNames(batch, ItemType::Waveform);
  std::vector<std::string> a, b;
  for (Waveform* w : one.All<Waveform>()) a.push_back(w->name);
  for (Waveform* w : batch.All<Waveform>()) b.push_back(w->name);
  EXPECT_EQ(a, b);
  std::set<std::string> folded;
  for (std::string n : b) {
    for (char& ch : n) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    EXPECT_TRUE(folded.insert(n).second) << n;
  }
}

TEST(Names, UniqueNumberOverwritesTheEndOfAFullName) {
  Collection c;
  std::string full(128, 'x');
  Create<Waveform>(c, full.c_str());
  auto* w = Create<Waveform>(c, full.c_str());
  MakeUniqueName(*w);
  EXPECT_EQ(std::strlen(w->name), 128u);
  EXPECT_EQ(std::string(w->name), std::string(126, 'x') + " 1");
}

TEST(Names, SetNameTrimsCutsAndDecodes) {
  Collection c;
  auto* w = Create<Waveform>(c, "  \t padded \n ");
  EXPECT_STREQ(w->name, "padded");
  std::string longName(200, 'a');
  w->SetName(longName);
  EXPECT_EQ(std::strlen(w->name), 128u);
  // A two-byte character at the limit is dropped whole, never split.
  std::string accents = std::string(127, 'a') + "\xC3\xA9";
  w->SetName(accents);
  EXPECT_EQ(std::strlen(w->name), 127u);
  // 8-bit file text that isn't UTF-8 is read as Windows-1252.
  const char latin[] = "Caf\xE9";
  w->SetName(latin, 4, TextEncoding::Foreign);
  EXPECT_STREQ(w->name, "Caf\xC3\xA9");
  const char utf16[] = {'H', 0, 'i', 0, 0, 0};
  w->SetName(utf16, 0, TextEncoding::Utf16);
  EXPECT_STREQ(w->name, "Hi");
}

TEST(Names, DefaultInstrumentNamesCountWithOrdinals) {
  Collection c;
  c.SetName("/home/user/Big Bank");
  std::vector<Instrument*> made;
  for (int i = 0; i < 113; ++i) made.push_back(Create<Instrument>(c));
  EXPECT_STREQ(made[0]->name, "Big Bank");
  EXPECT_STREQ(made[1]->name, "Big Bank: 1st instrument");
  EXPECT_STREQ(made[11]->name, "Big Bank: 11th instrument");
  EXPECT_STREQ(made[13]->name, "Big Bank: 13th instrument");
  EXPECT_STREQ(made[22]->name, "Big Bank: 22nd instrument");
  EXPECT_STREQ(made[111]->name, "Big Bank: 111st instrument");
  EXPECT_STREQ(made[112]->name, "Big Bank: 112nd instrument");
  auto* region = AddRegion(*AddLayer(*made[0]), kNoWave, kNoRange, kNoRange, 255);
  auto* w1 = Create<Waveform>(c);
  auto* w2 = Create<Waveform>(c);
  EXPECT_STREQ(w1->name, "Big Bank");
  EXPECT_STREQ(w2->name, "Big Bank 1");
  EXPECT_STREQ(region->name, "region");
}

TEST(Names, RegionNameShowsRangesAndWave) {
  Settings().app.bShowNoteNames = 1;
  Settings().app.cOctMidC = 4;
  Collection c;
  auto* w = Create<Waveform>(c, "Snare");
  auto* r = AddRegion(*AddLayer(*Create<Instrument>(c, "Kit")), w->id, MakeRange(60, 62), MakeRange(10, 90), 255);
  r->RebuildName();
  EXPECT_STREQ(r->name, "C4..D4 : 10..90 : Snare");
  r->trigger.loVel = 1;
  r->trigger.hiVel = 127;
  r->trigger.hiKey = 60;
  r->RebuildName();
  EXPECT_STREQ(r->name, "C4 : Snare");
}

TEST_F(Fixture, FreeKeyRangeSearch) {
  EXPECT_EQ(FindFreeKeyRange(*layer, 255), MakeRange(0, 127));
  MakeRegion(*layer, 0, 40);
  EXPECT_EQ(FindFreeKeyRange(*layer, 255), MakeRange(41, 127));
  MakeRegion(*layer, 60, 127);
  // No room above: the first hole.
  EXPECT_EQ(FindFreeKeyRange(*layer, 255), MakeRange(41, 59));
  // A free key grows outwards to the covered neighbours.
  EXPECT_EQ(FindFreeKeyRange(*layer, 50), MakeRange(41, 59));
  layer->drum = 1;
  EXPECT_EQ(FindFreeKeyRange(*layer, 50), MakeRange(50, 50));
}

TEST_F(Fixture, FreeKeyRangeSplitsAtTheRootKey) {
  Region* r = AddRegion(*layer, wave->id, MakeRange(48, 72), MakeRange(0, 127), 60);
  EXPECT_EQ(FindFreeKeyRange(*layer, 70), MakeRange(61, 72));
  EXPECT_EQ(FindFreeKeyRange(*layer, 50), MakeRange(48, 59));
  Region* pending[] = {r};
  FindFreeKeyRange(*layer, 70, pending);
  // A region not yet in the layer is narrowed in place.
  EXPECT_EQ(r->trigger.hiKey, 60);
}

TEST_F(Fixture, ClipRegionsCutsOrDeletes) {
  ItemId inside = MakeRegion(*layer, 40, 45)->id;
  Region* wide = MakeRegion(*layer, 30, 90);
  Region* fresh = MakeRegion(*layer, 35, 50);
  ClipRegions(*layer, MakeRange(35, 50), MakeRange(0, 127), fresh);
  EXPECT_EQ(c.Find(inside), nullptr);
  EXPECT_EQ(wide->trigger.loKey, 51);
  EXPECT_EQ(wide->trigger.hiKey, 90);
}

TEST_F(Fixture, RegionAtHonoursVelocityAndLimits) {
  MakeRegion(*layer, 0, 63, 0, 63);
  Region* loud = MakeRegion(*layer, 0, 63, 64, 127);
  EXPECT_EQ(RegionAt(*layer, 10, 100), loud);
  EXPECT_NE(RegionAt(*layer, 10, 255), nullptr);
  EXPECT_EQ(RegionAt(*layer, 128, 255), nullptr);
  EXPECT_EQ(RegionAt(*layer, 10, 200), nullptr);
}

TEST_F(Fixture, RegionFixUpClampsLoopsAndOffsets) {
  Region* r = AddRegion(*layer, wave->id, kNoRange, kNoRange, 200);
  r->loopStart = 10.4f;
  r->loopEnd = 5000.0f;
  r->endOffset = 5;
  r->startOffset = 4000;
  r->FixUp();
  EXPECT_EQ(r->rootKey, 60);
  EXPECT_FLOAT_EQ(r->loopEnd, 1000.0f);
  EXPECT_FLOAT_EQ(r->loopStart, 10.4f);  // fractional loop points are on by default
  EXPECT_EQ(r->startOffset, 999);
  EXPECT_EQ(r->endOffset, 0);
}

TEST_F(Fixture, WaveFixUpTakesTheDefaultLoopEndDownToTheLength) {
  wave->loopType = 1;
  wave->sampleRate = 0;
  wave->FixUp();
  EXPECT_FLOAT_EQ(wave->loopEnd, 1000.0f);
  EXPECT_EQ(wave->sampleRate, 44100u);
  EXPECT_EQ(wave->loopType, 1);
}

TEST_F(Fixture, InstrumentFixUpNamesLayersAndPassesArticulationDown) {
  AddLayer(*inst);
  inst->location = MakeLocation(0, 0, 0, true);
  inst->art.value[kRowMasterVolume] = -6.0f;
  inst->art.MarkSet(kRowMasterVolume);
  Region* r = MakeRegion(*layer, 0, 127);
  inst->FixUp();
  EXPECT_STREQ(layer->name, "Layer 1");
  EXPECT_EQ(layer->drum, 1);
  EXPECT_FLOAT_EQ(layer->art.value[kRowMasterVolume], -6.0f);
  EXPECT_FLOAT_EQ(r->art.value[kRowMasterVolume], -6.0f);
  EXPECT_FALSE(r->art.IsSet(kRowMasterVolume));
}

TEST_F(Fixture, DeletingAnInstrumentTakesItsTreeButNotItsWaves) {
  MakeRegion(*layer, 0, 127, 0, 127, wave->id);
  DeleteItem(inst);
  EXPECT_EQ(c.Count(ItemType::Instrument), 0u);
  EXPECT_EQ(c.Count(ItemType::Layer), 0u);
  EXPECT_EQ(c.Count(ItemType::Region), 0u);
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);
}

TEST_F(Fixture, MergeTranslatesIdsAndMovesClashingLocations) {
  inst->location = MakeLocation(0, 0, 0, false);
  Collection other;
  auto* w = Create<Waveform>(other, "Other wave");
  auto* oi = Create<Instrument>(other, "Other");
  Region* r = AddRegion(*AddLayer(*oi), w->id, kNoRange, kNoRange, 255);
  ASSERT_TRUE(MergeCollections(c, other));
  EXPECT_EQ(other.Map().Size(), 1u);
  EXPECT_EQ(c.Count(ItemType::Instrument), 2u);
  EXPECT_EQ(oi->location, 1u);  // the word as a whole moved on
  EXPECT_EQ(c.Find(r->id), r);
  EXPECT_EQ(RegionWaveform(*r), w);
  EXPECT_EQ(LayerOf(*r)->collection, &c);
  EXPECT_EQ(InstrumentOf(*LayerOf(*r)), oi);
}

TEST(Merge, EmptySourceChangesNothing) {
  Collection c, empty;
  Create<Waveform>(c, "w");
  std::vector<uint8_t> before;
  c.Serialize(before);
  EXPECT_TRUE(MergeCollections(c, empty));
  std::vector<uint8_t> after;
  c.Serialize(after);
  EXPECT_EQ(before, after);
  EXPECT_EQ(c.Map().Size(), 2u);
}

TEST_F(Fixture, CloneSharesWavesAndCopiesTheTree) {
  Region* r = MakeRegion(*layer, 0, 127, 0, 127, wave->id);
  r->art.value[kRowPLfoToPitch] = 2.0f;
  auto* copy = static_cast<Instrument*>(CloneItem(*inst, c));
  ASSERT_EQ(copy->children.size(), 1u);
  auto* copyLayer = c.FindAs<Layer>(copy->children[0]);
  ASSERT_NE(copyLayer, nullptr);
  EXPECT_EQ(copyLayer->parentId, copy->id);
  auto* copyRegion = c.FindAs<Region>(copyLayer->children[0]);
  ASSERT_NE(copyRegion, nullptr);
  EXPECT_NE(copyRegion, r);
  EXPECT_EQ(RegionWaveform(*copyRegion), wave);
  EXPECT_FLOAT_EQ(copyRegion->art.value[kRowPLfoToPitch], 2.0f);
}

TEST_F(Fixture, FlatRecordsRoundTrip) {
  Region* r = MakeRegion(*layer, 12, 24, 5, 99, wave->id);
  r->loopPitch = 0.5f;
  r->art.value[kRowXLfoToPitch] = 3.0f;
  r->art.MarkSet(kRowXLfoToPitch);
  std::vector<uint8_t> flat;
  std::size_t n = r->Serialize(flat);
  EXPECT_EQ(n, flat.size());
  EXPECT_EQ(n, r->SerializedSize());
  Region* other = MakeRegion(*layer, 0, 1);
  ASSERT_EQ(other->Deserialize(flat), n);
  EXPECT_EQ(other->trigger.loKey, 12);
  EXPECT_EQ(other->trigger.hiVel, 99);
  EXPECT_FLOAT_EQ(other->loopPitch, 0.5f);
  EXPECT_TRUE(other->art.IsSet(kRowXLfoToPitch));
  EXPECT_EQ(RegionWaveform(*other), wave);
  // A truncated record is refused, not half read.
  EXPECT_EQ(other->Deserialize(std::span(flat).first(flat.size() - 3)), 0u);
  Item& base = *wave;
  EXPECT_EQ(static_cast<const Item&>(base).Item::SerializedSize(), 153u);
}

TEST_F(Fixture, ItemSetMakesTemporaryInstrumentsAndCleansUp) {
  Region* r = MakeRegion(*layer, 0, 127, 0, 127, wave->id);
  uint32_t before = c.Count(ItemType::Instrument);
  {
    ItemSet set(*r, true);
    ASSERT_EQ(set.instruments.size(), 1u);
    EXPECT_NE(set.instruments[0], inst);
    EXPECT_EQ(set.waveforms, std::vector<Waveform*>{wave});
    EXPECT_EQ(c.Count(ItemType::Instrument), before + 1);
  }
  EXPECT_EQ(c.Count(ItemType::Instrument), before);
  {
    ItemSet set(*wave, false);
    auto* l = c.FindAs<Layer>(set.instruments[0]->children[0]);
    auto* reg = c.FindAs<Region>(l->children[0]);
    EXPECT_EQ(reg->trigger.exclusionGroup, 1);
    EXPECT_TRUE(reg->trigger.IsSet(kRowExclusionGroup));
  }
  auto* second = Create<Instrument>(c, "Second");
  second->location = 0;
  inst->location = 5;
  ItemSet all(c, true);
  ASSERT_EQ(all.instruments.size(), 2u);
  EXPECT_EQ(all.instruments[0], second);
}

TEST(TextParameters, LandInTheirFieldsAndAreCutToThem) {
  Collection c;
  auto* w = Create<Waveform>(c, "w");
  auto* song = Create<Song>(c, "s");
  w->SetParamText(kRowArtist, "Artist");
  song->SetParamText(kRowProduct, std::string(300, 'p'));
  song->SetParamText(kRowName, "  Renamed  ");
  EXPECT_EQ(w->GetParamText(kRowArtist), "Artist");
  EXPECT_EQ(w->GetParamText(kRowCopyright), "");
  EXPECT_EQ(song->GetParamText(kRowProduct), std::string(128, 'p'));
  EXPECT_EQ(song->GetParamText(kRowName), "Renamed");
  c.SetParamText(kRowComment, "Collection comment");
  EXPECT_STREQ(c.comment, "Collection comment");
}

TEST(Tracks, EventCountFollowsRunningStatus) {
  Collection c;
  auto* t = Create<Track>(c, "t");
  // Note on, running-status note on, meta end of track.
  t->SetEvents({0x00, 0x90, 0x3C, 0x40, 0x10, 0x3E, 0x40, 0x00, 0xFF, 0x2F, 0x00});
  EXPECT_EQ(t->EventCount(), 3u);
  // Truncated data stops the count instead of reading past the end.
  t->SetEvents({0x00, 0x90, 0x3C});
  EXPECT_EQ(t->EventCount(), 0u);
}

}  // namespace
}  // namespace kv
