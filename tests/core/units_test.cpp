#include "core/units.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kv {
namespace {

TEST(Units, TimecentsAbsoluteCentsAndCentibels) {
  EXPECT_DOUBLE_EQ(TimecentsToSeconds(1200), 2.0);
  EXPECT_DOUBLE_EQ(TimecentsToSeconds(-1200), 0.5);
  EXPECT_DOUBLE_EQ(SecondsToTimecents(2.0), 1200);
  EXPECT_DOUBLE_EQ(AbsoluteCentsToHz(0), 8.176);
  // A above middle C: a hundredth of a hertz over 440, key 0 being 8.176 Hz.
  EXPECT_NEAR(AbsoluteCentsToHz(6900), 440.0108, 1e-4);
  EXPECT_NEAR(HzToAbsoluteCents(AbsoluteCentsToHz(6900)), 6900, 1e-9);
  EXPECT_DOUBLE_EQ(CentibelsToDb(-60), -6.0);
  EXPECT_DOUBLE_EQ(DbToCentibels(-6), -60.0);
}

TEST(Units, CutoffMovesToMidVelocityAndMiddleC) {
  // 24 semitones of velocity span (a SoundFont's -2400 cent velocity
  // modulator): mid velocity lies an octave away, the depth is half the span.
  const ModelCutoff v = CutoffToModel(FormatCutoff{1000, 24, 0}, 60);
  EXPECT_NEAR(v.hz, 2000, 1e-9);
  EXPECT_DOUBLE_EQ(v.velocityDepth, 12);
  // 12 semitones per octave held at key 48: middle C is an octave up; held
  // at middle C it stays.
  const ModelCutoff k = CutoffToModel(FormatCutoff{1000, 0, 12}, 48);
  EXPECT_NEAR(k.hz, 2000, 1e-9);
  EXPECT_DOUBLE_EQ(k.keyDepth, 12);
  EXPECT_NEAR(CutoffToModel(FormatCutoff{1000, 0, 12}, 60).hz, 1000, 1e-9);
  EXPECT_NEAR(CutoffToModel(FormatCutoff{1000, 0, 12}, 72).hz, 500, 1e-9);
}

TEST(Units, CutoffFromModelInvertsCutoffToModel) {
  const FormatCutoff cases[] = {{1000, 0, 0}, {1000, 24, 0}, {1000, 0, 12}, {440, -12, 6}, {20, 7.25, -100}};
  for (double key : {0.0, 48.0, 60.0, 100.5})
    for (const FormatCutoff& f : cases) {
      const FormatCutoff back = CutoffFromModel(CutoffToModel(f, key), key);
      EXPECT_NEAR(back.hz, f.hz, 1e-9 * f.hz) << key;
      EXPECT_NEAR(back.velocitySpan, f.velocitySpan, 1e-9) << key;
      EXPECT_NEAR(back.keyPerOctave, f.keyPerOctave, 1e-9) << key;
    }
}

}  // namespace
}  // namespace kv
