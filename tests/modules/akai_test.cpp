#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/akai.h"
#include "formats/modules/module.h"
#include "formats/registry.h"
#include "support/render.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

const fs::path kTimGM = "/usr/share/sounds/sf2/TimGM6mb.sf2";
constexpr int kS1000SampleRow = 348, kS3000SampleRow = 349, kS3000ProgramRow = 288;

std::vector<std::string> gBoxes;
int CaptureBox(const std::string& text, const std::string&, BoxButtons) {
  gBoxes.push_back(text);
  return kBoxOk;
}
struct Boxes {
  Boxes() {
    gBoxes.clear();
    MessageBoxesEnabled = 1;
    SetBoxPresenter(CaptureBox);
  }
  ~Boxes() {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = 0;
  }
};

bool Read(Collection& c, const fs::path& path, bool (*read)(Collection&, FileRef&, uint32_t), uint32_t parameter = 0) {
  FileRef file;
  ClearError();
  return file.OpenRead(path) && read(c, file, parameter);
}

std::string Bytes(const fs::path& path) { return test::ReadFile(path); }
uint32_t U32(const std::string& s, std::size_t at) {
  return static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8) |
         (static_cast<uint8_t>(s[at + 2]) << 16) | (static_cast<uint32_t>(static_cast<uint8_t>(s[at + 3])) << 24);
}
int16_t S16(const std::string& s, std::size_t at) {
  return static_cast<int16_t>(static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8));
}

struct SampleFact {
  fs::path path;
  uint32_t frames, rate, at, length;
  int rkey;
};
// The S3000 samples of the manifest with the facts akaiutil printed.
std::vector<SampleFact> S3000Samples() {
  std::vector<SampleFact> out;
  const std::regex fact(R"(frames (\d+), (\d+)Hz, rkey (\d+), pmode LOOP, loops at (\d+) len (\d+))");
  for (const auto& e : test::Manifest()) {
    std::smatch m;
    if (e.format != "AKAI S3000 sample" || !std::regex_search(e.facts, m, fact)) continue;
    out.push_back({test::CorpusDir() / e.path, static_cast<uint32_t>(std::stoul(m[1])),
                   static_cast<uint32_t>(std::stoul(m[2])), static_cast<uint32_t>(std::stoul(m[4])),
                   static_cast<uint32_t>(std::stoul(m[5])), std::stoi(m[3])});
  }
  return out;
}

TEST(AkaiNames, CharacterCodeBothWays) {
  const uint8_t codes[] = {11, 37, 0, 10, 38, 39, 40, 41, 255, 36};
  EXPECT_EQ(akai_DecodeName(codes), "A#0 +-.  Z");
  uint8_t out[12];
  akai_EncodeName("kick_1.Wav", out);
  const uint8_t want[12] = {21, 19, 13, 21, 10, 1, 40, 33, 11, 32, 10, 10};
  EXPECT_EQ(std::memcmp(out, want, 12), 0);
}

TEST(AkaiSamples, CorpusFactsAndPitch) {
  if (!test::NeedCorpus()) return;
  const fs::path files = test::CorpusDir() / "akai/files";
  Collection c;
  ASSERT_TRUE(Read(c, files / "FLUTED5.S1", akais_Imp)) << ErrorMessage;
  ASSERT_TRUE(Read(c, files / "KICK.S1", akais_Imp)) << ErrorMessage;
  const auto waves = c.All<Waveform>();
  ASSERT_EQ(waves.size(), 2u);
  EXPECT_EQ(waves[0]->length, 9997u);
  EXPECT_EQ(waves[0]->sampleRate, 22500u);
  EXPECT_EQ(waves[0]->rootKey, 60);
  EXPECT_EQ(waves[0]->loopType, 1);
  EXPECT_EQ(waves[0]->loopStart, 5266.0f);
  EXPECT_EQ(waves[0]->loopEnd, 9502.0f);
  EXPECT_EQ(waves[1]->length, 9866u);
  EXPECT_EQ(waves[1]->sampleRate, 22050u);

  const auto facts = S3000Samples();
  ASSERT_EQ(facts.size(), 14u);
  for (const SampleFact& f : facts) {
    Collection one;
    ASSERT_TRUE(Read(one, f.path, akais_Imp)) << f.path << ErrorMessage;
    Waveform& w = *one.All<Waveform>().front();
    EXPECT_EQ(w.length, f.frames) << f.path;
    EXPECT_EQ(w.sampleRate, f.rate) << f.path;
    EXPECT_EQ(w.loopEnd, static_cast<float>(f.at)) << f.path;
    EXPECT_EQ(w.loopStart, static_cast<float>(f.at - f.length)) << f.path;
    // The machine plays key K at 2^((K - rkey + v/256)/12); the model at
    // 2^((K - root + cents/100)/12).
    const std::string b = Bytes(f.path);
    const double machine = f.rkey - S16(b, 20) / 256.0;
    const double model = w.rootKey - w.fineTune / 100.0;
    EXPECT_NEAR(model, machine, 0.01) << f.path;
    EXPECT_LT(S16(b, 20), -11 * 256) << "the corpus carries about -12 semitones: " << f.path;
  }
  Collection g1;
  ASSERT_TRUE(Read(g1, test::CorpusDir() / "akai/s3000-mk8ultra/M8 PA G1  SA.s", akais_Imp));
  EXPECT_EQ(g1.All<Waveform>().front()->rootKey, 54);  // unchanged speed at key 54
  EXPECT_EQ(g1.All<Waveform>().front()->fineTune, 0);
}

