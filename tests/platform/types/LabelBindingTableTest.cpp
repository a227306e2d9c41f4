// The label-binding entities: what their change counter names for every kind of change,
// and the operator's form of router ids and LDP identifiers.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "types/Ldp/LdpIdentifier.h"
#include "types/Mpls/LabelBindingTable.h"

namespace {

using Mpls::FwdEqvClass;
using Mpls::LabelBindingTable;
using Mpls::RouterId;
using Netbase::MplsLabel;

FwdEqvClass fec(const char* prefix) { return FwdEqvClass(Netbase::IpGenPrefix(prefix)); }

// Records every change the counter names, as "prefix label" ("prefix -" for no label).
struct Recorder : LabelBindingTable::NotifieeConst {
  std::vector<std::string> seen;
  uint64_t last = 0;
  void onChangeCounter() override {
    const Mpls::LabelBindingChange& c = notifier()->changeCounter();
    EXPECT_EQ(c.counter(), last + 1);
    last = c.counter();
    seen.push_back(c.fec().prefix().stringValue() + " " +
                   (c.label().isNull() ? "-" : std::to_string(c.label().value())));
  }
  std::vector<std::string> take() { return std::exchange(seen, {}); }
};

TEST(LabelBindingTable, ChangeCounterNamesEachChangedFecAndLabel) {
  LabelBindingTable::Ptr table = Mpls::labelBindingTableFactory();
  Recorder rec;
  rec.notifierIs(table);

  auto b = table->bindingIs(fec("10.0.0.0/8"));
  b->mplsLabelIs(MplsLabel(16), true);
  b->mplsLabelIs(MplsLabel(17), true);
  b->mplsLabelIs(MplsLabel(17), true);  // already there: nothing
  b->lastUpdateIs(5.5);
  EXPECT_TRUE(b->hasLastUpdate());
  b->mplsLabelDel(MplsLabel(16));
  table->filteredFecIs(fec("10.0.0.0/8"), true);
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"10.0.0.0/8 -", "10.0.0.0/8 16",
                                                  "10.0.0.0/8 17", "10.0.0.0/8 -",
                                                  "10.0.0.0/8 16", "10.0.0.0/8 -"}));

  // Removing a binding names each label it held; an empty one names the FEC alone.
  b->mplsLabelIs(MplsLabel(18), true);
  rec.take();
  table->bindingDel(fec("10.0.0.0/8"));
  std::vector<std::string> removed = rec.take();
  std::sort(removed.begin(), removed.end());
  EXPECT_EQ(removed, (std::vector<std::string>{"10.0.0.0/8 17", "10.0.0.0/8 18"}));
  table->bindingIs(fec("11.0.0.0/8"));
  table->bindingDel(fec("11.0.0.0/8"));
  EXPECT_EQ(rec.take(), (std::vector<std::string>{"11.0.0.0/8 -", "11.0.0.0/8 -"}));

  // A removed binding, and one outliving its table, no longer count.
  b->mplsLabelIs(MplsLabel(19), true);
  auto c = table->bindingIs(fec("12.0.0.0/8"));
  rec.take();
  rec.notifierIs(nullptr);
  table = nullptr;
  c->mplsLabelIs(MplsLabel(20), true);
  c->lastUpdateIs(std::numeric_limits<double>::infinity());
  EXPECT_FALSE(c->hasLastUpdate());
  EXPECT_TRUE(rec.seen.empty());
}

TEST(LabelBindingTable, RouterIdAndLdpIdentifierText) {
  RouterId r = *RouterId::parse("10.0.0.1:2");
  EXPECT_EQ(r.rtrIdValue(), 0x0a000001u);
  EXPECT_EQ(r.lblSpaceValue(), 2);
  EXPECT_EQ(r.stringValue(), "10.0.0.1:2");
  EXPECT_EQ(Kel::valueToStrep(r), "Value('Mpls::RouterId', ** {'rtrId': 167772161, 'lblSpace': 2})");
  Ldp::LdpIdentifier id(r);
  EXPECT_EQ(id.stringValue(), "10.0.0.1:2");
  EXPECT_EQ(Kel::valueToStrep(id),
            "Value('Ldp::LdpIdentifier', ** {'lsrId': 167772161, 'lblSpace': 2})");
  EXPECT_EQ(id.routerId(), r);
  for (const char* bad : {"10.0.0.1", "10.0.0.1:", "10.0.0:0", "10.0.0.1:65536", "10.0.0.1:-1",
                          "10.0.0.1:0x", " 10.0.0.1:0", "10.0.0.256:0", ""}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(RouterId::parse(bad));
    EXPECT_FALSE(Ldp::LdpIdentifier::parse(bad));
  }
  EXPECT_EQ(RouterId::parse("255.255.255.255:65535")->stringValue(), "255.255.255.255:65535");
}

}  // namespace
