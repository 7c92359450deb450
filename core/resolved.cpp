#include "core/resolved.h"

namespace kv {

ResolvedRegion ResolveRegion(const Region& region) {
  ResolvedRegion r;
  r.region = &region;
  r.layer = LayerOf(region);
  r.instrument = r.layer ? InstrumentOf(*r.layer) : nullptr;
  r.wave = RegionWaveform(region);

  static const Articulation kNone;
  r.art = MergedArticulation(region.art, r.layer ? r.layer->art : kNone,
                             r.instrument ? r.instrument->art : kNone);
  r.trigger = region.trigger;
  if (r.layer) r.trigger.RefreshFrom(r.layer->trigger);

  // A region's own wave values count only where its override bit is set.
  const uint8_t own = region.overrideMask;
  const Waveform* w = r.wave;
  // Without a wave the view's defaults stand.
  auto pick = [own](uint8_t bit, auto regionValue, auto waveValue) { return own & bit ? regionValue : waveValue; };
  if (w || own) {
    r.pitch.rootKey = pick(kOverrideRootKey, int{region.rootKey}, w ? int{w->rootKey} : r.pitch.rootKey);
    r.loop.type = pick(kOverrideLoopType, int{region.loopType}, w ? int{w->loopType} : r.loop.type);
    r.loop.release = pick(kOverrideLoopRelease, int{region.loopRelease}, w ? int{w->loopRelease} : r.loop.release);
    r.loop.start = pick(kOverrideLoopStart, region.loopStart, w ? w->loopStart : r.loop.start);
    r.loop.end = pick(kOverrideLoopEnd, region.loopEnd, w ? w->loopEnd : r.loop.end);
    r.loop.pitch = pick(kOverrideLoopPitch, region.loopPitch, w ? w->loopPitch : r.loop.pitch);
  }
  r.startOffset = region.startOffset;
  r.endOffset = region.endOffset;

  const float* v = r.art.value;
  r.pitch.waveFineTune = w ? w->fineTune : 0;
  r.pitch.masterTune = v[kRowMasterTune];
  r.pitch.keyToPitch = v[kRowKeyToPitch];
  r.pitch.bendRange = v[kRowBendToPitch];
  r.pitch.random = v[kRowRandomPitch];

  r.amplitude.masterVolume = v[kRowMasterVolume];
  r.amplitude.waveVolume = w ? w->volume : 0.0f;
  r.amplitude.velocityToVolume = v[kRowVelToVolume];
  r.amplitude.keyToVolume = v[kRowKeyToVolume];
  r.amplitude.wheelToVolume = v[kRowModWheelToVolume];
  r.amplitude.aftertouchToVolume = v[kRowAftertouchToVolume];

  r.filter.type = ValueAsInt(v[kRowFilterType]);
  r.filter.cutoff = v[kRowCutoff];
  r.filter.velocityToCutoff = v[kRowVelToCutoff];
  r.filter.keyToCutoff = v[kRowKeyToCutoff];
  r.filter.wheelToCutoff = v[kRowModWheelToCutoff];
  r.filter.aftertouchToCutoff = v[kRowAftertouchToCutoff];
  r.filter.resonance = v[kRowResonance];
  r.filter.velocityToResonance = v[kRowVelToResonance];
  r.filter.wheelToResonance = v[kRowModWheelToResonance];
  r.filter.aftertouchToResonance = v[kRowAftertouchToResonance];

  r.pan.position = v[kRowPan];
  r.pan.cc10 = v[kRowCc10ToPan];
  r.pan.keyToPan = v[kRowKeyToPan];
  r.pan.random = v[kRowRandomPan];

  constexpr int kSendRows[4][2] = {{kRowSend1, kRowCc91ToSend1},
                                   {kRowSend2, kRowCc92ToSend2},
                                   {kRowSend3, kRowCc93ToSend3},
                                   {kRowSend4, kRowCc94ToSend4}};
  for (int s = 0; s < 4; ++s) {
    r.sends.level[s] = v[kSendRows[s][0]];
    r.sends.controller[s] = v[kSendRows[s][1]];
  }
  for (int n = 0; n < kLfoCount; ++n) r.lfo[n] = r.art.ReadLfo(n);
  for (int k = 0; k < kEnvCount; ++k) r.env[k] = r.art.ReadEnvelope(k);
  for (int b = 0; b < kEqBands; ++b) r.eq[b] = r.art.ReadEq(b);
  return r;
}

}  // namespace kv
