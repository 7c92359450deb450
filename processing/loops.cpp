#include "processing/loops.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "core/app.h"
#include "core/error.h"
#include "core/param_catalogue.h"
#include "core/samplecodec.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/wavestore.h"
#include "processing/pitch.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kv {

EditResult setLoopToSelection(Waveform& wave, int64_t first, int64_t end) {
  const int64_t length = wave.length;
  if (first < 0 || first >= length) return EditResult::Unchanged;
  const int64_t last = std::min(end, length);
  if (last <= first) return EditResult::Unchanged;
  const auto start = static_cast<float>(first);
  const auto stop = static_cast<float>(last);
  if (wave.loopType == 1 && wave.loopStart == start && wave.loopEnd == stop) return EditResult::Unchanged;
  const auto oldStart = static_cast<int64_t>(std::max(wave.loopStart, 0.0f) + 0.5f);
  const auto oldEnd = static_cast<int64_t>(std::min(wave.loopEnd, static_cast<float>(length)) + 0.5f);
  wave.loopType = 1;
  wave.loopStart = start;
  wave.loopEnd = stop;
  if (wave.collection) FollowLoopChange(*wave.collection, wave, oldStart, oldEnd, first, last);
  return EditResult::Changed;
}

namespace {

constexpr float kFrom16 = 3.0517578e-5f;

// trunc(v + 0.5) for the loop points of the trims and the sanitizer.
int64_t Whole(double v) { return static_cast<int64_t>(v + 0.5); }

bool Loaded(Waveform& wave) { return wave.HasData() || wave.EnsureData(); }

// Sum of squares and of products over w samples, each product in f32 and
// added in double.
struct Sums {
  double aa = 0, ab = 0;
};

double SumSquares(const float* a, int64_t w) {
  int64_t i = 0;
  double total = 0;
#if defined(__SSE2__)
  __m128d lo = _mm_setzero_pd(), hi = _mm_setzero_pd();
  for (; i + 4 <= w; i += 4) {
    const __m128 va = _mm_loadu_ps(a + i);
    const __m128 p = _mm_mul_ps(va, va);
    lo = _mm_add_pd(lo, _mm_cvtps_pd(p));
    hi = _mm_add_pd(hi, _mm_cvtps_pd(_mm_movehl_ps(p, p)));
  }
  double lanes[2];
  _mm_storeu_pd(lanes, _mm_add_pd(lo, hi));
  total = lanes[0] + lanes[1];
#endif
  for (; i < w; ++i) total += static_cast<double>(a[i] * a[i]);
  return total;
}

// Sb and Sab in one pass.
Sums SumsWith(const float* a, const float* b, int64_t w) {
  int64_t i = 0;
  Sums s;
#if defined(__SSE2__)
  __m128d bbLo = _mm_setzero_pd(), bbHi = _mm_setzero_pd(), abLo = _mm_setzero_pd(), abHi = _mm_setzero_pd();
  for (; i + 4 <= w; i += 4) {
    const __m128 va = _mm_loadu_ps(a + i), vb = _mm_loadu_ps(b + i);
    const __m128 bb = _mm_mul_ps(vb, vb), ab = _mm_mul_ps(va, vb);
    bbLo = _mm_add_pd(bbLo, _mm_cvtps_pd(bb));
    bbHi = _mm_add_pd(bbHi, _mm_cvtps_pd(_mm_movehl_ps(bb, bb)));
    abLo = _mm_add_pd(abLo, _mm_cvtps_pd(ab));
    abHi = _mm_add_pd(abHi, _mm_cvtps_pd(_mm_movehl_ps(ab, ab)));
  }
  double lanes[2];
  _mm_storeu_pd(lanes, _mm_add_pd(bbLo, bbHi));
  s.aa = lanes[0] + lanes[1];
  _mm_storeu_pd(lanes, _mm_add_pd(abLo, abHi));
  s.ab = lanes[0] + lanes[1];
#endif
  for (; i < w; ++i) {
    s.aa += static_cast<double>(b[i] * b[i]);
    s.ab += static_cast<double>(a[i] * b[i]);
  }
  return s;
}

// The correlation of two windows of up to 160 samples centred on the splice
// of a loop s..e. Window A's energy repeats for every start of one end, so
// the last one is kept.
struct SpliceScorer {
  const float* x;
  int64_t n;
  int64_t cachedA = -1, cachedW = -1;
  double cachedSa = 0;

