#include "Mpls/MplsRouteConfigMergeSm.h"

#include <fmt/format.h>

#include "Kel/Exception.h"
#include "Kel/Trace.h"

namespace Mpls {

namespace {

Kel::TraceFacility trace("MplsRouteConfigMergeSm");

}  // namespace

RouteConfigMergeSm::KelRouteConfig::KelRouteConfig(RouteConfigMergeSm* sm,
                                                   const RouteConfigInput::PtrConst& input)
    : sm_(sm), input_(input) {
  notifierIs(input);
}

void RouteConfigMergeSm::KelRouteConfig::onRoute(const RouteKeyAndMetric& key) {
  sm_->handleConfigEntry(input_->name(), key);
}

RouteConfigMergeSm::KelConfigDir::KelConfigDir(RouteConfigMergeSm* sm,
                                               const Kel::Ptr<const Kel::Dir>& dir)
    : Nested(sm), sm_(sm) {
  notifierIs(dir);
}

void RouteConfigMergeSm::KelConfigDir::onEntityPtr(const Kel::String& name) {
  sm_->handleConfigDirEntry(name);
}

RouteConfigMergeSm::RouteConfigMergeSm(const RouteConfig::Ptr& routeConfig,
                                       const Kel::Ptr<const Kel::Dir>& configDir,
                                       const RouteConfigInput::PtrConst& cliInput)
    : routeConfig_(routeConfig), configDir_(configDir), cliInput_(cliInput) {
  KEL_ASSERT(routeConfig_ && configDir_ && cliInput_,
             "the merge needs its output, its directory and its command-line input");
  kelConfigDir_ = std::make_unique<KelConfigDir>(this, configDir_);
}

RouteConfigMergeSm::~RouteConfigMergeSm() {
  configDelAll();
  sourceSetDelAll();
}

void RouteConfigMergeSm::configDirDel() { kelConfigDir_.reset(); }

RouteConfigMergeSm::KelRouteConfig* RouteConfigMergeSm::configIs(
    const RouteConfigInput::PtrConst& input) {
  KelRouteConfig* kel = configIs(input->name(), this, input);
  handleConfigSource(input->name());
  return kel;
}

void RouteConfigMergeSm::handleInitialized() {
  initializedIs(true);
  configIs(cliInput_);
  for (const auto& [name, entity] : configDir_->entityPtrIter()) {
    handleConfigDirEntry(name);
  }
  routeConfig_->readyIs(true);
}

void RouteConfigMergeSm::handleConfigDirEntry(const Kel::String& name) {
  KEL_FATAL_ASSERT(initialized());
  if (!configDir_->entityPtrHas(name)) {
    KEL_TRACE(trace, 5, "Name {} is not actually present yet", name);
    if (config(name)) {
      KEL_TRACE(trace, 0, "unhandled config-input removal of entry {}", name);
      KEL_FATAL_ASSERT(!config(name), "unhandled config-input removal of entry");
    }
    return;
  }
  const auto input = Kel::ptrDynamicCast<const RouteConfigInput>(configDir_->entityPtr(name));
  if (!input) {
    KEL_TRACE(trace, 0, "Incorrect type seen inside entityPtr collection with name {}", name);
    KEL_FATAL_ASSERT(input, "Incorrect type seen inside entityPtr collection");
  }
  configIs(input);
}

void RouteConfigMergeSm::handleConfigSource(const Kel::String& source) {
  KEL_FATAL_ASSERT(initialized());
  const KelRouteConfig* kel = config(source);
  if (!kel) {
    KEL_TRACE(trace, 0, "missing expected config from {}", source);
  }
  KEL_FATAL_ASSERT(config( source ));
  const RouteConfigInput::PtrConst input = kel->input();
  for (const auto& [key, route] : input->routeIter()) {
    handleConfigEntry(source, key);
  }
}

void RouteConfigMergeSm::handleConfigEntry(const Kel::String& name, const RouteKeyAndMetric& key) {
  KEL_FATAL_ASSERT(initialized());
  KEL_TRACE(trace, 8, "handleConfigEntry for {}, key {}", name, key);
  const KelRouteConfig* kel = config(name);
  const RouteConfigInput* routeConfig = kel ? kel->input().get() : nullptr;
  if (!routeConfig) {
    KEL_TRACE(trace, 0, "missing expected config from {}", name);
  }
  KEL_FATAL_ASSERT(routeConfig);
  const Route* route = routeConfig->routeIter().find(key);
  SourceSet* sources = nullptr;
  if (route) {
    sources = sourceSetIs(key).get();
    sources->sourceIs(name, true);
  } else if ((sources = sourceSet(key).get())) {
    sources->sourceDel(name);
    if (sources->sources() == 0) {
      sourceSetDel(key);
      sources = nullptr;
    }
  }
  outputIs(key, sources, name, route);
}

void RouteConfigMergeSm::setOutputForEntry(const RouteKeyAndMetric& key) {
  outputIs(key, sourceSet(key).get(), Kel::String(), nullptr);
}

void RouteConfigMergeSm::outputIs(const RouteKeyAndMetric& key, const SourceSet* sources,
                                  const Kel::String& known, const Route* knownRoute) {
  const uint32_t n = sources ? sources->sources() : 0;
  if (n != 1) {
    KEL_TRACE(trace, 7, "setOutputForEntry removed merge confict entry for {} with source count {}",
              key, n);
    routeConfig_->routeDel(key);
    return;
  }
  const Kel::String& source = sources->sourceIter().begin()->first;
  const Route* activeEntry = knownRoute;
  if (!activeEntry || source != known) {
    const KelRouteConfig* kel = config(source);
    activeEntry = kel ? kel->input()->routeIter().find(key) : nullptr;
  }
  if (!activeEntry) {
    KEL_TRACE(trace, 0, "missing expected key {}/{} from {}", key.routeKey().topLabel(),
              key.metric(), source);
  }
  KEL_FATAL_ASSERT(activeEntry);
  KEL_TRACE(trace, 7, "setOutputForEntry add merged config entry for {} from source {}", key,
            source);
  routeConfig_->routeIs(*activeEntry);
}

RouteConfigMergeSm::Ptr routeConfigMergeSmFactory(const RouteConfig::Ptr& routeConfig,
                                                  const Kel::Ptr<const Kel::Dir>& configDir,
                                                  const RouteConfigInput::PtrConst& cliInput) {
  return Kel::make<RouteConfigMergeSm>(routeConfig, configDir, cliInput);
}

RouteConfigMergeSm::Ptr RouteConfigMergeSmIs(const RouteConfig::Ptr& routeConfig,
                                             const Kel::Ptr<const Kel::Dir>& configDir,
                                             const RouteConfigInput::PtrConst& cliInput) {
  for (Kel::NotifieeBase* notifiee : configDir->notifieeList().members()) {
    const auto* kel = dynamic_cast<const RouteConfigMergeSm::KelConfigDir*>(notifiee);
    if (!kel) {
      continue;
    }
    auto* sm = static_cast<RouteConfigMergeSm*>(kel->owner());
    if (!sm->isZombie() && sm->routeConfig() == routeConfig) {
      return RouteConfigMergeSm::Ptr(sm);
    }
  }
  return routeConfigMergeSmFactory(routeConfig, configDir, cliInput);
}

}  // namespace Mpls
