// The GSM 06.10 and G.722 kernels against the reference coders: libgsm
// (through sox's gsm format) for GSM in both directions, FFmpeg's
// adpcm_g722 for G.722; the bit framings by hand, and no allocation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "codecs/g722.h"
#include "codecs/gsm610.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;

std::vector<int16_t> ReadS16(const fs::path& path) {
  const std::string bytes = test::ReadFile(path);
  std::vector<int16_t> v(bytes.size() / 2);
  for (std::size_t i = 0; i < v.size(); ++i)
    v[i] = static_cast<int16_t>(static_cast<uint8_t>(bytes[2 * i]) | static_cast<uint8_t>(bytes[2 * i + 1]) << 8);
  return v;
}
std::string S16Bytes(const std::vector<int16_t>& v) {
  std::string s(v.size() * 2, '\0');
  for (std::size_t i = 0; i < v.size(); ++i) {
    s[2 * i] = static_cast<char>(v[i]);
    s[2 * i + 1] = static_cast<char>(v[i] >> 8);
  }
  return s;
}

// A corpus recording at `rate` as raw 16-bit samples, whole `multiple`s of it.
bool Recording(const test::TempDir& dir, uint32_t rate, std::size_t multiple, std::vector<int16_t>& out) {
  if (!test::NeedCorpus()) return false;
  const fs::path raw = dir / "rec.raw";
  if (!test::RunPeer("sox", "-D '" + (test::CorpusDir() / "wav/hydrogen-trimo-c3-smpl.wav").string() + "' -r " +
                                std::to_string(rate) + " -c 1 -b 16 -e signed -t raw '" + raw.string() + "'"))
    return false;
  out = ReadS16(raw);
  out.resize(out.size() / multiple * multiple);
  return !out.empty();
}

std::vector<uint8_t> EncodeGsmFrames(const std::vector<int16_t>& pcm) {
  GsmEncoderState s;
  std::vector<uint8_t> out(pcm.size() / 160 * 33);
  for (std::size_t f = 0; f < pcm.size() / 160; ++f)
    kvGsmEncodeFrame(s, std::span<const int16_t, 160>(pcm.data() + 160 * f, 160),
                     std::span<uint8_t, 33>(out.data() + 33 * f, 33));
  return out;
}
std::vector<int16_t> DecodeGsmFrames(const std::string& bytes) {
  GsmDecoderState s;
  std::vector<int16_t> out(bytes.size() / 33 * 160);
  for (std::size_t f = 0; f < bytes.size() / 33; ++f)
    EXPECT_TRUE(kvGsmDecodeFrame(s, std::span<const uint8_t, 33>(reinterpret_cast<const uint8_t*>(bytes.data()) + 33 * f, 33),
                                 std::span<int16_t, 160>(out.data() + 160 * f, 160)));
  return out;
}
// Random frames with the 0xD nibble; with `validLags` every lag is in 40..120.
std::string RandomGsmFrames(std::size_t frames, uint32_t seed, bool validLags) {
  std::string s = test::RandomPayload(frames * 33, seed);
  for (std::size_t f = 0; f < frames; ++f) {
    uint8_t* p = reinterpret_cast<uint8_t*>(s.data()) + 33 * f;
    GsmParameters g;
    p[0] = static_cast<uint8_t>(0xD0 | (p[0] & 0x0F));
    EXPECT_TRUE(kvGsmUnpackFrame(std::span<const uint8_t, 33>(p, 33), g));
    if (validLags)
      for (uint8_t& lag : g.nc) lag = static_cast<uint8_t>(40 + lag % 81);
    kvGsmPackFrame(g, std::span<uint8_t, 33>(p, 33));
  }
  return s;
}

long FirstDifference(const std::vector<int16_t>& a, const std::vector<int16_t>& b) {
  if (a.size() != b.size()) return -2;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i]) return static_cast<long>(i);
  return -1;
}

// ---------------------------------------------------------------- GSM

