#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "core/instrument_ops.h"
#include "formats/import.h"
#include "pipeline_support.h"

namespace kv {
namespace {

using test::MakeInstrument;
using test::MakeWave;

class ImportTest : public test::PipelineTest {
 protected:
  // A file the wave row detects, read by the scripted reader.
  std::filesystem::path WaveFile(const char* name = "in.wav") {
    auto path = dir_ / name;
    test::WriteFile(path, test::WaveFileBytes());
    OverrideRowFunctions(test::kWavRow, test::ScriptedReadFn, nullptr);
    return path;
  }
};

TEST_F(ImportTest, RegionWithNothingGoesWithItsLayerAndInstrument) {
  test::ScriptedRead() = [](Collection& c, FileRef&) {
    Waveform* w = MakeWave(c, "Kept", 100);
    MakeInstrument(c, "Playing", {w});
    auto* empty = Create<Instrument>(c, "Silent");
    empty->location = MakeLocation(0, 0, 1, false);
    AddRegion(*AddLayer(*empty), kNoWave, MakeRange(0, 127), MakeRange(0, 127), 255);
    return true;
  };
  Collection c;
  ASSERT_TRUE(ImportFile(c, WaveFile(), true)) << ErrorMessage;
  ASSERT_EQ(c.Count(ItemType::Instrument), 1u);
  EXPECT_EQ(c.All<Instrument>().front()->Name(), "Playing");
  EXPECT_EQ(c.Count(ItemType::Layer), 1u);
  EXPECT_EQ(c.Count(ItemType::Region), 1u);
  EXPECT_EQ(c.formatIndex, test::kWavRow);
  EXPECT_EQ(c.Name(), "in");
  EXPECT_EQ(c.sourcePath, dir_.path() / "in.wav");
}

TEST_F(ImportTest, OverridesEqualToTheWaveAreTurnedOffOthersStay) {
  test::ScriptedRead() = [](Collection& c, FileRef&) {
    Waveform* w = MakeWave(c, "Loop", 1000);
    w->loopType = 1;
    w->loopStart = 100;
    w->loopEnd = 900;
    w->rootKey = 64;
    Instrument* inst = MakeInstrument(c, "I", {w});
    auto* region = c.FindAs<Region>(c.FindAs<Layer>(inst->children[0])->children[0]);
    region->overrideMask = kOverrideLoopStart | kOverrideLoopEnd | kOverrideRootKey;
    region->loopStart = 100;  // same as the wave
    region->loopEnd = 800;    // differs
    region->rootKey = 64;     // same
    return true;
  };
  Collection c;
  ASSERT_TRUE(ImportFile(c, WaveFile(), true)) << ErrorMessage;
  Region* region = c.All<Region>().front();
  EXPECT_EQ(region->overrideMask, kOverrideLoopEnd);
  EXPECT_EQ(region->loopEnd, 800.0f);
}

// The dual-layer form of a stereo pair: the right half in a second layer on
// the same range, each side panned by `pan` (left) and -`pan` (right).
Collection& BuildDualLayerPair(Collection& c, float pan) {
  Waveform* l = MakeWave(c, "Pad L", 64, 1, 0);
  Waveform* r = MakeWave(c, "Pad R", 64, 1, 1000);
  auto* inst = MakeInstrument(c, "Pad", {l});
  c.FindAs<Region>(c.FindAs<Layer>(inst->children[0])->children[0])->art.Set(kRowPan, pan);
  Layer* second = AddLayer(*inst);
  AddRegion(*second, r->id, MakeRange(0, 127), MakeRange(0, 127), 255)->art.Set(kRowPan, -pan);
  return c;
}

TEST_F(ImportTest, StereoRowKeepsNamedMonoPairsApartMonoRowMergesThem) {
  auto build = [](Collection& c, FileRef&) {
    BuildDualLayerPair(c, -1.0f);
    return true;
  };
  test::ScriptedRead() = build;
  Collection c;
  ASSERT_TRUE(ImportFile(c, WaveFile(), true)) << ErrorMessage;
  EXPECT_EQ(c.Count(ItemType::Waveform), 2u);

  // The same items on a row without stereo: one stereo wave, one region.
  Collection mono;
  FileRef none;
  build(mono, none);
  mono.formatIndex = test::kSf2Row;
  FixUpItems(mono, 0xFF, true);
  ASSERT_EQ(mono.Count(ItemType::Waveform), 1u);
  Waveform* pair = mono.All<Waveform>().front();
  EXPECT_EQ(pair->channels, 2);
  EXPECT_EQ(pair->Name(), "Pad");
  EXPECT_EQ(pair->samples16[0], 0);     // left first
  EXPECT_EQ(pair->samples16[1], 1000);  // then right
  EXPECT_EQ(mono.Count(ItemType::Region), 1u);
  EXPECT_EQ(mono.Count(ItemType::Layer), 1u);

  // Halves that play centred, swapped or narrowed would change their sound as
  // one stereo wave: they stay apart.
  for (float pan : {0.0f, 1.0f, -0.5f}) {
    Collection kept;
    BuildDualLayerPair(kept, pan).formatIndex = test::kSf2Row;
    FixUpItems(kept, 0xFF, true);
    EXPECT_EQ(kept.Count(ItemType::Waveform), 2u) << "pan " << pan;
  }
}

TEST_F(ImportTest, MergingASingleWaveLeavesDuplicatesAloneABankDoesNot) {
  Settings().load.bAutoRemoveDupWaves = 1;
  Collection c;
  MakeWave(c, "Original", 50, 1, 3);
  test::ScriptedRead() = [](Collection& s, FileRef&) {
    MakeWave(s, "Same data", 50, 1, 3);
    return true;
  };
  ASSERT_TRUE(MergeFile(c, WaveFile("one.wav"))) << ErrorMessage;
  EXPECT_EQ(c.Count(ItemType::Waveform), 2u);

  test::ScriptedRead() = [](Collection& s, FileRef&) {
    MakeInstrument(s, "Bank piano", {MakeWave(s, "Again", 50, 1, 3), MakeWave(s, "New", 50, 1, 9)});
    return true;
  };
  ASSERT_TRUE(MergeFile(c, WaveFile("bank.wav"))) << ErrorMessage;
  // The bank's copy of the same data went; the instrument plays the kept wave.
  EXPECT_EQ(c.Count(ItemType::Waveform), 3u);
  for (Region* r : c.All<Region>()) EXPECT_NE(RegionWaveform(*r), nullptr);
}

TEST_F(ImportTest, FailuresNameTheirCauseAndLeaveNoHalfLoadedCollection) {
  Collection c;
  MakeWave(c, "Before", 10);
  auto gone = dir_ / "no-such-folder" / "x.wav";
  Settings().app.LastFilesA = {gone.string(), "/elsewhere/y.wav"};
  EXPECT_FALSE(ImportFile(c, gone, true));
  EXPECT_STREQ(ErrorContext, "File Import");
  EXPECT_STREQ(ErrorMessage, "Could not open file");
  EXPECT_EQ(Settings().app.LastFilesA, std::vector<std::string>{"/elsewhere/y.wav"});
  EXPECT_FALSE(ImportFile(c, dir_.path(), true));  // a folder is not a file
  EXPECT_STREQ(ErrorMessage, "Could not open file");
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);

