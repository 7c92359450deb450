#include "processing/volume.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/error.h"
#include "core/wavestore.h"

namespace kv {

bool maximizeAmplitude(Waveform& wave, int mode) {
  float* s = MakeSamplesFloat(wave);
  const uint64_t n = wave.SampleCount();
  if (!s || n == 0) return false;
  float lo = s[0], hi = s[0];
  double sum = 0;
  for (uint64_t i = 0; i < n; ++i) {
    lo = std::min(lo, s[i]);
    hi = std::max(hi, s[i]);
    sum += s[i];
  }
  const auto mean = static_cast<float>(sum / static_cast<double>(n));
  float scale = 1.0f, offset = 0.0f;
  if (mode == 1) {
    const float peak = std::max(std::fabs(lo), std::fabs(hi));
    if (peak == 0.0f) return false;
    scale = 1.0f / peak;
  } else if (mode == 0) {
    if (hi == lo) return false;
    scale = 2.0f / (hi - lo);
    offset = 1.0f - scale * hi;
  } else {
    const float reach = std::max(std::fabs(lo - mean), std::fabs(hi - mean));
    if (reach == 0.0f) return false;
    scale = 1.0f / reach;
    offset = -scale * mean;
  }
  if (scale == 1.0f && offset == 0.0f) return false;
  for (uint64_t i = 0; i < n; ++i) s[i] = scale * s[i] + offset;
  return true;
}

namespace {

bool Loud(const float* s, uint32_t frame, int channels, float threshold) {
  for (int c = 0; c < channels; ++c)
    if (std::fabs(s[static_cast<uint64_t>(frame) * channels + c]) >= threshold) return true;
  return false;
}

// The nearest sign change of channel 0 within `reach` frames from `at`,
// looking backwards or forwards, skipping zeros; `at` when there is none.
uint32_t ZeroCrossing(const float* s, int channels, uint32_t at, uint32_t limit, uint32_t reach, bool backwards) {
  float last = 0.0f;
  for (uint32_t k = 0; k <= reach; ++k) {
    const int64_t f = backwards ? int64_t{at} - k : int64_t{at} + k;
    if (f < 0 || (backwards ? f < limit : f > limit)) break;
    const float v = s[static_cast<uint64_t>(f) * channels];
    if (v == 0.0f) continue;
    if (last != 0.0f && (v > 0.0f) != (last > 0.0f)) return static_cast<uint32_t>(backwards ? f + 1 : f);
    last = v;
  }
  return at;
}

}  // namespace

bool removeSilence(Waveform& wave, bool fromStart, bool fromEnd, bool anywhere, float threshold, float minSilence,
                   bool smooth, bool deleteIfSilent, bool zeroCrossing) {
  if (anywhere) {
    // Gaps inside a wave come with the silence operations of the processing
    // wizard; only the ends are cut here.
    return Fail("removeSilence", "Removing silence inside a wave is not available yet");
  }
  float* s = MakeSamplesFloat(wave);
  const uint32_t length = wave.length;
  const int ch = wave.channels;
  if (!s || length == 0) return false;
  // Gap length and the smoothing of joins only matter for cuts inside.
  (void)minSilence;
  (void)smooth;
  uint32_t a = 0, b = length;
  if (fromStart)
    while (a < length && !Loud(s, a, ch, threshold)) ++a;
  if (fromEnd)
    while (b > a && !Loud(s, b - 1, ch, threshold)) --b;
  if (a + 4 >= b) {
    if (deleteIfSilent) DeleteItem(&wave);
    return deleteIfSilent;
  }
  if (zeroCrossing) {
    const uint32_t reach = wave.sampleRate / 80;
    a = ZeroCrossing(s, ch, a, 0, reach, true);
    b = ZeroCrossing(s, ch, b, length - 1, reach, false);
  }
  if (a == 0 && b == length) return false;
  const uint32_t kept = b - a;
  std::memmove(s, s + static_cast<uint64_t>(a) * ch, static_cast<uint64_t>(kept) * ch * sizeof(float));
  wave.length = kept;
  // The loop moves with the data; a loop cut away goes off.
  if (wave.loopType) {
    const float start = std::max(0.0f, wave.loopStart - static_cast<float>(a));
    const float end = std::min(static_cast<float>(kept), wave.loopEnd - static_cast<float>(a));
    wave.loopStart = start;
    wave.loopEnd = end;
    if (!(end > start)) wave.loopType = 0;
  }
  return true;
}

}  // namespace kv
