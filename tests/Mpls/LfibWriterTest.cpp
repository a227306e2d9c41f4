// LfibWriter on a writer-role LfibStatus with real shared-memory tables: what a write and a
// rewrite change (observed through the LfibStatus's notifications, in order), key reuse,
// weights, the 128-via limit, deletes, refused via types, the fatal assertions, and a
// reading process that checks the write order.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Kel/ChildProcess.h"
#include "Kel/Trace.h"
#include "Mpls/MplsLfibWriter.h"
#include "platform/Pond/PondTestTypes.h"

namespace {

using namespace Mpls;
using Events = std::vector<std::string>;
using PondTest::ScopedGroupName;

// The via types the writer writes, with the collection of each.
constexpr std::pair<LfibViaType, const char*> kWritten[] = {{viaTypeMplsIp, "mplsVia"},
                                                            {viaTypeMplsPseudowire, "pwVia"},
                                                            {viaTypeIpLookup, "ipLookupVia"},
                                                            {viaTypeExternalFec, "extFecVia"}};

// A writer on the group `name`, with room for many vias of every type.
struct WriterLfib {
  explicit WriterLfib(const std::string& name)
      : group(Pond::MountGroup::writer(name)), status(lfibStatusFactory()) {
    LfibStatusSizing sizing;
    sizing.pwVia = sizing.ipLookupVia = sizing.extFecVia = Pond::TableSizing{4096};
    status->mountGroupIs(group, sizing);
    writer = lfibWriterFactory(status);
  }
  Kel::Ptr<Pond::MountGroup> group;
  LfibStatus::Ptr status;
  LfibWriter::Ptr writer;
};

// A writer on a group of its own.
struct Fixture : ScopedGroupName, WriterLfib {
  explicit Fixture(const std::string& test) : ScopedGroupName(test), WriterLfib(**this) {}
};

LfibViaKey mplsKey(uint32_t index) { return LfibViaKey(LFib::sourceLdp, viaTypeMplsIp, index); }

// Via number n of each type: vias with different numbers differ.
LfibMplsVia mplsVia(uint32_t n, uint32_t weight = 1) {
  LfibMplsVia v(LfibViaKey(), Netbase::IpGenAddr(fmt::format("10.0.{}.{}", n / 250, n % 250 + 1)),
                Netbase::labelActionSwap,
                Netbase::UnboundedMplsLabelOperation(Netbase::labelActionSwap, {1000 + n}), false);
  v.weightIs(weight);
  return v;
}

void addVia(ConsolidatedLfibRoute& r, LfibViaType type, uint32_t n) {
  switch (type) {
    case viaTypeMplsIp:
      r.mplsViaIs(mplsVia(n));
      return;
    case viaTypeMplsPseudowire:
      r.pwViaIs(LfibPwVia(LfibViaKey(), Netbase::IntfId(fmt::format("Pseudowire{}", n + 1))));
      return;
    case viaTypeIpLookup:
      r.ipLookupViaIs(
          LfibIpLookupVia(LfibViaKey(), L3::VrfName(fmt::format("vrf{}", n)), payloadTypeIpv4));
      return;
    default:
      r.extFecViaIs(LfibExtFecVia(LfibViaKey(), Pond::Fib::FecId(n + 1), Netbase::labelActionPop,
                                  payloadTypeMpls));
  }
}

// Metric 0 throughout: IP lookup routes follow the EVPN rules.
ConsolidatedLfibRoute route(uint32_t label, LfibViaType type, std::vector<uint32_t> vias,
                            LFib::Source source = LFib::sourceLdp) {
  ConsolidatedLfibRoute r(RouteKey(label), source, FwdEqvClass(Netbase::IpGenPrefix("10.9.0.0/16")),
                          0, type);
  r.viaSetTypeIs(viaSetTypeEcmp);
  for (uint32_t n : vias) {
    addVia(r, type, n);
  }
  return r;
}

bool viaStored(const LfibStatus& s, const LfibViaKey& k) {
  switch (k.viaType()) {
    case viaTypeMplsIp:
      return s.mplsVia(k).key() == k;
    case viaTypeMplsPseudowire:
      return s.pwVia(k).key() == k;
    case viaTypeIpLookup:
      return s.ipLookupVia(k).key() == k;
    case viaTypeExternalFec:
      return s.extFecVia(k).key() == k;
    default:
      return s.vlanVia(k).key() == k;
  }
}

// The via keys of a route's via set, in slot order.
std::vector<LfibViaKey> viaKeysOf(const LfibStatus& s, uint32_t label) {
  const LfibViaSet set = s.viaSet(s.lfibRoute(RouteKey(label)).viaSetKey());
  return std::vector<LfibViaKey>(set.viaKey().begin(), set.viaKey().end());
}

// The via numbers of route `label`'s MPLS vias.
std::set<uint32_t> mplsViasOf(const LfibStatus& s, uint32_t label) {
  std::set<uint32_t> out;
  for (const LfibViaKey& k : viaKeysOf(s, label)) {
    out.insert(s.mplsVia(k).labelStack().topLabel().value() - 1000);
  }
  return out;
}

// Every notification of an LfibStatus, in order: "<collection> <label or index>".
struct Recorder : LfibStatus::NotifieeConst {
  explicit Recorder(const LfibStatus::Ptr& s) { notifierIs(s); }
  void onLfibRoute(const RouteKey& k) override { note("lfibRoute", k.label().value()); }
  void onViaSet(const LfibViaSetKey& k) override { note("viaSet", k.index()); }
  void onMplsVia(const LfibViaKey& k) override { note("mplsVia", k.index()); }
  void onPwVia(const LfibViaKey& k) override { note("pwVia", k.index()); }
  void onIpLookupVia(const LfibViaKey& k) override { note("ipLookupVia", k.index()); }
  void onExtFecVia(const LfibViaKey& k) override { note("extFecVia", k.index()); }
  void onVlanVia(const LfibViaKey& k) override { note("vlanVia", k.index()); }
  void note(const char* coll, uint32_t n) { events.push_back(fmt::format("{} {}", coll, n)); }
  Events take() { return std::exchange(events, {}); }
  Events events;
};

TEST(LfibWriter, WritesViasThenViaSetThenRouteAndTheSameRouteAgainWritesNothing) {
  for (const auto& [type, coll] : kWritten) {
    SCOPED_TRACE(coll);
    Fixture f(std::string("same") + coll);
    Recorder rec(f.status);
    EXPECT_TRUE(f.writer->inPlaceAdjacencyUpdateSupported());
    const auto vias = type == viaTypeIpLookup ? std::vector<uint32_t>{1}
                                              : std::vector<uint32_t>{1, 2};
    const ConsolidatedLfibRoute r = route(100, type, vias);
    f.writer->lfibRouteIs(r);
    Events expected;
    for (uint32_t i = 1; i <= vias.size(); ++i) {
      expected.push_back(fmt::format("{} {}", coll, i));
    }
    expected.insert(expected.end(), {"viaSet 1", "lfibRoute 100"});
    EXPECT_EQ(rec.take(), expected);

    EXPECT_EQ(f.status->lfibRoute(RouteKey(100)),
              LfibRoute(RouteKey(100), LfibViaSetKey(LFib::sourceLdp, 1, type, viaSetTypeEcmp),
                        LFib::sourceLdp, r.fec(), 0));
    const std::vector<LfibViaKey> keys = viaKeysOf(*f.status, 100);
    ASSERT_EQ(keys.size(), vias.size());
    for (const LfibViaKey& k : keys) {
      EXPECT_TRUE(k.source() == LFib::sourceLdp && k.viaType() == type && viaStored(*f.status, k))
          << k;
    }

    auto allocator = f.writer->indexAllocator(LFib::sourceLdp);
    f.writer->lfibRouteIs(r);
    EXPECT_EQ(rec.take(), Events{});
    EXPECT_EQ(allocator->viaKeyIndex(type), vias.size());
    EXPECT_EQ(allocator->viaSetKeyIndex({type, viaSetTypeEcmp}), 1u);
  }
}

TEST(LfibWriter, InPlaceRewriteKeepsTheKeysOfWhatDidNotChangeAndWithoutItEveryKeyIsNew) {
  Fixture f("inPlace");
  Recorder rec(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  std::vector<LfibViaKey> keys = viaKeysOf(*f.status, 100);
  rec.take();

  // One via added: only it and the via set are written; it takes the last slot.
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  EXPECT_EQ(rec.take(), (Events{"mplsVia 3", "viaSet 1"}));
  keys.push_back(mplsKey(3));
  EXPECT_EQ(viaKeysOf(*f.status, 100), keys);

  // Via 1 (the first slot) removed: the via set first, then the via.
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {2, 3}));
  EXPECT_EQ(rec.take(), (Events{"viaSet 1", fmt::format("mplsVia {}", keys[0].index())}));
  EXPECT_FALSE(viaStored(*f.status, keys[0]));
  EXPECT_EQ(mplsViasOf(*f.status, 100), (std::set<uint32_t>{2, 3}));

