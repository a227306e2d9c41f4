// The route file parser: every route form, with its options and comments, into the
// consolidated routes the LFIB writer takes; each kind of error with its exact message.
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "support/TestUtil.h"
#include "tools/mplsctl/RouteFile.h"
#include "tools/mplsd/StaticRoute.h"

namespace {

using namespace Mpls;
using Mplsctl::parseRouteFile;
using Mplsctl::ParsedRoute;
using Mplsctl::RouteFileError;

LfibMplsVia mplsVia(const char* nextHop, const char* intf, Netbase::MplsLabelAction action,
                    Netbase::MplsLabelStack stack, uint32_t weight = 1) {
  LfibMplsVia v(LfibViaKey(), Netbase::IpGenAddr(nextHop), action,
                Netbase::UnboundedMplsLabelOperation(action, stack), false);
  v.intfIs(Netbase::IntfId(intf));
  v.weightIs(weight);
  return v;
}

ConsolidatedLfibRoute route(uint32_t label, LfibViaType type, LFib::Source source = LFib::sourceStatic,
                            uint8_t metric = 0, LfibViaSetType setType = viaSetTypeEcmp) {
  ConsolidatedLfibRoute r(RouteKey(label), source, FwdEqvClass(), metric, type);
  r.viaSetTypeIs(setType);
  return r;
}

std::string errorOf(const std::string& text) {
  return TestSupport::errorText<RouteFileError>([&] { parseRouteFile(text, "routes.txt"); });
}

TEST(RouteFile, EveryRouteForm) {
  const std::vector<ParsedRoute> routes = parseRouteFile(
      "# comment line\n"
      "\n"
      "100 swap 200 via 10.0.0.1 dev Ethernet1 weight 3 via 10.0.0.3 dev Et4\n"
      "  101\tpop via 10.0.0.2 dev Ethernet2   # trailing comment\n"
      "102 push 300/301 via 2001:db8::1 dev Ethernet3 metric 7 source ldp\n"
      "16 pop lookup vrf red ipv4\n"
      "17 pop lookup auto source vrf-label\r\n"
      "103 pseudowire dev Pseudowire1 source pseudowire\n"
      "104 swap 204 via 10.0.1.1 dev Ethernet5 via 10.0.1.1 dev Ethernet5 weight 2",
      "routes.txt");
  ASSERT_EQ(routes.size(), 7u);

  // A via of weight N is N vias that differ by weight only: the writer counts them.
  ConsolidatedLfibRoute swap = route(100, viaTypeMplsIp, LFib::sourceStatic, 0, viaSetTypeUcmp);
  for (uint32_t w = 1; w <= 3; ++w) {
    swap.mplsViaIs(mplsVia("10.0.0.1", "Ethernet1", Netbase::labelActionSwap, {200}, w));
  }
  swap.mplsViaIs(mplsVia("10.0.0.3", "Ethernet4", Netbase::labelActionSwap, {200}));
  EXPECT_EQ(routes[0].route, swap);
  EXPECT_EQ(routes[0].line, 3u);
  EXPECT_EQ(routes[0].vias, 2u);

  ConsolidatedLfibRoute pop = route(101, viaTypeMplsIp);
  pop.mplsViaIs(mplsVia("10.0.0.2", "Ethernet2", Netbase::labelActionPop, {}));
  EXPECT_EQ(routes[1].route, pop);

  ConsolidatedLfibRoute push = route(102, viaTypeMplsIp, LFib::sourceLdp, 7);
  push.mplsViaIs(mplsVia("2001:db8::1", "Ethernet3", Netbase::labelActionPush, {300, 301}));
  EXPECT_EQ(routes[2].route, push);

  ConsolidatedLfibRoute lookup = route(16, viaTypeIpLookup);
  lookup.ipLookupViaIs(LfibIpLookupVia(LfibViaKey(), L3::VrfName("red"), payloadTypeIpv4));
  EXPECT_EQ(routes[3].route, lookup);

  ConsolidatedLfibRoute lookupDefault = route(17, viaTypeIpLookup, LFib::sourceVrfLabel);
  lookupDefault.ipLookupViaIs(
      LfibIpLookupVia(LfibViaKey(), L3::VrfName::defaultVrf(), payloadTypeAutoDecide));
  EXPECT_EQ(routes[4].route, lookupDefault);

  ConsolidatedLfibRoute pw = route(103, viaTypeMplsPseudowire, LFib::sourcePseudowire);
  pw.pwViaIs(LfibPwVia(LfibViaKey(), Netbase::IntfId("Pseudowire1")));
  EXPECT_EQ(routes[5].route, pw);

  // The same next hop twice: the weights add up.
  ConsolidatedLfibRoute twice = route(104, viaTypeMplsIp, LFib::sourceStatic, 0, viaSetTypeUcmp);
  for (uint32_t w = 1; w <= 3; ++w) {
    twice.mplsViaIs(mplsVia("10.0.1.1", "Ethernet5", Netbase::labelActionSwap, {204}, w));
  }
  EXPECT_EQ(routes[6].route, twice);
  EXPECT_EQ(routes[6].vias, 1u);

  EXPECT_TRUE(parseRouteFile("", "empty.txt").empty());
  EXPECT_TRUE(parseRouteFile("# nothing\n\n   \n", "empty.txt").empty());
}

TEST(RouteFile, ErrorsNameFileLineColumnAndWhatWasExpected) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"100 swap", "routes.txt:1:9: expected a label after 'swap', found end of line"},
      {"100 push 300/ via 10.0.0.1 dev Ethernet1",
       "routes.txt:1:14: expected a label after '/', found '300/'"},
      {"100 swap 1048576 via 10.0.0.1 dev Ethernet1",
       "routes.txt:1:10: label '1048576' out of range 0..1048575"},
      {"100 swap 1/2/3/4/5/6/7/8/9/10/11/12/13/14/15/16/17 via 10.0.0.1 dev Ethernet1",
       "routes.txt:1:49: label stack '1/2/3/4/5/6/7/8/9/10/11/12/13/14/15/16/17' has more than 16 labels"},
      {"abc pop via 10.0.0.1 dev Ethernet1", "routes.txt:1:1: expected an incoming label, found 'abc'"},
      {"3 pop via 10.0.0.1 dev Ethernet1", "routes.txt:1:1: incoming label '3' out of range 16..1048575"},
      {"100", "routes.txt:1:4: expected 'swap', 'push', 'pop' or 'pseudowire', found end of line"},
      {"100 jump", "routes.txt:1:5: expected 'swap', 'push', 'pop' or 'pseudowire', found 'jump'"},
      {"100 pop", "routes.txt:1:8: expected 'via', found end of line"},
      {"100 pop via 10.0.0.300 dev Ethernet1",
       "routes.txt:1:13: expected an IPv4 or IPv6 address after 'via', found '10.0.0.300'"},
      {"100 pop via 10.0.0.1 Ethernet1",
       "routes.txt:1:22: expected 'dev' after the next hop, found 'Ethernet1'"},
      {"100 pop via 10.0.0.1 dev Bogus1",
       "routes.txt:1:26: expected an interface name after 'dev', found 'Bogus1'"},
      {"100 pop via 10.0.0.1 dev Ethernet1 weight 0",
       "routes.txt:1:43: weight '0' out of range 1..255"},
      {"100 pop via 10.0.0.1 dev Ethernet1 weight 200 via 10.0.0.1 dev Ethernet1 weight 56",
       "routes.txt:1:47: via 10.0.0.1 dev Ethernet1 has a total weight above 255"},
      {"100 pop via 10.0.0.1 dev Ethernet1 source isis",
       "routes.txt:1:43: expected a source name (static, ldp, rsvp, bgp-lu, isis-sr, ospf-sr, bgp, "
       "evpn, mldp, pseudowire, vrf-label, sr-te, ti-lfa) after 'source', found 'isis'"},
      {"100 pop via 10.0.0.1 dev Ethernet1 metric 256",
       "routes.txt:1:43: metric '256' out of range 0..255"},
      {"100 pop via 10.0.0.1 dev Ethernet1 metric 1 metric 2",
       "routes.txt:1:45: expected 'source' or end of line, found 'metric'"},
      {"100 pop via 10.0.0.1 dev Ethernet1 metric 1 via 10.0.0.2 dev Ethernet2",
       "routes.txt:1:45: expected 'source' or end of line, found 'via'"},
      {"100 pop via 10.0.0.1 dev Ethernet1 fec 10.0.0.0/8",
       "routes.txt:1:36: expected 'via', 'source', 'metric' or end of line, found 'fec'"},
      {"16 pop lookup", "routes.txt:1:14: expected 'vrf', 'ipv4', 'ipv6' or 'auto' after 'lookup', found end of line"},
      {"16 pop lookup vrf red", "routes.txt:1:22: expected 'ipv4', 'ipv6' or 'auto' after the VRF name, found end of line"},
      {"16 pop lookup ipv4 metric 5", "routes.txt:1:27: a lookup route takes metric 0 only"},
      {"16 pop lookup ipv4 via 10.0.0.1 dev Ethernet1",
       "routes.txt:1:20: expected 'source', 'metric' or end of line, found 'via'"},
      {"16 pop lookup vrf " + std::string(101, 'v') + " ipv4",
       "routes.txt:1:19: VRF name '" + std::string(64, 'v') + "'... (101 bytes) longer than 100 bytes"},
      // Input in messages: control bytes escaped, long tokens cut, binary and long lines refused.
      {"100 \x1b[31mswap", "routes.txt:1:5: expected 'swap', 'push', 'pop' or 'pseudowire', found "
                           "'\\x1b[31mswap'"},
      {"100 " + std::string(100000, 'x'), "routes.txt:1:1: line longer than 65536 bytes"},
      {std::string("101 p\0p", 7), "routes.txt:1:6: a NUL byte: not a route file"},
      {"103 pseudowire Pseudowire1", "routes.txt:1:16: expected 'dev' after 'pseudowire', found 'Pseudowire1'"},
      {"100 pop via 10.0.0.1 dev Ethernet1\n# again\n100 swap 5 via 10.0.0.2 dev Ethernet2",
       "routes.txt:3:1: label 100 is already routed on line 1"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(errorOf(text), message) << text;
  }

  // A route may have 128 vias, not 129.
  std::string wide = "100 pop";
  for (int n = 1; n <= 129; ++n) {
    wide += " via 10.0." + std::to_string(n / 250) + "." + std::to_string(n % 250 + 1) + " dev Ethernet1";
  }
  const std::string error = errorOf(wide);
  EXPECT_THAT(error, ::testing::StartsWith("routes.txt:1:"));
  EXPECT_THAT(error, ::testing::HasSubstr(": more than 128 vias"));
  wide.resize(wide.rfind(" via"));
  EXPECT_EQ(parseRouteFile(wide, "routes.txt").at(0).vias, 128u);

  // What is not a route file at all.
  EXPECT_EQ(TestSupport::errorText<RouteFileError>([] { Mplsctl::readRouteFile("/"); }),
            "/: is a directory, not a route file");
  EXPECT_EQ(TestSupport::errorText<RouteFileError>([] { Mplsctl::readRouteFile("/dev/zero"); }),
            "/dev/zero: longer than 268435456 bytes: not a route file");
}

