// DLS reader and writer: banks built byte by byte for the Part's edge cases,
// the connection table both ways, the corpus against dlsdump's facts, the
// bank inside RIFF-MIDI, and what peers (gigtools, FluidSynth) make of our
// files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/items.h"
#include "core/param_catalogue.h"
#include "core/resolved.h"
#include "core/settings.h"
#include "core/wavestore.h"
#include "formats/export.h"
#include "formats/import.h"
#include "formats/modules/dls.h"
#include "formats/modules/dls_format.h"
#include "formats/modules/mid.h"
#include "formats/modules/sf2.h"
#include "formats/modules/sf2_format.h"
#include "formats/registry.h"
#include "support/render.h"
#include "support/testsupport.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using dls::Connection;

// ---- a bank built byte by byte ----

std::string U16(uint32_t v) { return std::string{static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF)}; }
std::string U32(uint32_t v) { return U16(v & 0xFFFF) + U16(v >> 16); }
std::string Chunk(const std::string& id, const std::string& body) {
  std::string s = id + U32(static_cast<uint32_t>(body.size())) + body;
  if (body.size() & 1) s += '\0';
  return s;
}
std::string List(const std::string& type, const std::string& body) { return Chunk("LIST", type + body); }
std::string Info(const std::string& name) { return List("INFO", Chunk("INAM", name + std::string(1, '\0'))); }

std::string Wsmp(int unity, int fine, int32_t gain = 0, bool loop = false, uint32_t start = 0, uint32_t length = 0,
                 uint32_t type = 0) {
  std::string b = U32(20) + U16(unity) + U16(static_cast<uint16_t>(static_cast<int16_t>(fine))) +
                  U32(static_cast<uint32_t>(gain)) + U32(0) + U32(loop ? 1 : 0);
  if (loop) b += U32(16) + U32(type) + U32(start) + U32(length);
  return Chunk("wsmp", b);
}

// A mono 16-bit wave of `frames` frames of a sine.
std::string Wave(const std::string& name, uint32_t frames, const std::string& wsmp) {
  std::string data;
  for (uint32_t i = 0; i < frames; ++i) data += U16(static_cast<uint16_t>(static_cast<int16_t>(8000 * std::sin(i * 0.2))));
  const std::string fmt = U16(1) + U16(1) + U32(22050) + U32(44100) + U16(2) + U16(16);
  return List("wave", Chunk("fmt ", fmt) + wsmp + Chunk("data", data) + (name.empty() ? "" : Info(name)));
}

std::string Art2(const std::vector<Connection>& blocks, const char* id = "art2") {
  std::string b = U32(8) + U32(static_cast<uint32_t>(blocks.size()));
  for (const Connection& c : blocks)
    b += U16(c.source) + U16(c.control) + U16(c.destination) + U16(c.transform) + U32(static_cast<uint32_t>(c.scale));
  return Chunk(id, b);
}

struct RegionSpec {
  int loKey = 0, hiKey = 127, loVel = 0, hiVel = 127;
  int layer = 0;
  uint16_t options = 0, keyGroup = 0;
  std::string wsmp;  // empty: none
  uint16_t linkOptions = 0, phaseGroup = 0;
  uint32_t channel = 1, cue = 0;
  bool link = true;
  std::vector<Connection> blocks;
  bool art = false;
};

std::string RegionList(const RegionSpec& r) {
  std::string body = Chunk("rgnh", U16(r.loKey) + U16(r.hiKey) + U16(r.loVel) + U16(r.hiVel) + U16(r.options) +
                                       U16(r.keyGroup) + U16(r.layer));
  body += r.wsmp;
  if (r.link) body += Chunk("wlnk", U16(r.linkOptions) + U16(r.phaseGroup) + U32(r.channel) + U32(r.cue));
  if (r.art) body += List("lar2", Art2(r.blocks));
  return List("rgn2", body);
}

struct InstrumentSpec {
  uint32_t bank = 0, program = 0;
  std::string name = "Inst";
  std::vector<RegionSpec> regions;
  std::vector<Connection> blocks;
  bool art = false;
};

std::string InstrumentList(const InstrumentSpec& i) {
  std::string regions;
  for (const RegionSpec& r : i.regions) regions += RegionList(r);
  std::string body = Chunk("insh", U32(static_cast<uint32_t>(i.regions.size())) + U32(i.bank) + U32(i.program)) +
                     List("lrgn", regions);
  if (i.art) body += List("lar2", Art2(i.blocks));
  if (!i.name.empty()) body += Info(i.name);
  return List("ins ", body);
}

// A bank; the cue table names the waves in order unless `cues` says else.
std::string Bank(const std::vector<InstrumentSpec>& instruments, const std::vector<std::string>& waves,
                 bool ptbl = true, const std::vector<uint32_t>* cues = nullptr, const char* form = "DLS ") {
  std::string lins;
  for (const InstrumentSpec& i : instruments) lins += InstrumentList(i);
  std::string pool;
  std::vector<uint32_t> offsets;
  for (const std::string& w : waves) {
    offsets.push_back(static_cast<uint32_t>(pool.size()));
    pool += w;
  }
  if (cues) offsets = *cues;
  std::string table = U32(8) + U32(static_cast<uint32_t>(offsets.size()));
  for (uint32_t o : offsets) table += U32(o);
  std::string body = std::string(form) + Chunk("colh", U32(static_cast<uint32_t>(instruments.size()))) +
                     List("lins", lins) + (ptbl ? Chunk("ptbl", table) : "") + List("wvpl", pool) + Info("Test bank");
  return Chunk("RIFF", body);
}

struct Read {
  std::unique_ptr<Collection> c = std::make_unique<Collection>();
  bool ok = false;
  std::vector<Instrument*> instruments;
  // Regions in file order (their serials were drawn in that order).
  std::vector<kv::Region*> regions;
};

Read ReadBytes(const TempDir& dir, const std::string& bytes, bool mls = false) {
  test::WriteFile(dir / "t.dls", bytes);
  Read r;
  FileRef file;
  EXPECT_TRUE(file.OpenRead(dir / "t.dls"));
  ClearError();
  r.ok = mls ? mls_Imp(*r.c, file, 0) : dls_Imp(*r.c, file, 0);
  r.instruments = r.c->All<kv::Instrument>();
  r.regions = r.c->All<kv::Region>();
  std::sort(r.regions.begin(), r.regions.end(), [](const kv::Region* a, const kv::Region* b) { return a->id < b->id; });
  return r;
}

Read ReadFile(const fs::path& path) {
  Read r;
  FileRef file;
  EXPECT_TRUE(file.OpenRead(path));
  ClearError();
  r.ok = dls_Imp(*r.c, file, 0);
  r.instruments = r.c->All<kv::Instrument>();
  r.regions = r.c->All<kv::Region>();
  std::sort(r.regions.begin(), r.regions.end(), [](const kv::Region* a, const kv::Region* b) { return a->id < b->id; });
  return r;
}

