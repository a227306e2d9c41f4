// RouteConfigMergeSm folds the static MPLS route configuration of several sources into one
// output, Mpls::RouteConfig.
//
// Sources are Mpls::RouteConfigInput entities: the command-line input handed over at
// construction, and the entries of a directory into which other agents publish their
// inputs, each under its own name. The rule is exclusive ownership: a route key
// (incoming label and metric) that exactly one source configures is in the output with
// that source's route; a key that no source, or two or more sources, configure is not.
// Conflicts are never arbitrated: the key comes back, with the remaining source's route,
// as soon as all other sources give it up. The output is recomputed from the key's
// source set, so the result does not depend on the order in which sources report.
//
// Start: nothing is merged before handleInitialized(), which merges the command-line
// input, then every directory entry present, and only then marks the output ready. Every
// handler asserts that the reactor is initialized.
//
// Sources are only ever added. A directory entry that goes away, an entry of another type
// than RouteConfigInput, and a source that is asked for but not followed are fatal: each
// is traced first, then the process assertion stops the agent. (A host whose inputs may
// leave the directory runs Mpls::RouteConfigMergerSm instead.)
//
// Destruction drops the nested reactors and the source sets; it leaves the output as it
// is.
//
// Single-threaded: runs on the reactor thread of the agent that owns it and its entities.
#pragma once

#include <cstdint>
#include <memory>

#include "Kel/Collection.h"
#include "Kel/Dir.h"
#include "Kel/Entity.h"
#include "Kel/String.h"
#include "types/Mpls/RouteConfig.h"

namespace Mpls {

class RouteConfigMergeSm : public Kel::Reactor {
 public:
  KEL_ENTITY(RouteConfigMergeSm, "Mpls::RouteConfigMergeSm");
  using Ptr = Kel::Ptr<RouteConfigMergeSm>;
  class NotifieeConst : public Kel::NotifieeOf<RouteConfigMergeSm> {
   public:
    virtual void onSourceSet(const RouteKeyAndMetric& key) { (void)key; }
  };

  // The sources that configure one route key; it exists only while it has one.
  class SourceSet : public Kel::Entity {
   public:
    KEL_ENTITY(SourceSet, "Mpls::RouteConfigMergeSm::SourceSet");
    using Ptr = Kel::Ptr<SourceSet>;
    class NotifieeConst : public Kel::NotifieeOf<SourceSet> {
     public:
      virtual void onSource(const Kel::String& name) { (void)name; }
    };
    explicit SourceSet(const RouteKeyAndMetric& key) : key_(key) {}
    const RouteKeyAndMetric& key() const noexcept { return key_; }

    KEL_SMALL_MAP_ATTR(Kel::String, bool, source, Source)

   private:
    RouteKeyAndMetric key_;
  };

  // One source's route collection: every change at a key runs handleConfigEntry.
  class KelRouteConfig : public RouteConfigInput::NotifieeConst {
   public:
    KelRouteConfig(RouteConfigMergeSm* sm, const RouteConfigInput::PtrConst& input);
    void onRoute(const RouteKeyAndMetric& key) override;
    const RouteConfigInput::PtrConst& input() const noexcept { return input_; }

   private:
    RouteConfigMergeSm* sm_;
    RouteConfigInput::PtrConst input_;
  };
  // The input directory: an entry added or removed.
  class KelConfigDir : public Kel::Nested<Kel::Dir::NotifieeConst> {
   public:
    KelConfigDir(RouteConfigMergeSm* sm, const Kel::Ptr<const Kel::Dir>& dir);
    void onEntityPtr(const Kel::String& name) override;

   private:
    RouteConfigMergeSm* sm_;
  };

  // Use routeConfigMergeSmFactory(). Follows the directory from construction on, but
  // merges nothing before handleInitialized().
  RouteConfigMergeSm(const RouteConfig::Ptr& routeConfig, const Kel::Ptr<const Kel::Dir>& configDir,
                     const RouteConfigInput::PtrConst& cliInput);
  ~RouteConfigMergeSm() override;

  const RouteConfig::Ptr& routeConfig() const noexcept { return routeConfig_; }
  const Kel::Ptr<const Kel::Dir>& configDir() const noexcept { return configDir_; }
  const RouteConfigInput::PtrConst& cliInput() const noexcept { return cliInput_; }
  bool initialized() const noexcept { return initialized_; }
  void initializedIs(bool v) { initialized_ = v; }
  // Where the next-hop resolver publishes what it resolves for MPLS routes.
  static const char* l3NHResolverPath() noexcept { return "l3/nexthop-resolver/status/mpls"; }

  // The sources followed, by name. configIs(input) follows `input` under its name and
  // merges all its routes; configDel(name) / routeConfigDel(name) stop following one
  // (its routes stay merged as they are).
  KEL_REACTOR_COLL(Kel::String, KelRouteConfig, config)
  KelRouteConfig* configIs(const RouteConfigInput::PtrConst& input);
  void routeConfigDel(const Kel::String& name) { configDel(name); }
  void routeConfigDelAll() { configDelAll(); }
  void configDirDel();

  KEL_ENTITY_COLL_ATTR(RouteKeyAndMetric, SourceSet, sourceSet, SourceSet)

  void handleInitialized();
  void handleConfigDirEntry(const Kel::String& name);
  void handleConfigSource(const Kel::String& name);
  void handleConfigEntry(const Kel::String& name, const RouteKeyAndMetric& key);
  void setOutputForEntry(const RouteKeyAndMetric& key);

 private:
  // setOutputForEntry with the key's source set, and the route of `known` when the caller
  // holds it already.
  void outputIs(const RouteKeyAndMetric& key, const SourceSet* sources, const Kel::String& known,
                const Route* knownRoute);

  RouteConfig::Ptr routeConfig_;
  Kel::Ptr<const Kel::Dir> configDir_;
  RouteConfigInput::PtrConst cliInput_;
  bool initialized_ = false;
  std::unique_ptr<KelConfigDir> kelConfigDir_;
};

RouteConfigMergeSm::Ptr routeConfigMergeSmFactory(const RouteConfig::Ptr& routeConfig,
                                                  const Kel::Ptr<const Kel::Dir>& configDir,
                                                  const RouteConfigInput::PtrConst& cliInput);
// The merge reactor that already writes `routeConfig` from `configDir`, or a new one.
RouteConfigMergeSm::Ptr RouteConfigMergeSmIs(const RouteConfig::Ptr& routeConfig,
                                             const Kel::Ptr<const Kel::Dir>& configDir,
                                             const RouteConfigInput::PtrConst& cliInput);

}  // namespace Mpls
