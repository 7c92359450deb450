// SoundFont reader and writer: the corpus banks, the unit conversions that
// are easy to get wrong, and round trips checked by FluidSynth and libgig.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "codecs/ogg.h"
#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/param_catalogue.h"
#include "core/resolved.h"
#include "core/wavestore.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/sf2.h"
#include "formats/registry.h"
#include "support/render.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

const fs::path kTimGM = "/usr/share/sounds/sf2/TimGM6mb.sf2";
const fs::path kFluidR3 = "/usr/share/sounds/sf2/FluidR3_GM.sf2";

bool Load(Collection& c, const fs::path& path, uint32_t parameter = 0) {
  FileRef file;
  if (!file.OpenRead(path)) return false;
  return sf2_Imp(c, file, parameter);
}

bool Save(Item& item, const fs::path& path, uint32_t request = 0) {
  FileRef file;
  if (!file.OpenWrite(path)) return false;
  ExportRequest r{request, 0, 0.0f};
  return sf2_Exp(item, file, r);
}

template <typename T>
std::vector<T*> Children(const Collection& c, const Item& parent) {
  std::vector<T*> out;
  for (ItemId id : parent.children)
    if (auto* t = c.FindAs<T>(id)) out.push_back(t);
  return out;
}

// The value a region plays: its own, else its layer's, else its instrument's.
float Effective(const Collection&, const Region& r, int row) { return ResolveRegion(r).art.value[row]; }

// ---- a bank built byte by byte: one preset, one instrument, one sample ----

struct MiniBank {
  uint16_t bank = 0;
  uint16_t program = 0;
  bool presetZone = true;
  std::vector<std::pair<uint16_t, int16_t>> instGens;
  struct Mod {
    uint16_t src, dest;
    int16_t amount;
  };
  std::vector<Mod> instMods;
  uint8_t originalKey = 60;
  // Further instrument zones, each with its own generators; sample 1 is the
  // right side of a stereo pair whose left side is sample 0.
  std::vector<std::vector<std::pair<uint16_t, int16_t>>> moreZones;
  // The preset's zones, each with its generators before the instrument's.
  std::vector<std::vector<std::pair<uint16_t, int16_t>>> presetZones = {{}};
  uint16_t major = 2;
  // A SoundFont 1 reference to the General MIDI ROM: no sample data at all.
  bool romSample = false;
};

void Put16(std::string& s, uint32_t v) {
  s += static_cast<char>(v & 0xFF);
  s += static_cast<char>((v >> 8) & 0xFF);
}
void Put32(std::string& s, uint32_t v) {
  Put16(s, v & 0xFFFF);
  Put16(s, v >> 16);
}
std::string Chunk(const char* id, const std::string& body) {
  std::string s(id, 4);
  Put32(s, static_cast<uint32_t>(body.size()));
  s += body;
  if (body.size() & 1) s += '\0';
  return s;
}
std::string Name20(const char* name) {
  std::string s(name);
  s.resize(20, '\0');
  return s;
}

std::string BuildBank(const MiniBank& b) {
  constexpr int kFrames = 200;
  std::string smpl;
  for (int i = 0; i < kFrames + 46; ++i) Put16(smpl, i < kFrames ? static_cast<int16_t>(8000 * std::sin(i * 0.2)) : 0);

  std::string phdr = Name20("Preset");
  Put16(phdr, b.program);
  Put16(phdr, b.bank);
  Put16(phdr, 0);
  Put32(phdr, 0), Put32(phdr, 0), Put32(phdr, 0);
  const std::size_t presetZones = b.presetZone ? b.presetZones.size() : 0;
  phdr += Name20("EOP");
  Put16(phdr, 0), Put16(phdr, 0), Put16(phdr, static_cast<uint32_t>(presetZones));
  Put32(phdr, 0), Put32(phdr, 0), Put32(phdr, 0);

  std::string pbag, pgen, pmod(10, '\0');
  for (std::size_t z = 0; z < presetZones; ++z) {
    Put16(pbag, static_cast<uint32_t>(pgen.size() / 4)), Put16(pbag, 0);
    for (auto [oper, amount] : b.presetZones[z]) Put16(pgen, oper), Put16(pgen, static_cast<uint16_t>(amount));
    Put16(pgen, 41), Put16(pgen, 0);
  }
  Put16(pbag, static_cast<uint32_t>(pgen.size() / 4)), Put16(pbag, 0);
  pgen += std::string(4, '\0');

  std::string inst = Name20("Inst");
  Put16(inst, 0);
  inst += Name20("EOI");
  Put16(inst, static_cast<uint32_t>(1 + b.moreZones.size()));
  std::string ibag, igen, imod;
  Put16(ibag, 0), Put16(ibag, 0);
  for (auto [oper, amount] : b.instGens) Put16(igen, oper), Put16(igen, static_cast<uint16_t>(amount));
  Put16(igen, 53), Put16(igen, 0);
  for (const auto& m : b.instMods) {
    Put16(imod, m.src), Put16(imod, m.dest), Put16(imod, static_cast<uint16_t>(m.amount)), Put16(imod, 0),
        Put16(imod, 0);
  }
  std::size_t gens = b.instGens.size() + 1;
  for (const auto& zone : b.moreZones) {
    Put16(ibag, static_cast<uint32_t>(gens)), Put16(ibag, static_cast<uint32_t>(b.instMods.size()));
    for (auto [oper, amount] : zone) Put16(igen, oper), Put16(igen, static_cast<uint16_t>(amount));
    gens += zone.size();
  }
  Put16(ibag, static_cast<uint32_t>(gens)), Put16(ibag, static_cast<uint32_t>(b.instMods.size()));
  igen += std::string(4, '\0');
  imod += std::string(10, '\0');

  const bool stereo = !b.moreZones.empty();
  std::string shdr;
  for (int side = 0; side < (stereo ? 2 : 1); ++side) {
    shdr += Name20(stereo ? (side ? "Sine(R)" : "Sine(L)") : "Sine");
    Put32(shdr, 0), Put32(shdr, kFrames), Put32(shdr, 50), Put32(shdr, 150), Put32(shdr, 22050);
    shdr += static_cast<char>(b.originalKey);
    shdr += '\0';
    Put16(shdr, stereo ? 1 - side : 0), Put16(shdr, stereo ? (side ? 2 : 4) : 1);
  }
  shdr += std::string(46, '\0');
  std::memcpy(shdr.data() + shdr.size() - 46, "EOS", 3);

  std::string ifil;
  Put16(ifil, b.major), Put16(ifil, b.major == 1 ? 0 : 1);
  const std::string info = "INFO" + Chunk("ifil", ifil) + Chunk("INAM", std::string("Mini\0", 6));
  const std::string sdta = b.romSample ? std::string("sdta") : "sdta" + Chunk("smpl", smpl);
  const std::string pdta = "pdta" + Chunk("phdr", phdr) + Chunk("pbag", pbag) + Chunk("pmod", pmod) +
                           Chunk("pgen", pgen) + Chunk("inst", inst) + Chunk("ibag", ibag) + Chunk("imod", imod) +
                           Chunk("igen", igen) + Chunk("shdr", shdr);
  return Chunk("RIFF", "sfbk" + Chunk("LIST", info) + Chunk("LIST", sdta) + Chunk("LIST", pdta));
}

// Loads a mini bank and hands back its one region.
Region* LoadMini(Collection& c, const TempDir& dir, const MiniBank& b) {
  const fs::path path = dir / "mini.sf2";
  test::WriteFile(path, BuildBank(b));
  if (!Load(c, path)) {
    ADD_FAILURE() << ErrorContext << ": " << ErrorMessage;
    return nullptr;
  }
  auto regions = c.All<Region>();
  return regions.size() == 1 ? regions[0] : nullptr;
}

