// The subcommands of mplsctl, one function each, and what they share: opening an LFIB for
// reading and printing its elements.
//
// Every run function prints its results to stdout and returns the process exit status.
// Errors a user can act on (a missing LFIB, a bad route file, a full table) are thrown as
// CommandError, whose text main() prints to stderr after "mplsctl: ".
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Mpls/LfibRouteView.h"
#include "Mpls/MplsLfib.h"

namespace Mplsctl {

class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The LFIB mplsctl works on when --lfib is not given.
inline constexpr const char* kDefaultLfib = "default";

struct LoadOptions {
  std::string file;
  std::string lfib = kDefaultLfib;
  bool replace = false;
};
int runLoad(const LoadOptions& options);

struct ShowOptions {
  std::optional<uint32_t> label;
  std::string lfib = kDefaultLfib;
  bool json = false;
};
int runShow(const ShowOptions& options);

struct WatchOptions {
  std::string lfib = kDefaultLfib;
  std::optional<uint64_t> count;  // exit after this many change lines
  std::optional<double> timeout;  // exit 0 after this many seconds
};
// Prints "watching LFIB 'x': N routes" once the LFIB is open, then one line per route
// change ("added 100 -> ...", "changed 100 version 3 -> ...", "deleted 100") until
// --count, --timeout, SIGINT or SIGTERM. A missing LFIB is waited for.
int runWatch(const WatchOptions& options);

// Creates an LFIB of its own, follows it from a reading process while routes are
// written, rewritten and deleted, and removes it again.
int runDemo();

struct MldpDecodeOptions {
  std::vector<std::string> hex;  // joined by blanks
  bool summary = false;
};
// Prints the text of the mLDP opaque value whose octets are given in hex: on one line, or
// as the wrapped summary.
int runMldpDecode(const MldpDecodeOptions& options);
// The octets written in `text`: groups of hex digits, two per octet, each group optionally
// after "0x" or "x", separated by blanks, colons, dashes, commas or backslashes ("05 00
// 04", "05:00:04", "0x050004", "\x05\x00\x04"). Throws CommandError naming the bad
// group, or the text when it holds no octets.
std::string octetsFromHex(std::string_view text);

// The state database: `statehub` names the instance, `path` an entity or a prefix.
struct StateOptions {
  std::string statehub = "default";
  std::string path;
  bool json = false;                     // show
  std::optional<uint64_t> count;         // watch: exit after this many change lines
  std::optional<double> timeout;         // watch: give up after this many seconds
};
// One line per published path under `path` (all of them without one): "<path>  <type>".
int runStateLs(const StateOptions& options);
// Removes everything published in the instance.
int runStateClear(const StateOptions& options);
// Prints the entity at `path` in its text form, or as JSON.
int runStateShow(const StateOptions& options);
// Prints the entity at `path` once it is published, as flat lines, then every line that
// goes ("- ") or comes ("+ ") as it changes; until SIGINT, SIGTERM, `count` change lines or
// `timeout`.
int runStateWatch(const StateOptions& options);

// The label manager through the state database (LabelsCommand.cpp).
struct LabelsOptions {
  std::string statehub = "default";
  std::string name;      // range
  uint32_t base = 0;     // range
  uint32_t size = 0;     // range
  std::string client;    // request, release
  std::string id;        // request, release
  double timeout = 5;    // request: seconds to wait for the answer
  bool json = false;     // show
};
int runLabelsRange(const LabelsOptions& options);
int runLabelsRequest(const LabelsOptions& options);
int runLabelsRelease(const LabelsOptions& options);
int runLabelsShow(const LabelsOptions& options);

int runDump(const std::string& lfib);
// The demo's scene of label blocks handed out by an MPLS agent that is killed and started
// again (DemoLabels.cpp).
void demoLabelBlocks();
// The demo's scene of label bindings published by a producer process and rebuilt by a
// consumer process (DemoBindings.cpp).
void demoBindings();
// The demo's scene of configuration committed, merged by an MPLS agent and programmed into
// its LFIB, across the agent's restart (DemoConfig.cpp).
void demoConfiguration();
int runCheck(const std::string& lfib);
int runClear(const std::string& lfib);

// Mounts the LFIB `name` for reading what it holds (its changes are not followed) and
// waits (at most 5 s) until all its tables are open. Throws CommandError "no LFIB named 'x' (no shared-memory segments)" when the LFIB
// has no tables, and when it does not open in time.
Mpls::LfibStatus::Ptr mountLfibReader(const std::string& name);
// Whether an LFIB mounted by mountLfibReader was found damaged by a reader (a row that does
// not decode, a table that is inconsistent): each finding has been printed to stderr once,
// and the command ends with status 1 whatever it printed.
bool lfibDamageFound();

// Short names for show and check: "mplsIp", "ecmp", "swap" (a via type's is its label in
// MPLS_LFIB_VIA_TYPES).
std::string viaTypeName(Mpls::LfibViaType type);
std::string viaSetTypeName(Mpls::LfibViaSetType type);
// "static/mplsIp/3", "static/3/mplsIp/ecmp".
std::string viaKeyText(const Mpls::LfibViaKey& key);
std::string viaSetKeyText(const Mpls::LfibViaSetKey& key);

// One problem of an integrity check, as check prints it: "route 100: via set
// static/1/mplsIp/ecmp is missing", "via static/mplsIp/7 is used by no via set".
std::string problemText(const Mpls::LfibIntegrityProblem& problem);

// "ipv4", "ipv6", "mpls", "auto", "ethernet".
std::string payloadName(Mpls::PayloadType type);
// The forwarding of a route on one line: its vias, as "swap 200 via 10.0.0.1 dev
// Ethernet1 weight 2, swap 200 via 10.0.0.3 dev Ethernet4"; "(via set missing)" when the
// LFIB lacks its via set, "(missing)" for a via it lacks.
std::string routeSummary(const Mpls::LfibRouteView& route);

}  // namespace Mplsctl
