// LfibTrackingSm: backlogs, reverse indexes and route versions of an LFIB, on the writer's
// own LfibStatus, on a reader-role one in this process and in another process.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <absl/strings/str_join.h>
#include <fmt/format.h>

#include "Kel/ChildProcess.h"
#include "Mpls/LfibIpLookupSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "platform/Pond/PondTestTypes.h"

namespace {

using namespace Mpls;
using PondTest::ScopedGroupName;

LfibViaKey mplsViaKey(uint32_t index) {
  return LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, index);
}
LfibViaKey ipViaKey(uint32_t index) {
  return LfibViaKey(LFib::sourceStatic, viaTypeIpLookup, index);
}
LfibViaSetKey setKey(uint32_t index, LfibViaType viaType = viaTypeMplsIp) {
  return LfibViaSetKey(LFib::sourceStatic, index, viaType, viaSetTypeEcmp);
}

// The writer's LfibStatus on the group `groupName`, and shorthands to write it.
struct WriterLfib {
  explicit WriterLfib(const std::string& groupName)
      : group(Pond::MountGroup::writer(groupName)), status(lfibStatusFactory()) {
    status->mountGroupIs(group);
  }
  // `weight` tells two versions of one via apart.
  void mplsVia(uint32_t index, uint32_t weight = 1) {
    LfibMplsVia via;
    via.keyIs(mplsViaKey(index));
    via.weightIs(weight);
    status->mplsViaIs(via);
  }
  void ipVia(uint32_t index, const char* vrf, PayloadType af) {
    status->ipLookupViaIs(LfibIpLookupVia(ipViaKey(index), L3::VrfName(vrf), af));
  }
  void viaSet(const LfibViaSetKey& key, std::initializer_list<LfibViaKey> vias) {
    LfibViaSet set(key);
    uint32_t slot = 0;
    for (const LfibViaKey& via : vias) {
      set.viaKeyIs(slot++, via);
    }
    status->viaSetIs(set);
  }
  void route(uint32_t label, const LfibViaSetKey& set) {
    status->lfibRouteIs(LfibRoute(RouteKey(label), set, LFib::sourceStatic, FwdEqvClass(), 0));
  }
  Kel::Ptr<Pond::MountGroup> group;
  LfibStatus::Ptr status;
};

// "<label>:<version> ..." by label.
std::string versionsOf(const LfibTrackingStatus& t) {
  std::map<uint32_t, uint32_t> versions;
  for (const auto& [key, version] : t.routeVersionIter()) {
    versions[key.topLabel().value()] = version.version();
  }
  std::vector<std::string> out;
  for (const auto& [label, version] : versions) {
    out.push_back(fmt::format("{}:{}", label, version));
  }
  return absl::StrJoin(out, " ");
}

uint32_t numberOf(const RouteKey& k) { return k.topLabel().value(); }
uint32_t numberOf(const LfibViaSetKey& k) { return k.index(); }

// The labels of route keys or the indexes of via-set keys, sorted.
template <class Range>
std::string numbers(const Range& keys) {
  std::set<uint32_t> out;
  for (const auto& k : keys) {
    out.insert(numberOf(k));
  }
  return absl::StrJoin(out, " ");
}

// "v{<versions>} r{<route backlog>} s{<via-set backlog>}".
std::string stateOf(const LfibTrackingStatus& t) {
  return fmt::format("v{{{}}} r{{{}}} s{{{}}}", versionsOf(t), numbers(t.routeKeyBacklogIter()),
                     numbers(t.viaSetKeyBacklogIter()));
}

// "<index>{<numbers>} ..." by index.
std::string setsText(const std::map<uint32_t, std::set<uint32_t>>& sets) {
  std::vector<std::string> out;
  for (const auto& [index, members] : sets) {
    out.push_back(fmt::format("{}{{{}}}", index, absl::StrJoin(members, " ")));
  }
  return absl::StrJoin(out, " ");
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
  auto entry = sm.viaKeyToViaSetKeySet(via);
  return entry ? numbers(entry->viaSetKeyIter()) : "";
}

// What a consumer does once it has worked the backlogs off.
void drain(LfibTrackingStatus& t) {
  t.routeKeyBacklogDelAll();
  t.viaSetKeyBacklogDelAll();
}

