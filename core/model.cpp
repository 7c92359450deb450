// Item classes: constructors, flat records, the consistency rules of FixUp,
// region ranges and names.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <unordered_map>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/midi_events.h"
#include "core/items.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/wavestore.h"

namespace kv {

namespace {

// The feature groups the model's own rules read, as masks.
constexpr uint64_t Bit(Feature f) { return uint64_t{1} << f; }
uint64_t Features() { return Settings().features; }

// ---- flat record helpers: fields in declaration order, little-endian host ----

template <typename T>
void Put(std::vector<uint8_t>& out, const T& value) {
  static_assert(std::is_trivially_copyable_v<T>);
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  out.insert(out.end(), p, p + sizeof(T));
}

void PutBytes(std::vector<uint8_t>& out, const void* data, std::size_t size) {
  const auto* p = static_cast<const uint8_t*>(data);
  out.insert(out.end(), p, p + size);
}

void PutPath(std::vector<uint8_t>& out, const std::filesystem::path& path) {
  const std::string& s = path.native();
  Put(out, static_cast<uint32_t>(s.size()));
  PutBytes(out, s.data(), s.size());
}

class Reader {
 public:
  explicit Reader(std::span<const uint8_t> in) : in_(in) {}
  template <typename T>
  bool Get(T& value) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (pos_ + sizeof(T) > in_.size()) return ok_ = false;
    std::memcpy(&value, in_.data() + pos_, sizeof(T));
    pos_ += sizeof(T);
    return true;
  }
  bool GetBytes(void* data, std::size_t size) {
    if (pos_ + size > in_.size()) return ok_ = false;
    std::memcpy(data, in_.data() + pos_, size);
    pos_ += size;
    return true;
  }
  bool GetPath(std::filesystem::path& path) {
    uint32_t n = 0;
    if (!Get(n) || pos_ + n > in_.size()) return ok_ = false;
    path = std::string(reinterpret_cast<const char*>(in_.data() + pos_), n);
    pos_ += n;
    return true;
  }
  std::size_t Done() const { return ok_ ? pos_ : 0; }
  bool ok() const { return ok_; }

 private:
  std::span<const uint8_t> in_;
  std::size_t pos_ = 0;
  bool ok_ = true;
};

template <typename T>
std::size_t SizeBySerializing(const T& item) {
  std::vector<uint8_t> tmp;
  return item.Serialize(tmp);
}

int Clamp(int v, int lo, int hi) { return std::max(lo, std::min(hi, v)); }

}  // namespace

// ---------------------------------------------------------------- flat records

void Item::SerializeBase(std::vector<uint8_t>& out) const {
  Put(out, id);
  Put(out, parentId);
  PutBytes(out, name, sizeof name);
  // The record keeps a waveform's source word and second-channel position in
  // the base part, where every item has room for them.
  const auto* wave = Type() == ItemType::Waveform ? static_cast<const Waveform*>(this) : nullptr;
  Put(out, wave ? wave->sourceFormat : uint32_t{0});
  Put(out, wave ? wave->secondChannelOffset : uint64_t{0});
  Put(out, static_cast<uint32_t>(children.size()));
  for (ItemId child : children) Put(out, child);
}

std::size_t Item::DeserializeBase(std::span<const uint8_t> in) {
  Reader r(in);
  ItemId storedId = 0;  // the item keeps its identity in the map
  uint32_t count = 0;
  ItemId parent = 0;
  char text[sizeof name];
  uint32_t format = 0;
  uint64_t offset = 0;
  if (!r.Get(storedId) || !r.Get(parent) || !r.GetBytes(text, sizeof text) || !r.Get(format) ||
      !r.Get(offset) || !r.Get(count))
    return 0;
  if (count > (in.size() / sizeof(ItemId))) return 0;
  ChildList list;
  for (uint32_t i = 0; i < count; ++i) {
    ItemId child;
    if (!r.Get(child)) return 0;
    list.push_back(child);
  }
  parentId = parent;
  text[sizeof text - 1] = 0;
  std::memcpy(name, text, sizeof name);
  if (Type() == ItemType::Waveform) {
    auto& wave = static_cast<Waveform&>(*this);
    wave.sourceFormat = format;
    wave.secondChannelOffset = offset;
  }
  children = list;
  return r.Done();
}

std::size_t Item::Serialize(std::vector<uint8_t>& out) const {
  std::size_t start = out.size();
  SerializeBase(out);
  return out.size() - start;
}

std::size_t Item::Deserialize(std::span<const uint8_t> in) { return DeserializeBase(in); }

std::size_t Item::SerializedSize() const { return 153 + 4 * children.size(); }

// Subclasses append their own fields after the base record.
#define KV_FLAT_RECORD(Class, WRITE, READ)                                  \
  std::size_t Class::Serialize(std::vector<uint8_t>& out) const {           \
    std::size_t start = out.size();                                         \
    SerializeBase(out);                                                     \
    WRITE;                                                                  \
    return out.size() - start;                                              \
  }                                                                         \
  std::size_t Class::Deserialize(std::span<const uint8_t> in) {             \
    std::size_t base = DeserializeBase(in);                                 \
    if (!base) return 0;                                                    \
    Reader r(in.subspan(base));                                             \
    READ;                                                                   \
    return r.ok() ? base + r.Done() : 0;                                    \
  }                                                                         \
  std::size_t Class::SerializedSize() const { return SizeBySerializing(*this); }

KV_FLAT_RECORD(SynthModel,
               (Put(out, kind), Put(out, static_cast<uint32_t>(record.size())),
                PutBytes(out, record.data(), record.size())),
               ({
                 uint32_t size = 0;
                 if (r.Get(kind) && r.Get(size) && size <= in.size()) {
                   record.resize(size);
                   r.GetBytes(record.data(), size);
                 }
               }))

