// callroute: asks a call router over the network. See README.md.
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include "examples/callroute/options.h"
#include "examples/callroute/run.h"
#include "examples/callroute/tls.h"
#include "examples/callrouter/kernel_run.h"
#include "examples/callrouter/network_pools.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/window.h"

namespace {

using callroute::Options;

// The library's remarks in passing are not for the user of this program; what it warns of is.
class QuietConsole : public OSConsole {
 public:
  // Part of it is why a session has failed.
  void vPrint(const char* format, va_list arguments) override {
    char text[2048];
    vsnprintf(text, sizeof text, format, arguments);
    callroute::TlsWords::hear(text);
  }
  void Warning(WarningType, const char* format, va_list arguments) override {
    log("warning", format, arguments);
  }
  void Fatal(const char* format, ...) override {
    va_list arguments;
    va_start(arguments, format);
    log("fatal", format, arguments);
    va_end(arguments);
    _exit(callroute::kExitFatal);
  }

 private:
  static void log(const char* kind, const char* format, va_list arguments) {
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    fprintf(stderr, "callroute: %s: %s\n", kind, text);
  }
};

int run(const Options& options) {
  if (callrouter::allow_descriptors(options.connections) < options.connections) {
    throw callrouter::UsageError(
        "--connections: the system's limit of descriptors does not allow for so many");
  }
  KernelCfg cfg = callrouter::road_config();  // for the sizes of its buffers
  for (int& quantity : cfg.buf_qty) quantity = 0;
  callrouter::add_connections(cfg, options.connections);

  QuietConsole console;
  const callrouter::KernelRun kernel(console, cfg);
  std::optional<callroute::TlsClient> tls;
  if (callrouter::is_secure(options.offer)) tls.emplace(options);
  const callrouter::NetworkRun network;
  bool looking_up = false;
  const int exit_code = options.load > 0 ? callroute::generate_load(options, looking_up)
                                         : callroute::ask_numbers(options, looking_up);
  // The networking layer would wait for the name server, for as long as that takes.
  if (looking_up) _exit(exit_code);
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    int exit_code = callroute::kExitOk;
    const auto options = callroute::read_options(argc, argv, exit_code);
    return options ? run(*options) : exit_code;
  } catch (const std::exception& error) {
    std::cerr << "callroute: " << error.what() << std::endl;
  }
  return callroute::kExitUsage;
}
