// Kel::storedValueValid: whether a value copied from memory that another process wrote
// (a shared-memory table's row, a key in its change log) keeps its type's invariants.
//
// A value copied as bytes skips every constructor: a damaged byte may leave a bounded
// value out of its range, a flag set with undefined bits, a bool that is neither 0 nor 1
// (reading it is undefined behaviour) or a fixed array counting more slots than it has.
// The check walks the type's field list, as the other derived operations do, and reads a
// bool's byte without reading it as a bool. Enumerations may hold any value of their
// 32-bit type (unknown values print as numbers) and are not checked. Checking a value of
// numbers alone costs nothing.
//
// Returns true when `v` is valid. Otherwise `fault`, when not null, receives the path of
// the bad field and what is wrong with it: "key.label: 8388609 outside 0..8388608".
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "Kel/Strep.h"

namespace Kel {

namespace internal {

template <class T>
bool storedValid(const T& v, std::string* fault);

template <class T>
concept StoredFlagSet = requires(const T& v) {
  T::kelFlags;
  v.value();
};

template <class T>
concept StoredFixedArray = requires(const T& v) {
  T::capacity;
  typename T::value_type;
  v.count();
};

[[gnu::cold, gnu::noinline]] inline bool storedFault(std::string* fault, std::string text) {
  if (fault) {
    *fault = std::move(text);
  }
  return false;
}

// Prefixes the path of a nested fault with the field's name (or index).
[[gnu::cold, gnu::noinline]] inline bool storedIn(bool ok, std::string* fault, std::string_view name) {
  if (!ok && fault) {
    *fault = std::string(name) + (fault->starts_with(':') || fault->starts_with('[') ? "" : ".") +
             *fault;
  }
  return ok;
}

template <class T>
bool storedValid(const T& v, std::string* fault) {
  if constexpr (std::is_same_v<T, bool>) {
    uint8_t byte;
    std::memcpy(&byte, &v, 1);
    return byte <= 1 || storedFault(fault, ": a bool holds " + std::to_string(byte));
  } else if constexpr (RangeType<T>) {
    const auto x = v.value();
    return (!std::cmp_less(x, T::kelMin) && !std::cmp_greater(x, T::kelMax)) ||
           storedFault(fault, ": " + std::to_string(x) + " outside " +
                                            std::to_string(T::kelMin) + ".." +
                                            std::to_string(T::kelMax));
  } else if constexpr (StoredFlagSet<T>) {
    uint32_t defined = 0;
    for (const auto& f : T::kelFlags) {
      defined |= 1u << f.bit;
    }
    return (v.value() & ~defined) == 0 ||
           storedFault(fault, ": undefined flag bits in " + std::to_string(v.value()));
  } else if constexpr (ValueType<T>) {
    bool ok = true;
    std::apply(
        [&](const auto&... f) {
          // The path is made only for a fault: a valid value costs its checks alone.
          ((ok = ok && (storedValid(v.*(std::remove_cvref_t<decltype(f)>::member), fault) ||
                        storedIn(false, fault, f.name))),
           ...);
        },
        T::kelFields());
    return ok;
  } else if constexpr (StoredFixedArray<T>) {
    if (v.count() > T::capacity) {
      return storedFault(fault, ": counts " + std::to_string(v.count()) +
                                              " slots of " + std::to_string(T::capacity));
    }
    uint32_t i = 0;
    for (const auto& e : v) {
      if (!storedValid(e, fault)) {
        return storedIn(false, fault, "[" + std::to_string(i) + "]");
      }
      ++i;
    }
    return true;
  } else if constexpr (StdArray<T> || Sequence<T>) {
    if constexpr (std::is_arithmetic_v<typename T::value_type> &&
                  !std::is_same_v<typename T::value_type, bool>) {
      return true;
    } else {
      size_t i = 0;
      for (const auto& e : v) {
        if (!storedValid(e, fault)) {
          return storedIn(false, fault, "[" + std::to_string(i) + "]");
        }
        ++i;
      }
      return true;
    }
  } else {
    return true;
  }
}

}  // namespace internal

template <class T>
bool storedValueValid(const T& v, std::string* fault = nullptr) {
  if (internal::storedValid(v, fault)) [[likely]] {
    return true;
  }
  if (fault && fault->starts_with(": ")) {
    fault->erase(0, 2);
  }
  return false;
}

}  // namespace Kel
