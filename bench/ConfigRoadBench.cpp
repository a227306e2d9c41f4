// ConfigRoadBench: the configuration road between processes.
//   C4  ms  `mplsctl config commit` of a file of 10,000 static routes until a reading
//           process holds all of them in its replica of the LFIB: the MPLS agent (mplsd's
//           MplsAgent, in its own process) merges the committed input and programs the LFIB.
//           Each round commits 10,000 routes of new labels (the previous round's leave), so
//           every round adds and deletes 10,000 routes; the median of 5 rounds.
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "BenchSupport.h"
#include "Kel/EventLoop.h"
#include "Mpls/MplsLfib.h"
#include "Pond/MountGroup.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsd/MplsAgent.h"

namespace Bench {
namespace {

constexpr uint32_t kRoutes = 10'000;
constexpr uint32_t kRounds = 5;
constexpr uint32_t kFirstLabel = 16;
constexpr auto kWait = std::chrono::seconds(60);

uint32_t firstLabelOf(uint32_t round) { return kFirstLabel + round * kRoutes; }

std::string routeFile(uint32_t round) {
  const std::string path = fmt::format("/tmp/config-road-bench-{}-{}.routes", ::getpid(), round);
  std::ofstream out(path);
  for (uint32_t i = 0; i < kRoutes; ++i) {
    const uint32_t label = firstLabelOf(round) + i;
    out << fmt::format("{} swap {} via 10.{}.{}.1 dev Ethernet{}\n", label, label + 100000,
                       i >> 8 & 0xff, i & 0xff, 1 + i % 8);
  }
  return path;
}

// The agent, until the parent has no more requests.
std::string runAgent(Child& c, const std::string& instance, const std::string& lfib) {
  Kel::EventLoop loop;
  Mplsd::MplsAgent agent(instance, loop, std::chrono::seconds(5), lfib);
  if (!loop.runUntil([&] { return agent.configLfib()->synced(); }, kWait)) {
    throw std::runtime_error("the agent did not program its configuration");
  }
  bool stop = false;
  loop.fdIs(c.requestFd(), EPOLLIN, [&](uint32_t) { stop = !c.nextRequest(); });
  c.ready();
  loop.runUntil([&] { return stop; }, Kel::EventLoop::forever);
  loop.fdDel(c.requestFd());
  return "";
}

// A reading process: at each request, waits until its replica holds round r's routes, all
// of them, and none of the round before; answers when (CLOCK_MONOTONIC, ns).
std::string runReader(Child& c, const std::string& lfib) {
  const Mpls::LfibStatus::Ptr status = Mpls::lfibStatusFactory();
  status->mountGroupIs(Pond::MountGroup::reader(lfib));
  const Kel::Ptr<Pond::MountGroup>& group = status->mountGroup();
  group->processChanges();
  while (!group->ready()) {
    group->waitForChange(std::chrono::milliseconds(100));
    group->processChanges();
  }
  c.ready();
  for (uint32_t round = 0; c.nextRequest(); ++round) {
    auto holds = [&] {
      for (uint32_t i = 0; i < kRoutes; ++i) {
        if (!status->lfibRouteTable()->contains(Mpls::RouteKey(Netbase::MplsLabel(firstLabelOf(round) + i)))) {
          return false;
        }
      }
      return round == 0 ||
             !status->lfibRouteTable()->contains(Mpls::RouteKey(Netbase::MplsLabel(firstLabelOf(round - 1))));
    };
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (!holds()) {
      if (std::chrono::steady_clock::now() > deadline) {
        throw std::runtime_error(fmt::format("round {}: the reader's LFIB holds {} routes",
                                             round, status->lfibRoutes()));
      }
      group->waitForChange(std::chrono::milliseconds(100));
      group->processChanges();
    }
    c.answer(monoNs());
  }
  return "";
}

int run() {
  const std::string instance = fmt::format("config-road-bench-{}", ::getpid());
  const std::string lfib = fmt::format("config-road-bench-{}", ::getpid());
  Statehub::EntityManager::clear(instance);
  std::vector<std::string> files;
  for (uint32_t r = 0; r < kRounds; ++r) {
    files.push_back(routeFile(r));
  }
  std::vector<double> ms;
  {
    Child agent("agent", [&](Child& c) { return runAgent(c, instance, lfib); });
    agent.waitReady(kWait);
    Child reader("reader", [&](Child& c) { return runReader(c, lfib); });
    reader.waitReady(kWait);
    for (uint32_t r = 0; r < kRounds; ++r) {
      const uint64_t t0 = monoNs();
      Kel::ChildProcess commit([&](Kel::ChildProcess::Channel&) {
        ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
        ::execl(MPLSCTL_PATH, MPLSCTL_PATH, "config", "commit", files[r].c_str(), "--statehub",
                instance.c_str(), static_cast<char*>(nullptr));
        return 127;
      });
      const uint64_t t1 = reader.ask<uint64_t>(kWait);
      if (const int status = commit.wait(std::chrono::seconds(60)); status != 0) {
        throw std::runtime_error(fmt::format("mplsctl config commit exited with {}", status));
      }
      ms.push_back((t1 - t0) / 1e6);
      std::printf("# C4 round %u: %.1f ms\n", r, ms.back());
    }
    reader.finish(kWait);
    agent.finish(kWait);
  }
  for (const std::string& f : files) {
    std::remove(f.c_str());
  }
  Statehub::EntityManager::clear(instance);
  Pond::MountGroup::removeSegments(lfib);
  std::sort(ms.begin(), ms.end());
  std::printf("figure C4 %.1f ms\n", ms[ms.size() / 2]);
  return 0;
}

}  // namespace
}  // namespace Bench

int main() {
  try {
    return Bench::run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "ConfigRoadBench: %s\n", e.what());
    return 1;
  }
}
