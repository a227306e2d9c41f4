// Value types: plain records of fields, copied and compared by value.
//
// A value type is declared once by its ordered field list; everything else is derived
// from that list, generically:
//
//   class LfibViaKey {
//     KEL_VALUE(LfibViaKey, "Mpls::LfibViaKey",
//               (LFib::Source, source),
//               (LfibViaType, viaType),
//               (uint32_t, index));
//   };
//
// gives, for every field `f` of type F: the member `f_` (initialised to the field's
// declared default: a third tuple element, else Kel::defaultValue<F>()), the getter
// `const F& f() const` and the setter `void fIs(const F&)`; then the default constructor,
// the constructor from all fields in field order (explicit when there is one field), the
// constructor from text `T(Kel::Strep(text))`, `operator==` (all fields equal),
// `operator<` (lexicographic in field order), `hash(seed)` (the fields fed to the hash
// accumulator in order), `operator<<` and the text form (Kel::valueToStrep).
//
// A field type with a comma in it needs an alias. A value type that wants its own text
// form defines kelWriteStrep/kelReadStrep (see Kel/Strep.h). Two smaller forms leave
// more to the type: KEL_VALUE_CORE (no constructor from text; the type declares its own,
// or KEL_VALUE_STREP_CTOR) and KEL_VALUE_BASE (getters and the derived operations only:
// no setters and no constructor but the default one, for types that keep an invariant).
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "Kel/Strep.h"
#include "Kel/internal/Preprocessor.h"

