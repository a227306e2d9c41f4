// Helpers for the binary forms of values (the records kept in shared-memory tables):
// bounds-checked writing and reading of host-order fields, and the framework's size error.
//
// Decoders never trust a length they read: every read is checked against the bytes the
// caller said are available, and a failure throws Kel::SizeError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Kel/Exception.h"

namespace Kel {

// Hex of up to `max` bytes as "0a 1b 2c ...", with a note of what was left out.
std::string hexDump(const void* data, size_t len, size_t max = 256);

// The size error of a record whose array claims more entries than its capacity:
// "expected size <= {max}, instead got {got}. Buffer is at address: {buf} with contents: {hex}".
[[noreturn]] void throwSizeExceeded(size_t max, size_t got, const void* buf, size_t len);

// The size error of a record that needs more bytes than the buffer holds.
[[noreturn]] void throwTooShort(const void* buf, size_t have, size_t need);

// Throws Kel::SizeError unless `have` >= `need`.
inline void requireLength(const void* buf, size_t have, size_t need) {
  if (have < need) [[unlikely]] {
    throwTooShort(buf, have, need);
  }
}

// Writes host-order fields one after the other, with no padding.
class ByteWriter {
 public:
  explicit ByteWriter(uint8_t* out) noexcept : out_(out) {}
  template <class T>
  void put(const T& v) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(out_ + pos_, &v, sizeof(T));
    pos_ += sizeof(T);
  }
  void skip(size_t n) noexcept { pos_ += n; }
  uint8_t* cursor() noexcept { return out_ + pos_; }
  size_t position() const noexcept { return pos_; }

 private:
  uint8_t* out_;
  size_t pos_ = 0;
};

// Reads host-order fields one after the other from a buffer of known length.
class ByteReader {
 public:
  ByteReader(const uint8_t* in, size_t len) noexcept : in_(in), len_(len) {}
  template <class T>
  T get() {
    static_assert(std::is_trivially_copyable_v<T>);
    requireLength(in_, len_, pos_ + sizeof(T));
    T v;
    std::memcpy(&v, in_ + pos_, sizeof(T));
    pos_ += sizeof(T);
    return v;
  }
  void skip(size_t n) {
    requireLength(in_, len_, pos_ + n);
    pos_ += n;
  }
  const uint8_t* cursor() const noexcept { return in_ + pos_; }
  size_t remaining() const noexcept { return len_ - pos_; }
  size_t position() const noexcept { return pos_; }

 private:
  const uint8_t* in_;
  size_t len_;
  size_t pos_ = 0;
};

}  // namespace Kel
