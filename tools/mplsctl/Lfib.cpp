#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <set>

#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"

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

bool lfibDamageFound() { return damageFound > 0; }

Mpls::LfibStatus::Ptr mountLfibReader(const std::string& name) {
  if (Pond::MountGroup::tableNames(name).empty()) {
    throw CommandError(fmt::format("no LFIB named '{}' (no shared-memory segments)", name));
  }
  LfibStatus::Ptr lfib = lfibStatusFactory();
  lfib->mountGroupIs(Pond::MountGroup::reader(name));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const Kel::Ptr<Pond::MountGroup>& group = lfib->mountGroup();
  group->processChanges();
  while (!group->ready()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw CommandError(fmt::format(
          "LFIB '{}' is incomplete: not all its tables opened within 5 s (its writer may still "
          "be creating them; 'mplsctl clear --lfib {}' removes what is there)",
          name, name));
    }
    group->waitForChange(std::chrono::milliseconds(100));
    group->processChanges();
  }
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