  // A via's weight changes: that via alone is written again, under its key.
  ConsolidatedLfibRoute weighted = route(100, viaTypeMplsIp, {2, 3});
  weighted.mplsViaIs(mplsVia(3, 7));
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), Events{"mplsVia 3"});
  EXPECT_EQ(f.status->mplsVia(mplsKey(3)).weight(), 2u);

  // Only the metric: only the route.
  weighted.metricIs(9);
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), Events{"lfibRoute 100"});

  // Another via set type: a new via set key, the vias keep theirs.
  keys = viaKeysOf(*f.status, 100);
  weighted.viaSetTypeIs(viaSetTypeUcmp);
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), (Events{"viaSet 1", "lfibRoute 100", "viaSet 1"}));
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).viaSetKey().viaSetType(), viaSetTypeUcmp);
  EXPECT_EQ(viaKeysOf(*f.status, 100), keys);
  EXPECT_EQ(f.status->viaSets(), 1u);

  // Without in-place update, the same route again takes new keys and deletes the old ones.
  f.writer->inPlaceAdjacencyUpdateSupportedIs(false);
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), (Events{"mplsVia 4", "mplsVia 5", "viaSet 2", "lfibRoute 100", "viaSet 1",
                                "mplsVia 2", "mplsVia 3"}));
  EXPECT_EQ(f.status->mplsVias(), 2u);
  EXPECT_EQ(f.status->viaSets(), 1u);
}

