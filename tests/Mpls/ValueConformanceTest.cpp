// One conformance run over every value type of the LFIB model and the platform types it
// is built from: the text form reads back to an equal value, the strict reader refuses
// damaged texts, equality, ordering and hashing agree, and each type's text form has
// exactly the fields, in the order, that agents parse.
#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "Kel/Value.h"
#include "Mpls/CommonLibPond.h"
#include "Mpls/LdpLibPond.h"
#include "Mpls/LfibIpLookup.h"
#include "Mpls/LfibL2Evpn.h"
#include "Mpls/LfibTracking.h"
#include "Mpls/LfibViaKey.h"
#include "Mpls/LfibViaSetKey.h"
#include "Mpls/MplsLfib.h"
#include "Mpls/SegmentRouting.h"
#include "Mpls/TunnelTapIntfId.h"
#include "types/Mpls/LabelBindingTable.h"

namespace {

using namespace Mpls;
using Netbase::IntfId;
using Netbase::IpGenAddr;
using Netbase::IpGenPrefix;
using Netbase::MplsLabel;
using Netbase::UnboundedMplsLabelOperation;

// "<type>: <field> <field> ...\n" for each type, from the type's own field list: its text
// form has these fields, in this order.
template <class... Ts>
std::string fieldsOf() {
  std::string out;
  auto one = [&]<class T>(T*) {
    out += T::kelTypeName;
    out += ":";
    std::apply([&](const auto&... f) { ((out += " " + std::string(f.name)), ...); },
               T::kelFields());
    out += "\n";
  };
  (one(static_cast<Ts*>(nullptr)), ...);
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
void checkConformance(std::initializer_list<T> samples) {
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

  checkConformance({viaKey(1), viaKey(1, viaTypeMplsIp, LFib::sourceLdp),
                    viaKey(0xFFFFFFFF, viaTypeExternalFec)});
  checkConformance({viaSetKey(1), viaSetKey(2, viaTypeIpLookup)});
  checkConformance({LfibViaSetKeyIndexDomain(viaTypeMplsIp, viaSetTypeUcmp)});
  checkConformance({swap, push});
  checkConformance({pw});
  checkConformance(
      {LfibIpLookupVia(viaKey(5, viaTypeIpLookup), L3::VrfName("red"), payloadTypeIpv4),
       LfibIpLookupVia(viaKey(6, viaTypeIpLookup), L3::VrfName(std::string(100, 'v')),
                       payloadTypeAutoDecide)});
  checkConformance({LfibVlanVia(viaKey(7, viaTypeVlan), 100, lfibFlagControlWord)});
  checkConformance({LfibEvpnVlanAwareVia(viaKey(8, viaTypeEvpnVlanAware), mapKey, lfibFlagNone)});
  checkConformance({LfibEvpnEthernetSegmentFilterVia(viaKey(9, viaTypeEvpnEthernetSegment),
                                                     IntfId("Port-Channel10"))});
  checkConformance(
      {LfibEvpnVlanFloodVia(viaKey(10, viaTypeEvpnVlanFlood), 4094, lfibFlagDot1qXlate)});
  checkConformance(
      {LfibEvpnVlanAwareFloodVia(viaKey(11, viaTypeEvpnVlanAwareFlood), mapKey, lfibFlagNone)});
  checkConformance({LfibExtFecVia(viaKey(12, viaTypeExternalFec), 0xFFFFFFFFFFFFFFFFull,
                                  Netbase::labelActionPop, payloadTypeMpls)});
  checkConformance({set, full});
  checkConformance({LfibRoute(RouteKey(100), viaSetKey(9), LFib::sourceLdp, fec, 20),
                    LfibRoute(RouteKey(MplsLabel::max), viaSetKey(1, viaTypeIpLookup),
                              LFib::sourceStatic, FwdEqvClass(), 0)});
  checkConformance({RouteInfo(RouteKey(16), conflict)});
  checkConformance({LfibViaSetInfo(viaSetKey(3), viaSetUsingBackupVias)});
  checkConformance({mapKey});
  checkConformance({LfibDot1qTagToVlanCompositeKey(mapKey, 10)});
  checkConformance({LfibDot1qTagToVlanComposite(LfibDot1qTagToVlanCompositeKey(mapKey, 10), 20)});
  checkConformance({LfibViaSetFlags(1)});
  checkConformance({LfibViaIndexRange(127)});
  checkConformance({LfibVrfNameIndexRange(100)});
  checkConformance({viaSetUsingPrimaryVias, viaSetUsingBackupVias});
  checkConformance({programmed, adjacencyNotProgrammed});
  checkConformance({lfibTrackingMode(true, false, true), LfibTrackingMode(7)});
  checkConformance({LfibRouteVersion(RouteKey(100), 3)});
  checkConformance({LfibIpLookupStatusLabelVrfAf(100, L3::VrfName("red"), payloadTypeIpv4),
                    LfibIpLookupStatusLabelVrfAf(100, L3::VrfName("red"), payloadTypeIpv6)});
  checkConformance({LfibL2EvpnStatusLabelInfo(100, 10, true, payloadTypeEthernet, false)});
  checkConformance({VlanAwareDecapKey(100, 5), VlanAwareDecapKey(100, 6)});
  checkConformance({Netbase::TunnelTapIntfId("tunnelTap0")});
  checkConformance<Netbase::MplsTapIntfConstants>({});
  // The platform types the LFIB carries.
  checkConformance({RouteKey(0x800000), RouteKey(3)});
  checkConformance({fec, FwdEqvClass(IpGenPrefix("2001:db8::/32"))});
  checkConformance({RouteMetric(255)});
  checkConformance({viaTypeReserved, viaTypeMax});
  checkConformance({LFib::sourceTiLfa});
  checkConformance({IpGenAddr("192.0.2.1"), IpGenAddr("::ffff:192.0.2.1")});
  checkConformance({IpGenPrefix("0.0.0.0/0"), IpGenPrefix("fe80::/10")});
  checkConformance({IntfId("Ethernet3/1/2.100"), IntfId("Vlan4094")});
  checkConformance({UnboundedMplsLabelOperation(Netbase::labelActionPush, {16, 0x800000})});
  checkConformance({MplsLabel::null()});
  checkConformance({Bridging::VlanId(4095)});
  checkConformance({L3::VrfName("it's \"quoted\"\n")});
  checkConformance({Pond::Fib::FecId(1ull << 63)});
}

// The row and key types of the label-binding, LDP and segment-routing tables, and the
// platform types they carry.
TEST(ValueTypes, ConformanceOfTheProtocolTableTypes) {
  const FwdEqvClass fec(IpGenPrefix("10.1.0.0/16"));
  const RouterId router(0x0a000001, 2);
  const Ldp::LdpIdentifier ldpId(router);
  checkConformance({router, RouterId(0xffffffff, 0xffff)});
  checkConformance({ldpId});
  checkConformance({LabelBindingChange(7, fec, MplsLabel(16))});
  {
    using namespace CommonLibPond;
    const LocalLbtLabelKey local(fec, MplsLabel(16));
    const PeerLbtLabelKey peer(router, fec, MplsLabel(17));
    const RouterIdFecKey routerFec(router, fec);
    const LdpIdentifierFecKey ldpFec(ldpId, fec);
    checkConformance({local});
    checkConformance({peer});
    checkConformance({routerFec});
    checkConformance({ldpFec});
    checkConformance({LocalLbtLabelEntry(local)});
    checkConformance({PeerLbtLabelEntry(peer)});
    checkConformance({RouterIdFecEntry(routerFec)});
    checkConformance({LdpIdentifierFecEntry(ldpFec)});
    checkConformance({FecEntry(fec)});
    checkConformance({LocalLbtLastUpdateEntry(fec, 1.5), LocalLbtLastUpdateEntry(fec, 1e300)});
    checkConformance({PeerLbtLastUpdateEntry(routerFec, 0.25)});
  }
  {
    using namespace Ldp::LdpPond;
    const LdpLocalLbtLabelKey local(fec, MplsLabel(16));
    const LdpPeerLbtLabelKey peer(ldpId, fec, MplsLabel(17));
    const LdpIdentifierFecKey ldpFec(ldpId, fec);
    checkConformance({local});
    checkConformance({peer});
    checkConformance({ldpFec});
    checkConformance({LdpLocalLbtLabelEntry(local)});
    checkConformance({LdpPeerLbtLabelEntry(peer)});
    checkConformance({LdpFecEntry(fec)});
    checkConformance({LdpIdentifierFecEntry(ldpFec)});
    checkConformance({LdpLocalLbtLastUpdateEntry(fec, 3.0)});
    checkConformance({LdpPeerLbtLastUpdateEntry(ldpFec, 4.5)});
  }
  {
    namespace Sr = Pond::SegmentRouting;
    using Sr::SegmentIdentifier;
    const Routing::Isis::AreaId area = *Routing::Isis::AreaId::parse("49.0001");
    checkConformance({SegmentIdentifier::index(5), SegmentIdentifier::absolute(0x1fffff)});
    checkConformance({area});
    checkConformance({Sr::PrefixSegment(IpGenPrefix("10.0.0.1/32"), SegmentIdentifier::index(1),
                                        router, 0x40, 2, 0, 7)});
    Sr::AdjacencySegment adj(Sr::AdjacencySegmentKey(SegmentIdentifier::absolute(24000), 9), 0x30,
                             {});
    adj.ngbIs(0, Sr::AdjSegmentNeighbor(0x192168001002ull, 10));
    adj.ngbIs(511, Sr::AdjSegmentNeighbor(1, 1));
    checkConformance({adj});
    Sr::AreaSegment areaSegment(area, SegmentIdentifier::index(3), Sr::AreaSegmentFlags(5),
                                Pond::Fib::FecId(7), {});
    areaSegment.originatorIs(63, router);
    checkConformance({areaSegment});
    checkConformance({Sr::GlobalBlock(router, LabelRange(16000, 8000))});
    checkConformance({Sr::SrRoute(IpGenPrefix("2001:db8::/32"), Pond::Fib::FecId(1), 2, 10, 0,
                                  true, false)});
  }
}

TEST(ValueTypes, TextFormsHaveTheirFieldsInOrder) {
  EXPECT_EQ((fieldsOf<LfibViaKey, LfibViaSetKey, LfibViaSetKeyIndexDomain, LfibMplsVia, LfibPwVia,
                      LfibIpLookupVia, LfibVlanVia, LfibEvpnVlanAwareVia,
                      LfibEvpnEthernetSegmentFilterVia, LfibEvpnVlanFloodVia,
                      LfibEvpnVlanAwareFloodVia, LfibExtFecVia, LfibViaSet, LfibRoute, RouteInfo,
                      LfibViaSetInfo, LfibDot1qTagToVlanKey, LfibDot1qTagToVlanCompositeKey,
                      LfibDot1qTagToVlanComposite, LfibRouteVersion, LfibIpLookupStatusLabelVrfAf,
                      LfibL2EvpnStatusLabelInfo, VlanAwareDecapKey>()),
            "Mpls::LfibViaKey: source viaType index\n"
            "Mpls::LfibViaSetKey: source index viaType viaSetType\n"
            "Mpls::LfibViaIndexAllocator::ViaSetKeyIndexDomain: viaType viaSetType\n"
            "Mpls::LfibMplsVia: key nextHop labelAction labelStack intf payloadType skipEgressAcl "
            "ttlMode weight\n"
            "Mpls::LfibPwVia: key legacyPwIntfId pwIntfId controlWordPresent pwType "
            "flowLabelPresent\n"
            "Mpls::LfibIpLookupVia: key payloadType vrfNameBuffer\n"
            "Mpls::LfibVlanVia: key vlanId flag\n"
            "Mpls::LfibEvpnVlanAwareVia: key dot1qTagToVlanKey flag\n"
            "Mpls::LfibEvpnEthernetSegmentFilterVia: key intfId\n"
            "Mpls::LfibEvpnVlanFloodVia: key vlanId flag\n"
            "Mpls::LfibEvpnVlanAwareFloodVia: key dot1qTagToVlanKey flag\n"
            "Mpls::LfibExtFecVia: key fecId labelAction payloadType\n"
            "Mpls::LfibViaSet: key backupViaSetKey isUsableAsPrimaryVia flags resetFailoverState "
            "viaKey\n"
            "Mpls::LfibRoute: key viaSetKey source fec metric\n"
            "Mpls::RouteInfo: key status\n"
            "Mpls::LfibViaSetInfo: key status\n"
            "Mpls::LfibDot1qTagToVlanKey: source index\n"
            "Mpls::LfibDot1qTagToVlanCompositeKey: dot1qTagToVlanKey dot1qTag\n"
            "Mpls::LfibDot1qTagToVlanComposite: key localVlan\n"
            "Mpls::LfibRouteVersion: key version\n"
            "Mpls::LfibIpLookupStatusLabelVrfAf: label vrfName payloadType\n"
            "Mpls::LfibL2EvpnStatusLabelInfo: label dstVlanId hasControlWord payloadType "
            "dot1qXlate\n"
            "Mpls::VlanAwareDecapKey: label dot1qTag\n");
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

// The interface the LFIB's tunnel tap is known by.
TEST(TunnelTapIntfId, ConstantAndNameCheck) {
  const Netbase::TunnelTapIntfId tap = Netbase::MplsTapIntfConstants::tunnelTapIntfId();
  EXPECT_EQ(Kel::valueToStrep(tap), "Value('Netbase::TunnelTapIntfId', ** {'intfId': 'tunnelTap0'})");
  EXPECT_TRUE(Netbase::TunnelTapIntfId::isTunnelTapIntfId(tap));
  EXPECT_FALSE(Netbase::TunnelTapIntfId::isTunnelTapIntfId(IntfId("Ethernet1")));
  EXPECT_FALSE(Netbase::TunnelTapIntfId::isTunnelTapIntfId(IntfId()));
  EXPECT_EQ(Netbase::TunnelTapIntfId(), Netbase::TunnelTapIntfId(""));
  EXPECT_THROW(Netbase::TunnelTapIntfId("tunnelTrap0"), Kel::ParseError);
}

}  // namespace
