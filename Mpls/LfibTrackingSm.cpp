#include "Mpls/LfibTrackingSm.h"

#include <utility>
#include <vector>

#include <absl/container/inlined_vector.h>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("LfibTrackingSm");

bool exists(const LfibRoute& route) {
  static const LfibRoute kAbsent;
  return !(route == kAbsent);
}

bool exists(const LfibViaSet& viaSet) {
  static const LfibViaSet kAbsent;
  return !(viaSet == kAbsent);
}

// Keys first, work after: the handlers notify other reactors, which may change the LFIB
// (on the writer's side; see lfibWalkHandsRows).
template <class K, class ForEach>
std::vector<K> keysOf(ForEach&& forEach) {
  std::vector<K> keys;
  forEach([&](const auto& row) { keys.push_back(row.key()); });
  return keys;
}

// The members of a set collection, copied out before they are worked on.
template <size_t N, class K>
absl::InlinedVector<K, N> membersOf(const Kel::SetColl<K>& set) {
  return absl::InlinedVector<K, N>(set.begin(), set.end());
}

// The entity of `key`'s entry in `index` (null when there is none), made with its members
// the first time and kept in `entities` from then on.
template <class Entities, class Index, class K, class Add>
typename Entities::mapped_type handedOut(Entities& entities, const Index& index, const K& key,
                                         Add&& add) {
  const auto* members = index.find(key);
  if (!members) {
    return nullptr;
  }
  typename Entities::mapped_type& entity = entities[key];
  if (!entity) {
    entity = Kel::make<typename Entities::mapped_type::element_type>(key);
    for (const auto& member : *members) {
      add(*entity, member);
    }
  }
  return entity;
}

// The entity handed out for `key`, taken out of `entities` (null when none was).
template <class Entities, class K>
typename Entities::mapped_type takeEntity(Entities& entities, const K& key) {
  if (entities.empty()) {
    return nullptr;
  }
  auto it = entities.find(key);
  if (it == entities.end()) {
    return nullptr;
  }
  typename Entities::mapped_type entity = std::move(it->second);
  entities.erase(it);
  return entity;
}

// The entity handed out for `key`, if any.
template <class Entities, class K>
typename Entities::mapped_type::element_type* entityOf(const Entities& entities, const K& key) {
  if (entities.empty()) {
    return nullptr;
  }
  auto it = entities.find(key);
  return it == entities.end() ? nullptr : it->second.get();
}

}  // namespace

// ---------------------------------------------------------------------------------------
// The vias of a via set.

bool LfibTrackingSm::ViaKeyList::insert(const LfibViaKey& viaKey) {
  if (contains(viaKey)) {
    return false;
  }
  if (size_ < kInline) {
    inline_[size_++] = viaKey;
    return true;
  }
  if (size_ == kInline || size_ == heap_.capacity) {
    const uint32_t capacity = size_ * 2;
    auto* keys = new LfibViaKey[capacity];
    std::copy(begin(), end(), keys);
    if (size_ > kInline) {
      delete[] heap_.keys;
    }
    heap_.keys = keys;
    heap_.capacity = capacity;
  }
  heap_.keys[size_++] = viaKey;
  return true;
}

// ---------------------------------------------------------------------------------------
// Nested notifiees.

LfibTrackingSm::KelLfibStatus::KelLfibStatus(LfibTrackingSm* sm,
                                             const LfibStatus::PtrConst& lfibStatus)
    : Nested(sm), sm_(sm) {
  notifierIs(lfibStatus);
}

void LfibTrackingSm::KelLfibStatus::onLfibRoute(const RouteKey& key) { sm_->handleLfibRoute(key); }
void LfibTrackingSm::KelLfibStatus::onViaSet(const LfibViaSetKey& key) { sm_->handleViaSet(key); }

void LfibTrackingSm::KelLfibStatus::onMountGroup() {
  sm_->mountGroupIs(notifier()->mountGroup());
}

void LfibTrackingSm::KelMountGroup::onReady() {
  if (notifier()->ready() && sm_->initialized()) {
    sm_->handleVias();
    sm_->handleViaSets();
    sm_->handleLfibRoutes();
  }
}

// ---------------------------------------------------------------------------------------
// LfibTrackingSm.

