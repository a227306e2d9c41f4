// L3::VrfName: the name of a VRF, at most 100 bytes, without zero bytes. A longer name
// raises Kel::RangeException "VrfName::value::bytes > VrfName::maxLength not allowed".
// Text form: the name, quoted ('red').
#pragma once

#include <cstdint>
#include <string_view>

#include "Kel/String.h"
#include "Kel/Value.h"

namespace L3 {

class VrfName {
 public:
  KEL_VALUE_BASE(VrfName, "L3::VrfName", (Kel::String, value));

  explicit VrfName(std::string_view name);
  KEL_VALUE_STREP_CTOR(VrfName)

  static constexpr uint32_t maxLength() noexcept { return 100; }
  // The name of the default VRF.
  static VrfName defaultVrf() { return VrfName("default"); }

  uint32_t bytes() const noexcept { return static_cast<uint32_t>(value_.size()); }
  bool empty() const noexcept { return value_.empty(); }
  const char* c_str() const noexcept { return value_.c_str(); }
  const std::string& stringValue() const noexcept { return value_.stringValue(); }

  void kelWriteStrep(Kel::StrepWriter& w) const { w.putQuoted(value_.view()); }
  static VrfName kelReadStrep(Kel::StrepReader& r);
};

}  // namespace L3
