// The binary form of any value, derived from its type as the text form is: what the state
// database stores of an entity's attributes and keys.
//
//   Kel::encode(out, v)        appends v's bytes to `out` (a std::string used as a buffer)
//   Kel::decode<T>(reader)     reads a T back from a Kel::ByteReader; throws Kel::SizeError
//                              when the bytes run out, the type's own exception (a range
//                              exception, a parse error) when they do not make a T
//
// The form: a value type's fields in declaration order (all at once when the type has no
// padding and nothing but plain bytes: the common case of keys of 32-bit fields);
// enumerations as their 32-bit value, range types as their value, numbers and booleans as
// their host-order bytes; strings and sequences as a 32-bit count and their elements; a
// type with a text form of its own (addresses, interface names) as that text, counted.
// Equal values have equal bytes: a key's form can be compared and hashed as bytes.
// Host order, for processes of one machine.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Kel/Binary.h"
#include "Kel/Strep.h"
#include "Kel/String.h"

namespace Kel {

namespace internal {

template <class T>
concept PlainBytes = std::is_trivially_copyable_v<T> && std::has_unique_object_representations_v<T>;

template <class T>
void encodeCount(std::string& out, size_t n) {
  const uint32_t count = static_cast<uint32_t>(n);
  out.append(reinterpret_cast<const char*>(&count), sizeof(count));
}

inline std::string_view decodeBytes(ByteReader& in) {
  const uint32_t n = in.get<uint32_t>();
  const char* at = reinterpret_cast<const char*>(in.cursor());
  in.skip(n);
  return {at, n};
}

}  // namespace internal

template <class T>
void encode(std::string& out, const T& v) {
  using namespace internal;
  if constexpr (std::is_same_v<T, bool>) {
    out.push_back(v ? 1 : 0);
  } else if constexpr (std::is_arithmetic_v<T>) {
    out.append(reinterpret_cast<const char*>(&v), sizeof(T));
  } else if constexpr (KelEnum<T>) {
    const int32_t n = static_cast<int32_t>(v);
    out.append(reinterpret_cast<const char*>(&n), sizeof(n));
  } else if constexpr (RangeType<T>) {
    encode(out, v.value());
  } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, String>) {
    encodeCount<T>(out, v.size());
    out.append(v.data(), v.size());
  } else if constexpr (ValueType<T> && PlainBytes<T>) {
    out.append(reinterpret_cast<const char*>(&v), sizeof(T));
  } else if constexpr (ValueType<T> && !CustomStrep<T>) {
    std::apply([&](const auto&... f) { (encode(out, v.*(std::remove_cvref_t<decltype(f)>::member)), ...); },
               T::kelFields());
  } else if constexpr (CustomStrep<T>) {
    const std::string text = valueToStrep(v);
    encodeCount<T>(out, text.size());
    out.append(text);
  } else if constexpr (Sequence<T> || StdArray<T>) {
    encodeCount<T>(out, v.size());
    for (const auto& e : v) {
      encode(out, e);
    }
  } else {
    static_assert(sizeof(T) == 0, "type has no binary form");
  }
}

template <class T>
T decode(ByteReader& in) {
  using namespace internal;
  if constexpr (std::is_same_v<T, bool>) {
    return in.get<uint8_t>() != 0;
  } else if constexpr (std::is_arithmetic_v<T>) {
    return in.get<T>();
  } else if constexpr (KelEnum<T>) {
    return static_cast<T>(in.get<int32_t>());
  } else if constexpr (RangeType<T>) {
    return T(decode<std::remove_cvref_t<decltype(std::declval<const T&>().value())>>(in));
  } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, String>) {
    const std::string_view bytes = decodeBytes(in);
    return T(bytes.data(), bytes.size());
  } else if constexpr (ValueType<T> && PlainBytes<T>) {
    return in.get<T>();
  } else if constexpr (ValueType<T> && !CustomStrep<T>) {
    T v;
    std::apply([&](const auto&... f) {
      ((v.*(std::remove_cvref_t<decltype(f)>::member) =
            decode<std::remove_cvref_t<decltype(v.*(std::remove_cvref_t<decltype(f)>::member))>>(in)),
       ...);
    }, T::kelFields());
    return v;
  } else if constexpr (CustomStrep<T>) {
    return strepToValue<T>(std::string(decodeBytes(in)));
  } else if constexpr (StdArray<T>) {
    T a{};
    if (in.get<uint32_t>() != a.size()) {
      throw SizeError(fmt::format("expected an array of {} elements", a.size()));
    }
    for (auto& e : a) {
      e = decode<typename T::value_type>(in);
    }
    return a;
  } else if constexpr (Sequence<T>) {
    T s{};
    for (uint32_t n = in.get<uint32_t>(); n > 0; --n) {
      s.push_back(decode<typename T::value_type>(in));
    }
    return s;
  } else {
    static_assert(sizeof(T) == 0, "type has no binary form");
  }
}

// The binary form of `v` as a string.
template <class T>
std::string encoded(const T& v) {
  std::string out;
  encode(out, v);
  return out;
}

// A T from exactly these bytes; Kel::SizeError when bytes are left over.
template <class T>
T decoded(std::string_view bytes) {
  ByteReader in(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  T v = decode<T>(in);
  if (in.remaining() != 0) {
    throw SizeError(fmt::format("{} bytes left over after the value", in.remaining()));
  }
  return v;
}

}  // namespace Kel
