// Trace configuration and sinks, and the operator log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kel/Exception.h"
#include "Kel/Log.h"
#include "Kel/Trace.h"

namespace {

KEL_LOG_MESSAGE(DEMO_LABEL_CONFLICT, "MPLS", "VRF_LABEL_CONFLICT", Kel::LogSeverity::warning,
                "Dynamic VRF label {} is claimed by more than one source",
                "Two dynamic sources assigned the same label; it is withdrawn.",
                "Remove one of the conflicting assignments.");

TEST(Trace, ConfigurationSelectsFacilitiesAndLevels) {
  Kel::TraceFacility alpha("Alpha");
  Kel::TraceFacility alphabet("Alphabet");
  Kel::TraceFacility beta("Beta");
  struct Case {
    const char* config;
    uint32_t alpha, alphabet, beta;
  };
  const Case cases[] = {
      {"Alpha/0-9", 0x3ff, 0, 0},
      {"Alpha*/135", 0x2a, 0x2a, 0},
      {"Alpha/0-25-7", 0xe7, 0, 0},
      {"Alpha/*", 0x3ff, 0, 0},
      {"*/2,Beta/4", 0x4, 0x4, 0x10},
      {"Alpha/1,Alpha/2", 0x4, 0, 0},
      {"Alpha*/9,Alphabet/0", 0x200, 0x1, 0},
      {"Beta/3,", 0, 0, 0x8},
      {"", 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.config);
    Kel::traceConfigIs(c.config);
    EXPECT_EQ(Kel::traceConfig(), c.config);
    EXPECT_EQ(alpha.levels(), c.alpha);
    EXPECT_EQ(alphabet.levels(), c.alphabet);
    EXPECT_EQ(beta.levels(), c.beta);
  }
  Kel::traceConfigIs("Gamma/3");
  Kel::TraceFacility gamma("Gamma");  // created after the configuration
  EXPECT_TRUE(gamma.enabled(3));
  EXPECT_FALSE(gamma.enabled(2));

  Kel::traceConfigIs("Alpha/5");
  for (const char* bad : {"Alpha", "Alpha/x", "Alpha/5-3", "Alpha/3-", "/3", "Beta/1,Alpha",
                          "Alpha/1 "}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(Kel::traceConfigIs(bad), Kel::ParseError);
    EXPECT_EQ(Kel::traceConfig(), "Alpha/5");
    EXPECT_EQ(alpha.levels(), 0x20u);
    EXPECT_EQ(beta.levels(), 0u);
  }
  Kel::traceConfigIs("");
}

TEST(Trace, SinkReceivesEnabledLinesOnly) {
  std::vector<std::string> lines;
  Kel::traceSinkIs([&](const Kel::TraceFacility& f, int level, std::string_view message) {
    lines.push_back(fmt::format("{}|{}|{}", f.name(), level, message));
  });
  Kel::TraceFacility trace("MplsLfibWriter");
  Kel::traceConfigIs("MplsLfibWriter/8");
  int evaluated = 0;
  auto arg = [&] { return ++evaluated; };
  KEL_TRACE(trace, 7, "off {}", arg());
  EXPECT_EQ(evaluated, 0);
  KEL_TRACE(trace, 8, "lfibRouteIs routeKey: {} viaType: {}", arg(), "x");
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(lines,
            std::vector<std::string>{"MplsLfibWriter|8|lfibRouteIs routeKey: 1 viaType: x"});
  Kel::traceSinkIs({});
  Kel::traceConfigIs("");
}

TEST(Log, CatalogueLineThroughSink) {
  std::vector<std::string> lines;  // the entry's mnemonic, then the line
  Kel::logSinkIs([&](const Kel::LogMessage& m, std::string_view line) {
    lines.push_back(fmt::format("{} {}", m.mnemonic, line));
  });
  Kel::log(DEMO_LABEL_CONFLICT, 100);
  Kel::logSinkIs({});
  EXPECT_EQ(lines, std::vector<std::string>{"VRF_LABEL_CONFLICT %MPLS-4-VRF_LABEL_CONFLICT: "
                                            "Dynamic VRF label 100 is claimed by more than one "
                                            "source"});
}

}  // namespace
