// The label manager in one process: client request entities in a directory, the
// configuration and the status as plain entities, time on a manual clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Kel/Trace.h"
#include "Mpls/LabelManagerSm.h"

namespace {

using namespace Mpls;

class LabelManager : public ::testing::Test {
 protected:
  LabelManager() { start(); }
  ~LabelManager() override { Kel::traceSinkIs({}), Kel::traceConfigIs(""); }

  // A label manager on the entities as they stand: what an agent's restart does.
  void start() {
    sm = labelManagerSmFactory(Corekit::timerWheelFactory(clock), nullptr, dir, config, status,
                               clock);
  }
  void request(const std::string& client, const std::string& id, bool present = true) {
    ClientLabelRequest::Ptr r =
        Kel::Ptr<ClientLabelRequest>(dynamic_cast<ClientLabelRequest*>(
            dir->entityPtr(Kel::String(client)).get()));
    if (!r) {
      r = clientLabelRequestFactory(client);
      dir->entityPtrIs(Kel::String(client), r);
    }
    r->requestIs(Kel::String(id), present);
  }
  // The first label of the block published for the request, or -1.
  int64_t block(const std::string& client, const std::string& id) const {
    const LabelBlockAllocation::Ptr a = status->labelBlockAllocation(Kel::String(client));
    return a && a->blockHas(Kel::String(id)) ? int64_t{a->block(Kel::String(id)).blockStart().value()}
                                             : -1;
  }
  void rangeIs(uint32_t base, uint32_t size) {
    config->labelRangeIs(Kel::String("dynamic"), LabelRange(base, size));
  }

  Kel::ManualClock::Ptr clock = Kel::manualClockFactory(100);
  Kel::Dir::Ptr dir = Kel::dirFactory("mpls/labelRequest");
  Config::Ptr config = configFactory();
  Api::Status::Ptr status = Api::statusFactory();
  LabelManagerSm::Ptr sm;
};

TEST_F(LabelManager, DefaultRangeHandsOutSixteenBlocksAndTakesThemBack) {
  request("bgp", "r1");
  request("bgp", "r2");
  EXPECT_EQ(block("bgp", "r1"), 100000);
  EXPECT_EQ(block("bgp", "r2"), 116384);
  EXPECT_EQ(status->dynamicLabelRange(), LabelRange(100000, 262144));
  for (int i = 0; i < 14; ++i) {
    request("ldp", "q" + std::to_string(i));
  }
  EXPECT_EQ(block("ldp", "q13"), 100000 + 15 * 16384);
  request("ldp", "late");  // the 17th
  EXPECT_EQ(block("ldp", "late"), -1);
  EXPECT_TRUE(sm->requestBacklog());

  // A released block answers the waiting request at once, though it has not cooled.
  request("bgp", "r1", false);
  EXPECT_EQ(block("bgp", "r1"), -1);
  EXPECT_EQ(block("ldp", "late"), 100000);
  EXPECT_FALSE(sm->requestBacklog());

  // A client that goes gives every block back; a freed block that has cooled comes first.
  dir->entityPtrDel(Kel::String("ldp"));
  EXPECT_FALSE(status->labelBlockAllocation(Kel::String("ldp")));
  EXPECT_FALSE(sm->client(Kel::String("ldp")));
  clock->advance(2);
  request("bgp", "r3");
  EXPECT_EQ(block("bgp", "r3"), 100000);
}

TEST_F(LabelManager, RangesTooSmallCutMovedAndDisabled) {
  request("bgp", "r1");
  rangeIs(16, 16383);  // no whole block
  EXPECT_EQ(block("bgp", "r1"), -1);
  EXPECT_FALSE(sm->drAlloc());
  EXPECT_EQ(status->dynamicLabelRange(), LabelRange(16, 16383));
  rangeIs(16, 16384);
  EXPECT_EQ(block("bgp", "r1"), 16);
  request("bgp", "r2");
  EXPECT_EQ(block("bgp", "r2"), -1);  // one block only

  // Cut at the largest label: 0xFFFFF - 1015000 holds two blocks, not the three asked.
  // (Requests are answered in no particular order.)
  rangeIs(1015000, 3 * 16384);
  EXPECT_EQ(block("bgp", "r1") + block("bgp", "r2"), 2 * 1015000 + 16384);
  request("bgp", "r3");
  EXPECT_EQ(block("bgp", "r3"), -1);

  // The same base, shorter: the block beyond the end is answered anew, and cannot be.
  rangeIs(1015000, 16384);
  EXPECT_EQ(block("bgp", "r1") + block("bgp", "r2") + block("bgp", "r3"), 1015000 - 2);

  // Moved: every request answered from the new base.
  rangeIs(200000, 3 * 16384);
  EXPECT_EQ(block("bgp", "r1") + block("bgp", "r2") + block("bgp", "r3"),
            3 * 200000 + 3 * 16384);
  EXPECT_THROW(LabelRange(0x100000, 1), Kel::RangeException);

  config->mplsEnabledIs(false);
  EXPECT_EQ(status->labelBlockAllocations(), 0u);
  config->mplsEnabledIs(true);
  EXPECT_EQ(block("bgp", "r1") + block("bgp", "r2") + block("bgp", "r3"),
            3 * 200000 + 3 * 16384);
}

TEST_F(LabelManager, RestartKeepsEveryBlockOrResetsAnInconsistentStatus) {
  request("bgp", "r1");
  request("ldp", "a");
  request("ldp", "b");
  request("bgp", "r1", false);
  clock->advance(2);  // block 0 has cooled
  request("isis", "x");
  request("bgp", "r1");
  const std::vector<int64_t> before{block("bgp", "r1"), block("ldp", "a"), block("ldp", "b"),
                                    block("isis", "x")};
  EXPECT_EQ(before, (std::vector<int64_t>{100000 + 3 * 16384, 116384, 132768, 100000}));

  // The agent restarts while isis has gone: the others keep exactly their blocks.
  sm = nullptr;
  dir->entityPtrDel(Kel::String("isis"));
  std::vector<std::string> traced;
  Kel::traceSinkIs([&](const Kel::TraceFacility&, int, std::string_view l) {
    traced.emplace_back(l);
  });
  Kel::traceConfigIs("LabelManagerSm/*");
  start();
  EXPECT_EQ((std::vector<int64_t>{block("bgp", "r1"), block("ldp", "a"), block("ldp", "b")}),
            (std::vector<int64_t>(before.begin(), before.end() - 1)));
  EXPECT_FALSE(status->labelBlockAllocation(Kel::String("isis")));
  clock->advance(2);
  request("ldp", "c");
  EXPECT_EQ(block("ldp", "c"), 100000);
  EXPECT_NE(std::find(traced.begin(), traced.end(), "allocate 16 blocks."), traced.end());

  // Two requests on one block, then a block off the block boundary: reset, answered anew.
  for (const uint32_t bad : {116384u, 116385u}) {
    sm = nullptr;
    status->labelBlockAllocation(Kel::String("bgp"))
        ->blockIs(Kel::String("r1"), LabelBlock(Netbase::MplsLabel(bad)));
    traced.clear();
    start();
    EXPECT_NE(std::find(traced.begin(), traced.end(), "reset allocator"), traced.end()) << bad;
    EXPECT_EQ(block("bgp", "r1") + block("ldp", "a") + block("ldp", "b") + block("ldp", "c"),
              4 * 100000 + 6 * 16384);
  }
}

}  // namespace
