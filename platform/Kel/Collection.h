// Attributes and keyed collections of entities, with the generated accessor names.
//
// Inside an entity class (which declares its NotifieeConst, see Kel/Entity.h):
//
//   KEL_ATTR(T, name, Name [, default])     scalar:  name(), nameIs(v)
//   KEL_MAP_ATTR(K, V, name, Name)          K -> V:  name(k) (default V when absent),
//                                           nameHas(k), names() (count), nameIter(),
//                                           nameIs(k, v), nameDel(k) (returns the removed
//                                           value, default V when none), nameDelAll()
//   KEL_SET_ATTR(K, name, Name)             set:     name(k) (bool), names(), nameIter(),
//                                           nameIs(k, bool), nameDel(k), nameDelAll()
//   KEL_VALUE_COLL_ATTR(K, T, name, Name)   values keyed by T::key(): name(k) (default T
//                                           when absent), names(), nameIter(), nameIs(t)
//                                           (returns the stored value: the default one if
//                                           a handler removed it), nameCommit(const T*),
//                                           nameDel(k), nameDelAll()
//   KEL_ENTITY_COLL_ATTR(K, E, name, Name)  K -> Kel::Ptr<E>: name(k) (null when absent),
//                                           names(), nameIter(), nameIs(k, args...) (the
//                                           existing entity, or a new E(k, args...)),
//                                           nameDel(k) (returns it, null when absent),
//                                           nameDelAll()
//
// KEL_ORDERED_MAP_ATTR, KEL_ORDERED_VALUE_COLL_ATTR and KEL_ORDERED_ENTITY_COLL_ATTR keep
// their elements in key order (a B-tree) and add nameIterAfter(k): the elements after k,
// whether or not k is present, which is how a long scan resumes from its bookmark.
//
// KEL_SMALL_MAP_ATTR keeps a few elements (two inline) in insertion order and searches
// them linearly: for the millions of small collections of an index.
//
// KEL_DENSE_MAP_ATTR, KEL_DENSE_SET_ATTR, KEL_DENSE_VALUE_COLL_ATTR and
// KEL_DENSE_ENTITY_COLL_ATTR are the same collections for keys numbered in sequence
// (KEL_HASH_ORDINAL) that fill much of their range: a table-wide index by label, say. They
// keep their elements in Kel::OrdinalMap pages instead of a hash table; their iterators
// yield the key (sets) or a (key, value) pair by value.
//
// An absent element reads as Kel::defaultValue<V>() (an enumeration's first enumerator).
// Every collection also has nameNotify(k) and nameNotifyQuiesced(bool). Each change is
// announced after it is made, to NotifieeConst::onName() (scalar) or onName(k), and only
// when something changed: writing the value already stored sends nothing. A quiesced
// collection announces nothing. Iteration follows the storage order, which is the key
// order only for the ordered collections.
//
// Inside a reactor:
//
//   KEL_REACTOR_COLL(K, R, name)            K -> nested notifiee/reactor R, reached by
//                                           kelDoZombieReactors: name(k) (null when
//                                           absent), names(), nameIter(), nameIs(k, args...)
//                                           (a new R(args...) replacing any old one),
//                                           nameDel(k), nameDelAll()
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/container/inlined_vector.h>

#include "Kel/Attribute.h"
#include "Kel/Entity.h"
#include "Kel/OrdinalMap.h"
#include "Kel/Strep.h"
#include "Kel/Value.h"

namespace Kel {

// A standard-interface map (`Map`, keyed by K) with the interface MapColl needs of its
// store (that of Kel::OrdinalMap).
template <class K, class V, class Map>
class MapStore {
 public:
  using const_iterator = typename Map::const_iterator;

