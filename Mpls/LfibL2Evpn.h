// The LFIB's layer-2 EVPN decapsulation tables, derived by LfibL2EvpnSm
// (Mpls/LfibL2EvpnSm.h) from the LFIB routes whose vias deliver into a VLAN: per label,
// the facts a layer-2 forwarding agent needs to decapsulate an EVPN MPLS packet, and for
// VLAN-aware EVPN, the VLAN of each (label, 802.1Q tag).
//
// The status is created by the hosting agent (lfibL2EvpnStatusFactory) and written only by
// its LfibL2EvpnSm; forwarding agents read it.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/Value.h"
#include "Mpls/MplsLfib.h"
#include "types/Bridging/VlanId.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

// How packets arriving with `label` are decapsulated: into dstVlanId (0 for VLAN-aware
// routes, whose VLAN comes from the packet's tag), with or without a control word after
// the label, the payload type (payloadTypeEthernet for every entry), and whether the
// 802.1Q tag is translated through vlanAwareDecapKeyToVlanId (VLAN-aware routes).
class LfibL2EvpnStatusLabelInfo {
 public:
  KEL_VALUE(LfibL2EvpnStatusLabelInfo, "Mpls::LfibL2EvpnStatusLabelInfo",
            (Netbase::MplsLabel, label),
            (Bridging::VlanId, dstVlanId),
            (bool, hasControlWord),
            (PayloadType, payloadType),
            (bool, dot1qXlate));
};

// A VLAN-aware decapsulation key: the label and the packet's 802.1Q tag.
class VlanAwareDecapKey {
 public:
  KEL_VALUE(VlanAwareDecapKey, "Mpls::VlanAwareDecapKey",
            (Netbase::MplsLabel, label),
            (Bridging::VlanId, dot1qTag));
};

// The VLAN-aware routes whose vias name one tag-to-VLAN map (LfibL2EvpnSm's own index).
class VlanAwareDot1qTagVlanRouteKeySet : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<VlanAwareDot1qTagVlanRouteKeySet>;

  class NotifieeConst : public Kel::NotifieeOf<VlanAwareDot1qTagVlanRouteKeySet> {
   public:
    virtual void onRouteKeySet(const RouteKey& key) { (void)key; }
  };

  explicit VlanAwareDot1qTagVlanRouteKeySet(const LfibDot1qTagToVlanKey& dot1qTagToVlanKey)
      : dot1qTagToVlanKey_(dot1qTagToVlanKey) {}
  const LfibDot1qTagToVlanKey& dot1qTagToVlanKey() const noexcept { return dot1qTagToVlanKey_; }

  KEL_SET_ATTR(RouteKey, routeKeySet, RouteKeySet)

 private:
  const LfibDot1qTagToVlanKey dot1qTagToVlanKey_;
};

// labelInfo: label -> LfibL2EvpnStatusLabelInfo (labelInfo(label), labelInfoIs(label,
// info), labelInfoDel(label), labelInfoDelAll()); vlanAwareDecapKeyToVlanId: (label, tag)
// -> local VLAN. Each change is announced to the notifiees, and only a change.
class LfibL2EvpnStatus : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<LfibL2EvpnStatus>;
  using PtrConst = Kel::PtrConst<LfibL2EvpnStatus>;

  class NotifieeConst : public Kel::NotifieeOf<LfibL2EvpnStatus> {
   public:
    virtual void onLabelInfo(const Netbase::MplsLabel& label) { (void)label; }
    virtual void onVlanAwareDecapKeyToVlanId(const VlanAwareDecapKey& key) { (void)key; }
  };

  KEL_MAP_ATTR(Netbase::MplsLabel, LfibL2EvpnStatusLabelInfo, labelInfo, LabelInfo)
  KEL_MAP_ATTR(VlanAwareDecapKey, Bridging::VlanIdOrNone, vlanAwareDecapKeyToVlanId,
               VlanAwareDecapKeyToVlanId)
};

Kel::Ptr<LfibL2EvpnStatus> lfibL2EvpnStatusFactory();

}  // namespace Mpls
