// The label-binding table sets: bindings published by a producer on a writer group and
// rebuilt by a consumer from a reader group (the same process here), for the common and
// the LDP set alike, and the LDP advertisements through both sets.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "Mpls/CommonLibSm.h"
#include "Mpls/LdpLibSm.h"
#include "support/TestUtil.h"

namespace {

using Mpls::FwdEqvClass;
using Mpls::RouterId;
using Netbase::MplsLabel;
using Group = Kel::Ptr<Pond::MountGroup>;

FwdEqvClass fec(const char* prefix) { return FwdEqvClass(Netbase::IpGenPrefix(prefix)); }
RouterId router(const char* text) { return *RouterId::parse(text); }
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct CommonSet {
  using Traits = CommonLibPond::CommonLibTraits;
  static std::string groupName(const std::string& name) {
    return CommonLibPond::mountGroupName(name);
  }
  static auto tables(const std::string& name) {
    return CommonLibPond::labelBindingTableFactory(name);
  }
  static constexpr auto producer = CommonLibPond::commonLibProducerSmFactory;
  static constexpr auto consumer = CommonLibPond::commonLibConsumerSmFactory;
};

struct LdpSet {
  using Traits = Ldp::LdpPond::LdpLibTraits;
  static std::string groupName(const std::string& name) {
    return Ldp::LdpPond::mountGroupName(name);
  }
  static auto tables(const std::string& name) {
    return Ldp::LdpPond::ldpLabelBindingTableFactory(name);
  }
  static constexpr auto producer = Ldp::LdpPond::ldpLibProducerSmFactory;
  static constexpr auto consumer = Ldp::LdpPond::ldpLibConsumerSmFactory;
};

// A group's segments, removed before and after.
struct ScopedGroup {
  explicit ScopedGroup(std::string n) : name(std::move(n)) {
    Pond::MountGroup::removeSegments(name);
  }
  ~ScopedGroup() { Pond::MountGroup::removeSegments(name); }
  std::string name;
};

// Small tables with a short change log, which a consumer easily falls behind.
template <class Tables>
typename Tables::Sizing smallSizing() {
  typename Tables::Sizing sizing;
  sizing.forEach([](std::string_view, Pond::TableSizing& s) { s = Pond::TableSizing{256, 16}; });
  return sizing;
}

// "prefix=label,label@lastUpdate" per binding and "!prefix" per filter, sorted.
std::string tableText(const Mpls::LabelBindingTable& table) {
  std::vector<std::string> items;
  for (const auto& [f, binding] : table.bindingIter()) {
    std::vector<uint32_t> labels;
    for (MplsLabel label : binding->mplsLabelIter()) {
      labels.push_back(label.value());
    }
    std::sort(labels.begin(), labels.end());
    items.push_back(
        fmt::format("{}={}{}", f.prefix().stringValue(), fmt::join(labels, ","),
                    binding->lastUpdate() ? fmt::format("@{}", binding->lastUpdate()) : ""));
  }
  for (const FwdEqvClass& f : table.filteredFecIter()) {
    items.push_back("!" + f.prefix().stringValue());
  }
  std::sort(items.begin(), items.end());
  return fmt::format("{}", fmt::join(items, " "));
}

// "L[<local>] <router>[<its table>] ..."
std::string bindingsText(const Mpls::LabelBindingTable& local,
                         const Mpls::LabelBindingTableColl& peers) {
  std::vector<std::string> items;
  for (const auto& [r, table] : peers.bindingTableIter()) {
    items.push_back(r.stringValue() + "[" + tableText(*table) + "]");
  }
  std::sort(items.begin(), items.end());
  items.insert(items.begin(), "L[" + tableText(local) + "]");
  return fmt::format("{}", fmt::join(items, " "));
}

// The agent that owns the bindings and publishes them.
template <class Set>
struct Writer {
  explicit Writer(const std::string& name) : scoped(Set::groupName(name)), name(name) { attach(); }
  void attach() {
    group = Pond::MountGroup::writer(scoped.name);
    tables = Set::tables(name);
    tables->mountGroupIs(group, smallSizing<typename Set::Traits::Tables>());
  }
  void start() {
    producer = Set::producer(local, peers, tables);
    producer->handleInitialized();
  }
  void binding(const char* prefix, std::vector<uint32_t> labels, double lastUpdate = 0,
               const char* peer = nullptr) {
    auto table = peer ? peers->bindingTableIs(router(peer)) : local;
    auto b = table->bindingIs(fec(prefix));
    for (uint32_t label : labels) {
      b->mplsLabelIs(MplsLabel(label), true);
    }
    b->lastUpdateIs(lastUpdate);
  }

