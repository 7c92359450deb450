#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#include "core/instrument_ops.h"
#include "formats/export.h"
#include "formats/modules/wav.h"
#include "pipeline_support.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::MakeInstrument;
using test::MakeWave;

// Writes every wave of the item as raw 16-bit samples, in ItemSet order.
bool WriteRawWaves(Item& item, FileRef& file, ExportRequest& request) {
  ItemSet set(item, true);
  std::vector<Waveform*> waves = set.waveforms;
  if (auto* w = dynamic_cast<Waveform*>(&item)) waves = {w};
  for (Waveform* w : waves) {
    Waveform* adapted = AdaptWave(w, request, 0);
    if (!adapted) return false;
    const int16_t* s = Samples16(*adapted);
    bool ok = file.Write(s, adapted->SampleCount() * 2);
    ReleaseAdaptedWave(*w, adapted);
    if (!ok) return Fail("test_Exp", "Write failed");
  }
  return true;
}

class ExportTest : public test::PipelineTest {
 protected:
  void SetUp() override {
    PipelineTest::SetUp();
    test::ScriptedWrite() = WriteRawWaves;
    for (int row : {test::kWavRow, test::kSf2Row, test::kSfzRow, test::kAifRow, test::kMidRow})
      OverrideRowFunctions(row, nullptr, test::ScriptedWriteFn);
  }
  bool Exists(const fs::path& p) { return fs::exists(p); }
  // The names in the test's folder, hidden ones included.
  std::set<std::string> Names() {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir_.path())) names.insert(e.path().filename().string());
    return names;
  }
};

TEST_F(ExportTest, SavingOverTheFileALazyWaveReadsFromKeepsItsSamples) {
  const fs::path path = dir_ / "bank.raw";
  std::string bytes;
  for (int16_t v : {100, -200, 300, -400}) bytes.append(reinterpret_cast<const char*>(&v), 2);
  test::WriteFile(path, bytes);

  Collection c;
  auto* w = Create<Waveform>(c, "Lazy");
  w->length = 4;
  w->sourcePath = path;
  SetGenericFormat(*w, kPcm16, 0);
  MakeInstrument(c, "I", {w});
  FixUpItems(c, 0xFF, false);
  ASSERT_FALSE(w->HasData());

  ASSERT_TRUE(SaveFile(w, path, test::kWavRow, ExportRequest{}, true)) << ErrorMessage;
  EXPECT_EQ(test::ReadFile(path), bytes);
  EXPECT_FALSE(Exists(dir_ / "bank.raw.bak"));
  EXPECT_EQ(LastStatusText(), "Saved: " + path.string() + " (8 Bytes)");
}

TEST_F(ExportTest, AFailedWriteRestoresTheOldFileAndLeavesNoBackup) {
  const fs::path path = dir_ / "keep.wav";
  test::WriteFile(path, "previous contents");
  Collection c;
  Waveform* w = MakeWave(c, "W", 1000);
  // Fault injection: some bytes go out, then the writer gives up.
  test::ScriptedWrite() = [](Item&, FileRef& f, ExportRequest&) {
    f.Write("partial", 7);
    return Fail("test_Exp", "Disk full halfway");
  };
  EXPECT_FALSE(SaveFile(w, path, test::kWavRow, ExportRequest{}, true));
  EXPECT_STREQ(ErrorContext, "test_Exp");
  EXPECT_STREQ(ErrorMessage, "Disk full halfway");
  EXPECT_EQ(test::ReadFile(path), "previous contents");
  EXPECT_EQ(Names(), std::set<std::string>{"keep.wav"}) << "no backup, no half-written file";
  EXPECT_EQ(LastStatusText(), "Failed to Save.");

  // A new file that fails is not left behind either.
  EXPECT_FALSE(SaveFile(w, dir_ / "new.wav", test::kWavRow, ExportRequest{}, false));
  EXPECT_FALSE(Exists(dir_ / "new.wav"));

  // The real writer on a disk that fills half-way, in a child whose writes
  // past 1 MB fail (EFBIG, as ENOSPC would).
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1 << 20, 1 << 20};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    OverrideRowFunctions(test::kWavRow, nullptr, wav_Exp);
    Collection big;
    const bool ok = SaveFile(MakeWave(big, "W", 1u << 20), path, test::kWavRow, ExportRequest{}, false);
    ::_exit(!ok && std::strcmp(ErrorMessage, "Writing to file failed") == 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the save failed for the full disk";
  EXPECT_EQ(test::ReadFile(path), "previous contents");
  EXPECT_EQ(Names(), std::set<std::string>{"keep.wav"});
}

