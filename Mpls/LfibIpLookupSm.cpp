#include "Mpls/LfibIpLookupSm.h"

#include <optional>
#include <vector>

#include "Kel/Exception.h"
#include "Kel/Trace.h"
#include "Pond/MountGroup.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("LfibIpLookupSm");

std::optional<LfibIpLookupVia> storedIpLookupVia(const LfibStatus& lfibStatus,
                                                 const LfibViaKey& viaKey) {
  LfibIpLookupVia via;
  const auto* table = lfibStatus.ipLookupViaTable();
  if (table && table->find(viaKey, via)) {
    return via;
  }
  return std::nullopt;
}

}  // namespace

bool LfibIpLookupSm::lfibInFlux(const RouteKey& routeKey, const LfibRoute& route,
                                const LfibViaSet& viaSet) const {
  const Kel::Ptr<Pond::MountGroup>& group = lfibStatus_->mountGroup();
  if (group && !group->ready()) {
    return true;  // tables still opening: the tracking's pass at readiness comes back
  }
  return !(lfibStatus_->lfibRoute(routeKey) == route) ||
         !(lfibStatus_->viaSet(route.viaSetKey()) == viaSet);
}

LfibIpLookupSm::KelTrackingStatus::KelTrackingStatus(
    LfibIpLookupSm* sm, const LfibTrackingStatus::PtrConst& trackingStatus)
    : Nested(sm), sm_(sm) {
  notifierIs(trackingStatus);
}

void LfibIpLookupSm::KelTrackingStatus::onRouteVersion(const RouteKey& key) {
  sm_->handleRouteVersion(key);
}

LfibIpLookupSm::LfibIpLookupSm(const LfibStatus::PtrConst& lfibStatus,
                               const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                               const LfibIpLookupStatus::Ptr& lfibIpLookupStatus)
    : lfibStatus_(lfibStatus),
      lfibTrackingStatus_(lfibTrackingStatus),
      lfibIpLookupStatus_(lfibIpLookupStatus),
      kelTrackingStatus_(this, lfibTrackingStatus) {
  handleInitialized();
}

void LfibIpLookupSm::handleInitialized() {
  lfibIpLookupStatus_->labelVrfAfDelAll();
  initialized_ = true;
  handleRouteVersion();
}

void LfibIpLookupSm::handleRouteVersion() {
  if (!initialized_) {
    return;
  }
  if (lfibWalkHandsRows(*lfibStatus_)) {
    lfibStatus_->lfibRouteForEach([&](const LfibRoute& route) {
      if (lfibTrackingStatus_->routeVersion(route.key())) {
        handleRouteVersion(route.key());
      }
    });
    return;
  }
  // Keys first: the handler's notifiees may change the versions.
  for (const RouteKey& routeKey : lfibTrackingStatus_->routeVersionIter().keys()) {
    handleRouteVersion(routeKey);
  }
}

void LfibIpLookupSm::handleRouteVersion(const RouteKey& routeKey) {
  if (!initialized_) {
    return;
  }
  const Netbase::MplsLabel label = routeKey.topLabel();
  const LfibRoute route = lfibStatus_->lfibRoute(routeKey);
  if (!(route == LfibRoute()) && route.viaSetKey().viaType() == viaTypeIpLookup) {
    const LfibViaSet viaSet = lfibStatus_->viaSet(route.viaSetKey());
    // The via of the set's only key, as stored.
    std::optional<LfibIpLookupVia> viaKey;
    if (viaSet.viaKeys() == 1) {
      viaKey = storedIpLookupVia(*lfibStatus_, viaSet.viaKey(0));
    }
    if ((viaSet.viaKeys() != 1 || !viaKey) && lfibInFlux(routeKey, route, viaSet)) {
      // A reader's three lookups are not one snapshot: the writer replaced or deleted the
      // route or its via set in between, or not all tables are open yet. The label is
      // visited again when that change is delivered, or when the group is ready.
      KEL_TRACE(trace, 8, "lfib changed while read label= {}", label);
      return;
    }
    KEL_FATAL_ASSERT(viaSet.viaKeys() == 1);
    KEL_FATAL_ASSERT(!!viaKey);
    const LfibIpLookupStatusLabelVrfAf triple(label, viaKey->vrfName(), viaKey->payloadType());
    const LfibIpLookupStatusLabelVrfAf old = vrfAf(label);
    if (old == triple) {
      KEL_TRACE(trace, 8, "no change for label= {}", label);
      return;
    }
    // Recorded before the table changes, whose notifiees may change the LFIB: a label
    // handled again from there starts from what is recorded here.
    vrfAfIs(triple);
    if (old) {
      lfibIpLookupStatus_->labelVrfAfDel(old);
      if (!(vrfAf(label) == triple)) {
        return;  // handled again meanwhile, from a later state of the LFIB
      }
    }
    lfibIpLookupStatus_->labelVrfAfIs(triple, true);
    KEL_TRACE(trace, 5, "updating mapping label= {} vrfName= {} af= {}", label,
              triple.vrfName().stringValue(), triple.payloadType());
    return;
  }
  const LfibIpLookupStatusLabelVrfAf old = vrfAf(label);
  if (old) {
    KEL_TRACE(trace, 5, "removing mapping label= {} vrfName= {} af= {}", label,
              old.vrfName().stringValue(), old.payloadType());
    vrfAfDel(label);
    lfibIpLookupStatus_->labelVrfAfDel(old);
  }
}

Kel::Ptr<LfibIpLookupSm> lfibIpLookupSmFactory(
    const LfibStatus::PtrConst& lfibStatus, const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
    const LfibIpLookupStatus::Ptr& lfibIpLookupStatus) {
  return Kel::make<LfibIpLookupSm>(lfibStatus, lfibTrackingStatus, lfibIpLookupStatus);
}

Kel::Ptr<LfibIpLookupSm> LfibIpLookupSmIs(const LfibStatus::PtrConst& lfibStatus,
                                          const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                                          const LfibIpLookupStatus::Ptr& lfibIpLookupStatus) {
  for (Kel::NotifieeBase* notifiee : lfibTrackingStatus->notifieeList().members()) {
    const auto* kel = dynamic_cast<const LfibIpLookupSm::KelTrackingStatus*>(notifiee);
    if (!kel) {
      continue;
    }
    auto* sm = static_cast<LfibIpLookupSm*>(kel->owner());
    if (!sm->isZombie() && sm->lfibStatus() == lfibStatus &&
        sm->lfibIpLookupStatus() == lfibIpLookupStatus) {
      return Kel::Ptr<LfibIpLookupSm>(sm);
    }
  }
  return lfibIpLookupSmFactory(lfibStatus, lfibTrackingStatus, lfibIpLookupStatus);
}

}  // namespace Mpls
