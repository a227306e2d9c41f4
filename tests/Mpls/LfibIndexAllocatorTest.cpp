// The adjacency index allocator against a writer-role LFIB on real shared-memory tables
// (counters per source, vias in use stepped over, the wrap within 60 bits, the traces),
// and the segment-routing tunnel index allocator.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kel/Trace.h"
#include "Mpls/LfibIndexAllocator.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using TestSupport::lfibViaKey;
constexpr auto ldp = LFib::sourceLdp;
constexpr auto evpn = LFib::sourceEvpn;

constexpr uint64_t adj(LFib::Source source, uint64_t counter) {
  return (static_cast<uint64_t>(source) << 60) | counter;
}

TEST(LfibGenAdjIdxAllocator, CountsPerSourceStepsOverViasInUseWrapsWithin60BitsAndTraces) {
  TestSupport::LfibFixture lfib("adjIdx");
  auto a = MplsHelper::lfibGenAdjIdxAllocatorFactory(lfib.status);
  EXPECT_EQ(a->getAdjacencyIndex(ldp), adj(ldp, 0));
  EXPECT_EQ(a->getAdjacencyIndex(ldp), adj(ldp, 1));
  EXPECT_EQ(a->getAdjacencyIndex(LFib::sourceStatic), adj(LFib::sourceStatic, 0));

  // Indices 2 to 5 in use in the four probed collections; LDP's VLAN via and another
  // source's via do not count. EVPN's VLAN and EVPN vias do.
  uint32_t index = 2;
  for (LfibViaType type :
       {viaTypeMplsIp, viaTypeMplsPseudowire, viaTypeIpLookup, viaTypeExternalFec}) {
    lfib.via(lfibViaKey(type, index++, ldp));
  }
  lfib.via(lfibViaKey(viaTypeVlan, 6, ldp));
  lfib.via(lfibViaKey(viaTypeMplsIp, 6, LFib::sourceStatic));
  EXPECT_EQ(a->getAdjacencyIndex(ldp), adj(ldp, 6));
  lfib.via(lfibViaKey(viaTypeVlan, 0, evpn));
  lfib.via(lfibViaKey(viaTypeEvpnVlanAwareFlood, 1, evpn));
  EXPECT_EQ(a->getAdjacencyIndex(evpn), adj(evpn, 2));

  // The counter follows a used index, and wraps within 60 bits, here past an index in
  // use (a via names it by its low 32 bits).
  a->useAdjacencyIndex(ldp, adj(ldp, 100));
  EXPECT_EQ(a->getAdjacencyIndex(ldp), adj(ldp, 101));
  lfib.via(lfibViaKey(viaTypeMplsIp, 0xFFFFFFFF, ldp));
  a->adjIndexIs(ldp, MplsHelper::LfibGenAdjIdxAllocator::indexMask);
  EXPECT_EQ(a->getAdjacencyIndex(ldp), adj(ldp, 0));
  a->resetAdjacencyIndex(ldp);
  EXPECT_EQ(a->getAdjacencyIndex(ldp), adj(ldp, 1));
  EXPECT_DEATH(a->getAdjacencyIndex(static_cast<LFib::Source>(16)),
               "Source does not fit in the adjacency index");

  // A fresh source's first index, then one the counter has passed.
  std::vector<std::string> traced;
  Kel::traceSinkIs(
      [&](const Kel::TraceFacility&, int, std::string_view line) { traced.emplace_back(line); });
  Kel::traceConfigIs("LfibIndexAllocator/*");
  a->getAdjacencyIndex(LFib::sourceMldp);
  a->useAdjacencyIndex(LFib::sourceMldp, adj(LFib::sourceMldp, 0));
  Kel::traceSinkIs({});
  Kel::traceConfigIs("");
  const std::string use = "source: sourceMldp, use idx: 10376293541461622784";
  EXPECT_EQ(traced, (std::vector<std::string>{use, "allocate adj index 0x9000000000000000", use,
                                              "index already used"}));
}

TEST(SrTunnelIdxAllocator, CountsFromOneAndRestoresTheCounter) {
  auto a = MplsHelper::srTunnelIdxAllocatorFactory();
  EXPECT_EQ(a->getIdx(), 1u);
  EXPECT_EQ(a->getIdx(), 2u);
  a->setIdx(100);
  EXPECT_EQ(a->getIdx(), 101u);
}

}  // namespace
