#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/samplecodec.h"
#include "core/wavestore.h"
#include "support/testsupport.h"

namespace kv {
namespace {

std::string Bytes(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) s += static_cast<char>(v);
  return s;
}

std::string Le16(std::initializer_list<int> values) {
  std::string s;
  for (int v : values) {
    s += static_cast<char>(v & 0xFF);
    s += static_cast<char>((v >> 8) & 0xFF);
  }
  return s;
}

// ---- kernels ----

TEST(FloatTo16, EndsAndRoundingHalfUpward) {
  EXPECT_EQ(kvFloatSampleTo16(1.0f), 32767);
  EXPECT_EQ(kvFloatSampleTo16(-1.0f), -32768);
  EXPECT_EQ(kvFloatSampleTo16(0.0f), 0);
  EXPECT_EQ(kvFloatSampleTo16(2.5f), 32767);
  EXPECT_EQ(kvFloatSampleTo16(-7.0f), -32768);
  EXPECT_EQ(kvFloatSampleTo16(std::numeric_limits<float>::infinity()), 32767);
  // Half a step rounds up on both sides of zero.
  EXPECT_EQ(kvFloatSampleTo16(0.5f / 32768), 1);
  EXPECT_EQ(kvFloatSampleTo16(-0.5f / 32768), 0);
  EXPECT_EQ(kvFloatSampleTo16(-1.5f / 32768), -1);
  // Just below half a step: float arithmetic would round this one up.
  EXPECT_EQ(kvFloatSampleTo16((0.5f - 0x1p-25f) / 32768), 0);
}

TEST(FloatTo16, BlockKernelMatchesDoubleFormula) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> dist(-1.2f, 1.2f);
  std::vector<float> in(1003);
  for (auto& f : in) f = dist(rng);
  in[0] = std::nanf("");
  in[1] = 1.0f;
  in[2] = -1.0f;
  // Around every half step, one float step either side.
  for (int k = -32770; k <= 32768; k += 97) {
    const float half = (static_cast<float>(k) + 0.5f) / 32768;
    in.insert(in.end(), {std::nextafter(half, -2.0f), half, std::nextafter(half, 2.0f)});
  }
  in.insert(in.end(), {0x1p-40f, -0x1p-40f, 1e30f, -1e30f, -std::numeric_limits<float>::infinity()});
  std::vector<int16_t> out(in.size());
  kvFloatTo16(in, out);
  for (std::size_t i = 0; i < in.size(); ++i) {
    double v = std::trunc((static_cast<double>(in[i]) + 1.0) * 32768.0 + 0.5);
    v = std::isnan(v) || v < 0 ? 0 : std::min(v, 65535.0);
    ASSERT_EQ(out[i], static_cast<int>(v) - 32768) << i << " " << in[i];
    ASSERT_EQ(out[i], kvFloatSampleTo16(in[i])) << i;
  }
  std::vector<float> back(out.size());
  kv16ToFloat(out, back);
  EXPECT_EQ(back[1], 32767.0f / 32768);
  EXPECT_EQ(back[2], -1.0f);
}

TEST(Pcm12, OddCountsBothByteOrders) {
  const std::string le = Bytes({0x12, 0x34, 0x56, 0x78, 0x9A});
  std::vector<int16_t> out(3);
  auto in = std::span(reinterpret_cast<const uint8_t*>(le.data()), le.size());
  kvDecodePcm12(in, out, false, false);
  EXPECT_EQ(out, (std::vector<int16_t>{0x4120, 0x5630, static_cast<int16_t>(0xA780)}));
  kvDecodePcm12(in, out, true, false);
  EXPECT_EQ(out, (std::vector<int16_t>{0x1230, 0x4560, 0x7890}));
  kvDecodePcm12(in, out, true, true);
  EXPECT_EQ(out, (std::vector<int16_t>{static_cast<int16_t>(0x9230), static_cast<int16_t>(0xC560),
                                       static_cast<int16_t>(0xF890)}));
  EXPECT_EQ(kvPacked12Bytes(3), 5u);
  EXPECT_EQ(kvPacked20Bytes(3), 8u);
}

