// Signal helpers shared by the voices, the mixer and the channel effects.
#pragma once

namespace kv {

// sin(2 pi turns) in single precision: the argument folded into the first
// quadrant, then the Taylor polynomial to the eleventh power. Cheap enough for
// per-block pan and LFO use without a library call.
float kvSinTurns(float turns);
inline float kvCosTurns(float turns) { return kvSinTurns(turns + 0.25f); }

// Constant-power pan: position -1 (left) .. 1 (right), clamped; 0.70710677 on
// both sides at the centre.
void kvPanGains(float position, float& left, float& right);

}  // namespace kv
