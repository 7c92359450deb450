// DLS reader on arbitrary bytes, through the real path: an open file, the
// walk as a DLS bank, as an MLS collection and as a bank inside another file
// (RIFF-MIDI), then every wave's lazy read. Oracle: what imports exports as
// level 2 and imports again, with as many instruments.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/items.h"
#include "formats/modules/dls.h"
#include "formats/modules/module.h"
#include "fuzz/fuzz_support.h"

namespace {

// The first "RIFF" past the file's start: where an embedded bank would be.
uint64_t InnerRiff(const uint8_t* data, std::size_t size) {
  for (std::size_t i = 1; i + 4 <= size; ++i)
    if (std::memcmp(data + i, "RIFF", 4) == 0) return i;
  return 0;
}

void ExportAndReadBack(kv::Collection& c) {
  kv::FixUpItems(c, 0xFF, false);
  // Waves whose samples can't be read have nothing to write.
  for (kv::Waveform* w : c.All<kv::Waveform>())
    if (!w->EnsureData()) kv::DeleteItem(w);
  kv::FixUpItems(c, 0xFF, false);
  const std::size_t instruments = c.Count(kv::ItemType::Instrument);
  kv::FileRef out;
  if (!kv::fuzz::OutputFile(out)) return;
  kv::ExportRequest request{0, 2, 0.0f};
  if (!kv::dls_Exp(c, out, request)) {
    std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
    __builtin_trap();
  }
  kv::FileRef back;
  kv::Collection again;
  if (!back.OpenRead(out.Path()) || !kv::dls_Imp(again, back, 0) ||
      again.Count(kv::ItemType::Instrument) != instruments) {
    std::fprintf(stderr, "read back failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.dls");
  for (int way = 0; way < 3; ++way) {
    kv::Collection c;
    kv::FileRef file;
    if (!input.Open(file)) break;
    bool ok = false;
    if (way == 0) ok = kv::dls_Imp(c, file, 0);
    if (way == 1) ok = kv::mls_Imp(c, file, 0);
    if (way == 2) {
      const uint64_t at = InnerRiff(data, size);
      if (at == 0) continue;
      ok = kv::dls_Read(c, file, at, size);
    }
    if (ok && way != 1) ExportAndReadBack(c);
  }
  return 0;
}
