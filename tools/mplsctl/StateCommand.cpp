// mplsctl state: what the state database holds.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <thread>

#include <fmt/format.h>

#include "Kel/EventLoop.h"
#include "Kel/SignalFd.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/StateViews.h"

namespace Mplsctl {

namespace {

Statehub::EntityManager::Ptr managerOf(const StateOptions& options) {
  try {
    return Kel::make<Statehub::EntityManager>(options.statehub);
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
}

// The view of what `path` holds; throws CommandError when nothing is published there, or
// something mplsctl does not know.
std::unique_ptr<StateView> viewOf(Statehub::EntityManager& manager, const std::string& path,
                                  const std::string& type) {
  std::unique_ptr<StateView> view = stateView(manager, path, type);
  if (!view) {
    const std::vector<std::string> types = stateViewTypes();
    throw CommandError(fmt::format("{} holds a {}, which mplsctl cannot show (it shows {})",
                                   manager.describe(path), type, fmt::join(types, ", ")));
  }
  return view;
}

void checkNotFailed(const StateView& view) {
  if (view.mount().status() == Statehub::mountFailed) {
    throw CommandError(view.mount().error());
  }
}

}  // namespace

int runStateShow(const StateOptions& options) {
  auto manager = managerOf(options);
  const std::string what = manager->describe(options.path);
  std::string type = manager->typeNameAt(options.path);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  // A publisher that has just created the path writes its type name next.
  while (type.empty() && manager->published(options.path) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    type = manager->typeNameAt(options.path);
  }
  if (type.empty()) {
    throw CommandError(fmt::format("nothing is published at {}", what));
  }
  std::unique_ptr<StateView> view = viewOf(*manager, options.path, type);
  awaitMount(view->mount(), what,
             std::chrono::duration_cast<std::chrono::milliseconds>(
                 deadline - std::chrono::steady_clock::now()));
  if (options.json) {
    std::printf("%s\n", view->json().dump(2).c_str());
  } else {
    std::fputs(view->text().c_str(), stdout);
  }
  return 0;
}

int runStateWatch(const StateOptions& options) {
  Kel::SignalFd signals;
  Kel::EventLoop loop;  // outlives the manager and the mount
  auto manager = Kel::make<Statehub::EntityManager>(options.statehub, &loop);
  const std::string what = manager->describe(options.path);
  bool signalled = false;
  loop.fdIs(signals.fd(), EPOLLIN, [&](uint32_t) { signalled = signals.drain() || signalled; });

  std::unique_ptr<StateView> view;
  std::vector<std::string> shown;
  bool started = false;
  uint64_t changes = 0;
  // Until the path is published, its type is unknown: look for it ten times a second.
  auto lookForType = [&] {
    if (view) {
      return;
    }
    if (const std::string type = manager->typeNameAt(options.path); !type.empty()) {
      view = viewOf(*manager, options.path, type);
    }
  };
  if (lookForType(), !view) {
    std::fprintf(stderr, "mplsctl: nothing is published at %s yet; waiting for it\n",
                 what.c_str());
  }
  const Kel::EventLoop::TimerId poll = loop.timerIs(std::chrono::milliseconds(100), lookForType,
                                                    std::chrono::milliseconds(100));
  loop.afterIterationHookIs([&] {
    if (!view) {
      return;
    }
    checkNotFailed(*view);
    if (view->mount().status() != Statehub::mountComplete) {
      return;
    }
    std::vector<std::string> now = view->lines();
    if (!started) {
      started = true;
      std::printf("watching %s\n", what.c_str());
      for (const std::string& line : now) {
        std::printf("  %s\n", line.c_str());
      }
    } else {
      std::vector<std::string> gone;
      std::vector<std::string> added;
      std::set_difference(shown.begin(), shown.end(), now.begin(), now.end(),
                          std::back_inserter(gone));
      std::set_difference(now.begin(), now.end(), shown.begin(), shown.end(),
                          std::back_inserter(added));
      for (const std::string& line : gone) {
        std::printf("- %s\n", line.c_str());
      }
      for (const std::string& line : added) {
        std::printf("+ %s\n", line.c_str());
      }
      changes += gone.size() + added.size();
    }
    shown = std::move(now);
    std::fflush(stdout);
  });

  const auto limit = options.timeout ? std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           std::chrono::duration<double>(*options.timeout))
                                     : std::chrono::nanoseconds(std::chrono::hours(24 * 365 * 100));
  loop.runUntil([&] { return signalled || (options.count && changes >= *options.count); }, limit);
  loop.timerDel(poll);
  loop.fdDel(signals.fd());
  if (!started && !signalled) {
    throw CommandError(fmt::format("{} was not published within {:g} s", what,
                                   options.timeout.value_or(0)));
  }
  return 0;
}

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