std::string SampleHeader(uint8_t type, int16_t tune, uint32_t count, std::size_t size = 192) {
  std::string h(size, '\0');
  h[0] = static_cast<char>(type);
  h[2] = 60;
  h[20] = static_cast<char>(tune & 0xFF);
  h[21] = static_cast<char>((tune >> 8) & 0xFF);
  for (int i = 0; i < 4; ++i) h[26 + i] = static_cast<char>(count >> (8 * i));
  return h;
}

TEST(AkaiSamples, TuneShortDataAndBadInput) {
  TempDir dir;
  // A tune of 128/256 semitone is 50 cents; a file shorter than its count
  // gives the frames it holds; the bandwidth gives the rate without the flag.
  std::string s = SampleHeader(3, 128, 1000) + std::string(20, '\x11');
  s[1] = 1;
  test::WriteFile(dir / "a.s", s);
  Collection c;
  ASSERT_TRUE(Read(c, dir / "a.s", akais_Imp)) << ErrorMessage;
  Waveform& w = *c.All<Waveform>().front();
  EXPECT_EQ(w.fineTune, 50);
  EXPECT_EQ(w.length, 10u);
  EXPECT_EQ(w.sampleRate, 44100u);
  ASSERT_TRUE(w.EnsureData());
  EXPECT_EQ(w.samples16[9], 0x1111);

  for (const std::string& bad : {SampleHeader(3, 0, 0, 191), SampleHeader(1, 0, 0)}) {
    test::WriteFile(dir / "b.s", bad);
    Collection none;
    EXPECT_FALSE(Read(none, dir / "b.s", akais_Imp));
    EXPECT_STREQ(ErrorMessage, "Not an AKAI S1000-series or S3000-series sample");
    EXPECT_EQ(none.Count(ItemType::Waveform), 0u);
  }
}

// Writes wave through the row's writer into `path`.
bool Write(Item& item, const fs::path& path, int row) {
  FileRef out;
  if (!out.OpenWrite(path)) return false;
  ExportRequest request;
  request.parameter = FormatAt(row)->parameter;
  ClearError();
  return FormatAt(row)->write(item, out, request);
}

TEST(AkaiSamples, CorpusRoundTripKeepsDataAndMappedFields) {
  if (!test::NeedCorpus()) return;
  TempDir dir;
  std::vector<fs::path> paths = {test::CorpusDir() / "akai/files/FLUTED5.S1", test::CorpusDir() / "akai/files/KICK.S1"};
  for (const SampleFact& f : S3000Samples()) paths.push_back(f.path);
  for (const fs::path& path : paths) {
    Collection c;
    ASSERT_TRUE(Read(c, path, akais_Imp));
    Waveform& w = *c.All<Waveform>().front();
    const std::string a = Bytes(path);
    const bool s3000 = a.size() == 192 + 2 * uint64_t{U32(a, 26)};
    ASSERT_TRUE(Write(w, dir / "out.s", s3000 ? kS3000SampleRow : kS1000SampleRow)) << ErrorMessage;
    const std::string b = Bytes(dir / "out.s");
    const std::size_t header = s3000 ? 192 : 150;
    ASSERT_EQ(b.size(), a.size()) << path;
    EXPECT_EQ(a.substr(header), b.substr(header)) << path;
    // Bandwidth, name, rate flag, loop count, playback type, count, the
    // first loop, rate and loop tune.
    // Not compared: the bandwidth (the rate field says the rate; ours is
    // 20 kHz above 22050 Hz only), the playback type of a sample without a
    // loop (no loop), the start and end markers (a wave alone has none) and
    // the other seven loops and their hold times.
    for (std::size_t at : {3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 26, 27, 28, 29, 38, 39, 40, 41, 42, 43, 44,
                           45, 46, 47, 138, 139, 140})
      EXPECT_EQ(a[at], b[at]) << path << " offset " << at;
    if (a[16] != 0) {
      EXPECT_EQ(a[19], b[19]) << path;
    }
    // The root key and tune are one pitch in the model: whole semitones
    // of the tune move into the root key.
    EXPECT_NEAR(static_cast<uint8_t>(a[2]) - S16(a, 20) / 256.0, static_cast<uint8_t>(b[2]) - S16(b, 20) / 256.0, 0.01);
  }
}

