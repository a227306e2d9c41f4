// Netbase::IntfId and its interface-name parser.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "support/TestUtil.h"
#include "types/Netbase/IntfId.h"

namespace {

using Netbase::IntfId;
using TestSupport::errorText;
using TestSupport::expectTextForm;

std::string quoted(const std::string& name) { return "'" + name + "'"; }

TEST(IntfId, CanonicalNamesRoundTrip) {
  using namespace Netbase;
  const std::pair<IntfType, std::vector<const char*>> names[] = {
      {intfTypeEthernet,
       {"Ethernet1", "Ethernet3/1", "Ethernet3/1/2", "Ethernet3/1.100", "Ethernet3/1/2.7",
        "Ethernet1/0", "Ethernet1.1", "Ethernet16777215/1022/62.65535"}},
      {intfTypePortChannel, {"Port-Channel10", "Port-Channel10.20"}},
      {intfTypeVlan, {"Vlan1", "Vlan4094"}},
      {intfTypeManagement, {"Management1", "Management1/1"}},
      {intfTypeLoopback, {"Loopback0"}}, {intfTypeTunnel, {"Tunnel5"}},
      {intfTypeVxlan, {"Vxlan1"}}, {intfTypeNull, {"Null0"}},
      {intfTypeRecircChannel, {"Recirc-Channel1"}}, {intfTypePseudowire, {"Pseudowire1"}},
      {intfTypeFabric, {"Fabric1"}}, {intfTypeDps, {"Dps1"}}, {intfTypeTunnelTap, {"tunnelTap0"}}};
  for (const auto& [type, list] : names) {
    for (const char* name : list) {
      SCOPED_TRACE(name);
      IntfId id(name);
      EXPECT_TRUE(static_cast<bool>(id));
      EXPECT_EQ(id.type(), type);
      EXPECT_EQ(GenericIntfId::typeId(id), static_cast<uint32_t>(type));
      expectTextForm(id, quoted(name));
    }
  }
  EXPECT_EQ(IntfId("tunnelTap0").typeId(), 60u);
  EXPECT_EQ(IntfId("Ethernet1").typeId(), 1u);
  EXPECT_EQ(IntfId("Ethernet3/1").hash(5), IntfId("et3/1").hash(5));
}

TEST(IntfId, ReadsShortAndCaseInsensitiveTypeNames) {
  for (const auto& c : std::initializer_list<std::pair<const char*, const char*>>{
           {"et1", "Ethernet1"}, {"ETHERNET1", "Ethernet1"},
           {"eThErNeT3/1.100", "Ethernet3/1.100"}, {"Et3/1/2", "Ethernet3/1/2"},
           {"po10", "Port-Channel10"}, {"PORT-CHANNEL10.20", "Port-Channel10.20"},
           {"vl100", "Vlan100"}, {"VLAN4094", "Vlan4094"}, {"lo0", "Loopback0"},
           {"ma1/1", "Management1/1"}, {"tu5", "Tunnel5"}, {"vx1", "Vxlan1"}, {"nu0", "Null0"},
           {"rc1", "Recirc-Channel1"}, {"pw1", "Pseudowire1"}, {"fa1", "Fabric1"},
           {"DPS1", "Dps1"}, {"tunneltap0", "tunnelTap0"}, {"TUNNELTAP3", "tunnelTap3"}}) {
    SCOPED_TRACE(c.first);
    IntfId id(c.first);
    EXPECT_EQ(id, IntfId(c.second));
    EXPECT_EQ(Kel::strepToValue<IntfId>(quoted(c.first)), id);
  }
}

TEST(IntfId, OrdersNamesNaturally) {
  const std::vector<std::string> sorted = {
      "Ethernet1",     "Ethernet1/1",     "Ethernet1/1/1",   "Ethernet1/2", "Ethernet1/10",
      "Ethernet2",     "Ethernet3/1",     "Ethernet3/1.100", "Ethernet3/2", "Ethernet10",
      "Port-Channel1", "Port-Channel1.1", "Port-Channel2",   "Vlan1",       "Vlan4094",
      "Loopback0",     "Management1",     "tunnelTap0"};
  EXPECT_TRUE(IntfId() < IntfId(sorted.front()));
  for (size_t i = 0; i + 1 < sorted.size(); ++i) {
    SCOPED_TRACE(sorted[i] + " < " + sorted[i + 1]);
    IntfId a(sorted[i]);
    IntfId b(sorted[i + 1]);
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_FALSE(a == b);
  }
}

TEST(IntfId, EmptyNameIsTheDefaultAndFalse) {
  EXPECT_EQ(IntfId(""), IntfId());
  EXPECT_FALSE(static_cast<bool>(IntfId()));
  EXPECT_EQ(IntfId().typeId(), 0u);
  expectTextForm(IntfId(), "''");

  IntfId id("Ethernet7");
  id.handleInitialized("");
  EXPECT_EQ(id, IntfId());
  id.handleInitialized("po3");
  EXPECT_EQ(id, IntfId("Port-Channel3"));
}

TEST(IntfId, UnknownOrNonCanonicalEncodingsUseTheRawForm) {
  struct Case {
    uint32_t word0;
    uint32_t word1;
    const char* text;
  };
  // Type 99, no type, Vlan5000, a third number without a second, Port-Channel1/1.
  for (const Case& c :
       {Case{0x63000001, 0x5, "IntfId(0x63000001,0x5)"}, Case{0x0, 0x1, "IntfId(0x0,0x1)"},
        Case{0x03001388, 0x0, "IntfId(0x3001388,0x0)"},
        Case{0x01000001, 0x00010000, "IntfId(0x1000001,0x10000)"},
        Case{0x02000001, 0x00800000, "IntfId(0x2000001,0x800000)"}}) {
    SCOPED_TRACE(c.text);
    IntfId id(c.word0, c.word1);
    EXPECT_TRUE(static_cast<bool>(id));
    EXPECT_EQ(IntfId(c.text), id);
    expectTextForm(id, quoted(c.text));
  }
  EXPECT_EQ(IntfId(0xff000000, 0).typeId(), 0xffu);
  // A raw text that encodes a canonical name reads as that name.
  EXPECT_EQ(IntfId("IntfId(0x1000001,0x0)"), IntfId("Ethernet1"));
}

TEST(IntfId, RefusesBadNamesNamingThem) {
  for (const char* name :
       {"Foo1", "Ethernet", "Ethernet1/2/3/4", "Vlan0", "Vlan4095", "Loopback1.5", "Ethernet1.0",
        "Null1", "Ethernet1x", "Ethernet 1", "Ethernet99999999", "Ethernet4294967296",
        "Ethernet0", "Ethernet01", "Ethernet1/", "Ethernet1.", "Ethernet1.65536", "Ethernet1/1023",
        "Ethernet1/1/63", "Port-Channel1/1", "Management1/1/1", "Vlan1.1", "Ethernet-1",
        "Ethernet+1", "1", "/1", " Ethernet1", "Ethernet1 ", "IntfId(0x1)", "IntfId(0x1,0x)",
        "IntfId(0x1,0x2,0x3)", "IntfId(0x100000000,0x0)"}) {
    SCOPED_TRACE(name);
    std::string what = errorText<Kel::ParseError>([&] { IntfId id(name); });
    EXPECT_NE(what.find(name), std::string::npos) << what;
    what = errorText<Kel::ParseError>([&] { Kel::strepToValue<IntfId>(quoted(name)); });
    EXPECT_NE(what.find(name), std::string::npos) << what;

    IntfId id("Ethernet7");
    EXPECT_THROW(id.handleInitialized(name), Kel::ParseError);
    EXPECT_EQ(id, IntfId("Ethernet7"));
  }
  // The text form is quoted: a bare name is not one.
  EXPECT_THROW(Kel::strepToValue<IntfId>("Ethernet1"), Kel::ParseError);
}

}  // namespace
