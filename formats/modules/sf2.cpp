// SoundFont module: SoundFont 2 and 3 banks, SoundFont 1 (sbk), sfArk archives
// and MIDI Converter Studio packs.
#include "formats/modules/sf2.h"

#include "formats/detect_bytes.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "codecs/ogg.h"
#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/instrument_ops.h"
#include "core/items.h"
#include "core/param_catalogue.h"
#include "core/params.h"
#include "core/samplecodec.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "core/fixup.h"
#include "formats/modules/sf2_format.h"

namespace kv {

using namespace detect;

namespace {

// The ifil major of the INFO list, or -1 when it isn't in the buffer. Walks
// the top-level chunks after the RIFF head and the chunks of LIST INFO.
int IfilMajor(const uint8_t* data, uint32_t size) {
  uint64_t pos = 12;
  for (int chunk = 0; chunk < 8 && Has(size, pos, 12); ++chunk) {
    const uint64_t body = U32le(data + pos + 4);
    if (FourCC(data, size, pos, "LIST") && FourCC(data, size, pos + 8, "INFO")) {
      const uint64_t end = pos + 8 + body;
      uint64_t sub = pos + 12;
      for (int n = 0; n < 32 && sub + 8 <= end && Has(size, sub, 8); ++n) {
        const uint64_t subBody = U32le(data + sub + 4);
        if (FourCC(data, size, sub, "ifil")) return subBody >= 4 && Has(size, sub + 8, 2) ? U16le(data + sub + 8) : -1;
        sub += 8 + subBody + (subBody & 1);
      }
      return -1;
    }
    pos += 8 + body + (body & 1);
  }
  return -1;
}

}  // namespace

int sf2_Detect(const uint8_t* data, uint32_t parameter, uint32_t size, uint64_t fileSize) {
  if (fileSize < 12 || !FourCC(data, size, 0, "RIFF") || !FourCC(data, size, 8, "sfbk")) return 0;
  const int wanted = parameter == 0 ? 2 : static_cast<int>(parameter);
  const int major = IfilMajor(data, size);
  if (major < 0) return 4;  // a bank, version unseen
  if (major == wanted) return 6;
  // The SoundFont 2 reader also takes compressed (major 3) banks and back.
  if ((wanted == 2 && major == 3) || (wanted == 3 && major == 2)) return 4;
  return 0;
}

int sf2_SfArkDetect(const uint8_t* data, uint32_t, uint32_t size, uint64_t) {
  // The marker sits at byte 26 of a 42-byte header; the reader searches the
  // first 128 KiB for it, of which the buffer shows the first 32 KiB.
  int64_t hit = Find(data, size, 26, "sfArk", 5);
  while (hit >= 0) {
    const uint64_t header = static_cast<uint64_t>(hit) - 26;
    if (Has(size, header, 42)) return header == 0 ? 6 : 4;
    hit = Find(data, size, static_cast<uint32_t>(hit) + 1, "sfArk", 5);
  }
  return 0;
}

// The pack layout is not known beyond its name: nothing to check, the
// extension decides.
int sf2_PackDetect(const uint8_t*, uint32_t, uint32_t size, uint64_t) { return size > 0 ? 2 : 0; }

}  // namespace kv

