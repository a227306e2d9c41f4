// Bridging, L3 and the platform's MPLS types. Their text forms and round trips are covered
// with every other value type by the LFIB model's conformance run; here, their bounds, and
// the text forms of RFC 4364's three route distinguisher types and of any other.
#include <gtest/gtest.h>

#include <string>

#include "support/TestUtil.h"
#include "types/Bridging/VlanId.h"
#include "types/L3/RouteDistinguisher.h"
#include "types/L3/VrfName.h"
#include "types/Mpls/MplsTypes.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using L3::RouteDistinguisher;
using L3::VrfName;
using TestSupport::errorText;
using TestSupport::expectTextForm;

std::string rangeText(const std::string& type) {
  return type + "::value < " + type + "::min or > " + type + "::max not allowed";
}

TEST(VlanId, BoundsAndNone) {
  for (int v : {-1, 4096, 1 << 20}) {
    SCOPED_TRACE(v);
    EXPECT_EQ(errorText<Kel::RangeException>([&] { VlanId id(v); }), rangeText("VlanId"));
  }
  EXPECT_EQ(errorText<Kel::RangeException>([] { Kel::strepToValue<VlanId>("70000"); }),
            rangeText("VlanId"));
  EXPECT_EQ(VlanId(4095).value(), 4095);
  EXPECT_EQ(errorText<Kel::RangeException>([] { VlanIdOrNone id(4095); }),
            rangeText("VlanIdOrNone"));
  EXPECT_TRUE(VlanIdOrNone().isNone());
  EXPECT_FALSE(VlanIdOrNone(4094).isNone());
  EXPECT_EQ(VlanIdOrNone::none(), VlanIdOrNone(0));
}

TEST(VrfName, AtMostOneHundredBytesWithoutZeroBytes) {
  const std::string longest(100, 'v');
  VrfName name(longest);
  EXPECT_EQ(name.bytes(), 100u);
  EXPECT_STREQ(name.c_str(), longest.c_str());
  expectTextForm(name, "'" + longest + "'");

  const std::string tooLong = "VrfName::value::bytes > VrfName::maxLength not allowed";
  const std::string over(101, 'v');
  EXPECT_EQ(errorText<Kel::RangeException>([&] { VrfName n(over); }), tooLong);
  EXPECT_EQ(errorText<Kel::RangeException>([&] { Kel::strepToValue<VrfName>("'" + over + "'"); }),
            tooLong);
  // The limit counts the name's bytes, not the characters of its escaped text form.
  const std::string escaped = "'" + std::string(96, 'v') + "\\x01\\n\\'\\\\'";
  EXPECT_EQ(Kel::strepToValue<VrfName>(escaped).bytes(), 100u);
  EXPECT_THROW(VrfName(std::string_view("re\0d", 4)), Kel::RangeException);
  EXPECT_THROW(Kel::strepToValue<VrfName>("'re\\x00d'"), Kel::RangeException);
  for (const char* bad : {"red", "'red", "\"red\"", "'a\\qb'"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Kel::strepToValue<VrfName>(bad), Kel::ParseError);
  }
  EXPECT_EQ(VrfName::defaultVrf(), VrfName("default"));
}

TEST(MplsTypes, ValuesOtherProcessesRelyOn) {
  // Via types are shared by number with other processes.
  EXPECT_EQ(Mpls::LfibViaTypeInstance("viaTypeExternalFec").value(), 10);
  EXPECT_EQ(Mpls::LfibViaTypeInstance("viaTypeMax").value(), 11);
  EXPECT_EQ(Mpls::PayloadTypeInstance("payloadTypeEthernet").value(), 4);
  EXPECT_EQ(Kel::defaultValue<Mpls::LfibViaType>(), Mpls::viaTypeMplsUnknown);
  // Adjacency indices keep the source in their top 4 bits.
  const Kel::EnumInfo& sources = Kel::enumInfo<Mpls::LFib::Source>();
  for (size_t i = 0; i < sources.count; ++i) {
    EXPECT_LT(sources.entries[i].value, 16) << sources.entries[i].name;
  }
}

