#include "Mpls/TunnelTapIntfId.h"

namespace Netbase {

TunnelTapIntfId::TunnelTapIntfId(std::string_view name) : intfId_(0xffffffff, 0) {
  // Starts as the platform's "not yet parsed" identifier, then takes the parsed name's.
  intfId_.handleInitialized(name);
}

TunnelTapIntfId MplsTapIntfConstants::tunnelTapIntfId() {
  static const TunnelTapIntfId id("tunnelTap0");
  return id;
}

}  // namespace Netbase
