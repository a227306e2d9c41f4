#include "types/Netbase/IpGenPrefix.h"

#include <fmt/format.h>

namespace Netbase {

namespace {

IpGenAddr::Bytes masked(const IpGenAddr::Bytes& bytes, uint32_t len) {
  IpGenAddr::Bytes out = bytes;
  for (uint32_t i = 0; i < out.size(); ++i) {
    uint32_t bitsHere = len > i * 8 ? len - i * 8 : 0;
    if (bitsHere >= 8) {
      continue;
    }
    out[i] &= static_cast<uint8_t>(0xff00u >> bitsHere);
  }
  return out;
}

// Parses the whole of `text`; returns an empty string on success, else why it failed.
std::string parse(std::string_view text, IpGenPrefix& out) {
  size_t slash = text.find('/');
  if (slash == std::string_view::npos) {
    return "expected ADDRESS/LENGTH";
  }
  IpGenAddr addr;
  try {
    addr = IpGenAddr(text.substr(0, slash));
  } catch (const Kel::ParseError&) {
    return "invalid address";
  }
  std::string_view lenText = text.substr(slash + 1);
  uint32_t len = 0;
  if (lenText.empty() || lenText.size() > 3 || (lenText.size() > 1 && lenText[0] == '0')) {
    return "invalid length";
  }
  for (char c : lenText) {
    if (c < '0' || c > '9') {
      return "invalid length";
    }
    len = len * 10 + static_cast<uint32_t>(c - '0');
  }
  if (len > addr.maxLen()) {
    return fmt::format("length above {}", addr.maxLen());
  }
  if (masked(addr.addr(), len) != addr.addr()) {
    return "host bits set";
  }
  out = IpGenPrefix(addr, len);
  return {};
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, uint32_t len) {
  if (len > addr.maxLen()) {
    throw Kel::RangeException("IpGenPrefix::len > IpGenPrefix::maxLen not allowed");
  }
  addr_ = IpGenAddr::fromBytes(addr.af(), masked(addr.addr(), len));
  len_ = static_cast<uint8_t>(len);
}

IpGenPrefix::IpGenPrefix(std::string_view text) {
  std::string why = parse(text, *this);
  if (!why.empty()) {
    throw Kel::ParseError(fmt::format("invalid IP prefix '{}': {}", text, why));
  }
}

bool IpGenPrefix::contains(const IpGenAddr& a) const noexcept {
  return a.af() == addr_.af() && masked(a.addr(), len_) == addr_.addr();
}

std::string IpGenPrefix::stringValue() const {
  return fmt::format("{}/{}", addr_.stringValue(), len_);
}

IpGenPrefix IpGenPrefix::kelReadStrep(Kel::StrepReader& r) {
  size_t start = r.position();
  auto token = r.readToken(
      [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') ||
               c == ':' || c == '.' || c == '/';
      },
      "an IP prefix");
  IpGenPrefix p;
  std::string why = parse(token, p);
  if (!why.empty()) {
    r.failAt(start, fmt::format("an IP prefix ({})", why));
  }
  return p;
}

}  // namespace Netbase
