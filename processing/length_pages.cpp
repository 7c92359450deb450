#include "processing/length_pages.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "core/app.h"
#include "core/error.h"
#include "core/resample.h"
#include "processing/channels.h"
#include "processing/length.h"

namespace kv {

namespace {

// Init loads the controls; Run stores them and applies the operation.
template <typename Apply>
bool OnRun(ProcessingWizard& w, WizardPhase phase, Apply&& apply) {
  if (phase == WizardPhase::Init) w.LoadPage();
  if (phase != WizardPhase::Run) return true;
  w.StorePage();
  return apply();
}

const char* const kPositionLabels[] = {
    "At the end of the selection",
    "At the end of the waveform",
    "At the start of the selection",
    "At the start of the waveform",
};
const char* const kPositionKeys[] = {"sel-end", "end", "sel-start", "start"};

// The frame of a position choice; the selection's two fall back to the
// wave's end and start while no range is set.
int64_t InsertPosition(const ProcessingWizard& w, const Waveform& wave, int choice) {
  switch (choice) {
    case 0: return w.useRange ? w.rangeEnd : wave.length;
    case 1: return wave.length;
    case 2: return w.useRange ? w.rangeStart : 0;
    default: return 0;
  }
}

int Choice(const ProcessingWizard& w, int control) { return static_cast<int>(w.Control(control).number); }

Waveform* FirstWave(const ProcessingWizard& w) {
  for (Item* item : w.items)
    if (item->Type() == ItemType::Waveform) return static_cast<Waveform*>(item);
  return nullptr;
}

// The stereo page's preset: the mono wave after the first item in the
// collection's list.
Waveform* NextMonoWave(const ProcessingWizard& w) {
  const Waveform* first = FirstWave(w);
  bool past = false;
  for (Waveform* wave : w.owner->All<Waveform>()) {
    if (wave == first) past = true;
    else if (past && wave->channels == 1) return wave;
  }
  return nullptr;
}

// A number of the mix page: a comma serves as the point.
bool ParseMixNumber(std::string text, double& out) {
  for (char& ch : text)
    if (ch == ',') ch = '.';
  errno = 0;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  if (text.empty() || errno != 0 || !end || *end != 0 || !std::isfinite(out))
    return Fail("kvMix", "\"%s\" is not a number", text.c_str());
  return true;
}

constexpr double kMaxFrames = 4294967295.0;

}  // namespace

bool PickedWave(Collection& c, const std::string& text, Waveform* preset, const char* context, Waveform*& out) {
  out = nullptr;
  if (text == "<none>" || text == "none") return true;
  if (text.empty()) return (out = preset, true);
  if (text.size() > 2 && (text.starts_with("0x") || text.starts_with("0X"))) {
    char* end = nullptr;
    const unsigned long id = std::strtoul(text.c_str() + 2, &end, 16);
    if (end && *end == 0 && (out = c.FindWave(static_cast<ItemId>(id)))) return true;
  }
  for (Waveform* wave : c.All<Waveform>())
    if (wave->Name() == text) return (out = wave, true);
  return Fail(context, "There is no waveform \"%s\"", text.c_str());
}

bool CutPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    w.ForEachWave([&](Waveform& wave) { return cutFrames(wave, w.RangeFirst(), w.RangeEnd()); });
    return true;
  });
}

bool TrimPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    w.ForEachWave([&](Waveform& wave) { return trimToSelection(wave, w.RangeFirst(), w.RangeEnd()); });
    return true;
  });
}

const PageControl kInsertSilenceControls[2] = {
    {"count", "Frames of silence:", ControlType::Integer, 0, kMaxFrames, nullptr, 0, 10000.0, nullptr},
    {"at", "Insert:", ControlType::Choice, 0, 0, kPositionLabels, 4, 1.0, nullptr, kPositionKeys},
};

bool InsertSilencePage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    const auto count = static_cast<uint32_t>(w.Control(0).number);
    const int at = Choice(w, 1);
    w.ForEachWave([&](Waveform& wave) {
      return insertFrames(wave, InsertPosition(w, wave, at), nullptr, 0, count, "Insert silence");
    });
    return true;
  });
}

const PageControl kInsertWaveControls[3] = {
    {"source", "Waveform to insert (name or 0xID):", ControlType::Text, 0, 128, nullptr, 0, 0, "<none>"},
    {"count", "Frames (0: the whole waveform):", ControlType::Integer, 0, kMaxFrames, nullptr, 0, 0.0, nullptr},
    {"at", "Insert:", ControlType::Choice, 0, 0, kPositionLabels, 4, 1.0, nullptr, kPositionKeys},
};

bool InsertWavePage(ProcessingWizard& w, WizardPhase phase, int) {
  static constexpr const char* kContext = "Insert another waveform";
  return OnRun(w, phase, [&] {
    Waveform* source = nullptr;
    if (!PickedWave(*w.owner, w.Control(0).text, nullptr, kContext, source)) return false;
    if (!source) return Fail(kContext, "No 2nd waveform selected");
    const auto count = static_cast<uint32_t>(w.Control(1).number);
    const int at = Choice(w, 2);
    w.ForEachWave([&](Waveform& wave) {
      // The whole source, as long as it comes out at the wave's rate.
      const uint32_t whole = ResampledLength(source->length, source->sampleRate, wave.sampleRate);
      return insertFrames(wave, InsertPosition(w, wave, at), source, 0, count ? count : whole, kContext);
    });
    return true;
  });
}