  V* find(const K& k) {
    auto it = map_.find(k);
    return it == map_.end() ? nullptr : &it->second;
  }
  const V* find(const K& k) const { return const_cast<MapStore*>(this)->find(k); }
  std::pair<V*, bool> tryEmplace(const K& k) {
    auto [it, inserted] = map_.try_emplace(k);
    return {&it->second, inserted};
  }
  std::optional<V> take(const K& k) {
    auto it = map_.find(k);
    if (it == map_.end()) {
      return std::nullopt;
    }
    std::optional<V> old(std::move(it->second));
    map_.erase(it);
    return old;
  }
  std::vector<K> keys() const {
    std::vector<K> out;
    out.reserve(map_.size());
    for (const auto& [k, v] : map_) {
      out.push_back(k);
    }
    return out;
  }
  size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  const_iterator begin() const { return map_.begin(); }
  const_iterator end() const { return map_.end(); }

 protected:
  Map map_;
};

template <class K, class V>
using HashMapStore = MapStore<K, V, absl::flat_hash_map<K, V, Hasher<K>>>;

// A B-tree in key order (the key type's operator<), for collections that a long scan
// walks in slices: the scan keeps the last key it visited and resumes after it, whether
// or not that key is still there (see nameIterAfter).
template <class K, class V>
class OrderedMapStore : public MapStore<K, V, absl::btree_map<K, V>> {
 public:
  // The first element whose key is greater than `k`.
  auto after(const K& k) const { return this->map_.upper_bound(k); }
};

// Storage of a K -> V collection, in a hash map or (DenseMapColl) in dense pages.
template <class K, class V, class Store = HashMapStore<K, V>>
class MapColl {
 public:
  using const_iterator = typename Store::const_iterator;

  const V* find(const K& k) const { return store_.find(k); }
  const V& lookup(const K& k) const {
    static const V kAbsent = defaultValue<V>();
    const V* v = find(k);
    return v ? *v : kAbsent;
  }
  // Stores `v` under `k`; returns false when that value was already stored.
  bool set(const K& k, const V& v) {
    auto [stored, inserted] = store_.tryEmplace(k);
    if (!inserted && *stored == v) {
      return false;
    }
    *stored = v;
    return true;
  }
  std::optional<V> erase(const K& k) { return store_.take(k); }
  // Ordered stores: the first element after `k`.
  template <class S = Store>
  const_iterator after(const K& k) const {
    return static_cast<const S&>(store_).after(k);
  }
  std::vector<K> keys() const { return store_.keys(); }
  size_t size() const noexcept { return store_.size(); }
  bool empty() const noexcept { return store_.empty(); }
  const_iterator begin() const { return store_.begin(); }
  const_iterator end() const { return store_.end(); }

 private:
  Store store_;
};

// For keys numbered in sequence.
template <OrdinalHash K, class V>
using DenseMapColl = MapColl<K, V, OrdinalMap<K, V>>;

template <class K, class V>
using OrderedMapColl = MapColl<K, V, OrderedMapStore<K, V>>;

// A handful of elements in insertion order, inline up to two and searched linearly: the
// sources of one configured key, say, of which there are millions, each with one or two.
template <class K, class V>
class SmallMapStore {
  using Elements = absl::InlinedVector<std::pair<K, V>, 2>;

 public:
  using const_iterator = typename Elements::const_iterator;

  V* find(const K& k) {
    for (auto& e : elements_) {
      if (e.first == k) {
        return &e.second;
      }
    }
    return nullptr;
  }
  const V* find(const K& k) const { return const_cast<SmallMapStore*>(this)->find(k); }
  std::pair<V*, bool> tryEmplace(const K& k) {
    if (V* v = find(k)) {
      return {v, false};
    }
    return {&elements_.emplace_back(k, defaultValue<V>()).second, true};
  }
  std::optional<V> take(const K& k) {
    for (auto it = elements_.begin(); it != elements_.end(); ++it) {
      if (it->first == k) {
        std::optional<V> old(std::move(it->second));
        elements_.erase(it);
        return old;
      }
    }
    return std::nullopt;
  }
  std::vector<K> keys() const {
    std::vector<K> out;
    for (const auto& e : elements_) {
      out.push_back(e.first);
    }
    return out;
  }
  size_t size() const noexcept { return elements_.size(); }
  bool empty() const noexcept { return elements_.empty(); }
  const_iterator begin() const { return elements_.begin(); }
  const_iterator end() const { return elements_.end(); }