// ---- corpus ----

TEST(Sf2Corpus, EveryBankLoadsWithTheManifestCounts) {
  if (!test::NeedCorpus()) return;
  int banks = 0;
  for (const auto& e : test::Manifest()) {
    const std::string ext = fs::path(e.path).extension();
    if (ext != ".sf2" && ext != ".sf3") continue;
    SCOPED_TRACE(e.path);
    const fs::path path = test::CorpusDir() / e.path;
    FileRef file;
    ASSERT_TRUE(file.OpenRead(path));
    Sf2Summary sum;
    ASSERT_TRUE(sf2_Summary(file, sum));
    const std::string tool = "spessasynth_core 4.3.22";
    EXPECT_EQ(std::to_string(sum.presets), test::Fact(e.facts, tool, "presets"));
    EXPECT_EQ(std::to_string(sum.instruments), test::Fact(e.facts, tool, "instruments"));
    EXPECT_EQ(std::to_string(sum.samples), test::Fact(e.facts, tool, "samples"));

    Collection c;
    ASSERT_TRUE(Load(c, path)) << ErrorMessage;
    EXPECT_EQ(std::to_string(c.Count(ItemType::Instrument)), test::Fact(e.facts, tool, "presets"));
    EXPECT_EQ(std::to_string(c.Count(ItemType::Waveform)), test::Fact(e.facts, tool, "samples"));
    for (Waveform* w : c.All<Waveform>()) EXPECT_FALSE(w->HasData()) << "read at open: " << w->Name();
    ++banks;
  }
  EXPECT_GE(banks, 8);
}

TEST(Sf2Corpus, CompressedBankDecodesLikeItsUncompressedTwin) {
  if (!test::NeedCorpus()) return;
  Collection plain, packed;
  ASSERT_TRUE(Load(plain, test::CorpusDir() / "sf2/TimGM6mb-subset-spessasynth.sf2"));
  ASSERT_TRUE(Load(packed, test::CorpusDir() / "sf2/TimGM6mb-subset-spessasynth.sf3", 3)) << ErrorMessage;
  if (!kvOggDecoderAvailable()) {
    // Without the add-on the bank still lists; reading a wave names the package.
    Waveform* w = packed.All<Waveform>().front();
    EXPECT_FALSE(w->EnsureData());
    EXPECT_STREQ(ErrorMessage, kOggMissing);
    return test::Missing("libvorbisfile3");
  }
  int compared = 0;
  for (Waveform* p : packed.All<Waveform>()) {
    for (Waveform* s : plain.All<Waveform>()) {
      if (s->Name() != p->Name() || s->length == 0) continue;
      SCOPED_TRACE(std::string(p->Name()));
      ASSERT_TRUE(p->EnsureData()) << ErrorMessage;
      ASSERT_TRUE(s->EnsureData()) << ErrorMessage;
      ASSERT_TRUE(p->samplesF);
      EXPECT_EQ(p->sampleRate, s->sampleRate);
      const uint32_t n = std::min(p->length, s->length);
      EXPECT_LE(std::abs(static_cast<int64_t>(p->length) - s->length), 2048);
      double dot = 0, a2 = 0, b2 = 0;
      for (uint32_t i = 0; i < n; ++i) {
        const double a = p->samplesF[i], b = s->samples16[i] / 32768.0;
        dot += a * b, a2 += a * a, b2 += b * b;
      }
      if (a2 > 0 && b2 > 0) {
        EXPECT_GT(dot / std::sqrt(a2 * b2), 0.95);
      }
      ++compared;
      break;
    }
    if (compared >= 8) break;
  }
  EXPECT_GT(compared, 0);
}

// A compressed bank as some writers lay it out: no pad byte after the
// odd-sized sample data, and the list around it one byte short.
std::string WithoutPadAfterSamples(std::string bank) {
  const std::size_t smpl = bank.find("smpl", bank.find("sdta"));
  if (smpl == std::string::npos || smpl < 8) return {};
  uint32_t size = 0, list = 0, riff = 0;
  std::memcpy(&size, bank.data() + smpl + 4, 4);
  if (size % 2 == 0 || smpl + 8 + size >= bank.size()) return {};
  bank.erase(smpl + 8 + size, 1);
  std::memcpy(&list, bank.data() + smpl - 8, 4);
  std::memcpy(&riff, bank.data() + 4, 4);
  --list, --riff;
  std::memcpy(bank.data() + smpl - 8, &list, 4);
  std::memcpy(bank.data() + 4, &riff, 4);
  return bank;
}

TEST(Sf3, BankWithoutPadByteLoadsAndOneWithoutPresetsSaysWhy) {
  if (!test::NeedCorpus()) return;
  const fs::path padded = test::CorpusDir() / "sf2/TimGM6mb-subset-spessasynth.sf3";
  const std::string bytes = WithoutPadAfterSamples(test::ReadFile(padded));
  ASSERT_FALSE(bytes.empty()) << "the corpus bank's sample data is no longer odd-sized";
  TempDir dir;
  test::WriteFile(dir / "unpadded.sf3", bytes);
  Collection want, got;
  ASSERT_TRUE(Load(want, padded, 3)) << ErrorMessage;
  ASSERT_TRUE(Load(got, dir / "unpadded.sf3", 3)) << ErrorMessage;
  EXPECT_EQ(got.Count(ItemType::Instrument), 3u);
  EXPECT_TRUE(test::TreeText(got) == test::TreeText(want));

  // Cut before its preset data: a failure that says so, not an empty bank.
  test::WriteFile(dir / "cut.sf3", bytes.substr(0, bytes.find("LIST", bytes.find("sdta"))));
  Collection cut;
  EXPECT_FALSE(Load(cut, dir / "cut.sf3", 3));
  EXPECT_STREQ(ErrorMessage, "No preset data in the bank (no 'phdr' chunk)");
}

// MuseScore's General MIDI bank leaves out the pad byte; FluidSynth opens it.
TEST(Sf3, MuseScoreGeneralLoadsEveryPreset) {
  const fs::path bank = "/usr/share/sounds/sf3/MuseScore_General.sf3";
  if (!test::Need(fs::exists(bank), "musescore-general-soundfont-small")) return;
  FileRef file;
  ASSERT_TRUE(file.OpenRead(bank));
  Sf2Summary sum;
  ASSERT_TRUE(sf2_Summary(file, sum));
  EXPECT_EQ(sum.major, 3);
  EXPECT_GT(sum.presets, 100);
  Collection c;
  ASSERT_TRUE(Load(c, bank, 3)) << ErrorMessage;
  EXPECT_EQ(c.Count(ItemType::Instrument), static_cast<std::size_t>(sum.presets));
  EXPECT_EQ(c.Count(ItemType::Waveform), static_cast<std::size_t>(sum.samples));
  if (!kvOggDecoderAvailable()) return test::Missing("libvorbisfile3");
  // A wave a zone plays decodes to about the length its stream announced.
  ASSERT_GT(c.Count(ItemType::Region), 0u);
  Waveform* wave = RegionWaveform(*c.All<Region>().front());
  ASSERT_TRUE(wave);
  const uint32_t announced = wave->length;
  ASSERT_TRUE(wave->EnsureData()) << ErrorMessage;
  EXPECT_NEAR(wave->length, announced, 2048);
  float peak = 0;
  for (uint32_t i = 0; i < wave->length; ++i) peak = std::max(peak, std::fabs(wave->samplesF[i]));
  EXPECT_GT(peak, 0.05f);
}

// Bytes this process has read through read(2) and its kin, from /proc.
uint64_t BytesReadSoFar() {
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value)
    if (key == "rchar:") return value;
  return 0;
}

