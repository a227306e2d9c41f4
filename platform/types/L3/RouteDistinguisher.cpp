#include "types/L3/RouteDistinguisher.h"

#include <fmt/format.h>

#include <charconv>

#include "types/Netbase/IpGenAddr.h"

namespace L3 {

namespace {

// Digits only, at most `max`.
bool decimal(std::string_view text, uint64_t max, uint64_t& out) {
  if (text.empty() || text.size() > 10) {
    return false;
  }
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') {
      return false;
    }
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  out = v;
  return v <= max;
}

// Parses the whole of `text`; returns an empty string on success, else why it failed.
std::string parse(std::string_view text, RouteDistinguisher& out) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    const std::string_view hex = text.substr(2);
    uint64_t v = 0;
    const auto [end, error] = std::from_chars(hex.data(), hex.data() + hex.size(), v, 16);
    if (hex.size() != 16 || error != std::errc() || end != hex.data() + hex.size()) {
      return "expected 16 hex digits after 0x";
    }
    out = RouteDistinguisher(v);
    return {};
  }
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || text.find(':', colon + 1) != std::string_view::npos) {
    return "expected ADMINISTRATOR:NUMBER, or 0x and 16 hex digits";
  }
  std::string_view admin = text.substr(0, colon);
  std::string_view numberText = text.substr(colon + 1);
  uint64_t number = 0;
  if (!decimal(numberText, 0xffffffff, number)) {
    return fmt::format("assigned number '{}' is not a number from 0 to 4294967295", numberText);
  }
  if (admin.find('.') != std::string_view::npos) {
    Netbase::IpGenAddr address;
    try {
      address = Netbase::IpGenAddr(admin);
    } catch (const Kel::ParseError&) {
      return fmt::format("invalid IPv4 address '{}'", admin);
    }
    if (number > 0xffff) {
      return fmt::format("assigned number {} above 65535 after an IPv4 address", number);
    }
    out = RouteDistinguisher::ipv4(address.v4Addr(), static_cast<uint16_t>(number));
    return {};
  }
  const bool fourOctets = admin.ends_with('L');
  if (fourOctets) {
    admin.remove_suffix(1);
  }
  uint64_t as = 0;
  if (!decimal(admin, 0xffffffff, as)) {
    return fmt::format("AS number '{}' is not a number from 0 to 4294967295", admin);
  }
  if (!fourOctets && as <= 0xffff) {
    out = RouteDistinguisher::twoOctetAs(static_cast<uint16_t>(as), static_cast<uint32_t>(number));
    return {};
  }
  if (number > 0xffff) {
    return fmt::format("assigned number {} above 65535 after a 4-octet AS number", number);
  }
  out = RouteDistinguisher::fourOctetAs(static_cast<uint32_t>(as), static_cast<uint16_t>(number));
  return {};
}

}  // namespace

RouteDistinguisher::RouteDistinguisher(std::string_view text) {
  std::string why = parse(text, *this);
  if (!why.empty()) {
    throw Kel::ParseError(fmt::format("invalid route distinguisher '{}': {}", text, why));
  }
}

RouteDistinguisher RouteDistinguisher::fromBytes(const Bytes& networkOrder) noexcept {
  uint64_t v = 0;
  for (uint8_t b : networkOrder) {
    v = (v << 8) | b;
  }
  return RouteDistinguisher(v);
}

RouteDistinguisher RouteDistinguisher::twoOctetAs(uint16_t as, uint32_t number) noexcept {
  return RouteDistinguisher((uint64_t{as} << 32) | number);
}

RouteDistinguisher RouteDistinguisher::ipv4(uint32_t address, uint16_t number) noexcept {
  return RouteDistinguisher((uint64_t{1} << 48) | (uint64_t{address} << 16) | number);
}

RouteDistinguisher RouteDistinguisher::fourOctetAs(uint32_t as, uint16_t number) noexcept {
  return RouteDistinguisher((uint64_t{2} << 48) | (uint64_t{as} << 16) | number);
}

RouteDistinguisher::Bytes RouteDistinguisher::bytes() const noexcept {
  Bytes out;
  for (size_t i = 0; i < out.size(); ++i) {
    out[i] = static_cast<uint8_t>(value_ >> (56 - 8 * i));
  }
  return out;
}

std::string RouteDistinguisher::stringValue() const {
  switch (type()) {
    case 0:
      return fmt::format("{}:{}", (value_ >> 32) & 0xffff, value_ & 0xffffffff);
    case 1:
      return fmt::format(
          "{}:{}", Netbase::IpGenAddr::ipv4(static_cast<uint32_t>(value_ >> 16)).stringValue(),
          value_ & 0xffff);
    case 2: {
      const uint64_t as = (value_ >> 16) & 0xffffffff;
      return fmt::format("{}{}:{}", as, as <= 0xffff ? "L" : "", value_ & 0xffff);
    }
    default:
      return fmt::format("0x{:016x}", value_);
  }
}

RouteDistinguisher RouteDistinguisher::kelReadStrep(Kel::StrepReader& r) {
  const size_t start = r.position();
  auto token = r.readToken(
      [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               c == ':' || c == '.';
      },
      "a route distinguisher");
  RouteDistinguisher rd;
  std::string why = parse(token, rd);
  if (!why.empty()) {
    r.failAt(start, fmt::format("a route distinguisher ({})", why));
  }
  return rd;
}

}  // namespace L3
