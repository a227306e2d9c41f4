#include "tools/mplsctl/LineFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Mplsctl {

LineFileError::LineFileError(const std::string& file, uint32_t line, uint32_t column,
                             const std::string& message)
    : std::runtime_error(line == 0 ? fmt::format("{}: {}", file, message)
                                   : fmt::format("{}:{}:{}: {}", file, line, column, message)),
      line_(line),
      column_(column) {}

std::string readLineFile(const std::string& path, std::string_view kind, std::string& name) {
  const bool standardInput = path == "-";
  name = standardInput ? "<stdin>" : path;
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
  std::string text;
  char chunk[1 << 16];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0) {
      throw LineFileError(name, 0, 0, fmt::format("cannot read: {}", std::strerror(errno)));
    }
    if (n == 0) {
      break;
    }
    if (text.size() + static_cast<size_t>(n) > kMaxFileBytes) {
      throw LineFileError(name, 0, 0,
                          fmt::format("longer than {} bytes: not a {}", kMaxFileBytes, kind));
    }
    text.append(chunk, static_cast<size_t>(n));
  }
  return text;
}

}  // namespace Mplsctl
