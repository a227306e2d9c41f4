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
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Kel/Trace.h"
#include "Mpls/MplsLfibWriter.h"
#include "platform/Pond/PondTestTypes.h"
#include "support/ChildProcess.h"

namespace {

using namespace Mpls;
using Events = std::vector<std::string>;
using PondTest::ScopedGroupName;

constexpr LfibViaType kWrittenTypes[] = {viaTypeMplsIp, viaTypeMplsPseudowire, viaTypeIpLookup,
                                         viaTypeExternalFec};

LfibStatusSizing roomySizing() {
  LfibStatusSizing s;
  s.pwVia = s.ipLookupVia = s.extFecVia = Pond::TableSizing{4096};
  return s;
}

struct WriterLfib {
  explicit WriterLfib(const std::string& groupName)
      : group(Pond::MountGroup::writer(groupName)), status(lfibStatusFactory()) {
    status->mountGroupIs(group, roomySizing());
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
    default: {
      LfibExtFecVia v;
      v.fecIdIs(Pond::Fib::FecId(n + 1));
      r.extFecViaIs(v);
    }
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

const char* viaColl(LfibViaType type) {
  switch (type) {
    case viaTypeMplsIp:
      return "mplsVia";
    case viaTypeMplsPseudowire:
      return "pwVia";
    case viaTypeIpLookup:
      return "ipLookupVia";
    default:
      return "extFecVia";
  }
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

// The key under which route `label` holds mplsVia(n).
LfibViaKey mplsViaKeyOf(const LfibStatus& s, uint32_t label, uint32_t n) {
  for (const LfibViaKey& k : viaKeysOf(s, label)) {
    if (s.mplsVia(k).labelStack().topLabel().value() == 1000 + n) {
      return k;
    }
  }
  return LfibViaKey();
}

// The vias numbers of route `label`'s MPLS vias.
std::set<uint32_t> mplsViasOf(const LfibStatus& s, uint32_t label) {
  std::set<uint32_t> out;
  for (const LfibViaKey& k : viaKeysOf(s, label)) {
    out.insert(s.mplsVia(k).labelStack().topLabel().value() - 1000);
  }
  return out;
}

// Every notification of an LfibStatus, in order: "<collection> <label or index>".
class Recorder : public LfibStatus::NotifieeConst {
 public:
  explicit Recorder(const LfibStatus::Ptr& s) { notifierIs(s); }
  void onLfibRoute(const RouteKey& k) override { events.push_back(fmt::format("lfibRoute {}", k.label())); }
  void onViaSet(const LfibViaSetKey& k) override { note("viaSet", k.index()); }
  void onMplsVia(const LfibViaKey& k) override { note("mplsVia", k.index()); }
  void onPwVia(const LfibViaKey& k) override { note("pwVia", k.index()); }
  void onIpLookupVia(const LfibViaKey& k) override { note("ipLookupVia", k.index()); }
  void onExtFecVia(const LfibViaKey& k) override { note("extFecVia", k.index()); }
  void onVlanVia(const LfibViaKey& k) override { note("vlanVia", k.index()); }
  Events take() { return std::exchange(events, {}); }
  Events events;

 private:
  void note(const char* coll, uint32_t index) { events.push_back(fmt::format("{} {}", coll, index)); }
};

TEST(LfibWriter, WritesViasThenViaSetThenRouteAndTheSameRouteAgainWritesNothing) {
  for (LfibViaType type : kWrittenTypes) {
    SCOPED_TRACE(viaColl(type));
    Fixture f(std::string("same") + viaColl(type));
    Recorder rec(f.status);
    EXPECT_TRUE(f.writer->inPlaceAdjacencyUpdateSupported());
    const auto vias = type == viaTypeIpLookup ? std::vector<uint32_t>{1}
                                              : std::vector<uint32_t>{1, 2};
    const ConsolidatedLfibRoute r = route(100, type, vias);
    f.writer->lfibRouteIs(r);

    const std::string coll = viaColl(type);
    Events expected;
    for (uint32_t i = 1; i <= vias.size(); ++i) {
      expected.push_back(coll + " " + std::to_string(i));
    }
    expected.insert(expected.end(), {"viaSet 1", "lfibRoute 100"});
    EXPECT_EQ(rec.take(), expected);

    const LfibRoute stored = f.status->lfibRoute(RouteKey(100));
    EXPECT_EQ(stored, LfibRoute(RouteKey(100), LfibViaSetKey(LFib::sourceLdp, 1, type, viaSetTypeEcmp),
                                LFib::sourceLdp, r.fec(), 0));
    const std::vector<LfibViaKey> keys = viaKeysOf(*f.status, 100);
    ASSERT_EQ(keys.size(), vias.size());
    for (const LfibViaKey& k : keys) {
      EXPECT_EQ(k.source(), LFib::sourceLdp);
      EXPECT_EQ(k.viaType(), type);
      EXPECT_TRUE(viaStored(*f.status, k));
    }

    auto allocator = f.writer->indexAllocator(LFib::sourceLdp);
    f.writer->lfibRouteIs(r);
    EXPECT_EQ(rec.take(), Events{});
    EXPECT_EQ(allocator->viaKeyIndex(type), vias.size());
    EXPECT_EQ(allocator->viaSetKeyIndex({type, viaSetTypeEcmp}), 1u);
  }
}

TEST(LfibWriter, InPlaceRewriteKeepsTheKeysOfWhatDidNotChange) {
  Fixture f("inPlace");
  Recorder rec(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  const std::vector<LfibViaKey> before = viaKeysOf(*f.status, 100);
  rec.take();

  // One via added: only it and the via set are written.
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  EXPECT_EQ(rec.take(), (Events{"mplsVia 3", "viaSet 1"}));
  std::vector<LfibViaKey> after = viaKeysOf(*f.status, 100);
  for (const LfibViaKey& k : before) {
    EXPECT_NE(std::find(after.begin(), after.end(), k), after.end()) << k;
  }

  // One removed: the via set first, then the via.
  const LfibViaKey key1 = mplsViaKeyOf(*f.status, 100, 1);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {2, 3}));
  EXPECT_EQ(rec.take(), (Events{"viaSet 1", fmt::format("mplsVia {}", key1.index())}));
  EXPECT_FALSE(viaStored(*f.status, key1));

  // A via's weight changes: that via alone is written again, under its key.
  ConsolidatedLfibRoute weighted = route(100, viaTypeMplsIp, {2, 3});
  weighted.mplsViaIs(mplsVia(3, 7));
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), Events{"mplsVia 3"});
  EXPECT_EQ(f.status->mplsVia(LfibViaKey(LFib::sourceLdp, viaTypeMplsIp, 3)).weight(), 2u);

