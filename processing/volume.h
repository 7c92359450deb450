// Level operations on waves: bringing a wave to full scale, and cutting the
// silence at its ends.
#pragma once

#include "core/items.h"

namespace kv {

// Maximize amplitude on the wave's float data. Mode 1 scales by 1 / peak;
// mode 0 stretches min..max to -1..1; mode 2 does the same about the mean.
// False when nothing changes (a silent wave, or one already at full scale).
bool maximizeAmplitude(Waveform& wave, int mode);

// Cuts silence, frames with every channel under `threshold` (linear 0..1),
// from the start and the end; a wave that is silent throughout is deleted
// with `deleteIfSilent`. The loop moves with the data. `minSilence` (s) is
// the shortest gap counted inside a wave; `anywhere` also removes such gaps
// within it. `smooth` softens each join, `zeroCrossing` moves the cuts to
// the nearest sign change of channel 0. True when the wave changed.
bool removeSilence(Waveform& wave, bool fromStart, bool fromEnd, bool anywhere, float threshold, float minSilence,
                   bool smooth, bool deleteIfSilent, bool zeroCrossing);

}  // namespace kv
