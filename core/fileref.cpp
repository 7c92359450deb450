#include "core/fileref.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kv {

FileRef::FileRef(FileRef&& other) noexcept : fd_(other.fd_), path_(std::move(other.path_)), owns_(other.owns_) {
  other.fd_ = -1;
  other.owns_ = false;
}

FileRef& FileRef::operator=(FileRef&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    path_ = std::move(other.path_);
    owns_ = other.owns_;
    other.fd_ = -1;
    other.owns_ = false;
  }
  return *this;
}

FileRef::~FileRef() { Close(); }

bool FileRef::OpenRead(const std::filesystem::path& path) {
  Close();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    return false;
  }
  fd_ = fd;
  path_ = path;
  owns_ = true;
  return true;
}

bool FileRef::OpenWrite(const std::filesystem::path& path) {
  Close();
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  fd_ = fd;
  path_ = path;
  owns_ = true;
  return true;
}

void FileRef::Close() {
  if (fd_ >= 0 && owns_) ::close(fd_);
  fd_ = -1;
  owns_ = false;
}

int64_t FileRef::Read(std::span<std::byte> out) {
  if (fd_ < 0) return -1;
  std::size_t done = 0;
  while (done < out.size()) {
    ssize_t n = ::read(fd_, out.data() + done, out.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return static_cast<int64_t>(done);
}

bool FileRef::Write(std::span<const std::byte> data) {
  if (fd_ < 0) return false;
  std::size_t done = 0;
  while (done < data.size()) {
    ssize_t n = ::write(fd_, data.data() + done, data.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

bool FileRef::Seek(uint64_t offset) {
  if (fd_ < 0) return false;
  return ::lseek(fd_, static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset);
}

bool FileRef::Skip(int64_t delta) {
  if (fd_ < 0) return false;
  return ::lseek(fd_, static_cast<off_t>(delta), SEEK_CUR) >= 0;
}

uint64_t FileRef::Tell() const {
  if (fd_ < 0) return 0;
  off_t pos = ::lseek(fd_, 0, SEEK_CUR);
  return pos < 0 ? 0 : static_cast<uint64_t>(pos);
}

uint64_t FileRef::Size() const {
  if (fd_ < 0) return 0;
  struct stat st {};
  if (::fstat(fd_, &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

bool PlaceFileWithoutCopy(const std::filesystem::path& from, const std::filesystem::path& to, bool allowHardLink) {
  // Made beside the target under a hidden name, then renamed over it, so an
  // existing file is never left half replaced.
  std::filesystem::path temp = to;
  temp.replace_filename("." + to.filename().string() + ".kvnew");
  ::unlink(temp.c_str());
  bool placed = false;
  const int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (source >= 0) {
    const int target = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (target >= 0) {
      placed = ::ioctl(target, FICLONE, source) == 0;
      struct stat info {};
      if (placed && ::fstat(source, &info) == 0) ::fchmod(target, info.st_mode & 07777);
      ::close(target);
      if (!placed) ::unlink(temp.c_str());
    }
    ::close(source);
  }
  if (!placed && allowHardLink) placed = ::link(from.c_str(), temp.c_str()) == 0;
  if (placed) {
    placed = ::rename(temp.c_str(), to.c_str()) == 0;
    // Also when `to` already was a link to `from`: rename then does nothing.
    ::unlink(temp.c_str());
  }
  return placed;
}

}  // namespace kv
