#include "synth/kv_math.h"

#include <cmath>

namespace kv {

namespace {

// x - x^3/6 + x^5/120 - x^7/5040 + x^9/362880 - x^11/39916800 on 0..pi/2.
float QuarterSine(float x) {
  const float x2 = x * x;
  return x * (1.0f -
              x2 * (0.16666667f -
                    x2 * (0.008333334f - x2 * (0.0001984127f - x2 * (2.7557319e-6f - x2 * 2.5052108e-8f)))));
}

}  // namespace

float kvSinTurns(float turns) {
  float p = turns - std::floor(turns);
  constexpr float kTwoPi = 6.2831853f;
  if (p < 0.25f) return QuarterSine(kTwoPi * p);
  if (p < 0.5f) return QuarterSine(kTwoPi * (0.5f - p));
  if (p < 0.75f) return -QuarterSine(kTwoPi * (p - 0.5f));
  return -QuarterSine(kTwoPi * (1.0f - p));
}

void kvPanGains(float position, float& left, float& right) {
  if (!(position > -1.0f)) {
    left = 1.0f;
    right = 0.0f;
    return;
  }
  if (position >= 1.0f) {
    left = 0.0f;
    right = 1.0f;
    return;
  }
  const float x = (position + 1.0f) / 8.0f;
  right = kvSinTurns(x);
  left = kvCosTurns(x);
}

}  // namespace kv
