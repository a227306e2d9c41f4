// LfibStatus on real shared-memory tables: the checks of every write, the integrity check
// and the dump (a reader in another process: LfibReaderStack in LfibTrackingTest.cpp).
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "Mpls/MplsLfib.h"
#include "support/LfibFixture.h"

namespace {

using namespace Mpls;
using Events = std::vector<std::string>;
using TestSupport::lfibEvent;
using TestSupport::LfibFixture;
using TestSupport::LfibRecorder;

// "" when `f` throws the assertion of Mpls/MplsLfib of `signature`, `expression`, `message`.
std::string assertionMismatch(const std::function<void()>& f, const std::string& signature,
                              const std::string& expression, const std::string& message) {
  return TestSupport::assertionMismatch("Mpls/MplsLfib", f, signature, expression, message);
}

LfibViaSetKey setKey(LfibViaType type, uint32_t index = 1) {
  return LfibViaSetKey(LFib::sourceStatic, index, type, viaSetTypeEcmp);
}

TEST(LfibStatus, ViaKeyOfAnotherTypeIsStoredButNotAnnounced) {
  LfibFixture lfib("viaKeys");
  LfibRecorder rec(lfib.status);
  LfibStatus& s = *lfib.status;
  lfibViaTypeForEach([&](auto via) {
    using Row = typename decltype(via)::Row;
    const std::string coll(via.collection);
    SCOPED_TRACE(coll);
    const LfibViaKey wrong(LFib::sourceStatic,
                           via.viaType == viaTypeMplsIp ? viaTypeMplsPseudowire : viaTypeMplsIp, 7);
    const LfibViaKey right(LFib::sourceStatic, via.viaType, 7);
    // The check's name is the collection's via type: verifyViaTypeMplsIp, ...
    const std::string type = Kel::valueToStrep(via.viaType).substr(std::string("viaType").size());
    const std::string signature =
        "void Mpls::LfibStatus::verifyViaType" + type + "(const Mpls::LfibViaKey&) const";
    const std::string expression = "key.viaType() == viaType" + type + "_";
    const std::string message = "via key and via coll type mismatch";
    Row row;
    row.keyIs(wrong);
    EXPECT_EQ(assertionMismatch([&] { via.write(s, row); }, signature, expression, message), "");
    EXPECT_TRUE(via.find(s, wrong, row));
    // Deleting it runs the same check on the same key: removed, and again unannounced.
    EXPECT_EQ(assertionMismatch([&] { via.erase(s, wrong); }, signature, expression, message), "");
    EXPECT_FALSE(lfibViaStored(s, wrong));
    EXPECT_EQ(rec.takeSorted(), Events{});

    row.keyIs(right);
    via.write(s, row);
    EXPECT_TRUE(lfibViaStored(s, right));
    via.erase(s, right);
    via.erase(s, right);  // absent: nothing to announce
    EXPECT_EQ(rec.takeSorted(), (Events{lfibEvent(coll, right), lfibEvent(coll, right)}));
  });
}

TEST(LfibStatus, EvpnRoutesNeedMetricZeroViaSetsAreHomogeneousAndEvpnSetsHoldOneVia) {
  // Before a mount group: empty, and writing is refused.
  auto unmounted = lfibStatusFactory();
  EXPECT_EQ(unmounted->lfibRoutes(), 0u);
  EXPECT_EQ(unmounted->lfibRoute(RouteKey(16)), LfibRoute());
  EXPECT_THROW(unmounted->lfibRouteIs(LfibRoute()), Pond::NotWriterError);

  LfibFixture lfib("checks");
  LfibRecorder rec(lfib.status);
  const std::string routeSignature =
      "void Mpls::LfibStatus::handleRoute(const Mpls::RouteKey&) const";
  lfibViaTypeForEach([&](auto via) {
    const LfibViaType type = via.viaType;
    for (uint8_t metric : {0, 1, 255}) {
      SCOPED_TRACE(fmt::format("{} metric {}", type, metric));
      const RouteKey key(100 + type);
      const LfibRoute route(key, setKey(type), LFib::sourceStatic, FwdEqvClass(), metric);
      if (isEvpnViaType(type) && metric != 0) {
        EXPECT_EQ(
            assertionMismatch([&] { lfib.status->lfibRouteIs(route); }, routeSignature,
                              "route.metric() == 0", "EVPN lfib routes must have metric set to 0"),
            "");
        EXPECT_EQ(rec.takeSorted(), Events{});
      } else {
        lfib.status->lfibRouteIs(route);
        EXPECT_EQ(rec.takeSorted(), Events{lfibEvent("lfibRoute", key)});
      }
      EXPECT_EQ(lfib.status->lfibRoute(key), route);
      lfib.status->lfibRouteDel(key);  // gone: the check passes
      EXPECT_EQ(rec.takeSorted(), Events{lfibEvent("lfibRoute", key)});
    }
  });

  const std::string signature =
      "void Mpls::LfibStatus::handleViaSet(const Mpls::LfibViaSetKey&) const";
  const std::string homogeneous = "Vias in a viaSet must always be homogeneous";
  const std::string evpn = "EVPN via sets must contain at most 1 via key";
  struct Case {
    LfibViaType type;
    std::vector<LfibViaType> slots;  // viaTypeMplsUnknown: an empty slot
    const std::string* error;
  } cases[] = {
      {viaTypeMplsIp, {viaTypeMplsIp, viaTypeMplsIp, viaTypeMplsIp}, nullptr},
      {viaTypeMplsIp, {viaTypeMplsIp, viaTypeMplsPseudowire}, &homogeneous},
      {viaTypeMplsIp, {viaTypeMplsUnknown, viaTypeMplsIp}, &homogeneous},
      {viaTypeEvpnVlanAware, {viaTypeEvpnVlanAware}, nullptr},
      {viaTypeEvpnVlanAware, {viaTypeEvpnVlanAware, viaTypeEvpnVlanAware}, &evpn},
      {viaTypeIpLookup, {viaTypeMplsIp}, &homogeneous},  // before the EVPN rule
      {viaTypeEvpnVlanFlood, {}, nullptr},
      {viaTypeExternalFec, {viaTypeExternalFec, viaTypeExternalFec}, nullptr},
  };
  uint32_t index = 0;
  for (const Case& c : cases) {
    const LfibViaSetKey key = setKey(c.type, ++index);
    SCOPED_TRACE(Kel::valueToStrep(key));
    LfibViaSet set(key);
    for (uint32_t i = 0; i < c.slots.size(); ++i) {
      if (c.slots[i] != viaTypeMplsUnknown) {
        set.viaKeyIs(i, LfibViaKey(LFib::sourceStatic, c.slots[i], i + 1));
      }
    }
    if (c.error) {
      const char* expression = c.error == &evpn ? "vs.viaKeys() <= 1" : "viaKeyType == viaType";
      EXPECT_EQ(
          assertionMismatch([&] { lfib.status->viaSetIs(set); }, signature, expression, *c.error),
          "");
      EXPECT_EQ(rec.takeSorted(), Events{});
    } else {
      lfib.status->viaSetIs(set);
      EXPECT_EQ(rec.takeSorted(), Events{lfibEvent("viaSet", key)});
    }
    EXPECT_EQ(lfib.status->viaSet(key), set);
    lfib.status->viaSetDel(key);
    EXPECT_EQ(rec.takeSorted(), Events{lfibEvent("viaSet", key)});
  }

  // What is not checked: a route naming a via set that is not stored, a via set naming
  // vias that are not.
  LfibStatus& s = *lfib.status;
  const LfibViaSetKey evpnSet = setKey(viaTypeEvpnVlanAware);
  s.lfibRouteIs(LfibRoute(RouteKey(16), evpnSet, LFib::sourceEvpn, FwdEqvClass(), 0));
  LfibViaSet set(evpnSet);
  set.viaKeyIs(0, LfibViaKey(LFib::sourceEvpn, viaTypeEvpnVlanAware, 3));
  s.viaSetIs(set);
  EXPECT_EQ(rec.takeSorted(), (Events{lfibEvent("lfibRoute", RouteKey(16)), lfibEvent("viaSet", evpnSet)}));

  // The integrity check looks across the tables, at what each row names and at what
  // nothing names. Route 16's via set names a via that is missing; and:
  using Kind = LfibIntegrityProblem::Kind;
  const LfibViaKey evpnVia = set.viaKey(0);
  const LfibViaSetKey missingSet = setKey(viaTypeMplsIp, 9);
  s.lfibRouteIs(LfibRoute(RouteKey(17), missingSet, LFib::sourceStatic, FwdEqvClass(), 0));
  const LfibViaKey fec(LFib::sourceStatic, viaTypeExternalFec, 1);
  const LfibViaKey strayMpls(LFib::sourceStatic, viaTypeMplsIp, 2);
  LfibViaSet mixed(setKey(viaTypeExternalFec, 10));
  mixed.viaKeyIs(0, fec);
  mixed.viaKeyIs(1, strayMpls);
  EXPECT_THROW(s.viaSetIs(mixed), Kel::InternalException);  // stored all the same
  lfib.via(fec);
  lfib.via(strayMpls);  // named by a via set: not unused
  lfib.route(18, mixed.key());
  const LfibViaSetKey unusedSet = setKey(viaTypeMplsPseudowire, 11);
  lfib.viaSet(unusedSet, {});
  const LfibViaKey unusedVia(LFib::sourceStatic, viaTypeMplsPseudowire, 5);
  const LfibViaKey misfiled(LFib::sourceStatic, viaTypeMplsIp, 6);  // in the pseudowire table
  lfib.via(unusedVia);
  EXPECT_THROW(s.pwViaIs(LfibPwVia(misfiled, Netbase::IntfId())), Kel::InternalException);
  const std::vector<LfibIntegrityProblem> problems = {
      {Kind::viaSetMissing, RouteKey(17), missingSet, {}},
      {Kind::viaMissing, {}, evpnSet, evpnVia},
      {Kind::viaTypeMismatch, {}, {}, misfiled},
      {Kind::viaTypeMismatch, {}, mixed.key(), strayMpls},
      {Kind::viaSetUnused, {}, unusedSet, {}},
      {Kind::viaUnused, {}, {}, unusedVia}};
  LfibIntegrityReport report = lfibIntegrityCheck(s);
  EXPECT_FALSE(report.consistent());
  EXPECT_EQ(report.problems, problems);
  EXPECT_EQ(std::tie(report.routes, report.viaSets, report.vias), std::tuple(3u, 3u, 4u));
  EXPECT_EQ(lfibRouteProblems(s, RouteKey(17)), std::vector{problems[0]});
  EXPECT_EQ(lfibRouteProblems(s, RouteKey(18)), std::vector<LfibIntegrityProblem>{});
  EXPECT_EQ(lfibViaSetProblems(s, evpnSet), std::vector{problems[1]});
  EXPECT_EQ(lfibViaSetProblems(s, mixed.key()), std::vector{problems[3]});

  // Repaired, it is consistent.
  s.evpnVlanAwareViaIs(
      LfibEvpnVlanAwareVia(evpnVia, LfibDot1qTagToVlanKey(LFib::sourceEvpn, 1), lfibFlagNone));
  s.lfibRouteDel(RouteKey(17));
  lfib.viaSet(mixed.key(), {fec});
  s.mplsViaDel(strayMpls);
  s.viaSetDel(unusedSet);
  s.pwViaDel(unusedVia);
  EXPECT_THROW(s.pwViaDel(misfiled), Kel::InternalException);
  report = lfibIntegrityCheck(s);
  EXPECT_TRUE(report.consistent());
  EXPECT_EQ(std::tie(report.routes, report.viaSets, report.vias), std::tuple(2u, 2u, 2u));
}

TEST(LfibStatus, DumpState) {
  LfibFixture lfib("dump");
  LfibStatus& s = *lfib.status;
  const LfibViaSetKey set1 = setKey(viaTypeMplsIp, 1);
  const LfibRoute r200(RouteKey(200), set1, LFib::sourceStatic, FwdEqvClass(), 1);
  const LfibRoute r100(RouteKey(100), set1, LFib::sourceStatic, FwdEqvClass(), 2);
  LfibViaSet set(set1);
  set.viaKeyIs(0, LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 1));
  const LfibMplsVia via(set.viaKey(0), Netbase::IpGenAddr("10.0.0.1"), Netbase::labelActionPop, {},
                        false);
  const LfibDot1qTagToVlanKey map1(LFib::sourceEvpn, 1), map2(LFib::sourceEvpn, 2);
  s.lfibRouteIs(r200);
  s.lfibRouteIs(r100);
  s.viaSetIs(set);
  s.mplsViaIs(via);
  s.dot1qTagToVlanCollIs(map2);
  auto map = s.dot1qTagToVlanCollIs(map1);
  map->dot1qTagToVlanIdIs(20, 200);
  map->dot1qTagToVlanIdIs(10, 100);
  s.dot1qTagToVlanCompositeIs(LfibDot1qTagToVlanComposite({map1, 10}, 100));