TEST(AkaiSamples, StereoGoesOutAsTwoFiles) {
  TempDir dir;
  Collection c;
  auto* w = Create<Waveform>(c, "Pad");
  w->channels = 2;
  w->length = 3;
  w->sampleRate = 32000;
  int16_t* s = AllocSamples16(*w);
  for (int i = 0; i < 6; ++i) s[i] = static_cast<int16_t>(i % 2 ? -100 * i : 100 * i);
  ASSERT_TRUE(Write(*w, dir / "pad.s", kS1000SampleRow)) << ErrorMessage;
  const std::string left = Bytes(dir / "pad.s"), right = Bytes(dir / "pad-R.s");
  ASSERT_EQ(left.size(), 156u);
  ASSERT_EQ(right.size(), 156u);
  EXPECT_EQ(akai_DecodeName({reinterpret_cast<const uint8_t*>(left.data()) + 3, 12}), "PAD-L       ");
  EXPECT_EQ(akai_DecodeName({reinterpret_cast<const uint8_t*>(right.data()) + 3, 12}), "PAD-R       ");
  EXPECT_EQ(S16(left, 152), 200);
  EXPECT_EQ(S16(right, 152), -300);
  EXPECT_EQ(c.Count(ItemType::Waveform), 1u);
}

// ---------------------------------------------------------------- programs

struct Program {
  Collection c;
  std::vector<Region*> regions;
  int keygroupsLo = 127, keygroupsHi = 0;
};
bool ReadProgramFile(Program& p, const fs::path& path) {
  if (!Read(p.c, path, akaip_Imp)) return false;
  for (Region* r : p.c.All<Region>()) {
    p.regions.push_back(r);
    p.keygroupsLo = std::min<int>(p.keygroupsLo, r->trigger.loKey);
    p.keygroupsHi = std::max<int>(p.keygroupsHi, r->trigger.hiKey);
  }
  return true;
}

TEST(AkaiPrograms, CorpusProgramsFindTheirSamples) {
  if (!test::NeedCorpus()) return;
  Boxes boxes;
  Program mk8;
  ASSERT_TRUE(ReadProgramFile(mk8, test::CorpusDir() / "akai/s3000-mk8ultra/mk8ultra.p")) << ErrorMessage;
  ASSERT_EQ(mk8.regions.size(), 10u);
  std::set<std::string> names;
  std::set<std::pair<int, int>> keygroups;
  for (Region* r : mk8.regions) {
    ASSERT_NE(RegionWaveform(*r), nullptr);
    names.insert(std::string(RegionWaveform(*r)->Name()));
    keygroups.insert({r->trigger.loKey, r->trigger.hiKey});
  }
  EXPECT_EQ(names.size(), 5u);
  EXPECT_EQ(mk8.c.Count(ItemType::Waveform), 5u);
  EXPECT_EQ(keygroups.size(), 5u);
  EXPECT_EQ(mk8.keygroupsLo, 24);
  EXPECT_EQ(mk8.keygroupsHi, 127);
  EXPECT_TRUE(gBoxes.empty());

  Program yx;
  ASSERT_TRUE(ReadProgramFile(yx, test::CorpusDir() / "akai/s3000-yxpanapad/YXPANAPAD.p")) << ErrorMessage;
  ASSERT_EQ(yx.regions.size(), 10u);
  int withWave = 0;
  for (Region* r : yx.regions) withWave += RegionWaveform(*r) != nullptr;
  EXPECT_EQ(withWave, 9);
  ASSERT_EQ(gBoxes.size(), 1u);
  EXPECT_EQ(gBoxes[0], "Warning: sample(s) not found, their zones have no wave: \"EX PA G1- SA\"");
}