// The boxes a load or save shows, captured, each answered with `answer`.
std::vector<std::string>* g_boxes = nullptr;
int g_answer = kBoxOk;
class BoxCapture {
 public:
  explicit BoxCapture(int answer = kBoxOk) : enabled_(MessageBoxesEnabled) {
    g_boxes = &texts;
    g_answer = answer;
    MessageBoxesEnabled = 1;
    SetBoxPresenter([](const std::string& text, const std::string&, BoxButtons) {
      g_boxes->push_back(text);
      return g_answer;
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

float Row(const kv::Region& r, int row) { return ResolveRegion(r).art.value[row]; }

// ---- reading: the Part's edge cases ----

TEST(DlsRead, FineTuneOfOneAndAHalfSemitonesMovesIntoTheRootKey) {
  TempDir dir;
  InstrumentSpec inst;
  RegionSpec plain;  // the wave's own wsmp only
  plain.wsmp = "";
  plain.hiKey = 59;
  RegionSpec own;  // a wsmp of its own on a wave tuned plainly
  own.loKey = 60;
  own.wsmp = Wsmp(60, 150);
  own.cue = 1;
  inst.regions = {plain, own};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("tuned", 100, Wsmp(60, 150)), Wave("plain", 100, Wsmp(60, 0))}));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  ASSERT_EQ(r.regions.size(), 2u);
  const Waveform* tuned = RegionWaveform(*r.regions[0]);
  ASSERT_NE(tuned, nullptr);
  EXPECT_EQ(tuned->rootKey, 59);
  EXPECT_EQ(tuned->fineTune, 50);
  // The region's own wsmp: root 59 and half a semitone over the wave's tuning.
  const ResolvedRegion own2 = ResolveRegion(*r.regions[1]);
  EXPECT_EQ(own2.pitch.rootKey, 59);
  EXPECT_FLOAT_EQ(own2.art.value[kRowMasterTune], 0.5f);
}

TEST(DlsRead, ZeroTimeInTheFileIsZeroSeconds) {
  TempDir dir;
  InstrumentSpec inst;
  RegionSpec r0;
  r0.wsmp = Wsmp(60, 0);
  r0.art = true;
  r0.blocks = {{0, 0, dls::kDstEg1Attack, 0, INT32_MIN},
               {0, 0, dls::kDstEg1Release, 0, INT32_MIN},
               {0, 0, dls::kDstEg1Decay, 0, 0},
               {0, 0, dls::kDstEg1Sustain, 0, 500 * 65536}};
  inst.regions = {r0};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("w", 100, Wsmp(60, 0))}));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  const Articulation& a = r.regions[0]->art;
  EXPECT_TRUE(a.IsSet(EnvRow(kEnvV, kEnvA2Time)));
  EXPECT_EQ(a.value[EnvRow(kEnvV, kEnvA2Time)], 0.0f);
  EXPECT_EQ(a.value[EnvRow(kEnvV, kEnvR1Rate)], 0.0f);
  // A decay of 1 s over the whole range reaches a sustain of a half in half a second.
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvV, kEnvD2Time)], 0.5f);
  EXPECT_FLOAT_EQ(a.value[EnvRow(kEnvV, kEnvSustain)], 0.5f);
}

TEST(DlsRead, RightChannelRegionKeepsItsStereoLink) {
  TempDir dir;
  InstrumentSpec inst;
  RegionSpec left, right;
  left.wsmp = right.wsmp = Wsmp(60, 0);
  left.linkOptions = 1;  // phase master
  left.phaseGroup = right.phaseGroup = 1;
  left.channel = 1;
  right.channel = 2;
  right.cue = 1;
  right.layer = 1;
  inst.regions = {left, right};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("L", 100, ""), Wave("R", 100, "")}));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  ASSERT_EQ(r.regions.size(), 2u);
  EXPECT_EQ(r.regions[0]->phaseGroup, 1);
  EXPECT_EQ(r.regions[0]->phaseMaster, 1);
  EXPECT_EQ(r.regions[1]->phaseGroup, 1);
  EXPECT_EQ(r.regions[1]->phaseMaster, 0);
  EXPECT_EQ(r.regions[1]->art.value[kRowPan], 1.0f);
  EXPECT_EQ(r.regions[0]->art.value[kRowPan], -1.0f);
  // The two sides sit in layers of their own.
  EXPECT_NE(LayerOf(*r.regions[0]), LayerOf(*r.regions[1]));
}

TEST(DlsRead, WithoutACueTableItWarnsAndTakesTheWavesInOrder) {
  TempDir dir;
  InstrumentSpec inst;
  RegionSpec a, b;
  a.hiKey = 59;
  b.loKey = 60;
  b.cue = 1;
  inst.regions = {a, b};
  BoxCapture boxes;
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("first", 50, ""), Wave("second", 60, "")}, false));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  ASSERT_EQ(boxes.texts.size(), 1u);
  EXPECT_EQ(boxes.texts[0],
            "DLS parser warning: Mandatory 'ptbl' chunk is missing, will attempt to read file anyway, but may not be "
            "correct!");
  EXPECT_STREQ(RegionWaveform(*r.regions[0])->name, "first");
  EXPECT_STREQ(RegionWaveform(*r.regions[1])->name, "second");
}

TEST(DlsRead, BadFilesFailOrNameWhatIsMissing) {
  TempDir dir;
  // Another form.
  Read r = ReadBytes(dir, Chunk("RIFF", "WAVE" + Chunk("fmt ", std::string(16, '\0'))));
  EXPECT_FALSE(r.ok);
  EXPECT_STREQ(ErrorContext, "dls_Parse");
  EXPECT_STREQ(ErrorMessage, "Not a RIFF DLS file");
  r = ReadBytes(dir, "RIFF");
  EXPECT_FALSE(r.ok);
  EXPECT_STREQ(ErrorMessage, "Not a RIFF DLS file");

  // A cue table that claims more cues than it holds.
  InstrumentSpec inst;
  RegionSpec region;
  inst.regions = {region};
  std::string bytes = Bank({inst}, {Wave("w", 10, "")});
  const std::size_t at = bytes.find("ptbl");
  bytes.replace(at + 12, 4, U32(1000000));
  r = ReadBytes(dir, bytes);
  EXPECT_FALSE(r.ok);
  EXPECT_STREQ(ErrorContext, "dls_Parse");
  EXPECT_STREQ(ErrorMessage, "Could not read pool cue table");

  // A cue past the table, and a cue that points at no wave.
  RegionSpec pastTable, nowhere;
  pastTable.cue = 7;
  pastTable.hiKey = 10;
  nowhere.cue = 1;
  nowhere.loKey = 11;
  inst.regions = {pastTable, nowhere};
  const std::vector<uint32_t> cues = {0, 12345};
  r = ReadBytes(dir, Bank({inst}, {Wave("w", 10, "")}, true, &cues));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  ASSERT_EQ(r.regions.size(), 2u);
  EXPECT_STREQ(r.regions[0]->name, "Missing cue");
  EXPECT_EQ(RegionWaveform(*r.regions[0]), nullptr);
  EXPECT_STREQ(r.regions[1]->name, "Missing wave");
  EXPECT_EQ(RegionWaveform(*r.regions[1]), nullptr);
}

TEST(DlsRead, CrazyCountsNeitherAllocateNorHang) {
  TempDir dir;
  InstrumentSpec inst;
  RegionSpec region;
  region.art = true;
  region.blocks = {{0, 0, dls::kDstPan, 0, 1000}};
  inst.regions = {region};
  std::string bytes = Bank({inst}, {Wave("w", 10, "")});
  // Connection count, colh and insh region counts of four billion.
  for (const char* id : {"art2", "colh", "insh"}) {
    std::string b = bytes;
    const std::size_t at = b.find(id);
    b.replace(at + (std::string(id) == "art2" ? 12 : 8), 4, U32(0xFFFFFFFF));
    const Read r = ReadBytes(dir, b);
    EXPECT_TRUE(r.ok) << id << ": " << ErrorMessage;
  }
  // Every truncation of a good bank reads or fails, quickly.
  BoxCapture quiet;
  for (std::size_t cut = 0; cut < bytes.size(); cut += 7) {
    std::string b = bytes.substr(0, cut);
    ReadBytes(dir, b);
  }
}

