// The dump lines of the label-binding table rows (CommonLibPond, Ldp::LdpPond).
#pragma once

#include <fmt/format.h>

#include <string>

#include "Kel/Strep.h"

namespace Mpls::internal {

// "[<key's text form>]"
template <class Row>
std::string keyLine(const Row& row) {
  return "[" + Kel::valueToStrep(row.key()) + "]";
}

// "[<key's text form>] lastUpdate <seconds>"
template <class Row>
std::string lastUpdateLine(const Row& row) {
  return keyLine(row) + " lastUpdate " + Kel::valueToStrep(row.lastUpdate());
}

}  // namespace Mpls::internal
