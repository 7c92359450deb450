// Plain-text views of the collection for terminals and tests.
#pragma once

#include <cstdio>

#include "core/items.h"

namespace kv {

// One line per item, indented by depth: type, id in hex, quoted name, then
// key=value facts (location for instruments, ranges and wave for regions).
void PrintItemTree(std::FILE* out, const Collection& c);

}  // namespace kv