TEST(Pcm20, ComesInWithInvertedSign) {
  // Two values, 0x40000 and 0xC0000 (half scale up and down), in both packings.
  const std::string le = Bytes({0x00, 0x00, 0x04, 0x00, 0xC0});
  const std::string be = Bytes({0x40, 0x00, 0x0C, 0x00, 0x00});
  std::vector<float> out(2);
  kvDecodePcm20({reinterpret_cast<const uint8_t*>(le.data()), le.size()}, out, false, false);
  EXPECT_EQ(out, (std::vector<float>{-0.5f, 0.5f}));
  kvDecodePcm20({reinterpret_cast<const uint8_t*>(be.data()), be.size()}, out, true, false);
  EXPECT_EQ(out, (std::vector<float>{-0.5f, 0.5f}));
}

TEST(IntegerDecoders, SignednessAndWidths) {
  const std::string b = Bytes({0x00, 0x80, 0xFF});
  auto u8 = std::span(reinterpret_cast<const uint8_t*>(b.data()), b.size());
  std::vector<int16_t> s16(3);
  kvDecodePcm8(u8, s16, false);
  EXPECT_EQ(s16, (std::vector<int16_t>{0, -32768, -256}));
  kvDecodePcm8(u8, s16, true);
  EXPECT_EQ(s16, (std::vector<int16_t>{-32768, 0, 32512}));

  // 24-bit: 0x400000 is half scale; unsigned 0 is the bottom.
  const std::string p24 = Bytes({0x00, 0x00, 0x40, 0x00, 0x00, 0x00});
  std::vector<float> f(2);
  kvDecodePcm24({reinterpret_cast<const uint8_t*>(p24.data()), p24.size()}, f, false, false);
  EXPECT_EQ(f, (std::vector<float>{0.5f, 0.0f}));
  kvDecodePcm24({reinterpret_cast<const uint8_t*>(p24.data()), p24.size()}, f, false, true);
  EXPECT_EQ(f, (std::vector<float>{-0.5f, -1.0f}));
  kvDecodePcm24({reinterpret_cast<const uint8_t*>(p24.data()), p24.size()}, f, true, false);
  EXPECT_EQ(f[0], 1.0f / 131072);  // 00 00 40 read high byte first: 0x4000 << 8

  // Delta: running sums wrap.
  const std::string d8 = Bytes({0x7F, 0x02, 0xFF});
  kvDecodeDelta8({reinterpret_cast<const uint8_t*>(d8.data()), d8.size()}, s16, false);
  EXPECT_EQ(s16, (std::vector<int16_t>{0x7F00, static_cast<int16_t>(0x8100), static_cast<int16_t>(0x8000)}));
}

TEST(G711, ExpansionMatchesItuTable) {
  EXPECT_EQ(kvMuLawToLinear(0x00), -32124);
  EXPECT_EQ(kvMuLawToLinear(0x01), -31100);
  EXPECT_EQ(kvMuLawToLinear(0x7E), -8);
  EXPECT_EQ(kvMuLawToLinear(0x7F), 0);
  EXPECT_EQ(kvMuLawToLinear(0x80), 32124);
  EXPECT_EQ(kvMuLawToLinear(0xFF), 0);
  EXPECT_EQ(kvALawToLinear(0x55), -8);
  EXPECT_EQ(kvALawToLinear(0xD5), 8);
  EXPECT_EQ(kvALawToLinear(0x2A), -32256);
  EXPECT_EQ(kvALawToLinear(0xAA), 32256);
  EXPECT_EQ(kvALawToLinear(0x80), 5504);
  for (int c = 0; c < 256; ++c) {  // both laws are odd-symmetric around the sign bit
    ASSERT_EQ(kvMuLawToLinear(static_cast<uint8_t>(c)), -kvMuLawToLinear(static_cast<uint8_t>(c ^ 0x80)));
    ASSERT_EQ(kvALawToLinear(static_cast<uint8_t>(c)), -kvALawToLinear(static_cast<uint8_t>(c ^ 0x80)));
  }
}