namespace Kel {

// One field of a value type: the member it designates and its name in the text form.
template <auto Member>
struct Field {
  static constexpr auto member = Member;
  std::string_view name;
};

template <ValueType T>
bool valueEqual(const T& a, const T& b) {
  return std::apply(
      [&](const auto&... f) {
        return ((a.*(std::remove_cvref_t<decltype(f)>::member) ==
                 b.*(std::remove_cvref_t<decltype(f)>::member)) &&
                ...);
      },
      T::kelFields());
}

template <ValueType T>
int valueCompare(const T& a, const T& b);

namespace internal {
// Bytes in lexicographic order (as unsigned), eight at a time: an IPv6 address in two steps.
template <size_t N>
int compareBytes(const uint8_t* a, const uint8_t* b) {
  size_t i = 0;
  for (; i + 8 <= N; i += 8) {
    uint64_t x;
    uint64_t y;
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    if (x != y) {
      if constexpr (std::endian::native == std::endian::little) {
        x = __builtin_bswap64(x);
        y = __builtin_bswap64(y);
      }
      return x < y ? -1 : 1;
    }
  }
  for (; i < N; ++i) {
    if (a[i] != b[i]) {
      return a[i] < b[i] ? -1 : 1;
    }
  }
  return 0;
}

template <class F>
concept ByteArray = StdArray<F> && std::same_as<typename F::value_type, uint8_t>;

// -1, 0 or 1 as x is below, equal to or above y by operator<. Value types, numbers and
// sequences are compared in one walk; a nested value type compared by two operator< calls
// would compare its own fields twice, and so on at every level below.
template <class F>
int compareField(const F& x, const F& y) {
  if constexpr (ValueType<F>) {
    return valueCompare(x, y);
  } else if constexpr (std::is_arithmetic_v<F> || std::is_enum_v<F>) {
    return (y < x) - (x < y);
  } else if constexpr (ByteArray<F>) {
    return compareBytes<std::tuple_size_v<F>>(x.data(), y.data());
  } else if constexpr (Sequence<F> || StdArray<F>) {
    auto i = x.begin();
    auto j = y.begin();
    for (; i != x.end() && j != y.end(); ++i, ++j) {
      if (int r = compareField(*i, *j)) {
        return r;
      }
    }
    return (j == y.end()) - (i == x.end());
  } else {
    if (x < y) {
      return -1;
    }
    return y < x ? 1 : 0;
  }
}
}  // namespace internal

// Three-way comparison in the order of operator< (lexicographic in field order).
template <ValueType T>
int valueCompare(const T& a, const T& b) {
  int r = 0;
  std::apply(
      [&](const auto&... f) {
        (void)((r = internal::compareField(a.*(std::remove_cvref_t<decltype(f)>::member),
                                           b.*(std::remove_cvref_t<decltype(f)>::member)),
                r == 0) &&
               ...);
      },
      T::kelFields());
  return r;
}

namespace internal {
template <class M>
struct MemberType;
template <class C, class M>
struct MemberType<M C::*> {
  using type = M;
};
template <class FieldT>
using FieldType = typename MemberType<std::remove_cv_t<decltype(FieldT::member)>>::type;
}  // namespace internal

// Whether the value type T has a field of type F.
template <class F, ValueType T>
constexpr bool hasFieldOfType() {
  return std::apply(
      [](auto... f) { return (std::is_same_v<internal::FieldType<decltype(f)>, F> || ...); },
      T::kelFields());
}

// The first field of `value` whose type is F (there must be one).
template <class F, ValueType T>
  requires(hasFieldOfType<F, T>())
const F& fieldOfType(const T& value) {
  const F* found = nullptr;
  auto pick = [&](auto f) {
    if constexpr (std::is_same_v<internal::FieldType<decltype(f)>, F>) {
      if (!found) {
        found = &(value.*(decltype(f)::member));
      }
    }
  };
  std::apply([&](auto... f) { (pick(f), ...); }, T::kelFields());
  return *found;
}

template <ValueType T>
bool valueLess(const T& a, const T& b) {
  return valueCompare(a, b) < 0;
}

// The shape of a type as text: a value type's name and fields, recursively, with the
// widths of its numbers ("Mpls::LfibViaKey{source:Mpls::LFib::Source/4;...}"). Two types
// with the same schema have the same memory layout; shared-memory tables fingerprint their
// rows with it.
template <class T>
std::string schemaOf() {
  if constexpr (ValueType<T>) {
    std::string s = std::string(T::kelTypeName) + "{";
    std::apply(
        [&](const auto&... f) {
          ((s += std::string(f.name) + ":" +
                 schemaOf<std::remove_cvref_t<decltype(std::declval<const T&>().*(
                     std::remove_cvref_t<decltype(f)>::member))>>() +
                 ";"),
           ...);
        },
        T::kelFields());
    if constexpr (OrdinalHash<T>) {
      // Hashed otherwise than by its fields alone: tables of it are laid out otherwise.
      s += "#ordinal" + std::to_string(kHashOrdinalBits);
    }
    return s + "}";
  } else if constexpr (KelEnum<T>) {
    return std::string(kelEnumInfo(static_cast<T*>(nullptr)).typeName) + "/" +
           std::to_string(sizeof(T));
  } else if constexpr (requires { T::kelTypeName; }) {
    return std::string(T::kelTypeName) + "/" + std::to_string(sizeof(T));
  } else if constexpr (requires { T::capacity; typename T::value_type; }) {
    return "[" + schemaOf<typename T::value_type>() + "*" + std::to_string(T::capacity) + "]";
  } else if constexpr (std::is_same_v<T, bool>) {
    return "bool";
  } else if constexpr (std::is_integral_v<T>) {
    return (std::is_signed_v<T> ? "i" : "u") + std::to_string(sizeof(T) * 8);
  } else if constexpr (std::is_floating_point_v<T>) {
    return "f" + std::to_string(sizeof(T) * 8);
  } else if constexpr (StdArray<T>) {
    return "[" + schemaOf<typename T::value_type>() + "*" +
           std::to_string(std::tuple_size_v<T>) + "]";
  } else if constexpr (Sequence<T>) {
    return "[" + schemaOf<typename T::value_type>() + "*]";
  } else {
    return "?" + std::to_string(sizeof(T));
  }
}

// Hash functor for hash containers keyed by framework values. The 32-bit framework hash
// is spread over 64 bits so that containers that take their control bits from the top
// (Abseil's Swiss tables) get well-mixed bits there too. Keys with an ordinal (see
// hashOf) keep their neighbours together in a Swiss table as well: it starts its probe at
// the bits above the low 7, which then carry the framework hash as it is, and takes its
// 7-bit tag from the low bits, which then differ between neighbours.
template <class T>
struct Hasher {
  size_t operator()(const T& v) const noexcept {
    const uint64_t h = hashOf(v);
    if constexpr (OrdinalHash<T>) {
      return static_cast<size_t>((h << 7) | ((h ^ (h >> 25)) & 0x7f));
    } else {
      return static_cast<size_t>(h * 0x9E3779B97F4A7C15ull);
    }
  }
};

namespace internal {

template <class F>
constexpr uint32_t ordinalOf(const F& f) noexcept {
  if constexpr (std::is_integral_v<F>) {
    return static_cast<uint32_t>(f);
  } else {
    return static_cast<uint32_t>(f.value());
  }
}

}  // namespace internal

}  // namespace Kel