KV_FLAT_RECORD(Region,
               (Put(out, trigger), Put(out, phaseGroup), Put(out, phaseMaster), Put(out, overrideMask),
                Put(out, rootKey), Put(out, loopType), Put(out, loopRelease), Put(out, loopStart),
                Put(out, loopEnd), Put(out, loopPitch), Put(out, startOffset), Put(out, endOffset),
                Put(out, art)),
               (r.Get(trigger), r.Get(phaseGroup), r.Get(phaseMaster), r.Get(overrideMask), r.Get(rootKey),
                r.Get(loopType), r.Get(loopRelease), r.Get(loopStart), r.Get(loopEnd), r.Get(loopPitch),
                r.Get(startOffset), r.Get(endOffset), r.Get(art)))

KV_FLAT_RECORD(Layer, (Put(out, trigger), Put(out, art), Put(out, drum)),
               (r.Get(trigger), r.Get(art), r.Get(drum)))

KV_FLAT_RECORD(Instrument,
               (Put(out, location), Put(out, art), Put(out, fx), PutBytes(out, comment, sizeof comment),
                PutPath(out, sourcePath)),
               (r.Get(location), r.Get(art), r.Get(fx), r.GetBytes(comment, sizeof comment),
                r.GetPath(sourcePath), comment[sizeof comment - 1] = 0))

KV_FLAT_RECORD(Track,
               (Put(out, channelGroup), Put(out, sequenceNumber), Put(out, static_cast<uint32_t>(events_.size())),
                Put(out, eventCount_), PutBytes(out, events_.data(), events_.size())),
               ({
                 uint32_t size = 0, count = 0;
                 if (r.Get(channelGroup) && r.Get(sequenceNumber) && r.Get(size) && r.Get(count) && size <= in.size()) {
                   std::vector<uint8_t> data(size);
                   if (r.GetBytes(data.data(), size)) SetEvents(std::move(data));
                 }
               }))

KV_FLAT_RECORD(Song,
               (Put(out, format), Put(out, division), PutBytes(out, artist, sizeof artist),
                PutBytes(out, comment, sizeof comment), PutBytes(out, copyright, sizeof copyright),
                PutBytes(out, engineer, sizeof engineer), PutBytes(out, product, sizeof product),
                PutPath(out, sourcePath)),
               (r.Get(format), r.Get(division), r.GetBytes(artist, sizeof artist),
                r.GetBytes(comment, sizeof comment), r.GetBytes(copyright, sizeof copyright),
                r.GetBytes(engineer, sizeof engineer), r.GetBytes(product, sizeof product),
                r.GetPath(sourcePath)))

KV_FLAT_RECORD(Collection,
               (PutBytes(out, engineer, sizeof engineer), PutBytes(out, copyright, sizeof copyright),
                PutBytes(out, comment, sizeof comment), PutPath(out, sourcePath), Put(out, formatIndex)),
               (r.GetBytes(engineer, sizeof engineer), r.GetBytes(copyright, sizeof copyright),
                r.GetBytes(comment, sizeof comment), r.GetPath(sourcePath), r.Get(formatIndex)))

// A waveform's record carries its samples so that a restored copy plays.
KV_FLAT_RECORD(Waveform,
               (PutBytes(out, artist, sizeof artist), PutBytes(out, engineer, sizeof engineer),
                PutBytes(out, comment, sizeof comment), PutBytes(out, copyright, sizeof copyright),
                PutBytes(out, product, sizeof product), Put(out, length), Put(out, sampleRate), Put(out, bits),
                Put(out, channels), Put(out, rootKey), Put(out, fineTune), Put(out, volume), Put(out, loopType),
                Put(out, loopRelease), Put(out, loopStart), Put(out, loopEnd), Put(out, loopPitch),
                Put(out, preferredFormat), Put(out, fileOffset), Put(out, codingChunkOffset),
                Put(out, lowBytesOffset), Put(out, dataEnd), Put(out, readCallback), PutPath(out, sourcePath),
                Put(out, static_cast<uint8_t>(samples16 ? 1 : samplesF ? 2 : 0)),
                samples16 ? PutBytes(out, samples16.get(), SampleCount() * 2)
                          : samplesF ? PutBytes(out, samplesF.get(), SampleCount() * 4) : void()),
               ({
                 uint8_t form = 0;
                 r.GetBytes(artist, sizeof artist), r.GetBytes(engineer, sizeof engineer),
                     r.GetBytes(comment, sizeof comment), r.GetBytes(copyright, sizeof copyright),
                     r.GetBytes(product, sizeof product), r.Get(length), r.Get(sampleRate), r.Get(bits),
                     r.Get(channels), r.Get(rootKey), r.Get(fineTune), r.Get(volume), r.Get(loopType),
                     r.Get(loopRelease), r.Get(loopStart), r.Get(loopEnd), r.Get(loopPitch),
                     r.Get(preferredFormat), r.Get(fileOffset), r.Get(codingChunkOffset),
                     r.Get(lowBytesOffset), r.Get(dataEnd), r.Get(readCallback), r.GetPath(sourcePath),
                     r.Get(form);
                 samples16.reset();
                 samplesF.reset();
                 uint64_t count = SampleCount();
                 if (form == 1 && count * 2 <= in.size()) {
                   samples16 = std::make_unique<int16_t[]>(count);
                   r.GetBytes(samples16.get(), count * 2);
                 } else if (form == 2 && count * 4 <= in.size()) {
                   samplesF = std::make_unique<float[]>(count);
                   r.GetBytes(samplesF.get(), count * 4);
                 }
               }))

#undef KV_FLAT_RECORD

// ---------------------------------------------------------------- constructors