// A save in a child process whose writer reports each step of its write and
// waits; the parent looks at the target at every step and kills the child
// with SIGKILL at one of them.
TEST_F(ExportTest, ASaveKilledAtAnyPointLeavesTheOldFileOrTheNewOneWhole) {
  const fs::path path = dir_ / "existing.wav";
  const std::string old = test::WaveFileBytes(1 << 20);
  const std::string fresh = test::WaveFileBytes(3 << 20);
  constexpr int kSteps = 4;
  const std::size_t part = (fresh.size() + kSteps - 1) / kSteps;
  // Kill after step 0..kSteps of the write, as soon as the writer is done,
  // or never.
  for (int killAt = 0; killAt <= kSteps + 2; ++killAt) {
    SCOPED_TRACE("kill at " + std::to_string(killAt));
    test::WriteFile(path, old);
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    int toParent[2], toChild[2];
    ASSERT_EQ(::pipe(toParent), 0);
    ASSERT_EQ(::pipe(toChild), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      test::ScriptedWrite() = [&](Item&, FileRef& f, ExportRequest&) {
        for (int step = 0; step <= kSteps; ++step) {
          const std::size_t at = (step - 1) * part;
          if (step > 0 && !f.Write(fresh.data() + at, std::min(part, fresh.size() - at))) return false;
          char c = static_cast<char>(step);
          if (::write(toParent[1], &c, 1) != 1 || ::read(toChild[0], &c, 1) != 1) return false;
        }
        return true;
      };
      Collection c;
      ::_exit(SaveFile(MakeWave(c, "W", 4), path, test::kWavRow, ExportRequest{}, false) ? 0 : 1);
    }
    ::close(toParent[1]);
    ::close(toChild[0]);
    char step;
    bool killed = false;
    while (::read(toParent[0], &step, 1) == 1) {
      EXPECT_EQ(test::ReadFile(path), old) << "while the new file is written, at step " << int{step};
      if (step == killAt) {
        ::kill(pid, SIGKILL);
        killed = true;
        break;
      }
      const char go = 1;
      ASSERT_EQ(::write(toChild[1], &go, 1), 1);
      if (step == kSteps && killAt == kSteps + 1) {
        ::kill(pid, SIGKILL);  // somewhere in the flush, the rename or the clean-up
        killed = true;
      }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ::close(toParent[0]);
    ::close(toChild[1]);
    const std::string now = test::ReadFile(path);
    if (killAt <= kSteps) {
      EXPECT_EQ(now, old);
    } else {
      EXPECT_TRUE(now == old || now == fresh) << "a file of " << now.size() << " bytes";
    }
    if (!killed) {
      ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
      EXPECT_EQ(now, fresh);
      struct stat info {};
      ::stat(path.c_str(), &info);
      EXPECT_EQ(info.st_mode & 07777, 0640u);
    }
    // Besides the target only the backup (the old file whole) may be left,
    // and the hidden name of an unfinished file where the file system can't
    // make one without a name.
    for (const std::string& name : Names()) {
      if (name == "existing.wav") continue;
      if (name == "existing.wav.bak") {
        EXPECT_EQ(test::ReadFile(dir_ / name), old);
      } else {
        EXPECT_EQ(name.rfind(".existing.wav.kvsave", 0), 0u) << name;
      }
      fs::remove(dir_ / name);
    }
    if (!killed) {
      EXPECT_EQ(Names(), std::set<std::string>{"existing.wav"});
    }
  }
}

// The built program saving a large wave over an existing file, killed at
// several moments of the save.
TEST_F(ExportTest, KelvoKilledDuringALargeSaveLeavesTheOldFileOrTheNewOneWhole) {
  const fs::path kelvo = fs::path(KELVO_BINARY_DIR) / "ui" / "kelvo";
  if (!test::Need(fs::exists(kelvo), "the kelvo program at " + kelvo.string())) return;
  Collection c;
  Waveform* big = MakeWave(c, "Big", 16u << 20, 2);  // 64 MB of 16-bit stereo
  ASSERT_TRUE(WriteWaveFile(*big, dir_ / "big.wav", 0)) << ErrorMessage;
  const std::string old = test::WaveFileBytes(1000);
  const std::string save = "'" + kelvo.string() + "' '" + (dir_ / "big.wav").string() + "' --save ";

  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(test::RunCommand(save + "'" + (dir_ / "whole.wav").string() + "' >/dev/null 2>&1"), 0);
  const auto full = std::chrono::steady_clock::now() - t0;
  const std::string fresh = test::ReadFile(dir_ / "whole.wav");
  ASSERT_GT(fresh.size(), 64u << 20);

  const fs::path path = dir_ / "existing.wav";
  for (int tenth : {1, 3, 5, 7, 9}) {
    SCOPED_TRACE("killed after " + std::to_string(tenth * 10) + "% of a whole save's time");
    test::WriteFile(path, old);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::execl(kelvo.c_str(), "kelvo", (dir_ / "big.wav").c_str(), "--save", path.c_str(), nullptr);
      ::_exit(127);
    }
    std::this_thread::sleep_for(full * tenth / 10);
    ::kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    const std::string now = test::ReadFile(path);
    EXPECT_TRUE(now == old || now == fresh) << "a file of " << now.size() << " bytes";
  }
}

