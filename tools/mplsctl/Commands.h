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

int runDump(const std::string& lfib);
int runCheck(const std::string& lfib);
int runClear(const std::string& lfib);

// Mounts the LFIB `name` for reading and waits (at most 5 s) until all its tables are
// open. Throws CommandError "no LFIB named 'x' (no shared-memory segments)" when the LFIB
// has no tables, and when it does not open in time.
Mpls::LfibStatus::Ptr mountLfibReader(const std::string& name);

// Short names for show and check: "mplsIp", "ecmp", "swap".
std::string viaTypeName(Mpls::LfibViaType type);
std::string viaSetTypeName(Mpls::LfibViaSetType type);
// "static/mplsIp/3", "static/3/mplsIp/ecmp".
std::string viaKeyText(const Mpls::LfibViaKey& key);
std::string viaSetKeyText(const Mpls::LfibViaSetKey& key);

// Whether the LFIB holds a via under `key`, in the collection of its via type.
bool viaStored(const Mpls::LfibStatus& lfib, const Mpls::LfibViaKey& key);

}  // namespace Mplsctl