TEST(LfibWriter, AnotherViaTypeOrSourceTakesNewKeysAndDeletesAllOldViasNoViasAnEmptySet) {
  Fixture f("typeOrSource");
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  f.writer->lfibRouteIs(route(100, viaTypeMplsPseudowire, {1, 2}));
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).viaSetKey(),
            LfibViaSetKey(LFib::sourceLdp, 1, viaTypeMplsPseudowire, viaSetTypeEcmp));
  EXPECT_EQ(f.status->mplsVias(), 0u);

  f.writer->lfibRouteIs(route(100, viaTypeMplsPseudowire, {1, 2}, LFib::sourceStatic));
  const std::vector<LfibViaKey> keys = viaKeysOf(*f.status, 100);
  ASSERT_EQ(keys.size(), 2u);
  EXPECT_EQ(keys[0].source(), LFib::sourceStatic);
  EXPECT_EQ(keys[1].source(), LFib::sourceStatic);
  EXPECT_EQ(f.status->pwVias() + f.status->viaSets(), 3u);
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).source(), LFib::sourceStatic);

  // A route without vias names an empty via set.
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {}));
  ConsolidatedLfibRoute otherTypeOnly = route(200, viaTypeMplsIp, {});
  addVia(otherTypeOnly, viaTypeMplsPseudowire, 1);  // not of the route's via type: not read
  f.writer->lfibRouteIs(otherTypeOnly);
  for (uint32_t label : {100, 200}) {
    const LfibViaSetKey setKey = f.status->lfibRoute(RouteKey(label)).viaSetKey();
    EXPECT_EQ(f.status->viaSet(setKey), LfibViaSet(setKey)) << label;
    EXPECT_EQ(setKey.viaType(), viaTypeMplsIp);
  }
  EXPECT_EQ(f.status->pwVias() + f.status->mplsVias(), 0u);
}