std::string ProgramBytes(int keygroups, std::size_t block, std::size_t kgSize) {
  std::string p(block + keygroups * kgSize, '\0');
  p[0] = 1;
  for (int i = 0; i < 12; ++i) p[3 + i] = 10;
  p[42] = static_cast<char>(keygroups);
  for (int g = 0; g < keygroups; ++g) {
    p[block + g * kgSize] = 2;
    for (int z = 0; z < 4; ++z)
      for (int i = 0; i < 12; ++i) p[block + g * kgSize + 34 + 24 * z + i] = 10;
  }
  return p;
}

TEST(AkaiPrograms, KeygroupSearchMessages) {
  TempDir dir;
  struct Case {
    std::string bytes;
    const char* message;
  };
  std::string noOffset = ProgramBytes(2, 192, 192);
  noOffset[192] = 0;
  std::string noSize = ProgramBytes(2, 150, 150);
  noSize[300] = 0;
  noSize += std::string(10, '\0');
  std::string notProgram = ProgramBytes(1, 150, 150);
  notProgram[0] = 3;
  for (const Case& k : {Case{noOffset, "Couldn't determine the keygroup offset"},
                        Case{noSize, "Couldn't determine the keygroup size"},
                        Case{notProgram, "Not an AKAI S1000-series or S3000-series program"}}) {
    test::WriteFile(dir / "x.p", k.bytes);
    Collection c;
    EXPECT_FALSE(Read(c, dir / "x.p", akaip_Imp));
    EXPECT_STREQ(ErrorMessage, k.message);
  }
  // Both sizes are found: S1000 keygroups behind an S1000 header, and the
  // S3000 ones.
  for (std::size_t size : {150, 192}) {
    test::WriteFile(dir / "y.p", ProgramBytes(3, size, size));
    Collection c;
    EXPECT_TRUE(Read(c, dir / "y.p", akaip_Imp)) << ErrorMessage;
  }
}

// Offsets where our copy of a corpus program may differ, and why.
bool Unmapped(std::size_t at, std::size_t block) {
  if (at < block) {
    // Keygroup address the sampler rewrites; MIDI program, channel,
    // polyphony, priority, outputs, temperament and the rest of the header
    // that the model has no rows for get the machine's defaults.
    static const std::set<std::size_t> mapped = {0, 3, 4, 15, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 19, 20, 21, 24, 25, 26,
                                                 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 42, 65, 66};
    return !mapped.count(at);
  }
  const std::size_t k = (at - block) % block;
  if (k == 0 || k == 3 || k == 4 || k == 7 || (k >= 9 && k <= 15) || (k >= 20 && k <= 23)) return false;
  if (k >= 34 && k < 34 + 4 * 24) {
    const std::size_t z = (k - 34) % 24;
    return z == 17 || z >= 19;  // zone filter, loop mode and the sampler's addresses
  }
  return true;  // next-keygroup address, envelope modulation, key tracking...
}

TEST(AkaiPrograms, CorpusProgramsRoundTripAtMappedBytes) {
  if (!test::NeedCorpus()) return;
  Boxes boxes;
  for (const char* name : {"akai/s3000-mk8ultra/mk8ultra.p", "akai/s3000-yxpanapad/YXPANAPAD.p"}) {
    TempDir dir;
    const fs::path src = test::CorpusDir() / name;
    Program p;
    ASSERT_TRUE(ReadProgramFile(p, src)) << ErrorMessage;
    ASSERT_TRUE(Write(*p.c.All<Instrument>().front(), dir / "out.p", kS3000ProgramRow)) << ErrorMessage;
    const std::string a = Bytes(src), b = Bytes(dir / "out.p");
    // The sample the corpus lacks has no wave and no zone in the copy.
    const bool yx = std::string(name).find("YX") != std::string::npos;
    ASSERT_EQ(b.size(), a.size());
    std::vector<std::size_t> differ;
    for (std::size_t at = 0; at < a.size(); ++at) {
      if (a[at] == b[at] || Unmapped(at, 192)) continue;
      const std::size_t k = (at - 192) % 192, zone = (k - 34) / 24, z = (k - 34) % 24;
      if (yx && at >= 192 && at < 384 && k >= 34 && zone < 2) continue;  // its zones moved up one
      // Zone tune: 1/256 semitone against the model's 0.01.
      if (at >= 192 && k >= 34 && (z == 14 || z == 15) && std::abs(S16(a, at - z + 14) - S16(b, at - z + 14)) <= 1)
        continue;
      differ.push_back(at);
    }
    EXPECT_TRUE(differ.empty()) << name << ": first differing offset " << (differ.empty() ? 0 : differ[0]);
    // The samples went beside it under the names the keygroups use.
    for (Region* r : p.regions) {
      if (Waveform* w = RegionWaveform(*r)) {
        EXPECT_TRUE(fs::exists(dir / (std::string(w->Name()) + ".S"))) << w->Name();
      }
    }
    // A second read lists the same.
    Program again;
    ASSERT_TRUE(ReadProgramFile(again, dir / "out.p")) << ErrorMessage;
    EXPECT_EQ(again.regions.size(), p.regions.size() - (yx ? 1 : 0));
    if (!yx) {
      EXPECT_EQ(test::TreeText(again.c), test::TreeText(p.c));
    }
  }
}

