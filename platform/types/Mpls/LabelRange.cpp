#include "types/Mpls/LabelRange.h"

#include "Kel/Exception.h"

namespace Mpls {

LabelRange::LabelRange(uint32_t base, uint32_t size) : size_(size) {
  if (base > Netbase::MplsLabel::max) {
    throw Kel::RangeException("LabelRange::base > Netbase::MplsLabel::max not allowed");
  }
  base_ = Netbase::MplsLabel(base);
}

}  // namespace Mpls
