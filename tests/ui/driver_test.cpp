// The command-line driver run as a user runs it: a real process, real files.
#include <gtest/gtest.h>

#include <cmath>

#include <filesystem>
#include <string>

#include "support/testsupport.h"

namespace kv {
namespace {

using test::TempDir;

struct Result {
  int code;
  std::string out;
  std::string err;
};

class Driver : public ::testing::Test {
 protected:
  TempDir dir;
  Result Kelvo(const std::string& args) {
    std::string outPath = (dir / "stdout.txt").string();
    std::string errPath = (dir / "stderr.txt").string();
    std::string cmd = "cd '" + dir.path().string() + "' && KELVO_SETTINGS='" + (dir / "settings.ini").string() +
                      "' '" + KELVO_EXE + "' " + args + " >'" + outPath + "' 2>'" + errPath + "'";
    int code = test::RunCommand(cmd);
    return {code, test::ReadFile(outPath), test::ReadFile(errPath)};
  }
  void Make(const std::string& name, std::size_t bytes) {
    test::WriteFile(dir / name, std::string(bytes, '\x10'));
  }
};

TEST_F(Driver, VersionHelpAndBadUsage) {
  Result v = Kelvo("--version");
  EXPECT_EQ(v.code, 0);
  EXPECT_NE(v.out.find("Kelvo Studio v12.5"), std::string::npos);
  EXPECT_EQ(Kelvo("--help").code, 0);
  Result bad = Kelvo("--no-such-option");
  EXPECT_EQ(bad.code, 2);
  EXPECT_FALSE(bad.err.empty());
}

TEST_F(Driver, FirstSuccessReplacesAndAFailureIsReported) {
  Make("b.raw", 100);
  Result r = Kelvo("missing.raw b.raw --list");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("File Import: Could not open file"), std::string::npos) << r.err;
  // b replaced: the collection is named after it and holds its one wave.
  EXPECT_NE(r.out.find("collection e0"), std::string::npos);
  EXPECT_NE(r.out.find("\"b\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("frames=100"), std::string::npos) << r.out;
}

TEST_F(Driver, LaterFilesMerge) {
  Make("a.raw", 10);
  Make("b.raw", 20);
  Result r = Kelvo("a.raw b.raw --list");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("frames=10 "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("frames=20 "), std::string::npos) << r.out;
}

TEST_F(Driver, FoldersOpenTheirFilesAndSkipDotFolders) {
  std::filesystem::create_directories(dir / "lib" / ".hidden");
  std::filesystem::create_directories(dir / "lib" / "sub");
  test::WriteFile(dir / "lib" / "one.raw", std::string(11, 'x'));
  test::WriteFile(dir / "lib" / "sub" / "two.raw", std::string(12, 'x'));
  test::WriteFile(dir / "lib" / ".hidden" / "three.raw", std::string(13, 'x'));
  test::WriteFile(dir / "lib" / ".dotfile.raw", std::string(14, 'x'));
  Result r = Kelvo("lib --list");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("frames=11 "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("frames=12 "), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("frames=13 "), std::string::npos) << r.out;
  // Plain files whose names begin with a dot are opened.
  EXPECT_NE(r.out.find("frames=14 "), std::string::npos) << r.out;

  std::filesystem::create_directories(dir / "empty");
  Result e = Kelvo("empty --list");
  EXPECT_EQ(e.code, 0) << e.err;
  EXPECT_EQ(e.out.find("waveform"), std::string::npos);
}

TEST_F(Driver, SwitchesAndSkippedArguments) {
  Make("x.exe.raw", 10);
  Result r = Kelvo("x.exe.raw -whatever --list");
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("Ignored: x.exe.raw"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("Ignored: -whatever"), std::string::npos) << r.err;
  EXPECT_EQ(r.out.find("waveform"), std::string::npos);

  // An absolute path is a file, not a switch.
  Make("abs.raw", 10);
  Result a = Kelvo("'" + (dir / "abs.raw").string() + "' --list");
  EXPECT_EQ(a.code, 0) << a.err;
  EXPECT_NE(a.out.find("frames=10 "), std::string::npos);

  // -NOMSG stops questions and boxes, never the reason a command failed.
  Result quiet = Kelvo("-nomsg missing.raw");
  EXPECT_EQ(quiet.code, 1);
  EXPECT_NE(quiet.err.find("File Import: Could not open file"), std::string::npos) << quiet.err;

  // A refused batch run is a failed command, with boxes on or off.
  for (const char* args : {"/BATCH -NOMSG", "-NOMSG -BATCH"}) {
    Result batch = Kelvo(args);
    EXPECT_EQ(batch.code, 1) << args;
    EXPECT_NE(batch.err.find("Batch conversion: "), std::string::npos) << args << ": " << batch.err;
  }
}

TEST_F(Driver, AFailedSaveSaysWhyUnderNoMsg) {
  Make("in.raw", 100);
  // A folder where the file should go: no writer can replace it.
  std::filesystem::create_directories(dir / "taken.wav");
  Result r = Kelvo("-NOMSG in.raw --save taken.wav");
  EXPECT_EQ(r.code, 1) << r.err;
  const std::size_t line = r.err.find("File Export: ");
  ASSERT_NE(line, std::string::npos) << r.err;
  EXPECT_GT(r.err.find('\n', line), line + std::string("File Export: ").size()) << "no reason given: " << r.err;
}

TEST_F(Driver, DemoListsACollection) {
  // With no bank at the settings' path the program builds its own.
  Result r = Kelvo("--set mid2wav.wszGMBank=/nonexistent/bank.sf2 --demo");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("Collection \"Demo collection\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("1 instrument\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("bank   0:0    80  Sine lead"), std::string::npos) << r.out;
}

TEST_F(Driver, SettingsCanBeSetPrintedAndSaved) {
  Result r = Kelvo("--set load.bConfirm=1 --settings --save-settings");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("load.bConfirm=1"), std::string::npos);
  Result again = Kelvo("--settings");
  EXPECT_NE(again.out.find("load.bConfirm=1"), std::string::npos);
  EXPECT_EQ(Kelvo("--set no.such=1").code, 2);
}

TEST_F(Driver, SongsListWithTheirEventsAndSaveAsMidiOrRiffMidi) {
  // Format 1 at 96 ticks: a named track with a tempo, a note pair and a
  // controller, then one without a name.
  const std::string track1 = std::string("\x00\xFF\x03\x04Lead\x00\xFF\x51\x03\x07\xA1\x20", 15) +
                             std::string("\x00\x91\x3C\x64\x60\x3C\x00\x00\xB1\x28\x05\x00\xFF\x2F\x00", 15);
  const std::string track2 = std::string("\x00\xC9\x05\x00\xFF\x2F\x00", 7);
  auto be32 = [](std::size_t v) {
    return std::string{static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                       static_cast<char>(v)};
  };
  const std::string file = std::string("MThd\0\0\0\6\0\1\0\2\0\x60", 14) + "MTrk" + be32(track1.size()) +
                           track1 + "MTrk" + be32(track2.size()) + track2;
  test::WriteFile(dir / "song.mid", file);
  Result r = Kelvo("song.mid --list --events --set app.bShowNoteNames=1 --set app.cOctMidC=4");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("song c0000001 \"song\" Format 1 (multi track), 96 ticks/4th\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"Lead\" 6 events, 30 Bytes, Ch-group: 0, Seq-no: 0\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"Track 01\" 2 events, 7 Bytes, Ch-group: 0, Seq-no: 0\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("      Ticks\tCh\tEvent\tParameters\n"
                       "      0\t\tMeta event\tTrack name: Lead\n"
                       "      0\t\tMeta event\tTempo: 500.00000 ms/4th (120 bpm)\n"
                       "      0\t2\tNote On\tC4, 100\n"
                       "      96\t2\tNote On\tC4, 0\n"
                       "      96\t2\tControl Chg\tCC40, 5\n"
                       "      96\t\tMeta event\tEnd of Track\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("      0\t10\tProgram Chg\t5\n"), std::string::npos) << r.out;

  r = Kelvo("song.mid --save copy.mid");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(test::ReadFile(dir / "copy.mid"), file);
  r = Kelvo("song.mid --save copy.rmi");
  ASSERT_EQ(r.code, 0) << r.err;
  const std::string rmi = test::ReadFile(dir / "copy.rmi");
  ASSERT_GT(rmi.size(), 20 + file.size());
  EXPECT_EQ(rmi.substr(0, 4), "RIFF");
  EXPECT_EQ(rmi.substr(20, file.size()), file);
  r = Kelvo("copy.rmi --save back.mid");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(test::ReadFile(dir / "back.mid"), file);
}

uint32_t u32(const std::string& b, std::size_t at) {
  return static_cast<uint32_t>(static_cast<uint8_t>(b[at])) | static_cast<uint32_t>(static_cast<uint8_t>(b[at + 1])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(b[at + 2])) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(b[at + 3])) << 24;
}

TEST_F(Driver, CorpusSongsRenderToWavesOfTheirLength) {
  if (!test::NeedCorpus()) return;
  const std::string bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(std::filesystem::exists(bank), "timgm6mb-soundfont")) return;
  const std::string python = test::MidoPython();
  if (python.empty()) return;
  // The first note's time by mido, for the files' data (an RMID file's SMF
  // is its data chunk, which mido reads from the plain files beside them).
  test::WriteFile(dir / "first.py",
                  "import mido, sys\n"
                  "t = 0\n"
                  "for m in mido.MidiFile(sys.argv[1]):\n"
                  "    t += m.time\n"
                  "    if m.type == 'note_on' and m.velocity > 0:\n"
                  "        print('%.6f' % t)\n"
                  "        break\n");
  int files = 0;
  for (const test::ManifestEntry& row : test::Manifest()) {
    if (row.path.rfind("midi/", 0) != 0) continue;
    SCOPED_TRACE(row.path);
    const bool rmi = row.path.ends_with(".rmi");
    const std::string mido = rmi ? "mido 1.2.10 on the data chunk" : "mido 1.2.10";
    const double length = std::stod(test::Fact(row.facts, mido, "length_s"));
    const std::string smf = rmi ? (row.path.find("plain") != std::string::npos ? "midi/freedink-dance-format0.mid"
                                                                              : "midi/openttd-train_filled_with_cash.mid")
                                : row.path;
    std::string first;
    ASSERT_EQ(test::RunCommand(python + " '" + (dir / "first.py").string() + "' '" + (test::CorpusDir() / smf).string() +
                                   "'",
                               &first),
              0);
    Result r = Kelvo("-NOMSG '" + (test::CorpusDir() / row.path).string() +
                     "' --save song.wav --set mid2wav.bDeleteSilence=0 --set mid2wav.bNormalizePeak=0 --set "
                     "mid2wav.bEffects=0 --set mid2wav.wszGMBank=" + bank);  // lengths only: no channel effects
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string wav = test::ReadFile(dir / "song.wav");
    ASSERT_GT(wav.size(), 44u);
    // Stereo 16-bit at 48000 Hz in the plain header the writer gives.
    ASSERT_EQ(u32(wav, 24), 48000u);
    std::size_t data = wav.find("data");
    ASSERT_NE(data, std::string::npos);
    const double seconds = u32(wav, data + 4) / 4.0 / 48000.0;
    EXPECT_NEAR(seconds, length - std::stod(first), 2 * 64 / 48000.0 + 0.0005) << first;
    ++files;
  }
  EXPECT_EQ(files, 9);

