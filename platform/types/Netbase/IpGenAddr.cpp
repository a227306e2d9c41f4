#include "types/Netbase/IpGenAddr.h"

#include <arpa/inet.h>

#include <cstring>

#include <fmt/format.h>

namespace Netbase {

bool IpGenAddr::parse(std::string_view text, IpGenAddr& out) {
  char buf[INET6_ADDRSTRLEN + 1];
  if (text.empty() || text.size() >= sizeof(buf) || text.find('\0') != std::string_view::npos) {
    return false;
  }
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  Bytes bytes{};
  bool v6 = text.find(':') != std::string_view::npos;
  if (::inet_pton(v6 ? AF_INET6 : AF_INET, buf, bytes.data()) != 1) {
    return false;
  }
  out = fromBytes(v6 ? afIpv6 : afIpv4, bytes);
  return true;
}

IpGenAddr::IpGenAddr(std::string_view text) {
  if (!parse(text, *this)) {
    throw Kel::ParseError(fmt::format("invalid IP address '{}'", text));
  }
}

IpGenAddr IpGenAddr::ipv4(uint32_t hostOrder) noexcept {
  IpGenAddr a;
  a.addr_[0] = static_cast<uint8_t>(hostOrder >> 24);
  a.addr_[1] = static_cast<uint8_t>(hostOrder >> 16);
  a.addr_[2] = static_cast<uint8_t>(hostOrder >> 8);
  a.addr_[3] = static_cast<uint8_t>(hostOrder);
  return a;
}

IpGenAddr IpGenAddr::ipv6(const Bytes& networkOrder) noexcept {
  IpGenAddr a;
  a.af_ = afIpv6;
  a.addr_ = networkOrder;
  return a;
}

IpGenAddr IpGenAddr::fromBytes(AddressFamily af, const Bytes& networkOrder) noexcept {
  IpGenAddr a;
  a.af_ = af;
  std::memcpy(a.addr_.data(), networkOrder.data(), af == afIpv4 ? 4 : 16);
  return a;
}

bool IpGenAddr::isZero() const noexcept {
  for (uint8_t b : addr_) {
    if (b) {
      return false;
    }
  }
  return true;
}

uint32_t IpGenAddr::v4Addr() const noexcept {
  if (!isV4()) {
    return 0;
  }
  return (uint32_t{addr_[0]} << 24) | (uint32_t{addr_[1]} << 16) | (uint32_t{addr_[2]} << 8) |
         addr_[3];
}

std::string IpGenAddr::stringValue() const {
  if (isV4()) {
    return fmt::format("{}.{}.{}.{}", addr_[0], addr_[1], addr_[2], addr_[3]);
  }
  uint16_t groups[8];
  for (int i = 0; i < 8; ++i) {
    groups[i] = static_cast<uint16_t>((addr_[2 * i] << 8) | addr_[2 * i + 1]);
  }
  // IPv4-mapped (::ffff:0:0/96): the last 32 bits as a dotted quad.
  if (groups[0] == 0 && groups[1] == 0 && groups[2] == 0 && groups[3] == 0 && groups[4] == 0 &&
      groups[5] == 0xffff) {
    return fmt::format("::ffff:{}.{}.{}.{}", addr_[12], addr_[13], addr_[14], addr_[15]);
  }
  // The first longest run of two or more zero groups becomes "::".
  int bestStart = -1;
  int bestLen = 1;
  for (int i = 0; i < 8;) {
    if (groups[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && groups[j] == 0) {
      ++j;
    }
    if (j - i > bestLen) {
      bestStart = i;
      bestLen = j - i;
    }
    i = j;
  }
  std::string out;
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') {
      out.push_back(':');
    }
    fmt::format_to(std::back_inserter(out), "{:x}", groups[i]);
  }
  return out;
}

IpGenAddr IpGenAddr::kelReadStrep(Kel::StrepReader& r) {
  size_t start = r.position();
  auto token = r.readToken(
      [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') ||
               c == ':' || c == '.';
      },
      "an IP address");
  IpGenAddr a;
  if (!parse(token, a)) {
    r.failAt(start, "an IP address");
  }
  return a;
}

}  // namespace Netbase
