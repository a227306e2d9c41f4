#include "Kel/FlagSet.h"

#include <fmt/format.h>

namespace Kel::internal {

void throwFlagSetRange(std::string_view name) {
  throw EnumSetRangeException(fmt::format("{0}::value > {0}::max not allowed", name));
}

}  // namespace Kel::internal
