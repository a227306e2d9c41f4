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
//   mplsctl bindings publish|show|clear ...
//   mplsctl config commit|show|input|vrf-label ...
//   mplsctl sr publish|show|clear ...
//
// Exit status: 0 on success, 1 for an error (its message on stderr) or an inconsistent
// LFIB (check), 2 for bad usage.
#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>

#include "Kel/Exception.h"
#include "Kel/Quote.h"
#include "Pond/Exception.h"
#include "tools/mplsctl/BindingsCommand.h"
#include "tools/mplsctl/ConfigCommand.h"
#include "tools/mplsctl/Commands.h"
#include "tools/mplsctl/RouteFile.h"
#include "tools/mplsctl/SrCommand.h"

namespace {

// What the command line chose: the options every subcommand binds, and `run`, which the
// chosen subcommand's callback sets.
struct Invocation {
  std::function<int()> run;
  Mplsctl::LoadOptions load;
  Mplsctl::ShowOptions show;
  uint32_t showLabel = 0;
  std::string lfib;  // dump, check and clear
  Mplsctl::WatchOptions watch;
  uint64_t watchCount = 0;
  double watchTimeout = 0;
  Mplsctl::MldpDecodeOptions mldpDecode;
  Mplsctl::StateOptions state;
  Mplsctl::LabelsOptions labels;
};

void addLfibOption(CLI::App* command, std::string& lfib) {
  command->add_option("--lfib", lfib, "Name of the LFIB (its shared-memory mount group)")
      ->default_val(Mplsctl::kDefaultLfib);
}

void addLoad(CLI::App& app, Invocation& in) {
  CLI::App* loadCmd = app.add_subcommand(
      "load", "Program the routes of a route file into the LFIB (only what changed is written)");
  loadCmd->add_option("FILE", in.load.file, "Route file, one route per line; - for standard input")
      ->required();
  addLfibOption(loadCmd, in.load.lfib);
  loadCmd->add_flag("--replace", in.load.replace, "Also delete the routes the file does not have");
  loadCmd->callback([&in] { in.run = [&in] { return Mplsctl::runLoad(in.load); }; });
}

void addShow(CLI::App& app, Invocation& in) {
  CLI::App* showCmd = app.add_subcommand("show", "Print the routes with their via sets and vias");
  CLI::Option* labelOpt =
      showCmd->add_option("LABEL", in.showLabel, "Only the route of this incoming label")
          ->check(CLI::Range(0u, 1048575u));
  addLfibOption(showCmd, in.show.lfib);
  showCmd->add_flag("--json", in.show.json, "Print a JSON array, one object per route");
  showCmd->callback([&in, labelOpt] {
    if (labelOpt->count() > 0) {
      in.show.label = in.showLabel;
    }
    in.run = [&in] { return Mplsctl::runShow(in.show); };
  });
}

// dump, check and clear: an LFIB's name is all they take.
void addLfibCommands(CLI::App& app, Invocation& in) {
  CLI::App* dumpCmd = app.add_subcommand("dump", "Print the LFIB's state dump, every table");
  addLfibOption(dumpCmd, in.lfib);
  dumpCmd->callback([&in] { in.run = [&in] { return Mplsctl::runDump(in.lfib); }; });

  CLI::App* checkCmd = app.add_subcommand(
      "check", "Report routes whose via set is missing, via sets whose via is missing and "
               "vias no via set uses; exit 1 if there are any");
  addLfibOption(checkCmd, in.lfib);
  checkCmd->callback([&in] { in.run = [&in] { return Mplsctl::runCheck(in.lfib); }; });

  CLI::App* clearCmd =
      app.add_subcommand("clear", "Remove the LFIB's shared-memory segments");
  addLfibOption(clearCmd, in.lfib);
  clearCmd->callback([&in] { in.run = [&in] { return Mplsctl::runClear(in.lfib); }; });
}

// A number of seconds: finite, above 0 and at most a year (nan and inf are refused).
const CLI::Validator kSeconds(
    [](const std::string& text) -> std::string {
      double seconds = 0;
      if (!CLI::detail::lexical_cast(text, seconds) || !std::isfinite(seconds) || seconds <= 0 ||
          seconds > 365.0 * 24 * 3600) {
        return "expected a number of seconds above 0 and at most 31536000, got " +
               Kel::quoted(text);
      }
      return {};
    },
    "SECONDS");

// A watching command's --count and --timeout, which end it; `never` says what its status
// 1 after the timeout means.
void addCountAndTimeout(CLI::App* command, Invocation& in, const std::string& never,
                        std::optional<uint64_t>& count, std::optional<double>& timeout,
                        std::function<int()> run) {
  CLI::Option* countOpt =
      command->add_option("--count", in.watchCount, "Exit after this many change lines")
          ->check(CLI::PositiveNumber);
  CLI::Option* timeoutOpt =
      command
          ->add_option("--timeout", in.watchTimeout,
                       "Exit after this many seconds (status 1 if " + never + ")")
          ->check(kSeconds);
  command->callback([&in, &count, &timeout, countOpt, timeoutOpt, run] {
    if (countOpt->count() > 0) {
      count = in.watchCount;
    }
    if (timeoutOpt->count() > 0) {
      timeout = in.watchTimeout;
    }
    in.run = run;
  });
}

void addWatch(CLI::App& app, Invocation& in) {
  CLI::App* watchCmd = app.add_subcommand(
      "watch", "Follow the LFIB from this process and print every route change as it happens");
  addLfibOption(watchCmd, in.watch.lfib);
  addCountAndTimeout(watchCmd, in, "the LFIB never appeared", in.watch.count, in.watch.timeout,
                     [&in] { return Mplsctl::runWatch(in.watch); });
}

void addDemo(CLI::App& app, Invocation& in) {
  CLI::App* demoCmd = app.add_subcommand(
      "demo", "Write routes into an LFIB of its own and show a reading process follow them");
  demoCmd->callback([&in] { in.run = [] { return Mplsctl::runDemo(); }; });
}

void addMldp(CLI::App& app, Invocation& in) {
  CLI::App* mldpCmd = app.add_subcommand("mldp", "mLDP tools");
  mldpCmd->require_subcommand(1);
  CLI::App* decodeCmd = mldpCmd->add_subcommand(
      "decode", "Print the text of an mLDP opaque value (RFC 6388) given as hex octets");
  decodeCmd
      ->add_option("HEX", in.mldpDecode.hex,
                   "The opaque value's octets, from its Type on: two hex digits per octet, "
                   "optionally after 0x or x, separated or not by blanks, colons, dashes, "
                   "commas or backslashes (01000400 00002a, 01:00:04, 0x050004, "
                   "\\x05\\x00); several arguments are joined")
      ->required();
  decodeCmd->add_flag("--summary", in.mldpDecode.summary,
                      "Print the summary form, wrapped at 44 columns, instead of one line");
  decodeCmd->footer(
      "Example: mplsctl mldp decode 05 00 09 20 0a 00 00 01 e1 01 01 01\n"
      "  prints RP: 10.0.0.1/32 G: 225.1.1.1\n"
      "Values of unknown types or wrong lengths print as a hex dump.");
  decodeCmd->callback([&in] { in.run = [&in] { return Mplsctl::runMldpDecode(in.mldpDecode); }; });
}

void addState(CLI::App& app, Invocation& in) {
  CLI::App* stateCmd = app.add_subcommand("state", "What the state database holds");
  stateCmd->require_subcommand(1);
  auto addStatehub = [&in](CLI::App* command) {
    command->add_option("--statehub", in.state.statehub, "Name of the state database instance")
        ->default_val("default");
  };
  CLI::App* lsCmd = stateCmd->add_subcommand("ls", "List the published paths and their types");
  lsCmd->add_option("PATH", in.state.path, "Only the paths at or under this one");
  addStatehub(lsCmd);
  lsCmd->callback([&in] { in.run = [&in] { return Mplsctl::runStateLs(in.state); }; });
  CLI::App* showCmd = stateCmd->add_subcommand("show", "Print the entity published at a path");
  showCmd->add_option("PATH", in.state.path, "The entity's path, as 'state ls' lists it")
      ->required();
  showCmd->add_flag("--json", in.state.json, "Print JSON instead of the text form");
  addStatehub(showCmd);
  showCmd->callback([&in] { in.run = [&in] { return Mplsctl::runStateShow(in.state); }; });
  CLI::App* watchCmd = stateCmd->add_subcommand(
      "watch", "Print the entity at a path, then every line that changes, as it changes");
  watchCmd->add_option("PATH", in.state.path, "The entity's path (it may not exist yet)")
      ->required();
  addStatehub(watchCmd);
  addCountAndTimeout(watchCmd, in, "the path was never published", in.state.count,
                     in.state.timeout, [&in] { return Mplsctl::runStateWatch(in.state); });
  CLI::App* clearCmd =
      stateCmd->add_subcommand("clear", "Remove everything published in the instance");
  addStatehub(clearCmd);
  clearCmd->callback([&in] { in.run = [&in] { return Mplsctl::runStateClear(in.state); }; });
}

void addLabels(CLI::App& app, Invocation& in) {
  CLI::App* labelsCmd = app.add_subcommand(
      "labels", "The label manager: its range, label-block requests and answers (needs mplsd)");
  labelsCmd->require_subcommand(1);
  auto addStatehub = [&in](CLI::App* command) {
    command->add_option("--statehub", in.labels.statehub, "Name of the state database instance")
        ->default_val("default");
  };
  auto labelsRun = [&in](int (*run)(const Mplsctl::LabelsOptions&)) {
    return [&in, run] { in.run = [&in, run] { return run(in.labels); }; };
  };
  CLI::App* rangeCmd = labelsCmd->add_subcommand(
      "range", "Configure a label range: 'dynamic' is the one label blocks come from");
  rangeCmd->add_option("NAME", in.labels.name, "Range name (dynamic)")->required();
  rangeCmd->add_option("BASE", in.labels.base, "First label (at most 1048575)")->required();
  rangeCmd->add_option("SIZE", in.labels.size, "Number of labels")->required();
  addStatehub(rangeCmd);
  rangeCmd->callback(labelsRun(&Mplsctl::runLabelsRange));
  CLI::App* requestCmd = labelsCmd->add_subcommand(
      "request", "Ask for a block of 16384 labels as client CLIENT would; print it as FIRST-LAST");
  requestCmd->add_option("CLIENT", in.labels.client, "Client name")->required();
  requestCmd->add_option("ID", in.labels.id, "Request identifier")->required();
  requestCmd
      ->add_option("--timeout", in.labels.timeout,
                   "Seconds to wait for the answer (status 1 with the reason without one)")
      ->default_val(5)
      ->check(kSeconds);
  addStatehub(requestCmd);
  requestCmd->callback(labelsRun(&Mplsctl::runLabelsRequest));
  CLI::App* releaseCmd =
      labelsCmd->add_subcommand("release", "Withdraw a request: the agent takes its block back");
  releaseCmd->add_option("CLIENT", in.labels.client, "Client name")->required();
  releaseCmd->add_option("ID", in.labels.id, "Request identifier")->required();
  addStatehub(releaseCmd);
  releaseCmd->callback(labelsRun(&Mplsctl::runLabelsRelease));
  CLI::App* showCmd =
      labelsCmd->add_subcommand("show", "Print the dynamic range and every client's blocks");
  showCmd->add_flag("--json", in.labels.json, "Print JSON");
  addStatehub(showCmd);
  showCmd->callback(labelsRun(&Mplsctl::runLabelsShow));
}

// Runs the chosen subcommand; the errors a user can act on go to stderr, with status 1.
int runReportingErrors(const std::function<int()>& run) {
  try {
    const int status = run();
    return status == 0 && Mplsctl::lfibDamageFound() ? 1 : status;
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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Programs and inspects an MPLS LFIB kept in shared memory.", "mplsctl");
  app.require_subcommand(1);
  Invocation in;
  addLoad(app, in);
  addShow(app, in);
  addLfibCommands(app, in);
  addWatch(app, in);
  addDemo(app, in);
  addMldp(app, in);
  addState(app, in);
  addLabels(app, in);
  Mplsctl::addSrCommands(app, in.run);
  Mplsctl::addBindingsCommands(app, in.run);
  Mplsctl::addConfigCommands(app, in.run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version are "errors" that exit 0; any real one is bad usage.
    return app.exit(e) == 0 ? 0 : 2;
  }
  return runReportingErrors(in.run);
}
