// LfibIpLookupSm: the (label, VRF, payload type) triples of the IP-lookup routes of an
// LFIB, kept in step through the route versions of the LFIB's tracking.
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Mpls/LfibIpLookupSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "Pond/PondMap.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using PondTest::ScopedGroupName;

LfibViaKey ipViaKey(uint32_t index) { return TestSupport::lfibViaKey(viaTypeIpLookup, index); }
LfibViaSetKey ipSetKey(uint32_t index) {
  return TestSupport::lfibViaSetKey(viaTypeIpLookup, index, viaSetTypeDefault);
}
LfibViaSetKey mplsSetKey(uint32_t index) { return TestSupport::lfibViaSetKey(viaTypeMplsIp, index); }

// A writer's LFIB, tracked with route versions, and its IP-lookup table.
struct IpLookupLfib : TestSupport::LfibFixture {
  using LfibFixture::LfibFixture;
  void start() {
    trackingSm = lfibTrackingSmFactory(status, tracking, lfibTrackingMode(false, false, true), "t");
    sm = lfibIpLookupSmFactory(status, tracking, ipLookup);
  }
  void via(uint32_t index, const char* vrf, PayloadType af) { ipLookupVia(ipViaKey(index), vrf, af); }
  // One IP-lookup route of its own: via, via set and route share `n`.
  void lookupRoute(uint32_t label, uint32_t n, const char* vrf, PayloadType af) {
    via(n, vrf, af);
    viaSet(ipSetKey(n), {ipViaKey(n)});
    route(label, ipSetKey(n));
  }
  std::string triples() const { return TestSupport::ipLookupText(*ipLookup); }

  LfibTrackingStatus::Ptr tracking = lfibTrackingStatusFactory("ipLookup");
  LfibIpLookupStatus::Ptr ipLookup = lfibIpLookupStatusFactory();
  LfibTrackingSm::Ptr trackingSm;
  LfibIpLookupSm::Ptr sm;
};

// Every change of the table: "+<label>:<vrf>" when a triple is there after it, "-" when not.
struct Changes : LfibIpLookupStatus::NotifieeConst {
  explicit Changes(const LfibIpLookupStatus::Ptr& s) { notifierIs(s); }
  void onLabelVrfAf(const LfibIpLookupStatusLabelVrfAf& t) override {
    seen.push_back(fmt::format("{}{}:{}", notifier()->labelVrfAf(t) ? "+" : "-",
                               t.label().value(), t.vrfName().stringValue()));
  }
  std::vector<std::string> take() { return std::exchange(seen, {}); }
  std::vector<std::string> seen;
};

TEST(LfibIpLookupSm, OneTriplePerLabelFollowingItsRoute) {
  IpLookupLfib l("ipLookupSteps");
  l.lookupRoute(100, 1, "red", payloadTypeIpv4);
  l.lookupRoute(101, 2, "blue", payloadTypeIpv6);
  l.viaSet(mplsSetKey(9), {});  // an MPLS route never has a triple
  l.route(300, mplsSetKey(9));
  // A triple left by an earlier run, for a label that has none now.
  l.ipLookup->labelVrfAfIs(LfibIpLookupStatusLabelVrfAf(555, L3::VrfName("old"), payloadTypeIpv4),
                         true);
  l.start();
  EXPECT_EQ(l.triples(), "100:red:payloadTypeIpv4 101:blue:payloadTypeIpv6");
  EXPECT_EQ(l.sm->vrfAf(100).vrfName(), L3::VrfName("red"));

  Changes changes(l.ipLookup);
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* triples;
    std::vector<std::string> changes;
  } steps[] = {
      {"the via's VRF goes from red to blue", [&] { l.via(1, "blue", payloadTypeIpv4); },
       "100:blue:payloadTypeIpv4 101:blue:payloadTypeIpv6", {"-100:red", "+100:blue"}},
      {"the family alone changes", [&] { l.via(1, "blue", payloadTypeAutoDecide); },
       "100:blue:payloadTypeAutoDecide 101:blue:payloadTypeIpv6", {"-100:blue", "+100:blue"}},
      {"the route moves to another lookup via set",
       [&] {
         l.via(3, "green", payloadTypeIpv6);
         l.viaSet(ipSetKey(3), {ipViaKey(3)});
         l.route(100, ipSetKey(3));
       },
       "100:green:payloadTypeIpv6 101:blue:payloadTypeIpv6", {"-100:blue", "+100:green"}},
      {"a new version with the same contents writes nothing",
       [&] {
         l.route(100, ipSetKey(3));
         l.viaSet(ipSetKey(3), {ipViaKey(3)});
       },
       "100:green:payloadTypeIpv6 101:blue:payloadTypeIpv6", {}},
      {"the route stops being an IP lookup", [&] { l.route(101, mplsSetKey(9)); },
       "100:green:payloadTypeIpv6", {"-101:blue"}},
      {"and becomes one again", [&] { l.route(101, ipSetKey(2)); },
       "100:green:payloadTypeIpv6 101:blue:payloadTypeIpv6", {"+101:blue"}},
      {"the route is deleted", [&] { l.status->lfibRouteDel(RouteKey(100)); },
       "101:blue:payloadTypeIpv6", {"-100:green"}},
      {"an MPLS route comes and goes", [&] {
         l.route(301, mplsSetKey(9));
         l.status->lfibRouteDel(RouteKey(301));
       },
       "101:blue:payloadTypeIpv6", {}},
  };
  for (const Step& step : steps) {
    step.change();
    EXPECT_EQ(l.triples(), step.triples) << step.what;
    EXPECT_EQ(changes.take(), step.changes) << step.what;
  }
  EXPECT_EQ(l.sm->vrfAfs(), 1u);
  EXPECT_FALSE(static_cast<bool>(l.sm->vrfAf(100)));
}

