#include "core/resample.h"

#include <immintrin.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/error.h"
#include "core/items.h"
#include "core/samplecodec.h"
#include "core/wavestore.h"

namespace kv {

const char* const kResampleAlgorithmLabels[kResampleAlgorithmCount] = {
    "Nearest neighbor - '1-tap'",
    "Linear interpolation - '2-tap'",
    "Cubic interpolation - '4-tap'",
    "FIR filter: > 8-bits S/N (fast)",
    "FIR filter: > 12-bits S/N (fast)",
    "FIR filter: > 16-bits S/N (fast)",
    "FIR filter: > 20-bits S/N (slower)",
    "FIR filter: > 24-bits S/N (very slow)",
    "FIR filter: Auto-select >16 or >20-bits S/N",
};

namespace {

constexpr const char* kContext = "kvResample2";
constexpr float kNormalise16 = 3.0517578e-5f;
// Zeros kept beyond what a kind reads, so that the vector loops may read a
// whole group of four past the last tap.
constexpr uint32_t kSlack = 4;

std::atomic<uint64_t> g_budgetOverride{0};

// What a run may allocate: most of the memory the system has free, and no
// more than the process's own limits, so that a huge filter fails with "Out
// of memory" instead of being overcommitted and killed when touched.
uint64_t MemoryBudget() {
  if (const uint64_t forced = g_budgetOverride.load()) return forced;
  uint64_t budget = UINT64_MAX;
  if (std::FILE* f = std::fopen("/proc/meminfo", "re")) {
    char line[128];
    unsigned long long kb = 0;
    while (std::fgets(line, sizeof line, f))
      if (std::sscanf(line, "MemAvailable: %llu kB", &kb) == 1) {
        budget = kb * 1024 / 4 * 3;
        break;
      }
    std::fclose(f);
  }
  for (int resource : {RLIMIT_AS, RLIMIT_DATA}) {
    rlimit limit{};
    if (::getrlimit(resource, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
      budget = std::min<uint64_t>(budget, limit.rlim_cur / 2);
  }
  return budget;
}

enum class Kind : uint8_t { Nearest, Linear, Cubic, Fir };

Kind KindOf(int algorithm) {
  switch (algorithm) {
    case 0: return Kind::Nearest;
    case 2: return Kind::Cubic;
    case 3: case 4: case 5: case 6: case 7: case 8: return Kind::Fir;
    default: return Kind::Linear;
  }
}

// Zeros a kind reads ahead of frame 0 and behind the last frame.
struct Reach {
  uint32_t before;
  uint32_t after;
};

Reach ReachOf(Kind kind, const FirDesign& fir) {
  switch (kind) {
    case Kind::Nearest:
    case Kind::Linear: return {0, 1};
    case Kind::Cubic: return {1, 2};
    case Kind::Fir: return {fir.half - 1, fir.half};
  }
  return {0, 1};
}

// The source's channels as normalised float rows with zeros around them.
// Frames past the last one read zeros as far as `before` frames behind it,
// since a position up to there still reaches real samples.
class PaddedRows {
 public:
  uint64_t Bytes(const Waveform& w, Reach reach) const {
    return uint64_t{w.channels} * RowFloats(w.length, reach) * sizeof(float);
  }
  bool Build(const Waveform& w, Reach reach) {
    lead_ = reach.before + kSlack;
    rowFloats_ = RowFloats(w.length, reach);
    data_ = TryAllocArray<float>(rowFloats_ * w.channels);
    if (!data_) return false;
    std::fill(data_.get(), data_.get() + rowFloats_ * w.channels, 0.0f);
    const unsigned channels = w.channels;
    for (unsigned ch = 0; ch < channels; ++ch) {
      float* row = Row(ch);
      if (w.samplesF) {
        const float* in = w.samplesF.get() + ch;
        for (uint32_t i = 0; i < w.length; ++i) row[i] = in[uint64_t{i} * channels];
      } else if (w.samples16) {
        const int16_t* in = w.samples16.get() + ch;
        for (uint32_t i = 0; i < w.length; ++i) row[i] = static_cast<float>(in[uint64_t{i} * channels]) * kNormalise16;
      }
    }
    return true;
  }
  float* Row(unsigned channel) const { return data_.get() + channel * rowFloats_ + lead_; }

 private:
  static uint64_t RowFloats(uint32_t length, Reach reach) {
    return uint64_t{reach.before} + kSlack + length + reach.after + reach.before + 1 + kSlack;
  }
  std::unique_ptr<float[]> data_;
  uint64_t rowFloats_ = 0;
  uint32_t lead_ = 0;
};

// The kinds share one shape: `Frame` fills every channel of one output frame
// (clamped), `sample` one channel unclamped; `Frame` is what the core's loop
// calls, chosen once per run, not per sample.
class RowInterpolator : public Interpolator {
 public:
  RowInterpolator(PaddedRows rows, unsigned channels) : rows_(std::move(rows)), channels_(channels) {}

 protected:
  const float* X(unsigned channel) const { return rows_.Row(channel); }
  PaddedRows rows_;
  unsigned channels_;
};

class NearestInterpolator final : public RowInterpolator {
 public:
  using RowInterpolator::RowInterpolator;
  float sample(unsigned ch, uint32_t i, float t) override { return t >= 0.5f ? X(ch)[i + 1] : X(ch)[i]; }
  void Frame(uint32_t i, float t, float* out) {
    for (unsigned ch = 0; ch < channels_; ++ch) out[ch] = std::clamp(sample(ch, i, t), -1.0f, 1.0f);
  }
};

class LinearInterpolator final : public RowInterpolator {
 public:
  using RowInterpolator::RowInterpolator;
  float sample(unsigned ch, uint32_t i, float t) override {
    const float* x = X(ch) + i;
    return static_cast<float>(double{x[0]} + (double{x[1]} - double{x[0]}) * double{t});
  }
  void Frame(uint32_t i, float t, float* out) {
    for (unsigned ch = 0; ch < channels_; ++ch) out[ch] = std::clamp(sample(ch, i, t), -1.0f, 1.0f);
  }
};

class CubicInterpolator final : public RowInterpolator {
 public:
  using RowInterpolator::RowInterpolator;
  float sample(unsigned ch, uint32_t i, float t) override {
    // The Lagrange polynomial through x[i-1] .. x[i+2], Horner form.
    const float* x = X(ch) + i;
    const double a = x[-1], b = x[0], c = x[1], d = x[2], u = t;
    return static_cast<float>(
        ((((3 * (b - c) + d - a) * u + (3 * (a + c) - 6 * b)) * u + (6 * c - d - 3 * b - 2 * a)) * u + 6 * b) / 6);
  }
  void Frame(uint32_t i, float t, float* out) {
    for (unsigned ch = 0; ch < channels_; ++ch) out[ch] = std::clamp(sample(ch, i, t), -1.0f, 1.0f);
  }
};

// ---- the FIR's dot products ----

// sum over k < count of c[k] * x[dir * k] per channel, where c = (1 - frac)
// a0 + frac a1 (a0 alone without a1). Up to two channels per call.
void BlendDotScalar(const double* a0, const double* a1, double frac, const float* const* x, unsigned nch,
                    uint32_t count, int dir, double* sums) {
  double s0 = 0.0, s1 = 0.0;
  const double keep = 1.0 - frac;
  for (uint32_t k = 0; k < count; ++k) {
    const double c = a1 ? keep * a0[k] + frac * a1[k] : a0[k];
    const std::ptrdiff_t at = dir > 0 ? std::ptrdiff_t(k) : -std::ptrdiff_t(k);
    s0 += c * x[0][at];
    if (nch > 1) s1 += c * x[1][at];
  }
  sums[0] = s0;
  sums[1] = s1;
}

__attribute__((target("avx2,fma"))) static inline double HorizontalSum(__m256d v) {
  const __m128d lo = _mm256_castpd256_pd128(v), hi = _mm256_extractf128_pd(v, 1);
  const __m128d pair = _mm_add_pd(lo, hi);
  return _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

// The same four taps at a time. Backwards (dir < 0) the coefficients are
// reversed once per group, so that every channel reads its four samples in
// memory order.
template <int Dir, bool Blend>
__attribute__((target("avx2,fma"))) static inline __m256d Coefficients(const double* a0, const double* a1,
                                                                       __m256d vf, __m256d vk, uint32_t k) {
  __m256d c = _mm256_loadu_pd(a0 + k);
  if constexpr (Blend) c = _mm256_fmadd_pd(vf, _mm256_loadu_pd(a1 + k), _mm256_mul_pd(vk, c));
  if constexpr (Dir < 0) c = _mm256_permute4x64_pd(c, 0x1B);
  return c;
}

template <int Dir>
__attribute__((target("avx2,fma"))) static inline __m256d Samples(const float* x, uint32_t k) {
  return _mm256_cvtps_pd(_mm_loadu_ps(Dir > 0 ? x + k : x - k - 3));
}

template <int Dir, bool Blend, unsigned Channels>
__attribute__((target("avx2,fma"))) void BlendDotAvx2(const double* a0, const double* a1, double frac,
                                                      const float* const* x, uint32_t count, double* sums) {
  const __m256d vf = _mm256_set1_pd(frac), vk = _mm256_set1_pd(1.0 - frac);
  __m256d acc0 = _mm256_setzero_pd(), acc1 = _mm256_setzero_pd();
  uint32_t k = 0;
  for (; k + 4 <= count; k += 4) {
    const __m256d c = Coefficients<Dir, Blend>(a0, a1, vf, vk, k);
    acc0 = _mm256_fmadd_pd(c, Samples<Dir>(x[0], k), acc0);
    if constexpr (Channels > 1) acc1 = _mm256_fmadd_pd(c, Samples<Dir>(x[1], k), acc1);
  }
  if (const uint32_t rest = count - k) {
    // Lanes past `count` hold taps the half filter doesn't have: masked on
    // the sample side too, so a non-finite sample there adds nothing.
    alignas(32) static const int64_t kLanes[8] = {-1, -1, -1, -1, 0, 0, 0, 0};
    __m256d mask = _mm256_castsi256_pd(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(kLanes + 4 - rest)));
    if constexpr (Dir < 0) mask = _mm256_permute4x64_pd(mask, 0x1B);
    const __m256d c = _mm256_and_pd(Coefficients<Dir, Blend>(a0, a1, vf, vk, k), mask);
    acc0 = _mm256_fmadd_pd(c, _mm256_and_pd(Samples<Dir>(x[0], k), mask), acc0);
    if constexpr (Channels > 1) acc1 = _mm256_fmadd_pd(c, _mm256_and_pd(Samples<Dir>(x[1], k), mask), acc1);
  }
  sums[0] = HorizontalSum(acc0);
  sums[1] = Channels > 1 ? HorizontalSum(acc1) : 0.0;
}

using BlendDotFn = void (*)(const double*, const double*, double, const float* const*, uint32_t, double*);

template <int Dir>
BlendDotFn PickAvx2(bool blend, unsigned nch) {
  if (blend) return nch > 1 ? BlendDotAvx2<Dir, true, 2> : BlendDotAvx2<Dir, true, 1>;
  return nch > 1 ? BlendDotAvx2<Dir, false, 2> : BlendDotAvx2<Dir, false, 1>;
}

bool HaveAvx2Fma() {
  static const bool have = HaveAvx2() && __builtin_cpu_supports("fma");
  return have;
}

class FirInterpolator final : public RowInterpolator {
 public:
  FirInterpolator(PaddedRows rows, unsigned channels, const FirDesign& design, uint64_t tableBudget,
                  std::unique_ptr<std::unique_ptr<double[]>[]> table)
      : RowInterpolator(std::move(rows), channels),
        d_(design),
        i0Beta_(BesselI0(design.beta)),
        budget_(tableBudget),
        table_(std::move(table)),
        simd_(HaveAvx2Fma()) {}

  float sample(unsigned ch, uint32_t i, float t) override {
    const double u = t;
    const float* x = X(ch);
    const double left = Half(d_.half, u, x + i, -1);
    const double right = Half(d_.half - 1, 1.0 - u, x + i + 1, +1);
    return static_cast<float>((left + right) * d_.fc);
  }

  void Frame(uint32_t i, float t, float* out) {
    const double u = t;
    double left[2], right[2];
    for (unsigned ch = 0; ch < channels_; ch += 2) {
      const unsigned n = std::min(2u, channels_ - ch);
      const float* x[2] = {X(ch) + i, X(ch + n - 1) + i};
      if (!HalfSums(d_.half, u, x, n, -1, left)) return Zero(out);
      const float* y[2] = {x[0] + 1, x[1] + 1};
      if (!HalfSums(d_.half - 1, 1.0 - u, y, n, +1, right)) return Zero(out);
      for (unsigned c = 0; c < n; ++c)
        out[ch + c] = std::clamp(static_cast<float>((left[c] + right[c]) * d_.fc), -1.0f, 1.0f);
    }
  }

  int Filled() const { return filled_; }

 private:
  void Zero(float* out) {
    std::fill(out, out + channels_, 0.0f);
  }

  // Row r of the table, computed on first use; null when it can't be had.
  const double* Row(int r) {
    if (const double* row = table_[r].get()) return row;
    const uint64_t bytes = uint64_t{d_.stride} * sizeof(double);
    if (failed_ || bytes > budget_) return (failed_ = true, nullptr);
    auto row = TryAllocArray<double>(d_.stride);
    if (!row) return (failed_ = true, nullptr);
    budget_ -= bytes;
    const double span = static_cast<double>(d_.half) * d_.fc;
    for (uint32_t k = 0; k < d_.half; ++k) {
      const double d = (k + r / 2048.0) * d_.fc;
      if (d == 0.0) {
        row[k] = d_.cutoff;
        continue;
      }
      const double q = d / span;
      const double window = BesselI0(d_.beta * std::sqrt(std::max(0.0, 1.0 - q * q))) / i0Beta_;
      row[k] = std::sin(d * kFirPi * d_.cutoff) / (d * kFirPi) * window;
    }
    std::fill(row.get() + d_.half, row.get() + d_.stride, 0.0);
    ++filled_;
    table_[r] = std::move(row);
    return table_[r].get();
  }

  // The literal half filter: one row, or two rows' sums blended.
  double Half(uint32_t count, double phase, const float* x, int dir) {
    const double p = phase * kFirPhases;
    const int r = static_cast<int>(p);
    const double frac = p - r;
    auto dot = [&](const double* row) {
      double s = 0.0;
      for (uint32_t k = 0; k < count; ++k) s += x[dir > 0 ? std::ptrdiff_t(k) : -std::ptrdiff_t(k)] * row[k];
      return s;
    };
    const double* a = Row(r);
    if (!a) return 0.0;
    if (frac == 0.0 || r == kFirPhases) return dot(a);
    const double* b = Row(r + 1);
    if (!b) return 0.0;
    return frac * dot(b) + (1.0 - frac) * dot(a);
  }

  // Half for up to two channels at once, the rows blended before the dot
  // product: the same sum to well within a float's rounding.
  bool HalfSums(uint32_t count, double phase, const float* const* x, unsigned n, int dir, double* sums) {
    const double p = phase * kFirPhases;
    const int r = static_cast<int>(p);
    const double frac = p - r;
    const double* a = Row(r);
    const bool blend = frac != 0.0 && r != kFirPhases;
    const double* b = blend ? Row(r + 1) : nullptr;
    if (!a || (blend && !b)) return false;
    if (simd_) {
      const BlendDotFn fn = dir > 0 ? PickAvx2<1>(blend, n) : PickAvx2<-1>(blend, n);
      fn(a, b, frac, x, count, sums);
    } else {
      BlendDotScalar(a, b, frac, x, n, count, dir, sums);
    }
    return true;
  }

  FirDesign d_;
  double i0Beta_;
  uint64_t budget_;
  std::unique_ptr<std::unique_ptr<double[]>[]> table_;
  bool simd_;
  int filled_ = 0;
};

// The kind's interpolator over `source`, with its zero-padded rows; null
// ("Out of memory") when they don't fit in `budget` bytes, which is
// lowered by what they take.
std::unique_ptr<Interpolator> Build(const Waveform& source, int algorithm, double ratio, uint64_t& budget) {
  const Kind kind = KindOf(algorithm);
  FirDesign design;
  if (kind == Kind::Fir) {
    design = DesignFir(ResampleQuality(algorithm, source.samplesF != nullptr), ratio);
    if (design.half == 0) return (Fail(kContext, "Out of memory"), nullptr);
  }
  const Reach reach = ReachOf(kind, design);
  PaddedRows rows;
  const uint64_t rowBytes = rows.Bytes(source, reach);
  if (rowBytes > budget || !rows.Build(source, reach)) return (Fail(kContext, "Out of memory"), nullptr);
  budget -= rowBytes;
  const unsigned channels = source.channels;
  Interpolator* made = nullptr;
  switch (kind) {
    case Kind::Nearest: made = new (std::nothrow) NearestInterpolator(std::move(rows), channels); break;
    case Kind::Linear: made = new (std::nothrow) LinearInterpolator(std::move(rows), channels); break;
    case Kind::Cubic: made = new (std::nothrow) CubicInterpolator(std::move(rows), channels); break;
    case Kind::Fir: {
      auto table = TryAllocArray<std::unique_ptr<double[]>>(kFirPhases + 1);
      if (!table) break;
      made = new (std::nothrow) FirInterpolator(std::move(rows), channels, design, budget, std::move(table));
      break;
    }
  }
  if (!made) Fail(kContext, "Out of memory");
  return std::unique_ptr<Interpolator>(made);
}

// Walks the output: pos in double, advanced by adding the step, so that its
// rounding errors accumulate as they always have; the fraction is narrowed
// to float. Positions past `last` read nothing but zeros.
template <class K>
bool Walk(K& in, float* out, uint32_t newLength, unsigned channels, double step, uint32_t last) {
  double pos = 0.0;
  for (uint32_t f = 0; f < newLength; ++f, pos += step) {
    float* o = out + uint64_t{f} * channels;
    if (!(pos <= last)) {
      std::fill(o, out + uint64_t{newLength} * channels, 0.0f);
      return true;
    }
    const auto index = static_cast<uint32_t>(pos);
    const auto t = static_cast<float>(pos - index);
    in.Frame(index, t, o);
    if (in.failed()) return false;
  }
  return true;
}

bool WholeNumber(double v) { return std::isfinite(v) && v == std::trunc(v); }

// The source's loop at the new rate, kept inside the new length.
void ScaleLoop(Waveform& dest, const Waveform& source, double ratio, uint32_t newLength) {
  const double s = source.loopStart, e = source.loopEnd;
  const bool openEnd = source.loopEnd >= kLoopEndDefault;  // "no end set" stays so
  double s2 = s * ratio, e2 = e;
  if (WholeNumber(s) && (openEnd || WholeNumber(e))) {
    // The length is rounded as a length, so both points stay whole.
    s2 = std::trunc(s * ratio + 0.5);
    if (!openEnd) e2 = s2 + std::trunc(ratio * e - s * ratio + 0.5);
  } else if (!openEnd) {
    e2 = e * ratio;
  }
  const double length = newLength;
  if (!openEnd) {
    if (std::isnan(e2) || e2 > length) e2 = length;
    if (e2 < 0.0) e2 = 0.0;
  }
  if (std::isnan(s2) || s2 < 0.0) s2 = 0.0;
  const double end = openEnd ? length : e2;
  if (s2 > end) s2 = end;
  dest.loopType = source.loopType;
  dest.loopStart = static_cast<float>(s2);
  if (!openEnd) dest.loopEnd = static_cast<float>(e2);
  else dest.loopEnd = kLoopEndDefault;
  if (s2 >= end) dest.loopType = 0;
}

}  // namespace

// ---- the pieces ----

int ResampleQuality(int algorithm, bool floatSource) {
  switch (algorithm) {
    case 3: return 8;
    case 4: return 12;
    case 5: return 16;
    case 6: return 20;
    case 7: return 24;
    case 8: return floatSource ? 20 : 16;
    default: return 0;
  }
}

FirDesign DesignFir(int quality, double ratio) {
  FirDesign d;
  if (quality >= 21) d = {0.985, 14.0, 0, 499};
  else if (quality >= 17) d = {0.97, 11.0, 0, 132};
  else if (quality >= 13) d = {0.905, 9.5, 0, 34};
  else if (quality >= 9) d = {0.86, 7.5, 0, 17};
  else d = {0.77, 6.0, 0, 8};
  if (ratio >= 1.0) {
    // No bandwidth is lost: the full band, and a shorter window suffices.
    d.cutoff = 1.0;
    d.beta = 9.0;
  }
  d.fc = std::min(ratio, 1.0);
  const double n = std::ceil(d.taps / d.fc);
  // Rows past a quarter of the address space can never be held.
  if (!(n >= 1.0) || n > double{1u << 30}) return d;
  d.half = static_cast<uint32_t>(n);
  d.stride = (d.half + 3) & ~3u;
  return d;
}

double BesselI0(double x) {
  const double h = x / 2;
  double term = h * h, sum = 1 + term;
  for (int m = 2;; ++m) {
    const double q = h / m;
    term *= q * q;
    sum += term;
    if (sum * 1e-21 > term) return sum;
  }
}

std::unique_ptr<Interpolator> MakeInterpolator(const Waveform& source, int algorithm, double ratio,
                                               uint64_t memoryBudget) {
  uint64_t budget = memoryBudget ? memoryBudget : MemoryBudget();
  return Build(source, algorithm, ratio, budget);
}

int FilledRows(const Interpolator& interpolator) {
  if (auto* fir = dynamic_cast<const FirInterpolator*>(&interpolator)) return fir->Filled();
  return -1;
}

void SetResampleMemoryBudget(uint64_t bytes) { g_budgetOverride.store(bytes); }

// ---- the core ----

bool kvResample2(Waveform& destination, Waveform& source, double ratio, uint32_t newLength, uint32_t newRate,
                 int algorithm) {
  if (!source.HasData() && source.SampleCount() > 0 && !source.EnsureData()) return false;
  if (ratio == 1.0 && &destination == &source) return true;
  if (!(ratio > 0.0) || !std::isfinite(ratio)) return Fail(kContext, "Invalid length or frequency specified");
  const unsigned channels = source.channels;
  const uint64_t outCount = uint64_t{newLength} * channels;
  uint64_t budget = MemoryBudget();
  if (outCount * sizeof(float) > budget) return Fail(kContext, "Out of memory");
  budget -= outCount * sizeof(float);
  auto out = TryAllocArray<float>(outCount + 1);
  if (!out) return Fail(kContext, "Out of memory");

  if (ratio == 1.0) {
    // Another wave at the same rate: a plain copy as float.
    const uint64_t have = uint64_t{std::min(newLength, source.length)} * channels;
    for (uint64_t i = 0; i < have; ++i)
      out[i] = source.samplesF ? source.samplesF[i] : static_cast<float>(source.samples16[i]) * kNormalise16;
    std::fill(out.get() + have, out.get() + outCount, 0.0f);
  } else {
    std::unique_ptr<Interpolator> in = Build(source, algorithm, ratio, budget);
    if (!in) return false;
    const FirDesign fir = KindOf(algorithm) == Kind::Fir
                              ? DesignFir(ResampleQuality(algorithm, source.samplesF != nullptr), ratio)
                              : FirDesign{};
    const uint32_t last = source.length + ReachOf(KindOf(algorithm), fir).before;
    const double step = 1.0 / ratio;
    bool done = false;
    switch (KindOf(algorithm)) {
      case Kind::Nearest:
        done = Walk(static_cast<NearestInterpolator&>(*in), out.get(), newLength, channels, step, last);
        break;
      case Kind::Linear:
        done = Walk(static_cast<LinearInterpolator&>(*in), out.get(), newLength, channels, step, last);
        break;
      case Kind::Cubic:
        done = Walk(static_cast<CubicInterpolator&>(*in), out.get(), newLength, channels, step, last);
        break;
      case Kind::Fir:
        done = Walk(static_cast<FirInterpolator&>(*in), out.get(), newLength, channels, step, last);
        break;
    }
    if (!done) return Fail(kContext, "Out of memory");
  }

  // Nothing has failed: the destination changes only from here on.
  ScaleLoop(destination, source, ratio, newLength);
  destination.channels = static_cast<uint8_t>(channels);
  destination.samples16.reset();
  destination.samplesF = std::move(out);
  destination.length = newLength;
  destination.sampleRate = newRate;
  destination.readCallback = nullptr;
  return true;
}

void AdjustRegionLoops(Collection& collection, const Waveform& wave, double ratio) {
  for (Region* region : collection.All<Region>()) {
    if (RegionWaveform(*region) != &wave) continue;
    if (region->overrideMask & kOverrideLoopStart)
      region->loopStart = static_cast<float>(region->loopStart * ratio);
    if ((region->overrideMask & kOverrideLoopEnd) && region->loopEnd < kLoopEndDefault)
      region->loopEnd = static_cast<float>(region->loopEnd * ratio);
  }
}

uint32_t ResampledLength(uint32_t length, uint32_t fromRate, uint32_t toRate) {
  if (fromRate == 0) return 0;
  const double ratio = static_cast<double>(toRate) / static_cast<double>(fromRate);
  return static_cast<uint32_t>(std::min(std::trunc(length * ratio), 4294967295.0));
}

bool resampleToLength(Waveform& destination, Waveform& source, uint32_t newLength, int algorithm,
                      Collection* collection) {
  const double ratio = static_cast<double>(newLength) / static_cast<double>(source.length);
  const double rate = std::trunc(source.sampleRate * ratio);
  const auto newRate = static_cast<uint32_t>(std::isfinite(rate) ? std::min(rate, 4294967295.0) : 0.0);
  if (!kvResample2(destination, source, ratio, newLength, newRate, algorithm)) return false;
  if (collection && &destination == &source && ratio != 1.0) AdjustRegionLoops(*collection, destination, ratio);
  return true;
}

bool resampleToRate(Waveform& destination, Waveform& source, uint32_t newRate, int algorithm,
                    Collection* collection) {
  const double ratio = static_cast<double>(newRate) / static_cast<double>(source.sampleRate);
  const uint32_t newLength = ResampledLength(source.length, source.sampleRate, newRate);
  if (!kvResample2(destination, source, ratio, newLength, newRate, algorithm)) return false;
  if (collection && &destination == &source && ratio != 1.0) AdjustRegionLoops(*collection, destination, ratio);
  return true;
}

}  // namespace kv
