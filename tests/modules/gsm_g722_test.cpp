// GSM 06.10 and G.722 in files: WAV tags 49, 4096, 771 and 101, the GSM
// writer, and the raw gsm and g722 rows, against the files and decoders of
// sox and libsndfile (both on libgsm) and FFmpeg.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codecs/g722.h"
#include "codecs/gsm610.h"
#include "coded_support.h"
#include "formats/export.h"
#include "formats/modules/raw.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"

namespace kv {
namespace {

using namespace coded;

Loaded LoadRow(const fs::path& path, int row) { return LoadWith(path, FormatAt(row)->read, FormatAt(row)->parameter); }
bool SaveRow(Waveform& wave, const fs::path& path, int row) {
  FileRef file;
  if (!file.OpenWrite(path)) return false;
  ExportRequest r{0, FormatAt(row)->parameter, 0.0f};
  return FormatAt(row)->write(wave, file, r);
}
// The data chunk of a WAV file.
std::string DataOf(const std::string& wav) {
  const std::size_t at = wav.find("data");
  return at == std::string::npos ? std::string() : wav.substr(at + 8, GetU32leOf(wav, at + 4));
}
std::string GsmFmt(uint32_t tag, uint32_t blockAlign = 65) {
  return CodedFmt(tag, 1, 8000, blockAlign, Le16(0) + Le16(2) + Le16(320));
}
// 33-byte frames of our own encoding of a tone.
std::string EncodedFrames(int frames) {
  GsmEncoderState s;
  std::string out;
  for (int f = 0; f < frames; ++f) {
    int16_t pcm[160];
    for (int i = 0; i < 160; ++i) pcm[i] = static_cast<int16_t>(9000 * std::sin((f * 160 + i) * 0.07));
    uint8_t frame[33];
    kvGsmEncodeFrame(s, pcm, frame);
    out.append(reinterpret_cast<const char*>(frame), 33);
  }
  return out;
}

// ---------------------------------------------------------------- reading

TEST(GsmWav, CorpusFileHasTheFactsFramesAndLibsndfilesSamples) {
  if (!test::NeedCorpus()) return;
  const fs::path path = test::CorpusDir() / "wav/gen-gsm610-8k.wav";
  Loaded l = LoadWith(path, wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, 1323u) << "the fact, not soxi's 1600 or libsndfile's 1920";
  EXPECT_EQ(wav_CodingName(*l.wave), "GSM 06.10");
  // libsndfile gives whole pairs: the samples agree over the fact's frames.
  std::vector<int16_t> sf;
  if (test::SoundfileSamples16(path, sf)) EXPECT_SAMPLES_EQ(Ours(*l.wave), sf, 1323u);
}

// Files of every peer writer decode as every peer that reads them decodes
// them: sox's and libsndfile's GSM WAV, FFmpeg's libgsm_ms WAV, and raw
// frames of sox and of FFmpeg's libgsm.
TEST(GsmWav, PeerWrittenFilesDecodeAsThePeersDecodeThem) {
  test::TempDir dir;
  if (!Recording(dir / "rec.wav", 8000)) return;
  const std::string rec = "'" + (dir / "rec.wav").string() + "' ";
  const struct {
    const char* name;
    const char* tool;
    std::string args;
    bool raw;
  } files[] = {
      {"sox.wav", "sox", "-D " + rec + "-e gsm-full-rate", false},
      {"sf.wav", "sndfile-convert", "-gsm610 " + rec, false},
      {"ff.wav", "ffmpeg", "-nostdin -v error -y -i " + rec + "-c:a libgsm_ms", false},
      {"sox.gsm", "sox", "-D " + rec + "-t gsm", true},
      {"ff.gsm", "ffmpeg", "-nostdin -v error -y -i " + rec + "-c:a libgsm -f gsm", true},
  };
  for (const auto& f : files) {
    SCOPED_TRACE(f.name);
    const fs::path path = dir / f.name;
    if (!test::RunPeer(f.tool, f.args + " '" + path.string() + "'")) return;
    Loaded l = f.raw ? LoadRow(path, 167) : LoadWith(path, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    const std::vector<int16_t> ours = Ours(*l.wave);
    std::vector<int16_t> sox, ff, sf;
    if (test::SoxSamples16(path, f.raw ? "-t gsm" : "", sox)) EXPECT_SAMPLES_EQ(ours, sox, 8000u);
    if (test::FfmpegSamples16(path, f.raw ? "-f gsm" : "", ff)) EXPECT_SAMPLES_EQ(ours, ff, 8000u);
    if (!f.raw && test::SoundfileSamples16(path, sf)) EXPECT_SAMPLES_EQ(ours, sf, 8000u);
  }
}

// Random pairs and frames in WAV (tags 49 and 4096) and raw files: as
// libgsm decodes them (sox); FFmpeg is compared on encoded frames only.
TEST(GsmWav, RandomPairsAndFramesDecodeAsLibgsm) {
  test::TempDir dir;
  const std::string pairs = test::RandomPayload(65 * 40, 49);
  for (uint32_t tag : {49u, 4096u}) {
    const fs::path path = dir / ("r" + std::to_string(tag) + ".wav");
    std::string wav = Riff(GsmFmt(49) + Fact(40 * 320) + Chunk("data", pairs));
    wav[20] = static_cast<char>(tag);
    wav[21] = static_cast<char>(tag >> 8);
    test::WriteFile(path, wav);
    Loaded l = LoadWith(path, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(l.wave->length, 40u * 320);
    std::vector<int16_t> sox;
    if (tag == 49 && test::SoxSamples16(path, "", sox)) EXPECT_SAMPLES_EQ(Ours(*l.wave), sox, 40u * 320);
    if (tag == 4096) {
      Loaded as49 = LoadWith(dir / "r49.wav", wav_Imp);
      ASSERT_NE(as49.wave, nullptr);
      EXPECT_EQ(Ours(*l.wave), Ours(*as49.wave));
    }
  }
  std::string frames = test::RandomPayload(33 * 50, 33);
  for (std::size_t f = 0; f < 50; ++f) frames[33 * f] = static_cast<char>(0xD0 | (frames[33 * f] & 0x0F));
  test::WriteFile(dir / "r.gsm", frames);
  Loaded l = LoadRow(dir / "r.gsm", 167);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  std::vector<int16_t> sox;
  if (test::SoxSamples16(dir / "r.gsm", "-t gsm", sox)) EXPECT_SAMPLES_EQ(Ours(*l.wave), sox, 50u * 160);
}

// Tag 771: a record whose byte 0 is 254 or 182, or whose byte 35 is 0, has
// its frame at byte 2 and moves the read on 38 bytes; any other has it at
// byte 0 and moves on 33, while the bytes left fall by 38 either way.
TEST(GsmWav, Tag771RecordsMoveOnAsThePartsRuleSays) {
  test::TempDir dir;
  const std::string f = EncodedFrames(5);
  auto frame = [&](int i) { return f.substr(33 * i, 33); };
  std::string data;
  data += std::string("\xFE\x01", 2) + frame(0) + std::string("\x07\x07\x07", 3);  // head byte 254: frame at 2, on 38
  std::string r2 = std::string("\x00\x00", 2) + frame(1) + std::string("\x00\x07\x07", 3);  // byte 35 is 0
  data += r2;
  data += frame(2);  // a bare frame: on 33
  data += std::string("\xB6\x00", 2) + frame(3) + std::string("\x01\x01\x01", 3);  // 182
  data += std::string("\xFE\x00", 2) + frame(4) + std::string(3 + 5, '\x00');  // 5 bytes the short advance leaves
  const fs::path path = dir / "r771.wav";
  test::WriteFile(path, Riff(GsmFmt(771, 38) + Chunk("data", data)));
  Loaded l = LoadWith(path, wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, data.size() / 38 * 160);
  std::vector<int16_t> ours = Ours(*l.wave);
  ASSERT_EQ(ours.size(), 5u * 160);
  GsmDecoderState s;
  std::vector<int16_t> expected(5 * 160, 0);
  for (int i = 0; i < 5; ++i)
    ASSERT_TRUE(kvGsmDecodeFrame(s, std::span<const uint8_t, 33>(reinterpret_cast<const uint8_t*>(f.data()) + 33 * i, 33),
                                 std::span<int16_t, 160>(expected.data() + 160 * i, 160)));
  EXPECT_EQ(ours, expected);
}

TEST(GsmWav, BadInputFailsOrReadsZerosNeverGarbage) {
  test::TempDir dir;
  BoxCapture boxes;
  // A stereo GSM fmt.
  test::WriteFile(dir / "st.wav", Riff(CodedFmt(49, 2, 8000, 65, Le16(0) + Le16(2) + Le16(320)) + Chunk("data", "x")));
  EXPECT_FALSE(LoadWith(dir / "st.wav", wav_Imp).ok);
  EXPECT_STREQ(ErrorMessage, "Can only handle (the standard!) mono GSM");
  test::WriteFile(dir / "st.wav", Riff(CodedFmt(771, 2, 8000, 38, "") + Chunk("data", "x")));
  EXPECT_FALSE(LoadWith(dir / "st.wav", wav_Imp).ok);
  EXPECT_STREQ(ErrorMessage, "Can only handle (the standard!) mono GSM");

  // A raw frame without its nibble, and a 771 record likewise.
  std::string frames = EncodedFrames(3);
  frames[33] = 0x20;
  test::WriteFile(dir / "bad.gsm", frames);
  Loaded raw = LoadRow(dir / "bad.gsm", 167);
  ASSERT_NE(raw.wave, nullptr);
  EXPECT_FALSE(raw.wave->EnsureData());
  EXPECT_STREQ(ErrorContext, "raw_ImpWave");
  EXPECT_STREQ(ErrorMessage, "Corrupted GSM stream");
  test::WriteFile(dir / "bad.wav", Riff(GsmFmt(771, 38) + Chunk("data", std::string(3, '\x01') + frames.substr(0, 35))));
  Loaded rec = LoadWith(dir / "bad.wav", wav_Imp);
  ASSERT_NE(rec.wave, nullptr);
  EXPECT_FALSE(rec.wave->EnsureData());
  EXPECT_STREQ(ErrorContext, "wav_ImpWave");
  EXPECT_STREQ(ErrorMessage, "Corrupted GSM stream");

  // Pairs cut short: a fact of 2 pairs over 1.5 of data reads one pair and
  // zeros; a fact far past the data is cut to it with a note.
  GsmEncoderState e;
  int16_t pcm[320];
  for (int i = 0; i < 320; ++i) pcm[i] = static_cast<int16_t>(5000 * std::sin(i * 0.1));
  uint8_t pair[65];
  kvGsmEncodePair(e, pcm, pair);
  const std::string data = std::string(reinterpret_cast<char*>(pair), 65) + std::string(32, '\x55');
  test::WriteFile(dir / "cut.wav", Riff(GsmFmt(49) + Fact(2 * 320) + Chunk("data", data)));
  Loaded cut = LoadWith(dir / "cut.wav", wav_Imp);
  ASSERT_NE(cut.wave, nullptr);
  EXPECT_EQ(cut.wave->length, 640u);
  const std::vector<int16_t> ours = Ours(*cut.wave);
  ASSERT_EQ(ours.size(), 640u);
  EXPECT_NE(ours[100], 0);
  for (std::size_t i = 320; i < 640; ++i) ASSERT_EQ(ours[i], 0) << i;
  test::WriteFile(dir / "far.wav", Riff(GsmFmt(49) + Fact(100000000) + Chunk("data", data)));
  Loaded far = LoadWith(dir / "far.wav", wav_Imp);
  ASSERT_NE(far.wave, nullptr);
  EXPECT_EQ(far.wave->length, 320u);
  ASSERT_FALSE(Boxes().empty());
  EXPECT_EQ(Boxes().back().rfind("Note: ", 0), 0u);
}

// ---------------------------------------------------------------- writing

// Index 10 as the Part's table: our data equals libgsm's (sox's and
// libsndfile's), the fmt, fact and data sizes follow the formulas, and the
// three peers accept the file and decode our own samples.
TEST(GsmWav, WrittenFilesAreLibgsmsBytesInThePartsFrame) {
  test::TempDir dir;
  if (!Recording(dir / "rec.wav", 8000)) return;
  Loaded src = LoadWith(dir / "rec.wav", wav_Imp);
  ASSERT_NE(src.wave, nullptr);
  const uint32_t frames = src.wave->length;
  const fs::path path = dir / "ours.wav";
  ASSERT_TRUE(WriteWaveFile(*src.wave, path, SourceFormatBit(kGsm2))) << ErrorMessage;
  const std::string wav = test::ReadFile(path);
  const std::size_t fmt = wav.find("fmt ");
  EXPECT_EQ(GetU32leOf(wav, fmt + 4), 20u);
  EXPECT_EQ(wav.substr(fmt + 8, 20), Le16(49) + Le16(1) + Le32(8000) + Le32(1625) + Le16(65) + Le16(0) + Le16(2) + Le16(320));
  EXPECT_EQ(GetU32leOf(wav, wav.find("fact") + 8), (frames + 319) / 320 * 320);
  const std::string data = DataOf(wav);
  EXPECT_EQ(data.size(), (frames + 319) / 320 * 65);

  if (!test::RunPeer("sox", "-D '" + (dir / "rec.wav").string() + "' -e gsm-full-rate '" + (dir / "sox.wav").string() + "'") ||
      !test::RunPeer("sndfile-convert", "-gsm610 '" + (dir / "rec.wav").string() + "' '" + (dir / "sf.wav").string() + "'"))
    return;
  EXPECT_EQ(data, DataOf(test::ReadFile(dir / "sox.wav")));
  EXPECT_EQ(data, DataOf(test::ReadFile(dir / "sf.wav")));
  EXPECT_TRUE(test::RunPeer("sndfile-info", "'" + path.string() + "'"));
  EXPECT_TRUE(test::RunPeer("soxi", "'" + path.string() + "'"));

  Loaded back = LoadWith(path, wav_Imp);
  ASSERT_NE(back.wave, nullptr);
  const std::vector<int16_t> ours = Ours(*back.wave);
  std::vector<int16_t> sox, ff, sf;
  if (test::SoxSamples16(path, "", sox)) EXPECT_SAMPLES_EQ(ours, sox, frames);
  if (test::FfmpegSamples16(path, "", ff)) EXPECT_SAMPLES_EQ(ours, ff, frames);
  if (test::SoundfileSamples16(path, sf)) EXPECT_SAMPLES_EQ(ours, sf, frames);

  // Raw frames likewise equal sox's -t gsm bytes.
  ASSERT_TRUE(SaveRow(*src.wave, dir / "ours.gsm", 167)) << ErrorMessage;
  if (test::RunPeer("sox", "-D '" + (dir / "rec.wav").string() + "' -t gsm '" + (dir / "sox.gsm").string() + "'")) {
    EXPECT_EQ(test::ReadFile(dir / "ours.gsm"), test::ReadFile(dir / "sox.gsm"));
  }
}

TEST(GsmWav, StereoIsMixedToMonoWithANote) {
  test::TempDir dir;
  BoxCapture boxes;
  Collection c;
  Waveform* w = Create<Waveform>(c, "st");
  w->channels = 2;
  w->length = 700;
  w->sampleRate = 8000;
  int16_t* s = AllocSamples16(*w);
  ASSERT_NE(s, nullptr);
  for (int i = 0; i < 1400; ++i) s[i] = static_cast<int16_t>(i % 2 ? 3000 : -1000);
  ASSERT_TRUE(WriteWaveFile(*w, dir / "st.wav", SourceFormatBit(kGsm2))) << ErrorMessage;
  ASSERT_EQ(Boxes().size(), 1u);
  EXPECT_EQ(Boxes()[0], "Note: GSM 06.10 holds one channel; the stereo wave is mixed to mono.");
  Loaded l = LoadWith(dir / "st.wav", wav_Imp);
  ASSERT_NE(l.wave, nullptr);
  EXPECT_EQ(l.wave->channels, 1);
  EXPECT_EQ(l.wave->length, 960u) << "the fact counts whole pairs";
}

// ---------------------------------------------------------------- G.722

TEST(G722Files, FfmpegFilesAndRandomCodesDecodeAsFfmpegAndRow134WritesItsBytes) {
  test::TempDir dir;
  if (!Recording(dir / "rec.wav", 16000)) return;
  const fs::path g = dir / "ff.g722";
  if (!test::RunPeer("ffmpeg", "-nostdin -v error -y -i '" + (dir / "rec.wav").string() + "' -c:a adpcm_g722 -f g722 '" +
                                   g.string() + "'"))
    return;
  Loaded l = LoadRow(g, 125);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->sampleRate, 16000u);
  EXPECT_EQ(raw_CodingName(*l.wave), "G.722 64 kbit/s");
  std::vector<int16_t> ff;
  if (test::FfmpegSamples16(g, "-f g722", ff)) EXPECT_SAMPLES_EQ(Ours(*l.wave), ff, 16000u);

  // WAV tag 101 around the same codes.
  const std::string codes = test::ReadFile(g);
  test::WriteFile(dir / "t101.wav", Riff(CodedFmt(101, 1, 16000, 1, "") + Chunk("data", codes)));
  Loaded w = LoadWith(dir / "t101.wav", wav_Imp);
  ASSERT_NE(w.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(w.wave->length, codes.size() * 2);
  EXPECT_EQ(wav_CodingName(*w.wave), "G.722 64 kbit/s");
  if (!ff.empty()) EXPECT_SAMPLES_EQ(Ours(*w.wave), ff, codes.size() * 2);

  // Rows 128 and 131 read 6 and 7-bit code words.
  test::WriteFile(dir / "r.g722", test::RandomPayload(4000, 128));
  for (const auto& [row, bits] : {std::pair{128, 6}, std::pair{131, 7}, std::pair{134, 8}}) {
    SCOPED_TRACE(bits);
    Loaded r = LoadRow(dir / "r.g722", row);
    ASSERT_NE(r.wave, nullptr) << ErrorMessage;
    std::vector<int16_t> theirs;
    if (test::FfmpegSamples16(dir / "r.g722", "-bits_per_codeword " + std::to_string(bits) + " -f g722", theirs))
      EXPECT_SAMPLES_EQ(Ours(*r.wave), theirs, 8000u);
  }

  // Row 134 writes FFmpeg's encoder's bytes, and FFmpeg reads them as we do.
  Loaded src = LoadWith(dir / "rec.wav", wav_Imp);
  ASSERT_NE(src.wave, nullptr);
  ASSERT_TRUE(SaveRow(*src.wave, dir / "ours.g722", 134)) << ErrorMessage;
  std::vector<int16_t> pcm = Ours(*src.wave);
  std::string raw(pcm.size() * 2, '\0');
  std::memcpy(raw.data(), pcm.data(), raw.size());
  test::WriteFile(dir / "pcm.raw", raw);
  if (test::RunPeer("ffmpeg", "-nostdin -v error -y -f s16le -ar 16000 -ac 1 -i '" + (dir / "pcm.raw").string() +
                                  "' -c:a adpcm_g722 -f g722 '" + (dir / "ffenc.g722").string() + "'")) {
    EXPECT_EQ(test::ReadFile(dir / "ours.g722"), test::ReadFile(dir / "ffenc.g722"));
  }
  Loaded mine = LoadRow(dir / "ours.g722", 134);
  ASSERT_NE(mine.wave, nullptr);
  std::vector<int16_t> back;
  if (test::FfmpegSamples16(dir / "ours.g722", "-f g722", back)) EXPECT_SAMPLES_EQ(Ours(*mine.wave), back, pcm.size());

  // Other rates are refused rather than written at the wrong speed.
  Loaded eight = Recording(dir / "r8.wav", 8000) ? LoadWith(dir / "r8.wav", wav_Imp) : Loaded{};
  ASSERT_NE(eight.wave, nullptr);
  EXPECT_FALSE(SaveRow(*eight.wave, dir / "x.g722", 134));
  EXPECT_STREQ(ErrorMessage, "G.722 holds 16000 Hz audio; this wave is 8000 Hz");
}

}  // namespace
}  // namespace kv
