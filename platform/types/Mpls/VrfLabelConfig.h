// The VRF label configuration: which label stands for which VRF (a packet of the label is
// popped and its payload looked up in the VRF), per source, and the merged configuration.
//
//   Mpls::VrfLabel             one assignment: the label, the VRF and whether it was
//                              assigned dynamically (by an agent) rather than configured.
//                              The default value (the null label, no VRF, static) stands
//                              for no assignment.
//   Mpls::VrfLabelConfigInput  one source's assignments, named after the source
//   Mpls::VrfLabelConfig       the merged assignments, and `ready` once every source
//                              present at start-up has been merged
//
// Single-threaded: used on the reactor thread of the agent that owns it.
#pragma once

#include <string>

#include "Kel/Collection.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "types/L3/VrfName.h"
#include "types/Netbase/MplsLabel.h"

namespace Mpls {

class VrfLabel {
 public:
  KEL_VALUE(VrfLabel, "Mpls::VrfLabel", (Netbase::MplsLabel, label, Netbase::MplsLabel::null()),
            (L3::VrfName, vrfName), (bool, dynamic));
  // The key of the assignment in a VRF label collection.
  const Netbase::MplsLabel& key() const noexcept { return label_; }
};

class VrfLabelConfigInput : public Kel::Entity {
 public:
  KEL_ENTITY(VrfLabelConfigInput, "Mpls::VrfLabelConfigInput");
  using Ptr = Kel::Ptr<VrfLabelConfigInput>;
  using PtrConst = Kel::Ptr<const VrfLabelConfigInput>;
  class NotifieeConst : public Kel::NotifieeOf<VrfLabelConfigInput> {
   public:
    virtual void onVrfLabel(const Netbase::MplsLabel& label) { (void)label; }
  };
  explicit VrfLabelConfigInput(const Kel::String& name) : name_(name) {}
  const Kel::String& name() const noexcept { return name_; }

  KEL_ORDERED_VALUE_COLL_ATTR(Netbase::MplsLabel, VrfLabel, vrfLabel, VrfLabel)

 private:
  Kel::String name_;
};

inline VrfLabelConfigInput::Ptr vrfLabelConfigInputFactory(const std::string& name) {
  return Kel::make<VrfLabelConfigInput>(Kel::String(name));
}

class VrfLabelConfig : public Kel::Entity {
 public:
  KEL_ENTITY(VrfLabelConfig, "Mpls::VrfLabelConfig");
  using Ptr = Kel::Ptr<VrfLabelConfig>;
  class NotifieeConst : public Kel::NotifieeOf<VrfLabelConfig> {
   public:
    virtual void onVrfLabel(const Netbase::MplsLabel& label) { (void)label; }
    virtual void onReady() {}
  };

  KEL_ORDERED_VALUE_COLL_ATTR(Netbase::MplsLabel, VrfLabel, vrfLabel, VrfLabel)
  KEL_ATTR(bool, ready, Ready, false)
};

inline VrfLabelConfig::Ptr vrfLabelConfigFactory() { return Kel::make<VrfLabelConfig>(); }

// Where the VRF label configuration lives in the state database: the command-line input,
// the directory of dynamic inputs that agents publish ("<vrfLabelInputDirPath>/<name>")
// and the merged output of the MPLS agent.
inline constexpr const char* vrfLabelCliPath = "routing/mpls/vrfLabel/input/cli";
inline constexpr const char* vrfLabelInputDirPath = "routing/mpls/vrfLabel/input/dynamic";
inline constexpr const char* vrfLabelMergedPath = "routing/mpls/vrfLabel/merged";

}  // namespace Mpls