TEST_F(ExportTest, BackupNeverReplacesAnExistingBakFile) {
  const fs::path path = dir_ / "x.wav";
  test::WriteFile(path, "old");
  test::WriteFile(dir_ / "x.wav.bak", "user's own backup");
  Collection c;
  ASSERT_TRUE(SaveFile(MakeWave(c, "W", 2), path, test::kWavRow, ExportRequest{}, false)) << ErrorMessage;
  EXPECT_EQ(test::ReadFile(dir_ / "x.wav.bak"), "user's own backup");
  EXPECT_EQ(test::ReadFile(path).size(), 4u);
}

TEST_F(ExportTest, StereoInAnInstrumentGoesToAMonoRowAsTwoMonosAndTheModelIsUnchanged) {
  Collection c;
  Waveform* st = MakeWave(c, "Strings S", 16, 2);
  MakeInstrument(c, "Strings", {st, MakeWave(c, "Solo", 8)});
  FixUpItems(c, 0xFF, false);
  const std::vector<uint8_t> before = test::Snapshot(c);

  std::vector<std::string> seen;
  std::size_t layers = 0;
  test::ScriptedWrite() = [&](Item& item, FileRef&, ExportRequest&) {
    ItemSet set(item, true);
    for (Waveform* w : set.waveforms) seen.push_back(std::string(w->Name()) + "/" + std::to_string(w->channels));
    layers = set.instruments.front()->children.size();
    return true;
  };
  Instrument* inst = c.All<Instrument>().front();
  ASSERT_TRUE(ExportItem(inst, test::kSf2Row, dir_ / "out.sf2", ExportRequest{}, false)) << ErrorMessage;
  EXPECT_EQ(seen, (std::vector<std::string>{"Strings -L/1", "Solo/1", "Strings -R/1"}));
  EXPECT_EQ(layers, 2u);  // a partner layer plays the right side
  EXPECT_EQ(test::Snapshot(c), before);
  EXPECT_EQ(c.Count(ItemType::Waveform), 2u);

  // A row with stereo takes the wave as it is.
  seen.clear();
  ASSERT_TRUE(ExportItem(inst, test::kSfzRow, dir_ / "out.sfz", ExportRequest{}, false));
  EXPECT_EQ(seen, (std::vector<std::string>{"Strings S/2", "Solo/1"}));
  EXPECT_EQ(layers, 1u);
}

TEST_F(ExportTest, RegionsAndTracksGoOutThroughTemporariesThatDisappear) {
  Collection c;
  Waveform* w = MakeWave(c, "W", 8);
  Instrument* inst = MakeInstrument(c, "I", {w});
  auto* song = Create<Song>(c, "Song");
  auto* track = Create<Track>(c, "T");
  track->parentId = song->id;
  AddChild(*song, track->id);
  track->SetEvents({0x00, 0x90, 0x3C, 0x40, 0x00, 0xFF, 0x2F, 0x00});
  FixUpItems(c, 0xFF, false);
  const std::vector<uint8_t> before = test::Snapshot(c);

  ItemType writtenType = ItemType::Collection;
  test::ScriptedWrite() = [&](Item& item, FileRef&, ExportRequest& r) {
    writtenType = item.Type();
    EXPECT_EQ(r.parameter, FormatAt(test::kMidRow)->parameter);
    return true;
  };
  ASSERT_TRUE(ExportItem(track, test::kMidRow, dir_ / "t.mid", ExportRequest{}, false)) << ErrorMessage;
  EXPECT_EQ(writtenType, ItemType::Song);
  Region* region = c.FindAs<Region>(c.FindAs<Layer>(inst->children[0])->children[0]);
  ASSERT_TRUE(ExportItem(region, test::kSfzRow, dir_ / "r.sfz", ExportRequest{}, false));
  EXPECT_EQ(writtenType, ItemType::Instrument);
  EXPECT_EQ(test::Snapshot(c), before);
  EXPECT_EQ(c.Count(ItemType::Song), 1u);
  EXPECT_EQ(c.Count(ItemType::Instrument), 1u);
}

