// ADPCM from the command line: voice files in and out, the CCITT codings of
// the WAV writer by --data-format, a raw row by --format, and --info and
// --list naming each coding with its width.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

struct CliRun {
  int code;
  std::string out;
  std::string err;
};

class AdpcmCli : public ::testing::Test {
 protected:
  test::TempDir dir;
  CliRun Kelvo(const std::string& args) {
    const std::string out = (dir / "stdout.txt").string(), err = (dir / "stderr.txt").string();
    const std::string cmd = "cd '" + dir.path().string() + "' && KELVO_SETTINGS='" + (dir / "settings.ini").string() +
                            "' '" + KELVO_EXE + "' -NOMSG " + args + " >'" + out + "' 2>'" + err + "'";
    const int code = test::RunCommand(cmd);
    return {code, test::ReadFile(out), test::ReadFile(err)};
  }
  std::string Info(const std::string& file) {
    const CliRun r = Kelvo("--info " + file);
    EXPECT_EQ(r.code, 0) << r.err;
    return r.out;
  }
};

TEST_F(AdpcmCli, VoxToWaveAsSoxDecodesIt) {
  if (!test::NeedCorpus()) return;
  fs::copy_file(test::CorpusDir() / "other/gen-dialogic-8k.vox", dir / "x.vox");
  EXPECT_NE(Info("x.vox").find("\t459\tvox\tDialogic 4-bit ADPCM\t55%\tDialogic ADPCM 4-bit"), std::string::npos);
  CliRun r = Kelvo("x.vox --save x.wav --data-format \"PCM 16-bit\"");
  ASSERT_EQ(r.code, 0) << r.err;
  std::vector<int16_t> ours, sox;
  ASSERT_TRUE(test::SoxSamples16(dir / "x.wav", "", ours));
  if (test::SoxSamples16(dir / "x.vox", "-t vox -r 8000", sox)) {
    EXPECT_EQ(ours, sox);
  }
  // "Auto" keeps the wave's preferred format, "ADPCM 4-bit": CCITT G.721.
  ASSERT_EQ(Kelvo("x.vox --save auto.wav").code, 0);
  EXPECT_NE(Info("auto.wav").find("\tCCITT G.721 ADPCM 4-bit"), std::string::npos);
}

TEST_F(AdpcmCli, DataFormatPicksTheCcittWidthAndFormatPicksTheRawRow) {
  if (!test::NeedCorpus()) return;
  fs::copy_file(test::CorpusDir() / "wav/chuck-snare-smpl.wav", dir / "in.wav");
  const char* names[] = {"", "", "CCITT G.726 ADPCM 2-bit", "CCITT G.723 ADPCM 3-bit", "CCITT G.721 ADPCM 4-bit",
                         "CCITT G.723 ADPCM 5-bit"};
  for (int bits = 2; bits <= 5; ++bits) {
    const std::string out = "out" + std::to_string(bits) + ".wav";
    CliRun r = Kelvo("in.wav --save " + out + " --data-format \"ADPCM " + std::to_string(bits) + "-bit\"");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(Info(out).find(std::string("\t") + names[bits]), std::string::npos) << Info(out);
    const CliRun list = Kelvo(out + " --list");
    EXPECT_NE(list.out.find("frames=6672 "), std::string::npos) << list.out;
    EXPECT_NE(list.out.find(std::string("coding=\"") + names[bits] + "\""), std::string::npos) << list.out;
  }
  // Row 146: G.726, 4 bits, least significant bit first, no header.
  CliRun raw = Kelvo("in.wav --save out.g726 --format 146");
  ASSERT_EQ(raw.code, 0) << raw.err;
  EXPECT_EQ(fs::file_size(dir / "out.g726"), (4u * 6672 + 7) / 8);
  // A width the row can't write is refused by name.
  CliRun bad = Kelvo("in.wav --save out.g721 --data-format \"ADPCM 3-bit\"");
  EXPECT_EQ(bad.code, 1);
  EXPECT_NE(bad.err.find("can't write ADPCM 3-bit data"), std::string::npos) << bad.err;
}

TEST_F(AdpcmCli, ListNamesTheCodingOfCorpusFiles) {
  if (!test::NeedCorpus()) return;
  const struct {
    const char* file;
    const char* coding;
  } cases[] = {{"wav/gen-ima-adpcm.wav", "frames=8178 rate=44100 channels=1 bits=4 root=60 coding=\"IMA ADPCM 4-bit\""},
               {"wav/gen-ms-adpcm.wav", "frames=7293 rate=44100 channels=1 bits=4 root=60 coding=\"MS ADPCM 4-bit\""},
               {"wav/gen-s16-stereo.wav", "coding=\"PCM 16-bit\""}};
  for (const auto& c : cases) {
    const CliRun r = Kelvo("'" + (test::CorpusDir() / c.file).string() + "' --list");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find(c.coding), std::string::npos) << r.out;
  }
}

}  // namespace
}  // namespace kv
