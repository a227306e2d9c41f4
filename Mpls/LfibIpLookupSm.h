// LfibIpLookupSm: derives the LFIB's IP-lookup table (LfibIpLookupStatus,
// Mpls/LfibIpLookup.h) from an LfibStatus, revisiting exactly the routes whose version
// changed in an LfibTrackingStatus.
//
// A route is an IP-lookup route when it exists and its via set key has the via type
// viaTypeIpLookup. Its via set then holds exactly one via key, and that via is stored in
// the LFIB's ipLookupVia collection: the label's triple is (the route's top label, the
// via's VRF name, the via's payload type). A label keeps at most one triple: when it
// changes, the old one is withdrawn before the new one is published; when the route is
// gone or no longer an IP-lookup route, its triple is withdrawn. A version change that
// leaves the triple as it was writes nothing.
//
// Inputs. The LfibTrackingStatus must be fed by an LfibTrackingSm with shadowRouteKeys on
// over the same LfibStatus: a change of routeVersion[key] (a new version, or its deletion
// with the route) runs handleRouteVersion(key).
//
// Lifecycle. Created by the hosting agent through lfibIpLookupSmFactory() (or
// LfibIpLookupSmIs(), which returns the one already there), which starts it
// (handleInitialized: the status is emptied, then every route that has a version is
// visited); the agent owns it and it holds the three entities. Destroying it leaves the
// status as it is. Handlers do nothing before initialization.
//
// Failures. An IP-lookup via set that does not hold exactly one via key, or whose via is
// missing, means the LFIB is broken: a fatal assertion, the process aborts. In a reading
// process the route, its via set and its via are read one after the other while the
// writer goes on; when the route or the via set read differently a moment later, the
// writer changed them in between, and the label waits for that change's notification
// instead (as it waits for the mount group to be ready while tables are still opening).
//
// Single-threaded: used on the reactor thread of the agent that owns the LfibStatus.
#pragma once

#include <cstdint>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Mpls/LfibIpLookup.h"
#include "Mpls/LfibTracking.h"
#include "Mpls/MplsLfib.h"

namespace Mpls {

class LfibIpLookupSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LfibIpLookupSm>;

  // The route versions of the tracking status.
  class KelTrackingStatus : public Kel::Nested<LfibTrackingStatus::NotifieeConst> {
   public:
    KelTrackingStatus(LfibIpLookupSm* sm, const LfibTrackingStatus::PtrConst& trackingStatus);
    void onRouteVersion(const RouteKey& key) override;

   private:
    LfibIpLookupSm* sm_;
  };

  // Watches the tracking status, then runs handleInitialized().
  LfibIpLookupSm(const LfibStatus::PtrConst& lfibStatus,
                 const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                 const LfibIpLookupStatus::Ptr& lfibIpLookupStatus);

  const LfibStatus::PtrConst& lfibStatus() const noexcept { return lfibStatus_; }
  const LfibTrackingStatus::PtrConst& lfibTrackingStatus() const noexcept {
    return lfibTrackingStatus_;
  }
  const LfibIpLookupStatus::Ptr& lfibIpLookupStatus() const noexcept {
    return lfibIpLookupStatus_;
  }
  bool initialized() const noexcept { return initialized_; }

  // The triple published for `label`; the default triple when none.
  const LfibIpLookupStatusLabelVrfAf& vrfAf(const Netbase::MplsLabel& label) const {
    return vrfAf_.lookup(label);
  }
  uint32_t vrfAfs() const noexcept { return static_cast<uint32_t>(vrfAf_.size()); }

  // Empties the status, sets `initialized`, then handleRouteVersion().
  void handleInitialized();
  // handleRouteVersion(key) for every route key that has a version.
  void handleRouteVersion();
  // Brings the triple of routeKey's label in line with the LFIB (see above).
  void handleRouteVersion(const RouteKey& routeKey);

 private:
  // Whether what was read of the route and its via set may not be one state of the LFIB:
  // its mount group is not ready, or they read differently now.
  bool lfibInFlux(const RouteKey& routeKey, const LfibRoute& route,
                  const LfibViaSet& viaSet) const;
  void vrfAfIs(const LfibIpLookupStatusLabelVrfAf& triple) { vrfAf_.set(triple.label(), triple); }
  void vrfAfDel(const Netbase::MplsLabel& label) { vrfAf_.erase(label); }

  LfibStatus::PtrConst lfibStatus_;
  LfibTrackingStatus::PtrConst lfibTrackingStatus_;
  LfibIpLookupStatus::Ptr lfibIpLookupStatus_;
  bool initialized_ = false;
  Kel::MapColl<Netbase::MplsLabel, LfibIpLookupStatusLabelVrfAf> vrfAf_;
  KelTrackingStatus kelTrackingStatus_;
};

// A started LfibIpLookupSm (see above).
Kel::Ptr<LfibIpLookupSm> lfibIpLookupSmFactory(
    const LfibStatus::PtrConst& lfibStatus, const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
    const LfibIpLookupStatus::Ptr& lfibIpLookupStatus);

// The create-or-return form: the live LfibIpLookupSm that already derives
// lfibIpLookupStatus from lfibStatus through lfibTrackingStatus, or else a new one.
Kel::Ptr<LfibIpLookupSm> LfibIpLookupSmIs(const LfibStatus::PtrConst& lfibStatus,
                                          const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                                          const LfibIpLookupStatus::Ptr& lfibIpLookupStatus);

}  // namespace Mpls