namespace kv {

// ==== Reading ====

namespace {

using namespace sf2;

struct ChunkRef {
  uint64_t offset = 0;
  uint64_t size = 0;
  bool present = false;
};

enum PdtaChunk { kPhdr, kPbag, kPmod, kPgen, kInst, kIbag, kImod, kIgen, kShdr, kPdtaCount };
constexpr const char kPdtaIds[kPdtaCount][5] = {"phdr", "pbag", "pmod", "pgen", "inst", "ibag", "imod", "igen", "shdr"};

struct BankLayout {
  uint64_t fileSize = 0;
  int major = -1;
  int minor = 0;
  std::string name, engineer, copyright, comment;
  ChunkRef smpl, sm24;
  ChunkRef pdta[kPdtaCount];
};

bool ReadAt(FileRef& file, uint64_t offset, void* out, std::size_t size) {
  return file.Seek(offset) && file.ReadExact(out, size);
}

uint32_t Le32At(const uint8_t* p) { return p[0] | (p[1] << 8) | (p[2] << 16) | (uint32_t{p[3]} << 24); }

std::string ReadInfoText(FileRef& file, const ChunkRef& chunk, std::size_t limit) {
  std::string text(static_cast<std::size_t>(std::min<uint64_t>(chunk.size, limit)), '\0');
  if (text.empty() || !ReadAt(file, chunk.offset, text.data(), text.size())) return {};
  return DecodeText(text.data(), text.size(), TextEncoding::Foreign);
}

// Whether a chunk header that fits before `end` starts at `pos`: an id of
// printable characters and a size within the enclosing chunk.
bool HeaderAt(FileRef& file, uint64_t pos, uint64_t end) {
  uint8_t head[8];
  if (pos > end || end - pos < 8 || !ReadAt(file, pos, head, 8)) return false;
  for (int i = 0; i < 4; ++i)
    if (head[i] < 0x20 || head[i] > 0x7E) return false;
  return Le32At(head + 4) <= end - pos - 8;
}

// Any LIST is entered whatever its type; chunk sizes are cut to what the
// enclosing chunk (and so the file) holds.
void Walk(FileRef& file, BankLayout& bank, uint64_t start, uint64_t end, int depth) {
  uint64_t pos = start;
  while (pos + 8 <= end) {
    uint8_t head[12];
    if (!ReadAt(file, pos, head, 8)) return;
    const uint64_t body = pos + 8;
    const uint64_t size = std::min<uint64_t>(Le32At(head + 4), end - body);
    const ChunkRef ref{body, size, true};
    auto is = [&](const char* id) { return std::memcmp(head, id, 4) == 0; };
    if (is("LIST")) {
      if (size >= 4 && depth < 8 && ReadAt(file, body, head + 8, 4)) Walk(file, bank, body + 4, body + size, depth + 1);
    } else if (is("ifil")) {
      uint8_t v[4];
      if (size >= 4 && ReadAt(file, body, v, 4)) {
        bank.major = v[0] | (v[1] << 8);
        bank.minor = v[2] | (v[3] << 8);
      }
    } else if (is("INAM")) {
      bank.name = ReadInfoText(file, ref, 256);
    } else if (is("IENG")) {
      bank.engineer = ReadInfoText(file, ref, 256);
    } else if (is("ICOP")) {
      bank.copyright = ReadInfoText(file, ref, 256);
    } else if (is("ICMT")) {
      bank.comment = ReadInfoText(file, ref, 65536);
    } else if (is("smpl")) {
      bank.smpl = ref;
    } else if (is("sm24")) {
      // Taken for compressed banks, or before the 16-bit data, or when it
      // covers every sample.
      if (bank.major == 3 || !bank.smpl.present || size >= bank.smpl.size / 2) bank.sm24 = ref;
    } else {
      for (int i = 0; i < kPdtaCount; ++i)
        if (is(kPdtaIds[i])) bank.pdta[i] = ref;
    }
    pos = body + size;
    // Some compressed banks leave out the pad byte after an odd-sized chunk
    // (the Ogg data): the next header then starts right after the body.
    if ((size & 1) && (HeaderAt(file, pos + 1, end) || !HeaderAt(file, pos, end))) ++pos;
  }
}

template <typename T>
std::vector<T> ReadRecords(FileRef& file, const ChunkRef& chunk) {
  // The size was cut to the file's, so this never allocates beyond it.
  const std::size_t count = static_cast<std::size_t>(chunk.size / sizeof(T));
  std::vector<T> out(count);
  if (count && !ReadAt(file, chunk.offset, out.data(), count * sizeof(T))) out.clear();
  return out;
}

using Records = PdtaRecords;

// One zone of a preset or an instrument: its values and what it refers to.
struct Zone {
  ZoneValues values;
  int link = -1;  // instrument (preset zone) or sample (instrument zone)
  uint16_t keyRange = kNoRange;
  uint16_t velRange = kNoRange;
};

// The zones of bag range [first, end): a first zone without the terminal
// generator (`linkGen`) is the global one; later ones without it are dropped.
void ReadZones(const std::vector<BagRec>& bags, const std::vector<GenRec>& gens, const std::vector<ModRec>& mods,
               std::size_t first, std::size_t end, int linkGen, bool preset, Zone& global, bool& hasGlobal,
               std::vector<Zone>& zones) {
  hasGlobal = false;
  zones.clear();
  end = std::min(end, bags.size() ? bags.size() - 1 : 0);
  for (std::size_t b = first; b < end; ++b) {
    Zone z;
    const std::size_t g0 = bags[b].genIndex.get(), g1 = std::min<std::size_t>(bags[b + 1].genIndex.get(), gens.size());
    for (std::size_t g = g0; g < g1; ++g) {
      const int oper = gens[g].oper.get();
      if (oper == linkGen) {
        z.link = gens[g].amount.get();
        break;  // the terminal generator ends the zone
      }
      if (oper >= kGenCount) continue;
      if (preset && InstrumentOnlyGen(oper)) continue;
      if (oper == kKeyRange) {
        z.keyRange = gens[g].amount.get();
      } else if (oper == kVelRange) {
        z.velRange = gens[g].amount.get();
      } else if (oper == kInstrument || oper == kSampleId) {
        continue;
      } else {
        z.values.SetGen(oper, gens[g].amount.sget());
      }
    }
    const std::size_t m0 = bags[b].modIndex.get(), m1 = std::min<std::size_t>(bags[b + 1].modIndex.get(), mods.size());
    for (std::size_t m = m0; m < m1; ++m) {
      int amount = mods[m].amount.sget();
      const int slot = FindSlot(mods[m].src.get(), mods[m].dest.get(), mods[m].amountSrc.get(), amount);
      if (slot >= 0) z.values.SetSlot(slot, amount);
    }
    if (z.link < 0) {
      if (b == first) {
        global = z;
        hasGlobal = true;
      }
      continue;
    }
    zones.push_back(z);
  }
}

// Instrument values (local over global over default) plus preset offsets
// (local over global).
ZoneValues SumZones(const ZoneValues* instGlobal, const ZoneValues* instLocal, const ZoneValues* presetGlobal,
                    const ZoneValues* presetLocal) {
  // Zones set few of their generators and slots: walk the set bits only.
  ZoneValues sum = DefaultZone();
  auto each = [](uint64_t bits, int base, auto&& fn) {
    for (; bits; bits &= bits - 1) fn(base + __builtin_ctzll(bits));
  };
  auto genBits = [](const ZoneValues* z) { return z ? z->genSet : 0; };
  auto slotBits = [](const ZoneValues* z, int w) { return z ? z->slotSet[w] : 0; };
  const uint64_t il = genBits(instLocal), pl = genBits(presetLocal);
  each(il, 0, [&](int n) { sum.g[n] = instLocal->g[n]; });
  each(genBits(instGlobal) & ~il, 0, [&](int n) { sum.g[n] = instGlobal->g[n]; });
  each(pl, 0, [&](int n) { sum.g[n] += presetLocal->g[n]; });
  each(genBits(presetGlobal) & ~pl, 0, [&](int n) { sum.g[n] += presetGlobal->g[n]; });
  for (int w = 0; w < 2; ++w) {
    const uint64_t sil = slotBits(instLocal, w), spl = slotBits(presetLocal, w);
    each(sil, 64 * w, [&](int i) { sum.m[i] = instLocal->m[i]; });
    each(slotBits(instGlobal, w) & ~sil, 64 * w, [&](int i) { sum.m[i] = instGlobal->m[i]; });
    each(spl, 64 * w, [&](int i) { sum.m[i] += presetLocal->m[i]; });
    each(slotBits(presetGlobal, w) & ~spl, 64 * w, [&](int i) { sum.m[i] += presetGlobal->m[i]; });
  }
  return sum;
}

ZoneValues Union(const ZoneValues& a, const ZoneValues& b) {
  ZoneValues u;
  u.genSet = a.genSet | b.genSet;
  u.slotSet[0] = a.slotSet[0] | b.slotSet[0];
  u.slotSet[1] = a.slotSet[1] | b.slotSet[1];
  return u;
}

struct SampleInfo {
  Waveform* wave = nullptr;
  bool unpitched = false;
  uint16_t type = 0;
  uint16_t link = 0;
};

// 24-bit samples: the high 16 bits in smpl, the low byte in sm24, which the
// wave's second part offset points at.
bool sf2_ImpWave24(Waveform& wave, FileRef& file) {
  static constexpr const char* kContext = "sf2_ImpWave";
  const uint64_t count = wave.length;
  if (count == 0) return Fail(kContext, "Zero length");
  const uint64_t size = file.Size();
  const uint64_t at = file.Tell();
  if (at > size || count * 2 > size - at || wave.lowBytesOffset > size || count > size - wave.lowBytesOffset) {
    return Fail(kContext, "Reading from file failed");
  }
  auto high = TryAllocArray<uint8_t>(count * 2);
  auto low = TryAllocArray<uint8_t>(count);
  if (!high || !low) return Fail(kContext, "Out of memory");
  if (!file.ReadExact(high.get(), count * 2) || !ReadAt(file, wave.lowBytesOffset, low.get(), count)) {
    return Fail(kContext, "Reading from file failed");
  }
  float* out = AllocSamplesFloat(wave);
  if (!out) return false;
  for (uint64_t i = 0; i < count; ++i) {
    const uint32_t word = (uint32_t{low[i]} << 8) | (uint32_t{high[2 * i]} << 16) | (uint32_t{high[2 * i + 1]} << 24);
    out[i] = static_cast<float>(static_cast<int32_t>(word)) * kScale32;
  }
  return true;
}

// Ogg-compressed samples of major 3 banks: the stream runs from the file
// offset to the second part offset.
bool sf2_ImpWaveOgg(Waveform& wave, FileRef& file) {
  static constexpr const char* kContext = "sf2_ImpWave";
  const uint64_t size = file.Size();
  const uint64_t at = file.Tell();
  if (wave.dataEnd <= at || wave.dataEnd > size) return Fail(kContext, "Reading from file failed");
  std::vector<uint8_t> block(static_cast<std::size_t>(wave.dataEnd - at));
  if (!file.ReadExact(block.data(), block.size())) return Fail(kContext, "Reading from file failed");
  OggDecoded decoded;
  if (!kvOggDecHelper(block, decoded)) return false;
  if (decoded.frames == 0) return Fail("kvOggDecHelper", "Stream error");
  wave.length = static_cast<uint32_t>(std::min<uint64_t>(decoded.frames, UINT32_MAX));
  wave.channels = static_cast<uint8_t>(std::min(decoded.channels, 2));
  wave.sampleRate = decoded.rate;
  float* out = AllocSamplesFloat(wave);
  if (!out) return false;
  const std::size_t frames = wave.length;
  for (std::size_t f = 0; f < frames; ++f)
    for (int ch = 0; ch < wave.channels; ++ch) out[f * wave.channels + ch] = decoded.samples[f * decoded.channels + ch];
  return true;
}

// The frame count, channels and rate of an Ogg sample, read from the stream's
// first and last bytes only.
void ProbeOgg(FileRef& file, uint64_t offset, uint64_t length, Waveform& wave) {
  std::vector<uint8_t> head(static_cast<std::size_t>(std::min<uint64_t>(length, 4096)));
  std::vector<uint8_t> tail(static_cast<std::size_t>(std::min<uint64_t>(length, 70000)));
  int channels = 0;
  uint32_t rate = 0;
  uint64_t frames = 0;
  if (!ReadAt(file, offset, head.data(), head.size()) ||
      !ReadAt(file, offset + length - tail.size(), tail.data(), tail.size()) ||
      !kvOggProbe(head, tail, channels, rate, frames)) {
    return;
  }
  wave.length = static_cast<uint32_t>(std::min<uint64_t>(frames, UINT32_MAX));
  wave.channels = static_cast<uint8_t>(std::min(channels, 2));
  wave.sampleRate = rate;
}

void SetRange(Item& item, int loParam, int hiParam, uint16_t range) {
  if (range == kNoRange) return;
  const int lo = range & 0xFF, hi = range >> 8;
  if (lo > 127 || hi > 127) return;
  item.SetParam(loParam, static_cast<float>(std::min(lo, hi)));
  item.SetParam(hiParam, static_cast<float>(std::max(lo, hi)));
}

// Two neighbouring layers that play the two sides of stereo samples get a
// shared phase group per region pair, the left side as master, so that the
// stereo merge of the load options can find them.
void MarkStereoPairs(Collection& c, Instrument& instrument, const std::vector<SampleInfo>& samples,
                     uint16_t& nextGroup) {
  std::vector<Layer*> layers;
  for (ItemId id : instrument.children)
    if (auto* l = c.FindAs<Layer>(id)) layers.push_back(l);
  auto regionsOf = [&](Layer& l) {
    std::vector<Region*> out;
    for (ItemId id : l.children)
      if (auto* r = c.FindAs<Region>(id)) out.push_back(r);
    return out;
  };
  auto sampleOf = [&](const Region& r) -> int {
    const Waveform* w = RegionWaveform(r);
    if (!w) return -1;
    for (std::size_t i = 0; i < samples.size(); ++i)
      if (samples[i].wave == w) return static_cast<int>(i);
    return -1;
  };
  auto pan = [&](const Region& r, const Layer& l) {
    if (r.art.IsSet(kRowPan)) return r.art.value[kRowPan];
    if (l.art.IsSet(kRowPan)) return l.art.value[kRowPan];
    return instrument.art.value[kRowPan];
  };
  for (std::size_t i = 0; i + 1 < layers.size(); ++i) {
    auto a = regionsOf(*layers[i]);
    auto b = regionsOf(*layers[i + 1]);
    if (a.empty() || a.size() != b.size()) continue;
    bool pair = true;
    for (std::size_t k = 0; k < a.size() && pair; ++k) {
      const float pa = pan(*a[k], *layers[i]), pb = pan(*b[k], *layers[i + 1]);
      const int sa = sampleOf(*a[k]), sb = sampleOf(*b[k]);
      pair = std::fabs(pa) == 1.0f && pa == -pb && a[k]->trigger.SameRanges(b[k]->trigger) && sa >= 0 && sb >= 0 &&
             samples[sa].link == sb && samples[sb].link == sa;
    }
    if (!pair) continue;
    for (std::size_t k = 0; k < a.size(); ++k) {
      const uint16_t group = nextGroup++;
      a[k]->SetParam(kRowPhaseGroup, group);
      b[k]->SetParam(kRowPhaseGroup, group);
      (pan(*a[k], *layers[i]) < 0 ? a[k] : b[k])->SetParam(kRowPhaseMaster, 1);
    }
    ++i;
  }
}

// Samples of a SoundFont 1 bank that lie below this bound at start 0 refer to
// the 1 MB General MIDI ROM.
constexpr uint32_t kRomBound = 0x80000;

// All zones of a SoundFont instrument that match a note sound together, but
// the regions of a layer must not overlap: a zone that overlaps one already
// placed goes into a further layer alike to the first, so that nothing is
// lost (the two sides of stereo samples, above all). Past a bound on layers
// the last one takes the rest, and the fix-up resolves them as it would.
class LayerStack {
 public:
  LayerStack(Instrument& instrument, Layer& first) : instrument_(instrument) { levels_.push_back({&first, {}}); }

