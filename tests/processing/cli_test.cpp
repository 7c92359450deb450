// `kelvo --op` as a user runs it, and its results next to sox's on real
// files: the samples of each saved file are decoded by sox and compared.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "processing/wizard.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

struct Result {
  int code;
  std::string out;
  std::string err;
};

class Cli : public ::testing::Test {
 protected:
  TempDir dir;
  Result Kelvo(const std::string& args) {
    const std::string outPath = (dir / "stdout.txt").string(), errPath = (dir / "stderr.txt").string();
    const std::string cmd = "cd '" + dir.path().string() + "' && KELVO_SETTINGS='" + (dir / "settings.ini").string() +
                            "' '" + KELVO_EXE + "' -NOMSG " + args + " >'" + outPath + "' 2>'" + errPath + "'";
    const int code = test::RunCommand(cmd);
    return {code, test::ReadFile(outPath), test::ReadFile(errPath)};
  }
  // A corpus file copied into the scratch folder as `name`; false (skipped) without the corpus.
  bool Corpus(const std::string& file, const std::string& name) {
    if (!test::NeedCorpus()) return false;
    fs::copy_file(test::CorpusDir() / file, dir / name, fs::copy_options::overwrite_existing);
    return true;
  }
  // The 16-bit samples of a file as sox decodes them.
  std::vector<int16_t> SoxSamples(const std::string& name) {
    const fs::path raw = dir / (name + ".raw");
    std::string said;
    EXPECT_EQ(test::RunCommand("sox '" + (dir / name).string() + "' -t s16 '" + raw.string() + "' 2>&1", &said), 0)
        << name << ": " << said;
    const std::string bytes = test::ReadFile(raw);
    std::vector<int16_t> out(bytes.size() / 2);
    std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return out;
  }
  bool Sox(const std::string& args) {
    std::string said;
    const int code = test::RunCommand("cd '" + dir.path().string() + "' && sox " + args + " 2>&1", &said);
    EXPECT_EQ(code, 0) << args << ": " << said;
    return code == 0;
  }
};

// A mono 16-bit WAV at 8 kHz.
void WriteWave16(const fs::path& path, const std::vector<int16_t>& samples) {
  auto u32 = [](uint32_t v) { return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; };
  const uint32_t bytes = static_cast<uint32_t>(samples.size() * 2);
  std::string data(bytes, '\0');
  std::memcpy(data.data(), samples.data(), bytes);
  test::WriteFile(path, "RIFF" + u32(36 + bytes) + "WAVEfmt " + u32(16) + std::string("\x01\x00\x01\x00", 4) +
                            u32(8000) + u32(16000) + std::string("\x02\x00\x10\x00", 4) + "data" + u32(bytes) + data);
}

// Largest difference between two sample lists of the same size.
int MaxDifference(const std::vector<int16_t>& a, const std::vector<int16_t>& b) {
  EXPECT_EQ(a.size(), b.size());
  int most = 0;
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) most = std::max(most, std::abs(a[i] - b[i]));
  return most;
}

const char* const kPeerFiles[] = {"wav/gen-s16-stereo.wav", "wav/hydrogen-trimo-c3-smpl.wav"};

TEST_F(Cli, OpsListsEveryRowInOrder) {
  Result r = Kelvo("--ops");
  ASSERT_EQ(r.code, 0) << r.err;
  std::vector<std::string> keys;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty() && line[0] != ' ') keys.push_back(line.substr(0, line.find(' ')));
  // The audio rows, then the song rows.
  std::vector<const WizardOperation*> rows;
  for (int kind : {0, 6}) {
    uint32_t size = 0;
    const WizardOperation* table = OperationTable(kind, &size);
    for (uint32_t i = 0; i < size; ++i) rows.push_back(&table[i]);
  }
  ASSERT_EQ(keys.size(), rows.size()) << r.out;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(keys[i], rows[i]->key);
    EXPECT_NE(r.out.find(std::string("\"") + rows[i]->name + "\""), std::string::npos) << rows[i]->name;
  }
  const std::size_t vst = r.out.find("\nvst ");
  ASSERT_NE(vst, std::string::npos);
  const std::string line = r.out.substr(vst + 1, r.out.find('\n', vst + 1) - vst - 1);
  EXPECT_NE(line.find("\"VST plug-in effects\""), std::string::npos) << line;
  EXPECT_NE(line.find("page 327  always"), std::string::npos) << line;
  EXPECT_TRUE(line.ends_with("not in this build")) << line;
  Result fade = Kelvo("--ops FADE");
  EXPECT_NE(fade.out.find("fade "), std::string::npos);
  EXPECT_NE(fade.out.find("    mode       choice   default 1"), std::string::npos) << fade.out;
  EXPECT_NE(fade.out.find("\"Using an logaritmically decreasing fade out\""), std::string::npos);
  EXPECT_EQ(fade.out.find("adjust-volume"), std::string::npos);
}

