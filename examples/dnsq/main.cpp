// dnsq: asks a name server one question. See README.md.
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "examples/dnsq/lookup.h"
#include "examples/dnsq/options.h"
#include "examples/dnsq/report.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"

namespace {

using dnsq::Options;

constexpr unsigned kForEver = 0xFFFFFFFFu;

/// Shows the library's words to those who ask for them. One of them is heard in any case: a question that cannot be sent
/// is told here and nowhere else.
class Terminal : public OSConsole {
 public:
  explicit Terminal(bool trace) : trace_(trace) {}

  void vPrint(const char* format, va_list arguments) override {
    char text[2048];
    vsnprintf(text, sizeof text, format, arguments);
    int error = 0;
    const char* failure = std::strstr(text, "sendto() errno=");
    if (failure != nullptr && std::sscanf(failure, "sendto() errno=%d", &error) == 1) send_error_ = error;
    if (trace_) log("", text);
  }
  void Warning(WarningType, const char* format, va_list arguments) override {
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    log("warning: ", text);
  }
  void Fatal(const char* format, ...) override {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log("fatal: ", text);
    _exit(dnsq::kExitFatal);
  }

  int send_error() const { return send_error_; }  ///< an errno value; 0 while nothing has failed

 private:
  static void log(const char* kind, std::string_view text) {
    while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
    fprintf(stderr, "dnsq: %s%.*s\n", kind, static_cast<int>(text.size()), text.data());
  }

  const bool trace_;
  std::atomic<int> send_error_{0};
};

void on_outcome(OSObj* outcome, ADDR, ULONG value) {
  *reinterpret_cast<std::optional<ULONG>*>(outcome) = value;
}

void complain(const std::string& text) { std::cerr << "dnsq: " << text << std::endl; }

int complain_of(const Options& options, const DnsLookup& lookup, int send_error) {
  const std::string server = options.server.shown();
  if (dnsq::server_is_unknown(lookup)) {
    complain(fmt::format("@SERVER: no address is known for the host {}", server));
    return dnsq::kExitUsage;
  }
  if (send_error != 0) {
    complain(fmt::format("{} cannot be asked: {}", server, std::strerror(send_error)));
  } else {
    complain(fmt::format("no answer from {} within {} s", server, dnsq::kTimeoutSeconds));
  }
  return dnsq::kExitNone;
}

int print(const std::string& text) {
  std::cout << text << std::flush;
  if (std::cout) return dnsq::kExitAnswer;
  complain("the answer cannot be written");
  return dnsq::kExitNone;
}

// Sockets and timers that this thread makes deliver to its own ready list, and so does the cache of host names that it
// starts; it sleeps until there is something.
int ask(const Options& options, const Terminal& terminal) {
  using Clock = std::chrono::steady_clock;
  OSTrigger::TLSInitialise();
  AsyncSocket::Init();
  int exit_code;
  {
    const Clock::time_point asked_at = Clock::now();
    std::optional<ULONG> outcome;
    std::string name = options.name;
    DnsLookup lookup(name.data(), static_cast<Type>(options.type), options.server.text.c_str(), on_outcome,
                     reinterpret_cast<OSObj*>(&outcome));
    while (!outcome && terminal.send_error() == 0 && !dnsq::server_is_unknown(lookup)) {
      WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
      OSTrigger::TLSPoll();
    }
    const std::chrono::duration<double, std::milli> took = Clock::now() - asked_at;
    exit_code = outcome == dnsq::kAnswer ? print(options.json ? json_report(options, lookup, took.count())
                                                              : text_report(options, lookup, took.count()))
                                         : complain_of(options, lookup, terminal.send_error());
    // The networking layer would wait for the name server's name to be found, for as long as that takes.
    if (outcome == dnsq::kNoAnswer && options.server.is_name()) _exit(exit_code);
  }
  AsyncSocket::Cleanup();
  OSTrigger::TLSUninitialise();
  return exit_code;
}

KernelCfg small_pools() {
  KernelCfg cfg;
  for (int& quantity : cfg.buf_qty) quantity = 0;
  cfg.callback_qty = 0;
  cfg.link_qty = 0;
  cfg.trigger_stack = 256 * 1024;
  dnsq::add_lookup(cfg);
  return cfg;
}

int run(const Options& options) {
  Terminal terminal(options.trace);
  Console = &terminal;
  KernelCfg cfg = small_pools();
  os_startup(nullptr, 0, &cfg);
  const int exit_code = ask(options, terminal);
  os_cleanup();
  Console = nullptr;
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    int exit_code = dnsq::kExitAnswer;
    const auto options = dnsq::read_options(argc, argv, exit_code);
    return options ? run(*options) : exit_code;
  } catch (const std::exception& error) {
    complain(error.what());
  }
  return dnsq::kExitUsage;
}
