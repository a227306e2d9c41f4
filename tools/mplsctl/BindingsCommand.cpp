#include "tools/mplsctl/BindingsCommand.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Mpls/CommonLibPond.h"
#include "Mpls/CommonLibSm.h"
#include "Mpls/LdpLibPond.h"
#include "Mpls/LdpLibSm.h"
#include "Pond/Exception.h"
#include "tools/mplsctl/BindingFile.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/TableSetMount.h"

namespace Mplsctl {

namespace {

using Mpls::FwdEqvClass;
using Mpls::LabelBinding;
using Mpls::LabelBindingTable;
using Mpls::RouterId;

constexpr const char* kKind = "label-binding table set";

struct BindingsOptions {
  std::string table = "default";
  std::string file;
  std::string fec;   // show: only this FEC
  std::string peer;  // show: only this peer
  bool json = false;
};

std::string clearCommand(const std::string& table) {
  return fmt::format("mplsctl bindings clear --table {}", table);
}

// Both sets' writer sizes for `file`: the declared ones, or room for the file where it
// needs more, or the sizes of the tables that exist already.
template <class Sizing>
Sizing sizingFor(Sizing s, const BindingFile& f, uint64_t localFecs, uint64_t peerFecs,
                 const std::string& group) {
  auto grow = [](Pond::TableSizing& t, uint64_t rows) {
    t.capacity = std::max(t.capacity, roomFor(rows));
  };
  grow(s.localLbtLabel, f.localLabels);
  grow(s.localLbtAdvertisedTo, f.advertised);
  grow(s.localLbtFilteredFec, f.filters);
  grow(s.localLbtLastUpdate, localFecs);
  grow(s.peerLbtLabel, f.peerLabels);
  grow(s.peerLbtFilteredFec, f.filters);
  grow(s.peerLbtLastUpdate, peerFecs);
  return existingSizing(group, s);
}

// Refuses a set whose tables could fill half way: what they hold now and all the file
// brings must fit.
template <class Set>
void checkRoom(const Set& set, const BindingFile& f, uint64_t localFecs, uint64_t peerFecs,
               const std::string& table) {
  const std::map<std::string_view, uint64_t> rows = {
      {"localLbtLabel", f.localLabels},   {"localLbtAdvertisedTo", f.advertised},
      {"localLbtFilteredFec", f.filters}, {"localLbtLastUpdate", localFecs},
      {"peerLbtLabel", f.peerLabels},     {"peerLbtFilteredFec", f.filters},
      {"peerLbtLastUpdate", peerFecs}};
  set.tableForEach([&](const auto& ref) {
    const uint64_t needed = ref.size() + rows.at(ref.name);
    if (needed > ref.capacity()) {
      throw CommandError(fmt::format(
          "{} '{}': table {} has room for {} rows, this publish may need {}: nothing "
          "published (run '{}' and publish again to size it for the file)",
          kKind, table, ref.name, ref.capacity(), needed, clearCommand(table)));
    }
  });
}

template <class Set>
void mountWriter(Set& set, const std::string& group, const typename Set::Sizing& sizing,
                 const std::string& table) {
  try {
    set.mountGroupIs(Pond::MountGroup::writer(group), sizing);
  } catch (const Pond::WriterExistsError& e) {
    throw CommandError(
        fmt::format("{} '{}' has a live writer process: {}", kKind, table, e.what()));
  }
}

int runPublish(const BindingsOptions& o) {
  const BindingFile f = readBindingFile(o.file);
  uint64_t localFecs = f.local->bindings(), peerFecs = 0;
  for (auto&& [id, t] : f.peers->bindingTableIter()) {
    peerFecs += t->bindings();
  }

  const std::string lbtGroup = CommonLibPond::mountGroupName(o.table);
  const std::string ldpGroup = Ldp::LdpPond::mountGroupName(o.table);
  auto lbt = CommonLibPond::labelBindingTableFactory(o.table);
  auto ldp = Ldp::LdpPond::ldpLabelBindingTableFactory(o.table);
  mountWriter(*lbt, lbtGroup,
              sizingFor(CommonLibPond::LabelBindingTable::sizingFor(Pond::Role::writer), f,
                        localFecs, peerFecs, lbtGroup),
              o.table);
  mountWriter(*ldp, ldpGroup,
              sizingFor(Ldp::LdpPond::LdpLabelBindingTable::sizingFor(Pond::Role::writer), f,
                        localFecs, peerFecs, ldpGroup),
              o.table);
  checkRoom(*lbt, f, localFecs, peerFecs, o.table);
  checkRoom(*ldp, f, localFecs, peerFecs, o.table);

  // The producers' first pass writes what the file holds and deletes what an earlier
  // publish left that it no longer does.
  auto common = CommonLibPond::commonLibProducerSmFactory(f.local, f.peers, lbt);
  auto ldpProducer = Ldp::LdpPond::ldpLibProducerSmFactory(f.local, f.peers, ldp);
  auto advertisements =
      Ldp::LdpPond::ldpLibAdvertisementProducerSmFactory(f.advertisements, ldp, lbt);
  common->handleInitialized();
  ldpProducer->handleInitialized();
  advertisements->handleInitialized();
  std::printf("%s '%s': %llu local labels, %llu peer labels from %u peers, %llu filters, %llu "
              "advertisements\n",
              kKind, o.table.c_str(), static_cast<unsigned long long>(f.localLabels),
              static_cast<unsigned long long>(f.peerLabels), f.peers->bindingTables(),
              static_cast<unsigned long long>(f.filters),
              static_cast<unsigned long long>(f.advertised));
  return 0;
}

// One router's binding of one FEC, as shown.
struct BindingView {
  std::vector<uint32_t> labels;
  bool filtered = false;
  std::optional<double> updated;

