#include "types/L3/VrfName.h"

namespace L3 {

VrfName::VrfName(std::string_view name) {
  if (name.size() > maxLength()) {
    throw Kel::RangeException("VrfName::value::bytes > VrfName::maxLength not allowed");
  }
  if (name.find('\0') != std::string_view::npos) {
    throw Kel::RangeException("VrfName::value with a zero byte not allowed");
  }
  value_ = Kel::String(name);
}

VrfName VrfName::kelReadStrep(Kel::StrepReader& r) { return VrfName(r.readQuoted()); }

}  // namespace L3