  // Only the metric: only the route.
  weighted.metricIs(9);
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), Events{"lfibRoute 100"});

  // Another via set type: a new via set key, the vias keep theirs.
  after = viaKeysOf(*f.status, 100);
  weighted.viaSetTypeIs(viaSetTypeUcmp);
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), (Events{"viaSet 1", "lfibRoute 100", "viaSet 1"}));
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).viaSetKey().viaSetType(), viaSetTypeUcmp);
  EXPECT_EQ(viaKeysOf(*f.status, 100), after);
  EXPECT_EQ(f.status->viaSets(), 1u);
}

TEST(LfibWriter, WithoutInPlaceUpdateEveryRewriteTakesNewKeysAndDeletesTheOldOnes) {
  Fixture f("notInPlace");
  Recorder rec(f.status);
  f.writer->inPlaceAdjacencyUpdateSupportedIs(false);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  rec.take();
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  EXPECT_EQ(rec.take(), (Events{"mplsVia 3", "mplsVia 4", "viaSet 2", "lfibRoute 100", "viaSet 1",
                                "mplsVia 1", "mplsVia 2"}));
  EXPECT_EQ(f.status->mplsVias(), 2u);
  EXPECT_EQ(f.status->viaSets(), 1u);
}

TEST(LfibWriter, AnotherViaTypeOrSourceTakesNewKeysAndDeletesAllOldVias) {
  Fixture f("typeOrSource");
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  f.writer->lfibRouteIs(route(100, viaTypeMplsPseudowire, {1, 2}));
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).viaSetKey(),
            LfibViaSetKey(LFib::sourceLdp, 1, viaTypeMplsPseudowire, viaSetTypeEcmp));
  EXPECT_EQ(f.status->mplsVias(), 0u);
  EXPECT_EQ(f.status->pwVias(), 2u);

  f.writer->lfibRouteIs(route(100, viaTypeMplsPseudowire, {1, 2}, LFib::sourceStatic));
  const std::vector<LfibViaKey> keys = viaKeysOf(*f.status, 100);
  ASSERT_EQ(keys.size(), 2u);
  for (const LfibViaKey& k : keys) {
    EXPECT_EQ(k.source(), LFib::sourceStatic);
  }
  EXPECT_EQ(f.status->pwVias(), 2u);
  EXPECT_EQ(f.status->viaSets(), 1u);
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).source(), LFib::sourceStatic);
}