TEST(Sf2Corpus, OpeningALargeBankReadsNoSampleData) {
  if (!test::Need(fs::exists(kFluidR3), "fluid-soundfont-gm")) return;
  Collection c;
  const uint64_t before = BytesReadSoFar();
  ASSERT_TRUE(Load(c, kFluidR3)) << ErrorMessage;
  const uint64_t read = BytesReadSoFar() - before;
  EXPECT_GT(c.Count(ItemType::Waveform), 800u);
  for (Waveform* w : c.All<Waveform>()) ASSERT_FALSE(w->HasData());
  // The bank's structure is about 1 MB of its 148 MB; how fast that goes is
  // bench/bench_sf2_open.sh's to measure.
  ASSERT_GT(read, 0u) << "no reads counted: /proc/self/io unavailable?";
  EXPECT_LT(read, fs::file_size(kFluidR3) / 20) << read << " bytes read";
}

TEST(Sf2Corpus, LargeBankFixUpSideBySideEndsAsOneByOne) {
  if (!test::Need(fs::exists(kFluidR3), "fluid-soundfont-gm")) return;
  std::string text[2];
  for (bool sideBySide : {true, false}) {
    SetSideBySideFixUp(sideBySide);
    Collection c;
    ASSERT_TRUE(ImportFile(c, kFluidR3, true)) << ErrorMessage;
    text[sideBySide] = test::TreeText(c);
  }
  SetSideBySideFixUp(true);
  EXPECT_GT(text[0].size(), 1000000u);
  EXPECT_TRUE(text[0] == text[1]);
}

// ---- unit conversions ----

TEST(Sf2Read, LevelsAndEnvelopes) {
  TempDir dir;
  {
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{48, 250}}});
    ASSERT_TRUE(r);
    EXPECT_FLOAT_EQ(r->art.value[kRowMasterVolume], -10.0f);  // 0.04 dB per centibel
  }
  {
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{37, 1000}, {36, 1200}}});
    ASSERT_TRUE(r);
    EXPECT_FLOAT_EQ(r->art.value[EnvRow(kEnvV, kEnvSustain)], 0.0f);  // limited at 0
    // Sustain at 0: the decay runs its full time of 2 s.
    EXPECT_FLOAT_EQ(r->art.value[EnvRow(kEnvV, kEnvD2Time)], 2.0f);
  }
  {
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{37, 480}, {36, 1200}, {34, -1200}}});
    ASSERT_TRUE(r);
    EXPECT_FLOAT_EQ(r->art.value[EnvRow(kEnvV, kEnvSustain)], 0.5f);
    EXPECT_FLOAT_EQ(r->art.value[EnvRow(kEnvV, kEnvD2Time)], 1.0f);  // half the range to fall
    EXPECT_FLOAT_EQ(r->art.value[EnvRow(kEnvV, kEnvA2Time)], 0.5f);
  }
}

TEST(Sf2Read, FilterSwitchesOnOnlyBelowTheTopOrWithResonance) {
  TempDir dir;
  {
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{8, 13500}}});
    ASSERT_TRUE(r);
    EXPECT_EQ(Effective(c, *r, kRowFilterType), 0.0f);
  }
  {
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{8, 13500}, {9, 100}}});
    ASSERT_TRUE(r);
    EXPECT_EQ(Effective(c, *r, kRowFilterType), 2.0f);
    EXPECT_FLOAT_EQ(Effective(c, *r, kRowResonance), 10.0f);
    EXPECT_FLOAT_EQ(Effective(c, *r, kRowMasterVolume), -5.0f);  // half the peak taken off
  }
  {
    // The default velocity modulator (-2400 cents) becomes 12 semitones and
    // the cutoff rises by half its range: 830.6 Hz doubled.
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{8, 8000}}});
    ASSERT_TRUE(r);
    EXPECT_EQ(Effective(c, *r, kRowFilterType), 2.0f);
    EXPECT_FLOAT_EQ(Effective(c, *r, kRowVelToCutoff), 12.0f);
    EXPECT_FLOAT_EQ(Effective(c, *r, kRowCutoff), 1660.0f);
  }
  {
    // A negative-direction velocity source is flipped onto the slot.
    Collection c;
    Region* r = LoadMini(c, dir, {.instGens = {{8, 8000}}, .instMods = {{0x0002, 8, 1200}}});
    ASSERT_TRUE(r);
    EXPECT_FLOAT_EQ(Effective(c, *r, kRowVelToCutoff), 6.0f);
  }
}

TEST(Sf2Read, StructureAndLocations) {
  TempDir dir;
  {
    Collection c;
    ASSERT_TRUE(LoadMini(c, dir, {.bank = 128, .program = 0}));
    Instrument* ins = c.All<Instrument>().front();
    EXPECT_TRUE(LocationIsDrum(ins->location));
    EXPECT_EQ(LocationMajorBank(ins->location), 0u);
  }
  {
    Collection c;
    test::WriteFile(dir / "empty.sf2", BuildBank({.presetZone = false}));
    ASSERT_TRUE(Load(c, dir / "empty.sf2"));
    Instrument* ins = c.All<Instrument>().front();
    ASSERT_EQ(Children<Layer>(c, *ins).size(), 1u);
    EXPECT_TRUE(Children<Layer>(c, *ins).front()->children.empty());
  }
  {
    Collection c;
    Region* r = LoadMini(c, dir,
                         {.instGens = {{43, 0x3C30}, {57, 3}, {58, 64}, {54, 3}, {0, 10}, {4, 1}, {52, 50}, {51, -2}},
                          .originalKey = 255});
    ASSERT_TRUE(r);
    EXPECT_EQ(r->trigger.loKey, 0x30);
    EXPECT_EQ(r->trigger.hiKey, 0x3C);
    EXPECT_EQ(r->trigger.exclusionGroup, 3);
    EXPECT_EQ(r->rootKey, 64);
    EXPECT_EQ(r->loopType, 1);
    EXPECT_EQ(r->loopRelease, 1);
    EXPECT_EQ(r->startOffset, 10 + 32768);
    EXPECT_FLOAT_EQ(r->art.value[kRowMasterTune], -1.5f);
    EXPECT_FLOAT_EQ(r->art.value[kRowKeyToPitch], 0.0f);  // unpitched sample
    Waveform* w = RegionWaveform(*r);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->length, 200u);
    EXPECT_EQ(w->loopStart, 50.0f);
    EXPECT_EQ(w->loopEnd, 150.0f);
  }
  {
    Collection c;
    test::WriteFile(dir / "bad.sf2", "RIFF\x04\0\0\0WAVE");
    EXPECT_FALSE(Load(c, dir / "bad.sf2"));
    EXPECT_STREQ(ErrorContext, "sf2_Imp");
    EXPECT_STREQ(ErrorMessage, "Not a SoundFont2 file");
  }
}