LfibTrackingSm::LfibTrackingSm(const LfibStatus::PtrConst& lfibStatus,
                               const LfibTrackingStatus::Ptr& lfibTrackingStatus,
                               LfibTrackingMode trackingMode, std::string smTraceName)
    : lfibStatus_(lfibStatus),
      lfibTrackingStatus_(lfibTrackingStatus),
      trackingMode_(trackingMode),
      smTraceName_(std::move(smTraceName)),
      kelMountGroup_(this),
      kelLfibStatus_(this, lfibStatus) {
  mountGroupIs(lfibStatus_->mountGroup());
  handleInitialized();
}

LfibViaSetKey LfibTrackingSm::routeKeyToViaSetKey(const RouteKey& routeKey) const {
  const LfibViaSetKey* viaSetKey = routeKeyToViaSetKey_.find(routeKey);
  return viaSetKey ? *viaSetKey : LfibViaSetKey();
}

LfibViaSetKeyToLfibViaKeySet::Ptr LfibTrackingSm::viaSetKeyToViaKeySet(
    const LfibViaSetKey& viaSetKey) const {
  return handedOut(viaSetEntities_, viaSetKeyToViaKeySet_, viaSetKey,
                   [](auto& entity, const LfibViaKey& viaKey) { entity.viaKeyIs(viaKey, true); });
}

LfibViaKeyToLfibViaSetKeySet::Ptr LfibTrackingSm::viaKeyToViaSetKeySet(
    const LfibViaKey& viaKey) const {
  return handedOut(viaEntities_, viaKeyToViaSetKeySet_, viaKey,
                   [](auto& entity, const LfibViaSetKey& viaSetKey) {
                     entity.viaSetKeyIs(viaSetKey, true);
                   });
}

void LfibTrackingSm::mountGroupIs(const Kel::Ptr<Pond::MountGroup>& group) {
  if (kelMountGroup_.notifier() == group) {
    return;
  }
  kelMountGroup_.notifierIs(group);
  if (initialized_) {
    KEL_TRACE(trace, 5, "{} mountGroupIs {}", smTraceName_, group ? group->name() : "(none)");
    resynchronize();
  }
}

void LfibTrackingSm::resynchronize() {
  // The new group's rows came with no notification, and the old group's are gone.
  const std::vector<LfibViaSetKey> viaSetKeys = viaSetKeyToViaKeySet_.keys();
  const std::vector<RouteKey> routeKeys = routeKeyToViaSetKey_.keys();
  for (const auto& viaSetKey : viaSetKeys) {
    handleViaSet(viaSetKey);
  }
  for (const auto& routeKey : routeKeys) {
    handleLfibRoute(routeKey);
  }
  handleVias();
  handleViaSets();
  handleLfibRoutes();
}

void LfibTrackingSm::handleInitialized() {
  KEL_FATAL_ASSERT(!lfibTrackingStatus()->routeKeyBacklogs());
  KEL_FATAL_ASSERT(!lfibTrackingStatus()->viaSetKeyBacklogs());
  KEL_FATAL_ASSERT(!lfibTrackingStatus()->viaSetKeyToRouteKeySets());
  KEL_FATAL_ASSERT(!lfibTrackingStatus()->routeVersions());
  KEL_TRACE(trace, 5, "{} handleInitialized", smTraceName_);
  initialized_ = true;
  handleViaSets();
  handleLfibRoutes();
}

void LfibTrackingSm::handleDel() {
  KEL_TRACE(trace, 5, "{} handleDel", smTraceName_);
  initialized_ = false;
  kelMountGroup_.notifierIs(nullptr);
  kelLfibStatus_.notifierIs(nullptr);
  lfibStatus_ = nullptr;
  routeKeyToViaSetKey_.clear();
  viaSetKeyToViaKeySet_.clear();
  viaKeyToViaSetKeySet_.clear();
  viaSetEntities_.clear();
  viaEntities_.clear();
  lfibTrackingStatus_->routeKeyBacklogDelAll();
  lfibTrackingStatus_->viaSetKeyBacklogDelAll();
  lfibTrackingStatus_->viaSetKeyToRouteKeySetDelAll();
  lfibTrackingStatus_->routeVersionDelAll();
}

void LfibTrackingSm::handleLfibRoute(const RouteKey& routeKey) {
  KEL_FATAL_ASSERT(initialized());
  handleLfibRoute(routeKey, lfibStatus_->lfibRoute(routeKey));
}

