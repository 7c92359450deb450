// DLS writer: levels 1, 2, 2+ and 2++. The file is built in memory in the
// order colh, vers, lins, ptbl, wvpl, INFO; each pool entry is a WAVE body
// from the WAV module, each region's articulation the connection blocks of
// the table in dls_connect.cpp.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "core/resolved.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "formats/modules/dls.h"
#include "formats/modules/dls_format.h"
#include "formats/modules/gig_format.h"
#include "codecs/gigpack.h"
#include "formats/modules/module.h"
#include "formats/modules/wav.h"

namespace kv {

namespace {

using namespace dls;

constexpr const char* kExp = "dls_Exp";

// Level 1 limits on the regions of an instrument.
constexpr std::size_t kLevel1MelodicRegions = 16;
constexpr std::size_t kLevel1DrumRegions = 128;

// wlnk options and channels.
constexpr uint16_t kPhaseMaster = 0x0001;
constexpr uint16_t kMultiChannel = 0x0002;
constexpr uint32_t kChannelLeft = 1;
constexpr uint32_t kChannelRight = 2;

// The capability word of each level's row: the waves' codings and channels.
uint32_t LevelCapabilities(int level) {
  switch (level) {
    case 1:
    case 2: return 0x00100005u;
    case 3: return 0x00127F75u;
    default: return 0x00327F75u;
  }
}

// ---- chunks into a byte vector ----

class Bytes {
 public:
  explicit Bytes(std::vector<uint8_t>& out) : out_(out) {}
  void Id(const char* id) {
    for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>(id[i]));
  }
  void U16(uint32_t v) {
    out_.push_back(static_cast<uint8_t>(v));
    out_.push_back(static_cast<uint8_t>(v >> 8));
  }
  void U32(uint32_t v) {
    for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void Raw(const void* data, std::size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    out_.insert(out_.end(), p, p + n);
  }
  // A chunk's head; End() patches its size and pads it to even.
  std::size_t Begin(const char* id) {
    Id(id);
    const std::size_t at = out_.size();
    U32(0);
    return at;
  }
  std::size_t BeginList(const char* type) {
    const std::size_t at = Begin("LIST");
    Id(type);
    return at;
  }
  void End(std::size_t at) {
    const uint64_t size = out_.size() - at - 4;
    for (int i = 0; i < 4; ++i) out_[at + i] = static_cast<uint8_t>(size >> (8 * i));
    if (size & 1) out_.push_back(0);
  }
  // INFO text: nul-terminated, even.
  void Text(const char* id, std::string_view text) {
    std::string bytes = Utf8ToWindows1252(text);
    bytes.push_back('\0');
    const std::size_t at = Begin(id);
    Raw(bytes.data(), bytes.size());
    End(at);
  }
  std::size_t Size() const { return out_.size(); }

 private:
  std::vector<uint8_t>& out_;
};

// A wsmp chunk: unity note, fine tune in cents, gain, one loop or none.
struct Wsmp {
  int unity = 60;
  int fine = 0;
  double gainDb = 0.0;
  bool looped = false;
  bool release = false;
  uint32_t loopStart = 0;
  uint32_t loopLength = 0;
};

void PutWsmp(Bytes& b, const Wsmp& w) {
  const std::size_t at = b.Begin("wsmp");
  b.U32(20);
  b.U16(static_cast<uint32_t>(std::clamp(w.unity, 0, 127)));
  b.U16(static_cast<uint16_t>(static_cast<int16_t>(std::clamp(w.fine, -32768, 32767))));
  const double gain = std::clamp(std::round(w.gainDb * kDbUnit), -2147483647.0, 2147483647.0);
  b.U32(static_cast<uint32_t>(static_cast<int32_t>(gain)));
  b.U32(0);  // options
  b.U32(w.looped ? 1 : 0);
  if (w.looped) {
    b.U32(16);
    b.U32(w.release ? 1 : 0);
    b.U32(w.loopStart);
    b.U32(w.loopLength);
  }
  b.End(at);
}

// The loop of a wave or a region, as whole frames within the wave.
void SetLoop(Wsmp& w, int type, int release, double start, double end, uint32_t frames) {
  if (type == 0 || !(end > start)) return;
  const double s = std::clamp(std::round(start), 0.0, static_cast<double>(frames));
  const double e = std::clamp(std::round(end), s, static_cast<double>(frames));
  if (e <= s) return;
  w.looped = true;
  w.release = release != 0;
  w.loopStart = static_cast<uint32_t>(s);
  w.loopLength = static_cast<uint32_t>(e - s);
}

void PutArticulation(Bytes& b, const std::vector<Connection>& blocks, bool level1) {
  const std::size_t list = b.BeginList(level1 ? "lart" : "lar2");
  const std::size_t at = b.Begin(level1 ? "art1" : "art2");
  b.U32(8);
  b.U32(static_cast<uint32_t>(blocks.size()));
  for (const Connection& c : blocks) {
    b.U16(c.source);
    b.U16(c.control);
    b.U16(c.destination);
    b.U16(c.transform);
    b.U32(static_cast<uint32_t>(c.scale));
  }
  b.End(at);
  b.End(list);
}

bool SameBlocks(const std::vector<Connection>& a, const std::vector<Connection>& b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](const Connection& x, const Connection& y) {
           return x.source == y.source && x.control == y.control && x.destination == y.destination &&
                  x.transform == y.transform && x.scale == y.scale;
         });
}

