// LfibL2EvpnSm: derives the layer-2 EVPN decapsulation tables (LfibL2EvpnStatus,
// Mpls/LfibL2Evpn.h) from an LfibStatus, revisiting the routes whose version changed in
// an LfibTrackingStatus.
//
// The routes it handles are those whose via set's (only) via is a VLAN via, an EVPN VLAN
// flood via, an EVPN VLAN-aware via or an EVPN VLAN-aware flood via; routes of other kinds
// produce no entries. Per handled route, keyed by its top label:
//   - labelInfo: {label, dstVlanId, hasControlWord, payloadTypeEthernet, dot1qXlate}.
//     VLAN and VLAN flood vias give their VLAN; VLAN-aware vias have no VLAN of their own
//     (dstVlanId 0: their VLANs are in the decap entries below). dot1qXlate is false for
//     every kind: the tag translation of VLAN-aware routes is those decap entries.
//     hasControlWord is the EVPN configuration's control-word preference (Evpn::MplsConfig::controlWord); when it
//     changes, every entry is rewritten with it and nothing else changes.
//   - for VLAN-aware vias, vlanAwareDecapKeyToVlanId[{label, tag}] for every tag of the
//     tag-to-VLAN map the via names (LfibStatus::dot1qTagToVlanColl), with the tag's VLAN.
//     A tag mapped to VLAN 0 has no entry (readers never see such tags). The entries
//     follow the map: a tag added, changed or removed, or the whole map added or removed,
//     rewrites or deletes the entries of every route that names the map, and no others.
// A route that is gone, or whose via kind changed, loses its entries (by the delete
// operation of the kind recorded for it) before it gains new ones. A version change that
// leaves everything as it was writes nothing. A route whose via is not stored has no
// entries.
//
// Inputs. The LfibTrackingStatus must be fed by an LfibTrackingSm with shadowRouteKeys on
// over the same LfibStatus. In a reading process the LfibStatus's tag-to-VLAN maps are
// rebuilt by LfibStatusConsumerSm (Mpls/LfibStatusSm.h).
//
// Lifecycle. Created by the hosting agent through lfibL2EvpnSmFactory() (or
// LfibL2EvpnSmIs(), which returns the one already there), which starts it
// (handleInitialized: both tables emptied, then every route that has a version visited);
// the agent owns it and it holds the four entities. Destroying it leaves the status as it
// is. Handlers do nothing before initialization.
//
// Single-threaded: used on the reactor thread of the agent that owns the LfibStatus.
#pragma once

#include <cstdint>

#include <absl/container/flat_hash_map.h>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Value.h"
#include "Mpls/LfibL2Evpn.h"
#include "Mpls/LfibTracking.h"
#include "Mpls/MplsLfib.h"
#include "types/Evpn/MplsConfig.h"

namespace Mpls {

class LfibL2EvpnSm : public Kel::Reactor {
 public:
  using Ptr = Kel::Ptr<LfibL2EvpnSm>;

  // The route versions of the tracking status.
  class KelTrackingStatus : public Kel::Nested<LfibTrackingStatus::NotifieeConst> {
   public:
    KelTrackingStatus(LfibL2EvpnSm* sm, const LfibTrackingStatus::PtrConst& trackingStatus);
    void onRouteVersion(const RouteKey& key) override;

   private:
    LfibL2EvpnSm* sm_;
  };

  // The tag-to-VLAN maps added to and removed from the LFIB status.
  class KelLfibStatus : public Kel::Nested<LfibStatus::NotifieeConst> {
   public:
    KelLfibStatus(LfibL2EvpnSm* sm, const LfibStatus::PtrConst& lfibStatus);
    void onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey& key) override;

   private:
    LfibL2EvpnSm* sm_;
  };

  // The control-word preference.
  class KelEvpnMplsConfig : public Kel::Nested<Evpn::MplsConfig::NotifieeConst> {
   public:
    KelEvpnMplsConfig(LfibL2EvpnSm* sm, const Evpn::MplsConfig::PtrConst& config);
    void onControlWord() override;

