// ReaderBench: what a reading process of a 1,000,000-route LFIB costs.
//   R1  bytes  private memory per route of a process that follows the LFIB with the
//              tracking, IP-lookup and L2 EVPN state machines, once they have caught up
//              (Private_Clean + Private_Dirty of /proc/self/smaps_rollup, the whole
//              process, over the routes). The segments' pages are kept mapped by this
//              process meanwhile, as a live writer keeps them: they count as shared.
//   R2  ms     wall time of `mplsctl show LABEL`: a process that mounts the LFIB, looks up
//              one route and prints it (the median of 5 runs).
//   R3  s      time for a following reader (the same process as R1) to mount the LFIB and
//              finish its state machines' first full pass.
// The LFIB is the one `examples/gen-routes 1000000 --first-label 16` describes (2-via ECMP
// routes, every tenth a pop), loaded with `mplsctl load`.
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "BenchSupport.h"
#include "Kel/EventLoop.h"
#include "Mpls/LfibIpLookupSm.h"
#include "Mpls/LfibL2EvpnSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "Pond/MountGroup.h"
#include "Pond/internal/Segment.h"

namespace Bench {
namespace {

constexpr uint32_t kRoutes = 1'000'000;
constexpr uint32_t kShowRuns = 5;
constexpr auto kWait = std::chrono::seconds(120);

// Every page of the group's segments mapped and touched, for as long as it lives.
class SegmentPages {
 public:
  explicit SegmentPages(const std::string& group) {
    using Pond::internal::Segment;
    map(Segment::pathOf(Segment::groupShmName(group)));
    for (const std::string& table : Pond::MountGroup::tableNames(group)) {
      map(Segment::pathOf(Segment::tableShmName(group, table)));
    }
  }
  ~SegmentPages() {
    for (auto [base, len] : maps_) {
      ::munmap(base, len);
    }
  }
  SegmentPages(const SegmentPages&) = delete;
  SegmentPages& operator=(const SegmentPages&) = delete;

 private:
  void map(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) {
      throw std::runtime_error("cannot open " + path);
    }
    void* base = ::mmap(nullptr, st.st_size, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0);
    ::close(fd);
    if (base == MAP_FAILED) {
      throw std::runtime_error("cannot map " + path);
    }
    maps_.emplace_back(base, st.st_size);
  }
  std::vector<std::pair<void*, size_t>> maps_;
};

// Private_Clean + Private_Dirty of this process, in bytes.
uint64_t privateBytes() {
  std::ifstream in("/proc/self/smaps_rollup");
  std::string key;
  uint64_t kb = 0;
  uint64_t sum = 0;
  std::string unit;
  while (in >> key) {
    if (key == "Private_Clean:" || key == "Private_Dirty:") {
      in >> kb >> unit;
      sum += kb * 1024;
    }
  }
  return sum;
}

struct FollowResult {
  double mountSeconds;  // R3
  uint64_t privateBefore;
  uint64_t privateAfter;
  uint32_t routes;
};

// A forwarding agent's reader: mounts the LFIB, runs the three state machines until the
// tracking has versioned every route.
std::string follow(Child& c, const std::string& lfib) {
  c.ready();
  FollowResult r{};
  r.privateBefore = privateBytes();
  const uint64_t t0 = monoNs();
  Kel::EventLoop loop;
  const Kel::Ptr<Pond::MountGroup> group = Pond::MountGroup::reader(lfib);
  Mpls::LfibStatus::Ptr status = Mpls::lfibStatusFactory();
  status->mountGroupIs(group);
  auto tracking = Mpls::lfibTrackingStatusFactory("reader-bench");
  auto trackingSm = Mpls::lfibTrackingSmFactory(status, tracking,
                                                Mpls::lfibTrackingMode(true, false, true),
                                                "reader-bench");
  auto ipLookup = Mpls::lfibIpLookupStatusFactory();
  auto ipLookupSm = Mpls::lfibIpLookupSmFactory(status, tracking, ipLookup);
  auto evpnConfig = Evpn::mplsConfigFactory();
  auto l2Evpn = Mpls::lfibL2EvpnStatusFactory();
  auto l2EvpnSm = Mpls::lfibL2EvpnSmFactory(status, tracking, l2Evpn, evpnConfig);
  group->loopIs(&loop);
  // The agent works its backlog off after every batch, as a forwarding agent does.
  loop.afterIterationHookIs([&] { tracking->routeKeyBacklogDelAll(); });
  if (!loop.runUntil([&] { return group->ready() && tracking->routeVersions() >= kRoutes; },
                     kWait)) {
    throw std::runtime_error(fmt::format("the reader versioned {} routes of {}",
                                         tracking->routeVersions(), kRoutes));
  }
  r.mountSeconds = double(monoNs() - t0) / 1e9;
  r.routes = tracking->routeVersions();
  r.privateAfter = privateBytes();
  group->loopIs(nullptr);
  return bytesOf(r);
}

int run() {
  const std::string lfib = fmt::format("reader-bench-{}", ::getpid());
  const std::string file = fmt::format("/tmp/reader-bench-{}.routes", ::getpid());
  removeAtExit(file);
  Pond::MountGroup::removeSegments(lfib);
  runProgram({"/usr/bin/env", "python3", MPLS_GEN_ROUTES_PATH, std::to_string(kRoutes),
              "--first-label", "16"},
             file, kWait);
  runProgram({MPLSCTL_PATH, "load", file, "--lfib", lfib}, "/dev/null", kWait);
  struct Cleanup {
    const std::string& lfib;
    ~Cleanup() { Pond::MountGroup::removeSegments(lfib); }
  } cleanup{lfib};

  const SegmentPages pages(lfib);

  std::vector<double> showMs;
  for (uint32_t i = 0; i < kShowRuns; ++i) {
    const ProgramRun show = runProgram(
        {MPLSCTL_PATH, "show", std::to_string(16 + kRoutes / 2), "--lfib", lfib}, "/dev/null",
        kWait);
    showMs.push_back(show.seconds * 1e3);
  }
  std::sort(showMs.begin(), showMs.end());

  Child reader("following reader", [&](Child& c) { return follow(c, lfib); });
  reader.waitReady(kWait);
  const auto r = reader.result<FollowResult>(kWait);

  note(fmt::format("reader: {:.1f} MB private before mounting, {:.1f} MB after its first pass "
                   "over {} routes",
                   r.privateBefore / 1e6, r.privateAfter / 1e6, r.routes));
  figure("R1", double(r.privateAfter) / kRoutes, "bytes");
  figure("R2", showMs[kShowRuns / 2], "ms");
  figure("R3", r.mountSeconds, "s");
  return 0;
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::benchMain(argc, argv, "ReaderBench",
                          "Prints R1, R2 and R3: a reading process of a 1,000,000-route LFIB "
                          "(bench/README.md).\n",
                          Bench::run);
}