  float Score(int64_t s, int64_t e) {
    int64_t w = std::min<int64_t>(e - s, 160);
    const int64_t h = w / 2;
    int64_t a = e - h, b = s - h;
    if (b < 0) {
      a = e - s;
      b = 0;
    }
    if (a + w > n) {
      const int64_t oldA = a;
      a = n - w;
      b = b - oldA + n - w;
      if (b < 0) {
        w += b;
        b = 0;
      }
    }
    if (w < 1) return 0.0f;
    if (a != cachedA || w != cachedW) {
      cachedSa = SumSquares(x + a, w);
      cachedA = a;
      cachedW = w;
    }
    const Sums sb = SumsWith(x + a, x + b, w);
    if (!(cachedSa > 0) || !(sb.aa > 0)) return 0.0f;
    return static_cast<float>(sb.ab) / std::sqrt(static_cast<float>(cachedSa * sb.aa));
  }
};

// The next start at or below `s` (not below `low`) whose sample lies within
// 0.01 of `xe`; low - 1 when there is none.
int64_t NextCandidate(const float* x, int64_t s, int64_t low, float xe) {
#if defined(__SSE2__)
  const __m128 target = _mm_set1_ps(xe), limit = _mm_set1_ps(0.01f);
  const __m128 absMask = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
  while (s - 3 >= low) {
    const __m128 d = _mm_and_ps(_mm_sub_ps(_mm_loadu_ps(x + s - 3), target), absMask);
    const int hits = _mm_movemask_ps(_mm_cmple_ps(d, limit));
    if (hits) return s - 3 + (31 - __builtin_clz(static_cast<unsigned>(hits)));
    s -= 4;
  }
#endif
  for (; s >= low; --s)
    if (!(std::fabs(x[s] - xe) > 0.01f)) return s;
  return s;
}

LoopSearchResult g_lastSearch;

}  // namespace

const char* const kLongWaveText =
    "Warning!\n\nThe 'Auto loop finder' could take a very long time to process this waveform!\n\n(You can press Esc "
    "at any time to cancel it, and you can see a progress report in the status bar of the main window)";

bool& LongWaveWarning() {
  static bool on = true;
  return on;
}

const LoopSearchResult& LastLoopSearch() { return g_lastSearch; }

int64_t autoLoopMinimumLength(uint32_t frames, uint32_t rate, double f0) {
  int64_t length = f0 > 0 ? static_cast<int64_t>(rate * 0.9 / f0) : frames / 8;
  length = std::min<int64_t>(length, frames / 4);
  return length < 17 ? 16 : length;
}

