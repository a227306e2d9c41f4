// LfibWriter on a writer-role LfibStatus with real shared-memory tables: what a write and a
// rewrite change (observed through the LfibStatus's notifications, in order), key reuse,
// weights, the 128-via limit, deletes, refused via types, the fatal assertions, and the write
// order checked at every intermediate state; and ConsolidatedLfibRoute, what it is given.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Kel/Trace.h"
#include "Mpls/MplsLfibWriter.h"
#include "support/LfibFixture.h"
#include "support/TestUtil.h"

namespace {

using namespace Mpls;
using Events = std::vector<std::string>;
using TestSupport::LfibRecorder;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// The via types the writer writes.
constexpr LfibViaType kWritten[] = {viaTypeMplsIp, viaTypeMplsPseudowire, viaTypeIpLookup,
                                    viaTypeExternalFec};

std::string collectionOf(LfibViaType type) {
  std::string out;
  lfibViaTypeVisit(type, [&](auto via) { out = via.collection; });
  return out;
}

// A writer on an LFIB of its own.
struct Fixture : TestSupport::LfibFixture {
  explicit Fixture(const std::string& test)
      : LfibFixture(test), writer(lfibWriterFactory(status)) {}
  LfibWriter::Ptr writer;
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

// The via numbers of route `label`'s MPLS vias.
std::set<uint32_t> mplsViasOf(const Fixture& f, uint32_t label) {
  std::set<uint32_t> out;
  for (const LfibViaKey& k : f.viaKeysOf(label)) {
    out.insert(f.status->mplsVia(k).labelStack().topLabel().value() - 1000);
  }
  return out;
}

TEST(LfibWriter, WritesViasThenViaSetThenRouteAndTheSameRouteAgainWritesNothing) {
  for (LfibViaType type : kWritten) {
    const std::string coll = collectionOf(type);
    SCOPED_TRACE(coll);
    Fixture f("same" + coll);
    LfibRecorder rec(f.status);
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
    const std::vector<LfibViaKey> keys = f.viaKeysOf(100);
    ASSERT_EQ(keys.size(), vias.size());
    for (const LfibViaKey& k : keys) {
      EXPECT_TRUE(k.source() == LFib::sourceLdp && k.viaType() == type && lfibViaStored(*f.status, k))
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
  LfibRecorder rec(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2}));
  std::vector<LfibViaKey> keys = f.viaKeysOf(100);
  rec.take();

  // One via added: only it and the via set are written; it takes the last slot.
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  EXPECT_EQ(rec.take(), (Events{"mplsVia 3", "viaSet 1"}));
  keys.push_back(mplsKey(3));
  EXPECT_EQ(f.viaKeysOf(100), keys);

  // Via 1 (the first slot) removed: the via set first, then the via.
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {2, 3}));
  EXPECT_EQ(rec.take(), (Events{"viaSet 1", fmt::format("mplsVia {}", keys[0].index())}));
  EXPECT_FALSE(lfibViaStored(*f.status, keys[0]));
  EXPECT_EQ(mplsViasOf(f, 100), (std::set<uint32_t>{2, 3}));

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
  keys = f.viaKeysOf(100);
  weighted.viaSetTypeIs(viaSetTypeUcmp);
  f.writer->lfibRouteIs(weighted);
  EXPECT_EQ(rec.take(), (Events{"viaSet 1", "lfibRoute 100", "viaSet 1"}));
  EXPECT_EQ(f.status->lfibRoute(RouteKey(100)).viaSetKey().viaSetType(), viaSetTypeUcmp);
  EXPECT_EQ(f.viaKeysOf(100), keys);
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
  const std::vector<LfibViaKey> keys = f.viaKeysOf(100);
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
  for (const LfibViaKey& k : f.viaKeysOf(100)) {
    const LfibMplsVia v = f.status->mplsVia(k);
    weightByLabel[v.labelStack().topLabel().value()] = v.weight();
  }
  EXPECT_EQ(weightByLabel, (std::map<uint32_t, uint32_t>{{1001, 3}, {1002, 1}}));