// One region as it goes out.
struct RegionOut {
  Region* region = nullptr;
  ResolvedRegion resolved;
  int layer = 0;
  int cue = -1;
  WrittenArticulation art;
  uint16_t phaseGroup = 0;
  bool master = false;
  uint32_t channel = kChannelLeft;
  bool stereoWave = false;
};

// Two regions that play the two sides of one stereo sound: mono waves alike
// in length, rate, pitch and loop, over the same keys and velocities, panned
// hard apart.
bool StereoHalves(const RegionOut& a, const RegionOut& b) {
  const Waveform* wa = a.resolved.wave;
  const Waveform* wb = b.resolved.wave;
  if (!wa || !wb || wa == wb || wa->channels > 1 || wb->channels > 1 || wa->length != wb->length ||
      wa->sampleRate != wb->sampleRate || wa->rootKey != wb->rootKey || wa->fineTune != wb->fineTune ||
      wa->loopType != wb->loopType || wa->loopStart != wb->loopStart || wa->loopEnd != wb->loopEnd ||
      !a.resolved.trigger.SameRanges(b.resolved.trigger)) {
    return false;
  }
  const float pa = a.resolved.art.value[kRowPan], pb = b.resolved.art.value[kRowPan];
  return std::fabs(pa) == 1.0f && pa == -pb && a.resolved.pitch.rootKey == b.resolved.pitch.rootKey &&
         a.resolved.pitch.masterTune == b.resolved.pitch.masterTune;
}

class DlsWriter {
 public:
  DlsWriter(Collection& c, int level, uint32_t request, uint64_t features)
      : c_(c), level_(level), request_(request), features_(features) {}

  bool Build(Item& item, std::vector<uint8_t>& out);

 private:
  int Cue(Waveform& wave);
  bool AddInstrument(Instrument& instrument, bool keepAll, Bytes& lins);
  void LinkStereo(std::vector<RegionOut>& regions) const;

  Collection& c_;
  int level_;
  uint32_t request_;
  uint64_t features_;
  std::vector<Waveform*> pool_;
  std::map<ItemId, int> cueOf_;
};

int DlsWriter::Cue(Waveform& wave) {
  const auto it = cueOf_.find(wave.id);
  if (it != cueOf_.end()) return it->second;
  const int cue = static_cast<int>(pool_.size());
  pool_.push_back(&wave);
  cueOf_[wave.id] = cue;
  return cue;
}

void DlsWriter::LinkStereo(std::vector<RegionOut>& regions) const {
  // Groups of the model stay groups; pairs of hard-panned halves become
  // groups of their own, the left side the master.
  std::map<uint16_t, uint16_t> renumber;
  uint16_t next = 1;
  std::vector<bool> paired(regions.size(), false);
  for (std::size_t i = 0; i < regions.size(); ++i) {
    if (paired[i] || regions[i].stereoWave || std::fabs(regions[i].resolved.art.value[kRowPan]) != 1.0f) continue;
    for (std::size_t j = i + 1; j < regions.size(); ++j) {
      if (paired[j] || regions[j].layer == regions[i].layer || !StereoHalves(regions[i], regions[j])) continue;
      paired[i] = paired[j] = true;
      const bool iLeft = regions[i].resolved.art.value[kRowPan] < 0;
      RegionOut& left = iLeft ? regions[i] : regions[j];
      RegionOut& right = iLeft ? regions[j] : regions[i];
      left.phaseGroup = right.phaseGroup = next++;
      left.master = true;
      left.channel = kChannelLeft;
      right.channel = kChannelRight;
      break;
    }
  }
  for (std::size_t i = 0; i < regions.size(); ++i) {
    RegionOut& r = regions[i];
    if (paired[i] || r.region->phaseGroup == 0) continue;
    auto [it, made] = renumber.try_emplace(r.region->phaseGroup, next);
    if (made) ++next;
    r.phaseGroup = it->second;
    r.master = r.region->phaseMaster != 0;
  }
}

