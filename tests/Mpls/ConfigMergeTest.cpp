// The configuration merges in one process: inputs as plain entities, the directory as a
// Kel::Dir, traces and logs captured.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Kel/Log.h"
#include "Kel/Trace.h"
#include "Mpls/MplsRouteConfigMergeSm.h"
#include "Mpls/VrfLabelConfigMergeSm.h"

namespace {

using namespace Mpls;

RouteKeyAndMetric keyOf(uint32_t label, uint8_t metric = 0) {
  return RouteKeyAndMetric(RouteKey(Netbase::MplsLabel(label)), RouteMetric(metric));
}

Route routeOf(uint32_t label, uint8_t metric, const char* nextHop) {
  Route r;
  r.keyIs(keyOf(label, metric));
  r.actionIs(routeActionPop);
  r.viaIs({RouteVia(Netbase::IpGenAddr(nextHop), Netbase::IntfId("Ethernet1"), 1)});
  return r;
}

class ConfigMerge : public ::testing::Test {
 protected:
  ConfigMerge() {
    Kel::traceConfigIs("MplsRouteConfigMergeSm/7,VrfLabelConfigMergeSm/7");
    Kel::traceSinkIs([this](const Kel::TraceFacility&, int, std::string_view m) {
      traces.emplace_back(m);
    });
    Kel::logSinkIs([this](const Kel::LogMessage&, std::string_view line) {
      logs.emplace_back(line);
    });
  }
  ~ConfigMerge() override {
    Kel::traceSinkIs({});
    Kel::traceConfigIs("");
    Kel::logSinkIs({});
  }
  template <class Input, class Factory>
  Kel::Ptr<Input> dirInput(const std::string& name, Factory factory) {
    auto input = factory(name);
    dir->entityPtrIs(Kel::String(name), input);
    return input;
  }
  bool traced(const std::string& text) const {
    for (const std::string& t : traces) {
      if (t.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  Kel::Dir::Ptr dir = Kel::dirFactory("inputs");
  std::vector<std::string> traces;
  std::vector<std::string> logs;
};

TEST_F(ConfigMerge, RouteKeysBelongToExactlyOneSource) {
  RouteConfig::Ptr out = routeConfigFactory();
  RouteConfigInput::Ptr cli = routeConfigInputFactory("cli");
  cli->routeIs(routeOf(100, 0, "10.0.0.1"));
  cli->routeIs(routeOf(100, 5, "10.0.0.2"));  // the metric is part of the key
  RouteConfigInput::Ptr bgp = dirInput<RouteConfigInput>("bgp", routeConfigInputFactory);
  bgp->routeIs(routeOf(200, 0, "10.0.0.3"));
  bgp->routeIs(routeOf(100, 5, "10.0.0.4"));  // conflicts with the command line

  auto sm = routeConfigMergeSmFactory(out, dir, cli);
  EXPECT_FALSE(out->ready());
  EXPECT_EQ(RouteConfigMergeSmIs(out, dir, cli), sm);
  sm->handleInitialized();
  EXPECT_TRUE(out->ready());
  EXPECT_EQ(out->routes(), 2u);
  EXPECT_EQ(out->route(keyOf(100, 0)), routeOf(100, 0, "10.0.0.1"));
  EXPECT_EQ(out->route(keyOf(200)), routeOf(200, 0, "10.0.0.3"));
  EXPECT_FALSE(out->routeHas(keyOf(100, 5)));
  EXPECT_TRUE(traced("removed merge confict entry for " + Kel::valueToStrep(keyOf(100, 5)) +
                     " with source count 2"));

  // A second directory source takes 200 away; either one giving it up brings it back.
  RouteConfigInput::Ptr ldp = dirInput<RouteConfigInput>("ldp", routeConfigInputFactory);
  ldp->routeIs(routeOf(200, 0, "10.0.0.9"));
  EXPECT_FALSE(out->routeHas(keyOf(200)));
  bgp->routeDel(keyOf(200));
  EXPECT_EQ(out->route(keyOf(200)), routeOf(200, 0, "10.0.0.9"));
  // The lone owner changes its route: the output follows.
  ldp->routeIs(routeOf(200, 0, "10.0.0.8"));
  EXPECT_EQ(out->route(keyOf(200)), routeOf(200, 0, "10.0.0.8"));
  // The command line gives up its conflicting key: the directory's route is used.
  cli->routeDel(keyOf(100, 5));
  EXPECT_EQ(out->route(keyOf(100, 5)), routeOf(100, 5, "10.0.0.4"));
  EXPECT_TRUE(traced("add merged config entry for " + Kel::valueToStrep(keyOf(100, 5)) +
                     " from source bgp"));
  ldp->routeDel(keyOf(200));
  EXPECT_FALSE(out->routeHas(keyOf(200)));
  EXPECT_FALSE(sm->sourceSet(keyOf(200)));
  EXPECT_EQ(sm->sourceSets(), 2u);

  // Dropping the reactor leaves the output as it is and follows nothing more.
  sm = nullptr;
  cli->routeDel(keyOf(100, 0));
  EXPECT_TRUE(out->routeHas(keyOf(100, 0)));
}

TEST_F(ConfigMerge, RouteMergeWithoutSourcesIsReadyAndNothingRunsBeforeStart) {
  RouteConfig::Ptr out = routeConfigFactory();
  RouteConfigInput::Ptr cli = routeConfigInputFactory("cli");
  auto sm = routeConfigMergeSmFactory(out, dir, cli);
  sm->handleInitialized();
  EXPECT_TRUE(out->ready());
  EXPECT_EQ(out->routes(), 0u);
  EXPECT_STREQ(RouteConfigMergeSm::l3NHResolverPath(), "l3/nexthop-resolver/status/mpls");
}

using ConfigMergeDeathTest = ConfigMerge;

TEST_F(ConfigMergeDeathTest, BrokenInputsStopTheAgent) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  RouteConfig::Ptr out = routeConfigFactory();
  RouteConfigInput::Ptr cli = routeConfigInputFactory("cli");
  EXPECT_DEATH(
      {
        auto sm = routeConfigMergeSmFactory(out, dir, cli);
        dirInput<RouteConfigInput>("early", routeConfigInputFactory);
      },
      "initialized\\(\\)");
  EXPECT_DEATH(
      {
        auto sm = routeConfigMergeSmFactory(out, dir, cli);
        sm->handleInitialized();
        sm->handleConfigEntry(Kel::String("nobody"), keyOf(16));
      },
      "routeConfig");
  EXPECT_DEATH(
      {
        auto sm = routeConfigMergeSmFactory(out, dir, cli);
        sm->handleInitialized();
        dirInput<VrfLabelConfigInput>("other", vrfLabelConfigInputFactory);
      },
      "Incorrect type seen inside entityPtr collection");
  EXPECT_DEATH(
      {
        dirInput<RouteConfigInput>("gone", routeConfigInputFactory);
        auto sm = routeConfigMergeSmFactory(out, dir, cli);
        sm->handleInitialized();
        dir->entityPtrDel(Kel::String("gone"));
      },
      "unhandled config-input removal of entry");
  EXPECT_DEATH(
      {
        VrfLabelConfig::Ptr vrfOut = vrfLabelConfigFactory();
        vrfOut->readyIs(true);
        vrfLabelConfigMergeSmFactory(vrfOut, dir, vrfLabelConfigInputFactory("cli"))
            ->handleInitialized();
      },
      "!mergedConfig\\(\\)->ready\\(\\)");
}

VrfLabel vrfLabelOf(uint32_t label, const char* vrf, bool dynamic) {
  return VrfLabel(Netbase::MplsLabel(label), L3::VrfName(vrf), dynamic);
}

TEST_F(ConfigMerge, StaticVrfLabelsWinAndDynamicConflictsAreLogged) {
  VrfLabelConfig::Ptr out = vrfLabelConfigFactory();
  VrfLabelConfigInput::Ptr cli = vrfLabelConfigInputFactory("cli");
  cli->vrfLabelIs(vrfLabelOf(100, "red", false));
  auto a = dirInput<VrfLabelConfigInput>("agentA", vrfLabelConfigInputFactory);
  a->vrfLabelIs(vrfLabelOf(100, "blue", true));  // loses to the static one, silently
  a->vrfLabelIs(vrfLabelOf(200, "green", true));
  auto sm = vrfLabelConfigMergeSmFactory(out, dir, cli);
  sm->handleInitialized();
  EXPECT_TRUE(out->ready());
  EXPECT_EQ(out->vrfLabel(Netbase::MplsLabel(100)), vrfLabelOf(100, "red", false));
  EXPECT_EQ(out->vrfLabel(Netbase::MplsLabel(200)), vrfLabelOf(200, "green", true));
  EXPECT_TRUE(logs.empty());

  // Two dynamic assignments withdraw the label, and say so once per recomputation.
  auto b = dirInput<VrfLabelConfigInput>("agentB", vrfLabelConfigInputFactory);
  b->vrfLabelIs(vrfLabelOf(200, "green", true));
  EXPECT_FALSE(out->vrfLabelHas(Netbase::MplsLabel(200)));
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_EQ(logs[0],
            "%MPLS-4-VRF_LABEL_CONFLICT: Dynamic VRF label 200 is claimed by more than one "
            "source");
  b->vrfLabelIs(vrfLabelOf(200, "yellow", true));
  EXPECT_EQ(logs.size(), 2u);
  a->vrfLabelDel(Netbase::MplsLabel(200));
  EXPECT_EQ(out->vrfLabel(Netbase::MplsLabel(200)), vrfLabelOf(200, "yellow", true));
  EXPECT_EQ(logs.size(), 2u);

  // A static assignment settles a dynamic conflict; of two static ones the first source in
  // name order wins, without a log.
  a->vrfLabelIs(vrfLabelOf(200, "green", true));
  cli->vrfLabelIs(vrfLabelOf(200, "black", false));
  EXPECT_EQ(out->vrfLabel(Netbase::MplsLabel(200)), vrfLabelOf(200, "black", false));
  const size_t logged = logs.size();
  b->vrfLabelIs(vrfLabelOf(100, "white", false));
  EXPECT_EQ(out->vrfLabel(Netbase::MplsLabel(100)), vrfLabelOf(100, "white", false));
  EXPECT_EQ(logs.size(), logged);
  b->vrfLabelDel(Netbase::MplsLabel(100));
  cli->vrfLabelDel(Netbase::MplsLabel(100));
  EXPECT_EQ(out->vrfLabel(Netbase::MplsLabel(100)), vrfLabelOf(100, "blue", true));
  a->vrfLabelDel(Netbase::MplsLabel(100));
  EXPECT_FALSE(out->vrfLabelHas(Netbase::MplsLabel(100)));
  EXPECT_TRUE(traced(" removed entry for 100"));
}

}  // namespace
