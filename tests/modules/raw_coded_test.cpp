// The coded raw rows: Dialogic .vox, Yamaha .yadpcm, CCITT .g721/.g723/.g726
// in both bit orders, Rockwell and G.711, read and written, against the peers
// that read each: sox and libsndfile (vox, G.711), FFmpeg (g726, g726le) and
// the Rockwell coder of mgetty's pvftools.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "codecs/adpcm.h"
#include "codecs/g72x.h"
#include "codecs/rockwell.h"
#include "core/samplecodec.h"
#include "coded_support.h"
#include "formats/export.h"
#include "formats/modules/raw.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"

namespace kv {
namespace {

using namespace coded;

// The registry's row for an extension and, when several, the name's tail.
int Row(const char* extension, const char* nameTail = nullptr, bool writer = false) {
  for (int i = 0; i < kFormatCount; ++i) {
    const FormatEntry* e = FormatAt(i);
    if (std::strcmp(e->extension, extension) != 0 || (writer ? !e->write : !e->read)) continue;
    const std::string name = e->name;
    const std::size_t n = nameTail ? std::strlen(nameTail) : 0;
    if (!nameTail || (name.size() >= n && name.compare(name.size() - n, std::string::npos, nameTail) == 0)) return i;
  }
  ADD_FAILURE() << "no row " << extension << (nameTail ? nameTail : "");
  return 0;
}

Loaded LoadRow(const fs::path& path, int row) { return LoadWith(path, FormatAt(row)->read, FormatAt(row)->parameter); }

// Writes `wave` through a row's writer with `request`.
bool SaveRow(Waveform& wave, const fs::path& path, int row, uint32_t request) {
  FileRef file;
  if (!file.OpenWrite(path)) return false;
  ExportRequest r{request, FormatAt(row)->parameter, 0.0f};
  return FormatAt(row)->write(wave, file, r);
}

// A wave of a recording, mono at `rate`.
Loaded RecordingWave(const test::TempDir& dir, uint32_t rate) {
  Loaded l;
  if (!Recording(dir / "rec.wav", rate, 1)) return l;
  return LoadWith(dir / "rec.wav", wav_Imp);
}

// ---------------------------------------------------------------- rows

TEST(RawCodedRows, RegistryRowsAndRatesFromTheirNames) {
  const struct {
    int row;
    RawFamily family;
    uint32_t bits, rate;
    bool lsb;
  } rows[] = {{21, kRawALaw, 8, 8000, false},      {442, kRawMuLaw, 8, 8000, false},  {459, kRawDialogic, 4, 8000, false},
              {460, kRawDialogic, 4, 6000, false}, {461, kRawDialogic, 4, 8000, false}, {521, kRawYamaha, 4, 8000, false},
              {119, kRawCcitt, 4, 8000, false},    {121, kRawCcitt, 4, 8000, true},    {135, kRawCcitt, 3, 8000, false},
              {141, kRawCcitt, 5, 8000, false},    {146, kRawCcitt, 4, 8000, true},    {147, kRawCcitt, 2, 8000, false},
              {343, kRawRockwell, 4, 8000, false}, {344, kRawRockwell, 2, 8000, false}};
  for (const auto& r : rows) {
    const uint32_t p = FormatAt(r.row)->parameter;
    EXPECT_EQ(RawParameterFamily(p), r.family) << r.row;
    EXPECT_EQ(RawParameterBits(p), r.bits) << r.row;
    EXPECT_EQ(RawParameterRate(p), r.rate) << r.row;
    EXPECT_EQ(RawParameterLsbFirst(p), r.lsb) << r.row;
  }
  // A .vox file detects as the Dialogic row, not the raw fallback.
  test::TempDir dir;
  test::WriteFile(dir / "x.vox", test::RandomPayload(100, 1));
  FileRef f;
  ASSERT_TRUE(f.OpenRead(dir / "x.vox"));
  int confidence = 0;
  EXPECT_EQ(DetectFormat(dir / "x.vox", f, confidence), 459);
  EXPECT_EQ(confidence, 55);
}

// ---------------------------------------------------------------- Dialogic

TEST(RawVox, CorpusFileAsSoxAndLibsndfileDecodeIt) {
  if (!test::NeedCorpus()) return;
  const fs::path path = test::CorpusDir() / "other/gen-dialogic-8k.vox";
  Loaded l = LoadRow(path, 459);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(l.wave->length, 1324u);
  EXPECT_EQ(l.wave->sampleRate, 8000u);
  const std::vector<int16_t> ours = Ours(*l.wave);
  std::vector<int16_t> sox;
  if (test::SoxSamples16(path, "-t vox -r 8000", sox)) {
    EXPECT_EQ(sox.size(), 1324u);
    EXPECT_SAMPLES_EQ(ours, sox, 1324);
  }
  // The Dialogic note gives the magnitude as a shift-and-add sum; every
  // open decoder multiplies, ((2c + 1) * s) >> 3. The sum would
  // give other samples in 1318 of 1324 here, so the product stands.
  const std::string bytes = test::ReadFile(path);
  static constexpr int kSteps[49] = {16,  17,  19,  21,  23,  25,  28,  31,  34,  37,  41,  45,  50,  55,   60,   66,   73,
                                     80,  88,  97,  107, 118, 130, 143, 157, 173, 190, 209, 230, 253,  279,  307,  337,
                                     371, 408, 449, 494, 544, 598, 658, 724, 796, 876, 963, 1060, 1166, 1282, 1411, 1552};
  static constexpr int kMove[8] = {-1, -1, -1, -1, 2, 4, 6, 8};
  std::vector<int16_t> sum;
  int p = 0, i = 0;
  for (unsigned char b : bytes)
    for (unsigned c : {unsigned(b >> 4), unsigned(b & 15)}) {
      const int s = kSteps[i];
      int d = (c & 1) * (s >> 2) + ((c >> 1) & 1) * (s >> 1) + ((c >> 2) & 1) * s + (s >> 3);
      if (c & 8) d = -d;
      p = std::clamp(p + d * 16, -32768, 32767);
      i = std::clamp(i + kMove[c & 7], 0, 48);
      sum.push_back(static_cast<int16_t>(p));
    }
  EXPECT_EQ(Compare(ours, sum).count, 1318u);
}

// Random codes go past OKI's 12-bit range at once. sox and libsndfile limit
// the predictor at 16 bits, as we do, and equal us throughout;
// FFmpeg's adpcm_ima_oki (reading the codes in WAV, tag 23) limits at 12
// bits, as the chip, and parts from us at the first sample past them.
TEST(RawVox, RandomCodesEqualSoxAndLibsndfileAndFfmpegUpToTwelveBits) {
  test::TempDir dir;
  const fs::path path = dir / "r.vox";
  test::WriteFile(path, test::RandomPayload(4000, 31));
  Loaded l = LoadRow(path, 459);
  ASSERT_NE(l.wave, nullptr) << ErrorMessage;
  const std::vector<int16_t> ours = Ours(*l.wave);
  long limit = -1;
  for (std::size_t i = 0; i < ours.size() && limit < 0; ++i)
    if (ours[i] > 2047 * 16 || ours[i] < -2048 * 16) limit = static_cast<long>(i);
  EXPECT_EQ(limit, 18) << "the first sample past 12 bits";
  std::vector<int16_t> sox, lib, ff;
  if (test::SoxSamples16(path, "-t vox -r 8000", sox)) EXPECT_SAMPLES_EQ(ours, sox, ours.size());
  const fs::path wav = dir / "r.wav";
  test::WriteFile(wav, Riff(CodedFmt(23, 1, 8000, 1, Le16(4)) + Chunk("data", test::ReadFile(path))));
  if (test::FfmpegSamples16(wav, "", ff)) {
    EXPECT_EQ(Compare(ours, ff).first, limit);
  }
  const fs::path raw = dir / "r.raw";
  const std::string py = test::SoundfilePython();
  if (test::Need(!py.empty(), "python3 with soundfile") &&
      test::RunCommand(py + " -c \"import soundfile as sf; d, r = sf.read('" + path.string() +
                       "', dtype='int16', format='RAW', subtype='VOX_ADPCM', samplerate=8000, channels=1); "
                       "d.astype('<i2').tofile('" + raw.string() + "')\"") == 0) {
    const std::string b = test::ReadFile(raw);
    lib.resize(b.size() / 2);
    std::memcpy(lib.data(), b.data(), lib.size() * 2);
    EXPECT_SAMPLES_EQ(ours, lib, ours.size());
  }
}

// What we write, sox and libsndfile read as we do, sample for sample: the
// encoder never takes the predictor past 12 bits, where the decoders part.
// Its SNR is at least that of sox's own encoder on the same recording.
TEST(RawVox, WrittenFilesReadAlikeEverywhereAndSoundAtLeastAsGoodAsSoxs) {
  test::TempDir dir;
  Loaded src = RecordingWave(dir, 8000);
  if (!src.wave) return;
  const std::vector<int16_t> pcm = Ours(*src.wave);
  const fs::path ours = dir / "ours.vox";
  ASSERT_TRUE(SaveRow(*src.wave, ours, 459, 0)) << ErrorMessage;
  EXPECT_EQ(fs::file_size(ours), (pcm.size() + 1) / 2);
  Loaded back = LoadRow(ours, 459);
  ASSERT_NE(back.wave, nullptr) << ErrorMessage;
  const std::vector<int16_t> decoded = Ours(*back.wave);
  std::vector<int16_t> sox;
  if (test::SoxSamples16(ours, "-t vox -r 8000", sox)) EXPECT_SAMPLES_EQ(decoded, sox, pcm.size());
  const fs::path theirs = dir / "sox.vox";
  if (test::RunPeer("sox", "'" + (dir / "rec.wav").string() + "' -t vox '" + theirs.string() + "'")) {
    std::vector<int16_t> soxDecoded;
    test::SoxSamples16(theirs, "-t vox -r 8000", soxDecoded);
    const double mine = Snr(pcm, decoded), soxs = Snr(pcm, soxDecoded);
    EXPECT_GE(mine, soxs) << "ours " << mine << " dB, sox " << soxs << " dB";
  }
}

// ---------------------------------------------------------------- Yamaha

TEST(RawYamaha, RoundTripAndAtLeastFfmpegsSnr) {
  test::TempDir dir;
  Loaded src = RecordingWave(dir, 22050);
  if (!src.wave) return;
  const std::vector<int16_t> pcm = Ours(*src.wave);
  const fs::path ours = dir / "ours.yadpcm";
  ASSERT_TRUE(SaveRow(*src.wave, ours, 521, 0)) << ErrorMessage;
  Loaded back = LoadRow(ours, 521);
  ASSERT_NE(back.wave, nullptr) << ErrorMessage;
  const std::vector<int16_t> decoded = Ours(*back.wave);
  ASSERT_EQ(decoded.size(), pcm.size() + (pcm.size() & 1)) << "an odd count fills the last byte";
  // FFmpeg's adpcm_yamaha of the same recording, in WAV, decoded by FFmpeg.
  const fs::path ff = dir / "ff.wav";
  if (test::RunPeer("ffmpeg", "-nostdin -v error -y -i '" + (dir / "rec.wav").string() + "' -c:a adpcm_yamaha '" +
                                  ff.string() + "'")) {
    std::vector<int16_t> ffDecoded;
    test::FfmpegSamples16(ff, "", ffDecoded);
    const double mine = Snr(pcm, decoded), ffs = Snr(pcm, ffDecoded);
    EXPECT_GE(mine, ffs) << "ours " << mine << " dB, FFmpeg " << ffs << " dB";
  }
}

// ---------------------------------------------------------------- CCITT

// FFmpeg's raw G.726 at every code size, made from a recording, read by the
// g726-N rows (most significant bit first): our samples are the standard's;
// FFmpeg's are its dialect's, and at 40 kbit/s they part where the loudest
// stretch leaves 15 bits (measured).
TEST(RawCcitt, FfmpegFilesOfEveryWidth) {
  test::TempDir dir;
  if (!Recording(dir / "rec.wav", 8000, 1)) return;
  for (int bits = 2; bits <= 5; ++bits) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    const fs::path path = dir / ("x.g726-" + std::to_string(bits));
    if (!test::RunPeer("ffmpeg", "-nostdin -v error -y -i '" + (dir / "rec.wav").string() +
                                     "' -c:a adpcm_g726 -code_size " + std::to_string(bits) + " -f g726 '" +
                                     path.string() + "'"))
      return;
    Loaded l = LoadRow(path, Row(("g726-" + std::to_string(bits)).c_str()));
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    const std::vector<int16_t> ours = Ours(*l.wave);
    const auto codes = Unpack(test::ReadFile(path), bits, true, ours.size());
    EXPECT_SAMPLES_EQ(ours, DecodeCodes(codes, bits, G72xDialect::Itu), ours.size());
    std::vector<int16_t> ff;
    if (test::FfmpegSamples16(path, "-f g726 -code_size " + std::to_string(bits) + " -ar 8000", ff)) {
      const Difference d = Compare(DecodeCodes(codes, bits, G72xDialect::Ffmpeg), ff);
      EXPECT_EQ(d.first, -1) << d.count << " differ";
    }
  }
}

// Random codes of every width in both bit orders against FFmpeg's g726 and
// g726le: its dialect, until a reconstruction leaves 16 bits, where FFmpeg's
// 32-bit arithmetic and the standard's 16-bit wrap part (measured).
TEST(RawCcitt, RandomCodesAgainstFfmpeg) {
  test::TempDir dir;
  for (int bits = 2; bits <= 5; ++bits)
    for (bool lsb : {false, true}) {
      SCOPED_TRACE(std::to_string(bits) + (lsb ? " bits, g726le" : " bits, g726"));
      const std::string payload = test::RandomPayload(2000, 80 + bits);
      const fs::path path = dir / "r.g726";
      test::WriteFile(path, payload);
      const auto codes = Unpack(payload, bits, !lsb, kvPackedCodeCount(payload.size(), bits));
      std::vector<int16_t> ff;
      if (!test::FfmpegSamples16(path, std::string("-f ") + (lsb ? "g726le" : "g726") + " -code_size " +
                                           std::to_string(bits) + " -ar 8000",
                                 ff))
        return;
      const long first = Compare(DecodeCodes(codes, bits, G72xDialect::Ffmpeg), ff).first;
      const long expected[2][6] = {{0, 0, -1, -1, -1, -1}, {0, 0, -1, -1, -1, 3197}};  // measured
      EXPECT_EQ(first, expected[lsb][bits]);
    }
}

// Every width in both orders as we write it (the Big Endian row most
// significant bit first, the Little Endian row least): FFmpeg's g726 and
// g726le read the codes we wrote.
TEST(RawCcitt, WrittenBigAndLittleEndianRowsReadInFfmpeg) {
  test::TempDir dir;
  Loaded src = RecordingWave(dir, 8000);
  if (!src.wave) return;
  for (int bits = 2; bits <= 5; ++bits)
    for (bool lsb : {false, true}) {
      SCOPED_TRACE(std::to_string(bits) + (lsb ? " bits, little endian" : " bits, big endian"));
      const int row = Row("g726", lsb ? "Little Endian" : "Big Endian", true);
      const fs::path path = dir / "ours.g726";
      ASSERT_TRUE(SaveRow(*src.wave, path, row, SourceFormatBit(kAdpcm2 + bits - 2))) << ErrorMessage;
      const std::string bytes = test::ReadFile(path);
      EXPECT_EQ(bytes.size(), kvPackedCodeBytes(src.wave->length, bits));
      G72xState enc;
      kvG72xInit(enc, bits);
      const int16_t* s = Samples16(*src.wave);
      std::vector<unsigned> codes;
      for (uint32_t i = 0; i < src.wave->length; ++i) codes.push_back(kvG72xEncode(enc, s[i]));
      EXPECT_EQ(bytes, Pack(codes, bits, !lsb));
      std::vector<int16_t> ff;
      if (test::FfmpegSamples16(path, std::string("-f ") + (lsb ? "g726le" : "g726") + " -code_size " +
                                          std::to_string(bits) + " -ar 8000",
                                ff)) {
        // At 40 kbit/s the loudest stretch leaves 15 bits (measured, as in WAVE).
        const Difference d = Compare(DecodeCodes(codes, bits, G72xDialect::Ffmpeg), ff, codes.size());
        EXPECT_EQ(d.first, bits == 5 ? 6074 : -1) << d.count << " differ";
      }
    }
  // Without a width in the request a row takes its own: g723 3 bits, g726 4.
  const fs::path g723 = dir / "x.g723";
  ASSERT_TRUE(SaveRow(*src.wave, g723, Row("g723", "Big Endian", true), 0));
  EXPECT_EQ(fs::file_size(g723), kvPackedCodeBytes(src.wave->length, 3));
}

// ---------------------------------------------------------------- Rockwell

// Random codes without the modems' silence word.
std::string RockwellPayload(int bits, uint32_t seed) {
  static const uint16_t kSilence[3] = {0x13ec, 0x23de, 0xc11c};
  std::string p = test::RandomPayload(2000, seed);
  for (std::size_t i = 0; i + 1 < p.size(); i += 2)
    if ((static_cast<uint8_t>(p[i]) | (static_cast<uint8_t>(p[i + 1]) << 8)) == kSilence[bits - 2]) p[i] ^= 1;
  return p;
}

// pvftools' decoding: the codes through rmdtopvf and pvftolin.
bool PvftoolsSamples(const test::TempDir& dir, const std::string& payload, int bits, std::vector<int16_t>& out) {
  const fs::path rmd = dir / "x.rmd", pvf = dir / "x.pvf", lin = dir / "x.lin";
  std::string head = "RMD1" + std::string("Rockwell") + std::string(8, '\0');
  head += {0, static_cast<char>(bits), static_cast<char>(8000 >> 8), static_cast<char>(8000 & 0xFF), static_cast<char>(bits)};
  head += std::string(7, '\0');
  test::WriteFile(rmd, head + payload);
  if (!test::RunPeer("rmdtopvf", "'" + rmd.string() + "' '" + pvf.string() + "'") ||
      !test::RunPeer("pvftolin", "-W -S -I '" + pvf.string() + "' '" + lin.string() + "'"))
    return false;
  const std::string b = test::ReadFile(lin);
  out.resize(b.size() / 2);
  std::memcpy(out.data(), b.data(), out.size() * 2);
  return true;
}

// Our decoding of Rockwell codes, and the samples pvftools would give for
// them: our accumulator through its integer de-emphasis, HIWORD(sum + 2 *
// 13107 * y).
struct RockwellDecoding {
  std::vector<int16_t> ours, pvftools;
};
RockwellDecoding DecodeRockwell(const std::string& payload, int bits) {
  RockwellDecoding d;
  RockwellState s;
  kvRockwellInit(s, bits);
  const std::vector<uint8_t> bytes(payload.begin(), payload.end());
  CodeReader codes(bytes, bits, false);
  int32_t y = 0;
  for (std::size_t i = 0; i < kvPackedCodeCount(bytes.size(), bits); ++i) {
    d.ours.push_back(kvRockwellDecode(s, codes.Next()));
    const int64_t sum = std::clamp<int64_t>(int64_t{s.sum} + 2 * 13107 * int64_t{y}, INT32_MIN, INT32_MAX);
    y = static_cast<int16_t>(static_cast<uint32_t>(sum) >> 16);
    d.pvftools.push_back(static_cast<int16_t>(y));
  }
  return d;
}

// The Rockwell coder has no open peer in the strict sense, but mgetty's
// pvftools carry the modem maker's fixed-point code. Its predictor,
// quantiser and adaption are ours bit for bit: its samples are exactly our
// accumulator through its own integer de-emphasis, HIWORD(sum + 2 * 13107 *
// y). Our de-emphasis, r / 32728 + 0.4 y in floating point, leaves
// our samples within a measured distance of its.
TEST(RawRockwell, PredictorBitExactWithPvftoolsAndThePartsDeemphasis) {
  test::TempDir dir;
  for (int bits = 2; bits <= 4; ++bits) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    const std::string payload = RockwellPayload(bits, 90 + bits);
    std::vector<int16_t> pvf;
    if (!PvftoolsSamples(dir, payload, bits, pvf)) return;
    const RockwellDecoding d = DecodeRockwell(payload, bits);
    const std::vector<int16_t>& ours = d.ours;
    EXPECT_SAMPLES_EQ(d.pvftools, pvf, ours.size());
    const int largest[5] = {0, 0, 45, 46, 44};  // measured
    EXPECT_EQ(Compare(ours, pvf).largest, largest[bits]);
    // The rows read the same codes so.
    const fs::path path = dir / "x.rockwell";
    test::WriteFile(path, payload);
    Loaded l = LoadRow(path, Row(bits == 4 ? "rockwell-4" : bits == 3 ? "rockwell-3" : "rockwell-2"));
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_SAMPLES_EQ(Ours(*l.wave), ours, ours.size());
  }
}