 private:
  Elements elements_;
};

template <class K, class V>
using SmallMapColl = MapColl<K, V, SmallMapStore<K, V>>;

// Two iterators as a range for range-for.
template <class It>
struct IterRange {
  It first;
  It last;
  It begin() const { return first; }
  It end() const { return last; }
};

namespace internal {

template <class C, class K>
auto iterAfter(const C& c, const K& k) {
  return IterRange<typename C::const_iterator>{c.after(k), c.end()};
}

}  // namespace internal

// Storage of a set collection. Most sets of an index hold one member (the one via of a
// via set, the one route of a via set): a lone member is kept inline, and the hash set is
// only allocated for a second one.
template <class K>
class SetColl {
  using Set = absl::flat_hash_set<K, Hasher<K>>;

 public:
  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = K;
    using difference_type = std::ptrdiff_t;
    using pointer = const K*;
    using reference = const K&;

    const_iterator() = default;
    reference operator*() const { return lone_ ? *lone_ : *it_; }
    pointer operator->() const { return &**this; }
    const_iterator& operator++() {
      if (lone_) {
        lone_ = nullptr;
      } else {
        ++it_;
      }
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.lone_ == b.lone_ && a.it_ == b.it_;
    }

   private:
    friend class SetColl;
    const_iterator(const K* lone, typename Set::const_iterator it) : lone_(lone), it_(it) {}
    const K* lone_ = nullptr;
    typename Set::const_iterator it_;
  };

  SetColl() = default;
  SetColl(const SetColl& other)
      : set_(other.set_ ? std::make_unique<Set>(*other.set_) : nullptr),
        lone_(other.lone_),
        hasLone_(other.hasLone_) {}
  SetColl(SetColl&&) noexcept = default;
  SetColl& operator=(const SetColl& other) {
    if (this != &other) {
      *this = SetColl(other);
    }
    return *this;
  }
  SetColl& operator=(SetColl&&) noexcept = default;

  bool contains(const K& k) const {
    return hasLone_ ? lone_ == k : (set_ && set_->contains(k));
  }
  bool insert(const K& k) {
    if (!set_ || set_->empty()) {
      if (!hasLone_) {
        lone_ = k;
        hasLone_ = true;
        return true;
      }
      if (lone_ == k) {
        return false;
      }
      if (!set_) {
        set_ = std::make_unique<Set>();
      }
      set_->insert(lone_);
      hasLone_ = false;
    }
    return set_->insert(k).second;
  }
  bool erase(const K& k) {
    if (hasLone_) {
      if (!(lone_ == k)) {
        return false;
      }
      hasLone_ = false;
      return true;
    }
    return set_ && set_->erase(k) > 0;
  }
  void clear() noexcept {
    hasLone_ = false;
    set_.reset();
  }
  std::vector<K> keys() const { return std::vector<K>(begin(), end()); }
  size_t size() const noexcept { return hasLone_ ? 1 : set_ ? set_->size() : 0; }
  bool empty() const noexcept { return size() == 0; }
  const_iterator begin() const {
    return const_iterator(hasLone_ ? &lone_ : nullptr, set_ ? set_->cbegin() : emptySet().cbegin());
  }
  const_iterator end() const {
    return const_iterator(nullptr, set_ ? set_->cend() : emptySet().cend());
  }

 private:
  static const Set& emptySet() {
    static const Set kEmpty;
    return kEmpty;
  }

  // Allocated for a second member; empty or absent while the set has a lone member.
  std::unique_ptr<Set> set_;
  K lone_{};
  bool hasLone_ = false;
};

