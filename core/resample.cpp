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

// The zero-padded rows of the source's channels, normalised, as doubles (the
// float values exactly, ready for the double products). Only a window of
// them is held: `kSpan` frames from a base, with the kind's reach of zeros
// or neighbours on both sides, refilled when a position leaves it. A full
// copy of a long wave would cost more in page faults than the filter itself.
class Rows {
 public:
  static constexpr uint32_t kSpan = 16384;

  Rows(const Waveform& source, Reach reach)
      : source_(source),
        channels_(source.channels),
        lead_(reach.before + kSlack),
        rowDoubles_(uint64_t{lead_} + kSpan + reach.after + kSlack) {}

  uint64_t Bytes() const { return uint64_t{channels_} * rowDoubles_ * sizeof(double); }
  bool Allocate() { return (data_ = TryAllocArray<double>(channels_ * rowDoubles_)) != nullptr; }

  // Channel `ch` of frame `index`, with every frame the kind reaches around
  // it at its side.
  const double* At(unsigned ch, uint32_t index) {
    if (!held_ || index - base_ >= kSpan) [[unlikely]]  // below the base too, by wrapping
      Refill(index);
    return data_.get() + ch * rowDoubles_ + lead_ + (index - base_);
  }

 private:
  __attribute__((noinline)) void Refill(uint32_t index) {
    base_ = index;
    held_ = true;
    const int64_t first = int64_t{index} - lead_;
    const int64_t length = source_.length;
    const int64_t from = std::clamp<int64_t>(first, 0, length);
    const int64_t to = std::clamp<int64_t>(first + static_cast<int64_t>(rowDoubles_), 0, length);
    for (unsigned ch = 0; ch < channels_; ++ch) {
      double* row = data_.get() + ch * rowDoubles_;
      double* out = row;
      for (int64_t f = first; f < from; ++f) *out++ = 0.0;
      if (source_.samplesF) {
        const float* in = source_.samplesF.get() + ch;
        for (int64_t f = from; f < to; ++f) *out++ = in[f * channels_];
      } else if (source_.samples16) {
        const int16_t* in = source_.samples16.get() + ch;
        for (int64_t f = from; f < to; ++f) *out++ = static_cast<float>(in[f * channels_]) * kNormalise16;
      }
      std::fill(out, row + rowDoubles_, 0.0);
    }
  }

  const Waveform& source_;
  unsigned channels_;
  uint32_t lead_;
  uint64_t rowDoubles_;
  std::unique_ptr<double[]> data_;
  uint32_t base_ = 0;
  bool held_ = false;
};

// The kinds share one shape: `Frame` fills every channel of one output frame
// (clamped), `sample` one channel unclamped; `Frame` is what the core's loop
// calls, chosen once per run, not per sample.
class RowInterpolator : public Interpolator {
 public:
  RowInterpolator(Rows rows, unsigned channels) : rows_(std::move(rows)), channels_(channels) {}

 protected:
  Rows rows_;
  unsigned channels_;
};

class NearestInterpolator final : public RowInterpolator {
 public:
  using RowInterpolator::RowInterpolator;
  float sample(unsigned ch, uint32_t i, float t) override {
    const double* x = rows_.At(ch, i);
    return static_cast<float>(t >= 0.5f ? x[1] : x[0]);
  }
  void Frame(uint32_t i, float t, float* out) {
    for (unsigned ch = 0; ch < channels_; ++ch) out[ch] = std::clamp(sample(ch, i, t), -1.0f, 1.0f);
  }
};

class LinearInterpolator final : public RowInterpolator {
 public:
  using RowInterpolator::RowInterpolator;
  float sample(unsigned ch, uint32_t i, float t) override {
    const double* x = rows_.At(ch, i);
    return static_cast<float>(x[0] + (x[1] - x[0]) * double{t});
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
    const double* x = rows_.At(ch, i);
    const double a = x[-1], b = x[0], c = x[1], d = x[2], u = t;
    return static_cast<float>(
        ((((3 * (b - c) + d - a) * u + (3 * (a + c) - 6 * b)) * u + (6 * c - d - 3 * b - 2 * a)) * u + 6 * b) / 6);
  }
  void Frame(uint32_t i, float t, float* out) {
    for (unsigned ch = 0; ch < channels_; ++ch) out[ch] = std::clamp(sample(ch, i, t), -1.0f, 1.0f);
  }
};

// ---- the FIR's dot products ----

// One half filter's taps for one frame: rows a0 and a1 (null: a0 alone)
// blended by frac, `count` taps.
struct HalfTaps {
  const double* a0;
  const double* a1;
  double frac;
};

