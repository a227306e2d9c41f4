#include "Kel/Binary.h"

#include <fmt/format.h>

namespace Kel {

std::string hexDump(const void* data, size_t len, size_t max) {
  const auto* p = static_cast<const uint8_t*>(data);
  std::string out;
  size_t shown = len < max ? len : max;
  out.reserve(shown * 3 + 32);
  for (size_t i = 0; i < shown; ++i) {
    if (i) {
      out.push_back(' ');
    }
    fmt::format_to(std::back_inserter(out), "{:02x}", p[i]);
  }
  if (shown < len) {
    fmt::format_to(std::back_inserter(out), " ... ({} more bytes)", len - shown);
  }
  return out;
}

void throwSizeExceeded(size_t max, size_t got, const void* buf, size_t len) {
  throw SizeError(fmt::format(
      "expected size <= {}, instead got {}. Buffer is at address: {} with contents: {}", max,
      got, buf, hexDump(buf, len)));
}

void throwTooShort(const void* buf, size_t have, size_t need) {
  throw SizeError(fmt::format(
      "record needs {} bytes, but the buffer holds only {}. Buffer is at address: {} with "
      "contents: {}",
      need, have, buf, hexDump(buf, have)));
}

}  // namespace Kel