// The round trip of a recording through our coder, locked at the SNR
// measured here; pvftools read what we write as its model says.
TEST(RawRockwell, WrittenFilesRoundTripAtTheLockedSnr) {
  test::TempDir dir;
  Loaded src = RecordingWave(dir, 8000);
  if (!src.wave) return;
  const std::vector<int16_t> pcm = Ours(*src.wave);
  const double locked[5] = {0, 0, 27.6314, 31.5374, 36.4538};  // dB, measured
  for (int bits = 2; bits <= 4; ++bits) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    const int row = Row(bits == 4 ? "rockwell-4" : bits == 3 ? "rockwell-3" : "rockwell-2");
    const fs::path path = dir / "ours.rockwell";
    ASSERT_TRUE(SaveRow(*src.wave, path, row, 0)) << ErrorMessage;
    Loaded back = LoadRow(path, row);
    ASSERT_NE(back.wave, nullptr) << ErrorMessage;
    const double snr = Snr(pcm, Ours(*back.wave));
    EXPECT_NEAR(snr, locked[bits], 0.005);
    const std::string written = test::ReadFile(path);
    std::vector<int16_t> pvf;
    if (PvftoolsSamples(dir, written, bits, pvf)) EXPECT_SAMPLES_EQ(DecodeRockwell(written, bits).pvftools, pvf, pcm.size());
  }
}

