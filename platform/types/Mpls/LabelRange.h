// Mpls::LabelRange: a range of MPLS labels, its first label and how many labels it spans.
//
// The base is a label (at most Netbase::MplsLabel::max, 0xFFFFF); the constructor refuses
// a larger one with Kel::RangeException "LabelRange::base > Netbase::MplsLabel::max not
// allowed". The size is not bounded by the label space: whoever hands labels out of a
// range cuts it at the largest label. Base 0 and size 0 is the empty range, what an
// unset range reads as.
// Text: "Value('Mpls::LabelRange', ** {'base': 100000, 'size': 262144})".
#pragma once

#include <cstdint>

#include "Kel/Value.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

class LabelRange {
 public:
  KEL_VALUE_BASE(LabelRange, "Mpls::LabelRange", (Netbase::MplsLabel, base), (uint32_t, size));

  LabelRange(uint32_t base, uint32_t size);
  KEL_VALUE_STREP_CTOR(LabelRange)

  bool empty() const noexcept { return base_.value() == 0 && size_ == 0; }
};

}  // namespace Mpls
