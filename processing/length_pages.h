// The pages of the rows that change a wave's length or channels, for the
// audio table: cut, trim, the two inserts, append, mono, stereo and mix.
#pragma once

#include "processing/wizard.h"

namespace kv {

// The wave a picker names: "<none>" or "none" for none, "" for the page's
// preset `preset`, "0x" and hex digits for an item id, else the first
// waveform of that name. False (context `context`) for a name that matches
// no waveform.
bool PickedWave(Collection& c, const std::string& text, Waveform* preset, const char* context, Waveform*& out);

bool CutPage(ProcessingWizard& w, WizardPhase phase, int control);
bool TrimPage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kInsertSilenceControls[2];
bool InsertSilencePage(ProcessingWizard& w, WizardPhase phase, int control);
extern const PageControl kInsertWaveControls[3];
bool InsertWavePage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kAppendControls[4];
bool AppendPage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kToMonoControls[2];
bool ToMonoPage(ProcessingWizard& w, WizardPhase phase, int control);
extern const PageControl kToStereoControls[2];
bool ToStereoPage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kMixControls[5];
bool MixPage(ProcessingWizard& w, WizardPhase phase, int control);

}  // namespace kv