TEST_F(Cli, StatusLinesKeysAndFilesAnywhere) {
  if (!Corpus("wav/gen-s16-stereo.wav", "in.wav")) return;
  // A wave whose peak is already full scale: nothing to change.
  WriteWave16(dir / "full.wav", {-32768, 0, 1000, -5});
  Result none = Kelvo("full.wav --op maximize");
  EXPECT_EQ(none.code, 0) << none.err;
  EXPECT_NE(none.out.find("No items were modified by Maximize amplitude"), std::string::npos) << none.out;

  // The name and keys first, the file after them; a key not given keeps the
  // setting, so the second --op lowers by 6 dB again.
  Result twice = Kelvo("--op adjust-volume db=-6 in.wav --op Adjust\\ volume --save twice.wav");
  ASSERT_EQ(twice.code, 0) << twice.err;
  EXPECT_NE(twice.out.find("Processed 1 item with Adjust volume\nProcessed 1 item with Adjust volume"),
            std::string::npos)
      << twice.out;
  if (test::NeedTool("sox") && Sox("-D in.wav sox12.wav vol -12dB")) {
    EXPECT_LE(MaxDifference(SoxSamples("twice.wav"), SoxSamples("sox12.wav")), 1);
  }

  // A range on a range row; the Statistics block on stdout.
  Result stats = Kelvo("in.wav --op FADE mode=0 range=0:100 --op statistics");
  ASSERT_EQ(stats.code, 0) << stats.err;
  EXPECT_NE(stats.out.find("Processed 1 item with Fade in/out selection"), std::string::npos);
  EXPECT_NE(stats.out.find("Wavesamples:\t48000 / 0.50 s\nMean:\t"), std::string::npos) << stats.out;
  EXPECT_NE(stats.out.find("No items were modified by Statistics"), std::string::npos);

  // --select by name; other waves are left alone.
  ASSERT_TRUE(Sox("-n -r 44100 -c 1 -b 16 other.wav synth 0.01 sine 440"));
  Result sel = Kelvo("in.wav other.wav --select other --op swap");
  EXPECT_EQ(sel.code, 2);
  EXPECT_NE(sel.err.find("\"Swap left and right channels\" is not available for this selection"), std::string::npos)
      << sel.err;
  Result names = Kelvo("in.wav other.wav --op search-replace search=o replace=0 --list");
  EXPECT_EQ(names.code, 0) << names.err;
  EXPECT_NE(names.out.find("Processed 1 item with Search and replace text in names"), std::string::npos);
  EXPECT_NE(names.out.find("\"0ther\""), std::string::npos) << names.out;
}

struct Case {
  const char* args;
  const char* said;
};

TEST_F(Cli, BadUsageExitsTwoNamingTheKey) {
  if (!Corpus("wav/gen-s16-stereo.wav", "in.wav")) return;
  const Case cases[] = {
      {"in.wav --op no-such-op", "unknown operation \"no-such-op\""},
      {"in.wav --op adjust-volume gain=3", "unknown key \"gain\""},
      {"in.wav --op adjust-volume db=abc", "db must be a value in -96..96, not \"abc\""},
      {"in.wav --op adjust-volume db=200", "db must be a value in -96..96"},
      {"in.wav --op fade mode=4", "mode must be a value in 0..3"},
      {"in.wav --op resample rate=0", "rate must be a value in 1..768000, not \"0\""},
      {"in.wav --op resample rate=768001", "rate must be a value in 1..768000"},
      {"in.wav --op remove-dc range=0:10", "\"Remove DC offset\" takes no range="},
      {"in.wav --op reverse range=10:5", "range must be START:END"},
      {"--op adjust-volume", "no waveforms to process"},
      {"in.wav --op", "--op needs the name of an operation"},
  };
  for (const Case& c : cases) {
    Result r = Kelvo(std::string(c.args) + " --save out.wav");
    EXPECT_EQ(r.code, 2) << c.args;
    EXPECT_NE(r.err.find(c.said), std::string::npos) << c.args << ": " << r.err;
    EXPECT_FALSE(fs::exists(dir / "out.wav")) << c.args;  // nothing saved after bad usage
  }
  // A row of later work fails at run time: reported, exit 1, the file unchanged.
  Result later = Kelvo("in.wav --op vst --save out.wav");
  EXPECT_EQ(later.code, 1);
  EXPECT_NE(later.err.find("Processing: \"VST plug-in effects\" is not available in this build"), std::string::npos)
      << later.err;
  EXPECT_NE(later.out.find("No items were modified by VST plug-in effects"), std::string::npos);
}

