#include "processing/loop_pages.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/app.h"
#include "core/error.h"
#include "core/instrument_ops.h"
#include "core/wavestore.h"
#include "processing/length.h"
#include "processing/loops.h"

namespace kv {

namespace {

template <typename Apply>
bool OnRun(ProcessingWizard& w, WizardPhase phase, Apply&& apply) {
  if (phase == WizardPhase::Init) w.LoadPage();
  if (phase != WizardPhase::Run) return true;
  w.StorePage();
  return apply();
}

bool On(const ProcessingWizard& w, int control) { return w.Control(control).number != 0.0; }

// A failed call with its error set fails the wave; one without (no loop,
// nothing to do) leaves it unchanged.
EditResult Outcome(bool ok) {
  if (ok) return EditResult::Changed;
  return ErrorMessage[0] ? EditResult::Failed : EditResult::Unchanged;
}

bool ParseNumber(const std::string& text, double& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return errno == 0 && end && *end == 0 && std::isfinite(out);
}

// "LOW:HIGH" in percent, each limited to 0..100.
bool ParsePercentRange(const std::string& text, double& low, double& high) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos || !ParseNumber(text.substr(0, colon), low) ||
      !ParseNumber(text.substr(colon + 1), high))
    return false;
  low = std::clamp(low, 0.0, 100.0);
  high = std::clamp(high, 0.0, 100.0);
  return true;
}

const char* CheckPercentRange(const std::string& text) {
  double low, high;
  return ParsePercentRange(text, low, high) ? nullptr : "LOW:HIGH in percent (0..100 each)";
}

const char* CheckCrossfadeLength(const std::string& text) {
  if (text == "whole") return nullptr;
  double v;
  return ParseNumber(text, v) && v >= 1 && v == std::floor(v) && v <= 4294967295.0 ? nullptr
                                                                                     : "a whole number of frames or \"whole\"";
}

}  // namespace

// ---- Auto loop finder ----

const PageControl kAutoLoopControls[6] = {
    {"crossfade", "Crossfade samples within the loop", ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
    {"sustain", "Create loop + sampled release (sustain loop)", ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
    {"cut", "Cut everything after the loop end point", ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
    {"skip-looped", "Skip already looped waves (keep existing)", ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
    {"start", "Loop start point search range:", ControlType::Text, 0, 32, nullptr, 0, 0, "50:99", nullptr,
     CheckPercentRange},
    {"end", "Loop end point search range:", ControlType::Text, 0, 32, nullptr, 0, 0, "75:100", nullptr,
     CheckPercentRange},
};

bool AutoLoopPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    double startLo, startHi, endLo, endHi;
    if (!ParsePercentRange(w.Control(4).text, startLo, startHi) || !ParsePercentRange(w.Control(5).text, endLo, endHi))
      return Fail("Auto loop finder", "The search ranges must read LOW:HIGH in percent");
    const bool sustain = On(w, 1);
    // Skipping is offered for several waves or a batch conversion only.
    const bool skip = On(w, 3) && (w.items.size() > 1 || w.silent);
    w.ForEachWave([&](Waveform& wave) {
      if (skip && wave.loopType != 0) return EditResult::Unchanged;
      ClearError();
      // The loop is set, yet the run counts no wave as modified: the finder
      // has always reported so.
      const bool found = autoLoop(wave, On(w, 0), sustain, On(w, 2) && !sustain, startLo * 0.01, startHi * 0.01,
                                  endLo * 0.01, endHi * 0.01);
      return !found && ErrorMessage[0] ? EditResult::Failed : EditResult::Unchanged;
    });
    return true;
  });
}

// ---- Cross-fade loop ----

const PageControl kCrossfadeControls[3] = {
    {"length", "Crossfade length (wavesamples):", ControlType::Text, 0, 16, nullptr, 0, 0, "whole", nullptr,
     CheckCrossfadeLength},
    {"reverse-after", "Also cross-fade the start of the loop into the samples after its end", ControlType::Flag, 0, 0,
     nullptr, 0, 1.0, nullptr},
    {"exp", "Use exp. fading (fades linearly in 'log-space', which is how the ear perceive loudness).",
     ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
};

bool CrossfadePage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    static constexpr const char* kContext = "Cross-fade loop";
    const std::string& text = w.Control(0).text;
    if (CheckCrossfadeLength(text)) return Fail(kContext, "The crossfade length must be a number of wavesamples");
    // One wave outside a batch takes the typed length; otherwise every wave
    // fades its whole loop ("whole loop").
    const bool single = w.items.size() == 1 && !w.silent;
    const int64_t typed = text == "whole" ? -1 : static_cast<int64_t>(std::strtod(text.c_str(), nullptr));
    if (single && w.items[0]->Type() == ItemType::Waveform && typed >= 0) {
      const int64_t most = maximumCrossfade(*static_cast<Waveform*>(w.items[0]));
      if (typed > most)
        return Fail(kContext,
                    "The maximum crossfade length is %d wavesamples (minimum of the loop length and the number of "
                    "wavesamples before the loop start point",
                    static_cast<int>(most));
    }
    w.ForEachWave([&](Waveform& wave) {
      if (wave.loopType == 0) return EditResult::Unchanged;
      const auto start = static_cast<int64_t>(std::max(wave.loopStart, 0.0f) + 0.499f);
      const auto end = static_cast<int64_t>(std::min(wave.loopEnd, static_cast<float>(wave.length)) + 0.499f);
      const int64_t length = single && typed >= 0 ? typed : maximumCrossfade(wave);
      ClearError();
      return Outcome(crossfadeLoop(wave, start, end, length, On(w, 1), On(w, 2)));
    });
    return true;
  });
}

