// Name edits of the processing wizard: search and replace, and
// names taken from the source files.
#pragma once

#include <string_view>

#include "core/items.h"

namespace kv {

// The two fields of "Search and replace text in names" hold up to this many
// characters; longer input is cut.
inline constexpr int kSearchFieldLength = 80;

// Within the first 128 characters of the name, every exact, case-sensitive
// occurrence of `search` becomes `replacement`; the scan goes on behind the
// inserted text. Then trailing blanks are cut, and a name left empty becomes
// "unnamed". True when something was replaced; an empty `search` replaces
// nothing.
bool replaceInName(Item& item, std::string_view search, std::string_view replacement);

// The name becomes the base name (without folder and extension) of the file
// the wave came from, at most 129 characters. A wave without a file keeps its
// name.
void nameFromSourceFile(Waveform& wave);

}  // namespace kv
