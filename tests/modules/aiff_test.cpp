#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/aiff.h"
#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

std::string Be16(uint32_t v) { return {static_cast<char>(v >> 8), static_cast<char>(v)}; }
std::string Be32(uint32_t v) { return Be16(v >> 16) + Be16(v & 0xFFFF); }
std::string Chunk(const std::string& id, const std::string& body) {
  std::string s = id + Be32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
std::string Form(const std::string& type, const std::string& body) {
  return "FORM" + Be32(static_cast<uint32_t>(4 + body.size())) + type + body;
}
// 44100 Hz: exponent 16398, mantissa 0xAC440000.
const std::string kRate44100 = Be16(16398) + Be32(0xAC440000) + Be32(0);
std::string Comm(uint32_t channels, uint32_t frames, uint32_t bits, const std::string& type = "") {
  std::string body = Be16(channels) + Be32(frames) + Be16(bits) + kRate44100;
  if (!type.empty()) body += type + "\x0c" + "not standard" + std::string(1, '\0');
  return Chunk("COMM", body);
}
std::string Ssnd(uint32_t offset, const std::string& samples) {
  return Chunk("SSND", Be32(offset) + Be32(0) + std::string(offset, '\x55') + samples);
}

struct Loaded {
  std::unique_ptr<Collection> collection = std::make_unique<Collection>();
  Waveform* wave = nullptr;
  bool ok = false;
};
Loaded Load(const fs::path& path) {
  Loaded l;
  FileRef file;
  if (!file.OpenRead(path)) return l;
  ClearError();
  l.ok = aiff_Imp(*l.collection, file, 0);
  const auto waves = l.collection->All<Waveform>();
  if (l.ok && waves.size() == 1) l.wave = waves[0];
  return l;
}
Loaded LoadBytes(const test::TempDir& dir, const std::string& bytes) {
  test::WriteFile(dir / "t.aif", bytes);
  return Load(dir / "t.aif");
}

std::vector<float> OurSamples(Waveform& w) {
  const float* f = SamplesFloat(w);
  return f ? std::vector<float>(f, f + w.SampleCount()) : std::vector<float>();
}

TEST(AiffRate, EightyBitExtendedByIntegers) {
  const uint8_t r44100[10] = {0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(aiff_Rate80(r44100), 44100u);
  const uint8_t zero[10] = {};
  EXPECT_EQ(aiff_Rate80(zero), 0u);
  const uint8_t infinite[10] = {0x7F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(aiff_Rate80(infinite), 0x7FFFFFFFu);
  const uint8_t huge[10] = {0x43, 0x00, 0x80, 0, 0, 0, 0, 0, 0, 0};  // 2^769: no shift past the word
  EXPECT_EQ(aiff_Rate80(huge), 0x7FFFFFFFu);
  for (uint32_t rate : {1u, 8000u, 22050u, 44100u, 48000u, 96000u, 192000u, 0x7FFFFFFFu}) {
    uint8_t b[10];
    aiff_PutRate80(rate, b);
    EXPECT_EQ(aiff_Rate80(b), rate);
  }
}

TEST(AiffCorpus, EveryAiffLoadsAsThePeersSay) {
  if (!test::NeedCorpus()) return;
  int checked = 0;
  for (const test::ManifestEntry& e : test::Manifest()) {
    const std::string ext = fs::path(e.path).extension().string();
    const bool aiffFolder = e.path.rfind("aiff/", 0) == 0 && ext != ".8svx";
    if (!aiffFolder && e.path.find("misnamed-aiff") == std::string::npos) continue;
    SCOPED_TRACE(e.path + " (" + e.format + ")");
    const fs::path path = test::CorpusDir() / e.path;
    Loaded l = Load(path);
    ASSERT_TRUE(l.ok) << ErrorMessage;
    ASSERT_NE(l.wave, nullptr);
    Waveform& w = *l.wave;
    EXPECT_EQ(std::to_string(w.sampleRate), test::Fact(e.facts, "sndfile-info", "rate"));
    EXPECT_EQ(std::to_string(w.channels), test::Fact(e.facts, "sndfile-info", "ch"));
    if (e.format.find("ima4") != std::string::npos) {
      EXPECT_FALSE(w.EnsureData());
      EXPECT_STREQ(ErrorMessage, "IMA ADPCM decoding is not available yet");
      ++checked;
      continue;
    }
    EXPECT_EQ(std::to_string(w.length), test::Fact(e.facts, "sndfile-info", "frames"));
    const std::size_t inst = e.facts.find("--instrument: base_note=");
    if (inst != std::string::npos) {
      EXPECT_EQ(w.rootKey, std::stoi(e.facts.substr(inst + 24)));
      const std::size_t fwd = e.facts.find("loops=fwd ", inst);
      if (fwd == std::string::npos) {
        EXPECT_EQ(w.loopType, 0);
      } else {
        unsigned start = 0, end = 0;
        ASSERT_EQ(std::sscanf(e.facts.c_str() + fwd + 10, "%u-%u", &start, &end), 2);
        EXPECT_EQ(w.loopType, 1);  // the sustain loop comes first
        EXPECT_EQ(w.loopStart, static_cast<float>(start));
        EXPECT_EQ(w.loopEnd, static_cast<float>(end));
      }
    }
    test::ExpectSamplesAsLibsndfile(path, w);
    ++checked;
  }
  EXPECT_GE(checked, 14);
}

TEST(AiffCorpus, TextsAndTheTwoLoops) {
  if (!test::NeedCorpus()) return;
  Loaded l = Load(test::CorpusDir() / "aiff/gen-aiff-s16-mark-inst-2loops.aiff");
  ASSERT_NE(l.wave, nullptr);
  EXPECT_EQ(l.wave->fineTune, -5);
  EXPECT_EQ(l.wave->loopRelease, 0);  // the release loop plays (mode 2)
  Loaded texts = Load(test::CorpusDir() / "aiff/pluck-pcm16.aiff");
  ASSERT_NE(texts.wave, nullptr);
  EXPECT_FALSE(std::string(texts.wave->comment).empty());
  EXPECT_FALSE(std::string(texts.wave->artist).empty());
}

TEST(AiffRead, SsndOffsetSowtAndInstWithoutMark) {
  test::TempDir dir;
  // Offset 4: the data starts four bytes later.
  Loaded offset = LoadBytes(dir, Form("AIFF", Comm(1, 2, 16) + Ssnd(4, Be16(0x1234) + Be16(0xFEDC))));
  ASSERT_NE(offset.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(offset.wave->sampleRate, 44100u);
  const int16_t* s = Samples16(*offset.wave);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s[0], 0x1234);
  EXPECT_EQ(s[1], static_cast<int16_t>(0xFEDC));

  // AIFC sowt: little-endian samples.
  Loaded sowt = LoadBytes(dir, Form("AIFC", Comm(1, 2, 16, "sowt") + Ssnd(0, "\x34\x12\xDC\xFE")));
  ASSERT_NE(sowt.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(Samples16(*sowt.wave)[0], 0x1234);

  // INST naming markers that don't exist: no loop; SSND before COMM is fine.
  const std::string inst = Chunk("INST", std::string("\x3C\x00\x00\x7F\x01\x7F", 6) + Be16(0) + Be16(1) + Be16(1) +
                                             Be16(2) + Be16(1) + Be16(3) + Be16(4));
  Loaded noMark = LoadBytes(dir, Form("AIFF", Ssnd(0, std::string(8, '\0')) + inst + Comm(2, 2, 16)));
  ASSERT_NE(noMark.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(noMark.wave->loopType, 0);
  EXPECT_EQ(noMark.wave->length, 2u);
}

TEST(AiffRead, FailuresAndCodingsWithoutDecoder) {
  test::TempDir dir;
  struct Case {
    std::string bytes;
    const char* message;
  } cases[] = {
      {"RIFF" + Be32(4) + "WAVE", "No FORM starting IFF file"},
      {Form("8SVX", ""), "Not an AIFF, AIFC, MAUD type IFF-FORM"},
      {Form("AIFF", Comm(3, 1, 16) + Ssnd(0, std::string(6, '\0'))), "Can't handle > 2 channel files"},
      {Form("AIFF", Comm(1, 1, 16)), "No SSND data"},
      {Form("AIFC", Comm(1, 1, 16, "XYZW") + Ssnd(0, "ab")), "Unsupported compression type: not standard"},
  };
  for (const Case& c : cases) {
    Loaded l = LoadBytes(dir, c.bytes);
    EXPECT_FALSE(l.ok);
    EXPECT_STREQ(ErrorContext, "aiff_Imp");
    EXPECT_STREQ(ErrorMessage, c.message);
    EXPECT_EQ(l.collection->All<Waveform>().size(), 0u);
  }
  // A FORM claiming 4 GB and a COMM claiming 2^32 frames in a tiny file.
  Loaded lying = LoadBytes(dir, "FORM" + Be32(0xFFFFFFF0) + "AIFF" + Comm(2, 0xFFFFFFFF, 16) + Ssnd(0, "abcd"));
  ASSERT_NE(lying.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(lying.wave->length, 1u);

  Loaded mace = LoadBytes(dir, Form("AIFC", Comm(1, 10, 8, "MAC3") + Ssnd(0, std::string(20, '\0'))));
  ASSERT_NE(mace.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(mace.wave->length, 60u);
  EXPECT_FALSE(mace.wave->EnsureData());
  EXPECT_STREQ(ErrorMessage, "MACE 3:1 decoding is not available yet");
}

TEST(AiffWrite, EveryWidthOpensInThePeersWithTheSameSamples) {
  Collection c;
  auto* w = Create<Waveform>(c, "tone");
  w->length = 1001;
  w->channels = 2;
  w->sampleRate = 44100;
  float* f = AllocSamplesFloat(*w);
  for (uint32_t i = 0; i < 2002; ++i) f[i] = static_cast<float>(std::lround(std::sin(i * 0.21) * 30000.0)) / 32768.0f;
  test::TempDir dir;
  for (int format : {kPcm8, kPcm16, kPcm24, kPcm32}) {
    SCOPED_TRACE(DataFormatName(format));
    const fs::path path = dir / ("out" + std::to_string(format) + ".aif");
    FileRef file;
    ASSERT_TRUE(file.OpenWrite(path));
    ExportRequest request{SourceFormatBit(format) | kCapMono | kCapStereo, 0, 0};
    ASSERT_TRUE(aiff_Exp(*w, file, request)) << ErrorMessage;
    file.Close();
    Loaded back = Load(path);
    ASSERT_NE(back.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(back.wave->length, 1001u);
    EXPECT_EQ(back.wave->sampleRate, 44100u);
    const std::vector<float> ours = OurSamples(*back.wave);
    if (format != kPcm8) {
      EXPECT_EQ(ours, OurSamples(*w));
    }
    std::vector<float> theirs;
    if (test::SoundfileSamples(path, theirs)) {
      EXPECT_EQ(theirs, ours);
    }
    if (test::NeedTool("soxi")) {
      std::string soxOut;
      ASSERT_EQ(test::RunCommand("soxi -s '" + path.string() + "' 2>&1", &soxOut), 0)
          << "sox can't read it: " << soxOut;
      EXPECT_EQ(std::stoul(soxOut), 1001u);
    }
  }
  FileRef file;
  ASSERT_TRUE(file.OpenWrite(dir / "x.aif"));
  ExportRequest floatRequest{SourceFormatBit(kFloat32), 0, 0};
  EXPECT_FALSE(aiff_Exp(*w, file, floatRequest));
  EXPECT_STREQ(ErrorContext, "aiff_Exp");
}

}  // namespace
}  // namespace kv