// ---- Loop sanitizer/converter ----

const PageControl kSanitizerControls[5] = {
    {"alternating", "Convert alternating (bidirectional) loops to forward loops", ControlType::Flag, 0, 0, nullptr, 0,
     1.0, nullptr},
    {"reverse", "Convert reverse loops to forward loops", ControlType::Flag, 0, 0, nullptr, 0, 1.0, nullptr},
    {"min32", "Ensure loop length is at least 32 samples", ControlType::Flag, 0, 0, nullptr, 0, 1.0, nullptr},
    {"after32", "Ensure at least 32 samples after the loop end", ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
    {"before32", "Ensure at least 32 samples before the loop start", ControlType::Flag, 0, 0, nullptr, 0, 0.0,
     nullptr},
};

bool SanitizerPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    w.ForEachWave([&](Waveform& wave) {
      if (wave.loopType == 0) return EditResult::Unchanged;
      const auto state = [](const Waveform& v) {
        return std::tuple(v.loopType, v.loopRelease, v.loopStart, v.loopEnd, v.length);
      };
      const auto before = state(wave);
      ClearError();
      if (!sanitizeLoop(wave, On(w, 0), On(w, 1), On(w, 2), On(w, 3), On(w, 4)))
        return ErrorMessage[0] ? EditResult::Failed : EditResult::Unchanged;
      return state(wave) == before ? EditResult::Unchanged : EditResult::Changed;
    });
    return true;
  });
}

// ---- Move loop points to zero-crossing ----

bool ZeroCrossingPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    w.ForEachWave([](Waveform& wave) { return moveLoopToZeroCrossing(wave); });
    return true;
  });
}

// ---- Enable/disable loops ----

namespace {
const char* const kLoopChoiceKeys[kLoopChoiceCount] = {"disable", "enable-unlooped", "enable-all"};
}

const PageControl kLoopsControls[1] = {
    {"choice", "Loops:", ControlType::Choice, 0, 0, kLoopChoiceLabels, kLoopChoiceCount, 1.0, nullptr, kLoopChoiceKeys},
};

bool LoopsPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    const int choice = static_cast<int>(w.Control(0).number);
    w.ForEachWave([&](Waveform& wave) { return setLoopsEnabled(wave, choice); });
    return true;
  });
}