TEST(G711, CompressionIsUnbiasedSignMagnitude) {
  EXPECT_EQ(kvLinearToMuLaw(0), 0xFF);
  EXPECT_EQ(kvLinearToMuLaw(-1), 0x7F);
  EXPECT_EQ(kvLinearToMuLaw(32767), 0x80);
  EXPECT_EQ(kvLinearToMuLaw(-32768), 0x00);
  EXPECT_EQ(kvLinearToMuLaw(256), 0xEF);
  EXPECT_EQ(kvLinearToALaw(0), 0xD5);
  EXPECT_EQ(kvLinearToALaw(-8), 0x55);
  EXPECT_EQ(kvLinearToALaw(-1), 0x5A);  // negative magnitude: segment 0, all mantissa bits
  EXPECT_EQ(kvLinearToALaw(32767), 0xAA);
  EXPECT_EQ(kvLinearToALaw(256), 0xC5);  // segments 0 and 1 both shift by 4
}

TEST(Encoders, QuantiseAndClip) {
  const std::vector<float> in{1.0f, -1.0f, 0.0f, 2.0f, -0.5f};
  std::vector<uint8_t> out(15);
  kvEncodePcm24(in, out, false, false);
  EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xFF, 0x7F, 0x00, 0x00, 0x80, 0, 0, 0, 0xFF, 0xFF, 0x7F, 0, 0, 0xC0}));
  kvEncodePcm24(in, out, true, true);
  EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0, 0, 0, 0x80, 0, 0, 0xFF, 0xFF, 0xFF, 0x40, 0, 0}));
  std::vector<uint8_t> out32(20);
  kvEncodePcm32(in, out32, false, false);
  uint32_t v[5];
  std::memcpy(v, out32.data(), 20);
  EXPECT_EQ(v[0], 0x7FFFFFFFu);
  EXPECT_EQ(v[1], 0x80000000u);
  EXPECT_EQ(v[2], 0u);
  EXPECT_EQ(v[4], 0xC0000000u);
  const std::vector<int16_t> s{-32768, 0, 0x1234, 32767};
  std::vector<uint8_t> b(4);
  kvEncodePcm8(s, b, true);
  EXPECT_EQ(b, (std::vector<uint8_t>{0x00, 0x80, 0x92, 0xFF}));
  kvEncodePcm8(s, b, false);
  EXPECT_EQ(b, (std::vector<uint8_t>{0x80, 0x00, 0x12, 0x7F}));
}

TEST(Channels, AverageTowardsZeroAndDuplicate) {
  const std::vector<int16_t> stereo{-3, 0, 3, 0, 32767, 32767, -32768, -32768};
  std::vector<int16_t> mono(4);
  kvStereoToMono(stereo, mono);
  EXPECT_EQ(mono, (std::vector<int16_t>{-1, 1, 32767, -32768}));
  std::vector<int16_t> back(8);
  kvMonoToStereo(mono, back);
  EXPECT_EQ(back, (std::vector<int16_t>{-1, -1, 1, 1, 32767, 32767, -32768, -32768}));
  const std::vector<float> fs{0.25f, -0.75f};
  std::vector<float> fm(1);
  kvStereoToMono(fs, fm);
  EXPECT_EQ(fm[0], -0.25f);
}

// ---- tables ----

TEST(FormatTables, NamesBitsAndPreferredRates) {
  EXPECT_STREQ(DataFormatName(kPcm8), "PCM 8-bit");
  EXPECT_STREQ(DataFormatName(kDelta16), "Delta PCM 16-bit");
  EXPECT_STREQ(DataFormatName(kMidi), "MIDI");
  EXPECT_STREQ(DataFormatName(kFormatNone), "");
  EXPECT_EQ(DataFormatBits(kFloat64), 64);
  EXPECT_EQ(DataFormatBits(kCompressed), 1);
  EXPECT_STREQ(ChannelFormatName(kSequentialStereo), "Sequential Stereo");
  EXPECT_STREQ(PreferredFormatName(8), "Compressed 32 kbit/s");
  EXPECT_STREQ(PreferredFormatName(20), "Compressed 320 kbit/s");
  EXPECT_STREQ(PreferredFormatName(21), "Default");
  EXPECT_EQ(PreferredFormatDataFormat(7), kAdpcm4);

  EXPECT_EQ(PreferredFormatForRate(0), 8);
  EXPECT_EQ(PreferredFormatForRate(39.4), 8);
  EXPECT_EQ(PreferredFormatForRate(39.6), 9);  // rounds to 40, which is not below 40
  EXPECT_EQ(PreferredFormatForRate(128), 14);
  EXPECT_EQ(PreferredFormatForRate(287), 19);
  EXPECT_EQ(PreferredFormatForRate(288), 20);
  EXPECT_EQ(PreferredFormatForRate(10000), 20);
  for (int i = 8; i <= 20; ++i) EXPECT_EQ(PreferredFormatForRate(PreferredFormatRate(i)), i) << i;

  EXPECT_EQ(SourceDataFormat(SourceFormatBit(kPcm24) | kSourceBigEndian), kPcm24);
  EXPECT_EQ(SourceDataFormat(kSourceSequential), kFormatNone);
}

