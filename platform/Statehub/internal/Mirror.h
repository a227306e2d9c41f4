// The generic part of publishing and mounting: from an entity type's attribute
// descriptors (Kel/Attribute.h), the tables it is kept in (see Store.h), what applies a
// stored row to an entity (readers, and a restarted publisher loading its state) and what
// writes an entity's changes as rows (publishers). Nothing here is written per type.
// Internal to platform/Statehub.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Kel/Attribute.h"
#include "Kel/Binary.h"
#include "Kel/Codec.h"
#include "Kel/Entity.h"

namespace Statehub::internal {

inline constexpr std::string_view kScalars = "kel-scalars";
inline constexpr std::string_view kMeta = "kel-meta";

// Applies one stored row to the entities it belongs to: the key's bytes and the value's,
// null when the row is gone.
using RowHandler = std::function<void(Kel::ByteReader& key, const std::string* value)>;
// Calls f with the key of every row that an entity's replica holds in one table: what a
// reader that fell behind checks against the table, to find the rows removed meanwhile.
using KeyVisitor = std::function<void(std::string_view key)>;
using KeyWalk = std::function<void(const KeyVisitor& f)>;
struct TableOps {
  RowHandler apply;
  KeyWalk keys;
};
// By table name: every table of an entity type, with what applies its rows.
using Handlers = std::map<std::string, TableOps, std::less<>>;

// Where rows go: the tables of one published entity.
class Sink {
 public:
  virtual void put(std::string_view table, std::string_view key, std::string_view value) = 0;
  virtual void erase(std::string_view table, std::string_view key) = 0;

 protected:
  ~Sink() = default;
};

template <class E>
constexpr bool hasScalars() {
  bool any = false;
  Kel::forEachAttr<E>([&](auto a) { any = any || decltype(a)::kind == Kel::AttrKind::scalar; });
  return any;
}

// Whether `table` holds a row under `key` now. A nested entity's row whose entity the
// replica lacks makes the entity only if the store still has it: the row may be the
// last of a removed entity (the publisher removes the entity, then its rows), and would
// otherwise bring it back. Set once the tables exist.
using Presence = std::function<bool(std::string_view table, std::string_view key)>;
using PresencePtr = std::shared_ptr<Presence>;

// The entity of a row: from the start of its key (the keys of the entities it is nested
// in) to the entity; created when `create`, else null when absent.
template <class E>
using Resolve = std::function<E*(Kel::ByteReader& key, bool create)>;
// Every entity of type E in the replica at one place, with the key bytes of the entities
// it is nested in.
template <class E>
using EachEntity = std::function<void(const std::function<void(E&, const std::string&)>&)>;

// Adds the tables of entity type E under `prefix` ("" at the top, "<coll>-" in a nested
// entity collection) and what applies their rows.
template <class E>
void addHandlers(Handlers& h, const std::string& prefix, Resolve<E> resolve, EachEntity<E> each,
                 const PresencePtr& presence) {
  if constexpr (hasScalars<E>()) {
    auto keys = [each](const KeyVisitor& f) {
      each([&](E&, const std::string& keyPrefix) {
        Kel::forEachAttr<E>([&](auto a) {
          if constexpr (decltype(a)::kind == Kel::AttrKind::scalar) {
            f(keyPrefix + Kel::encoded(static_cast<uint32_t>(decltype(a)::index)));
          }
        });
      });
    };
    h.emplace(prefix + std::string(kScalars), TableOps{[resolve](Kel::ByteReader& key, const std::string* value) {
      E* e = resolve(key, value != nullptr);
      if (!e) {
        return;
      }
      const auto index = Kel::decode<uint32_t>(key);
      Kel::visitAttr<E>(static_cast<int>(index), [&](auto a) {
        using A = decltype(a);
        if constexpr (A::kind == Kel::AttrKind::scalar) {
          using V = typename A::ValueT;
          A::set(*e, value ? Kel::decoded<V>(*value) : Kel::defaultValue<V>());
        }
      });
    }, keys});
  }
  Kel::forEachAttr<E>([&](auto a) {
    using A = decltype(a);
    if constexpr (A::kind != Kel::AttrKind::scalar) {
      using K = typename A::KeyT;
      const std::string table = prefix + std::string(A::name);
      auto keys = [each](const KeyVisitor& f) {
        each([&](E& e, const std::string& keyPrefix) {
          A::forEach(e, [&](const K& k, const auto&) { f(keyPrefix + Kel::encoded(k)); });
        });
      };
      h.emplace(table, TableOps{[resolve](Kel::ByteReader& key, const std::string* value) {
        E* e = resolve(key, value != nullptr);
        if (!e) {
          return;
        }
        const K k = Kel::decode<K>(key);
        if (!value) {
          A::del(*e, k);
        } else if constexpr (A::kind == Kel::AttrKind::set) {
          A::set(*e, k, true);
        } else if constexpr (A::kind == Kel::AttrKind::entityColl) {
          A::add(*e, k);
        } else if constexpr (A::kind == Kel::AttrKind::map) {
          A::set(*e, k, Kel::decoded<typename A::ValueT>(*value));
        } else {
          A::set(*e, Kel::decoded<typename A::ValueT>(*value));
        }
      }, keys});
      if constexpr (A::kind == Kel::AttrKind::entityColl) {
        using C = typename A::ChildT;
        auto resolveChild = [resolve, table, presence](Kel::ByteReader& key, bool create) -> C* {
          E* e = resolve(key, create);
          if (!e) {
            return nullptr;
          }
          const K k = Kel::decode<K>(key);
          Kel::Ptr<C> child = A::get(*e, k);
          // The child's own key: every byte read so far.
          const std::string_view childKey(reinterpret_cast<const char*>(key.cursor()) - key.position(),
                                          key.position());
          if (!child && create && (*presence)(table, childKey)) {
            child = A::add(*e, k);
          }
          return child.get();
        };
        auto eachChild = [each](const std::function<void(C&, const std::string&)>& f) {
          each([&](E& e, const std::string& keyPrefix) {
            A::forEach(e, [&](const K& k, const auto& child) {
              f(*child, keyPrefix + Kel::encoded(k));
            });
          });
        };
        addHandlers<C>(h, table + "-", resolveChild, eachChild, presence);
      }
    }
  });
}

// The tables of E and what applies their rows to `root`.
template <class E>
Handlers handlersOf(E* root, const PresencePtr& presence) {
  Handlers h;
  addHandlers<E>(
      h, "", [root](Kel::ByteReader&, bool) { return root; },
      [root](const std::function<void(E&, const std::string&)>& f) { f(*root, std::string()); },
      presence);
  return h;
}

// Writes the changes of one entity (and of the entities nested in it) to a Sink, as they
// are made: the entity's attribute observer.
class PublisherBase : public Kel::AttrObserver {
 public:
  virtual ~PublisherBase() = default;
  // Every attribute as it stands; then follows the changes.
  virtual void start() = 0;
  // Removes every row of the entity; stops following it.
  virtual void eraseAll() = 0;
};

template <class E>
class Publisher final : public PublisherBase {
 public:
  Publisher(Sink& sink, std::string prefix, std::string keyPrefix, Kel::Ptr<E> entity)
      : sink_(sink), prefix_(std::move(prefix)), keyPrefix_(std::move(keyPrefix)),
        entity_(std::move(entity)) {}
  ~Publisher() override { stop(); }

