#include "Mpls/LfibL2EvpnSm.h"

#include <optional>
#include <vector>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("LfibL2EvpnSm");

bool isL2ViaType(LfibViaType viaType) {
  return viaType == viaTypeVlan || viaType == viaTypeEvpnVlanFlood ||
         viaType == viaTypeEvpnVlanAware || viaType == viaTypeEvpnVlanAwareFlood;
}

// The row of `key` in a shared collection, when there is one.
template <class Table, class K>
auto storedRow(const Table* table, const K& key) {
  std::optional<std::remove_cvref_t<decltype(table->lookup(key))>> row;
  if (table) {
    row.emplace();
    if (!table->find(key, *row)) {
      row.reset();
    }
  }
  return row;
}

std::vector<Bridging::VlanId> tagsOf(const LfibDot1qTagToVlan* map) {
  std::vector<Bridging::VlanId> tags;
  if (map) {
    for (const auto& [tag, vlan] : map->dot1qTagToVlanIdIter()) {
      tags.push_back(tag);
    }
  }
  return tags;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Nested notifiees.

LfibL2EvpnSm::KelTrackingStatus::KelTrackingStatus(
    LfibL2EvpnSm* sm, const LfibTrackingStatus::PtrConst& trackingStatus)
    : Nested(sm), sm_(sm) {
  notifierIs(trackingStatus);
}

void LfibL2EvpnSm::KelTrackingStatus::onRouteVersion(const RouteKey& key) {
  sm_->handleLfibRoute(key);
}

LfibL2EvpnSm::KelLfibStatus::KelLfibStatus(LfibL2EvpnSm* sm,
                                           const LfibStatus::PtrConst& lfibStatus)
    : Nested(sm), sm_(sm) {
  notifierIs(lfibStatus);
}

void LfibL2EvpnSm::KelLfibStatus::onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey& key) {
  if (LfibDot1qTagToVlan::Ptr map = notifier()->dot1qTagToVlanColl(key)) {
    sm_->dot1qTagToVlanCollIs(map);
  } else {
    sm_->dot1qTagToVlanCollDel(key);
  }
}

LfibL2EvpnSm::KelEvpnMplsConfig::KelEvpnMplsConfig(LfibL2EvpnSm* sm,
                                                   const Evpn::MplsConfig::PtrConst& config)
    : Nested(sm), sm_(sm) {
  notifierIs(config);
}

void LfibL2EvpnSm::KelEvpnMplsConfig::onControlWord() { sm_->handleControlWordUpdate(); }

LfibL2EvpnSm::KelDot1qTagToVlanColl::KelDot1qTagToVlanColl(
    LfibL2EvpnSm* sm, const LfibDot1qTagToVlan::PtrConst& map)
    : Nested(sm), sm_(sm) {
  notifierIs(map);
}

void LfibL2EvpnSm::KelDot1qTagToVlanColl::onDot1qTagToVlanId(const Bridging::VlanId& tag) {
  const LfibDot1qTagToVlanKey key = notifier()->key();
  sm_->handleDot1qTagToVlan(key, tag);
}

// ---------------------------------------------------------------------------------------
// LfibL2EvpnSm.

LfibL2EvpnSm::LfibL2EvpnSm(const LfibStatus::PtrConst& lfibStatus,
                           const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                           const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus,
                           const Evpn::MplsConfig::PtrConst& evpnMplsConfig)
    : lfibStatus_(lfibStatus),
      lfibTrackingStatus_(lfibTrackingStatus),
      lfibL2EvpnStatus_(lfibL2EvpnStatus),
      evpnMplsConfig_(evpnMplsConfig),
      kelTrackingStatus_(this, lfibTrackingStatus),
      kelLfibStatus_(this, lfibStatus),
      kelEvpnMplsConfig_(this, evpnMplsConfig) {
  std::vector<LfibDot1qTagToVlan::Ptr> maps;
  for (const auto& [key, map] : lfibStatus_->dot1qTagToVlanCollIter()) {
    maps.push_back(map);
  }
  for (const auto& map : maps) {
    dot1qTagToVlanCollIs(map);
  }
  handleInitialized();
}

LfibViaType LfibL2EvpnSm::routeViaType(const RouteKey& routeKey) const {
  auto it = routeViaType_.find(routeKey);
  return it == routeViaType_.end() ? viaTypeMplsUnknown : it->second;
}

