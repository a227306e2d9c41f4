// Pond::Fib::FecId: the identifier of a forwarding equivalence class in the platform's
// forwarding tables (an opaque 64-bit number). Text form: the decimal value.
#pragma once

#include <cstdint>
#include <limits>

#include "Kel/Range.h"

namespace Pond::Fib {

KEL_RANGE(FecId, "Pond::Fib::FecId", uint64_t, 0, std::numeric_limits<uint64_t>::max());

}  // namespace Pond::Fib
