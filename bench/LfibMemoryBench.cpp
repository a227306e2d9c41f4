// M1: the shared memory an LFIB costs per single-via MPLS route.
//
// Writes 1,000,000 routes through the LfibStatus collections, each with its own via set of
// one via (an MPLS swap towards an IPv4 next hop: the commonest LFIB entry), into tables
// sized for them, then sums the resident bytes of the LFIB's segments (pages touched, from
// mincore): the rows, their slots and hash buckets, the via records' heap and the change
// logs. Pages never touched (the capacity beyond the rows written, the empty via tables)
// cost nothing and are not counted.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Mpls/MplsLfib.h"
#include "Pond/MountGroup.h"
#include "ShmBytes.h"

namespace {

constexpr uint32_t kRoutes = 1000000;

}  // namespace

int main() {
  std::string group = "m1-" + std::to_string(::getpid());
  Pond::MountGroup::removeSegments(group);
  int status = 0;
  try {
    Mpls::LfibStatusSizing sizing;
    sizing.lfibRoute.capacity = kRoutes;
    sizing.viaSet.capacity = kRoutes;
    sizing.viaSet.heapBytes = uint64_t{kRoutes} * 72;
    sizing.mplsVia.capacity = kRoutes;
    sizing.mplsVia.heapBytes = uint64_t{kRoutes} * 80;
    auto writer = Pond::MountGroup::writer(group);
    auto lfib = Mpls::lfibStatusFactory();
    lfib->mountGroupIs(writer, sizing);
    for (uint32_t i = 0; i < kRoutes; ++i) {
      Mpls::LfibViaKey viaKey(Mpls::LFib::sourceLdp, Mpls::viaTypeMplsIp, i + 1);
      Mpls::LfibViaSetKey setKey(Mpls::LFib::sourceLdp, i + 1, Mpls::viaTypeMplsIp,
                                 Mpls::viaSetTypeDefault);
      Mpls::LfibMplsVia via(viaKey, Netbase::IpGenAddr::ipv4(0x0a000000 + (i & 0xffff)),
                            Netbase::labelActionSwap,
                            Netbase::UnboundedMplsLabelOperation(Netbase::labelActionSwap,
                                                                 {16 + i % 100000}),
                            false);
      via.weightIs(1);
      lfib->mplsViaIs(via);
      Mpls::LfibViaSet set(setKey);
      set.viaKeyIs(0, viaKey);
      lfib->viaSetIs(set);
      lfib->lfibRouteIs(Mpls::LfibRoute(Mpls::RouteKey(16 + i), setKey, Mpls::LFib::sourceLdp,
                                        Mpls::FwdEqvClass(), 0));
    }
    writer->publish();
    const uint64_t total =
        Bench::groupResidentBytes(group, [](const std::string& table, uint64_t bytes) {
          if (bytes) {
            std::printf("# %-30s %10.1f bytes/route\n", table.c_str(), double(bytes) / kRoutes);
          }
        });
    std::printf("figure M1 %.1f bytes\n", double(total) / kRoutes);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "LfibMemoryBench: %s\n", e.what());
    status = 1;
  }
  Pond::MountGroup::removeSegments(group);
  return status;
}