TEST(LfibWriter, EqualViasBecomeOneWeightedViaInValueOrder) {
  Fixture f("weights");
  ConsolidatedLfibRoute r = route(100, viaTypeMplsIp, {});
  r.mplsViaIs(mplsVia(1, 1));
  r.mplsViaIs(mplsVia(1, 5));
  r.mplsViaIs(mplsVia(1, 9));
  r.mplsViaIs(mplsVia(2, 3));
  f.writer->lfibRouteIs(r);
  std::map<uint32_t, uint32_t> weightByLabel;
  for (const LfibViaKey& k : viaKeysOf(*f.status, 100)) {
    const LfibMplsVia v = f.status->mplsVia(k);
    weightByLabel[v.labelStack().topLabel().value()] = v.weight();
  }
  EXPECT_EQ(weightByLabel, (std::map<uint32_t, uint32_t>{{1001, 3}, {1002, 1}}));

  // The same vias added in another order give the same layout, in ascending value order.
  const std::vector<uint32_t> forward = {5, 3, 9, 1, 7}, backward = {7, 1, 9, 3, 5};
  f.writer->lfibRouteIs(route(200, viaTypeMplsIp, forward));
  f.writer->lfibRouteIs(route(300, viaTypeMplsIp, backward));
  auto layout = [&](uint32_t label) {
    std::vector<LfibMplsVia> vias;
    for (const LfibViaKey& k : viaKeysOf(*f.status, label)) {
      LfibMplsVia v = f.status->mplsVia(k);
      v.keyIs(LfibViaKey());
      vias.push_back(v);
    }
    return vias;
  };
  const std::vector<LfibMplsVia> vias = layout(200);
  EXPECT_EQ(vias, layout(300));
  EXPECT_TRUE(std::is_sorted(vias.begin(), vias.end()));
  EXPECT_EQ(vias.size(), 5u);

  // Pseudowire vias have no weight: equal ones are one via.
  ConsolidatedLfibRoute pw = route(400, viaTypeMplsPseudowire, {1, 1, 2});
  f.writer->lfibRouteIs(pw);
  EXPECT_EQ(viaKeysOf(*f.status, 400).size(), 2u);
}

TEST(LfibWriter, AViaSetHoldsAtMost128Vias) {
  Fixture f("limit");
  std::vector<std::string> lines;
  Kel::traceSinkIs([&](const Kel::TraceFacility& facility, int level, std::string_view message) {
    if (facility.name() == "MplsLfibWriter" && level == 0) {
      lines.emplace_back(message);
    }
  });
  Kel::traceConfigIs("MplsLfibWriter/0");
  std::vector<uint32_t> vias;
  for (uint32_t n = 0; n < 200; ++n) {
    vias.push_back(n);
  }
  const ConsolidatedLfibRoute r = route(100, viaTypeMplsIp, vias);
  f.writer->lfibRouteIs(r);
  const LfibViaSet set = f.status->viaSet(f.status->lfibRoute(RouteKey(100)).viaSetKey());
  EXPECT_EQ(set.viaKeys(), 128u);
  std::set<LfibViaKey> distinct(set.viaKey().begin(), set.viaKey().end());
  EXPECT_EQ(distinct.size(), 128u);
  EXPECT_EQ(distinct.count(LfibViaKey()), 0u);
  EXPECT_EQ(f.status->mplsVias(), 128u);
  EXPECT_EQ(lines, std::vector<std::string>{
                       "lfibRouteIsHelper Reached via index limit (127), ignoring extra vias"});

  // The vias kept are the 128 lowest ones; writing the route again changes nothing.
  LfibMplsVia highestKept = f.status->mplsVia(set.viaKey(127));
  highestKept.keyIs(LfibViaKey());
  size_t lower = 0;
  for (const LfibMplsVia& v : r.mplsVia()) {
    lower += !(highestKept < v);
  }
  EXPECT_EQ(lower, 128u);
  Recorder rec(f.status);
  f.writer->lfibRouteIs(r);
  EXPECT_EQ(rec.take(), Events{});
  Kel::traceSinkIs({});
  Kel::traceConfigIs("");
}

