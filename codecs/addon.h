// Codec add-ons: shared libraries opened by name on first use. A missing
// library is not an error of the program; the operation that needs it fails
// with a message naming what to install, and everything else goes on.
#pragma once

#include <filesystem>
#include <span>

namespace kv {

// Binds entry points into `slots` from the first library of `files` (sonames,
// newest first) that can be opened: one already in the process, then by the
// system's search order, then from the add-on folder. A name that begins
// with '\n' is optional and may stay empty. True when every required slot is
// filled; a bound table costs one pass over it. The caller fills the error
// texts on false. Main thread only.
bool bindAddOn(std::span<const char* const> files, std::span<void*> slots, std::span<const char* const> names);

// Test hook: each soname goes through `map` before it is opened (null: as
// named), so a test can point an add-on at libraries of its own.
void SetAddOnNameMap(const char* (*map)(const char* file));

// ${XDG_DATA_HOME:-~/.local/share}/kelvo-studio/addons
std::filesystem::path AddOnFolder();

}  // namespace kv
