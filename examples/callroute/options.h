// The command line.
#ifndef CALLROUTE_OPTIONS_H
#define CALLROUTE_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "examples/callrouter/connection.h"

namespace callroute {

// What main() returns.
inline constexpr int kExitOk = 0;
inline constexpr int kExitWrong = 1;         ///< an answer was not the right one
inline constexpr int kExitUsage = 2;         ///< command line, plan or input
inline constexpr int kExitUnknownHost = 3;   ///< the name has no address
inline constexpr int kExitNoConnection = 4;  ///< refused, or not to be reached
inline constexpr int kExitDisconnected = 5;  ///< the connection ended before the last answer
inline constexpr int kExitTimeout = 6;       ///< no connection or no answer in time
inline constexpr int kExitNoSession = 7;     ///< TLS was not established: not trusted, or no TLS there
inline constexpr int kExitFatal = 70;        ///< EX_SOFTWARE: the kernel reported a fatal error

/// No number is longer, however it is spelled; and no message buffer holds much more.
inline constexpr std::size_t kMostNumberBytes = 1024;

struct Options {
  std::string host;
  std::uint16_t port = 0;
  std::vector<std::string> numbers;  ///< empty: they come from standard input
  callrouter::Offer offer = callrouter::Offer::kLines;
  std::string ca;          ///< the CAs that the router is verified against; empty for the system's
  std::string cert, key;   ///< both or none
  std::string peer_name;   ///< the subject that the router must have; empty for any
  std::uint64_t load = 0;  ///< calls to generate; 0: ask the numbers
  int connections = 1;
  int pipeline = 1;  ///< calls that one connection has on the way
  double timeout_s = 10;
  std::string plan;  ///< what generated calls are checked against; empty for the built-in plan
  bool json = false;
  bool quiet = false;
};

/// Reads the command line. Nothing when the program is done with that (help, version, or a mistake, which has
/// been reported); `exit_code` then says with which code.
std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code);

}  // namespace callroute

#endif
