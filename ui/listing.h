// Plain-text views of the collection for terminals and tests.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

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

// The lines of "Item count...": instruments with their layers and regions,
// waveforms with their memory, songs with their tracks; "none" for zero.
// The window's dialog and `kelvo --count` show the same lines.
std::vector<std::string> ItemCountLines(const Collection& c);

}  // namespace kv