SynthModel::SynthModel(Collection& owner, uint32_t serial, const char* text)
    : Item(owner, ItemType::SynthModel, serial, text) {}
SynthModel::SynthModel(Collection& owner, const SynthModel& s, const char* text)
    : Item(owner, s, text), kind(s.kind), record(s.record) {
  children = s.children;  // the waves it renders into stay shared
}

Region::Region(Collection& owner, uint32_t serial, const char* text) : Item(owner, ItemType::Region, serial, text) {}
Region::Region(Collection& owner, const Region& s, const char* text)
    : Item(owner, s, text),
      trigger(s.trigger),
      phaseGroup(s.phaseGroup),
      phaseMaster(s.phaseMaster),
      overrideMask(s.overrideMask),
      rootKey(s.rootKey),
      loopType(s.loopType),
      loopRelease(s.loopRelease),
      loopStart(s.loopStart),
      loopEnd(s.loopEnd),
      loopPitch(s.loopPitch),
      startOffset(s.startOffset),
      endOffset(s.endOffset),
      art(s.art) {}

Layer::Layer(Collection& owner, uint32_t serial, const char* text) : Item(owner, ItemType::Layer, serial, text) {}
Layer::Layer(Collection& owner, const Layer& s, const char* text)
    : Item(owner, s, text), trigger(s.trigger), art(s.art), drum(s.drum) {}

Instrument::Instrument(Collection& owner, uint32_t serial, const char* text)
    : Item(owner, ItemType::Instrument, serial, text) {}
Instrument::Instrument(Collection& owner, const Instrument& s, const char* text)
    : Item(owner, s, text),
      location(s.location),
      art(s.art),
      sourcePath(s.sourcePath),
      unreadArticulation(s.unreadArticulation) {
  std::copy(std::begin(s.fx), std::end(s.fx), std::begin(fx));
  std::memcpy(comment, s.comment, sizeof comment);
}

Waveform::Waveform(Collection& owner, uint32_t serial, const char* text)
    : Item(owner, ItemType::Waveform, serial, text) {}
Waveform::Waveform(Collection& owner, const Waveform& s, const char* text, bool withData)
    : Item(owner, s, text),
      length(s.length),
      sampleRate(s.sampleRate),
      bits(s.bits),
      channels(s.channels),
      rootKey(s.rootKey),
      fineTune(s.fineTune),
      volume(s.volume),
      loopType(s.loopType),
      loopRelease(s.loopRelease),
      loopStart(s.loopStart),
      loopEnd(s.loopEnd),
      loopPitch(s.loopPitch),
      preferredFormat(s.preferredFormat),
      fileOffset(s.fileOffset),
      sourceFormat(s.sourceFormat),
      secondChannelOffset(s.secondChannelOffset),
      codingChunkOffset(s.codingChunkOffset),
      lowBytesOffset(s.lowBytesOffset),
      dataEnd(s.dataEnd),
      readCallback(s.readCallback),
      sourcePath(s.sourcePath) {
  std::memcpy(artist, s.artist, sizeof artist);
  std::memcpy(engineer, s.engineer, sizeof engineer);
  std::memcpy(comment, s.comment, sizeof comment);
  std::memcpy(copyright, s.copyright, sizeof copyright);
  std::memcpy(product, s.product, sizeof product);
  uint64_t count = s.SampleCount();
  if (withData && s.samples16) {
    samples16 = std::make_unique<int16_t[]>(count);
    std::copy_n(s.samples16.get(), count, samples16.get());
  } else if (withData && s.samplesF) {
    samplesF = std::make_unique<float[]>(count);
    std::copy_n(s.samplesF.get(), count, samplesF.get());
  }
}

Track::Track(Collection& owner, uint32_t serial, const char* text) : Item(owner, ItemType::Track, serial, text) {}
Track::Track(Collection& owner, const Track& s, const char* text)
    : Item(owner, s, text),
      channelGroup(s.channelGroup),
      sequenceNumber(s.sequenceNumber),
      events_(s.events_),
      eventCount_(s.eventCount_) {}

Song::Song(Collection& owner, uint32_t serial, const char* text) : Item(owner, ItemType::Song, serial, text) {}
Song::Song(Collection& owner, const Song& s, const char* text)
    : Item(owner, s, text), format(s.format), division(s.division), sourcePath(s.sourcePath) {
  std::memcpy(artist, s.artist, sizeof artist);
  std::memcpy(comment, s.comment, sizeof comment);
  std::memcpy(copyright, s.copyright, sizeof copyright);
  std::memcpy(engineer, s.engineer, sizeof engineer);
  std::memcpy(product, s.product, sizeof product);
}

// ---------------------------------------------------------------- tracks

void Track::SetEvents(std::vector<uint8_t> data) {
  events_ = std::move(data);
  eventCount_ = CountTrackEvents(events_);
}

// ---------------------------------------------------------------- trigger record

float TriggerRecord::Get(int p) const {
  switch (p) {
    case kRowTriggerType: return triggerType;
    case kRowLoKey: return loKey;
    case kRowHiKey: return hiKey;
    case kRowLoVel: return loVel;
    case kRowHiVel: return hiVel;
    case kRowKeyFadeIn: return keyFadeIn;
    case kRowKeyFadeOut: return keyFadeOut;
    case kRowKeyFadeFormula: return keyFadeFormula;
    case kRowVelFadeIn: return velFadeIn;
    case kRowVelFadeOut: return velFadeOut;
    case kRowVelFadeFormula: return velFadeFormula;
    case kRowSustainSwitch: return sustainSwitch;
    case kRowTriggerDelay: return delay;
    case kRowExclusionGroup: return exclusionGroup;
    case kRowNoteExclusion: return noteExclusion;
    default: return 0.0f;
  }
}

