#include "Mpls/LfibIpLookupSm.h"

#include <optional>
#include <vector>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

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
  std::vector<RouteKey> routeKeys;
  routeKeys.reserve(lfibTrackingStatus_->routeVersions());
  for (const auto& [routeKey, version] : lfibTrackingStatus_->routeVersionIter()) {
    routeKeys.push_back(routeKey);
  }
  for (const RouteKey& routeKey : routeKeys) {
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
    KEL_FATAL_ASSERT(viaSet.viaKeys() == 1);
    // The via of the set's only key, as stored.
    const std::optional<LfibIpLookupVia> viaKey =
        storedIpLookupVia(*lfibStatus_, viaSet.viaKey(0));
    KEL_FATAL_ASSERT(!!viaKey);
    const LfibIpLookupStatusLabelVrfAf triple(label, viaKey->vrfName(), viaKey->payloadType());
    const LfibIpLookupStatusLabelVrfAf old = vrfAf(label);
    if (old == triple) {
      KEL_TRACE(trace, 8, "no change for label= {}", label);
      return;
    }
    if (old) {
      lfibIpLookupStatus_->labelVrfAfDel(old);
    }
    vrfAfIs(triple);
    lfibIpLookupStatus_->labelVrfAfIs(triple, true);
    KEL_TRACE(trace, 5, "updating mapping label= {} vrfName= {} af= {}", label,
              triple.vrfName().stringValue(), triple.payloadType());
    return;
  }
  const LfibIpLookupStatusLabelVrfAf old = vrfAf(label);
  if (old) {
    KEL_TRACE(trace, 5, "removing mapping label= {} vrfName= {} af= {}", label,
              old.vrfName().stringValue(), old.payloadType());
    lfibIpLookupStatus_->labelVrfAfDel(old);
    vrfAfDel(label);
  }
}

Kel::Ptr<LfibIpLookupSm> lfibIpLookupSmFactory(
    const LfibStatus::PtrConst& lfibStatus, const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
    const LfibIpLookupStatus::Ptr& lfibIpLookupStatus) {
  return Kel::make<LfibIpLookupSm>(lfibStatus, lfibTrackingStatus, lfibIpLookupStatus);
}

}  // namespace Mpls
