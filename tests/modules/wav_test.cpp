#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

// ---- building files byte by byte ----

std::string Le16(uint32_t v) { return {static_cast<char>(v), static_cast<char>(v >> 8)}; }
std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
std::string Le64(uint64_t v) { return Le32(static_cast<uint32_t>(v)) + Le32(static_cast<uint32_t>(v >> 32)); }

std::string Chunk(const std::string& id, const std::string& body) {
  std::string s = id + Le32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() & 1) s += '\0';  // odd sizes are padded to even
  return s;
}
std::string Riff(const std::string& body) { return "RIFF" + Le32(static_cast<uint32_t>(4 + body.size())) + "WAVE" + body; }
std::string Fmt(uint32_t tag, uint32_t channels, uint32_t rate, uint32_t bits) {
  const uint32_t align = channels * ((bits + 7) / 8);
  return Chunk("fmt ", Le16(tag) + Le16(channels) + Le32(rate) + Le32(rate * align) + Le16(align) + Le16(bits));
}
std::string Pcm16(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s += Le16(static_cast<uint16_t>(v));
  return s;
}
std::string Smpl(uint32_t note, uint32_t fraction, bool loop, uint32_t start, uint32_t end, uint32_t loopFraction = 0) {
  std::string b = Le32(0) + Le32(0) + Le32(22676) + Le32(note) + Le32(fraction) + Le32(0) + Le32(0) +
                  Le32(loop ? 1 : 0) + Le32(0);
  if (loop) b += Le32(0) + Le32(0) + Le32(start) + Le32(end) + Le32(loopFraction) + Le32(0);
  return Chunk("smpl", b);
}

// A fresh collection with the file read into it by `read`.
struct Loaded {
  std::unique_ptr<Collection> collection = std::make_unique<Collection>();
  Waveform* wave = nullptr;
  bool ok = false;
};

Loaded LoadWith(const fs::path& path, FormatReadFn read) {
  Loaded l;
  FileRef file;
  if (!file.OpenRead(path)) return l;
  ClearError();
  l.ok = read(*l.collection, file, 0);
  const auto waves = l.collection->All<Waveform>();
  if (l.ok && waves.size() == 1) l.wave = waves[0];
  return l;
}

Loaded LoadBytes(const test::TempDir& dir, const std::string& bytes, FormatReadFn read = wav_Imp) {
  const fs::path path = dir / "t.wav";
  test::WriteFile(path, bytes);
  return LoadWith(path, read);
}

// Warnings land here instead of stderr.
std::vector<std::string>& Boxes() {
  static std::vector<std::string> boxes;
  return boxes;
}
int RecordBox(const std::string& text, const std::string&, BoxButtons) {
  Boxes().push_back(text);
  return kBoxOk;
}
struct BoxCapture {
  // Other suites switch boxes off for the whole run; a capture needs them on.
  const uint8_t enabled = MessageBoxesEnabled;
  BoxCapture() {
    Boxes().clear();
    MessageBoxesEnabled = 1;
    SetBoxPresenter(RecordBox);
  }
  ~BoxCapture() {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = enabled;
  }
};

