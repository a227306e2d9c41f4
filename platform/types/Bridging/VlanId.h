// Bridging::VlanId, an 802.1Q VLAN identifier (the 12-bit VID: 0 to 4095), and
// Bridging::VlanIdOrNone, a usable VLAN (1 to 4094) or none (0). Both are range types:
// an out-of-range value raises Kel::RangeException; the text form is the decimal value.
#pragma once

#include <cstdint>

#include "Kel/Range.h"

namespace Bridging {

KEL_RANGE(VlanId, "Bridging::VlanId", uint16_t, 0, 4095);

class VlanIdOrNone : public Kel::Range<VlanIdOrNone, uint16_t> {
  KEL_RANGE_BODY(VlanIdOrNone, "Bridging::VlanIdOrNone", uint16_t, 0, 4094, "max")
  static constexpr uint16_t min = 0;
  static constexpr uint16_t max = 4094;

  static constexpr VlanIdOrNone none() noexcept { return VlanIdOrNone(); }
  constexpr bool isNone() const noexcept { return value() == 0; }
};

}  // namespace Bridging
