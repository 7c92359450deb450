#include "testsupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <unistd.h>

#include "core/error.h"
#include "core/items.h"
#include "core/wavestore.h"

namespace kv::test {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::random_device rd;
  fs::path base = fs::temp_directory_path();
  for (;;) {
    path_ = base / ("kelvo-test-" + std::to_string(::getpid()) + "-" + std::to_string(rd()));
    std::error_code ec;
    if (fs::create_directory(path_, ec)) break;
  }
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

fs::path CorpusDir() {
  if (const char* env = std::getenv("KELVO_CORPUS")) return env;
  return KELVO_CORPUS_DIR;
}

bool HaveCorpus() { return fs::exists(CorpusDir() / "MANIFEST.tsv"); }

bool UnderCi() {
  const char* ci = std::getenv("CI");
  return ci && (std::strcmp(ci, "true") == 0 || std::strcmp(ci, "1") == 0);
}

void Missing(const std::string& what) {
  if (UnderCi()) {
    ADD_FAILURE() << what << " is missing, and a CI run needs it";
    return;
  }
  [&] { GTEST_SKIP() << what << " is missing"; }();
}

bool Need(bool present, const std::string& what) {
  if (!present) Missing(what);
  return present;
}

bool NeedCorpus() { return Need(HaveCorpus(), "the corpus at " + CorpusDir().string()); }

bool NeedTool(const std::string& name) { return Need(HaveTool(name), "the peer tool " + name); }

const std::vector<ManifestEntry>& Manifest() {
  static const std::vector<ManifestEntry> rows = [] {
    std::vector<ManifestEntry> out;
    std::ifstream in(CorpusDir() / "MANIFEST.tsv");
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
      std::vector<std::string> cols;
      std::stringstream ss(line);
      std::string col;
      while (std::getline(ss, col, '\t')) cols.push_back(col);
      if (cols.size() < 5) continue;
      out.push_back({cols[0], cols[1], cols[4]});
    }
    return out;
  }();
  return rows;
}

std::string Fact(const std::string& facts, const std::string& tool, const std::string& key) {
  std::size_t start = 0;
  while (start < facts.size()) {
    std::size_t end = facts.find(" | ", start);
    if (end == std::string::npos) end = facts.size();
    std::string group = facts.substr(start, end - start);
    if (group.rfind(tool + ":", 0) == 0) {
      std::string needle = " " + key + "=";
      std::size_t at = group.find(needle);
      if (at != std::string::npos) {
        std::size_t v = at + needle.size();
        std::size_t e = group.find_first_of(" ;,", v);
        return group.substr(v, e == std::string::npos ? std::string::npos : e - v);
      }
    }
    start = end + 3;
  }
  return {};
}

int RunCommand(const std::string& command, std::string* output) {
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return -1;
  std::array<char, 4096> buffer;
  std::string text;
  std::size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) text.append(buffer.data(), n);
  int status = ::pclose(pipe);
  if (output) *output = text;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool HaveTool(const std::string& name) { return RunCommand("command -v " + name + " >/dev/null 2>&1") == 0; }

