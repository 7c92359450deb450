#include "synth/compile.h"

#include <algorithm>
#include <cstring>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/error.h"
#include "core/resolved.h"

namespace kv {

FadeWindow ExpandFadeWindow(int lo, int hi, int fadeIn, int fadeOut) {
  FadeWindow w;
  // The fade-in is centred on lo: it starts half its width below and the
  // zone's first key is the one after the start.
  int inStart = lo - (fadeIn / 2 + 1);
  if (inStart < -1) {
    fadeIn -= -1 - inStart;
    inStart = -1;
  }
  int outEnd = hi + fadeOut - fadeOut / 2 + 1;
  if (outEnd > 128) {
    fadeOut -= outEnd - 128;
    outEnd = 128;
  }
  w.lo = inStart + 1;
  w.hi = outEnd - 1;
  w.fadeIn = fadeIn;
  w.fadeOut = fadeOut;
  return w;
}

namespace {

// A wave zone before the cache is asked: the items it will be loaded from.
struct PendingZone {
  SynthZone zone;
  Waveform* left = nullptr;
  Waveform* right = nullptr;
};

bool SameTriggerHead(const SynthZone& a, const SynthZone& b) {
  return a.loKey == b.loKey && a.hiKey == b.hiKey && a.loVel == b.loVel && a.hiVel == b.hiVel &&
         a.keyFadeIn == b.keyFadeIn && a.keyFadeOut == b.keyFadeOut && a.velFadeIn == b.velFadeIn &&
         a.velFadeOut == b.velFadeOut && a.keyFadeCurve == b.keyFadeCurve && a.velFadeCurve == b.velFadeCurve &&
         a.trigger == b.trigger && a.pedalSwitch == b.pedalSwitch && a.exclusionGroup == b.exclusionGroup &&
         a.exclusionMode == b.exclusionMode && a.delay == b.delay;
}

bool SameLoop(const SynthZone& a, const SynthZone& b) {
  return a.loopType == b.loopType && a.loopRelease == b.loopRelease && a.loopStart == b.loopStart &&
         a.loopEnd == b.loopEnd && a.loopPitch == b.loopPitch && a.startOffset == b.startOffset &&
         a.endOffset == b.endOffset;
}

// Bit for bit, so that NaN and -0 count as the files wrote them.
bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool SameArticulationButPan(const Articulation& a, const Articulation& b) {
  for (int i = 0; i < kArticulationCount; ++i)
    if (i != kRowPan && !SameBits(a.value[i], b.value[i])) return false;
  return true;
}

bool IsHardPanned(const PendingZone& p) {
  return !p.right && p.left->channels == 1 && (p.zone.pan == -1.0f || p.zone.pan == 1.0f);
}

bool MergesWith(const PendingZone& a, const PendingZone& b) {
  return IsHardPanned(b) && b.zone.pan == -a.zone.pan && a.left->length == b.left->length &&
         a.left->sampleRate == b.left->sampleRate && SameTriggerHead(a.zone, b.zone) && SameLoop(a.zone, b.zone) &&
         SameArticulationButPan(a.zone.art, b.zone.art);
}

// The zone a wave region plays, its articulation adjusted for the wave.
SynthZone ZoneOf(const Region& region, const ResolvedRegion& r) {
  SynthZone z;
  z.kind = VoiceKindId::Wave;
  z.id = region.id;
  const TriggerRecord& t = r.trigger;
  const FadeWindow keys = ExpandFadeWindow(t.loKey, t.hiKey, t.keyFadeIn, t.keyFadeOut);
  const FadeWindow vels = ExpandFadeWindow(t.loVel, t.hiVel, t.velFadeIn, t.velFadeOut);
  z.loKey = static_cast<uint8_t>(keys.lo);
  z.hiKey = static_cast<uint8_t>(keys.hi);
  z.keyFadeIn = static_cast<uint8_t>(keys.fadeIn);
  z.keyFadeOut = static_cast<uint8_t>(keys.fadeOut);
  z.loVel = static_cast<uint8_t>(vels.lo);
  z.hiVel = static_cast<uint8_t>(vels.hi);
  z.velFadeIn = static_cast<uint8_t>(vels.fadeIn);
  z.velFadeOut = static_cast<uint8_t>(vels.fadeOut);
  z.keyFadeCurve = t.keyFadeFormula;
  z.velFadeCurve = t.velFadeFormula;
  z.trigger = t.triggerType;
  z.pedalSwitch = t.sustainSwitch;
  z.exclusionGroup = t.exclusionGroup;
  z.exclusionMode = t.noteExclusion;
  z.delay = t.delay;
  z.pan = r.pan.position;
  z.cc10ToPan = r.pan.cc10;
  for (int s = 0; s < 4; ++s) {
    z.sendLevel[s] = r.sends.level[s];
    z.sendDepth[s] = r.sends.controller[s];
  }

  z.art = r.art;
  // Straight into the values: the sums may leave the rows' ranges, and the
  // engine wants them whole rather than clamped.
  z.art.value[kRowMasterTune] += static_cast<float>(r.pitch.waveFineTune) / 100.0f +
                                 static_cast<float>(60 - r.pitch.rootKey) * r.pitch.keyToPitch;
  z.art.value[kRowMasterVolume] += r.amplitude.waveVolume;

  z.loopType = static_cast<uint8_t>(r.loop.type);
  z.loopRelease = static_cast<uint8_t>(r.loop.release);
  z.loopStart = r.loop.start;
  z.loopEnd = r.loop.end;
  z.loopPitch = r.loop.pitch;
  z.startOffset = r.startOffset;
  z.endOffset = r.endOffset;
  z.phaseGroup = region.phaseGroup;
  z.phaseMaster = region.phaseMaster;
  return z;
}

// Members of a phase group play at their master's pitch, so that the group's
// waves stay in phase.
void LockPhaseGroups(std::vector<PendingZone>& zones) {
  std::unordered_map<uint16_t, std::vector<std::size_t>> groups;
  for (std::size_t i = 0; i < zones.size(); ++i)
    if (zones[i].zone.phaseGroup > 0) groups[zones[i].zone.phaseGroup].push_back(i);
  for (auto& [group, members] : groups) {
    for (std::size_t m : members) {
      const SynthZone& master = zones[m].zone;
      if (!master.phaseMaster) continue;
      for (std::size_t i : members) {
        SynthZone& z = zones[i].zone;
        if (i != m && !z.phaseMaster && SameTriggerHead(master, z)) z.art.MatchPitchOf(master.art);
      }
    }
  }
}

// Two mono zones panned hard apart that differ in nothing else play as one
// stereo voice: half the voices, and the two sides can't drift.
void MergeStereoPairs(std::vector<PendingZone>& zones) {
  for (std::size_t i = 0; i < zones.size(); ++i) {
    if (!IsHardPanned(zones[i])) continue;
    for (std::size_t j = 0; j < zones.size(); ++j) {
      if (j == i || !MergesWith(zones[i], zones[j])) continue;
      PendingZone& a = zones[i];
      PendingZone& b = zones[j];
      // The left side's zone stays, at the first one's place.
      if (a.zone.pan > 0.0f) std::swap(a, b);
      a.right = b.left;
      a.zone.phaseMaster = std::max(a.zone.phaseMaster, b.zone.phaseMaster);
      a.zone.pan = 0.0f;
      a.zone.art.value[kRowPan] = 0.0f;
      zones.erase(zones.begin() + static_cast<std::ptrdiff_t>(j));
      if (j < i) --i;
      break;
    }
  }
}

// The most zones that one key and velocity select, from a 2D difference grid
// summed up.
uint32_t MaxZonesPerNote(const std::vector<SynthZone>& zones) {
  static constexpr int kSide = 129;
  std::vector<int32_t> grid(kSide * kSide, 0);
  for (const SynthZone& z : zones) {
    if (z.loKey > z.hiKey || z.loVel > z.hiVel) continue;
    const int k0 = z.loKey, k1 = z.hiKey + 1, v0 = z.loVel, v1 = z.hiVel + 1;
    grid[k0 * kSide + v0] += 1;
    grid[k1 * kSide + v0] -= 1;
    grid[k0 * kSide + v1] -= 1;
    grid[k1 * kSide + v1] += 1;
  }
  int32_t most = 0;
  for (int k = 0; k < 128; ++k)
    for (int v = 0; v < 128; ++v) {
      int32_t& cell = grid[k * kSide + v];
      if (k > 0) cell += grid[(k - 1) * kSide + v];
      if (v > 0) cell += grid[k * kSide + v - 1];
      if (k > 0 && v > 0) cell -= grid[(k - 1) * kSide + v - 1];
      most = std::max(most, cell);
    }
  return static_cast<uint32_t>(most);
}

}  // namespace

bool CompileInstrument(const Instrument& instrument, WaveCache& cache, SynthInstrument& out) {
  const Collection* c = instrument.collection;
  if (!c) return Fail("Compile instrument", "The instrument \"%s\" belongs to no collection", instrument.name);

  std::vector<PendingZone> pending;
  for (ItemId layerId : instrument.children) {
    const Layer* layer = c->FindAs<Layer>(layerId);
    if (!layer) continue;
    for (ItemId regionId : layer->children) {
      const Region* region = c->FindAs<Region>(regionId);
      // FM and LA models have no voice yet: they stay silent rather than
      // play something that only pretends to be them.
      if (!region || RegionSynth(*region)) continue;
      Waveform* wave = RegionWaveform(*region);
      if (!wave) continue;
      const ResolvedRegion r = ResolveRegion(*region);
      pending.push_back({ZoneOf(*region, r), wave, nullptr});
    }
  }
  LockPhaseGroups(pending);
  MergeStereoPairs(pending);

  // Built aside and swapped in, so that waves the old zones share with the
  // new ones are not let go and read again in between.
  SynthInstrument built;
  built.key = instrument.location;
  for (int s = 0; s < 4; ++s) built.fx[s] = MakeChannelFxConfig(instrument.fx[s]);
  built.zones.reserve(pending.size());
  for (PendingZone& p : pending) {
    SynthZone& z = p.zone;
    if (!cache.Acquire(*p.left, p.right, z.cacheKey, z.wave)) continue;  // unreadable: the zone is left out
    built.waves.push_back(z.cacheKey);
    // Loop points past the played data (the "to the end" default, or the
    // shorter side of a pair) end at the data's end.
    const float length = static_cast<float>(z.wave.length);
    if (!(z.loopEnd <= length)) z.loopEnd = length;
    if (z.loopEnd < 0.0f) z.loopEnd = 0.0f;
    if (!(z.loopStart >= 0.0f)) z.loopStart = 0.0f;
    if (z.loopStart > z.loopEnd) z.loopStart = z.loopEnd;
    built.zones.push_back(std::move(z));
  }
  built.maxZonesPerNote = MaxZonesPerNote(built.zones);

  ReleaseInstrument(out, cache);
  out = std::move(built);
  return true;
}

void ReleaseInstrument(SynthInstrument& instrument, WaveCache& cache) {
  for (uint64_t key : instrument.waves) cache.Release(key);
  instrument.waves.clear();
  instrument.zones.clear();
}

}  // namespace kv
