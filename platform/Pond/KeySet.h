// Pond::KeySet<Key>: the set of keys a reading table keeps of its rows (see
// PondMap::changeHandlerIs). Keys numbered in sequence (labels, via and via-set indexes:
// Kel::OrdinalHash) are kept as presence bits in dense pages, an eighth of a byte each;
// other keys in a hash set. Not thread-safe.
#pragma once

#include <cstddef>
#include <utility>

#include <absl/container/flat_hash_set.h>

#include "Kel/OrdinalMap.h"
#include "Kel/Strep.h"

namespace Pond {

namespace internal {
template <class Key>
struct KeySetOf {
  using type = absl::flat_hash_set<Key, Kel::Hasher<Key>>;
};
template <Kel::OrdinalHash Key>
struct KeySetOf<Key> {
  using type = Kel::OrdinalMap<Key, Kel::Present>;
};
}  // namespace internal

template <class Key>
class KeySet {
  static constexpr bool kDense = Kel::OrdinalHash<Key>;
  using Set = typename internal::KeySetOf<Key>::type;

 public:
  void reserve(size_t n) {
    if constexpr (!kDense) {
      set_.reserve(n);
    }
  }
  void insert(const Key& k) {
    if constexpr (kDense) {
      set_.tryEmplace(k);
    } else {
      set_.insert(k);
    }
  }
  void erase(const Key& k) { set_.erase(k); }
  bool contains(const Key& k) const { return set_.contains(k); }
  size_t size() const noexcept { return set_.size(); }
  void clear() { set_.clear(); }
  // f(key) for every key. f must not change the set.
  template <class F>
  void forEach(F&& f) const {
    if constexpr (kDense) {
      set_.forEach([&](const Key& k, Kel::Present) { f(k); });
    } else {
      for (const Key& k : set_) {
        f(k);
      }
    }
  }

 private:
  Set set_;
};

}  // namespace Pond
