// Kel::OrdinalMap<K, V>: a map for keys numbered in sequence (keys that declare
// KEL_HASH_ORDINAL: labels, via and via-set indexes).
//
// The keys that differ only in their ordinal form a domain (one source and via type, say).
// A domain keeps its values in pages of 1024 slots indexed by the ordinal, each page
// allocated when its first key comes and freed with its last one. A lookup finds the
// domain (the last one found is tried first), then makes two indexed loads: no hashing, no
// probing, and keys handed out in sequence sit next to each other in memory.
//
// Ordinals of 2^22 and above, and the keys of domains beyond the 64th, are too sparse for
// pages: they go to a hash map, so any key works, only slower.
//
// Pointers to values stay valid until their key is erased. Iteration (forEach) follows
// the domains, then the ordinals, then the hash map. Not thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <absl/container/node_hash_map.h>

#include "Kel/Value.h"

namespace Kel {

template <OrdinalHash K, class V>
class OrdinalMap {
 public:
  OrdinalMap() = default;
  OrdinalMap(const OrdinalMap&) = delete;
  OrdinalMap& operator=(const OrdinalMap&) = delete;

  V* find(const K& k) {
    const Where where = locate(k, false);
    if (where.dense) {
      const uint32_t slot = k.kelHashOrdinal() & kSlotMask;
      return where.page && where.page->has(slot) ? &where.page->values[slot] : nullptr;
    }
    auto it = sparse_.find(k);
    return it == sparse_.end() ? nullptr : &it->second;
  }
  const V* find(const K& k) const { return const_cast<OrdinalMap*>(this)->find(k); }
  bool contains(const K& k) const { return find(k) != nullptr; }

  // The value of `k`, default-constructed when absent; true when it was inserted.
  std::pair<V*, bool> tryEmplace(const K& k) {
    const Where where = locate(k, true);
    if (where.dense) {
      const uint32_t slot = k.kelHashOrdinal() & kSlotMask;
      const bool inserted = !where.page->has(slot);
      if (inserted) {
        where.page->mark(slot);
        ++size_;
      }
      return {&where.page->values[slot], inserted};
    }
    auto [it, inserted] = sparse_.try_emplace(k);
    size_ += inserted;
    return {&it->second, inserted};
  }

  // Removes `k` and its value; false when it was absent.
  bool erase(const K& k) {
    const Where where = locate(k, false);
    if (where.dense) {
      const uint32_t slot = k.kelHashOrdinal() & kSlotMask;
      if (!where.page || !where.page->has(slot)) {
        return false;
      }
      where.page->unmark(slot);
      --size_;
      if (where.page->count == 0) {
        where.domain->pages[k.kelHashOrdinal() >> kPageBits].reset();
      } else {
        where.page->values[slot] = V();
      }
      return true;
    }
    if (sparse_.erase(k) == 0) {
      return false;
    }
    --size_;
    return true;
  }

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  void clear() {
    domains_.clear();
    sparse_.clear();
    size_ = 0;
    last_ = 0;
  }

  // f(key, value) for every element. f must not add or erase keys.
  template <class F>
  void forEach(F&& f) const {
    for (const Domain& domain : domains_) {
      for (size_t p = 0; p < domain.pages.size(); ++p) {
        const Page* page = domain.pages[p].get();
        if (!page) {
          continue;
        }
        for (uint32_t word = 0; word < kPageSize / 64; ++word) {
          for (uint64_t bits = page->present[word]; bits != 0; bits &= bits - 1) {
            const uint32_t slot = word * 64 + static_cast<uint32_t>(__builtin_ctzll(bits));
            K key = domain.base;
            key.kelHashOrdinalIs(static_cast<uint32_t>(p << kPageBits) | slot);
            f(std::as_const(key), page->values[slot]);
          }
        }
      }
    }
    for (const auto& [key, value] : sparse_) {
      f(key, value);
    }
  }

  // The keys, in the order of forEach.
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(size_);
    forEach([&](const K& k, const V&) { out.push_back(k); });
    return out;
  }

 private:
  static constexpr uint32_t kPageBits = 10;
  static constexpr uint32_t kPageSize = 1u << kPageBits;
  static constexpr uint32_t kSlotMask = kPageSize - 1;
  static constexpr uint32_t kDenseLimit = 1u << 22;
  static constexpr size_t kMaxDomains = 64;

  struct Page {
    std::array<V, kPageSize> values{};
    std::array<uint64_t, kPageSize / 64> present{};
    uint32_t count = 0;

    bool has(uint32_t slot) const noexcept { return (present[slot / 64] >> (slot % 64)) & 1; }
    void mark(uint32_t slot) noexcept {
      present[slot / 64] |= uint64_t{1} << (slot % 64);
      ++count;
    }
    void unmark(uint32_t slot) noexcept {
      present[slot / 64] &= ~(uint64_t{1} << (slot % 64));
      --count;
    }
  };

  struct Domain {
    K base;  // a key of the domain with ordinal 0
    std::vector<std::unique_ptr<Page>> pages;
  };

  static K baseOf(const K& k) {
    K base = k;
    base.kelHashOrdinalIs(0);
    return base;
  }

  // Where `k` lives. dense: in a page of its domain (page null when that page, or the
  // domain, does not exist and !make); otherwise in the hash map.
  struct Where {
    bool dense = false;
    Domain* domain = nullptr;
    Page* page = nullptr;
  };
  Where locate(const K& k, bool make) {
    const uint32_t ordinal = k.kelHashOrdinal();
    if (ordinal >= kDenseLimit) {
      return {};
    }
    const K base = baseOf(k);
    Domain* domain = nullptr;
    if (last_ < domains_.size() && domains_[last_].base == base) {
      domain = &domains_[last_];
    } else {
      for (size_t d = 0; d < domains_.size(); ++d) {
        if (domains_[d].base == base) {
          last_ = d;
          domain = &domains_[d];
          break;
        }
      }
      if (!domain) {
        if (domains_.size() >= kMaxDomains) {
          return {};
        }
        if (!make) {
          return {true, nullptr, nullptr};
        }
        last_ = domains_.size();
        domain = &domains_.emplace_back(Domain{base, {}});
      }
    }
    const uint32_t index = ordinal >> kPageBits;
    if (index >= domain->pages.size()) {
      if (!make) {
        return {true, domain, nullptr};
      }
      domain->pages.resize(index + 1);
    }
    std::unique_ptr<Page>& page = domain->pages[index];
    if (!page && make) {
      page = std::make_unique<Page>();
    }
    return {true, domain, page.get()};
  }

  std::vector<Domain> domains_;
  mutable size_t last_ = 0;  // the domain found last; find() const moves it too
  absl::node_hash_map<K, V, Hasher<K>> sparse_;
  size_t size_ = 0;
};

}  // namespace Kel
