// Voice filter and EQ: coefficients against hand-computed values, the type
// to structure table, the update skip, and responses that expose wiring.
#include "synth/voice_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace kv {
namespace {

constexpr double kPi = 3.14159265358979323846;

float Step(VoiceFilter& f, float x, int ch) {
  switch (f.structure) {
    case 1: return RunFilter<1>(f, x, ch);
    case 2: return RunFilter<2>(f, x, ch);
    case 3: return RunFilter<3>(f, x, ch);
    case 4: return RunFilter<4>(f, x, ch);
    default: return RunFilter<0>(f, x, ch);
  }
}

VoiceFilter Make(int type, float fn, float r, bool over) {
  VoiceFilter f;
  EXPECT_TRUE(SetupFilter(f, type, fn, r, over));
  return f;
}

// Output after a constant input has settled.
float DcOut(VoiceFilter f, int n = 20000) {
  float y = 0.0f;
  for (int i = 0; i < n; ++i) y = Step(f, 1.0f, 0);
  return y;
}

// Settled output magnitude for +1, -1, +1, ...
float NyquistOut(VoiceFilter f, int n = 20000) {
  float y = 0.0f;
  for (int i = 0; i < n; ++i) y = Step(f, (i & 1) ? -1.0f : 1.0f, 0);
  return std::fabs(y);
}

// Output amplitude (from the RMS of the last quarter, which must span whole
// periods) for a unit sine at `freq`.
float SineOut(VoiceFilter f, double freq, int n = 40000) {
  double sum = 0.0;
  for (int i = 0; i < n; ++i) {
    const float y = Step(f, static_cast<float>(std::sin(2.0 * kPi * freq * i)), 0);
    if (i >= n - n / 4) sum += double{y} * y;
  }
  return static_cast<float>(std::sqrt(2.0 * sum / (n / 4)));
}

TEST(VoiceFilterSetup, TypesMapToStructuresAndUnknownTypesToNone) {
  struct Row {
    int type, structure, output, highPass;
  };
  const Row rows[] = {{0, 0, 0, 0}, {1, 1, 0, 0}, {2, 2, 0, 0},  {3, 3, 0, 0},  {4, 4, 0, 0},
                      {5, 1, 0, 1}, {6, 2, 1, 0}, {7, 3, 1, 1},  {8, 4, 1, 0},  {9, 2, 2, 0},
                      {10, 4, 2, 0}, {11, 2, 3, 0}, {12, 4, 3, 0}};
  for (const Row& r : rows) {
    VoiceFilter f;
    EXPECT_TRUE(SetupFilter(f, r.type, 0.1f, 3.0f, false)) << r.type;
    EXPECT_EQ(f.type, r.type);
    EXPECT_EQ(f.structure, r.structure) << r.type;
    EXPECT_EQ(f.svfOutput, r.output) << r.type;
    EXPECT_EQ(f.highPass, r.highPass) << r.type;
    EXPECT_FLOAT_EQ(f.fn, 0.1f);
    EXPECT_EQ(f.lastC, 0.0f);
    EXPECT_EQ(f.lastR, 3.0f);
  }
  for (int type : {13, 255, -1, 1000}) {
    VoiceFilter f;
    SetupFilter(f, 2, 0.1f, 0.0f, false);
    EXPECT_FALSE(SetupFilter(f, type, 0.1f, 0.0f, false)) << type;
    EXPECT_EQ(f.structure, 0) << type;
    EXPECT_EQ(f.type, 0) << type;
    EXPECT_EQ(Step(f, 0.75f, 0), 0.75f);
  }
  // Setup clears any state a previous note left.
  VoiceFilter f = Make(4, 0.1f, 0.0f, false);
  for (int i = 0; i < 50; ++i) Step(f, 1.0f, 1);
  SetupFilter(f, 3, 0.1f, 0.0f, true);
  EXPECT_EQ(f.oversampled, 1);
  for (int ch = 0; ch < 2; ++ch) {
    EXPECT_EQ(f.first.low[ch], 0.0f);
    EXPECT_EQ(f.first.band[ch], 0.0f);
    EXPECT_EQ(f.second.low[ch], 0.0f);
    EXPECT_EQ(f.second.band[ch], 0.0f);
    EXPECT_EQ(f.pole.x1[ch], 0.0f);
    EXPECT_EQ(f.pole.y1[ch], 0.0f);
  }
}

TEST(VoiceFilterCoefficients, OnePoleAndStateVariable) {
  struct Pole {
    float fn, c, b1, lowA0, highA0;
  };
  // w = min(fn 2^(c/12), 0.5), b1 = exp(-2 pi w); 0.4 an octave up is limited.
  const Pole poles[] = {{0.01f, 0.0f, 0.939101367f, 0.0608986326f, 0.969550684f},
                        {0.25f, 0.0f, 0.207879576f, 0.792120424f, 0.603939788f},
                        {0.49f, 0.0f, 0.0460162446f, 0.953983755f, 0.523008122f},
                        {0.4f, 12.0f, 0.0432139183f, 0.956786082f, 0.521606959f},
                        {0.01f, 12.0f, 0.881911378f, 0.118088622f, 0.940955689f},
                        {0.01f, -12.0f, 0.969072426f, 0.0309275737f, 0.984536213f}};
  for (const Pole& p : poles) {
    VoiceFilter lp = Make(1, p.fn, 0.0f, false);
    VoiceFilter hp = Make(5, p.fn, 0.0f, false);
    UpdateFilter(lp, p.c, 0.0f);
    UpdateFilter(hp, p.c, 0.0f);
    EXPECT_NEAR(lp.pole.b1, p.b1, 1e-6) << p.fn << " " << p.c;
    EXPECT_NEAR(lp.pole.a0, p.lowA0, 1e-6) << p.fn;
    EXPECT_EQ(lp.pole.a1, 0.0f);
    EXPECT_NEAR(hp.pole.b1, p.b1, 1e-6) << p.fn;
    EXPECT_NEAR(hp.pole.a0, p.highA0, 1e-6) << p.fn;
    EXPECT_EQ(hp.pole.a1, -hp.pole.a0);
  }

  struct Svf {
    bool over;
    float fn, c, r, f, d;
  };
  // f = 2 sin(pi w / 2) oversampled (w up to 0.5), 2 sin(pi w) otherwise
  // (w up to 0.36); d = min(10^(-r/20), 2 - f).
  const Svf svfs[] = {{false, 0.01f, 0.0f, 0.0f, 0.0628215182f, 1.0f},
                      {false, 0.25f, 0.0f, 0.0f, 1.41421356f, 0.585786438f},
                      {false, 0.49f, 0.0f, 0.0f, 1.8096541f, 0.190345895f},
                      {false, 0.25f, 12.0f, 0.0f, 1.8096541f, 0.190345895f},
                      {false, 0.01f, 0.0f, 12.0f, 0.0628215182f, 0.251188643f},
                      {false, 0.49f, 0.0f, 12.0f, 1.8096541f, 0.190345895f},
                      {false, 0.3f, 0.0f, 0.0f, 1.61803399f, 0.381966011f},
                      {true, 0.01f, 0.0f, 0.0f, 0.0314146346f, 1.0f},
                      {true, 0.25f, 0.0f, 0.0f, 0.765366865f, 1.0f},
                      {true, 0.49f, 0.0f, 0.0f, 1.39182559f, 0.608174407f},
                      {true, 0.25f, 12.0f, 0.0f, 1.41421356f, 0.585786438f},
                      {true, 0.01f, 0.0f, 12.0f, 0.0314146346f, 0.251188643f},
                      {true, 0.49f, 0.0f, 12.0f, 1.39182559f, 0.251188643f},
                      {true, 0.3f, 0.0f, 0.0f, 0.907980999f, 1.0f}};
  for (const Svf& s : svfs) {
    VoiceFilter f = Make(2, s.fn, s.r, s.over);
    UpdateFilter(f, s.c, s.r);
    EXPECT_NEAR(f.second.f, s.f, 2e-6) << s.over << " " << s.fn << " " << s.c << " " << s.r;
    EXPECT_NEAR(f.second.d, s.d, 2e-6) << s.over << " " << s.fn << " " << s.c << " " << s.r;
  }

  // Two stages: both cutoffs follow c, resonance only on the last stage.
  VoiceFilter four = Make(4, 0.01f, 12.0f, false);
  UpdateFilter(four, 12.0f, 12.0f);
  const float f12 = static_cast<float>(2.0 * std::sin(kPi * 0.02));
  EXPECT_NEAR(four.first.f, f12, 1e-6);
  EXPECT_NEAR(four.second.f, f12, 1e-6);
  EXPECT_EQ(four.first.d, 1.0f);
  EXPECT_NEAR(four.second.d, 0.251188643f, 1e-6);
  VoiceFilter three = Make(7, 0.01f, 12.0f, true);
  UpdateFilter(three, 12.0f, 12.0f);
  EXPECT_NEAR(three.pole.b1, 0.881911378f, 1e-6);
  EXPECT_NEAR(three.pole.a0, 0.940955689f, 1e-6);
  EXPECT_NEAR(three.second.f, static_cast<float>(2.0 * std::sin(kPi * 0.01)), 1e-6);
  EXPECT_NEAR(three.second.d, 0.251188643f, 1e-6);
}

TEST(VoiceFilterUpdate, SkipsWhenUnchangedAndRecomputesOtherwise) {
  VoiceFilter f = Make(3, 0.05f, 6.0f, false);
  f.pole.b1 = 0.5f;
  f.second.f = 0.25f;
  UpdateFilter(f, 0.0f, 6.0f);
  EXPECT_EQ(f.pole.b1, 0.5f);
  EXPECT_EQ(f.second.f, 0.25f);

  // Resonance alone changes: everything recomputed, state kept.
  f.second.low[0] = 0.125f;
  f.pole.y1[1] = -0.25f;
  UpdateFilter(f, 0.0f, 0.0f);
  EXPECT_NEAR(f.pole.b1, std::exp(-2.0 * kPi * 0.05), 1e-6);
  EXPECT_NEAR(f.second.f, 2.0 * std::sin(kPi * 0.05), 1e-6);
  EXPECT_EQ(f.second.d, 1.0f);
  EXPECT_EQ(f.lastC, 0.0f);
  EXPECT_EQ(f.lastR, 0.0f);
  EXPECT_EQ(f.second.low[0], 0.125f);
  EXPECT_EQ(f.pole.y1[1], -0.25f);

  // Cutoff alone changes.
  f.pole.b1 = 0.5f;
  UpdateFilter(f, -12.0f, 0.0f);
  EXPECT_NEAR(f.pole.b1, std::exp(-2.0 * kPi * 0.025), 1e-6);
  EXPECT_NEAR(f.second.f, 2.0 * std::sin(kPi * 0.025), 1e-6);
  EXPECT_EQ(f.lastC, -12.0f);
  f.second.d = 0.5f;
  UpdateFilter(f, -12.0f, 0.0f);
  EXPECT_EQ(f.second.d, 0.5f);
}

TEST(VoiceFilterResponse, PassAndStopBandsFollowTheType) {
  // Single stages at fn 0.05, against their transfer functions at z = -1.
  const double b1 = std::exp(-2.0 * kPi * 0.05);
  EXPECT_NEAR(NyquistOut(Make(1, 0.05f, 0.0f, false)), (1.0 - b1) / (1.0 + b1), 1e-5);
  EXPECT_NEAR(NyquistOut(Make(5, 0.05f, 0.0f, false)), 1.0, 1e-5);
  const double f = 2.0 * std::sin(kPi * 0.05);
  const double den = 4.0 - f * f - 2.0 * f;  // d = 1
  EXPECT_NEAR(NyquistOut(Make(2, 0.05f, 0.0f, false)), f * f / den, 1e-5);
  EXPECT_NEAR(NyquistOut(Make(6, 0.05f, 0.0f, false)), 4.0 / den, 1e-5);
  EXPECT_NEAR(NyquistOut(Make(9, 0.05f, 0.0f, false)), 2.0 * f / den, 1e-5);
  EXPECT_NEAR(NyquistOut(Make(11, 0.05f, 0.0f, false)), (4.0 - f * f) / den, 1e-5);

  for (bool over : {false, true}) {
    for (int type : {1, 2, 3, 4}) {
      SCOPED_TRACE(testing::Message() << "low-pass type " << type << " over " << over);
      EXPECT_NEAR(DcOut(Make(type, 0.05f, 0.0f, over)), 1.0f, 1e-4);
      EXPECT_LT(NyquistOut(Make(type, 0.05f, 0.0f, over)), 0.16f);  // one-pole: 0.1558
    }
    for (int type : {5, 6, 7, 8}) {
      SCOPED_TRACE(testing::Message() << "high-pass type " << type << " over " << over);
      EXPECT_NEAR(DcOut(Make(type, 0.05f, 0.0f, over)), 0.0f, 1e-4);
      EXPECT_GT(NyquistOut(Make(type, 0.05f, 0.0f, over)), 0.9f);
    }
    for (int type : {9, 10}) {
      SCOPED_TRACE(testing::Message() << "band-pass type " << type << " over " << over);
      EXPECT_NEAR(DcOut(Make(type, 0.05f, 0.0f, over)), 0.0f, 1e-4);
      EXPECT_LT(NyquistOut(Make(type, 0.05f, 0.0f, over)), 0.2f);
      EXPECT_GT(SineOut(Make(type, 0.05f, 0.0f, over), 0.05), 0.8f);
    }
    for (int type : {11, 12}) {
      SCOPED_TRACE(testing::Message() << "notch type " << type << " over " << over);
      EXPECT_NEAR(DcOut(Make(type, 0.05f, 0.0f, over)), 1.0f, 1e-4);
      EXPECT_GT(SineOut(Make(type, 0.05f, 0.0f, over), 0.2), 0.5f);
    }
  }
  // Without oversampling the notch is an exact null at the cutoff; the held
  // input of the oversampled passes leaves an image of about tan(pi w / 2).
  EXPECT_LT(SineOut(Make(11, 0.05f, 0.0f, false), 0.05), 1e-4f);
  EXPECT_LT(SineOut(Make(12, 0.05f, 0.0f, false), 0.05), 1e-4f);
  EXPECT_LT(SineOut(Make(11, 0.01f, 6.0f, false), 0.01, 80000), 1e-4f);
  EXPECT_LT(SineOut(Make(11, 0.01f, 0.0f, true), 0.01, 80000), 0.02f);

  // Resonance lifts the low-pass at its cutoff: 1 / d there.
  EXPECT_NEAR(SineOut(Make(2, 0.05f, 12.0f, false), 0.05), 1.0 / 0.251188643, 0.01);
}

TEST(VoiceFilterEq, CookbookCoefficientsAndGainAtCentre) {
  for (int mode : {0, 1, 2}) {
    for (float gain : {6.0f, -6.0f}) {
      for (float q : {0.71f, 2.0f}) {
        for (float fc : {0.01f, 0.1f, 0.3f}) {
          SCOPED_TRACE(testing::Message() << mode << " " << gain << " " << q << " " << fc);
          EqSection eq;
          SetupEq(eq, mode, fc, gain, q);
          const double A = std::pow(10.0, gain / 40.0), w = 2.0 * kPi * fc, cs = std::cos(w);
          const double al = std::sin(w) / (2.0 * q), s = 2.0 * std::sqrt(A) * al;
          double b[3], a[3];
          if (mode == 0) {
            b[0] = 1 + al * A, b[1] = -2 * cs, b[2] = 1 - al * A;
            a[0] = 1 + al / A, a[1] = -2 * cs, a[2] = 1 - al / A;
          } else if (mode == 1) {
            b[0] = A * ((A + 1) - (A - 1) * cs + s), b[1] = 2 * A * ((A - 1) - (A + 1) * cs);
            b[2] = A * ((A + 1) - (A - 1) * cs - s);
            a[0] = (A + 1) + (A - 1) * cs + s, a[1] = -2 * ((A - 1) + (A + 1) * cs);
            a[2] = (A + 1) + (A - 1) * cs - s;
          } else {
            b[0] = A * ((A + 1) + (A - 1) * cs + s), b[1] = -2 * A * ((A - 1) + (A + 1) * cs);
            b[2] = A * ((A + 1) + (A - 1) * cs - s);
            a[0] = (A + 1) - (A - 1) * cs + s, a[1] = 2 * ((A - 1) - (A + 1) * cs);
            a[2] = (A + 1) - (A - 1) * cs - s;
          }
          EXPECT_NEAR(eq.b0, b[0] / a[0], 1e-6);
          EXPECT_NEAR(eq.b1, b[1] / a[0], 1e-6);
          EXPECT_NEAR(eq.b2, b[2] / a[0], 1e-6);
          EXPECT_NEAR(eq.a1, a[1] / a[0], 1e-6);
          EXPECT_NEAR(eq.a2, a[2] / a[0], 1e-6);
          // Independent of the formulas: shelves give the set gain at DC
          // (low) or Nyquist (high) and unity at the other end; the peak
          // is unity at both.
          const double dc = (eq.b0 + eq.b1 + eq.b2) / (1.0 + eq.a1 + eq.a2);
          const double ny = (eq.b0 - eq.b1 + eq.b2) / (1.0 - eq.a1 + eq.a2);
          const double g = std::pow(10.0, gain / 20.0);
          EXPECT_NEAR(dc, mode == 1 ? g : 1.0, 1e-3);
          EXPECT_NEAR(ny, mode == 2 ? g : 1.0, 1e-3);
          for (int ch = 0; ch < 2; ++ch) {
            EXPECT_EQ(eq.x1[ch], 0.0f);
            EXPECT_EQ(eq.x2[ch], 0.0f);
            EXPECT_EQ(eq.y1[ch], 0.0f);
            EXPECT_EQ(eq.y2[ch], 0.0f);
          }
        }
      }
    }
  }
  // Literal peaking section: f 0.1, +6 dB, Q 2.
  EqSection lit;
  SetupEq(lit, 0, 0.1f, 6.0f, 2.0f);
  EXPECT_NEAR(lit.b0, 1.0937811f, 1e-6);
  EXPECT_NEAR(lit.b1, -1.4655706f, 1e-6);
  EXPECT_NEAR(lit.a2, 0.8115449f, 1e-6);

  // A sine at the centre of a peaking section comes out at the set gain.
  for (float gain : {6.0f, -6.0f, 12.0f}) {
    for (float q : {0.71f, 2.0f}) {
      EqSection eq;
      SetupEq(eq, 0, 0.05f, gain, q);
      double in = 0.0, out = 0.0;
      for (int i = 0; i < 20000; ++i) {
        const float x = static_cast<float>(std::sin(2.0 * kPi * 0.05 * i));
        const float y = RunEq(eq, x, 0);
        if (i >= 10000) in += double{x} * x, out += double{y} * y;
      }
      EXPECT_NEAR(10.0 * std::log10(out / in), gain, 0.1) << gain << " " << q;
    }
  }
}

TEST(VoiceFilterStereo, ChannelsKeepSeparateHistory) {
  std::vector<float> left(300), right(300);
  for (int i = 0; i < 300; ++i) {
    left[i] = static_cast<float>(std::sin(0.07 * i));
    right[i] = (i % 7 == 0) ? 1.0f : -0.1f;
  }
  for (int type : {3, 7, 10, 12}) {
    VoiceFilter both = Make(type, 0.08f, 6.0f, type > 8);
    VoiceFilter l = both, r = both;
    for (int i = 0; i < 300; ++i) {
      const float yl = Step(both, left[i], 0);
      const float yr = Step(both, right[i], 1);
      EXPECT_EQ(yl, Step(l, left[i], 0)) << type << " " << i;
      EXPECT_EQ(yr, Step(r, right[i], 0)) << type << " " << i;
    }
  }
  EqSection both;
  SetupEq(both, 2, 0.1f, -6.0f, 0.71f);
  EqSection l = both, r = both;
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(RunEq(both, left[i], 0), RunEq(l, left[i], 0)) << i;
    EXPECT_EQ(RunEq(both, right[i], 1), RunEq(r, right[i], 0)) << i;
  }
}

}  // namespace
}  // namespace kv
