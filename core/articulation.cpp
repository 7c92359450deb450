#include "core/articulation.h"

namespace kv {

// Placeholder until the catalogue lands: zero values, no bits.
void Articulation::Reset() {
  for (float& v : value) v = 0.0f;
  set[0] = set[1] = set[2] = 0;
}

}  // namespace kv
