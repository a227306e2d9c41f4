// mplsctl load: programs a route file into an LFIB through the LFIB writer.
//
// Table sizes. The tables of an LFIB are sized when they are created and a later writer
// must ask for the very same sizes, so every size here is a function of four capacities
// (routes, MPLS vias, pseudowire vias, IP lookup vias): a first load takes them from the
// file (twice its counts, at least 1024, rounded up to a power of two); a later load reads
// them back from the existing tables.
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <string>
#include <unordered_set>

#include "Mpls/MplsLfibWriter.h"
#include "Pond/Exception.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"

namespace {

// A progress bar on stderr for long loads, when stderr is a terminal: redrawn at each
// whole percent, cleared when done.
class Progress {
 public:
  explicit Progress(size_t total)
      : total_(total), shown_(total > 10000 && ::isatty(STDERR_FILENO) == 1) {}
  void step() {
    if (!shown_) {
      return;
    }
    const size_t percent = ++done_ * 100 / total_;
    if (percent != percent_) {
      percent_ = percent;
      const int width = 40;
      const int filled = static_cast<int>(percent * width / 100);
      std::fprintf(stderr, "\r[%-*s] %3zu%% %zu/%zu routes", width,
                   std::string(static_cast<size_t>(filled), '#').c_str(), percent, done_, total_);
      std::fflush(stderr);
    }
  }
  void done() const {
    if (shown_) {
      std::fprintf(stderr, "\r\033[K");
      std::fflush(stderr);
    }
  }

 private:
  size_t total_;
  bool shown_;
  size_t done_ = 0;
  size_t percent_ = 0;
};

}  // namespace

namespace Mplsctl {

namespace {

using namespace Mpls;

struct Capacities {
  uint32_t routes = 0;
  uint32_t mplsVias = 0;
  uint32_t pwVias = 0;
  uint32_t ipLookupVias = 0;
};

uint32_t roomFor(uint64_t count) {
  return static_cast<uint32_t>(std::bit_ceil(std::max<uint64_t>(1024, 2 * count)));
}

LfibStatusSizing sizingFor(const Capacities& c) {
  LfibStatusSizing s;
  s.lfibRoute = Pond::TableSizing{c.routes};
  // A via set record is 48 bytes and 12 per via.
  s.viaSet = Pond::TableSizing{c.routes};
  s.viaSet.heapBytes = uint64_t{c.routes} * 64 + uint64_t{c.mplsVias} * 16;
  s.mplsVia = Pond::TableSizing{c.mplsVias};
  s.mplsVia.heapBytes = uint64_t{c.mplsVias} * 128;
  s.pwVia = Pond::TableSizing{c.pwVias};
  s.ipLookupVia = Pond::TableSizing{c.ipLookupVias};
  return s;
}

Capacities existingCapacities(const std::string& name) {
  LfibStatus::Ptr lfib = mountLfibReader(name);
  return Capacities{lfib->lfibRouteTable()->capacity(), lfib->mplsViaTable()->capacity(),
                    lfib->pwViaTable()->capacity(), lfib->ipLookupViaTable()->capacity()};
}

uint64_t versions(const LfibStatus& lfib) {
  return lfib.lfibRouteTable()->version() + lfib.viaSetTable()->version() +
         lfib.mplsViaTable()->version() + lfib.pwViaTable()->version() +
         lfib.ipLookupViaTable()->version();
}

// Refuses a load that could fill a table half way: what the LFIB holds now plus all the
// file brings, as though nothing were rewritten in place.
void checkRoom(const LfibStatus& lfib, const std::vector<ParsedRoute>& routes,
               const std::unordered_set<uint32_t>& deleted, const std::string& name) {
  uint64_t newRoutes = 0, mplsVias = lfib.mplsVias(), pwVias = lfib.pwVias(),
           lookupVias = lfib.ipLookupVias();
  for (const ParsedRoute& r : routes) {
    if (lfib.lfibRoute(r.route.key()).key() != r.route.key()) {
      ++newRoutes;
    }
    switch (r.route.viaType()) {
      case viaTypeMplsIp:
        mplsVias += r.vias;
        break;
      case viaTypeMplsPseudowire:
        pwVias += r.vias;
        break;
      default:
        lookupVias += r.vias;
    }
  }
  auto refuse = [&](const char* what, uint64_t needed, uint32_t capacity) {
    if (needed > capacity) {
      throw CommandError(fmt::format(
          "LFIB '{}' has room for {} {}, this load may need {}: nothing loaded (run 'mplsctl "
          "clear --lfib {}' and load again to size it for the file)",
          name, capacity, what, needed, name));
    }
  };
  refuse("routes", uint64_t{lfib.lfibRoutes()} - deleted.size() + newRoutes,
         lfib.lfibRouteTable()->capacity());
  refuse("via sets", uint64_t{lfib.viaSets()} + routes.size(), lfib.viaSetTable()->capacity());
  refuse("MPLS vias", mplsVias, lfib.mplsViaTable()->capacity());
  refuse("pseudowire vias", pwVias, lfib.pwViaTable()->capacity());
  refuse("IP lookup vias", lookupVias, lfib.ipLookupViaTable()->capacity());
}

}  // namespace

int runLoad(const LoadOptions& options) {
  const std::vector<ParsedRoute> routes = readRouteFile(options.file);
  const std::string& name = options.lfib;

  Capacities capacities;
  if (!Pond::MountGroup::tableNames(name).empty()) {
    capacities = existingCapacities(name);
  } else {
    uint64_t mplsVias = 0, pwVias = 0, lookupVias = 0;
    for (const ParsedRoute& r : routes) {
      (r.route.viaType() == viaTypeMplsIp           ? mplsVias
       : r.route.viaType() == viaTypeMplsPseudowire ? pwVias
                                                    : lookupVias) += r.vias;
    }
    capacities = Capacities{roomFor(routes.size()), roomFor(mplsVias), roomFor(pwVias),
                            roomFor(lookupVias)};
  }

  Kel::Ptr<Pond::MountGroup> group;
  try {
    group = Pond::MountGroup::writer(name);
  } catch (const Pond::WriterExistsError& e) {
    throw CommandError(fmt::format("LFIB '{}' has a live writer process: {}", name, e.what()));
  }
  LfibStatus::Ptr lfib = lfibStatusFactory();
  lfib->mountGroupIs(group, sizingFor(capacities));
  LfibWriter::Ptr writer = lfibWriterFactory(lfib);

  std::unordered_set<uint32_t> inFile;
  for (const ParsedRoute& r : routes) {
    inFile.insert(r.route.key().label().value());
  }
  std::unordered_set<uint32_t> gone;
  if (options.replace) {
    lfib->lfibRouteForEach([&](const LfibRoute& r) {
      if (!inFile.contains(r.key().label().value())) {
        gone.insert(r.key().label().value());
      }
    });
  }
  checkRoom(*lfib, routes, gone, name);

  for (uint32_t label : gone) {
    writer->lfibRouteDel(RouteKey(Netbase::MplsLabel(label)));
  }
  uint32_t written = 0, unchanged = 0;
  Progress progress(routes.size());
  for (const ParsedRoute& r : routes) {
    const uint64_t before = versions(*lfib);
    writer->lfibRouteIs(r.route);
    (versions(*lfib) == before ? unchanged : written) += 1;
    progress.step();
  }
  progress.done();
  group->publish();
  std::printf("LFIB '%s': %u routes written, %u unchanged, %zu deleted\n", name.c_str(), written,
              unchanged, gone.size());
  return 0;
}

}  // namespace Mplsctl