  Layer& For(uint16_t keys, uint16_t vels) {
    const auto [loKey, hiKey] = Span(keys);
    const auto [loVel, hiVel] = Span(vels);
    Level* place = nullptr;
    for (Level& level : levels_)
      if (!level.used.Overlaps(loKey, hiKey, loVel, hiVel)) {
        place = &level;
        break;
      }
    if (!place && levels_.size() >= kMaxLayers) return *levels_.back().layer;
    if (!place) {
      Layer* layer = AddLayer(instrument_);
      layer->trigger = levels_.front().layer->trigger;
      layer->art = levels_.front().layer->art;
      place = &levels_.emplace_back(Level{layer, {}});
    }
    place->used.Add(loKey, hiKey, loVel, hiVel);
    return *place->layer;
  }

 private:
  static constexpr std::size_t kMaxLayers = 32;
  struct Level {
    Layer* layer;
    KeyVelocityCells used;
  };
  // A generator's range as the region will hold it: absent or out of MIDI
  // range is all of 0-127.
  static std::pair<int, int> Span(uint16_t range) {
    const int lo = range & 0xFF, hi = range >> 8;
    if (range == kNoRange || lo > 127 || hi > 127) return {0, 127};
    return {std::min(lo, hi), std::max(lo, hi)};
  }