bool findLoop(std::span<const float> samples, uint32_t rate, double startLo, double startHi, double endLo,
              double endHi, const char* name, LoopSearchResult& r) {
  r = {};
  r.score = 1e-32f;
  if (samples.empty()) return false;
  const auto n = static_cast<int64_t>(samples.size() - 1);
  const float* x = samples.data();
  if (n <= 0) return false;
  r.f0 = dominantFrequency(samples.first(static_cast<std::size_t>(n)), static_cast<uint32_t>(n), 1, rate);
  float peak = 0;
  for (int64_t i = 0; i < n; ++i) peak = std::max(peak, x[i] * x[i]);
  if (!(peak > 0)) {
    r.silent = true;
    return false;
  }

  auto round = [](double v) { return static_cast<int64_t>(v + 0.499); };
  const int64_t endLow = std::clamp<int64_t>(round(n * endLo), 0, n - 1);
  int64_t endHigh = std::clamp<int64_t>(round(n * endHi), 0, n - 1);
  // A decaying tail is no place for a loop end: back to the last loud frame,
  // then to a sign change.
  while (endHigh > endLow && !(x[endHigh] * x[endHigh] > peak * 0.0625f)) --endHigh;
  while (endHigh > endLow && !(x[endHigh] * x[endHigh + 1] < 0.0f)) --endHigh;
  const int64_t eStart = std::min(endHigh + 1, n);
  const int64_t startLow = std::max<int64_t>(std::min(round(n * startLo), std::max<int64_t>(eStart - 32, 0)), 0);
  const int64_t startHigh = std::max<int64_t>(std::min(round(n * startHi), std::max<int64_t>(eStart - 16, 0)), 0);
  const int64_t minimum = autoLoopMinimumLength(static_cast<uint32_t>(n), rate, r.f0);
  r.minimumLength = minimum;

  double work = 0;
  for (int64_t e = eStart; e >= endLow; --e)
    work += static_cast<double>(std::max<int64_t>(std::min(startHigh, e - minimum) - startLow + 1, 1));
  double done = 0;
  SpliceScorer scorer{x, n};
  float best = 1e-32f;
  for (int64_t e = eStart; e >= endLow; --e) {
    const int64_t top = std::min(startHigh, e - minimum);
    if (e % 32 == 0) {
      StatusText("Finding loop for: \"%s\" - %d%%", name, static_cast<int>(done * 100.0 / work));
      if (CancelRequested()) {
        r.cancelled = true;
        return false;
      }
    }
    done += static_cast<double>(std::max<int64_t>(top - startLow + 1, 1));
    if (top < startLow) continue;
    r.pairs += static_cast<uint64_t>(top - startLow + 1);
    const float xe = x[e];
    for (int64_t s = NextCandidate(x, top, startLow, xe); s >= startLow; s = NextCandidate(x, s - 1, startLow, xe)) {
      const float score = scorer.Score(s, e);
      if (score > best) {
        best = score;
        r.start = s;
        r.end = e;
      }
    }
  }
  r.score = best;
  return best != 1e-32f;
}

bool autoLoop(Waveform& wave, bool crossfade, bool sustain, bool cut, double startLo, double startHi, double endLo,
              double endHi) {
  static constexpr const char* kContext = "Auto loop finder";
  g_lastSearch = {};
  const uint32_t n = wave.length;
  const std::string name(wave.Name());
  if (n == 0) return false;
  if (LongWaveWarning() && n >= kLongWaveFrames) {
    const int answer = MessageBox(kLongWaveText, name, BoxButtons::ThreeWay);
    if (answer == kBoxFirst) return false;  // "Abort"
    if (answer == kBoxThird) LongWaveWarning() = false;  // "Don't ask again"
  }
  if (!Loaded(wave)) return false;
  // The search's mono copy, one frame longer: x[n] reads 0.
  auto x = TryAllocArray<float>(uint64_t{n} + 1);
  if (!x) return Fail(kContext, "Out of memory");
  x[n] = 0.0f;
  if (wave.channels == 2) {
    if (wave.samplesF) {
      kvStereoToMono(std::span<const float>(wave.samplesF.get(), uint64_t{n} * 2), std::span<float>(x.get(), n));
    } else {
      auto mono = TryAllocArray<int16_t>(n);
      if (!mono) return Fail(kContext, "Out of memory");
      kvStereoToMono(std::span<const int16_t>(wave.samples16.get(), uint64_t{n} * 2), std::span<int16_t>(mono.get(), n));
      for (uint32_t i = 0; i < n; ++i) x[i] = mono[i] * kFrom16;
    }
  } else {
    const uint32_t ch = wave.channels;
    for (uint32_t i = 0; i < n; ++i)
      x[i] = wave.samplesF ? wave.samplesF[uint64_t{i} * ch] : wave.samples16[uint64_t{i} * ch] * kFrom16;
  }
  LoopSearchResult& r = g_lastSearch;
  const bool found = findLoop(std::span<const float>(x.get(), uint64_t{n} + 1), wave.sampleRate, startLo, startHi,
                              endLo, endHi, name.c_str(), r);
  x.reset();
  if (r.cancelled) {
    StatusText("Failed: Loop find cancelled");
    return false;
  }
  if (r.silent) return false;
  StatusText("Done: Loop found and set!");
  if (!found) return false;

  // The cross-fade and the cut work on the wave itself: its state is kept so
  // that a failure of either leaves it as it was.
  const uint8_t oldType = wave.loopType, oldRelease = wave.loopRelease;
  const float oldStart = wave.loopStart, oldEnd = wave.loopEnd;
  std::unique_ptr<int16_t[]> keep16;
  std::unique_ptr<float[]> keepF;
  const uint32_t oldLength = wave.length;
  const bool trims = cut && !sustain;
  if (crossfade || trims) {
    const uint64_t count = wave.SampleCount();
    if (wave.samplesF) {
      if (!(keepF = TryAllocArray<float>(count + 1))) return Fail(kContext, "Out of memory");
      std::copy_n(wave.samplesF.get(), count, keepF.get());
    } else {
      if (!(keep16 = TryAllocArray<int16_t>(count + 1))) return Fail(kContext, "Out of memory");
      std::copy_n(wave.samples16.get(), count, keep16.get());
    }
  }
  wave.loopType = 1;
  wave.loopRelease = sustain ? 1 : 0;
  wave.loopStart = static_cast<float>(r.start);
  wave.loopEnd = static_cast<float>(r.end);
  bool ok = true;
  ClearError();
  if (crossfade && !crossfadeLoop(wave, r.start, r.end, r.end - r.start, sustain, false) && ErrorMessage[0]) ok = false;
  if (ok && trims && trimAfterLoop(wave, true, false, false) < 0) ok = false;
  if (!ok) {
    wave.loopType = oldType;
    wave.loopRelease = oldRelease;
    wave.loopStart = oldStart;
    wave.loopEnd = oldEnd;
    wave.length = oldLength;
    if (keepF) {
      wave.samplesF = std::move(keepF);
      wave.samples16.reset();
    } else {
      wave.samples16 = std::move(keep16);
      wave.samplesF.reset();
    }
    return false;
  }
  return true;
}

