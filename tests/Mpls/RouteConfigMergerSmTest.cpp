// The route configuration merger in one process: the command-line input and a directory of
// inputs as plain entities, scans run in counted slices of a Kiva control.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Kel/Trace.h"
#include "Mpls/MplsRouteConfigMergerSm.h"

namespace {

using namespace Mpls;

RouteKeyAndMetric key(uint32_t label, uint8_t metric = 1) {
  return RouteKeyAndMetric(RouteKey(Netbase::MplsLabel(label)), RouteMetric(metric));
}

// A route of `label` that swaps it for `out`: two sources that differ in `out` disagree.
Route route(uint32_t label, uint32_t out = 16, uint8_t metric = 1) {
  Route r;
  r.keyIs(key(label, metric));
  r.labelStackIs({Netbase::MplsLabel(out)});
  return r;
}

// Counts the output's route notifications, by label.
struct OutputWatch : RouteConfig::NotifieeConst {
  explicit OutputWatch(const RouteConfig::Ptr& out) { notifierIs(out); }
  void onRoute(const RouteKeyAndMetric& k) override { ++routes[k.routeKey().topLabel().value()]; }
  std::map<uint32_t, int> routes;
};

class RouteConfigMerger : public ::testing::Test {
 protected:
  ~RouteConfigMerger() override { Kel::traceSinkIs({}), Kel::traceConfigIs(""); }

  void start() { sm = routeConfigMergerSmFactory(out, dir, cli, control); }
  // The input published in the directory under `name`, created on first use.
  RouteConfigInput::Ptr input(const std::string& name) {
    if (auto e = dir->entityPtr(Kel::String(name))) {
      return Kel::Ptr<RouteConfigInput>(static_cast<RouteConfigInput*>(e.get()));
    }
    auto in = routeConfigInputFactory(name);
    dir->entityPtrIs(Kel::String(name), in);
    return in;
  }
  // The label the output swaps `label` for, 0 when it has no route.
  uint32_t outLabel(uint32_t label, uint8_t metric = 1) const {
    const Route* r = out->routeIter().find(key(label, metric));
    return r ? r->labelStack().at(0).value() : 0;
  }
  // What the output must hold: each key that exactly one source configures.
  std::map<RouteKeyAndMetric, Route> expected() const {
    std::map<RouteKeyAndMetric, std::vector<Route>> all;
    auto add = [&](const RouteConfigInput& in) {
      for (const auto& [k, r] : in.routeIter()) {
        all[k].push_back(r);
      }
    };
    add(*cli);
    for (const auto& [name, e] : dir->entityPtrIter()) {
      add(static_cast<const RouteConfigInput&>(*e));
    }
    std::map<RouteKeyAndMetric, Route> one;
    for (const auto& [k, routes] : all) {
      if (routes.size() == 1) {
        one.emplace(k, routes[0]);
      }
    }
    return one;
  }
  std::map<RouteKeyAndMetric, Route> output() const {
    return {out->routeIter().begin(), out->routeIter().end()};
  }