void TriggerRecord::Put(int p, float v) {
  auto u8 = [&](float x) { return static_cast<uint8_t>(Clamp(static_cast<int>(std::lround(x)), 0, 255)); };
  switch (p) {
    case kRowTriggerType: triggerType = u8(v); break;
    case kRowLoKey: loKey = u8(v); break;
    case kRowHiKey: hiKey = u8(v); break;
    case kRowLoVel: loVel = u8(v); break;
    case kRowHiVel: hiVel = u8(v); break;
    case kRowKeyFadeIn: keyFadeIn = u8(v); break;
    case kRowKeyFadeOut: keyFadeOut = u8(v); break;
    case kRowKeyFadeFormula: keyFadeFormula = u8(v); break;
    case kRowVelFadeIn: velFadeIn = u8(v); break;
    case kRowVelFadeOut: velFadeOut = u8(v); break;
    case kRowVelFadeFormula: velFadeFormula = u8(v); break;
    case kRowSustainSwitch: sustainSwitch = u8(v); break;
    case kRowTriggerDelay: delay = v; break;
    case kRowExclusionGroup:
      exclusionGroup = static_cast<uint16_t>(Clamp(static_cast<int>(std::lround(v)), 0, 65535));
      break;
    case kRowNoteExclusion: noteExclusion = u8(v); break;
    default: break;
  }
}

void TriggerRecord::RefreshFrom(const TriggerRecord& parent) {
  for (int p = kFirst; p <= kLast; ++p)
    if (!IsSet(p)) Put(p, parent.Get(p));
}

void TriggerRecord::ApplyFeatures(uint64_t features) {
  if (!(features & Bit(kFeatTriggerXfade))) {
    keyFadeIn = keyFadeOut = velFadeIn = velFadeOut = 0;
    keyFadeFormula = velFadeFormula = 0;
    for (int p = kRowKeyFadeIn; p <= kRowVelFadeFormula; ++p) MarkUnset(p);
  }
  if (!(features & Bit(kFeatTriggerDelay))) {
    delay = 0.0f;
    MarkUnset(kRowTriggerDelay);
  }
  if (!(features & Bit(kFeatTriggerType))) {
    triggerType = 0;
    MarkUnset(kRowTriggerType);
  }
}

bool TriggerRecord::SameRanges(const TriggerRecord& o) const {
  return loKey == o.loKey && hiKey == o.hiKey && loVel == o.loVel && hiVel == o.hiVel;
}

namespace {

bool SameTrigger(const TriggerRecord& a, const TriggerRecord& b) {
  for (int p = TriggerRecord::kFirst; p <= TriggerRecord::kLast; ++p)
    if (a.Get(p) != b.Get(p)) return false;
  return true;
}


}  // namespace

// ---------------------------------------------------------------- structure

Instrument* InstrumentOf(const Layer& layer) {
  if (layer.parentId == kNoItem || !layer.collection) return nullptr;
  return layer.collection->FindAs<Instrument>(MakeId(ItemType::Instrument, SerialOf(layer.parentId)));
}

Layer* LayerOf(const Region& region) {
  if (region.parentId == kNoItem || !region.collection) return nullptr;
  return region.collection->FindAs<Layer>(MakeId(ItemType::Layer, SerialOf(region.parentId)));
}

Waveform* RegionWaveform(const Region& region) {
  for (ItemId child : region.children)
    if (TypeOf(child) == ItemType::Waveform) return region.collection->FindWave(child);
  return nullptr;
}

SynthModel* RegionSynth(const Region& region) {
  for (ItemId child : region.children)
    if (TypeOf(child) == ItemType::SynthModel) return region.collection->FindAs<SynthModel>(child);
  return nullptr;
}

void SetRegionWaveform(Region& region, ItemId waveId) {
  for (std::size_t i = region.children.size(); i-- > 0;)
    if (TypeOf(region.children[i]) == ItemType::Waveform) region.children.erase(i);
  if (waveId != kNoWave && waveId != kNoItem) region.children.push_back(MakeId(ItemType::Waveform, SerialOf(waveId)));
}

Layer* AddLayer(Instrument& instrument) {
  auto* layer = Create<Layer>(*instrument.collection);
  layer->parentId = instrument.id;
  AddChild(instrument, layer->id);
  return layer;
}

Region* AddRegion(Layer& layer, ItemId waveId, uint16_t keyRange, uint16_t velocityRange, uint8_t rootKey) {
  auto* region = Create<Region>(*layer.collection);
  region->parentId = layer.id;
  AddChild(layer, region->id);
  SetRegionWaveform(*region, waveId);
  auto given = [](uint16_t r) { return (r & 0xFF) != 0xFF && (r >> 8) != 0xFF; };
  if (given(keyRange)) {
    region->trigger.loKey = keyRange & 0xFF;
    region->trigger.hiKey = keyRange >> 8;
    region->trigger.MarkSet(kRowLoKey);
    region->trigger.MarkSet(kRowHiKey);
  }
  if (given(velocityRange)) {
    region->trigger.loVel = velocityRange & 0xFF;
    region->trigger.hiVel = velocityRange >> 8;
    region->trigger.MarkSet(kRowLoVel);
    region->trigger.MarkSet(kRowHiVel);
  }
  if (rootKey < 255) {
    region->rootKey = rootKey;
    region->overrideMask |= kOverrideRootKey;
  }
  return region;
}

namespace {

std::vector<Region*> RegionsOf(const Layer& layer) {
  std::vector<Region*> out;
  for (ItemId child : layer.children)
    if (auto* r = layer.collection->FindAs<Region>(child)) out.push_back(r);
  return out;
}

int EffectiveRoot(const Region& r) {
  if (r.overrideMask & kOverrideRootKey) return r.rootKey;
  if (Waveform* w = RegionWaveform(r)) return w->rootKey;
  return 60;
}

}  // namespace

