// Loop edits of the processing wizard: the loop set to the selection, the
// auto loop finder, the cross-fade, trimming after the loop, moving points to
// zero crossings and switching loops on and off. The sanitizer lives in core
// (core/instrument_ops.h), because the load options and writers run it too.
#pragma once

#include <cstdint>
#include <span>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

// For a range whose start lies within the wave: loop mode 1 (forward), start
// `first`, end min(`end`, length). Regions playing the wave follow the new
// loop. Unchanged when `first` is outside the wave or the loop is already so.
EditResult setLoopToSelection(Waveform& wave, int64_t first, int64_t end);

// ---- auto loop finder ----

// What the last search found, for the page, tests and the benchmark.
struct LoopSearchResult {
  double f0 = 0;              // dominant frequency
  int64_t minimumLength = 0;  // shortest loop searched
  uint64_t pairs = 0;         // start/end pairs visited
  float score = 0;            // correlation around the splice; 1e-32 when none
  int64_t start = -1, end = -1;
  bool cancelled = false;
  bool silent = false;
};

// The shortest loop the search tries: 0.9 of a period of `f0` (n / 8
// without one), at most n / 4, and 16 for anything below 17.
int64_t autoLoopMinimumLength(uint32_t frames, uint32_t rate, double f0);

// The search on mono samples: `x` holds n + 1 values, x[n] being 0. Ranges
// are fractions of n. Progress goes to the status text under `name`, and the
// cancel poll is asked once in 32 ends. True when a pair was found.
bool findLoop(std::span<const float> x, uint32_t rate, double startLo, double startHi, double endLo, double endHi,
              const char* name, LoopSearchResult& result);

// Finds the best forward loop within the ranges (fractions of the length)
// and sets it, with the sustain flag as given; then optionally cross-fades
// it and (without sustain) trims after it. False, the wave unchanged, for a
// silent wave, a cancelled search, no pair found, or the long-wave warning
// answered "Abort"; also on a read or memory failure, with ErrorContext and
// ErrorMessage set. The status text says "Done:" or "Failed:".
bool autoLoop(Waveform& wave, bool crossfade, bool sustain, bool cut, double startLo, double startHi, double endLo,
              double endHi);
// The search of the last autoLoop call.
const LoopSearchResult& LastLoopSearch();
// The warning before searching a wave of 256001 frames or more; on at start,
// off after "Don't ask again".
bool& LongWaveWarning();
inline constexpr uint32_t kLongWaveFrames = 256001;
extern const char* const kLongWaveText;

// ---- cross-fade ----

// Blends the frames before the loop start into the end of the loop over
// min(start, length, end - start) frames, and with `reverseAfter` the loop's
// first frames into those after the end, linearly or on a log curve. The
// wave becomes float; the loop points become `start` and `end`. False, the
// wave unchanged, without a loop or a length to fade (or on memory failure,
// with the error set).
bool crossfadeLoop(Waveform& wave, int64_t start, int64_t end, int64_t length, bool reverseAfter, bool exponential);
// The longest cross-fade the page allows for a wave: min(end - start, start)
// of its rounded points, 0 without a loop.
int64_t maximumCrossfade(const Waveform& wave);

// ---- trim after loop ----

// Cuts the frames behind the loop end (or behind the endmost region loop
// override with `regionOverrides`), clearing the sustain flag; with
// `saveRelease` what is cut (more than 32 frames) becomes a new wave "<name>
// Release"; with `append32` 32 frames of the loop's start follow the end.
// Returns 1 when a release wave was made, 0 otherwise, -1 on failure (error
// set, nothing changed). `releaseId` (optional) takes the new wave's id.
int trimAfterLoop(Waveform& wave, bool append32, bool regionOverrides, bool saveRelease, ItemId* releaseId = nullptr);

// ---- zero crossings ----

// Moves `position` to the nearest zero crossing of the wave's 16-bit view
// (stereo summed) between `low` and `high`, the left one on a tie; with
// `wantedSlope` (+1 or -1) only a crossing of that direction. Whole frames
// unless fractional loop points are on in the settings. Returns the slope
// found, 0 when none (the position unchanged).
int snapToZeroCrossing(Waveform& wave, float& position, int64_t low, int64_t high, int wantedSlope);
// "Move loop points to zero-crossing" for one wave: the start first, then
// the end demanding the start's slope. Changed when either moved.
EditResult moveLoopToZeroCrossing(Waveform& wave);

// ---- enable/disable ----

// The choices of "Enable/disable loops": 0 all off, 1 whole-wave loops for
// unlooped waves, 2 whole-wave loops for all.
inline constexpr int kLoopChoiceCount = 3;
extern const char* const kLoopChoiceLabels[kLoopChoiceCount];
EditResult setLoopsEnabled(Waveform& wave, int choice);

}  // namespace kv