  test::WriteFile(dir_ / "empty.wav", "");
  EXPECT_FALSE(ImportFile(c, dir_ / "empty.wav", true));
  EXPECT_STREQ(ErrorMessage, "File is of zero size");

  test::WriteFile(dir_ / "noise.xyz", "just some bytes");
  EXPECT_FALSE(ImportFile(c, dir_ / "noise.xyz", false));
  EXPECT_STREQ(ErrorMessage, "Not detected as any supported file type");
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);

  test::ScriptedRead() = [](Collection& s, FileRef&) {
    MakeWave(s, "Half", 10);
    return Fail("wav_Imp", "Broken chunk");
  };
  EXPECT_FALSE(ImportFile(c, WaveFile(), true));
  EXPECT_STREQ(ErrorContext, "wav_Imp");
  EXPECT_STREQ(ErrorMessage, "Broken chunk");
  EXPECT_EQ(c.Count(ItemType::Waveform), 0u);
  EXPECT_EQ(c.Name(), "Empty collection");
  EXPECT_TRUE(CanImport(dir_ / "in.wav"));
  EXPECT_FALSE(CanImport(dir_ / "empty.wav"));
}

TEST_F(ImportTest, FailedMergeLeavesTheTargetAsItWas) {
  Collection c;
  MakeWave(c, "Before", 10);
  test::ScriptedRead() = [](Collection&, FileRef&) { return Fail("wav_Imp", "Broken"); };
  EXPECT_FALSE(MergeFile(c, WaveFile()));
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);
}