TEST(Sf2Read, OverlappingZonesAllSoundInLayersOfTheirOwn) {
  // The left and right sides of a stereo sample over the same keys, and a
  // zone that overlaps both in part: a SoundFont player sounds all three.
  MiniBank b{.instGens = {{43, 0x3F00}, {17, -500}}};
  b.moreZones = {{{43, 0x3F00}, {17, 500}, {53, 1}}, {{43, 0x463C}, {53, 0}}};
  TempDir dir;
  const fs::path path = dir / "stereo.sf2";
  test::WriteFile(path, BuildBank(b));
  for (bool reload : {false, true}) {
    SCOPED_TRACE(reload ? "written and read again" : "read");
    Collection c;
    ASSERT_TRUE(ImportFile(c, path, false)) << ErrorMessage;
    if (reload) {
      ASSERT_TRUE(Save(c, dir / "again.sf2")) << ErrorMessage;
      ASSERT_TRUE(ImportFile(c, dir / "again.sf2", false)) << ErrorMessage;
    }
    ASSERT_EQ(c.Count(ItemType::Region), 3u);
    Instrument* ins = c.All<Instrument>().front();
    std::vector<Layer*> layers = Children<Layer>(c, *ins);
    ASSERT_EQ(layers.size(), 3u);
    std::vector<Region*> sides;
    for (Layer* layer : layers) {
      ASSERT_EQ(layer->children.size(), 1u);
      sides.push_back(c.FindAs<Region>(layer->children[0]));
    }
    EXPECT_EQ(RegionWaveform(*sides[0])->Name(), "Sine(L)");
    EXPECT_EQ(RegionWaveform(*sides[1])->Name(), "Sine(R)");
    EXPECT_FLOAT_EQ(Effective(c, *sides[0], kRowPan), -1.0f);
    EXPECT_FLOAT_EQ(Effective(c, *sides[1], kRowPan), 1.0f);
    EXPECT_EQ(sides[2]->trigger.loKey, 60);
    EXPECT_EQ(sides[2]->trigger.hiKey, 70);
    if (!reload) {
      // The two sides sit in neighbouring layers and are known as a pair.
      EXPECT_NE(sides[0]->phaseGroup, 0);
      EXPECT_EQ(sides[0]->phaseGroup, sides[1]->phaseGroup);
      EXPECT_EQ(sides[0]->phaseMaster, 1);
      EXPECT_EQ(sides[1]->phaseMaster, 0);
    }
  }
}

TEST(Sf2Read, SendsMakeEffectSlotsThatStartFromTheirDefaults) {
  // A chorus of no voices, at no rate, can't be played.
  TempDir dir;
  Collection c;
  ASSERT_TRUE(LoadMini(c, dir, {.instGens = {{16, 200}, {15, 100}}}));
  const Instrument* ins = c.All<Instrument>().front();
  int made = 0;
  for (int slot = 0; slot < kFxSlots; ++slot) {
    const ChannelFx& fx = ins->fx[slot];
    if (fx.type == 0) continue;
    ++made;
    for (int place = 0; place < kFxRowsPerSlot - 1; ++place) {
      const ParameterRow* row = CatalogueRow(FxParam(slot, place), fx.type);
      EXPECT_EQ(fx.param[place], row ? row->def : 0.0f) << "type " << int{fx.type} << " place " << place;
    }
  }
  EXPECT_EQ(made, 2);
}

// ---- writing ----

TEST(Sf2Write, ConversionsSurviveARoundTrip) {
  TempDir dir;
  Collection c;
  Region* r = LoadMini(c, dir,
                       {.instGens = {{48, 250}, {8, 6000}, {9, 60}, {17, -250}, {34, -2400}, {36, 3000}, {37, 300},
                                     {38, 1200}, {5, 50}, {22, 100}, {26, -1200}, {28, 2400}, {29, 200}, {7, 1200}}});
  ASSERT_TRUE(r);
  ASSERT_TRUE(Save(c, dir / "out.sf2"));
  Collection back;
  ASSERT_TRUE(Load(back, dir / "out.sf2")) << ErrorMessage;
  auto regions = back.All<Region>();
  ASSERT_EQ(regions.size(), 1u);
  for (int row : {kRowMasterVolume, kRowCutoff, kRowResonance, kRowPan, kRowVEnvA2Time, kRowVEnvD2Time,
                  kRowVEnvSustain, kRowVEnvR1Rate, kRowXLfoToPitch, kRowPEnvToPitch, kRowPEnvD2Time,
                  kRowPEnvSustain}) {
    const float want = Effective(c, *r, row), got = Effective(back, *regions[0], row);
    EXPECT_NEAR(got, want, std::fabs(want) * 0.01 + 0.002) << "row " << row;
  }
}

TEST(Sf2Write, StereoBecomesALinkedPairAnd24BitUsesSm24) {
  TempDir dir;
  Collection c;
  auto* w = Create<Waveform>(c);
  w->SetName("Stereo");
  w->channels = 2;
  w->length = 64;
  w->sampleRate = 44100;
  float* s = AllocSamplesFloat(*w);
  ASSERT_TRUE(s);
  for (int i = 0; i < 128; ++i) s[i] = (i & 1 ? -0.25f : 0.5f) + i * 1e-6f;
  auto* ins = Create<Instrument>(c);
  AddRegion(*AddLayer(*ins), w->id, kNoRange, kNoRange, 255);
  ASSERT_TRUE(Save(c, dir / "st.sf2", 1u << 4 | 1u << 20)) << ErrorMessage;

  FileRef file;
  ASSERT_TRUE(file.OpenRead(dir / "st.sf2"));
  Sf2Summary sum;
  ASSERT_TRUE(sf2_Summary(file, sum));
  EXPECT_EQ(sum.major, 2);
  EXPECT_EQ(sum.minor, 4);
  EXPECT_EQ(sum.samples, 2);
  Collection back;
  ASSERT_TRUE(Load(back, dir / "st.sf2"));
  auto waves = back.All<Waveform>();
  ASSERT_EQ(waves.size(), 2u);
  ASSERT_TRUE(waves[0]->EnsureData()) << ErrorMessage;
  ASSERT_TRUE(waves[0]->samplesF);  // 24-bit
  EXPECT_NEAR(waves[0]->samplesF[10], s[20], 1.0 / 8388608);
  ASSERT_TRUE(waves[1]->EnsureData());
  EXPECT_NEAR(waves[1]->samplesF[10], s[21], 1.0 / 8388608);
  // Two zones, hard left and right.
  auto regions = back.All<Region>();
  ASSERT_EQ(regions.size(), 2u);
  EXPECT_EQ(Effective(back, *regions[0], kRowPan) * Effective(back, *regions[1], kRowPan), -1.0f);
}

TEST(Sf2Write, RegionLoopOverridesMoveOnlyTheEndsTheyOverride) {
  TempDir dir;
  Collection c;
  auto* w = Create<Waveform>(c);
  w->SetName("Looped");
  w->length = 200;
  w->sampleRate = 44100;
  int16_t* s = AllocSamples16(*w);
  ASSERT_TRUE(s);
  for (int i = 0; i < 200; ++i) s[i] = static_cast<int16_t>((i % 50) * 300);
  w->loopType = 1;
  w->loopStart = 50;
  w->loopEnd = 150;
  auto* ins = Create<Instrument>(c);
  Layer* layer = AddLayer(*ins);
  Region* startOnly = AddRegion(*layer, w->id, MakeRange(0, 59), kNoRange, 255);
  startOnly->loopStart = 70;
  startOnly->overrideMask |= kOverrideLoopStart;
  Region* endOnly = AddRegion(*layer, w->id, MakeRange(60, 127), kNoRange, 255);
  endOnly->loopEnd = 120;
  endOnly->overrideMask |= kOverrideLoopEnd;
  ASSERT_TRUE(Save(c, dir / "loops.sf2")) << ErrorMessage;

  Collection back;
  ASSERT_TRUE(Load(back, dir / "loops.sf2")) << ErrorMessage;
  auto regions = back.All<Region>();
  ASSERT_EQ(regions.size(), 2u);
  std::sort(regions.begin(), regions.end(),
            [](const Region* a, const Region* b) { return a->trigger.loKey < b->trigger.loKey; });
  const LoopView low = ResolveRegion(*regions[0]).loop, high = ResolveRegion(*regions[1]).loop;
  EXPECT_EQ(low.start, 70.0f);
  EXPECT_EQ(low.end, 150.0f);
  EXPECT_EQ(high.start, 50.0f);
  EXPECT_EQ(high.end, 120.0f);
}

TEST(Sf2Write, OtherItemsAreRefused) {
  TempDir dir;
  Collection c;
  auto* w = Create<Waveform>(c);
  ASSERT_FALSE(Save(*w, dir / "x.sf2"));
  EXPECT_STREQ(ErrorMessage, "The file format can not save this item");
}

