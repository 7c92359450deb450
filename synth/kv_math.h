// Signal helpers shared by the voices, the mixer and the channel effects.
#pragma once

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace kv {

// Flush-to-zero and denormals-are-zero while rendering: a decaying filter or
// reverb tail would otherwise crawl through denormals at many times the cost
// of a normal sample. The thread's mode comes back when the scope ends.
class kvFlushToZeroScope {
 public:
#if defined(__SSE__)
  kvFlushToZeroScope() : saved_(_mm_getcsr()) { _mm_setcsr(saved_ | 0x8040u); }
  ~kvFlushToZeroScope() { _mm_setcsr(saved_); }

 private:
  unsigned saved_;
#else
  kvFlushToZeroScope() = default;
#endif
 public:
  kvFlushToZeroScope(const kvFlushToZeroScope&) = delete;
  kvFlushToZeroScope& operator=(const kvFlushToZeroScope&) = delete;
};

// sin(2 pi turns) in single precision: the argument folded into the first
// quadrant, then the Taylor polynomial to the eleventh power. Cheap enough for
// per-block pan and LFO use without a library call.
float kvSinTurns(float turns);
inline float kvCosTurns(float turns) { return kvSinTurns(turns + 0.25f); }

// Constant-power pan: position -1 (left) .. 1 (right), clamped; 0.70710677 on
// both sides at the centre.
void kvPanGains(float position, float& left, float& right);

}  // namespace kv
