// mplsctl: programs and inspects an MPLS LFIB kept in shared memory.
//
//   mplsctl load FILE [--lfib NAME] [--replace]
//   mplsctl show [LABEL] [--lfib NAME] [--json]
//   mplsctl dump [--lfib NAME]
//   mplsctl check [--lfib NAME]
//   mplsctl clear [--lfib NAME]
//   mplsctl watch [--lfib NAME] [--count N] [--timeout SECONDS]
//   mplsctl demo
//   mplsctl mldp decode HEX... [--summary]
//
// Exit status: 0 on success, 1 for an error (its message on stderr) or an inconsistent
// LFIB (check), 2 for bad usage.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>

#include "Kel/Exception.h"
#include "Pond/Exception.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"

namespace {

void addLfibOption(CLI::App* command, std::string& lfib) {
  command->add_option("--lfib", lfib, "Name of the LFIB (its shared-memory mount group)")
      ->default_val(Mplsctl::kDefaultLfib);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Programs and inspects an MPLS LFIB kept in shared memory.", "mplsctl");
  app.require_subcommand(1);
  std::function<int()> run;

  Mplsctl::LoadOptions load;
  CLI::App* loadCmd = app.add_subcommand(
      "load", "Program the routes of a route file into the LFIB (only what changed is written)");
  loadCmd->add_option("FILE", load.file, "Route file, one route per line; - for standard input")
      ->required();
  addLfibOption(loadCmd, load.lfib);
  loadCmd->add_flag("--replace", load.replace, "Also delete the routes the file does not have");
  loadCmd->callback([&] { run = [&] { return Mplsctl::runLoad(load); }; });

  Mplsctl::ShowOptions show;
  uint32_t label = 0;
  CLI::App* showCmd = app.add_subcommand("show", "Print the routes with their via sets and vias");
  CLI::Option* labelOpt =
      showCmd->add_option("LABEL", label, "Only the route of this incoming label")
          ->check(CLI::Range(0u, 1048575u));
  addLfibOption(showCmd, show.lfib);
  showCmd->add_flag("--json", show.json, "Print a JSON array, one object per route");
  showCmd->callback([&] {
    if (labelOpt->count() > 0) {
      show.label = label;
    }
    run = [&] { return Mplsctl::runShow(show); };
  });

  std::string lfib;
  CLI::App* dumpCmd = app.add_subcommand("dump", "Print the LFIB's state dump, every table");
  addLfibOption(dumpCmd, lfib);
  dumpCmd->callback([&] { run = [&] { return Mplsctl::runDump(lfib); }; });

  CLI::App* checkCmd = app.add_subcommand(
      "check", "Report routes whose via set is missing, via sets whose via is missing and "
               "vias no via set uses; exit 1 if there are any");
  addLfibOption(checkCmd, lfib);
  checkCmd->callback([&] { run = [&] { return Mplsctl::runCheck(lfib); }; });

  CLI::App* clearCmd =
      app.add_subcommand("clear", "Remove the LFIB's shared-memory segments");
  addLfibOption(clearCmd, lfib);
  clearCmd->callback([&] { run = [&] { return Mplsctl::runClear(lfib); }; });

  Mplsctl::WatchOptions watch;
  uint64_t count = 0;
  double timeout = 0;
  CLI::App* watchCmd = app.add_subcommand(
      "watch", "Follow the LFIB from this process and print every route change as it happens");
  addLfibOption(watchCmd, watch.lfib);
  CLI::Option* countOpt =
      watchCmd->add_option("--count", count, "Exit after this many change lines")
          ->check(CLI::PositiveNumber);
  CLI::Option* timeoutOpt =
      watchCmd
          ->add_option("--timeout", timeout,
                       "Exit after this many seconds (status 1 if the LFIB never appeared)")
          ->check(CLI::PositiveNumber);
  watchCmd->callback([&] {
    if (countOpt->count() > 0) {
      watch.count = count;
    }
    if (timeoutOpt->count() > 0) {
      watch.timeout = timeout;
    }
    run = [&] { return Mplsctl::runWatch(watch); };
  });

  CLI::App* demoCmd = app.add_subcommand(
      "demo", "Write routes into an LFIB of its own and show a reading process follow them");
  demoCmd->callback([&] { run = [] { return Mplsctl::runDemo(); }; });

  Mplsctl::MldpDecodeOptions mldpDecode;
  CLI::App* mldpCmd = app.add_subcommand("mldp", "mLDP tools");
  mldpCmd->require_subcommand(1);
  CLI::App* decodeCmd = mldpCmd->add_subcommand(
      "decode", "Print the text of an mLDP opaque value (RFC 6388) given as hex octets");
  decodeCmd
      ->add_option("HEX", mldpDecode.hex,
                   "The opaque value's octets, from its Type on: two hex digits per octet, "
                   "optionally after 0x or x, separated or not by blanks, colons, dashes, "
                   "commas or backslashes (01000400 00002a, 01:00:04, 0x050004, "
                   "\\x05\\x00); several arguments are joined")
      ->required();
  decodeCmd->add_flag("--summary", mldpDecode.summary,
                      "Print the summary form, wrapped at 44 columns, instead of one line");
  decodeCmd->footer(
      "Example: mplsctl mldp decode 05 00 09 20 0a 00 00 01 e1 01 01 01\n"
      "  prints RP: 10.0.0.1/32 G: 225.1.1.1\n"
      "Values of unknown types or wrong lengths print as a hex dump.");
  decodeCmd->callback([&] { run = [&] { return Mplsctl::runMldpDecode(mldpDecode); }; });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version are "errors" that exit 0; any real one is bad usage.
    return app.exit(e) == 0 ? 0 : 2;
  }
  try {
    return run();
  } catch (const Mplsctl::CommandError& e) {
    std::fprintf(stderr, "mplsctl: %s\n", e.what());
  } catch (const Mplsctl::RouteFileError& e) {
    std::fprintf(stderr, "mplsctl: %s\n", e.what());
  } catch (const Pond::PondException& e) {
    std::fprintf(stderr, "mplsctl: %s\n", e.what());
  } catch (const Kel::Exception& e) {
    std::fprintf(stderr, "mplsctl: %s\n", e.what());
  }
  return 1;
}