bool DlsWriter::AddInstrument(Instrument& instrument, bool keepAll, Bytes& lins) {
  const bool level1 = level_ == 1;
  const bool drum = LocationIsDrum(instrument.location);
  SendSlots sends;
  for (int s = 0; s < 4; ++s) {
    if (instrument.fx[s].type == 2 && sends.reverb < 0) sends.reverb = s;
    if (instrument.fx[s].type == 1 && sends.chorus < 0) sends.chorus = s;
  }

  std::vector<RegionOut> regions;
  int layerNumber = 0;
  for (ItemId layerId : instrument.children) {
    Layer* layer = c_.FindAs<Layer>(layerId);
    if (!layer) continue;
    bool any = false;
    for (ItemId id : layer->children) {
      Region* region = c_.FindAs<Region>(id);
      Waveform* wave = region ? RegionWaveform(*region) : nullptr;
      if (!wave) continue;
      RegionOut r;
      r.region = region;
      r.resolved = ResolveRegion(*region);
      r.layer = level1 ? 0 : layerNumber;
      r.cue = Cue(*wave);
      r.stereoWave = wave->channels == 2 && level_ >= 4;
      r.art = ArticulationToConnections(r.resolved.art, level_, sends, features_);
      regions.push_back(std::move(r));
      any = true;
    }
    if (any) ++layerNumber;
  }
  const std::size_t limit = drum ? kLevel1DrumRegions : kLevel1MelodicRegions;
  if (level1 && !keepAll && regions.size() > limit) regions.resize(limit);
  LinkStereo(regions);

  // Articulation: once for the instrument where every region has the same
  // (always at level 1 for melodic instruments, whose regions have none of
  // their own there), else per region.
  std::vector<Connection> instBlocks;
  bool perRegion = false;
  if (level1 && !drum) {
    std::vector<const Articulation*> records;
    for (const RegionOut& r : regions) records.push_back(&r.resolved.art);
    Articulation average;
    AverageArticulations(records, average);
    if (!records.empty()) instBlocks = ArticulationToConnections(average, level_, sends, features_).blocks;
  } else if (!regions.empty()) {
    instBlocks = regions.front().art.blocks;
    for (const RegionOut& r : regions)
      if (!SameBlocks(r.art.blocks, instBlocks)) perRegion = true;
    if (perRegion) instBlocks.clear();
  }

  const std::size_t ins = lins.BeginList("ins ");
  {
    const std::size_t at = lins.Begin("insh");
    lins.U32(static_cast<uint32_t>(regions.size()));
    uint32_t bank = (LocationMajorBank(instrument.location) << 8) | LocationMinorBank(instrument.location);
    if (drum) bank |= 0x80000000u;
    lins.U32(bank);
    lins.U32(LocationProgram(instrument.location));
    lins.End(at);
  }
  const std::size_t lrgn = lins.BeginList("lrgn");
  for (const RegionOut& r : regions) {
    const Waveform& wave = *r.resolved.wave;
    const TriggerRecord& t = r.resolved.trigger;
    const std::size_t rgn = lins.BeginList(level1 ? "rgn " : "rgn2");
    {
      const std::size_t at = lins.Begin("rgnh");
      lins.U16(std::min(t.loKey, t.hiKey));
      lins.U16(std::max(t.loKey, t.hiKey));
      lins.U16(std::min(t.loVel, t.hiVel));
      lins.U16(std::max(t.loVel, t.hiVel));
      lins.U16(t.noteExclusion == 1 ? 1 : 0);
      lins.U16(t.exclusionGroup);
      if (!level1) lins.U16(static_cast<uint32_t>(r.layer));
      lins.End(at);
    }
    Wsmp w;
    w.unity = r.resolved.pitch.rootKey;
    w.fine = wave.fineTune + static_cast<int>(std::lround(r.art.tuneSemitones * 100.0));
    w.gainDb = wave.volume + r.art.gainDb;
    SetLoop(w, r.resolved.loop.type, r.resolved.loop.release, r.resolved.loop.start, r.resolved.loop.end, wave.length);
    PutWsmp(lins, w);
    {
      const std::size_t at = lins.Begin("wlnk");
      uint16_t options = r.master ? kPhaseMaster : 0;
      uint32_t channel = r.channel;
      if (r.stereoWave) {
        options |= kMultiChannel;
        channel = kChannelLeft | kChannelRight;
      }
      lins.U16(options);
      lins.U16(r.phaseGroup);
      lins.U32(channel);
      lins.U32(static_cast<uint32_t>(r.cue));
      lins.End(at);
    }
    if (perRegion && !r.art.blocks.empty()) PutArticulation(lins, r.art.blocks, level1);
    lins.End(rgn);
  }
  lins.End(lrgn);
  if (!instBlocks.empty()) PutArticulation(lins, instBlocks, level1);
  {
    const std::size_t info = lins.BeginList("INFO");
    lins.Text("INAM", instrument.Name());
    if (instrument.comment[0]) lins.Text("ICMT", instrument.comment);
    lins.End(info);
  }
  lins.End(ins);
  return true;
}