TEST(LfibWriter, EqualViasBecomeOneWeightedViaInValueOrder) {
  Fixture f("weights");
  ConsolidatedLfibRoute r = route(100, viaTypeMplsIp, {});
  for (uint32_t weight : {1, 5, 9}) {
    r.mplsViaIs(mplsVia(1, weight));
  }
  r.mplsViaIs(mplsVia(2, 3));
  f.writer->lfibRouteIs(r);
  std::map<uint32_t, uint32_t> weightByLabel;
  for (const LfibViaKey& k : viaKeysOf(*f.status, 100)) {
    const LfibMplsVia v = f.status->mplsVia(k);
    weightByLabel[v.labelStack().topLabel().value()] = v.weight();
  }
  EXPECT_EQ(weightByLabel, (std::map<uint32_t, uint32_t>{{1001, 3}, {1002, 1}}));

  // The same vias added in another order give the same layout, in ascending value order.
  f.writer->lfibRouteIs(route(200, viaTypeMplsIp, {5, 3, 9, 1, 7}));
  f.writer->lfibRouteIs(route(300, viaTypeMplsIp, {7, 1, 9, 3, 5}));
  auto layout = [&](uint32_t label) {
    std::vector<LfibMplsVia> vias;
    for (const LfibViaKey& k : viaKeysOf(*f.status, label)) {
      vias.push_back(f.status->mplsVia(k));
      vias.back().keyIs(LfibViaKey());
    }
    return vias;
  };
  const std::vector<LfibMplsVia> vias = layout(200);
  EXPECT_EQ(vias, layout(300));
  EXPECT_TRUE(std::is_sorted(vias.begin(), vias.end()));
  EXPECT_EQ(vias.size(), 5u);

  // Pseudowire vias have no weight: equal ones are one via.
  f.writer->lfibRouteIs(route(400, viaTypeMplsPseudowire, {1, 1, 2}));
  EXPECT_EQ(viaKeysOf(*f.status, 400).size(), 2u);
}