TEST(AkaiPrograms, ScalesWriteBackEveryByte) {
  // One keygroup per value: filter, envelopes, and the header's LFOs and
  // amounts through the 0-99 tables and the common factor.
  TempDir dir;
  std::string sample = SampleHeader(3, 0, 4) + std::string(8, '\0');
  sample[15] = static_cast<char>(0x80);
  sample[138] = static_cast<char>(0x44);
  sample[139] = static_cast<char>(0xAC);
  for (int i = 0; i < 12; ++i) sample[3 + i] = i == 0 ? 11 : 10;  // "A"
  test::WriteFile(dir / "A.S", sample);
  for (int base : {0, 50}) {
    const int count = base == 0 ? 50 : 49;
    std::string p = ProgramBytes(count, 192, 192);
    for (int g = 0; g < count; ++g) {
      char* k = p.data() + 192 * (g + 1);
      const int v = base + g;
      k[3] = k[4] = static_cast<char>(g);
      k[7] = static_cast<char>(v);
      for (int e : {12, 13, 14, 15, 20, 21, 22, 23}) k[e] = static_cast<char>(v);
      for (int e : {9, 10, 11}) k[e] = static_cast<char>(v - 50);
      k[34] = 11;
      for (int i = 1; i < 12; ++i) k[34 + i] = 10;
      k[34 + 13] = 127;
    }
    for (int i = 0; i < 12; ++i) p[3 + i] = 11 + i;
    const int v = base + 17;
    for (int h : {25, 29, 30, 31, 33, 34, 35, 36, 37, 38}) p[h] = static_cast<char>(v);
    for (int h : {24, 26, 28, 32}) p[h] = static_cast<char>(v - 50);
    p[27] = static_cast<char>((v - 50) / 4);  // key to volume: 24 dB per octave at most
    p[39] = 7;
    p[65] = 0x40;
    p[66] = 0x01;
    test::WriteFile(dir / "t.p", p);
    Program prog;
    ASSERT_TRUE(ReadProgramFile(prog, dir / "t.p")) << ErrorMessage;
    ASSERT_TRUE(Write(*prog.c.All<Instrument>().front(), dir / "u.p", kS3000ProgramRow)) << ErrorMessage;
    const std::string b = Bytes(dir / "u.p");
    ASSERT_EQ(b.size(), p.size());
    for (std::size_t at = 0; at < p.size(); ++at) {
      if (!Unmapped(at, 192) && at != 19 && at != 20) {
        EXPECT_EQ(p[at], b[at]) << "offset " << at << " base " << base;
      }
    }
  }
}

