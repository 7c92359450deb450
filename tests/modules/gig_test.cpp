// GigaStudio reader and writer: the corpus against gigdump and gigextract,
// dimension regions built byte by byte, bad files, and our own files read
// back by gigtools.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/resolved.h"
#include "core/wavestore.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/dls.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::string U16(uint32_t v) { return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)}; }
std::string U32(uint32_t v) { return U16(v & 0xFFFF) + U16(v >> 16); }
std::string Chunk(const std::string& id, const std::string& body) {
  std::string s = id + U32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
std::string List(const std::string& type, const std::string& body) { return Chunk("LIST", type + body); }

std::vector<Region*> Regions(Collection& c) {
  std::vector<Region*> r = c.All<Region>();
  std::sort(r.begin(), r.end(), [](const Region* a, const Region* b) { return a->id < b->id; });
  return r;
}

bool Load(Collection& c, const fs::path& path) {
  ClearError();
  return ImportFile(c, path, false);
}

// Boxes shown during a load, captured.
std::vector<std::string>* g_boxes = nullptr;
class BoxCapture {
 public:
  BoxCapture() : enabled_(MessageBoxesEnabled) {
    g_boxes = &texts;
    MessageBoxesEnabled = 1;
    SetBoxPresenter([](const std::string& text, const std::string&, BoxButtons) {
      g_boxes->push_back(text);
      return static_cast<int>(kBoxOk);
    });
  }
  ~BoxCapture() {
    SetBoxPresenter(nullptr);
    MessageBoxesEnabled = enabled_;
    g_boxes = nullptr;
  }
  std::vector<std::string> texts;

 private:
  uint8_t enabled_;
};

TEST(GigCorpus, LoadsAsGigdumpSaysAndDecodesAsGigextract) {
  if (!test::NeedCorpus()) return;
  const fs::path path = test::CorpusDir() / "gig/corpus-shared-libgig.gig";
  Collection c;
  ASSERT_TRUE(Load(c, path)) << ErrorMessage;
  EXPECT_EQ(std::string(c.Name()), "Corpus shared GIG");
  const auto instruments = c.All<Instrument>();
  ASSERT_EQ(instruments.size(), 2u);
  EXPECT_EQ(LocationProgram(instruments[0]->location), 73);
  EXPECT_EQ(LocationProgram(instruments[1]->location), 113);
  const auto regions = Regions(c);
  ASSERT_EQ(regions.size(), 3u);
  std::string loops;
  for (Region* r : regions) {
    const ResolvedRegion rr = ResolveRegion(*r);
    loops += rr.loop.type ? "1" : "0";
    EXPECT_NEAR(rr.art.value[kRowVEnvR1Rate], 0.3, 0.003);
  }
  EXPECT_EQ(loops, "110");
  EXPECT_EQ(ResolveRegion(*regions[0]).pitch.rootKey, 62);
  EXPECT_EQ(ResolveRegion(*regions[1]).pitch.rootKey, 67);
  const auto waves = c.All<Waveform>();
  ASSERT_EQ(waves.size(), 3u);
  EXPECT_EQ(waves[2]->channels, 2);
  EXPECT_EQ(waves[2]->length, 24000u);
  EXPECT_EQ(waves[0]->loopStart, 5266.0f);
  EXPECT_EQ(waves[0]->loopEnd, 9504.0f);

  if (!test::NeedTool("gigextract")) return;
  TempDir dir;
  ASSERT_EQ(test::RunCommand("gigextract '" + path.string() + "' '" + dir.path().string() + "' >/dev/null 2>&1"), 0);
  for (std::size_t i = 0; i < waves.size(); ++i) {
    Waveform* w = waves[i];
    Collection x;
    ASSERT_TRUE(Load(x, dir / (std::to_string(i + 1) + "_" + std::string(w->Name()) + ".wav"))) << w->Name();
    Waveform* ref = x.All<Waveform>().front();
    ASSERT_EQ(ref->length, w->length);
    const int16_t* a = Samples16(*w);
    const int16_t* b = Samples16(*ref);
    ASSERT_TRUE(a && b);
    EXPECT_TRUE(std::equal(a, a + w->SampleCount(), b)) << w->Name();
  }
}

// A version 3 file: one instrument, one region whose dimensions are given
// as (type, bits, zones), a 3ewl per dimension region, all playing wave 0.
// `split`: two pool entries, the second in the extension file .gx01, and
// the dimension regions alternating between them.
std::string GigFile(const std::vector<std::array<int, 3>>& dims, int dimensionRegions, bool pool = true,
                    bool split = false) {
  std::string lnk = U32(static_cast<uint32_t>(dimensionRegions));
  int pos = 0;
  for (std::size_t i = 0; i < 8; ++i) {
    if (i < dims.size()) {
      const auto& d = dims[i];
      lnk += std::string{static_cast<char>(d[0]), static_cast<char>(d[1]), static_cast<char>(pos), 0,
                         static_cast<char>(d[2]), 0, 0, 0};
      pos += d[1];
    } else {
      lnk += std::string(8, '\0');
    }
  }
  for (int i = 0; i < dimensionRegions; ++i) lnk += U32(split ? i % 2 : 0);
  std::string prg;
  for (int i = 0; i < dimensionRegions; ++i) {
    std::string ewa(148, '\0');
    ewa[0] = static_cast<char>(148);
    ewa[38] = static_cast<char>(0xE8);  // sustain 1000 permille
    ewa[39] = 0x03;
    prg += List("3ewl", Chunk("3ewa", ewa));
  }
  const std::string rgn = List("rgn ", Chunk("rgnh", U16(0) + U16(127) + U16(0) + U16(127) + U16(0) + U16(0)) +
                                           Chunk("3lnk", lnk) + List("3prg", prg));
  const std::string ins = List("ins ", Chunk("insh", U32(1) + U32(0) + U32(5)) + List("lrgn", rgn));
  std::string data;
  for (int i = 0; i < 100; ++i) data += U16(static_cast<uint16_t>(i * 100));
  const std::string fmt = U16(1) + U16(1) + U32(44100) + U32(88200) + U16(2) + U16(16);
  const std::string wave = List("wave", Chunk("fmt ", fmt) + Chunk("data", data));
  std::string body = "DLS " + Chunk("vers", U32(3 << 16) + U32(0)) + Chunk("colh", U32(1)) + List("lins", ins);
  if (split) body += Chunk("ptbl", U32(8) + U32(2) + U32(0) + U32(0) + U32(1) + U32(0)) + List("wvpl", wave);
  else if (pool) body += Chunk("ptbl", U32(8) + U32(1) + U32(0)) + List("wvpl", wave);
  return Chunk("RIFF", body);
}

// An extension file of a split set: a pool of one wave of `frames` frames.
std::string ExtensionFile(int frames) {
  std::string data;
  for (int i = 0; i < frames; ++i) data += U16(static_cast<uint16_t>(7 * i));
  const std::string fmt = U16(1) + U16(1) + U32(44100) + U32(88200) + U16(2) + U16(16);
  return Chunk("RIFF", "DLS " + List("wvpl", List("wave", Chunk("fmt ", fmt) + Chunk("data", data))));
}

bool ReadGig(const TempDir& dir, const std::string& bytes, Collection& c) {
  test::WriteFile(dir / "t.gig", bytes);
  FileRef file;
  EXPECT_TRUE(file.OpenRead(dir / "t.gig"));
  ClearError();
  return gig_Imp(c, file, 0);
}

TEST(GigRead, DimensionsBecomeLayersTriggersAndNotes) {
  TempDir dir;
  // Velocity (2 zones) x release trigger x keyswitch (2 zones).
  Collection c;
  BoxCapture boxes;
  ASSERT_TRUE(ReadGig(dir, GigFile({{0x82, 1, 2}, {0x84, 1, 2}, {0x85, 1, 2}}, 8), c)) << ErrorMessage;
  const auto regions = Regions(c);
  ASSERT_EQ(regions.size(), 4u);  // the keyswitch keeps its first zone
  int releases = 0;
  for (Region* r : regions) {
    const ResolvedRegion rr = ResolveRegion(*r);
    releases += r->GetParam(kRowTriggerType) == 1.0f;
    EXPECT_TRUE((rr.trigger.loVel == 0 && rr.trigger.hiVel == 63) || (rr.trigger.loVel == 64 && rr.trigger.hiVel == 127));
  }
  EXPECT_EQ(releases, 2);
  ASSERT_EQ(boxes.texts.size(), 1u);
  EXPECT_NE(boxes.texts[0].find("Note: the keyswitch dimension"), std::string::npos) << boxes.texts[0];

  // Round robin zones are alternate groups; more dimension bits than 8 are
  // cut with a note; a zone count of 0 means all the bits allow.
  Collection rr;
  boxes.texts.clear();
  ASSERT_TRUE(ReadGig(dir, GigFile({{0x86, 2, 0}, {0x82, 7, 2}}, 4), rr)) << ErrorMessage;
  std::vector<int> triggers;
  for (Region* r : Regions(rr)) triggers.push_back(static_cast<int>(r->GetParam(kRowTriggerType)));
  EXPECT_EQ(triggers, (std::vector<int>{2, 3, 4, 5}));
  ASSERT_EQ(boxes.texts.size(), 1u);
  EXPECT_NE(boxes.texts[0].find("more than 8 bits"), std::string::npos);
}

TEST(GigRead, BadFilesFailWithTheirTexts) {
  TempDir dir;
  Collection c;
  EXPECT_FALSE(ReadGig(dir, GigFile({}, 1, false), c));
  EXPECT_STREQ(ErrorContext, "gig_Parse");
  EXPECT_STREQ(ErrorMessage, "No waveforms!");
  EXPECT_FALSE(ReadGig(dir, Chunk("RIFF", "WAVE" + Chunk("data", "")), c));
  EXPECT_STREQ(ErrorMessage, "Not a RIFF DLS file");
  // A table of dimension regions that claims more than the file holds.
  Collection big;
  EXPECT_TRUE(ReadGig(dir, GigFile({{0x82, 8, 0}}, 2), big));
  EXPECT_EQ(Regions(big).size(), 2u);
}

TEST(GigRead, SplitSetsReadTheirExtensionFiles) {
  TempDir dir;
  test::WriteFile(dir / "set.gig", GigFile({{0x82, 1, 2}}, 2, true, true));
  // Found whatever the case of its name, as files made on Windows.
  test::WriteFile(dir / "SET.GX01", ExtensionFile(333));
  Collection c;
  ASSERT_TRUE(Load(c, dir / "set.gig")) << ErrorMessage;
  const auto regions = Regions(c);
  ASSERT_EQ(regions.size(), 2u);
  const Waveform* second = RegionWaveform(*regions[1]);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->length, 333u);
  EXPECT_EQ(second->sourcePath.filename(), "SET.GX01");
  Waveform* w = const_cast<Waveform*>(second);
  ASSERT_TRUE(Samples16(*w)) << ErrorMessage;
  EXPECT_EQ(Samples16(*w)[10], 70);
  EXPECT_EQ(RegionWaveform(*regions[0])->length, 100u);

  test::WriteFile(dir / "SET.GX01", "not a riff file");
  Collection bad;
  EXPECT_FALSE(Load(bad, dir / "set.gig"));
  EXPECT_STREQ(ErrorMessage, "Invalid extension file");
  fs::remove(dir / "SET.GX01");
  Collection missing;
  EXPECT_FALSE(Load(missing, dir / "set.gig"));
  EXPECT_STREQ(ErrorMessage, "Couldn't find extension file");
}

