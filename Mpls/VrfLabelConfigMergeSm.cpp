#include "Mpls/VrfLabelConfigMergeSm.h"

#include <fmt/format.h>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("VrfLabelConfigMergeSm");

}  // namespace

VrfLabelConfigMergeSm::KelRouteConfig::KelRouteConfig(VrfLabelConfigMergeSm* sm,
                                                      const VrfLabelConfigInput::PtrConst& input)
    : sm_(sm), input_(input) {
  notifierIs(input);
}

void VrfLabelConfigMergeSm::KelRouteConfig::onVrfLabel(const Netbase::MplsLabel& label) {
  sm_->handleConfigEntry(input_->name(), label);
}

VrfLabelConfigMergeSm::KelConfigDir::KelConfigDir(VrfLabelConfigMergeSm* sm,
                                                  const Kel::Ptr<const Kel::Dir>& dir)
    : Nested(sm), sm_(sm) {
  notifierIs(dir);
}

void VrfLabelConfigMergeSm::KelConfigDir::onEntityPtr(const Kel::String& name) {
  sm_->handleConfigDirEntry(name);
}

VrfLabelConfigMergeSm::VrfLabelConfigMergeSm(const VrfLabelConfig::Ptr& vrfLabelConfig,
                                             const Kel::Ptr<const Kel::Dir>& configDir,
                                             const VrfLabelConfigInput::PtrConst& cliInput)
    : vrfLabelConfig_(vrfLabelConfig), configDir_(configDir), cliInput_(cliInput) {
  KEL_ASSERT(vrfLabelConfig_ && configDir_ && cliInput_,
             "the merge needs its output, its directory and its command-line input");
  kelConfigDir_ = std::make_unique<KelConfigDir>(this, configDir_);
}

VrfLabelConfigMergeSm::~VrfLabelConfigMergeSm() {
  configDelAll();
  sourceSetDelAll();
}

void VrfLabelConfigMergeSm::configDirDel() { kelConfigDir_.reset(); }

VrfLabelConfigMergeSm::KelRouteConfig* VrfLabelConfigMergeSm::configIs(
    const VrfLabelConfigInput::PtrConst& input) {
  KelRouteConfig* kel = configIs(input->name(), this, input);
  handleConfigSource(input->name());
  return kel;
}

void VrfLabelConfigMergeSm::handleInitialized() {
  KEL_FATAL_ASSERT(!mergedConfig()->vrfLabels());
  KEL_FATAL_ASSERT(!mergedConfig()->ready());
  initializedIs(true);
  configIs(cliInput_);
  for (const auto& [name, entity] : configDir_->entityPtrIter()) {
    handleConfigDirEntry(name);
  }
  vrfLabelConfig_->readyIs(true);
}

void VrfLabelConfigMergeSm::handleConfigDirEntry(const Kel::String& name) {
  KEL_FATAL_ASSERT(initialized());
  if (!configDir_->entityPtrHas(name)) {
    KEL_TRACE(trace, 5, "Name {} is not actually present yet", name);
    if (config(name)) {
      KEL_TRACE(trace, 0, "unhandled config-input removal of entry {}", name);
      KEL_FATAL_ASSERT(!config(name), "unhandled config-input removal of entry");
    }
    return;
  }
  const auto input = Kel::ptrDynamicCast<const VrfLabelConfigInput>(configDir_->entityPtr(name));
  if (!input) {
    KEL_TRACE(trace, 0, "Incorrect type seen inside entityPtr collection with name {}", name);
    KEL_FATAL_ASSERT(input, "Incorrect type seen inside entityPtr collection");
  }
  configIs(input);
}

void VrfLabelConfigMergeSm::handleConfigSource(const Kel::String& source) {
  KEL_FATAL_ASSERT(initialized());
  const KelRouteConfig* kel = config(source);
  if (!kel) {
    KEL_TRACE(trace, 0, "missing expected config from {}", source);
  }
  KEL_FATAL_ASSERT(config( source ));
  const VrfLabelConfigInput::PtrConst input = kel->input();
  for (const auto& [label, entry] : input->vrfLabelIter()) {
    handleConfigEntry(source, label);
  }
}

