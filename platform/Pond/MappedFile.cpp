#include "Pond/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <utility>

#include "Pond/internal/MappingGuard.h"

namespace Pond {

std::optional<MappedFile> MappedFile::map(int fd, size_t size) noexcept {
  if (size == 0) {
    return std::nullopt;
  }
  const int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) {
    return std::nullopt;
  }
  // Populated: the pages of a file in the page cache are mapped in one go, not one fault
  // at a time as they are read.
  void* base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, own, 0);
  if (base == MAP_FAILED) {
    ::close(own);
    return std::nullopt;
  }
  ::madvise(base, size, MADV_SEQUENTIAL);
  MappedFile f;
  f.data_ = static_cast<const char*>(base);
  f.size_ = size;
  f.fd_ = own;
  f.guard_ = internal::guardMapping(base, size, own, false);
  return f;
}

MappedFile::MappedFile(MappedFile&& o) noexcept
    : data_(std::exchange(o.data_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      fd_(std::exchange(o.fd_, -1)),
      guard_(std::exchange(o.guard_, nullptr)) {}

MappedFile& MappedFile::operator=(MappedFile&& o) noexcept {
  if (this != &o) {
    release();
    data_ = std::exchange(o.data_, nullptr);
    size_ = std::exchange(o.size_, 0);
    fd_ = std::exchange(o.fd_, -1);
    guard_ = std::exchange(o.guard_, nullptr);
  }
  return *this;
}

MappedFile::~MappedFile() { release(); }

void MappedFile::release() noexcept {
  if (guard_) {
    internal::unguardMapping(guard_);
    guard_ = nullptr;
  }
  if (data_) {
    ::munmap(const_cast<char*>(data_), size_);
    data_ = nullptr;
  }
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

bool MappedFile::cutShort() const noexcept {
  return guard_ != nullptr && guard_->damaged.load(std::memory_order_relaxed) != 0;
}

}  // namespace Pond