// The file's samples as sox decodes them, as 32-bit integers (no dither).
// False when sox is missing (reported) or can't read the file (a failure).
bool SoxSamples(const fs::path& path, std::vector<int32_t>& out) {
  if (!test::NeedTool("sox")) return false;
  const test::TempDir scratch;  // never beside the input: the corpus is read-only
  const fs::path raw = scratch / "samples.raw";
  std::string said;
  if (test::RunCommand("sox -D '" + path.string() + "' -t s32 '" + raw.string() + "' 2>&1", &said) != 0) {
    ADD_FAILURE() << "sox can't read " << path << ": " << said;
    return false;
  }
  const std::string bytes = test::ReadFile(raw);
  out.resize(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  fs::remove(raw);
  return true;
}

std::vector<float> OurSamples(Waveform& w) {
  const float* f = SamplesFloat(w);
  return f ? std::vector<float>(f, f + w.SampleCount()) : std::vector<float>();
}

// ---- the corpus ----

int BitsOfSndfileFormat(const std::string& format) {
  if (format.size() < 10) return -1;
  switch (std::stoi(format.substr(6), nullptr, 16)) {
    case 0x01: case 0x05: case 0x10: case 0x11: return 8;
    case 0x02: return 16;
    case 0x03: return 24;
    case 0x04: case 0x06: return 32;
    case 0x07: return 64;
    default: return -1;
  }
}

bool IsCompressedWave(const std::string& format) {
  return format.find("ADPCM") != std::string::npos || format.find("GSM") != std::string::npos;
}

TEST(WavCorpus, EveryWaveLoadsAsThePeersSay) {
  if (!test::NeedCorpus()) return;
  int checked = 0;
  for (const test::ManifestEntry& e : test::Manifest()) {
    if (e.path.rfind("wav/", 0) != 0) continue;
    const fs::path path = test::CorpusDir() / e.path;
    SCOPED_TRACE(e.path + " (" + e.format + ")");
    FileRef probe;
    ASSERT_TRUE(probe.OpenRead(path));
    int confidence = 0;
    const int row = DetectFormat(path, probe, confidence);
    const FormatEntry* entry = FormatAt(row);
    ASSERT_NE(entry, nullptr);
    if (entry->read != wav_Imp && entry->read != w64_Imp) continue;  // AIFF named .wav: another row
    Loaded l = LoadWith(path, entry->read);
    ASSERT_TRUE(l.ok) << ErrorContext << ": " << ErrorMessage;
    ASSERT_NE(l.wave, nullptr);
    Waveform& w = *l.wave;
    EXPECT_EQ(std::to_string(w.sampleRate), test::Fact(e.facts, "sndfile-info", "rate"));
    EXPECT_EQ(std::to_string(w.channels), test::Fact(e.facts, "sndfile-info", "ch"));

    if (IsCompressedWave(e.format)) {
      const std::string fact = e.facts.substr(e.facts.find("sample_length=") + 14);
      EXPECT_EQ(w.length, std::stoul(fact)) << "the fact chunk holds the true length";
      {
        // libsndfile counts whole blocks, the fact the true length; the
        // samples agree over the frames both give.
        std::vector<float> theirs;
        const float* ours = SamplesFloat(w);
        ASSERT_NE(ours, nullptr) << ErrorMessage;
        if (test::SoundfileSamples(path, theirs)) {
          const std::size_t n = std::min<std::size_t>(theirs.size(), w.SampleCount());
          EXPECT_GE(n, e.format.find("GSM") != std::string::npos ? 1323u : 7293u);
          for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(ours[i], theirs[i]) << "sample " << i;
        }
      }
      ++checked;
      continue;
    }
    EXPECT_EQ(std::to_string(w.length), test::Fact(e.facts, "sndfile-info", "frames"));
    EXPECT_EQ(w.bits, BitsOfSndfileFormat(test::Fact(e.facts, "sndfile-info", "format")));

    const std::string instrument = e.facts.substr(std::min(e.facts.size(), e.facts.find("--instrument:")));
    if (!instrument.empty()) {
      const std::string note = instrument.substr(instrument.find("base_note=") + 10);
      EXPECT_EQ(w.rootKey, std::stoi(note));
      const std::size_t fwd = instrument.find("loops=fwd ");
      if (fwd == std::string::npos) {
        EXPECT_EQ(w.loopType, 0);
      } else {
        unsigned start = 0, end = 0;
        ASSERT_EQ(std::sscanf(instrument.c_str() + fwd + 10, "%u-%u", &start, &end), 2);
        EXPECT_EQ(w.loopType, 1);
        EXPECT_EQ(w.loopStart, static_cast<float>(start));
        EXPECT_EQ(w.loopEnd, static_cast<float>(end));
      }
    }

    test::ExpectSamplesAsLibsndfile(path, w);
    ++checked;
  }
  EXPECT_GE(checked, 25);
}

TEST(WavCorpus, InfoTextsAndInstChunk) {
  if (!test::NeedCorpus()) return;
  Loaded l = LoadWith(test::CorpusDir() / "wav/gen-smpl-inst-cue.wav", wav_Imp);
  ASSERT_NE(l.wave, nullptr);
  // smpl came first with note 62 and a pitch fraction of 0xEE147AE2 (0.93 of
  // a semitone above it: -93 cents), so inst may not change note or tune;
  // its gain of -3 dB is always taken.
  EXPECT_EQ(l.wave->rootKey, 62);
  EXPECT_EQ(l.wave->fineTune, -93);
  EXPECT_EQ(l.wave->volume, -3.0f);
  Loaded info = LoadWith(test::CorpusDir() / "wav/gen-listinfo-ffmpeg.wav", wav_Imp);
  ASSERT_NE(info.wave, nullptr);
  EXPECT_FALSE(std::string(info.wave->name).empty());
  EXPECT_FALSE(std::string(info.wave->artist).empty());
}

// ---- chunk walk edge cases ----

TEST(WavRead, OddChunksArePaddedAndDataAfterThemIsFound) {
  test::TempDir dir;
  // An odd-sized unknown chunk and an odd INAM before fmt and data.
  const std::string bytes = Riff(Chunk("junk", "abc") + Chunk("LIST", "INFO" + Chunk("INAM", std::string("Odd\0", 4) + "x")) +
                                 Fmt(1, 1, 8000, 8) + Chunk("data", std::string("\x80\xFF\x00", 3)) +
                                 Chunk("LIST", "INFO" + Chunk("IART", "Someone")));
  Loaded l = LoadBytes(dir, bytes);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, 3u);
  EXPECT_STREQ(l.wave->name, "Odd");
  EXPECT_STREQ(l.wave->artist, "Someone");
  const int16_t* s = Samples16(*l.wave);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s[0], 0);
  EXPECT_EQ(s[1], 127 * 256);
  EXPECT_EQ(s[2], -128 * 256);
}