// ---- writing ----

bool Save(Collection& c, const fs::path& path, int row) {
  ClearError();
  return SaveFile(&c, path, row, ExportRequest{}, false);
}

constexpr int kRowV1Compressed = 162, kRowV3Normal = 163, kRowV3Compressed = 164;

// gigdump's values of one field, in file order.
std::vector<double> DumpValues(const std::string& dump, const std::string& field) {
  std::vector<double> v;
  for (std::size_t at = dump.find(field + "="); at != std::string::npos; at = dump.find(field + "=", at + 1)) {
    if (at > 0 && std::isalnum(static_cast<unsigned char>(dump[at - 1]))) continue;
    v.push_back(std::atof(dump.c_str() + at + field.size() + 1));
  }
  return v;
}

TEST(GigWrite, Sf2BanksSaveAsGigdumpReadsThem) {
  if (!test::NeedCorpus() || !test::NeedTool("gigdump")) return;
  TempDir dir;
  for (const char* name : {"sf2/TimGM6mb-subset-spessasynth.sf2", "sf2/VintageDreamsWaves-v2.sf2"}) {
    SCOPED_TRACE(name);
    Collection source;
    ASSERT_TRUE(Load(source, test::CorpusDir() / name)) << ErrorMessage;
    for (int row : {kRowV3Normal, kRowV3Compressed}) {
      const fs::path out = dir / ("out" + std::to_string(row) + ".gig");
      ASSERT_TRUE(Save(source, out, row)) << ErrorMessage;
      std::string verify, dump;
      test::RunCommand("gigdump --verify '" + out.string() + "' 2>&1", &verify);
      EXPECT_NE(verify.find("All checks passed"), std::string::npos) << verify;
      ASSERT_EQ(test::RunCommand("gigdump '" + out.string() + "' 2>&1", &dump), 0);
      // What gigdump prints per dimension region against our own reading
      // of the same file, itself checked against the source below.
      Collection back;
      ASSERT_TRUE(Load(back, out)) << ErrorMessage;
      EXPECT_EQ(back.All<Instrument>().size(), source.All<Instrument>().size());
      EXPECT_EQ(back.All<Waveform>().size(), source.All<Waveform>().size());
      const std::vector<double> unity = DumpValues(dump, "UnityNote"), release = DumpValues(dump, "EG1Release"),
                                sustain = DumpValues(dump, "EG1Sustain"), attack = DumpValues(dump, "EG1Attack"),
                                fine = DumpValues(dump, "FineTune");
      ASSERT_EQ(unity.size(), release.size());
      ASSERT_EQ(unity.size(), fine.size());
      const auto regions = Regions(back);
      for (Region* region : regions) {
        const ResolvedRegion r = ResolveRegion(*region);
        bool printed = false;
        for (std::size_t i = 0; i < unity.size() && !printed; ++i) {
          auto near = [](double a, double b) { return std::fabs(a - b) <= 0.01 * std::fabs(b) + 1e-6; };
          // The same pitch centre: a tune past a semitone reads back into
          // the root key.
          const double centre = r.pitch.rootKey - r.pitch.masterTune - r.pitch.waveFineTune / 100.0;
          printed = std::fabs(unity[i] - fine[i] / 100.0 - centre) < 0.011 && near(release[i], r.art.value[kRowVEnvR1Rate]) &&
                    near(attack[i], r.art.value[kRowVEnvA2Time]) &&
                    std::fabs(sustain[i] - r.art.value[kRowVEnvSustain] * 1000) <= 1.0;
        }
        EXPECT_TRUE(printed) << region->Name();
      }
      // Every source region's release and root are in the file, key by key.
      std::vector<ResolvedRegion> resolvedBack;
      for (Region* b : regions) resolvedBack.push_back(ResolveRegion(*b));
      for (Region* s : Regions(source)) {
        const ResolvedRegion sr = ResolveRegion(*s);
        if (!sr.wave || sr.trigger.triggerType != 0) continue;
        const int key = (sr.trigger.loKey + sr.trigger.hiKey) / 2, vel = (sr.trigger.loVel + sr.trigger.hiVel) / 2;
        bool found = false;
        for (const ResolvedRegion& br : resolvedBack) {
          if (br.trigger.loKey > key || br.trigger.hiKey < key || br.trigger.loVel > vel || br.trigger.hiVel < vel ||
              br.wave->Name() != sr.wave->Name())
            continue;
          auto centre = [](const ResolvedRegion& r) {
            return r.pitch.rootKey - r.pitch.masterTune - r.pitch.waveFineTune / 100.0;
          };
          found |= std::fabs(centre(br) - centre(sr)) < 0.011 &&
                   std::fabs(br.art.value[kRowVEnvR1Rate] - sr.art.value[kRowVEnvR1Rate]) <=
                       0.01 * sr.art.value[kRowVEnvR1Rate] + 1e-4;
        }
        EXPECT_TRUE(found) << s->Name();
      }
    }
  }
}

