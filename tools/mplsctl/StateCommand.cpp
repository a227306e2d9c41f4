// mplsctl state: what the state database holds.
#include <cstdio>

#include <fmt/format.h>

#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"

namespace Mplsctl {

namespace {

Statehub::EntityManager::Ptr managerOf(const StateOptions& options) {
  try {
    return Kel::make<Statehub::EntityManager>(options.statehub);
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
}

}  // namespace

int runStateLs(const StateOptions& options) {
  auto manager = managerOf(options);
  if (!options.path.empty()) {
    manager->describe(options.path);  // a malformed path is an error, not an empty list
  }
  std::vector<std::string> paths = manager->paths(options.path);
  if (!options.path.empty() && manager->published(options.path)) {
    paths.insert(paths.begin(), options.path);
  }
  for (const std::string& path : paths) {
    const std::string type = manager->typeNameAt(path);
    std::printf("%s  %s\n", path.c_str(), type.empty() ? "(being published)" : type.c_str());
  }
  return 0;
}

int runStateClear(const StateOptions& options) {
  managerOf(options);
  const size_t removed = Statehub::EntityManager::clear(options.statehub);
  std::printf("statehub '%s': %zu paths removed\n", options.statehub.c_str(), removed);
  return 0;
}

}  // namespace Mplsctl
