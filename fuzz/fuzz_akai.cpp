// AKAI S1000/S3000 readers on arbitrary bytes: the first byte picks a sample,
// a program (with one good sample beside it to find), or a floppy image of
// either size, plain or ChkSys, whose directory and FAT are the fuzzer's
// bytes. Oracle: every wave that loads exports as a sample, every
// instrument with a wave exports as a program with its samples.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/app.h"
#include "core/error.h"
#include "core/fileref.h"
#include "core/items.h"
#include "formats/modules/akai.h"
#include "formats/modules/module.h"
#include "fuzz/fuzz_support.h"

namespace {

namespace fs = std::filesystem;

// A folder for the program and its sample, and one for what is written.
const fs::path& Folder(const char* name) {
  static const fs::path base = [] {
    char pattern[] = "/tmp/kelvo-fuzz-akai-XXXXXX";
    const char* made = mkdtemp(pattern);
    return fs::path(made ? made : "/tmp");
  }();
  static fs::path in = base / "in", out = base / "out";
  static bool once = [] {
    fs::create_directories(in);
    fs::create_directories(out);
    // One S1000 sample named "A", four frames.
    std::string s(150 + 8, '\0');
    s[0] = 3;
    s[2] = 60;
    s[3] = 11;
    for (int i = 4; i < 15; ++i) s[i] = 10;
    s[26] = 4;
    FILE* f = std::fopen((in / "A.S").c_str(), "wb");
    if (f) {
      std::fwrite(s.data(), 1, s.size(), f);
      std::fclose(f);
    }
    return true;
  }();
  (void)once;
  return std::strcmp(name, "in") == 0 ? in : out;
}

bool WriteAll(const fs::path& path, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

[[noreturn]] void Broken(const char* what) {
  std::fprintf(stderr, "%s: %s: %s\n", what, kv::ErrorContext, kv::ErrorMessage);
  __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  kv::fuzz::QuietBoxes();
  if (size < 1) return 0;
  const int kind = data[0] % 5;
  std::vector<uint8_t> bytes(data + 1, data + size);
  fs::path path;
  bool (*read)(kv::Collection&, kv::FileRef&, uint32_t) = nullptr;
  uint32_t parameter = 0;
  switch (kind) {
    case 0: path = Folder("in") / "x.s", read = kv::akais_Imp; break;
    case 1: path = Folder("in") / "x.p", read = kv::akaip_Imp; break;
    default: {
      // 800 or 1600 KiB, the ChkSys form with its head in front.
      const bool chksys = kind == 4;
      const std::size_t image = (kind == 2 ? 800 : 1600) * std::size_t{1024};
      const std::size_t head = chksys ? 24576 : 0;
      bytes.resize(head + image, 0);
      if (chksys) std::memmove(bytes.data() + head, data + 1, std::min(size - 1, image));
      path = Folder("in") / (chksys ? "x.dmg" : "x.akai");
      read = kv::akafd_Imp;
      parameter = chksys ? 1 : 0;
    }
  }
  if (!WriteAll(path, bytes)) return 0;
  kv::Collection c;
  kv::FileRef file;
  if (!file.OpenRead(path) || !read(c, file, parameter)) return 0;

  for (kv::Waveform* w : c.All<kv::Waveform>()) {
    w->FixUp();
    if (!w->EnsureData() || w->length == 0 || w->sampleRate > 0xFFFF) continue;
    kv::FileRef out;
    if (!kv::fuzz::OutputFile(out)) continue;
    kv::ExportRequest request{0, 3};
    if (!kv::akais_Exp(*w, out, request)) Broken("sample export failed");
  }
  for (kv::Instrument* inst : c.All<kv::Instrument>()) {
    bool hasWave = false;
    for (kv::Region* r : c.All<kv::Region>()) hasWave = hasWave || kv::RegionWaveform(*r) != nullptr;
    kv::FileRef out;
    if (!out.OpenWrite(Folder("out") / "y.p")) continue;
    kv::ExportRequest request{0, 1};
    kv::ClearError();
    if (kv::akaip_Exp(*inst, out, request)) continue;
    const std::string message = kv::ErrorMessage;
    if (hasWave && message != "Too many keygroups for an AKAI program" &&
        message.rfind("Too many keygroups", 0) != 0 && message != "The instrument has no region with a wave to save")
      Broken("program export failed");
  }
  return 0;
}
