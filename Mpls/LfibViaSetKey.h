// Mpls::LfibViaSetKey names one via set of the LFIB. Four separate 32-bit fields; the
// index stands second, before the via type (unlike in LfibViaKey), and the text form,
// the hash and the ordering keep this order. Every via of the set has the key's via type.
#pragma once

#include <cstdint>
#include <type_traits>

#include "Kel/Value.h"
#include "types/Mpls/MplsTypes.h"

namespace Mpls {

class LfibViaSetKey {
 public:
  KEL_VALUE(LfibViaSetKey, "Mpls::LfibViaSetKey",
            (LFib::Source, source),
            (uint32_t, index),
            (LfibViaType, viaType),
            (LfibViaSetType, viaSetType));
  // The via index allocator counts indices upwards.
  KEL_HASH_ORDINAL(index)
};

static_assert(sizeof(LfibViaSetKey) == 16 && std::is_trivially_copyable_v<LfibViaSetKey> &&
              std::is_standard_layout_v<LfibViaSetKey>);

}  // namespace Mpls