TEST(LfibWriter, AViaSetHoldsAtMost128ViasAndTheStepsAreTraced) {
  Fixture f("limit");
  std::vector<std::string> levelZero;
  std::string text;
  Kel::traceSinkIs([&](const Kel::TraceFacility& facility, int level, std::string_view message) {
    if (facility.name() == "MplsLfibWriter" && level == 0) {
      levelZero.emplace_back(message);
    } else if (facility.name() == "MplsLfibWriter") {
      text += std::string(message) + "\n";
    }
  });
  Kel::traceConfigIs("MplsLfibWriter/*");
  std::vector<uint32_t> vias(200);
  std::iota(vias.begin(), vias.end(), 0);
  const ConsolidatedLfibRoute r = route(100, viaTypeMplsIp, vias);
  f.writer->lfibRouteIs(r);
  const LfibViaSet set = f.status->viaSet(f.status->lfibRoute(RouteKey(100)).viaSetKey());
  EXPECT_EQ(set.viaKeys(), 128u);
  std::set<LfibViaKey> distinct(set.viaKey().begin(), set.viaKey().end());
  EXPECT_EQ(distinct.size(), 128u);
  EXPECT_EQ(distinct.count(LfibViaKey()), 0u);
  EXPECT_EQ(f.status->mplsVias(), 128u);
  EXPECT_EQ(levelZero, std::vector<std::string>{
                           "lfibRouteIsHelper Reached via index limit (127), ignoring extra vias"});

  // The vias kept are the 128 lowest ones; writing the route again changes nothing.
  LfibMplsVia highestKept = f.status->mplsVia(set.viaKey(127));
  highestKept.keyIs(LfibViaKey());
  EXPECT_EQ(std::count_if(r.mplsVia().begin(), r.mplsVia().end(),
                          [&](const LfibMplsVia& v) { return !(highestKept < v); }),
            128);
  Recorder rec(f.status);
  f.writer->lfibRouteIs(r);
  EXPECT_EQ(rec.take(), Events{});
  f.writer->lfibRouteDel(RouteKey(100));

  ConsolidatedLfibRoute weighted = route(100, viaTypeMplsIp, {1});
  weighted.mplsViaIs(mplsVia(1, 4));
  text.clear();
  f.writer->lfibRouteIs(weighted);
  f.writer->lfibRouteIs(weighted);
  f.writer->lfibRouteIs(route(200, viaTypeExternalFec, {1}));
  f.writer->lfibRouteDel(RouteKey(100));
  f.writer->lfibRouteDelAll();
  Kel::traceSinkIs({});
  Kel::traceConfigIs("");
  for (const char* line :
       {"lfibRouteIs routeKey: Value('Mpls::RouteKey', ** {'label': 100}) viaType: viaTypeMplsIp\n",
        "lfibRouteIsHelper add via with wt 1 - Value('Mpls::LfibMplsVia'",
        "lfibRouteIsHelper add via with wt 2 - Value('Mpls::LfibMplsVia'",
        "viaWeightIs mplsvia. wt 2\n", "lfibRouteIsHelper: found old lfib route\n",
        "viaWeightIs default\n", "lfibRouteDel routeKey: Value('Mpls::RouteKey', ** {'label': 100})\n",
        "lfibRouteDelAll\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

// "Mpls/MplsLfibWriter:<line> <signature> -- assertion failed(<expression>): <message>"
void expectAssertion(const std::function<void()>& f, const std::string& signature,
                     const std::string& expression, const std::string& message) {
  try {
    f();
    ADD_FAILURE() << "nothing thrown";
  } catch (const Kel::InternalException& e) {
    const std::string what = e.what();
    const std::string tail = " " + signature + " -- assertion failed(" + expression + "): " + message;
    EXPECT_TRUE(what.starts_with("Mpls/MplsLfibWriter:")) << what;
    EXPECT_TRUE(what.ends_with(tail)) << what;
  }
}

TEST(LfibWriter, DeletesRouteThenViaSetThenViasAndDeleteAllLeavesWhatItDoesNotWrite) {
  Fixture f("delete");
  Recorder rec(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  Events expected = {"lfibRoute 100", "viaSet 1"};
  for (const LfibViaKey& k : viaKeysOf(*f.status, 100)) {
    expected.push_back(fmt::format("mplsVia {}", k.index()));
  }
  rec.take();
  f.writer->lfibRouteDel(RouteKey(100));
  EXPECT_EQ(rec.take(), expected);
  f.writer->lfibRouteDel(RouteKey(100));
  f.writer->lfibRouteDel(RouteKey(999));
  EXPECT_EQ(rec.take(), Events{});
  EXPECT_EQ(f.status->mplsVias() + f.status->viaSets() + f.status->lfibRoutes(), 0u);

  // lfibViaDel reaches the via tables the writer does not fill too; lfibRouteDelAll does
  // not, and leaves the IP lookup vias and the counters (the next MPLS via takes index 5).
  const LfibViaKey vlan(LFib::sourceEvpn, viaTypeVlan, 4);
  const LfibViaKey otherVlan(LFib::sourceEvpn, viaTypeVlan, 5);
  f.status->vlanViaIs(LfibVlanVia(vlan, Bridging::VlanId(10), lfibFlagNone));
  f.status->vlanViaIs(LfibVlanVia(otherVlan, Bridging::VlanId(11), lfibFlagNone));
  f.writer->lfibViaDel(vlan);
  EXPECT_FALSE(viaStored(*f.status, vlan));
  for (const auto& [type, coll] : kWritten) {
    f.writer->lfibRouteIs(route(100 + type, type, {1}));
  }
  f.writer->lfibRouteDelAll();
  EXPECT_EQ(f.status->lfibRoutes() + f.status->viaSets(), 0u);
  EXPECT_EQ(f.status->mplsVias() + f.status->pwVias() + f.status->extFecVias(), 0u);
  EXPECT_EQ(f.status->ipLookupVias(), 1u);
  EXPECT_TRUE(viaStored(*f.status, otherVlan));
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1}));
  EXPECT_EQ(viaKeysOf(*f.status, 100), std::vector<LfibViaKey>{mplsKey(5)});
}

TEST(LfibWriter, RefusesViaTypesItDoesNotWriteBeforeTouchingAnything) {
  Fixture f("refused");
  Recorder rec(f.status);
  // Every type without a writer: the VLAN and EVPN ones, the reserved value, and beyond.
  for (int type : {0, 4, 5, 6, 7, 8, 9, 11, 12}) {
    SCOPED_TRACE(type);
    const auto viaType = static_cast<LfibViaType>(type);
    const bool invalid = viaType == viaTypeMplsUnknown || viaType == viaTypeMax;
    const char* message = invalid ? "invalid viaType" : "viaType not yet supported";
    expectAssertion([&] { f.writer->lfibRouteIs(route(100, viaType, {})); },
                    "void Mpls::LfibWriter::lfibRouteIs(const Mpls::ConsolidatedLfibRoute&)",
                    invalid ? "route.viaType() != viaTypeMplsUnknown_ && route.viaType() != "
                              "viaTypeMax_"
                            : "false",
                    message);
    // lfibViaDel has a table for the VLAN and EVPN types.
    if (invalid || viaType == viaTypeReserved || type == 12) {
      expectAssertion([&] { f.writer->lfibViaDel(LfibViaKey(LFib::sourceLdp, viaType, 1)); },
                      "void Mpls::LfibWriter::lfibViaDel(const Mpls::LfibViaKey&)",
                      invalid ? "key.viaType() != viaTypeMplsUnknown_ && key.viaType() != "
                                "viaTypeMax_"
                              : "false",
                      message);
    }
  }
  EXPECT_EQ(rec.take(), Events{});
  EXPECT_EQ(f.writer->indexAllocatorInternals(), 0u);
}

// A notifiee of the LFIB that writes another route while the writer is in the middle of
// writing the vias of a first one.
TEST(LfibWriter, ANotifieeMayWriteAnotherRouteWhileARouteIsWritten) {
  Fixture f("nested");
  struct Nested : LfibStatus::NotifieeConst {
    void onMplsVia(const LfibViaKey&) override {
      if (LfibWriter* w = std::exchange(writer, nullptr)) {
        w->lfibRouteIs(route(200, viaTypeMplsIp, {7, 8, 9}));
      }
    }
    LfibWriter* writer = nullptr;
  } nested;
  nested.writer = f.writer.get();
  nested.notifierIs(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  EXPECT_EQ(mplsViasOf(*f.status, 100), (std::set<uint32_t>{1, 2, 3}));
  EXPECT_EQ(mplsViasOf(*f.status, 200), (std::set<uint32_t>{7, 8, 9}));
  EXPECT_EQ(f.status->mplsVias(), 6u);
}

TEST(LfibWriterDeathTest, AnLfibThatLacksWhatItNamesAborts) {
  Fixture f("fatal");
  const std::string fatal =
      "^Mpls/MplsLfibWriter:[0-9]+ void Mpls::LfibWriter::lfibRouteIsHelper\\(const "
      "Mpls::ConsolidatedLfibRoute&\\) \\[with V = Mpls::LfibMplsVia\\] -- fatal assertion "
      "failed\\(";
  const LfibViaSetKey missingSet(LFib::sourceLdp, 9, viaTypeMplsIp, viaSetTypeEcmp);
  f.status->lfibRouteIs(LfibRoute(RouteKey(100), missingSet, LFib::sourceLdp, FwdEqvClass(), 0));
  EXPECT_DEATH(f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1})), fatal + "!!oldViaSet\\)\n$");

  LfibViaSet set(missingSet);
  set.viaKeyIs(0, mplsKey(9));
  f.status->viaSetIs(set);
  EXPECT_DEATH(f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1})), fatal + "!!via\\)\n$");
  // An old via of another via type is not fetched, only deleted: no assertion.
  f.writer->lfibRouteIs(route(100, viaTypeExternalFec, {1}));
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).viaSetKey().viaType(), viaTypeExternalFec);
  EXPECT_EQ(f.status->viaSet(missingSet), LfibViaSet());
}

