// ConfigCopyBench: committing a configuration session onto the static MPLS route
// configuration.
//   C3                s              commit of a session holding a candidate of a
//                                    1,000,000-route Mpls::RouteConfigInput in which 1 % of
//                                    the routes were changed, through Cli::Session and the
//                                    registered Mpls::MplsConfigCopyHandler
//   C3-notifications  notifications  route announcements of the running input during that
//                                    commit (must equal the routes changed)
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <chrono>
#include <cstdint>
#include <cstdio>

#include "Mpls/MplsCopy.h"
#include "Session/Session.h"

namespace {

constexpr uint32_t kRoutes = 1'000'000;
constexpr uint32_t kChangeEvery = 100;  // 1 %
constexpr uint32_t kFirstLabel = 16;

Mpls::Route routeOf(uint32_t label, uint32_t out) {
  Mpls::Route r;
  r.keyIs(Mpls::RouteKeyAndMetric(Mpls::RouteKey(Netbase::MplsLabel(label)), Mpls::RouteMetric(1)));
  r.actionIs(Mpls::routeActionSwap);
  r.labelStackIs({Netbase::MplsLabel(out)});
  r.viaIs({Mpls::RouteVia(Netbase::IpGenAddr::ipv4(0x0a000001 + label % 64), Netbase::IntfId(), 1)});
  return r;
}

class RouteCounter : public Mpls::RouteConfigInput::NotifieeConst {
 public:
  explicit RouteCounter(const Mpls::RouteConfigInput::Ptr& input) { notifierIs(input); }
  void onRoute(const Mpls::RouteKeyAndMetric&) override { ++count; }
  uint64_t count = 0;
};

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main() {
  auto running = Mpls::routeConfigInputFactory("cli");
  for (uint32_t i = 0; i < kRoutes; ++i) {
    running->routeIs(routeOf(kFirstLabel + i, 100 + i % 1000));
  }
  auto entityCopy = Cli::Session::entityCopyFactory();
  auto dir = Mpls::copyHandlerDirFactory("mpls");
  entityCopy->handlerDirIs(dir);

  auto session = Cli::Session::sessionFactory("bench", entityCopy);
  auto start = std::chrono::steady_clock::now();
  auto candidate = session->candidateIs(Mpls::routeConfigCliPath, running);
  std::printf("# candidate of %u routes taken in %.3f s (generic copy)\n", kRoutes,
              secondsSince(start));
  uint32_t changed = 0;
  for (uint32_t i = 0; i < kRoutes; i += kChangeEvery) {
    candidate->routeIs(routeOf(kFirstLabel + i, 2000 + i % 1000));
    ++changed;
  }

  RouteCounter counter(running);
  start = std::chrono::steady_clock::now();
  const auto done = session->commit();
  const double seconds = secondsSince(start);
  if (done.size() != 1 || !done[0].byHandler) {
    std::fprintf(stderr, "the commit did not go through the copy handler\n");
    return 1;
  }
  std::printf("# %u routes, %u changed\n", kRoutes, changed);
  std::printf("figure C3 %.4f s\n", seconds);
  std::printf("figure C3-notifications %llu notifications\n",
              static_cast<unsigned long long>(counter.count));
  if (counter.count != changed || running->routes() != kRoutes) {
    std::fprintf(stderr, "expected %u notifications and %u routes\n", changed, kRoutes);
    return 1;
  }
  return 0;
}