// The loop rows end to end: keys, refusals, and loops that libsndfile reads
// back from the saved file as we set them.
TEST_F(Cli, LoopRowsAndTheirKeys) {
  if (!test::NeedTool("sox") || !Sox("-n -r 44100 -c 1 -b 16 tone.wav synth 1 sine 440")) return;
  const Case refused[] = {
      {"tone.wav --op trim-after-loop cut-after=off cut-before=off", "cut-after or cut-before must be on"},
      {"tone.wav --op auto-loop start=50", "start must be LOW:HIGH in percent"},
      {"tone.wav --op crossfade length=ten", "length must be a whole number of frames or \"whole\""},
      {"tone.wav --op loops choice=some", "choice must be a value in 0..2"},
  };
  for (const Case& c : refused) {
    Result r = Kelvo(std::string(c.args) + " --save out.wav");
    EXPECT_EQ(r.code, 2) << c.args;
    EXPECT_NE(r.err.find(c.said), std::string::npos) << c.args << ": " << r.err;
  }
  Result run = Kelvo(
      "tone.wav --op auto-loop crossfade=on start=40:99 --op loop-sanitizer after32=on --op zero-crossing --list "
      "--save looped.wav");
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.out.find("Done: Loop found and set!\nNo items were modified by Auto loop finder"), std::string::npos)
      << run.out;
  EXPECT_EQ(run.out.find("Finding loop"), std::string::npos);  // progress stays off the terminal
  std::smatch m;
  const std::regex ours("loop=1:([0-9.]+)-([0-9.]+)");
  ASSERT_TRUE(std::regex_search(run.out, m, ours)) << run.out;
  const std::string start = m[1], end = m[2];
  std::string info;
  if (!test::NeedTool("sndfile-info")) return;
  ASSERT_EQ(test::RunCommand("sndfile-info --instrument '" + (dir / "looped.wav").string() + "'", &info), 0);
  std::smatch l;
  ASSERT_TRUE(std::regex_search(info, l, std::regex("Mode : fwd +Start : +([0-9]+) +End : +([0-9]+)"))) << info;
  // Fractional points (the zero-crossing move) are whole frames in a WAV.
  EXPECT_EQ(std::stol(l[1].str()), std::lround(std::stod(start)));
  EXPECT_EQ(std::stol(l[2].str()), std::lround(std::stod(end)));

  // Ctrl+C during the search cancels it; the program finishes normally.
  ASSERT_TRUE(Sox("-n -r 44100 -c 1 -b 16 long.wav synth 8 sine 440"));
  std::string said;
  const int code = test::RunCommand("cd '" + dir.path().string() + "' && { '" + KELVO_EXE +
                                        "' -NOMSG long.wav --op auto-loop & pid=$!; sleep 1; kill -INT $pid; wait "
                                        "$pid; }",
                                    &said);
  EXPECT_EQ(code, 0);
  EXPECT_NE(said.find("Failed: Loop find cancelled\nNo items were modified by Auto loop finder"), std::string::npos)
      << said;
}

// sox's verdict on one operation, for both files.
class Peers : public Cli {};

TEST_F(Peers, VolumeReverseSwapAndMaximizeAsSox) {
  if (!test::NeedTool("sox")) return;
  for (const char* file : kPeerFiles) {
    SCOPED_TRACE(file);
    if (!Corpus(file, "in.wav")) return;
    ASSERT_EQ(Kelvo("in.wav --op adjust-volume db=-6 --save vol.wav").code, 0);
    ASSERT_TRUE(Sox("-D in.wav sox-vol.wav vol -6dB"));
    EXPECT_LE(MaxDifference(SoxSamples("vol.wav"), SoxSamples("sox-vol.wav")), 1);

    ASSERT_EQ(Kelvo("in.wav --op reverse --save rev.wav").code, 0);
    ASSERT_TRUE(Sox("in.wav sox-rev.wav reverse"));
    EXPECT_EQ(SoxSamples("rev.wav"), SoxSamples("sox-rev.wav"));

    ASSERT_EQ(Kelvo("in.wav --op swap --save swap.wav").code, 0);
    ASSERT_TRUE(Sox("in.wav sox-swap.wav remix 2 1"));
    EXPECT_EQ(SoxSamples("swap.wav"), SoxSamples("sox-swap.wav"));

    ASSERT_EQ(Kelvo("in.wav --op maximize --save max.wav").code, 0);
    ASSERT_TRUE(Sox("-D --norm in.wav sox-max.wav"));
    EXPECT_LE(MaxDifference(SoxSamples("max.wav"), SoxSamples("sox-max.wav")), 1);
  }
}