Region* RegionAt(const Layer& layer, int key, int velocity) {
  if (key >= 128 || key < 0 || (velocity >= 128 && velocity < 255)) return nullptr;
  for (Region* r : RegionsOf(layer)) {
    if (key < r->trigger.loKey || key > r->trigger.hiKey) continue;
    if (velocity != 255 && (velocity < r->trigger.loVel || velocity > r->trigger.hiVel)) continue;
    return r;
  }
  return nullptr;
}

uint16_t FindFreeKeyRange(Layer& layer, int key, std::span<Region* const> newRegions) {
  std::vector<Region*> regions = RegionsOf(layer);
  auto covered = [&](int k, Region** which) {
    for (auto* list : {&regions}) {
      for (Region* r : *list)
        if (k >= r->trigger.loKey && k <= r->trigger.hiKey) {
          if (which) *which = r;
          return true;
        }
    }
    for (Region* r : newRegions)
      if (k >= r->trigger.loKey && k <= r->trigger.hiKey) {
        if (which) *which = r;
        return true;
      }
    return false;
  };
  if (key != 255 && key >= 0 && key < 128) {
    Region* hit = nullptr;
    if (covered(key, &hit)) {
      if (!layer.drum && hit->trigger.hiKey > hit->trigger.loKey) {
        int root = std::clamp(EffectiveRoot(*hit), int{hit->trigger.loKey}, int{hit->trigger.hiKey});
        if (root != key) {
          uint8_t lo, hi;
          uint8_t otherLo = hit->trigger.loKey, otherHi = hit->trigger.hiKey;
          if (key > root) {
            lo = static_cast<uint8_t>(root + 1);
            hi = hit->trigger.hiKey;
            otherHi = static_cast<uint8_t>(root);
          } else {
            lo = hit->trigger.loKey;
            hi = static_cast<uint8_t>(root - 1);
            otherLo = static_cast<uint8_t>(root);
          }
          if (std::find(newRegions.begin(), newRegions.end(), hit) != newRegions.end()) {
            hit->trigger.loKey = otherLo;
            hit->trigger.hiKey = otherHi;
            hit->trigger.MarkSet(kRowLoKey);
            hit->trigger.MarkSet(kRowHiKey);
          }
          return MakeRange(lo, hi);
        }
      }
      return MakeRange(static_cast<uint8_t>(key), static_cast<uint8_t>(key));
    }
    if (layer.drum) return MakeRange(static_cast<uint8_t>(key), static_cast<uint8_t>(key));
    int lo = key, hi = key;
    while (lo > 0 && !covered(lo - 1, nullptr)) --lo;
    while (hi < 127 && !covered(hi + 1, nullptr)) ++hi;
    return MakeRange(static_cast<uint8_t>(lo), static_cast<uint8_t>(hi));
  }
  if (regions.empty() && newRegions.empty()) return MakeRange(0, 127);
  int highest = -1;
  for (Region* r : regions) highest = std::max(highest, int{r->trigger.hiKey});
  for (Region* r : newRegions) highest = std::max(highest, int{r->trigger.hiKey});
  if (highest < 127) return MakeRange(static_cast<uint8_t>(highest + 1), 127);
  for (int k = 0; k < 128; ++k) {
    if (covered(k, nullptr)) continue;
    int hi = k;
    while (hi < 127 && !covered(hi + 1, nullptr)) ++hi;
    return MakeRange(static_cast<uint8_t>(k), static_cast<uint8_t>(hi));
  }
  return MakeRange(0, 127);
}

namespace {

// Cuts one side of [lo, hi] away from the overlap [oLo, oHi], keeping the
// larger remainder.
void CutRange(uint8_t& lo, uint8_t& hi, int oLo, int oHi) {
  if (oLo - lo < hi - oHi) lo = static_cast<uint8_t>(oHi + 1);
  else hi = static_cast<uint8_t>(oLo - 1);
}

}  // namespace

void ClipRegions(Layer& layer, uint16_t keyRange, uint16_t velocityRange, Region* newRegion) {
  int nkLo = keyRange & 0xFF, nkHi = keyRange >> 8, nvLo = velocityRange & 0xFF, nvHi = velocityRange >> 8;
  for (Region* r : RegionsOf(layer)) {
    if (r == newRegion) continue;
    TriggerRecord& t = r->trigger;
    int kLo = std::max<int>(t.loKey, nkLo), kHi = std::min<int>(t.hiKey, nkHi);
    int vLo = std::max<int>(t.loVel, nvLo), vHi = std::min<int>(t.hiVel, nvHi);
    int kOv = kHi - kLo + 1, vOv = vHi - vLo + 1;
    if (kOv <= 0 || vOv <= 0) continue;
    int kW = t.hiKey - t.loKey + 1, vW = t.hiVel - t.loVel + 1;
    if (vW * kOv > kW * vOv && vOv < vW) {
      CutRange(t.loVel, t.hiVel, vLo, vHi);
      t.MarkSet(kRowLoVel);
      t.MarkSet(kRowHiVel);
      r->RebuildName();
    } else if (kOv < kW) {
      CutRange(t.loKey, t.hiKey, kLo, kHi);
      t.MarkSet(kRowLoKey);
      t.MarkSet(kRowHiKey);
      r->RebuildName();
    } else {
      DeleteItem(r);
    }
  }
}

// ---------------------------------------------------------------- names

