// Plain-text views of the collection for terminals and tests.
#pragma once

#include <cstdio>

#include "core/items.h"

namespace kv {

// One line per item, indented by depth: type, id in hex, quoted name, then
// key=value facts (location for instruments, ranges and wave for regions),
// the song and track texts of their panes; with `events`, every event of
// every track in the event list's columns, tab-separated.
void PrintItemTree(std::FILE* out, const Collection& c, bool events = false);

// What a collection holds in a few lines: its name and source, the count of
// each item type, and one line per instrument.
void PrintSummary(std::FILE* out, const Collection& c);

}  // namespace kv