TEST(Sf2Write, InfoTextsAreWindows1252WithEvenSizesAndComeBack) {
  TempDir dir;
  Collection c;
  ASSERT_TRUE(LoadMini(c, dir, {}));
  c.SetName("Caf\xC3\xA9 Grand");                          // 10 bytes in Windows-1252, 11 with the end
  std::strcpy(c.engineer, "Zo\xC3\xAB");                   // 3 bytes
  std::strcpy(c.copyright, "\xC2\xA9 2026");               // 6 bytes
  std::strcpy(c.comment, "Loops by ear, tuned to A 442");  // 28 bytes
  ASSERT_TRUE(Save(c, dir / "info.sf2"));

  // Every INFO chunk: even size, ending in a zero byte, in the bank's code page.
  const std::string bytes = test::ReadFile(dir / "info.sf2");
  const std::size_t list = bytes.find("INFO");
  ASSERT_NE(list, std::string::npos);
  uint32_t listSize = 0;
  std::memcpy(&listSize, bytes.data() + list - 4, 4);
  std::map<std::string, std::string> chunks;
  for (std::size_t at = list + 4; at + 8 <= list + listSize;) {
    uint32_t size = 0;
    std::memcpy(&size, bytes.data() + at + 4, 4);
    const std::string id = bytes.substr(at, 4), body = bytes.substr(at + 8, size);
    if (id != "ifil") {
      EXPECT_EQ(size % 2, 0u) << id;
      EXPECT_EQ(body.back(), '\0') << id;
    }
    chunks[id] = body.substr(0, body.find('\0'));
    at += 8 + size;
  }
  EXPECT_EQ(chunks["INAM"], "Caf\xE9 Grand");
  EXPECT_EQ(chunks["IENG"], "Zo\xEB");
  EXPECT_EQ(chunks["ICOP"], "\xA9 2026");
  EXPECT_EQ(chunks["ICMT"], "Loops by ear, tuned to A 442");

  Collection back;
  ASSERT_TRUE(Load(back, dir / "info.sf2"));
  EXPECT_STREQ(back.name, c.name);
  EXPECT_STREQ(back.engineer, c.engineer);
  EXPECT_STREQ(back.copyright, c.copyright);
  EXPECT_STREQ(back.comment, c.comment);
}

// The generators of every zone of a written bank, instrument zones or preset
// zones, as the file holds them.
using ZoneGens = std::vector<std::vector<std::pair<int, int>>>;
ZoneGens ZonesOf(const fs::path& path, bool preset) {
  const std::string bytes = test::ReadFile(path);
  auto chunk = [&](const char* id) {
    const std::size_t pdta = bytes.rfind("pdta");
    const std::size_t at = bytes.find(id, pdta == std::string::npos ? 0 : pdta);
    if (at == std::string::npos) return std::string();
    uint32_t size;
    std::memcpy(&size, bytes.data() + at + 4, 4);
    return bytes.substr(at + 8, size);
  };
  const std::string bag = chunk(preset ? "pbag" : "ibag"), gen = chunk(preset ? "pgen" : "igen");
  auto u16 = [](const std::string& s, std::size_t at) {
    return static_cast<int>(static_cast<uint8_t>(s[at]) | (static_cast<uint8_t>(s[at + 1]) << 8));
  };
  ZoneGens zones;
  for (std::size_t b = 0; b + 8 <= bag.size(); b += 4) {
    auto& zone = zones.emplace_back();
    for (int g = u16(bag, b); g < u16(bag, b + 4); ++g)
      zone.emplace_back(u16(gen, 4 * g), static_cast<int16_t>(u16(gen, 4 * g + 2)));
  }
  return zones;
}

int GenOf(const std::vector<std::pair<int, int>>& zone, int oper, int otherwise) {
  for (auto [o, amount] : zone)
    if (o == oper) return amount;
  return otherwise;
}

int RootKeyOf(const Region& r) {
  if (r.overrideMask & kOverrideRootKey) return r.rootKey;
  const Waveform* w = RegionWaveform(r);
  return w ? w->rootKey : -1;
}

// Every row each region plays, and its root key, must survive writing.
void ExpectSameRegions(const Collection& a, const Collection& b) {
  auto ra = a.All<Region>(), rb = b.All<Region>();
  ASSERT_EQ(ra.size(), rb.size());
  for (std::size_t i = 0; i < ra.size(); ++i) {
    SCOPED_TRACE("region " + std::to_string(i));
    EXPECT_EQ(RootKeyOf(*ra[i]), RootKeyOf(*rb[i]));
    for (int row = 0; row < kArticulationCount; ++row) {
      const float want = Effective(a, *ra[i], row), got = Effective(b, *rb[i], row);
      EXPECT_NEAR(got, want, std::fabs(want) * 0.01 + 0.002) << "row " << row;
    }
  }
}

TEST(Sf2Write, PresetZonesOverOneInstrumentShareItWithAmountsOfTheirOwn) {
  // Two velocity windows play one instrument, the soft one with a longer
  // release and a gain no instrument zone can hold.
  MiniBank b{.instGens = {{38, 1200}, {8, 9000}, {29, 300}, {26, 1200}, {11, 1800}}};
  b.presetZones = {{{44, 0x3F00}, {38, 300}, {48, -100}}, {{44, 0x7F40}, {8, -600}}};
  TempDir dir;
  test::WriteFile(dir / "shared.sf2", BuildBank(b));
  Collection c;
  ASSERT_TRUE(Load(c, dir / "shared.sf2")) << ErrorMessage;
  ASSERT_EQ(c.All<Layer>().size(), 2u);
  ASSERT_TRUE(Save(c, dir / "out.sf2")) << ErrorMessage;

  FileRef file;
  ASSERT_TRUE(file.OpenRead(dir / "out.sf2"));
  Sf2Summary sum;
  ASSERT_TRUE(sf2_Summary(file, sum));
  EXPECT_EQ(sum.instruments, 1);
  const ZoneGens presets = ZonesOf(dir / "out.sf2", true);
  ASSERT_EQ(presets.size(), 2u);
  EXPECT_EQ(GenOf(presets[0], 41, -1), GenOf(presets[1], 41, -2));
  EXPECT_LT(GenOf(presets[0], 48, 0), 0) << "the gain stands in the preset zone";
  for (const auto& zone : ZonesOf(dir / "out.sf2", false)) EXPECT_GE(GenOf(zone, 48, 0), 0);

  Collection back;
  ASSERT_TRUE(Load(back, dir / "out.sf2")) << ErrorMessage;
  ExpectSameRegions(c, back);
  auto regions = back.All<Region>();
  ASSERT_EQ(regions.size(), 2u);
  EXPECT_NEAR(Effective(back, *regions[0], kRowMasterVolume), 4.0f, 0.01f);
}

