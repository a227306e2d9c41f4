#include "types/Netbase/IpGenAddr.h"

#include <arpa/inet.h>

#include <cstring>

#include <fmt/format.h>

namespace Netbase {

namespace {

bool parse(std::string_view text, IpGenAddr& out) {
  char buf[INET6_ADDRSTRLEN + 1];
  if (text.empty() || text.size() >= sizeof(buf)) {
    return false;
  }
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  IpGenAddr::Bytes bytes{};
  if (text.find(':') != std::string_view::npos) {
    if (::inet_pton(AF_INET6, buf, bytes.data()) != 1) {
      return false;
    }
    out = IpGenAddr::ipv6(bytes);
    return true;
  }
  if (::inet_pton(AF_INET, buf, bytes.data()) != 1) {
    return false;
  }
  out.afIs(afIpv4);
  out.addrIs(bytes);
  return true;
}

}  // namespace

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
  char buf[INET6_ADDRSTRLEN];
  ::inet_ntop(isV4() ? AF_INET : AF_INET6, addr_.data(), buf, sizeof(buf));
  return buf;
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
