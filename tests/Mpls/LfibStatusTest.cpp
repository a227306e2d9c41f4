// LfibStatus and LfibHwStatus on real shared-memory tables: the checks of every write,
// what a reading process sees, and the dump.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "Mpls/MplsLfib.h"
#include "platform/Pond/PondTestTypes.h"

namespace {

using namespace Mpls;
using Events = std::vector<std::string>;
using PondTest::ScopedGroupName;

template <class K>
std::string event(const char* coll, const K& key) {
  return std::string(coll) + " " + Kel::valueToStrep(key);
}

// Every notification of one LfibStatus, as "<collection> <key>".
class Recorder : public LfibStatus::NotifieeConst {
 public:
  explicit Recorder(const LfibStatus::Ptr& s) { notifierIs(s); }
  void onLfibRoute(const RouteKey& k) override { note("lfibRoute", k); }
  void onViaSet(const LfibViaSetKey& k) override { note("viaSet", k); }
  void onMplsVia(const LfibViaKey& k) override { note("mplsVia", k); }
  void onPwVia(const LfibViaKey& k) override { note("pwVia", k); }
  void onIpLookupVia(const LfibViaKey& k) override { note("ipLookupVia", k); }
  void onVlanVia(const LfibViaKey& k) override { note("vlanVia", k); }
  void onEvpnVlanAwareVia(const LfibViaKey& k) override { note("evpnVlanAwareVia", k); }
  void onEvpnEthernetSegmentFilterVia(const LfibViaKey& k) override {
    note("evpnEthernetSegmentFilterVia", k);
  }
  void onEvpnVlanFloodVia(const LfibViaKey& k) override { note("evpnVlanFloodVia", k); }
  void onEvpnVlanAwareFloodVia(const LfibViaKey& k) override { note("evpnVlanAwareFloodVia", k); }
  void onExtFecVia(const LfibViaKey& k) override { note("extFecVia", k); }
  void onDot1qTagToVlanComposite(const LfibDot1qTagToVlanCompositeKey& k) override {
    note("dot1qTagToVlanComposite", k);
  }
  void onDot1qTagToVlanColl(const LfibDot1qTagToVlanKey& k) override {
    note("dot1qTagToVlanColl", k);
  }
  void onMountGroup() override { events.push_back("mountGroup"); }
  // The events so far, sorted, and forgotten.
  Events take() {
    std::sort(events.begin(), events.end());
    return std::exchange(events, {});
  }
  Events events;

