// Edits that change a wave's channels: mono and stereo conversion, and the
// mix of two waves. Like the length edits, each builds its buffers (and any
// clone) before it changes anything.
#pragma once

#include <cstdint>

#include "core/items.h"
#include "core/wave_edit.h"

namespace kv {

// Modes of "Convert to mono": 0 average, 1 left, 2 right, 3 split (this wave
// keeps the left as "<base> -L", a clone takes the right as "<base> -R"),
// 4 left only when both channels agree in every frame (a mismatch leaves the
// wave stereo and still counts). `phaseFix` (mode 0) negates the right
// channel first when the channels cancel more than they add. A mono wave is
// unchanged. Context "->Mono"; "Invalid algorithm" for another mode.
inline constexpr int kToMonoModeCount = 5;
extern const char* const kToMonoModeLabels[kToMonoModeCount];
EditResult convertToMono(Waveform& wave, int mode, bool phaseFix);

// Modes of "Convert to stereo": 0 duplicate, 1 left only, 2 right only,
// 3 this wave left and `second` right, 4 `second` left and this wave right.
// Only mono waves change. Context "->Stereo": "No 2nd waveform specified",
// "2nd waveform is not mono", "Out of memory", "Invalid algorithm".
inline constexpr int kToStereoModeCount = 5;
extern const char* const kToStereoModeLabels[kToStereoModeCount];
EditResult convertToStereo(Waveform& wave, int mode, Waveform* second);

// target = clamp(a * w1 + b * w2 + c, -1, 1) in double over the longer wave,
// a wave counting 0 past its end and a mono one feeding both channels of a
// stereo one. The result is float, with the larger bit depth, the mean root
// key and the mean fine tune (towards zero) of the two. Context "kvMix".
EditResult kvMix(Waveform& target, Waveform* w1, Waveform* w2, double a, double b, double c);

}  // namespace kv
