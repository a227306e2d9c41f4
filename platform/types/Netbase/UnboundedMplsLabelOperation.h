// Netbase::UnboundedMplsLabelOperation: a label operation with a label stack of any
// depth, outermost label first ("push 300/301" pushes 300 on top of 301).
//
// Binary form (shared-memory rows): a 4-byte head (the label count, 2 bytes; the
// operation, 1 byte; a zero byte), then each label as 4 bytes, host byte order. An empty
// operation is 4 bytes long.
#pragma once

#include <cstdint>
#include <string>

#include <absl/container/inlined_vector.h>

#include "Kel/Value.h"
#include "types/Netbase/MplsLabel.h"
#include "types/Netbase/MplsLabelAction.h"

namespace Netbase {

// Up to three labels are held without a heap allocation.
using MplsLabelStack = absl::InlinedVector<MplsLabel, 3>;

class UnboundedMplsLabelOperation {
 public:
  KEL_VALUE(UnboundedMplsLabelOperation, "Netbase::UnboundedMplsLabelOperation",
            (MplsLabelAction, operation), (MplsLabelStack, labelStack));

  uint32_t labels() const noexcept { return static_cast<uint32_t>(labelStack_.size()); }
  // The outermost label, or the null label when the stack is empty.
  MplsLabel topLabel() const noexcept {
    return labelStack_.empty() ? MplsLabel::null() : labelStack_.front();
  }
  // "300/301", or "" for an empty stack.
  std::string labelStackString() const;

  static constexpr uint32_t kBinaryHeadLen = 4;
  static constexpr uint32_t kMaxLabels = 0xFFFF;
  uint32_t serializeLen() const noexcept { return kBinaryHeadLen + 4 * labels(); }
  // Writes serializeLen() bytes; throws Kel::SizeError for a stack above kMaxLabels.
  uint32_t serialize(uint8_t* out) const;
  // Reads the record at `in` (`len` bytes available) and returns its length. Throws
  // Kel::SizeError when the record runs past `len`, Kel::RangeException for a label above
  // the label type's bound.
  uint32_t deserialize(const uint8_t* in, size_t len);
  static uint32_t deserializeLen(const uint8_t* in, size_t len);
};

}  // namespace Netbase
