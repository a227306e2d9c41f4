// Range types: bounded integers, one-field values `value` with a minimum and a maximum.
//
//   KEL_RANGE(LfibViaIndexRange, "Mpls::LfibViaIndexRange", uint8_t, 0, 127);
//
// Constructing one from an integer outside [min, max] (whatever the integer's width)
// raises Kel::RangeException with the text
//   "LfibViaIndexRange::value < LfibViaIndexRange::min or > LfibViaIndexRange::max not allowed".
// `+` with an integer gives a range value without a bound check. The default value is the
// minimum. The text form is the decimal value. A type with members of its own, or whose
// upper bound has another name (MplsLabel's luWithdraw), derives from Kel::Range itself
// and declares KEL_RANGE_BODY.
#pragma once

#include <compare>
#include <concepts>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "Kel/Exception.h"
#include "Kel/Strep.h"

namespace Kel {

namespace internal {
[[noreturn]] void throwRange(std::string_view name, std::string_view maxName);
}

template <class Derived, class Rep>
class Range {
 public:
  using ValueType = Rep;

  constexpr Range() noexcept : value_(Derived::kelMin) {}
  template <std::integral I>
  constexpr Range(I v) : value_(checked(v)) {}  // NOLINT: implicit by design

  constexpr Rep value() const noexcept { return value_; }

  // A value that skips the bound check (the result of `+`).
  static constexpr Derived unchecked(Rep v) noexcept {
    Derived d;
    d.value_ = v;
    return d;
  }
  template <std::integral I>
  constexpr Derived operator+(I delta) const noexcept {
    return unchecked(static_cast<Rep>(value_ + delta));
  }

  friend constexpr bool operator==(const Derived& a, const Derived& b) noexcept {
    return a.value_ == b.value_;
  }
  friend constexpr auto operator<=>(const Derived& a, const Derived& b) noexcept {
    return a.value_ <=> b.value_;
  }
  uint32_t hash(uint32_t seed = 0) const { return hashOf(static_cast<const Derived&>(*this), seed); }
  friend std::ostream& operator<<(std::ostream& os, const Derived& v) {
    return os << valueToStrep(v);
  }

 private:
  template <std::integral I>
  static constexpr Rep checked(I v) {
    if (std::cmp_less(v, Derived::kelMin) || std::cmp_greater(v, Derived::kelMax)) {
      internal::throwRange(Derived::kelRangeName, Derived::kelMaxName);
    }
    return static_cast<Rep>(v);
  }

  Rep value_;
};

}  // namespace Kel

// The members of a range class that derives from Kel::Range<Name, Rep> itself (to add
// constants or predicates of its own); MaxName names the upper bound in the range text.
#define KEL_RANGE_BODY(Name, QualName, Rep, Min, Max, MaxName)  \
 public:                                                        \
  using ::Kel::Range<Name, Rep>::Range;                         \
  static constexpr ::std::string_view kelRangeName = #Name;     \
  static constexpr ::std::string_view kelTypeName = QualName;   \
  static constexpr ::std::string_view kelMaxName = MaxName;     \
  static constexpr Rep kelMin = (Min);                          \
  static constexpr Rep kelMax = (Max);

#define KEL_RANGE(Name, QualName, Rep, Min, Max)                  \
  class Name : public ::Kel::Range<Name, Rep> {                   \
    KEL_RANGE_BODY(Name, QualName, Rep, Min, Max, "max")          \
    static constexpr Rep min = (Min);                             \
    static constexpr Rep max = (Max);                             \
  }