TEST_F(ExportTest, RefusalsCarryTheirTexts) {
  Collection c;
  EXPECT_FALSE(ExportItem(nullptr, test::kWavRow, dir_ / "a", ExportRequest{}, false));
  EXPECT_STREQ(ErrorMessage, "No item selected");
  Waveform* w = MakeWave(c, "W", 8);
  EXPECT_FALSE(ExportItem(w, 522, dir_ / "a", ExportRequest{}, false));
  EXPECT_STREQ(ErrorMessage, "Invalid export format selected");
  EXPECT_FALSE(ExportItem(w, 1, dir_ / "a", ExportRequest{}, false));  // no writer
  EXPECT_STREQ(ErrorMessage, "Invalid export format selected");

  auto* silent = Create<Waveform>(c, "Silent");  // no samples, no reader
  silent->length = 5;
  EXPECT_FALSE(ExportItem(silent, test::kWavRow, dir_ / "s.wav", ExportRequest{}, true));
  EXPECT_STREQ(ErrorContext, "Read wave-data from disk");
  Instrument* empty = MakeInstrument(c, "Nothing", {});
  AddRegion(*c.FindAs<Layer>(empty->children[0]), kNoWave, MakeRange(0, 127), MakeRange(0, 127), 255);
  EXPECT_FALSE(ExportItem(empty, test::kSfzRow, dir_ / "e.sfz", ExportRequest{}, false));
  EXPECT_STREQ(ErrorMessage, "Empty item - nothing to save");
  EXPECT_FALSE(Exists(dir_ / "e.sfz"));

  EXPECT_FALSE(ExportItem(w, test::kWavRow, dir_ / "no-folder" / "x.wav", ExportRequest{}, false));
  EXPECT_STREQ(ErrorMessage, "Could not create file");
}

TEST_F(ExportTest, AdaptWaveChangesChannelsAndRates) {
  Collection c;
  Waveform* st = MakeWave(c, "St", 4, 2);
  ExportRequest monoOnly{kCapMono | (1u << kPcm16), 0, 0.0f};
  Waveform* mono = AdaptWave(st, monoOnly, 0);
  ASSERT_NE(mono, nullptr);
  EXPECT_NE(mono, st);
  EXPECT_EQ(mono->channels, 1);
  ReleaseAdaptedWave(*st, mono);
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);
  EXPECT_EQ(AdaptWave(st, ExportRequest{}, 0), st);  // "Auto" keeps the wave

  // Another rate: a resampled copy (the automatic filter), then its
  // channels; the source stays as it was and no copy stays behind.
  st->loopType = 1;
  st->loopStart = 1;
  st->loopEnd = 3;
  Waveform* half = AdaptWave(st, monoOnly, 22050);
  ASSERT_NE(half, nullptr);
  EXPECT_NE(half, st);
  EXPECT_EQ(half->sampleRate, 22050u);
  EXPECT_EQ(half->length, 2u);
  EXPECT_EQ(half->channels, 1);
  EXPECT_EQ(half->loopStart, 1.0f);  // trunc(0.5 + 0.5)
  EXPECT_EQ(half->loopEnd, 2.0f);
  ASSERT_NE(half->samplesF, nullptr);
  ReleaseAdaptedWave(*st, half);
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);
  EXPECT_EQ(st->sampleRate, 44100u);
  EXPECT_EQ(st->length, 4u);
  EXPECT_NE(st->samples16, nullptr);
  EXPECT_EQ(AdaptWave(nullptr, ExportRequest{}, 0), nullptr);
}