  // A bank loaded beside the song is what it plays; without it and without
  // a General MIDI collection the song renders silent, and says why.
  const std::string song = "'" + (test::CorpusDir() / "midi/pianobooster-02-LavendersBlue.mid").string() + "'";
  auto peak = [&] {
    const std::string wav = test::ReadFile(dir / "song.wav");
    const std::size_t at = wav.find("data"), end = std::min(wav.size(), at + 8 + u32(wav, at + 4));
    int most = 0;
    for (std::size_t i = at + 8; i + 1 < end; i += 2)
      most = std::max(most, std::abs(static_cast<int16_t>(static_cast<uint8_t>(wav[i]) | static_cast<uint8_t>(wav[i + 1]) << 8)));
    return most;
  };
  Result r = Kelvo(song + " '" + bank + "' --save song.wav --set mid2wav.wszGMBank=/nowhere.sf2");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_GE(peak(), 32700);  // normalised
  r = Kelvo(song + " --save song.wav --set mid2wav.wszGMBank=/nowhere.sf2");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("Could not open the default GM/GS collection!"), std::string::npos) << r.err;
  EXPECT_EQ(peak(), 0);
}

TEST_F(Driver, ConvertingSongsToWavesKeepsTheDefaults) {
  if (!test::NeedCorpus() || !test::NeedTool("sndfile-info")) return;
  const std::string bank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
  if (!test::Need(std::filesystem::exists(bank), "timgm6mb-soundfont")) return;
  // Command 167 renders every song to a wave; --save-all then writes the
  // waves. The defaults cut the silence at both ends and bring the peak to
  // full scale.
  const std::string a = (test::CorpusDir() / "midi/mma-drum-format0-ppqn384.mid").string();
  const std::string b = (test::CorpusDir() / "midi/pianobooster-02-LavendersBlue.mid").string();
  Result r = Kelvo("'" + a + "' '" + b + "' --set mid2wav.wszGMBank=" + bank + " --command 167 --save-all out.wav");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("Done: Saved 2 files."), std::string::npos) << r.out;
  for (const char* name : {"mma-drum-format0-ppqn384.wav", "pianobooster-02-LavendersBlue.wav"}) {
    SCOPED_TRACE(name);
    std::string info;
    ASSERT_EQ(test::RunCommand("sndfile-info '" + (dir / name).string() + "'", &info), 0) << info;
    EXPECT_NE(info.find("Sample Rate : 48000"), std::string::npos) << info;
    const std::string wav = test::ReadFile(dir / name);
    const std::size_t at = wav.find("data");
    ASSERT_NE(at, std::string::npos);
    const std::size_t end = std::min(wav.size(), at + 8 + u32(wav, at + 4));
    auto sample = [&](std::size_t i) {
      return std::abs(static_cast<int16_t>(static_cast<uint8_t>(wav[i]) | static_cast<uint8_t>(wav[i + 1]) << 8));
    };
    int peak = 0, tail = 0, head = 0;
    for (std::size_t i = at + 8; i + 1 < end; i += 2) peak = std::max(peak, sample(i));
    // The last and first 5 ms (480 samples of both channels) hold sound.
    for (std::size_t i = end - 960; i + 1 < end; i += 2) tail = std::max(tail, sample(i));
    for (std::size_t i = at + 8; i < at + 8 + 960; i += 2) head = std::max(head, sample(i));
    EXPECT_GE(20 * std::log10(peak / 32767.0), -0.01);
    EXPECT_GE(tail, 1);
    EXPECT_GE(head, 1);
  }
}

}  // namespace
}  // namespace kv
