// LfibTrackingSm: backlogs, reverse indexes and route versions of an LFIB, on the writer's
// own LfibStatus and on a reader-role one; and the whole reader stack (maps, tracking, IP
// lookup, layer-2 EVPN) in another process.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Mpls/LfibIpLookupSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "Mpls/LfibL2EvpnSm.h"
#include "Mpls/LfibStatusSm.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using TestSupport::LfibFixture;
using TestSupport::trackingText;

LfibViaKey mplsViaKey(uint32_t index) { return TestSupport::lfibViaKey(viaTypeMplsIp, index); }
LfibViaKey ipViaKey(uint32_t index) { return TestSupport::lfibViaKey(viaTypeIpLookup, index); }
LfibViaSetKey setKey(uint32_t index, LfibViaType viaType = viaTypeMplsIp) {
  return TestSupport::lfibViaSetKey(viaType, index);
}

using TestSupport::joined;

// "<index>{<numbers>} ..." by index.
std::string setsText(const std::map<uint32_t, std::set<uint32_t>>& sets) {
  std::vector<std::string> out;
  for (const auto& [index, members] : sets) {
    out.push_back(fmt::format("{}{{{}}}", index, joined(members)));
  }
  return joined(out);
}

// viaSetKeyToRouteKeySet: "<via-set index>{<labels>} ...".
std::string routeSetsOf(const LfibTrackingStatus& t) {
  std::map<uint32_t, std::set<uint32_t>> sets;
  for (const auto& [key, routes] : t.viaSetKeyToRouteKeySetIter()) {
    for (const RouteKey& k : routes->routeKeyIter()) {
      sets[key.index()].insert(k.topLabel().value());
    }
  }
  return setsText(sets);
}

// The via sets that the state machine has indexed for a via, by index.
std::string viaSetsOf(const LfibTrackingSm& sm, const LfibViaKey& via) {
  std::set<uint32_t> out;
  if (auto entry = sm.viaKeyToViaSetKeySet(via)) {
    for (const LfibViaSetKey& k : entry->viaSetKeyIter()) {
      out.insert(k.index());
    }
  }
  return joined(out);
}

// What a consumer does once it has worked the backlogs off.
void drain(LfibTrackingStatus& t) {
  t.routeKeyBacklogDelAll();
  t.viaSetKeyBacklogDelAll();
}

// Via 1 shared by via set 1 {via 1, via 2} (routes 100-102) and via set 2 {via 1}
// (routes 103-105).
void writeSharedVia(TestSupport::WriterLfib& w) {
  w.via(mplsViaKey(1));
  w.via(mplsViaKey(2));
  w.viaSet(setKey(1), {mplsViaKey(1), mplsViaKey(2)});
  w.viaSet(setKey(2), {mplsViaKey(1)});
  for (uint32_t label : {100, 101, 102}) {
    w.route(label, setKey(1));
  }
  for (uint32_t label : {103, 104, 105}) {
    w.route(label, setKey(2));
  }
}

