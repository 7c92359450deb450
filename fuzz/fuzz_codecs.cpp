// The FLAC, Ogg Vorbis, Opus and WavPack readers on arbitrary bytes, through
// the real path: the head, then the lazy decode through the add-on. Counts
// in a head that lie (STREAMINFO, the last granule, WavPack's total) must
// not make the reader allocate for them. Oracle: a wave that decodes
// exports as WAV, and that WAV reads back with its length and channels.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/flac.h"
#include "formats/modules/ogg.h"
#include "formats/modules/wav.h"
#include "formats/modules/wv.h"
#include "fuzz/fuzz_support.h"

namespace {

using ReadFn = bool (*)(kv::Collection&, kv::FileRef&, uint32_t);

void Run(const kv::fuzz::InputFile& input, ReadFn read) {
  kv::Collection c;
  kv::FileRef file;
  if (!input.Open(file) || !read(c, file, 0)) return;
  for (kv::Waveform* w : c.All<kv::Waveform>()) {
    w->FixUp();
    if (!w->EnsureData() || w->length == 0) continue;
    kv::FileRef out;
    if (!kv::fuzz::OutputFile(out)) continue;
    if (!kv::WriteWaveFile(*w, out, 0)) {
      std::fprintf(stderr, "export failed: %s: %s\n", kv::ErrorContext, kv::ErrorMessage);
      __builtin_trap();
    }
    kv::Collection back;
    kv::FileRef again;
    if (!again.OpenRead(out.Path()) || !kv::wav_Imp(back, again, 0)) __builtin_trap();
    const auto waves = back.All<kv::Waveform>();
    if (waves.size() != 1 || waves[0]->length != w->length || waves[0]->channels != w->channels) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.codec");
  Run(input, kv::flac_Imp);
  Run(input, kv::ogg_Imp);
  Run(input, kv::opus_Imp);
  Run(input, kv::wv_Imp);
  return 0;
}
