// The parameter slots of the item classes: which level holds which
// parameter numbers, and the set bits that record explicit values.
#include <algorithm>
#include <cmath>

#include "core/items.h"

namespace kv {

namespace {

bool IsArticulation(int p) { return p >= 0 && p < kArticulationCount; }
bool IsTrigger(int p) { return p >= TriggerRecord::kFirst && p <= TriggerRecord::kLast; }
bool IsLocation(int p) { return p >= 225 && p <= 228; }

// Ranges of the trigger and override rows; the catalogue gives the rest.
float ClampTrigger(int p, float v) {
  switch (p) {
    case 189: return std::clamp(v, 0.0f, 17.0f);
    case 194: case 195: case 197: case 198: return std::clamp(v, 0.0f, 126.0f);
    case 196: case 199: case 203: return std::clamp(v, 0.0f, 1.0f);
    case 200: return std::clamp(v, 0.0f, 2.0f);
    case 201: return std::clamp(v, 0.0f, 100.0f);
    case 202: return std::clamp(v, 0.0f, 65535.0f);
    default: return std::clamp(v, 0.0f, 127.0f);
  }
}

}  // namespace

float Item::GetParamDefault(int parameter) const {
  if (IsArticulation(parameter)) return Articulation().value[parameter];
  if (IsTrigger(parameter)) return TriggerRecord{}.Get(parameter);
  return 0.0f;
}

const ParameterRow* Item::GetParamDescriptor(int) const { return nullptr; }

// ---- Region ----

bool Region::IsParamSet(int p) const {
  if (IsArticulation(p)) return art.IsSet(p);
  if (IsTrigger(p)) return trigger.IsSet(p);
  switch (p) {
    case 220: return overrideMask & kOverrideRootKey;
    case 204: return overrideMask & kOverrideLoopType;
    case 205: return overrideMask & kOverrideLoopRelease;
    case 206: return overrideMask & kOverrideLoopStart;
    case 207: return overrideMask & kOverrideLoopEnd;
    case 208: return overrideMask & kOverrideLoopPitch;
    case 221: return startOffset != 0;
    case 222: return endOffset != 0;
    case 223: return phaseGroup != 0;
    case 224: return phaseMaster != 0;
    default: return false;
  }
}

float Region::GetParam(int p) const {
  if (IsArticulation(p)) return art.value[p];
  if (IsTrigger(p)) return trigger.Get(p);
  switch (p) {
    case 204: return loopType;
    case 205: return loopRelease;
    case 206: return loopStart;
    case 207: return loopEnd;
    case 208: return loopPitch;
    case 220: return rootKey;
    case 221: return static_cast<float>(startOffset);
    case 222: return static_cast<float>(endOffset);
    case 223: return phaseGroup;
    case 224: return phaseMaster;
    default: return 0.0f;
  }
}

void Region::SetParam(int p, float v) {
  if (IsArticulation(p)) {
    art.value[p] = v;
    art.MarkSet(p);
    return;
  }
  if (IsTrigger(p)) {
    trigger.Put(p, ClampTrigger(p, v));
    trigger.MarkSet(p);
    return;
  }
  switch (p) {
    case 204: loopType = static_cast<uint8_t>(std::clamp(v, 0.0f, 3.0f)); overrideMask |= kOverrideLoopType; break;
    case 205: loopRelease = v != 0.0f; overrideMask |= kOverrideLoopRelease; break;
    case 206: loopStart = std::max(v, 0.0f); overrideMask |= kOverrideLoopStart; break;
    case 207: loopEnd = std::max(v, 0.0f); overrideMask |= kOverrideLoopEnd; break;
    case 208: loopPitch = std::clamp(v, -12.0f, 12.0f); overrideMask |= kOverrideLoopPitch; break;
    case 220: rootKey = static_cast<uint8_t>(std::clamp(v, 0.0f, 127.0f)); overrideMask |= kOverrideRootKey; break;
    case 221: startOffset = static_cast<int32_t>(std::clamp(v, 0.0f, 1000000.0f)); break;
    case 222: endOffset = static_cast<int32_t>(std::clamp(v, -1000000.0f, 0.0f)); break;
    case 223: phaseGroup = static_cast<uint16_t>(std::clamp(v, 0.0f, 65535.0f)); break;
    case 224: phaseMaster = v != 0.0f; break;
    default: break;
  }
}

void Region::ResetParam(int p) {
  Layer* layer = LayerOf(*this);
  if (IsArticulation(p)) {
    art.MarkUnset(p);
    art.value[p] = layer ? layer->art.value[p] : Articulation().value[p];
    return;
  }
  if (IsTrigger(p)) {
    trigger.MarkUnset(p);
    trigger.Put(p, layer ? layer->trigger.Get(p) : TriggerRecord{}.Get(p));
    return;
  }
  // An override that is reset falls back to the waveform's own value.
  Waveform* wave = RegionWaveform(*this);
  switch (p) {
    case 204: overrideMask &= ~kOverrideLoopType; loopType = wave ? wave->loopType : 0; break;
    case 205: overrideMask &= ~kOverrideLoopRelease; loopRelease = wave ? wave->loopRelease : 0; break;
    case 206: overrideMask &= ~kOverrideLoopStart; loopStart = wave ? wave->loopStart : 0.0f; break;
    case 207: overrideMask &= ~kOverrideLoopEnd; loopEnd = wave ? wave->loopEnd : kLoopEndDefault; break;
    case 208: overrideMask &= ~kOverrideLoopPitch; loopPitch = wave ? wave->loopPitch : 0.0f; break;
    case 220: overrideMask &= ~kOverrideRootKey; rootKey = wave ? wave->rootKey : 60; break;
    case 221: startOffset = 0; break;
    case 222: endOffset = 0; break;
    case 223: phaseGroup = 0; break;
    case 224: phaseMaster = 0; break;
    default: break;
  }
}

// ---- Layer ----

bool Layer::IsParamSet(int p) const {
  if (IsArticulation(p)) return art.IsSet(p);
  if (IsTrigger(p)) return trigger.IsSet(p);
  return false;
}

float Layer::GetParam(int p) const {
  if (IsArticulation(p)) return art.value[p];
  if (IsTrigger(p)) return trigger.Get(p);
  return 0.0f;
}

void Layer::SetParam(int p, float v) {
  if (IsArticulation(p)) {
    art.value[p] = v;
    art.MarkSet(p);
  } else if (IsTrigger(p)) {
    trigger.Put(p, ClampTrigger(p, v));
    trigger.MarkSet(p);
  }
}

void Layer::ResetParam(int p) {
  Instrument* inst = InstrumentOf(*this);
  if (IsArticulation(p)) {
    art.MarkUnset(p);
    art.value[p] = inst ? inst->art.value[p] : Articulation().value[p];
  } else if (IsTrigger(p)) {
    trigger.MarkUnset(p);
    trigger.Put(p, TriggerRecord{}.Get(p));
  }
}

// ---- Instrument ----

bool Instrument::IsParamSet(int p) const {
  if (IsArticulation(p)) return art.IsSet(p);
  if (IsLocation(p)) return true;
  if (p >= 229 && p <= 260) return fx[(p - 229) / 8].type != 0;
  return false;
}

float Instrument::GetParam(int p) const {
  if (IsArticulation(p)) return art.value[p];
  switch (p) {
    case 225: return LocationIsDrum(location) ? 1.0f : 0.0f;
    case 226: return static_cast<float>(LocationMajorBank(location));
    case 227: return static_cast<float>(LocationMinorBank(location));
    case 228: return static_cast<float>(LocationProgram(location));
    default: break;
  }
  if (p >= 229 && p <= 260) {
    const ChannelFx& unit = fx[(p - 229) / 8];
    int slot = (p - 229) % 8;
    return slot == 0 ? unit.type : unit.param[slot - 1];
  }
  return 0.0f;
}

void Instrument::SetParam(int p, float v) {
  if (IsArticulation(p)) {
    art.value[p] = v;
    art.MarkSet(p);
    return;
  }
  auto field = [&](float x) { return static_cast<uint32_t>(std::clamp(std::lround(x), 0L, 127L)); };
  switch (p) {
    case 225:
      location = MakeLocation(LocationMajorBank(location), LocationMinorBank(location), LocationProgram(location), v != 0.0f);
      return;
    case 226:
      location = MakeLocation(field(v), LocationMinorBank(location), LocationProgram(location), LocationIsDrum(location));
      return;
    case 227:
      location = MakeLocation(LocationMajorBank(location), field(v), LocationProgram(location), LocationIsDrum(location));
      return;
    case 228:
      location = MakeLocation(LocationMajorBank(location), LocationMinorBank(location), field(v), LocationIsDrum(location));
      return;
    default: break;
  }
  if (p >= 229 && p <= 260) {
    ChannelFx& unit = fx[(p - 229) / 8];
    int slot = (p - 229) % 8;
    if (slot == 0) unit.type = static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 8L));
    else unit.param[slot - 1] = v;
  }
}

