#include "examples/oskernel-size/options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <utility>

#ifndef OSKERNEL_SIZE_VERSION
#define OSKERNEL_SIZE_VERSION "unknown"
#endif

namespace oskernel_size {
namespace {

constexpr const char* kDescription =
    "Prints a KernelCfg for a program's connections and messages, with the reason for each number\n"
    "and the memory it takes:\n\n"
    "  oskernel-size --connections 200 --message-size 512\n";

constexpr const char* kFooter = R"(
The numbers are the most that such a program has in use at a time, and a reserve on top. What each object takes, and
what happens when a pool runs dry, is on the page about sizing, docs/sizing.md.

Exit codes: 0 printed; 1 the output could not be written; 2 the command line is in error.)";

/// A whole number without a sign; whether it makes sense is for calculate() to say, and that must not take it for one
/// of its own.
std::string why_no_number(const std::string& text) {
  constexpr std::size_t kMostDigits = 15;
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    return "'" + text + "' is not a whole number";
  }
  return text.size() > kMostDigits ? text + " is too large" : "";
}

/// Adds the options of a group.
class Group {
 public:
  Group(CLI::App& app, std::string name) : app_(app), name_(std::move(name)) {}

  CLI::Option* number(const char* name, Number& value, const char* help) {
    return app_.add_option(name, value, help)
        ->type_name("N")
        ->check(CLI::Validator(why_no_number, ""))
        ->group(name_);
  }
  void flag(const char* name, bool& value, const char* help) {
    app_.add_flag(name, value, help)->group(name_);
  }
  /// `choices` separated by bars.
  CLI::Option* choice(const char* name, std::string& value, const char* choices, const char* help) {
    const auto check = [list = "|" + std::string(choices) + "|", choices](const std::string& text) {
      const bool known =
          text.find('|') == std::string::npos && list.find("|" + text + "|") != std::string::npos;
      return known ? std::string() : "'" + text + "' is not one of " + choices;
    };
    return app_.add_option(name, value, help)
        ->type_name(choices)
        ->check(CLI::Validator(check, ""))
        ->group(name_);
  }

 private:
  CLI::App& app_;
  std::string name_;
};

void add_messages(CLI::App& app, Load& load, std::string& peers) {
  Group group(app, "Messages");
  group.number("--message-size", load.message_size, "Bytes of a usual message, sent or received")->required();
  group.number("--largest-message", load.largest_message, "Bytes of the largest one (default: as usual)");
  group.number(
      "--large-messages", load.large_messages,
      "How many larger ones, or arrays of 1,680 bytes and more, at a time (default: one for each socket)");
  group.choice(
      "--peers", peers, "any|one-at-a-time",
      "any: peers send what and when they like; one-at-a-time: a message, and then nothing before the "
      "answer (default: any)");
}

void add_sockets(CLI::App& app, Load& load) {
  Group group(app, "Sockets");
  group.number("--connections", load.connections, "TCP connections open at a time");
  group.flag("--direct", load.direct, "Connections have threads and receive rings of their own");
  group.flag("--tls", load.tls, "Connections run TLS");
  group.flag("--tpkt", load.tpkt, "Connections carry packets (TPKTSocket)");
  group.flag("--big-buffers", load.big_buffers, "Connections read large (SetBigBuffers)");
  group.number("--listeners", load.listeners, "Listening sockets (default: 1 with --connections)");
  group.number("--datagram-sockets", load.datagram_sockets, "Indirect datagram sockets");
  group.number("--lookups", load.lookups, "DnsLookups under way at a time");
  group.number("--names", load.names, "Host names in the name cache");
  group.number("--blocking-sockets", load.blocking_sockets, "Blocking sockets");
}

void add_buffers(CLI::App& app, Load& load) {
  Group group(app, "Buffers of each socket");
  group.number("--waiting", load.waiting,
               "Received and not yet delivered, 1 to 10 (default: 10, or 1 with --peers one-at-a-time)");
  group.number("--held", load.held, "Received and kept by the program (default: 0)");
  group.number("--queued", load.queued, "Given to be sent and not sent yet (default: 1, or 11 with --tls)");
  group.number("--dispatchers", load.dispatchers, "Threads that deliver, in the program (default: 1)");
}

void add_own(CLI::App& app, Load& load) {
  Group group(app, "The program's own");
  group.number("--own-buffers", load.own_buffers, "Buffers of a message in its own queues");
  group.number("--own-arrays", load.own_arrays, "Buffers that it gives storage with SetPayload");
  group.number("--own-callbacks", load.own_callbacks, "Callbacks at buffers and streams");
  group.number("--own-links", load.own_links, "Entries in its indirect lists");
  group.number("--queue-triggers", load.queue_triggers,
               "Queue triggers; timer and poll triggers take nothing");
  group.number("--tasks", load.tasks, "Tasks");
  group.number("--headroom", load.headroom, "buf_min_space (default: 50)");
  group.number("--trigger-stack", load.trigger_stack, "trigger_stack (default: 8000)");
  group.number("--reserve", load.reserve_percent,
               "Percent on top of buffers, links and callbacks (default: 10)");
}

}  // namespace

std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code) {
  Options options;
  std::string peers = "any";
  std::string format = "cpp";
  CLI::App app{kDescription, "oskernel-size"};
  app.footer(kFooter);
  add_messages(app, options.load, peers);
  add_sockets(app, options.load);
  add_buffers(app, options.load);
  add_own(app, options.load);
  Group(app, "Output").choice("--format", format, "cpp|table|json", "How it is printed (default: cpp)");
  app.set_version_flag("--version", "oskernel-size " OSKERNEL_SIZE_VERSION);
  try {
    app.parse(argc, argv);
    if (app.count("--connections") > 0 && options.load.connections == 0) {
      throw CLI::ValidationError("--connections", "0 is not between 1 and 1,000,000");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exit_code = app.exit(error);
    } else {
      std::cerr << "oskernel-size: " << error.what() << "\nTry oskernel-size --help\n";
      exit_code = kExitUsage;
    }
    return std::nullopt;
  }
  if (peers != "any") options.load.peers = Peers::kOneAtATime;
  options.format = format == "json" ? Format::kJson : format == "table" ? Format::kTable : Format::kCpp;
  return options;
}

}  // namespace oskernel_size
