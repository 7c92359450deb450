// ADPCM in RIFF WAVE: the corpus, files the peers make from corpus
// recordings, random payloads in the container each peer reads, the CCITT
// writer of indexes 11-14, and bad input. Each coding is held to its
// reference peer sample for sample; every known difference of another peer
// is asserted as measured.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/adpcm.h"
#include "codecs/g72x.h"
#include "coded_support.h"
#include "formats/modules/wav.h"

namespace kv {
namespace {

using namespace coded;

fs::path Corpus(const char* name) { return test::CorpusDir() / name; }

// ---------------------------------------------------------------- corpus

TEST(AdpcmWavCorpus, ImaEqualsLibsndfileAndSoxWhereFfmpegTakesTheShortcut) {
  if (!test::NeedCorpus()) return;
  Loaded l = LoadWith(Corpus("wav/gen-ima-adpcm.wav"), wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, 8178u);
  const std::vector<int16_t> ours = Ours(*l.wave);
  std::vector<int16_t> lib, sox, ff;
  if (test::SoundfileSamples16(Corpus("wav/gen-ima-adpcm.wav"), lib)) EXPECT_SAMPLES_EQ(ours, lib, 8178);
  if (test::SoxSamples16(Corpus("wav/gen-ima-adpcm.wav"), "", sox)) EXPECT_SAMPLES_EQ(ours, sox, 8178);
  // FFmpeg 5.1 decodes 4-bit IMA in WAV by the product (2d + 1) * step >> 3:
  // measured, it differs from the reference steps in 8074 of 8178 samples.
  if (test::FfmpegSamples16(Corpus("wav/gen-ima-adpcm.wav"), "", ff)) {
    const Difference d = Compare(ours, ff);
    EXPECT_EQ(d.count, 8074u);
    EXPECT_EQ(d.first, 1);
  }
}

TEST(AdpcmWavCorpus, MsAdpcmFramesByFactAndThePartialLastBlock) {
  if (!test::NeedCorpus()) return;
  // fact 7293 in two whole blocks of 4084: libsndfile and sox count blocks.
  Loaded ms = LoadWith(Corpus("wav/gen-ms-adpcm.wav"), wav_Imp);
  ASSERT_NE(ms.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(ms.wave->length, 7293u);
  const std::vector<int16_t> ours = Ours(*ms.wave);
  std::vector<int16_t> lib, sox, ff;
  if (test::SoundfileSamples16(Corpus("wav/gen-ms-adpcm.wav"), lib)) EXPECT_SAMPLES_EQ(ours, lib, 7293);
  if (test::SoxSamples16(Corpus("wav/gen-ms-adpcm.wav"), "", sox)) EXPECT_SAMPLES_EQ(ours, sox, 7293);
  // FFmpeg divides the prediction by 64 towards zero where the others shift:
  // measured, it parts in the second block.
  if (test::FfmpegSamples16(Corpus("wav/gen-ms-adpcm.wav"), "", ff)) {
    const Difference d = Compare(ours, ff);
    EXPECT_EQ(d.first, 4101);
    EXPECT_EQ(d.count, 2950u);
  }

  // pachi: fact 8352 over 16 blocks of 500 and a last block of 182 bytes,
  // which holds 2 + 2 * 175 = 352 frames. libsndfile stops at the whole
  // blocks (8000); sox reads the last one, as we do.
  Loaded pachi = LoadWith(Corpus("wav/pachi-stageready-msadpcm.wav"), wav_Imp);
  ASSERT_NE(pachi.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(pachi.wave->length, 8352u);
  const std::vector<int16_t> p = Ours(*pachi.wave);
  if (test::SoundfileSamples16(Corpus("wav/pachi-stageready-msadpcm.wav"), lib)) {
    EXPECT_EQ(lib.size(), 8000u);
    EXPECT_SAMPLES_EQ(p, lib, 8000);
  }
  if (test::SoxSamples16(Corpus("wav/pachi-stageready-msadpcm.wav"), "", sox)) {
    EXPECT_EQ(sox.size(), 8352u);
    EXPECT_SAMPLES_EQ(p, sox, 8352);
  }
}

// ---------------------------------------------------------------- peer-made files

struct Made {
  const char* tool;
  std::string arguments;  // with IN and OUT for the paths
  int channels;
};

std::string Fill(std::string s, const fs::path& in, const fs::path& out) {
  s.replace(s.find("IN"), 2, "'" + in.string() + "'");
  s.replace(s.find("OUT"), 3, "'" + out.string() + "'");
  return s;
}

TEST(AdpcmWavPeers, ImaAndMsFilesOfLibsndfileAndSoxDecodeAsBothDecodeThem) {
  test::TempDir dir;
  if (!Recording(dir / "mono.wav", 22050, 1) || !Recording(dir / "stereo.wav", 44100, 2)) return;
  const Made made[] = {
      {"sndfile-convert", "-ima-adpcm IN OUT", 1}, {"sndfile-convert", "-ima-adpcm IN OUT", 2},
      {"sndfile-convert", "-ms-adpcm IN OUT", 1},  {"sndfile-convert", "-ms-adpcm IN OUT", 2},
      {"sox", "IN -e ima-adpcm OUT", 1},           {"sox", "IN -e ima-adpcm OUT", 2},
      {"sox", "IN -e ms-adpcm OUT", 1},            {"sox", "IN -e ms-adpcm OUT", 2},
  };
  int n = 0;
  for (const Made& m : made) {
    const fs::path out = dir / ("made" + std::to_string(n++) + ".wav");
    SCOPED_TRACE(std::string(m.tool) + " " + m.arguments + " channels " + std::to_string(m.channels));
    if (!test::RunPeer(m.tool, Fill(m.arguments, dir / (m.channels == 1 ? "mono.wav" : "stereo.wav"), out))) continue;
    Loaded l = LoadWith(out, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(l.wave->channels, m.channels);
    const std::vector<int16_t> ours = Ours(*l.wave);
    std::vector<int16_t> lib, sox;
    // Both count whole blocks; the samples agree over the frames each gives.
    if (test::SoundfileSamples16(out, lib)) EXPECT_SAMPLES_EQ(ours, lib, 8000);
    if (test::SoxSamples16(out, "", sox)) EXPECT_SAMPLES_EQ(ours, sox, 8000);
  }
}

// Above 48 kHz FFmpeg wraps IMA and MS ADPCM in an extensible fmt, whose
// coding fields follow the GUID; neither sox nor libsndfile opens that. The
// same bytes re-wrapped in the plain fmt are what libsndfile decodes.
TEST(AdpcmWavPeers, ExtensibleFmtOfFfmpegDecodesAsItsPlainTwin) {
  test::TempDir dir;
  if (!Recording(dir / "in.wav", 96000, 2)) return;
  for (const char* codec : {"adpcm_ima_wav", "adpcm_ms"}) {
    SCOPED_TRACE(codec);
    const fs::path ext = dir / (std::string(codec) + "-ext.wav"), plain = dir / (std::string(codec) + ".wav");
    ASSERT_TRUE(test::RunPeer("ffmpeg", "-nostdin -v error -y -i '" + (dir / "in.wav").string() + "' -c:a " + codec +
                                            " '" + ext.string() + "'"));
    const std::string bytes = test::ReadFile(ext);
    ASSERT_EQ(bytes.compare(12, 4, "fmt "), 0);
    const uint32_t size = GetU32leOf(bytes, 16);
    const std::string body = bytes.substr(20, size);
    ASSERT_EQ(GetU32leOf(body, 0) & 0xFFFF, 0xFFFEu);
    const std::string plainFmt = Chunk("fmt ", body.substr(24, 2) + body.substr(2, 12) + body.substr(14, 2) +
                                                   Le16(size - 40) + body.substr(40));
    test::WriteFile(plain, Riff(plainFmt + bytes.substr(20 + size + (size & 1))));
    Loaded a = LoadWith(ext, wav_Imp), b = LoadWith(plain, wav_Imp);
    ASSERT_NE(a.wave, nullptr) << ErrorMessage;
    ASSERT_NE(b.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(a.wave->length, b.wave->length);
    EXPECT_GT(a.wave->length, 90000u);
    const std::vector<int16_t> ours = Ours(*a.wave);
    EXPECT_EQ(ours, Ours(*b.wave));
    std::vector<int16_t> lib;
    ASSERT_TRUE(test::SoundfileSamples16(plain, lib));
    EXPECT_SAMPLES_EQ(ours, lib, 8000);
  }
}

TEST(AdpcmWavPeers, YamahaFilesOfFfmpegDecodeAsFfmpegDecodesThem) {
  test::TempDir dir;
  for (int channels : {1, 2}) {
    const fs::path in = dir / "in.wav", out = dir / "yamaha.wav";
    if (!Recording(in, 22050, channels)) return;
    if (!test::RunPeer("ffmpeg", "-nostdin -v error -y -i '" + in.string() + "' -c:a adpcm_yamaha '" + out.string() + "'"))
      return;
    Loaded l = LoadWith(out, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(l.wave->channels, channels);
    std::vector<int16_t> ff;
    if (test::FfmpegSamples16(out, "", ff)) EXPECT_SAMPLES_EQ(Ours(*l.wave), ff, 8000);
  }
}

// libsndfile's G721_32 WAV packs its codes least significant bit first (its
// G72x pack_bytes); we and FFmpeg read tag 64 most significant bit
// first. Measured here, so that the issue can decide whether such files are
// to be recognised: FFmpeg and we read the file alike (up to FFmpeg's own
// MIX rounding), libsndfile reads it otherwise in nearly every sample, and the
// same codes taken least significant bit first are libsndfile's samples.
TEST(AdpcmWavPeers, LibsndfileG721WavPacksLeastSignificantBitFirst) {
  test::TempDir dir;
  const fs::path in = dir / "in.wav", out = dir / "g721.wav";
  if (!Recording(in, 8000, 1)) return;
  const std::string py = test::SoundfilePython();
  if (!test::Need(!py.empty(), "python3 with soundfile")) return;
  ASSERT_EQ(test::RunCommand(py + " -c \"import soundfile as sf; d, r = sf.read('" + in.string() +
                             "', dtype='int16'); sf.write('" + out.string() + "', d, r, subtype='G721_32')\""),
            0);
  Loaded l = LoadWith(out, wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  const std::vector<int16_t> ours = Ours(*l.wave);
  std::vector<int16_t> lib, ff;
  ASSERT_TRUE(test::SoundfileSamples16(out, lib));
  const Difference asIs = Compare(ours, lib, ours.size());
  EXPECT_GT(asIs.count, ours.size() * 9 / 10) << "read most significant bit first, nearly every sample differs";

  // The data chunk's codes, least significant bit first, in libsndfile's
  // dialect of the codec: its samples exactly.
  const std::string bytes = test::ReadFile(out);
  const std::size_t data = bytes.find("data") + 8;
  const std::string payload = bytes.substr(data, GetU32leOf(bytes, data - 4));
  const auto codes = Unpack(payload, 4, false, ours.size());
  EXPECT_SAMPLES_EQ(DecodeCodes(codes, 4, G72xDialect::Libsndfile), lib, ours.size());

  // FFmpeg reads the file most significant bit first, as we do: its samples
  // are those codes in its dialect, until the misread codes drive the
  // reconstruction out of 16 bits, where FFmpeg's 32-bit arithmetic parts
  // from the standard's wrap (measured: at sample 1116).
  if (test::FfmpegSamples16(out, "", ff)) {
    const auto msb = Unpack(payload, 4, true, ours.size());
    EXPECT_EQ(Compare(DecodeCodes(msb, 4, G72xDialect::Ffmpeg), ff).first, 1668);
    EXPECT_SAMPLES_EQ(DecodeCodes(msb, 4, G72xDialect::Itu), ours, ours.size());
    EXPECT_GT(Compare(ff, lib, ours.size()).count, ours.size() * 9 / 10);
  }
}

// ---------------------------------------------------------------- random payloads

// Random codes behind valid heads: IMA step indexes up to 88 with the
// reserved byte 0, MS predictors below 7.
std::string ImaBlocks(uint32_t channels, uint32_t blockAlign, int blocks, uint32_t seed) {
  std::string data = test::RandomPayload(blockAlign * blocks, seed);
  for (int b = 0; b < blocks; ++b)
    for (uint32_t c = 0; c < channels; ++c) {
      char* head = &data[b * blockAlign + 4 * c];
      head[2] = static_cast<char>(static_cast<uint8_t>(head[2]) % 89);
      head[3] = 0;
    }
  return data;
}
std::string MsBlocks(uint32_t channels, uint32_t blockAlign, int blocks, uint32_t seed) {
  std::string data = test::RandomPayload(blockAlign * blocks, seed);
  for (int b = 0; b < blocks; ++b) {
    char* head = &data[b * blockAlign];
    for (uint32_t c = 0; c < channels; ++c) {
      head[c] = static_cast<char>(static_cast<uint8_t>(head[c]) % 7);
      // A delta a real block could start with: 16 to 4111.
      head[channels + 2 * c + 1] = static_cast<char>(static_cast<uint8_t>(head[channels + 2 * c + 1]) & 0x0F);
    }
  }
  return data;
}

TEST(AdpcmWavRandom, Ima4EqualsLibsndfileAndSox) {
  test::TempDir dir;
  for (uint32_t channels : {1u, 2u})
    for (uint32_t seed : {1u, 2u}) {
      SCOPED_TRACE("channels " + std::to_string(channels) + " seed " + std::to_string(seed));
      const uint32_t align = 256 * channels, perBlock = 505;
      const fs::path path = dir / "ima.wav";
      test::WriteFile(path, Riff(ImaFmt(channels, 22050, align, 4, perBlock) + Fact(8 * perBlock) +
                                 Chunk("data", ImaBlocks(channels, align, 8, seed))));
      Loaded l = LoadWith(path, wav_Imp);
      ASSERT_NE(l.wave, nullptr) << ErrorMessage;
      const std::vector<int16_t> ours = Ours(*l.wave);
      std::vector<int16_t> lib, sox;
      if (test::SoundfileSamples16(path, lib)) EXPECT_SAMPLES_EQ(ours, lib, 8 * perBlock * channels);
      if (test::SoxSamples16(path, "", sox)) EXPECT_SAMPLES_EQ(ours, sox, 8 * perBlock * channels);
    }
}

TEST(AdpcmWavRandom, ImaTwoAndThreeBitsEqualFfmpeg) {
  test::TempDir dir;
  for (uint32_t bits : {2u, 3u})
    for (uint32_t channels : {1u, 2u}) {
      SCOPED_TRACE(std::to_string(bits) + " bits, channels " + std::to_string(channels));
      const uint32_t align = 256 * channels;
      const uint32_t perBlock = kvImaBlockFrames(align, static_cast<int>(channels), static_cast<int>(bits));
      const fs::path path = dir / "ima.wav";
      test::WriteFile(path, Riff(ImaFmt(channels, 22050, align, bits, perBlock) + Fact(6 * perBlock) +
                                 Chunk("data", ImaBlocks(channels, align, 6, 40 + bits))));
      Loaded l = LoadWith(path, wav_Imp);
      ASSERT_NE(l.wave, nullptr) << ErrorMessage;
      EXPECT_EQ(l.wave->length, 6 * perBlock);
      std::vector<int16_t> ff;
      if (test::FfmpegSamples16(path, "", ff)) EXPECT_SAMPLES_EQ(Ours(*l.wave), ff, 6 * perBlock * channels);
    }
}

// libsndfile is the reference of MS ADPCM: its delta is a 16-bit quantity
// (a product past 32767 wraps, and the floor of 16 catches it). sox keeps it
// in an int, so random codes, which grow the delta fast, part the two.
TEST(AdpcmWavRandom, MsAdpcmEqualsLibsndfile) {
  test::TempDir dir;
  for (uint32_t channels : {1u, 2u}) {
    SCOPED_TRACE("channels " + std::to_string(channels));
    const uint32_t align = 256 * channels, perBlock = 500;
    const fs::path path = dir / "ms.wav";
    test::WriteFile(path, Riff(MsFmt(channels, 22050, align, perBlock) + Fact(8 * perBlock) +
                               Chunk("data", MsBlocks(channels, align, 8, 7 + channels))));
    Loaded l = LoadWith(path, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    const std::vector<int16_t> ours = Ours(*l.wave);
    std::vector<int16_t> lib, sox;
    if (test::SoundfileSamples16(path, lib)) EXPECT_SAMPLES_EQ(ours, lib, 8 * perBlock * channels);
    if (test::SoxSamples16(path, "", sox)) {
      // Measured: sox parts at the first delta past 16 bits.
      const Difference d = Compare(ours, sox);
      EXPECT_EQ(d.first, channels == 1 ? 17 : 24) << "sox's int delta";
    }
  }
}

TEST(AdpcmWavRandom, YamahaEqualsFfmpeg) {
  test::TempDir dir;
  for (uint32_t channels : {1u, 2u}) {
    SCOPED_TRACE("channels " + std::to_string(channels));
    const fs::path path = dir / "yamaha.wav";
    const std::string data = test::RandomPayload(4000, 20 + channels);
    const uint32_t frames = channels == 1 ? 8000 : 4000;
    test::WriteFile(path, Riff(CodedFmt(32, channels, 22050, 1024, Le16(4) + Le16(0)) + Fact(frames) + Chunk("data", data)));
    Loaded l = LoadWith(path, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(l.wave->length, frames);
    std::vector<int16_t> ff;
    if (test::FfmpegSamples16(path, "", ff)) EXPECT_SAMPLES_EQ(Ours(*l.wave), ff, frames * channels);
  }
}

// G.721 and G.723 in AU, as sox and libsndfile read them (codes least
// significant bit first), and the same codes re-wrapped most significant bit
// first in WAVE for us. Each peer equals the codec in its own dialect; the
// standard's samples differ from each by what the dialect names.
TEST(AdpcmWavRandom, CcittInAuAgainstSoxAndLibsndfile) {
  test::TempDir dir;
  for (int bits : {3, 4, 5}) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    const std::string payload = test::RandomPayload(3000, 60 + bits);
    const std::size_t count = kvPackedCodeCount(payload.size(), bits);
    const uint32_t encoding = bits == 4 ? 23 : bits == 3 ? 25 : 26;
    const fs::path au = dir / "g72x.au", wav = dir / "g72x.wav";
    test::WriteFile(au, ".snd" + Be32(28) + Be32(static_cast<uint32_t>(payload.size())) + Be32(encoding) + Be32(8000) +
                            Be32(1) + std::string(4, '\0') + payload);
    const auto codes = Unpack(payload, bits, false, count);
    test::WriteFile(wav, Riff(CodedFmt(bits == 4 ? 64 : 20, 1, 8000, 8 * bits, Le16(bits) + Le16(0)) +
                              Fact(static_cast<uint32_t>(count)) + Chunk("data", Pack(codes, bits, true))));
    Loaded l = LoadWith(wav, wav_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    const std::vector<int16_t> ours = Ours(*l.wave);
    EXPECT_SAMPLES_EQ(ours, DecodeCodes(codes, bits, G72xDialect::Itu), count);
    std::vector<int16_t> sox, lib;
    if (test::SoxSamples16(au, "", sox)) {
      EXPECT_SAMPLES_EQ(DecodeCodes(codes, bits, G72xDialect::Sox), sox, count);
      const std::size_t soxDiffers[6] = {0, 0, 0, 23, 25, 14};  // measured
      EXPECT_EQ(Compare(ours, sox).count, soxDiffers[bits]) << "sox: a zero coefficient's exponent";
    }
    if (test::SoundfileSamples16(au, lib)) {
      EXPECT_SAMPLES_EQ(DecodeCodes(codes, bits, G72xDialect::Libsndfile), lib, count);
      const std::size_t libDiffers[6] = {0, 0, 0, 7840, 5910, 4766};  // measured
      EXPECT_EQ(Compare(ours, lib, count).count, libDiffers[bits]) << "libsndfile: FMULT without its rounding term";
    }
  }
}

// ---------------------------------------------------------------- the writer

// Indexes 11-14: tags 100, 20, 64, 20; block
// align 32, 48, 64, 80; fmt 16 bytes for index 11 (its cbSize unwritten) and
// 20 for the others (cbSize 2 and the codes of a block); fact; data (w *
// frames + 7) / 8, codes most significant bit first.
TEST(AdpcmWavWrite, IndexesElevenToFourteenAsThePartsTable) {
  Collection c;
  auto* w = Create<Waveform>(c, "tone");
  w->length = 1001;
  w->sampleRate = 8000;
  int16_t* s = AllocSamples16(*w);
  for (uint32_t i = 0; i < w->length; ++i) s[i] = static_cast<int16_t>(std::lround(12000.0 * std::sin(i * 0.05)));
  test::TempDir dir;
  const struct {
    int format;
    uint32_t tag, align, fmtSize, bits;
  } cases[] = {{kAdpcm2, 100, 32, 16, 2}, {kAdpcm3, 20, 48, 20, 3}, {kAdpcm4, 64, 64, 20, 4}, {kAdpcm5, 20, 80, 20, 5}};
  for (const auto& tc : cases) {
    SCOPED_TRACE(DataFormatName(tc.format));
    const fs::path path = dir / "out.wav";
    ASSERT_TRUE(WriteWaveFile(*w, path, SourceFormatBit(tc.format))) << ErrorContext << ": " << ErrorMessage;
    const std::string b = test::ReadFile(path);
    ASSERT_EQ(b.substr(12, 4), "fmt ");
    EXPECT_EQ(GetU32leOf(b, 16), tc.fmtSize);
    const std::size_t f = 20;
    EXPECT_EQ(GetU32leOf(b, f) & 0xFFFF, tc.tag);
    EXPECT_EQ(GetU32leOf(b, f) >> 16, 1u);
    EXPECT_EQ(GetU32leOf(b, f + 4), 8000u);
    EXPECT_EQ(GetU32leOf(b, f + 8), 8000 * tc.bits / 8);
    EXPECT_EQ(GetU32leOf(b, f + 12) & 0xFFFF, tc.align);
    EXPECT_EQ(GetU32leOf(b, f + 12) >> 16, tc.bits);
    if (tc.fmtSize == 20) {
      EXPECT_EQ(GetU32leOf(b, f + 16), 2u | (128u << 16));
    }
    const std::size_t fact = f + tc.fmtSize;
    ASSERT_EQ(b.substr(fact, 4), "fact");
    EXPECT_EQ(GetU32leOf(b, fact + 8), 1001u);
    ASSERT_EQ(b.substr(fact + 12, 4), "data");
    const uint32_t bytes = GetU32leOf(b, fact + 16);
    EXPECT_EQ(bytes, (tc.bits * 1001 + 7) / 8);
    // The codes are the standard's encoder's, most significant bit first.
    G72xState enc;
    kvG72xInit(enc, static_cast<int>(tc.bits));
    std::vector<unsigned> codes;
    for (uint32_t i = 0; i < w->length; ++i) codes.push_back(kvG72xEncode(enc, s[i]));
    EXPECT_EQ(b.substr(fact + 20, bytes), Pack(codes, static_cast<int>(tc.bits), true));
    // And we read them back as the codec decodes them.
    Loaded back = LoadWith(path, wav_Imp);
    ASSERT_NE(back.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(back.wave->length, 1001u);
    EXPECT_EQ(back.wave->bits, tc.bits);
    EXPECT_SAMPLES_EQ(Ours(*back.wave), DecodeCodes(codes, static_cast<int>(tc.bits), G72xDialect::Itu), 1001);
  }
}

// What we write, the peers read: FFmpeg every width (in its dialect of the
// codec, equal sample for sample on a real recording), libsndfile tag 64 as
// its G721_32 - least significant bit first, so that it reads our file as it
// reads its own after the nibbles of each byte trade places.
TEST(AdpcmWavWrite, PeersReadWhatWeWrite) {
  test::TempDir dir;
  const fs::path in = dir / "in.wav";
  if (!Recording(in, 8000, 1)) return;
  Loaded src = LoadWith(in, wav_Imp);
  ASSERT_NE(src.wave, nullptr) << ErrorMessage;
  for (int format : {kAdpcm2, kAdpcm3, kAdpcm4, kAdpcm5}) {
    const int bits = format - kAdpcm2 + 2;
    SCOPED_TRACE(std::to_string(bits) + " bits");
    const fs::path path = dir / "ours.wav";
    ASSERT_TRUE(WriteWaveFile(*src.wave, path, SourceFormatBit(format))) << ErrorMessage;
    const std::string b = test::ReadFile(path);
    const std::size_t data = b.find("data") + 8;
    const auto codes = Unpack(b.substr(data, GetU32leOf(b, data - 4)), bits, true, src.wave->length);
    std::vector<int16_t> ff;
    if (test::FfmpegSamples16(path, "", ff)) {
      // At 40 kbit/s the loudest stretch takes the reconstruction past 15
      // bits, where FFmpeg's 32-bit arithmetic parts from the standard's
      // 16-bit wrap (measured: sample 6074); below that, every sample.
      const Difference d = Compare(DecodeCodes(codes, bits, G72xDialect::Ffmpeg), ff, src.wave->length);
      EXPECT_EQ(d.first, bits == 5 ? 6074 : -1) << d.count << " differ";
    }
    std::vector<int16_t> lib;
    if (bits == 4 && test::SoundfileSamples16(path, lib)) {
      const auto swapped = Unpack(b.substr(data, GetU32leOf(b, data - 4)), 4, false, src.wave->length);
      EXPECT_SAMPLES_EQ(DecodeCodes(swapped, 4, G72xDialect::Libsndfile), lib, src.wave->length);
    }
  }
}

// The standard fixes the encoder, so our codes are libsndfile's for the
// same input - but for its FMULT without the rounding term: in that dialect
// the codes are equal, in the standard's they differ where the term counts.
TEST(AdpcmWavWrite, EncoderCodesAgainstLibsndfiles) {
  test::TempDir dir;
  const fs::path in = dir / "in.wav";
  if (!Recording(in, 8000, 1)) return;
  const std::string py = test::SoundfilePython();
  if (!test::Need(!py.empty(), "python3 with soundfile")) return;
  const std::vector<int16_t> pcm = PcmOf(in);
  for (int bits : {3, 4, 5}) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    const char* subtype = bits == 4 ? "G721_32" : bits == 3 ? "G723_24" : "G723_40";
    const fs::path au = dir / "lib.au";
    ASSERT_EQ(test::RunCommand(py + " -c \"import soundfile as sf; d, r = sf.read('" + in.string() +
                               "', dtype='int16'); sf.write('" + au.string() + "', d, r, subtype='" + subtype + "')\""),
              0);
    const std::string b = test::ReadFile(au);
    const uint32_t offset = (static_cast<uint8_t>(b[4]) << 24) | (static_cast<uint8_t>(b[5]) << 16) |
                            (static_cast<uint8_t>(b[6]) << 8) | static_cast<uint8_t>(b[7]);
    const auto theirs = Unpack(b.substr(offset), bits, false, pcm.size());
    for (G72xDialect dialect : {G72xDialect::Libsndfile, G72xDialect::Itu}) {
      G72xState enc;
      kvG72xInit(enc, bits, dialect);
      long first = -1;
      for (std::size_t i = 0; i < pcm.size() && first < 0; ++i)
        if (kvG72xEncode(enc, pcm[i]) != theirs[i]) first = static_cast<long>(i);
      if (dialect == G72xDialect::Libsndfile) {
        EXPECT_EQ(first, -1) << "libsndfile's codes, every one";
      } else {
        // The first code the rounding term changes (measured); the
        // encoders' states part there.
        const long firstDiffers[6] = {0, 0, 0, 23, 14, 15};
        EXPECT_EQ(first, firstDiffers[bits]) << "the standard's codes";
      }
    }
  }
}

// ---------------------------------------------------------------- bad input

TEST(AdpcmWavBad, FmtFieldsTheCodingCantHaveFailWithThePartsMessages) {
  test::TempDir dir;
  const std::string data = Chunk("data", std::string(512, '\x11'));
  const struct {
    std::string fmt;
    const char* message;
  } cases[] = {
      {ImaFmt(1, 8000, 0, 4, 505), "Unsupported or invalid IMA ADPCM file"},    // block align 0
      {ImaFmt(1, 8000, 256, 4, 506), "Unsupported or invalid IMA ADPCM file"},  // more than a block holds
      {ImaFmt(1, 8000, 256, 4, 0), "Unsupported or invalid IMA ADPCM file"},
      {ImaFmt(1, 8000, 256, 5, 505), "Unsupported or invalid IMA ADPCM file"},
      {MsFmt(1, 8000, 0, 500), "Unsupported or invalid MS ADPCM file"},
      {MsFmt(1, 8000, 256, 501), "Unsupported or invalid MS ADPCM file"},
      {MsFmt(1, 8000, 256, 500, 0), "Unsupported or invalid MS ADPCM file"},  // no coefficients
      {CodedFmt(64, 1, 8000, 64, Le16(1) + Le16(0)), "Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding"},
      {CodedFmt(20, 1, 8000, 64, Le16(6) + Le16(0)), "Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding"},
      {CodedFmt(23, 1, 8000, 1, Le16(3)), "Unsupported or invalid Dialogic ADPCM file"},
      {CodedFmt(32, 3, 8000, 1, Le16(4) + Le16(0)), "> 2ch Yamaha ADPCM not supported"},
      {CodedFmt(59, 1, 8000, 1, Le16(5)), "Unsupported or invalid Rockwell ADPCM file"},
      {CodedFmt(768, 2, 8000, 1, Le16(4)), "Can only handle mono Rockwell ADPCM format"},
  };
  for (const auto& c : cases) {
    const fs::path path = dir / "bad.wav";
    test::WriteFile(path, Riff(c.fmt + data));
    Loaded l = LoadWith(path, wav_Imp);
    EXPECT_FALSE(l.ok) << c.message;
    EXPECT_STREQ(ErrorContext, "wav_Imp");
    EXPECT_STREQ(ErrorMessage, c.message);
  }
  // A coefficient count past the bytes present is bounded by them.
  const fs::path huge = dir / "huge.wav";
  test::WriteFile(huge, Riff(MsFmt(1, 8000, 256, 500, 65535) + data));
  Loaded h = LoadWith(huge, wav_Imp);
  ASSERT_NE(h.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(h.wave->length, 1000u);
  EXPECT_EQ(Ours(*h.wave).size(), 1000u);
}

TEST(AdpcmWavBad, FactPastTheDataIsZerosForABlockAndCutBeyond) {
  test::TempDir dir;
  BoxCapture boxes;
  // 100 bytes of G.721: 200 frames. A fact of 2^32 - 1 is cut to them, with
  // a note, and nothing of 16 GB is allocated.
  const fs::path path = dir / "lie.wav";
  test::WriteFile(path, Riff(CodedFmt(64, 1, 8000, 64, Le16(4) + Le16(0)) + Fact(0xFFFFFFFF) +
                             Chunk("data", test::RandomPayload(100, 3))));
  Loaded l = LoadWith(path, wav_Imp);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, 200u);
  ASSERT_EQ(Boxes().size(), 1u);
  EXPECT_EQ(Boxes()[0].rfind("Note: ", 0), 0u) << Boxes()[0];
  EXPECT_EQ(Ours(*l.wave).size(), 200u);

  // A fact a little past the data: the frames it claims, zeros where the
  // data ends - and the chunk after data is no data.
  const fs::path near = dir / "near.wav";
  test::WriteFile(near, Riff(ImaFmt(1, 8000, 256, 4, 505) + Fact(600) + Chunk("data", ImaBlocks(1, 256, 1, 5)) +
                             Chunk("LIST", "INFO" + Chunk("ICMT", std::string(300, 'x')))));
  Boxes().clear();
  Loaded n = LoadWith(near, wav_Imp);
  ASSERT_NE(n.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(n.wave->length, 600u);
  EXPECT_TRUE(Boxes().empty());
  const std::vector<int16_t> s = Ours(*n.wave);
  ASSERT_EQ(s.size(), 600u);
  for (std::size_t i = 505; i < 600; ++i) ASSERT_EQ(s[i], 0) << i;
}

}  // namespace
}  // namespace kv
