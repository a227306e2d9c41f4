#include "types/Mpls/RouterId.h"

#include <arpa/inet.h>

#include <charconv>

#include <fmt/format.h>

namespace Mpls {
namespace internal {

std::string dottedQuad(uint32_t id) {
  return fmt::format("{}.{}.{}.{}", id >> 24, (id >> 16) & 0xff, (id >> 8) & 0xff, id & 0xff);
}

std::optional<uint32_t> parseDottedQuad(std::string_view text) {
  // inet_pton takes exactly four decimal parts, no leading zeros, no blanks.
  char buf[INET_ADDRSTRLEN];
  if (text.empty() || text.size() >= sizeof(buf)) {
    return std::nullopt;
  }
  text.copy(buf, text.size());
  buf[text.size()] = '\0';
  in_addr addr{};
  if (inet_pton(AF_INET, buf, &addr) != 1) {
    return std::nullopt;
  }
  return ntohl(addr.s_addr);
}

bool parseIdAndSpace(std::string_view text, uint32_t& id, uint16_t& space) {
  size_t colon = text.find(':');
  if (colon == std::string_view::npos) {
    return false;
  }
  std::optional<uint32_t> quad = parseDottedQuad(text.substr(0, colon));
  std::string_view digits = text.substr(colon + 1);
  uint16_t value = 0;
  auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (!quad || digits.empty() || ec != std::errc() || end != digits.data() + digits.size()) {
    return false;
  }
  id = *quad;
  space = value;
  return true;
}

}  // namespace internal

std::string RouterId::stringValue() const {
  return internal::dottedQuad(rtrId_) + ":" + std::to_string(lblSpace_);
}

std::optional<RouterId> RouterId::parse(std::string_view text) {
  uint32_t id = 0;
  uint16_t space = 0;
  if (!internal::parseIdAndSpace(text, id, space)) {
    return std::nullopt;
  }
  return RouterId(id, space);
}

}  // namespace Mpls
