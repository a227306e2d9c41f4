// ConfigMergerBench: C2, the start-up scan of RouteConfigMergerSm over a million configured
// routes (half in the command-line input, half in one directory entry), cut into slices
// by a timed Kiva control with the default quota (0.5 ms) on a Kel::EventLoop.
//
//   figure C2-rate  routes merged per second, from the merger's construction until its
//                   output is ready (median of 3 rounds)
//   figure C2-max   the longest slice of all rounds, in microseconds
//   figure C2-p99   the 99th percentile of the slices of all rounds, in microseconds
//
// Lines starting with '#' are notes: the load average; slice counts, and the longest and
// p99 slice among those the kernel did not preempt (a slice's wall time includes the time
// the thread was off the CPU, which on a loaded machine measures the other processes); and
// the restart of the merger on an unchanged configuration (every key delivered again, the
// output reconciled).
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Kel/EventLoop.h"
#include "Mpls/MplsRouteConfigMergerSm.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kRoutes = 1'000'000;
constexpr uint32_t kFirstLabel = 16;

Mpls::Route routeOf(uint32_t label) {
  Mpls::Route r;
  r.keyIs(Mpls::RouteKeyAndMetric(Mpls::RouteKey(Netbase::MplsLabel(label)), Mpls::RouteMetric(1)));
  r.actionIs(Mpls::routeActionSwap);
  r.labelStackIs({Netbase::MplsLabel(kFirstLabel + (label * 7) % kRoutes)});
  r.viaIs({Mpls::RouteVia(Netbase::IpGenAddr(), Netbase::IntfId(), 1)});
  return r;
}

struct Round {
  double seconds;
  std::vector<std::chrono::nanoseconds> slices;
  // The slices during which (or in the loop iteration before which) the kernel took the
  // CPU away: on a loaded machine they measure the other processes, not the quota.
  std::vector<bool> preempted;
};

long involuntarySwitches() {
  rusage u{};
  ::getrusage(RUSAGE_THREAD, &u);
  return u.ru_nivcsw;
}

// Builds a merger on `out` and runs the loop until the output is ready.
Round run(Kel::EventLoop& loop, const Mpls::RouteConfig::Ptr& out, const Kel::Dir::Ptr& dir,
          const Mpls::RouteConfigInput::Ptr& cli, Mpls::RouteConfigMergerSm::Ptr& sm) {
  auto control = Kiva::smControlFactory(&loop);
  Round round;
  round.slices.reserve(16384);
  long switches = involuntarySwitches();
  control->sliceObserverIs([&](std::chrono::nanoseconds t) {
    round.slices.push_back(t);
    const long now = involuntarySwitches();
    round.preempted.push_back(now != switches);
    switches = now;
  });
  out->readyIs(false);
  sm = nullptr;
  const auto start = Clock::now();
  sm = Mpls::routeConfigMergerSmFactory(out, dir, cli, control);
  if (!loop.runUntil([&] { return out->ready(); }, std::chrono::minutes(5))) {
    std::fprintf(stderr, "the merger's output did not become ready\n");
    std::exit(1);
  }
  round.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return round;
}

void report(const char* name, std::vector<Round>& rounds) {
  std::vector<double> rates;
  std::vector<std::chrono::nanoseconds> all;
  std::vector<std::chrono::nanoseconds> alone;
  for (const Round& r : rounds) {
    rates.push_back(kRoutes / r.seconds);
    all.insert(all.end(), r.slices.begin(), r.slices.end());
    for (size_t i = 0; i < r.slices.size(); ++i) {
      if (!r.preempted[i]) {
        alone.push_back(r.slices[i]);
      }
    }
  }
  std::sort(rates.begin(), rates.end());
  std::sort(all.begin(), all.end());
  std::sort(alone.begin(), alone.end());
  const auto us = [](std::chrono::nanoseconds t) { return t.count() / 1000.0; };
  const auto p99 = [](const std::vector<std::chrono::nanoseconds>& v) {
    return v[std::min(v.size() - 1, v.size() * 99 / 100)];
  };
  std::printf("# %s: %zu rounds, %zu slices, %zu of them preempted by the kernel\n", name,
              rounds.size(), all.size(), all.size() - alone.size());
  std::printf("figure %s-rate %.0f keys/s\n", name, rates[rates.size() / 2]);
  std::printf("figure %s-max %.1f us\n", name, us(all.back()));
  std::printf("figure %s-p99 %.1f us\n", name, us(p99(all)));
  if (!alone.empty()) {
    std::printf("# %s slices not preempted: longest %.1f us, p99 %.1f us\n", name,
                us(alone.back()), us(p99(alone)));
  }
}

}  // namespace

int main() {
  double load[1] = {0};
  if (::getloadavg(load, 1) == 1) {
    std::printf("# load average %.2f\n", load[0]);
  }
  Kel::EventLoop loop;
  auto cli = Mpls::routeConfigInputFactory("cli");
  auto bgp = Mpls::routeConfigInputFactory("bgp");
  auto dir = Kel::dirFactory(Mpls::routeConfigInputDirPath);
  dir->entityPtrIs("bgp", bgp);
  for (uint32_t i = 0; i < kRoutes; ++i) {
    (i < kRoutes / 2 ? cli : bgp)->routeIs(routeOf(kFirstLabel + i));
  }

  std::vector<Round> fresh;
  std::vector<Round> restart;
  Mpls::RouteConfigMergerSm::Ptr sm;
  for (int i = 0; i < 3; ++i) {
    auto out = Mpls::routeConfigFactory();
    fresh.push_back(run(loop, out, dir, cli, sm));
    if (out->routes() != kRoutes) {
      std::fprintf(stderr, "the output holds %u routes, not %u\n", out->routes(), kRoutes);
      return 1;
    }
    // The agent restarts on its published output.
    restart.push_back(run(loop, out, dir, cli, sm));
    sm = nullptr;
  }
  report("C2", fresh);
  std::printf("# restart on an unchanged configuration (reconciling):\n");
  for (auto& r : restart) {
    std::printf("#   %.0f keys/s, ", kRoutes / r.seconds);
    std::sort(r.slices.begin(), r.slices.end());
    std::printf("longest slice %.1f us, %zu slices\n", r.slices.back().count() / 1000.0,
                r.slices.size());
  }
  return 0;
}