  // The same vias added in another order give the same layout, in ascending value order.
  f.writer->lfibRouteIs(route(200, viaTypeMplsIp, {5, 3, 9, 1, 7}));
  f.writer->lfibRouteIs(route(300, viaTypeMplsIp, {7, 1, 9, 3, 5}));
  auto layout = [&](uint32_t label) {
    std::vector<LfibMplsVia> vias;
    for (const LfibViaKey& k : f.viaKeysOf(label)) {
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
  EXPECT_EQ(f.viaKeysOf(400).size(), 2u);
}

TEST(LfibWriter, AViaSetHoldsAtMost128ViasAndTheLimitIsTraced) {
  Fixture f("limit");
  std::vector<std::string> traced;  // the writer's lines at level 0
  Kel::traceSinkIs([&](const Kel::TraceFacility& t, int level, std::string_view line) {
    if (t.name() == "MplsLfibWriter" && level == 0) {
      traced.emplace_back(line);
    }
  });
  Kel::traceConfigIs("MplsLfibWriter/0");
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
  Kel::traceSinkIs({});
  Kel::traceConfigIs("");
  EXPECT_EQ(traced, std::vector<std::string>{
                        "lfibRouteIsHelper Reached via index limit (127), ignoring extra vias"});

  // The vias kept are the 128 lowest ones; writing the route again changes nothing.
  LfibMplsVia highestKept = f.status->mplsVia(set.viaKey(127));
  highestKept.keyIs(LfibViaKey());
  EXPECT_EQ(std::count_if(r.mplsVia().begin(), r.mplsVia().end(),
                          [&](const LfibMplsVia& v) { return !(highestKept < v); }),
            128);
  LfibRecorder rec(f.status);
  f.writer->lfibRouteIs(r);
  EXPECT_EQ(rec.take(), Events{});
}

void expectAssertion(const std::function<void()>& f, const std::string& signature,
                     const std::string& expression, const std::string& message) {
  EXPECT_EQ(TestSupport::assertionMismatch("Mpls/MplsLfibWriter", f, signature, expression, message),
            "");
}

TEST(LfibWriter, DeletesRouteThenViaSetThenViasAndDeleteAllLeavesWhatItDoesNotWrite) {
  Fixture f("delete");
  LfibRecorder rec(f.status);
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1, 2, 3}));
  Events expected = {"lfibRoute 100", "viaSet 1"};
  for (const LfibViaKey& k : f.viaKeysOf(100)) {
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
  EXPECT_FALSE(lfibViaStored(*f.status, vlan));
  for (LfibViaType type : kWritten) {
    f.writer->lfibRouteIs(route(100 + type, type, {1}));
  }
  f.writer->lfibRouteDelAll();
  EXPECT_EQ(f.status->lfibRoutes() + f.status->viaSets(), 0u);
  EXPECT_EQ(f.status->mplsVias() + f.status->pwVias() + f.status->extFecVias(), 0u);
  EXPECT_EQ(f.status->ipLookupVias(), 1u);
  EXPECT_TRUE(lfibViaStored(*f.status, otherVlan));
  f.writer->lfibRouteIs(route(100, viaTypeMplsIp, {1}));
  EXPECT_EQ(f.viaKeysOf(100), std::vector<LfibViaKey>{mplsKey(5)});
}

