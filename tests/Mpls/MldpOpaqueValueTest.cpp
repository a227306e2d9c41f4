// mLDP opaque values: every type in both modes, from octets laid out by hand after RFC
// 6388, 6512, 6826 and 7246; hex dumps of what does not parse; malformed FEC elements of
// recursive values; the bound on nesting; the summary re-flow at 44 columns.
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "Mpls/MldpOpaqueValue.h"

namespace {

using namespace Mpls;

std::string octets(std::initializer_list<int> list) {
  std::string s;
  for (int o : list) {
    s += static_cast<char>(o);
  }
  return s;
}

std::string oneLine(const std::string& oVal) {
  return mldpOpaqueValTlvParserFactory(oVal)->getOpaqueString(false, false);
}
std::string summary(const std::string& oVal) {
  return mldpOpaqueValTlvParserFactory(oVal)->getOpaqueString(true, false);
}

// Addresses used below, in network order.
#define V6_2001_DB8_1 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1
#define V6_2001_DB8_2 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2
#define V6_FF3E_1 0xff, 0x3e, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1
#define V6_FF05_1 0xff, 0x05, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1
#define V6_2001_DB8_1_2_3_4_5_6 0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6
#define V6_FF3E_1_2_3_4_5_6_7 0xff, 0x3e, 0, 1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0, 7

TEST(MldpOpaqueValTlvParser, RendersEveryTransitTypeInBothModes) {
  struct Case {
    std::string oVal;
    std::string line;
    std::string summary = "";  // empty: the same as the line
  };
  const Case cases[] = {
      {octets({0x01, 0x00, 0x04, 0x00, 0x00, 0x00, 0x2a}), "LSP ID: 42"},
      {octets({1, 0, 4, 0xff, 0xff, 0xff, 0xff}), "LSP ID: 4294967295"},
      {octets({3, 0, 8, 10, 0, 0, 1, 232, 1, 1, 1}), "S: 10.0.0.1 G: 232.1.1.1"},
      // Source and group do not fit 44 columns together.
      {octets({4, 0, 32, V6_2001_DB8_1_2_3_4_5_6, V6_FF3E_1_2_3_4_5_6_7}),
       "S: 2001:db8:1:2:3:4:5:6 G: ff3e:1:2:3:4:5:6:7",
       "S: 2001:db8:1:2:3:4:5:6\n G: ff3e:1:2:3:4:5:6:7"},
      {octets({0x05, 0x00, 0x09, 0x20, 0x0a, 0x00, 0x00, 0x01, 0xe1, 0x01, 0x01, 0x01}),
       "RP: 10.0.0.1/32 G: 225.1.1.1"},
      {octets({6, 0, 33, 64, V6_2001_DB8_2, V6_FF05_1}), "RP: 2001:db8::2/64 G: ff05::1"},
      // RD type 0, AS 65000, number 100: exactly 42 columns.
      {octets({9, 0, 17, 24, 10, 0, 0, 2, 239, 1, 1, 1, 0, 0, 0xfd, 0xe8, 0, 0, 0, 100}),
       "RP: 10.0.0.2/24 G: 239.1.1.1 RD: 65000:100"},
      // RD type 1, 10.0.0.1 number 7: 45 columns, the RD goes to a line of its own.
      {octets({10, 0, 41, 128, V6_2001_DB8_2, V6_FF05_1, 0, 1, 10, 0, 0, 1, 0, 7}),
       "RP: 2001:db8::2/128 G: ff05::1 RD: 10.0.0.1:7",
       "RP: 2001:db8::2/128 G: ff05::1\n RD: 10.0.0.1:7"},
      // RD type 2, AS 4200000000 (0xfa56ea00), number 100.
      {octets({250, 0, 16, 10, 0, 0, 1, 232, 1, 1, 1, 0, 2, 0xfa, 0x56, 0xea, 0x00, 0, 100}),
       "S: 10.0.0.1 G: 232.1.1.1 RD: 4200000000:100"},
      // RD of type 3: its octets in hex.
      {octets({251, 0, 40, V6_2001_DB8_1, V6_FF3E_1, 0, 3, 1, 2, 3, 4, 5, 6}),
       "S: 2001:db8::1 G: ff3e::1 RD: 0x0003010203040506",
       "S: 2001:db8::1 G: ff3e::1\n RD: 0x0003010203040506"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    auto parser = mldpOpaqueValTlvParserFactory(c.oVal);
    EXPECT_TRUE(parser->initialized());
    EXPECT_EQ(parser->getOpaqueString(false, false), c.line);
    EXPECT_EQ(parser->getOpaqueString(true, false), c.summary.empty() ? c.line : c.summary);
    // json always means one line.
    EXPECT_EQ(parser->getOpaqueString(true, true), c.line);
    EXPECT_EQ(parser->getOpaqueString(false, true), c.line);
  }

  // The slot of the type views the input; a record prints its fields a line each.
  auto p = mldpOpaqueValTlvParserFactory(cases[6].oVal);
  const MldpOpaqueValTransitVpnV4BidirTlv& vpn = p->mldpOpaqueValTransitVpnV4BidirTlv();
  ASSERT_TRUE(vpn.valid());
  EXPECT_EQ(vpn.stringValue(true, false), "RP: 10.0.0.2/24\nG: 239.1.1.1\nRD: 65000:100\n");
  EXPECT_TRUE(p->mldpOpaqueValGenTlv().empty());
  EXPECT_EQ(p->mldpOpaqueValUnsupportedTlv().octets(), cases[6].oVal);
  EXPECT_EQ(mldpOpaqueValTlvParserFactory(cases[0].oVal)->mldpOpaqueValGenTlv().lspId(), 42u);
}

TEST(MldpOpaqueValTlvParser, WrongLengthsAndOtherTypesPrintAsHexDump) {
  // The bidir example with Length 8: one line " x%02x" per octet, summary "\x%02x" ten
  // octets to a line.
  const std::string bad = octets({5, 0, 8, 0x20, 10, 0, 0, 1, 0xe1, 1, 1, 1});
  EXPECT_EQ(oneLine(bad), " x05 x00 x08 x20 x0a x00 x00 x01 xe1 x01 x01 x01");
  EXPECT_EQ(summary(bad), "\\x05\\x00\\x08\\x20\\x0a\\x00\\x00\\x01\\xe1\\x01\n \\x01\\x01");
  EXPECT_TRUE(mldpOpaqueValTlvParserFactory(bad)->mldpOpaqueValTransitV4BidirTlv().empty());

  // A V4 source TLV followed by one more octet, and one short of its Length.
  EXPECT_EQ(oneLine(octets({3, 0, 8, 10, 0, 0, 1, 232, 1, 1, 1, 0})),
            " x03 x00 x08 x0a x00 x00 x01 xe8 x01 x01 x01 x00");
  EXPECT_EQ(oneLine(octets({3, 0, 8, 10, 0, 0, 1, 232, 1, 1})),
            " x03 x00 x08 x0a x00 x00 x01 xe8 x01 x01");
  // Reserved, unassigned and extended types, a header cut short, nothing at all.
  EXPECT_EQ(oneLine(octets({0, 0, 1, 7})), " x00 x00 x01 x07");
  EXPECT_EQ(oneLine(octets({2, 0, 0})), " x02 x00 x00");
  EXPECT_EQ(summary(octets({255, 0, 2, 0xab, 0xcd})), "\\xff\\x00\\x02\\xab\\xcd");
  EXPECT_EQ(oneLine(octets({1, 0})), " x01 x00");
  EXPECT_EQ(oneLine(""), "");
  EXPECT_EQ(summary(""), "");

  // At most 128 octets are shown.
  std::string big = octets({99, 0x01, 0x2d});
  big.resize(3 + 0x12d, '\x11');
  const std::string line = oneLine(big);
  EXPECT_EQ(line.size(), 128u * 4);
  EXPECT_EQ(line.substr(0, 16), " x63 x01 x2d x11");
  const std::string wrapped = summary(big);
  EXPECT_EQ(wrapped.size(), 128u * 4 + 12 * 2);  // 13 lines, 12 of them after "\n "
  EXPECT_EQ(wrapped.substr(wrapped.size() - 34), "\n \\x11\\x11\\x11\\x11\\x11\\x11\\x11\\x11");
}

TEST(MldpOpaqueValTlvParser, RecursiveValuesPrintTheirRootAndInnerValue) {
  // RFC 6512: the P2MP FEC element (type 6, family, address length, root, opaque length,
  // opaque value) as the Value of a recursive opaque value.
  const std::string rec = octets({7, 0, 17, 6, 0, 1, 4, 192, 0, 2, 1, 0, 7, 1, 0, 4, 0, 0, 0, 42});
  EXPECT_EQ(oneLine(rec), "Rec: {Root: 192.0.2.1, LSP ID: 42} ");
  EXPECT_EQ(summary(rec), "Rec: {Root: 192.0.2.1, LSP ID: 42 }");
  auto parsed = mldpOpaqueValTlvParserFactory(rec);
  EXPECT_EQ(parsed->mldpOpaqueValRecursiveTlv().fecElementHdr().family(), 1);
  EXPECT_EQ(parsed->mldpOpaqueValRecursiveTlv().fecElementHdr().rootIpLenOctets(), 4);

  // An IPv6 root around a transit source value, a root of two octets (zero-padded), and
  // a recursive value inside another one.
  EXPECT_EQ(oneLine(octets(
                {7, 0, 33, 6, 0, 2, 16, V6_2001_DB8_1, 0, 11, 3, 0, 8, 10, 0, 0, 1, 232, 1, 1, 1})),
            "Rec: {Root: 2001:db8::1, S: 10.0.0.1 G: 232.1.1.1} ");
  EXPECT_EQ(oneLine(octets({7, 0, 15, 6, 0, 1, 2, 10, 1, 0, 7, 1, 0, 4, 0, 0, 0, 9})),
            "Rec: {Root: 10.1.0.0, LSP ID: 9} ");
  EXPECT_EQ(oneLine(octets({7, 0, 30, 6, 0, 1, 4, 1, 1, 1, 1, 0, 20,  //
                            7, 0, 17, 6, 0, 1, 4, 2, 2, 2, 2, 0, 7,  1, 0, 4, 0, 0, 0, 3})),
            "Rec: {Root: 1.1.1.1, Rec: {Root: 2.2.2.2, LSP ID: 3} } ");
  // The inner value with a wrong Length is dumped.
  EXPECT_EQ(oneLine(octets({7, 0, 13, 6, 0, 1, 4, 1, 1, 1, 1, 0, 3, 1, 0, 4})),
            "Rec: {Root: 1.1.1.1, x01 x00 x04} ");

  // VPN recursive: the RD, then the FEC element. Exactly 44 columns before the "}".
  const std::string vpn = octets(
      {8, 0, 25, 0, 0, 0xfd, 0xe8, 0, 0, 0, 1, 6, 0, 1, 4, 10, 0, 0, 9, 0, 7, 1, 0, 4, 0, 0, 0, 5});
  EXPECT_EQ(oneLine(vpn), "Rec: {RD: 65000:1, Root: 10.0.0.9, LSP ID: 5} ");
  EXPECT_EQ(summary(vpn), "Rec: {RD: 65000:1, Root: 10.0.0.9, LSP ID: 5\n }");
  EXPECT_EQ(mldpOpaqueValTlvParserFactory(vpn)->mldpOpaqueValVpnRecursiveTlv().rd(),
            L3::RouteDistinguisher::twoOctetAs(65000, 1));

  // Malformed FEC elements print their message alone; inside another value, in place.
  EXPECT_EQ(oneLine(octets({7, 0, 10, 5, 0, 1, 4, 1, 1, 1, 1, 0, 0})), "bad fec type ");
  EXPECT_EQ(summary(octets({7, 0, 10, 5, 0, 1, 4, 1, 1, 1, 1, 0, 0})), "bad fec type ");
  EXPECT_EQ(oneLine(octets({7, 0, 11, 6, 0, 1, 5, 1, 1, 1, 1, 1, 0, 0})), "bad rootIp length ");
  EXPECT_EQ(oneLine(octets({7, 0, 4, 6, 0, 2, 17})), "bad rootIp length ");
  EXPECT_EQ(oneLine(octets({7, 0, 10, 6, 0, 3, 4, 1, 1, 1, 1, 0, 0})), "bad family ");
  EXPECT_EQ(oneLine(octets({7, 0, 10, 6, 0, 1, 4, 1, 1, 1, 1, 0, 1})), "bad opaque length ");
  EXPECT_EQ(oneLine(octets({7, 0, 6, 6, 0, 1, 4, 1, 1})), "bad opaque length ");
  EXPECT_EQ(
      oneLine(octets({8, 0, 21, 0, 0, 0, 0, 0, 0, 0, 1, 6, 0, 1, 4, 1, 1, 1, 1, 0, 3, 7, 0, 0})),
      "Rec: {RD: 0:1, Root: 1.1.1.1, x07 x00 x00} ");
  EXPECT_EQ(oneLine(octets({7, 0, 17, 6, 0, 1, 4, 1, 1, 1, 1, 0, 7, 7, 0, 4, 6, 0, 1, 5})),
            "Rec: {Root: 1.1.1.1, bad rootIp length } ");
  // Lengths at or below the FEC element's (or the RD's) own are dumped.
  EXPECT_EQ(oneLine(octets({7, 0, 3, 6, 0, 1})), " x07 x00 x03 x06 x00 x01");
  EXPECT_EQ(oneLine(octets({8, 0, 11, 0, 0, 0, 0, 0, 0, 0, 1, 6, 0, 1})),
            " x08 x00 x0b x00 x00 x00 x00 x00 x00 x00 x01 x06 x00 x01");
}

// `levels` recursive values (root 0.0.0.0 of no octets) around the generic value 7. A
// level adds 9 octets, so 7281 levels are the most a 16-bit Length can hold.
std::string nested(int levels) {
  std::string v;
  for (int i = levels; i >= 1; --i) {
    const int n = 7 + 9 * (i - 1);  // the octets this level holds
    const int length = n + 6;
    v += octets({7, (length >> 8) & 0xff, length & 0xff, 6, 0, 1, 0, (n >> 8) & 0xff, n & 0xff});
  }
  return v + octets({1, 0, 4, 0, 0, 0, 7});
}

TEST(MldpOpaqueValTlvParser, NestingIsBoundedAtSixteenLevels) {
  std::string open;
  std::string close;
  for (int i = 0; i < 16; ++i) {
    open += "Rec: {Root: 0.0.0.0, ";
    close += "} ";
  }
  EXPECT_EQ(oneLine(nested(16)), open + "LSP ID: 7" + close);
  EXPECT_EQ(oneLine(nested(17)), open + "nested deeper than 16 levels " + close);
  const std::string deepest = nested(7281);
  ASSERT_EQ(deepest.size(), 65536u);
  EXPECT_EQ(oneLine(deepest), open + "nested deeper than 16 levels " + close);
  const std::string wrapped = summary(deepest);
  EXPECT_NE(wrapped.find("nested deeper than 16 levels "), std::string::npos);
  EXPECT_LT(wrapped.size(), 1000u);
  // 10,000 levels overflow the outer Length: a hex dump of the first 128 octets.
  EXPECT_EQ(oneLine(nested(10000)).size(), 128u * 4);
}

TEST(MldpOpaqueValTlvParser, HeadersAndParsingOnInitialization) {
  const std::string tlv = octets({3, 1, 2, 9});
  MldpOpaqueTlvU8Hdr hdr(tlv);
  EXPECT_TRUE(hdr.valid());
  EXPECT_EQ(hdr.type(), 3);
  EXPECT_EQ(hdr.length(), 0x102);
  EXPECT_EQ(hdr.totalLength(), 0x105u);
  EXPECT_EQ(hdr.getTlvString(), tlv);
  EXPECT_EQ(MldpOpaqueTlvU8Hdr(octets({1, 0, 1, 5, 6})).getTlvString(), octets({1, 0, 1, 5}));
  EXPECT_FALSE(MldpOpaqueTlvU8Hdr(octets({1, 0})).valid());

  const auto fec = MldpFecTlvP2mpElementHdr::fromOctets(octets({6, 0, 2, 16}));
  // familyNbo is the wire's octets as they lie in memory: its number depends on the host.
  const std::string text = Kel::valueToStrep(fec);
  EXPECT_TRUE(
      text.starts_with("Value('Mpls::MldpFecTlvP2mpElementHdr', ** {'type': 6, "
                       "'familyNbo': "))
      << text;
  EXPECT_TRUE(text.ends_with(", 'rootIpLenOctets': 16})")) << text;
  EXPECT_EQ(Kel::strepToValue<MldpFecTlvP2mpElementHdr>(text), fec);

  // Parsing is handleInitialized()'s work: printing before it is refused.
  MldpOpaqueValTlvParser parser(octets({1, 0, 4, 0, 0, 0, 1}));
  EXPECT_FALSE(parser.initialized());
  EXPECT_THROW(parser.getOpaqueString(false, false), Kel::InternalException);
  parser.handleInitialized();
  EXPECT_EQ(parser.getOpaqueString(false, false), "LSP ID: 1");
}

TEST(MldpOpaqueValTlvParserDeathTest, StringValueOfAnInvalidRecordAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string v4Src = octets({3, 0, 8, 10, 0, 0, 1, 232, 1, 1, 1});
  const std::string fatal =
      "^Mpls/MldpOpaqueValue:[0-9]+ .* -- fatal assertion failed\\(valid\\(\\)\\)";
  EXPECT_DEATH(MldpOpaqueValGenTlv(v4Src).stringValue(false, false), fatal);
  EXPECT_DEATH(MldpOpaqueValTransitV6SrcTlv(v4Src).stringValue(true, false), fatal);
  EXPECT_DEATH(MldpOpaqueValTransitV4SrcTlv(v4Src.substr(0, 10)).stringValue(false, false), fatal);
  EXPECT_DEATH(MldpOpaqueValRecursiveTlv().stringValue(false, false), fatal);
  EXPECT_DEATH(MldpOpaqueValVpnRecursiveTlv(octets({8, 0, 11, 0, 0, 0, 0, 0, 0, 0, 0, 6, 0, 1}))
                   .stringValue(false, false),
               fatal);
  EXPECT_EQ(MldpOpaqueValTransitV4SrcTlv(v4Src).stringValue(false, false),
            "S: 10.0.0.1 G: 232.1.1.1");
}

}  // namespace
