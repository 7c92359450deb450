#include "core/instrument_ops.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "core/error.h"
#include "core/resolved.h"
#include "core/wave_edit.h"
#include "core/wavestore.h"

namespace kv {

namespace {

std::vector<Region*> RegionsIn(const Layer& layer) {
  std::vector<Region*> out;
  for (ItemId id : layer.children)
    if (auto* r = layer.collection->FindAs<Region>(id)) out.push_back(r);
  return out;
}

std::vector<Layer*> LayersIn(const Instrument& inst) {
  std::vector<Layer*> out;
  for (ItemId id : inst.children)
    if (auto* l = inst.collection->FindAs<Layer>(id)) out.push_back(l);
  return out;
}

Instrument* InstrumentOfRegion(const Region& r) {
  Layer* layer = LayerOf(r);
  return layer ? InstrumentOf(*layer) : nullptr;
}

std::string TrimRight(std::string s) {
  while (!s.empty() && static_cast<unsigned char>(s.back()) <= ' ') s.pop_back();
  return s;
}

// "Piano L", "Piano-L", "Piano -R": the stem and the side ('L' or 'R').
bool SideOfName(std::string_view name, std::string& stem, char& side) {
  if (name.size() < 3) return false;
  const char last = name.back();
  const char sep = name[name.size() - 2];
  if (last != 'L' && last != 'R') return false;
  if (sep != ' ' && sep != '-') return false;
  stem = TrimRight(std::string(name.substr(0, name.size() - 2)));
  if (stem.empty()) return false;
  side = last;
  return true;
}

// Every child entry and model wave reference equal to `from` becomes `to`.
void Retarget(Collection& c, ItemId from, ItemId to) {
  for (Region* r : c.All<Region>())
    for (ItemId& child : r->children)
      if (child == from) child = to;
  for (SynthModel* m : c.All<SynthModel>()) {
    for (ItemId& child : m->children)
      if (child == from) child = to;
    m->ForEachWaveRef([&](uint32_t serial) { return serial == SerialOf(from) ? SerialOf(to) : serial; });
  }
}

std::set<ItemId> UsedWaves(Collection& c) {
  std::set<ItemId> used;
  auto note = [&](ItemId id) {
    if (TypeOf(id) != ItemType::Waveform) return;
    if (Item* w = c.Find(id)) used.insert(w->id);
  };
  for (Region* r : c.All<Region>())
    for (ItemId child : r->children) note(child);
  for (SynthModel* m : c.All<SynthModel>()) {
    for (ItemId child : m->children) note(child);
    m->ForEachWaveRef([&](uint32_t serial) {
      note(MakeId(ItemType::Waveform, serial));
      return serial;
    });
  }
  return used;
}

// Two mono halves make one stereo wave only when one loop serves both.
bool SameLoop(const Waveform& a, const Waveform& b) {
  return a.loopType == b.loopType && a.loopRelease == b.loopRelease && a.loopStart == b.loopStart &&
         a.loopEnd == b.loopEnd && a.loopPitch == b.loopPitch && a.fineTune == b.fineTune;
}

// Whether region `b` plays exactly as `a` apart from its pan, so that `a`
// alone can play both halves once they share a stereo wave.
bool PlaysAlike(const Region& a, const Region& b) {
  if (a.rootKey != b.rootKey || a.overrideMask != b.overrideMask || a.loopType != b.loopType ||
      a.loopRelease != b.loopRelease || a.loopStart != b.loopStart || a.loopEnd != b.loopEnd ||
      a.loopPitch != b.loopPitch || a.startOffset != b.startOffset || a.endOffset != b.endOffset)
    return false;
  const ResolvedRegion ra = ResolveRegion(a);
  const ResolvedRegion rb = ResolveRegion(b);
  for (int i = 0; i < kArticulationCount; ++i)
    if (i != kRowPan && ra.art.value[i] != rb.art.value[i]) return false;
  return true;
}

bool FullPan(float a, float b) { return (a <= -0.9f && b >= 0.9f) || (a >= 0.9f && b <= -0.9f); }

}  // namespace

// ---------------------------------------------------------------- stereo pairs

int MergeStereoPairs(Collection& c) {
  struct Side {
    std::string stem;
    Waveform* wave;
  };
  std::vector<Side> lefts, rights;
  for (Waveform* w : c.All<Waveform>()) {
    std::string stem;
    char side = 0;
    if (w->channels != 1 || !SideOfName(w->Name(), stem, side)) continue;
    (side == 'L' ? lefts : rights).push_back({stem, w});
  }
  int merged = 0;
  std::set<Waveform*> taken;
  for (Side& l : lefts) {
    Waveform* left = l.wave;
    Waveform* right = nullptr;
    for (Side& r : rights)
      if (!taken.count(r.wave) && r.stem == l.stem && r.wave->length == left->length &&
          r.wave->sampleRate == left->sampleRate && r.wave->rootKey == left->rootKey && SameLoop(*r.wave, *left)) {
        right = r.wave;
        break;
      }
    if (!right) continue;
    // The right half's regions: a partner on the left half with the same
    // ranges in the same instrument absorbs it; any other plays the pair.
    std::vector<Region*> regions = c.All<Region>();
    auto partnerOf = [&](const Region& r) -> Region* {
      Instrument* inst = InstrumentOfRegion(r);
      for (Region* p : regions)
        if (p != &r && RegionWaveform(*p) == left && InstrumentOfRegion(*p) == inst &&
            p->trigger.SameRanges(r.trigger))
          return p;
      return nullptr;
    };
    // A partner set up differently (envelope, tuning, loop) would lose the
    // right half's own settings when it absorbs it. A stereo wave plays its
    // left half on the left: a pair panned any other way (swapped, centred,
    // narrowed) would change sides or width.
    const bool alike = std::ranges::all_of(regions, [&](Region* r) {
      if (RegionWaveform(*r) != right) return true;
      const Region* p = partnerOf(*r);
      return !p || (PlaysAlike(*p, *r) && ResolveRegion(*p).pan.position <= -0.9f &&
                    ResolveRegion(*r).pan.position >= 0.9f);
    });
    if (!alike || !LoadForProcessing(*left) || !LoadForProcessing(*right)) continue;
    if (!InterleaveInto(*left, *left, *right)) {
      ClearError();
      continue;
    }
    taken.insert(right);
    left->SetName(l.stem);

    for (Region* r : std::vector<Region*>(regions)) {
      if (RegionWaveform(*r) != right) continue;
      Region* partner = partnerOf(*r);
      if (!partner) {
        SetRegionWaveform(*r, left->id);
        continue;
      }
      // A dual-mono pair panned hard apart plays centred as one stereo wave.
      if (FullPan(partner->art.value[kRowPan], r->art.value[kRowPan])) partner->art.Set(kRowPan, 0.0f);
      partner->phaseMaster |= r->phaseMaster;
      Layer* layer = LayerOf(*r);
      DeleteItem(r);
      std::erase(regions, r);
      if (layer && layer->children.empty()) DeleteItem(layer);
    }
    Retarget(c, right->id, left->id);
    DeleteItem(right);
    ++merged;
  }
  return merged;
}

int SplitStereoWaves(Collection& c) {
  std::map<ItemId, ItemId> rightOf;
  for (Waveform* w : c.All<Waveform>()) {
    if (w->channels != 2 || !LoadForProcessing(*w)) continue;
    const std::string base = StereoSplitBase(w->Name());

    auto* right = static_cast<Waveform*>(CloneItem(*w, c, (base + " -R").c_str(), false));
    bool ok;
    if (w->samples16) {
      auto l = TakeChannel(w->samples16.get(), w->length, 0);
      auto r = TakeChannel(w->samples16.get(), w->length, 1);
      ok = l && r;
      if (ok) {
        w->samples16 = std::move(l);
        right->samples16 = std::move(r);
      }
    } else {
      auto l = TakeChannel(w->samplesF.get(), w->length, 0);
      auto r = TakeChannel(w->samplesF.get(), w->length, 1);
      ok = l && r;
      if (ok) {
        w->samplesF = std::move(l);
        right->samplesF = std::move(r);
      }
    }
    if (!ok) {
      DeleteItem(right);
      continue;
    }
    for (Waveform* half : {w, right}) {
      half->channels = 1;
      half->readCallback = nullptr;
      half->samples16 ? half->samplesF.reset() : half->samples16.reset();
    }
    w->SetName(base + " -L");
    rightOf[w->id] = right->id;
  }
  if (rightOf.empty()) return 0;

  // Each layer that plays split waves gets a partner layer for the right side.
  for (Layer* layer : c.All<Layer>()) {
    Instrument* inst = InstrumentOf(*layer);
    if (!inst) continue;
    Layer* partner = nullptr;
    for (Region* r : RegionsIn(*layer)) {
      Waveform* wave = RegionWaveform(*r);
      auto it = wave ? rightOf.find(wave->id) : rightOf.end();
      if (it == rightOf.end()) continue;
      if (!partner) {
        partner = Create<Layer>(c, layer->name);
        partner->trigger = layer->trigger;
        partner->art = layer->art;
        partner->drum = layer->drum;
        partner->parentId = inst->id;
        AddChild(*inst, partner->id);
      }
      auto* copy = static_cast<Region*>(CloneItem(*r, c));
      copy->parentId = partner->id;
      AddChild(*partner, copy->id);
      SetRegionWaveform(*copy, it->second);
      r->art.Set(kRowPan, -1.0f);
      copy->art.Set(kRowPan, 1.0f);
      copy->RebuildName();
      r->RebuildName();
    }
    if (partner) inst->FixUp();
  }
  return static_cast<int>(rightOf.size());
}

// ---------------------------------------------------------------- layers

namespace {
void VelocityMask(int lo, int hi, uint64_t out[2]) {
  lo = std::max(lo, 0);
  hi = std::min(hi, 127);
  for (int w = 0; w < 2; ++w) {
    const int a = std::max(lo, 64 * w), b = std::min(hi, 64 * w + 63);
    out[w] = a > b ? 0 : (~uint64_t{0} >> (63 - (b - a))) << (a - 64 * w);
  }
}
}  // namespace

bool KeyVelocityCells::Overlaps(int loKey, int hiKey, int loVel, int hiVel) const {
  uint64_t m[2];
  VelocityMask(loVel, hiVel, m);
  for (int k = std::max(loKey, 0); k <= std::min(hiKey, 127); ++k)
    if ((row_[k][0] & m[0]) | (row_[k][1] & m[1])) return true;
  return false;
}

void KeyVelocityCells::Add(int loKey, int hiKey, int loVel, int hiVel) {
  uint64_t m[2];
  VelocityMask(loVel, hiVel, m);
  for (int k = std::max(loKey, 0); k <= std::min(hiKey, 127); ++k) {
    row_[k][0] |= m[0];
    row_[k][1] |= m[1];
  }
}

namespace {

bool SameTriggerRecord(const TriggerRecord& a, const TriggerRecord& b) {
  if (a.setMask != b.setMask) return false;
  for (int p = TriggerRecord::kFirst; p <= TriggerRecord::kLast; ++p)
    if (a.Get(p) != b.Get(p)) return false;
  return true;
}

bool Overlap(const TriggerRecord& a, const TriggerRecord& b) {
  return a.loKey <= b.hiKey && b.loKey <= a.hiKey && a.loVel <= b.hiVel && b.loVel <= a.hiVel;
}

}  // namespace

int CompactLayers(Collection& c) {
  int merged = 0;
  for (Instrument* inst : c.All<Instrument>()) {
    std::vector<Layer*> layers = LayersIn(*inst);
    if (layers.size() < 2) continue;
    bool changed = false;
    for (std::size_t i = 0; i < layers.size(); ++i) {
      Layer* base = layers[i];
      if (!base) continue;
      for (std::size_t j = i + 1; j < layers.size(); ++j) {
        Layer* other = layers[j];
        if (!other || !SameTriggerRecord(base->trigger, other->trigger) || !(base->art == other->art)) continue;
        std::vector<Region*> mine = RegionsIn(*base), theirs = RegionsIn(*other);
        bool clash = false;
        for (Region* a : mine)
          for (Region* b : theirs) clash |= Overlap(a->trigger, b->trigger);
        if (clash) continue;
        for (Region* r : theirs) {
          r->parentId = base->id;
          AddChild(*base, r->id);
        }
        other->children.clear();
        DeleteItem(other);
        layers[j] = nullptr;
        ++merged;
        changed = true;
      }
      // The moved regions inherited from an articulation equal to the one
      // they inherit from now: sorting and renaming are all that is left.
      if (changed) base->FixUpLevel(false);
    }
    if (changed) inst->FixUpLevel(false);
  }
  return merged;
}

int MoveTriggerParamsUp(Collection& c) {
  int changed = 0;
  for (Layer* layer : c.All<Layer>()) {
    std::vector<Region*> regions = RegionsIn(*layer);
    if (regions.empty()) continue;
    bool moved = false;
    uint64_t anySet = 0;  // most layers set nothing here: one pass tells
    for (Region* r : regions) anySet |= r->trigger.setMask;
    for (int p = TriggerRecord::kFirst; p <= TriggerRecord::kLast; ++p) {
      // Ranges are each region's own; exclusions are pushed down by the layer's fix-up.
      if ((p >= kRowLoKey && p <= kRowHiVel) || p == kRowExclusionGroup || p == kRowNoteExclusion) continue;
      if (!((anySet >> (p - TriggerRecord::kFirst)) & 1u)) continue;
      const float value = regions.front()->trigger.Get(p);
      bool anySet = false, allEqual = true;
      for (Region* r : regions) {
        anySet |= r->trigger.IsSet(p);
        allEqual &= r->trigger.Get(p) == value;
      }
      if (!anySet || !allEqual) continue;
      layer->trigger.Put(p, value);
      layer->trigger.MarkSet(p);
      for (Region* r : regions) r->trigger.MarkUnset(p);
      moved = true;
    }
    changed += moved;
  }
  return changed;
}

int MoveArticulationUp(Collection& c) {
  int changed = 0;
  for (Instrument* inst : c.All<Instrument>()) {
    std::vector<Layer*> layers = LayersIn(*inst);
    std::vector<Articulation*> layerArts;
    for (Layer* layer : layers) {
      std::vector<Articulation*> arts;
      for (Region* r : RegionsIn(*layer)) arts.push_back(&r->art);
      changed += MoveUpIfAllEqual(layer->art, arts, true);
      layerArts.push_back(&layer->art);
    }
    changed += MoveUpIfAllEqual(inst->art, layerArts, true);
    inst->FixUp();
  }
  return changed;
}

// ---------------------------------------------------------------- waveforms

int RemoveDuplicateWaves(Collection& c, uint64_t* bytesFreed) {
  std::vector<Waveform*> waves = c.All<Waveform>();
  // Cheap fields first; samples are read only for waves that share them.
  auto key = [](const Waveform* w) {
    return std::make_tuple(w->length, w->channels, w->sampleRate, w->loopType, w->loopRelease, w->loopStart,
                           w->loopEnd, w->loopPitch, w->preferredFormat);
  };
  std::vector<bool> gone(waves.size(), false);
  std::vector<std::pair<Waveform*, Waveform*>> duplicates;  // (duplicate, kept)
  for (std::size_t i = 0; i < waves.size(); ++i) {
    if (gone[i]) continue;
    for (std::size_t j = i + 1; j < waves.size(); ++j) {
      if (gone[j] || key(waves[i]) != key(waves[j])) continue;
      Waveform& a = *waves[i];
      Waveform& b = *waves[j];
      if (!LoadForProcessing(a)) break;
      if (!LoadForProcessing(b)) continue;
      const uint64_t n = a.SampleCount();
      bool same = false;
      if (a.samples16 && b.samples16) same = std::memcmp(a.samples16.get(), b.samples16.get(), n * 2) == 0;
      else if (a.samplesF && b.samplesF) same = std::memcmp(a.samplesF.get(), b.samplesF.get(), n * 4) == 0;
      if (!same) continue;
      gone[j] = true;
      duplicates.push_back({&b, &a});
    }
  }
  uint64_t bytes = 0;
  for (auto [dup, kept] : duplicates) {
    bytes += EstimatedSize(*dup, false);
    Retarget(c, dup->id, kept->id);
    DeleteItem(dup);
  }
  for (Region* r : c.All<Region>()) r->RebuildName();
  if (bytesFreed) *bytesFreed = bytes;
  return static_cast<int>(duplicates.size());
}

int DeleteUnusedWaves(Collection& c, uint64_t* bytesFreed) {
  std::set<ItemId> used = UsedWaves(c);
  uint64_t bytes = 0;
  int count = 0;
  for (Waveform* w : c.All<Waveform>()) {
    if (used.count(w->id)) continue;
    bytes += EstimatedSize(*w, false);
    DeleteItem(w);
    ++count;
  }
  if (bytesFreed) *bytesFreed = bytes;
  return count;
}

// ---------------------------------------------------------------- loops

namespace {

// The sanitizer's points and length as its steps change them. A first run
// without data (`data` null) finds the final length, so that one buffer of
// that size is taken before anything changes; the second run fills it.
struct LoopPlan {
  float start = 0, end = 0;
  uint8_t type = 0;
  uint64_t length = 0;
  bool dataChanged = false;
};

inline int64_t Whole(float v) { return static_cast<int64_t>(v + 0.5f); }

template <typename T>
void SanitizeSteps(LoopPlan& p, T* data, uint32_t ch, bool alternating, bool reverse, bool min32, bool after32,
                   bool before32, bool sustain) {
  auto frames = [&](uint64_t frame) { return data + frame * ch; };
  auto copyFrame = [&](uint64_t to, uint64_t from) { std::memcpy(frames(to), frames(from), sizeof(T) * ch); };
  // Grows to `length`, the new frames silent.
  auto growTo = [&](uint64_t length) {
    if (length <= p.length) return;
    if (data) std::memset(frames(p.length), 0, sizeof(T) * ch * (length - p.length));
    p.length = length;
  };
  int64_t loopLength = Whole(p.end - p.start);

  if ((alternating && p.type == 3) || (reverse && p.type == 2)) {
    const int64_t s = Whole(p.start);
    growTo(static_cast<uint64_t>(s + 2 * loopLength));
    if (data)
      for (int64_t i = 0; i < loopLength; ++i) copyFrame(s + loopLength + i, s + loopLength - 1 - i);
    p.start = static_cast<float>(p.type == 2 ? s + loopLength : s);
    p.end = static_cast<float>(s + 2 * loopLength);
    p.type = 1;
    p.dataChanged = true;
    loopLength = Whole(p.end - p.start);
  }

  if (min32 && loopLength > 0 && loopLength < 32) {
    const int64_t copies = (loopLength + 31) / loopLength;
    if (copies > 1) {
      const int64_t s = Whole(p.start);
      const uint64_t at = static_cast<uint64_t>(s + loopLength);
      const uint64_t inserted = static_cast<uint64_t>((copies - 1) * loopLength);
      growTo(at);
      const uint64_t tail = p.length - at;
      if (data) {
        std::memmove(frames(at + inserted), frames(at), sizeof(T) * ch * tail);
        for (uint64_t k = 0; k < inserted; ++k) copyFrame(at + k, s + k % loopLength);
      }
      p.length += inserted;
      // The old length's fraction beyond the whole frames stays on the end.
      const float fraction = (p.end - p.start) - static_cast<float>(loopLength);
      p.end = p.start + static_cast<float>(copies * loopLength) + fraction;
      p.dataChanged = true;
    }
  }

  if (after32) {
    const auto e = static_cast<uint32_t>(Whole(p.end));
    // Unsigned on purpose: an end past the length never asks for more.
    if (static_cast<uint32_t>(static_cast<uint32_t>(p.length) - e) < 32u) {
      if (sustain) {
        growTo(uint64_t{e} + 32);  // the release stays; silence follows it
      } else {
        const int64_t s = Whole(p.start);
        const int64_t span = int64_t{e} - s;
        p.length = e;
        if (data && span > 0)
          for (uint32_t i = 0; i < 32; ++i) copyFrame(uint64_t{e} + i, static_cast<uint64_t>(s + i % span));
        else if (data)
          std::memset(frames(e), 0, sizeof(T) * ch * 32);
        p.length = uint64_t{e} + 32;
      }
      p.dataChanged = true;
    }
  }

  if (before32 && p.start < 32.0f) {
    const int64_t k = 32 - Whole(p.start);
    if (k > 0) {
      if (data) {
        std::memmove(frames(k), frames(0), sizeof(T) * ch * p.length);
        std::memset(frames(0), 0, sizeof(T) * ch * k);
      }
      p.length += k;
      p.start += static_cast<float>(k);
      p.end += static_cast<float>(k);
      p.dataChanged = true;
    }
  }
}

}  // namespace

bool sanitizeLoop(Waveform& w, bool alternating, bool reverse, bool min32, bool after32, bool before32) {
  if (w.loopType == 0) return false;
  const uint32_t n = w.length;
  LoopPlan p;
  p.start = std::max(w.loopStart, 0.0f);
  p.end = std::min(w.loopEnd, static_cast<float>(n));
  p.type = w.loopType;
  p.length = n;
  const int64_t oldStart = Whole(p.start), oldEnd = Whole(p.end);
  if (Whole(p.end - p.start) <= 0) {
    w.loopType = 0;
    return true;
  }
  const bool sustain = w.loopRelease != 0;
  SanitizeSteps<float>(p, nullptr, w.channels, alternating, reverse, min32, after32, before32, sustain);
  if (p.dataChanged) {
    if (p.length >= UINT32_MAX) return Fail("Loop tools", "Out of memory");
    if (!OwnData(w)) return false;
    const uint32_t ch = w.channels;
    const uint64_t keep = uint64_t{n} * ch, count = p.length * ch;
    LoopPlan run = p;
    run.start = std::max(w.loopStart, 0.0f);
    run.end = std::min(w.loopEnd, static_cast<float>(n));
    run.type = w.loopType;
    run.length = n;
    // All steps on one new buffer, swapped in once: a failure leaves the wave whole.
    if (w.samples16) {
      auto out = TryAllocArray<int16_t>(count + 1);
      if (!out) return Fail("Loop tools", "Out of memory");
      std::copy_n(w.samples16.get(), keep, out.get());
      SanitizeSteps(run, out.get(), ch, alternating, reverse, min32, after32, before32, sustain);
      w.samples16 = std::move(out);
    } else {
      auto out = TryAllocArray<float>(count + 1);
      if (!out) return Fail("Loop tools", "Out of memory");
      std::copy_n(w.samplesF.get(), keep, out.get());
      SanitizeSteps(run, out.get(), ch, alternating, reverse, min32, after32, before32, sustain);
      w.samplesF = std::move(out);
    }
    w.length = static_cast<uint32_t>(p.length);
  }
  const bool changed = p.dataChanged || p.type != w.loopType || p.start != w.loopStart || p.end != w.loopEnd;
  w.loopType = p.type;
  w.loopStart = p.start;
  w.loopEnd = p.end;
  if (changed && w.collection) FollowLoopChange(*w.collection, w, oldStart, oldEnd, Whole(p.start), Whole(p.end));
  return true;
}

}  // namespace kv
