// mplsctl config: the static MPLS route and VRF label configuration in the state database,
// as an operator and as other agents write it, and as the MPLS agent merges it.
//
//   config commit FILE                  makes the routes of a route file the command-line
//                                       configuration, through a configuration session
//                                       committed by difference; prints how many routes
//                                       were added, changed and removed
//   config show [--json]                the merged routes and VRF labels, and each key
//                                       withdrawn because several sources claim it
//   config input publish NAME FILE      publishes the routes of a file as the input NAME,
//                                       as another agent would
//   config input withdraw NAME          removes the input NAME
//   config vrf-label LABEL [VRF] [--dynamic] [--input NAME] [--remove]
//                                       assigns LABEL to VRF in the command-line
//                                       configuration, or in the dynamic input NAME
//
// Each takes --statehub NAME. Configured routes are static: a route file line that names
// another source is refused, like every other error of the file, before anything is
// written.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "types/Mpls/RouteConfig.h"

namespace Mplsctl {

// The options of the config commands.
struct ConfigOptions {
  std::string statehub = "default";
  std::string file;
  std::string name;
  uint32_t label = 0;
  std::string vrf;
  bool dynamic = false;
  bool remove = false;
  std::string input;
  bool json = false;
};

// What the commands do, for the demo. Each throws CommandError naming what is wrong and
// returns "A added, C changed, R removed" where it changes routes.
//   commitConfigRoutes   makes `routes` the command-line configuration, through a session
//   publishConfigInput   makes `routes` what the input `name` holds
//   withdrawConfigInput  removes the input `name`
//   configVrfLabelIs     o.label to o.vrf (o.dynamic) in the command-line configuration or
//                        the input o.input; removes it with o.remove
std::string commitConfigRoutes(const std::string& statehub, const std::vector<Mpls::Route>& routes);
std::string publishConfigInput(const std::string& statehub, const std::string& name,
                               const std::vector<Mpls::Route>& routes);
void withdrawConfigInput(const std::string& statehub, const std::string& name);
void configVrfLabelIs(const ConfigOptions& o);

// Adds the `config` commands to `app`; the chosen one's callback sets `run`.
void addConfigCommands(CLI::App& app, std::function<int()>& run);

}  // namespace Mplsctl