// Storage of a set collection whose keys are numbered in sequence: presence bits only.
template <OrdinalHash K>
class DenseSetColl {
  using Map = OrdinalMap<K, Present>;

 public:
  class const_iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = K;
    using reference = K;
    using difference_type = std::ptrdiff_t;

    const_iterator() = default;
    K operator*() const { return (*it_).first; }
    const_iterator& operator++() {
      ++it_;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      ++*this;
      return old;
    }
    friend bool operator==(const const_iterator& a, const const_iterator& b) {
      return a.it_ == b.it_;
    }

   private:
    friend class DenseSetColl;
    explicit const_iterator(typename Map::const_iterator it) : it_(it) {}
    typename Map::const_iterator it_;
  };

  bool contains(const K& k) const { return map_.contains(k); }
  bool insert(const K& k) { return map_.tryEmplace(k).second; }
  bool erase(const K& k) { return map_.erase(k); }
  void clear() { map_.clear(); }
  std::vector<K> keys() const { return map_.keys(); }
  size_t size() const noexcept { return map_.size(); }
  bool empty() const noexcept { return map_.empty(); }
  const_iterator begin() const { return const_iterator(map_.begin()); }
  const_iterator end() const { return const_iterator(map_.end()); }

 private:
  Map map_;
};

// Members of a reactor collection are reached by the owner's kelDoZombieReactors.
template <class K, class R>
class ReactorColl : public ZombieNode {
  using Map = absl::flat_hash_map<K, std::unique_ptr<R>, Hasher<K>>;

 public:
  explicit ReactorColl(Reactor* owner) : owner_(owner) { owner_->kelChildIs(this); }
  ~ReactorColl() { owner_->kelChildDel(this); }
  ReactorColl(const ReactorColl&) = delete;
  ReactorColl& operator=(const ReactorColl&) = delete;

  R* find(const K& k) const {
    auto it = map_.find(k);
    return it == map_.end() ? nullptr : it->second.get();
  }
  template <class... A>
  R* emplace(const K& k, A&&... args) {
    auto r = std::make_unique<R>(std::forward<A>(args)...);
    if (owner_->isZombie()) {
      r->kelDoZombieReactors(true);
    }
    R* raw = r.get();
    map_[k] = std::move(r);
    return raw;
  }
  bool erase(const K& k) { return map_.erase(k) > 0; }
  void clear() { map_.clear(); }
  size_t size() const noexcept { return map_.size(); }
  auto begin() const { return map_.begin(); }
  auto end() const { return map_.end(); }

  void kelDoZombieReactors(bool zombie) override {
    for (auto& [k, r] : map_) {
      r->kelDoZombieReactors(zombie);
    }
  }

 private:
  Reactor* owner_;
  Map map_;
};

namespace internal {
// Calls e->handleParent(parent) when the parent is held by a Ptr (an entity still being
// constructed, or one living outside any Ptr, must not be handed out as a Ptr).
inline void attachParent(Entity* parent, Entity* child) {
  if (parent->kelRefCount() > 0 && child) {
    child->handleParent(Ptr<Entity>(parent));
  }
}
}  // namespace internal

}  // namespace Kel