TEST(Sf2Write, ModelLimitsAreMetWithoutChangingTheSound) {
  TempDir dir;
  {
    // Transposed by more than the model's four octaves: the rest moves
    // into the root key, and the pitch stays.
    MiniBank b{.instGens = {{58, 40}}};
    b.presetZones = {{{51, -62}}};
    Collection c;
    Region* r = LoadMini(c, dir, b);
    ASSERT_TRUE(r);
    EXPECT_EQ(RootKeyOf(*r), 54);
    EXPECT_FLOAT_EQ(Effective(c, *r, kRowMasterTune), -48.0f);
    ASSERT_TRUE(Save(c, dir / "tune.sf2")) << ErrorMessage;
    Collection back;
    ASSERT_TRUE(Load(back, dir / "tune.sf2")) << ErrorMessage;
    ExpectSameRegions(c, back);
  }
  {
    // A filter that is on only for its resonance stays open, and the
    // modulation LFO's sweep of the cutoff is kept.
    Collection c;
    ASSERT_TRUE(LoadMini(c, dir, {.instGens = {{9, 100}, {10, 600}, {22, -1200}}}));
    ASSERT_TRUE(Save(c, dir / "filter.sf2")) << ErrorMessage;
    const ZoneGens zones = ZonesOf(dir / "filter.sf2", false);
    ASSERT_FALSE(zones.empty());
    EXPECT_EQ(GenOf(zones.back(), 8, 13500), 13500);
    EXPECT_EQ(GenOf(zones.back(), 10, 0), 600);
    Collection back;
    ASSERT_TRUE(Load(back, dir / "filter.sf2")) << ErrorMessage;
    ExpectSameRegions(c, back);
  }
  {
    // A resonance below zero plays as none; its level compensation must
    // not come back as a gain.
    Collection c;
    ASSERT_TRUE(LoadMini(c, dir, {.instGens = {{8, 9000}, {9, -10}}}));
    ASSERT_TRUE(Save(c, dir / "q.sf2")) << ErrorMessage;
    for (bool preset : {false, true})
      for (const auto& zone : ZonesOf(dir / "q.sf2", preset)) EXPECT_EQ(GenOf(zone, 48, 0), 0);
  }
}

// ---- SoundFont 1 and the format's limits ----

bool LoadSbk(Collection& c, const fs::path& path) {
  FileRef file;
  return file.OpenRead(path) && sbk_Imp(c, file, 0);
}

// Boxes and the open dialog answered as a user would, with what they asked.
struct ScriptedUser {
  static inline int answer = kBoxNo;
  static inline fs::path located;
  static inline std::vector<std::string> asked;
  const uint8_t enabled = MessageBoxesEnabled;
  ScriptedUser(int boxAnswer, fs::path file) {
    answer = boxAnswer;
    located = std::move(file);
    asked.clear();
    MessageBoxesEnabled = 1;
    SetBoxPresenter([](const std::string& text, const std::string&, BoxButtons) {
      asked.push_back(text);
      return answer;
    });
    SetFilePresenter([](const std::string& title, const std::string& filter) {
      asked.push_back(title + " " + filter);
      return located;
    });
  }
  ~ScriptedUser() {
    SetBoxPresenter(nullptr);
    SetFilePresenter(nullptr);
    MessageBoxesEnabled = enabled;
  }
};

TEST(Sbk, RoundTripKeepsTheBankAsVersionOne) {
  TempDir dir;
  Collection c;
  ASSERT_TRUE(LoadMini(c, dir, {.instGens = {{48, 120}, {8, 7000}, {9, 40}, {17, 300}, {34, -1800}, {38, 2400},
                                             {26, -600}, {29, 500}, {7, -700}, {51, 3}, {52, -20}}}));
  const fs::path path = dir / "bank.sbk";
  {
    FileRef file;
    ASSERT_TRUE(file.OpenWrite(path));
    ExportRequest r{};
    ASSERT_TRUE(sbk_Exp(c, file, r)) << ErrorMessage;
  }
  FileRef file;
  ASSERT_TRUE(file.OpenRead(path));
  Sf2Summary sum;
  ASSERT_TRUE(sf2_Summary(file, sum));
  EXPECT_EQ(sum.major, 1);
  EXPECT_EQ(sum.minor, 0);
  int confidence = 0;
  const int row = DetectFormat(path, file, confidence);
  EXPECT_STREQ(FormatName(row), "SoundFont v1");

  Collection back;
  ASSERT_TRUE(LoadSbk(back, path)) << ErrorMessage;
  ExpectSameRegions(c, back);
  // The two versions don't take each other's files.
  Collection wrong;
  EXPECT_FALSE(Load(wrong, path));
  EXPECT_STREQ(ErrorMessage, "Not a Sound Font v2.x file");
  EXPECT_FALSE(LoadSbk(wrong, dir / "mini.sf2"));
  EXPECT_STREQ(ErrorMessage, "Not a Sound Font file");
}

TEST(Sbk, RomSamplesAreSkippedOrTakenFromTheRomSet) {
  TempDir dir;
  const fs::path bank = dir / "rom.sbk";
  test::WriteFile(bank, BuildBank({.major = 1, .romSample = true}));
  const std::string question =
      "This SoundFont references ROM waveforms.\n\nWould you like to skip these, or load them from "
      "\"1mgm.sf2\"?\n(i.e. the AWE32 ROM equivalent from the SB Live-drivers)";
  auto played = [](const Collection& c) -> const Waveform* {
    auto regions = c.All<Region>();
    return regions.size() == 1 ? RegionWaveform(*regions[0]) : nullptr;
  };

  {  // No boxes (the driver, -NOMSG): skipped, and the zones that play them go.
    const uint8_t enabled = MessageBoxesEnabled;
    MessageBoxesEnabled = 0;
    Collection c;
    ASSERT_TRUE(ImportFile(c, bank, true)) << ErrorMessage;
    MessageBoxesEnabled = enabled;
    EXPECT_EQ(c.Count(ItemType::Region), 0u);
    EXPECT_EQ(c.Count(ItemType::Waveform), 0u);
  }
  {  // "Skip".
    ScriptedUser user(kBoxNo, {});
    Collection c;
    ASSERT_TRUE(ImportFile(c, bank, true)) << ErrorMessage;
    EXPECT_EQ(ScriptedUser::asked, std::vector<std::string>{question});
    EXPECT_EQ(c.Count(ItemType::Region), 0u);
  }
  // The ROM set: a SoundFont 2 bank with the ROM's sample names.
  const fs::path elsewhere = dir / "elsewhere";
  fs::create_directory(elsewhere);
  test::WriteFile(elsewhere / "1mgm.sf2", BuildBank({}));
  {  // Not beside the bank: the user points at it.
    ScriptedUser user(kBoxYes, elsewhere / "1mgm.sf2");
    Collection c;
    ASSERT_TRUE(ImportFile(c, bank, true)) << ErrorMessage;
    EXPECT_EQ(ScriptedUser::asked, (std::vector<std::string>{question, "Please locate 1mgm.sf2 *.sf2"}));
    const Waveform* w = played(c);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->length, 200u);
    ASSERT_TRUE(const_cast<Waveform*>(w)->EnsureData()) << ErrorMessage;
    ASSERT_TRUE(w->samples16);
    EXPECT_EQ(w->samples16[5], static_cast<int16_t>(8000 * std::sin(5 * 0.2)));
  }
  {  // Beside the bank: taken without asking where.
    fs::copy_file(elsewhere / "1mgm.sf2", dir / "1mgm.sf2");
    ScriptedUser user(kBoxYes, {});
    Collection c;
    ASSERT_TRUE(ImportFile(c, bank, true)) << ErrorMessage;
    EXPECT_EQ(ScriptedUser::asked.size(), 1u);
    ASSERT_TRUE(played(c));
    fs::remove(dir / "1mgm.sf2");
  }
  {  // Something else pointed at: said, then skipped; the load goes on.
    test::WriteFile(elsewhere / "junk.sf2", "RIFF\4\0\0\0junk");
    ScriptedUser user(kBoxYes, elsewhere / "junk.sf2");
    Collection c;
    ASSERT_TRUE(ImportFile(c, bank, true)) << ErrorMessage;
    ASSERT_EQ(ScriptedUser::asked.size(), 3u);
    EXPECT_EQ(ScriptedUser::asked[2], "Invalid 1mgm.sf2 - skipping ROM");
    EXPECT_EQ(c.Count(ItemType::Region), 0u);
  }
}