void Instrument::ResetParam(int p) {
  if (IsArticulation(p)) {
    art.MarkUnset(p);
    art.value[p] = Articulation().value[p];
    // Levels below that didn't set the parameter take the restored value.
    for (ItemId layerId : children) {
      auto* layer = collection->FindAs<Layer>(layerId);
      if (!layer) continue;
      if (!layer->art.IsSet(p)) layer->art.value[p] = art.value[p];
      for (ItemId regionId : layer->children)
        if (auto* region = collection->FindAs<Region>(regionId))
          if (!region->art.IsSet(p)) region->art.value[p] = layer->art.value[p];
    }
    return;
  }
  if (IsLocation(p)) {
    SetParam(p, 0.0f);
    return;
  }
  if (p >= 229 && p <= 260) {
    ChannelFx& unit = fx[(p - 229) / 8];
    int slot = (p - 229) % 8;
    if (slot == 0) unit.type = 0;
    else unit.param[slot - 1] = 0.0f;
  }
}

// ---- Waveform ----

bool Waveform::IsParamSet(int p) const { return (p >= 204 && p <= 208) || (p >= 215 && p <= 219); }

float Waveform::GetParam(int p) const {
  switch (p) {
    case 204: return loopType;
    case 205: return loopRelease;
    case 206: return loopStart;
    case 207: return loopEnd;
    case 208: return loopPitch;
    case 215: return static_cast<float>(sampleRate);
    case 216: return rootKey;
    case 217: return fineTune;
    case 218: return volume;
    case 219: return preferredFormat;
    default: return 0.0f;
  }
}

