// The sample voice kind: the default row of the kind table for Wave zones.
#pragma once

#include "synth/voice.h"

namespace kv {

VoiceKind WaveVoiceKind();

}  // namespace kv
