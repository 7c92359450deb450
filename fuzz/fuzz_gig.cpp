// GigaStudio reader, .wa! reader and the block decoder on arbitrary bytes.
// The first byte picks the path; for the raw decoder it also picks the
// width and channel count. Oracle: a gig that imports exports as v3 with
// block-coded waves and imports again with the same samples.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "codecs/gigpack.h"
#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/fixup.h"
#include "core/items.h"
#include "core/wavestore.h"
#include "formats/modules/dls.h"
#include "formats/modules/module.h"
#include "fuzz/fuzz_support.h"

namespace {

[[noreturn]] void Trap(const char* what) {
  std::fprintf(stderr, "%s: %s: %s\n", what, kv::ErrorContext, kv::ErrorMessage);
  __builtin_trap();
}

void ExportAndReadBack(kv::Collection& c) {
  kv::FixUpItems(c, 0xFF, false);
  for (kv::Waveform* w : c.All<kv::Waveform>())
    if (!w->EnsureData()) kv::DeleteItem(w);
  kv::FixUpItems(c, 0xFF, false);
  kv::FileRef out;
  if (!kv::fuzz::OutputFile(out)) return;
  kv::ExportRequest request{0, 3, 0.0f};
  if (!kv::gig_Exp(c, out, request)) Trap("export failed");
  kv::FileRef back;
  kv::Collection again;
  if (!back.OpenRead(out.Path()) || !kv::gig_Imp(again, back, 0)) Trap("read back failed");
  // The pool's order is the writer's: compare the waves as sorted sets of
  // (length, contents).
  auto keys = [](kv::Collection& col) {
    std::vector<std::pair<uint64_t, std::string>> k;
    for (kv::Waveform* w : col.All<kv::Waveform>()) {
      std::string bytes;
      if (w->SampleCount() && w->bits <= 16) {
        const int16_t* s = kv::Samples16(*w);
        if (!s) Trap("samples");
        bytes.assign(reinterpret_cast<const char*>(s), w->SampleCount() * 2);
      }
      k.emplace_back(w->SampleCount(), std::move(bytes));
    }
    std::sort(k.begin(), k.end());
    return k;
  };
  if (keys(c) != keys(again)) Trap("samples differ");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  if (size < 1) return 0;
  const uint8_t way = data[0] % 3;
  if (way == 2) {
    // The raw decoder: width and channels from the second byte.
    if (size < 2) return 0;
    const bool bits24 = data[1] & 1;
    const int channels = (data[1] & 2) ? 2 : 1;
    const std::span<const uint8_t> coded(data + 2, size - 2);
    const uint64_t frames = kv::kvGigPackFrames(coded, channels, bits24);
    if (frames > coded.size() * 2 + 2048) __builtin_trap();  // a frame costs at least half a byte
    const std::size_t n = static_cast<std::size_t>(frames + 3) * channels;
    if (bits24) {
      std::vector<int32_t> out(n);
      kv::kvGigPackDecode24(coded, channels, out);
      for (int32_t v : out)
        if (v < -(1 << 23) || v >= (1 << 23)) __builtin_trap();
    } else {
      std::vector<int16_t> out(n);
      kv::kvGigPackDecode16(coded, channels, out);
    }
    return 0;
  }
  const kv::fuzz::InputFile input(data + 1, size - 1, way == 0 ? "fuzz.gig" : "fuzz.wa!");
  kv::Collection c;
  kv::FileRef file;
  if (!input.Open(file)) return 0;
  if (way == 0) {
    if (kv::gig_Imp(c, file, 0)) ExportAndReadBack(c);
  } else if (kv::wa_Imp(c, file, 0)) {
    for (kv::Waveform* w : c.All<kv::Waveform>()) w->EnsureData();
  }
  return 0;
}
