// The pages of the loop rows for the audio table: the auto loop finder, the
// cross-fade, the sanitizer, the zero-crossing move, enable/disable and the
// trim after the loop.
#pragma once

#include "processing/wizard.h"

namespace kv {

extern const PageControl kAutoLoopControls[6];
bool AutoLoopPage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kCrossfadeControls[3];
bool CrossfadePage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kSanitizerControls[5];
bool SanitizerPage(ProcessingWizard& w, WizardPhase phase, int control);

bool ZeroCrossingPage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kLoopsControls[1];
bool LoopsPage(ProcessingWizard& w, WizardPhase phase, int control);

extern const PageControl kTrimAfterLoopControls[5];
const char* TrimAfterLoopRefusal(const SettingValue* values);
bool TrimAfterLoopPage(ProcessingWizard& w, WizardPhase phase, int control);

}  // namespace kv
