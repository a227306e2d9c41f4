// The framework's exceptions and assertions.
//
// Three kinds of failure exist:
//  - an invariant broken inside an entity throws Kel::InternalException (KEL_ASSERT), with
//    the text "<path>:<line> <signature> -- assertion failed(<expression>): <message>";
//  - a bounded value out of its range throws Kel::RangeException with a fixed text naming
//    the type, for example "LfibViaIndexRange::value < LfibViaIndexRange::min or >
//    LfibViaIndexRange::max not allowed";
//  - a condition the process cannot survive aborts it (KEL_FATAL_ASSERT), after printing
//    the expression, the path, the line and the function on stderr.
// The strict text reader adds Kel::ParseError, and binary decoders Kel::SizeError.
//
// Source paths are relative to the source root and carry no extension ("Mpls/MplsLfib"):
// the build maps __FILE__ to the relative path and KEL_SOURCE_PATH drops the extension.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace Kel {

// Base of every exception the framework throws.
class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }
  const std::string& message() const noexcept { return message_; }

 protected:
  std::string message_;
};

// A broken argument or invariant inside an entity (KEL_ASSERT).
class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// A bounded value (range type, enumeration, flag set, fixed array index) out of range.
// When the strict text reader finds one inside a value, it re-raises it with the path of
// the attribute attached: attribute() is then for example "key.index" and what() reads
// "attribute 'key.index': <the range text>"; text() is always the range text alone.
class RangeException : public Exception {
 public:
  explicit RangeException(std::string text) : Exception(text), text_(std::move(text)) {}
  const std::string& text() const noexcept { return text_; }
  const std::string& attribute() const noexcept { return attribute_; }
  // Returns a copy whose attribute path starts with `name`.
  RangeException withAttribute(std::string_view name) const;

 private:
  std::string text_;
  std::string attribute_;
};

// A flag-set integer with bits above the highest defined flag.
class EnumSetRangeException : public RangeException {
 public:
  using RangeException::RangeException;
};

// Text that does not follow the strict text form: a missing or wrong literal, a field out
// of order, a malformed number. The message names what was expected and where.
class ParseError : public Exception {
 public:
  using Exception::Exception;
};

// A binary record that claims more than its capacity, or is shorter than it claims.
class SizeError : public Exception {
 public:
  using Exception::Exception;
};

namespace internal {

// "Mpls/MplsLfib.cpp" -> "Mpls/MplsLfib".
constexpr std::string_view sourcePath(std::string_view file) {
  auto slash = file.rfind('/');
  auto dot = file.rfind('.');
  if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) {
    file.remove_suffix(file.size() - dot);
  }
  return file;
}

// The text of an invariant violation report.
std::string assertionText(std::string_view path, int line, std::string_view function,
                          std::string_view expression, std::string_view message);

[[noreturn]] void assertionFailed(std::string_view path, int line, std::string_view function,
                                  std::string_view expression, std::string_view message);

[[noreturn]] void fatalAssertionFailed(std::string_view path, int line,
                                       std::string_view function, std::string_view expression,
                                       std::string_view message) noexcept;

}  // namespace internal
}  // namespace Kel

#define KEL_SOURCE_PATH() (::Kel::internal::sourcePath(__FILE__))

// Throws Kel::InternalException when `cond` is false. `message` is anything a
// std::string_view can be built from.
#define KEL_ASSERT(cond, message)                                                          \
  do {                                                                                     \
    if (!(cond)) [[unlikely]] {                                                            \
      ::Kel::internal::assertionFailed(KEL_SOURCE_PATH(), __LINE__, __PRETTY_FUNCTION__,   \
                                       #cond, (message));                                  \
    }                                                                                      \
  } while (0)

// Aborts the process when `cond` is false. An optional message follows the expression.
#define KEL_FATAL_ASSERT(cond, ...)                                                          \
  do {                                                                                       \
    if (!(cond)) [[unlikely]] {                                                              \
      ::Kel::internal::fatalAssertionFailed(KEL_SOURCE_PATH(), __LINE__,                     \
                                            __PRETTY_FUNCTION__, #cond, "" __VA_ARGS__);     \
    }                                                                                        \
  } while (0)
