// Level operations on waves, shared by the wizard's rows and the volume
// tools (normalize, find volume, silence removal): a gain in dB, bringing a wave to full scale, removing a DC offset, and
// cutting the silence at its ends.
#pragma once

#include <cstdint>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

// The work of "Adjust volume" and of every volume tool that applies a gain: on float data (16-bit
// data is converted first) each sample of frames [first, end) becomes
// clamp(g * s, -1, 1) with g = exp(dB / 20 * 2.3025851); -1 for both bounds
// is the whole wave. Bits per sample become 16 and the file source goes.
// 0 dB is a success that changes nothing. False only when the data can't be
// had (ErrorContext/ErrorMessage set, the wave as it was).
bool applyGain(Waveform& wave, float dB, int64_t first = -1, int64_t end = -1);

// Maximize amplitude on the wave's float data. Over all samples of all
// channels: mode 1 scales by 1 / peak; mode 0 stretches min..max to -1..1;
// mode 2 does the same about the mean. Unchanged for a silent wave, or one
// already at full scale (scale 1, offset 0), without converting its data.
EditResult maximizeAmplitude(Waveform& wave, int mode);

// Remove DC offset: the mean of all samples of all channels is subtracted.
// 16-bit data stays 16-bit: the mean truncated to an integer, subtracted with
// saturation. Float data: the exact mean, the result clamped to -1..1.
// Unchanged when the mean is 0.
EditResult removeDcOffset(Waveform& wave);

// Cuts silence, frames with every channel under `threshold` (linear 0..1),
// from the start and the end; a wave that is silent throughout is deleted
// with `deleteIfSilent`. The loop moves with the data. `minSilence` (s) is
// the shortest gap counted inside a wave; `anywhere` also removes such gaps
// within it. `smooth` softens each join, `zeroCrossing` moves the cuts to
// the nearest sign change of channel 0. True when the wave changed.
bool removeSilence(Waveform& wave, bool fromStart, bool fromEnd, bool anywhere, float threshold, float minSilence,
                   bool smooth, bool deleteIfSilent, bool zeroCrossing);

}  // namespace kv
