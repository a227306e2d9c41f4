// LfibL2EvpnSm: the layer-2 decapsulation entries of the VLAN and EVPN routes of an LFIB,
// kept in step with the routes' versions, the tag-to-VLAN maps and the EVPN control-word
// preference.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Mpls/LfibL2EvpnSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;

LfibViaKey viaKey(LfibViaType type, uint32_t index) {
  return TestSupport::lfibViaKey(type, index, LFib::sourceEvpn);
}
LfibDot1qTagToVlanKey mapKey(uint32_t index) {
  return LfibDot1qTagToVlanKey(LFib::sourceEvpn, index);
}

// A writer's LFIB with the EVPN MPLS configuration, tracked with route versions, and its
// layer-2 EVPN tables.
struct L2Lfib : TestSupport::LfibFixture {
  using LfibFixture::LfibFixture;
  void start() {
    trackingSm = lfibTrackingSmFactory(status, tracking, lfibTrackingMode(false, false, true), "t");
    sm = lfibL2EvpnSmFactory(status, tracking, l2, config);
  }
  // Via `n` of `type` (with a VLAN or a map index; none for MPLS), its via set `n`, and
  // route `label`.
  void route(uint32_t label, LfibViaType type, uint32_t n, uint16_t vlanOrMap = 0) {
    const LfibViaKey via = viaKey(type, n);
    switch (type) {
      case viaTypeVlan:
        status->vlanViaIs(LfibVlanVia(via, vlanOrMap, lfibFlagNone));
        break;
      case viaTypeEvpnVlanFlood:
        status->evpnVlanFloodViaIs(LfibEvpnVlanFloodVia(via, vlanOrMap, lfibFlagNone));
        break;
      case viaTypeEvpnVlanAware:
        status->evpnVlanAwareViaIs(LfibEvpnVlanAwareVia(via, mapKey(vlanOrMap), lfibFlagNone));
        break;
      case viaTypeEvpnVlanAwareFlood:
        status->evpnVlanAwareFloodViaIs(
            LfibEvpnVlanAwareFloodVia(via, mapKey(vlanOrMap), lfibFlagNone));
        break;
      case viaTypeEvpnEthernetSegment:
        WriterLfib::via(via);
        break;
      default:
        break;
    }
    const LfibViaSetKey set =
        TestSupport::lfibViaSetKey(type, n, viaSetTypeDefault, LFib::sourceEvpn);
    type == viaTypeMplsIp ? viaSet(set, {}) : viaSet(set, {via});
    WriterLfib::route(label, set);
  }
  void tag(uint32_t map, uint16_t tag, uint16_t vlan) {
    status->dot1qTagToVlanCollIs(mapKey(map))->dot1qTagToVlanIdIs(tag, vlan);
  }
  std::string labelInfos() const { return TestSupport::labelInfosText(*l2); }
  std::string decaps() const { return TestSupport::decapsText(*l2); }

  LfibTrackingStatus::Ptr tracking = lfibTrackingStatusFactory("l2Evpn");
  LfibL2EvpnStatus::Ptr l2 = lfibL2EvpnStatusFactory();
  Evpn::MplsConfig::Ptr config = Evpn::mplsConfigFactory();
  LfibTrackingSm::Ptr trackingSm;
  LfibL2EvpnSm::Ptr sm;
};