// Inside a KEL_VALUE class: names the field that numbers the key (see Kel::hashOf). The
// field is a 32-bit unsigned number or a range of one.
#define KEL_HASH_ORDINAL(field)                                                      \
  uint32_t kelHashOrdinal() const noexcept { return ::Kel::internal::ordinalOf(field##_); } \
  void kelHashOrdinalIs(uint32_t o) noexcept { field##_ = decltype(field##_)(o); }

#define KEL_VALUE_PARAM_(ctx, f) KEL_PP_APPLY(KEL_VALUE_PARAM__, f)
#define KEL_VALUE_PARAM__(T, n, ...) const T& n
#define KEL_VALUE_INIT_(ctx, f) KEL_PP_APPLY(KEL_VALUE_INIT__, f)
#define KEL_VALUE_INIT__(T, n, ...) n##_(n)
#define KEL_VALUE_FIELD_(Type, f) KEL_PP_APPLY(KEL_VALUE_FIELD__, (Type, KEL_PP_APPLY(KEL_VALUE_UNPACK_, f)))
#define KEL_VALUE_UNPACK_(...) __VA_ARGS__
#define KEL_VALUE_FIELD__(Type, T, n, ...) ::Kel::Field<&Type::n##_>{#n}
#define KEL_VALUE_GETTER_(ctx, f) KEL_PP_APPLY(KEL_VALUE_GETTER__, f)
#define KEL_VALUE_GETTER__(T, n, ...) \
  const T& n() const noexcept { return n##_; }
#define KEL_VALUE_SETTER_(ctx, f) KEL_PP_APPLY(KEL_VALUE_SETTER__, f)
#define KEL_VALUE_SETTER__(T, n, ...) \
  void n##Is(const T& v) { n##_ = v; }
#define KEL_VALUE_MEMBER_(ctx, f) KEL_PP_APPLY(KEL_VALUE_MEMBER__, f)
#define KEL_VALUE_MEMBER__(T, n, ...) T n##_ = ::Kel::defaultValue<T>(__VA_ARGS__);

// Fields, getters and the derived operations; no setter and no constructor but the
// default one. For types that keep an invariant (a masked prefix, a bounded string): they
// write their own constructors and mutators.
#define KEL_VALUE_BASE(Type, QualName, ...)                                                  \
 public:                                                                                     \
  static constexpr ::std::string_view kelTypeName = QualName;                               \
  Type() = default;                                                                          \
  KEL_PP_FOR_EACH(KEL_VALUE_GETTER_, _, __VA_ARGS__)                                         \
  static constexpr auto kelFields() {                                                        \
    return ::std::tuple{KEL_PP_FOR_EACH_COMMA(KEL_VALUE_FIELD_, Type, __VA_ARGS__)};         \
  }                                                                                          \
  friend bool operator==(const Type& a, const Type& b) { return ::Kel::valueEqual(a, b); } \
  friend bool operator<(const Type& a, const Type& b) { return ::Kel::valueLess(a, b); }   \
  uint32_t hash(uint32_t seed = 0) const { return ::Kel::hashOf(*this, seed); }             \
  friend ::std::ostream& operator<<(::std::ostream& os, const Type& v) {                     \
    return os << ::Kel::valueToStrep(v);                                                     \
  }                                                                                          \
                                                                                             \
 private:                                                                                    \
  KEL_PP_FOR_EACH(KEL_VALUE_MEMBER_, _, __VA_ARGS__)                                         \
                                                                                             \
 public:

// KEL_VALUE_BASE, the setters and the constructor from all fields; no constructor from
// text.
#define KEL_VALUE_CORE(Type, QualName, ...)                         \
  KEL_VALUE_BASE(Type, QualName, __VA_ARGS__)                       \
  KEL_PP_FOR_EACH(KEL_VALUE_SETTER_, _, __VA_ARGS__)                \
  explicit(KEL_PP_COUNT(__VA_ARGS__) == 1)                          \
      Type(KEL_PP_FOR_EACH_COMMA(KEL_VALUE_PARAM_, _, __VA_ARGS__)) \
      : KEL_PP_FOR_EACH_COMMA(KEL_VALUE_INIT_, _, __VA_ARGS__) {}

// The constructor from text of a value type: Type(Kel::Strep(text)).
#define KEL_VALUE_STREP_CTOR(Type)     \
  explicit Type(::Kel::Strep kelStrep) \
      : Type(::Kel::internal::readWhole<Type>(kelStrep.text)) {}

#define KEL_VALUE(Type, QualName, ...)        \
  KEL_VALUE_CORE(Type, QualName, __VA_ARGS__) \
  KEL_VALUE_STREP_CTOR(Type)