// ---- cross-fade ----

int64_t maximumCrossfade(const Waveform& wave) {
  if (wave.loopType == 0) return 0;
  const int64_t start = Whole(std::max(wave.loopStart, 0.0f));
  const int64_t end = Whole(std::min(wave.loopEnd, static_cast<float>(wave.length)));
  return std::max<int64_t>(std::min(end - start, start), 0);
}

bool crossfadeLoop(Waveform& wave, int64_t start, int64_t end, int64_t length, bool reverseAfter, bool exponential) {
  static constexpr const char* kContext = "Cross-fade loop";
  const int64_t n = wave.length;
  start = std::max<int64_t>(start, 0);
  end = std::min(end, n);
  length = std::min({start, length, end - start});
  if (wave.loopType == 0 || length <= 0) return false;
  if (!Loaded(wave)) return false;
  const uint32_t ch = wave.channels;
  const uint64_t count = wave.SampleCount();
  auto x = TryAllocArray<float>(count + 1);
  if (!x) return Fail(kContext, "Out of memory");
  if (wave.samplesF) std::copy_n(wave.samplesF.get(), count, x.get());
  else
    for (uint64_t i = 0; i < count; ++i) x[i] = wave.samples16[i] * kFrom16;
  auto at = [&](int64_t frame, uint32_t k) -> float& { return x[static_cast<uint64_t>(frame) * ch + k]; };
  auto blend = [](double a, double wa, double b, double wb) {
    return std::clamp(static_cast<float>(a * wa + b * wb), -1.0f, 1.0f);
  };
  for (uint32_t k = 0; k < ch; ++k) {
    if (reverseAfter && end < n) {
      const int64_t m = std::min(length, n - end);
      for (int64_t j = 0; j < m; ++j) {
        const double t = static_cast<double>(m - 1 - j) / m;
        const double g = exponential ? std::log10(t * 9 + 1) : t;
        at(end + j, k) = blend(at(start + j, k), g, at(end + j, k), 1 - g);
      }
    }
    for (int64_t j = 0; j < length; ++j) {
      const double t = static_cast<double>(length - 1 - j) / length;
      float& y = at(end - length + j, k);
      const float from = at(start - length + j, k);
      if (exponential) {
        const double u = 1 - std::log10(t * 9 + 1);
        y = blend(from, u, y, 1 - u);
      } else {
        y = blend(from, 1 - t, y, t);
      }
    }
  }
  wave.samplesF = std::move(x);
  wave.samples16.reset();
  wave.readCallback = nullptr;
  wave.loopStart = static_cast<float>(start);
  wave.loopEnd = static_cast<float>(end);
  return true;
}

