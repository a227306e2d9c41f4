// mplsctl demo, scene 4: label bindings. A producer process holds an LDP agent's bindings
// as entities and publishes them through the producers of both label-binding table sets; a
// consumer process rebuilds them from the tables with the consumers. The producer then
// unbinds a label, filters a FEC and loses a peer, and the consumer follows. Each side
// summarises its entity tables the same way, and the scene checks that they agree. The
// table sets are removed at the end, also on failure.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "Kel/ChildProcess.h"
#include "Mpls/CommonLibPond.h"
#include "Mpls/CommonLibSm.h"
#include "Mpls/LdpLibPond.h"
#include "Mpls/LdpLibSm.h"
#include "Pond/MountGroup.h"
#include "tools/mplsctl/Commands.h"

namespace Mplsctl {

namespace {

using Mpls::FwdEqvClass;
using Mpls::LabelBindingTable;
using Mpls::RouterId;
using Netbase::MplsLabel;

FwdEqvClass fec(const char* prefix) { return FwdEqvClass(Netbase::IpGenPrefix(prefix)); }
RouterId peer(const char* id) { return *RouterId::parse(id); }

// "10.0.0.0/8: local 16, 10.1.1.1:0 24001; ..." in prefix and router order.
std::string summary(const LabelBindingTable& local, const Mpls::LabelBindingTableColl& peers) {
  std::map<FwdEqvClass, std::vector<std::string>> byFec;
  auto add = [&](const LabelBindingTable& t, const std::string& who) {
    std::map<FwdEqvClass, std::string> mine;
    for (auto&& [f, b] : t.bindingIter()) {
      std::vector<uint32_t> labels;
      for (const MplsLabel& l : b->mplsLabelIter()) {
        labels.push_back(l.value());
      }
      std::sort(labels.begin(), labels.end());
      mine[f] = fmt::format("{}", fmt::join(labels, "/"));
    }
    for (const FwdEqvClass& f : t.filteredFecIter()) {
      mine[f] += mine[f].empty() ? "filtered" : " filtered";
    }
    for (const auto& [f, text] : mine) {
      byFec[f].push_back(who + " " + text);
    }
  };
  add(local, "local");
  std::map<RouterId, LabelBindingTable::Ptr> ordered;
  for (auto&& [id, t] : peers.bindingTableIter()) {
    ordered.emplace(id, t);
  }
  for (const auto& [id, t] : ordered) {
    add(*t, id.stringValue());
  }
  std::vector<std::string> parts;
  for (const auto& [f, lines] : byFec) {
    parts.push_back(fmt::format("{}: {}", f.prefix().stringValue(), fmt::join(lines, ", ")));
  }
  return fmt::format("{}", fmt::join(parts, "; "));
}

// The producer's process: the agent's entities, and the producers writing both sets.
int produce(Kel::ChildProcess::Channel& channel, const std::string& table) {
  auto lbt = CommonLibPond::labelBindingTableFactory(table);
  auto ldp = Ldp::LdpPond::ldpLabelBindingTableFactory(table);
  auto lbtGroup = Pond::MountGroup::writer(CommonLibPond::mountGroupName(table));
  auto ldpGroup = Pond::MountGroup::writer(Ldp::LdpPond::mountGroupName(table));
  lbt->mountGroupIs(lbtGroup);
  ldp->mountGroupIs(ldpGroup);
  auto local = Mpls::labelBindingTableFactory();
  auto peers = Mpls::labelBindingTableCollFactory();
  auto advertised = Ldp::labelAdvertisementCollFactory();
  auto common = CommonLibPond::commonLibProducerSmFactory(local, peers, lbt);
  auto ldpProducer = Ldp::LdpPond::ldpLibProducerSmFactory(local, peers, ldp);
  auto advProducer = Ldp::LdpPond::ldpLibAdvertisementProducerSmFactory(advertised, ldp, lbt);
  common->handleInitialized();
  ldpProducer->handleInitialized();
  advProducer->handleInitialized();
  channel.reply("mounted");
  while (std::optional<std::string> step = channel.request(std::chrono::seconds(10))) {
    if (*step == "learn") {
      // What the agent learns: its own labels, two peers' labels, its advertisements.
      local->bindingIs(fec("10.0.0.0/8"))->mplsLabelIs(MplsLabel(16), true);
      local->bindingIs(fec("10.9.0.0/16"))->mplsLabelIs(MplsLabel(17), true);
      local->bindingIs(fec("10.9.0.0/16"))->mplsLabelIs(MplsLabel(18), true);
      peers->bindingTableIs(peer("10.1.1.1:0"))->bindingIs(fec("10.0.0.0/8"))
          ->mplsLabelIs(MplsLabel(24001), true);
      auto second = peers->bindingTableIs(peer("10.1.1.2:0"));
      second->bindingIs(fec("10.0.0.0/8"))->mplsLabelIs(MplsLabel(24002), true);
      second->bindingIs(fec("10.9.0.0/16"))->mplsLabelIs(MplsLabel(24003), true);
      advertised->advertisedToIs(fec("10.0.0.0/8"))
          ->identifierIs(Ldp::LdpIdentifier(peer("10.1.1.1:0")), true);
    } else if (*step == "change") {
      local->bindingIs(fec("10.9.0.0/16"))->mplsLabelDel(MplsLabel(18));
      local->filteredFecIs(fec("10.0.0.0/8"), true);
      peers->bindingTableDel(peer("10.1.1.2:0"));
    } else if (!step->empty()) {
      continue;
    }
    lbtGroup->publish();
    ldpGroup->publish();
    if (!step->empty()) {
      channel.reply(summary(*local, *peers));
    }
  }
  return 0;
}

// The consumer's process: rebuilds the entities from the common set, and answers each
// request with its summary.
int consume(Kel::ChildProcess::Channel& channel, const std::string& table) {
  auto lbt = CommonLibPond::labelBindingTableFactory(table);
  lbt->mountGroupIs(Pond::MountGroup::reader(CommonLibPond::mountGroupName(table)));
  const Kel::Ptr<Pond::MountGroup>& group = lbt->mountGroup();
  auto local = Mpls::labelBindingTableFactory();
  auto peers = Mpls::labelBindingTableCollFactory();
  auto consumer = CommonLibPond::commonLibConsumerSmFactory(lbt, local, peers);
  consumer->handleInitialized();  // its full pass comes once the tables are all open
  while (std::optional<std::string> request = channel.request(std::chrono::milliseconds(20))) {
    group->processChanges();
    if (!request->empty()) {
      channel.reply(summary(*local, *peers));
    }
  }
  return 0;
}

}  // namespace

void demoBindings() {
  const std::string table = fmt::format("mplsctl-demo-{}", ::getpid());
  const std::vector<std::string> groups = {CommonLibPond::mountGroupName(table),
                                           Ldp::LdpPond::mountGroupName(table)};
  struct Cleanup {
    const std::vector<std::string>& groups;
    ~Cleanup() {
      for (const std::string& g : groups) {
        Pond::MountGroup::removeSegments(g);
      }
    }
  } cleanup{groups};

  Kel::ChildProcess producer([&](Kel::ChildProcess::Channel& c) { return produce(c, table); });
  std::string line;
  if (!producer.awaitReply(std::chrono::seconds(10), &line) || line != "mounted") {
    throw CommandError("demo: the binding producer did not start");
  }
  Kel::ChildProcess consumer([&](Kel::ChildProcess::Channel& c) { return consume(c, table); });
  std::printf("4. LDP producer process %d publishes label bindings in table set '%s'; consumer "
              "process %d rebuilds them\n",
              producer.pid(), table.c_str(), consumer.pid());
  for (const char* step : {"learn", "change"}) {
    const std::string published = producer.ask(step);
    // The consumer may need a moment to open the tables: ask until it agrees (5 s at most).
    std::string rebuilt;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while ((rebuilt = consumer.ask("show")) != published &&
           std::chrono::steady_clock::now() < deadline) {
    }
    std::printf("  %s: %s\n", std::string(step) == "learn" ? "published" : "after a label "
                "unbound, a FEC filtered and a peer gone", published.c_str());
    if (rebuilt != published) {
      throw CommandError(fmt::format("demo: the consumer rebuilt '{}'", rebuilt));
    }
    std::printf("  the consumer process rebuilt the same\n");
  }
}

}  // namespace Mplsctl
