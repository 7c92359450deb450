// RIFF WAVE and Wave-64 readers on arbitrary bytes, through the real path: an
// open file, the chunk walk, then every wave's lazy read. Oracle: a wave that
// imports and reads must also export, in every writer variant.
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
#include "formats/modules/wav.h"
#include "formats/registry.h"

namespace {

bool ExportToMemory(kv::Waveform& wave, uint32_t variant, bool w64) {
  const int fd = memfd_create("fuzz-out", 0);
  if (fd < 0) return true;
  kv::FileRef out(fd, "/proc/self/fd/" + std::to_string(fd), true);
  kv::ExportRequest request{0, variant, 0};
  return w64 ? kv::w64_Exp(wave, out, request) : kv::WriteWaveFile(wave, out, 0, variant);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::MessageBoxesEnabled = 0;
  kv::SetSkippedBoxesQuiet(true);
  const int fd = memfd_create("fuzz.wav", 0);
  if (fd < 0) return 0;
  if (size && write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  static constexpr uint32_t kVariants[] = {kv::kWavNormal, kv::kWavExtensible, kv::kWavCwdt, kv::kWavBare};
  for (int reader = 0; reader < 2; ++reader) {
    kv::Collection c;
    kv::FileRef file;
    if (!file.OpenRead(path)) break;
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
  close(fd);
  return 0;
}