  bool empty() const { return labels.empty() && !filtered && !updated; }
};

BindingView viewOf(const LabelBindingTable& t, const FwdEqvClass& fec) {
  BindingView v;
  if (LabelBinding::Ptr b = t.binding(fec)) {
    for (const Netbase::MplsLabel& l : b->mplsLabelIter()) {
      v.labels.push_back(l.value());
    }
    std::sort(v.labels.begin(), v.labels.end());
    if (b->hasLastUpdate()) {
      v.updated = b->lastUpdate();
    }
  }
  v.filtered = t.filteredFec(fec);
  return v;
}

std::string bindingText(const BindingView& v) {
  std::string text = v.labels.empty() ? "no label" : "";
  for (size_t i = 0; i < v.labels.size(); ++i) {
    text += fmt::format("{}{}", i ? ", " : "", v.labels[i]);
  }
  if (v.filtered) {
    text += " filtered";
  }
  if (v.updated) {
    text += fmt::format(" (updated {})", *v.updated);
  }
  return text;
}

nlohmann::json bindingJson(const BindingView& v) {
  return {{"labels", v.labels},
          {"filtered", v.filtered},
          {"updated", v.updated ? nlohmann::json(*v.updated) : nlohmann::json()}};
}

int runShow(const BindingsOptions& o) {
  std::optional<FwdEqvClass> onlyFec;
  if (!o.fec.empty()) {
    try {
      onlyFec = FwdEqvClass(Netbase::IpGenPrefix(o.fec));
    } catch (const Kel::Exception&) {
      throw CommandError(fmt::format("--fec '{}' is not a prefix (as 10.0.0.0/8)", o.fec));
    }
  }
  std::optional<RouterId> onlyPeer;
  if (!o.peer.empty() && !(onlyPeer = RouterId::parse(o.peer))) {
    throw CommandError(
        fmt::format("--peer '{}' is not an LSR id and label space (as 10.0.0.1:0)", o.peer));
  }

  auto lbt = CommonLibPond::labelBindingTableFactory(o.table);
  auto ldp = Ldp::LdpPond::ldpLabelBindingTableFactory(o.table);
  mountTableSetReader(*lbt, CommonLibPond::mountGroupName(o.table), kKind, o.table,
                      clearCommand(o.table));
  mountTableSetReader(*ldp, Ldp::LdpPond::mountGroupName(o.table), kKind, o.table,
                      clearCommand(o.table));
  auto local = Mpls::labelBindingTableFactory();
  auto peers = Mpls::labelBindingTableCollFactory();
  auto advertised = Ldp::labelAdvertisementCollFactory();
  auto consumer = CommonLibPond::commonLibConsumerSmFactory(lbt, local, peers);
  auto advConsumer = Ldp::LdpPond::ldpLibAdvertisementConsumerSmFactory(ldp, lbt, advertised);
  consumer->handleInitialized();
  advConsumer->handleInitialized();

  // Every FEC any router has something for, in prefix order.
  std::set<FwdEqvClass> fecs;
  auto collect = [&](const LabelBindingTable& t) {
    for (auto&& [fec, b] : t.bindingIter()) {
      fecs.insert(fec);
    }
    for (const FwdEqvClass& fec : t.filteredFecIter()) {
      fecs.insert(fec);
    }
  };
  if (!onlyPeer) {
    collect(*local);
    for (auto&& [fec, set] : advertised->advertisedToIter()) {
      fecs.insert(fec);
    }
  }
  std::vector<std::pair<RouterId, LabelBindingTable::Ptr>> peerTables;
  for (auto&& [id, t] : peers->bindingTableIter()) {
    if (!onlyPeer || id == *onlyPeer) {
      peerTables.emplace_back(id, t);
      collect(*t);
    }
  }
  std::sort(peerTables.begin(), peerTables.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  if (onlyFec) {
    fecs = fecs.contains(*onlyFec) ? std::set<FwdEqvClass>{*onlyFec} : std::set<FwdEqvClass>{};
  }

  nlohmann::json out = nlohmann::json::array();
  uint64_t localLabels = 0, peerLabels = 0;
  for (const FwdEqvClass& fec : fecs) {
    const BindingView mine = viewOf(*local, fec);
    localLabels += mine.labels.size();
    std::vector<std::string> to;
    if (Ldp::LdpIdentifierSet::Ptr set = advertised->advertisedTo(fec)) {
      for (const Ldp::LdpIdentifier& id : set->identifierIter()) {
        to.push_back(id.stringValue());
      }
      std::sort(to.begin(), to.end());
    }
    nlohmann::json remote = nlohmann::json::array();
    std::string text = fmt::format("{}\n", fec.prefix().stringValue());
    if (!onlyPeer) {
      text += fmt::format("  local: {}\n", bindingText(mine));
      if (!to.empty()) {
        text += fmt::format("  advertised to: {}\n", fmt::join(to, ", "));
      }
    }
    for (const auto& [id, t] : peerTables) {
      const BindingView theirs = viewOf(*t, fec);
      if (theirs.empty()) {
        continue;
      }
      peerLabels += theirs.labels.size();
      text += fmt::format("  peer {}: {}\n", id.stringValue(), bindingText(theirs));
      nlohmann::json p = bindingJson(theirs);
      p["peer"] = id.stringValue();
      remote.push_back(std::move(p));
    }
    if (o.json) {
      nlohmann::json entry = {{"fec", fec.prefix().stringValue()}, {"peers", remote}};
      if (!onlyPeer) {
        entry["local"] = bindingJson(mine);
        entry["advertisedTo"] = to;
      }
      out.push_back(std::move(entry));
    } else {
      std::fputs(text.c_str(), stdout);
    }
  }
  if (o.json) {
    std::printf("%s\n", out.dump(2).c_str());
  } else {
    std::printf("%zu FECs, %llu local labels, %llu peer labels from %zu peers\n", fecs.size(),
                static_cast<unsigned long long>(localLabels),
                static_cast<unsigned long long>(peerLabels), peerTables.size());
  }
  return 0;
}

int runClear(const BindingsOptions& o) {
  const size_t removed =
      removeTableSets({CommonLibPond::mountGroupName(o.table), Ldp::LdpPond::mountGroupName(o.table)},
                      kKind, o.table);
  std::printf("%s '%s': removed %zu shared-memory segments\n", kKind, o.table.c_str(), removed);
  return 0;
}

}  // namespace

void addBindingsCommands(CLI::App& app, std::function<int()>& run) {
  static BindingsOptions o;
  CLI::App* cmd = app.add_subcommand(
      "bindings", "Label bindings in shared memory, as an LDP agent publishes them");
  cmd->require_subcommand(1);
  auto addTable = [](CLI::App* c) {
    c->add_option("--table", o.table, "Name of the table set")->default_val("default");
  };
  auto runs = [&run](int (*f)(const BindingsOptions&)) {
    return [&run, f] { run = [f] { return f(o); }; };
  };
  CLI::App* publishCmd = cmd->add_subcommand(
      "publish", "Publish the bindings of a file through both table sets' producers");
  publishCmd->add_option("FILE", o.file, "Binding file, one fact per line; - for standard input")
      ->required();
  publishCmd->footer(
      "Lines: local PREFIX LABEL [updated SECONDS] | local PREFIX filtered |\n"
      "       peer LSR-ID:SPACE PREFIX LABEL [updated SECONDS] | peer LSR-ID:SPACE PREFIX "
      "filtered |\n"
      "       advertised PREFIX LSR-ID:SPACE\n"
      "What an earlier publish left and the file no longer has is deleted.");
  addTable(publishCmd);
  publishCmd->callback(runs(&runPublish));
  CLI::App* showCmd = cmd->add_subcommand(
      "show", "Rebuild the bindings from the tables and print them per FEC");
  showCmd->add_option("--fec", o.fec, "Only this FEC (a prefix, as 10.0.0.0/8)");
  showCmd->add_option("--peer", o.peer, "Only this peer's bindings (LSR-ID:SPACE)");
  showCmd->add_flag("--json", o.json, "Print a JSON array, one object per FEC");
  addTable(showCmd);
  showCmd->callback(runs(&runShow));
  CLI::App* clearCmd = cmd->add_subcommand("clear", "Remove both table sets");
  addTable(clearCmd);
  clearCmd->callback(runs(&runClear));
}

}  // namespace Mplsctl
