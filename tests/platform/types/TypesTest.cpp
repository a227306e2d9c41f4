// Bridging, L3, the platform's MPLS types and Pond::Fib, and the text forms of all the
// platform types as fields of a value.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string>
#include <utility>

#include "TypesTestUtil.h"
#include "types/Bridging/VlanId.h"
#include "types/L3/VrfName.h"
#include "types/Mpls/MplsTypes.h"
#include "types/Netbase/IntfId.h"
#include "types/Netbase/IpGenAddr.h"
#include "types/Netbase/IpGenPrefix.h"
#include "types/Pond/Fib/FecId.h"

namespace TypesTest {

class Holder {
  KEL_VALUE(Holder, "TypesTest::Holder", (Netbase::IpGenAddr, addr), (Netbase::IpGenPrefix, prefix),
            (Netbase::IntfId, intf), (L3::VrfName, vrf), (Bridging::VlanId, vlan));
};

}  // namespace TypesTest

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using L3::VrfName;
using TypesTest::errorText;
using TypesTest::expectTextForm;
using TypesTest::Holder;

std::string rangeText(const std::string& type, const std::string& max = "max") {
  return type + "::value < " + type + "::min or > " + type + "::" + max + " not allowed";
}

TEST(VlanId, BoundsAndNone) {
  for (int v : {0, 1, 4094, 4095}) {
    expectTextForm(VlanId(v), std::to_string(v));
  }
  for (int v : {-1, 4096, 65535, 1 << 20}) {
    SCOPED_TRACE(v);
    EXPECT_EQ(errorText<Kel::RangeException>([&] { VlanId id(v); }), rangeText("VlanId"));
  }
  EXPECT_EQ(errorText<Kel::RangeException>([] { Kel::strepToValue<VlanId>("4096"); }),
            rangeText("VlanId"));

  for (int v : {0, 1, 4094}) {
    expectTextForm(VlanIdOrNone(v), std::to_string(v));
    EXPECT_EQ(VlanIdOrNone(v).isNone(), v == 0);
  }
  for (int v : {-1, 4095, 4096}) {
    SCOPED_TRACE(v);
    EXPECT_EQ(errorText<Kel::RangeException>([&] { VlanIdOrNone id(v); }),
              rangeText("VlanIdOrNone"));
  }
  EXPECT_EQ(errorText<Kel::RangeException>([] { Kel::strepToValue<VlanIdOrNone>("4095"); }),
            rangeText("VlanIdOrNone"));
  EXPECT_TRUE(VlanIdOrNone().isNone());
  EXPECT_TRUE(VlanIdOrNone::none().isNone());
  EXPECT_EQ(VlanIdOrNone::none(), VlanIdOrNone(0));
  EXPECT_TRUE(VlanId(100) < VlanId(200));
}

TEST(VrfName, HoldsAtMostOneHundredBytes) {
  const std::string longest(100, 'v');
  VrfName name(longest);
  EXPECT_EQ(name.bytes(), 100u);
  EXPECT_EQ(name.stringValue(), longest);
  EXPECT_STREQ(name.c_str(), longest.c_str());
  expectTextForm(name, "'" + longest + "'");

  const std::string tooLong = "VrfName::value::bytes > VrfName::maxLength not allowed";
  const std::string over(101, 'v');
  EXPECT_EQ(errorText<Kel::RangeException>([&] { VrfName n(over); }), tooLong);
  EXPECT_EQ(errorText<Kel::RangeException>([&] { Kel::strepToValue<VrfName>("'" + over + "'"); }),
            tooLong);
  // 100 bytes once the escapes are read: accepted.
  const std::string escaped = "'" + std::string(96, 'v') + "\\x01\\n\\'\\\\'";
  EXPECT_EQ(Kel::strepToValue<VrfName>(escaped).bytes(), 100u);

  EXPECT_THROW(VrfName(std::string_view("re\0d", 4)), Kel::RangeException);
  EXPECT_THROW(Kel::strepToValue<VrfName>("'re\\x00d'"), Kel::RangeException);

  EXPECT_TRUE(VrfName().empty());
  expectTextForm(VrfName(), "''");
  EXPECT_EQ(VrfName::defaultVrf(), VrfName("default"));
  EXPECT_TRUE(VrfName("blue") < VrfName("red"));
  EXPECT_EQ(VrfName("red").hash(3), Kel::strepToValue<VrfName>("'red'").hash(3));
}

TEST(VrfName, TextFormQuotesAndEscapes) {
  struct Case {
    std::string name;
    std::string text;
  };
  for (const Case& c : {Case{"red", "'red'"}, Case{"it's", "'it\\'s'"}, Case{"a\\b", "'a\\\\b'"},
                        Case{"t\tn\nr\r", "'t\\tn\\nr\\r'"},
                        Case{"\x01\x7f\xff", "'\\x01\\x7f\\xff'"}, Case{"a b", "'a b'"}}) {
    SCOPED_TRACE(c.text);
    expectTextForm(VrfName(c.name), c.text);
    EXPECT_EQ(VrfName(Kel::Strep(c.text)).stringValue(), c.name);
  }
  for (const char* bad : {"red", "'red", "'red''", "\"red\"", "'a\\qb'", "'\\x1'"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Kel::strepToValue<VrfName>(bad), Kel::ParseError);
  }
}

