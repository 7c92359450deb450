// AKAI S1000/S3000 programs both ways: a header block, then keygroups of up
// to four velocity zones that name their samples. A zone becomes a region;
// what the machine keeps per keygroup (filter, envelopes) goes on each region
// of the keygroup, where the writer finds it again.
#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/articulation.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/akai.h"
#include "formats/modules/akai_internal.h"
#include "formats/modules/module.h"
#include "formats/modules/wav.h"
#include "formats/modules/wav_cursor.h"

namespace kv {

namespace fs = std::filesystem;

namespace {

constexpr const char* kImp = "akaip_Imp";
constexpr const char* kExp = "akaip_Exp";
constexpr int kZones = 4;
constexpr int kZoneSize = 24;
constexpr int kFirstZone = 34;
constexpr int kMaxKeygroups = 99;  // what the machines hold

// ---- the 0-99 scales ----
//
// The S1000 and S3000 operator's manuals and their MIDI/disk format
// descriptions give these parameters as plain 0-99 numbers (signed -50..50
// for the modulation amounts) without units. The curves below are ours:
// monotonic, and spaced so that each step stays a different value after the
// model's rounding, so a byte read is written back unchanged.

// Envelope attack, decay and release: 0 to about 60 s, fine at the short end.
double EnvelopeTime(int v) { return 0.005 * v + 0.001 * (std::exp(v / 9.0) - 1.0); }
// LFO rate: 0.05 Hz to 20 Hz, evenly on a log scale.
double LfoRate(int v) { return 0.05 * std::pow(400.0, v / 99.0); }
// LFO delay: 0 to about 9.9 s.
double LfoDelay(int v) { return 0.002 * v + 0.001 * (std::exp(v / 10.8) - 1.0); }
// Filter 0-99 as cutoff: 20 Hz doubling every ten steps (99: about 19 kHz).
double CutoffHz(int v) { return 20.0 * std::pow(2.0, v / 10.0); }

// The common factor of velocity, key and pressure to volume, in dB per
// step: 50 steps of velocity are the model's full 96 dB. Key to volume stops
// at the model's 24 dB per octave, 12.5 steps.
constexpr double kVolumeFactor = 1.92;
// Filter modulation amounts in semitones per step.
constexpr double kFilterFactor = 0.1 * kVolumeFactor * 8.5;
constexpr double kLoudnessStep = 0.6;  // dB per loudness step
constexpr int kFullLoudness = 99;      // plays at unity
constexpr double kPanStep = 0.02;
constexpr double kKeyPanStep = 0.005;
constexpr double kPitchLfoStep = 0.01;  // semitones
constexpr double kVolumeLfoStep = 0.1;  // dB

float Stored(int row, double v) { return NormaliseForRow(Articulation::Row(row), static_cast<float>(v)); }

// The step of a scale whose stored value lies nearest `x`.
int Nearest(int row, double (*scale)(int), float x) {
  int best = 0;
  double distance = 1e30;
  for (int v = 0; v <= 99; ++v) {
    const double d = std::fabs(Stored(row, scale(v)) - x);
    if (d < distance) distance = d, best = v;
  }
  return best;
}

int Steps(double x, double step, int lo, int hi) {
  return static_cast<int>(std::clamp<long>(std::lround(x / step), lo, hi));
}

int8_t S8(uint8_t b) { return static_cast<int8_t>(b); }
int16_t S16(const uint8_t* p) { return static_cast<int16_t>(GetU16le(p)); }

// ---- the machine's defaults, for the bytes the model doesn't map ----

struct Default {
  uint8_t offset;
  uint8_t value;
};
constexpr Default kHeaderDefaults[] = {
    {17, 15}, {18, 1}, {19, 24}, {20, 127}, {22, 255}, {23, 99}, {25, 80}, {26, 20}, {29, 50},
    {33, 50}, {36, 30}, {39, 2}, {59, 1},   {62, 10},  {63, 10}, {64, 10}, {70, 1},
};
constexpr Default kKeygroupDefaults[] = {
    {0, 2}, {3, 24}, {4, 127}, {7, 99}, {8, 12}, {13, 30}, {14, 99}, {15, 45}, {21, 50}, {22, 99}, {23, 45},
    {32, 255}, {33, 255},
};
void PutDefaults(uint8_t* block, std::span<const Default> table) {
  for (const Default& d : table) block[d.offset] = d.value;
}

// ---- reading ----

// Envelope bytes (attack, decay, sustain, release) into envelope k.
void ReadEnvelope(const uint8_t* e, int k, Articulation& art) {
  art.Set(EnvRow(k, kEnvA2Time), static_cast<float>(EnvelopeTime(std::min<int>(e[0], 99))));
  art.Set(EnvRow(k, kEnvD2Time), static_cast<float>(EnvelopeTime(std::min<int>(e[1], 99))));
  art.Set(EnvRow(k, kEnvSustain), std::min<int>(e[2], 99) / 99.0f);
  art.Set(EnvRow(k, kEnvR1Rate), static_cast<float>(EnvelopeTime(std::min<int>(e[3], 99))));
}

void WriteEnvelopeBytes(const Articulation& art, int k, uint8_t* e) {
  EnvGroup g = art.ReadEnvelope(k);
  if (!IsPlainEnvelope(g)) FoldToDahdsr(g, k != kEnvV);
  e[0] = static_cast<uint8_t>(Nearest(EnvRow(k, kEnvA2Time), EnvelopeTime, g.row[kEnvA2Time]));
  // The machine has no hold: the decay ends where hold and decay did.
  e[1] = static_cast<uint8_t>(
      Nearest(EnvRow(k, kEnvD2Time), EnvelopeTime, g.row[kEnvD1Time] + g.row[kEnvD2Time]));
  e[2] = static_cast<uint8_t>(Steps(g.row[kEnvSustain], 1.0 / 99.0, 0, 99));
  e[3] = static_cast<uint8_t>(Nearest(EnvRow(k, kEnvR1Rate), EnvelopeTime, g.row[kEnvR1Rate]));
}

void ReadHeader(const uint8_t* h, Articulation& art) {
  art.Set(kRowMasterTune, static_cast<float>(S16(h + 65) / 256.0 + S8(h[21]) * 12));
  art.Set(kRowBendToPitch, h[39]);
  art.Set(kRowMasterVolume, static_cast<float>((std::min<int>(h[25], 99) - kFullLoudness) * kLoudnessStep));
  art.Set(kRowVelToVolume, static_cast<float>(S8(h[26]) * kVolumeFactor));
  art.Set(kRowKeyToVolume, static_cast<float>(S8(h[27]) * kVolumeFactor));
  art.Set(kRowAftertouchToVolume, static_cast<float>(S8(h[28]) * kVolumeFactor));
  art.Set(kRowPan, static_cast<float>(S8(h[24]) * kPanStep));
  art.Set(kRowKeyToPan, static_cast<float>(S8(h[32]) * kKeyPanStep));
  // The second LFO (29-31) moves the level, the first (33-38) the pitch.
  art.Set(LfoRow(kLfoV, kLfoFrequency), static_cast<float>(LfoRate(std::min<int>(h[29], 99))));
  art.Set(kRowVLfoToVolume, static_cast<float>(std::min<int>(h[30], 99) * kVolumeLfoStep));
  art.Set(LfoRow(kLfoV, kLfoDelay), static_cast<float>(LfoDelay(std::min<int>(h[31], 99))));
  art.Set(LfoRow(kLfoP, kLfoFrequency), static_cast<float>(LfoRate(std::min<int>(h[33], 99))));
  art.Set(kRowPLfoToPitch, static_cast<float>(std::min<int>(h[34], 99) * kPitchLfoStep));
  art.Set(LfoRow(kLfoP, kLfoDelay), static_cast<float>(LfoDelay(std::min<int>(h[35], 99))));
  art.Set(kRowModWheelToPLfoPitch, static_cast<float>(std::min<int>(h[36], 99) * kPitchLfoStep));
  art.Set(kRowAftertouchToPLfoPitch, static_cast<float>(std::min<int>(h[37], 99) * kPitchLfoStep));
  art.Set(kRowVelToPLfoPitch, static_cast<float>(std::min<int>(h[38], 99) * kPitchLfoStep));
}

// What every zone of one keygroup shares.
void ReadKeygroup(const uint8_t* k, Articulation& art) {
  art.Set(kRowFilterType, 2);
  art.Set(kRowCutoff, static_cast<float>(CutoffHz(std::min<int>(k[7], 99))));
  art.Set(kRowVelToCutoff, static_cast<float>(S8(k[9]) * kFilterFactor));
  art.Set(kRowAftertouchToCutoff, static_cast<float>(S8(k[10]) * kFilterFactor));
  art.Set(kRowFEnvToCutoff, static_cast<float>(S8(k[11]) * kFilterFactor));
  ReadEnvelope(k + 12, kEnvV, art);
  ReadEnvelope(k + 20, kEnvF, art);
}

// Regions that overlap go to separate layers: one layer holds regions that
// don't meet.
class Layers {
 public:
  explicit Layers(Instrument& instrument) : instrument_(instrument) {}
  Layer& For(int loKey, int hiKey, int loVel, int hiVel) {
    for (Level& level : levels_) {
      bool free = true;
      for (const Box& b : level.boxes)
        free = free && (hiKey < b.loKey || loKey > b.hiKey || hiVel < b.loVel || loVel > b.hiVel);
      if (free) {
        level.boxes.push_back({loKey, hiKey, loVel, hiVel});
        return *level.layer;
      }
    }
    levels_.push_back({AddLayer(instrument_), {{loKey, hiKey, loVel, hiVel}}});
    return *levels_.back().layer;
  }
  bool Empty() const { return levels_.empty(); }