   private:
    LfibL2EvpnSm* sm_;
  };

  // The tags of one tag-to-VLAN map.
  class KelDot1qTagToVlanColl : public Kel::Nested<LfibDot1qTagToVlan::NotifieeConst> {
   public:
    KelDot1qTagToVlanColl(LfibL2EvpnSm* sm, const LfibDot1qTagToVlan::PtrConst& map);
    void onDot1qTagToVlanId(const Bridging::VlanId& tag) override;

   private:
    LfibL2EvpnSm* sm_;
  };

  // Watches the entities and every map of lfibStatus, then runs handleInitialized().
  LfibL2EvpnSm(const LfibStatus::PtrConst& lfibStatus,
               const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
               const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus,
               const Evpn::MplsConfig::PtrConst& evpnMplsConfig);

  const LfibStatus::PtrConst& lfibStatus() const noexcept { return lfibStatus_; }
  const LfibTrackingStatus::PtrConst& lfibTrackingStatus() const noexcept {
    return lfibTrackingStatus_;
  }
  const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus() const noexcept { return lfibL2EvpnStatus_; }
  const Evpn::MplsConfig::PtrConst& evpnMplsConfig() const noexcept { return evpnMplsConfig_; }
  bool initialized() const noexcept { return initialized_; }

  // The via kind recorded for a handled route; viaTypeMplsUnknown when it has none.
  LfibViaType routeViaType(const RouteKey& routeKey) const;
  uint32_t routeViaTypes() const noexcept { return static_cast<uint32_t>(routeViaType_.size()); }
  // The map a VLAN-aware route names; the default key when none.
  LfibDot1qTagToVlanKey vlanAwareRouteKeyToDot1qTagVlanKey(const RouteKey& routeKey) const;
  // The VLAN-aware routes that name the map; null when none.
  VlanAwareDot1qTagVlanRouteKeySet::Ptr vlanAwareDot1qTagVlanToRouteKeySet(
      const LfibDot1qTagToVlanKey& key) const;
  // The reactor following the map of `key`; null when none.
  KelDot1qTagToVlanColl* dot1qTagToVlanColl(const LfibDot1qTagToVlanKey& key) const {
    return dot1qTagToVlanColl_.find(key);
  }
  uint32_t dot1qTagToVlanColls() const noexcept {
    return static_cast<uint32_t>(dot1qTagToVlanColl_.size());
  }

  // Follows `map` (dropping the reactor of another map under its key first) and brings
  // the entries of its tags in line.
  void dot1qTagToVlanCollIs(const LfibDot1qTagToVlan::PtrConst& map);
  // Stops following the map of `key` and brings the entries of its tags in line with the
  // LFIB status (deleted when the map is gone from it). An unknown key does nothing.
  void dot1qTagToVlanCollDel(const LfibDot1qTagToVlanKey& key);

  // Empties both tables, sets `initialized`, then handleLfibRoute().
  void handleInitialized();
  // handleLfibRoute(key) for every route key that has a version.
  void handleLfibRoute();
  // Brings the entries of routeKey's label in line with the LFIB (see above).
  void handleLfibRoute(const RouteKey& routeKey);
  // Rewrites, for every VLAN-aware route that names the map `key`, the entry of `tag` from
  // the map's VLAN, or deletes it when the map or the tag is gone (or maps to VLAN 0).
  void handleDot1qTagToVlan(const LfibDot1qTagToVlanKey& key, const Bridging::VlanId& tag);
  // Rewrites every labelInfo entry with the current control-word preference.
  void handleControlWordUpdate();

