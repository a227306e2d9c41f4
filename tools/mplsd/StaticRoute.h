// What a configured route becomes in the LFIB: the one conversion from the configuration
// types (Mpls::Route, Mpls::VrfLabel) to the LFIB writer's input, shared by the agent,
// which programs merged configuration, and by mplsctl, whose route files describe routes
// the same way.
#pragma once

#include "Mpls/MplsLfibWriter.h"
#include "types/Mpls/RouteConfig.h"
#include "types/Mpls/VrfLabelConfig.h"

namespace Mplsd {

// The route of `source` that `route` describes, with no FEC: MPLS-IP vias for swap, push
// and pop (a via of weight N carried as N copies that differ by their weight field, and a
// UCMP via set when one has a weight above 1, ECMP otherwise), an IP-lookup via, or a
// pseudowire via.
Mpls::ConsolidatedLfibRoute lfibRouteOf(const Mpls::Route& route,
                                        Mpls::LFib::Source source = Mpls::LFib::sourceStatic);

// The VRF label's route: pop, then look the payload up in the VRF (IPv4 or IPv6, from the
// payload's first nibble).
Mpls::ConsolidatedLfibRoute lfibRouteOf(const Mpls::VrfLabel& vrfLabel);

}  // namespace Mplsd