// Via 1 shared by via set 1 {via 1, via 2} (routes 100-102) and via set 2 {via 1}
// (routes 103-105).
void writeSharedVia(WriterLfib& w) {
  w.mplsVia(1);
  w.mplsVia(2);
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
  ScopedGroupName name("tracking");
  WriterLfib w(*name);
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
  EXPECT_EQ(stateOf(*t), "v{100:1 101:1 102:1 103:1 104:1 105:1} r{100 101 102 103 104 105} s{1 2}");
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
      {"the shared via: every route once", [&] { w.mplsVia(1, 2); },
       "v{100:2 101:2 102:2 103:2 104:2 105:2} r{100 101 102 103 104 105} s{1 2}", unmoved},
      {"a via of one via set", [&] { w.mplsVia(2, 2); },
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
         w.mplsVia(3);
         w.viaSet(setKey(2), {mplsViaKey(3)});
       },
       "v{100:5 103:5 104:4 105:4} r{100 103 104 105} s{2}", "2{100 103 104 105}"},
      {"no longer touches its routes through it", [&] { w.mplsVia(1, 5); },
       "v{100:5 103:5 104:4 105:4} r{} s{}", "2{100 103 104 105}"},
      {"a via that no via set ever used touches nothing", [&] { w.mplsVia(9); },
       "v{100:5 103:5 104:4 105:4} r{} s{}", "2{100 103 104 105}"},
  };
  for (const Step& step : steps) {
    drain(*t);
    step.change();
    EXPECT_EQ(stateOf(*t), step.state) << step.what;
    EXPECT_EQ(routeSetsOf(*t), step.routeSets) << step.what;
  }
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(1)), "");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(2)), "");
  EXPECT_EQ(viaSetsOf(*sm, mplsViaKey(3)), "2");
  EXPECT_FALSE(sm->viaSetKeyToViaKeySet(setKey(1)));
  EXPECT_EQ(heldEntry->viaKeys(), 0u);
  EXPECT_EQ(sm->viaKeyToViaSetKeySets(), 1u);
  EXPECT_EQ(sm->viaSetKeyToViaKeySets(), 1u);
  EXPECT_EQ(sm->routeKeyToViaSetKeys(), 4u);

  // The LFIB goes away: the tracking status is emptied and nothing is followed any more;
  // the stopped machine is not handed out again.
  sm->handleDel();
  EXPECT_EQ(stateOf(*t), "v{} r{} s{}");
  EXPECT_EQ(routeSetsOf(*t), "");
  w.route(106, setKey(2));
  EXPECT_EQ(stateOf(*t), "v{} r{} s{}");
  auto third = LfibTrackingSmIs(w.status, t, LfibTrackingMode(7), "test");
  EXPECT_NE(third, sm);
  EXPECT_EQ(versionsOf(*t), "100:1 103:1 104:1 105:1 106:1");
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
    ScopedGroupName name(fmt::format("mode{}", bits));
    WriterLfib w(*name);
    writeSharedVia(w);
    auto t = lfibTrackingStatusFactory("test");
    Writes writes(t);
    auto sm = lfibTrackingSmFactory(w.status, t, mode, "test");
    w.mplsVia(1, 2);
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
    EXPECT_EQ(viaSetsOf(sm, via.key()), absl::StrJoin(viaSets[via.key().index()], " ")) << via.key();
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
  ScopedGroupName name("reentry");
  WriterLfib w(*name);
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
    w.mplsVia(3);
    w.viaSet(setKey(2), {mplsViaKey(3)});
    w.viaSet(setKey(5), {mplsViaKey(1), mplsViaKey(3)});
    w.route(105, setKey(5));
  };
  w.mplsVia(1, 2);
  EXPECT_FALSE(consumer.onBacklog);
  expectExactIndexes(*sm, *t, *w.status, "routes join, go and move");
  drain(*t);
  w.mplsVia(1, 3);
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

