// Netbase::TunnelTapIntfId: the identifier of an MPLS tunnel tap interface, a typed view
// of the generic interface identifier (interface type 60). It carries nothing beyond the
// generic identifier.
//
// Netbase::MplsTapIntfConstants holds the identifier of the one tunnel tap interface,
// "tunnelTap0"; all instances are equal.
#pragma once

#include <string_view>

#include "Kel/Value.h"
#include "types/Netbase/IntfId.h"

namespace Netbase {

class TunnelTapIntfId {
 public:
  KEL_VALUE(TunnelTapIntfId, "Netbase::TunnelTapIntfId", (IntfId, intfId));

  static constexpr uint32_t kIntfType = intfTypeTunnelTap;

  // Builds the identifier from an interface name through the platform's name parser;
  // throws Kel::ParseError naming a name that is not an interface's.
  explicit TunnelTapIntfId(std::string_view name);

  // True exactly when the platform reports the tunnel tap type for `intfId`.
  static bool isTunnelTapIntfId(const IntfId& intfId) noexcept {
    return GenericIntfId::typeId(intfId) == kIntfType;
  }

  // False for the identifier built from the empty name (the default one).
  explicit operator bool() const noexcept { return static_cast<bool>(intfId_); }
  operator IntfId() const noexcept { return intfId_; }  // NOLINT: a view of the generic id
  std::string stringValue() const { return intfId_.stringValue(); }
};

class MplsTapIntfConstants {
 public:
  KEL_VALUE_BASE(MplsTapIntfConstants, "Netbase::MplsTapIntfConstants");
  KEL_VALUE_STREP_CTOR(MplsTapIntfConstants)

  // The identifier of "tunnelTap0".
  static TunnelTapIntfId tunnelTapIntfId();
};

}  // namespace Netbase
