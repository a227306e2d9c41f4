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

#include <functional>

#include <CLI/CLI.hpp>

namespace Mplsctl {

// Adds the `config` commands to `app`; the chosen one's callback sets `run`.
void addConfigCommands(CLI::App& app, std::function<int()>& run);

}  // namespace Mplsctl