TEST(DlsRead, NamesBanksLayersAndDrums) {
  TempDir dir;
  InstrumentSpec melodic, drums, named;
  melodic.name = "";
  melodic.program = 5;
  melodic.bank = (2 << 8) | 3;
  drums.name = "";
  drums.bank = 0x80000000u;
  named.name = "Named";
  RegionSpec low, high;
  low.hiKey = 59;
  high.loKey = 60;
  high.layer = 2;
  melodic.regions = {low, high};
  drums.regions = {low};
  named.regions = {low};
  const Read r = ReadBytes(dir, Bank({melodic, drums, named}, {Wave("", 10, "")}));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  ASSERT_EQ(r.instruments.size(), 3u);
  EXPECT_STREQ(r.instruments[0]->name, "Instrument 2-3: 5");
  EXPECT_EQ(LocationMajorBank(r.instruments[0]->location), 2u);
  EXPECT_EQ(LocationMinorBank(r.instruments[0]->location), 3u);
  EXPECT_FALSE(LocationIsDrum(r.instruments[0]->location));
  EXPECT_STREQ(r.instruments[1]->name, "Drums 0-0: 0");
  EXPECT_TRUE(LocationIsDrum(r.instruments[1]->location));
  EXPECT_EQ(r.instruments[1]->GetParam(kRowDrumKit), 1.0f);
  EXPECT_STREQ(r.instruments[2]->name, "Named");
  // A layer per layer number.
  EXPECT_EQ(r.instruments[0]->children.size(), 2u);
  EXPECT_STREQ(r.c->All<Waveform>().front()->name, "Wave 1");
  EXPECT_STREQ(r.c->name, "Test bank");
}

TEST(DlsRead, RegionArticulationTakesThePlaceOfTheInstruments) {
  TempDir dir;
  InstrumentSpec inst;
  inst.art = true;
  inst.blocks = {{0, 0, dls::kDstEg1Release, 0, 0}, {0, 0, dls::kDstPan, 0, 100 * 65536}};  // 1 s, 10 % right
  RegionSpec plain, own;
  plain.hiKey = 59;
  own.loKey = 60;
  own.art = true;
  own.blocks = {{0, 0, dls::kDstEg1Attack, 0, 0}};
  inst.regions = {plain, own};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("w", 10, "")}));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  EXPECT_FLOAT_EQ(Row(*r.regions[0], EnvRow(kEnvV, kEnvR1Rate)), 1.0f);
  EXPECT_FLOAT_EQ(Row(*r.regions[0], kRowPan), 0.2f);
  EXPECT_FLOAT_EQ(Row(*r.regions[1], EnvRow(kEnvV, kEnvR1Rate)), 0.0f);
  EXPECT_FLOAT_EQ(Row(*r.regions[1], kRowPan), 0.0f);
  EXPECT_FLOAT_EQ(Row(*r.regions[1], EnvRow(kEnvV, kEnvA2Time)), 1.0f);
}

TEST(DlsRead, BlocksWithoutARowAreCountedNotDropped) {
  TempDir dir;
  InstrumentSpec inst;
  inst.art = true;
  inst.blocks = {{dls::kSrcPolyPressure, 0, dls::kDstGain, 0, 655360},
                 {dls::kSrcVelocity, dls::kSrcVelocity, dls::kDstCutoff, 0x8230, -2400 * 65536},
                 // What every synthesizer does anyway is understood.
                 {dls::kSrcCc7, 0, dls::kDstGain, 1, -96 * 655360},
                 {dls::kSrcPitchWheel, dls::kSrcRpn0, dls::kDstPitch, 0, 12700 * 65536}};
  inst.regions = {RegionSpec{}};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("w", 10, "")}));
  ASSERT_TRUE(r.ok) << ErrorMessage;
  EXPECT_EQ(r.instruments[0]->unreadArticulation, 2u);
}

TEST(DlsRead, MlsCollectionsWalkTheSameWay) {
  TempDir dir;
  InstrumentSpec inst;
  inst.regions = {RegionSpec{}};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("w", 10, "")}, true, nullptr, "MLS "), true);
  ASSERT_TRUE(r.ok) << ErrorMessage;
  EXPECT_EQ(r.regions.size(), 1u);
  // The DLS row takes only DLS forms.
  EXPECT_FALSE(ReadBytes(dir, Bank({inst}, {Wave("w", 10, "")}, true, nullptr, "MLS ")).ok);
}

TEST(DlsRead, WavesReadOnFirstUse) {
  TempDir dir;
  InstrumentSpec inst;
  inst.regions = {RegionSpec{}};
  const Read r = ReadBytes(dir, Bank({inst}, {Wave("w", 100, "")}));
  ASSERT_TRUE(r.ok);
  Waveform* w = r.c->All<Waveform>().front();
  EXPECT_FALSE(w->HasData());
  EXPECT_EQ(w->length, 100u);
  ASSERT_TRUE(w->EnsureData()) << ErrorMessage;
  EXPECT_EQ(Samples16(*w)[5], static_cast<int16_t>(8000 * std::sin(5 * 0.2)));
}

// ---- the connection table ----

// Every row the table carries, at values the level 2++ reduction keeps:
// the LFOs that share a timing share it here, and so do the envelopes.
Articulation EveryRow(const dls::SendSlots& sends) {
  Articulation a;
  auto set = [&](int row, double v) { a.Set(row, static_cast<float>(v)); };
  set(kRowKeyToPitch, 0.5);
  set(kRowPLfoToPitch, 0.3);
  set(kRowModWheelToPLfoPitch, 0.7);
  set(kRowAftertouchToPLfoPitch, 0.4);
  set(kRowVelToPLfoPitch, -0.2);
  set(kRowXLfoToPitch, 0.25);
  set(kRowModWheelToXLfoPitch, 0.5);
  set(kRowAftertouchToXLfoPitch, 0.35);
  set(kRowVelToXLfoPitch, 0.15);
  set(kRowPEnvToPitch, 2.0);
  set(kRowVelToVolume, 60.0);
  set(kRowKeyToVolume, -1.5);
  set(kRowModWheelToVolume, -6.0);
  set(kRowAftertouchToVolume, -3.0);
  set(kRowVLfoToVolume, 1.5);
  set(kRowModWheelToVLfoVolume, 2.5);
  set(kRowAftertouchToVLfoVolume, 3.5);
  set(kRowVelToVLfoVolume, -1.0);
  set(kRowFilterType, 2);
  set(kRowCutoff, 2000);
  set(kRowVelToCutoff, 6.0);
  set(kRowKeyToCutoff, 4.0);
  set(kRowModWheelToCutoff, 12.0);
  set(kRowAftertouchToCutoff, -7.0);
  set(kRowFLfoToCutoff, 3.0);
  set(kRowModWheelToFLfoCutoff, 5.0);
  set(kRowAftertouchToFLfoCutoff, 2.0);
  set(kRowVelToFLfoCutoff, 1.0);
  set(kRowFEnvToCutoff, 24.0);
  set(kRowResonance, 9.0);
  set(kRowPan, -0.3);
  set(kRowCc10ToPan, 0.5);
  set(kRowKeyToPan, 0.05);
  set(kRowXLfoToPan, 0.2);
  set(kRowXEnvToPan, -0.4);
  set(kRowSend1 + 2 * sends.reverb, 0.3);
  set(kRowSend1 + 2 * sends.reverb + 1, 0.8);
  set(kRowSend1 + 2 * sends.chorus, 0.2);
  set(kRowSend1 + 2 * sends.chorus + 1, 0.6);
  set(LfoRow(kLfoP, kLfoFrequency), 6.5);
  set(LfoRow(kLfoP, kLfoDelay), 0.25);
  for (int n : {kLfoV, kLfoF, kLfoX}) {
    set(LfoRow(n, kLfoFrequency), 3.0);
    set(LfoRow(n, kLfoDelay), 0.5);
  }
  auto env = [&](int k, double sustain) {
    set(EnvRow(k, kEnvA1Time), 0.05);
    set(EnvRow(k, kEnvA2Time), 0.2);
    set(EnvRow(k, kEnvA2Vel), 4.0);
    set(EnvRow(k, kEnvD1Time), 0.1);
    set(EnvRow(k, kEnvD1Key), 0.5);
    set(EnvRow(k, kEnvD2Time), 1.5);
    set(EnvRow(k, kEnvD2Key), 2.0);
    set(EnvRow(k, kEnvSustain), sustain);
    set(EnvRow(k, kEnvR1Rate), 0.7);
  };
  env(kEnvV, 0.4);
  for (int k : {kEnvP, kEnvF, kEnvX}) env(k, 0.25);
  set(EnvRow(kEnvV, kEnvShutdown), 0.05);
  return a;
}