TEST(GigWrite, GigToGigKeepsTheTreeAndCompressesSmaller) {
  if (!test::NeedCorpus()) return;
  TempDir dir;
  Collection c;
  ASSERT_TRUE(Load(c, test::CorpusDir() / "gig/corpus-shared-libgig.gig")) << ErrorMessage;
  ASSERT_TRUE(Save(c, dir / "n.gig", kRowV3Normal)) << ErrorMessage;
  ASSERT_TRUE(Save(c, dir / "c.gig", kRowV3Compressed)) << ErrorMessage;
  EXPECT_LT(fs::file_size(dir / "c.gig"), fs::file_size(dir / "n.gig"));
  for (const char* name : {"n.gig", "c.gig"}) {
    Collection back;
    ASSERT_TRUE(Load(back, dir / name)) << ErrorMessage;
    EXPECT_EQ(test::TreeText(back), test::TreeText(c)) << name;
    for (std::size_t i = 0; i < 3; ++i) {
      Waveform* a = c.All<Waveform>()[i];
      Waveform* b = back.All<Waveform>()[i];
      ASSERT_EQ(a->SampleCount(), b->SampleCount());
      EXPECT_TRUE(std::equal(Samples16(*a), Samples16(*a) + a->SampleCount(), Samples16(*b)));
    }
  }
}