 private:
  template <class K>
  void note(const char* coll, const K& k) {
    events.push_back(event(coll, k));
  }
};

// A writer-role LfibStatus on a mount group of its own.
struct WriterLfib {
  explicit WriterLfib(const std::string& test)
      : name(test), group(Pond::MountGroup::writer(*name)), status(lfibStatusFactory()) {
    status->mountGroupIs(group);
  }
  ScopedGroupName name;
  Kel::Ptr<Pond::MountGroup> group;
  LfibStatus::Ptr status;
};

// Runs `f`; "" when it throws Kel::InternalException with the text of an assertion in
// Mpls/MplsLfib (any line) of `signature`, `expression` and `message`, else what it did.
std::string assertionMismatch(const std::function<void()>& f, const std::string& signature,
                              const std::string& expression, const std::string& message) {
  try {
    f();
    return "nothing thrown";
  } catch (const Kel::InternalException& e) {
    // "Mpls/MplsLfib:<digits> " then the rest, literally.
    const std::string what = e.what(), prefix = "Mpls/MplsLfib:";
    const size_t digits = what.find_first_not_of("0123456789", prefix.size());
    const std::string rest =
        " " + signature + " -- assertion failed(" + expression + "): " + message;
    const bool match = what.starts_with(prefix) && digits > prefix.size() &&
                       digits < what.size() && what.substr(digits) == rest;
    return match ? "" : what;
  }
}

LfibViaSetKey setKey(LfibViaType type, uint32_t index = 1) {
  return LfibViaSetKey(LFib::sourceStatic, index, type, viaSetTypeEcmp);
}

// A via collection of LfibStatus: its name, the suffix of its check, its via type, and
// "store a via with this key" (del: remove the key; has: a via with this key is stored).
struct ViaColl {
  const char* name;
  const char* check;
  LfibViaType type;
  std::function<void(LfibStatus&, const LfibViaKey&, bool del)> write;
  std::function<bool(const LfibStatus&, const LfibViaKey&)> has;
};

// clang-format off
#define VIA_COLL(V, coll, check, type)                                                      \
  ViaColl{#coll, #check, type,                                                              \
          [](LfibStatus& s, const LfibViaKey& k, bool del) {                                \
            V v; v.keyIs(k); del ? s.coll##Del(k) : (void)s.coll##Is(v); },                 \
          [](const LfibStatus& s, const LfibViaKey& k) { return s.coll(k).key() == k; }}
// clang-format on

TEST(LfibStatus, ViaKeyOfAnotherTypeIsStoredButNotAnnounced) {
  WriterLfib lfib("viaKeys");
  Recorder rec(lfib.status);
  const ViaColl colls[] = {
      VIA_COLL(LfibMplsVia, mplsVia, MplsIp, viaTypeMplsIp),
      VIA_COLL(LfibPwVia, pwVia, MplsPseudowire, viaTypeMplsPseudowire),
      VIA_COLL(LfibIpLookupVia, ipLookupVia, IpLookup, viaTypeIpLookup),
      VIA_COLL(LfibVlanVia, vlanVia, Vlan, viaTypeVlan),
      VIA_COLL(LfibEvpnVlanAwareVia, evpnVlanAwareVia, EvpnVlanAware, viaTypeEvpnVlanAware),
      VIA_COLL(LfibEvpnEthernetSegmentFilterVia, evpnEthernetSegmentFilterVia, EvpnEthernetSegment,
               viaTypeEvpnEthernetSegment),
      VIA_COLL(LfibEvpnVlanFloodVia, evpnVlanFloodVia, EvpnVlanFlood, viaTypeEvpnVlanFlood),
      VIA_COLL(LfibEvpnVlanAwareFloodVia, evpnVlanAwareFloodVia, EvpnVlanAwareFlood,
               viaTypeEvpnVlanAwareFlood),
      VIA_COLL(LfibExtFecVia, extFecVia, ExternalFec, viaTypeExternalFec),
  };
  LfibStatus& s = *lfib.status;
  for (const ViaColl& c : colls) {
    SCOPED_TRACE(c.name);
    const LfibViaKey wrong(LFib::sourceStatic,
                           c.type == viaTypeMplsIp ? viaTypeMplsPseudowire : viaTypeMplsIp, 7);
    const LfibViaKey right(LFib::sourceStatic, c.type, 7);
    const std::string signature = std::string("void Mpls::LfibStatus::verifyViaType") + c.check +
                                  "(const Mpls::LfibViaKey&) const";
    const std::string expression = std::string("key.viaType() == viaType") + c.check + "_";
    const std::string message = "via key and via coll type mismatch";
    EXPECT_EQ(assertionMismatch([&] { c.write(s, wrong, false); }, signature, expression, message),
              "");
    EXPECT_TRUE(c.has(s, wrong));
    // Deleting it runs the same check on the same key: removed, and again unannounced.
    EXPECT_EQ(assertionMismatch([&] { c.write(s, wrong, true); }, signature, expression, message),
              "");
    EXPECT_FALSE(c.has(s, wrong));
    EXPECT_EQ(rec.take(), Events{});

    c.write(s, right, false);
    EXPECT_TRUE(c.has(s, right));
    c.write(s, right, true);
    c.write(s, right, true);  // absent: nothing to announce
    EXPECT_EQ(rec.take(), (Events{event(c.name, right), event(c.name, right)}));
  }
}

TEST(LfibStatus, EvpnRoutesNeedMetricZeroViaSetsAreHomogeneousAndEvpnSetsHoldOneVia) {
  // Before a mount group: empty, and writing is refused.
  auto unmounted = lfibStatusFactory();
  EXPECT_EQ(unmounted->lfibRoutes(), 0u);
  EXPECT_EQ(unmounted->lfibRoute(RouteKey(16)), LfibRoute());
  EXPECT_THROW(unmounted->lfibRouteIs(LfibRoute()), Pond::NotWriterError);

  WriterLfib lfib("checks");
  Recorder rec(lfib.status);
  const std::string routeSignature =
      "void Mpls::LfibStatus::handleRoute(const Mpls::RouteKey&) const";
  for (LfibViaType type : {viaTypeMplsIp, viaTypeMplsPseudowire, viaTypeIpLookup, viaTypeVlan,
                           viaTypeEvpnVlanAware, viaTypeEvpnEthernetSegment, viaTypeEvpnVlanFlood,
                           viaTypeEvpnVlanAwareFlood, viaTypeExternalFec}) {
    for (uint8_t metric : {0, 1, 255}) {
      SCOPED_TRACE(fmt::format("{} metric {}", type, metric));
      const RouteKey key(100 + type);
      const LfibRoute route(key, setKey(type), LFib::sourceStatic, FwdEqvClass(), metric);
      if (isEvpnViaType(type) && metric != 0) {
        EXPECT_EQ(
            assertionMismatch([&] { lfib.status->lfibRouteIs(route); }, routeSignature,
                              "route.metric() == 0", "EVPN lfib routes must have metric set to 0"),
            "");
        EXPECT_EQ(rec.take(), Events{});
      } else {
        lfib.status->lfibRouteIs(route);
        EXPECT_EQ(rec.take(), Events{event("lfibRoute", key)});
      }
      EXPECT_EQ(lfib.status->lfibRoute(key), route);
      lfib.status->lfibRouteDel(key);  // gone: the check passes
      EXPECT_EQ(rec.take(), Events{event("lfibRoute", key)});
    }
  }

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
      EXPECT_EQ(rec.take(), Events{});
    } else {
      lfib.status->viaSetIs(set);
      EXPECT_EQ(rec.take(), Events{event("viaSet", key)});
    }
    EXPECT_EQ(lfib.status->viaSet(key), set);
    lfib.status->viaSetDel(key);
    EXPECT_EQ(rec.take(), Events{event("viaSet", key)});
  }