TEST(LfibWriter, TracesItsSteps) {
  Fixture f("trace");
  std::string text;
  Kel::traceSinkIs([&](const Kel::TraceFacility& facility, int, std::string_view message) {
    if (facility.name() == "MplsLfibWriter") {
      text += std::string(message) + "\n";
    }
  });
  Kel::traceConfigIs("MplsLfibWriter/*");
  ConsolidatedLfibRoute r = route(100, viaTypeMplsIp, {1});
  r.mplsViaIs(mplsVia(1, 4));
  f.writer->lfibRouteIs(r);
  f.writer->lfibRouteIs(r);
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

TEST(LfibWriter, RouteWithoutViasNamesAnEmptyViaSet) {
  Fixture f("noVias");
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {}));
  ConsolidatedLfibRoute otherTypeOnly = route(200, viaTypeMplsIp, {});
  addVia(otherTypeOnly, viaTypeMplsPseudowire, 1);  // not of the route's via type: not read
  f.writer->lfibRouteIs(otherTypeOnly);
  for (uint32_t label : {100, 200}) {
    const LfibRoute r = f.status->lfibRoute(RouteKey(label));
    EXPECT_EQ(r.key(), RouteKey(label));
    EXPECT_EQ(f.status->viaSet(r.viaSetKey()), LfibViaSet(r.viaSetKey()));
  }
  EXPECT_EQ(f.status->pwVias() + f.status->mplsVias(), 0u);
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

TEST(LfibWriter, DeletesRouteThenViaSetThenVias) {
  Fixture f("delete");
  Recorder rec(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  const std::vector<LfibViaKey> keys = viaKeysOf(*f.status, 100);
  rec.take();
  f.writer->lfibRouteDel(RouteKey(100));
  Events expected = {"lfibRoute 100", "viaSet 1"};
  for (const LfibViaKey& k : keys) {
    expected.push_back(fmt::format("mplsVia {}", k.index()));
  }
  EXPECT_EQ(rec.take(), expected);
  f.writer->lfibRouteDel(RouteKey(100));
  f.writer->lfibRouteDel(RouteKey(999));
  EXPECT_EQ(rec.take(), Events{});
  EXPECT_EQ(f.status->mplsVias() + f.status->viaSets() + f.status->lfibRoutes(), 0u);

  // lfibViaDel reaches the via tables the writer does not fill too.
  const LfibViaKey vlan(LFib::sourceEvpn, viaTypeVlan, 4);
  f.status->vlanViaIs(LfibVlanVia(vlan, Bridging::VlanId(10), lfibFlagNone));
  f.writer->lfibViaDel(vlan);
  EXPECT_FALSE(viaStored(*f.status, vlan));

  const std::string signature = "void Mpls::LfibWriter::lfibViaDel(const Mpls::LfibViaKey&)";
  for (LfibViaType type : {viaTypeMplsUnknown, viaTypeMax}) {
    expectAssertion([&] { f.writer->lfibViaDel(LfibViaKey(LFib::sourceLdp, type, 1)); }, signature,
                    "key.viaType() != viaTypeMplsUnknown_ && key.viaType() != viaTypeMax_",
                    "invalid viaType");
  }
  expectAssertion([&] { f.writer->lfibViaDel(LfibViaKey(LFib::sourceLdp, viaTypeReserved, 1)); },
                  signature, "false", "viaType not yet supported");
}

TEST(LfibWriter, DeleteAllLeavesIpLookupVlanAndEvpnViasAndTheCounters) {
  Fixture f("deleteAll");
  for (LfibViaType type : kWrittenTypes) {
    f.writer->lfibRouteIs(route(100 + type, type, {1}));
  }
  const LfibViaKey vlan(LFib::sourceEvpn, viaTypeVlan, 4);
  f.status->vlanViaIs(LfibVlanVia(vlan, Bridging::VlanId(10), lfibFlagNone));
  f.writer->lfibRouteDelAll();
  EXPECT_EQ(f.status->lfibRoutes() + f.status->viaSets(), 0u);
  EXPECT_EQ(f.status->mplsVias() + f.status->pwVias() + f.status->extFecVias(), 0u);
  EXPECT_EQ(f.status->ipLookupVias(), 1u);
  EXPECT_TRUE(viaStored(*f.status, vlan));
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1}));
  EXPECT_EQ(viaKeysOf(*f.status, 100), std::vector<LfibViaKey>{LfibViaKey(
                                           LFib::sourceLdp, viaTypeMplsIp, 2)});
}

