// callrouter: says where dialled numbers go. See README.md.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "examples/callrouter/app.h"
#include "examples/callrouter/options.h"
#include "examples/callrouter/plan.h"

namespace {

// A program may be started with some of its first three descriptors closed. The next file that it opens would
// get that number and be taken for the input or the output; this holds the place with something that fails.
void hold_standard_descriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    const int held = open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    if (held < 0) _exit(callrouter::kExitUsage);
  }
}

}  // namespace

int main(int argc, char** argv) {
  hold_standard_descriptors();
  signal(SIGPIPE, SIG_IGN);  // a reader that goes away is an error of write(), which we handle
  try {
    int exit_code = callrouter::kExitOk;
    const auto options = callrouter::read_options(argc, argv, exit_code);
    return options ? callrouter::run(*options) : exit_code;
  } catch (const callrouter::UsageError& error) {
    std::cerr << "callrouter: " << error.what() << std::endl;
  } catch (const std::exception& error) {
    std::cerr << "callrouter: " << error.what() << std::endl;
  }
  return callrouter::kExitUsage;
}
