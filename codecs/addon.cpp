#include "codecs/addon.h"

#include <dlfcn.h>

#include <cstdlib>
#include <string>

namespace kv {

namespace {

bool Required(const char* name) { return name && name[0] != '\n'; }
const char* Bare(const char* name) { return name[0] == '\n' ? name + 1 : name; }

const char* (*nameMap)(const char*) = nullptr;

void* OpenLibrary(const char* file) {
  if (nameMap) file = nameMap(file);
  if (void* h = dlopen(file, RTLD_NOW | RTLD_NOLOAD)) return h;
  if (void* h = dlopen(file, RTLD_NOW | RTLD_LOCAL)) return h;
  const std::filesystem::path folder = AddOnFolder();
  if (folder.empty()) return nullptr;
  return dlopen((folder / file).c_str(), RTLD_NOW | RTLD_LOCAL);
}

}  // namespace

void SetAddOnNameMap(const char* (*map)(const char* file)) { nameMap = map; }

std::filesystem::path AddOnFolder() {
  if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data) {
    return std::filesystem::path(data) / "kelvo-studio" / "addons";
  }
  if (const char* home = std::getenv("HOME"); home && *home) {
    return std::filesystem::path(home) / ".local" / "share" / "kelvo-studio" / "addons";
  }
  return {};
}

bool bindAddOn(std::span<const char* const> files, std::span<void*> slots, std::span<const char* const> names) {
  if (slots.size() != names.size()) return false;
  bool complete = true;
  for (std::size_t i = 0; i < names.size(); ++i)
    if (Required(names[i]) && !slots[i]) complete = false;
  if (complete) return true;

  for (const char* file : files) {
    void* handle = OpenLibrary(file);
    if (!handle) continue;
    bool ok = true;
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (slots[i]) continue;
      slots[i] = dlsym(handle, Bare(names[i]));
      if (!slots[i] && Required(names[i])) ok = false;
    }
    // The handle stays open: the slots point into it for the process's life.
    if (ok) return true;
  }
  return false;
}

}  // namespace kv
