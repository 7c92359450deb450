// Coefficients for the voice filter stages and the EQ sections.
#include "synth/voice_filter.h"

#include <algorithm>
#include <cmath>

namespace kv {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct TypeLayout {
  uint8_t structure, svfOutput, highPass;
};

// Filter type parameter -> stages; index is the type, 0 and anything past
// the table mean no filter.
constexpr TypeLayout kLayouts[] = {
    {0, 0, 0},  // 0 none
    {1, 0, 0},  // 1 one-pole low-pass
    {2, 0, 0},  // 2 SVF low-pass
    {3, 0, 0},  // 3 one-pole low-pass, SVF low-pass
    {4, 0, 0},  // 4 SVF low-pass, SVF low-pass
    {1, 0, 1},  // 5 one-pole high-pass
    {2, 1, 0},  // 6 SVF high-pass
    {3, 1, 1},  // 7 one-pole high-pass, SVF high-pass
    {4, 1, 0},  // 8 SVF high-pass twice
    {2, 2, 0},  // 9 SVF band-pass
    {4, 2, 0},  // 10 SVF band-pass twice
    {2, 3, 0},  // 11 SVF notch
    {4, 3, 0},  // 12 SVF notch twice
};
constexpr int kTypeCount = static_cast<int>(sizeof(kLayouts) / sizeof(kLayouts[0]));

void SetOnePole(OnePole& p, double fn, double c, bool highPass) {
  const double w = std::min(fn * std::exp2(c / 12.0), 0.5);
  const double b1 = std::exp(-2.0 * kPi * w);
  const double a0 = highPass ? (1.0 + b1) / 2.0 : 1.0 - b1;
  p.a0 = static_cast<float>(a0);
  p.a1 = static_cast<float>(highPass ? -a0 : 0.0);
  p.b1 = static_cast<float>(b1);
}

void SetStateVariable(StateVariable& s, double fn, double c, double r, bool oversampled) {
  // Without oversampling the single pass turns unstable well below Nyquist.
  const double limit = oversampled ? 0.5 : 0.36;
  const double w = std::min(fn * std::exp2(c / 12.0), limit);
  const double f = 2.0 * std::sin(kPi * w / (oversampled ? 2.0 : 1.0));
  const double d = std::min(std::pow(10.0, -r / 20.0), 2.0 - f);
  s.f = static_cast<float>(f);
  s.d = static_cast<float>(d);
}

void ComputeCoefficients(VoiceFilter& filter, float c, float r) {
  const double fn = filter.fn;
  const bool over = filter.oversampled != 0;
  switch (filter.structure) {
    case 1:
      SetOnePole(filter.pole, fn, c, filter.highPass != 0);
      break;
    case 2:
      SetStateVariable(filter.second, fn, c, r, over);
      break;
    case 3:
      SetOnePole(filter.pole, fn, c, filter.highPass != 0);
      SetStateVariable(filter.second, fn, c, r, over);
      break;
    case 4:
      SetStateVariable(filter.first, fn, c, 0.0, over);
      SetStateVariable(filter.second, fn, c, r, over);
      break;
    default:
      break;
  }
  filter.lastC = c;
  filter.lastR = r;
}

}  // namespace

bool SetupFilter(VoiceFilter& filter, int type, float fn, float resonance, bool oversampled) {
  filter = VoiceFilter{};
  const bool known = type >= 0 && type < kTypeCount;
  filter.type = known ? static_cast<uint8_t>(type) : 0;
  const TypeLayout& layout = kLayouts[known ? type : 0];
  filter.structure = layout.structure;
  filter.svfOutput = layout.svfOutput;
  filter.highPass = layout.highPass;
  filter.oversampled = oversampled ? 1 : 0;
  filter.fn = fn;
  // Stages the structure does not use stay zeroed.
  ComputeCoefficients(filter, 0.0f, resonance);
  return known;
}

void UpdateFilter(VoiceFilter& filter, float c, float r) {
  if (c == filter.lastC && r == filter.lastR) return;
  ComputeCoefficients(filter, c, r);
}

void SetupEq(EqSection& eq, int mode, float f, float gain, float q) {
  eq = EqSection{};
  // Keep the section finite for out-of-range settings.
  const double fc = std::clamp(static_cast<double>(f), 0.0, 0.5);
  const double qq = std::max(static_cast<double>(q), 1e-3);
  const double A = std::pow(10.0, gain / 40.0);
  const double w = 2.0 * kPi * fc;
  const double cw = std::cos(w);
  const double alpha = std::sin(w) / (2.0 * qq);
  const double sa = 2.0 * std::sqrt(A) * alpha;
  double b0, b1, b2, a0, a1, a2;
  switch (mode) {
    case 0:
      b0 = 1.0 + alpha * A;
      b1 = -2.0 * cw;
      b2 = 1.0 - alpha * A;
      a0 = 1.0 + alpha / A;
      a1 = -2.0 * cw;
      a2 = 1.0 - alpha / A;
      break;
    case 1:
      b0 = A * ((A + 1.0) - (A - 1.0) * cw + sa);
      b1 = 2.0 * A * ((A - 1.0) - (A + 1.0) * cw);
      b2 = A * ((A + 1.0) - (A - 1.0) * cw - sa);
      a0 = (A + 1.0) + (A - 1.0) * cw + sa;
      a1 = -2.0 * ((A - 1.0) + (A + 1.0) * cw);
      a2 = (A + 1.0) + (A - 1.0) * cw - sa;
      break;
    case 2:
      b0 = A * ((A + 1.0) + (A - 1.0) * cw + sa);
      b1 = -2.0 * A * ((A - 1.0) + (A + 1.0) * cw);
      b2 = A * ((A + 1.0) + (A - 1.0) * cw - sa);
      a0 = (A + 1.0) - (A - 1.0) * cw + sa;
      a1 = 2.0 * ((A - 1.0) - (A + 1.0) * cw);
      a2 = (A + 1.0) - (A - 1.0) * cw - sa;
      break;
    default:  // unknown mode: pass-through
      eq.b0 = 1.0f;
      return;
  }
  eq.b0 = static_cast<float>(b0 / a0);
  eq.b1 = static_cast<float>(b1 / a0);
  eq.b2 = static_cast<float>(b2 / a0);
  eq.a1 = static_cast<float>(a1 / a0);
  eq.a2 = static_cast<float>(a2 / a0);
}

}  // namespace kv