// ---------------------------------------------------------------------------------------
// A reading process and the write order.
//
// Invariant: at every moment, a stored route's via set is stored, every via of a stored
// via set is stored, and a via that is gone is named by no stored via set. A reader in
// another process checks it for every key it is told about. Its reads of two tables are
// not one snapshot, so a miss counts only when a second read of the naming row finds it
// unchanged: keys are never handed out twice within a run, so a row that names the same
// key before and after the miss named it throughout. The other process sees the writer's
// intermediate states only now and then; the same check in the writer's process, where
// every change is announced as it is made, sees each of them.

class InvariantChecker : public LfibStatus::NotifieeConst {
 public:
  explicit InvariantChecker(const LfibStatus::Ptr& s) : s_(s) { notifierIs(s); }
  void onLfibRoute(const RouteKey& k) override {
    ++checked;
    const LfibRoute r = s_->lfibRoute(k);
    if (r != LfibRoute()) {
      routesNaming_[r.viaSetKey()].insert(k);
      if (!hasViaSet(r.viaSetKey()) && s_->lfibRoute(k) == r) {
        violation(fmt::format("route {} names missing {}", k, r.viaSetKey()));
      }
    }
  }
  void onViaSet(const LfibViaSetKey& k) override {
    ++checked;
    const LfibViaSet set = s_->viaSet(k);
    if (set.key() != k) {
      if (auto it = routesNaming_.find(k); it != routesNaming_.end()) {
        for (const RouteKey& route : it->second) {
          if (s_->lfibRoute(route).viaSetKey() == k && !hasViaSet(k)) {
            violation(fmt::format("route {} still names deleted {}", route, k));
          }
        }
        routesNaming_.erase(it);  // a deleted key never comes back
      }
      return;
    }
    for (const LfibViaKey& v : set.viaKey()) {
      namedBy_[v].insert(k);
      if (!hasVia(v) && s_->viaSet(k) == set) {
        violation(fmt::format("{} names missing {}", k, v));
      }
    }
  }
  void onMplsVia(const LfibViaKey& k) override { onVia(k); }
  void onPwVia(const LfibViaKey& k) override { onVia(k); }
  void onIpLookupVia(const LfibViaKey& k) override { onVia(k); }
  void onExtFecVia(const LfibViaKey& k) override { onVia(k); }