TEST(DlsConnections, EveryRowAndControllerPairReadsBackWithinRounding) {
  const dls::SendSlots sends{0, 1};
  const Articulation a = EveryRow(sends);
  const dls::WrittenArticulation w = dls::ArticulationToConnections(a, 4, sends);
  Articulation back;
  const dls::ReadResult got = dls::ConnectionsToArticulation(w.blocks, false, sends, back);
  EXPECT_EQ(got.unknown, 0);
  // The key tracking of the pitch is not a semitone per key: the tune is a block.
  EXPECT_EQ(w.tuneSemitones, 0.0);
  // The key's volume tracking is centred on middle C: its five octaves below
  // go to the wsmp gain.
  EXPECT_NEAR(w.gainDb, 1.5 * 5, 1e-6);
  back.Set(kRowMasterVolume, static_cast<float>(back.value[kRowMasterVolume] + w.gainDb));
  int compared = 0;
  for (int row = 0; row < kArticulationCount; ++row) {
    if (!a.IsSet(row)) continue;
    SCOPED_TRACE(testing::Message() << "row " << row << " " << CatalogueRow(row)->name);
    EXPECT_TRUE(back.IsSet(row));
    const double want = a.value[row];
    EXPECT_NEAR(back.value[row], want, std::max(1e-3, std::fabs(want) * 2e-3));
    ++compared;
  }
  EXPECT_GE(compared, 80);
  // Each block once.
  std::map<std::tuple<int, int, int>, int> seen;
  for (const Connection& c : w.blocks) EXPECT_EQ((++seen[{c.source, c.control, c.destination}]), 1);
}

TEST(DlsConnections, TheScalesOfThePart) {
  const dls::SendSlots none;
  auto blocks = [&](const Articulation& a, int level) { return dls::ArticulationToConnections(a, level, none).blocks; };
  auto find = [](const std::vector<Connection>& b, int src, int ctl, int dst) -> const Connection* {
    for (const Connection& c : b)
      if (c.source == src && c.control == ctl && c.destination == dst) return &c;
    return nullptr;
  };
  // Defaults write nothing.
  EXPECT_TRUE(blocks(Articulation(), 2).empty());

  Articulation a;
  a.Set(EnvRow(kEnvV, kEnvA2Time), 1.0f);  // 1 s: 0 in time units
  a.Set(EnvRow(kEnvV, kEnvR1Rate), 2.0f);
  a.Set(EnvRow(kEnvV, kEnvSustain), 0.5f);  // 500 in 0.1 % units
  a.Set(kRowVelToVolume, 48.0f);
  a.Set(kRowPan, 1.0f);                         // full right is +50 %
  a.Set(LfoRow(kLfoV, kLfoFrequency), 0.05f);   // limited to 0.1 Hz
  a.Set(LfoRow(kLfoV, kLfoDelay), 20.0f);       // limited to 10 s
  a.Set(kRowVLfoToVolume, 1.0f);                // 1 dB
  a.Set(kRowFilterType, 2);
  a.Set(kRowCutoff, 8.0f);                      // below the level 2 floor
  a.Set(kRowResonance, 6.0f);
  a.Set(kRowMasterTune, 0.25f);
  a.Set(kRowMasterVolume, -6.0f);
  const dls::WrittenArticulation w = dls::ArticulationToConnections(a, 2, none);
  const auto& b = w.blocks;
  ASSERT_NE(find(b, 0, 0, dls::kDstEg1Attack), nullptr);
  EXPECT_EQ(find(b, 0, 0, dls::kDstEg1Attack)->scale, 0);
  EXPECT_EQ(find(b, 0, 0, dls::kDstEg1Release)->scale, 1200 * 65536);
  EXPECT_EQ(find(b, 0, 0, dls::kDstEg1Sustain)->scale, 500 * 65536);
  const Connection* vel = find(b, dls::kSrcVelocity, 0, dls::kDstGain);
  ASSERT_NE(vel, nullptr);
  EXPECT_EQ(uint32_t{vel->transform} << 16 | vel->destination, 0x84000001u);
  EXPECT_EQ(vel->scale, -48 * 655360);
  EXPECT_EQ(find(b, 0, 0, dls::kDstPan)->scale, 500 * 65536);
  EXPECT_EQ(find(b, 0, 0, dls::kDstLfoFrequency)->scale, dls::HzToPitch(0.1));
  EXPECT_EQ(find(b, 0, 0, dls::kDstLfoDelay)->scale, dls::SecondsToTime(10.0));
  EXPECT_EQ(find(b, dls::kSrcLfo, 0, dls::kDstGain)->scale, 655360);
  EXPECT_EQ(find(b, 0, 0, dls::kDstCutoff)->scale, 1548 * 65536);
  EXPECT_EQ(find(b, 0, 0, dls::kDstQ)->scale, 6 * 655360);
  // Tune and volume go to the wsmp; level 1 has no filter.
  EXPECT_EQ(find(b, 0, 0, dls::kDstPitch), nullptr);
  EXPECT_DOUBLE_EQ(w.tuneSemitones, 0.25);
  EXPECT_DOUBLE_EQ(w.gainDb, -6.0);
  const auto b1 = blocks(a, 1);
  EXPECT_EQ(find(b1, 0, 0, dls::kDstCutoff), nullptr);
  EXPECT_EQ(find(b1, dls::kSrcVelocity, 0, dls::kDstGain)->transform, dls::kTrnConcave1);
  // The time scale's 0 s.
  EXPECT_EQ(dls::SecondsToTime(0.0), INT32_MIN);
  EXPECT_EQ(dls::TimeToSeconds(INT32_MIN), 0.0);
}

TEST(DlsConnections, LevelOnesOneLfoIsTheVibrato) {
  const dls::SendSlots none;
  Articulation a;
  a.Set(kRowPLfoToPitch, 0.5f);
  a.Set(LfoRow(kLfoP, kLfoFrequency), 6.0f);
  const auto b = dls::ArticulationToConnections(a, 1, none).blocks;
  Articulation back;
  EXPECT_EQ(dls::ConnectionsToArticulation(b, true, none, back).unknown, 0);
  EXPECT_NEAR(back.value[kRowPLfoToPitch], 0.5f, 1e-4);
  EXPECT_NEAR(back.value[LfoRow(kLfoP, kLfoFrequency)], 6.0f, 1e-3);
  // Read as level 2 the same blocks are the modulation LFO's.
  Articulation two;
  dls::ConnectionsToArticulation(b, false, none, two);
  EXPECT_NEAR(two.value[kRowXLfoToPitch], 0.5f, 1e-4);
}

// ---- the corpus ----

// A fact of a peer's group whole: a quoted value without its quotes, else
// everything up to the next " key=" (lists hold commas, names spaces).
std::string WholeFact(const std::string& facts, const std::string& tool, const std::string& key) {
  const std::size_t group = facts.find(tool + ":");
  if (group == std::string::npos) return {};
  std::size_t end = facts.find(" | ", group);
  if (end == std::string::npos) end = facts.size();
  const std::string g = facts.substr(group, end - group);
  const std::size_t at = g.find(" " + key + "=");
  if (at == std::string::npos) return {};
  std::string value = g.substr(at + key.size() + 2);
  if (!value.empty() && value[0] == '"') return value.substr(1, value.find('"', 1) - 1);
  std::smatch m;
  if (std::regex_search(value, m, std::regex(" [a-z_]+="))) value.resize(m.position(0));
  return value;
}

