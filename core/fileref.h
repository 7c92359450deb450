// The file as a module sees it: a POSIX descriptor, its path and whether the
// holder closes it. Sizes and offsets are 64-bit throughout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

namespace kv {

class FileRef {
 public:
  FileRef() = default;
  FileRef(int fd, std::filesystem::path path, bool owns) : fd_(fd), path_(std::move(path)), owns_(owns) {}
  FileRef(const FileRef&) = delete;
  FileRef& operator=(const FileRef&) = delete;
  FileRef(FileRef&& other) noexcept;
  FileRef& operator=(FileRef&& other) noexcept;
  ~FileRef();

  // Opens for reading (shared: POSIX has no locks to take).
  bool OpenRead(const std::filesystem::path& path);
  // Creates or truncates for writing.
  bool OpenWrite(const std::filesystem::path& path);
  void Close();

  bool IsOpen() const { return fd_ >= 0; }
  int Fd() const { return fd_; }
  const std::filesystem::path& Path() const { return path_; }

  // Reads up to out.size() bytes; returns the count read (short at the end),
  // or -1 on an I/O error. Retries interrupted and partial reads.
  int64_t Read(std::span<std::byte> out);
  // True only if exactly out.size() bytes were read.
  bool ReadExact(std::span<std::byte> out) { return Read(out) == static_cast<int64_t>(out.size()); }
  bool ReadExact(void* data, std::size_t size) {
    return ReadExact(std::span<std::byte>(static_cast<std::byte*>(data), size));
  }
  // Writes all bytes or fails.
  bool Write(std::span<const std::byte> data);
  bool Write(const void* data, std::size_t size) {
    return Write(std::span<const std::byte>(static_cast<const std::byte*>(data), size));
  }

  bool Seek(uint64_t offset);
  bool Skip(int64_t delta);
  uint64_t Tell() const;
  // Size of the file by its descriptor; 0 when unknown.
  uint64_t Size() const;

 private:
  int fd_ = -1;
  std::filesystem::path path_;
  bool owns_ = false;
};

// Puts at `to` a file with the content of `from` without copying its data:
// a copy-on-write clone where the file system offers one, else, when
// `allowHardLink`, a second name for the same file. `to` is replaced only
// once the new one stands. False, with nothing changed, when neither works
// (other file systems, or `from` and `to` on different ones); the caller
// then writes the file itself.
bool PlaceFileWithoutCopy(const std::filesystem::path& from, const std::filesystem::path& to, bool allowHardLink);

}  // namespace kv