TEST(LfibTrackingSm, ChangesTouchEveryRouteOnceAndTheIndexesFollowMovesAndDeletes) {
  LfibFixture w("tracking");
  writeSharedVia(w);
  // The create-or-return form: the machine already there for the same LFIB and status, a
  // new one for anything else.
  auto t = lfibTrackingStatusFactory("test");
  auto sm = LfibTrackingSmIs(w.status, t, LfibTrackingMode(7), "test");
  EXPECT_EQ(LfibTrackingSmIs(w.status, t, LfibTrackingMode(7), "test"), sm);
  auto other = lfibTrackingStatusFactory("other");
  auto second = LfibTrackingSmIs(w.status, other, LfibTrackingMode(4), "other");
  EXPECT_NE(second, sm);
  EXPECT_EQ(other->routeVersions(), 6u);
  // The first pass: every route once, every via set once.
  EXPECT_EQ(trackingText(*t), "v{100:1 101:1 102:1 103:1 104:1 105:1} r{100 101 102 103 104 105} s{1 2}");
  EXPECT_EQ(routeSetsOf(*t), "1{100 101 102} 2{103 104 105}");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(1)), "1 2");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(2)), "1");
  EXPECT_EQ(sm->routeKeyToViaSetKey(RouteKey(104)), setKey(2));
  // An entry held by someone is emptied when its via set goes.
  const LfibViaSetKeyToLfibViaKeySet::Ptr heldEntry = sm->viaSetKeyToViaKeySet(setKey(1));
  ASSERT_TRUE(heldEntry);

  LfibStatus& s = *w.status;
  const char* unmoved = "1{100 101 102} 2{103 104 105}";
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* state;
    const char* routeSets;
  } steps[] = {
      {"the shared via: every route once", [&] { w.via(mplsViaKey(1), 2); },
       "v{100:2 101:2 102:2 103:2 104:2 105:2} r{100 101 102 103 104 105} s{1 2}", unmoved},
      {"a via of one via set", [&] { w.via(mplsViaKey(2), 2); },
       "v{100:3 101:3 102:3 103:2 104:2 105:2} r{100 101 102} s{1}", unmoved},
      {"a route and a via set rewritten as they were: touched, indexes unchanged",
       [&] {
         w.route(103, setKey(2));
         w.viaSet(setKey(2), {mplsViaKey(1)});
       },
       "v{100:3 101:3 102:3 103:4 104:3 105:3} r{103 104 105} s{2}", unmoved},
      {"re-pointing moves the route and raises its version by one",
       [&] { w.route(100, setKey(2)); },
       "v{100:4 101:3 102:3 103:4 104:3 105:3} r{100} s{}", "1{101 102} 2{100 103 104 105}"},
      {"a deleted route is in the backlog and has no version",
       [&] { s.lfibRouteDel(RouteKey(101)); }, "v{100:4 102:3 103:4 104:3 105:3} r{101} s{}",
       "1{102} 2{100 103 104 105}"},
      {"the via set's entry goes with its last route", [&] { s.lfibRouteDel(RouteKey(102)); },
       "v{100:4 103:4 104:3 105:3} r{102} s{}", "2{100 103 104 105}"},
      {"a deleted via set is touched",
       [&] {
         s.viaSetDel(setKey(1));
         s.mplsViaDel(mplsViaKey(2));
       },
       "v{100:4 103:4 104:3 105:3} r{} s{1}", "2{100 103 104 105}"},
      {"a via set that drops a via",
       [&] {
         w.via(mplsViaKey(3));
         w.viaSet(setKey(2), {mplsViaKey(3)});
       },
       "v{100:5 103:5 104:4 105:4} r{100 103 104 105} s{2}", "2{100 103 104 105}"},
      {"no longer touches its routes through it", [&] { w.via(mplsViaKey(1), 5); },
       "v{100:5 103:5 104:4 105:4} r{} s{}", "2{100 103 104 105}"},
      {"a via that no via set ever used touches nothing", [&] { w.via(mplsViaKey(9)); },
       "v{100:5 103:5 104:4 105:4} r{} s{}", "2{100 103 104 105}"},
      {"a via set of five vias, more than are kept inline",
       [&] {
         for (uint32_t via = 4; via <= 7; ++via) {
           w.via(mplsViaKey(via));
         }
         w.viaSet(setKey(2), {mplsViaKey(3), mplsViaKey(4), mplsViaKey(5), mplsViaKey(6),
                              mplsViaKey(7)});
       },
       "v{100:6 103:6 104:5 105:5} r{100 103 104 105} s{2}", "2{100 103 104 105}"},
      {"its fifth via reaches its routes", [&] { w.via(mplsViaKey(7), 2); },
       "v{100:7 103:7 104:6 105:6} r{100 103 104 105} s{2}", "2{100 103 104 105}"},
  };
  for (const Step& step : steps) {
    drain(*t);
    step.change();
    EXPECT_EQ(trackingText(*t), step.state) << step.what;
    EXPECT_EQ(routeSetsOf(*t), step.routeSets) << step.what;
  }
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(1)), "");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(2)), "");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(3)), "2");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(7)), "2");
  EXPECT_EQ(sm->viaSetKeyToViaKeySet(setKey(2))->viaKeys(), 5u);
  EXPECT_FALSE(sm->viaSetKeyToViaKeySet(setKey(1)));
  EXPECT_EQ(heldEntry->viaKeys(), 0u);
  EXPECT_EQ(sm->viaKeyToViaSetKeySets(), 5u);
  EXPECT_EQ(sm->viaSetKeyToViaKeySets(), 1u);
  EXPECT_EQ(sm->routeKeyToViaSetKeys(), 4u);

  // The LFIB goes away: the tracking status is emptied and nothing is followed any more;
  // the stopped machine is not handed out again.
  sm->handleDel();
  EXPECT_EQ(trackingText(*t), "v{} r{} s{}");
  EXPECT_EQ(routeSetsOf(*t), "");
  w.route(106, setKey(2));
  EXPECT_EQ(trackingText(*t), "v{} r{} s{}");
  auto third = LfibTrackingSmIs(w.status, t, LfibTrackingMode(7), "test");
  EXPECT_NE(third, sm);
  EXPECT_EQ(trackingText(*t), "v{100:1 103:1 104:1 105:1 106:1} r{100 103 104 105 106} s{2}");
  // An entry's entity, once handed out, follows the entry and is emptied when it goes.
  const LfibViaSetKeyToRouteKeySet::Ptr routes = t->viaSetKeyToRouteKeySet(setKey(2));
  w.route(107, setKey(2));
  EXPECT_EQ(routes->routeKeys(), 6u);
  for (uint32_t label : {100, 103, 104, 105, 106, 107}) {
    s.lfibRouteDel(RouteKey(label));
  }
  EXPECT_EQ(routes->routeKeys(), 0u);
  EXPECT_FALSE(t->viaSetKeyToRouteKeySet(setKey(2)));
}

