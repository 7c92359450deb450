#include "processing/loops.h"

#include <algorithm>
#include <cmath>

namespace kv {

EditResult setLoopToSelection(Waveform& wave, int64_t first, int64_t end) {
  const int64_t length = wave.length;
  if (first < 0 || first >= length) return EditResult::Unchanged;
  const int64_t last = std::min(end, length);
  if (last <= first) return EditResult::Unchanged;
  const auto start = static_cast<float>(first);
  const auto stop = static_cast<float>(last);
  if (wave.loopType == 1 && wave.loopStart == start && wave.loopEnd == stop) return EditResult::Unchanged;
  const auto oldStart = static_cast<int64_t>(std::max(wave.loopStart, 0.0f) + 0.5f);
  const auto oldEnd = static_cast<int64_t>(std::min(wave.loopEnd, static_cast<float>(length)) + 0.5f);
  wave.loopType = 1;
  wave.loopStart = start;
  wave.loopEnd = stop;
  if (wave.collection) FollowLoopChange(*wave.collection, wave, oldStart, oldEnd, first, last);
  return EditResult::Changed;
}

}  // namespace kv