#define KEL_ATTR(T, name, Name, ...)                                    \
  KEL_ATTR_DESCRIBE_(name, scalar)                                      \
  struct KelAttr_##name : KelAttrBase_##name {                          \
    using ValueT = T;                                                    \
    template <class E>                                                  \
    static const T& get(const E& e) { return e.name(); }                \
    template <class E>                                                  \
    static void set(E& e, const T& v) { e.name##Is(v); }                \
  };                                                                    \
  static KelAttr_##name kelAttr(::Kel::AttrIndex<kelAttrIndex_##name>); \
  const T& name() const noexcept { return name##_; }                    \
  void name##Is(const T& v) {                                           \
    if (name##_ == v) {                                                 \
      return;                                                           \
    }                                                                   \
    name##_ = v;                                                        \
    kelObserve(kelAttrIndex_##name, nullptr);                           \
    kelNotify(&NotifieeConst::on##Name);                                \
  }                                                                     \
                                                                        \
 private:                                                               \
  T name##_ = ::Kel::defaultValue<T>(__VA_ARGS__);                      \
                                                                        \
 public:

// The parts every keyed collection shares: count, version, iteration, notify, quiesce.
// name##Changed_(k) counts a change of k, shows it to the observer and announces it.
#define KEL_COLL_COMMON_(K, StorageT, name, Name)                                      \
 public:                                                                              \
  uint32_t name##s() const noexcept { return static_cast<uint32_t>(name##_.size()); } \
  /* raised by every change of the collection */                                      \
  uint64_t name##Version() const noexcept { return name##Version_; }                  \
  const StorageT& name##Iter() const noexcept { return name##_; }                     \
  /* ordered collections: the elements after k in key order, k present or not */      \
  template <class KelK = K>                                                           \
  auto name##IterAfter(const KelK& k) const {                                         \
    return ::Kel::internal::iterAfter(name##_, k);                                    \
  }                                                                                   \
  void name##Notify(const K& k) const {                                               \
    if (!name##Quiesced_) {                                                           \
      kelNotify(&NotifieeConst::on##Name, k);                                         \
    }                                                                                 \
  }                                                                                   \
  void name##NotifyQuiesced(bool quiesced) noexcept { name##Quiesced_ = quiesced; }  \
  /* removes the elements one by one, each announced */                               \
  void name##DelAll() {                                                               \
    for (const K& k : name##_.keys()) {                                               \
      name##Del(k);                                                                   \
    }                                                                                 \
  }                                                                                   \
                                                                                      \
 private:                                                                             \
  void name##Changed_(const K& k) {                                                   \
    ++name##Version_;                                                                 \
    kelObserve(kelAttrIndex_##name, &k);                                              \
    name##Notify(k);                                                                  \
  }                                                                                   \
  StorageT name##_;                                                                   \
  uint64_t name##Version_ = 0;                                                        \
  bool name##Quiesced_ = false;                                                       \
                                                                                      \
 public:

#define KEL_MAP_ATTR_IN_(Storage, K, V, name, Name)                      \
  KEL_COLL_DESCRIBE_(K, (V), name, map,                                  \
    template <class E> static bool has(const E& e, const K& k) {         \
      return e.name##Has(k);                                             \
    }                                                                    \
    template <class E> static const V& get(const E& e, const K& k) {     \
      return e.name(k);                                                  \
    }                                                                    \
    template <class E> static void set(E& e, const K& k, const V& v) {   \
      e.name##Is(k, v);                                                  \
    }                                                                    \
    template <class E, class F> static void forEach(const E& e, F&& f) { \
      for (auto&& [k, v] : e.name##Iter()) {                             \
        f(k, v);                                                         \
      }                                                                  \
    })                                                                   \
  KEL_COLL_COMMON_(K, KEL_PP_UNPAREN_((::Kel::Storage<K, V>)), name, Name) \
  const V& name(const K& k) const { return name##_.lookup(k); }          \
  bool name##Has(const K& k) const { return name##_.find(k) != nullptr; } \
  void name##Is(const K& k, const V& v) {                                \
    if (name##_.set(k, v)) {                                             \
      name##Changed_(k);                                                 \
    }                                                                    \
  }                                                                      \
  V name##Del(const K& k) {                                              \
    auto old = name##_.erase(k);                                         \
    if (!old) {                                                          \
      return ::Kel::defaultValue<V>();                                   \
    }                                                                    \
    name##Changed_(k);                                                   \
    return std::move(*old);                                              \
  }