TEST(LfibWriter, RefusesViaTypesItDoesNotWriteBeforeTouchingAnything) {
  Fixture f("refused");
  Recorder rec(f.status);
  const std::string signature =
      "void Mpls::LfibWriter::lfibRouteIs(const Mpls::ConsolidatedLfibRoute&)";
  for (int type = viaTypeMplsUnknown; type <= 12; ++type) {
    const auto viaType = static_cast<LfibViaType>(type);
    if (std::find(std::begin(kWrittenTypes), std::end(kWrittenTypes), viaType) !=
        std::end(kWrittenTypes)) {
      continue;
    }
    SCOPED_TRACE(type);
    const ConsolidatedLfibRoute r = route(100, viaType, {});
    if (viaType == viaTypeMplsUnknown || viaType == viaTypeMax) {
      expectAssertion([&] { f.writer->lfibRouteIs(r); }, signature,
                      "route.viaType() != viaTypeMplsUnknown_ && route.viaType() != viaTypeMax_",
                      "invalid viaType");
    } else {
      expectAssertion([&] { f.writer->lfibRouteIs(r); }, signature, "false",
                      "viaType not yet supported");
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
      if (!done) {
        done = true;
        writer->lfibRouteIs(route(200, viaTypeMplsIp, {7, 8, 9}));
      }
    }
    LfibWriter* writer = nullptr;
    bool done = false;
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
  const LfibViaSetKey missingSet(LFib::sourceLdp, 9, viaTypeMplsIp, viaSetTypeEcmp);
  f.status->lfibRouteIs(LfibRoute(RouteKey(100), missingSet, LFib::sourceLdp, FwdEqvClass(), 0));
  EXPECT_DEATH(f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1})),
               "^Mpls/MplsLfibWriter:[0-9]+ void Mpls::LfibWriter::lfibRouteIsHelper\\(const "
               "Mpls::ConsolidatedLfibRoute&\\) \\[with V = Mpls::LfibMplsVia\\] -- fatal "
               "assertion failed\\(!!oldViaSet\\)\n$");

  LfibViaSet set(missingSet);
  set.viaKeyIs(0, LfibViaKey(LFib::sourceLdp, viaTypeMplsIp, 9));
  f.status->viaSetIs(set);
  EXPECT_DEATH(f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1})),
               "^Mpls/MplsLfibWriter:[0-9]+ void Mpls::LfibWriter::lfibRouteIsHelper\\(const "
               "Mpls::ConsolidatedLfibRoute&\\) \\[with V = Mpls::LfibMplsVia\\] -- fatal "
               "assertion failed\\(!!via\\)\n$");
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
    if (r == LfibRoute()) {
      return;
    }
    routesNaming_[r.viaSetKey()].insert(k);
    if (!hasViaSet(r.viaSetKey()) && s_->lfibRoute(k) == r) {
      violation(fmt::format("route {} names missing {}", k, r.viaSetKey()));
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
    if (hasVia(k)) {
      return;
    }
    auto it = namedBy_.find(k);
    if (it == namedBy_.end()) {
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
int checkerProcess(const std::string& name, TestSupport::Channel& channel) {
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
  TestSupport::ChildProcess checker(
      [&](TestSupport::Channel& channel) { return checkerProcess(*name, channel); });
  WriterLfib lfib(*name);
  InvariantChecker local(lfib.status);
  std::mt19937 rng(20240611);
  auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  for (int op = 0; op < 12000; ++op) {
    const uint32_t label = 16 + pick(150);
    if (pick(8) == 0) {
      lfib.writer->lfibRouteDel(RouteKey(label));
    } else {
      const LfibViaType type = kWrittenTypes[pick(4)];
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
