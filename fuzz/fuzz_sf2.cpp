// SoundFont readers (version 2 and 3, and version 1) on arbitrary bytes: the real path from an open file, then
// every wave's lazy read. The bytes go to a memory file so that the waves'
// source path can be opened again as EnsureData does.
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/app.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/sf2.h"
#include "fuzz/fuzz_support.h"

// libvorbisfile 1.3.7 keeps what it parsed of a chained stream whose later
// link fails to open (xiph/vorbis issue 125): the library's leak, which
// would stop every run that finds such a stream. Its blocks come from
// libvorbis, which the fast unwinder names alone.
extern "C" const char* __lsan_default_suppressions() { return "leak:libvorbisfile.so\nleak:libvorbis.so\n"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  const kv::fuzz::InputFile input(data, size, "fuzz.sf2");
  for (auto read : {kv::sf2_Imp, kv::sbk_Imp}) {
    kv::Collection c;
    kv::FileRef file;
    if (!input.Open(file)) break;
    const uint32_t parameter = size && (data[0] & 1) ? 3 : 0;
    if (read(c, file, parameter)) {
      for (kv::Waveform* w : c.All<kv::Waveform>()) w->EnsureData();
      c.FixUp();
    }
    kv::Sf2Summary summary;
    kv::sf2_Summary(file, summary);
  }
  return 0;
}
