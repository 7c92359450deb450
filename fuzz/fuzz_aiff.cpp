// AIFF/AIFC/MAUD reader on arbitrary bytes, through the real path: an open
// file, the IFF walk, then every wave's lazy read. Oracle: a wave that imports
// and reads must export as AIFF and as WAV.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/aiff.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::MessageBoxesEnabled = 0;
  kv::SetSkippedBoxesQuiet(true);
  const int fd = memfd_create("fuzz.aif", 0);
  if (fd < 0) return 0;
  if (size && write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  {
    kv::Collection c;
    kv::FileRef file;
    if (file.OpenRead(path) && kv::aiff_Imp(c, file, 0)) {
      for (kv::Waveform* w : c.All<kv::Waveform>()) {
        w->FixUp();
        if (!w->EnsureData() || w->length == 0) continue;
        const int out = memfd_create("fuzz-out", 0);
        if (out < 0) continue;
        kv::FileRef outFile(out, "/proc/self/fd/" + std::to_string(out), true);
        kv::ExportRequest request;
        if (!kv::aiff_Exp(*w, outFile, request) || !kv::WriteWaveFile(*w, outFile, 0)) {
          std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
          __builtin_trap();
        }
      }
    }
  }
  close(fd);
  return 0;
}