// Both halves of one frame for up to two channels: left[c] = sum over k <
// n of c_k x[-k], right[c] = sum over k < n - 1 of c_k x[1 + k], each c_k
// the blend (1 - frac) a0[k] + frac a1[k]. Plain loops: the path of
// processors without AVX2.
void FirFrameScalar(const HalfTaps& l, const HalfTaps& r, const double* const* x, unsigned nch, uint32_t n,
                    double* left, double* right) {
  for (unsigned c = 0; c < nch; ++c) left[c] = right[c] = 0.0;
  for (uint32_t k = 0; k < n; ++k) {
    const double cl = l.a1 ? (1.0 - l.frac) * l.a0[k] + l.frac * l.a1[k] : l.a0[k];
    for (unsigned c = 0; c < nch; ++c) left[c] += cl * x[c][-std::ptrdiff_t(k)];
    if (k + 1 < n) {
      const double cr = r.a1 ? (1.0 - r.frac) * r.a0[k] + r.frac * r.a1[k] : r.a0[k];
      for (unsigned c = 0; c < nch; ++c) right[c] += cr * x[c][1 + k];
    }
  }
}

__attribute__((target("avx2,fma"))) static inline double HorizontalSum(__m256d v) {
  const __m128d lo = _mm256_castpd256_pd128(v), hi = _mm256_extractf128_pd(v, 1);
  const __m128d pair = _mm_add_pd(lo, hi);
  return _mm_cvtsd_f64(_mm_add_sd(pair, _mm_unpackhi_pd(pair, pair)));
}

// The first `valid` (0-4) lanes set.
__attribute__((target("avx2,fma"))) static inline __m256d LaneMask(uint32_t valid) {
  alignas(32) static const int64_t kLanes[8] = {-1, -1, -1, -1, 0, 0, 0, 0};
  return _mm256_castsi256_pd(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(kLanes + 4 - valid)));
}

// The same four taps at a time, both halves in one pass, and the frame's
// output (left + right) * fc clamped. The left half runs backwards: its
// coefficients are reversed once per group, so that every channel reads its
// four samples in memory order. Lanes past a half's last tap are masked on
// both sides, so that whatever lies there adds nothing.
template <unsigned Channels, bool BlendL, bool BlendR>
__attribute__((target("avx2,fma"))) void FirFrameAvx2(const HalfTaps& l, const HalfTaps& r, const double* const* x,
                                                      uint32_t n, double fc, float* out) {
  const __m256d lf = _mm256_set1_pd(l.frac), lk = _mm256_set1_pd(1.0 - l.frac);
  const __m256d rf = _mm256_set1_pd(r.frac), rk = _mm256_set1_pd(1.0 - r.frac);
  __m256d accL[Channels], accR[Channels];
  for (unsigned c = 0; c < Channels; ++c) accL[c] = accR[c] = _mm256_setzero_pd();
  for (uint32_t k = 0; k < n; k += 4) {
    __m256d cl = _mm256_loadu_pd(l.a0 + k);
    if constexpr (BlendL) cl = _mm256_fmadd_pd(lf, _mm256_loadu_pd(l.a1 + k), _mm256_mul_pd(lk, cl));
    cl = _mm256_permute4x64_pd(cl, 0x1B);
    __m256d cr = _mm256_loadu_pd(r.a0 + k);
    if constexpr (BlendR) cr = _mm256_fmadd_pd(rf, _mm256_loadu_pd(r.a1 + k), _mm256_mul_pd(rk, cr));
    if (k + 4 > n - 1) [[unlikely]] {  // the last group of the right half, perhaps of both
      const __m256d mr = LaneMask(n - 1 - k);
      const __m256d ml = _mm256_permute4x64_pd(LaneMask(std::min(4u, n - k)), 0x1B);
      cl = _mm256_and_pd(cl, ml);
      cr = _mm256_and_pd(cr, mr);
      for (unsigned c = 0; c < Channels; ++c) {
        accL[c] = _mm256_fmadd_pd(cl, _mm256_and_pd(_mm256_loadu_pd(x[c] - k - 3), ml), accL[c]);
        accR[c] = _mm256_fmadd_pd(cr, _mm256_and_pd(_mm256_loadu_pd(x[c] + 1 + k), mr), accR[c]);
      }
      continue;
    }
    for (unsigned c = 0; c < Channels; ++c) {
      accL[c] = _mm256_fmadd_pd(cl, _mm256_loadu_pd(x[c] - k - 3), accL[c]);
      accR[c] = _mm256_fmadd_pd(cr, _mm256_loadu_pd(x[c] + 1 + k), accR[c]);
    }
  }
  for (unsigned c = 0; c < Channels; ++c) {
    const double v = (HorizontalSum(accL[c]) + HorizontalSum(accR[c])) * fc;
    out[c] = std::clamp(static_cast<float>(v), -1.0f, 1.0f);
  }
}