  // What is not checked: deleting what is absent (nothing announced), a route naming a via
  // set that is not stored, a via set naming vias that are not.
  LfibStatus& s = *lfib.status;
  s.lfibRouteDel(RouteKey(16));
  s.viaSetDel(setKey(viaTypeEvpnVlanAware));
  EXPECT_EQ(rec.take(), Events{});

  const LfibViaSetKey evpnSet = setKey(viaTypeEvpnVlanAware);
  s.lfibRouteIs(LfibRoute(RouteKey(16), evpnSet, LFib::sourceEvpn, FwdEqvClass(), 0));
  LfibViaSet set(evpnSet);
  set.viaKeyIs(0, LfibViaKey(LFib::sourceEvpn, viaTypeEvpnVlanAware, 3));
  s.viaSetIs(set);
  EXPECT_EQ(rec.take(), (Events{event("lfibRoute", RouteKey(16)), event("viaSet", evpnSet)}));

  // The tag-to-VLAN maps are local: removing one leaves the shared table alone.
  const LfibDot1qTagToVlanKey mapKey(LFib::sourceEvpn, 1);
  const LfibDot1qTagToVlanCompositeKey rowKey(mapKey, 10);
  auto map = s.dot1qTagToVlanCollIs(mapKey);
  EXPECT_EQ(s.dot1qTagToVlanCollIs(mapKey), map);
  s.dot1qTagToVlanCompositeIs(LfibDot1qTagToVlanComposite(rowKey, 100));
  EXPECT_EQ(s.dot1qTagToVlanCollDel(mapKey), map);
  EXPECT_EQ(s.dot1qTagToVlanCollDel(mapKey), nullptr);
  EXPECT_EQ(s.dot1qTagToVlanComposite(rowKey).localVlan(), 100);
  EXPECT_EQ(rec.take(),
            (Events{event("dot1qTagToVlanColl", mapKey), event("dot1qTagToVlanColl", mapKey),
                    event("dot1qTagToVlanComposite", rowKey)}));
}

