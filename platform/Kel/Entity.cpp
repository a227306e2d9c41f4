#include "Kel/Entity.h"

#include <algorithm>

namespace Kel {

namespace internal {
std::atomic<bool> ptrThreadSafeMode{false};
}

void ptrThreadSafeModeIs(bool threadSafe) noexcept {
  internal::ptrThreadSafeMode.store(threadSafe, std::memory_order_relaxed);
}

void NotifieeList::remove(NotifieeBase* n) noexcept {
  auto it = std::find(list_.begin(), list_.end(), n);
  if (it == list_.end()) {
    return;
  }
  if (delivering_) {
    *it = nullptr;
    holes_ = true;
  } else {
    list_.erase(it);
  }
}

size_t NotifieeList::size() const noexcept {
  return static_cast<size_t>(std::count_if(list_.begin(), list_.end(),
                                           [](NotifieeBase* n) { return n != nullptr; }));
}

std::vector<NotifieeBase*> NotifieeList::members() const {
  std::vector<NotifieeBase*> out;
  std::copy_if(list_.begin(), list_.end(), std::back_inserter(out),
               [](NotifieeBase* n) { return n != nullptr; });
  return out;
}

void NotifieeList::compact() noexcept {
  list_.erase(std::remove(list_.begin(), list_.end(), nullptr), list_.end());
  holes_ = false;
}

Entity::~Entity() = default;

NotifieeBase::~NotifieeBase() { notifierBaseIs(nullptr); }

void NotifieeBase::notifierBaseIs(const Entity* e) {
  if (notifier_.get() == e) {
    return;
  }
  if (notifier_) {
    notifier_->notifiees_.remove(this);
  }
  PtrConst<Entity> old = std::move(notifier_);
  notifier_ = PtrConst<Entity>(e);
  if (e) {
    e->notifiees_.add(this);
  }
  // `old` may hold the last reference: release it after the list is updated.
}

void NotifieeBase::kelDoZombieReactors(bool zombie) {
  if (zombie == zombie_) {
    return;
  }
  hasNotificationActiveIs(!zombie);
  zombie_ = zombie;
}

void Reactor::kelDoZombieReactors(bool zombie) {
  if (zombie == zombie_) {
    return;
  }
  // Children may deregister while being switched (a reactor collection dropping members):
  // walk a copy.
  std::vector<ZombieNode*> children = children_;
  for (ZombieNode* c : children) {
    c->kelDoZombieReactors(zombie);
  }
  zombie_ = zombie;
}

void Reactor::kelChildDel(ZombieNode* child) noexcept {
  auto it = std::find(children_.begin(), children_.end(), child);
  if (it != children_.end()) {
    children_.erase(it);
  }
}

}  // namespace Kel