using FirFrameFn = void (*)(const HalfTaps&, const HalfTaps&, const double* const*, uint32_t, double, float*);

template <unsigned Channels>
FirFrameFn PickFirFrame(bool blendL, bool blendR) {
  if (blendL) return blendR ? FirFrameAvx2<Channels, true, true> : FirFrameAvx2<Channels, true, false>;
  return blendR ? FirFrameAvx2<Channels, false, true> : FirFrameAvx2<Channels, false, false>;
}

bool HaveAvx2Fma() {
  static const bool have = HaveAvx2() && __builtin_cpu_supports("fma");
  return have;
}

class FirInterpolator final : public RowInterpolator {
 public:
  FirInterpolator(Rows rows, unsigned channels, const FirDesign& design, uint64_t tableBudget,
                  std::unique_ptr<std::unique_ptr<double[]>[]> table)
      : RowInterpolator(std::move(rows), channels),
        d_(design),
        i0Beta_(BesselI0(design.beta)),
        budget_(tableBudget),
        table_(std::move(table)),
        simd_(HaveAvx2Fma()) {}

  float sample(unsigned ch, uint32_t i, float t) override {
    const double u = t;
    const double* x = rows_.At(ch, i);
    const double left = Half(d_.half, u, x, -1);
    const double right = Half(d_.half - 1, 1.0 - u, x + 1, +1);
    return static_cast<float>((left + right) * d_.fc);
  }

  void Frame(uint32_t i, float t, float* out) {
    const double u = t;
    HalfTaps l, r;
    if (!Taps(u, l) || !Taps(1.0 - u, r)) return std::fill(out, out + channels_, 0.0f);
    for (unsigned ch = 0; ch < channels_; ch += 2) {
      const unsigned n = std::min(2u, channels_ - ch);
      const double* x[2] = {rows_.At(ch, i), rows_.At(ch + n - 1, i)};
      if (simd_) {
        const bool bl = l.a1 != nullptr, br = r.a1 != nullptr;
        (n == 2 ? PickFirFrame<2>(bl, br) : PickFirFrame<1>(bl, br))(l, r, x, d_.half, d_.fc, out + ch);
        continue;
      }
      double left[2], right[2];
      FirFrameScalar(l, r, x, n, d_.half, left, right);
      for (unsigned c = 0; c < n; ++c)
        out[ch + c] = std::clamp(static_cast<float>((left[c] + right[c]) * d_.fc), -1.0f, 1.0f);
    }
  }

  int Filled() const { return filled_; }

 private:
  // Row r of the table, computed on first use; null when it can't be had.
  const double* Row(int r) {
    if (const double* row = table_[r].get()) [[likely]]
      return row;
    return FillRow(r);
  }

  __attribute__((noinline)) const double* FillRow(int r) {
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

  // The rows of a half at `phase`: one, or two to blend.
  bool Taps(double phase, HalfTaps& h) {
    const double p = phase * kFirPhases;
    const int r = static_cast<int>(p);
    h.frac = p - r;
    h.a0 = Row(r);
    h.a1 = h.frac != 0.0 && r != kFirPhases ? Row(r + 1) : nullptr;
    return h.a0 && (h.a1 || h.frac == 0.0 || r == kFirPhases);
  }

  // The literal half filter: one row, or two rows' sums blended.
  double Half(uint32_t count, double phase, const double* x, int dir) {
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

  FirDesign d_;
  double i0Beta_;
  uint64_t budget_;
  std::unique_ptr<std::unique_ptr<double[]>[]> table_;
  bool simd_;
  int filled_ = 0;
};

// The kind's interpolator over `source`, with its window of rows; null
// ("Out of memory") when it doesn't fit in `budget` bytes, which is lowered
// by what the window takes.
std::unique_ptr<Interpolator> Build(const Waveform& source, int algorithm, double ratio, uint64_t& budget) {
  const Kind kind = KindOf(algorithm);
  FirDesign design;
  if (kind == Kind::Fir) {
    design = DesignFir(ResampleQuality(algorithm, source.samplesF != nullptr), ratio);
    if (design.half == 0) return (Fail(kContext, "Out of memory"), nullptr);
  }
  Rows rows(source, ReachOf(kind, design));
  if (rows.Bytes() > budget || !rows.Allocate()) return (Fail(kContext, "Out of memory"), nullptr);
  budget -= rows.Bytes();
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
