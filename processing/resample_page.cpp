#include "processing/resample_page.h"

#include <cmath>

#include "core/error.h"
#include "core/resample.h"

namespace kv {

namespace {

constexpr const char* kContext = "Resample";
enum : int { kLength, kRate, kAlgorithm, kOnlyDown };

const char* const kAlgorithmKeys[kResampleAlgorithmCount] = {"nearest", "linear", "cubic", "fir8", "fir12",
                                                             "fir16",   "fir20",  "fir24", "auto"};

// The one wave of a one-wave page; null when several items are selected.
Waveform* SingleWave(const ProcessingWizard& w) {
  if (w.items.size() != 1 || w.items[0]->Type() != ItemType::Waveform) return nullptr;
  return static_cast<Waveform*>(w.items[0]);
}

// The other field of the pair, in the ratio of the wave's length and rate.
double Coupled(double value, double from, double to) {
  if (value <= 0 || from <= 0) return 0;
  return std::trunc(value * to / from + 0.499);
}

double& Field(ProcessingWizard& w, int control) { return w.pageValues[control].number; }

// Fills an empty field from the other one, or both from the wave.
void CompleteFields(ProcessingWizard& w, const Waveform& wave) {
  double& length = Field(w, kLength);
  double& rate = Field(w, kRate);
  if (length == 0 && rate == 0) {
    length = wave.length;
    rate = wave.sampleRate;
  } else if (length == 0) {
    length = Coupled(rate, wave.sampleRate, wave.length);
  } else if (rate == 0) {
    rate = Coupled(length, wave.length, wave.sampleRate);
  }
}

}  // namespace

const PageControl kResampleControls[4] = {
    {"length", "New length:", ControlType::Integer, 0, 4294967295.0, nullptr, 0, 0.0, nullptr},
    // The range of a wave's rate; 0, below it, is the empty field.
    {"rate", "New sample rate:", ControlType::Integer, 1, 768000, nullptr, 0, 0.0, nullptr},
    {"algorithm", "Algorithm:", ControlType::Choice, 0, 0, kResampleAlgorithmLabels, kResampleAlgorithmCount,
     kResampleAuto, nullptr, kAlgorithmKeys},
    {"only-down", "Only downsample (i.e. never incread s-rate)", ControlType::Flag, 0, 1, nullptr, 0, 0.0, nullptr},
};

const char* const kResampleHint =
    "Recommendation: Use the FIR filter for un-looped waveforms, and use the Cubic filter for looped waveforms.";

bool ResamplePage(ProcessingWizard& w, WizardPhase phase, int control) {
  Waveform* one = SingleWave(w);
  switch (phase) {
    case WizardPhase::Init:
      w.LoadPage();
      if (!w.direct) w.pageTexts.push_back(kResampleHint);
      if (one) CompleteFields(w, *one);
      else if (Field(w, kRate) == 0) Field(w, kRate) = 44100;
      return true;
    case WizardPhase::Command:
      // Set directly, so the recomputed field doesn't recompute this one.
      if (one && control == kLength) Field(w, kRate) = Coupled(Field(w, kLength), one->length, one->sampleRate);
      if (one && control == kRate) Field(w, kLength) = Coupled(Field(w, kRate), one->sampleRate, one->length);
      return true;
    case WizardPhase::Run: break;
  }
  w.StorePage();
  // Length and rate belong to the wave worked on: the next page starts from
  // its own wave again.
  OperationSetting(kResampleControls[kLength]) = SettingValue{};
  OperationSetting(kResampleControls[kRate]) = SettingValue{};
  const int algorithm = static_cast<int>(w.Control(kAlgorithm).number);
  if (one) {
    if (w.Control(kLength).number == 0 && w.Control(kRate).number == 0)
      return Fail(kContext, "Invalid length or frequency specified");
    CompleteFields(w, *one);
    const auto length = static_cast<uint32_t>(w.Control(kLength).number);
    const auto rate = static_cast<uint32_t>(w.Control(kRate).number);
    // The larger of the two quantities is the more exact base of the ratio.
    const double ratio = one->length > one->sampleRate ? static_cast<double>(length) / one->length
                                                        : static_cast<double>(rate) / one->sampleRate;
    if (ratio == 1.0) return true;
    w.ForEachWave([&](Waveform& wave) {
      if (!kvResample2(wave, wave, ratio, length, rate, algorithm)) return EditResult::Failed;
      AdjustRegionLoops(*w.owner, wave, ratio);
      return EditResult::Changed;
    });
    return true;
  }
  const auto rate = static_cast<uint32_t>(w.Control(kRate).number);
  if (rate == 0) return Fail(kContext, "Invalid length or frequency specified");
  const bool onlyDown = w.Control(kOnlyDown).number != 0;
  w.ForEachWave([&](Waveform& wave) {
    if (wave.sampleRate == rate || (onlyDown && wave.sampleRate <= rate)) return EditResult::Unchanged;
    return resampleToRate(wave, wave, rate, algorithm, w.owner) ? EditResult::Changed : EditResult::Failed;
  });
  return true;
}

}  // namespace kv
