#include "Mpls/LfibRouteView.h"

namespace Mpls {

namespace {

// Reads before a view is taken as it is. Each read that is thrown away saw the writer
// change the route or its via set; a route that changes at every read for this long is
// returned as last read.
constexpr int kMaxReads = 64;

// The via set of `route` and its vias into `view`.
void readViaSet(const LfibStatus& lfib, LfibRouteView& view) {
  const auto* viaSets = lfib.viaSetTable();
  view.viaSetFound = viaSets && viaSets->find(view.route.viaSetKey(), view.viaSet);
  if (!view.viaSetFound) {
    view.viaSet = LfibViaSet();
    return;
  }
  for (const LfibViaKey& key : view.viaSet.viaKey()) {
    if (key != LfibViaKey()) {
      view.vias.emplace_back(key, lfibAnyVia(lfib, key));
    }
  }
}

}  // namespace

LfibAnyVia lfibAnyVia(const LfibStatus& lfib, const LfibViaKey& key) {
  LfibAnyVia out;
  lfibViaTypeVisit(key.viaType(), [&](auto via) {
    typename decltype(via)::Row row;
    if (via.find(lfib, key, row)) {
      out = std::move(row);
    }
  });
  return out;
}

bool LfibRouteView::complete() const noexcept {
  if (!viaSetFound) {
    return false;
  }
  for (const auto& [key, via] : vias) {
    if (std::holds_alternative<std::monostate>(via)) {
      return false;
    }
  }
  return true;
}

std::optional<LfibRouteView> lfibRouteView(const LfibStatus& lfib, const RouteKey& key) {
  const auto* routes = lfib.lfibRouteTable();
  const auto* viaSets = lfib.viaSetTable();
  if (!routes) {
    return std::nullopt;
  }
  std::optional<LfibRouteView> last;
  for (int read = 0; read < kMaxReads; ++read) {
    const uint64_t versions = lfib.tableVersions();
    LfibRouteView view;
    if (!routes->find(key, view.route)) {
      return std::nullopt;
    }
    readViaSet(lfib, view);
    if (view.complete()) {
      // The route and via set again: unchanged, nothing read in between was replaced (the
      // writer deletes a via set or via only after what named it moved on).
      LfibRoute route;
      if (!routes->find(key, route)) {
        return std::nullopt;
      }
      LfibViaSet viaSet;
      if (route == view.route && viaSets->find(view.route.viaSetKey(), viaSet) &&
          viaSet == view.viaSet) {
        return view;
      }
    } else if (lfib.tableVersions() == versions) {
      // No table changed while it was read: one state of the LFIB, in which the route
      // names what is not there. Damage, not a race (an unchanged route and via set would
      // not tell: the writer may have moved the route away and back meanwhile).
      return view;
    }
    last = std::move(view);
  }
  return last;
}

}  // namespace Mpls