// ---- trim after loop ----

namespace {

template <typename T>
std::unique_ptr<T[]> TrimmedCopy(const T* in, uint32_t ch, int64_t keep, int64_t loopStart, int64_t loopEnd,
                                 bool append32) {
  const uint64_t frames = static_cast<uint64_t>(keep) + (append32 ? 32 : 0);
  auto out = TryAllocArray<T>(frames * ch + 1);
  if (!out) return out;
  std::copy_n(in, static_cast<uint64_t>(keep) * ch, out.get());
  if (append32) {
    const int64_t span = std::min(loopEnd, keep) - loopStart;
    for (int64_t i = 0; i < 32; ++i)
      for (uint32_t k = 0; k < ch; ++k)
        out[static_cast<uint64_t>(keep + i) * ch + k] =
            span > 0 ? in[static_cast<uint64_t>(loopStart + i % span) * ch + k] : T{};
  }
  return out;
}

template <typename T>
std::unique_ptr<T[]> TailCopy(const T* in, uint32_t ch, int64_t from, int64_t n) {
  auto out = TryAllocArray<T>(static_cast<uint64_t>(n - from) * ch + 1);
  if (out) std::copy_n(in + static_cast<uint64_t>(from) * ch, static_cast<uint64_t>(n - from) * ch, out.get());
  return out;
}

}  // namespace

int trimAfterLoop(Waveform& wave, bool append32, bool regionOverrides, bool saveRelease, ItemId* releaseId) {
  static constexpr const char* kContext = "Trim waveform after loop";
  if (wave.loopType == 0) return 0;
  if (!OwnData(wave)) return -1;
  const int64_t n = wave.length;
  const int64_t start = Whole(wave.loopStart);
  int64_t end = Whole(wave.loopEnd - wave.loopStart) + start;
  if (regionOverrides && wave.collection) {
    for (Region* r : wave.collection->All<Region>()) {
      if (RegionWaveform(*r) != &wave || !(r->overrideMask & (kOverrideLoopStart | kOverrideLoopEnd))) continue;
      const int64_t e = Whole((r->overrideMask & kOverrideLoopEnd) ? r->loopEnd : wave.loopEnd);
      if (e <= n && e >= end) end = e;
    }
  }
  if (end <= start) return 0;  // a loop that rounds to nothing has no end to cut at
  const bool release = saveRelease && end < n - 32 && end >= 0 && wave.collection;
  const bool cuts = end < n && end >= 0;
  if (!cuts && !append32) return 0;
  const int64_t keep = cuts ? end : n;
  const uint32_t ch = wave.channels;
  const int64_t s = std::clamp<int64_t>(start, 0, keep);
  std::unique_ptr<int16_t[]> main16, tail16;
  std::unique_ptr<float[]> mainF, tailF;
  if (wave.samples16) {
    main16 = TrimmedCopy(wave.samples16.get(), ch, keep, s, end, append32);
    if (release) tail16 = TailCopy(wave.samples16.get(), ch, end, n);
    if (!main16 || (release && !tail16)) return (Fail(kContext, "Out of memory"), -1);
  } else {
    mainF = TrimmedCopy(wave.samplesF.get(), ch, keep, s, end, append32);
    if (release) tailF = TailCopy(wave.samplesF.get(), ch, end, n);
    if (!mainF || (release && !tailF)) return (Fail(kContext, "Out of memory"), -1);
  }
  if (release) {
    const std::string name = std::string(Utf8Prefix(wave.Name(), 120)) + " Release";
    auto* tail = static_cast<Waveform*>(CloneItem(wave, *wave.collection, name.c_str(), false));
    if (!tail) return (Fail(kContext, "Out of memory"), -1);
    tail->samples16 = std::move(tail16);
    tail->samplesF = std::move(tailF);
    tail->readCallback = nullptr;
    tail->length = static_cast<uint32_t>(n - end);
    tail->loopType = wave.loopType;
    tail->loopStart = 0.0f;
    tail->loopEnd = static_cast<float>(tail->length);
    if (releaseId) *releaseId = tail->id;
  }
  if (main16) wave.samples16 = std::move(main16);
  else wave.samplesF = std::move(mainF);
  wave.length = static_cast<uint32_t>(keep + (append32 ? 32 : 0));
  if (cuts) wave.loopRelease = 0;
  // A fractional end may lie a little past the cut.
  wave.loopEnd = std::min(wave.loopEnd, static_cast<float>(wave.length));
  if (wave.collection) FollowLoopChange(*wave.collection, wave, start, end, start, end);
  return release ? 1 : 0;
}