LfibDot1qTagToVlanKey LfibL2EvpnSm::vlanAwareRouteKeyToDot1qTagVlanKey(
    const RouteKey& routeKey) const {
  auto it = vlanAwareRouteKeyToDot1qTagVlanKey_.find(routeKey);
  return it == vlanAwareRouteKeyToDot1qTagVlanKey_.end() ? LfibDot1qTagToVlanKey() : it->second;
}

VlanAwareDot1qTagVlanRouteKeySet::Ptr LfibL2EvpnSm::vlanAwareDot1qTagVlanToRouteKeySet(
    const LfibDot1qTagToVlanKey& key) const {
  auto it = vlanAwareDot1qTagVlanToRouteKeySet_.find(key);
  return it == vlanAwareDot1qTagVlanToRouteKeySet_.end() ? nullptr : it->second;
}

void LfibL2EvpnSm::dot1qTagToVlanCollIs(const LfibDot1qTagToVlan::PtrConst& map) {
  const LfibDot1qTagToVlanKey key = map->key();
  if (KelDot1qTagToVlanColl* existing = dot1qTagToVlanColl_.find(key)) {
    if (existing->notifier() == map) {
      return;
    }
    dot1qTagToVlanCollDel(key);
  }
  dot1qTagToVlanColl_.emplace(key, this, map);
  for (const Bridging::VlanId& tag : tagsOf(map.get())) {
    handleDot1qTagToVlan(key, tag);
  }
}

void LfibL2EvpnSm::dot1qTagToVlanCollDel(const LfibDot1qTagToVlanKey& key) {
  KelDot1qTagToVlanColl* reactor = dot1qTagToVlanColl_.find(key);
  if (!reactor) {
    return;
  }
  const std::vector<Bridging::VlanId> tags = tagsOf(reactor->notifier().get());
  dot1qTagToVlanColl_.erase(key);
  for (const Bridging::VlanId& tag : tags) {
    handleDot1qTagToVlan(key, tag);
  }
}

void LfibL2EvpnSm::handleInitialized() {
  lfibL2EvpnStatus_->labelInfoDelAll();
  lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdDelAll();
  initialized_ = true;
  handleLfibRoute();
}

void LfibL2EvpnSm::handleLfibRoute() {
  if (!initialized_) {
    return;
  }
  if (lfibWalkHandsRows(*lfibStatus_)) {
    lfibStatus_->lfibRouteForEach([&](const LfibRoute& route) {
      if (lfibTrackingStatus_->routeVersion(route.key())) {
        handleLfibRoute(route.key());
      }
    });
    return;
  }
  // Keys first: the handler's notifiees may change the versions.
  for (const RouteKey& routeKey : lfibTrackingStatus_->routeVersionIter().keys()) {
    handleLfibRoute(routeKey);
  }
}

void LfibL2EvpnSm::handleLfibRoute(const RouteKey& routeKey) {
  if (!initialized_) {
    return;
  }
  const LfibRoute route = lfibStatus_->lfibRoute(routeKey);
  if (route == LfibRoute()) {
    deleteRoute(routeKey);
    return;
  }
  // The via set is read only for the kinds handled here.
  LfibViaKey viaKey;
  if (isL2ViaType(route.viaSetKey().viaType())) {
    const LfibViaSet viaSet = lfibStatus_->viaSet(route.viaSetKey());
    if (viaSet.viaKeys()) {
      viaKey = viaSet.viaKey(0);
    }
  }
  auto recorded = routeViaType_.find(routeKey);
  if (recorded != routeViaType_.end() && recorded->second != viaKey.viaType()) {
    deleteRoute(routeKey);
  }
  switch (viaKey.viaType()) {
    case viaTypeVlan:
      createVlanVia(routeKey, viaKey);
      break;
    case viaTypeEvpnVlanFlood:
      createEvpnVlanFloodVia(routeKey, viaKey);
      break;
    case viaTypeEvpnVlanAware:
      createEvpnVlanAwareVia(routeKey, viaKey);
      break;
    case viaTypeEvpnVlanAwareFlood:
      createEvpnVlanAwareFloodVia(routeKey, viaKey);
      break;
    default:
      break;
  }
}