// Every change of the tables, in order: "+<label>:<dstVlanId>" or "-<label>" for labelInfo,
// "+<label>/<tag>:<vlan>" or "-<label>/<tag>" for the decap entries.
struct Changes : LfibL2EvpnStatus::NotifieeConst {
  explicit Changes(const LfibL2EvpnStatus::Ptr& s) { notifierIs(s); }
  void onLabelInfo(const Netbase::MplsLabel& label) override {
    seen.push_back(notifier()->labelInfoHas(label)
                       ? fmt::format("+{}:{}", label.value(),
                                     notifier()->labelInfo(label).dstVlanId().value())
                       : fmt::format("-{}", label.value()));
  }
  void onVlanAwareDecapKeyToVlanId(const VlanAwareDecapKey& k) override {
    const std::string key = fmt::format("{}/{}", k.label().value(), k.dot1qTag().value());
    seen.push_back(notifier()->vlanAwareDecapKeyToVlanIdHas(k)
                       ? fmt::format("+{}:{}", key, notifier()->vlanAwareDecapKeyToVlanId(k).value())
                       : "-" + key);
  }
  std::vector<std::string> take() { return std::exchange(seen, {}); }
  std::vector<std::string> seen;
};

TEST(LfibL2EvpnSm, EveryVlanKindHasItsEntriesTakesTheControlWordAndLosesThemWithItsRoute) {
  L2Lfib l("l2Kinds");
  l.tag(1, 5, 50);
  l.tag(1, 6, 60);
  l.tag(1, 7, 0);  // no VLAN: no entry
  l.tag(2, 8, 80);
  l.route(100, viaTypeVlan, 1, 10);
  l.route(101, viaTypeEvpnVlanFlood, 2, 11);
  l.route(102, viaTypeEvpnVlanAware, 3, 1);
  l.route(103, viaTypeEvpnVlanAwareFlood, 4, 2);
  l.route(104, viaTypeMplsIp, 5);
  l.route(105, viaTypeEvpnEthernetSegment, 6);
  // Entries of an earlier run go at the start.
  l.l2->labelInfoIs(999, LfibL2EvpnStatusLabelInfo(999, 9, false, payloadTypeEthernet, false));
  l.l2->vlanAwareDecapKeyToVlanIdIs(VlanAwareDecapKey(999, 9), 9);
  l.start();
  EXPECT_EQ(l.labelInfos(), "100:10:-:- 101:11:-:- 102:0:-:- 103:0:-:-");
  EXPECT_EQ(l.decaps(), "102/5:50 102/6:60 103/8:80");
  EXPECT_EQ(l.sm->routeViaTypes(), 4u);
  EXPECT_EQ(l.sm->routeViaType(RouteKey(103)), viaTypeEvpnVlanAwareFlood);
  EXPECT_EQ(l.sm->vlanAwareRouteKeyToDot1qTagVlanKey(RouteKey(102)), mapKey(1));

  // The control word preference rewrites every label entry and nothing else; routes that
  // come later take it too.
  Changes changes(l.l2);
  l.config->controlWordIs(true);
  EXPECT_EQ(l.labelInfos(), "100:10:cw:- 101:11:cw:- 102:0:cw:- 103:0:cw:-");
  std::vector<std::string> seen = changes.take();
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"+100:10", "+101:11", "+102:0", "+103:0"}));
  l.route(106, viaTypeVlan, 7, 12);
  EXPECT_EQ(l.labelInfos(), "100:10:cw:- 101:11:cw:- 102:0:cw:- 103:0:cw:- 106:12:cw:-");
  l.config->controlWordIs(false);
  EXPECT_EQ(l.labelInfos(), "100:10:-:- 101:11:-:- 102:0:-:- 103:0:-:- 106:12:-:-");
  EXPECT_EQ(l.decaps(), "102/5:50 102/6:60 103/8:80");

  for (uint32_t label : {100, 102, 101, 103, 104, 105, 106}) {
    l.status->lfibRouteDel(RouteKey(label));
  }
  EXPECT_EQ(l.labelInfos(), "");
  EXPECT_EQ(l.decaps(), "");
  EXPECT_EQ(l.sm->routeViaTypes(), 0u);
  EXPECT_FALSE(l.sm->vlanAwareDot1qTagVlanToRouteKeySet(mapKey(1)));
}