void LfibTrackingSm::handleLfibRoute(const RouteKey& routeKey, const LfibRoute& route) {
  const uint64_t pass = ++routePasses_;
  const bool present = exists(route);
  KEL_TRACE(trace, 8, "{} handleLfibRoute {} present: {}", smTraceName_, routeKey, present);
  const LfibViaSetKey* mapped = routeKeyToViaSetKey_.find(routeKey);
  if (!present || !mapped || !(*mapped == route.viaSetKey())) {
    delRouteKeyViaSetKeyMapping(routeKey);
    if (routePasses_ != pass) {
      // A notifiee of the route set changed the LFIB and a route was handled meanwhile,
      // perhaps this one: what was read of it may be stale.
      handleLfibRoute(routeKey);
      return;
    }
    if (present) {
      addRouteKeyViaSetKeyMapping(routeKey, route.viaSetKey());
    }
  }
  addRouteKeyBacklog(routeKey);
  // The index, not what was read, says whether the route is there: the notifiees of the
  // steps above may have changed it, and it has been handled anew then.
  if (routeKeyToViaSetKey_.contains(routeKey)) {
    updateRouteKeyShadow(routeKey);
  } else {
    delRouteKeyShadow(routeKey);
  }
}

void LfibTrackingSm::handleViaSet(const LfibViaSetKey& viaSetKey) {
  KEL_FATAL_ASSERT(initialized());
  handleViaSet(viaSetKey, lfibStatus_->viaSet(viaSetKey));
}

void LfibTrackingSm::handleViaSet(const LfibViaSetKey& viaSetKey, const LfibViaSet& viaSet) {
  KEL_TRACE(trace, 8, "{} handleViaSet {}", smTraceName_, viaSetKey);
  indexViaSet(viaSetKey, viaSet);
  maybeAddBacklogByViaSetKey(viaSetKey);
}


void LfibTrackingSm::indexViaSet(const LfibViaSetKey& viaSetKey, const LfibViaSet& viaSet) {
  const bool present = exists(viaSet);
  if (present) {
    // Rewritten with the vias it had (the common case of a route update): nothing to do.
    if (const ViaKeyList* indexed = viaSetKeyToViaKeySet_.find(viaSetKey)) {
      const ViaKeyList& viaKeys = *indexed;
      uint32_t matched = 0;
      bool same = true;
      for (const LfibViaKey& viaKey : viaSet.viaKey()) {
        if (viaKey == LfibViaKey()) {
          continue;
        }
        if (!viaKeys.contains(viaKey)) {
          same = false;
          break;
        }
        ++matched;
      }
      // Counted with repeats: a via named twice makes the count differ, and the index is
      // rebuilt, which is only slower.
      if (same && matched == viaKeys.size()) {
        return;
      }
    }
  }
  delViaSetKeyViaKeyMapping(viaSetKey);
  if (present) {
    for (const LfibViaKey& viaKey : viaSet.viaKey()) {
      if (!(viaKey == LfibViaKey())) {
        addViaSetKeyViaKeyMapping(viaSetKey, viaKey);
      }
    }
  }
}

void LfibTrackingSm::handleVia(const LfibViaKey& viaKey) {
  KEL_FATAL_ASSERT(initialized());
  KEL_TRACE(trace, 8, "{} handleVia {}", smTraceName_, viaKey);
  maybeAddBacklogByViaKey(viaKey);
}

void LfibTrackingSm::handleVias() {
  KEL_FATAL_ASSERT(initialized());
  if (viaKeyToViaSetKeySet_.empty()) {
    return;  // no via set indexed: no via reaches a route
  }
  std::vector<LfibViaKey> viaKeys;
  lfibStatus_->viaKeyForEach([&](const LfibViaKey& key) { viaKeys.push_back(key); });
  for (const LfibViaKey& viaKey : viaKeys) {
    handleVia(viaKey);
  }
}

void LfibTrackingSm::handleViaSets() {
  KEL_FATAL_ASSERT(initialized());
  if (lfibWalkHandsRows(*lfibStatus_)) {
    lfibStatus_->viaSetForEach(
        [&](const LfibViaSet& viaSet) { handleViaSet(viaSet.key(), viaSet); });
    return;
  }
  for (const LfibViaSetKey& viaSetKey :
       keysOf<LfibViaSetKey>([&](auto f) { lfibStatus_->viaSetForEach(f); })) {
    handleViaSet(viaSetKey);
  }
}

