// Helpers shared by the test suites: scratch folders, the corpus of real
// files and its manifest, and running peer tools.
#pragma once

#include <filesystem>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kv {
class Collection;
class Waveform;
}

namespace kv::test {

// A fresh folder removed at the end of the scope.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

std::filesystem::path CorpusDir();
bool HaveCorpus();

// ---- what a test needs from outside the tree ----

// True under CI (CI=true in the environment).
bool UnderCi();
// Reports that `what` (the corpus, a peer tool, a package) is missing: under
// CI a failure naming it, elsewhere the test is marked skipped. The caller
// then returns, or leaves out the checks that needed it.
void Missing(const std::string& what);
// `present`, reporting `what` through Missing when it isn't:
//   if (!test::Need(test::HaveCorpus(), "the corpus")) return;
bool Need(bool present, const std::string& what);
bool NeedCorpus();
bool NeedTool(const std::string& name);

struct ManifestEntry {
  std::string path;    // relative to the corpus folder
  std::string format;
  std::string facts;   // " | "-separated facts as the peer tools printed them
};
// All rows of MANIFEST.tsv; empty when the corpus is missing.
const std::vector<ManifestEntry>& Manifest();

// The value of `key=` inside the facts group that starts with `tool:`, e.g.
// Fact(facts, "soxi", "rate") -> "48000". Empty when absent.
std::string Fact(const std::string& facts, const std::string& tool, const std::string& key);

// Runs a shell command, returning its exit status and capturing stdout.
int RunCommand(const std::string& command, std::string* output = nullptr);
bool HaveTool(const std::string& name);

void WriteFile(const std::filesystem::path& path, const std::string& bytes);
std::string ReadFile(const std::filesystem::path& path);

// A Python with the soundfile (libsndfile) and numpy modules; empty if none.
std::string SoundfilePython();
// A Python with mido; empty after reporting it missing.
std::string MidoPython();
// The file's samples as libsndfile decodes them, float32, the first two
// channels interleaved. False when libsndfile can't be asked (reported
// through Missing) or refuses the file (a test failure: the peers exist to
// catch files they can't open).
bool SoundfileSamples(const std::filesystem::path& path, std::vector<float>& out);
// Every sample of `wave`, read from `path`, equals libsndfile's decoding of
// the same file.
void ExpectSamplesAsLibsndfile(const std::filesystem::path& path, Waveform& wave);

// ---- random payloads and peer decoders (coded sample data) ----

// `size` random bytes from `seed`: the same seed gives the same bytes on every
// machine, so a payload that finds a difference can be named by its seed.
std::string RandomPayload(std::size_t size, uint32_t seed);
// The 16-bit samples a peer decodes a file into, interleaved. `inputOptions`
// stand before the input (raw formats: "-f g726 -code_size 3 -ar 8000" for
// FFmpeg, "-t vox -r 8000" for sox). False when the tool is missing
// (reported through Missing) or refuses the file (a test failure).
bool FfmpegSamples16(const std::filesystem::path& path, const std::string& inputOptions, std::vector<int16_t>& out);
bool SoxSamples16(const std::filesystem::path& path, const std::string& inputOptions, std::vector<int16_t>& out);
// libsndfile's decoding (SoundfileSamples) as 16-bit values.
bool SoundfileSamples16(const std::filesystem::path& path, std::vector<int16_t>& out);
// Runs a peer tool's command line; false (a test failure naming the command
// and what it said) when it exits with an error, or after Missing(tool) when
// `tool` isn't installed.
bool RunPeer(const std::string& tool, const std::string& arguments);

// Everything a fix-up decides, as text without item ids: each instrument's
// tree in child order (names, trigger, articulation values and marks, the
// region's own fields) and every waveform. Two collections built alike give
// the same text whatever serials they drew.
std::string TreeText(const Collection& c);

}  // namespace kv::test
