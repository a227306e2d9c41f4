#include "Pond/internal/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "Pond/Exception.h"

namespace Pond::internal {

namespace {

std::string errnoText(int err) { return std::strerror(err); }

// Closes an fd unless released.
struct FdGuard {
  int fd;
  ~FdGuard() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  int release() { return std::exchange(fd, -1); }
};

}  // namespace

Segment::Segment(Segment&& o) noexcept
    : name_(std::move(o.name_)),
      base_(std::exchange(o.base_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      fd_(std::exchange(o.fd_, -1)),
      inode_(o.inode_),
      writable_(o.writable_) {}

Segment& Segment::operator=(Segment&& o) noexcept {
  if (this != &o) {
    reset();
    name_ = std::move(o.name_);
    base_ = std::exchange(o.base_, nullptr);
    size_ = std::exchange(o.size_, 0);
    fd_ = std::exchange(o.fd_, -1);
    inode_ = o.inode_;
    writable_ = o.writable_;
  }
  return *this;
}

Segment::~Segment() { reset(); }

void Segment::reset() noexcept {
  if (base_) {
    ::munmap(base_, size_);
    base_ = nullptr;
  }
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

void Segment::checkName(std::string_view what, std::string_view name) {
  bool ok = !name.empty() && name.size() <= 64;
  for (char c : name) {
    ok = ok && ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                c == '_' || c == '-');
  }
  if (!ok) {
    throw SegmentError(fmt::format(
        "invalid {} name '{}': use 1 to 64 letters, digits, '_' and '-'", what, name));
  }
}

std::string Segment::groupShmName(std::string_view group) { return fmt::format("/pond.{}", group); }

std::string Segment::tableShmName(std::string_view group, std::string_view table) {
  return fmt::format("/pond.{}.{}", group, table);
}

std::string Segment::pathOf(std::string_view shmName) { return fmt::format("/dev/shm{}", shmName); }

std::optional<Segment> Segment::create(const std::string& shmName, uint64_t size,
                                       const SegmentOptions& options,
                                       const std::function<void(uint8_t*)>& init) {
  static std::atomic<uint32_t> counter{0};
  std::string tmp = fmt::format("{}.tmp{}.{}", shmName, ::getpid(), counter++);
  mode_t mode = options.group ? 0640 : options.mode;
  int fd = ::shm_open(tmp.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, mode);
  if (fd < 0) {
    throw SegmentError(fmt::format("cannot create shared-memory segment {}: {}", tmp,
                                   errnoText(errno)));
  }
  FdGuard guard{fd};
  auto fail = [&](std::string_view what) {
    int err = errno;
    ::shm_unlink(tmp.c_str());
    throw SegmentError(fmt::format("cannot {} shared-memory segment {}: {}", what, shmName,
                                   errnoText(err)));
  };
  // The umask may have narrowed the mode; the owner's choice stands.
  if (::fchmod(fd, mode) != 0) {
    fail("set the mode of");
  }
  if (options.group && ::fchown(fd, static_cast<uid_t>(-1), *options.group) != 0) {
    fail("set the group of");
  }
  if (::ftruncate(fd, static_cast<off_t>(size)) != 0) {
    fail("size");
  }
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) {
    fail("map");
  }
  Segment s;
  s.name_ = shmName;
  s.base_ = static_cast<uint8_t*>(base);
  s.size_ = size;
  s.writable_ = true;
  try {
    init(s.base_);
  } catch (...) {
    ::shm_unlink(tmp.c_str());
    throw;
  }
  // link() fails when the name exists: of two creators, exactly one publishes.
  int rc = ::link(pathOf(tmp).c_str(), pathOf(shmName).c_str());
  int err = errno;
  ::shm_unlink(tmp.c_str());
  if (rc != 0) {
    if (err == EEXIST) {
      return std::nullopt;
    }
    errno = err;
    fail("publish");
  }
  struct stat st {};
  ::fstat(fd, &st);
  s.inode_ = st.st_ino;
  s.fd_ = guard.release();
  return s;
}

std::optional<Segment> Segment::open(const std::string& shmName, bool writable, size_t minSize) {
  int fd = ::shm_open(shmName.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC, 0);
  if (fd < 0) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    throw SegmentError(fmt::format("cannot open shared-memory segment {}: {}", shmName,
                                   errnoText(errno)));
  }
  FdGuard guard{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    throw SegmentError(fmt::format("cannot stat shared-memory segment {}: {}", shmName,
                                   errnoText(errno)));
  }
  if (!S_ISREG(st.st_mode)) {
    throw SegmentError(fmt::format("shared-memory segment {} is not a regular file", shmName));
  }
  if (static_cast<uint64_t>(st.st_size) < minSize) {
    throw SegmentError(fmt::format(
        "shared-memory segment {} is truncated: {} bytes, at least {} expected", shmName,
        st.st_size, minSize));
  }
  uint64_t size = static_cast<uint64_t>(st.st_size);
  void* base = ::mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED,
                      fd, 0);
  if (base == MAP_FAILED) {
    throw SegmentError(fmt::format("cannot map shared-memory segment {}: {}", shmName,
                                   errnoText(errno)));
  }
  Segment s;
  s.name_ = shmName;
  s.base_ = static_cast<uint8_t*>(base);
  s.size_ = size;
  s.fd_ = guard.release();
  s.inode_ = st.st_ino;
  s.writable_ = writable;
  return s;
}

bool Segment::unlink(const std::string& shmName) { return ::shm_unlink(shmName.c_str()) == 0; }

}  // namespace Pond::internal
