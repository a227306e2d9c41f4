// W1-W5: routes per second through Mpls::LfibWriter into a shared-memory LfibStatus.
//
//   W1  lfibRouteIs of 1,000,000 new single-via viaTypeMplsIp routes, nothing attached;
//   W2  the same with LfibTrackingSm (every tracking mode on) and LfibIpLookupSm attached;
//   W3  lfibRouteIs of each of those 1,000,000 routes again, unchanged;
//   W4  lfibRouteIs of 100,000 new routes of 8 distinct MPLS vias each (8-way ECMP);
//   W5  lfibRouteDel of 1,000,000 single-via routes.
//
// Each case builds its LFIB in a mount group of its own, writes what it needs before the
// timed loop and times one pass over all its routes; the consolidated routes are built
// beforehand too. Every case runs kRepetitions times, each time in a fresh group; the
// figure is the median rate, and a note lists every run.
#include <unistd.h>

#include <absl/strings/str_cat.h>
#include <absl/strings/str_join.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "Mpls/LfibIpLookupSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "Mpls/MplsLfibWriter.h"
#include "Pond/MountGroup.h"

namespace {

using namespace Mpls;

constexpr uint32_t kRoutes = 1'000'000;
constexpr uint32_t kEcmpRoutes = 100'000;
constexpr uint32_t kEcmpWidth = 8;
constexpr int kRepetitions = 3;

std::map<std::string, std::vector<double>>& rates() {
  static std::map<std::string, std::vector<double>> r;
  return r;
}

// One MPLS swap towards an IPv4 next hop; `n` varies the next hop and the outgoing label.
LfibMplsVia mplsVia(uint32_t n) {
  LfibMplsVia via(LfibViaKey(), Netbase::IpGenAddr::ipv4(0x0a000000 + (n & 0xffffff)),
                  Netbase::labelActionSwap,
                  Netbase::UnboundedMplsLabelOperation(Netbase::labelActionSwap, {16 + n % 100000}),
                  false);
  via.weightIs(1);
  return via;
}

// `count` routes from label 16 up, each with `width` distinct vias of its own.
std::vector<ConsolidatedLfibRoute> makeRoutes(uint32_t count, uint32_t width) {
  std::vector<ConsolidatedLfibRoute> routes;
  routes.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    ConsolidatedLfibRoute r(RouteKey(16 + i), LFib::sourceLdp, FwdEqvClass(), 0, viaTypeMplsIp);
    r.viaSetTypeIs(width > 1 ? viaSetTypeEcmp : viaSetTypeDefault);
    for (uint32_t w = 0; w < width; ++w) {
      r.mplsViaIs(mplsVia(i * width + w));
    }
    routes.push_back(std::move(r));
  }
  return routes;
}

const std::vector<ConsolidatedLfibRoute>& singleViaRoutes() {
  static const std::vector<ConsolidatedLfibRoute> routes = makeRoutes(kRoutes, 1);
  return routes;
}

const std::vector<ConsolidatedLfibRoute>& ecmpRoutes() {
  static const std::vector<ConsolidatedLfibRoute> routes = makeRoutes(kEcmpRoutes, kEcmpWidth);
  return routes;
}

// A writer's LFIB in a mount group of its own, sized for `routes` routes of `width` vias,
// and the derived tables when `derived`. The group's segments go with it.
class BenchLfib {
 public:
  BenchLfib(uint32_t routes, uint32_t width, bool derived)
      : group_("lfib-bench-" + std::to_string(::getpid())) {
    Pond::MountGroup::removeSegments(group_);
    LfibStatusSizing sizing;
    sizing.lfibRoute.capacity = routes;
    sizing.viaSet.capacity = routes;
    sizing.viaSet.heapBytes = uint64_t{routes} * (64 + 16 * width);
    sizing.mplsVia.capacity = routes * width;
    sizing.mplsVia.heapBytes = uint64_t{routes} * width * 80;
    writerGroup_ = Pond::MountGroup::writer(group_);
    lfib_ = lfibStatusFactory();
    lfib_->mountGroupIs(writerGroup_, sizing);
    if (derived) {
      tracking_ = lfibTrackingStatusFactory("bench");
      trackingSm_ = lfibTrackingSmFactory(lfib_, tracking_, lfibTrackingMode(true, true, true),
                                          "bench");
      ipLookup_ = lfibIpLookupStatusFactory();
      ipLookupSm_ = lfibIpLookupSmFactory(lfib_, tracking_, ipLookup_);
    }
    writer_ = lfibWriterFactory(lfib_);
  }
  ~BenchLfib() {
    writer_ = nullptr;
    ipLookupSm_ = nullptr;
    trackingSm_ = nullptr;
    lfib_ = nullptr;
    writerGroup_ = nullptr;
    Pond::MountGroup::removeSegments(group_);
  }
  BenchLfib(const BenchLfib&) = delete;
  BenchLfib& operator=(const BenchLfib&) = delete;

  LfibWriter& writer() { return *writer_; }
  const LfibStatus& lfib() const { return *lfib_; }
  void publish() { writerGroup_->publish(); }
  // Grows with every change written to the route, via set and MPLS via tables.
  uint64_t versions() const {
    return lfib_->lfibRouteTable()->version() + lfib_->viaSetTable()->version() +
           lfib_->mplsViaTable()->version();
  }

 private:
  std::string group_;
  Kel::Ptr<Pond::MountGroup> writerGroup_;
  LfibStatus::Ptr lfib_;
  LfibTrackingStatus::Ptr tracking_;
  LfibTrackingSm::Ptr trackingSm_;
  LfibIpLookupStatus::Ptr ipLookup_;
  LfibIpLookupSm::Ptr ipLookupSm_;
  LfibWriter::Ptr writer_;
};

