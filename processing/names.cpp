#include "processing/names.h"

#include <string>

#include "core/text.h"

namespace kv {

bool replaceInName(Item& item, std::string_view search, std::string_view replacement) {
  if (search.empty()) return false;
  std::string name(Utf8Prefix(item.Name(), kNameLength));
  bool replaced = false;
  for (std::size_t at = name.find(search); at != std::string::npos; at = name.find(search, at)) {
    name.replace(at, search.size(), replacement);
    at += replacement.size();
    replaced = true;
  }
  if (!replaced) return false;
  while (!name.empty() && static_cast<unsigned char>(name.back()) <= ' ') name.pop_back();
  if (name.empty()) name = "unnamed";
  CopyText(item.name, name);
  return true;
}

void nameFromSourceFile(Waveform& wave) {
  const std::string base = wave.GetSourcePath().stem().string();
  if (base.empty()) return;
  // The old field held 129 characters; ours holds kNameLength bytes.
  wave.SetName(Utf8Prefix(base, 129));
}

}  // namespace kv