TEST(DlsCorpus, EveryBankLoadsAsDlsdumpSays) {
  if (!test::NeedCorpus()) return;
  int banks = 0;
  for (const auto& e : test::Manifest()) {
    if (fs::path(e.path).extension() != ".dls") continue;
    SCOPED_TRACE(e.path);
    const Read r = ReadFile(test::CorpusDir() / e.path);
    ASSERT_TRUE(r.ok) << ErrorMessage;
    const std::string tool = "dlsdump";
    EXPECT_EQ(r.c->name, WholeFact(e.facts, tool, "name"));
    EXPECT_EQ(std::to_string(r.instruments.size()), WholeFact(e.facts, tool, "instruments"));
    EXPECT_EQ(std::to_string(r.regions.size()), WholeFact(e.facts, tool, "regions"));
    EXPECT_EQ(std::to_string(r.c->Count(ItemType::Waveform)), WholeFact(e.facts, tool, "samples"));
    std::string loops;
    for (const kv::Region* region : r.regions)
      loops += std::string(loops.empty() ? "" : ",") + (ResolveRegion(*region).loop.type != 0 ? "1" : "0");
    EXPECT_EQ(loops, WholeFact(e.facts, tool, "region_loops"));
    const std::string programs = WholeFact(e.facts, tool, "programs");
    if (!programs.empty()) {
      std::string ours;
      for (const kv::Instrument* i : r.instruments) {
        ours += std::string(ours.empty() ? "" : ";") + i->name + "(bank " +
                std::to_string(LocationMajorBank(i->location) * 128 + LocationMinorBank(i->location)) + " prog " +
                std::to_string(LocationProgram(i->location)) + ")";
      }
      EXPECT_EQ(ours, programs);
    }
    for (Waveform* w : r.c->All<Waveform>()) EXPECT_FALSE(w->HasData()) << "read at open: " << w->Name();
    ++banks;
  }
  EXPECT_GE(banks, 3);
}

TEST(DlsCorpus, BankInsideRiffMidiReadsAsTheBankFile) {
  if (!test::NeedCorpus()) return;
  const fs::path rmi = test::CorpusDir() / "midi/rmi-spessasynth-with-dls.rmi";
  const fs::path bank = test::CorpusDir() / "dls/TimGM6mb-subset-spessasynth.dls";
  Collection inside, alone;
  FileRef file;
  ASSERT_TRUE(file.OpenRead(rmi));
  ASSERT_TRUE(dls_Read(inside, file, 6156, file.Size())) << ErrorMessage;
  FileRef file2;
  ASSERT_TRUE(file2.OpenRead(bank));
  ASSERT_TRUE(dls_Imp(alone, file2, 0)) << ErrorMessage;
  EXPECT_TRUE(test::TreeText(inside) == test::TreeText(alone));
  FixUpItems(inside, 0xFF, false);
  FixUpItems(alone, 0xFF, false);
  EXPECT_TRUE(test::TreeText(inside) == test::TreeText(alone));
  // The waves read from their place inside the song file.
  Waveform* w = inside.All<Waveform>().front();
  ASSERT_TRUE(w->EnsureData()) << ErrorMessage;
  Waveform* v = alone.All<Waveform>().front();
  ASSERT_TRUE(v->EnsureData()) << ErrorMessage;
  ASSERT_EQ(w->length, v->length);
  EXPECT_EQ(std::memcmp(Samples16(*w), Samples16(*v), w->length * 2), 0);

  // Through the RIFF-MIDI reader: the song and its instruments.
  Collection both;
  ASSERT_TRUE(ImportFile(both, rmi, false)) << ErrorMessage;
  EXPECT_EQ(both.Count(ItemType::Song), 1u);
  EXPECT_EQ(both.Count(ItemType::Instrument), 3u);
}

// ---- writing ----

bool Load(Collection& c, const fs::path& path) {
  ClearError();
  return ImportFile(c, path, false);
}

bool Save(Collection& c, const fs::path& path, int row) {
  ClearError();
  return SaveFile(&c, path, row, ExportRequest{}, false);
}

int Row(int level) { return 62 + level; }

// Facts of a bank as dlsdump prints them.
struct Dump {
  int samples = 0, instruments = 0, regions = 0;
  std::string loops, programs;
  std::string text;
};
Dump Dlsdump(const fs::path& path) {
  Dump d;
  test::RunCommand("dlsdump '" + path.string() + "' 2>&1", &d.text);
  std::istringstream in(d.text);
  std::string line;
  const std::regex inst(R"re(Instrument \d+\) "(.*)",\s+MIDIBank=(\d+), MIDIProgram=(\d+))re");
  std::smatch m;
  while (std::getline(in, line)) {
    if (line.find("Sample ") != std::string::npos && line.find(") \"") != std::string::npos &&
        line.find("Region") == std::string::npos)
      ++d.samples;
    if (std::regex_search(line, m, inst)) {
      ++d.instruments;
      d.programs += std::string(d.programs.empty() ? "" : ";") + m[1].str() + "(bank " + m[2].str() + " prog " +
                    m[3].str() + ")";
    }
    if (line.find("Region ") != std::string::npos) ++d.regions;
    if (const std::size_t at = line.find("Loops="); at != std::string::npos)
      d.loops += std::string(d.loops.empty() ? "" : ",") + line.substr(at + 6, 1);
  }
  return d;
}

// The chunk ids directly in the RIFF form, in file order.
std::vector<std::string> TopChunks(const std::string& bytes) {
  std::vector<std::string> out;
  for (std::size_t pos = 12; pos + 8 <= bytes.size();) {
    uint32_t size;
    std::memcpy(&size, bytes.data() + pos + 4, 4);
    std::string id = bytes.substr(pos, 4);
    if (id == "LIST") id += "(" + bytes.substr(pos + 8, 4) + ")";
    out.push_back(id);
    pos += 8 + size + (size & 1);
  }
  return out;
}

bool Contains(const std::string& bytes, const char* id) { return bytes.find(id) != std::string::npos; }