bool DlsWriter::Build(Item& item, std::vector<uint8_t>& out) {
  const ItemType type = item.Type();
  ItemSet set(item, type == ItemType::Collection);

  // Level 1 asks once when an instrument has more regions than it allows.
  bool keepAll = true;
  if (level_ == 1) {
    bool over = false;
    for (Instrument* ins : set.instruments) {
      std::size_t n = 0;
      for (ItemId l : ins->children)
        if (auto* layer = c_.FindAs<Layer>(l))
          for (ItemId r : layer->children)
            if (auto* region = c_.FindAs<Region>(r); region && RegionWaveform(*region)) ++n;
      over |= n > (LocationIsDrum(ins->location) ? kLevel1DrumRegions : kLevel1MelodicRegions);
    }
    if (over) keepAll = MessageBox(kDlsLevel1Question, kExp, BoxButtons::YesNo) == kBoxYes;
  }

  std::vector<uint8_t> linsBody;
  Bytes lins(linsBody);
  lins.Id("lins");
  for (Instrument* ins : set.instruments)
    if (!AddInstrument(*ins, keepAll, lins)) return false;
  // A collection's waves that no instrument plays go into the pool too.
  for (Waveform* wave : set.waveforms) Cue(*wave);

  // The pool: each wave's body from the WAV writer, with its own wsmp.
  const uint32_t caps = LevelCapabilities(level_);
  uint32_t formats = request_ & kCapFormatMask;
  if (formats == 0) formats = caps & kCapFormatMask & kWavWritableNow;
  formats &= caps;
  if (formats == 0) return Fail(kExp, "The file format can not save this item");
  uint32_t channels = request_ & (kCapMono | kCapStereo) & caps;
  if (channels == 0) channels = caps & (kCapMono | kCapStereo);
  const uint32_t waveRequest = formats | channels;

  std::vector<uint8_t> wvplBody;
  Bytes wvpl(wvplBody);
  wvpl.Id("wvpl");
  std::vector<uint32_t> offsets;
  for (Waveform* wave : pool_) {
    offsets.push_back(static_cast<uint32_t>(wvplBody.size() - 4));
    std::vector<uint8_t> wsmpBytes;
    Bytes wb(wsmpBytes);
    Wsmp w;
    w.unity = wave->rootKey;
    w.fine = wave->fineTune;
    w.gainDb = wave->volume;
    SetLoop(w, wave->loopType, wave->loopRelease, wave->loopStart, wave->loopEnd, wave->length);
    PutWsmp(wb, w);
    const std::size_t at = wvpl.BeginList("wave");
    if (!WriteWaveBody(*wave, wvplBody, waveRequest, wsmpBytes)) {
      std::snprintf(ErrorContext, sizeof ErrorContext, "%s", kExp);
      return false;
    }
    wvpl.End(at);
    if (wvplBody.size() > 0xFFFFFF00u) return Fail(kExp, "Too much data");
  }

  std::vector<uint8_t> infoBody;
  Bytes info(infoBody);
  info.Id("INFO");
  std::string_view name = c_.Name();
  if (type == ItemType::Instrument || name.empty()) name = item.Name();
  info.Text("INAM", name.empty() ? std::string_view("Kelvo Studio bank") : name);
  if (c_.engineer[0]) info.Text("IENG", c_.engineer);
  if (c_.copyright[0]) info.Text("ICOP", c_.copyright);
  if (c_.comment[0]) info.Text("ICMT", c_.comment);
  info.Text("ISFT", kProgramTitle);

  const uint64_t total = 4 + 12 + 16 + (8 + linsBody.size()) + (8 + 8 + 4 * offsets.size()) + (8 + wvplBody.size()) +
                         (8 + infoBody.size());
  if (total > 0xFFFFFFF0u) return Fail(kExp, "Too much data");
  out.reserve(static_cast<std::size_t>(total + 8));
  Bytes b(out);
  const std::size_t riff = b.Begin("RIFF");
  b.Id("DLS ");
  {
    const std::size_t at = b.Begin("colh");
    b.U32(static_cast<uint32_t>(set.instruments.size()));
    b.End(at);
  }
  {
    const std::size_t at = b.Begin("vers");
    b.U32((12u << 16) | 5u);
    b.U32(0);
    b.End(at);
  }
  auto putList = [&](const std::vector<uint8_t>& body) {
    const std::size_t at = b.Begin("LIST");
    b.Raw(body.data(), body.size());
    b.End(at);
  };
  putList(linsBody);
  linsBody = {};
  {
    const std::size_t at = b.Begin("ptbl");
    b.U32(8);
    b.U32(static_cast<uint32_t>(offsets.size()));
    for (uint32_t o : offsets) b.U32(o);
    b.End(at);
  }
  putList(wvplBody);
  wvplBody = {};
  putList(infoBody);
  b.End(riff);
  return true;
}

bool WriteBank(Item& item, FileRef& file, uint32_t request, int level) {
  const ItemType type = item.Type();
  if (type != ItemType::Instrument && type != ItemType::Collection) {
    return Fail(kExp, "The file format can not save this item");
  }
  if (level < 1 || level > 4) return Fail(kExp, "Unsupported subformat");
  std::vector<uint8_t> out;
  DlsWriter writer(*item.collection, level, request, Settings().features);
  if (!writer.Build(item, out)) return false;
  for (std::size_t done = 0; done < out.size();) {
    const std::size_t n = std::min<std::size_t>(out.size() - done, std::size_t{1} << 24);
    if (!file.Write(out.data() + done, n)) return Fail(kExp, "Writing to file failed");
    done += n;
  }
  return true;
}

// ==== GigaStudio ====

constexpr const char* kGigExp = "gig_Exp";

// One model region as the gig writer sees it.
struct GigSource {
  ResolvedRegion resolved;
  int cue = -1;
  bool release = false;
  int alternate = -1;  // alternate group 0-15, or -1
};

// A dimension of a gig region as written: type, bits and zones.
struct GigDim {
  uint8_t type, bits, zones;
};

int BitsFor(int zones) {
  int bits = 0;
  while ((1 << bits) < zones) ++bits;
  return bits;
}

class GigWriter {
 public:
  GigWriter(Collection& c, bool version3, bool compressed) : c_(c), v3_(version3), compressed_(compressed) {}
  bool Build(Item& item, std::vector<uint8_t>& out);

 private:
  int Cue(Waveform& wave) {
    const auto it = cueOf_.find(wave.id);
    if (it != cueOf_.end()) return it->second;
    const int cue = static_cast<int>(pool_.size());
    pool_.push_back(&wave);
    cueOf_[wave.id] = cue;
    return cue;
  }
  void AddInstrument(Instrument& instrument, Bytes& lins);
  void AddRegion(const std::vector<const GigSource*>& sources, int loKey, int hiKey, Bytes& b);
  void PutDimensionRegion(const GigSource* source, int velocityZoneHi, int velocitySlot, Bytes& b);
  bool AddWave(Waveform& wave, Bytes& b, uint32_t& crc);

