// Evpn::MplsConfig: the EVPN configuration of the MPLS data plane that the agents which
// decapsulate EVPN MPLS traffic follow.
//
// controlWord (default false): whether EVPN MPLS packets carry the control word (RFC 7432,
// section 18; the "encapsulation mpls ... control-word" setting of EVPN). The forwarding
// agents and LfibL2EvpnSm copy it into every layer-2 decapsulation entry.
//
// Mounted from the state database by the hosting agent (in tests, made by
// mplsConfigFactory()); the configuration agent writes it, the others only read it.
// controlWordIs() announces a change to the notifiees (onControlWord), and only a change.
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"

namespace Evpn {

class MplsConfig : public Kel::Entity {
 public:
  using Ptr = Kel::Ptr<MplsConfig>;
  using PtrConst = Kel::PtrConst<MplsConfig>;

  class NotifieeConst : public Kel::NotifieeOf<MplsConfig> {
   public:
    virtual void onControlWord() {}
  };

  KEL_ATTR(bool, controlWord, ControlWord, false)
};

Kel::Ptr<MplsConfig> mplsConfigFactory();

}  // namespace Evpn
