#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "formats/modules/aiff.h"
#include "formats/modules/akai.h"
#include "formats/modules/dls.h"
#include "formats/modules/mid.h"
#include "formats/modules/mod.h"
#include "formats/modules/sf2.h"
#include "formats/modules/sfz.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"

namespace kv {
namespace {

using Bytes = std::vector<uint8_t>;

void Put(Bytes& b, std::size_t at, std::string_view s) {
  if (b.size() < at + s.size()) b.resize(at + s.size());
  std::memcpy(b.data() + at, s.data(), s.size());
}
void Put32le(Bytes& b, std::size_t at, uint32_t v) {
  if (b.size() < at + 4) b.resize(at + 4);
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void Chunk(Bytes& b, std::string_view id, uint32_t size) {
  const std::size_t at = b.size();
  Put(b, at, id);
  Put32le(b, at + 4, size);
  b.resize(at + 8 + size + (size & 1));
}

// Scores a buffer the way the registry calls detect functions; the copy has
// exactly `size` bytes so that a sanitizer build catches any overread.
int Score(FormatDetectFn fn, const Bytes& b, uint32_t parameter = 0, uint64_t fileSize = 0) {
  Bytes copy(b);
  return fn(copy.data(), parameter, static_cast<uint32_t>(copy.size()), fileSize ? fileSize : copy.size());
}

Bytes Riff(std::string_view form) {
  Bytes b;
  Put(b, 0, "RIFF");
  Put32le(b, 4, 4);
  Put(b, 8, form);
  return b;
}

TEST(WavDetect, BroadcastChunkMustComeEarlyAndBeforeData) {
  Bytes b = Riff("WAVE");
  Chunk(b, "fmt ", 16);
  Chunk(b, "bext", 3);  // odd size: padded
  EXPECT_EQ(Score(wav_BwfDetect, b), 6);
  EXPECT_EQ(Score(wav_Detect, b), 6);

  Bytes late = Riff("WAVE");
  for (const char* id : {"fmt ", "LIST", "PAD ", "cue "}) Chunk(late, id, 5);
  Chunk(late, "bext", 4);
  EXPECT_EQ(Score(wav_BwfDetect, late), 2);  // fifth chunk

  Bytes afterData = Riff("WAVE");
  Chunk(afterData, "data", 2);
  Chunk(afterData, "bext", 4);
  EXPECT_EQ(Score(wav_BwfDetect, afterData), 2);
  EXPECT_EQ(Score(wav_BwfDetect, Riff("AVI ")), 0);
}

TEST(WavDetect, LookAlikes) {
  Bytes rockwell = Riff("WAVE");
  Chunk(rockwell, "fmt ", 16);
  rockwell[20] = 0x00;
  rockwell[21] = 0x03;
  EXPECT_EQ(Score(wav_RockwellDetect, rockwell), 6);
  rockwell[21] = 0x01;
  EXPECT_EQ(Score(wav_RockwellDetect, rockwell), 0);

  Bytes sds;
  Put(sds, 0, "SDSS");
  Put(sds, 8, "WAVE");
  EXPECT_EQ(Score(wav_SdsDetect, sds), 4);
  EXPECT_EQ(Score(wav_Detect, sds), 0);

  const uint8_t riff[16] = {0x72, 0x69, 0x66, 0x66, 0x2E, 0x91, 0xCF, 0x11, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0, 0};
  const uint8_t wave[16] = {0x77, 0x61, 0x76, 0x65, 0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
  Bytes w64(40);
  std::memcpy(w64.data(), riff, 16);
  std::memcpy(w64.data() + 24, wave, 16);
  EXPECT_EQ(Score(wav_W64Detect, w64), 6);
  w64.resize(39);
  EXPECT_EQ(Score(wav_W64Detect, w64), 0);
}

Bytes SoundFont(int major) {
  Bytes b = Riff("sfbk");
  Put(b, 12, "LIST");
  Put32le(b, 16, 16);
  Put(b, 20, "INFO");
  Put(b, 24, "ifil");
  Put32le(b, 28, 4);
  b.resize(36);
  b[32] = static_cast<uint8_t>(major);
  return b;
}

TEST(Sf2Detect, VersionPicksTheRow) {
  EXPECT_EQ(Score(sf2_Detect, SoundFont(2), 0), 6);
  EXPECT_EQ(Score(sf2_Detect, SoundFont(2), 1), 0);  // not a SoundFont 1 bank
  EXPECT_EQ(Score(sf2_Detect, SoundFont(1), 1), 6);
  EXPECT_EQ(Score(sf2_Detect, SoundFont(3), 3), 6);
  EXPECT_EQ(Score(sf2_Detect, SoundFont(3), 0), 4);  // readable, but sf3 is better
  Bytes noInfo = Riff("sfbk");
  EXPECT_EQ(Score(sf2_Detect, noInfo, 0), 4);
  EXPECT_EQ(Score(sf2_Detect, Riff("WAVE"), 0), 0);
}

TEST(Sf2Detect, SfArkMarkerNeedsItsWholeHeader) {
  Bytes b(42);
  Put(b, 26, "sfArk");
  EXPECT_EQ(Score(sf2_SfArkDetect, b), 6);
  b.resize(41);
  EXPECT_EQ(Score(sf2_SfArkDetect, b), 0);
  Bytes later(200);
  Put(later, 100 + 26, "sfArk");
  EXPECT_EQ(Score(sf2_SfArkDetect, later), 4);
}

TEST(DlsDetect, GigaChunksTellGigaStudioFromDls) {
  Bytes dls = Riff("DLS ");
  Chunk(dls, "colh", 4);
  EXPECT_EQ(Score(dls_Detect, dls), 6);
  EXPECT_EQ(Score(dls_GigDetect, dls), 2);
  Bytes gig = dls;
  Chunk(gig, "3ewg", 12);
  EXPECT_EQ(Score(dls_Detect, gig), 4);
  EXPECT_EQ(Score(dls_GigDetect, gig), 6);
  EXPECT_EQ(Score(dls_MlsDetect, Riff("MLS ")), 6);
  EXPECT_EQ(Score(dls_MlsDetect, dls), 0);

  Bytes compressed = Riff("WAVE");
  Chunk(compressed, "fmt ", 16);
  Chunk(compressed, "data", 10);
  Chunk(compressed, "ewav", 68);
  EXPECT_EQ(Score(dls_GigWaveDetect, compressed), 6);
  EXPECT_EQ(Score(dls_GigWaveDetect, Riff("WAVE")), 2);
}

TEST(SfzDetect, TextWithHeaders) {
  const std::string sfz = "// kit\n<group> lovel=1\n<region> sample=a b.wav lokey=36\n";
  EXPECT_EQ(Score(sfz_Detect, Bytes(sfz.begin(), sfz.end())), 4);
  const std::string plain = "sample=kick.wav\n";
  EXPECT_EQ(Score(sfz_Detect, Bytes(plain.begin(), plain.end())), 2);
  Bytes binary(sfz.begin(), sfz.end());
  binary[3] = 0;
  EXPECT_EQ(Score(sfz_Detect, binary), 0);
  const std::string cut = "<regi";  // a header cut by the buffer's end
  EXPECT_EQ(Score(sfz_Detect, Bytes(cut.begin(), cut.end())), 2);
}

Bytes AkaiSample(bool s3000, uint32_t frames) {
  Bytes b(s3000 ? 192 : 150);
  b[0] = 3;
  Put32le(b, 26, frames);
  b.resize(b.size() + frames * 2, 0x11);  // sample data is not zero
  return b;
}

TEST(AkaiDetect, SampleFormFromTheHeaderSize) {
  const Bytes s3000 = AkaiSample(true, 100);
  EXPECT_EQ(Score(akai_SampleDetect, s3000, 3), 4);
  EXPECT_EQ(Score(akai_SampleDetect, s3000, 1), 2);
  const Bytes s1000 = AkaiSample(false, 100);
  EXPECT_EQ(Score(akai_SampleDetect, s1000, 1), 4);
  EXPECT_EQ(Score(akai_SampleDetect, s1000, 3), 2);
  // Zeros at 150 but the S3000 data wouldn't fit: the S1000 size is taken.
  Bytes silent(150 + 50 * 2);
  silent[0] = 3;
  Put32le(silent, 26, 50);
  EXPECT_EQ(Score(akai_SampleDetect, silent, 1), 4);
  // Data beyond the end of the file: the shape is there, the promise isn't.
  EXPECT_EQ(Score(akai_SampleDetect, AkaiSample(true, 100), 3, 200), 2);
  Bytes tiny(191);
  tiny[0] = 3;
  EXPECT_EQ(Score(akai_SampleDetect, tiny, 1), 0);
}

TEST(AkaiDetect, S900Sample) {
  Bytes b(60 + 300);
  Put(b, 0, "COWBELL   ");
  Put32le(b, 16, 200);  // count
  b[20] = 0x44;         // rate low byte
  Put32le(b, 28, 199);  // end
  Put32le(b, 32, 0);    // start
  Put32le(b, 36, 100);  // loop length
  EXPECT_EQ(Score(akai_SampleDetect, b, 9), 2);
  Put32le(b, 32, 250);  // start past the count and the end
  EXPECT_EQ(Score(akai_SampleDetect, b, 9), 0);
}

TEST(AkaiDetect, ProgramsAndImages) {
  Bytes p(300);
  p[0] = 1;
  for (int i = 3; i < 15; ++i) p[i] = 11 + i;  // letters in the machine's code
  EXPECT_EQ(Score(akai_ProgramDetect, p, 1), 2);
  p[150] = 2;
  EXPECT_EQ(Score(akai_ProgramDetect, p, 1), 4);
  EXPECT_EQ(Score(akai_ProgramDetect, p, 3), 2);
  EXPECT_EQ(Score(akai_ProgramDetect, p, 9), 0);  // plainly an S1000 program
  p[5] = 41;  // not a name code
  EXPECT_EQ(Score(akai_ProgramDetect, p, 1), 0);
  EXPECT_EQ(Score(akai_ProgramDetect, p, 9), 2);

  const Bytes head(16);
  EXPECT_EQ(Score(akai_DiskDetect, head, 0, 819200), 2);
  EXPECT_EQ(Score(akai_DiskDetect, head, 0, 1638400 + 1023), 2);  // whole KiB
  EXPECT_EQ(Score(akai_DiskDetect, head, 0, 1638400 - 1), 0);
  EXPECT_EQ(Score(akai_DiskDetect, head, 1, 24576 + 819200), 2);
  EXPECT_EQ(Score(akai_DiskDetect, head, 1, 100), 0);

  EXPECT_EQ(Score(akai_AkpDetect, Riff("APRG")), 6);
}

TEST(MidDetect, HeaderMustFit) {
  Bytes smf;
  Put(smf, 0, std::string("MThd\0\0\0\6\0\1\0\2\0\x60", 14));
  EXPECT_EQ(Score(mid_Detect, smf), 6);
  EXPECT_EQ(Score(mid_Detect, Bytes(smf.begin(), smf.begin() + 13)), 0);
  EXPECT_EQ(Score(rmid_Detect, Riff("RMID")), 6);
  EXPECT_EQ(Score(rmid_Detect, Riff("WAVE")), 0);
}

TEST(AiffDetect, FormTypeByParameter) {
  Bytes b;
  Put(b, 0, "FORM");
  Put(b, 8, "AIFC");
  EXPECT_EQ(Score(aiff_Detect, b, 1), 6);
  EXPECT_EQ(Score(aiff_Detect, b, 0), 0);
  EXPECT_EQ(Score(aiff_Detect, b, 7), 0);
  Put(b, 8, "MAUD");
  EXPECT_EQ(Score(aiff_Detect, b, 2), 6);
  Put(b, 8, "8SVX");
  EXPECT_EQ(Score(aiff_IffDetect, b), 6);
  EXPECT_EQ(Score(aiff_Detect, b, 0), 0);
}

Bytes ModHeader(const char* tag, int positions) {
  Bytes b(1084 + 1024);
  Put(b, 0, "song");
  b[950] = static_cast<uint8_t>(positions);
  if (tag) Put(b, 1080, tag);
  return b;
}

TEST(ModDetect, SignaturesAndTheUnsignedOldForm) {
  EXPECT_EQ(Score(mod_Detect, ModHeader("M.K.", 10)), 6);
  EXPECT_EQ(Score(mod_Detect, ModHeader("FLT8", 10)), 6);
  EXPECT_EQ(Score(mod_Detect, ModHeader("M.K.", 0)), 4);  // signature, odd header
  Bytes old(600 + 1024);
  old[470] = 3;
  EXPECT_EQ(Score(mod_Detect, old), 2);
  old[472] = 200;  // order table entry out of range
  EXPECT_EQ(Score(mod_Detect, old), 0);

  Bytes xm;
  Put(xm, 0, "Extended Module: ");
  Put32le(xm, 60, 276);
  xm.resize(336);
  EXPECT_EQ(Score(mod_XmDetect, xm), 6);
  EXPECT_EQ(Score(mod_XmDetect, Bytes(xm.begin(), xm.begin() + 335)), 0);
  EXPECT_LE(Score(mod_Detect, xm), 2);
}

TEST(ModDetect, OtherTrackers) {
  Bytes s3m(96);
  Put(s3m, 44, "SCRM");
  EXPECT_EQ(Score(mod_S3mDetect, s3m), 6);
  EXPECT_EQ(Score(mod_S3mDetect, Bytes(s3m.begin(), s3m.begin() + 47)), 0);

  Bytes stm(48);
  Put(stm, 20, "!Scream!");
  stm[28] = 0x1A;
  stm[29] = 2;
  EXPECT_EQ(Score(mod_StmDetect, stm), 6);
  Put(stm, 20, "Other tr");
  EXPECT_EQ(Score(mod_StmDetect, stm), 4);
  stm[29] = 16;  // an S3M's type byte
  EXPECT_EQ(Score(mod_StmDetect, stm), 0);

  Bytes med(64);
  Put(med, 0, "MMD1");
  EXPECT_EQ(Score(mod_MedDetect, med), 6);
  Put(med, 0, "MED\x03");
  EXPECT_EQ(Score(mod_MedDetect, med), 0);
  // Found by fuzzing: the signature cut by the buffer's end, file longer.
  EXPECT_EQ(Score(mod_MedDetect, Bytes{'M', 'M', 'D'}, 0, 1 << 20), 0);

  Bytes ams(16);
  Put(ams, 0, "AMShdr\x1A");
  EXPECT_EQ(Score(mod_AmsDetect, ams, 1), 6);
  EXPECT_EQ(Score(mod_AmsDetect, ams, 0), 0);
}

// Every scorer of the table on every prefix of real-looking heads, and on
// sizes that lie about the file: none may read past `size` or crash.
TEST(DetectSafety, EveryScorerOnEveryPrefix) {
  std::vector<Bytes> heads = {SoundFont(2), AkaiSample(true, 20), ModHeader("M.K.", 4), Riff("DLS ")};
  Bytes wave = Riff("WAVE");
  Chunk(wave, "bext", 8);
  heads.push_back(wave);
  std::set<std::pair<FormatDetectFn, uint32_t>> scorers;
  for (int i = 0; i < kFormatCount; ++i)
    if (FormatTable()[i].detect) scorers.insert({FormatTable()[i].detect, FormatTable()[i].parameter});
  for (const Bytes& head : heads) {
    for (std::size_t n = 0; n <= head.size(); ++n) {
      const Bytes prefix(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(n));
      for (const auto& [fn, parameter] : scorers) {
        for (uint64_t fileSize : {uint64_t{n}, uint64_t{n} + 1000, uint64_t{1} << 40}) {
          const int score = Score(fn, prefix, parameter, fileSize ? fileSize : 1);
          ASSERT_TRUE(score == 0 || score == 2 || score == 4 || score == 6) << score;
        }
      }
    }
  }
}

}  // namespace
}  // namespace kv
