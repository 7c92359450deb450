// "Statistics": figures of the selected waves, channel by channel,
// on values normalised to -1..1. Nothing is changed.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/items.h"

namespace kv {

struct ChannelStatistics {
  uint64_t count = 0;          // samples of this channel
  double sum = 0.0;
  double sumSquares = 0.0;
  float minimum = 0.0f;
  float maximum = 0.0f;
  float maxDelta = 0.0f;       // between neighbouring samples, from 0
  uint64_t zeroCrossings = 0;  // neighbouring pairs whose product is negative
};

struct WaveStatistics {
  uint64_t samples = 0;  // frames times channels, over all waves
  double seconds = 0.0;
  int waves = 0;
  bool all16 = true;     // every wave holds 16-bit data
  int channels = 0;      // the most channels of any wave
  ChannelStatistics channel[2];
};

// Adds one wave, whose data must be loaded, to the figures.
void AddStatistics(WaveStatistics& stats, const Waveform& wave);

// The dB figure of a level: -96 at or below 1.5259e-5, else log10(x) *
// 19.931568 rounded to two decimals, halves away from zero (0.499).
double LevelDb(double level);

// The figures as the page shows them: a label and, per channel, a text
// ("Wavesamples" has one text for all).
struct StatisticsLine {
  std::string label;
  std::vector<std::string> values;
};
std::vector<StatisticsLine> FormatStatistics(const WaveStatistics& stats);

}  // namespace kv
