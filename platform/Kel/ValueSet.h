// Kel::ValueSet<T>: a hash set of values keyed by the whole value (hash and equality over
// every field). Two sets are equal when they hold the same values, whatever their storage
// order; ordering and the text form go through the sorted values, so both are stable.
// Text form: "{a, b, c}" with the values in ascending order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <vector>

#include <absl/container/flat_hash_set.h>

#include "Kel/Strep.h"
#include "Kel/Value.h"

namespace Kel {

template <class T>
class ValueSet {
  using Set = absl::flat_hash_set<T, Hasher<T>>;

 public:
  using value_type = T;
  using const_iterator = typename Set::const_iterator;

  // Inserts `v` unless an equal value is present; returns the stored value and whether it
  // was inserted.
  std::pair<const T&, bool> insert(const T& v) {
    auto [it, inserted] = set_.insert(v);
    return {*it, inserted};
  }
  bool erase(const T& v) { return set_.erase(v) > 0; }
  bool contains(const T& v) const { return set_.contains(v); }
  void clear() { set_.clear(); }
  size_t size() const noexcept { return set_.size(); }
  bool empty() const noexcept { return set_.empty(); }
  const_iterator begin() const { return set_.begin(); }
  const_iterator end() const { return set_.end(); }

  // The values in ascending order.
  std::vector<T> sorted() const {
    std::vector<T> v(set_.begin(), set_.end());
    std::sort(v.begin(), v.end());
    return v;
  }

  friend bool operator==(const ValueSet& a, const ValueSet& b) { return a.set_ == b.set_; }
  friend std::ostream& operator<<(std::ostream& os, const ValueSet& s) {
    return os << valueToStrep(s);
  }
  friend bool operator<(const ValueSet& a, const ValueSet& b) {
    auto x = a.sorted();
    auto y = b.sorted();
    return std::lexicographical_compare(x.begin(), x.end(), y.begin(), y.end());
  }

  // Order-independent: the count, then the sum and the xor of the values' hashes.
  void kelHashFeed(HashAccumulator& a) const {
    uint32_t sum = 0;
    uint32_t x = 0;
    for (const T& v : set_) {
      uint32_t h = hashOf(v);
      sum += h;
      x ^= h;
    }
    a.add(static_cast<uint32_t>(set_.size()));
    a.add(sum);
    a.add(x);
  }
  void kelWriteStrep(StrepWriter& w) const {
    w.put('{');
    bool first = true;
    for (const T& v : sorted()) {
      if (!first) {
        w.put(", ");
      }
      first = false;
      strepWrite(w, v);
    }
    w.put('}');
  }
  static ValueSet kelReadStrep(StrepReader& r) {
    ValueSet s;
    r.expect("{");
    if (r.consume("}")) {
      return s;
    }
    do {
      s.insert(strepRead<T>(r));
    } while (r.consume(", "));
    r.expect("}");
    return s;
  }

 private:
  Set set_;
};

}  // namespace Kel