TEST(DlsWrite, OwnOutputReadsBackRowForRow) {
  TempDir dir;
  Collection c;
  auto* wave = Create<Waveform>(c, "sine");
  wave->length = 1000;
  wave->sampleRate = 22050;
  wave->rootKey = 62;
  wave->fineTune = -12;
  wave->volume = -2.0f;
  wave->loopType = 1;
  wave->loopStart = 100;
  wave->loopEnd = 900;
  int16_t* s = AllocSamples16(*wave);
  for (uint32_t i = 0; i < wave->length; ++i) s[i] = static_cast<int16_t>(9000 * std::sin(i * 0.1));
  auto* inst = Create<kv::Instrument>(c, "every row");
  inst->location = MakeLocation(1, 2, 33, false);
  const int reverb = sf2::EffectSlot(*inst, sf2::kFxReverb), chorus = sf2::EffectSlot(*inst, sf2::kFxChorus);
  Layer* layer = AddLayer(*inst);
  kv::Region* region = AddRegion(*layer, wave->id, MakeRange(10, 90), MakeRange(20, 110), 64);
  region->art = EveryRow({reverb, chorus});
  region->art.Set(kRowKeyToPitch, 1.0f);  // so that the tune goes to the wsmp
  region->art.Set(kRowMasterTune, -0.4f);
  region->art.Set(kRowMasterVolume, -3.0f);
  region->SetParam(kRowExclusionGroup, 3);
  region->SetParam(kRowLoopRelease, 1);
  FixUpItems(c, 0xFF, false);
  const Articulation want = ResolveRegion(*region).art;

  const fs::path path = dir / "rows.dls";
  ASSERT_TRUE(Save(c, path, Row(4))) << ErrorContext << ": " << ErrorMessage;
  const Read r = ReadFile(path);
  ASSERT_TRUE(r.ok) << ErrorMessage;
  ASSERT_EQ(r.regions.size(), 1u);
  EXPECT_EQ(r.instruments[0]->unreadArticulation, 0u);
  EXPECT_EQ(r.instruments[0]->location, inst->location);
  const ResolvedRegion got = ResolveRegion(*r.regions[0]);
  EXPECT_EQ(got.pitch.rootKey, 64);
  EXPECT_EQ(got.trigger.loKey, 10);
  EXPECT_EQ(got.trigger.hiVel, 110);
  EXPECT_EQ(got.trigger.exclusionGroup, 3);
  EXPECT_EQ(got.loop.type, 1);
  EXPECT_EQ(got.loop.release, 1);
  EXPECT_EQ(got.loop.start, 100.0f);
  EXPECT_EQ(got.loop.end, 900.0f);
  EXPECT_NEAR(got.amplitude.waveVolume + got.art.value[kRowMasterVolume], -5.0f, 1e-4);
  EXPECT_NEAR(got.pitch.waveFineTune * 0.01 + got.art.value[kRowMasterTune], -0.52, 1e-4);
  for (int row = 0; row < kArticulationCount; ++row) {
    if (!region->art.IsSet(row) || row == kRowMasterTune || row == kRowMasterVolume) continue;
    SCOPED_TRACE(testing::Message() << "row " << row << " " << CatalogueRow(row)->name);
    // Effect rows move with their slot: the reader makes its own.
    int ourRow = row;
    if (row >= kRowSend1 && row <= kRowCc94ToSend4) {
      const int slot = (row - kRowSend1) / 2, place = (row - kRowSend1) % 2;
      const int type = inst->fx[slot].type;
      int theirs = -1;
      for (int s2 = 0; s2 < 4; ++s2)
        if (r.instruments[0]->fx[s2].type == type) theirs = s2;
      ASSERT_GE(theirs, 0);
      ourRow = kRowSend1 + 2 * theirs + place;
    }
    const double v = want.value[row];
    EXPECT_NEAR(got.art.value[ourRow], v, std::max(1e-3, std::fabs(v) * 2e-3));
  }
}

TEST(DlsWrite, LevelOneHasOnlyItsChunksAndAsksBeforeDroppingRegions) {
  TempDir dir;
  Collection c;
  auto* wave = Create<Waveform>(c, "w");
  wave->length = 100;
  AllocSamples16(*wave);
  auto* inst = Create<kv::Instrument>(c, "many");
  Layer* layer = AddLayer(*inst);
  for (int k = 0; k < 20; ++k) AddRegion(*layer, wave->id, MakeRange(k * 5, k * 5 + 4), kNoRange, 255);
  auto* drums = Create<kv::Instrument>(c, "kit");
  drums->location = MakeLocation(0, 0, 0, true);
  Layer* dl = AddLayer(*drums);
  for (int k = 0; k < 20; ++k) AddRegion(*dl, wave->id, MakeRange(k, k), kNoRange, 255);
  FixUpItems(c, 0xFF, false);

  for (int answer : {kBoxNo, kBoxYes}) {
    const fs::path path = dir / "one.dls";
    BoxCapture boxes(answer);
    ASSERT_TRUE(Save(c, path, Row(1))) << ErrorMessage;
    ASSERT_EQ(boxes.texts.size(), 1u);
    EXPECT_EQ(boxes.texts[0], kDlsLevel1Question);
    const std::string bytes = test::ReadFile(path);
    for (const char* id : {"rgn2", "lar2", "art2"}) EXPECT_FALSE(Contains(bytes, id)) << id;
    EXPECT_TRUE(Contains(bytes, "rgn "));
    const Read r = ReadFile(path);
    ASSERT_TRUE(r.ok) << ErrorMessage;
    std::size_t melodic = 0, kit = 0;
    for (const kv::Region* region : r.regions) (LocationIsDrum(InstrumentOf(*LayerOf(*region))->location) ? kit : melodic)++;
    EXPECT_EQ(melodic, answer == kBoxYes ? 20u : 16u);
    EXPECT_EQ(kit, 20u);
  }
  // Headless, the answer is No.
  const uint8_t enabled = MessageBoxesEnabled;
  MessageBoxesEnabled = 0;
  ASSERT_TRUE(Save(c, dir / "quiet.dls", Row(1)));
  MessageBoxesEnabled = enabled;
  EXPECT_EQ(ReadFile(dir / "quiet.dls").regions.size(), 36u);
}

TEST(DlsWrite, StereoWavesStayWholeAtLevel2PlusPlusAndPairUpBelow) {
  if (!test::NeedCorpus()) return;
  TempDir dir;
  Collection c;
  ASSERT_TRUE(Load(c, test::CorpusDir() / "wav/gen-s16-stereo.wav")) << ErrorMessage;
  Waveform* wave = c.All<Waveform>().front();
  ASSERT_EQ(wave->channels, 2);
  auto* inst = Create<kv::Instrument>(c, "stereo");
  AddRegion(*AddLayer(*inst), wave->id, MakeRange(0, 127), kNoRange, 255);
  FixUpItems(c, 0xFF, false);

  const fs::path whole = dir / "whole.dls";
  ASSERT_TRUE(Save(c, whole, Row(4))) << ErrorMessage;
  const std::string bytes = test::ReadFile(whole);
  const std::size_t fmt = bytes.find("fmt ");
  ASSERT_NE(fmt, std::string::npos);
  EXPECT_EQ(static_cast<uint8_t>(bytes[fmt + 10]), 2);  // channels
  const Read r = ReadFile(whole);
  ASSERT_TRUE(r.ok) << ErrorMessage;
  EXPECT_EQ(r.c->Count(ItemType::Waveform), 1u);
  EXPECT_EQ(r.c->All<Waveform>().front()->channels, 2);

  // Level 2 holds mono waves: the export splits the wave, the writer links
  // the halves in wlnk, and the reader finds the pair again.
  const fs::path split = dir / "split.dls";
  ASSERT_TRUE(Save(c, split, Row(2))) << ErrorMessage;
  const Read s = ReadFile(split);
  ASSERT_TRUE(s.ok) << ErrorMessage;
  ASSERT_EQ(s.regions.size(), 2u);
  EXPECT_EQ(s.c->Count(ItemType::Waveform), 2u);
  for (const kv::Region* region : s.regions) {
    EXPECT_EQ(region->phaseGroup, 1);
    EXPECT_EQ(RegionWaveform(*region)->channels, 1);
  }
  EXPECT_EQ(s.regions[0]->phaseMaster + s.regions[1]->phaseMaster, 1);
  EXPECT_EQ(Row(*s.regions[0], kRowPan) + Row(*s.regions[1], kRowPan), 0.0f);
  EXPECT_EQ(std::fabs(Row(*s.regions[0], kRowPan)), 1.0f);
  // The model was left as it was.
  EXPECT_EQ(c.All<Waveform>().front()->channels, 2);
}