TEST(SoundFontWrite, TooManyParametersFailsWithTheFormatsTextAndKeepsTheOldFile) {
  // One layer of 128 keys by 128 one-step velocity windows, each zone with
  // ranges, a sample, a pan and a tuning of its own: about 82,000 instrument
  // generators.
  Collection c;
  auto* w = Create<Waveform>(c, "Tick");
  w->length = 16;
  w->sampleRate = 44100;
  ASSERT_TRUE(AllocSamples16(*w));
  auto* inst = Create<Instrument>(c, "Grid");
  Layer* layer = AddLayer(*inst);
  for (int key = 0; key < 128; ++key)
    for (int vel = 0; vel < 128; ++vel) {
      Region* r = AddRegion(*layer, w->id, MakeRange(key, key), MakeRange(vel, vel), 255);
      r->art.Set(kRowPan, (vel % 100) * 0.01f - 0.5f);
      r->art.Set(kRowMasterTune, (1 + vel % 50) * 0.01f);
    }
  FixUpItems(c, 0, false);
  ASSERT_EQ(c.Count(ItemType::Region), 128u * 128u);

  struct Case {
    const char* file;
    const char* text;
  };
  for (const Case& k :
       {Case{"big.sf2",
             "Save failed - Too much data!\n\nThe SF2 file format is by its construction limited to storing a "
             "maximum of 65536 parameter values... Remove some instruments then try saving again.\n"},
        Case{"big.sbk",
             "Save failed - Too many 'parameter' values!\nThe SBK format can handle a maximum of 65536 parameter "
             "values...\n"}}) {
    SCOPED_TRACE(k.file);
    TempDir dir;
    const fs::path path = dir / k.file;
    test::WriteFile(path, "the bank that was here");
    EXPECT_FALSE(SaveFile(&c, path, FindWriterByPath(path), ExportRequest{}, false));
    EXPECT_STREQ(ErrorMessage, k.text);
    EXPECT_TRUE(test::ReadFile(path) == "the bank that was here");
  }
}

// ---- peers ----

// A few notes on several programs and on the drum channel, at each of the
// velocities given.
std::string TestSong(std::initializer_list<int> programs, std::initializer_list<int> velocities = {100}) {
  test::SmfTrack t;
  int ch = 0;
  for (int program : programs) t.Event(0, {0xC0 | ch++, program});
  for (int velocity : velocities) {
    for (ch = 0; ch < static_cast<int>(programs.size()); ++ch) {
      for (int n = 0; n < 3; ++n) {
        t.Event(0, {0x90 | ch, 48 + 7 * n + ch * 5, velocity});
        t.Event(0, {0x99, n == 0 ? 36 : n == 1 ? 38 : 42, std::min(velocity + 10, 127)});
        t.Event(240, {0x89, n == 0 ? 36 : n == 1 ? 38 : 42, 0});
        t.Event(0, {0x80 | ch, 48 + 7 * n + ch * 5, 0});
      }
    }
  }
  return t.File();
}

// Our copy of a bank must open in the peer tools and render `song` through
// FluidSynth as the original does.
void ExpectCopyPlaysLikeTheOriginal(const fs::path& bank, const fs::path& copy, const std::string& song,
                                    double minCorrelation, double maxDifferenceDb) {
  TempDir dir;
  if (test::NeedTool("sf2dump")) {
    std::string out;
    EXPECT_EQ(test::RunCommand("sf2dump '" + copy.string() + "' 2>&1", &out), 0);
    EXPECT_EQ(out.find("Exception"), std::string::npos) << out.substr(0, 2000);
    EXPECT_NE(out.find("Presets"), std::string::npos);
  }

  if (test::NeedTool("polyphone")) {
    // Polyphone opens our copy and converts it on: its command line fails on
    // a bank it can't read.
    std::string out;
    const fs::path converted = dir / "polyphone";
    fs::create_directories(converted);
    EXPECT_EQ(test::RunCommand("QT_QPA_PLATFORM=offscreen timeout 120 polyphone -1 -i '" + copy.string() + "' -d '" +
                                   converted.string() + "' -o again 2>&1",
                               &out),
              0)
        << out;
    EXPECT_TRUE(fs::exists(converted / "again.sf2")) << out;
  }

  test::WriteFile(dir / "song.mid", song);
  auto render = [&](const fs::path& from, const fs::path& wav, std::string& log) {
    return test::RenderWithFluidSynth(from, dir / "song.mid", wav, log);
  };
  std::string logA, logB;
  ASSERT_EQ(render(bank, dir / "a.wav", logA), 0) << logA;
  ASSERT_EQ(render(copy, dir / "b.wav", logB), 0) << logB;
  EXPECT_EQ(logB.find("error"), std::string::npos) << logB;
  auto count = [](const std::string& s, const char* word) {
    int n = 0;
    for (std::size_t p = s.find(word); p != std::string::npos; p = s.find(word, p + 1)) ++n;
    return n;
  };
  EXPECT_LE(count(logB, "warning"), count(logA, "warning")) << logB;

  const auto a = test::ReadWavSamples(dir / "a.wav"), b = test::ReadWavSamples(dir / "b.wav");
  ASSERT_GT(a.size(), 44100u);
  EXPECT_LT(std::max(a.size(), b.size()) - std::min(a.size(), b.size()), 4410u);
  const auto [correlation, differenceDb] = test::CompareRenders(a, b);
  ::testing::Test::RecordProperty("correlation", std::to_string(correlation));
  ::testing::Test::RecordProperty("difference_db", std::to_string(differenceDb));
  std::printf("%s render: correlation %.5f, difference %.1f dB\n", bank.filename().c_str(), correlation,
              differenceDb);
  EXPECT_GE(correlation, minCorrelation);
  EXPECT_LE(differenceDb, maxDifferenceDb);
}

// A bank read and written again.
void ExpectRoundTripPlaysLikeTheOriginal(const fs::path& bank, const std::string& song, double minCorrelation,
                                         double maxDifferenceDb) {
  TempDir dir;
  Collection c;
  ASSERT_TRUE(Load(c, bank)) << ErrorMessage;
  c.FixUp();
  const fs::path copy = dir / "copy.sf2";
  ASSERT_TRUE(Save(c, copy)) << ErrorContext << ": " << ErrorMessage;
  ExpectCopyPlaysLikeTheOriginal(bank, copy, song, minCorrelation, maxDifferenceDb);
}

TEST(Sf2Peers, TimGMRoundTripLoadsAndRendersLikeTheOriginal) {
  if (!test::Need(fs::exists(kTimGM), "timgm6mb-soundfont")) return;
  if (!test::NeedTool("fluidsynth")) return;
  // Measured 1.0000 and -70.6 dB; the margins allow rounding of times and cutoffs.
  ExpectRoundTripPlaysLikeTheOriginal(kTimGM, TestSong({0, 24, 48, 73}), 0.999, -60.0);
}

// A big bank's presets play shared instruments through key and velocity
// windows and values of their own; written one instrument per preset zone it
// no longer fits the format's 16-bit record counts.
TEST(Sf2Peers, LargeBankRoundTripFitsAndRendersLikeTheOriginal) {
  if (!test::Need(fs::exists(kFluidR3), "fluid-soundfont-gm")) return;
  if (!test::NeedTool("fluidsynth")) return;
  // Measured 0.99994 and -39.2 dB. What is left is the model's: a cutoff
  // between 12 and 20 kHz under the standard velocity modulator is raised
  // past the top of the cutoff row (24 kHz) and comes back as 12 kHz (the
  // electric piano), and modulators that fit none of the model's slots (the
  // brass section's concave velocity curves) are not read.
  ExpectRoundTripPlaysLikeTheOriginal(kFluidR3, TestSong({0, 4, 16, 25, 48, 61}, {30, 70, 120}), 0.9995, -35.0);
}

