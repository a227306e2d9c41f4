// mplsctl demo: the road of a route on one machine.
//
// A reading process is forked first; it mounts an LFIB that does not exist yet and
// follows it as a forwarding agent would: LfibTrackingSm (route backlog and versions),
// LfibIpLookupSm (the IP-lookup table) and LfibL2EvpnSm (the layer-2 EVPN table), driven
// by an event loop. This process then creates the LFIB, writes routes through the
// LfibWriter (and one EVPN route straight into the LfibStatus, which the writer does not
// write), rewrites and deletes some, and after each step asks the reader over a pipe for
// what it sees until that agrees with the LFIB. Every wait is bounded; the segments are
// removed at the end, also on failure.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <vector>

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

std::string joined(const std::set<std::string>& items) {
  std::string out;
  for (const std::string& item : items) {
    out += (out.empty() ? "" : " ") + item;
  }
  return out;
}

std::vector<std::string> split(const std::string& text, char sep) {
  std::vector<std::string> out;
  size_t pos = 0;
  for (size_t end; (end = text.find(sep, pos)) != std::string::npos; pos = end + 1) {
    out.push_back(text.substr(pos, end - pos));
  }
  out.push_back(text.substr(pos));
  return out;
}

// Orders "label:rest" items by label, numerically.
struct ByLabel {
  bool operator()(const std::string& a, const std::string& b) const {
    const unsigned long la = std::stoul(a), lb = std::stoul(b);
    return la != lb ? la < lb : a < b;
  }
};
using Items = std::set<std::string, ByLabel>;

std::string joined(const Items& items) {
  return joined(std::set<std::string>(items.begin(), items.end()));
}

bool writeLine(int fd, const std::string& line) {
  const std::string text = line + "\n";
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Lines from a pipe, each wait bounded.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  // The next line, without its newline; nullopt at end of file or when `deadline` passes.
  std::optional<std::string> next(Clock::time_point deadline) {
    for (;;) {
      if (std::optional<std::string> line = take()) {
        return line;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        return std::nullopt;
      }
      pollfd p = {fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left)) <= 0) {
        continue;
      }
      if (!fill()) {
        return std::nullopt;
      }
    }
  }
  // Reads what is there; false at end of file or on an error.
  bool fill() {
    char buf[4096];
    ssize_t n;
    do {
      n = read(fd_, buf, sizeof buf);
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
      return false;
    }
    buf_.append(buf, static_cast<size_t>(n));
    return true;
  }
  std::optional<std::string> take() {
    const size_t nl = buf_.find('\n');
    if (nl == std::string::npos) {
      return std::nullopt;
    }
    std::string line = buf_.substr(0, nl);
    buf_.erase(0, nl + 1);
    return line;
  }

 private:
  int fd_;
  std::string buf_;
};

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

