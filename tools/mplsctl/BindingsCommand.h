// mplsctl bindings: label bindings in the label-binding tables, as an LDP agent publishes
// them and as its readers rebuild them.
//
//   bindings publish FILE [--table NAME]   publishes the bindings of a binding file
//                                          (BindingFile.h) through the producers of both
//                                          table sets, the LDP set with its advertisements
//                                          and the common label-binding set, replacing what
//                                          was published; they stay published after exit
//   bindings show [--fec PREFIX] [--peer LSR-ID:SPACE] [--json] [--table NAME]
//                                          rebuilds the bindings through the consumers and
//                                          prints them per FEC
//   bindings clear [--table NAME]          removes both table sets
#pragma once

#include <functional>

#include <CLI/CLI.hpp>

namespace Mplsctl {

// Adds the `bindings` commands to `app`; the chosen one's callback sets `run`.
void addBindingsCommands(CLI::App& app, std::function<int()>& run);

}  // namespace Mplsctl