TEST(LfibTrackingSm, OnAReaderItCatchesUpWhenTheGroupIsReadyAndFollowsANewGroup) {
  ScopedGroupName first("trackingReader"), second("trackingMoved");
  auto readerGroup = Pond::MountGroup::reader(*first);
  auto reader = lfibStatusFactory();
  reader->mountGroupIs(readerGroup);
  auto t = lfibTrackingStatusFactory("reader");
  auto sm = lfibTrackingSmFactory(reader, t, LfibTrackingMode(7), "reader");
  EXPECT_EQ(sm->mountGroup(), readerGroup);
  EXPECT_FALSE(readerGroup->ready());

  // The writer appears with its rows in place: they come with no row notification.
  WriterLfib w(*first);
  writeSharedVia(w);
  readerGroup->processChanges();
  ASSERT_TRUE(readerGroup->ready());
  EXPECT_EQ(stateOf(*t), "v{100:1 101:1 102:1 103:1 104:1 105:1} r{100 101 102 103 104 105} s{1 2}");
  EXPECT_EQ(routeSetsOf(*t), "1{100 101 102} 2{103 104 105}");

  drain(*t);
  w.mplsVia(2, 2);
  readerGroup->processChanges();
  EXPECT_EQ(stateOf(*t), "v{100:2 101:2 102:2 103:1 104:1 105:1} r{100 101 102} s{1}");

  // The LfibStatus moves to another group: what the old group held is gone, what the new
  // one holds is there, although none of its rows came with a notification.
  WriterLfib other(*second);
  other.mplsVia(7);
  other.viaSet(setKey(7), {mplsViaKey(7)});
  other.route(200, setKey(7));
  drain(*t);
  auto secondReader = Pond::MountGroup::reader(*second);
  reader->mountGroupIs(secondReader);
  EXPECT_EQ(sm->mountGroup(), secondReader);
  EXPECT_EQ(stateOf(*t), "v{200:1} r{100 101 102 103 104 105 200} s{1 2 7}");
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
  ScopedGroupName name("lostEntry");
  WriterLfib w(*name);
  writeSharedVia(w);
  auto t = lfibTrackingStatusFactory("test");
  auto sm = lfibTrackingSmFactory(w.status, t, LfibTrackingMode(7), "test");
  t->viaSetKeyToRouteKeySetDel(setKey(1));
  EXPECT_DEATH(w.route(100, setKey(2)),
               "^Mpls/LfibTrackingSm:[0-9]+ .*delRouteKeyViaSetKeyMapping.* -- fatal "
               "assertion failed\\(!!viaSetToRouteMap\\)\n$");
}

// ---------------------------------------------------------------------------------------
// In another process.

// "<versions>|<route backlog>|<via-set backlog>|<IP-lookup triples>", each sorted.
std::string readerView(const LfibTrackingStatus& t, const LfibIpLookupStatus& ip) {
  std::set<std::string> triples;
  for (const LfibIpLookupStatusLabelVrfAf& x : ip.labelVrfAfIter()) {
    triples.insert(fmt::format("{}:{}:{}", x.label().value(), x.vrfName().stringValue(),
                               x.payloadType()));
  }
  return versionsOf(t) + "|" + numbers(t.routeKeyBacklogIter()) + "|" +
         numbers(t.viaSetKeyBacklogIter()) + "|" + absl::StrJoin(triples, " ");
}

// A forwarding agent of its own: it mounts the group before the writer exists, tracks the
// LFIB in every mode and derives the IP-lookup table. Asked, it processes every change so
// far, answers with its view and works its backlogs off. It looks at the group only when
// asked, so that the writer's first rows are there before the tables open.
int trackingReaderProcess(const std::string& name, Kel::ChildProcess::Channel& channel) {
  auto group = Pond::MountGroup::reader(name);
  auto lfib = lfibStatusFactory();
  lfib->mountGroupIs(group);
  auto tracking = lfibTrackingStatusFactory("reader");
  auto trackingSm = lfibTrackingSmFactory(lfib, tracking, LfibTrackingMode(7), "reader");
  auto ipLookup = lfibIpLookupStatusFactory();
  auto ipLookupSm = lfibIpLookupSmFactory(lfib, tracking, ipLookup);
  channel.reply("mounted");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    std::optional<std::string> request = channel.request(std::chrono::milliseconds(100));
    if (!request) {
      return 0;
    }
    if (request->empty()) {
      continue;
    }
    group->processChanges();
    channel.reply(readerView(*tracking, *ipLookup));
    drain(*tracking);
  }
  return 1;
}

