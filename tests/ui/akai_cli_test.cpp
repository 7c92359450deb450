// AKAI files from the command line: an image's files listed and loaded, a
// hard disk refused, a program saved as SFZ and SoundFont.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

struct CliRun {
  int code;
  std::string out;
  std::string err;
};

class AkaiCli : public ::testing::Test {
 protected:
  test::TempDir dir;
  CliRun Kelvo(const std::string& args) {
    const std::string out = (dir / "stdout.txt").string(), err = (dir / "stderr.txt").string();
    const std::string cmd = "cd '" + dir.path().string() + "' && KELVO_SETTINGS='" + (dir / "settings.ini").string() +
                            "' '" + KELVO_EXE + "' -NOMSG " + args + " >'" + out + "' 2>'" + err + "'";
    const int code = test::RunCommand(cmd);
    return {code, test::ReadFile(out), test::ReadFile(err)};
  }
  static std::string Corpus(const std::string& name) { return "'" + (test::CorpusDir() / "akai" / name).string() + "'"; }
  static int Count(const std::string& text, const std::string& what) {
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }
};

TEST_F(AkaiCli, ImagesListLoadAndRefuse) {
  if (!test::NeedCorpus()) return;
  CliRun r = Kelvo("--info " + Corpus("images/s3000-hd-floppy-mk8ultra.img"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(Count(r.out, "\t<AKAI floppy disk image: "), 6) << r.out;
  EXPECT_NE(r.out.find("\t<AKAI floppy disk image: MK8ULTRA.p>\n"), std::string::npos) << r.out;

  r = Kelvo(Corpus("images/s3000-hd-floppy-mk8ultra.img") + " --list");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(Count(r.out, "  instrument "), 1) << r.out;
  EXPECT_EQ(Count(r.out, "      region "), 10) << r.out;
  EXPECT_EQ(Count(r.out, "  waveform "), 5) << r.out;

  for (const char* args : {"--info ", ""}) {
    r = Kelvo(args + Corpus("images/s3000-harddisk-4MB.img"));
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("Wrong file size for an AKAI S-series floppy disk"), std::string::npos) << r.err;
  }
}

TEST_F(AkaiCli, ProgramSavesAsSfzAndSoundFont) {
  if (!test::NeedCorpus()) return;
  for (const char* out : {"out.sfz", "out.sf2"}) {
    CliRun r = Kelvo(Corpus("s3000-mk8ultra/mk8ultra.p") + " --save " + out);
    ASSERT_EQ(r.code, 0) << out << ": " << r.err;
    r = Kelvo(std::string(out) + " --list");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(Count(r.out, "      region "), 10) << out << r.out;
  }
}

}  // namespace
}  // namespace kv
