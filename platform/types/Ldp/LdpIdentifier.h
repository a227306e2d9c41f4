// Ldp::LdpIdentifier: the 6-octet LDP identifier of RFC 5036, an LSR id and a label space.
// An Mpls::RouterId names the same peer: LdpIdentifier(routerId) takes its rtrIdValue()
// and lblSpaceValue().
//
// Text form: "Value('Ldp::LdpIdentifier', ** {'lsrId': 167772161, 'lblSpace': 0})"; an
// operator reads and writes it as "10.0.0.1:0" (stringValue(), parse()).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Kel/Value.h"
#include "types/Mpls/RouterId.h"

namespace Ldp {

class LdpIdentifier {
 public:
  KEL_VALUE(LdpIdentifier, "Ldp::LdpIdentifier", (uint32_t, lsrId), (uint16_t, lblSpace));

  explicit LdpIdentifier(const Mpls::RouterId& r)
      : lsrId_(r.rtrIdValue()), lblSpace_(r.lblSpaceValue()) {}
  Mpls::RouterId routerId() const noexcept { return Mpls::RouterId(lsrId_, lblSpace_); }

  // "10.0.0.1:0"
  std::string stringValue() const { return routerId().stringValue(); }
  static std::optional<LdpIdentifier> parse(std::string_view text) {
    std::optional<Mpls::RouterId> r = Mpls::RouterId::parse(text);
    return r ? std::optional<LdpIdentifier>(LdpIdentifier(*r)) : std::nullopt;
  }
};

}  // namespace Ldp
