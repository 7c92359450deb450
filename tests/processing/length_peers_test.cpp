// The length and channel rows through `kelvo --op`, next to the sox effect
// that does the same, on real files: samples decoded by sox, loops read back
// by libsndfile.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

class LengthPeers : public ::testing::Test {
 protected:
  test::TempDir dir;

  // Runs the program in the scratch folder; its exit status.
  int Kelvo(const std::string& args) {
    std::string said;
    const int code = test::RunCommand("cd '" + dir.path().string() + "' && KELVO_SETTINGS=settings.ini '" +
                                          KELVO_EXE + "' -NOMSG " + args + " 2>&1",
                                      &said);
    EXPECT_EQ(code, 0) << args << ": " << said;
    return code;
  }
  bool Sox(const std::string& args) {
    return test::RunPeer("sox", "-V1 " + PathsIn(args));
  }
  // Every bare word ending in .wav is a file of the scratch folder.
  std::string PathsIn(const std::string& args) {
    static const std::regex kFile(R"(([A-Za-z0-9_-]+\.wav))");
    return std::regex_replace(args, kFile, "'" + dir.path().string() + "/$1'");
  }
  // The samples of a file as sox decodes them, as float values.
  std::vector<float> Samples(const std::string& name) {
    const fs::path raw = dir / (name + ".f32");
    std::vector<float> out;
    if (!test::RunPeer("sox", "'" + (dir / name).string() + "' -t f32 '" + raw.string() + "'")) return out;
    const std::string bytes = test::ReadFile(raw);
    out.resize(bytes.size() / 4);
    std::memcpy(out.data(), bytes.data(), out.size() * 4);
    return out;
  }
  // Ours and sox's agree within `tolerance` (0: bit for bit).
  void ExpectSame(const std::string& ours, const std::string& theirs, double tolerance) {
    const std::vector<float> a = Samples(ours), b = Samples(theirs);
    ASSERT_EQ(a.size(), b.size()) << ours;
    ASSERT_FALSE(a.empty()) << ours;
    double most = 0;
    for (std::size_t i = 0; i < a.size(); ++i) most = std::max(most, std::fabs(double{a[i]} - b[i]));
    EXPECT_LE(most, tolerance) << ours << " against " << theirs;
  }
  // "start-end" of the first loop libsndfile reads from a file.
  std::string Loop(const std::string& name) {
    std::string said;
    test::RunCommand("sndfile-info --instrument '" + (dir / name).string() + "'", &said);
    static const std::regex kLoop(R"(Start :\s+(\d+)\s+End :\s+(\d+))");
    std::smatch m;
    if (!std::regex_search(said, m, kLoop)) return "none";
    return m[1].str() + "-" + m[2].str();
  }
};

struct PeerFile {
  const char* path;
  bool isFloat;
  const char* loop;  // as sndfile-info reads it, or null for none
};

TEST_F(LengthPeers, CutTrimInsertAndAppendAsSox) {
  if (!test::NeedTool("sox") || !test::NeedTool("sndfile-info") || !test::NeedCorpus()) return;
  const PeerFile files[] = {
      {"wav/gen-s16-stereo.wav", false, nullptr},
      {"wav/gen-f32-stereo.wav", true, nullptr},
      {"wav/hydrogen-trimo-c3-smpl.wav", false, "3570-20436"},
  };
  for (const PeerFile& f : files) {
    SCOPED_TRACE(f.path);
    fs::copy_file(test::CorpusDir() / f.path, dir / "in.wav", fs::copy_options::overwrite_existing);
    fs::copy_file(test::CorpusDir() / f.path, dir / "again.wav", fs::copy_options::overwrite_existing);

    // Cut away [1000, 5000): the loop start inside the cut goes to 1000.
    ASSERT_EQ(Kelvo("in.wav --op cut range=1000:5000 --save cut.wav"), 0);
    ASSERT_TRUE(Sox("in.wav sox-cut.wav trim 0s =1000s =5000s"));
    ExpectSame("cut.wav", "sox-cut.wav", 0);
    if (f.loop) {
      EXPECT_EQ(Loop("cut.wav"), "1000-16436");
    }

    // Trim to [2000, 21000): the loop end stays inside, the start moves by 2000.
    ASSERT_EQ(Kelvo("in.wav --op trim range=2000:21000 --save trim.wav"), 0);
    ASSERT_TRUE(Sox("in.wav sox-trim.wav trim 2000s =21000s"));
    ExpectSame("trim.wav", "sox-trim.wav", 0);
    if (f.loop) {
      EXPECT_EQ(Loop("trim.wav"), "1570-18436");
    }

    // 10000 frames of silence at 4000: a loop start behind it moves.
    ASSERT_EQ(Kelvo("in.wav --op insert-silence count=10000 at=sel-start range=4000:4001 --save pad.wav"), 0);
    ASSERT_TRUE(Sox("in.wav sox-pad.wav pad 10000s@4000s"));
    ExpectSame("pad.wav", "sox-pad.wav", 0);
    if (f.loop) {
      EXPECT_EQ(Loop("pad.wav"), "3570-30436");
    }

    // The file after itself; the loop is the first wave's.
    ASSERT_EQ(Kelvo("in.wav again.wav --select in --op append wave2=in wave3=again --item in --save app.wav"),
              0);
    ASSERT_TRUE(Sox("in.wav again.wav sox-app.wav"));
    ExpectSame("app.wav", "sox-app.wav", 0);
    if (f.loop) {
      EXPECT_EQ(Loop("app.wav"), f.loop);
    }
  }
}

TEST_F(LengthPeers, MonoStereoAndMixAsSox) {
  if (!test::NeedTool("sox") || !test::NeedCorpus()) return;
  const PeerFile files[] = {
      {"wav/gen-s16-stereo.wav", false, nullptr},
      {"wav/gen-f32-stereo.wav", true, nullptr},
      {"wav/hydrogen-trimo-c3-smpl.wav", false, nullptr},
  };
  for (const PeerFile& f : files) {
    SCOPED_TRACE(f.path);
    fs::copy_file(test::CorpusDir() / f.path, dir / "in.wav", fs::copy_options::overwrite_existing);

    // The average: sox rounds where we halve towards zero, so 1 LSB apart.
    ASSERT_EQ(Kelvo("in.wav --op to-mono mode=0 --save mono.wav"), 0);
    ASSERT_TRUE(Sox("-D in.wav sox-mono.wav remix 1v0.5,2v0.5"));
    ExpectSame("mono.wav", "sox-mono.wav", f.isFloat ? 1e-7 : 1.0 / 32768);

    // Duplicated to two channels, bit for bit.
    ASSERT_EQ(Kelvo("sox-mono.wav --op to-stereo mode=0 --save stereo.wav"), 0);
    ASSERT_TRUE(Sox("sox-mono.wav sox-stereo.wav channels 2"));
    ExpectSame("stereo.wav", "sox-stereo.wav", 0);

    // Half of each: the file and its averaged copy, summed in float.
    fs::copy_file(dir / "sox-stereo.wav", dir / "half.wav", fs::copy_options::overwrite_existing);
    ASSERT_EQ(Kelvo("in.wav half.wav --select in --op mix a=0,5 b=0.5 wave2=half --item in "
                    "--data-format \"Float 32-bit\" --save mix.wav"),
              0);
    ASSERT_TRUE(Sox("-m in.wav half.wav -e floating-point -b 32 sox-mix.wav"));
    ExpectSame("mix.wav", "sox-mix.wav", 1e-6);
  }
}

}  // namespace
}  // namespace kv