  Collection& c_;
  bool v3_;
  bool compressed_;
  std::vector<Waveform*> pool_;
  std::map<ItemId, int> cueOf_;
  std::string notes_;
};

Wsmp GigWsmp(const ResolvedRegion& r) {
  Wsmp w;
  w.unity = r.pitch.rootKey;
  w.fine = r.pitch.waveFineTune + static_cast<int>(std::lround(r.pitch.masterTune * 100.0));
  w.gainDb = r.amplitude.waveVolume + r.amplitude.masterVolume;
  if (r.wave) SetLoop(w, r.loop.type, r.loop.release, r.loop.start, r.loop.end, r.wave->length);
  return w;
}

void GigWriter::PutDimensionRegion(const GigSource* source, int velocityZoneHi, int velocitySlot, Bytes& b) {
  const std::size_t ewl = b.BeginList("3ewl");
  static const Articulation kDefaults;
  uint8_t limits[8] = {};
  if (velocitySlot >= 0) limits[velocitySlot] = static_cast<uint8_t>(velocityZoneHi);
  if (source) {
    PutWsmp(b, GigWsmp(source->resolved));
    const std::vector<uint8_t> ewa = gig::WriteArticulation(
        source->resolved.art, static_cast<uint32_t>(std::max(0, source->resolved.startOffset)), v3_,
        velocitySlot >= 0 ? velocityZoneHi : 0, limits);
    const std::size_t at = b.Begin("3ewa");
    b.Raw(ewa.data(), ewa.size());
    b.End(at);
  } else {
    PutWsmp(b, Wsmp{});
    const std::vector<uint8_t> ewa = gig::WriteArticulation(kDefaults, 0, v3_, velocitySlot >= 0 ? velocityZoneHi : 0, limits);
    const std::size_t at = b.Begin("3ewa");
    b.Raw(ewa.data(), ewa.size());
    b.End(at);
  }
  b.End(ewl);
}

