// RIFF WAVE and Wave-64 readers on arbitrary bytes, through the real path: an
// open file, the chunk walk, then every wave's lazy read. Oracle: a wave that
// imports and reads must also export, in every writer variant.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/wav.h"
#include "formats/registry.h"
#include "fuzz/fuzz_support.h"

namespace {

bool ExportToMemory(kv::Waveform& wave, uint32_t variant, bool w64) {
  kv::FileRef out;
  if (!kv::fuzz::OutputFile(out)) return true;
  kv::ExportRequest request{0, variant, 0};
  return w64 ? kv::w64_Exp(wave, out, request) : kv::WriteWaveFile(wave, out, 0, variant);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.wav");
  static constexpr uint32_t kVariants[] = {kv::kWavNormal, kv::kWavExtensible, kv::kWavCwdt, kv::kWavBare};
  for (int reader = 0; reader < 2; ++reader) {
    kv::Collection c;
    kv::FileRef file;
    if (!input.Open(file)) break;
    const bool ok = reader == 0 ? kv::wav_Imp(c, file, 0) : kv::w64_Imp(c, file, 0);
    if (!ok) continue;
    for (kv::Waveform* w : c.All<kv::Waveform>()) {
      w->FixUp();
      if (!w->EnsureData() || w->length == 0) continue;
      const uint32_t variant = kVariants[size % 4];
      if (!ExportToMemory(*w, variant, false) || !ExportToMemory(*w, 0, true)) {
        std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
        __builtin_trap();
      }
    }
  }
  return 0;
}
