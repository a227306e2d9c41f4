// Mpls::LfibRouteView: one route of an LFIB read whole, with its via set and the set's
// vias, as one picture the LFIB held.
//
// A reader in another process looks the three layers up one after the other while the
// writer goes on. The writer's order (vias, via set, route; deletes in reverse) keeps
// every instant consistent, but not a reader's lookups taken together: a route read, then
// its via set looked up, may meet the set deleted in between because the route moved to
// another one; a via set rewritten in place may have dropped the via looked up next.
// lfibRouteView reads the route and its via set again after the vias: when both are
// unchanged, nothing that the view holds was replaced in between, and the view is taken;
// otherwise it reads again. A view that lacks its via set or a via is taken only when no
// table of the LFIB changed while it was read (their versions): then it is what the LFIB
// holds, a damaged LFIB, not a race (lfibIntegrityCheck reports it). A route and via set
// found unchanged would not prove it: the writer may have moved the route away and back
// in between.
#pragma once

#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "Mpls/MplsLfib.h"

namespace Mpls {

// One via of any via type; std::monostate when the LFIB lacks it.
#define MPLS_LFIB_ANY_VIA_ROW_(x, Type, name, Name, Row, capacity, label) , Row
using LfibAnyVia = std::variant<std::monostate MPLS_LFIB_VIA_TYPES(MPLS_LFIB_ANY_VIA_ROW_, _)>;
#undef MPLS_LFIB_ANY_VIA_ROW_

// The via of `key` as stored in the collection of its via type; monostate when absent.
LfibAnyVia lfibAnyVia(const LfibStatus& lfib, const LfibViaKey& key);

struct LfibRouteView {
  LfibRoute route;
  bool viaSetFound = false;
  LfibViaSet viaSet;  // as stored; the default via set when not found
  // The via set's keys other than the default key, in slot order, with their vias.
  std::vector<std::pair<LfibViaKey, LfibAnyVia>> vias;

  // The via set and every via it names were found.
  bool complete() const noexcept;
  friend bool operator==(const LfibRouteView&, const LfibRouteView&) = default;
};

// The route of `key` with its via set and vias (see above); nullopt when the LFIB has no
// such route. Readers and the writer alike; throws what the tables' lookups throw
// (Pond::CorruptionError).
std::optional<LfibRouteView> lfibRouteView(const LfibStatus& lfib, const RouteKey& key);

}  // namespace Mpls