// Counts what is written to a tracking status, per collection.
struct Writes : LfibTrackingStatus::NotifieeConst {
  explicit Writes(const LfibTrackingStatus::Ptr& t) { notifierIs(t); }
  void onRouteKeyBacklog(const RouteKey&) override { ++routeBacklog; }
  void onViaSetKeyBacklog(const LfibViaSetKey&) override { ++viaSetBacklog; }
  void onRouteVersion(const RouteKey&) override { ++versions; }
  int routeBacklog = 0;
  int viaSetBacklog = 0;
  int versions = 0;
};

TEST(LfibTrackingSm, TheModeDecidesWhatIsWrittenNotWhatIsIndexed) {
  EXPECT_EQ(lfibTrackingMode(true, false, true).value(), 5u);  // agents pass it as a number
  EXPECT_THROW(LfibTrackingMode(8), Kel::EnumSetRangeException);
  for (uint32_t bits = 0; bits < 8; ++bits) {
    const LfibTrackingMode mode(bits);
    LfibFixture w(fmt::format("mode{}", bits));
    writeSharedVia(w);
    auto t = lfibTrackingStatusFactory("test");
    Writes writes(t);
    auto sm = lfibTrackingSmFactory(w.status, t, mode, "test");
    w.via(mplsViaKey(1), 2);
    w.route(100, setKey(2));
    w.status->lfibRouteDel(RouteKey(101));
    EXPECT_EQ(writes.routeBacklog > 0, mode.backlogRoutes()) << mode;
    EXPECT_EQ(writes.viaSetBacklog > 0, mode.backlogViaSets()) << mode;
    EXPECT_EQ(writes.versions > 0, mode.shadowRouteKeys()) << mode;
    EXPECT_EQ(routeSetsOf(*t), "1{102} 2{100 103 104 105}") << mode;
    EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(1)), "1 2") << mode;
  }
}

