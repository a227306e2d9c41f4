// mplsctl demo, scene 3: label blocks. An MPLS agent runs in a process of its own on a
// state database instance of the demo's; two clients (this process, as client agents
// would) ask it for label blocks; the agent is killed with SIGKILL and started again, and
// both clients keep their blocks. The instance is removed at the end, also on failure.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Kel/ChildProcess.h"
#include "Kel/EventLoop.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsd/MplsAgent.h"

namespace Mplsctl {

namespace {

std::unique_ptr<Kel::ChildProcess> startAgent(const std::string& instance) {
  return std::make_unique<Kel::ChildProcess>(
      [instance](Kel::ChildProcess::Channel&) { return Mplsd::runAgent(instance); });
}

// Clients in this process: their published requests and their view of the status.
class Clients {
 public:
  explicit Clients(const std::string& instance)
      : manager_(Kel::make<Statehub::EntityManager>(instance, &loop_)),
        status_(manager_->mount<Mpls::Api::Status>(Mpls::Api::statusPath)) {}

  // Publishes `client`'s request `id` and waits for its block ("first-last").
  std::string ask(const std::string& client, const std::string& id) {
    auto request = Mpls::clientLabelRequestFactory(client);
    requests_.push_back(manager_->publish(
        std::string(Mpls::labelRequestDirPath) + "/" + client, request));
    request->requestIs(Kel::String(id), true);
    entities_.push_back(request);
    requests_.back()->flush();
    if (!loop_.runUntil([&] { return !block(client, id).empty(); }, std::chrono::seconds(5))) {
      throw CommandError(fmt::format("demo: the MPLS agent did not answer {}'s request {}",
                                     client, id));
    }
    return block(client, id);
  }
  // What the status says of `client`'s request `id` now ("" when nothing).
  std::string block(const std::string& client, const std::string& id) {
    const auto allocation = status_->entity()->labelBlockAllocation(Kel::String(client));
    if (!allocation || !allocation->blockHas(Kel::String(id))) {
      return "";
    }
    const Mpls::LabelBlock b = allocation->block(Kel::String(id));
    return fmt::format("{}-{}", b.blockStart().value(), b.blockEnd());
  }

 private:
  Kel::EventLoop loop_;  // outlives what is on it
  Statehub::EntityManager::Ptr manager_;
  Statehub::Mount<Mpls::Api::Status>::Ptr status_;
  std::vector<Kel::Ptr<Mpls::ClientLabelRequest>> entities_;
  std::vector<Statehub::Publication::Ptr> requests_;
};

}  // namespace

void demoLabelBlocks() {
  const std::string instance = fmt::format("mplsctl-demo-{}", ::getpid());
  Statehub::EntityManager::clear(instance);
  struct Cleanup {
    std::string instance;
    ~Cleanup() { Statehub::EntityManager::clear(instance); }
  } cleanup{instance};

  std::unique_ptr<Kel::ChildProcess> agent = startAgent(instance);
  std::printf("3. MPLS agent process %d hands out label blocks (statehub '%s')\n", agent->pid(),
              instance.c_str());
  Clients clients(instance);
  const std::string bgp = clients.ask("bgp", "r1");
  const std::string ldp = clients.ask("ldp", "a");
  std::printf("  bgp asked for a block: %s; ldp asked for one: %s\n", bgp.c_str(), ldp.c_str());
  agent->kill();
  agent = startAgent(instance);
  const std::string isis = clients.ask("isis", "x");  // the new agent answers: it is up
  if (clients.block("bgp", "r1") != bgp || clients.block("ldp", "a") != ldp) {
    throw CommandError(fmt::format("demo: after the agent's restart bgp holds '{}', ldp '{}'",
                                   clients.block("bgp", "r1"), clients.block("ldp", "a")));
  }
  std::printf("  agent killed (SIGKILL) and started again as process %d: bgp keeps %s, ldp "
              "keeps %s; isis asked and got %s\n",
              agent->pid(), bgp.c_str(), ldp.c_str(), isis.c_str());
  agent->kill();
}

}  // namespace Mplsctl