// A file long enough to be parsed in two halves on two threads: the first error of the
// file is reported, whichever half finds it, with the line numbers of the whole file.
TEST(RouteFile, LongFilesReportTheirFirstError) {
  constexpr uint32_t kLines = 6000;  // about 400 KB; the second half starts near line 3000
  auto fileWith = [](const std::map<uint32_t, std::string>& replaced, uint32_t lines) {
    std::string text;
    for (uint32_t line = 1; line <= lines; ++line) {
      auto it = replaced.find(line);
      text += it != replaced.end()
                  ? it->second
                  : fmt::format("{} swap {} via 10.0.{}.{} dev Ethernet{} via 10.1.{}.{} dev "
                                "Ethernet{} source ldp",
                                line + 15, line + 100000, line / 250, line % 250 + 1, line % 32 + 1,
                                line / 250, line % 250 + 1, line % 7 + 1);
      text += "\n";
    }
    return text;
  };
  const std::vector<ParsedRoute> routes =
      parseRouteFile(fileWith({{5000, "# comment"}}, kLines), "routes.txt");
  ASSERT_EQ(routes.size(), kLines - 1);
  EXPECT_EQ(routes[4999].line, 5001u);
  EXPECT_EQ(routes[4999].route.key(), RouteKey(5016));
  EXPECT_EQ(routes[4999].route.mplsVias(), 2u);

  const std::string bad = "x pop via 10.0.0.1 dev Ethernet1";
  const std::string again = "  25 pop via 10.0.0.1 dev Ethernet1";  // line 10's label
  const std::vector<std::pair<std::map<uint32_t, std::string>, std::string>> cases = {
      {{{100, bad}, {4000, bad}}, "routes.txt:100:1: expected an incoming label, found 'x'"},
      {{{4000, bad}}, "routes.txt:4000:1: expected an incoming label, found 'x'"},
      {{{4500, again}, {4800, bad}}, "routes.txt:4500:3: label 25 is already routed on line 10"},
      {{{4200, bad}, {4600, again}}, "routes.txt:4200:1: expected an incoming label, found 'x'"},
      {{{50, again}, {4000, bad}}, "routes.txt:50:3: label 25 is already routed on line 10"},
  };
  for (const auto& [replaced, message] : cases) {
    EXPECT_EQ(errorOf(fileWith(replaced, kLines)), message) << message;
  }

  // A file of megabytes is mapped, not copied: the same routes; one cut short while it is
  // parsed is that error, whatever the parse made of the rest.
  const std::string path = fmt::format("/tmp/route-file-test-{}.txt", ::getpid());
  std::ofstream(path) << fileWith({}, 20000);
  EXPECT_EQ(Mplsctl::readRouteList(path).size(), 20000u);
  EXPECT_EQ(TestSupport::errorText<Mplsctl::LineFileError>([&] {
              Mplsctl::parseLineFile(path, "route file", [&](std::string_view text,
                                                             const std::string& name) {
                EXPECT_EQ(::truncate(path.c_str(), 4096), 0);
                return parseRouteFile(text, name);
              });
            }),
            path + ": cut short while being read");
  ::unlink(path.c_str());
}

}  // namespace