// One gig region over [loKey, hiKey] from the model regions that cover it:
// their velocity ranges cut into velocity zones, release regions into the
// release-trigger dimension, alternate groups into round robin, and what
// still overlaps into layers.
void GigWriter::AddRegion(const std::vector<const GigSource*>& sources, int loKey, int hiKey, Bytes& b) {
  std::set<int> velCuts = {0, 128};
  std::set<int> groups;
  bool release = false;
  for (const GigSource* s : sources) {
    velCuts.insert(std::min(s->resolved.trigger.loVel, s->resolved.trigger.hiVel));
    velCuts.insert(std::max(s->resolved.trigger.loVel, s->resolved.trigger.hiVel) + 1);
    release |= s->release;
    if (s->alternate >= 0) groups.insert(s->alternate);
  }
  std::vector<int> velLo(velCuts.begin(), velCuts.end());
  velLo.erase(std::remove_if(velLo.begin(), velLo.end(), [](int v) { return v > 127; }), velLo.end());
  const std::vector<int> group(groups.begin(), groups.end());
  int V = static_cast<int>(velLo.size()), R = release ? 2 : 1, G = std::max<int>(1, static_cast<int>(group.size()));
  auto velHi = [&](int v) { return v + 1 < static_cast<int>(velLo.size()) ? velLo[v + 1] - 1 : 127; };
  auto matches = [&](int v, int r, int g) {
    std::vector<const GigSource*> m;
    for (const GigSource* s : sources) {
      const TriggerRecord& t = s->resolved.trigger;
      if (std::min(t.loVel, t.hiVel) > velLo[v] || std::max(t.loVel, t.hiVel) < velHi(v)) continue;
      if (s->release != (r == 1)) continue;
      if (s->alternate >= 0 && (group.empty() || s->alternate != group[g])) continue;
      m.push_back(s);
    }
    return m;
  };
  int L = 1;
  for (int v = 0; v < V; ++v)
    for (int r = 0; r < R; ++r)
      for (int g = 0; g < G; ++g) L = std::max<int>(L, static_cast<int>(matches(v, r, g).size()));

  // The dimension bits the version allows: layers give way first, then
  // round robin, then velocity zones.
  const int maxBits = v3_ ? 8 : 5;
  auto total = [&] { return BitsFor(L) + BitsFor(V) + BitsFor(R) + BitsFor(G); };
  bool cut = false;
  while (total() > maxBits) {
    cut = true;
    if (L > 1) L = 1 << (BitsFor(L) - 1);
    else if (G > 1) G = 1 << (BitsFor(G) - 1);
    else V = 1 << (BitsFor(V) - 1);
  }
  if (cut) {
    char text[160];
    std::snprintf(text, sizeof text, "keys %d-%d keep %d layers, %d alternate groups and %d velocity zones", loKey,
                  hiKey, L, G, V);
    notes_ += (notes_.empty() ? "" : "; ") + std::string(text);
  }
  std::vector<GigDim> dims;
  int velocitySlot = -1;
  if (V > 1) {
    velocitySlot = static_cast<int>(dims.size());
    dims.push_back({gig::kDimVelocity, static_cast<uint8_t>(BitsFor(V)), static_cast<uint8_t>(V)});
  }
  if (R > 1) dims.push_back({gig::kDimReleaseTrigger, 1, 2});
  if (G > 1) dims.push_back({gig::kDimRoundRobin, static_cast<uint8_t>(BitsFor(G)), static_cast<uint8_t>(G)});
  if (L > 1) dims.push_back({gig::kDimLayer, static_cast<uint8_t>(BitsFor(L)), static_cast<uint8_t>(L)});
  const int bits = total();
  const int count = 1 << bits;

  // Each dimension region's source, by its zones.
  std::vector<const GigSource*> chosen(static_cast<std::size_t>(count), nullptr);
  std::vector<int> zoneHi(static_cast<std::size_t>(count), 127);
  for (int i = 0; i < count; ++i) {
    int zone[4] = {0, 0, 0, 0}, pos = 0;
    for (std::size_t k = 0; k < dims.size(); ++k) {
      zone[k] = std::min((i >> pos) & ((1 << dims[k].bits) - 1), dims[k].zones - 1);
      pos += dims[k].bits;
    }
    int v = 0, r = 0, g = 0, l = 0;
    for (std::size_t k = 0; k < dims.size(); ++k) {
      if (dims[k].type == gig::kDimVelocity) v = zone[k];
      else if (dims[k].type == gig::kDimReleaseTrigger) r = zone[k];
      else if (dims[k].type == gig::kDimRoundRobin) g = zone[k];
      else l = zone[k];
    }
    const std::vector<const GigSource*> m = matches(v, r, g);
    chosen[i] = l < static_cast<int>(m.size()) ? m[l] : nullptr;
    zoneHi[i] = V > 1 ? velHi(v) : 127;
  }

  const GigSource* first = nullptr;
  for (const GigSource* s : chosen)
    if (s && !first) first = s;
  const std::size_t rgn = b.BeginList("rgn ");
  {
    const std::size_t at = b.Begin("rgnh");
    b.U16(static_cast<uint32_t>(loKey));
    b.U16(static_cast<uint32_t>(hiKey));
    b.U16(0);
    b.U16(127);
    const TriggerRecord* t = first ? &first->resolved.trigger : nullptr;
    b.U16(t && t->noteExclusion == 1 ? 1 : 0);
    b.U16(t ? t->exclusionGroup : 0);
    b.U16(0);
    b.End(at);
  }
  PutWsmp(b, first ? GigWsmp(first->resolved) : Wsmp{});
  {
    const std::size_t at = b.Begin("wlnk");
    const bool stereo = first && first->resolved.wave && first->resolved.wave->channels == 2;
    b.U16(stereo ? 0x0002 : 0);
    b.U16(0);
    b.U32(stereo ? 3 : 1);
    b.U32(first ? static_cast<uint32_t>(first->cue) : 0);
    b.End(at);
  }
  {
    const std::size_t at = b.Begin("3lnk");
    b.U32(static_cast<uint32_t>(count));
    const std::size_t slots = v3_ ? 8 : 5;
    int pos = 0;
    for (std::size_t k = 0; k < slots; ++k) {
      if (k < dims.size()) {
        const GigDim& d = dims[k];
        const uint8_t def[8] = {d.type, d.bits, static_cast<uint8_t>(pos),
                                static_cast<uint8_t>((1 << (pos + d.bits)) - (1 << pos)), d.zones, 0, 0, 0};
        b.Raw(def, sizeof def);
        pos += d.bits;
      } else {
        const uint8_t none[8] = {};
        b.Raw(none, sizeof none);
      }
    }
    const int entries = v3_ ? 256 : 32;
    for (int i = 0; i < entries; ++i) b.U32(i < count && chosen[i] ? static_cast<uint32_t>(chosen[i]->cue) : 0xFFFFFFFFu);
    b.End(at);
  }
  const std::size_t prg = b.BeginList("3prg");
  for (int i = 0; i < count; ++i) PutDimensionRegion(chosen[i], zoneHi[i], velocitySlot, b);
  b.End(prg);
  b.End(rgn);
}

void GigWriter::AddInstrument(Instrument& instrument, Bytes& lins) {
  std::vector<GigSource> sources;
  for (ItemId layerId : instrument.children) {
    Layer* layer = c_.FindAs<Layer>(layerId);
    if (!layer) continue;
    for (ItemId id : layer->children) {
      Region* region = c_.FindAs<Region>(id);
      Waveform* wave = region ? RegionWaveform(*region) : nullptr;
      if (!wave) continue;
      GigSource s;
      s.resolved = ResolveRegion(*region);
      s.cue = Cue(*wave);
      const int trigger = s.resolved.trigger.triggerType;
      s.release = trigger == 1;
      s.alternate = trigger >= 2 && trigger <= 17 ? trigger - 2 : -1;
      sources.push_back(std::move(s));
    }
  }
  // Key ranges that partly overlap are cut at the union of their edges.
  std::set<int> cuts;
  for (const GigSource& s : sources) {
    cuts.insert(std::min(s.resolved.trigger.loKey, s.resolved.trigger.hiKey));
    cuts.insert(std::max(s.resolved.trigger.loKey, s.resolved.trigger.hiKey) + 1);
  }
  const std::vector<int> edges(cuts.begin(), cuts.end());
  std::vector<uint8_t> regionsBody;
  Bytes rb(regionsBody);
  uint32_t regionCount = 0;
  for (std::size_t e = 0; e + 1 < edges.size(); ++e) {
    const int lo = edges[e], hi = edges[e + 1] - 1;
    std::vector<const GigSource*> covering;
    for (const GigSource& s : sources) {
      const TriggerRecord& t = s.resolved.trigger;
      if (std::min(t.loKey, t.hiKey) <= lo && std::max(t.loKey, t.hiKey) >= hi) covering.push_back(&s);
    }
    if (covering.empty()) continue;
    AddRegion(covering, lo, hi, rb);
    ++regionCount;
  }

  const bool drum = LocationIsDrum(instrument.location);
  const std::size_t ins = lins.BeginList("ins ");
  {
    const std::size_t info = lins.BeginList("INFO");
    lins.Text("INAM", instrument.Name());
    if (instrument.comment[0]) lins.Text("ICMT", instrument.comment);
    lins.End(info);
  }
  {
    const std::size_t at = lins.Begin("insh");
    lins.U32(regionCount);
    uint32_t bank = (LocationMajorBank(instrument.location) << 8) | LocationMinorBank(instrument.location);
    if (drum) bank |= 0x80000000u;
    lins.U32(bank);
    lins.U32(LocationProgram(instrument.location));
    lins.End(at);
  }
  {
    const std::size_t at = lins.Begin("LIST");
    lins.Id("lrgn");
    lins.Raw(regionsBody.data(), regionsBody.size());
    lins.End(at);
  }
  lins.End(ins);
}

