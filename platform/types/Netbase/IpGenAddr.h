// Netbase::IpGenAddr: an IPv4 or IPv6 address.
//
// Held as its family and 16 bytes in network order (an IPv4 address in the first four,
// the rest zero), 20 bytes in all, trivially copyable: it is stored as it is in shared
// memory. The default address is IPv4 0.0.0.0.
//
// Text: the usual forms, "10.0.0.1" (dotted quad, no leading zeros) and "2001:db8::1"
// (RFC 5952: lower case, the first longest run of two or more zero groups compressed,
// dotted quad only for IPv4-mapped addresses). The text form in values is the same text,
// unquoted.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "Kel/Enum.h"
#include "Kel/Value.h"

namespace Netbase {

KEL_ENUM(AddressFamily, "Netbase::AddressFamily", (afIpv4, 4), (afIpv6, 6));

class IpGenAddr {
 public:
  using Bytes = std::array<uint8_t, 16>;
  KEL_VALUE_BASE(IpGenAddr, "Netbase::IpGenAddr", (AddressFamily, af), (Bytes, addr));
  KEL_VALUE_STREP_CTOR(IpGenAddr)

  // Parses "10.0.0.1" or "2001:db8::1"; throws Kel::ParseError naming the text otherwise.
  explicit IpGenAddr(std::string_view text);
  // `hostOrder` is the address as a number, 10.0.0.1 = 0x0a000001.
  static IpGenAddr ipv4(uint32_t hostOrder) noexcept;
  static IpGenAddr ipv6(const Bytes& networkOrder) noexcept;
  // An address of `af` from its bytes in network order (an IPv4 address: the first four).
  static IpGenAddr fromBytes(AddressFamily af, const Bytes& networkOrder) noexcept;

  bool isV4() const noexcept { return af_ == afIpv4; }
  bool isV6() const noexcept { return af_ == afIpv6; }
  bool isZero() const noexcept;
  // The IPv4 address as a number (host order); 0 for an IPv6 address.
  uint32_t v4Addr() const noexcept;
  // Bits in the address: 32 or 128.
  uint32_t maxLen() const noexcept { return isV4() ? 32 : 128; }
  std::string stringValue() const;

  void kelWriteStrep(Kel::StrepWriter& w) const { w.put(stringValue()); }
  static IpGenAddr kelReadStrep(Kel::StrepReader& r);

 private:
  static bool parse(std::string_view text, IpGenAddr& out);
};

}  // namespace Netbase