// ---------------------------------------------------------------- G.711

TEST(RawG711, RowsReadAsSoxAndWriteWhatTheyRead) {
  test::TempDir dir;
  const std::string payload = test::RandomPayload(3000, 5);
  for (bool alaw : {true, false}) {
    SCOPED_TRACE(alaw ? "A-law" : "mu-law");
    const fs::path path = dir / (alaw ? "x.alaw" : "x.ulaw");
    test::WriteFile(path, payload);
    Loaded l = LoadRow(path, alaw ? 21 : 442);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(l.wave->length, 3000u);
    const std::vector<int16_t> ours = Ours(*l.wave);
    std::vector<int16_t> sox;
    if (test::SoxSamples16(path, alaw ? "-t al -r 8000" : "-t ul -r 8000", sox)) EXPECT_SAMPLES_EQ(ours, sox, 3000);
    // Written through the program's own encoder (the one without the
    // G.711 bias), and read back as sox reads the same bytes.
    const fs::path out = dir / (alaw ? "o.alaw" : "o.ulaw");
    ASSERT_TRUE(SaveRow(*l.wave, out, alaw ? 21 : 442, 0)) << ErrorMessage;
    std::string codes(3000, '\0');
    for (std::size_t i = 0; i < ours.size(); ++i)
      codes[i] = static_cast<char>(alaw ? kvLinearToALaw(ours[i]) : kvLinearToMuLaw(ours[i]));
    EXPECT_EQ(test::ReadFile(out), codes);
    Loaded back = LoadRow(out, alaw ? 21 : 442);
    ASSERT_NE(back.wave, nullptr);
    std::vector<int16_t> soxBack;
    if (test::SoxSamples16(out, alaw ? "-t al -r 8000" : "-t ul -r 8000", soxBack)) EXPECT_SAMPLES_EQ(Ours(*back.wave), soxBack, 3000);
  }
}

