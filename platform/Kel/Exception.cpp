#include "Kel/Exception.h"

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

namespace Kel {

RangeException RangeException::withAttribute(std::string_view name) const {
  RangeException copy(text_);
  copy.attribute_ = attribute_.empty() ? std::string(name) : fmt::format("{}.{}", name, attribute_);
  copy.message_ = fmt::format("attribute '{}': {}", copy.attribute_, text_);
  return copy;
}

namespace internal {

std::string assertionText(std::string_view path, int line, std::string_view function,
                          std::string_view expression, std::string_view message) {
  return fmt::format("{}:{} {} -- assertion failed({}): {}", path, line, function, expression,
                     message);
}

void assertionFailed(std::string_view path, int line, std::string_view function,
                     std::string_view expression, std::string_view message) {
  throw InternalException(assertionText(path, line, function, expression, message));
}

void fatalAssertionFailed(std::string_view path, int line, std::string_view function,
                          std::string_view expression, std::string_view message) noexcept {
  // Written with one call so that lines of concurrent processes do not interleave.
  std::string text = fmt::format("{}:{} {} -- fatal assertion failed({}){}{}\n", path, line,
                                 function, expression, message.empty() ? "" : ": ", message);
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  std::abort();
}

}  // namespace internal
}  // namespace Kel
