// Enumerations: closed lists of named 32-bit values.
//
//   KEL_ENUM(LfibViaType, "Mpls::LfibViaType",
//            (viaTypeMplsUnknown, 0), (viaTypeMplsIp, 1), ...);
//
// declares the unscoped enumeration `LfibViaType : int32_t` in the current namespace and,
// beside it, its descriptor (kelEnumInfo), `operator<<`, `stringValue(v)` (the name) and
// `LfibViaTypeInstance(v)` / `LfibViaTypeInstance(name)` (the framework descriptor of one
// value; the second raises Kel::RangeException for a name that is not in the list).
// The text form is the enumerator's name; reading a name that is not in the list raises
// Kel::RangeException. The first enumerator listed is the default value. Values are given
// explicitly because they are shared with other processes through shared memory.
// Declare enumerations at namespace scope.
#pragma once

#include <cstdint>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>

#include "Kel/Strep.h"
#include "Kel/internal/Preprocessor.h"

namespace Kel {

// The descriptor of one value of an enumeration.
class EnumValue {
 public:
  constexpr EnumValue(const EnumInfo& info, int32_t value) : info_(&info), value_(value) {}
  static EnumValue fromName(const EnumInfo& info, std::string_view name) {
    const EnumEntry* e = info.find(name);
    if (!e) {
      internal::throwEnumName(info, name);
    }
    return EnumValue(info, e->value);
  }
  constexpr int32_t value() const { return value_; }
  // The enumerator's name; empty for a value that has none.
  constexpr std::string_view name() const { return info_->nameOf(value_); }
  constexpr std::string_view typeName() const { return info_->typeName; }
  constexpr const EnumInfo& info() const { return *info_; }
  friend constexpr bool operator==(const EnumValue& a, const EnumValue& b) {
    return a.info_ == b.info_ && a.value_ == b.value_;
  }

 private:
  const EnumInfo* info_;
  int32_t value_;
};

template <KelEnum E>
constexpr const EnumInfo& enumInfo() {
  return kelEnumInfo(static_cast<E*>(nullptr));
}

// True when `v` is one of the enumeration's listed values.
template <KelEnum E>
constexpr bool enumHasName(E v) {
  return !enumInfo<E>().nameOf(static_cast<int32_t>(v)).empty();
}

}  // namespace Kel

#define KEL_ENUM_DECL_(ctx, e) KEL_PP_APPLY(KEL_ENUM_DECL__, e)
#define KEL_ENUM_DECL__(name, value) name = (value)
#define KEL_ENUM_ENTRY_(ctx, e) KEL_PP_APPLY(KEL_ENUM_ENTRY__, e)
#define KEL_ENUM_ENTRY__(name, value) ::Kel::EnumEntry{#name, (value)}

#define KEL_ENUM(Name, QualName, ...)                                                        \
  enum Name : int32_t { KEL_PP_FOR_EACH_COMMA(KEL_ENUM_DECL_, _, __VA_ARGS__) };             \
  inline constexpr ::Kel::EnumEntry kelEnumEntries_##Name[] = {                              \
      KEL_PP_FOR_EACH_COMMA(KEL_ENUM_ENTRY_, _, __VA_ARGS__)};                               \
  inline constexpr ::Kel::EnumInfo kelEnumInfo_##Name{                                       \
      QualName, #Name, kelEnumEntries_##Name, ::std::size(kelEnumEntries_##Name)};           \
  constexpr const ::Kel::EnumInfo& kelEnumInfo(Name*) { return kelEnumInfo_##Name; }        \
  inline ::std::ostream& operator<<(::std::ostream& os, Name v) {                            \
    return os << ::Kel::valueToStrep(v);                                                     \
  }                                                                                          \
  inline ::std::string stringValue(Name v) { return ::Kel::valueToStrep(v); }                \
  inline ::Kel::EnumValue Name##Instance(Name v) {                                           \
    return ::Kel::EnumValue(kelEnumInfo_##Name, v);                                          \
  }                                                                                          \
  inline ::Kel::EnumValue Name##Instance(::std::string_view name) {                          \
    return ::Kel::EnumValue::fromName(kelEnumInfo_##Name, name);                             \
  }                                                                                          \
  static_assert(true, "")
