// mplsctl demo: the road of a route on one machine.
//
// A reading process is forked first; it mounts an LFIB that does not exist yet and
// follows it as a forwarding agent would: LfibTrackingSm (route backlog and versions),
// LfibIpLookupSm (the IP-lookup table) and LfibL2EvpnSm (the layer-2 EVPN table), driven
// by an event loop. This process then creates the LFIB, writes routes through the
// LfibWriter (and one EVPN route straight into the LfibStatus, which the writer does not
// write), rewrites and deletes some, and after each step asks the reader over a pipe for
// what it sees until that agrees with the LFIB. Every wait is bounded; the segments are
// removed at the end, also on failure. Then label blocks from an MPLS agent that is killed
// and restarted (DemoLabels.cpp), label bindings between processes (DemoBindings.cpp) and
// configuration programmed by an MPLS agent (DemoConfig.cpp).
#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <ranges>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Kel/ChildProcess.h"
#include "Kel/EventLoop.h"
#include "Mpls/LfibIpLookupSm.h"
#include "Mpls/LfibL2EvpnSm.h"
#include "Mpls/LfibTrackingSm.h"
#include "Mpls/MplsLfibWriter.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"

namespace Mplsctl {

namespace {

using namespace Mpls;
using Clock = std::chrono::steady_clock;

// The routes of examples/routes.txt.
constexpr const char* kRoutes =
    "100 swap 200 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4\n"
    "101 pop via 10.0.0.2 dev Ethernet2\n"
    "102 push 300/301 via 2001:db8::1 dev Ethernet3 source ldp metric 10\n"
    "104 swap 204 via 10.0.1.1 dev Port-Channel10 via 10.0.2.1 dev Ethernet5.100\n"
    "16 pop lookup vrf red ipv4\n"
    "17 pop lookup ipv6 source vrf-label\n"
    "103 pseudowire dev Pseudowire1\n";
// Two routes rewritten and one added; 17 and 103 are deleted.
constexpr const char* kRewrites =
    "100 swap 250 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4\n"
    "16 pop lookup vrf blue ipv4\n"
    "105 swap 205 via 10.0.0.5 dev Ethernet6\n";
constexpr uint32_t kEvpnLabel = 300;
constexpr auto kConvergeWithin = std::chrono::seconds(5);

// Orders "label:rest" items by label, numerically.
struct ByLabel {
  bool operator()(const std::string& a, const std::string& b) const {
    const unsigned long la = std::stoul(a), lb = std::stoul(b);
    return la != lb ? la < lb : a < b;
  }
};
using Items = std::set<std::string, ByLabel>;

std::string joined(const Items& items) { return absl::StrJoin(items, " "); }

// ---------------------------------------------------------------------------------------
// The reading process.

// "<label:version ...>|<label:vrf:payload ...>|<label:vlan ...>|<changes followed>"
std::string readerView(const LfibTrackingStatus& tracking, const LfibIpLookupStatus& ipLookup,
                       const LfibL2EvpnStatus& l2Evpn, uint64_t changes) {
  Items versions, lookups, evpn;
  for (const auto& [key, version] : tracking.routeVersionIter()) {
    versions.insert(fmt::format("{}:{}", key.topLabel().value(), version.version()));
  }
  for (const LfibIpLookupStatusLabelVrfAf& x : ipLookup.labelVrfAfIter()) {
    lookups.insert(fmt::format("{}:{}:{}", x.label().value(), x.vrfName().stringValue(),
                               payloadName(x.payloadType())));
  }
  for (const auto& [label, info] : l2Evpn.labelInfoIter()) {
    evpn.insert(fmt::format("{}:{}", label.value(), info.dstVlanId().value()));
  }
  return fmt::format("{}|{}|{}|{}", joined(versions), joined(lookups), joined(evpn), changes);
}

// Answers "view" with readerView() until the parent closes the channel; at most 60 s in
// all. Returns the process's exit status.
int readerProcess(const std::string& name, Kel::ChildProcess::Channel& channel) {
  Kel::EventLoop loop;  // outlives the mount group
  const Kel::Ptr<Pond::MountGroup> group = Pond::MountGroup::reader(name);
  LfibStatus::Ptr lfib = lfibStatusFactory();
  lfib->mountGroupIs(group);
  LfibTrackingStatus::Ptr tracking = lfibTrackingStatusFactory("mplsctl-demo");
  LfibTrackingSm::Ptr trackingSm =
      lfibTrackingSmFactory(lfib, tracking, lfibTrackingMode(true, false, true), "mplsctl-demo");
  LfibIpLookupStatus::Ptr ipLookup = lfibIpLookupStatusFactory();
  LfibIpLookupSm::Ptr ipLookupSm = lfibIpLookupSmFactory(lfib, tracking, ipLookup);
  Evpn::MplsConfig::Ptr evpnConfig = Evpn::mplsConfigFactory();
  LfibL2EvpnStatus::Ptr l2Evpn = lfibL2EvpnStatusFactory();
  LfibL2EvpnSm::Ptr l2EvpnSm = lfibL2EvpnSmFactory(lfib, tracking, l2Evpn, evpnConfig);
  group->loopIs(&loop);

  // A forwarding agent acknowledges the routes it has worked off by taking them out of
  // the backlog; here, every route the backlog named counts as one change followed.
  uint64_t changes = 0;
  loop.afterIterationHookIs([&] {
    changes += tracking->routeKeyBacklogs();
    tracking->routeKeyBacklogDelAll();
  });
  bool quit = false;
  loop.fdIs(channel.requestFd(), EPOLLIN, [&](uint32_t) {
    std::optional<std::string> line;
    while ((line = channel.request(std::chrono::milliseconds(0))) && !line->empty()) {
      if (*line == "view") {
        const uint64_t pending = tracking->routeKeyBacklogs();
        quit = quit || !channel.reply(readerView(*tracking, *ipLookup, *l2Evpn, changes + pending));
      }
    }
    quit = quit || !line;
  });
  loop.runUntil([&] { return quit; }, std::chrono::seconds(60));
  loop.fdDel(channel.requestFd());
  group->loopIs(nullptr);
  return quit ? 0 : 1;
}

// ---------------------------------------------------------------------------------------
// The writing side.

// The EVPN route of `label`: one VLAN via in a via set of its own, straight into the
// LfibStatus.
void evpnRouteIs(LfibStatus& lfib, uint32_t label, uint16_t vlan) {
  const LfibViaKey viaKey(LFib::sourceEvpn, viaTypeVlan, label);
  const LfibViaSetKey setKey(LFib::sourceEvpn, label, viaTypeVlan, viaSetTypeDefault);
  lfib.vlanViaIs(LfibVlanVia(viaKey, Bridging::VlanId(vlan), lfibFlagNone));
  LfibViaSet set(setKey);
  set.viaKeyIs(0, viaKey);
  lfib.viaSetIs(set);
  lfib.lfibRouteIs(
      LfibRoute(RouteKey(Netbase::MplsLabel(label)), setKey, LFib::sourceEvpn, FwdEqvClass(), 0));
}

struct View {
  std::map<uint32_t, uint32_t> versions;  // label -> version (the reader's); 0 on our side
  Items lookups, evpn;
  uint64_t changes = 0;