TEST(RouteKey, TextFormAndTopLabel) {
  Mpls::RouteKey key(Netbase::MplsLabel(100));
  EXPECT_EQ(key.topLabel(), Netbase::MplsLabel(100));
  expectTextForm(key, "Value('Mpls::RouteKey', ** {'label': 100})");
  expectTextForm(Mpls::RouteKey(), "Value('Mpls::RouteKey', ** {'label': 0})");
  expectTextForm(Mpls::RouteKey(Netbase::MplsLabel::null()),
                 "Value('Mpls::RouteKey', ** {'label': 1048576})");
  EXPECT_TRUE(Mpls::RouteKey(Netbase::MplsLabel(16)) < key);
  try {
    Kel::strepToValue<Mpls::RouteKey>("Value('Mpls::RouteKey', ** {'label': 8388609})");
    ADD_FAILURE() << "label above luWithdraw read";
  } catch (const Kel::RangeException& e) {
    EXPECT_EQ(e.attribute(), "label");
    EXPECT_EQ(e.text(), rangeText("MplsLabel", "luWithdraw"));
  }
  EXPECT_THROW(Kel::strepToValue<Mpls::RouteKey>("Value('Mpls::RouteKey', ** {'label': 1 })"),
               Kel::ParseError);
}

TEST(FwdEqvClass, RoundTripsWithAPrefix) {
  const std::string head = "Value('Mpls::FwdEqvClass', ** {'fecType': ";
  Mpls::FwdEqvClass v4(Netbase::IpGenPrefix("10.0.0.0/8"));
  EXPECT_EQ(v4.fecType(), Mpls::fecTypePrefix);
  expectTextForm(v4, head + "fecTypePrefix, 'prefix': 10.0.0.0/8})");
  expectTextForm(Mpls::FwdEqvClass(Netbase::IpGenPrefix("2001:db8::/32")),
                 head + "fecTypePrefix, 'prefix': 2001:db8::/32})");
  expectTextForm(Mpls::FwdEqvClass(Netbase::IpGenPrefix("::ffff:10.0.0.0/104")),
                 head + "fecTypePrefix, 'prefix': ::ffff:10.0.0.0/104})");
  expectTextForm(Mpls::FwdEqvClass(), head + "fecTypeNone, 'prefix': 0.0.0.0/0})");
  EXPECT_THROW(Kel::strepToValue<Mpls::FwdEqvClass>(head + "fecTypePrefix, 'prefix': 10.0.0.1/8})"),
               Kel::ParseError);
  EXPECT_THROW(Kel::strepToValue<Mpls::FwdEqvClass>(head + "fecTypeLdp, 'prefix': 10.0.0.0/8})"),
               Kel::RangeException);
}

// Every enumerator reads back from its name and writes its name.
template <class E>
void expectNames(std::initializer_list<std::pair<E, const char*>> names) {
  for (const auto& [value, name] : names) {
    SCOPED_TRACE(name);
    EXPECT_EQ(stringValue(value), name);
    EXPECT_EQ(Kel::strepToValue<E>(name), value);
  }
}

TEST(MplsEnumerations, NamesReadAndWrite) {
  using Mpls::LfibViaType;
  expectNames<LfibViaType>({{LfibViaType(0), "viaTypeMplsUnknown"},
                            {LfibViaType(1), "viaTypeMplsIp"},
                            {LfibViaType(2), "viaTypeMplsPseudowire"},
                            {LfibViaType(3), "viaTypeIpLookup"},
                            {LfibViaType(4), "viaTypeVlan"},
                            {LfibViaType(5), "viaTypeEvpnVlanAware"},
                            {LfibViaType(6), "viaTypeEvpnEthernetSegment"},
                            {LfibViaType(7), "viaTypeEvpnVlanFlood"},
                            {LfibViaType(8), "viaTypeEvpnVlanAwareFlood"},
                            {LfibViaType(10), "viaTypeExternalFec"},
                            {LfibViaType(11), "viaTypeMax"}});
  expectNames<Mpls::PwType>(
      {{Mpls::PwType(4), "pwTypeEthernetTagged"}, {Mpls::PwType(5), "pwTypeEthernet"}});
  EXPECT_EQ(Mpls::LfibViaTypeInstance("viaTypeExternalFec").value(), 10);
  EXPECT_EQ(Kel::defaultValue<Mpls::LfibViaType>(), Mpls::viaTypeMplsUnknown);
  // Adjacency indices keep the source in 4 bits.
  const Kel::EnumInfo& sources = Kel::enumInfo<Mpls::LFib::Source>();
  for (size_t i = 0; i < sources.count; ++i) {
    EXPECT_LT(sources.entries[i].value, 16) << sources.entries[i].name;
  }

  EXPECT_EQ(
      errorText<Kel::RangeException>([] { Kel::strepToValue<Mpls::LfibViaType>("viaTypeMpls"); }),
      "'viaTypeMpls' is not a name of Mpls::LfibViaType");
  EXPECT_THROW(Mpls::PayloadTypeInstance("payloadTypeIpv5"), Kel::RangeException);
  EXPECT_THROW(Kel::strepToValue<Mpls::TtlMode>("ttlmodepipe"), Kel::RangeException);
}

