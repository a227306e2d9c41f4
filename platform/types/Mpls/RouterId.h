// Mpls::RouterId: a router as the label-distribution and segment-routing tables name it,
// its 32-bit router id and the label space its labels come from (0, the platform-wide
// space, for nearly every router). With the label space it is the 6-octet LDP identifier
// of RFC 5036, which rtrIdValue() and lblSpaceValue() give.
//
// Text form: "Value('Mpls::RouterId', ** {'rtrId': 167772161, 'lblSpace': 0})"; an operator
// reads and writes it as "10.0.0.1:0" (stringValue(), parse()).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Kel/Value.h"

namespace Mpls {

class RouterId {
 public:
  KEL_VALUE(RouterId, "Mpls::RouterId", (uint32_t, rtrId), (uint16_t, lblSpace));

  uint32_t rtrIdValue() const noexcept { return rtrId_; }
  uint16_t lblSpaceValue() const noexcept { return lblSpace_; }

  // "10.0.0.1:0"
  std::string stringValue() const;
  // "A.B.C.D:SPACE" (a dotted-quad router id and a label space up to 65535); nullopt when
  // the text is anything else.
  static std::optional<RouterId> parse(std::string_view text);
};

namespace internal {
// The dotted quad of a 32-bit router id, and its reader ("10.0.0.1"; nullopt otherwise).
std::string dottedQuad(uint32_t id);
std::optional<uint32_t> parseDottedQuad(std::string_view text);
// "A.B.C.D:SPACE" into a router id and a label space.
bool parseIdAndSpace(std::string_view text, uint32_t& id, uint16_t& space);
}  // namespace internal

}  // namespace Mpls