void WriteFile(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The first Python that imports `modules`: the system's before whatever a
// developer's PATH puts first.
std::string PythonWith(const std::string& modules) {
  for (const char* py : {"/usr/bin/python3", "python3"})
    if (RunCommand(std::string(py) + " -c 'import " + modules + "' 2>/dev/null") == 0) return py;
  return {};
}

std::string SoundfilePython() { return PythonWith("soundfile, numpy"); }

std::string MidoPython() {
  std::string py = PythonWith("mido");
  if (py.empty()) Missing("python3-mido");
  return py;
}

bool SoundfileSamples(const std::filesystem::path& path, std::vector<float>& out) {
  const std::string py = SoundfilePython();
  if (!Need(!py.empty(), "python3 with soundfile (libsndfile) and numpy")) return false;
  // Beside the test's own files, never beside the input: the corpus is read-only.
  const TempDir scratch;
  const std::filesystem::path raw = scratch.path() / "samples.raw";
  const std::string cmd = py + " -c \"import soundfile as sf, sys; d, r = sf.read(sys.argv[1], dtype='float32', "
                               "always_2d=True); d[:, :2].astype('<f4').tofile(sys.argv[2])\" '" +
                          path.string() + "' '" + raw.string() + "' 2>&1";
  std::string said;
  if (RunCommand(cmd, &said) != 0) {
    ADD_FAILURE() << "libsndfile can't read " << path << ": " << said;
    return false;
  }
  const std::string bytes = ReadFile(raw);
  out.resize(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return true;
}

void ExpectSamplesAsLibsndfile(const std::filesystem::path& path, Waveform& wave) {
  std::vector<float> theirs;
  if (!SoundfileSamples(path, theirs)) return;
  const float* ours = SamplesFloat(wave);
  ASSERT_NE(ours, nullptr) << ErrorMessage;
  ASSERT_EQ(wave.SampleCount(), theirs.size());
  for (std::size_t i = 0; i < theirs.size(); ++i)
    if (ours[i] != theirs[i]) FAIL() << "sample " << i << ": " << ours[i] << " vs " << theirs[i];
}

std::string RandomPayload(std::size_t size, uint32_t seed) {
  // A fixed generator (not std::uniform_int_distribution, whose output the
  // standard leaves to the library) so that a seed means the same bytes.
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(gen() >> 24);
  return bytes;
}

namespace {

std::string Quoted(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

// Reads a file of 16-bit little-endian samples.
std::vector<int16_t> ReadS16(const std::filesystem::path& path) {
  const std::string bytes = ReadFile(path);
  std::vector<int16_t> v(bytes.size() / 2);
  std::memcpy(v.data(), bytes.data(), v.size() * 2);
  return v;
}

}  // namespace

bool RunPeer(const std::string& tool, const std::string& arguments) {
  if (!NeedTool(tool)) return false;
  std::string said;
  if (RunCommand(tool + " " + arguments + " 2>&1", &said) != 0) {
    ADD_FAILURE() << tool << " " << arguments << " failed: " << said;
    return false;
  }
  return true;
}

bool FfmpegSamples16(const std::filesystem::path& path, const std::string& inputOptions, std::vector<int16_t>& out) {
  const TempDir scratch;
  const std::filesystem::path raw = scratch / "samples.raw";
  if (!RunPeer("ffmpeg", "-nostdin -v error -y " + inputOptions + " -i " + Quoted(path) + " -f s16le " + Quoted(raw)))
    return false;
  out = ReadS16(raw);
  return true;
}

bool SoxSamples16(const std::filesystem::path& path, const std::string& inputOptions, std::vector<int16_t>& out) {
  const TempDir scratch;
  const std::filesystem::path raw = scratch / "samples.raw";
  // -D: no dither, so that the samples are the decoder's own.
  if (!RunPeer("sox", "-D " + inputOptions + " " + Quoted(path) + " -t s16 " + Quoted(raw))) return false;
  out = ReadS16(raw);
  return true;
}

bool SoundfileSamples16(const std::filesystem::path& path, std::vector<int16_t>& out) {
  std::vector<float> f;
  if (!SoundfileSamples(path, f)) return false;
  out.resize(f.size());
  for (std::size_t i = 0; i < f.size(); ++i) out[i] = static_cast<int16_t>(std::lround(f[i] * 32768.0f));
  return true;
}

namespace {

void ArticulationText(std::ostringstream& out, const Articulation& a) {
  out << " set=" << a.set[0] << ',' << a.set[1] << ',' << a.set[2] << " values=";
  for (float v : a.value) {
    uint32_t bits;
    std::memcpy(&bits, &v, 4);
    out << bits << ',';
  }
}

void TriggerText(std::ostringstream& out, const TriggerRecord& t) {
  out << " trigger=" << t.setMask;
  for (int p = TriggerRecord::kFirst; p <= TriggerRecord::kLast; ++p) out << ',' << t.Get(p);
}

}  // namespace

std::string TreeText(const Collection& c) {
  std::ostringstream out;
  for (Instrument* inst : c.All<Instrument>()) {
    out << "instrument " << inst->Name() << " at " << inst->location;
    ArticulationText(out, inst->art);
    out << '\n';
    for (ItemId layerId : inst->children) {
      auto* layer = c.FindAs<Layer>(layerId);
      if (!layer) continue;
      out << " layer " << layer->Name() << " drum=" << int{layer->drum};
      TriggerText(out, layer->trigger);
      ArticulationText(out, layer->art);
      out << '\n';
      for (ItemId regionId : layer->children) {
        auto* r = c.FindAs<Region>(regionId);
        if (!r) continue;
        const Waveform* w = RegionWaveform(*r);
        out << "  region " << r->Name() << " wave=" << (w ? w->Name() : "-") << " root=" << int{r->rootKey}
            << " overrides=" << int{r->overrideMask} << " loop=" << int{r->loopType} << ',' << r->loopStart << ','
            << r->loopEnd << " offsets=" << r->startOffset << ',' << r->endOffset << " phase=" << r->phaseGroup << ','
            << int{r->phaseMaster};
        TriggerText(out, r->trigger);
        ArticulationText(out, r->art);
        out << '\n';
      }
    }
  }
  for (Waveform* w : c.All<Waveform>())
    out << "waveform " << w->Name() << " length=" << w->length << " loop=" << int{w->loopType} << ','
        << w->loopStart << ',' << w->loopEnd << " format=" << int{w->preferredFormat} << '\n';
  for (int t = 0; t < kItemTypeCount; ++t) out << c.Count(static_cast<ItemType>(t)) << ' ';
  return out.str();
}

}  // namespace kv::test