void LfibTrackingSm::handleLfibRoutes() {
  KEL_FATAL_ASSERT(initialized());
  if (lfibWalkHandsRows(*lfibStatus_)) {
    lfibStatus_->lfibRouteForEach(
        [&](const LfibRoute& route) { handleLfibRoute(route.key(), route); });
    return;
  }
  for (const RouteKey& routeKey :
       keysOf<RouteKey>([&](auto f) { lfibStatus_->lfibRouteForEach(f); })) {
    handleLfibRoute(routeKey);
  }
}

void LfibTrackingSm::addRouteKeyViaSetKeyMapping(const RouteKey& routeKey,
                                                 const LfibViaSetKey& viaSetKey) {
  KEL_FATAL_ASSERT(initialized());
  *routeKeyToViaSetKey_.tryEmplace(routeKey).first = viaSetKey;
  lfibTrackingStatus_->viaSetRouteKeyIs(viaSetKey, routeKey);
}

void LfibTrackingSm::delRouteKeyViaSetKeyMapping(const RouteKey& routeKey) {
  KEL_FATAL_ASSERT(initialized());
  const LfibViaSetKey* mapped = routeKeyToViaSetKey_.find(routeKey);
  if (!mapped) {
    return;
  }
  const LfibViaSetKey viaSetKey = *mapped;
  routeKeyToViaSetKey_.erase(routeKey);
  const Kel::SetColl<RouteKey>* viaSetToRouteMap = lfibTrackingStatus_->viaSetRouteKeys(viaSetKey);
  KEL_FATAL_ASSERT(!!viaSetToRouteMap);
  // An entry left empty goes with its last route.
  lfibTrackingStatus_->viaSetRouteKeyDel(viaSetKey, routeKey);
}

void LfibTrackingSm::addViaSetKeyViaKeyMapping(const LfibViaSetKey& viaSetKey,
                                               const LfibViaKey& viaKey) {
  KEL_FATAL_ASSERT(initialized());
  const bool viaAdded = viaSetKeyToViaKeySet_.tryEmplace(viaSetKey).first->insert(viaKey);
  const bool viaSetAdded = viaKeyToViaSetKeySet_.tryEmplace(viaKey).first->insert(viaSetKey);
  // Entities handed out hear of it last, once both indexes agree.
  if (viaAdded) {
    if (LfibViaSetKeyToLfibViaKeySet* entity = entityOf(viaSetEntities_, viaSetKey)) {
      entity->viaKeyIs(viaKey, true);
    }
  }
  if (viaSetAdded) {
    if (LfibViaKeyToLfibViaSetKeySet* entity = entityOf(viaEntities_, viaKey)) {
      entity->viaSetKeyIs(viaSetKey, true);
    }
  }
}

void LfibTrackingSm::delViaSetKeyViaKeyMapping(const LfibViaSetKey& viaSetKey) {
  KEL_FATAL_ASSERT(initialized());
  const ViaKeyList* indexed = viaSetKeyToViaKeySet_.find(viaSetKey);
  if (!indexed) {
    return;
  }
  // Out of the index first: a notifiee of the entities below may bring this via set back
  // while its old vias are being unlinked.
  const ViaKeyList viaKeys = *indexed;
  viaSetKeyToViaKeySet_.erase(viaSetKey);
  const LfibViaSetKeyToLfibViaKeySet::Ptr viaSetEntity = takeEntity(viaSetEntities_, viaSetKey);
  for (const LfibViaKey& viaKey : viaKeys) {
    Kel::SetColl<LfibViaSetKey>* viaToViaSetMap = viaKeyToViaSetKeySet_.find(viaKey);
    KEL_FATAL_ASSERT(!!viaToViaSetMap);
    viaToViaSetMap->erase(viaSetKey);
    const bool emptied = viaToViaSetMap->empty();
    if (emptied) {
      viaKeyToViaSetKeySet_.erase(viaKey);
    }
    const LfibViaKeyToLfibViaSetKeySet::Ptr viaEntity =
        emptied ? takeEntity(viaEntities_, viaKey) : Kel::Ptr<LfibViaKeyToLfibViaSetKeySet>(
                                                          entityOf(viaEntities_, viaKey));
    if (viaEntity) {
      viaEntity->viaSetKeyDel(viaSetKey);
    }
  }
  // Whoever still holds the entry sees it emptied.
  if (viaSetEntity) {
    viaSetEntity->viaKeyDelAll();
  }
}

void LfibTrackingSm::addRouteKeyBacklog(const RouteKey& routeKey) {
  KEL_FATAL_ASSERT(initialized());
  if (trackingMode_.backlogRoutes()) {
    lfibTrackingStatus_->routeKeyBacklogIs(routeKey, true);
  }
}

