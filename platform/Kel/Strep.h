// Text forms ("streps") of values, and the generic operations that every kind of value
// shares: text writing, strict text reading, hashing and default values.
//
// One text form per value, read back strictly:
//   value type    Value('Mpls::LfibViaKey', ** {'source': sourceStatic, 'viaType': ..., 'index': 1})
//   enumeration   its enumerator's name (a value with no name: its decimal number)
//   range type    its decimal value
//   bool          True / False
//   number        decimal; floating point in the shortest form that reads back exactly
//   string        single-quoted, with \\ \' \n \r \t and \xNN escapes
//   sequence      [a, b, c] (std::vector and alikes, std::array)
//
// How a type takes part (checked in this order by strepWrite/strepRead/hashFeed):
//   - it defines kelWriteStrep(StrepWriter&) const and static kelReadStrep(StrepReader&)
//     (and kelHashFeed(HashAccumulator&) const): its own text form and hash;
//   - it is a value type (KEL_VALUE, Kel/Value.h): fields in declaration order;
//   - it is an enumeration declared with KEL_ENUM, a range type (Kel/Range.h), a number,
//     bool, std::string or a sequence (std::vector and alikes).
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

#include "Kel/Exception.h"
#include "Kel/Hash.h"

namespace Kel {

// Marks text handed to a value's constructor from text: T(Kel::Strep(text)).
struct Strep {
  explicit Strep(std::string_view t) : text(t) {}
  std::string_view text;
};

// Appends text forms to a std::string.
class StrepWriter {
 public:
  explicit StrepWriter(std::string& out) : out_(out) {}
  void put(std::string_view s) { out_.append(s); }
  void put(char c) { out_.push_back(c); }
  template <std::integral I>
  void putInteger(I v) {
    char buf[24];
    auto r = std::to_chars(buf, buf + sizeof(buf), v);
    out_.append(buf, r.ptr);
  }
  void putDouble(double v);
  void putQuoted(std::string_view bytes);
  std::string& out() { return out_; }

 private:
  std::string& out_;
};

// Strict, sequential reader of text forms. Every failure throws Kel::ParseError naming
// what was expected, the offset and the text found there.
class StrepReader {
 public:
  explicit StrepReader(std::string_view text) : text_(text) {}

  bool atEnd() const { return pos_ == text_.size(); }
  size_t position() const { return pos_; }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  std::string_view rest() const { return text_.substr(pos_); }

  // Requires `literal` at the current position and moves past it.
  void expect(std::string_view literal);
  // Moves past `literal` if it stands at the current position.
  bool consume(std::string_view literal);
  void expectEnd();

  uint64_t readUnsigned();
  int64_t readSigned();
  double readDouble();
  bool readBool();
  // [A-Za-z_][A-Za-z0-9_]*
  std::string_view readIdentifier();
  std::string readQuoted();
  // The longest run of characters accepted by `accept`, at least one.
  template <class Pred>
  std::string_view readToken(Pred accept, std::string_view what) {
    size_t start = pos_;
    while (pos_ < text_.size() && accept(text_[pos_])) {
      ++pos_;
    }
    if (pos_ == start) {
      fail(what);
    }
    return text_.substr(start, pos_ - start);
  }

  [[noreturn]] void fail(std::string_view expected) const;
  [[noreturn]] void failAt(size_t pos, std::string_view expected) const;

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

// ---------------------------------------------------------------------------------------
// Enumeration descriptors (filled by KEL_ENUM, Kel/Enum.h).

struct EnumEntry {
  std::string_view name;
  int32_t value;
};

struct EnumInfo {
  std::string_view typeName;  // qualified, e.g. "Mpls::LfibViaType"
  std::string_view shortName; // e.g. "LfibViaType"
  const EnumEntry* entries;
  size_t count;