TEST(AkaiPrograms, WriterGroupsZonesNamesSamplesAndSplitsStereo) {
  Boxes boxes;
  TempDir dir;
  Collection c;
  auto* inst = Create<Instrument>(c, "Kit");
  Layer* layer = AddLayer(*inst);
  auto wave = [&](const char* name, uint8_t channels, uint32_t rate) {
    auto* w = Create<Waveform>(c, name);
    w->channels = channels;
    w->length = 32;  // a sample file has at least 192 bytes
    w->sampleRate = rate;
    int16_t* s = AllocSamples16(*w);
    for (int i = 0; i < 32 * channels; ++i) s[i] = static_cast<int16_t>(i % 2 ? -1000 : 1000);
    return w;
  };
  // Five velocity layers over one key range: four zones, then a second
  // keygroup; two names that fold alike; a stereo wave; a rate the header
  // can't hold; a region without a wave.
  const char* names[] = {"kick", "Kick", "snare", "hat", "tom"};
  for (int v = 0; v < 5; ++v)
    AddRegion(*layer, wave(names[v], 1, 22050)->id, MakeRange(36, 40), MakeRange(v * 25, v * 25 + 24), 255);
  AddRegion(*layer, wave("Pad", 2, 44100)->id, MakeRange(41, 50), MakeRange(0, 127), 255);
  AddRegion(*layer, wave("Air", 1, 96000)->id, MakeRange(51, 60), MakeRange(0, 127), 255);
  AddRegion(*layer, kNoItem, MakeRange(61, 70), MakeRange(0, 127), 255);
  ASSERT_TRUE(Write(*inst, dir / "kit.p", 287)) << ErrorMessage;
  ASSERT_EQ(gBoxes.size(), 1u);
  EXPECT_EQ(gBoxes[0], "Warning: 1 region(s) without a wave were not saved");
  const std::string p = Bytes(dir / "kit.p");
  ASSERT_EQ(p.size(), 150u * 5);
  EXPECT_EQ(p[42], 4);
  auto zoneName = [&](int g, int z) {
    return akai_DecodeName({reinterpret_cast<const uint8_t*>(p.data()) + 150 * (g + 1) + 34 + 24 * z, 12});
  };
  EXPECT_EQ(zoneName(0, 0), "KICK        ");
  EXPECT_EQ(zoneName(0, 1), "KICK 2      ");
  EXPECT_EQ(zoneName(1, 0), "TOM         ");
  EXPECT_EQ(p[150 * 2 + 31], 1);  // zones used
  EXPECT_EQ(zoneName(2, 0), "PAD-L       ");
  EXPECT_EQ(zoneName(2, 1), "PAD-R       ");
  EXPECT_EQ(static_cast<int8_t>(p[150 * 3 + 34 + 18]), -50);
  EXPECT_EQ(static_cast<int8_t>(p[150 * 3 + 34 + 24 + 18]), 50);
  EXPECT_EQ(zoneName(3, 0), "AIR         ");
  for (const char* f : {"KICK.S", "KICK 2.S", "SNARE.S", "HAT.S", "TOM.S", "PAD-L.S", "PAD-R.S", "AIR.wav"})
    EXPECT_TRUE(fs::exists(dir / f)) << f;
  EXPECT_NE(Bytes(dir / "AIR.wav").find("CWDT"), std::string::npos);
  EXPECT_EQ(S16(Bytes(dir / "PAD-R.S"), 150), -1000);
  // And back: every zone finds its sample.
  Program back;
  ASSERT_TRUE(ReadProgramFile(back, dir / "kit.p")) << ErrorMessage;
  ASSERT_EQ(back.regions.size(), 8u);
  for (Region* r : back.regions) EXPECT_NE(RegionWaveform(*r), nullptr) << r->Name();
}

TEST(AkaiPrograms, FailedSaveLeavesTheFolderAsItWas) {
  if (!test::NeedCorpus()) return;
  Boxes boxes;
  TempDir dir;
  Program p;
  ASSERT_TRUE(ReadProgramFile(p, test::CorpusDir() / "akai/s3000-mk8ultra/mk8ultra.p"));
  test::WriteFile(dir / "M8 PA G1  SA.S", "old sample");
  test::WriteFile(dir / "out.p", "old program");
  // The program itself can't be written: every sample written before goes,
  // the one replaced comes back.
  FileRef readOnly;
  ASSERT_TRUE(readOnly.OpenRead(dir / "out.p"));
  ExportRequest request{0, 3};
  EXPECT_FALSE(akaip_Exp(*p.c.All<Instrument>().front(), readOnly, request));
  EXPECT_STREQ(ErrorMessage, "Writing to file failed");
  EXPECT_EQ(Bytes(dir / "M8 PA G1  SA.S"), "old sample");
  std::size_t entries = 0;
  for (auto it = fs::directory_iterator(dir.path()); it != fs::directory_iterator(); ++it) ++entries;
  EXPECT_EQ(entries, 2u);
}

// ---------------------------------------------------------------- images

