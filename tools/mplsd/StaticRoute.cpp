#include "tools/mplsd/StaticRoute.h"

namespace Mplsd {

using namespace Mpls;

ConsolidatedLfibRoute lfibRouteOf(const Route& route, LFib::Source source) {
  const LfibViaType viaType = route.action() == routeActionLookup       ? viaTypeIpLookup
                              : route.action() == routeActionPseudowire ? viaTypeMplsPseudowire
                                                                        : viaTypeMplsIp;
  ConsolidatedLfibRoute c(route.key().routeKey(), source, FwdEqvClass(), route.key().metric(),
                          viaType);
  c.viaSetTypeIs(viaSetTypeEcmp);
  if (viaType == viaTypeIpLookup) {
    c.ipLookupViaIs(LfibIpLookupVia(LfibViaKey(), route.vrfName(), route.payloadType()));
    return c;
  }
  if (viaType == viaTypeMplsPseudowire) {
    c.pwViaIs(LfibPwVia(LfibViaKey(), route.intf()));
    return c;
  }
  const Netbase::MplsLabelAction action = route.action() == routeActionSwap ? Netbase::labelActionSwap
                                          : route.action() == routeActionPush
                                              ? Netbase::labelActionPush
                                              : Netbase::labelActionPop;
  const Netbase::MplsLabelStack stack(route.labelStack().begin(), route.labelStack().end());
  const Netbase::UnboundedMplsLabelOperation operation(action, stack);
  for (const RouteVia& hop : route.via()) {
    LfibMplsVia via(LfibViaKey(), hop.nextHop(), action, operation, false);
    via.intfIs(hop.intf());
    for (uint32_t w = 1; w <= hop.weight(); ++w) {
      via.weightIs(w);
      c.mplsViaIs(via);
    }
    if (hop.weight() > 1) {
      c.viaSetTypeIs(viaSetTypeUcmp);
    }
  }
  return c;
}

ConsolidatedLfibRoute lfibRouteOf(const VrfLabel& vrfLabel) {
  ConsolidatedLfibRoute c(RouteKey(vrfLabel.label()), LFib::sourceVrfLabel, FwdEqvClass(),
                          RouteMetric(0), viaTypeIpLookup);
  c.viaSetTypeIs(viaSetTypeEcmp);
  c.ipLookupViaIs(LfibIpLookupVia(LfibViaKey(), vrfLabel.vrfName(), payloadTypeAutoDecide));
  return c;
}

}  // namespace Mplsd