TEST(WavRead, TruncatedDataWarnsAndReadsWhatIsThere) {
  test::TempDir dir;
  BoxCapture boxes;
  std::string bytes = Riff(Fmt(1, 2, 44100, 16) + Chunk("data", Pcm16({1, 2, 3, 4, 5, 6, 7, 8})));
  bytes.resize(bytes.size() - 6);  // one and a half frames cut away
  Loaded l = LoadBytes(dir, bytes);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  ASSERT_EQ(Boxes().size(), 1u);
  EXPECT_EQ(Boxes()[0], "Warning: data chunk truncated - will read what data there is");
  EXPECT_EQ(l.wave->length, 2u);
  const int16_t* s = Samples16(*l.wave);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s[3], 4);
}

TEST(WavRead, FactOverridesTheCountButZeroAndOneDoNot) {
  test::TempDir dir;
  const std::string data = Chunk("data", Pcm16({1, 2, 3, 4, 5, 6}));
  auto lengthWithFact = [&](uint32_t fact, bool before) {
    const std::string f = Chunk("fact", Le32(fact));
    Loaded l = LoadBytes(dir, Riff(Fmt(1, 1, 8000, 16) + (before ? f + data : data + f)));
    return l.wave ? l.wave->length : 999u;
  };
  EXPECT_EQ(lengthWithFact(4, true), 4u);
  EXPECT_EQ(lengthWithFact(0, true), 6u);
  EXPECT_EQ(lengthWithFact(1, true), 6u);  // a count of 1 is not trusted
  EXPECT_EQ(lengthWithFact(4, false), 4u);
  // A fact beyond the data is cut to what the data holds.
  EXPECT_EQ(lengthWithFact(1414285638, false), 6u);
}

TEST(WavRead, FmtAfterDataNeedsFact) {
  test::TempDir dir;
  const std::string data = Chunk("data", Pcm16({1, 2, 3, 4}));
  Loaded without = LoadBytes(dir, Riff(data + Fmt(1, 1, 8000, 16)));
  ASSERT_NE(without.wave, nullptr);
  EXPECT_EQ(without.wave->length, 0u);
  Loaded with = LoadBytes(dir, Riff(data + Fmt(1, 1, 8000, 16) + Chunk("fact", Le32(3))));
  ASSERT_NE(with.wave, nullptr);
  EXPECT_EQ(with.wave->length, 3u);
}

std::string Extensible(uint32_t channels, uint32_t container, uint32_t valid, const std::string& guid) {
  const uint32_t align = channels * container / 8;
  return Chunk("fmt ", Le16(0xFFFE) + Le16(channels) + Le32(48000) + Le32(48000 * align) + Le16(align) +
                           Le16(container) + Le16(22) + Le16(valid) + Le32(3) + guid);
}
const std::string kPcmGuid("\x01\x00\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71", 16);

TEST(WavRead, ExtensibleValidBitsAndForeignGuid) {
  test::TempDir dir;
  Loaded l = LoadBytes(dir, Riff(Extensible(2, 24, 20, kPcmGuid) + Chunk("data", std::string(6 * 5, '\x10'))));
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->bits, 20);
  EXPECT_EQ(l.wave->preferredFormat, 2);
  EXPECT_EQ(l.wave->length, 5u);  // from the container, not the valid bits

  std::string foreign = kPcmGuid;
  foreign[15] = 0x72;
  Loaded bad = LoadBytes(dir, Riff(Extensible(2, 24, 24, foreign) + Chunk("data", std::string(12, '\0'))));
  EXPECT_FALSE(bad.ok);
  EXPECT_STREQ(ErrorContext, "wav_Imp");
  EXPECT_STREQ(ErrorMessage, "Unsupported 'Extensible' subformat GUID");
}

TEST(WavRead, MoreThanTwoChannelsKeepTheFirstTwo) {
  test::TempDir dir;
  // Three channels of 24 bits: frames (1, 2, 3) and (4, 5, 6) in units of 256.
  std::string data;
  for (int v : {1, 2, 3, 4, 5, 6}) data += std::string("\x00", 1) + static_cast<char>(v) + std::string("\x00", 1);
  Loaded l = LoadBytes(dir, Riff(Fmt(1, 3, 8000, 24) + Chunk("data", data)));
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->channels, 2);
  EXPECT_EQ(l.wave->length, 2u);
  const float* f = SamplesFloat(*l.wave);
  ASSERT_NE(f, nullptr) << ErrorMessage;
  const float unit = 256.0f * 256.0f / 2147483648.0f;
  EXPECT_EQ(f[0], 1 * unit);
  EXPECT_EQ(f[1], 2 * unit);
  EXPECT_EQ(f[2], 4 * unit);
  EXPECT_EQ(f[3], 5 * unit);
}