  // The name of `value`, or an empty view when the value has no name.
  constexpr std::string_view nameOf(int32_t value) const {
    for (size_t i = 0; i < count; ++i) {
      if (entries[i].value == value) {
        return entries[i].name;
      }
    }
    return {};
  }
  const EnumEntry* find(std::string_view name) const {
    for (size_t i = 0; i < count; ++i) {
      if (entries[i].name == name) {
        return &entries[i];
      }
    }
    return nullptr;
  }
};

// ---------------------------------------------------------------------------------------
// Kinds of types.

template <class T>
concept CustomStrep = requires(const T& v, StrepWriter& w, StrepReader& r) {
  v.kelWriteStrep(w);
  { T::kelReadStrep(r) } -> std::same_as<T>;
};

template <class T>
concept CustomHash = requires(const T& v, HashAccumulator& a) { v.kelHashFeed(a); };

template <class T>
concept ValueType = requires {
  T::kelFields();
  { T::kelTypeName } -> std::convertible_to<std::string_view>;
};

template <class T>
concept KelEnum = std::is_enum_v<T> && requires(T* p) {
  { kelEnumInfo(p) } -> std::same_as<const EnumInfo&>;
};

template <class T>
concept RangeType = requires(const T& v) {
  T::kelRangeName;
  T::kelMin;
  T::kelMax;
  v.value();
};

template <class T>
struct IsStdArray : std::false_type {};
template <class E, size_t N>
struct IsStdArray<std::array<E, N>> : std::true_type {};
template <class T>
concept StdArray = IsStdArray<T>::value;

template <class T>
concept Sequence = requires(T& s, const T& cs) {
  typename T::value_type;
  cs.begin();
  cs.end();
  cs.size();
  s.push_back(std::declval<typename T::value_type>());
} && !std::is_same_v<T, std::string>;

// Types with a framework text form: formatted with {fmt} and printed by operator<<.
template <class T>
concept HasStrep = CustomStrep<T> || ValueType<T> || KelEnum<T> || RangeType<T>;

template <auto Member>
struct Field;

// ---------------------------------------------------------------------------------------
// Writing.

template <class T>
void strepWrite(StrepWriter& w, const T& v);

namespace internal {

template <class T, auto... Members>
void writeFields(StrepWriter& w, const T& v, std::tuple<Field<Members>...> fields) {
  bool first = true;
  std::apply(
      [&](const auto&... f) {
        (
            [&] {
              w.put(first ? "'" : ", '");
              first = false;
              w.put(f.name);
              w.put("': ");
              strepWrite(w, v.*(std::remove_cvref_t<decltype(f)>::member));
            }(),
            ...);
      },
      fields);
}

template <class T>
void writeValue(StrepWriter& w, const T& v) {
  w.put("Value('");
  w.put(T::kelTypeName);
  w.put("', ** {");
  writeFields(w, v, T::kelFields());
  w.put("})");
}

}  // namespace internal

template <class T>
void strepWrite(StrepWriter& w, const T& v) {
  if constexpr (CustomStrep<T>) {
    v.kelWriteStrep(w);
  } else if constexpr (ValueType<T>) {
    internal::writeValue(w, v);
  } else if constexpr (KelEnum<T>) {
    auto name = kelEnumInfo(static_cast<T*>(nullptr)).nameOf(static_cast<int32_t>(v));
    if (name.empty()) {
      w.putInteger(static_cast<int32_t>(v));
    } else {
      w.put(name);
    }
  } else if constexpr (RangeType<T>) {
    w.putInteger(v.value());
  } else if constexpr (std::is_same_v<T, bool>) {
    w.put(v ? "True" : "False");
  } else if constexpr (std::is_integral_v<T>) {
    w.putInteger(v);
  } else if constexpr (std::is_floating_point_v<T>) {
    w.putDouble(static_cast<double>(v));
  } else if constexpr (std::is_same_v<T, std::string>) {
    w.putQuoted(v);
  } else if constexpr (Sequence<T> || StdArray<T>) {
    w.put('[');
    bool first = true;
    for (const auto& e : v) {
      if (!first) {
        w.put(", ");
      }
      first = false;
      strepWrite(w, e);
    }
    w.put(']');
  } else {
    static_assert(sizeof(T) == 0, "type has no text form");
  }
}

// ---------------------------------------------------------------------------------------
// Reading.

template <class T>
T strepRead(StrepReader& r);

namespace internal {

[[noreturn]] void throwEnumName(const EnumInfo& info, std::string_view name);

template <class T, auto... Members>
void readFields(StrepReader& r, T& v, std::tuple<Field<Members>...> fields) {
  bool first = true;
  std::apply(
      [&](const auto&... f) {
        (
            [&] {
              r.expect(first ? "'" : ", '");
              first = false;
              r.expect(f.name);
              r.expect("': ");
              using FieldT =
                  std::remove_cvref_t<decltype(v.*(std::remove_cvref_t<decltype(f)>::member))>;
              try {
                v.*(std::remove_cvref_t<decltype(f)>::member) = strepRead<FieldT>(r);
              } catch (const RangeException& e) {
                throw e.withAttribute(f.name);
              }
            }(),
            ...);
      },
      fields);
}

template <class T>
T readValue(StrepReader& r) {
  r.expect("Value('");
  r.expect(T::kelTypeName);
  r.expect("', ** {");
  T v{};
  readFields(r, v, T::kelFields());
  r.expect("})");
  return v;
}

[[noreturn]] void throwIntegerRange(std::string_view text, int64_t min, uint64_t max);

// A number that does not fit its field is out of range (Kel::RangeException), like a
// range type's value, so that the reader names the field.
template <class I>
I readInteger(StrepReader& r) {
  constexpr auto lo = std::numeric_limits<I>::min();
  constexpr auto hi = std::numeric_limits<I>::max();
  if (r.peek() == '-') {
    int64_t v = r.readSigned();
    if (std::cmp_less(v, lo)) {
      throwIntegerRange(std::to_string(v), lo, hi);
    }
    return static_cast<I>(v);
  }
  uint64_t v = r.readUnsigned();
  if (std::cmp_greater(v, hi)) {
    throwIntegerRange(std::to_string(v), lo, hi);
  }
  return static_cast<I>(v);
}

}  // namespace internal

template <class T>
T strepRead(StrepReader& r) {
  if constexpr (CustomStrep<T>) {
    return T::kelReadStrep(r);
  } else if constexpr (ValueType<T>) {
    return internal::readValue<T>(r);
  } else if constexpr (KelEnum<T>) {
    const EnumInfo& info = kelEnumInfo(static_cast<T*>(nullptr));
    char c = r.peek();
    if (c == '-' || (c >= '0' && c <= '9')) {
      return static_cast<T>(internal::readInteger<int32_t>(r));
    }
    auto name = r.readIdentifier();
    const EnumEntry* e = info.find(name);
    if (!e) {
      internal::throwEnumName(info, name);
    }
    return static_cast<T>(e->value);
  } else if constexpr (RangeType<T>) {
    // Read wide, so that the range check (not the width of the value) refuses "256" for a
    // range of 8 bits.
    if (r.peek() == '-') {
      return T(r.readSigned());
    }
    return T(r.readUnsigned());
  } else if constexpr (std::is_same_v<T, bool>) {
    return r.readBool();
  } else if constexpr (std::is_integral_v<T>) {
    return internal::readInteger<T>(r);
  } else if constexpr (std::is_floating_point_v<T>) {
    return static_cast<T>(r.readDouble());
  } else if constexpr (std::is_same_v<T, std::string>) {
    return r.readQuoted();
  } else if constexpr (StdArray<T>) {
    T a{};
    r.expect("[");
    for (size_t i = 0; i < a.size(); ++i) {
      if (i) {
        r.expect(", ");
      }
      a[i] = strepRead<typename T::value_type>(r);
    }
    r.expect("]");
    return a;
  } else if constexpr (Sequence<T>) {
    T s{};
    r.expect("[");
    if (!r.consume("]")) {
      do {
        s.push_back(strepRead<typename T::value_type>(r));
      } while (r.consume(", "));
      r.expect("]");
    }
    return s;
  } else {
    static_assert(sizeof(T) == 0, "type has no text form");
  }
}

// ---------------------------------------------------------------------------------------
// Hashing: every field in declaration order, one 32-bit word at a time.

template <class T>
void hashFeed(HashAccumulator& a, const T& v) {
  if constexpr (CustomHash<T>) {
    v.kelHashFeed(a);
  } else if constexpr (ValueType<T>) {
    std::apply(
        [&](const auto&... f) { (hashFeed(a, v.*(std::remove_cvref_t<decltype(f)>::member)), ...); },
        T::kelFields());
  } else if constexpr (KelEnum<T>) {
    a.add(static_cast<uint32_t>(v));
  } else if constexpr (RangeType<T>) {
    hashFeed(a, v.value());
  } else if constexpr (std::is_integral_v<T>) {
    if constexpr (sizeof(T) <= 4) {
      a.add(static_cast<uint32_t>(v));
    } else {
      a.add64(static_cast<uint64_t>(v));
    }
  } else if constexpr (std::is_floating_point_v<T>) {
    double d = v == 0 ? 0.0 : static_cast<double>(v);  // -0.0 == 0.0
    uint64_t bits;
    std::memcpy(&bits, &d, sizeof bits);
    a.add64(bits);
  } else if constexpr (std::is_same_v<T, std::string>) {
    a.addBytes(v);
  } else if constexpr (StdArray<T> && sizeof(typename T::value_type) == 1) {
    // Bytes are packed four to a word; the size is fixed, so it is not fed.
    size_t i = 0;
    for (; i + 4 <= v.size(); i += 4) {
      uint32_t w;
      std::memcpy(&w, v.data() + i, 4);
      a.add(w);
    }
    if (i < v.size()) {
      uint32_t w = 0;
      std::memcpy(&w, v.data() + i, v.size() - i);
      a.add(w);
    }
  } else if constexpr (StdArray<T>) {
    for (const auto& e : v) {
      hashFeed(a, e);
    }
  } else if constexpr (Sequence<T>) {
    a.add(static_cast<uint32_t>(v.size()));
    for (const auto& e : v) {
      hashFeed(a, e);
    }
  } else {
    static_assert(sizeof(T) == 0, "type cannot be hashed");
  }
}

namespace internal {

// True when a value's memory is exactly the words hashFeed would feed: every field a
// 32-bit number, enumeration or range value, or such a value itself, with no padding.
template <class T>
constexpr bool isWordImage() {
  if constexpr (CustomHash<T>) {
    return false;
  } else if constexpr (ValueType<T>) {
    if constexpr (!std::is_trivially_copyable_v<T> || !std::is_standard_layout_v<T>) {
      return false;
    } else {
      size_t bytes = 0;
      bool words = std::apply(
          [&](const auto&... f) {
            return ((bytes += sizeof(std::remove_cvref_t<decltype(std::declval<const T&>().*(
                                   std::remove_cvref_t<decltype(f)>::member))>),
                     isWordImage<std::remove_cvref_t<decltype(std::declval<const T&>().*(
                         std::remove_cvref_t<decltype(f)>::member))>>()) &&
                    ...);
          },
          T::kelFields());
      return words && bytes == sizeof(T);
    }
  } else if constexpr (KelEnum<T> || std::is_integral_v<T>) {
    return sizeof(T) == 4 && !std::is_same_v<T, bool>;
  } else if constexpr (RangeType<T>) {
    return sizeof(T) == 4 && std::is_trivially_copyable_v<T>;
  } else {
    return false;
  }
}

}  // namespace internal

// A key numbered from a counter (a label, an index handed out in sequence) may name that
// number, its ordinal, with KEL_HASH_ORDINAL(field). Its hash then keeps the ordinal's low
// kHashOrdinalBits bits as its own low bits and draws the rest from the whole key with
// those bits cleared: keys with neighbouring ordinals land in neighbouring buckets of a
// table indexed by the hash's low bits, so that a walk in key order reads memory in order,
// while blocks of 2^kHashOrdinalBits ordinals are spread over the table as by any hash.
constexpr uint32_t kHashOrdinalBits = 6;

template <class T>
concept OrdinalHash = requires(const T& v, T& m, uint32_t o) {
  { v.kelHashOrdinal() } -> std::same_as<uint32_t>;
  m.kelHashOrdinalIs(o);
};

template <class T>
uint32_t hashOfValue(const T& v, uint32_t seed);

template <class T>
uint32_t hashOf(const T& v, uint32_t seed = 0) {
  if constexpr (OrdinalHash<T>) {
    constexpr uint32_t lowMask = (1u << kHashOrdinalBits) - 1;
    const uint32_t ordinal = v.kelHashOrdinal();
    T block = v;
    block.kelHashOrdinalIs(ordinal & ~lowMask);
    return (hashOfValue(block, seed) & ~lowMask) | (ordinal & lowMask);
  } else {
    return hashOfValue(v, seed);
  }
}

template <class T>
uint32_t hashOfValue(const T& v, uint32_t seed) {
  if constexpr (internal::isWordImage<T>() &&
                sizeof(T) <= HashAccumulator::kBlockWords * sizeof(uint32_t)) {
    // The same words as below, read from the value itself.
    return HashAccumulator::ofWords(&v, sizeof(T), seed);
  } else {
    HashAccumulator a(seed);
    hashFeed(a, v);
    return a.result();
  }
}

// ---------------------------------------------------------------------------------------
// Default values: numbers 0, enumerations their first enumerator, everything else its
// default constructor.

template <class T>
constexpr T defaultValue() {
  if constexpr (KelEnum<T>) {
    const EnumInfo& info = kelEnumInfo(static_cast<T*>(nullptr));
    return info.count ? static_cast<T>(info.entries[0].value) : T{};
  } else {
    return T{};
  }
}

template <class T, class A>
constexpr T defaultValue(A&& declared) {
  return T(std::forward<A>(declared));
}

// ---------------------------------------------------------------------------------------
// Entry points.

template <class T>
std::string valueToStrep(const T& v) {
  std::string out;
  StrepWriter w(out);
  strepWrite(w, v);
  return out;
}

// Reads a whole text: the value and nothing after it. Value types go through their
// constructor from text, T(Kel::Strep(text)).
template <class T>
T strepToValue(std::string_view text) {
  if constexpr (ValueType<T> && std::is_constructible_v<T, Strep>) {
    return T(Strep(text));
  } else {
    StrepReader r(text);
    T v = strepRead<T>(r);
    r.expectEnd();
    return v;
  }
}

namespace internal {

// What a value type's constructor from text runs.
template <class T>
T readWhole(std::string_view text) {
  StrepReader r(text);
  T v = strepRead<T>(r);
  r.expectEnd();
  return v;
}

}  // namespace internal
}  // namespace Kel

// {fmt} prints every framework type in its text form.
template <class T>
  requires Kel::HasStrep<T>
struct fmt::formatter<T, char> : fmt::formatter<std::string_view, char> {
  template <class Ctx>
  auto format(const T& v, Ctx& ctx) const {
    return fmt::formatter<std::string_view, char>::format(Kel::valueToStrep(v), ctx);
  }
};