// ---------------------------------------------------------------- bad input

TEST(RawCodedRows, TinyAndOddFiles) {
  test::TempDir dir;
  // One byte of 5-bit codes holds one code; of 4-bit Dialogic two.
  test::WriteFile(dir / "a.g726-5", std::string("\x80", 1));
  Loaded one = LoadRow(dir / "a.g726-5", Row("g726-5"));
  ASSERT_NE(one.wave, nullptr);
  EXPECT_EQ(one.wave->length, 1u);
  EXPECT_EQ(Ours(*one.wave).size(), 1u);
  test::WriteFile(dir / "b.vox", std::string("\x08", 1));
  Loaded vox = LoadRow(dir / "b.vox", 459);
  ASSERT_NE(vox.wave, nullptr);
  EXPECT_EQ(vox.wave->length, 2u);
  EXPECT_EQ(Ours(*vox.wave), (std::vector<int16_t>{32, 0}));  // codes 0 and 8: +(16 >> 3) * 16, then back
  // The lazy read of a file that shrank since: zeros where the data ended.
  test::WriteFile(dir / "b.vox", "");
  vox.wave->samples16.reset();
  const std::vector<int16_t> gone = Ours(*vox.wave);
  EXPECT_EQ(gone, (std::vector<int16_t>{0, 0}));
}

}  // namespace
}  // namespace kv
