#include "Mpls/MplsLfibWriter.h"

#include <gtest/gtest.h>

namespace {

using namespace Mpls;
using Netbase::IpGenAddr;
using Netbase::UnboundedMplsLabelOperation;

LfibMplsVia mplsVia(const char* nextHop, uint32_t weight = 1) {
  LfibMplsVia via(LfibViaKey(), IpGenAddr(nextHop), Netbase::labelActionSwap,
                  UnboundedMplsLabelOperation(Netbase::labelActionSwap, {200}), false);
  via.weightIs(weight);
  return via;
}

ConsolidatedLfibRoute route(uint32_t label) {
  return ConsolidatedLfibRoute(RouteKey(label), LFib::sourceStatic, FwdEqvClass(), 0,
                               viaTypeMplsIp);
}

TEST(ConsolidatedLfibRoute, ViaSetsKeyedByTheWholeViaEqualityIsSetEqualityAndBoolIsNotDefault) {
  ConsolidatedLfibRoute r = route(100);
  r.mplsViaIs(mplsVia("10.0.0.1"));
  r.mplsViaIs(mplsVia("10.0.0.1"));
  EXPECT_EQ(r.mplsVias(), 1u);
  r.mplsViaIs(mplsVia("10.0.0.1", 2));  // differs only in weight: a via of its own
  EXPECT_EQ(r.mplsVias(), 2u);
  EXPECT_TRUE(r.mplsViaHas(mplsVia("10.0.0.1", 2)));
  r.mplsViaDel(mplsVia("10.0.0.1", 2));
  r.mplsViaDel(mplsVia("10.0.0.9"));  // absent: nothing
  EXPECT_EQ(r.mplsVias(), 1u);
  r.mplsViaDelAll();
  EXPECT_EQ(r.mplsVias(), 0u);

  ConsolidatedLfibRoute a = route(100);
  ConsolidatedLfibRoute b = route(100);
  for (const char* hop : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
    a.mplsViaIs(mplsVia(hop));
  }
  for (const char* hop : {"10.0.0.4", "10.0.0.3", "10.0.0.2", "10.0.0.1"}) {
    b.mplsViaIs(mplsVia(hop));
  }
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(5), b.hash(5));
  EXPECT_EQ(Kel::valueToStrep(a), Kel::valueToStrep(b));  // vias print in order
  b.viaSetTypeIs(viaSetTypeEcmp);
  EXPECT_NE(a, b);

  EXPECT_FALSE(ConsolidatedLfibRoute());
  EXPECT_TRUE(route(100));
  ConsolidatedLfibRoute onlyVia;
  onlyVia.extFecViaIs(LfibExtFecVia());
  EXPECT_TRUE(onlyVia);
  ConsolidatedLfibRoute onlyMetric;
  onlyMetric.metricIs(1);
  EXPECT_TRUE(onlyMetric);
}

TEST(ConsolidatedLfibRoute, KeyedViaIsStoredThenRefusedAndTheTextFormIsNeverRead) {
  ConsolidatedLfibRoute r = route(100);
  LfibMplsVia keyed = mplsVia("10.0.0.1");
  keyed.keyIs(LfibViaKey(LFib::sourceStatic, viaTypeMplsIp, 4));
  try {
    r.mplsViaIs(keyed);
    ADD_FAILURE() << "a keyed via was accepted";
  } catch (const Kel::InternalException& e) {
    EXPECT_EQ(std::string(e.what()),
              "Mpls/MplsLfibWriter:23 void Mpls::ConsolidatedLfibRoute::verifyVia(const "
              "Mpls::LfibViaKey&) const -- assertion failed(vk == LfibViaKey()): Vias in "
              "ConsolidatedLfibRoute should have an unset key only");
  }
  EXPECT_TRUE(r.mplsViaHas(keyed));  // inserted before the check
  LfibIpLookupVia lookup(LfibViaKey(LFib::sourceBgp, viaTypeIpLookup, 1), L3::VrfName("red"),
                         payloadTypeIpv4);
  EXPECT_THROW(r.ipLookupViaIs(lookup), Kel::InternalException);

  // The text form is written, but never read.
  r = route(16);
  r.mplsViaIs(mplsVia("10.0.0.2"));
  r.mplsViaIs(mplsVia("10.0.0.1"));
  std::string text = Kel::valueToStrep(r);
  EXPECT_EQ(text,
            "Value('Mpls::ConsolidatedLfibRoute', ** {'key': Value('Mpls::RouteKey', ** "
            "{'label': 16}), 'source': sourceStatic, 'fec': Value('Mpls::FwdEqvClass', ** "
            "{'fecType': fecTypeNone, 'prefix': 0.0.0.0/0}), 'metric': 0, 'viaType': "
            "viaTypeMplsIp, 'viaSetType': viaSetTypeDefault, 'mplsVia': {" +
                Kel::valueToStrep(mplsVia("10.0.0.1")) + ", " +
                Kel::valueToStrep(mplsVia("10.0.0.2")) +
                "}, 'pwVia': {}, 'ipLookupVia': {}, 'extFecVia': {}})");
  try {
    Kel::strepToValue<ConsolidatedLfibRoute>(text);
    ADD_FAILURE() << "read from text";
  } catch (const Kel::InternalException& e) {
    std::string what = e.what();
    EXPECT_TRUE(what.starts_with("Mpls/MplsLfibWriter:"));
    EXPECT_NE(what.find(" -- assertion failed(!\"No String constructor for "
                        "ConsolidatedLfibRoute - has collection\"): "),
              std::string::npos)
        << what;
  }
}

}  // namespace
