// Binding files: label bindings as an LDP agent holds them, which `mplsctl bindings
// publish` puts in the label-binding tables. One fact per line (words separated by
// blanks, `#` starts a comment, blank lines are ignored):
//
//   local PREFIX LABEL [updated SECONDS]              this router binds LABEL to PREFIX
//   local PREFIX filtered                             its binding of PREFIX is filtered
//   peer LSR-ID:SPACE PREFIX LABEL [updated SECONDS]  the peer advertised LABEL for PREFIX
//   peer LSR-ID:SPACE PREFIX filtered                 the peer's binding is filtered
//   advertised PREFIX LSR-ID:SPACE                    the local binding went to that peer
//
//   local 10.0.0.0/8 16 updated 1700000000.5
//   peer 10.1.1.1:0 10.0.0.0/8 24001
//   advertised 10.0.0.0/8 10.1.1.1:0
//
// PREFIX is an IPv4 or IPv6 prefix without host bits; LABEL 0 to 1048575; LSR-ID:SPACE
// a dotted-quad LSR id and a label space 0 to 65535; SECONDS a time in seconds, 0 or
// more (0 records no time). Several labels may be bound to one FEC, on several lines; a
// label given twice for one FEC, or two different times for one binding, is an error.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/mplsctl/LineFile.h"
#include "types/Ldp/LabelAdvertisementColl.h"
#include "types/Mpls/LabelBindingTable.h"

namespace Mplsctl {

struct BindingFile {
  Mpls::LabelBindingTable::Ptr local = Mpls::labelBindingTableFactory();
  Mpls::LabelBindingTableColl::Ptr peers = Mpls::labelBindingTableCollFactory();
  Ldp::LabelAdvertisementColl::Ptr advertisements = Ldp::labelAdvertisementCollFactory();
  // What the file holds: labels bound locally and by peers, filters, advertisements.
  uint64_t localLabels = 0;
  uint64_t peerLabels = 0;
  uint64_t filters = 0;
  uint64_t advertised = 0;
};

// Parses a whole binding file; `fileName` only names it in errors. Throws LineFileError
// for the first line in error, so that a file is used whole or not at all.
BindingFile parseBindingFile(std::string_view text, const std::string& fileName);
// Reads and parses the file at `path` ("-": standard input), with the bounds of
// readLineFile().
BindingFile readBindingFile(const std::string& path);

}  // namespace Mplsctl
