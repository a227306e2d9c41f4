// Fixed-capacity arrays: up to N elements held inline, indexed by a range type whose
// bounds are 0..N-1, with a count that is one more than the highest index in use.
//
// Rules (shared by every array attribute):
//   - set(i, e) at or beyond the count raises the count to i + 1; slots in between hold
//     the default element (Kel::defaultValue<T>(): an enumeration's first enumerator);
//   - del(i) returns the removed element (a default element when i is at or beyond the
//     count). Deleting in the middle resets that slot and moves nothing; deleting the last
//     slot lowers the count and then drops every default element that is now last;
//   - delAll() sets the count to 0;
//   - iteration runs over the slots below the count, in index order.
// Only the slots below the count are kept: creating, copying, comparing or emptying an
// array costs its count, not its capacity. Elements are trivially copyable.
// An index outside 0..N-1 is refused by the index type's range check. Equality compares
// the count and the slots below it.
//
// Inside a value type, KEL_ARRAY_ACCESSORS(ArrayType, name) adds the accessors of the
// attribute `name`: name(i), names() (the count), nameIs(i, e), nameDel(i),
// nameDel(iterator), nameDelAll().
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Kel/Binary.h"
#include "Kel/Strep.h"

namespace Kel {

template <class T, uint32_t N, class IndexT>
class FixedArray {
  static_assert(IndexT::kelMin == 0 && IndexT::kelMax == N - 1,
                "the index type must span the array's capacity");
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>,
                "fixed arrays hold plain values");

 public:
  using value_type = T;
  using Index = IndexT;
  using const_iterator = const T*;
  static constexpr uint32_t capacity = N;

  FixedArray() noexcept {}
  FixedArray(const FixedArray& o) noexcept : count_(o.count_) {
    std::memcpy(slots_, o.slots_, sizeof(T) * count_);
  }
  FixedArray& operator=(const FixedArray& o) noexcept {
    if (this != &o) {
      count_ = o.count_;
      std::memmove(slots_, o.slots_, sizeof(T) * count_);
    }
    return *this;
  }

  uint32_t count() const noexcept { return count_; }
  bool empty() const noexcept { return count_ == 0; }

  const T& at(Index i) const noexcept {
    uint32_t idx = i.value();
    return idx < count_ ? slots_[idx] : defaultElement();
  }
  const T& operator[](Index i) const noexcept { return at(i); }

  void set(Index i, const T& e) {
    uint32_t idx = i.value();
    for (uint32_t gap = count_; gap < idx; ++gap) {
      slots_[gap] = defaultElement();
    }
    slots_[idx] = e;
    if (idx >= count_) {
      count_ = idx + 1;
    }
  }

  T del(Index i) {
    uint32_t idx = i.value();
    if (idx >= count_) {
      return defaultElement();
    }
    T removed = slots_[idx];
    slots_[idx] = defaultElement();
    if (idx + 1 == count_) {
      --count_;
      while (count_ > 0 && slots_[count_ - 1] == defaultElement()) {
        --count_;
      }
    }
    return removed;
  }
  T del(const_iterator it) { return del(Index(static_cast<uint32_t>(it - slots_))); }

  void delAll() noexcept { count_ = 0; }

  const_iterator begin() const noexcept { return slots_; }
  const_iterator end() const noexcept { return slots_ + count_; }

  friend bool operator==(const FixedArray& a, const FixedArray& b) {
    if (a.count_ != b.count_) {
      return false;
    }
    for (uint32_t i = 0; i < a.count_; ++i) {
      if (!(a.slots_[i] == b.slots_[i])) {
        return false;
      }
    }
    return true;
  }
  friend bool operator<(const FixedArray& a, const FixedArray& b) {
    uint32_t n = a.count_ < b.count_ ? a.count_ : b.count_;
    for (uint32_t i = 0; i < n; ++i) {
      if (a.slots_[i] < b.slots_[i]) {
        return true;
      }
      if (b.slots_[i] < a.slots_[i]) {
        return false;
      }
    }
    return a.count_ < b.count_;
  }