// Waves whose blocks need every mode: 16-bit and 24-bit, mono and stereo,
// from steps that fit 8 bits to full-scale noise.
void AddTestWaves(Collection& c, std::vector<Waveform*>& waves) {
  uint32_t seed = 1;
  auto rnd = [&] {
    seed = seed * 1664525u + 1013904223u;
    return static_cast<int32_t>(seed >> 8);
  };
  for (int bits : {16, 24})
    for (int channels : {1, 2}) {
      Waveform* w = Create<Waveform>(c);
      w->SetName((std::to_string(bits) + "-" + std::to_string(channels)).c_str());
      w->bits = static_cast<uint8_t>(bits);
      w->channels = static_cast<uint8_t>(channels);
      w->sampleRate = 44100;
      w->length = 9 * 2048 + 77;
      const std::size_t n = w->SampleCount();
      const int64_t top = bits == 16 ? 32767 : 8388607;
      std::vector<int64_t> v(n);
      int64_t y[2] = {0, 0}, dy[2] = {0, 0};
      for (std::size_t i = 0; i < n; ++i) {
        const int c2 = static_cast<int>(i % channels);
        const std::size_t block = i / channels / (bits == 16 ? 2048 : 256);
        const int width = bits == 16 ? (block % 2 ? 16 : 5) : std::array<int, 4>{5, 9, 13, 24}[block % 4];
        const int64_t step = (rnd() % (1 << width)) - (1 << (width - 1));
        dy[c2] = width >= (bits == 16 ? 16 : 24) ? 0 : dy[c2] / 2 + step / 4;
        y[c2] = width >= (bits == 16 ? 16 : 24) ? step : std::clamp<int64_t>(y[c2] + dy[c2], -top / 2, top / 2);
        v[i] = y[c2];
      }
      if (bits == 16) {
        int16_t* s = AllocSamples16(*w);
        for (std::size_t i = 0; i < n; ++i) s[i] = static_cast<int16_t>(v[i]);
      } else {
        float* f = AllocSamplesFloat(*w);
        for (std::size_t i = 0; i < n; ++i) f[i] = static_cast<float>(v[i] / 8388608.0);
      }
      waves.push_back(w);
    }
}