TEST(LfibL2EvpnSm, AViaKindChangeWithdrawsTheOldEntriesBeforeTheNewOnes) {
  L2Lfib l("l2KindChange");
  l.tag(1, 5, 50);
  l.tag(1, 6, 60);
  l.route(100, viaTypeVlan, 1, 10);
  l.start();
  Changes changes(l.l2);
  struct Step {
    const char* what;
    std::function<void()> change;
    std::vector<std::string> changes;
  } steps[] = {
      {"VLAN via to VLAN-aware via", [&] { l.route(100, viaTypeEvpnVlanAware, 2, 1); },
       {"-100", "+100:0", "+100/5:50", "+100/6:60"}},
      {"an identical new version", [&] { l.route(100, viaTypeEvpnVlanAware, 2, 1); }, {}},
      {"VLAN-aware to an MPLS via set", [&] { l.route(100, viaTypeMplsIp, 3); },
       {"-100/5", "-100/6", "-100"}},
      {"to a flood via", [&] { l.route(100, viaTypeEvpnVlanFlood, 4, 11); }, {"+100:11"}},
      {"the flood via's VLAN changes", [&] { l.route(100, viaTypeEvpnVlanFlood, 4, 12); },
       {"+100:12"}},
      {"to a VLAN-aware flood via", [&] { l.route(100, viaTypeEvpnVlanAwareFlood, 5, 1); },
       {"-100", "+100:0", "+100/5:50", "+100/6:60"}},
  };
  for (const Step& step : steps) {
    step.change();
    std::vector<std::string> seen = changes.take();
    // The order among the decap entries of one step is the map's.
    auto firstDecap = std::find_if(seen.begin(), seen.end(),
                                   [](const std::string& s) { return s.find('/') != s.npos; });
    auto lastDecap = std::find_if(firstDecap, seen.end(),
                                  [](const std::string& s) { return s.find('/') == s.npos; });
    std::sort(firstDecap, lastDecap);
    EXPECT_EQ(seen, step.changes) << step.what;
  }
}

TEST(LfibL2EvpnSm, DecapEntriesFollowTheMapTheirRouteNames) {
  L2Lfib l("l2Maps");
  l.tag(1, 5, 50);
  l.tag(1, 6, 60);
  l.tag(2, 8, 80);
  l.route(100, viaTypeEvpnVlanAware, 1, 1);
  l.route(101, viaTypeEvpnVlanAwareFlood, 2, 1);
  l.route(102, viaTypeEvpnVlanAware, 3, 2);
  l.route(103, viaTypeVlan, 4, 10);
  l.start();
  EXPECT_EQ(l.decaps(), "100/5:50 100/6:60 101/5:50 101/6:60 102/8:80");

  LfibDot1qTagToVlan::Ptr removed;
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* decaps;
  } steps[] = {
      {"a tag added", [&] { l.tag(1, 9, 90); },
       "100/5:50 100/6:60 100/9:90 101/5:50 101/6:60 101/9:90 102/8:80"},
      {"a tag's VLAN changes", [&] { l.tag(1, 5, 51); },
       "100/5:51 100/6:60 100/9:90 101/5:51 101/6:60 101/9:90 102/8:80"},
      {"a tag's VLAN goes to 0", [&] { l.tag(1, 6, 0); },
       "100/5:51 100/9:90 101/5:51 101/9:90 102/8:80"},
      {"a tag removed", [&] { l.status->dot1qTagToVlanColl(mapKey(1))->dot1qTagToVlanIdDel(9); },
       "100/5:51 101/5:51 102/8:80"},
      {"the whole map removed", [&] { removed = l.status->dot1qTagToVlanCollDel(mapKey(1)); },
       "102/8:80"},
      {"the removed map is no longer followed", [&] { removed->dot1qTagToVlanIdIs(7, 70); },
       "102/8:80"},
      {"a new map under its key is", [&] { l.tag(1, 5, 52); }, "100/5:52 101/5:52 102/8:80"},
      {"a via that names another map",
       [&] {
         l.status->evpnVlanAwareViaIs(LfibEvpnVlanAwareVia(viaKey(viaTypeEvpnVlanAware, 1),
                                                         mapKey(2), lfibFlagNone));
       },
       "100/8:80 101/5:52 102/8:80"},
      {"a tag of the old map no longer reaches it", [&] { l.tag(1, 5, 53); },
       "100/8:80 101/5:53 102/8:80"},
  };
  for (const Step& step : steps) {
    step.change();
    EXPECT_EQ(l.decaps(), step.decaps) << step.what;
  }
  EXPECT_EQ(l.labelInfos(), "100:0:-:- 101:0:-:- 102:0:-:- 103:10:-:-");
  EXPECT_EQ(l.sm->dot1qTagToVlanColls(), 2u);
}

