// The command line.
#ifndef OSKERNEL_SIZE_OPTIONS_H
#define OSKERNEL_SIZE_OPTIONS_H

#include <optional>
#include <string>

#include "examples/oskernel-size/sizes.h"

namespace oskernel_size {

// What main() returns.
inline constexpr int kExitPrinted = 0;
inline constexpr int kExitUnwritten = 1;
inline constexpr int kExitUsage = 2;

enum class Format { kCpp, kTable, kJson };

struct Options {
  Load load;
  Format format = Format::kCpp;
};

/// Reads the command line. Nothing when the program is done with that (help, version, or a mistake, which has been
/// reported); `exit_code` then says with which code.
std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code);

}  // namespace oskernel_size

#endif
