// The table of audio operations, in the table's own (alphabetical) order,
// and the pages of the in-place edits. Rows whose operation isn't written yet
// (tuning, time stretch, volume and silence tools,
// VST effects) are listed with their page,
// availability and flags; their handler is OperationNotInBuild until then.
//
// A page handler reads its controls in Init, writes them back in Run and
// applies the operation through the functions of volume.h, edit.h, loops.h,
// names.h and statistics.h, which know nothing of the wizard. The pages of
// the length and channel rows live in length_pages.cpp.
#include <cstdio>
#include <string>

#include "core/error.h"
#include "processing/edit.h"
#include "processing/length_pages.h"
#include "processing/loop_pages.h"
#include "processing/loops.h"
#include "processing/names.h"
#include "processing/resample_page.h"
#include "processing/statistics.h"
#include "processing/volume.h"
#include "processing/wizard.h"

namespace kv {

namespace {

// The common shape of a page: Init loads the controls, Command has nothing
// to keep consistent, Run stores them and calls `apply`.
template <typename Apply>
bool Page(ProcessingWizard& w, WizardPhase phase, Apply&& apply) {
  switch (phase) {
    case WizardPhase::Init: w.LoadPage(); return true;
    case WizardPhase::Command: return true;
    case WizardPhase::Run: w.StorePage(); return apply();
  }
  return true;
}

int ControlInt(const ProcessingWizard& w, int control) { return static_cast<int>(w.Control(control).number); }

// ---- Adjust volume ----

const PageControl kAdjustVolumeControls[] = {
    {"db", "Volume change (dB):", ControlType::Number, -96.0, 96.0, nullptr, 0, -10.0, nullptr},
};

bool AdjustVolumePage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    const auto dB = static_cast<float>(w.Control(0).number);
    w.ForEachWave([&](Waveform& wave) {
      // Any wave with frames counts, 0 dB too; one without has nothing to change.
      if (wave.length == 0) return EditResult::Unchanged;
      return applyGain(wave, dB, w.RangeFirst(), w.RangeEnd()) ? EditResult::Changed : EditResult::Failed;
    });
    return true;
  });
}

// ---- Fade in/out selection ----

const PageControl kFadeControls[] = {
    {"mode", "Fade:", ControlType::Choice, 0, 0, kFadeModeLabels, kFadeModeCount, 1.0, nullptr},
};

bool FadePage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    const int mode = ControlInt(w, 0);
    w.ForEachWave([&](Waveform& wave) { return fadeRange(wave, mode, w.RangeFirst(), w.RangeEnd()); });
    return true;
  });
}

// ---- the rows without a page ----

bool InvertPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([&](Waveform& wave) { return invertRange(wave, w.RangeFirst(), w.RangeEnd()); });
    return true;
  });
}

bool MaximizePage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([](Waveform& wave) { return maximizeAmplitude(wave, 1); });
    return true;
  });
}

bool RemoveDcPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([](Waveform& wave) { return removeDcOffset(wave); });
    return true;
  });
}

bool ReversePage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([&](Waveform& wave) { return reverseRange(wave, w.RangeFirst(), w.RangeEnd()); });
    return true;
  });
}

bool LoopToSelectionPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([&](Waveform& wave) {
      // The row is range-active, so a range is always set when it runs.
      return setLoopToSelection(wave, w.useRange ? w.rangeStart : 0, w.useRange ? w.rangeEnd : wave.length);
    });
    return true;
  });
}

bool NamesFromFilesPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([](Waveform& wave) {
      nameFromSourceFile(wave);
      return EditResult::Changed;  // every waveform counts
    });
    return true;
  });
}

bool SwapPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    w.ForEachWave([](Waveform& wave) { return swapChannels(wave); });
    return true;
  });
}

// ---- Search and replace text in names ----

const PageControl kSearchControls[] = {
    {"search", "Search for:", ControlType::Text, 0, kSearchFieldLength, nullptr, 0, 0, ""},
    {"replace", "Replace with:", ControlType::Text, 0, kSearchFieldLength, nullptr, 0, 0, ""},
};