void VrfLabelConfigMergeSm::handleConfigEntry(const Kel::String& name,
                                              const Netbase::MplsLabel& label) {
  KEL_FATAL_ASSERT(initialized());
  KEL_TRACE(trace, 8, "handleConfigEntry for {}, label {}", name, label);
  const KelRouteConfig* kel = config(name);
  const VrfLabelConfigInput* vrfLabelConfig = kel ? kel->input().get() : nullptr;
  if (!vrfLabelConfig) {
    KEL_TRACE(trace, 0, "missing expected config from {}", name);
  }
  KEL_FATAL_ASSERT(vrfLabelConfig);
  if (vrfLabelConfig->vrfLabelHas(label)) {
    sourceSetIs(label)->sourceIs(name, true);
  } else if (SourceSet* sources = sourceSet(label).get()) {
    sources->sourceDel(name);
    if (sources->sources() == 0) {
      sourceSetDel(label);
    }
  }
  setOutputForEntry(label);
}

void VrfLabelConfigMergeSm::setOutputForEntry(const Netbase::MplsLabel& label) {
  const VrfLabel none;
  VrfLabel priorityEntry;
  Kel::String prioritySource;
  bool conflict = false;
  if (const SourceSet* sources = sourceSet(label).get()) {
    for (const auto& [activeSource, present] : sources->sourceIter()) {
      const KelRouteConfig* kel = config(activeSource);
      const VrfLabel activeEntry = kel ? kel->input()->vrfLabel(label) : none;
      KEL_TRACE(trace, 8, " priorityEntry {} activeSource {} activeEntry {}", priorityEntry,
                activeSource, activeEntry);
      if (priorityEntry != none && activeEntry.dynamic()) {
        conflict = conflict || priorityEntry.dynamic();
        continue;
      }
      priorityEntry = activeEntry;
      prioritySource = activeSource;
      if (!activeEntry.dynamic()) {
        conflict = false;
        break;
      }
    }
  }
  if (!conflict && priorityEntry != none) {
    KEL_TRACE(trace, 7, " add merged config entry for {} from source {}", label, prioritySource);
    vrfLabelConfig_->vrfLabelIs(priorityEntry);
    return;
  }
  KEL_TRACE(trace, 7, " removed entry for {}", label);
  vrfLabelConfig_->vrfLabelDel(label);
  if (conflict) {
    Kel::log(MPLS_VRF_LABEL_CONFLICT, label);
  }
}

VrfLabelConfigMergeSm::Ptr vrfLabelConfigMergeSmFactory(
    const VrfLabelConfig::Ptr& vrfLabelConfig, const Kel::Ptr<const Kel::Dir>& configDir,
    const VrfLabelConfigInput::PtrConst& cliInput) {
  return Kel::make<VrfLabelConfigMergeSm>(vrfLabelConfig, configDir, cliInput);
}

VrfLabelConfigMergeSm::Ptr VrfLabelConfigMergeSmIs(const VrfLabelConfig::Ptr& vrfLabelConfig,
                                                   const Kel::Ptr<const Kel::Dir>& configDir,
                                                   const VrfLabelConfigInput::PtrConst& cliInput) {
  for (Kel::NotifieeBase* notifiee : configDir->notifieeList().members()) {
    const auto* kel = dynamic_cast<const VrfLabelConfigMergeSm::KelConfigDir*>(notifiee);
    if (!kel) {
      continue;
    }
    auto* sm = static_cast<VrfLabelConfigMergeSm*>(kel->owner());
    if (!sm->isZombie() && sm->vrfLabelConfig() == vrfLabelConfig) {
      return VrfLabelConfigMergeSm::Ptr(sm);
    }
  }
  return vrfLabelConfigMergeSmFactory(vrfLabelConfig, configDir, cliInput);
}

}  // namespace Mpls
