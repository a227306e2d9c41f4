// LabelBench: label blocks from the MPLS agent (mplsd's MplsAgent) to 63 client processes.
//   L2-p50/p99  ms  a client publishes a request for a block (flush) until the block is in
//                   its own replica of the MPLS status (its event loop's poll sees it); 63
//                   clients ask in a burst, 20 counted rounds after one that is not
//   L2-restart  ms  with the 63 blocks held, the agent is killed (SIGKILL) and a new one
//                   started: from the new agent process starting its work to its label
//                   manager holding the 63 clients' blocks, the status published; the
//                   median of 5 restarts. Every client must keep its block.
// Every figure is a line `figure NAME VALUE UNIT`; lines starting with '#' are notes.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "BenchSupport.h"
#include "Kel/EventLoop.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsd/MplsAgent.h"
#include "types/Mpls/ClientLabelRequest.h"
#include "types/Mpls/MplsApiStatus.h"
#include "types/Mpls/MplsConfig.h"

namespace Bench {
namespace {

constexpr uint32_t kClients = 63;  // the blocks of the dynamic range (16, 1048560)
constexpr uint32_t kRangeBase = 16;
constexpr uint32_t kRangeSize = 1048560;
constexpr uint32_t kWarmRounds = 1;  // the first request of each client: not counted
constexpr uint32_t kRounds = 20;
constexpr uint32_t kRestarts = 5;
constexpr auto kWait = std::chrono::seconds(30);

std::string clientName(uint32_t k) { return fmt::format("c{}", k); }
uint32_t blockNumber(uint32_t start) { return (start - kRangeBase) / Mpls::LabelBlock::size; }

// What a client answers for a request it made: how long the block took, and the block.
struct Sample {
  uint64_t ns;
  uint32_t blockStart;
};

// What a started agent answers: how long it took to take over the clients' blocks, and
// what it holds for each client (its block number, and the first label it publishes).
struct AgentStart {
  uint64_t ns;
  uint32_t clients;  // that hold a block
  uint32_t known;    // the clients the label manager knows of, when asked
  uint32_t blockIndex[kClients];
  uint32_t blockStart[kClients];
};

// Runs the agent on an event loop until the parent closes the channel. `expected` is how
// many clients hold a block; the agent is ready once its label manager holds them all.
std::string runAgent(Child& c, const std::string& inst, uint32_t expected) {
  const uint64_t t0 = monoNs();
  Kel::EventLoop loop;
  Mplsd::MplsAgent agent(inst, loop);
  const Mpls::LabelManagerSm& lm = *agent.labelManager();
  const Mpls::Api::Status& status = *lm.status();
  AgentStart s{};
  auto learned = [&] {
    s.clients = 0;
    for (uint32_t k = 0; k < kClients; ++k) {
      const Kel::String name(clientName(k));
      const auto info = lm.clientInfo(name);
      const auto alloc = status.labelBlockAllocation(name);
      if (!info || info->blockIndexs() != 1 || !alloc || alloc->blocks() != 1) {
        continue;
      }
      for (const auto& [id, index] : info->blockIndexIter()) {
        s.blockIndex[k] = index;
        s.blockStart[k] = alloc->blockHas(id) ? alloc->block(id).blockStart().value() : 0;
      }
      ++s.clients;
    }
    return s.clients == expected;
  };
  if (!loop.runUntil(learned, kWait)) {
    throw std::runtime_error(
        fmt::format("the agent holds blocks of {} clients of {}", s.clients, expected));
  }
  s.ns = monoNs() - t0;
  bool stop = false;
  loop.fdIs(c.requestFd(), EPOLLIN, [&](uint32_t) {
    if (c.nextRequest()) {
      s.known = static_cast<uint32_t>(lm.clients());
      c.answer(s);
    } else {
      stop = true;
    }
  });
  c.ready();
  loop.runUntil([&] { return stop; }, Kel::EventLoop::forever);
  loop.fdDel(c.requestFd());
  return "";
}

// A client: publishes its requests, follows the status, and answers three requests per
// round: release (once its block is withdrawn), ask (at once, after the flush) and
// collect (once the block is in its replica: the Sample).
std::string runClient(Child& c, const std::string& inst, uint32_t k) {
  Kel::EventLoop loop;  // outlives the manager, the publication and the mount
  auto manager = Kel::make<Statehub::EntityManager>(inst, &loop);
  const Kel::String name(clientName(k));
  auto request = Mpls::clientLabelRequestFactory(std::string(name.view()));
  auto publication =
      manager->publish(std::string(Mpls::labelRequestDirPath) + "/" + clientName(k), request);
  publication->flush();
  auto status = manager->mount<Mpls::Api::Status>(Mpls::Api::statusPath);
  if (!loop.runUntil([&] { return status->status() == Statehub::mountComplete; }, kWait)) {
    throw std::runtime_error("the status mount never completed");
  }
  auto blockOf = [&](const Kel::String& id) -> std::optional<uint32_t> {
    const auto alloc = status->entity()->labelBlockAllocation(name);
    if (!alloc || !alloc->blockHas(id)) {
      return std::nullopt;
    }
    return alloc->block(id).blockStart().value();
  };

  enum class Pending { none, release, collect } pending = Pending::none;
  uint32_t step = 0;
  Kel::String id;  // the current request; empty before the first
  uint64_t sentNs = 0;
  Sample got{};
  bool stop = false;
  loop.fdIs(c.requestFd(), EPOLLIN, [&](uint32_t) {
    if (!c.nextRequest()) {
      stop = true;
      return;
    }
    switch (step++ % 3) {
      case 0:  // release the block of the previous round
        if (!id.view().empty()) {
          request->requestDel(id);
          publication->flush();
        }
        pending = Pending::release;
        break;
      case 1:  // ask for a new one
        id = Kel::String(fmt::format("r{}", step / 3));
        request->requestIs(id, true);
        got = Sample{};
        sentNs = monoNs();
        publication->flush();
        c.answer(uint8_t{1});
        break;
      default:
        pending = Pending::collect;
    }
  });
  c.ready();
  auto poll = [&] {
    if (sentNs != 0 && got.ns == 0) {
      if (auto start = blockOf(id)) {
        got = Sample{monoNs() - sentNs, *start};
      }
    }
    if (pending == Pending::release && (id.view().empty() || !blockOf(id))) {
      pending = Pending::none;
      c.answer(uint8_t{1});
    } else if (pending == Pending::collect && got.ns != 0) {
      pending = Pending::none;
      c.answer(got);
    }
    return stop;
  };
  loop.runUntil(poll, Kel::EventLoop::forever);
  loop.fdDel(c.requestFd());
  return "";
}

std::unique_ptr<Child> startAgent(const std::string& inst, uint32_t expected) {
  auto agent = std::make_unique<Child>(
      "agent", [&inst, expected](Child& c) { return runAgent(c, inst, expected); });
  agent->waitReady(kWait);
  return agent;
}

double ms(double ns) { return ns / 1e6; }

int run() {
  std::ifstream loadavg("/proc/loadavg");
  std::string load1;
  loadavg >> load1;
  note(fmt::format("LabelBench: {} clients, dynamic range ({}, {}); {} CPUs, load average {}",
                   kClients, kRangeBase, kRangeSize, ::sysconf(_SC_NPROCESSORS_ONLN), load1));
  const std::string inst = "bench-" + std::to_string(::getpid());
  Statehub::EntityManager::clear(inst);
  struct Clear {
    std::string inst;
    ~Clear() { Statehub::EntityManager::clear(inst); }
  } clear{inst};

  auto manager = Kel::make<Statehub::EntityManager>(inst);
  auto config = Mpls::configFactory();
  auto configPublication = manager->publish(Mpls::configPath, config);
  config->labelRangeIs(Kel::String("dynamic"), Mpls::LabelRange(kRangeBase, kRangeSize));
  configPublication->flush();

  std::unique_ptr<Child> agent = startAgent(inst, 0);
  std::vector<std::unique_ptr<Child>> clients;
  for (uint32_t k = 0; k < kClients; ++k) {
    clients.push_back(std::make_unique<Child>(
        "client " + clientName(k), [&inst, k](Child& c) { return runClient(c, inst, k); }));
  }
  for (auto& c : clients) {
    c->waitReady(kWait);
  }

  // L2: every round, each client releases its block, then all ask for a new one in a
  // burst (the parent tells them one after the other), then each hands over its sample.
  // The agent mounts the clients' new directory entries first.
  const uint64_t deadline = monoNs() + 30'000'000'000u;
  while (agent->ask<AgentStart>(kWait).known != kClients) {
    if (monoNs() > deadline) {
      throw std::runtime_error("the agent never knew of every client");
    }
    sleepFor(std::chrono::microseconds(1000));
  }
  std::vector<uint64_t> samples, first;
  std::vector<uint32_t> held(kClients);
  for (uint32_t round = 0; round < kWarmRounds + kRounds; ++round) {
    for (auto& c : clients) {
      c->ask<uint8_t>(kWait);  // released
    }
    for (auto& c : clients) {
      c->ask<uint8_t>(kWait);  // asked
    }
    std::vector<bool> taken(kClients);
    for (uint32_t k = 0; k < kClients; ++k) {
      const Sample s = clients[k]->ask<Sample>(kWait);
      const uint32_t n = blockNumber(s.blockStart);
      if ((s.blockStart - kRangeBase) % Mpls::LabelBlock::size != 0 || n >= kClients || taken[n]) {
        throw std::runtime_error(fmt::format("round {}: {} got block {}, off the range or taken",
                                             round, clientName(k), s.blockStart));
      }
      taken[n] = true;
      held[k] = s.blockStart;
      (round < kWarmRounds ? first : samples).push_back(s.ns);
    }
  }
  note(fmt::format(
      "{} samples ({} rounds of {} clients); the round before them, not counted: "
      "p50 {:.2f} ms, max {:.2f} ms",
      samples.size(), kRounds, kClients, ms(quantile(first, 0.5)), ms(quantile(first, 1.0))));
  figure("L2-p50", ms(quantile(samples, 0.50)), "ms");
  figure("L2-p99", ms(quantile(samples, 0.99)), "ms");
  note(fmt::format("max {:.2f} ms", ms(quantile(samples, 1.0))));

  // L2-restart: the agent killed with every block held, and a new one started.
  std::vector<uint64_t> restarts;
  for (uint32_t r = 0; r < kRestarts; ++r) {
    agent.reset();  // SIGKILL
    agent = startAgent(inst, kClients);
    const AgentStart s = agent->ask<AgentStart>(kWait);
    for (uint32_t k = 0; k < kClients; ++k) {
      if (s.blockStart[k] != held[k] || s.blockIndex[k] != blockNumber(held[k])) {
        throw std::runtime_error(fmt::format(
            "restart {}: {} held block {} (number {}); the new agent has block {}, number {}",
            r + 1, clientName(k), held[k], blockNumber(held[k]), s.blockStart[k], s.blockIndex[k]));
      }
    }
    restarts.push_back(s.ns);
  }
  note(fmt::format("{} restarts, every client kept its block; max {:.2f} ms", kRestarts,
                   ms(quantile(restarts, 1.0))));
  figure("L2-restart", ms(quantile(restarts, 0.5)), "ms");

  for (auto& c : clients) {
    c->finish(kWait);
  }
  agent->finish(kWait);
  return 0;
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
  return Bench::benchMain(
      argc, argv, "LabelBench",
      "Measures label blocks from the MPLS agent for 63 client processes, and "
      "its restart;\nprints `figure NAME VALUE UNIT` lines (bench/README.md).\n",
      Bench::run);
}