void Waveform::SetParam(int p, float v) {
  switch (p) {
    case 204: loopType = static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 3L)); break;
    case 205: loopRelease = v != 0.0f; break;
    case 206: loopStart = std::max(v, 0.0f); break;
    case 207: loopEnd = std::max(v, 0.0f); break;
    case 208: loopPitch = std::clamp(v, -12.0f, 12.0f); break;
    case 215: sampleRate = static_cast<uint32_t>(std::max(v, 1.0f)); break;
    case 216: rootKey = static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 127L)); break;
    case 217: fineTune = static_cast<int8_t>(std::clamp(std::lround(v), -100L, 100L)); break;
    case 218: volume = std::clamp(std::round(v * 100.0f) / 100.0f, -96.0f, 96.0f); break;
    case 219: preferredFormat = static_cast<uint8_t>(std::clamp(std::lround(v), 0L, 21L)); break;
    default: break;
  }
}

void Waveform::ResetParam(int p) {
  switch (p) {
    case 204: loopType = 0; break;
    case 205: loopRelease = 0; break;
    case 206: loopStart = 0.0f; break;
    case 207: loopEnd = static_cast<float>(length); break;
    case 208: loopPitch = 0.0f; break;
    case 216: rootKey = 60; break;
    case 217: fineTune = 0; break;
    case 218: volume = 0.0f; break;
    case 219: preferredFormat = 21; break;
    default: break;
  }
}

}  // namespace kv
