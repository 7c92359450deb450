#include "core/units.h"

#include <cmath>

namespace kv {

namespace {
constexpr double kMiddleC = 60.0;
}  // namespace

// exp(x * ln 2 / 12) rather than exp2(x / 12): the readers' figures (and the
// tests' exact values) were taken with this form, and the two differ in the
// last bit now and then.
double SemitonesToRatio(double semitones) { return std::exp(semitones * kLn2 / 12.0); }

double TimecentsToSeconds(double timecents) { return std::exp2(timecents / 1200.0); }
double SecondsToTimecents(double seconds) { return 1200.0 * std::log2(seconds); }

double AbsoluteCentsToHz(double cents) { return 8.176 * std::exp2(cents / 1200.0); }
double HzToAbsoluteCents(double hz) { return 1200.0 * std::log2(hz / 8.176); }

ModelCutoff CutoffToModel(const FormatCutoff& format, double referenceKey) {
  ModelCutoff m;
  m.velocityDepth = format.velocitySpan * 0.5;
  m.keyDepth = format.keyPerOctave;
  m.hz = format.hz;
  if (m.velocityDepth != 0) m.hz *= SemitonesToRatio(m.velocityDepth);
  if (m.keyDepth != 0) m.hz *= SemitonesToRatio(m.keyDepth * ((kMiddleC - referenceKey) / 12.0));
  return m;
}

FormatCutoff CutoffFromModel(const ModelCutoff& model, double referenceKey) {
  FormatCutoff f;
  f.velocitySpan = model.velocityDepth * 2.0;
  f.keyPerOctave = model.keyDepth;
  f.hz = model.hz;
  if (model.velocityDepth != 0) f.hz /= SemitonesToRatio(model.velocityDepth);
  if (model.keyDepth != 0) f.hz /= SemitonesToRatio(model.keyDepth * ((kMiddleC - referenceKey) / 12.0));
  return f;
}

}  // namespace kv