// The indexes and versions must be exactly what the LFIB says they must be.
void expectExactIndexes(const LfibTrackingSm& sm, const LfibTrackingStatus& t,
                        const LfibStatus& s, const char* what) {
  SCOPED_TRACE(what);
  std::map<uint32_t, std::set<uint32_t>> routeSets, viaSets;
  std::set<uint32_t> labels, versioned;
  s.lfibRouteForEach([&](const LfibRoute& r) {
    routeSets[r.viaSetKey().index()].insert(r.key().topLabel().value());
    labels.insert(r.key().topLabel().value());
  });
  s.viaSetForEach([&](const LfibViaSet& set) {
    for (const LfibViaKey& via : set.viaKey()) {
      viaSets[via.index()].insert(set.key().index());
    }
  });
  EXPECT_EQ(routeSetsOf(t), setsText(routeSets));
  s.mplsViaForEach([&](const LfibMplsVia& via) {
    EXPECT_EQ(viaSetsOf(sm, via.key()), joined(viaSets[via.key().index()])) << via.key();
  });
  for (const auto& [key, version] : t.routeVersionIter()) {
    versioned.insert(key.topLabel().value());
  }
  EXPECT_EQ(versioned, labels);
}

// A consumer in the writer's own agent may write the LFIB from inside a notification of
// the tracking status. Whatever it changes from there, the indexes and versions must match
// the LFIB exactly afterwards.
TEST(LfibTrackingSm, AConsumerWritingTheLfibFromANotificationLeavesExactIndexes) {
  LfibFixture w("reentry");
  writeSharedVia(w);
  auto t = lfibTrackingStatusFactory("test");
  auto sm = lfibTrackingSmFactory(w.status, t, LfibTrackingMode(7), "test");
  drain(*t);
  // Each reaction runs once, at the next notification of its kind.
  struct Consumer : LfibTrackingStatus::NotifieeConst {
    explicit Consumer(const LfibTrackingStatus::Ptr& t) { notifierIs(t); }
    void onRouteKeyBacklog(const RouteKey&) override {
      if (auto react = std::exchange(onBacklog, nullptr)) {
        react();
      }
    }
    void onViaSetKeyToRouteKeySet(const LfibViaSetKey&) override {
      if (auto react = std::exchange(onRouteSet, nullptr)) {
        react();
      }
    }
    std::function<void()> onBacklog, onRouteSet;
  } consumer(t);

  // On the first backlog entry a via change causes: 64 routes join the via set being
  // worked through, others go or move, and via sets change.
  consumer.onBacklog = [&] {
    for (uint32_t label = 300; label < 364; ++label) {
      w.route(label, setKey(1));
    }
    w.status->lfibRouteDel(RouteKey(101));
    w.route(103, setKey(1));
    w.via(mplsViaKey(3));
    w.viaSet(setKey(2), {mplsViaKey(3)});
    w.viaSet(setKey(5), {mplsViaKey(1), mplsViaKey(3)});
    w.route(105, setKey(5));
  };
  w.via(mplsViaKey(1), 2);
  EXPECT_FALSE(consumer.onBacklog);
  expectExactIndexes(*sm, *t, *w.status, "routes join, go and move");
  drain(*t);
  w.via(mplsViaKey(1), 3);
  EXPECT_EQ(t->routeKeyBacklogs(), 3u + 64u + 1u) << "every route the via reaches now";
  EXPECT_EQ(t->viaSetKeyBacklogs(), 2u);

  // A new route deleted as soon as it is reported.
  consumer.onBacklog = [&] { w.status->lfibRouteDel(RouteKey(106)); };
  w.route(106, setKey(2));
  expectExactIndexes(*sm, *t, *w.status, "a new route deleted");
  // A route deleted while it moves, as its old via set's entry goes.
  consumer.onRouteSet = [&] { w.status->lfibRouteDel(RouteKey(105)); };
  w.route(105, setKey(2));
  EXPECT_FALSE(consumer.onRouteSet);
  expectExactIndexes(*sm, *t, *w.status, "a moving route deleted");
}

