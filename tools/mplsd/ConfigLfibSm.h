// ConfigLfibSm programs the merged configuration into the LFIB: each merged static route
// (Mpls::RouteConfig) as a route of source static, each merged VRF label
// (Mpls::VrfLabelConfig) as an IP-lookup route of source vrf-label.
//
// One LFIB route per label: of the static routes of a label (one per metric) the lowest
// metric is programmed; a label with a static route and a VRF label gets the static route.
// A label that leaves the configuration leaves the LFIB.
//
// Start: nothing is written until both outputs are ready (every source present at the
// agent's start merged). Then one full pass makes the LFIB hold exactly the configuration:
// what the configuration no longer holds is deleted, and every label is written, which
// changes nothing for a route the LFIB already holds as configured (a restarted agent with
// unchanged configuration changes nothing). The pass ends by removing what a writer killed
// mid-write left of the two sources. Afterwards each change of a merged route or label is
// programmed as it comes.
//
// A route the LFIB refuses (a table full) is logged and left out; the rest goes on.
//
// Single-threaded: runs on the agent's reactor thread, which publishes the LFIB's changes
// (Pond::MountGroup::publish) after each iteration of its loop.
#pragma once

#include <cstdint>

#include "Kel/Entity.h"
#include "Mpls/MplsLfibWriter.h"
#include "types/Mpls/RouteConfig.h"
#include "types/Mpls/VrfLabelConfig.h"

namespace Mplsd {

class ConfigLfibSm : public Kel::Reactor {
 public:
  KEL_ENTITY(ConfigLfibSm, "Mplsd::ConfigLfibSm");
  using Ptr = Kel::Ptr<ConfigLfibSm>;
  class NotifieeConst : public Kel::NotifieeOf<ConfigLfibSm> {};

  class KelRouteConfig : public Kel::Nested<Mpls::RouteConfig::NotifieeConst> {
   public:
    KelRouteConfig(ConfigLfibSm* sm, const Mpls::RouteConfig::Ptr& routes);
    void onRoute(const Mpls::RouteKeyAndMetric& key) override;
    void onReady() override;

   private:
    ConfigLfibSm* sm_;
  };
  class KelVrfLabelConfig : public Kel::Nested<Mpls::VrfLabelConfig::NotifieeConst> {
   public:
    KelVrfLabelConfig(ConfigLfibSm* sm, const Mpls::VrfLabelConfig::Ptr& vrfLabels);
    void onVrfLabel(const Netbase::MplsLabel& label) override;
    void onReady() override;

   private:
    ConfigLfibSm* sm_;
  };

  // Makes its full pass at once when both outputs are ready already.
  ConfigLfibSm(const Mpls::LfibWriter::Ptr& writer, const Mpls::RouteConfig::Ptr& routes,
               const Mpls::VrfLabelConfig::Ptr& vrfLabels);

  // Whether the full pass has run.
  bool synced() const noexcept { return synced_; }
  // Routes written or rewritten, and deleted, since construction (a write that changed
  // nothing counts in neither).
  uint64_t written() const noexcept { return written_; }
  uint64_t deleted() const noexcept { return deleted_; }
  uint64_t refused() const noexcept { return refused_; }

  // Programs what the configuration holds for `label`.
  void labelIs(Netbase::MplsLabel label);

 private:
  void handleReady();

  Mpls::LfibWriter::Ptr writer_;
  Mpls::RouteConfig::Ptr routes_;
  Mpls::VrfLabelConfig::Ptr vrfLabels_;
  bool synced_ = false;
  uint64_t written_ = 0;
  uint64_t deleted_ = 0;
  uint64_t refused_ = 0;
  KelRouteConfig kelRouteConfig_;
  KelVrfLabelConfig kelVrfLabelConfig_;
};

inline ConfigLfibSm::Ptr configLfibSmFactory(const Mpls::LfibWriter::Ptr& writer,
                                             const Mpls::RouteConfig::Ptr& routes,
                                             const Mpls::VrfLabelConfig::Ptr& vrfLabels) {
  return Kel::make<ConfigLfibSm>(writer, routes, vrfLabels);
}

}  // namespace Mplsd
