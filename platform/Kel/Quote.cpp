#include "Kel/Quote.h"

#include <fmt/format.h>

namespace Kel {

std::string quoted(std::string_view text, size_t maxBytes) {
  const std::string_view shown = text.substr(0, maxBytes);
  std::string out = "'";
  out.reserve(shown.size() + 2);
  for (const char c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\'' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte > 0x7e) {
      out += fmt::format("\\x{:02x}", byte);
    } else {
      out += c;
    }
  }
  out += '\'';
  if (shown.size() < text.size()) {
    out += fmt::format("... ({} bytes)", text.size());
  }
  return out;
}

}  // namespace Kel
