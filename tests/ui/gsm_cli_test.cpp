// GSM 06.10 and G.722 from the command line: a GSM WAV by --data-format,
// raw GSM in and out, G.722 by the row number, --info naming the codings,
// and the rows that have no writer saying so.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

class GsmCli : public ::testing::Test {
 protected:
  test::TempDir dir;
  int Kelvo(const std::string& args, std::string* out = nullptr, std::string* err = nullptr) {
    const std::string o = (dir / "stdout.txt").string(), e = (dir / "stderr.txt").string();
    const int code = test::RunCommand("cd '" + dir.path().string() + "' && KELVO_SETTINGS='" +
                                      (dir / "settings.ini").string() + "' '" + KELVO_EXE + "' -NOMSG " + args + " >'" +
                                      o + "' 2>'" + e + "'");
    if (out) *out = test::ReadFile(o);
    if (err) *err = test::ReadFile(e);
    return code;
  }
  std::string Info(const std::string& file) {
    std::string out;
    EXPECT_EQ(Kelvo("--info " + file, &out), 0);
    return out;
  }
};

TEST_F(GsmCli, GsmWaveRawGsmAndG722ByRow) {
  if (!test::NeedCorpus()) return;
  if (!test::RunPeer("sox", "-D '" + (test::CorpusDir() / "wav/hydrogen-trimo-c3-smpl.wav").string() +
                                "' -r 8000 -c 2 -b 16 '" + (dir / "speech.wav").string() + "'"))
    return;
  std::string err;
  ASSERT_EQ(Kelvo("speech.wav --save s.wav --data-format \"GSM 2-bit\"", nullptr, &err), 0) << err;
  EXPECT_NE(Info("s.wav").find("\tGSM 06.10"), std::string::npos);

  ASSERT_TRUE(test::RunPeer("sox", "-D '" + (dir / "speech.wav").string() + "' -c 1 -t gsm '" + (dir / "x.gsm").string() + "'"));
  EXPECT_NE(Info("x.gsm").find("\t167\tgsm\tRaw GSM 06.10\t"), std::string::npos);
  ASSERT_EQ(Kelvo("x.gsm --save x.wav", nullptr, &err), 0) << err;
  std::string soxi;
  ASSERT_EQ(test::RunCommand("soxi -r '" + (dir / "x.wav").string() + "'", &soxi), 0);
  EXPECT_EQ(soxi, "8000\n");
  std::vector<int16_t> ours, sox;
  ASSERT_TRUE(test::SoxSamples16(dir / "x.wav", "", ours));
  if (test::SoxSamples16(dir / "x.gsm", "-t gsm", sox)) {
    EXPECT_EQ(ours, sox);
  }

  ASSERT_TRUE(test::RunPeer("sox", "-D '" + (dir / "speech.wav").string() + "' -r 16000 -c 1 '" +
                                       (dir / "wide.wav").string() + "'"));
  ASSERT_EQ(Kelvo("wide.wav --save x.g722 --format 134", nullptr, &err), 0) << err;
  ASSERT_TRUE(fs::exists(dir / "x.g722"));
  EXPECT_NE(Info("x.g722").find("\tG.722 64 kbit/s"), std::string::npos);

  EXPECT_NE(Kelvo("speech.wav --save y.gsm --format 168", nullptr, &err), 0);
  EXPECT_NE(err.find("Writing \"Raw GSM 06.10 'byte aligned'\" files is not available yet"), std::string::npos) << err;
}

}  // namespace
}  // namespace kv
