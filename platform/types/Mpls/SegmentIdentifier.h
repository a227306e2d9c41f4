// Mpls::SegmentRouting::SegmentIdentifier: a segment identifier (SID) as an IGP advertises
// it, either an index into the advertising router's segment routing global block
// (isValue false) or an absolute label value (isValue true, the V flag of the IGP's SID
// sub-TLVs). The 32-bit value holds a 20-bit label or a 32-bit index.
//
// Text: "Value('Mpls::SegmentRouting::SegmentIdentifier', ** {'value': 5, 'isValue': False})".
#pragma once

#include <cstdint>

#include "Kel/Value.h"

namespace Mpls::SegmentRouting {

class SegmentIdentifier {
 public:
  KEL_VALUE(SegmentIdentifier, "Mpls::SegmentRouting::SegmentIdentifier",
            (uint32_t, value),
            (bool, isValue));

  static SegmentIdentifier index(uint32_t index) noexcept { return SegmentIdentifier(index, false); }
  static SegmentIdentifier absolute(uint32_t label) noexcept { return SegmentIdentifier(label, true); }
};

}  // namespace Mpls::SegmentRouting