// A pool wave: fmt, INFO, data (PCM or block-coded), smpl with the loop,
// the group index, and the extension on coded waves. `crc` gets the CRC of
// the samples as PCM.
bool GigWriter::AddWave(Waveform& wave, Bytes& b, uint32_t& crc) {
  const int channels = wave.channels == 2 ? 2 : 1;
  const bool wide = v3_ && wave.bits > 16;
  const std::size_t count = static_cast<std::size_t>(wave.SampleCount());
  std::vector<uint8_t> pcm;
  std::vector<uint8_t> coded;
  if (wide) {
    const float* f = count ? SamplesFloat(wave) : nullptr;
    if (count && !f) return false;
    std::vector<int32_t> values(count);
    pcm.resize(count * 3);
    for (std::size_t i = 0; i < count; ++i) {
      const int32_t v = static_cast<int32_t>(std::clamp(std::lround(static_cast<double>(f[i]) * 8388608.0), -8388608L, 8388607L));
      values[i] = v;
      pcm[3 * i] = static_cast<uint8_t>(v);
      pcm[3 * i + 1] = static_cast<uint8_t>(v >> 8);
      pcm[3 * i + 2] = static_cast<uint8_t>(v >> 16);
    }
    if (compressed_) kvGigPackEncode24(values, channels, coded);
  } else {
    const int16_t* s = count ? Samples16(wave) : nullptr;
    if (count && !s) return false;
    pcm.resize(count * 2);
    for (std::size_t i = 0; i < count; ++i) {
      pcm[2 * i] = static_cast<uint8_t>(s[i]);
      pcm[2 * i + 1] = static_cast<uint8_t>(static_cast<uint16_t>(s[i]) >> 8);
    }
    if (compressed_) kvGigPackEncode16(std::span<const int16_t>(s, count), channels, coded);
  }
  crc = gig::Crc32(pcm.data(), pcm.size());
  const int bytes = wide ? 3 : 2;
  const std::size_t list = b.BeginList("wave");
  {
    const std::size_t at = b.Begin("fmt ");
    b.U16(1);
    b.U16(static_cast<uint32_t>(channels));
    b.U32(wave.sampleRate);
    b.U32(wave.sampleRate * static_cast<uint32_t>(channels * bytes));
    b.U16(static_cast<uint32_t>(channels * bytes));
    b.U16(static_cast<uint32_t>(bytes * 8));
    b.End(at);
  }
  {
    const std::size_t info = b.BeginList("INFO");
    b.Text("INAM", wave.Name());
    b.End(info);
  }
  {
    const std::vector<uint8_t>& data = compressed_ ? coded : pcm;
    const std::size_t at = b.Begin("data");
    b.Raw(data.data(), data.size());
    b.End(at);
  }
  {
    const std::size_t at = b.Begin("smpl");
    Wsmp loop;
    SetLoop(loop, wave.loopType, wave.loopRelease, wave.loopStart, wave.loopEnd, wave.length);
    b.U32(0);
    b.U32(0);
    b.U32(static_cast<uint32_t>(std::lround(1e9 / std::max<uint32_t>(wave.sampleRate, 1))));
    b.U32(wave.rootKey);
    b.U32(static_cast<uint32_t>(std::lround(std::clamp(wave.fineTune, int8_t{0}, int8_t{99}) * 4294967296.0 / 100.0)) );
    b.U32(0);
    b.U32(0);
    b.U32(loop.looped ? 1 : 0);
    b.U32(0);
    b.U32(0);  // loop id
    b.U32(0);  // forward
    b.U32(loop.looped ? loop.loopStart : 0);
    b.U32(loop.looped ? loop.loopStart + loop.loopLength - 1 : 0);
    b.U32(0);
    b.U32(0);
    b.End(at);
  }
  {
    const std::size_t at = b.Begin("3gix");
    b.U32(0);
    b.End(at);
  }
  if (compressed_) {
    const std::vector<uint8_t> ext = gig::WaveExtension(true, pcm.size(), wide && channels == 2);
    const std::size_t at = b.Begin("ewav");
    b.Raw(ext.data(), ext.size());
    b.End(at);
  }
  b.End(list);
  return true;
}