 private:
  struct Box {
    int loKey, hiKey, loVel, hiVel;
  };
  struct Level {
    Layer* layer;
    std::vector<Box> boxes;
  };
  Instrument& instrument_;
  std::vector<Level> levels_;
};

}  // namespace

namespace akai {

bool ReadProgram(Collection& c, std::span<const uint8_t> bytes, const SampleLookup& lookup, const fs::path& source,
                 const char* context) {
  const uint8_t* h = bytes.data();
  const std::size_t size = bytes.size();
  if (size < 72 || h[0] != 1) return Fail(context, "Not an AKAI S1000-series or S3000-series program");
  // The first keygroup follows a header of 150 (S1000) or 192 (S3000) bytes.
  std::size_t offset = 0;
  for (std::size_t at : {kS1000Header, kS3000Header})
    if (offset == 0 && at < size && h[at] == 2) offset = at;
  if (offset == 0) return Fail(context, "Couldn't determine the keygroup offset");
  const int count = h[42];
  // Keygroups are as long as the header; a file that says otherwise shows it
  // by where the second keygroup starts, or by its length.
  std::size_t block = 0;
  if (count > 1) {
    for (std::size_t s : {offset, offset == kS1000Header ? kS3000Header : kS1000Header})
      if (block == 0 && offset + s < size && h[offset + s] == 2 && offset + s * count <= size) block = s;
    for (std::size_t s : {kS1000Header, kS3000Header})
      if (block == 0 && offset + s * count == size) block = s;
  } else {
    block = offset;
  }
  if (block == 0) return Fail(context, "Couldn't determine the keygroup size");

  auto* inst = Create<Instrument>(c);
  inst->sourcePath = source;
  const std::string name = Trimmed(akai_DecodeName({h + 3, kNameLength}));
  inst->SetName(name.empty() ? source.stem().string() : name);
  ReadHeader(h, inst->art);
  inst->location = MakeLocation(0, 0, h[15] & 0x7F, false);
  Layers layers(*inst);
  std::vector<std::string> missing;

  for (int g = 0; g < count; ++g) {
    const std::size_t at = offset + g * block;
    if (at + kS1000Header > size) break;  // a short file keeps the keygroups it has
    const uint8_t* k = h + at;
    if (k[0] != 2) break;
    const int loKey = std::min<int>(k[3], 127), hiKey = std::min<int>(k[4], 127);
    Articulation group;
    ReadKeygroup(k, group);
    const double groupTune = S16(k + 5) / 256.0;
    for (int z = 0; z < kZones; ++z) {
      const uint8_t* zone = k + kFirstZone + z * kZoneSize;
      const std::string sample = Trimmed(akai_DecodeName({zone, kNameLength}));
      if (sample.empty()) continue;
      int loVel = std::min<int>(zone[12], 127), hiVel = std::min<int>(zone[13], 127);
      if (loVel > hiVel) std::swap(loVel, hiVel);
      SampleMarkers markers;
      Waveform* wave = lookup ? lookup(sample, markers) : nullptr;
      if (!wave && std::find(missing.begin(), missing.end(), sample) == missing.end()) missing.push_back(sample);
      Layer& layer = layers.For(std::min(loKey, hiKey), std::max(loKey, hiKey), loVel, hiVel);
      Region* r = AddRegion(layer, wave ? wave->id : kNoItem,
                            MakeRange(static_cast<uint8_t>(std::min(loKey, hiKey)), static_cast<uint8_t>(std::max(loKey, hiKey))),
                            MakeRange(static_cast<uint8_t>(loVel), static_cast<uint8_t>(hiVel)), 255);
      if (!wave) r->SetName(sample);
      for (int row = 0; row < kArticulationCount; ++row)
        if (group.IsSet(row)) r->art.Set(row, group.value[row]);
      const Articulation& top = inst->art;
      r->art.Set(kRowMasterTune,
                 static_cast<float>(top.value[kRowMasterTune] + groupTune + S16(zone + 14) / 256.0));
      r->art.Set(kRowMasterVolume, static_cast<float>(top.value[kRowMasterVolume] + S8(zone[16]) * kLoudnessStep));
      r->art.Set(kRowPan, static_cast<float>(top.value[kRowPan] + S8(zone[18]) * kPanStep));
      switch (zone[19]) {  // 0: as the sample says
        case 1: r->SetParam(kRowLoopType, 1), r->SetParam(kRowLoopRelease, 0); break;
        case 2: r->SetParam(kRowLoopType, 1), r->SetParam(kRowLoopRelease, 1); break;
        case 3:
        case 4: r->SetParam(kRowLoopType, 0); break;
        default: break;
      }
      if (wave && markers.count) {
        if (markers.start > 0 && markers.start < wave->length) r->startOffset = static_cast<int32_t>(markers.start);
        const int64_t cut = int64_t{markers.end} - markers.count + 1;
        if (cut < 0 && -cut < wave->length) r->endOffset = static_cast<int32_t>(cut);
      }
    }
  }
  if (layers.Empty()) AddLayer(*inst);
  if (!missing.empty()) {
    std::string list;
    for (const std::string& m : missing) list += (list.empty() ? "\"" : ", \"") + m + "\"";
    MessageBox("Warning: sample(s) not found, their zones have no wave: " + list, "AKAI program");
  }
  InstrumentDone(c, *inst);
  return true;
}

}  // namespace akai

// ---------------------------------------------------------------- import

namespace {

// Sample files in a folder by their folded stem: the `.s`, `.s1`, `.s3` and
// `.wav` files, whatever the case of their names.
std::map<std::string, fs::path> SampleFilesIn(const fs::path& folder) {
  std::map<std::string, fs::path> out;
  std::error_code ec;
  std::vector<fs::path> paths;
  for (fs::directory_iterator it(folder.empty() ? fs::path(".") : folder, ec), end; !ec && it != end; it.increment(ec))
    paths.push_back(it->path());
  std::sort(paths.begin(), paths.end());
  for (const fs::path& p : paths) {
    const std::string ext = akai::Folded(p.extension().string());
    if (ext != ".S" && ext != ".S1" && ext != ".S3" && ext != ".WAV") continue;
    const std::string key = akai::Folded(akai::Trimmed(p.stem().string()));
    auto [it, made] = out.try_emplace(key, p);
    // An AKAI sample wins over a WAV of the same name.
    if (!made && akai::Folded(it->second.extension().string()) == ".WAV" && ext != ".WAV") it->second = p;
  }
  return out;
}

}  // namespace

bool akaip_Imp(Collection& collection, FileRef& file, uint32_t) {
  ByteCursor cur(file);
  // The header and at most 255 keygroups of the larger size.
  const std::size_t want = static_cast<std::size_t>(std::min<uint64_t>(cur.FileSize(), akai::kS3000Header * 256));
  std::vector<uint8_t> bytes(want);
  if (!cur.Seek(0) || !cur.Bytes(bytes.data(), want)) return Fail(kImp, "Reading from file failed");

  const fs::path folder = file.Path().parent_path();
  std::map<std::string, fs::path> files;
  bool listed = false;
  std::map<std::string, ItemId> loaded;
  auto lookup = [&](const std::string& name, akai::SampleMarkers& markers) -> Waveform* {
    const std::string key = akai::Folded(name);
    if (auto it = loaded.find(key); it != loaded.end()) return collection.FindAs<Waveform>(it->second);
    if (!listed) files = SampleFilesIn(folder), listed = true;
    Waveform* wave = nullptr;
    if (auto it = files.find(key); it != files.end()) {
      FileRef sample;
      if (akai::Folded(it->second.extension().string()) == ".WAV") {
        const SampleReader reader = FindSampleReader(it->second);
        const std::size_t before = collection.All<Waveform>().size();
        if (reader.read && sample.OpenRead(it->second) && reader.read(collection, sample, reader.parameter)) {
          const auto waves = collection.All<Waveform>();
          if (waves.size() > before) wave = waves.back();
        }
      } else if (sample.OpenRead(it->second)) {
        wave = akai::ReadSampleFile(collection, sample, &markers, kImp);
      }
      ClearError();
    }
    loaded[key] = wave ? wave->id : kNoItem;
    return wave;
  };
  return akai::ReadProgram(collection, bytes, lookup, file.Path(), kImp);
}

// ---------------------------------------------------------------- export

namespace {

struct Zone {
  Region* region = nullptr;
  Waveform* wave = nullptr;  // mono: the wave or one half of a stereo one
  int loKey = 0, hiKey = 127, loVel = 0, hiVel = 127;
  int pan = 0;               // forced pan steps for stereo halves
  bool forcedPan = false;
  std::string name;          // the 12-character name, as written
};

// The half of a stereo wave as a mono clone in memory.
Waveform* MonoHalf(Waveform& wave, int channel, std::vector<Waveform*>& made) {
  const int16_t* s = Samples16(wave);
  if (!s) return nullptr;
  auto* half = static_cast<Waveform*>(CloneItem(wave, *wave.collection, wave.name, false));
  if (!half) return nullptr;
  made.push_back(half);
  half->samples16.reset();
  half->samplesF.reset();
  half->readCallback = nullptr;
  half->channels = 1;
  int16_t* out = wave.length ? AllocSamples16(*half) : nullptr;
  if (wave.length && !out) return nullptr;
  for (uint32_t i = 0; i < wave.length; ++i) out[i] = s[2 * i + channel];
  return half;
}

// The name in the character code as it reads back, trailing blanks cut.
std::string CodeName(std::string_view text) {
  uint8_t codes[12];
  akai_EncodeName(text, codes);
  return akai::Trimmed(akai_DecodeName(codes));
}

class Names {
 public:
  // A name no other sample of the program has; `tail` ("-L", "-R") stays at
  // the end.
  std::string Unique(std::string_view base, std::string_view tail) {
    std::string stem = CodeName(base);
    if (stem.empty()) stem = "SAMPLE";
    for (int n = 1;; ++n) {
      const std::string counter = n == 1 ? "" : " " + std::to_string(n);
      const std::size_t room = akai::kNameLength - tail.size() - counter.size();
      const std::string name = akai::Trimmed(stem.substr(0, room)) + counter + std::string(tail);
      if (used_.insert(name).second) return name;
    }
  }

