// The resampler against a literal evaluation of its formulas (scalar, double,
// no table sharing, no SIMD), its exact filter numbers and loop points, and
// the seams of looped tones.
#include "core/resample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "click_ratio.h"
#include "core/error.h"
#include "core/items.h"

namespace kv {
namespace {

Waveform* MakeWave(Collection& c, uint32_t frames, int channels, bool asFloat, uint32_t seed) {
  auto* w = Create<Waveform>(c, "W");
  w->channels = static_cast<uint8_t>(channels);
  w->length = frames;
  w->sampleRate = 44100;
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> noise(-0.3, 0.3);
  const uint64_t n = uint64_t{frames} * channels;
  // A few tones and some noise: every phase of the filter gets real work.
  auto value = [&](uint64_t i) {
    const double t = static_cast<double>(i / channels) / 44100.0;
    return 0.4 * std::sin(2 * M_PI * 997 * t + (i % channels)) + 0.2 * std::sin(2 * M_PI * 15011 * t) + noise(rng);
  };
  if (asFloat) {
    w->bits = 32;
    w->samplesF = std::make_unique<float[]>(n + 1);
    for (uint64_t i = 0; i < n; ++i) w->samplesF[i] = static_cast<float>(value(i));
  } else {
    w->bits = 16;
    w->samples16 = std::make_unique<int16_t[]>(n + 1);
    for (uint64_t i = 0; i < n; ++i) w->samples16[i] = static_cast<int16_t>(std::lround(value(i) * 32767));
  }
  return w;
}

// ---- the literal reference ----

double LiteralI0(double x) {
  const double h = x / 2;
  double term = h * h, sum = 1 + term;
  for (int m = 2;; ++m) {
    term *= (h / m) * (h / m);
    sum += term;
    if (sum * 1e-21 > term) return sum;
  }
}

struct Literal {
  std::vector<std::vector<double>> x;  // per channel, zero-padded
  int64_t pad = 0;
  int kind = 1;  // 0 nearest, 1 linear, 2 cubic, 3 FIR
  double cutoff = 0, beta = 0, fc = 0;
  int64_t n = 0;
  std::map<int, std::vector<double>> rows;

  double X(int ch, int64_t i) const { return i + pad < 0 || i + pad >= int64_t(x[ch].size()) ? 0.0 : x[ch][i + pad]; }

  const std::vector<double>& Row(int r) {
    auto [it, added] = rows.try_emplace(r);
    if (added) {
      it->second.resize(n);
      for (int64_t k = 0; k < n; ++k) {
        const double d = (k + r / 2048.0) * fc;
        const double pi = 3.1415926535897922;
        it->second[k] = d == 0 ? cutoff
                               : std::sin(d * pi * cutoff) / (d * pi) *
                                     LiteralI0(beta * std::sqrt(1 - std::pow(d / (n * fc), 2))) / LiteralI0(beta);
      }
    }
    return it->second;
  }

  double Half(int ch, int64_t count, double phase, int64_t first, int dir) {
    const int row = static_cast<int>(phase * 2048);
    const double frac = phase * 2048 - row;
    auto sum = [&](int r) {
      const std::vector<double>& c = Row(r);
      double s = 0;
      for (int64_t k = 0; k < count; ++k) s += X(ch, first + dir * k) * c[k];
      return s;
    };
    if (frac == 0 || row == 2048) return sum(row);
    return frac * sum(row + 1) + (1 - frac) * sum(row);
  }

