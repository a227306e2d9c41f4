// What a writer leaves when it stops part way, and how the library takes it back: orphans
// deleted after the producer's full pass, and an undo log that puts a refused batch of
// writes back byte for byte.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Kel/DumpContext.h"
#include "Mpls/MplsLfibWriter.h"
#include "Pond/Exception.h"
#include "Pond/UndoLog.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using TestSupport::lfibViaKey;
using TestSupport::lfibViaSetKey;

struct Fixture : TestSupport::LfibFixture {
  explicit Fixture(const std::string& test)
      : LfibFixture(test), writer(lfibWriterFactory(status)) {}
  std::string dump() const {
    Kel::DumpContext context;
    status->dumpState(context, 0);
    return context.text();
  }
  LfibWriter::Ptr writer;
};

// Route `label` over `vias` MPLS vias, numbered from `first`.
ConsolidatedLfibRoute route(uint32_t label, uint32_t vias, uint32_t first = 0) {
  ConsolidatedLfibRoute r(RouteKey(label), LFib::sourceStatic, FwdEqvClass(), 0, viaTypeMplsIp);
  r.viaSetTypeIs(viaSetTypeEcmp);
  for (uint32_t n = first; n < first + vias; ++n) {
    r.mplsViaIs(LfibMplsVia(LfibViaKey(),
                            Netbase::IpGenAddr(fmt::format("10.0.{}.{}", n / 250, n % 250 + 1)),
                            Netbase::labelActionSwap,
                            Netbase::UnboundedMplsLabelOperation(Netbase::labelActionSwap, {1000 + n}),
                            false));
  }
  return r;
}

TEST(LfibRecovery, OrphansOfTheSourceGoWhenItsProducerIsReady) {
  Fixture f("LfibRecoveryOrphans");
  f.writer->lfibRouteIs(route(100, 2));
  // What a killed writer leaves: vias and a via set not yet named, of two sources.
  f.via(lfibViaKey(viaTypeMplsIp, 900));
  f.via(lfibViaKey(viaTypeMplsIp, 901));
  f.viaSet(lfibViaSetKey(viaTypeMplsIp, 900), {lfibViaKey(viaTypeMplsIp, 900)});
  f.via(lfibViaKey(viaTypeMplsIp, 902, LFib::sourceLdp));
  const std::string before = f.dump();
  auto report = lfibIntegrityCheck(*f.status);
  ASSERT_EQ(report.problems.size(), 3u);  // one set, then two vias unused (902 is named)

  auto ldp = lfibProducerGrStateFactory(LFib::sourceLdp);
  f.writer->producerGrStateIs(ldp);
  EXPECT_EQ(f.dump(), before);  // not ready yet
  ldp->inputReadyIs(true);
  EXPECT_FALSE(lfibViaStored(*f.status, lfibViaKey(viaTypeMplsIp, 902, LFib::sourceLdp)));

  auto ready = lfibProducerGrStateFactory(LFib::sourceStatic);
  ready->inputReadyIs(true);
  f.writer->producerGrStateIs(ready);  // ready already: at once
  report = lfibIntegrityCheck(*f.status);
  EXPECT_TRUE(report.consistent());
  EXPECT_EQ(report.routes, 1u);
  EXPECT_EQ(report.viaSets, 1u);
  EXPECT_EQ(report.vias, 2u);
  EXPECT_EQ(f.writer->lfibOrphanDelAll(LFib::sourceStatic).viaSets, 0u);
}

TEST(LfibRecovery, UndoLogPutsARefusedBatchBackByteForByte) {
  LfibStatusSizing small;
  small.viaSet.heapBytes = 8192;
  Fixture f("LfibRecoveryUndo");
  // Tables of their own, with a small via-set heap.
  f.status->mountGroupIs(nullptr);
  f.group = nullptr;
  Pond::MountGroup::removeSegments(*f);
  f.group = Pond::MountGroup::writer(*f);
  f.status->mountGroupIs(f.group, small);
  for (uint32_t label = 100; label < 110; ++label) {
    f.writer->lfibRouteIs(route(label, 2, label));
  }
  const std::string before = f.dump();
  {
    Pond::UndoLog undo(f.group);
    EXPECT_THROW(Pond::UndoLog(f.group), Pond::NotWriterError);  // one log per group
    f.writer->lfibRouteDel(RouteKey(100));
    f.writer->lfibRouteIs(route(101, 3, 500));  // rewritten in place
    // Via sets of 100 vias until the via-set heap refuses one.
    EXPECT_THROW(
        for (uint32_t label = 200;; ++label) { f.writer->lfibRouteIs(route(label, 100, label)); },
        Pond::TableFullException);
    EXPECT_GT(undo.changes(), 100u);
    undo.rollback();
    EXPECT_EQ(undo.changes(), 0u);
  }
  EXPECT_EQ(f.dump(), before);
  EXPECT_TRUE(lfibIntegrityCheck(*f.status).consistent());
}

}  // namespace
