// One conformance run over every value type of the LFIB model and the platform types it
// is built from: the text form reads back to an equal value, the strict reader refuses
// damaged texts, equality, ordering and hashing agree, and each type's text form has
// exactly the fields, in the order, that agents parse.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Kel/Value.h"
#include "Mpls/LfibViaKey.h"
#include "Mpls/LfibViaSetKey.h"
#include "Mpls/MplsLfib.h"
#include "Mpls/TunnelTapIntfId.h"

namespace {

using namespace Mpls;
using Netbase::IntfId;
using Netbase::IpGenAddr;
using Netbase::IpGenPrefix;
using Netbase::MplsLabel;
using Netbase::UnboundedMplsLabelOperation;

// "Value('<type>', ** {'<field>': %s, ...})" built from the type's own field list.
template <class T>
std::string formatOf() {
  std::string out = "Value('" + std::string(T::kelTypeName) + "', ** {";
  bool first = true;
  std::apply(
      [&](const auto&... f) {
        ((out += (first ? "'" : ", '") + std::string(f.name) + "': %s", first = false), ...);
      },
      T::kelFields());
  return out + "})";
}

template <class T>
std::string nameOf() {
  if constexpr (requires { T::kelTypeName; }) {
    return std::string(T::kelTypeName);
  } else {
    return std::string(Kel::enumInfo<T>().typeName);
  }
}

// Swaps the names of the first two fields in a value's text: the reader must refuse it.
std::string swapFirstTwoLabels(std::string text, std::string_view a, std::string_view b) {
  std::string la = "{'" + std::string(a) + "': ";
  std::string lb = ", '" + std::string(b) + "': ";
  auto pa = text.find(la);
  auto pb = text.find(lb, pa);
  text.replace(pb, lb.size(), ", '" + std::string(a) + "': ");
  text.replace(pa, la.size(), "{'" + std::string(b) + "': ");
  return text;
}

template <class T>
void checkConformance(const std::vector<T>& samples) {
  SCOPED_TRACE(nameOf<T>());
  std::vector<T> all = samples;
  all.push_back(T{});
  for (const T& v : all) {
    std::string text = Kel::valueToStrep(v);
    SCOPED_TRACE(text);
    T back = Kel::strepToValue<T>(text);
    EXPECT_TRUE(back == v);
    EXPECT_EQ(Kel::valueToStrep(back), text);
    EXPECT_EQ(Kel::hashOf(back, 0x5eed), Kel::hashOf(v, 0x5eed));
    std::ostringstream os;
    os << v;
    EXPECT_EQ(os.str(), text);
    EXPECT_EQ(fmt::format("{}", v), text);
    EXPECT_THROW(Kel::strepToValue<T>(text + " "), Kel::ParseError);
    if (text.ends_with("})")) {
      EXPECT_THROW(Kel::strepToValue<T>(text.substr(0, text.size() - 1)), Kel::ParseError);
    }
    if (text.starts_with("Value('")) {
      std::string wrongType = text;
      wrongType.replace(7, 1, "X");  // a letter of the qualified name
      EXPECT_THROW(Kel::strepToValue<T>(wrongType), Kel::ParseError);
    }
    if constexpr (Kel::ValueType<T> && !Kel::CustomStrep<T>) {
      constexpr size_t fields = std::tuple_size_v<decltype(T::kelFields())>;
      if constexpr (fields >= 2) {
        auto names = T::kelFields();
        EXPECT_THROW(Kel::strepToValue<T>(swapFirstTwoLabels(text, std::get<0>(names).name,
                                                             std::get<1>(names).name)),
                     Kel::ParseError);
      }
    }
  }
  // Equality and ordering agree: exactly one of a < b, b < a, a == b.
  for (const T& a : all) {
    for (const T& b : all) {
      int relations = (a < b) + (b < a) + (a == b);
      EXPECT_EQ(relations, 1) << Kel::valueToStrep(a) << " vs " << Kel::valueToStrep(b);
      if (a == b) {
        EXPECT_EQ(Kel::hashOf(a, 1), Kel::hashOf(b, 1));
      }
    }
  }
}

LfibViaKey viaKey(uint32_t index, LfibViaType type = viaTypeMplsIp,
                  LFib::Source source = LFib::sourceStatic) {
  return LfibViaKey(source, type, index);
}

LfibViaSetKey viaSetKey(uint32_t index, LfibViaType type = viaTypeMplsIp) {
  return LfibViaSetKey(LFib::sourceLdp, index, type, viaSetTypeEcmp);
}

TEST(ValueTypes, ConformanceOfEveryType) {
  LfibMplsVia swap(viaKey(1), IpGenAddr("10.0.0.1"), Netbase::labelActionSwap,
                   UnboundedMplsLabelOperation(Netbase::labelActionSwap, {200}), false);
  swap.intfIs(IntfId("Ethernet1"));
  swap.weightIs(2);
  LfibMplsVia push(viaKey(2), IpGenAddr("2001:db8::1"), Netbase::labelActionPush,
                   UnboundedMplsLabelOperation(Netbase::labelActionPush, {300, 301, 302, 303}),
                   true);
  push.payloadTypeIs(payloadTypeIpv6);
  push.ttlModeIs(ttlModePipe);
  LfibPwVia pw(viaKey(3, viaTypeMplsPseudowire), IntfId("Pseudowire1"));
  pw.controlWordPresentIs(true);
  pw.pwTypeIs(pwTypeEthernet);
  LfibViaSet set(viaSetKey(9));
  set.viaKeyIs(0, viaKey(1));
  set.viaKeyIs(4, viaKey(2));
  set.flagsIs(LfibViaSetFlags(1));
  set.backupViaSetKeyIs(viaSetKey(10));
  LfibViaSet full(viaSetKey(11));
  for (uint32_t i = 0; i < 128; ++i) {
    full.viaKeyIs(i, viaKey(i + 1));
  }
  LfibDot1qTagToVlanKey mapKey(LFib::sourceEvpn, 4);
  FwdEqvClass fec(IpGenPrefix("10.1.0.0/16"));

  checkConformance<LfibViaKey>({viaKey(1), viaKey(1, viaTypeMplsIp, LFib::sourceLdp),
                                viaKey(0xFFFFFFFF, viaTypeExternalFec)});
  checkConformance<LfibViaSetKey>({viaSetKey(1), viaSetKey(2, viaTypeIpLookup)});
  checkConformance<LfibViaSetKeyIndexDomain>(
      {LfibViaSetKeyIndexDomain(viaTypeMplsIp, viaSetTypeUcmp)});
  checkConformance<LfibMplsVia>({swap, push});
  checkConformance<LfibPwVia>({pw});
  checkConformance<LfibIpLookupVia>(
      {LfibIpLookupVia(viaKey(5, viaTypeIpLookup), L3::VrfName("red"), payloadTypeIpv4),
       LfibIpLookupVia(viaKey(6, viaTypeIpLookup), L3::VrfName(std::string(100, 'v')),
                       payloadTypeAutoDecide)});
  checkConformance<LfibVlanVia>({LfibVlanVia(viaKey(7, viaTypeVlan), 100, lfibFlagControlWord)});
  checkConformance<LfibEvpnVlanAwareVia>(
      {LfibEvpnVlanAwareVia(viaKey(8, viaTypeEvpnVlanAware), mapKey, lfibFlagNone)});
  checkConformance<LfibEvpnEthernetSegmentFilterVia>({LfibEvpnEthernetSegmentFilterVia(
      viaKey(9, viaTypeEvpnEthernetSegment), IntfId("Port-Channel10"))});
  checkConformance<LfibEvpnVlanFloodVia>(
      {LfibEvpnVlanFloodVia(viaKey(10, viaTypeEvpnVlanFlood), 4094, lfibFlagDot1qXlate)});
  checkConformance<LfibEvpnVlanAwareFloodVia>(
      {LfibEvpnVlanAwareFloodVia(viaKey(11, viaTypeEvpnVlanAwareFlood), mapKey, lfibFlagNone)});
  checkConformance<LfibExtFecVia>({LfibExtFecVia(viaKey(12, viaTypeExternalFec),
                                                 0xFFFFFFFFFFFFFFFFull, Netbase::labelActionPop,
                                                 payloadTypeMpls)});
  checkConformance<LfibViaSet>({set, full});
  checkConformance<LfibRoute>(
      {LfibRoute(RouteKey(100), viaSetKey(9), LFib::sourceLdp, fec, 20),
       LfibRoute(RouteKey(MplsLabel::max), viaSetKey(1, viaTypeIpLookup), LFib::sourceStatic,
                 FwdEqvClass(), 0)});
  checkConformance<RouteInfo>({RouteInfo(RouteKey(16), conflict)});
  checkConformance<LfibViaSetInfo>({LfibViaSetInfo(viaSetKey(3), viaSetUsingBackupVias)});
  checkConformance<LfibDot1qTagToVlanKey>({mapKey});
  checkConformance<LfibDot1qTagToVlanCompositeKey>({LfibDot1qTagToVlanCompositeKey(mapKey, 10)});
  checkConformance<LfibDot1qTagToVlanComposite>(
      {LfibDot1qTagToVlanComposite(LfibDot1qTagToVlanCompositeKey(mapKey, 10), 20)});
  checkConformance<LfibViaSetFlags>({LfibViaSetFlags(1)});
  checkConformance<LfibViaIndexRange>({LfibViaIndexRange(127)});
  checkConformance<LfibVrfNameIndexRange>({LfibVrfNameIndexRange(100)});
  checkConformance<LfibViaSetHwStatus>({viaSetUsingPrimaryVias, viaSetUsingBackupVias});
  checkConformance<LfibHwProgrammingReturnCode>({programmed, adjacencyNotProgrammed});
  checkConformance<Netbase::TunnelTapIntfId>({Netbase::TunnelTapIntfId("tunnelTap0")});
  checkConformance<Netbase::MplsTapIntfConstants>({});
  // The platform types the LFIB carries.
  checkConformance<RouteKey>({RouteKey(0x800000), RouteKey(3)});
  checkConformance<FwdEqvClass>({fec, FwdEqvClass(IpGenPrefix("2001:db8::/32"))});
  checkConformance<RouteMetric>({RouteMetric(255)});
  checkConformance<LfibViaType>({viaTypeReserved, viaTypeMax});
  checkConformance<LFib::Source>({LFib::sourceTiLfa});
  checkConformance<IpGenAddr>({IpGenAddr("192.0.2.1"), IpGenAddr("::ffff:192.0.2.1")});
  checkConformance<IpGenPrefix>({IpGenPrefix("0.0.0.0/0"), IpGenPrefix("fe80::/10")});
  checkConformance<IntfId>({IntfId("Ethernet3/1/2.100"), IntfId("Vlan4094")});
  checkConformance<UnboundedMplsLabelOperation>(
      {UnboundedMplsLabelOperation(Netbase::labelActionPush, {16, 0x800000})});
  checkConformance<MplsLabel>({MplsLabel::null()});
  checkConformance<Bridging::VlanId>({Bridging::VlanId(4095)});
  checkConformance<L3::VrfName>({L3::VrfName("it's \"quoted\"\n")});
  checkConformance<Pond::Fib::FecId>({Pond::Fib::FecId(1ull << 63)});
}

TEST(ValueTypes, TextFormsHaveTheirFieldsInOrder) {
  const std::pair<std::string, std::string> table[] = {
      {formatOf<LfibViaKey>(),
       "Value('Mpls::LfibViaKey', ** {'source': %s, 'viaType': %s, 'index': %s})"},
      {formatOf<LfibViaSetKey>(),
       "Value('Mpls::LfibViaSetKey', ** {'source': %s, 'index': %s, 'viaType': %s, "
       "'viaSetType': %s})"},
      {formatOf<LfibViaSetKeyIndexDomain>(),
       "Value('Mpls::LfibViaIndexAllocator::ViaSetKeyIndexDomain', ** {'viaType': %s, "
       "'viaSetType': %s})"},
      {formatOf<LfibMplsVia>(),
       "Value('Mpls::LfibMplsVia', ** {'key': %s, 'nextHop': %s, 'labelAction': %s, "
       "'labelStack': %s, 'intf': %s, 'payloadType': %s, 'skipEgressAcl': %s, 'ttlMode': %s, "
       "'weight': %s})"},
      {formatOf<LfibPwVia>(),
       "Value('Mpls::LfibPwVia', ** {'key': %s, 'legacyPwIntfId': %s, 'pwIntfId': %s, "
       "'controlWordPresent': %s, 'pwType': %s, 'flowLabelPresent': %s})"},
      {formatOf<LfibIpLookupVia>(),
       "Value('Mpls::LfibIpLookupVia', ** {'key': %s, 'payloadType': %s, 'vrfNameBuffer': %s})"},
      {formatOf<LfibVlanVia>(), "Value('Mpls::LfibVlanVia', ** {'key': %s, 'vlanId': %s, 'flag': %s})"},
      {formatOf<LfibEvpnVlanAwareVia>(),
       "Value('Mpls::LfibEvpnVlanAwareVia', ** {'key': %s, 'dot1qTagToVlanKey': %s, 'flag': %s})"},
      {formatOf<LfibEvpnEthernetSegmentFilterVia>(),
       "Value('Mpls::LfibEvpnEthernetSegmentFilterVia', ** {'key': %s, 'intfId': %s})"},
      {formatOf<LfibEvpnVlanFloodVia>(),
       "Value('Mpls::LfibEvpnVlanFloodVia', ** {'key': %s, 'vlanId': %s, 'flag': %s})"},
      {formatOf<LfibEvpnVlanAwareFloodVia>(),
       "Value('Mpls::LfibEvpnVlanAwareFloodVia', ** {'key': %s, 'dot1qTagToVlanKey': %s, "
       "'flag': %s})"},
      {formatOf<LfibExtFecVia>(),
       "Value('Mpls::LfibExtFecVia', ** {'key': %s, 'fecId': %s, 'labelAction': %s, "
       "'payloadType': %s})"},
      {formatOf<LfibViaSet>(),
       "Value('Mpls::LfibViaSet', ** {'key': %s, 'backupViaSetKey': %s, "
       "'isUsableAsPrimaryVia': %s, 'flags': %s, 'resetFailoverState': %s, 'viaKey': %s})"},
      {formatOf<LfibRoute>(),
       "Value('Mpls::LfibRoute', ** {'key': %s, 'viaSetKey': %s, 'source': %s, 'fec': %s, "
       "'metric': %s})"},
      {formatOf<RouteInfo>(), "Value('Mpls::RouteInfo', ** {'key': %s, 'status': %s})"},
      {formatOf<LfibViaSetInfo>(), "Value('Mpls::LfibViaSetInfo', ** {'key': %s, 'status': %s})"},
      {formatOf<LfibDot1qTagToVlanKey>(),
       "Value('Mpls::LfibDot1qTagToVlanKey', ** {'source': %s, 'index': %s})"},
      {formatOf<LfibDot1qTagToVlanCompositeKey>(),
       "Value('Mpls::LfibDot1qTagToVlanCompositeKey', ** {'dot1qTagToVlanKey': %s, "
       "'dot1qTag': %s})"},
      {formatOf<LfibDot1qTagToVlanComposite>(),
       "Value('Mpls::LfibDot1qTagToVlanComposite', ** {'key': %s, 'localVlan': %s})"},
  };
  for (const auto& [actual, expected] : table) {
    EXPECT_EQ(actual, expected);
  }
  EXPECT_EQ(Kel::valueToStrep(viaKey(7)),
            "Value('Mpls::LfibViaKey', ** {'source': sourceStatic, 'viaType': viaTypeMplsIp, "
            "'index': 7})");
  EXPECT_EQ(Kel::valueToStrep(LfibViaSetFlags(1)),
            "Value('Mpls::LfibViaSetFlags', ** {'burnPrimaryVias': True})");
}

TEST(ValueTypes, StrictReaderNamesTheFieldOutOfRange) {
  auto attributeOf = [](auto read) -> std::string {
    try {
      read();
    } catch (const Kel::RangeException& e) {
      return e.attribute() + ": " + e.text();
    }
    return "accepted";
  };
  const std::string route = "Value('Mpls::LfibRoute', ** {'key': Value('Mpls::RouteKey', ** "
                            "{'label': LABEL}), 'viaSetKey': " +
                            Kel::valueToStrep(viaSetKey(1)) + ", 'source': sourceLdp, 'fec': " +
                            Kel::valueToStrep(FwdEqvClass()) + ", 'metric': METRIC})";
  auto routeText = [&](const char* label, const char* metric) {
    std::string t = route;
    t.replace(t.find("LABEL"), 5, label);
    t.replace(t.find("METRIC"), 6, metric);
    return t;
  };
  EXPECT_EQ(attributeOf([&] { Kel::strepToValue<LfibRoute>(routeText("8388609", "0")); }),
            "key.label: MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  EXPECT_EQ(attributeOf([&] { Kel::strepToValue<LfibRoute>(routeText("1", "256")); }),
            "metric: RouteMetric::value < RouteMetric::min or > RouteMetric::max not allowed");
  EXPECT_EQ(attributeOf([] {
              Kel::strepToValue<LfibViaKey>(
                  "Value('Mpls::LfibViaKey', ** {'source': sourceStatic, 'viaType': "
                  "viaTypeBogus, 'index': 1})");
            }),
            "viaType: 'viaTypeBogus' is not a name of Mpls::LfibViaType");
  // A via set key whose fields stand in the via key's order is refused.
  EXPECT_THROW(Kel::strepToValue<LfibViaSetKey>(
                   "Value('Mpls::LfibViaSetKey', ** {'source': sourceLdp, 'viaType': "
                   "viaTypeMplsIp, 'index': 1, 'viaSetType': viaSetTypeEcmp})"),
               Kel::ParseError);
}

}  // namespace