// Out of line, so that a profiler can count just the writes (see README.md).
[[gnu::noinline]] void writeAll(LfibWriter& writer,
                                const std::vector<ConsolidatedLfibRoute>& routes) {
  for (const ConsolidatedLfibRoute& r : routes) {
    writer.lfibRouteIs(r);
  }
}

// A pass that left the LFIB other than it should be measured nothing.
void expectRoutes(benchmark::State& state, const BenchLfib& b, uint32_t count) {
  if (b.lfib().lfibRoutes() != count) {
    state.SkipWithError(("LFIB holds " + std::to_string(b.lfib().lfibRoutes()) +
                         " routes, expected " + std::to_string(count))
                            .c_str());
  }
}

// Times its scope into the benchmark's iteration time: setup and checks stay out.
class Timed {
 public:
  explicit Timed(benchmark::State& state)
      : state_(state), start_(std::chrono::steady_clock::now()) {}
  ~Timed() {
    state_.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count());
  }
  Timed(const Timed&) = delete;
  Timed& operator=(const Timed&) = delete;

 private:
  benchmark::State& state_;
  std::chrono::steady_clock::time_point start_;
};

void record(benchmark::State& state, uint32_t routes) {
  state.SetItemsProcessed(int64_t{routes} * state.iterations());
  state.counters["routes/s"] =
      benchmark::Counter(double(routes) * double(state.iterations()), benchmark::Counter::kIsRate);
}

// Kept from the counters of each run: Google Benchmark's own report carries them too.
class FigureReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) {
        continue;
      }
      if (run.error_occurred) {
        failed = true;
        continue;
      }
      auto it = run.counters.find("routes/s");
      if (it != run.counters.end()) {
        rates()[run.run_name.function_name].push_back(it->second.value);
      }
    }
  }
  bool failed = false;
};

void W1(benchmark::State& state) {
  const auto& routes = singleViaRoutes();
  for (auto _ : state) {
    BenchLfib b(kRoutes, 1, false);
    {
      Timed t(state);
      writeAll(b.writer(), routes);
      b.publish();
    }
    expectRoutes(state, b, kRoutes);
  }
  record(state, kRoutes);
}

void W2(benchmark::State& state) {
  const auto& routes = singleViaRoutes();
  for (auto _ : state) {
    BenchLfib b(kRoutes, 1, true);
    {
      Timed t(state);
      writeAll(b.writer(), routes);
      b.publish();
    }
    expectRoutes(state, b, kRoutes);
  }
  record(state, kRoutes);
}

void W3(benchmark::State& state) {
  const auto& routes = singleViaRoutes();
  for (auto _ : state) {
    BenchLfib b(kRoutes, 1, false);
    writeAll(b.writer(), routes);
    b.publish();
    const uint64_t before = b.versions();
    {
      Timed t(state);
      writeAll(b.writer(), routes);
      b.publish();
    }
    expectRoutes(state, b, kRoutes);
    if (b.versions() != before) {
      state.SkipWithError("an unchanged rewrite wrote to the LFIB");
    }
  }
  record(state, kRoutes);
}

void W4(benchmark::State& state) {
  const auto& routes = ecmpRoutes();
  for (auto _ : state) {
    BenchLfib b(kEcmpRoutes, kEcmpWidth, false);
    {
      Timed t(state);
      writeAll(b.writer(), routes);
      b.publish();
    }
    expectRoutes(state, b, kEcmpRoutes);
    if (b.lfib().mplsVias() != kEcmpRoutes * kEcmpWidth) {
      state.SkipWithError("an ECMP route lost vias");
    }
  }
  record(state, kEcmpRoutes);
}

void W5(benchmark::State& state) {
  const auto& routes = singleViaRoutes();
  for (auto _ : state) {
    BenchLfib b(kRoutes, 1, false);
    writeAll(b.writer(), routes);
    b.publish();
    {
      Timed t(state);
      for (const ConsolidatedLfibRoute& r : routes) {
        b.writer().lfibRouteDel(r.key());
      }
      b.publish();
    }
    expectRoutes(state, b, 0);
    if (b.lfib().mplsVias() != 0 || b.lfib().viaSets() != 0) {
      state.SkipWithError("deleted routes left via sets or vias");
    }
  }
  record(state, kRoutes);
}

#define LFIB_BENCH(fn)                                                                   \
  BENCHMARK(fn)->Iterations(1)->Repetitions(kRepetitions)->ReportAggregatesOnly(false)-> \
      Unit(benchmark::kMillisecond)->UseManualTime()

LFIB_BENCH(W1);
LFIB_BENCH(W2);
LFIB_BENCH(W3);
LFIB_BENCH(W4);
LFIB_BENCH(W5);

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  FigureReporter reporter;
  size_t ran = benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (ran == 0) {
    return 1;
  }
  std::fflush(stdout);
  std::printf("\n");  // after the console report's last colour code
  for (const auto& [name, runs] : rates()) {
    const std::string each = absl::StrJoin(runs, " ", [](std::string* out, double r) {
      absl::StrAppend(out, static_cast<uint64_t>(r));
    });
    std::printf("# %s runs: %s routes/s\n", name.c_str(), each.c_str());
    std::printf("figure %s %.0f routes/s\n", name.c_str(), median(runs));
  }
  return reporter.failed ? 1 : 0;
}
