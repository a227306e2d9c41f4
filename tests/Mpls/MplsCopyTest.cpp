// MplsConfigCopyHandler through a session: only changed routes reach the running input,
// deletions before insertions, other types left to the generic copy, the route trace.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Kel/Trace.h"
#include "Mpls/MplsCopy.h"
#include "Session/Session.h"

namespace {

using namespace Mpls;
using Cli::Session::CommitEntry;

RouteKeyAndMetric keyOf(uint32_t label) {
  return RouteKeyAndMetric(RouteKey(Netbase::MplsLabel(label)), RouteMetric(1));
}
Route routeOf(uint32_t label, uint32_t out) {
  Route r;
  r.keyIs(keyOf(label));
  r.labelStackIs({Netbase::MplsLabel(out)});
  return r;
}

// Records each route announcement with whether the route is present after it.
class RouteLog : public RouteConfigInput::NotifieeConst {
 public:
  explicit RouteLog(const RouteConfigInput::Ptr& input) { notifierIs(input); }
  void onRoute(const RouteKeyAndMetric& key) override {
    seen.emplace_back(key.routeKey().topLabel().value(), notifier()->routeHas(key));
  }
  std::vector<std::pair<uint32_t, bool>> seen;
};

struct MplsCopyFixture : ::testing::Test {
  MplsCopyFixture() {
    for (uint32_t label = 16; label < 26; ++label) {
      running->routeIs(routeOf(label, label + 100));
    }
    entityCopy->handlerDirIs(dir);
    log.seen.clear();
  }
  std::vector<CommitEntry> commit(const std::function<void(RouteConfigInput&)>& edit) {
    auto session = Cli::Session::sessionFactory("s", entityCopy);
    edit(*session->candidateIs(path, running));
    return session->commit();
  }
  const std::string path = routeConfigCliPath;
  RouteConfigInput::Ptr running = routeConfigInputFactory("cli");
  Cli::Session::EntityCopy::Ptr entityCopy = Cli::Session::entityCopyFactory();
  CopyHandlerDir::Ptr dir = copyHandlerDirFactory("mpls");
  RouteLog log{running};
};

TEST_F(MplsCopyFixture, CommitWritesOnlyTheDifferenceDeletionsFirst) {
  EXPECT_EQ(commit([](RouteConfigInput&) {}), (std::vector<CommitEntry>{{path, true}}));
  EXPECT_TRUE(log.seen.empty()) << "an unchanged input announces nothing";

  std::vector<Route> want;
  commit([&](RouteConfigInput& c) {
    c.routeDel(keyOf(25));
    c.routeDel(keyOf(20));
    c.routeIs(routeOf(17, 999));
    c.routeIs(routeOf(5, 6));
    for (const auto& [k, r] : c.routeIter()) {
      want.push_back(r);
    }
  });
  EXPECT_EQ(log.seen, (std::vector<std::pair<uint32_t, bool>>{
                          {20, false}, {25, false}, {5, true}, {17, true}}));
  std::vector<Route> have;
  for (const auto& [k, r] : running->routeIter()) {
    have.push_back(r);
  }
  EXPECT_EQ(have, want);
}

TEST_F(MplsCopyFixture, OtherTypesAreLeftToTheGenericCopy) {
  auto handler = dir->copyHandler();
  auto config = routeConfigFactory();
  auto input = routeConfigInputFactory("x");
  EXPECT_FALSE(handler->handleEntity(*entityCopy, config, routeConfigFactory(), "p"));
  EXPECT_FALSE(handler->handleEntity(*entityCopy, input, config, "p"));

  auto session = Cli::Session::sessionFactory("s", entityCopy);
  session->candidateIs("merged", config)->readyIs(true);
  EXPECT_EQ(session->commit(), (std::vector<CommitEntry>{{"merged", false}}));
  EXPECT_TRUE(config->ready());

  dir->copyHandlerDel();
  EXPECT_EQ(commit([](RouteConfigInput&) {}), (std::vector<CommitEntry>{{path, false}}));
  EXPECT_EQ(log.seen.size(), 20u) << "the generic copy rewrites every route";
}

TEST_F(MplsCopyFixture, TracesEveryCopiedRoute) {
  std::vector<std::string> lines;
  Kel::traceSinkIs([&](const Kel::TraceFacility& f, int, std::string_view message) {
    if (f.name() == "MplsCopy") {
      lines.emplace_back(message);
    }
  });
  Kel::traceConfigIs("MplsCopy/8");
  commit([](RouteConfigInput& c) { c.routeIs(routeOf(17, 1)); });
  Kel::traceConfigIs("");
  Kel::traceSinkIs({});
  ASSERT_EQ(lines.size(), 10u);
  EXPECT_EQ(lines[1], fmt::format("Copying route {}.route/{} --> cli", path, keyOf(17)));
  EXPECT_EQ(log.seen, (std::vector<std::pair<uint32_t, bool>>{{17, true}}));
}

}  // namespace