void LfibL2EvpnSm::createVlanVia(const RouteKey& routeKey, const LfibViaKey& viaKey) {
  KEL_TRACE(trace, 8, "createVlanVia route {} via {}", routeKey, viaKey);
  const auto via = storedRow(lfibStatus_->vlanViaTable(), viaKey);
  if (!via) {
    deleteRoute(routeKey);
    return;
  }
  createVlanKind(routeKey, viaKey, via->vlanId());
}

void LfibL2EvpnSm::createEvpnVlanFloodVia(const RouteKey& routeKey, const LfibViaKey& viaKey) {
  KEL_TRACE(trace, 8, "createEvpnVlanFloodVia route {} via {}", routeKey, viaKey);
  const auto via = storedRow(lfibStatus_->evpnVlanFloodViaTable(), viaKey);
  if (!via) {
    deleteRoute(routeKey);
    return;
  }
  createVlanKind(routeKey, viaKey, via->vlanId());
}

void LfibL2EvpnSm::createEvpnVlanAwareVia(const RouteKey& routeKey, const LfibViaKey& viaKey) {
  KEL_TRACE(trace, 8, "createEvpnVlanAwareVia route {} via {}", routeKey, viaKey);
  const auto via = storedRow(lfibStatus_->evpnVlanAwareViaTable(), viaKey);
  if (!via) {
    deleteRoute(routeKey);
    return;
  }
  createVlanAwareKind(routeKey, viaKey, via->dot1qTagToVlanKey(), "createEvpnVlanAwareVia");
}

void LfibL2EvpnSm::createEvpnVlanAwareFloodVia(const RouteKey& routeKey,
                                               const LfibViaKey& viaKey) {
  KEL_TRACE(trace, 8, "createEvpnVlanAwareFloodVia route {} via {}", routeKey, viaKey);
  const auto via = storedRow(lfibStatus_->evpnVlanAwareFloodViaTable(), viaKey);
  if (!via) {
    deleteRoute(routeKey);
    return;
  }
  createVlanAwareKind(routeKey, viaKey, via->dot1qTagToVlanKey(),
                      "createEvpnVlanAwareFloodVia");
}

void LfibL2EvpnSm::createVlanKind(const RouteKey& routeKey, const LfibViaKey& viaKey,
                                  const Bridging::VlanId& vlanId) {
  routeViaType_[routeKey] = viaKey.viaType();
  updateLabelInfo(LfibL2EvpnStatusLabelInfo(routeKey.topLabel(), vlanId,
                                            evpnMplsConfig_->controlWord(), payloadTypeEthernet,
                                            false));
}

void LfibL2EvpnSm::createVlanAwareKind(const RouteKey& routeKey, const LfibViaKey& viaKey,
                                       const LfibDot1qTagToVlanKey& mapKey, const char* what) {
  routeViaType_[routeKey] = viaKey.viaType();
  updateLabelInfo(LfibL2EvpnStatusLabelInfo(routeKey.topLabel(), Bridging::VlanId(),
                                            evpnMplsConfig_->controlWord(), payloadTypeEthernet,
                                            false));
  auto recorded = vlanAwareRouteKeyToDot1qTagVlanKey_.find(routeKey);
  if (recorded != vlanAwareRouteKeyToDot1qTagVlanKey_.end() && !(recorded->second == mapKey)) {
    // A copy: withdrawing notifies the status's readers, who may change the LFIB and with
    // it this index.
    const LfibDot1qTagToVlanKey oldMapKey = recorded->second;
    withdrawVlanAwareRoute(routeKey, oldMapKey);
  }
  KEL_TRACE(trace, 8, "{} route {} dot1qTagToVlanKey {}", what, routeKey, mapKey);
  vlanAwareRouteKeyToDot1qTagVlanKey_[routeKey] = mapKey;
  auto& routes = vlanAwareDot1qTagVlanToRouteKeySet_[mapKey];
  if (!routes) {
    routes = Kel::make<VlanAwareDot1qTagVlanRouteKeySet>(mapKey);
  }
  routes->routeKeySetIs(routeKey, true);
  const LfibDot1qTagToVlan::Ptr map = lfibStatus_->dot1qTagToVlanColl(mapKey);
  for (const Bridging::VlanId& tag : tagsOf(map.get())) {
    decapIs(routeKey, mapKey, tag);
  }
}

void LfibL2EvpnSm::deleteVlanVia(const RouteKey& routeKey) { deleteLabelInfo(routeKey); }

