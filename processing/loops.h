// Loop edits of the processing wizard: for now the loop set to the
// selection; the loop tools (cross-fade, sanitizer, trims) join this file.
#pragma once

#include <cstdint>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

// For a range whose start lies within the wave: loop mode 1 (forward), start
// `first`, end min(`end`, length). Regions playing the wave follow the new
// loop. Unchanged when `first` is outside the wave or the loop is already so.
EditResult setLoopToSelection(Waveform& wave, int64_t first, int64_t end);

}  // namespace kv
