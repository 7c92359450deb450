// RIFF WAVE, RF64 and Wave-64 readers on arbitrary bytes, through the real
// path: an open file, the chunk walk, then every wave's lazy read. Oracle: a
// wave that imports and reads must also export, in every writer variant, as
// RIFF or RF64, and what the WAV writer made must read back with the same
// frames and channels.
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

const uint64_t kRf64Threshold = kv::WavRf64Threshold;

bool ExportToMemory(kv::Waveform& wave, uint32_t variant, bool w64, bool rf64 = false) {
  kv::FileRef out;
  if (!kv::fuzz::OutputFile(out)) return true;
  kv::ExportRequest request{0, variant, 0};
  if (w64) return kv::w64_Exp(wave, out, request);
  kv::WavRf64Threshold = rf64 ? 0 : kRf64Threshold;
  const bool ok = kv::WriteWaveFile(wave, out, 0, variant);
  kv::WavRf64Threshold = kRf64Threshold;
  if (!ok) return false;
  kv::Collection back;
  kv::FileRef in;
  if (!in.OpenRead(out.Path())) return true;
  if (!kv::wav_Imp(back, in, 0)) return false;
  const auto waves = back.All<kv::Waveform>();
  // A fact of 1 isn't trusted, so a one-frame coded wave reads back with the
  // frames its codes fill (a byte of 4-bit codes holds two).
  const bool lengthOk = !waves.empty() && (waves[0]->length == wave.length || (wave.length == 1 && waves[0]->length <= 8));
  if (waves.size() != 1 || !lengthOk || waves[0]->channels != wave.channels) {
    std::fprintf(stderr, "written %u frames of %d channels, read back %u of %d\n", wave.length, wave.channels,
                 waves.empty() ? 0 : waves[0]->length, waves.empty() ? 0 : waves[0]->channels);
    __builtin_trap();
  }
  return true;
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
      const bool rf64 = (size >> 2) & 1;
      if (!ExportToMemory(*w, variant, false, rf64) || !ExportToMemory(*w, 0, true)) {
        std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
        __builtin_trap();
      }
    }
  }
  return 0;
}
