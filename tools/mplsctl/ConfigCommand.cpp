#include "tools/mplsctl/ConfigCommand.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Kel/EventLoop.h"
#include "Mpls/MplsCopy.h"
#include "Session/Session.h"
#include "Statehub/EntityManager.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/StateViews.h"
#include "tools/mplsctl/RouteFile.h"
#include "types/Mpls/RouteConfig.h"
#include "types/Mpls/VrfLabelConfig.h"

namespace Mplsctl {

namespace {

using Mpls::Route;
using Mpls::RouteConfigInput;
using Mpls::RouteKeyAndMetric;


// A configuration entity holds at most this many routes (a collection's table capacity in
// the state database).
const uint32_t kMaxRoutes = Statehub::EntityManager::defaultSizing().capacity;

// The path of the input `name` under `dir`; CommandError for a name the state database
// cannot hold.
std::string inputPath(Statehub::EntityManager& manager, const char* dir, const std::string& name) {
  const std::string path = std::string(dir) + "/" + name;
  bool valid = name.find('/') == std::string::npos;
  try {
    manager.describe(path);
  } catch (const Statehub::Error&) {
    valid = false;
  }
  if (!valid) {
    throw CommandError(fmt::format("invalid input name '{}': use 1 to 64 letters, digits, '_' "
                                   "and '-'", name));
  }
  if (name == "cli") {
    throw CommandError("invalid input name 'cli': it names the command-line configuration");
  }
  return path;
}

// The routes of a route file as configuration: static ones only, at most kMaxRoutes.
std::vector<Route> configRoutes(const std::string& file) {
  std::vector<ParsedRoute> parsed = readRouteFile(file, RouteFileUse::config);
  const std::string name = file == "-" ? "<stdin>" : file;
  if (parsed.size() > kMaxRoutes) {
    throw CommandError(fmt::format("{}: {} routes, more than the {} a configuration holds: "
                                   "nothing committed", name, parsed.size(), kMaxRoutes));
  }
  std::vector<Route> routes;
  routes.reserve(parsed.size());
  for (ParsedRoute& r : parsed) {
    if (r.sourceGiven && r.source != Mpls::LFib::sourceStatic) {
      throw CommandError(fmt::format(
          "{}:{}: configured routes are static: the route of label {} names source '{}': "
          "nothing committed",
          name, r.line, r.config.key().routeKey().label().value(), sourceName(r.source)));
    }
    routes.push_back(std::move(r.config));
  }
  return routes;
}

struct Difference {
  uint32_t added = 0;
  uint32_t changed = 0;
  uint32_t removed = 0;
};

Difference differenceOf(const RouteConfigInput& running, const std::vector<Route>& routes) {
  Difference d;
  std::set<RouteKeyAndMetric> wanted;
  for (const Route& r : routes) {
    wanted.insert(r.key());
    const Route* old = running.routeIter().find(r.key());
    d.added += !old;
    d.changed += old && !(*old == r);
  }
  for (const auto& [key, route] : running.routeIter()) {
    d.removed += !wanted.contains(key);
  }
  return d;
}

std::string differenceText(const Difference& d) {
  return fmt::format("{} added, {} changed, {} removed", d.added, d.changed, d.removed);
}

}  // namespace

std::string commitConfigRoutes(const std::string& statehub, const std::vector<Route>& routes) {
  auto manager = managerOf(statehub, nullptr);
  auto running = Mpls::routeConfigInputFactory("cli");
  auto publication = publishAs(*manager, Mpls::routeConfigCliPath, running);  // what is there

  auto entityCopy = Cli::Session::entityCopyFactory();
  entityCopy->handlerDirIs(Mpls::copyHandlerDirFactory("mpls"));
  auto session = Cli::Session::sessionFactory("mplsctl", entityCopy);
  auto candidate = session->candidateIs(Mpls::routeConfigCliPath, running);
  candidate->routeDelAll();
  for (const Route& r : routes) {
    candidate->routeIs(r);
  }
  const Difference d = differenceOf(*running, routes);
  try {
    session->commit();
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
  publication->flush();
  return differenceText(d);
}

std::string publishConfigInput(const std::string& statehub, const std::string& name,
                               const std::vector<Route>& routes) {
  auto manager = managerOf(statehub, nullptr);
  const std::string path = inputPath(*manager, Mpls::routeConfigInputDirPath, name);
  auto input = Mpls::routeConfigInputFactory(name);
  auto publication = publishAs(*manager, path, input);
  const Difference d = differenceOf(*input, routes);
  std::set<RouteKeyAndMetric> wanted;
  for (const Route& r : routes) {
    wanted.insert(r.key());
  }
  try {
    for (const RouteKeyAndMetric& key : input->routeIter().keys()) {
      if (!wanted.contains(key)) {
        input->routeDel(key);
      }
    }
    for (const Route& r : routes) {
      input->routeIs(r);
    }
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
  publication->flush();
  return differenceText(d);
}

void withdrawConfigInput(const std::string& statehub, const std::string& name) {
  auto manager = managerOf(statehub, nullptr);
  const std::string path = inputPath(*manager, Mpls::routeConfigInputDirPath, name);
  if (!manager->remove(path)) {
    throw CommandError(fmt::format("no input '{}' (nothing is published at {})", name, path));
  }
}

namespace {

int runCommit(const ConfigOptions& o) {
  const std::vector<Route> routes = configRoutes(o.file);
  const std::string done = commitConfigRoutes(o.statehub, routes);
  std::printf("committed %zu routes to %s: %s\n", routes.size(), Mpls::routeConfigCliPath,
              done.c_str());
  return 0;
}

int runInputPublish(const ConfigOptions& o) {
  const std::vector<Route> routes = configRoutes(o.file);
  const std::string done = publishConfigInput(o.statehub, o.name, routes);
  std::printf("input '%s': %zu routes published: %s\n", o.name.c_str(), routes.size(),
              done.c_str());
  return 0;
}

int runInputWithdraw(const ConfigOptions& o) {
  withdrawConfigInput(o.statehub, o.name);
  std::printf("input '%s' withdrawn\n", o.name.c_str());
  return 0;
}

}  // namespace

void configVrfLabelIs(const ConfigOptions& o) {
  if (o.label < Netbase::MplsLabel::firstUnreserved || o.label > Netbase::MplsLabel::max) {
    throw CommandError(fmt::format("label {} out of range {}..{}", o.label,
                                   Netbase::MplsLabel::firstUnreserved, Netbase::MplsLabel::max));
  }
  if (!o.remove && o.vrf.empty()) {
    throw CommandError("a VRF name is needed (or --remove)");
  }
  if (o.vrf.size() > L3::VrfName::maxLength()) {
    throw CommandError(fmt::format("VRF name '{}' longer than {} bytes", o.vrf,
                                   L3::VrfName::maxLength()));
  }
  auto manager = managerOf(o.statehub, nullptr);
  const std::string path = o.input.empty()
                               ? std::string(Mpls::vrfLabelCliPath)
                               : inputPath(*manager, Mpls::vrfLabelInputDirPath, o.input);
  auto input = Mpls::vrfLabelConfigInputFactory(o.input.empty() ? "cli" : o.input);
  auto publication = publishAs(*manager, path, input);
  const Netbase::MplsLabel label(o.label);
  try {
    if (o.remove) {
      if (!input->vrfLabelHas(label)) {
        throw CommandError(fmt::format("label {} has no VRF in {}", o.label, path));
      }
      input->vrfLabelDel(label);
    } else {
      input->vrfLabelIs(Mpls::VrfLabel(label, L3::VrfName(o.vrf), o.dynamic));
    }
  } catch (const Statehub::Error& e) {
    throw CommandError(e.what());
  }
  publication->flush();
}

namespace {

int runVrfLabel(const ConfigOptions& o) {
  configVrfLabelIs(o);
  const std::string path = o.input.empty()
                               ? std::string(Mpls::vrfLabelCliPath)
                               : std::string(Mpls::vrfLabelInputDirPath) + "/" + o.input;
  if (o.remove) {
    std::printf("label %u removed from %s\n", o.label, path.c_str());
  } else {
    std::printf("label %u -> VRF %s (%s) in %s\n", o.label, o.vrf.c_str(),
                o.dynamic ? "dynamic" : "static", path.c_str());
  }
  return 0;
}

// What `config show` reads: the merged outputs and every input, each mounted.
struct ConfigView {
  Statehub::Mount<Mpls::RouteConfig>::Ptr merged;
  Statehub::Mount<Mpls::VrfLabelConfig>::Ptr vrfMerged;
  Statehub::Mount<RouteConfigInput>::Ptr cli;
  Statehub::DirMount<RouteConfigInput>::Ptr inputs;
  bool mergedPublished = false;
};

int runShow(const ConfigOptions& o) {
  Kel::EventLoop loop;
  auto manager = managerOf(o.statehub, &loop);
  ConfigView v;
  v.mergedPublished = manager->published(Mpls::routeConfigMergedPath);
  v.merged = manager->mount<Mpls::RouteConfig>(Mpls::routeConfigMergedPath);
  v.vrfMerged = manager->mount<Mpls::VrfLabelConfig>(Mpls::vrfLabelMergedPath);
  v.cli = manager->mount<RouteConfigInput>(Mpls::routeConfigCliPath,
                                           Mpls::routeConfigInputFactory("cli"));
  v.inputs = manager->mountDir<RouteConfigInput>(
      Mpls::routeConfigInputDirPath,
      [](const std::string& name) { return Mpls::routeConfigInputFactory(name); });
  const bool vrfPublished = manager->published(Mpls::vrfLabelMergedPath);
  const bool cliPublished = manager->published(Mpls::routeConfigCliPath);
  const std::string prefix = std::string(Mpls::routeConfigInputDirPath) + "/";
  auto mounted = [&] {
    auto done = [](bool published, const Statehub::MountBase& m) {
      return !published || m.status() != Statehub::mountPending;
    };
    size_t entries = 0;
    for (const std::string& path : manager->paths(Mpls::routeConfigInputDirPath)) {
      entries += path.find('/', prefix.size()) == std::string::npos;
    }
    return done(v.mergedPublished, *v.merged) && done(vrfPublished, *v.vrfMerged) &&
           done(cliPublished, *v.cli) && v.inputs->dir()->entityPtrs() >= entries;
  };
  loop.runUntil(mounted, std::chrono::seconds(5));
  if (!mounted()) {
    throw CommandError("the configuration could not be read within 5 s");
  }

  // The sources of every configured key, to name those that withdraw a key.
  std::map<RouteKeyAndMetric, std::vector<std::string>> claims;
  auto claim = [&](const std::string& source, const RouteConfigInput& input) {
    for (const auto& [key, route] : input.routeIter()) {
      claims[key].push_back(source);
    }
  };
  claim("cli", *v.cli->entity());
  for (const auto& [name, entity] : v.inputs->dir()->entityPtrIter()) {
    claim(name.stringValue(), static_cast<const RouteConfigInput&>(*entity));
  }
  const Mpls::RouteConfig& merged = *v.merged->entity();
  const Mpls::VrfLabelConfig& vrfs = *v.vrfMerged->entity();
  if (o.json) {
    nlohmann::json j;
    j["ready"] = merged.ready();
    j["routes"] = nlohmann::json::array();
    for (const auto& [key, route] : merged.routeIter()) {
      j["routes"].push_back({{"label", key.routeKey().label().value()},
                             {"metric", key.metric().value()},
                             {"route", routeLine(route)}});
    }
    j["withdrawn"] = nlohmann::json::array();
    for (const auto& [key, sources] : claims) {
      if (sources.size() > 1) {
        j["withdrawn"].push_back({{"label", key.routeKey().label().value()},
                                  {"metric", key.metric().value()},
                                  {"sources", sources}});
      }
    }
    j["vrfLabels"] = nlohmann::json::array();
    for (const auto& [label, vrf] : vrfs.vrfLabelIter()) {
      j["vrfLabels"].push_back({{"label", label.value()},
                                {"vrf", vrf.vrfName().stringValue()},
                                {"dynamic", vrf.dynamic()}});
    }
    std::printf("%s\n", j.dump(2).c_str());
    return 0;
  }
  if (!v.mergedPublished) {
    std::printf("no merged configuration published (is mplsd running on statehub '%s'?)\n",
                o.statehub.c_str());
  } else {
    std::printf("merged routes: %u%s\n", merged.routes(), merged.ready() ? "" : " (merging)");
    for (const auto& [key, route] : merged.routeIter()) {
      std::printf("  %s\n", routeLine(route).c_str());
    }
  }
  for (const auto& [key, sources] : claims) {
    if (sources.size() > 1) {
      std::printf("withdrawn %u metric %u: claimed by %s\n", key.routeKey().label().value(),
                  key.metric().value(), fmt::format("{}", fmt::join(sources, ", ")).c_str());
    }
  }
  if (vrfs.vrfLabels() > 0) {
    std::printf("merged VRF labels: %u\n", vrfs.vrfLabels());
    for (const auto& [label, vrf] : vrfs.vrfLabelIter()) {
      std::printf("  %u vrf %s%s\n", label.value(), vrf.vrfName().stringValue().c_str(),
                  vrf.dynamic() ? " dynamic" : "");
    }
  }
  return 0;
}

}  // namespace

void addConfigCommands(CLI::App& app, std::function<int()>& run) {
  static ConfigOptions o;
  CLI::App* cmd = app.add_subcommand(
      "config", "Static MPLS routes and VRF labels: configure them, and see them merged");
  cmd->require_subcommand(1);
  auto addStatehub = [](CLI::App* c) {
    c->add_option("--statehub", o.statehub, "Name of the state database instance")
        ->default_val("default");
  };
  auto runs = [&run](int (*f)(const ConfigOptions&)) {
    return [&run, f] { run = [f] { return f(o); }; };
  };
  CLI::App* commit = cmd->add_subcommand(
      "commit", "Make a route file's routes the command-line configuration, by difference");
  commit->add_option("FILE", o.file, "Route file (as for 'load'); - for standard input")
      ->required();
  addStatehub(commit);
  commit->callback(runs(&runCommit));

  CLI::App* show = cmd->add_subcommand(
      "show", "The merged routes and VRF labels, and the keys withdrawn by conflicts");
  show->add_flag("--json", o.json, "Print one JSON object");
  addStatehub(show);
  show->callback(runs(&runShow));

  CLI::App* input = cmd->add_subcommand("input", "Inputs that other agents publish");
  input->require_subcommand(1);
  CLI::App* publish = input->add_subcommand(
      "publish", "Publish a route file's routes as the input NAME, replacing what it held");
  publish->add_option("NAME", o.name, "Input name")->required();
  publish->add_option("FILE", o.file, "Route file; - for standard input")->required();
  addStatehub(publish);
  publish->callback(runs(&runInputPublish));
  CLI::App* withdraw = input->add_subcommand("withdraw", "Remove the input NAME");
  withdraw->add_option("NAME", o.name, "Input name")->required();
  addStatehub(withdraw);
  withdraw->callback(runs(&runInputWithdraw));

  CLI::App* vrf = cmd->add_subcommand("vrf-label", "Assign a label to a VRF (pop and look up)");
  vrf->add_option("LABEL", o.label, "Label, 16 to 1048575")->required();
  vrf->add_option("VRF", o.vrf, "VRF name");
  vrf->add_flag("--dynamic", o.dynamic, "Mark the assignment dynamic (static ones win)");
  vrf->add_option("--input", o.input, "Write into the dynamic input NAME, not the command line");
  vrf->add_flag("--remove", o.remove, "Remove the label's assignment");
  addStatehub(vrf);
  vrf->callback(runs(&runVrfLabel));
}

}  // namespace Mplsctl