TEST(LfibIpLookupSm, StartsFromTheRoutesThatHaveVersionsAndTheIsFormReturnsTheMachine) {
  IpLookupLfib l("ipLookupLate");
  l.lookupRoute(100, 1, "red", payloadTypeIpv4);
  l.trackingSm = lfibTrackingSmFactory(l.status, l.tracking, LfibTrackingMode(7), "t");
  l.lookupRoute(101, 2, "blue", payloadTypeIpv4);
  // Created after the tracking: it finds both routes through their versions.
  l.sm = LfibIpLookupSmIs(l.status, l.tracking, l.ipLookup);
  EXPECT_EQ(l.triples(), "100:red:payloadTypeIpv4 101:blue:payloadTypeIpv4");
  EXPECT_EQ(LfibIpLookupSmIs(l.status, l.tracking, l.ipLookup), l.sm);

  l.lookupRoute(102, 3, "red", payloadTypeIpv4);

  auto other = lfibIpLookupStatusFactory();
  auto second = LfibIpLookupSmIs(l.status, l.tracking, other);
  EXPECT_NE(second, l.sm);
  EXPECT_EQ(LfibIpLookupSmIs(l.status, l.tracking, other), second);
  EXPECT_EQ(other->labelVrfAfs(), 3u);
  // Dropped, it no longer follows.
  l.sm = nullptr;
  l.status->lfibRouteDel(RouteKey(100));
  EXPECT_EQ(l.triples(),
            "100:red:payloadTypeIpv4 101:blue:payloadTypeIpv4 102:red:payloadTypeIpv4");
}

// A reader mounts the group while the writer is still creating its tables: a route may be
// heard of before the via-set table opens. Its via set reads as absent then, which is no
// broken LFIB: the label waits for the group to be ready.
TEST(LfibIpLookupSm, OnAReaderARouteHeardBeforeItsViaSetTableOpensWaitsForReadiness) {
  ScopedGroupName name("ipLookupOpening");
  auto readerGroup = Pond::MountGroup::reader(*name);
  auto lfib = lfibStatusFactory();
  lfib->mountGroupIs(readerGroup);
  auto tracking = lfibTrackingStatusFactory("reader");
  auto trackingSm =
      lfibTrackingSmFactory(lfib, tracking, lfibTrackingMode(false, false, true), "reader");
  auto status = lfibIpLookupStatusFactory();
  auto sm = lfibIpLookupSmFactory(lfib, tracking, status);

  auto writerGroup = Pond::MountGroup::writer(*name);
  {
    Pond::PondMap<RouteKey, LfibRoute> routes(writerGroup, "lfibRoute",
                                              LfibStatusSizing().lfibRoute);
    readerGroup->processChanges();
    routes.upsert(LfibRoute(RouteKey(100), ipSetKey(1), LFib::sourceVrfLabel, FwdEqvClass(), 0));
    readerGroup->processChanges();
    EXPECT_FALSE(readerGroup->ready());
    EXPECT_EQ(tracking->routeVersion(RouteKey(100)).version(), 1u);
    EXPECT_EQ(status->labelVrfAfs(), 0u);
  }
  auto writer = lfibStatusFactory();
  writer->mountGroupIs(writerGroup);
  writer->ipLookupViaIs(LfibIpLookupVia(ipViaKey(1), L3::VrfName("red"), payloadTypeIpv4));
  LfibViaSet set(ipSetKey(1));
  set.viaKeyIs(0, ipViaKey(1));
  writer->viaSetIs(set);
  readerGroup->processChanges();
  ASSERT_TRUE(readerGroup->ready());
  ASSERT_EQ(status->labelVrfAfs(), 1u);
  EXPECT_EQ(sm->vrfAf(100), LfibIpLookupStatusLabelVrfAf(100, L3::VrfName("red"), payloadTypeIpv4));
}

TEST(LfibIpLookupSmDeathTest, ABrokenLookupViaSetStopsTheProcess) {
  // The LFIB's own check refuses two vias, but leaves the via set stored.
  IpLookupLfib two("ipLookupTwoVias");
  two.start();
  two.via(1, "red", payloadTypeIpv4);
  two.via(2, "blue", payloadTypeIpv4);
  EXPECT_THROW(two.viaSet(ipSetKey(1), {ipViaKey(1), ipViaKey(2)}), Kel::InternalException);
  EXPECT_DEATH(two.route(100, ipSetKey(1)),
               "^Mpls/LfibIpLookupSm:[0-9]+ void Mpls::LfibIpLookupSm::handleRouteVersion\\("
               "const Mpls::RouteKey&\\) -- fatal assertion failed\\(viaSet.viaKeys\\(\\) == "
               "1\\)\n$");

  IpLookupLfib none("ipLookupNoVia");
  none.start();
  none.viaSet(ipSetKey(1), {});
  EXPECT_DEATH(none.route(100, ipSetKey(1)), "fatal assertion failed\\(viaSet.viaKeys\\(\\) == 1\\)");

  IpLookupLfib missing("ipLookupMissingVia");
  missing.start();
  missing.viaSet(ipSetKey(1), {ipViaKey(7)});
  EXPECT_DEATH(missing.route(100, ipSetKey(1)),
               "^Mpls/LfibIpLookupSm:[0-9]+ void Mpls::LfibIpLookupSm::handleRouteVersion\\("
               "const Mpls::RouteKey&\\) -- fatal assertion failed\\(!!viaKey\\)\n$");
}

}  // namespace
