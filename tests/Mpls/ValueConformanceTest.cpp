// One conformance run over every value type of the LFIB model and the platform types it
// is built from: the text form reads back to an equal value, the strict reader refuses
// damaged texts, equality, ordering and hashing agree, and each type's text form has
// exactly the fields, in the order, that agents parse.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Kel/Value.h"
#include "Mpls/LfibIpLookup.h"
#include "Mpls/LfibL2Evpn.h"
#include "Mpls/LfibTracking.h"
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

// "<type>: <field> <field> ...", from the type's own field list: its text form has these
// fields, in this order.
template <class T>
std::string fieldsOf() {
  std::string out = std::string(T::kelTypeName) + ":";
  std::apply([&](const auto&... f) { ((out += " " + std::string(f.name)), ...); }, T::kelFields());
  return out;
}

// The text with the names of its first two fields swapped: the reader must refuse it.
std::string swapFirstTwoLabels(std::string text, std::string_view a, std::string_view b) {
  const size_t pa = text.find(fmt::format("{{'{}': ", a));
  const size_t pb = text.find(fmt::format(", '{}': ", b), pa);
  text.replace(pb + 3, b.size(), a);
  return text.replace(pa + 2, a.size(), b);
}

template <class T>
void checkConformance(const std::vector<T>& samples) {
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
    if constexpr (std::is_constructible_v<bool, T>) {
      EXPECT_EQ(static_cast<bool>(v), !(v == T{}));  // true when not the default value
    }
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
      if constexpr (std::tuple_size_v<decltype(T::kelFields())> >= 2) {
        const auto names = T::kelFields();
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
  checkConformance<LfibTrackingMode>({lfibTrackingMode(true, false, true), LfibTrackingMode(7)});
  checkConformance<LfibRouteVersion>({LfibRouteVersion(RouteKey(100), 3)});
  checkConformance<LfibIpLookupStatusLabelVrfAf>(
      {LfibIpLookupStatusLabelVrfAf(100, L3::VrfName("red"), payloadTypeIpv4),
       LfibIpLookupStatusLabelVrfAf(100, L3::VrfName("red"), payloadTypeIpv6)});
  checkConformance<LfibL2EvpnStatusLabelInfo>(
      {LfibL2EvpnStatusLabelInfo(100, 10, true, payloadTypeEthernet, false)});
  checkConformance<VlanAwareDecapKey>({VlanAwareDecapKey(100, 5), VlanAwareDecapKey(100, 6)});
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
      {fieldsOf<LfibViaKey>(), "Mpls::LfibViaKey: source viaType index"},
      {fieldsOf<LfibViaSetKey>(), "Mpls::LfibViaSetKey: source index viaType viaSetType"},
      {fieldsOf<LfibViaSetKeyIndexDomain>(),
       "Mpls::LfibViaIndexAllocator::ViaSetKeyIndexDomain: viaType viaSetType"},
      {fieldsOf<LfibMplsVia>(),
       "Mpls::LfibMplsVia: key nextHop labelAction labelStack intf payloadType skipEgressAcl "
       "ttlMode weight"},
      {fieldsOf<LfibPwVia>(),
       "Mpls::LfibPwVia: key legacyPwIntfId pwIntfId controlWordPresent pwType flowLabelPresent"},
      {fieldsOf<LfibIpLookupVia>(), "Mpls::LfibIpLookupVia: key payloadType vrfNameBuffer"},
      {fieldsOf<LfibVlanVia>(), "Mpls::LfibVlanVia: key vlanId flag"},
      {fieldsOf<LfibEvpnVlanAwareVia>(), "Mpls::LfibEvpnVlanAwareVia: key dot1qTagToVlanKey flag"},
      {fieldsOf<LfibEvpnEthernetSegmentFilterVia>(),
       "Mpls::LfibEvpnEthernetSegmentFilterVia: key intfId"},
      {fieldsOf<LfibEvpnVlanFloodVia>(), "Mpls::LfibEvpnVlanFloodVia: key vlanId flag"},
      {fieldsOf<LfibEvpnVlanAwareFloodVia>(),
       "Mpls::LfibEvpnVlanAwareFloodVia: key dot1qTagToVlanKey flag"},
      {fieldsOf<LfibExtFecVia>(), "Mpls::LfibExtFecVia: key fecId labelAction payloadType"},
      {fieldsOf<LfibViaSet>(),
       "Mpls::LfibViaSet: key backupViaSetKey isUsableAsPrimaryVia flags resetFailoverState "
       "viaKey"},
      {fieldsOf<LfibRoute>(), "Mpls::LfibRoute: key viaSetKey source fec metric"},
      {fieldsOf<RouteInfo>(), "Mpls::RouteInfo: key status"},
      {fieldsOf<LfibViaSetInfo>(), "Mpls::LfibViaSetInfo: key status"},
      {fieldsOf<LfibDot1qTagToVlanKey>(), "Mpls::LfibDot1qTagToVlanKey: source index"},
      {fieldsOf<LfibDot1qTagToVlanCompositeKey>(),
       "Mpls::LfibDot1qTagToVlanCompositeKey: dot1qTagToVlanKey dot1qTag"},
      {fieldsOf<LfibDot1qTagToVlanComposite>(), "Mpls::LfibDot1qTagToVlanComposite: key localVlan"},
      {fieldsOf<LfibRouteVersion>(), "Mpls::LfibRouteVersion: key version"},
      {fieldsOf<LfibIpLookupStatusLabelVrfAf>(),
       "Mpls::LfibIpLookupStatusLabelVrfAf: label vrfName payloadType"},
      {fieldsOf<LfibL2EvpnStatusLabelInfo>(),
       "Mpls::LfibL2EvpnStatusLabelInfo: label dstVlanId hasControlWord payloadType dot1qXlate"},
      {fieldsOf<VlanAwareDecapKey>(), "Mpls::VlanAwareDecapKey: label dot1qTag"},
  };
  for (const auto& [actual, expected] : table) {
    EXPECT_EQ(actual, expected);
  }
  // The form around the fields, and the flag sets.
  EXPECT_EQ(Kel::valueToStrep(viaKey(7)),
            "Value('Mpls::LfibViaKey', ** {'source': sourceStatic, 'viaType': viaTypeMplsIp, "
            "'index': 7})");
  EXPECT_EQ(Kel::valueToStrep(LfibViaSetFlags(1)),
            "Value('Mpls::LfibViaSetFlags', ** {'burnPrimaryVias': True})");
  EXPECT_EQ(Kel::valueToStrep(lfibTrackingMode(true, false, true)),
            "Value('Mpls::LfibTrackingMode', ** {'backlogRoutes': True, 'backlogViaSets': False, "
            "'shadowRouteKeys': True})");
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
  // A valid text with `from` replaced by `to`.
  auto edited = [](std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string route = Kel::valueToStrep(
      LfibRoute(RouteKey(1), viaSetKey(1), LFib::sourceLdp, FwdEqvClass(), 0));
  EXPECT_EQ(attributeOf([&] {
              Kel::strepToValue<LfibRoute>(edited(route, "'label': 1}", "'label': 8388609}"));
            }),
            "key.label: MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  EXPECT_EQ(attributeOf([&] {
              Kel::strepToValue<LfibRoute>(edited(route, "'metric': 0}", "'metric': 256}"));
            }),
            "metric: RouteMetric::value < RouteMetric::min or > RouteMetric::max not allowed");
  EXPECT_EQ(attributeOf([&] {
              Kel::strepToValue<LfibViaKey>(
                  edited(Kel::valueToStrep(viaKey(1)), "viaTypeMplsIp", "viaTypeBogus"));
            }),
            "viaType: 'viaTypeBogus' is not a name of Mpls::LfibViaType");
  // A via set key whose fields stand in the via key's order is refused.
  EXPECT_THROW(Kel::strepToValue<LfibViaSetKey>(
                   "Value('Mpls::LfibViaSetKey', ** {'source': sourceLdp, 'viaType': "
                   "viaTypeMplsIp, 'index': 1, 'viaSetType': viaSetTypeEcmp})"),
               Kel::ParseError);
}

}  // namespace
