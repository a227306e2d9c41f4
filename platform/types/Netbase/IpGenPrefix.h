// Netbase::IpGenPrefix: an IPv4 or IPv6 prefix, an address and a length.
//
// The address never has host bits set: the constructor from an address and a length
// clears them, and the text reader refuses a text that has them ("10.0.0.1/8"), as
// `ip route` does. Text: "10.0.0.0/8", "2001:db8::/32", unquoted in values.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Kel/Value.h"
#include "types/Netbase/IpGenAddr.h"

namespace Netbase {

class IpGenPrefix {
 public:
  KEL_VALUE_BASE(IpGenPrefix, "Netbase::IpGenPrefix", (IpGenAddr, addr), (uint8_t, len));

  // Clears the host bits of `addr`. A length above the family's 32 or 128 raises
  // Kel::RangeException "IpGenPrefix::len > IpGenPrefix::maxLen not allowed".
  IpGenPrefix(const IpGenAddr& addr, uint32_t len);
  // Parses "10.0.0.0/8"; throws Kel::ParseError naming the text when it is malformed or
  // has host bits set.
  explicit IpGenPrefix(std::string_view text);
  KEL_VALUE_STREP_CTOR(IpGenPrefix)

  AddressFamily af() const noexcept { return addr_.af(); }
  bool isV4() const noexcept { return addr_.isV4(); }
  bool isV6() const noexcept { return addr_.isV6(); }
  bool contains(const IpGenAddr& a) const noexcept;
  std::string stringValue() const;

  void kelWriteStrep(Kel::StrepWriter& w) const { w.put(stringValue()); }
  static IpGenPrefix kelReadStrep(Kel::StrepReader& r);
};

}  // namespace Netbase