  // Per via kind: create records the route's kind and writes its entries; delete removes
  // them. `viaKey` is the via of the route's via set.
  void createVlanVia(const RouteKey& routeKey, const LfibViaKey& viaKey);
  void deleteVlanVia(const RouteKey& routeKey);
  void createEvpnVlanFloodVia(const RouteKey& routeKey, const LfibViaKey& viaKey);
  void deleteEvpnVlanFloodVia(const RouteKey& routeKey);
  void createEvpnVlanAwareVia(const RouteKey& routeKey, const LfibViaKey& viaKey);
  void deleteEvpnVlanAwareVia(const RouteKey& routeKey);
  void createEvpnVlanAwareFloodVia(const RouteKey& routeKey, const LfibViaKey& viaKey);
  void deleteEvpnVlanAwareFloodVia(const RouteKey& routeKey);
  // The delete operation of the route's recorded kind; then the route is forgotten. A
  // route with no recorded kind: nothing.
  void deleteRoute(const RouteKey& routeKey);
  // Writes labelInfo[info.label] unless it holds `info` already.
  void updateLabelInfo(const LfibL2EvpnStatusLabelInfo& info);
  // Deletes labelInfo[routeKey.topLabel()].
  void deleteLabelInfo(const RouteKey& routeKey);

 private:
  void createVlanKind(const RouteKey& routeKey, const LfibViaKey& viaKey,
                      const Bridging::VlanId& vlanId);
  void createVlanAwareKind(const RouteKey& routeKey, const LfibViaKey& viaKey,
                           const LfibDot1qTagToVlanKey& mapKey, const char* what);
  void deleteVlanAwareKind(const RouteKey& routeKey);
  void withdrawVlanAwareRoute(const RouteKey& routeKey, const LfibDot1qTagToVlanKey& mapKey);
  void decapIs(const RouteKey& routeKey, const LfibDot1qTagToVlanKey& mapKey,
               const Bridging::VlanId& tag);

  LfibStatus::PtrConst lfibStatus_;
  LfibTrackingStatus::PtrConst lfibTrackingStatus_;
  LfibL2EvpnStatus::Ptr lfibL2EvpnStatus_;
  Evpn::MplsConfig::PtrConst evpnMplsConfig_;
  bool initialized_ = false;
  absl::flat_hash_map<RouteKey, LfibViaType, Kel::Hasher<RouteKey>> routeViaType_;
  absl::flat_hash_map<RouteKey, LfibDot1qTagToVlanKey, Kel::Hasher<RouteKey>>
      vlanAwareRouteKeyToDot1qTagVlanKey_;
  absl::flat_hash_map<LfibDot1qTagToVlanKey, VlanAwareDot1qTagVlanRouteKeySet::Ptr,
                      Kel::Hasher<LfibDot1qTagToVlanKey>>
      vlanAwareDot1qTagVlanToRouteKeySet_;
  Kel::ReactorColl<LfibDot1qTagToVlanKey, KelDot1qTagToVlanColl> dot1qTagToVlanColl_{this};
  KelTrackingStatus kelTrackingStatus_;
  KelLfibStatus kelLfibStatus_;
  KelEvpnMplsConfig kelEvpnMplsConfig_;
};

// A started LfibL2EvpnSm (see above).
Kel::Ptr<LfibL2EvpnSm> lfibL2EvpnSmFactory(const LfibStatus::PtrConst& lfibStatus,
                                           const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                                           const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus,
                                           const Evpn::MplsConfig::PtrConst& evpnMplsConfig);

// The create-or-return form: the live LfibL2EvpnSm that already derives lfibL2EvpnStatus
// from the same LFIB, tracking status and configuration, or else a new one.
Kel::Ptr<LfibL2EvpnSm> LfibL2EvpnSmIs(const LfibStatus::PtrConst& lfibStatus,
                                      const LfibTrackingStatus::PtrConst& lfibTrackingStatus,
                                      const LfibL2EvpnStatus::Ptr& lfibL2EvpnStatus,
                                      const Evpn::MplsConfig::PtrConst& evpnMplsConfig);

}  // namespace Mpls