TEST(AkaiImages, CorpusImagesMatchTheLooseFiles) {
  if (!test::NeedCorpus()) return;
  Boxes boxes;
  const fs::path corpus = test::CorpusDir() / "akai";
  auto samples = [](Collection& c, const std::string& name) -> Waveform* {
    for (Waveform* w : c.All<Waveform>())
      if (w->Name() == name) return w;
    return nullptr;
  };
  auto same = [](Waveform& a, Waveform& b) {
    ASSERT_TRUE(a.EnsureData() && b.EnsureData());
    ASSERT_EQ(a.length, b.length);
    EXPECT_EQ(std::memcmp(Samples16(a), Samples16(b), 2 * a.length), 0);
    EXPECT_EQ(a.sampleRate, b.sampleRate);
    EXPECT_EQ(a.rootKey, b.rootKey);
    EXPECT_EQ(a.loopStart, b.loopStart);
    EXPECT_EQ(a.loopEnd, b.loopEnd);
  };
  Collection s1000;
  ASSERT_TRUE(Read(s1000, corpus / "images/s1000-hd-floppy.img", akafd_Imp)) << ErrorMessage;
  for (const char* name : {"FLUTED5", "KICK"}) {
    Collection loose;
    ASSERT_TRUE(Read(loose, corpus / "files" / (std::string(name) + ".S1"), akais_Imp));
    Waveform* w = samples(s1000, name);
    ASSERT_NE(w, nullptr) << name;
    same(*w, *loose.All<Waveform>().front());
    EXPECT_EQ(w->sourcePath, "<AKAI floppy disk image: " + std::string(name) + ".s>");
  }

  Collection s3000;
  ASSERT_TRUE(Read(s3000, corpus / "images/s3000-hd-floppy-mk8ultra.img", akafd_Imp)) << ErrorMessage;
  Program loose;
  ASSERT_TRUE(ReadProgramFile(loose, corpus / "s3000-mk8ultra/mk8ultra.p"));
  EXPECT_EQ(s3000.Count(ItemType::Instrument), 1u);
  EXPECT_EQ(s3000.Count(ItemType::Region), 10u);
  ASSERT_EQ(s3000.Count(ItemType::Waveform), 5u);
  for (Waveform* w : loose.c.All<Waveform>()) {
    Waveform* in = samples(s3000, std::string(w->Name()));
    ASSERT_NE(in, nullptr) << w->Name();
    same(*in, *w);
  }
  for (Region* r : s3000.All<Region>()) EXPECT_NE(RegionWaveform(*r), nullptr);

  Collection hd;
  EXPECT_FALSE(Read(hd, corpus / "images/s3000-harddisk-4MB.img", akafd_Imp));
  EXPECT_STREQ(ErrorMessage, "Wrong file size for an AKAI S-series floppy disk");

  // The listing names every file.
  char* text = nullptr;
  std::size_t length = 0;
  std::FILE* out = open_memstream(&text, &length);
  ASSERT_TRUE(PrintFileInfo(out, corpus / "images/s3000-hd-floppy-mk8ultra.img"));
  std::fclose(out);
  const std::string listing(text, length);
  std::free(text);
  EXPECT_NE(listing.find("\t<AKAI floppy disk image: M8 PA G5  SA.s>\n\t<AKAI floppy disk image: MK8ULTRA.p>\n"),
            std::string::npos)
      << listing;
}

TEST(AkaiImages, BrokenChainsAndChkSysHead) {
  if (!test::NeedCorpus()) return;
  TempDir dir;
  const std::string image = Bytes(test::CorpusDir() / "akai/images/s1000-hd-floppy.img");
  // FLUTED5 runs from block 5; its link at block 6 sent out of the disk,
  // then back to block 5.
  for (uint16_t link : {uint16_t{1600}, uint16_t{5}}) {
    std::string bad = image;
    bad[1536 + 12] = static_cast<char>(link & 0xFF);
    bad[1536 + 13] = static_cast<char>(link >> 8);
    test::WriteFile(dir / "bad.akai", bad);
    Collection c;
    EXPECT_FALSE(Read(c, dir / "bad.akai", akafd_Imp));
    EXPECT_STREQ(ErrorMessage, "Error: Invalid FAT");
  }
  test::WriteFile(dir / "x.dmg", std::string(24576, '\x5a') + image);
  Collection c;
  ASSERT_TRUE(Read(c, dir / "x.dmg", akafd_Imp, 1)) << ErrorMessage;
  ASSERT_EQ(c.Count(ItemType::Waveform), 2u);
  EXPECT_EQ(c.All<Waveform>().front()->sourcePath, "<ChkSys AKAI floppy image: FLUTED5.s>");
  test::WriteFile(dir / "short.dmg", std::string(24576 + 1024 * 799, '\0'));
  EXPECT_FALSE(Read(c, dir / "short.dmg", akafd_Imp, 1));
  EXPECT_STREQ(ErrorMessage, "Wrong file size for an AKAI S-series floppy disk");
}