bool GigWriter::Build(Item& item, std::vector<uint8_t>& out) {
  const ItemType type = item.Type();
  ItemSet set(item, type == ItemType::Collection);

  std::vector<uint8_t> linsBody;
  Bytes lins(linsBody);
  lins.Id("lins");
  for (Instrument* ins : set.instruments) AddInstrument(*ins, lins);
  for (Waveform* wave : set.waveforms) Cue(*wave);

  std::vector<uint8_t> wvplBody;
  Bytes wvpl(wvplBody);
  wvpl.Id("wvpl");
  std::vector<uint32_t> offsets, crcs;
  for (Waveform* wave : pool_) {
    offsets.push_back(static_cast<uint32_t>(wvplBody.size() - 4));
    uint32_t crc = 0;
    if (!AddWave(*wave, wvpl, crc)) {
      std::snprintf(ErrorContext, sizeof ErrorContext, "%s", kGigExp);
      return false;
    }
    crcs.push_back(crc);
    if (wvplBody.size() > 0xFFFFFF00u) return Fail(kGigExp, "Too much data");
  }

  std::vector<uint8_t> infoBody;
  Bytes info(infoBody);
  info.Id("INFO");
  std::string_view name = c_.Name();
  if (type == ItemType::Instrument || name.empty()) name = item.Name();
  // The whole set of INFO texts, empty where the model has none.
  static constexpr const char* kKeys[] = {"IARL", "IART", "ICMS", "ICMT", "ICOP", "ICRD", "IENG", "IGNR", "IKEY",
                                          "IMED", "INAM", "IPRD", "ISBJ", "ISFT", "ISRC", "ISRF", "ITCH"};
  for (const char* key : kKeys) {
    std::string_view text;
    if (!std::strcmp(key, "INAM")) text = name.empty() ? std::string_view("Kelvo Studio bank") : name;
    else if (!std::strcmp(key, "ICMT")) text = c_.comment;
    else if (!std::strcmp(key, "ICOP")) text = c_.copyright;
    else if (!std::strcmp(key, "IENG")) text = c_.engineer;
    else if (!std::strcmp(key, "ISFT")) text = kProgramTitle;
    info.Text(key, text);
  }

  Bytes b(out);
  const std::size_t riff = b.Begin("RIFF");
  b.Id("DLS ");
  {
    const std::size_t at = b.Begin("LIST");
    b.Raw(infoBody.data(), infoBody.size());
    b.End(at);
  }
  {
    // minor, major, then the build date as libgig gives it
    const std::size_t at = b.Begin("vers");
    b.U16(0);
    b.U16(v3_ ? 3 : 2);
    const uint32_t date = v3_ ? 20030331u : 19980628u;
    b.U16(date & 0xFFFF);
    b.U16(date >> 16);
    b.End(at);
  }
  {
    const std::size_t at = b.Begin("colh");
    b.U32(static_cast<uint32_t>(set.instruments.size()));
    b.End(at);
  }
  auto putList = [&](const std::vector<uint8_t>& body) {
    const std::size_t at = b.Begin("LIST");
    b.Raw(body.data(), body.size());
    b.End(at);
  };
  putList(linsBody);
  {
    const std::size_t gri = b.BeginList("3gri");
    const std::size_t gnl = b.BeginList("3gnl");
    char group[64] = "Default Group";
    const std::size_t at = b.Begin("3gnm");
    b.Raw(group, sizeof group);
    b.End(at);
    b.End(gnl);
    b.End(gri);
  }
  {
    const std::size_t at = b.Begin("ptbl");
    b.U32(8);
    b.U32(static_cast<uint32_t>(offsets.size()));
    for (uint32_t o : offsets) b.U32(o);
    b.End(at);
  }
  putList(wvplBody);
  {
    const std::size_t at = b.Begin("3crc");
    for (uint32_t crc : crcs) {
      b.U32(1);
      b.U32(crc);
    }
    b.End(at);
  }
  b.End(riff);
  if (out.size() > 0xFFFFFFF0u) return Fail(kGigExp, "Too much data");
  if (!notes_.empty()) MessageBox(("Note: " + notes_).c_str(), kGigExp);
  return true;
}

}  // namespace

bool dls_Exp(Item& item, FileRef& file, ExportRequest& request) {
  return WriteBank(item, file, request.request, static_cast<int>(request.parameter));
}

bool dls_Write(Item& item, FileRef& file, uint32_t options, int level) { return WriteBank(item, file, options, level); }

bool gig_Exp(Item& item, FileRef& file, ExportRequest& request) {
  const ItemType type = item.Type();
  if (type != ItemType::Instrument && type != ItemType::Collection) {
    return Fail(kGigExp, "The file format can not save this item");
  }
  if (request.parameter > 3) return Fail(kGigExp, "Unsupported subformat");
  std::vector<uint8_t> out;
  GigWriter writer(*item.collection, request.parameter >= 2, (request.parameter & 1) != 0);
  if (!writer.Build(item, out)) return false;
  for (std::size_t done = 0; done < out.size();) {
    const std::size_t n = std::min<std::size_t>(out.size() - done, std::size_t{1} << 24);
    if (!file.Write(out.data() + done, n)) return Fail(kGigExp, "Writing to file failed");
    done += n;
  }
  return true;
}

}  // namespace kv