  float Sample(int ch, int64_t i, double t) {
    switch (kind) {
      case 0: return static_cast<float>(t >= 0.5 ? X(ch, i + 1) : X(ch, i));
      case 1: return static_cast<float>(X(ch, i) + (X(ch, i + 1) - X(ch, i)) * t);
      case 2: {
        const double a = X(ch, i - 1), b = X(ch, i), c = X(ch, i + 1), d = X(ch, i + 2);
        return static_cast<float>(
            ((((3 * (b - c) + d - a) * t + (3 * (a + c) - 6 * b)) * t + (6 * c - d - 3 * b - 2 * a)) * t + 6 * b) /
            6);
      }
      default: {
        const double left = Half(ch, n, t, i, -1);
        const double right = Half(ch, n - 1, 1 - t, i + 1, +1);
        return static_cast<float>((left + right) * fc);
      }
    }
  }
};

std::vector<float> LiteralResample(const Waveform& w, double ratio, uint32_t newLength, int algorithm) {
  Literal lit;
  const bool isFloat = w.samplesF != nullptr;
  int q = 0;
  switch (algorithm) {
    case 0: lit.kind = 0; break;
    case 2: lit.kind = 2; break;
    case 3: q = 8; break;
    case 4: q = 12; break;
    case 5: q = 16; break;
    case 6: q = 20; break;
    case 7: q = 24; break;
    case 8: q = isFloat ? 20 : 16; break;
    default: lit.kind = 1;
  }
  if (q) {
    lit.kind = 3;
    double L;
    if (q >= 21) lit.cutoff = 0.985, lit.beta = 14.0, L = 499;
    else if (q >= 17) lit.cutoff = 0.97, lit.beta = 11.0, L = 132;
    else if (q >= 13) lit.cutoff = 0.905, lit.beta = 9.5, L = 34;
    else if (q >= 9) lit.cutoff = 0.86, lit.beta = 7.5, L = 17;
    else lit.cutoff = 0.77, lit.beta = 6.0, L = 8;
    if (ratio >= 1) lit.cutoff = 1.0, lit.beta = 9.0;
    lit.fc = std::min(ratio, 1.0);
    lit.n = static_cast<int64_t>(std::ceil(L / lit.fc));
  }
  lit.x.assign(w.channels, {});
  for (int ch = 0; ch < w.channels; ++ch)
    for (uint32_t i = 0; i < w.length; ++i) {
      const uint64_t at = uint64_t{i} * w.channels + ch;
      lit.x[ch].push_back(isFloat ? w.samplesF[at] : w.samples16[at] * 3.0517578e-5f);
    }
  std::vector<float> out;
  double pos = 0.0;
  const double step = 1 / ratio;
  for (uint32_t f = 0; f < newLength; ++f) {
    const auto index = static_cast<uint32_t>(pos);
    const double t = static_cast<float>(pos - index);
    for (int ch = 0; ch < w.channels; ++ch) out.push_back(std::clamp(lit.Sample(ch, index, t), -1.0f, 1.0f));
    pos += step;
  }
  return out;
}

bool WithinUlp(float a, float b) {
  if (a == b) return true;
  const float m = std::max(std::fabs(a), std::fabs(b));
  return std::fabs(a - b) <= std::nextafter(m, INFINITY) - m;
}

TEST(Resample, EveryAlgorithmAndRatioWithinOneUlpOfTheLiteralFormulas) {
  const double ratios[] = {0.25, 0.5, 0.91875, 1, 160.0 / 147.0, 2, 3.7};
  for (bool asFloat : {false, true}) {
    Collection c;
    Waveform* src = MakeWave(c, 700, 2, asFloat, 7);
    for (int algorithm = 0; algorithm < kResampleAlgorithmCount; ++algorithm)
      for (double ratio : ratios) {
        SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << " ratio " << ratio << " float " << asFloat);
        auto* dst = Create<Waveform>(c, "out");
        const auto newLength = static_cast<uint32_t>(src->length * ratio);
        ASSERT_TRUE(kvResample2(*dst, *src, ratio, newLength, 48000, algorithm)) << ErrorMessage;
        ASSERT_EQ(dst->length, newLength);
        ASSERT_EQ(dst->channels, 2);
        ASSERT_NE(dst->samplesF, nullptr);
        std::vector<float> want;
        if (ratio == 1) {  // a copy, unfiltered
          for (uint64_t i = 0; i < src->SampleCount(); ++i)
            want.push_back(asFloat ? src->samplesF[i] : src->samples16[i] * 3.0517578e-5f);
        } else {
          want = LiteralResample(*src, ratio, newLength, algorithm);
        }
        int bad = 0;
        for (std::size_t i = 0; i < want.size(); ++i)
          if (!WithinUlp(dst->samplesF[i], want[i]) && ++bad < 4)
            ADD_FAILURE() << "sample " << i << ": " << dst->samplesF[i] << " vs " << want[i];
        EXPECT_EQ(bad, 0);
        DeleteItem(dst);
      }
  }
  // A wave longer than the window of rows the interpolators hold.
  {
    Collection c;
    Waveform* src = MakeWave(c, 40000, 2, false, 11);
    auto* dst = Create<Waveform>(c, "out");
    ASSERT_TRUE(kvResample2(*dst, *src, 0.91875, 36750, 1, 5));
    const std::vector<float> want = LiteralResample(*src, 0.91875, 36750, 5);
    int bad = 0;
    for (std::size_t i = 0; i < want.size(); ++i) bad += !WithinUlp(dst->samplesF[i], want[i]);
    EXPECT_EQ(bad, 0);
  }
  // Any other algorithm number is linear interpolation.
  Collection c;
  Waveform* src = MakeWave(c, 100, 1, true, 3);
  auto* a = Create<Waveform>(c, "a");
  auto* b = Create<Waveform>(c, "b");
  ASSERT_TRUE(kvResample2(*a, *src, 1.3, 130, 1, 1));
  ASSERT_TRUE(kvResample2(*b, *src, 1.3, 130, 1, 200));
  EXPECT_EQ(std::memcmp(a->samplesF.get(), b->samplesF.get(), 130 * sizeof(float)), 0);
}

TEST(Resample, FilterNumbersBesselAndLazyRows) {
  FirDesign half16 = DesignFir(16, 0.5);
  EXPECT_EQ(half16.fc, 0.5);
  EXPECT_EQ(half16.half, 68u);
  EXPECT_EQ(half16.stride, 68u);
  EXPECT_EQ(half16.cutoff, 0.905);
  EXPECT_EQ(half16.beta, 9.5);
  FirDesign up8 = DesignFir(8, 2.0);
  EXPECT_EQ(up8.cutoff, 1.0);
  EXPECT_EQ(up8.beta, 9.0);
  EXPECT_EQ(up8.half, 8u);
  EXPECT_EQ(DesignFir(24, 0.91875).half, 544u);  // ceil(499 / 0.91875)
  EXPECT_EQ(DesignFir(24, 0.91875).stride, 544u);
  EXPECT_EQ(DesignFir(20, 0.3).half, 440u);
  EXPECT_EQ(DesignFir(12, 0.7).stride, 28u);  // 25 rounded up
  EXPECT_EQ(ResampleQuality(8, false), 16);
  EXPECT_EQ(ResampleQuality(8, true), 20);
  EXPECT_STREQ(kResampleAlgorithmLabels[8], "FIR filter: Auto-select >16 or >20-bits S/N");

  for (double x = 0; x <= 40; x += 0.37)
    EXPECT_NEAR(BesselI0(x), std::cyl_bessel_i(0.0, x), 1e-14 * std::cyl_bessel_i(0.0, x)) << x;

  // Twice the rate with the 8-bit filter: at whole positions the centre tap
  // is 1 and every other tap sits on a zero of the sinc.
  Collection c;
  Waveform* src = MakeWave(c, 300, 1, true, 5);
  auto* up = Create<Waveform>(c, "up");
  ASSERT_TRUE(kvResample2(*up, *src, 2.0, 600, 88200, 3));
  for (uint32_t i = 0; i < 300; ++i) EXPECT_NEAR(up->samplesF[2 * i], src->samplesF[i], 1e-7f) << i;

  // Rows come into being when a position first needs them.
  std::unique_ptr<Interpolator> fir = MakeInterpolator(*src, 5, 2.0);
  ASSERT_NE(fir, nullptr);
  EXPECT_EQ(FilledRows(*fir), 0);
  fir->sample(0, 10, 0.0f);  // rows 0 and 2048
  EXPECT_EQ(FilledRows(*fir), 2);
  fir->sample(0, 11, 0.25f);  // rows 512 and 1536
  EXPECT_EQ(FilledRows(*fir), 4);
  fir->sample(1 - 1, 12, 0.25f);
  EXPECT_EQ(FilledRows(*fir), 4);
  fir->sample(0, 12, 0.3f);  // two rows on each side
  EXPECT_EQ(FilledRows(*fir), 8);
  EXPECT_EQ(FilledRows(*MakeInterpolator(*src, 2, 2.0)), -1);
}

TEST(Resample, ShortInterpolatorsReproduceTheirPolynomials) {
  Collection c;
  auto* src = Create<Waveform>(c, "poly");
  src->length = 200;
  src->samplesF = std::make_unique<float[]>(201);
  auto cubic = [](double n) { return 1e-7 * (n - 90) * (n - 20) * (n - 150) / 10; };
  for (int i = 0; i < 200; ++i) src->samplesF[i] = static_cast<float>(cubic(i));
  auto* out = Create<Waveform>(c, "out");
  ASSERT_TRUE(kvResample2(*out, *src, 1.75, 350, 1, 2));
  for (uint32_t f = 4; f < 340; ++f) EXPECT_NEAR(out->samplesF[f], cubic(f / 1.75), 2e-7) << f;
  // Linear reproduces a ramp.
  for (int i = 0; i < 200; ++i) src->samplesF[i] = static_cast<float>(i) / 256;
  ASSERT_TRUE(kvResample2(*out, *src, 3.0, 600, 1, 1));
  for (uint32_t f = 0; f < 595; ++f) EXPECT_NEAR(out->samplesF[f], f / 3.0 / 256, 1e-6) << f;
}

TEST(Resample, LoopPointsEndsLengthsAndRegions) {
  Collection c;
  Waveform* w = MakeWave(c, 4000, 1, false, 9);
  w->loopType = 1;
  w->loopStart = 1000;
  w->loopEnd = 3000;
  w->bits = 16;
  w->preferredFormat = 1;
  auto* region = Create<Region>(c, "r");
  SetRegionWaveform(*region, w->id);
  region->overrideMask = kOverrideLoopStart | kOverrideLoopEnd;
  region->loopStart = 1001;
  region->loopEnd = 2999;
  auto* other = Create<Region>(c, "other");
  other->overrideMask = kOverrideLoopEnd;  // plays another wave
  other->loopEnd = 50;
  ASSERT_TRUE(resampleToLength(*w, *w, 2000, 5, &c));
  EXPECT_EQ(w->length, 2000u);
  EXPECT_EQ(w->sampleRate, 22050u);
  EXPECT_EQ(w->loopStart, 500.0f);
  EXPECT_EQ(w->loopEnd, 1500.0f);
  EXPECT_EQ(w->bits, 16);  // saved as it was
  EXPECT_EQ(w->preferredFormat, 1);
  EXPECT_EQ(w->samples16, nullptr);
  EXPECT_EQ(region->loopStart, 500.5f);
  EXPECT_EQ(region->loopEnd, 1499.5f);
  EXPECT_EQ(other->loopEnd, 50.0f);

  // Fractional points keep their fractions; the rounding of whole ones
  // rounds the loop's length, not its end.
  w->loopStart = 100.5f;
  w->loopEnd = 1001.25f;
  ASSERT_TRUE(resampleToRate(*w, *w, 44100, 1, nullptr));
  EXPECT_EQ(w->loopStart, 201.0f);
  EXPECT_EQ(w->loopEnd, 2002.5f);
  w->loopStart = 3;
  w->loopEnd = 8;
  auto* third = Create<Waveform>(c, "third");
  ASSERT_TRUE(kvResample2(*third, *w, 0.3, 1200, 1, 1));
  EXPECT_EQ(third->loopStart, 1.0f);  // trunc(0.9 + 0.5)
  EXPECT_EQ(third->loopEnd, 3.0f);    // 1 + trunc(1.5 + 0.5)

  // The ends are filtered against silence, not against the loop's other end:
  // a looped constant, read around its loop, would stay at 0.5 throughout.
  Waveform* dc = MakeWave(c, 2000, 1, true, 1);
  for (int i = 0; i < 2000; ++i) dc->samplesF[i] = 0.5f;
  dc->loopType = 1;
  dc->loopStart = 0;
  dc->loopEnd = 2000;
  auto* half = Create<Waveform>(c, "half");
  ASSERT_TRUE(kvResample2(*half, *dc, 0.5, 1000, 22050, 7));
  EXPECT_LT(half->samplesF[0], 0.4f);
  EXPECT_NEAR(half->samplesF[500], 0.5f, 1e-5f);
  EXPECT_GT(std::fabs(half->samplesF[999] - 0.5f), 0.02f);

  // Any length: shorter stops early, longer runs into silence.
  auto* shortOne = Create<Waveform>(c, "short");
  ASSERT_TRUE(kvResample2(*shortOne, *dc, 0.5, 10, 22050, 7));
  EXPECT_EQ(std::memcmp(shortOne->samplesF.get(), half->samplesF.get(), 10 * sizeof(float)), 0);
  auto* longOne = Create<Waveform>(c, "long");
  ASSERT_TRUE(kvResample2(*longOne, *dc, 0.5, 5000, 22050, 7));
  EXPECT_EQ(std::memcmp(longOne->samplesF.get(), half->samplesF.get(), 1000 * sizeof(float)), 0);
  EXPECT_EQ(longOne->samplesF[4999], 0.0f);
  EXPECT_EQ(longOne->loopEnd, 1000.0f);

  // Ratio 1: in place nothing changes; onto another wave a float copy.
  Waveform* s16 = MakeWave(c, 50, 2, false, 2);
  ASSERT_TRUE(kvResample2(*s16, *s16, 1.0, 7, 1, 7));
  EXPECT_EQ(s16->length, 50u);
  EXPECT_NE(s16->samples16, nullptr);
  auto* copy = Create<Waveform>(c, "copy");
  ASSERT_TRUE(kvResample2(*copy, *s16, 1.0, 50, 44100, 7));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(copy->samplesF[i], s16->samples16[i] / 32768.0f);
  EXPECT_FALSE(kvResample2(*copy, *s16, 0.0, 50, 44100, 7));
  EXPECT_FALSE(kvResample2(*copy, *s16, NAN, 50, 44100, 7));
}

TEST(Resample, ExtremeRatiosWorkOrFailWithTheWaveWhole) {
  Collection c;
  Waveform* w = MakeWave(c, 44100, 2, false, 4);
  w->loopType = 1;
  w->loopStart = 10;
  w->loopEnd = 44000;
  // 44100 Hz to 1 Hz: a filter of 1.5 million taps a side, two rows of it.
  auto* one = Create<Waveform>(c, "1 Hz");
  ASSERT_TRUE(resampleToRate(*one, *w, 1, 8, nullptr)) << ErrorMessage;
  EXPECT_EQ(one->length, 1u);
  EXPECT_EQ(one->sampleRate, 1u);

  const std::vector<int16_t> before(w->samples16.get(), w->samples16.get() + w->SampleCount());
  SetResampleMemoryBudget(16u << 20);
  ClearError();
  EXPECT_FALSE(resampleToRate(*w, *w, 1, 8, &c));
  EXPECT_STREQ(ErrorContext, "kvResample2");
  EXPECT_STREQ(ErrorMessage, "Out of memory");
  EXPECT_FALSE(resampleToRate(*w, *w, 44100u * 4000, 1, &c));  // 1.4 GB of output
  SetResampleMemoryBudget(0);
  EXPECT_EQ(w->length, 44100u);
  EXPECT_EQ(w->sampleRate, 44100u);
  EXPECT_EQ(w->loopEnd, 44000.0f);
  ASSERT_NE(w->samples16, nullptr);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), w->samples16.get()));
}

