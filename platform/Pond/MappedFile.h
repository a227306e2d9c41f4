// Pond::MappedFile: a regular file mapped whole for reading, which a process may read at
// memory speed without copying it, and which does not kill the process when someone
// truncates the file meanwhile.
//
// A read of a mapped file beyond its end raises SIGBUS. The mapping is guarded the way
// Pond's segments are: a read past a new end completes on zero pages, and cutShort() says
// that it happened. A reader of a mapped file checks cutShort() after it has read: what it
// made of the zeros does not count then.
//
// Move-only; any thread may read the bytes.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace Pond {

namespace internal {
struct MappingState;
}  // namespace internal

class MappedFile {
 public:
  // Maps the first `size` bytes (at least 1) of the regular file open on `fd`; the mapping
  // keeps a descriptor of its own. Null when the file cannot be mapped: the caller reads
  // it instead.
  static std::optional<MappedFile> map(int fd, size_t size) noexcept;

  MappedFile(MappedFile&& o) noexcept;
  MappedFile& operator=(MappedFile&& o) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile();

  std::string_view bytes() const noexcept { return {data_, size_}; }
  // Whether the file was found shorter than mapped, by a read that went past its end.
  bool cutShort() const noexcept;

 private:
  MappedFile() = default;
  void release() noexcept;

  const char* data_ = nullptr;
  size_t size_ = 0;
  int fd_ = -1;
  internal::MappingState* guard_ = nullptr;
};

}  // namespace Pond