 private:
  std::set<std::string> used_;
};

Articulation Effective(const Region& r, const Layer& layer, const Instrument& inst) {
  Articulation a = r.art;
  a.Inherit(layer.art);
  a.Inherit(inst.art);
  return a;
}

void WriteHeader(const Articulation& a, uint8_t* h) {
  const int tune = std::clamp<int>(static_cast<int>(std::lround(a.value[kRowMasterTune] * 256.0)), -32768, 32767);
  h[65] = static_cast<uint8_t>(tune & 0xFF);
  h[66] = static_cast<uint8_t>((tune >> 8) & 0xFF);
  h[21] = 0;
  h[39] = static_cast<uint8_t>(Steps(a.value[kRowBendToPitch], 1.0, 0, 12));
  h[25] = static_cast<uint8_t>(kFullLoudness + Steps(a.value[kRowMasterVolume], kLoudnessStep, -kFullLoudness, 0));
  h[26] = static_cast<uint8_t>(Steps(a.value[kRowVelToVolume], kVolumeFactor, -50, 50));
  h[27] = static_cast<uint8_t>(Steps(a.value[kRowKeyToVolume], kVolumeFactor, -50, 50));
  h[28] = static_cast<uint8_t>(Steps(a.value[kRowAftertouchToVolume], kVolumeFactor, -50, 50));
  h[24] = static_cast<uint8_t>(Steps(a.value[kRowPan], kPanStep, -50, 50));
  h[32] = static_cast<uint8_t>(Steps(a.value[kRowKeyToPan], kKeyPanStep, -50, 50));
  h[29] = static_cast<uint8_t>(Nearest(LfoRow(kLfoV, kLfoFrequency), LfoRate, a.value[LfoRow(kLfoV, kLfoFrequency)]));
  h[30] = static_cast<uint8_t>(Steps(a.value[kRowVLfoToVolume], kVolumeLfoStep, 0, 99));
  h[31] = static_cast<uint8_t>(Nearest(LfoRow(kLfoV, kLfoDelay), LfoDelay, a.value[LfoRow(kLfoV, kLfoDelay)]));
  h[33] = static_cast<uint8_t>(Nearest(LfoRow(kLfoP, kLfoFrequency), LfoRate, a.value[LfoRow(kLfoP, kLfoFrequency)]));
  h[34] = static_cast<uint8_t>(Steps(a.value[kRowPLfoToPitch], kPitchLfoStep, 0, 99));
  h[35] = static_cast<uint8_t>(Nearest(LfoRow(kLfoP, kLfoDelay), LfoDelay, a.value[LfoRow(kLfoP, kLfoDelay)]));
  h[36] = static_cast<uint8_t>(Steps(a.value[kRowModWheelToPLfoPitch], kPitchLfoStep, 0, 99));
  h[37] = static_cast<uint8_t>(Steps(a.value[kRowAftertouchToPLfoPitch], kPitchLfoStep, 0, 99));
  h[38] = static_cast<uint8_t>(Steps(a.value[kRowVelToPLfoPitch], kPitchLfoStep, 0, 99));
}

void WriteKeygroup(const Articulation& a, uint8_t* k) {
  const bool filtered = ValueAsInt(a.value[kRowFilterType]) != 0;
  k[7] = static_cast<uint8_t>(filtered ? Nearest(kRowCutoff, CutoffHz, a.value[kRowCutoff]) : 99);
  k[9] = static_cast<uint8_t>(Steps(a.value[kRowVelToCutoff], kFilterFactor, -50, 50));
  k[10] = static_cast<uint8_t>(Steps(a.value[kRowAftertouchToCutoff], kFilterFactor, -50, 50));
  k[11] = static_cast<uint8_t>(Steps(a.value[kRowFEnvToCutoff], kFilterFactor, -50, 50));
  WriteEnvelopeBytes(a, kEnvV, k + 12);
  WriteEnvelopeBytes(a, kEnvF, k + 20);
}

bool WriteProgram(Instrument& inst, FileRef& file, uint32_t form) {
  const std::size_t block = form == akai::kS3000 ? akai::kS3000Header : akai::kS1000Header;
  std::vector<Waveform*> made;  // stereo halves, removed at the end
  struct Release {
    std::vector<Waveform*>& made;
    ~Release() {
      for (Waveform* w : made) DeleteItem(w);
    }
  } release{made};

  // Zones in layer order, then grouped by key range.
  std::vector<Zone> zones;
  std::map<ItemId, std::pair<Waveform*, Waveform*>> halves;
  int skipped = 0;
  for (ItemId lid : inst.children) {
    auto* layer = inst.collection->FindAs<Layer>(lid);
    if (!layer) continue;
    for (ItemId rid : layer->children) {
      auto* r = inst.collection->FindAs<Region>(rid);
      if (!r) continue;
      Waveform* wave = RegionWaveform(*r);
      if (!wave || wave->length == 0 || wave->channels < 1 || wave->channels > 2) {
        ++skipped;
        continue;
      }
      Zone z;
      z.region = r;
      z.loKey = std::max(r->trigger.loKey, layer->trigger.loKey);
      z.hiKey = std::min(r->trigger.hiKey, layer->trigger.hiKey);
      z.loVel = std::max(r->trigger.loVel, layer->trigger.loVel);
      z.hiVel = std::min(r->trigger.hiVel, layer->trigger.hiVel);
      if (z.loKey > z.hiKey || z.loVel > z.hiVel) continue;  // plays nowhere
      if (wave->channels == 1) {
        z.wave = wave;
        zones.push_back(z);
        continue;
      }
      auto& pair = halves[wave->id];
      if (!pair.first) {
        pair.first = MonoHalf(*wave, 0, made);
        pair.second = pair.first ? MonoHalf(*wave, 1, made) : nullptr;
        if (!pair.second) return Fail(kExp, "Could not read the wave data");
      }
      z.forcedPan = true;
      z.wave = pair.first;
      z.pan = -50;
      zones.push_back(z);
      z.wave = pair.second;
      z.pan = 50;
      zones.push_back(z);
    }
  }
  if (zones.empty()) return Fail(kExp, "The instrument has no region with a wave to save");
  std::stable_sort(zones.begin(), zones.end(), [](const Zone& a, const Zone& b) {
    return std::make_pair(a.loKey, a.hiKey) < std::make_pair(b.loKey, b.hiKey);
  });
  std::vector<std::vector<Zone*>> groups;
  for (Zone& z : zones) {
    std::vector<Zone*>* last = groups.empty() ? nullptr : &groups.back();
    if (!last || last->size() == kZones || last->front()->loKey != z.loKey || last->front()->hiKey != z.hiKey)
      groups.emplace_back();
    groups.back().push_back(&z);
  }
  if (groups.size() > kMaxKeygroups)
    return Fail(kExp, "Too many keygroups for an AKAI program (%zu, at most %d)", groups.size(), kMaxKeygroups);

  // Every wave in memory first: a sample file about to be replaced may be
  // where a wave reads from.
  for (Zone& z : zones)
    if (!z.wave->EnsureData()) return Fail(kExp, "Could not read the wave data");

  // Names and sample files: one per wave, beside the program.
  akai::SideFiles side;
  Names names;
  std::map<ItemId, std::string> nameOf;
  const fs::path folder = file.Path().parent_path();
  for (Zone& z : zones) {
    if (auto it = nameOf.find(z.wave->id); it != nameOf.end()) {
      z.name = it->second;
      continue;
    }
    const char* tail = !z.forcedPan ? "" : z.pan < 0 ? "-L" : "-R";
    z.name = names.Unique(tail[0] ? std::string_view(z.wave->Name()).substr(0, akai::kNameLength - 2)
                                  : z.wave->Name(),
                          tail);
    nameOf[z.wave->id] = z.name;
    uint8_t codes[12];
    akai_EncodeName(z.name, codes);
    const Region& r = *z.region;
    const uint32_t start = r.startOffset > 0 ? static_cast<uint32_t>(r.startOffset) : 0;
    const int64_t end = r.endOffset < 0 ? int64_t{z.wave->length} - 1 + r.endOffset : -1;
    if (z.wave->sampleRate <= 0xFFFF) {
      const fs::path path = folder / (z.name + ".S");
      if (!side.Claim(path)) return Fail(kExp, "Could not create file");
      if (!akai::WriteSampleFile(*z.wave, path, form, codes, start, end, kExp)) return false;
    } else {
      // The header has 16 bits for the rate.
      const fs::path path = folder / (z.name + ".wav");
      if (!side.Claim(path)) return Fail(kExp, "Could not create file");
      if (!WriteWaveFile(*z.wave, path, (1u << kPcm16) | kCapMono, kWavCwdt)) return false;
    }
  }

  std::vector<uint8_t> out(block * (1 + groups.size()), 0);
  uint8_t* h = out.data();
  PutDefaults(h, kHeaderDefaults);
  h[0] = 1;
  h[15] = static_cast<uint8_t>(LocationProgram(inst.location));
  uint8_t progName[12];
  akai_EncodeName(akai::Folded(inst.Name()), progName);
  std::memcpy(h + 3, progName, 12);
  Articulation top = inst.art;
  top.Inherit(Articulation());
  WriteHeader(top, h);
  h[42] = static_cast<uint8_t>(groups.size());
  int lowest = 127, highest = 0;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    uint8_t* k = h + block * (g + 1);
    PutDefaults(k, kKeygroupDefaults);
    const Zone& first = *groups[g].front();
    k[3] = static_cast<uint8_t>(first.loKey);
    k[4] = static_cast<uint8_t>(first.hiKey);
    lowest = std::min(lowest, first.loKey);
    highest = std::max(highest, first.hiKey);
    const Layer* firstLayer = LayerOf(*first.region);
    WriteKeygroup(Effective(*first.region, *firstLayer, inst), k);
    k[31] = static_cast<uint8_t>(groups[g].size());
    for (int z = 0; z < kZones; ++z) {
      uint8_t* zone = k + kFirstZone + z * kZoneSize;
      std::fill(zone, zone + 12, uint8_t{10});
      std::fill(zone + 20, zone + 24, uint8_t{255});
      if (static_cast<std::size_t>(z) >= groups[g].size()) continue;
      const Zone& zn = *groups[g][z];
      const Articulation a = Effective(*zn.region, *LayerOf(*zn.region), inst);
      uint8_t codes[12];
      akai_EncodeName(zn.name, codes);
      std::memcpy(zone, codes, 12);
      zone[12] = static_cast<uint8_t>(zn.loVel);
      zone[13] = static_cast<uint8_t>(zn.hiVel);
      // A root key of the region's own is a transposition here.
      double tune = a.value[kRowMasterTune] - top.value[kRowMasterTune];
      if (zn.region->overrideMask & kOverrideRootKey) tune += int{zn.wave->rootKey} - int{zn.region->rootKey};
      const int t = std::clamp<int>(static_cast<int>(std::lround(tune * 256.0)), -32768, 32767);
      zone[14] = static_cast<uint8_t>(t & 0xFF);
      zone[15] = static_cast<uint8_t>((t >> 8) & 0xFF);
      zone[16] = static_cast<uint8_t>(
          Steps(a.value[kRowMasterVolume] - top.value[kRowMasterVolume], kLoudnessStep, -50, 50));
      zone[18] = static_cast<uint8_t>(zn.forcedPan ? zn.pan : Steps(a.value[kRowPan] - top.value[kRowPan], kPanStep, -50, 50));
      if (zn.region->overrideMask & kOverrideLoopType)
        zone[19] = zn.region->loopType == 0 ? 3 : zn.region->loopRelease ? 2 : 1;
    }
  }
  h[19] = static_cast<uint8_t>(lowest);
  h[20] = static_cast<uint8_t>(highest);
  if (!file.Write(out.data(), out.size())) return Fail(kExp, "Writing to file failed");
  if (skipped)
    MessageBox("Warning: " + std::to_string(skipped) + " region(s) without a wave were not saved", "AKAI program");
  side.Commit();
  return true;
}

}  // namespace

bool akaip_Exp(Item& item, FileRef& file, ExportRequest& request) {
  if (item.Type() != ItemType::Instrument && item.Type() != ItemType::Collection &&
      item.Type() != ItemType::Layer && item.Type() != ItemType::Region)
    return Fail(kExp, "The file format can not save this item");
  ItemSet set(item, false);
  if (set.instruments.empty()) return Fail(kExp, "The file format can not save this item");
  return WriteProgram(*set.instruments.front(), file, request.parameter == akai::kS3000 ? akai::kS3000 : akai::kS1000);
}

}  // namespace kv