  Instrument& instrument_;
  std::vector<Level> levels_;
};

// About how many instruments, layers and regions the presets will make: a
// layer per preset zone and a region per zone of the instrument it plays.
// Only a hint for the item map, so it is capped.
std::size_t ExpectedItems(const Records& rec, std::size_t presets) {
  constexpr std::size_t kCap = std::size_t{1} << 20;
  std::size_t items = presets;
  const std::size_t instruments = rec.inst.empty() ? 0 : rec.inst.size() - 1;
  for (std::size_t bag = 0; bag + 1 < rec.pbag.size() && items < kCap; ++bag) {
    ++items;
    const std::size_t last = std::min<std::size_t>(rec.pbag[bag + 1].genIndex.get(), rec.pgen.size());
    for (std::size_t g = rec.pbag[bag].genIndex.get(); g < last; ++g) {
      if (rec.pgen[g].oper.get() != kInstrument) continue;
      const std::size_t i = rec.pgen[g].amount.get();
      if (i < instruments) {
        const std::size_t first = rec.inst[i].bagIndex.get(), end = rec.inst[i + 1].bagIndex.get();
        if (end > first) items += end - first;
      }
      break;
    }
  }
  return std::min(items, kCap);
}

// The model tunes by at most four octaves; a zone transposed further (a
// bell played many octaves below its sample) keeps its pitch by moving the
// rest into the root key, where one key is one semitone.
void FoldTuningIntoRoot(const ZoneValues& sum, Region& region, int root) {
  const int cents = sum.g[kCoarseTune] * 100 + sum.g[kFineTune];
  const auto* row = CatalogueRow(kRowMasterTune);
  const int limit = static_cast<int>(row->max) * 100;
  if (std::abs(cents) <= limit || sum.g[kScaleTuning] != 100) return;
  const int excess = cents > 0 ? (cents - limit + 99) / 100 : -((-cents - limit + 99) / 100);
  const int moved = root - excess;
  if (moved < 0 || moved > 127) return;
  region.rootKey = static_cast<uint8_t>(moved);
  region.overrideMask |= kOverrideRootKey;
  region.art.Set(kRowMasterTune, static_cast<float>((cents - excess * 100) * 0.01));
}

bool ReadBank(Collection& c, FileRef& file, const char* context, bool soundFont1);

// ROM samples take their data from "1mgm.sf2", the ROM set as a bank of its
// own, matched by name: beside this bank, else where the user points.
void TakeRomSamples(const std::filesystem::path& bankPath, std::span<SampleInfo> samples) {
  std::filesystem::path rom = bankPath.parent_path() / "1mgm.sf2";
  std::error_code ec;
  if (!std::filesystem::is_regular_file(rom, ec)) {
    rom = AskForOpenFile("Please locate 1mgm.sf2", "*.sf2");
    if (rom.empty()) return;  // cancelled: the ROM samples stay skipped
  }
  Collection romBank;
  FileRef romFile;
  char context[kErrorContextSize], message[kErrorMessageSize];
  std::memcpy(context, ErrorContext, sizeof context);
  std::memcpy(message, ErrorMessage, sizeof message);
  const bool valid = romFile.OpenRead(rom) && ReadBank(romBank, romFile, "sf2_Imp", false);
  // The ROM set's own failure is not this load's.
  std::memcpy(ErrorContext, context, sizeof context);
  std::memcpy(ErrorMessage, message, sizeof message);
  if (!valid) {
    MessageBox("Invalid 1mgm.sf2 - skipping ROM", "Use 1mgm.sf2 / Skip");
    return;
  }
  const std::vector<Waveform*> romWaves = romBank.All<Waveform>();
  for (SampleInfo& info : samples) {
    Waveform* w = info.wave;
    if (!w || w->readCallback) continue;
    for (const Waveform* src : romWaves) {
      if (!src->readCallback || !EqualsNoCase(src->Name(), w->Name())) continue;
      w->sourcePath = src->sourcePath;
      w->fileOffset = src->fileOffset;
      w->lowBytesOffset = src->lowBytesOffset;
      w->dataEnd = src->dataEnd;
      w->length = src->length;
      w->sourceFormat = src->sourceFormat;
      w->readCallback = src->readCallback;
      w->bits = src->bits;
      w->preferredFormat = src->preferredFormat;
      w->loopType = src->loopType;
      w->loopStart = src->loopStart;
      w->loopEnd = src->loopEnd;
      break;
    }
  }
}

bool ReadBank(Collection& c, FileRef& file, const char* context, bool soundFont1) {
  const char* const badForm = soundFont1 ? "Not a Sound Font file" : "Not a SoundFont2 file";
  BankLayout bank;
  bank.fileSize = file.Size();
  uint8_t head[12];
  if (!ReadAt(file, 0, head, 12) || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "sfbk", 4) != 0) {
    return Fail(context, "%s", badForm);
  }
  const uint64_t end = std::min<uint64_t>(bank.fileSize, 8 + uint64_t{Le32At(head + 4)});
  Walk(file, bank, 12, end, 0);
  if (bank.major < 0) bank.major = soundFont1 ? 1 : 2;
  if (soundFont1 ? bank.major != 1 : (bank.major != 2 && bank.major != 3)) {
    return Fail(context, "%s", soundFont1 ? "Not a Sound Font file" : "Not a Sound Font v2.x file");
  }
  const bool compressed = bank.major == 3;
  // Without these the bank would open as an empty collection.
  for (PdtaChunk need : {kPhdr, kPbag, kPgen, kInst, kIbag, kIgen, kShdr}) {
    if (!bank.pdta[need].present) {
      return Fail(context, "No preset data in the bank (no '%s' chunk)", kPdtaIds[need]);
    }
  }

