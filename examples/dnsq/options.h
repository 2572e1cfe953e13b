// The command line.
#ifndef DNSQ_OPTIONS_H
#define DNSQ_OPTIONS_H

#include <optional>
#include <string>

#include "examples/dnsq/name_server.h"

namespace dnsq {

// What main() returns.
inline constexpr int kExitAnswer = 0;  ///< one that reports an error, too
inline constexpr int kExitNone = 1;    ///< no answer, or nobody could be given it
inline constexpr int kExitUsage = 2;
inline constexpr int kExitFatal = 70;  ///< EX_SOFTWARE

struct Options {
  std::string name;  ///< can be sent; without a dot at the end
  int type = 0;
  NameServer server;
  bool json = false;
  bool trace = false;
};

/// Reads the command line. Nothing when the program is done with that (help, version, or a mistake, which has been
/// reported); `exit_code` then says with which code.
std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code);

}  // namespace dnsq

#endif