TEST_F(ExportTest, TypedExtensionPicksItsRowAndUnknownOnesGetTheRowsExtension) {
  Collection c;
  Waveform* w = MakeWave(c, "W", 4);
  SaveTarget t;
  ASSERT_TRUE(ChooseSaveTarget(w, dir_ / "tone.aif", test::kWavRow, ExportRequest{1u << kPcm24, 0, 0}, t));
  EXPECT_EQ(t.row, test::kAifRow);
  EXPECT_EQ(t.request.request, 0u);  // back to "Auto"
  EXPECT_EQ(t.path, dir_ / "tone.aif");
  EXPECT_EQ(Settings().app.aiLastExp[0], test::kAifRow);

  ASSERT_TRUE(ChooseSaveTarget(w, dir_ / "tone.v2", test::kWavRow, ExportRequest{1u << kPcm24, 0, 0}, t));
  EXPECT_EQ(t.row, test::kWavRow);
  EXPECT_EQ(t.request.request, 1u << kPcm24);
  EXPECT_EQ(t.path, dir_ / "tone.v2.wav");

  // The remembered row for the class when none is chosen; an instrument
  // can't go to a wave-only row.
  ASSERT_TRUE(ChooseSaveTarget(w, dir_ / "again", -1, ExportRequest{}, t));
  EXPECT_EQ(t.row, test::kWavRow);
  EXPECT_EQ(t.path, dir_ / "again.wav");
  Instrument* inst = MakeInstrument(c, "I", {w});
  ASSERT_TRUE(ChooseSaveTarget(inst, dir_ / "inst.aif", test::kSfzRow, ExportRequest{}, t));
  EXPECT_EQ(t.row, test::kSfzRow);
  EXPECT_EQ(t.path, dir_ / "inst.aif.sfz");
}

TEST_F(ExportTest, FileNamesAreMadeSafe) {
  EXPECT_EQ(SafeFileName("Piano \"Grand\""), "Piano 'Grand'");
  EXPECT_EQ(SafeFileName("../a/b:c*d?"), "a_b_c_d_");  // dropped while nothing precedes
  EXPECT_EQ(SafeFileName(".hidden"), "hidden");
  EXPECT_EQ(SafeFileName(std::string(300, 'x')).size(), 255u);
}

TEST_F(ExportTest, SaveAllNamesFilesByModeAndFollowsTheExistsPolicy) {
  Collection c;
  Waveform* w = MakeWave(c, "Wave", 4);
  Instrument* a = MakeInstrument(c, "Lead/1", {w}, 5);
  a->location = MakeLocation(2, 3, 5, true);
  MakeInstrument(c, "Bass", {w}, 6);
  EXPECT_EQ(SaveAllName(*a, 1, 210, "foo"), "foo - 01");
  EXPECT_EQ(SaveAllName(*a, 2, 211, "foo"), "02 - foo");
  EXPECT_EQ(SaveAllName(*a, 1, 212, "foo"), "foo - Lead_1");
  EXPECT_EQ(SaveAllName(*a, 1, 213, "foo"), "Lead_1");
  EXPECT_EQ(SaveAllName(*a, 3, 214, "foo"), "03 - Lead_1");
  EXPECT_EQ(SaveAllName(*a, 1, 218, "foo"), "d2-3-5 - Lead_1");

  int count = 0;
  ASSERT_TRUE(SaveAllItems(c, dir_ / "set.sfz", 213, true, OnExists::Overwrite, count)) << ErrorMessage;
  EXPECT_EQ(count, 2);
  EXPECT_TRUE(Exists(dir_ / "Lead_1" / "Lead_1.sfz"));
  EXPECT_TRUE(Exists(dir_ / "Bass" / "Bass.sfz"));
  EXPECT_EQ(LastStatusText(), "Done: Saved 2 files.");

  test::WriteFile(dir_ / "Lead_1" / "Lead_1.sfz", "mine");
  ASSERT_TRUE(SaveAllItems(c, dir_ / "set.sfz", 213, true, OnExists::Skip, count));
  EXPECT_EQ(test::ReadFile(dir_ / "Lead_1" / "Lead_1.sfz"), "mine");
  EXPECT_EQ(count, 2);  // items reached, skipped ones included
  ASSERT_TRUE(SaveAllItems(c, dir_ / "set.sfz", 213, true, OnExists::Cancel, count));
  EXPECT_EQ(LastStatusText(), "Failed: Save all cancelled after 0 files.");

  // Waves when the row holds no instruments; a MIDI row has nothing to take.
  ASSERT_TRUE(SaveAllItems(c, dir_ / "w.wav", 210, false, OnExists::Overwrite, count));
  EXPECT_TRUE(Exists(dir_ / "w - 01.wav"));
  ASSERT_TRUE(SaveAllItems(c, dir_ / "m.mid", 213, false, OnExists::Overwrite, count));
  EXPECT_EQ(LastStatusText(), "No songs to save!");
  EXPECT_FALSE(SaveAllItems(c, dir_ / "x.nothing", 213, false, OnExists::Overwrite, count));
  EXPECT_STREQ(ErrorContext, "Save all in multiple files");
  EXPECT_STREQ(ErrorMessage, "Can't 'Save all...' with this file format!");
}

