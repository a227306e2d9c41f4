// The LFIB writer's input: the checks of a consolidated route.
//
// Agents match on the text of the unset-key assertion, and its place is part of that
// text: it stands at line 23 of this file. Add new code below verifyVia.
#include "Mpls/MplsLfibWriter.h"

#include "Kel/Exception.h"

namespace Mpls {

ConsolidatedLfibRoute::ConsolidatedLfibRoute(Kel::Strep text) {
  (void)text;
  KEL_ASSERT(!"No String constructor for ConsolidatedLfibRoute - has collection",
             "a consolidated route cannot be read from text");
}

// Every via of a consolidated route carries the unset key: via keys are assigned by the
// writer when it programs the route, never by the protocol that fills the route in.
//
// The check runs after the via has been inserted into its set, so a caller that catches
// the exception finds the via stored.
void ConsolidatedLfibRoute::verifyVia(const LfibViaKey& vk) const {
  KEL_ASSERT(vk == LfibViaKey(), "Vias in ConsolidatedLfibRoute should have an unset key only");
}

}  // namespace Mpls
