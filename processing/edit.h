// Sample edits within a selection: fades, sign inversion, reversal,
// smoothing, and swapping the two channels. Each works on frames
// [first, end) bounded by the wave's length (-1 for either bound: the whole
// wave), finishes or leaves the wave as it was, and drops the wave's file
// source when it changes it.
#pragma once

#include <cstdint>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

// Fade modes of "Fade in/out selection"; the labels are the page's.
inline constexpr int kFadeModeCount = 4;
extern const char* const kFadeModeLabels[kFadeModeCount];
// Gain of frame k (1..n) of a fade of n frames.
double FadeGain(int mode, uint32_t k, uint32_t n);
// 16-bit samples stay 16-bit, by the rounding rule of Fade16; float samples are
// multiplied by the gain.
EditResult fadeRange(Waveform& wave, int mode, int64_t first, int64_t end);
// The 16-bit rule: trunc((s / 32768 * gain + 1) * 32768 + 0.5),
// floored at 0, less 32768, limited to 32767.
int16_t Fade16(int16_t s, double gain);

// Float: the sign bit flips; 16-bit: ones' complement (-32768 gives 32767).
EditResult invertRange(Waveform& wave, int64_t first, int64_t end);

// Frames swap end for end, the channels of each frame kept together.
EditResult reverseRange(Waveform& wave, int64_t first, int64_t end);

// Smoothing on float data, per channel. Modes 0 and 1 filter frames
// first+1..end-2 from the values before filtering; 2 runs forward in place
// reading the frame behind the range, 3 backward reading the frame before it,
// where a missing neighbour at the wave's edge is the frame itself.
inline constexpr int kSmoothModeCount = 4;
extern const char* const kSmoothModeLabels[kSmoothModeCount];
EditResult smoothRange(Waveform& wave, int mode, int64_t first, int64_t end);

// Exchanges the two samples of every frame of a stereo wave; a mono wave is
// unchanged.
EditResult swapChannels(Waveform& wave);

}  // namespace kv