TEST(GsmKernel, FramingOfBothFormsByHand) {
  GsmParameters p{};
  for (int i = 0; i < 8; ++i) p.larc[i] = static_cast<uint8_t>((1 << (i < 2 ? 6 : i < 4 ? 5 : i < 6 ? 4 : 3)) - 1 - i);
  for (int s = 0; s < 4; ++s) {
    p.nc[s] = static_cast<uint8_t>(40 + 20 * s);
    p.bc[s] = static_cast<uint8_t>(s);
    p.mc[s] = static_cast<uint8_t>(3 - s);
    p.xmaxc[s] = static_cast<uint8_t>(63 - s);
    for (int i = 0; i < 13; ++i) p.xmc[s][i] = static_cast<uint8_t>((i + s) & 7);
  }
  uint8_t frame[33];
  kvGsmPackFrame(p, frame);
  // 0xD, then LARc[0] = 63 and LARc[1] = 62 most significant bit first.
  EXPECT_EQ(frame[0], 0xDF);
  EXPECT_EQ(frame[1], 0xFE);
  GsmParameters back;
  ASSERT_TRUE(kvGsmUnpackFrame(frame, back));
  EXPECT_EQ(std::memcmp(&back, &p, sizeof p), 0);
  frame[0] = 0xC0;
  EXPECT_FALSE(kvGsmUnpackFrame(frame, back));

  // The pair: least significant bit first, the second frame from bit 260.
  uint8_t pair[65];
  GsmParameters q = p;
  q.larc[0] = 5;
  kvGsmPackPair(p, q, pair);
  EXPECT_EQ(pair[0], 63 | (62 & 3) << 6);
  EXPECT_EQ(pair[32] >> 4, 5) << "bits 260-265 hold the second frame's first LAR";
  GsmParameters a, b;
  kvGsmUnpackPair(pair, a, b);
  EXPECT_EQ(std::memcmp(&a, &p, sizeof p), 0);
  EXPECT_EQ(std::memcmp(&b, &q, sizeof q), 0);
}

// libgsm (sox -t gsm) is the reference in both directions: a recording
// encodes to its bytes, its frames decode to its samples, and random frames
// (any lag, any amplitude) decode as it decodes them.
TEST(GsmKernel, BitExactWithLibgsmBothWays) {
  test::TempDir dir;
  std::vector<int16_t> pcm;
  if (!Recording(dir, 8000, 160, pcm)) return;
  test::WriteFile(dir / "in.raw", S16Bytes(pcm));
  if (!test::RunPeer("sox", "-t raw -r 8000 -c 1 -b 16 -e signed '" + (dir / "in.raw").string() + "' -t gsm '" +
                                (dir / "sox.gsm").string() + "'"))
    return;
  const std::string theirs = test::ReadFile(dir / "sox.gsm");
  const std::vector<uint8_t> ours = EncodeGsmFrames(pcm);
  ASSERT_EQ(ours.size(), theirs.size());
  EXPECT_TRUE(std::equal(ours.begin(), ours.end(), reinterpret_cast<const uint8_t*>(theirs.data())));

  const std::string random = RandomGsmFrames(1500, 32, false);
  test::WriteFile(dir / "r.gsm", random);
  for (const char* name : {"sox.gsm", "r.gsm"}) {
    SCOPED_TRACE(name);
    std::vector<int16_t> sox;
    if (!test::SoxSamples16(dir / name, "-t gsm", sox)) return;
    EXPECT_EQ(FirstDifference(DecodeGsmFrames(test::ReadFile(dir / name)), sox), -1);
  }
}

// FFmpeg's own gsm decoder agrees on every frame an encoder makes. On random
// frames it parts from libgsm twice (measured): a lag outside 40..120 is
// clipped where the standard repeats the last one, and its lattice and
// de-emphasis don't saturate, so loud random frames wrap.
TEST(GsmKernel, FfmpegAgreesOnEncodedFramesAndWhereItLeavesTheStandard) {
  test::TempDir dir;
  std::vector<int16_t> pcm;
  if (!Recording(dir, 8000, 160, pcm)) return;
  const std::vector<uint8_t> coded = EncodeGsmFrames(pcm);
  test::WriteFile(dir / "ours.gsm", std::string(coded.begin(), coded.end()));
  test::WriteFile(dir / "valid.gsm", RandomGsmFrames(300, 33, true));
  test::WriteFile(dir / "any.gsm", RandomGsmFrames(300, 33, false));
  const struct {
    const char* name;
    long first;
  } cases[] = {{"ours.gsm", -1}, {"valid.gsm", 47}, {"any.gsm", 42}};  // measured
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<int16_t> ff;
    if (!test::FfmpegSamples16(dir / c.name, "-f gsm", ff)) return;
    EXPECT_EQ(FirstDifference(DecodeGsmFrames(test::ReadFile(dir / c.name)), ff), c.first);
  }
}

