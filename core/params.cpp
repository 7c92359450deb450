#include "core/params.h"

#include <cmath>

#include "core/items.h"

namespace kv::params {
namespace {

bool IsArt(int p) { return p >= 0 && p < kArticulationCount; }
bool IsTrigger(int p) { return p >= kFirstTriggerParam && p <= kLastTriggerParam; }
bool IsLoop(int p) { return p >= kFirstLoopParam && p <= kLastLoopParam; }
bool IsText(int p) { return p >= kFirstTextParam && p <= kLastTextParam; }
bool IsWave(int p) { return p >= kFirstWaveParam && p <= kLastWaveParam; }
bool IsOverride(int p) { return p >= kFirstOverrideParam && p <= kLastOverrideParam; }
bool IsLocation(int p) { return p >= kFirstLocationParam && p <= kLastLocationParam; }
bool IsFx(int p) { return p >= kFirstFxParam && p < kParamCount; }

// Rounded and limited by the catalogue row; whole-number fields then take
// the nearest integer. NaN becomes 0 for integer fields, which can't hold it.
float Normalised(int p, float v, int fxType = 0) {
  const ParameterRow* row = CatalogueRow(p, fxType);
  return row ? NormaliseForRow(*row, v) : v;
}
long Whole(float v) { return std::isnan(v) ? 0 : std::lround(v); }

Instrument* OwnerInstrument(const Region& r) {
  Layer* l = LayerOf(r);
  return l ? InstrumentOf(*l) : nullptr;
}

int FxType(const Instrument& inst, int p) { return inst.fx[(p - kFirstFxParam) / kFxRowsPerSlot].type; }

const Instrument* InstrumentFor(const Item& item) {
  switch (item.Type()) {
    case ItemType::Instrument: return static_cast<const Instrument*>(&item);
    case ItemType::Layer: return InstrumentOf(static_cast<const Layer&>(item));
    case ItemType::Region: return OwnerInstrument(static_cast<const Region&>(item));
    default: return nullptr;
  }
}

// Which parameter numbers an item answers, its own or through an owner.
bool Holds(const Item& item, int p) {
  if (IsText(p)) return true;
  switch (item.Type()) {
    case ItemType::Region: return p >= 0 && p < kParamCount;
    case ItemType::Layer: return IsArt(p) || IsTrigger(p) || IsLocation(p) || IsFx(p);
    case ItemType::Instrument: return IsArt(p) || IsLocation(p) || IsFx(p);
    case ItemType::Waveform: return IsLoop(p) || IsWave(p);
    default: return false;
  }
}

template <typename Fn>
void ForEachLayer(const Instrument& inst, Fn&& fn) {
  if (!inst.collection) return;
  for (ItemId id : inst.children)
    if (Layer* l = inst.collection->FindAs<Layer>(id)) fn(*l);
}

template <typename Fn>
void ForEachRegion(const Layer& layer, Fn&& fn) {
  if (!layer.collection) return;
  for (ItemId id : layer.children)
    if (Region* r = layer.collection->FindAs<Region>(id)) fn(*r);
}

// Rows a level doesn't set follow the level above; after a change there the
// levels below are brought up to date.
void RefreshBelow(const Layer& layer, int p) {
  ForEachRegion(layer, [&](Region& r) {
    if (IsArt(p) && !r.art.IsSet(p)) r.art.value[p] = layer.art.value[p];
    if (IsTrigger(p) && !r.trigger.IsSet(p)) r.trigger.Put(p, layer.trigger.Get(p));
  });
}

void RefreshBelow(const Instrument& inst, int p) {
  ForEachLayer(inst, [&](Layer& l) {
    if (!l.art.IsSet(p)) l.art.value[p] = inst.art.value[p];
    RefreshBelow(l, p);
  });
}

void SetLocation(Instrument& inst, int p, float v) {
  const uint32_t field = static_cast<uint32_t>(Whole(Normalised(p, v)));
  uint32_t major = LocationMajorBank(inst.location), minor = LocationMinorBank(inst.location);
  uint32_t program = LocationProgram(inst.location);
  bool drum = LocationIsDrum(inst.location);
  switch (p) {
    case kRowDrumKit: drum = field != 0; break;
    case kRowBankMajor: major = field; break;
    case kRowBankMinor: minor = field; break;
    case kRowProgram: program = field; break;
    default: return;
  }
  inst.location = MakeLocation(major, minor, program, drum);
}

void SetFx(Instrument& inst, int p, float v) {
  ChannelFx& unit = inst.fx[(p - kFirstFxParam) / kFxRowsPerSlot];
  const int place = (p - kFirstFxParam) % kFxRowsPerSlot;
  const int base = p - place;
  if (place == 0) {
    const auto type = static_cast<uint8_t>(Whole(Normalised(p, v)));
    if (type == unit.type) return;
    // A new effect starts from its own defaults, inside each row's range.
    unit.type = type;
    for (int j = 0; j < kFxRowsPerSlot - 1; ++j) {
      const ParameterRow* row = CatalogueRow(base + 1 + j, type);
      unit.param[j] = row ? NormaliseForRow(*row, row->def) : 0.0f;
    }
    return;
  }
  const ParameterRow* row = CatalogueRow(p, unit.type);
  if (!row) return;  // an empty place of this effect
  float x = NormaliseForRow(*row, v);
  if (row->flags & kRowWhole) x = static_cast<float>(Whole(x));
  unit.param[place - 1] = x;
}

float GetAny(const Item& item, int p) {
  switch (item.Type()) {
    case ItemType::Region: return Get(static_cast<const Region&>(item), p);
    case ItemType::Layer: return Get(static_cast<const Layer&>(item), p);
    case ItemType::Instrument: return Get(static_cast<const Instrument&>(item), p);
    case ItemType::Waveform: return Get(static_cast<const Waveform&>(item), p);
    default: return 0.0f;
  }
}

void SetAny(Item& item, int p, float v) {
  switch (item.Type()) {
    case ItemType::Region: Set(static_cast<Region&>(item), p, v); break;
    case ItemType::Layer: Set(static_cast<Layer&>(item), p, v); break;
    case ItemType::Instrument: Set(static_cast<Instrument&>(item), p, v); break;
    case ItemType::Waveform: Set(static_cast<Waveform&>(item), p, v); break;
    default: break;
  }
}

}  // namespace

// ---- Region ----

bool IsSet(const Region& r, int p) {
  if (IsArt(p)) return r.art.IsSet(p);
  if (IsTrigger(p)) return r.trigger.IsSet(p);
  switch (p) {
    case kRowLoopType: return r.overrideMask & kOverrideLoopType;
    case kRowLoopRelease: return r.overrideMask & kOverrideLoopRelease;
    case kRowLoopStart: return r.overrideMask & kOverrideLoopStart;
    case kRowLoopEnd: return r.overrideMask & kOverrideLoopEnd;
    case kRowLoopPitch: return r.overrideMask & kOverrideLoopPitch;
    case kRowRootKeyOverride: return r.overrideMask & kOverrideRootKey;
    case kRowStartOffset: return r.startOffset != 0;
    case kRowEndOffset: return r.endOffset != 0;
    case kRowPhaseGroup: return r.phaseGroup != 0;
    case kRowPhaseMaster: return r.phaseMaster != 0;
    default: break;
  }
  if (IsWave(p)) {
    const Waveform* w = RegionWaveform(r);
    return w && IsSet(*w, p);
  }
  const Instrument* inst = OwnerInstrument(r);
  return inst && IsSet(*inst, p);
}

float Get(const Region& r, int p) {
  if (IsArt(p)) return r.art.value[p];
  if (IsTrigger(p)) return r.trigger.Get(p);
  switch (p) {
    case kRowLoopType: return r.loopType;
    case kRowLoopRelease: return r.loopRelease;
    case kRowLoopStart: return r.loopStart;
    case kRowLoopEnd: return r.loopEnd;
    case kRowLoopPitch: return r.loopPitch;
    case kRowRootKeyOverride: return r.rootKey;
    case kRowStartOffset: return static_cast<float>(r.startOffset);
    case kRowEndOffset: return static_cast<float>(r.endOffset);
    case kRowPhaseGroup: return r.phaseGroup;
    case kRowPhaseMaster: return r.phaseMaster;
    default: break;
  }
  if (IsWave(p)) {
    const Waveform* w = RegionWaveform(r);
    return w ? Get(*w, p) : 0.0f;
  }
  const Instrument* inst = OwnerInstrument(r);
  return inst ? Get(*inst, p) : 0.0f;
}

void Set(Region& r, int p, float v) {
  if (IsArt(p)) {
    r.art.Set(p, v);
    return;
  }
  if (IsTrigger(p)) {
    r.trigger.Put(p, Normalised(p, v));
    r.trigger.MarkSet(p);
    return;
  }
  if (IsLoop(p) || IsOverride(p)) {
    const float x = Normalised(p, v);
    switch (p) {
      case kRowLoopType: r.loopType = static_cast<uint8_t>(Whole(x)); r.overrideMask |= kOverrideLoopType; break;
      case kRowLoopRelease: r.loopRelease = x != 0.0f; r.overrideMask |= kOverrideLoopRelease; break;
      case kRowLoopStart: r.loopStart = x; r.overrideMask |= kOverrideLoopStart; break;
      case kRowLoopEnd: r.loopEnd = x; r.overrideMask |= kOverrideLoopEnd; break;
      case kRowLoopPitch: r.loopPitch = x; r.overrideMask |= kOverrideLoopPitch; break;
      case kRowRootKeyOverride: r.rootKey = static_cast<uint8_t>(Whole(x)); r.overrideMask |= kOverrideRootKey; break;
      case kRowStartOffset: r.startOffset = static_cast<int32_t>(Whole(x)); break;
      case kRowEndOffset: r.endOffset = static_cast<int32_t>(Whole(x)); break;
      case kRowPhaseGroup: r.phaseGroup = static_cast<uint16_t>(Whole(x)); break;
      case kRowPhaseMaster: r.phaseMaster = x != 0.0f; break;
      default: break;
    }
    return;
  }
  if (IsWave(p)) {
    if (Waveform* w = RegionWaveform(r)) Set(*w, p, v);
    return;
  }
  if (Instrument* inst = OwnerInstrument(r)) Set(*inst, p, v);
}

void Reset(Region& r, int p) {
  const Layer* layer = LayerOf(r);
  if (IsArt(p)) {
    r.art.MarkUnset(p);
    r.art.value[p] = layer ? layer->art.value[p] : Articulation().value[p];
    return;
  }
  if (IsTrigger(p)) {
    r.trigger.MarkUnset(p);
    r.trigger.Put(p, layer ? layer->trigger.Get(p) : TriggerRecord{}.Get(p));
    return;
  }
  // An override that is reset falls back to the waveform's own value.
  Waveform* w = RegionWaveform(r);
  switch (p) {
    case kRowLoopType: r.overrideMask &= ~kOverrideLoopType; r.loopType = w ? w->loopType : 0; return;
    case kRowLoopRelease: r.overrideMask &= ~kOverrideLoopRelease; r.loopRelease = w ? w->loopRelease : 0; return;
    case kRowLoopStart: r.overrideMask &= ~kOverrideLoopStart; r.loopStart = w ? w->loopStart : 0.0f; return;
    case kRowLoopEnd: r.overrideMask &= ~kOverrideLoopEnd; r.loopEnd = w ? w->loopEnd : kLoopEndDefault; return;
    case kRowLoopPitch: r.overrideMask &= ~kOverrideLoopPitch; r.loopPitch = w ? w->loopPitch : 0.0f; return;
    case kRowRootKeyOverride: r.overrideMask &= ~kOverrideRootKey; r.rootKey = w ? w->rootKey : 60; return;
    case kRowStartOffset: r.startOffset = 0; return;
    case kRowEndOffset: r.endOffset = 0; return;
    case kRowPhaseGroup: r.phaseGroup = 0; return;
    case kRowPhaseMaster: r.phaseMaster = 0; return;
    default: break;
  }
  if (IsWave(p)) {
    if (w) Reset(*w, p);
    return;
  }
  if (Instrument* inst = OwnerInstrument(r)) Reset(*inst, p);
}

// ---- Layer ----

bool IsSet(const Layer& l, int p) {
  if (IsArt(p)) return l.art.IsSet(p);
  if (IsTrigger(p)) return l.trigger.IsSet(p);
  const Instrument* inst = InstrumentOf(l);
  return (IsLocation(p) || IsFx(p)) && inst && IsSet(*inst, p);
}

float Get(const Layer& l, int p) {
  if (IsArt(p)) return l.art.value[p];
  if (IsTrigger(p)) return l.trigger.Get(p);
  const Instrument* inst = InstrumentOf(l);
  return (IsLocation(p) || IsFx(p)) && inst ? Get(*inst, p) : 0.0f;
}

void Set(Layer& l, int p, float v) {
  if (IsArt(p)) {
    l.art.Set(p, v);
    RefreshBelow(l, p);
  } else if (IsTrigger(p)) {
    l.trigger.Put(p, Normalised(p, v));
    l.trigger.MarkSet(p);
    RefreshBelow(l, p);
  } else if (IsLocation(p) || IsFx(p)) {
    if (Instrument* inst = InstrumentOf(l)) Set(*inst, p, v);
  }
}

void Reset(Layer& l, int p) {
  if (IsArt(p)) {
    const Instrument* inst = InstrumentOf(l);
    l.art.MarkUnset(p);
    l.art.value[p] = inst ? inst->art.value[p] : Articulation().value[p];
    RefreshBelow(l, p);
  } else if (IsTrigger(p)) {
    l.trigger.MarkUnset(p);
    l.trigger.Put(p, TriggerRecord{}.Get(p));
    RefreshBelow(l, p);
  } else if (IsLocation(p) || IsFx(p)) {
    if (Instrument* inst = InstrumentOf(l)) Reset(*inst, p);
  }
}

// ---- Instrument ----

bool IsSet(const Instrument& i, int p) {
  if (IsArt(p)) return i.art.IsSet(p);
  if (IsLocation(p)) return true;
  if (IsFx(p)) return FxType(i, p) != 0;
  return false;
}

float Get(const Instrument& i, int p) {
  if (IsArt(p)) return i.art.value[p];
  switch (p) {
    case kRowDrumKit: return LocationIsDrum(i.location) ? 1.0f : 0.0f;
    case kRowBankMajor: return static_cast<float>(LocationMajorBank(i.location));
    case kRowBankMinor: return static_cast<float>(LocationMinorBank(i.location));
    case kRowProgram: return static_cast<float>(LocationProgram(i.location));
    default: break;
  }
  if (IsFx(p)) {
    const ChannelFx& unit = i.fx[(p - kFirstFxParam) / kFxRowsPerSlot];
    const int place = (p - kFirstFxParam) % kFxRowsPerSlot;
    return place == 0 ? unit.type : unit.param[place - 1];
  }
  return 0.0f;
}

void Set(Instrument& i, int p, float v) {
  if (IsArt(p)) {
    i.art.Set(p, v);
    RefreshBelow(i, p);
  } else if (IsLocation(p)) {
    SetLocation(i, p, v);
  } else if (IsFx(p)) {
    SetFx(i, p, v);
  }
}

void Reset(Instrument& i, int p) {
  if (IsArt(p)) {
    i.art.ResetValue(p);
    RefreshBelow(i, p);
  } else if (IsLocation(p)) {
    SetLocation(i, p, 0.0f);
  } else if (IsFx(p)) {
    ChannelFx& unit = i.fx[(p - kFirstFxParam) / kFxRowsPerSlot];
    const int place = (p - kFirstFxParam) % kFxRowsPerSlot;
    if (place == 0) {
      unit = ChannelFx{};
    } else {
      const ParameterRow* row = CatalogueRow(p, unit.type);
      unit.param[place - 1] = row ? row->def : 0.0f;
    }
  }
}

// ---- Waveform ----

bool IsSet(const Waveform&, int p) { return IsLoop(p) || IsWave(p); }

float Get(const Waveform& w, int p) {
  switch (p) {
    case kRowLoopType: return w.loopType;
    case kRowLoopRelease: return w.loopRelease;
    case kRowLoopStart: return w.loopStart;
    case kRowLoopEnd: return w.loopEnd;
    case kRowLoopPitch: return w.loopPitch;
    case kRowSampleRate: return static_cast<float>(w.sampleRate);
    case kRowWaveRootKey: return w.rootKey;
    case kRowWaveFineTune: return w.fineTune;
    case kRowWaveVolume: return w.volume;
    case kRowPreferredFormat: return w.preferredFormat;
    default: return 0.0f;
  }
}

void Set(Waveform& w, int p, float v) {
  if (!IsLoop(p) && !IsWave(p)) return;
  const float x = Normalised(p, v);
  switch (p) {
    case kRowLoopType: w.loopType = static_cast<uint8_t>(Whole(x)); break;
    case kRowLoopRelease: w.loopRelease = x != 0.0f; break;
    case kRowLoopStart: w.loopStart = x; break;
    case kRowLoopEnd: w.loopEnd = x; break;
    case kRowLoopPitch: w.loopPitch = x; break;
    case kRowSampleRate: w.sampleRate = static_cast<uint32_t>(Whole(x)); break;
    case kRowWaveRootKey: w.rootKey = static_cast<uint8_t>(Whole(x)); break;
    case kRowWaveFineTune: w.fineTune = static_cast<int8_t>(Whole(x)); break;
    case kRowWaveVolume: w.volume = x; break;
    case kRowPreferredFormat: w.preferredFormat = static_cast<uint8_t>(Whole(x)); break;
    default: break;
  }
}

void Reset(Waveform& w, int p) {
  switch (p) {
    case kRowLoopType: w.loopType = 0; break;
    case kRowLoopRelease: w.loopRelease = 0; break;
    case kRowLoopStart: w.loopStart = 0.0f; break;
    case kRowLoopEnd: w.loopEnd = static_cast<float>(w.length); break;
    case kRowLoopPitch: w.loopPitch = 0.0f; break;
    case kRowSampleRate: w.sampleRate = 22050; break;
    case kRowWaveRootKey: w.rootKey = 60; break;
    case kRowWaveFineTune: w.fineTune = 0; break;
    case kRowWaveVolume: w.volume = 0.0f; break;
    case kRowPreferredFormat: w.preferredFormat = 21; break;
    default: break;
  }
}

// ---- any item ----

const ParameterRow* Descriptor(const Item& item, int p, uint64_t features) {
  if (!Holds(item, p)) return nullptr;
  int fxType = 0;
  if (IsFx(p)) {
    const Instrument* inst = InstrumentFor(item);
    if (!inst) return nullptr;
    fxType = FxType(*inst, p);
  }
  return LookupRow(p, features, fxType);
}

float Default(const Item& item, int p, uint64_t features) {
  const ParameterRow* row = Descriptor(item, p, features);
  return row ? row->def : 0.0f;
}

std::string GetText(const Item& item, int p, const ParamDisplay& display, uint64_t features) {
  const ParameterRow* row = Descriptor(item, p, features);
  if (!row || row->kind == kKindText) return {};
  return ValueText(*row, GetAny(item, p), display);
}

bool SetText(Item& item, int p, std::string_view text, const ParamDisplay& display, uint64_t features) {
  const ParameterRow* row = Descriptor(item, p, features);
  if (!row || row->kind == kKindText) return false;
  float v = 0;
  if (!ParseValueText(*row, text, display, &v)) return false;
  SetAny(item, p, v);
  return true;
}

void SetPropagating(Item& item, int p, float v) {
  const float before = GetAny(item, p);
  SetAny(item, p, v);
  const float delta = GetAny(item, p) - before;
  if (delta == 0.0f || !(IsArt(p) || IsTrigger(p))) return;
  auto carry = [&](Region& r) {
    if (IsArt(p) && r.art.IsSet(p)) r.art.Set(p, r.art.value[p] + delta);
    if (IsTrigger(p) && r.trigger.IsSet(p)) r.trigger.Put(p, Normalised(p, r.trigger.Get(p) + delta));
  };
  if (item.Type() == ItemType::Layer) {
    ForEachRegion(static_cast<Layer&>(item), carry);
  } else if (item.Type() == ItemType::Instrument && IsArt(p)) {
    ForEachLayer(static_cast<Instrument&>(item), [&](Layer& l) {
      if (l.art.IsSet(p)) l.art.Set(p, l.art.value[p] + delta);
      ForEachRegion(l, carry);
    });
  }
}

}  // namespace kv::params