TEST(WavRead, SmplNotesLoopsAndTheirOrder) {
  test::TempDir dir;
  const std::string fmt = Fmt(1, 1, 8000, 16);
  const std::string data = Chunk("data", std::string(4000, '\0'));
  // Unity note bytes 00 00 00 3C: written big-endian, read as 60.
  Loaded be = LoadBytes(dir, Riff(fmt + Smpl(0x3C000000, 0, false, 0, 0) + data));
  ASSERT_NE(be.wave, nullptr);
  EXPECT_EQ(be.wave->rootKey, 60);
  // Inclusive end 999 and a half-frame fraction read as 1000.5.
  Loaded frac = LoadBytes(dir, Riff(fmt + Smpl(64, 0x80000000u, true, 10, 999, 0x80000000u) + data));
  ASSERT_NE(frac.wave, nullptr);
  EXPECT_EQ(frac.wave->rootKey, 64);
  EXPECT_EQ(frac.wave->fineTune, -50);
  EXPECT_EQ(frac.wave->loopType, 1);
  EXPECT_EQ(frac.wave->loopStart, 10.0f);
  EXPECT_EQ(frac.wave->loopEnd, 1000.5f);

  // cue + labl set a loop only while none is set; smpl always wins.
  const std::string cue = Chunk("cue ", Le32(2) + Le32(1) + Le32(0) + "data" + Le32(0) + Le32(0) + Le32(100) +
                                            Le32(2) + Le32(0) + "data" + Le32(0) + Le32(0) + Le32(300));
  const std::string labels =
      Chunk("LIST", "adtl" + Chunk("labl", Le32(1) + std::string("loop start\0", 11)) +
                        Chunk("labl", Le32(2) + std::string("Loop End\0", 9)));
  Loaded labelled = LoadBytes(dir, Riff(fmt + cue + labels + data));
  ASSERT_NE(labelled.wave, nullptr);
  EXPECT_EQ(labelled.wave->loopType, 1);
  EXPECT_EQ(labelled.wave->loopStart, 100.0f);
  EXPECT_EQ(labelled.wave->loopEnd, 300.0f);
  Loaded smplLast = LoadBytes(dir, Riff(fmt + cue + labels + Smpl(60, 0, true, 5, 9) + data));
  ASSERT_NE(smplLast.wave, nullptr);
  EXPECT_EQ(smplLast.wave->loopStart, 5.0f);
  EXPECT_EQ(smplLast.wave->loopEnd, 10.0f);
}

TEST(WavRead, MalformedFilesFailCleanly) {
  test::TempDir dir;
  struct Case {
    std::string bytes;
    const char* message;
  } cases[] = {
      {"RIFF" + Le32(4) + "AVI ", "Not a RIFF WAVE file"},
      {"FORM" + Le32(4) + "AIFF", "Not a RIFF WAVE file"},
      {Riff(Fmt(1, 1, 8000, 16)), "No wave data found!"},
      {Riff(Chunk("data", "abcd")), "No wave data found!"},
      {Riff(Fmt(0x1234, 1, 8000, 16) + Chunk("data", "abcd")), "Unsupported compression type"},
      {Riff(Fmt(3, 1, 8000, 24) + Chunk("data", "abcdef")), "Unsupported bits/sample for IEEE floating point samples"},
      {Riff(Fmt(49, 2, 8000, 0) + Chunk("data", "abcd")), "Can only handle (the standard!) mono GSM"},
      {Riff(Fmt(23, 2, 8000, 4) + Chunk("data", "abcd")), "Can only handle mono Dialogic ADPCM format"},
  };
  for (const Case& c : cases) {
    Loaded l = LoadBytes(dir, c.bytes);
    EXPECT_FALSE(l.ok) << c.message;
    EXPECT_STREQ(ErrorContext, "wav_Imp");
    EXPECT_STREQ(ErrorMessage, c.message);
    EXPECT_EQ(l.collection->All<Waveform>().size(), 0u) << "the wave made for the file is gone";
  }
}

TEST(WavRead, LyingSizesNeitherAllocateNorHang) {
  test::TempDir dir;
  // A RIFF and a data chunk claiming 4 GB in a file of a few dozen bytes,
  // a cue table claiming 2^32 points, and a zero-sized chunk.
  const std::string bytes = "RIFF" + Le32(0xFFFFFFF0) + "WAVE" + Fmt(1, 1, 8000, 16) + "cue " + Le32(8) +
                            Le32(0xFFFFFFFF) + Le32(0) + "zero" + Le32(0) + "data" + Le32(0xFFFFFFF0) + Pcm16({7, 8});
  BoxCapture boxes;
  Loaded l = LoadBytes(dir, bytes);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, 2u);
  EXPECT_EQ(Samples16(*l.wave)[1], 8);
}

TEST(WavRead, CodedTagsWithoutADecoderYetNameIt) {
  test::TempDir dir;
  // MP3: block size 418 at 44100 Hz, 128 kbit/s.
  const std::string mp3 = Chunk("fmt ", Le16(85) + Le16(1) + Le32(44100) + Le32(16000) + Le16(1) + Le16(0) + Le16(12) +
                                            Le16(1) + Le32(2) + Le16(418) + Le16(1) + Le16(1393));
  Loaded l = LoadBytes(dir, Riff(mp3 + Chunk("data", std::string(418, '\x11'))));
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_GT(l.wave->length, 0u);
  EXPECT_FALSE(l.wave->EnsureData());
  EXPECT_STREQ(ErrorMessage, "MPEG audio decoding is not available yet");
  EXPECT_FALSE(l.wave->HasData());
}