  void kelHashFeed(HashAccumulator& a) const {
    a.add(count_);
    for (uint32_t i = 0; i < count_; ++i) {
      hashFeed(a, slots_[i]);
    }
  }
  void kelWriteStrep(StrepWriter& w) const {
    w.put('[');
    for (uint32_t i = 0; i < count_; ++i) {
      if (i) {
        w.put(", ");
      }
      strepWrite(w, slots_[i]);
    }
    w.put(']');
  }
  static FixedArray kelReadStrep(StrepReader& r) {
    FixedArray a;
    r.expect("[");
    if (r.consume("]")) {
      return a;
    }
    uint32_t i = 0;
    do {
      if (i == N) {
        r.fail(std::string("at most ") + std::to_string(N) + " elements");
      }
      a.slots_[i] = strepRead<T>(r);
      a.count_ = ++i;
    } while (r.consume(", "));
    r.expect("]");
    return a;
  }

  // The array's binary form: a 7-byte head (count: 4 bytes, capacity: 2 bytes, element
  // size: 1 byte; host byte order), then the elements below the count as they are in
  // memory. Only for elements that are trivially copyable.
  static constexpr uint32_t kBinaryHeadLen = 7;
  uint32_t serializeLen() const noexcept { return kBinaryHeadLen + count_ * sizeof(T); }
  uint32_t serialize(uint8_t* out) const noexcept {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) < 256);
    uint16_t cap = N;
    uint8_t elem = sizeof(T);
    std::memcpy(out, &count_, 4);
    std::memcpy(out + 4, &cap, 2);
    std::memcpy(out + 6, &elem, 1);
    std::memcpy(out + kBinaryHeadLen, slots_, count_ * sizeof(T));
    return serializeLen();
  }
  // Reads the array from `in` (`len` bytes available); returns the bytes read. Throws
  // Kel::SizeError when the head claims more than the capacity or more than `len`.
  uint32_t deserialize(const uint8_t* in, size_t len) {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) < 256);
    uint32_t need = deserializeLen(in, len);
    uint32_t count;
    std::memcpy(&count, in, 4);
    std::memcpy(slots_, in + kBinaryHeadLen, count * sizeof(T));
    count_ = count;
    return need;
  }
  static uint32_t deserializeLen(const uint8_t* in, size_t len) {
    requireLength(in, len, kBinaryHeadLen);
    uint32_t count;
    uint16_t cap;
    uint8_t elem;
    std::memcpy(&count, in, 4);
    std::memcpy(&cap, in + 4, 2);
    std::memcpy(&elem, in + 6, 1);
    if (count > N) {
      throwSizeExceeded(N, count, in, len);
    }
    if (cap != N || elem != sizeof(T)) {
      throw SizeError("fixed array of " + std::to_string(cap) + " elements of " +
                      std::to_string(elem) + " bytes where " + std::to_string(N) +
                      " elements of " + std::to_string(sizeof(T)) + " bytes were expected");
    }
    uint32_t need = kBinaryHeadLen + count * static_cast<uint32_t>(sizeof(T));
    requireLength(in, len, need);
    return need;
  }

 private:
  static const T& defaultElement() {
    static const T d = defaultValue<T>();
    return d;
  }

  uint32_t count_ = 0;
  union {
    T slots_[N];  // only the first count_ are alive
  };
};

}  // namespace Kel

#define KEL_ARRAY_ACCESSORS(ArrayT, name)                                                   \
  const ArrayT::value_type& name(ArrayT::Index i) const noexcept { return name##_.at(i); } \
  uint32_t name##s() const noexcept { return name##_.count(); }                            \
  void name##Is(ArrayT::Index i, const ArrayT::value_type& e) { name##_.set(i, e); }       \
  ArrayT::value_type name##Del(ArrayT::Index i) { return name##_.del(i); }                 \
  ArrayT::value_type name##Del(ArrayT::const_iterator it) { return name##_.del(it); }      \
  void name##DelAll() { name##_.delAll(); }
