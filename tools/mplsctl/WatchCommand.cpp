// mplsctl watch: follows an LFIB from another process and prints its route changes as
// they happen.
//
// The LFIB is mounted for reading and followed by an LfibTrackingSm that keeps the route
// backlog and the route versions. After every iteration of the event loop (that is, after
// every batch of changes the mount group delivered) the backlog is worked off: one line
// per route whose forwarding changed, in label order, and the key is removed from the
// backlog. What the LFIB holds
// when it opens is summed up in one line rather than listed.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Kel/EventLoop.h"
#include "Kel/Hash.h"  // XXH3, inline
#include "Kel/OrdinalMap.h"
#include "Kel/SignalFd.h"
#include "Mpls/LfibTrackingSm.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"

namespace Mplsctl {

namespace {

using namespace Mpls;

}  // namespace

int runWatch(const WatchOptions& options) {
  const std::string& name = options.lfib;
  if (Pond::MountGroup::tableNames(name).empty()) {
    std::fprintf(stderr, "mplsctl: no LFIB named '%s' yet; waiting for it to appear\n",
                 name.c_str());
  }

  Kel::SignalFd signals;
  Kel::EventLoop loop;  // outlives the mount group
  bool signalled = false;
  loop.fdIs(signals.fd(), EPOLLIN, [&](uint32_t) { signalled = signals.drain() || signalled; });

  const Kel::Ptr<Pond::MountGroup> group = Pond::MountGroup::reader(name);
  LfibStatus::Ptr lfib = lfibStatusFactory();
  lfib->mountGroupIs(group);
  LfibTrackingStatus::Ptr tracking = lfibTrackingStatusFactory("mplsctl-watch");
  LfibTrackingSm::Ptr trackingSm =
      lfibTrackingSmFactory(lfib, tracking, lfibTrackingMode(true, false, true), "mplsctl-watch");
  group->loopIs(&loop);

  bool open = false;
  uint64_t lines = 0;
  // What each route forwards as last printed, as a digest of its text: a writer that
  // attaches anew makes the readers revisit every route, which raises versions but
  // changes nothing to print. Eight bytes a route, in dense pages by label.
  Kel::OrdinalMap<RouteKey, uint64_t> known;
  auto forwarding = [&](const LfibRouteView& view) {
    const LfibRoute& r = view.route;
    const std::string text = fmt::format("{} metric {} {}", sourceName(r.source()),
                                         r.metric().value(), routeSummary(view));
    return XXH3_64bits(text.data(), text.size());
  };
  auto done = [&] { return signalled || (options.count && lines >= *options.count); };
  loop.afterIterationHookIs([&] {
    if (!group->ready()) {
      return;
    }
    if (!open) {
      // The tracking state machine's pass over what the LFIB holds: the starting point,
      // not a change.
      open = true;
      lfib->lfibRouteForEach([&](const LfibRoute& r) {
        if (std::optional<LfibRouteView> view = lfibRouteView(*lfib, r.key())) {
          *known.tryEmplace(r.key()).first = forwarding(*view);
        }
      });
      tracking->routeKeyBacklogDelAll();
      std::printf("watching LFIB '%s': %zu routes\n", name.c_str(), known.size());
      std::fflush(stdout);
      return;
    }
    std::vector<RouteKey> keys(tracking->routeKeyBacklogIter().begin(),
                               tracking->routeKeyBacklogIter().end());
    std::sort(keys.begin(), keys.end());
    for (const RouteKey& key : keys) {
      if (done()) {
        break;
      }
      const uint32_t label = key.topLabel().value();
      const std::optional<LfibRouteView> view = lfibRouteView(*lfib, key);
      if (!view) {
        if (known.erase(key)) {
          std::printf("deleted %u\n", label);
          ++lines;
        }
      } else if (!view->complete()) {
        // The LFIB lacks the route's via set or one of its vias, though the route stayed
        // as it was while it was read: not forwarding to print. The writer's next change
        // of the route brings it back here.
      } else if (auto [digest, added] = known.tryEmplace(key); added) {
        *digest = forwarding(*view);
        std::printf("added %u -> %s\n", label, routeSummary(*view).c_str());
        ++lines;
      } else if (const uint64_t now = forwarding(*view); now != *digest) {
        *digest = now;
        std::printf("changed %u version %u -> %s\n", label, tracking->routeVersion(key).version(),
                    routeSummary(*view).c_str());
        ++lines;
      }
      tracking->routeKeyBacklogDel(key);  // acknowledged
    }
    std::fflush(stdout);
  });

  // No --timeout: a century.
  const std::chrono::nanoseconds limit =
      options.timeout ? std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::duration<double>(*options.timeout))
                      : std::chrono::nanoseconds(std::chrono::hours(24 * 365 * 100));
  loop.runUntil(done, limit);
  group->loopIs(nullptr);
  loop.fdDel(signals.fd());

  if (!open && !signalled) {
    throw CommandError(
        fmt::format("LFIB '{}' did not appear within {:g} s", name, options.timeout.value_or(0)));
  }
  return 0;
}

}  // namespace Mplsctl