  void start() override {
    Kel::forEachAttr<E>([&](auto a) {
      using A = decltype(a);
      if constexpr (A::kind == Kel::AttrKind::scalar) {
        write(a, nullptr);
      } else {
        A::forEach(*entity_, [&](const auto& k, const auto&) { write(a, &k); });
      }
    });
    entity_->kelObserverIs(this);
  }

  void eraseAll() override {
    if (entity_->kelObserver() == this) {
      entity_->kelObserverIs(nullptr);
    }
    Kel::forEachAttr<E>([&](auto a) {
      using A = decltype(a);
      if constexpr (A::kind == Kel::AttrKind::scalar) {
        sink_.erase(prefix_ + std::string(kScalars), scalarKey(A::index));
      } else {
        A::forEach(*entity_, [&](const auto& k, const auto&) {
          const std::string key = keyPrefix_ + Kel::encoded(k);
          sink_.erase(prefix_ + std::string(A::name), key);
          if constexpr (A::kind == Kel::AttrKind::entityColl) {
            if (auto it = children_.find(childId(A::index, key)); it != children_.end()) {
              it->second->eraseAll();
              children_.erase(it);
            }
          }
        });
      }
    });
    children_.clear();
  }

  void kelAttrChanged(int index, const void* key) override {
    Kel::visitAttr<E>(index, [&](auto a) { write(a, key); });
  }

 private:
  void stop() {
    if (entity_->kelObserver() == this) {
      entity_->kelObserverIs(nullptr);
    }
    children_.clear();  // each stops following its entity
  }

  std::string scalarKey(int index) const {
    return keyPrefix_ + Kel::encoded(static_cast<uint32_t>(index));
  }
  static std::string childId(int index, const std::string& key) {
    return Kel::encoded(static_cast<uint32_t>(index)) + key;
  }

  // The row of attribute A (and key *k) as the entity holds it now.
  template <class A>
  void write(A, const void* k) {
    if constexpr (A::kind == Kel::AttrKind::scalar) {
      sink_.put(prefix_ + std::string(kScalars), scalarKey(A::index),
                Kel::encoded(A::get(*entity_)));
    } else {
      const auto& key = *static_cast<const typename A::KeyT*>(k);
      const std::string table = prefix_ + std::string(A::name);
      const std::string bytes = keyPrefix_ + Kel::encoded(key);
      if (!A::has(*entity_, key)) {
        sink_.erase(table, bytes);
        if constexpr (A::kind == Kel::AttrKind::entityColl) {
          if (auto it = children_.find(childId(A::index, bytes)); it != children_.end()) {
            it->second->eraseAll();
            children_.erase(it);
          }
        }
      } else if constexpr (A::kind == Kel::AttrKind::set) {
        sink_.put(table, bytes, "");
      } else if constexpr (A::kind == Kel::AttrKind::entityColl) {
        sink_.put(table, bytes, "");
        std::unique_ptr<PublisherBase>& child = children_[childId(A::index, bytes)];
        if (!child) {
          child = std::make_unique<Publisher<typename A::ChildT>>(sink_, table + "-", bytes,
                                                                  A::get(*entity_, key));
          child->start();
        }
      } else {
        sink_.put(table, bytes, Kel::encoded(A::get(*entity_, key)));
      }
    }
  }

  Sink& sink_;
  std::string prefix_;
  std::string keyPrefix_;
  Kel::Ptr<E> entity_;
  // The publishers of the nested entities, by attribute index and key.
  std::map<std::string, std::unique_ptr<PublisherBase>> children_;
};

}  // namespace Statehub::internal