  Records rec;
  rec.phdr = ReadRecords<PhdrRec>(file, bank.pdta[kPhdr]);
  rec.pbag = ReadRecords<BagRec>(file, bank.pdta[kPbag]);
  rec.pmod = ReadRecords<ModRec>(file, bank.pdta[kPmod]);
  rec.pgen = ReadRecords<GenRec>(file, bank.pdta[kPgen]);
  rec.inst = ReadRecords<InstRec>(file, bank.pdta[kInst]);
  rec.ibag = ReadRecords<BagRec>(file, bank.pdta[kIbag]);
  rec.imod = ReadRecords<ModRec>(file, bank.pdta[kImod]);
  rec.igen = ReadRecords<GenRec>(file, bank.pdta[kIgen]);
  rec.shdr = ReadRecords<ShdrRec>(file, bank.pdta[kShdr]);

  if (!bank.name.empty()) c.SetName(bank.name.data(), bank.name.size(), TextEncoding::Utf8);
  CopyText(c.engineer, bank.engineer);
  CopyText(c.copyright, bank.copyright);
  CopyText(c.comment, bank.comment);

  // Waveforms, one per sample header but the terminal one.
  const uint64_t smplFrames = bank.smpl.size / 2;
  const bool has24 = bank.sm24.present && !compressed;
  std::vector<SampleInfo> samples(rec.shdr.empty() ? 0 : rec.shdr.size() - 1);
  bool romSeen = false;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const ShdrRec& s = rec.shdr[i];
    const uint32_t start = s.start.get(), stop = s.end.get();
    const uint16_t type = s.type.get();
    samples[i].type = type;
    samples[i].link = s.link.get();
    if (start == 0 && stop == 0) continue;
    const bool rom = (type & kRomSample) || (soundFont1 && start == 0 && stop < kRomBound && !bank.smpl.present);
    auto* w = Create<Waveform>(c);
    w->SetName(s.name, sizeof s.name, TextEncoding::Foreign);
    w->sourcePath = file.Path();
    w->sampleRate = s.rate.get();
    samples[i].wave = w;
    if (s.originalKey == 255) {
      samples[i].unpitched = true;
      w->rootKey = 60;
    } else {
      w->rootKey = s.originalKey <= 127 ? s.originalKey : 60;
    }
    w->fineTune = static_cast<int8_t>(std::clamp<int>(s.correction, -100, 100));
    if (rom) {
      romSeen = true;
      continue;  // no data in this file
    }
    if (compressed && (type & kOggSample)) {
      // Offsets are bytes into smpl; the stream's own headers give the rest.
      if (start >= bank.smpl.size || stop < start) continue;
      const uint64_t length = std::min<uint64_t>(uint64_t{stop} - start + 1, bank.smpl.size - start);
      w->fileOffset = bank.smpl.offset + start;
      w->dataEnd = w->fileOffset + length;
      ProbeOgg(file, w->fileOffset, length, *w);
      w->readCallback = sf2_ImpWaveOgg;
      w->bits = 16;
      w->preferredFormat = static_cast<uint8_t>(PreferredFormatForRate(128));
      const uint32_t loopStart = s.loopStart.get(), loopEnd = s.loopEnd.get();
      // Loops of compressed samples count frames from the sample's start.
      if (loopEnd > loopStart && loopEnd <= w->length) {
        w->loopType = 1;
        w->loopStart = static_cast<float>(loopStart);
        w->loopEnd = static_cast<float>(loopEnd);
      }
      continue;
    }
    const uint64_t last = std::min<uint64_t>(stop, smplFrames);
    if (start >= last) continue;
    w->length = static_cast<uint32_t>(last - start);
    w->fileOffset = bank.smpl.offset + uint64_t{start} * 2;
    if (has24 && last <= bank.sm24.size) {
      SetGenericFormat(*w, kPcm24);
      w->readCallback = sf2_ImpWave24;
      w->lowBytesOffset = bank.sm24.offset + start;
    } else {
      SetGenericFormat(*w, kPcm16);
    }
    const uint32_t loopStart = s.loopStart.get(), loopEnd = s.loopEnd.get();
    if (loopEnd > loopStart && loopStart >= start) {
      w->loopType = 1;
      w->loopStart = static_cast<float>(loopStart - start);
      w->loopEnd = static_cast<float>(std::min<uint64_t>(loopEnd - start, w->length));
    } else {
      w->loopStart = 0;
      w->loopEnd = static_cast<float>(w->length);
    }
  }