// ---------------------------------------------------------------- G.722

TEST(G722Kernel, EncoderAndDecodersEqualFfmpeg) {
  test::TempDir dir;
  std::vector<int16_t> pcm;
  if (!Recording(dir, 16000, 2, pcm)) return;
  // Loud noise after the recording drives the predictors to their limits.
  const std::string noise = test::RandomPayload(64000, 7);
  for (std::size_t i = 0; i + 1 < noise.size(); i += 2)
    pcm.push_back(static_cast<int16_t>(static_cast<uint8_t>(noise[i]) | static_cast<uint8_t>(noise[i + 1]) << 8));
  test::WriteFile(dir / "in.raw", S16Bytes(pcm));
  if (!test::RunPeer("ffmpeg", "-nostdin -v error -y -f s16le -ar 16000 -ac 1 -i '" + (dir / "in.raw").string() +
                                   "' -c:a adpcm_g722 -f g722 '" + (dir / "ff.g722").string() + "'"))
    return;
  const std::string theirs = test::ReadFile(dir / "ff.g722");
  G722State enc;
  kvG722Init(enc);
  std::vector<uint8_t> ours(pcm.size() / 2);
  kvEncodeG722(enc, pcm, ours);
  ASSERT_EQ(ours.size(), theirs.size());
  EXPECT_TRUE(std::equal(ours.begin(), ours.end(), reinterpret_cast<const uint8_t*>(theirs.data())));

  // Random code words at each width decode as FFmpeg's bits_per_codeword does.
  test::WriteFile(dir / "r.g722", test::RandomPayload(20000, 722));
  const std::string random = test::ReadFile(dir / "r.g722");
  for (int bits : {8, 7, 6}) {
    SCOPED_TRACE(std::to_string(bits) + " bits");
    std::vector<int16_t> ff;
    if (!test::FfmpegSamples16(dir / "r.g722", "-bits_per_codeword " + std::to_string(bits) + " -f g722", ff)) return;
    G722State dec;
    kvG722Init(dec, bits);
    std::vector<int16_t> out(random.size() * 2);
    kvDecodeG722(dec, {reinterpret_cast<const uint8_t*>(random.data()), random.size()}, out);
    EXPECT_EQ(FirstDifference(out, ff), -1);
  }
}

TEST(GsmG722Kernels, AllocateNothing) {
  std::vector<int16_t> pcm(3200);
  for (std::size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<int16_t>(12000 * std::sin(i * 0.05));
  std::vector<uint8_t> bytes(1600);
  std::vector<int16_t> out(6400);
  const long before = test::AllocationCount();
  if (before < 0) GTEST_SKIP() << "the sanitizers' allocator is not counted";
  GsmEncoderState ge;
  GsmDecoderState gd;
  for (int i = 0; i < 10; ++i) {
    kvGsmEncodePair(ge, std::span<const int16_t, 320>(pcm.data() + 320 * i, 320), std::span<uint8_t, 65>(bytes.data() + 65 * i, 65));
    kvGsmDecodePair(gd, std::span<const uint8_t, 65>(bytes.data() + 65 * i, 65), std::span<int16_t, 320>(out.data() + 320 * i, 320));
  }
  G722State g;
  kvG722Init(g);
  kvEncodeG722(g, pcm, bytes);
  kvDecodeG722(g, {bytes.data(), 600}, {out.data(), 1200});
  EXPECT_EQ(test::AllocationCount(), before);
}

}  // namespace
}  // namespace kv