  auto dump = [&](int indent) {
    Kel::DumpContext context;
    s.dumpState(context, indent);
    return context.text();
  };
  auto expected = [&](const std::string& pad) {
    const std::string in = pad + "  ";
    return pad + "lfibRoutes #2\n" + in + r100.pondString() + "\n" + in + r200.pondString() + "\n" +
           pad + "viaSets #1\n" + in + "[" + Kel::valueToStrep(set1) + "] viaTypeMplsIp\n" + pad +
           "mplsVias #1\n" + in + via.pondString() + "\n" + pad + "extFecVias #0\n" + pad +
           "pwVias #0\n" + pad + "ipLookupVias #0\n" + pad + "vlanVias #0\n" + pad +
           "evpnVlanAwareVias #0\n" + pad + "evpnEthernetSegmentFilterVias #0\n" + pad +
           "evpnVlanFloodVias #0\n" + pad + "evpnVlanAwareFloodVias #0\n" + pad +
           "dot1qTagToVlanColls #2\n" + in +
           "[Value('Mpls::LfibDot1qTagToVlanKey', ** {'source': sourceEvpn, 'index': 1})] 10:100 "
           "20:200\n" +
           in + "[Value('Mpls::LfibDot1qTagToVlanKey', ** {'source': sourceEvpn, 'index': 2})]\n" +
           pad + "dot1qTagToVlanComposites #1\n" + in +
           "[Value('Mpls::LfibDot1qTagToVlanCompositeKey', ** {'dot1qTagToVlanKey': "
           "Value('Mpls::LfibDot1qTagToVlanKey', ** {'source': sourceEvpn, 'index': 1}), "
           "'dot1qTag': 10})] 100\n";
  };
  EXPECT_EQ(dump(0), expected(""));
  EXPECT_EQ(dump(4), expected("    "));
}

}  // namespace