  // The question about ROM samples: skipped, they leave waves without data,
  // which the fix-up removes with the zones that play them.
  if (soundFont1 && romSeen) {
    const int answer = MessageBox(
        "This SoundFont references ROM waveforms.\n\nWould you like to skip these, or load them from "
        "\"1mgm.sf2\"?\n(i.e. the AWE32 ROM equivalent from the SB Live-drivers)",
        "Use 1mgm.sf2 / Skip", BoxButtons::YesNo);
    if (answer == kBoxYes) TakeRomSamples(file.Path(), samples);
  }

  // Instruments, one per preset header but the terminal one.
  uint16_t nextGroup = 1;
  const std::size_t presets = rec.phdr.empty() ? 0 : rec.phdr.size() - 1;
  ExpectItems(c, ExpectedItems(rec, presets));
  std::vector<Zone> presetZones, instZones;
  constexpr int kSendsReverb = 1, kSendsChorus = 2;
  std::vector<int> instSends(rec.inst.size(), -1);  // per instrument: the sends its zones use, -1 not yet read
  for (std::size_t p = 0; p < presets; ++p) {
    const PhdrRec& ph = rec.phdr[p];
    auto* instrument = Create<Instrument>(c);
    instrument->SetName(ph.name, sizeof ph.name, TextEncoding::Foreign);
    instrument->sourcePath = file.Path();
    const uint32_t bankNumber = ph.bank.get();
    const bool drum = bankNumber == 128;
    instrument->location = MakeLocation(drum ? 0 : std::min<uint32_t>(bankNumber, 127), 0, ph.preset.get() & 0x7F, drum);

    Zone presetGlobal;
    bool hasPresetGlobal = false;
    ReadZones(rec.pbag, rec.pgen, rec.pmod, ph.bagIndex.get(), rec.phdr[p + 1].bagIndex.get(), kInstrument, true,
              presetGlobal, hasPresetGlobal, presetZones);
    const ZoneValues* pG = hasPresetGlobal ? &presetGlobal.values : nullptr;

    // Sends need an effect slot of their kind. What an instrument's zones
    // send is noted once per instrument: presets share instruments.
    auto sendsOf = [&](const ZoneValues& v) {
      return (v.HasGen(kReverbSend) ? kSendsReverb : 0) | (v.HasGen(kChorusSend) ? kSendsChorus : 0);
    };
    int wanted = pG ? sendsOf(*pG) : 0;
    for (const Zone& z : presetZones) {
      wanted |= sendsOf(z.values);
      if (z.link < 0 || static_cast<std::size_t>(z.link) + 1 >= rec.inst.size()) continue;
      int& known = instSends[z.link];
      if (known < 0) {
        Zone g;
        bool hg;
        ReadZones(rec.ibag, rec.igen, rec.imod, rec.inst[z.link].bagIndex.get(), rec.inst[z.link + 1].bagIndex.get(),
                  kSampleId, false, g, hg, instZones);
        known = hg ? sendsOf(g.values) : 0;
        for (const Zone& iz : instZones) known |= sendsOf(iz.values);
      }
      wanted |= known;
    }
    auto wants = [&](int gen) { return (wanted & (gen == kReverbSend ? kSendsReverb : kSendsChorus)) != 0; };
    SendSlots sends;
    if (wants(kReverbSend)) sends.reverb = EffectSlot(*instrument, kFxReverb);
    if (wants(kChorusSend)) sends.chorus = EffectSlot(*instrument, kFxChorus);

    // The preset's global zone, over the standard's defaults, is the
    // instrument level.
    {
      const ZoneValues none;
      GensToArticulation(SumZones(nullptr, nullptr, pG, nullptr), none, true, sends, instrument->art);
    }

    if (presetZones.empty()) {
      AddLayer(*instrument);
      InstrumentDone(c, *instrument);
      continue;
    }
    for (const Zone& pz : presetZones) {
      if (pz.link < 0 || static_cast<std::size_t>(pz.link) + 1 >= rec.inst.size()) continue;  // missing instrument
      const InstRec& ir = rec.inst[pz.link];
      Zone instGlobal;
      bool hasInstGlobal = false;
      ReadZones(rec.ibag, rec.igen, rec.imod, ir.bagIndex.get(), rec.inst[pz.link + 1].bagIndex.get(), kSampleId, false,
                instGlobal, hasInstGlobal, instZones);
      const ZoneValues* iG = hasInstGlobal ? &instGlobal.values : nullptr;
      const ZoneValues* pL = &pz.values;

      Layer* first = AddLayer(*instrument);
      SetRange(*first, kRowLoKey, kRowHiKey, pz.keyRange);
      SetRange(*first, kRowLoVel, kRowHiVel, pz.velRange);
      GensToArticulation(SumZones(iG, nullptr, pG, pL), Union(iG ? *iG : ZoneValues{}, *pL), false, sends, first->art);
      LayerStack stack(*instrument, *first);

      for (const Zone& iz : instZones) {
        if (iz.link < 0 || static_cast<std::size_t>(iz.link) >= samples.size()) continue;
        const SampleInfo& info = samples[iz.link];
        Waveform* wave = info.wave;
        if (!wave) continue;  // missing sample
        const ZoneValues* iL = &iz.values;
        auto instValue = [&](int gen) {
          return iL->HasGen(gen) ? iL->g[gen] : (iG && iG->HasGen(gen)) ? iG->g[gen] : GenDefault(gen);
        };
        auto instHas = [&](int gen) { return iL->HasGen(gen) || (iG && iG->HasGen(gen)); };
        uint16_t keys = iz.keyRange, vels = iz.velRange;
        if (keys == kNoRange && hasInstGlobal) keys = instGlobal.keyRange;
        if (vels == kNoRange && hasInstGlobal) vels = instGlobal.velRange;
        Layer* layer = &stack.For(keys, vels);
        const int root = instValue(kOverridingRootKey);
        Region* region = AddRegion(*layer, wave->id, kNoRange, kNoRange, root >= 0 && root <= 127 ? root : 255);
        SetRange(*region, kRowLoKey, kRowHiKey, keys);
        SetRange(*region, kRowLoVel, kRowHiVel, vels);
        const ZoneValues sum = SumZones(iG, iL, pG, pL);
        GensToArticulation(sum, *iL, false, sends, region->art);
        FoldTuningIntoRoot(sum, *region, root >= 0 && root <= 127 ? root : wave->rootKey);

        if (const int group = instValue(kExclusiveClass); group > 0) {
          region->SetParam(kRowExclusionGroup, static_cast<float>(group));
        }
        const int64_t startOffset = instValue(kStartAddrsOffset) + 32768LL * instValue(kStartAddrsCoarse);
        const int64_t endOffset = instValue(kEndAddrsOffset) + 32768LL * instValue(kEndAddrsCoarse);
        if (startOffset) region->SetParam(kRowStartOffset, static_cast<float>(startOffset));
        if (endOffset) region->SetParam(kRowEndOffset, static_cast<float>(endOffset));
        const int64_t loopStartOffset = instValue(kStartloopAddrsOffset) + 32768LL * instValue(kStartloopAddrsCoarse);
        const int64_t loopEndOffset = instValue(kEndloopAddrsOffset) + 32768LL * instValue(kEndloopAddrsCoarse);
        if (loopStartOffset || loopEndOffset) {
          region->SetParam(kRowLoopStart, std::max(0.0f, wave->loopStart + loopStartOffset));
          region->SetParam(kRowLoopEnd,
                           std::max(0.0f, std::min(wave->loopEnd, static_cast<float>(wave->length)) + loopEndOffset));
        }
        // Without a sample mode the standard plays no loop, whatever the
        // sample header says.
        const int mode = instValue(kSampleModes);
        const int loopType = (mode == 1 || mode == 3) ? 1 : 0;
        if (instHas(kSampleModes) || loopType != wave->loopType) {
          region->SetParam(kRowLoopType, static_cast<float>(loopType));
        }
        if (mode == 3) region->SetParam(kRowLoopRelease, 1);

        if (info.unpitched) {
          const float keyToPitch = region->art.IsSet(kRowKeyToPitch)  ? region->art.value[kRowKeyToPitch]
                                   : layer->art.IsSet(kRowKeyToPitch) ? layer->art.value[kRowKeyToPitch]
                                                                      : instrument->art.value[kRowKeyToPitch];
          if (keyToPitch == 1.0f) region->art.Set(kRowKeyToPitch, 0.0f);
        }
      }
    }
    MarkStereoPairs(c, *instrument, samples, nextGroup);
    InstrumentDone(c, *instrument);
  }
  return true;
}

}  // namespace