  uint64_t checked = 0;
  uint64_t violations = 0;
  std::string first;

 private:
  void onVia(const LfibViaKey& k) {
    ++checked;
    auto it = namedBy_.find(k);
    if (hasVia(k) || it == namedBy_.end()) {
      return;
    }
    for (const LfibViaSetKey& setKey : it->second) {
      const LfibViaSet set = s_->viaSet(setKey);
      if (std::find(set.viaKey().begin(), set.viaKey().end(), k) != set.viaKey().end() &&
          !hasVia(k)) {
        violation(fmt::format("{} still names deleted {}", setKey, k));
      }
    }
    namedBy_.erase(it);  // a deleted key never comes back
  }
  bool hasViaSet(const LfibViaSetKey& k) const { return s_->viaSet(k).key() == k; }
  bool hasVia(const LfibViaKey& k) const { return viaStored(*s_, k); }
  void violation(const std::string& what) {
    if (violations++ == 0) {
      first = what;
    }
  }

  LfibStatus::Ptr s_;
  std::map<LfibViaSetKey, std::set<RouteKey>> routesNaming_;
  std::map<LfibViaKey, std::set<LfibViaSetKey>> namedBy_;
};

// Checks every change it hears of; asked, it processes what is left and answers
// "<violations> <checked> <first violation>".
int checkerProcess(const std::string& name, Kel::ChildProcess::Channel& channel) {
  auto group = Pond::MountGroup::reader(name);
  auto status = lfibStatusFactory();
  status->mountGroupIs(group);
  InvariantChecker checker(status);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (std::chrono::steady_clock::now() < deadline) {
    std::optional<std::string> request = channel.request(std::chrono::milliseconds(0));
    if (!request) {
      return 0;
    }
    if (request->empty()) {
      if (group->waitForChange(std::chrono::milliseconds(5))) {
        group->processChanges();
      }
      continue;
    }
    group->processChanges();
    channel.reply(fmt::format("{} {} {}", checker.violations, checker.checked, checker.first));
  }
  return 1;
}

TEST(LfibWriter, AReaderProcessNeverFindsAMissingViaSetOrVia) {
  ScopedGroupName name("writerOrder");
  Kel::ChildProcess checker(
      [&](Kel::ChildProcess::Channel& channel) { return checkerProcess(*name, channel); });
  WriterLfib lfib(*name);
  InvariantChecker local(lfib.status);
  std::mt19937 rng(20240611);
  auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  for (int op = 0; op < 12000; ++op) {
    const uint32_t label = 16 + pick(150);
    if (pick(8) == 0) {
      lfib.writer->lfibRouteDel(RouteKey(label));
    } else {
      const LfibViaType type = kWritten[pick(4)].first;
      ConsolidatedLfibRoute r =
          route(label, type, {}, pick(3) == 0 ? LFib::sourceStatic : LFib::sourceLdp);
      const uint32_t vias = type == viaTypeIpLookup ? pick(2) : pick(9);
      for (uint32_t i = 0; i < vias; ++i) {
        if (type == viaTypeMplsIp) {
          r.mplsViaIs(mplsVia(pick(12), 1 + pick(3)));
        } else {
          addVia(r, type, pick(12));
        }
      }
      lfib.writer->lfibRouteIs(r);
    }
    if (op % 64 == 0) {
      lfib.group->publish();
    }
  }
  lfib.group->publish();
  const std::string answer = checker.ask("check");
  uint64_t violations = ~0ull;
  uint64_t checked = 0;
  ASSERT_EQ(std::sscanf(answer.c_str(), "%" SCNu64 " %" SCNu64, &violations, &checked), 2)
      << answer;
  EXPECT_EQ(violations, 0u) << answer;
  EXPECT_GT(checked, 0u);
  EXPECT_EQ(local.violations, 0u) << local.first;
  EXPECT_EQ(checker.wait(std::chrono::seconds(10)), 0);
}

}  // namespace
