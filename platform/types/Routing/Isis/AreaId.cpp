#include "types/Routing/Isis/AreaId.h"

#include <algorithm>

#include <fmt/format.h>

#include "Kel/Exception.h"

namespace Routing::Isis {

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

}  // namespace

AreaId::AreaId(std::span<const uint8_t> octets) {
  if (octets.empty() || octets.size() > maxLength) {
    throw Kel::RangeException("AreaId::len < 1 or > AreaId::maxLength not allowed");
  }
  std::copy(octets.begin(), octets.end(), octet_.begin());
  len_ = AreaIdLen(octets.size());
}

AreaId::AreaId(std::string_view text) {
  std::optional<AreaId> area = parse(text);
  if (!area) {
    throw Kel::ParseError(fmt::format(
        "invalid IS-IS area '{}': expected 1 to 13 octets in hex, such as 49.0001", text));
  }
  *this = *area;
}

std::optional<AreaId> AreaId::parse(std::string_view text) {
  if (text == "-") {
    return AreaId();
  }
  Octets octets{};
  size_t count = 0;
  size_t i = 0;
  while (i < text.size()) {
    // A group: whole octets, then a dot unless it is the last.
    const size_t start = i;
    while (i < text.size() && text[i] != '.') {
      ++i;
    }
    const std::string_view group = text.substr(start, i - start);
    if (group.empty() || group.size() % 2 != 0 || (i < text.size() && i + 1 == text.size())) {
      return std::nullopt;
    }
    for (size_t j = 0; j < group.size(); j += 2) {
      const int hi = hexDigit(group[j]);
      const int lo = hexDigit(group[j + 1]);
      if (hi < 0 || lo < 0 || count == maxLength) {
        return std::nullopt;
      }
      octets[count++] = static_cast<uint8_t>(hi << 4 | lo);
    }
    i += i < text.size() ? 1 : 0;
  }
  if (count == 0) {
    return std::nullopt;
  }
  return AreaId(std::span<const uint8_t>(octets.data(), count));
}

std::string AreaId::stringValue() const {
  if (empty()) {
    return "-";
  }
  std::string s;
  for (uint32_t i = 0; i < length(); ++i) {
    // A dot after the first octet and after every second one from there.
    s += fmt::format("{}{:02x}", i > 0 && i % 2 == 1 ? "." : "", octet_[i]);
  }
  return s;
}

AreaId AreaId::kelReadStrep(Kel::StrepReader& r) {
  const size_t start = r.position();
  const std::string_view token = r.readToken(
      [](char c) { return hexDigit(c) >= 0 || c == '.' || c == '-'; }, "an IS-IS area");
  std::optional<AreaId> area = parse(token);
  if (!area) {
    r.failAt(start, "an IS-IS area (1 to 13 octets in hex, such as 49.0001)");
  }
  return *area;
}

}  // namespace Routing::Isis