const PageControl kAppendControls[4] = {
    {"wave1", "1st waveform:", ControlType::Text, 0, 128, nullptr, 0, 0, "<none>"},
    {"wave2", "2nd waveform (empty: the selected one):", ControlType::Text, 0, 128, nullptr, 0, 0, ""},
    {"wave3", "3rd waveform:", ControlType::Text, 0, 128, nullptr, 0, 0, "<none>"},
    {"wave4", "4th waveform:", ControlType::Text, 0, 128, nullptr, 0, 0, "<none>"},
};

bool AppendPage(ProcessingWizard& w, WizardPhase phase, int) {
  static constexpr const char* kContext = "Append/combine waveforms";
  return OnRun(w, phase, [&] {
    Waveform* first = FirstWave(w);
    Waveform* picks[4] = {};
    for (int i = 0; i < 4; ++i)
      if (!PickedWave(*w.owner, w.Control(i).text, first, kContext, picks[i])) return false;
    if (!picks[0] && !picks[1] && !picks[2] && !picks[3])
      return Fail(kContext, "You must select at least one waveform...");
    // One target: the row is offered for a single wave.
    bool done = false;
    w.ForEachWave([&](Waveform& wave) {
      if (done) return EditResult::Unchanged;
      done = true;
      return appendWaves(wave, picks);
    });
    return true;
  });
}

const PageControl kToMonoControls[2] = {
    {"mode", "Conversion:", ControlType::Choice, 0, 0, kToMonoModeLabels, kToMonoModeCount, 0.0, nullptr},
    {"phase-fix", "Auto-detect and fix phase inversion", ControlType::Flag, 0, 1, nullptr, 0, 0.0, nullptr},
};

bool ToMonoPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    const int mode = Choice(w, 0);
    const bool phaseFix = mode == 0 && w.Control(1).number != 0;
    uint32_t changed = 0;
    w.ForEachWave([&](Waveform& wave) {
      const EditResult r = convertToMono(wave, mode, phaseFix);
      changed += r == EditResult::Changed;
      return r;
    });
    // A split adds waves: the trees must show them.
    if (mode == 3 && changed && !w.silent) App().refresh = true;
    return true;
  });
}

const PageControl kToStereoControls[2] = {
    {"mode", "Conversion:", ControlType::Choice, 0, 0, kToStereoModeLabels, kToStereoModeCount, 0.0, nullptr},
    {"second", "2nd mono waveform (empty: the next one):", ControlType::Text, 0, 128, nullptr, 0, 0, ""},
};

bool ToStereoPage(ProcessingWizard& w, WizardPhase phase, int) {
  static constexpr const char* kContext = "->Stereo";
  return OnRun(w, phase, [&] {
    const int mode = Choice(w, 0);
    Waveform* second = nullptr;
    if (mode >= 3) {
      // A second wave pairs with one wave only.
      if (w.items.size() != 1) return Fail(kContext, "Invalid algorithm");
      if (!PickedWave(*w.owner, w.Control(1).text, NextMonoWave(w), kContext, second)) return false;
    }
    w.ForEachWave([&](Waveform& wave) { return convertToStereo(wave, mode, second); });
    return true;
  });
}

const PageControl kMixControls[5] = {
    {"a", "a:", ControlType::Text, 0, 32, nullptr, 0, 0, "1"},
    {"b", "b:", ControlType::Text, 0, 32, nullptr, 0, 0, "0"},
    {"c", "c:", ControlType::Text, 0, 32, nullptr, 0, 0, "0"},
    {"wave1", "wave1 (empty: the selected one):", ControlType::Text, 0, 128, nullptr, 0, 0, ""},
    {"wave2", "wave2 (empty: the selected one):", ControlType::Text, 0, 128, nullptr, 0, 0, ""},
};

bool MixPage(ProcessingWizard& w, WizardPhase phase, int) {
  return OnRun(w, phase, [&] {
    double a, b, c;
    if (!ParseMixNumber(w.Control(0).text, a) || !ParseMixNumber(w.Control(1).text, b) ||
        !ParseMixNumber(w.Control(2).text, c))
      return false;
    Waveform* first = FirstWave(w);
    Waveform *w1 = nullptr, *w2 = nullptr;
    if (!PickedWave(*w.owner, w.Control(3).text, first, "kvMix", w1) ||
        !PickedWave(*w.owner, w.Control(4).text, first, "kvMix", w2))
      return false;
    bool done = false;
    w.ForEachWave([&](Waveform& wave) {
      if (done) return EditResult::Unchanged;
      done = true;
      return kvMix(wave, w1, w2, a, b, c);
    });
    return true;
  });
}

}  // namespace kv