std::map<uint32_t, uint32_t> versionsIn(const std::string& view) {
  std::map<uint32_t, uint32_t> versions;
  std::istringstream in(view.substr(0, view.find('|')));
  uint32_t label, version;
  for (char colon; in >> label >> colon >> version;) {
    versions[label] = version;
  }
  return versions;
}

// A reader in another process sees every route the writer has with a version, raises the
// version of exactly the routes a change touched, lists exactly those in its backlog, and
// derives the writer's IP-lookup triples; rows written before its tables opened included.
TEST(LfibTrackingSm, AReaderProcessTracksTheWritersLfib) {
  ScopedGroupName name("trackingXproc");
  Kel::ChildProcess reader(
      [&](Kel::ChildProcess::Channel& channel) { return trackingReaderProcess(*name, channel); });
  std::string line;
  ASSERT_TRUE(reader.awaitReply(std::chrono::seconds(10), &line));
  ASSERT_EQ(line, "mounted");

  WriterLfib w(*name);
  writeSharedVia(w);
  w.ipVia(1, "red", payloadTypeIpv4);
  w.ipVia(2, "blue", payloadTypeIpv6);
  w.viaSet(setKey(3, viaTypeIpLookup), {ipViaKey(1)});
  w.viaSet(setKey(4, viaTypeIpLookup), {ipViaKey(2)});
  w.route(200, setKey(3, viaTypeIpLookup));
  w.route(201, setKey(4, viaTypeIpLookup));
  w.group->publish();
  std::string view = reader.ask("view?");
  EXPECT_EQ(view,
            "100:1 101:1 102:1 103:1 104:1 105:1 200:1 201:1|100 101 102 103 104 105 200 "
            "201|1 2 3 4|200:red:payloadTypeIpv4 201:blue:payloadTypeIpv6");

  struct Step {
    const char* what;
    std::function<void()> change;
    std::set<uint32_t> touched;
    const char* rest;  // backlogs and triples
  } steps[] = {
      {"the shared via changes", [&] { w.mplsVia(1, 2); }, {100, 101, 102, 103, 104, 105},
       "100 101 102 103 104 105|1 2|200:red:payloadTypeIpv4 201:blue:payloadTypeIpv6"},
      {"a route moves from VRF blue to red",
       [&] {
         w.route(201, setKey(3, viaTypeIpLookup));
         w.status->viaSetDel(setKey(4, viaTypeIpLookup));
         w.status->ipLookupViaDel(ipViaKey(2));
       },
       {201}, "201|4|200:red:payloadTypeIpv4 201:red:payloadTypeIpv4"},
      {"a route is deleted", [&] { w.status->lfibRouteDel(RouteKey(102)); }, {102},
       "102||200:red:payloadTypeIpv4 201:red:payloadTypeIpv4"},
      {"a route stops being an IP lookup", [&] { w.route(200, setKey(2)); }, {200},
       "200||201:red:payloadTypeIpv4"},
      {"the VRF of a lookup via changes", [&] { w.ipVia(1, "green", payloadTypeIpv4); }, {201},
       "201|3|201:green:payloadTypeIpv4"},
      {"an unused via", [&] { w.mplsVia(9); }, {}, "||201:green:payloadTypeIpv4"},
  };
  for (const Step& step : steps) {
    const std::map<uint32_t, uint32_t> before = versionsIn(view);
    step.change();
    w.group->publish();
    view = reader.ask("view?");
    const std::map<uint32_t, uint32_t> after = versionsIn(view);
    std::set<uint32_t> live;
    w.status->lfibRouteForEach([&](const LfibRoute& r) { live.insert(r.key().topLabel().value()); });
    std::set<uint32_t> versioned;
    for (const auto& [label, version] : after) {
      versioned.insert(label);
      if (step.touched.count(label)) {
        EXPECT_GT(version, before.count(label) ? before.at(label) : 0u) << step.what << " " << label;
      } else {
        EXPECT_EQ(version, before.at(label)) << step.what << " " << label;
      }
    }
    EXPECT_EQ(versioned, live) << step.what;
    EXPECT_EQ(view.substr(view.find('|') + 1), step.rest) << step.what;
  }
  EXPECT_EQ(reader.wait(std::chrono::seconds(10)), 0);
}

}  // namespace