TEST(DlsWrite, LevelTwoPlusTakesTheWaveWritersCodings) {
  TempDir dir;
  Collection c;
  auto* wave = Create<Waveform>(c, "w");
  wave->length = 400;
  int16_t* s = AllocSamples16(*wave);
  for (uint32_t i = 0; i < wave->length; ++i) s[i] = static_cast<int16_t>(12000 * std::sin(i * 0.05));
  AddRegion(*AddLayer(*Create<kv::Instrument>(c, "i")), wave->id, MakeRange(0, 127), kNoRange, 255);
  FixUpItems(c, 0xFF, false);
  struct Case {
    int level;
    uint32_t request;
    int tag;
  };
  for (const Case& k : {Case{3, 1u << kALaw, 6}, Case{3, 1u << kPcm24, 1}, Case{2, 1u << kPcm8, 1}}) {
    SCOPED_TRACE(k.level * 100 + k.tag);
    const fs::path path = dir / "coded.dls";
    ClearError();
    ASSERT_TRUE(SaveFile(&c, path, Row(k.level), ExportRequest{k.request, 0, 0.0f}, false)) << ErrorMessage;
    const std::string bytes = test::ReadFile(path);
    const std::size_t fmt = bytes.find("fmt ");
    ASSERT_NE(fmt, std::string::npos);
    EXPECT_EQ(static_cast<uint8_t>(bytes[fmt + 8]), k.tag);
    const Read r = ReadFile(path);
    ASSERT_TRUE(r.ok) << ErrorMessage;
    Waveform* back = r.c->All<Waveform>().front();
    ASSERT_TRUE(back->EnsureData()) << ErrorMessage;
    EXPECT_EQ(back->length, 400u);
    const float* f = SamplesFloat(*back);
    ASSERT_NE(f, nullptr);
    EXPECT_NEAR(f[31], 12000 * std::sin(31 * 0.05) / 32768.0, 0.02);
  }
  // Level 2 keeps to PCM of 8 and 16 bits.
  EXPECT_FALSE(SaveFile(&c, dir / "no.dls", Row(2), ExportRequest{1u << kALaw, 0, 0.0f}, false));
}

TEST(DlsWrite, RiffMidiCarriesTheSongsInstrumentsAsABank) {
  if (!test::NeedCorpus()) return;
  TempDir dir;
  Collection c;
  ASSERT_TRUE(Load(c, test::CorpusDir() / "midi/rmi-spessasynth-with-dls.rmi")) << ErrorMessage;
  Song* song = c.All<Song>().front();
  for (int level : {1, 2}) {
    SCOPED_TRACE(level);
    const fs::path path = dir / ("song" + std::to_string(level) + ".rmi");
    const int row = FindWriterRow(level == 1 ? "RIFF-MIDI w DLS level 1 instruments"
                                             : "RIFF-MIDI w DLS level 2 instruments",
                                  0xFF);
    ASSERT_GE(row, 0);
    BoxCapture quiet;
    ASSERT_TRUE(ExportItem(song, row, path, ExportRequest{}, false)) << ErrorContext << ": " << ErrorMessage;
    const std::string bytes = test::ReadFile(path);
    uint32_t riff;
    std::memcpy(&riff, bytes.data() + 4, 4);
    EXPECT_EQ(riff + 8u, bytes.size());
    const std::size_t at = bytes.find("RIFF", 12);
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(bytes.substr(at + 8, 4), "DLS ");
    EXPECT_EQ(Contains(bytes, "rgn2"), level == 2);
    Collection back;
    ASSERT_TRUE(Load(back, path)) << ErrorMessage;
    EXPECT_EQ(back.Count(ItemType::Song), 1u);
    EXPECT_EQ(back.Count(ItemType::Instrument), 3u);
    EXPECT_EQ(back.All<Song>().front()->division, song->division);
  }
}

// ---- peers ----

const fs::path kTimGM = "/usr/share/sounds/sf2/TimGM6mb.sf2";

// A few notes on each program and on the drum channel.
std::string TestSong(std::initializer_list<int> programs, std::initializer_list<int> velocities = {100}) {
  test::SmfTrack t;
  int ch = 0;
  for (int program : programs) {
    if (ch == 9) ++ch;
    t.Event(0, {0xC0 | ch++, program});
  }
  for (int velocity : velocities) {
    ch = 0;
    for (int i = 0; i < static_cast<int>(programs.size()); ++i, ++ch) {
      if (ch == 9) ++ch;
      for (int n = 0; n < 3; ++n) {
        t.Event(0, {0x90 | ch, 48 + 7 * n + (i % 5) * 5, velocity});
        t.Event(0, {0x99, n == 0 ? 36 : n == 1 ? 38 : 42, std::min(velocity + 10, 127)});
        t.Event(240, {0x89, n == 0 ? 36 : n == 1 ? 38 : 42, 0});
        t.Event(0, {0x80 | ch, 48 + 7 * n + (i % 5) * 5, 0});
      }
    }
  }
  return t.File();
}

int Count(const std::string& s, const char* word) {
  int n = 0;
  for (std::size_t p = s.find(word); p != std::string::npos; p = s.find(word, p + 1)) ++n;
  return n;
}

test::RenderMatch RenderAgainst(const TempDir& dir, const fs::path& reference, const fs::path& bank,
                                const std::string& song, std::string* log = nullptr) {
  test::WriteFile(dir / "song.mid", song);
  std::string logA, logB;
  EXPECT_EQ(test::RenderWithFluidSynth(reference, dir / "song.mid", dir / "a.wav", logA), 0) << logA;
  EXPECT_EQ(test::RenderWithFluidSynth(bank, dir / "song.mid", dir / "b.wav", logB), 0) << logB;
  if (log) *log = logB;
  const auto a = test::ReadWavSamples(dir / "a.wav"), b = test::ReadWavSamples(dir / "b.wav");
  EXPECT_GT(a.size(), 44100u);
  return test::CompareRenders(a, b);
}

TEST(DlsPeers, ReadBankPlaysLikeItsSourceThroughFluidSynth) {
  if (!test::NeedCorpus() || !test::NeedTool("fluidsynth")) return;
  TempDir dir;
  const fs::path sf2 = test::CorpusDir() / "sf2/TimGM6mb-subset-spessasynth.sf2";
  const fs::path bank = test::CorpusDir() / "dls/TimGM6mb-subset-spessasynth.dls";
  Collection c;
  ASSERT_TRUE(Load(c, bank)) << ErrorMessage;
  const fs::path ours = dir / "ours.sf2";
  ASSERT_TRUE(Save(c, ours, FindWriterByPath(ours))) << ErrorMessage;
  const std::string song = TestSong({0, 73});
  const test::RenderMatch theirs = RenderAgainst(dir, sf2, bank, song);
  const test::RenderMatch mine = RenderAgainst(dir, sf2, ours, song);
  std::printf("DLS read: ours %.4f / %.1f dB, FluidSynth's %.4f / %.1f dB\n", mine.correlation, mine.differenceDb,
              theirs.correlation, theirs.differenceDb);
  ::testing::Test::RecordProperty("correlation", std::to_string(mine.correlation));
  // Measured 1.0000 and -57.4 dB; FluidSynth's own reading of the DLS,
  // which takes no articulation, 0.9206 and -6.5 dB.
  EXPECT_GE(mine.correlation, theirs.correlation);
  EXPECT_LE(mine.differenceDb, theirs.differenceDb);
  EXPECT_GE(mine.correlation, 0.999);
  EXPECT_LE(mine.differenceDb, -40.0);
}

