// L3::RouteDistinguisher: the 8-octet route distinguisher of a VPN route (RFC 4364 §4.2),
// a 2-octet type followed by a 6-octet value, held as one 64-bit number whose octets in
// network order are the octets on the wire. The default is type 0 "0:0".
//
// Text: by type,
//   type 0   "65000:100"        2-octet AS number, 4-octet assigned number
//   type 1   "10.0.0.1:100"     IPv4 address, 2-octet assigned number
//   type 2   "4200000000:100"   4-octet AS number, 2-octet assigned number; an AS number
//            "65000L:100"       below 65536 carries an L, so that it reads back as type 2
//   other    "0x0003000000000064", the 8 octets in hex
// The text form in values is the same text, unquoted. Reading accepts these forms (the
// hex form for any type); an AS number above 65535 without an L is type 2.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "Kel/Value.h"

namespace L3 {

class RouteDistinguisher {
 public:
  using Bytes = std::array<uint8_t, 8>;
  KEL_VALUE_BASE(RouteDistinguisher, "L3::RouteDistinguisher", (uint64_t, value));
  KEL_VALUE_STREP_CTOR(RouteDistinguisher)

  // The route distinguisher whose octets, in network order, are the number's.
  explicit RouteDistinguisher(uint64_t value) noexcept : value_(value) {}
  // Parses one of the text forms above; throws Kel::ParseError naming the text and what
  // is wrong with it.
  explicit RouteDistinguisher(std::string_view text);

  static RouteDistinguisher fromBytes(const Bytes& networkOrder) noexcept;
  static RouteDistinguisher twoOctetAs(uint16_t as, uint32_t number) noexcept;
  // `address` is the IPv4 address as a number, 10.0.0.1 = 0x0a000001.
  static RouteDistinguisher ipv4(uint32_t address, uint16_t number) noexcept;
  static RouteDistinguisher fourOctetAs(uint32_t as, uint16_t number) noexcept;

  uint16_t type() const noexcept { return static_cast<uint16_t>(value_ >> 48); }
  Bytes bytes() const noexcept;
  std::string stringValue() const;

  void kelWriteStrep(Kel::StrepWriter& w) const { w.put(stringValue()); }
  static RouteDistinguisher kelReadStrep(Kel::StrepReader& r);
};

}  // namespace L3
