// Turning an Instrument of the item model into the flat zones the engine
// plays: trigger windows widened for their cross-fades, articulation merged
// over the levels and adjusted for each wave's tuning and volume, phase groups
// locked to their master's pitch, and mono pairs panned hard left and right
// merged into one stereo zone.
#pragma once

#include "core/items.h"
#include "synth/synth_types.h"
#include "synth/wave_cache.h"

namespace kv {

// Fills `out` (its zones, cache references, effect slots and key); a zone
// whose wave can't be read is left out. False only when the instrument can't
// be built at all, with ErrorContext/ErrorMessage set.
bool CompileInstrument(const Instrument& instrument, WaveCache& cache, SynthInstrument& out);

// The trigger window of a region widened for its cross-fades, the widths
// reduced where the window meets the ends of the key or velocity range.
struct FadeWindow {
  int lo = 0, hi = 127;
  int fadeIn = 0, fadeOut = 0;
};
FadeWindow ExpandFadeWindow(int lo, int hi, int fadeIn, int fadeOut);

// Drops every cache reference the instrument holds.
void ReleaseInstrument(SynthInstrument& instrument, WaveCache& cache);

}  // namespace kv