  std::string labels() const {
    return fmt::format("{}", fmt::join(std::views::keys(versions), " "));
  }
  bool agrees(const View& other) const {
    return labels() == other.labels() && lookups == other.lookups && evpn == other.evpn;
  }
  std::string text() const {
    return fmt::format("routes [{}], IP lookup [{}], L2 EVPN [{}]", labels(), joined(lookups),
                       joined(evpn));
  }
};

View parseView(const std::string& line) {
  const std::vector<std::string> fields = absl::StrSplit(line, '|');
  if (fields.size() != 4) {
    throw CommandError(fmt::format("demo: the reader answered '{}'", line));
  }
  auto items = [](const std::string& field) -> std::vector<std::string> {
    return absl::StrSplit(field, ' ', absl::SkipEmpty());
  };
  View v;
  for (const std::string& item : items(fields[0])) {
    v.versions[std::stoul(item)] = std::stoul(item.substr(item.find(':') + 1));
  }
  for (const std::string& item : items(fields[1])) {
    v.lookups.insert(item);
  }
  for (const std::string& item : items(fields[2])) {
    v.evpn.insert(item);
  }
  v.changes = std::stoull(fields[3]);
  return v;
}

// What the reader should see: the LFIB's routes, its IP-lookup routes and its VLAN routes.
View expectedView(const LfibStatus& lfib) {
  View v;
  lfib.lfibRouteForEach([&](const LfibRoute& r) {
    const uint32_t label = r.key().topLabel().value();
    v.versions[label] = 0;
    const LfibViaSet set = lfib.viaSet(r.viaSetKey());
    LfibViaKey via;
    for (const LfibViaKey& k : set.viaKey()) {
      if (k != LfibViaKey()) {
        via = k;
        break;
      }
    }
    if (r.viaSetKey().viaType() == viaTypeIpLookup) {
      const LfibIpLookupVia lookup = lfib.ipLookupVia(via);
      v.lookups.insert(fmt::format("{}:{}:{}", label, lookup.vrfName().stringValue(),
                                   payloadName(lookup.payloadType())));
    } else if (r.viaSetKey().viaType() == viaTypeVlan) {
      v.evpn.insert(fmt::format("{}:{}", label, lfib.vlanVia(via).vlanId().value()));
    }
  });
  return v;
}

void printReaderView(const View& v) {
  const std::string versions =
      absl::StrJoin(v.versions, " ", [](std::string* out, const auto& labelVersion) {
        out->append(fmt::format("{}:v{}", labelVersion.first, labelVersion.second));
      });
  std::printf("  reader tracking: %s\n", versions.c_str());
  std::printf("  reader IP-lookup table: %s\n", joined(v.lookups).c_str());
  std::printf("  reader L2 EVPN table: %s\n", joined(v.evpn).c_str());
}

// The demo's LFIB and the process that follows it, both gone however the demo ends: the
// reader is killed unless it has ended, then the LFIB's segments are removed.
class Demo {
 public:
  Demo()
      : lfib_(fmt::format("mplsctl-demo-{}", getpid())),
        cleared_(lfib_),
        reader_(startReader(lfib_)) {}
  ~Demo() { reader_->kill(); }