// ---- Trim waveform after loop ----

const PageControl kTrimAfterLoopControls[5] = {
    {"cut-after", "Cut everything after the loop end point.", ControlType::Flag, 0, 0, nullptr, 0, 1.0, nullptr},
    {"append32", "Append 32 samples from the start of the loop to the end (for interpolation algos).",
     ControlType::Flag, 0, 0, nullptr, 0, 1.0, nullptr},
    {"region-overrides", "Also check for any region loop overrides and cut after the endmost of the loops.",
     ControlType::Flag, 0, 0, nullptr, 0, 1.0, nullptr},
    {"cut-before", "Cut everything before the loop start point.", ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
    {"save-release", "Save removed 'release sections' as new waves (if >32 samples after loop end).",
     ControlType::Flag, 0, 0, nullptr, 0, 0.0, nullptr},
};

const char* TrimAfterLoopRefusal(const SettingValue* values) {
  return values[0].number == 0.0 && values[3].number == 0.0 ? "cut-after or cut-before must be on" : nullptr;
}

namespace {

// A wave's samples and loop as they were, for undoing a trim when the cut
// before the loop fails after it.
struct WaveBackup {
  std::unique_ptr<int16_t[]> s16;
  std::unique_ptr<float[]> f;
  uint32_t length = 0;
  uint8_t release = 0;
  float start = 0, end = 0;

  bool Take(const Waveform& wave) {
    const uint64_t count = wave.SampleCount();
    if (wave.samplesF) {
      if (!(f = TryAllocArray<float>(count + 1))) return false;
      std::copy_n(wave.samplesF.get(), count, f.get());
    } else if (wave.samples16) {
      if (!(s16 = TryAllocArray<int16_t>(count + 1))) return false;
      std::copy_n(wave.samples16.get(), count, s16.get());
    }
    length = wave.length;
    release = wave.loopRelease;
    start = wave.loopStart;
    end = wave.loopEnd;
    return true;
  }
  void Restore(Waveform& wave) {
    if (f) wave.samplesF = std::move(f), wave.samples16.reset();
    else wave.samples16 = std::move(s16), wave.samplesF.reset();
    wave.length = length;
    wave.loopRelease = release;
    wave.loopStart = start;
    wave.loopEnd = end;
  }
};

}  // namespace

bool TrimAfterLoopPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    static constexpr const char* kContext = "Trim waveform after loop";
    const bool cutAfter = On(w, 0), cutBefore = On(w, 3);
    if (!cutAfter && !cutBefore) return Fail(kContext, "Choose at least one of the two cuts");
    bool released = false;
    w.ForEachWave([&](Waveform& wave) {
      if (wave.loopType == 0) return EditResult::Unchanged;
      ClearError();
      const auto cutPoint = [&] { return static_cast<int64_t>(wave.loopStart + 0.499f); };
      const bool both = cutAfter && cutBefore && cutPoint() > 0;
      WaveBackup backup;
      if (both && (!OwnData(wave) || !backup.Take(wave))) {
        if (!ErrorMessage[0]) Fail(kContext, "Out of memory");
        return EditResult::Failed;
      }
      ItemId release = kNoItem;
      if (cutAfter) {
        const int made = trimAfterLoop(wave, On(w, 1), On(w, 2), On(w, 4), &release);
        if (made < 0) return EditResult::Failed;
        released = released || made == 1;
      }
      if (cutBefore) {
        const int64_t s = cutPoint();
        if (s > 0 && s < wave.length && cutFrames(wave, 0, s, kContext) == EditResult::Failed) {
          if (both) {
            backup.Restore(wave);
            if (release != kNoItem && wave.collection)
              if (Item* made = wave.collection->Find(release)) DeleteItem(made);
          }
          return EditResult::Failed;
        }
      }
      return EditResult::Changed;
    });
    if (released && !w.silent) App().refresh = true;
    return true;
  });
}

}  // namespace kv