TEST_F(ImportTest, RawRowReadsAnyFileAsSigned8BitMonoWithBoxesOff) {
  test::WriteFile(dir_ / "blob.xyz", std::string(300, '\x05'));
  Collection c;
  ASSERT_TRUE(ImportFile(c, dir_ / "blob.xyz", true)) << ErrorMessage;
  ASSERT_EQ(c.Count(ItemType::Waveform), 1u);
  Waveform* w = c.All<Waveform>().front();
  EXPECT_EQ(c.formatIndex, 0);
  EXPECT_EQ(w->length, 300u);
  EXPECT_EQ(w->sampleRate, 44100u);
  EXPECT_EQ(w->channels, 1);
  EXPECT_EQ(SourceDataFormat(w->sourceFormat), kPcm8);
  ASSERT_TRUE(w->EnsureData()) << ErrorMessage;
  EXPECT_EQ(Samples16(*w)[0], 5 * 256);
}

int g_rawAnswer = 0;
int AnswerRaw(const std::string&, const std::string&, BoxButtons) { return g_rawAnswer; }

TEST_F(ImportTest, RawRowAnswersLastForTheProcess) {
  test::WriteFile(dir_ / "blob.xyz", std::string(10, '\x01'));
  MessageBoxesEnabled = 1;
  SetBoxPresenter(AnswerRaw);
  Collection c;
  g_rawAnswer = 2;  // Cancel: nothing, but a success
  EXPECT_TRUE(ImportFile(c, dir_ / "blob.xyz", true));
  EXPECT_EQ(c.Count(ItemType::Waveform), 0u);
  g_rawAnswer = kBoxNo;  // "Allways Cancel"
  EXPECT_TRUE(ImportFile(c, dir_ / "blob.xyz", true));
  g_rawAnswer = kBoxOk;  // would load, but the earlier answer stands
  EXPECT_TRUE(ImportFile(c, dir_ / "blob.xyz", true));
  EXPECT_EQ(c.Count(ItemType::Waveform), 0u);
  SetBoxPresenter(nullptr);
}

TEST_F(ImportTest, ReplaceWavesMatchesExactNamesAndTakesOnlyRealLoops) {
  Collection c;
  Waveform* target = MakeWave(c, "Kick", 10);
  target->loopType = 1;
  target->loopStart = 2;
  target->loopEnd = 8;
  Waveform* other = MakeWave(c, "kick2", 10);
  test::ScriptedRead() = [](Collection& s, FileRef&) {
    Waveform* w = MakeWave(s, "Kick", 20, 2, 500);
    w->sampleRate = 48000;  // no loop of its own: the target keeps its loop
    MakeWave(s, "KICK2", 20);  // case differs: no match
    return true;
  };
  ASSERT_TRUE(ReplaceWavesFile(c, WaveFile())) << ErrorMessage;
  EXPECT_EQ(TakeReplacedCount(), 1);
  EXPECT_EQ(TakeReplacedCount(), 0);
  EXPECT_EQ(target->length, 20u);
  EXPECT_EQ(target->channels, 2);
  EXPECT_EQ(target->sampleRate, 48000u);
  EXPECT_EQ(target->samples16[0], 500);
  EXPECT_EQ(target->loopStart, 2.0f);
  EXPECT_EQ(target->loopEnd, 8.0f);
  EXPECT_EQ(other->length, 10u);

  test::ScriptedRead() = [](Collection& s, FileRef&) {
    Waveform* w = MakeWave(s, "Kick", 20);
    w->loopType = 1;
    w->loopStart = 4;
    w->loopEnd = 20;  // a loop to the end with a type is still a loop
    return true;
  };
  ASSERT_TRUE(ReplaceWavesFile(c, WaveFile("b.wav")));
  EXPECT_EQ(target->loopStart, 4.0f);
  EXPECT_EQ(target->loopEnd, 20.0f);
  EXPECT_EQ(target->readCallback, nullptr);
}

