// AIFF/AIFC/MAUD reader on arbitrary bytes, through the real path: an open
// file, the IFF walk, then every wave's lazy read. Oracle: a wave that imports
// and reads must export as AIFF and as WAV.
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
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.aif");
  kv::Collection c;
  kv::FileRef file;
  if (!input.Open(file) || !kv::aiff_Imp(c, file, 0)) return 0;
  for (kv::Waveform* w : c.All<kv::Waveform>()) {
    w->FixUp();
    if (!w->EnsureData() || w->length == 0) continue;
    kv::FileRef outFile;
    if (!kv::fuzz::OutputFile(outFile)) continue;
    kv::ExportRequest request;
    if (!kv::aiff_Exp(*w, outFile, request) || !kv::WriteWaveFile(*w, outFile, 0)) {
      std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
      __builtin_trap();
    }
  }
  return 0;
}
