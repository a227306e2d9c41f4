// Kel::String, the framework's string: a counted byte string (it may hold any byte,
// zero included), convertible to a C string. Its text form is single-quoted with escapes
// (Kel/Strep.h) and it hashes as its length followed by its bytes.
#pragma once

#include <compare>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

#include "Kel/Strep.h"

namespace Kel {

class String {
 public:
  String() = default;
  String(const char* s) : s_(s) {}               // NOLINT: implicit by design
  String(std::string s) : s_(std::move(s)) {}    // NOLINT
  String(std::string_view s) : s_(s) {}          // NOLINT
  String(const char* data, size_t len) : s_(data, len) {}

  const char* c_str() const noexcept { return s_.c_str(); }
  const char* data() const noexcept { return s_.data(); }
  size_t size() const noexcept { return s_.size(); }
  size_t bytes() const noexcept { return s_.size(); }
  bool empty() const noexcept { return s_.empty(); }
  const std::string& stringValue() const noexcept { return s_; }
  std::string_view view() const noexcept { return s_; }
  operator std::string_view() const noexcept { return s_; }  // NOLINT

  String& operator+=(std::string_view more) {
    s_.append(more);
    return *this;
  }

  friend bool operator==(const String& a, const String& b) noexcept { return a.s_ == b.s_; }
  friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
    return a.s_ <=> b.s_;
  }
  friend std::ostream& operator<<(std::ostream& os, const String& s) { return os << s.s_; }

  uint32_t hash(uint32_t seed = 0) const { return hashOf(*this, seed); }
  void kelHashFeed(HashAccumulator& a) const { a.addBytes(s_); }
  void kelWriteStrep(StrepWriter& w) const { w.putQuoted(s_); }
  static String kelReadStrep(StrepReader& r) { return String(r.readQuoted()); }

 private:
  std::string s_;
};

}  // namespace Kel

// Kel::String prints as its bytes in {fmt} (its text form, quoted, is valueToStrep's).
template <>
struct fmt::formatter<Kel::String, char> : fmt::formatter<std::string_view, char> {
  template <class Ctx>
  auto format(const Kel::String& s, Ctx& ctx) const {
    return fmt::formatter<std::string_view, char>::format(s.view(), ctx);
  }
};
