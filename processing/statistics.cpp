#include "processing/statistics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <type_traits>

namespace kv {

namespace {

// One channel of interleaved samples; `scale` maps them to -1..1. Sums are
// taken in the sample's own type first where that is exact (16-bit), which
// is both faster and free of rounding.
template <typename T>
void AddChannel(ChannelStatistics& st, const T* s, uint64_t frames, int stride) {
  if (frames == 0) return;
  constexpr bool k16 = std::is_same_v<T, int16_t>;
  constexpr double kScale = k16 ? 1.0 / 32768.0 : 1.0;
  using Acc = std::conditional_t<k16, int64_t, double>;
  using Wide = std::conditional_t<k16, int32_t, float>;
  Acc sum = 0, squares = 0;
  Wide lo = s[0], hi = s[0], delta = 0;
  uint64_t crossings = 0;
  Wide prev = s[0];
  for (uint64_t i = 0; i < frames; ++i) {
    const Wide v = s[i * stride];
    sum += v;
    squares += static_cast<Acc>(v) * v;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
    const Wide d = v > prev ? v - prev : prev - v;
    delta = std::max(delta, d);
    crossings += (v < 0 && prev > 0) || (v > 0 && prev < 0);
    prev = v;
  }
  const auto flo = static_cast<float>(lo * kScale), fhi = static_cast<float>(hi * kScale);
  st.minimum = st.count == 0 ? flo : std::min(st.minimum, flo);
  st.maximum = st.count == 0 ? fhi : std::max(st.maximum, fhi);
  st.maxDelta = std::max(st.maxDelta, static_cast<float>(delta * kScale));
  st.sum += static_cast<double>(sum) * kScale;
  st.sumSquares += static_cast<double>(squares) * kScale * kScale;
  st.zeroCrossings += crossings;
  st.count += frames;
}

std::string Format(const char* format, auto... values) {
  char buffer[128];
  std::snprintf(buffer, sizeof buffer, format, values...);
  return buffer;
}

}  // namespace

void AddStatistics(WaveStatistics& stats, const Waveform& wave) {
  const int ch = std::min<int>(wave.channels, 2);
  stats.samples += wave.SampleCount();
  stats.seconds += wave.sampleRate ? static_cast<double>(wave.length) / wave.sampleRate : 0.0;
  ++stats.waves;
  stats.channels = std::max(stats.channels, ch);
  if (!wave.HasData() || wave.length == 0) return;
  const bool is16 = !wave.samplesF;
  stats.all16 = stats.all16 && is16;
  for (int c = 0; c < ch; ++c) {
    ChannelStatistics& st = stats.channel[c];
    if (is16) AddChannel(st, wave.samples16.get() + c, wave.length, wave.channels);
    else AddChannel(st, wave.samplesF.get() + c, wave.length, wave.channels);
  }
}

double LevelDb(double level) {
  if (!(level > 1.5259e-5)) return -96.0;
  const double v = std::log10(level) * 19.931568 * 100.0;
  return std::trunc(v < 0 ? v - 0.499 : v + 0.499) / 100.0;
}

std::vector<StatisticsLine> FormatStatistics(const WaveStatistics& stats) {
  std::vector<StatisticsLine> out;
  out.push_back({"Wavesamples", {Format("%d / %.2f s", static_cast<int>(stats.samples), stats.seconds)}});
  StatisticsLine mean{"Mean", {}}, rms{"RMS", {}}, range{"Min..max", {}}, level{"Max level", {}},
      delta{"Max delta", {}}, crossings{"Zero crossings", {}};
  for (int c = 0; c < stats.channels; ++c) {
    const ChannelStatistics& st = stats.channel[c];
    const double n = st.count ? static_cast<double>(st.count) : 1.0;
    mean.values.push_back(Format("%.3f", st.sum / n));
    const double r = std::sqrt(st.sumSquares / n);
    rms.values.push_back(Format("%.3f / %.2f dB", r, LevelDb(r)));
    const double peak = std::max(-static_cast<double>(st.minimum), static_cast<double>(st.maximum));
    if (stats.all16) {
      range.values.push_back(Format("%.3f..%.3f / %d..%d", st.minimum, st.maximum,
                                    static_cast<int>(std::lround(st.minimum * 32768.0)),
                                    static_cast<int>(std::lround(st.maximum * 32768.0))));
      level.values.push_back(peak > 0 ? Format("%.3f / %.2f dB / %d", peak, LevelDb(peak),
                                               static_cast<int>(std::lround(peak * 32768.0)))
                                      : std::string("-"));
      delta.values.push_back(
          Format("%.3f / %d", st.maxDelta, static_cast<int>(std::lround(st.maxDelta * 32768.0))));
    } else {
      range.values.push_back(Format("%f..%f", st.minimum, st.maximum));
      level.values.push_back(peak > 0 ? Format("%.3f / %.2f dB", peak, LevelDb(peak)) : std::string("-"));
      delta.values.push_back(Format("%f", st.maxDelta));
    }
    crossings.values.push_back(Format("%d", static_cast<int>(st.zeroCrossings)));
  }
  for (StatisticsLine* line : {&mean, &rms, &range, &level, &delta, &crossings}) out.push_back(std::move(*line));
  return out;
}

}  // namespace kv
