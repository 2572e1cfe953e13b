// The command line.
#ifndef CALLROUTER_OPTIONS_H
#define CALLROUTER_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "examples/callrouter/format.h"
#include "examples/callrouter/server.h"

namespace callrouter {

// What main() returns.
inline constexpr int kExitOk = 0;
inline constexpr int kExitOutput = 1;    ///< the answers could not be written; serving left something behind
inline constexpr int kExitUsage = 2;     ///< command line, plan or input
inline constexpr int kExitSignal = 128;  ///< plus the signal that ended the program before its input had

struct Options {
  std::vector<std::string> inputs;  ///< "-" is standard input; empty only with the console or when serving
  std::string plan;                 ///< empty for the plan compiled in
  Format format = Format::kText;
  bool console = false;
  bool quiet = false;
  bool serving = false;
  ServeOptions serve;
};

/// Reads the command line. Nothing when the program is done with that (help, version, or a mistake, which has
/// been reported); `exit_code` then says with which code.
std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code);

}  // namespace callrouter

#endif
