#include "tools/mplsctl/LineFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Pond/MappedFile.h"

namespace Mplsctl {

namespace {
// Files from this size on are mapped; smaller ones are read.
constexpr size_t kMapFrom = size_t{1} << 20;
}  // namespace

LineFileError::LineFileError(const std::string& file, uint32_t line, uint32_t column,
                             const std::string& message)
    : std::runtime_error(line == 0 ? fmt::format("{}: {}", file, message)
                                   : fmt::format("{}:{}:{}: {}", file, line, column, message)),
      line_(line),
      column_(column) {}

void preferHugePages(const void* data, size_t bytes) noexcept {
  constexpr size_t kHugePage = size_t{2} << 20;
  if (bytes < kHugePage) {
    return;
  }
  // The whole pages inside the buffer.
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  const uintptr_t start = (reinterpret_cast<uintptr_t>(data) + page - 1) / page * page;
  const uintptr_t end = (reinterpret_cast<uintptr_t>(data) + bytes) / page * page;
  if (end > start) {
    ::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
  }
}

void LineFileText::checkWhole() const {
  if (mapping_ && static_cast<const Pond::MappedFile*>(mapping_.get())->cutShort()) {
    throw LineFileError(name_, 0, 0, "cut short while being read");
  }
}

LineFileText readLineFile(const std::string& path, std::string_view kind) {
  const bool standardInput = path == "-";
  LineFileText file;
  file.name_ = standardInput ? "<stdin>" : path;
  const std::string& name = file.name_;
  const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    throw LineFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
  }
  struct Closer {
    int fd;
    bool own;
    ~Closer() {
      if (own) {
        ::close(fd);
      }
    }
  } closer{fd, !standardInput};
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    throw LineFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
  }
  if (S_ISDIR(st.st_mode)) {
    throw LineFileError(name, 0, 0, fmt::format("is a directory, not a {}", kind));
  }
  // A large regular file is mapped: its pages are those of the page cache, where a copy
  // would cost fresh memory (page faults) and the copy itself.
  if (S_ISREG(st.st_mode) && static_cast<size_t>(st.st_size) >= kMapFrom &&
      static_cast<size_t>(st.st_size) <= kMaxFileBytes) {
    if (auto mapped = Pond::MappedFile::map(fd, static_cast<size_t>(st.st_size))) {
      auto shared = std::make_shared<Pond::MappedFile>(std::move(*mapped));
      file.mapped_ = shared->bytes();
      file.mapping_ = std::move(shared);
      return file;
    }
  }
  // Read in place: a regular file into a buffer of its size (and a byte more, to see one
  // that grew), anything else into one that doubles.
  std::string& text = file.read_;
  if (S_ISREG(st.st_mode) && st.st_size > 0) {
    const size_t size = std::min(static_cast<size_t>(st.st_size), kMaxFileBytes) + 1;
    text.reserve(size);
    preferHugePages(text.data(), size);
    text.resize(size);
  }
  size_t have = 0;
  for (;;) {
    if (have == text.size()) {
      text.resize(std::min(std::max(text.size() * 2, size_t{1} << 16), kMaxFileBytes + 1));
    }
    const ssize_t n = ::read(fd, text.data() + have, text.size() - have);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      throw LineFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
    }
    if (n == 0) {
      break;
    }
    have += static_cast<size_t>(n);
    if (have > kMaxFileBytes) {
      throw LineFileError(name, 0, 0,
                          fmt::format("longer than {} bytes: not a {}", kMaxFileBytes, kind));
    }
  }
  text.resize(have);
  return file;
}

}  // namespace Mplsctl
