// mplsctl dump, check and clear.
#include <fmt/format.h>

#include <cstdio>
#include <vector>

#include "Kel/DumpContext.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/TableSetMount.h"

namespace Mplsctl {

using namespace Mpls;

int runDump(const std::string& name) {
  LfibStatus::Ptr lfib = mountLfibReader(name);
  Kel::DumpContext context;
  lfib->dumpState(context, 0);
  std::fputs(context.text().c_str(), stdout);
  return 0;
}

std::string problemText(const LfibIntegrityProblem& p) {
  using Kind = LfibIntegrityProblem::Kind;
  switch (p.kind) {
    case Kind::viaSetMissing:
      return fmt::format("route {}: via set {} is missing", p.route.label().value(),
                         viaSetKeyText(p.viaSet));
    case Kind::viaMissing:
      return fmt::format("via set {}: via {} is missing", viaSetKeyText(p.viaSet),
                         viaKeyText(p.via));
    case Kind::viaTypeMismatch:
      return p.viaSet == LfibViaSetKey()
                 ? fmt::format("via {} is kept with the vias of another type", viaKeyText(p.via))
                 : fmt::format("via set {}: via {} is of another via type",
                               viaSetKeyText(p.viaSet), viaKeyText(p.via));
    case Kind::viaSetUnused:
      return fmt::format("via set {} is used by no route", viaSetKeyText(p.viaSet));
    case Kind::viaUnused:
      return fmt::format("via {} is used by no via set", viaKeyText(p.via));
  }
  return "?";
}

int runCheck(const std::string& name) {
  LfibStatus::Ptr lfib = mountLfibReader(name);
  const LfibIntegrityReport report = lfibIntegrityCheck(*lfib);
  if (!report.consistent()) {
    for (const LfibIntegrityProblem& p : report.problems) {
      std::printf("%s\n", problemText(p).c_str());
    }
    std::fprintf(stderr, "mplsctl: LFIB '%s' is inconsistent: %zu problems\n", name.c_str(),
                 report.problems.size());
    return 1;
  }
  std::printf("LFIB '%s' is consistent: %llu routes, %llu via sets, %llu vias\n", name.c_str(),
              static_cast<unsigned long long>(report.routes),
              static_cast<unsigned long long>(report.viaSets),
              static_cast<unsigned long long>(report.vias));
  return 0;
}

int runClear(const std::string& name) {
  const size_t removed = removeTableSets({name}, "LFIB", name);
  std::printf("LFIB '%s': removed %zu shared-memory segments\n", name.c_str(), removed);
  return 0;
}

}  // namespace Mplsctl