TEST(GigWrite, CompressedWavesExtractBitForBit) {
  if (!test::NeedTool("gigextract") || !test::NeedTool("gigdump")) return;
  TempDir dir;
  Collection c;
  std::vector<Waveform*> waves;
  AddTestWaves(c, waves);
  ASSERT_TRUE(Save(c, dir / "c.gig", kRowV3Compressed)) << ErrorMessage;
  std::string dump;
  test::RunCommand("gigdump '" + (dir / "c.gig").string() + "' 2>&1", &dump);
  EXPECT_NE(dump.find("Compressed=true"), std::string::npos);
  ASSERT_EQ(test::RunCommand("gigextract '" + (dir / "c.gig").string() + "' '" + dir.path().string() + "' >/dev/null 2>&1"), 0);
  for (std::size_t i = 0; i < waves.size(); ++i) {
    SCOPED_TRACE(waves[i]->Name());
    Collection x;
    ASSERT_TRUE(Load(x, dir / (std::to_string(i + 1) + "_" + std::string(waves[i]->Name()) + ".wav"))) << ErrorMessage;
    Waveform* ref = x.All<Waveform>().front();
    ASSERT_EQ(ref->length, waves[i]->length);
    ASSERT_EQ(ref->channels, waves[i]->channels);
    const std::size_t n = waves[i]->SampleCount();
    if (waves[i]->bits == 16) {
      EXPECT_TRUE(std::equal(Samples16(*ref), Samples16(*ref) + n, Samples16(*waves[i])));
    } else {
      EXPECT_TRUE(std::equal(SamplesFloat(*ref), SamplesFloat(*ref) + n, SamplesFloat(*waves[i])));
    }
  }
  // Read back by ourselves as well; v1 keeps 16 bits.
  Collection back;
  ASSERT_TRUE(Load(back, dir / "c.gig")) << ErrorMessage;
  Waveform* w24 = back.All<Waveform>()[3];
  EXPECT_EQ(w24->bits, 24);
  EXPECT_TRUE(std::equal(SamplesFloat(*w24), SamplesFloat(*w24) + w24->SampleCount(), SamplesFloat(*waves[3])));
  ASSERT_TRUE(Save(c, dir / "v1.gig", kRowV1Compressed)) << ErrorMessage;
  dump.clear();
  ASSERT_EQ(test::RunCommand("gigdump '" + (dir / "v1.gig").string() + "' 2>&1", &dump), 0);
  EXPECT_NE(dump.find("Version: 2.0"), std::string::npos);
  EXPECT_EQ(dump.find("24Bits"), std::string::npos);
  Collection v1;
  ASSERT_TRUE(Load(v1, dir / "v1.gig")) << ErrorMessage;
  for (Waveform* w : v1.All<Waveform>()) EXPECT_EQ(w->bits, 16);
}

