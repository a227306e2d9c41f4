#include "Kel/Range.h"

#include <fmt/format.h>

namespace Kel::internal {

void throwRange(std::string_view name, std::string_view maxName) {
  throw RangeException(
      fmt::format("{0}::value < {0}::min or > {0}::{1} not allowed", name, maxName));
}

}  // namespace Kel::internal