// ---- waves ----

struct WaveTest : ::testing::Test {
  Collection c;
  test::TempDir dir;

  Waveform* NewWave(uint32_t length, uint8_t channels) {
    Waveform* w = Create<Waveform>(c, "w");
    w->length = length;
    w->channels = channels;
    return w;
  }

  // A wave that reads raw data in `format` from `path`.
  Waveform* RawWave(const std::filesystem::path& path, int format, uint32_t flags, uint32_t length,
                    uint8_t channels, uint64_t offset = 0) {
    Waveform* w = NewWave(length, channels);
    SetGenericFormat(*w, format, flags);
    w->sourcePath = path;
    w->fileOffset = offset;
    return w;
  }
};

TEST_F(WaveTest, SetGenericFormatFillsBitsAndPreference) {
  Waveform* w = NewWave(10, 1);
  SetGenericFormat(*w, kDelta8, kSourceUnsigned);
  EXPECT_TRUE(IsGeneric(*w));
  EXPECT_EQ(w->sourceFormat, SourceFormatBit(kDelta8) | kSourceUnsigned);
  EXPECT_EQ(w->bits, 8);
  EXPECT_EQ(w->preferredFormat, 0);
  SetGenericFormat(*w, kPcm20);
  EXPECT_EQ(w->bits, 20);
  EXPECT_EQ(w->preferredFormat, 2);
  SetGenericFormat(*w, kFloat64);
  EXPECT_EQ(w->preferredFormat, 4);
  SetGenericFormat(*w, kALaw);
  EXPECT_EQ(w->preferredFormat, 6);
}

TEST_F(WaveTest, EstimatedSizeByPreferredOrBufferForm) {
  Waveform* w = NewWave(44100, 2);
  w->sampleRate = 44100;
  w->preferredFormat = 14;  // 128 kbit/s
  EXPECT_EQ(EstimatedSize(*w, true), 32000u);
  w->preferredFormat = 2;  // 24-bit
  EXPECT_EQ(EstimatedSize(*w, true), 44100u * 2 * 3);
  SetGenericFormat(*w, kPcm24);
  EXPECT_EQ(EstimatedSize(*w, false), 44100u * 2 * 4);
  ASSERT_NE(AllocSamples16(*w), nullptr);
  EXPECT_EQ(EstimatedSize(*w, false), 44100u * 2 * 2);
}

TEST_F(WaveTest, BufferFormsConvertOwnAndUnload) {
  const std::string path = (dir / "a.raw").string();
  test::WriteFile(path, Le16({-32768, 16384, 32767, 0}));
  Waveform* w = RawWave(path, kPcm16, 0, 2, 2);
  float* f = SamplesFloat(*w);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f[0], -1.0f);
  EXPECT_EQ(f[1], 0.5f);
  ASSERT_TRUE(w->samples16);  // the read form stays beside the converted one
  UnloadData(*w);
  EXPECT_FALSE(w->HasData());
  ASSERT_NE(MakeSamplesFloat(*w), nullptr);
  EXPECT_FALSE(w->samples16);
  EXPECT_EQ(w->readCallback, nullptr);
  UnloadData(*w);  // owned data can't come back, so it stays
  EXPECT_TRUE(w->samplesF);
  int16_t* s = MakeSamples16(*w);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s[2], 32767);
  EXPECT_FALSE(w->samplesF);

  Waveform* empty = NewWave(0, 1);
  EXPECT_EQ(Samples16(*empty), nullptr);
}

