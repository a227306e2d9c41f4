// Route files: the static MPLS routes that `mplsctl load` programs, one route per line in
// the style of `ip -f mpls route`:
//
//   100 swap 200 via 10.0.0.1 dev Ethernet1 weight 2 via 10.0.0.3 dev Ethernet4
//   101 pop via 10.0.0.2 dev Ethernet2
//   102 push 300/301 via 2001:db8::1 dev Ethernet3 source ldp metric 10
//   16 pop lookup vrf red ipv4
//   103 pseudowire dev Pseudowire1
//
// Grammar (words are separated by blanks; `#` starts a comment to the end of the line;
// blank lines are ignored):
//
//   route    := LABEL action option*
//   action   := swap STACK via+ | push STACK via+ | pop via+
//             | pop lookup [vrf NAME] (ipv4 | ipv6 | auto)
//             | pseudowire dev INTF
//   via      := via ADDRESS dev INTF [weight 1..255]
//   option   := source SOURCE | metric 0..255
//   STACK    := LABEL ('/' LABEL)*, outermost label first, at most 16 labels
//   SOURCE   := static (the default) | ldp | rsvp | bgp-lu | isis-sr | ospf-sr | bgp | evpn
//             | mldp | pseudowire | vrf-label | sr-te | ti-lfa
//
// The incoming label is 16 to 1048575 (0 to 15 are reserved); labels of a stack are 0 to
// 1048575. Options may be given once each, after the action's vias. A route has at most
// 128 distinct vias. Lookup routes (the VRF defaults to "default") take metric 0 only: the
// forwarding plane treats them as EVPN routes. Via weights: two vias to one next hop and
// interface add up.
//
// Each route becomes one Mpls::ConsolidatedLfibRoute of its source, with no FEC: via type
// MPLS-IP for swap, push and pop via, IP lookup, or pseudowire; via set type UCMP when a
// via has a weight above 1, ECMP otherwise. The LFIB writer derives a via's weight from the
// number of equal vias it is given, so a via of weight N is carried as N copies that
// differ by their weight field (1 to N).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Mpls/MplsLfibWriter.h"
#include "types/Mpls/RouteConfig.h"
#include "tools/mplsctl/LineFile.h"

namespace Mplsctl {

// A route file that cannot be used (see LineFileError).
using RouteFileError = LineFileError;

struct ParsedRoute {
  Mpls::ConsolidatedLfibRoute route;  // what the LFIB writer takes (RouteFileUse::load only)
  uint32_t line = 0;  // where it was written
  uint32_t vias = 0;  // distinct vias (next hop and interface), weights set aside
  Mpls::Route config;   // the route as configuration holds it (source set aside)
  Mpls::LFib::Source source = Mpls::LFib::sourceStatic;
  bool sourceGiven = false;  // the line names its source
};

// What a route file is read for: to load into an LFIB (one route per label; `route` is
// made), or as configuration (one route per label and metric, as configuration keeps them
// and uses a label's lowest metric; only `config` is made).
enum class RouteFileUse { load, config };

// Parses a whole route file. `fileName` only names the file in errors. Returns the routes
// in file order; throws RouteFileError for the first line in error, so that a file is
// used whole or not at all. The same route twice is an error on the second line ("label
// 100 is already routed on line 3"; "label 100 metric 5 ..." for configuration).
std::vector<ParsedRoute> parseRouteFile(std::string_view text, const std::string& fileName,
                                        RouteFileUse use = RouteFileUse::load);

// Reads and parses the file at `path`; "-" reads standard input. Throws RouteFileError,
// also when the file cannot be read, is a directory, is longer than 256 MiB (endless
// input such as /dev/zero stops there), has a line longer than 64 KiB or a NUL byte.
// Input quoted in messages has its control bytes escaped and long tokens cut
// (Kel::quoted).
std::vector<ParsedRoute> readRouteFile(const std::string& path,
                                       RouteFileUse use = RouteFileUse::load);

// The line of a route file that describes `route` ("100 swap 200 via 10.0.0.1 dev
// Ethernet1 weight 2 metric 3"): parsing it gives the route back.
std::string routeLine(const Mpls::Route& route);

// The name a route file uses for `source` ("static", "bgp-lu", ...), or its number for a
// source without one.
std::string sourceName(Mpls::LFib::Source source);

}  // namespace Mplsctl
