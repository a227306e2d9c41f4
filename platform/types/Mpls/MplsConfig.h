// Mpls::Config: the MPLS configuration that the MPLS agent follows, published in the
// state database at "mpls/config" by whoever configures the router (`mplsctl labels
// range`), mounted by the agent.
//
//   mplsEnabled   whether MPLS runs at all (default true); while false the label manager
//                 hands out no label blocks and withdraws those it handed out
//   labelRange    label ranges by name; the label manager reads "dynamic", the range it
//                 hands label blocks out of
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "types/Mpls/LabelRange.h"

namespace Mpls {

class Config : public Kel::Entity {
 public:
  KEL_ENTITY(Config, "Mpls::Config");
  using Ptr = Kel::Ptr<Config>;
  class NotifieeConst : public Kel::NotifieeOf<Config> {
   public:
    virtual void onMplsEnabled() {}
    virtual void onLabelRange(const Kel::String& name) { (void)name; }
  };

  KEL_ATTR(bool, mplsEnabled, MplsEnabled, true)
  KEL_MAP_ATTR(Kel::String, LabelRange, labelRange, LabelRange)
};

inline Config::Ptr configFactory() { return Kel::make<Config>(); }

// Where the configuration is published in the state database.
inline constexpr const char* configPath = "mpls/config";

}  // namespace Mpls
