// Mpls::LfibViaKey names one via of the LFIB: the source that owns it, the via
// collection it lives in (its via type) and its number within (source, viaType). Three
// separate 32-bit fields. The default key (all zero) is the empty via key: an empty slot
// of a via set holds it.
#pragma once

#include <cstdint>
#include <type_traits>

#include "Kel/Value.h"
#include "types/Mpls/MplsTypes.h"

namespace Mpls {

class LfibViaKey {
 public:
  KEL_VALUE(LfibViaKey, "Mpls::LfibViaKey",
            (LFib::Source, source),
            (LfibViaType, viaType),
            (uint32_t, index));
  // The via index allocator counts indices upwards.
  KEL_HASH_ORDINAL(index)
};

static_assert(sizeof(LfibViaKey) == 12 && std::is_trivially_copyable_v<LfibViaKey> &&
              std::is_standard_layout_v<LfibViaKey>);

}  // namespace Mpls
