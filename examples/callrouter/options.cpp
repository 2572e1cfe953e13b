#include "examples/callrouter/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#ifndef CALLROUTER_VERSION
#define CALLROUTER_VERSION "unknown"
#endif

namespace callrouter {
namespace {

constexpr const char* kDescription =
    "Finds, for each dialled number, the longest matching prefix of a numbering plan and says where the call "
    "goes.";

constexpr const char* kFooter = R"(
Numbers come one a line, written +44 20 7946 0123, 0044 (0)20 7946-0123 or 442079460123. Every line gets its
answer on standard output, in the same order; one that cannot be read or routed is answered with the reason.
Standard error gets the progress of a long input and the summary.

A plan is a CSV file with the columns prefix, destination and gateway.

Exit codes: 0 every line was answered, 1 the answers could not be written, 2 the command line, the plan or an
input is in error, 128 + N ended by signal N before the end of the input.)";

}  // namespace

std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code) {
  Options options;
  bool json = false;
  bool csv = false;

  CLI::App app{kDescription, "callrouter"};
  app.footer(kFooter);
  app.add_option("FILE", options.inputs, "Files of numbers; standard input when there is none, or for -");
  app.add_option("--plan", options.plan, "Numbering plan to use instead of the one built in")
      ->type_name("FILE");
  auto* json_flag = app.add_flag("--json", json, "Answer with a JSON object a line; the summary is one, too");
  app.add_flag("--csv", csv, "Answer in CSV with a header row")->excludes(json_flag);
  app.add_flag("--console", options.console,
               "Open the operator console on the terminal; \"help\" lists its commands");
  app.add_flag("-q,--quiet", options.quiet, "Print neither progress nor summary");
  app.set_version_flag("--version", "callrouter " CALLROUTER_VERSION);

  try {
    app.parse(argc, argv);
    if (options.inputs.empty() && !options.console) options.inputs.emplace_back("-");
    const auto standard_inputs = std::count(options.inputs.begin(), options.inputs.end(), "-");
    if (options.console && standard_inputs > 0) {
      throw CLI::ValidationError("--console",
                                 "reads the operator's commands from standard input, so numbers "
                                 "cannot come from there");
    }
    if (standard_inputs > 1) throw CLI::ValidationError("FILE", "- stands there more than once");
    if (app.count("--plan") > 0 && options.plan.empty())
      throw CLI::ValidationError("--plan", "needs a file name");
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exit_code = app.exit(error);
    } else {
      std::cerr << "callrouter: " << error.what() << "\nTry callrouter --help\n";
      exit_code = kExitUsage;
    }
    return std::nullopt;
  }
  options.format = json ? Format::kJson : csv ? Format::kCsv : Format::kText;
  return options;
}

}  // namespace callrouter