// ---- zero crossings ----

int snapToZeroCrossing(Waveform& wave, float& position, int64_t low, int64_t high, int wantedSlope) {
  const int64_t n = wave.length;
  low = std::max<int64_t>(low, 1);
  high = std::min<int64_t>(high, n - 2);
  const int64_t p = static_cast<int64_t>(static_cast<double>(position) + 0.5);
  if (p < low || p >= high) return 0;
  const int16_t* v = Samples16(wave);
  if (!v) return 0;
  const bool stereo = wave.channels == 2;
  auto sample = [&](int64_t i) {
    return stereo ? int{v[2 * i]} + int{v[2 * i + 1]} : int{v[static_cast<uint64_t>(i) * wave.channels]};
  };
  const bool fractional = (Settings().features >> kFeatFractionalLoops) & 1;
  const int64_t reach = std::max(p - low, high - p);
  for (int64_t d = 0; d <= reach; ++d) {
    for (const int64_t i : {p - d, p + d}) {
      if (i < low || i > high) continue;
      int a = sample(i);
      const int b = sample(i + 1);
      const bool zero = a == 0;
      if (zero) a = sample(i - 1);
      if (!(static_cast<int64_t>(a) * b < 0)) continue;
      const int slope = b < 1 ? -1 : 1;
      if (wantedSlope != 0 && wantedSlope != slope) continue;
      if (zero) {
        position = static_cast<float>(i);
      } else {
        double r = b == 0 ? 0.0 : std::fabs(static_cast<double>(a)) / std::fabs(static_cast<double>(b));
        r = r / (r + 1);
        if (fractional) position = static_cast<float>(i + r);
        else position = static_cast<float>(r >= 0.5 ? i + 1 : i);
      }
      return slope;
    }
  }
  return 0;
}

EditResult moveLoopToZeroCrossing(Waveform& wave) {
  if (wave.loopType == 0 || wave.length < 3) return EditResult::Unchanged;
  if (!Loaded(wave)) return EditResult::Failed;
  if (!Samples16(wave)) return EditResult::Failed;
  const int64_t n = wave.length;
  float start = wave.loopStart, end = wave.loopEnd;
  const int64_t endFrame = static_cast<int64_t>(std::min(static_cast<double>(end), 4294967296.0));
  const int slope = snapToZeroCrossing(wave, start, 0, std::min(endFrame, n - 1), 0);
  snapToZeroCrossing(wave, end, static_cast<int64_t>(start) + 1, n - 1, slope);
  if (start == wave.loopStart && end == wave.loopEnd) return EditResult::Unchanged;
  const int64_t oldStart = Whole(std::max(wave.loopStart, 0.0f));
  const int64_t oldEnd = Whole(std::min(wave.loopEnd, static_cast<float>(n)));
  wave.loopStart = start;
  wave.loopEnd = end;
  if (wave.collection)
    FollowLoopChange(*wave.collection, wave, oldStart, oldEnd, Whole(start), Whole(std::min(end, static_cast<float>(n))));
  return EditResult::Changed;
}

// ---- enable/disable ----

const char* const kLoopChoiceLabels[kLoopChoiceCount] = {
    "Disable all loops.",
    "Enable loop over the whole waveform for all waveforms that are not already looped.",
    "Enable loop over the whole waveform for all waveforms.",
};

EditResult setLoopsEnabled(Waveform& wave, int choice) {
  if (choice == 0) {
    wave.loopType = 0;
    return EditResult::Changed;
  }
  if (choice == 1 && wave.loopType != 0) return EditResult::Unchanged;
  wave.loopType = 1;
  wave.loopRelease = 0;
  wave.loopStart = 0.0f;
  wave.loopEnd = static_cast<float>(wave.length);
  return EditResult::Changed;
}

}  // namespace kv