TEST(DlsPeers, WrittenBankOpensInGigtoolsAndFluidSynth) {
  if (!test::NeedCorpus() || !test::NeedTool("fluidsynth") || !test::NeedTool("dlsdump") ||
      !test::NeedTool("rifftree"))
    return;
  TempDir dir;
  const fs::path sf2 = test::CorpusDir() / "sf2/TimGM6mb-subset-spessasynth.sf2";
  const fs::path spessa = test::CorpusDir() / "dls/TimGM6mb-subset-spessasynth.dls";
  Collection c;
  ASSERT_TRUE(Load(c, sf2)) << ErrorMessage;
  const fs::path ours = dir / "ours.dls";
  ASSERT_TRUE(Save(c, ours, Row(2))) << ErrorMessage;

  // dlsdump sees the bank the SF2 is: the facts of spessasynth's DLS of it.
  const Dump d = Dlsdump(ours);
  std::string facts;
  for (const auto& e : test::Manifest())
    if (e.path == "dls/TimGM6mb-subset-spessasynth.dls") facts = e.facts;
  ASSERT_FALSE(facts.empty());
  EXPECT_EQ(std::to_string(d.instruments), WholeFact(facts, "dlsdump", "instruments"));
  EXPECT_EQ(std::to_string(d.regions), WholeFact(facts, "dlsdump", "regions"));
  EXPECT_EQ(std::to_string(d.samples), WholeFact(facts, "dlsdump", "samples"));
  EXPECT_EQ(d.loops, WholeFact(facts, "dlsdump", "region_loops"));
  EXPECT_EQ(d.programs, WholeFact(facts, "dlsdump", "programs"));
  EXPECT_EQ(d.text.find("Exception"), std::string::npos) << d.text.substr(0, 2000);

  // The Part's chunk order, as the file has it and as rifftree shows it.
  const std::vector<std::string> top = {"colh", "vers", "LIST(lins)", "ptbl", "LIST(wvpl)", "LIST(INFO)"};
  EXPECT_EQ(TopChunks(test::ReadFile(ours)), top);
  std::string tree;
  test::RunCommand("rifftree '" + ours.string() + "'", &tree);
  std::vector<std::string> shown;
  for (std::istringstream in(tree); std::getline(in, tree);) {
    if (tree.size() > 12 && tree.compare(0, 12, std::string(12, ' ')) == 0 && tree[12] != ' ') {
      std::string id = tree.substr(12);
      if (id.back() == ';') id.pop_back();
      if (id.size() > 2 && id.substr(id.size() - 2) == "->") id.resize(id.size() - 2);
      shown.push_back(id);
    }
  }
  EXPECT_EQ(shown, top);

  // FluidSynth loads it with only the line every DLS gets, no more warnings
  // than the SF2, and plays it at least as near the SF2 as spessasynth's DLS.
  const std::string song = TestSong({0, 73});
  std::string log, sf2Log;
  const test::RenderMatch theirs = RenderAgainst(dir, sf2, spessa, song, &sf2Log);
  const test::RenderMatch mine = RenderAgainst(dir, sf2, ours, song, &log);
  std::string referenceLog;
  test::RenderWithFluidSynth(sf2, dir / "song.mid", dir / "c.wav", referenceLog);
  EXPECT_EQ(Count(log, "error"), 1) << log;
  EXPECT_NE(log.find("Not a SoundFont file"), std::string::npos) << log;
  EXPECT_LE(Count(log, "warning"), Count(referenceLog, "warning")) << log;
  std::printf("DLS written: ours %.4f / %.1f dB, spessasynth's %.4f / %.1f dB\n", mine.correlation,
              mine.differenceDb, theirs.correlation, theirs.differenceDb);
  ::testing::Test::RecordProperty("correlation", std::to_string(mine.correlation));
  // Measured 0.9206 and -6.5 dB for both: FluidSynth 2.3.1 reads DLS through
  // libinstpatch 1.1.6, whose voices take the ranges, samples, tuning and
  // loops and none of the articulation (its conversion call is commented
  // out), so no DLS of this bank can render nearer there. The target of
  // 0.99 is met where the articulation is read: our own reading of the file,
  // written as SF2 for FluidSynth, below.
  EXPECT_GE(mine.correlation, theirs.correlation - 1e-4);
  EXPECT_LE(mine.differenceDb, theirs.differenceDb + 0.05);

  Collection back;
  ASSERT_TRUE(Load(back, ours)) << ErrorMessage;
  const fs::path again = dir / "again.sf2";
  ASSERT_TRUE(Save(back, again, FindWriterByPath(again))) << ErrorMessage;
  const test::RenderMatch round = RenderAgainst(dir, sf2, again, song);
  std::printf("SF2 -> DLS 2 -> SF2: %.5f / %.1f dB\n", round.correlation, round.differenceDb);
  // Measured 1.0000 and -70.3 dB.
  EXPECT_GE(round.correlation, 0.999);
  EXPECT_LE(round.differenceDb, -50.0);
}

TEST(DlsPeers, WholeTimGMPlaysInFluidSynthWithEveryProgramFound) {
  const fs::path source = test::HaveCorpus() ? test::CorpusDir() / "sf2/TimGM6mb.sf2" : kTimGM;
  if (!test::Need(fs::exists(source), "TimGM6mb.sf2") || !test::NeedTool("fluidsynth")) return;
  TempDir dir;
  Collection c;
  ASSERT_TRUE(Load(c, source)) << ErrorMessage;
  const fs::path ours = dir / "gm.dls";
  ASSERT_TRUE(Save(c, ours, Row(2))) << ErrorMessage;
  test::WriteFile(dir / "song.mid", TestSong({0, 4, 16, 25, 33, 48, 56, 61, 73, 81}));
  std::string log;
  ASSERT_EQ(test::RenderWithFluidSynth(ours, dir / "song.mid", dir / "gm.wav", log), 0) << log;
  EXPECT_EQ(log.find("not found"), std::string::npos) << log;
  EXPECT_EQ(Count(log, "error"), 1) << log;
  const auto samples = test::ReadWavSamples(dir / "gm.wav");
  double energy = 0;
  for (double s : samples) energy += s * s;
  EXPECT_GT(energy, 1.0);
}

// ---- the command line ----

TEST(DlsCommandLine, ConvertsBothWaysAndListsWhatTheFileSaid) {
  const fs::path kelvo = fs::path(KELVO_BINARY_DIR) / "ui" / "kelvo";
  if (!test::NeedCorpus() || !test::Need(fs::exists(kelvo), "the kelvo binary")) return;
  TempDir dir;
  const std::string k = "cd '" + dir.path().string() + "' && KELVO_SETTINGS='" + (dir / "s.ini").string() + "' '" +
                        kelvo.string() + "' -NOMSG ";
  const std::string sf2 = (test::CorpusDir() / "sf2/TimGM6mb-subset-spessasynth.sf2").string();
  std::string out;
  for (int format : {63, 64, 65, 66}) {
    const std::string name = "b" + std::to_string(format) + ".dls";
    ASSERT_EQ(test::RunCommand(k + "'" + sf2 + "' --save " + name + " --format " + std::to_string(format) + " 2>&1", &out), 0)
        << out;
    ASSERT_EQ(test::RunCommand(k + name + " --save back.sf2 2>&1", &out), 0) << out;
  }
  ASSERT_EQ(test::RunCommand(k + "b64.dls --list 2>&1", &out), 0) << out;
  EXPECT_NE(out.find("\"Standard\" bank=0:0 program=0 drum=1"), std::string::npos) << out;
  EXPECT_NE(out.find("layer "), std::string::npos);
  EXPECT_EQ(out.find("unread_connections"), std::string::npos) << out;
  // spessasynth writes the SF2's velocity-to-cutoff default as a block the
  // table has no row for: it is counted.
  ASSERT_EQ(test::RunCommand(k + "'" + (test::CorpusDir() / "dls/TimGM6mb-subset-spessasynth.dls").string() +
                                 "' --list 2>&1",
                             &out),
            0);
  EXPECT_NE(out.find("unread_connections="), std::string::npos) << out.substr(0, 3000);

  // A General MIDI collection named as a DLS bank plays a song's programs.
  const std::string song = (test::CorpusDir() / "midi/pianobooster-02-LavendersBlue.mid").string();
  ASSERT_EQ(test::RunCommand(k + "'" + song + "' --save song.wav --set mid2wav.wszGMBank=" + (dir / "b64.dls").string() +
                                 " 2>&1",
                             &out),
            0)
      << out;
  EXPECT_EQ(out.find("Could not open"), std::string::npos) << out;
  const auto samples = test::ReadWavSamples(dir / "song.wav");
  double peak = 0;
  for (double v : samples) peak = std::max(peak, std::fabs(v));
  EXPECT_GT(peak, 0.1);
}

}  // namespace
}  // namespace kv
