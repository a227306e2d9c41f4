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
#include <type_traits>
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

// The routes of a route file, in file order, held compactly: a 2-via route takes about
// 90 bytes, the LFIB route or the configured route of each is made when it is asked for.
// What `mplsctl load` reads a file of a million routes into.
class RouteList {
 public:
  // A next hop of a swap, push or pop route, its weights added up.
  struct Hop {
    Netbase::IpGenAddr address;
    Netbase::IntfId intf;
    uint32_t weight = 1;
  };

 private:
  struct Entry {
    uint32_t label;
    uint32_t line;
    uint32_t first;       // the first hop, or the lookup via or pseudowire interface
    uint32_t firstLabel;  // the first label of the stack
    uint16_t hops;
    uint8_t stackLabels;
    uint8_t viaType;
    uint8_t labelAction;
    uint8_t source;
    uint8_t metric;
    bool sourceGiven;
  };
  // The routes of one stretch of the file.
  struct Piece {
    std::vector<Entry> entries;
    std::vector<Hop> hops;
    std::vector<Netbase::MplsLabel> labels;
    std::vector<Mpls::LfibIpLookupVia> lookups;
    std::vector<Netbase::IntfId> pseudowires;
  };

 public:
  // One route of the list (valid while the list lives).
  class Route {
   public:
    uint32_t label() const noexcept { return e_->label; }
    uint32_t line() const noexcept { return e_->line; }  // where it was written
    // Distinct vias (next hop and interface), weights set aside.
    uint32_t vias() const noexcept { return e_->hops; }
    Mpls::LfibViaType viaType() const noexcept {
      return static_cast<Mpls::LfibViaType>(e_->viaType);
    }
    Mpls::LFib::Source source() const noexcept {
      return static_cast<Mpls::LFib::Source>(e_->source);
    }
    bool sourceGiven() const noexcept { return e_->sourceGiven; }
    uint32_t metric() const noexcept { return e_->metric; }

    // The vias of the LFIB route (a via of weight N is N of them, see above) and the
    // length of the record of each, as its via type's table stores it.
    uint32_t viaRecords() const;
    uint32_t viaRecordLen() const;

    // The route as the LFIB writer takes it, made in `out`, whose storage is reused.
    void lfibRouteIn(Mpls::ConsolidatedLfibRoute& out) const;
    // The route as configuration holds it (source set aside).
    Mpls::Route config() const;

   private:
    friend class RouteList;
    friend class RouteListParser;
    Route(const Piece& piece, const Entry& entry) : p_(&piece), e_(&entry) {}
    const Piece* p_;
    const Entry* e_;
  };

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  // Calls f(const Route&) for every route, in file order; an f that returns bool stops
  // the walk by returning false.
  template <class F>
  void forEach(F&& f) const {
    for (const Piece& piece : pieces_) {
      for (const Entry& e : piece.entries) {
        if constexpr (std::is_same_v<std::invoke_result_t<F&, const Route&>, bool>) {
          if (!f(Route(piece, e))) {
            return;
          }
        } else {
          f(Route(piece, e));
        }
      }
    }
  }

 private:
  friend class RouteListParser;
  std::vector<Piece> pieces_;
  size_t size_ = 0;
};

// Parses a whole route file. `fileName` only names the file in errors. Throws
// RouteFileError for the first line in error, so that a file is used whole or not at
// all. The same route twice is an error on the second line ("label 100 is already routed
// on line 3"; "label 100 metric 5 ..." for configuration). A long file is parsed in two
// halves, the second on a thread of its own; the error reported is still the first in the
// file.
RouteList parseRouteList(std::string_view text, const std::string& fileName,
                         RouteFileUse use = RouteFileUse::load);

// The same, as a vector with the route of each line made (its `route` for
// RouteFileUse::load, its `config` always).
std::vector<ParsedRoute> parseRouteFile(std::string_view text, const std::string& fileName,
                                        RouteFileUse use = RouteFileUse::load);

// Reads and parses the file at `path`; "-" reads standard input. Throws RouteFileError,
// also when the file cannot be read, is a directory, is longer than 256 MiB (endless
// input such as /dev/zero stops there), has a line longer than 64 KiB or a NUL byte.
// Input quoted in messages has its control bytes escaped and long tokens cut
// (Kel::quoted).
RouteList readRouteList(const std::string& path, RouteFileUse use = RouteFileUse::load);
std::vector<ParsedRoute> readRouteFile(const std::string& path,
                                       RouteFileUse use = RouteFileUse::load);

// The line of a route file that describes `route` ("100 swap 200 via 10.0.0.1 dev
// Ethernet1 weight 2 metric 3"): parsing it gives the route back.
std::string routeLine(const Mpls::Route& route);

// The name a route file uses for `source` ("static", "bgp-lu", ...), or its number for a
// source without one.
std::string sourceName(Mpls::LFib::Source source);

}  // namespace Mplsctl
