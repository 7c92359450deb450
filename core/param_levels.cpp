// Moving articulation between the instrument, layer and region levels, over
// plain records so that the item classes and the instrument operations can
// share it.
#include <bit>
#include <cstdint>
#include <vector>

#include "core/articulation.h"

namespace kv {

void MoveArticulationDown(Articulation& parent, std::span<Articulation* const> children) {
  for (Articulation* c : children)
    for (int i = 0; i < kArticulationCount; ++i)
      if (parent.IsSet(i) && !c->IsSet(i)) c->Set(i, parent.value[i]);
  parent.Reset();
}

void MoveArticulationUp(Articulation& parent, std::span<Articulation* const> children) {
  if (children.empty()) return;
  // Each child's effective record: what it does not set comes from the parent.
  std::vector<Articulation> effective(children.size());
  std::vector<const Articulation*> list(children.size());
  for (std::size_t j = 0; j < children.size(); ++j) {
    effective[j] = *children[j];
    effective[j].Inherit(parent);
    list[j] = &effective[j];
  }
  AverageArticulations(list, parent);
  for (Articulation* c : children) c->Reset();
}

bool MoveUpIfAllEqual(Articulation& parent, std::span<Articulation* const> children, bool perParameter) {
  if (children.empty()) return false;
  // A row moves when some child sets it and every child's effective value
  // (its own, else the parent's) is the same.
  auto effective = [&parent](const Articulation& c, int i) { return c.IsSet(i) ? c.value[i] : parent.value[i]; };
  bool movable[kArticulationCount] = {};
  bool any = false, all = true;
  for (int i = 0; i < kArticulationCount; ++i) {
    bool present = false, equal = true;
    const float first = effective(*children[0], i);
    for (const Articulation* c : children) {
      present |= c->IsSet(i);
      equal &= std::bit_cast<uint32_t>(effective(*c, i)) == std::bit_cast<uint32_t>(first);
    }
    if (!present) continue;
    movable[i] = equal;
    any |= equal;
    all &= equal;
  }
  if (!any || (!perParameter && !all)) return false;
  for (int i = 0; i < kArticulationCount; ++i) {
    if (!movable[i]) continue;
    parent.Set(i, effective(*children[0], i));
    for (Articulation* c : children) {
      c->value[i] = parent.value[i];
      c->MarkUnset(i);
    }
  }
  return true;
}

void PropagateDelta(int i, float delta, std::span<Articulation* const> children) {
  for (Articulation* c : children)
    if (c->IsSet(i)) c->Set(i, c->value[i] + delta);
}

}  // namespace kv
