// The "Resample" page: one wave by a new length or rate (the two fields
// coupled), several waves by a new rate each.
#pragma once

#include "processing/wizard.h"

namespace kv {

// Controls: "length", "rate", "algorithm", "only-down". Length 0 and rate 0
// are empty fields: the page fills them from the wave (one wave) or with
// 44100 (several) when it opens.
extern const PageControl kResampleControls[4];
extern const char* const kResampleHint;
bool ResamplePage(ProcessingWizard& w, WizardPhase phase, int control);

}  // namespace kv