void Region::RebuildName() {
  // Built in place: every region of every load is named, some more than once.
  const auto& app = Settings().app;
  const ParamDisplay display{app.bShowNoteNames != 0, app.cOctMidC};
  char text[4 * kNoteNameSize + sizeof name];
  char* p = text;
  char* const end = text + sizeof text;
  auto put = [&](std::string_view s) { p += s.copy(p, static_cast<std::size_t>(end - p)); };
  auto number = [&](int v) { p = std::to_chars(p, end, v).ptr; };
  p += NoteNameTo(p, trigger.loKey, display);
  if (trigger.hiKey != trigger.loKey) {
    put("..");
    p += NoteNameTo(p, trigger.hiKey, display);
  }
  if (trigger.loVel > 1 || trigger.hiVel != 127) {
    put(" : ");
    number(trigger.loVel);
    if (trigger.hiVel != trigger.loVel) {
      put("..");
      number(trigger.hiVel);
    }
  }
  put(" : ");
  if (Waveform* w = RegionWaveform(*this)) put(w->name);
  else if (SynthModel* m = RegionSynth(*this)) put(m->name);
  else put("unnamed");
  SetName(std::string_view(text, static_cast<std::size_t>(p - text)));
}

namespace {

// Case-blind key of a name: ASCII letters folded.
std::string FoldedName(std::string_view name) {
  std::string key(name);
  for (char& ch : key)
    if (ch >= 'a' && ch <= 'z') ch = static_cast<char>(ch - 32);
  return key;
}

// The next candidate for a clashing name: a trailing number counts up, any
// other name (or one ending in a note such as "C#4" or "A4") gets " 1".
void NextUniqueCandidate(Item& item) {
  std::string current = item.name;
  std::size_t n = current.size();
  bool digitAtEnd = n > 0 && current[n - 1] >= '0' && current[n - 1] <= '9';
  char before = n >= 2 ? current[n - 2] : 0;
  bool noNumber = !digitAtEnd || before == '#' || (before >= 'A' && before <= 'G');
  std::string number;
  std::size_t pos;
  if (noNumber) {
    number = " 1";
    pos = n;
  } else {
    std::size_t d = n;
    while (d > 0 && current[d - 1] >= '0' && current[d - 1] <= '9') --d;
    // Long digit runs are counted by their last nine digits.
    std::size_t from = std::max(d, n > 9 ? n - 9 : 0);
    number = std::to_string(std::stoul(current.substr(from)) + 1);
    pos = from;
  }
  // The number may overwrite the end so that the whole fits the field.
  pos = std::min(pos, static_cast<std::size_t>(kNameLength) - number.size());
  CopyText(item.name, current.substr(0, pos) + number);
}

}  // namespace

void MakeUniqueName(Item& item) {
  if (!item.collection) return;
  Collection& c = *item.collection;
  auto clashes = [&]() {
    bool clash = false;
    c.Map().ForEach([&](Item* other) {
      if (!clash && other != &item && other->Type() == item.Type() && EqualsNoCase(other->name, item.name))
        clash = true;
    });
    return clash;
  };
  while (clashes()) NextUniqueCandidate(item);
}

void MakeUniqueNames(Collection& c, ItemType type) {
  // One pass with a count per folded name gives the same result as calling
  // MakeUniqueName on each item in list order, without the quadratic scan.
  std::vector<Item*> items = c.ItemsOf(type);
  std::unordered_map<std::string, int> uses;
  for (Item* item : items) ++uses[FoldedName(item->name)];
  for (Item* item : items) {
    std::string key = FoldedName(item->name);
    while (uses[key] > 1) {
      --uses[key];
      NextUniqueCandidate(*item);
      key = FoldedName(item->name);
      ++uses[key];
    }
  }
}

// ---------------------------------------------------------------- fix-up

void Waveform::FixUp() {
  Item::FixUp();
  if (sourcePath.empty() && collection) sourcePath = collection->sourcePath;
  if (sampleRate == 0) sampleRate = 44100;
  if (rootKey > 127) rootKey = 60;
  fineTune = static_cast<int8_t>(Clamp(fineTune, -100, 100));
  volume = std::clamp(std::round(volume * 100.0f) / 100.0f, -96.0f, 96.0f);
  if (std::isnan(loopEnd) || loopEnd > static_cast<float>(length)) loopEnd = static_cast<float>(length);
  if (std::isnan(loopStart) || loopStart < 0.0f) loopStart = 0.0f;
  if (loopEnd < 0.0f) loopEnd = 0.0f;
  if (loopStart > loopEnd) loopStart = loopEnd;
  if (loopType > 3) loopType = 1;
  // A loop with no frames can't play.
  if (loopStart >= loopEnd) loopType = 0;
  uint64_t features = Features();
  if (!(features & Bit(kFeatLoopTuning))) loopPitch = 0.0f;
  loopPitch = std::clamp(loopPitch, -12.0f, 12.0f);
  if (!(features & Bit(kFeatReverseLoops)) && (loopType == 2 || loopType == 3)) loopType = 1;
  if (preferredFormat >= kPreferredFormatCount) preferredFormat = kPreferredDefault;
  if (preferredFormat == kPreferredDefault) {
    bool isFloat = samplesF || (!samples16 && IsGeneric(*this) && DecodesToFloat(SourceDataFormat(sourceFormat)));
    preferredFormat = isFloat ? 4 : 1;
  }
  if (!(features & Bit(kFeatCompressedWaves)) && preferredFormat > 4) preferredFormat = 1;
  if (bits == 0) {
    if (IsGeneric(*this)) bits = static_cast<uint8_t>(DataFormatBits(SourceDataFormat(sourceFormat)));
    else bits = samplesF ? 32 : 16;
  }
  for (char* field : {artist, engineer, copyright, product}) field[128] = 0;
  comment[255] = 0;
  name[kNameLength] = 0;
}