TEST_F(ImportTest, ImportFolderIsSetOnlyWhileTheReaderRuns) {
  std::filesystem::path seen;
  test::ScriptedRead() = [&](Collection& s, FileRef&) {
    seen = ResolveImportPath("samples/a.wav");
    MakeWave(s, "w", 4);
    return true;
  };
  Collection c;
  ASSERT_TRUE(ImportFile(c, WaveFile(), true));
  EXPECT_EQ(seen, dir_.path() / "samples/a.wav");
  EXPECT_TRUE(CurrentImportFolder().empty());
  EXPECT_EQ(ResolveImportPath("/abs/x.wav"), "/abs/x.wav");
}

TEST_F(ImportTest, LoadOptionsRunInOrderAndCanBeTurnedOff) {
  Settings().load.bAutoSplitStereo = 1;
  Settings().load.bAutoMergeStereo = 0;
  Settings().load.bAutoBid2Fwd = 1;
  test::ScriptedRead() = [](Collection& s, FileRef&) {
    Waveform* a = MakeWave(s, "Dup", 8, 2);
    a->loopType = 3;
    a->loopStart = 0;
    a->loopEnd = 4;
    MakeInstrument(s, "Dup", {a});
    MakeInstrument(s, "Dup", {MakeWave(s, "Dup", 8)}, 1);
    return true;
  };
  Collection c;
  ASSERT_TRUE(ImportFile(c, WaveFile(), true)) << ErrorMessage;
  std::vector<std::string> names;
  for (Instrument* i : c.All<Instrument>()) names.emplace_back(i->Name());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"Dup", "Dup 1"}));
  EXPECT_EQ(c.Count(ItemType::Waveform), 3u);  // the stereo wave split in two
  for (Waveform* w : c.All<Waveform>()) EXPECT_EQ(w->channels, 1);
  EXPECT_EQ(CollectionSortMode(), 1);
  EXPECT_EQ(WaveformSortMode(), 2);
}

// A bank big enough for the fix-up to spread over threads, holding what the
// fix-up repairs: regions hidden by or overlapping their neighbours, layer
// exclusions to push down, phase groups, marks that repeat the level above
// or the defaults, overrides equal to the wave, a wave of no length whose
// regions must go, and a layer no instrument lists. `tidy` false also lists
// one layer under two instruments, which the side-by-side walk must refuse.
// With `expect`, built as a bank reader would: the count announced after the
// waves, each instrument handed over once its tree is complete.
void BuildMessyBank(Collection& c, bool tidy, std::size_t expect = 0) {
  std::mt19937 rng(20261121);
  auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  std::vector<Waveform*> waves;
  for (int i = 0; i < 40; ++i) {
    Waveform* w = MakeWave(c, ("W" + std::to_string(i)).c_str(), i == 7 ? 0 : 500 + 13 * i);
    if (i % 3 == 0) {
      w->loopType = 1;
      w->loopStart = 10.0f * i;
      w->loopEnd = 400.0f;
    }
    w->rootKey = static_cast<uint8_t>(40 + i);
    waves.push_back(w);
  }
  if (expect) ExpectItems(c, expect);
  Articulation defaults;
  std::vector<Layer*> allLayers;
  for (int n = 0; n < 40; ++n) {
    auto* inst = Create<Instrument>(c, ("I" + std::to_string(n)).c_str());
    inst->location = MakeLocation(0, 0, static_cast<uint32_t>(n), n % 9 == 0);
    inst->art.Set(51, n % 2 ? 0.25f : defaults.value[51]);  // sometimes the default
    inst->art.Set(5, static_cast<float>(pick(-1200, 1200)));
    for (int l = 0; l < 3; ++l) {
      Layer* layer = AddLayer(*inst);
      allLayers.push_back(layer);
      if (pick(0, 3) == 0) layer->SetParam(202, static_cast<float>(pick(1, 9)));
      layer->art.Set(5, pick(0, 1) ? inst->art.value[5] : 100.0f);  // sometimes as the instrument
      layer->art.Set(60, static_cast<float>(pick(0, 10)));
      int key = 0;
      for (int r = 0; r < 10; ++r) {
        Waveform* w = waves[static_cast<std::size_t>(pick(0, 39))];
        const int lo = std::max(0, key - pick(0, 6));  // often into the one before
        const int hi = std::min(127, lo + pick(0, 14));
        key = hi + 1;
        const int vlo = pick(0, 1) ? 0 : pick(1, 60);
        Region* region = AddRegion(*layer, w->id, MakeRange(static_cast<uint8_t>(lo), static_cast<uint8_t>(hi)),
                                   MakeRange(static_cast<uint8_t>(vlo), 127),
                                   pick(0, 2) ? 255 : static_cast<uint8_t>(w->rootKey));
        region->art.Set(60, pick(0, 1) ? layer->art.value[60] : static_cast<float>(pick(11, 20)));
        region->art.Set(70, static_cast<float>(pick(-50, 50)));
        if (pick(0, 4) == 0) {
          region->overrideMask |= kOverrideLoopStart;
          region->loopStart = pick(0, 1) ? w->loopStart : 5.0f;
        }
        if (r < 2) {
          region->phaseGroup = static_cast<uint16_t>(n * 10 + r + 1);
          region->phaseMaster = l == 0;
        }
      }
    }
    if (expect) InstrumentDone(c, *inst);
  }
  // A layer with regions that no instrument lists.
  auto* stray = Create<Layer>(c);
  AddRegion(*stray, waves[1]->id, MakeRange(0, 60), MakeRange(0, 127), 255);
  AddRegion(*stray, waves[2]->id, MakeRange(30, 90), MakeRange(0, 127), 255);
  if (!tidy) AddChild(*c.All<Instrument>().back(), allLayers.front()->id);
}