void LfibL2EvpnSm::deleteEvpnVlanFloodVia(const RouteKey& routeKey) {
  deleteLabelInfo(routeKey);
}

void LfibL2EvpnSm::deleteEvpnVlanAwareVia(const RouteKey& routeKey) {
  deleteVlanAwareKind(routeKey);
}

void LfibL2EvpnSm::deleteEvpnVlanAwareFloodVia(const RouteKey& routeKey) {
  deleteVlanAwareKind(routeKey);
}

void LfibL2EvpnSm::deleteVlanAwareKind(const RouteKey& routeKey) {
  auto recorded = vlanAwareRouteKeyToDot1qTagVlanKey_.find(routeKey);
  if (recorded != vlanAwareRouteKeyToDot1qTagVlanKey_.end()) {
    const LfibDot1qTagToVlanKey mapKey = recorded->second;
    withdrawVlanAwareRoute(routeKey, mapKey);
  }
  deleteLabelInfo(routeKey);
}

void LfibL2EvpnSm::withdrawVlanAwareRoute(const RouteKey& routeKey,
                                          const LfibDot1qTagToVlanKey& mapKey) {
  // The entries were written from the map as this machine follows it.
  const KelDot1qTagToVlanColl* followed = dot1qTagToVlanColl_.find(mapKey);
  const std::vector<Bridging::VlanId> tags =
      followed ? tagsOf(followed->notifier().get())
               : tagsOf(lfibStatus_->dot1qTagToVlanColl(mapKey).get());
  for (const Bridging::VlanId& tag : tags) {
    const VlanAwareDecapKey decapKey(routeKey.topLabel(), tag);
    if (lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdHas(decapKey)) {
      KEL_TRACE(trace, 8, "withdrawVlanAwareRoute deleting {}", decapKey);
      lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdDel(decapKey);
    }
  }
  if (VlanAwareDot1qTagVlanRouteKeySet::Ptr routes = vlanAwareDot1qTagVlanToRouteKeySet(mapKey)) {
    routes->routeKeySetDel(routeKey);
    auto entry = vlanAwareDot1qTagVlanToRouteKeySet_.find(mapKey);
    if (!routes->routeKeySets() && entry != vlanAwareDot1qTagVlanToRouteKeySet_.end() &&
        entry->second == routes) {
      vlanAwareDot1qTagVlanToRouteKeySet_.erase(entry);
    }
  }
  vlanAwareRouteKeyToDot1qTagVlanKey_.erase(routeKey);
}

void LfibL2EvpnSm::deleteRoute(const RouteKey& routeKey) {
  auto recorded = routeViaType_.find(routeKey);
  if (recorded == routeViaType_.end()) {
    return;
  }
  KEL_TRACE(trace, 8, "deleteRoute route {}", routeKey);
  // Forgotten first: the deletions below notify the status's readers, and a route that
  // comes back from there must stay recorded.
  const LfibViaType viaType = recorded->second;
  routeViaType_.erase(recorded);
  switch (viaType) {
    case viaTypeVlan:
      deleteVlanVia(routeKey);
      break;
    case viaTypeEvpnVlanFlood:
      deleteEvpnVlanFloodVia(routeKey);
      break;
    case viaTypeEvpnVlanAware:
      deleteEvpnVlanAwareVia(routeKey);
      break;
    case viaTypeEvpnVlanAwareFlood:
      deleteEvpnVlanAwareFloodVia(routeKey);
      break;
    default:
      break;
  }
}

void LfibL2EvpnSm::handleDot1qTagToVlan(const LfibDot1qTagToVlanKey& key,
                                        const Bridging::VlanId& tag) {
  if (!initialized_) {
    return;
  }
  auto routes = vlanAwareDot1qTagVlanToRouteKeySet_.find(key);
  if (routes == vlanAwareDot1qTagVlanToRouteKeySet_.end()) {
    return;
  }
  const std::vector<RouteKey> routeKeys(routes->second->routeKeySetIter().begin(),
                                        routes->second->routeKeySetIter().end());
  for (const RouteKey& routeKey : routeKeys) {
    decapIs(routeKey, key, tag);
  }
}

