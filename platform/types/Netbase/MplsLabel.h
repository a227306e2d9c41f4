// Netbase::MplsLabel: an MPLS label value.
//
// Labels are 20-bit numbers (0 to 0xFFFFF, `max`). The type also carries two values
// above that range that tables use as markers: `nullLabel` (1048576, one above the
// largest label: no label at all) and `luWithdraw` (0x800000), the type's upper bound.
// A value above luWithdraw raises Kel::RangeException
// "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed".
// Text form: the decimal value.
#pragma once

#include <cstdint>

#include "Kel/Range.h"

namespace Netbase {

class MplsLabel : public Kel::Range<MplsLabel, uint32_t> {
  KEL_RANGE_BODY(MplsLabel, "Netbase::MplsLabel", uint32_t, 0, 0x800000, "luWithdraw")

  static constexpr uint32_t min = 0;
  static constexpr uint32_t max = 0xFFFFF;  // the largest 20-bit label
  static constexpr uint32_t nullLabel = 0x100000;
  static constexpr uint32_t luWithdraw = 0x800000;

  // Reserved labels (RFC 3032, RFC 6790, RFC 5586).
  static constexpr uint32_t explicitNullIpv4 = 0;
  static constexpr uint32_t routerAlert = 1;
  static constexpr uint32_t explicitNullIpv6 = 2;
  static constexpr uint32_t implicitNull = 3;
  static constexpr uint32_t entropyLabelIndicator = 7;
  static constexpr uint32_t gal = 13;
  static constexpr uint32_t oamAlert = 14;
  static constexpr uint32_t firstUnreserved = 16;

  // The marker for "no label".
  static constexpr MplsLabel null() noexcept { return unchecked(nullLabel); }
  constexpr bool isNull() const noexcept { return value() == nullLabel; }
  // A 20-bit label that may appear on the wire.
  constexpr bool isLabel() const noexcept { return value() <= max; }
  constexpr bool isReserved() const noexcept { return value() < firstUnreserved; }
};

}  // namespace Netbase