// Answers "view" with readerView() and ends at "quit" or when the pipe closes; at most
// 60 s in all.
int readerProcess(const std::string& name, int requests, int replies) {
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
  LineReader in(requests);
  loop.fdIs(requests, EPOLLIN, [&](uint32_t) {
    if (!in.fill()) {
      quit = true;
      return;
    }
    while (std::optional<std::string> line = in.take()) {
      if (*line == "view") {
        const uint64_t pending = tracking->routeKeyBacklogs();
        if (!writeLine(replies, readerView(*tracking, *ipLookup, *l2Evpn, changes + pending))) {
          quit = true;
        }
      } else if (*line == "quit") {
        quit = true;
      }
    }
  });
  loop.runUntil([&] { return quit; }, std::chrono::seconds(60));
  loop.fdDel(requests);
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
    std::string out;
    for (const auto& [label, version] : versions) {
      out += (out.empty() ? "" : " ") + std::to_string(label);
    }
    return out;
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
  const std::vector<std::string> fields = split(line, '|');
  if (fields.size() != 4) {
    throw CommandError(fmt::format("demo: the reader answered '{}'", line));
  }
  View v;
  for (const std::string& item : split(fields[0], ' ')) {
    if (!item.empty()) {
      v.versions[std::stoul(item)] = std::stoul(item.substr(item.find(':') + 1));
    }
  }
  for (const std::string& item : split(fields[1], ' ')) {
    if (!item.empty()) {
      v.lookups.insert(item);
    }
  }
  for (const std::string& item : split(fields[2], ' ')) {
    if (!item.empty()) {
      v.evpn.insert(item);
    }
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

// The reading process and the LFIB's segments, ended and removed however the demo ends.
struct Reader {
  pid_t pid = -1;
  int requests = -1;  // our end
  int replies = -1;   // our end
  std::string lfib;

  ~Reader() {
    if (requests >= 0) {
      close(requests);
    }
    if (replies >= 0) {
      close(replies);
    }
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
    Pond::MountGroup::removeSegments(lfib);
  }

  // Asks until the reader's view agrees with `expected`; throws when it does not within
  // kConvergeWithin.
  View converge(LineReader& in, const View& expected) {
    const auto deadline = Clock::now() + kConvergeWithin;
    std::optional<View> last;
    while (Clock::now() < deadline) {
      if (!writeLine(requests, "view")) {
        break;
      }
      const std::optional<std::string> line = in.next(deadline);
      if (!line) {
        break;
      }
      last = parseView(*line);
      if (last->agrees(expected)) {
        return *last;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    throw CommandError(fmt::format(
        "demo: the reader did not follow the LFIB within {} s: it has {}; the LFIB has {}",
        kConvergeWithin.count(), last ? last->text() : "nothing (no answer)", expected.text()));
  }

  // Asks the reader to end and waits (bounded) for its exit status.
  int finish() {
    writeLine(requests, "quit");
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (Clock::now() < deadline) {
      const pid_t done = waitpid(pid, &status, WNOHANG);
      if (done == pid) {
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
  }
};

void printReaderView(const View& v) {
  std::string versions;
  for (const auto& [label, version] : v.versions) {
    versions += fmt::format("{}{}:v{}", versions.empty() ? "" : " ", label, version);
  }
  std::printf("  reader tracking: %s\n", versions.c_str());
  std::printf("  reader IP-lookup table: %s\n", joined(v.lookups).c_str());
  std::printf("  reader L2 EVPN table: %s\n", joined(v.evpn).c_str());
}

}  // namespace

int runDemo() {
  Reader reader;
  reader.lfib = fmt::format("mplsctl-demo-{}", getpid());
  Pond::MountGroup::removeSegments(reader.lfib);
  signal(SIGPIPE, SIG_IGN);  // a reader gone is seen as a failed write

  int toReader[2], fromReader[2];
  if (pipe2(toReader, O_CLOEXEC) != 0) {
    throw CommandError(fmt::format("demo: pipe failed: {}", std::strerror(errno)));
  }
  if (pipe2(fromReader, O_CLOEXEC) != 0) {
    const int error = errno;
    close(toReader[0]);
    close(toReader[1]);
    throw CommandError(fmt::format("demo: pipe failed: {}", std::strerror(error)));
  }
  std::fflush(stdout);
  std::fflush(stderr);
  reader.pid = fork();
  if (reader.pid == 0) {
    close(toReader[1]);
    close(fromReader[0]);
    int status = 1;
    try {
      status = readerProcess(reader.lfib, toReader[0], fromReader[1]);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "mplsctl: demo reader: %s\n", e.what());
    }
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
  }
  close(toReader[0]);
  close(fromReader[1]);
  reader.requests = toReader[1];
  reader.replies = fromReader[0];
  if (reader.pid < 0) {
    reader.pid = -1;
    throw CommandError(fmt::format("demo: fork failed: {}", std::strerror(errno)));
  }
  LineReader replies(reader.replies);

  std::printf("demo: LFIB '%s' in shared memory, followed by reader process %d\n",
              reader.lfib.c_str(), reader.pid);
  uint64_t written = 0, deleted = 0;
  View seen;
  {
    const Kel::Ptr<Pond::MountGroup> group = Pond::MountGroup::writer(reader.lfib);
    LfibStatus::Ptr lfib = lfibStatusFactory();
    lfib->mountGroupIs(group);
    LfibWriter::Ptr writer = lfibWriterFactory(lfib);

    const std::vector<ParsedRoute> routes = parseRouteFile(kRoutes, "demo routes");
    for (const ParsedRoute& r : routes) {
      writer->lfibRouteIs(r.route);
    }
    evpnRouteIs(*lfib, kEvpnLabel, 10);
    group->publish();
    written += routes.size() + 1;
    std::printf(
        "1. wrote %zu routes through the LFIB writer and EVPN route %u (VLAN 10) into "
        "the LFIB\n",
        routes.size(), kEvpnLabel);
    const View first = reader.converge(replies, expectedView(*lfib));
    printReaderView(first);

    const std::vector<ParsedRoute> rewrites = parseRouteFile(kRewrites, "demo rewrites");
    for (const ParsedRoute& r : rewrites) {
      writer->lfibRouteIs(r.route);
    }
    evpnRouteIs(*lfib, kEvpnLabel, 20);
    for (uint32_t label : {17u, 103u}) {
      writer->lfibRouteDel(RouteKey(Netbase::MplsLabel(label)));
    }
    group->publish();
    written += rewrites.size() + 1;
    deleted += 2;
    std::printf(
        "2. rewrote 100 (swap 250), 16 (VRF blue) and %u (VLAN 20), added 105, "
        "deleted 17 and 103\n",
        kEvpnLabel);
    seen = reader.converge(replies, expectedView(*lfib));
    printReaderView(seen);
    std::string raised;
    for (uint32_t label : {100u, 16u, kEvpnLabel}) {
      const uint32_t before = first.versions.at(label), after = seen.versions.at(label);
      if (after <= before) {
        throw CommandError(fmt::format(
            "demo: the reader did not raise the version of route {} (still {})", label, after));
      }
      raised += fmt::format("{}{} v{} -> v{}", raised.empty() ? "" : ", ", label, before, after);
    }
    std::printf("  versions of the rewritten routes: %s\n", raised.c_str());
  }

  const int status = reader.finish();
  if (status != 0) {
    throw CommandError(fmt::format("demo: the reader process ended with status {}", status));
  }
  std::printf(
      "demo: %llu routes written, %llu deleted, reader followed %llu changes, "
      "IP-lookup table %zu entries, L2 EVPN table %zu entries, all consistent\n",
      static_cast<unsigned long long>(written), static_cast<unsigned long long>(deleted),
      static_cast<unsigned long long>(seen.changes), seen.lookups.size(), seen.evpn.size());
  return 0;
}

}  // namespace Mplsctl
