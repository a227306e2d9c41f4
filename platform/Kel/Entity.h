// Entities, notifiees and reactors.
//
// An entity is an object with identity, reference counted and held through Kel::Ptr. It
// announces every change of its attributes synchronously to the notifiees attached to it.
// Each entity type E declares a nested `class NotifieeConst : public Kel::NotifieeOf<E>`
// with one virtual `on<Attr>(key)` per attribute (empty by default); E's setters call
// kelNotify(&NotifieeConst::on<Attr>, key) after a change, and only after a change: a
// setter that writes the value already stored sends nothing.
//
// A reactor (a state machine, class name ending in Sm) is an entity that watches others.
// For each entity it watches it holds a nested notifiee class (`Kel<Attr>`), derived from
// Kel::Nested<E::NotifieeConst>, whose overrides forward to the reactor's handle<Attr>().
// kelDoZombieReactors(true) switches a reactor off without freeing it: it passes the call
// to every nested notifiee and every reactor in its collections, which stop receiving;
// kelDoZombieReactors(false) switches them back on.
//
// Threads: an entity and its notifiees belong to one reactor thread. Notifications run on
// the thread that changes the entity; a handler may change other entities, whose
// notifications are delivered in turn, and may attach or detach notifiees (including
// itself) while a notification is being delivered.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "Kel/Attribute.h"
#include "Kel/Ptr.h"

namespace Kel {

class NotifieeBase;

// The notifiees attached to one entity. Removal during delivery leaves a hole that is
// closed once the outermost delivery ends; notifiees added during a delivery are not
// called by that delivery.
class NotifieeList {
 public:
  void add(NotifieeBase* n) { list_.push_back(n); }
  void remove(NotifieeBase* n) noexcept;
  size_t size() const noexcept;
  template <class F>
  void forEach(F&& f) {
    Delivery d(*this);
    size_t n = list_.size();
    for (size_t i = 0; i < n; ++i) {
      if (NotifieeBase* p = list_[i]) {
        f(p);
      }
    }
  }
  // The attached notifiees, in attachment order.
  std::vector<NotifieeBase*> members() const;

 private:
  struct Delivery {
    explicit Delivery(NotifieeList& l) noexcept : list(l) { ++list.delivering_; }
    ~Delivery() {
      if (--list.delivering_ == 0 && list.holes_) {
        list.compact();
      }
    }
    NotifieeList& list;
  };
  void compact() noexcept;

  std::vector<NotifieeBase*> list_;
  uint32_t delivering_ = 0;
  bool holes_ = false;
};

// Anything that kelDoZombieReactors reaches: notifiees, reactors, reactor collections.
class ZombieNode {
 public:
  virtual void kelDoZombieReactors(bool zombie) = 0;

 protected:
  ~ZombieNode() = default;
};

class Entity : public RefCounted {
 public:
  virtual ~Entity();

  // Called when the entity is attached to a parent entity.
  virtual void handleParent(const Ptr<Entity>& parent) { (void)parent; }

  const NotifieeList& notifieeList() const noexcept { return notifiees_; }

  // The one observer of every attribute change (see Kel/Attribute.h); null detaches it.
  void kelObserverIs(AttrObserver* observer) noexcept { observer_ = observer; }
  AttrObserver* kelObserver() const noexcept { return observer_; }
  // Where the attribute count of a class body starts (see Kel/Attribute.h).
  static internal::AttrCount<0> kelAttrCount(internal::AttrRank<0>);

 protected:
  Entity() = default;

  void kelObserve(int index, const void* key) const {
    if (observer_) [[unlikely]] {
      observer_->kelAttrChanged(index, key);
    }
  }

  // Calls `handler` with `args` on every attached notifiee whose notifications are on.
  // N is the entity's NotifieeConst type; every notifiee of this entity is one.
  template <class N, class... P, class... A>
  void kelNotify(void (N::*handler)(P...), const A&... args) const {
    // A handler may detach the last notifiee that holds this entity: keep it alive until
    // the delivery ends (unless it lives outside any Ptr).
    PtrConst<Entity> keep(kelRefCount() ? this : nullptr);
    notifiees_.forEach([&](NotifieeBase* n) {
      auto* typed = static_cast<N*>(n);
      if (typed->hasNotificationActive()) {
        (typed->*handler)(args...);
      }
    });
  }

 private:
  friend class NotifieeBase;
  mutable NotifieeList notifiees_;
  AttrObserver* observer_ = nullptr;
};

// Creates an entity and hands out the first reference.
template <class T, class... A>
Ptr<T> make(A&&... args) {
  return Ptr<T>(new T(std::forward<A>(args)...));
}

// A notifiee: attached to at most one entity (its notifier), which it keeps alive.
class NotifieeBase : public ZombieNode {
 public:
  NotifieeBase(const NotifieeBase&) = delete;
  NotifieeBase& operator=(const NotifieeBase&) = delete;
  virtual ~NotifieeBase();

  // Whether notifications are handed to this notifiee (on by default).
  bool hasNotificationActive() const noexcept { return active_; }
  void hasNotificationActiveIs(bool active) noexcept { active_ = active; }

  // The marked-for-deletion state set by kelDoZombieReactors.
  bool isZombie() const noexcept { return zombie_; }
  // Does nothing when `zombie` equals the current state; otherwise switches notifications
  // off (zombie) or on (not zombie), then records the state.
  void kelDoZombieReactors(bool zombie) override;

  const Entity* notifierBase() const noexcept { return notifier_.get(); }

 protected:
  NotifieeBase() = default;
  // Detaches from the current notifier, if any, and attaches to `e` (null: detach only).
  void notifierBaseIs(const Entity* e);

 private:
  PtrConst<Entity> notifier_;
  bool active_ = true;
  bool zombie_ = false;
};

// The typed face of a notifiee of entity type E.
template <class E>
class NotifieeOf : public NotifieeBase {
 public:
  using Notifier = E;
  PtrConst<E> notifier() const noexcept { return PtrConst<E>(static_cast<const E*>(notifierBase())); }
  void notifierIs(const PtrConst<E>& e) { notifierBaseIs(e.get()); }
};

// A reactor: an entity whose nested notifiees and reactor collections are reached by
// kelDoZombieReactors.
class Reactor : public Entity, public ZombieNode {
 public:
  bool isZombie() const noexcept { return zombie_; }
  // Does nothing when `zombie` equals the current state; otherwise passes the call to
  // every nested notifiee and reactor collection, then records the state.
  void kelDoZombieReactors(bool zombie) override;

  // Nested notifiees and reactor collections register here (Kel::Nested does it).
  void kelChildIs(ZombieNode* child) { children_.push_back(child); }
  void kelChildDel(ZombieNode* child) noexcept;

 private:
  std::vector<ZombieNode*> children_;
  bool zombie_ = false;
};

// A notifiee nested in a reactor: registered with its owner for kelDoZombieReactors, and
// a zombie from the start when its owner is one.
//   class KelLocalLfibInfo : public Kel::Nested<LocalLfibInfo::NotifieeConst> { ... };
template <class NotifieeT>
class Nested : public NotifieeT {
 public:
  explicit Nested(Reactor* owner) : owner_(owner) {
    owner_->kelChildIs(this);
    if (owner_->isZombie()) {
      this->kelDoZombieReactors(true);
    }
  }
  ~Nested() override { owner_->kelChildDel(this); }
  Reactor* owner() const noexcept { return owner_; }

 private:
  Reactor* owner_;
};

}  // namespace Kel