  RouteConfigInput::Ptr cli = routeConfigInputFactory("cli");
  Kel::Dir::Ptr dir = Kel::dirFactory(routeConfigInputDirPath);
  RouteConfig::Ptr out = routeConfigFactory();
  Kiva::SmControl::Ptr control = Kiva::countingSmControlFactory(3);
  RouteConfigMergerSm::Ptr sm;
};

TEST_F(RouteConfigMerger, OneSourceWinsNoneOrSeveralWithdraw) {
  start();
  EXPECT_FALSE(out->ready());
  control->runPending();
  EXPECT_TRUE(out->ready());  // no input at all

  cli->routeIs(route(100, 16, 1));
  cli->routeIs(route(100, 17, 2));  // the metric is part of the key
  EXPECT_EQ(outLabel(100, 1), 16u);
  EXPECT_EQ(outLabel(100, 2), 17u);

  // A directory entry conflicts exactly like another entry would; either side's removal
  // brings the other back.
  auto bgp = input("bgp");
  control->runPending();
  bgp->routeIs(route(100, 16, 1));  // the same route: still a conflict
  EXPECT_EQ(outLabel(100, 1), 0u);
  EXPECT_EQ(sm->groupByAttr0(key(100))->colls(), 2u);
  EXPECT_TRUE(sm->groupByAttr0(key(100))->coll("bgp"));
  cli->routeDel(key(100, 1));
  EXPECT_EQ(outLabel(100, 1), 16u);
  cli->routeIs(route(100, 18, 1));
  bgp->routeDel(key(100, 1));
  EXPECT_EQ(outLabel(100, 1), 18u);
  cli->routeIs(route(100, 19, 1));  // the one owner changes its route
  EXPECT_EQ(outLabel(100, 1), 19u);

  auto ldp = input("ldp");
  ldp->routeIs(route(200, 20));
  control->runPending();
  bgp->routeIs(route(200, 21));
  EXPECT_EQ(outLabel(200), 0u);
  ldp->routeDel(key(200));
  EXPECT_EQ(outLabel(200), 21u);
  bgp->routeDel(key(200));
  EXPECT_EQ(outLabel(200), 0u);
  EXPECT_FALSE(sm->groupByAttr0(key(200)));
  EXPECT_EQ(output(), expected());
  EXPECT_TRUE(sm->mergedConfigRouteOutputInput("cli") && sm->mergedConfigRouteOutputInput("ldp"));

  // Tearing down withdraws every merged route.
  sm->doDeleteAll();
  EXPECT_EQ(out->routes(), 0u);
  EXPECT_TRUE(sm->idle());
}

TEST_F(RouteConfigMerger, RestartReconcilesOnlyOnceEveryScanIsDone) {
  for (uint32_t l = 100; l < 120; ++l) {
    cli->routeIs(route(l));
    input("bgp")->routeIs(route(l + 100));
  }
  input("ldp")->routeIs(route(105, 99));  // a conflict
  start();
  EXPECT_FALSE(out->ready());
  control->runPending();
  EXPECT_TRUE(out->ready());
  EXPECT_FALSE(sm->mergedConfigRouteOutputReconciling());
  EXPECT_EQ(output(), expected());

  // The agent restarts: its output survives, with one route that no input holds any more.
  sm = nullptr;
  out->routeIs(route(999));
  OutputWatch watch(out);
  start();
  EXPECT_TRUE(sm->mergedConfigRouteOutputReconciling());
  while (!sm->idle()) {
    EXPECT_EQ(outLabel(999), 16u);
    control->runSlice();
  }
  EXPECT_EQ(outLabel(999), 0u);
  // The stale route's removal; and the conflicting key, written when the scan of its first
  // source reaches it and withdrawn when the second's does. Nothing else.
  EXPECT_EQ(watch.routes, (std::map<uint32_t, int>{{105, 2}, {999, 1}}));
  EXPECT_EQ(output(), expected());
  EXPECT_FALSE(sm->mergedConfigRouteOutputReconciling());
  EXPECT_EQ(sm->mergedConfigRouteOutputSeens(), 0u);
  EXPECT_TRUE(sm->outputState()->mergedConfigRouteOutputReady());
}

// A scan that yields resumes after its bookmark and delivers every key exactly once, while
// inputs change between slices: the output is written once per key delivered, and in the
// end it is what the inputs say.
TEST_F(RouteConfigMerger, YieldingScanDeliversEveryKeyOnce) {
  std::map<std::string, int> inserts;
  Kel::traceConfigIs("RouteConfigMergerSm/8");
  Kel::traceSinkIs([&](const Kel::TraceFacility&, int, std::string_view m) {
    if (auto at = m.find(", value="); m.find("inserting k1=") != m.npos) {
      ++inserts[std::string(m.substr(0, at))];
    }
  });
  auto insertsOf = [&](uint32_t label) {
    return inserts[fmt::format("into( mergedConfig.route[ routeKey ] ): inserting k1={}", key(label))];
  };
  for (uint32_t l = 10; l < 30; ++l) {
    cli->routeIs(route(l));
    input("a")->routeIs(route(l + 100));
    input("c")->routeIs(route(l + 200));
  }
  start();
  control->runSlice();
  EXPECT_EQ(sm->routeSm2()->inputScanBookmark(), key(12));
  EXPECT_FALSE(sm->idle());
  cli->routeIs(route(5));        // before the bookmark: delivered at once
  EXPECT_EQ(outLabel(5), 16u);
  cli->routeIs(route(25, 30));   // after it: left to the scan
  EXPECT_EQ(outLabel(25), 0u);
  cli->routeDel(key(11));        // delivered, now deleted
  EXPECT_EQ(outLabel(11), 0u);
  cli->routeDel(key(20));        // never delivered
  control->runSlice();           // the directory (entries a and c), then cli 13
  control->runSlice();           // a 110-112
  control->runSlice();           // c 210-212
  EXPECT_EQ(sm->entityPtrSm0()->routeSm1("a")->inputScanBookmark(), key(112));
  dir->entityPtrDel("a");        // its delivered keys leave the output
  EXPECT_EQ(outLabel(110), 0u);
  input("b")->routeIs(route(12, 40));  // a new entry: conflicts with cli's 12
  input("c")->routeIs(route(225, 41)); // after c's bookmark
  control->runPending();
  EXPECT_TRUE(sm->idle());
  EXPECT_EQ(output(), expected());
  EXPECT_EQ(outLabel(12), 0u);
  for (uint32_t l = 10; l < 30; ++l) {
    EXPECT_EQ(insertsOf(l), l == 11 || l == 20 ? 0 + (l == 11) : 1) << l;
    EXPECT_EQ(insertsOf(l + 100), l < 13 ? 1 : 0) << l + 100;
    EXPECT_EQ(insertsOf(l + 200), 1) << l + 200;
  }
  EXPECT_EQ(insertsOf(5), 1);
}

TEST_F(RouteConfigMerger, InconsistentInputsAreFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  start();
  control->runPending();
  EXPECT_DEATH(dir->entityPtrIs("x", routeConfigFactory()),
               "fatal assertion failed\\(input\\): dynamic cast to type "
               "::Mpls::RouteConfigInput::RawPtrConst from Kel::Entity::PtrConst failed. ");

  // A change the scan never heard of (a quiesced collection) under a suspended scan.
  for (uint32_t l = 10; l < 20; ++l) {
    input("a")->routeIs(route(l));
  }
  control->runSlice();  // a 10-12
  input("a")->routeNotifyQuiesced(true);
  input("a")->routeIs(route(15, 99));
  EXPECT_DEATH(control->runPending(),
               "assertion failed\\(version\\(\\) == en\\(\\)->routeColl\\(\\)\\.version\\(\\)\\): "
               "version: 10 != 11");
}

}  // namespace