// ---- writing ----

// A stereo wave with 24-bit values, so that every PCM width and float has
// exact expectations.
Waveform* MakeWave(Collection& c, uint32_t frames, int channels) {
  auto* w = Create<Waveform>(c, "Test tone");
  w->length = frames;
  w->channels = static_cast<uint8_t>(channels);
  w->sampleRate = 44100;
  float* f = AllocSamplesFloat(*w);
  for (uint32_t i = 0; i < frames * channels; ++i) {
    const int32_t v = static_cast<int32_t>(std::lround(std::sin(i * 0.37) * 8000000.0)) & ~0xFF;  // 16-bit exact
    f[i] = static_cast<float>(v) / 8388608.0f;
  }
  f[0] = -1.0f;
  if (frames * channels > 1) f[1] = 32767.0f / 32768.0f;
  return w;
}

TEST(WavWrite, EveryEncodingOpensInThePeersWithTheSameSamples) {
  Collection c;
  Waveform* source = MakeWave(c, 1001, 2);  // odd data sizes for the 8-bit codings
  source->rootKey = 62;
  source->loopType = 1;
  source->loopStart = 100;
  source->loopEnd = 900;
  test::TempDir dir;
  const struct {
    int format;
    uint32_t variant;
  } cases[] = {{kPcm8, kWavNormal},     {kPcm16, kWavNormal},     {kPcm24, kWavNormal}, {kPcm32, kWavNormal},
               {kFloat32, kWavNormal},  {kMuLaw, kWavNormal},     {kALaw, kWavNormal},  {kPcm24, kWavExtensible},
               {kFloat32, kWavExtensible}, {kPcm16, kWavCwdt},    {kPcm16, kWavBare}};
  for (const auto& tc : cases) {
    SCOPED_TRACE(std::string(DataFormatName(tc.format)) + " variant " + std::to_string(tc.variant));
    const fs::path path = dir / ("out" + std::to_string(tc.format) + "_" + std::to_string(tc.variant) + ".wav");
    ASSERT_TRUE(WriteWaveFile(*source, path, SourceFormatBit(tc.format) | kCapMono | kCapStereo, tc.variant))
        << ErrorContext << ": " << ErrorMessage;
    Loaded back = LoadWith(path, wav_Imp);
    ASSERT_NE(back.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(back.wave->length, 1001u);
    EXPECT_EQ(back.wave->channels, 2);
    EXPECT_EQ(back.wave->rootKey, 62);
    EXPECT_EQ(back.wave->loopStart, 100.0f);
    EXPECT_EQ(back.wave->loopEnd, 900.0f);
    const std::vector<float> ours = OurSamples(*back.wave);
    if (tc.format != kMuLaw && tc.format != kALaw) {
      // PCM and float are exact: 8 and 16-bit round to their step.
      const std::vector<float> in = OurSamples(*source);
      for (std::size_t i = 0; i < in.size(); ++i) {
        // 16-bit rounds to the nearest step; 8-bit then drops the low byte.
        const float tolerance = tc.format == kPcm8 ? 1.0f / 128 + 1.0f / 65536 : tc.format == kPcm16 ? 1.0f / 65536 : 0.0f;
        ASSERT_NEAR(ours[i], in[i], tolerance) << i;
      }
    }
    std::vector<float> theirs;
    if (test::SoundfileSamples(path, theirs)) {
      EXPECT_EQ(theirs, ours);
    }
    std::vector<int32_t> sox;
    if (tc.format != kFloat32 && SoxSamples(path, sox)) {
      ASSERT_EQ(sox.size(), ours.size());
      for (std::size_t i = 0; i < ours.size(); ++i)
        ASSERT_EQ(sox[i], static_cast<int32_t>(std::llround(static_cast<double>(ours[i]) * 2147483648.0)))
            << "sample " << i;
    }
    if (tc.variant != kWavCwdt && test::NeedTool("sndfile-info")) {
      std::string out;
      test::RunCommand("sndfile-info --instrument '" + path.string() + "'", &out);
      EXPECT_NE(out.find("Base note   : 62"), std::string::npos) << out;
      EXPECT_NE(out.find("Mode : fwd     Start :    100   End :    900"), std::string::npos) << out;
    }
  }
}

TEST(WavWrite, TextsFineTuneAndFractionalLoops) {
  Collection c;
  Waveform* w = MakeWave(c, 2000, 1);
  w->fineTune = 30;
  w->rootKey = 60;
  w->loopType = 3;
  w->loopStart = 0;
  w->loopEnd = 1000.5f;
  CopyText(w->artist, "Abcd");  // even length: no terminator in the file
  CopyText(w->comment, "Odd");
  test::TempDir dir;
  const fs::path path = dir / "texts.wav";
  ASSERT_TRUE(WriteWaveFile(*w, path, 0));
  const std::string bytes = test::ReadFile(path);
  EXPECT_NE(bytes.find("IART" + Le32(4) + "AbcdICMT" + Le32(4) + std::string("Odd\0", 4)), std::string::npos);
  EXPECT_NE(bytes.find("INAM" + Le32(10) + std::string("Test tone\0", 10)), std::string::npos);
  EXPECT_NE(bytes.find("ISFT" + Le32(20) + "Kelvo Studio v12.5"), std::string::npos);
  // Loop end 1000.5: inclusive end 999 and fraction 0x80000000; +30 cents is
  // unity 59 with 70% of a semitone.
  EXPECT_NE(bytes.find(Le32(59) + Le32(0xB3333333u)), std::string::npos);
  EXPECT_NE(bytes.find(Le32(1) + Le32(0) + Le32(999) + Le32(0x80000000u)), std::string::npos);
  Loaded back = LoadWith(path, wav_Imp);
  ASSERT_NE(back.wave, nullptr);
  EXPECT_EQ(back.wave->loopEnd, 1000.5f);
  EXPECT_EQ(back.wave->loopType, 3);
  EXPECT_EQ(back.wave->rootKey, 59);
  EXPECT_EQ(back.wave->fineTune, -70);
  EXPECT_STREQ(back.wave->artist, "Abcd");
  EXPECT_STREQ(back.wave->comment, "Odd");
}

TEST(WavWrite, SixteenBitWavesWidenExactly) {
  Collection c;
  auto* w = Create<Waveform>(c, "w16");
  w->length = 5;
  int16_t* s = AllocSamples16(*w);
  const int16_t values[5] = {-32768, -1, 0, 1, 32767};
  std::copy(values, values + 5, s);
  test::TempDir dir;
  for (int format : {kPcm24, kPcm32, kFloat32}) {
    SCOPED_TRACE(DataFormatName(format));
    ASSERT_TRUE(WriteWaveFile(*w, dir / "w.wav", SourceFormatBit(format)));
    Loaded back = LoadWith(dir / "w.wav", wav_Imp);
    ASSERT_NE(back.wave, nullptr);
    const float* f = SamplesFloat(*back.wave);
    ASSERT_NE(f, nullptr);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(f[i], values[i] / 32768.0f);
    EXPECT_FALSE(w->samplesF) << "no float copy of the source";
  }
}

TEST(WavWrite, ChannelRequestsAndRefusals) {
  Collection c;
  Waveform* stereo = MakeWave(c, 10, 2);
  test::TempDir dir;
  ASSERT_TRUE(WriteWaveFile(*stereo, dir / "mono.wav", SourceFormatBit(kPcm16) | kCapMono));
  Loaded mono = LoadWith(dir / "mono.wav", wav_Imp);
  ASSERT_NE(mono.wave, nullptr);
  EXPECT_EQ(mono.wave->channels, 1);
  EXPECT_EQ(c.All<Waveform>().size(), 1u) << "the mono copy is released";

  EXPECT_FALSE(WriteWaveFile(*stereo, dir / "mp3.wav", SourceFormatBit(kCompressed)));
  EXPECT_STREQ(ErrorContext, "wav_Exp");
  EXPECT_STREQ(ErrorMessage, "MP3 encoding is not available yet");
  EXPECT_FALSE(fs::exists(dir / "mp3.wav"));
  EXPECT_FALSE(WriteWaveFile(*stereo, dir / "x.wav", SourceFormatBit(kMuLaw), kWavExtensible));
  EXPECT_STREQ(ErrorMessage, "Unsupported subformat");
  // "Auto" for a Mu-law wave in extensible form falls back to PCM.
  stereo->preferredFormat = 5;
  ASSERT_TRUE(WriteWaveFile(*stereo, dir / "ext.wav", 0, kWavExtensible)) << ErrorMessage;
  Loaded ext = LoadWith(dir / "ext.wav", wav_Imp);
  ASSERT_NE(ext.wave, nullptr);
  EXPECT_EQ(ext.wave->bits, 16);

  auto* inst = Create<Instrument>(c, "inst");
  FileRef file;
  ASSERT_TRUE(file.OpenWrite(dir / "inst.wav"));
  ExportRequest request;
  EXPECT_FALSE(wav_Exp(*inst, file, request));
  EXPECT_STREQ(ErrorMessage, "The file format can not save this item");
}

TEST(Wave64, WriteThenReadWithThePeers) {
  Collection c;
  Waveform* w = MakeWave(c, 333, 2);
  CopyText(w->artist, "Ärtist");
  test::TempDir dir;
  for (int format : {kPcm8, kPcm16, kPcm24, kPcm32, kFloat32, kMuLaw, kALaw}) {
    SCOPED_TRACE(DataFormatName(format));
    const fs::path path = dir / ("out" + std::to_string(format) + ".w64");
    FileRef file;
    ASSERT_TRUE(file.OpenWrite(path));
    ExportRequest request{SourceFormatBit(format) | kCapMono | kCapStereo, 0, 0};
    ASSERT_TRUE(w64_Exp(*w, file, request)) << ErrorMessage;
    file.Close();
    Loaded back = LoadWith(path, w64_Imp);
    ASSERT_NE(back.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(back.wave->length, 333u);
    EXPECT_EQ(back.wave->channels, 2);
    EXPECT_STREQ(back.wave->name, "Test tone");
    EXPECT_STREQ(back.wave->artist, "Ärtist");
    std::vector<float> theirs;
    if (test::SoundfileSamples(path, theirs)) {
      const std::vector<float> ours = OurSamples(*back.wave);
      ASSERT_EQ(theirs.size(), ours.size());
      EXPECT_EQ(theirs, ours);
    }
  }
  // A chunk size near 2^64 once wrapped the walk's position around (a hang).
  const std::string riff("\x72\x69\x66\x66\x2E\x91\xCF\x11\xA5\xD6\x28\xDB\x04\xC1\x00\x00", 16);
  const std::string wave("\x77\x61\x76\x65\xF3\xAC\xD3\x11\x8C\xD1\x00\xC0\x4F\x8E\xDB\x8A", 16);
  std::string wrap = riff + Le32(96) + Le32(0) + wave + std::string(16, 'j') + Le32(0xFFFFFFF9) + Le32(0xFFFFFFFF);
  wrap.resize(96, '\0');
  test::WriteFile(dir / "wrap.w64", wrap);
  EXPECT_FALSE(LoadWith(dir / "wrap.w64", w64_Imp).ok);
  EXPECT_STREQ(ErrorMessage, "Couldn't find fmt chunk!");
  test::WriteFile(dir / "bad.w64", std::string(64, 'x'));
  EXPECT_FALSE(LoadWith(dir / "bad.w64", w64_Imp).ok);
  EXPECT_STREQ(ErrorMessage, "Not a Sonic Foundry/Sony Wave64 file");
}

// ---- RF64 ----

// An RF64 head: sizes 0xFFFFFFFF in RF64 and data, the true ones in ds64,
// with `table` naming other chunks whose size field says 0xFFFFFFFF.
std::string Rf64Head(uint64_t riffSize, uint64_t dataSize, uint64_t frames, const std::string& table = "",
                     uint32_t entries = 0) {
  return "RF64" + Le32(0xFFFFFFFF) + "WAVE" +
         Chunk("ds64", Le64(riffSize) + Le64(dataSize) + Le64(frames) + Le32(entries) + table);
}

int DetectedRow(const fs::path& path) {
  FileRef file;
  int confidence = 0;
  return file.OpenRead(path) ? DetectFormat(path, file, confidence) : -1;
}

TEST(Rf64, ChunksAfterDataAreFoundThroughTheDs64Sizes) {
  test::TempDir dir;
  const std::string samples = Pcm16({100, -100, 2000, -2000, 30000, -30000});
  const std::string info = "INFO" + Chunk("INAM", std::string("Long take\0", 10));
  const std::string body = Fmt(1, 2, 8000, 16) + "data" + Le32(0xFFFFFFFF) + samples + "LIST" + Le32(0xFFFFFFFF) +
                           info + Smpl(62, 0, true, 1, 1);
  const std::string table = "LIST" + Le64(info.size());
  const std::size_t headSize = Rf64Head(0, 0, 0, table, 1).size();
  const fs::path path = dir / "long.wav";
  test::WriteFile(path, Rf64Head(headSize - 8 + body.size(), samples.size(), 3, table, 1) + body);

  EXPECT_EQ(DetectedRow(path), 476);
  FileRef file;
  ASSERT_TRUE(file.OpenRead(path));
  int confidence = 0;
  EXPECT_EQ(DetectFormat("noext", file, confidence), 476);
  Loaded l = LoadWith(path, wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->channels, 2);
  EXPECT_EQ(l.wave->length, 3u);
  EXPECT_STREQ(l.wave->name, "Long take");
  EXPECT_EQ(l.wave->rootKey, 62);
  EXPECT_EQ(l.wave->loopType, 1);
  EXPECT_EQ(l.wave->loopStart, 1.0f);
  EXPECT_EQ(l.wave->loopEnd, 2.0f);
  test::ExpectSamplesAsLibsndfile(path, *l.wave);
  std::vector<int32_t> sox;
  if (SoxSamples(path, sox)) {
    ASSERT_EQ(sox.size(), 6u);
    EXPECT_EQ(sox[4], 30000 * 65536);
  }

  // A ds64 whose sizes run near 2^64: what the file holds is read, no more.
  BoxCapture boxes;
  test::WriteFile(path, Rf64Head(~0ull, ~0ull - 1, ~0ull, "LIST" + Le64(~0ull), 1) + body);
  Loaded lying = LoadWith(path, wav_Imp);
  ASSERT_NE(lying.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(Boxes().size(), 1u) << "the data chunk is truncated";
  EXPECT_EQ(lying.wave->length, (body.size() - Fmt(1, 2, 8000, 16).size() - 8) / 4);
}

TEST(Rf64, DataPastFourGigabytesKeepsItsLengthAndTheChunksBehindIt) {
  // 4.5 GB of stereo 16-bit frames as a hole in a sparse file, then smpl.
  test::TempDir dir;
  const uint64_t frames = 0x48000000;
  const uint64_t dataSize = frames * 4;
  const std::string smpl = Smpl(62, 0, true, 0x40000000, 0x47FFFFFF);
  const std::string fmtAndData = Fmt(1, 2, 44100, 16) + "data" + Le32(0xFFFFFFFF);
  const std::size_t headSize = Rf64Head(0, 0, 0).size() + fmtAndData.size();
  const std::string head = Rf64Head(headSize - 8 + dataSize + smpl.size(), dataSize, frames) + fmtAndData;
  const fs::path path = dir / "huge.wav";
  test::WriteFile(path, head);
  fs::resize_file(path, headSize + dataSize);
  {
    std::ofstream out(path, std::ios::binary | std::ios::app);
    out << smpl;
  }
  Loaded l = LoadWith(path, wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, frames);
  EXPECT_EQ(l.wave->fileOffset, headSize);
  EXPECT_EQ(l.wave->rootKey, 62);
  EXPECT_EQ(l.wave->loopStart, static_cast<float>(0x40000000));
  EXPECT_EQ(l.wave->loopEnd, static_cast<float>(frames));
  if (test::NeedTool("sndfile-info")) {  // soxi would read the 4.5 GB through
    std::string said;
    ASSERT_EQ(test::RunCommand("sndfile-info '" + path.string() + "' 2>&1", &said), 0) << said;
    EXPECT_NE(said.find("Frames      : " + std::to_string(frames)), std::string::npos) << said;
  }
}

TEST(Rf64, WriterSwitchesPastTheThresholdAndThePeersReadIt) {
  const uint64_t defaultThreshold = WavRf64Threshold;
  struct Restore {
    uint64_t value;
    ~Restore() { WavRf64Threshold = value; }
  } restore{defaultThreshold};
  Collection c;
  Waveform* source = MakeWave(c, 1001, 2);
  source->rootKey = 62;
  source->loopType = 1;
  source->loopStart = 100;
  source->loopEnd = 900;
  CopyText(source->artist, "Someone");
  test::TempDir dir;
  const struct {
    int format;
    uint32_t variant;
    uint32_t channels;
  } cases[] = {{kPcm16, kWavNormal, kCapStereo},
               {kPcm24, kWavExtensible, kCapStereo},
               {kPcm8, kWavBare, kCapMono},  // smpl before data, odd data size
               {kMuLaw, kWavNormal, kCapStereo}};  // with fact
  for (const auto& tc : cases) {
    SCOPED_TRACE(std::string(DataFormatName(tc.format)) + " variant " + std::to_string(tc.variant));
    const uint32_t request = SourceFormatBit(tc.format) | tc.channels;
    auto write = [&](const char* name, uint64_t threshold) {
      WavRf64Threshold = threshold;
      EXPECT_TRUE(WriteWaveFile(*source, dir / name, request, tc.variant)) << ErrorMessage;
      return test::ReadFile(dir / name);
    };
    const std::string plain = write("plain.wav", defaultThreshold);
    ASSERT_EQ(plain.substr(0, 4), "RIFF");
    const uint64_t riffSize = plain.size() - 8;
    EXPECT_EQ(write("edge.wav", riffSize), plain) << "a RIFF size at the threshold still fits";
    const std::string rf64 = write("rf64.wav", riffSize - 1);

    // The plain file's chunks behind a ds64, the data size moved into it.
    const uint32_t channels = tc.channels == kCapMono ? 1 : 2;
    const uint64_t dataBytes = uint64_t{1001} * channels * (tc.format == kPcm24 ? 3 : tc.format == kPcm16 ? 2 : 1);
    ASSERT_EQ(rf64.size(), plain.size() + 36);
    EXPECT_EQ(rf64.substr(0, 48), Rf64Head(riffSize + 36, dataBytes, 1001));
    std::string expected = plain.substr(12);
    const std::size_t dataAt = expected.find("data" + Le32(static_cast<uint32_t>(dataBytes)));
    ASSERT_NE(dataAt, std::string::npos);
    expected.replace(dataAt + 4, 4, Le32(0xFFFFFFFF));
    EXPECT_EQ(rf64.substr(48), expected);

    Loaded back = LoadWith(dir / "rf64.wav", wav_Imp);
    ASSERT_NE(back.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(back.wave->length, 1001u);
    EXPECT_EQ(back.wave->rootKey, 62);
    EXPECT_EQ(back.wave->loopStart, 100.0f);
    EXPECT_EQ(back.wave->loopEnd, 900.0f);
    if (tc.variant != kWavBare) {
      EXPECT_STREQ(back.wave->artist, "Someone");
    }
    Loaded before = LoadWith(dir / "plain.wav", wav_Imp);
    ASSERT_NE(before.wave, nullptr);
    const std::vector<float> ours = OurSamples(*back.wave);
    EXPECT_EQ(ours, OurSamples(*before.wave));
    std::vector<float> theirs;
    if (test::SoundfileSamples(dir / "rf64.wav", theirs)) {
      EXPECT_EQ(theirs, ours);
    }
    std::vector<int32_t> sox;
    if (SoxSamples(dir / "rf64.wav", sox)) {
      ASSERT_EQ(sox.size(), ours.size());
    }
  }
}

}  // namespace
}  // namespace kv
