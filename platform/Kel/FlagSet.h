// Flag sets: a set of named flags held as bits of one 32-bit word.
//
//   KEL_FLAGS(LfibViaSetFlags, "Mpls::LfibViaSetFlags", (burnPrimaryVias, 0));
//
// declares the value type LfibViaSetFlags with, per flag, `burnPrimaryVias()` and
// `burnPrimaryViasIs(bool)`, plus `value()` (the word). Constructing one from an integer
// (of any width) keeps only the bits of defined flags; a negative integer or one with a
// bit above the highest defined flag raises Kel::EnumSetRangeException
// ("LfibViaSetFlags::value > LfibViaSetFlags::max not allowed"): nothing is silently
// truncated. The text form reads and writes each flag as a boolean attribute:
// "Value('Mpls::LfibViaSetFlags', ** {'burnPrimaryVias': False})".
#pragma once

#include <concepts>
#include <cstdint>
#include <utility>
#include <iterator>
#include <ostream>
#include <string_view>

#include "Kel/Exception.h"
#include "Kel/Strep.h"
#include "Kel/internal/Preprocessor.h"

namespace Kel {

struct FlagInfo {
  std::string_view name;
  uint32_t bit;
};

namespace internal {
[[noreturn]] void throwFlagSetRange(std::string_view name);
}

template <class Derived>
class FlagSet {
 public:
  constexpr FlagSet() noexcept = default;

  constexpr uint32_t value() const noexcept { return bits_; }

  friend constexpr bool operator==(const Derived& a, const Derived& b) noexcept {
    return a.bits_ == b.bits_;
  }
  friend constexpr bool operator<(const Derived& a, const Derived& b) noexcept {
    return a.bits_ < b.bits_;
  }
  uint32_t hash(uint32_t seed = 0) const { return hashOf(static_cast<const Derived&>(*this), seed); }
  friend std::ostream& operator<<(std::ostream& os, const Derived& v) {
    return os << valueToStrep(v);
  }

  void kelHashFeed(HashAccumulator& a) const { a.add(bits_); }
  void kelWriteStrep(StrepWriter& w) const {
    w.put("Value('");
    w.put(Derived::kelTypeName);
    w.put("', ** {");
    bool first = true;
    for (const FlagInfo& f : Derived::kelFlags) {
      w.put(first ? "'" : ", '");
      first = false;
      w.put(f.name);
      w.put("': ");
      strepWrite(w, test(f.bit));
    }
    w.put("})");
  }
  static Derived kelReadStrep(StrepReader& r) {
    r.expect("Value('");
    r.expect(Derived::kelTypeName);
    r.expect("', ** {");
    Derived d;
    bool first = true;
    for (const FlagInfo& f : Derived::kelFlags) {
      r.expect(first ? "'" : ", '");
      first = false;
      r.expect(f.name);
      r.expect("': ");
      d.set(f.bit, r.readBool());
    }
    r.expect("})");
    return d;
  }

 protected:
  constexpr bool test(uint32_t bit) const noexcept { return (bits_ >> bit) & 1u; }
  constexpr void set(uint32_t bit, bool on) noexcept {
    bits_ = on ? (bits_ | (1u << bit)) : (bits_ & ~(1u << bit));
  }
  template <std::integral I>
  static constexpr uint32_t checked(I v) {
    uint32_t defined = 0;
    uint32_t highest = 0;
    for (const FlagInfo& f : Derived::kelFlags) {
      defined |= 1u << f.bit;
      highest = f.bit > highest ? f.bit : highest;
    }
    uint64_t limit = (uint64_t{2} << highest) - 1;
    if (std::cmp_less(v, 0) || std::cmp_greater(v, limit)) {
      internal::throwFlagSetRange(Derived::kelRangeName);
    }
    return static_cast<uint32_t>(v) & defined;
  }

  uint32_t bits_ = 0;
};

}  // namespace Kel

#define KEL_FLAGS_ACCESSORS_(ctx, f) KEL_PP_APPLY(KEL_FLAGS_ACCESSORS__, f)
#define KEL_FLAGS_ACCESSORS__(name, bit)                  \
  constexpr bool name() const noexcept { return test(bit); } \
  constexpr void name##Is(bool on) noexcept { set(bit, on); }
#define KEL_FLAGS_INFO_(ctx, f) KEL_PP_APPLY(KEL_FLAGS_INFO__, f)
#define KEL_FLAGS_INFO__(name, bit) ::Kel::FlagInfo{#name, (bit)}

#define KEL_FLAGS(Name, QualName, ...)                                                   \
  class Name : public ::Kel::FlagSet<Name> {                                             \
   public:                                                                               \
    static constexpr ::std::string_view kelTypeName = QualName;                          \
    static constexpr ::std::string_view kelRangeName = #Name;                            \
    static constexpr ::Kel::FlagInfo kelFlags[] = {                                      \
        KEL_PP_FOR_EACH_COMMA(KEL_FLAGS_INFO_, _, __VA_ARGS__)};                          \
    constexpr Name() noexcept = default;                                                 \
    template <::std::integral I>                                                         \
    constexpr explicit Name(I v) {                                                       \
      bits_ = checked(v);                                                                \
    }                                                                                    \
    KEL_PP_FOR_EACH(KEL_FLAGS_ACCESSORS_, _, __VA_ARGS__)                                \
    friend class ::Kel::FlagSet<Name>;                                                   \
  }