TEST_F(WaveTest, ReaderRejectsWhatItCannotDecode) {
  const std::string path = (dir / "small.raw").string();
  test::WriteFile(path, std::string(64, '\0'));
  struct Case {
    uint32_t length;
    uint8_t channels;
    int format;
    const char* message;
  };
  for (const Case& k : {Case{0, 1, kPcm16, "Zero length"}, Case{8, 0, kPcm16, "No channels"},
                        Case{8, 3, kPcm16, "Too many channels"},
                        Case{8, 1, kAdpcm4, "Invalid format for generic import function!"},
                        Case{8, 1, kCompressed, "Invalid format for generic import function!"},
                        Case{17, 2, kPcm16, "Reading from file failed"},  // 68 bytes of 64
                        Case{0xFFFFFFFFu, 2, kFloat64, "Reading from file failed"}}) {
    Waveform* w = RawWave(path, k.format, 0, k.length, k.channels);
    EXPECT_FALSE(w->EnsureData()) << k.message;
    EXPECT_STREQ(ErrorContext, "gen_ImpWave");
    EXPECT_STREQ(ErrorMessage, k.message);
    EXPECT_FALSE(w->HasData());
  }
  // The same size check at an offset: 64 bytes from 8 on is too many.
  Waveform* w = RawWave(path, kPcm8, 0, 64, 1, 8);
  EXPECT_FALSE(w->EnsureData());
  EXPECT_STREQ(ErrorMessage, "Reading from file failed");
}

TEST_F(WaveTest, SourceFileGoneFailsAndCanBeRetried) {
  const auto path = dir / "gone.raw";
  Waveform* w = RawWave(path, kPcm16, 0, 2, 1);
  EXPECT_FALSE(w->EnsureData());
  EXPECT_STREQ(ErrorContext, "Read wave-data from disk");
  EXPECT_STREQ(ErrorMessage, "Could not open file");
  EXPECT_EQ(c.FindWave(w->id), w);
  EXPECT_TRUE(IsGeneric(*w));
  test::WriteFile(path, Le16({5, -5}));
  ASSERT_TRUE(w->EnsureData());
  EXPECT_EQ(w->samples16[1], -5);
}

TEST_F(WaveTest, SequentialStereoReadsHalvesInOrderOrFromSecondPart) {
  const auto path = dir / "seq.raw";
  test::WriteFile(path, Le16({1, 2, 3, -1, -2, -3}));
  Waveform* w = RawWave(path, kPcm16, kSourceSequential, 3, 2);
  ASSERT_TRUE(w->EnsureData());
  EXPECT_EQ(std::vector<int16_t>(w->samples16.get(), w->samples16.get() + 6),
            (std::vector<int16_t>{1, -1, 2, -2, 3, -3}));

  // Left at 4, junk, right at 20; 8-bit so the halves are bytes.
  const auto split = dir / "split.raw";
  test::WriteFile(split, std::string("hdr!") + Bytes({1, 2, 3}) + std::string(13, 'x') + Bytes({0xFF, 0xFE, 0xFD}));
  Waveform* s = RawWave(split, kPcm8, kSourceSequential, 3, 2, 4);
  s->secondChannelOffset = 20;
  ASSERT_TRUE(s->EnsureData());
  EXPECT_EQ(std::vector<int16_t>(s->samples16.get(), s->samples16.get() + 6),
            (std::vector<int16_t>{256, -256, 512, -512, 768, -768}));

  // The bit means nothing for a mono wave.
  Waveform* m = RawWave(path, kPcm16, kSourceSequential, 6, 1);
  ASSERT_TRUE(m->EnsureData());
  EXPECT_EQ(m->samples16[3], -1);
}