// A reader-role LfibStatus moved to another group: what the old group held is gone, what
// the new one holds is there, although none of its rows came with a notification. (The
// catch-up of a reader that mounts before its writer exists: LfibReaderStack.)
TEST(LfibTrackingSm, OnAReaderItFollowsANewGroup) {
  PondTest::ScopedGroupName first("trackingReader"), second("trackingMoved");
  TestSupport::WriterLfib w(*first);
  writeSharedVia(w);
  auto reader = lfibStatusFactory();
  reader->mountGroupIs(Pond::MountGroup::reader(*first));
  auto t = lfibTrackingStatusFactory("reader");
  auto sm = lfibTrackingSmFactory(reader, t, LfibTrackingMode(7), "reader");
  EXPECT_EQ(routeSetsOf(*t), "1{100 101 102} 2{103 104 105}");

  TestSupport::WriterLfib other(*second);
  other.via(mplsViaKey(7));
  other.viaSet(setKey(7), {mplsViaKey(7)});
  other.route(200, setKey(7));
  drain(*t);
  auto secondReader = Pond::MountGroup::reader(*second);
  reader->mountGroupIs(secondReader);
  EXPECT_EQ(sm->mountGroup(), secondReader);
  EXPECT_EQ(trackingText(*t), "v{200:1} r{100 101 102 103 104 105 200} s{1 2 7}");
  EXPECT_EQ(routeSetsOf(*t), "7{200}");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(1)), "");
}

TEST(LfibTrackingSmDeathTest, StartsOnlyOnAnEmptyTrackingStatus) {
  struct Case {
    const char* expression;
    std::function<void(LfibTrackingStatus&)> fill;
  } cases[] = {
      {"!lfibTrackingStatus\\(\\)->routeKeyBacklogs\\(\\)",
       [](LfibTrackingStatus& t) { t.routeKeyBacklogIs(RouteKey(1), true); }},
      {"!lfibTrackingStatus\\(\\)->viaSetKeyBacklogs\\(\\)",
       [](LfibTrackingStatus& t) { t.viaSetKeyBacklogIs(setKey(1), true); }},
      {"!lfibTrackingStatus\\(\\)->viaSetKeyToRouteKeySets\\(\\)",
       [](LfibTrackingStatus& t) { t.viaSetKeyToRouteKeySetIs(setKey(1)); }},
      {"!lfibTrackingStatus\\(\\)->routeVersions\\(\\)",
       [](LfibTrackingStatus& t) { t.routeVersionIs(LfibRouteVersion(RouteKey(1), 1)); }},
  };
  for (const Case& c : cases) {
    auto t = lfibTrackingStatusFactory("test");
    c.fill(*t);
    EXPECT_DEATH(lfibTrackingSmFactory(lfibStatusFactory(), t, LfibTrackingMode(7), "test"),
                 std::string("^Mpls/LfibTrackingSm:[0-9]+ void "
                             "Mpls::LfibTrackingSm::handleInitialized\\(\\) -- fatal assertion "
                             "failed\\(") +
                     c.expression + "\\)\n$");
  }
}

TEST(LfibTrackingSmDeathTest, NoHandlerRunsOnceTheLfibIsGone) {
  auto t = lfibTrackingStatusFactory("test");
  auto sm = lfibTrackingSmFactory(lfibStatusFactory(), t, LfibTrackingMode(7), "test");
  sm->handleDel();
  EXPECT_DEATH(sm->handleVia(mplsViaKey(1)),
               "^Mpls/LfibTrackingSm:[0-9]+ void Mpls::LfibTrackingSm::handleVia\\(const "
               "Mpls::LfibViaKey&\\) -- fatal assertion failed\\(initialized\\(\\)\\)\n$");
  EXPECT_DEATH(sm->addRouteKeyBacklog(RouteKey(1)),
               "fatal assertion failed\\(initialized\\(\\)\\)");
}

TEST(LfibTrackingSmDeathTest, AViaSetEntryRemovedUnderItsRoutesStopsTheProcess) {
  LfibFixture w("lostEntry");
  writeSharedVia(w);
  auto t = lfibTrackingStatusFactory("test");
  auto sm = lfibTrackingSmFactory(w.status, t, LfibTrackingMode(7), "test");
  t->viaSetKeyToRouteKeySetDel(setKey(1));
  EXPECT_DEATH(w.route(100, setKey(2)),
               "^Mpls/LfibTrackingSm:[0-9]+ .*delRouteKeyViaSetKeyMapping.* -- fatal "
               "assertion failed\\(!!viaSetToRouteMap\\)\n$");
}

