// Netbase::IntfId: the generic identifier of an interface, two 32-bit words that encode
// the interface type and its numbers, built from and printed as the interface's name.
//
//   word0: bits 31..24 the type (IntfType), bits 23..0 the first number
//   word1: bits 31..22 the second number + 1, bits 21..16 the third number + 1 (0: the
//          name has no such number), bits 15..0 the subinterface number (0: none)
//
// so that ordering by (word0, word1) is the natural order of names: by type, then
// Ethernet1 < Ethernet1/1 < Ethernet1/2 < Ethernet2. The empty name is (0, 0), the
// default identifier, and converts to false.
//
// Names: Ethernet3, Ethernet3/1, Ethernet3/1/2, Ethernet3/1.100, Port-Channel10,
// Port-Channel10.20, Vlan100, Loopback0, Management1, Management1/1, Tunnel5, Vxlan1,
// Null0, Recirc-Channel1, Pseudowire1, Fabric1, Dps1, tunnelTap0. Type names are read
// without regard to case and in their short forms (Et, Po, Vl, Lo, Ma, Tu, Vx, Rc, Pw,
// Fa); they print in the canonical form above. An identifier of a type this table does
// not know prints, and reads back, as "IntfId(0x<word0>,0x<word1>)".
//
// Text form in values: the name, quoted ('Ethernet1').
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Kel/Enum.h"
#include "Kel/Value.h"

namespace Netbase {

KEL_ENUM(IntfType, "Netbase::IntfType",
         (intfTypeNone, 0),
         (intfTypeEthernet, 1),
         (intfTypePortChannel, 2),
         (intfTypeVlan, 3),
         (intfTypeLoopback, 4),
         (intfTypeManagement, 5),
         (intfTypeTunnel, 6),
         (intfTypeVxlan, 7),
         (intfTypeNull, 8),
         (intfTypeRecircChannel, 9),
         (intfTypePseudowire, 10),
         (intfTypeFabric, 11),
         (intfTypeDps, 12),
         (intfTypeTunnelTap, 60));

class IntfId {
 public:
  KEL_VALUE_CORE(IntfId, "Netbase::IntfId", (uint32_t, word0), (uint32_t, word1));

  // Parses an interface name; throws Kel::ParseError naming it when it is not one.
  explicit IntfId(std::string_view name) { handleInitialized(name); }
  KEL_VALUE_STREP_CTOR(IntfId)

  // Sets this identifier from an interface name (the empty name gives (0, 0)); throws
  // Kel::ParseError naming the name when it is not one, leaving the identifier unchanged.
  void handleInitialized(std::string_view name);

  uint32_t typeId() const noexcept { return word0_ >> 24; }
  IntfType type() const noexcept { return static_cast<IntfType>(typeId()); }
  explicit operator bool() const noexcept { return word0_ != 0 || word1_ != 0; }
  std::string stringValue() const;

  void kelWriteStrep(Kel::StrepWriter& w) const { w.putQuoted(stringValue()); }
  static IntfId kelReadStrep(Kel::StrepReader& r);
};

// The platform's view of generic interface identifiers.
struct GenericIntfId {
  static uint32_t typeId(const IntfId& intf) noexcept { return intf.typeId(); }
};

}  // namespace Netbase
