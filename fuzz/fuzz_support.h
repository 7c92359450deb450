// Shared pieces of the fuzz targets: the input as a memory file that readers
// open by path (as a wave's lazy read does), a memory file to export into,
// and boxes turned off.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/app.h"
#include "core/fileref.h"

namespace kv::fuzz {

inline void QuietBoxes() {
  MessageBoxesEnabled = 0;
  SetSkippedBoxesQuiet(true);
}

inline std::string FdPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

// The fuzzer's bytes in a file of their own, closed at the end of the scope.
class InputFile {
 public:
  InputFile(const uint8_t* data, std::size_t size, const char* name) : fd_(memfd_create(name, 0)) {
    if (fd_ >= 0 && size && write(fd_, data, size) != static_cast<ssize_t>(size)) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~InputFile() {
    if (fd_ >= 0) close(fd_);
  }
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  bool ok() const { return fd_ >= 0; }
  std::string path() const { return FdPath(fd_); }
  // A fresh handle at offset 0, as the import pipeline gives a reader.
  bool Open(FileRef& file) const { return ok() && file.OpenRead(path()); }

 private:
  int fd_;
};

// An empty memory file to write an export into; the FileRef owns it.
inline bool OutputFile(FileRef& out) {
  const int fd = memfd_create("fuzz-out", 0);
  if (fd < 0) return false;
  out = FileRef(fd, FdPath(fd), true);
  return true;
}

}  // namespace kv::fuzz
