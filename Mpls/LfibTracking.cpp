#include "Mpls/LfibTracking.h"

namespace Mpls {

LfibViaSetKeyToRouteKeySet::Ptr LfibTrackingStatus::viaSetKeyToRouteKeySet(
    const LfibViaSetKey& viaSetKey) const {
  const Kel::SetColl<RouteKey>* routes = routeSets_.find(viaSetKey);
  if (!routes) {
    return nullptr;
  }
  LfibViaSetKeyToRouteKeySet::Ptr& entity = routeSetEntities_[viaSetKey];
  if (!entity) {
    entity = Kel::make<LfibViaSetKeyToRouteKeySet>(viaSetKey);
    for (const RouteKey& routeKey : *routes) {
      entity->routeKeyIs(routeKey, true);
    }
  }
  return entity;
}

std::vector<std::pair<LfibViaSetKey, LfibViaSetKeyToRouteKeySet::Ptr>>
LfibTrackingStatus::viaSetKeyToRouteKeySetIter() const {
  std::vector<std::pair<LfibViaSetKey, LfibViaSetKeyToRouteKeySet::Ptr>> entries;
  entries.reserve(routeSets_.size());
  for (const LfibViaSetKey& viaSetKey : routeSets_.keys()) {
    entries.emplace_back(viaSetKey, viaSetKeyToRouteKeySet(viaSetKey));
  }
  return entries;
}

LfibViaSetKeyToRouteKeySet::Ptr LfibTrackingStatus::viaSetKeyToRouteKeySetIs(
    const LfibViaSetKey& viaSetKey) {
  const bool added = routeSets_.tryEmplace(viaSetKey).second;
  LfibViaSetKeyToRouteKeySet::Ptr entity = viaSetKeyToRouteKeySet(viaSetKey);
  if (added) {
    kelNotify(&NotifieeConst::onViaSetKeyToRouteKeySet, viaSetKey);
  }
  return entity;
}

void LfibTrackingStatus::viaSetKeyToRouteKeySetDel(const LfibViaSetKey& viaSetKey) {
  if (!routeSets_.erase(viaSetKey)) {
    return;
  }
  LfibViaSetKeyToRouteKeySet::Ptr entity;
  if (auto it = routeSetEntities_.find(viaSetKey); it != routeSetEntities_.end()) {
    entity = std::move(it->second);
    routeSetEntities_.erase(it);
  }
  kelNotify(&NotifieeConst::onViaSetKeyToRouteKeySet, viaSetKey);
  if (entity) {
    entity->routeKeyDelAll();
  }
}

void LfibTrackingStatus::viaSetKeyToRouteKeySetDelAll() {
  for (const LfibViaSetKey& viaSetKey : routeSets_.keys()) {
    viaSetKeyToRouteKeySetDel(viaSetKey);
  }
}

void LfibTrackingStatus::viaSetRouteKeyIs(const LfibViaSetKey& viaSetKey,
                                          const RouteKey& routeKey) {
  auto [routes, added] = routeSets_.tryEmplace(viaSetKey);
  if (!routes->insert(routeKey)) {
    return;
  }
  if (!routeSetEntities_.empty()) {
    if (auto it = routeSetEntities_.find(viaSetKey); it != routeSetEntities_.end()) {
      // Kept alive through its notifications, which may change the index.
      const LfibViaSetKeyToRouteKeySet::Ptr entity = it->second;
      entity->routeKeyIs(routeKey, true);
    }
  }
  if (added) {
    kelNotify(&NotifieeConst::onViaSetKeyToRouteKeySet, viaSetKey);
  }
}

void LfibTrackingStatus::viaSetRouteKeyDel(const LfibViaSetKey& viaSetKey,
                                           const RouteKey& routeKey) {
  Kel::SetColl<RouteKey>* routes = routeSets_.find(viaSetKey);
  if (!routes || !routes->erase(routeKey)) {
    return;
  }
  const bool emptied = routes->empty();
  if (emptied) {
    routeSets_.erase(viaSetKey);
  }
  LfibViaSetKeyToRouteKeySet::Ptr entity;
  if (auto it = routeSetEntities_.find(viaSetKey); it != routeSetEntities_.end()) {
    entity = it->second;
    if (emptied) {
      routeSetEntities_.erase(it);
    }
  }
  if (entity) {
    entity->routeKeyDel(routeKey);
  }
  if (emptied) {
    kelNotify(&NotifieeConst::onViaSetKeyToRouteKeySet, viaSetKey);
  }
}

Kel::Ptr<LfibTrackingStatus> lfibTrackingStatusFactory(const std::string& name) {
  return Kel::make<LfibTrackingStatus>(name);
}

}  // namespace Mpls
