#include "processing/volume.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/error.h"
#include "core/wavestore.h"

namespace kv {

namespace {

constexpr double kScale16 = 1.0 / 32768.0;

int16_t Saturate16(int32_t v) { return static_cast<int16_t>(std::clamp(v, -32768, 32767)); }

// Minimum, maximum and mean of all samples of all channels, on the -1..1
// scale, read from whichever form the wave holds.
struct Extremes {
  float lo = 0.0f;
  float hi = 0.0f;
  double mean = 0.0;
};

Extremes FindExtremes(const Waveform& wave) {
  const uint64_t n = wave.SampleCount();
  Extremes e;
  if (n == 0) return e;
  if (wave.samplesF) {
    const float* s = wave.samplesF.get();
    float lo = s[0], hi = s[0];
    double sum = 0;
    for (uint64_t i = 0; i < n; ++i) {
      lo = std::min(lo, s[i]);
      hi = std::max(hi, s[i]);
      sum += s[i];
    }
    e = {lo, hi, sum / static_cast<double>(n)};
  } else {
    const int16_t* s = wave.samples16.get();
    int lo = s[0], hi = s[0];
    int64_t sum = 0;
    for (uint64_t i = 0; i < n; ++i) {
      lo = std::min<int>(lo, s[i]);
      hi = std::max<int>(hi, s[i]);
      sum += s[i];
    }
    e = {static_cast<float>(lo * kScale16), static_cast<float>(hi * kScale16),
         static_cast<double>(sum) / static_cast<double>(n) * kScale16};
  }
  return e;
}

}  // namespace

bool applyGain(Waveform& wave, float dB, int64_t first, int64_t end) {
  if (wave.SampleCount() == 0) return true;
  if (!wave.HasData() && !wave.EnsureData()) return false;
  if (dB == 0.0f) return true;
  const FrameSpan span = SpanOf(wave, first, end);
  if (span.empty()) return true;  // a range outside the wave: nothing to do, as at 0 dB
  const auto g = static_cast<float>(std::exp(static_cast<double>(dB) / 20.0 * 2.3025851));
  const uint64_t from = uint64_t{span.first} * wave.channels;
  const uint64_t to = uint64_t{span.end} * wave.channels;
  if (!wave.samplesF) {
    // 16-bit data: the move to float and the gain in one pass over the new
    // buffer, with the same arithmetic as the two passes.
    const uint64_t n = wave.SampleCount();
    auto out = TryAllocArray<float>(n);
    if (!out) return Fail("Convert to float", "Out of memory");
    const int16_t* in = wave.samples16.get();
    float* f = out.get();
    constexpr float kToFloat = 1.0f / 32768.0f;
    for (uint64_t i = 0; i < from; ++i) f[i] = static_cast<float>(in[i]) * kToFloat;
    for (uint64_t i = from; i < to; ++i) f[i] = std::clamp(g * (static_cast<float>(in[i]) * kToFloat), -1.0f, 1.0f);
    for (uint64_t i = to; i < n; ++i) f[i] = static_cast<float>(in[i]) * kToFloat;
    wave.samplesF = std::move(out);
    wave.samples16.reset();
    wave.readCallback = nullptr;
  } else {
    float* s = MakeSamplesFloat(wave);
    if (!s) return false;
    for (uint64_t i = from; i < to; ++i) s[i] = std::clamp(g * s[i], -1.0f, 1.0f);
  }
  wave.bits = 16;
  return true;
}

EditResult maximizeAmplitude(Waveform& wave, int mode) {
  if (!wave.HasData() && !wave.EnsureData()) return EditResult::Failed;
  if (wave.SampleCount() == 0) return EditResult::Unchanged;
  const Extremes e = FindExtremes(wave);
  const float lo = e.lo, hi = e.hi;
  const auto mean = static_cast<float>(e.mean);
  float scale = 1.0f, offset = 0.0f;
  if (mode == 1) {
    const float peak = std::max(std::fabs(lo), std::fabs(hi));
    if (peak == 0.0f) return EditResult::Unchanged;
    scale = 1.0f / peak;
  } else if (mode == 0) {
    if (hi == lo) return EditResult::Unchanged;
    scale = 2.0f / (hi - lo);
    offset = 1.0f - scale * hi;
  } else {
    const float reach = std::max(std::fabs(lo - mean), std::fabs(hi - mean));
    if (reach == 0.0f) return EditResult::Unchanged;
    scale = 1.0f / reach;
    offset = -scale * mean;
  }
  if (scale == 1.0f && offset == 0.0f) return EditResult::Unchanged;
  float* s = MakeSamplesFloat(wave);
  if (!s) return EditResult::Failed;
  const uint64_t n = wave.SampleCount();
  for (uint64_t i = 0; i < n; ++i) s[i] = scale * s[i] + offset;
  return EditResult::Changed;
}

EditResult removeDcOffset(Waveform& wave) {
  if (!wave.HasData() && !wave.EnsureData()) return EditResult::Failed;
  const uint64_t n = wave.SampleCount();
  if (n == 0) return EditResult::Unchanged;
  if (!wave.samplesF) {
    const int16_t* in = wave.samples16.get();
    int64_t sum = 0;
    for (uint64_t i = 0; i < n; ++i) sum += in[i];
    const auto mean = static_cast<int32_t>(static_cast<double>(sum) / static_cast<double>(n));
    if (mean == 0) return EditResult::Unchanged;
    if (!OwnData(wave)) return EditResult::Failed;
    int16_t* s = wave.samples16.get();
    for (uint64_t i = 0; i < n; ++i) s[i] = Saturate16(s[i] - mean);
    return EditResult::Changed;
  }
  const float* in = wave.samplesF.get();
  double sum = 0;
  for (uint64_t i = 0; i < n; ++i) sum += in[i];
  const auto mean = static_cast<float>(sum / static_cast<double>(n));
  if (mean == 0.0f) return EditResult::Unchanged;
  float* s = MakeSamplesFloat(wave);
  if (!s) return EditResult::Failed;
  for (uint64_t i = 0; i < n; ++i) s[i] = std::clamp(s[i] - mean, -1.0f, 1.0f);
  return EditResult::Changed;
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