  ScopedGroup scoped;
  std::string name;
  Mpls::LabelBindingTable::Ptr local = Mpls::labelBindingTableFactory();
  Mpls::LabelBindingTableColl::Ptr peers = Mpls::labelBindingTableCollFactory();
  Group group;
  Kel::Ptr<typename Set::Traits::Tables> tables;
  decltype(Set::producer(nullptr, nullptr, nullptr)) producer;
};

// Another process's view, rebuilt by the consumer.
template <class Set>
struct Reader {
  explicit Reader(const std::string& groupName) : group(Pond::MountGroup::reader(groupName)) {
    tables->mountGroupIs(group);
    consumer->handleInitialized();
  }
  std::string text() {
    group->processChanges();
    return bindingsText(*local, *peers);
  }

  Group group;
  Kel::Ptr<typename Set::Traits::Tables> tables = Set::tables("reader");
  Mpls::LabelBindingTable::Ptr local = Mpls::labelBindingTableFactory();
  Mpls::LabelBindingTableColl::Ptr peers = Mpls::labelBindingTableCollFactory();
  decltype(Set::consumer(nullptr, nullptr, nullptr)) consumer = Set::consumer(tables, local, peers);
};

template <class Set>
class LabelBindingTables : public ::testing::Test {
 protected:
  std::string name(const char* test) { return fmt::format("t{}-{}", ::getpid(), test); }
};

using TableSets = ::testing::Types<CommonSet, LdpSet>;
TYPED_TEST_SUITE(LabelBindingTables, TableSets);

TYPED_TEST(LabelBindingTables, ConsumerRebuildsWhatTheProducerPublishes) {
  constexpr bool kLdp = TypeParam::Traits::kFilterNeedsBinding;
  Writer<TypeParam> w(this->name("mirror"));
  w.binding("10.0.0.0/8", {16, 17}, 5);
  w.binding("11.0.0.0/8", {18});
  w.binding("10.0.0.0/8", {100}, 7, "1.1.1.1:0");
  w.binding("11.0.0.0/8", {101}, 0, "1.1.1.1:0");
  w.binding("10.0.0.0/8", {200}, 0, "2.2.2.2:0");
  w.binding("12.0.0.0/8", {201}, 0, "2.2.2.2:0");
  w.start();
  Reader<TypeParam> r(w.group->name());
  const std::string p1 = " 1.1.1.1:0[10.0.0.0/8=100@7 11.0.0.0/8=101]";
  const std::string p2 = " 2.2.2.2:0[10.0.0.0/8=200 12.0.0.0/8=201]";
  EXPECT_EQ(r.text(), "L[10.0.0.0/8=16,17@5 11.0.0.0/8=18]" + p1 + p2);

  auto a = w.local->binding(fec("10.0.0.0/8"));
  auto peer1 = w.peers->bindingTable(router("1.1.1.1:0"));
  // The common set publishes the filters of unbound FECs, the LDP set does not.
  const std::string local = "10.0.0.0/8=17,20 13.0.0.0/8=@4]";
  const std::string unbound = kLdp ? "" : "!14.0.0.0/8 ";
  const std::string peerUnbound = kLdp ? "" : " !14.0.0.0/8";
  const std::string filtered14 = "L[!14.0.0.0/8 10.0.0.0/8=17,20 13.0.0.0/8=@4" +
                                 std::string(kLdp ? " 14.0.0.0/8=" : "") + "]";
  struct Step {
    const char* what;
    std::function<void()> change;
    std::string text;
  } steps[] = {
      {"a label added, one removed",
       [&] { a->mplsLabelIs(MplsLabel(20), true), a->mplsLabelDel(MplsLabel(16)); },
       "L[10.0.0.0/8=17,20@5 11.0.0.0/8=18]" + p1 + p2},
      {"time stamp 0 is none", [&] { a->lastUpdateIs(0); },
       "L[10.0.0.0/8=17,20 11.0.0.0/8=18]" + p1 + p2},
      {"and back", [&] { a->lastUpdateIs(6); }, "L[10.0.0.0/8=17,20@6 11.0.0.0/8=18]" + p1 + p2},
      {"infinity is none", [&] { a->lastUpdateIs(kInfinity); },
       "L[10.0.0.0/8=17,20 11.0.0.0/8=18]" + p1 + p2},
      {"the last label without time stamp takes the binding",
       [&] { w.local->binding(fec("11.0.0.0/8"))->mplsLabelDel(MplsLabel(18)); },
       "L[10.0.0.0/8=17,20]" + p1 + p2},
      {"a time stamp alone keeps one", [&] { w.binding("13.0.0.0/8", {}, 4); },
       "L[" + local + p1 + p2},
      {"filters of bound FECs",
       [&] {
         w.local->filteredFecIs(fec("10.0.0.0/8"), true);
         peer1->filteredFecIs(fec("11.0.0.0/8"), true);
       },
       "L[!10.0.0.0/8 " + local + " 1.1.1.1:0[!11.0.0.0/8 10.0.0.0/8=100@7 11.0.0.0/8=101]" + p2},
      {"a filter removed", [&] { w.local->filteredFecDel(fec("10.0.0.0/8")); },
       "L[" + local + " 1.1.1.1:0[!11.0.0.0/8 10.0.0.0/8=100@7 11.0.0.0/8=101]" + p2},
      {"filters of unbound FECs",
       [&] {
         w.local->filteredFecIs(fec("14.0.0.0/8"), true);
         peer1->filteredFecIs(fec("14.0.0.0/8"), true);
       },
       "L[" + unbound + local + " 1.1.1.1:0[!11.0.0.0/8" + peerUnbound +
           " 10.0.0.0/8=100@7 11.0.0.0/8=101]" + p2},
      {"an empty binding of a filtered FEC: LDP publishes the filter now, and keeps the binding",
       [&] { w.local->bindingIs(fec("14.0.0.0/8")); },
       filtered14 + " 1.1.1.1:0[!11.0.0.0/8" + peerUnbound + " 10.0.0.0/8=100@7 11.0.0.0/8=101]" +
           p2},
      {"a filtered binding removed", [&] { peer1->bindingDel(fec("11.0.0.0/8")); },
       filtered14 + " 1.1.1.1:0[" + (kLdp ? "" : "!11.0.0.0/8 !14.0.0.0/8 ") + "10.0.0.0/8=100@7]" +
           p2},
      {"a peer's table removed whole, and no other row",
       [&] { w.peers->bindingTableDel(router("2.2.2.2:0")); },
       filtered14 + " 1.1.1.1:0[" + (kLdp ? "" : "!11.0.0.0/8 !14.0.0.0/8 ") + "10.0.0.0/8=100@7]"},
      {"filters gone", [&] { w.local->filteredFecDelAll(), peer1->filteredFecDelAll(); },
       "L[" + local + " 1.1.1.1:0[10.0.0.0/8=100@7]"},
  };
  for (const Step& step : steps) {
    step.change();
    EXPECT_EQ(r.text(), step.text) << step.what;
  }

  // Far more changes than the change log holds, and nothing processed meanwhile: the
  // reader resynchronises from the tables, removals included.
  auto b = w.local->bindingIs(fec("15.0.0.0/8"));
  for (uint32_t label = 1000; label < 1040; ++label) {
    b->mplsLabelIs(MplsLabel(label), true);
    w.binding("16.0.0.0/8", {label}, 0, "4.4.4.4:0");
  }
  for (uint32_t label = 1000; label < 1038; ++label) {
    b->mplsLabelDel(MplsLabel(label));
  }
  w.peers->bindingTableDel(router("4.4.4.4:0"));
  w.local->bindingDel(fec("13.0.0.0/8"));
  EXPECT_EQ(r.text(), "L[10.0.0.0/8=17,20 15.0.0.0/8=1038,1039] 1.1.1.1:0[10.0.0.0/8=100@7]");

  // The producer's end takes every row with it, and it writes no more.
  w.producer->handleDelete();
  EXPECT_FALSE(w.producer->initialized());
  EXPECT_EQ(r.text(), "L[]");
  a->mplsLabelIs(MplsLabel(21), true);
  EXPECT_EQ(r.text(), "L[]");
}

// Every label, time-stamp and filter row the producer writes or deletes.
template <class Traits>
struct RowRecorder : Traits::Tables::NotifieeConst {
  explicit RowRecorder(const Kel::Ptr<typename Traits::Tables>& t) { this->notifierIs(t); }
  void onLocalLbtLabel(const typename Traits::LocalLabelKey& k) override {
    seen.push_back(
        fmt::format("label {} {}", k.fwdEqvClass().prefix().stringValue(), k.label().value()));
  }
  void onLocalLbtLastUpdate(const FwdEqvClass& f) override {
    seen.push_back("lastUpdate " + f.prefix().stringValue());
  }
  void onPeerLbtLabel(const typename Traits::PeerLabelKey& k) override {
    seen.push_back(fmt::format("peer {} {} {}",
                               Kel::fieldOfType<typename Traits::PeerId>(k).stringValue(),
                               k.fwdEqvClass().prefix().stringValue(), k.label().value()));
  }
  void onPeerLbtFilteredFec(const typename Traits::PeerFecKey& k) override {
    seen.push_back(fmt::format("peerFilter {} {}",
                               Kel::fieldOfType<typename Traits::PeerId>(k).stringValue(),
                               k.fwdEqvClass().prefix().stringValue()));
  }
  std::vector<std::string> seen;
};

TYPED_TEST(LabelBindingTables, RestartedProducerTouchesOnlyWhatChanged) {
  Writer<TypeParam> w(this->name("restart"));
  w.binding("10.0.0.0/8", {16, 17}, 5);
  w.binding("11.0.0.0/8", {18});
  w.binding("10.0.0.0/8", {100}, 0, "1.1.1.1:0");
  w.binding("10.0.0.0/8", {200}, 0, "2.2.2.2:0");
  w.start();
  Reader<TypeParam> r(w.group->name());
  EXPECT_EQ(r.text(),
            "L[10.0.0.0/8=16,17@5 11.0.0.0/8=18] 1.1.1.1:0[10.0.0.0/8=100] "
            "2.2.2.2:0[10.0.0.0/8=200]");

  // The agent restarts, its bindings changed while no producer ran: the new producer finds
  // the old one's rows in the segments, and writes and deletes only what differs.
  auto a = w.local->binding(fec("10.0.0.0/8"));
  auto restart = [&](const std::function<void()>& changes) {
    w.producer = nullptr;
    w.tables = nullptr;
    w.group = nullptr;
    changes();
    w.attach();
    RowRecorder<typename TypeParam::Traits> recorder(w.tables);
    w.start();
    std::sort(recorder.seen.begin(), recorder.seen.end());
    return recorder.seen;
  };
  EXPECT_EQ(
      restart([&] {
        a->mplsLabelDel(MplsLabel(17));
        a->mplsLabelIs(MplsLabel(21), true);
        a->lastUpdateIs(9);
        w.local->bindingDel(fec("11.0.0.0/8"));
        w.peers->bindingTableDel(router("2.2.2.2:0"));
        w.binding("12.0.0.0/8", {300}, 0, "1.1.1.1:0");
      }),
      (std::vector<std::string>{"label 10.0.0.0/8 17", "label 10.0.0.0/8 21", "label 11.0.0.0/8 18",
                                "lastUpdate 10.0.0.0/8", "peer 1.1.1.1:0 12.0.0.0/8 300",
                                "peer 2.2.2.2:0 10.0.0.0/8 200"}));
  EXPECT_EQ(r.text(), "L[10.0.0.0/8=16,21@9] 1.1.1.1:0[10.0.0.0/8=100 12.0.0.0/8=300]");
  // Nothing added but a filter: the labels need no walk, yet a time stamp that changed is
  // rewritten.
  EXPECT_EQ(restart([&] {
              a->mplsLabelDel(MplsLabel(16));
              a->lastUpdateIs(10);
              w.peers->bindingTable(router("1.1.1.1:0"))->filteredFecIs(fec("12.0.0.0/8"), true);
            }),
            (std::vector<std::string>{"label 10.0.0.0/8 16", "lastUpdate 10.0.0.0/8",
                                      "peerFilter 1.1.1.1:0 12.0.0.0/8"}));
  EXPECT_EQ(r.text(), "L[10.0.0.0/8=21@10] 1.1.1.1:0[!12.0.0.0/8 10.0.0.0/8=100 12.0.0.0/8=300]");
  EXPECT_EQ(restart([] {}), std::vector<std::string>{});

  // The reader's tables move to another writer's group: what that one lacks goes.
  Writer<TypeParam> other(this->name("restartOther"));
  other.binding("16.0.0.0/8", {99});
  other.start();
  r.group = Pond::MountGroup::reader(other.group->name());
  r.tables->mountGroupIs(r.group);
  EXPECT_EQ(r.text(), "L[16.0.0.0/8=99]");
}

TEST(LabelBindingTablesText, KeysAndRows) {
  using TestSupport::expectTextForm;
  const FwdEqvClass f = fec("10.0.0.0/8");
  const std::string fecText = Kel::valueToStrep(f);
  const RouterId r = router("10.0.0.1:0");
  const std::string routerText = "Value('Mpls::RouterId', ** {'rtrId': 167772161, 'lblSpace': 0})";
  const Ldp::LdpIdentifier id(r);
  const std::string idText = "Value('Ldp::LdpIdentifier', ** {'lsrId': 167772161, 'lblSpace': 0})";
  const MplsLabel label(16);
  EXPECT_EQ(fecText,
            "Value('Mpls::FwdEqvClass', ** {'fecType': fecTypePrefix, 'prefix': 10.0.0.0/8})");

  expectTextForm(
      CommonLibPond::LocalLbtLabelKey(f, label),
      "Value('CommonLibPond::LocalLbtLabelKey', ** {'fwdEqvClass': " + fecText + ", 'label': 16})");
  expectTextForm(CommonLibPond::PeerLbtLabelKey(r, f, label),
                 "Value('CommonLibPond::PeerLbtLabelKey', ** {'routerId': " + routerText +
                     ", 'fwdEqvClass': " + fecText + ", 'label': 16})");
  const std::string routerFec =
      "Value('CommonLibPond::RouterIdFecKey', ** {'routerId': " + routerText +
      ", 'fwdEqvClass': " + fecText + "})";
  expectTextForm(CommonLibPond::RouterIdFecKey(r, f), routerFec);
  expectTextForm(CommonLibPond::LdpIdentifierFecKey(id, f),
                 "Value('CommonLibPond::LdpIdentifierFecKey', ** {'ldpIdentifier': " + idText +
                     ", 'fwdEqvClass': " + fecText + "})");
  expectTextForm(CommonLibPond::LocalLbtLastUpdateEntry(f, 1.5),
                 "Value('CommonLibPond::LocalLbtLastUpdateEntry', ** {'key': " + fecText +
                     ", 'lastUpdate': 1.5})");
  expectTextForm(CommonLibPond::PeerLbtLastUpdateEntry(CommonLibPond::RouterIdFecKey(r, f), 2),
                 "Value('CommonLibPond::PeerLbtLastUpdateEntry', ** {'key': " + routerFec +
                     ", 'lastUpdate': 2})");

  expectTextForm(Ldp::LdpPond::LdpLocalLbtLabelKey(f, label),
                 "Value('Ldp::LdpPond::LdpLocalLbtLabelKey', ** {'fwdEqvClass': " + fecText +
                     ", 'label': 16})");
  expectTextForm(Ldp::LdpPond::LdpPeerLbtLabelKey(id, f, label),
                 "Value('Ldp::LdpPond::LdpPeerLbtLabelKey', ** {'ldpIdentifier': " + idText +
                     ", 'fwdEqvClass': " + fecText + ", 'label': 16})");
  const std::string idFec =
      "Value('Ldp::LdpPond::LdpIdentifierFecKey', ** {'ldpIdentifier': " + idText +
      ", 'fwdEqvClass': " + fecText + "})";
  expectTextForm(Ldp::LdpPond::LdpIdentifierFecKey(id, f), idFec);
  expectTextForm(Ldp::LdpPond::LdpLocalLbtLastUpdateEntry(f, 1.5),
                 "Value('Ldp::LdpPond::LdpLocalLbtLastUpdateEntry', ** {'key': " + fecText +
                     ", 'lastUpdate': 1.5})");
  expectTextForm(
      Ldp::LdpPond::LdpPeerLbtLastUpdateEntry(Ldp::LdpPond::LdpIdentifierFecKey(id, f), 2),
      "Value('Ldp::LdpPond::LdpPeerLbtLastUpdateEntry', ** {'key': " + idFec +
          ", 'lastUpdate': 2})");

  EXPECT_EQ(CommonLibPond::mountGroupName("default"), "mpls/lbt/default");
  EXPECT_EQ(Ldp::LdpPond::mountGroupName("default"), "ldp/lbt/default");
}

// "fec{peer peer} ..." of an advertisement collection.
std::string advertisementsText(const Ldp::LabelAdvertisementColl& coll) {
  std::vector<std::string> items;
  for (const auto& [f, set] : coll.advertisedToIter()) {
    std::vector<std::string> peers;
    for (const Ldp::LdpIdentifier& id : set->identifierIter()) {
      peers.push_back(id.stringValue());
    }
    std::sort(peers.begin(), peers.end());
    items.push_back(fmt::format("{}{{{}}}", f.prefix().stringValue(), fmt::join(peers, " ")));
  }
  std::sort(items.begin(), items.end());
  return fmt::format("{}", fmt::join(items, " "));
}

TEST(LdpLibAdvertisementSm, AdvertisementsThroughBothTableSets) {
  const std::string name = fmt::format("t{}-adv", ::getpid());
  Writer<LdpSet> ldp(name);
  Writer<CommonSet> common(name);
  const Ldp::LdpIdentifier p1(router("1.1.1.1:0")), p2(router("2.2.2.2:0")),
      p3(router("3.3.3.3:0"));
  // A row of an earlier writer that no advertisement backs.
  ldp.tables->localLbtAdvertisedToIs(Ldp::LdpPond::LdpIdentifierFecEntry(
      Ldp::LdpPond::LdpIdentifierFecKey(p3, fec("10.0.0.0/8"))));
  auto advertised = Ldp::labelAdvertisementCollFactory();
  advertised->advertisedToIs(fec("10.0.0.0/8"))->identifierIs(p1, true);
  advertised->advertisedToIs(fec("10.0.0.0/8"))->identifierIs(p2, true);
  advertised->advertisedToIs(fec("11.0.0.0/8"))->identifierIs(p1, true);
  auto producer =
      Ldp::LdpPond::ldpLibAdvertisementProducerSmFactory(advertised, ldp.tables, common.tables);
  producer->handleInitialized();
  EXPECT_EQ(ldp.tables->localLbtAdvertisedTos(), 3u);
  EXPECT_EQ(common.tables->localLbtAdvertisedTos(), 3u);

  Reader<LdpSet> ldpReader(ldp.group->name());
  Reader<CommonSet> commonReader(common.group->name());
  auto rebuilt = Ldp::labelAdvertisementCollFactory();
  auto consumer = Ldp::LdpPond::ldpLibAdvertisementConsumerSmFactory(ldpReader.tables,
                                                                     commonReader.tables, rebuilt);
  consumer->handleInitialized();
  EXPECT_EQ(advertisementsText(*rebuilt), "10.0.0.0/8{1.1.1.1:0 2.2.2.2:0} 11.0.0.0/8{1.1.1.1:0}");

  // A peer withdrawn, a FEC removed, another added: the rows of either set bring them.
  advertised->advertisedTo(fec("10.0.0.0/8"))->identifierDel(p2);
  advertised->advertisedToDel(fec("11.0.0.0/8"));
  advertised->advertisedToIs(fec("12.0.0.0/8"))->identifierIs(p3, true);
  ldpReader.group->processChanges();
  EXPECT_EQ(advertisementsText(*rebuilt), "10.0.0.0/8{1.1.1.1:0} 12.0.0.0/8{3.3.3.3:0}");
  // A row of one set alone is enough.
  common.tables->localLbtAdvertisedToIs(CommonLibPond::LdpIdentifierFecEntry(
      CommonLibPond::LdpIdentifierFecKey(p2, fec("12.0.0.0/8"))));
  commonReader.group->processChanges();
  EXPECT_EQ(advertisementsText(*rebuilt), "10.0.0.0/8{1.1.1.1:0} 12.0.0.0/8{2.2.2.2:0 3.3.3.3:0}");

  producer->handleDelete();
  ldpReader.group->processChanges();
  commonReader.group->processChanges();
  EXPECT_EQ(advertisementsText(*rebuilt), "");
}

}  // namespace