long LineOfFirstDifference(const std::string& a, const std::string& b) {
  auto at = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first;
  return 1 + std::count(a.begin(), at, '\n');
}

TEST_F(ImportTest, SideBySideFixUpEndsAsTheOneByOneWalk) {
  for (bool tidy : {true, false}) {
    std::string text[2];
    for (bool sideBySide : {true, false}) {
      SetSideBySideFixUp(sideBySide);
      Collection c;
      BuildMessyBank(c, tidy);
      FixUpItems(c, 0xFF, true);
      text[sideBySide] = test::TreeText(c);
      if (tidy) {
        // What the walk was for happened.
        EXPECT_LT(c.Count(ItemType::Region), 40u * 3 * 10);
        EXPECT_EQ(c.Count(ItemType::Waveform), 39u);
        EXPECT_EQ(c.Count(ItemType::Layer), 40u * 3 + 1);
      }
    }
    SetSideBySideFixUp(true);
    EXPECT_TRUE(text[1] == text[0]) << (tidy ? "tidy" : "shared layer") << ", first difference on line "
                                    << LineOfFirstDifference(text[0], text[1]);
  }
}

TEST_F(ImportTest, TreesSettledWhileTheReaderGoesOnEndAsTheOneByOneWalk) {
  // 1,240 items announced as about 1,100: the reader outgrows the room set
  // aside, the settling stops midway and the fix-up does the rest. Announced
  // as 4,000 the room suffices.
  for (std::size_t expect : {std::size_t{1100}, std::size_t{4000}}) {
    std::string text[2];
    for (bool sideBySide : {true, false}) {
      SetSideBySideFixUp(sideBySide);
      const auto path = WaveFile();
      test::ScriptedRead() = [expect](Collection& c, FileRef&) {
        BuildMessyBank(c, true, expect);
        return true;
      };
      Collection c;
      ASSERT_TRUE(ImportFile(c, path, false)) << ErrorMessage;
      text[sideBySide] = test::TreeText(c);
      EXPECT_EQ(c.Count(ItemType::Layer), 40u * 3 + 1);
    }
    SetSideBySideFixUp(true);
    EXPECT_TRUE(text[1] == text[0]) << expect << " announced, first difference on line "
                                    << LineOfFirstDifference(text[0], text[1]);
  }
}

}  // namespace
}  // namespace kv