TEST(LfibWriter, RefusesViaTypesItDoesNotWriteBeforeTouchingAnything) {
  Fixture f("refused");
  LfibRecorder rec(f.status);
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
  EXPECT_EQ(mplsViasOf(f, 100), (std::set<uint32_t>{1, 2, 3}));
  EXPECT_EQ(mplsViasOf(f, 200), (std::set<uint32_t>{7, 8, 9}));
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
// The write order.
//
// Invariant: at every moment, a stored route's via set is stored, and every via of a stored
// via set is stored. A checker in the writer's process hears every change as it is made, and
// then walks the whole LFIB: it sees each intermediate state. (Readers in other processes
// under churn: LfibCrashTest.)

class InvariantChecker : public LfibStatus::NotifieeConst {
 public:
  explicit InvariantChecker(const LfibStatus::Ptr& s) : s_(s) { notifierIs(s); }
  void onLfibRoute(const RouteKey&) override { check(); }
  void onViaSet(const LfibViaSetKey&) override { check(); }
  MPLS_LFIB_ON_EVERY_VIA(onVia)

  uint64_t checked = 0;
  uint64_t violations = 0;
  std::string first;

 private:
  void onVia(const LfibViaKey&) { check(); }
  // Rows that nothing names are a step on the way, not a violation.
  void check() {
    ++checked;
    using Kind = LfibIntegrityProblem::Kind;
    for (const LfibIntegrityProblem& p : lfibIntegrityCheck(*s_).problems) {
      if (p.kind != Kind::viaSetUnused && p.kind != Kind::viaUnused && violations++ == 0) {
        first = fmt::format("problem {}: route {} via set {} via {}", static_cast<int>(p.kind),
                            p.route, p.viaSet, p.via);
      }
    }
  }

  LfibStatus::Ptr s_;
};

TEST(LfibWriter, NoIntermediateStateNamesAMissingViaSetOrVia) {
  LfibStatusSizing sizing;  // room for every via of every type
  sizing.pwVia = sizing.ipLookupVia = sizing.extFecVia = Pond::TableSizing{4096};
  TestSupport::LfibFixture lfib("writerOrder", sizing);
  auto writer = lfibWriterFactory(lfib.status);
  InvariantChecker checker(lfib.status);
  std::mt19937 rng(20240611);
  auto pick = [&](uint32_t n) { return static_cast<uint32_t>(rng() % n); };
  for (int op = 0; op < 2000; ++op) {
    const uint32_t label = 16 + pick(40);
    if (pick(8) == 0) {
      writer->lfibRouteDel(RouteKey(label));
    } else {
      const LfibViaType type = kWritten[pick(4)];
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
      writer->lfibRouteIs(r);
    }
  }
  EXPECT_GT(checker.checked, 0u);
  EXPECT_EQ(checker.violations, 0u) << checker.first;
  EXPECT_TRUE(lfibIntegrityCheck(*lfib.status).consistent());
}

// ---------------------------------------------------------------------------------------
// ConsolidatedLfibRoute.

ConsolidatedLfibRoute bareRoute(uint32_t label) {
  return ConsolidatedLfibRoute(RouteKey(label), LFib::sourceStatic, FwdEqvClass(), 0,
                               viaTypeMplsIp);
}

// True when any field differs from the default, a via included.
TEST(ConsolidatedLfibRoute, BoolIsNotDefault) {
  EXPECT_FALSE(ConsolidatedLfibRoute());
  EXPECT_TRUE(bareRoute(100));
  ConsolidatedLfibRoute onlyVia;
  onlyVia.extFecViaIs(LfibExtFecVia());
  EXPECT_TRUE(onlyVia);
  ConsolidatedLfibRoute onlyMetric;
  onlyMetric.metricIs(1);
  EXPECT_TRUE(onlyMetric);
}

TEST(ConsolidatedLfibRoute, KeyedViaIsStoredThenRefusedAndTheTextFormIsNeverRead) {
  ConsolidatedLfibRoute r = bareRoute(100);
  LfibMplsVia keyed = mplsVia(1);
  keyed.keyIs(LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 4));
  expectAssertion([&] { r.mplsViaIs(keyed); },
                  "void Mpls::ConsolidatedLfibRoute::verifyVia(const Mpls::LfibViaKey&) const",
                  "vk == LfibViaKey()", "Vias in ConsolidatedLfibRoute should have an unset key only");
  EXPECT_TRUE(r.mplsViaHas(keyed));  // inserted before the check
  LfibIpLookupVia lookup(LfibViaKey(LFib::sourceBgp, viaTypeIpLookup, 1), L3::VrfName("red"),
                         payloadTypeIpv4);
  EXPECT_THROW(r.ipLookupViaIs(lookup), Kel::InternalException);

  // The text form is written, but never read.
  r = bareRoute(16);
  r.mplsViaIs(mplsVia(2));
  r.mplsViaIs(mplsVia(1));
  std::string text = Kel::valueToStrep(r);
  EXPECT_EQ(text,
            "Value('Mpls::ConsolidatedLfibRoute', ** {'key': Value('Mpls::RouteKey', ** "
            "{'label': 16}), 'source': sourceStatic, 'fec': Value('Mpls::FwdEqvClass', ** "
            "{'fecType': fecTypeNone, 'prefix': 0.0.0.0/0}), 'metric': 0, 'viaType': "
            "viaTypeMplsIp, 'viaSetType': viaSetTypeDefault, 'mplsVia': {" +
                Kel::valueToStrep(mplsVia(1)) + ", " +
                Kel::valueToStrep(mplsVia(2)) +
                "}, 'pwVia': {}, 'ipLookupVia': {}, 'extFecVia': {}})");
  EXPECT_THAT(
      TestSupport::errorText<Kel::InternalException>(
          [&] { Kel::strepToValue<ConsolidatedLfibRoute>(text); }),
      AllOf(StartsWith("Mpls/MplsLfibWriter:"),
            HasSubstr(" -- assertion failed(!\"No String constructor for ConsolidatedLfibRoute - "
                      "has collection\"): ")));
}

}  // namespace
