// Kel::DumpContext collects the text of dumpState() calls. Entities print into it with
// printf-style formats (the dump formats are fixed strings such as "%*clfibRoutes #%u\n").
#pragma once

#include <string>

#include <fmt/printf.h>

namespace Kel {

class DumpContext {
 public:
  template <class... A>
  void printf(const char* format, const A&... args) {
    text_ += fmt::sprintf(format, args...);
  }
  const std::string& text() const noexcept { return text_; }
  void clear() noexcept { text_.clear(); }

 private:
  std::string text_;
};

}  // namespace Kel