bool Waveform::EnsureData() {
  if (HasData()) return true;
  if (!readCallback) return Fail("Read wave-data from disk", "No wave data import procedure");
  StatusText("Reading: %s", name);
  FileRef file;
  const std::string& path = sourcePath.native();
  bool isVirtual = !path.empty() && path[0] == '<';
  if (!isVirtual) {
    if (!file.OpenRead(sourcePath)) {
      StatusText("%s", "");
      return Fail("Read wave-data from disk", "Could not open file");
    }
    if (!file.Seek(fileOffset)) {
      StatusText("%s", "");
      return Fail("Read wave-data from disk", "Could not open file");
    }
  }
  bool ok = readCallback(*this, file);
  StatusText("%s", "");
  return ok;
}

bool Waveform::HasContent() const { return HasData() || readCallback; }

void Region::FixUp() {
  Item::FixUp();
  uint64_t features = Features();
  trigger.ApplyFeatures(features);
  if (Layer* layer = LayerOf(*this)) {
    trigger.RefreshFrom(layer->trigger);
    art.Inherit(layer->art);
  }
  RebuildName();
  Waveform* wave = RegionWaveform(*this);
  int64_t length = wave ? wave->length : 0;
  if (features & Bit(kFeatRegionOffsets)) {
    if (wave) startOffset = static_cast<int32_t>(std::clamp<int64_t>(startOffset, 0, std::max<int64_t>(length - 1, 0)));
    if (endOffset > 0) endOffset = 0;
    if (wave && endOffset <= startOffset - length) endOffset = static_cast<int32_t>(startOffset - length + 1);
  } else {
    startOffset = 0;
    endOffset = 0;
  }
  if (!wave) return;
  if (rootKey >= 128) rootKey = 60;
  float len = static_cast<float>(length);
  if (std::isnan(loopEnd) || loopEnd > len) loopEnd = len;
  if (loopEnd < 0.0f) loopEnd = 0.0f;
  if (std::isnan(loopStart) || loopStart >= loopEnd) loopStart = std::max(0.0f, loopEnd - 1.0f);
  if (loopStart < 0.0f) loopStart = 0.0f;
  if (!(features & Bit(kFeatFractionalLoops))) {
    float loopLength = std::round(loopEnd - loopStart);
    loopStart = std::round(loopStart);
    loopEnd = loopStart + loopLength;
  }
}

bool Region::NeedsSynthesis() const { return RegionSynth(*this) != nullptr; }
bool Region::HasContent() const { return RegionWaveform(*this) != nullptr; }

void Layer::FixUpLevel(bool refreshRegions, std::vector<ItemId>* deferredDeletes) {
  Item::FixUp();
  trigger.ApplyFeatures(Features());
  std::vector<Region*> regions = RegionsOf(*this);
  // A layer-level exclusion is a region matter: push it down.
  for (int p : {kRowExclusionGroup, kRowNoteExclusion}) {
    if (!trigger.IsSet(p)) continue;
    float value = trigger.Get(p);
    for (Region* r : regions)
      if (!r->trigger.IsSet(p)) {
        r->trigger.Put(p, value);
        r->trigger.MarkSet(p);
      }
    trigger.Put(p, TriggerRecord{}.Get(p));
    trigger.MarkUnset(p);
  }
  for (Region* r : regions) {
    r->trigger.RefreshFrom(trigger);
    if (refreshRegions) r->art.Inherit(art);
  }
  // A stable sort on (lo-key, lo-velocity) keeps equal regions in order.
  if (regions.size() == children.size()) {
    std::stable_sort(regions.begin(), regions.end(), [](const Region* a, const Region* b) {
      return std::make_pair(a->trigger.loKey, a->trigger.loVel) < std::make_pair(b->trigger.loKey, b->trigger.loVel);
    });
    for (std::size_t i = 0; i < regions.size(); ++i) children[i] = regions[i]->id;
  }
  // Lists with other children sort around them as far as regions meet.
  for (std::size_t i = 1; i < children.size() && regions.size() != children.size(); ++i) {
    ItemId id = children[i];
    auto* r = collection->FindAs<Region>(id);
    std::size_t j = i;
    while (j > 0) {
      auto* prev = collection->FindAs<Region>(children[j - 1]);
      if (!r || !prev) break;
      if (std::make_pair(prev->trigger.loKey, prev->trigger.loVel) <=
          std::make_pair(r->trigger.loKey, r->trigger.loVel))
        break;
      children[j] = children[j - 1];
      --j;
    }
    children[j] = id;
  }
  // Resolve each region against the one before it.
  for (std::size_t i = 1; i < children.size();) {
    auto* p = collection->FindAs<Region>(children[i - 1]);
    auto* c = collection->FindAs<Region>(children[i]);
    if (!p || !c) {
      ++i;
      continue;
    }
    TriggerRecord& pt = p->trigger;
    TriggerRecord& ct = c->trigger;
    int kOv = std::max(pt.hiKey - ct.loKey + 1, 0);
    int vOv = std::max(std::min<int>(pt.hiVel, ct.hiVel) - std::max<int>(pt.loVel, ct.loVel) + 1, 0);
    if (kOv > 0 && vOv > 0) {
      int pKW = pt.hiKey - pt.loKey + 1, pVW = pt.hiVel - pt.loVel + 1;
      int cKW = ct.hiKey - ct.loKey + 1, cVW = ct.hiVel - ct.loVel + 1;
      if (pVW * kOv <= pKW * vOv || vOv >= cVW) {
        if (kOv >= cKW) {
          if (deferredDeletes) {
            children.erase(i);
            deferredDeletes->push_back(c->id);
          } else {
            DeleteItem(c);  // also leaves the child list
          }
          continue;
        }
        ct.loKey = static_cast<uint8_t>(pt.hiKey + 1);
        ct.MarkSet(kRowLoKey);
      } else {
        int oLo = std::max<int>(pt.loVel, ct.loVel), oHi = std::min<int>(pt.hiVel, ct.hiVel);
        CutRange(ct.loVel, ct.hiVel, oLo, oHi);
        ct.MarkSet(kRowLoVel);
        ct.MarkSet(kRowHiVel);
      }
      c->RebuildName();
    }
    ++i;
  }
  // No second Inherit here: sorting and resolving leave every articulation
  // as the loop above made it.
}

