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
  std::optional<LfibRouteView> last;  // the last read, and whether it was stable
  bool lastStable = false;
  for (int read = 0; read < kMaxReads; ++read) {
    LfibRouteView view;
    if (!routes->find(key, view.route)) {
      return std::nullopt;
    }
    readViaSet(lfib, view);
    // The route and via set again: unchanged, nothing read in between was replaced (the
    // writer deletes a via set or via only after what named it moved on).
    LfibRoute route;
    if (!routes->find(key, route)) {
      return std::nullopt;
    }
    LfibViaSet viaSet;
    const bool viaSetFound = viaSets && viaSets->find(view.route.viaSetKey(), viaSet);
    const bool stable =
        route == view.route && viaSetFound == view.viaSetFound && viaSet == view.viaSet;
    if (stable && (view.complete() || (lastStable && *last == view))) {
      return view;
    }
    last = std::move(view);
    lastStable = stable;
  }
  return last;
}

}  // namespace Mpls