bool SearchReplacePage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    const std::string search = w.Control(0).text, replacement = w.Control(1).text;
    if (search.empty()) return Fail("Search and replace text in names", "You haven't supplied any search string.");
    w.ForEachWave([&](Waveform& wave) {
      return replaceInName(wave, search, replacement) ? EditResult::Changed : EditResult::Unchanged;
    });
    return true;
  });
}

// ---- Smooth within the selection ----

const PageControl kSmoothControls[] = {
    {"mode", "Filter:", ControlType::Choice, 0, 0, kSmoothModeLabels, kSmoothModeCount, 0.0, nullptr},
};

bool SmoothPage(ProcessingWizard& w, WizardPhase phase, int) {
  return Page(w, phase, [&] {
    const int mode = ControlInt(w, 0);
    w.ForEachWave([&](Waveform& wave) { return smoothRange(wave, mode, w.RangeFirst(), w.RangeEnd()); });
    return true;
  });
}

// ---- Statistics ----

// Computed when the page opens, over all selected waves; nothing changes.
bool StatisticsPage(ProcessingWizard& w, WizardPhase phase, int) {
  if (phase != WizardPhase::Init) return true;
  WaveStatistics stats;
  for (Item* item : w.items) {
    if (item->Type() != ItemType::Waveform) continue;
    auto& wave = *static_cast<Waveform*>(item);
    if (!wave.HasData() && wave.SampleCount() && !wave.EnsureData()) {
      w.ItemFailed();
      continue;
    }
    AddStatistics(stats, wave);
  }
  w.pageTexts.clear();
  for (const StatisticsLine& line : FormatStatistics(stats)) {
    std::string text = line.label + ":";
    for (const std::string& value : line.values) text += "\t" + value;
    w.pageTexts.push_back(std::move(text));
  }
  return true;
}

#define KV_CONTROLS(table) table, static_cast<int>(std::size(table))