bool Layer::NeedsSynthesis() const {
  for (Region* r : RegionsOf(*this))
    if (r->NeedsSynthesis()) return true;
  return false;
}

bool Layer::HasContent() const {
  for (Region* r : RegionsOf(*this))
    if (r->HasContent()) return true;
  return false;
}

namespace {
std::vector<Layer*> LayersOf(const Instrument& inst) {
  std::vector<Layer*> out;
  for (ItemId child : inst.children)
    if (auto* l = inst.collection->FindAs<Layer>(child)) out.push_back(l);
  return out;
}
}  // namespace

void Instrument::FixUpLevel(bool refreshRegions) {
  Item::FixUp();
  if (sourcePath.empty() && collection) sourcePath = collection->sourcePath;
  std::vector<Layer*> layers = LayersOf(*this);
  int number = 1;
  for (Layer* layer : layers) {
    layer->SetName(("Layer " + std::to_string(number++)).c_str(), 0, TextEncoding::Utf8);
    layer->drum = LocationIsDrum(location) ? 1 : 0;
    layer->art.Inherit(art);
    if (refreshRegions)
      for (Region* r : RegionsOf(*layer)) r->art.Inherit(layer->art);
  }
  // Phase groups: a master's pitch articulation is matched into its group.
  for (Layer* masterLayer : layers) {
    for (Region* master : RegionsOf(*masterLayer)) {
      if (!master->phaseMaster || master->phaseGroup == 0) continue;
      for (Layer* layer : layers) {
        std::vector<Region*> regions = RegionsOf(*layer);
        std::size_t matched = 0;
        for (Region* r : regions) {
          if (r == master || r->phaseMaster || r->phaseGroup != master->phaseGroup ||
              !SameTrigger(r->trigger, master->trigger))
            continue;
          r->art.MatchPitchOf(master->art);
          ++matched;
        }
        if (layer != masterLayer && matched && matched == regions.size()) layer->art.MatchPitchOf(masterLayer->art);
      }
    }
  }
}

bool Instrument::NeedsSynthesis() const {
  for (Layer* l : LayersOf(*this))
    if (l->NeedsSynthesis()) return true;
  return false;
}

bool Instrument::HasContent() const {
  for (Layer* l : LayersOf(*this))
    if (l->HasContent()) return true;
  return false;
}

std::filesystem::path Instrument::GetSourcePath() const { return sourcePath; }

void Song::FixUp() {
  Item::FixUp();
  if (sourcePath.empty() && collection) sourcePath = collection->sourcePath;
}

std::filesystem::path Song::GetSourcePath() const { return sourcePath; }

void Collection::FixUp() {
  Item::FixUp();
  // Key: minor bank high, then program, then major bank low, so that a clash
  // moves to the next major bank first.
  auto keyOf = [](uint32_t loc) {
    return (LocationIsDrum(loc) ? 1u << 21 : 0u) | (LocationMinorBank(loc) << 14) | (LocationProgram(loc) << 7) |
           LocationMajorBank(loc);
  };
  std::set<uint32_t> used;
  for (Instrument* inst : All<Instrument>()) {
    uint32_t key = keyOf(inst->location);
    while (used.count(key)) key = (key + 1) & kLocationMask;
    used.insert(key);
    inst->location = MakeLocation(key & 0x7F, (key >> 14) & 0x7F, (key >> 7) & 0x7F, (key >> 21) & 1u);
  }
}

// ---------------------------------------------------------------- text parameters

void Instrument::SetParamText(int parameter, std::string_view text) {
  if (parameter == kRowComment) CopyText(comment, text);
  else Item::SetParamText(parameter, text);
}

std::string Instrument::GetParamText(int parameter) const {
  return parameter == kRowComment ? std::string(comment) : Item::GetParamText(parameter);
}

namespace {

// The five text rows a waveform and a song share, as their fields.
template <typename T>
std::span<char> SharedTextField(T& item, int parameter) {
  switch (parameter) {
    case kRowArtist: return item.artist;
    case kRowComment: return item.comment;
    case kRowCopyright: return item.copyright;
    case kRowEngineer: return item.engineer;
    case kRowProduct: return item.product;
    default: return {};
  }
}

}  // namespace

void Waveform::SetParamText(int parameter, std::string_view text) {
  std::span<char> field = SharedTextField(*this, parameter);
  if (field.empty()) Item::SetParamText(parameter, text);
  else CopyText(field.data(), field.size(), text);
}

std::string Waveform::GetParamText(int parameter) const {
  std::span<char> field = SharedTextField(const_cast<Waveform&>(*this), parameter);
  return field.empty() ? Item::GetParamText(parameter) : std::string(field.data());
}

void Song::SetParamText(int parameter, std::string_view text) {
  std::span<char> field = SharedTextField(*this, parameter);
  if (field.empty()) Item::SetParamText(parameter, text);
  else CopyText(field.data(), field.size(), text);
}

std::string Song::GetParamText(int parameter) const {
  std::span<char> field = SharedTextField(const_cast<Song&>(*this), parameter);
  return field.empty() ? Item::GetParamText(parameter) : std::string(field.data());
}

}  // namespace kv