TEST(RouteDistinguisher, TextFormsOfEachType) {
  struct Case {
    RouteDistinguisher::Bytes bytes;
    const char* text;
  };
  const Case cases[] = {
      {{0, 0, 0xfd, 0xe8, 0, 0, 0, 100}, "65000:100"},
      {{0, 0, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, "65535:4294967295"},
      {{0, 0, 0, 0, 0, 0, 0, 0}, "0:0"},
      {{0, 1, 10, 0, 0, 1, 0, 100}, "10.0.0.1:100"},
      {{0, 1, 255, 255, 255, 255, 255, 255}, "255.255.255.255:65535"},
      {{0, 2, 0xfa, 0x56, 0xea, 0x00, 0, 100}, "4200000000:100"},
      // A 4-octet AS number that would fit two octets keeps its type through an L.
      {{0, 2, 0, 0, 0xfd, 0xe8, 0, 100}, "65000L:100"},
      {{0, 3, 1, 2, 3, 4, 5, 0xab}, "0x00030102030405ab"},
      {{0xff, 0xff, 0, 0, 0, 0, 0, 0}, "0xffff000000000000"},
  };
  for (const Case& c : cases) {
    const RouteDistinguisher rd = RouteDistinguisher::fromBytes(c.bytes);
    EXPECT_EQ(rd.type(), (c.bytes[0] << 8) | c.bytes[1]) << c.text;
    EXPECT_EQ(rd.bytes(), c.bytes) << c.text;
    EXPECT_EQ(rd.stringValue(), c.text);
    EXPECT_EQ(RouteDistinguisher(std::string(c.text)), rd) << c.text;
    expectTextForm(rd, c.text);
  }
  EXPECT_EQ(RouteDistinguisher(), RouteDistinguisher("0:0"));
  EXPECT_EQ(RouteDistinguisher::twoOctetAs(65000, 100), RouteDistinguisher("65000:100"));
  EXPECT_EQ(RouteDistinguisher::ipv4(0x0a000001, 100), RouteDistinguisher("10.0.0.1:100"));
  EXPECT_EQ(RouteDistinguisher::fourOctetAs(4200000000u, 100),
            RouteDistinguisher("4200000000:100"));
  // Another spelling of a type 0 value reads to it, and writes back in its own form.
  EXPECT_EQ(RouteDistinguisher("0x0000FDE800000064").stringValue(), "65000:100");
  EXPECT_LT(RouteDistinguisher("65000:100"), RouteDistinguisher("10.0.0.1:1"));
}

TEST(RouteDistinguisher, RefusesBadTextNamingIt) {
  struct Case {
    const char* text;
    const char* why;
  };
  for (const Case& c : {
           Case{"", "expected ADMINISTRATOR:NUMBER, or 0x and 16 hex digits"},
           Case{"65000", "expected ADMINISTRATOR:NUMBER, or 0x and 16 hex digits"},
           Case{"1:2:3", "expected ADMINISTRATOR:NUMBER, or 0x and 16 hex digits"},
           Case{"65000:", "assigned number '' is not a number from 0 to 4294967295"},
           Case{"65000:4294967296",
                "assigned number '4294967296' is not a number from 0 to 4294967295"},
           Case{"65000:-1", "assigned number '-1' is not a number from 0 to 4294967295"},
           Case{"4294967296:1", "AS number '4294967296' is not a number from 0 to 4294967295"},
           Case{"as1:1", "AS number 'as1' is not a number from 0 to 4294967295"},
           Case{"4200000000:65536", "assigned number 65536 above 65535 after a 4-octet AS number"},
           Case{"1L:70000", "assigned number 70000 above 65535 after a 4-octet AS number"},
           Case{"10.0.0.1:65536", "assigned number 65536 above 65535 after an IPv4 address"},
           Case{"10.0.1:1", "invalid IPv4 address '10.0.1'"},
           Case{"0x0003", "expected 16 hex digits after 0x"},
           Case{"0x00030000000000000", "expected 16 hex digits after 0x"},
           Case{"0x000300000000000g", "expected 16 hex digits after 0x"},
       }) {
    EXPECT_EQ(
        errorText<Kel::ParseError>([&] { (void)RouteDistinguisher(std::string_view(c.text)); }),
        std::string("invalid route distinguisher '") + c.text + "': " + c.why);
  }
  // Inside a text form, the reader names the offset and the reason.
  EXPECT_EQ(
      errorText<Kel::ParseError>([] { Kel::strepToValue<RouteDistinguisher>("10.0.0.1:65536"); }),
      "expected a route distinguisher (assigned number 65536 above 65535 after an IPv4 "
      "address) at offset 0, found \"10.0.0.1:65536\"");
}

}  // namespace
