// Pond::IterHint: where an iteration over a table stopped, so that it can resume there.
// Tables iterate in slot order (the order of their storage, not of their keys): a row
// keeps its slot while it exists, so resuming at the slot after the last one returned
// visits every row present throughout, whatever changed in between.
#pragma once

#include <cstdint>
#include <string>

#include <fmt/format.h>

namespace Pond {

struct IterHint {
  uint64_t version = 0;  // the table's change counter when the hint last moved
  uint32_t slot = 0;     // the slot to resume at
  uint32_t bucket = 0;   // the bucket of the last row returned

  // "IterHint{ version 3, slot 7, bucket 2 }"
  std::string stringValue() const {
    return fmt::format("IterHint{{ version {}, slot {}, bucket {} }}", version, slot, bucket);
  }
  friend bool operator==(const IterHint&, const IterHint&) = default;
};

}  // namespace Pond
