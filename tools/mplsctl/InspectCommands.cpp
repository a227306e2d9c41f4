// mplsctl dump, check and clear.
#include <fmt/format.h>

#include <cstdio>
#include <set>
#include <vector>

#include "Kel/DumpContext.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"

namespace Mplsctl {

using namespace Mpls;

int runDump(const std::string& name) {
  LfibStatus::Ptr lfib = mountLfibReader(name);
  Kel::DumpContext context;
  lfib->dumpState(context, 0);
  std::fputs(context.text().c_str(), stdout);
  return 0;
}

int runCheck(const std::string& name) {
  LfibStatus::Ptr lfib = mountLfibReader(name);
  std::vector<std::string> problems;
  lfib->lfibRouteForEach([&](const LfibRoute& r) {
    if (lfib->viaSet(r.viaSetKey()).key() != r.viaSetKey()) {
      problems.push_back(fmt::format("route {}: via set {} is missing", r.key().label().value(),
                                     viaSetKeyText(r.viaSetKey())));
    }
  });
  std::set<LfibViaKey> used;
  lfib->viaSetForEach([&](const LfibViaSet& s) {
    for (const LfibViaKey& k : s.viaKey()) {
      if (k == LfibViaKey()) {
        continue;
      }
      used.insert(k);
      if (!viaStored(*lfib, k)) {
        problems.push_back(fmt::format("via set {}: via {} is missing", viaSetKeyText(s.key()),
                                       viaKeyText(k)));
      }
    }
  });
  uint64_t vias = 0;
  lfib->viaKeyForEach([&](const LfibViaKey& key) {
    ++vias;
    if (!used.contains(key)) {
      problems.push_back(fmt::format("via {} is used by no via set", viaKeyText(key)));
    }
  });
  if (!problems.empty()) {
    for (const std::string& p : problems) {
      std::printf("%s\n", p.c_str());
    }
    std::fprintf(stderr, "mplsctl: LFIB '%s' is inconsistent: %zu problems\n", name.c_str(),
                 problems.size());
    return 1;
  }
  std::printf("LFIB '%s' is consistent: %u routes, %u via sets, %llu vias\n", name.c_str(),
              lfib->lfibRoutes(), lfib->viaSets(), static_cast<unsigned long long>(vias));
  return 0;
}

int runClear(const std::string& name) {
  const size_t removed = Pond::MountGroup::removeSegments(name);
  if (removed == 0) {
    throw CommandError(fmt::format("no LFIB named '{}' (no shared-memory segments)", name));
  }
  std::printf("LFIB '%s': removed %zu shared-memory segments\n", name.c_str(), removed);
  return 0;
}

}  // namespace Mplsctl
