#include "processing/pitch.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace kv {

namespace {

// sin(pi * i / size) for i = 0..size/2: the window's rising half and the
// FFT's twiddles. Kept until a call needs another size.
struct SineTable {
  uint32_t size = 0;
  std::vector<float> value;
};

const std::vector<float>& Sines(uint32_t size) {
  static thread_local SineTable table;
  if (table.size != size) {
    table.value.resize(size / 2 + 1);
    for (uint32_t i = 0; i <= size / 2; ++i)
      table.value[i] = static_cast<float>(std::sin(std::numbers::pi * i / size));
    table.size = size;
  }
  return table.value;
}

// In-place complex radix-2 FFT, forward, f32; `size` a power of two of at
// least 4. Twiddles exp(-2 pi i k / size) from the half-size sine table.
void kvFft(std::vector<float>& re, std::vector<float>& im, uint32_t size, const std::vector<float>& sines) {
  for (uint32_t i = 1, j = 0; i < size; ++i) {
    uint32_t bit = size >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j |= bit;
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
  }
  const uint32_t half = size / 2, quarter = size / 4;
  for (uint32_t m = 2; m <= size; m <<= 1) {
    const uint32_t step = size / m;
    for (uint32_t j = 0; j < m / 2; ++j) {
      const uint32_t k = j * step;  // twiddle angle 2 pi k / size, k < size / 2
      const float c = k <= quarter ? sines[half - 2 * k] : -sines[2 * k - half];
      const float s = k <= quarter ? sines[2 * k] : sines[size - 2 * k];
      for (uint32_t a = j; a < size; a += m) {
        const uint32_t b = a + m / 2;
        const float tr = re[b] * c + im[b] * s;
        const float ti = im[b] * c - re[b] * s;
        re[b] = re[a] - tr;
        im[b] = im[a] - ti;
        re[a] += tr;
        im[a] += ti;
      }
    }
  }
}

struct Analysis {
  PeakList peaks;
  double binWidth = 0;
  bool shortRoute = false;
  uint32_t block = 0;  // P
};

Analysis Analyse(std::span<const float> samples, uint32_t frames, uint32_t channels, uint32_t rate) {
  Analysis out;
  if (frames == 0 || channels == 0 || rate == 0 || samples.size() < uint64_t{frames} * channels) return out;
  const uint32_t shorter = std::min(frames, rate);
  uint32_t block = 1;
  while (block <= shorter / 2) block <<= 1;
  out.block = block;
  uint32_t size = block, first = 0, count = block;
  if (block >= rate / 5.0 || static_cast<double>(frames) / block < 1.75) {
    first = static_cast<uint32_t>((uint64_t{frames} - block) * 2 / 3);
  } else {
    size = 2 * block;  // a short wave: all of it, zero-padded
    count = frames;
    out.shortRoute = true;
  }
  if (size < 4) return out;
  const std::vector<float>& sines = Sines(size);
  std::vector<float> re(size, 0.0f), im(size, 0.0f);
  for (uint32_t i = 0; i < count; ++i) {
    const float w = sines[i <= size / 2 ? i : size - i];
    re[i] = samples[(uint64_t{first} + i) * channels] * (w * w);
  }
  kvFft(re, im, size, sines);

  const uint32_t half = size / 2;
  const float scale = 1.0f / (static_cast<float>(size) * static_cast<float>(size));
  const float floorPower = std::exp(-16.578613f) * std::exp(-16.578613f);
  std::vector<float> level(half + 1);
  for (uint32_t k = 0; k <= half; ++k) {
    // The Nyquist bin is read where a packed real transform keeps it: 0 here.
    const float p = k == 0 ? re[0] * re[0] * scale : k == half ? im[0] * im[0] * scale : (re[k] * re[k] + im[k] * im[k]) * scale;
    level[k] = 10.0f * std::log10(std::max(p * 0.009321903f, floorPower));
  }

  const double b = rate * 0.5 / half;
  out.binWidth = b;
  bool rising = true;
  for (uint32_t k = static_cast<uint32_t>(std::ceil(16.0 / b)) + 1; k <= half; ++k) {
    if (level[k] > level[k - 1]) {
      rising = true;
    } else if (level[k] < level[k - 1] && rising) {
      out.peaks.Insert(static_cast<float>((k - 1) * b), level[k - 1]);
      rising = false;
    }
  }
  return out;
}

}  // namespace

void PeakList::Insert(float hz, float dB) {
  if (count == kCapacity && !(level[count - 1] < dB)) return;
  int at = 0;
  while (at < count && !(level[at] < dB)) ++at;
  const int last = std::min(count, kCapacity - 1);
  for (int i = last; i > at; --i) {
    frequency[i] = frequency[i - 1];
    level[i] = level[i - 1];
  }
  frequency[at] = hz;
  level[at] = dB;
  if (count < kCapacity) ++count;
}