#define KEL_SET_ATTR_IN_(Storage, K, name, Name)                         \
  KEL_COLL_DESCRIBE_(K, (bool), name, set,                               \
    template <class E> static bool has(const E& e, const K& k) {         \
      return e.name(k);                                                  \
    }                                                                    \
    template <class E> static void set(E& e, const K& k, bool v) {       \
      e.name##Is(k, v);                                                  \
    }                                                                    \
    template <class E, class F> static void forEach(const E& e, F&& f) { \
      for (const K& k : e.name##Iter()) {                                \
        f(k, true);                                                      \
      }                                                                  \
    })                                                                   \
  KEL_COLL_COMMON_(K, ::Kel::Storage<K>, name, Name)                      \
  bool name(const K& k) const { return name##_.contains(k); }            \
  void name##Is(const K& k, bool present) {                              \
    if (present ? name##_.insert(k) : name##_.erase(k)) {                \
      name##Changed_(k);                                                 \
    }                                                                    \
  }                                                                      \
  void name##Del(const K& k) { name##Is(k, false); }

#define KEL_VALUE_COLL_ATTR_IN_(Storage, K, T, name, Name)                     \
  KEL_COLL_DESCRIBE_(K, (T), name, valueColl,                                  \
    template <class E> static bool has(const E& e, const K& k) {               \
      return e.name##Has(k);                                                   \
    }                                                                          \
    template <class E> static const T& get(const E& e, const K& k) {           \
      return e.name(k);                                                        \
    }                                                                          \
    template <class E> static void set(E& e, const T& v) { e.name##Is(v); }    \
    template <class E, class F> static void forEach(const E& e, F&& f) {       \
      for (auto&& [k, v] : e.name##Iter()) {                                   \
        f(k, v);                                                               \
      }                                                                        \
    })                                                                         \
  KEL_COLL_COMMON_(K, KEL_PP_UNPAREN_((::Kel::Storage<K, T>)), name, Name)       \
  const T& name(const K& k) const { return name##_.lookup(k); }                \
  bool name##Has(const K& k) const { return name##_.find(k) != nullptr; }       \
  const T& name##Is(const T& v) {                                              \
    if (name##_.set(v.key(), v)) {                                             \
      name##Changed_(v.key());                                                 \
    }                                                                          \
    /* a handler may have removed it again */                                  \
    return name##_.lookup(v.key());                                            \
  }                                                                            \
  void name##Commit(const T* v) { name##Is(*v); }                              \
  void name##Del(const K& k) {                                                 \
    if (name##_.erase(k)) {                                                    \
      name##Changed_(k);                                                       \
    }                                                                          \
  }

#define KEL_ENTITY_COLL_ATTR_IN_(Storage, K, E, name, Name)                           \
  KEL_COLL_DESCRIBE_(K, (::Kel::Ptr<E>), name, entityColl,                            \
    using ChildT = E;                                                                  \
    template <class P> static bool has(const P& e, const K& k) {                      \
      return e.name(k) != nullptr;                                                    \
    }                                                                                 \
    template <class P> static ::Kel::Ptr<E> get(const P& e, const K& k) {             \
      return e.name(k);                                                               \
    }                                                                                 \
    template <class P> static ::Kel::Ptr<E> add(P& e, const K& k) {                   \
      return e.name##Is(k);                                                           \
    }                                                                                 \
    template <class P, class F> static void forEach(const P& e, F&& f) {              \
      for (auto&& [k, v] : e.name##Iter()) {                                          \
        f(k, v);                                                                      \
      }                                                                               \
    })                                                                                \
  KEL_COLL_COMMON_(K, KEL_PP_UNPAREN_((::Kel::Storage<K, ::Kel::Ptr<E>>)), name, Name) \
  ::Kel::Ptr<E> name(const K& k) const { return name##_.lookup(k); }                  \
  template <class... A>                                                               \
  ::Kel::Ptr<E> name##Is(const K& k, A&&... args) {                                   \
    if (const ::Kel::Ptr<E>* existing = name##_.find(k)) {                            \
      return *existing;                                                               \
    }                                                                                 \
    ::Kel::Ptr<E> e = ::Kel::make<E>(k, std::forward<A>(args)...);                    \
    name##_.set(k, e);                                                                \
    ::Kel::internal::attachParent(this, e.get());                                     \
    name##Changed_(k);                                                                \
    return e;                                                                         \
  }                                                                                   \
  ::Kel::Ptr<E> name##Del(const K& k) {                                               \
    if (kelObserver() && name##_.find(k)) [[unlikely]] {                              \
      kelObserver()->kelAttrRemoving(kelAttrIndex_##name, &k);                        \
    }                                                                                 \
    auto old = name##_.erase(k);                                                      \
    if (!old) {                                                                       \
      return nullptr;                                                                 \
    }                                                                                 \
    name##Changed_(k);                                                                \
    return std::move(*old);                                                           \
  }