TEST_F(ExportTest, CommandLineSaveAllMakesItsFolderAndFailsWhenAFileFails) {
  Collection c;
  Waveform* w = MakeWave(c, "Wave", 4);
  MakeInstrument(c, "Lead", {w}, 5);
  MakeInstrument(c, "Bass", {w}, 6);
  int count = 0;
  ASSERT_TRUE(SaveAllItems(c, dir_ / "new" / "deeper" / "set.sfz", 213, false, OnExists::Overwrite, count))
      << ErrorMessage;
  EXPECT_TRUE(Exists(dir_ / "new" / "deeper" / "Lead.sfz"));
  EXPECT_TRUE(Exists(dir_ / "new" / "deeper" / "Bass.sfz"));

  // A folder where one file should go: that item fails, the other is saved,
  // and the whole call says so.
  fs::create_directories(dir_ / "out" / "Lead.sfz");
  EXPECT_FALSE(SaveAllItems(c, dir_ / "out" / "set.sfz", 213, false, OnExists::Overwrite, count));
  EXPECT_STREQ(ErrorContext, "Save all in multiple files");
  EXPECT_STREQ(ErrorMessage, "1 of 2 files could not be saved");
  EXPECT_TRUE(Exists(dir_ / "out" / "Bass.sfz"));
  EXPECT_TRUE(fs::is_directory(dir_ / "out" / "Lead.sfz"));  // never moved aside for a file
  EXPECT_EQ(LastStatusText(), "Done: Saved 2 files.");
}

TEST_F(ExportTest, CommandLineSaveChecksOptionsAgainstTheRow) {
  Collection c;
  Waveform* st = MakeWave(c, "St", 4, 2);
  SaveOptions opt;
  opt.channels = "mono";
  ASSERT_TRUE(SaveCollectionOrItem(c, st, dir_ / "m.wav", opt)) << ErrorMessage;
  EXPECT_EQ(test::ReadFile(dir_ / "m.wav").size(), 8u);  // 4 mono frames
  EXPECT_EQ(LastStatusText().rfind("Saved: ", 0), 0u);

  // A collection that is one lone wave saves as the wave.
  opt = {};
  ASSERT_TRUE(SaveCollectionOrItem(c, nullptr, dir_ / "lone.wav", opt)) << ErrorMessage;
  EXPECT_EQ(test::ReadFile(dir_ / "lone.wav").size(), 16u);

  MakeInstrument(c, "I", {st});
  opt.format = "sfz";
  opt.dataFormat = "Float 64-bit";  // not among the SFZ writer's codings
  EXPECT_FALSE(SaveCollectionOrItem(c, nullptr, dir_ / "c", opt));
  EXPECT_NE(std::strstr(ErrorMessage, "can't write Float 64-bit data"), nullptr);
  opt.dataFormat = "PCM 16-bit";
  ASSERT_TRUE(SaveCollectionOrItem(c, nullptr, dir_ / "c", opt)) << ErrorMessage;
  EXPECT_TRUE(Exists(dir_ / "c.sfz"));
  opt.format = "no such format";
  EXPECT_FALSE(SaveCollectionOrItem(c, nullptr, dir_ / "c", opt));

  opt = {};
  opt.onExists = OnExists::Skip;
  test::WriteFile(dir_ / "k.wav", "keep");
  EXPECT_TRUE(SaveCollectionOrItem(c, st, dir_ / "k.wav", opt));
  EXPECT_EQ(test::ReadFile(dir_ / "k.wav"), "keep");
  opt.onExists = OnExists::Cancel;
  EXPECT_FALSE(SaveCollectionOrItem(c, st, dir_ / "k.wav", opt));
  EXPECT_EQ(FindWriterRow("476", 0xFF), test::kWavRow);
  EXPECT_EQ(FindWriterRow("Microsoft wave", 0x01), test::kWavRow);
}

}  // namespace
}  // namespace kv
