// Kel::OrdinalMap<K, V>: a map for keys numbered in sequence (keys that declare
// KEL_HASH_ORDINAL: labels, via and via-set indexes).
//
// The keys that differ only in their ordinal form a domain (one source and via type, say).
// A domain keeps its values in pages of 1024 slots indexed by the ordinal, each page
// allocated when its first key comes and freed with its last one. A lookup finds the
// domain (the last one found is tried first), then makes two indexed loads: no hashing, no
// probing, and keys handed out in sequence sit next to each other in memory. A map of an
// empty type (Kel::OrdinalMap<K, Kel::Present>, a set) keeps only the presence bits.
//
// Ordinals of 2^22 and above, and the keys of domains beyond the 64th, are too sparse for
// pages: they go to a hash map, so any key works, only slower.
//
// Pointers to values stay valid until their key is erased. Iteration (forEach, begin/end)
// follows the domains, then the ordinals, then the hash map; an iterator yields a
// (key, value) pair by value, the key rebuilt from its domain and ordinal. Adding or
// erasing keys invalidates iterators. Not thread-safe.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include <absl/container/node_hash_map.h>

#include "Kel/Value.h"

namespace Kel {

// The value of a set's members in an OrdinalMap: pages of it hold no values at all.
struct Present {
  friend bool operator==(Present, Present) { return true; }
};

template <OrdinalHash K, class V>
class OrdinalMap {
  struct Page;
  using Sparse = absl::node_hash_map<K, V, Hasher<K>>;

 public:
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = std::pair<K, const V&>;
    using reference = value_type;
    using difference_type = std::ptrdiff_t;

    const_iterator() = default;
    reference operator*() const {
      if (domain_ < map_->domains_.size()) {
        K key = map_->domains_[domain_].base;
        key.kelHashOrdinalIs(ordinal_);
        return {key, page_->values[ordinal_ & kSlotMask]};
      }
      return {sparse_->first, sparse_->second};
    }
    const_iterator& operator++() {
      if (domain_ < map_->domains_.size()) {
        seek(uint64_t{ordinal_} + 1);
      } else {
        ++sparse_;
      }
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.domain_ == b.domain_ && a.ordinal_ == b.ordinal_ && a.sparse_ == b.sparse_;
    }

   private:
    friend class OrdinalMap;
    const_iterator(const OrdinalMap* map, size_t domain, typename Sparse::const_iterator sparse)
        : map_(map), domain_(domain), sparse_(sparse) {}

    // To the first element at or after `from` in the current domain, else in the domains
    // after it, else the first of the hash map.
    void seek(uint64_t from) {
      const auto& domains = map_->domains_;
      for (; domain_ < domains.size(); ++domain_, from = 0) {
        const auto& pages = domains[domain_].pages;
        uint32_t slot = static_cast<uint32_t>(from & kSlotMask);
        for (size_t p = from >> kPageBits; p < pages.size(); ++p, slot = 0) {
          const Page* page = pages[p].get();
          if (!page) {
            continue;
          }
          const uint32_t found = page->firstFrom(slot);
          if (found < kPageSize) {
            page_ = page;
            ordinal_ = static_cast<uint32_t>(p << kPageBits) | found;
            return;
          }
        }
      }
      page_ = nullptr;
      ordinal_ = 0;
      sparse_ = map_->sparse_.begin();
    }

    const OrdinalMap* map_ = nullptr;
    size_t domain_ = 0;  // == domains_.size(): in the hash map
    uint32_t ordinal_ = 0;
    const Page* page_ = nullptr;
    typename Sparse::const_iterator sparse_;  // the hash map's end() while in the pages
  };

  OrdinalMap() = default;
  OrdinalMap(const OrdinalMap&) = delete;
  OrdinalMap& operator=(const OrdinalMap&) = delete;
  OrdinalMap(OrdinalMap&&) noexcept = default;
  OrdinalMap& operator=(OrdinalMap&&) noexcept = default;

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

  // Removes `k` and returns its value; nullopt when it was absent.
  std::optional<V> take(const K& k) {
    V* stored = find(k);
    if (!stored) {
      return std::nullopt;
    }
    std::optional<V> old(std::move(*stored));
    erase(k);
    return old;
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
    for (const auto& [key, value] : *this) {
      f(key, value);
    }
  }

  const_iterator begin() const {
    const_iterator it(this, 0, sparse_.end());
    it.seek(0);
    return it;
  }
  const_iterator end() const { return const_iterator(this, domains_.size(), sparse_.end()); }

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

  // The values of a set's page: none, every slot reads as the one empty value.
  struct NoValues {
    V& operator[](size_t) const noexcept {
      static V none;
      return none;
    }
  };
  using Values = std::conditional_t<std::is_empty_v<V>, NoValues, std::array<V, kPageSize>>;

  struct Page {
    [[no_unique_address]] Values values{};
    std::array<uint64_t, kPageSize / 64> present{};
    uint32_t count = 0;

    bool has(uint32_t slot) const noexcept { return (present[slot / 64] >> (slot % 64)) & 1; }
    // The first present slot from `slot` on; kPageSize when there is none.
    uint32_t firstFrom(uint32_t slot) const noexcept {
      for (uint32_t word = slot / 64; word < kPageSize / 64; ++word) {
        uint64_t bits = present[word];
        if (word == slot / 64) {
          bits &= ~uint64_t{0} << (slot % 64);
        }
        if (bits != 0) {
          return word * 64 + static_cast<uint32_t>(__builtin_ctzll(bits));
        }
      }
      return kPageSize;
    }
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
  static bool sameDomain(const K& a, const K& b) {
    if constexpr (std::has_unique_object_representations_v<K>) {
      return std::memcmp(&a, &b, sizeof(K)) == 0;
    } else {
      return a == b;
    }
  }

  // Where `k` lives. dense: in a page of its domain (page null when that page, or the
  // domain, does not exist and !make); otherwise in the hash map.
  struct Where {
    bool dense = false;
    Domain* domain = nullptr;
    Page* page = nullptr;
  };
  // The common case inline: an existing page of the domain found last.
  [[gnu::always_inline]] Where locate(const K& k, bool make) {
    const uint32_t ordinal = k.kelHashOrdinal();
    if (ordinal < kDenseLimit && last_ < domains_.size()) {
      Domain& domain = domains_[last_];
      const uint32_t index = ordinal >> kPageBits;
      if (index < domain.pages.size() && domain.pages[index] &&
          sameDomain(domain.base, baseOf(k))) {
        return {true, &domain, domain.pages[index].get()};
      }
    }
    return locateSlow(k, make);
  }

  [[gnu::noinline]] Where locateSlow(const K& k, bool make) {
    const uint32_t ordinal = k.kelHashOrdinal();
    if (ordinal >= kDenseLimit) {
      return {};
    }
    const K base = baseOf(k);
    Domain* domain = nullptr;
    for (size_t d = 0; d < domains_.size(); ++d) {
      if (sameDomain(domains_[d].base, base)) {
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
  Sparse sparse_;
  size_t size_ = 0;
};

}  // namespace Kel