TEST_F(WaveTest, WriterChecksFormatAndAdaptsChannels) {
  FileRef f;
  ASSERT_TRUE(f.OpenWrite(dir / "out.raw"));
  Waveform* w = NewWave(2, 2);
  int16_t* s = AllocSamples16(*w);
  s[0] = -3;
  s[1] = 0;
  s[2] = 100;
  s[3] = 200;
  EXPECT_FALSE(gen_ExpWave(f, *w, kPcm20, 0, 0));
  EXPECT_STREQ(ErrorContext, "gen_ExpWave");
  EXPECT_STREQ(ErrorMessage, "Invalid data format");
  EXPECT_FALSE(gen_ExpWave(f, *w, kAdpcm4, 0, 0));

  const uint32_t before = c.Count(ItemType::Waveform);
  ASSERT_TRUE(gen_ExpWave(f, *w, kPcm16, 1, 0));
  EXPECT_EQ(c.Count(ItemType::Waveform), before);  // the adapted copy is gone again
  EXPECT_EQ(w->channels, 2);
  f.Close();
  EXPECT_EQ(test::ReadFile(dir / "out.raw"), Le16({-1, 150}));

  Waveform* nodata = NewWave(4, 1);
  EXPECT_FALSE(gen_ExpWave(f, *nodata, kPcm16, 0, 0));
  EXPECT_STREQ(ErrorMessage, "The file format can not save this item");
}

TEST_F(WaveTest, SequentialWriteMatchesHandLayout) {
  Waveform* w = NewWave(3, 2);
  int16_t* s = AllocSamples16(*w);
  const int16_t frames[] = {1, -1, 2, -2, 3, -3};
  std::memcpy(s, frames, sizeof frames);
  FileRef f;
  ASSERT_TRUE(f.OpenWrite(dir / "seq.raw"));
  ASSERT_TRUE(gen_ExpWave(f, *w, kPcm16, 0, kSourceSequential | kSourceBigEndian));
  f.Close();
  EXPECT_EQ(test::ReadFile(dir / "seq.raw"), Bytes({0, 1, 0, 2, 0, 3, 0xFF, 0xFF, 0xFF, 0xFE, 0xFF, 0xFD}));
}

// Every coding the writer takes, read back by the reader through a real file.
struct RoundTrip {
  int format;
  int channels;
  uint32_t flags;
};

std::string RoundTripName(const ::testing::TestParamInfo<RoundTrip>& info) {
  std::string name = DataFormatName(info.param.format);
  for (char& ch : name) {
    if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
  }
  name += info.param.channels == 1 ? "_mono" : "_stereo";
  if (info.param.flags & kSourceSequential) name += "_seq";
  if (info.param.flags & kSourceBigEndian) name += "_be";
  if (info.param.flags & kSourceUnsigned) name += "_u";
  return name;
}

std::vector<RoundTrip> AllRoundTrips() {
  std::vector<RoundTrip> out;
  for (int format : {kPcm8, kPcm16, kPcm24, kPcm32, kFloat32, kFloat64, kMuLaw, kALaw, kDelta8, kDelta16}) {
    const bool wide = format != kPcm8 && format != kMuLaw && format != kALaw && format != kDelta8;
    const bool integer = format != kFloat32 && format != kFloat64 && format != kMuLaw && format != kALaw;
    for (int channels : {1, 2}) {
      for (uint32_t flags : {0u, kSourceSequential, kSourceBigEndian, kSourceUnsigned,
                             kSourceSequential | kSourceBigEndian | kSourceUnsigned}) {
        if ((flags & kSourceSequential) && channels == 1) continue;
        if ((flags & kSourceBigEndian) && !wide) continue;
        if ((flags & kSourceUnsigned) && !integer) continue;
        out.push_back({format, channels, flags});
      }
    }
  }
  return out;
}

struct WaveRoundTrip : WaveTest, ::testing::WithParamInterface<RoundTrip> {};

