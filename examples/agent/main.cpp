// mpls-agent: the smallest useful host of an LFIB.
//
// A protocol agent owns the LFIB's shared-memory tables: it mounts them as the writer of a
// Pond mount group, hands consolidated routes to Mpls::LfibWriter (which writes the vias,
// then the via set, then the route, so that a reader never sees a half-written route) and
// publishes. Forwarding agents in other processes would mount the same group with
// Pond::MountGroup::reader() and read the very same tables.
//
// This one programs two routes, reads them back, prints them, deletes them and removes the
// group's segments, so that it leaves nothing behind in /dev/shm.
//
//   mpls-agent [GROUP]     GROUP defaults to "mpls-agent-<pid>"
//
// Exit status 0 when every route read back as written.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>
#include <utility>

#include "Mpls/MplsLfib.h"
#include "Mpls/MplsLfibWriter.h"
#include "Pond/MountGroup.h"

namespace {

using namespace Mpls;

// 100 swap 200 via 10.0.0.1 dev Ethernet1 via 10.0.0.2 dev Ethernet2: an equal-cost swap
// towards two next hops. A consolidated route carries its vias with unset keys; the
// writer picks the keys.
ConsolidatedLfibRoute swapRoute() {
  ConsolidatedLfibRoute route(RouteKey(Netbase::MplsLabel(100)), LFib::sourceStatic, FwdEqvClass(),
                              0, viaTypeMplsIp);
  route.viaSetTypeIs(viaSetTypeEcmp);
  const Netbase::UnboundedMplsLabelOperation swapTo200(Netbase::labelActionSwap,
                                                       {Netbase::MplsLabel(200)});
  for (const auto& [nextHop, intf] :
       {std::pair{"10.0.0.1", "Ethernet1"}, std::pair{"10.0.0.2", "Ethernet2"}}) {
    LfibMplsVia via(LfibViaKey(), Netbase::IpGenAddr(nextHop), Netbase::labelActionSwap, swapTo200,
                    false);
    via.intfIs(Netbase::IntfId(intf));
    route.mplsViaIs(via);
  }
  return route;
}

// 16 pop lookup vrf red ipv4: pop the label and route the IPv4 payload in VRF red. Lookup
// routes take metric 0.
ConsolidatedLfibRoute lookupRoute() {
  ConsolidatedLfibRoute route(RouteKey(Netbase::MplsLabel(16)), LFib::sourceStatic, FwdEqvClass(),
                              0, viaTypeIpLookup);
  route.viaSetTypeIs(viaSetTypeEcmp);
  route.ipLookupViaIs(LfibIpLookupVia(LfibViaKey(), L3::VrfName("red"), payloadTypeIpv4));
  return route;
}

// Prints a route as the LFIB holds it: the route names a via set, the via set names its
// vias, each in the collection of its via type. Returns how many vias it found.
uint32_t printRoute(const LfibStatus& lfib, const RouteKey& key) {
  const LfibRoute route = lfib.lfibRoute(key);
  if (route.key() != key) {
    std::printf("label %u: not in the LFIB\n", key.label().value());
    return 0;
  }
  const LfibViaSet viaSet = lfib.viaSet(route.viaSetKey());
  std::printf("label %u: %u vias\n", key.label().value(), viaSet.viaKeys());
  uint32_t found = 0;
  for (const LfibViaKey& viaKey : viaSet.viaKey()) {
    if (viaKey.viaType() == viaTypeMplsIp) {
      const LfibMplsVia via = lfib.mplsVia(viaKey);
      found += via.key() == viaKey;
      std::printf("  via %s dev %s, outgoing labels %s\n", fmt::format("{}", via.nextHop()).c_str(),
                  via.intf().stringValue().c_str(), via.labelStack().labelStackString().c_str());
    } else if (viaKey.viaType() == viaTypeIpLookup) {
      const LfibIpLookupVia via = lfib.ipLookupVia(viaKey);
      found += via.key() == viaKey;
      std::printf("  lookup in vrf %s, %s\n", via.vrfName().stringValue().c_str(),
                  fmt::format("{}", via.payloadType()).c_str());
    }
  }
  return found;
}

int run(const std::string& groupName) {
  // The writer role: creates the group's segments (or re-attaches to those a previous
  // incarnation left). Only one live process may write a group.
  Kel::Ptr<Pond::MountGroup> group = Pond::MountGroup::writer(groupName);

  // The LFIB's tables are created in the group, sized once for their lifetime. A real
  // agent sizes them for its scale; the defaults hold a few thousand routes.
  LfibStatus::Ptr lfib = lfibStatusFactory();
  lfib->mountGroupIs(group, LfibStatusSizing());

  // One writer per LFIB. It keeps the via and via set keys of each source.
  LfibWriter::Ptr writer = lfibWriterFactory(lfib);
  const ConsolidatedLfibRoute routes[] = {swapRoute(), lookupRoute()};
  for (const ConsolidatedLfibRoute& route : routes) {
    writer->lfibRouteIs(route);
  }
  // Readers are woken now rather than at the group's next periodic publish.
  group->publish();

  std::printf("LFIB '%s': %u routes, %u via sets, %u MPLS vias, %u IP lookup vias\n",
              groupName.c_str(), lfib->lfibRoutes(), lfib->viaSets(), lfib->mplsVias(),
              lfib->ipLookupVias());
  bool ok = lfib->lfibRoutes() == 2;
  for (const ConsolidatedLfibRoute& route : routes) {
    const uint32_t expected = route.mplsVias() + route.ipLookupVias();
    ok = printRoute(*lfib, route.key()) == expected && ok;
  }

  // Deleting a route deletes its via set and vias too.
  for (const ConsolidatedLfibRoute& route : routes) {
    writer->lfibRouteDel(route.key());
  }
  group->publish();
  ok = ok && lfib->lfibRoutes() == 0 && lfib->viaSets() == 0 && lfib->mplsVias() == 0 &&
       lfib->ipLookupVias() == 0;
  std::printf("after delete: %u routes, %u via sets\n", lfib->lfibRoutes(), lfib->viaSets());
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string groupName =
      argc > 1 ? argv[1] : fmt::format("mpls-agent-{}", static_cast<long>(getpid()));
  int status = 1;
  try {
    status = run(groupName);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "mpls-agent: %s\n", e.what());
  }
  // The tables live in POSIX shared memory and outlive the process unless removed: an
  // agent that restarts would re-attach to them; this one is done with them.
  const size_t removed = Pond::MountGroup::removeSegments(groupName);
  std::printf("removed %zu segments\n", removed);
  std::printf(status == 0 ? "agent: ok\n" : "agent: FAILED\n");
  return status;
}