// Another process's view of the same tables (here a second, read-only mapping): the same
// rows, and after processChanges() a notification for every key that changed.
TEST(LfibStatus, ReaderSeesTheWritersRowsAndHearsEveryChangedKey) {
  WriterLfib lfib("reader");
  LfibStatus& w = *lfib.status;
  auto reader = lfibStatusFactory();
  Recorder rec(reader);
  auto readerGroup = Pond::MountGroup::reader(*lfib.name);
  reader->mountGroupIs(readerGroup);
  reader->mountGroupIs(readerGroup);
  EXPECT_EQ(rec.take(), Events{"mountGroup"});
  EXPECT_EQ(reader->mountGroup(), readerGroup);

  // The three kinds of row stored in their binary form, and two stored as they are.
  const LfibViaSetKey mplsSet = setKey(viaTypeMplsIp);
  const LfibViaKey swapKey(LFib::sourceStatic, viaTypeMplsIp, 1);
  const LfibViaKey lookupKey(LFib::sourceVrfLabel, viaTypeIpLookup, 1);
  LfibViaSet set(mplsSet);
  set.viaKeyIs(0, swapKey);
  set.viaKeyIs(1, LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 2));
  const LfibMplsVia swap(swapKey, Netbase::IpGenAddr("10.0.0.1"), Netbase::labelActionSwap,
                         {Netbase::labelActionPush, {300, 301, 302}}, true);
  const LfibIpLookupVia lookup(lookupKey, L3::VrfName("red"), payloadTypeIpv4);
  const LfibRoute route(RouteKey(1000), mplsSet, LFib::sourceStatic, FwdEqvClass(), 5);
  const LfibDot1qTagToVlanCompositeKey rowKey(LfibDot1qTagToVlanKey(LFib::sourceEvpn, 2), 7);
  w.mplsViaIs(swap);
  w.ipLookupViaIs(lookup);
  w.viaSetIs(set);
  w.lfibRouteIs(route);
  w.dot1qTagToVlanCompositeIs(LfibDot1qTagToVlanComposite(rowKey, 70));

  EXPECT_EQ(reader->mplsVia(swapKey), swap);
  EXPECT_EQ(reader->ipLookupVia(lookupKey).vrfName(), L3::VrfName("red"));
  EXPECT_EQ(reader->viaSet(mplsSet), set);
  EXPECT_EQ(reader->lfibRoute(RouteKey(1000)), route);
  EXPECT_EQ(reader->dot1qTagToVlanComposite(rowKey).localVlan(), 70);
  EXPECT_EQ(rec.take(), Events{});  // nothing until the reader processes the changes
  readerGroup->processChanges();
  EXPECT_EQ(rec.take(), (Events{event("dot1qTagToVlanComposite", rowKey),
                                event("ipLookupVia", lookupKey), event("lfibRoute", RouteKey(1000)),
                                event("mplsVia", swapKey), event("viaSet", mplsSet)}));
  Kel::DumpContext writerDump, readerDump;
  w.dumpState(writerDump, 0);
  reader->dumpState(readerDump, 0);
  EXPECT_EQ(readerDump.text(), writerDump.text());

  w.lfibRouteDel(RouteKey(1000));
  set.viaKeyDel(1);
  w.viaSetIs(set);
  w.mplsViaDel(swapKey);
  readerGroup->processChanges();
  EXPECT_EQ(rec.take(), (Events{event("lfibRoute", RouteKey(1000)), event("mplsVia", swapKey),
                                event("viaSet", mplsSet)}));
  EXPECT_EQ(reader->lfibRoute(RouteKey(1000)), LfibRoute());
  EXPECT_EQ(reader->mplsVia(swapKey), LfibMplsVia());
  EXPECT_EQ(reader->viaSet(mplsSet), set);
  EXPECT_THROW(reader->lfibRouteIs(route), Pond::NotWriterError);
}

TEST(LfibStatus, DumpState) {
  WriterLfib lfib("dump");
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

TEST(LfibHwStatus, WriterToReader) {
  ScopedGroupName name("hw");
  auto hw = lfibHwStatusFactory();
  hw->mountGroupIs(Pond::MountGroup::writer(*name));
  auto reader = lfibHwStatusFactory();
  reader->mountGroupIs(Pond::MountGroup::reader(*name));
  struct Watch : LfibHwStatus::NotifieeConst {
    void onUnprogrammedRoute(const RouteKey& k) override { events.push_back(event("route", k)); }
    void onViaSet(const LfibViaSetKey& k) override { events.push_back(event("viaSet", k)); }
    Events events;
  } watch;
  watch.notifierIs(reader);

  const RouteInfo route(RouteKey(17), adjacencyNotProgrammed);
  const LfibViaSetInfo set(setKey(viaTypeMplsIp), viaSetUsingBackupVias);
  hw->unprogrammedRouteIs(route);
  hw->viaSetIs(set);
  reader->mountGroup()->processChanges();
  EXPECT_EQ(reader->unprogrammedRoute(RouteKey(17)), route);
  EXPECT_EQ(reader->viaSet(set.key()), set);
  hw->unprogrammedRouteDel(RouteKey(17));
  reader->mountGroup()->processChanges();
  EXPECT_EQ(reader->unprogrammedRoutes(), 0u);
  EXPECT_EQ(watch.events, (Events{event("route", route.key()), event("viaSet", set.key()),
                                  event("route", route.key())}));
  EXPECT_THROW(reader->viaSetDel(set.key()), Pond::NotWriterError);
}

}  // namespace