#define KEL_MAP_ATTR(K, V, name, Name) KEL_MAP_ATTR_IN_(MapColl, K, V, name, Name)
#define KEL_SET_ATTR(K, name, Name) KEL_SET_ATTR_IN_(SetColl, K, name, Name)
#define KEL_VALUE_COLL_ATTR(K, T, name, Name) KEL_VALUE_COLL_ATTR_IN_(MapColl, K, T, name, Name)
#define KEL_ENTITY_COLL_ATTR(K, E, name, Name) \
  KEL_ENTITY_COLL_ATTR_IN_(MapColl, K, E, name, Name)
#define KEL_ORDERED_MAP_ATTR(K, V, name, Name) KEL_MAP_ATTR_IN_(OrderedMapColl, K, V, name, Name)
#define KEL_SMALL_MAP_ATTR(K, V, name, Name) KEL_MAP_ATTR_IN_(SmallMapColl, K, V, name, Name)
#define KEL_ORDERED_VALUE_COLL_ATTR(K, T, name, Name) \
  KEL_VALUE_COLL_ATTR_IN_(OrderedMapColl, K, T, name, Name)
#define KEL_ORDERED_ENTITY_COLL_ATTR(K, E, name, Name) \
  KEL_ENTITY_COLL_ATTR_IN_(OrderedMapColl, K, E, name, Name)
#define KEL_DENSE_MAP_ATTR(K, V, name, Name) KEL_MAP_ATTR_IN_(DenseMapColl, K, V, name, Name)
#define KEL_DENSE_SET_ATTR(K, name, Name) KEL_SET_ATTR_IN_(DenseSetColl, K, name, Name)
#define KEL_DENSE_VALUE_COLL_ATTR(K, T, name, Name) \
  KEL_VALUE_COLL_ATTR_IN_(DenseMapColl, K, T, name, Name)
#define KEL_DENSE_ENTITY_COLL_ATTR(K, E, name, Name) \
  KEL_ENTITY_COLL_ATTR_IN_(DenseMapColl, K, E, name, Name)

#define KEL_REACTOR_COLL(K, R, name)                                                   \
 public:                                                                               \
  R* name(const K& k) const { return name##_.find(k); }                                \
  uint32_t name##s() const noexcept { return static_cast<uint32_t>(name##_.size()); }  \
  const KEL_PP_UNPAREN_((::Kel::ReactorColl<K, R>))& name##Iter() const noexcept {      \
    return name##_;                                                                    \
  }                                                                                    \
  template <class... A>                                                                \
  R* name##Is(const K& k, A&&... args) {                                               \
    return name##_.emplace(k, std::forward<A>(args)...);                               \
  }                                                                                    \
  void name##Del(const K& k) { name##_.erase(k); }                                     \
  void name##DelAll() { name##_.clear(); }                                             \
                                                                                       \
 private:                                                                              \
  KEL_PP_UNPAREN_((::Kel::ReactorColl<K, R>)) name##_{this};                            \
                                                                                       \
 public:

#define KEL_PP_UNPAREN_(x) KEL_PP_UNPAREN__ x
#define KEL_PP_UNPAREN__(...) __VA_ARGS__
