// The articulation record: 189 values in the model's units with a presence
// set. A clear bit means inherited or default.
#pragma once

#include <cstdint>

namespace kv {

inline constexpr int kArticulationCount = 189;

struct Articulation {
  float value[kArticulationCount];
  uint64_t set[3];

  Articulation() { Reset(); }
  // Catalogue defaults, all presence bits clear.
  void Reset();

  bool IsSet(int i) const { return (set[i >> 6] >> (i & 63)) & 1u; }
  void MarkSet(int i) { set[i >> 6] |= uint64_t{1} << (i & 63); }
  void MarkUnset(int i) { set[i >> 6] &= ~(uint64_t{1} << (i & 63)); }
  bool AnySet() const { return (set[0] | set[1] | set[2]) != 0; }
};

}  // namespace kv
