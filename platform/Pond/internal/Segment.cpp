#include "Pond/internal/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "Kel/Hash.h"
#include "Kel/Quote.h"
#include "Pond/Exception.h"
#include "Pond/internal/Layout.h"
#include "Pond/internal/MappingGuard.h"

namespace Pond::internal {

namespace {

std::string errnoText(int err) { return std::strerror(err); }

const char* fileKind(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "a regular file";
    case S_IFDIR:
      return "a directory";
    case S_IFIFO:
      return "a FIFO";
    case S_IFLNK:
      return "a symbolic link";
    case S_IFSOCK:
      return "a socket";
    case S_IFCHR:
      return "a character device";
    case S_IFBLK:
      return "a block device";
    default:
      return "of an unknown kind";
  }
}

// "(owner uid 0, mode 0600)", from the name itself (not followed); empty when it is gone.
std::string ownerText(const std::string& shmName) {
  struct stat st {};
  if (::lstat(Segment::pathOf(shmName).c_str(), &st) != 0) {
    return {};
  }
  return fmt::format(" (owner uid {}, mode {:04o})", st.st_uid, st.st_mode & 07777);
}

bool nameChar(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

bool validName(std::string_view name) noexcept {
  return !name.empty() && name.size() <= kNameMax &&
         std::all_of(name.begin(), name.end(), nameChar);
}

bool allDigits(std::string_view s) noexcept {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A group's path as it stands in a segment's name, and back.
constexpr char kShmSeparator = '+';
constexpr char kHashMark = '~';
// A file name holds 255 bytes (NAME_MAX): "pond.", the stem, "." and a table's name, and a
// temporary's ".tmp<pid>.<n>" (a pid of at most 7 digits, n a uint32) fit beside a stem of
// at most 163. A hashed stem keeps the path's start, for a person reading /dev/shm.
constexpr size_t kTemporarySuffixMax = 4 + 7 + 1 + 10;
constexpr size_t kStemMax = 255 - 5 - (1 + kNameMax) - kTemporarySuffixMax;
constexpr size_t kHashDigits = 16;
constexpr size_t kStemKept = kStemMax - 1 - kHashDigits;

bool hexDigits(std::string_view s) noexcept {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

bool permissionDenied(int err) { return err == EACCES || err == EPERM; }

[[noreturn]] void throwOpenError(const std::string& shmName, int err) {
  if (permissionDenied(err)) {
    throw SegmentError(fmt::format("permission denied: cannot open shared-memory segment {}{}",
                                   shmName, ownerText(shmName)));
  }
  if (err == ELOOP) {
    throw SegmentError(fmt::format(
        "shared-memory segment {} is a symbolic link, not a regular file: refused", shmName));
  }
  if (err == EISDIR) {
    throw SegmentError(fmt::format(
        "shared-memory segment {} is a directory, not a regular file: refused", shmName));
  }
  if (err == ENXIO || err == ENODEV) {
    throw SegmentError(fmt::format("shared-memory segment {} is not a regular file: refused",
                                   shmName));
  }
  throw SegmentError(fmt::format("cannot open shared-memory segment {}: {}", shmName,
                                 errnoText(err)));
}

// A writer writes only into segments it owns that nobody else may write: a segment someone
// else created first (squatting the name) or may change is refused. A reader refuses the
// ones others may write: Pond never makes them, so anyone may have written what they hold.
void checkOwnership(const std::string& shmName, const struct stat& st, bool writable) {
  const mode_t mode = st.st_mode & 07777;
  if (writable && st.st_uid != ::geteuid()) {
    throw SegmentError(fmt::format(
        "shared-memory segment {} is owned by uid {} (mode {:04o}), not by this writer's uid "
        "{}: refused; remove it so that the writer creates it anew",
        shmName, st.st_uid, mode, ::geteuid()));
  }
  if ((mode & (S_IWGRP | S_IWOTH)) != 0) {
    throw SegmentError(fmt::format(
        "shared-memory segment {} (owner uid {}, mode {:04o}) may be written by others than "
        "its owner: refused",
        shmName, st.st_uid, mode));
  }
}

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
      writable_(o.writable_),
      guard_(std::exchange(o.guard_, nullptr)) {}

Segment& Segment::operator=(Segment&& o) noexcept {
  if (this != &o) {
    reset();
    name_ = std::move(o.name_);
    base_ = std::exchange(o.base_, nullptr);
    size_ = std::exchange(o.size_, 0);
    fd_ = std::exchange(o.fd_, -1);
    inode_ = o.inode_;
    writable_ = o.writable_;
    guard_ = std::exchange(o.guard_, nullptr);
  }
  return *this;
}

Segment::~Segment() { reset(); }

void Segment::reset() noexcept {
  if (base_) {
    unguardMapping(guard_);
    guard_ = nullptr;
    ::munmap(base_, size_);
    base_ = nullptr;
  }
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

void Segment::checkName(std::string_view what, std::string_view name) {
  if (!validName(name)) {
    throw SegmentError(fmt::format(
        "invalid {} name {}: use 1 to 64 letters, digits, '_' and '-'", what, Kel::quoted(name)));
  }
}

bool Segment::validGroupName(std::string_view name) noexcept {
  if (name.empty() || name.size() > kGroupNameMax) {
    return false;
  }
  for (size_t start = 0;;) {
    size_t slash = name.find('/', start);
    if (!validName(name.substr(start, slash - start))) {
      return false;
    }
    if (slash == std::string_view::npos) {
      return true;
    }
    start = slash + 1;
  }
}

void Segment::checkGroupName(std::string_view name) {
  if (!validGroupName(name)) {
    throw SegmentError(fmt::format(
        "invalid mount group name {}: use names of 1 to 64 letters, digits, '_' and '-', "
        "separated by single '/', at most 255 characters in all",
        Kel::quoted(name, kGroupNameMax + 1)));
  }
}

bool Segment::groupUnder(std::string_view group, std::string_view prefix) noexcept {
  return prefix.empty() || (group.size() > prefix.size() + 1 && group.starts_with(prefix) &&
                            group[prefix.size()] == '/');
}

std::string Segment::groupStem(std::string_view group) {
  std::string stem(group);
  std::replace(stem.begin(), stem.end(), '/', kShmSeparator);
  if (stem.size() > kStemMax) {
    stem = fmt::format("{}{}{:016x}", stem.substr(0, kStemKept), kHashMark,
                       XXH64(group.data(), group.size(), 0));
  }
  return stem;
}

std::string Segment::groupShmName(std::string_view group) {
  return fmt::format("/pond.{}", groupStem(group));
}

std::string Segment::tableShmName(std::string_view group, std::string_view table) {
  return fmt::format("/pond.{}.{}", groupStem(group), table);
}

std::optional<Segment::ShmFile> Segment::parseFileName(std::string_view file) {
  constexpr std::string_view kPrefix = "pond.";
  if (!file.starts_with(kPrefix)) {
    return std::nullopt;
  }
  file.remove_prefix(kPrefix.size());
  // "<group>", "<group>.<table>", and either followed by ".tmp<pid>.<n>".
  std::string_view fields[4];
  size_t count = 0;
  for (;;) {
    if (count == 4) {
      return std::nullopt;
    }
    size_t dot = file.find('.');
    fields[count++] = file.substr(0, dot);
    if (dot == std::string_view::npos) {
      break;
    }
    file.remove_prefix(dot + 1);
  }
  ShmFile out;
  if (count >= 3) {
    std::string_view tmp = fields[count - 2];
    if (!tmp.starts_with("tmp") || !allDigits(tmp.substr(3)) || !allDigits(fields[count - 1])) {
      return std::nullopt;
    }
    if (std::from_chars(tmp.data() + 3, tmp.data() + tmp.size(), out.creator).ec != std::errc() ||
        out.creator <= 0) {
      return std::nullopt;
    }
    count -= 2;
  }
  if (count == 2) {
    if (!validName(fields[1])) {
      return std::nullopt;
    }
    out.table = fields[1];
  }
  out.stem = fields[0];
  const size_t mark = out.stem.find(kHashMark);
  if (mark == std::string::npos) {
    out.group = out.stem;
    std::replace(out.group.begin(), out.group.end(), kShmSeparator, '/');
    return validGroupName(out.group) ? std::optional(std::move(out)) : std::nullopt;
  }
  const std::string_view stem = out.stem;
  const bool kept = std::all_of(stem.begin(), stem.begin() + mark,
                                [](char c) { return c == kShmSeparator || nameChar(c); });
  return kept && mark == kStemKept && stem.size() == kStemMax && hexDigits(stem.substr(mark + 1))
             ? std::optional(std::move(out))
             : std::nullopt;
}

std::optional<std::string> Segment::groupOf(const ShmFile& file) {
  if (!file.group.empty()) {
    return file.group;
  }
  std::optional<Segment> s;
  try {
    s = open(fmt::format("/pond.{}", file.stem), false, sizeof(GroupHeader));
  } catch (const SegmentError&) {
    return std::nullopt;  // not a segment this process may read: not one it can name
  }
  if (!s) {
    return std::nullopt;
  }
  const auto* h = reinterpret_cast<const GroupHeader*>(s->base());
  if (h->magic != kGroupMagic || h->layoutVersion != kLayoutVersion ||
      std::memchr(h->name, 0, sizeof(h->name)) == nullptr || !validGroupName(h->name) ||
      groupStem(h->name) != file.stem) {
    return std::nullopt;
  }
  return std::string(h->name);
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
  s.guard_ = guardMapping(base, size, fd, true);
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
  // O_NONBLOCK: a FIFO in a segment's place must not hold the open; O_NOFOLLOW: nor may a
  // symbolic link lead it elsewhere. What is not a regular file is refused below.
  int fd = ::open(pathOf(shmName).c_str(),
                  (writable ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) {
      return std::nullopt;
    }
    throwOpenError(shmName, errno);
  }
  FdGuard guard{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    throw SegmentError(fmt::format("cannot stat shared-memory segment {}: {}", shmName,
                                   errnoText(errno)));
  }
  if (!S_ISREG(st.st_mode)) {
    throw SegmentError(fmt::format("shared-memory segment {} is {}, not a regular file: refused",
                                   shmName, fileKind(st.st_mode)));
  }
  checkOwnership(shmName, st, writable);
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
  s.guard_ = guardMapping(base, size, s.fd_, writable);
  return s;
}

bool Segment::unlink(const std::string& shmName) {
  const std::string path = pathOf(shmName);
  if (::unlink(path.c_str()) == 0) {
    return true;
  }
  int err = errno;
  if (err == ENOENT) {
    return false;
  }
  if (err == EISDIR && ::rmdir(path.c_str()) == 0) {  // an empty directory in its place
    return true;
  }
  err = err == EISDIR ? errno : err;
  if (permissionDenied(err)) {
    throw SegmentError(fmt::format("permission denied: cannot remove shared-memory segment {}{}",
                                   shmName, ownerText(shmName)));
  }
  throw SegmentError(fmt::format("cannot remove shared-memory segment {}: {}", shmName,
                                 errnoText(err)));
}

bool Segment::damaged() const noexcept {
  // relaxed: see MappingState.
  return guard_ != nullptr && guard_->damaged.load(std::memory_order_relaxed) != 0;
}

uint64_t Segment::fileSizeFound() const noexcept {
  return guard_ != nullptr ? guard_->fileSize.load(std::memory_order_relaxed) : 0;
}

const std::atomic<uint32_t>* Segment::damagedFlag() const noexcept {
  static const std::atomic<uint32_t> never{0};
  return guard_ != nullptr ? &guard_->damaged : &never;
}

}  // namespace Pond::internal