TEST(GigWave, WaFilesRoundTripAndRefuseWhatTheyAreNot) {
  TempDir dir;
  Collection c;
  std::vector<Waveform*> waves;
  AddTestWaves(c, waves);
  for (Waveform* w : waves) {
    SCOPED_TRACE(w->Name());
    const fs::path path = dir / (std::string(w->Name()) + ".wa!");
    ClearError();
    ASSERT_TRUE(SaveFile(w, path, 478, ExportRequest{}, false)) << ErrorMessage;
    Collection back;
    ASSERT_TRUE(Load(back, path)) << ErrorMessage;
    Waveform* b = back.All<Waveform>().front();
    ASSERT_EQ(b->length, w->length);
    ASSERT_EQ(b->channels, w->channels);
    if (w->bits == 16) EXPECT_TRUE(std::equal(Samples16(*b), Samples16(*b) + b->SampleCount(), Samples16(*w)));
    else EXPECT_TRUE(std::equal(SamplesFloat(*b), SamplesFloat(*b) + b->SampleCount(), SamplesFloat(*w)));
  }
  const std::string fmt = U16(1) + U16(1) + U32(44100) + U32(88200) + U16(2) + U16(16);
  const std::pair<std::string, const char*> bad[] = {
      {Chunk("RIFF", "DLS " + Chunk("data", "")), "Not a RIFF WAVE file"},
      {Chunk("RIFF", "WAVE" + Chunk("fmt ", fmt) + Chunk("ewav", std::string(68, '\0'))), "No wave data found!"},
      {Chunk("RIFF", "WAVE" + Chunk("fmt ", U16(2) + fmt.substr(2)) + Chunk("data", "ab")),
       "Unsupported compression type"},
  };
  for (const auto& [bytes, text] : bad) {
    test::WriteFile(dir / "x.wa!", bytes);
    FileRef file;
    ASSERT_TRUE(file.OpenRead(dir / "x.wa!"));
    Collection x;
    ClearError();
    EXPECT_FALSE(wa_Imp(x, file, 0));
    EXPECT_STREQ(ErrorContext, "wa!_Imp");
    EXPECT_STREQ(ErrorMessage, text);
  }
}

}  // namespace
}  // namespace kv