void LfibL2EvpnSm::decapIs(const RouteKey& routeKey, const LfibDot1qTagToVlanKey& mapKey,
                           const Bridging::VlanId& tag) {
  const VlanAwareDecapKey decapKey(routeKey.topLabel(), tag);
  const LfibDot1qTagToVlan::Ptr map = lfibStatus_->dot1qTagToVlanColl(mapKey);
  const Bridging::VlanIdOrNone vlan = map ? map->dot1qTagToVlanId(tag) : Bridging::VlanIdOrNone();
  if (!vlan.isNone()) {
    if (!lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdHas(decapKey) ||
        !(lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanId(decapKey) == vlan)) {
      KEL_TRACE(trace, 8, "create {} vlanId {}", decapKey, vlan);
      lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdIs(decapKey, vlan);
    }
  } else if (lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdHas(decapKey)) {
    KEL_TRACE(trace, 8, "handleDot1qTagToVlan deleting {}", decapKey);
    lfibL2EvpnStatus_->vlanAwareDecapKeyToVlanIdDel(decapKey);
  }
}

void LfibL2EvpnSm::updateLabelInfo(const LfibL2EvpnStatusLabelInfo& info) {
  if (lfibL2EvpnStatus_->labelInfoHas(info.label()) &&
      lfibL2EvpnStatus_->labelInfo(info.label()) == info) {
    return;
  }
  KEL_TRACE(trace, 5,
            "updateLabelInfo updating mapping label:{} dstVlanId:{} hasControlWord:{} "
            "payloadType:{}",
            info.label(), info.dstVlanId(), info.hasControlWord(), info.payloadType());
  lfibL2EvpnStatus_->labelInfoIs(info.label(), info);
}

void LfibL2EvpnSm::deleteLabelInfo(const RouteKey& routeKey) {
  const Netbase::MplsLabel label = routeKey.topLabel();
  if (!lfibL2EvpnStatus_->labelInfoHas(label)) {
    return;
  }
  const LfibL2EvpnStatusLabelInfo info = lfibL2EvpnStatus_->labelInfoDel(label);
  KEL_TRACE(trace, 5,
            "deleteLabelInfo deleting labelinfo for:{} dstVlanId:{} hasControlWord:{} "
            "payloadType:{}",
            info.label(), info.dstVlanId(), info.hasControlWord(), info.payloadType());
}

void LfibL2EvpnSm::handleControlWordUpdate() {
  if (!initialized_) {
    return;
  }
  const bool controlWord = evpnMplsConfig_->controlWord();
  KEL_TRACE(trace, 5, "Updated controlWord preference: {}", controlWord);
  std::vector<LfibL2EvpnStatusLabelInfo> infos;
  infos.reserve(lfibL2EvpnStatus_->labelInfos());
  for (const auto& [label, info] : lfibL2EvpnStatus_->labelInfoIter()) {
    infos.push_back(info);
  }
  for (LfibL2EvpnStatusLabelInfo& info : infos) {
    info.hasControlWordIs(controlWord);
    updateLabelInfo(info);
  }
}

Kel::Ptr<LfibL2EvpnSm> lfibL2EvpnSmFactory(const LfibStatus::PtrConst& lfibStatus,
                                           const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                                           const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus,
                                           const Evpn::MplsConfig::PtrConst& evpnMplsConfig) {
  return Kel::make<LfibL2EvpnSm>(lfibStatus, lfibTrackingStatus, lfibL2EvpnStatus,
                                 evpnMplsConfig);
}

Kel::Ptr<LfibL2EvpnSm> LfibL2EvpnSmIs(const LfibStatus::PtrConst& lfibStatus,
                                      const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                                      const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus,
                                      const Evpn::MplsConfig::PtrConst& evpnMplsConfig) {
  for (Kel::NotifieeBase* notifiee : lfibStatus->notifieeList().members()) {
    const auto* kel = dynamic_cast<const LfibL2EvpnSm::KelLfibStatus*>(notifiee);
    if (!kel) {
      continue;
    }
    auto* sm = static_cast<LfibL2EvpnSm*>(kel->owner());
    if (!sm->isZombie() && sm->lfibTrackingStatus() == lfibTrackingStatus &&
        sm->lfibL2EvpnStatus() == lfibL2EvpnStatus && sm->evpnMplsConfig() == evpnMplsConfig) {
      return Kel::Ptr<LfibL2EvpnSm>(sm);
    }
  }
  return lfibL2EvpnSmFactory(lfibStatus, lfibTrackingStatus, lfibL2EvpnStatus, evpnMplsConfig);
}

}  // namespace Mpls
