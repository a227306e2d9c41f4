// mplsctl sr: segment-routing tables (Pond::SegmentRouting::Status) from the shell.
//
//   sr publish FILE [--table NAME]       publish the segments, blocks and routes of FILE
//   sr show [--table NAME] [--json]      print them, with the label of each prefix segment
//   sr clear [--table NAME]              remove the tables' shared-memory segments
//
// NAME (default "default") names the table set; its mount group is "sr/status/NAME". The
// file format is in the README ("Segment-routing files").
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace Mplsctl {

struct SrOptions {
  std::string table = "default";
  std::string file;   // publish: a path, or - for standard input
  bool json = false;  // show
};

// Parses the whole file, then writes it as the one writer of the table set, replacing what
// was published before: rows the file does not have are deleted, rows that are the same
// are left alone. A file with an error, or a write that a table refuses, publishes nothing
// (the tables are left as they were). Prints one line of counts.
int runSrPublish(const SrOptions& options);
// Mounts the table set for reading and prints it.
int runSrShow(const SrOptions& options);
int runSrClear(const SrOptions& options);

// Adds "sr" and its subcommands to `app`; the one chosen sets `run`.
void addSrCommands(CLI::App& app, std::function<int()>& run);

}  // namespace Mplsctl