  const std::string& lfib() const { return lfib_; }
  pid_t readerPid() const { return reader_->pid(); }

  // Asks until the reader's view agrees with `expected`; throws when it does not within
  // kConvergeWithin.
  View converge(const View& expected) {
    const auto deadline = Clock::now() + kConvergeWithin;
    std::optional<View> last;
    while (Clock::now() < deadline) {
      const std::string line = reader_->ask(
          "view", std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
      if (line == "<no answer>" || line == "<gone>") {
        break;
      }
      last = parseView(line);
      if (last->agrees(expected)) {
        return *last;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw CommandError(fmt::format(
        "demo: the reader did not follow the LFIB within {} s: it has {}; the LFIB has {}",
        kConvergeWithin.count(), last ? last->text() : "nothing (no answer)", expected.text()));
  }

  // Ends the reader (bounded) and throws unless it ended well.
  void finishReader() {
    const int status = reader_->wait(std::chrono::seconds(5));
    if (status != 0) {
      throw CommandError(fmt::format("demo: the reader process ended with status {}", status));
    }
  }

 private:
  // Removes the LFIB's segments when it is made and when it goes.
  struct Segments {
    explicit Segments(const std::string& lfib) : lfib(lfib) {
      Pond::MountGroup::removeSegments(lfib);
    }
    ~Segments() {
      try {
        Pond::MountGroup::removeSegments(lfib);
      } catch (const std::exception& e) {
        std::fprintf(stderr, "mplsctl: demo: %s\n", e.what());
      }
    }
    const std::string& lfib;
  };

  static std::unique_ptr<Kel::ChildProcess> startReader(const std::string& lfib) {
    try {
      return std::make_unique<Kel::ChildProcess>([&lfib](Kel::ChildProcess::Channel& channel) {
        try {
          return readerProcess(lfib, channel);
        } catch (const std::exception& e) {
          std::fprintf(stderr, "mplsctl: demo reader: %s\n", e.what());
          return 1;
        }
      });
    } catch (const std::system_error& e) {
      throw CommandError(fmt::format("demo: {}", e.what()));
    }
  }

  std::string lfib_;
  Segments cleared_;
  std::unique_ptr<Kel::ChildProcess> reader_;
};

// What the writing side has done, for the closing line.
struct Counts {
  uint64_t written = 0;
  uint64_t deleted = 0;
};

// Scene 1: the routes of examples/routes.txt and an EVPN route, followed by the reader.
View writeRoutes(Demo& demo, LfibStatus& lfib, LfibWriter& writer, Pond::MountGroup& group,
                 Counts& counts) {
  const std::vector<ParsedRoute> routes = parseRouteFile(kRoutes, "demo routes");
  for (const ParsedRoute& r : routes) {
    writer.lfibRouteIs(r.route);
  }
  evpnRouteIs(lfib, kEvpnLabel, 10);
  group.publish();
  counts.written += routes.size() + 1;
  std::printf(
      "1. wrote %zu routes through the LFIB writer and EVPN route %u (VLAN 10) into "
      "the LFIB\n",
      routes.size(), kEvpnLabel);
  const View first = demo.converge(expectedView(lfib));
  printReaderView(first);
  return first;
}

// Scene 2: routes rewritten, added and deleted; the reader follows and raises the versions
// of the rewritten routes above those of scene 1 (`first`).
View rewriteRoutes(Demo& demo, LfibStatus& lfib, LfibWriter& writer, Pond::MountGroup& group,
                   Counts& counts, const View& first) {
  const std::vector<ParsedRoute> rewrites = parseRouteFile(kRewrites, "demo rewrites");
  for (const ParsedRoute& r : rewrites) {
    writer.lfibRouteIs(r.route);
  }
  evpnRouteIs(lfib, kEvpnLabel, 20);
  for (uint32_t label : {17u, 103u}) {
    writer.lfibRouteDel(RouteKey(Netbase::MplsLabel(label)));
  }
  group.publish();
  counts.written += rewrites.size() + 1;
  counts.deleted += 2;
  std::printf(
      "2. rewrote 100 (swap 250), 16 (VRF blue) and %u (VLAN 20), added 105, "
      "deleted 17 and 103\n",
      kEvpnLabel);
  const View seen = demo.converge(expectedView(lfib));
  printReaderView(seen);
  std::vector<std::string> raised;
  for (uint32_t label : {100u, 16u, kEvpnLabel}) {
    const uint32_t before = first.versions.at(label), after = seen.versions.at(label);
    if (after <= before) {
      throw CommandError(fmt::format(
          "demo: the reader did not raise the version of route {} (still {})", label, after));
    }
    raised.push_back(fmt::format("{} v{} -> v{}", label, before, after));
  }
  std::printf("  versions of the rewritten routes: %s\n", absl::StrJoin(raised, ", ").c_str());
  return seen;
}

}  // namespace

int runDemo() {
  Demo demo;
  std::printf("demo: LFIB '%s' in shared memory, followed by reader process %d\n",
              demo.lfib().c_str(), demo.readerPid());
  Counts counts;
  View seen;
  {
    const Kel::Ptr<Pond::MountGroup> group = Pond::MountGroup::writer(demo.lfib());
    LfibStatus::Ptr lfib = lfibStatusFactory();
    lfib->mountGroupIs(group);
    LfibWriter::Ptr writer = lfibWriterFactory(lfib);
    const View first = writeRoutes(demo, *lfib, *writer, *group, counts);
    seen = rewriteRoutes(demo, *lfib, *writer, *group, counts, first);
  }
  demo.finishReader();
  demoLabelBlocks();
  demoBindings();
  demoConfiguration();
  std::printf(
      "demo: %llu routes written, %llu deleted, reader followed %llu changes, "
      "IP-lookup table %zu entries, L2 EVPN table %zu entries, all consistent\n",
      static_cast<unsigned long long>(counts.written),
      static_cast<unsigned long long>(counts.deleted),
      static_cast<unsigned long long>(seen.changes), seen.lookups.size(), seen.evpn.size());
  return 0;
}

}  // namespace Mplsctl