// A stereo recording as SoundFont banks hold one: an instrument whose global
// zone has the loop mode, the release and a level, and two full-range zones,
// panned apart, playing the left and the right sample, each linked to the
// other.
std::string LinkedStereoBank(const Waveform& stereo) {
  const uint32_t frames = stereo.length;
  std::string smpl, shdr;
  for (int side = 0; side < 2; ++side) {
    const uint32_t start = static_cast<uint32_t>(smpl.size() / 2);
    for (uint32_t f = 0; f < frames; ++f) Put16(smpl, static_cast<uint16_t>(stereo.samples16[2 * f + side]));
    smpl.append(2 * 46, '\0');
    shdr += Name20(side ? "Agogo R" : "Agogo L");
    Put32(shdr, start), Put32(shdr, start + frames), Put32(shdr, start + frames / 2),
        Put32(shdr, start + frames - 1000), Put32(shdr, stereo.sampleRate);
    shdr += static_cast<char>(72);
    shdr += '\0';
    Put16(shdr, 1 - side), Put16(shdr, side ? 2 : 4);
  }
  shdr += Name20("EOS") + std::string(26, '\0');

  std::string phdr = Name20("Agogo");
  Put16(phdr, 0), Put16(phdr, 0), Put16(phdr, 0), Put32(phdr, 0), Put32(phdr, 0), Put32(phdr, 0);
  phdr += Name20("EOP");
  Put16(phdr, 0), Put16(phdr, 0), Put16(phdr, 1), Put32(phdr, 0), Put32(phdr, 0), Put32(phdr, 0);
  std::string pbag, pgen;
  Put16(pbag, 0), Put16(pbag, 0), Put16(pbag, 1), Put16(pbag, 0);
  Put16(pgen, 41), Put16(pgen, 0), Put32(pgen, 0);
  std::string inst = Name20("Agogo");
  Put16(inst, 0);
  inst += Name20("EOI");
  Put16(inst, 3);
  const std::vector<std::vector<std::pair<uint16_t, int16_t>>> zones = {
      {{38, 1200}, {48, 40}, {54, 1}}, {{17, -500}, {53, 0}}, {{17, 500}, {53, 1}}};
  std::string ibag, igen;
  for (const auto& zone : zones) {
    Put16(ibag, static_cast<uint32_t>(igen.size() / 4)), Put16(ibag, 0);
    for (auto [oper, amount] : zone) Put16(igen, oper), Put16(igen, static_cast<uint16_t>(amount));
  }
  Put16(ibag, static_cast<uint32_t>(igen.size() / 4)), Put16(ibag, 0);
  igen += std::string(4, '\0');

  std::string ifil;
  Put16(ifil, 2), Put16(ifil, 1);
  const std::string info = "INFO" + Chunk("ifil", ifil) + Chunk("isng", std::string("EMU8000\0", 8)) +
                           Chunk("INAM", std::string("Stereo Agogo\0", 14));
  const std::string pdta = "pdta" + Chunk("phdr", phdr) + Chunk("pbag", pbag) + Chunk("pmod", std::string(10, '\0')) +
                           Chunk("pgen", pgen) + Chunk("inst", inst) + Chunk("ibag", ibag) +
                           Chunk("imod", std::string(10, '\0')) + Chunk("igen", igen) + Chunk("shdr", shdr);
  return Chunk("RIFF", "sfbk" + Chunk("LIST", info) + Chunk("LIST", "sdta" + Chunk("smpl", smpl)) + Chunk("LIST", pdta));
}

// Sample type and link of each sample header of a written bank.
std::vector<std::pair<int, int>> SampleLinksOf(const fs::path& path) {
  const std::string bytes = test::ReadFile(path);
  const std::size_t at = bytes.find("shdr", bytes.rfind("pdta"));
  std::vector<std::pair<int, int>> out;
  if (at == std::string::npos) return out;
  uint32_t size;
  std::memcpy(&size, bytes.data() + at + 4, 4);
  for (std::size_t r = at + 8; r + 2 * 46 <= at + 8 + size; r += 46) {
    uint16_t link, type;
    std::memcpy(&link, bytes.data() + r + 42, 2);
    std::memcpy(&type, bytes.data() + r + 44, 2);
    out.emplace_back(type, link);
  }
  return out;
}

TEST(Sf2Peers, LinkedStereoPairComesBackInOneInstrumentAndPlaysAlike) {
  if (!test::NeedCorpus() || !test::NeedTool("fluidsynth")) return;
  Collection source;
  ASSERT_TRUE(ImportFile(source, test::CorpusDir() / "wav/gen-s16-stereo.wav", false)) << ErrorMessage;
  Waveform* recording = source.All<Waveform>().front();
  ASSERT_TRUE(recording->EnsureData()) << ErrorMessage;
  ASSERT_TRUE(recording->samples16 && recording->channels == 2);
  TempDir dir;
  const fs::path bank = dir / "agogo.sf2";
  test::WriteFile(bank, LinkedStereoBank(*recording));
  // Notes held well past the recording's half second, then a chord.
  test::SmfTrack song;
  for (int key : {72, 60, 79}) {
    song.Event(0, {0x90, key, 100});
    song.Event(1440, {0x80, key, 0});
  }
  for (int key : {67, 76}) song.Event(0, {0x90, key, 90});
  song.Event(1920, {0x80, 67, 0});
  song.Event(0, {0x80, 76, 0});

  for (bool driver : {true, false}) {
    // The driver's load options join the pair into one stereo wave, which the
    // export splits again; without them the reader's two layers reach the writer.
    SCOPED_TRACE(driver ? "imported and exported" : "read and written");
    const fs::path copy = dir / (driver ? "exported.sf2" : "written.sf2");
    Collection c;
    if (driver) {
      ASSERT_TRUE(ImportFile(c, bank, false)) << ErrorMessage;
      ASSERT_TRUE(SaveFile(&c, copy, FindWriterByPath(copy), ExportRequest{}, false)) << ErrorMessage;
    } else {
      ASSERT_TRUE(Load(c, bank)) << ErrorMessage;
      c.FixUp();
      ASSERT_TRUE(Save(c, copy)) << ErrorMessage;
    }
    FileRef file;
    ASSERT_TRUE(file.OpenRead(copy));
    Sf2Summary sum;
    ASSERT_TRUE(sf2_Summary(file, sum));
    EXPECT_EQ(sum.instruments, 1);
    EXPECT_EQ(sum.samples, 2);
    const auto links = SampleLinksOf(copy);
    ASSERT_EQ(links.size(), 2u);
    EXPECT_TRUE((links[0].first == 4 && links[1].first == 2) || (links[0].first == 2 && links[1].first == 4))
        << "one left sample, one right: " << links[0].first << ", " << links[1].first;
    EXPECT_EQ(links[0].second, 1);
    EXPECT_EQ(links[1].second, 0);

    // The global zone's values stand once, in a global zone.
    const ZoneGens zones = ZonesOf(copy, false);
    ASSERT_EQ(zones.size(), 3u);
    EXPECT_EQ(GenOf(zones[0], 53, -1), -1);
    EXPECT_EQ(GenOf(zones[0], 54, 0), 1);
    EXPECT_EQ(GenOf(zones[0], 38, 0), 1200);
    for (std::size_t z = 1; z < 3; ++z) {
      EXPECT_NE(GenOf(zones[z], 53, -1), -1);
      EXPECT_EQ(GenOf(zones[z], 54, -1), -1);
      EXPECT_EQ(std::abs(GenOf(zones[z], 17, 0)), 500);
    }
    // Measured 1.00000 and -294 dB both ways.
    ExpectCopyPlaysLikeTheOriginal(bank, copy, song.File(), 0.99, -20.0);
  }
}

}  // namespace
}  // namespace kv