// ---------------------------------------------------------------------------------------
// The whole reader stack in another process.

// The writer's agent: its LFIB, the producer of its tag-to-VLAN maps, and the IP lookup and
// layer-2 EVPN tables it derives from its own LFIB, which a reader must derive alike.
struct WriterAgent : TestSupport::WriterLfib {
  explicit WriterAgent(const std::string& name) : WriterLfib(name) {}
  void start() {
    producer = lfibStatusProducerSmFactory(status);
    trackingSm = lfibTrackingSmFactory(status, tracking, lfibTrackingMode(false, false, true), "w");
    ipLookupSm = lfibIpLookupSmFactory(status, tracking, ipLookup);
    l2Sm = lfibL2EvpnSmFactory(status, tracking, l2, config);
  }
  void tag(uint32_t map, uint16_t tag, uint16_t vlan) {
    status->dot1qTagToVlanCollIs(LfibDot1qTagToVlanKey(LFib::sourceEvpn, map))
        ->dot1qTagToVlanIdIs(tag, vlan);
  }
  // A VLAN-aware via `index` naming map `map`, alone in via set `index`.
  void vlanAwareVia(uint32_t index, uint32_t map) {
    const LfibViaKey via = TestSupport::lfibViaKey(viaTypeEvpnVlanAware, index);
    status->evpnVlanAwareViaIs(
        LfibEvpnVlanAwareVia(via, LfibDot1qTagToVlanKey(LFib::sourceEvpn, map), lfibFlagNone));
    viaSet(setKey(index, viaTypeEvpnVlanAware), {via});
  }
  // "<IP lookup>|<label infos>|<decaps>".
  std::string derived() const {
    using namespace TestSupport;
    return ipLookupText(*ipLookup) + "|" + labelInfosText(*l2) + "|" + decapsText(*l2);
  }
  LfibTrackingStatus::Ptr tracking = lfibTrackingStatusFactory("writer");
  LfibIpLookupStatus::Ptr ipLookup = lfibIpLookupStatusFactory();
  LfibL2EvpnStatus::Ptr l2 = lfibL2EvpnStatusFactory();
  Evpn::MplsConfig::Ptr config = Evpn::mplsConfigFactory();
  LfibStatusProducerSm::Ptr producer;
  LfibTrackingSm::Ptr trackingSm;
  LfibIpLookupSm::Ptr ipLookupSm;
  LfibL2EvpnSm::Ptr l2Sm;
};

// The numbers of "<tag>{...}" in a tracking text, each with the version after its ':' (0
// when none): the versions of "v{", the labels of the route backlog "r{".
std::map<uint32_t, uint32_t> numbersIn(const std::string& view, const std::string& tag) {
  const size_t start = view.find(tag) + tag.size();
  std::istringstream in(view.substr(start, view.find('}', start) - start));
  std::map<uint32_t, uint32_t> out;
  for (uint32_t number; in >> number;) {
    uint32_t version = 0;
    if (in.peek() == ':') {
      in.ignore() >> version;
    }
    out[number] = version;
  }
  return out;
}

