// SFZ reader on arbitrary text: the bytes go to a file in a fresh folder
// (includes and samples resolve against it, so they point nowhere or at the
// file itself), then the real read path, the fix-up pass and a write back.
// A first line "//NAME" names the file, whose name can carry a location.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/app.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/import.h"
#include "formats/modules/sfz.h"
#include "formats/registry.h"

namespace fs = std::filesystem;

// The stem a leading "//NAME" line asks for, when it is a plain file name.
static std::string StemOf(const uint8_t* data, std::size_t size) {
  std::string stem;
  if (size < 3 || data[0] != '/' || data[1] != '/') return "fuzz";
  for (std::size_t i = 2; i < size && data[i] != '\n'; ++i) {
    const char c = static_cast<char>(data[i]);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == ' ' ||
                       c == '-' || c == '_' || c == '.';
    if (!plain || stem.size() >= 64) return "fuzz";
    stem += c;
  }
  return stem.empty() ? "fuzz" : stem;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::MessageBoxesEnabled = 0;
  kv::SetSkippedBoxesQuiet(true);
  // Sample files an input names are opened as the import route would.
  kv::SetSampleReaderLookup(&kv::RegistrySampleReader);
  static const fs::path folder = [] {
    std::string pattern = (fs::temp_directory_path() / "kelvo-fuzz-sfz-XXXXXX").string();
    const char* made = ::mkdtemp(pattern.data());
    return fs::path(made ? made : "/tmp");
  }();
  const fs::path path = folder / (StemOf(data, size) + ".sfz");
  {
    kv::FileRef out;
    if (!out.OpenWrite(path) || (size && !out.Write(data, size))) return 0;
  }
  {
    kv::Collection c;
    kv::FileRef file;
    if (file.OpenRead(path)) {
      c.sourcePath = path;
      if (kv::sfz_Imp(c, file, 0)) {
        kv::FixUpItems(c, 0xFF, false);
        for (kv::Instrument* inst : c.All<kv::Instrument>()) {
          kv::FileRef back;
          if (!back.OpenWrite(folder / "back.sfz")) break;
          kv::ExportRequest request{0, static_cast<uint32_t>(size % 4), 0.0f};
          kv::sfz_Exp(*inst, back, request);
        }
      }
    }
  }
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec))
    if (entry.path() != path) fs::remove_all(entry.path(), ec);
  return 0;
}
