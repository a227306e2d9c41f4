// Routing::Isis::AreaId: an IS-IS area address (ISO 10589), 1 to 13 octets: what a NET
// holds before the system id, such as 49.0001.
//
// Fixed size (14 bytes, no padding), so that it can key a shared-memory table: the octets
// in a 13-octet array whose octets past the length are always zero, and the length. The
// default value is the empty area (length 0), what an unset key reads as; nothing else has
// length 0. Equality, ordering and hash come from the fields: areas order octet by octet,
// a shorter area before the longer ones it begins.
//
// Text: the octets in hex, the first alone, then in pairs separated by dots, an odd last
// octet alone: "49", "49.0001", "49.0001.0002", "47.0005.80ff.f8". The empty area is "-".
// The reader takes any grouping into whole octets ("490001", "49.00.01"), in either case.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Kel/Range.h"
#include "Kel/Value.h"

namespace Routing::Isis {

KEL_RANGE(AreaIdLen, "Routing::Isis::AreaIdLen", uint8_t, 0, 13);

class AreaId {
 public:
  static constexpr uint32_t maxLength = 13;
  using Octets = std::array<uint8_t, maxLength>;

  KEL_VALUE_BASE(AreaId, "Routing::Isis::AreaId", (Octets, octet), (AreaIdLen, len));

  // 1 to 13 octets; any other count raises Kel::RangeException
  // "AreaId::len < 1 or > AreaId::maxLength not allowed".
  explicit AreaId(std::span<const uint8_t> octets);
  // Parses the text form; throws Kel::ParseError naming the text when it is not an area.
  explicit AreaId(std::string_view text);
  KEL_VALUE_STREP_CTOR(AreaId)

  // The text form's reader without the exception: nullopt for anything but an area.
  static std::optional<AreaId> parse(std::string_view text);

  uint32_t length() const noexcept { return len_.value(); }
  bool empty() const noexcept { return len_.value() == 0; }
  std::span<const uint8_t> octets() const noexcept { return {octet_.data(), length()}; }
  std::string stringValue() const;

  void kelWriteStrep(Kel::StrepWriter& w) const { w.put(stringValue()); }
  static AreaId kelReadStrep(Kel::StrepReader& r);
};

}  // namespace Routing::Isis
