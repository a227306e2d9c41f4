// mplsctl demo, scene 5: configuration. An MPLS agent runs in a process of its own with an
// LFIB of the demo's; this process commits static routes as an operator would, publishes a
// conflicting input as another agent would, assigns a VRF label, and after each step reads
// the agent's LFIB until it holds what the merged configuration says. The agent is then
// killed with SIGKILL and started again: the LFIB does not change. The instance and the
// LFIB are removed at the end, also on failure.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "Kel/ChildProcess.h"
#include "Pond/MountGroup.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/ConfigCommand.h"
#include "tools/mplsctl/RouteFile.h"
#include "tools/mplsd/MplsAgent.h"

namespace Mplsctl {

namespace {

constexpr const char* kRoutes =
    "100 swap 200 via 10.0.0.1 dev Ethernet1\n"
    "101 pop via 10.0.0.2 dev Ethernet2 weight 2 via 10.0.0.3 dev Ethernet3\n";
constexpr const char* kIsisRoutes = "101 swap 300 via 10.0.0.9 dev Ethernet9\n";

std::vector<Mpls::Route> routesOf(const char* text, const std::string& name) {
  std::vector<Mpls::Route> routes;
  for (const ParsedRoute& r : parseRouteFile(text, name, RouteFileUse::config)) {
    routes.push_back(r.config);
  }
  return routes;
}

// The LFIB as a reading process sees it: label -> route summary.
class LfibReader {
 public:
  explicit LfibReader(const std::string& lfib) : lfib_(mountLfibReader(lfib)) {}
  // Waits (at most 5 s) until the LFIB holds exactly `labels`; what it holds then.
  std::map<uint32_t, std::string> waitFor(const std::vector<uint32_t>& labels,
                                          const std::string& step) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    Pond::MountGroup& group = *lfib_->mountGroup();
    while (true) {
      group.processChanges();
      std::map<uint32_t, std::string> held;
      lfib_->lfibRouteForEach([&](const Mpls::LfibRoute& r) {
        held[r.key().label().value()] = sourceName(r.source());
      });
      bool same = held.size() == labels.size();
      for (uint32_t l : labels) {
        same = same && held.contains(l);
      }
      if (same) {
        return held;
      }
      if (std::chrono::steady_clock::now() > deadline) {
        throw CommandError(fmt::format("demo: after {} the LFIB holds {} routes, not {}", step,
                                       held.size(), labels.size()));
      }
      group.waitForChange(std::chrono::milliseconds(50));
    }
  }
  uint64_t versions() const { return lfib_->tableVersions(); }

 private:
  Mpls::LfibStatus::Ptr lfib_;
};

std::string heldText(const std::map<uint32_t, std::string>& held) {
  std::string out;
  for (const auto& [label, source] : held) {
    out += fmt::format("{}{} ({})", out.empty() ? "" : ", ", label, source);
  }
  return out;
}

std::unique_ptr<Kel::ChildProcess> startAgent(const std::string& instance,
                                              const std::string& lfib) {
  auto agent = std::make_unique<Kel::ChildProcess>([instance, lfib](Kel::ChildProcess::Channel&) {
    return Mplsd::runAgent(instance, lfib);
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (Pond::MountGroup::tableNames(lfib).empty()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw CommandError("demo: the MPLS agent did not create its LFIB");
    }
    ::usleep(2000);
  }
  return agent;
}

}  // namespace

void demoConfiguration() {
  const std::string instance = fmt::format("mplsctl-demo-config-{}", ::getpid());
  const std::string lfib = fmt::format("mplsctl-demo-config-{}", ::getpid());
  struct Cleanup {
    std::string instance, lfib;
    ~Cleanup() {
      Statehub::EntityManager::clear(instance);
      Pond::MountGroup::removeSegments(lfib);
    }
  } cleanup{instance, lfib};
  Statehub::EntityManager::clear(instance);

  std::unique_ptr<Kel::ChildProcess> agent = startAgent(instance, lfib);
  std::printf("5. MPLS agent process %d programs the merged configuration into LFIB '%s'\n",
              agent->pid(), lfib.c_str());
  LfibReader reader(lfib);
  std::string done = commitConfigRoutes(instance, routesOf(kRoutes, "demo routes"));
  std::printf("  committed 2 static routes (%s): LFIB holds %s\n", done.c_str(),
              heldText(reader.waitFor({100, 101}, "the commit")).c_str());
  publishConfigInput(instance, "isis", routesOf(kIsisRoutes, "demo isis routes"));
  std::printf("  agent input 'isis' also configures 101: withdrawn, LFIB holds %s\n",
              heldText(reader.waitFor({100}, "the conflict")).c_str());
  ConfigOptions vrf;
  vrf.statehub = instance, vrf.label = 16, vrf.vrf = "red";
  configVrfLabelIs(vrf);
  withdrawConfigInput(instance, "isis");
  std::printf("  VRF label 16 -> red, input 'isis' withdrawn: LFIB holds %s\n",
              heldText(reader.waitFor({16, 100, 101}, "the VRF label")).c_str());
  const uint64_t before = reader.versions();
  agent->kill();
  agent = startAgent(instance, lfib);
  done = commitConfigRoutes(instance, routesOf(kRoutes, "demo routes"));  // the agent is up
  reader.waitFor({16, 100, 101}, "the restart");
  if (reader.versions() != before) {
    throw CommandError("demo: the restarted agent changed the LFIB");
  }
  std::printf("  agent killed (SIGKILL) and started again as process %d: the LFIB did not "
              "change\n",
              agent->pid());
  agent->kill();
}

}  // namespace Mplsctl
