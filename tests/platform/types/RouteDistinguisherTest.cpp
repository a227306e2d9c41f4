// L3::RouteDistinguisher: the text forms of RFC 4364's three types and of any other, read
// back, and the errors for text that is none of them.
#include <gtest/gtest.h>

#include <string>

#include "support/TestUtil.h"
#include "types/L3/RouteDistinguisher.h"

namespace {

using L3::RouteDistinguisher;
using TestSupport::errorText;
using TestSupport::expectTextForm;

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