PeakList spectrumPeaks(std::span<const float> samples, uint32_t frames, uint32_t channels, uint32_t rate,
                       double* binWidth, bool* shortRoute) {
  Analysis a = Analyse(samples, frames, channels, rate);
  if (binWidth) *binWidth = a.binWidth;
  if (shortRoute) *shortRoute = a.shortRoute;
  return a.peaks;
}

double dominantFrequency(std::span<const float> samples, uint32_t frames, uint32_t channels, uint32_t rate) {
  const Analysis a = Analyse(samples, frames, channels, rate);
  const PeakList& peaks = a.peaks;
  if (peaks.count == 0) return 0.0;
  const double b = a.binWidth;
  double c = peaks.frequency[0];
  const double lower = c - b, upper = c + b;
  // A weaker peak below whose harmonics meet the strongest is the fundamental.
  for (int i = 1; i < peaks.count && !(peaks.level[i] < peaks.level[0] * 0.25f); ++i) {
    const double f = peaks.frequency[i];
    if (f > c) continue;
    for (int h = 1; h <= 63; ++h) {
      const double m = h == 1 ? 1.5 : h;
      if ((f - b) * m > upper) break;
      if ((f + b) * m >= lower) {
        c = f;
        break;
      }
    }
  }
  const double q = 0.75 * b;
  double low = c - q, high = c + q;
  if (a.block < rate / 5.0) {
    low *= 0.5;
    high *= 2.0;
  }
  const double refined = refinePitch(low, high, rate, samples, frames, channels, 0.005);
  return refined != 0.0 ? refined : c;
}

double refinePitch(double low, double high, uint32_t rate, std::span<const float> samples, uint32_t frames,
                   uint32_t channels, double tolerance) {
  low = std::max(low, 2.0);
  high = std::min(high, rate * 0.5);
  if (!(low < high)) return 0.0;
  const double fm = (low + high) * 0.5;
  int64_t window = std::min<int64_t>(static_cast<int64_t>(rate / fm + 0.5), 24000);
  int64_t reference = int64_t{frames} - window;
  double a = reference - rate / low, b = reference - rate / high;
  if (a < 0) {
    const auto c = static_cast<int64_t>(std::ceil(a));
    if (-c > window / 2) return fm;
    reference -= c;
    window += c;
    a -= c;
    b -= c;
  }
  const int64_t ch = channels;
  const int64_t total = int64_t{frames} * ch;
  if (window <= 0 || reference < 0 || reference + window > frames || samples.size() < static_cast<uint64_t>(total))
    return fm;
  const int64_t span = window * ch;
  const float* ref = samples.data() + reference * ch;
  double refEnergy = 0;
  for (int64_t i = 0; i < span; ++i) refEnergy += double{ref[i]} * ref[i];
  const auto refNorm = static_cast<float>(std::sqrt(refEnergy));
  if (refNorm == 0.0f) return fm;
  const auto base = static_cast<int64_t>(a);
  a -= base;
  b -= base;

  const double resolution = rate * tolerance / ((tolerance + fm) * fm);
  const double x = 2.0 * (b - a) / resolution;
  int64_t passes[2] = {0, 0};
  if (x >= 100.0) {
    passes[0] = static_cast<int64_t>(std::exp((std::log10(x) - 2.0) * 2.302585092994046) + 0.5);
    passes[1] = static_cast<int64_t>(std::ceil(x / passes[0]));
  } else {
    passes[0] = static_cast<int64_t>(x);
  }
  std::vector<float> work(static_cast<std::size_t>(span));
  for (int64_t steps : passes) {
    if (steps <= 0) break;
    const double d = (b - a) / steps;
    double best = a, bestCorrelation = 0.0;
    for (int64_t k = 0; k < steps; ++k) {
      const double pos = a + d * k;
      const auto whole = static_cast<int64_t>(pos);
      const auto frac = static_cast<float>(pos - whole);
      const int64_t from = (base + whole) * ch;
      if (from < 0 || from + span + 1 > total) continue;
      const float* s = samples.data() + from;
      double energy = 0, product = 0;
      // The neighbour is the next stored sample, of the other channel for
      // interleaved data.
      for (int64_t i = 0; i < span; ++i) {
        work[i] = s[i] + (s[i + 1] - s[i]) * frac;
        energy += double{work[i]} * work[i];
        product += double{ref[i]} * work[i];
      }
      const auto norm = static_cast<float>(std::sqrt(energy));
      if (norm == 0.0f) continue;
      const double correlation = product / (double{refNorm} * norm);
      if (correlation > bestCorrelation) {
        bestCorrelation = correlation;
        best = pos;
      }
    }
    a = best - d;
    b = best + d;
  }
  return rate / (reference - ((a + b) * 0.5 + base));
}

}  // namespace kv
