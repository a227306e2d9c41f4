// What an entity type declares, seen from outside: its type name and, for each attribute
// declared with the macros of Kel/Collection.h, a descriptor. Generic code (publishing an
// entity in the state database, mounting a replica, copying attributes) walks the
// descriptors instead of being written per type, as value operations are derived from
// field lists.
//
//   class Config : public Kel::Entity {
//    public:
//     KEL_ENTITY(Config, "Mpls::Config");
//     class NotifieeConst : public Kel::NotifieeOf<Config> { ... };
//     KEL_ATTR(LabelRange, labelRange, LabelRange);
//     KEL_VALUE_COLL_ATTR(RouteKey, Route, route, Route);
//   };
//
//   Kel::forEachAttr<Config>([&](auto attr) {
//     using A = decltype(attr);   // A::name "labelRange", A::kind, A::index, A::ValueT...
//   });
//
// Each descriptor A has:
//   A::name, A::index (declaration order, from 0), A::kind;
//   scalars:      A::ValueT; A::get(e), A::set(e, v)
//   collections:  A::KeyT, A::ValueT (bool for sets, Kel::Ptr<ChildT> for entity
//                 collections, with A::ChildT); A::size(e), A::version(e), A::forEach(e, f(key, value)),
//                 A::has(e, k), A::del(e, k); maps, value and entity collections:
//                 A::get(e, k) (a default value, or null, when absent);
//                 maps and sets: A::set(e, k, v); value collections: A::set(e, v) (keyed by
//                 v.key()); entity collections: A::add(e, k) (the child, new or existing).
// The accessors are the entity's own: a set through a descriptor notifies as the generated
// setter does.
//
// An entity may have one attribute observer (Kel::AttrObserver), which hears of every
// change of every described attribute with the attribute's index and the key (null for a
// scalar), before the entity's notifiees, and also while a collection's notifications are
// quiesced. It is the hook of a publisher that mirrors the entity elsewhere.
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Kel {

enum class AttrKind : uint8_t { scalar, map, set, valueColl, entityColl };

// Hears of every change of an entity's described attributes (see above).
class AttrObserver {
 public:
  virtual void kelAttrChanged(int index, const void* key) = 0;
  // An entity collection is about to remove the element of `key` (which is present);
  // kelAttrChanged follows once it is gone. What an observer needs of the element it
  // must take now.
  virtual void kelAttrRemoving(int index, const void* key) { (void)index, (void)key; }

 protected:
  ~AttrObserver() = default;
};

namespace internal {
// The attribute counter of a class body: each attribute macro asks, by overload
// resolution, for the highest rank declared so far, and declares the next one.
constexpr int kMaxAttrs = 64;
template <int N>
struct AttrRank : AttrRank<N - 1> {};
template <>
struct AttrRank<0> {};
template <int N>
struct AttrCount {
  static constexpr int value = N;
};
}  // namespace internal

template <int I>
using AttrIndex = std::integral_constant<int, I>;

// The number of described attributes of entity type E, and the descriptor of the I-th.
template <class E>
constexpr int attrCount = decltype(E::kelAttrCount(internal::AttrRank<internal::kMaxAttrs>{}))::value;
template <class E, int I>
using AttrOf = decltype(E::kelAttr(AttrIndex<I>{}));

// f(descriptor) for each attribute of E, in declaration order.
template <class E, class F>
constexpr void forEachAttr(F&& f) {
  [&]<int... I>(std::integer_sequence<int, I...>) {
    (f(AttrOf<E, I>{}), ...);
  }(std::make_integer_sequence<int, attrCount<E>>{});
}

// f(descriptor) for the attribute of E with index `index`; false when there is none.
template <class E, class F>
constexpr bool visitAttr(int index, F&& f) {
  bool found = false;
  forEachAttr<E>([&](auto attr) {
    if (decltype(attr)::index == index) {
      found = true;
      f(attr);
    }
  });
  return found;
}

template <class E>
concept DescribedEntity = requires { E::kelTypeName; };

}  // namespace Kel

// Names an entity type (Kel::DescribedEntity): "Mpls::Config".
#define KEL_ENTITY(Type, typeName) \
  static constexpr std::string_view kelTypeName = typeName

// The descriptor parts every attribute shares; declares the attribute's index.
#define KEL_ATTR_DESCRIBE_(a_, attrKind)                                                    \
 public:                                                                                    \
  static constexpr int kelAttrIndex_##a_ =                                                  \
      decltype(kelAttrCount(::Kel::internal::AttrRank<::Kel::internal::kMaxAttrs>{}))::value; \
  static_assert(kelAttrIndex_##a_ < ::Kel::internal::kMaxAttrs, "too many attributes");    \
  static ::Kel::internal::AttrCount<kelAttrIndex_##a_ + 1> kelAttrCount(                   \
      ::Kel::internal::AttrRank<kelAttrIndex_##a_ + 1>);                                    \
  struct KelAttrBase_##a_ {                                                                 \
    static constexpr std::string_view name = #a_;                                           \
    static constexpr int index = kelAttrIndex_##a_;                                         \
    static constexpr ::Kel::AttrKind kind = ::Kel::AttrKind::attrKind;                      \
  };

// The descriptor of a keyed collection; `extra` adds its kind's own members.
#define KEL_COLL_DESCRIBE_(K, V, a_, attrKind, ...)                                   \
  KEL_ATTR_DESCRIBE_(a_, attrKind)                                                    \
  struct KelAttr_##a_ : KelAttrBase_##a_ {                                            \
    using KeyT = K;                                                                    \
    using ValueT = KEL_PP_UNPAREN_(V);                                                \
    template <class E>                                                                \
    static uint32_t size(const E& e) { return e.a_##s(); }                            \
    template <class E>                                                                \
    static uint64_t version(const E& e) { return e.a_##Version(); }                   \
    template <class E>                                                                \
    static void del(E& e, const K& k) { e.a_##Del(k); }                               \
    __VA_ARGS__                                                                       \
  };                                                                                  \
  static KelAttr_##a_ kelAttr(::Kel::AttrIndex<kelAttrIndex_##a_>);
