// Edits that change a wave's length: the Cut and Insert primitives, trimming
// to a selection and appending waves one after another. Loop points follow
// every change. Each edit builds its new buffer before it touches the wave,
// so a failure ("Out of memory", a refused source) leaves it as it was.
#pragma once

#include <cstdint>
#include <span>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

// Where the loop of a wave goes when frames [a, b) are cut out: a start
// above a becomes start - (b - a) when b is not above it, else a; an end
// above a becomes end - (b - a) when b is below it, else a + 1; an end not
// above the start turns the loop off.
void CutLoop(Waveform& wave, uint32_t a, uint32_t b);

// Removes frames [first, end), `end` bounded by the length (-1: the length).
// A cut of the whole wave is refused and changes nothing. A cut at the end
// of fewer than 64536 frames only shortens the length and keeps the buffer.
EditResult cutFrames(Waveform& wave, int64_t first, int64_t end, const char* context = "Cut away selection");

// Inserts `count` frames at `position`: frames of `source` from
// `sourceOffset` (silence past its end, or all silence without a source).
// A position past the end pads the gap with silence. Float on either side
// makes the result float; a source with other channels or another rate is
// converted on a clone first (the rate by the resampler's automatic filter),
// `count` then counting frames at the wave's rate. Loop points at or after the
// position (the end only when strictly after it) move by `count`.
EditResult insertFrames(Waveform& wave, int64_t position, Waveform* source, uint32_t sourceOffset, uint32_t count,
                        const char* context = "Insert silence");

// Keeps frames [first, end): [end, length) goes first, then [0, first), each
// only when its bound lies inside the wave and above 0, with the loop
// following both cuts.
EditResult trimToSelection(Waveform& wave, int64_t first, int64_t end);

// The data of `target` becomes the picked waves one after another (nulls
// skipped), each mapped to the target's channels, float when any is float;
// the loop comes from the first wave picked. Context "Append waves":
// "All null waveforms", "Incompatible channel formats", "Out of memory".
EditResult appendWaves(Waveform& target, std::span<Waveform* const> picks);

}  // namespace kv
