// FLAC, Ogg Vorbis, Opus and WavPack: the corpus against libsndfile and the
// codecs' own tools, our files through flac, ogginfo, opusinfo and wvunpack,
// and bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "coded_support.h"
#include "core/param_ids.h"
#include "formats/modules/flac.h"
#include "formats/modules/ogg.h"
#include "formats/modules/wav.h"
#include "formats/modules/wv.h"

namespace kv {
namespace {

using namespace coded;

fs::path Corpus(const std::string& name) { return test::CorpusDir() / name; }
std::string Q(const fs::path& p) { return "'" + p.string() + "'"; }

// Every sample of `wave` equals libsndfile's decoding of `reference` (a file
// the peer made, or the same file), within `tolerance`.
void ExpectSamplesAs(const fs::path& reference, Waveform& wave, float tolerance = 0.0f) {
  std::vector<float> theirs;
  if (!test::SoundfileSamples(reference, theirs)) return;
  const float* ours = SamplesFloat(wave);
  ASSERT_NE(ours, nullptr) << ErrorContext << ": " << ErrorMessage;
  ASSERT_EQ(wave.SampleCount(), theirs.size()) << reference;
  std::size_t bad = 0;
  for (std::size_t i = 0; i < theirs.size(); ++i)
    if (std::fabs(ours[i] - theirs[i]) > tolerance && bad++ == 0)
      ADD_FAILURE() << reference << " sample " << i << ": " << ours[i] << " vs " << theirs[i];
  EXPECT_EQ(bad, 0u);
}

// The same samples, both read by our WAV reader (itself held to libsndfile).
void ExpectSameSamples(Waveform& a, const fs::path& b) {
  Loaded other = LoadWith(b, wav_Imp);
  ASSERT_NE(other.wave, nullptr) << b;
  ASSERT_EQ(a.SampleCount(), other.wave->SampleCount()) << b;
  const float* x = SamplesFloat(a);
  const float* y = SamplesFloat(*other.wave);
  ASSERT_TRUE(x && y);
  EXPECT_TRUE(std::equal(x, x + a.SampleCount(), y)) << b;
}

TEST(XiphCorpus, FlacFramesAndSamplesAsLibsndfileAndFlac) {
  if (!test::NeedCorpus()) return;
  const struct {
    const char* name;
    uint32_t frames;
  } files[] = {{"gen-flac-s16.flac", 96000}, {"gen-flac-s24.flac", 96000}, {"hydrogen-EE_Clap.flac", 9856},
               {"sfizz-kick.flac", 44012},   {"sfizz-root_key_38.flac", 2198}};
  for (const auto& f : files) {
    Loaded l = LoadWith(Corpus("compressed/" + std::string(f.name)), flac_Imp);
    ASSERT_NE(l.wave, nullptr) << f.name << ": " << ErrorMessage;
    EXPECT_EQ(l.wave->length, f.frames) << f.name;
    // libsndfile for two of them, flac -d for all (its WAV read by ours).
    if (f.frames == 96000) ExpectSamplesAs(Corpus("compressed/" + std::string(f.name)), *l.wave);
    if (!test::NeedTool("flac")) continue;
    test::TempDir dir;
    ASSERT_TRUE(test::RunPeer("flac", "-s -d -o " + Q(dir / "d.wav") + " " + Q(Corpus("compressed/" + std::string(f.name)))));
    ExpectSameSamples(*l.wave, dir / "d.wav");
  }

  // Root key, tuning and loop come from the kept WAV chunks, as the WAV has them.
  Loaded flac = LoadWith(Corpus("compressed/sfizz-root_key_38.flac"), flac_Imp);
  Loaded wav = LoadWith(Corpus("wav/sfizz-root_key_38.wav"), wav_Imp);
  ASSERT_NE(flac.wave, nullptr);
  ASSERT_NE(wav.wave, nullptr);
  EXPECT_EQ(flac.wave->rootKey, 38);
  EXPECT_EQ(flac.wave->fineTune, wav.wave->fineTune);
  EXPECT_EQ(flac.wave->loopType, wav.wave->loopType);
  EXPECT_EQ(flac.wave->loopStart, wav.wave->loopStart);
  EXPECT_EQ(flac.wave->loopEnd, wav.wave->loopEnd);
}

TEST(XiphCorpus, VorbisAndOpusAsLibsndfileWithTheirTitles) {
  if (!test::NeedCorpus()) return;
  Loaded vorbis = LoadWith(Corpus("compressed/gen-vorbis-q4.ogg"), ogg_Imp);
  ASSERT_NE(vorbis.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(vorbis.wave->length, 96000u);
  EXPECT_EQ(vorbis.wave->sampleRate, 48000u);
  EXPECT_STREQ(vorbis.wave->name, "Corpus Vorbis");
  ExpectSamplesAs(Corpus("compressed/gen-vorbis-q4.ogg"), *vorbis.wave, 1e-6f);

  Loaded opus = LoadWith(Corpus("compressed/gen-opus-96k.opus"), opus_Imp);
  ASSERT_NE(opus.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(opus.wave->length, 96000u);  // the pre-skip is not counted
  EXPECT_EQ(opus.wave->sampleRate, 48000u);
  EXPECT_STREQ(opus.wave->name, "Corpus Opus");
  ExpectSamplesAs(Corpus("compressed/gen-opus-96k.opus"), *opus.wave, 1e-6f);
}

TEST(XiphCorpus, WavPackAsWvunpackIncludingTheHybridWithAndWithoutItsCorrection) {
  if (!test::NeedCorpus() || !test::NeedTool("wvunpack")) return;
  test::TempDir dir;
  for (const char* name : {"gen-wavpack-lossless-s24.wv", "sfizz-kick.wv", "gen-wavpack-hybrid.wv"}) {
    const fs::path out = dir / (std::string(name) + ".wav");
    ASSERT_TRUE(test::RunPeer("wvunpack", "-q -y " + Q(Corpus("compressed/" + std::string(name))) + " -o " + Q(out)));
    Loaded l = LoadWith(Corpus("compressed/" + std::string(name)), wv_Imp);
    ASSERT_NE(l.wave, nullptr) << name << ": " << ErrorMessage;
    EXPECT_EQ(l.wave->length, std::string(name) == "sfizz-kick.wv" ? 44012u : 96000u);
    ExpectSameSamples(*l.wave, out);
  }
  // Alone, the hybrid file gives the lossy part, as wvunpack does.
  fs::copy_file(Corpus("compressed/gen-wavpack-hybrid.wv"), dir / "alone.wv");
  ASSERT_TRUE(test::RunPeer("wvunpack", "-q -y " + Q(dir / "alone.wv") + " -o " + Q(dir / "alone.wav")));
  Loaded alone = LoadWith(dir / "alone.wv", wv_Imp);
  ASSERT_NE(alone.wave, nullptr) << ErrorMessage;
  EXPECT_EQ(alone.wave->length, 96000u);
  ExpectSameSamples(*alone.wave, dir / "alone.wav");
  Loaded whole = LoadWith(Corpus("compressed/gen-wavpack-hybrid.wv"), wv_Imp);
  ASSERT_NE(whole.wave, nullptr);
  EXPECT_NE(Ours(*alone.wave), Ours(*whole.wave));
}

// ---------------------------------------------------------------- writers


bool Write(FormatWriteFn write, Waveform& wave, const fs::path& path, uint32_t request, uint32_t parameter,
           float rate = 0) {
  FileRef out;
  if (!out.OpenWrite(path)) return false;
  ExportRequest r{request, parameter, rate};
  ClearError();
  return write(wave, out, r);
}

TEST(XiphWriters, FlacIsBitExactThroughFlacWithCommentsAndKeptChunks) {
  if (!test::NeedCorpus() || !test::NeedTool("flac") || !test::NeedTool("metaflac") || !test::NeedTool("sox")) return;
  test::TempDir dir;
  ASSERT_TRUE(test::RunPeer("sox", Q(Corpus("wav/gen-s24-stereo-plain.wav")) + " " + Q(dir / "s24-mono.wav") + " remix 1"));
  const struct {
    fs::path source;
    uint32_t format;
  } cases[] = {{Corpus("wav/gen-u8-mono.wav"), kPcm8},           {Corpus("wav/pluck-pcm8.wav"), kPcm8},
               {Corpus("wav/gen-smpl-inst-cue.wav"), kPcm16},    {Corpus("wav/gen-s16-stereo.wav"), kPcm16},
               {dir / "s24-mono.wav", kPcm24},                   {Corpus("wav/gen-s24-stereo-plain.wav"), kPcm24}};
  int n = 0;
  for (const auto& c : cases) {
    Loaded src = LoadWith(c.source, wav_Imp);
    ASSERT_NE(src.wave, nullptr) << c.source;
    src.wave->SetParamText(kRowArtist, "Kelvo Tester");
    const fs::path flac = dir / ("out" + std::to_string(n++) + ".flac");
    ASSERT_TRUE(Write(flac_Exp, *src.wave, flac, (1u << c.format) | kCapMono | kCapStereo, 8))
        << ErrorContext << ": " << ErrorMessage;
    EXPECT_TRUE(test::RunPeer("flac", "-s -t " + Q(flac)));
    const fs::path back = dir / (flac.stem().string() + ".wav");
    ASSERT_TRUE(test::RunPeer("flac", "-s -f -d --keep-foreign-metadata -o " + Q(back) + " " + Q(flac)));
    ExpectSameSamples(*src.wave, back);
    std::string tags;
    EXPECT_EQ(test::RunCommand("metaflac --export-tags-to=- " + Q(flac), &tags), 0);
    EXPECT_NE(tags.find("ARTIST=Kelvo Tester"), std::string::npos) << tags;
    // The WAV flac gives back keeps our root key and loop.
    Loaded restored = LoadWith(back, wav_Imp);
    ASSERT_NE(restored.wave, nullptr);
    EXPECT_EQ(restored.wave->rootKey, src.wave->rootKey);
    EXPECT_EQ(restored.wave->loopType, src.wave->loopType);
    EXPECT_EQ(restored.wave->loopStart, src.wave->loopStart);
    EXPECT_EQ(restored.wave->loopEnd, src.wave->loopEnd);
    // And so does our own reading of the FLAC file.
    Loaded again = LoadWith(flac, flac_Imp);
    ASSERT_NE(again.wave, nullptr);
    EXPECT_EQ(again.wave->loopEnd, src.wave->loopEnd);
    EXPECT_STREQ(again.wave->artist, "Kelvo Tester");
  }
}

TEST(XiphWriters, VorbisAndOpusPassTheirInfoToolsAtTheAskedRateAndLength) {
  if (!test::NeedCorpus()) return;
  test::TempDir dir;
  Loaded src = LoadWith(Corpus("wav/gen-s16-stereo.wav"), wav_Imp);
  ASSERT_NE(src.wave, nullptr);
  ASSERT_TRUE(Write(ogg_Exp, *src.wave, dir / "a.ogg", kCapCompressed | kCapStereo, 0, 128)) << ErrorMessage;
  ASSERT_TRUE(Write(opus_Exp, *src.wave, dir / "m.opus", kCapCompressed | kCapStereo, 0, 64)) << ErrorMessage;
  ASSERT_TRUE(Write(opus_Exp, *src.wave, dir / "v.opus", kCapCompressed | kCapStereo, 1, 24)) << ErrorMessage;
  char text[64];
  EXPECT_EQ(ogg_Rate(5, 0, text), 128.0f);
  EXPECT_STREQ(text, "OGG 128 kbit/s");
  EXPECT_EQ(opus_Rate(4, 0, text), 24.0f);
  EXPECT_STREQ(text, "Opus 24 kbit/s");

  if (test::NeedTool("ogginfo") && test::NeedTool("oggdec")) {
    std::string info;
    test::RunCommand("ogginfo " + Q(dir / "a.ogg") + " 2>&1", &info);
    EXPECT_EQ(info.find("WARNING"), std::string::npos) << info;
    EXPECT_NE(info.find("Nominal bitrate: 128.000000 kb/s"), std::string::npos) << info;
    ASSERT_TRUE(test::RunPeer("oggdec", "-Q -o " + Q(dir / "a.wav") + " " + Q(dir / "a.ogg")));
    Loaded back = LoadWith(dir / "a.wav", wav_Imp);
    ASSERT_NE(back.wave, nullptr);
    EXPECT_EQ(back.wave->length, 24000u);
  }
  if (test::NeedTool("opusinfo") && test::NeedTool("opusdec")) {
    for (const char* name : {"m", "v"}) {
      std::string info;
      test::RunCommand("opusinfo " + Q(dir / (std::string(name) + ".opus")) + " 2>&1", &info);
      EXPECT_EQ(info.find("WARNING"), std::string::npos) << info;
      ASSERT_TRUE(test::RunPeer("opusdec", "--quiet " + Q(dir / (std::string(name) + ".opus")) + " " +
                                               Q(dir / (std::string(name) + ".wav"))));
      Loaded back = LoadWith(dir / (std::string(name) + ".wav"), wav_Imp);
      ASSERT_NE(back.wave, nullptr);
      // opusdec resamples to 48 kHz: the source's 0.5 s.
      EXPECT_EQ(back.wave->length, 24000u * 48000 / src.wave->sampleRate) << name;
    }
  }
  Loaded ours = LoadWith(dir / "m.opus", opus_Imp);
  ASSERT_NE(ours.wave, nullptr);
  EXPECT_EQ(ours.wave->length, 24000u * 48000 / src.wave->sampleRate);
}

TEST(XiphWriters, WavPackIsBitExactThroughWvunpackIncludingFloatAndKeepsSmpl) {
  if (!test::NeedCorpus() || !test::NeedTool("wvunpack")) return;
  test::TempDir dir;
  const struct {
    const char* name;
    uint32_t format;
  } cases[] = {{"wav/gen-smpl-inst-cue.wav", kPcm16}, {"wav/pluck-pcm24.wav", kPcm24}, {"wav/gen-f32-stereo.wav", kFloat32},
               {"wav/gen-u8-mono.wav", kPcm8},        {"wav/gen-s32-stereo.wav", kPcm32}};
  for (const auto& c : cases) {
    Loaded src = LoadWith(Corpus(c.name), wav_Imp);
    ASSERT_NE(src.wave, nullptr) << c.name;
    const fs::path wv = dir / (fs::path(c.name).stem().string() + ".wv");
    ASSERT_TRUE(Write(wv_Exp, *src.wave, wv, (1u << c.format) | kCapMono | kCapStereo, 0)) << ErrorMessage;
    EXPECT_TRUE(test::RunPeer("wvunpack", "-q -v " + Q(wv)));
    const fs::path back = dir / (wv.stem().string() + ".wav");
    ASSERT_TRUE(test::RunPeer("wvunpack", "-q -y " + Q(wv) + " -o " + Q(back)));
    ExpectSameSamples(*src.wave, back);
    Loaded restored = LoadWith(back, wav_Imp);
    ASSERT_NE(restored.wave, nullptr);
    EXPECT_EQ(restored.wave->rootKey, src.wave->rootKey) << c.name;
    EXPECT_EQ(restored.wave->loopEnd, src.wave->loopEnd) << c.name;
    Loaded ours = LoadWith(wv, wv_Imp);
    ASSERT_NE(ours.wave, nullptr);
    EXPECT_EQ(ours.wave->loopStart, src.wave->loopStart);
    ExpectSameSamples(*ours.wave, Corpus(c.name));
  }
}

// ---------------------------------------------------------------- bad input

TEST(XiphBadInput, LyingAndBrokenHeadsFailOrShrinkCleanly) {
  if (!test::NeedCorpus()) return;
  test::TempDir dir;
  // A STREAMINFO claiming 2^36 - 1 frames over a cut stream: the wave ends
  // where the data does, and the MD5 no longer matches.
  std::string flac = test::ReadFile(Corpus("compressed/sfizz-kick.flac"));
  ASSERT_GT(flac.size(), 20000u);
  flac[8 + 13] = static_cast<char>(flac[8 + 13] | 0x0F);
  for (int i = 14; i < 18; ++i) flac[8 + i] = '\xFF';
  flac.resize(20000);
  test::WriteFile(dir / "lying.flac", flac);
  {
    BoxCapture boxes;
    Loaded l = LoadWith(dir / "lying.flac", flac_Imp);
    ASSERT_NE(l.wave, nullptr) << ErrorMessage;
    EXPECT_EQ(l.wave->length, 0xFFFFFFFFu);
    ASSERT_TRUE(l.wave->EnsureData()) << ErrorMessage;
    EXPECT_GT(l.wave->length, 10000u);
    EXPECT_LT(l.wave->length, 44012u);
    ASSERT_EQ(Boxes().size(), 1u);
    EXPECT_EQ(Boxes()[0].rfind("Warning", 0), 0u);
  }
  // Not the format at all.
  test::WriteFile(dir / "junk.ogg", std::string(4000, 'x'));
  Loaded junk = LoadWith(dir / "junk.ogg", ogg_Imp);
  EXPECT_FALSE(junk.ok);
  EXPECT_STREQ(ErrorContext, "kvOggDecHelper");
  EXPECT_STREQ(ErrorMessage, "Could not open Ogg file");
  Loaded junkOpus = LoadWith(dir / "junk.ogg", opus_Imp);
  EXPECT_FALSE(junkOpus.ok);
  EXPECT_STREQ(ErrorMessage, "Failed opening Opus stream");
  Loaded junkWv = LoadWith(dir / "junk.ogg", wv_Imp);
  EXPECT_FALSE(junkWv.ok);
  EXPECT_STREQ(ErrorMessage, "WavPack initialization failed!");
  Loaded junkFlac = LoadWith(dir / "junk.ogg", flac_Imp);
  EXPECT_FALSE(junkFlac.ok);
  EXPECT_STREQ(ErrorContext, "flac_Imp");

  Loaded src = LoadWith(Corpus("wav/gen-s16-stereo.wav"), wav_Imp);
  ASSERT_NE(src.wave, nullptr);
  EXPECT_FALSE(Write(ape_Exp, *src.wave, dir / "x.ape", 0, 0));
  EXPECT_STREQ(ErrorMessage, "Monkey's Audio compression is not available on this system");
}

}  // namespace
}  // namespace kv