void LfibTrackingSm::addViaSetKeyBacklog(const LfibViaSetKey& viaSetKey) {
  KEL_FATAL_ASSERT(initialized());
  if (trackingMode_.backlogViaSets()) {
    lfibTrackingStatus_->viaSetKeyBacklogIs(viaSetKey, true);
  }
}

void LfibTrackingSm::updateRouteKeyShadow(const RouteKey& routeKey) {
  KEL_FATAL_ASSERT(initialized());
  if (trackingMode_.shadowRouteKeys()) {
    const uint32_t version = lfibTrackingStatus_->routeVersion(routeKey).version() + 1;
    lfibTrackingStatus_->routeVersionIs(LfibRouteVersion(routeKey, version));
  }
}

void LfibTrackingSm::delRouteKeyShadow(const RouteKey& routeKey) {
  KEL_FATAL_ASSERT(initialized());
  if (trackingMode_.shadowRouteKeys()) {
    lfibTrackingStatus_->routeVersionDel(routeKey);
  }
}

void LfibTrackingSm::maybeAddBacklogByViaKey(const LfibViaKey& viaKey) {
  KEL_FATAL_ASSERT(initialized());
  const Kel::SetColl<LfibViaSetKey>* found = viaKeyToViaSetKeySet_.find(viaKey);
  if (!found) {
    return;
  }
  // Worked through from a copy, each member checked before use: the backlog's notifiees
  // may change the LFIB, and these sets with it.
  for (const LfibViaSetKey& viaSetKey : membersOf<8>(*found)) {
    const Kel::SetColl<LfibViaSetKey>* viaSets = viaKeyToViaSetKeySet_.find(viaKey);
    if (viaSets && viaSets->contains(viaSetKey)) {
      maybeAddBacklogByViaSetKey(viaSetKey);
    }
  }
}

void LfibTrackingSm::maybeAddBacklogByViaSetKey(const LfibViaSetKey& viaSetKey) {
  KEL_FATAL_ASSERT(initialized());
  addViaSetKeyBacklog(viaSetKey);
  const Kel::SetColl<RouteKey>* routes = lfibTrackingStatus_->viaSetRouteKeys(viaSetKey);
  if (!routes) {
    return;
  }
  // As above: a route deleted or moved meanwhile has been handled on its own.
  auto uses = [&](const RouteKey& routeKey) {
    const Kel::SetColl<RouteKey>* now = lfibTrackingStatus_->viaSetRouteKeys(viaSetKey);
    return now && now->contains(routeKey);
  };
  for (const RouteKey& routeKey : membersOf<16>(*routes)) {
    if (uses(routeKey)) {
      addRouteKeyBacklog(routeKey);
      if (uses(routeKey)) {
        updateRouteKeyShadow(routeKey);
      }
    }
  }
}

Kel::Ptr<LfibTrackingSm> lfibTrackingSmFactory(const LfibStatus::PtrConst& lfibStatus,
                                               const LfibTrackingStatus::Ptr& lfibTrackingStatus,
                                               LfibTrackingMode trackingMode,
                                               const std::string& smTraceName) {
  return Kel::make<LfibTrackingSm>(lfibStatus, lfibTrackingStatus, trackingMode, smTraceName);
}

Kel::Ptr<LfibTrackingSm> LfibTrackingSmIs(const LfibStatus::PtrConst& lfibStatus,
                                          const LfibTrackingStatus::Ptr& lfibTrackingStatus,
                                          LfibTrackingMode trackingMode,
                                          const std::string& smTraceName) {
  for (Kel::NotifieeBase* notifiee : lfibStatus->notifieeList().members()) {
    const auto* kel = dynamic_cast<const LfibTrackingSm::KelLfibStatus*>(notifiee);
    if (!kel) {
      continue;
    }
    auto* sm = static_cast<LfibTrackingSm*>(kel->owner());
    if (!sm->isZombie() && sm->initialized() && sm->lfibTrackingStatus() == lfibTrackingStatus &&
        sm->trackingMode() == trackingMode && sm->smTraceName() == smTraceName) {
      return Kel::Ptr<LfibTrackingSm>(sm);
    }
  }
  return lfibTrackingSmFactory(lfibStatus, lfibTrackingStatus, trackingMode, smTraceName);
}

}  // namespace Mpls
