#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <set>

#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"
#include "tools/mplsctl/TableSetMount.h"

namespace Mplsctl {

using namespace Mpls;

namespace {

// What the readers of this run found damaged: each finding once on stderr, the count for
// the exit status.
size_t damageFound = 0;

void reportDamage(const std::string& lfib, const std::string& text) {
  static std::set<std::string> said;
  ++damageFound;
  if (said.size() < 20 && said.insert(text).second) {
    std::fprintf(stderr, "mplsctl: LFIB '%s' is damaged: %s\n", lfib.c_str(), text.c_str());
  }
}

}  // namespace

uint32_t roomFor(uint64_t count) {
  return static_cast<uint32_t>(std::bit_ceil(std::max<uint64_t>(1024, 2 * count)));
}

size_t removeTableSets(const std::vector<std::string>& groups, std::string_view kind,
                       const std::string& name) {
  size_t removed = 0;
  for (const std::string& group : groups) {
    try {
      removed += Pond::MountGroup::removeSegments(group);
    } catch (const Pond::SegmentError& e) {
      throw CommandError(fmt::format("cannot clear {} '{}': {}", kind, name, e.what()));
    }
  }
  if (removed == 0) {
    throw CommandError(fmt::format("no {} named '{}' (no shared-memory segments)", kind, name));
  }
  return removed;
}

bool lfibDamageFound() { return damageFound > 0; }

Mpls::LfibStatus::Ptr mountLfibReader(const std::string& name) {
  LfibStatus::Ptr lfib = lfibStatusFactory();
  mountTableSetReader(*lfib, name, "LFIB", name, fmt::format("mplsctl clear --lfib {}", name),
                      KelPond::Changes::ignored);
  // A damaged row or table is read as absent: say so, and fail the command.
  lfib->tableCorruptionHandlerIs([name](const std::string& text) { reportDamage(name, text); });
  return lfib;
}

std::string viaTypeName(LfibViaType type) {
  std::string name;
  if (!lfibViaTypeVisit(type, [&](auto via) { name = via.label; })) {
    name = fmt::format("viaType{}", static_cast<uint32_t>(type));
  }
  return name;
}

std::string viaSetTypeName(LfibViaSetType type) {
  switch (type) {
    case viaSetTypeDefault:
      return "default";
    case viaSetTypeEcmp:
      return "ecmp";
    case viaSetTypeUcmp:
      return "ucmp";
    case viaSetTypeBackup:
      return "backup";
    default:
      return fmt::format("viaSetType{}", static_cast<uint32_t>(type));
  }
}

std::string viaKeyText(const LfibViaKey& key) {
  return fmt::format("{}/{}/{}", sourceName(key.source()), viaTypeName(key.viaType()), key.index());
}

std::string viaSetKeyText(const LfibViaSetKey& key) {
  return fmt::format("{}/{}/{}/{}", sourceName(key.source()), key.index(),
                     viaTypeName(key.viaType()), viaSetTypeName(key.viaSetType()));
}

}  // namespace Mplsctl