TEST(RouteMetric, Bounds) {
  for (int v : {0, 1, 255}) {
    expectTextForm(Mpls::RouteMetric(v), std::to_string(v));
  }
  for (int v : {-1, 256}) {
    EXPECT_EQ(errorText<Kel::RangeException>([&] { Mpls::RouteMetric m(v); }),
              rangeText("RouteMetric"));
  }
  EXPECT_EQ(Mpls::RouteMetric().value(), 0);
}

TEST(FecId, HoldsTheFull64Bits) {
  const uint64_t max = std::numeric_limits<uint64_t>::max();
  for (uint64_t v : {uint64_t{0}, uint64_t{1}, uint64_t{1} << 32, uint64_t{1} << 63, max}) {
    expectTextForm(Pond::Fib::FecId(v), std::to_string(v));
  }
  EXPECT_EQ(Kel::strepToValue<Pond::Fib::FecId>("18446744073709551615").value(), max);
  EXPECT_TRUE(Pond::Fib::FecId(1) < Pond::Fib::FecId(uint64_t{1} << 63));
  EXPECT_EQ(Pond::Fib::FecId(max).hash(9),
            Kel::strepToValue<Pond::Fib::FecId>("18446744073709551615").hash(9));
  EXPECT_EQ(errorText<Kel::RangeException>([] { Pond::Fib::FecId id(-1); }), rangeText("FecId"));
  EXPECT_THROW(Kel::strepToValue<Pond::Fib::FecId>("18446744073709551616"), Kel::ParseError);
}

TEST(PlatformTypes, TextFormsInsideAValueReadBack) {
  expectTextForm(Holder(Netbase::IpGenAddr("10.0.0.1"), Netbase::IpGenPrefix("10.0.0.0/8"),
                        Netbase::IntfId("Ethernet3/1.100"), VrfName("it's"), VlanId(100)),
                 "Value('TypesTest::Holder', ** {'addr': 10.0.0.1, 'prefix': 10.0.0.0/8, "
                 "'intf': 'Ethernet3/1.100', 'vrf': 'it\\'s', 'vlan': 100})");
  expectTextForm(Holder(Netbase::IpGenAddr("2001:db8::1"), Netbase::IpGenPrefix("::/0"),
                        Netbase::IntfId("tunnelTap0"), VrfName("default"), VlanId(4095)),
                 "Value('TypesTest::Holder', ** {'addr': 2001:db8::1, 'prefix': ::/0, "
                 "'intf': 'tunnelTap0', 'vrf': 'default', 'vlan': 4095})");
  expectTextForm(Holder(),
                 "Value('TypesTest::Holder', ** {'addr': 0.0.0.0, "
                 "'prefix': 0.0.0.0/0, 'intf': '', 'vrf': '', 'vlan': 0})");

  auto text = [](const std::string& addr, const std::string& intf, const std::string& vrf,
                 const std::string& vlan) {
    return "Value('TypesTest::Holder', ** {'addr': " + addr + ", 'prefix': 10.0.0.0/8, " +
           "'intf': '" + intf + "', 'vrf': '" + vrf + "', 'vlan': " + vlan + "})";
  };
  try {
    Kel::strepToValue<Holder>(text("10.0.0.1", "Ethernet1", std::string(101, 'v'), "1"));
    ADD_FAILURE() << "101-byte VRF name read";
  } catch (const Kel::RangeException& e) {
    EXPECT_EQ(e.attribute(), "vrf");
    EXPECT_EQ(e.text(), "VrfName::value::bytes > VrfName::maxLength not allowed");
  }
  try {
    Kel::strepToValue<Holder>(text("10.0.0.1", "Ethernet1", "red", "4096"));
    ADD_FAILURE() << "VLAN 4096 read";
  } catch (const Kel::RangeException& e) {
    EXPECT_EQ(e.attribute(), "vlan");
    EXPECT_EQ(e.text(), rangeText("VlanId"));
  }
  std::string what = errorText<Kel::ParseError>(
      [&] { Kel::strepToValue<Holder>(text("10.0.0.1", "Foo1", "red", "1")); });
  EXPECT_NE(what.find("Foo1"), std::string::npos) << what;
  EXPECT_THROW(Kel::strepToValue<Holder>(text("10.0.0.01", "Ethernet1", "red", "1")),
               Kel::ParseError);
  EXPECT_THROW(Kel::strepToValue<Holder>(text("10.0.0.1 ", "Ethernet1", "red", "1")),
               Kel::ParseError);
}

}  // namespace
