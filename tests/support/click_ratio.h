// How much a loop clicks where it joins: the splice measured against the
// loop's own body, for tests of the tools that make or move loops.
#pragma once

#include <cstdint>
#include <span>

namespace kv {
class Waveform;
}

namespace kv::test {

// The click ratio of the loop [start, end) of `interleaved` (`channels`
// channels), in dB: the wave is played as x[0..end) + x[start..end) +
// x[start..end), third differences are taken, and the largest |difference|
// within 4 frames of either splice is compared with the largest inside the
// loop at least 8 frames from its ends; the worst channel counts. 0 dB: the
// splice is as rough as the loop's roughest spot; below 0 it doesn't stand
// out. NaN when the loop is too short (under 20 frames) or out of range;
// -inf for a silent splice, +inf for a click in a silent loop.
double ClickRatioDb(std::span<const float> interleaved, int channels, uint32_t start, uint32_t end);

// The same for a wave's own loop (16-bit samples scaled by 2^-15); NaN when
// the wave holds no data.
double ClickRatioDb(const Waveform& wave);

}  // namespace kv::test
