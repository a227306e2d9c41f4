// VrfLabelConfigMergeSm folds the VRF label assignments of several sources into one
// output, Mpls::VrfLabelConfig: which label stands for which VRF.
//
// It has the shape of Mpls::RouteConfigMergeSm (a command-line input handed over at
// construction, a directory of further inputs, a source set per label, the output
// recomputed one label at a time), with its own rule: configured (static) assignments
// take precedence over dynamic ones. Visiting the label's sources in the source set's
// order (source name order), the first static assignment wins; a lone dynamic one is
// used; two dynamic ones without a static one withdraw the label and write a VRF label
// conflict to the system log, once per recomputation.
//
// Start: handleInitialized() requires the output to be empty and not ready (a host that
// restarts clears it first), merges the command-line input, then every directory entry
// present, and marks the output ready.
//
// Sources are only ever added; a directory entry that goes away, an entry of another type
// and a source that is asked for but not followed are traced and then fatal.
//
// Single-threaded: runs on the reactor thread of the agent that owns it and its entities.
#pragma once

#include <cstdint>
#include <memory>

#include "Kel/Collection.h"
#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/Log.h"
#include "Kel/String.h"
#include "types/Mpls/VrfLabelConfig.h"

namespace Mpls {

KEL_LOG_MESSAGE(MPLS_VRF_LABEL_CONFLICT, "MPLS", "VRF_LABEL_CONFLICT", Kel::LogSeverity::warning,
                "Dynamic VRF label {} is claimed by more than one source",
                "Two or more agents assigned the same label to a VRF dynamically and no "
                "configured assignment of the label exists; the label is withdrawn until "
                "only one assignment is left.",
                "Configure the label statically, or remove all but one of the dynamic "
                "assignments.");

class VrfLabelConfigMergeSm : public Kel::Reactor {
 public:
  KEL_ENTITY(VrfLabelConfigMergeSm, "Mpls::VrfLabelConfigMergeSm");
  using Ptr = Kel::Ptr<VrfLabelConfigMergeSm>;
  class NotifieeConst : public Kel::NotifieeOf<VrfLabelConfigMergeSm> {
   public:
    virtual void onSourceSet(const Netbase::MplsLabel& label) { (void)label; }
  };

  // The sources that assign one label, in name order; it exists only while it has one.
  class SourceSet : public Kel::Entity {
   public:
    KEL_ENTITY(SourceSet, "Mpls::VrfLabelConfigMergeSm::SourceSet");
    using Ptr = Kel::Ptr<SourceSet>;
    class NotifieeConst : public Kel::NotifieeOf<SourceSet> {
     public:
      virtual void onSource(const Kel::String& name) { (void)name; }
    };
    explicit SourceSet(const Netbase::MplsLabel& label) : label_(label) {}
    const Netbase::MplsLabel& label() const noexcept { return label_; }

    KEL_ORDERED_MAP_ATTR(Kel::String, bool, source, Source)

   private:
    Netbase::MplsLabel label_;
  };

  // One source's assignments: every change at a label runs handleConfigEntry.
  class KelRouteConfig : public VrfLabelConfigInput::NotifieeConst {
   public:
    KelRouteConfig(VrfLabelConfigMergeSm* sm, const VrfLabelConfigInput::PtrConst& input);
    void onVrfLabel(const Netbase::MplsLabel& label) override;
    const VrfLabelConfigInput::PtrConst& input() const noexcept { return input_; }

   private:
    VrfLabelConfigMergeSm* sm_;
    VrfLabelConfigInput::PtrConst input_;
  };
  class KelConfigDir : public Kel::Nested<Kel::Dir::NotifieeConst> {
   public:
    KelConfigDir(VrfLabelConfigMergeSm* sm, const Kel::Ptr<const Kel::Dir>& dir);
    void onEntityPtr(const Kel::String& name) override;

   private:
    VrfLabelConfigMergeSm* sm_;
  };

  // Use vrfLabelConfigMergeSmFactory().
  VrfLabelConfigMergeSm(const VrfLabelConfig::Ptr& vrfLabelConfig,
                        const Kel::Ptr<const Kel::Dir>& configDir,
                        const VrfLabelConfigInput::PtrConst& cliInput);
  ~VrfLabelConfigMergeSm() override;

  const VrfLabelConfig::Ptr& vrfLabelConfig() const noexcept { return vrfLabelConfig_; }
  const VrfLabelConfig::Ptr& mergedConfig() const noexcept { return vrfLabelConfig_; }
  const Kel::Ptr<const Kel::Dir>& configDir() const noexcept { return configDir_; }
  const VrfLabelConfigInput::PtrConst& cliInput() const noexcept { return cliInput_; }
  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }

  KEL_REACTOR_COLL(Kel::String, KelRouteConfig, config)
  KelRouteConfig* configIs(const VrfLabelConfigInput::PtrConst& input);
  void routeConfigIs(const VrfLabelConfigInput::PtrConst& input) { configIs(input); }
  void routeConfigDel(const Kel::String& name) { configDel(name); }
  void routeConfigDelAll() { configDelAll(); }
  void configDirDel();

  KEL_ENTITY_COLL_ATTR(Netbase::MplsLabel, SourceSet, sourceSet, SourceSet)

  void handleInitialized();
  void handleConfigDirEntry(const Kel::String& name);
  void handleConfigSource(const Kel::String& name);
  void handleConfigEntry(const Kel::String& name, const Netbase::MplsLabel& label);
  void setOutputForEntry(const Netbase::MplsLabel& label);

 private:
  VrfLabelConfig::Ptr vrfLabelConfig_;
  Kel::Ptr<const Kel::Dir> configDir_;
  VrfLabelConfigInput::PtrConst cliInput_;
  bool initialized_ = false;
  std::unique_ptr<KelConfigDir> kelConfigDir_;
};

VrfLabelConfigMergeSm::Ptr vrfLabelConfigMergeSmFactory(
    const VrfLabelConfig::Ptr& vrfLabelConfig, const Kel::Ptr<const Kel::Dir>& configDir,
    const VrfLabelConfigInput::PtrConst& cliInput);
// The merge reactor that already writes `vrfLabelConfig` from `configDir`, or a new one.
VrfLabelConfigMergeSm::Ptr VrfLabelConfigMergeSmIs(const VrfLabelConfig::Ptr& vrfLabelConfig,
                                                   const Kel::Ptr<const Kel::Dir>& configDir,
                                                   const VrfLabelConfigInput::PtrConst& cliInput);

}  // namespace Mpls
