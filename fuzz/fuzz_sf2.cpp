// SoundFont reader on arbitrary bytes: the real path from an open file, then
// every wave's lazy read. The bytes go to a memory file so that the waves'
// source path can be opened again as EnsureData does.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/app.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/sf2.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::MessageBoxesEnabled = 0;
  kv::SetSkippedBoxesQuiet(true);
  const int fd = memfd_create("fuzz.sf2", 0);
  if (fd < 0) return 0;
  if (size && write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  {
    kv::Collection c;
    kv::FileRef file;
    if (file.OpenRead(path)) {
      const uint32_t parameter = size && (data[0] & 1) ? 3 : 0;
      if (kv::sf2_Imp(c, file, parameter)) {
        for (kv::Waveform* w : c.All<kv::Waveform>()) w->EnsureData();
        c.FixUp();
      }
      kv::Sf2Summary summary;
      kv::sf2_Summary(file, summary);
    }
  }
  close(fd);
  return 0;
}
