#include "tools/mplsd/ConfigLfibSm.h"

#include <vector>

#include "Kel/Log.h"
#include "Kel/Trace.h"
#include "Mpls/LfibSourceGrState.h"
#include "tools/mplsd/StaticRoute.h"

namespace Mplsd {

namespace {

using namespace Mpls;

Kel::TraceFacility trace("ConfigLfibSm");

KEL_LOG_MESSAGE(MPLS_CONFIG_ROUTE_REFUSED, "MPLS", "CONFIG_ROUTE_REFUSED", Kel::LogSeverity::error,
                "Configured route for label {} not programmed: {}",
                "The LFIB refused the route that the configuration holds for the label, "
                "usually because one of its tables is full. The label is left out of the LFIB.",
                "Remove configuration, or restart the agent on an LFIB sized for it.");

bool configured(LFib::Source source) {
  return source == LFib::sourceStatic || source == LFib::sourceVrfLabel;
}

}  // namespace

ConfigLfibSm::KelRouteConfig::KelRouteConfig(ConfigLfibSm* sm, const RouteConfig::Ptr& routes)
    : Nested(sm), sm_(sm) {
  notifierIs(routes);
}

void ConfigLfibSm::KelRouteConfig::onRoute(const RouteKeyAndMetric& key) {
  if (sm_->synced()) {
    sm_->labelIs(key.routeKey().label());
  }
}

void ConfigLfibSm::KelRouteConfig::onReady() { sm_->handleReady(); }

ConfigLfibSm::KelVrfLabelConfig::KelVrfLabelConfig(ConfigLfibSm* sm,
                                                   const VrfLabelConfig::Ptr& vrfLabels)
    : Nested(sm), sm_(sm) {
  notifierIs(vrfLabels);
}

void ConfigLfibSm::KelVrfLabelConfig::onVrfLabel(const Netbase::MplsLabel& label) {
  if (sm_->synced()) {
    sm_->labelIs(label);
  }
}

void ConfigLfibSm::KelVrfLabelConfig::onReady() { sm_->handleReady(); }

ConfigLfibSm::ConfigLfibSm(const LfibWriter::Ptr& writer, const RouteConfig::Ptr& routes,
                           const VrfLabelConfig::Ptr& vrfLabels)
    : writer_(writer),
      routes_(routes),
      vrfLabels_(vrfLabels),
      kelRouteConfig_(this, routes),
      kelVrfLabelConfig_(this, vrfLabels) {
  handleReady();
}

void ConfigLfibSm::handleReady() {
  if (synced_ || !routes_->ready() || !vrfLabels_->ready()) {
    return;
  }
  synced_ = true;
  const LfibStatus& lfib = *writer_->lfib();
  // What the LFIB holds of the configuration's sources: kept, rewritten or deleted.
  std::vector<Netbase::MplsLabel> held;
  lfib.lfibRouteForEach([&](const LfibRoute& r) {
    if (configured(r.viaSetKey().source())) {
      held.push_back(r.key().label());
    }
  });
  for (const Netbase::MplsLabel label : held) {
    labelIs(label);
  }
  for (const auto& [key, route] : routes_->routeIter()) {
    labelIs(key.routeKey().label());
  }
  for (const auto& [label, vrfLabel] : vrfLabels_->vrfLabelIter()) {
    labelIs(label);
  }
  for (const LFib::Source source : {LFib::sourceStatic, LFib::sourceVrfLabel}) {
    const Kel::Ptr<LfibProducerGrState> state = lfibProducerGrStateFactory(source);
    writer_->producerGrStateIs(state);
    state->inputReadyIs(true);
  }
  KEL_TRACE(trace, 5, "synced: {} routes written, {} deleted", written_, deleted_);
}

void ConfigLfibSm::labelIs(Netbase::MplsLabel label) {
  LfibStatus& lfib = *writer_->lfib();
  const uint64_t before = lfib.tableVersions();
  // Routes are in (label, metric) order: the label's first one has the lowest metric.
  const RouteKeyAndMetric first(RouteKey(label), RouteMetric(0));
  const Route* best = routes_->routeIter().find(first);
  if (!best) {
    for (const auto& [key, route] : routes_->routeIterAfter(first)) {
      best = key.routeKey().label() == label ? &route : nullptr;
      break;
    }
  }
  const LfibRoute current = lfib.lfibRoute(RouteKey(label));
  try {
    if (best) {
      writer_->lfibRouteIs(lfibRouteOf(*best));
    } else if (const VrfLabel* vrf = vrfLabels_->vrfLabelIter().find(label)) {
      writer_->lfibRouteIs(lfibRouteOf(*vrf));
    } else if (current.key() == RouteKey(label) && configured(current.viaSetKey().source())) {
      writer_->lfibRouteDel(RouteKey(label));
      ++deleted_;
      KEL_TRACE(trace, 8, "deleted label {}", label);
      return;
    } else {
      return;
    }
  } catch (const std::exception& e) {
    ++refused_;
    Kel::log(MPLS_CONFIG_ROUTE_REFUSED, label, e.what());
    return;
  }
  if (lfib.tableVersions() != before) {
    ++written_;
    KEL_TRACE(trace, 8, "wrote label {}", label);
  }
}

}  // namespace Mplsd
