// Mounting a table set (an entity declared with KEL_POND_TABLE_SET) from mplsctl: as a
// reader that waits for every table to open, or as the writer, sized for what it will
// hold.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "Pond/KelPond.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"

namespace Mplsctl {

// Mounts `set` as a reader of the group `group` and waits, at most 5 s, until every table
// has opened. `kind` and `name` name the set in errors ("LFIB", "default"); `clear` is the
// command that removes it. A command that reads what the tables hold and is done passes
// KelPond::Changes::ignored: its tables open without walking their rows. Throws
// CommandError when the group has no segments or stays incomplete.
template <class Set>
void mountTableSetReader(Set& set, const std::string& group, std::string_view kind,
                         const std::string& name, const std::string& clear,
                         KelPond::Changes changes = KelPond::Changes::followed) {
  if (Pond::MountGroup::tableNames(group).empty()) {
    throw CommandError(fmt::format("no {} named '{}' (no shared-memory segments)", kind, name));
  }
  set.mountGroupIs(Pond::MountGroup::reader(group), Set::sizingFor(Pond::Role::reader), changes);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  const Kel::Ptr<Pond::MountGroup>& g = set.mountGroup();
  g->processChanges();
  while (!g->ready()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw CommandError(fmt::format(
          "{} '{}' is incomplete: not all its tables opened within 5 s (its writer may still "
          "be creating them; '{}' removes what is there)",
          kind, name, clear));
    }
    g->waitForChange(std::chrono::milliseconds(100));
    g->processChanges();
  }
}

// `wanted`, but the sizes of the tables of `group` that exist already (a writer takes
// over tables at the size they were made).
template <class Sizing>
Sizing existingSizing(const std::string& group, Sizing wanted) {
  wanted.forEach([&](std::string_view table, Pond::TableSizing& t) {
    if (auto existing = Pond::MountGroup::tableSizing(group, table)) {
      t = *existing;
    }
  });
  return wanted;
}

// Room for `count` rows with as many again to spare, at least 1024, a power of two.
uint32_t roomFor(uint64_t count);

// Removes the segments of `groups`, the groups of the `kind` named `name`; returns how
// many. Throws CommandError when one cannot be removed, or when there were none at all.
size_t removeTableSets(const std::vector<std::string>& groups, std::string_view kind,
                       const std::string& name);

}  // namespace Mplsctl
