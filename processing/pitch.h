// Pitch detection: the dominant frequency of a sound, from a Fourier analysis
// refined by a time-domain correlation. The loop finder takes its minimum
// loop length from it; the tuning operations build on it.
#pragma once

#include <cstdint>
#include <span>

namespace kv {

// Up to 64 spectral peaks (frequency, level in dB), loudest first.
struct PeakList {
  static constexpr int kCapacity = 64;
  float frequency[kCapacity] = {};
  float level[kCapacity] = {};
  int count = 0;
  // A full list whose last level is not below `dB` ignores the pair; else it
  // goes before the first entry of lower level, the last one falling off.
  void Insert(float hz, float dB);
};

// The fundamental of interleaved f32 `samples` (`frames` x `channels`, the
// first channel analysed) at `rate`, in Hz; 0 when the spectrum has no peak.
// Waves of at least a fifth of a second are analysed on a power-of-two block
// two thirds into the sound; shorter ones on all their frames, zero-padded,
// with the refinement's search range widened an octave each way.
double dominantFrequency(std::span<const float> samples, uint32_t frames, uint32_t channels, uint32_t rate);

// The lag of highest correlation between the wave's last period and the one
// before it, searched between the frequencies `low` and `high`, to within
// `tolerance` Hz; returned as a frequency. 0 when the interval is empty; the
// interval's centre when the wave is too short to search or silent at its end.
double refinePitch(double low, double high, uint32_t rate, std::span<const float> samples, uint32_t frames,
                   uint32_t channels, double tolerance);

// The spectral peaks of the analysis (for tests and the tuning pages).
PeakList spectrumPeaks(std::span<const float> samples, uint32_t frames, uint32_t channels, uint32_t rate,
                       double* binWidth = nullptr, bool* shortRoute = nullptr);

}  // namespace kv