const WizardOperation kAudioOperations[] = {
    {"Adjust volume", 334, AdjustVolumePage, AlwaysAvailable, kOpRange, "adjust-volume",
     KV_CONTROLS(kAdjustVolumeControls)},
    {"Append/combine waveforms", 323, AppendPage, OneWave, 0, "append", KV_CONTROLS(kAppendControls)},
    {"Auto loop finder", 335, AutoLoopPage, AlwaysAvailable, 0, "auto-loop", KV_CONTROLS(kAutoLoopControls)},
    {"Auto tune", 326, OperationNotInBuild, AlwaysAvailable, 0, "auto-tune", nullptr, 0},
    {"Calculate tuning", 325, OperationNotInBuild, AlwaysAvailable, 0, "calculate-tuning", nullptr, 0},
    {"Convert to mono", 306, ToMonoPage, AnyStereo, 0, "to-mono", KV_CONTROLS(kToMonoControls)},
    {"Convert to stereo", 305, ToStereoPage, AnyMono, 0, "to-stereo", KV_CONTROLS(kToStereoControls)},
    {"Cross-fade loop", 309, CrossfadePage, AnyLooped, 0, "crossfade", KV_CONTROLS(kCrossfadeControls)},
    {"Cut away selection", 311, CutPage, RangeActive, kOpRange, "cut", nullptr, 0},
    {"Enable/disable loops", 332, LoopsPage, AlwaysAvailable, 0, "loops", KV_CONTROLS(kLoopsControls)},
    {"Fade in/out selection", 310, FadePage, RangeActive, kOpRange, "fade", KV_CONTROLS(kFadeControls)},
    {"Find volume", 321, OperationNotInBuild, AlwaysAvailable, 0, "find-volume", nullptr, 0},
    {"Insert silence", 316, InsertSilencePage, AlwaysAvailable, kOpRange, "insert-silence",
     KV_CONTROLS(kInsertSilenceControls)},
    {"Insert another waveform", 317, InsertWavePage, AlwaysAvailable, kOpRange, "insert-wave",
     KV_CONTROLS(kInsertWaveControls)},
    {"Invert sign throughout selection", 319, InvertPage, RangeActive, kOpRange | kOpNoPage, "invert", nullptr, 0},
    {"Loop sanitizer/converter", 302, SanitizerPage, AnyLooped, 0, "loop-sanitizer", KV_CONTROLS(kSanitizerControls)},
    {"Maximize amplitude", 307, MaximizePage, AlwaysAvailable, kOpNoPage, "maximize", nullptr, 0},
    {"Mix out = a*wave1 + b*wave2 + c", 320, MixPage, OneWave, 0, "mix", KV_CONTROLS(kMixControls)},
    {"Move loop points to zero-crossing", 339, ZeroCrossingPage, AnyLooped, kOpNoPage, "zero-crossing", nullptr, 0},
    {"Normalize volume", 337, OperationNotInBuild, AlwaysAvailable, 0, "normalize", nullptr, 0},
    {"Parse root key from waveform name", 333, OperationNotInBuild, AlwaysAvailable, kOpNoPage, "root-key-from-name",
     nullptr, 0},
    {"Pitch scale", 336, OperationNotInBuild, AlwaysAvailable, 0, "pitch-scale", nullptr, 0},
    {"Remove DC offset", 331, RemoveDcPage, AlwaysAvailable, kOpNoPage, "remove-dc", nullptr, 0},
    {"Remove silent sections", 304, OperationNotInBuild, AlwaysAvailable, 0, "remove-silence", nullptr, 0},
    {"Resample", 303, ResamplePage, AlwaysAvailable, 0, "resample", KV_CONTROLS(kResampleControls)},
    {"Reverse audio within selection", 312, ReversePage, RangeActive, kOpRange | kOpNoPage, "reverse", nullptr, 0},
    {"Search and replace text in names", 329, SearchReplacePage, AlwaysAvailable, 0, "search-replace",
     KV_CONTROLS(kSearchControls)},
    {"Set loop points to selection", 313, LoopToSelectionPage, RangeActive, kOpRange | kOpNoPage, "loop-to-selection",
     nullptr, 0},
    {"Set waveform names from file names", 338, NamesFromFilesPage, AlwaysAvailable, kOpNoPage, "names-from-files",
     nullptr, 0},
    {"Set waveform names from root keys", 328, OperationNotInBuild, AlwaysAvailable, 0, "names-from-root-keys",
     nullptr, 0},
    {"Smooth within the selection", 314, SmoothPage, RangeActive, kOpRange, "smooth", KV_CONTROLS(kSmoothControls)},
    {"Split waveform at silent sections", 318, OperationNotInBuild, AlwaysAvailable, 0, "split-at-silence", nullptr,
     0},
    {"Statistics", 315, StatisticsPage, AlwaysAvailable, 0, "statistics", nullptr, 0},
    {"Swap left and right channels", 301, SwapPage, AnyStereo, kOpNoPage, "swap", nullptr, 0},
    {"Time stretch", 324, OperationNotInBuild, AlwaysAvailable, 0, "time-stretch", nullptr, 0},
    {"Trim waveform after loop", 330, TrimAfterLoopPage, AnyLooped, 0, "trim-after-loop",
     KV_CONTROLS(kTrimAfterLoopControls), TrimAfterLoopRefusal},
    {"Trim waveform to selection", 308, TrimPage, RangeActive, kOpRange | kOpNoPage, "trim", nullptr, 0},
    {"VST plug-in effects", 327, OperationNotInBuild, AlwaysAvailable, kOpRange, "vst", nullptr, 0},
    {nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr, 0},
};

#undef KV_CONTROLS

static_assert(std::size(kAudioOperations) == 39, "38 rows and the end marker");

}  // namespace

const WizardOperation* AudioOperationTable() { return kAudioOperations; }

}  // namespace kv
