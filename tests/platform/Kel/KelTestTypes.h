// Small types shared by the Kel tests.
#pragma once

#include <cstdint>

#include "Kel/Enum.h"
#include "Kel/FlagSet.h"
#include "Kel/Range.h"
#include "Kel/Value.h"

namespace Demo {

// The first enumerator is not 0 and one value is negative, so that defaults follow the
// list and ordering follows the signed value.
KEL_ENUM(Source, "Demo::Source", (sourceStatic, 3), (sourceLdp, -2), (sourceBgp, 7));
KEL_ENUM(Color, "Demo::Color", (red, 0), (green, 1), (blue, 7));
KEL_RANGE(IdxRange, "Demo::IdxRange", uint8_t, 0, 3);
KEL_FLAGS(Flags, "Demo::Flags", (on, 0), (up, 2));

class Key {
  KEL_VALUE(Key, "Demo::Key", (Source, source), (IdxRange, index));
};

}  // namespace Demo
