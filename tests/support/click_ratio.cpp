#include "click_ratio.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "core/items.h"

namespace kv::test {

namespace {

constexpr int64_t kSpliceReach = 4;  // frames either side of a splice
constexpr int64_t kBodyMargin = 8;   // frames kept clear of the loop's ends

}  // namespace

double ClickRatioDb(std::span<const float> x, int channels, uint32_t start, uint32_t end) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  if (channels < 1 || start >= end || uint64_t{end} * channels > x.size()) return nan;
  const int64_t s = start, e = end, loop = e - s;
  if (loop < 2 * kBodyMargin + 4) return nan;
  // The played frame at position n of x[0..e) + x[s..e) + x[s..e).
  auto played = [&](int64_t n) { return n < e ? n : s + (n - e) % loop; };
  const int64_t total = e + 2 * loop;
  const int64_t splices[2] = {e, e + loop};
  double worst = -std::numeric_limits<double>::infinity();
  for (int ch = 0; ch < channels; ++ch) {
    auto at = [&](int64_t n) { return static_cast<double>(x[static_cast<std::size_t>(played(n) * channels + ch)]); };
    // d(n) = y[n] - 3 y[n-1] + 3 y[n-2] - y[n-3]: the third difference ending at n.
    auto third = [&](int64_t n) { return std::fabs(at(n) - 3.0 * at(n - 1) + 3.0 * at(n - 2) - at(n - 3)); };
    double splice = 0.0;
    for (int64_t p : splices)
      for (int64_t n = std::max<int64_t>(3, p - kSpliceReach); n <= std::min(total - 1, p + kSpliceReach); ++n)
        splice = std::max(splice, third(n));
    // Inside the first pass of the loop: every difference whose four frames
    // lie at least kBodyMargin frames from both ends.
    double body = 0.0;
    for (int64_t n = s + kBodyMargin + 3; n < e - kBodyMargin; ++n) body = std::max(body, third(n));
    double ratio;
    if (splice == 0.0) ratio = -std::numeric_limits<double>::infinity();
    else if (body == 0.0) ratio = std::numeric_limits<double>::infinity();
    else ratio = 20.0 * std::log10(splice / body);
    worst = std::max(worst, ratio);
  }
  return worst;
}

double ClickRatioDb(const Waveform& wave) {
  const uint64_t n = wave.SampleCount();
  if (!wave.HasData() || n == 0) return std::numeric_limits<double>::quiet_NaN();
  std::vector<float> x(n);
  for (uint64_t i = 0; i < n; ++i)
    x[i] = wave.samplesF ? wave.samplesF[i] : static_cast<float>(wave.samples16[i]) * (1.0f / 32768.0f);
  const float end = std::min(wave.loopEnd, static_cast<float>(wave.length));
  if (!(wave.loopStart >= 0.0f) || !(end > wave.loopStart)) return std::numeric_limits<double>::quiet_NaN();
  return ClickRatioDb(x, wave.channels, static_cast<uint32_t>(wave.loopStart), static_cast<uint32_t>(end));
}

}  // namespace kv::test