// A reader of the tables that writes the LFIB from inside a notification (the writer's own
// agent may): when route 100's first decap entry goes, it adds 64 VLAN-aware routes,
// enough to regrow every index of the state machine under the withdrawal in progress.
TEST(LfibL2EvpnSm, AReaderWritingTheLfibFromANotificationLeavesConsistentTables) {
  L2Lfib l("l2Reentry");
  l.tag(1, 5, 50);
  l.tag(1, 6, 60);
  l.tag(2, 8, 80);
  l.route(100, viaTypeEvpnVlanAware, 1, 1);
  l.start();
  struct Interloper : LfibL2EvpnStatus::NotifieeConst {
    explicit Interloper(L2Lfib& lfib) : l(lfib) { notifierIs(l.l2); }
    void onVlanAwareDecapKeyToVlanId(const VlanAwareDecapKey& k) override {
      if (!done && !notifier()->vlanAwareDecapKeyToVlanIdHas(k)) {
        done = true;
        for (uint32_t n = 0; n < 64; ++n) {
          l.route(200 + n, viaTypeEvpnVlanAware, 10 + n, 2);
        }
      }
    }
    L2Lfib& l;
    bool done = false;
  } interloper(l);

  // The via of route 100 moves from map 1 to map 2.
  l.route(100, viaTypeEvpnVlanAware, 1, 2);
  ASSERT_TRUE(interloper.done);
  EXPECT_EQ(l.l2->vlanAwareDecapKeyToVlanIds(), 65u);
  EXPECT_EQ(l.l2->labelInfos(), 65u);
  for (uint32_t label = 200; label < 264; ++label) {
    EXPECT_EQ(l.l2->vlanAwareDecapKeyToVlanId(VlanAwareDecapKey(label, 8)).value(), 80)
        << label;
  }
  EXPECT_FALSE(l.sm->vlanAwareDot1qTagVlanToRouteKeySet(mapKey(1)));
  EXPECT_EQ(l.sm->vlanAwareDot1qTagVlanToRouteKeySet(mapKey(2))->routeKeySets(), 65u);
  // Map 1 reaches nobody any more; map 2 reaches all 65 routes and only them.
  l.tag(1, 5, 55);
  l.tag(2, 9, 90);
  EXPECT_EQ(l.l2->vlanAwareDecapKeyToVlanIds(), 130u);
  l.status->dot1qTagToVlanCollDel(mapKey(2));
  EXPECT_EQ(l.decaps(), "");
}

TEST(LfibL2EvpnSm, TheIsFormReturnsTheMachineThereForTheSameTables) {
  L2Lfib l("l2Is");
  l.start();
  EXPECT_EQ(LfibL2EvpnSmIs(l.status, l.tracking, l.l2, l.config), l.sm);
  auto other = lfibL2EvpnStatusFactory();
  auto second = LfibL2EvpnSmIs(l.status, l.tracking, other, l.config);
  EXPECT_NE(second, l.sm);
  EXPECT_EQ(LfibL2EvpnSmIs(l.status, l.tracking, other, l.config), second);
}

}  // namespace