TEST_P(WaveRoundTrip, ReadsBackWhatWasWritten) {
  const RoundTrip p = GetParam();
  const uint32_t frames = 301;  // odd, and not a multiple of any vector width
  const uint64_t count = uint64_t{frames} * p.channels;
  const bool isFloat = DecodesToFloat(p.format);
  const bool lossy = p.format == kMuLaw || p.format == kALaw;
  const bool eightBit = p.format == kPcm8 || p.format == kDelta8;

  Waveform* src = NewWave(frames, static_cast<uint8_t>(p.channels));
  std::mt19937 rng(static_cast<uint32_t>(p.format * 131 + p.channels * 7 + p.flags));
  if (isFloat) {
    float* d = AllocSamplesFloat(*src);
    // Multiples of 2^-23 within range survive 24-bit and wider codings exactly.
    std::uniform_int_distribution<int32_t> dist(-(1 << 23), (1 << 23) - 1);
    for (uint64_t i = 0; i < count; ++i) d[i] = static_cast<float>(dist(rng)) * 0x1p-23f;
    d[0] = -1.0f;
  } else {
    int16_t* d = AllocSamples16(*src);
    std::uniform_int_distribution<int> dist(-32768, 32767);
    for (uint64_t i = 0; i < count; ++i) d[i] = static_cast<int16_t>(eightBit ? dist(rng) & ~0xFF : dist(rng));
    d[0] = -32768;
    d[count - 1] = eightBit ? 0x7F00 : 32767;
  }

  // Some header bytes first, so the offset is exercised too.
  const auto path = dir / "rt.raw";
  FileRef f;
  ASSERT_TRUE(f.OpenWrite(path));
  ASSERT_TRUE(f.Write("HEAD", 4));
  ASSERT_TRUE(gen_ExpWave(f, *src, p.format, p.channels, p.flags)) << ErrorMessage;
  f.Close();
  const uint64_t expectBytes =
      4 + count * static_cast<uint64_t>(DataFormatBits(p.format)) / 8;
  EXPECT_EQ(std::filesystem::file_size(path), expectBytes);

  Waveform* dst = RawWave(path, p.format, p.flags, frames, static_cast<uint8_t>(p.channels), 4);
  ASSERT_TRUE(dst->EnsureData()) << ErrorMessage;
  if (isFloat) {
    ASSERT_TRUE(dst->samplesF);
    for (uint64_t i = 0; i < count; ++i) ASSERT_EQ(dst->samplesF[i], src->samplesF[i]) << i;
  } else if (lossy) {
    // The law's own expansion of the codes the writer chose.
    ASSERT_TRUE(dst->samples16);
    for (uint64_t i = 0; i < count; ++i) {
      const int16_t s = src->samples16[i];
      const int16_t expect = p.format == kMuLaw ? kvMuLawToLinear(kvLinearToMuLaw(s)) : kvALawToLinear(kvLinearToALaw(s));
      ASSERT_EQ(dst->samples16[i], expect) << i;
    }
  } else {
    ASSERT_TRUE(dst->samples16);
    for (uint64_t i = 0; i < count; ++i) ASSERT_EQ(dst->samples16[i], src->samples16[i]) << i;
  }
}

INSTANTIATE_TEST_SUITE_P(AllCodings, WaveRoundTrip, ::testing::ValuesIn(AllRoundTrips()), RoundTripName);

TEST_F(WaveTest, PackedAndFloatSourcesDecodeThroughTheReader) {
  // 12-bit, three samples, big-endian; 20-bit one sample; float32 big-endian.
  const auto p12 = dir / "a.raw";
  test::WriteFile(p12, Bytes({0x12, 0x34, 0x56, 0x78, 0x9A}));
  Waveform* w12 = RawWave(p12, kPcm12, kSourceBigEndian, 3, 1);
  ASSERT_TRUE(w12->EnsureData());
  EXPECT_EQ(w12->samples16[2], 0x7890);

  const auto p20 = dir / "b.raw";
  test::WriteFile(p20, Bytes({0x00, 0x00, 0x04}));
  Waveform* w20 = RawWave(p20, kPcm20, 0, 1, 1);
  ASSERT_TRUE(w20->EnsureData());
  ASSERT_TRUE(w20->samplesF);
  EXPECT_EQ(w20->samplesF[0], -0.5f);

  const auto pf = dir / "c.raw";
  test::WriteFile(pf, Bytes({0x3F, 0x00, 0x00, 0x00, 0xBE, 0x80, 0x00, 0x00}));
  Waveform* wf = RawWave(pf, kFloat32, kSourceBigEndian, 1, 2);
  ASSERT_TRUE(wf->EnsureData());
  EXPECT_EQ(wf->samplesF[0], 0.5f);
  EXPECT_EQ(wf->samplesF[1], -0.25f);
}

}  // namespace
}  // namespace kv