// 441 + 882 + 3087 Hz for 2 s with the loop on whole periods of all three.
Waveform* LoopedChord(Collection& c) {
  auto* w = Create<Waveform>(c, "chord");
  w->length = 88200;
  w->sampleRate = 44100;
  w->samplesF = std::make_unique<float[]>(88200 + 1);
  for (int i = 0; i < 88200; ++i) {
    const double t = i / 44100.0;
    w->samplesF[i] = static_cast<float>(0.3 * std::sin(2 * M_PI * 441 * t) + 0.3 * std::sin(2 * M_PI * 882 * t) +
                                        0.3 * std::sin(2 * M_PI * 3087 * t));
  }
  w->loopType = 1;
  w->loopStart = 22050;
  w->loopEnd = 66150;
  return w;
}

TEST(Resample, LoopedToneStaysSeamless) {
  for (int algorithm : {7, 2}) {
    SCOPED_TRACE(algorithm);
    Collection c;
    Waveform* w = LoopedChord(c);
    ASSERT_TRUE(resampleToRate(*w, *w, 48000, algorithm, &c));
    ASSERT_EQ(w->length, 96000u);
    ASSERT_EQ(w->loopStart, 24000.0f);
    ASSERT_EQ(w->loopEnd, 72000.0f);
    float worst = 0;
    for (int j = 0; j < 2000; ++j)
      worst = std::max(worst, std::fabs(w->samplesF[24000 + j] - w->samplesF[72000 + j]));
    EXPECT_LE(20 * std::log10(worst + 1e-30), -120.0);
    EXPECT_LE(test::ClickRatioDb(*w), 0.0);
  }
}

}  // namespace
}  // namespace kv
