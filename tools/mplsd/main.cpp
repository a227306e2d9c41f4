// mplsd, the MPLS agent: hands out label blocks to the client agents of one state
// database instance, merges the static route and VRF label configuration and programs it
// into an LFIB, until SIGTERM or SIGINT (MplsAgent.h).
#include <CLI/CLI.hpp>

#include "tools/mplsd/MplsAgent.h"

int main(int argc, char** argv) {
  CLI::App app("The MPLS agent: answers the label-block requests of client agents from the "
               "state database, and merges the static MPLS route and VRF label configuration "
               "and programs it into an LFIB, until SIGTERM or SIGINT.",
               "mplsd");
  std::string statehub = "default";
  std::string lfib = "default";
  app.add_option("--statehub", statehub, "Name of the state database instance")
      ->default_val("default");
  app.add_option("--lfib", lfib, "Name of the LFIB the configuration is programmed into")
      ->default_val("default");
  CLI11_PARSE(app, argc, argv);
  return Mplsd::runAgent(statehub, lfib);
}