// "Label:\tv1\tv2" lines of our Statistics block.
std::map<std::string, std::vector<std::string>> StatisticsBlock(const std::string& out) {
  std::map<std::string, std::vector<std::string>> block;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t colon = line.find(":\t");
    if (colon == std::string::npos) continue;
    std::vector<std::string>& values = block[line.substr(0, colon)];
    std::istringstream fields(line.substr(colon + 2));
    for (std::string v; std::getline(fields, v, '\t');) values.push_back(v);
  }
  return block;
}

// `sox FILE -n stats`: per row name, the per-channel columns (Overall dropped).
std::map<std::string, std::vector<double>> SoxStats(const std::string& text) {
  std::map<std::string, std::vector<double>> rows;
  // "Min level  -0.121399 -0.119385 -0.121399": the name ends at two blanks.
  static const std::regex kRow(R"(^(\S.*?)\s{2,}(\S+)\s+(\S+)\s+(\S+)\s*$)");
  std::istringstream lines(text);
  std::smatch m;
  for (std::string line; std::getline(lines, line);)
    if (std::regex_match(line, m, kRow)) rows[m[1].str()] = {std::atof(m[3].str().c_str()), std::atof(m[4].str().c_str())};
  return rows;
}

TEST_F(Peers, StatisticsAsSoxAndNumpy) {
  if (!test::NeedTool("sox")) return;
  const std::string py = test::SoundfilePython();
  for (const char* file : kPeerFiles) {
    SCOPED_TRACE(file);
    if (!Corpus(file, "in.wav")) return;
    Result r = Kelvo("in.wav --op statistics");
    ASSERT_EQ(r.code, 0) << r.err;
    auto ours = StatisticsBlock(r.out);
    std::string soxText;
    ASSERT_EQ(test::RunCommand("sox '" + (dir / "in.wav").string() + "' -n stats 2>&1", &soxText), 0);
    auto sox = SoxStats(soxText);
    ASSERT_EQ(ours["Mean"].size(), 2u) << r.out;
    for (int ch = 0; ch < 2; ++ch) {
      SCOPED_TRACE(ch);
      EXPECT_NEAR(std::atof(ours["Mean"][ch].c_str()), sox["DC offset"][ch], 0.0006);
      int lo = 0, hi = 0;
      ASSERT_EQ(std::sscanf(ours["Min..max"][ch].c_str(), "%*f..%*f / %d..%d", &lo, &hi), 2);
      EXPECT_NEAR(lo, sox["Min level"][ch] * 32768, 0.6);
      EXPECT_NEAR(hi, sox["Max level"][ch] * 32768, 0.6);
      double rms = 0, rmsDb = 0;
      ASSERT_EQ(std::sscanf(ours["RMS"][ch].c_str(), "%lf / %lf dB", &rms, &rmsDb), 2);
      EXPECT_NEAR(rmsDb, sox["RMS lev dB"][ch] * 0.99657843, 0.011);
      double pk = 0, pkDb = 0;
      ASSERT_EQ(std::sscanf(ours["Max level"][ch].c_str(), "%lf / %lf dB", &pk, &pkDb), 2);
      EXPECT_NEAR(pkDb, sox["Pk lev dB"][ch] * 0.99657843, 0.011);
    }
    if (!test::Need(!py.empty(), "python3 with numpy")) continue;
    // Max delta and zero crossings per channel, by numpy on sox's decoding.
    SoxSamples("in.wav");
    std::string numpy;
    const std::string script =
        "import numpy as np; x = np.fromfile('" + (dir / "in.wav.raw").string() +
        "', dtype='<i2').astype(np.int64).reshape(-1, 2)\n"
        "for c in range(2):\n"
        "  d = np.abs(np.diff(x[:, c])); print(int(d.max()), int(np.sum(x[:-1, c] * x[1:, c] < 0)))\n";
    test::WriteFile(dir / "stats.py", script);
    ASSERT_EQ(test::RunCommand(py + " '" + (dir / "stats.py").string() + "'", &numpy), 0);
    std::istringstream expected(numpy);
    for (int ch = 0; ch < 2; ++ch) {
      int delta = 0, crossings = 0;
      expected >> delta >> crossings;
      int ourDelta = -1;
      ASSERT_EQ(std::sscanf(ours["Max delta"][ch].c_str(), "%*f / %d", &ourDelta), 1);
      EXPECT_EQ(ourDelta, delta);
      EXPECT_EQ(std::atoi(ours["Zero crossings"][ch].c_str()), crossings);
    }
  }
}

}  // namespace
}  // namespace kv