// A forwarding agent in another process mounts the LFIB before its writer exists and runs
// the whole reader stack on it: the consumer of the tag-to-VLAN maps, the tracking in every
// mode, the IP lookup and the layer-2 EVPN tables. Rows written before its tables opened
// included and across a writer restart, it holds exactly the writer's published maps (less
// the VLAN 0 entries and the maps left empty by them), sees every route the writer has
// with a version, raises the version of exactly the routes a change touched and lists
// exactly those in its backlog, and derives the tables the writer's agent derives.
TEST(LfibReaderStack, AReaderProcessDerivesWhatTheWriterDoes) {
  PondTest::ScopedGroupName name("readerStack");
  // The reply: "<tracking>|<IP lookup>|<label infos>|<decaps>|<maps>"; the backlogs are then
  // worked off. Asked "controlWord", it takes the EVPN control word first.
  struct Stack {
    LfibStatusConsumerSm::Ptr consumer;
    LfibTrackingStatus::Ptr tracking = lfibTrackingStatusFactory("reader");
    LfibTrackingSm::Ptr trackingSm;
    LfibIpLookupStatus::Ptr ipLookup = lfibIpLookupStatusFactory();
    LfibIpLookupSm::Ptr ipLookupSm;
    LfibL2EvpnStatus::Ptr l2 = lfibL2EvpnStatusFactory();
    Evpn::MplsConfig::Ptr config = Evpn::mplsConfigFactory();
    LfibL2EvpnSm::Ptr l2Sm;
  } stack;
  TestSupport::LfibReaderProcess reader(*name, [&](const LfibStatus::Ptr& lfib) {
    stack.consumer = lfibStatusConsumerSmFactory(lfib);
    stack.trackingSm = lfibTrackingSmFactory(lfib, stack.tracking, LfibTrackingMode(7), "reader");
    stack.ipLookupSm = lfibIpLookupSmFactory(lfib, stack.tracking, stack.ipLookup);
    stack.l2Sm = lfibL2EvpnSmFactory(lfib, stack.tracking, stack.l2, stack.config);
    return [&, lfib](const std::string& request) {
      using namespace TestSupport;
      if (request == "controlWord") {
        stack.config->controlWordIs(true);
      }
      const std::string view = trackingText(*stack.tracking) + "|" + ipLookupText(*stack.ipLookup) +
                               "|" + labelInfosText(*stack.l2) + "|" + decapsText(*stack.l2) +
                               "|" + tagMapsText(*lfib);
      drain(*stack.tracking);
      return view;
    };
  });
  ASSERT_TRUE(reader.ready());

  auto w = std::make_unique<WriterAgent>(*name);
  w->start();
  writeSharedVia(*w);
  w->ipLookupVia(ipViaKey(1), "red", payloadTypeIpv4);
  w->ipLookupVia(ipViaKey(2), "blue", payloadTypeIpv6);
  w->viaSet(setKey(3, viaTypeIpLookup), {ipViaKey(1)});
  w->viaSet(setKey(4, viaTypeIpLookup), {ipViaKey(2)});
  w->route(200, setKey(3, viaTypeIpLookup));
  w->route(201, setKey(4, viaTypeIpLookup));
  w->tag(1, 5, 50);
  w->tag(1, 6, 60);
  const LfibViaKey vlanVia = TestSupport::lfibViaKey(viaTypeVlan, 1);
  w->status->vlanViaIs(LfibVlanVia(vlanVia, 10, lfibFlagNone));
  w->viaSet(setKey(5, viaTypeVlan), {vlanVia});
  w->route(300, setKey(5, viaTypeVlan));
  w->vlanAwareVia(6, 1);
  w->route(301, setKey(6, viaTypeEvpnVlanAware));
  w->group->publish();
  std::string view = reader.ask("view");
  EXPECT_EQ(view.substr(0, view.find('|')),
            "v{100:1 101:1 102:1 103:1 104:1 105:1 200:1 201:1 300:1 301:1} r{100 101 102 103 "
            "104 105 200 201 300 301} s{1 2 3 4 5 6}");
  EXPECT_EQ(view.substr(view.find('|') + 1),
            "200:red:payloadTypeIpv4 201:blue:payloadTypeIpv6|300:10:-:- 301:0:-:-|301/5:50 "
            "301/6:60|1{5:50 6:60}");
  EXPECT_EQ(view.substr(view.find('|') + 1), w->derived() + "|1{5:50 6:60}");

  // The backlogs after each step (nullptr: not checked); the versions of exactly the routes
  // in the route backlog that are still there rise.
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* backlogs;
    const char* maps;
    const char* request = "view";
  } steps[] = {
      {"the shared via changes", [&] { w->via(mplsViaKey(1), 2); },
       "r{100 101 102 103 104 105} s{1 2}", "1{5:50 6:60}"},
      {"a route moves from VRF blue to red",
       [&] {
         w->route(201, setKey(3, viaTypeIpLookup));
         w->status->viaSetDel(setKey(4, viaTypeIpLookup));
         w->status->ipLookupViaDel(ipViaKey(2));
       },
       "r{201} s{4}", "1{5:50 6:60}"},
      {"a route is deleted", [&] { w->status->lfibRouteDel(RouteKey(102)); }, "r{102} s{}",
       "1{5:50 6:60}"},
      {"a route stops being an IP lookup", [&] { w->route(200, setKey(2)); }, "r{200} s{}",
       "1{5:50 6:60}"},
      {"the VRF of a lookup via changes",
       [&] { w->ipLookupVia(ipViaKey(1), "green", payloadTypeIpv4); }, "r{201} s{3}",
       "1{5:50 6:60}"},
      {"an unused via", [&] { w->via(mplsViaKey(9)); }, "r{} s{}", "1{5:50 6:60}"},
      {"a tag changes VLAN", [&] { w->tag(1, 5, 51); }, "r{} s{}", "1{5:51 6:60}"},
      {"VLAN 0 entries",
       [&] {
         w->tag(1, 30, 0);
         w->tag(2, 5, 0);
       },
       "r{} s{}", "1{5:51 6:60}"},
      {"a VLAN for one of them", [&] { w->tag(2, 6, 60); }, "r{} s{}", "1{5:51 6:60} 2{6:60}"},
      {"a VLAN route becomes VLAN-aware",
       [&] {
         w->vlanAwareVia(7, 1);
         w->route(300, setKey(7, viaTypeEvpnVlanAware));
       },
       "r{300} s{7}", "1{5:51 6:60} 2{6:60}"},
      {"the control word", [&] { w->config->controlWordIs(true); }, "r{} s{}",
       "1{5:51 6:60} 2{6:60}", "controlWord"},
      {"a VLAN-aware route goes", [&] { w->status->lfibRouteDel(RouteKey(301)); }, "r{301} s{}",
       "1{5:51 6:60} 2{6:60}"},
      {"a whole map removed",
       [&] { w->status->dot1qTagToVlanCollDel(LfibDot1qTagToVlanKey(LFib::sourceEvpn, 1)); },
       "r{} s{}", "2{6:60}"},
      {"a map the restarted writer will not have", [&] { w->tag(5, 5, 55); }, "r{} s{}",
       "2{6:60} 5{5:55}"},
      {"writer restart",
       [&] {
         w.reset();
         w = std::make_unique<WriterAgent>(*name);
         w->config->controlWordIs(true);
         w->tag(2, 6, 61);
         w->tag(3, 1, 10);
         w->start();
       },
       nullptr, "2{6:61} 3{1:10}"},
      {"after the restart",
       [&] {
         w->tag(3, 1, 0);
         w->tag(4, 4, 40);
       },
       "r{} s{}", "2{6:61} 4{4:40}"},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    const std::map<uint32_t, uint32_t> before = numbersIn(view, "v{");
    step.change();
    w->group->publish();
    view = reader.ask(step.request);
    std::set<uint32_t> live, versioned, raised, touched;
    w->status->lfibRouteForEach(
        [&](const LfibRoute& r) { live.insert(r.key().topLabel().value()); });
    for (const auto& [label, version] : numbersIn(view, "v{")) {
      versioned.insert(label);
      const uint32_t old = before.contains(label) ? before.at(label) : 0;
      EXPECT_GE(version, old) << label;
      if (version != old) {
        raised.insert(label);
      }
    }
    EXPECT_EQ(versioned, live);
    const size_t tracking = view.find('|');
    if (step.backlogs) {
      EXPECT_EQ(view.substr(view.find(" r{") + 1, tracking - view.find(" r{") - 1), step.backlogs);
      for (const auto& [label, none] : numbersIn(view, "r{")) {
        if (live.contains(label)) {
          touched.insert(label);
        }
      }
      EXPECT_EQ(raised, touched);
    }
    EXPECT_EQ(view.substr(tracking + 1), w->derived() + "|" + step.maps);
  }
  EXPECT_EQ(reader.wait(), 0);
}

}  // namespace