bool sf2_Summary(FileRef& file, Sf2Summary& out) {
  BankLayout bank;
  bank.fileSize = file.Size();
  uint8_t head[12];
  if (!ReadAt(file, 0, head, 12) || std::memcmp(head, "RIFF", 4) != 0 || std::memcmp(head + 8, "sfbk", 4) != 0) {
    return false;
  }
  Walk(file, bank, 12, std::min<uint64_t>(bank.fileSize, 8 + uint64_t{Le32At(head + 4)}), 0);
  auto count = [&](PdtaChunk chunk, std::size_t size) {
    const uint64_t n = bank.pdta[chunk].size / size;
    return n ? static_cast<int>(n - 1) : 0;
  };
  out.major = bank.major;
  out.minor = bank.minor;
  out.presets = count(kPhdr, sizeof(PhdrRec));
  out.instruments = count(kInst, sizeof(InstRec));
  out.samples = count(kShdr, sizeof(ShdrRec));
  return true;
}

bool sf2_Imp(Collection& collection, FileRef& file, uint32_t) {
  return ReadBank(collection, file, "sf2_Imp", false);
}

bool sbk_Imp(Collection& collection, FileRef& file, uint32_t) {
  return ReadBank(collection, file, "sbk_Imp", true);
}

namespace sf2 {

int EffectSlot(Instrument& instrument, uint8_t type) {
  for (int s = 0; s < 4; ++s)
    if (instrument.fx[s].type == type) return s;
  for (int s = 0; s < 4; ++s) {
    if (instrument.fx[s].type == 0) {
      // Through the parameter, so the effect starts from its defaults.
      params::Set(instrument, FxTypeParam(s), type);
      return s;
    }
  }
  return -1;
}

}  // namespace sf2
}  // namespace kv