// ---------------------------------------------------------------- conversions

TEST(AkaiPeers, SoundFontInstrumentThroughAnS3000ProgramRendersLikeTheOriginal) {
  if (!test::Need(fs::exists(kTimGM), "timgm6mb-soundfont")) return;
  if (!test::NeedTool("fluidsynth")) return;
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  TempDir dir;
  Collection bank;
  ASSERT_TRUE(ImportFile(bank, kTimGM, false)) << ErrorMessage;
  // The oboe: seven regions, and nothing the machine lacks (hold, effect
  // sends) that would make the copy sound different by design.
  constexpr int kOboe = 68;
  Instrument* oboe = nullptr;
  for (Instrument* inst : bank.All<Instrument>())
    if (inst->location == MakeLocation(0, 0, kOboe, false)) oboe = inst;
  ASSERT_NE(oboe, nullptr);
  ASSERT_TRUE(SaveFile(oboe, dir / "oboe.p", kS3000ProgramRow, ExportRequest{0, 3}, false))
      << ErrorContext << ": " << ErrorMessage;
  Collection back;
  ASSERT_TRUE(ImportFile(back, dir / "oboe.p", false)) << ErrorMessage;
  ASSERT_GE(back.Count(ItemType::Region), 4u);
  ASSERT_EQ(back.All<Instrument>().front()->location, MakeLocation(0, 0, kOboe, false));
  ASSERT_TRUE(SaveFile(&back, dir / "back.sf2", FindWriterByExtension("sf2", 0x80), ExportRequest{}, false))
      << ErrorContext << ": " << ErrorMessage;

  test::SmfTrack t;
  t.Event(0, {0xC0, kOboe});
  int notes[] = {55, 60, 67, 72, 79, 84};
  for (int n : notes) {
    t.Event(0, {0x90, n, 100});
    t.Event(480, {0x80, n, 0});
  }
  test::WriteFile(dir / "song.mid", t.File());
  std::string logA, logB;
  ASSERT_EQ(test::RenderWithFluidSynth(kTimGM, dir / "song.mid", dir / "a.wav", logA), 0) << logA;
  ASSERT_EQ(test::RenderWithFluidSynth(dir / "back.sf2", dir / "song.mid", dir / "b.wav", logB), 0) << logB;
  const auto a = test::ReadWavSamples(dir / "a.wav"), b = test::ReadWavSamples(dir / "b.wav");
  ASSERT_GT(a.size(), 44100u);
  const auto [correlation, differenceDb] = test::CompareRenders(a, b);
  RecordProperty("correlation", std::to_string(correlation));
  RecordProperty("difference_db", std::to_string(differenceDb));
  std::printf("sf2 -> akai -> sf2 render: correlation %.5f, difference %.1f dB\n", correlation, differenceDb);
  // Measured 1.0000 and -39.7 dB: rounding of the 0-99 scales is what is
  // left.
  EXPECT_GE(correlation, 0.999);
  EXPECT_LE(differenceDb, -35.0);
}

TEST(AkaiPeers, CorpusProgramSavesAsSfzAndSf2) {
  if (!test::NeedCorpus()) return;
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
  TempDir dir;
  Collection c;
  ASSERT_TRUE(ImportFile(c, test::CorpusDir() / "akai/s3000-mk8ultra/mk8ultra.p", false)) << ErrorMessage;
  for (const char* ext : {"sfz", "sf2"}) {
    SaveOptions options;
    ASSERT_TRUE(SaveCollectionOrItem(c, nullptr, dir / (std::string("out.") + ext), options))
        << ErrorContext << ": " << ErrorMessage;
    Collection back;
    ASSERT_TRUE(ImportFile(back, dir / (std::string("out.") + ext), false)) << ErrorMessage;
    EXPECT_EQ(back.Count(ItemType::Region), 10u) << ext;
  }
}

}  // namespace
}  // namespace kv