namespace {

// Read as configuration: one route per label and metric, printed back line for line.
TEST(RouteFile, ConfigurationRoutesPrintBackToTheirLines) {
  const std::vector<std::string> lines = {
      "100 swap 200 via 10.0.0.1 dev Ethernet1 weight 3 via 10.0.0.3 dev Ethernet4",
      "100 pop via 10.0.0.2 dev Ethernet2 metric 7",
      "102 push 300/301 via 2001:db8::1 dev Ethernet3",
      "16 pop lookup vrf red auto",
      "103 pseudowire dev Pseudowire1"};
  std::string text;
  for (const std::string& l : lines) {
    text += l + "\n";
  }
  const std::vector<ParsedRoute> routes =
      parseRouteFile(text, "config.txt", Mplsctl::RouteFileUse::config);
  ASSERT_EQ(routes.size(), lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(Mplsctl::routeLine(routes[i].config), lines[i]);
    EXPECT_FALSE(routes[i].route);  // no LFIB route is made for configuration
  }
  EXPECT_EQ(routes[1].config.key(), RouteKeyAndMetric(RouteKey(100), RouteMetric(7)));
  EXPECT_EQ(TestSupport::errorText<RouteFileError>([&] {
              parseRouteFile(text + "100 pop via 10.0.0.9 dev Ethernet9 metric 7\n", "config.txt",
                             Mplsctl::RouteFileUse::config);
            }),
            "config.txt:6:1: label 100 metric 7 is already routed on line 2");
  // Loaded, the configured route is the LFIB route the file describes.
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(Mplsd::lfibRouteOf(routes[i].config),
              parseRouteFile(lines[i], "load.txt").at(0).route) << lines[i];
  }
}

}  // namespace
